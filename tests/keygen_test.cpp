// Key pair generation: ranges, curves per mode, the memory alarm, the server
// key size rule and the fixed DSA groups.
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include <string>
#include <utility>

#include "pkey_local.h"
#include "pkey_pubkey.h"
#include "platform_control.h"
#include "test_keys.hpp"
#include "test_store.hpp"

namespace {

using pkey::EvpPkeyPtr;
using pkey::test::bn_param_hex;

using KeygenTest = pkey::test::StoreTest;

std::string curve_of(const EVP_PKEY *key) {
    char name[64] = "";
    EVP_PKEY_get_group_name(key, name, sizeof name, nullptr);
    return name;
}

std::string dsa_group_hex(const EVP_PKEY *key) {
    return bn_param_hex(key, OSSL_PKEY_PARAM_FFC_P) + ":" +
           bn_param_hex(key, OSSL_PKEY_PARAM_FFC_Q) + ":" +
           bn_param_hex(key, OSSL_PKEY_PARAM_FFC_G);
}

std::string sha256_hex(const std::string &text) {
    unsigned char md[32];
    size_t len = 0;
    EVP_Q_digest(nullptr, "SHA256", nullptr, text.data(), text.size(), md, &len);
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (size_t i = 0; i < len; ++i) hex += {digits[md[i] >> 4], digits[md[i] & 15]};
    return hex;
}

TEST_F(KeygenTest, GeneratePKeyAcceptsRsaAndDsaOf512To2048BitsOnly) {
    for (int type : {EVP_PKEY_RSA, EVP_PKEY_DSA}) {
        for (unsigned int bits : {0u, 511u, 2049u, 4096u, 0xFFFFFFFFu})
            EXPECT_EQ(PKEY_GeneratePKey(type, bits), nullptr) << type << " " << bits;
        for (unsigned int bits : {512u, 2048u}) {
            EvpPkeyPtr key(PKEY_GeneratePKey(type, bits));
            ASSERT_TRUE(key) << type << " " << bits;
            EXPECT_EQ(EVP_PKEY_get_id(key.get()), type);
            EXPECT_EQ(PKEY_PUBKEY_GetKeyBits(key.get()), bits);
            const std::string e = bn_param_hex(key.get(), OSSL_PKEY_PARAM_RSA_E);
            EXPECT_TRUE(type == EVP_PKEY_DSA || e == "010001") << e;
        }
    }
    for (int type : {0, 1, 912, 1087}) EXPECT_EQ(PKEY_GeneratePKey(type, 1024), nullptr) << type;
    for (unsigned int bits : {0u, 511u, 3073u})
        EXPECT_EQ(PKEY_GenerateDSAKey(bits), nullptr) << bits;
}

TEST_F(KeygenTest, EcdsaIgnoresTheSizeAndTakesTheModesSmallestCurve) {
    for (int fips : {0, 1}) {
        PCTL_SetFipsMode(fips);
        for (unsigned int bits : {0u, 99999u}) {
            EvpPkeyPtr key(PKEY_GeneratePKey(EVP_PKEY_EC, bits));
            ASSERT_TRUE(key) << fips << " " << bits;
            EXPECT_EQ(curve_of(key.get()), fips ? "prime256v1" : "prime192v1");
        }
    }
}

TEST_F(KeygenTest, EcKeysOnEveryAllowedCurveUseNamedCurveEncodingAndOthersAreRefused) {
    const std::pair<int, const char *> curves[] = {{NID_X9_62_prime192v1, "prime192v1"},
                                                   {NID_X9_62_prime256v1, "prime256v1"},
                                                   {NID_secp384r1, "secp384r1"},
                                                   {NID_secp521r1, "secp521r1"}};
    for (const auto &[nid, name] : curves) {
        EvpPkeyPtr key(PKEY_GenerateECKey(nid));
        ASSERT_TRUE(key) << name;
        EXPECT_EQ(curve_of(key.get()), name);
        char encoding[32] = "";
        EVP_PKEY_get_utf8_string_param(key.get(), OSSL_PKEY_PARAM_EC_ENCODING, encoding,
                                       sizeof encoding, nullptr);
        EXPECT_STREQ(encoding, OSSL_PKEY_EC_ENCODING_GROUP);
    }
    for (int nid : {0, NID_secp256k1, NID_secp224r1}) EXPECT_EQ(PKEY_GenerateECKey(nid), nullptr);
    PCTL_SetFipsMode(1);
    EXPECT_EQ(PKEY_GenerateECKey(NID_X9_62_prime192v1), nullptr);
}

TEST_F(KeygenTest, MemoryAlarmStopsEveryGenerator) {
    PCTL_SetMemAlarm(1);
    EXPECT_EQ(PKEY_GenerateRSAKey(512), nullptr);
    EXPECT_EQ(PKEY_GenerateDSAKey(512), nullptr);
    EXPECT_EQ(PKEY_GenerateECKey(NID_X9_62_prime256v1), nullptr);
    EXPECT_EQ(PKEY_GeneratePKey(EVP_PKEY_EC, 0), nullptr);
    PCTL_SetMemAlarm(0);
    EXPECT_TRUE(EvpPkeyPtr(PKEY_GenerateRSAKey(512)));
    EXPECT_EQ(PKEY_LOCAL_GenerateReserve(1024), nullptr);
}

TEST(ServerKeyBits, FollowTheStepTable) {
    const std::pair<unsigned int, unsigned int> rows[] = {
        {0, 0},     {511, 0},   {512, 768},  {640, 768},  {641, 896}, {767, 896}, {768, 640},
        {895, 640}, {896, 768}, {1024, 768}, {2048, 768}, {2049, 0},  {4096, 0}};
    for (const auto &[host, server] : rows)
        EXPECT_EQ(PKEY_LOCAL_GetServerKeyBitsByHostKeyBits(host), server) << host;
}

// Checks that p, q, g form a DSA group of the expected sizes.
void expect_valid_group(const EVP_PKEY *key, unsigned int L, unsigned int N) {
    BIGNUM *p = nullptr, *q = nullptr, *g = nullptr;
    EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_FFC_P, &p);
    EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_FFC_Q, &q);
    EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_FFC_G, &g);
    pkey::BignumPtr pp(p), qq(q), gg(g), r(BN_new()), t(BN_new());
    ASSERT_TRUE(p && q && g);
    pkey::BnCtxPtr ctx(BN_CTX_new());
    EXPECT_EQ(BN_num_bits(p), static_cast<int>(L));
    EXPECT_EQ(BN_num_bits(q), static_cast<int>(N));
    EXPECT_EQ(BN_check_prime(p, ctx.get(), nullptr), 1);
    EXPECT_EQ(BN_check_prime(q, ctx.get(), nullptr), 1);
    BN_sub(t.get(), p, BN_value_one());
    BN_mod(r.get(), t.get(), q, ctx.get());
    EXPECT_TRUE(BN_is_zero(r.get())) << "q does not divide p - 1";
    BN_mod_exp(r.get(), g, q, p, ctx.get());
    EXPECT_TRUE(BN_is_one(r.get()) && !BN_is_one(g)) << "g is not of order q";
}

// Each size has one fixed group, valid, shared by every key of that size in every
// process: its SHA-256 of "p:q:g" in upper-case hex (padded to whole bytes) is the
// one printed by tests/vectors/dsa_group_reference.py, an independent derivation in
// plain Python integers. 1536 bits is derived by no other test, so it is searched afresh.
TEST_F(KeygenTest, DsaKeysOfOneSizeShareTheReferenceGroupAndDifferInTheirPairs) {
    const std::pair<unsigned int, const char *> groups[] = {
        {512, "47d8c57d9120d883de25ebc70beb2f2d58d369a5efad0a4b976cdec99ea77fdf"},
        {1024, "96a8c26addb2d364b196bc498f26ba2dc588c103e135662822c7fa87cacd64fa"},
        {1536, "cf77d8e4aa7b44b35ec692d6254da079e0c201e7cb928b5384fa3ed58f610e81"},
        {2048, "26b36d6fc9bd46efbfdd5e7644339ff8671614d067f3bed1502d0410c313f27a"}};
    for (const auto &[bits, digest] : groups) {
        EvpPkeyPtr a(PKEY_GenerateDSAKey(bits)), b(PKEY_GenerateDSAKey(bits));
        ASSERT_TRUE(a && b) << bits;
        expect_valid_group(a.get(), bits, bits < 2048 ? 160 : 256);
        EXPECT_EQ(sha256_hex(dsa_group_hex(a.get())), digest) << bits;
        EXPECT_EQ(dsa_group_hex(a.get()), dsa_group_hex(b.get())) << bits;
        for (const char *part : {OSSL_PKEY_PARAM_PRIV_KEY, OSSL_PKEY_PARAM_PUB_KEY})
            EXPECT_NE(bn_param_hex(a.get(), part), bn_param_hex(b.get(), part)) << bits;
    }
}

}  // namespace
