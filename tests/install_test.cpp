// The files that `cmake --install` installs, and programs in C and C++ that are built against it,
// or against the source tree from inside another project.

#include "tests/support/files.h"
#include "tests/support/process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

using namespace testing_support;

namespace {

namespace fs = std::filesystem;

const std::string SOURCE = QUORVEL_SOURCE_DIR;
const std::string CONSUMER = SOURCE + "/tests/consumer/";
const outcome WELL = {0, "", ""};

// The library's directory below the prefix.
const std::string LIBDIR = QUORVEL_LIBDIR;

class ConsumerTest : public ::testing::Test {
protected:
    scratch_directory scratch;
    const std::string image = scratch.sparse_file("disk.img", 4 << 20);

    void SetUp() override {
        if (QUORVEL_SANITIZED || QUORVEL_COVERED) {
            GTEST_SKIP() << "what is installed is built without instruments";
        }
    }

    // The C program makes a volume, the C++ program finds the files on it.
    void expect_both_work(const std::string &maker, const std::string &lister) const {
        EXPECT_EQ(run({maker, image}), (outcome{0, "made\n", ""}));
        EXPECT_EQ(run({lister, image}), (outcome{0, "Made in C\n", ""}));
    }

    // Configures tests/consumer into `build` and builds all of it; prints the output of a failure.
    static void build_consumer(const std::string &build, std::vector<std::string> settings) {
        settings.insert(settings.begin(),
                        {"cmake", "-S", CONSUMER, "-B", build,
                         std::string("-DCMAKE_C_COMPILER=") + QUORVEL_C_COMPILER,
                         std::string("-DCMAKE_CXX_COMPILER=") + QUORVEL_CXX_COMPILER});
        const outcome configured = run(settings);
        ASSERT_EQ(configured.status, 0) << configured;
        const outcome built = run({"cmake", "--build", build, "-j", "2"});
        ASSERT_EQ(built.status, 0) << built;
    }
};

class InstalledTest : public ConsumerTest {
protected:
    std::string prefix = scratch.file("prefix");

    void SetUp() override {
        ConsumerTest::SetUp();
        if (!IsSkipped()) {
            const outcome installed =
                run({"cmake", "--install", QUORVEL_BUILD_DIR, "--prefix", prefix});
            ASSERT_EQ(installed.status, 0) << installed;
        }
    }

    [[nodiscard]] std::string installed(const std::string &name) const {
        return prefix + "/" + name;
    }

    // Compiles a program of tests/consumer with the flags of pkg-config and returns its path.
    [[nodiscard]] std::string by_pkg_config(const std::string &compiler, const std::string &source,
                                            const std::string &link) const {
        std::string program = scratch.file(source + link);
        EXPECT_EQ(
            shell("exec \"$1\" -Wall -Wextra -Werror $2 \"$3\" -o \"$4\" "
                  "$(PKG_CONFIG_PATH=$5 pkg-config --cflags --libs $2 quorvel)",
                  {compiler, link, CONSUMER + source, program, installed(LIBDIR + "/pkgconfig")}),
            WELL);
        return program;
    }

    // A directory of the prefix as the name that the loader searches.
    void use_installed_library() const {
        setenv("LD_LIBRARY_PATH", installed(LIBDIR).c_str(), 1);
    }

    [[nodiscard]] std::string package_setting() const {
        return "-DCMAKE_PREFIX_PATH=" + prefix;
    }
};

std::string entry_text(const std::string &name, const fs::path &path) {
    return fs::is_symlink(path) ? name + " -> " + fs::read_symlink(path).string() : name;
}

std::set<std::string> files_below(const fs::path &directory) {
    std::set<std::string> result;
    for (const auto &entry : fs::recursive_directory_iterator(directory)) {
        if (!fs::is_directory(entry.symlink_status())) {
            result.insert(entry_text(entry.path().lexically_relative(directory), entry.path()));
        }
    }
    return result;
}

// The written list, for the library directory and the programs of this build.
std::set<std::string> listed_files() {
    std::ifstream list(SOURCE + "/tests/data/installed-files.txt");
    std::set<std::string> result;
    for (std::string line; std::getline(list, line);) {
        if (line.starts_with("lib/")) {
            line.replace(0, 3, LIBDIR);
        }
        if (line != "bin/qvol" || QUORVEL_HAS_QVOL) {
            result.insert(line);
        }
    }
    return result;
}

// Where a file of man/ goes: "share/man/man8/quorvel.8".
std::string man_place(const std::string &page) {
    return "share/man/man" + page.substr(page.rfind('.') + 1) + "/" + page;
}

std::string completion_place(const std::string &name) {
    return name.starts_with("_")
               ? "share/zsh/site-functions/" + name
               : "share/bash-completion/completions/" + name.substr(0, name.find(".bash"));
}

// The installed counterpart of each file of a directory of the source tree.
template <typename Place>
std::set<std::string> placed(const std::string &directory, Place place) {
    std::set<std::string> result;
    if (fs::exists(SOURCE + "/" + directory)) {
        for (const std::string &name : files_below(SOURCE + "/" + directory)) {
            result.insert(place(name));
        }
    }
    return result;
}

} // namespace

// ---- from an installed prefix -----------------------------------------------------------------

TEST_F(InstalledTest, PrefixHoldsTheListedFilesThePagesAndTheDocumentsAndNothingElse) {
    std::set<std::string> expected = listed_files();
    expected.merge(placed("man", man_place));
    expected.merge(placed("completions", completion_place));
    for (const std::string directory : {"docs", "examples"}) {
        expected.merge(placed(directory, [&directory](const std::string &name) {
            return "share/doc/quorvel/" + directory + "/" + name;
        }));
    }
    expected.erase("share/doc/quorvel/examples/CMakeLists.txt");
    if (!QUORVEL_HAS_QVOL) {
        std::erase_if(expected, [](const std::string &name) {
            return fs::path(name).stem() == "qvol" || name.ends_with("/_qvol");
        });
    }
    EXPECT_EQ(files_below(prefix), expected);
}

TEST_F(InstalledTest, SharedLibraryIsCalledByItsMajorVersion) {
    EXPECT_NE(run({"readelf", "-d", installed(LIBDIR + "/libquorvel.so")})
                  .out.find("Library soname: [libquorvel.so.1]"),
              std::string::npos);
}

TEST_F(InstalledTest, ProgramsRunFromThere) {
    EXPECT_EQ(run({installed("sbin/quorvel"), image}).status, 255); // too small for the defaults
    EXPECT_EQ(run({installed("sbin/quorvel"), "-S", "512", image}),
              (outcome{0, "Success to format\n", ""}));
    if (QUORVEL_HAS_QVOL) {
        EXPECT_EQ(run({installed("bin/qvol"), "--version"}), (outcome{0, "qvol 1.2.3\n", ""}));
    }
}

TEST_F(InstalledTest, PkgConfigLinksWithTheSharedLibrary) {
    const std::string maker = by_pkg_config(QUORVEL_C_COMPILER, "make.c", "");
    const std::string lister = by_pkg_config(QUORVEL_CXX_COMPILER, "list.cpp", "");
    EXPECT_NE(run({"readelf", "-d", maker}).out.find("[libquorvel.so.1]"), std::string::npos);
    use_installed_library();
    expect_both_work(maker, lister);
}

TEST_F(InstalledTest, PkgConfigLinksStaticPrograms) {
    const std::string maker = by_pkg_config(QUORVEL_C_COMPILER, "make.c", "-static");
    const std::string lister = by_pkg_config(QUORVEL_CXX_COMPILER, "list.cpp", "-static");
    EXPECT_NE(run({"readelf", "-d", maker}).out.find("no dynamic section"), std::string::npos);
    expect_both_work(maker, lister);
}

TEST_F(InstalledTest, PkgConfigAndCMakePackageWorkFromAMovedPrefix) {
    const std::string moved = scratch.file("moved to here");
    fs::rename(prefix, moved);
    prefix = moved;
    EXPECT_EQ(shell("grep -rlF \"$1/prefix\" \"$2\"", {scratch.file(""), moved}).out, "");
    const outcome flags =
        shell("PKG_CONFIG_PATH=$1 pkg-config --cflags quorvel", {installed(LIBDIR + "/pkgconfig")});
    EXPECT_NE(flags.out.find("moved\\ to\\ here"), std::string::npos) << flags;
    const std::string build = scratch.file("build");
    build_consumer(build, {"-DCONSUMER_FINDS=package", package_setting()});
    expect_both_work(build + "/make_static", build + "/list_static");
    expect_both_work(build + "/make_shared", build + "/list_shared");
}

TEST_F(InstalledTest, AProjectInCAloneLinksWithLibcAlone) {
    const std::string build = scratch.file("build");
    build_consumer(build,
                   {"-DCONSUMER_FINDS=package", "-DCONSUMER_LANGUAGES=C", package_setting()});
    EXPECT_EQ(run({build + "/make_static", image}), (outcome{0, "made\n", ""}));
    EXPECT_EQ(run({build + "/make_shared", image}), (outcome{0, "made\n", ""}));
    const outcome needed = shell("readelf -d \"$1\" | grep -o '\\[lib[^]]*\\]'", //
                                 {build + "/make_static"});
    EXPECT_EQ(needed.out, "[libc.so.6]\n");
}

TEST_F(InstalledTest, CMakePackageRefusesAnotherMajorVersion) {
    for (const char *version : {"2.0", "1.3", "0.9"}) {
        const outcome refused =
            run({"cmake", "-S", CONSUMER, "-B", scratch.file("build"), "-DCONSUMER_FINDS=package",
                 "-DCONSUMER_LANGUAGES=C", std::string("-DCONSUMER_VERSION=") + version,
                 package_setting()});
        EXPECT_EQ(refused.status, 1) << version;
        EXPECT_NE(refused.err.find("quorvelConfig.cmake, version: 1.2.3"), std::string::npos)
            << refused;
    }
}

// ---- inside another project -------------------------------------------------------------------

class SubprojectTest : public ConsumerTest {
protected:
    const std::string build = scratch.file("build");

    void SetUp() override {
        if (!QUORVEL_FULL) {
            GTEST_SKIP() << "builds the library again: in the full stage";
        }
        ConsumerTest::SetUp();
    }
    void build_with(const std::string &way, const std::string &form) const {
        build_consumer(build, {"-DCONSUMER_FINDS=" + way, "-DCONSUMER_SOURCE=" + SOURCE,
                               "-DCONSUMER_FORMS=" + form});
        expect_both_work(build + "/make_" + form, build + "/list_" + form);
    }
};

TEST_F(SubprojectTest, AddSubdirectoryBuildsTheLibraryAskedForAndNothingElse) {
    build_with("directory", "static");
    EXPECT_FALSE(fs::exists(build + "/quorvel/libquorvel.so"));
    EXPECT_FALSE(fs::exists(build + "/quorvel/quorvel"));
    EXPECT_FALSE(fs::exists(build + "/quorvel/qvol"));
    EXPECT_NE(run({"ctest", "--test-dir", build, "-N"}).out.find("Total Tests: 0\n"),
              std::string::npos);
    const std::string prefix = scratch.file("prefix");
    EXPECT_EQ(run({"cmake", "--install", build, "--prefix", prefix}).status, 0);
    EXPECT_FALSE(fs::exists(prefix));
}

TEST_F(SubprojectTest, FetchContentGivesTheSameTargets) {
    build_with("content", "shared");
    EXPECT_FALSE(fs::exists(build + "/_deps/quorvel-build/libquorvel.a"));
}
