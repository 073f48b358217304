#include "qvol/check/reserved_files.h"

#include "qvol/check/chains.h"
#include "qvol/file_data.h"
#include "qvol/output.h"
#include "qvol/sectors.h"

#include <cstring>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr char POOL_NAME[] = "ZUQ_POOLSY$";
constexpr char LOG_NAME[] = "$ZUQ_LOGLO$";
constexpr u32 LEAST_LOG_BYTES = 128 * 1024; // rounded up to full clusters

bool is_file_of_root(const survey &checked, u32 node, const char *name) {
    const tree_node &candidate = checked.nodes[node];
    return candidate.parent == ROOT_NODE && candidate.dentry.type() == kind::FILE &&
           std::memcmp(candidate.dentry.raw.data(), name, core::SHORT_NAME.size) == 0;
}

void check_size(survey *checked, u32 node, const finding_kind &kind, u32 wanted) {
    const u32 size = checked->nodes[node].dentry.size();
    if (size != wanted) {
        checked->add(
            {&kind, node, checked->nodes[node].dentry.start(),
             fmt::format("size is {}, should be {}", counted(size, "byte", "bytes"), wanted), ""});
    }
}

// A field of the header and its required value.
struct header_word {
    core::field field;
    u32 value;
};

void check_pool_header(survey *checked, u32 node) {
    const entry &pool = checked->nodes[node].dentry;
    if (!checked->owners.has_chain(node, pool.start()) || !is_in_image(*checked, pool.start())) {
        return; // reported with the chain
    }
    constexpr u32 ALL_ONES = 0xFFFFFFFF;
    const header_word words[] = {
        {core::POOL_INDEX, pool.slot},      {core::POOL_ZERO, 0}, {core::POOL_FIRST, pool.start()},
        {core::POOL_SECOND, pool.start()},  {core::POOL_ONE, 1},  {core::POOL_FIRST_MARK, ALL_ONES},
        {core::POOL_SECOND_MARK, ALL_ONES},
    };
    const std::vector<u8> header =
        read_extent(checked->on(), checked->on().sector_of(pool.start()), 1);
    for (const header_word &word : words) {
        const u32 value = core::load(header.data(), word.field);
        if (value != word.value) {
            checked->add({&found::POOL, node, pool.start(),
                          fmt::format("header field at byte {} is {:#x}, should be {:#x}",
                                      word.field.offset, value, word.value),
                          ""});
        }
    }
}

} // namespace

bool is_pool(const survey &checked, u32 node) {
    return is_file_of_root(checked, node, POOL_NAME);
}

void check_reserved_files(survey *checked) {
    const tree_node root = checked->nodes[ROOT_NODE];
    for (u32 node = root.first_child; node < root.first_child + root.children; node++) {
        if (is_pool(*checked, node)) {
            check_size(checked, node, found::POOL, checked->on().cluster_bytes());
            check_pool_header(checked, node);
        } else if (is_file_of_root(*checked, node, LOG_NAME)) {
            check_size(checked, node, found::LOG,
                       clusters_for(checked->on(), LEAST_LOG_BYTES) *
                           checked->on().cluster_bytes());
        }
    }
}

} // namespace qvol
