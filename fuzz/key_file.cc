// Fuzz target: a key file image, through deciphering, the status check and
// the conversion to a key pair of each algorithm, against a store whose
// device key the seeds were made under ($FUZZ_STORE), so the seeds are real
// enciphered key files and the cipher's authentication is what stands in the
// way. Every image is read outside FIPS mode and again in FIPS mode.
//
// Properties: an enciphered image that deciphers enciphers again to the very
// same bytes (the cipher is deterministic, so any other image it accepted was
// forged or damaged); FIPS mode deciphers only SHA-256-protected images; a
// key read from a sound record builds a record again that is sound and reads
// back as an equal key.
#include <openssl/err.h>

#include <cstdint>
#include <cstring>

#include "fuzz_common.hpp"
#include "pkey_platform.h"
#include "record_check.hpp"

namespace {

constexpr const char *kTarget = "key_file";

void check_reenciphers(const unsigned char *image, unsigned int plain_len,
                       const unsigned char *plain) {
    const unsigned int body = plain_len - PKEY_STORE_HEADER_LEN;
    const unsigned int sealed_len = body + PKEY_CIPHER_OVERHEAD;
    pkey::MallocPtr<unsigned char> out(static_cast<unsigned char *>(std::malloc(sealed_len)));
    if (!out || PKEY_Encrypt(body, plain + PKEY_STORE_HEADER_LEN, sealed_len, out.get()) != 0)
        fuzz::fail(kTarget, "a deciphered body does not encipher");
    if (std::memcmp(out.get(), image + PKEY_STORE_HEADER_LEN, sealed_len) != 0)
        fuzz::fail(kTarget, "the cipher accepted a region it would not have written");
}

void read_image(const std::uint8_t *data, unsigned int len, bool fips) {
    // Deciphered in place, as the key file reader does with the file it read.
    const fuzz::Bytes buf = fuzz::copy_bytes(data, len);
    unsigned int plain_len = 0;
    if (PKEY_LOCAL_DecryptPKey(len, buf.data(), len, buf.data(), &plain_len) != 0) return;
    if (plain_len > len) fuzz::fail(kTarget, "deciphering grew the image");
    const unsigned char protection = data[PKEY_STORE_OFF_PROTECTION];
    if (fips && protection != PKEY_STORE_PROTECT_SHA256)
        fuzz::fail(kTarget, "FIPS mode deciphered an image not protected by SHA-256");
    if (protection > 1) check_reenciphers(data, plain_len, buf.data());

    const int sound = fuzz::record_status(kTarget, buf.data(), plain_len);
    for (unsigned int alg = PKEY_ALG_RSA; alg <= PKEY_ALG_ECDSA; ++alg) {
        const fuzz::Bytes record = fuzz::copy_bytes(buf.data(), plain_len);
        const pkey::EvpPkeyPtr key(PKEY_PUBKEY_ConvertStoreBufToKey(alg, record.data(), plain_len));
        if (key && sound == 1) fuzz::check_record_round_trip(kTarget, alg, key.get());
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    fuzz::open_store(true);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size > UINT32_MAX) return 0;
    const unsigned int len = static_cast<unsigned int>(size);
    read_image(data, len, false);
    HOST_SetFipsMode(1);
    read_image(data, len, true);
    HOST_SetFipsMode(0);
    ERR_clear_error();
    return 0;
}
