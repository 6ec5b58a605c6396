// Package versions: which platform a version text belongs to, and whether one may follow another.
//
// A version is PP.MN.CCm (9 characters), PP.MN.CCm-Bbbb (14) or that with an author suffix (15 or more): PP
// the platform code, M the major number, N and m the tens and units of the minor number, CC the compatibility
// class, bbb the build. Nothing here waits or allocates.
#pragma once

#include <cstdint>

// Stores the platform id (0, 1 or 2) of `version`. 0; CORE_EINVAL for a malformed version or an author suffix
// where the platform has none; CORE_EGENERIC for an unsupported platform. Failures are logged.
[[nodiscard]] int get_platform(const char *version, uint32_t *platform);
// Whether `new_version` (the package's) may follow `old_version` (the modem's): 0 upgrade or the same,
// CORE_EVERSION downgrade, CORE_EPERM not compatible (other platform or class), or an error of get_platform.
[[nodiscard]] int fw_version_compare(const char *old_version, const char *new_version);
