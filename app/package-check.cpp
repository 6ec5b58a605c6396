#include "package-check.hpp"

#include "core-file.hpp"
#include "core-owners.hpp"
#include "core.hpp"
#include "zepho-log.hpp"

#include <cinttypes>

static constexpr char log_source[] = "../main.c";

namespace {

constexpr char check_function[] = "check_package";
constexpr uint64_t max_sectors = INT32_MAX; // a command announces them as a signed number

bool contains(const char *text, const char *part)
{
    return strstr(text, part) != nullptr;
}

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

const char *skip_blanks(const char *text)
{
    while (is_blank(*text))
        ++text;
    return text;
}

// The size of a file that must be there: opening it would create it.
int measure(const char *path, uint64_t *size, const char *function)
{
    if (core_file_exists(path) != CORE_OK) {
        log_as(function, CORE_LOG_ERR, "file is not there: %s", path);
        return CORE_ENOENT;
    }
    owned_file file;
    if (const int err = core_file_open(path, file.receive()); err != CORE_OK)
        return err;
    int64_t bytes = 0;
    const int err = core_file_get_size(file.get(), &bytes);
    *size = static_cast<uint64_t>(bytes);
    return err;
}

int check_texts(const image_list *package)
{
    for (const package_text *text : {&package->description, &package->partition, &package->information}) {
        if (!text->is_read() || !text->holds_nul())
            continue;
        log_as(check_function, CORE_LOG_ERR, "NUL byte in %s", text->path());
        return CORE_EINVAL;
    }
    return CORE_OK;
}

// How many commands that change the flash begin in the line.
int count_flash_commands(const char *line)
{
    int count = 0;
    for (const char *element : {"<program", "<erase"}) {
        for (const char *found = strstr(line, element); found != nullptr; found = strstr(found + 1, element))
            ++count;
    }
    return count;
}

// True when the line ends inside an element.
bool goes_on(const char *line)
{
    const char *const open = strrchr(line, '<');
    return open != nullptr && strchr(open, '>') == nullptr;
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
        log_as(check_function, CORE_LOG_ERR, "command without a line of its own in %s: %.60s", path, line);
        return CORE_EINVAL;
    }
    size_t length = strlen(line);
    while (length > 0 && is_blank(line[length - 1]))
        --length;
    if (type == LINE_COMMAND && length > longest) {
        log_as(check_function, CORE_LOG_ERR, "command of more than %zu characters in %s: %.60s...", longest,
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
        log_as(check_function, CORE_LOG_ERR, "comment without an end in %s", text.path());
        return CORE_EINVAL;
    }
    return CORE_OK;
}

// The name is what stands behind the directory of the package.
int check_name(const char *path, size_t directory_length)
{
    for (const char *part = path + directory_length; part != nullptr; part = strchr(part, '/')) {
        part += strspn(part, "/");
        if (strncmp(part, "..", 2) == 0 && (part[2] == '/' || part[2] == '\0')) {
            log_as(check_function, CORE_LOG_ERR, "file name leads out of the package: %s", path);
            return CORE_EINVAL;
        }
    }
    return CORE_OK;
}

int check_names(const image_list *package)
{
    const owned_text directory = directory_of_package(package);
    if (directory == nullptr) {
        log_as(check_function, CORE_LOG_ERR, "out of memory");
        return CORE_ENOMEM;
    }
    const size_t directory_length = strlen(directory.get());
    if (package->content_xml_path[0] != '\0') { // else both lie beside each other
        for (const char *path : {package->programmer_path, package->partition_file_path}) {
            if (const int err = check_name(path, directory_length); err != CORE_OK)
                return err;
        }
    }
    for (uint32_t i = 0; i < package->image_count; ++i) {
        const image *const img = &package->images[i];
        if (img->filename[0] == '\0')
            continue;
        if (const int err = check_name(img->filename, directory_length); err != CORE_OK)
            return err;
    }
    return CORE_OK;
}

// True when the line has an attribute of just this name, however it is written, with a value that is not
// empty.
bool names_a_file(const char *line)
{
    static constexpr char name[] = "filename";
    for (const char *found = strstr(line, name); found != nullptr; found = strstr(found + 1, name)) {
        if (found == line || !is_blank(found[-1]))
            continue; // the end of another name
        const char *const equals = skip_blanks(found + strlen(name));
        if (*equals != '=')
            continue;
        const char *const quote = skip_blanks(equals + 1);
        if ((*quote != '"' && *quote != '\'') || quote[1] != quote[0])
            return true;
    }
    return false;
}

int check_command(const image *img, const char *path)
{
    if (img->filename[0] == '\0' && contains(img->command, "<program ") && names_a_file(img->command)) {
        log_as(check_function, CORE_LOG_ERR, "file name cannot be read in %s: %s", path, img->command);
        return CORE_EINVAL;
    }
    const bool has_data = img->filename[0] != '\0' && !contains(img->command, "<erase ");
    if (has_data && img->sector_size_in_bytes != 0 &&
        img->file_size > max_sectors * img->sector_size_in_bytes) {
        log_as(check_function, CORE_LOG_ERR, "too many sectors of %u bytes: %s", img->sector_size_in_bytes,
               img->filename);
        return CORE_EINVAL;
    }
    return CORE_OK;
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
    log_as(check_function, CORE_LOG_ERR, "no command in %s", package->partition_file_path);
    return CORE_EINVAL;
}

int check_programmer(const char *path)
{
    uint64_t size = 0;
    if (const int err = measure(path, &size, check_function); err != CORE_OK)
        return err;
    if (size == 0) {
        log_as(check_function, CORE_LOG_ERR, "programmer image %s is empty", path);
        return CORE_EINVAL;
    }
    return CORE_OK;
}

} // namespace

int check_package(const image_list *package, bool otp, bool uploads_programmer)
{
    int err = check_texts(package);
    if (err == CORE_OK)
        err = check_names(package);
    if (err == CORE_OK && !otp)
        err = check_not_empty(package);
    if (err == CORE_OK)
        err = check_lines(package->partition);
    if (err == CORE_OK)
        err = check_commands(package);
    if (err == CORE_OK && uploads_programmer)
        err = check_programmer(package->programmer_path);
    return err;
}

int check_image_file(const image *img)
{
    uint64_t size = 0;
    if (const int err = measure(img->filename, &size, __func__); err != CORE_OK)
        return err;
    if (size != img->file_size) {
        log_err("file of %" PRIu64 " bytes has changed to %" PRIu64 ": %s", img->file_size, size,
                img->filename);
        return CORE_EINVAL;
    }
    return CORE_OK;
}
