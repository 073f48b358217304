// The library's name operations as functions from strings to complete results.

#pragma once

#include "fat/internal.h"
#include "tests/model/names.h"
#include "tests/support/capture.h"

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace testing_support {

// A string in a block of its exact size, which the library changes in place.
class caller_string {
public:
    explicit caller_string(std::string_view text) : block_(text.begin(), text.end()) {
        block_.push_back('\0');
        block_.shrink_to_fit();
    }
    [[nodiscard]] char *get() {
        return block_.data();
    }
    [[nodiscard]] std::string text() const {
        return block_.data();
    }

private:
    std::vector<char> block_;
};

// The 11 bytes of a short name, in a block of exactly that size.
class dos_block {
public:
    explicit dos_block(std::string_view name = "\xAA\xAA\xAA\xAA\xAA\xAA\xAA\xAA\xAA\xAA\xAA")
        : block_(name.begin(), name.end()) {
        EXPECT_EQ(block_.size(), fat::DOS_NAME_SIZE);
        block_.shrink_to_fit();
    }
    [[nodiscard]] core::u8 *get() {
        return block_.data();
    }
    [[nodiscard]] std::string text() const {
        return {block_.begin(), block_.end()};
    }

private:
    std::vector<core::u8> block_;
};

// convert_cstring_to_dosname() with all outputs requested.
inline model::short_form to_short(const std::string &name) {
    constexpr core::u8 NO_CASE_BITS = 0x55; // not a combination of them
    caller_string string(name);
    dos_block dos;
    core::u8 case_byte = NO_CASE_BITS;
    core::u32 lossy = NO_CASE_BITS;
    model::short_form form;
    form.result = fat::convert_cstring_to_dosname(string.get(), dos.get(), &case_byte, &lossy);
    form.left = string.text();
    if (form.result != 0) {
        return form;
    }
    form.dos = dos.text();
    if (case_byte != NO_CASE_BITS) {
        form.case_byte = case_byte;
    }
    EXPECT_LE(lossy, 1U);
    form.lossy = lossy != 0;
    return form;
}

// get_fatnames() into a record with other content.
inline model::name_record to_record(const std::string &name, diagnostics *messages) {
    caller_string string(name);
    fat::fat_name record;
    std::memset(&record, 0x55, sizeof record);
    messages->clear();
    model::name_record result;
    result.result = fat::get_fatnames(string.get(), &record);
    result.messages = messages->text();
    result.left = string.text();
    EXPECT_EQ(record.cstring, string.get());
    if (result.result != 0) {
        EXPECT_EQ(record.dosName, nullptr);
        EXPECT_EQ(record.unicode, nullptr);
        return result;
    }
    result.dos.assign(record.dosName, record.dosName + fat::DOS_NAME_SIZE);
    if (record.unicode != nullptr) {
        EXPECT_LT(record.ulen, fat::LONG_NAME_UNITS);
        EXPECT_EQ(record.unicode[record.ulen], 0);
        result.units.emplace(record.unicode, record.unicode + record.ulen);
    } else {
        EXPECT_EQ(record.ulen, 0U);
    }
    result.lcase = record.lcase;
    result.lossy = record.lossy;
    fat::release_name(&record);
    return result;
}

inline std::string to_text(std::string_view dos, unsigned lcase) {
    dos_block block(dos);
    std::vector<char> out(fat::DOS_CSTRING_SIZE, '#');
    EXPECT_EQ(
        fat::convert_dosname_to_cstring(block.get(), out.data(), static_cast<core::u8>(lcase)), 0);
    EXPECT_EQ(block.text(), dos);
    EXPECT_NE(std::memchr(out.data(), '\0', out.size()), nullptr);
    return out.data();
}

inline unsigned checksum_by_library(std::string_view dos) {
    dos_block block(dos);
    return fat::dosname_checksum(block.get());
}

} // namespace testing_support
