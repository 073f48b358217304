// Images to flash, read in every form: what is to be written where, and that damaged ones are
// refused.

#include "qvol/error.h"
#include "qvol/flashing/android_sparse.h"
#include "qvol/flashing/block_map.h"
#include "qvol/flashing/bmap.h"
#include "qvol/flashing/zstd_image.h"

#include "tests/support/files.h"
#include "tests/support/process.h"

#include <functional>
#include <random>

#include <gtest/gtest.h>
#include <sys/wait.h>

using namespace qvol;
using testing_support::bytes;
using testing_support::outcome;
using testing_support::run;
using testing_support::scratch_directory;
using testing_support::shell;

namespace {

constexpr u64 BLOCK = FLASH_BLOCK_BYTES;

// The ranges of a stream, joined, and the bytes of a medium of 0xFF after they were written.
struct applied {
    std::vector<byte_range> ranges;
    bytes medium;

    bool operator==(const applied &) const = default;
};

// In pieces of many sizes.
applied apply(image_stream *image, std::size_t size) {
    std::mt19937 random(1);
    applied result = {{}, bytes(size, 0xFF)};
    while (const std::optional<byte_range> range = image->next_range()) {
        if (!result.ranges.empty() && result.ranges.back().end() == range->offset) {
            result.ranges.back().bytes += range->bytes;
        } else {
            result.ranges.push_back(*range);
        }
        if (range->end() > size) {
            throw std::logic_error("a range after the end of the image");
        }
        for (u64 done = 0; done < range->bytes;) {
            const std::size_t count = static_cast<std::size_t>(
                std::min<u64>(range->bytes - done, 1 + random() % 300'000));
            image->read(std::span(result.medium)
                            .subspan(static_cast<std::size_t>(range->offset + done), count));
            done += count;
        }
    }
    return result;
}

// An image of 5 MiB and 3 KiB: stretches that must be written, and zeros in and between them.
class QvolImageStream : public testing::Test {
protected:
    QvolImageStream() : content_((std::size_t{5} << 20) + 3072) {
        std::mt19937 random(5);
        for (const byte_range &range : needed_) {
            for (u64 at = range.offset; at < range.end(); at++) {
                content_.at(static_cast<std::size_t>(at)) =
                    at / 65536 % 4 == 3 ? 0 : static_cast<std::uint8_t>(random());
            }
        }
        image_ = scratch_.file_with("image", content_);
        for (const byte_range &range : needed_) { // their zeros, too
            std::fstream file(image_, std::ios::binary | std::ios::in | std::ios::out);
            file.seekp(static_cast<std::streamoff>(range.offset));
            file.write(reinterpret_cast<const char *>(&content_[range.offset]),
                       static_cast<std::streamsize>(range.bytes));
        }
    }

    // Makes a form of the image. Returns its path.
    std::string made(const std::string &name,
                     void (*write)(const finished_image &, output_file *, progress *)) {
        const target where(image_, access::READ);
        progress bar("", 0, true);
        output_file file(scratch_.file(name), true);
        write({where, needed_}, &file, &bar);
        file.sync();
        file.commit();
        return scratch_.file(name);
    }

    [[nodiscard]] applied expected() const {
        applied result = {needed_, bytes(content_.size(), 0xFF)};
        for (const byte_range &range : needed_) {
            std::copy_n(content_.begin() + static_cast<std::ptrdiff_t>(range.offset), range.bytes,
                        result.medium.begin() + static_cast<std::ptrdiff_t>(range.offset));
        }
        return result;
    }
    [[nodiscard]] applied everything() const {
        return {{{0, content_.size()}}, content_};
    }

    applied applied_from(const std::string &path, const std::string &bmap = "") {
        return apply(open_image_stream(path, bmap).get(), content_.size());
    }

    // The same from a pipe.
    applied applied_from_pipe(const std::string &path, const std::string &bmap = "") {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        if (child == 0) {
            (void)dup2(ends[1], STDOUT_FILENO);
            execlp("cat", "cat", path.c_str(), nullptr);
            _exit(1);
        }
        close(ends[1]);
        const int own_input = dup(STDIN_FILENO);
        (void)dup2(ends[0], STDIN_FILENO);
        close(ends[0]);
        const std::unique_ptr<image_stream> image = open_image_stream("-", bmap);
        (void)dup2(own_input, STDIN_FILENO);
        close(own_input);
        applied result = apply(image.get(), content_.size());
        EXPECT_EQ(waitpid(child, nullptr, 0), child);
        return result;
    }

    // What is wrong with an image; "" if it is read to its end.
    std::string trouble(const std::string &path, const std::string &bmap = "") {
        try {
            (void)applied_from(path, bmap);
        } catch (const error &why) {
            return why.what();
        }
        return "";
    }

    std::vector<byte_range> needed_ = {
        {0, 5 * BLOCK}, {16 * BLOCK, 300 * BLOCK}, {1000 * BLOCK, BLOCK}, {1280 * BLOCK, 3072}};
    bytes content_;
    scratch_directory scratch_;
    std::string image_;
};

} // namespace

TEST_F(QvolImageStream, EachFormIsWhatMustBeWritten) {
    const std::string bmap = made("bmap", write_bmap);
    const std::string sparse = made("sparse", write_android_sparse);
    const std::string zst = made("zst", write_zstd);
    EXPECT_EQ(applied_from(image_), everything()); // no volume: the zeros of its holes count
    EXPECT_EQ(applied_from(image_, bmap), expected());
    EXPECT_EQ(applied_from(sparse), expected());
    EXPECT_EQ(applied_from(sparse, bmap), expected());
    EXPECT_EQ(applied_from(zst), everything());
    EXPECT_EQ(applied_from(zst, bmap), expected());
    for (const std::string &path : {image_, sparse, zst}) {
        EXPECT_EQ(open_image_stream(path, "")->size(), content_.size()) << path;
    }
}

TEST_F(QvolImageStream, PipesAreRead) {
    const std::string bmap = made("bmap", write_bmap);
    EXPECT_EQ(applied_from_pipe(image_), everything());
    EXPECT_EQ(applied_from_pipe(image_, bmap), expected());
    EXPECT_EQ(applied_from_pipe(made("sparse", write_android_sparse)), expected());
    EXPECT_EQ(applied_from_pipe(made("zst", write_zstd)), everything());
    EXPECT_EQ(applied_from_pipe(scratch_.file("zst"), bmap), expected());
}

// As other programs make them.
TEST_F(QvolImageStream, FilesOfOtherProgramsAreRead) {
    const std::string zst = scratch_.file("other.zst");
    const std::string twice = scratch_.file("twice.zst");
    const std::string sparse = scratch_.file("other.sparse");
    if (shell("zstd -q --long=24 \"$1\" -o \"$2\"", {image_, zst}).status != 0 ||
        run({"img2simg", image_, sparse, "1024"}).status != 0) {
        GTEST_SKIP() << "no zstd or no img2simg";
    }
    EXPECT_EQ(applied_from(zst), everything());
    // Several frames, of which the first has no size.
    EXPECT_EQ(
        shell("{ head -c 1000000 \"$1\" | zstd -q; tail -c +1000001 \"$1\" | zstd -q; } >\"$2\"",
              {image_, twice})
            .status,
        0);
    EXPECT_EQ(applied_from(twice), everything());
    // Its chunks leave out all zeros.
    bytes with_zeros = applied_from(sparse).medium;
    for (std::size_t at = 0; at < with_zeros.size(); at += 1024) {
        if (std::all_of(&with_zeros[at], &with_zeros[at] + 1024,
                        [](std::uint8_t byte) { return byte == 0xFF; })) {
            std::fill_n(&with_zeros[at], 1024, std::uint8_t{0});
        }
    }
    EXPECT_EQ(with_zeros, content_);
}

TEST_F(QvolImageStream, AMapSpeaksForItsImageOnly) {
    const std::string bmap = made("bmap", write_bmap);
    const std::string other = scratch_.file("other");
    bytes changed = content_;
    changed[20 * BLOCK + 7] ^= 1;
    (void)scratch_.file_with("other", changed);
    EXPECT_EQ(trouble(other, bmap),
              "the image differs from " + bmap + ": wrong checksum of bytes 65536 to 1294335");
    changed = content_;
    changed[8 * BLOCK] = 1; // in no range
    (void)scratch_.file_with("other", changed);
    EXPECT_EQ(trouble(other, bmap), "");
    changed.resize(changed.size() - 512);
    (void)scratch_.file_with("other", changed);
    EXPECT_EQ(trouble(other, bmap),
              bmap + " is the map of another image: of 5245952 bytes instead of 5245440");
}

// Every cut and every change in the structure ends in an error or changes nothing.
TEST_F(QvolImageStream, DamagedFilesAreRefused) {
    const std::string bmap = made("bmap", write_bmap);
    const std::string path = scratch_.file("damaged");
    std::mt19937 random(7);
    const std::pair<const char *, std::string> forms[] = {
        {"sparse", made("sparse", write_android_sparse)}, {"zst", made("zst", write_zstd)}};
    for (const auto &[name, form] : forms) {
        const bytes whole = testing_support::read_range(form, 0, std::size_t{1} << 24);
        for (int round = 0; round < 150; round++) {
            SCOPED_TRACE(std::string(name) + ", round " + std::to_string(round));
            bytes damaged = whole;
            if (round % 3 == 0) { // cut
                damaged.resize(5 + random() % (damaged.size() - 5));
            } else { // near the start, where the headers are, or anywhere
                damaged[random() % (round % 3 == 1 ? 64 : damaged.size())] ^=
                    static_cast<std::uint8_t>(1U << random() % 8);
            }
            std::ofstream(path, std::ios::binary)
                .write(reinterpret_cast<const char *>(damaged.data()),
                       static_cast<std::streamsize>(damaged.size()));
            try {
                EXPECT_EQ(applied_from(path, bmap), expected());
            } catch (const error &why) {
                EXPECT_NE(std::string(why.what()), "");
            }
        }
    }
    EXPECT_NE(trouble(scratch_.file("no such file")), "");
}

TEST_F(QvolImageStream, DamagedMapsAreRefused) {
    const std::string path = made("bmap", write_bmap);
    const bytes whole = testing_support::read_range(path, 0, 1 << 20);
    const std::string text(whole.begin(), whole.end());
    const auto trouble_of = [&](const std::string &changed) {
        std::ofstream(path, std::ios::binary) << changed;
        return trouble(image_, path);
    };
    const auto replaced = [&](const std::string &from, const std::string &to) {
        std::string changed = text;
        return changed.replace(changed.find(from), from.size(), to);
    };
    EXPECT_EQ(trouble_of(text), "");
    // The checksum of the file finds every change but of spaces before the first element.
    for (std::size_t at = 0; at < text.size(); at++) {
        std::string changed = text;
        changed[at] = changed[at] == '1' ? '2' : '1';
        EXPECT_NE(trouble_of(changed), "") << at;
        EXPECT_NE(trouble_of(text.substr(0, at)), "") << at;
    }
    EXPECT_EQ(trouble_of("<bmap version=\"1.3\"></bmap>"),
              "cannot use " + path + ": version 1.3, only 2.0 is known");
    EXPECT_EQ(trouble_of(replaced(" sha256 ", " md5 ")),
              "cannot use " + path + ": checksums of type md5, only sha256 is known");
    EXPECT_EQ(trouble_of(replaced("ImageSize>", "Other>")),
              "cannot read " + path + ": line 3 is not that of a bmap");
    EXPECT_EQ(trouble_of("no map"), "cannot read " + path + ": line 1 is not that of a bmap");
}

// What a map states must be possible, whatever its checksum.
TEST_F(QvolImageStream, ImpossibleMapsAreRefused) {
    const std::string path = scratch_.file("bmap");
    const std::string digest(64, '0');
    const auto trouble_of = [&](const block_map &map) {
        std::ofstream(path, std::ios::binary) << text_of_block_map(map);
        try {
            (void)read_block_map(path);
        } catch (const error &why) {
            return std::string(why.what());
        }
        return std::string();
    };
    EXPECT_EQ(trouble_of({8 * BLOCK, BLOCK, {{{0, 8 * BLOCK}, digest}}}), "");
    EXPECT_EQ(trouble_of({8 * BLOCK - 5, BLOCK, {{{0, 8 * BLOCK - 5}, digest}}}), "");
    EXPECT_EQ(trouble_of({0, BLOCK, {}}), "");
    EXPECT_NE(trouble_of({8 * BLOCK, BLOCK, {{{0, 9 * BLOCK}, digest}}}), "");
    EXPECT_NE(trouble_of({8 * BLOCK, BLOCK, {{{0, 8 * BLOCK}, "12"}}}), "");
    EXPECT_NE(trouble_of({8 * BLOCK, BLOCK, {{{BLOCK, BLOCK}, digest}, {{0, BLOCK}, digest}}}), "");
    EXPECT_NE(trouble_of({8 * BLOCK, BLOCK, {{{0, BLOCK}, digest}, {{0, BLOCK}, digest}}}), "");
    EXPECT_NE(trouble_of({u64{1} << 63, BLOCK, {}}), "");
}
