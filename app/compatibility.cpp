#include "compatibility.hpp"

#include "core.hpp"
#include "zepho-log.hpp"
#include "zepho-module.hpp"

namespace {

constexpr char log_source[] = "../compatibility.c";

} // namespace

owned_text substring_before_sep(const char *text, const char *separator)
{
    if (text == nullptr || separator == nullptr)
        return nullptr;
    const size_t length = std::string_view(text).find(separator);
    if (length == std::string_view::npos || length == 0)
        return nullptr;
    owned_text copy(strndup(text, length));
    if (copy == nullptr)
        log_err("memory failure");
    return copy;
}

int print_fw_compatibility_msgs(int result, bool force)
{
    static constexpr struct {
        int result;
        bool not_forced;
        bool forced;
        int level;
        const char *message;
        int returned;
    } rows[] = {
        {CORE_OK, true, true, CORE_LOG_DBG, "performing an upgrade", CORE_OK},
        {CORE_EVERSION, true, false, CORE_LOG_ERR, "downgrade may not be safe, --force option is mandatory",
         CORE_EPERM},
        {CORE_EVERSION, false, true, CORE_LOG_INF, "performing a downgrade", CORE_OK},
        {CORE_EINVAL, true, true, CORE_LOG_ERR, "wrong package version", CORE_EINVAL},
        {CORE_EGENERIC, true, true, CORE_LOG_ERR, "the platform is not supported", CORE_EPERM},
        {CORE_EPERM, true, true, CORE_LOG_ERR, "not compatible", CORE_EPERM},
    };
    for (const auto &row : rows) {
        if (row.result == result && (force ? row.forced : row.not_forced)) {
            log_at(row.level, "%s", row.message);
            return row.returned;
        }
    }
    log_err("unexpected error");
    return CORE_EGENERIC;
}

int check_fw_compatibility(const char *modem_versions, const image_list *package, bool force)
{
    const owned_text modem_version = substring_before_sep(modem_versions, "-P");
    if (modem_version != nullptr) {
        const int result = fw_version_compare(modem_version.get(), package->new_pkgver);
        log_dbg("fw_version_compare: %d", result);
        return print_fw_compatibility_msgs(result, force);
    }
    if (force) {
        log_dbg("firmware compatibility cannot be checked");
        return CORE_OK;
    }
    log_err("unable to get the package version of the modem");
    return CORE_EINVAL;
}
