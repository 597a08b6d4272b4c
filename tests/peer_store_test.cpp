// Peer keys: the configuration store, key-code entry and the operations on
// stored keys, in and out of FIPS mode.
#define OPENSSL_SUPPRESS_DEPRECATED  // legacy EC_KEY keys, as some callers still make them
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>

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
// The stored value as it is, no key made of it.
std::vector<unsigned char> stored_der(const char *name) {
    unsigned int len = 0;
    pkey::MallocPtr<unsigned char> value(PKEY_CFGMNG_GetPeerPubKeyValue(name, &len));
    return value ? std::vector<unsigned char>(value.get(), value.get() + len)
                 : std::vector<unsigned char>{};
}

EvpPkeyPtr decoded(const std::vector<unsigned char> &der) {
    const unsigned char *p = der.data();
    return EvpPkeyPtr(d2i_PUBKEY(nullptr, &p, static_cast<long>(der.size())));
}

using EcKeyPtr = std::unique_ptr<EC_KEY, pkey::FnDeleter<EC_KEY_free>>;
EvpPkeyPtr evp_of(EC_KEY *ec) {
    EvpPkeyPtr key(EVP_PKEY_new());
    EVP_PKEY_set1_EC_KEY(key.get(), ec);
    return key;
}
// How a key comes to spell out its curve's parameters: a legacy EC_KEY so
// flagged; the same on a copy of its group that has lost the curve's name;
// a key OpenSSL decoded from such an encoding.
enum class Explicit { legacy, nameless_group, decoded };

// A fresh key on the curve whose encoding spells out the curve's parameters;
// *named gets what i2d_PUBKEY writes for the same key naming its curve.
EvpPkeyPtr explicit_key(int nid, point_conversion_form_t form, Explicit how,
                        std::vector<unsigned char> *named) {
    EcKeyPtr ec(EC_KEY_new_by_curve_name(nid));
    if (!ec || EC_KEY_generate_key(ec.get()) != 1) return nullptr;
    EC_KEY_set_conv_form(ec.get(), form);
    *named = public_der(evp_of(ec.get()).get());
    if (how == Explicit::nameless_group) {
        pkey::EcGroupPtr group(EC_GROUP_dup(EC_KEY_get0_group(ec.get())));
        EC_GROUP_set_curve_name(group.get(), NID_undef);
        EcKeyPtr bare(EC_KEY_new());
        EC_KEY_set_group(bare.get(), group.get());
        EC_KEY_set_public_key(bare.get(), EC_KEY_get0_public_key(ec.get()));
        EC_KEY_set_conv_form(bare.get(), form);
        ec = std::move(bare);
    }
    EC_KEY_set_asn1_flag(ec.get(), OPENSSL_EC_EXPLICIT_CURVE);
    EvpPkeyPtr key = evp_of(ec.get());
    if (how != Explicit::decoded) return key;
    const std::vector<unsigned char> der = public_der(key.get());
    return decoded(der);
}

class PeerTest : public pkey::test::StoreTest {
protected:
    EVP_PKEY *rsa1024 = pkey::test::test_key("rsa1024"), *rsa2048 = pkey::test::test_key("rsa2048");
    EVP_PKEY *p192 = pkey::test::test_key("p192"), *p256 = pkey::test::test_key("p256");
};

TEST_F(PeerTest, SavedKeysAreReplacedReadAndDeletedByName) {
    ASSERT_EQ(PKEY_SavePeerPubKey(rsa1024, "alice"), 0u);
    ASSERT_EQ(PKEY_SavePeerPubKey(p256, "alice"), 0u);  // the second value wins
    EXPECT_TRUE(stored_equals("alice", p256));
    EXPECT_EQ(stored_der("alice"), public_der(p256));
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
        {good.substr(1), ""},                                       // odd number of digits
        {good + "0001", RC_LoadString(PKEY_MSG_INVALID_KEY_CODE)},  // bytes after the key
        {"3003020100", RC_LoadString(PKEY_MSG_INVALID_KEY_CODE)},   // not a key
        {std::string(4098, 'A'), ""},                               // longer than the work buffer
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

// However a caller's key is flagged, every way in stores it naming its curve,
// exactly as OpenSSL encodes the key when it names the curve.
TEST_F(PeerTest, EcKeysSpellingOutANamedCurveAreStoredNamingIt) {
    struct Row {
        const char *what;
        int nid;
        point_conversion_form_t form;
        Explicit how;
    };
    const Row rows[] = {
        {"legacy P-256", NID_X9_62_prime256v1, POINT_CONVERSION_UNCOMPRESSED, Explicit::legacy},
        {"legacy P-384, compressed", NID_secp384r1, POINT_CONVERSION_COMPRESSED, Explicit::legacy},
        {"nameless P-256 group", NID_X9_62_prime256v1, POINT_CONVERSION_UNCOMPRESSED,
         Explicit::nameless_group},
        {"decoded P-521", NID_secp521r1, POINT_CONVERSION_UNCOMPRESSED, Explicit::decoded},
        {"decoded P-256, compressed", NID_X9_62_prime256v1, POINT_CONVERSION_COMPRESSED,
         Explicit::decoded},
    };
    for (const Row &row : rows) {
        std::vector<unsigned char> named;
        const EvpPkeyPtr key = explicit_key(row.nid, row.form, row.how, &named);
        ASSERT_TRUE(key) << row.what;
        const std::vector<unsigned char> spelled_out = public_der(key.get());
        ASSERT_GT(spelled_out.size(), named.size()) << row.what;
        // The key code is entered as OpenSSL writes the key it decodes from
        // it: a legacy key's compressed generator comes back uncompressed,
        // and an entry whose re-encoding differs in length is refused.
        const std::vector<unsigned char> key_code = public_der(decoded(spelled_out).get());
        ERR_clear_error();

        // Saved directly first: PKEY_EditKeyCode may mark the key itself.
        EXPECT_EQ(PKEY_SavePeerPubKey(key.get(), "saved"), 0u) << row.what;
        unsigned int r = 1;
        EXPECT_EQ(finish(entry("entered", hex_of(key_code)), &r), "") << row.what;
        EXPECT_EQ(r, 0u) << row.what;
        EXPECT_EQ(PKEY_EditKeyCode(key.get(), "edited"), 0u) << row.what;
        for (const char *name : {"saved", "entered", "edited"})
            EXPECT_EQ(stored_der(name), named) << row.what << ", " << name;
        EXPECT_EQ(ERR_peek_error(), 0u) << row.what;
        // A provider's key takes the mark; a legacy EC_KEY keeps its own flag.
        if (row.how == Explicit::decoded) {
            EXPECT_EQ(public_der(key.get()), named) << row.what;
        }
    }

    // Parameters of no named curve: P-256 with twice its generator.
    EcKeyPtr ec(EC_KEY_new_by_curve_name(NID_X9_62_prime256v1));
    ASSERT_EQ(EC_KEY_generate_key(ec.get()), 1);
    pkey::EcGroupPtr group(EC_GROUP_dup(EC_KEY_get0_group(ec.get())));
    EC_GROUP *g = group.get();
    pkey::EcPointPtr twice_g(EC_POINT_new(g));
    ASSERT_EQ(EC_POINT_dbl(g, twice_g.get(), EC_GROUP_get0_generator(g), nullptr), 1);
    ASSERT_EQ(
        EC_GROUP_set_generator(g, twice_g.get(), EC_GROUP_get0_order(g), EC_GROUP_get0_cofactor(g)),
        1);
    EC_GROUP_set_curve_name(g, NID_undef);
    EC_GROUP_set_asn1_flag(g, OPENSSL_EC_EXPLICIT_CURVE);
    ASSERT_EQ(EC_KEY_set_group(ec.get(), g), 1);
    const std::vector<unsigned char> spelled_out = public_der(evp_of(ec.get()).get());
    // As a provider's key: one would take a mark to name a curve it has not,
    // and could then no longer be encoded.
    const EvpPkeyPtr unnamed = decoded(spelled_out);
    ASSERT_TRUE(unnamed);
    ERR_clear_error();
    EXPECT_EQ(PKEY_EditKeyCode(unnamed.get(), "unnamed"), PKEY_ERR_FAILED);
    unsigned int r = 0;
    EXPECT_EQ(finish(entry("unnamed", hex_of(spelled_out)), &r),
              RC_LoadString(PKEY_MSG_KEY_SIZE_REFUSED));
    EXPECT_EQ(r, PKEY_ERR_FAILED);
    EXPECT_TRUE(stored_der("unnamed").empty());
    EXPECT_EQ(PKEY_SavePeerPubKey(unnamed.get(), "unchecked"), 0u);  // stored as it comes
    EXPECT_EQ(stored_der("unchecked"), spelled_out);
    EXPECT_EQ(public_der(unnamed.get()), spelled_out);  // still encodable
    EXPECT_EQ(ERR_peek_error(), 0u);
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
    for (auto [name, key] :
         {std::pair{"r1024", rsa1024}, {"r2048", rsa2048}, {"p192", p192}, {"p256", p256}})
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
    const auto found = [](const char *name) {
        return EvpPkeyPtr(PKEY_GetUserKeyByName(name)) != nullptr;
    };
    PCTL_SetFipsMode(1);
    ASSERT_EQ(PKEY_SavePeerPubKey(p256, "ok"), 0u);
    ASSERT_TRUE(found("ok"));
    ASSERT_TRUE(found("ok"));  // nothing changed in between

    // Another process saves a refused key; this one must not see it.
    EXPECT_EQ(exit_code(spawn([&] { return PKEY_SavePeerPubKey(rsa1024, "weak") == 0 ? 0 : 1; })),
              0);
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
                      if (PKEY_SavePeerPubKey(i % 2 ? rsa1024 : rsa2048,
                                              ("k" + std::to_string(i)).c_str()) != 0)
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
    // A name too long to be listed is never purged, and its key still reads.
    const std::string long_name(65, 'w');
    ASSERT_EQ(PKEY_SavePeerPubKey(rsa1024, long_name.c_str()), 0u);
    EXPECT_TRUE(found(long_name.c_str()));
}

}  // namespace
