// The only source that includes the JSON library: its headers take longer to compile than most
// commands. The library formats strings and numbers. The structure around them is written here,
// without recursion, because a document may be as deep as the tree of a damaged volume.

#include "qvol/json.h"

#include <iterator>
#include <utility>

#include <nlohmann/json.hpp>

namespace qvol {

namespace {

constexpr std::size_t INDENT = 2; // spaces for each level

std::string quoted(const std::string &text) {
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void begin_line(std::string *text, std::size_t level) {
    text->push_back('\n');
    text->append(INDENT * level, ' ');
}

} // namespace

json::json(form kind, std::string text) : form_(kind), text_(std::move(text)) {}
json::json(form kind) : json(kind, "") {}
json::json(std::nullptr_t) : json(form::SCALAR, "null") {}
json::json(bool value) : json(form::SCALAR, value ? "true" : "false") {}
json::json(u32 number) : json(u64{number}) {}
json::json(u64 number) : json(form::SCALAR, std::to_string(number)) {}
json::json(double number) : json(form::SCALAR, nlohmann::json(number).dump()) {}
json::json(const char *text) : json(std::string(text)) {}
json::json(const std::string &text) : json(form::SCALAR, quoted(text)) {}

json::json(std::initializer_list<member> members) : json(form::OBJECT) {
    children_.reserve(members.size());
    for (const member &one : members) {
        add(one.key, std::move(one.value));
    }
}

json json::array() {
    return json(form::ARRAY);
}

json json::object() {
    return json(form::OBJECT);
}

json::json(json &&other) noexcept = default;
json &json::operator=(json &&other) noexcept = default;

// Frees all levels in one loop.
json::~json() {
    std::vector<json> pending = std::move(children_);
    while (!pending.empty()) {
        std::vector<json> below = std::move(pending.back().children_);
        pending.pop_back();
        std::move(below.begin(), below.end(), std::back_inserter(pending));
    }
}

void json::push_back(json value) {
    children_.push_back(std::move(value));
}

void json::add(const std::string &key, json value) {
    value.text_.insert(0, quoted(key) + ": ");
    children_.push_back(std::move(value));
}

// ---- writing ----------------------------------------------------------------------------------

// An array or object whose end is not written yet.
struct json::open_value {
    const json *value;
    std::size_t next; // child
};

void json::begin(const json &value, std::string *text, std::vector<open_value> *open) {
    *text += value.text_;
    if (value.form_ != form::SCALAR) {
        text->push_back(value.form_ == form::ARRAY ? '[' : '{');
        open->push_back({&value, 0});
    }
}

void json::end(std::string *text, std::vector<open_value> *open) {
    const json &value = *open->back().value;
    open->pop_back();
    if (!value.children_.empty()) {
        begin_line(text, open->size());
    }
    text->push_back(value.form_ == form::ARRAY ? ']' : '}');
}

std::string json::text() const {
    std::string text;
    std::vector<open_value> open;
    begin(*this, &text, &open);
    while (!open.empty()) {
        open_value &last = open.back();
        if (last.next == last.value->children_.size()) {
            end(&text, &open);
            continue;
        }
        text += last.next != 0 ? "," : "";
        begin_line(&text, open.size());
        begin(last.value->children_[last.next++], &text, &open);
    }
    return text;
}

} // namespace qvol
