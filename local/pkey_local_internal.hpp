// pkey_local_internal.hpp - helpers shared by the local key files (hidden).
#pragma once

#include <sys/stat.h>

#include <cstring>

#include "pkey_types.h"
#include "pkey_util.hpp"

namespace pkey::local {

// The key name of a request, terminated even when the caller's field is not.
inline void request_name(const PKEY_KEYGEN_REQ_S &request, char (&out)[PKEY_KEYGEN_NAME_LEN]) {
    const std::size_t len = strnlen(request.szKeyName, sizeof out - 1);
    std::memcpy(out, request.szKeyName, len);
    out[len] = '\0';
}

// True when both paths name one existing file (a hard link, or a directory
// linked into the other's path): the memory and device copies of a key must
// be two files, or writing one destroys the other and removing one leaves
// the other half-gone. A final symlink is not followed, as no key file open
// follows one.
[[nodiscard]] inline bool same_existing_file(const char *a, const char *b) noexcept {
    struct stat sa {};
    struct stat sb {};
    return lstat(a, &sa) == 0 && lstat(b, &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

// The plain record of a stored key file that passes its integrity check; an
// empty buffer when the file cannot be read or fails the check.
[[nodiscard]] SecureBuffer read_checked_record(unsigned int algId, unsigned int keyKind,
                                               const char *name) noexcept;

}  // namespace pkey::local
