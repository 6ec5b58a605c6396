// The rawprogram file, in a package whose other files are there. The first byte says whether the package has
// a description.
#include "core.hpp"
#include "fuzz.hpp"
#include "fuzz_file.hpp"
#include "image-list.hpp"
#include "package-check.hpp"
#include "temp_dir.hpp"
#include "xml.hpp"

#include <algorithm>
#include <strings.h>
#include <sys/stat.h>

namespace {

// The package around the rawprogram file.
struct package_folder {
    temp_dir folder;
    std::string description = folder.write(
        "contents.xml", "<?xml version=\"1.0\"?>\n<device_programmer>\n<file_name>prog.mbn</file_name>\n"
                        "</device_programmer>\n<partition_file>\n<file_name>rawprogram_nand.xml</file_name>\n"
                        "</partition_file>\n");
    std::string programmer = folder.write("prog.mbn", "programmer");
    fuzz_file rawprogram{folder.at("rawprogram_nand.xml")};

    package_folder()
    {
        folder.write("information.contents", "PKG VER : 49.01.102\n");
        folder.write("a.bin", "12345");
        folder.write("empty.bin", "");
        folder.write("sub/b.bin", std::string(1000, 'b'));
    }
};

// The command lines as the format has them: behind the first line, outside of comments, with both brackets.
std::vector<std::string> find_commands(const std::string &text)
{
    const std::string read = text.c_str(); // as far as a text goes
    std::vector<std::string> commands;
    bool first = true;
    bool in_comment = false;
    for (size_t at = 0; at < read.size();) {
        const size_t end = std::min(read.find('\n', at), read.size());
        const std::string line = read.substr(at, end - at);
        at = end + 1;
        if (line.empty())
            continue;
        if (first) {
            first = false;
            continue;
        }
        const bool opens = contains(line, "<!--");
        const bool closes = contains(line, "-->");
        if (opens || closes) {
            in_comment = opens != closes ? opens : in_comment;
            continue;
        }
        const char *const others[] = {"<data>", "</data>", "<partition_file", "<device_programmer",
                                      "<file_name"};
        const bool other = std::any_of(std::begin(others), std::end(others),
                                       [&line](const char *mark) { return contains(line, mark); });
        if (!in_comment && !other && contains(line, "<") && contains(line, ">"))
            commands.push_back(line);
    }
    return commands;
}

// The number between the quotes, as the line writes it; "" stands for 0.
void check_sector_size(const std::string &line, uint32_t value)
{
    const std::string name = "SECTOR_SIZE_IN_BYTES=\"";
    const size_t found = line.find(name);
    fuzz_check(found != std::string::npos);
    const std::string text =
        line.substr(found + name.size(), line.find('"', found + name.size()) - found - name.size());
    fuzz_check(text.find_first_not_of("0123456789+ \t\v\f\r") == std::string::npos);
    const size_t digits = text.find_first_of("123456789");
    fuzz_check(text.substr(digits) == std::to_string(value));
}

void check_image(const image &img, const std::string &line, const std::string &folder, bool validated)
{
    fuzz_check(is_terminated(img.command, sizeof img.command) && is_terminated(img.label, sizeof img.label) &&
               is_terminated(img.filename, sizeof img.filename));
    fuzz_check(line.substr(0, sizeof img.command - 1) == img.command);
    if (img.label[0] != '\0')
        fuzz_check(contains(line, "label=\"" + std::string(img.label) + "\""));
    if (img.sector_size_in_bytes != 0)
        check_sector_size(line, img.sector_size_in_bytes);
    if (!validated || img.filename[0] == '\0')
        return;
    const std::string path = img.filename;
    fuzz_check(starts_with(path, folder + "/"));
    const std::string name = path.substr(folder.size() + 1);
    fuzz_check(contains(line, "filename=\"" + name + (path.size() < sizeof img.filename - 1 ? "\"" : "")));
    struct stat status {};
    fuzz_check(stat(img.filename, &status) == 0 && static_cast<uint64_t>(status.st_size) == img.file_size);
}

// An element of a file that passes the check of the whole package.
struct element {
    std::string line;
    std::string name;
    std::string file; // the value of its attribute filename
};

std::string stripped(const std::string &line)
{
    const size_t begin = std::min(line.find_first_not_of(" \t\r"), line.size());
    return line.substr(begin, line.find_last_not_of(" \t\r") + 1 - begin);
}

// Reads a line that must hold one element and nothing else.
element read_element(const std::string &line)
{
    element found{line, "", ""};
    std::string rest = stripped(line);
    const auto take_until = [&rest](const char *ends) {
        const size_t end = rest.find_first_of(ends);
        fuzz_check(end != std::string::npos);
        const std::string taken = rest.substr(0, end);
        rest = stripped(rest.substr(end));
        return taken;
    };
    fuzz_check(rest[0] == '<');
    rest.erase(0, 1);
    found.name = take_until(" \t\r/>");
    fuzz_check(!found.name.empty());
    std::vector<std::string> names;
    while (rest[0] != '/' && rest[0] != '>') {
        names.push_back(take_until(" \t\r="));
        fuzz_check(rest.find_first_not_of("= \t\r") == rest.find_first_of("\"'") && rest[0] == '=');
        rest = stripped(rest.substr(1));
        const std::string quote = rest.substr(0, 1);
        rest.erase(0, 1);
        const size_t end = rest.find(quote);
        fuzz_check(end != std::string::npos);
        const std::string value = rest.substr(0, end);
        fuzz_check(!names.back().empty() && !contains(names.back() + value, "<"));
        if (names.back() == "filename")
            found.file = value;
        else
            fuzz_check(found.name != "program" || strcasecmp(names.back().c_str(), "filename") != 0);
        rest = rest.substr(end + 1);
        fuzz_check(!rest.empty() && contains(" \t\r/>", rest.substr(0, 1)));
        rest = stripped(rest);
    }
    std::sort(names.begin(), names.end());
    fuzz_check(std::adjacent_find(names.begin(), names.end()) == names.end());
    if (rest == "/>")
        return found;
    rest = stripped(rest.substr(1));
    fuzz_check(starts_with(rest, "</" + found.name) && stripped(rest.substr(2 + found.name.size())) == ">");
    return found;
}

bool has_brackets(const std::string &text)
{
    return text.find_first_of("<>") != std::string::npos;
}

// Takes out the declaration, and leaves only marks and line feeds of the comments.
std::string without_comments(std::string text)
{
    const std::string mark(1, '\1');
    const size_t first = text.find('<');
    if (first != std::string::npos && text.compare(first, 2, "<?") == 0) {
        const size_t end = text.find("?>", first);
        fuzz_check(end != std::string::npos);
        text.erase(first, end + 2 - first);
    }
    for (size_t at = text.find("<!--"); at != std::string::npos; at = text.find("<!--")) {
        const size_t end = text.find("-->", at + 4);
        fuzz_check(end != std::string::npos);
        const auto lines = static_cast<size_t>(std::count(&text[at], &text[end], '\n'));
        text.replace(at, end + 3 - at, mark + std::string(lines, '\n') + mark);
    }
    return text;
}

// The elements of a file that was accepted, which is built as such a file must be: one <data>, in it lines
// that hold an element each, and text without brackets.
std::vector<element> find_elements(const std::string &read)
{
    const std::string text = without_comments(read);
    const size_t begin = text.find("<data>");
    const size_t end = text.find("</data>");
    fuzz_check(begin < end && end != std::string::npos);
    fuzz_check(!has_brackets(text.substr(0, begin)) && !has_brackets(text.substr(end + 7)));
    std::vector<element> elements;
    const size_t first = text.find('\n', begin);
    const size_t last = text.rfind('\n', end);
    fuzz_check(first != std::string::npos && last >= first && last < end);
    fuzz_check(!has_brackets(text.substr(begin + 6, first - begin - 6)));
    fuzz_check(!has_brackets(text.substr(last, end - last)));
    for (size_t at = first; at < last;) {
        const size_t next = text.find('\n', at + 1);
        const std::string line = text.substr(at + 1, next - at - 1);
        at = next;
        if (has_brackets(line))
            elements.push_back(read_element(line));
    }
    return elements;
}

// What passes the check of the whole package: a text that was read to its end, all of whose elements, and
// nothing else, are commands, with the files that they name, as they were measured.
void check_decision(image_list &list, uint32_t used, const std::string &text, const std::string &folder)
{
    const int decision = check_package(&list, true, true);
    fuzz_check(decision <= 0);
    if (decision != CORE_OK)
        return;
    fuzz_check(used > 0 && !contains(text, std::string(1, '\0')));
    const std::vector<element> elements = find_elements(text);
    fuzz_check(elements.size() == used);
    for (uint32_t i = 0; i < used; ++i) {
        const image &img = list.images[i];
        fuzz_check(stripped(elements[i].line) == stripped(img.command));
        const std::string file = elements[i].file.empty() ? "" : folder + "/" + elements[i].file;
        fuzz_check(img.filename == file || (img.filename[0] == '\0' && elements[i].name != "program"));
        if (elements[i].name == "program" || (elements[i].name == "erase" && img.filename[0] != '\0'))
            fuzz_check(contains(img.command, "<" + elements[i].name + " ")); // as it is known when it is sent
        owned_file opened;
        fuzz_check(img.filename[0] == '\0' ||
                   open_same_file(img.filename, img.identity, opened.receive()) == CORE_OK);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static package_folder package;
    static image_list list;
    fuzz_input input(data, size);
    const bool described = (input.take_byte() & 1) != 0;
    const std::string text = input.rest();
    if (contains(text, ".."))
        return 0; // no file outside of the folder is opened
    quiet_log();
    package.rawprogram.set(text);
    list.content_xml_path[0] = list.programmer_path[0] = list.partition_file_path[0] = '\0';
    list.image_count = MAX_IMAGE_NUMBER;
    strlcpy(described ? list.content_xml_path : list.programmer_path,
            (described ? package.description : package.programmer).c_str(), sizeof list.programmer_path);
    const int result = build_image_array_from_xml(&list);
    fuzz_check(result <= 0);

    const std::vector<std::string> commands = find_commands(text);
    if (commands.size() > MAX_IMAGE_NUMBER)
        fuzz_check(result != CORE_OK);
    uint32_t used = 0;
    while (used < MAX_IMAGE_NUMBER && !is_empty_image(&list.images[used]))
        ++used;
    fuzz_check(used <= commands.size());
    if (result == CORE_OK)
        fuzz_check(used == commands.size());
    for (uint32_t i = 0; i < used; ++i)
        check_image(list.images[i], commands[i], package.folder.path(), result == CORE_OK);
    if (result == CORE_OK)
        check_decision(list, used, text, package.folder.path());
    memset(list.images, 0, used * sizeof(image)); // for the next execution
    return 0;
}
