#include "image-list.hpp"

#include "core-file.hpp"
#include "core-owners.hpp"
#include "core.hpp"
#include "xml.hpp"
#include "zepho-log.hpp"

#include <cerrno>
#include <cinttypes>
#include <libgen.h>

namespace {

constexpr char log_source[] = "../xml.c";
constexpr char in_parse_content_xml[] = "parse_content_xml";
constexpr char in_build_image_array_from_xml[] = "build_image_array_from_xml";
constexpr char in_validate_image_list[] = "validate_image_list";

owned_text directory_of(const char *path)
{
    const owned_text copy(strdup(path));
    return owned_text(copy != nullptr ? strdup(dirname(copy.get())) : nullptr);
}

// The lines of the description: an element line, then the line with its file name.
int parse_content_lines(image_list *list)
{
    const struct {
        line_type type;
        char *path;
        const char *name_missing;
        const char *missing;
    } entries[] = {
        {LINE_DEVICE_PROGRAMMER, list->programmer_path, "programmer_path file_name not found",
         "programmer_path not found"},
        {LINE_PARTITION_FILE, list->partition_file_path, "partition_file_path file_name not found",
         "partition_file_path not found"},
    };
    static constexpr size_t path_size = sizeof list->programmer_path;
    line_cursor lines(list->description);
    lines.next(); // the XML declaration
    while (const char *const line = lines.next()) {
        const line_type type = get_line_type(line, false);
        for (const auto &entry : entries) {
            if (entry.type != type)
                continue;
            const char *const next = lines.next();
            if (get_line_type(next, false) != LINE_FILE_NAME)
                break;
            if (!get_value(entry.path, path_size, next, LINE_FILE_NAME)) {
                log_as(in_parse_content_xml, CORE_LOG_ERR, "%s", entry.name_missing);
                return CORE_ENOENT;
            }
            break;
        }
    }
    for (const auto &entry : entries) {
        if (entry.path[0] == '\0') {
            log_as(in_parse_content_xml, CORE_LOG_ERR, "%s", entry.missing);
            return CORE_ENOENT;
        }
    }
    return CORE_OK;
}

// Puts the base directory in front of a path of the list.
int join_base(const char *base_dir, char (&path)[1024])
{
    const owned_text joined = format_text("%s/%s", base_dir, path);
    if (joined == nullptr) {
        log_as(in_build_image_array_from_xml, CORE_LOG_ERR, "out of memory");
        return CORE_ENOMEM;
    }
    return store_path(path, joined.get());
}

// Without a description, the first rawprogram file that the programmer's directory lists is taken.
int find_partition_file(const char *base_dir, image_list *list)
{
    const owned_directory directory(opendir(base_dir));
    if (directory == nullptr) {
        const int err = errno;
        log_as(in_build_image_array_from_xml, CORE_LOG_ERR, "failed to open fw directory %s, errno: %d (%s)",
               base_dir, err, strerror(err));
        return CORE_ENOENT;
    }
    while (const dirent *const entry = readdir(directory.get())) {
        if (strstr(entry->d_name, "rawprogram_nand") == nullptr || strstr(entry->d_name, ".xml") == nullptr)
            continue;
        strlcpy(list->partition_file_path, entry->d_name, sizeof list->partition_file_path);
        return join_base(base_dir, list->partition_file_path);
    }
    if (list->partition_file_path[0] == '\0') {
        log_as(in_build_image_array_from_xml, CORE_LOG_ERR, "unable to find partition_file_path");
        return CORE_EINVAL;
    }
    return CORE_OK;
}

// Finds the rawprogram file and, by the description, the programmer.
int find_package_files(const char *base_dir, image_list *list)
{
    if (list->content_xml_path[0] == '\0')
        return find_partition_file(base_dir, list);
    if (const int err = parse_content_xml(list->content_xml_path, list); err != CORE_OK) {
        log_as(in_build_image_array_from_xml, CORE_LOG_ERR, "unable to parse content xml file %s, err = %u",
               list->content_xml_path, static_cast<unsigned>(err));
        return err;
    }
    if (const int err = join_base(base_dir, list->partition_file_path); err != CORE_OK)
        return err;
    return join_base(base_dir, list->programmer_path);
}

// Opens a file of the package for reading; a failure of the system is logged.
int open_in_package(const char *base_dir, const char *path, owned_file *file, const char *function)
{
    const int err = core_file_open_beneath(base_dir, path, file->receive());
    if (err != CORE_OK && errno != 0)
        log_as(function, CORE_LOG_ERR, "error %d %s opening file '%s'\n", errno, strerror(errno), path);
    return err;
}

// A rawprogram file that cannot be reached, for whatever reason, is one that is not there.
int open_partition_file(const char *base_dir, const char *path, owned_file *file)
{
    if (core_file_exists(path) == CORE_OK)
        return open_in_package(base_dir, path, file, in_build_image_array_from_xml);
    log_as(in_build_image_array_from_xml, CORE_LOG_ERR, "error %d %s opening file '%s'\n", ENOENT,
           strerror(ENOENT), path);
    return CORE_ENOENT;
}

int add_image(image_list *list, const char *line)
{
    static image fresh; // 3 KiB, too much for a small stack
    memset(&fresh, 0, sizeof fresh);
    strlcpy(fresh.command, line, sizeof fresh.command);
    // A command without one of them leaves the field empty.
    static_cast<void>(get_string_attribute(line, "label", fresh.label, sizeof fresh.label));
    static_cast<void>(get_string_attribute(line, "filename", fresh.filename, sizeof fresh.filename));
    static_cast<void>(get_uint_attribute(line, "SECTOR_SIZE_IN_BYTES", &fresh.sector_size_in_bytes));
    const int slot = find_free_image_slot(list->images, static_cast<int>(list->image_count));
    if (slot < 0) {
        log_as(in_build_image_array_from_xml, CORE_LOG_ERR, "Images > MAX_IMAGE_NUMBER, increase the define");
        return CORE_ENOMEM;
    }
    memcpy(&list->images[slot], &fresh, sizeof fresh);
    return CORE_OK;
}

int parse_partition_lines(image_list *list)
{
    partition_cursor lines(list->partition);
    if (!is_valid_xml(lines.next())) {
        log_as(in_build_image_array_from_xml, CORE_LOG_ERR, "file %s", list->partition_file_path);
        return CORE_EINVAL;
    }
    while (const char *const line = lines.next()) {
        if (lines.type() != LINE_COMMAND || lines.in_comment())
            continue;
        if (const int err = add_image(list, line); err != CORE_OK)
            return err;
    }
    return CORE_OK;
}

bool validate_image(const char *base_dir, image *img)
{
    const owned_text path = format_text("%s/%s", base_dir, img->filename);
    if (path == nullptr) {
        log_as(in_validate_image_list, CORE_LOG_ERR, "memory error");
        return false;
    }
    const auto fail = [img](int line, const char *format, int err) {
        char message[64];
        snprintf(message, sizeof message, format, static_cast<unsigned>(err));
        core_log(CORE_LOG_ERR, log_source, in_validate_image_list, line, "%s", message);
        dump_image(img);
        return false;
    };
    if (core_file_exists(path.get()) != CORE_OK)
        return fail(__LINE__, "file does not exist for image", 0);
    owned_file file;
    if (const int err = open_in_package(base_dir, path.get(), &file, in_validate_image_list); err != CORE_OK)
        return fail(__LINE__, "unable to open file err = %u, for image", err);
    if (const int err = core_file_identify(file.get(), &img->identity); err != CORE_OK)
        return fail(__LINE__, "unable to get file size err = %u, for image", err);
    img->file_size = static_cast<uint64_t>(img->identity.size);
    if (const int err = file.close(); err != CORE_OK)
        return fail(__LINE__, "unable to close file err = %u, for image", err);
    return store_path(img->filename, path.get()) == CORE_OK;
}

} // namespace

owned_text directory_of_package(const image_list *list)
{
    const bool has_description = list->content_xml_path[0] != '\0';
    return directory_of(has_description ? list->content_xml_path : list->programmer_path);
}

int store_path(char (&field)[1024], const char *path)
{
    if (strlen(path) < sizeof field) {
        strlcpy(field, path, sizeof field);
        return CORE_OK;
    }
    log_err("path of more than %zu characters: %s", sizeof field - 1, path);
    return CORE_EINVAL;
}

int parse_content_xml(const char *path, image_list *list)
{
    if (path == nullptr || list == nullptr) {
        log_err("invalid args");
        return CORE_EINVAL;
    }
    const owned_text base_dir = directory_of(path);
    if (base_dir == nullptr) {
        log_err("out of memory");
        return CORE_ENOMEM;
    }
    owned_file file;
    if (const int err = open_in_package(base_dir.get(), path, &file, __func__); err != CORE_OK) {
        log_err("unable to open xml file %s, error = %u", path, static_cast<unsigned>(err));
        return CORE_EINVAL;
    }
    if (const int err = list->description.read(path, file.get(), __func__); err != CORE_OK)
        return err;
    return parse_content_lines(list);
}

bool validate_image_list(const char *base_dir, image *images, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i) {
        if (!is_empty_image(&images[i]) && images[i].filename[0] != '\0' &&
            !validate_image(base_dir, &images[i]))
            return false;
    }
    return true;
}

int build_image_array_from_xml(image_list *list)
{
    const owned_text base_dir = directory_of_package(list);
    if (base_dir == nullptr) {
        log_err("out of memory");
        return CORE_ENOMEM;
    }
    if (const int err = find_package_files(base_dir.get(), list); err != CORE_OK)
        return err;
    owned_file file;
    if (const int err = open_partition_file(base_dir.get(), list->partition_file_path, &file);
        err != CORE_OK) {
        log_err("unable to open partition file %s, err = %u", list->partition_file_path,
                static_cast<unsigned>(err));
        return err;
    }
    if (const int err = list->partition.read(list->partition_file_path, file.get(), __func__); err != CORE_OK)
        return err;
    if (const int err = parse_partition_lines(list); err != CORE_OK)
        return err;
    if (!validate_image_list(base_dir.get(), list->images, list->image_count)) {
        log_err("image list validation failure");
        return CORE_EINVAL;
    }
    dump_image_list(list->images, list->image_count);
    return CORE_OK;
}

bool is_empty_image(const image *img)
{
    return core_is_zero(img, sizeof *img);
}

int find_free_image_slot(const image *images, int count)
{
    for (int i = 0; i < count; ++i) {
        if (is_empty_image(&images[i]))
            return i;
    }
    return -1;
}

void dump_image(const image *img)
{
    const auto shown = [](const char *text) { return text[0] != '\0' ? text : "<none>"; };
    log_dbg("Label: %s", shown(img->label));
    log_dbg("\tFilename: %s", shown(img->filename));
    log_dbg("\tCommand: %s", shown(img->command));
    if (img->file_size != 0)
        log_dbg("\tFilesize: %" PRIu64, img->file_size);
    log_dbg("\tsector_size_in_bytes: %u", img->sector_size_in_bytes);
}

void dump_image_list(const image *images, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i) {
        if (!is_empty_image(&images[i]))
            dump_image(&images[i]);
    }
}
