// The built program and libraries need nothing but libc, and the sources keep the project's form.

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/tool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

using namespace testing_support;

namespace {

constexpr bool IS_RELEASE = std::string_view(QUORVEL_BUILD_TYPE) == "Release";

// ---- sources ----------------------------------------------------------------------------------

std::vector<std::filesystem::path> sources() {
    std::vector<std::filesystem::path> result;
    for (const char *directory : {"core", "fat", "tool"}) {
        for (const auto &entry : std::filesystem::directory_iterator(
                 std::filesystem::path(QUORVEL_SOURCE_DIR) / directory)) {
            if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h") {
                result.push_back(entry.path());
            }
        }
    }
    std::sort(result.begin(), result.end());
    return result;
}

std::string text_of(const std::filesystem::path &path) {
    const bytes content = read_file(path.string());
    return {content.begin(), content.end()};
}

// Where the comment or literal that begins at `begin` ends; `begin` itself if there is no end.
std::size_t end_of_comment_or_literal(const std::string &text, std::size_t begin) {
    const auto after = [&text](std::string_view closing, std::size_t from) {
        const std::size_t found = text.find(closing, from);
        return found == std::string::npos ? text.size() : found + closing.size();
    };
    if (text.compare(begin, 2, "//") == 0) {
        return std::min(text.find('\n', begin), text.size());
    }
    if (text.compare(begin, 2, "/*") == 0) {
        return after("*/", begin + 2);
    }
    // An apostrophe after a digit separates digits.
    const bool separates = begin > 0 && std::isdigit(static_cast<unsigned char>(text[begin - 1]));
    if (text[begin] != '"' && (text[begin] != '\'' || separates)) {
        return begin;
    }
    std::size_t end = begin + 1;
    while (end < text.size() && text[end] != text[begin]) {
        end += text[end] == '\\' ? 2 : 1;
    }
    return std::min(end + 1, text.size());
}

// The text without comments and the contents of literals. Line breaks are not removed.
std::string bare_code(const std::string &text) {
    std::string result;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t end = end_of_comment_or_literal(text, i);
        if (end == i) {
            result += text[i++];
            continue;
        }
        if (text[i] == '"' || text[i] == '\'') {
            result += {text[i], text[i]};
        }
        result.append(
            static_cast<std::size_t>(std::count(text.begin() + static_cast<long>(i),
                                                text.begin() + static_cast<long>(end), '\n')),
            '\n');
        i = end;
    }
    return result;
}

struct function_extent {
    std::size_t first_line = 0; // where its head begins, counted from 1
    std::size_t lines = 0;
};

std::string trimmed(const std::string &text) {
    const std::size_t first = text.find_first_not_of(" \n\t");
    return first == std::string::npos
               ? ""
               : text.substr(first, text.find_last_not_of(" \n\t") - first + 1);
}

// Whether a brace after `head` opens a function: the head ends in its parameters.
bool is_function_head(const std::string &head) {
    const std::string text = trimmed(head);
    return text.ends_with(")") || text.ends_with(") const") || text.ends_with(") noexcept") ||
           text.ends_with(") const noexcept");
}

// Every function with a body, by its braces. Of braces inside a function only the depth counts.
std::vector<function_extent> functions_in(const std::string &code) {
    std::vector<function_extent> result;
    std::size_t head = 0; // where the text before the next brace begins
    std::size_t head_line = 1;
    std::size_t line = 1;
    int depth_in_function = 0;
    for (std::size_t i = 0; i < code.size(); i++) {
        const char c = code[i];
        line += c == '\n' ? 1 : 0;
        if (depth_in_function > 0) {
            depth_in_function += c == '{' ? 1 : c == '}' ? -1 : 0;
            if (depth_in_function == 0) {
                result.push_back({head_line, line - head_line + 1});
                head = i + 1;
            }
        } else if (c == '{' && is_function_head(code.substr(head, i - head))) {
            const std::size_t first = code.find_first_not_of(" \n\t", head);
            head_line = line - static_cast<std::size_t>(
                                   std::count(code.begin() + static_cast<long>(first),
                                              code.begin() + static_cast<long>(i), '\n'));
            depth_in_function = 1;
        } else if (c == '{' || c == '}' || c == ';') {
            head = i + 1;
        }
    }
    return result;
}

// The identifiers of the code, and the operators that forming words needs ("std::string").
std::vector<std::string> words_of(const std::string &code) {
    std::vector<std::string> result;
    for (std::size_t i = 0; i < code.size();) {
        const auto is_word = [&code](std::size_t at) {
            return at < code.size() &&
                   (std::isalnum(static_cast<unsigned char>(code[at])) || code[at] == '_');
        };
        std::size_t end = i;
        while (is_word(end)) {
            end++;
        }
        if (end > i) {
            result.push_back(code.substr(i, end - i));
        } else if (!std::isspace(static_cast<unsigned char>(code[i]))) {
            result.emplace_back(1, code[i]);
            end = i + 1;
        } else {
            end = i + 1;
        }
        i = end;
    }
    return result;
}

// The words of a file that need the C++ run-time library: some words anywhere, others only as
// std::NAME or <NAME>.
std::vector<std::string> banned_in(const std::string &code) {
    static const std::set<std::string> ANYWHERE = {"new",   "throw",  "try",
                                                   "catch", "typeid", "dynamic_cast"};
    static const std::set<std::string> FROM_STD = {
        "vector",      "string",     "iostream",  "ostream",   "istream",       "fstream",
        "sstream",     "cout",       "cerr",      "map",       "set",           "list",
        "function",    "functional", "regex",     "locale",    "thread",        "mutex",
        "deque",       "exception",  "stdexcept", "to_string", "unordered_map", "make_unique",
        "make_shared", "shared_ptr"};
    std::vector<std::string> words = words_of(code);
    words.insert(words.begin(), 3, "");
    std::vector<std::string> result;
    for (std::size_t i = 3; i < words.size(); i++) {
        const bool is_from_std =
            words[i - 1] == "<" || (words[i - 3] == "std" && words[i - 2] == ":");
        const bool is_delete_expression = words[i] == "delete" && words[i - 1] != "=";
        if (ANYWHERE.contains(words[i]) || is_delete_expression ||
            (is_from_std && FROM_STD.contains(words[i]))) {
            result.push_back(words[i]);
        }
    }
    return result;
}

// ---- programs ---------------------------------------------------------------------------------

// The libraries that a program or library names as needed.
std::vector<std::string> needed_by(const std::string &path) {
    const outcome result = run({"readelf", "--dynamic", "--wide", path});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("Dynamic section"), std::string::npos) << result.out;
    std::vector<std::string> needed;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("(NEEDED)") != std::string::npos) {
            const std::size_t begin = line.find('[') + 1;
            needed.push_back(line.substr(begin, line.find(']') - begin));
        }
    }
    return needed;
}

void expect_libc_alone(const std::string &path) {
    std::vector<std::string> needed = needed_by(path);
    // Some machines list the loader itself beside libc.
    std::erase_if(needed, [](const std::string &name) { return name.starts_with("ld-linux"); });
    EXPECT_EQ(needed, std::vector<std::string>{"libc.so.6"}) << path;
}

bool is_static(const std::string &path) {
    return run({"readelf", "--dynamic", path}).out.find("no dynamic section") != std::string::npos;
}

class ArtefactTest : public ::testing::Test {
protected:
    scratch_directory scratch;

    static void skip_where_sanitized() {
        if (is_sanitized_tool() || QUORVEL_COVERED) {
            GTEST_SKIP() << "a sanitizer or a count of branches brings libraries of its own";
        }
    }
    // A small image as the program itself formats it.
    [[nodiscard]] bytes formatted_by_tool() const {
        const std::string path = scratch.sparse_file("reference.img", 4 << 20);
        EXPECT_EQ(run_tool({"-S", "512", "-p", "0", path}), (outcome{0, SUCCESS, ""}));
        return without_moment(path);
    }
};

} // namespace

// ---- dependencies at run time -----------------------------------------------------------------

TEST_F(ArtefactTest, ProgramAndSharedLibraryNeedLibcAlone) {
    skip_where_sanitized();
    if (IsSkipped()) {
        return;
    }
    expect_libc_alone(tool_path());
    expect_libc_alone(QUORVEL_SHARED_LIBRARY);
}

TEST_F(ArtefactTest, AStaticProgramInCLinksWithTheLibraryAndLibcAlone) {
    skip_where_sanitized();
    if (IsSkipped()) {
        return;
    }
    const std::string text = "#include \"fat/fat.h\"\n"
                             "int main(int argc, char **argv) {\n"
                             "    fat_format_param param = {0};\n"
                             "    int written;\n"
                             "    param.sector_size = 512;\n"
                             "    fat_page_size_given = 1;\n"
                             "    if (argc != 2 || check_format_param(&param) != 0 ||\n"
                             "        fat_open_volume(argv[1], 0, 0) < 0) {\n"
                             "        return 1;\n"
                             "    }\n"
                             "    written = fat_format(&param);\n"
                             "    printf(\"%d\\n\", written);\n"
                             "    return written > 0 ? fat_close_volume(0) : 2;\n"
                             "}\n";
    const std::string source = scratch.file_with("embed.c", bytes(text.begin(), text.end()));
    const std::string program = scratch.file("embed");
    const std::string image = scratch.sparse_file("disk.img", 4 << 20);
    ASSERT_EQ(run({QUORVEL_C_COMPILER, "-std=c99", "-Wall", "-Wextra", "-Werror", "-static", "-I",
                   QUORVEL_SOURCE_DIR, source, QUORVEL_LIBRARY, "-o", program}),
              (outcome{0, "", ""}));
    EXPECT_TRUE(is_static(program));
    // 512 root entries fill 32 sectors.
    EXPECT_EQ(run({program, image}), (outcome{0, "32\n", ""}));
    EXPECT_EQ(without_moment(image), formatted_by_tool());
}

TEST_F(ArtefactTest, AStaticProgramFormatsLikeTheDynamicOne) {
    skip_where_sanitized();
    if (IsSkipped()) {
        return;
    }
    const std::string tool = std::string(QUORVEL_SOURCE_DIR) + "/tool/";
    const std::string program = scratch.file("static-quorvel");
    ASSERT_EQ(run({QUORVEL_CXX_COMPILER, "-std=c++20", "-D_FILE_OFFSET_BITS=64", "-fno-exceptions",
                   "-fno-rtti", "-static", "-I", QUORVEL_SOURCE_DIR, tool + "main.cpp",
                   tool + "options.cpp", QUORVEL_LIBRARY, "-o", program}),
              (outcome{0, "", ""}));
    EXPECT_TRUE(is_static(program));
    EXPECT_FALSE(is_static(tool_path()));
    const std::string image = scratch.sparse_file("disk.img", 4 << 20);
    EXPECT_EQ(run({program, "-S", "512", "-p", "0", image}), (outcome{0, SUCCESS, ""}));
    EXPECT_EQ(without_moment(image), formatted_by_tool());
    EXPECT_EQ(run({program}), (outcome{EXIT_REFUSED, USAGE, ""}));
}

TEST_F(ArtefactTest, TheStrippedProgramStaysBelow64KiB) {
#ifndef __x86_64__
    GTEST_SKIP() << "the limit is stated for x86-64";
#endif
    if (!IS_RELEASE || is_sanitized_tool()) {
        GTEST_SKIP() << "the limit is stated for the Release build; this is " << QUORVEL_BUILD_TYPE;
    }
    const std::string stripped = scratch.file("stripped");
    ASSERT_EQ(run({"strip", "-o", stripped, tool_path()}), (outcome{0, "", ""}));
    EXPECT_LT(std::filesystem::file_size(stripped), 65536u);
    EXPECT_EQ(run({stripped}), (outcome{EXIT_REFUSED, USAGE, ""}));
}

// ---- form of the sources ----------------------------------------------------------------------

TEST(SourceChecks, FindEachViolation) {
    const std::string code =
        bare_code("// throw in a comment\n"
                  "int f(char c) { /* new\n */ return c == '\"' ? 1'000 : 2; }\n"
                  "const char *text = \"a \\\" throw }\";\n"
                  "struct s {\n"
                  "    s(const s &) = delete;\n"
                  "    int g()\n"
                  "        const {\n"
                  "        if (true) {\n"
                  "        }\n"
                  "    }\n"
                  "};\n");
    EXPECT_EQ(banned_in(code), std::vector<std::string>{});
    EXPECT_EQ(banned_in("int *p = new int; delete p; std::vector<int> v;"),
              (std::vector<std::string>{"new", "delete", "vector"}));
    EXPECT_EQ(banned_in("#include <string>\n"), std::vector<std::string>{"string"});
    const std::vector<function_extent> functions =
        functions_in(bare_code("int a = 1;\n\nnamespace n {\nint\nf(int x)\n{ return x; }\n}\n"
                               "table t[] = {\n{1},\n};\nvoid g() {\n\n\n}\n"));
    ASSERT_EQ(functions.size(), 2u);
    EXPECT_EQ(functions[0].first_line, 4u);
    EXPECT_EQ(functions[0].lines, 3u);
    EXPECT_EQ(functions[1].first_line, 11u);
    EXPECT_EQ(functions[1].lines, 4u);
    EXPECT_EQ(functions_in(code).size(), 2u);
}

TEST(Sources, HaveNoFunctionOf70LinesOrMore) {
    std::size_t count = 0;
    for (const std::filesystem::path &path : sources()) {
        for (const function_extent &f : functions_in(bare_code(text_of(path)))) {
            EXPECT_LT(f.lines, 70u) << path << ":" << f.first_line;
            count++;
        }
    }
    EXPECT_GT(count, 80u); // that many are found at least, or the search is broken
}

TEST(Sources, HaveNoLineOver100ColumnsExceptForItsLiterals) {
    for (const std::filesystem::path &path : sources()) {
        const std::string text = text_of(path);
        std::istringstream lines(text);
        std::size_t number = 0;
        for (std::string line; std::getline(lines, line);) {
            number++;
            // A message stays on one line, however long, so that it can be searched for.
            const bool is_literal = line.find('"') != std::string::npos;
            const std::size_t columns = is_literal ? bare_code(line).size() : line.size();
            EXPECT_LE(columns, 100u) << path << ":" << number;
            EXPECT_EQ(line.find('\t'), std::string::npos) << path << ":" << number;
        }
        EXPECT_GT(number, 5u) << path;
    }
}

TEST(Sources, NeedNoCppRunTimeLibrary) {
    for (const std::filesystem::path &path : sources()) {
        EXPECT_EQ(banned_in(bare_code(text_of(path))), std::vector<std::string>{}) << path;
    }
}
