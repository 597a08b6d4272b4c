// pkey_base64.hpp - the one Base64 encoder of the library's key texts (internal).
#pragma once

#include <openssl/evp.h>

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <span>

#include "pkey_util.hpp"

namespace pkey {

// The bytes as one line of standard Base64 with "=" padding, NUL-terminated,
// in malloc'd memory; *chars gets the character count (without the NUL).
// NULL when memory runs out or the bytes are too many to encode.
inline MallocPtr<char> base64_line(std::span<const unsigned char> bytes,
                                   std::size_t *chars) noexcept {
    if (bytes.size() > static_cast<std::size_t>(INT_MAX) / 2) return nullptr;
    // EVP_EncodeBlock writes 4 * ceil(size / 3) characters and a NUL, within this.
    const std::size_t size = bytes.size() * 4 / 3 + 4;
    MallocPtr<char> text(static_cast<char *>(std::malloc(size)));
    if (!text) return nullptr;
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.get()), bytes.data(),
                                  static_cast<int>(bytes.size()));
    if (n < 0) return nullptr;
    *chars = static_cast<std::size_t>(n);
    return text;
}

}  // namespace pkey
