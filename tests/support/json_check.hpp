// A small strict JSON reader (RFC 8259) for checking what the code under test prints. It refuses whatever a
// supervising program's parser might refuse: trailing bytes, unescaped control characters, bytes that are not
// UTF-8, halves of surrogate pairs, numbers with leading zeros, a name given twice in one object.
#pragma once

#include <string>
#include <vector>

struct json_member;

struct json_value {
    enum class kind { null, boolean, number, text, array, object };

    kind type = kind::null;
    std::string text; // a text decoded to UTF-8; anything else that is no container as it was written
    std::vector<json_value> elements;
    std::vector<json_member> members; // in the order in which they were written

    // The member of an object; null when there is none.
    const json_value *find(const std::string &name) const;
    // The names of an object's members, in order.
    std::vector<std::string> names() const;
};

struct json_member {
    std::string name;
    json_value value;
};

// Reads the one value that `source` must hold. False with the reason and its position in `error` when
// `source` is no valid JSON text.
bool json_read(const std::string &source, json_value *value, std::string *error);
// Empty when `line` is one JSON object and one line feed behind it, else what is wrong with it.
std::string json_line_fault(const std::string &line);
