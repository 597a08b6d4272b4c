// pkeyctl local ...: the device's own key pairs.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "cli.hpp"
#include "host_platform.h"
#include "openssh_keys.hpp"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"

namespace pkeyctl {
namespace {

constexpr unsigned int kDefaultRsaBits = 2048;
// OpenSSH reads DSA keys of 1024 bits only; below that it is the smallest
// size the mode allows.
constexpr unsigned int kOpenSshDsaBits = 1024;
constexpr int kDefaultCurve = PKEY_NID_P256;  // P-192 keys are refused by OpenSSH
constexpr size_t kWrapWidth = 70;

const Algorithm *algorithm_arg(const Args &a, int *error) {
    const Algorithm *alg = find_algorithm(a.positional.at(0));
    if (alg == nullptr)
        *error = usage_error("unknown algorithm '" + printable(a.positional[0]) + "' (rsa, dsa or ecdsa)");
    return alg;
}

// The --name of a command, checked: "" for the default key.
int name_arg(const Args &a, std::string &name) {
    name = a.get("--name");
    if (!a.has("--name")) return kOk;
    if (name.empty()) return usage_error("--name needs a key name (leave it out for the default key)");
    return check_local_name(name);
}

std::string what(const char *verb, const Algorithm &alg) { return std::string("local ") + verb + " " + alg.name; }

// A key that must be there and readable, or the failure that says why not.
int require_readable(const char *verb, const Algorithm &alg, const std::string &name, StoredKey &out) {
    std::optional<StoredKey> k = stored_key(alg, PKEY_KEY_HOST, name);
    if (!k) return failure(what(verb, alg), "no key " + display_name(alg, name, PKEY_KEY_HOST));
    if (!k->readable) return failure(what(verb, alg), "key " + k->display() + " is unreadable: " + k->problem);
    out = std::move(*k);
    return kOk;
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
            const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
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
    std::string name;
    if (const int r = name_arg(a, name); r != kOk) return r;
    if (a.has("--curve") && alg->alg_id != PKEY_ALG_ECDSA) return usage_error("--curve is for ecdsa keys");
    if (a.has("--bits") && alg->alg_id == PKEY_ALG_ECDSA)
        return usage_error("--bits is for rsa and dsa keys; ecdsa takes --curve");

    PKEY_KEYGEN_REQ_S request{};
    request.uiAlgId = alg->alg_id;
    std::snprintf(request.szKeyName, sizeof request.szKeyName, "%s", name.c_str());
    std::string label = std::string("generating ") + alg->name;
    if (alg->alg_id == PKEY_ALG_ECDSA) {
        const Curve *curve = a.has("--curve") ? find_curve(a.get("--curve")) : nullptr;
        if (a.has("--curve") && curve == nullptr)
            return usage_error("unknown curve '" + printable(a.get("--curve")) + "' (p192, p256, p384 or p521)");
        const int nid = curve != nullptr ? curve->nid : kDefaultCurve;
        // The library's generator refuses a curve the mode does not allow;
        // saying why is the tool's part.
        if (PKEY_IsValidECDSACurve(nid) != 1)
            return failure(what("create", *alg), std::string("curve ") + (curve ? curve->ssh_name : std::string("?")) +
                                                     " is not allowed in " + mode_name() + " mode");
        request.uiCurveNid = static_cast<unsigned int>(nid);
    } else {
        const unsigned int min_bits = PKEY_PUBKEY_GetMinKeyBits(alg->alg_id);
        const unsigned int fallback =
            alg->alg_id == PKEY_ALG_DSA ? std::max(kOpenSshDsaBits, min_bits) : kDefaultRsaBits;
        const std::string bits_text = a.get("--bits", std::to_string(fallback));
        char *end = nullptr;
        const unsigned long bits = std::strtoul(bits_text.c_str(), &end, 10);
        if (bits_text.empty() || *end != '\0' || bits_text[0] == '-' || bits > 65536)
            return usage_error("bad key size '" + printable(bits_text) + "'");
        // The library stores whatever size it is given; the policy is the
        // configuration service's to apply first.
        const std::string max_text = std::to_string(PKEY_RSA_DSA_MAX_BITS);
        if (bits < min_bits || bits > PKEY_RSA_DSA_MAX_BITS)
            return failure(what("create", *alg),
                           std::to_string(bits) + " bits is outside the policy (" +
                               (min_bits == PKEY_RSA_DSA_MAX_BITS ? "exactly " + max_text
                                                                  : std::to_string(min_bits) + " to " + max_text) +
                               " bits in " + mode_name() + " mode)");
        request.uiKeyBits = static_cast<unsigned int>(bits);
        label += " " + std::to_string(bits);
    }

    const std::string shown = display_name(*alg, name, PKEY_KEY_HOST);
    const std::optional<StoredKey> old = stored_key(*alg, PKEY_KEY_HOST, name);
    if (old && !a.has("--force")) {
        const std::string since = old->readable ? " (created " + old->created + ")" : " (unreadable)";
        return failure(what("create", *alg), "key " + shown + " exists" + since + "; --force replaces it");
    }
    const bool had_server =
        alg->alg_id == PKEY_ALG_RSA && name.empty() && stored_key(*alg, PKEY_KEY_SERVER, "").has_value();
    if (Mem_Alert_GetCurrentState() != 0)
        return failure(what("create", *alg), "the memory alarm is raised; no key is generated while it is");

    HOST_ClearError();
    if (with_progress(label, [&] { return PKEY_LOCAL_GenerateKey(&request); }) != 0)
        return failure(what("create", *alg),
                       "key " + shown + " was not stored: " + write_problem(*alg, PKEY_KEY_HOST, name));
    std::printf("%s %s key %s\n", old ? "replaced" : "created", alg->name, shown.c_str());
    if (alg->alg_id == PKEY_ALG_RSA && name.empty() && CRYPTO_FIPSIsEnabled() != 1) {
        pkey::EvpPkeyPtr server(PKEY_GetServerKey(EVP_PKEY_RSA, ""));
        if (server)
            std::printf("%s rsa key serverkey(default), %u bits\n", had_server ? "replaced" : "created",
                        PKEY_PUBKEY_GetKeyBits(server.get()));
    }
    return kOk;
}

int local_list(const Args &a) {
    const Algorithm *only = nullptr;
    if (!a.positional.empty()) {
        int err = 0;
        if ((only = algorithm_arg(a, &err)) == nullptr) return err;
    }
    const bool md5 = a.has("--md5");
    std::vector<std::string> errors;
    HOST_ClearError();
    const std::vector<StoredKey> keys = stored_keys(only, errors);
    size_t unreadable = 0;
    for (const StoredKey &k : keys) unreadable += k.readable ? 0 : 1;

    if (a.has("--json")) {
        std::printf("[");
        for (size_t i = 0; i < keys.size(); ++i) {
            const StoredKey &k = keys[i];
            const std::string shown = k.name.empty() ? PKEY_FS_GetPKEYDefaultKeyName(k.alg->alg_id, k.kind) : k.name;
            std::printf("%s\n  {\"name\": %s, \"default\": %s, \"kind\": \"%s\", \"algorithm\": \"%s\", ", i ? "," : "",
                        json_string(shown).c_str(), k.name.empty() ? "true" : "false",
                        k.kind == PKEY_KEY_SERVER ? "server" : "host", k.alg->name);
            if (!k.readable) {
                std::printf("\"readable\": false, \"problem\": %s}", json_string(k.problem).c_str());
                continue;
            }
            std::printf("\"readable\": true, \"bits\": %u, \"created\": %s, \"sha256\": %s", k.bits,
                        json_string(iso_time(k.created)).c_str(), json_string(fingerprint_sha256(k.key.get())).c_str());
            if (md5) std::printf(", \"md5\": %s", json_string(fingerprint_md5(k.key.get())).c_str());
            std::printf("}");
        }
        std::printf("%s]\n", keys.empty() ? "" : "\n");
    } else {
        std::printf("%-24s %-6s %5s  %-19s  %s\n", "NAME", "ALG", "BITS", "CREATED",
                    md5 ? "FINGERPRINTS" : "FINGERPRINT");
        for (const StoredKey &k : keys) {
            if (!k.readable) {
                std::printf("%-24s %-6s %5s  %-19s  UNREADABLE: %s\n", k.display().c_str(), k.alg->name, "-", "-",
                            k.problem.c_str());
                continue;
            }
            std::printf("%-24s %-6s %5u  %-19s  %s\n", k.display().c_str(), k.alg->name, k.bits, k.created.c_str(),
                        fingerprint_sha256(k.key.get()).c_str());
            if (md5) std::printf("%-24s %-6s %5s  %-19s  %s\n", "", "", "", "", fingerprint_md5(k.key.get()).c_str());
        }
    }
    std::fflush(stdout);
    if (!errors.empty()) return failure("local list", errors.front());
    if (unreadable != 0)
        return failure("local list",
                       std::to_string(unreadable) + (unreadable == 1 ? " key is" : " keys are") + " unreadable");
    return kOk;
}

int local_show(const Args &a) {
    int err = 0;
    const Algorithm *alg = algorithm_arg(a, &err);
    if (alg == nullptr) return err;
    std::string name;
    if (const int r = name_arg(a, name); r != kOk) return r;
    StoredKey k;
    if (const int r = require_readable("show", *alg, name, k); r != kOk) return r;
    PKEY_LOCAL_KEY_INFO_S *info = PKEY_LOCAL_GetLocPubKeyInfo(alg->alg_id, PKEY_KEY_HOST, name.c_str());
    if (info == nullptr || (info->uiFlags & PKEY_INFO_HAS_KEY) == 0) {
        PKEY_LOCAL_DestroyLocalKeyInfo(info);
        return failure(what("show", *alg), "key " + k.display() + " could not be described");
    }
    std::printf("%s %s %u bits, created %s\npublic-key-code begin%spublic-key-code end\n",
                printable(info->szName).c_str(), alg->name, info->uiBits, info->szTime, info->pcPubKeyText);
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

// Every key OpenSSH can use (the set pkey-agent serves): one .pub file each
// in a directory, or known_hosts lines for one host pattern.
int local_export_all(const Args &a) {
    if (!a.positional.empty())
        return usage_error("local export --all takes no algorithm: it exports every key OpenSSH can use");
    if (a.has("--name") || a.has("--wrap")) return usage_error("--name and --wrap are for the export of one key");
    const std::string form = a.get("--format");
    const bool known_hosts = form == "known-hosts";
    if (form != "openssh" && !known_hosts)
        return usage_error("local export --all needs --format openssh or known-hosts");
    if (!known_hosts && (!a.has("--out-dir") || a.get("--out-dir").empty()))
        return usage_error("local export --all --format openssh needs --out-dir DIR");
    if (!known_hosts && (a.has("--out") || a.has("--host")))
        return usage_error("--out and --host are for --format known-hosts");
    if (known_hosts && a.has("--out-dir")) return usage_error("--out-dir is for --format openssh");
    const std::string host = a.get("--host");
    if (known_hosts) {
        bool plain = !host.empty();
        for (const unsigned char c : host) plain = plain && c > 0x20 && c < 0x7F;
        if (!plain) return usage_error("--format known-hosts needs --host PATTERN (no blanks)");
    }
    const std::string out = a.get("--out", "-");
    if (out.empty()) return usage_error("--out needs a file name, or - for standard output");
    const std::string dir = a.get("--out-dir");
    if (!known_hosts) {
        struct stat st {};
        if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            return failure("local export --all", printable(dir) + " is not a directory");
    }

    HOST_ClearError();
    const pkey::openssh::Selection selection = pkey::openssh::select_keys();
    if (selection.keys.empty() && selection.problems.empty())
        return failure("local export --all", "the store holds no key OpenSSH can use");
    // Two keys for one file would leave only one of them exported.
    std::set<std::string> stems;
    for (const pkey::openssh::Key &k : selection.keys)
        if (!stems.insert(k.file_stem).second)
            return failure("local export --all", "two keys export as " + printable(k.file_stem) +
                                                     ".pub (a named key has its algorithm's default name); "
                                                     "nothing was written");

    std::string lines;
    for (const pkey::openssh::Key &k : selection.keys) {
        pkey::MallocPtr<char> text(PKEY_LOCAL_GetPubKeyValue(k.alg_id, PKEY_EXPORT_OPENSSH, k.name.c_str()));
        if (!text)
            return failure("local export --all", std::string(k.alg) + " key " + k.display + " has no openssh form");
        if (known_hosts) {
            // "type base64": the line's first two words.
            const std::string line = text.get();
            const size_t first = line.find(' ');
            const size_t second =
                first == std::string::npos ? std::string::npos : line.find_first_of(" \r\n", first + 1);
            lines += host + " " + line.substr(0, second) + "\n";
            continue;
        }
        const std::string path = dir + (dir.back() == '/' ? "" : "/") + k.file_stem + ".pub";
        std::string error;
        if (!write_user_file(path, text.get(), error)) return failure("local export --all", error);
        std::printf("wrote %s (%s key %s)\n", printable(path).c_str(), k.alg, k.display.c_str());
    }
    if (known_hosts) {
        if (out == "-") {
            std::printf("%s", lines.c_str());
        } else {
            std::string error;
            if (!write_user_file(out, lines, error)) return failure("local export --all", error);
            std::printf("wrote %s (%zu keys)\n", printable(out).c_str(), selection.keys.size());
        }
    }
    std::fflush(stdout);
    if (!selection.problems.empty()) {
        std::string all;
        for (const std::string &p : selection.problems) all += (all.empty() ? "" : "; ") + printable(p);
        return failure("local export --all", "not exported: " + all);
    }
    return kOk;
}

int local_export(const Args &a) {
    if (a.has("--all")) return local_export_all(a);
    if (a.positional.empty())
        return usage_error(std::string("usage: pkeyctl local export ") +
                           "rsa|dsa|ecdsa --format ssh1|ssh2|openssh ... (or --all)");
    if (a.has("--out-dir") || a.has("--host")) return usage_error("--out-dir and --host are for local export --all");
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
    if (format == PKEY_EXPORT_SSH1 && alg->alg_id != PKEY_ALG_RSA)
        return usage_error(std::string("the ssh1 form holds RSA keys only; export the ") + alg->name +
                           " key as ssh2 or openssh");
    if (a.has("--wrap") && format != PKEY_EXPORT_SSH2) return usage_error("--wrap is for the ssh2 form");
    std::string name;
    if (const int r = name_arg(a, name); r != kOk) return r;
    const std::string out = a.get("--out", "-");
    if (out.empty()) return usage_error("--out needs a file name, or - for standard output");

    StoredKey k;
    if (const int r = require_readable("export", *alg, name, k); r != kOk) return r;
    pkey::MallocPtr<char> text(PKEY_LOCAL_GetPubKeyValue(alg->alg_id, format, name.c_str()));
    if (!text) return failure(what("export", *alg), "key " + k.display() + " has no " + form + " form");
    const std::string body = a.has("--wrap") ? wrap_ssh2(text.get()) : std::string(text.get());
    if (out == "-") {
        // The console form: the text and one more line end.
        std::printf("%s\r\n", body.c_str());
        return kOk;
    }
    std::string error;
    if (!write_user_file(out, body, error)) return failure(what("export", *alg), error);
    return kOk;
}

int local_destroy(const Args &a) {
    int err = 0;
    const Algorithm *alg = algorithm_arg(a, &err);
    if (alg == nullptr) return err;
    std::string name;
    if (const int r = name_arg(a, name); r != kOk) return r;
    const std::string shown = display_name(*alg, name, PKEY_KEY_HOST);
    if (!stored_key(*alg, PKEY_KEY_HOST, name)) return failure(what("destroy", *alg), "no key " + shown);
    PKEY_KEYGEN_REQ_S request{};
    request.uiAlgId = alg->alg_id;
    std::snprintf(request.szKeyName, sizeof request.szKeyName, "%s", name.c_str());
    HOST_ClearError();
    if (PKEY_LOCAL_DestroyKey(&request) != 0)
        return failure(what("destroy", *alg),
                       "key " + shown + " was not removed: " + write_problem(*alg, PKEY_KEY_HOST, name));
    std::printf("destroyed %s key %s%s\n", alg->name, shown.c_str(),
                alg->alg_id == PKEY_ALG_RSA && name.empty() ? " and its server key" : "");
    return kOk;
}

int local_renew_server_key(const Args &) {
    const Algorithm &rsa = *find_algorithm("rsa");
    const std::optional<StoredKey> server = stored_key(rsa, PKEY_KEY_SERVER, "");
    const std::optional<StoredKey> host = stored_key(rsa, PKEY_KEY_HOST, "");
    if (!(server && server->readable) && !(host && host->readable))
        return failure("local renew-server-key",
                       "there is neither a readable server key nor an rsa host key to size it by");
    if (Mem_Alert_GetCurrentState() != 0)
        return failure("local renew-server-key", "the memory alarm is raised; no key is generated while it is");
    HOST_ClearError();
    const int r = with_progress("generating the rsa server key", [] { return PKEY_UpdateServerKey(EVP_PKEY_RSA, ""); });
    if (r != 0)
        return failure("local renew-server-key",
                       "the server key was not stored: " + write_problem(rsa, PKEY_KEY_SERVER, ""));
    pkey::EvpPkeyPtr renewed(PKEY_GetServerKey(EVP_PKEY_RSA, ""));
    std::printf("renewed rsa key serverkey(default), %u bits\n", renewed ? PKEY_PUBKEY_GetKeyBits(renewed.get()) : 0u);
    return kOk;
}

const std::vector<Command> kLocal = {
    {"local create", "rsa|dsa|ecdsa [--bits N] [--curve p192|p256|p384|p521] [--name NAME] [--force]",
     "create and store a host key (or a named key pair); the default rsa host key brings its server key. "
     "Defaults: rsa 2048 bits, dsa 1024 bits (2048 in FIPS mode), ecdsa p256. A key that exists is "
     "kept unless --force replaces it",
     "--bits= --curve= --name= --force", 1, 1, local_create},
    {"local list", "[rsa|dsa|ecdsa] [--md5] [--json]",
     "list stored key pairs with bits, creation time and fingerprints; a key that cannot be read is "
     "listed as unreadable with the reason, and the exit status is 1",
     "--md5 --json", 0, 1, local_list, "*"},
    {"local show", "rsa|dsa|ecdsa [--name NAME]", "a stored public key as the hexadecimal key-code display",
     "--name=", 1, 1, local_show, "*"},
    {"local export",
     "rsa|dsa|ecdsa --format ssh1|ssh2|openssh [--name NAME] [--out FILE|-] [--wrap] | "
     "--all --format openssh --out-dir DIR | --all --format known-hosts --host PATTERN [--out FILE|-]",
     "a stored public key in an export form, on standard output or in FILE (never a file of the key "
     "store); --wrap puts the ssh2 body in lines of 70. With --all, every key OpenSSH can use (rsa of "
     "1024 bits and more, ecdsa on p256, p384 and p521; the keys pkey-agent serves): one file "
     "<alg>-<name>.pub each in the existing directory DIR, one line each, or the known_hosts lines "
     "'PATTERN type base64' for clients",
     "--format= --name= --out= --wrap --all --out-dir= --host=", 0, 1, local_export, "*"},
    {"local destroy", "rsa|dsa|ecdsa [--name NAME]",
     "destroy a key pair (the default rsa host key takes its server key with it)", "--name=", 1, 1, local_destroy},
    {"local renew-server-key", "", "replace the rsa server key by a new one of the same size", "", 0, 0,
     local_renew_server_key},
};

}  // namespace

const std::vector<Command> &local_commands() { return kLocal; }

}  // namespace pkeyctl
