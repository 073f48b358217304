// Any string as a name: to 8.3, to a long name, and back.

#include "fuzz/medium.h"

using namespace fat;
using namespace fuzzing;

namespace {

constexpr const char *ENCODINGS[] = {nullptr, "UTF-8", "ISO-8859-1", "EUC-JP"};

// One volume record for each encoding, so that each converter is opened once.
fat_super *volume_with_encoding(std::size_t which) {
    static fat_super volumes[std::size(ENCODINGS)] = {};
    static bool opened = false;
    if (!opened) {
        opened = true;
        fat_set_diagnostics(nullptr);
        for (std::size_t i = 0; i < std::size(ENCODINGS); i++) {
            sv = &volumes[i];
            sv->long_name = 1;
            (void)fat_set_encoding(ENCODINGS[i]);
        }
    }
    return &volumes[which];
}

void check_record(const fat_name &name) {
    u8 dos_name[DOS_NAME_SIZE];
    std::memcpy(dos_name, name.dosName, sizeof dos_name);
    require(dos_name[0] != NAME_UNUSED && dos_name[0] != NAME_DELETED && dos_name[0] != ' ');
    require((name.unicode != nullptr) == (name.ulen > 0));
    require(name.ulen < LONG_NAME_UNITS);
    char text[DOS_CSTRING_SIZE];
    convert_dosname_to_cstring(dos_name, text, name.lcase);
    require(std::strlen(text) < DOS_CSTRING_SIZE);
    if (name.unicode != nullptr) {
        require(name.unicode[name.ulen] == 0);
        char back[LONG_NAME_UNITS];
        const int length = convert_uname_to_cstring(name.unicode, back);
        require(length < static_cast<int>(sizeof back));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    input in(data, size);
    const std::uint8_t shape = in.byte();
    sv = volume_with_encoding(shape % std::size(ENCODINGS));
    sv->long_name = (shape & 0x80) == 0 ? 1 : 0;
    const u32 tail = in.byte() * 5U;

    std::array<char, 600> text = {};
    for (std::size_t i = 0; i + 1 < text.size() && in.left() > 0; i++) {
        text[i] = static_cast<char>(in.byte());
    }
    (void)verify_valid_name(text.data());
    fat_name name = {};
    if (get_fatnames(text.data(), &name) == 0) {
        check_record(name);
        require((append_tail(name.dosName, tail) == 0) == (tail <= 1024));
        (void)dosname_checksum(name.dosName);
        release_name(&name);
    }

    // The same bytes as units on a medium, with and without a terminator.
    u16 units[LONG_NAME_UNITS] = {};
    std::memcpy(units, data, std::min(size, sizeof units));
    char shown[LONG_NAME_UNITS + 1] = {};
    require(convert_uname_to_cstring(units, shown) < static_cast<int>(sizeof shown));
    return 0;
}
