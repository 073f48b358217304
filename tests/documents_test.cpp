// The documents: every command that they show is run, or is in the list below of commands that are
// run elsewhere; every link has a target.

#include "tests/support/files.h"
#include "tests/support/help.h"
#include "tests/support/mdoc.h"
#include "tests/support/process.h"
#include "tests/support/qvol.h"
#include "tests/support/source_tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

using namespace testing_support;
namespace fs = std::filesystem;

namespace {

using text_list = std::vector<std::string>;

// A command that takes long, builds, or needs the network. `script` exists and contains every text.
struct elsewhere {
    std::string command;
    std::string script;
    text_list texts;
};
const std::vector<elsewhere> RUN_ELSEWHERE = {
    {"./run", "run", {"demonstration.img"}},
    {"./test", "test", {}},
    {"./test -R Readme", "test", {"-R REGEX"}},
    {"./test --list", "test", {"--list"}},
    {"./test --full", "test", {"--full)"}},
    {"./test --deep", "test", {"--deep)"}},
    {"./test --coverage", "test", {"--coverage)"}},
    {"ctest --preset asan", "CMakePresets.json", {R"("testPresets")", R"({"name": "asan")"}},
    {"cmake --preset debug", "CMakePresets.json", {R"("name": "debug",)"}},
    {"cmake --build --preset debug", "CMakePresets.json", {R"("buildPresets")"}},
    {"sudo apt-get install cmake g++ make pkg-config libcli11-dev nlohmann-json3-dev libfmt-dev libfdisk-dev libblkid-dev uuid-dev libarchive-dev libzstd-dev nettle-dev zlib1g-dev",
     "cmake/choose_qvol.cmake",
     {"CLI11:libcli11-dev", "nlohmann_json:nlohmann-json3-dev", "fmt:libfmt-dev",
      "fdisk:libfdisk-dev", "blkid:libblkid-dev", "uuid:uuid-dev", "libarchive:libarchive-dev",
      "libzstd:libzstd-dev", "nettle:nettle-dev", "zlib:zlib1g-dev", "missing pkg-config"}},
    {"cmake -B build/release && cmake --build build/release && sudo cmake --install build/release",
     "CMakeLists.txt",
     {}},
    {"cmake -S examples -B build/examples", "examples/CMakeLists.txt", {"find_package(quorvel"}},
    {"cmake --build build/examples", "examples/CMakeLists.txt", {}},
    {"cmake -S . -B build/fuzz -DCMAKE_CXX_COMPILER=clang++ -DQUORVEL_BUILD_FUZZERS=ON",
     "CMakeLists.txt",
     {"option(QUORVEL_BUILD_FUZZERS"}},
    {"cmake --build build/fuzz", "fuzz/CMakeLists.txt", {}},
    {"fuzz/run build/fuzz 600", "fuzz/run", {"BUILD-DIR SECONDS"}},
    {"fuzz/run build/fuzz 600 mount calls", "fuzz/run", {"[TARGET...]", "mount", "calls"}},
    {"bench/run", "bench/run", {}},
    {"bench/run /dev/shm 21", "bench/run", {"[DIRECTORY [ROUNDS]]"}},
    {"scripts/lint format", "scripts/lint", {"format)"}},
    {"scripts/lint cppcheck", "scripts/lint", {"cppcheck)"}},
    {"scripts/lint tidy build", "scripts/lint", {"tidy BUILD-DIR", "tidy)"}},
    {"tests/mutate build/mutants 300", "tests/mutate", {"WORK-DIR [COUNT [SEED]]"}},
};

// The commands that must fail or find something, with their exit status.
const std::map<std::string, int> REFUSALS = {{"quorvel small.img", 255},
                                             {"fsck.fat -n disk.img", 1}};

const std::string PARTITION = "echo 'start=1MiB, size=32MiB, type=c' | sfdisk disk.img";

// The preparations of the workplace: commands that create existing files, or search for missing
// ones.
const std::map<std::string, std::string> PREPARATIONS = {
    {"qvol build disk.img#1 --from rootfs", "truncate -s 64M disk.img && " + PARTITION},
    {"qvol build flash.img --size auto --from rootfs.tar.zst --from overlay --exclude '*.a'",
     "rm -f flash.img; mkdir -p overlay && tar --zstd -cf rootfs.tar.zst -C rootfs ."},
    {"qvol build flash.img --size 64M --from - < rootfs.tgz",
     "rm -f flash.img; tar -czf rootfs.tgz -C rootfs ."},
    {"qvol build flash.img --size auto --from rootfs.tar.gz --bmap flash.bmap --force",
     "tar -czf rootfs.tar.gz -C rootfs ."},
    {"qvol flash flash.img medium.img", "rm -f medium.img; truncate -s 64M medium.img"},
    {"qvol info disk.img#1",
     "truncate -s 64M disk.img && " + PARTITION + " && qvol build disk.img#1"},
    {"qvol ln flash.img kernel-6.1.bin /boot/kernel.bin", "qvol rm flash.img /boot/kernel.bin"},
    {"qvol get flash.img / copy && cd copy && sha256sum -c ../flash.manifest",
     "qvol manifest flash.img > flash.manifest"},
    {"qvol mkdir flash.img /photos", "qvol rm -r flash.img /photos"},
    {"qvol owner flash.img 1234", "truncate -s 4M large.bin && qvol put flash.img large.bin /"},
    {"qvol put flash.img kernel.bin logo.bmp /boot",
     "qvol rm flash.img /boot/kernel.bin /boot/logo.bmp"},
    {"qvol put flash.img --from firmware.zip:/lib/firmware /",
     "mkdir -p firmware && touch firmware/a && bsdtar -cf firmware.zip --format=zip -C firmware ."},
    {"qvol put flash.img --from rootfs.tar.gz /",
     "qvol rm -r flash.img /boot /etc /photos; tar -czf rootfs.tar.gz -C rootfs ."},
    {"qvol put flash.img photos /", "qvol rm -r flash.img /photos"},
    {"qvol put flash.img rootfs/. /", "qvol rm -r flash.img /boot /etc /photos"},
    {"qvol undo flash.img before.undo",
     "printf '\\001' | dd of=flash.img bs=1 seek=37 conv=notrunc && " // the dirty flag
     "qvol check flash.img --repair --undo before.undo"},
    {"qvol verify flash.img flash.manifest", "qvol manifest flash.img > flash.manifest"},
};

// A line is a command where it begins so.
const std::set<std::string> PROGRAMS = {"./run",        "./test",   "bench/run",    "cmake",
                                        "ctest",        "fuzz/run", "qvol",         "quorvel",
                                        "scripts/lint", "sudo",     "tests/mutate", "truncate"};

struct shown_command {
    std::string text;
    std::string output; // what the document shows below it; empty: nothing
};
struct block {
    std::string where; // document and line
    std::vector<shown_command> commands;
};

// The command of a line of code: the text after "$ ", or before a remark, which two
// spaces separate. Empty: the line is not a command.
std::string command_of(const std::string &line) {
    if (begins_with(line, "$ ")) {
        return line.substr(2);
    }
    const text_list words = words_of(line);
    const bool is_command = !words.empty() && line[0] != ' ' && PROGRAMS.contains(words[0]);
    return is_command ? line.substr(0, line.find("  ")) : "";
}

// Lines below a command that a prompt marks are its output.
void add_line(const std::string &line, block *to) {
    const std::string command = command_of(line);
    if (!command.empty()) {
        to->commands.push_back({command, ""});
    } else if (!to->commands.empty()) {
        to->commands.back().output += line + "\n";
    }
}

// The blocks of a Markdown document that are indented by four spaces. Fenced ones are programs,
// which library_guide_test compiles, and pictures.
std::vector<block> blocks_of_markdown(const std::string &name) {
    std::vector<block> blocks;
    bool is_inside = false;
    int number = 0;
    for (const std::string &line : lines_of(source_text(name))) {
        number++;
        const bool is_code = begins_with(line, "    ");
        if (is_code && !is_inside) {
            blocks.push_back({name + ":" + std::to_string(number), {}});
        }
        is_inside = is_code;
        if (is_code) {
            add_line(line.substr(4), &blocks.back());
        }
    }
    std::erase_if(blocks, [](const block &b) { return b.commands.empty(); });
    return blocks;
}

// The examples of a manual page follow on each other: they are one block.
std::vector<block> blocks_of_manual(const std::string &name) {
    std::vector<block> blocks = {{name, {}}};
    for (const std::string &line : literal_lines(manual_page(name), "EXAMPLES")) {
        add_line(line, &blocks.back());
    }
    return blocks;
}

text_list markdown_documents() {
    text_list names = {"README.md", "CONTRIBUTING.md", "SECURITY.md", "CHANGELOG.md",
                       "examples/README.md"};
    for (const auto &entry : fs::directory_iterator(source_path("docs"))) {
        if (entry.path().extension() == ".md") {
            names.push_back("docs/" + entry.path().filename().string());
        }
    }
    return names;
}

std::vector<block> all_blocks() {
    std::vector<block> blocks;
    const auto add = [&blocks](const std::vector<block> &more) {
        blocks.insert(blocks.end(), more.begin(), more.end());
    };
    for (const std::string &name : markdown_documents()) {
        add(blocks_of_markdown(name));
    }
    add(blocks_of_manual("qvol.1"));
    add(blocks_of_manual("quorvel.8"));
    return blocks;
}

const elsewhere *found_elsewhere(const std::string &command) {
    const auto found = std::find_if(RUN_ELSEWHERE.begin(), RUN_ELSEWHERE.end(),
                                    [&](const elsewhere &e) { return e.command == command; });
    return found == RUN_ELSEWHERE.end() ? nullptr : &*found;
}

// A directory with the files that the documents assume: the programs, a tree of the host, and an
// image, flash.img, with something in it.
class workplace {
public:
    workplace() {
        link("quorvel", tool_path());
        link("qvol", qvol_path());
        link("zuq_player", std::string(QUORVEL_EXAMPLES) + "/zuq_player");
        link("flash_model", std::string(QUORVEL_EXAMPLES) + "/flash_model");
        link("make-image", source_path("examples/make-image"));
        for (const char *name : {"rootfs/etc/fstab",
                                 "rootfs/boot/loader.bin",
                                 "rootfs/photos/IMG_0001.jpg",
                                 "photos/IMG_0001.jpg",
                                 "photos/2024/May.jpg",
                                 "kernel.bin",
                                 "logo.bmp",
                                 "config.txt",
                                 "intro.mp3",
                                 "movie.avi",
                                 "content/photos/IMG_0001.jpg",
                                 "content/photos/2024/May.jpg",
                                 "content/etc/config.txt",
                                 "content/boot/kernel.bin",
                                 "content/boot/logo.bmp",
                                 "content/notes.txt",
                                 "content/a.jpg",
                                 "content/b.jpg",
                                 "content/firmware.bin",
                                 "efi/EFI/BOOT/BOOTX64.EFI",
                                 "boot/kernel.bin",
                                 "data/log.txt",
                                 "root.ext4"}) {
            write(name, name);
        }
        // ./run builds the formatter and passes its arguments on.
        write("run", "#!/bin/sh\nexec quorvel \"$@\"\n");
        fs::permissions(path("run"), fs::perms::owner_all);
        prepare_image();
    }

    // An image that a command makes is not there before it.
    outcome run(const std::string &command) const {
        const bool makes_image = command.find("qvol build flash.img") != std::string::npos ||
                                 command.find("make-image") != std::string::npos;
        if (makes_image) {
            fs::remove(path("flash.img"));
        }
        if (command.find("qvol disk card.img") != std::string::npos) {
            fs::remove(path("card.img"));
        }
        return shell("cd \"$1\" && export PATH=\"$1/bin:$PATH\" && " + command,
                     {scratch_.file("")});
    }

private:
    [[nodiscard]] std::string path(const std::string &name) const {
        return scratch_.file(name);
    }
    void write(const std::string &name, const std::string &content) const {
        fs::create_directories(fs::path(path(name)).parent_path());
        std::ofstream(path(name)) << content;
    }
    void link(const std::string &name, const std::string &target) const {
        fs::create_directories(path("bin"));
        fs::create_symlink(target, path("bin/" + name));
    }
    void prepare_image() const {
        const outcome made = run("truncate -s 64M flash.img && quorvel -S 512 -s 4 flash.img && "
                                 "mkdir content/empty-directory && "
                                 "qvol put flash.img content/. / && rm -r content");
        EXPECT_EQ(made.status, 0) << made;
    }

    scratch_directory scratch_;
};

void expect_that_all_run(const block &commands) {
    const workplace here;
    for (const auto &[command, shown] : commands.commands) {
        if (found_elsewhere(command) != nullptr) {
            continue;
        }
        const auto preparation = PREPARATIONS.find(command);
        if (preparation != PREPARATIONS.end()) {
            (void)here.run(preparation->second); // may have been done by a command in front
        }
        const auto refusal = REFUSALS.find(command);
        const outcome result = here.run(command);
        EXPECT_EQ(result.status, refusal == REFUSALS.end() ? 0 : refusal->second)
            << commands.where << ": " << command << ": " << result;
        if (!shown.empty() && refusal == REFUSALS.end()) {
            EXPECT_EQ(shown, result.out) << commands.where << ": " << command;
        }
    }
}

// The examples in the help of a command. Devices are left out.
text_list examples_of_help(const std::string &command) {
    text_list examples;
    bool is_inside = false;
    for (const std::string &line : lines_of(run({qvol_path(), command, "--help"}).out)) {
        if (is_inside && begins_with(line, "  ") && line.find("/dev/") == std::string::npos) {
            const std::string text = line.substr(2);
            examples.push_back(text.substr(0, text.find("  ")));
        }
        is_inside = is_inside || line == "Examples:";
    }
    return examples;
}

} // namespace

TEST(Documents, EveryCommandThatTheyShowRuns) {
    const std::vector<block> blocks = all_blocks();
    EXPECT_GT(blocks.size(), 15U);
    for (const block &commands : blocks) {
        expect_that_all_run(commands);
    }
}

TEST(Documents, EveryExampleOfTheHelpRuns) {
    for (const std::string &command : help_of_qvol({qvol_path(), "--help"}).commands) {
        const text_list examples = examples_of_help(command);
        EXPECT_FALSE(examples.empty()) << command;
        for (const std::string &example : examples) {
            expect_that_all_run({"qvol " + command + " --help", {{example, ""}}});
        }
    }
}

TEST(Documents, ShowEveryCommandThatIsRunElsewhere) {
    std::set<std::string> shown;
    for (const block &commands : all_blocks()) {
        for (const shown_command &command : commands.commands) {
            shown.insert(command.text);
        }
    }
    for (const elsewhere &known : RUN_ELSEWHERE) {
        EXPECT_TRUE(shown.contains(known.command)) << known.command;
    }
    for (const auto &[command, status] : REFUSALS) {
        EXPECT_TRUE(shown.contains(command)) << command;
    }
}

TEST(Documents, CommandsRunElsewhereAreAcceptedByTheirScripts) {
    for (const elsewhere &known : RUN_ELSEWHERE) {
        const std::string script = source_text(known.script);
        EXPECT_FALSE(script.empty()) << known.script;
        for (const std::string &text : known.texts) {
            EXPECT_NE(script.find(text), std::string::npos) << known.command << ": " << text;
        }
        const bool is_program = words_of(known.command)[0].find('/') != std::string::npos;
        const auto mode = fs::status(source_path(known.script)).permissions();
        EXPECT_EQ((mode & fs::perms::owner_exec) != fs::perms::none, is_program) << known.command;
    }
}

TEST(Documents, LinksLeadToFiles) {
    const std::regex link("\\]\\(([^)#]+)[^)]*\\)");
    for (const std::string &name : markdown_documents()) {
        const std::string text = source_text(name);
        for (std::sregex_iterator it(text.begin(), text.end(), link), end; it != end; ++it) {
            const std::string target = it->str(1);
            const fs::path path = fs::path(source_path(name)).parent_path() / target;
            EXPECT_TRUE(begins_with(target, "https://") || fs::exists(path))
                << name << ": " << target;
        }
    }
}

TEST(Documents, ThePictureOfTheTreeShowsEveryDirectory) {
    std::set<std::string> shown;
    const std::regex directory("([a-z]+)/ +[^ ].*");
    for (const std::string &line : lines_of(source_text("CONTRIBUTING.md"))) {
        std::smatch match;
        if (std::regex_match(line, match, directory)) {
            shown.insert(match.str(1));
        }
    }
    std::set<std::string> found;
    for (const auto &entry : fs::directory_iterator(source_path(""))) {
        const std::string name = entry.path().filename().string();
        if (entry.is_directory() && name[0] != '.' && name != "build") {
            found.insert(name);
        }
    }
    EXPECT_EQ(shown, found);
}
