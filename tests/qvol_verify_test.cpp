// The comparison of a volume with a manifest, a directory or another volume: every changed byte is
// found, and the medium is read once and in order. The same for a medium that was just written.

#include "qvol/file_data.h"
#include "qvol/flashing/flashing.h"
#include "qvol/new_volume.h"
#include "qvol/verifying/verification.h"

#include "tests/support/files.h"

#include <cinttypes>
#include <cstdio>
#include <random>

#include <gtest/gtest.h>

using namespace qvol;
using testing_support::bytes;
using testing_support::scratch_directory;

namespace {

constexpr unsigned CHANGES = QUORVEL_FULL ? 10'000 : 300;

// A volume whose files have their clusters anywhere, in any order.
class QvolVerify : public testing::TestWithParam<u32> {
protected:
    QvolVerify() {
        image_ = scratch_.sparse_file("image", u64{GetParam() == 32 ? 4U : 3U} << 20);
        where_ = std::make_unique<target>(image_, access::WRITE);
        shape_request request;
        request.fat_type = GetParam();
        request.sector_bytes = 512;
        request.cluster_bytes = GetParam() == 12 ? 1024 : 512;
        request.bytes = where_->size();
        const volume_source source;
        progress bar("", 0, true);
        volume_ = make_volume(*where_, choose_shape(request, content_of(source, {})), source, {},
                              "UTF-8", &bar);
        add_files();
    }

    void add_files() {
        std::vector<u32> free_clusters;
        for (u32 cluster = 3; cluster <= volume_->on().last_cluster(); cluster++) {
            free_clusters.push_back(cluster);
        }
        std::shuffle(free_clusters.begin(), free_clusters.end(), random_);
        directory root = volume_->root();
        directory below = directory::make(volume_->fat(), root, {});
        for (u32 i = 0; i < 12; i++) {
            const u32 size = i == 0 ? 0 : i == 1 ? 2048 : 1 + static_cast<u32>(random_() % 40'000);
            directory &into = i % 3 == 0 ? below : root;
            add_file(&into, u"file " + std::u16string(1, static_cast<char16_t>(u'a' + i)), size,
                     &free_clusters);
        }
        root.add({u"below", kind::DIRECTORY, below.start(), 0, {}});
        volume_->commit_additions({&below, &root});
        volume_->finish();
    }

    void add_file(directory *into, std::u16string name, u32 size, std::vector<u32> *free_clusters) {
        std::vector<u32> clusters;
        while (clusters.size() < clusters_for(volume_->on(), size)) {
            if (volume_->fat().get(free_clusters->back()) == core::FAT_FREE) {
                clusters.push_back(free_clusters->back());
            }
            free_clusters->pop_back();
        }
        for (std::size_t i = 0; i < clusters.size(); i++) {
            volume_->fat().set(clusters[i], i + 1 < clusters.size() ? clusters[i + 1]
                                                                    : volume_->on().value_mask());
        }
        into->add({std::move(name), kind::FILE, clusters.empty() ? 0 : clusters.front(), size, {}});
        bytes content(size);
        std::generate(content.begin(), content.end(),
                      [this] { return static_cast<std::uint8_t>(random_()); });
        data_writer writer(volume_->on());
        writer.begin(clusters);
        writer.append(content);
        writer.end();
        writer.flush();
    }

    // Position on the medium of each byte of the clusters of a file.
    struct place_of_byte {
        std::string path;
        u64 offset; // in the file
        u64 position;
    };
    place_of_byte random_byte(const listed_tree &tree) {
        for (;;) {
            const auto chosen =
                std::next(tree.begin(), static_cast<std::ptrdiff_t>(random_() % tree.size()));
            const file_extents &extents = chosen->second.extents;
            const u64 size = bytes_of(extents);
            if (size == 0) {
                continue;
            }
            const u64 offset = random_() % size;
            u64 left = offset;
            for (const cluster_extent &extent : extents) {
                const u64 count = u64{extent.count} * volume_->on().cluster_bytes();
                if (left < count) {
                    return {chosen->first, offset,
                            u64{volume_->on().sector_of(extent.first)} * 512 + left};
                }
                left -= count;
            }
        }
    }
    [[nodiscard]] u64 bytes_of(const file_extents &extents) const {
        u64 count = 0;
        for (const cluster_extent &extent : extents) {
            count += extent.count;
        }
        return count * volume_->on().cluster_bytes();
    }

    void flip(u64 position, u8 bits) {
        u8 byte = 0;
        ASSERT_EQ(where_->medium().read(position, std::span(&byte, 1)), 1);
        byte ^= bits;
        ASSERT_EQ(where_->medium().write(position, std::span(&byte, 1)), 1);
    }

    std::vector<difference> differences_from(verification_source *source) {
        listed_tree tree = list_tree(*volume_);
        return find_differences(*volume_, &tree, source, true);
    }

    // A file with the manifest of the volume.
    std::string manifest_file(u64 piece_bytes) {
        listed_tree tree = list_tree(*volume_);
        add_digests(*volume_, piece_bytes, true, &tree);
        std::ofstream(scratch_.file("manifest")) << manifest_text(manifest_of(tree, piece_bytes));
        return scratch_.file("manifest");
    }
    std::string copy_of_image() {
        std::filesystem::copy_file(image_, scratch_.file("copy"));
        return scratch_.file("copy");
    }

    std::mt19937 random_{GetParam()};
    scratch_directory scratch_;
    std::string image_;
    std::unique_ptr<target> where_;
    std::unique_ptr<volume> volume_;
};
INSTANTIATE_TEST_SUITE_P(Fat, QvolVerify, testing::Values(12, 16, 32),
                         [](const auto &tested) { return std::to_string(tested.param); });

} // namespace

TEST_P(QvolVerify, FindsEveryChangedByte) {
    constexpr u64 PIECE_BYTES = 4096;
    const auto by_manifest = open_verification_source(manifest_file(PIECE_BYTES), "UTF-8", true);
    const auto by_volume = open_verification_source(copy_of_image(), "UTF-8", true);
    const listed_tree tree = list_tree(*volume_);
    EXPECT_TRUE(differences_from(by_manifest.get()).empty());
    EXPECT_TRUE(differences_from(by_volume.get()).empty());
    for (unsigned i = 0; i <= CHANGES / 3 && !HasFailure(); i++) {
        const place_of_byte changed = random_byte(tree);
        SCOPED_TRACE(changed.path + ", byte " + std::to_string(changed.offset));
        const u8 bits = static_cast<u8>(1 + random_() % 255);
        flip(changed.position, bits);
        const std::vector<difference> exact = differences_from(by_volume.get());
        ASSERT_EQ(exact.size(), 1U);
        EXPECT_EQ(exact[0].path, changed.path);
        EXPECT_EQ(exact[0].first, changed.offset);
        EXPECT_EQ(exact[0].last, changed.offset);
        const std::vector<difference> near = differences_from(by_manifest.get());
        ASSERT_EQ(near.size(), 1U);
        EXPECT_EQ(near[0].path, changed.path);
        const bool is_content = changed.offset < tree.at(changed.path).content.size;
        EXPECT_EQ(near[0].type, is_content ? difference_kind::CONTENT : difference_kind::REST);
        if (is_content) {
            EXPECT_EQ(near[0].first, changed.offset / PIECE_BYTES * PIECE_BYTES);
            EXPECT_EQ(near[0].last, std::min<u64>(*near[0].first + PIECE_BYTES,
                                                  *tree.at(changed.path).content.size) -
                                        1);
        } else {
            EXPECT_EQ(near[0].first, changed.offset);
        }
        flip(changed.position, bits);
    }
}

// Every sector of the files once; a file never twice in one sweep from the start to the end unless
// its clusters ascend.
TEST_P(QvolVerify, ReadsTheMediumOnceAndInOrder) {
    const listed_tree tree = list_tree(*volume_);
    std::vector<file_extents> files;
    u64 sectors = 0;
    for (const auto &[path, listed] : tree) {
        files.push_back(listed.extents);
        sectors += bytes_of(listed.extents) / 512;
    }
    std::vector<u64> position_in(files.size());
    std::vector<std::size_t> extent_of(files.size());
    u64 sweeps = 1;
    u64 most_sweeps = 1;
    u64 last = 0;
    for (const reading_step &step : reading_order(volume_->on(), files)) {
        sweeps += step.sector < last ? 1 : 0;
        last = step.end();
        sectors -= step.count;
        const cluster_extent &extent = files[step.file].at(extent_of[step.file]++);
        EXPECT_EQ(step.sector, volume_->on().sector_of(extent.first));
        EXPECT_EQ(step.count, extent.count * volume_->on().at.sectors_per_cluster);
    }
    EXPECT_EQ(sectors, 0U);
    for (const file_extents &extents : files) {
        u64 turns = 1;
        for (std::size_t i = 1; i < extents.size(); i++) {
            turns += extents[i].first < extents[i - 1].first ? 1 : 0;
        }
        most_sweeps = std::max(most_sweeps, turns);
    }
    EXPECT_LE(sweeps, most_sweeps);
    EXPECT_GT(sweeps, 1U);
}

// Of every kind; the same in all forms of what is expected.
TEST_P(QvolVerify, NamesWhatDiffers) {
    const std::string manifest_path = manifest_file(0);
    const std::string copy = copy_of_image();
    directory root = volume_->root();
    const entry removed = *root.find(u"file b");
    root.remove(removed);
    entry shorter = *root.find(u"file c");
    shorter.set_size(shorter.size() - 1);
    root.update(shorter);
    entry linked = *root.find(u"file e");
    linked.set_link(true);
    root.update(linked);
    root.add({u"new", kind::FILE, 0, 0, {}});
    volume_->commit_removals({&root});
    for (const std::string &expected : {manifest_path, copy}) {
        const std::vector<difference> found =
            differences_from(open_verification_source(expected, "UTF-8", true).get());
        ASSERT_EQ(found.size(), 4U);
        EXPECT_EQ(found[0].path + ": " + found[0].text, "file b: missing");
        EXPECT_EQ(found[1].path, "file c");
        EXPECT_EQ(found[1].type, difference_kind::SIZE);
        EXPECT_EQ(found[1].first,
                  expected == copy ? std::optional<u64>(shorter.size()) : std::nullopt);
        EXPECT_EQ(found[2].path + ": " + found[2].text, "file e: is a link, should be a file");
        EXPECT_EQ(found[3].path + ": " + found[3].text, "new: should not exist");
    }
}

// A manifest with one line changed. "": it is read.
TEST(QvolManifest, InvalidLinesAreRefused) {
    const scratch_directory scratch;
    const std::string path = scratch.file("manifest");
    const std::string digest(64, 'a');
    const std::string head = "# qvol manifest\n# pieces of 512 bytes\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {digest + "  a\n" + digest + " *./b\n", ""},
        {"# of another program\n" + digest + "  a\n", ""},
        {head + "# size 5\n" + digest + "  a\n# directory b\n# link c\n# target \n", ""},
        {"", "it is empty"},
        {digest.substr(1) + "  a\n", "line 1 is not \"SHA-256  PATH\""},
        {digest + "  \n", "line 1 is not \"SHA-256  PATH\""},
        {digest + "  ./\n", "line 1 has no path"},
        {digest + "  a\n" + digest + "  ./a\n", "line 2 has the path of an earlier one"},
        {head + "# unknown\n", "line 3 is not a line of a manifest"},
        {head + "# target x\n", "line 3 is not a line of a manifest"},
        {head + "# size 5x\n", "line 3 has an invalid number"},
        {head + "# size 600\n" + digest + "  a\n",
         "line 4 has not the pieces of its size before it"},
        {head + "# size 600\n# pieces 0123456789abcde\n",
         "line 4 has an invalid digest of a piece"},
    };
    for (const auto &[text, why] : cases) {
        std::ofstream(path) << text;
        std::string trouble;
        try {
            (void)read_manifest(path);
        } catch (const error &refusal) {
            trouble = refusal.what();
        }
        EXPECT_EQ(trouble, why.empty() ? "" : path + " is not a manifest: " + why) << text;
    }
}

// Names that only a damaged volume has are written as text and found again.
TEST(QvolManifest, EveryNameHasAPath) {
    const name_codec utf8;
    EXPECT_EQ(manifest_path(utf8, {u"a b", u"grüße.txt"}), "a b/grüße.txt");
    EXPECT_EQ(manifest_path(utf8, {u"a\\b\n\x1b\r"}), "a\\\\b\\n\\x1b\\r");
    EXPECT_EQ(manifest_path(utf8, {u"a/b", std::u16string(1, char16_t{0xD800}) + u"é"}),
              "a\\u002fb/\\ud800é");
    EXPECT_EQ(manifest_path(name_codec("ISO-8859-1"), {u"é€"}), "\xe9\\u20ac");
    const scratch_directory scratch;
    manifest odd;
    odd.entries["a\\\\b"] = {kind::FILE, 0, {std::string(64, '0'), {}, ""}, ""};
    odd.entries["\\ud800"] = {kind::LINK, {}, {}, "\\n"};
    std::ofstream(scratch.file("manifest")) << manifest_text(odd);
    const manifest read = read_manifest(scratch.file("manifest"));
    ASSERT_EQ(read.entries.size(), 2U);
    EXPECT_TRUE(read.entries.contains("a\\\\b"));
    EXPECT_EQ(read.entries.at("\\ud800").target, "\\n");
}

// ---- flashing ---------------------------------------------------------------------------------

// A medium that does not hold what was written to it, in one byte, is found, and gets no volume.
TEST(QvolFlashed, AMediumThatForgetsIsFound) {
    constexpr u64 MEDIUM_BYTES = u64{12} << 20;
    const scratch_directory scratch;
    bytes content(std::size_t{9} << 20, 7);
    std::fill_n(content.begin() + (1 << 20), 1 << 20, 0);
    const std::string image = scratch.file_with("image", content);
    for (const u64 position : {u64{4096}, u64{1'500'000}, u64{5'000'000}, (u64{9} << 20) - 1,
                               u64{10} << 20, MEDIUM_BYTES - 1}) {
        SCOPED_TRACE(position);
        const target where(scratch.sparse_file("medium", MEDIUM_BYTES), access::WRITE);
        const auto stream = open_image_stream(image, "");
        flashing work(where, stream.get(), true, true);
        work.blank_head();
        work.write();
        work.verify();
        u8 byte = 0;
        ASSERT_EQ(where.medium().read(position, std::span(&byte, 1)), 1);
        byte ^= 0x10;
        ASSERT_EQ(where.medium().write(position, std::span(&byte, 1)), 1);
        try {
            work.verify();
            FAIL() << "the change was not found";
        } catch (const error &why) {
            ASSERT_EQ(why.details().size(), 1U);
            u64 first = 0;
            u64 last = 0;
            ASSERT_EQ(std::sscanf(why.details()[0].c_str(), "bytes %" SCNu64 " to %" SCNu64, &first,
                                  &last),
                      2);
            EXPECT_LE(first, position);
            EXPECT_GE(last, position);
        }
    }
}
