// test_keys.hpp - key pairs shared by a test program, keys of exact sizes and
// curves for policy and encoding tests, and comparisons of keys.
#pragma once

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "pkey_local.h"
#include "pkey_util.hpp"
#include "test_util.hpp"

namespace pkey::test {

// An odd number of exactly `bits` bits: enough to stand for a modulus or prime
// in tests that only measure sizes.
inline BignumPtr number_of_bits(unsigned int bits) {
    BignumPtr n(BN_new());
    BN_set_bit(n.get(), static_cast<int>(bits - 1));
    BN_set_bit(n.get(), 0);
    return n;
}

inline EvpPkeyPtr key_from_params(const char *type, OSSL_PARAM_BLD *bld) {
    std::unique_ptr<OSSL_PARAM, FnDeleter<OSSL_PARAM_free>> params(OSSL_PARAM_BLD_to_param(bld));
    EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
    EVP_PKEY *key = nullptr;
    if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) != 1)
        return nullptr;
    return EvpPkeyPtr(key);
}

// RSA public key whose modulus has exactly `bits` bits.
inline EvpPkeyPtr rsa_public_of_bits(unsigned int bits) {
    std::unique_ptr<OSSL_PARAM_BLD, FnDeleter<OSSL_PARAM_BLD_free>> bld(OSSL_PARAM_BLD_new());
    BignumPtr n = number_of_bits(bits);
    BignumPtr e(BN_new());
    BN_set_word(e.get(), 65537);
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, n.get());
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, e.get());
    return key_from_params("RSA", bld.get());
}

// DSA public key whose prime p has exactly `bits` bits.
inline EvpPkeyPtr dsa_public_of_bits(unsigned int bits) {
    std::unique_ptr<OSSL_PARAM_BLD, FnDeleter<OSSL_PARAM_BLD_free>> bld(OSSL_PARAM_BLD_new());
    BignumPtr p = number_of_bits(bits), q = number_of_bits(160), g(BN_new()), y(BN_new());
    BN_set_word(g.get(), 2);
    BN_set_word(y.get(), 3);
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_FFC_P, p.get());
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_FFC_Q, q.get());
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_FFC_G, g.get());
    OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, y.get());
    return key_from_params("DSA", bld.get());
}

// A big-number parameter of a key (NULL when absent).
inline BignumPtr bn_param(const EVP_PKEY *key, const char *name) {
    BIGNUM *bn = nullptr;
    return BignumPtr(EVP_PKEY_get_bn_param(key, name, &bn) == 1 ? bn : nullptr);
}

// A public key with the numbers of an RSA (n, e) or DSA (p, q, g, y) key,
// some of them replaced: a key no real key pair could have, built the way a
// peer's key is, from its numbers alone. NULL when OpenSSL refuses them.
inline EvpPkeyPtr public_key_with(const EVP_PKEY *base,
                                  const std::map<std::string, const BIGNUM *> &replaced) {
    const bool rsa = EVP_PKEY_get_id(base) == EVP_PKEY_RSA;
    const std::vector<const char *> names =
        rsa ? std::vector<const char *>{OSSL_PKEY_PARAM_RSA_N, OSSL_PKEY_PARAM_RSA_E}
            : std::vector<const char *>{OSSL_PKEY_PARAM_FFC_P, OSSL_PKEY_PARAM_FFC_Q,
                                        OSSL_PKEY_PARAM_FFC_G, OSSL_PKEY_PARAM_PUB_KEY};
    std::unique_ptr<OSSL_PARAM_BLD, FnDeleter<OSSL_PARAM_BLD_free>> bld(OSSL_PARAM_BLD_new());
    std::vector<BignumPtr> kept;
    for (const char *name : names) {
        const auto it = replaced.find(name);
        if (it == replaced.end()) kept.push_back(bn_param(base, name));
        const BIGNUM *value = it != replaced.end() ? it->second : kept.back().get();
        OSSL_PARAM_BLD_push_BN(bld.get(), name, value);
    }
    return key_from_params(rsa ? "RSA" : "DSA", bld.get());
}

// A public EC key on a named curve holding the encoded point as given, which
// OpenSSL decodes but does not judge (the point at infinity, {0x00}, too).
inline EvpPkeyPtr ec_public_of(const char *curve, const std::vector<unsigned char> &point) {
    std::unique_ptr<OSSL_PARAM_BLD, FnDeleter<OSSL_PARAM_BLD_free>> bld(OSSL_PARAM_BLD_new());
    OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_GROUP_NAME, curve, 0);
    OSSL_PARAM_BLD_push_octet_string(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                     point.size());
    return key_from_params("EC", bld.get());
}

// A fresh EC key pair on any curve OpenSSL knows, by its short name.
inline EvpPkeyPtr ec_key_on(const char *curve) { return EvpPkeyPtr(EVP_EC_gen(curve)); }

// Big-number parameter of a key as upper-case hex ("" when absent).
inline std::string bn_param_hex(const EVP_PKEY *key, const char *name) {
    BIGNUM *bn = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &bn) != 1) return "";
    char *hex = BN_bn2hex(bn);
    std::string out = hex != nullptr ? hex : "";
    OPENSSL_free(hex);
    BN_free(bn);
    return out;
}

// A key pair by name: "rsa1024", "dsa2048", "p256" (p192, p384, p521); a suffix such
// as "#2" names another key of the same kind. Each is made on first use and kept to
// the end of the program, as generation is the slow part of most suites. Curves come
// straight from OpenSSL, so the store's FIPS mode never refuses one. A forked child
// shares only the keys its parent made before the fork.
inline EVP_PKEY *test_key(const std::string &name) {
    static std::map<std::string, EvpPkeyPtr> made;
    EvpPkeyPtr &key = made[name];
    if (!key) {
        const std::string kind = name.substr(0, name.find('#'));
        const auto bits = [&] { return static_cast<unsigned int>(std::stoul(kind.substr(3))); };
        if (kind[0] == 'p')
            key.reset(EVP_EC_gen(("P-" + kind.substr(1)).c_str()));
        else if (kind.starts_with("rsa"))
            key.reset(PKEY_GenerateRSAKey(bits()));
        else if (kind.starts_with("dsa"))
            key.reset(PKEY_GenerateDSAKey(bits()));
    }
    return key.get();
}

// SSH key buffers built by hand, so that they can hold what no encoder
// writes: a field is a 32-bit length (the data's own unless declared) and the
// data; the ECDSA part behind the key type name is curve identifier and point.
inline void put_field(std::vector<unsigned char> &b, const std::vector<unsigned char> &data,
                      std::int64_t declared = -1) {
    const auto len =
        static_cast<std::uint32_t>(declared < 0 ? std::int64_t(data.size()) : declared);
    for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<unsigned char>(len >> s));
    b.insert(b.end(), data.begin(), data.end());
}
inline std::vector<unsigned char> ec_tail(const std::string &id,
                                          const std::vector<unsigned char> &point,
                                          std::int64_t declared = -1) {
    std::vector<unsigned char> b;
    put_field(b, std::vector<unsigned char>(id.begin(), id.end()));
    put_field(b, point, declared);
    return b;
}

// Standard Base64 of bytes, and the bytes of a padded Base64 text.
inline std::string base64(const std::vector<unsigned char> &b) {
    std::string out(b.size() * 4 / 3 + 4, '\0');
    out.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()),
                                                   b.data(), static_cast<int>(b.size()))));
    return out;
}
inline std::vector<unsigned char> unbase64(const std::string &text) {
    std::vector<unsigned char> out(text.size());
    const int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char *>(text.data()),
                                  static_cast<int>(text.size()));
    out.resize(static_cast<size_t>(n) - (text.size() - 1 - text.find_last_not_of('=')));
    return out;
}

// Public and private parts equal.
inline bool same_pair(const EVP_PKEY *a, const EVP_PKEY *b) {
    if (a == nullptr || b == nullptr || EVP_PKEY_eq(a, b) != 1) return false;
    const char *priv =
        EVP_PKEY_get_id(a) == EVP_PKEY_RSA ? OSSL_PKEY_PARAM_RSA_D : OSSL_PKEY_PARAM_PRIV_KEY;
    const std::string mine = bn_param_hex(a, priv);
    return !mine.empty() && mine == bn_param_hex(b, priv);
}

// The SubjectPublicKeyInfo DER of a key.
inline std::vector<unsigned char> public_der(const EVP_PKEY *key) {
    unsigned char *der = nullptr;
    const int len = i2d_PUBKEY(key, &der);
    std::vector<unsigned char> out(der, der + (len > 0 ? len : 0));
    OPENSSL_free(der);
    return out;
}

// "type base64" of a key's public line as ssh-keygen derives it from the private key
// (written as PEM into dir); "" when ssh-keygen cannot.
inline std::string ssh_keygen_public(const EVP_PKEY *key, const std::string &dir) {
    const std::string pem = dir + "/ssh-keygen-input.pem";
    FILE *f = std::fopen(pem.c_str(), "w");
    if (f == nullptr) return "";
    ::chmod(pem.c_str(), 0600);
    PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr);
    std::fclose(f);
    const std::string line = run("ssh-keygen -y -f " + pem);
    const size_t type_end = line.find(' ');
    if (type_end == std::string::npos) return "";
    return line.substr(0, line.find_first_of(" \r\n", type_end + 1));
}

}  // namespace pkey::test
