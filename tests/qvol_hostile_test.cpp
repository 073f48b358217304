// Damaged volumes: whatever bytes stand in the metadata, every command ends, with status 0 or 1, in
// seconds, and says something where it fails.

#include "tests/support/checked_volume.h"

#include <csignal>
#include <functional>
#include <random>

using namespace testing_support;
using nlohmann::json;

namespace {

const unsigned ROUNDS = (QUORVEL_FULL ? 10 : 3) * (is_sanitized_qvol() ? 1 : 2);

class QvolDamaged : public QvolImage, public testing::WithParamInterface<const char *> {
protected:
    QvolDamaged() {
        const std::string width = GetParam();
        format(width, width == "16" ? 10 << 20 : 40 << 20, width == "16" ? "4" : "1");
        host_file("tree/some long name.text", std::string(9000, 'x'));
        host_file("tree/directory/below/UPPER.TXT", "y");
        host_file("tree/directory/empty", "");
        for (int i = 0; i < 40; i++) {
            host_file("tree/many/file " + std::to_string(i), std::to_string(i));
        }
        said("put", {scratch_.file("tree"), "/"});
        said("ln", {"/tmp", "/tree/link"});
        pristine_ = read_file(image_);
        size_ = pristine_.size();
        drop_hole_at_end(&pristine_);
        layout_ = layout_of(image_);
    }

    // Where the damage does harm: the boot sector, the FAT in use, and the directories.
    std::size_t place_of_damage(std::mt19937 *random) const {
        const std::size_t fat = std::size_t{layout_.fat_start} * 512;
        const std::size_t data = std::size_t{layout_.data_start} * 512;
        const std::size_t root = std::size_t{layout_.rdir_start} * 512;
        switch ((*random)() % 8) {
        case 0:
            return (*random)() % 96;
        case 1:
        case 2:
        case 3:
            return fat + (*random)() % 400;
        case 4:
            return root + (*random)() % 512;
        default:
            return data + (*random)() % (std::size_t{64} * 512);
        }
    }

    void damage(unsigned seed) {
        std::mt19937 random(seed);
        bytes image = pristine_;
        const std::size_t count = 1 + random() % 12;
        for (std::size_t i = 0; i < count; i++) {
            const std::size_t place = place_of_damage(&random);
            image.resize(std::max(image.size(), place + 1));
            image[place] = static_cast<std::uint8_t>(random());
        }
        (void)scratch_.file_with("disk.img", image);
        std::filesystem::resize_file(image_, size_);
    }

    // `tells`: what is wrong may stand on standard output.
    void expect_end(const std::string &command, std::vector<std::string> arguments = {},
                    bool tells = false) {
        arguments.insert(arguments.begin(), {"timeout", "20", qvol_path(), command, image_});
        const outcome result = run(arguments);
        EXPECT_TRUE(result.status == 0 ||
                    (result.status == 1 && !(result.err.empty() && (!tells || result.out.empty()))))
            << command << ": " << result;
        for (const char *finding : {"Sanitizer", "runtime error"}) {
            EXPECT_EQ(result.err.find(finding), std::string::npos) << command << ": " << result;
        }
    }

    // Gives all short entries of that name another first cluster.
    void set_start(const std::string &name, std::uint32_t cluster) {
        bytes image = read_file(image_);
        for (std::size_t slot = 0; slot + 32 <= image.size(); slot += 32) {
            if (std::equal(name.begin(), name.end(),
                           image.begin() + static_cast<std::ptrdiff_t>(slot))) {
                image[slot + 26] = static_cast<std::uint8_t>(cluster & 0xFF);
                image[slot + 27] = static_cast<std::uint8_t>(cluster >> 8);
            }
        }
        (void)scratch_.file_with("disk.img", image);
    }

    bytes pristine_;
    std::uint64_t size_ = 0;
    volume_layout layout_;
};
INSTANTIATE_TEST_SUITE_P(Fat, QvolDamaged, testing::Values("16", "32"),
                         [](const auto &tested) { return std::string(tested.param); });

} // namespace

TEST_P(QvolDamaged, EveryCommandEnds) {
    for (unsigned seed = 0; seed < ROUNDS && !HasFailure(); seed++) {
        SCOPED_TRACE(seed);
        damage(seed);
        const std::string out = scratch_.file("out" + std::to_string(seed));
        expect_end("info");
        expect_end("ls", {"-lR"});
        expect_end("tree", {"--json"});
        expect_end("owner", {"20"});
        expect_end("map");
        expect_end("map", {"--force", "--svg", scratch_.file("map.svg")});
        expect_end("fastpath", {"--dir", "/tree/many"});
        expect_end("stat", {"/tree/some long name.text"});
        expect_end("check", {}, true);
        expect_end("get", {"/", out});
        expect_end("put", {"--force", scratch_.file("tree"), "/"});
        expect_end("mv", {"/tree/directory", "/moved"});
        expect_end("rm", {"-r", "/tree"});
        expect_end("pool");
        expect_end("mirror");
        expect_end("compact");
        expect_end("check", {"--repair"}, true);
        std::filesystem::remove_all(out);
    }
}

TEST_P(QvolDamaged, AFileThatClaimsItsDirectoryIsNotRemoved) {
    said("mkdir", {"/dir"});
    said("put", {host_file("FILE", "x"), "/dir"});
    const std::string of_dir = said("stat", {"--json", "/dir"});
    const std::string key = "\"first_cluster\": ";
    const auto cluster =
        static_cast<std::uint32_t>(std::stoul(of_dir.substr(of_dir.find(key) + key.size())));
    set_start("FILE       ", cluster);
    EXPECT_EQ(qvol("rm", {"/dir/FILE"}),
              (outcome{1, "",
                       "qvol: cannot remove /dir/FILE: shares cluster " + std::to_string(cluster) +
                           " with another entry; repair the volume first\n"}));
    EXPECT_EQ(said("ls", {"/dir"}), "FILE\n");
}

TEST_P(QvolDamaged, FilesThatShareTheirClustersAreNotRemoved) {
    said("put", {host_file("a", std::string(9000, 'a')), "/"});
    const std::string chain = said("stat", {"--json", "/a"});
    const std::size_t at = chain.find("\"first_cluster\": ");
    const auto cluster = static_cast<std::uint32_t>(std::stoul(chain.substr(at + 17)));
    said("mkdir", {"/twice"});
    said("put", {host_file("ONE", "x"), host_file("TWO", "x"), "/twice"});
    set_start("ONE        ", cluster);
    set_start("TWO        ", cluster);
    EXPECT_EQ(qvol("rm", {"-r", "/twice"}),
              (outcome{1, "",
                       "qvol: cannot remove /twice/TWO: shares cluster " + std::to_string(cluster) +
                           " with another entry; repair the volume first\n"}));
    EXPECT_EQ(said("cat", {"/a"}), std::string(9000, 'a'));
}

// ---- boot sectors that contradict themselves --------------------------------------------------

namespace {

const char *const BOTH_WIDTHS[] = {"16", "32"};

struct poked_number {
    std::uint64_t offset; // in the boot sector
    std::uint32_t value;
    std::size_t size;
};

struct contradictory_fields {
    const char *name;
    const char *width;
    std::vector<poked_number> numbers;
    std::string reason;
    bool is_backup_changed = true; // as the boot sector
};
std::ostream &operator<<(std::ostream &out, const contradictory_fields &tested) {
    return out << tested.name;
}

// Volumes of 20480 and 81920 sectors of 512 bytes, a cluster each.
const std::vector<contradictory_fields> CONTRADICTIONS = {
    {"Totals16",
     "16",
     {{32, 20000, 4}},
     "the 16-bit total is 20480 sectors and the 32-bit total is 20000, should be equal, or one of "
     "them 0"},
    {"Totals32",
     "32",
     {{19, 20000, 2}},
     "the 16-bit total is 20000 sectors and the 32-bit total is 81920, should be equal, or one of "
     "them 0"},
    {"ClusterSize", "16", {{13, 3, 1}}, "a cluster has 3 sectors, should be a power of two"},
    {"Reserved16",
     "16",
     {{14, 0, 2}},
     "the volume has 0 reserved sectors, should be at least 1 for the boot sector"},
    {"Copies16", "16", {{16, 0, 1}}, "the volume has 0 FAT copies, should be at least 1"},
    {"Copies32", "32", {{16, 0, 1}}, "the volume has 0 FAT copies, should be at least 1"},
    {"FatSize16",
     "16",
     {{22, 50, 2}},
     "the last cluster of the FAT is 12799, should be at least 20348"},
    {"FatSize32",
     "32",
     {{36, 600, 4}},
     "the last cluster of the FAT is 76799, should be at least 80689"},
    {"RootEntries", "32", {{17, 512, 2}}, "a FAT32 volume has 512 root entries, should be 0"},
    {"RootCluster0",
     "32",
     {{44, 0, 4}},
     "the first cluster of the root directory is 0, should be 2 to 80629"},
    {"RootCluster1",
     "32",
     {{44, 1, 4}},
     "the first cluster of the root directory is 1, should be 2 to 80629"},
    {"RootClusterPastTheEnd",
     "32",
     {{44, 80630, 4}},
     "the first cluster of the root directory is 80630, should be 2 to 80629"},
    {"ActiveFatMissing",
     "32",
     {{40, 0x82, 2}},
     "the active FAT copy is 2, should be less than 2, the number of copies"},
    {"FsinfoPlace",
     "32",
     {{48, 32, 2}},
     "FSInfo is in sector 32, should be in a reserved sector (below 32)"},
    {"BackupPlace",
     "32",
     {{50, 32, 2}},
     "the backup boot sector is in sector 32, should be in a reserved sector (below 32)"},
    {"FsinfoInTheBackup",
     "32",
     {{48, 6, 2}},
     "FSInfo and the backup boot sector are both in sector 6"},
    {"Backup",
     "32",
     {{14, 33, 2}},
     "the boot sector and its backup in sector 6 describe different areas",
     false},
};

// A healthy volume in whose boot sector numbers are changed.
class PokedVolume : public CheckedVolume {
protected:
    void poke_numbers(const std::vector<poked_number> &numbers, bool is_backup_changed) {
        for (const poked_number &one : numbers) {
            poke(one.offset, little_endian(one.value, one.size));
            if (is_fat32() && is_backup_changed) {
                poke(6 * 512 + one.offset, little_endian(one.value, one.size));
            }
        }
    }

    // Every command that writes, with what it does on a healthy volume.
    void for_each_writing_command(
        const std::function<void(const std::string &, std::vector<std::string>)> &test) {
        test("put", {host_file("new", "new"), "/"});
        test("put", {"--force", host_file("A.TXT", "new"), "/"});
        test("mkdir", {"/NEW"});
        test("mkdir", {"-p", "/NEW/BELOW"});
        test("mv", {"/A.TXT", "/DIR"});
        test("ln", {"A.TXT", "/LINK"});
        test("rm", {"/A.TXT"});
        test("rm", {"-r", "/DIR"});
        test("pool", {});
        test("log", {});
        test("mirror", {});
        test("compact", {});
    }
    void for_each_reading_command(
        const std::function<void(const std::string &, std::vector<std::string>)> &test) {
        test("info", {});
        test("ls", {"-lR"});
        test("tree", {});
        test("stat", {"/A.TXT"});
        test("cat", {"/A.TXT"});
        test("get", {"--force", "/A.TXT", scratch_.file("got")});
        test("fastpath", {"/A.TXT"});
        test("owner", {"2"});
        test("map", {});
        test("dump", {"--force", "fat", scratch_.file("dumped")});
        test("check", {});
    }
};

} // namespace

class QvolContradiction : public PokedVolume {};
INSTANTIATE_TEST_SUITE_P(Fat, QvolContradiction, testing::ValuesIn(BOTH_WIDTHS),
                         [](const auto &tested) { return std::string(tested.param); });

TEST_P(QvolContradiction, IsReadAndNotWrittenTo) {
    const bytes healthy = read_file(image_);
    for (const contradictory_fields &tested : CONTRADICTIONS) {
        if (std::string(GetParam()) != tested.width) {
            continue;
        }
        SCOPED_TRACE(tested);
        (void)scratch_.file_with("disk.img", healthy);
        poke_numbers(tested.numbers, tested.is_backup_changed);
        set_link(FREE_CLUSTER, end_mark()); // a repair would free it
        const bytes before = read_file(image_);
        for_each_writing_command([&](const std::string &command,
                                     std::vector<std::string> arguments) {
            EXPECT_EQ(
                qvol(command, std::move(arguments)),
                (outcome{1, "",
                         "qvol: cannot write to " + image_ +
                             ": its boot sector contradicts itself\n  " + tested.reason + "\n"}))
                << command;
        });
        EXPECT_TRUE(has_content(image_, before));
        for_each_reading_command(
            [&](const std::string &command, std::vector<std::string> arguments) {
                const outcome result = qvol(command, std::move(arguments));
                EXPECT_TRUE(result.status == 0 || result.status == 1) << command << result;
            });
        const outcome repaired = qvol("check", {"--repair"});
        EXPECT_EQ(repaired.status, 1);
        EXPECT_EQ(repaired.out.find("; repaired: "), std::string::npos) << repaired;
        EXPECT_TRUE(
            repaired.out.starts_with(tested.reason + "; not repaired: ") ||
            repaired.err ==
                "qvol: cannot check the volume: it has 0 FAT copies, should have at least 1\n")
            << repaired;
        EXPECT_TRUE(has_content(image_, before));
    }
}

// ---- volumes that are not supported -----------------------------------------------------------

namespace {

const char *const BACKUP_HINT = "; --backup-boot reads with the backup";
const char *const REBUILD_HINT = "; --repair --rebuild-boot rebuilds it from the FATs";

} // namespace

class QvolUnsupported : public PokedVolume {
protected:
    // `hint`: what commands that read add to the message because there is a backup, which check
    // uses.
    void expect_refused(const std::string &message, const std::string &hint = "") {
        const bytes before = read_file(image_);
        const auto expect = [&](const std::string &addition) {
            return [&, addition](const std::string &command, std::vector<std::string> arguments) {
                if (command == "check" && !hint.empty()) {
                    expect_backup_is_used(before);
                    return;
                }
                const std::string further = command == "check" ? REBUILD_HINT : addition;
                EXPECT_EQ(qvol(command, std::move(arguments)),
                          (outcome{1, "", "qvol: " + message + further + "\n"}))
                    << command;
            };
        };
        for_each_writing_command(expect(""));
        for_each_reading_command(expect(hint));
        expect("")("check", {"--repair"});
        EXPECT_TRUE(has_content(image_, before));
    }
    void expect_backup_is_used(const bytes &before) {
        const std::string line = "the boot sector describes no volume: ";
        const outcome found = qvol("check");
        EXPECT_EQ(found.status, 1);
        EXPECT_TRUE(found.out.starts_with(line)) << found;
        EXPECT_TRUE(has_content(image_, before));
        EXPECT_TRUE(said("check", {"--repair", "--no-undo"}).starts_with(line));
        EXPECT_EQ(qvol("check", {"-q"}), (outcome{0, "", ""}));
        (void)scratch_.file_with("disk.img", before);
    }
    void expect_unsupported(const std::string &reason, const std::string &hint = "") {
        expect_refused(image_ + " has a boot sector that contradicts itself: " + reason, hint);
    }
};
INSTANTIATE_TEST_SUITE_P(Fat, QvolUnsupported, testing::ValuesIn(BOTH_WIDTHS),
                         [](const auto &tested) { return std::string(tested.param); });

TEST_P(QvolUnsupported, IsRefusedByEveryCommand) {
    if (is_fat32()) {
        const std::string reason = "80630 clusters are FAT32, a 16-bit FAT size of 629 is FAT16";
        poke_numbers({{22, 629, 2}, {36, 0, 4}}, false);
        expect_unsupported(reason, BACKUP_HINT);
        poke_numbers({{22, 629, 2}, {36, 0, 4}}, true);
        expect_unsupported(reason);
        poke_numbers({{22, 0, 2}, {32, 0xFFFFFFFF, 4}, {36, 0x1FFFFFF, 4}}, true);
        expect_unsupported("it has 4227858401 clusters, FAT32 has at most 268435445");
    } else {
        poke_numbers({{17, 0, 2}}, false);
        expect_unsupported("a 16-bit FAT size of 80 is FAT12 or FAT16, 0 root entries are FAT32");
    }
}

// ---- sectors that describe no volume ----------------------------------------------------------

namespace {

// The same volumes.
const std::vector<contradictory_fields> NO_VOLUMES = {
    {"Signature16", "16", {{510, 0x1234, 2}}, "the boot signature is 0x1234, should be 0xAA55"},
    {"Signature32", "32", {{510, 0, 2}}, "the boot signature is 0x0000, should be 0xAA55"},
    {"SectorSize16",
     "16",
     {{11, 300, 2}},
     "bytes per sector is 300, should be 512, 1024, 2048 or 4096"},
    {"SectorSize256",
     "32",
     {{11, 256, 2}},
     "bytes per sector is 256, should be 512, 1024, 2048 or 4096"},
    {"SectorSize0", "32", {{11, 0, 2}}, "bytes per sector is 0, should be 512, 1024, 2048 or 4096"},
    {"ClusterSize16", "16", {{13, 0, 1}}, "sectors per cluster is 0, should be a power of two"},
    {"ClusterSize32", "32", {{13, 0, 1}}, "sectors per cluster is 0, should be a power of two"},
    {"FatSize",
     "32",
     {{36, 0, 4}},
     "FAT size (16-bit) and FAT size (32-bit) are 0, one of them should be at least 1"},
    {"FatSize16",
     "16",
     {{22, 0, 2}, {36, 100000, 4}},
     "total sectors (16-bit) is 20480, should be at least 200034: 1 reserved + 2 x 100000 FAT + 32 "
     "root directory + 1 cluster"},
    {"Total16",
     "16",
     {{19, 0, 2}},
     "total sectors (32-bit) is 0, should be at least 194: 1 reserved + 2 x 80 FAT + 32 root "
     "directory + 1 cluster"},
    {"Total32",
     "32",
     {{32, 0, 4}},
     "total sectors (32-bit) is 0, should be at least 1293: 32 reserved + 2 x 630 FAT + 0 root "
     "directory + 1 cluster"},
    {"TotalIsTheSmallOne",
     "32",
     {{32, 0, 4}, {19, 1000, 2}},
     "total sectors (16-bit) is 1000, should be at least 1293: 32 reserved + 2 x 630 FAT + 0 root "
     "directory + 1 cluster"},
    {"NoCluster16",
     "16",
     {{19, 193, 2}},
     "total sectors (16-bit) is 193, should be at least 194: 1 reserved + 2 x 80 FAT + 32 root "
     "directory + 1 cluster"},
    {"NoCluster32",
     "32",
     {{13, 64, 1}, {32, 1355, 4}},
     "total sectors (32-bit) is 1355, should be at least 1356: 32 reserved + 2 x 630 FAT + 0 root "
     "directory + 64 cluster"},
    {"Reserved",
     "32",
     {{14, 0xFFFF, 2}, {36, 10000, 4}},
     "total sectors (32-bit) is 81920, should be at least 85536: 65535 reserved + 2 x 10000 FAT + "
     "0 root directory + 1 cluster"},
};

} // namespace

TEST_P(QvolUnsupported, IsRefusedWithTheFieldThatIsWrong) {
    const bytes healthy = read_file(image_);
    for (const contradictory_fields &tested : NO_VOLUMES) {
        if (std::string(GetParam()) != tested.width) {
            continue;
        }
        SCOPED_TRACE(tested);
        const std::string message =
            "cannot mount " + image_ + ": no FAT volume found: " + tested.reason;
        (void)scratch_.file_with("disk.img", healthy);
        poke_numbers(tested.numbers, false);
        expect_refused(message, is_fat32() ? BACKUP_HINT : "");
        if (is_fat32()) {
            EXPECT_EQ(said("cat", {"/A.TXT", "--backup-boot"}), contents_["/A.TXT"]);
        }
        poke_numbers(tested.numbers, true);
        expect_refused(message);
    }
}

// ---- healthy volumes of another tool ----------------------------------------------------------

namespace {

struct made_volume {
    std::uint64_t bytes;
    std::vector<std::string> command; // the image comes last
    bool is_checked = true;           // by fsck.fat
};

// FAT32 with fewer clusters than its name promises, with the total in either field.
void add_small_volumes(std::vector<made_volume> *volumes) {
    for (const std::uint64_t sector : {512, 4096}) {
        for (const std::uint64_t sectors : {1, 8}) {
            for (const std::uint64_t clusters : {100, 1018, 4084, 7916, 65524}) {
                volumes->push_back({(clusters + 600) * sector * sectors,
                                    {"mkfs.fat", "-F", "32", "-S", std::to_string(sector), "-s",
                                     std::to_string(sectors)}});
            }
        }
    }
}

// The kinds of floppy disks that mtools know, whose FAT entries lie in two sectors here and there.
void add_floppies(std::vector<made_volume> *volumes) {
    for (const char *kibibytes : {"160", "180", "320", "360", "720", "1200", "1440", "2880"}) {
        volumes->push_back(
            {std::stoull(kibibytes) << 10U, {"mformat", "-f", kibibytes, "::", "-i"}});
    }
}

// Each option of mkfs.fat by itself, several at once, and what mtools make.
std::vector<made_volume> made_volumes(const std::string &width) {
    const bool is_fat32 = width == "32";
    const std::uint64_t clusters = is_fat32 ? 66000 : width == "16" ? 6000 : 2000;
    std::vector<made_volume> volumes;
    const auto add = [&](std::uint64_t sector, std::uint64_t sectors,
                         std::vector<std::string> options) {
        options.insert(options.begin(), {"mkfs.fat", "-F", width, "-S", std::to_string(sector),
                                         "-s", std::to_string(sectors)});
        const std::uint64_t areas = clusters * 4 * 3 + (std::uint64_t{1} << 20);
        volumes.push_back({clusters * sector * sectors + areas, options});
    };
    // fsck.fat knows no more than two FAT copies, and remarks on a missing backup.
    const auto add_unchecked = [&](std::vector<std::string> options) {
        add(512, 2, std::move(options));
        volumes.back().is_checked = false;
    };
    for (const std::uint64_t sector : {512, 1024, 2048, 4096}) {
        for (const std::uint64_t sectors : {1, 2, 8, 64, 128}) {
            add(sector, sectors, {});
        }
        add(sector, 1, {"-f", "1", "-R", is_fat32 ? "9" : "3", "-n", "LABEL"});
    }
    add(512, 2, {"-f", "1"});
    add_unchecked({"-f", "3"});
    add_unchecked({"-f", "4"});
    for (const char *reserved : {"2", "3", "7", "8", "32", "100"}) {
        add(512, 2, {"-R", reserved});
    }
    for (const char *entries : {"16", "112", "512", "4096"}) {
        add(512, 2, {"-r", entries});
    }
    if (width == "12") { // fsck.fat wants whole sectors of root entries
        add_unchecked({"-r", "1000"});
    } else {
        add(512, 2, {"-r", "1000"});
    }
    add(512, 2, {"-a"});
    add(512, 2, {"-M", "0xF0"});
    add(512, 2, {"-h", "63"});
    if (is_fat32) {
        add(512, 2, {"-b", "3"});
        add_unchecked({"-b", "0"});
    } else {
        add(512, 2, {"-R", "1"});
    }
    if (width == "12") {
        add_floppies(&volumes);
        return volumes;
    }
    const std::vector<std::string> mtools = {"mformat", "-h", "16", "-s", "63"};
    for (const std::vector<std::string> &options :
         is_fat32 ? std::vector<std::vector<std::string>>{{"-T", "140000", "-F", "-c", "1"},
                                                          {"-T", "300000", "-F", "-c", "2"}}
                  : std::vector<std::vector<std::string>>{{"-T", "60000", "-c", "4"},
                                                          {"-T", "70000", "-c", "4", "-r", "7"},
                                                          {"-T", "70000", "-c", "4", "-L", "80"}}) {
        volumes.push_back({std::uint64_t{160} << 20, mtools});
        std::vector<std::string> &command = volumes.back().command;
        command.insert(command.end(), options.begin(), options.end());
        command.insert(command.end(), {"::", "-i"});
    }
    if (is_fat32) {
        add_small_volumes(&volumes);
    }
    return volumes;
}

} // namespace

class QvolHealthy : public QvolImage, public testing::WithParamInterface<const char *> {};
INSTANTIATE_TEST_SUITE_P(Fat, QvolHealthy, testing::Values("12", "16", "32"),
                         [](const auto &tested) { return std::string(tested.param); });

TEST_P(QvolHealthy, IsWrittenToWithEveryOptionOfOtherTools) {
    image_ = scratch_.file("disk.img");
    const std::string file = host_file("a file with a long name", std::string(3000, 'x'));
    for (made_volume made : made_volumes(GetParam())) {
        std::filesystem::remove(image_);
        made.command.push_back(scratch_.sparse_file("disk.img", made.bytes));
        SCOPED_TRACE(testing::PrintToString(made.command));
        ASSERT_EQ(run(made.command).status, 0);
        (void)said("mkdir", {"/directory"});
        (void)said("put", {file, "/directory"});
        (void)said("mv", {"/directory/a file with a long name", "/file"});
        EXPECT_EQ(qvol("check", {"-q"}), (outcome{0, "", ""}));
        EXPECT_EQ(said("cat", {"/file"}), std::string(3000, 'x'));
        if (made.is_checked) {
            expect_clean();
        }
    }
}

// More copies of the FAT than any tool makes: those of a volume with one copy, repeated.
TEST_P(QvolHealthy, HasAsManyCopiesOfItsFatAsTheBootSectorCanState) {
    constexpr std::uint32_t COPIES = 255;
    const bool is_fat32 = std::string(GetParam()) == "32";
    image_ = scratch_.sparse_file("disk.img", GetParam() == std::string("12") ? 1 << 20 : 4 << 20);
    ASSERT_EQ(run({"mkfs.fat", "-F", GetParam(), "-f", "1", "-s", "1", "-R", "8", image_}).status,
              0);
    bytes volume = read_file(image_);
    const auto number = [&](std::size_t offset, std::size_t size) {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < size; i++) {
            value |= std::uint32_t{volume[offset + i]} << (8 * i);
        }
        return value;
    };
    const std::uint32_t fat_sectors = number(is_fat32 ? 36 : 22, is_fat32 ? 4 : 2);
    const std::uint32_t total = number(number(19, 2) != 0 ? 19 : 32, number(19, 2) != 0 ? 2 : 4) +
                                (COPIES - 1) * fat_sectors;
    for (const std::size_t sector :
         is_fat32 ? std::vector<std::size_t>{0, 6} : std::vector<std::size_t>{0}) {
        volume[sector * 512 + 16] = COPIES;
        volume[sector * 512 + 19] = volume[sector * 512 + 20] = 0;
        for (std::size_t i = 0; i < 4; i++) {
            volume[sector * 512 + 32 + i] = static_cast<std::uint8_t>(total >> (8 * i));
        }
    }
    const bytes fat(&volume[8 * 512], &volume[(8 + fat_sectors) * std::size_t{512}]);
    for (std::uint32_t copy = 1; copy < COPIES; copy++) {
        volume.insert(volume.begin() + 8 * 512, fat.begin(), fat.end());
    }
    (void)scratch_.file_with("disk.img", volume);
    EXPECT_EQ(qvol("check", {"-q"}), (outcome{0, "", ""}));
    said("put", {host_file("file", std::string(100000, 'x')), "/"});
    EXPECT_EQ(qvol("check", {"-q"}), (outcome{0, "", ""}));
    EXPECT_EQ(said("cat", {"/file"}), std::string(100000, 'x'));
    const bytes all = read_range(image_, 8 * 512, std::size_t{COPIES} * fat.size());
    EXPECT_NE(bytes(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(fat.size())), fat);
    EXPECT_TRUE(
        std::equal(all.begin() + static_cast<std::ptrdiff_t>(fat.size()), all.end(), all.begin()));
    EXPECT_EQ(json::parse(said("info", {"--json"}))["fat_copies"], COPIES);
}

class QvolTruncated : public QvolImage, public testing::WithParamInterface<const char *> {};
INSTANTIATE_TEST_SUITE_P(Fat, QvolTruncated, testing::ValuesIn(BOTH_WIDTHS),
                         [](const auto &tested) { return std::string(tested.param); });

TEST_P(QvolTruncated, IsReadAndNotWrittenTo) {
    image_ = scratch_.file("disk.img");
    const std::string file = host_file("file", std::string(200000, 'x'));
    ASSERT_EQ(run_qvol({"build", image_, "--size", "300M", "--fat", GetParam()}).status, 0);
    said("put", {file, "/first"});
    said("put", {file, "/second"});
    said("compact");
    const std::uint64_t used = std::filesystem::file_size(image_);
    said("put", {file, "/third"}); // a compacted image grows
    said("rm", {"/third"});
    std::filesystem::resize_file(image_, used - 16384);
    const bytes before = read_file(image_);
    EXPECT_EQ(said("cat", {"/first"}), std::string(200000, 'x'));
    EXPECT_EQ(qvol("cat", {"/second"}).status, 1);
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"put", file, "/"},
                                               {"mkdir", "/d"},
                                               {"mv", "/first", "/f"},
                                               {"rm", "/first"},
                                               {"ln", "/tmp", "/l"},
                                               {"pool"},
                                               {"mirror"}}) {
        const outcome result = qvol(arguments[0], {arguments.begin() + 1, arguments.end()});
        EXPECT_EQ(result.status, 1) << arguments[0];
        EXPECT_TRUE(result.err.starts_with("qvol: cannot write to " + image_ +
                                           ": the image is truncated: it has "))
            << arguments[0] << result;
    }
    EXPECT_TRUE(has_content(image_, before));
}

class QvolBackupBoot : public QvolImage, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Sectors, QvolBackupBoot, testing::Values(512, 1024, 2048, 4096));

TEST_P(QvolBackupBoot, TakesThePlaceOfADamagedBootSector) {
    const std::string sector = std::to_string(GetParam());
    image_ = scratch_.sparse_file("disk.img", std::uint64_t{2000} * GetParam());
    ASSERT_EQ(run({"mkfs.fat", "-F", "32", "-s", "1", "-S", sector, image_}).status, 0);
    const std::string file = host_file("file", std::string(5000, 'x'));
    said("put", {file, "/"});
    const std::string listed = said("ls", {"-l"});
    std::fstream(image_, std::ios::binary | std::ios::in | std::ios::out) << std::string(512, '?');
    const bytes before = read_file(image_);
    const std::string reason = "qvol: cannot mount " + image_ +
                               ": no FAT volume found: the boot signature is 0x3F3F, should be "
                               "0xAA55";
    EXPECT_EQ(qvol("ls"), (outcome{1, "", reason + BACKUP_HINT + "\n"}));
    EXPECT_EQ(said("ls", {"-l", "--backup-boot"}), listed);
    EXPECT_EQ(said("cat", {"/file", "--backup-boot"}), std::string(5000, 'x'));
    EXPECT_EQ(said("check", {"-q", "--backup-boot"}), "");
    for (const std::vector<std::string> &writing :
         std::vector<std::vector<std::string>>{{"put", image_, file, "/"},
                                               {"check", image_, "--repair"},
                                               {"build", image_, "--size", "16M", "--force"},
                                               {"compact", image_}}) {
        std::vector<std::string> command = writing;
        command.emplace_back("--backup-boot");
        EXPECT_EQ(run_qvol(command),
                  (outcome{2, "", "qvol: --backup-boot: only for commands that read\n"}))
            << writing[0];
    }
    EXPECT_TRUE(has_content(image_, before));
    // The backup is damaged, too.
    std::fstream image(image_, std::ios::binary | std::ios::in | std::ios::out);
    image.seekp(6 * GetParam() + 13);
    image.put('\0');
    image.close();
    EXPECT_EQ(qvol("ls", {"--backup-boot"}),
              (outcome{1, "",
                       "qvol: cannot mount " + image_ +
                           ": no backup of a FAT32 boot sector found in sector 6\n"}));
    EXPECT_EQ(qvol("ls"), (outcome{1, "", reason + "\n"}));
}

// ---- one FAT copy in use ----------------------------------------------------------------------

class QvolActiveFat : public PokedVolume {
protected:
    // The inactive copies have bytes that are no FAT.
    void make(const char *copies, std::uint32_t active) {
        image_ = scratch_.sparse_file("active.img", 40 << 20);
        ASSERT_EQ(run({"mkfs.fat", "-F", "32", "-s", "1", "-f", copies, image_}).status, 0);
        said("put", {scratch_.file("tree") + "/.", "/"});
        layout_ = layout_of(image_);
        active_ = active;
        copies_ = static_cast<std::uint32_t>(std::stoul(copies));
        poke_numbers({{40, 0x80 | active, 2}}, true);
        for (std::uint32_t copy = 0; copy < copies_; copy++) {
            if (copy != active) {
                poke(fat_offset(0, copy), std::string(fat_bytes(), 'Z'));
            }
        }
    }

    std::size_t fat_bytes() const {
        return std::size_t{layout_.fat_size} * 512;
    }

    void expect_other_copies_unchanged() {
        for (std::uint32_t copy = 0; copy < copies_; copy++) {
            EXPECT_TRUE(copy == active_ ||
                        peek(fat_offset(0, copy), fat_bytes()) == std::string(fat_bytes(), 'Z'))
                << copy;
        }
    }

    void expect_areas(const json &areas) {
        for (std::uint32_t copy = 0; copy < copies_; copy++) {
            const json &area = areas[copy + 1];
            EXPECT_EQ(area["name"],
                      "FAT " + std::to_string(copy) + (copy == active_ ? "" : " (unused)"));
            EXPECT_EQ(area["offset"], fat_offset(0, copy));
        }
    }

    // For a judge that does not heed the field: the active copy in place of all others.
    void mirror_by_hand() {
        const std::string fat = peek(fat_offset(0, active_), fat_bytes());
        for (std::uint32_t copy = 0; copy < copies_; copy++) {
            poke(fat_offset(0, copy), fat);
        }
        poke_numbers({{40, 0, 2}}, true);
    }

    std::uint32_t active_ = 0;
    std::uint32_t copies_ = 0;
};
INSTANTIATE_TEST_SUITE_P(Fat, QvolActiveFat, testing::Values("32"));

TEST_P(QvolActiveFat, IsTheOnlyCopyThatIsReadAndWritten) {
    struct row {
        const char *copies;
        std::uint32_t active;
    };
    for (const row &r : {row{"2", 0}, {"2", 1}, {"4", 2}}) {
        SCOPED_TRACE(r.active);
        make(r.copies, r.active);
        expect_healthy();
        expect_contents();
        contents_["/DIR/NEW"] = std::string(5000, 'n');
        said("put", {host_file("NEW", contents_["/DIR/NEW"]), "/DIR"});
        said("mkdir", {"/OTHER"});
        said("rm", {"-r", "/OTHER", "/B.TXT"});
        contents_.erase("/B.TXT");
        expect_healthy();
        expect_contents();

        set_link_in(active_, 1, 5);
        set_link_in(active_, FREE_CLUSTER, end_mark());
        EXPECT_EQ(qvol("check").status, 1);
        said("check", {"--repair"});
        expect_healthy();

        const json info = json::parse(said("info", {"--json"}));
        EXPECT_EQ(info["active_fat"], active_);
        expect_areas(info["areas"]);
        expect_areas(json::parse(said("map", {"--json"}))["areas"]);
        const std::string number = std::to_string(active_);
        EXPECT_NE(
            said("info").find("\nmirroring     off, only FAT copy " + number + " is in use\n"),
            std::string::npos);
        said("dump", {"--force", "fat", scratch_.file("dumped")});
        const bytes dumped = read_file(scratch_.file("dumped"));
        EXPECT_EQ(std::string(dumped.begin(), dumped.end()),
                  peek(0, std::size_t{layout_.fat_start} * 512) +
                      peek(fat_offset(0, active_), fat_bytes()));

        const bytes before = read_file(image_);
        EXPECT_EQ(qvol("mirror"), (outcome{1, "",
                                           "qvol: cannot make the FAT copies of " + image_ +
                                               " equal: its boot sector states that only copy " +
                                               number + " is in use\n"}));
        if (active_ != 0) {
            EXPECT_EQ(qvol("pool"),
                      (outcome{1, "",
                               "qvol: cannot make /ZUQ_POOL.SY$: the boot sector states that only "
                               "FAT copy " +
                                   number + " is in use, the ZUQ driver uses copy 0\n"}));
        }
        EXPECT_TRUE(has_content(image_, before));
        expect_other_copies_unchanged();
        EXPECT_EQ(run({"mtype", "-i", image_, "::/DIR/NEW"}),
                  (outcome{0, contents_["/DIR/NEW"], ""}));
        mirror_by_hand();
        if (copies_ == 2) { // fsck.fat knows no more
            expect_clean();
        }
        expect_healthy();
        expect_contents();
        contents_["/B.TXT"] = std::string(1000, 'b');
        contents_.erase("/DIR/NEW");
    }
}

// With mirroring, the number of the active copy has no meaning.
TEST_P(QvolActiveFat, IsEveryCopyWithMirroring) {
    make("2", 1);
    mirror_by_hand();
    poke_numbers({{40, 1, 2}}, true);
    said("rm", {"/B.TXT"});
    expect_healthy();
    expect_clean();
    EXPECT_EQ(peek(fat_offset(0, 0), fat_bytes()), peek(fat_offset(0, 1), fat_bytes()));
    EXPECT_EQ(json::parse(said("info", {"--json"}))["active_fat"], nullptr);
}

class QvolFloppy : public QvolImage {
protected:
    QvolFloppy() {
        image_ = scratch_.sparse_file("floppy.img", 1440 * 1024);
        EXPECT_EQ(run({"mformat", "-f", "1440", "-i", image_, "::"}).status, 0);
        fresh_ = read_file(image_);
        // Clusters 2 to 602: entry 341 lies in two sectors of the FAT.
        EXPECT_EQ(
            run({"mcopy", "-i", image_, host_file("file", std::string(307500, 'x')), "::"}).status,
            0);
    }
    void poke(std::uint64_t offset, char value) {
        std::fstream image(image_, std::ios::binary | std::ios::in | std::ios::out);
        image.seekp(static_cast<std::streamoff>(offset));
        image.put(value);
    }
    [[nodiscard]] bytes fats() const {
        return read_range(image_, FAT, ROOT - FAT);
    }

    static constexpr std::uint64_t FAT = 512;
    static constexpr std::uint64_t SECOND_FAT = std::uint64_t{10} * 512;
    static constexpr std::uint64_t ROOT = std::uint64_t{19} * 512;
    bytes fresh_;
};

TEST_F(QvolFloppy, FilesComeAndGo) {
    EXPECT_EQ(said("cat", {"/file"}), std::string(307500, 'x'));
    said("rm", {"/file"});
    EXPECT_EQ(fats(), bytes(fresh_.begin() + FAT, fresh_.begin() + ROOT));
    expect_clean();
    const outcome full = qvol("put", {host_file("large", std::string(1500000, 'x')), "/"});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(fats(), bytes(fresh_.begin() + FAT, fresh_.begin() + ROOT));
    said("put", {host_file("all of it", std::string(2847 * 512, 'x')), "/"});
    expect_clean();
    EXPECT_EQ(said("check", {}), "0 directories, 1 file, 2847 of 2847 clusters: no findings\n");
}

TEST_F(QvolFloppy, HasNoFilesOfTheDriver) {
    EXPECT_EQ(qvol("pool"),
              (outcome{1, "",
                       "qvol: cannot make /ZUQ_POOL.SY$: the ZUQ driver cannot use FAT12 with 2847 "
                       "clusters, only FAT16, and FAT32 with at least 65525\n"}));
    ASSERT_EQ(run({"mkfs.fat", "-F", "32", image_}).status, 0);
    EXPECT_EQ(qvol("log").status, 1);
}

TEST_F(QvolFloppy, LostClustersAreFreed) {
    poke(ROOT, '\xE5');
    EXPECT_EQ(qvol("check").status, 1);
    said("check", {"--repair", "--free-lost"});
    EXPECT_EQ(fats(), bytes(fresh_.begin() + FAT, fresh_.begin() + ROOT));
    expect_clean();
}

TEST_F(QvolFloppy, CopiesAndFixedEntriesAreRepaired) {
    const bytes healthy = fats();
    poke(SECOND_FAT + 512, 0); // the second byte of entry 341
    poke(FAT, 0);              // entry 0
    poke(FAT + 2, 0);          // entry 1
    const std::string found = qvol("check").out;
    EXPECT_NE(found.find("FAT entry 0 is 0xf00, should be 0xff0"), std::string::npos) << found;
    EXPECT_NE(found.find("FAT entry 1 is 0xf, should be an end-of-chain mark"), std::string::npos)
        << found;
    EXPECT_NE(found.find("FAT copy 1 differs from copy 0 in 2 sectors, first at entry 0"),
              std::string::npos)
        << found;
    said("check", {"--repair"});
    EXPECT_EQ(fats(), healthy);
    expect_clean();
}

class QvolFormatted : public QvolHealthy {};
INSTANTIATE_TEST_SUITE_P(Fat, QvolFormatted, testing::ValuesIn(BOTH_WIDTHS),
                         [](const auto &tested) { return std::string(tested.param); });

TEST_P(QvolFormatted, IsWrittenToAsTheFormatterMadeIt) {
    const std::uint64_t clusters = std::string(GetParam()) == "32" ? 67000 : 6000;
    for (const std::uint64_t sector : {512, 1024, 2048, 4096}) {
        for (const char *page : {"0", "2048", "8192"}) {
            image_ = scratch_.sparse_file("disk.img", (clusters * 2 + 1000) * sector);
            const std::vector<std::string> command = {
                tool_path(), "-F", GetParam(), "-S", std::to_string(sector),
                "-s",        "2",  "-p",       page, image_};
            SCOPED_TRACE(testing::PrintToString(command));
            ASSERT_EQ(run(command).status, 0);
            (void)said("mkdir", {"/directory"});
            EXPECT_EQ(qvol("check", {"-q"}), (outcome{0, "", ""}));
            std::filesystem::remove(image_);
        }
    }
}

// ---- closed standard streams ------------------------------------------------------------------

class QvolStreams : public QvolImage {
protected:
    QvolStreams() {
        setenv("SOURCE_DATE_EPOCH", "1700000000", 1);
        format("16", 3 << 20, "1");
        said("put", {host_file("FILE", std::string(3000, 'x')), "/"});
        said("mkdir", {"/DIR"});
        pristine_ = read_file(image_);
    }

    // Runs a command on the volume as it was, with streams closed: bit N for descriptor N.
    outcome run_closed(const std::vector<std::string> &arguments, unsigned closed) {
        if (!has_content(image_, pristine_)) {
            (void)scratch_.file_with("disk.img", pristine_);
        }
        std::filesystem::remove(scratch_.file("got"));
        std::string command = "exec \"$@\"";
        for (unsigned fd = 0; fd < 3; fd++) {
            command += (closed >> fd & 1) != 0 ? " " + std::to_string(fd) + ">&-" : "";
        }
        std::vector<std::string> all = {qvol_path()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return shell(command, all);
    }

    [[nodiscard]] bytes written_on_host() const {
        return read_file(scratch_.file("got"));
    }

    std::vector<std::vector<std::string>> every_command() {
        const std::string got = scratch_.file("got");
        const std::string file = host_file("new", "new");
        std::vector<std::vector<std::string>> commands = {
            {"build", image_, "--force", "--size", "4M", "--from",
             host_file("tree/a", "a") + "/.."},
            {"build", got, "--size", "auto"},
            {"info", image_},
            {"ls", "-lR", image_},
            {"tree", image_},
            {"stat", image_, "/FILE"},
            {"cat", image_, "/FILE"},
            {"get", image_, "/FILE", got},
            {"put", image_, file, "/"},
            {"put", "--encoding", "latin1", image_, file, "/"},
            {"mkdir", image_, "/NEW"},
            {"mkdir", image_, "/DIR"}, // exists
            {"mv", image_, "/FILE", "/DIR"},
            {"ln", image_, "FILE", "/LINK"},
            {"rm", image_, "/FILE", "/DIR"},
            {"pool", image_},
            {"log", image_},
            {"fastpath", image_, "/FILE"},
            {"owner", image_, "2"},
            {"map", image_},
            {"map", image_, "--svg", got},
            {"dump", image_, "fat", got},
            {"check", image_},
            {"check", image_, "--repair"},
            {"mirror", image_},
            {"compact", image_},
        };
        const std::size_t count = commands.size();
        for (std::size_t i = 0; QUORVEL_FULL && i < count; i++) {
            for (const char *option : {"--json", "-v"}) {
                commands.push_back(commands[i]);
                commands.back().push_back(option);
            }
        }
        for (const char *argument : {"--version", "--help", "--wrong", "wrong"}) {
            commands.push_back({argument});
        }
        commands.push_back({"ls", "--help"});
        commands.push_back({"put", image_, "--wrong"});
        commands.push_back({"put", "-q", image_, file, "/"});
        commands.push_back({"ls", scratch_.file("missing")});
        return commands;
    }

    bytes pristine_;
};

// A failure to write what a command has to print is reported; the image is as with open streams.
TEST_F(QvolStreams, ClosedOnesDoNotReachTheImage) {
    for (const std::vector<std::string> &command : every_command()) {
        SCOPED_TRACE(testing::PrintToString(command));
        const outcome open = run_closed(command, 0);
        const bytes image = read_file(image_);
        const bytes on_host = written_on_host();
        for (unsigned closed = 1; closed < 8 && !HasFailure(); closed++) {
            SCOPED_TRACE(closed);
            const bool loses_output = (closed & 2) != 0 && !open.out.empty();
            outcome wanted = open;
            if (loses_output) {
                wanted.status = open.status == 0 ? 1 : open.status;
                wanted.out = "";
                wanted.err += open.status == 2
                                  ? ""
                                  : "qvol: cannot write to standard output: Bad file descriptor\n";
            }
            if ((closed & 4) != 0) {
                wanted.err = "";
            }
            EXPECT_EQ(run_closed(command, closed), wanted);
            EXPECT_TRUE(has_content(image_, image));
            EXPECT_TRUE(written_on_host() == on_host);
        }
    }
}

TEST_F(QvolStreams, NeedNoDevices) {
    if (!can_mount_privately()) {
        GTEST_SKIP() << "no mount namespace for this user";
    }
    const std::string image = scratch_.file("got");
    // The scratch directory may itself be in /dev.
    EXPECT_EQ(shell_with_private_mounts(
                  "cd \"$1\" && shift && mount -t tmpfs none /dev &&"
                  " exec \"$@\" 0<&- 1>&- 2>&-",
                  {scratch_.file("."), qvol_path(), "build", "-q", "got", "--size", "4M"}),
              (outcome{0, "", ""}));
    EXPECT_EQ(run_qvol({"check", "-q", image}), (outcome{0, "", ""}));
}

// The reader has gone before the command starts.
TEST_F(QvolStreams, BrokenPipeEndsOnlyWhatReads) {
    const auto into_broken_pipe = [&](std::vector<std::string> arguments) {
        (void)scratch_.file_with("disk.img", pristine_);
        const std::string pipe = scratch_.file("pipe");
        std::filesystem::remove(pipe);
        arguments.insert(arguments.begin(), {pipe, qvol_path()});
        return shell(
            "mkfifo \"$1\" && exec 3<>\"$1\" 4>\"$1\" 3>&- && shift && exec \"$@\" >&4 4>&-",
            arguments);
    };
    EXPECT_EQ(into_broken_pipe({"ls", image_}), (outcome{128 + SIGPIPE, "", ""}));
    const std::string file = host_file("new", "new");
    ASSERT_EQ(run_closed({"put", image_, file, "/"}, 0).status, 0);
    const bytes expected = read_file(image_);
    EXPECT_EQ(into_broken_pipe({"put", image_, file, "/"}),
              (outcome{1, "", "qvol: cannot write to standard output: Broken pipe\n"}));
    EXPECT_TRUE(has_content(image_, expected));
}

TEST_F(QvolStreams, FullDiskIsReportedHoweverMuchIsPrinted) {
    for (const char *command : {"info", "map", "cat", "--help"}) {
        std::vector<std::string> arguments = {qvol_path(), command};
        if (std::string(command) != "--help") {
            arguments.push_back(image_);
        }
        if (std::string(command) == "cat") {
            arguments.insert(arguments.end(), 20, "/FILE"); // more than a buffer
        }
        EXPECT_EQ(
            shell("exec \"$@\" >/dev/full", arguments),
            (outcome{1, "", "qvol: cannot write to standard output: No space left on device\n"}))
            << command;
    }
}
