// The partitions of a new disk as the command line requests them: KEY=VALUE,KEY=VALUE,...
//
// A backslash before a comma or backslash makes it a part of the value.

#pragma once

#include "qvol/new_volume.h"

#include <functional>
#include <optional>
#include <string>

namespace qvol {

struct part_options {
    u32 number = 0;                // from 1 on
    std::string type;              // a word of TYPES, a GUID or a byte; "": by the content
    std::string name;              // of GPT
    std::string uuid;              // of GPT; "": chosen
    std::optional<u64> attributes; // of GPT, bits
    bool is_active = false;        // of MBR
    std::string size;              // bytes, "auto", "rest", or "": what the content needs
    std::string raw;               // file to copy in; "": none
    volume_source source;
    bool has_volume = false; // a FAT volume, because a key or the type demands one
    std::string fat_type = "auto";
    std::string cluster;
    std::string page = "4K";

    // Whether the size is a number of bytes.
    [[nodiscard]] bool has_number() const;
};

// "part 2", for messages.
[[nodiscard]] std::string part_title(u32 number);

// Errors of the work begin with the title of the part.
void in_part(u32 number, const std::function<void()> &work);

// Throws usage_error.
[[nodiscard]] part_options parse_part(const std::string &text, u32 number);

} // namespace qvol
