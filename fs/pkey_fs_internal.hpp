// pkey_fs_internal.hpp - key store helpers shared inside libpkey (hidden).
#pragma once

namespace pkey::fs {

// The device's fixed memory root "/var/run" as the running node sees it on
// this platform. Every memory path of the key store starts here. Writes at
// most PKEY_PATH_LEN bytes; returns the character count (0 when the platform
// cannot resolve it, out then holding ""). out is a string either way, so a
// caller that only builds on it may leave the count unread.
int mem_root(char *out);

}  // namespace pkey::fs
