// Peer public key text: every form ssh-keygen and puttygen write reads back to the
// key they were made from, and the wrapper, header, type and SSH1 rules hold on
// hand-made texts. Every text is handed over in a strdup'd buffer of its exact
// size, so that AddressSanitizer catches any read past its terminating NUL.
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/pem.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "pkey_peer.h"
#include "pkey_pubkey.h"
#include "test_keys.hpp"
#include "test_store.hpp"
#include "test_util.hpp"

namespace {

using pkey::EvpPkeyPtr;
using pkey::MallocPtr;
using pkey::test::get;
using pkey::test::run;

enum class Form { kSsh2, kOpenSsh, kSsh1 };

EvpPkeyPtr read_as(Form form, const std::string &text) {
    MallocPtr<char> exact(strdup(text.c_str()));
    switch (form) {
        case Form::kSsh2: return EvpPkeyPtr(PKEY_PEER_ReadSSH2PubKey(exact.get()));
        case Form::kOpenSsh: return EvpPkeyPtr(PKEY_PEER_ReadOpenSSHPubKey(exact.get()));
        case Form::kSsh1: return EvpPkeyPtr(PKEY_PEER_ReadSSH1PubKey(exact.get()));
    }
    return nullptr;
}
// The wrapper's inside, or "<null>".
std::string preproc(const std::string &text) {
    MallocPtr<char> exact(strdup(text.c_str()));
    const char *inner = PKEY_PEER_PeerPubKeyPreProc(exact.get());
    return inner != nullptr ? inner : "<null>";
}
std::string replace_all(std::string s, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = s.find(from, at)) != std::string::npos; at += to.size())
        s.replace(at, from.size(), to);
    return s;
}
std::string decimal_param(const EVP_PKEY *key, const char *name) {
    BIGNUM *bn = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &bn) != 1) return "";
    char *dec = BN_bn2dec(bn);
    std::string out = dec;
    OPENSSL_free(dec);
    BN_free(bn);
    return out;
}
bool same_key(const EVP_PKEY *got, const EVP_PKEY *want) {
    return got != nullptr && PKEY_CmpPubKey(got, want) == 1 && EVP_PKEY_eq(got, want) == 1;
}

using PeerText = pkey::test::StoreTest;

TEST_F(PeerText, EveryFormOfRealToolsReadsToTheKeyItWasMadeFrom) {
    const std::string dir = store.root() + "/tools/";
    ASSERT_TRUE(std::filesystem::create_directories(dir));
    const struct {
        const char *type;
        int bits;
    } kinds[] = {{"rsa", 2048}, {"dsa", 1024}, {"ecdsa", 256}, {"ecdsa", 384}, {"ecdsa", 521}};
    for (const auto &k : kinds) {
        const std::string label = std::string(k.type) + std::to_string(k.bits);
        SCOPED_TRACE(label);
        const std::string priv = dir + label;
        ASSERT_NE(run("ssh-keygen -q -t " + std::string(k.type) + " -b " + std::to_string(k.bits) +
                      " -m PEM -N '' -C 'ops: peer@example' -f " + priv + " && echo ok"),
                  "");
        FILE *pem = fopen(priv.c_str(), "r");
        ASSERT_NE(pem, nullptr);
        const EvpPkeyPtr original(PEM_read_PrivateKey(pem, nullptr, nullptr, nullptr));
        fclose(pem);
        ASSERT_TRUE(original);

        const std::string ssh2 = run("ssh-keygen -e -f " + priv + ".pub");
        const std::string putty2 = run("puttygen " + priv + " -O public -C 'x: \"q\\\\\"'");
        ASSERT_NE(ssh2.find("Comment:"), std::string::npos);
        ASSERT_NE(putty2.find("Comment:"), std::string::npos);
        const struct {
            const char *what;
            Form form;
            std::string text;
        } forms[] = {
            {"ssh-keygen line", Form::kOpenSsh, get(priv + ".pub")},
            {"puttygen line", Form::kOpenSsh, run("puttygen " + priv + " -O public-openssh")},
            {"ssh-keygen block", Form::kSsh2, ssh2},
            {"ssh-keygen block, CR LF", Form::kSsh2, replace_all(ssh2, "\n", "\r\n")},
            {"ssh-keygen block, LF CR", Form::kSsh2, replace_all(ssh2, "\n", "\n\r")},
            {"wrapped block", Form::kSsh2,
             preproc("  public-key-code begin\r\n" + ssh2 + "public-key-code end ")},
            {"puttygen block", Form::kSsh2, putty2},
        };
        for (const auto &f : forms)
            EXPECT_TRUE(same_key(read_as(f.form, f.text).get(), original.get())) << f.what;
    }
}

TEST_F(PeerText, WrapperAllowsOnlyBlanksOutsideItsMarkers) {
    const struct {
        const char *text, *want;
    } cases[] = {
        {"  public-key-code begin\nAB CD\npublic-key-code end  ", "\nAB CD\n"},
        {"public-key-code beginABpublic-key-code end", "AB"},
        {"x public-key-code begin AB public-key-code end", "<null>"},
        {"\tpublic-key-code begin AB public-key-code end", "<null>"},
        {"public-key-code begin AB public-key-code end .", "<null>"},
        {"public-key-code begin AB public-key-code end\n", "<null>"},
        {"public-key-code begin AB\n", " AB\n"},
        {"AB public-key-code end", "AB "},
        {"AB\nCD", "AB\nCD"},
        {"", ""},
    };
    for (const auto &c : cases) EXPECT_EQ(preproc(c.text), c.want) << c.text;
    EXPECT_EQ(PKEY_PEER_PeerPubKeyPreProc(nullptr), nullptr);
}

TEST_F(PeerText, ReadersFollowTheirFormsRulesWithoutReadingPastTheText) {
    const EvpPkeyPtr ref = pkey::test::rsa_public_of_bits(2048);
    unsigned int len = 0;
    MallocPtr<char> blob(PKEY_PUBKEY_EvppkeyToBase64(ref.get(), 1, &len));
    ASSERT_TRUE(blob);
    const std::string b64 = blob.get();
    std::string lines;  // the Base64 in lines of 70, each ending in LF
    for (size_t at = 0; at < b64.size(); at += 70) lines += b64.substr(at, 70) + "\n";
    const std::string kBegin = "---- BEGIN SSH2 PUBLIC KEY ----\n";
    const std::string kEnd = "---- END SSH2 PUBLIC KEY ----";
    const std::string e = decimal_param(ref.get(), OSSL_PKEY_PARAM_RSA_E);
    const std::string n = decimal_param(ref.get(), OSSL_PKEY_PARAM_RSA_N);
    const auto zeros = [](size_t count) { return std::string(count, '0'); };
    const std::string with_blank = lines.substr(0, 10) + " " + lines.substr(10);

    const struct {
        const char *what;
        Form form;
        std::string text;
        bool reads;
    } cases[] = {
        {"no header", Form::kSsh2, kBegin + lines + kEnd, true},
        {"continued header", Form::kSsh2,
         kBegin + "Comment: \"first half \\\nsecond half\"\n" + lines + kEnd + "\n", true},
        {"two headers, colons", Form::kSsh2, kBegin + "Subject: a\r\rx-Note: b:c\n" + lines + kEnd,
         true},
        {"colon after END", Form::kSsh2, kBegin + lines + kEnd + "\nx: y", false},
        {"blank in the body", Form::kSsh2, kBegin + with_blank + kEnd, false},
        {"no END", Form::kSsh2, kBegin + lines, false},
        {"no BEGIN", Form::kSsh2, lines + kEnd, false},
        {"ends in a header", Form::kSsh2, kBegin + "Comment: x \\", false},
        {"blanks and a comment", Form::kOpenSsh, "ssh-rsa    " + b64 + " me@host\r\n", true},
        {"line end, no comment", Form::kOpenSsh, "ssh-rsa " + b64 + "\r\n", true},
        {"ssh-rsa after ssh-dss", Form::kOpenSsh, "ssh-dss xx ssh-rsa " + b64, true},
        {"label not compared", Form::kOpenSsh, "ssh-dss " + b64, true},
        {"ecdsa type", Form::kOpenSsh, "ecdsa-sha2-nistp256 " + b64, true},
        {"short ecdsa at the end", Form::kOpenSsh, "x ecdsa-sha2-nistp", false},
        {"bare ecdsa type", Form::kOpenSsh, "ecdsa-sha2-nistp521", false},
        {"no known type", Form::kOpenSsh, "ssh-ed25519 " + b64, false},
        {"ssh1", Form::kSsh1, "2048 " + e + " " + n, true},
        {"ssh1 blank runs, extra pieces", Form::kSsh1, "  2048   " + e + "  " + n + " c d", true},
        {"ssh1 trailing CR LF", Form::kSsh1, "2048 " + e + " " + n + "\r\n", true},
        {"ssh1 one bit too many", Form::kSsh1, "2049 " + e + " " + n, false},
        {"ssh1 one bit too few", Form::kSsh1, "2047 " + e + " " + n, false},
        {"ssh1 bits of 5 chars", Form::kSsh1, "02048 " + e + " " + n, false},
        {"ssh1 exponent of 81 digits", Form::kSsh1, "2048 " + zeros(76) + e + " " + n, false},
        {"ssh1 modulus of 2049 digits", Form::kSsh1, "2048 " + e + " " + zeros(2049 - n.size()) + n,
         false},
        {"ssh1 two pieces", Form::kSsh1, "2048 " + e + "  ", false},
        {"ssh1 no digits", Form::kSsh1, "2048 " + e + " x" + n, false},
    };
    for (const auto &c : cases) {
        const EvpPkeyPtr got = read_as(c.form, c.text);
        if (c.reads) {
            EXPECT_TRUE(same_key(got.get(), ref.get())) << c.what;
        } else {
            EXPECT_FALSE(got) << c.what;
        }
    }
    // Exactly 80 exponent digits and 2048 modulus digits are still accepted.
    EXPECT_TRUE(read_as(Form::kSsh1, "2048 " + zeros(75) + e + " " + zeros(2048 - n.size()) + n));
    EXPECT_EQ(PKEY_PEER_ReadSSH2PubKey(nullptr), nullptr);
    EXPECT_EQ(PKEY_PEER_ReadOpenSSHPubKey(nullptr), nullptr);
    EXPECT_EQ(PKEY_PEER_ReadSSH1PubKey(nullptr), nullptr);
}

}  // namespace
