// The key-size, curve and algorithm policy in and out of FIPS mode.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/obj_mac.h>

#include <vector>

#include "pkey_pubkey.h"
#include "platform_control.h"
#include "test_keys.hpp"
#include "test_store.hpp"

namespace {

using pkey::test::dsa_public_of_bits;
using pkey::test::ec_key_on;
using pkey::test::rsa_public_of_bits;

using PolicyTest = pkey::test::StoreTest;

TEST_F(PolicyTest, MapsEvpTypesAndAlgIdsBothWays) {
    EXPECT_EQ(PKEY_PUBKEY_GetPkeyAlgIdByEvpId(EVP_PKEY_RSA), PKEY_ALG_RSA);
    EXPECT_EQ(PKEY_PUBKEY_GetPkeyAlgIdByEvpId(EVP_PKEY_DSA), PKEY_ALG_DSA);
    EXPECT_EQ(PKEY_PUBKEY_GetPkeyAlgIdByEvpId(EVP_PKEY_EC), PKEY_ALG_ECDSA);
    for (unsigned int other : {0u, 1u, 5u, 912u /* RSA-PSS */, 1087u /* Ed25519 */})
        EXPECT_EQ(PKEY_PUBKEY_GetPkeyAlgIdByEvpId(other), PKEY_ALG_UNSUPPORTED) << other;

    const int expected[] = {0, EVP_PKEY_RSA, EVP_PKEY_DSA, EVP_PKEY_EC, 0};
    for (unsigned int id = 0; id <= 4; ++id)
        EXPECT_EQ(PKEY_PUBKEY_GetEvpAlgIdByPkeyId(id), expected[id]) << id;
}

TEST_F(PolicyTest, MinimumSizesFollowTheMode) {
    struct Row {
        unsigned int alg, non_fips, fips;
    };
    const Row rows[] = {{0, 0, 0}, {1, 512, 2048}, {2, 512, 2048}, {3, 192, 256}, {4, 0, 0}};
    for (int fips : {0, 1}) {
        PCTL_SetFipsMode(fips);
        for (const Row &r : rows) {
            EXPECT_EQ(PKEY_PUBKEY_GetMinKeyBits(r.alg), fips ? r.fips : r.non_fips)
                << "alg " << r.alg << " fips " << fips;
            const int evp = PKEY_PUBKEY_GetEvpAlgIdByPkeyId(r.alg);
            if (evp != 0) {
                EXPECT_EQ(PKEY_PUBKEY_GetMinKeyBitsByEvpAgl(static_cast<unsigned>(evp)),
                          fips ? r.fips : r.non_fips);
            }
        }
        EXPECT_EQ(PKEY_PUBKEY_GetMinECKeyNid(), fips ? NID_X9_62_prime256v1 : NID_X9_62_prime192v1);
    }
}

TEST_F(PolicyTest, CurvesAllowedPerMode) {
    for (int fips : {0, 1}) {
        PCTL_SetFipsMode(fips);
        EXPECT_EQ(PKEY_IsValidECDSACurve(NID_X9_62_prime192v1), fips ? 0 : 1);
        for (int nid : {NID_X9_62_prime256v1, NID_secp384r1, NID_secp521r1})
            EXPECT_EQ(PKEY_IsValidECDSACurve(nid), 1) << nid;
        for (int nid : {0, NID_secp224r1, NID_secp256k1, NID_X9_62_prime239v1})
            EXPECT_EQ(PKEY_IsValidECDSACurve(nid), 0) << nid;
    }
}

TEST_F(PolicyTest, RsaAndDsaSizesHaveA2048BitCeilingInBothModes) {
    struct Row {
        unsigned int bits;
        int valid_non_fips, valid_fips, fips_strength;
    };
    const Row rows[] = {{511, 0, 0, 0},  {512, 1, 0, 0},  {1024, 1, 0, 0}, {2047, 1, 0, 0},
                        {2048, 1, 1, 1}, {2049, 0, 0, 1}, {3072, 0, 0, 1}, {4096, 0, 0, 1}};
    for (const Row &r : rows) {
        for (auto make : {rsa_public_of_bits, dsa_public_of_bits}) {
            pkey::EvpPkeyPtr key = make(r.bits);
            ASSERT_TRUE(key) << r.bits;
            EXPECT_EQ(PKEY_PUBKEY_GetKeyBits(key.get()), r.bits);
            EXPECT_EQ(PKEY_PUBKEY_GetPubKeySize(key.get()), r.bits);
            PCTL_SetFipsMode(0);
            EXPECT_EQ(PKEY_PUBKEY_IsKeyLenValid(key.get()), r.valid_non_fips) << r.bits;
            PCTL_SetFipsMode(1);
            EXPECT_EQ(PKEY_PUBKEY_IsKeyLenValid(key.get()), r.valid_fips) << r.bits;
            // FIPS strength has no ceiling and does not depend on the mode.
            EXPECT_EQ(PKEY_PUBKEY_IsKeyMatchFipsMode(key.get()), r.fips_strength) << r.bits;
            PCTL_SetFipsMode(0);
            EXPECT_EQ(PKEY_PUBKEY_IsKeyMatchFipsMode(key.get()), r.fips_strength) << r.bits;
        }
    }
}

TEST_F(PolicyTest, EcKeysAreJudgedByCurveAndOrderSize) {
    struct Row {
        const char *curve;
        unsigned int bits;
        int valid_non_fips, valid_fips, fips_strength;
    };
    const Row rows[] = {{"prime192v1", 192, 1, 0, 0}, {"prime256v1", 256, 1, 1, 1},
                        {"secp384r1", 384, 1, 1, 1},  {"secp521r1", 521, 1, 1, 1},
                        {"secp256k1", 256, 0, 0, 1},  {"secp224r1", 224, 0, 0, 0}};
    for (const Row &r : rows) {
        pkey::EvpPkeyPtr key = ec_key_on(r.curve);
        ASSERT_TRUE(key) << r.curve;
        EXPECT_EQ(PKEY_PUBKEY_GetKeyBits(key.get()), r.bits) << r.curve;
        PCTL_SetFipsMode(0);
        EXPECT_EQ(PKEY_PUBKEY_IsKeyLenValid(key.get()), r.valid_non_fips) << r.curve;
        PCTL_SetFipsMode(1);
        EXPECT_EQ(PKEY_PUBKEY_IsKeyLenValid(key.get()), r.valid_fips) << r.curve;
        EXPECT_EQ(PKEY_PUBKEY_IsKeyMatchFipsMode(key.get()), r.fips_strength) << r.curve;
    }
}

TEST_F(PolicyTest, UnsupportedKeysHaveNoSizeAndNeverPass) {
    pkey::EvpPkeyPtr ed(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    ASSERT_TRUE(ed);
    EXPECT_EQ(PKEY_PUBKEY_GetKeyBits(ed.get()), 0u);
    EXPECT_EQ(PKEY_PUBKEY_IsKeyLenValid(ed.get()), 0);
    EXPECT_EQ(PKEY_PUBKEY_IsKeyMatchFipsMode(ed.get()), 0);
    EXPECT_EQ(PKEY_PUBKEY_GetKeyBits(nullptr), 0u);
    EXPECT_EQ(PKEY_PUBKEY_IsKeyLenValid(nullptr), 0);
}

// Numbers no real key pair has, each in a key OpenSSL builds without a word.
TEST_F(PolicyTest, OnlyKeysARealKeyPairCanHaveArePossible) {
    using pkey::BignumPtr;
    using pkey::test::bn_param;
    using pkey::test::public_key_with;
    EVP_PKEY *rsa = pkey::test::test_key("rsa1024"), *dsa = pkey::test::test_key("dsa1024");
    ASSERT_TRUE(rsa && dsa);
    std::vector<BignumPtr> numbers;  // kept for the keys below
    auto num = [&](const BIGNUM *base, long add) {
        numbers.emplace_back(base != nullptr ? BN_dup(base) : BN_new());
        BIGNUM *v = numbers.back().get();
        if (add >= 0)
            BN_add_word(v, static_cast<BN_ULONG>(add));
        else
            BN_sub_word(v, static_cast<BN_ULONG>(-add));
        return v;
    };
    const BignumPtr n = bn_param(rsa, OSSL_PKEY_PARAM_RSA_N);
    const BignumPtr p = bn_param(dsa, OSSL_PKEY_PARAM_FFC_P),
                    q = bn_param(dsa, OSSL_PKEY_PARAM_FFC_Q);
    // 2 lies outside the order-q subgroup of the fixed group (checked, not assumed).
    const BIGNUM *two = num(nullptr, 2);
    BignumPtr power(BN_new());
    pkey::BnCtxPtr ctx(BN_CTX_new());
    ASSERT_EQ(BN_mod_exp(power.get(), two, q.get(), p.get(), ctx.get()), 1);
    ASSERT_FALSE(BN_is_one(power.get()));

    const char *const e = OSSL_PKEY_PARAM_RSA_E, *const g = OSSL_PKEY_PARAM_FFC_G,
                      *const y = OSSL_PKEY_PARAM_PUB_KEY;
    struct Row {
        const char *what;
        pkey::EvpPkeyPtr key;
        int possible;
    };
    Row rows[] = {
        {"rsa as made", public_key_with(rsa, {}), 1},
        {"rsa e = 3", public_key_with(rsa, {{e, num(nullptr, 3)}}), 1},
        {"rsa e = 1", public_key_with(rsa, {{e, num(nullptr, 1)}}), 0},
        {"rsa e = 2", public_key_with(rsa, {{e, num(nullptr, 2)}}), 0},
        {"rsa e = 4", public_key_with(rsa, {{e, num(nullptr, 4)}}), 0},
        {"rsa e = n", public_key_with(rsa, {{e, n.get()}}), 0},
        {"rsa e = n + 2", public_key_with(rsa, {{e, num(n.get(), 2)}}), 0},
        {"rsa even n", public_key_with(rsa, {{OSSL_PKEY_PARAM_RSA_N, num(n.get(), 1)}}), 0},
        {"dsa as made", public_key_with(dsa, {}), 1},
        {"dsa g = 1", public_key_with(dsa, {{g, num(nullptr, 1)}}), 0},
        {"dsa g = p - 1", public_key_with(dsa, {{g, num(p.get(), -1)}}), 0},
        {"dsa g = p + 1", public_key_with(dsa, {{g, num(p.get(), 1)}}), 0},
        {"dsa g outside the subgroup", public_key_with(dsa, {{g, two}}), 0},
        {"dsa y = 0", public_key_with(dsa, {{y, num(nullptr, 0)}}), 0},
        {"dsa y = 1", public_key_with(dsa, {{y, num(nullptr, 1)}}), 0},
        {"dsa y = p - 1", public_key_with(dsa, {{y, num(p.get(), -1)}}), 0},
        {"dsa y = p", public_key_with(dsa, {{y, p.get()}}), 0},
        {"dsa y outside the subgroup", public_key_with(dsa, {{y, two}}), 0},
        {"ec P-192", ec_key_on("prime192v1"), 1},
        {"ec P-256", ec_key_on("prime256v1"), 1},
        {"ec P-384", ec_key_on("secp384r1"), 1},
        {"ec P-521", ec_key_on("secp521r1"), 1},
        // Possible, though the size policy refuses it: the two questions are apart.
        {"ec P-224", ec_key_on("secp224r1"), 1},
        {"ec point at infinity", pkey::test::ec_public_of("P-256", {0x00}), 0},
        {"ed25519", pkey::EvpPkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")), 0},
    };
    for (const Row &r : rows) {
        ASSERT_TRUE(r.key) << r.what;
        EXPECT_EQ(PKEY_PUBKEY_IsPublicKeyPossible(r.key.get()), r.possible) << r.what;
    }
    EXPECT_EQ(PKEY_PUBKEY_IsPublicKeyPossible(nullptr), 0);
    EXPECT_EQ(ERR_peek_error(), 0u);  // refusals leave nothing on the error queue
}

TEST_F(PolicyTest, AlgorithmSwitchesComeFromTheCryptoService) {
    struct Row {
        unsigned int evp_type, code;
    };
    const Row rows[] = {{EVP_PKEY_RSA, 83}, {EVP_PKEY_DSA, 84}, {EVP_PKEY_EC, 85}, {1087, 93}};
    for (const Row &r : rows) EXPECT_EQ(PKEY_PUBKEY_IsEvpAglEnable(r.evp_type), 1);
    for (const Row &r : rows) {
        PCTL_SetAlgoEnabled(r.code, 0);
        for (const Row &other : rows)
            EXPECT_EQ(PKEY_PUBKEY_IsEvpAglEnable(other.evp_type), other.code == r.code ? 0 : 1)
                << "code " << r.code << " disabled, asking " << other.evp_type;
        PCTL_SetAlgoEnabled(r.code, -1);
    }
}

}  // namespace
