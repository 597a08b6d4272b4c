// Fuzz target: the Base64 reader of SSH public key blobs.
//
// Property: a key that comes back re-encodes as the SSH2 Base64 text, that
// text reads back as the same public key, and encoding the key read back
// gives the very same text (the writer is canonical).
#include <openssl/err.h>

#include <cstdint>
#include <cstring>

#include "fuzz_common.hpp"
#include "pkey_pubkey.h"

namespace {
constexpr const char *kTarget = "base64_blob";
}

// A private store: the platform is never left to fall back on ./pkey-store
// or on the kernel's FIPS flag.
extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    fuzz::open_store(false);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const pkey::MallocPtr<char> text = fuzz::copy_text(reinterpret_cast<const char *>(data), size);
    const pkey::EvpPkeyPtr key(PKEY_PUBKEY_Base64toEvppkey(text.get()));
    if (key) {
        unsigned int len = 0;
        const pkey::MallocPtr<char> encoded(PKEY_PUBKEY_EvppkeyToBase64(key.get(), 1, &len));
        if (!encoded) fuzz::fail(kTarget, "a key read from Base64 does not encode");
        if (len != std::strlen(encoded.get()) + 1) fuzz::fail(kTarget, "reported length is wrong");
        if (fuzz::base64_decode(encoded.get()).empty())
            fuzz::fail(kTarget, "the encoding is not standard Base64");

        const pkey::EvpPkeyPtr again(PKEY_PUBKEY_Base64toEvppkey(encoded.get()));
        if (!again) fuzz::fail(kTarget, "the re-encoded key does not read back");
        if (PKEY_CmpPubKey(key.get(), again.get()) != 1)
            fuzz::fail(kTarget, "the key read back differs");

        unsigned int len2 = 0;
        const pkey::MallocPtr<char> encoded2(PKEY_PUBKEY_EvppkeyToBase64(again.get(), 1, &len2));
        if (!encoded2 || len2 != len || std::strcmp(encoded.get(), encoded2.get()) != 0)
            fuzz::fail(kTarget, "encoding is not stable across a read");
    }
    ERR_clear_error();
    return 0;
}
