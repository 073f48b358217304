#include "qvol/path.h"

#include "qvol/error.h"

#include <fmt/core.h>

namespace qvol {

namespace {

void append_component(name_path *path, std::u16string component) {
    if (component.empty() || component == u".") {
        return;
    }
    if (component != u"..") {
        path->push_back(std::move(component));
    } else if (!path->empty()) {
        path->pop_back();
    }
}

name_path first_components(const name_path &path, std::size_t count) {
    return {path.begin(), path.begin() + static_cast<std::ptrdiff_t>(count)};
}

[[noreturn]] void fail_at(const volume &vol, const name_path &path, std::size_t count,
                          const char *why) {
    throw error("cannot open " + shown_path(vol.names(), first_components(path, count)) + ": " +
                why);
}

} // namespace

name_path parse_path(const name_codec &names, std::string_view path) {
    const std::optional<std::u16string> units = names.to_units(path);
    if (!units) {
        throw usage_error("invalid path " + shown_bytes(path) +
                          ": not valid in the name encoding; --encoding chooses another");
    }
    name_path result;
    std::u16string_view rest = *units;
    while (!rest.empty()) {
        const std::size_t slash = std::min(rest.find(u'/'), rest.size());
        append_component(&result, std::u16string(rest.substr(0, slash)));
        rest.remove_prefix(std::min(slash + 1, rest.size()));
    }
    return result;
}

std::string shown_path(const name_codec &names, const name_path &path) {
    std::string text;
    for (const std::u16string &name : path) {
        text += '/' + names.shown(name);
    }
    return text.empty() ? "/" : text;
}

std::string json_path(const name_path &path) {
    std::string text;
    for (const std::u16string &name : path) {
        text += '/' + json_text(name);
    }
    return text.empty() ? "/" : text;
}

resolved_path find_path(volume &vol, name_path path) {
    resolved_path where{std::move(path), vol.root(), std::nullopt};
    for (std::size_t i = 0; i < where.path.size(); i++) {
        if (i > 0) {
            if (!where.found) {
                fail_at(vol, where.path, i, "no such file or directory");
            }
            if (!where.found->is_directory()) {
                fail_at(vol, where.path, i, "not a directory");
            }
            where.parent = open_directory(vol, *where.found);
        }
        const entry *found = where.parent.find(where.path[i]);
        where.found = found != nullptr ? std::optional(*found) : std::nullopt;
    }
    return where;
}

resolved_path find_path(volume &vol, std::string_view path) {
    return find_path(vol, parse_path(vol.names(), path));
}

resolved_path resolve(volume &vol, std::string_view path) {
    resolved_path where = find_path(vol, path);
    if (!where.is_root() && !where.found) {
        fail_at(vol, where.path, where.path.size(), "no such file or directory");
    }
    return where;
}

directory open_directory(volume &vol, const entry &of) {
    if (of.start() == 0) {
        throw error(
            fmt::format("the directory {} has no first cluster", vol.names().shown(of.name)));
    }
    return {vol.fat(), of.start()};
}

directory open_directory(volume &vol, const resolved_path &of) {
    return of.is_root() ? vol.root() : open_directory(vol, *of.found);
}

} // namespace qvol
