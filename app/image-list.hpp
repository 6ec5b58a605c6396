// The package's own description: two XML files read line by line. The package description names the
// programmer and the rawprogram file; the rawprogram file's element lines are the commands to run, in order.
//
// In: the path of the description, or of the programmer alone. Out: the image list filled and every image
// file checked. Texts are read once and kept in the list. Nothing waits.
#pragma once

#include "core-reading.hpp"
#include "package-text.hpp"

#include <cstdint>

constexpr uint32_t MAX_IMAGE_NUMBER = 200;
// One element line of the rawprogram file; a record of zero bytes is a free slot.
struct image {
    uint32_t sector_size_in_bytes; // 0 when the line has none
    char label[1024];              // empty when the line has none
    char filename[1024];           // the full path once validated; empty for a line without a file
    char command[1024];            // the line as read, cut to 1023 characters
    uint64_t file_size;            // in bytes, filled by validation
    core_file_identity identity;   // of the file, filled by validation
};

// The package of one run.
struct image_list {
    char content_xml_path[1024]; // empty when only the programmer was given
    char programmer_path[1024];
    char partition_file_path[1024];
    image images[MAX_IMAGE_NUMBER]; // used slots first, in the order of the rawprogram file
    uint32_t image_count;           // how many slots to walk, at most MAX_IMAGE_NUMBER
    uint32_t platform;              // platform id of the package version
    char *new_pkgver;               // the package version, owned (free(3))
    package_text description;       // contents.xml
    package_text partition;         // the rawprogram file
    package_text information;       // information.contents
    core_file_identity programmer;  // of the programmer's file, filled by the check of the package
};

// The directory that the package lies in, to which all its names are relative: that of the description or,
// without one, of the programmer. Null when memory is short.
[[nodiscard]] owned_text directory_of_package(const image_list *list);
// Stores a path in a field of the list. 0, or CORE_EINVAL (logged) when it does not fit: cut, it would name
// another file.
[[nodiscard]] int store_path(char (&field)[1024], const char *path);
// Fills programmer_path and partition_file_path from the description. 0, CORE_EINVAL (arguments, or a file
// that cannot be opened), CORE_ENOENT (an entry is missing), CORE_ENOMEM (also for a file of more than
// MAX_TEXT_SIZE) or the read's error.
[[nodiscard]] int parse_content_xml(const char *path, image_list *list);
// The whole build, from content_xml_path or, when that is empty, from the programmer's directory. 0,
// CORE_EINVAL, CORE_ENOENT, CORE_ENOMEM (also for too many images, or too large a text) or a file's error.
[[nodiscard]] int build_image_array_from_xml(image_list *list);
// Checks every image that names a file below `base_dir` and completes its path and size. False for a file
// that is not there, is no regular file, cannot be opened, or has a path that does not fit.
[[nodiscard]] bool validate_image_list(const char *base_dir, image *images, uint32_t count);

// Debug lines that describe one image, or every used one.
void dump_image(const image *img);
void dump_image_list(const image *images, uint32_t count);
[[nodiscard]] bool is_empty_image(const image *img);
// Index of the first free slot, or -1.
[[nodiscard]] int find_free_image_slot(const image *images, int count);
