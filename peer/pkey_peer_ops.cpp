// Peer key operations: finishing a hex key code entry, saving parsed keys
// under the policy, lookup, the existence test and removal.
#include <openssl/core_names.h>
#include <openssl/err.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "pkey_cfgmng.h"
#include "pkey_der.hpp"
#include "pkey_hex.hpp"
#include "pkey_peer.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace {

using pkey::EvpPkeyPtr;

constexpr unsigned int kWorkBufferLen = PKEY_PEER_KEYCODE_MAX_DIGITS / 2;

void print_message(unsigned int id) { std::printf("%s", RC_LoadString(id)); }

bool is_empty(const char *name) noexcept { return name == nullptr || name[0] == '\0'; }

unsigned int key_type(const EVP_PKEY *key) noexcept {
    return static_cast<unsigned int>(EVP_PKEY_get_id(key));
}

unsigned int save_der(const pkey::der::DerBytes &der, const char *name) {
    return PKEY_PEER_SavePeerPubKey(der.bytes.get(), static_cast<unsigned int>(der.len), name);
}

// Marks an EC key to name its curve when it is encoded, as the stored form
// does. OpenSSL takes the mark only on a key held by a provider; a legacy
// EC_KEY keeps its own flag, and the refusal is no failure and leaves nothing
// on the caller's error queue. Only a key on a named curve may be marked: one
// of spelled-out parameters that match none could no longer be encoded.
void mark_curve_named(EVP_PKEY *key) noexcept {
    ERR_set_mark();
    (void)EVP_PKEY_set_utf8_string_param(key, OSSL_PKEY_PARAM_EC_ENCODING,
                                         OSSL_PKEY_EC_ENCODING_GROUP);
    ERR_pop_to_mark();
}

}  // namespace

extern "C" {

unsigned int PKEY_PEER_SavePeerPubKey(const unsigned char *der, unsigned int derLen,
                                      const char *name) noexcept {
    if (is_empty(name)) return PKEY_ERR_FAILED;
    return PKEY_CFGMNG_Save(name, derLen, der);
}

unsigned int PKEY_PEER_RemovePeerPubKeyByName(const char *name) noexcept {
    if (is_empty(name)) return PKEY_ERR_FAILED;
    return PKEY_CFGMNG_Delete(name);
}

// Stored EC keys name their curve rather than spell out its parameters,
// whatever encoding the key itself is marked for.
unsigned int PKEY_SavePeerPubKey(EVP_PKEY *key, const char *name) noexcept {
    if (key == nullptr || is_empty(name)) return PKEY_ERR_FAILED;
    const pkey::der::DerBytes der = pkey::der::encode_public_key(key);
    if (!der) return PKEY_ERR_FAILED;
    return save_der(der, name);
}

unsigned int PKEY_EditKeyCode(EVP_PKEY *key, const char *name) noexcept {
    if (key == nullptr || is_empty(name)) return PKEY_ERR_FAILED;
    if (PKEY_PUBKEY_IsEvpAglEnable(key_type(key)) != 1) return PKEY_ERR_FAILED;
    // An EC key passes only on a named curve, spelled out or not.
    if (PKEY_PUBKEY_IsKeyLenValid(key) != 1) return PKEY_ERR_FAILED;
    // A key no real key pair has (RSA e = 1, say) would let anyone pass as its owner.
    if (PKEY_PUBKEY_IsPublicKeyPossible(key) != 1) return PKEY_ERR_FAILED;
    // The caller's key is left marked to name its curve, as it is stored.
    if (EVP_PKEY_get_id(key) == EVP_PKEY_EC) mark_curve_named(key);
    return PKEY_SavePeerPubKey(key, name);
}

unsigned int PKEY_PEER_EditKeyCodeFinish(const char *entry) noexcept {
    if (entry == nullptr) return PKEY_ERR_FAILED;
    return pkey::c_boundary(PKEY_ERR_FAILED, [&]() -> unsigned int {
        const char *name = entry;
        const char *key_code = entry + PKEY_PEER_NAME_LEN;
        // The working buffer holds 2048 bytes; a longer key code is refused
        // before anything is written.
        const std::size_t digits = strnlen(key_code, PKEY_PEER_KEYCODE_MAX_DIGITS + 1);
        if (digits > PKEY_PEER_KEYCODE_MAX_DIGITS) return PKEY_ERR_FAILED;
        unsigned char work[kWorkBufferLen];
        const std::size_t count = pkey::hex::decode({key_code, digits}, work);
        if (count == 0) return PKEY_ERR_FAILED;

        pkey::der::SpkiResult decoded = pkey::der::decode_public_key({work, count});
        EvpPkeyPtr &key = decoded.key;
        // A key no real key pair can have is no valid key code either.
        if (!key || PKEY_PUBKEY_IsPublicKeyPossible(key.get()) != 1) {
            print_message(PKEY_MSG_INVALID_KEY_CODE);
            return PKEY_ERR_FAILED;
        }
        if (PKEY_PUBKEY_IsEvpAglEnable(key_type(key.get())) != 1) return PKEY_ERR_FAILED;
        if (PKEY_PUBKEY_IsKeyLenValid(key.get()) != 1) {
            print_message(PKEY_MSG_KEY_SIZE_REFUSED);
            return PKEY_ERR_FAILED;
        }
        // The re-encoding is what gets stored; a length other than the key
        // code's means the key code carried bytes that are not part of the
        // key. An EC key is then stored with its curve named, as every stored
        // key is. A canonical key code is its own re-encoding and names its
        // curve already.
        pkey::der::DerBytes der;
        if (!decoded.canonical) {
            der = pkey::der::public_key_der(key.get());
            const bool whole_key = der && der.len == count;
            if (whole_key) der = pkey::der::name_ec_curve(std::move(der));
            if (!whole_key || !der) {
                print_message(PKEY_MSG_INVALID_KEY_CODE);
                return PKEY_ERR_FAILED;
            }
        }
        char stored_name[PKEY_PEER_NAME_LEN];
        const size_t name_len = strnlen(name, PKEY_PEER_NAME_LEN - 1);
        std::memcpy(stored_name, name, name_len);
        stored_name[name_len] = '\0';
        const unsigned int r =
            decoded.canonical
                ? PKEY_PEER_SavePeerPubKey(work, static_cast<unsigned int>(count), stored_name)
                : save_der(der, stored_name);
        if (r != 0) print_message(PKEY_MSG_SAVE_FAILED);
        return r;
    });
}

EVP_PKEY *PKEY_GetUserKeyByName(const char *name) noexcept {
    if (is_empty(name)) return nullptr;
    unsigned int len = 0;
    pkey::MallocPtr<unsigned char> value(PKEY_CFGMNG_GetPeerPubKeyValue(name, &len));
    if (!value) return nullptr;
    EvpPkeyPtr key = pkey::der::decode_public_key({value.get(), len}).key;
    // In FIPS mode the purge before the read has removed every refused key
    // under a name it lists. One read all the same was saved by another
    // process in between, and is absent as it will be after the next purge.
    if (key && strnlen(name, PKEY_CFGMNG_NAME_SLOT) < PKEY_CFGMNG_NAME_SLOT &&
        CRYPTO_FIPSIsEnabled() == 1 && PKEY_PUBKEY_IsKeyMatchFipsMode(key.get()) != 1)
        return nullptr;
    return key.release();
}

unsigned int PKEY_IsPeerPubKeyExisted(const char *name) noexcept {
    if (is_empty(name)) return 0;
    EvpPkeyPtr key(PKEY_GetUserKeyByName(name));
    if (!key) return 0;
    if (CRYPTO_FIPSIsEnabled() != 1) return 1;
    if (PKEY_PUBKEY_IsKeyMatchFipsMode(key.get()) == 1) return 1;
    // Asking about a key too weak for FIPS mode removes it.
    (void)PKEY_PEER_RemovePeerPubKeyByName(name);
    return 0;
}

}  // extern "C"
