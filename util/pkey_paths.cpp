// The device's memory root, resolved by the platform for a node.
#include "pkey_paths.hpp"

#include <algorithm>
#include <climits>
#include <cstring>

#include "pkey_platform.h"

namespace pkey::paths {
namespace {

constexpr const char *kMemRoot = "/var/run";

}  // namespace

int node_mem_root(unsigned int node, char *out, std::size_t cap) noexcept {
    return FS_GetNodePathName(kMemRoot, node,
                              static_cast<unsigned int>(std::min<std::size_t>(cap, UINT_MAX)), out);
}

int mem_root(char *out, std::size_t cap) noexcept {
    if (out == nullptr || cap == 0) return 0;
    out[0] = '\0';
    if (node_mem_root(DEV_GetSelf(), out, cap) != 0) {
        out[0] = '\0';
        return 0;
    }
    return static_cast<int>(strnlen(out, cap));
}

}  // namespace pkey::paths
