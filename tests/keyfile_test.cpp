// Local key files through the real host platform: writing both copies,
// reading back, integrity, FIPS refusals, and creating host and server keys.
#include <gtest/gtest.h>
#include <openssl/obj_mac.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "pkey_local.h"
#include "pkey_pubkey.h"
#include "platform_control.h"
#include "test_keys.hpp"
#include "test_store.hpp"
#include "test_util.hpp"

namespace {

namespace fsys = std::filesystem;
using pkey::EvpPkeyPtr;
using pkey::test::get;
using pkey::test::put;
using pkey::test::same_pair;
constexpr int kFailed = static_cast<int>(PKEY_ERR_FAILED);

// The plain record of a stored host key; empty when refused.
std::string read_record(unsigned int alg, const char *name) {
    unsigned int len = 0;
    unsigned char *raw = PKEY_LOCAL_ReadKeyToBuf(alg, PKEY_KEY_HOST, name, &len);
    std::string out(reinterpret_cast<char *>(raw), raw != nullptr ? len : 0);
    std::free(raw);
    return out;
}
EvpPkeyPtr read_key(unsigned int alg, const char *name, unsigned int kind = PKEY_KEY_HOST) {
    PKEY_KEY_WITH_TIME_S *kt = PKEY_LOCAL_ReadKeyToEvpPkey(alg, kind, name);
    if (kt == nullptr) return nullptr;
    EvpPkeyPtr key(std::exchange(kt->pstKey, nullptr));
    PKEY_LOCAL_DestoryEvpkeyWithTime(kt);
    return key;
}
int save(unsigned int alg, EVP_PKEY *key, const char *name, unsigned int kind = PKEY_KEY_HOST) {
    return PKEY_LOCAL_SaveLocalKey(alg, kind, key, name);
}

class KeyFileTest : public pkey::test::StoreTest {
protected:
    EVP_PKEY *rsa1024 = pkey::test::test_key("rsa1024"), *dsa1024 = pkey::test::test_key("dsa1024");
    EVP_PKEY *p256 = pkey::test::test_key("p256"), *p521 = pkey::test::test_key("p521");
};

TEST_F(KeyFileTest, EveryAlgorithmRoundTripsAndFipsModeReadsOnlySha256ProtectedFiles) {
    const std::pair<unsigned int, EVP_PKEY *> rows[] = {{PKEY_ALG_RSA, rsa1024},
                                                        {PKEY_ALG_DSA, dsa1024},
                                                        {PKEY_ALG_ECDSA, p256},
                                                        {PKEY_ALG_ECDSA, p521}};
    for (int fips : {0, 1}) {
        PCTL_SetFipsMode(fips);
        for (const auto &[alg, key] : rows)
            for (const char *name : {"", "named-1"}) {
                ASSERT_EQ(save(alg, key, name), 0);
                EXPECT_TRUE(same_pair(read_key(alg, name).get(), key)) << fips << alg << name;
            }
        ASSERT_EQ(save(PKEY_ALG_RSA, rsa1024, "", PKEY_KEY_SERVER), 0);
        EXPECT_TRUE(same_pair(read_key(PKEY_ALG_RSA, "", PKEY_KEY_SERVER).get(), rsa1024));
        ASSERT_EQ(save(PKEY_ALG_ECDSA, p256, fips ? "sha" : "md5"), 0);
    }
    EXPECT_EQ(read_key(PKEY_ALG_ECDSA, "md5"), nullptr);
    EXPECT_TRUE(read_key(PKEY_ALG_ECDSA, "sha"));
    PCTL_SetFipsMode(0);
    EXPECT_TRUE(read_key(PKEY_ALG_ECDSA, "md5") && read_key(PKEY_ALG_ECDSA, "sha"));
}

TEST_F(KeyFileTest, BothCopiesHoldOneEncipheredImageStampedWithKindAndName) {
    ASSERT_EQ(save(PKEY_ALG_ECDSA, p256, ""), 0);
    const std::string record = read_record(PKEY_ALG_ECDSA, ""), image = get(mem("ecdsakey"));
    EXPECT_EQ(image, get(dev("ecdsakey")));
    ASSERT_GT(record.size(), 84u);
    ASSERT_EQ(image.size(), record.size() + 19);
    // The header is plain; the body is not.
    EXPECT_TRUE(std::equal(record.begin(), record.begin() + 84, image.begin()));
    EXPECT_FALSE(std::equal(record.begin() + 84, record.end(), image.begin() + 84));
    EXPECT_EQ(record[82], 3);

    const std::string long_name(70, 'n');
    ASSERT_EQ(PKEY_SaveLocalKey(long_name.c_str(), p256), 0);
    const std::string named = read_record(PKEY_ALG_ECDSA, long_name.c_str());
    ASSERT_GT(named.size(), 84u);
    EXPECT_EQ(static_cast<unsigned char>(named[8]), PKEY_KEY_HOST);
    EXPECT_EQ(std::string(named.c_str() + 9), long_name.substr(0, 64));
    EXPECT_EQ(PKEY_SaveLocalKey("", p256), kFailed);
}

// Every single-bit change of a key file outside the kind and name fields (which the
// digest leaves out) makes the lookup fail.
TEST_F(KeyFileTest, EveryBitFlipOutsideKindAndNameBreaksTheKey) {
    for (const auto &[alg, key, file] : {std::tuple{PKEY_ALG_ECDSA, p256, "ecdsakey"},
                                         {PKEY_ALG_DSA, dsa1024, "dsakey"},
                                         {PKEY_ALG_RSA, rsa1024, "hostkey"}}) {
        ASSERT_EQ(save(alg, key, ""), 0);
        const std::string path = mem(file), good = get(path);
        for (size_t bit = 0; bit < good.size() * 8; ++bit) {
            std::string bad = good;
            bad[bit / 8] = static_cast<char>(bad[bit / 8] ^ (1 << bit % 8));
            put(path, bad);
            const bool kind_or_name = bit / 8 >= 8 && bit / 8 <= 73;
            const EvpPkeyPtr got = read_key(alg, "");
            ASSERT_TRUE(kind_or_name ? same_pair(got.get(), key) : got == nullptr)
                << file << " byte " << bit / 8 << " bit " << bit % 8;
        }
        put(path, good);
        EXPECT_TRUE(same_pair(read_key(alg, "").get(), key)) << file;
    }
}

// A whole key file does not decipher under another store's device key.
TEST_F(KeyFileTest, AnotherStoresDeviceKeyBreaksTheKey) {
    PKEY_TEST_HOST_ONLY("each store of the host platform has a device key of its own");
    ASSERT_EQ(save(PKEY_ALG_ECDSA, p256, ""), 0);
    const std::string good = get(mem("ecdsakey"));
    pkey::test::TempStore other;
    ASSERT_EQ(save(PKEY_ALG_ECDSA, p256, ""), 0);
    put(other.mem_dir(1) + "/pkey/ecdsakey", good);
    EXPECT_EQ(read_key(PKEY_ALG_ECDSA, ""), nullptr);
    store.use();
}

TEST_F(KeyFileTest, RecordCheckCoversAllButKindAndNameAndPlainRecordsNeverPassIt) {
    unsigned int len = 0;
    unsigned char *raw = PKEY_PUBKEY_ConvertKeyToStoreBuf(p256, &len);
    ASSERT_NE(raw, nullptr);
    std::vector<unsigned char> record(raw, raw + len), out(len);
    std::free(raw);
    unsigned int out_len = 0;
    // A plain body under protection 3, an unknown protection and a partial header never decipher.
    for (unsigned char protection : {3, 9}) {
        record[82] = protection;
        EXPECT_EQ(PKEY_LOCAL_DecryptPKey(len, record.data(), len, out.data(), &out_len), kFailed);
    }
    EXPECT_EQ(PKEY_LOCAL_DecryptPKey(83, record.data(), len, out.data(), &out_len), kFailed);

    // Plain records are written as they are and read back, but never as a key.
    auto write = [&](unsigned int n, const char *name) {
        return PKEY_LOCAL_WriteKeyBufToDev(PKEY_ALG_ECDSA, PKEY_KEY_HOST, record.data(), n, name);
    };
    record[82] = 1;
    ASSERT_EQ(write(len, "plain"), 0);
    const std::string plain(record.begin(), record.end());
    EXPECT_EQ(get(mem("ecdsa/plain.key")), plain);
    EXPECT_EQ(read_record(PKEY_ALG_ECDSA, "plain"), plain);
    EXPECT_EQ(read_key(PKEY_ALG_ECDSA, "plain"), nullptr);
    PCTL_SetFipsMode(1);
    EXPECT_TRUE(read_record(PKEY_ALG_ECDSA, "plain").empty());
    PCTL_SetFipsMode(0);
    // Protection 2 and a record whose length field lies are never written.
    record[82] = 2;
    EXPECT_EQ(write(len, "two"), kFailed);
    record[82] = 3;
    EXPECT_EQ(write(len - 1, "short"), kFailed);
    EXPECT_FALSE(fsys::exists(mem("ecdsa/two.key")));
    EXPECT_FALSE(fsys::exists(dev("pkey/ecdsa/short.key")));

    record[8] = 64;
    record[40] = 'z';
    unsigned char protection = 0;
    EXPECT_EQ(PKEY_LOCAL_GetKeyStatusFromDataBuf(record.data(), len, &protection), 1);
    EXPECT_EQ(protection, 3);
    for (unsigned int i : {0u, 5u, 74u, 83u, 84u, len / 2, len - 1}) {
        record[i] ^= 0x80;
        EXPECT_EQ(PKEY_LOCAL_GetKeyStatusFromDataBuf(record.data(), len, nullptr), 0) << i;
        record[i] ^= 0x80;
    }
    EXPECT_EQ(PKEY_LOCAL_GetKeyStatusFromDataBuf(record.data(), len - 8, nullptr), 0);
    PCTL_SetAlgoEnabled(59, 0);  // MD5-protected records need MD5 to be allowed
    EXPECT_EQ(PKEY_LOCAL_GetKeyStatusFromDataBuf(record.data(), len, nullptr), 0);
}

TEST_F(KeyFileTest, CreationTimeComesBackAsText) {
    ASSERT_EQ(save(PKEY_ALG_DSA, dsa1024, ""), 0);
    const time_t now = time(nullptr);
    tm local{};
    char today[11];
    strftime(today, sizeof today, "%Y/%m/%d", localtime_r(&now, &local));
    PKEY_KEY_WITH_TIME_S *kt = PKEY_LOCAL_ReadKeyToEvpPkey(PKEY_ALG_DSA, PKEY_KEY_HOST, "");
    ASSERT_NE(kt, nullptr);
    EXPECT_STREQ(kt->szDate, today);
    EXPECT_TRUE(std::strlen(kt->szTime) == 8 && kt->szTime[2] == ':') << kt->szTime;
    PKEY_LOCAL_DestoryEvpkeyWithTime(kt);
}

TEST_F(KeyFileTest, AFailedCopyLeavesNeitherCopy) {
    // A directory standing where the device copy goes makes its open fail.
    fsys::create_directories(dev("hostkey"));
    EXPECT_EQ(save(PKEY_ALG_RSA, rsa1024, ""), kFailed);
    EXPECT_FALSE(fsys::exists(mem("hostkey")));
    EXPECT_EQ(read_key(PKEY_ALG_RSA, ""), nullptr);
    // And one where the memory copy goes stops the device write.
    fsys::create_directories(mem("dsakey"));
    EXPECT_EQ(save(PKEY_ALG_DSA, dsa1024, ""), kFailed);
    EXPECT_FALSE(fsys::exists(dev("dsakey")));
}

TEST_F(KeyFileTest, ASavedKeyReachesEveryStandbyNodesFlash) {
    const unsigned short standby[] = {2, 5};
    PCTL_SetStandbyNodes(standby, 2);
    ASSERT_EQ(save(PKEY_ALG_ECDSA, p256, "k"), 0);
    const std::string image = get(dev("pkey/ecdsa/k.key"));
    for (unsigned int node : {2u, 5u})
        EXPECT_EQ(get(store.work_dir(node) + "/pkey/ecdsa/k.key"), image) << node;
    EXPECT_FALSE(fsys::exists(store.mem_dir(2) + "/pkey"));
}

// ---- names and files that are not what they seem ---------------------------

TEST_F(KeyFileTest, KeyNamesThatLeaveTheKeyDirectoryAreRefusedBeforeAnythingIsTouched) {
    using pkey::test::NameAttack;
    unsigned int len = 0;
    pkey::MallocPtr<unsigned char> record(PKEY_PUBKEY_ConvertKeyToStoreBuf(p256, &len));
    ASSERT_TRUE(record);
    const unsigned char *rec = record.get();
    EVP_PKEY *key = p256, *rsa = rsa1024;
    pkey::test::expect_escaping_names_refused({
        {"PKEY_LOCAL_WriteKeyBufToDev", PKEY_ALG_ECDSA, key,
         [=](const char *n) {
             return PKEY_LOCAL_WriteKeyBufToDev(PKEY_ALG_ECDSA, PKEY_KEY_HOST, rec, len, n) ==
                    kFailed;
         }},
        {"PKEY_LOCAL_SaveLocalKey", PKEY_ALG_ECDSA, key,
         [=](const char *n) { return save(PKEY_ALG_ECDSA, key, n) == kFailed; }},
        {"PKEY_SaveLocalKey", PKEY_ALG_ECDSA, key,
         [=](const char *n) { return PKEY_SaveLocalKey(n, key) == kFailed; }},
        {"PKEY_LOCAL_ReadKeyToBuf", PKEY_ALG_ECDSA, key,
         [](const char *n) { return read_record(PKEY_ALG_ECDSA, n).empty(); }},
        {"PKEY_LOCAL_ReadKeyToEvpPkey", PKEY_ALG_ECDSA, key,
         [](const char *n) { return read_key(PKEY_ALG_ECDSA, n) == nullptr; }},
        {"PKEY_LOCAL_GenerateOneKey", PKEY_ALG_ECDSA, key,
         [](const char *n) {
             return PKEY_LOCAL_GenerateOneKey(PKEY_ALG_ECDSA, PKEY_NID_P256, PKEY_KEY_HOST, 0, n) ==
                    kFailed;
         }},
        {"PKEY_LOCAL_GenerateKey", PKEY_ALG_ECDSA, key,
         [](const char *n) {
             PKEY_KEYGEN_REQ_S r{};
             r.uiAlgId = PKEY_ALG_ECDSA;
             r.uiCurveNid = PKEY_NID_P256;
             std::snprintf(r.szKeyName, sizeof r.szKeyName, "%s", n);
             return PKEY_LOCAL_GenerateKey(&r) == kFailed;
         }},
        {"PKEY_UpdateServerKey", PKEY_ALG_RSA, rsa,
         [](const char *n) { return PKEY_UpdateServerKey(EVP_PKEY_RSA, n) == kFailed; }},
    });
}

// A hard link between the two copies, or a memory key directory linked to the
// flash work directory, makes both names one file. Writing it used to wait for
// ever on its own lock; now the write fails at once and the key on flash
// stays as it was.
TEST_F(KeyFileTest, OneFileUnderBothCopiesNamesFailsAWritePromptlyAndLosesNothing) {
    using pkey::test::exit_code_within;
    auto fails = [](auto call) {
        return exit_code_within([&] { return call() == kFailed ? 0 : 1; });
    };
    ASSERT_EQ(save(PKEY_ALG_RSA, rsa1024, ""), 0);
    const std::string flash_rsa = get(dev("hostkey"));
    fsys::remove(mem("hostkey"));
    fsys::create_hard_link(dev("hostkey"), mem("hostkey"));
    EXPECT_EQ(fails([&] { return save(PKEY_ALG_RSA, rsa1024, ""); }), 0);
    EXPECT_EQ(fails([&] { return PKEY_SaveHostKey(rsa1024); }), 0);
    EXPECT_EQ(get(dev("hostkey")), flash_rsa);
    EXPECT_TRUE(same_pair(read_key(PKEY_ALG_RSA, "").get(), rsa1024));

    // The memory key directory as a link to the work directory: the default
    // keys of both copies are then one path.
    ASSERT_EQ(save(PKEY_ALG_DSA, dsa1024, ""), 0);
    const std::string flash_dsa = get(dev("dsakey"));
    fsys::remove_all(store.mem_dir(1) + "/pkey");
    fsys::create_directory_symlink(store.work_dir(1), store.mem_dir(1) + "/pkey");
    EXPECT_EQ(fails([&] { return save(PKEY_ALG_DSA, dsa1024, ""); }), 0);
    EXPECT_EQ(get(dev("dsakey")), flash_dsa);
    // A new key is made as the memory copy, the device open finds the file
    // this thread holds, and the clean-up removes it: nothing is left behind.
    EXPECT_EQ(fails([&] {
                  return PKEY_LOCAL_GenerateOneKey(PKEY_ALG_ECDSA, PKEY_NID_P256, PKEY_KEY_HOST, 0,
                                                   "");
              }),
              0);
    EXPECT_FALSE(fsys::exists(dev("ecdsakey")));
    EXPECT_EQ(get(dev("dsakey")), flash_dsa);
}

TEST_F(KeyFileTest, AFifoInPlaceOfAKeyFileFailsReadsAndWritesPromptly) {
    fsys::create_directories(store.mem_dir(1) + "/pkey/ecdsa");
    fsys::create_directories(store.work_dir(1) + "/pkey/ecdsa");
    ASSERT_EQ(mkfifo(mem("ecdsa/m.key").c_str(), 0660), 0);
    ASSERT_EQ(mkfifo(dev("pkey/ecdsa/d.key").c_str(), 0660), 0);
    EXPECT_EQ(pkey::test::exit_code_within([&] {
                  return read_key(PKEY_ALG_ECDSA, "m") == nullptr &&
                                 PKEY_GetHostKey(EVP_PKEY_EC, "m") == nullptr &&
                                 save(PKEY_ALG_ECDSA, p256, "m") == kFailed &&
                                 save(PKEY_ALG_ECDSA, p256, "d") == kFailed
                             ? 0
                             : 1;
              }),
              0);
    // The FIFOs are still there; the failed save left no memory copy of "d".
    EXPECT_TRUE(fsys::is_fifo(mem("ecdsa/m.key")) && fsys::is_fifo(dev("pkey/ecdsa/d.key")));
    EXPECT_FALSE(fsys::exists(mem("ecdsa/d.key")));
}

// Threads of one process wait for each other's locks as processes do; the
// record of a thread's own locks must not turn another thread away.
TEST_F(KeyFileTest, ThreadsContendingForOneKeyFileAllSucceed) {
    EXPECT_EQ(pkey::test::exit_code_within([&] {
                  std::atomic<int> failures{0};
                  auto work = [&](EVP_PKEY *key) {
                      for (int i = 0; i < 40; ++i) {
                          if (save(PKEY_ALG_ECDSA, key, "shared") != 0) ++failures;
                          // A read may meet a write's empty file; it fails then, cleanly.
                          const EvpPkeyPtr got = read_key(PKEY_ALG_ECDSA, "shared");
                          if (got && !same_pair(got.get(), p256) && !same_pair(got.get(), p521))
                              ++failures;
                      }
                  };
                  std::thread a(work, p256), b(work, p521);
                  a.join();
                  b.join();
                  return failures.load();
              }),
              0);
    const EvpPkeyPtr last = read_key(PKEY_ALG_ECDSA, "shared");
    EXPECT_TRUE(same_pair(last.get(), p256) || same_pair(last.get(), p521));
}

// ---- creating and replacing -------------------------------------------------

using CreateTest = KeyFileTest;

int generate(unsigned int alg, unsigned int bits, const char *name = "", unsigned int curve = 0) {
    PKEY_KEYGEN_REQ_S r{};
    r.uiAlgId = alg;
    r.uiKeyBits = bits;
    r.uiCurveNid = curve;
    std::snprintf(r.szKeyName, sizeof r.szKeyName, "%s", name);
    return PKEY_LOCAL_GenerateKey(&r);
}
unsigned int bits_of(unsigned int alg, const char *name, unsigned int kind) {
    EvpPkeyPtr k = read_key(alg, name, kind);
    return k ? PKEY_PUBKEY_GetKeyBits(k.get()) : 0;
}

TEST_F(CreateTest, TheDefaultRsaHostKeyBringsAServerKeyOutsideFipsModeWithinTheTable) {
    const struct {
        int fips;
        unsigned int host;
        const char *name;
        unsigned int server;  // 0: none
    } rows[] = {{1, 2048, "", 0},  {0, 1024, "named", 0}, {0, 2304, "", 0},  {0, 512, "", 768},
                {0, 704, "", 896}, {0, 800, "", 640},     {0, 1024, "", 768}};
    for (const auto &r : rows) {
        PCTL_SetFipsMode(r.fips);
        ASSERT_EQ(generate(PKEY_ALG_RSA, r.host, r.name), 0);
        EXPECT_EQ(bits_of(PKEY_ALG_RSA, r.name, PKEY_KEY_HOST), r.host);
        EXPECT_EQ(bits_of(PKEY_ALG_RSA, "", PKEY_KEY_SERVER), r.server) << r.host << r.name;
        EXPECT_EQ(fsys::exists(dev("serverkey")), r.server != 0) << r.host << r.name;
    }
}

TEST_F(CreateTest, EcdsaAndDsaRequestsUseTheirCurveOrSize) {
    ASSERT_EQ(generate(PKEY_ALG_ECDSA, 0, "", NID_secp384r1), 0);
    EXPECT_EQ(bits_of(PKEY_ALG_ECDSA, "", PKEY_KEY_HOST), 384u);
    ASSERT_EQ(generate(PKEY_ALG_DSA, 1024, "d"), 0);
    EXPECT_EQ(bits_of(PKEY_ALG_DSA, "d", PKEY_KEY_HOST), 1024u);
    PCTL_SetFipsMode(1);
    EXPECT_EQ(generate(PKEY_ALG_ECDSA, 0, "", NID_X9_62_prime192v1), kFailed);
    for (unsigned int alg : {0u, 4u})
        EXPECT_EQ(PKEY_LOCAL_GenerateOneKey(alg, 0, PKEY_KEY_HOST, 1024, ""), kFailed) << alg;
}

TEST_F(CreateTest, RenewingTheServerKeyKeepsItsSizeOrDerivesIt) {
    EXPECT_EQ(PKEY_UpdateServerKey(EVP_PKEY_RSA, ""), kFailed);  // neither key exists
    ASSERT_EQ(generate(PKEY_ALG_RSA, 800), 0);                   // server key of 640 bits
    EvpPkeyPtr before = read_key(PKEY_ALG_RSA, "", PKEY_KEY_SERVER);
    ASSERT_TRUE(before);
    ASSERT_EQ(PKEY_UpdateServerKey(EVP_PKEY_RSA, ""), 0);
    EXPECT_EQ(bits_of(PKEY_ALG_RSA, "", PKEY_KEY_SERVER), 640u);
    EXPECT_NE(EVP_PKEY_eq(before.get(), read_key(PKEY_ALG_RSA, "", PKEY_KEY_SERVER).get()), 1);
    // Without a server key, its size follows the host key.
    fsys::remove(mem("serverkey"));
    ASSERT_EQ(PKEY_SaveHostKey(rsa1024), 0);
    ASSERT_EQ(PKEY_UpdateServerKey(EVP_PKEY_RSA, ""), 0);
    EXPECT_EQ(bits_of(PKEY_ALG_RSA, "", PKEY_KEY_SERVER), 768u);
    const std::string server = get(dev("serverkey"));
    EXPECT_EQ(PKEY_UpdateServerKey(EVP_PKEY_DSA, ""), kFailed);
    EXPECT_EQ(get(dev("serverkey")), server);
}

TEST_F(CreateTest, CallersKeysAreStoredAsDefaultHostOrServerKey) {
    ASSERT_EQ(PKEY_SaveHostKey(dsa1024), 0);
    EXPECT_TRUE(same_pair(read_key(PKEY_ALG_DSA, "").get(), dsa1024));
    // Any supported key becomes the one server key file.
    ASSERT_EQ(PKEY_SaveServerKey(p256), 0);
    EXPECT_TRUE(fsys::exists(dev("serverkey")));
    EXPECT_TRUE(same_pair(read_key(PKEY_ALG_ECDSA, "", PKEY_KEY_SERVER).get(), p256));
    EvpPkeyPtr ed(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    EXPECT_EQ(PKEY_SaveHostKey(ed.get()), kFailed);
}

}  // namespace
