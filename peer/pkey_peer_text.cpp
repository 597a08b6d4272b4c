// Readers for the public key text an operator pastes for a peer: the
// "public-key-code" wrapper, the SSH2 public key block, the OpenSSH line and
// the SSH1 "bits exponent modulus" text.
//
// Every reader works in place on the caller's writable text: it writes zero
// bytes into it (the SSH2 reader also deletes its line breaks) and never
// copies it. The text's terminating NUL is its end; no reader looks beyond it,
// whatever the text holds. The Base64 forms end in the strict Base64 reader of
// the blob module, which also decides the key type.
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <string.h>  // strsep

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "pkey_curves.hpp"
#include "pkey_peer.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace {

using pkey::BignumPtr;
using pkey::EvpPkeyPtr;

using pkey::ParamBldPtr;

constexpr std::string_view kWrapBegin = "public-key-code begin";
constexpr std::string_view kWrapEnd = "public-key-code end";
constexpr std::string_view kSsh2Begin = "---- BEGIN SSH2 PUBLIC KEY ----";
constexpr std::string_view kSsh2End = "---- END SSH2 PUBLIC KEY ----";

constexpr std::string_view kSshRsa = "ssh-rsa";
constexpr std::string_view kSshDss = "ssh-dss";
constexpr std::string_view kEcdsa = "ecdsa";
// Every ECDSA type name ("ecdsa-sha2-nistp256" ...) is this long; it is
// skipped whole without looking at what follows "ecdsa".
constexpr std::size_t kEcdsaTypeLen = pkey::curves::kSshTypeLen;

// Longest SSH1 pieces in characters: bits, exponent, modulus.
constexpr std::size_t kSsh1Limits[3] = {4, 80, 2048};

// 1 if the n bytes from p are all blanks (0x20); a tab or line break is not one.
// An empty run counts as blank.
unsigned int PKEY_MOR_IsAllSpace(const char *p, std::size_t n) noexcept {
    for (std::size_t i = 0; i < n; ++i) {
        if (p[i] != ' ') return 0;
    }
    return 1;
}

bool is_line_break(char c) noexcept { return c == '\r' || c == '\n'; }

// The start of the Base64 body behind the SSH2 begin marker: past the last
// colon of the remaining text (the end of the last header's name), then past
// the rest of that header, whose lines end in a backslash while it goes on.
// One line break is one CR or LF, taken together with a CR or LF that follows
// directly (any pair), so CR LF and LF CR ends of line count once.
char *ssh2_body_start(char *p) noexcept {
    if (char *colon = std::strrchr(p, ':'); colon != nullptr) p = colon + 1;
    char last = '\0';
    while (*p != '\0') {
        if (!is_line_break(*p)) {
            last = *p++;
            continue;
        }
        ++p;
        if (is_line_break(*p)) ++p;
        // A continued line keeps the backslash as its last character seen.
        if (last != '\\') break;
    }
    return p;
}

// An RSA public key from its modulus and public exponent.
EvpPkeyPtr rsa_public_key(const BIGNUM *n, const BIGNUM *e) noexcept {
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    if (!bld || OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, n) != 1 ||
        OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, e) != 1)
        return nullptr;
    return pkey::key_from_builder("RSA", EVP_PKEY_PUBLIC_KEY, bld.get());
}

// A decimal number read up to its first non-digit, or null when none is there.
BignumPtr decimal(const char *text) noexcept {
    BIGNUM *bn = nullptr;
    if (BN_dec2bn(&bn, text) == 0) return nullptr;
    return BignumPtr(bn);
}

}  // namespace

extern "C" {

char *PKEY_PEER_PeerPubKeyPreProc(char *text) noexcept {
    return pkey::c_boundary<char *>(nullptr, [&]() -> char * {
        if (text == nullptr) return nullptr;
        char *start = text;
        if (char *begin = std::strstr(text, kWrapBegin.data()); begin != nullptr) {
            if (PKEY_MOR_IsAllSpace(text, static_cast<std::size_t>(begin - text)) == 0)
                return nullptr;
            start = begin + kWrapBegin.size();
        }
        // Without an end marker the wrapper is left open: everything after the
        // begin marker is the key.
        char *end = std::strstr(start, kWrapEnd.data());
        if (end == nullptr) return start;
        const char *after = end + kWrapEnd.size();
        if (PKEY_MOR_IsAllSpace(after, std::strlen(after)) == 0) return nullptr;
        *end = '\0';
        return start;
    });
}

EVP_PKEY *PKEY_PEER_ReadSSH2PubKey(char *text) noexcept {
    return pkey::c_boundary<EVP_PKEY *>(nullptr, [&]() -> EVP_PKEY * {
        if (text == nullptr) return nullptr;
        char *begin = std::strstr(text, kSsh2Begin.data());
        if (begin == nullptr) return nullptr;
        char *body = ssh2_body_start(begin + kSsh2Begin.size());
        char *end = std::strstr(body, kSsh2End.data());
        if (end == nullptr) return nullptr;
        *end = '\0';
        // The body's lines become one Base64 text; blanks stay and are refused.
        PKEY_RemoveCRLF(body);
        return PKEY_PUBKEY_Base64toEvppkey(body);
    });
}

EVP_PKEY *PKEY_PEER_ReadOpenSSHPubKey(char *text) noexcept {
    return pkey::c_boundary<EVP_PKEY *>(nullptr, [&]() -> EVP_PKEY * {
        if (text == nullptr) return nullptr;
        char *p = nullptr;
        if ((p = std::strstr(text, kSshRsa.data())) != nullptr) {
            p += kSshRsa.size();
        } else if ((p = std::strstr(text, kSshDss.data())) != nullptr) {
            p += kSshDss.size();
        } else if ((p = std::strstr(text, kEcdsa.data())) != nullptr) {
            // Too short a tail for a whole type name: skipping it would leave the text.
            if (strnlen(p, kEcdsaTypeLen) < kEcdsaTypeLen) return nullptr;
            p += kEcdsaTypeLen;
        } else {
            return nullptr;
        }
        while (*p == ' ') ++p;
        // The Base64 text ends at the first blank or line break; a comment
        // behind it is cut off.
        p[std::strcspn(p, " \r\n")] = '\0';
        return PKEY_PUBKEY_Base64toEvppkey(p);
    });
}

EVP_PKEY *PKEY_PEER_ReadSSH1PubKey(char *text) noexcept {
    return pkey::c_boundary<EVP_PKEY *>(nullptr, [&]() -> EVP_PKEY * {
        if (text == nullptr) return nullptr;
        // bits, exponent, modulus: the first three pieces between blanks;
        // runs of blanks give empty pieces, which do not count.
        const char *pieces[3] = {};
        std::size_t count = 0;
        char *cursor = text;
        while (count < 3) {
            const char *piece = strsep(&cursor, " ");
            if (piece == nullptr) break;
            if (*piece == '\0') continue;
            if (std::strlen(piece) > kSsh1Limits[count]) return nullptr;
            pieces[count++] = piece;
        }
        if (count < 3) return nullptr;

        // Each number is read up to its first non-digit, so the line break
        // that ends a pasted line does no harm.
        const BignumPtr n = decimal(pieces[2]);
        const BignumPtr e = decimal(pieces[1]);
        if (!n || !e || BN_num_bits(n.get()) != std::atoi(pieces[0])) return nullptr;
        return rsa_public_key(n.get(), e.get()).release();
    });
}

}  // extern "C"
