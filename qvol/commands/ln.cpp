// qvol ln: makes a symbolic link.

#include "qvol/commands/change.h"
#include "qvol/commands/commands.h"
#include "qvol/file_data.h"

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr const char *MAKE_LINK = "make link";

struct ln_options {
    std::string target;
    std::string path;
};

void write_text(const volume &vol, const std::vector<u32> &clusters, const std::string &target) {
    data_writer writer(vol.on());
    writer.begin(clusters);
    writer.append({reinterpret_cast<const u8 *>(target.data()), target.size()});
    writer.end();
    writer.flush();
}

int run_ln(const common_options &common, const ln_options &options) {
    const std::string &target = options.target;
    if (target.empty() || target.size() > MAX_TARGET_BYTES) {
        throw usage_error(
            fmt::format("cannot make link {}: the target has {} bytes, must have 1 to {}",
                        shown_bytes(options.path), target.size(), MAX_TARGET_BYTES));
    }
    return with_volume(common, access::WRITE, [&](volume &vol) {
        resolved_path where = find_path(vol, options.path);
        if (where.is_root() || where.found) {
            fail(vol, MAKE_LINK, where.path, "exists");
        }
        add_context(vol, MAKE_LINK, where.path, [&] {
            const auto size = static_cast<u32>(target.size());
            const std::vector<u32> clusters = vol.fat().allocate(clusters_for(vol.on(), size));
            where.parent.add({where.path.back(), kind::LINK, clusters.front(), size,
                              dos_time_of(current_time())});
            write_text(vol, clusters, target);
            vol.commit_additions({&where.parent});
        });
        json made = json::array();
        made.push_back(json_path(where.path));
        print_paths(common.out, "made", std::move(made));
        return EXIT_DONE;
    });
}

} // namespace

void add_ln(command_line *commands) {
    const auto [ln, options] = commands->add(
        {"ln", "Make a symbolic link", "  qvol ln flash.img kernel-6.1.bin /boot/kernel.bin"},
        run_ln);
    ln.value("TARGET", &options->target, "Text of the link").required();
    ln.value("PATH", &options->path, "Link to make").required();
}

} // namespace qvol
