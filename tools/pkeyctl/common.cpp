// Helpers every pkeyctl command group shares: messages, name rules, text for
// terminals and JSON, algorithms and curves, fingerprints.
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli.hpp"
#include "host_platform.h"
#include "openssh_keys.hpp"
#include "pkey_curves.hpp"
#include "pkey_local.h"
#include "pkey_peer.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"

namespace pkeyctl {
namespace {

const std::vector<Algorithm> kAlgorithms = {
    {"rsa", EVP_PKEY_RSA, PKEY_ALG_RSA}, {"dsa", EVP_PKEY_DSA, PKEY_ALG_DSA}, {"ecdsa", EVP_PKEY_EC, PKEY_ALG_ECDSA}};
// The SSH curves of the library's curve table, named as SSH names them and,
// for the command line, without the "nist" prefix.
const std::vector<Curve> kCurves = [] {
    std::vector<Curve> curves;
    for (const pkey::curves::Curve &c : pkey::curves::kCurves) {
        if (!c.in_ssh()) continue;
        std::string_view option = c.ssh_id;
        if (option.starts_with("nist")) option.remove_prefix(4);
        curves.push_back({std::string(option), std::string(c.ssh_id), c.nid});
    }
    return curves;
}();

}  // namespace

int usage_error(const std::string &message) {
    std::fprintf(stderr, "pkeyctl: %s (try 'pkeyctl --help')\n", message.c_str());
    return kUsage;
}

int failure(const std::string &what, const std::string &why) {
    std::fprintf(stderr, "pkeyctl: %s: %s\n", what.c_str(), why.c_str());
    return kFailed;
}

int check_local_name(const std::string &name) {
    if (name.size() > PKEY_KEY_NAME_MAX || PKEY_CheckLocalKeyName(name.c_str()) != 0)
        return usage_error("bad key name '" + printable(name) + "': a key name has 1 to 64 letters, digits and '-'");
    return kOk;
}

bool is_peer_name(std::string_view name) {
    bool printable_only = !name.empty() && name.size() < PKEY_PEER_NAME_LEN;
    for (const unsigned char c : name) printable_only = printable_only && c > 0x20 && c < 0x7F;
    return printable_only;
}

int check_peer_name(const std::string &name) {
    if (!is_peer_name(name))
        return usage_error("bad peer key name '" + printable(name) +
                           "': a peer key name has 1 to 64 printable characters and no blanks");
    return kOk;
}

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const unsigned char c : text) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c < 0x20 || c >= 0x7F) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string hex_code(unsigned int code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", code);
    return text;
}

std::string platform_error() {
    const char *e = HOST_LastError();
    return e != nullptr ? e : "";
}

std::string iso_time(const std::string &time_and_date) {
    int hh = 0, mi = 0, ss = 0, yyyy = 0, mm = 0, dd = 0;
    char tail = 0;
    if (std::sscanf(time_and_date.c_str(), "%2d:%2d:%2d %4d/%2d/%2d%c", &hh, &mi, &ss, &yyyy, &mm, &dd, &tail) != 6)
        return "";
    char out[32];
    std::snprintf(out, sizeof out, "%04d-%02d-%02dT%02d:%02d:%02d", yyyy, mm, dd, hh, mi, ss);
    return out;
}

const char *mode_name() { return CRYPTO_FIPSIsEnabled() == 1 ? "FIPS" : "non-FIPS"; }

const std::vector<Algorithm> &algorithms() { return kAlgorithms; }
const std::vector<Curve> &curves() { return kCurves; }

const Algorithm *find_algorithm(std::string_view name) {
    for (const auto &a : kAlgorithms)
        if (name == a.name) return &a;
    return nullptr;
}
const Algorithm *algorithm_of(const EVP_PKEY *key) {
    for (const auto &a : kAlgorithms)
        if (key != nullptr && EVP_PKEY_get_id(key) == a.evp_type) return &a;
    return nullptr;
}
const Curve *find_curve(std::string_view name) {
    for (const auto &c : kCurves)
        if (name == c.option || name == c.ssh_name) return &c;
    return nullptr;
}

std::string fingerprint_sha256(EVP_PKEY *key) {
    const std::vector<unsigned char> blob = pkey::openssh::ssh_blob(key);
    if (blob.empty()) return "-";
    unsigned char digest[32];
    EVP_Digest(blob.data(), blob.size(), digest, nullptr, EVP_sha256(), nullptr);
    unsigned char text[64];
    std::string out(reinterpret_cast<char *>(text), EVP_EncodeBlock(text, digest, sizeof digest));
    while (!out.empty() && out.back() == '=') out.pop_back();
    return "SHA256:" + out;
}

std::string fingerprint_md5(EVP_PKEY *key) {
    const std::vector<unsigned char> blob = pkey::openssh::ssh_blob(key);
    if (blob.empty()) return "-";
    unsigned char digest[16];
    if (EVP_Digest(blob.data(), blob.size(), digest, nullptr, EVP_md5(), nullptr) != 1) return "-";
    std::string out = "MD5";
    char byte[4];
    for (unsigned char b : digest) {
        std::snprintf(byte, sizeof byte, ":%02x", b);
        out += byte;
    }
    return out;
}

std::string key_code_display(EVP_PKEY *key) {
    unsigned char *der = nullptr;
    const int len = i2d_PUBKEY(key, &der);
    pkey::OpensslPtr<> owner(der);
    pkey::MallocPtr<char> text(len > 0 ? PKEY_PUBKEY_DER2BdrnBuf(der, static_cast<unsigned>(len)) : nullptr);
    return std::string("public-key-code begin") + (text ? text.get() : "\r\n") + "public-key-code end\r\n";
}

std::string json_string(std::string_view text) {
    std::string out = "\"";
    for (const unsigned char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20 || c >= 0x7F) {
                    char esc[8];
                    std::snprintf(esc, sizeof esc, "\\u%04x", c);
                    out += esc;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

}  // namespace pkeyctl
