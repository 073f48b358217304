// What commands are declared with: options and their rules, sizes, and JSON documents.

#include "qvol/command_line.h"
#include "qvol/json.h"
#include "qvol/sizes.h"

#include <gtest/gtest.h>

#include <utility>

using namespace qvol;

namespace {

struct toy_options {
    std::string word;
    std::vector<std::string> words;
    std::optional<std::string> label;
    u32 width = 16;
    u64 bytes = 7;
    std::string level = "low";
    bool is_forced = false;
    bool is_gentle = false;
};

struct toy_run {
    int runs = 0;
    common_options common;
    toy_options options;
} last;

std::string problem_of_level(const std::string &level) {
    return level == "low" || level == "high" ? "" : "no such level";
}

int run_toy(const common_options &common, const toy_options &options) {
    last = {last.runs + 1, common, options};
    return 5;
}

void add_toy(command_line *commands) {
    const auto [toy, options] = commands->add({"toy", "A command", "  qvol toy x.img"}, run_toy);
    toy.value("WORD", &options->word, "A word").one_of({"one", "two"});
    toy.list("--words", &options->words, "Words").count(2, declared_option::ANY_NUMBER);
    toy.value("--label", &options->label, "A label");
    const declared_option width = toy.value("--width", &options->width, "A width").range(16, 32);
    toy.value("--bytes", &options->bytes, "Bytes").range(1, 9).needs(width);
    toy.value("--level", &options->level, "A level").check(problem_of_level).shows_default();
    const declared_option force = toy.flag("-f,--force", &options->is_forced, "By force");
    toy.flag("--gentle", &options->is_gentle, "Without force").excludes(force);
}

class CommandLine : public testing::Test {
protected:
    CommandLine() {
        last = {};
    }

    // Returns the exit status; what was printed is in `out` and `err`.
    int run(std::vector<std::string> arguments) {
        command_line commands;
        add_toy(&commands);
        commands.add({"bare", "Without options", "  qvol bare x.img"},
                     [](const common_options &common) { return common.out.is_quiet ? 3 : 4; });
        arguments.insert(arguments.begin(), "qvol");
        std::vector<char *> argv;
        for (std::string &argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int status = commands.run(static_cast<int>(arguments.size()), argv.data());
        out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
        return status;
    }

    void expect_refusal(const std::vector<std::string> &arguments, const std::string &message) {
        std::vector<std::string> all = {"toy", "x.img"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        EXPECT_EQ(run(all), EXIT_USAGE);
        EXPECT_EQ(err, message + "\nRun with --help for more information.\n");
        EXPECT_EQ(last.runs, 0);
    }

    std::string out;
    std::string err;
};

json nested(std::size_t levels) {
    json document = json::array();
    for (std::size_t level = 1; level < levels; level++) {
        json outer = json::array();
        outer.push_back(std::move(document));
        document = std::move(outer);
    }
    return document;
}

} // namespace

TEST_F(CommandLine, RunsTheChosenCommand) {
    EXPECT_EQ(run({"bare", "x.img"}), 4);
    EXPECT_EQ(run({"bare", "-q", "x.img"}), 3);
    EXPECT_EQ(last.runs, 0);
    EXPECT_EQ(run({"toy", "x.img"}), 5);
    EXPECT_EQ(last.runs, 1);
    EXPECT_EQ(last.common.image, "x.img");
    EXPECT_EQ(last.common.encoding, "UTF-8");
}

TEST_F(CommandLine, LeavesDefaultsWhereNothingIsGiven) {
    run({"toy", "x.img"});
    EXPECT_EQ(last.options.word, "");
    EXPECT_EQ(last.options.label, std::nullopt);
    EXPECT_EQ(last.options.width, 16U);
    EXPECT_EQ(last.options.bytes, 7U);
    EXPECT_EQ(last.options.level, "low");
    EXPECT_FALSE(last.options.is_forced);
}

TEST_F(CommandLine, FillsTheFields) {
    run({"toy", "x.img", "two", "--words", "a", "b", "c", "--label", "", "--width", "32", "--bytes",
         "9", "--level", "high", "-f", "--json", "--encoding", "CP437"});
    EXPECT_EQ(err, "");
    EXPECT_EQ(last.options.word, "two");
    EXPECT_EQ(last.options.words, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(last.options.label, "");
    EXPECT_EQ(last.options.width, 32U);
    EXPECT_EQ(last.options.bytes, 9U);
    EXPECT_EQ(last.options.level, "high");
    EXPECT_TRUE(last.options.is_forced);
    EXPECT_TRUE(last.common.out.is_json);
    EXPECT_EQ(last.common.encoding, "CP437");
}

TEST_F(CommandLine, RefusesWhatBreaksARule) {
    expect_refusal({"three"}, "WORD: three not in {one,two}");
    expect_refusal({"--width", "12"}, "--width: Value 12 not in range 16 to 32");
    expect_refusal({"--width", "32", "--bytes", "10"}, "--bytes: Value 10 not in range 1 to 9");
    expect_refusal({"--bytes", "2"}, "--bytes requires --width");
    expect_refusal({"--level", "middle"}, "--level: no such level");
    expect_refusal({"-f", "--gentle"}, "--force excludes --gentle");
    expect_refusal({"--words", "a"}, "--words: At least 2 required but received 1");
}

TEST_F(CommandLine, ShowsHelp) {
    EXPECT_EQ(run({"toy", "--help"}), EXIT_DONE);
    EXPECT_NE(out.find("A command\nUsage: qvol toy [OPTIONS] IMAGE [WORD]\n"), out.npos) << out;
    EXPECT_NE(out.find("--level TEXT=low"), out.npos) << out;
    EXPECT_NE(out.find("--label TEXT "), out.npos) << out;
    EXPECT_NE(out.find("\nExamples:\n  qvol toy x.img\n"), out.npos) << out;
}

// ---- sizes ----

TEST(Sizes, TakeUnits) {
    EXPECT_EQ(parse_size("--size", "0"), 0U);
    EXPECT_EQ(parse_size("--size", "512"), 512U);
    EXPECT_EQ(parse_size("--size", "4k"), 4096U);
    EXPECT_EQ(parse_size("--size", "64M"), u64{64} << 20);
    EXPECT_EQ(parse_size("--size", "2G"), u64{2} << 30);
    EXPECT_EQ(parse_size("--size", "0x1F"), 31U);
    EXPECT_EQ(parse_size("--size", "0x10K"), 16384U);
    EXPECT_EQ(bytes_of("2048s", "s"), u64{1} << 20);
    EXPECT_EQ(bytes_of("36028797018963968s", "s"), std::nullopt);
    EXPECT_EQ(bytes_of("1Ms", "s"), std::nullopt);
}

TEST(Sizes, RefuseWhatIsNoNumberOfBytes) {
    for (const char *text : {"", "M", "4T", "4KB", "4 K", "-1", "1.5M", "0x", "0xG", "8s",
                             "99999999999999999999", "9999999999G"}) {
        EXPECT_THROW((void)parse_size("--size", text), usage_error) << text;
    }
}

TEST(Sizes, OfUnitsArePowersOfTwoInARange) {
    EXPECT_EQ(parse_unit("--page", "4K", 512, 8192), 4096U);
    EXPECT_EQ(parse_unit("--page", "512", 512, 8192), 512U);
    EXPECT_EQ(parse_unit("--page", "8K", 512, 8192), 8192U);
    for (const char *text : {"256", "16K", "3000", "0"}) {
        EXPECT_THROW((void)parse_unit("--page", text, 512, 8192), usage_error) << text;
    }
}

// ---- JSON ----

TEST(Json, WritesScalars) {
    EXPECT_EQ(json().text(), "null");
    EXPECT_EQ(json(true).text(), "true");
    EXPECT_EQ(json(false).text(), "false");
    EXPECT_EQ(json(u32{0}).text(), "0");
    EXPECT_EQ(json(~u64{0}).text(), "18446744073709551615");
    EXPECT_EQ(json(0.0).text(), "0.0");
    EXPECT_EQ(json(12.25).text(), "12.25");
    EXPECT_EQ(json("text").text(), "\"text\"");
}

TEST(Json, EscapesText) {
    EXPECT_EQ(json("\"a\\b\"\n\t\x01\x7f/").text(), "\"\\\"a\\\\b\\\"\\n\\t\\u0001\x7f/\"");
    EXPECT_EQ(json("Ü € 😀").text(), "\"Ü € 😀\"");
    EXPECT_EQ(json(std::string("a\0b", 3)).text(), "\"a\\u0000b\"");
}

TEST(Json, ReplacesBytesThatAreNotUtf8) {
    EXPECT_EQ(json("a\xff\xfez").text(), "\"a\uFFFD\uFFFDz\"");
    EXPECT_EQ(json("cut \xe2\x82").text(), "\"cut \uFFFD\"");
}

TEST(Json, WritesEmptyArraysAndObjects) {
    EXPECT_EQ(json::array().text(), "[]");
    EXPECT_EQ(json::object().text(), "{}");
    EXPECT_EQ((json{{"list", json::array()}}).text(), "{\n  \"list\": []\n}");
}

TEST(Json, KeepsTheOrderOfMembers) {
    json list = json::array();
    list.push_back(u32{1});
    list.push_back({{"b", nullptr}, {"a", "x"}});
    json document = {{"z", std::move(list)}};
    document.add("a \"key\"", true);
    EXPECT_EQ(document.text(), "{\n"
                               "  \"z\": [\n"
                               "    1,\n"
                               "    {\n"
                               "      \"b\": null,\n"
                               "      \"a\": \"x\"\n"
                               "    }\n"
                               "  ],\n"
                               "  \"a \\\"key\\\"\": true\n"
                               "}");
}

TEST(Json, IndentsEachLevel) {
    EXPECT_EQ(nested(3).text(), "[\n  [\n    []\n  ]\n]");
}

// Recursion would need more stack than there is.
TEST(Json, IsFreedAtAnyDepth) {
    const json document = nested(1'000'000);
}
