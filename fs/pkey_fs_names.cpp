// Names of the key store: key directories, default key names, node prefixes
// and full key file names.
#include <cstring>

#include "pkey_fs.h"
#include "pkey_paths.hpp"
#include "pkey_platform.h"

namespace {

const char *const g_apcPKEYKeyDir[4] = {"", "/pkey/rsa/", "/pkey/dsa/", "/pkey/ecdsa/"};
const char *const g_apcPKEYDefaultKeyName[4] = {"", "hostkey", "dsakey", "ecdsakey"};

constexpr const char *kKeyRoot = "/pkey/";
constexpr const char *kPublicKeyDir = "/pkey/publickey/";
constexpr const char *kServerKeyName = "serverkey";
constexpr const char *kKeyFileExtension = ".key";
constexpr unsigned int kNodeMask = 0xFFFF;

}  // namespace

extern "C" {

const char *PKEY_FS_GetKeyDir(unsigned int algId) noexcept {
    return algId < 4 ? g_apcPKEYKeyDir[algId] : "";
}

const char *PKEY_FS_GetDefaultKeyName(unsigned int algId) noexcept {
    return algId < 4 ? g_apcPKEYDefaultKeyName[algId] : "";
}

const char *PKEY_FS_GetPKEYDefaultKeyName(unsigned int algId, unsigned int keyKind) noexcept {
    return keyKind == PKEY_KEY_HOST ? PKEY_FS_GetDefaultKeyName(algId) : kServerKeyName;
}

int PKEY_FS_CheckMemStatus(void) noexcept { return Mem_Alert_GetCurrentState() == 0 ? 1 : 0; }

const char *PKEY_FS_StrEndString(const char *str, const char *suffix) noexcept {
    if (str == nullptr || suffix == nullptr) return nullptr;
    const size_t n = std::strlen(str);
    const size_t m = std::strlen(suffix);
    if (m > n) return nullptr;
    const char *ending = str + (n - m);
    return std::memcmp(ending, suffix, m) == 0 ? ending : nullptr;
}

int PKEY_FS_GetLocKeyMemDirByAlgId(unsigned int algId, char *out) noexcept {
    if (out == nullptr) return 0;
    char root[PKEY_PATH_LEN];
    pkey::paths::mem_root(root, sizeof root);
    return scnprintf(out, PKEY_PATH_LEN, "%s%s", root, PKEY_FS_GetKeyDir(algId));
}

int PKEY_FS_GetPkeyMemDir(char *out) noexcept {
    if (out == nullptr) return 0;
    char root[PKEY_PATH_LEN];
    pkey::paths::mem_root(root, sizeof root);
    return scnprintf(out, PKEY_PATH_LEN, "%s%s", root, kKeyRoot);
}

int PKEY_FS_MakeMemFilePrefix(unsigned int node, char *out) noexcept {
    return pkey::paths::node_mem_root(node & kNodeMask, out, PKEY_PATH_LEN);
}

int PKEY_FS_MakeDevFilePrefix(unsigned int node, char *out) noexcept {
    return FS_GetNodeDefaultWorkDir(node & kNodeMask, PKEY_PATH_LEN, out);
}

int PKEY_FS_MakeFullFileName(unsigned int algId, unsigned int keyKind, unsigned int node,
                             const char *name, PKEY_FS_PREFIX_FN prefixFn, char *out) noexcept {
    if (algId >= PKEY_ALG_UNSUPPORTED || out == nullptr || prefixFn == nullptr) return 0;
    if (name == nullptr) name = "";
    const int r = prefixFn(node & kNodeMask, out);
    out[PKEY_PATH_LEN - 1] = '\0';
    const size_t len = std::strlen(out);
    // A failed prefix leaves its partial text; the open that follows fails on it.
    if (r != 0) return static_cast<int>(len);
    char *tail = out + len;
    const size_t room = PKEY_PATH_LEN - len;
    if (name[0] == '\0') {
        // Default keys: straight in the work directory, under /pkey/ in memory.
        const char *separator = prefixFn == PKEY_FS_MakeMemFilePrefix ? kKeyRoot : "/";
        const char *base = keyKind == PKEY_KEY_SERVER ? kServerKeyName
                           : keyKind == PKEY_KEY_HOST ? g_apcPKEYDefaultKeyName[algId]
                                                      : "";
        return scnprintf(tail, room, "%s%s", separator, base);
    }
    if (keyKind == PKEY_KEY_PUBLIC) return scnprintf(tail, room, "%s%s", kPublicKeyDir, name);
    return scnprintf(tail, room, "%s%s%s", g_apcPKEYKeyDir[algId], name, kKeyFileExtension);
}

}  // extern "C"
