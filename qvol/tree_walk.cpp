#include "qvol/tree_walk.h"

#include "qvol/error.h"

#include <algorithm>
#include <set>

namespace qvol {

namespace {

// A directory on the stack.
struct level {
    std::vector<entry> entries;
    std::size_t next = 0;
};

class tree_walk {
public:
    tree_walk(volume &vol, name_path path, const tree_visitor &visitor)
        : vol_(vol), path_(std::move(path)), visitor_(visitor),
          clusters_left_(vol.on().at.clusters) {}

    void run(const directory &top) {
        entered_.insert(top.start());
        levels_.push_back({listed_entries(top)});
        while (!levels_.empty()) {
            if (levels_.back().next == levels_.back().entries.size()) {
                leave_directory();
            } else {
                visit_next();
            }
        }
    }

private:
    void visit_next() {
        level &here = levels_.back();
        const entry found = std::move(here.entries[here.next++]);
        path_.push_back(found.name);
        const bool is_last = here.next == here.entries.size();
        const bool enters = !visitor_.visit || visitor_.visit(path_, found, is_last);
        if (!enters || !found.is_directory() || !enter(found)) {
            path_.pop_back();
        } else if (visitor_.enter) {
            visitor_.enter(path_, levels_.back().entries);
        }
    }

    [[nodiscard]] bool enter(const entry &found) {
        try {
            if (!entered_.insert(found.start()).second) {
                throw error(
                    "was visited before: a cycle, or a chain shared with another directory");
            }
            const directory dir = open_directory(vol_, found);
            if (dir.clusters().size() > clusters_left_) {
                throw error("directories share their clusters");
            }
            clusters_left_ -= dir.clusters().size();
            levels_.push_back({listed_entries(dir)});
            return true;
        } catch (const error &why) {
            if (!visitor_.fail) {
                throw error("cannot read " + shown_path(vol_.names(), path_) + ": " + why.what());
            }
            visitor_.fail(path_, why.what());
            return false;
        }
    }

    void leave_directory() {
        levels_.pop_back();
        if (levels_.empty()) {
            return;
        }
        if (visitor_.leave) {
            visitor_.leave(path_);
        }
        path_.pop_back();
    }

    volume &vol_;
    name_path path_;
    const tree_visitor &visitor_;
    std::vector<level> levels_;
    std::set<u32> entered_; // by first cluster
    std::size_t clusters_left_;
};

} // namespace

std::vector<entry> listed_entries(const directory &of) {
    std::vector<entry> listed;
    for (const auto &[slot, found] : of.entries()) {
        if (!found.is_dot() && found.type() != kind::LABEL) {
            listed.push_back(found);
        }
    }
    std::sort(listed.begin(), listed.end(), [](const entry &a, const entry &b) {
        return std::tie(a.name, a.slot) < std::tie(b.name, b.slot);
    });
    return listed;
}

void walk_tree(volume &vol, const name_path &path, const directory &top,
               const tree_visitor &visitor) {
    tree_walk(vol, path, visitor).run(top);
}

} // namespace qvol
