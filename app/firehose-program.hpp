// Writing the package over a configured Firehose connection: every element line of the rawprogram file as a
// request, and behind a program line the bytes of its file, in payload-sized chunks padded to whole sectors.
#pragma once

#include "firehose.hpp"
#include "image-list.hpp"

// Replays all images in table order. Sets `*reset_sent` once a power reset was among them. 0 or the first
// failure. `max_payload` is the negotiated payload size in bytes.
[[nodiscard]] int send_commands(const image_list *package, firehose_device *device, uint32_t max_payload,
                                bool *reset_sent);
// One image: its command and, unless it is an erase or names no file, its data. CORE_EINVAL, before anything
// is sent, when the data cannot be cut into sectors. CORE_EINVAL or CORE_ENOENT when the file is no longer
// the one whose sectors the command announces, looked at before the command, before the data and after them.
[[nodiscard]] int send_command_with_binary(firehose_device *device, const image *img, uint32_t max_payload);
// The request of one image alone. 0, CORE_ENOMEM or the failure of the request.
[[nodiscard]] int send_command(firehose_device *device, const image *img, bool is_erase,
                               raw_mode awaited = raw_mode::off);
// The request's text; its length, -1 on failure.
[[nodiscard]] int get_command_xml(owned_text *out, const image *img, bool is_erase);
// The command with its num_partition_sectors set to the file's real size in sectors, or unchanged where that
// does not apply. 0 or the length on success, -1 on failure.
[[nodiscard]] int change_num_partition_sectors_attrib(owned_text *out, const image *img, bool is_erase);
// Bytes to send for `read_size` bytes read: the first tested multiple of the sector size that holds them, or
// `max_payload`. `sector_size` must not be 0.
[[nodiscard]] uint32_t find_minimum_chunk_size(uint32_t read_size, uint32_t max_payload,
                                               uint32_t sector_size);

// The library's interface: the updater itself sends the files that it holds open.

// Sends the file's bytes and waits for one ACK. A sector is at most a payload, and only a file of whole
// payloads may have none (0). 0, also after a read that was too short; CORE_ENOMEM; CORE_EGENERIC; or the
// error of a file or write.
[[nodiscard]] int send_binary(firehose_device *device, uint32_t max_payload, uint32_t sector_size,
                              const char *path);
