#include "package-text.hpp"

#include "core-file.hpp"
#include "core.hpp"
#include "zepho-log.hpp"

#include <cinttypes>

namespace {

constexpr char log_source[] = "../xml.c";

} // namespace

int package_text::read(const char *path, int file, const char *function)
{
    int64_t size = 0;
    if (const int err = core_file_get_size(file, &size); err != CORE_OK) {
        log_as(function, CORE_LOG_ERR, "unable to get bin file size %u", static_cast<unsigned>(err));
        return err;
    }
    owned_text bytes;
    if (size <= MAX_TEXT_SIZE)
        bytes.reset(static_cast<char *>(calloc(static_cast<size_t>(size) + 1, 1)));
    path_.reset(strdup(path));
    if (bytes == nullptr || path_ == nullptr) {
        log_as(function, CORE_LOG_ERR, "out of memory");
        return CORE_ENOMEM;
    }
    const auto total = static_cast<size_t>(size);
    size_t done = 0;
    while (done < total) {
        size_t count = 0;
        int err = core_file_read(file, bytes.get() + done, total - done, &count);
        if (err == CORE_OK && count == 0)
            err = CORE_EINVAL; // the file has shrunk meanwhile
        if (err != CORE_OK) {
            log_as(function, CORE_LOG_ERR, "error %u reading %" PRIu64 " bytes (read %u bytes)",
                   static_cast<unsigned>(err), static_cast<uint64_t>(total), static_cast<unsigned>(count));
            return err;
        }
        done += count;
    }
    bytes_ = std::move(bytes);
    size_ = total;
    return CORE_OK;
}

bool package_text::holds_nul() const
{
    return memchr(bytes_.get(), '\0', size_) != nullptr;
}

void line_cursor::mend()
{
    if (cut_ != nullptr)
        *cut_ = '\n';
    cut_ = nullptr;
}

const char *line_cursor::next()
{
    mend();
    rest_ += strspn(rest_, "\n");
    if (*rest_ == '\0')
        return nullptr;
    const char *const line = rest_;
    rest_ += strcspn(rest_, "\n");
    if (*rest_ == '\n') {
        cut_ = rest_++;
        *cut_ = '\0';
    }
    return line;
}

const char *partition_cursor::next()
{
    if (type_ == LINE_COMMENT_START || type_ == LINE_COMMENT_END)
        in_comment_ = type_ == LINE_COMMENT_START;
    is_declaration_ = type_ == LINE_NULL;
    const char *const line = lines_.next();
    if (line != nullptr)
        type_ = is_declaration_ ? LINE_OTHER : get_line_type(line, in_comment_);
    return line;
}
