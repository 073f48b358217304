// qvol manifest: prints path, size and SHA-256 of each file.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/sizes.h"
#include "qvol/verifying/listed_tree.h"

namespace qvol {

namespace {

struct manifest_options {
    std::string pieces = "64K";
};

u64 parse_pieces(const std::string &text) {
    constexpr u32 LEAST = 512;
    constexpr u32 MOST = u32{1} << 30;
    return text == "0" ? 0 : parse_unit("--pieces", text, LEAST, MOST);
}

json entry_document(const listed_entry &listed) {
    const expected_entry &content = listed.content;
    json document = {{"path", json_path(listed.path)}, {"kind", kind_name(content.type)}};
    if (content.type == kind::LINK) {
        document.add("target", content.target);
    }
    if (content.type != kind::FILE) {
        return document;
    }
    document.add("size", content.size.value_or(0));
    document.add("sha256", content.digest.whole);
    json pieces = json::array();
    for (const std::string &piece : content.digest.pieces) {
        pieces.push_back(piece);
    }
    document.add("pieces", std::move(pieces));
    document.add("rest", content.digest.rest.empty() ? json(nullptr) : json(content.digest.rest));
    return document;
}

json document_of(const listed_tree &tree, u64 piece_bytes) {
    json entries = json::array();
    for (const auto &[path, listed] : tree) {
        entries.push_back(entry_document(listed));
    }
    return {{"piece_bytes", piece_bytes}, {"entries", std::move(entries)}};
}

int run_manifest(const common_options &common, const manifest_options &options) {
    const u64 piece_bytes = parse_pieces(options.pieces);
    return with_volume(common, access::READ, [&](volume &vol) {
        listed_tree tree = list_tree(vol);
        add_digests(vol, piece_bytes, common.out.is_quiet, &tree);
        const std::string text = manifest_text(manifest_of(tree, piece_bytes));
        if (common.out.is_json) {
            common.out.document(document_of(tree, piece_bytes));
        } else {
            write_bytes(text.data(), text.size());
        }
        return EXIT_DONE;
    });
}

} // namespace

void add_manifest(command_line *commands) {
    const auto [manifest, options] =
        commands->add({"manifest", "Print path, size and SHA-256 of each file",
                       "  qvol manifest flash.img > flash.manifest\n"
                       "  qvol manifest --pieces 4K flash.img > flash.manifest\n"
                       "  qvol get flash.img / copy && cd copy && sha256sum -c ../flash.manifest"},
                      run_manifest);
    manifest
        .value("--pieces", &options->pieces,
               "Size in bytes of the pieces of files that have their own digest; 0: none")
        .shows_default();
}

} // namespace qvol
