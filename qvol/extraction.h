// What every copy out of a volume needs: names of the volume on the host, and links.

#pragma once

#include "qvol/host.h"
#include "qvol/session.h"

#include <optional>
#include <string>
#include <string_view>

namespace qvol {

// A name of the volume in the encoding of the host. Nothing if that does not have it, or has it
// only as bytes that are no file name.
[[nodiscard]] std::optional<std::string> host_name_of(const name_codec &names,
                                                      std::u16string_view name);

// Makes a link of the volume in a directory of the host. Throws error.
void extract_link(volume &vol, const host_directory &into, const std::string &name, bool replaces,
                  const entry &found);

} // namespace qvol
