#include "qvol/flashing/block_map.h"

#include "qvol/error.h"
#include "qvol/names.h"
#include "qvol/sha256.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <map>

#include <fmt/core.h>

namespace qvol {

namespace {

using core::u64;

constexpr std::size_t DIGEST_DIGITS = 64;
constexpr u64 MAX_IMAGE_BYTES = u64{1} << 62;
constexpr u64 MAX_BLOCK_BYTES = u64{1} << 30;

u64 blocks_of(u64 bytes, u64 block_bytes) {
    return bytes / block_bytes + (bytes % block_bytes != 0 ? 1 : 0);
}

std::string blocks_text(const byte_range &at, u64 block_bytes) {
    const u64 first = at.offset / block_bytes;
    const u64 last = blocks_of(at.end(), block_bytes) - 1;
    return first == last ? std::to_string(first) : fmt::format("{}-{}", first, last);
}

// ---- XML --------------------------------------------------------------------------------------

// As much of XML as a map needs: elements with text or elements in them, attributes, comments and
// declarations. No entities. Throws error at anything else.
class xml_reader {
public:
    xml_reader(const std::string &text, std::string path) : text_(text), path_(std::move(path)) {}

    struct element {
        std::string name; // "": the parent ends here
        std::map<std::string, std::string> attributes;
    };

    // The next start of an element, or the end of its parent, which is called `parent`.
    element next_element(const std::string &parent) {
        skip_comments();
        if (takes("</")) {
            end_tag(parent);
            return {};
        }
        expect("<");
        element result = {name(), {}};
        for (skip_spaces(); !takes(">"); skip_spaces()) {
            const std::string key = name();
            expect("=");
            if (!result.attributes.emplace(key, quoted()).second) {
                fail();
            }
        }
        return result;
    }

    // The text of an element, without the spaces around it, up to its end.
    std::string text_of(const std::string &element_name) {
        const std::size_t end = std::min(text_.find('<', at_), text_.size());
        std::string text = text_.substr(at_, end - at_);
        at_ = end;
        expect("</");
        end_tag(element_name);
        const std::size_t first = text.find_first_not_of(SPACES);
        return first == std::string::npos
                   ? ""
                   : text.substr(first, text.find_last_not_of(SPACES) - first + 1);
    }

    void expect_end() {
        skip_comments();
        if (at_ != text_.size()) {
            fail();
        }
    }

    [[noreturn]] void fail() const {
        const auto line =
            1 + std::count(text_.begin(), text_.begin() + static_cast<std::ptrdiff_t>(at_), '\n');
        throw error(
            fmt::format("cannot read {}: line {} is not that of a bmap", shown_bytes(path_), line));
    }

private:
    static constexpr const char *SPACES = " \t\r\n";

    [[nodiscard]] bool takes(const char *text) {
        const std::size_t size = std::char_traits<char>::length(text);
        const bool is_there = text_.compare(at_, size, text) == 0;
        at_ += is_there ? size : 0;
        return is_there;
    }
    void expect(const char *text) {
        if (!takes(text)) {
            fail();
        }
    }
    void skip_spaces() {
        at_ = std::min(text_.find_first_not_of(SPACES, at_), text_.size());
    }
    void skip_past(const char *mark) {
        const std::size_t found = text_.find(mark, at_);
        if (found == std::string::npos) {
            fail();
        }
        at_ = found + std::char_traits<char>::length(mark);
    }
    void skip_comments() {
        for (skip_spaces();; skip_spaces()) {
            if (takes("<!--")) {
                skip_past("-->");
            } else if (takes("<?")) {
                skip_past("?>");
            } else {
                return;
            }
        }
    }
    std::string name() {
        const std::size_t start = at_;
        while (at_ < text_.size() && (std::isalnum(static_cast<unsigned char>(text_[at_])) != 0)) {
            at_++;
        }
        if (at_ == start) {
            fail();
        }
        return text_.substr(start, at_ - start);
    }
    std::string quoted() {
        const char *quote = takes("'") ? "'" : "\"";
        if (*quote == '"') {
            expect(quote);
        }
        const std::size_t start = at_;
        skip_past(quote);
        return text_.substr(start, at_ - 1 - start);
    }
    void end_tag(const std::string &element_name) {
        if (name() != element_name) {
            fail();
        }
        skip_spaces();
        expect(">");
    }

    const std::string &text_;
    std::string path_;
    std::size_t at_ = 0;
};

// ---- reading ----------------------------------------------------------------------------------

// One file being read.
class map_reader {
public:
    map_reader(const std::string &text, const std::string &path)
        : text_(text), path_(path), xml_(text, path) {}

    block_map read() {
        const xml_reader::element top = xml_.next_element("");
        if (top.name != "bmap" || !top.attributes.contains("version")) {
            xml_.fail();
        }
        if (!top.attributes.at("version").starts_with("2.")) {
            refuse(fmt::format("version {}, only 2.0 is known",
                               shown_bytes(top.attributes.at("version"))));
        }
        for (xml_reader::element one = xml_.next_element("bmap"); !one.name.empty();
             one = xml_.next_element("bmap")) {
            read_field(one.name);
        }
        xml_.expect_end();
        check_fields();
        return map_;
    }

private:
    struct range_text {
        std::string blocks;
        std::string digest;
    };

    [[noreturn]] void refuse(const std::string &why) const {
        throw error(fmt::format("cannot use {}: {}", shown_bytes(path_), why));
    }

    void read_field(const std::string &name) {
        if (name == "BlockMap") {
            read_ranges();
        } else if (!fields_.emplace(name, xml_.text_of(name)).second) {
            xml_.fail();
        }
    }

    void read_ranges() {
        for (xml_reader::element one = xml_.next_element("BlockMap"); !one.name.empty();
             one = xml_.next_element("BlockMap")) {
            if (one.name != "Range") {
                xml_.fail();
            }
            ranges_.push_back({xml_.text_of("Range"), one.attributes["chksum"]});
        }
    }

    [[nodiscard]] std::string field(const std::string &name) const {
        const auto found = fields_.find(name);
        if (found == fields_.end()) {
            refuse(name + " is missing");
        }
        return found->second;
    }

    [[nodiscard]] u64 number(const std::string &text) const {
        u64 value = 0;
        const char *end = text.data() + text.size();
        const auto [rest, failure] = std::from_chars(text.data(), end, value);
        if (failure != std::errc() || rest != end) {
            refuse(fmt::format("\"{}\" is not a number", shown_bytes(text)));
        }
        return value;
    }

    void check_fields() {
        if (field("ChecksumType") != "sha256") {
            refuse(fmt::format("checksums of type {}, only sha256 is known",
                               shown_bytes(field("ChecksumType"))));
        }
        check_own_digest();
        map_.image_bytes = number(field("ImageSize"));
        map_.block_bytes = number(field("BlockSize"));
        if (map_.image_bytes > MAX_IMAGE_BYTES || map_.block_bytes == 0 ||
            map_.block_bytes > MAX_BLOCK_BYTES) {
            refuse("impossible sizes");
        }
        blocks_ = blocks_of(map_.image_bytes, map_.block_bytes);
        for (const range_text &range : ranges_) {
            add_range(range);
        }
        if (number(field("BlocksCount")) != blocks_ ||
            number(field("MappedBlocksCount")) != mapped_) {
            refuse("the numbers of blocks do not fit the sizes and ranges");
        }
    }

    // The digest is that of the file with zeros in place of it.
    void check_own_digest() const {
        const std::string digest = field("BmapFileChecksum");
        const std::size_t at = text_.find(digest);
        if (digest.size() != DIGEST_DIGITS ||
            sha256_of(std::string(text_).replace(at, digest.size(), digest.size(), '0')) !=
                digest) {
            refuse("wrong checksum of the file itself");
        }
    }

    void add_range(const range_text &range) {
        const std::size_t dash = range.blocks.find('-');
        const u64 first = number(range.blocks.substr(0, dash));
        const u64 last = dash == std::string::npos ? first : number(range.blocks.substr(dash + 1));
        if (first < next_block_ || last < first || last >= blocks_ ||
            range.digest.size() != DIGEST_DIGITS) {
            refuse(fmt::format("impossible range \"{}\"", shown_bytes(range.blocks)));
        }
        const u64 end = std::min((last + 1) * map_.block_bytes, map_.image_bytes);
        map_.ranges.push_back(
            {{first * map_.block_bytes, end - first * map_.block_bytes}, range.digest});
        mapped_ += last - first + 1;
        next_block_ = last + 1;
    }

    const std::string &text_;
    const std::string &path_;
    xml_reader xml_;
    std::map<std::string, std::string> fields_;
    std::vector<range_text> ranges_;
    block_map map_{};
    u64 blocks_ = 0;
    u64 mapped_ = 0; // blocks
    u64 next_block_ = 0;
};

} // namespace

std::string text_of_block_map(const block_map &map) {
    u64 mapped = 0;
    std::string ranges;
    for (const mapped_range &range : map.ranges) {
        mapped += blocks_of(range.at.bytes, map.block_bytes);
        ranges += fmt::format("        <Range chksum=\"{}\"> {} </Range>\n", range.digest,
                              blocks_text(range.at, map.block_bytes));
    }
    const std::string before = fmt::format("<?xml version=\"1.0\" ?>\n"
                                           "<bmap version=\"2.0\">\n"
                                           "    <ImageSize> {} </ImageSize>\n"
                                           "    <BlockSize> {} </BlockSize>\n"
                                           "    <BlocksCount> {} </BlocksCount>\n"
                                           "    <MappedBlocksCount> {} </MappedBlocksCount>\n"
                                           "    <ChecksumType> sha256 </ChecksumType>\n"
                                           "    <BmapFileChecksum> ",
                                           map.image_bytes, map.block_bytes,
                                           blocks_of(map.image_bytes, map.block_bytes), mapped);
    const std::string after = " </BmapFileChecksum>\n    <BlockMap>\n" + ranges +
                              "    </BlockMap>\n"
                              "</bmap>\n";
    return before + sha256_of(before + std::string(DIGEST_DIGITS, '0') + after) + after;
}

block_map read_block_map(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file.is_open() || file.bad()) {
        throw system_failure("read " + shown_bytes(path));
    }
    return map_reader(text, path).read();
}

} // namespace qvol
