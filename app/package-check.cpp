#include "package-check.hpp"

#include "core-file.hpp"
#include "core-owners.hpp"
#include "core.hpp"
#include "package-elements.hpp"
#include "zepho-log.hpp"

#include <cerrno>
#include <cinttypes>

namespace {

constexpr char log_source[] = "../main.c";
constexpr char in_check_package[] = "check_package";
constexpr uint64_t max_sectors = INT32_MAX; // a command announces them as a signed number

constexpr std::string_view blanks = " \t\r";
constexpr char not_read[] = "command that is not read";

int check_texts(const image_list *package)
{
    for (const package_text *text : {&package->description, &package->partition, &package->information}) {
        if (!text->is_read() || !text->holds_nul())
            continue;
        log_as(in_check_package, CORE_LOG_ERR, "NUL byte in %s", text->path());
        return CORE_EINVAL;
    }
    return CORE_OK;
}

// Where the lines begin that the commands were read from.
struct command_lines {
    const char *begins[MAX_IMAGE_NUMBER];
    uint32_t count;
};

// What does not fit its record would be sent in part; all but blanks at the end is kept.
int find_commands(const package_text &text, command_lines *commands)
{
    constexpr size_t longest = sizeof image::command - 1;
    commands->count = 0;
    partition_cursor lines(text);
    while (const char *const line = lines.next()) {
        if (lines.type() != LINE_COMMAND || lines.in_comment() || commands->count == MAX_IMAGE_NUMBER)
            continue;
        if (std::string_view(line).find_last_not_of(blanks) + 1 > longest) {
            log_as(in_check_package, CORE_LOG_ERR, "command of more than %zu characters in %s: %.60s...",
                   longest, text.path(), line);
            return CORE_EINVAL;
        }
        commands->begins[commands->count++] = line;
    }
    return CORE_OK;
}

bool is_letter(char c)
{
    const char small = static_cast<char>(c | 0x20);
    return small >= 'a' && small <= 'z';
}

std::string_view without_blanks_around(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return {text.data(), text.find_last_not_of(blanks) + 1};
}

// True for every way to write it: also FILENAME, file_name.
bool spells_file_name(std::string_view name)
{
    std::string_view rest = "filename";
    for (const char c : name) {
        if (!is_letter(c))
            continue;
        if (!rest.starts_with(static_cast<char>(c | 0x20)))
            return false;
        rest.remove_prefix(1);
    }
    return rest.empty();
}

// True when the file that was read for the element is the one that it names. An element that is no program
// command may name one in a way that is not read: no data is meant to follow it.
bool has_its_file(const package_element &element, std::string_view file_read)
{
    const bool is_program = element.name == "program";
    std::string_view file;
    attribute_cursor attributes = element.attributes();
    while (const std::optional<element_attribute> attribute = attributes.next()) {
        if (attribute->name == "filename")
            file = attribute->value;
        else if (is_program && spells_file_name(attribute->name))
            return false;
    }
    return file == file_read || (file_read.empty() && !is_program);
}

bool gives_an_attribute_twice(const package_element &element)
{
    attribute_cursor attributes = element.attributes();
    while (const std::optional<element_attribute> attribute = attributes.next()) {
        attribute_cursor others = attributes;
        while (const std::optional<element_attribute> other = others.next()) {
            if (other->name == attribute->name)
                return true;
        }
    }
    return false;
}

// When they are sent, commands of these kinds are known by the blank behind their name. An erase command
// without attributes needs none, for it has no file either.
bool is_known_when_sent(const package_element &element)
{
    std::string_view rest = element.text;
    rest.remove_prefix(1 + element.name.size());
    if (element.name == "program")
        return rest.starts_with(' ');
    return element.name != "erase" || rest.starts_with(' ') || !element.attributes().next();
}

// Why the image is not what the element says, null where it is.
const char *find_misreading(const package_element &element, std::string_view line, const image &img,
                            size_t directory_length)
{
    if (img.command != std::string_view(line.data(), std::min(line.size(), sizeof img.command - 1)))
        return not_read;
    if (gives_an_attribute_twice(element))
        return "attribute given twice";
    if (!is_known_when_sent(element))
        return "command without a blank behind its name";
    std::string_view file = img.filename;
    file.remove_prefix(std::min(directory_length + 1, file.size()));
    return has_its_file(element, file) ? nullptr : "file name cannot be read";
}

int refuse_line(const package_text &text, const char *why, size_t line_number, std::string_view line)
{
    constexpr size_t longest_shown = 60;
    const std::string_view shown = without_blanks_around(line);
    log_as(in_check_package, CORE_LOG_ERR, "%s in %s, line %zu: %.*s", why, text.path(), line_number,
           static_cast<int>(std::min(shown.size(), longest_shown)), shown.data());
    return CORE_EINVAL;
}

int refuse_command(const package_text &text, const char *line)
{
    const auto number = std::count<const char *>(text.bytes(), line, '\n') + 1;
    return refuse_line(text, "line that is no element", static_cast<size_t>(number), text_before(line, "\n"));
}

// Every element is a command as it was read, and every command is an element: what was not read would be
// missing in the modem while the run reports success.
int check_elements(const image_list *package, const command_lines &commands, size_t directory_length)
{
    const package_text &text = package->partition;
    element_cursor elements({text.bytes(), text.size()});
    uint32_t index = 0;
    while (const std::optional<package_element> element = elements.next()) {
        const std::string_view line = elements.line();
        const char *const read = index < commands.count ? commands.begins[index] : nullptr;
        const char *why = nullptr;
        if (without_blanks_around(line) != element->text)
            why = "command without a line of its own";
        else if (read != nullptr && read < line.data())
            return refuse_command(text, read);
        else if (read != line.data())
            why = not_read;
        else
            why = find_misreading(*element, line, package->images[index++], directory_length);
        if (why != nullptr)
            return refuse_line(text, why, elements.line_number(), line);
    }
    if (elements.problem() != nullptr)
        return refuse_line(text, elements.problem(), elements.line_number(), elements.line());
    return index < commands.count ? refuse_command(text, commands.begins[index]) : CORE_OK;
}

int check_partition(const image_list *package, size_t directory_length)
{
    command_lines commands;
    const int err = find_commands(package->partition, &commands);
    return err == CORE_OK ? check_elements(package, commands, directory_length) : err;
}

// What the command of an image with data says of its sectors.
int check_sectors_of(const image *img, const char *path)
{
    if (const int err = check_sectors(img, FIREHOSE_PAYLOAD_SIZE); err != CORE_OK)
        return err;
    if (img->sector_size_in_bytes != 0 && img->file_size > max_sectors * img->sector_size_in_bytes) {
        log_as(in_check_package, CORE_LOG_ERR, "too many sectors of %u bytes: %s", img->sector_size_in_bytes,
               img->filename);
        return CORE_EINVAL;
    }
    const std::optional<std::string_view> announced = text_behind(img->command, "num_partition_sectors=\"");
    if (announced && announced->find('"', 1) == announced->npos) { // of an empty value, the quote behind it
        log_as(in_check_package, CORE_LOG_ERR, "number of sectors without an end in %s: %.60s", path,
               img->command);
        return CORE_EINVAL;
    }
    return CORE_OK;
}

int check_command(const image *img, const char *path)
{
    const bool has_data = img->filename[0] != '\0' && !text_contains(img->command, "<erase ");
    return has_data ? check_sectors_of(img, path) : CORE_OK;
}

int check_commands(const image_list *package)
{
    for (uint32_t i = 0; i < package->image_count; ++i) {
        if (is_empty_image(&package->images[i]))
            continue;
        if (const int err = check_command(&package->images[i], package->partition_file_path); err != CORE_OK)
            return err;
    }
    return CORE_OK;
}

int check_not_empty(const image_list *package)
{
    if (package->image_count > 0 && !is_empty_image(&package->images[0]))
        return CORE_OK;
    log_as(in_check_package, CORE_LOG_ERR, "no command in %s", package->partition_file_path);
    return CORE_EINVAL;
}

// Logs the failure to open a file, where that was not done yet.
int tell_of_opening(int err, const char *path, const char *function)
{
    if (err == CORE_ENOENT)
        log_as(function, CORE_LOG_ERR, "file is not there: %s", path);
    else if (errno != 0)
        log_as(function, CORE_LOG_ERR, "error %d %s opening file '%s'\n", errno, strerror(errno), path);
    return err;
}

int check_programmer(image_list *package)
{
    const char *const path = package->programmer_path;
    const owned_text directory = directory_of_package(package);
    if (directory == nullptr) {
        log_as(in_check_package, CORE_LOG_ERR, "out of memory");
        return CORE_ENOMEM;
    }
    owned_file file;
    if (const int err = core_file_exists(path) != CORE_OK
                            ? CORE_ENOENT
                            : core_file_open_beneath(directory.get(), path, file.receive());
        err != CORE_OK)
        return tell_of_opening(err, path, in_check_package);
    if (const int err = core_file_identify(file.get(), &package->programmer); err != CORE_OK)
        return err;
    if (package->programmer.size == 0) {
        log_as(in_check_package, CORE_LOG_ERR, "programmer image %s is empty", path);
        return CORE_EINVAL;
    }
    return CORE_OK;
}

int check_lines_and_commands(const image_list *package)
{
    const owned_text directory = directory_of_package(package);
    if (directory == nullptr) {
        log_as(in_check_package, CORE_LOG_ERR, "out of memory");
        return CORE_ENOMEM;
    }
    if (const int err = check_not_empty(package); err != CORE_OK)
        return err;
    if (const int err = check_partition(package, strlen(directory.get())); err != CORE_OK)
        return err;
    return check_commands(package);
}

} // namespace

int check_package(image_list *package, bool writes_images, bool uploads_programmer)
{
    int err = check_texts(package);
    if (err == CORE_OK && writes_images)
        err = check_lines_and_commands(package);
    if (err == CORE_OK && uploads_programmer)
        err = check_programmer(package);
    return err;
}

int check_sectors(const image *img, uint32_t max_payload)
{
    const bool has_partial_payload = img->file_size % max_payload != 0;
    const uint32_t sector = img->sector_size_in_bytes;
    if ((sector != 0 || !has_partial_payload) && (sector <= max_payload || img->file_size == 0))
        return CORE_OK;
    log_err("sector size %u does not fit payload size %u for %s", sector, max_payload, img->filename);
    return CORE_EINVAL;
}

int open_same_file(const char *path, const core_file_identity &identity, int *handle)
{
    *handle = -1;
    owned_file file;
    if (const int err =
            core_file_exists(path) != CORE_OK ? CORE_ENOENT : core_file_open_to_read(path, file.receive());
        err != CORE_OK)
        return tell_of_opening(err, path, __func__);
    if (const int err = check_same_file(file.get(), path, identity); err != CORE_OK)
        return err;
    *handle = file.release();
    return CORE_OK;
}

int check_same_file(int handle, const char *path, const core_file_identity &identity)
{
    core_file_identity now{};
    if (const int err = core_file_identify(handle, &now); err != CORE_OK)
        return err;
    if (now == identity)
        return CORE_OK;
    if (now.size != identity.size)
        log_err("file of %" PRId64 " bytes has changed to %" PRId64 ": %s", identity.size, now.size, path);
    else
        log_err("file has changed: %s", path);
    return CORE_EINVAL;
}
