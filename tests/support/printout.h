// The outcome of a call that prints, separated into standard output, stream and diagnostics; and
// the expected printed text of a directory entry.

#pragma once

#include "tests/support/capture.h"
#include "tests/support/volume.h"

#include <cstdint>
#include <iomanip>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

namespace testing_support {

struct printout {
    int result = 0;
    std::string out;      // standard output, or the stream argument of the call
    std::string messages; // diagnostics, source lines as N
    bool operator==(const printout &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const printout &p) {
    return out << p.result << "\nprinted:\n" << p.out << "messages:\n" << p.messages;
}

// 0 for a call without a result.
template <typename Call, typename... Arguments>
int result_of(const Call &call, Arguments... arguments) {
    if constexpr (std::is_void_v<decltype(call(arguments...))>) {
        call(arguments...);
        return 0;
    } else {
        return call(arguments...);
    }
}

// The outcome of a call that prints to standard output.
template <typename Call>
printout to_output(const Call &call) {
    diagnostics messages;
    standard_output out;
    const int result = result_of(call);
    return {result, out.stop(), messages.text()};
}

// The outcome of a call that prints to its stream argument and nothing to standard output.
template <typename Call>
printout to_stream(const Call &call) {
    diagnostics messages;
    memory_stream stream;
    standard_output out;
    const int result = result_of(call, stream.get());
    const std::string stray = out.stop();
    EXPECT_EQ(stray, "");
    return {result, stream.text(), messages.text()};
}

// ---- entries ----------------------------------------------------------------------------------

// Numbers in a printed entry: "%04x" is in_hex(value, 4), "0x%02X" is "0x" + ...
inline std::string in_hex(std::uint32_t value, int digits = 1, bool upper = false) {
    std::ostringstream out;
    out << std::hex << std::setfill('0') << (upper ? std::uppercase : std::nouppercase)
        << std::setw(digits) << value;
    return out.str();
}
inline std::uint32_t word_at(const entry_image &entry, std::size_t offset) {
    return entry.at(offset) | static_cast<std::uint32_t>(entry.at(offset + 1)) << 8;
}
inline std::string as_int(std::uint32_t value) {
    return std::to_string(static_cast<std::int32_t>(value));
}

inline std::string text_of_short_entry(const entry_image &entry) {
    const std::uint32_t start = word_at(entry, 20) << 16 | word_at(entry, 26);
    std::string text = "\tname:\t" + std::string(entry.begin(), entry.begin() + 11) + "\n";
    text += "\tattr:\t0x" + in_hex(entry[11]) + "\n";
    text += "\tsysid:\t0x" + in_hex(entry[12], 2, true) + "\n";
    text += "\tcmsec: ctime: cdate = \t" + std::to_string(entry[13]) + " \t0x" +
            in_hex(word_at(entry, 14)) + " \t0x" + in_hex(word_at(entry, 16)) + "\n";
    text += "\tadate: mtime: mdate = \t0x" + in_hex(word_at(entry, 18)) + " \t0x" +
            in_hex(word_at(entry, 22)) + " \t0x" + in_hex(word_at(entry, 24)) + "\n";
    text += "\tstart_clu:\t0x" + in_hex(start >> 16, 4) + " " + in_hex(start & 0xFFFF, 4) + " (" +
            as_int(start) + ")\n";
    text += "\tsize:\t" + as_int(word_at(entry, 28) | word_at(entry, 30) << 16) + "\n";
    return text;
}

// That many units from `offset` on, or fewer up to a zero.
inline std::string text_of_units(const entry_image &entry, std::size_t offset, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count && word_at(entry, offset + 2 * i) != 0; i++) {
        text += in_hex(word_at(entry, offset + 2 * i), 4) + " ";
    }
    return text + "\n";
}

inline std::string text_of_long_slot(const entry_image &slot) {
    std::string text = "\toffset:\t0x" + in_hex(slot[0], 2, true);
    text += slot[0] >= 65 ? " (Last)\n" : " \n";
    text += "\tattr:\t0x" + in_hex(slot[11], 2, true) + "\n";
    text += "\tsysid:\t0x" + in_hex(slot[12]) + "\n";
    text += "\tchecksum:\t0x" + in_hex(slot[13], 2, true) + "\n";
    text += "\tstart_clu:\t0x" + in_hex(word_at(slot, 26)) + "\n";
    text += "\tunname[0-4]:\t" + text_of_units(slot, 1, 5);
    text += "\tunname[5-10]:\t" + text_of_units(slot, 14, 6);
    text += "\tunname[11-12]:\t" + text_of_units(slot, 28, 2);
    return text;
}

} // namespace testing_support
