// Damaged volumes: whatever bytes stand in the metadata, every command ends, with status 0 or 1, in
// seconds, and says something where it fails.

#include "tests/support/qvol.h"

#include <random>

using namespace testing_support;

namespace {

const unsigned ROUNDS = is_sanitized_qvol() ? 10 : 20;

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
        while (!pristine_.empty() && pristine_.back() == 0) { // what is left is a hole
            pristine_.pop_back();
        }
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
                       "qvol: /dir/FILE: shares cluster " + std::to_string(cluster) +
                           " with another; repair that first\n"}));
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
                       "qvol: /twice/TWO: shares cluster " + std::to_string(cluster) +
                           " with another; repair that first\n"}));
    EXPECT_EQ(said("cat", {"/a"}), std::string(9000, 'a'));
}
