// pkeyctl local ...: the device's own key pairs.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "cli.hpp"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace pkeyctl {
namespace {

constexpr unsigned int kDefaultBits = 2048;
constexpr unsigned int kMaxPolicyBits = 2048;
constexpr size_t kWrapWidth = 70;

const Algorithm *algorithm_arg(const Args &a, int *error) {
    const Algorithm *alg = find_algorithm(a.positional.at(0));
    if (alg == nullptr) *error = usage_error("unknown algorithm '" + a.positional[0] + "' (rsa, dsa or ecdsa)");
    return alg;
}

std::string display_name(const Algorithm &alg, const std::string &name, unsigned int kind) {
    return name.empty() ? std::string(PKEY_FS_GetPKEYDefaultKeyName(alg.alg_id, kind)) + "(default)"
                        : name;
}

// Runs work() while a spinner with the elapsed time turns on stderr, when
// stderr is a terminal; plain work() otherwise.
template <typename Work>
int with_progress(const std::string &label, Work work) {
    if (isatty(STDERR_FILENO) == 0) return work();
    std::atomic<bool> done{false};
    const auto start = std::chrono::steady_clock::now();
    std::thread spinner([&] {
        static const char frames[] = "|/-\\";
        for (unsigned int tick = 0; !done.load(); ++tick) {
            const double s =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            std::fprintf(stderr, "\r%c %s %.1fs", frames[tick % 4], label.c_str(), s);
            std::fflush(stderr);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        std::fprintf(stderr, "\r\033[K");
    });
    const int r = work();
    done = true;
    spinner.join();
    return r;
}

int local_create(const Args &a) {
    int err = 0;
    const Algorithm *alg = algorithm_arg(a, &err);
    if (alg == nullptr) return err;
    const std::string name = a.get("--name");
    if (!name.empty() && PKEY_CheckLocalKeyName(name.c_str()) != 0)
        return failure("local create", "bad key name '" + name + "' (letters, digits and '-' only)");
    if (name.size() > PKEY_KEY_NAME_MAX) return failure("local create", "key names have at most 64 characters");
    if (a.has("--curve") && alg->alg_id != PKEY_ALG_ECDSA) return usage_error("--curve is for ecdsa keys");
    if (a.has("--bits") && alg->alg_id == PKEY_ALG_ECDSA) return usage_error("--bits is for rsa and dsa keys; ecdsa takes --curve");

    PKEY_KEYGEN_REQ_S request{};
    request.uiAlgId = alg->alg_id;
    std::snprintf(request.szKeyName, sizeof request.szKeyName, "%s", name.c_str());
    std::string label = std::string("generating ") + alg->name;
    if (alg->alg_id == PKEY_ALG_ECDSA) {
        const Curve *curve = a.has("--curve") ? find_curve(a.get("--curve")) : nullptr;
        if (a.has("--curve") && curve == nullptr) return usage_error("unknown curve '" + a.get("--curve") + "'");
        const int nid = curve != nullptr ? curve->nid : PKEY_PUBKEY_GetMinECKeyNid();
        // The library's generator refuses a curve the mode does not allow;
        // saying why is the tool's part.
        if (PKEY_IsValidECDSACurve(nid) != 1)
            return failure("local create ecdsa", std::string("curve ") + (curve ? curve->ssh_name : "?") +
                                                     " is not allowed in " +
                                                     (CRYPTO_FIPSIsEnabled() == 1 ? "FIPS" : "non-FIPS") + " mode");
        request.uiCurveNid = static_cast<unsigned int>(nid);
    } else {
        char *end = nullptr;
        const std::string bits_text = a.get("--bits", std::to_string(kDefaultBits));
        const unsigned long bits = std::strtoul(bits_text.c_str(), &end, 10);
        if (bits_text.empty() || *end != '\0' || bits > 65536) return usage_error("bad key size '" + bits_text + "'");
        // The library stores whatever size it is given; the policy is the
        // configuration service's to apply first.
        const unsigned int min_bits = PKEY_PUBKEY_GetMinKeyBits(alg->alg_id);
        if (bits < min_bits || bits > kMaxPolicyBits)
            return failure(std::string("local create ") + alg->name,
                           std::to_string(bits) + " bits is outside the policy (" + std::to_string(min_bits) +
                               " to 2048 bits in " + (CRYPTO_FIPSIsEnabled() == 1 ? "FIPS" : "non-FIPS") + " mode)");
        request.uiKeyBits = static_cast<unsigned int>(bits);
        label += " " + bits_text;
    }
    if (with_progress(label, [&] { return PKEY_LOCAL_GenerateKey(&request); }) != 0)
        return failure(std::string("local create ") + alg->name,
                       "generation or storing failed (memory alarm raised, or the store cannot be written)");
    std::printf("created %s key %s\n", alg->name, display_name(*alg, name, PKEY_KEY_HOST).c_str());
    if (alg->alg_id == PKEY_ALG_RSA && name.empty() && CRYPTO_FIPSIsEnabled() != 1) {
        pkey::EvpPkeyPtr server(PKEY_GetServerKey(EVP_PKEY_RSA, ""));
        if (server) std::printf("created rsa key serverkey(default), %u bits\n", PKEY_PUBKEY_GetKeyBits(server.get()));
    }
    return kOk;
}

struct Listed {
    std::string name, algorithm, created, sha256, md5;
    unsigned int bits = 0;
};

std::vector<Listed> list_keys(const Algorithm &alg, bool md5) {
    std::vector<Listed> out;
    PKEY_LOCAL_NEXT_HANDLE_S *handle = PKEY_LOCAL_GetNextInit(alg.alg_id);
    PKEY_LOCAL_KEY_INFO_S *info = PKEY_LOCAL_GetFirst(handle);
    for (int index = 0; info != nullptr; ++index) {
        if ((info->uiFlags & PKEY_INFO_HAS_KEY) != 0) {
            // The first record is the host key; RSA's second is the server key.
            const bool server = alg.alg_id == PKEY_ALG_RSA && index == 1;
            const bool named = info->pstPosition != nullptr &&
                               std::strstr(info->szName, "(default)") == nullptr;
            pkey::EvpPkeyPtr key(server ? PKEY_GetServerKey(alg.evp_type, "")
                                        : PKEY_GetHostKey(alg.evp_type, named ? info->szName : ""));
            out.push_back({info->szName, alg.name, info->szTime, key ? fingerprint_sha256(key.get()) : "-",
                           key && md5 ? fingerprint_md5(key.get()) : "", info->uiBits});
        }
        PKEY_LOCAL_KEY_INFO_S *next = PKEY_LOCAL_GetNext(handle, info);
        PKEY_LOCAL_DestroyLocalKeyInfo(info);
        info = next;
    }
    PKEY_LOCAL_GetNextFinal(handle);
    return out;
}

int local_list(const Args &a) {
    std::vector<const Algorithm *> algs;
    if (!a.positional.empty()) {
        int err = 0;
        if (const Algorithm *alg = algorithm_arg(a, &err)) algs.push_back(alg);
        else return err;
    } else {
        for (const Algorithm &alg : algorithms()) algs.push_back(&alg);
    }
    const bool md5 = a.has("--md5");
    std::vector<Listed> keys;
    for (const Algorithm *alg : algs)
        for (Listed &k : list_keys(*alg, md5)) keys.push_back(std::move(k));
    if (a.has("--json")) {
        std::printf("[");
        for (size_t i = 0; i < keys.size(); ++i) {
            const Listed &k = keys[i];
            std::printf("%s\n  {\"name\": %s, \"algorithm\": \"%s\", \"bits\": %u, \"created\": %s, "
                        "\"sha256\": %s%s%s}",
                        i ? "," : "", json_string(k.name).c_str(), k.algorithm.c_str(), k.bits,
                        json_string(k.created).c_str(), json_string(k.sha256).c_str(),
                        md5 ? ", \"md5\": " : "", md5 ? json_string(k.md5).c_str() : "");
        }
        std::printf("%s]\n", keys.empty() ? "" : "\n");
        return kOk;
    }
    std::printf("%-24s %-6s %5s  %-19s  %s\n", "NAME", "ALG", "BITS", "CREATED", md5 ? "FINGERPRINTS" : "FINGERPRINT");
    for (const Listed &k : keys) {
        std::printf("%-24s %-6s %5u  %-19s  %s\n", k.name.c_str(), k.algorithm.c_str(), k.bits, k.created.c_str(),
                    k.sha256.c_str());
        if (md5) std::printf("%-24s %-6s %5s  %-19s  %s\n", "", "", "", "", k.md5.c_str());
    }
    return kOk;
}

int local_show(const Args &a) {
    int err = 0;
    const Algorithm *alg = algorithm_arg(a, &err);
    if (alg == nullptr) return err;
    const std::string name = a.get("--name");
    PKEY_LOCAL_KEY_INFO_S *info = PKEY_LOCAL_GetLocPubKeyInfo(alg->alg_id, PKEY_KEY_HOST, name.c_str());
    if (info == nullptr || (info->uiFlags & PKEY_INFO_HAS_KEY) == 0) {
        PKEY_LOCAL_DestroyLocalKeyInfo(info);
        return failure(std::string("local show ") + alg->name, "no readable key " + display_name(*alg, name, PKEY_KEY_HOST));
    }
    std::printf("%s %s %u bits, created %s\npublic-key-code begin%spublic-key-code end\n", info->szName, alg->name,
                info->uiBits, info->szTime, info->pcPubKeyText);
    PKEY_LOCAL_DestroyLocalKeyInfo(info);
    return kOk;
}

// Re-flows the one-line body of an SSH2 export into lines of at most 70
// characters, for readers that refuse long lines.
std::string wrap_ssh2(const std::string &text) {
    const size_t start = text.find("\"\r\n");
    const size_t end = text.find("\r\n---- END SSH2 PUBLIC KEY ----");
    if (start == std::string::npos || end == std::string::npos || end < start + 3) return text;
    const std::string body = text.substr(start + 3, end - start - 3);
    std::string out = text.substr(0, start + 3);
    for (size_t i = 0; i < body.size(); i += kWrapWidth) out += body.substr(i, kWrapWidth) + "\r\n";
    return out + text.substr(end + 2);
}

int local_export(const Args &a) {
    int err = 0;
    const Algorithm *alg = algorithm_arg(a, &err);
    if (alg == nullptr) return err;
    static const std::vector<std::pair<std::string, unsigned int>> forms = {
        {"ssh1", PKEY_EXPORT_SSH1}, {"ssh2", PKEY_EXPORT_SSH2}, {"openssh", PKEY_EXPORT_OPENSSH}};
    const std::string form = a.get("--format");
    unsigned int format = 0;
    bool known = false;
    for (const auto &[text, value] : forms)
        if (text == form) format = value, known = true;
    if (!known) return usage_error("local export needs --format ssh1, ssh2 or openssh");
    if (a.has("--wrap") && format != PKEY_EXPORT_SSH2) return usage_error("--wrap is for the ssh2 form");
    const std::string name = a.get("--name");
    const std::string out = a.get("--out");
    const std::string what = std::string("local export ") + alg->name;
    if (!a.has("--wrap")) {
        // Exactly the library's text, printed or written by the library.
        if (PKEY_LOCAL_ExportPubKey(alg->alg_id, name.c_str(), format, out.c_str()) != 0)
            return failure(what, "no readable key " + display_name(*alg, name, PKEY_KEY_HOST) + " with a " + form +
                                     " form" + (out.empty() ? "" : ", or " + out + " cannot be written"));
        return kOk;
    }
    pkey::MallocPtr<char> text(PKEY_LOCAL_GetPubKeyValue(alg->alg_id, format, name.c_str()));
    if (!text) return failure(what, "no readable key " + display_name(*alg, name, PKEY_KEY_HOST));
    const std::string wrapped = wrap_ssh2(text.get());
    if (out.empty()) {
        std::printf("%s\r\n", wrapped.c_str());
        return kOk;
    }
    if (PKEY_FS_WriteDataToVFS(wrapped.data(), static_cast<unsigned>(wrapped.size()), out.c_str()) != 0)
        return failure(what, out + " cannot be written");
    return kOk;
}

int local_destroy(const Args &a) {
    int err = 0;
    const Algorithm *alg = algorithm_arg(a, &err);
    if (alg == nullptr) return err;
    const std::string name = a.get("--name");
    if (name.size() >= PKEY_KEYGEN_NAME_LEN) return failure("local destroy", "no such key name");
    PKEY_KEYGEN_REQ_S request{};
    request.uiAlgId = alg->alg_id;
    std::snprintf(request.szKeyName, sizeof request.szKeyName, "%s", name.c_str());
    const bool existed = PKEY_LOCAL_IsKeyExist(alg->alg_id, name.c_str()) == 1;
    if (PKEY_LOCAL_DestroyKey(&request) != 0) return failure(std::string("local destroy ") + alg->name, "a key file could not be removed");
    if (!existed) return failure(std::string("local destroy ") + alg->name, "no key " + display_name(*alg, name, PKEY_KEY_HOST));
    std::printf("destroyed %s key %s%s\n", alg->name, display_name(*alg, name, PKEY_KEY_HOST).c_str(),
                alg->alg_id == PKEY_ALG_RSA && name.empty() ? " and its server key" : "");
    return kOk;
}

int local_renew_server_key(const Args &) {
    const int r = with_progress("generating the rsa server key", [] { return PKEY_UpdateServerKey(EVP_PKEY_RSA, ""); });
    if (r != 0) return failure("local renew-server-key", "there is neither a server key nor an rsa host key to size it by");
    pkey::EvpPkeyPtr server(PKEY_GetServerKey(EVP_PKEY_RSA, ""));
    std::printf("renewed rsa key serverkey(default), %u bits\n", server ? PKEY_PUBKEY_GetKeyBits(server.get()) : 0u);
    return kOk;
}

const std::vector<Command> kLocal = {
    {"local create", "rsa|dsa|ecdsa [--bits N] [--curve p192|p256|p384|p521] [--name NAME]",
     "create and store a host key (or a named key pair); the default rsa host key brings its server key",
     "--bits= --curve= --name=", 1, 1, local_create},
    {"local list", "[rsa|dsa|ecdsa] [--md5] [--json]",
     "list stored key pairs with bits, creation time and fingerprints", "--md5 --json", 0, 1, local_list},
    {"local show", "rsa|dsa|ecdsa [--name NAME]", "a stored public key as the hexadecimal key-code display",
     "--name=", 1, 1, local_show},
    {"local export", "rsa|dsa|ecdsa --format ssh1|ssh2|openssh [--name NAME] [--out FILE] [--wrap]",
     "a stored public key in an export form (--wrap: ssh2 body in lines of 70)", "--format= --name= --out= --wrap", 1,
     1, local_export},
    {"local destroy", "rsa|dsa|ecdsa [--name NAME]",
     "destroy a key pair (the default rsa host key takes its server key with it)", "--name=", 1, 1, local_destroy},
    {"local renew-server-key", "", "replace the rsa server key by a new one of the same size", "", 0, 0,
     local_renew_server_key},
};

}  // namespace

const std::vector<Command> &local_commands() { return kLocal; }

}  // namespace pkeyctl
