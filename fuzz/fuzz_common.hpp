// fuzz_common.hpp - helpers shared by the libFuzzer targets.
//
// Inputs are handed to the library in heap buffers of exactly their size, so
// AddressSanitizer reports a read or write one byte past the end. Texts are
// cut at their first NUL before they are copied, for the same reason: a reader
// that runs past the terminator runs off the allocation.
#pragma once

#include <openssl/evp.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "host_platform.h"
#include "pkey_util.hpp"

namespace fuzz {

// A property the target checks does not hold: say which and stop, so
// libFuzzer keeps the input as a crash artifact.
[[noreturn]] inline void fail(const char *target, const char *what) {
    std::fprintf(stderr, "%s: property violated: %s\n", target, what);
    std::fflush(stderr);
    std::abort();
}

// Heap bytes of exactly the given size, freed with free().
struct Bytes {
    pkey::MallocPtr<unsigned char> p;
    std::size_t size = 0;
    unsigned char *data() const { return p.get(); }
};

inline Bytes copy_bytes(const unsigned char *data, std::size_t size) {
    Bytes b;
    // Under AddressSanitizer malloc(0) gives an allocation of no usable bytes.
    b.p.reset(static_cast<unsigned char *>(std::malloc(size)));
    if (!b.p && size != 0) std::abort();
    if (size != 0) std::memcpy(b.p.get(), data, size);
    b.size = size;
    return b;
}

// A writable copy of the text up to its first NUL, terminated, in an
// allocation of exactly length + 1 bytes.
inline pkey::MallocPtr<char> copy_text(const char *data, std::size_t size) {
    const std::size_t len = strnlen(data, size);
    pkey::MallocPtr<char> t(static_cast<char *>(std::malloc(len + 1)));
    if (!t) std::abort();
    std::memcpy(t.get(), data, len);
    t.get()[len] = '\0';
    return t;
}

// Strict standard Base64 decoding through OpenSSL, independent of the
// library's own decoder. Empty on any error.
inline std::vector<unsigned char> base64_decode(const char *text) {
    const std::size_t len = std::strlen(text);
    if (len == 0 || len % 4 != 0 || len > INT32_MAX) return {};
    std::vector<unsigned char> out(len / 4 * 3);
    const int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char *>(text),
                                  static_cast<int>(len));
    if (n < 0) return {};
    std::size_t pad = 0;
    if (text[len - 1] == '=') ++pad;
    if (len >= 2 && text[len - 2] == '=') ++pad;
    out.resize(static_cast<std::size_t>(n) - pad);
    return out;
}

// Sends the library's messages to /dev/null so a run's log stays readable.
inline void silence_stdout() {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
}

// A store for the process: $FUZZ_STORE when set (a store shared with the seed
// generator, so key files of the seeds decipher under its device key), else
// a fresh directory under $TMPDIR that is removed at exit. FIPS mode is off.
inline void open_store(bool shared) {
    static std::string temp_root;
    const char *fixed = shared ? std::getenv("FUZZ_STORE") : nullptr;
    std::string root;
    if (fixed != nullptr && *fixed != '\0') {
        root = fixed;
    } else {
        const char *tmp = std::getenv("TMPDIR");
        root = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/pkey-fuzz-XXXXXX";
        if (::mkdtemp(root.data()) == nullptr) std::abort();
        temp_root = root;
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(temp_root, ec);
        });
        if (shared)
            std::fprintf(stderr,
                         "FUZZ_STORE is not set: key files of the seeds will not decipher\n");
    }
    if (HOST_Open(root.c_str()) != 0) {
        std::fprintf(stderr, "cannot open the store %s\n", root.c_str());
        std::abort();
    }
    HOST_SetFipsMode(0);
}

}  // namespace fuzz
