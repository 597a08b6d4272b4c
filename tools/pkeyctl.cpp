// pkeyctl - the operator's command line over libpkey and the host platform.
//
// Every action goes through the library's exported functions; the host
// platform's control API only chooses the store and its settings.
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/objects.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host_platform.h"
#include "pkey_local.h"
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

int cmd_keygen(const std::vector<std::string> &args) {
    const Algorithm *alg = nullptr;
    std::optional<unsigned int> bits;
    const Curve *curve = nullptr;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if ((a == "--bits" || a == "--curve") && i + 1 >= args.size())
            return usage_error("%s needs a value", a.c_str());
        if (a == "--bits") {
            char *end = nullptr;
            const unsigned long v = std::strtoul(args[++i].c_str(), &end, 10);
            if (*end != '\0' || v == 0 || v > 16384)
                return usage_error("bad key size '%s'", args[i].c_str());
            bits = static_cast<unsigned int>(v);
        } else if (a == "--curve") {
            curve = find_curve(args[++i]);
            if (curve == nullptr) return usage_error("unknown curve '%s'", args[i].c_str());
        } else if (alg == nullptr && find_algorithm(a) != nullptr) {
            alg = find_algorithm(a);
        } else {
            return usage_error("unexpected argument '%s'", a.c_str());
        }
    }
    if (alg == nullptr) return usage_error("keygen needs an algorithm: rsa, dsa or ecdsa");

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
    const int type = EVP_PKEY_get_id(key.get());
    std::printf("%-6s type %-4d %5u bits", alg->option, type, PKEY_PUBKEY_GetKeyBits(key.get()));
    if (type == EVP_PKEY_EC) {
        char group[64] = "";
        size_t len = 0;
        EVP_PKEY_get_group_name(key.get(), group, sizeof group, &len);
        std::printf("  curve %s", group);
    }
    std::printf("  valid now: %s  FIPS-strength: %s  (%.1f ms)\n",
                PKEY_PUBKEY_IsKeyLenValid(key.get()) == 1 ? "yes" : "no",
                PKEY_PUBKEY_IsKeyMatchFipsMode(key.get()) == 1 ? "yes" : "no", ms);
    return kOk;
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
    return usage_error("unknown command '%s'", command.c_str());
}
