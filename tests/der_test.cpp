// The fast DER decoders must give exactly what OpenSSL's d2i_PUBKEY and
// d2i_PrivateKey give, for every input: the same key or the same refusal.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/x509.h>

#include <random>
#include <vector>

#include "pkey_der.hpp"
#include "pkey_util.hpp"
#include "test_keys.hpp"

namespace {

using pkey::EvpPkeyPtr;
using Bytes = std::vector<unsigned char>;

// The DER OpenSSL writes for a key with one of its i2d functions.
template <typename Encoder>
Bytes encode(EVP_PKEY *key, Encoder i2d) {
    unsigned char *der = nullptr;
    const int len = i2d(key, &der);
    Bytes out(der, der + (len > 0 ? len : 0));
    OPENSSL_free(der);
    return out;
}
Bytes public_der(EVP_PKEY *key) { return encode(key, i2d_PUBKEY); }
Bytes private_der(EVP_PKEY *key) { return encode(key, i2d_PrivateKey); }

// Compares the fast public decoder with d2i_PUBKEY on one input.
void expect_same_public(const Bytes &der, const std::string &what) {
    const unsigned char *p = der.data();
    EvpPkeyPtr reference(d2i_PUBKEY(nullptr, &p, static_cast<long>(der.size())));
    const pkey::der::SpkiResult fast = pkey::der::decode_public_key(der);
    ASSERT_EQ(fast.key != nullptr, reference != nullptr) << what;
    if (!reference) return;
    EXPECT_EQ(EVP_PKEY_eq(fast.key.get(), reference.get()), 1) << what;
    EXPECT_EQ(EVP_PKEY_get_id(fast.key.get()), EVP_PKEY_get_id(reference.get())) << what;
    EXPECT_EQ(EVP_PKEY_get_bits(fast.key.get()), EVP_PKEY_get_bits(reference.get())) << what;
    // "Canonical" promises the re-encoding is the input itself.
    if (fast.canonical) {
        EXPECT_EQ(public_der(fast.key.get()), der) << what;
    }
}

void expect_same_private(const Bytes &der, const std::string &what) {
    const unsigned char *p = der.data();
    EvpPkeyPtr reference(d2i_PrivateKey(EVP_PKEY_EC, nullptr, &p, static_cast<long>(der.size())));
    EvpPkeyPtr fast = pkey::der::decode_ec_private_key(der);
    ASSERT_EQ(fast != nullptr, reference != nullptr) << what;
    if (!reference) return;
    EXPECT_EQ(EVP_PKEY_eq(fast.get(), reference.get()), 1) << what;
    BIGNUM *a = nullptr, *b = nullptr;
    ASSERT_EQ(EVP_PKEY_get_bn_param(fast.get(), OSSL_PKEY_PARAM_PRIV_KEY, &a), 1);
    ASSERT_EQ(EVP_PKEY_get_bn_param(reference.get(), OSSL_PKEY_PARAM_PRIV_KEY, &b), 1);
    EXPECT_EQ(BN_cmp(a, b), 0) << what;
    BN_clear_free(a);
    BN_clear_free(b);
}

// One key of every type and size the decoders know, and some they do not.
const std::vector<EVP_PKEY *> &keys() {
    static const std::vector<EVP_PKEY *> all = [] {
        std::vector<EVP_PKEY *> k;
        for (const char *name :
             {"rsa1024", "rsa2048", "dsa1024", "p192", "p224", "p256", "p384", "p521"})
            k.push_back(pkey::test::test_key(name));
        static const EvpPkeyPtr k1(EVP_EC_gen("secp256k1")),
            ed(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
        k.push_back(k1.get());
        k.push_back(ed.get());
        return k;
    }();
    return all;
}

TEST(DerTest, EveryKeyTypeDecodesToTheSameKeyAsOpenSsl) {
    for (EVP_PKEY *key : keys()) {
        ASSERT_TRUE(key);
        const Bytes der = public_der(key);
        expect_same_public(der, EVP_PKEY_get0_type_name(key));
        // The library's own forms take the fast path.
        const int id = EVP_PKEY_get_id(key);
        if (id == EVP_PKEY_RSA || id == EVP_PKEY_DSA) {
            EXPECT_TRUE(pkey::der::decode_public_key(der).canonical);
        }
        if (id == EVP_PKEY_EC) expect_same_private(private_der(key), "EC private");
    }
}

TEST(DerTest, NonCanonicalFormsGiveOpenSslsAnswer) {
    const Bytes p256 = public_der(keys()[5]);
    // Trailing bytes: d2i reads the key and ignores them.
    Bytes trailing = p256;
    trailing.push_back(0);
    expect_same_public(trailing, "trailing byte");
    EXPECT_FALSE(pkey::der::decode_public_key(trailing).canonical);
    // A compressed point.
    EvpPkeyPtr compressed(EVP_PKEY_dup(keys()[5]));
    ASSERT_EQ(
        EVP_PKEY_set_utf8_string_param(compressed.get(), OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT,
                                       OSSL_PKEY_EC_POINT_CONVERSION_FORMAT_COMPRESSED),
        1);
    expect_same_public(public_der(compressed.get()), "compressed point");
    // A point off the curve: both refuse.
    Bytes off_curve = p256;
    off_curve.back() ^= 1;
    expect_same_public(off_curve, "point off the curve");
    // Cut short at every length.
    for (std::size_t n = 0; n < p256.size(); ++n)
        expect_same_public(Bytes(p256.begin(), p256.begin() + static_cast<long>(n)),
                           "cut at " + std::to_string(n));
}

TEST(DerTest, RandomDamageNeverMakesTheDecodersDisagree) {
    std::mt19937 rng(7);
    for (EVP_PKEY *key : keys()) {
        const Bytes pub = public_der(key);
        const Bytes priv = EVP_PKEY_get_id(key) == EVP_PKEY_EC ? private_der(key) : Bytes{};
        for (int round = 0; round < 300; ++round) {
            Bytes damaged = round % 2 == 0 || priv.empty() ? pub : priv;
            const bool is_pub = damaged == pub;
            for (int flips = 1 + static_cast<int>(rng() % 3); flips > 0; --flips)
                damaged[rng() % damaged.size()] ^= static_cast<unsigned char>(1u << (rng() % 8));
            if (is_pub)
                expect_same_public(damaged, "damaged public key");
            else
                expect_same_private(damaged, "damaged private key");
        }
    }
}

}  // namespace
