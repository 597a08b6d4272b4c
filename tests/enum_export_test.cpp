// Enumeration of local keys, the three export forms (checked against
// ssh-keygen), and destroying keys.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "pkey_local.h"
#include "pkey_pubkey.h"
#include "platform_control.h"
#include "test_keys.hpp"
#include "test_store.hpp"
#include "test_util.hpp"

namespace {

namespace fsys = std::filesystem;
using pkey::MallocPtr;
using pkey::test::get;
using pkey::test::put;
using pkey::test::test_key;

std::string text_of(unsigned int alg, unsigned int format, const char *name = "") {
    MallocPtr<char> text(PKEY_LOCAL_GetPubKeyValue(alg, format, name));
    return text ? text.get() : "<null>";
}
std::string body_of(EVP_PKEY *key, int ssh2) {
    unsigned int len = 0;
    MallocPtr<char> body(PKEY_PUBKEY_EvppkeyToBase64(key, ssh2, &len));
    return body ? body.get() : "<null>";
}

class LocalKeysTest : public pkey::test::StoreTest {
protected:
    EVP_PKEY *rsa = test_key("rsa1024"), *p256 = test_key("p256");
};

// Walks a whole enumeration; name -> whether the record holds a key.
std::map<std::string, bool> enumerate(unsigned int alg, std::vector<std::string> *order) {
    std::map<std::string, bool> seen;
    PKEY_LOCAL_NEXT_HANDLE_S *h = PKEY_LOCAL_GetNextInit(alg);
    PKEY_LOCAL_KEY_INFO_S *info = PKEY_LOCAL_GetFirst(h);
    while (info != nullptr) {
        const bool has_key = (info->uiFlags & PKEY_INFO_HAS_KEY) != 0;
        const std::string name =
            has_key ? info->szName
                    : std::string("-") + (info->pstPosition ? info->pstPosition->d_name : "");
        if (order != nullptr) order->push_back(name);
        seen[name] = has_key;
        PKEY_LOCAL_KEY_INFO_S *next = PKEY_LOCAL_GetNext(h, info);
        PKEY_LOCAL_DestroyLocalKeyInfo(info);
        info = next;
    }
    PKEY_LOCAL_GetNextFinal(h);
    return seen;
}

TEST_F(LocalKeysTest, RsaEnumerationGivesHostThenServerThenTheDirectory) {
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_RSA, PKEY_KEY_HOST, rsa, ""), 0);
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_RSA, PKEY_KEY_SERVER, rsa, ""), 0);
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_RSA, PKEY_KEY_HOST, rsa, "a"), 0);
    const std::string long_name(64, 'L');
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_RSA, PKEY_KEY_HOST, rsa, long_name.c_str()), 0);
    put(mem("rsa/notes.txt"), "not a key");
    put(mem("rsa/.key"), "");  // names the default host key a second time
    std::vector<std::string> order;
    const auto seen = enumerate(PKEY_ALG_RSA, &order);
    ASSERT_GE(order.size(), 2u);
    EXPECT_EQ(order[0], "hostkey(default)");
    EXPECT_EQ(order[1], "serverkey(default)");
    EXPECT_EQ(seen, (std::map<std::string, bool>{{"hostkey(default)", true},
                                                 {"serverkey(default)", true},
                                                 {"a", true},
                                                 {long_name, true},
                                                 {"-notes.txt", false}}));
    EXPECT_EQ(order.size(), 6u);
}

TEST_F(LocalKeysTest, OtherAlgorithmsGoStraightToTheDirectoryAndSkipMissingKeys) {
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, "e1"), 0);
    std::vector<std::string> order;
    enumerate(PKEY_ALG_ECDSA, &order);
    EXPECT_EQ(order, (std::vector<std::string>{"-", "e1"}));  // no default key, then e1
    order.clear();
    enumerate(PKEY_ALG_DSA, &order);  // no directory at all
    EXPECT_EQ(order, std::vector<std::string>{"-"});
}

TEST_F(LocalKeysTest, InfoRecordDescribesTheKey) {
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, "k"), 0);
    PKEY_LOCAL_KEY_INFO_S *info = PKEY_LOCAL_GetLocPubKeyInfo(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "k");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->uiAlgId, PKEY_ALG_ECDSA);
    EXPECT_EQ(info->uiBits, 256u);
    EXPECT_STREQ(info->szName, "k");
    EXPECT_EQ(std::strlen(info->szTime), 19u);  // HH:MM:SS YYYY/MM/DD
    const std::vector<unsigned char> der = pkey::test::public_der(p256);
    MallocPtr<char> expected(PKEY_PUBKEY_DER2BdrnBuf(der.data(), unsigned(der.size())));
    EXPECT_STREQ(info->pcPubKeyText, expected.get());
    PKEY_LOCAL_DestroyLocalKeyInfo(info);
}

TEST_F(LocalKeysTest, ExportFormsAreExactToTheCharacter) {
    // An RSA host key whose record says it was made on 5 March 2024.
    unsigned int len = 0;
    unsigned char *record = PKEY_PUBKEY_ConvertKeyToStoreBuf(rsa, &len);
    ASSERT_NE(record, nullptr);
    pkey::store_be16(record + PKEY_STORE_OFF_YEAR, 2024);
    record[PKEY_STORE_OFF_MONTH] = 3;
    record[PKEY_STORE_OFF_DAY] = 5;
    EVP_Digest(record, len - 16, record + len - 16, nullptr, EVP_md5(), nullptr);
    ASSERT_EQ(PKEY_LOCAL_WriteKeyBufToDev(PKEY_ALG_RSA, PKEY_KEY_HOST, record, len, ""), 0);
    std::free(record);

    const std::string b64 = body_of(rsa, 1);
    EXPECT_EQ(text_of(PKEY_ALG_RSA, PKEY_EXPORT_SSH1),
              "1024 " + body_of(rsa, 0) + " rsa-key-2024/03/05\r\n");
    EXPECT_EQ(text_of(PKEY_ALG_RSA, PKEY_EXPORT_SSH2),
              "---- BEGIN SSH2 PUBLIC KEY ----\r\nComment: \"rsa-key-2024/03/05\"\r\n" + b64 +
                  "\r\n---- END SSH2 PUBLIC KEY ----\r\n");
    EXPECT_EQ(text_of(PKEY_ALG_RSA, PKEY_EXPORT_OPENSSH), "ssh-rsa " + b64 + " rsa-key\r\n");

    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, ""), 0);
    const std::string ec = text_of(PKEY_ALG_ECDSA, PKEY_EXPORT_SSH2);
    EXPECT_NE(ec.find("Comment: \"ecdsa-sha2-nistp256-"), std::string::npos) << ec;
    EXPECT_EQ(text_of(PKEY_ALG_ECDSA, PKEY_EXPORT_OPENSSH),
              "ecdsa-sha2-nistp256 " + body_of(p256, 1) + " ecdsa-key\r\n");
}

TEST_F(LocalKeysTest, RefusedFormsAndMissingKeysGiveNothing) {
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, ""), 0);
    EXPECT_EQ(text_of(PKEY_ALG_ECDSA, PKEY_EXPORT_SSH1), "<null>");
    EXPECT_EQ(text_of(PKEY_ALG_DSA, PKEY_EXPORT_SSH1), "<null>");
    EXPECT_EQ(text_of(PKEY_ALG_RSA, 3), "<null>");
    EXPECT_EQ(text_of(PKEY_ALG_RSA, PKEY_EXPORT_OPENSSH), "<null>");  // no RSA key
    EXPECT_EQ(PKEY_LOCAL_ExportPubKey(PKEY_ALG_RSA, "", PKEY_EXPORT_SSH2, ""),
              static_cast<int>(PKEY_ERR_FAILED));
}

TEST_F(LocalKeysTest, ExportPrintsWithAnExtraLineBreakOrWritesTheTextAlone) {
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, ""), 0);
    const std::string text = text_of(PKEY_ALG_ECDSA, PKEY_EXPORT_OPENSSH);
    testing::internal::CaptureStdout();
    ASSERT_EQ(PKEY_LOCAL_ExportPubKey(PKEY_ALG_ECDSA, "", PKEY_EXPORT_OPENSSH, ""), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), text + "\r\n");
    const std::string file = store.root() + "/out/key.pub";
    ASSERT_EQ(PKEY_LOCAL_ExportPubKey(PKEY_ALG_ECDSA, "", PKEY_EXPORT_OPENSSH, file.c_str()), 0);
    EXPECT_EQ(get(file), text);
}

// The OpenSSH export starts with the public line ssh-keygen derives from the private
// key itself, and the SSH2 export carries the same Base64 body.
TEST_F(LocalKeysTest, ExportsCarryThePublicLineSshKeygenDerives) {
    for (const char *name : {"rsa1024", "rsa2048", "dsa1024", "dsa2048", "p256", "p384", "p521"}) {
        EVP_PKEY *key = test_key(name);
        const unsigned int alg = PKEY_PUBKEY_GetPkeyAlgIdByEvpId(EVP_PKEY_get_id(key));
        ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(alg, PKEY_KEY_HOST, key, name), 0);
        const std::string reference = pkey::test::ssh_keygen_public(key, store.root());
        ASSERT_NE(reference, "") << name;
        EXPECT_EQ(text_of(alg, PKEY_EXPORT_OPENSSH, name).substr(0, reference.size() + 1),
                  reference + " ")
            << name;
        const std::string body = reference.substr(reference.find(' ') + 1);
        EXPECT_TRUE(text_of(alg, PKEY_EXPORT_SSH2, name)
                        .ends_with("\"\r\n" + body + "\r\n---- END SSH2 PUBLIC KEY ----\r\n"))
            << name;
    }
}

TEST_F(LocalKeysTest, ExportAndDestroyRefuseNamesThatLeaveTheKeyDirectory) {
    EVP_PKEY *ec = p256;
    auto request = [](const char *n) {
        PKEY_KEYGEN_REQ_S r{};
        r.uiAlgId = PKEY_ALG_ECDSA;
        std::snprintf(r.szKeyName, sizeof r.szKeyName, "%s", n);
        return r;
    };
    pkey::test::expect_escaping_names_refused({
        {"PKEY_LOCAL_GetLocPubKeyInfo", PKEY_ALG_ECDSA, ec,
         [](const char *n) {
             PKEY_LOCAL_KEY_INFO_S *info =
                 PKEY_LOCAL_GetLocPubKeyInfo(PKEY_ALG_ECDSA, PKEY_KEY_HOST, n);
             const bool keyless = info != nullptr && (info->uiFlags & PKEY_INFO_HAS_KEY) == 0 &&
                                  info->pcPubKeyText == nullptr;
             PKEY_LOCAL_DestroyLocalKeyInfo(info);
             return keyless;
         }},
        {"PKEY_LOCAL_GetPubKeyValue", PKEY_ALG_ECDSA, ec,
         [](const char *n) { return text_of(PKEY_ALG_ECDSA, PKEY_EXPORT_OPENSSH, n) == "<null>"; }},
        {"PKEY_LOCAL_ExportPubKey", PKEY_ALG_ECDSA, ec,
         [](const char *n) {
             return PKEY_LOCAL_ExportPubKey(PKEY_ALG_ECDSA, n, PKEY_EXPORT_SSH2, "") ==
                    static_cast<int>(PKEY_ERR_FAILED);
         }},
        {"PKEY_LOCAL_DestroyOneKey", PKEY_ALG_ECDSA, ec,
         [](const char *n) {
             return PKEY_LOCAL_DestroyOneKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, n) ==
                    static_cast<int>(PKEY_ERR_FAILED);
         }},
        {"PKEY_LOCAL_DestroyKey", PKEY_ALG_ECDSA, ec,
         [=](const char *n) {
             const PKEY_KEYGEN_REQ_S r = request(n);
             return PKEY_LOCAL_DestroyKey(&r) == static_cast<int>(PKEY_ERR_FAILED);
         }},
    });
}

// With the memory copy a hard link of the flash copy, or the memory key
// directory a link to the work directory, a destroy used to remove one name
// and then wait for ever on its own lock. Now it fails at once and removes
// nothing.
TEST_F(LocalKeysTest, DestroyingOneFileUnderBothCopiesNamesFailsPromptlyAndRemovesNothing) {
    using pkey::test::exit_code_within;
    auto destroy_fails = [](const char *name) {
        return exit_code_within([&] {
            return PKEY_LOCAL_DestroyOneKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, name) ==
                           static_cast<int>(PKEY_ERR_FAILED)
                       ? 0
                       : 1;
        });
    };
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, "linked"), 0);
    const std::string image = get(dev("pkey/ecdsa/linked.key"));
    fsys::remove(mem("ecdsa/linked.key"));
    fsys::create_hard_link(dev("pkey/ecdsa/linked.key"), mem("ecdsa/linked.key"));
    EXPECT_EQ(destroy_fails("linked"), 0);
    EXPECT_EQ(get(dev("pkey/ecdsa/linked.key")), image);
    EXPECT_EQ(get(mem("ecdsa/linked.key")), image);

    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, ""), 0);
    const std::string host = get(dev("ecdsakey"));
    fsys::remove_all(store.mem_dir(1) + "/pkey");
    fsys::create_directory_symlink(store.work_dir(1), store.mem_dir(1) + "/pkey");
    EXPECT_EQ(destroy_fails(""), 0);
    EXPECT_EQ(get(dev("ecdsakey")), host);
    // A key that is on neither name is still no error.
    fsys::remove(dev("ecdsakey"));
    EXPECT_EQ(PKEY_LOCAL_DestroyOneKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, ""), 0);
}

TEST_F(LocalKeysTest, DestroyingTheDefaultRsaHostKeyTakesTheServerKey) {
    EXPECT_EQ(PKEY_LOCAL_DestroyOneKey(PKEY_ALG_RSA, PKEY_KEY_HOST, "none"), 0);
    for (const char *name : {"", "named"})
        ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_RSA, PKEY_KEY_HOST, rsa, name), 0);
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_RSA, PKEY_KEY_SERVER, rsa, ""), 0);
    PKEY_KEYGEN_REQ_S request{};
    request.uiAlgId = PKEY_ALG_RSA;
    std::snprintf(request.szKeyName, sizeof request.szKeyName, "named");
    ASSERT_EQ(PKEY_LOCAL_DestroyKey(&request), 0);
    EXPECT_FALSE(fsys::exists(mem("rsa/named.key")) || fsys::exists(dev("pkey/rsa/named.key")));
    EXPECT_TRUE(fsys::exists(dev("serverkey")));
    request.szKeyName[0] = '\0';
    ASSERT_EQ(PKEY_LOCAL_DestroyKey(&request), 0);
    for (const char *f : {"hostkey", "serverkey"}) {
        EXPECT_FALSE(fsys::exists(mem(f))) << f;
        EXPECT_FALSE(fsys::exists(dev(f))) << f;
    }
}

TEST_F(LocalKeysTest, StandbyNodesHearOfADestroyOnlyWhenTheDeviceCopyWent) {
    const unsigned short standby[] = {2};
    PCTL_SetStandbyNodes(standby, 1);
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, "m"), 0);
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, p256, "d"), 0);
    const std::string standby_dir = store.work_dir(2) + "/pkey/ecdsa/";
    fsys::remove(dev("pkey/ecdsa/m.key"));  // only the memory copy is left
    fsys::remove(mem("ecdsa/d.key"));       // only the device copy is left
    EXPECT_EQ(PKEY_LOCAL_DestroyOneKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "m"), 0);
    EXPECT_EQ(PKEY_LOCAL_DestroyOneKey(PKEY_ALG_ECDSA, PKEY_KEY_HOST, "d"), 0);
    EXPECT_FALSE(fsys::exists(mem("ecdsa/m.key")));
    EXPECT_FALSE(fsys::exists(dev("pkey/ecdsa/d.key")));
    EXPECT_TRUE(fsys::exists(standby_dir + "m.key"));
    EXPECT_FALSE(fsys::exists(standby_dir + "d.key"));
}

}  // namespace
