// A second account of the fast directory walk, written plainly: the whole directory as a list of
// entries, places in it as numbers. The tests hold the library against it.

#pragma once

#include "tests/support/volume.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace testing_support {

// The eight letters of a value.
inline std::string fast_letters(std::uint32_t value) {
    std::string result;
    for (std::uint32_t digits = 8; digits-- > 0;) {
        result += static_cast<char>('@' + (value >> (4 * digits)) % 16);
    }
    return result;
}

// What one call of the walk gives. Of a call that finds no file the last three are left out.
struct fast_step {
    int result = 0;
    std::string said;
    std::uint32_t pos = 0; // where the walk stands afterwards
    std::uint32_t clus = 0;
    entry_image image = {}; // of the entry, or of the first slot of a long name met on the way
    std::string name;
    std::uint32_t sector = 0;
    std::uint32_t offset = 0;
    bool operator==(const fast_step &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const fast_step &s) {
    out << "{" << s.result << ", said \"" << s.said << "\", then at " << s.clus << "/" << s.pos
        << ", \"" << s.name << "\" at " << s.sector << "+" << s.offset << ", image";
    for (const std::uint8_t byte : s.image) {
        out << " " << std::hex << static_cast<unsigned>(byte) << std::dec;
    }
    return out << "}";
}

class plain_fast_walk {
public:
    // Over a directory whose chain is whole, with ASCII names.
    explicit plain_fast_walk(const directory *dir)
        : dir_(dir), fixed_(dir->clusters.empty()), per_cluster_(volume::entries_per_cluster()) {}

    fast_step next() {
        step_ = {};
        kept_image_.reset();
        if (pos_ == 0) {
            at_ = 0;
        }
        if (fixed_ && pos_ > 512) {
            return ended(-1, "do_readdir_fast[N]: Check here!\n\n");
        }
        for (;;) {
            if (fixed_ && pos_ > 512) {
                return ended(0);
            }
            const std::optional<fast_step> answer = look_at_entry();
            if (answer.has_value()) {
                return *answer;
            }
        }
    }

private:
    // The place in the whole directory of an entry counted from the cluster where the walk stands.
    [[nodiscard]] std::uint32_t place_of(std::uint32_t index) const {
        return fixed_ ? index : static_cast<std::uint32_t>(at_) * per_cluster_ + index;
    }
    [[nodiscard]] std::uint32_t index_now() const {
        return fixed_ ? pos_ : pos_ % per_cluster_;
    }
    [[nodiscard]] std::uint32_t cluster_now() const {
        return fixed_ ? 0 : dir_->clusters.at(at_);
    }
    fast_step ended(int result, const std::string &message = "") {
        step_.result = result;
        step_.said += message;
        step_.pos = pos_;
        step_.clus = cluster_now();
        if (result != 1) {
            step_.image = {};
            step_.name = "";
            step_.sector = step_.offset = 0;
        }
        return step_;
    }
    std::uint32_t type_of(const entry_image &entry) {
        const unsigned attr = entry[11];
        if (entry[0] == 0) {
            return 0;
        }
        if (entry[0] == 0xE5) {
            return 1;
        }
        if (attr % 64 == 15) {
            return 4;
        }
        if (attr / 8 % 4 == 3) {
            step_.said += "entry_type[N]: Unknown entry type: " + std::to_string(attr) + "\n\n";
            return 6;
        }
        return attr / 8 % 4 == 0 ? 2 : attr / 8 % 4 == 2 ? 3 : 8;
    }
    std::optional<fast_step> look_at_entry() {
        if (place_of(index_now()) >= dir_->capacity()) {
            return ended(-EFAULT, "get_phy_sector[N]: Invalid sector number in Root dir\n\n"
                                  "do_readdir_fast[N]: Check here!\n\n");
        }
        const entry_image entry = dir_->at(place_of(index_now()));
        step_.image = kept_image_.value_or(entry);
        switch (type_of(entry)) {
        case 0:
            return ended(-ENOENT);
        case 2:
            return short_file(entry);
        case 4:
            return sv->long_name == 1 ? long_name(entry) : skip();
        default:
            return skip();
        }
    }
    std::optional<fast_step> skip() {
        pos_++;
        return fixed_ || pos_ % per_cluster_ != 0 || go_on(1) ? std::nullopt
                                                              : std::optional(ended(0));
    }
    // Moves on along the chain; false where it ends.
    bool go_on(std::size_t links) {
        if (at_ + links >= dir_->clusters.size()) {
            return false;
        }
        at_ += links;
        return true;
    }
    void put_location(std::uint32_t index) {
        const std::uint64_t byte = dir_->offset_of(place_of(index));
        step_.sector = static_cast<std::uint32_t>(byte / sv->sector_size);
        step_.offset = static_cast<std::uint32_t>(byte % sv->sector_size);
    }
    static std::string shown_short(const entry_image &entry) {
        std::string base;
        std::string extension;
        for (std::size_t i = 0; i < 8 && entry[i] != ' '; i++) {
            base += shown(entry[i], (entry[12] & 0x08) != 0);
        }
        for (std::size_t i = 8; i < 11 && entry[i] != ' '; i++) {
            extension += shown(entry[i], (entry[12] & 0x10) != 0);
        }
        return extension.empty() ? base : base + "." + extension;
    }
    static char shown(std::uint8_t c, bool small) {
        return static_cast<char>(small && c >= 'A' && c <= 'Z' ? c + 32 : c);
    }
    std::optional<fast_step> short_file(const entry_image &entry) {
        step_.name = shown_short(entry);
        put_location(index_now());
        pos_++;
        if (!fixed_ && pos_ % per_cluster_ == 0 && !go_on(1)) {
            return ended(0);
        }
        return ended(fixed_ && pos_ > 512 ? 0 : 1);
    }
    std::optional<fast_step> long_name(const entry_image &first) {
        std::u16string units;
        bool is_directory = false;
        const int slots = gather(first, &units, &is_directory);
        if (slots < 0) {
            return ended(slots, "do_readdir_fast[N]: Check here!\n\n");
        }
        if (slots == 0) {
            return skip();
        }
        step_.name.clear();
        for (const char16_t unit : units) {
            step_.name += unit < 0x80 ? static_cast<char>(unit) : '?';
        }
        const auto count = static_cast<std::uint32_t>(slots);
        put_location(index_now() + count);
        if (!fixed_ && !go_on((pos_ + count + 1) / per_cluster_ - pos_ / per_cluster_)) {
            return ended(0);
        }
        pos_ += count + 1;
        if (is_directory) {
            return std::nullopt;
        }
        return ended(fixed_ && pos_ > 512 ? 0 : 1);
    }
    int gather(const entry_image &first, std::u16string *units, bool *is_directory) {
        const int count = first[0] - 0x40;
        const std::uint8_t checksum = first[13];
        std::uint32_t index = index_now();
        entry_image slot = first;
        std::vector<std::u16string> parts;
        for (int k = count; k >= 1; k--) {
            parts.insert(parts.begin(), units_in(slot));
            index++;
            if (place_of(index) >= dir_->capacity()) {
                say_no_entry(index);
                return -EFAULT;
            }
            kept_image_ = step_.image;
            slot = dir_->at(place_of(index));
            const std::uint32_t type = type_of(slot);
            if (k == 1) {
                return ends_well(slot, type, checksum, index, parts, units, is_directory) ? count
                                                                                          : 0;
            }
            if (type != 4) {
                say("not extend type(" + std::to_string(index) + ")\n");
                return 0;
            }
            if (slot[0] > 0x40) {
                say("not LFN(" + std::to_string(index) + ")\n");
                return 0;
            }
            if (slot[13] != checksum) {
                say("not match checksum(" + std::to_string(index) + ")\n");
                return 0;
            }
        }
        return 0; // no slots at all
    }
    bool ends_well(const entry_image &entry, std::uint32_t type, std::uint8_t checksum,
                   std::uint32_t index, const std::vector<std::u16string> &parts,
                   std::u16string *units, bool *is_directory) {
        if (type != 2 && type != 3) {
            // An index in this form is taken for a source line.
            say("idx[N]: not SFN(type:" + std::to_string(type) + ")\n");
            return false;
        }
        if (checksum_of({reinterpret_cast<const char *>(entry.data()), 11}) != checksum) {
            say("not match checksum(" + std::to_string(index) + ")\n");
            return false;
        }
        for (const std::u16string &part : parts) {
            *units += part;
            if (part.size() < 13) {
                break;
            }
        }
        *is_directory = type == 3;
        return true;
    }
    static std::u16string units_in(const entry_image &slot) {
        std::u16string result;
        for (const std::size_t place : {1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30}) {
            const auto unit = static_cast<char16_t>(slot[place] + 256 * slot[place + 1]);
            if (unit == 0) {
                break;
            }
            result += unit;
        }
        return result;
    }
    void say(const std::string &message) {
        step_.said += "get_long_name_fast[N]: " + message;
    }
    void say_no_entry(std::uint32_t index) {
        const std::string place =
            "(" + std::to_string(cluster_now()) + ", " + std::to_string(index) + ")";
        if (fixed_) {
            step_.said += "get_phy_sector[N]: Invalid sector number in Root dir\n\n";
        }
        step_.said += "get_dentry_with_clu[N]: Failed to get entry sector!:" + place + "\n\n";
        say("fail to get dentry" + place + ": " + std::strerror(EFAULT) + "\n\n");
    }

    const directory *dir_;
    bool fixed_;
    std::uint32_t per_cluster_;
    std::uint32_t pos_ = 0;
    std::size_t at_ = 0; // of the cluster in the chain
    fast_step step_;
    std::optional<entry_image> kept_image_; // once the pointer has left the caller's output
};

} // namespace testing_support
