// Images on media that were not blank: what a program that skips holes, a bmap, an Android sparse
// image and a zstd file write is the volume, whatever was there before; and they write no more.

#include "tests/support/qvol_build.h"

#include <functional>
#include <random>
#include <regex>

using namespace testing_support;

namespace {

constexpr std::uint64_t BLOCK = 4096;
constexpr std::uint64_t BEYOND = 65536; // bytes of a medium after the end of the image

// 200 with the shipped program in the long stages.
const unsigned TREES = QUORVEL_FULL          ? (is_sanitized_qvol() ? 30 : 200)
                       : is_sanitized_qvol() ? 4
                                             : 12;

// Kinds of earlier contents. In the short stage each form of a tree has one of them.
constexpr unsigned MEDIA = 3;
const bool HAS_EVERY_MEDIUM = QUORVEL_FULL && !is_sanitized_qvol();

struct part {
    std::uint64_t offset;
    std::uint64_t size;

    bool operator==(const part &) const = default;
};

std::string text_of(const std::string &path) {
    const bytes content = read_file(path);
    return {content.begin(), content.end()};
}

std::string field_of(const std::string &text, const std::string &name) {
    std::smatch found;
    return std::regex_search(text, found, std::regex("<" + name + ">\\s*(\\S+)\\s*</" + name + ">"))
               ? found[1].str()
               : "";
}

// The ranges of a bmap with their checksums.
std::vector<std::pair<part, std::string>> ranges_with_digests(const std::string &path) {
    const std::string text = text_of(path);
    const std::uint64_t end = std::stoull(field_of(text, "ImageSize"));
    EXPECT_EQ(field_of(text, "BlockSize"), std::to_string(BLOCK));
    const std::regex range("<Range chksum=\"([0-9a-f]{64})\"> (\\d+)(?:-(\\d+))? </Range>");
    std::vector<std::pair<part, std::string>> result;
    for (std::sregex_iterator it(text.begin(), text.end(), range), last; it != last; ++it) {
        const std::uint64_t first = std::stoull((*it)[2]);
        const std::uint64_t final = (*it)[3].matched ? std::stoull((*it)[3]) : first;
        const std::uint64_t stop = std::min((final + 1) * BLOCK, end);
        result.push_back({{first * BLOCK, stop - first * BLOCK}, (*it)[1]});
    }
    return result;
}

std::vector<part> ranges_of(const std::string &bmap) {
    std::vector<part> result;
    for (const auto &[range, digest] : ranges_with_digests(bmap)) {
        result.push_back(range);
    }
    return result;
}

void append_part(std::vector<part> *parts, const part &next) {
    if (!parts->empty() && parts->back().offset + parts->back().size >= next.offset) {
        parts->back().size = next.offset + next.size - parts->back().offset;
    } else if (next.size != 0) {
        parts->push_back(next);
    }
}

std::uint64_t sectors_of(const std::string &image) {
    const bytes boot = read_range(image, 0, 512);
    return number_at(boot, 19, 2) != 0 ? number_at(boot, 19, 2) : number_at(boot, 32, 4);
}

// The blocks that a volume needs, by its FAT: everything before the clusters, and those in use.
std::vector<part> blocks_by_fat(const std::string &image) {
    const std::uint64_t end = std::filesystem::file_size(image);
    const volume_layout layout = layout_of(image);
    const std::uint64_t clusters = (sectors_of(image) - layout.data_start) / layout.sec_per_clus;
    const unsigned width = layout.is_fat32 ? 32 : clusters < 4085 ? 12 : 16;
    const bytes fat = read_range(image, std::uint64_t{layout.fat_start} * layout.sector_size,
                                 std::size_t{layout.fat_size} * layout.sector_size);
    std::vector<part> parts;
    const auto add = [&](std::uint64_t first, std::uint64_t count) { // sectors
        const std::uint64_t from = first * layout.sector_size;
        const std::uint64_t to = from + count * layout.sector_size;
        const std::uint64_t begin = from / BLOCK * BLOCK;
        append_part(&parts, {begin, std::min((to + BLOCK - 1) / BLOCK * BLOCK, end) - begin});
    };
    add(0, layout.data_start);
    for (std::uint64_t n = 2; n < clusters + 2; n++) {
        const std::size_t at = static_cast<std::size_t>(n * width / 8);
        const std::uint32_t entry = width == 12 ? (number_at(fat, at, 2) >> (n % 2 * 4)) & 0xFFF
                                                : number_at(fat, at, width / 8) & 0x0FFFFFFF;
        if (entry != 0) {
            add(layout.data_start + (n - 2) * layout.sec_per_clus, layout.sec_per_clus);
        }
    }
    return parts;
}

// The chunks of an Android sparse image that are written, and their bytes.
std::vector<std::pair<part, bytes>> chunks_of(const std::string &path, std::uint32_t *block_size) {
    const bytes file = read_file(path);
    *block_size = number_at(file, 12, 4);
    std::vector<std::pair<part, bytes>> result;
    std::uint64_t block = 0;
    std::size_t at = 28;
    for (std::uint32_t left = number_at(file, 20, 4); left > 0; left--) {
        const std::uint32_t type = number_at(file, at, 2);
        const std::uint64_t count = number_at(file, at + 4, 4);
        const std::size_t size = number_at(file, at + 8, 4);
        bytes content(file.begin() + static_cast<std::ptrdiff_t>(at + 12),
                      file.begin() + static_cast<std::ptrdiff_t>(at + size));
        if (type == 0xCAC2) {
            EXPECT_EQ(content, bytes(4)) << "only zeros are filled";
            content.assign(static_cast<std::size_t>(count * *block_size), 0);
        }
        if (type != 0xCAC3) {
            EXPECT_EQ(content.size(), count * *block_size) << type;
            result.push_back({{block * *block_size, count * *block_size}, content});
        }
        block += count;
        at += size;
    }
    EXPECT_EQ(at, file.size());
    EXPECT_EQ(block, number_at(file, 16, 4));
    return result;
}

// ---- trees ------------------------------------------------------------------------------------

// Trees with runs of zeros in their files, with sparse files, empty directories and links.
class random_tree {
public:
    random_tree(std::string top, unsigned seed) : top_(std::move(top)), random_(seed) {
        std::filesystem::create_directory(top_);
        fill(top_, 0);
    }

private:
    unsigned below(unsigned end) {
        return static_cast<unsigned>(random_() % end);
    }

    void fill(const std::string &directory, int depth) {
        const unsigned count = below(6) + (depth == 0 ? 4 : 0);
        for (unsigned i = 0; i < count; i++) {
            const std::string path = directory + "/an entry " + std::to_string(i);
            const unsigned kind = below(10);
            if (kind < 2 && depth < 3) {
                std::filesystem::create_directory(path);
                fill(path, depth + 1);
            } else if (kind == 2) {
                std::filesystem::create_directory(path); // empty
            } else if (kind == 3) {
                std::filesystem::create_symlink("an entry 0", path);
            } else if (kind == 4) {
                make_sparse(path);
            } else {
                make_file(path);
            }
        }
    }

    void make_sparse(const std::string &path) {
        std::ofstream(path, std::ios::binary) << "begin";
        std::filesystem::resize_file(path, below(3'000'000));
    }

    // Stretches of zeros and of others, each up to a few hundred KiB.
    void make_file(const std::string &path) {
        std::ofstream file(path, std::ios::binary);
        for (unsigned stretches = below(6); stretches > 0; stretches--) {
            std::string content(std::size_t{1} << below(19), '\0');
            content.resize(content.size() - below(static_cast<unsigned>(content.size())));
            if (below(2) == 0) {
                std::generate(content.begin(), content.end(),
                              [&] { return static_cast<char>(random_()); });
            }
            file << content;
        }
    }

    std::string top_;
    std::mt19937 random_;
};

// ---- media ------------------------------------------------------------------------------------

class QvolFlashing : public QvolBuild {
protected:
    QvolFlashing() : medium_(scratch_.file("medium")) {}

    [[nodiscard]] std::string form(const std::string &name) const {
        return scratch_.file("made/" + name);
    }

    // Builds the tree in all forms.
    void build_forms(std::vector<std::string> options) {
        options.insert(options.end(), {"--from", tree_, "-f", "-q", "--bmap", form("bmap"),
                                       "--android-sparse", form("sparse"), "--zstd", form("zst")});
        const outcome result = build(options);
        ASSERT_EQ(result, (outcome{0, "", ""}));
    }

    // A medium for `size` bytes, and some more, with an earlier content: 0xFF, random bytes, or an
    // older volume full of files.
    void make_medium(unsigned kind, unsigned seed, std::uint64_t size) {
        size += BEYOND;
        if (kind == 2) {
            make_older_volume(size);
        } else {
            fill_medium(kind, seed, size);
        }
        beyond_ = read_range(medium_, size - BEYOND, BEYOND);
    }

    void fill_medium(unsigned kind, unsigned seed, std::uint64_t size) const {
        std::mt19937 random(seed);
        std::vector<std::uint32_t> piece(1 << 18, 0xFFFFFFFF);
        std::ofstream file(medium_, std::ios::binary);
        for (std::uint64_t done = 0; done < size; done += piece.size() * 4) {
            if (kind == 1) {
                std::generate(piece.begin(), piece.end(), std::ref(random));
            }
            file.write(reinterpret_cast<const char *>(piece.data()),
                       static_cast<std::streamsize>(
                           std::min<std::uint64_t>(piece.size() * 4, size - done)));
        }
    }

    void make_older_volume(std::uint64_t size) {
        const std::string older = scratch_.file("older");
        std::filesystem::remove_all(older);
        std::filesystem::create_directory(older);
        for (std::uint64_t i = 0; i < std::min<std::uint64_t>(200, size / 10000); i++) {
            std::ofstream(older + "/file " + std::to_string(i)) << std::string(2000, 'o');
        }
        std::ofstream(older + "/large") << std::string(static_cast<std::size_t>(size / 2), 'O');
        const outcome made =
            run_qvol({"build", medium_, "--size", std::to_string(size / 512 * 512), "--from", older,
                      "--cluster", "512", "-f", "-q", "--label", "OLDER"});
        ASSERT_EQ(made, (outcome{0, "", ""}));
        std::filesystem::resize_file(medium_, size);
    }

    void write_to_medium(std::uint64_t offset, std::span<const std::uint8_t> content) const {
        std::fstream file(medium_, std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(static_cast<std::streamoff>(offset));
        file.write(reinterpret_cast<const char *>(content.data()),
                   static_cast<std::streamsize>(content.size()));
    }

    // As a program that skips holes does it.
    void apply_without_holes() const {
        for_each_part(image_, 0, std::filesystem::file_size(image_),
                      [&](std::uint64_t offset, std::span<const std::uint8_t> content) {
                          write_to_medium(offset, content);
                      });
    }
    void apply_bmap() const {
        for (const part &range : ranges_of(form("bmap"))) {
            write_to_medium(range.offset,
                            read_range(image_, range.offset, static_cast<std::size_t>(range.size)));
        }
    }
    void apply_sparse() const {
        std::uint32_t block_size = 0;
        for (const auto &[range, content] : chunks_of(form("sparse"), &block_size)) {
            write_to_medium(range.offset, content);
        }
    }

    // An image that was cut to its content ends before its volume.
    [[nodiscard]] std::uint64_t volume_bytes() const {
        return sectors_of(image_) * layout_of(image_).sector_size;
    }

    // Nothing was written after the first `size` bytes. Cuts the medium there.
    void expect_end(std::uint64_t size) const {
        EXPECT_EQ(std::filesystem::file_size(medium_), size + BEYOND);
        EXPECT_EQ(read_range(medium_, size, BEYOND), beyond_);
        std::filesystem::resize_file(medium_, size);
    }

    // The medium holds the volume with the tree.
    void expect_volume_on_medium(const std::string &tree) {
        const std::string out = scratch_.file("out");
        std::filesystem::remove_all(out);
        std::filesystem::create_directory(out);
        const outcome checked = run({"fsck.fat", "-n", medium_});
        EXPECT_EQ(checked.status, 0) << checked;
        EXPECT_EQ(run_qvol({"get", medium_, "/", out, "-q"}), (outcome{0, "", ""}));
        for (const char *reserved : {"/ZUQ_POOL.SY$", "/$ZUQ_LOG.LO$"}) {
            std::filesystem::remove(out + reserved);
        }
        EXPECT_EQ(run({"diff", "-r", "--no-dereference", tree, out}), (outcome{0, "", ""}));
        EXPECT_EQ(listing_of(tree), listing_of(out));
    }

    // Each form writes the blocks that the FAT demands, and no others.
    void expect_needed_blocks() {
        const std::vector<part> needed = blocks_by_fat(image_);
        EXPECT_EQ(ranges_of(form("bmap")), needed);
        std::uint32_t block_size = 0;
        std::vector<part> chunks;
        for (const auto &[range, content] : chunks_of(form("sparse"), &block_size)) {
            append_part(&chunks, range);
        }
        EXPECT_EQ(chunks, needed);
    }

    // Their own programs make the image again.
    void expect_images_of_forms() {
        const std::string made = scratch_.file("made again");
        EXPECT_EQ(run({"simg2img", form("sparse"), made}).status, 0);
        EXPECT_EQ(run({"cmp", made, image_}), (outcome{0, "", ""}));
        EXPECT_EQ(shell("zstd -dqc \"$1\" | cmp - \"$2\"", {form("zst"), image_}),
                  (outcome{0, "", ""}));
    }

    std::string medium_;
    bytes beyond_; // after the end of the image
};

std::vector<std::string> random_shape(std::mt19937 *random) {
    const std::vector<std::vector<std::string>> shapes = {
        {"--size", "auto"},
        {"--size", "auto", "--compact", "--fat", "32"},
        {"--size", "64M"},
        {"--size", "64M", "--fat", "32", "--cluster", "512", "--page", "0"},
        {"--size", "40M", "--cluster", "1K", "--fat", "16", "--page", "0"},
        {"--size", "48M", "--sector", "4096"},
        {"--size", "32M", "--fat", "12", "--cluster", "16K"},
        {"--size", "33M", "--pool", "--log", "--fat", "16"},
        {"--size", "40000512", "--cluster", "2K"},
    };
    return shapes[(*random)() % shapes.size()];
}

} // namespace

TEST_F(QvolFlashing, FormsHoldRandomTreesOnMediaWithAnyContent) {
    if (!has_program("simg2img") || !has_program("zstd")) {
        GTEST_SKIP() << "no simg2img or no zstd";
    }
    const std::pair<const char *, std::function<void()>> writers[] = {
        {"holes", [&] { apply_without_holes(); }},
        {"bmap", [&] { apply_bmap(); }},
        {"sparse", [&] { apply_sparse(); }}};
    for (unsigned round = 0; round < TREES && !HasFailure(); round++) {
        std::mt19937 random(round);
        tree_ = scratch_.file("tree " + std::to_string(round));
        const random_tree tree(tree_, round);
        const std::vector<std::string> shape = random_shape(&random);
        build_forms(shape);
        expect_needed_blocks();
        expect_images_of_forms();
        for (unsigned i = 0; i < std::size(writers) * MEDIA && !HasFailure(); i++) {
            const unsigned kind = i % MEDIA;
            const auto &[name, apply] = writers[i / MEDIA];
            if (!HAS_EVERY_MEDIUM && kind != (round + i / MEDIA) % MEDIA) {
                continue;
            }
            SCOPED_TRACE(std::string(name) + ", medium " + std::to_string(kind) + ", tree " +
                         std::to_string(round) + ", " + testing::PrintToString(shape));
            make_medium(kind, round, volume_bytes());
            apply();
            expect_end(volume_bytes());
            expect_volume_on_medium(tree_);
        }
        std::filesystem::remove_all(tree_);
    }
}

// What the forms state about themselves, by other programs.
TEST_F(QvolFlashing, ChecksumsAndTablesAreRight) {
    if (!has_program("sha256sum") || !has_program("zstd")) {
        GTEST_SKIP() << "no sha256sum or no zstd";
    }
    const random_tree tree(tree_ + "/random", 1000);
    build_forms({"--size", "64M"});
    const auto digest_of = [&](const std::string &path, const part &range) {
        return shell("tail -c +\"$2\" \"$1\" | head -c \"$3\" | sha256sum",
                     {path, std::to_string(range.offset + 1), std::to_string(range.size)})
            .out.substr(0, 64);
    };
    std::uint64_t mapped = 0;
    for (const auto &[range, digest] : ranges_with_digests(form("bmap"))) {
        EXPECT_EQ(digest_of(image_, range), digest) << range.offset;
        mapped += (range.size + BLOCK - 1) / BLOCK;
    }
    std::string text = text_of(form("bmap"));
    EXPECT_EQ(field_of(text, "ImageSize"), std::to_string(64 << 20));
    EXPECT_EQ(field_of(text, "BlocksCount"), std::to_string((64 << 20) / BLOCK));
    EXPECT_EQ(field_of(text, "MappedBlocksCount"), std::to_string(mapped));
    EXPECT_EQ(field_of(text, "ChecksumType"), "sha256");
    const std::string own = field_of(text, "BmapFileChecksum");
    ASSERT_EQ(own.size(), 64U);
    text.replace(text.find(own), 64, std::string(64, '0'));
    EXPECT_EQ(digest_of(host_file("without", text), {0, text.size()}), own);

    // Each frame of the zstd file can be decompressed on its own.
    const bytes file = read_file(form("zst"));
    ASSERT_EQ(number_at(file, file.size() - 4, 4), 0x8F92EAB1U);
    const std::size_t frames = number_at(file, file.size() - 9, 4);
    ASSERT_EQ(frames, 64U);
    const std::size_t table = file.size() - 9 - frames * 8;
    ASSERT_EQ(number_at(file, table - 8, 4), 0x184D2A5EU);
    ASSERT_EQ(number_at(file, table - 4, 4), frames * 8 + 9);
    std::uint64_t at = 0;
    for (std::size_t i = 0; i < frames; i++) {
        const std::uint64_t size = number_at(file, table + i * 8, 4);
        EXPECT_EQ(number_at(file, table + i * 8 + 4, 4), 1U << 20);
        if (i % 16 == 0) {
            EXPECT_EQ(shell("tail -c +\"$2\" \"$1\" | head -c \"$3\" | zstd -dc | sha256sum",
                            {form("zst"), std::to_string(at + 1), std::to_string(size)})
                          .out.substr(0, 64),
                      digest_of(image_, {i << 20, 1 << 20}))
                << i;
        }
        at += size;
    }
    EXPECT_EQ(at, table - 8);
}

// The largest file that a volume can have, all of it zeros but its end.
TEST_F(QvolFlashing, HoldTheLargestFile) {
    constexpr std::uint64_t LARGEST = 0xFFFFFFFF;
    if (!QUORVEL_DEEP || is_sanitized_qvol() ||
        std::filesystem::space(scratch_.file("")).available < 3 * LARGEST) {
        GTEST_SKIP() << "only in the longest stage, with 12 GiB of space";
    }
    const std::string path = scratch_.sparse_file("tree/largest", LARGEST);
    std::fstream(path, std::ios::binary | std::ios::in | std::ios::out)
        .seekp(static_cast<std::streamoff>(LARGEST) - 3)
        .write("end", 3);
    build_forms({"--size", "auto", "--fat", "32"});
    make_medium(0, 0, volume_bytes());
    apply_without_holes();
    const std::vector<std::string> compared = {qvol_path(), medium_, path};
    const char *const compare = "\"$1\" cat \"$2\" /largest | cmp - \"$3\"";
    EXPECT_EQ(shell(compare, compared), (outcome{0, "", ""}));
    make_medium(0, 0, volume_bytes());
    apply_bmap();
    EXPECT_EQ(shell(compare, compared), (outcome{0, "", ""}));
    std::filesystem::remove(medium_);
    EXPECT_LT(std::filesystem::file_size(form("sparse")), 64 << 20) << "zeros are filled";
    EXPECT_EQ(
        shell("simg2img \"$1\" \"$2\" && cmp \"$2\" \"$3\"", {form("sparse"), medium_, image_}),
        (outcome{0, "", ""}));
}

// ---- holes ------------------------------------------------------------------------------------

TEST_F(QvolFlashing, ZerosOfFilesAreHolesOnlyOnRequest) {
    (void)scratch_.sparse_file("tree/zeros", 8 << 20);
    const auto stored_bytes = [&] {
        struct stat status {};
        stat(image_.c_str(), &status);
        return status.st_blocks * 512;
    };
    const std::vector<std::string> options = {"--size", "64M", "--from", tree_, "-q", "-f"};
    const auto build_with = [&](const char *sparse) {
        std::vector<std::string> all = options;
        all.insert(all.end(), {"--sparse", sparse});
        EXPECT_EQ(build(all), (outcome{0, "", ""}));
    };
    build_with("auto");
    const bytes content = read_file(image_);
    EXPECT_GE(stored_bytes(), 8 << 20);
    EXPECT_LT(stored_bytes(), 9 << 20) << "free clusters are holes";
    build_with("always");
    EXPECT_LT(stored_bytes(), 1 << 20);
    EXPECT_EQ(read_file(image_).size(), content.size());
}

// ---- disks ------------------------------------------------------------------------------------

// A table, a volume, the zeros of a file copied in but not its holes, and nothing of an empty
// partition.
TEST_F(QvolFlashing, DisksNeedTheirTablesVolumesAndFiles) {
    if (!has_program("sgdisk")) {
        GTEST_SKIP() << "no sgdisk";
    }
    make_mixed_tree();
    (void)scratch_.sparse_file("tree/zeros", 1 << 20);
    const std::string raw = scratch_.sparse_file("raw", 1 << 20);
    std::fstream(raw, std::ios::binary | std::ios::in | std::ios::out)
        .seekp(65536)
        .write(std::string(65536, '\0').data(), 65536);
    const outcome made = run_qvol({"disk", image_, "--part", "from=" + tree_ + ",size=8M", "--part",
                                   "raw=" + raw, "--part", "size=2M", "-q", "--bmap", form("bmap"),
                                   "--zstd", form("zst"), "--android-sparse", form("sparse")});
    ASSERT_EQ(made, (outcome{0, "", ""}));
    const std::uint64_t size = std::filesystem::file_size(image_);
    std::vector<part> needed = {{0, 5 * BLOCK}};
    const std::string volume = scratch_.file_with("volume", read_range(image_, 1 << 20, 8 << 20));
    for (const part &one : blocks_by_fat(volume)) {
        append_part(&needed, {(1 << 20) + one.offset, one.size});
    }
    append_part(&needed, {(9 << 20) + 65536, 65536});
    append_part(&needed, {size - 5 * BLOCK, 5 * BLOCK});
    EXPECT_EQ(ranges_of(form("bmap")), needed);
    expect_images_of_forms();
    const std::string image = image_;
    for (const bool by_bmap : {false, true}) {
        SCOPED_TRACE(by_bmap);
        make_medium(0, 0, size);
        by_bmap ? apply_bmap() : apply_without_holes();
        expect_end(size);
        EXPECT_EQ(run({"sgdisk", "-v", medium_}).status, 0);
        image_ = medium_ + "#1";
        expect_tree(tree_);
        EXPECT_EQ(run_qvol({"check", image_}).status, 0);
        image_ = image;
        EXPECT_EQ(read_range(medium_, (9 << 20) + 65536, 65536), bytes(65536));
        EXPECT_EQ(read_range(medium_, (9 << 20) + 131072, 512), bytes(512, 0xFF));
    }
}

TEST_F(QvolFlashing, MbrDisksNeedTheirFirstBlock) {
    const outcome made =
        run_qvol({"disk", image_, "--mbr", "--part", "size=2M", "-q", "--bmap", form("bmap")});
    ASSERT_EQ(made, (outcome{0, "", ""}));
    EXPECT_EQ(ranges_of(form("bmap")), (std::vector<part>{{0, BLOCK}}));
}

// ---- refusals ---------------------------------------------------------------------------------

TEST_F(QvolFlashing, OutputsNeedNamesOfTheirOwn) {
    host_file("made/old", "old");
    const std::string here = scratch_.file("made/");
    const std::string same = here + "../made/one";
    const struct {
        std::vector<std::string> options;
        int status;
        std::string message;
    } rows[] = {
        {{"--bmap", image_}, 2, "--bmap " + image_ + ": another output has this name"},
        {{"--bmap", here + "one", "--zstd", same},
         2,
         "--zstd " + same + ": another output has this name"},
        {{"--zstd", here + "old"}, 1, "cannot make " + here + "old: exists; --force replaces it"},
        {{"--bmap", here + "no/such"},
         1,
         "cannot make an image in " + here + "no: No such file or directory"},
    };
    for (const auto &row : rows) {
        std::vector<std::string> options = {"--size", "1M"};
        options.insert(options.end(), row.options.begin(), row.options.end());
        EXPECT_EQ(build(options), (outcome{row.status, "", "qvol: " + row.message + "\n"}));
        EXPECT_EQ(made(), std::vector<std::string>{"old"});
    }
    ASSERT_EQ(build({"--size", "1M", "-q", "-f", "--zstd", here + "old"}), (outcome{0, "", ""}));
    EXPECT_NE(read_file(here + "old"), bytes({'o', 'l', 'd'}));
}

TEST_F(QvolFlashing, PartsOfFilesHaveNoForms) {
    image_ = scratch_.sparse_file("made/disk.img", 8 << 20) + "@1M";
    for (const std::vector<std::string> &option : std::vector<std::vector<std::string>>{
             {"--sparse", "always"}, {"--bmap", form("bmap")}, {"--zstd", form("zst")}}) {
        EXPECT_EQ(build(option),
                  (outcome{2, "",
                           "qvol: --sparse, --bmap, --android-sparse and --zstd are for a new "
                           "image file\n"}));
        EXPECT_EQ(made(), std::vector<std::string>{"disk.img"});
    }
}
