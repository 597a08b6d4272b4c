// pkeyctl - the operator's command line over libpkey and the host platform.
//
// Every action goes through the library's exported functions; the host
// platform's control API only chooses the store and its settings.
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host_platform.h"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_peer.h"
#include "pkey_cfgmng.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace {

constexpr const char *kVersion = "0.1.0";

enum ExitCode { kOk = 0, kFailed = 1, kUsage = 2 };

struct Curve {
    const char *option;
    const char *ssh_name;
    int nid;
};
constexpr Curve kCurves[] = {{"p192", "nistp192", NID_X9_62_prime192v1},
                             {"p256", "nistp256", NID_X9_62_prime256v1},
                             {"p384", "nistp384", NID_secp384r1},
                             {"p521", "nistp521", NID_secp521r1}};

struct Algorithm {
    const char *option;
    int evp_type;
    unsigned int alg_id;
};
constexpr Algorithm kAlgorithms[] = {{"rsa", EVP_PKEY_RSA, PKEY_ALG_RSA},
                                     {"dsa", EVP_PKEY_DSA, PKEY_ALG_DSA},
                                     {"ecdsa", EVP_PKEY_EC, PKEY_ALG_ECDSA}};

const Algorithm *find_algorithm(std::string_view name) {
    for (const auto &a : kAlgorithms)
        if (name == a.option) return &a;
    return nullptr;
}
const char *find_algorithm_by_type(int evp_type) {
    for (const auto &a : kAlgorithms)
        if (a.evp_type == evp_type) return a.option;
    return "?";
}
const Curve *find_curve(std::string_view name) {
    for (const auto &c : kCurves)
        if (name == c.option || name == c.ssh_name) return &c;
    return nullptr;
}
const char *curve_label(int nid) {
    for (const auto &c : kCurves)
        if (c.nid == nid) return c.ssh_name;
    return "unknown";
}

int usage_error(const char *fmt, const char *arg = "") {
    std::fprintf(stderr, "pkeyctl: ");
    std::fprintf(stderr, fmt, arg);
    std::fprintf(stderr, "\nTry 'pkeyctl --help'.\n");
    return kUsage;
}

void print_help() {
    std::puts(
        "usage: pkeyctl [--root DIR] COMMAND [ARGS]\n"
        "\n"
        "Manages the SSH keys of a device store on this host.\n"
        "\n"
        "commands:\n"
        "  policy                         show what the current mode allows\n"
        "  fips status|on|off             show or switch the store's FIPS mode\n"
        "  keygen rsa|dsa|ecdsa [--bits N] [--curve p192|p256|p384|p521]\n"
        "                                 generate a key pair in memory and describe it\n"
        "  local create rsa|dsa|ecdsa [--bits N] [--curve C] [--name NAME]\n"
        "                                 create and store a host key or named key pair\n"
        "                                 (the default RSA host key brings its server key)\n"
        "  local get rsa|dsa|ecdsa [--name NAME] [--server]\n"
        "                                 read a stored key back and describe it\n"
        "  local list [rsa|dsa|ecdsa]     list stored keys with their SHA256 fingerprints\n"
        "  local export rsa|dsa|ecdsa --format ssh1|ssh2|openssh [--name NAME] [--out FILE]\n"
        "                                 the public key in an export form\n"
        "  local destroy rsa|dsa|ecdsa [--name NAME]\n"
        "                                 destroy a key (the default RSA host key takes\n"
        "                                 its server key with it)\n"
        "  peer add NAME [FILE|-]         add a peer key: hex key code (wrapped or not),\n"
        "                                 SSH2 block, OpenSSH line or SSH1 text\n"
        "  peer list                      peer key names, sorted\n"
        "  peer show NAME                 fingerprint and key-code display of a peer key\n"
        "  peer remove NAME               remove a peer key\n"
        "\n"
        "options:\n"
        "  --root DIR    the store (default: $PKEY_ROOT, else ./pkey-store)\n"
        "  --help        this text\n"
        "  --version     the program's version");
}

int cmd_policy() {
    const bool fips = CRYPTO_FIPSIsEnabled() == 1;
    std::printf("mode: %s\n", fips ? "FIPS" : "non-FIPS");
    std::printf("%-6s %-8s %-10s %s\n", "alg", "enabled", "min bits", "max bits / curves");
    for (const auto &a : kAlgorithms) {
        const bool enabled = PKEY_PUBKEY_IsEvpAglEnable(static_cast<unsigned>(a.evp_type)) == 1;
        const unsigned int min_bits = PKEY_PUBKEY_GetMinKeyBits(a.alg_id);
        std::string detail;
        if (a.alg_id == PKEY_ALG_ECDSA) {
            for (const auto &c : kCurves) {
                if (PKEY_IsValidECDSACurve(c.nid) != 1) continue;
                if (!detail.empty()) detail += ' ';
                detail += c.ssh_name;
            }
        } else {
            detail = "2048";
        }
        std::printf("%-6s %-8s %-10u %s\n", a.option, enabled ? "yes" : "no", min_bits,
                    detail.c_str());
    }
    std::printf("smallest curve: %s\n", curve_label(PKEY_PUBKEY_GetMinECKeyNid()));
    return kOk;
}

int cmd_fips(const std::vector<std::string> &args) {
    if (args.size() != 1) return usage_error("fips takes one of: status, on, off");
    if (args[0] == "on") {
        HOST_SetFipsMode(1);
    } else if (args[0] == "off") {
        HOST_SetFipsMode(0);
    } else if (args[0] != "status") {
        return usage_error("unknown fips action '%s'", args[0].c_str());
    }
    std::printf("FIPS mode: %s\n", CRYPTO_FIPSIsEnabled() == 1 ? "on" : "off");
    return kOk;
}

// Options shared by the key commands.
struct KeyOptions {
    const Algorithm *alg = nullptr;
    std::optional<unsigned int> bits;
    const Curve *curve = nullptr;
    std::string name;
    bool server = false;
};

// Parses ALG and the options a command allows; returns kOk or a usage error.
int parse_key_options(const char *command, const std::vector<std::string> &args,
                      std::string_view allowed, KeyOptions &out) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        const bool takes_value = a == "--bits" || a == "--curve" || a == "--name";
        if (a.rfind("--", 0) == 0 && allowed.find(a) == std::string_view::npos)
            return usage_error("unknown option '%s'", a.c_str());
        if (takes_value && i + 1 >= args.size()) return usage_error("%s needs a value", a.c_str());
        if (a == "--bits") {
            char *end = nullptr;
            const unsigned long v = std::strtoul(args[++i].c_str(), &end, 10);
            if (*end != '\0' || v == 0 || v > 16384)
                return usage_error("bad key size '%s'", args[i].c_str());
            out.bits = static_cast<unsigned int>(v);
        } else if (a == "--curve") {
            out.curve = find_curve(args[++i]);
            if (out.curve == nullptr) return usage_error("unknown curve '%s'", args[i].c_str());
        } else if (a == "--name") {
            out.name = args[++i];
        } else if (a == "--server") {
            out.server = true;
        } else if (out.alg == nullptr && find_algorithm(a) != nullptr) {
            out.alg = find_algorithm(a);
        } else {
            return usage_error("unexpected argument '%s'", a.c_str());
        }
    }
    if (out.alg == nullptr) return usage_error("%s needs an algorithm: rsa, dsa or ecdsa", command);
    return kOk;
}

void print_key(const char *label, const EVP_PKEY *key) {
    std::printf("%-22s %-6s %5u bits", label,
                EVP_PKEY_get_id(key) == EVP_PKEY_RSA   ? "rsa"
                : EVP_PKEY_get_id(key) == EVP_PKEY_DSA ? "dsa"
                                                       : "ecdsa",
                PKEY_PUBKEY_GetKeyBits(key));
    if (EVP_PKEY_get_id(key) == EVP_PKEY_EC) {
        char group[64] = "";
        size_t len = 0;
        EVP_PKEY_get_group_name(key, group, sizeof group, &len);
        std::printf("  curve %s", group);
    }
}

int cmd_keygen(const std::vector<std::string> &args) {
    KeyOptions opts;
    if (const int r = parse_key_options("keygen", args, "--bits --curve", opts); r != kOk) return r;
    const Algorithm *alg = opts.alg;
    const std::optional<unsigned int> bits = opts.bits;
    const Curve *curve = opts.curve;

    const auto start = std::chrono::steady_clock::now();
    pkey::EvpPkeyPtr key;
    if (alg->alg_id == PKEY_ALG_ECDSA && curve != nullptr) {
        key.reset(PKEY_GenerateECKey(curve->nid));
    } else {
        key.reset(PKEY_GeneratePKey(alg->evp_type, bits.value_or(2048)));
    }
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    if (!key) {
        std::fprintf(stderr, "pkeyctl: keygen %s: refused or failed (policy, memory alarm or "
                             "OpenSSL)\n", alg->option);
        return kFailed;
    }
    print_key("generated", key.get());
    std::printf("  valid now: %s  FIPS-strength: %s  (%.1f ms)\n",
                PKEY_PUBKEY_IsKeyLenValid(key.get()) == 1 ? "yes" : "no",
                PKEY_PUBKEY_IsKeyMatchFipsMode(key.get()) == 1 ? "yes" : "no", ms);
    return kOk;
}

// The default RSA key size when none is given, and DSA's alike.
constexpr unsigned int kDefaultBits = 2048;
constexpr unsigned int kMaxPolicyBits = 2048;

const char *display_name(const KeyOptions &opts) {
    return opts.name.empty() ? PKEY_FS_GetPKEYDefaultKeyName(
                                   opts.alg->alg_id, opts.server ? PKEY_KEY_SERVER : PKEY_KEY_HOST)
                             : opts.name.c_str();
}

int cmd_local_create(const std::vector<std::string> &args) {
    KeyOptions opts;
    if (const int r = parse_key_options("local create", args, "--bits --curve --name", opts);
        r != kOk)
        return r;
    if (!opts.name.empty() && PKEY_CheckLocalKeyName(opts.name.c_str()) != 0) {
        std::fprintf(stderr, "pkeyctl: local create: bad key name '%s' (letters, digits and '-' "
                             "only)\n", opts.name.c_str());
        return kFailed;
    }
    if (opts.name.size() >= PKEY_KEYGEN_NAME_LEN - 3)
        return usage_error("key name '%s' is too long", opts.name.c_str());
    // The library stores whatever size it is given; the policy is the
    // configuration service's to apply before asking.
    const unsigned int bits = opts.bits.value_or(kDefaultBits);
    const unsigned int min_bits = PKEY_PUBKEY_GetMinKeyBits(opts.alg->alg_id);
    if (opts.alg->alg_id != PKEY_ALG_ECDSA && (bits < min_bits || bits > kMaxPolicyBits)) {
        std::fprintf(stderr, "pkeyctl: local create %s: %u bits is outside the policy (%u to %u "
                             "bits in %s mode)\n", opts.alg->option, bits, min_bits,
                     kMaxPolicyBits, CRYPTO_FIPSIsEnabled() == 1 ? "FIPS" : "non-FIPS");
        return kFailed;
    }
    PKEY_KEYGEN_REQ_S request{};
    request.uiAlgId = opts.alg->alg_id;
    request.uiKeyBits = bits;
    std::snprintf(request.szKeyName, sizeof request.szKeyName, "%s", opts.name.c_str());
    request.uiCurveNid = static_cast<unsigned int>(
        opts.curve != nullptr ? opts.curve->nid : PKEY_PUBKEY_GetMinECKeyNid());
    const auto start = std::chrono::steady_clock::now();
    if (PKEY_LOCAL_GenerateKey(&request) != 0) {
        std::fprintf(stderr, "pkeyctl: local create %s: refused or failed (size or curve not "
                             "allowed, memory alarm, or the store could not be written)\n",
                     opts.alg->option);
        return kFailed;
    }
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    std::printf("created %s key %s (%.0f ms)\n", opts.alg->option, display_name(opts), ms);
    return kOk;
}

int cmd_local_get(const std::vector<std::string> &args) {
    KeyOptions opts;
    if (const int r = parse_key_options("local get", args, "--name --server", opts); r != kOk)
        return r;
    if (opts.server && opts.alg->alg_id != PKEY_ALG_RSA)
        return usage_error("only RSA has a server key");
    const unsigned int kind = opts.server ? PKEY_KEY_SERVER : PKEY_KEY_HOST;
    PKEY_KEY_WITH_TIME_S *stored = PKEY_LOCAL_ReadKeyToEvpPkey(opts.alg->alg_id, kind,
                                                               opts.name.c_str());
    pkey::EvpPkeyPtr key(opts.server ? PKEY_GetServerKey(opts.alg->evp_type, opts.name.c_str())
                                     : PKEY_GetHostKey(opts.alg->evp_type, opts.name.c_str()));
    if (!key || stored == nullptr) {
        PKEY_LOCAL_DestoryEvpkeyWithTime(stored);
        std::fprintf(stderr, "pkeyctl: local get %s: no readable key %s\n", opts.alg->option,
                     display_name(opts));
        return kFailed;
    }
    print_key(display_name(opts), key.get());
    std::printf("  created %s %s\n", stored->szDate, stored->szTime);
    PKEY_LOCAL_DestoryEvpkeyWithTime(stored);
    return kOk;
}

// "SHA256:" and the unpadded Base64 of the SHA-256 of the key's SSH blob, as
// ssh-keygen -l prints it.
std::string sha256_fingerprint(EVP_PKEY *key) {
    unsigned int len = 0;
    pkey::MallocPtr<char> b64(PKEY_PUBKEY_EvppkeyToBase64(key, 1, &len));
    if (!b64) return "-";
    const std::string text = b64.get();
    std::vector<unsigned char> blob(text.size());
    int n = EVP_DecodeBlock(blob.data(), reinterpret_cast<const unsigned char *>(text.data()),
                            static_cast<int>(text.size()));
    if (n < 0) return "-";
    for (auto it = text.rbegin(); it != text.rend() && *it == '='; ++it) --n;
    unsigned char digest[32];
    EVP_Digest(blob.data(), static_cast<size_t>(n), digest, nullptr, EVP_sha256(), nullptr);
    unsigned char out[64];
    std::string fp(reinterpret_cast<char *>(out), EVP_EncodeBlock(out, digest, sizeof digest));
    while (!fp.empty() && fp.back() == '=') fp.pop_back();
    return "SHA256:" + fp;
}

int cmd_local_list(const std::vector<std::string> &args) {
    std::vector<const Algorithm *> algs;
    for (const auto &a : args) {
        const Algorithm *alg = find_algorithm(a);
        if (alg == nullptr) return usage_error("unknown algorithm '%s'", a.c_str());
        algs.push_back(alg);
    }
    if (algs.empty())
        for (const auto &a : kAlgorithms) algs.push_back(&a);
    std::printf("%-24s %-6s %5s  %-19s  %s\n", "NAME", "ALG", "BITS", "CREATED", "FINGERPRINT");
    for (const Algorithm *alg : algs) {
        PKEY_LOCAL_NEXT_HANDLE_S *handle = PKEY_LOCAL_GetNextInit(alg->alg_id);
        PKEY_LOCAL_KEY_INFO_S *info = PKEY_LOCAL_GetFirst(handle);
        for (int index = 0; info != nullptr; ++index) {
            if ((info->uiFlags & PKEY_INFO_HAS_KEY) != 0) {
                // The first record is the host key, RSA's second the server key.
                const bool server = alg->alg_id == PKEY_ALG_RSA && index == 1;
                const bool named = index > (alg->alg_id == PKEY_ALG_RSA ? 1 : 0) &&
                                   std::string_view(info->szName).find("(default)") ==
                                       std::string_view::npos;
                pkey::EvpPkeyPtr key(server ? PKEY_GetServerKey(alg->evp_type, "")
                                            : PKEY_GetHostKey(alg->evp_type,
                                                              named ? info->szName : ""));
                std::printf("%-24s %-6s %5u  %-19s  %s\n", info->szName, alg->option, info->uiBits,
                            info->szTime, key ? sha256_fingerprint(key.get()).c_str() : "-");
            }
            PKEY_LOCAL_KEY_INFO_S *next = PKEY_LOCAL_GetNext(handle, info);
            PKEY_LOCAL_DestroyLocalKeyInfo(info);
            info = next;
        }
        PKEY_LOCAL_GetNextFinal(handle);
    }
    return kOk;
}

int cmd_local_export(const std::vector<std::string> &args) {
    std::vector<std::string> rest;
    std::string format_name, out;
    for (size_t i = 0; i < args.size(); ++i) {
        if ((args[i] == "--format" || args[i] == "--out") && i + 1 >= args.size())
            return usage_error("%s needs a value", args[i].c_str());
        if (args[i] == "--format") {
            format_name = args[++i];
        } else if (args[i] == "--out") {
            out = args[++i];
        } else {
            rest.push_back(args[i]);
        }
    }
    KeyOptions opts;
    if (const int r = parse_key_options("local export", rest, "--name", opts); r != kOk) return r;
    const std::map<std::string, unsigned int> formats = {
        {"ssh1", PKEY_EXPORT_SSH1}, {"ssh2", PKEY_EXPORT_SSH2}, {"openssh", PKEY_EXPORT_OPENSSH}};
    const auto format = formats.find(format_name);
    if (format == formats.end()) return usage_error("--format must be ssh1, ssh2 or openssh");
    if (PKEY_LOCAL_ExportPubKey(opts.alg->alg_id, opts.name.c_str(), format->second,
                                out.c_str()) != 0) {
        std::fprintf(stderr, "pkeyctl: local export %s: no readable key %s, or the %s form is "
                             "not available for it%s\n", opts.alg->option, display_name(opts),
                     format_name.c_str(), out.empty() ? "" : ", or the file could not be written");
        return kFailed;
    }
    return kOk;
}

int cmd_local_destroy(const std::vector<std::string> &args) {
    KeyOptions opts;
    if (const int r = parse_key_options("local destroy", args, "--name", opts); r != kOk) return r;
    PKEY_KEYGEN_REQ_S request{};
    request.uiAlgId = opts.alg->alg_id;
    std::snprintf(request.szKeyName, sizeof request.szKeyName, "%s", opts.name.c_str());
    if (PKEY_LOCAL_DestroyKey(&request) != 0) {
        std::fprintf(stderr, "pkeyctl: local destroy %s: a key file could not be removed\n",
                     opts.alg->option);
        return kFailed;
    }
    std::printf("destroyed %s key %s\n", opts.alg->option, display_name(opts));
    return kOk;
}

// ---- peer keys ----------------------------------------------------------------

enum class PeerForm { kKeyCode, kSsh2, kOpenSsh, kSsh1, kUnknown };

bool only_chars(std::string_view text, std::string_view allowed) {
    return text.find_first_not_of(allowed) == std::string_view::npos;
}

PeerForm detect_form(std::string_view text) {
    if (text.find("---- BEGIN SSH2 PUBLIC KEY ----") != std::string_view::npos) return PeerForm::kSsh2;
    if (text.find("ssh-rsa") != std::string_view::npos ||
        text.find("ssh-dss") != std::string_view::npos ||
        text.find("ecdsa") != std::string_view::npos)
        return PeerForm::kOpenSsh;
    constexpr std::string_view kBlank = " \t\r\n";
    // SSH1 text: bits, exponent and modulus in decimal, a comment may follow.
    std::vector<std::string_view> tokens;
    for (size_t i = text.find_first_not_of(kBlank); i != std::string_view::npos && tokens.size() < 3;) {
        const size_t end = std::min(text.find_first_of(kBlank, i), text.size());
        tokens.push_back(text.substr(i, end - i));
        i = text.find_first_not_of(kBlank, end);
    }
    if (tokens.size() == 3 && only_chars(tokens[0], "0123456789") &&
        only_chars(tokens[1], "0123456789") && only_chars(tokens[2], "0123456789"))
        return PeerForm::kSsh1;
    if (only_chars(text, "0123456789abcdefABCDEF \t\r\n") &&
        text.find_first_not_of(kBlank) != std::string_view::npos)
        return PeerForm::kKeyCode;
    return PeerForm::kUnknown;
}

int refuse(const char *what, unsigned int message) {
    std::fprintf(stderr, "pkeyctl: %s: %s", what, RC_LoadString(message));
    return kFailed;
}

int cmd_peer_add(const std::vector<std::string> &args) {
    if (args.empty() || args.size() > 2) return usage_error("peer add takes NAME [FILE|-]");
    const std::string &name = args[0];
    if (name.empty() || name.size() >= PKEY_PEER_NAME_LEN)
        return usage_error("a peer key name has 1 to 64 characters");
    std::string text;
    if (args.size() == 1 || args[1] == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), {});
    } else {
        std::ifstream in(args[1], std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "pkeyctl: peer add: cannot read '%s'\n", args[1].c_str());
            return kFailed;
        }
        text.assign(std::istreambuf_iterator<char>(in), {});
    }
    if (text.find('\0') != std::string::npos) return refuse("peer add", PKEY_MSG_INVALID_KEY_CODE);
    // Files end in line breaks; the key-code wrapper allows only blanks
    // around it, so surrounding white space goes first.
    const size_t first = text.find_first_not_of(" \t\r\n");
    const size_t last = text.find_last_not_of(" \t\r\n");
    text = first == std::string::npos ? "" : text.substr(first, last - first + 1);
    // The readers work in place on a writable, terminated copy.
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    char *body = PKEY_PEER_PeerPubKeyPreProc(buf.data());
    if (body == nullptr) return refuse("peer add", PKEY_MSG_INVALID_KEY_CODE);
    const PeerForm form = detect_form(body);
    if (form == PeerForm::kKeyCode) {
        // Hex key code: blanks and line breaks go, the rest is the entry.
        std::string hex;
        for (const char *c = body; *c != '\0'; ++c)
            if (std::strchr(" \t\r\n", *c) == nullptr) hex += *c;
        if (hex.size() > PKEY_PEER_KEYCODE_MAX_DIGITS)
            return refuse("peer add", PKEY_MSG_INVALID_KEY_CODE);
        std::vector<char> entry(PKEY_PEER_NAME_LEN + hex.size() + 1, '\0');
        std::copy(name.begin(), name.end(), entry.begin());
        std::copy(hex.begin(), hex.end(), entry.begin() + PKEY_PEER_NAME_LEN);
        std::fflush(stdout);
        if (PKEY_PEER_EditKeyCodeFinish(entry.data()) != 0) {
            std::fflush(stdout);  // the library has printed its own message
            std::fprintf(stderr, "pkeyctl: peer add %s: refused\n", name.c_str());
            return kFailed;
        }
    } else {
        pkey::EvpPkeyPtr key(form == PeerForm::kSsh2      ? PKEY_PEER_ReadSSH2PubKey(body)
                             : form == PeerForm::kOpenSsh ? PKEY_PEER_ReadOpenSSHPubKey(body)
                             : form == PeerForm::kSsh1    ? PKEY_PEER_ReadSSH1PubKey(body)
                                                          : nullptr);
        if (!key) return refuse("peer add", PKEY_MSG_INVALID_KEY_CODE);
        if (PKEY_PUBKEY_IsEvpAglEnable(static_cast<unsigned>(EVP_PKEY_get_id(key.get()))) != 1) {
            std::fprintf(stderr, "pkeyctl: peer add: the key's algorithm is disabled\n");
            return kFailed;
        }
        if (PKEY_PUBKEY_IsKeyLenValid(key.get()) != 1)
            return refuse("peer add", PKEY_MSG_KEY_SIZE_REFUSED);
        if (PKEY_EditKeyCode(key.get(), name.c_str()) != 0)
            return refuse("peer add", PKEY_MSG_SAVE_FAILED);
    }
    pkey::EvpPkeyPtr stored(PKEY_GetUserKeyByName(name.c_str()));
    std::printf("added peer key %s: %s %u bits %s\n", name.c_str(),
                stored ? find_algorithm_by_type(EVP_PKEY_get_id(stored.get())) : "?",
                stored ? PKEY_PUBKEY_GetKeyBits(stored.get()) : 0u,
                stored ? sha256_fingerprint(stored.get()).c_str() : "");
    return kOk;
}

int cmd_peer_list(const std::vector<std::string> &args) {
    if (!args.empty()) return usage_error("peer list takes no arguments");
    const int handle = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_READ);
    if (handle == -1) {
        std::fprintf(stderr, "pkeyctl: peer list: the peer key store cannot be opened\n");
        return kFailed;
    }
    unsigned int count = 0;
    PKEY_NAME_LINK_S *head = PKEY_CFGMNG_GetSortedPeerKeyNameList(handle, &count);
    DBM_Close(handle);
    for (PKEY_NAME_LINK_S *l = head != nullptr ? head->pstNext : nullptr; l != nullptr && l != head;
         l = l->pstNext)
        std::printf("%s\n", reinterpret_cast<PKEY_NAME_NODE_S *>(l)->szName);
    PKEY_CFGMNG_DestroySortedPeerKeyNameList(head);
    return kOk;
}

int cmd_peer_show(const std::vector<std::string> &args) {
    if (args.size() != 1) return usage_error("peer show takes NAME");
    pkey::EvpPkeyPtr key(PKEY_GetUserKeyByName(args[0].c_str()));
    if (!key) {
        std::fprintf(stderr, "pkeyctl: peer show: no peer key %s\n", args[0].c_str());
        return kFailed;
    }
    unsigned char *der = nullptr;
    const int len = i2d_PUBKEY(key.get(), &der);
    pkey::OpensslPtr<> der_owner(der);
    pkey::MallocPtr<char> display(len > 0 ? PKEY_PUBKEY_DER2BdrnBuf(der, static_cast<unsigned>(len))
                                          : nullptr);
    std::printf("%s %u %s\npublic-key-code begin%spublic-key-code end\n",
                find_algorithm_by_type(EVP_PKEY_get_id(key.get())), PKEY_PUBKEY_GetKeyBits(key.get()),
                sha256_fingerprint(key.get()).c_str(), display ? display.get() : "\r\n");
    return kOk;
}

int cmd_peer_remove(const std::vector<std::string> &args) {
    if (args.size() != 1) return usage_error("peer remove takes NAME");
    if (PKEY_PEER_RemovePeerPubKeyByName(args[0].c_str()) != 0) {
        std::fprintf(stderr, "pkeyctl: peer remove: no peer key %s\n", args[0].c_str());
        return kFailed;
    }
    std::printf("removed peer key %s\n", args[0].c_str());
    return kOk;
}

int cmd_peer(const std::vector<std::string> &args) {
    if (args.empty()) return usage_error("peer needs an action: add, list, show or remove");
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    if (args[0] == "add") return cmd_peer_add(rest);
    if (args[0] == "list") return cmd_peer_list(rest);
    if (args[0] == "show") return cmd_peer_show(rest);
    if (args[0] == "remove") return cmd_peer_remove(rest);
    return usage_error("unknown peer action '%s'", args[0].c_str());
}

int cmd_local(const std::vector<std::string> &args) {
    if (args.empty()) return usage_error("local needs an action: create, get, list, export or destroy");
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    if (args[0] == "create") return cmd_local_create(rest);
    if (args[0] == "get") return cmd_local_get(rest);
    if (args[0] == "list") return cmd_local_list(rest);
    if (args[0] == "export") return cmd_local_export(rest);
    if (args[0] == "destroy") return cmd_local_destroy(rest);
    return usage_error("unknown local action '%s'", args[0].c_str());
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string root;
    size_t i = 0;
    for (; i < args.size(); ++i) {
        if (args[i] == "--help" || args[i] == "-h") {
            print_help();
            return kOk;
        }
        if (args[i] == "--version") {
            std::printf("pkeyctl %s\n", kVersion);
            return kOk;
        }
        if (args[i] == "--root") {
            if (i + 1 >= args.size()) return usage_error("--root needs a directory");
            root = args[++i];
            continue;
        }
        break;
    }
    if (i >= args.size()) return usage_error("no command given");
    const std::string command = args[i];
    const std::vector<std::string> rest(args.begin() + static_cast<long>(i) + 1, args.end());
    for (const auto &a : rest) {
        if (a == "--help" || a == "-h") {
            print_help();
            return kOk;
        }
    }

    if (!root.empty() && HOST_Open(root.c_str()) != 0) {
        std::fprintf(stderr, "pkeyctl: cannot open store '%s'\n", root.c_str());
        return kFailed;
    }
    if (command == "policy") return cmd_policy();
    if (command == "fips") return cmd_fips(rest);
    if (command == "keygen") return cmd_keygen(rest);
    if (command == "local") return cmd_local(rest);
    if (command == "peer") return cmd_peer(rest);
    return usage_error("unknown command '%s'", command.c_str());
}
