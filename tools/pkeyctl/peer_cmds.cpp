// pkeyctl peer ...: the public keys of remote users.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "cli.hpp"
#include "pkey_cfgmng.h"
#include "pkey_peer.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace pkeyctl {
namespace {

constexpr std::string_view kBlank = " \t\r\n";
constexpr size_t kMaxInput = 1 << 20;  // far more than any public key text

enum class Form { kKeyCode, kSsh2, kOpenSsh, kSsh1, kUnknown };

bool only(std::string_view text, std::string_view allowed) {
    return text.find_first_not_of(allowed) == std::string_view::npos;
}

// Which reader a text is for: the markers of SSH2 blocks and OpenSSH lines,
// three decimal numbers (the last a long modulus) for SSH1, hexadecimal
// digits for key code.
Form detect_form(std::string_view text) {
    if (text.find("---- BEGIN SSH2 PUBLIC KEY ----") != std::string_view::npos) return Form::kSsh2;
    for (std::string_view type : {"ssh-rsa", "ssh-dss", "ecdsa"})
        if (text.find(type) != std::string_view::npos) return Form::kOpenSsh;
    std::vector<std::string_view> tokens;
    for (size_t i = text.find_first_not_of(kBlank); i != std::string_view::npos && tokens.size() < 3;) {
        const size_t end = std::min(text.find_first_of(kBlank, i), text.size());
        tokens.push_back(text.substr(i, end - i));
        i = text.find_first_not_of(kBlank, end);
    }
    if (tokens.empty()) return Form::kUnknown;
    // A modulus runs to hundreds of digits; hex key code comes in pairs.
    constexpr size_t kShortestModulus = 20;
    if (tokens.size() == 3 && tokens[2].size() >= kShortestModulus &&
        std::all_of(tokens.begin(), tokens.end(), [](std::string_view t) { return only(t, "0123456789"); }))
        return Form::kSsh1;
    return only(text, std::string("0123456789abcdefABCDEF") + std::string(kBlank)) ? Form::kKeyCode
                                                                                    : Form::kUnknown;
}

bool read_input(const std::string &source, std::string &text) {
    if (source.empty() || source == "-") {
        if (isatty(STDIN_FILENO) != 0) std::fprintf(stderr, "paste the key, then press Ctrl-D\n");
        text.assign(std::istreambuf_iterator<char>(std::cin), {});
        return !std::cin.bad();
    }
    std::ifstream in(source, std::ios::binary);
    if (!in) return false;
    text.assign(std::istreambuf_iterator<char>(in), {});
    return true;
}

int add_key_code(const std::string &name, const char *body) {
    std::string hex;
    for (const char *c = body; *c != '\0'; ++c)
        if (kBlank.find(*c) == std::string_view::npos) hex += *c;
    if (hex.size() > PKEY_PEER_KEYCODE_MAX_DIGITS)
        return failure("peer add " + name, "the key code has more than 4096 hexadecimal digits");
    std::vector<char> entry(PKEY_PEER_NAME_LEN + hex.size() + 1, '\0');
    std::copy(name.begin(), name.end(), entry.begin());
    std::copy(hex.begin(), hex.end(), entry.begin() + PKEY_PEER_NAME_LEN);
    std::fflush(stdout);
    if (PKEY_PEER_EditKeyCodeFinish(entry.data()) != 0) {
        std::fflush(stdout);  // the library has printed its own message, if any
        return failure("peer add " + name, "the key code was refused");
    }
    return kOk;
}

int add_parsed(const std::string &name, Form form, char *body) {
    pkey::EvpPkeyPtr key(form == Form::kSsh2      ? PKEY_PEER_ReadSSH2PubKey(body)
                         : form == Form::kOpenSsh ? PKEY_PEER_ReadOpenSSHPubKey(body)
                         : form == Form::kSsh1    ? PKEY_PEER_ReadSSH1PubKey(body)
                                                  : nullptr);
    const std::string what = "peer add " + name;
    if (!key) return failure(what, "not a readable RSA, DSA or ECDSA public key");
    if (PKEY_PUBKEY_IsEvpAglEnable(static_cast<unsigned>(EVP_PKEY_get_id(key.get()))) != 1)
        return failure(what, "the key's algorithm is disabled");
    if (PKEY_PUBKEY_IsKeyLenValid(key.get()) != 1)
        return failure(what, std::to_string(PKEY_PUBKEY_GetKeyBits(key.get())) +
                                 "-bit key refused by the key-size policy of " +
                                 (CRYPTO_FIPSIsEnabled() == 1 ? "FIPS" : "non-FIPS") + " mode");
    if (const unsigned int r = PKEY_EditKeyCode(key.get(), name.c_str()); r != 0)
        return failure(what, "the peer key store refused it (code " + std::to_string(r) + ")");
    return kOk;
}

int peer_add(const Args &a) {
    const std::string name = a.positional[0];
    if (name.empty() || name.size() >= PKEY_PEER_NAME_LEN)
        return usage_error("a peer key name has 1 to 64 characters");
    std::string text;
    const std::string source = a.positional.size() > 1 ? a.positional[1] : "-";
    if (!read_input(source, text)) return failure("peer add " + name, "cannot read " + source);
    if (text.size() > kMaxInput || text.find('\0') != std::string::npos)
        return failure("peer add " + name, "not a public key text");
    // Files end in line breaks; the key-code wrapper allows only blanks
    // around it, so surrounding white space goes first.
    const size_t first = text.find_first_not_of(kBlank);
    text = first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(kBlank) - first + 1);
    // The readers work in place on a writable, terminated copy.
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    char *body = PKEY_PEER_PeerPubKeyPreProc(buf.data());
    if (body == nullptr) return failure("peer add " + name, "text outside the public-key-code wrapper");
    const Form form = detect_form(body);
    if (form == Form::kUnknown) return failure("peer add " + name, "not a key code, SSH2, OpenSSH or SSH1 public key");
    const int r = form == Form::kKeyCode ? add_key_code(name, body) : add_parsed(name, form, body);
    if (r != kOk) return r;
    pkey::EvpPkeyPtr stored(PKEY_GetUserKeyByName(name.c_str()));
    const Algorithm *alg = algorithm_of(stored.get());
    std::printf("added peer key %s: %s %u bits %s\n", name.c_str(), alg ? alg->name : "?",
                stored ? PKEY_PUBKEY_GetKeyBits(stored.get()) : 0u,
                stored ? fingerprint_sha256(stored.get()).c_str() : "-");
    return kOk;
}

std::vector<std::string> sorted_names(bool *opened) {
    std::vector<std::string> names;
    const int handle = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_READ);
    *opened = handle != -1;
    if (handle == -1) return names;
    unsigned int count = 0;
    PKEY_NAME_LINK_S *head = PKEY_CFGMNG_GetSortedPeerKeyNameList(handle, &count);
    DBM_Close(handle);
    for (PKEY_NAME_LINK_S *l = head != nullptr ? head->pstNext : nullptr; l != nullptr && l != head; l = l->pstNext)
        names.emplace_back(reinterpret_cast<PKEY_NAME_NODE_S *>(l)->szName);
    PKEY_CFGMNG_DestroySortedPeerKeyNameList(head);
    return names;
}

int peer_list(const Args &a) {
    // In FIPS mode a lookup purges the keys the mode forbids; list after it.
    PKEY_CFGMNG_DestroyNonFIPSApprovedPeerPubKey();
    bool opened = false;
    const std::vector<std::string> names = sorted_names(&opened);
    if (!opened) return failure("peer list", "the peer key store cannot be opened");
    const bool json = a.has("--json");
    if (json) std::printf("[");
    for (size_t i = 0; i < names.size(); ++i) {
        pkey::EvpPkeyPtr key(PKEY_GetUserKeyByName(names[i].c_str()));
        const Algorithm *alg = algorithm_of(key.get());
        const unsigned int bits = key ? PKEY_PUBKEY_GetKeyBits(key.get()) : 0;
        const std::string fp = key ? fingerprint_sha256(key.get()) : "-";
        if (json) {
            std::printf("%s\n  {\"name\": %s, \"algorithm\": \"%s\", \"bits\": %u, \"sha256\": %s}", i ? "," : "",
                        json_string(names[i]).c_str(), alg ? alg->name : "unknown", bits, json_string(fp).c_str());
        } else {
            std::printf("%-24s %-6s %5u  %s\n", names[i].c_str(), alg ? alg->name : "?", bits, fp.c_str());
        }
    }
    if (json) std::printf("%s]\n", names.empty() ? "" : "\n");
    return kOk;
}

int peer_show(const Args &a) {
    const std::string &name = a.positional[0];
    pkey::EvpPkeyPtr key(PKEY_GetUserKeyByName(name.c_str()));
    if (!key) return failure("peer show", "no peer key " + name);
    const Algorithm *alg = algorithm_of(key.get());
    std::printf("%s %s %u bits %s\n%s", name.c_str(), alg ? alg->name : "?", PKEY_PUBKEY_GetKeyBits(key.get()),
                fingerprint_sha256(key.get()).c_str(), key_code_display(key.get()).c_str());
    return kOk;
}

int peer_remove(const Args &a) {
    const std::string &name = a.positional[0];
    if (name.empty()) return usage_error("a peer key name has 1 to 64 characters");
    if (PKEY_PEER_RemovePeerPubKeyByName(name.c_str()) != 0) return failure("peer remove", "no peer key " + name);
    std::printf("removed peer key %s\n", name.c_str());
    return kOk;
}

const std::vector<Command> kPeer = {
    {"peer add", "NAME [FILE|-]",
     "add a peer key from a file or standard input: hex key code (wrapped in public-key-code begin/end or "
     "not), SSH2 block, OpenSSH line or SSH1 text",
     "", 1, 2, peer_add},
    {"peer list", "[--json]", "peer keys sorted by name, with algorithm, bits and fingerprint", "--json", 0, 0,
     peer_list},
    {"peer show", "NAME", "a peer key's fingerprint and key-code display", "", 1, 1, peer_show},
    {"peer remove", "NAME", "remove a peer key", "", 1, 1, peer_remove},
};

}  // namespace

const std::vector<Command> &peer_commands() { return kPeer; }

}  // namespace pkeyctl
