#include "qvol/sources/source.h"

#include "qvol/error.h"

namespace qvol {

void problem_list::refuse() const {
    if (!lines_.empty()) {
        throw error("cannot store all entries; nothing was written", lines_);
    }
}

error changed_while_read(const std::string &path) {
    return error("cannot copy " + shown_bytes(path) + ": changed while it was read; try again");
}

} // namespace qvol
