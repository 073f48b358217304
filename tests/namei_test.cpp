// Paths: splitting them, the directory of their last name, the form in which callers store them.

#include "tests/support/open_entries.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

std::string check_here(const std::string &function) {
    return function + "[N]: Check here!\n\n";
}

// A path in a block of just its size, as a caller holds it.
class caller_path {
public:
    explicit caller_path(const std::string &text) : text_(text), block_(text.begin(), text.end()) {
        block_.push_back('\0');
        block_.shrink_to_fit();
    }
    [[nodiscard]] char *get() {
        return block_.data();
    }
    [[nodiscard]] bool is_as_it_was() const {
        return block_.data() == text_;
    }

private:
    std::string text_;
    std::vector<char> block_;
};

// ---- splitting --------------------------------------------------------------------------------

// A path taken apart.
struct parts {
    int result = 0;
    std::vector<std::string> parents = {};
    std::string name = {};
    bool operator==(const parts &) const = default;
};
std::ostream &operator<<(std::ostream &out, const parts &p) {
    out << p.result << ",";
    for (const std::string &parent : p.parents) {
        out << " " << std::quoted(parent);
    }
    return out << " : " << std::quoted(p.name);
}

parts split(const std::string &text) {
    caller_path path(text);
    fat_path rec = {};
    char *name = nullptr;
    int depth = -1;
    parts result;
    result.result = resolve_path(path.get(), &rec, &name, &depth);
    EXPECT_TRUE(path.is_as_it_was()) << text;
    if (result.result != 0) {
        EXPECT_EQ(rec.path, nullptr);
        return result;
    }
    EXPECT_EQ(rec.depth, depth);
    EXPECT_EQ(rec.name, name);
    for (int i = 0; i < depth; i++) {
        const char *component = rec.path[i];
        EXPECT_GE(component, path.get());
        EXPECT_LE(component, name);
        result.parents.emplace_back(component, std::strcspn(component, "/"));
    }
    result.name = name;
    std::free(rec.path);
    return result;
}

// The same: the reference model.
parts reference_split(std::string text) {
    text.erase(0, std::min(text.find_first_not_of('/'), text.size()));
    parts result;
    for (std::size_t slash = text.find('/'); slash != std::string::npos; slash = text.find('/')) {
        result.parents.push_back(text.substr(0, slash));
        text.erase(0, slash + 1);
    }
    result.name = text;
    return result;
}

// All strings of up to `longest` characters of an alphabet.
std::vector<std::string> all_strings(const std::string &alphabet, std::size_t longest) {
    std::vector<std::string> result = {""};
    for (std::size_t i = 0; i < result.size(); i++) {
        if (result[i].size() == longest) {
            break;
        }
        for (const char c : alphabet) {
            result.push_back(result[i] + c);
        }
    }
    return result;
}

// ---- lookup -----------------------------------------------------------------------------------

const std::string BAD_CHAIN = "fat_count_clusters[N]: Failed to read cluster!\n\n";
const std::string FORBIDDEN = "\\:*?\"<>|";
const std::vector<std::string> DEVICES = {"AUX",  "CON",  "NUL",  "PRN",  "COM1", "COM2",
                                          "COM3", "COM4", "LPT1", "LPT2", "LPT3", "LPT4"};

// Which directory a lookup gave.
enum class place { ROOT, CURRENT, OWN_RECORD, NONE };

class PathLookup : public tree_test {
protected:
    PathLookup() : tree_test(GetParam()) {}

    struct lookup {
        answer messages;
        place directory;
        std::string name;
        bool operator==(const lookup &) const = default;
    };
    friend std::ostream &operator<<(std::ostream &out, const lookup &l) {
        return out << l.messages << ", directory " << static_cast<int>(l.directory) << ", name "
                   << std::quoted(l.name);
    }
    // A record made by the lookup is shown to `look` and freed.
    template <typename Look>
    lookup look_up(const std::string &text, Look look) {
        caller_path path(text);
        oentry untouched = {};
        oentry *dir = &untouched;
        char *name = nullptr;
        const allocation_meter meter;
        lookup result{};
        result.messages = ask([&] { return fat_path_lookup(path.get(), &dir, &name); });
        result.name = name != nullptr ? name : "(none)";
        EXPECT_TRUE(path.is_as_it_was()) << text;
        if (dir == &untouched) {
            result.directory = place::NONE;
        } else if (dir == sv->current_dir) {
            result.directory = place::CURRENT;
        } else if (dir == sv->root_dir) {
            result.directory = place::ROOT;
        } else {
            result.directory = place::OWN_RECORD;
            look(*dir);
            free_oentry(dir);
        }
        EXPECT_EQ(meter.live_blocks(), 0) << text;
        return result;
    }
    lookup look_up(const std::string &text) {
        return look_up(text, [](const oentry &) {});
    }
    // A directory that the lookup made its own record of.
    record_picture own_record(const std::string &text) {
        record_picture result;
        const lookup l = look_up(text, [&](const oentry &dir) { result = picture_of(dir); });
        EXPECT_EQ(l.messages, (answer{0, ""})) << text;
        EXPECT_EQ(l.directory, place::OWN_RECORD) << text;
        return result;
    }

    static lookup found_in(place directory, const std::string &name) {
        return {{0, ""}, directory, name};
    }
    static lookup refused(const std::string &name) {
        return {{-EINVAL, check_here("verify_valid_name") + check_here("fat_path_lookup") +
                              "wrong file name: " + name + "\n"},
                place::NONE,
                name};
    }

    void enter(const char *path) {
        const int id = fat_open_dir(path);
        ASSERT_GT(id, 0);
        ASSERT_EQ(fat_set_current(id), id);
    }
};
INSTANTIATE_TEST_SUITE_P(Widths, PathLookup, testing::ValuesIn(TREE_SHAPES), shape_name);

// ---- storing a path ---------------------------------------------------------------------------

struct kept {
    answer messages;
    std::string text; // up to the terminator that the caller's block ends with
    bool operator==(const kept &) const = default;
};
std::ostream &operator<<(std::ostream &out, const kept &k) {
    return out << k.messages << ", " << std::quoted(k.text);
}

constexpr std::size_t ROOM = 260;

// Into a block of 261 zeroed bytes.
kept keep(const std::string &path) {
    diagnostics messages;
    std::vector<char> out(ROOM + 1);
    out.shrink_to_fit();
    kept result{};
    result.messages.result = fat_get_name(path.c_str(), out.data());
    result.messages.messages = messages.text();
    result.text = out.data();
    return result;
}

} // namespace

// ---- splitting --------------------------------------------------------------------------------

TEST(ResolvePath, NameAloneHasNoParents) {
    EXPECT_EQ(split("name"), (parts{0, {}, "name"}));
    EXPECT_EQ(split("/name"), (parts{0, {}, "name"}));
    EXPECT_EQ(split("///name"), (parts{0, {}, "name"}));
    EXPECT_EQ(split("."), (parts{0, {}, "."}));
    EXPECT_EQ(split(".."), (parts{0, {}, ".."}));
}

TEST(ResolvePath, ParentsAreInTheirOrder) {
    EXPECT_EQ(split("a/name"), (parts{0, {"a"}, "name"}));
    EXPECT_EQ(split("a/bc/def/name"), (parts{0, {"a", "bc", "def"}, "name"}));
    EXPECT_EQ(split("./.././name"), (parts{0, {".", "..", "."}, "name"}));
}

TEST(ResolvePath, EmptyPathHasAnEmptyNameAndDepthZero) {
    EXPECT_EQ(split(""), (parts{0, {}, ""}));
    EXPECT_EQ(split("/"), (parts{0, {}, ""}));
    EXPECT_EQ(split("////"), (parts{0, {}, ""}));
}

TEST(ResolvePath, TrailingSlashMakesAnEmptyName) {
    EXPECT_EQ(split("a/"), (parts{0, {"a"}, ""}));
    EXPECT_EQ(split("a/b/"), (parts{0, {"a", "b"}, ""}));
    EXPECT_EQ(split("a///"), (parts{0, {"a", "", ""}, ""}));
}

TEST(ResolvePath, SlashesInARowMakeEmptyParents) {
    EXPECT_EQ(split("a//b"), (parts{0, {"a", ""}, "b"}));
    EXPECT_EQ(split("a///b/c"), (parts{0, {"a", "", "", "b"}, "c"}));
}

TEST(ResolvePath, EveryShortPath) {
    for (const std::string &path : all_strings("/ab", 8)) {
        EXPECT_EQ(split(path), reference_split(path)) << path;
    }
}

TEST(ResolvePath, UpTo1024ComponentsAndNoMore) {
    std::string path;
    parts expected;
    for (int i = 0; i < 1023; i++) {
        const std::string parent = std::to_string(i);
        path += parent + "/";
        expected.parents.push_back(parent);
    }
    expected.name = "name";
    EXPECT_EQ(split(path + "name"), expected);
    diagnostics messages;
    const allocation_meter meter;
    EXPECT_EQ(split(path + "a/name"), (parts{-ENAMETOOLONG}));
    EXPECT_EQ(messages.text(), check_here("resolve_path"));
    EXPECT_EQ(split(std::string(5000, 'a') + std::string(100000, '/')), (parts{-ENAMETOOLONG}));
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST(ResolvePath, ComponentsOfAnyLength) {
    const std::string a(3000, 'a');
    const std::string b(2000, 'b');
    EXPECT_EQ(split(a + "/" + b), (parts{0, {a}, b}));
}

// ---- lookup: the start directory --------------------------------------------------------------

TEST_P(PathLookup, NameAloneLiesInTheStartDirectory) {
    v.disk.log.clear();
    EXPECT_EQ(look_up("name"), found_in(place::CURRENT, "name"));
    ASSERT_NO_FATAL_FAILURE(enter("SUB"));
    v.disk.log.clear();
    EXPECT_EQ(look_up("name"), found_in(place::CURRENT, "name"));
    EXPECT_EQ(look_up("/name"), found_in(place::ROOT, "name"));
    EXPECT_EQ(look_up("///name"), found_in(place::ROOT, "name"));
    EXPECT_EQ(look_up("."), found_in(place::CURRENT, "."));
    EXPECT_EQ(look_up("/.."), found_in(place::ROOT, ".."));
    EXPECT_TRUE(v.disk.log.empty()); // the name itself is not looked for
}

TEST_P(PathLookup, EmptyNameIsTheStartDirectoryWithNoName) {
    ASSERT_NO_FATAL_FAILURE(enter("SUB"));
    EXPECT_EQ(look_up(""), found_in(place::CURRENT, ""));
    EXPECT_EQ(look_up("/"), found_in(place::ROOT, ""));
    EXPECT_EQ(look_up("//"), found_in(place::ROOT, ""));
}

TEST_P(PathLookup, RootAndCurrentDirectoryMustBothBeOpen) {
    oentry *root = sv->root_dir;
    const lookup not_set_up{
        {-EFAULT, "fat_path_lookup[N]: current directory isn't setup\n"}, place::NONE, "(none)"};
    for (const char *path : {"", "/", "name", "/name", "./name", "CON"}) {
        sv->current_dir = nullptr;
        EXPECT_EQ(look_up(path), not_set_up);
        sv->current_dir = root;
        fat_super saved = *sv;
        sv->root_dir = nullptr;
        EXPECT_EQ(fat_path_lookup(caller_path(path).get(), &root, nullptr), -EFAULT);
        *sv = saved;
    }
}

// ---- lookup: the name -------------------------------------------------------------------------

TEST_P(PathLookup, ForbiddenCharactersAreRefused) {
    for (const char c : FORBIDDEN) {
        for (const std::string &name :
             {std::string(1, c), c + std::string("name"), std::string("name") + c,
              std::string("na") + c + "me.txt"}) {
            EXPECT_EQ(look_up(name), refused(name));
            EXPECT_EQ(look_up("/" + name), refused(name));
            EXPECT_EQ(look_up("./" + name), refused(name));
        }
    }
}

TEST_P(PathLookup, DeviceNamesAreRefused) {
    for (std::string name : DEVICES) {
        EXPECT_EQ(look_up(name), refused(name));
        EXPECT_EQ(look_up("././" + name), refused(name));
        for (const char *accepted : {"x", ".", ".txt", "     x.", "."}) {
            const std::string longer = name + accepted;
            // Only spaces may follow it among the first eight characters.
            const bool is_device =
                (longer + "        ").substr(0, 8) == (name + "        ").substr(0, 8);
            EXPECT_EQ(look_up(longer),
                      is_device ? refused(longer) : found_in(place::CURRENT, longer));
        }
        EXPECT_EQ(look_up(name + "   "), refused(name + "   "));
        EXPECT_EQ(look_up(" " + name), found_in(place::CURRENT, " " + name));
        name[0] = static_cast<char>(name[0] + 'a' - 'A');
        EXPECT_EQ(look_up(name), refused(name));
    }
}

TEST_P(PathLookup, NameIsCheckedBeforeAnyParentIsLookedFor) {
    v.disk.log.clear();
    for (const char *path : {"MISSING/CON", "SUB/CON", "../CON", "SUB//CON"}) {
        EXPECT_EQ(look_up(path), refused("CON")) << path;
    }
    EXPECT_TRUE(v.disk.log.empty());
}

// ---- lookup: parents that stay ----------------------------------------------------------------

TEST_P(PathLookup, DotParentsGiveARecordOfTheRoot) {
    oentry_table[0]->ref_count = 5;
    oentry_table[0]->pos = 6;
    for (const char *path :
         {"./name", "././name", "/./name", "//./././name", "./", "./.", "/./.."}) {
        EXPECT_EQ(own_record(path), tree::opened_root()) << path;
    }
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    EXPECT_EQ(look_up("././name").name, "name");
    EXPECT_EQ(look_up("./").name, "");
}

TEST_P(PathLookup, DotParentsGiveARecordOfTheCurrentDirectory) {
    ASSERT_NO_FATAL_FAILURE(enter("SUB"));
    oentry *current = sv->current_dir;
    current->pos = 6;
    const record_picture expected = tree::opened(v.root_space, v.sub, {20, 22}, "");
    u8 *const image = current->dentry;
    for (const char *path : {"./name", "././name", "./"}) {
        EXPECT_EQ(own_record(path), expected) << path;
    }
    EXPECT_EQ(look_up("./name", [&](const oentry &dir) { EXPECT_NE(dir.dentry, image); }).messages,
              (answer{0, ""}));
    EXPECT_EQ(own_record("/./name"), tree::opened_root());
    EXPECT_EQ(ids_in_use(), (std::vector<int>{0, 1}));
    EXPECT_EQ(current->ref_count, 2U);
}

TEST_P(PathLookup, RecordOfADirectoryWhoseChainBroke) {
    ASSERT_NO_FATAL_FAILURE(enter("SUB"));
    v.set_link(22, 1);
    EXPECT_EQ(look_up("./name"),
              (lookup{{-EINVAL, "fat_read_clus[N]: Invalid cluster!\n\n" + BAD_CHAIN},
                      place::NONE,
                      "name"}));
    v.set_link(22, 20);
    EXPECT_EQ(look_up("./name"), (lookup{{-EINVAL, BAD_CHAIN}, place::NONE, "name"}));
    EXPECT_EQ(look_up("name"), found_in(place::CURRENT, "name"));
}

// Its entries must not be taken for those of the root, as which a record without an image counts.
TEST_P(PathLookup, NoRecordOfADirectoryThatHasBeenRemoved) {
    ASSERT_NO_FATAL_FAILURE(enter("SUB"));
    v.set_link(20, 0);
    EXPECT_EQ(look_up("./name"), (lookup{{-ENOENT, ""}, place::NONE, "name"}));
    EXPECT_EQ(look_up("././name"), (lookup{{-ENOENT, ""}, place::NONE, "name"}));
    EXPECT_EQ(own_record("/./name"), tree::opened_root());
}

// ---- lookup: parents elsewhere ----------------------------------------------------------------

TEST_P(PathLookup, ParentThatExistsGivesNoDirectory) {
    const answer found{0, found_at(v.root_base(), v.sub)};
    for (const char *path :
         {"SUB/name", "/SUB/name", "./SUB/name", "/././SUB/name", "sub/name", "SUB  /name",
          "SUB../name", "SUB/DEEP/name", "SUB/MISSING/name", "SUB//name", "SUB/../name"}) {
        EXPECT_EQ(look_up(path), (lookup{found, place::NONE, "name"})) << path;
    }
    EXPECT_EQ(look_up("SUB/"), (lookup{found, place::NONE, ""}));
    // A file is accepted as well: its type is not checked.
    EXPECT_EQ(look_up("FILE.TXT/name"),
              (lookup{{0, found_at(v.root_base(), v.file)}, place::NONE, "name"}));
    EXPECT_EQ(look_up("A Long Name.txt/name"),
              (lookup{{0, found_at(v.root_base(), v.long_named)}, place::NONE, "name"}));
}

TEST_P(PathLookup, ParentIsLookedForInTheStartDirectory) {
    ASSERT_NO_FATAL_FAILURE(enter("SUB"));
    EXPECT_EQ(look_up("DEEP/name"), (lookup{{0, found_at(20, v.deep)}, place::NONE, "name"}));
    EXPECT_EQ(look_up("./DEEP/name"), (lookup{{0, found_at(20, v.deep)}, place::NONE, "name"}));
    EXPECT_EQ(look_up("/DEEP/name"), (lookup{{-ENOENT, ""}, place::NONE, "name"}));
    EXPECT_EQ(look_up("/SUB/name"),
              (lookup{{0, found_at(v.root_base(), v.sub)}, place::NONE, "name"}));
}

TEST_P(PathLookup, ParentThatIsMissing) {
    for (const char *path : {"MISSING/name", "/MISSING/name", "././MISSING/name",
                             "MISSING/SUB/name", "CON/name", "a*b/name", "a long name.txt/name"}) {
        EXPECT_EQ(look_up(path), (lookup{{-ENOENT, ""}, place::NONE, "name"})) << path;
    }
}

TEST_P(PathLookup, DotDotParentIsAlwaysEntryOne) {
    for (const char *path : {"../name", "/../name", "./../name", "../MISSING/name", "../../name"}) {
        v.disk.log.clear();
        EXPECT_EQ(look_up(path), (lookup{{0, ""}, place::NONE, "name"})) << path;
        EXPECT_EQ(v.disk.log, (std::vector<transfer>{{false, v.root_space.sectors[0], 1}}));
    }
    ASSERT_NO_FATAL_FAILURE(enter("SUB"));
    v.disk.log.clear();
    EXPECT_EQ(look_up("../name"), (lookup{{0, ""}, place::NONE, "name"}));
    EXPECT_EQ(v.disk.log, (std::vector<transfer>{{false, v.sub_space.sectors[0], 1}}));
}

TEST_P(PathLookup, EmptyParentIsNoName) {
    const auto no_name = [](const std::string &component) {
        return answer{-EINVAL, "convert_cstring_to_dosname[N]: zero length string!\n\n"
                               "convert_name[N]: invalid name in DOS:" +
                                   component +
                                   "\nfind_dentry_with_clu[N]: Failed to get fatnames!\n\n"};
    };
    EXPECT_EQ(look_up(".//name"), (lookup{no_name(""), place::NONE, "name"}));
    EXPECT_EQ(look_up("./././//SUB/name"), (lookup{no_name(""), place::NONE, "name"}));
    EXPECT_EQ(look_up(".../name"), (lookup{no_name("..."), place::NONE, "name"}));
    EXPECT_EQ(look_up(" /name"), (lookup{no_name(" "), place::NONE, "name"}));
}

TEST_P(PathLookup, ParentIsLookedForByIts255FirstCharacters) {
    v.root_space.append_long(std::u16string(255, u'x'), "XXXXXX~1   ");
    const std::string parent(255, 'x');
    const auto result_of = [&](const std::string &path) { return look_up(path).messages.result; };
    EXPECT_EQ(result_of(parent + "/name"), 0);
    EXPECT_EQ(result_of(parent + std::string(100, 'y') + "/name"), 0);
    EXPECT_EQ(result_of(parent.substr(1) + "/name"), -ENOENT);
    EXPECT_EQ(result_of(parent.substr(1) + "y/name"), -ENOENT);
    // Text after the 255th character does not protect the spaces before it.
    v.root_space.append_long(std::u16string(250, u'z'), "ZZZZZZ~1   ");
    EXPECT_EQ(result_of(std::string(250, 'z') + "     y/name"), 0);
    EXPECT_EQ(result_of(std::string(250, 'z') + "    y/name"), -ENOENT);
    sv->long_name = 0;
    v.root_space.append(short_entry("YYYYYYYY   "));
    EXPECT_EQ(result_of(std::string(5000, 'y') + "/name"), 0);
}

TEST_P(PathLookup, TooManyParents) {
    std::string path;
    for (int i = 0; i < 1026; i++) {
        path += "./";
    }
    EXPECT_EQ(look_up(path + "name"),
              (lookup{{-ENAMETOOLONG, check_here("resolve_path") + check_here("fat_path_lookup")},
                      place::NONE,
                      "(none)"}));
    EXPECT_EQ(own_record(path.substr(6) + "name"), tree::opened_root()); // 1023
}

// Over an alphabet that makes dots, empty parents and the one name of the directory.
TEST_P(PathLookup, EveryShortPath) {
    v.sub_space.append(short_entry("A          "));
    v.root_space.append(short_entry("A          "));
    ASSERT_NO_FATAL_FAILURE(enter("SUB"));
    for (const std::string &path : all_strings("/.a", 7)) {
        const parts p = reference_split(path);
        const bool from_root = path[0] == '/';
        const auto leads_away = [](const std::string &parent) { return parent != "."; };
        const auto first = std::find_if(p.parents.begin(), p.parents.end(), leads_away);
        int result = 0;
        place directory = place::NONE;
        if (p.parents.empty()) {
            directory = from_root ? place::ROOT : place::CURRENT;
        } else if (first == p.parents.end()) {
            directory = place::OWN_RECORD;
        } else if (*first != "..") {
            // "a", "a." and so on find the entry; dots alone are no name.
            const std::size_t end = first->find_last_not_of('.');
            const bool is_name = end != std::string::npos;
            result = is_name ? (first->substr(0, end + 1) == "a" ? 0 : -ENOENT) : -EINVAL;
        }
        u32 start = 0;
        const lookup l = look_up(path, [&](const oentry &dir) { start = dir.start; });
        EXPECT_EQ(l.messages.result, result) << path;
        EXPECT_EQ(l.directory, directory) << path;
        EXPECT_EQ(l.name, p.name) << path;
        if (directory == place::OWN_RECORD) {
            EXPECT_EQ(start, (from_root ? sv->root_dir : sv->current_dir)->start) << path;
        }
    }
}

// ---- lookup: failures -------------------------------------------------------------------------

TEST_P(PathLookup, EachAllocationThatFails) {
    ASSERT_NO_FATAL_FAILURE(enter("SUB"));
    oentry *dir = nullptr;
    char *name = nullptr;
    const auto look = [&](const char *path) {
        return [&dir, &name, path] {
            dir = nullptr;
            return fat_path_lookup(caller_path(path).get(), &dir, &name);
        };
    };
    const auto free_it = [&](int) {
        if (dir != sv->current_dir) {
            free_oentry(dir);
        }
    };
    const auto without_memory = [&](fault_step &step) { EXPECT_EQ(step.run(look("name")), 0); };
    EXPECT_EQ(at_any_fault(EVERY_ALLOCATION, without_memory), 0);
    EXPECT_EQ(
        answers_under(EVERY_ALLOCATION, look("./name"), free_it),
        (std::vector<answer>{{-ENOMEM, ""},
                             {-ENOMEM, "fat_set_oentry[N]: cannot allocate memory\n"},
                             {-EINVAL, "fat_read_entry[N]: cannot allocate FAT\n\n" + BAD_CHAIN},
                             {0, ""}}));
    const std::string no_memory = "find_dentry_with_clu[N]: Failed to allocate memory!\n\n";
    const std::string found = found_at(20, v.deep);
    EXPECT_EQ(
        answers_under(EVERY_ALLOCATION, look("DEEP/name"), free_it),
        (std::vector<answer>{{-ENOMEM, no_memory},
                             {-ENOMEM, "convert_name[N]: cannot allocate space\n"
                                       "find_dentry_with_clu[N]: Failed to get fatnames!\n\n"},
                             {-ENOMEM, no_memory},
                             {-ENOMEM, found + check_here("fat_path_lookup")},
                             {0, found}}));
    EXPECT_EQ(answers_under(EVERY_ALLOCATION, look("../name"), free_it),
              (std::vector<answer>{{-ENOMEM, check_here("fat_path_lookup")}, {0, ""}}));
}

TEST_P(PathLookup, EachReadThatFails) {
    oentry *dir = nullptr;
    char *name = nullptr;
    const auto look = [&](const char *path) {
        return [&dir, &name, path] {
            dir = nullptr;
            return fat_path_lookup(caller_path(path).get(), &dir, &name);
        };
    };
    const auto free_it = [&](int) { free_oentry(dir != sv->root_dir ? dir : nullptr); };
    const std::string no_sector = "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                                  std::to_string(v.root_space.sectors[0]) + ")\n";
    const std::string base = std::to_string(v.root_base());
    const std::string found = found_at(v.root_base(), v.sub);
    expect_no_read(look("name"), free_it);
    EXPECT_EQ(answers_under(EVERY_READ, look("SUB/name"), free_it),
              (std::vector<answer>{
                  {-EIO, no_sector + "find_dentry_with_clu[N]: fail to get dentry(" + base +
                             ", 0):Input/output error\n"},
                  {-EIO, found + no_sector + "fat_path_lookup[N]: fail to get dentry(" + base +
                             ", " + std::to_string(v.sub) + "):Input/output error\n"},
                  {0, found}}));
    EXPECT_EQ(answers_under(EVERY_READ, look("../name"), free_it),
              (std::vector<answer>{{-EIO, no_sector + "fat_path_lookup[N]: fail to get dentry(" +
                                              base + ", 1):Input/output error\n"},
                                   {0, ""}}));
    if (sv->fat_type == 16) {
        expect_no_read(look("./name"), free_it);
        return;
    }
    EXPECT_EQ(answers_under(EVERY_READ, look("./name"), free_it),
              (std::vector<answer>{{-EINVAL, "fat_read_entry[N]: cannot read FAT\n\n" + BAD_CHAIN},
                                   {0, ""}}));
}

TEST_P(PathLookup, ParentThatIsTheFirstEntryIsReadLikeAnyOther) {
    v.root_space.put(0, short_entry("FIRST      ", DIRECTORY, 20));
    EXPECT_EQ(look_up("FIRST/name"),
              (lookup{{0, found_at(v.root_base(), 0)}, place::NONE, "name"}));
    v.disk.reads_before_failure = 1;
    EXPECT_EQ(look_up("FIRST/name").messages.result, -EIO);
}

TEST_P(PathLookup, StartDirectoryOutsideTheVolume) {
    ASSERT_NO_FATAL_FAILURE(enter("SUB"));
    sv->current_dir->start = volume::last_cluster() + 1;
    const std::string base = std::to_string(sv->current_dir->start);
    const std::string reason = "get_phy_sector[N]: NULL pointer or invalid xxx!\n\n"
                               "get_dentry_with_clu[N]: Failed to get entry sector!:(" +
                               base + ", ";
    EXPECT_EQ(look_up("../name"),
              (lookup{{-EINVAL, reason + "1)\n\nfat_path_lookup[N]: fail to get dentry(" + base +
                                    ", 1):Invalid argument\n"},
                      place::NONE,
                      "name"}));
    EXPECT_EQ(look_up("DEEP/name"),
              (lookup{{-EINVAL, reason + "0)\n\nfind_dentry_with_clu[N]: fail to get dentry(" +
                                    base + ", 0):Invalid argument\n"},
                      place::NONE,
                      "name"}));
}

// ---- storing a path ---------------------------------------------------------------------------

TEST(GetName, PathOfUpTo260CharactersIsStored) {
    for (std::size_t length = 0; length <= ROOM; length++) {
        const std::string path(length, 'a');
        EXPECT_EQ(keep(path), (kept{{static_cast<int>(length), ""}, path}));
    }
}

TEST(GetName, LongerPathIsRefusedAndNothingWritten) {
    for (const std::size_t length : {261U, 262U, 300U, 5000U}) {
        for (const char c : {'a', '/'}) {
            EXPECT_EQ(keep(std::string(length, c)),
                      (kept{{-ENAMETOOLONG, check_here("fat_get_name")}, ""}));
        }
    }
}

TEST(GetName, TrailingSlashesAreCutOff) {
    EXPECT_EQ(keep("dir/"), (kept{{3, ""}, "dir"}));
    EXPECT_EQ(keep("dir///"), (kept{{3, ""}, "dir"}));
    EXPECT_EQ(keep("/a//b/"), (kept{{5, ""}, "/a//b"}));
    EXPECT_EQ(keep("//a"), (kept{{3, ""}, "//a"}));
    EXPECT_EQ(keep("a/ /"), (kept{{3, ""}, "a/ "}));
    EXPECT_EQ(keep("./"), (kept{{1, ""}, "."}));
    EXPECT_EQ(keep("a" + std::string(259, '/')), (kept{{1, ""}, "a"}));
    EXPECT_EQ(keep(std::string(259, 'a') + "/"), (kept{{259, ""}, std::string(259, 'a')}));
    EXPECT_EQ(keep("a" + std::string(260, '/')),
              (kept{{-ENAMETOOLONG, check_here("fat_get_name")}, ""}));
}

TEST(GetName, NothingIsLeftOfSlashes) {
    for (const std::size_t length : {0U, 1U, 2U, 260U}) {
        EXPECT_EQ(keep(std::string(length, '/')), (kept{{0, ""}, ""}));
    }
}

TEST(GetName, The260BytesAreZeroedAndNoMore) {
    for (const std::string path : {"", "a", "dir/", "/"}) {
        std::vector<char> out(ROOM + 1, 'X');
        const int length = fat_get_name(path.c_str(), out.data());
        std::vector<char> expected(ROOM);
        std::copy_n(path.begin(), length, expected.begin());
        expected.push_back('X');
        EXPECT_EQ(out, expected);
    }
}

TEST(GetName, PathOf260CharactersFillsTheBuffer) {
    std::vector<char> out(ROOM, 'X');
    out.shrink_to_fit();
    EXPECT_EQ(fat_get_name(std::string(ROOM, 'a').c_str(), out.data()), static_cast<int>(ROOM));
    EXPECT_EQ(out, std::vector<char>(ROOM, 'a'));
}
