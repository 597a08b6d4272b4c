// Peer keys: the configuration store, key-code entry and the operations on
// stored keys, in and out of FIPS mode.
#include <gtest/gtest.h>
#include <openssl/core_names.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "pkey_cfgmng.h"
#include "pkey_peer.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "platform_control.h"
#include "test_keys.hpp"
#include "test_store.hpp"
#include "test_util.hpp"

namespace {

using pkey::EvpPkeyPtr;
using pkey::test::peer_names;
using pkey::test::public_der;

std::string hex_of(const std::vector<unsigned char> &bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string hex;
    for (unsigned char b : bytes) hex += {digits[b >> 4], digits[b & 15]};
    return hex;
}
// A key code entry: the 65-byte name field, then the hex text.
std::vector<char> entry(const std::string &name, const std::string &hex) {
    std::vector<char> e(PKEY_PEER_NAME_LEN + hex.size() + 1, '\0');
    std::copy(name.begin(), name.end(), e.begin());
    std::copy(hex.begin(), hex.end(), e.begin() + PKEY_PEER_NAME_LEN);
    return e;
}
// Runs the entry and returns what it printed; *result gets its status.
std::string finish(const std::vector<char> &e, unsigned int *result) {
    testing::internal::CaptureStdout();
    *result = PKEY_PEER_EditKeyCodeFinish(e.data());
    return testing::internal::GetCapturedStdout();
}
bool stored_equals(const char *name, EVP_PKEY *key) {
    EvpPkeyPtr got(PKEY_GetUserKeyByName(name));
    return got && EVP_PKEY_eq(got.get(), key) == 1;
}

class PeerTest : public ::testing::Test {
protected:
    pkey::test::TempStore store;
    EVP_PKEY *rsa1024 = pkey::test::test_key("rsa1024"), *rsa2048 = pkey::test::test_key("rsa2048");
    EVP_PKEY *p192 = pkey::test::test_key("p192"), *p256 = pkey::test::test_key("p256");
};

TEST_F(PeerTest, SavedKeysAreReplacedReadAndDeletedByName) {
    ASSERT_EQ(PKEY_SavePeerPubKey(rsa1024, "alice"), 0u);
    ASSERT_EQ(PKEY_SavePeerPubKey(p256, "alice"), 0u);  // the second value wins
    EXPECT_TRUE(stored_equals("alice", p256));
    unsigned int len = 0;
    unsigned char *value = PKEY_CFGMNG_GetPeerPubKeyValue("alice", &len);
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(std::vector<unsigned char>(value, value + len), public_der(p256));
    std::free(value);
    EXPECT_EQ(PKEY_PEER_RemovePeerPubKeyByName("alice"), 0u);
    EXPECT_EQ(PKEY_GetUserKeyByName("alice"), nullptr);
    EXPECT_NE(PKEY_PEER_RemovePeerPubKeyByName("alice"), 0u);  // the store's "no such key"
    EXPECT_EQ(PKEY_PEER_RemovePeerPubKeyByName(""), PKEY_ERR_FAILED);
    EXPECT_EQ(PKEY_SavePeerPubKey(p256, ""), PKEY_ERR_FAILED);
    EXPECT_EQ(PKEY_GetUserKeyByName(""), nullptr);
}

TEST_F(PeerTest, NamesListInAscendingByteOrderWithTiesInTableOrder) {
    EXPECT_TRUE(peer_names().empty());
    for (const char *name : {"b", "B", "a", "a1"}) ASSERT_EQ(PKEY_SavePeerPubKey(p256, name), 0u);
    EXPECT_EQ(peer_names(), (std::vector<std::string>{"B", "a", "a1", "b"}));

    // Names of 65 characters or more are never listed but stay readable.
    const std::string long_name(65, 'z');
    ASSERT_EQ(PKEY_SavePeerPubKey(p256, long_name.c_str()), 0u);
    EXPECT_EQ(peer_names().size(), 4u);
    EXPECT_TRUE(stored_equals(long_name.c_str(), p256));

    // A key text with a NUL inside lists as its first part: a tie with "a",
    // kept behind it because it was stored later.
    const int h = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_SAVE);
    ASSERT_EQ(DBM_SetBinary(h, "a\0tie", 5, -1, 1, "x", 1), 0);
    DBM_Close(h);
    EXPECT_EQ(peer_names(), (std::vector<std::string>{"B", "a", "a", "a1", "b"}));
}

TEST_F(PeerTest, ManyNamesComeOutSorted) {
    std::vector<std::string> names;
    const std::vector<unsigned char> der = public_der(p256);
    const int h = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_SAVE);
    for (int i = 0; i < 10000; ++i) {
        names.push_back("peer-" + std::to_string((i * 7919) % 10000));
        ASSERT_EQ(DBM_SetBinary(h, names.back().c_str(), static_cast<unsigned>(names.back().size()),
                                -1, static_cast<unsigned>(der.size()), der.data(), 1),
                  0);
    }
    DBM_Close(h);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(peer_names(), names);
}

TEST_F(PeerTest, KeyCodeEntryStoresTheReEncodedKeyOrSaysWhy) {
    unsigned int r = 0;
    EXPECT_EQ(finish(entry("k1", hex_of(public_der(rsa2048))), &r), "");
    EXPECT_EQ(r, 0u);
    EXPECT_TRUE(stored_equals("k1", rsa2048));

    struct Row {
        std::string hex;
        const char *printed;
    };
    const std::string good = hex_of(public_der(p256));
    const Row rows[] = {
        {good.substr(1), ""},                                  // odd number of digits
        {good + "0001", RC_LoadString(PKEY_MSG_INVALID_KEY_CODE)},  // bytes after the key
        {"3003020100", RC_LoadString(PKEY_MSG_INVALID_KEY_CODE)},   // not a key
        {std::string(4098, 'A'), ""},                          // longer than the work buffer
    };
    for (const Row &row : rows) {
        EXPECT_EQ(finish(entry("bad", row.hex), &r), row.printed) << row.hex.substr(0, 16);
        EXPECT_EQ(r, PKEY_ERR_FAILED);
    }
    PCTL_SetFipsMode(1);
    EXPECT_EQ(finish(entry("small", hex_of(public_der(rsa1024))), &r),
              RC_LoadString(PKEY_MSG_KEY_SIZE_REFUSED));
    EXPECT_EQ(r, PKEY_ERR_FAILED);
    PCTL_SetFipsMode(0);
    PCTL_SetAlgoEnabled(85, 0);  // ECDSA switched off: refused without a word
    EXPECT_EQ(finish(entry("off", good), &r), "");
    EXPECT_EQ(r, PKEY_ERR_FAILED);
    PCTL_SetAlgoEnabled(85, -1);
    EXPECT_EQ(PKEY_GetUserKeyByName("bad"), nullptr);
}

// Keys no real key pair has: with RSA e = 1 a "signature" is the message
// itself, so anyone could log in as the owner of such a key.
TEST_F(PeerTest, ImpossibleKeysAreInvalidKeyCodesAndRefusedByThePolicyButSavedDirectly) {
    using pkey::test::public_key_with;
    pkey::BignumPtr one(BN_new()), two(BN_new());
    BN_set_word(one.get(), 1);
    BN_set_word(two.get(), 2);
    EVP_PKEY *dsa = pkey::test::test_key("dsa1024");
    const EvpPkeyPtr impossible[] = {
        public_key_with(rsa2048, {{OSSL_PKEY_PARAM_RSA_E, one.get()}}),
        public_key_with(rsa2048, {{OSSL_PKEY_PARAM_RSA_E, two.get()}}),
        public_key_with(dsa, {{OSSL_PKEY_PARAM_FFC_G, one.get()}}),
        public_key_with(dsa, {{OSSL_PKEY_PARAM_PUB_KEY, one.get()}}),
        pkey::test::ec_public_of("P-256", {0x00}),
    };
    for (const EvpPkeyPtr &key : impossible) {
        ASSERT_TRUE(key);
        const std::vector<unsigned char> der = public_der(key.get());
        ASSERT_FALSE(der.empty());
        unsigned int r = 0;
        EXPECT_EQ(finish(entry("forged", hex_of(der)), &r),
                  RC_LoadString(PKEY_MSG_INVALID_KEY_CODE));
        EXPECT_EQ(r, PKEY_ERR_FAILED);
        EXPECT_EQ(PKEY_EditKeyCode(key.get(), "forged"), PKEY_ERR_FAILED);
        EXPECT_TRUE(peer_names().empty());
    }
    // Saving a key directly checks nothing, as before.
    EXPECT_EQ(PKEY_SavePeerPubKey(impossible[0].get(), "unchecked"), 0u);
    EXPECT_TRUE(stored_equals("unchecked", impossible[0].get()));
}

TEST_F(PeerTest, AStoreThatCannotBeOpenedRefusesSavesButNotDeletes) {
    PKEY_TEST_HOST_ONLY("the database is made unusable through the host's store layout");
    pkey::test::TempStore broken;
    std::ofstream(broken.root() + "/db");  // a file where the database directory goes
    unsigned int r = 0;
    EXPECT_EQ(finish(entry("k", hex_of(public_der(p256))), &r),
              RC_LoadString(PKEY_MSG_SAVE_FAILED));
    EXPECT_EQ(r, PKEY_ERR_FAILED);
    EXPECT_EQ(PKEY_CFGMNG_Delete("k"), 0u);
    EXPECT_EQ(PKEY_GetUserKeyByName("k"), nullptr);
    store.use();
}

TEST_F(PeerTest, ParsedKeysFollowThePolicyUnlessSavedDirectly) {
    EXPECT_EQ(PKEY_EditKeyCode(rsa1024, "ok"), 0u);
    PCTL_SetFipsMode(1);
    EXPECT_EQ(PKEY_EditKeyCode(rsa1024, "weak"), PKEY_ERR_FAILED);
    EXPECT_EQ(PKEY_EditKeyCode(p192, "weak"), PKEY_ERR_FAILED);
    EXPECT_EQ(PKEY_EditKeyCode(p256, "strong"), 0u);
    EXPECT_EQ(PKEY_SavePeerPubKey(p192, "direct"), 0u);  // no policy here
    EXPECT_EQ(PKEY_EditKeyCode(nullptr, "x"), PKEY_ERR_FAILED);
}

TEST_F(PeerTest, FipsModePurgesWeakKeysAtEveryLookup) {
    for (auto [name, key] : {std::pair{"r1024", rsa1024}, {"r2048", rsa2048}, {"p192", p192},
                             {"p256", p256}})
        ASSERT_EQ(PKEY_SavePeerPubKey(key, name), 0u);
    const int h = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_SAVE);
    ASSERT_EQ(DBM_SetBinary(h, "junk", 4, -1, 3, "\x30\x01\x00", 1), 0);
    DBM_Close(h);

    EXPECT_TRUE(stored_equals("r1024", rsa1024));  // outside FIPS mode nothing goes
    EXPECT_EQ(PKEY_IsPeerPubKeyExisted("r1024"), 1u);
    EXPECT_EQ(peer_names().size(), 5u);
    PCTL_SetFipsMode(1);
    EXPECT_EQ(PKEY_IsPeerPubKeyExisted("r1024"), 0u);  // a weak key is absent in FIPS mode
    EXPECT_EQ(PKEY_IsPeerPubKeyExisted("r2048"), 1u);
    EXPECT_EQ(PKEY_IsPeerPubKeyExisted(""), 0u);
    PCTL_SetFipsMode(0);  // the weak keys are gone for good, the unlooked-for P-192 one too
    EXPECT_EQ(peer_names(), (std::vector<std::string>{"junk", "p256", "r2048"}));
}

// The purge before a lookup looks only at what changed since the last one,
// but whichever process wrote a refused key, and however many keys changed,
// a FIPS-mode lookup never returns one.
TEST_F(PeerTest, FipsLookupsNeverReturnARefusedKeyWhicheverProcessSavedIt) {
    using pkey::test::exit_code;
    using pkey::test::spawn;
    const auto found = [](const char *name) { return EvpPkeyPtr(PKEY_GetUserKeyByName(name)) != nullptr; };
    PCTL_SetFipsMode(1);
    ASSERT_EQ(PKEY_SavePeerPubKey(p256, "ok"), 0u);
    ASSERT_TRUE(found("ok"));
    ASSERT_TRUE(found("ok"));  // nothing changed in between

    // Another process saves a refused key; this one must not see it.
    EXPECT_EQ(exit_code(spawn([&] { return PKEY_SavePeerPubKey(rsa1024, "weak") == 0 ? 0 : 1; })), 0);
    EXPECT_FALSE(found("weak"));
    // This process saves one; a process that never purged before must not see it.
    ASSERT_EQ(PKEY_SavePeerPubKey(p192, "weak2"), 0u);
    EXPECT_EQ(exit_code(spawn([&] { return !found("weak2") && found("ok") ? 0 : 1; })), 0);
    // A replaced key is judged again: an allowed key overwritten by a refused one goes.
    ASSERT_EQ(PKEY_SavePeerPubKey(rsa1024, "ok"), 0u);
    EXPECT_FALSE(found("ok"));

    // Many changes at once, in another process: the refused half goes, the rest stays.
    EXPECT_EQ(exit_code(spawn([&] {
                  for (int i = 0; i < 600; ++i)
                      if (PKEY_SavePeerPubKey(i % 2 ? rsa1024 : rsa2048, ("k" + std::to_string(i)).c_str()) != 0)
                          return 1;
                  return 0;
              })),
              0);
    EXPECT_FALSE(found("k599"));
    EXPECT_TRUE(found("k598"));
    PCTL_SetFipsMode(0);
    EXPECT_EQ(peer_names().size(), 300u);
    // Saved while FIPS mode was off, refused once it is back on.
    ASSERT_EQ(PKEY_SavePeerPubKey(rsa1024, "while-off"), 0u);
    PCTL_SetFipsMode(1);
    EXPECT_FALSE(found("while-off"));
}

}  // namespace
