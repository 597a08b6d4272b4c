// pkeyctl policy, keygen, fips, backup and node: the mode and the device.
#include <openssl/x509.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "cli.hpp"
#include "host_platform.h"
#include "pkey_backup.h"
#include "pkey_cfgmng.h"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"

namespace pkeyctl {
namespace {

bool fips_on() { return CRYPTO_FIPSIsEnabled() == 1; }

int policy(const Args &) {
    std::printf("mode: %s\n%-6s %-8s %-9s %s\n", mode_name(), "alg", "enabled", "min bits", "max bits / curves");
    for (const Algorithm &a : algorithms()) {
        std::string detail = std::to_string(PKEY_RSA_DSA_MAX_BITS);
        if (a.alg_id == PKEY_ALG_ECDSA) {
            detail.clear();
            for (const Curve &c : curves())
                if (PKEY_IsValidECDSACurve(c.nid) == 1) {
                    if (!detail.empty()) detail += ' ';
                    detail += c.ssh_name;
                }
        }
        std::printf("%-6s %-8s %-9u %s\n", a.name,
                    PKEY_PUBKEY_IsEvpAglEnable(static_cast<unsigned>(a.evp_type)) == 1 ? "yes" : "no",
                    PKEY_PUBKEY_GetMinKeyBits(a.alg_id), detail.c_str());
    }
    return kOk;
}

int keygen(const Args &a) {
    const Algorithm *alg = find_algorithm(a.positional[0]);
    if (alg == nullptr) return usage_error("unknown algorithm '" + printable(a.positional[0]) + "'");
    const std::string what = std::string("keygen ") + alg->name;
    if (a.has("--curve") && alg->alg_id != PKEY_ALG_ECDSA) return usage_error("--curve is for ecdsa keys");
    if (a.has("--bits") && alg->alg_id == PKEY_ALG_ECDSA) return usage_error("--bits is for rsa and dsa keys");
    const Curve *curve = a.has("--curve") ? find_curve(a.get("--curve")) : nullptr;
    if (a.has("--curve") && curve == nullptr) return usage_error("unknown curve '" + printable(a.get("--curve")) + "'");
    const std::string bits_text = a.get("--bits", "2048");
    char *end = nullptr;
    const unsigned long bits = std::strtoul(bits_text.c_str(), &end, 10);
    if (bits_text.empty() || *end != '\0' || bits_text[0] == '-' || bits > 65536)
        return usage_error("bad key size '" + printable(bits_text) + "'");
    if (Mem_Alert_GetCurrentState() != 0)
        return failure(what, "the memory alarm is raised; no key is generated while it is");
    if (curve != nullptr && PKEY_IsValidECDSACurve(curve->nid) != 1)
        return failure(what, std::string("curve ") + curve->ssh_name + " is not allowed in " + mode_name() + " mode");
    if (alg->alg_id != PKEY_ALG_ECDSA && (bits < PKEY_RSA_DSA_MIN_BITS || bits > PKEY_RSA_DSA_MAX_BITS))
        return failure(what, std::to_string(bits) + " bits is outside the generator's range (" +
                                 std::to_string(PKEY_RSA_DSA_MIN_BITS) + " to " +
                                 std::to_string(PKEY_RSA_DSA_MAX_BITS) + " bits)");
    const auto start = std::chrono::steady_clock::now();
    pkey::EvpPkeyPtr key(curve != nullptr ? PKEY_GenerateECKey(curve->nid)
                                          : PKEY_GeneratePKey(alg->evp_type, static_cast<unsigned>(bits)));
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    if (!key) return failure(what, "OpenSSL could not generate the key");
    std::printf("%s %u bits, allowed now: %s, FIPS strength: %s (%.1f ms, not stored)\n", alg->name,
                PKEY_PUBKEY_GetKeyBits(key.get()), PKEY_PUBKEY_IsKeyLenValid(key.get()) == 1 ? "yes" : "no",
                PKEY_PUBKEY_IsKeyMatchFipsMode(key.get()) == 1 ? "yes" : "no", ms);
    return kOk;
}

// ---- fips ------------------------------------------------------------------------------

struct PeerEntry {
    std::string name;
    pkey::EvpPkeyPtr key;  // NULL when the stored value is not a key
};

// Every peer key; false (error set) when the database cannot be read.
bool read_peers(std::vector<PeerEntry> &out, std::string &error) {
    HOST_ClearError();
    const int handle = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_READ);
    if (handle == -1) {
        error = "cannot read the peer key database: " + platform_error();
        return false;
    }
    unsigned int count = 0;
    pkey::MallocPtr<char> table(PKEY_CFGMNG_GetPeerPubKeyList(handle, &count));
    for (unsigned int i = 0; table && i < count; ++i) {
        PeerEntry e;
        e.name = table.get() + static_cast<size_t>(i) * PKEY_CFGMNG_NAME_SLOT;
        const int len = DBM_Len(handle, e.name.data(), static_cast<unsigned int>(e.name.size()));
        std::vector<unsigned char> der(len > 0 ? static_cast<size_t>(len) : 0);
        if (len > 0 && DBM_GetBinary(handle, e.name.data(), static_cast<unsigned int>(e.name.size()), 0,
                                     static_cast<unsigned int>(len), der.data()) == len) {
            const unsigned char *p = der.data();
            e.key.reset(d2i_PUBKEY(nullptr, &p, len));
        }
        out.push_back(std::move(e));
    }
    DBM_Close(handle);
    if (!platform_error().empty()) {
        error = "cannot read the peer key database: " + platform_error();
        return false;
    }
    return true;
}

// The bytes of both copies of a key file, kept to put it back as it was.
struct FileImage {
    std::string mem, dev;
    std::vector<unsigned char> mem_bytes, dev_bytes;
    bool mem_there = false, dev_there = false;
};

FileImage snapshot(const StoredKey &k) {
    FileImage f;
    char path[PKEY_PATH_LEN] = "";
    PKEY_FS_MakeFullFileName(k.alg->alg_id, k.kind, DEV_GetSelf(), k.name.c_str(), PKEY_FS_MakeMemFilePrefix, path);
    f.mem = path;
    PKEY_FS_MakeFullFileName(k.alg->alg_id, k.kind, DEV_GetSelf(), k.name.c_str(), PKEY_FS_MakeDevFilePrefix, path);
    f.dev = path;
    auto read = [](const std::string &file, std::vector<unsigned char> &bytes) {
        unsigned int len = 0;
        void *data = PKEY_FS_ReadDataFromVFS(file.c_str(), &len);
        if (data == nullptr) return false;
        pkey::SecureBuffer owned = pkey::SecureBuffer::adopt(data, len);
        bytes.assign(owned.data(), owned.data() + len);
        return true;
    };
    f.mem_there = read(f.mem, f.mem_bytes);
    f.dev_there = read(f.dev, f.dev_bytes);
    return f;
}

void restore(FileImage &f) {
    if (f.dev_there)
        PKEY_FS_WriteDataToVFS(f.dev_bytes.data(), static_cast<unsigned int>(f.dev_bytes.size()), f.dev.c_str());
    if (f.mem_there)
        PKEY_FS_WriteDataToVFS(f.mem_bytes.data(), static_cast<unsigned int>(f.mem_bytes.size()), f.mem.c_str());
    OPENSSL_cleanse(f.mem_bytes.data(), f.mem_bytes.size());
    OPENSSL_cleanse(f.dev_bytes.data(), f.dev_bytes.size());
}

// Asks on the terminal; anything but y or yes is no.
bool confirmed(const std::string &question) {
    std::fprintf(stderr, "%s [y/N] ", question.c_str());
    std::fflush(stderr);
    std::string answer;
    if (!std::getline(std::cin, answer)) return false;
    return answer == "y" || answer == "Y" || answer == "yes";
}

// Switching FIPS mode on keeps every local key of FIPS strength: each is
// read while its MD5-protected file can still be read, and saved again once
// the mode is on, so that it is SHA-256 protected with the same key pair.
// The others, and peer keys too weak for the mode, are removed. Nothing
// happens before the operator has seen the list and agreed.
int fips_switch_on(const Args &a) {
    if (fips_on()) {
        std::printf("FIPS mode: on (it was on already)\n");
        return kOk;
    }
    std::vector<std::string> errors;
    HOST_ClearError();
    std::vector<StoredKey> local = stored_keys(nullptr, errors);
    if (!errors.empty()) return failure("fips on", errors.front());
    std::vector<PeerEntry> peers;
    std::string error;
    if (!read_peers(peers, error)) return failure("fips on", error);

    std::vector<StoredKey *> keep, remove, unreadable;
    for (StoredKey &k : local) {
        if (!k.readable)
            unreadable.push_back(&k);
        else if (PKEY_PUBKEY_IsKeyMatchFipsMode(k.key.get()) == 1)
            keep.push_back(&k);
        else
            remove.push_back(&k);
    }
    std::vector<const PeerEntry *> weak_peers;
    for (const PeerEntry &p : peers)
        if (p.key && PKEY_PUBKEY_IsKeyMatchFipsMode(p.key.get()) != 1) weak_peers.push_back(&p);

    const bool dry = a.has("--dry-run");
    std::printf("%s FIPS mode on:\n", dry ? "switching (dry run)" : "switching");
    for (const StoredKey *k : keep)
        std::printf("  keep   local %s key %s (%u bits), saved again with SHA-256 protection\n", k->alg->name,
                    k->display().c_str(), k->bits);
    for (const StoredKey *k : remove)
        std::printf("  remove local %s key %s (%u bits): %s\n", k->alg->name, k->display().c_str(), k->bits,
                    k->kind == PKEY_KEY_SERVER ? "FIPS mode has no SSH1 server key" : "too weak for FIPS mode");
    for (const PeerEntry *p : weak_peers)
        std::printf("  remove peer key %s (%s %u bits): too weak for FIPS mode\n", printable(p->name).c_str(),
                    algorithm_of(p->key.get()) ? algorithm_of(p->key.get())->name : "?",
                    PKEY_PUBKEY_GetKeyBits(p->key.get()));
    for (const StoredKey *k : unreadable)
        std::printf("  leave  local %s key %s unreadable: %s\n", k->alg->name, k->display().c_str(),
                    k->problem.c_str());
    if (keep.empty() && remove.empty() && weak_peers.empty() && unreadable.empty()) std::printf("  no keys stored\n");
    const size_t losses = remove.size() + weak_peers.size();
    if (dry) {
        std::printf("dry run: nothing changed\n");
        return kOk;
    }
    std::fflush(stdout);
    if (losses != 0 && !a.has("--yes")) {
        const std::string question =
            "remove " + std::to_string(losses) + (losses == 1 ? " key" : " keys") + " and switch FIPS mode on?";
        if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0)
            return failure("fips on", std::to_string(losses) + (losses == 1 ? " key" : " keys") +
                                          " would be removed; confirm with --yes (see them with --dry-run)");
        if (!confirmed(question)) return failure("fips on", "not confirmed; nothing changed");
    }

    // Files of the keys to keep, to put back if saving one of them fails.
    std::vector<FileImage> images;
    images.reserve(keep.size());
    for (const StoredKey *k : keep) images.push_back(snapshot(*k));
    HOST_ClearError();
    if (HOST_SetFipsMode(1) != 0) return failure("fips on", "the mode could not be switched: " + platform_error());
    for (size_t i = 0; i < keep.size(); ++i) {
        const StoredKey &k = *keep[i];
        const int r = PKEY_LOCAL_SaveLocalKey(k.alg->alg_id, k.kind, k.key.get(), k.name.c_str());
        if (r == 0) continue;
        (void)HOST_SetFipsMode(0);
        for (size_t j = 0; j <= i; ++j) restore(images[j]);
        return failure("fips on", "key " + k.display() + " could not be saved again (" +
                                      write_problem(*k.alg, k.kind, k.name) +
                                      "); FIPS mode is off again and nothing was removed");
    }
    for (FileImage &f : images) {
        OPENSSL_cleanse(f.mem_bytes.data(), f.mem_bytes.size());
        OPENSSL_cleanse(f.dev_bytes.data(), f.dev_bytes.size());
    }

    std::printf("FIPS mode: on\n");
    for (const StoredKey *k : keep)
        std::printf("kept local %s key %s (%u bits), now SHA-256 protected, fingerprint %s\n", k->alg->name,
                    k->display().c_str(), k->bits, fingerprint_sha256(k->key.get()).c_str());
    int failures = 0;
    for (const StoredKey *k : remove) {
        if (PKEY_LOCAL_DestroyOneKey(k->alg->alg_id, k->kind, k->name.c_str()) != 0) {
            ++failures;
            std::fprintf(stderr, "pkeyctl: fips on: local %s key %s was not removed: %s\n", k->alg->name,
                         k->display().c_str(), write_problem(*k->alg, k->kind, k->name).c_str());
            continue;
        }
        std::printf("removed local %s key %s (%u bits)\n", k->alg->name, k->display().c_str(), k->bits);
    }
    // The mode's own sweep then judges whatever else the flash holds, and the
    // memory mirror is refilled from what is left there.
    char work[PKEY_PATH_LEN];
    if (FS_GetLocalDefaultWorkDir(sizeof work, work) == 0) {
        PKEY_DestroyNonFIPSApprovedKeyPairs((std::string(work) + "/pkey/").c_str());
        PKEY_BACKUP_BatchMemProc(DEV_GetSelf());
    }
    HOST_ClearError();
    PKEY_CFGMNG_DestroyNonFIPSApprovedPeerPubKey();
    std::vector<PeerEntry> after;
    if (!read_peers(after, error)) return failure("fips on", error);
    for (const PeerEntry *p : weak_peers) {
        const bool gone =
            std::none_of(after.begin(), after.end(), [&](const PeerEntry &e) { return e.name == p->name; });
        if (gone) {
            std::printf("removed peer key %s\n", printable(p->name).c_str());
        } else {
            ++failures;
            std::fprintf(stderr, "pkeyctl: fips on: peer key %s was not removed\n", printable(p->name).c_str());
        }
    }
    if (losses == 0) std::printf("nothing had to go\n");
    return failures == 0 ? kOk : kFailed;
}

int fips(const Args &a) {
    const std::string action = a.positional[0];
    if ((a.has("--yes") || a.has("--dry-run")) && action != "on")
        return usage_error("--yes and --dry-run are for fips on");
    if (action == "status") {
        std::printf("FIPS mode: %s\n", fips_on() ? "on" : "off");
        return kOk;
    }
    if (action == "off") {
        HOST_ClearError();
        if (HOST_SetFipsMode(0) != 0) return failure("fips off", "the mode could not be switched: " + platform_error());
        std::printf("FIPS mode: off\n");
        return kOk;
    }
    if (action != "on") return usage_error("fips takes status, on or off");
    return fips_switch_on(a);
}

// ---- standby nodes ------------------------------------------------------------------------

bool parse_node(const std::string &text, unsigned short &node) {
    char *end = nullptr;
    const unsigned long v = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || v > 0xFFFF) return false;
    node = static_cast<unsigned short>(v);
    return true;
}

std::vector<unsigned short> standby_nodes() {
    unsigned int count = 0;
    unsigned short *nodes = DEV_GetAllStandbyNodes(&count);
    std::vector<unsigned short> out(nodes, nodes + (nodes != nullptr ? count : 0));
    std::free(nodes);
    return out;
}

int backup_batch(const Args &a) {
    unsigned short node = 0;
    if (!parse_node(a.positional[0], node)) return usage_error("a node is a number from 0 to 65535");
    const std::string what = "backup batch " + a.positional[0];
    if (node == DEV_GetSelf()) return failure(what, "that is this node");
    if (PKEY_BACKUP_IsNodeStatusNormal(node) != 1) return failure(what, "the node is not in normal state");
    HOST_ClearError();
    const int r = PKEY_BACKUP_Batch(node);
    if (r != 0 && r != -1) {
        const std::string platform = platform_error();
        return failure(what, "the copy failed (code " + hex_code(static_cast<unsigned int>(r)) + ")" +
                                 (platform.empty() ? "" : ": " + platform));
    }
    std::printf("node %u now holds this node's key store%s\n", node,
                r == -1 ? " (this node has no ECDSA host key, so neither has the standby)" : "");
    return kOk;
}

int node_standby(const Args &a) {
    const std::string action = a.positional[0];
    std::vector<unsigned short> nodes = standby_nodes();
    if (action == "list") {
        if (a.positional.size() != 1) return usage_error("node standby list takes no node");
        for (unsigned short n : nodes)
            std::printf("%u %s\n", n, PKEY_BACKUP_IsNodeStatusNormal(n) == 1 ? "normal" : "not normal");
        return kOk;
    }
    unsigned short node = 0;
    if (a.positional.size() != 2 || !parse_node(a.positional[1], node))
        return usage_error("node standby add|remove NODE (a number from 0 to 65535)");
    const auto it = std::find(nodes.begin(), nodes.end(), node);
    if (action == "add") {
        if (node == DEV_GetSelf()) return failure("node standby add", "node " + a.positional[1] + " is this node");
        if (it == nodes.end()) nodes.push_back(node);
    } else if (action == "remove") {
        if (it == nodes.end())
            return failure("node standby remove", "node " + a.positional[1] + " is not a standby node");
        nodes.erase(it);
    } else {
        return usage_error("node standby takes add, remove or list");
    }
    HOST_ClearError();
    if (HOST_SetStandbyNodes(nodes.data(), static_cast<unsigned int>(nodes.size())) != 0)
        return failure("node standby " + action, "the standby list could not be saved: " + platform_error());
    std::printf("standby nodes:");
    for (unsigned short n : nodes) std::printf(" %u", n);
    std::printf("%s\n", nodes.empty() ? " none" : "");
    return kOk;
}

const std::vector<Command> kSystem = {
    {"policy", "", "what the current mode allows: algorithms, sizes and curves", "", 0, 0, policy, "*"},
    {"keygen", "rsa|dsa|ecdsa [--bits N] [--curve C]",
     "generate a key pair in memory under the policy and describe it (nothing is stored)", "--bits= --curve=", 1, 1,
     keygen, "*"},
    {"fips", "status|on|off [--yes] [--dry-run]",
     "show or switch the store's FIPS mode. Switching on keeps the local keys of FIPS strength (saved "
     "again with SHA-256 protection, same key and fingerprint) and removes the others and the peer keys "
     "the mode does not allow; it lists them first and asks on a terminal. --dry-run only lists, --yes "
     "does not ask",
     "--yes --dry-run", 1, 1, fips, "status"},
    {"backup batch", "NODE", "make a standby node's key store a copy of this node's", "", 1, 1, backup_batch},
    {"node standby", "add|remove NODE | list", "the standby nodes that key files are copied to", "", 1, 2, node_standby,
     "list"},
};

}  // namespace

const std::vector<Command> &system_commands() { return kSystem; }

}  // namespace pkeyctl
