#include "qvol/salvage/report.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

const char *word_of(certainty state) {
    switch (state) {
    case certainty::CERTAIN:
        return "certain";
    case certainty::GUESSED:
        return "guessed";
    case certainty::DELETED:
        return "deleted";
    default:
        return "not-copied";
    }
}

const char *text_of(certainty state) {
    return state == certainty::NOT_COPIED ? "not copied" : word_of(state);
}

std::string title_of(const salvaged_entry &one) {
    std::string host = shown_bytes(one.host_path);
    if (one.shown_path.empty()) {
        return host;
    }
    const bool is_same = one.host_path.empty() || "/" + host == one.shown_path;
    return is_same ? one.shown_path : one.shown_path + " -> " + host;
}

std::string line_of(const salvaged_entry &one) {
    std::string line = title_of(one) + ": ";
    line += one.state == certainty::CERTAIN ? "renamed" : text_of(one.state);
    line += one.confidence.empty() ? "" : ", " + one.confidence;
    const char *separator = ": ";
    for (const std::string &reason : one.reasons) {
        line += separator + reason;
        separator = "; ";
    }
    return line;
}

tree_totals totals_of(const salvage_report &report) {
    tree_totals totals;
    for (const salvaged_entry &one : report.entries) {
        if (one.host_path.empty()) {
            continue;
        }
        totals.files += one.type == kind::FILE ? 1 : 0;
        totals.directories += one.type == kind::DIRECTORY ? 1 : 0;
        totals.links += one.type == kind::LINK ? 1 : 0;
        totals.bytes += one.size;
    }
    return totals;
}

std::string summary_of(const salvage_report &report) {
    std::string text = totals_text(totals_of(report));
    const char *separator = ": ";
    for (const certainty state :
         {certainty::CERTAIN, certainty::GUESSED, certainty::DELETED, certainty::NOT_COPIED}) {
        const u64 count = report.count_of(state);
        if (count != 0) {
            text += fmt::format("{}{} {}", separator, count, text_of(state));
            separator = ", ";
        }
    }
    const auto gone =
        std::count_if(report.entries.begin(), report.entries.end(), [](const auto &one) {
            return one.state == certainty::DELETED && one.host_path.empty();
        });
    return gone != 0 ? fmt::format("{} ({} of them gone)", text, gone) : text;
}

json texts_json(const std::vector<std::string> &texts) {
    json list = json::array();
    for (const std::string &text : texts) {
        list.push_back(text);
    }
    return list;
}

json entry_json(const salvaged_entry &one) {
    json result = {
        {"path", one.shown_path.empty() ? json(nullptr) : json(one.json_path)},
        {"host_path", one.host_path.empty() ? json(nullptr) : json(one.host_path)},
        {"kind", kind_name(one.type)},
        {"size", one.size},
        {"state", word_of(one.state)},
        {"renamed", one.is_renamed},
        {"reasons", texts_json(one.reasons)},
    };
    if (!one.confidence.empty()) {
        result.add("confidence", one.confidence);
    }
    return result;
}

json report_json(const salvage_report &report) {
    json files = json::array();
    for (const salvaged_entry &one : report.entries) {
        files.push_back(entry_json(one));
    }
    json document = totals_json(totals_of(report));
    json result = {{"files", std::move(files)},
                   {"notes", texts_json(report.notes)},
                   {"totals", std::move(document)}};
    return result;
}

} // namespace

u64 salvage_report::count_of(certainty state) const {
    return static_cast<u64>(
        std::count_if(entries.begin(), entries.end(),
                      [state](const salvaged_entry &one) { return one.state == state; }));
}

bool salvage_report::is_certain() const {
    return is_complete && count_of(certainty::CERTAIN) == entries.size();
}

void print_report(const output &out, const salvage_report &report) {
    for (const std::string &note : report.notes) {
        out.line(note);
    }
    for (const salvaged_entry &one : report.entries) {
        if (one.state != certainty::CERTAIN || one.is_renamed) {
            out.line(line_of(one));
        }
    }
    out.remark(summary_of(report));
    if (out.is_json) {
        out.document(report_json(report));
    }
}

} // namespace qvol
