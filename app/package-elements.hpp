// The elements of a rawprogram file by the rules of XML, wherever they stand and however they are written: a
// second reading and a strict one, which the reading line by line is held against.
//
// It knows what such files are made of: a declaration at the beginning, comments, and one <data> with
// elements that hold nothing. Text without brackets is skipped, as are the words of the declaration and of
// comments. Whatever else there is, is not understood, and the reading ends there. Views of the text are
// handed out; nothing is owned, nothing waits.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

struct element_attribute {
    std::string_view name;
    std::string_view value; // between its quotes, of either kind, as it is written
};

// Walks the attributes of an element; `rest` is what stands behind its name.
class attribute_cursor {
  public:
    explicit attribute_cursor(std::string_view rest) : rest_(rest) {}

    // The next attribute; none where there is none, or none that is understood.
    std::optional<element_attribute> next();
    // What stands behind the last attribute.
    std::string_view rest() const { return rest_; }

  private:
    std::string_view rest_;
};

struct package_element {
    std::string_view text; // from its first bracket to its last one, also over several lines
    std::string_view name;

    attribute_cursor attributes() const;
};

// Walks the elements inside of <data>.
class element_cursor {
  public:
    explicit element_cursor(std::string_view text) : text_(text), rest_(text) {}

    // The next element; none behind the last one, and where the text is not understood.
    std::optional<package_element> next();
    // What is not understood; null where all was.
    const char *problem() const { return problem_; }
    // The line in which the element, or what is not understood, begins: its number, counted from 1, and its
    // text.
    size_t line_number() const;
    std::string_view line() const;

  private:
    enum class place { before_root, in_root, behind_root };

    bool find_bracket();
    void skip_behind(std::string_view end, const char *without_end);
    void enter_root();
    void leave_root();
    std::optional<package_element> read_element();
    std::nullopt_t fail(const char *problem);

    std::string_view text_;
    std::string_view rest_;
    const char *at_ = nullptr;   // where the element in hand, or the problem, begins
    const char *root_ = nullptr; // where <data> begins
    const char *problem_ = nullptr;
    place place_ = place::before_root;
    bool is_first_ = true; // no markup has come yet
};
