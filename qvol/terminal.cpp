#include "qvol/terminal.h"

#include "qvol/output.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include <langinfo.h>
#include <locale.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace qvol {

namespace {

constexpr unsigned NARROWEST = 40;
constexpr unsigned WIDEST = 500;

bool locale_is_utf8() {
    const locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
    if (locale == nullptr) {
        return false;
    }
    const bool is_utf8 = std::strcmp(nl_langinfo_l(CODESET, locale), "UTF-8") == 0;
    freelocale(locale);
    return is_utf8;
}

// Splits text into characters; invalid UTF-8 byte by byte.
std::vector<std::string> characters_of(const std::string &text) {
    std::vector<std::string> characters;
    for (const char byte : text) {
        const bool continues = (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
        if (continues && !characters.empty()) {
            characters.back() += byte;
        } else {
            characters.emplace_back(1, byte);
        }
    }
    return characters;
}

// Characters from U+2E80 are East Asian scripts and pictures, which are mostly wide. Counting a
// narrow character as wide only wastes a column.
unsigned width_of(const std::string &character) {
    const bool has_lead_byte = static_cast<unsigned char>(character.front()) >= 0xC0U;
    return has_lead_byte && character >= "\xE2\xBA\x80" ? 2 : 1;
}

unsigned width_of(const std::vector<std::string> &characters, std::size_t first, std::size_t end) {
    unsigned sum = 0;
    for (std::size_t i = first; i < end; i++) {
        sum += width_of(characters[i]);
    }
    return sum;
}

std::string joined(const std::vector<std::string> &characters, std::size_t first, std::size_t end) {
    std::string text;
    for (std::size_t i = first; i < end; i++) {
        text += characters[i];
    }
    return text;
}

} // namespace

terminal_form form_of_standard_output() {
    terminal_form form;
    form.has_colour = uses_colour();
    form.has_utf8 = locale_is_utf8();
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0) {
        form.width = std::clamp<unsigned>(size.ws_col, NARROWEST, WIDEST);
    }
    return form;
}

unsigned columns_of(const std::string &text) {
    const std::vector<std::string> characters = characters_of(text);
    return width_of(characters, 0, characters.size());
}

std::string fitted(const std::string &text, unsigned columns, const char *dots) {
    const std::vector<std::string> characters = characters_of(text);
    if (width_of(characters, 0, characters.size()) <= columns) {
        return text;
    }
    const unsigned dot_columns = columns_of(dots);
    const unsigned room = columns > dot_columns ? columns - dot_columns : 0;
    std::size_t head = 0; // a third of the room; the end of a path is more useful
    while (width_of(characters, 0, head + 1) <= room / 3) {
        head++;
    }
    std::size_t tail = characters.size();
    while (width_of(characters, 0, head) + width_of(characters, tail - 1, characters.size()) <=
           room) {
        tail--;
    }
    return joined(characters, 0, head) + dots + joined(characters, tail, characters.size());
}

} // namespace qvol
