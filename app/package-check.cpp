#include "package-check.hpp"

#include "core-file.hpp"
#include "core-owners.hpp"
#include "core.hpp"
#include "zepho-log.hpp"

#include <cerrno>
#include <cinttypes>

namespace {

constexpr char log_source[] = "../main.c";
constexpr char in_check_package[] = "check_package";
constexpr uint64_t max_sectors = INT32_MAX; // a command announces them as a signed number

constexpr std::string_view blanks = " \t\r";

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

// How many commands that change the flash begin in the line.
int count_flash_commands(std::string_view line)
{
    int count = 0;
    for (const std::string_view element : {"<program", "<erase"}) {
        for (size_t found = line.find(element); found != line.npos; found = line.find(element, found + 1))
            ++count;
    }
    return count;
}

// True when the line ends inside an element.
bool goes_on(std::string_view line)
{
    const size_t open = line.rfind('<');
    return open != line.npos && line.find('>', open) == line.npos;
}

bool is_comment(line_type type)
{
    return type == LINE_COMMENT || type == LINE_COMMENT_START || type == LINE_COMMENT_END;
}

// Each line is one command: what goes on in the next line, or shares its line with another, would be skipped
// or sent without its data, and what does not fit its record would be sent in part.
int check_line(const char *line, line_type type, const char *path)
{
    constexpr size_t longest = sizeof image::command - 1;
    if (count_flash_commands(line) > (type == LINE_COMMAND && !goes_on(line) ? 1 : 0)) {
        log_as(in_check_package, CORE_LOG_ERR, "command without a line of its own in %s: %.60s", path, line);
        return CORE_EINVAL;
    }
    // All but blanks is kept of the command.
    if (type == LINE_COMMAND && std::string_view(line).find_last_not_of(blanks) + 1 > longest) {
        log_as(in_check_package, CORE_LOG_ERR, "command of more than %zu characters in %s: %.60s...", longest,
               path, line);
        return CORE_EINVAL;
    }
    return CORE_OK;
}

int check_lines(const package_text &text)
{
    partition_cursor lines(text);
    while (const char *const line = lines.next()) {
        if (lines.in_comment() || is_comment(lines.type()))
            continue;
        if (const int err = check_line(line, lines.type(), text.path()); err != CORE_OK)
            return err;
    }
    if (lines.in_comment()) {
        log_as(in_check_package, CORE_LOG_ERR, "comment without an end in %s", text.path());
        return CORE_EINVAL;
    }
    return CORE_OK;
}

// The text from its first character on that is no blank.
std::string_view without_leading_blanks(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text;
}

// True when the line has an attribute of just this name, however it is written, with a value that is not
// empty.
bool names_a_file(std::string_view line)
{
    static constexpr std::string_view name = "filename";
    for (size_t found = line.find(name); found != line.npos; found = line.find(name, found + 1)) {
        if (found == 0 || !text_contains(blanks, {&line[found - 1], 1}))
            continue; // the end of another name
        std::string_view rest = line;
        rest.remove_prefix(found + name.size());
        rest = without_leading_blanks(rest);
        if (!rest.starts_with('='))
            continue;
        rest.remove_prefix(1);
        rest = without_leading_blanks(rest);
        if (!rest.starts_with("\"\"") && !rest.starts_with("''"))
            return true;
    }
    return false;
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
    if (img->filename[0] == '\0' && text_contains(img->command, "<program ") && names_a_file(img->command)) {
        log_as(in_check_package, CORE_LOG_ERR, "file name cannot be read in %s: %s", path, img->command);
        return CORE_EINVAL;
    }
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
    if (const int err = check_not_empty(package); err != CORE_OK)
        return err;
    if (const int err = check_lines(package->partition); err != CORE_OK)
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
    if (const int err =
            core_file_exists(path) != CORE_OK ? CORE_ENOENT : core_file_open_to_read(path, handle);
        err != CORE_OK)
        return tell_of_opening(err, path, __func__);
    const int err = check_same_file(*handle, path, identity);
    if (err != CORE_OK)
        static_cast<void>(core_file_close(*handle)); // it was only looked at
    return err;
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
