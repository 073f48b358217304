// Short names compared with the reference model: names of all kinds, directories full of tails.

#include "tests/support/names.h"
#include "tests/support/volume.h"

#include <cstdio>
#include <random>

using namespace fat;
using namespace testing_support;

namespace {

// Deviates from a fixed seed, which is printed.
class chance {
public:
    explicit chance(u32 seed) : engine_(seed) {
        std::printf("seed %u\n", seed);
    }
    // 0 to n - 1.
    u32 below(u32 n) {
        return static_cast<u32>(engine_() % n);
    }
    bool one_in(u32 n) {
        return below(n) == 0;
    }
    char of(std::string_view characters) {
        return characters[below(static_cast<u32>(characters.size()))];
    }

private:
    std::mt19937 engine_;
};

// Any byte but zero, mostly one with a meaning in names.
char any_character(chance *random) {
    switch (random->below(8)) {
    case 0:
        return static_cast<char>(1 + random->below(255));
    case 1:
        return random->of("+,;=[]");
    case 2:
        return random->of(". ");
    case 3:
        return random->of("\xE5\x05~_\\/:*?\"<>|\x7F\x80\xFF\t\n-@`{^");
    case 4:
        return random->of("0123456789");
    case 5:
        return random->of("ABCXYZ");
    default:
        return random->of("abcxyz");
    }
}

std::string letters(chance *random, u32 most, std::string_view characters) {
    std::string result(random->below(most + 1), ' ');
    for (char &c : result) {
        c = random->of(characters);
    }
    return result;
}

// Names that nearly fit 8.3, in one case or in two, with blanks and dots around them.
std::string nearly_short(chance *random) {
    constexpr std::string_view ALPHABETS[] = {"abcdefghijklmnopqrstuvwxyz0123456789",
                                              "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789", "aBcDeFgH1",
                                              "0123456789_-", "ab+.  "};
    const auto part = [random, &ALPHABETS](u32 most) {
        return letters(random, most, ALPHABETS[random->below(5)]);
    };
    std::string name;
    if (random->one_in(6)) {
        name += letters(random, 3, " .");
    }
    name += part(10);
    if (!random->one_in(4)) {
        name += "." + part(5);
    }
    if (random->one_in(4)) {
        name += letters(random, 4, " .");
    }
    return name;
}

std::string any_name(chance *random) {
    if (random->one_in(2)) {
        return nearly_short(random);
    }
    // Mostly short, now and then longer than a long name can be.
    const u32 most = random->one_in(50) ? 300 : random->one_in(3) ? 30 : 12;
    std::string name(random->below(most + 1), ' ');
    for (char &c : name) {
        c = any_character(random);
    }
    return name;
}

// Eleven bytes of a possible short name on a medium.
std::string any_dos_name(chance *random) {
    std::string dos(11, ' ');
    for (char &c : dos) {
        c = random->one_in(3) ? ' ' : random->one_in(10) ? '\0' : any_character(random);
    }
    return dos;
}

} // namespace

TEST(NamesAtRandom, BecomeTheExpectedShortNames) {
    chance random(1580239471);
    diagnostics messages;
    u32 refused = 0;
    u32 lossy = 0;
    u32 cut = 0;
    u32 mixed = 0;
    for (u32 i = 0; i < 60000; i++) {
        const std::string name = any_name(&random);
        const model::short_form form = model::to_short(name);
        messages.clear();
        ASSERT_EQ(to_short(name), form) << i << ": " << model::shown_bytes(name);
        ASSERT_FALSE(testing::Test::HasFailure());
        ASSERT_EQ(messages.text(),
                  form.result == 0 ? "" : "convert_cstring_to_dosname[N]: zero length string!\n\n");
        refused += form.result != 0 ? 1 : 0;
        lossy += form.lossy ? 1 : 0;
        cut += form.left != name ? 1 : 0;
        mixed += form.case_byte == 255U ? 1 : 0;
    }
    // Each kind of name occurs often.
    for (const u32 count : {refused, lossy, cut, mixed}) {
        EXPECT_GT(count, 300U);
        EXPECT_LT(count, 59000U);
    }
}

TEST(NamesAtRandom, OfOneAndTwoBytesAreAllTried) {
    diagnostics messages;
    for (int first = 1; first < 256; first++) {
        const std::string one(1, static_cast<char>(first));
        ASSERT_EQ(to_short(one), model::to_short(one)) << first;
        for (int second = 1; second < 256; second++) {
            const std::string two = one + static_cast<char>(second);
            ASSERT_EQ(to_short(two), model::to_short(two)) << first << ", " << second;
        }
    }
}

TEST(NamesAtRandom, FillTheExpectedRecords) {
    chance random(826417);
    diagnostics messages;
    ram_disk disk(4096);
    u32 long_names = 0;
    u32 refused = 0;
    for (u32 i = 0; i < 30000; i++) {
        const std::string name = any_name(&random);
        sv->long_name = random.one_in(4) ? 0 : 1;
        const model::name_record expected = model::to_record(name, sv->long_name == 1);
        ASSERT_EQ(to_record(name, &messages), expected) << i << ": " << model::shown_bytes(name);
        ASSERT_FALSE(testing::Test::HasFailure());
        long_names += expected.units ? 1 : 0;
        refused += expected.result != 0 ? 1 : 0;
    }
    EXPECT_GT(long_names, 3000U);
    EXPECT_GT(refused, 1000U);
}

TEST(NamesAtRandom, AreRefusedAsExpected) {
    chance random(90210);
    diagnostics messages;
    u32 refused = 0;
    for (u32 i = 0; i < 20000; i++) {
        std::string name = any_name(&random);
        if (random.one_in(2)) {
            name = letters(&random, 4, "AUXCONLPTMRcomlpt") + letters(&random, 2, "12345 .") +
                   letters(&random, 6, " ") + letters(&random, 1, "x.");
        }
        messages.clear();
        const bool is_refused = model::is_refused(name);
        ASSERT_EQ(verify_valid_name(name.c_str()), is_refused ? -EINVAL : 0)
            << model::shown_bytes(name);
        ASSERT_EQ(messages.text(), is_refused ? "verify_valid_name[N]: Check here!\n\n" : "");
        refused += is_refused ? 1 : 0;
    }
    EXPECT_GT(refused, 1000U);
}

TEST(StoredNamesAtRandom, AreShownAsExpected) {
    chance random(31337);
    for (u32 i = 0; i < 30000; i++) {
        const std::string dos = any_dos_name(&random);
        const u32 lcase = random.below(256);
        // A zero byte ends what is shown, as it ends every string.
        const std::string shown = model::to_text(dos, lcase);
        ASSERT_EQ(to_text(dos, lcase), shown.c_str()) << model::shown_bytes(dos) << lcase;
    }
}

TEST(StoredNamesAtRandom, AreRestoredFromAFaithfulName) {
    chance random(4711);
    diagnostics messages;
    ram_disk disk(4096);
    sv->long_name = 1;
    u32 faithful = 0;
    for (u32 i = 0; i < 30000; i++) {
        const std::string name = any_name(&random);
        const model::name_record made = to_record(name, &messages);
        if (made.result != 0 || made.units || made.dos[0] == '\x05') {
            continue;
        }
        faithful++;
        ASSERT_EQ(to_text(made.dos, made.lcase), made.left) << model::shown_bytes(name);
    }
    EXPECT_GT(faithful, 3000U);
}

TEST(StoredNamesAtRandom, HaveTheExpectedChecksum) {
    chance random(20231105);
    for (u32 i = 0; i < 30000; i++) {
        const std::string dos = any_dos_name(&random);
        ASSERT_EQ(checksum_by_library(dos), model::checksum_of(dos)) << model::shown_bytes(dos);
    }
}

// ---- tails ------------------------------------------------------------------------------------

namespace {

// A name with a tail, or nearly, that often meets the prefix of another one.
std::string tailed_name(chance *random, const std::string &near) {
    const u32 prefix = random->below(8);
    std::string dos = near.substr(0, prefix);
    if (random->one_in(8)) {
        dos += random->of("AB ~");
    }
    if (!random->one_in(10)) {
        dos += '~';
    }
    while (dos.size() < 8) {
        dos += random->one_in(4) ? random->of("X ~5") : random->of("0123456789 ");
    }
    dos.resize(8);
    return dos + random->of("T~ ") + random->of("X1 ") + " ";
}

// The name that the stem has with a tail.
std::string name_with_tail(const std::string &near, u32 tail) {
    const std::string number = std::to_string(tail);
    return model::padded(near.substr(0, 7 - number.size()) + "~" + number, 11);
}

entry_image any_entry(chance *random, const std::string &near) {
    constexpr std::uint8_t ATTRIBUTES[] = {0x20, 0x20, 0x20, 0x10, 0x00, 0x27,
                                           0x08, 0x0F, 0x4F, 0x18, 0x3F};
    const std::string dos = random->one_in(3) ? any_dos_name(random) : tailed_name(random, near);
    entry_image entry = short_entry(dos, ATTRIBUTES[random->below(11)]);
    for (std::size_t i = 12; i < entry.size(); i++) {
        entry[i] = static_cast<u8>(random->one_in(4) ? '~' : random->below(256));
    }
    if (random->one_in(10)) {
        entry[0] = 0xE5;
    } else if (entry[0] == 0 && !random->one_in(8)) {
        entry[0] = '~';
    }
    return entry;
}

// A short name with the same beginning as many entries.
std::string short_name_of_stem(chance *random) {
    const std::string base =
        random->of("AB") + letters(random, 7, random->one_in(2) ? "AB~1" : "AB");
    return model::padded(base, 8) + "TX ";
}

struct tail_tally {
    u32 largest = 0;
    u32 after_first = 0; // choices other than 1
};

void try_tails(chance *random, directory *dir, diagnostics *messages, tail_tally *tally) {
    const std::string near = short_name_of_stem(random);
    const u32 used = random->below(dir->capacity() + 1);
    constexpr u32 GAPS[] = {1, 3, 20, 1000};
    // One in this many entries is not one of the adjacent tails.
    const u32 gap = GAPS[random->below(4)];
    std::vector<entry_image> entries;
    for (u32 i = 0; i < dir->capacity(); i++) {
        entry_image entry = {};
        if (i < used) {
            entry = random->one_in(gap) ? any_entry(random, near)
                                        : short_entry(name_with_tail(near, i + 1));
        }
        dir->put(i, entry);
        entries.push_back(entry);
    }
    for (u32 i = 0; i < 6; i++) {
        const std::string dos = i < 3 ? near : short_name_of_stem(random);
        const u32 expected = model::free_tail(entries, dos);
        ASSERT_NE(expected, 0U);
        dos_block block(dos);
        messages->clear();
        ASSERT_EQ(add_numeric_tail(&dir->record, block.get()), 0);
        ASSERT_EQ(block.text(), model::with_tail(dos, expected)) << dos;
        tally->largest = std::max(tally->largest, expected);
        tally->after_first += expected > 1 ? 1 : 0;
    }
}

} // namespace

TEST(TailsAtRandom, AreTheLowestFreeOnes) {
    chance random(60606);
    diagnostics messages;
    tail_tally tally;
    const volume_shape chained = {16, 512, 2};
    volume medium(chained);
    directory small = medium.sub_directory({3});
    directory large = medium.sub_directory({70, 69, 4000, 12});
    for (u32 i = 0; i < 1500; i++) {
        ASSERT_NO_FATAL_FAILURE(
            try_tails(&random, random.one_in(4) ? &large : &small, &messages, &tally))
            << "directory " << i;
    }
    EXPECT_GT(tally.after_first, 2000U);
    EXPECT_GT(tally.largest, 99U);
    std::printf("largest tail %u\n", tally.largest);
}

TEST(TailsAtRandom, FollowEachOtherUntilTheDirectoryIsFull) {
    diagnostics messages;
    volume medium({16, 512, 64});
    directory dir = medium.sub_directory({2});
    for (u32 i = 0; i < 1023; i++) {
        dos_block block("LONGFILETXT");
        ASSERT_EQ(add_numeric_tail(&dir.record, block.get()), 0);
        ASSERT_EQ(block.text(), model::with_tail("LONGFILETXT", i + 1));
        dir.append(short_entry(block.text()));
    }
    dos_block block("LONGFILETXT");
    ASSERT_EQ(add_numeric_tail(&dir.record, block.get()), -EEXIST);
    ASSERT_EQ(messages.text(), "add_numeric_tail[N]: Too many SFNs!\n\n");
}
