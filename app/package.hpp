// Package identification: turns the package source of the command line into the package record: paths,
// version, platform and images.
//
// In: `options`. Out: the process-wide `package`. Files are opened and closed here; nothing waits.
#pragma once

#include "core-owners.hpp"
#include "image-list.hpp"

// The package of this run.
extern image_list package;

// 0; CORE_ENOENT for a directory without a package, or without a version; CORE_ENOMEM; or the error of the
// image list.
[[nodiscard]] int fw_package_init();
// The version text of the package's information.contents, which is read into the list; null when it has none
// (logged).
[[nodiscard]] owned_text get_new_pkgver(image_list *list);
// The version text of an open information.contents, null when it has none (logged).
[[nodiscard]] owned_text search_pkgv(FILE *file);
// Releases what fw_package_init allocated.
void fw_package_free();
