// pkey_paths.hpp - the device's memory root as a node sees it (hidden).
//
// Every memory path of the key store starts at the device's fixed memory root
// "/var/run", which the platform resolves per node: on a device it is
// "/var/run" itself, on the host platform a directory of the node's own tree.
// This is the one place the library names it.
#pragma once

#include <cstddef>

namespace pkey::paths {

// The running node's memory root into out (cap bytes). Returns the character
// count; 0 when the platform cannot resolve it, out then holding "".
int mem_root(char *out, std::size_t cap) noexcept;

// Node's memory root into out (cap bytes); the platform's result code, 0 on
// success.
int node_mem_root(unsigned int node, char *out, std::size_t cap) noexcept;

}  // namespace pkey::paths
