// A source that is a manifest in mtree form: it lists what a volume contains, with times and
// attributes; the contents of the files are on the host, below one directory.
//
// The content of a file is the file of the same path, or that of the keyword "contents". No path
// leads out of the directory, not by a link either.

#pragma once

#include "core/resources.h"
#include "qvol/sources/source.h"

#include <string>
#include <vector>

namespace qvol {

class manifest_source : public source {
public:
    // `text`: the manifest; `path`: its name for messages; `directory`: has the files. Throws error
    // if the directory cannot be opened.
    manifest_source(const std::string &text, std::string path, const std::string &directory);

    [[nodiscard]] std::vector<source_node> load(const reading_rules &rules,
                                                problem_list *problems) override;
    void copy(const std::vector<content_request> &wanted, content_sink *sink) override;

private:
    struct content {
        std::string path;   // below the directory
        std::string sha256; // in hexadecimal digits; "": not stated
    };

    [[nodiscard]] core::unique_fd open(const std::string &path) const;
    void find_content(const std::string &shown, const content &wanted, u64 stated_size,
                      source_node *node, problem_list *problems);

    std::string text_;
    std::string path_;
    core::unique_fd directory_;
    std::vector<content> contents_;
};

// Whether the text is a manifest that can be read.
[[nodiscard]] bool is_manifest(const std::string &text);

} // namespace qvol
