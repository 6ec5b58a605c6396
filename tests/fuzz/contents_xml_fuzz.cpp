// The package description.
#include "core.hpp"
#include "fuzz.hpp"
#include "fuzz_file.hpp"
#include "image-list.hpp"
#include "xml.hpp"

static constexpr size_t path_size = sizeof image_list::programmer_path;

// A path that was read stands between its tags, whole or cut to what fits.
static void check_path(const char (&path)[path_size], const std::string &text)
{
    fuzz_check(is_terminated(path, path_size));
    if (path[0] == '\0')
        return;
    const std::string value = path;
    const std::string end = value.size() < path_size - 1 ? "</file_name>" : "";
    fuzz_check(contains(text, "<file_name>" + value + end));
    fuzz_check(!contains(value, "\n"));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static fuzz_file file;
    static image_list list;
    quiet_log();
    const std::string text(reinterpret_cast<const char *>(data), size);
    file.set(text);
    list = {};
    const int result = parse_content_xml(file.path(), &list);
    fuzz_check(result == CORE_OK || result == CORE_ENOENT || result == CORE_EINVAL);
    check_path(list.programmer_path, text);
    check_path(list.partition_file_path, text);
    if (result == CORE_OK) {
        fuzz_check(list.programmer_path[0] != '\0' && list.partition_file_path[0] != '\0');
        fuzz_check(contains(text, "<device_programmer") && contains(text, "<partition_file"));
    }
    list.description = {};
    memset(list.programmer_path, 0, path_size);
    memset(list.partition_file_path, 0, path_size);
    fuzz_check(core_is_zero(&list, sizeof list)); // nothing else was written
    return 0;
}
