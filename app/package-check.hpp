// Whether the package can be installed as it is described: what reading it tolerates, but would end in a
// modem that is written wrongly, in part, or not at all while the run reports success.
//
// In: the package as fw_package_init has read it. Out: 0 or a refusal, with one line at error level that
// names the file and the reason. Asked before the modem is touched, and of an image's file again when it is
// sent. Files are opened and closed here; nothing waits.
#pragma once

#include "image-list.hpp"

// The whole package. CORE_EINVAL for
//  - a NUL byte in one of its texts, behind which nothing was read;
//  - a rawprogram file in which package-elements finds other commands than were read: one that shares its
//    line with anything, goes on in the next line, or was taken for a comment, one of a comment that was not,
//    a file without its <data> around, and whatever else cannot be understood;
//  - an element of which the image tells something else: another file, one of two attributes of a name, or a
//    name that is not recognised when the command is sent;
//  - a file name that leads out of the package by "..";
//  - a package without any command, unless the run only reads the OTP values (`otp`);
//  - a command that was cut, or a file of more sectors than a command can announce;
//  - an empty programmer, where the run uploads it (`uploads_programmer`).
// CORE_ENOENT for a programmer that is not there, or the error of a file.
[[nodiscard]] int check_package(const image_list *package, bool otp, bool uploads_programmer);

// The file of one image, which must still have the size that was validated. 0; CORE_EINVAL when it has not;
// CORE_ENOENT when it is gone; or the error of the file.
[[nodiscard]] int check_image_file(const image *img);
