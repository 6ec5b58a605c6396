#include "package.hpp"

#include "core-file.hpp"
#include "core.hpp"
#include "options.hpp"
#include "zepho-log.hpp"
#include "zepho-module.hpp"

#include <cerrno>

namespace {

constexpr char log_source[] = "../main.c";
constexpr char in_fw_package_init[] = "fw_package_init";
constexpr char version_prefix[] = "PKG VER : ";

// Looks for the two kinds of package that a directory may hold, in this order.
int find_package_in_directory(const char *directory)
{
    const struct {
        const char *file;
        char (*path)[1024];
    } sources[] = {
        {"/contents.xml", &package.content_xml_path},
        {"/prog_nand_firehose_9x06.mbn", &package.programmer_path},
    };
    for (const auto &source : sources) {
        const owned_text path = format_text("%s%s%s", directory, "/", source.file);
        if (path == nullptr) {
            log_as(in_fw_package_init, CORE_LOG_ERR, "string join error: %s", strerror(errno));
            return CORE_ENOMEM;
        }
        if (core_file_exists(path.get()) == CORE_OK)
            return store_path(*source.path, path.get());
    }
    log_as(in_fw_package_init, CORE_LOG_ERR, "firmware not supported: %s", directory);
    return CORE_ENOENT;
}

int find_package()
{
    if (options.firmware_directory != nullptr)
        return find_package_in_directory(options.firmware_directory);
    if (options.meta[0] != '\0') {
        strlcpy(package.content_xml_path, options.meta, sizeof package.content_xml_path);
        return CORE_OK;
    }
    CORE_ASSERT(strlen(options.flat));
    strlcpy(package.programmer_path, options.flat, sizeof package.programmer_path);
    return CORE_OK;
}

} // namespace

image_list package;

int fw_package_init()
{
    if (const int err = find_package(); err != CORE_OK)
        return err;
    package.image_count = MAX_IMAGE_NUMBER;
    package.new_pkgver = get_new_pkgver(&package).release();
    if (package.new_pkgver == nullptr) {
        log_err("unable to get package version of the firmware to be flashed");
        return CORE_ENOENT;
    }
    if (const int err = get_platform(package.new_pkgver, &package.platform); err != CORE_OK)
        log_err("unsupported platform: %s; reason: %d", package.new_pkgver, err);
    const int err = build_image_array_from_xml(&package);
    if (err != CORE_OK)
        log_err("error in building the image list");
    return err;
}

owned_text get_new_pkgver(image_list *list)
{
    const owned_text directory = directory_of_package(list);
    if (directory == nullptr) {
        log_err("out of memory");
        return nullptr;
    }
    const owned_text path = format_text("%s/%s", directory.get(), "information.contents");
    if (path == nullptr) {
        log_err("%s: error in generating path for information.contents file", __func__);
        return nullptr;
    }
    owned_file file;
    if (core_file_open_beneath(directory.get(), path.get(), file.receive()) != CORE_OK) {
        log_err("%s: cannot open the file %s", __func__, path.get());
        return nullptr;
    }
    int64_t size = 0;
    if (core_file_get_size(file.get(), &size) != CORE_OK || size > MAX_TEXT_SIZE) {
        log_err("%s: too large: %s", __func__, path.get());
        return nullptr;
    }
    package_text &text = list->information;
    if (text.read(path.get(), file.get(), __func__) != CORE_OK)
        return nullptr;
    const owned_stream lines(fmemopen(text.bytes(), text.size(), "r"));
    if (lines == nullptr) {
        log_err("out of memory");
        return nullptr;
    }
    return search_pkgv(lines.get());
}

owned_text search_pkgv(FILE *file)
{
    constexpr size_t prefix_length = sizeof version_prefix - 1;
    char line[1024];
    do {
        if (fgets(line, sizeof line, file) == nullptr) {
            log_err("%s: no PKG VER found in the information.contents file", __func__);
            return nullptr;
        }
    } while (strncmp(line, version_prefix, prefix_length) != 0);
    // The last character of the line goes, whatever it is: the line feed, where there is one.
    const size_t size = strlen(line) - prefix_length;
    if (size == 0) {
        log_err("%s: empty PKG VER in the information.contents file", __func__);
        return nullptr;
    }
    owned_text version(static_cast<char *>(malloc(size)));
    if (version == nullptr) {
        log_err("memory failure");
        return nullptr;
    }
    strlcpy(version.get(), line + prefix_length, size);
    // Blanks, and the carriage return of a foreign line end, are no part of it.
    version.get()[std::string_view(version.get()).find_last_not_of(" \t\r") + 1] = '\0';
    log_dbg("PKG VER to be flashed: %s", version.get());
    return version;
}

void fw_package_free()
{
    free(package.new_pkgver);
    package.new_pkgver = nullptr;
}
