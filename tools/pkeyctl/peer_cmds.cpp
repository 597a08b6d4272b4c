// pkeyctl peer ...: the public keys of remote users.
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "cli.hpp"
#include "host_platform.h"
#include "pkey_cfgmng.h"
#include "pkey_curves.hpp"
#include "pkey_peer.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"

namespace pkeyctl {
namespace {

constexpr std::string_view kBlank = " \t\r\n";
constexpr std::string_view kSsh2Begin = "---- BEGIN SSH2 PUBLIC KEY ----";
constexpr std::string_view kSsh2End = "---- END SSH2 PUBLIC KEY ----";
// The key type words of an OpenSSH line: RSA, DSA and the library's SSH curves.
bool is_key_type(std::string_view word) {
    if (word == "ssh-rsa" || word == "ssh-dss") return true;
    return pkey::curves::by_ssh_type(word) != nullptr;
}

enum class Form { kKeyCode, kSsh2, kOpenSsh, kSsh1, kUnknown };

bool only(std::string_view text, std::string_view allowed) {
    return text.find_first_not_of(allowed) == std::string_view::npos;
}

std::vector<std::string_view> split(std::string_view text, std::string_view separators) {
    std::vector<std::string_view> parts;
    for (size_t i = text.find_first_not_of(separators); i != std::string_view::npos;) {
        const size_t end = std::min(text.find_first_of(separators, i), text.size());
        parts.push_back(text.substr(i, end - i));
        i = text.find_first_not_of(separators, end);
    }
    return parts;
}

// Which reader a text is for: the markers of SSH2 blocks and OpenSSH lines,
// three decimal numbers (the last a long modulus) for SSH1, hexadecimal
// digits for key code.
Form detect_form(std::string_view text) {
    if (text.find(kSsh2Begin) != std::string_view::npos) return Form::kSsh2;
    for (std::string_view type : {"ssh-rsa", "ssh-dss", "ecdsa"})
        if (text.find(type) != std::string_view::npos) return Form::kOpenSsh;
    std::vector<std::string_view> tokens = split(text, kBlank);
    if (tokens.empty()) return Form::kUnknown;
    // Bits, exponent and modulus come first; a comment may follow. A modulus
    // runs to hundreds of digits; hex key code comes in pairs.
    if (tokens.size() > 3) tokens.resize(3);
    constexpr size_t kShortestModulus = 20;
    if (tokens.size() == 3 && tokens[2].size() >= kShortestModulus &&
        std::all_of(tokens.begin(), tokens.end(), [](std::string_view t) { return only(t, "0123456789"); }))
        return Form::kSsh1;
    return only(text, std::string("0123456789abcdefABCDEF") + std::string(kBlank)) ? Form::kKeyCode : Form::kUnknown;
}

// The type word and Base64 of an OpenSSH line, as OpenSSH reads it: the
// first word that is a key type, and the word after it.
bool openssh_fields(std::string_view text, std::string &type, std::string &base64) {
    const std::vector<std::string_view> words = split(text, kBlank);
    for (size_t i = 0; i + 1 < words.size(); ++i) {
        if (!is_key_type(words[i])) continue;
        type = words[i];
        base64 = words[i + 1];
        return true;
    }
    return false;
}

// The Base64 body of an SSH2 block: the lines between its markers that are
// not headers ("Tag: value", continued by a trailing backslash).
bool ssh2_body(std::string_view text, std::string &base64) {
    std::vector<std::string_view> lines;
    for (size_t i = 0; i <= text.size();) {
        const size_t end = std::min(text.find_first_of("\r\n", i), text.size());
        lines.push_back(text.substr(i, end - i));
        i = end + 1;
        if (end < text.size() && text[end] == '\r' && i < text.size() && text[i] == '\n') ++i;
    }
    size_t i = 0;
    while (i < lines.size() && lines[i].find(kSsh2Begin) == std::string_view::npos) ++i;
    bool continued = false;
    for (++i; i < lines.size(); ++i) {
        const std::string_view line = lines[i];
        if (line.find(kSsh2End) != std::string_view::npos) return !base64.empty();
        if (continued || line.find(':') != std::string_view::npos) {
            continued = !line.empty() && line.back() == '\\';
            continue;
        }
        base64 += line;
    }
    return false;
}

std::string rule_of(const EVP_PKEY *key) {
    switch (EVP_PKEY_get_id(key)) {
        case EVP_PKEY_RSA:
            return "not a possible RSA key: its modulus and exponent must be odd, and the exponent at least 3 and "
                   "below the modulus";
        case EVP_PKEY_DSA:
            return "not a possible DSA key: its generator and public value must lie in the group of its parameters";
        default: return "not a possible ECDSA key: its point is not a point of its curve";
    }
}

// The policy's verdict on a parsed key; "" when it may be stored.
std::string policy_problem(EVP_PKEY *key) {
    if (PKEY_PUBKEY_IsPublicKeyPossible(key) != 1) return rule_of(key);
    if (PKEY_PUBKEY_IsEvpAglEnable(static_cast<unsigned>(EVP_PKEY_get_id(key))) != 1)
        return "the key's algorithm is disabled";
    if (PKEY_PUBKEY_IsKeyLenValid(key) != 1)
        return std::to_string(PKEY_PUBKEY_GetKeyBits(key)) + "-bit key refused by the key-size policy of " +
               mode_name() + " mode";
    return "";
}

// 1 when a record of the name is stored, 0 when not, -1 (error set) when the
// database cannot be read.
int peer_stored(const std::string &name, std::string &error) {
    HOST_ClearError();
    const int handle = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_READ);
    if (handle == -1) {
        error = "cannot read the peer key database: " + platform_error();
        return -1;
    }
    const int len = DBM_Len(handle, name.data(), static_cast<unsigned int>(name.size()));
    DBM_Close(handle);
    if (len >= 1) return 1;
    if (!platform_error().empty()) {
        error = "cannot read the peer key database: " + platform_error();
        return -1;
    }
    return 0;
}

// The DER key of a hex key code, checked as the library will check it, so
// that a refusal comes with its reason.
int check_key_code(const std::string &what, const std::string &hex) {
    if (hex.size() > PKEY_PEER_KEYCODE_MAX_DIGITS)
        return failure(what, "the key code has more than 4096 hexadecimal digits");
    if (hex.size() % 2 != 0) return failure(what, "the key code has an odd number of hexadecimal digits");
    std::vector<unsigned char> der(hex.size() / 2 + 1);
    const unsigned int count = PKEY_HexStringToHexData(hex.c_str(), der.data());
    const unsigned char *p = der.data();
    pkey::EvpPkeyPtr key(count > 0 ? d2i_PUBKEY(nullptr, &p, count) : nullptr);
    if (!key) return failure(what, "the key code is not a DER public key");
    if (static_cast<unsigned int>(p - der.data()) != count)
        return failure(what, "the key code has bytes after the key");
    if (const std::string problem = policy_problem(key.get()); !problem.empty()) return failure(what, problem);
    return kOk;
}

int add_key_code(const std::string &name, const char *body) {
    std::string hex;
    for (const char *c = body; *c != '\0'; ++c)
        if (kBlank.find(*c) == std::string_view::npos) hex += *c;
    const std::string what = "peer add " + name;
    if (const int r = check_key_code(what, hex); r != kOk) return r;
    std::vector<char> entry(PKEY_PEER_NAME_LEN + hex.size() + 1, '\0');
    // The name is checked to fit its field; the bound says so to the compiler too.
    std::memcpy(entry.data(), name.data(), std::min<std::size_t>(name.size(), PKEY_PEER_NAME_LEN - 1));
    std::memcpy(entry.data() + PKEY_PEER_NAME_LEN, hex.data(), hex.size());
    std::fflush(stdout);
    HOST_ClearError();
    if (const unsigned int r = PKEY_PEER_EditKeyCodeFinish(entry.data()); r != 0) {
        std::fflush(stdout);  // the library has printed its own message, if any
        const std::string platform = platform_error();
        return failure(what, "the peer key store refused it (code " + hex_code(r) + ")" +
                                 (platform.empty() ? "" : ": " + platform));
    }
    return kOk;
}

int add_parsed(const std::string &name, Form form, const std::string &text, char *body) {
    const std::string what = "peer add " + name;
    // OpenSSH refuses a blob with bytes after its last field, a negative
    // number or a type word that does not match it; the library's readers are
    // more lenient, so the tool checks the blob they will read.
    std::string type, base64;
    if (form == Form::kOpenSsh && !openssh_fields(text, type, base64))
        return failure(what, "not an OpenSSH public key line (no key type followed by its Base64)");
    if (form == Form::kSsh2 && !ssh2_body(text, base64))
        return failure(what, "not an SSH2 public key block (no body between its BEGIN and END lines)");
    pkey::EvpPkeyPtr key(form == Form::kSsh2      ? PKEY_PEER_ReadSSH2PubKey(body)
                         : form == Form::kOpenSsh ? PKEY_PEER_ReadOpenSSHPubKey(body)
                         : form == Form::kSsh1    ? PKEY_PEER_ReadSSH1PubKey(body)
                                                  : nullptr);
    if (!key) return failure(what, "not a readable RSA, DSA or ECDSA public key");
    if (form == Form::kOpenSsh || form == Form::kSsh2) {
        if (PKEY_PUBKEY_IsBase64BlobStrict(base64.c_str(), nullptr) != 1)
            return failure(what,
                           "the key blob is not one OpenSSH reads: it must be one known key type, end "
                           "with its last field and hold no negative number");
        if (!type.empty() && PKEY_PUBKEY_IsBase64BlobStrict(base64.c_str(), type.c_str()) != 1)
            return failure(what, "the line says " + type + " but its key blob is another type");
        pkey::EvpPkeyPtr strict(PKEY_PUBKEY_Base64toEvppkey(base64.c_str()));
        if (!strict || PKEY_CmpPubKey(strict.get(), key.get()) != 1)
            return failure(what, "the text holds more than one key blob; give one key at a time");
    }
    if (const std::string problem = policy_problem(key.get()); !problem.empty()) return failure(what, problem);
    HOST_ClearError();
    if (const unsigned int r = PKEY_EditKeyCode(key.get(), name.c_str()); r != 0) {
        const std::string platform = platform_error();
        return failure(what, "the peer key store refused it (code " + hex_code(r) + ")" +
                                 (platform.empty() ? "" : ": " + platform));
    }
    return kOk;
}

int peer_add(const Args &a) {
    const std::string name = a.positional[0];
    if (const int r = check_peer_name(name); r != kOk) return r;
    const std::string what = "peer add " + name;
    std::string text, error;
    const std::string source = a.positional.size() > 1 ? a.positional[1] : "-";
    if (source == "-" && isatty(STDIN_FILENO) != 0) std::fprintf(stderr, "paste the key, then press Ctrl-D\n");
    if (!read_key_text(source, text, error)) return failure(what, error);
    const int stored = peer_stored(name, error);
    if (stored < 0) return failure(what, error);
    if (stored == 1 && !a.has("--force")) return failure(what, "peer key " + name + " exists; --force replaces it");
    // Files end in line breaks; the key-code wrapper allows only blanks
    // around it, so surrounding white space goes first.
    const size_t first = text.find_first_not_of(kBlank);
    text = first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(kBlank) - first + 1);
    // The readers work in place on a writable, terminated copy.
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    char *body = PKEY_PEER_PeerPubKeyPreProc(buf.data());
    if (body == nullptr) return failure(what, "text outside the public-key-code wrapper");
    const std::string inner = body;
    const Form form = detect_form(inner);
    if (form == Form::kUnknown) return failure(what, "not a key code, SSH2, OpenSSH or SSH1 public key");
    const int r = form == Form::kKeyCode ? add_key_code(name, body) : add_parsed(name, form, inner, body);
    if (r != kOk) return r;
    pkey::EvpPkeyPtr saved(PKEY_GetUserKeyByName(name.c_str()));
    if (!saved) return failure(what, "the key was stored but cannot be read back: " + platform_error());
    const Algorithm *alg = algorithm_of(saved.get());
    std::printf("%s peer key %s: %s %u bits %s\n", stored == 1 ? "replaced" : "added", name.c_str(),
                alg ? alg->name : "?", PKEY_PUBKEY_GetKeyBits(saved.get()), fingerprint_sha256(saved.get()).c_str());
    return kOk;
}

int peer_list(const Args &a) {
    HOST_ClearError();
    // In FIPS mode a lookup purges the keys the mode forbids; list after it.
    PKEY_CFGMNG_DestroyNonFIPSApprovedPeerPubKey();
    std::vector<std::string> names;
    const int handle = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_READ);
    if (handle != -1) {
        unsigned int count = 0;
        PKEY_NAME_LINK_S *head = PKEY_CFGMNG_GetSortedPeerKeyNameList(handle, &count);
        DBM_Close(handle);
        for (PKEY_NAME_LINK_S *l = head != nullptr ? head->pstNext : nullptr; l != nullptr && l != head; l = l->pstNext)
            names.emplace_back(reinterpret_cast<PKEY_NAME_NODE_S *>(l)->szName);
        PKEY_CFGMNG_DestroySortedPeerKeyNameList(head);
    }
    if (handle == -1 || !platform_error().empty())
        return failure("peer list", "cannot read the peer key database: " + platform_error());

    const bool json = a.has("--json");
    size_t unreadable = 0;
    if (json)
        std::printf("[");
    else
        std::printf("%-24s %-6s %5s  %s\n", "NAME", "ALG", "BITS", "FINGERPRINT");
    for (size_t i = 0; i < names.size(); ++i) {
        pkey::EvpPkeyPtr key(PKEY_GetUserKeyByName(names[i].c_str()));
        const Algorithm *alg = algorithm_of(key.get());
        if (!key || alg == nullptr) {
            ++unreadable;
            const char *problem = "its stored value is not a public key";
            if (json)
                std::printf("%s\n  {\"name\": %s, \"readable\": false, \"problem\": \"%s\"}", i ? "," : "",
                            json_string(names[i]).c_str(), problem);
            else
                std::printf("%-24s %-6s %5s  UNREADABLE: %s\n", printable(names[i]).c_str(), "-", "-", problem);
            continue;
        }
        const unsigned int bits = PKEY_PUBKEY_GetKeyBits(key.get());
        const std::string fp = fingerprint_sha256(key.get());
        if (json)
            std::printf("%s\n  {\"name\": %s, \"readable\": true, \"algorithm\": \"%s\", \"bits\": %u, \"sha256\": %s}",
                        i ? "," : "", json_string(names[i]).c_str(), alg->name, bits, json_string(fp).c_str());
        else
            std::printf("%-24s %-6s %5u  %s\n", printable(names[i]).c_str(), alg->name, bits, fp.c_str());
    }
    if (json) std::printf("%s]\n", names.empty() ? "" : "\n");
    std::fflush(stdout);
    if (!platform_error().empty())
        return failure("peer list", "cannot read the peer key database: " + platform_error());
    if (unreadable != 0)
        return failure("peer list",
                       std::to_string(unreadable) + (unreadable == 1 ? " key is" : " keys are") + " unreadable");
    return kOk;
}

int peer_show(const Args &a) {
    const std::string &name = a.positional[0];
    if (const int r = check_peer_name(name); r != kOk) return r;
    HOST_ClearError();
    pkey::EvpPkeyPtr key(PKEY_GetUserKeyByName(name.c_str()));
    if (!key) {
        std::string error;
        const int stored = peer_stored(name, error);
        if (stored < 0) return failure("peer show", error);
        return failure("peer show",
                       stored == 1 ? "the stored value of " + name + " is not a public key" : "no peer key " + name);
    }
    const Algorithm *alg = algorithm_of(key.get());
    std::printf("%s %s %u bits %s\n%s", name.c_str(), alg ? alg->name : "?", PKEY_PUBKEY_GetKeyBits(key.get()),
                fingerprint_sha256(key.get()).c_str(), key_code_display(key.get()).c_str());
    return kOk;
}

int peer_remove(const Args &a) {
    const std::string &name = a.positional[0];
    if (const int r = check_peer_name(name); r != kOk) return r;
    // The library counts a database it cannot open as nothing to remove;
    // the operator is told instead.
    HOST_ClearError();
    const int handle = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_DELETE);
    if (handle == -1) return failure("peer remove", "cannot read the peer key database: " + platform_error());
    DBM_Close(handle);
    const unsigned int r = PKEY_PEER_RemovePeerPubKeyByName(name.c_str());
    if (r == DBM_ERR_NOT_FOUND) return failure("peer remove", "no peer key " + name);
    if (r != 0) {
        const std::string platform = platform_error();
        return failure("peer remove", "the peer key database refused it (code " + hex_code(r) + ")" +
                                          (platform.empty() ? "" : ": " + platform));
    }
    std::printf("removed peer key %s\n", name.c_str());
    return kOk;
}

// The SSH key type name at the head of a key blob given in Base64 ("ssh-rsa",
// "ecdsa-sha2-nistp256"); "" when the blob does not start with one.
std::string blob_type(const char *base64) {
    const size_t len = std::strlen(base64);
    if (len == 0 || len % 4 != 0) return "";
    std::vector<unsigned char> blob(len / 4 * 3);
    const int n = EVP_DecodeBlock(blob.data(), reinterpret_cast<const unsigned char *>(base64), static_cast<int>(len));
    if (n < 4) return "";
    const size_t type_len = (size_t{blob[0]} << 24) | (size_t{blob[1]} << 16) | (size_t{blob[2]} << 8) | blob[3];
    if (type_len == 0 || type_len > static_cast<size_t>(n) - 4) return "";
    return {reinterpret_cast<const char *>(blob.data()) + 4, type_len};
}

// Whether OpenSSH's server can take a key of this type and size at all: RSA
// of 1024 bits and more (it refuses shorter moduli), ECDSA on P-256, P-384 and
// P-521 (it has no P-192 type). DSA is left out: OpenSSH's server refuses
// ssh-dss by default and newer releases lack it, and its signatures fit only
// the 160-bit subgroup of 1024-bit keys, not the 2048-bit keys FIPS mode allows.
bool openssh_server_takes(const std::string &type, unsigned int bits) {
    constexpr unsigned int kOpenSshMinRsaBits = 1024;
    if (type == "ssh-rsa") return bits >= kOpenSshMinRsaBits;
    return type == "ecdsa-sha2-nistp256" || type == "ecdsa-sha2-nistp384" || type == "ecdsa-sha2-nistp521";
}

bool names_a_peer(const Args &a) { return is_peer_name(a.positional[0]); }

// sshd's AuthorizedKeysCommand: the user's peer key as one authorized_keys
// line. Any user name reaches it, so a name that cannot be a peer key name,
// a key that is not there (or that FIPS mode refuses, which the library's
// existence test also removes) and a key OpenSSH's server cannot use all
// print nothing and succeed; only a store that cannot be read fails, which
// sshd takes as no key.
int peer_authorized_keys(const Args &a) {
    const std::string &name = a.positional[0];
    if (!is_peer_name(name)) return kOk;
    HOST_ClearError();
    pkey::EvpPkeyPtr key(PKEY_IsPeerPubKeyExisted(name.c_str()) == 1 ? PKEY_GetUserKeyByName(name.c_str()) : nullptr);
    if (!key && !platform_error().empty())
        return failure("peer authorized-keys", "cannot read the peer key database: " + platform_error());
    std::string line;
    if (key) {
        unsigned int len = 0;
        const pkey::MallocPtr<char> base64(PKEY_PUBKEY_EvppkeyToBase64(key.get(), 1, &len));
        const std::string type = base64 ? blob_type(base64.get()) : "";
        if (openssh_server_takes(type, PKEY_PUBKEY_GetKeyBits(key.get())))
            line = type + " " + base64.get() + " pkey:" + name + "\n";
    }
    // sshd runs this at every login: the process ends here, without closing
    // the database, whose last close checkpoints its write-ahead log and
    // removes it (file writes in the store at every login), and without the
    // destructors of the rest of the program.
    const bool written = std::fwrite(line.data(), 1, line.size(), stdout) == line.size();
    if (std::fflush(stdout) != 0 || !written) std::_Exit(failure("peer authorized-keys", "cannot write the key"));
    std::_Exit(kOk);
}

const std::vector<Command> kPeer = {
    {"peer add", "NAME [FILE|-] [--force]",
     "add a peer key from a file or standard input (at most 64 KiB): hex key code (wrapped in "
     "public-key-code begin/end or not), SSH2 block, OpenSSH line or SSH1 text. A name that is "
     "taken is kept unless --force replaces its key",
     "--force", 1, 2, peer_add},
    {"peer list", "[--json]",
     "peer keys sorted by name, with algorithm, bits and fingerprint; a stored value that is not a key "
     "is listed as unreadable and the exit status is 1",
     "--json", 0, 0, peer_list, "*"},
    {"peer show", "NAME", "a peer key's fingerprint and key-code display", "", 1, 1, peer_show, "*"},
    {"peer remove", "NAME", "remove a peer key", "", 1, 1, peer_remove},
    {"peer authorized-keys", "USER",
     "for sshd's AuthorizedKeysCommand: the peer key named USER as one authorized_keys line (RSA of 1024 "
     "bits and more, ECDSA on P-256, P-384 and P-521), or nothing when there is none, FIPS mode refuses it "
     "(and so removes it) or USER cannot be a peer key name; exit status 1 only when the store cannot be read",
     "", 1, 1, peer_authorized_keys, "*", names_a_peer, true},
};

}  // namespace

const std::vector<Command> &peer_commands() { return kPeer; }

}  // namespace pkeyctl
