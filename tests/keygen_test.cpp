// Key pair generation: ranges, curves per mode, the memory alarm, the server
// key size rule and the fixed DSA groups.
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/obj_mac.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "host_platform.h"
#include "pkey_local.h"
#include "pkey_pubkey.h"
#include "test_keys.hpp"
#include "test_store.hpp"

namespace {

using pkey::EvpPkeyPtr;
using pkey::test::bn_param_hex;

class KeygenTest : public ::testing::Test {
protected:
    pkey::test::TempStore store;
};

std::string curve_of(const EVP_PKEY *key) {
    char name[64] = "";
    size_t len = 0;
    EVP_PKEY_get_group_name(key, name, sizeof name, &len);
    return name;
}

std::string dsa_group_hex(const EVP_PKEY *key) {
    return bn_param_hex(key, OSSL_PKEY_PARAM_FFC_P) + ":" + bn_param_hex(key, OSSL_PKEY_PARAM_FFC_Q) +
           ":" + bn_param_hex(key, OSSL_PKEY_PARAM_FFC_G);
}

TEST_F(KeygenTest, GeneratePKeyAcceptsRsaAndDsaOf512To2048BitsOnly) {
    for (int type : {EVP_PKEY_RSA, EVP_PKEY_DSA}) {
        for (unsigned int bits : {0u, 511u, 2049u, 4096u, 0xFFFFFFFFu})
            EXPECT_EQ(PKEY_GeneratePKey(type, bits), nullptr) << type << " " << bits;
        EvpPkeyPtr key(PKEY_GeneratePKey(type, 512));
        ASSERT_TRUE(key) << type;
        EXPECT_EQ(EVP_PKEY_get_id(key.get()), type);
        EXPECT_EQ(PKEY_PUBKEY_GetKeyBits(key.get()), 512u);
    }
    for (int type : {0, 1, 912, 1087}) EXPECT_EQ(PKEY_GeneratePKey(type, 1024), nullptr) << type;
}

TEST_F(KeygenTest, RsaKeysUseExponent65537AndTheRequestedSize) {
    EvpPkeyPtr key(PKEY_GeneratePKey(EVP_PKEY_RSA, 2048));
    ASSERT_TRUE(key);
    EXPECT_EQ(PKEY_PUBKEY_GetKeyBits(key.get()), 2048u);
    EXPECT_EQ(bn_param_hex(key.get(), OSSL_PKEY_PARAM_RSA_E), "010001");
    EXPECT_FALSE(bn_param_hex(key.get(), OSSL_PKEY_PARAM_RSA_D).empty());
}

TEST_F(KeygenTest, EcdsaIgnoresTheSizeAndTakesTheModesSmallestCurve) {
    for (int fips : {0, 1}) {
        HOST_SetFipsMode(fips);
        for (unsigned int bits : {0u, 99999u}) {
            EvpPkeyPtr key(PKEY_GeneratePKey(EVP_PKEY_EC, bits));
            ASSERT_TRUE(key) << fips << " " << bits;
            EXPECT_EQ(curve_of(key.get()), fips ? "prime256v1" : "prime192v1");
        }
    }
}

TEST_F(KeygenTest, EcKeysOnEveryAllowedCurveUseNamedCurveEncoding) {
    const struct {
        int nid;
        const char *name;
    } curves[] = {{NID_X9_62_prime192v1, "prime192v1"},
                  {NID_X9_62_prime256v1, "prime256v1"},
                  {NID_secp384r1, "secp384r1"},
                  {NID_secp521r1, "secp521r1"}};
    for (const auto &c : curves) {
        EvpPkeyPtr key(PKEY_GenerateECKey(c.nid));
        ASSERT_TRUE(key) << c.name;
        EXPECT_EQ(EVP_PKEY_get_id(key.get()), EVP_PKEY_EC);
        EXPECT_EQ(curve_of(key.get()), c.name);
        char encoding[32] = "";
        size_t len = 0;
        EVP_PKEY_get_utf8_string_param(key.get(), OSSL_PKEY_PARAM_EC_ENCODING, encoding,
                                       sizeof encoding, &len);
        EXPECT_STREQ(encoding, OSSL_PKEY_EC_ENCODING_GROUP);
    }
}

TEST_F(KeygenTest, EcCurvesOutsideThePolicyAreRefused) {
    EXPECT_EQ(PKEY_GenerateECKey(0), nullptr);
    EXPECT_EQ(PKEY_GenerateECKey(NID_secp256k1), nullptr);
    EXPECT_EQ(PKEY_GenerateECKey(NID_secp224r1), nullptr);
    HOST_SetFipsMode(1);
    EXPECT_EQ(PKEY_GenerateECKey(NID_X9_62_prime192v1), nullptr);
    EvpPkeyPtr p256(PKEY_GenerateECKey(NID_X9_62_prime256v1));
    EXPECT_TRUE(p256);
}

TEST_F(KeygenTest, MemoryAlarmStopsEveryGenerator) {
    HOST_SetMemAlarm(1);
    EXPECT_EQ(PKEY_GenerateRSAKey(512), nullptr);
    EXPECT_EQ(PKEY_GenerateDSAKey(512), nullptr);
    EXPECT_EQ(PKEY_GenerateECKey(NID_X9_62_prime256v1), nullptr);
    EXPECT_EQ(PKEY_GeneratePKey(EVP_PKEY_RSA, 512), nullptr);
    EXPECT_EQ(PKEY_GeneratePKey(EVP_PKEY_EC, 0), nullptr);
    HOST_SetMemAlarm(0);
    EvpPkeyPtr key(PKEY_GenerateRSAKey(512));
    EXPECT_TRUE(key);
    EXPECT_EQ(PKEY_LOCAL_GenerateReserve(1024), nullptr);
}

TEST(ServerKeyBits, FollowTheStepTable) {
    const struct {
        unsigned int host, server;
    } rows[] = {{0, 0},     {511, 0},   {512, 768},  {640, 768},  {641, 896},  {767, 896},
                {768, 640}, {895, 640}, {896, 768},  {1024, 768}, {2048, 768}, {2049, 0},
                {4096, 0}};
    for (const auto &r : rows)
        EXPECT_EQ(PKEY_LOCAL_GetServerKeyBitsByHostKeyBits(r.host), r.server) << r.host;
}

// Checks that p, q, g form a DSA group of the expected sizes.
void expect_valid_group(const EVP_PKEY *key, unsigned int L, unsigned int N) {
    BIGNUM *p = nullptr, *q = nullptr, *g = nullptr;
    ASSERT_EQ(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_FFC_P, &p), 1);
    ASSERT_EQ(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_FFC_Q, &q), 1);
    ASSERT_EQ(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_FFC_G, &g), 1);
    pkey::BignumPtr pp(p), qq(q), gg(g), r(BN_new()), t(BN_new());
    pkey::BnCtxPtr ctx(BN_CTX_new());
    EXPECT_EQ(BN_num_bits(p), static_cast<int>(L));
    EXPECT_EQ(BN_num_bits(q), static_cast<int>(N));
    EXPECT_EQ(BN_check_prime(p, ctx.get(), nullptr), 1);
    EXPECT_EQ(BN_check_prime(q, ctx.get(), nullptr), 1);
    BN_copy(t.get(), p);
    BN_sub_word(t.get(), 1);
    BN_mod(r.get(), t.get(), q, ctx.get());
    EXPECT_TRUE(BN_is_zero(r.get())) << "q does not divide p - 1";
    BN_mod_exp(r.get(), g, q, p, ctx.get());
    EXPECT_TRUE(BN_is_one(r.get())) << "g is not of order q";
    EXPECT_FALSE(BN_is_one(g));
}

TEST_F(KeygenTest, DsaKeysOfOneSizeShareTheirGroupAndDifferInTheirPairs) {
    for (unsigned int bits : {512u, 1024u, 2048u}) {
        EvpPkeyPtr a(PKEY_GenerateDSAKey(bits)), b(PKEY_GenerateDSAKey(bits));
        ASSERT_TRUE(a && b) << bits;
        expect_valid_group(a.get(), bits, bits < 2048 ? 160 : 256);
        EXPECT_EQ(dsa_group_hex(a.get()), dsa_group_hex(b.get())) << bits;
        EXPECT_NE(bn_param_hex(a.get(), OSSL_PKEY_PARAM_PRIV_KEY),
                  bn_param_hex(b.get(), OSSL_PKEY_PARAM_PRIV_KEY));
        EXPECT_NE(bn_param_hex(a.get(), OSSL_PKEY_PARAM_PUB_KEY),
                  bn_param_hex(b.get(), OSSL_PKEY_PARAM_PUB_KEY));
    }
}

// Values printed by tests/vectors/dsa_group_reference.py, an independent
// derivation in plain Python integers (here padded to whole bytes).
TEST_F(KeygenTest, DsaGroupsMatchTheReferenceDerivation) {
    const struct {
        unsigned int bits;
        const char *p, *q, *g;
    } groups[] = {
        {512,
         "DB8118808479503479437A5BE39891A52709CBAFE2FD69AC35A1FC26B39EF123AC276E8B5C89AB2EA54AAC97C9"
         "A776EF4980431EAC3BAD955421B2DCF96EDB47",
         "CF2A039E43E5109B372E946899AA4F84C686F8B7",
         "88547C507672EE07F8864B1FC03BEA5564994B8A4347F20A2A33510CF913C437C0613C1CA05367816FBD6778FC"
         "823B5CD180AF03AC8B4ED6FFFA0C321CC6A6EC"},
        {1024,
         "958280CC27E072A62A28A53C69D4528D5F5DFCA0F4FAACAF288A766CD04891AFC6CC88AA27E93EC439C41C24FA"
         "9320BF2697C82FE10201ECEEDA6FF6AB4E84824D44AB3EEF43728C5958456D302663E2079751BC78AC2576A914"
         "EE79EC58686FA49DCD1E80F8C6148036F47648F7CD275CCA3799342DAA5F44A86D71BF6B5A79",
         "CF2A039E43E5109B372E946899AA4F84C686F8B7",
         "09FFD8DFF4145C97F00298A5E28FFC9FE1C386652C3472460F5AF4E24249349E0C8B8B352CA328CFC981E1058A4"
         "BF0D66D2CB3A5B367D6CF0C51AFB5198D69220A8D02376B325A557BBDCA36DCAD5E0A54559C1BA76A3B813A79F"
         "F84D64F73D0DC3680CDE4360581FB18ED601547A97358A3D964166B6CAB3C093239BA8E4F09"},
    };
    for (const auto &grp : groups) {
        EvpPkeyPtr key(PKEY_GenerateDSAKey(grp.bits));
        ASSERT_TRUE(key) << grp.bits;
        EXPECT_EQ(bn_param_hex(key.get(), OSSL_PKEY_PARAM_FFC_P), grp.p) << grp.bits;
        EXPECT_EQ(bn_param_hex(key.get(), OSSL_PKEY_PARAM_FFC_Q), grp.q) << grp.bits;
        EXPECT_EQ(bn_param_hex(key.get(), OSSL_PKEY_PARAM_FFC_G), grp.g) << grp.bits;
    }
}

TEST_F(KeygenTest, DsaGroupsAreTheSameInAnotherProcess) {
    // 1536 bits is derived by no other test, so both processes search afresh.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(fds[0]);
        EvpPkeyPtr key(PKEY_GenerateDSAKey(1536));
        const std::string hex = key ? dsa_group_hex(key.get()) : "";
        const ssize_t w = write(fds[1], hex.data(), hex.size());
        _exit(w == static_cast<ssize_t>(hex.size()) ? 0 : 1);
    }
    close(fds[1]);
    std::string theirs;
    char buf[4096];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) theirs.append(buf, n);
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    EvpPkeyPtr mine(PKEY_GenerateDSAKey(1536));
    ASSERT_TRUE(mine);
    EXPECT_EQ(dsa_group_hex(mine.get()), theirs);
    expect_valid_group(mine.get(), 1536, 160);
}

TEST_F(KeygenTest, DsaSizesOutsideTheGeneratorsRangeAreRefused) {
    EXPECT_EQ(PKEY_GenerateDSAKey(511), nullptr);
    EXPECT_EQ(PKEY_GenerateDSAKey(3073), nullptr);
    EXPECT_EQ(PKEY_GenerateDSAKey(0), nullptr);
}

}  // namespace
