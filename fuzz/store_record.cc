// Fuzz target: the key pair store record (plain, as deciphered from a key
// file). The first byte picks the algorithm id (its value modulo 5) and, with
// its top bit set, asks for the record's length field and digest to be made
// right before it is read, so that records passing the status check are
// explored as freely as any others. The rest is the record. Every input is
// read outside FIPS mode and again in FIPS mode.
//
// Properties: the status check leaves the record as it found it and passes a
// record whose length and digest were made right, except that FIPS mode
// passes no MD5-protected record; a key read from a record that passes the
// check builds a record again that passes the check and reads back as an
// equal key.
#include <openssl/err.h>
#include <openssl/evp.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_common.hpp"
#include "record_check.hpp"

namespace {

constexpr const char *kTarget = "store_record";
constexpr std::uint8_t kFixUp = 0x80;

// Writes the record's length and, for protection 3 (MD5) or 4 (SHA-256), its
// digest: over everything before the digest with kind and name taken as zero.
// Returns whether the record now claims to be sound.
bool fix_up(unsigned char *record, unsigned int len) {
    if (len < PKEY_STORE_HEADER_LEN) return false;
    pkey::store_be32(record + PKEY_STORE_OFF_LENGTH, len);
    const unsigned char protection = record[PKEY_STORE_OFF_PROTECTION];
    const EVP_MD *md = protection == PKEY_STORE_PROTECT_MD5      ? EVP_md5()
                       : protection == PKEY_STORE_PROTECT_SHA256 ? EVP_sha256()
                                                                 : nullptr;
    if (md == nullptr) return false;
    const unsigned int digest_len = static_cast<unsigned int>(EVP_MD_get_size(md));
    // A digest that would overwrite the header (the protection byte) is not written.
    if (len < PKEY_STORE_HEADER_LEN + digest_len) return false;
    std::vector<unsigned char> covered(record, record + len - digest_len);
    std::memset(covered.data() + PKEY_STORE_OFF_KIND, 0, 1 + PKEY_STORE_NAME_LEN);
    unsigned int produced = 0;
    if (EVP_Digest(covered.data(), covered.size(), record + len - digest_len, &produced, md,
                   nullptr) != 1)
        std::abort();
    return pkey::load_be32(record + PKEY_STORE_OFF_MARKER) == PKEY_STORE_MARKER;
}

void read_record(unsigned int alg, const std::vector<unsigned char> &input, bool claimed_sound,
                 bool fips) {
    const unsigned int len = static_cast<unsigned int>(input.size());
    const fuzz::Bytes record = fuzz::copy_bytes(input.data(), len);
    const pkey::EvpPkeyPtr key(PKEY_PUBKEY_ConvertStoreBufToKey(alg, record.data(), len));
    const int sound = fuzz::record_status(kTarget, input.data(), len);
    const bool md5 = len > PKEY_STORE_OFF_PROTECTION &&
                     input[PKEY_STORE_OFF_PROTECTION] == PKEY_STORE_PROTECT_MD5;
    if (fips && md5 && sound == 1) fuzz::fail(kTarget, "FIPS mode passed an MD5-protected record");
    if (claimed_sound && !(fips && md5) && sound != 1)
        fuzz::fail(kTarget, "a record made sound fails the check");
    if (key && sound == 1) fuzz::check_record_round_trip(kTarget, alg, key.get());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    fuzz::open_store(false);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1 || size - 1 > UINT32_MAX) return 0;
    const unsigned int alg = (data[0] & ~kFixUp) % 5;
    std::vector<unsigned char> input(data + 1, data + size);
    const bool claimed_sound =
        (data[0] & kFixUp) != 0 && fix_up(input.data(), static_cast<unsigned int>(input.size()));

    read_record(alg, input, claimed_sound, false);
    HOST_SetFipsMode(1);
    read_record(alg, input, claimed_sound, true);
    HOST_SetFipsMode(0);
    ERR_clear_error();
    return 0;
}
