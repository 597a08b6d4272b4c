// Fuzz target: the Base64 reader of SSH public key blobs, and the strict check
// of a key buffer.
//
// Properties: a key that comes back re-encodes as the SSH2 Base64 text, that
// text reads back as the same public key, and encoding the key read back
// gives the very same text (the writer is canonical). Whenever the strict
// check accepts a text, the reader gives a key whose encoding is the input's
// own key buffer with only the redundant leading zero bytes of its mpints
// gone; the check accepts that encoding too, and the blob's own type name.
#include <openssl/err.h>

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_common.hpp"
#include "pkey_pubkey.h"

namespace {

constexpr const char *kTarget = "base64_blob";
using Blob = std::vector<unsigned char>;

// Decodes group by group, as the reader does, so that a padded group in the
// middle of the text gives its one or two bytes. Empty on any error.
Blob decode_groups(const char *text) {
    const std::size_t len = std::strlen(text);
    Blob out;
    if (len % 4 != 0) return {};
    for (std::size_t i = 0; i < len; i += 4) {
        const std::string group(text + i, 4);
        const Blob part = fuzz::base64_decode(group.c_str());
        if (part.empty()) return {};
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

void put_field(Blob &out, std::span<const unsigned char> data) {
    const auto n = static_cast<std::uint32_t>(data.size());
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<unsigned char>(n >> shift));
    out.insert(out.end(), data.begin(), data.end());
}

std::string type_of(const Blob &blob) {
    pkey::ByteReader in(blob.data(), blob.size());
    std::span<const unsigned char> name;
    if (!in.read_length_prefixed(name)) return "";
    return std::string(reinterpret_cast<const char *>(name.data()), name.size());
}

// The key buffer as the writer gives it back: every mpint of an RSA or DSA
// buffer without the leading zero bytes that do not stand before a set top
// bit, everything else byte for byte (ECDSA buffers whole).
Blob trimmed(const Blob &blob) {
    pkey::ByteReader in(blob.data(), blob.size());
    std::span<const unsigned char> name;
    if (!in.read_length_prefixed(name)) return {};
    const std::string_view type(reinterpret_cast<const char *>(name.data()), name.size());
    const std::size_t mpints = type == "ssh-rsa" ? 2 : type == "ssh-dss" ? 4 : 0;
    Blob out;
    put_field(out, name);
    for (std::size_t i = 0; i < mpints; ++i) {
        std::span<const unsigned char> m;
        if (!in.read_length_prefixed(m)) return {};
        while (!m.empty() && m[0] == 0 && (m.size() == 1 || m[1] < 0x80)) m = m.subspan(1);
        put_field(out, m);
    }
    out.insert(out.end(), in.position(), in.position() + in.remaining());
    return out;
}

void check_strict(const char *text, const EVP_PKEY *key) {
    const int strict = PKEY_PUBKEY_IsBase64BlobStrict(text, nullptr);
    if (PKEY_PUBKEY_IsBase64BlobStrict(text, "ssh-rsa") > strict)
        fuzz::fail(kTarget, "a type name given makes the check more lenient");
    if (strict != 1) return;
    if (key == nullptr) fuzz::fail(kTarget, "a strict blob does not read");
    const Blob input = decode_groups(text);
    if (input.empty()) fuzz::fail(kTarget, "a strict blob is not Base64");
    if (PKEY_PUBKEY_IsBase64BlobStrict(text, type_of(input).c_str()) != 1)
        fuzz::fail(kTarget, "a strict blob is refused under its own type name");
    unsigned int len = 0;
    const pkey::MallocPtr<char> encoded(
        PKEY_PUBKEY_EvppkeyToBase64(const_cast<EVP_PKEY *>(key), 1, &len));
    if (!encoded) fuzz::fail(kTarget, "a key read from a strict blob does not encode");
    if (fuzz::base64_decode(encoded.get()) != trimmed(input))
        fuzz::fail(kTarget, "a strict blob does not write back as itself");
    if (PKEY_PUBKEY_IsBase64BlobStrict(encoded.get(), nullptr) != 1)
        fuzz::fail(kTarget, "the writer's own blob is not strict");
}

}  // namespace

// A private store: the platform is never left to fall back on ./pkey-store
// or on the kernel's FIPS flag.
extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    fuzz::open_store(false);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const pkey::MallocPtr<char> text = fuzz::copy_text(reinterpret_cast<const char *>(data), size);
    const pkey::EvpPkeyPtr key(PKEY_PUBKEY_Base64toEvppkey(text.get()));
    check_strict(text.get(), key.get());
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
