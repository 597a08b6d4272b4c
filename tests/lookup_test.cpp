// Local key names, lookups of stored keys, the existence test, the guard for
// user file names and the FIPS sweep of stored key files.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>
#include <utility>

#include "pkey_local.h"
#include "pkey_util.hpp"
#include "platform_control.h"
#include "test_keys.hpp"
#include "test_store.hpp"

namespace {

namespace fsys = std::filesystem;
using pkey::EvpPkeyPtr;
constexpr int kFailed = static_cast<int>(PKEY_ERR_FAILED);

EVP_PKEY *key(const char *name) { return pkey::test::test_key(name); }

class LookupTest : public pkey::test::StoreTest {
protected:
    // Protection 3 (MD5) outside FIPS mode, 4 (SHA-256) when saved in FIPS mode.
    static void save(unsigned int alg, unsigned int kind, EVP_PKEY *k, const char *name,
                     bool fips = false) {
        PCTL_SetFipsMode(fips ? 1 : 0);
        ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(alg, kind, k, name), 0) << name;
    }
    static int sweep(const std::string &path, bool fips) {
        PCTL_SetFipsMode(fips ? 1 : 0);
        return PKEY_DestroyNonFIPSApprovedKeyPairs(path.c_str());
    }
};

TEST_F(LookupTest, KeyNameCharactersAreAsciiLettersDigitsAndDashOnly) {
    for (int c : {'a', 'z', 'A', 'Z', '0', '9', '-'})
        EXPECT_EQ(PKEY_LOCAL_IsKeyNameCharValid(c), 1) << c;
    // Bytes of UTF-8 or Latin-1 letters and ints outside a byte are never valid.
    for (int c : std::initializer_list<int>{'_', '.', ' ', '/', 0, -1, 0x80, 0xE9, 0xFF, 'a' + 256,
                                            INT_MIN, INT_MAX})
        EXPECT_EQ(PKEY_LOCAL_IsKeyNameCharValid(c), 0) << c;

    EXPECT_EQ(PKEY_CheckLocalKeyName("rsa-key-1"), 0);
    for (const char *bad : {"rsa-key_1", "", "caf\xc3\xa9", "a b", "key.key"})
        EXPECT_EQ(PKEY_CheckLocalKeyName(bad), kFailed) << bad;
    char odd[] = "a b.\xe9Z_1";
    PKEY_AdjustLocalKeyNameToValid(odd);
    EXPECT_STREQ(odd, "a-b--Z-1");
    EXPECT_EQ(PKEY_CheckLocalKeyName(odd), 0);
}

TEST_F(LookupTest, LocalKeyNameCutsOnlyATrailingKeyExtension) {
    // A name without the extension comes back as it is, and fails.
    const std::pair<const char *, const char *> cases[] = {
        {"abc.key", "abc"},   {".key", ""},         {"a.key.key", "a.key"}, {"key", nullptr},
        {"abc.pem", nullptr}, {"abc.KEY", nullptr}, {"", nullptr}};
    for (const auto &[in, out] : cases) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%s", in);
        EXPECT_EQ(PKEY_LOCAL_GetLocalKeyName(buf), out ? 0 : kFailed) << in;
        EXPECT_STREQ(buf, out ? out : in);
    }
}

TEST_F(LookupTest, LookupsReturnTheStoredKeyOfEachKindAndName) {
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, key("rsa1024"), "");
    save(PKEY_ALG_RSA, PKEY_KEY_SERVER, key("rsa2048"), "");
    save(PKEY_ALG_ECDSA, PKEY_KEY_HOST, key("p256"), "mine");
    const std::pair<EVP_PKEY *, EVP_PKEY *> found[] = {
        {PKEY_GetHostKey(EVP_PKEY_RSA, ""), key("rsa1024")},
        {PKEY_GetServerKey(EVP_PKEY_RSA, ""), key("rsa2048")},
        {PKEY_GetHostKey(EVP_PKEY_EC, "mine"), key("p256")},
        {PKEY_LOCAL_GetLocKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "mine"), key("p256")}};
    for (const auto &[got, want] : found) {
        EXPECT_EQ(EVP_PKEY_eq(got, want), 1);
        EVP_PKEY_free(got);
    }
    EXPECT_EQ(PKEY_IsKeyExist(EVP_PKEY_RSA, ""), 1);
    EXPECT_EQ(PKEY_IsKeyExist(EVP_PKEY_EC, "mine"), 1);
    EXPECT_EQ(PKEY_LOCAL_IsKeyExist(PKEY_ALG_ECDSA, "mine"), 1);
}

TEST_F(LookupTest, LookupsGiveNothingForMissingWrongOrCorruptKeys) {
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, key("rsa1024"), "");
    save(PKEY_ALG_DSA, PKEY_KEY_HOST, key("dsa1024"), "d1");
    for (EVP_PKEY *k : {PKEY_GetHostKey(EVP_PKEY_RSA, "none"), PKEY_GetHostKey(EVP_PKEY_EC, "d1"),
                        PKEY_GetHostKey(EVP_PKEY_ED25519, ""), PKEY_GetHostKey(-1, ""),
                        PKEY_GetServerKey(EVP_PKEY_RSA, ""),
                        PKEY_LOCAL_GetLocKey(PKEY_ALG_UNSUPPORTED, PKEY_KEY_HOST, "")})
        EXPECT_EQ(k, nullptr);
    EXPECT_EQ(PKEY_IsKeyExist(EVP_PKEY_DSA, "none"), 0);
    EXPECT_EQ(PKEY_IsKeyExist(EVP_PKEY_ED25519, ""), 0);
    EXPECT_EQ(PKEY_LOCAL_IsKeyExist(PKEY_ALG_UNSUPPORTED, ""), 0);

    // A damaged memory copy still exists but is no longer handed out.
    // Its record marker, covered by the digest, changes.
    std::fstream(mem("dsa/d1.key"), std::ios::in | std::ios::out | std::ios::binary)
        .seekp(4)
        .put('\x55');
    EXPECT_EQ(PKEY_GetHostKey(EVP_PKEY_DSA, "d1"), nullptr);
    EXPECT_EQ(PKEY_IsKeyExist(EVP_PKEY_DSA, "d1"), 1);
}

TEST_F(LookupTest, LookupsAndTheExistenceTestRefuseNamesThatLeaveTheKeyDirectory) {
    EVP_PKEY *ec = key("p256"), *rsa = key("rsa1024");
    pkey::test::expect_escaping_names_refused({
        {"PKEY_LOCAL_GetLocKey", PKEY_ALG_ECDSA, ec,
         [](const char *n) {
             return EvpPkeyPtr(PKEY_LOCAL_GetLocKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, n)) == nullptr;
         }},
        {"PKEY_GetHostKey", PKEY_ALG_ECDSA, ec,
         [](const char *n) { return EvpPkeyPtr(PKEY_GetHostKey(EVP_PKEY_EC, n)) == nullptr; }},
        {"PKEY_GetServerKey", PKEY_ALG_RSA, rsa,
         [](const char *n) { return EvpPkeyPtr(PKEY_GetServerKey(EVP_PKEY_RSA, n)) == nullptr; }},
        {"PKEY_LOCAL_IsKeyExist", PKEY_ALG_ECDSA, ec,
         [](const char *n) { return PKEY_LOCAL_IsKeyExist(PKEY_ALG_ECDSA, n) == 0; }},
        {"PKEY_IsKeyExist", PKEY_ALG_ECDSA, ec,
         [](const char *n) { return PKEY_IsKeyExist(EVP_PKEY_EC, n) == 0; }},
    });
}

TEST_F(LookupTest, ServerKeyOfAnotherTypeIsRefusedBeforeTheMirrorIsMade) {
    save(PKEY_ALG_RSA, PKEY_KEY_SERVER, key("rsa1024"), "");
    fsys::remove_all(store.mem_dir(1) + "/pkey");
    EXPECT_EQ(PKEY_GetServerKey(EVP_PKEY_DSA, ""), nullptr);
    EXPECT_FALSE(fsys::exists(store.mem_dir(1) + "/pkey"));
    // An RSA lookup refills the mirror from flash and finds the key.
    EvpPkeyPtr got(PKEY_GetServerKey(EVP_PKEY_RSA, ""));
    EXPECT_EQ(EVP_PKEY_eq(got.get(), key("rsa1024")), 1);
}

TEST_F(LookupTest, FileNameGuardKeepsUserOperationsOutOfTheKeyStore) {
    const std::string work = store.work_dir(1);
    fsys::create_directories(work + "/pkey/rsa");
    const std::string refused[] = {work + "/hostkey", work + "/pkey/dsa/k.key",
                                   work + "/x/../hostkey", "", "relative/hostkey"};
    for (const std::string &name : refused)
        EXPECT_EQ(PKEY_LOCAL_CheckFullFileName(name.c_str(), 0, 0, 0), kFailed) << name;
    EXPECT_EQ(PKEY_LOCAL_CheckFullFileName((work + "/sub/hostkey").c_str(), 0, 0, 0), 0);
}

// The host platform's device form ("slot2#flash:/...") and every other
// spelling of a work directory that its file-name analysis sees through.
TEST_F(LookupTest, FileNameGuardSeesThroughEverySpellingOfTheKeyStore) {
    PKEY_TEST_HOST_ONLY("device-form names and the store layout of the host platform");
    const std::string work = store.work_dir(1), r = store.root();
    fsys::create_directories(work + "/pkey/rsa");
    fsys::create_directories(r + "/elsewhere");
    fsys::create_directory_symlink(work, r + "/link");
    fsys::create_directory_symlink(work + "/pkey", r + "/elsewhere/keys");
    const std::string refused[] = {
        "flash:/hostkey", "flash:/HostKey", "FLASH:/ServerKey", "flash:/dsakey", "flash:/ecdsakey",
        "flash:/pkey/rsa/a.key", "flash:/PKey/RSA/a.key", "flash:/pkey", "flash:/pkey/",
        "flash:/pkey/rsa/..", "flash://pkey//rsa/a.key", "flash:///hostkey", "flash:/./hostkey",
        "flash:/x/../hostkey", "flash:/x/../pkey/a.key", "slot1#flash:/hostkey", work + "//HOSTKEY",
        r + "/node1//flash/pkey/", r + "/link/hostkey", r + "/link/Pkey/rsa/a.key",
        r + "/elsewhere/keys/rsa/a.key", "flash:/a/./b.txt", "flash:/dir/../notes.txt",
        // Another node's key files are the store's too.
        "slot2#flash:/hostkey", "slot2#flash:/pkey/rsa/a.key", r + "/node2/flash/hostkey"};
    for (const std::string &name : refused)
        EXPECT_EQ(PKEY_LOCAL_CheckFullFileName(name.c_str(), 0, 0, 0), kFailed) << name;

    const std::string allowed[] = {
        "flash:/dir/hostkey",    "flash:/hostkey.bak",     "flash:/pkeys/a.key",
        "flash:/dir/pkey/a.key", "slot2#flash:/notes.txt", "cfcard:/hostkey",
        r + "/hostkey"};
    for (const std::string &name : allowed)
        EXPECT_EQ(PKEY_LOCAL_CheckFullFileName(name.c_str(), 0, 0, 0), 0) << name;

    // The guard follows the running board's slot.
    PCTL_SetSelfNode(2);
    EXPECT_EQ(PKEY_LOCAL_CheckFullFileName("flash:/hostkey", 0, 0, 0), kFailed);
    EXPECT_EQ(PKEY_LOCAL_CheckFullFileName("slot1#flash:/notes.txt", 0, 0, 0), 0);
}

TEST_F(LookupTest, SweepOutsideFipsModeRemovesMd5ProtectedKeysOnly) {
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, key("rsa1024"), "");           // MD5
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, key("rsa2048"), "old");        // MD5, large enough
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, key("rsa1024"), "new", true);  // SHA-256
    save(PKEY_ALG_ECDSA, PKEY_KEY_HOST, key("p192"), "e", true);
    fsys::copy_file(dev("pkey/rsa/old.key"), dev("pkey/rsa/old.bak"));

    // Without a "pkey" directory in the path nothing is looked at; the store
    // root's own name (pkey-test-...) is no key directory.
    EXPECT_EQ(sweep(store.work_dir(1) + "/", false), 0);
    EXPECT_TRUE(fsys::exists(dev("hostkey")));

    EXPECT_EQ(sweep(dev("pkey/"), false), 0);
    EXPECT_FALSE(fsys::exists(dev("hostkey")) || fsys::exists(dev("pkey/rsa/old.key")));
    // Kept: a file whose name is no key file name, and SHA-256 files (sizes follow the mode).
    for (const char *kept : {"pkey/rsa/old.bak", "pkey/rsa/new.key", "pkey/ecdsa/e.key"})
        EXPECT_TRUE(fsys::exists(dev(kept))) << kept;
}

TEST_F(LookupTest, SweepInFipsModeRemovesKeysThePolicyRefuses) {
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, key("rsa1024"), "", true);
    save(PKEY_ALG_RSA, PKEY_KEY_SERVER, key("rsa1024"), "", true);
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, key("rsa2048"), "big", true);
    save(PKEY_ALG_DSA, PKEY_KEY_HOST, key("dsa1024"), "", true);
    save(PKEY_ALG_DSA, PKEY_KEY_HOST, key("dsa1024"), "d", true);
    save(PKEY_ALG_ECDSA, PKEY_KEY_HOST, key("p192"), "", true);
    save(PKEY_ALG_ECDSA, PKEY_KEY_HOST, key("p256"), "p256", true);
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, key("rsa1024"), "md5");  // unreadable in FIPS mode
    std::ofstream(dev("pkey/rsa/junk.key")) << "not a key file";

    EXPECT_EQ(sweep(dev("pkey/"), true), 0);
    for (const char *gone : {"hostkey", "serverkey", "dsakey", "pkey/dsa/d.key", "ecdsakey"})
        EXPECT_FALSE(fsys::exists(dev(gone))) << gone;
    for (const char *kept :
         {"pkey/rsa/big.key", "pkey/ecdsa/p256.key", "pkey/rsa/md5.key", "pkey/rsa/junk.key"})
        EXPECT_TRUE(fsys::exists(dev(kept))) << kept;
}

TEST_F(LookupTest, SweepReportsTheEcdsaDirectoryOnly) {
    save(PKEY_ALG_RSA, PKEY_KEY_HOST, key("rsa1024"), "r");
    // No ecdsa directory: the result is the failed listing even though the
    // RSA directory was swept.
    EXPECT_LT(sweep(dev("pkey/"), false), 0);
    EXPECT_FALSE(fsys::exists(dev("pkey/rsa/r.key")));
}

}  // namespace
