// Decides whether the package may be installed on the modem, and says why.
//
// In: the modem's versions text, the package's version, the --force option. Out: 0 or a refusal. No waits.
#pragma once

#include "core-owners.hpp"
#include "image-list.hpp"

// A copy of the text before the first occurrence of `separator`; null when either is null, or the separator
// is absent or at the very start.
[[nodiscard]] owned_text substring_before_sep(const char *text, const char *separator);
// Logs what a result of fw_version_compare means. 0 when flashing may go on; CORE_EPERM, CORE_EINVAL or
// CORE_EGENERIC when not. Only a downgrade can be forced.
[[nodiscard]] int print_fw_compatibility_msgs(int result, bool force);
// 0 when the package may be installed on a modem that reports `modem_versions`; CORE_EINVAL when the modem's
// version is unknown and not forced; or a refusal of print_fw_compatibility_msgs.
[[nodiscard]] int check_fw_compatibility(const char *modem_versions, const image_list *package, bool force);
