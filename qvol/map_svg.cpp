#include "qvol/map_svg.h"

#include "qvol/map_words.h"
#include "qvol/output.h"
#include "qvol/svg.h"
#include "qvol/terminal.h"

#include <algorithm>
#include <cmath>

#include <fmt/core.h>

namespace qvol {

namespace {

// ---- measures, in units of the picture --------------------------------------------------------

constexpr double WIDTH = 1200;
constexpr double MARGIN = 40;
constexpr double INNER = WIDTH - 2 * MARGIN;
constexpr double TILE_HEIGHT = 68;
constexpr double STRIP_HEIGHT = 30;
constexpr double FUNNEL_HEIGHT = 26; // between a strip and the enlarged strip
constexpr double HEADING_HEIGHT = 30;
constexpr double SECTION_GAP = 30;
constexpr double ROW_HEIGHT = 23;
constexpr double MONO_WIDTH = 7.3; // of a column of the fixed font of 12 units

constexpr std::size_t MAX_TITLE_LINES = 8;

// Light and dark, by the setting of the browser. Classes: r f t d: the areas; c0 to c12: the
// classes of clusters.
constexpr const char *STYLE = R"(<style>
:root { color-scheme: light dark }
svg { --paper: #ffffff; --panel: #f4f6f9; --ink: #1b2430; --soft: #66717f; --rule: #d9dfe7;
  --free: #e6eaf0; --other: #a3afbf; --folder: #55617a; --reserved: #8a94a3; --good: #1f8a5b;
  --off: #c2410c; --mark: #111827 }
@media (prefers-color-scheme: dark) { svg { --paper: #12171f; --panel: #1b222d; --ink: #e8edf4;
  --soft: #97a3b3; --rule: #323c4a; --free: #27303d; --other: #66748a; --folder: #b9c4d6;
  --reserved: #7a8698; --good: #4ec48e; --off: #f59056; --mark: #ffffff } }
text { font: 13px system-ui, -apple-system, "Segoe UI", Roboto, "Helvetica Neue", Arial, sans-serif;
  fill: var(--ink) }
.title { font-size: 25px; font-weight: 650 } .h { font-size: 15px; font-weight: 650 }
.big { font-size: 22px; font-weight: 600 } .soft { fill: var(--soft) } .bold { font-weight: 600 }
.small { font-size: 11.5px; fill: var(--soft) } .end { text-anchor: end }
.mono { font: 12px ui-monospace, SFMono-Regular, Menlo, Consolas, "DejaVu Sans Mono", monospace }
.on { fill: #ffffff; font-weight: 600 } .mid { text-anchor: middle } .good { fill: var(--good) }
.off { fill: var(--off) } .paper { fill: var(--paper) }
.panel { fill: var(--panel) } .rule { stroke: var(--rule) } .tick { stroke: var(--soft) }
.mark { stroke: var(--mark); stroke-width: 2 } .grid { stroke: var(--paper); stroke-width: 1.4; pointer-events: none }
.funnel { fill: var(--rule); opacity: .45 } .pale { opacity: .3 }
.edge { stroke: var(--paper); stroke-width: 1 }
.r { fill: var(--reserved) } .f { fill: #3b6fe0 } .t { fill: #a94fc0 } .d { fill: #2f9e78 }
.c0 { fill: #3b6fe0 } .c1 { fill: #e8833a } .c2 { fill: #2f9e78 } .c3 { fill: #a94fc0 }
.c4 { fill: #dc4c64 } .c5 { fill: #2aa5c4 } .c6 { fill: #cfa11f } .c7 { fill: #96694c }
.c8 { fill: var(--other) } .c9 { fill: var(--folder) } .c10 { fill: var(--free) }
.c11 { fill: #ff2e63 } .c12 { fill: #000000 }
</style>
)";

std::string class_name(u32 number) {
    return fmt::format("c{}", number);
}

const char *class_name(const area &drawn) {
    constexpr const char *NAMES[] = {"r", "f", "t", "d", "r"};
    return NAMES[static_cast<std::size_t>(drawn.kind)];
}

// "12,345"
std::string grouped(u64 number) {
    std::string text = std::to_string(number);
    for (std::size_t digit = text.size(); digit > 3; digit -= 3) {
        text.insert(digit - 3, 1, ',');
    }
    return text;
}

std::string range_text(u32 first, u32 count) {
    if (count == 1) {
        return "cluster " + grouped(first);
    }
    return fmt::format("clusters {} to {}", grouped(first), grouped(u64{first} + count - 1));
}

// The picture grows downwards: each section starts at `y_` and moves it.
class map_picture {
public:
    explicit map_picture(const volume_map &map) : map_(map), classes_(map) {}

    [[nodiscard]] std::string draw() {
        draw_head();
        draw_tiles();
        draw_areas();
        draw_boundaries();
        draw_clusters();
        draw_tables();
        return framed();
    }

private:
    void draw_head();
    void draw_tiles();
    void draw_tile(double x, const std::string &figure, const std::string &caption,
                   const std::string &more);
    void draw_heading(const std::string &text, const std::string &remark);
    void draw_areas();
    void draw_strip(const box &at, u64 first, u64 span, bool has_labels);
    void draw_boundaries();
    void draw_boundary(const area &drawn, const box &at);
    void draw_page_row(const area &drawn, u32 page, const box &at);
    void draw_clusters();
    void draw_cells(std::span<const map_cell> row, double pitch);
    void draw_grid(double top, std::size_t columns, std::size_t rows, double pitch);
    [[nodiscard]] std::array<double, CLASSES> shares_in(const map_cell &cell) const;
    void draw_mixed_cell(const map_cell &cell, double x, double pitch);
    void draw_tables();
    double draw_legend(double width);
    double draw_pieces(double x, double width);
    void draw_owner_row(const box &at, const std::string &swatch, const std::string &path,
                        u64 clusters, u64 pieces);
    void draw_positions(const cluster_owner &owner, const box &at, const std::string &colour);
    [[nodiscard]] std::string holder_text(holder by) const;
    [[nodiscard]] std::string cell_title(const map_cell &cell) const;
    [[nodiscard]] std::string framed() const;

    const volume_map &map_;
    map_classes classes_;
    name_codec names_; // the picture is UTF-8, whatever the host's names are
    svg_body body_;
    double y_ = MARGIN;
};

// ---- head -------------------------------------------------------------------------------------

void map_picture::draw_head() {
    body_.text(MARGIN, y_ + 20, "title", fitted(map_.image, 60, "…"));
    body_.text(MARGIN, y_ + 44, "soft",
               fmt::format("FAT{}  ·  {}  ·  {} clusters of {}", map_.fat_type,
                           short_size(map_.bytes), grouped(map_.clusters),
                           short_size(map_.cluster_bytes)));
    y_ += 64;
}

void map_picture::draw_tile(double x, const std::string &figure, const std::string &caption,
                            const std::string &more) {
    constexpr double TILE_WIDTH = (INNER - 3 * 16) / 4;
    body_.rect({x, y_, TILE_WIDTH, TILE_HEIGHT}, "panel", more, 8);
    body_.text(x + 16, y_ + 31, "big", figure);
    body_.text(x + 16, y_ + 52, "small", caption);
}

void map_picture::draw_tiles() {
    constexpr double STEP = (INNER + 16) / 4;
    const u64 free_clusters = classes_.total_of(CLASS_FREE).clusters;
    const u64 used = map_.clusters - free_clusters;
    const fragmentation pieces = map_.pieces();
    draw_tile(MARGIN, percent_text(100.0 * static_cast<double>(used) / map_.clusters) + " used",
              fmt::format("{} in {} {}", short_size(used * map_.cluster_bytes), grouped(used),
                          used == 1 ? "cluster" : "clusters"),
              "");
    draw_tile(MARGIN + STEP, short_size(free_clusters * map_.cluster_bytes) + " free",
              free_space_text(map_), "");
    draw_tile(MARGIN + 2 * STEP,
              fmt::format("{} {}", grouped(map_.files), map_.files == 1 ? "file" : "files"),
              counted(classes_.total_of(CLASS_DIRECTORIES).owners, "directory", "directories"), "");
    draw_tile(MARGIN + 3 * STEP, percent_text(pieces.percent()) + " fragmented",
              fmt::format("{} of {} in pieces", grouped(pieces.in_pieces),
                          counted(pieces.chains, "chain", "chains")),
              jumps_text(pieces));
    y_ += TILE_HEIGHT + SECTION_GAP;
}

void map_picture::draw_heading(const std::string &text, const std::string &remark) {
    body_.text(MARGIN, y_ + 14, "h", text);
    body_.text(MARGIN + INNER, y_ + 14, "small end", remark);
    y_ += HEADING_HEIGHT;
}

// ---- areas ------------------------------------------------------------------------------------

void map_picture::draw_strip(const box &at, u64 first, u64 span, bool has_labels) {
    const double scale = at.width / static_cast<double>(span);
    body_.begin_clipped(at);
    body_.rect({0, 0, at.width, at.height}, "c10");
    for (const area &drawn : map_.areas) {
        const double x = (static_cast<double>(drawn.offset()) - static_cast<double>(first)) * scale;
        const double width = static_cast<double>(drawn.bytes()) * scale;
        if (x > at.width || x + width < 0) {
            continue;
        }
        body_.rect({x, 0, width, at.height}, std::string(class_name(drawn)) + " edge",
                   fmt::format("{}\n{} from byte {}", drawn.name, short_size(drawn.bytes()),
                               grouped(drawn.offset())));
        const double shown = std::min(x + width, at.width) - x;
        if (has_labels && shown > 8.5 * static_cast<double>(drawn.name.size()) + 12) {
            body_.text(x + shown / 2, at.height / 2 + 4.5, "on mid", drawn.name);
        }
    }
    body_.end_clipped();
}

void map_picture::draw_areas() {
    const u64 span = zoomed_bytes(map_);
    draw_heading("Areas, to scale", fmt::format("0 to {} bytes", grouped(map_.bytes)));
    draw_strip({MARGIN, y_, INNER, STRIP_HEIGHT}, 0, map_.bytes, true);
    y_ += STRIP_HEIGHT;
    const double part = INNER * static_cast<double>(span) / static_cast<double>(map_.bytes);
    body_.path(fmt::format("M{0} {1}H{2}L{3} {4}H{0}Z", coordinate(MARGIN), coordinate(y_),
                           coordinate(MARGIN + part), coordinate(MARGIN + INNER),
                           coordinate(y_ + FUNNEL_HEIGHT)),
               "funnel");
    body_.text(MARGIN + INNER, y_ + 14, "small end", fmt::format("the first {}", short_size(span)));
    y_ += FUNNEL_HEIGHT;
    draw_strip({MARGIN, y_, INNER, STRIP_HEIGHT}, 0, span, true);
    y_ += STRIP_HEIGHT + SECTION_GAP;
}

// ---- boundaries -------------------------------------------------------------------------------

// A page ruler for each page size, around the first byte of an area.
constexpr u64 WINDOW = 32 * u64{1024};
constexpr double BOUNDARY_HEIGHT = 138;
constexpr std::size_t MAX_BOUNDARIES = 5;

u64 window_start(const area &drawn) {
    const u64 page = PAGE_SIZES.back();
    const u64 start = drawn.offset() / page * page;
    return start < page / 2 ? 0 : start - page / 2;
}

void map_picture::draw_page_row(const area &drawn, u32 page, const box &at) {
    const u64 first = window_start(drawn);
    const double scale = at.width / static_cast<double>(WINDOW);
    const u64 past = (drawn.page_origin + first) % page;
    for (u64 tick = first + (page - past) % page; tick <= first + WINDOW; tick += page) {
        const double x = at.x + static_cast<double>(tick - first) * scale;
        body_.line(x, at.y + 3, x, at.y + at.height - 3, "tick");
    }
    const u64 remainder = drawn.past_page(page);
    body_.text(at.x - 8, at.y + 13, "small end", short_size(page));
    body_.text(at.x + at.width + 8, at.y + 13, remainder == 0 ? "good" : "off",
               remainder == 0 ? "0" : "+" + grouped(remainder));
}

void map_picture::draw_boundary(const area &drawn, const box &at) {
    constexpr double ROW = 20;
    constexpr double TOP = 46;
    const box rulers = {at.x + 62, at.y + TOP, at.width - 62 - 72, ROW * PAGE_SIZES.size()};
    body_.rect(at, "panel", "", 8);
    body_.rect({at.x + 14, at.y + 15, 12, 12}, class_name(drawn), "", 3);
    body_.text(at.x + 34, at.y + 26, "bold", drawn.name);
    body_.text(at.x + at.width - 14, at.y + 26, "small end",
               fmt::format("at {}", grouped(drawn.offset())));
    body_.raw("<g class=\"pale\">\n");
    draw_strip(rulers, window_start(drawn), WINDOW, false);
    body_.end_group();
    for (std::size_t row = 0; row < PAGE_SIZES.size(); row++) {
        draw_page_row(drawn, PAGE_SIZES[row],
                      {rulers.x, rulers.y + static_cast<double>(row) * ROW, rulers.width, ROW});
    }
    const double x = rulers.x + static_cast<double>(drawn.offset() - window_start(drawn)) /
                                    static_cast<double>(WINDOW) * rulers.width;
    body_.line(x, rulers.y - 4, x, rulers.y + rulers.height + 4, "mark");
}

// Shows the first areas and the last one of a volume with many FATs.
void map_picture::draw_boundaries() {
    std::vector<area> shown(map_.areas.begin() + 1, map_.areas.end());
    if (shown.size() > MAX_BOUNDARIES) {
        shown.erase(shown.begin() + MAX_BOUNDARIES - 1, shown.end() - 1);
    }
    draw_heading(
        "Start of the areas on flash pages",
        "mark: first byte of the area; right: its distance from the page boundary in bytes");
    const double gap = 16;
    const double count = static_cast<double>(shown.size());
    const double width = (INNER - (count - 1) * gap) / count;
    for (std::size_t i = 0; i < shown.size(); i++) {
        draw_boundary(shown[i], {MARGIN + static_cast<double>(i) * (width + gap), y_, width,
                                 BOUNDARY_HEIGHT});
    }
    y_ += BOUNDARY_HEIGHT + SECTION_GAP;
}

// ---- clusters ---------------------------------------------------------------------------------

// The largest cells with which the volume fits are used. In a large volume, a cell is many
// clusters.
struct cell_form {
    double pitch;
    u32 max_cells;
};
constexpr cell_form CELL_FORMS[] = {{28, 40 * 7}, {20, 56 * 10}, {14, 80 * 14}, {10, 112 * 20}};

const cell_form &form_for(u32 clusters) {
    const auto *const fitting =
        std::find_if(std::begin(CELL_FORMS), std::end(CELL_FORMS),
                     [clusters](const cell_form &form) { return clusters <= form.max_cells; });
    return fitting != std::end(CELL_FORMS) ? *fitting : CELL_FORMS[std::size(CELL_FORMS) - 1];
}

std::string map_picture::holder_text(holder by) const {
    return by >= FIRST_STATE ? class_text(classes_.class_of(by), 0)
                             : owner_text(names_, map_.owners[by]);
}

std::string map_picture::cell_title(const map_cell &cell) const {
    std::string text;
    std::size_t lines = 0;
    for (const held_extent &part : cell.parts) {
        if (lines++ == MAX_TITLE_LINES) {
            text += fmt::format("\nand {} more", cell.parts.size() - MAX_TITLE_LINES);
            break;
        }
        text += fmt::format("{}{}: {}", text.empty() ? "" : "\n", holder_text(part.held_by),
                            range_text(part.first, part.count));
    }
    return text;
}

// The visible share of each class in a cell: classes in use get at least LEAST_SHARE.
std::array<double, CLASSES> map_picture::shares_in(const map_cell &cell) const {
    constexpr double LEAST_SHARE = 0.25;
    std::array<double, CLASSES> shares{};
    for (const held_extent &part : cell.parts) {
        shares[classes_.class_of(part.held_by)] += static_cast<double>(part.count) / cell.count;
    }
    double sum = 0;
    for (u32 number = 0; number < CLASSES; number++) {
        if (number != CLASS_FREE && shares[number] != 0) {
            shares[number] = std::max(shares[number], LEAST_SHARE);
            sum += shares[number];
        }
    }
    for (double &share : shares) {
        share /= std::max(sum, 1.0);
    }
    shares[CLASS_FREE] = std::max(1 - sum, 0.0);
    return shares;
}

// Draws the classes in a cell from the bottom up.
void map_picture::draw_mixed_cell(const map_cell &cell, double x, double pitch) {
    const std::array<double, CLASSES> shares = shares_in(cell);
    body_.raw(fmt::format("<g><title>{}</title>\n", xml_text(cell_title(cell))));
    double bottom = pitch;
    for (u32 number = 0; number < CLASSES; number++) {
        if (shares[number] != 0) {
            bottom -= pitch * shares[number];
            body_.rect({x, bottom, pitch, pitch * shares[number]}, class_name(number));
        }
    }
    body_.end_group();
}

// Draws a row of cells. Adjacent cells with the same holder become one rectangle.
void map_picture::draw_cells(std::span<const map_cell> row, double pitch) {
    for (std::size_t column = 0; column < row.size();) {
        const map_cell &cell = row[column];
        const double x = static_cast<double>(column) * pitch;
        if (!cell.has_one_holder()) {
            draw_mixed_cell(cell, x, pitch);
            column++;
            continue;
        }
        const holder by = cell.parts.front().held_by;
        std::size_t end = column;
        u32 clusters = 0;
        while (end < row.size() && row[end].has_one_holder() &&
               row[end].parts.front().held_by == by) {
            clusters += row[end++].count;
        }
        body_.rect({x, 0, static_cast<double>(end - column) * pitch, pitch},
                   class_name(classes_.class_of(by)),
                   fmt::format("{}\n{}", holder_text(by), range_text(cell.first, clusters)));
        column = end;
    }
}

void map_picture::draw_clusters() {
    const cell_form &form = form_for(map_.clusters);
    const std::vector<map_cell> cells = cells_of(map_, form.max_cells);
    const std::size_t columns = static_cast<std::size_t>(INNER / form.pitch);
    const u32 size = cells.front().count;
    draw_heading("Clusters", fmt::format("a cell is {} ({})",
                                         size == 1 ? "a cluster" : grouped(size) + " clusters",
                                         short_size(u64{size} * map_.cluster_bytes)));
    const double top = y_;
    for (std::size_t first = 0; first < cells.size(); first += columns) {
        body_.begin_group(MARGIN, y_);
        draw_cells(std::span(cells).subspan(first, std::min(columns, cells.size() - first)),
                   form.pitch);
        body_.end_group();
        y_ += form.pitch;
    }
    draw_grid(top, columns, (cells.size() + columns - 1) / columns, form.pitch);
    y_ += SECTION_GAP;
}

// Draws the lines that divide the rectangles into cells.
void map_picture::draw_grid(double top, std::size_t columns, std::size_t rows, double pitch) {
    std::string lines;
    for (std::size_t column = 0; column <= columns; column++) {
        lines += fmt::format("M{} {}V{}", coordinate(MARGIN + static_cast<double>(column) * pitch),
                             coordinate(top), coordinate(y_));
    }
    for (std::size_t row = 0; row <= rows; row++) {
        lines += fmt::format("M{} {}H{}", coordinate(MARGIN),
                             coordinate(top + static_cast<double>(row) * pitch),
                             coordinate(MARGIN + INNER));
    }
    body_.path(lines, "grid");
}

// ---- tables -----------------------------------------------------------------------------------

void map_picture::draw_owner_row(const box &at, const std::string &swatch, const std::string &path,
                                 u64 clusters, u64 pieces) {
    body_.rect({at.x, at.y + 5, 13, 13}, swatch, "", 3);
    body_.text(at.x + at.width - 58, at.y + 16, "end", short_size(clusters * map_.cluster_bytes));
    body_.text(at.x + at.width, at.y + 16, "end soft", grouped(pieces));
    const double room = at.width - 24 - 140;
    body_.raw(fmt::format("<g><title>{}</title>\n", xml_text(path)));
    body_.begin_clipped({at.x + 24, at.y, room, at.height});
    body_.text(0, 16, "mono", fitted(path, static_cast<unsigned>(room / MONO_WIDTH), "…"));
    body_.end_clipped();
    body_.end_group();
}

// Returns its height.
double map_picture::draw_legend(double width) {
    box row = {MARGIN, y_, width, ROW_HEIGHT};
    body_.text(row.x, row.y + 14, "h", "Owner");
    body_.text(row.x + width - 58, row.y + 14, "small end", "size");
    body_.text(row.x + width, row.y + 14, "small end", "pieces");
    row.y += HEADING_HEIGHT - 6;
    for (u32 rank = 0; rank < classes_.largest().size(); rank++) {
        const cluster_owner &owner = map_.owners[classes_.largest()[rank]];
        draw_owner_row(row, class_name(rank), owner_text(names_, owner), owner.clusters,
                       owner.extents.size());
        row.y += ROW_HEIGHT;
    }
    for (u32 number = FILES_WITH_CLASS; number < CLASSES; number++) {
        const map_classes::total &total = classes_.total_of(number);
        if (total.clusters != 0) {
            draw_owner_row(row, class_name(number), class_text(number, total.owners),
                           total.clusters, total.extents);
            row.y += ROW_HEIGHT;
        }
    }
    return row.y - y_;
}

// Draws the positions of the pieces of a chain in the data area.
void map_picture::draw_positions(const cluster_owner &owner, const box &at,
                                 const std::string &colour) {
    std::vector<bool> is_held(static_cast<std::size_t>(at.width));
    const auto unit_of = [&](u64 cluster) {
        return (cluster - core::FIRST_DATA_CLUSTER) * is_held.size() / map_.clusters;
    };
    for (const cluster_extent &part : owner.extents) {
        for (u64 x = unit_of(part.first); x <= unit_of(u64{part.first} + part.count - 1); x++) {
            is_held[x] = true;
        }
    }
    body_.rect(at, "c10", "", 2);
    std::string data;
    for (std::size_t x = 0; x < is_held.size(); x++) {
        if (is_held[x]) {
            data += fmt::format("M{} {}h1v{}h-1z", coordinate(at.x + static_cast<double>(x)),
                                coordinate(at.y), coordinate(at.height));
        }
    }
    body_.path(data, colour, holder_text(static_cast<u32>(&owner - map_.owners.data())));
}

double map_picture::draw_pieces(double x, double width) {
    const std::vector<u32> listed = map_.most_pieces(FILES_WITH_CLASS);
    box row = {x, y_, width, ROW_HEIGHT};
    body_.text(x, row.y + 14, "h", "Most fragmented");
    row.y += HEADING_HEIGHT - 6;
    if (listed.empty()) {
        body_.text(x, row.y + 16, "soft", "Every chain is in one piece.");
        return row.y + ROW_HEIGHT - y_;
    }
    body_.text(x + 270 + 60, y_ + 14, "small end", "pieces");
    body_.text(x + width, y_ + 14, "small end", "position");
    for (const u32 number : listed) {
        const cluster_owner &owner = map_.owners[number];
        const std::string path = owner_text(names_, owner);
        body_.raw(fmt::format("<g><title>{}</title>\n", xml_text(path)));
        body_.begin_clipped({x, row.y, 270, ROW_HEIGHT});
        body_.text(0, 16, "mono", fitted(path, static_cast<unsigned>(270 / MONO_WIDTH), "…"));
        body_.end_clipped();
        body_.end_group();
        body_.text(x + 270 + 60, row.y + 16, "end soft", grouped(owner.extents.size()));
        draw_positions(owner, {x + 350, row.y + 5, width - 350, 13},
                       class_name(classes_.class_of(number)));
        row.y += ROW_HEIGHT;
    }
    return row.y - y_;
}

void map_picture::draw_tables() {
    constexpr double GAP = 48;
    constexpr double HALF = (INNER - GAP) / 2;
    const double left = draw_legend(HALF);
    const double right = draw_pieces(MARGIN + HALF + GAP, HALF);
    y_ += std::max(left, right) + MARGIN / 2;
}

// ---- the whole --------------------------------------------------------------------------------

std::string map_picture::framed() const {
    const std::string height = coordinate(std::ceil(y_));
    svg_body paper;
    paper.rect({0, 0, WIDTH, std::ceil(y_)}, "paper", "", 12);
    return fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0} {1}\" "
                       "width=\"{0}\" height=\"{1}\" role=\"img\">\n<title>Map of {2}</title>\n",
                       coordinate(WIDTH), height, xml_text(map_.image)) +
           STYLE + paper.markup() + body_.markup() + "</svg>\n";
}

} // namespace

std::string map_svg(const volume_map &map) {
    return map_picture(map).draw();
}

} // namespace qvol
