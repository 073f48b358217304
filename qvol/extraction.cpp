#include "qvol/extraction.h"

#include "qvol/error.h"
#include "qvol/output.h"

namespace qvol {

std::optional<std::string> host_name_of(const name_codec &names, std::u16string_view name) {
    std::optional<std::string> host = names.to_host(name);
    const bool is_file_name =
        host && host->find_first_of(std::string_view("/\0", 2)) == std::string::npos;
    return is_file_name ? std::move(host) : std::nullopt;
}

void extract_link(volume &vol, const host_directory &into, const std::string &name, bool replaces,
                  const entry &found) {
    const std::string target = link_target(vol, found);
    if (target.empty() || target.find('\0') != std::string::npos) {
        throw error("the link target cannot be created on this system");
    }
    into.make_link(name, replaces, moment_of(found.modified()), target);
}

} // namespace qvol
