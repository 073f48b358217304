#include "qvol/map_text.h"

#include "qvol/map_words.h"

#include <algorithm>
#include <array>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr u32 MAX_ROWS = 16;           // of cells
constexpr std::size_t MAX_LISTED = 10; // fragmented owners
constexpr u64 MIN_MARK_COLUMNS = 5;

// ---- colours ----------------------------------------------------------------------------------

// From the 256 colours of terminals. The largest files come first, as in the classes.
constexpr std::array<int, CLASSES> CLASS_COLOURS = {33,  208, 35, 134, 203, 38, 178,
                                                    137, 103, 60, 240, 196, 15};
constexpr int AREA_COLOURS[] = {240, 33, 134, 35, 240}; // by area_kind

std::string coloured(const terminal_form &form, int colour, const std::string &text) {
    return form.has_colour ? fmt::format("\x1b[38;5;{}m{}\x1b[0m", colour, text) : text;
}

std::string heading(const terminal_form &form, const std::string &text) {
    return form.has_colour ? "\x1b[1m" + text + "\x1b[0m" : text;
}

// A row of a picture: adjacent symbols of one colour are coloured together.
class picture_row {
public:
    explicit picture_row(const terminal_form &form) : form_(form) {}

    void add(int colour, const std::string &symbol) {
        if (colour != colour_) {
            flush();
            colour_ = colour;
        }
        pending_ += symbol;
    }
    [[nodiscard]] std::string text() {
        flush();
        return text_;
    }

private:
    void flush() {
        if (!pending_.empty()) {
            text_ += coloured(form_, colour_, pending_);
        }
        pending_.clear();
    }

    const terminal_form &form_;
    int colour_ = 0;
    std::string pending_;
    std::string text_;
};

// ---- areas ------------------------------------------------------------------------------------

std::string symbol_of(const area &drawn) {
    switch (drawn.kind) {
    case area_kind::RESERVED:
        return "R";
    case area_kind::FAT:
        return drawn.name.substr(drawn.name.size() - 1); // the last digit of the copy's number
    case area_kind::ROOT:
        return "/";
    case area_kind::UNUSED_FAT:
        return "x";
    default:
        return "D";
    }
}

int colour_of(const area &drawn) {
    return AREA_COLOURS[static_cast<std::size_t>(drawn.kind)];
}

// The bytes from 0 to `span`, to scale: each column shows the area at its middle.
std::string area_strip(const volume_map &map, u64 span, const terminal_form &form) {
    picture_row row(form);
    for (u64 column = 0; column < form.width; column++) {
        const u64 middle = (2 * column + 1) * span / (2 * u64{form.width});
        const auto at =
            std::find_if(map.areas.begin(), map.areas.end(), [middle](const area &drawn) {
                return middle >= drawn.offset() && middle < drawn.end();
            });
        row.add(at != map.areas.end() ? colour_of(*at) : 0,
                at != map.areas.end() ? symbol_of(*at) : "-");
    }
    return row.text();
}

// The distance of marks in bytes: a page of 2 KiB, doubled until marks are far enough apart.
u64 mark_distance(u64 span, unsigned width) {
    u64 distance = PAGE_SIZES.front();
    while (distance * width < span * MIN_MARK_COLUMNS) {
        distance *= 2;
    }
    return distance;
}

std::string marks(u64 span, u64 distance, unsigned width) {
    std::string text;
    for (u64 column = 0; column < width; column++) {
        const u64 first = column * span / width;
        const u64 end = (column + 1) * span / width;
        text += (end + distance - 1) / distance > (first + distance - 1) / distance ? '|' : ' ';
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

void print_areas(const output &out, const volume_map &map, const terminal_form &form) {
    const u64 span = zoomed_bytes(map);
    const u64 distance = mark_distance(span, form.width);
    out.line("");
    out.line(heading(
        form, fmt::format("Areas to scale, {} a column", short_size(map.bytes / form.width))));
    out.line(area_strip(map, map.bytes, form));
    out.line("");
    out.line(heading(form, fmt::format("The first {}, a mark every {}", short_size(span),
                                       short_size(distance))));
    out.line(area_strip(map, span, form));
    out.line(marks(span, distance, form.width));
}

// Prints the distance from the last page boundary to each area.
void print_remainders(const output &out, const volume_map &map, const terminal_form &form) {
    std::string names_of_pages;
    for (const u32 page : PAGE_SIZES) {
        names_of_pages += fmt::format("{:>8}", short_size(page));
    }
    out.line("");
    out.line(heading(form, "Bytes from the page boundary to the area"));
    out.line(fmt::format("{:18}{}{:>14}", "  pages of", names_of_pages, "at byte"));
    for (const area &drawn : map.areas) {
        std::string line = fmt::format(" {:<16}", drawn.name);
        for (const u32 page : PAGE_SIZES) {
            line += fmt::format("{:>8}", drawn.past_page(page));
        }
        out.line(coloured(form, colour_of(drawn), symbol_of(drawn)) + line +
                 fmt::format("{:>14}", drawn.offset()));
    }
}

// ---- clusters ---------------------------------------------------------------------------------

// Capital: all clusters of a cell; small: most of them.
std::string symbol_of(u32 number, bool is_whole, const terminal_form &form) {
    switch (number) {
    case CLASS_OTHER_FILES:
        return is_whole ? "O" : "o";
    case CLASS_DIRECTORIES:
        return "/";
    case CLASS_FREE:
        return is_whole ? (form.has_utf8 ? "·" : ".") : ":";
    case CLASS_LOST:
        return "?";
    case CLASS_BAD:
        return "!";
    default:
        return {static_cast<char>((is_whole ? 'A' : 'a') + static_cast<char>(number))};
    }
}

std::string cell_symbol(u32 number, bool is_whole, const terminal_form &form) {
    if (!form.has_colour || !form.has_utf8 || number == CLASS_FREE) {
        return symbol_of(number, is_whole, form);
    }
    return is_whole ? "█" : "▓";
}

// The class of most clusters in a cell, and whether all clusters have it.
std::pair<u32, bool> main_class(const map_cell &cell, const map_classes &classes) {
    std::array<u32, CLASSES> counts{};
    for (const held_extent &part : cell.parts) {
        counts[classes.class_of(part.held_by)] += part.count;
    }
    const auto *const main = std::max_element(counts.begin(), counts.end());
    return {static_cast<u32>(main - counts.begin()), *main == cell.count};
}

void print_cells(const output &out, const volume_map &map, const map_classes &classes,
                 const terminal_form &form) {
    const std::vector<map_cell> cells = cells_of(map, form.width * MAX_ROWS);
    const u32 size = cells.front().count;
    out.line("");
    out.line(heading(form, fmt::format("Clusters, {} a cell ({})", size,
                                       short_size(u64{size} * map.cluster_bytes))));
    for (std::size_t first = 0; first < cells.size(); first += form.width) {
        picture_row row(form);
        const std::size_t end = std::min<std::size_t>(first + form.width, cells.size());
        for (std::size_t cell = first; cell < end; cell++) {
            const auto [number, is_whole] = main_class(cells[cell], classes);
            row.add(CLASS_COLOURS[number], cell_symbol(number, is_whole, form));
        }
        out.line(row.text());
    }
}

// ---- legend and list --------------------------------------------------------------------------

class clusters_table {
public:
    clusters_table(const output &out, const volume_map &map, const terminal_form &form)
        : out_(out), map_(map), form_(form) {}

    void print_heading(const char *first) const {
        out_.line("");
        out_.line(heading(
            form_, fmt::format("  {:>9}  {:>8}  {:>6}  {}", "clusters", "share", "pieces", first)));
    }

    void print_row(const std::string &symbol, u64 clusters, u64 pieces,
                   const std::string &text) const {
        const double share = 100.0 * static_cast<double>(clusters) / map_.clusters;
        const std::string shown =
            fitted(text, form_.width - FIXED_COLUMNS, form_.has_utf8 ? "…" : "...");
        out_.line(
            fmt::format("{} {:>9}  {:>6.2f} %  {:>6}  {}", symbol, clusters, share, pieces, shown));
    }

private:
    static constexpr unsigned FIXED_COLUMNS = 31;

    const output &out_;
    const volume_map &map_;
    const terminal_form &form_;
};

void print_legend(const output &out, const name_codec &names, const volume_map &map,
                  const map_classes &classes, const terminal_form &form) {
    const clusters_table table(out, map, form);
    const auto symbol = [&](u32 number) {
        return coloured(form, CLASS_COLOURS[number], cell_symbol(number, true, form));
    };
    table.print_heading("owner");
    for (u32 rank = 0; rank < classes.largest().size(); rank++) {
        const cluster_owner &owner = map.owners[classes.largest()[rank]];
        table.print_row(symbol(rank), owner.clusters, owner.extents.size(),
                        owner_text(names, owner));
    }
    for (u32 number = FILES_WITH_CLASS; number < CLASSES; number++) {
        const map_classes::total &total = classes.total_of(number);
        if (total.clusters != 0) {
            table.print_row(symbol(number), total.clusters, total.extents,
                            class_text(number, total.owners));
        }
    }
}

void print_fragmentation(const output &out, const name_codec &names, const volume_map &map,
                         const terminal_form &form) {
    const fragmentation pieces = map.pieces();
    out.line("");
    out.line(heading(form, "Fragmentation " + percent_text(pieces.percent())));
    out.line(jumps_text(pieces));
    out.line("free space " + free_space_text(map));
    const std::vector<u32> listed = map.most_pieces(MAX_LISTED);
    if (listed.empty()) {
        return;
    }
    const clusters_table table(out, map, form);
    table.print_heading("most fragmented");
    for (const u32 number : listed) {
        const cluster_owner &owner = map.owners[number];
        table.print_row(" ", owner.clusters, owner.extents.size(), owner_text(names, owner));
    }
}

} // namespace

void print_map(const output &out, const name_codec &names, const volume_map &map,
               const terminal_form &form) {
    const map_classes classes(map);
    out.line(heading(form, map.image) + fmt::format(": FAT{}, {}, {} of {}", map.fat_type,
                                                    short_size(map.bytes),
                                                    counted(map.clusters, "cluster", "clusters"),
                                                    short_size(map.cluster_bytes)));
    print_areas(out, map, form);
    print_remainders(out, map, form);
    print_cells(out, map, classes, form);
    print_legend(out, names, map, classes, form);
    print_fragmentation(out, names, map, form);
}

} // namespace qvol
