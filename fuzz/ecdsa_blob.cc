// Fuzz target: the ECDSA key buffer reader (curve identifier and point).
//
// Property: a key that comes back re-encodes as a whole key buffer whose
// curve identifier and point read back as the same key, and those re-encoded
// bytes are the input's own bytes: the reader accepts only the canonical
// form, so nothing it accepted can differ from what the writer produces (the
// bytes of a point cut short at the buffer's end read as zero). And the
// reader's full validation, which multiplies every point by the group order,
// accepts exactly what the exported reader accepts, as the same key.
#include <openssl/err.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "ec/pkey_ec_read.hpp"
#include "fuzz_common.hpp"
#include "pkey_ec.h"
#include "pkey_pubkey.h"

namespace {

constexpr const char *kTarget = "ecdsa_blob";

// The bytes of a key buffer behind its leading key type string.
std::vector<unsigned char> after_type_name(const std::vector<unsigned char> &blob) {
    pkey::ByteReader in(blob.data(), blob.size());
    std::span<const unsigned char> name;
    if (!in.read_length_prefixed(name)) fuzz::fail(kTarget, "re-encoded key buffer has no type");
    return {in.position(), in.position() + in.remaining()};
}

}  // namespace

// A private store: the platform is never left to fall back on ./pkey-store
// or on the kernel's FIPS flag.
extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    fuzz::open_store(false);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size > UINT32_MAX) return 0;
    const fuzz::Bytes input = fuzz::copy_bytes(data, size);
    const pkey::EvpPkeyPtr key(PKEY_ReadECDSAPubKey(input.data(), static_cast<unsigned int>(size)));
    const pkey::EvpPkeyPtr full = pkey::ec::read_public_key(
        input.data(), static_cast<unsigned int>(size), pkey::ec::PointValidation::kFull);
    if (!key != !full) fuzz::fail(kTarget, "the full validation disagrees with the reader");
    if (key && EVP_PKEY_eq(key.get(), full.get()) != 1)
        fuzz::fail(kTarget, "the full validation gives another key");
    if (key) {
        unsigned int len = 0;
        const pkey::MallocPtr<char> text(PKEY_EC_EcToBase64(key.get(), &len));
        if (!text) fuzz::fail(kTarget, "a key that was read does not encode");
        if (len != std::strlen(text.get()) + 1) fuzz::fail(kTarget, "reported length is wrong");
        const std::vector<unsigned char> rest = after_type_name(fuzz::base64_decode(text.get()));

        for (std::size_t i = 0; i < rest.size(); ++i) {
            const unsigned char expected = i < size ? data[i] : 0;
            if (rest[i] != expected) fuzz::fail(kTarget, "the accepted input is not canonical");
        }

        const fuzz::Bytes copy = fuzz::copy_bytes(rest.data(), rest.size());
        const pkey::EvpPkeyPtr again(
            PKEY_ReadECDSAPubKey(copy.data(), static_cast<unsigned int>(copy.size)));
        if (!again) fuzz::fail(kTarget, "the re-encoded key does not read back");
        if (PKEY_CmpPubKey(key.get(), again.get()) != 1 || EVP_PKEY_eq(key.get(), again.get()) != 1)
            fuzz::fail(kTarget, "the key read back differs");
    }
    ERR_clear_error();
    return 0;
}
