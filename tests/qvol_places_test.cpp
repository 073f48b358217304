// Partitions and ranges of disk images and block devices as images of qvol. sfdisk, sgdisk and
// fdisk make the tables; fsck.fat checks what was built.

#include "tests/model/names.h"
#include "tests/support/loop_device.h"
#include "tests/support/qvol.h"

#include <nlohmann/json.hpp>

#include <map>

#include <sys/file.h>
#include <sys/stat.h>

using namespace testing_support;
using nlohmann::json;

namespace {

// Partition 1 with the name "boot" from 1 to 4 MiB, and 2 from 4 to 7 MiB.
const std::string GPT = "label: gpt\n"
                        "start=2048, size=6144, type=uefi, name=boot\n"
                        "start=8192, size=6144\n";
// An extended partition 2 with the logical partitions 5, from 3 to 6 MiB, and 6.
const std::string MBR = "label: dos\n"
                        "1: start=2048, size=2048, type=1\n"
                        "2: start=4096, size=12288, type=5\n"
                        "5: start=6144, size=6144, type=6\n"
                        "6: start=14336, size=1024, type=1\n";

std::string replaced(std::string text, const std::string &from, const std::string &to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

// The checksum of a GPT.
std::uint32_t crc_of(const bytes &content, std::size_t offset, std::size_t size) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (std::size_t i = offset; i < offset + size; i++) {
        crc ^= content[i];
        for (int bit = 0; bit < 8; bit++) {
            crc = crc >> 1 ^ (crc % 2 != 0 ? 0xEDB88320 : 0);
        }
    }
    return ~crc;
}

class QvolPlaces : public QvolImage {
protected:
    static constexpr std::uint64_t MIB = 1 << 20;

    QvolPlaces() {
        setenv("SOURCE_DATE_EPOCH", "1700000000", 1);
        disk_ = scratch_.file_with("disk.img", bytes(8 * MIB, 0xA5));
        twin_ = scratch_.file("twin.img");
    }
    ~QvolPlaces() override {
        unsetenv("SOURCE_DATE_EPOCH");
    }

    // Runs the program with the script as its input.
    void partition_with(const std::string &program, const std::string &script) {
        const outcome made =
            shell("printf '%s' \"$2\" | " + program + " \"$1\" 2>&1", {disk_, script});
        ASSERT_EQ(made.status, 0) << made;
    }
    // Tables that are made more than once are stored: sfdisk syncs all disks of the system.
    void partition(const std::string &script) {
        static std::map<std::string, bytes> disks;
        if (!disks.contains(script)) {
            partition_with("sfdisk -q", script);
            disks[script] = read_file(disk_);
        }
        disk_ = scratch_.file_with("disk.img", disks[script]);
    }

    // Builds a volume from a small tree on a place of the disk, which is the image from then on.
    void build(const std::string &place, std::vector<std::string> arguments = {}) {
        host_file("tree/a.txt", "a text\n");
        host_file("tree/dir/a long name", std::string(3000, 'x'));
        image_ = disk_ + place;
        arguments.insert(arguments.end(), {"--force", "--from", scratch_.file("tree")});
        const outcome built = qvol("build", arguments);
        ASSERT_EQ(built.status, 0) << built;
    }

    void poke(const std::string &file, std::uint64_t offset, const bytes &content) {
        std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
        stream.seekp(static_cast<std::streamoff>(offset));
        stream.write(reinterpret_cast<const char *>(content.data()),
                     static_cast<std::streamsize>(content.size()));
    }

    // A part of the disk as a file of its own.
    std::string extracted(std::uint64_t offset, std::uint64_t size) {
        return scratch_.file_with("twin.img",
                                  read_range(disk_, offset, static_cast<std::size_t>(size)));
    }

    // Everything but a part of the disk.
    [[nodiscard]] bytes around(std::uint64_t offset, std::uint64_t size) const {
        bytes all = read_file(disk_);
        const auto begin = all.begin() + static_cast<std::ptrdiff_t>(offset);
        all.erase(begin, begin + static_cast<std::ptrdiff_t>(size));
        return all;
    }

    outcome refusal(const std::string &reason, int status = 1) {
        return {status, "", "qvol: " + reason + "\n"};
    }

    std::string disk_;
    std::string twin_;
};

} // namespace

// ---- commands ---------------------------------------------------------------------------------

TEST_F(QvolPlaces, EveryCommandDoesTheSameInAPartitionAsInAFileOfItsOwn) {
    constexpr std::uint64_t OFFSET = 3 * MIB;
    constexpr std::uint64_t SIZE = 3 * MIB;
    partition(MBR);
    const bytes outside = around(OFFSET, SIZE);
    build("#5");
    extracted(OFFSET, SIZE);
    const std::string out = scratch_.file("out");
    const std::string source = host_file("source", std::string(5000, 's'));
    const std::vector<std::vector<std::string>> commands = {
        {"ls", "-lR"},
        {"tree"},
        {"stat", "/a.txt"},
        {"cat", "/a.txt"},
        {"get", "-f", "/a.txt", out},
        {"mkdir", "-p", "/new/below"},
        {"put", source, "/new"},
        {"mv", "/a.txt", "/new/b.txt"},
        {"ln", "b.txt", "/new/link"},
        {"rm", "-r", "/dir"},
        {"pool"},
        {"log"},
        {"fastpath", "/new/source"},
        {"owner", "3"},
        {"dump", "-f", "fat", out},
        {"map"},
        {"check"},
    };
    const auto renamed = [](const std::string &text) {
        return replaced(text, "twin.img", "disk.img#5");
    };
    const auto expect_same = [&](std::vector<std::string> words) {
        SCOPED_TRACE(words[0]);
        words.insert(words.begin() + 1, twin_);
        const outcome apart = run_qvol(words);
        words[1] = image_;
        const outcome in_place = run_qvol(words);
        EXPECT_EQ(in_place, (outcome{apart.status, renamed(apart.out), renamed(apart.err)}));
        EXPECT_TRUE(has_content(twin_, read_range(disk_, OFFSET, SIZE)));
        return in_place.status;
    };
    for (const std::vector<std::string> &words : commands) {
        EXPECT_EQ(expect_same(words), 0) << words[0];
    }
    // A lost cluster in the first copy of the FAT, at sector 8.
    const std::uint64_t lost = 8 * 512 + 2000 * 2;
    poke(disk_, OFFSET + lost, {0xFF, 0xFF});
    poke(twin_, lost, {0xFF, 0xFF});
    EXPECT_EQ(expect_same({"check"}), 1);
    EXPECT_EQ(expect_same({"mirror"}), 0);
    EXPECT_EQ(expect_same({"check", "--repair", "--no-undo"}), 0);
    EXPECT_EQ(run({"fsck.fat", "-n", twin_}).status, 0);
    EXPECT_EQ(qvol("compact"), refusal("cannot cut " + image_ +
                                       ": it is a part of a disk, only image files can be cut"));
    EXPECT_EQ(around(OFFSET, SIZE), outside);
}

// ---- building ---------------------------------------------------------------------------------

TEST_F(QvolPlaces, BuildsOnEveryKindOfPlace) {
    struct row {
        std::string name;
        std::string program; // the script is its input
        std::string script;
        std::string place;
        std::uint64_t offset;
        std::uint64_t size;
        std::uint32_t sector = 512;
    };
    const std::string on_4k = "g\nn\n1\n256\n1023\nw\n";
    const std::vector<row> rows = {
        {"GPT", "sfdisk", GPT, "#2", 4 * MIB, 3 * MIB},
        {"MBR", "sfdisk", MBR, "#01", MIB, MIB},
        {"logical", "sfdisk", MBR, "#6", 7 * MIB, MIB / 2},
        {"hybrid", "sgdisk -n 1:4096:8191 -n 2:8192:10239 -h 1", "", "#1", 2 * MIB, 2 * MIB},
        {"GPT of 4096", "fdisk -b 4096", on_4k, "#1", MIB, 3 * MIB, 4096},
        {"range", "true", "", "@0x100000+4096s", MIB, 2 * MIB},
        {"rest", "true", "", "@12345", 12345, 8 * MIB - 12345},
    };
    for (const row &one : rows) {
        SCOPED_TRACE(one.name);
        const std::string program = one.program.substr(0, one.program.find(' '));
        if (!has_program(program)) {
            std::cout << program << " is not installed\n";
            continue;
        }
        (void)scratch_.file_with("disk.img", bytes(8 * MIB, 0xA5));
        if (program == "sfdisk") {
            partition(one.script);
        } else {
            partition_with(one.program, one.script);
        }
        const bytes outside = around(one.offset, one.size);
        build(one.place);
        EXPECT_EQ(around(one.offset, one.size), outside);
        EXPECT_EQ(said("cat", {"/a.txt"}), "a text\n");
        const json info = json::parse(said("info", {"--json"}));
        EXPECT_EQ(info["offset"], one.offset);
        EXPECT_EQ(info["image_bytes"], one.size);
        EXPECT_EQ(info["sector_size"], one.sector);
        EXPECT_EQ(number_at(read_range(disk_, one.offset, 512), 28, 4), one.offset / one.sector);
        const outcome checked = run({"fsck.fat", "-n", extracted(one.offset, one.size)});
        EXPECT_EQ(checked.status, 0) << checked;
    }
}

TEST_F(QvolPlaces, BuildsBeyondTwoTebibytes) {
    constexpr std::uint64_t TIB = std::uint64_t{1} << 40;
    std::error_code failure;
    std::filesystem::resize_file(disk_, 3 * TIB, failure);
    if (failure) {
        GTEST_SKIP() << "no file of 3 TiB: " << failure.message();
    }
    partition_with("sfdisk -q",
                   "label: gpt\nstart=" + std::to_string(5 * TIB / 2 / 512) + ", size=6144\n");
    build("#1");
    EXPECT_EQ(said("cat", {"/a.txt"}), "a text\n");
    const bytes boot_sector = read_range(disk_, 5 * TIB / 2, 512);
    EXPECT_EQ(boot_sector[510], 0x55);
    EXPECT_EQ(number_at(boot_sector, 28, 4), 0U); // more sectors than the field can hold
    image_ = disk_ + "@2560G+3M";
    EXPECT_EQ(said("cat", {"/a.txt"}), "a text\n");
}

TEST_F(QvolPlaces, BuildTakesWhatIsGiven) {
    partition(GPT);
    image_ = disk_ + "#1";
    EXPECT_EQ(qvol("build"),
              refusal("cannot build on " + image_ + ": not blank; --force overwrites its content"));
    EXPECT_EQ(qvol("build", {"--force", "--compact"}),
              refusal("cannot use --compact on " + image_ + ": only an image file can be cut", 2));
    EXPECT_EQ(qvol("build", {"--force", "--size", "4M"}),
              refusal("--size 4M: larger than " + image_ + ", which has 3.0 MiB"));
    EXPECT_EQ(qvol("build", {"--force", "--from", scratch_.file("")}),
              refusal("cannot build " + disk_ + ": it is below " + scratch_.file("") +
                      " and would contain itself; choose another path"));
    build("#1", {"--size", "auto", "--hidden-sectors", "0"});
    const bytes boot_sector = read_range(disk_, MIB, 512);
    EXPECT_EQ(number_at(boot_sector, 28, 4), 0U);
    EXPECT_LT(number_at(boot_sector, 19, 2), 200U);
    image_ = disk_ + "@2049s+1M";
    const std::string remark = said("build", {"--force"});
    EXPECT_TRUE(remark.starts_with(image_ + " begins at byte 1049088, not on a page of 4.0 KiB: "))
        << remark;
}

TEST_F(QvolPlaces, AMissingFileHasNoPlaces) {
    image_ = scratch_.file("new.img@1M");
    said("build", {"--size", "64K"});
    EXPECT_EQ(std::filesystem::file_size(image_), 65536U);
    EXPECT_FALSE(std::filesystem::exists(scratch_.file("new.img")));
}

// ---- tables -----------------------------------------------------------------------------------

TEST_F(QvolPlaces, ListsThePartitionsOfADisk) {
    partition(GPT);
    build("#1", {"--label", "SYSTEM"});
    image_ = disk_;
    const std::string list = "\n  " + disk_ +
                             "#1: EFI System, 3.0 MiB at 1.0 MiB, vfat \"boot\" \"SYSTEM\"\n  " +
                             disk_ + "#2: Linux filesystem, 3.0 MiB at 4.0 MiB";
    EXPECT_EQ(qvol("ls"), refusal("cannot mount " + disk_ +
                                  ": it is a partitioned disk; name one of its partitions" + list));
    image_ = disk_ + "#3";
    EXPECT_EQ(qvol("ls"), refusal("cannot open " + image_ + ": no such partition" + list));
    partition(MBR);
    image_ = disk_ + "#2";
    const outcome extended = qvol("ls");
    EXPECT_EQ(extended.status, 1);
    EXPECT_TRUE(extended.err.starts_with("qvol: cannot open " + image_ +
                                         ": an extended partition, which contains others\n  " +
                                         disk_ + "#1: FAT12, 1.0 MiB at 1.0 MiB"))
        << extended;
}

TEST_F(QvolPlaces, ADamagedGptIsReadFromItsBackup) {
    partition(GPT);
    build("#1");
    poke(disk_, 512, bytes(512, 0));
    EXPECT_EQ(qvol("cat", {"/a.txt"}),
              (outcome{0, "a text\n",
                       "qvol: " + disk_ +
                           ": The primary GPT table is corrupt, but the backup appears OK, so that "
                           "will be used.\n"}));
    poke(disk_, 8 * MIB - 512, bytes(512, 0));
    const std::string damaged = "cannot read the partitions of " + disk_ +
                                ": neither its GPT nor the backup of it is valid";
    EXPECT_EQ(qvol("ls"), refusal(damaged));
    EXPECT_EQ(qvol("build", {"--force"}), refusal(damaged));
    image_ = disk_;
    EXPECT_EQ(qvol("ls"), refusal(damaged));
}

TEST_F(QvolPlaces, AGptOfAnotherDiskLengthIsRead) {
    partition(GPT);
    build("#1");
    std::filesystem::resize_file(disk_, 9 * MIB);
    EXPECT_EQ(
        qvol("cat", {"/a.txt"}),
        (outcome{0, "a text\n",
                 "qvol: " + disk_ + ": The backup GPT table is not on the end of the device.\n"}));
    std::filesystem::resize_file(disk_, 5 * MIB);
    EXPECT_EQ(qvol("mkdir", {"/x"}),
              (outcome{0, "",
                       "qvol: " + disk_ +
                           ": The backup GPT table is corrupt, but the primary appears OK, so that "
                           "will be used.\n"}));
    image_ = disk_ + "#2";
    const outcome refused = qvol("build", {"--force"});
    EXPECT_TRUE(refused.err.ends_with("cannot write to " + image_ +
                                      ": the partition ends at 7.0 MiB, " + disk_ +
                                      " at 5.0 MiB\n"))
        << refused;
    EXPECT_EQ(std::filesystem::file_size(disk_), 5 * MIB);
}

TEST_F(QvolPlaces, APartitionPastAllBytesIsLeftOut) {
    constexpr std::size_t HEADER = 512;
    constexpr std::size_t ENTRIES = 1024;
    partition(GPT);
    build("#1");
    bytes tables = read_range(disk_, 0, ENTRIES + 128 * 128);
    // First and last sector of partition 1, 2^55 sectors later: its offset in bytes has 65 bits.
    tables[ENTRIES + 32 + 6] = 0x80;
    tables[ENTRIES + 40 + 6] = 0x80;
    model::put_field(&tables, HEADER + 88, 4, crc_of(tables, ENTRIES, 128 * 128));
    model::put_field(&tables, HEADER + 16, 4, 0);
    model::put_field(&tables, HEADER + 16, 4, crc_of(tables, HEADER, 92));
    poke(disk_, 0, tables);
    EXPECT_EQ(qvol("ls"), refusal("cannot open " + image_ + ": no such partition\n  " + disk_ +
                                  "#2: Linux filesystem, 3.0 MiB at 4.0 MiB"));
}

TEST_F(QvolPlaces, ATruncatedPartitionIsReadButNotWritten) {
    partition(MBR);
    build("#1");
    const json info = json::parse(said("info", {"--json"}));
    // The two files and the directory between them have a cluster each.
    ASSERT_GE(info["cluster_size"], 3000U);
    std::filesystem::resize_file(disk_, MIB + info["areas"].back()["offset"].get<std::uint64_t>() +
                                            2 * info["cluster_size"].get<std::uint64_t>());
    const bytes before = read_file(disk_);
    EXPECT_EQ(qvol("cat", {"/a.txt"}).out, "a text\n");
    EXPECT_EQ(qvol("cat", {"/dir/a long name"}).status, 1);
    const outcome checked = qvol("check", {"--json"});
    EXPECT_EQ(checked.status, 1);
    EXPECT_EQ(json::parse(checked.out)["findings"][0]["kind"], "behind-image");
    for (const char *command : {"pool", "build"}) {
        const outcome refused = qvol(command);
        EXPECT_EQ(refused.status, 1);
        EXPECT_NE(refused.err.find("cannot write to " + image_ +
                                   ": the partition ends at 2.0 MiB, " + disk_ + " at 1.0 MiB\n"),
                  std::string::npos)
            << refused;
    }
    EXPECT_EQ(read_file(disk_), before);
}

TEST_F(QvolPlaces, ABootSectorIsNoTable) {
    build("@0");
    poke(disk_, 446, bytes(64, 0x31));
    image_ = disk_ + "#1";
    EXPECT_EQ(qvol("ls"), refusal("cannot open " + image_ + ": no partitions found"));
    image_ = disk_;
    EXPECT_EQ(said("cat", {"/a.txt"}), "a text\n");
}

TEST_F(QvolPlaces, AVolumeThatIsLongerThanItsPlaceIsNotWritten) {
    build("@1M+3M");
    image_ = disk_ + "@1M+2M";
    const bytes before = read_file(disk_);
    EXPECT_EQ(said("cat", {"/a.txt"}), "a text\n");
    EXPECT_EQ(qvol("mkdir", {"/x"}),
              refusal("cannot write to " + image_ +
                      ": its boot sector contradicts itself\n"
                      "  the volume has 6144 sectors, should have at most 4096 to fit"));
    EXPECT_EQ(read_file(disk_), before);
}

// ---- names ------------------------------------------------------------------------------------

TEST_F(QvolPlaces, AFileOfThisNameComesFirst) {
    build("@1M+3M");
    for (const std::string name : {"disk.img#1", "disk.img@1M", "with@1M/disk.img", "#1"}) {
        SCOPED_TRACE(name);
        image_ = scratch_.file(name);
        std::filesystem::create_directories(std::filesystem::path(image_).parent_path());
        (void)scratch_.sparse_file(name, 1);
        said("build", {"--size", "64K", "--force"});
        EXPECT_EQ(std::filesystem::file_size(image_), 65536U);
        EXPECT_EQ(said("ls"), "");
    }
    std::filesystem::rename(disk_, scratch_.file("disk.img#1"));
    image_ = scratch_.file("disk.img#1@1M+3M");
    EXPECT_EQ(said("cat", {"/a.txt"}), "a text\n");
    EXPECT_EQ(shell("cd \"$2\" && mv with@1M/disk.img a && \"$1\" ls '#1'",
                    {qvol_path(), scratch_.file("")}),
              (outcome{0, "", ""}));
}

TEST_F(QvolPlaces, RefusesWhatIsNoPlace) {
    partition(GPT);
    const std::string missing = "No such file or directory";
    struct row {
        std::string place;
        std::string reason;
        int status;
    };
    const std::string number = " is not the number of a partition";
    const std::string bytes = " is not a number of bytes such as 1048576, 0x100000, 1M or 2048s";
    for (const row &one : std::vector<row>{
             {"#0", "\"0\"" + number, 2},
             {"#4294967296", "\"4294967296\"" + number, 2},
             {"#1x", "\"1x\"" + number, 2},
             {"@1Ms", "\"1Ms\"" + bytes, 2},
             {"@1MiB", "\"1MiB\"" + bytes, 2},
             {"@1M+", "\"\"" + bytes, 2},
             {"@1M+-1", "\"-1\"" + bytes, 2},
             {"@36028797018963968s", "\"36028797018963968s\"" + bytes, 2},
             {"@8M", disk_ + " has only 8388608 bytes", 1},
             {"@1M+7169K", disk_ + " has only 8388608 bytes", 1},
             {"#", missing, 1},
             {"#x", missing, 1},
             {"#-1", missing, 1},
             {"@", missing, 1},
             {"@+5", missing, 1},
             {"@x2", missing, 1},
             {"#1@1M", missing, 1},
             {"@1M#1", missing, 1},
         }) {
        image_ = disk_ + one.place;
        const std::string before = one.status == 2 ? "" : "cannot open ";
        EXPECT_EQ(qvol("ls"), refusal(before + image_ + ": " + one.reason, one.status));
    }
    image_ = disk_ + "@1M+0";
    EXPECT_EQ(qvol("ls"), refusal("cannot mount " + image_ +
                                  ": no FAT volume found: it has 0 bytes, should have at least "
                                  "4096"));
}

// ---- locks and devices ------------------------------------------------------------------------

TEST_F(QvolPlaces, TheLockIsThatOfTheWholeFile) {
    build("@1M+3M");
    const int fd = open(disk_.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(fd, LOCK_SH), 0);
    EXPECT_EQ(qvol("ls").status, 0);
    EXPECT_EQ(qvol("mkdir", {"/x"}),
              refusal("cannot lock " + disk_ +
                      ": locked by another program; try again when it has finished"));
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    EXPECT_EQ(qvol("ls").status, 1);
    close(fd);
    EXPECT_EQ(qvol("mkdir", {"/x"}).status, 0);
}

TEST_F(QvolPlaces, CountsPagesFromTheStartOfTheDisk) {
    build("@1536+3M", {"--page", "0"});
    const auto data = [&](const std::string &from) {
        const json areas = json::parse(said("map", {"--json", "--pages-from", from}))["areas"];
        return areas.front()["remainders"]["2048"];
    };
    EXPECT_EQ(data("disk"), 1536);
    EXPECT_EQ(data("volume"), 0);
    const auto aligned = [&](std::vector<std::string> options) {
        options.emplace_back("--json");
        return json::parse(said("info", options))["areas"].front()["aligned_to"];
    };
    EXPECT_EQ(aligned({}), 0);
    EXPECT_EQ(aligned({"--pages-from", "volume"}), 16384);
}

class QvolPlacesOnDevices : public QvolPlaces {
protected:
    QvolPlacesOnDevices() {
        host_file("tree/a.txt", "a text\n");
        partition("label: gpt\nstart=2049, size=6143\n");
    }
    void SetUp() override {
        const std::string trouble = trouble_with_loop_devices(disk_);
        if (!trouble.empty()) {
            GTEST_SKIP() << trouble;
        }
    }
};

TEST_F(QvolPlacesOnDevices, WriteOnlyToTheirPartition) {
    constexpr std::uint64_t OFFSET = 2049 * 512;
    const bytes outside = around(OFFSET, 4 * MIB - OFFSET);
    const loop_device device(disk_);
    ASSERT_EQ(device.trouble(), "");
    image_ = device.path();
    EXPECT_TRUE(
        qvol("ls").err.ends_with("\n  " + image_ + "#1: Linux filesystem, 3.0 MiB at 1.0 MiB\n"));
    image_ = device.path() + "#1";
    said("build", {"--force", "--from", scratch_.file("tree")});
    EXPECT_EQ(around(OFFSET, 4 * MIB - OFFSET), outside);
    EXPECT_EQ(json::parse(said("info", {"--json"}))["offset"], OFFSET);
    image_ = disk_ + "#1";
    EXPECT_EQ(said("cat", {"/a.txt"}), "a text\n");
}

TEST_F(QvolPlacesOnDevices, CountPagesFromTheStartOfTheDisk) {
    const loop_device device(disk_, {"--partscan"});
    ASSERT_EQ(device.trouble(), "");
    image_ = device.path() + "p1";
    if (!std::filesystem::exists(image_)) {
        GTEST_SKIP() << "the kernel makes no devices of the partitions of loop devices";
    }
    said("build", {"--force", "--from", scratch_.file("tree")});
    EXPECT_EQ(number_at(read_range(disk_, 2049 * 512, 512), 28, 4), 2049U);
    const json areas = json::parse(said("map", {"--json"}))["areas"];
    EXPECT_EQ(areas.front()["remainders"]["2048"], 512);
}
