// The package's version in information.contents.
#include "core.hpp"
#include "fuzz.hpp"
#include "fuzz_file.hpp"
#include "image-list.hpp"
#include "package.hpp"
#include "temp_dir.hpp"

#include <algorithm>
#include <cstring>

// What the format says: the first line of at most 1023 characters that begins with the mark, without the
// mark, without its last character and then without the blanks, tabs and carriage returns at its end. False
// when no line does, or nothing stands behind the mark.
static bool find_version(const std::string &text, std::string *version)
{
    const std::string mark = "PKG VER : ";
    for (size_t at = 0; at < text.size();) {
        const size_t line_feed = text.find('\n', at);
        const size_t end = std::min(line_feed != std::string::npos ? line_feed + 1 : text.size(), at + 1023);
        const std::string line = text.substr(at, end - at).c_str(); // a zero ends it
        at = end;
        if (!starts_with(line, mark))
            continue;
        if (line.size() == mark.size())
            return false;
        *version = line.substr(mark.size(), line.size() - mark.size() - 1);
        while (!version->empty() && strchr(" \t\r", version->back()) != nullptr)
            version->pop_back();
        return true;
    }
    return false;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const temp_dir folder;
    static fuzz_file file(folder.at("information.contents"));
    static image_list list;
    quiet_log();
    const std::string text(reinterpret_cast<const char *>(data), size);
    file.set(text);
    strlcpy(list.content_xml_path, folder.at("contents.xml").c_str(), sizeof list.content_xml_path);
    const owned_text found = get_new_pkgver(&list);

    std::string expected;
    if (!find_version(text, &expected)) {
        fuzz_check(found == nullptr);
        return 0;
    }
    fuzz_check(found != nullptr && expected == found.get());
    fuzz_check(!contains(expected, "\n"));
    return 0;
}
