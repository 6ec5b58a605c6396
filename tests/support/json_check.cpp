#include "json_check.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

namespace {

constexpr int max_depth = 64;

class reader {
  public:
    explicit reader(const std::string &text) : source(text) {}

    bool read_document(json_value *value)
    {
        skip_blanks();
        if (!read_value(value, 0))
            return false;
        skip_blanks();
        return at == source.size() || fail("bytes behind the value");
    }

    std::string error() const { return reason + " at byte " + std::to_string(at); }

  private:
    const std::string &source;
    size_t at = 0;
    std::string reason;

    bool fail(const char *text)
    {
        if (reason.empty())
            reason = text;
        return false;
    }

    int peek() const { return at < source.size() ? static_cast<unsigned char>(source[at]) : -1; }

    bool take(char c)
    {
        if (peek() != static_cast<unsigned char>(c))
            return false;
        ++at;
        return true;
    }

    void skip_blanks()
    {
        while (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r')
            ++at;
    }

    bool read_value(json_value *value, int depth)
    {
        if (depth > max_depth)
            return fail("nested too deeply");
        switch (peek()) {
        case '{':
            return read_object(value, depth);
        case '[':
            return read_array(value, depth);
        case '"':
            value->type = json_value::kind::text;
            return read_text(&value->text);
        case 't':
            return read_word(value, "true", json_value::kind::boolean);
        case 'f':
            return read_word(value, "false", json_value::kind::boolean);
        case 'n':
            return read_word(value, "null", json_value::kind::null);
        default:
            return read_number(value);
        }
    }

    bool read_word(json_value *value, const char *word, json_value::kind type)
    {
        if (source.compare(at, strlen(word), word) != 0)
            return fail("no such literal");
        at += strlen(word);
        value->type = type;
        value->text = word;
        return true;
    }

    bool read_digits()
    {
        const size_t start = at;
        while (peek() >= '0' && peek() <= '9')
            ++at;
        return at > start || fail("a digit is missing");
    }

    bool read_number(json_value *value)
    {
        const size_t start = at;
        take('-');
        if (!take('0') && !read_digits())
            return false;
        if (take('.') && !read_digits())
            return false;
        if (take('e') || take('E')) {
            if (!take('+'))
                take('-');
            if (!read_digits())
                return false;
        }
        value->type = json_value::kind::number;
        value->text = source.substr(start, at - start);
        return true;
    }

    bool read_array(json_value *value, int depth)
    {
        value->type = json_value::kind::array;
        take('[');
        skip_blanks();
        if (take(']'))
            return true;
        do {
            skip_blanks();
            json_value element;
            if (!read_value(&element, depth + 1))
                return false;
            value->elements.push_back(std::move(element));
            skip_blanks();
        } while (take(','));
        return take(']') || fail("an array does not end");
    }

    bool read_object(json_value *value, int depth)
    {
        value->type = json_value::kind::object;
        take('{');
        skip_blanks();
        if (take('}'))
            return true;
        do {
            skip_blanks();
            if (peek() != '"')
                return fail("a name is missing");
            std::string name;
            if (!read_text(&name))
                return false;
            if (value->find(name) != nullptr)
                return fail("a name comes twice");
            skip_blanks();
            if (!take(':'))
                return fail("a colon is missing");
            skip_blanks();
            json_value member;
            if (!read_value(&member, depth + 1))
                return false;
            value->members.push_back({name, std::move(member)});
            skip_blanks();
        } while (take(','));
        return take('}') || fail("an object does not end");
    }

    bool read_text(std::string *text)
    {
        take('"');
        while (!take('"')) {
            if (peek() < 0x20)
                return fail(peek() < 0 ? "a text does not end" : "a bare control character");
            const bool good = take('\\') ? read_escape(text) : read_character(text);
            if (!good)
                return false;
        }
        return true;
    }

    bool read_escape(std::string *text)
    {
        static constexpr char letters[] = "\"\\/bfnrt";
        static constexpr char meanings[] = "\"\\/\b\f\n\r\t";
        const int c = peek();
        if (c == 'u') {
            ++at;
            return read_code_point(text);
        }
        const char *const found = c > 0 ? strchr(letters, c) : nullptr;
        if (found == nullptr)
            return fail("no such escape");
        ++at;
        text->push_back(meanings[found - letters]);
        return true;
    }

    bool read_hex(uint32_t *value)
    {
        *value = 0;
        for (int i = 0; i < 4; ++i) {
            static constexpr char digits[] = "0123456789abcdef0123456789ABCDEF";
            const int c = peek();
            const char *const found = c > 0 ? strchr(digits, c) : nullptr;
            if (found == nullptr)
                return fail("a hexadecimal digit is missing");
            *value = *value * 16 + static_cast<uint32_t>((found - digits) % 16);
            ++at;
        }
        return true;
    }

    bool read_code_point(std::string *text)
    {
        uint32_t code = 0;
        if (!read_hex(&code))
            return false;
        if (code >= 0xDC00 && code <= 0xDFFF)
            return fail("the second half of a pair comes first");
        if (code >= 0xD800 && code <= 0xDBFF) {
            uint32_t second = 0;
            if (!take('\\') || !take('u'))
                return fail("half of a pair");
            if (!read_hex(&second))
                return false;
            if (second < 0xDC00 || second > 0xDFFF)
                return fail("half of a pair");
            code = 0x10000 + ((code - 0xD800) << 10) + (second - 0xDC00);
        }
        append_utf8(text, code);
        return true;
    }

    static void append_utf8(std::string *text, uint32_t code)
    {
        const auto put = [text](uint32_t byte) { text->push_back(static_cast<char>(byte)); };
        if (code < 0x80) {
            put(code);
        } else if (code < 0x800) {
            put(0xC0 | code >> 6);
            put(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            put(0xE0 | code >> 12);
            put(0x80 | (code >> 6 & 0x3F));
            put(0x80 | (code & 0x3F));
        } else {
            put(0xF0 | code >> 18);
            put(0x80 | (code >> 12 & 0x3F));
            put(0x80 | (code >> 6 & 0x3F));
            put(0x80 | (code & 0x3F));
        }
    }

    // Decodes one UTF-8 character by its bits and then checks the number, so that it shares no table with the
    // code that it checks.
    bool read_character(std::string *text)
    {
        const auto first = static_cast<uint32_t>(peek());
        size_t more = 0;
        uint32_t code = first;
        if (first >= 0xF0 && first < 0xF8) {
            more = 3;
            code = first & 0x07;
        } else if (first >= 0xE0 && first < 0xF0) {
            more = 2;
            code = first & 0x0F;
        } else if (first >= 0xC0 && first < 0xE0) {
            more = 1;
            code = first & 0x1F;
        } else if (first >= 0x80) {
            return fail("no UTF-8");
        }
        const size_t start = at++;
        for (size_t i = 0; i < more; ++i) {
            const int next = peek();
            if (next < 0x80 || next > 0xBF)
                return fail("no UTF-8");
            code = code << 6 | (static_cast<uint32_t>(next) & 0x3F);
            ++at;
        }
        static constexpr uint32_t lowest[] = {0, 0x80, 0x800, 0x10000};
        if (code < lowest[more] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
            return fail("no UTF-8");
        text->append(source, start, at - start);
        return true;
    }
};

} // namespace

const json_value *json_value::find(const std::string &name) const
{
    const auto found = std::find_if(members.begin(), members.end(),
                                    [&name](const auto &member) { return member.name == name; });
    return found != members.end() ? &found->value : nullptr;
}

std::vector<std::string> json_value::names() const
{
    std::vector<std::string> all;
    for (const auto &member : members)
        all.push_back(member.name);
    return all;
}

bool json_read(const std::string &source, json_value *value, std::string *error)
{
    *value = {};
    reader document(source);
    if (document.read_document(value))
        return true;
    *error = document.error();
    return false;
}

std::string json_line_fault(const std::string &line)
{
    if (line.empty() || line.find('\n') != line.size() - 1)
        return "not one line";
    json_value value;
    std::string error;
    if (!json_read(line, &value, &error))
        return error;
    return value.type == json_value::kind::object ? "" : "no object";
}
