#include "qvol/check/lost_index.h"

#include "qvol/check/found_files.h"

namespace qvol {

lost_index::lost_index(const survey &checked) {
    for (const lost_chain &lost : checked.lost) {
        const std::optional<u32> parent = parent_of(checked.on(), lost.head);
        if (parent) {
            directories_.emplace(*parent, lost.head);
            parents_.emplace(lost.head, *parent);
        } else {
            files_.emplace(lost.head, lost.count);
        }
    }
}

bool lost_index::has_file(u32 head, u32 count) const {
    const auto found = files_.find(head);
    return found != files_.end() && found->second == count;
}

bool lost_index::take_file(u32 head, u32 count) {
    return has_file(head, count) && files_.erase(head) == 1;
}

std::optional<u32> lost_index::take_only_file(u32 count) {
    if (files_.size() != 1 || files_.begin()->second != count) {
        return std::nullopt;
    }
    const u32 head = files_.begin()->first;
    files_.clear();
    return head;
}

u32 lost_index::take_any(u32 head) {
    const auto found = files_.find(head);
    const u32 count = found != files_.end() ? found->second : 0;
    files_.erase(head);
    return count;
}

std::vector<u32> lost_index::directories_below(u32 parent) const {
    std::vector<u32> heads;
    const auto [first, last] = directories_.equal_range(parent);
    for (auto one = first; one != last; ++one) {
        heads.push_back(one->second);
    }
    return heads;
}

bool lost_index::has_directory(u32 head) const {
    return parents_.contains(head);
}

bool lost_index::take_directory(u32 head) {
    const auto found = parents_.find(head);
    if (found == parents_.end()) {
        return false;
    }
    const auto [first, last] = directories_.equal_range(found->second);
    for (auto one = first; one != last; ++one) {
        if (one->second == head) {
            directories_.erase(one);
            break;
        }
    }
    parents_.erase(found);
    return true;
}

} // namespace qvol
