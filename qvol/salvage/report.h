// What a salvage has copied, what of that is certain, and what is guessed.

#pragma once

#include "qvol/names.h"
#include "qvol/output.h"

#include <string>
#include <vector>

namespace qvol {

enum class certainty {
    CERTAIN,
    GUESSED,    // some of the data, the name or the position is a guess
    DELETED,    // a removed entry; all of it is a guess
    NOT_COPIED, // nothing of it could be copied
};

struct salvaged_entry {
    kind type = kind::FILE;
    std::string shown_path; // on the volume, for a terminal; "": lost, it has no path
    std::string json_path;
    std::string host_path; // below the destination; "": not copied
    u64 size = 0;          // bytes that were copied
    certainty state = certainty::CERTAIN;
    std::string confidence; // of a removed entry
    std::vector<std::string> reasons;
    bool is_renamed = false; // the host cannot have its name

    // Its path, or what it has instead, for messages.
    [[nodiscard]] std::string title() const {
        return shown_path.empty() ? shown_bytes(host_path) : shown_path;
    }

    void guess(const std::string &reason) {
        state = state == certainty::CERTAIN ? certainty::GUESSED : state;
        reasons.push_back(reason);
    }
    void fail(const std::string &reason) {
        host_path.clear();
        state = certainty::NOT_COPIED;
        reasons.push_back(reason);
    }
};

struct salvage_report {
    std::vector<salvaged_entry> entries;
    std::vector<std::string> notes; // about the volume as a whole
    bool is_complete = true;        // nothing was left out but what the entries state

    [[nodiscard]] u64 count_of(certainty state) const;

    // Whether everything was copied, and nothing of it is a guess.
    [[nodiscard]] bool is_certain() const;
};

void print_report(const output &out, const salvage_report &report);

} // namespace qvol
