// Creating and replacing local key pairs: host keys with their RSA server
// key, renewal of the server key, and storing key pairs made by the caller.
#include <openssl/evp.h>

#include <cstring>

#include "pkey_local.h"
#include "pkey_local_internal.hpp"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace {

int _local_SaveKeyOfKind(EVP_PKEY *key, unsigned int keyKind) {
    const unsigned int alg =
        PKEY_PUBKEY_GetPkeyAlgIdByEvpId(static_cast<unsigned int>(EVP_PKEY_get_id(key)));
    if (alg >= PKEY_ALG_UNSUPPORTED) return PKEY_ERR_FAILED;
    return PKEY_LOCAL_SaveLocalKey(alg, keyKind, key, "");
}

EVP_PKEY *generate_for(unsigned int algId, int curveNid, unsigned int bits) {
    switch (algId) {
        case PKEY_ALG_RESERVE: return PKEY_LOCAL_GenerateReserve(bits);
        case PKEY_ALG_RSA: return PKEY_GenerateRSAKey(bits);
        case PKEY_ALG_DSA: return PKEY_GenerateDSAKey(bits);
        case PKEY_ALG_ECDSA: return PKEY_GenerateECKey(curveNid);
        default: return nullptr;
    }
}

}  // namespace

extern "C" {

int PKEY_LOCAL_GenerateOneKey(unsigned int algId, int curveNid, unsigned int keyKind,
                              unsigned int bits, const char *name) noexcept {
    // A name the key file cannot be stored under is refused before the
    // (possibly long) generation.
    if (algId >= PKEY_ALG_UNSUPPORTED || name == nullptr || pkey::is_escaping_key_name(name))
        return PKEY_ERR_FAILED;
    // The size is used as given: the 512..2048 range of PKEY_GeneratePKey
    // does not apply to stored keys.
    pkey::EvpPkeyPtr key(generate_for(algId, curveNid, bits));
    if (!key) return PKEY_ERR_FAILED;
    return PKEY_LOCAL_SaveLocalKey(algId, keyKind, key.get(), name);
}

int PKEY_LOCAL_GenerateKey(const PKEY_KEYGEN_REQ_S *request) noexcept {
    if (request == nullptr) return PKEY_ERR_FAILED;
    char name[PKEY_KEYGEN_NAME_LEN];
    pkey::local::request_name(*request, name);
    const int r = PKEY_LOCAL_GenerateOneKey(request->uiAlgId, static_cast<int>(request->uiCurveNid),
                                            PKEY_KEY_HOST, request->uiKeyBits, name);
    // No SSH1 server key is ever made in FIPS mode, whatever the host key did.
    if (CRYPTO_FIPSIsEnabled() == 1) return r;
    if (r != 0) return r;
    // Only the default RSA host key has a server key.
    if (request->uiAlgId != PKEY_ALG_RSA || name[0] != '\0') return r;
    const unsigned int server_bits = PKEY_LOCAL_GetServerKeyBitsByHostKeyBits(request->uiKeyBits);
    if (server_bits == 0) return r;
    // A failed server key does not fail the host key.
    (void)PKEY_LOCAL_GenerateOneKey(PKEY_ALG_RSA, static_cast<int>(request->uiCurveNid),
                                    PKEY_KEY_SERVER, server_bits, "");
    return r;
}

int PKEY_UpdateServerKey(int evpType, const char *name) noexcept {
    if (name == nullptr || pkey::is_escaping_key_name(name) ||
        PKEY_PUBKEY_GetPkeyAlgIdByEvpId(static_cast<unsigned int>(evpType)) != PKEY_ALG_RSA)
        return PKEY_ERR_FAILED;
    unsigned int server_bits = 0;
    if (pkey::EvpPkeyPtr old(PKEY_LOCAL_GetLocKey(PKEY_ALG_RSA, PKEY_KEY_SERVER, name)); old) {
        server_bits = PKEY_PUBKEY_GetPubKeySize(old.get());  // keep the old size
    } else {
        pkey::EvpPkeyPtr host(PKEY_LOCAL_GetLocKey(PKEY_ALG_RSA, PKEY_KEY_HOST, name));
        if (!host) return PKEY_ERR_FAILED;
        server_bits =
            PKEY_LOCAL_GetServerKeyBitsByHostKeyBits(PKEY_PUBKEY_GetPubKeySize(host.get()));
    }
    if (server_bits == 0) return PKEY_ERR_FAILED;
    return PKEY_LOCAL_GenerateOneKey(PKEY_ALG_RSA, 0, PKEY_KEY_SERVER, server_bits, name);
}

int PKEY_SaveHostKey(EVP_PKEY *key) noexcept {
    if (key == nullptr) return PKEY_ERR_FAILED;
    return _local_SaveKeyOfKind(key, PKEY_KEY_HOST);
}

int PKEY_SaveServerKey(EVP_PKEY *key) noexcept {
    // Any supported key is stored as the one server key file: which
    // algorithm serves as server key is the SSH server's choice, not the
    // store's, and the reader hands back whatever was saved.
    if (key == nullptr) return PKEY_ERR_FAILED;
    return _local_SaveKeyOfKind(key, PKEY_KEY_SERVER);
}

}  // extern "C"
