// Whether the package can be installed as it is described: what reading it tolerates, but would end in a
// modem that is written wrongly, in part, or not at all while the run reports success.
//
// In: the package as fw_package_init has read it. Out: 0 or a refusal, with one line at error level that
// names the file and the reason. Asked before the modem is touched, and of an image's file again when it is
// sent. Files are opened and closed here; nothing waits.
#pragma once

#include "image-list.hpp"

// Payload size that is proposed to every programmer, in bytes; it may answer with a smaller one.
constexpr uint32_t FIREHOSE_PAYLOAD_SIZE = 1048576;

// The whole package; the identity of the programmer is kept in it. CORE_EINVAL for
//  - a NUL byte in one of its texts, behind which nothing was read;
// where the run writes the images (`writes_images`), for
//  - a package without any command;
//  - a rawprogram file in which package-elements finds other commands than were read: one that shares its
//    line with anything, goes on in the next line, or was taken for a comment, one of a comment that was not,
//    a file without its <data> around, and whatever else cannot be understood;
//  - an element of which the image tells something else: another file, one of two attributes of a name, or a
//    name that is not recognised when the command is sent;
//  - a command that was cut, or a file of more sectors than a command can announce;
//  - a sector size that does not fit the proposed payload, or a number of sectors without an end;
// and where it uploads the programmer (`uploads_programmer`), for one that is empty or lies outside of the
// package. CORE_ENOENT for a programmer that is not there, or the error of a file.
[[nodiscard]] int check_package(image_list *package, bool writes_images, bool uploads_programmer);

// Whether the image's data can be cut into payloads of this size: a partial one is padded to whole sectors,
// and a sector must fit into a payload. 0 or CORE_EINVAL (logged).
[[nodiscard]] int check_sectors(const image *img, uint32_t max_payload);

// Opens a file of the package once more: 0 and the descriptor, which is the caller's, when it is still what
// was validated; else -1 in its place and CORE_EINVAL when it is not, CORE_ENOENT when it is gone, or the
// error of the file. All are logged.
[[nodiscard]] int open_same_file(const char *path, const core_file_identity &identity, int *handle);
// The same of an open file, which stays open.
[[nodiscard]] int check_same_file(int handle, const char *path, const core_file_identity &identity);
