// The names that the shared library offers: those of the public header, and no other.

#include "tests/support/process.h"
#include "tests/support/source_tree.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace testing_support;

namespace {

using names = std::set<std::string>;

// The last word that ends before `end`.
std::string word_before(const std::string &text, std::size_t end) {
    const auto is_word = [&text](std::size_t at) {
        return std::isalnum(static_cast<unsigned char>(text[at])) != 0 || text[at] == '_';
    };
    end = std::min(end, text.size());
    while (end > 0 && !is_word(end - 1)) {
        end--;
    }
    std::size_t begin = end;
    while (begin > 0 && is_word(begin - 1)) {
        begin--;
    }
    return text.substr(begin, end - begin);
}

// `text` cut at each `separator`; the text after the last one is dropped.
std::vector<std::string> pieces(const std::string &text, char separator) {
    std::vector<std::string> result;
    std::size_t begin = 0;
    for (std::size_t end = text.find(separator); end != std::string::npos;
         end = text.find(separator, begin)) {
        result.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return result;
}

// The symbols that the library exports, as NAME@@VERSION.
names exported_symbols() {
    const outcome listed = run({"nm", "-D", "--defined-only", QUORVEL_SHARED_LIBRARY});
    EXPECT_EQ(listed.status, 0) << listed.err;
    names result;
    std::istringstream lines(listed.out);
    for (std::string line; std::getline(lines, line);) {
        const bool is_version = line.find(" A ") != std::string::npos; // the node itself
        if (!is_version) {
            result.insert(line.substr(line.rfind(' ') + 1));
        }
    }
    return result;
}

names exported_names() {
    names result;
    for (const std::string &symbol : exported_symbols()) {
        result.insert(symbol.substr(0, symbol.find('@')));
    }
    return result;
}

// The names that the version script exports, as NAME@@VERSION: each name under the node that lists
// it.
names mapped_symbols() {
    names result;
    for (const std::string &node : pieces(without_comments(source_text("fat/exports.map")), '}')) {
        const std::size_t brace = node.find('{');
        const std::size_t before = node.rfind('\n', brace) + 1; // after the end of the last node
        const std::string version =
            node.substr(before, node.find_last_not_of(" ", brace - 1) + 1 - before);
        const std::size_t begin = node.find("global:") + std::string("global:").size();
        for (const std::string &entry :
             pieces(node.substr(begin, node.find("local:") - begin), ';')) {
            result.insert(word_before(entry, entry.size()) + "@@" + version);
        }
    }
    return result;
}

// The name that one declarator declares: "*table[512]", "(*hook)(int)", "*name".
std::string declared_name(const std::string &declarator) {
    const std::size_t pointer = declarator.find("(*");
    return pointer != std::string::npos ? word_before(declarator, declarator.find(')', pointer))
                                        : word_before(declarator, declarator.find('['));
}

// The declarations of the public header: functions, and the declarators of extern objects.
names declared_names() {
    const std::string header = without_comments(source_text("fat/fat.h"));
    std::string declarations;
    int depth = 0; // inside the braces of a record
    for (const char c : header.substr(header.find("push(default)"))) {
        depth += c == '{' ? 1 : c == '}' && depth > 0 ? -1 : 0;
        declarations += depth == 0 ? c : ' ';
    }
    names result;
    for (const std::string &declaration : pieces(declarations, ';')) {
        if (declaration.find("typedef ") != std::string::npos) {
            continue;
        }
        if (declaration.find("extern ") == std::string::npos) {
            result.insert(word_before(declaration, declaration.find('(')));
            continue;
        }
        for (const std::string &declarator : pieces(declaration + ",", ',')) {
            result.insert(declared_name(declarator));
        }
    }
    return result;
}

} // namespace

TEST(SharedLibrary, ExportsTheMappedNamesUnderTheirVersionAndNoOther) {
    EXPECT_EQ(exported_symbols(), mapped_symbols());
}

TEST(SharedLibrary, ExportsEveryNameOfThePublicHeader) {
    EXPECT_EQ(exported_names(), declared_names());
}

TEST(SharedLibrary, PublicHeaderDeclaresMoreThanAHandfulOfNames) {
    const names declared = declared_names();
    for (const char *name :
         {"sv", "read_sectors", "write_sectors", "oentry_table", "fat_clock", "fat_page_size_given",
          "fat_format", "fat_open_volume", "print_volume_summary"}) {
        EXPECT_TRUE(declared.contains(name)) << name;
    }
}
