// Local key names, lookups of stored keys, the existence test, the guard for
// user file names and the FIPS sweep of stored key files.
#include <gtest/gtest.h>
#include <openssl/obj_mac.h>

#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "host_platform.h"
#include "pkey_local.h"
#include "pkey_util.hpp"
#include "test_store.hpp"

namespace {

namespace fsys = std::filesystem;
using pkey::EvpPkeyPtr;
constexpr int kFailed = static_cast<int>(PKEY_ERR_FAILED);

// Keys are costly to make: one of each per test program.
struct Keys {
    EvpPkeyPtr rsa1024{PKEY_GenerateRSAKey(1024)};
    EvpPkeyPtr rsa2048{PKEY_GenerateRSAKey(2048)};
    EvpPkeyPtr dsa1024{PKEY_GenerateDSAKey(1024)};
    EvpPkeyPtr p192{PKEY_GenerateECKey(NID_X9_62_prime192v1)};
    EvpPkeyPtr p256{PKEY_GenerateECKey(NID_X9_62_prime256v1)};
};
const Keys &keys() {
    static const Keys k;  // first made while FIPS mode is off, so P-192 is allowed
    return k;
}

class LookupTest : public ::testing::Test {
protected:
    void SetUp() override {
        const Keys &k = keys();
        ASSERT_TRUE(k.rsa1024 && k.rsa2048 && k.dsa1024 && k.p192 && k.p256);
    }

    std::string dev(const std::string &rel) const { return store.work_dir(1) + "/" + rel; }
    // Protection 3 (MD5) outside FIPS mode, 4 (SHA-256) when saved in FIPS mode.
    static void save(unsigned int alg, unsigned int kind, const EvpPkeyPtr &key,
                     const char *name, bool fips = false) {
        HOST_SetFipsMode(fips ? 1 : 0);
        ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(alg, kind, key.get(), name), 0) << name;
        HOST_SetFipsMode(0);
    }
    static int sweep(const std::string &path, bool fips) {
        HOST_SetFipsMode(fips ? 1 : 0);
        const int r = PKEY_DestroyNonFIPSApprovedKeyPairs(path.c_str());
        HOST_SetFipsMode(0);
        return r;
    }

    pkey::test::TempStore store;
};

TEST_F(LookupTest, KeyNameCharactersAreAsciiLettersDigitsAndDashOnly) {
    for (int c : {'a', 'z', 'A', 'Z', '0', '9', '-'})
        EXPECT_EQ(PKEY_LOCAL_IsKeyNameCharValid(c), 1) << c;
    // Bytes of UTF-8 or Latin-1 letters and ints outside a byte are never valid.
    const int invalid[] = {'_', '.', ' ', '/', 0, -1, 0x80, 0xE9, 0xFF, 'a' + 256, INT_MIN,
                           INT_MAX};
    for (int c : invalid)
        EXPECT_EQ(PKEY_LOCAL_IsKeyNameCharValid(c), 0) << c;

    EXPECT_EQ(PKEY_CheckLocalKeyName("rsa-key-1"), 0);
    for (const char *bad : {"rsa-key_1", "", "caf\xc3\xa9", "a b", "key.key"})
        EXPECT_EQ(PKEY_CheckLocalKeyName(bad), kFailed) << bad;
    EXPECT_EQ(PKEY_CheckLocalKeyName(nullptr), kFailed);

    char name[] = "rsa-key_1";
    PKEY_AdjustLocalKeyNameToValid(name);
    EXPECT_STREQ(name, "rsa-key-1");
    char odd[] = "a b.\xe9Z";
    PKEY_AdjustLocalKeyNameToValid(odd);
    EXPECT_STREQ(odd, "a-b--Z");
    EXPECT_EQ(PKEY_CheckLocalKeyName(odd), 0);
    PKEY_AdjustLocalKeyNameToValid(nullptr);
}

TEST_F(LookupTest, LocalKeyNameCutsOnlyATrailingKeyExtension) {
    const struct {
        const char *in, *out;
        int result;
    } cases[] = {{"abc.key", "abc", 0},     {".key", "", 0},           {"a.key.key", "a.key", 0},
                 {"key", "key", kFailed},   {"abc.pem", "abc.pem", kFailed},
                 {"abc.KEY", "abc.KEY", kFailed}, {"", "", kFailed}};
    for (const auto &c : cases) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%s", c.in);
        EXPECT_EQ(PKEY_LOCAL_GetLocalKeyName(buf), c.result) << c.in;
        EXPECT_STREQ(buf, c.out);
    }
    EXPECT_EQ(PKEY_LOCAL_GetLocalKeyName(nullptr), kFailed);
}

TEST_F(LookupTest, LookupsReturnTheStoredKeyOfEachKindAndName) {
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, keys().rsa1024, "");
    save(PKEY_ALG_RSA, PKEY_KEY_SERVER, keys().rsa2048, "");
    save(PKEY_ALG_ECDSA, PKEY_KEY_HOST, keys().p256, "mine");
    const struct {
        EVP_PKEY *got;
        const EvpPkeyPtr &want;
    } found[] = {{PKEY_GetHostKey(EVP_PKEY_RSA, ""), keys().rsa1024},
                 {PKEY_GetServerKey(EVP_PKEY_RSA, ""), keys().rsa2048},
                 {PKEY_GetHostKey(EVP_PKEY_EC, "mine"), keys().p256},
                 {PKEY_LOCAL_GetLocKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "mine"), keys().p256}};
    for (const auto &f : found) {
        EvpPkeyPtr got(f.got);
        ASSERT_TRUE(got);
        EXPECT_EQ(EVP_PKEY_eq(got.get(), f.want.get()), 1);
    }
    EXPECT_EQ(PKEY_IsKeyExist(EVP_PKEY_RSA, ""), 1);
    EXPECT_EQ(PKEY_IsKeyExist(EVP_PKEY_EC, "mine"), 1);
    EXPECT_EQ(PKEY_LOCAL_IsKeyExist(PKEY_ALG_ECDSA, "mine"), 1);
}

TEST_F(LookupTest, LookupsGiveNothingForMissingWrongOrCorruptKeys) {
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, keys().rsa1024, "");
    save(PKEY_ALG_DSA, PKEY_KEY_HOST, keys().dsa1024, "d1");
    for (EVP_PKEY *k : {PKEY_GetHostKey(EVP_PKEY_RSA, "none"), PKEY_GetHostKey(EVP_PKEY_EC, "d1"),
                        PKEY_GetHostKey(EVP_PKEY_ED25519, ""), PKEY_GetHostKey(-1, ""),
                        PKEY_GetHostKey(EVP_PKEY_RSA, nullptr), PKEY_GetServerKey(EVP_PKEY_RSA, ""),
                        PKEY_GetServerKey(EVP_PKEY_RSA, nullptr),
                        PKEY_LOCAL_GetLocKey(PKEY_ALG_UNSUPPORTED, PKEY_KEY_HOST, "")})
        EXPECT_EQ(k, nullptr);
    EXPECT_EQ(PKEY_IsKeyExist(EVP_PKEY_DSA, "none"), 0);
    EXPECT_EQ(PKEY_IsKeyExist(EVP_PKEY_RSA, nullptr), 0);
    EXPECT_EQ(PKEY_IsKeyExist(EVP_PKEY_ED25519, ""), 0);
    EXPECT_EQ(PKEY_LOCAL_IsKeyExist(PKEY_ALG_UNSUPPORTED, ""), 0);

    // A damaged memory copy still exists but is no longer handed out.
    const std::string mem = store.mem_dir(1) + "/pkey/dsa/d1.key";
    {
        std::fstream f(mem, std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(4);
        f.put('\x55');  // the record marker, covered by the digest
    }
    EXPECT_EQ(PKEY_GetHostKey(EVP_PKEY_DSA, "d1"), nullptr);
    EXPECT_EQ(PKEY_IsKeyExist(EVP_PKEY_DSA, "d1"), 1);
}

TEST_F(LookupTest, ServerKeyOfAnotherTypeIsRefusedBeforeTheMirrorIsMade) {
    save(PKEY_ALG_RSA, PKEY_KEY_SERVER, keys().rsa1024, "");
    fsys::remove_all(store.mem_dir(1) + "/pkey");
    EXPECT_EQ(PKEY_GetServerKey(EVP_PKEY_DSA, ""), nullptr);
    EXPECT_FALSE(fsys::exists(store.mem_dir(1) + "/pkey"));
    // An RSA lookup refills the mirror from flash and finds the key.
    EvpPkeyPtr got(PKEY_GetServerKey(EVP_PKEY_RSA, ""));
    ASSERT_TRUE(got);
    EXPECT_EQ(EVP_PKEY_eq(got.get(), keys().rsa1024.get()), 1);
}

TEST_F(LookupTest, FileNameGuardKeepsUserOperationsOutOfTheKeyStore) {
    const std::string work = store.work_dir(1);
    fsys::create_directories(work + "/pkey/rsa");
    fsys::create_directories(store.root() + "/elsewhere");
    fsys::create_directory_symlink(work, store.root() + "/link");
    fsys::create_directory_symlink(work + "/pkey", store.root() + "/elsewhere/keys");
    const std::string refused[] = {
        "flash:/hostkey", "flash:/HostKey", "FLASH:/ServerKey", "flash:/dsakey",
        "flash:/ecdsakey", "flash:/pkey/rsa/a.key", "flash:/PKey/RSA/a.key", "flash:/pkey",
        "flash:/pkey/", "flash:/pkey/rsa/..", "flash://pkey//rsa/a.key", "flash:///hostkey",
        "flash:/./hostkey", "flash:/x/../hostkey", "flash:/x/../pkey/a.key", "slot1#flash:/hostkey",
        work + "/hostkey", work + "//HOSTKEY", work + "/pkey/dsa/k.key",
        store.root() + "/node1//flash/pkey/", store.root() + "/link/hostkey",
        store.root() + "/link/Pkey/rsa/a.key", store.root() + "/elsewhere/keys/rsa/a.key",
        work + "/x/../hostkey", "flash:/a/./b.txt", "flash:/dir/../notes.txt", "",
        "relative/hostkey"};
    for (const std::string &name : refused)
        EXPECT_EQ(PKEY_LOCAL_CheckFullFileName(name.c_str(), 0, 0, 0), kFailed) << name;
    EXPECT_EQ(PKEY_LOCAL_CheckFullFileName(nullptr, 0, 0, 0), kFailed);

    const std::string allowed[] = {
        "flash:/dir/hostkey", "flash:/hostkey.bak", "flash:/pkeys/a.key", "flash:/dir/pkey/a.key",
        "slot2#flash:/hostkey", "slot2#flash:/pkey/rsa/a.key", "cfcard:/hostkey",
        work + "/sub/hostkey", store.root() + "/node2/flash/hostkey", store.root() + "/hostkey"};
    for (const std::string &name : allowed)
        EXPECT_EQ(PKEY_LOCAL_CheckFullFileName(name.c_str(), 0, 0, 0), 0) << name;

    // The guard follows the running board's slot.
    HOST_SetSelfNode(2);
    EXPECT_EQ(PKEY_LOCAL_CheckFullFileName("flash:/hostkey", 0, 0, 0), kFailed);
    EXPECT_EQ(PKEY_LOCAL_CheckFullFileName((work + "/hostkey").c_str(), 0, 0, 0), 0);
    HOST_SetSelfNode(1);
}

TEST_F(LookupTest, SweepOutsideFipsModeRemovesMd5ProtectedKeysOnly) {
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, keys().rsa1024, "");       // MD5
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, keys().rsa2048, "old");    // MD5, large enough
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, keys().rsa1024, "new", true);  // SHA-256
    save(PKEY_ALG_ECDSA, PKEY_KEY_HOST, keys().p192, "e", true);
    fsys::copy_file(dev("pkey/rsa/old.key"), dev("pkey/rsa/old.bak"));

    // Without a "pkey" directory in the path nothing is looked at; the store
    // root's own name (pkey-test-...) is no key directory.
    EXPECT_EQ(sweep(store.work_dir(1) + "/", false), 0);
    EXPECT_EQ(PKEY_DestroyNonFIPSApprovedKeyPairs(nullptr), 0);
    EXPECT_TRUE(fsys::exists(dev("hostkey")));

    EXPECT_EQ(sweep(dev("pkey/"), false), 0);
    EXPECT_FALSE(fsys::exists(dev("hostkey")));
    EXPECT_FALSE(fsys::exists(dev("pkey/rsa/old.key")));
    EXPECT_TRUE(fsys::exists(dev("pkey/rsa/old.bak")));  // not a key file name
    EXPECT_TRUE(fsys::exists(dev("pkey/rsa/new.key")));  // sizes follow the current mode
    EXPECT_TRUE(fsys::exists(dev("pkey/ecdsa/e.key")));
}

TEST_F(LookupTest, SweepInFipsModeRemovesKeysThePolicyRefuses) {
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, keys().rsa1024, "", true);
    save(PKEY_ALG_RSA, PKEY_KEY_SERVER, keys().rsa1024, "", true);
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, keys().rsa2048, "big", true);
    save(PKEY_ALG_DSA, PKEY_KEY_HOST, keys().dsa1024, "", true);
    save(PKEY_ALG_DSA, PKEY_KEY_HOST, keys().dsa1024, "d", true);
    save(PKEY_ALG_ECDSA, PKEY_KEY_HOST, keys().p192, "", true);
    save(PKEY_ALG_ECDSA, PKEY_KEY_HOST, keys().p256, "p256", true);
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, keys().rsa1024, "md5");  // unreadable in FIPS mode
    std::ofstream(dev("pkey/rsa/junk.key")) << "not a key file";

    EXPECT_EQ(sweep(dev("pkey/"), true), 0);
    for (const char *gone : {"hostkey", "serverkey", "dsakey", "pkey/dsa/d.key", "ecdsakey"})
        EXPECT_FALSE(fsys::exists(dev(gone))) << gone;
    for (const char *kept : {"pkey/rsa/big.key", "pkey/ecdsa/p256.key", "pkey/rsa/md5.key",
                             "pkey/rsa/junk.key"})
        EXPECT_TRUE(fsys::exists(dev(kept))) << kept;
}

TEST_F(LookupTest, SweepReportsTheEcdsaDirectoryOnly) {
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, keys().rsa1024, "r");
    // No ecdsa directory: the result is the failed listing even though the
    // RSA directory was swept.
    EXPECT_LT(sweep(dev("pkey/"), false), 0);
    EXPECT_FALSE(fsys::exists(dev("pkey/rsa/r.key")));
}

}  // namespace
