// Builds and prints JSON documents. Nothing here reads JSON.

#pragma once

#include "core/bytes.h"

#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

namespace qvol {

using core::u32;
using core::u64;

// A value. Move-only: a document may describe a whole volume.
class json {
public:
    struct member;

    json() : json(nullptr) {}
    json(std::nullptr_t);
    json(bool value);
    json(u32 number);
    json(u64 number);
    json(double number);
    json(const char *text);
    json(const std::string &text); // bytes that are not UTF-8 become U+FFFD
    json(const void *) = delete;   // would convert to bool

    // An object: {{"name", name}, {"bytes", bytes}}. Moves the values out of the list.
    json(std::initializer_list<member> members);

    [[nodiscard]] static json array();
    [[nodiscard]] static json object();

    json(json &&other) noexcept;
    json &operator=(json &&other) noexcept;
    ~json();

    // Adds an element to an array.
    void push_back(json value);

    // Adds a member at the end of an object. The key must be new.
    void add(const std::string &key, json value);

    // The document: two spaces for each level, no newline at the end.
    [[nodiscard]] std::string text() const;

private:
    enum class form { SCALAR, ARRAY, OBJECT };
    struct open_value;

    explicit json(form kind);
    json(form kind, std::string text);

    static void begin(const json &value, std::string *text, std::vector<open_value> *open);
    static void end(std::string *text, std::vector<open_value> *open);

    form form_;
    std::string text_;           // the key of a member, then the value of a scalar
    std::vector<json> children_; // of an array or object
};

struct json::member {
    std::string key;
    mutable json value; // moved from the list, whose elements are const
};

} // namespace qvol
