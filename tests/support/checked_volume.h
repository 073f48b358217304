// A small healthy volume for tests that damage single bytes and run `qvol check`.

#pragma once

#include "tests/support/qvol.h"

#include <nlohmann/json.hpp>

#include <map>
#include <set>

namespace testing_support {

// A line that the check prints, and the repair's addition to it.
struct expected_finding {
    std::string line;
    std::string outcome; // "repaired: ..." or "not repaired: ..."
};

// Clusters have one sector of 512 bytes in all widths. The files and their clusters:
// A.TXT 3, B.TXT 2, "DIR/A long name.text" 2, DIR/EMPTY 0.
class CheckedVolume : public QvolImage, public testing::WithParamInterface<const char *> {
protected:
    CheckedVolume() {
        if (is_fat12()) {
            image_ = scratch_.file("disk.img");
            run_qvol({"build", image_, "--size", "2000K", "--fat", "12", "--cluster", "512",
                      "--page", "0"});
        } else {
            format(GetParam(), is_fat32() ? 40 << 20 : 10 << 20, "1");
        }
        contents_ = {{"/A.TXT", std::string(1500, 'a')},
                     {"/B.TXT", std::string(1000, 'b')},
                     {"/DIR/A long name.text", std::string(600, 'l')},
                     {"/DIR/EMPTY", ""}};
        for (const auto &[path, content] : contents_) {
            host_file("tree" + path, content);
        }
        said("put", {scratch_.file("tree") + "/.", "/"});
        layout_ = layout_of(image_);
    }

    static bool is_fat32() {
        return std::string(GetParam()) == "32";
    }

    static bool is_fat12() {
        return std::string(GetParam()) == "12";
    }

    // ---- damage ----

    void poke(std::uint64_t offset, const std::string &content) {
        std::fstream image(image_, std::ios::binary | std::ios::in | std::ios::out);
        image.seekp(static_cast<std::streamoff>(offset));
        image.write(content.data(), static_cast<std::streamsize>(content.size()));
    }
    std::string peek(std::uint64_t offset, std::size_t size) const {
        std::string content(size, '\0');
        std::ifstream image(image_, std::ios::binary);
        image.seekg(static_cast<std::streamoff>(offset));
        image.read(content.data(), static_cast<std::streamsize>(size));
        return content;
    }
    static std::string little_endian(std::uint32_t value, std::size_t size) {
        std::string text;
        for (std::size_t i = 0; i < size; i++) {
            text += static_cast<char>(value >> (8 * i) & 0xFF);
        }
        return text;
    }

    std::uint64_t fat_offset(std::uint32_t cluster, std::uint32_t copy = 0) const {
        const std::uint64_t sector = layout_.fat_start + std::uint64_t{copy} * layout_.fat_size;
        return sector * 512 + std::uint64_t{cluster} * std::stoul(GetParam()) / 8;
    }
    void set_link(std::uint32_t cluster, std::uint32_t value) {
        set_link_in(0, cluster, value);
        set_link_in(1, cluster, value);
    }
    void set_link_in(std::uint32_t copy, std::uint32_t cluster, std::uint32_t value) {
        const std::uint64_t offset = fat_offset(cluster, copy);
        if (is_fat12()) { // half a byte belongs to the other entry
            const std::string raw = peek(offset, 2);
            const bool is_odd = cluster % 2 != 0;
            value = is_odd ? (value & 0xFFF) << 4 | (static_cast<std::uint8_t>(raw[0]) & 0x0FU)
                           : (value & 0xFFF) | (static_cast<std::uint8_t>(raw[1]) & 0xF0U) << 8;
        }
        poke(offset, little_endian(value, is_fat32() ? 4 : 2));
    }
    static std::uint32_t total_clusters() {
        return is_fat32() ? 80628 : is_fat12() ? 3943 : 20287;
    }
    static std::uint32_t end_mark() {
        return is_fat32() ? 0x0FFFFFFF : is_fat12() ? 0x0FFF : 0xFFFF;
    }
    static std::uint32_t bad_mark() {
        return is_fat32() ? 0x0FFFFFF7 : is_fat12() ? 0x0FF7 : 0xFFF7;
    }

    std::uint64_t cluster_offset(std::uint32_t cluster) const {
        return (std::uint64_t{layout_.data_start} + cluster - 2) * 512;
    }

    // Sets FSInfo's count of free clusters to the initial count plus a difference.
    void change_free_count(int by) {
        if (is_fat32()) {
            poke(512 + 488, little_endian(static_cast<std::uint32_t>(80619 + by), 4));
        }
    }

    // Frees a cluster of a chain as a system would.
    void give_back(std::uint32_t cluster) {
        set_link(cluster, 0);
        change_free_count(1);
    }

    // Bytes that are a valid long-name slot.
    static std::string long_name_like_bytes() {
        return std::string(11, 'b') + '\x0F' + std::string(20, 'b');
    }

    // ---- locations ----

    nlohmann::json stat(const std::string &path) {
        return nlohmann::json::parse(said("stat", {"--json", path}));
    }
    std::uint32_t start_of(const std::string &path) {
        return stat(path)["first_cluster"];
    }
    // Byte offset of the short entry.
    std::uint64_t entry_offset(const std::string &path) {
        const nlohmann::json entry = stat(path)["entry"];
        return entry["sector"].get<std::uint64_t>() * 512 + entry["offset"].get<std::uint64_t>();
    }
    // A cluster far from the allocated ones.
    static constexpr std::uint32_t FREE_CLUSTER = 1000;

    void set_start(const std::string &path, std::uint32_t cluster) {
        const std::uint64_t offset = entry_offset(path);
        poke(offset + 26, little_endian(cluster, 2));
        poke(offset + 20, little_endian(cluster >> 16, 2));
    }
    void set_size(const std::string &path, std::uint32_t size) {
        poke(entry_offset(path) + 28, little_endian(size, 4));
    }
    // A short entry in this slot of a directory's cluster. The first free one of DIR is 6.
    void put_slot(std::uint32_t directory, std::uint32_t slot, const std::string &name,
                  std::uint8_t attributes, std::uint32_t start = 0, std::uint32_t size = 0) {
        std::string raw = name + static_cast<char>(attributes) + std::string(20, '\0');
        raw.replace(20, 2, little_endian(start >> 16, 2));
        raw.replace(26, 2, little_endian(start, 2));
        raw.replace(28, 4, little_endian(size, 4));
        poke(cluster_offset(directory) + std::uint64_t{slot} * 32, raw);
    }

    // "PATH: SIZE, first and last byte" of every file; those in FOUND directories without their
    // paths.
    std::multiset<std::string> files_by_name() {
        const std::filesystem::path copy = scratch_.file("copy");
        std::filesystem::remove_all(copy);
        std::filesystem::create_directory(copy);
        said("get", {"/", copy.string(), "-q"});
        std::multiset<std::string> files;
        for (const auto &one : std::filesystem::recursive_directory_iterator(copy)) {
            const std::string path = std::filesystem::relative(one, copy).string();
            if (one.is_regular_file()) {
                const bytes content = read_file(one.path().string());
                const auto end = [&](std::size_t at) {
                    return content.empty() ? "" : std::string(1, static_cast<char>(content[at]));
                };
                files.insert((path.starts_with("FOUND.") ? "" : path) + ": " +
                             std::to_string(content.size()) + ", " + end(0) +
                             end(content.size() - 1));
            }
        }
        return files;
    }

    // ---- the check ----

    void expect_check(const std::vector<expected_finding> &findings) {
        std::string lines;
        for (const expected_finding &finding : findings) {
            lines += finding.line + '\n';
        }
        EXPECT_EQ(qvol("check", {"-q"}), (outcome{findings.empty() ? 0 : 1, lines, ""}));
    }

    void expect_repair(const std::vector<expected_finding> &findings, int status,
                       const std::string &repair = "--repair") {
        std::string lines;
        for (const expected_finding &finding : findings) {
            lines += finding.line + "; " + finding.outcome + '\n';
        }
        std::vector<std::string> options = {"-q", repair};
        options.insert(options.end(), repair_options_.begin(), repair_options_.end());
        EXPECT_EQ(qvol("check", options), (outcome{status, lines, ""}));
    }

    // The check finds nothing, and the repair changes no byte.
    void expect_healthy() {
        const bytes before = read_file(image_);
        expect_check({});
        expect_repair({}, 0);
        EXPECT_TRUE(has_content(image_, before));
    }

    // The check finds exactly this; the repair fixes all of it and changes no file.
    void expect_mended(const std::vector<expected_finding> &findings) {
        expect_check(findings);
        expect_repair(findings, 0);
        expect_check({});
        expect_clean();
        expect_contents();
    }

    // The check finds exactly this; a safe repair fixes none of it and changes no byte.
    void expect_left(const std::vector<expected_finding> &findings) {
        expect_check(findings);
        const bytes before = read_file(image_);
        expect_repair(findings, 1, "--repair=safe");
        EXPECT_TRUE(has_content(image_, before));
    }

    // The same, but by default the repair fixes all of it with these outcomes.
    void expect_mended_by_default(std::vector<expected_finding> findings,
                                  const std::vector<std::string> &outcomes) {
        expect_left(findings);
        for (std::size_t i = 0; i < findings.size(); i++) {
            findings[i].outcome = "repaired: " + outcomes.at(i);
        }
        expect_repair(findings, 0);
        expect_check({});
        expect_clean();
    }

    void expect_contents() {
        for (const auto &[path, content] : contents_) {
            EXPECT_EQ(said("cat", {path}), content) << path;
        }
    }

    void expect_judge_finds_something() {
        EXPECT_EQ(checked().status, 1);
    }

    std::map<std::string, std::string> contents_;
    std::vector<std::string> repair_options_; // of the repairs that are expected
    volume_layout layout_;
};

} // namespace testing_support
