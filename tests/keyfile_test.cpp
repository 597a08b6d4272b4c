// Local key files through the real host platform: writing both copies,
// reading back, integrity, FIPS refusals, and creating host and server keys.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/obj_mac.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "host_platform.h"
#include "pkey_local.h"
#include "pkey_pubkey.h"
#include "test_keys.hpp"
#include "test_store.hpp"

namespace {

namespace fsys = std::filesystem;
using pkey::EvpPkeyPtr;
using pkey::test::bn_param_hex;
using Bytes = std::vector<unsigned char>;
constexpr int kFailed = static_cast<int>(PKEY_ERR_FAILED);

Bytes file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}
void write_bytes(const std::string &path, const Bytes &b) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(b.data()),
                                                static_cast<std::streamsize>(b.size()));
}

// Public and private parts equal.
bool same_pair(const EVP_PKEY *a, const EVP_PKEY *b) {
    if (a == nullptr || b == nullptr || EVP_PKEY_eq(a, b) != 1) return false;
    const char *priv = EVP_PKEY_get_id(a) == EVP_PKEY_RSA ? OSSL_PKEY_PARAM_RSA_D
                                                           : OSSL_PKEY_PARAM_PRIV_KEY;
    return bn_param_hex(a, priv) == bn_param_hex(b, priv) && !bn_param_hex(a, priv).empty();
}

EvpPkeyPtr read_key(unsigned int alg, unsigned int kind, const char *name) {
    PKEY_KEY_WITH_TIME_S *kt = PKEY_LOCAL_ReadKeyToEvpPkey(alg, kind, name);
    if (kt == nullptr) return nullptr;
    EvpPkeyPtr key(kt->pstKey);
    kt->pstKey = nullptr;
    PKEY_LOCAL_DestoryEvpkeyWithTime(kt);
    return key;
}

class KeyFileTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        rsa1024 = PKEY_GenerateRSAKey(1024);
        dsa1024 = PKEY_GenerateDSAKey(1024);
        p256 = PKEY_GenerateECKey(NID_X9_62_prime256v1);
        p521 = PKEY_GenerateECKey(NID_secp521r1);
    }
    static void TearDownTestSuite() {
        for (EVP_PKEY *k : {rsa1024, dsa1024, p256, p521}) EVP_PKEY_free(k);
    }
    std::string mem_file(const char *rel) const { return store.mem_dir(1) + "/pkey/" + rel; }
    std::string dev_file(const char *rel) const { return store.work_dir(1) + "/" + rel; }

    static inline EVP_PKEY *rsa1024, *dsa1024, *p256, *p521;
    pkey::test::TempStore store;
};

TEST_F(KeyFileTest, EveryAlgorithmRoundTripsInAndOutOfFipsMode) {
    for (int fips : {0, 1}) {
        HOST_SetFipsMode(fips);
        const struct {
            unsigned int alg;
            EVP_PKEY *key;
        } rows[] = {{PKEY_ALG_RSA, rsa1024}, {PKEY_ALG_DSA, dsa1024}, {PKEY_ALG_ECDSA, p256},
                    {PKEY_ALG_ECDSA, p521}};
        for (const auto &r : rows) {
            for (const char *name : {"", "named-1"}) {
                ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(r.alg, PKEY_KEY_HOST, r.key, name), 0);
                EvpPkeyPtr back = read_key(r.alg, PKEY_KEY_HOST, name);
                EXPECT_TRUE(same_pair(back.get(), r.key)) << r.alg << " '" << name << "'";
            }
        }
        ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_RSA, PKEY_KEY_SERVER, rsa1024, ""), 0);
        EXPECT_TRUE(same_pair(read_key(PKEY_ALG_RSA, PKEY_KEY_SERVER, "").get(), rsa1024));
    }
}

TEST_F(KeyFileTest, BothCopiesHoldTheSameEncipheredImage) {
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, ""), 0);
    unsigned int record_len = 0;
    unsigned char *record = PKEY_LOCAL_ReadKeyToBuf(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "", &record_len);
    ASSERT_NE(record, nullptr);
    const Bytes mem = file_bytes(mem_file("ecdsakey"));
    EXPECT_EQ(mem, file_bytes(dev_file("ecdsakey")));
    ASSERT_EQ(mem.size(), record_len + 19u);
    // The header is plain; the body is not.
    EXPECT_TRUE(std::equal(record, record + 84, mem.begin()));
    EXPECT_FALSE(std::equal(record + 84, record + record_len, mem.begin() + 84));
    EXPECT_EQ(record[82], 3);
    std::free(record);
}

TEST_F(KeyFileTest, StampsKindAndNameCutTo64Characters) {
    const std::string long_name(70, 'n');
    ASSERT_EQ(PKEY_SaveLocalKey(long_name.c_str(), p256), 0);
    unsigned int len = 0;
    unsigned char *record = PKEY_LOCAL_ReadKeyToBuf(PKEY_ALG_ECDSA, PKEY_KEY_HOST,
                                                    long_name.c_str(), &len);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record[8], PKEY_KEY_HOST);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(record + 9)), long_name.substr(0, 64));
    EXPECT_EQ(PKEY_LOCAL_GetKeyStatusFromDataBuf(record, len, nullptr), 1);
    std::free(record);

    EXPECT_EQ(PKEY_SaveLocalKey("", p256), kFailed);
    EXPECT_EQ(PKEY_SaveLocalKey(nullptr, p256), kFailed);
    EXPECT_EQ(PKEY_SaveLocalKey("x", nullptr), kFailed);
}

TEST_F(KeyFileTest, EveryChangedByteOutsideKindAndNameBreaksTheKey) {
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, ""), 0);
    const std::string path = mem_file("ecdsakey");
    const Bytes good = file_bytes(path);
    int still_read = 0;
    for (size_t i = 0; i < good.size(); ++i) {
        Bytes bad = good;
        bad[i] ^= 0x01;
        write_bytes(path, bad);
        const bool read = read_key(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "") != nullptr;
        const bool outside_digest = i >= 8 && i <= 73;  // kind and name
        if (read) ++still_read;
        EXPECT_EQ(read, outside_digest) << "byte " << i;
    }
    EXPECT_EQ(still_read, 66);
    write_bytes(path, good);
    EXPECT_TRUE(read_key(PKEY_ALG_ECDSA, PKEY_KEY_HOST, ""));
}

TEST_F(KeyFileTest, AKeyFileFromAnotherStoreDoesNotDecipher) {
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_RSA, PKEY_KEY_HOST, rsa1024, ""), 0);
    const Bytes theirs = file_bytes(mem_file("hostkey"));
    pkey::test::TempStore other;
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_RSA, PKEY_KEY_HOST, rsa1024, ""), 0);
    write_bytes(other.mem_dir(1) + "/pkey/hostkey", theirs);
    EXPECT_EQ(read_key(PKEY_ALG_RSA, PKEY_KEY_HOST, ""), nullptr);
    store.use();
}

TEST_F(KeyFileTest, FipsModeReadsOnlySha256ProtectedFiles) {
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, "md5"), 0);
    HOST_SetFipsMode(1);
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, "sha"), 0);
    EXPECT_EQ(read_key(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "md5"), nullptr);
    EXPECT_TRUE(read_key(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "sha"));
    HOST_SetFipsMode(0);
    EXPECT_TRUE(read_key(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "md5"));
    EXPECT_TRUE(read_key(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "sha"));
}

TEST_F(KeyFileTest, PlainRecordsAreWrittenAsTheyAreButNeverPassTheCheck) {
    unsigned int len = 0;
    unsigned char *record = PKEY_PUBKEY_ConvertKeyToStoreBuf(p256, &len);
    ASSERT_NE(record, nullptr);
    record[82] = 1;
    ASSERT_EQ(PKEY_LOCAL_WriteKeyBufToDev(PKEY_ALG_ECDSA, PKEY_KEY_HOST, record, len, "plain"), 0);
    EXPECT_EQ(file_bytes(mem_file("ecdsa/plain.key")), Bytes(record, record + len));
    unsigned int read_len = 0;
    unsigned char *back = PKEY_LOCAL_ReadKeyToBuf(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "plain", &read_len);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(Bytes(back, back + read_len), Bytes(record, record + len));
    std::free(back);
    EXPECT_EQ(read_key(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "plain"), nullptr);
    HOST_SetFipsMode(1);
    EXPECT_EQ(PKEY_LOCAL_ReadKeyToBuf(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "plain", &read_len), nullptr);
    HOST_SetFipsMode(0);

    // Protection 2 and a record whose length field lies are never written.
    record[82] = 2;
    EXPECT_EQ(PKEY_LOCAL_WriteKeyBufToDev(PKEY_ALG_ECDSA, PKEY_KEY_HOST, record, len, "two"),
              kFailed);
    record[82] = 3;
    EXPECT_EQ(PKEY_LOCAL_WriteKeyBufToDev(PKEY_ALG_ECDSA, PKEY_KEY_HOST, record, len - 1, "short"),
              kFailed);
    EXPECT_FALSE(fsys::exists(mem_file("ecdsa/two.key")));
    EXPECT_FALSE(fsys::exists(dev_file("pkey/ecdsa/short.key")));
    std::free(record);
}

TEST_F(KeyFileTest, IntegrityCheckCoversAllButKindAndName) {
    unsigned int len = 0;
    unsigned char *record = PKEY_PUBKEY_ConvertKeyToStoreBuf(rsa1024, &len);
    ASSERT_NE(record, nullptr);
    unsigned char protection = 0;
    record[8] = 64;
    record[40] = 'z';
    EXPECT_EQ(PKEY_LOCAL_GetKeyStatusFromDataBuf(record, len, &protection), 1);
    EXPECT_EQ(protection, 3);
    for (unsigned int i : {0u, 5u, 74u, 83u, 84u, len / 2, len - 1}) {
        record[i] ^= 0x80;
        EXPECT_EQ(PKEY_LOCAL_GetKeyStatusFromDataBuf(record, len, nullptr), 0) << i;
        record[i] ^= 0x80;
    }
    EXPECT_EQ(PKEY_LOCAL_GetKeyStatusFromDataBuf(record, len - 8, nullptr), 0);
    // MD5-protected records need MD5 to be allowed.
    HOST_SetAlgoEnabled(59, 0);
    protection = 0;
    EXPECT_EQ(PKEY_LOCAL_GetKeyStatusFromDataBuf(record, len, &protection), 0);
    EXPECT_EQ(protection, 3);
    HOST_SetAlgoEnabled(59, -1);
    std::free(record);
}

TEST_F(KeyFileTest, CreationTimeComesBackAsText) {
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_DSA, PKEY_KEY_HOST, dsa1024, ""), 0);
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char today[11];
    strftime(today, sizeof today, "%Y/%m/%d", &local);
    PKEY_KEY_WITH_TIME_S *kt = PKEY_LOCAL_ReadKeyToEvpPkey(PKEY_ALG_DSA, PKEY_KEY_HOST, "");
    ASSERT_NE(kt, nullptr);
    EXPECT_STREQ(kt->szDate, today);
    EXPECT_EQ(std::strlen(kt->szTime), 8u);
    EXPECT_EQ(kt->szTime[2], ':');
    PKEY_LOCAL_DestoryEvpkeyWithTime(kt);
}

TEST_F(KeyFileTest, AFailedCopyLeavesNeitherCopy) {
    // A directory standing where the device copy goes makes its open fail.
    fsys::create_directories(dev_file("hostkey"));
    EXPECT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_RSA, PKEY_KEY_HOST, rsa1024, ""), kFailed);
    EXPECT_FALSE(fsys::exists(mem_file("hostkey")));
    EXPECT_EQ(read_key(PKEY_ALG_RSA, PKEY_KEY_HOST, ""), nullptr);
    // And one where the memory copy goes stops the device write.
    fsys::create_directories(mem_file("dsakey"));
    EXPECT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_DSA, PKEY_KEY_HOST, dsa1024, ""), kFailed);
    EXPECT_FALSE(fsys::exists(dev_file("dsakey")));
}

TEST_F(KeyFileTest, ASavedKeyReachesEveryStandbyNodesFlash) {
    const unsigned short standby[] = {2, 5};
    HOST_SetStandbyNodes(standby, 2);
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, "k"), 0);
    const Bytes image = file_bytes(dev_file("pkey/ecdsa/k.key"));
    for (unsigned int node : {2u, 5u})
        EXPECT_EQ(file_bytes(store.work_dir(node) + "/pkey/ecdsa/k.key"), image) << node;
    EXPECT_FALSE(fsys::exists(store.mem_dir(2) + "/pkey"));
}

TEST_F(KeyFileTest, DecipherRefusesBadArguments) {
    unsigned char buf[100] = {};
    unsigned int out = 0;
    EXPECT_EQ(PKEY_LOCAL_DecryptPKey(100, nullptr, 100, buf, &out), kFailed);
    EXPECT_EQ(PKEY_LOCAL_DecryptPKey(100, buf, 100, buf, nullptr), kFailed);
    EXPECT_EQ(PKEY_LOCAL_DecryptPKey(83, buf, 100, buf, &out), kFailed);  // no whole header
    buf[82] = 3;
    EXPECT_EQ(PKEY_LOCAL_DecryptPKey(100, buf, 100, buf, &out), kFailed);  // not enciphered
    buf[82] = 9;
    EXPECT_EQ(PKEY_LOCAL_DecryptPKey(100, buf, 100, buf, &out), kFailed);
}

// ---- creating and replacing -------------------------------------------------

class CreateTest : public KeyFileTest {
protected:
    static PKEY_KEYGEN_REQ_S request(unsigned int alg, unsigned int bits, const char *name = "",
                                     unsigned int curve = 0) {
        PKEY_KEYGEN_REQ_S r{};
        r.uiAlgId = alg;
        r.uiKeyBits = bits;
        std::snprintf(r.szKeyName, sizeof r.szKeyName, "%s", name);
        r.uiCurveNid = curve;
        return r;
    }
    static unsigned int bits_of(unsigned int alg, unsigned int kind, const char *name) {
        EvpPkeyPtr k = read_key(alg, kind, name);
        return k ? PKEY_PUBKEY_GetKeyBits(k.get()) : 0;
    }
};

TEST_F(CreateTest, TheDefaultRsaHostKeyBringsAServerKeyOutsideFipsMode) {
    const struct {
        unsigned int host, server;
    } sizes[] = {{512, 768}, {704, 896}, {800, 640}, {1024, 768}};
    for (const auto &s : sizes) {
        const PKEY_KEYGEN_REQ_S r = request(PKEY_ALG_RSA, s.host);
        ASSERT_EQ(PKEY_LOCAL_GenerateKey(&r), 0);
        EXPECT_EQ(bits_of(PKEY_ALG_RSA, PKEY_KEY_HOST, ""), s.host);
        EXPECT_EQ(bits_of(PKEY_ALG_RSA, PKEY_KEY_SERVER, ""), s.server) << s.host;
    }
}

TEST_F(CreateTest, NoServerKeyInFipsModeForNamedKeysOrBeyondTheTable) {
    HOST_SetFipsMode(1);
    PKEY_KEYGEN_REQ_S r = request(PKEY_ALG_RSA, 2048);
    ASSERT_EQ(PKEY_LOCAL_GenerateKey(&r), 0);
    EXPECT_FALSE(fsys::exists(dev_file("serverkey")));
    HOST_SetFipsMode(0);
    r = request(PKEY_ALG_RSA, 1024, "named");
    ASSERT_EQ(PKEY_LOCAL_GenerateKey(&r), 0);
    EXPECT_EQ(bits_of(PKEY_ALG_RSA, PKEY_KEY_HOST, "named"), 1024u);
    EXPECT_FALSE(fsys::exists(dev_file("serverkey")));
    r = request(PKEY_ALG_RSA, 2304);
    ASSERT_EQ(PKEY_LOCAL_GenerateKey(&r), 0);
    EXPECT_EQ(bits_of(PKEY_ALG_RSA, PKEY_KEY_HOST, ""), 2304u);
    EXPECT_FALSE(fsys::exists(dev_file("serverkey")));
}

TEST_F(CreateTest, EcdsaAndDsaRequestsUseTheirCurveOrSize) {
    PKEY_KEYGEN_REQ_S r = request(PKEY_ALG_ECDSA, 0, "", NID_secp384r1);
    ASSERT_EQ(PKEY_LOCAL_GenerateKey(&r), 0);
    EXPECT_EQ(bits_of(PKEY_ALG_ECDSA, PKEY_KEY_HOST, ""), 384u);
    r = request(PKEY_ALG_DSA, 1024, "d");
    ASSERT_EQ(PKEY_LOCAL_GenerateKey(&r), 0);
    EXPECT_EQ(bits_of(PKEY_ALG_DSA, PKEY_KEY_HOST, "d"), 1024u);
    HOST_SetFipsMode(1);
    r = request(PKEY_ALG_ECDSA, 0, "", NID_X9_62_prime192v1);
    EXPECT_EQ(PKEY_LOCAL_GenerateKey(&r), kFailed);
    for (unsigned int alg : {0u, 4u}) {
        EXPECT_EQ(PKEY_LOCAL_GenerateOneKey(alg, 0, PKEY_KEY_HOST, 1024, ""), kFailed);
    }
    EXPECT_EQ(PKEY_LOCAL_GenerateKey(nullptr), kFailed);
}

TEST_F(CreateTest, RenewingTheServerKeyKeepsItsSizeOrDerivesIt) {
    EXPECT_EQ(PKEY_UpdateServerKey(EVP_PKEY_RSA, ""), kFailed);  // neither key exists
    PKEY_KEYGEN_REQ_S r = request(PKEY_ALG_RSA, 800);  // server key of 640 bits
    ASSERT_EQ(PKEY_LOCAL_GenerateKey(&r), 0);
    EvpPkeyPtr before = read_key(PKEY_ALG_RSA, PKEY_KEY_SERVER, "");
    ASSERT_EQ(PKEY_UpdateServerKey(EVP_PKEY_RSA, ""), 0);
    EvpPkeyPtr after = read_key(PKEY_ALG_RSA, PKEY_KEY_SERVER, "");
    ASSERT_TRUE(before && after);
    EXPECT_EQ(PKEY_PUBKEY_GetKeyBits(after.get()), 640u);
    EXPECT_NE(EVP_PKEY_eq(before.get(), after.get()), 1);

    std::filesystem::remove(mem_file("serverkey"));
    ASSERT_EQ(PKEY_SaveHostKey(rsa1024), 0);
    ASSERT_EQ(PKEY_UpdateServerKey(EVP_PKEY_RSA, ""), 0);
    EXPECT_EQ(bits_of(PKEY_ALG_RSA, PKEY_KEY_SERVER, ""), 768u);

    const Bytes server = file_bytes(dev_file("serverkey"));
    EXPECT_EQ(PKEY_UpdateServerKey(EVP_PKEY_DSA, ""), kFailed);
    EXPECT_EQ(PKEY_UpdateServerKey(EVP_PKEY_RSA, nullptr), kFailed);
    EXPECT_EQ(file_bytes(dev_file("serverkey")), server);
}

TEST_F(CreateTest, CallersKeysAreStoredAsDefaultHostOrServerKey) {
    EXPECT_EQ(PKEY_SaveHostKey(nullptr), kFailed);
    EXPECT_EQ(PKEY_SaveServerKey(nullptr), kFailed);
    ASSERT_EQ(PKEY_SaveHostKey(dsa1024), 0);
    EXPECT_TRUE(same_pair(read_key(PKEY_ALG_DSA, PKEY_KEY_HOST, "").get(), dsa1024));
    // Any supported key becomes the one server key file.
    ASSERT_EQ(PKEY_SaveServerKey(p256), 0);
    EXPECT_TRUE(fsys::exists(dev_file("serverkey")));
    EXPECT_TRUE(same_pair(read_key(PKEY_ALG_ECDSA, PKEY_KEY_SERVER, "").get(), p256));
    EvpPkeyPtr ed(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    EXPECT_EQ(PKEY_SaveHostKey(ed.get()), kFailed);
}

}  // namespace
