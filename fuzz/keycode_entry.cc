// Fuzz target: a finished hex key-code entry, end to end against a private
// store (decode, policy, save in the peer key database).
//
// Properties: an entry that is accepted stored a DER of exactly the length its
// hex spelt, or, for an EC key spelling out its curve's parameters, the key
// naming its curve; either way holding the same key, one the policy allows.
// An entry that is refused stored nothing (the name is removed after every
// acceptance, so any record found after a refusal came from that refusal).
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_common.hpp"
#include "pkey_cfgmng.h"
#include "pkey_peer.h"
#include "pkey_pubkey.h"

namespace {

constexpr const char *kTarget = "keycode_entry";
constexpr const char kName[] = "fuzz";

// A hex digit's value; any other character counts as 0, as the entry's
// converter takes it.
unsigned int nibble(char c) {
    const char digit[2] = {c, '\0'};
    return std::isxdigit(static_cast<unsigned char>(c))
               ? static_cast<unsigned int>(std::strtoul(digit, nullptr, 16))
               : 0;
}

// What the hex text spells, pair by pair; empty for an odd count.
std::vector<unsigned char> hex_bytes(const char *hex, std::size_t len) {
    if (len % 2 != 0) return {};
    std::vector<unsigned char> out(len / 2);
    for (std::size_t i = 0; i < len; i += 2)
        out[i / 2] = static_cast<unsigned char>(nibble(hex[i]) << 4 | nibble(hex[i + 1]));
    return out;
}

// True when stored is what OpenSSL writes for the EC key marked to name its
// curve.
bool is_named_curve_form(const EVP_PKEY *key, const unsigned char *stored, unsigned int len) {
    if (key == nullptr || EVP_PKEY_get_id(key) != EVP_PKEY_EC) return false;
    const pkey::EvpPkeyPtr copy(EVP_PKEY_dup(const_cast<EVP_PKEY *>(key)));
    if (!copy || EVP_PKEY_set_utf8_string_param(copy.get(), OSSL_PKEY_PARAM_EC_ENCODING,
                                                OSSL_PKEY_EC_ENCODING_GROUP) != 1)
        return false;
    unsigned char *der = nullptr;
    const int n = i2d_PUBKEY(copy.get(), &der);
    const pkey::OpensslPtr<> owner(der);
    return n > 0 && static_cast<unsigned int>(n) == len && std::memcmp(der, stored, len) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    fuzz::open_store(false);
    fuzz::silence_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const char *text = reinterpret_cast<const char *>(data);
    const std::size_t len = strnlen(text, size);
    // The name field, then the key code right behind it, terminated.
    std::vector<char> image(PKEY_PEER_NAME_LEN + len + 1, '\0');
    std::memcpy(image.data(), kName, sizeof kName);
    std::memcpy(image.data() + PKEY_PEER_NAME_LEN, text, len);
    const fuzz::Bytes entry =
        fuzz::copy_bytes(reinterpret_cast<const unsigned char *>(image.data()), image.size());

    const unsigned int result = PKEY_PEER_EditKeyCodeFinish(reinterpret_cast<char *>(entry.data()));
    unsigned int stored_len = 0;
    const pkey::MallocPtr<unsigned char> stored(PKEY_CFGMNG_GetPeerPubKeyValue(kName, &stored_len));
    if (result != 0) {
        if (stored) fuzz::fail(kTarget, "a refused entry stored a key");
    } else {
        if (!stored) fuzz::fail(kTarget, "an accepted entry stored nothing");
        const std::vector<unsigned char> der = hex_bytes(text, len);
        const unsigned char *p = der.data();
        const pkey::EvpPkeyPtr entered(d2i_PUBKEY(nullptr, &p, static_cast<long>(der.size())));
        if (der.size() != stored_len &&
            !is_named_curve_form(entered.get(), stored.get(), stored_len))
            fuzz::fail(kTarget, "the stored DER differs in length and does not name the curve");
        const pkey::EvpPkeyPtr key(PKEY_GetUserKeyByName(kName));
        if (!entered || !key || EVP_PKEY_eq(entered.get(), key.get()) != 1)
            fuzz::fail(kTarget, "the stored key is not the entered one");
        if (PKEY_PUBKEY_IsKeyLenValid(key.get()) != 1)
            fuzz::fail(kTarget, "the stored key is not one the policy allows");
        if (PKEY_PEER_RemovePeerPubKeyByName(kName) != 0)
            fuzz::fail(kTarget, "the stored key cannot be removed");
    }
    ERR_clear_error();
    return 0;
}
