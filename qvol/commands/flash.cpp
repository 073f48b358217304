// qvol flash: writes an image to a device.
//
// Refuses what "qvol build" refuses on a device: one that is mounted or in use, one that is not
// blank without --force, and one that is too small.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/flashing/flashing.h"
#include "qvol/flashing/stop_request.h"

#include <fmt/core.h>
#include <sys/stat.h>

namespace qvol {

namespace {

struct flash_options {
    std::string device;
    std::string bmap;
    bool discards_rest = false;
    bool zeroes_rest = false;
    bool leaves_unverified = false;
    bool is_forced = false;
};

bool is_same_file(const std::string &path, const target &where) {
    struct stat one {};
    struct stat other {};
    return stat(path.c_str(), &one) == 0 && fstat(where.descriptor(), &other) == 0 &&
           (S_ISBLK(one.st_mode) && S_ISBLK(other.st_mode)
                ? one.st_rdev == other.st_rdev
                : one.st_dev == other.st_dev && one.st_ino == other.st_ino);
}

void check_device(const target &where, const image_stream &image, const common_options &common,
                  const flash_options &options) {
    const std::string name = shown_bytes(where.path());
    if (is_same_file(common.image, where)) {
        throw error("cannot flash " + name + ": it is the image itself");
    }
    if (!options.is_forced && !where.is_blank()) {
        throw error("cannot flash " + name + ": not blank; --force overwrites its content");
    }
    if (image.size().value_or(0) > where.size()) {
        throw error(fmt::format("cannot flash {}: it has {}, the image has {}", name,
                                shown_size(where.size()), shown_size(*image.size())));
    }
}

void report_result(const output &out, const common_options &common, const flashing &work,
                   const flash_options &options) {
    const bool is_verified = !options.leaves_unverified;
    out.remark(fmt::format("{}: {} of {} written{}", shown_bytes(options.device),
                           shown_size(work.written_bytes()), shown_size(work.image_bytes()),
                           is_verified ? " and verified" : ""));
    if (out.is_json) {
        out.document({{"image", common.image},
                      {"device", options.device},
                      {"image_bytes", work.image_bytes()},
                      {"written_bytes", work.written_bytes()},
                      {"zeroed_bytes", work.zeroed_bytes()},
                      {"discarded", options.discards_rest},
                      {"verified", is_verified}});
    }
}

// From blank_head() on, every error states what is left on the device.
void flash(const target &where, flashing *work, const flash_options &options) {
    if (options.discards_rest) {
        discard_content(where);
    }
    const stop_request stoppable;
    work->blank_head();
    try {
        work->write();
        if (!options.leaves_unverified) {
            work->verify();
        }
        work->finish(!options.leaves_unverified);
    } catch (const error &why) {
        throw error(fmt::format("cannot flash {}: {}; it is incomplete and has no volume",
                                shown_bytes(where.path()), why.what()),
                    why.details());
    }
}

int run_flash(const common_options &common, const flash_options &options) {
    common.refuse_backup_boot();
    const std::unique_ptr<image_stream> image = open_image_stream(common.image, options.bmap);
    const target where(options.device, access::WRITE);
    check_device(where, *image, common, options);
    flashing work(where, image.get(), options.zeroes_rest, common.out.is_quiet);
    flash(where, &work, options);
    report_result(common.out, common, work, options);
    return EXIT_DONE;
}

} // namespace

void add_flash(command_line *commands) {
    const auto [flash, options] =
        commands->add({"flash", "Write an image to a device",
                       "  qvol flash flash.img medium.img\n"
                       "  qvol flash card.img /dev/sdx\n"
                       "  qvol flash --force --bmap card.bmap card.img.zst /dev/sdx\n"
                       "  qvol flash --force --discard card.simg /dev/sdx\n"
                       "  curl https://example.org/card.img.zst | qvol flash - /dev/sdx"},
                      run_flash);
    flash.value("DEVICE", &options->device, "Block device, image file, or a part of one")
        .required();
    flash.value("--bmap", &options->bmap, "Block map of the image: write only its ranges");
    const declared_option discard =
        flash.flag("--discard", &options->discards_rest,
                   "Discard the content of the device before anything is written");
    flash
        .flag("--zero", &options->zeroes_rest, "Overwrite everything else on the device with zeros")
        .excludes(discard);
    flash.flag("--no-verify", &options->leaves_unverified, "Do not read back what was written");
    flash.flag("-f,--force", &options->is_forced, "Overwrite a device that is not blank");
}

} // namespace qvol
