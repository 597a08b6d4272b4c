// pkeyctl policy, keygen, fips, backup and node: the mode and the device.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
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
#include "pkey_util.hpp"

namespace pkeyctl {
namespace {

bool fips_on() { return CRYPTO_FIPSIsEnabled() == 1; }
const char *mode_name() { return fips_on() ? "FIPS" : "non-FIPS"; }

int policy(const Args &) {
    std::printf("mode: %s\n%-6s %-8s %-9s %s\n", mode_name(), "alg", "enabled", "min bits",
                "max bits / curves");
    for (const Algorithm &a : algorithms()) {
        std::string detail = "2048";
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
    if (alg == nullptr) return usage_error("unknown algorithm '" + a.positional[0] + "'");
    const Curve *curve = a.has("--curve") ? find_curve(a.get("--curve")) : nullptr;
    if (a.has("--curve") && curve == nullptr) return usage_error("unknown curve '" + a.get("--curve") + "'");
    const unsigned long bits = std::strtoul(a.get("--bits", "2048").c_str(), nullptr, 10);
    const auto start = std::chrono::steady_clock::now();
    pkey::EvpPkeyPtr key(curve != nullptr ? PKEY_GenerateECKey(curve->nid)
                                          : PKEY_GeneratePKey(alg->evp_type, static_cast<unsigned>(bits)));
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    if (!key) return failure(std::string("keygen ") + alg->name, std::string("refused by the policy of ") + mode_name() + " mode, or the memory alarm is raised");
    std::printf("%s %u bits, allowed now: %s, FIPS strength: %s (%.1f ms, not stored)\n", alg->name,
                PKEY_PUBKEY_GetKeyBits(key.get()), PKEY_PUBKEY_IsKeyLenValid(key.get()) == 1 ? "yes" : "no",
                PKEY_PUBKEY_IsKeyMatchFipsMode(key.get()) == 1 ? "yes" : "no", ms);
    return kOk;
}

struct LocalKeyRef {
    const Algorithm *alg;
    unsigned int kind;
    std::string name;     // "" for a default key
    std::string display;  // as listed
    unsigned char protection = 0;
    unsigned int bits = 0;
    bool operator<(const LocalKeyRef &o) const { return display + alg->name < o.display + o.alg->name; }
};

// Every readable local key of the store, with how its file is protected.
std::set<LocalKeyRef> local_keys() {
    std::set<LocalKeyRef> keys;
    for (const Algorithm &alg : algorithms()) {
        PKEY_LOCAL_NEXT_HANDLE_S *handle = PKEY_LOCAL_GetNextInit(alg.alg_id);
        PKEY_LOCAL_KEY_INFO_S *info = PKEY_LOCAL_GetFirst(handle);
        for (int index = 0; info != nullptr; ++index) {
            if ((info->uiFlags & PKEY_INFO_HAS_KEY) != 0) {
                const bool server = alg.alg_id == PKEY_ALG_RSA && index == 1;
                const bool named = info->pstPosition != nullptr && std::strstr(info->szName, "(default)") == nullptr;
                LocalKeyRef ref{&alg, server ? PKEY_KEY_SERVER : PKEY_KEY_HOST, named ? info->szName : "",
                                info->szName, 0, info->uiBits};
                unsigned int len = 0;
                if (unsigned char *rec = PKEY_LOCAL_ReadKeyToBuf(alg.alg_id, ref.kind, ref.name.c_str(), &len)) {
                    ref.protection = rec[PKEY_STORE_OFF_PROTECTION];
                    OPENSSL_cleanse(rec, len);
                    std::free(rec);
                }
                keys.insert(ref);
            }
            PKEY_LOCAL_KEY_INFO_S *next = PKEY_LOCAL_GetNext(handle, info);
            PKEY_LOCAL_DestroyLocalKeyInfo(info);
            info = next;
        }
        PKEY_LOCAL_GetNextFinal(handle);
    }
    return keys;
}

std::set<std::string> peer_names() {
    std::set<std::string> names;
    const int handle = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_READ);
    if (handle == -1) return names;
    unsigned int count = 0;
    char *table = PKEY_CFGMNG_GetPeerPubKeyList(handle, &count);
    DBM_Close(handle);
    for (unsigned int i = 0; table != nullptr && i < count; ++i) names.insert(table + i * PKEY_CFGMNG_NAME_SLOT);
    std::free(table);
    return names;
}

// Switching FIPS mode on sweeps what the mode no longer allows: local key
// files not protected by SHA-256 (swept while the old mode can still read
// them), then keys too small or on refused curves, then weak peer keys.
// The memory mirror is dropped so that it is refilled from what is left.
int fips(const Args &a) {
    const std::string action = a.positional[0];
    if (action == "status") {
        std::printf("FIPS mode: %s\n", fips_on() ? "on" : "off");
        return kOk;
    }
    if (action == "off") {
        HOST_SetFipsMode(0);
        std::printf("FIPS mode: off\n");
        return kOk;
    }
    if (action != "on") return usage_error("fips takes status, on or off");
    const std::set<LocalKeyRef> local_before = local_keys();
    const std::set<std::string> peers_before = peer_names();

    char work[PKEY_PATH_LEN];
    if (FS_GetLocalDefaultWorkDir(sizeof work, work) != 0) return failure("fips on", "the work directory is unknown");
    const std::string store = std::string(work) + "/pkey/";
    if (!fips_on()) PKEY_DestroyNonFIPSApprovedKeyPairs(store.c_str());
    HOST_SetFipsMode(1);
    PKEY_DestroyNonFIPSApprovedKeyPairs(store.c_str());
    PKEY_BACKUP_BatchMemProc(DEV_GetSelf());
    PKEY_CFGMNG_DestroyNonFIPSApprovedPeerPubKey();

    const std::set<LocalKeyRef> local_after = local_keys();
    const std::set<std::string> peers_after = peer_names();
    std::printf("FIPS mode: on\n");
    int removed = 0;
    for (const LocalKeyRef &k : local_before) {
        if (local_after.count(k) != 0) continue;
        ++removed;
        std::printf("removed local %s key %s (%u bits): %s\n", k.alg->name, k.display.c_str(), k.bits,
                    k.protection != PKEY_STORE_PROTECT_SHA256 ? "not protected by SHA-256"
                                                              : "size or curve not allowed");
    }
    for (const std::string &name : peers_before) {
        if (peers_after.count(name) != 0) continue;
        ++removed;
        std::printf("removed peer key %s: too weak for FIPS mode\n", name.c_str());
    }
    if (removed == 0) std::printf("nothing had to go\n");
    return kOk;
}

bool parse_node(const std::string &text, unsigned short &node) {
    char *end = nullptr;
    const unsigned long v = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || v > 0xFFFF) return false;
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
    const int r = PKEY_BACKUP_Batch(node);
    if (r != 0 && r != -1) return failure(what, "the node's directories could not be resolved or written (code " + std::to_string(r) + ")");
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
        if (it == nodes.end()) return failure("node standby remove", "node " + a.positional[1] + " is not a standby node");
        nodes.erase(it);
    } else {
        return usage_error("node standby takes add, remove or list");
    }
    HOST_SetStandbyNodes(nodes.data(), static_cast<unsigned int>(nodes.size()));
    std::printf("standby nodes:");
    for (unsigned short n : nodes) std::printf(" %u", n);
    std::printf("%s\n", nodes.empty() ? " none" : "");
    return kOk;
}

const std::vector<Command> kSystem = {
    {"policy", "", "what the current mode allows: algorithms, sizes and curves", "", 0, 0, policy},
    {"keygen", "rsa|dsa|ecdsa [--bits N] [--curve C]",
     "generate a key pair in memory under the policy and describe it (nothing is stored)", "--bits= --curve=", 1, 1,
     keygen},
    {"fips", "status|on|off",
     "show or switch the store's FIPS mode; switching on removes local and peer keys the mode does not allow "
     "and says which",
     "", 1, 1, fips},
    {"backup batch", "NODE", "make a standby node's key store a copy of this node's", "", 1, 1, backup_batch},
    {"node standby", "add|remove NODE | list", "the standby nodes that key files are copied to", "", 1, 2,
     node_standby},
};

}  // namespace

const std::vector<Command> &system_commands() { return kSystem; }

}  // namespace pkeyctl
