// pkey_local_internal.hpp - helpers shared by the local key files (hidden).
#pragma once

#include <cstring>

#include "pkey_types.h"

namespace pkey::local {

// The key name of a request, terminated even when the caller's field is not.
inline void request_name(const PKEY_KEYGEN_REQ_S &request, char (&out)[PKEY_KEYGEN_NAME_LEN]) {
    const std::size_t len = strnlen(request.szKeyName, sizeof out - 1);
    std::memcpy(out, request.szKeyName, len);
    out[len] = '\0';
}

}  // namespace pkey::local
