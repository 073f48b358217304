// The manual pages: their options, calls and records are compared with the programs, the header and
// the layout; and their form.

#include "core/layout.h"
#include "tests/support/compile.h"
#include "tests/support/files.h"
#include "tests/support/help.h"
#include "tests/support/mdoc.h"
#include "tests/support/process.h"
#include "tests/support/qvol.h"
#include "tests/support/source_tree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <span>
#include <string>
#include <vector>

using namespace testing_support;

namespace {

using text_set = std::set<std::string>;

const std::vector<std::string> PAGES = {"libquorvel.3", "quorvel-format.5", "quorvel.8", "qvol.1"};
const std::string EVERY_COMMAND = "Options of every command";

// ---- quorvel ----------------------------------------------------------------------------------

// The numbers in the first line of an option's description.
text_set described_numbers(const std::string &option) {
    const std::vector<manual_line> page = manual_page("quorvel.8");
    text_set result;
    for (std::size_t i = 0; i + 1 < page.size(); i++) {
        if (!begins_with(page[i].text, ".It Fl " + option + " ")) {
            continue;
        }
        const std::regex number("[0-9]+");
        const std::string &text = page[i + 1].text;
        for (std::sregex_iterator it(text.begin(), text.end(), number), end; it != end; ++it) {
            result.insert(it->str());
        }
    }
    return result;
}

// ---- qvol -------------------------------------------------------------------------------------

help_text help_of(std::vector<std::string> command) {
    command.insert(command.begin(), qvol_path());
    command.emplace_back("--help");
    return help_of_qvol(command);
}

// The commands that have a part of the page: the parts that are called by one word in lower case.
text_set described_commands() {
    text_set result;
    for (const manual_line &line : manual_page("qvol.1")) {
        if (std::regex_match(line.subsection, std::regex("[a-z]+"))) {
            result.insert(line.subsection);
        }
    }
    return result;
}

// The options that the synopsis of a command names: ".Op Fl lR", ".Op Fl -svg Ar file", ".Fl -dir".
text_set options_of_synopsis(const std::string &command) {
    text_set result;
    for (const manual_line &line : manual_page("qvol.1")) {
        std::smatch match;
        if (line.subsection != command ||
            !std::regex_search(line.text, match, std::regex("^\\.(?:Op )?Fl (-?)([A-Za-z-]+)"))) {
            continue;
        }
        if (match[1].length() > 0) {
            result.insert("--" + match.str(2));
            continue;
        }
        for (const char letter : match.str(2)) {
            result.insert(std::string("-") + letter);
        }
    }
    return result;
}

// ---- the header -------------------------------------------------------------------------------

std::string one_spaced(const std::string &text) {
    std::string result;
    for (const std::string &word : words_of(text)) {
        result += (result.empty() ? "" : " ") + word;
    }
    return result;
}

std::string public_declarations() {
    const std::string header = without_comments(source_text("fat/fat.h"));
    const std::size_t begin = header.find("push(default)");
    return header.substr(begin, header.find("visibility pop") - begin);
}

// The prototypes of the public header, each on one line.
text_set declared_prototypes() {
    const std::string text = public_declarations();
    const std::regex prototype("\n([a-z_0-9]+ [a-z_0-9]+\\([^;{}]*\\));");
    text_set result;
    for (std::sregex_iterator it(text.begin(), text.end(), prototype), end; it != end; ++it) {
        result.insert(one_spaced(it->str(1)));
    }
    return result;
}

// "uint32_t key" and "const char *path" -> "key", "path"; "void" -> nothing.
std::string parameter_name(const std::string &parameter) {
    const std::size_t before = parameter.find_last_of(" *");
    return before == std::string::npos ? "" : parameter.substr(before + 1);
}

// A prototype of the synopsis: ".Ft int" and, on the next line, ".Fn fat_close "int id"".
struct documented_function {
    std::string name;
    std::string prototype;
    std::string call; // the name with the names of its parameters, as list items have them
};

documented_function read_function(const std::string &type, const std::string &line) {
    documented_function function;
    function.name = words_of(line)[1];
    function.call = function.name;
    std::string parameters;
    const std::regex quoted("\"([^\"]*)\"");
    for (std::sregex_iterator it(line.begin(), line.end(), quoted), end; it != end; ++it) {
        parameters += (parameters.empty() ? "" : ", ") + it->str(1);
        const std::string name = parameter_name(it->str(1));
        function.call += name.empty() ? "" : " " + name;
    }
    function.prototype = type + " " + function.name + "(" + parameters + ")";
    return function;
}

std::vector<documented_function> documented_functions() {
    std::vector<documented_function> result;
    std::string type;
    for (const manual_line &line : manual_page("libquorvel.3")) {
        if (line.section == "SYNOPSIS" && begins_with(line.text, ".Ft ")) {
            type = line.text.substr(4);
        } else if (line.section == "SYNOPSIS" && begins_with(line.text, ".Fn ")) {
            result.push_back(read_function(type, line.text));
        }
    }
    return result;
}

// Names of the members of the public records.
text_set declared_members() {
    const std::string text = public_declarations();
    const std::regex record("typedef struct [a-z_]+ \\{([^}]*)\\}");
    const std::regex member("[ *]([a-z_0-9]+)(?:\\[[0-9]+\\])?[,;]");
    text_set result;
    for (std::sregex_iterator it(text.begin(), text.end(), record), end; it != end; ++it) {
        const std::string body = it->str(1);
        for (std::sregex_iterator m(body.begin(), body.end(), member); m != end; ++m) {
            result.insert(m->str(1));
        }
    }
    return result;
}

// ---- the layout -------------------------------------------------------------------------------

struct extent {
    std::uint32_t offset;
    std::uint32_t size;

    bool operator==(const extent &) const = default;
};

// The tables of a page whose first two columns are offset and size.
std::vector<std::vector<extent>> field_tables() {
    std::vector<std::vector<extent>> result;
    const std::regex row("\\.It ([0-9]+) Ta ([0-9]+) Ta .+");
    bool is_table = false;
    for (const manual_line &line : manual_page("quorvel-format.5")) {
        if (begins_with(line.text, ".Bl ")) {
            is_table = begins_with(line.text, ".Bl -column \"offset\" \"size\"");
            if (is_table) {
                result.emplace_back();
            }
        }
        std::smatch match;
        if (is_table && std::regex_match(line.text, match, row)) {
            result.back().push_back({static_cast<std::uint32_t>(std::stoul(match.str(1))),
                                     static_cast<std::uint32_t>(std::stoul(match.str(2)))});
        }
    }
    return result;
}

std::vector<extent> extents_of(std::span<const core::field> fields) {
    std::vector<extent> result;
    for (const core::field &f : fields) {
        result.push_back({f.offset, f.size});
    }
    return result;
}

std::string hexadecimal(std::uint32_t value, int digits) {
    std::ostringstream text;
    text << "0x" << std::hex << std::uppercase << std::setw(digits) << std::setfill('0') << value;
    return text.str();
}

// ---- form -------------------------------------------------------------------------------------

// The findings of mandoc, except for pages of other packages that are not installed.
std::string lint_findings() {
    std::vector<std::string> command = {"mandoc", "-Tlint"};
    for (const std::string &page : PAGES) {
        command.push_back(source_path("man/" + page));
    }
    std::string findings;
    for (const std::string &line : lines_of(run(command).out)) {
        if (line.find("referenced manual not found") == std::string::npos) {
            findings += line + "\n";
        }
    }
    return findings;
}

} // namespace

TEST(Manual, OptionsOfQuorvelAreThoseOfItsUsage) {
    const std::vector<manual_line> page = manual_page("quorvel.8");
    EXPECT_EQ(described_options(page, ""), options_of_usage());
}

TEST(Manual, ValuesOfQuorvelAreThoseThatItTakes) {
    for (const std::string option : {"F", "p", "S", "s"}) {
        EXPECT_EQ(described_numbers(option), accepted_numbers("-" + option)) << option;
    }
}

TEST(Manual, CommandsOfQvolAreThoseOfTheProgram) {
    EXPECT_EQ(described_commands(), help_of({}).commands);
    EXPECT_EQ(described_options(manual_page("qvol.1"), "Options"), help_of({}).options);
}

TEST(Manual, OptionsOfEachCommandAreThoseOfTheProgram) {
    const std::vector<manual_line> page = manual_page("qvol.1");
    for (const std::string &command : help_of({}).commands) {
        text_set described = described_options(page, EVERY_COMMAND);
        described.merge(described_options(page, command));
        EXPECT_EQ(described, help_of({command}).options) << command;
    }
}

TEST(Manual, SynopsisOfEachCommandNamesOptionsThatThePageDescribes) {
    const std::vector<manual_line> page = manual_page("qvol.1");
    for (const std::string &command : described_commands()) {
        const text_set described = described_options(page, command);
        for (const std::string &option : options_of_synopsis(command)) {
            EXPECT_TRUE(described.contains(option)) << command << " " << option;
        }
    }
}

TEST(Manual, PrototypesAreThoseOfTheHeader) {
    text_set documented;
    for (const documented_function &function : documented_functions()) {
        documented.insert(function.prototype);
    }
    EXPECT_GT(documented.size(), 60U);
    EXPECT_EQ(documented, declared_prototypes());
}

TEST(Manual, EveryFunctionIsDescribedOnce) {
    std::multiset<std::string> expected;
    for (const documented_function &function : documented_functions()) {
        expected.insert(".It Fn " + function.call);
    }
    std::multiset<std::string> described;
    for (const manual_line &line : manual_page("libquorvel.3")) {
        if (begins_with(line.text, ".It Fn ")) {
            described.insert(line.text);
        }
    }
    EXPECT_EQ(described, expected);
}

TEST(Manual, NamesEveryObjectAndEveryMemberOfTheRecords) {
    text_set words;
    std::string objects;
    for (const manual_line &line : manual_page("libquorvel.3")) {
        const std::vector<std::string> found = words_of(line.text);
        words.insert(found.begin(), found.end());
        objects += begins_with(line.text, ".Vt extern ") ? line.text : "";
    }
    const text_set members = declared_members();
    EXPECT_GT(members.size(), 40U);
    for (const std::string &member : members) {
        EXPECT_TRUE(words.contains(member)) << member;
    }
    const std::string header = public_declarations();
    const std::regex object("\nextern ([^;]*);");
    for (std::sregex_iterator it(header.begin(), header.end(), object), end; it != end; ++it) {
        const std::string text = std::regex_replace(it->str(1), std::regex(","), " ,");
        EXPECT_NE(objects.find(".Vt extern " + text + " ;"), std::string::npos) << text;
    }
}

TEST(Manual, FieldsAreThoseOfTheLayout) {
    const std::vector<std::vector<extent>> expected = {
        extents_of(core::PBR_FIELDS),   extents_of(core::PBR32_FIELDS),
        extents_of(core::EBR_FIELDS),   extents_of(core::FSINFO_FIELDS),
        extents_of(core::SHORT_FIELDS), extents_of(core::SLOT_FIELDS),
        extents_of(core::POOL_FIELDS),
    };
    EXPECT_TRUE(field_tables() == expected);
}

TEST(Manual, ConstantsOfTheFormatAreThoseOfTheLayout) {
    const std::string page = source_text("man/quorvel-format.5");
    for (const std::string &constant :
         {hexadecimal(core::MEDIA_FIXED, 2),
          hexadecimal(core::EXTENDED_BOOT_SIGNATURE, 2),
          hexadecimal(core::FSINFO_LEAD_SIGNATURE, 8),
          hexadecimal(core::FSINFO_STRUCTURE_SIGNATURE, 8),
          hexadecimal(core::FSINFO_TRAIL_SIGNATURE, 8),
          hexadecimal(core::FSINFO_UNKNOWN, 8),
          hexadecimal(core::FAT16_BAD, 4),
          hexadecimal(core::FAT32_BAD, 8),
          hexadecimal(core::FAT16_END, 4),
          hexadecimal(core::FAT32_END, 8),
          hexadecimal(core::NAME_DELETED, 2),
          hexadecimal(core::NAME_ESCAPED_E5, 2),
          hexadecimal(core::ATTR_READ_ONLY, 2),
          hexadecimal(core::ATTR_HIDDEN, 2),
          hexadecimal(core::ATTR_SYSTEM, 2),
          hexadecimal(core::ATTR_VOLUME, 2),
          hexadecimal(core::ATTR_DIRECTORY, 2),
          hexadecimal(core::ATTR_ARCHIVE, 2),
          hexadecimal(core::ATTR_LONG_NAME, 2),
          hexadecimal(core::CASE_LOWER_BASE, 2),
          hexadecimal(core::CASE_LOWER_EXTENSION, 2),
          hexadecimal(core::CMSEC_SYMLINK, 2),
          hexadecimal(core::SLOT_LAST, 2),
          std::to_string(core::FAT16_MIN_CLUSTERS) + " to " +
              std::to_string(core::FAT32_MIN_CLUSTERS - 1) + " are FAT16, " +
              std::to_string(core::FAT32_MIN_CLUSTERS) + " and more FAT32",
          "at " + std::to_string(core::EBR_OFFSET_FAT16) + " on FAT16",
          "at " + std::to_string(core::EBR_OFFSET_FAT32) + " on FAT32",
          "are at " + std::to_string(core::PBR_SIGNATURE.offset)}) {
        EXPECT_NE(one_spaced(page).find(constant), std::string::npos) << constant;
    }
}

TEST(Manual, TheExampleOfTheLibraryLeavesAFileOnTheImage) {
    const scratch_directory scratch;
    std::string program;
    for (const std::string &line : literal_lines(manual_page("libquorvel.3"), "EXAMPLES")) {
        program += line + "\n";
    }
    const std::string source =
        scratch.file_with("example.c", bytes(program.begin(), program.end()));
    const std::string image = scratch.sparse_file("disk.img", 32 << 20);
    compile({QUORVEL_C_COMPILER, "-std=c11"}, source, scratch.file("example"));
    EXPECT_EQ(run({scratch.file("example"), image}).status, 0);
    EXPECT_EQ(run_qvol({"cat", image, "/Shopping list.txt"}), (outcome{0, "milk", ""}));
}

TEST(Manual, PagesAreTheOnesThatAreListed) {
    text_set found;
    for (const auto &entry : std::filesystem::directory_iterator(source_path("man"))) {
        found.insert(entry.path().filename().string());
    }
    EXPECT_EQ(found, text_set(PAGES.begin(), PAGES.end()));
}

TEST(Manual, PagesReferToEachOtherByNameAndSection) {
    const text_set others = {"errno 3", "fprintf 3",  "fsck.fat 8",  "fsync 2", "flock 2",
                             "iconv 1", "iconv 3",    "lstat 2",     "mcopy 1", "mkfs.fat 8",
                             "open 2",  "readlink 2", "sha256sum 1", "time 2"};
    for (const std::string &page : PAGES) {
        for (const manual_line &line : manual_page(page)) {
            if (begins_with(line.text, ".Xr ")) {
                const std::vector<std::string> words = words_of(line.text);
                EXPECT_TRUE(
                    others.contains(words[1] + " " + words[2]) ||
                    std::filesystem::exists(source_path("man/" + words[1] + "." + words[2])))
                    << page << ": " << line.text;
            }
        }
    }
}

TEST(Manual, PagesAreCleanForMandoc) {
    EXPECT_EQ(lint_findings(), "");
}

TEST(Manual, PagesAreCleanForMan) {
    for (const std::string &page : PAGES) {
        const outcome formatted = run({"man", "--warnings", "-l", source_path("man/" + page)});
        EXPECT_EQ(formatted.status, 0) << page;
        EXPECT_EQ(formatted.err, "") << page;
        EXPECT_GT(formatted.out.size(), 1000U) << page;
    }
}
