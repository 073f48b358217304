// Disks that qvol disk makes, judged by sfdisk, sgdisk, blkid and fsck.fat.

#include "tests/support/loop_device.h"
#include "tests/support/qvol_build.h"

#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>

#include <nlohmann/json.hpp>

using namespace testing_support;
using nlohmann::json;

namespace {

constexpr std::uint64_t KIB = 1024;
constexpr std::uint64_t MIB = 1024 * KIB;
constexpr std::uint64_t GIB = 1024 * MIB;
constexpr std::uint64_t TIB = 1024 * GIB;

constexpr const char *ESP = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B";
constexpr const char *DATA = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";
constexpr const char *LINUX = "0FC63DAF-8483-4772-8E79-3D69D8477DE4";
constexpr const char *SWAP = "0657FD6D-A4AB-43C4-84E5-0933C84B4F4F";
constexpr const char *BIOS = "21686148-6449-6E6F-744E-656564454649";
constexpr const char *XBOOTLDR = "BC13C2FF-59E6-4262-A352-B275FD6F7172";

// The bytes of a file that are stored.
std::uint64_t stored_bytes(const std::string &path) {
    struct stat status {};
    stat(path.c_str(), &status);
    return static_cast<std::uint64_t>(status.st_blocks) * 512;
}

// Directories to copy, files to copy in, and runs of qvol disk on the image.
class QvolDisk : public QvolBuild {
protected:
    QvolDisk() {
        make_mixed_tree();
        host_file("boot/EFI/BOOT/BOOTX64.EFI", std::string(40000, 'e'));
        host_file("with, comma/file", "x");
        host_file("plain file", "x");
        std::filesystem::create_directory(scratch_.file("empty"));
        make_raw_files();
    }

    // A loader without a known content, and a volume in a file.
    void make_raw_files() {
        bytes loader(300001);
        std::mt19937 random(1);
        std::generate(loader.begin() + 65536, loader.begin() + 131072,
                      [&] { return static_cast<std::uint8_t>(random()); });
        loader.back() = 1;
        (void)scratch_.file_with("loader", loader);
        EXPECT_EQ(run_qvol({"build", scratch_.file("volume"), "--size", "3M", "--fat", "16", "-q",
                            "--from", tree_, "--label", "VOLUME"})
                      .status,
                  0);
    }

    // Runs a program with the command "disk" in the scratch directory. The options are words of a
    // shell.
    outcome disk_by(std::vector<std::string> program, const std::string &options) {
        program.insert(program.begin(), {scratch_.file(""), image_, options});
        return shell("cd \"$1\" && image=$2 && options=$3 && shift 3 && "
                     "eval \"set -- \\\"\\$@\\\" disk \\\"\\$image\\\" $options\" && "
                     "exec \"$@\"",
                     program);
    }
    outcome disk(const std::string &options) {
        return disk_by({qvol_path()}, options);
    }
    void make(const std::string &options) {
        const outcome result = disk(options);
        ASSERT_EQ(result.status, 0) << options << ": " << result;
    }

    // A partition as a file of its own.
    std::string extracted(std::uint64_t offset, std::uint64_t size) {
        const std::string path = scratch_.file("partition");
        std::filesystem::remove(path);
        EXPECT_EQ(run({"dd", "if=" + image_, "of=" + path, "bs=1M", "conv=sparse", "status=none",
                       "iflag=skip_bytes,count_bytes", "skip=" + std::to_string(offset),
                       "count=" + std::to_string(size)})
                      .status,
                  0);
        std::filesystem::resize_file(path, size);
        return path;
    }

    void expect_nothing_made() {
        EXPECT_EQ(made(), std::vector<std::string>());
    }
};

// ---- layouts ----------------------------------------------------------------------------------

enum class holds { NOTHING, TREE, BOOT, NO_FILES, LOADER, VOLUME };

// A partition, and what the other programs are to find in it.
struct expected_part {
    std::string keys;
    holds content;
    std::string type;       // of sfdisk
    std::string label;      // of the volume
    std::uint64_t size = 0; // 0: any
};

struct layout {
    std::string name;
    std::string options;
    bool is_gpt;
    std::uint64_t sector;
    std::uint64_t align;
    std::uint64_t page; // of all partitions
    std::vector<expected_part> parts;
};

std::ostream &operator<<(std::ostream &out, const layout &one) {
    return out << one.name;
}

// The parts of the layouts in their order; a table has as many as it is to have.
std::vector<expected_part> mixed_parts(bool is_gpt) {
    const auto type = [&](const char *guid, const char *number) {
        return std::string(is_gpt ? guid : number);
    };
    return {
        {"type=esp,from=boot,label=BOOT", holds::BOOT, type(ESP, "ef"), "BOOT"},
        {"from=tree,fat=16,size=40M,label=SYSTEM", holds::TREE, type(DATA, "e"), "SYSTEM",
         40 * MIB},
        {"raw=loader,size=1M", holds::LOADER, type(LINUX, "83"), "", MIB},
        {"type=boot,from=tree,fat=32,size=5M,label=SMALL", holds::TREE, type(DATA, "c"), "SMALL",
         5 * MIB},
        {"type=swap,size=3M", holds::NOTHING, type(SWAP, "82"), "", 3 * MIB},
        {"raw=volume", holds::VOLUME, type(DATA, "4"), "VOLUME", 3 * MIB},
        {"type=xbootldr,fat=12,size=2M,label=EMPTY", holds::NO_FILES, type(XBOOTLDR, "ea"), "EMPTY",
         2 * MIB},
        {"type=bios,size=1M", holds::NOTHING, BIOS, "", MIB},
    };
}

// The parts with a large one before the last, so that the last begins at `offset`.
void add_gap(std::vector<expected_part> *parts, bool is_gpt, std::uint64_t size) {
    parts->insert(parts->end() - 1, {"type=linux,size=" + std::to_string(size / GIB) + "G",
                                     holds::NOTHING, is_gpt ? LINUX : "83", "", size});
}

layout mixed_layout(bool is_gpt, std::uint64_t sector, std::size_t count, std::uint64_t gap) {
    layout made;
    made.name = std::string(is_gpt ? "Gpt" : "Mbr") + std::to_string(sector) + "With" +
                std::to_string(count) + (gap != 0 ? "AndAGap" : "");
    made.options = std::string(is_gpt ? "" : "--mbr ") + "--sector " + std::to_string(sector);
    made.is_gpt = is_gpt;
    made.sector = sector;
    made.align = MIB;
    made.page = 4096;
    const std::size_t own = gap != 0 ? count - 1 : count;
    made.parts = mixed_parts(is_gpt);
    made.parts.resize(own);
    if (gap != 0) {
        add_gap(&made.parts, is_gpt, gap);
    }
    return made;
}

std::vector<layout> mixed_layouts() {
    std::vector<layout> all;
    for (const bool is_gpt : {true, false}) {
        for (const std::uint64_t sector : {512, 4096}) {
            // An MBR counts 2^32 sectors.
            const std::uint64_t gap = is_gpt ? 3 * TIB : sector == 512 ? 2047 * GIB : 15 * TIB;
            for (std::size_t count = 1; count <= (is_gpt ? 8 : 4); count++) {
                all.push_back(mixed_layout(is_gpt, sector, count, 0));
                if (count == 2 || count == 4) {
                    all.push_back(mixed_layout(is_gpt, sector, count, gap));
                }
            }
        }
    }
    return all;
}

std::vector<expected_part> repeated(std::size_t count, const expected_part &one) {
    return std::vector<expected_part>(count, one);
}

std::vector<layout> special_layouts() {
    const expected_part rest = {"from=tree,size=rest,label=REST", holds::TREE, DATA, "REST"};
    const expected_part loader = {"type=linux,raw=loader", holds::LOADER, LINUX, "", 300032};
    return {
        {"Aligned512OnPagesOf16K",
         "--align 512",
         true,
         512,
         512,
         16 * KIB,
         {{"from=tree,page=16K,label=A", holds::TREE, DATA, "A"},
          {"raw=loader,page=16K", holds::LOADER, LINUX, "", 300032},
          {"from=boot,page=16K,fat=12,label=B", holds::BOOT, DATA, "B"}}},
        {"WithoutPages",
         "--align 512",
         true,
         512,
         512,
         512,
         {{"raw=loader,page=0", holds::LOADER, LINUX, "", 300032},
          {"from=tree,page=0,label=A", holds::TREE, DATA, "A"},
          {"size=512,page=0", holds::NOTHING, LINUX, "", 512},
          {"from=boot,page=0,cluster=512,label=B", holds::BOOT, DATA, "B"}}},
        {"RestFirst", "--size 20M", true, 512, MIB, 4096, {rest, loader}},
        {"RestInTheMiddle",
         "--size 20M --align 64K",
         true,
         512,
         64 * KIB,
         4096,
         {loader, rest, loader, {"size=1M", holds::NOTHING, LINUX, "", MIB}}},
        {"RestLast", "--size 20M", true, 512, MIB, 4096, {loader, rest}},
        {"RestOfAnMbr",
         "--size 20M --mbr",
         false,
         512,
         MIB,
         4096,
         {{"from=tree,size=rest,label=REST", holds::TREE, "4", "REST", 18 * MIB},
          {"size=1M", holds::NOTHING, "83", "", MIB}}},
        {"RestOfAnMbrIsNoWholeNumberOfMebibytes",
         "--size 20M --mbr --align 4K",
         false,
         512,
         4096,
         4096,
         {{"from=tree,size=rest,label=REST", holds::TREE, "4", "REST"},
          {"raw=loader,size=301056", holds::LOADER, "83", "", 301056},
          {"size=1049088", holds::NOTHING, "83", "", 1049088}}},
        {"RestIsASmallFat32",
         "--size 4M",
         true,
         512,
         MIB,
         4096,
         {{"from=tree,fat=32,size=rest,label=REST", holds::TREE, DATA, "REST", 2 * MIB}}},
        {"RestOfManyTebibytes",
         "--size 6000G",
         true,
         512,
         MIB,
         4096,
         {{"size=rest", holds::NOTHING, LINUX, ""}, loader}},
        {"MoreThanTheContentNeeds", "--size 1G", true, 512, MIB, 4096, {loader}},
        {"OddAlignment", "--align 1536", true, 512, 1536, 4096, {loader, loader}},
        {"OneHundredAndTwentyEight", "--align 4K", true, 512, 4096, 4096,
         repeated(128, {"size=4K", holds::NOTHING, LINUX, "", 4096})},
        {"TypesByNumber",
         "--mbr",
         false,
         512,
         MIB,
         4096,
         {{"type=0x0B,from=boot,label=A", holds::BOOT, "b", "A"},
          {"type=a5,size=1M", holds::NOTHING, "a5", "", MIB}}},
        {"TypesByGuid",
         "",
         true,
         512,
         MIB,
         4096,
         {{"type=c12a7328-f81f-11d2-ba4b-00a0c93ec93b,from=boot,label=A", holds::BOOT, ESP, "A"},
          {"type=01234567-89ab-cdef-0123-456789abcdef,size=1M", holds::NOTHING,
           "01234567-89AB-CDEF-0123-456789ABCDEF", "", MIB}}},
    };
}

std::string name_of_layout(const testing::TestParamInfo<layout> &info) {
    return info.param.name;
}

class QvolDiskLayout : public QvolDisk, public testing::WithParamInterface<layout> {
protected:
    // What the tools read: the image, or a device with sectors of 4096 bytes, whose size the tools
    // do not take as an option.
    void open_for_tools() {
        tools_path_ = image_;
        if (GetParam().sector != 512) {
            device_ = std::make_unique<loop_device>(
                image_, std::vector<std::string>{"--sector-size", "4096", "--read-only"});
            tools_path_ = device_->path();
        }
    }

    void expect_valid_table() {
        const outcome verified = run({"sfdisk", "--verify", tools_path_});
        EXPECT_EQ(verified.status, 0) << verified;
        EXPECT_NE(verified.out.find("No errors detected."), std::string::npos) << verified;
        if (GetParam().is_gpt && has_program("sgdisk")) {
            const outcome other = run({"sgdisk", "-v", tools_path_});
            EXPECT_NE(other.out.find("No problems found."), std::string::npos) << other;
        }
    }

    json table() {
        const outcome listed = run({"sfdisk", "--json", tools_path_});
        EXPECT_EQ(listed.status, 0) << listed;
        return json::parse(listed.out)["partitiontable"];
    }

    void expect_position(const json &found, const expected_part &expected) {
        const std::uint64_t start = std::uint64_t{found["start"]} * GetParam().sector;
        const std::uint64_t size = std::uint64_t{found["size"]} * GetParam().sector;
        EXPECT_EQ(start % GetParam().align, 0U);
        EXPECT_EQ(start % GetParam().page, 0U);
        EXPECT_GE(start, end_);
        EXPECT_EQ(found["type"], expected.type);
        if (expected.size != 0) {
            EXPECT_EQ(size, (expected.size + GetParam().sector - 1) / GetParam().sector *
                                GetParam().sector);
        }
        end_ = start + size;
    }

    void expect_volume(std::uint64_t start, std::uint64_t size, const expected_part &expected) {
        const outcome probed = run({"blkid", "-p", "-o", "export", "--offset",
                                    std::to_string(start), "--size", std::to_string(size), image_});
        EXPECT_NE(probed.out.find("\nTYPE=vfat\n"), std::string::npos) << probed;
        EXPECT_NE(probed.out.find("LABEL=" + expected.label + "\n"), std::string::npos) << probed;
        const outcome checked = run({"fsck.fat", "-n", extracted(start, size)});
        EXPECT_EQ(checked.status, 0) << checked;
        EXPECT_EQ(hidden_sectors(start),
                  expected.content == holds::VOLUME ? 0 : hidden_sectors_for(start));
    }

    [[nodiscard]] std::uint64_t hidden_sectors(std::uint64_t start) const {
        const bytes field = read_range(image_, start + 28, 4);
        return field[0] | field[1] << 8 | field[2] << 16 | std::uint64_t{field[3]} << 24;
    }
    [[nodiscard]] std::uint64_t hidden_sectors_for(std::uint64_t start) const {
        const std::uint64_t sectors = start / GetParam().sector;
        return sectors > 0xFFFFFFFF ? 0 : sectors; // the field has 32 bits
    }

    void expect_files(std::size_t number, const std::string &directory) {
        const std::string out = scratch_.file("out");
        std::filesystem::remove_all(out);
        std::filesystem::create_directory(out);
        const outcome got = run_qvol({"get", image_ + "#" + std::to_string(number), "/", out});
        EXPECT_EQ(got.status, 0) << got;
        EXPECT_EQ(run({"diff", "-r", "--no-dereference", scratch_.file(directory), out}),
                  (outcome{0, "", ""}));
    }

    void expect_content(std::size_t number, std::uint64_t start, std::uint64_t size,
                        const expected_part &expected) {
        switch (expected.content) {
        case holds::NOTHING:
            return;
        case holds::LOADER:
            EXPECT_EQ(read_range(image_, start, 300001), read_file(scratch_.file("loader")));
            return;
        case holds::TREE:
        case holds::VOLUME:
            expect_volume(start, size, expected);
            expect_files(number, "tree");
            return;
        case holds::BOOT:
            expect_volume(start, size, expected);
            expect_files(number, "boot");
            return;
        case holds::NO_FILES:
            expect_volume(start, size, expected);
            expect_files(number, "empty");
            return;
        }
    }

    // Much less than the sizes of the partitions.
    void expect_holes() {
        EXPECT_LT(stored_bytes(image_), 4 * MIB);
    }

    std::string tools_path_;
    std::unique_ptr<loop_device> device_;
    std::uint64_t end_ = 0; // of the partition before
};
INSTANTIATE_TEST_SUITE_P(Mixed, QvolDiskLayout, testing::ValuesIn(mixed_layouts()), name_of_layout);
INSTANTIATE_TEST_SUITE_P(Special, QvolDiskLayout, testing::ValuesIn(special_layouts()),
                         name_of_layout);

} // namespace

TEST_P(QvolDiskLayout, IsWhatOtherProgramsRead) {
    const std::string trouble =
        GetParam().sector == 512
            ? ""
            : trouble_with_loop_devices(scratch_.sparse_file("probe.img", MIB));
    if (!has_program("sfdisk") || !trouble.empty()) {
        GTEST_SKIP() << "no sfdisk, or " << trouble;
    }
    std::string options = GetParam().options;
    for (const expected_part &part : GetParam().parts) {
        options += " --part " + part.keys;
    }
    make(options);
    expect_holes();
    open_for_tools();
    expect_valid_table();
    const json found = table();
    ASSERT_EQ(found["label"], GetParam().is_gpt ? "gpt" : "dos");
    ASSERT_EQ(found["partitions"].size(), GetParam().parts.size());
    for (std::size_t i = 0; i < GetParam().parts.size(); i++) {
        SCOPED_TRACE(GetParam().parts[i].keys);
        const json &one = found["partitions"][i];
        expect_position(one, GetParam().parts[i]);
        expect_content(i + 1, std::uint64_t{one["start"]} * GetParam().sector,
                       std::uint64_t{one["size"]} * GetParam().sector, GetParam().parts[i]);
    }
}

// ---- values of the table ----------------------------------------------------------------------

TEST_F(QvolDisk, NamesAttributesAndIdentifiersAreInTheTable) {
    make("--part 'name=Größe\\, 日本,size=1M,uuid=01234567-89ab-cdef-0123-456789abcdef,"
         "attrs=required+no-block-io+48+63' --part type=boot,from=boot --part size=1M");
    const json parts =
        json::parse(run({"sfdisk", "--json", image_}).out)["partitiontable"]["partitions"];
    // sfdisk prints ASCII only. The name is in the first entry, which begins at sector 2.
    const std::u16string expected = std::u16string(u"Größe, 日本") + u'\0';
    std::u16string name(expected.size(), u' ');
    std::memcpy(name.data(), read_range(image_, 2 * 512 + 56, 2 * name.size()).data(),
                2 * name.size());
    EXPECT_EQ(name, expected);
    EXPECT_EQ(parts[0]["uuid"], "01234567-89AB-CDEF-0123-456789ABCDEF");
    EXPECT_EQ(parts[0]["attrs"], "RequiredPartition NoBlockIOProtocol GUID:48,63");
    EXPECT_EQ(parts[1]["attrs"], "LegacyBIOSBootable");
    EXPECT_FALSE(parts[2].contains("attrs") || parts[2].contains("name"));
}

TEST_F(QvolDisk, OnePartitionOfAnMbrIsActive) {
    for (const char *options :
         {"--part size=1M --part size=1M,active", "--part size=1M --part type=boot,from=boot"}) {
        make(std::string("--force --mbr ") + options);
        const json parts =
            json::parse(run({"sfdisk", "--json", image_}).out)["partitiontable"]["partitions"];
        EXPECT_FALSE(parts[0].contains("bootable"));
        EXPECT_EQ(parts[1]["bootable"], true);
    }
}

// Larger FAT16 and FAT32 have numbers of their own.
TEST_F(QvolDisk, TheNumberOfAnMbrIsThatOfTheFat) {
    make("--mbr --part fat=12,size=1M --part fat=16,size=31M --part fat=16,size=32M "
         "--part fat=32,size=40M");
    const json parts =
        json::parse(run({"sfdisk", "--json", image_}).out)["partitiontable"]["partitions"];
    std::vector<std::string> types;
    for (const json &part : parts) {
        types.push_back(part["type"]);
    }
    EXPECT_EQ(types, (std::vector<std::string>{"1", "4", "e", "c"}));
}

TEST_F(QvolDisk, PrintsWhatItMade) {
    for (const std::string table : {"gpt", "mbr"}) {
        const outcome result = disk("--json --force --" + table +
                                    " --part type=esp,from=boot,label=BOOT,size=1M "
                                    "--part raw=loader");
        ASSERT_EQ(result.status, 0) << result;
        const json document = json::parse(result.out);
        const json read = json::parse(run({"sfdisk", "--json", image_}).out)["partitiontable"];
        EXPECT_EQ(document["image"], image_);
        EXPECT_EQ(document["bytes"], std::filesystem::file_size(image_));
        EXPECT_EQ(document["table"], table);
        EXPECT_EQ(document["id"], read["id"]);
        EXPECT_EQ(document["sector_size"], 512);
        for (std::size_t i = 0; i < 2; i++) {
            const json &one = document["partitions"][i];
            EXPECT_EQ(one["number"], i + 1);
            EXPECT_EQ(one["type"], read["partitions"][i]["type"]);
            EXPECT_EQ(one["offset"], std::uint64_t{read["partitions"][i]["start"]} * 512);
            EXPECT_EQ(one["bytes"], std::uint64_t{read["partitions"][i]["size"]} * 512);
            EXPECT_EQ(one["uuid"], table == "gpt" ? read["partitions"][i]["uuid"].get<std::string>()
                                                  : read["id"].get<std::string>().substr(2) + "-0" +
                                                        std::to_string(i + 1));
        }
        const json &volume = document["partitions"][0];
        EXPECT_EQ(volume["fat_type"], 12);
        EXPECT_EQ(volume["label"], "BOOT");
        EXPECT_EQ(volume["content"]["files"], 1);
        EXPECT_EQ(document["partitions"][1]["fat_type"], nullptr);
    }
}

// Times are equal as far as a volume stores them, and no later than SOURCE_DATE_EPOCH.
TEST_F(QvolDisk, TheSameTwiceGivesTheSameBytes) {
    const std::string options = " --part type=esp,from=boot,label=BOOT --part from=tree,fat=16 "
                                "--part raw=loader";
    for (const std::string table : {"--gpt", "--mbr"}) {
        setenv("SOURCE_DATE_EPOCH", "1700000000", 1);
        make("--force " + table + options);
        const bytes first = read_file(image_);
        ASSERT_EQ(run({"touch", "-d", "2025-01-01", scratch_.file("boot/EFI"),
                       scratch_.file("tree/README.TXT"), scratch_.file("loader")})
                      .status,
                  0);
        make("--force " + table + options);
        EXPECT_TRUE(has_content(image_, first));
        setenv("SOURCE_DATE_EPOCH", "1700000001", 1);
        make("--force " + table + options);
        EXPECT_FALSE(has_content(image_, first));
        unsetenv("SOURCE_DATE_EPOCH");
        make("--force " + table + options);
        const std::string id = run({"blkid", "-p", "-o", "value", "-s", "PTUUID", image_}).out;
        make("--force " + table + options);
        EXPECT_NE(run({"blkid", "-p", "-o", "value", "-s", "PTUUID", image_}).out, id);
    }
}

// ---- copying in -------------------------------------------------------------------------------

// Its zeros only on request.
TEST_F(QvolDisk, HolesOfACopiedFileAreHoles) {
    const std::string source = scratch_.sparse_file("sparse", 5 * GIB);
    std::fstream file(source, std::ios::in | std::ios::out | std::ios::binary);
    const std::uint64_t data[] = {0, 2 * GIB + 12288, 5 * GIB - 5};
    for (const std::uint64_t at : data) {
        file.seekp(static_cast<std::streamoff>(at)).write("bytes", 5);
    }
    file.seekp(static_cast<std::streamoff>(4 * GIB));
    file << std::string(2 * MIB, '\0');
    file.close();
    for (const bool skips_zeros : {true, false}) {
        make(std::string("--force --part raw=sparse --part size=1M --sparse ") +
             (skips_zeros ? "always" : "auto"));
        EXPECT_LT(stored_bytes(image_), (skips_zeros ? 0 : 2 * MIB) + 256 * KIB);
        EXPECT_GE(stored_bytes(image_), skips_zeros ? 0 : 2 * MIB);
        for (const std::uint64_t at : data) {
            EXPECT_EQ(read_range(image_, MIB + at, 5), bytes({'b', 'y', 't', 'e', 's'}));
        }
    }
}

// As a source and as what is replaced.
TEST_F(QvolDisk, APartitionOfTheOldImageIsCopiedIntoTheNewOne) {
    make("--part size=1M --part from=tree,label=OLD");
    make("--force --part 'raw=made/disk.img#2,size=8M'");
    const outcome listed = run_qvol({"info", image_ + "#1", "--json"});
    EXPECT_EQ(json::parse(listed.out)["label"], "OLD");
    EXPECT_EQ(made(), std::vector<std::string>{"disk.img"});
}

TEST_F(QvolDisk, ABackslashTakesACommaAndABackslashIntoTheValue) {
    make("--part 'from=with\\, comma,name=a\\\\b'");
    EXPECT_EQ(run_qvol({"ls", image_ + "#1"}).status, 0);
    const json parts =
        json::parse(run({"sfdisk", "--json", image_}).out)["partitiontable"]["partitions"];
    EXPECT_EQ(parts[0]["name"], "a\\b");
}

// ---- refusals ---------------------------------------------------------------------------------

namespace {

struct refusal {
    const char *options;
    int status;
    const char *message;
};

constexpr refusal REFUSALS[] = {
    // sizes
    {"--part from=tree,size=0", 2, "part 1: size 0: must be a multiple of the sector size 512"},
    {"--part size=0", 2, "part 1: size 0: must be a multiple of the sector size 512"},
    {"--part size=1M --part size=1000", 2,
     "part 2: size 1000: must be a multiple of the sector size 512"},
    {"--part size=1X", 2, "part 1: size 1X: not a size such as 4096, 64M or 2G"},
    {"--part type=esp", 2, "part 1: size= is required without from= and raw="},
    {"--part size=auto", 2, "part 1: size=auto needs from=, fat= or raw="},
    {"--part from=tree,size=32K", 2,
     "part 1: size 32K: too small for a volume; the minimum is 64K"},
    {"--part raw=loader,size=4K", 1, "part 1: size 4K: too small, loader has 300001 bytes"},
    {"--part from=tree,fat=16,size=1M", 1,
     "part 1: a volume of 1.0 MiB cannot be FAT16: FAT12 has 1 to 4084 clusters, FAT16 4085 to "
     "65524, FAT32 65525 to 268435438; use fat=12"},
    {"--part from=boot,fat=12,cluster=512,size=16M", 1,
     "part 1: a volume of 16.0 MiB cannot be FAT12 with clusters of 512 bytes: FAT12 has 1 to "
     "4084 clusters, FAT16 4085 to 65524, FAT32 65525 to 268435438; use cluster=8K"},
    {"--size 2M --part raw=loader --part from=tree,size=rest", 1,
     "a disk of 2.0 MiB is too small: the partitions need 4M"},
    {"--size 2M --part from=tree,size=rest --part size=4M", 1,
     "a disk of 2.0 MiB is too small: the partitions need 7M"},
    {"--size 64K --part from=tree", 1, "a disk of 64.0 KiB is too small: the partitions need 2M"},
    {"--size 1000 --part from=tree", 2, "--size 1000: no multiple of the sector size 512"},
    {"--part from=tree,size=rest", 2, "size=rest needs --size SIZE"},
    {"--size 9M --part size=rest --part size=rest", 2,
     "two partitions have size=rest, only one can have what remains"},
    {"--mbr --part size=3000G", 1,
     "a partition ends at 2.9 TiB: an MBR ends at 2.0 TiB with sectors of 512 bytes; use --gpt"},
    {"--mbr --sector 4096 --part size=16384G", 1,
     "a partition ends at 16.0 TiB: an MBR ends at 16.0 TiB with sectors of 4096 bytes; use --gpt"},
    {"--part size=4294967296G --part size=4294967296G", 1,
     "the partitions are too large: a disk has at most 4194304 TiB"},
    {"--align 1000 --part size=1M", 2,
     "--align 1000: must be a multiple of the sector size 512, up to 1G"},
    {"--align 0 --part size=1M", 2,
     "--align 0: must be a multiple of the sector size 512, up to 1G"},
    // types and tables
    {"--part type=esp,raw=loader", 2,
     "part 1: type=esp needs a FAT volume, raw= is not one; use another type"},
    {"--part type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B,raw=loader", 2,
     "part 1: type=esp needs a FAT volume, raw= is not one; use another type"},
    {"--mbr --part type=0xEF,raw=loader", 2,
     "part 1: type=esp needs a FAT volume, raw= is not one; use another type"},
    {"--part type=swap,raw=volume", 2, "part 1: type=swap excludes a FAT volume; use type=data"},
    {"--part type=swap,from=tree", 2, "part 1: type=swap excludes a FAT volume; use type=data"},
    {"--mbr --part type=bios,size=1M", 2,
     "part 1: type=bios is of a GPT, an MBR has no such partition"},
    {"--mbr --part type=0F,size=1M", 2,
     "part 1: type=f: an extended partition cannot be made; use --gpt"},
    {"--part type=83,size=1M", 2,
     "part 1: type=83: must be one of esp, boot, data, linux, swap, bios, xbootldr, or a GUID"},
    {"--part type=00000000-0000-0000-0000-000000000000,size=1M", 2,
     "part 1: type=00000000-0000-0000-0000-000000000000: must be one of esp, boot, data, linux, "
     "swap, bios, xbootldr, or a GUID"},
    {"--mbr --part type=0,size=1M", 2,
     "part 1: type=0: must be one of esp, boot, data, linux, swap, bios, xbootldr, or a "
     "hexadecimal byte such as 0x83"},
    {"--mbr --part size=1M --part size=1M --part size=1M --part size=1M --part size=1M", 1,
     "5 partitions are too many: an MBR has at most 4; use --gpt"},
    {"$(yes -- --part size=4K | head -n 129)", 1,
     "129 partitions are too many: a GPT has at most 128"},
    {"--mbr --part size=1M,name=x", 2,
     "part 1: name=, uuid= and attrs= are of a GPT; remove them or use --gpt"},
    {"--part size=1M,active", 2, "part 1: active is of an MBR; use type=boot or attrs=legacy-boot"},
    {"--mbr --part type=boot,from=boot --part size=1M,active", 2,
     "two partitions are active (also by type=boot), an MBR boots from one"},
    // keys
    {"--part size=1M,colour=red", 2,
     "part 1: unknown key \"colour=red\"; the keys are name=, label=, type=, size=, fat=, "
     "cluster=, page=, from=, raw=, attrs=, uuid=, active"},
    {"--part size=1M,size=2M", 2, "part 1: size is given twice"},
    {"--part size=1M --part from=", 2, "part 2: from= has no value"},
    {"--part from=tree,raw=loader", 2, "part 1: raw= excludes from=, fat=, cluster= and label="},
    {"--part from=tree,label=a*b", 2,
     "part 1: label \"a*b\": may contain only A to Z, 0 to 9, spaces and $%'-_@~`!(){}^#&"},
    {"--part from=tree,cluster=3000", 2,
     "part 1: cluster 3000: must be a power of two from 512 to 32768 bytes"},
    {"--sector 4096 --part from=tree,cluster=512", 2,
     "part 1: cluster 512: must be a power of two from 4096 to 32768 bytes"},
    {"--part from=tree,fat=8", 2, "part 1: fat 8: must be auto, 12, 16 or 32"},
    {"--part size=1M,page=3", 2, "part 1: page 3: must be a power of two from 1 to 16384 bytes"},
    {"--part size=1M,attrs=7", 2,
     "part 1: attrs=7: must be required, no-block-io, legacy-boot, or 48 to 63, joined by +"},
    {"--part size=1M,uuid=7", 2, "part 1: uuid=7: not a UUID"},
    {"--part size=1M,uuid=01234567-89ab-cdef-0123-456789abcdef "
     "--part size=1M,uuid=01234567-89AB-CDEF-0123-456789ABCDEF",
     2, "uuid=01234567-89AB-CDEF-0123-456789ABCDEF: two partitions cannot have the same"},
    {"--part size=1M,name=$(yes x | head -n 37 | tr -d '\\n')", 2,
     "part 1: name=xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx: must be UTF-8 of at most 36 characters, "
     "none beyond U+FFFF"},
    {"--part size=1M,name=📷", 2,
     "part 1: name=📷: must be UTF-8 of at most 36 characters, none beyond U+FFFF"},
    // sources
    {"--part size=1M --part from=no", 1, "part 2: cannot open no: No such file or directory"},
    {"--part 'from=plain file'", 1,
     "part 1: cannot read plain file: neither a directory, an archive (tar, cpio, zip) nor a manifest "
     "(mtree)"},
    {"--part raw=no", 1, "part 1: cannot open no: No such file or directory"},
    {"--part raw=tree", 1, "part 1: cannot open tree: neither an image file nor a block device"},
    {"--part 'raw=tree/empty file'", 1, "part 1: cannot open tree/empty file: it is empty"},
    {"--part 'raw=loader#1'", 1, "part 1: cannot open loader#1: no partitions found"},
};

} // namespace

TEST_F(QvolDisk, RefusesBeforeItWrites) {
    for (const refusal &one : REFUSALS) {
        SCOPED_TRACE(one.options);
        const outcome result = disk(one.options);
        EXPECT_EQ(result.status, one.status);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "qvol: " + std::string(one.message) + "\n");
        expect_nothing_made();
    }
}

// The options that are refused by the command line itself, and images that exist.
TEST_F(QvolDisk, RefusesWhatIsInTheWay) {
    EXPECT_EQ(disk("").status, 2);
    EXPECT_EQ(disk("--gpt --mbr --part size=1M").status, 2);
    EXPECT_EQ(disk("--sector 1024 --part size=1M").status, 2);
    make("--part from=tree");
    const bytes old = read_file(image_);
    EXPECT_EQ(disk("--part size=1M").err,
              "qvol: cannot make " + image_ + ": exists; --force replaces it\n");
    EXPECT_EQ(disk("--force --part size=0").status, 2);
    EXPECT_EQ(disk("--force --part from=made").err,
              "qvol: part 1: cannot build " + image_ +
                  ": it is below made and would contain itself; choose another path\n");
    EXPECT_TRUE(has_content(image_, old));
    const std::string image = image_;
    image_ += "#1";
    EXPECT_EQ(disk("--part size=1M").err,
              "qvol: cannot make a disk in " + image_ + ", which is a part of one\n");
    image_ = scratch_.file("no/disk.img");
    EXPECT_EQ(disk("--part size=1M").err, "qvol: cannot make an image in " + scratch_.file("no") +
                                              ": No such file or directory\n");
    image_ = image;
    EXPECT_EQ(made(), std::vector<std::string>{"disk.img"});
}

// ---- disks that are stopped or fail -----------------------------------------------------------

namespace {

constexpr const char *THREE_PARTS =
    "--part type=esp,from=boot,label=BOOT --part from=tree,fat=16 --part raw=loader";

} // namespace

TEST_F(QvolDisk, AFailingWriteLeavesNothing) {
    int allowed = 0;
    for (int status = 1; status != 0; allowed++) {
        SCOPED_TRACE(allowed);
        setenv("WRITES_ALLOWED", std::to_string(allowed).c_str(), 1);
        const outcome result = disk_by({QVOL_FAILING_WRITES}, THREE_PARTS);
        unsetenv("WRITES_ALLOWED");
        status = result.status;
        ASSERT_LE(status, 1) << result;
        EXPECT_EQ(result.err.empty(), status == 0) << result;
        EXPECT_EQ(made().size(), status == 0 ? 1U : 0U);
    }
    EXPECT_GT(allowed, 10);
}

TEST_F(QvolDisk, AnImageThatDoesNotReachTheMediumIsNotKept) {
    const outcome result = disk_by({QVOL_FAILING_FSYNC}, "--part size=1M");
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.err.ends_with(": Input/output error\n")) << result;
    expect_nothing_made();
}

// The table comes last, in writes of a library: file systems that are full a page earlier each.
TEST_F(QvolDisk, AFullHostLeavesNothing) {
    if (!can_mount_privately()) {
        GTEST_SKIP() << "mounting takes root";
    }
    const outcome result = shell_with_private_mounts(
        "cd \"$1\"\n"
        "pages=0; status=1\n"
        "while [ $status -ne 0 ] && [ $pages -lt 200 ]; do\n"
        "  pages=$((pages + 1))\n"
        "  mount -t tmpfs -o size=$((pages * 4))k none made || exit 1\n"
        "  \"$2\" disk -q made/disk.img --part from=boot --part size=1M 2>>errors; status=$?\n"
        "  [ $status -eq 0 ] || [ -z \"$(ls -A made)\" ] || echo \"$pages: $(ls -A made)\"\n"
        "  umount made\n"
        "done\n"
        "echo $status; sort errors | uniq -c | sed 's/.qvol-[0-9]*/NEW/' >&2; [ $pages -gt 15 ]",
        {scratch_.file(""), qvol_path()});
    EXPECT_EQ(result.out, "0\n") << result;
    EXPECT_EQ(result.status, 0) << result;
    EXPECT_NE(result.err.find("No space left on device"), std::string::npos) << result;
}

TEST_F(QvolDisk, ADiskThatIsStoppedLeavesNothing) {
    const auto begin = std::chrono::steady_clock::now();
    make(THREE_PARTS);
    const double duration =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    std::filesystem::remove(image_);
    std::mt19937 random(20251122);
    int stopped = 0;
    for (int round = 0; round < 30; round++) {
        const double part = std::uniform_real_distribution<double>(0, 1.1)(random);
        const outcome result =
            disk_by({"env", "ASAN_OPTIONS=detect_leaks=0", "timeout", "--preserve-status", "-s",
                     "TERM", std::to_string(duration * part), qvol_path()},
                    THREE_PARTS);
        ASSERT_TRUE(result.status == 0 || result.status == 128 + SIGTERM) << result;
        EXPECT_EQ(made().size(), result.status == 0 ? 1U : 0U);
        stopped += result.status != 0 ? 1 : 0;
        std::filesystem::remove(image_);
    }
    EXPECT_GT(stopped, 2);
}

// ---- devices ----------------------------------------------------------------------------------

namespace {

class QvolDiskDevice : public QvolDisk {
protected:
    void SetUp() override {
        const std::string trouble =
            trouble_with_loop_devices(scratch_.sparse_file("probe.img", 1 << 20));
        if (!trouble.empty()) {
            GTEST_SKIP() << trouble;
        }
        open_device(512);
    }

    void open_device(int sector) {
        device_.reset();
        file_ = scratch_.sparse_file("backing", 64 * MIB);
        device_ = std::make_unique<loop_device>(
            file_, std::vector<std::string>{"--sector-size", std::to_string(sector)});
        ASSERT_EQ(device_->trouble(), "");
        image_ = device_->path();
    }

    // The kind of table that sfdisk finds, also in what remains of one.
    std::string table_found() {
        const outcome listed = run({"sfdisk", "--json", image_});
        return listed.status == 0 ? std::string(json::parse(listed.out)["partitiontable"]["label"])
                                  : "";
    }

    // Loop devices without partitions of their own: the system does not read their tables.
    void make_on_device(const std::string &options) {
        const outcome result = disk(options);
        ASSERT_EQ(result.status, 0) << options << ": " << result;
        const std::string remark =
            "qvol: " + image_ + ": the system has not read the new partitions: Invalid argument\n";
        EXPECT_TRUE(result.err.empty() || result.err == remark) << result;
    }

    std::string file_;
    std::unique_ptr<loop_device> device_;
};

} // namespace

TEST_F(QvolDiskDevice, AllOfTheDeviceIsUsed) {
    for (const int sector : {512, 4096}) {
        open_device(sector);
        make_on_device("-q --part type=esp,from=boot,size=2M --part from=tree,size=rest");
        const outcome verified = run({"sfdisk", "--verify", image_});
        EXPECT_NE(verified.out.find("No errors detected."), std::string::npos) << verified;
        const json table = json::parse(run({"sfdisk", "--json", image_}).out)["partitiontable"];
        EXPECT_EQ(std::uint64_t{table["partitions"][1]["size"]} * sector, 60 * MIB);
        const std::string disk = image_;
        image_ = disk + "#2";
        expect_tree(tree_);
        image_ = disk;
    }
}

TEST_F(QvolDiskDevice, OverwritesOnlyABlankDeviceUnlessForced) {
    make_on_device("-q --part size=1M");
    EXPECT_EQ(disk("-q --part size=2M"),
              (outcome{1, "",
                       "qvol: cannot partition " + image_ +
                           ": not blank; --force overwrites its content\n"}));
    make_on_device("-q --force --mbr --part size=2M");
    EXPECT_EQ(table_found(), "dos");
}

TEST_F(QvolDiskDevice, RefusesWhatTheDeviceCannotBe) {
    const bytes blank = read_file(file_);
    EXPECT_EQ(disk("--size 8M --part size=1M").err, "qvol: --size: a device has its own size\n");
    EXPECT_EQ(disk("--sector 4096 --part size=1M").err,
              "qvol: --sector 4096: " + image_ + " has sectors of 512 bytes\n");
    EXPECT_EQ(disk("--part size=63M").err,
              "qvol: a disk of 64.0 MiB is too small: the partitions need 65M\n");
    EXPECT_EQ(disk("--part raw=" + image_).err, "qvol: part 1: cannot copy " + image_ +
                                                    ": it is on " + image_ +
                                                    ", which is overwritten\n");
    EXPECT_TRUE(has_content(file_, blank));
}

TEST_F(QvolDiskDevice, RefusesADeviceInUse) {
    if (!can_mount_privately() || !has_program("mkfs.ext2") ||
        run({"mkfs.ext2", "-q", image_}).status != 0) {
        GTEST_SKIP() << "mounting takes root and e2fsprogs";
    }
    const outcome result = shell_with_private_mounts(
        "mount -t ext2 \"$1\" \"$2\" || exit 77; \"$3\" disk \"$1\" --force --part size=1M",
        {image_, scratch_.file("made"), qvol_path()});
    if (result.status == 77) {
        GTEST_SKIP() << "the kernel does not mount it: " << result.err;
    }
    EXPECT_EQ(result, (outcome{1, "",
                               "qvol: cannot write to " + image_ + ": it is mounted on " +
                                   scratch_.file("made") + "; unmount it first\n"}));
}

// A GPT has a copy at the end of the device.
TEST_F(QvolDiskDevice, NothingOfAnOldTableRemains) {
    constexpr std::uint64_t COPY = 64 * MIB - 512;
    make_on_device("-q --part size=1M");
    ASSERT_EQ(read_range(file_, COPY, 8), bytes({'E', 'F', 'I', ' ', 'P', 'A', 'R', 'T'}));
    make_on_device("-q --force --mbr --part size=1M");
    const bytes end = read_range(file_, 63 * MIB, MIB);
    EXPECT_TRUE(is_zero(end.data(), end.size()));
    EXPECT_EQ(table_found(), "dos");
}

// Until all contents are there, the device has neither the old table nor the new one.
TEST_F(QvolDiskDevice, ADeviceThatIsNotFinishedHasNoTable) {
    make_on_device("-q --part from=boot");
    int allowed = 2; // the first two writes clear the old tables
    for (int status = 1; status != 0; allowed++) {
        SCOPED_TRACE(allowed);
        setenv("WRITES_ALLOWED", std::to_string(allowed).c_str(), 1);
        status = disk_by({QVOL_FAILING_WRITES}, std::string("-q --force ") + THREE_PARTS).status;
        unsetenv("WRITES_ALLOWED");
        ASSERT_LE(status, 1);
        EXPECT_EQ(table_found(), status == 0 ? "gpt" : "");
    }
    EXPECT_GT(allowed, 10);
}
