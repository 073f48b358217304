// Creating files, directories and symbolic links.

#include "tests/support/namespace_fixture.h"

#include <numeric>

using namespace fat;
using namespace testing_support;

namespace {

constexpr u32 NOW_TIME = 12 << 11 | 34 << 5 | 56 / 2;

class namespace_on_fat32 : public namespace_test {
protected:
    namespace_on_fat32() : namespace_test({.fat_type = 32}) {}
};
class namespace_on_any_shape : public namespace_test,
                               public testing::WithParamInterface<volume_shape> {
protected:
    namespace_on_any_shape() : namespace_test(GetParam()) {}
};

using CreateFile = namespace_test;
using MakeDirectory = namespace_test;
using MakeSymlink = namespace_test;
using DoCreate = namespace_test;
using CreateOnFat32 = namespace_on_fat32;
using CreateAnyShape = namespace_on_any_shape;
INSTANTIATE_TEST_SUITE_P(Shapes, CreateAnyShape, testing::ValuesIn(many_shapes()), shape_name);

// A short entry as creation writes it now.
entry_image new_entry(std::string_view dos, u8 attr, u8 case_bits, u32 start = 0, u8 cmsec = 0) {
    entry_image entry = short_entry(dos, attr, start);
    entry[12] = case_bits;
    entry[13] = cmsec;
    entry[22] = static_cast<u8>(NOW_TIME);
    entry[23] = static_cast<u8>(NOW_TIME >> 8);
    entry[24] = static_cast<u8>(TODAY);
    entry[25] = static_cast<u8>(TODAY >> 8);
    return entry;
}

constexpr u8 LOWER = 0x18; // both parts of the name
constexpr u8 SYMLINK_MARK = 0xE2;

// Messages if the path leads to no directory.
const std::string NO_DIRECTORY = "do_create[N]: Invalid input\n";
const std::string NOT_CREATED = "create_internal[N]: Check here!\n\n";

// After the label entry that formatting leaves in the root directory.
constexpr u32 FIRST = 1;

} // namespace

// ---- files ------------------------------------------------------------------------------------

TEST_P(CreateAnyShape, FileIsAnEntryWithoutClusters) {
    v.disk.log.clear();
    const bytes fat = v.fat_copy(0);
    EXPECT_EQ(create("readme.txt"), came_to(1));
    EXPECT_EQ(v.top.at(FIRST), new_entry("README  TXT", 0, LOWER));
    EXPECT_EQ(v.top.at(FIRST + 1), entry_image{});
    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(sectors_written(), (std::vector<u64>{v.top.sectors[0]}));

    const oentry &record = mounted::record(1);
    EXPECT_EQ(record.start, 0U);
    EXPECT_EQ(record.last, 0U);
    EXPECT_EQ(record.allocated, 0U);
    EXPECT_EQ(record.pos, 0U);
    EXPECT_EQ(record.ref_count, 1U);
    EXPECT_EQ(record.dentry_sector, v.top.sectors[0]);
    EXPECT_EQ(record.dentry_offset, 32U);
    EXPECT_EQ(record.parent_clus, root_base());
    EXPECT_EQ(mounted::held_entry(1), v.top.at(FIRST));
}

TEST_F(CreateFile, HandlesAreTheLowestFreeOnes) {
    EXPECT_EQ(create("a"), came_to(1));
    EXPECT_EQ(create("b"), came_to(2));
    fat_close(1);
    EXPECT_EQ(create("c"), came_to(1));
    EXPECT_EQ(mounted::record(1).dentry[0], 'C');
}

TEST_F(CreateFile, LeadingAndTrailingSlashesAndDotsAreTheRoot) {
    EXPECT_EQ(create("/a"), came_to(1));
    EXPECT_EQ(create("//b"), came_to(2));
    EXPECT_EQ(create("c///"), came_to(3));
    EXPECT_EQ(create("./d"), came_to(4));
    EXPECT_EQ(create("/./././e"), came_to(5));
    for (u32 i = 0; i < 5; i++) {
        EXPECT_EQ(v.top.at(FIRST + i)[0], 'A' + i);
    }
}

TEST_F(CreateFile, NameAloneGoesIntoTheCurrentDirectory) {
    directory &inside = enter_directory({5});
    EXPECT_EQ(create("a"), came_to(2));
    EXPECT_EQ(inside.at(2), new_entry("A          ", 0, 0x08));
    EXPECT_EQ(mounted::record(2).parent_clus, 5U);
    EXPECT_EQ(create("./b"), came_to(3));
    EXPECT_EQ(inside.at(3)[0], 'B');
    EXPECT_EQ(create("/c"), came_to(4));
    EXPECT_EQ(v.top.at(1)[0], 'C');
    EXPECT_EQ(inside.at(4), entry_image{});
}

TEST_F(CreateFile, RecordMadeForADotPathIsFreed) {
    enter_directory({5});
    for (const std::string path : {"./a", "/./b", "c"}) {
        const allocation_meter meter;
        EXPECT_GT(create(path).result, 0);
        EXPECT_EQ(meter.live_blocks(), 2) << path; // the open entry and its image
    }
    for (const std::string path : {"./a", "/./b", "./c:d", "x/y"}) {
        const allocation_meter meter;
        EXPECT_LT(create(path).result, 0);
        EXPECT_EQ(meter.live_blocks(), 0) << path;
    }
}

TEST_F(CreateFile, StampIsTheLocalTime) {
    const stopped_clock evening(NEW_YEARS_EVE_2030, "<+0530>-5:30");
    create("a");
    const entry_image entry = v.top.at(FIRST);
    EXPECT_EQ(field_of(entry, 22, 2), u32{4 << 11 | 30 << 5});
    EXPECT_EQ(field_of(entry, 24, 2), u32{51 << 9 | 1 << 5 | 1});
    EXPECT_EQ(part_of({entry.begin(), entry.end()}, 13, 7), bytes(7, 0));
}

// ---- long names -------------------------------------------------------------------------------

TEST_P(CreateAnyShape, NameOf14CharactersTakesTwoSlotsAndTheShortEntry) {
    EXPECT_EQ(create("abcdefghij.txt"), came_to(1));
    const std::vector<entry_image> slots = long_slots(u"abcdefghij.txt", "ABCDEF~1TXT");
    ASSERT_EQ(slots.size(), 2U);
    EXPECT_EQ(v.top.at(FIRST), slots[0]);
    EXPECT_EQ(v.top.at(FIRST + 1), slots[1]);
    EXPECT_EQ(v.top.at(FIRST + 2), new_entry("ABCDEF~1TXT", 0, LOWER));
    EXPECT_EQ(mounted::record(1).dentry_offset % 512, (FIRST + 2) * 32U);
}

TEST_F(CreateFile, SlotsAreOneForEach13CharactersAndOneForTheShortEntry) {
    u32 at = FIRST;
    for (const auto &[length, slots] : std::initializer_list<std::pair<u32, u32>>{
             {9, 2}, {13, 2}, {14, 3}, {26, 3}, {27, 4}, {39, 4}, {255, 21}}) {
        const std::string name =
            std::string(length - 1, 'a') + static_cast<char>('0' + length % 10);
        ASSERT_GT(create(name).result, 0) << length;
        EXPECT_EQ(v.top.at(at)[0], 0x40 + slots - 1);
        EXPECT_EQ(v.top.at(at + slots - 1)[11], 0) << length;
        EXPECT_EQ(v.top.at(at + slots), entry_image{});
        at += slots;
    }
}

TEST_F(CreateFile, MixedCaseNameIsAnotherThanItsOwnShortForm) {
    EXPECT_EQ(create("readme.txt"), came_to(1));
    EXPECT_EQ(create("ReadMe.txt"), came_to(2));
    EXPECT_EQ(v.top.at(FIRST + 1), long_slots(u"ReadMe.txt", "README~1TXT")[0]);
    EXPECT_EQ(v.top.at(FIRST + 2), new_entry("README~1TXT", 0, LOWER));
}

TEST_F(CreateFile, NameHasNoSlotsWhileLongNamesAreOff) {
    sv->long_name = 0;
    EXPECT_EQ(create("LongFileName.text"), came_to(1));
    EXPECT_EQ(v.top.at(FIRST), new_entry("LONGFILETEX", 0, LOWER));
    EXPECT_EQ(v.top.at(FIRST + 1), entry_image{});
}

TEST_F(CreateFile, RemovedEntriesAreUsedAgain) {
    v.top.go_to(1);
    v.top.append(short_entry("A          "));
    v.top.append(deleted(short_entry("B          ")));
    v.top.append(short_entry("C          "));
    v.top.append(deleted(short_entry("D          ")));
    v.top.append(deleted(long_slot(0x41, u"E", 0)));
    v.top.append(short_entry("F          "));
    EXPECT_EQ(create("x"), came_to(1));
    EXPECT_EQ(v.top.at(2)[0], 'X');
    EXPECT_EQ(create("Yy"), came_to(2));
    EXPECT_EQ(v.top.at(4), long_slots(u"Yy", "YY~1       ")[0]);
    EXPECT_EQ(v.top.at(5), new_entry("YY~1       ", 0, LOWER));
    EXPECT_EQ(v.top.at(6), short_entry("F          "));
}

// Slots that a removal leaves are never used again.
TEST_F(CreateFile, OrphanSlotsAreNotUsedAgain) {
    v.top.go_to(1);
    v.top.append(long_slots(u"Some long name", "SOMELO~1   "));
    v.top.append(deleted(short_entry("SOMELO~1   ")));
    EXPECT_EQ(create("Some long name"), came_to(1));
    EXPECT_EQ(v.top.at(1), long_slots(u"Some long name", "SOMELO~1   ")[0]);
    EXPECT_EQ(v.top.at(2), long_slots(u"Some long name", "SOMELO~1   ")[1]);
    EXPECT_EQ(v.top.at(3), long_slots(u"Some long name", "SOMELO~1   ")[0]);
    EXPECT_EQ(v.top.at(5), new_entry("SOMELO~1   ", 0, LOWER));
}

TEST_F(CreateFile, NameThatTheEncodingDoesNotHaveIsRefused) {
    const allocation_meter meter;
    EXPECT_EQ(create("\xE4\xF6\xFC.long"),
              came_to(-EINVAL, "convert_cstring_to_uname[N]: cannot convert non-ascii\n"
                               "convert_name[N]: Failed to convert ...!\n\n"
                               "find_dentry_with_clu[N]: Failed to get fatnames!\n\n"));
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(mounted::open_ids(), 1);
}

// ---- names that exist -------------------------------------------------------------------------

TEST_F(CreateFile, ExistingNameIsRefusedAndNothingIsWritten) {
    v.top.go_to(FIRST);
    v.top.append(short_entry("README  TXT"));
    v.top.append_long(u"Some long name", "SOMELO~1   ");
    v.disk.log.clear();
    const auto exists = [](const std::string &path, u32 index) {
        return came_to(-EEXIST, found(0, index) + "create_internal[N]: cannot create " + path +
                                    ": File exists\n");
    };
    EXPECT_EQ(create("readme.txt"), exists("readme.txt", 1));
    EXPECT_EQ(create("/README.TXT"), exists("/README.TXT", 1));
    EXPECT_EQ(create("./README.TXT//"), exists("./README.TXT", 1));
    EXPECT_EQ(create("Some long name"), exists("Some long name", 4));
    EXPECT_EQ(make_dir("readme.txt"), exists("readme.txt", 1));
    const outcome link = symlink("target", "readme.txt");
    EXPECT_EQ(link, came_to(-EEXIST, exists("readme.txt", 1).messages +
                                         "fat_create_symlink[N]: Check here!\n\n"));
    EXPECT_TRUE(nothing_written());
    EXPECT_EQ(mounted::open_ids(), 1);
}

// The conversion to a short name cuts them off in place.
TEST_F(CreateFile, ExistingNameIsReportedWithoutItsTrailingDotsAndSpaces) {
    v.top.go_to(FIRST);
    v.top.append(short_entry("README  TXT"));
    EXPECT_EQ(create("readme.txt.. ."),
              came_to(-EEXIST,
                      found(0, 1) + "create_internal[N]: cannot create readme.txt: File exists\n"));
}

TEST_F(CreateFile, NameOfTheLabelEntryIsFree) {
    v.top.put(0, short_entry("VOLUME     ", LABEL));
    EXPECT_EQ(create("VOLUME"), came_to(1));
}

// All 1023 numbers taken: the name is reported to exist although it does not.
TEST_F(CreateFile, NumericTailsThatAreUsedUpAreAnExistingName) {
    directory &inside = enter_directory([] {
        std::vector<u32> clusters(20);
        std::iota(clusters.begin(), clusters.end(), 5U);
        return clusters;
    }());
    for (u32 number = 1; number < 1024; number++) {
        const std::string digits = std::to_string(number);
        std::string dos = "LONGFILETXT";
        dos.replace(7 - digits.size(), digits.size() + 1, '~' + digits);
        inside.append(short_entry(dos));
    }
    const std::string full = "add_numeric_tail[N]: Too many SFNs!\n\n"
                             "build_entry[N]: cannot create DOS name: over the maximum numeric\n"
                             "create_internal[N]: cannot create longfilename.txt: File exists\n";
    EXPECT_EQ(create("longfilename.txt"), came_to(-EEXIST, full));
    // Nothing is rolled back: the cluster of the directory stays allocated.
    sv->last_alloc_clus = 99;
    EXPECT_EQ(make_dir("longfilename.txt"), came_to(-EEXIST, full));
    EXPECT_EQ(v.value_of(100), volume::end_mark());
    EXPECT_EQ(inside.at(2 + 1023), entry_image{});
}

// ---- paths ------------------------------------------------------------------------------------

TEST_F(CreateFile, PathsLeadOneLevelDeepOnly) {
    v.top.go_to(FIRST);
    v.top.append(short_entry("DIR        ", DIRECTORY, 5));
    v.chain({5});
    v.disk.log.clear();
    EXPECT_EQ(create("dir/name"), came_to(-EINVAL, found(0, 1) + NO_DIRECTORY));
    EXPECT_EQ(create("/dir/sub/name"), came_to(-EINVAL, found(0, 1) + NO_DIRECTORY));
    EXPECT_EQ(create("./dir/./name"), came_to(-EINVAL, found(0, 1) + NO_DIRECTORY));
    EXPECT_EQ(create("../name"), came_to(-EINVAL, NO_DIRECTORY));
    EXPECT_EQ(make_dir("dir/name"), came_to(-EINVAL, found(0, 1) + NO_DIRECTORY));
    EXPECT_EQ(
        symlink("target", "dir/name"),
        came_to(-EINVAL, found(0, 1) + NO_DIRECTORY + "fat_create_symlink[N]: Check here!\n\n"));
    EXPECT_TRUE(nothing_written());
}

TEST_F(CreateFile, MissingParentIsNotFound) {
    v.disk.log.clear();
    EXPECT_EQ(create("missing/name"), came_to(-ENOENT, NOT_CREATED));
    EXPECT_EQ(make_dir("missing/sub/name"), came_to(-ENOENT, NOT_CREATED));
    EXPECT_TRUE(nothing_written());
}

TEST_F(CreateFile, ForbiddenNamesAreRefused) {
    for (const std::string name :
         {"a:b", "a\\b", "a*b", "?", "\"", "<", ">", "|", "CON", "con", "Lpt1"}) {
        EXPECT_EQ(create(name), came_to(-EINVAL, "verify_valid_name[N]: Check here!\n\n"
                                                 "fat_path_lookup[N]: Check here!\n\n"
                                                 "wrong file name: " +
                                                     name + "\n" + NOT_CREATED));
    }
    EXPECT_EQ(create("CON.TXT"), came_to(1));
}

TEST_F(CreateFile, EmptyNameIsRefused) {
    EXPECT_EQ(create(""), came_to(-EINVAL, empty_name()));
    EXPECT_EQ(create("/"), came_to(-EINVAL, empty_name()));
    EXPECT_EQ(create("///"), came_to(-EINVAL, empty_name()));
    EXPECT_EQ(make_dir("/"), came_to(-EINVAL, empty_name()));
    EXPECT_EQ(symlink("target", "/"),
              came_to(-EINVAL, empty_name() + "fat_create_symlink[N]: Check here!\n\n"));
}

TEST_F(CreateFile, DotsAloneAreNamesThatDoNotExistInTheRoot) {
    directory &inside = enter_directory({5});
    EXPECT_EQ(create("."),
              came_to(-EEXIST, found(5, 0) + "create_internal[N]: cannot create .: File exists\n"));
    EXPECT_EQ(
        create(".."),
        came_to(-EEXIST, found(5, 1) + "create_internal[N]: cannot create ..: File exists\n"));
    EXPECT_EQ(inside.at(2), entry_image{});
}

TEST_F(CreateFile, PathMayHave260Characters) {
    const std::string too_long = "fat_get_name[N]: Check here!\n\n";
    EXPECT_EQ(create("/" + std::string(260, 'a')),
              came_to(-ENAMETOOLONG, too_long + "fat_create_file[N]: Check here!\n\n"));
    EXPECT_EQ(make_dir(std::string(261, 'a')),
              came_to(-ENAMETOOLONG, too_long + "fat_mkdir[N]: Check here!\n\n"));
    EXPECT_EQ(symlink("target", std::string(261, '/')),
              came_to(-ENAMETOOLONG, too_long + "fat_create_symlink[N]: Check here!\n\n"));
    EXPECT_EQ(mounted::open_ids(), 1);

    EXPECT_EQ(create(std::string(257, '/') + "abc"), came_to(1));
    EXPECT_EQ(create("abcd" + std::string(256, '/')), came_to(2));
    // A long name has 255 units at most.
    EXPECT_EQ(create(std::string(260, 'x')), came_to(3));
    EXPECT_EQ(v.top.at(FIRST + 2), long_slots(std::u16string(255, 'x'), "XXXXXX~1   ")[0]);
    EXPECT_EQ(v.top.at(FIRST + 2 + 20), new_entry("XXXXXX~1   ", 0, 0x08));
}

// ---- directories ------------------------------------------------------------------------------

TEST_P(CreateAnyShape, DirectoryInTheRootHasItsDotsAndAParentOfZero) {
    sv->last_alloc_clus = 9;
    v.disk.poke(mounted::byte_of(10), some_bytes(mounted::cluster_bytes()));
    const bytes second = v.fat_copy(1);
    v.disk.log.clear();

    EXPECT_EQ(make_dir("dir"), came_to(1));

    EXPECT_EQ(v.top.at(FIRST), new_entry("DIR        ", DIRECTORY, 0x08, 10));
    EXPECT_EQ(v.value_of(10), volume::end_mark());
    EXPECT_EQ(sv->last_alloc_clus, 10U);
    const entry_image self = new_entry(".          ", DIRECTORY, 0, 10);
    const entry_image parent = new_entry("..         ", DIRECTORY, 0, 0);
    bytes expected(self.begin(), self.end());
    expected.insert(expected.end(), parent.begin(), parent.end());
    expected.resize(mounted::cluster_bytes());
    EXPECT_EQ(v.data_of({10}), expected);
    EXPECT_EQ(v.fat_copy(1), second);

    const oentry &record = mounted::record(1);
    EXPECT_EQ(record.start, 10U);
    EXPECT_EQ(record.last, 10U);
    EXPECT_EQ(record.allocated, mounted::cluster_bytes());
    // The FAT, the cleared cluster, the entry, the dots.
    std::vector<u64> order = {volume::fat_sector_of(10)};
    for (u32 s = 0; s < sv->sec_per_clus; s++) {
        order.push_back(volume::first_sector_of(10) + s);
    }
    order.push_back(v.top.sectors[0]);
    order.push_back(volume::first_sector_of(10));
    EXPECT_EQ(sectors_written(), order);
}

TEST_F(MakeDirectory, ParentIsTheStartOfTheDirectoryAround) {
    enter_directory({5, 8});
    sv->last_alloc_clus = 9;
    EXPECT_EQ(make_dir("sub"), came_to(2));
    EXPECT_EQ(v.data_of({10})[32 + 26], 5);
    EXPECT_EQ(mounted::record(2).parent_clus, 5U);
}

TEST_F(CreateOnFat32, ParentIsZeroInTheRootAndItsClusterElsewhere) {
    EXPECT_EQ(make_dir("a"), came_to(1));
    const u32 a = mounted::record(1).start;
    EXPECT_EQ(start_of(directory(&v, {a}, false).at(1)), 0U);
    EXPECT_EQ(mounted::record(1).parent_clus, sv->root_clus);
    ASSERT_EQ(fat_set_current(1), 1);
    EXPECT_EQ(make_dir("./b"), came_to(2));
    const u32 b = mounted::record(2).start;
    EXPECT_EQ(start_of(directory(&v, {b}, false).at(1)), a);
    EXPECT_EQ(mounted::record(2).parent_clus, a);
}

TEST_F(MakeDirectory, LongNameIsBuiltAsForFiles) {
    sv->last_alloc_clus = 9;
    EXPECT_EQ(make_dir("Some Directory"), came_to(1));
    EXPECT_EQ(v.top.at(FIRST), long_slots(u"Some Directory", "SOMEDI~1   ")[0]);
    EXPECT_EQ(v.top.at(FIRST + 2), new_entry("SOMEDI~1   ", DIRECTORY, LOWER, 10));
}

TEST_F(MakeDirectory, FirstEntryOfADirectoryIsAsGoodAsAnyOther) {
    v.top.put(0, entry_image{});
    sv->last_alloc_clus = 9;
    EXPECT_EQ(make_dir("dir"), came_to(1));
    EXPECT_EQ(v.top.at(0), new_entry("DIR        ", DIRECTORY, 0x08, 10));
    EXPECT_EQ(v.data_of({10})[32], '.');
    EXPECT_EQ(mounted::record(1).dentry_offset, 0U);
    EXPECT_EQ(
        make_dir("dir"),
        came_to(-EEXIST, found(0, 0) + "create_internal[N]: cannot create dir: File exists\n"));
}

// ---- symbolic links ---------------------------------------------------------------------------

TEST_P(CreateAnyShape, LinkHoldsItsTargetAsData) {
    sv->last_alloc_clus = 9;
    v.disk.poke(mounted::byte_of(10), some_bytes(mounted::cluster_bytes()));
    EXPECT_EQ(symlink("some/target", "link"), came_to(0));
    entry_image expected = new_entry("LINK       ", 0, 0x08, 10, SYMLINK_MARK);
    expected[22] = 0; // the time of a write is its date alone
    expected[23] = 0;
    expected[28] = 11;
    EXPECT_EQ(v.top.at(FIRST), expected);
    bytes data = {'s', 'o', 'm', 'e', '/', 't', 'a', 'r', 'g', 'e', 't'};
    data.resize(mounted::cluster_bytes());
    EXPECT_EQ(v.data_of({10}), data);
    EXPECT_EQ(v.chain_from(10), (std::vector<u32>{10}));
    EXPECT_EQ(mounted::open_ids(), 1);
}

TEST_F(MakeSymlink, TargetOf260CharactersIsAcceptedAndOf261Refused) {
    sv->last_alloc_clus = 9;
    const std::string target(260, 't');
    EXPECT_EQ(symlink(target, "link"), came_to(0));
    EXPECT_EQ(size_of(v.top.at(FIRST)), 260U);
    EXPECT_EQ(part_of(v.data_of({10}), 0, 261), joined(bytes(260, 't'), {0}));
    v.disk.log.clear();
    EXPECT_EQ(symlink(target + "t", "other"),
              came_to(-ENAMETOOLONG, "fat_create_symlink[N]: Check here!\n\n"));
    EXPECT_TRUE(v.disk.log.empty());
}

// There is nothing to write, but the link is not removed.
TEST_F(MakeSymlink, EmptyTargetLeavesALinkWithoutOne) {
    sv->last_alloc_clus = 9;
    EXPECT_EQ(symlink("", "link"), came_to(-EINVAL, "fat_write_file[N]: NULL arg!\n\n"
                                                    "fat_create_symlink[N]: Check here!\n\n"));
    EXPECT_EQ(v.top.at(FIRST), new_entry("LINK       ", 0, 0x08, 10, SYMLINK_MARK));
    EXPECT_EQ(v.value_of(10), volume::end_mark());
    EXPECT_EQ(mounted::open_ids(), 1);
}

TEST_F(MakeSymlink, TargetThatCannotBeWrittenLeavesALinkWithoutOne) {
    sv->last_alloc_clus = 9;
    // The cluster is cleared before, and the target's sector is written from its beginning.
    v.disk.writes_before_failure = 1 + 4 + 1;
    EXPECT_EQ(symlink("target", "link"),
              came_to(-EIO, "do_write_file[N]: cannot write sector to file\n"
                            "write_file_internal[N]: Failed to write file!\n\n"
                            "fat_write_file[N]: Failed go get file entry!\n\n"
                            "fat_create_symlink[N]: Check here!\n\n"));
    EXPECT_EQ(v.top.at(FIRST), new_entry("LINK       ", 0, 0x08, 10, SYMLINK_MARK));
    EXPECT_EQ(v.value_of(10), volume::end_mark());
    EXPECT_EQ(mounted::open_ids(), 1);
}

// ---- no room ----------------------------------------------------------------------------------

TEST_F(CreateFile, FullRootOfFat16HasNoRoom) {
    v.top.go_to(1);
    v.top.fill_up(short_entry("OTHER      "));
    v.disk.log.clear();
    const std::string full = "get_phy_sector[N]: Invalid sector number in Root dir\n\n"
                             "get_dentry_with_clu[N]: Failed to get entry sector!:(0, 512)\n\n"
                             "Root directory has no more space\n";
    EXPECT_EQ(create("a"), came_to(-ENOSPC, full));
    EXPECT_EQ(make_dir("a"), came_to(-ENOSPC, full));
    EXPECT_EQ(symlink("b", "a"), came_to(-ENOSPC, full + "fat_create_symlink[N]: Check here!\n\n"));
    EXPECT_TRUE(nothing_written());
}

TEST_F(CreateFile, RootOfFat16WithTooFewSlotsInARowHasNoRoomForALongName) {
    v.top.go_to(1);
    v.top.fill_up(short_entry("OTHER      "));
    v.top.put(511, entry_image{});
    EXPECT_EQ(create("Ab"), came_to(-ENOSPC, "Root directory has no more space\n"));
    EXPECT_EQ(create("ab"), came_to(1));
}

TEST_F(CreateFile, FullVolumeTakesFilesButNoDirectoriesAndLinks) {
    v.fill_but({});
    v.disk.log.clear();
    const std::string full = "fat_alloc_cluster[N]: No space left on volume!!\n"
                             "fat_extend_dir[N]: Failed to allocate cluster!\n\n";
    EXPECT_EQ(make_dir("a"), came_to(-ENOSPC, full));
    EXPECT_EQ(symlink("b", "a"), came_to(-ENOSPC, full + "fat_create_symlink[N]: Check here!\n\n"));
    EXPECT_TRUE(nothing_written());
    EXPECT_EQ(create("a"), came_to(1));
}

TEST_F(CreateFile, FullDirectoryGrows) {
    directory &inside = enter_directory({5});
    inside.fill_up(short_entry("OTHER      "));
    inside.put(63, entry_image{});
    sv->last_alloc_clus = 9;
    EXPECT_EQ(create("Some long name"), came_to(2));
    EXPECT_EQ(v.chain_from(5), (std::vector<u32>{5, 10}));
    EXPECT_EQ(mounted::record(inside_id).last, 10U);
    EXPECT_EQ(mounted::record(inside_id).allocated, 4096U);
    const directory grown(&v, {5, 10}, false);
    EXPECT_EQ(grown.at(63), long_slots(u"Some long name", "SOMELO~1   ")[0]);
    EXPECT_EQ(grown.at(64), long_slots(u"Some long name", "SOMELO~1   ")[1]);
    EXPECT_EQ(grown.at(65), new_entry("SOMELO~1   ", 0, LOWER));
    EXPECT_EQ(grown.at(66), entry_image{});
}

TEST_F(CreateFile, FullDirectoryOnAFullVolumeHasNoRoom) {
    enter_directory({5}).fill_up(short_entry("OTHER      "));
    v.fill_but({});
    v.disk.log.clear();
    EXPECT_EQ(create("a"),
              came_to(-ENOSPC, "get_dentry_with_clu[N]: Failed to get entry sector!:(5, 64)\n\n"
                               "fat_alloc_cluster[N]: No space left on volume!!\n"
                               "fat_extend_dir[N]: Failed to allocate cluster!\n\n"
                               "fat_find_empty_entries[N]: Check Here!\n\n"));
    EXPECT_TRUE(nothing_written());
}

TEST_F(CreateOnFat32, RootGrowsForEveryRecordOfIt) {
    for (int i = 0; i < 40; i++) {
        ASSERT_GT(create((i % 2 == 0 ? "./file" : "file") + std::to_string(i)).result, 0) << i;
    }
    EXPECT_EQ(sv->root_dir->allocated, 3U * 512);
    const directory root(&v, v.chain_from(sv->root_clus), true);
    ASSERT_EQ(root.clusters.size(), 3U);
    for (u32 i = 0; i < 40; i++) {
        std::string dos = "FILE" + std::to_string(i);
        dos.resize(11, ' ');
        EXPECT_EQ(root.at(FIRST + i), new_entry(dos, 0, 0x08));
    }
}

// The result is the same for any reason that no slots were found.
TEST_F(CreateFile, DirectoryThatCannotBeReadAnyMoreHasNoRoom) {
    v.top.go_to(1);
    while (v.top.append(short_entry("FILE       ")) % 16 != 14) {
    }
    v.disk.reads_before_failure = 1; // of the lookup; the slots continue in the next sector
    EXPECT_EQ(create("A long name of three slots"),
              came_to(-ENOSPC, "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                                   std::to_string(sv->rdir_start + 1) +
                                   ")\n"
                                   "fat_find_empty_entries[N]: Check Here!\n\n"));
    v.disk.reads_before_failure = 0;
    EXPECT_EQ(create("a"), came_to(-EIO, "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                                             std::to_string(sv->rdir_start) +
                                             ")\n"
                                             "find_dentry_with_clu[N]: fail to get dentry(0, "
                                             "0):Input/output error\n"));
}

TEST_F(CreateFile, SweepsItsDirectoryOnce) {
    for (int i = 0; i < 80; i++) {
        fat_close(fat_create_file(("A long name, number " + std::to_string(i)).c_str()));
    }
    v.disk.log.clear();
    ASSERT_GT(fat_create_file("A long name, number 80"), 0);
    for (const auto &[sector, times] : v.sectors_read()) {
        EXPECT_EQ(times, 1) << "sector " << sector;
    }
}

TEST_F(CreateFile, EntryIsThereThoughAllIdsAreGivenOut) {
    v.top.go_to(1);
    const u32 index = v.top.append(short_entry("FILE       "));
    while (v.open(index) < 511) {
    }
    EXPECT_EQ(create("a"), came_to(-EMFILE, "register_oentry[N]: Too many open files\n"));
    EXPECT_EQ(v.top.at(2), new_entry("A          ", 0, 0x08));
    fat_close(7);
    EXPECT_EQ(create("b"), came_to(7));
}

// ---- after a failure --------------------------------------------------------------------------

TEST_F(MakeDirectory, EntryThatCannotBeWrittenLeavesItsClusterAllocated) {
    sv->last_alloc_clus = 9;
    v.disk.unwritable = {v.top.sectors[0]};
    for (const int failure : {-EIO, -EACCES}) {
        v.disk.failure_result = failure;
        EXPECT_EQ(make_dir("a"), came_to(failure, "build_entry[N]: Check here!\n\n"));
    }
    EXPECT_EQ(v.value_of(10), volume::end_mark());
    EXPECT_EQ(v.value_of(11), volume::end_mark());
    EXPECT_EQ(v.data_of({10}), bytes(2048, 0));
    EXPECT_EQ(v.top.at(FIRST), entry_image{});
    EXPECT_EQ(mounted::open_ids(), 1);
}

TEST_F(MakeDirectory, DotsThatCannotBeWrittenLeaveADirectoryWithoutThem) {
    sv->last_alloc_clus = 9;
    v.disk.writes_before_failure = 1 + 4 + 1;
    EXPECT_EQ(make_dir("a"), came_to(-EIO, "init_directory[N]: Check here!\n\n"));
    EXPECT_EQ(v.top.at(FIRST), new_entry("A          ", DIRECTORY, 0x08, 10));
    EXPECT_EQ(v.value_of(10), volume::end_mark());
    EXPECT_EQ(v.data_of({10}), bytes(2048, 0));
    EXPECT_EQ(mounted::open_ids(), 1);
}

TEST_F(MakeDirectory, ClusterThatCannotBeClearedIsFreedAgain) {
    sv->last_alloc_clus = 9;
    v.disk.unwritable = {volume::first_sector_of(10) + 2};
    const bytes fat = v.fat_copy(0);
    EXPECT_EQ(make_dir("a"), came_to(-EIO, "clear_cluster[N]: cannot write cluster(#10)\n"));
    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(sv->last_alloc_clus, 10U);
    EXPECT_EQ(v.top.at(FIRST), entry_image{});
}

TEST_F(CreateFile, EntryThatCannotBeWrittenIsTheErrorOfTheTransfer) {
    v.disk.unwritable = {v.top.sectors[0]};
    v.disk.failure_result = -EROFS;
    EXPECT_EQ(create("Some long name"), came_to(-EROFS, "build_entry[N]: Check here!\n\n"));
    EXPECT_EQ(create("a"), came_to(-EROFS, "build_entry[N]: Check here!\n\n"));
}

// ---- creating in an open directory ------------------------------------------------------------

TEST_F(DoCreate, ResultIsTheIndexOfTheShortEntry) {
    char short_name[] = "a";
    char long_name[] = "Some long name";
    EXPECT_EQ(do_create(sv->root_dir, short_name, DENTRY_FILE), 1);
    EXPECT_EQ(do_create(sv->root_dir, long_name, DENTRY_DIR), 4);
    EXPECT_EQ(do_create(sv->root_dir, long_name, DENTRY_FILE), -EEXIST);
    EXPECT_EQ(messages.text(), found(0, 4));
    EXPECT_EQ(mounted::open_ids(), 1);
}

TEST_F(DoCreate, DirectoryWithAnInvalidEntryIsRefused) {
    enter_directory({5});
    oentry &dir = mounted::record(inside_id);
    for (const auto &[first, attr] : std::initializer_list<std::pair<unsigned, unsigned>>{
             {0xE5, 0x10}, {0x00, 0x10}, {'D', 0x00}, {'D', 0x20}, {'D', 0x08}, {'D', 0x18}}) {
        dir.dentry[0] = static_cast<u8>(first);
        dir.dentry[11] = static_cast<u8>(attr);
        EXPECT_EQ(create("a"), came_to(-EINVAL, "do_create[N]: not directory entry\n"));
    }
    EXPECT_TRUE(v.disk.log.empty());
    dir.dentry[11] = 0x37;
    EXPECT_EQ(create("a"), came_to(2));
}

TEST_F(DoCreate, OnlyDirectoriesAndLinksBeginWithACluster) {
    sv->last_alloc_clus = 9;
    char names[3][2] = {"a", "b", "c"};
    EXPECT_EQ(do_create(sv->root_dir, names[0], DENTRY_FILE), 1);
    EXPECT_EQ(do_create(sv->root_dir, names[1], DENTRY_DIR), 2);
    EXPECT_EQ(do_create(sv->root_dir, names[2], KIND_SYMLINK), 3);
    EXPECT_EQ(start_of(v.top.at(1)), 0U);
    EXPECT_EQ(start_of(v.top.at(2)), 10U);
    EXPECT_EQ(start_of(v.top.at(3)), 11U);
    EXPECT_EQ(v.data_of({11}), bytes(2048, 0));
}

TEST_F(DoCreate, UnknownKindIsRefusedAndWritesNothing) {
    char name[] = "a";
    v.disk.log.clear();
    EXPECT_EQ(do_create(sv->root_dir, name, 5), -EINVAL);
    EXPECT_EQ(messages.text(),
              "set_entry_value[N]: Check Here!\n\nbuild_entry[N]: Check here!\n\n");
    EXPECT_TRUE(nothing_written());
}

TEST_F(DoCreate, InternalCallChangesItsPathInPlace) {
    char path[] = "/./name.txt. . ";
    EXPECT_EQ(create_internal(path, DENTRY_FILE), 1);
    EXPECT_STREQ(path, "/./name.txt");
}
