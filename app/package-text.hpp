// A text of the package, read once and whole: what is checked is what was read, and what was read is what is
// flashed. Two cursors walk through it, one line by line, one with an eye on the comments of a rawprogram
// file.
//
// A text owns its bytes. A cursor cuts the text at the line in hand and mends the cut when it moves on or
// ends, so a text has one cursor at a time, and a line lives until the next one. Nothing waits.
#pragma once

#include "core-owners.hpp"
#include "xml.hpp"

#include <cstddef>
#include <cstdint>

// No text of a package may be larger, in bytes: a file with holes can pretend to any size, and would be read
// until the memory is full or for hours.
constexpr int64_t MAX_TEXT_SIZE = INT64_C(64) * 1024 * 1024;

class package_text {
  public:
    // Reads an open file whole; `path` is kept for messages, `function` is who logs a failure. 0;
    // CORE_ENOMEM, also for a file of more than MAX_TEXT_SIZE; CORE_EINVAL for one that shrinks meanwhile; or
    // the error of the read.
    [[nodiscard]] int read(const char *path, int file, const char *function);
    // True once it was read.
    bool is_read() const { return bytes_ != nullptr; }
    const char *path() const { return path_.get(); }
    // The bytes, with a terminating zero behind them.
    char *bytes() const { return bytes_.get(); }
    size_t size() const { return size_; }
    // True when a NUL byte hides what stands behind it.
    bool holds_nul() const;

  private:
    owned_text path_;
    owned_text bytes_;
    size_t size_ = 0;
};

// Walks the lines that are not empty.
class line_cursor {
  public:
    explicit line_cursor(const package_text &text) : rest_(text.bytes()) {}
    line_cursor(const line_cursor &) = delete;
    line_cursor &operator=(const line_cursor &) = delete;
    ~line_cursor() { mend(); }

    // The next line, without its line feed; null behind the last one and at a NUL byte.
    const char *next();

  private:
    void mend();

    char *rest_;
    char *cut_ = nullptr; // where the line feed of the line in hand was
};

// Walks the lines of a rawprogram file. The first one is the declaration, whatever it holds.
class partition_cursor {
  public:
    explicit partition_cursor(const package_text &text) : lines_(text) {}

    // The next line that is not empty; null behind the last one.
    const char *next();
    bool is_declaration() const { return is_declaration_; }
    // What the line in hand is; LINE_OTHER for the declaration.
    line_type type() const { return type_; }
    // True when the line in hand begins inside a comment, or, behind the last line, when a comment has no
    // end.
    bool in_comment() const { return in_comment_; }

  private:
    line_cursor lines_;
    line_type type_ = LINE_NULL;
    bool is_declaration_ = false;
    bool in_comment_ = false;
};
