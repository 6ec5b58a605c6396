#include "package-elements.hpp"

#include "core-base.hpp"

#include <algorithm>
#include <utility>

namespace {

constexpr std::string_view blanks = " \t\r\n";

// Takes what the text begins with; false where it begins otherwise.
[[nodiscard]] bool take(std::string_view *text, std::string_view begin)
{
    if (!text->starts_with(begin))
        return false;
    text->remove_prefix(begin.size());
    return true;
}

void skip_blanks(std::string_view *text)
{
    text->remove_prefix(std::min(text->find_first_not_of(blanks), text->size()));
}

bool begins_name(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' ||
           static_cast<unsigned char>(c) >= 0x80;
}

bool goes_on_in_name(char c)
{
    return begins_name(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

// Takes a name; empty where there is none.
std::string_view take_name(std::string_view *text)
{
    const char *const begin = text->data();
    size_t size = 0;
    if (!text->empty() && begins_name(text->front())) {
        const auto end = std::find_if_not(text->begin() + 1, text->end(), goes_on_in_name);
        size = static_cast<size_t>(end - text->begin());
    }
    text->remove_prefix(size);
    return {begin, size};
}

// Takes a value with its quotes. A bracket that opens would stand for the begin of an element: in a value
// there is none.
std::optional<std::string_view> take_value(std::string_view *text)
{
    if (!text->starts_with('"') && !text->starts_with('\''))
        return std::nullopt;
    const char ends[] = {text->front(), '<'};
    const size_t end = text->find_first_of({ends, sizeof ends}, 1);
    if (end == text->npos || (*text)[end] == '<')
        return std::nullopt;
    const std::string_view value(text->data() + 1, end - 1);
    text->remove_prefix(end + 1);
    return value;
}

[[nodiscard]] bool take_end_tag(std::string_view *text, std::string_view name)
{
    if (!take(text, "</") || !take(text, name))
        return false;
    skip_blanks(text);
    return take(text, ">");
}

} // namespace

std::optional<element_attribute> attribute_cursor::next()
{
    std::string_view text = rest_;
    skip_blanks(&text);
    if (text.size() == rest_.size())
        return std::nullopt;
    const std::string_view name = take_name(&text);
    skip_blanks(&text);
    if (name.empty() || !take(&text, "="))
        return std::nullopt;
    skip_blanks(&text);
    const std::optional<std::string_view> value = take_value(&text);
    if (!value)
        return std::nullopt;
    rest_ = text;
    return element_attribute{name, *value};
}

attribute_cursor package_element::attributes() const
{
    std::string_view behind_name = text;
    behind_name.remove_prefix(1 + name.size());
    return attribute_cursor(behind_name);
}

std::optional<package_element> element_cursor::next()
{
    while (problem_ == nullptr && find_bracket()) {
        const bool is_first = std::exchange(is_first_, false);
        if (take(&rest_, "<!--"))
            skip_behind("-->", "comment without an end");
        else if (is_first && take(&rest_, "<?"))
            skip_behind("?>", "declaration without an end");
        else if (rest_.starts_with("</"))
            leave_root();
        else if (rest_.size() < 2 || !begins_name(rest_[1]))
            return fail("markup that is no element");
        else if (place_ == place::in_root)
            return read_element();
        else
            enter_root();
    }
    return std::nullopt;
}

size_t element_cursor::line_number() const
{
    return 1 + static_cast<size_t>(std::count(text_.data(), at_, '\n'));
}

std::string_view element_cursor::line() const
{
    const auto at = static_cast<size_t>(at_ - text_.data());
    const size_t begin = std::string_view(text_.data(), at).rfind('\n') + 1; // 0 where there is none
    return {text_.data() + begin, std::min(text_.find('\n', at), text_.size()) - begin};
}

// Skips the text in front of the next bracket, which must open; false at the end.
bool element_cursor::find_bracket()
{
    rest_.remove_prefix(std::min(rest_.find_first_of("<>"), rest_.size()));
    at_ = rest_.data();
    if (rest_.starts_with('>'))
        fail("bracket that closes nothing");
    if (rest_.empty() && place_ == place::in_root) {
        at_ = root_;
        fail("<data> without an end");
    }
    return problem_ == nullptr && !rest_.empty();
}

void element_cursor::skip_behind(std::string_view end, const char *without_end)
{
    const size_t found = rest_.find(end);
    if (found == rest_.npos)
        fail(without_end);
    else
        rest_.remove_prefix(found + end.size());
}

// Line by line, the frame is known by just these two texts.
void element_cursor::enter_root()
{
    root_ = at_;
    if (place_ == place::before_root && take(&rest_, "<data>"))
        place_ = place::in_root;
    else
        fail("element outside of <data>");
}

void element_cursor::leave_root()
{
    if (place_ == place::in_root && take(&rest_, "</data>"))
        place_ = place::behind_root;
    else
        fail("end of an element that has not begun");
}

std::optional<package_element> element_cursor::read_element()
{
    rest_.remove_prefix(1);
    const std::string_view name = take_name(&rest_);
    attribute_cursor attributes(rest_);
    while (attributes.next()) {
    }
    rest_ = attributes.rest();
    skip_blanks(&rest_);
    if (!take(&rest_, "/>")) {
        if (!take(&rest_, ">"))
            return fail("element that cannot be read");
        skip_blanks(&rest_);
        if (!take_end_tag(&rest_, name))
            return fail("element that is not empty");
    }
    return package_element{{at_, static_cast<size_t>(rest_.data() - at_)}, name};
}

std::nullopt_t element_cursor::fail(const char *problem)
{
    problem_ = problem;
    return std::nullopt;
}
