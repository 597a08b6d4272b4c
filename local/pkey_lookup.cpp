// Local key names, lookups of stored keys, the existence test, the guard that
// keeps user file operations out of the key store, and the sweep that removes
// stored keys the FIPS policy no longer admits.
#include <dirent.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <strings.h>

#include <cstring>
#include <initializer_list>

#include "pkey_cfgmng.h"
#include "pkey_curves.hpp"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_local_internal.hpp"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace {

using pkey::EvpPkeyPtr;
using pkey::SecureBuffer;

constexpr const char *kKeyFileExt = ".key";
constexpr unsigned short kNoLocation = 0xFFFF;

// A stored key passes when it is SHA-256 protected and its size or curve is
// one the policy admits now.
bool passes_fips_policy(const EVP_PKEY *key, unsigned int alg, unsigned char protection) noexcept {
    if (protection != PKEY_STORE_PROTECT_SHA256) return false;
    if (alg == PKEY_ALG_RSA || alg == PKEY_ALG_DSA)
        return PKEY_PUBKEY_GetPubKeySize(key) >= PKEY_PUBKEY_GetMinKeyBits(alg);
    return PKEY_IsValidECDSACurve(pkey::curves::nid_of_key(key)) == 1;
}

// Removes the key file at path when it holds a readable key that fails the
// FIPS policy. A file that cannot be read, deciphered, verified or converted
// is left alone: only a key that can be read is judged.
void _local_CheckKeyByFullFileName(const char *path, unsigned int alg) {
    unsigned int file_len = 0;
    void *data = PKEY_FS_ReadDataFromVFS(path, &file_len);
    if (data == nullptr) return;
    EvpPkeyPtr key;
    unsigned char protection = 0;
    {
        // The deciphered record holds the private key.
        SecureBuffer record = SecureBuffer::adopt(data, file_len);
        unsigned int plain_len = 0;
        if (PKEY_LOCAL_DecryptPKey(file_len, record.data(), file_len, record.data(), &plain_len) !=
            0)
            return;
        if (PKEY_LOCAL_GetKeyStatusFromDataBuf(record.data(), plain_len, &protection) != 1) return;
        key.reset(PKEY_PUBKEY_ConvertStoreBufToKey(alg, record.data(), plain_len));
    }
    if (!key) return;
    if (!passes_fips_policy(key.get(), alg, protection)) PKEY_FS_RemoveFileFromVFS(0, 0, path);
}

// scandir filter: named key files only.
int _local_ScandirKeyFile(const struct dirent *entry) {
    return entry != nullptr && PKEY_FS_StrEndString(entry->d_name, kKeyFileExt) != nullptr ? 1 : 0;
}

// The last path component "pkey" (any case) of path, or NULL. Only a whole
// component counts: "pkey" inside another directory name (a store root such
// as "/tmp/pkey-test") must not make the sweep judge files outside the store.
const char *find_key_root(const char *path) noexcept {
    const char *found = nullptr;
    for (const char *p = path; (p = strcasestr(p, "pkey")) != nullptr; p += 4) {
        const bool starts = p == path || p[-1] == '/';
        const bool ends = p[4] == '\0' || p[4] == '/';
        if (starts && ends) found = p;
    }
    return found;
}

// Sweeps the default key files of one algorithm, which sit in the directory
// that holds "pkey", and the named key files of its sub-directory of path.
int _local_CheckKeyByStoragePath(const char *path, unsigned int alg) {
    if (path == nullptr) return 0;
    const char *pkey_dir = find_key_root(path);
    if (pkey_dir == nullptr) return 0;

    char root[PKEY_PATH_LEN];
    scnprintf(root, sizeof root, "%.*s", static_cast<int>(pkey_dir - path), path);
    char file[PKEY_PATH_LEN];
    const char *sub_dir = "ecdsa";
    switch (alg) {
        case PKEY_ALG_RSA:
            scnprintf(file, sizeof file, "%s%s", root, "hostkey");
            _local_CheckKeyByFullFileName(file, alg);
            scnprintf(file, sizeof file, "%s%s", root, "serverkey");
            _local_CheckKeyByFullFileName(file, alg);
            sub_dir = "rsa";
            break;
        case PKEY_ALG_DSA:
            scnprintf(file, sizeof file, "%s%s", root, "dsakey");
            _local_CheckKeyByFullFileName(file, alg);
            sub_dir = "dsa";
            break;
        case PKEY_ALG_ECDSA:
            scnprintf(file, sizeof file, "%s%s", root, "ecdsakey");
            _local_CheckKeyByFullFileName(file, alg);
            break;
        default: break;  // no default key file to check
    }

    char dir[PKEY_PATH_LEN];
    scnprintf(dir, sizeof dir, "%s%s", path, sub_dir);
    struct dirent **list = nullptr;
    const int count = scandir(dir, &list, _local_ScandirKeyFile, nullptr);
    if (count < 0) return count;
    for (int i = 0; i < count; ++i) {
        scnprintf(file, sizeof file, "%s/%s", dir, list[i]->d_name);
        _local_CheckKeyByFullFileName(file, alg);
    }
    return freedir(list, count);
}

// Where a full file name lies: the storage device and its location, and the
// directory and file parts on it.
struct FileLocation {
    unsigned short location1 = kNoLocation;
    unsigned short location2 = kNoLocation;
    char device[FS_DEVICE_NAME_LEN] = "";
    char dir[FS_DIR_NAME_LEN] = "";
    char file[FS_FILE_NAME_LEN] = "";

    bool analyse(const char *full_name) noexcept {
        return FS_AnalyseFileName(full_name, &location1, &location2, device, dir, file) == 0;
    }
    bool same_device_as(const FileLocation &o) const noexcept {
        return strcasecmp(device, o.device) == 0 && location1 == o.location1 &&
               location2 == o.location2;
    }
};

bool is_key_store_root_name(const char *file) noexcept {
    // "pkey" itself is refused too: renaming or removing it takes every key.
    for (const char *name : {"dsakey", "ecdsakey", "hostkey", "serverkey", "pkey"})
        if (std::strcmp(file, name) == 0) return true;
    return false;
}

}  // namespace

extern "C" {

int PKEY_LOCAL_IsKeyNameCharValid(int c) noexcept {
    // Explicit ASCII ranges: the process locale must not widen the set.
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-'
               ? 1
               : 0;
}

int PKEY_CheckLocalKeyName(const char *name) noexcept {
    if (name == nullptr || name[0] == '\0') return PKEY_ERR_FAILED;
    for (const char *p = name; *p != '\0'; ++p)
        if (PKEY_LOCAL_IsKeyNameCharValid(static_cast<unsigned char>(*p)) == 0)
            return PKEY_ERR_FAILED;
    return 0;
}

void PKEY_AdjustLocalKeyNameToValid(char *name) noexcept {
    if (name == nullptr) return;
    for (char *p = name; *p != '\0'; ++p)
        if (PKEY_LOCAL_IsKeyNameCharValid(static_cast<unsigned char>(*p)) == 0) *p = '-';
}

EVP_PKEY *PKEY_LOCAL_GetLocKey(unsigned int algId, unsigned char keyKind,
                               const char *name) noexcept {
    const SecureBuffer record = pkey::local::read_checked_record(algId, keyKind, name);
    if (record.size() == 0) return nullptr;
    return PKEY_PUBKEY_ConvertStoreBufToKey(algId, record.data(),
                                            static_cast<unsigned int>(record.size()));
}

EVP_PKEY *PKEY_GetHostKey(int evpType, const char *name) noexcept {
    if (name == nullptr) return nullptr;
    const unsigned int alg = PKEY_PUBKEY_GetPkeyAlgIdByEvpId(static_cast<unsigned int>(evpType));
    if (alg >= PKEY_ALG_UNSUPPORTED) return nullptr;
    return PKEY_LOCAL_GetLocKey(alg, PKEY_KEY_HOST, name);
}

EVP_PKEY *PKEY_GetServerKey(int evpType, const char *name) noexcept {
    if (name == nullptr ||
        PKEY_PUBKEY_GetPkeyAlgIdByEvpId(static_cast<unsigned int>(evpType)) != PKEY_ALG_RSA)
        return nullptr;
    return PKEY_LOCAL_GetLocKey(PKEY_ALG_RSA, PKEY_KEY_SERVER, name);
}

int PKEY_LOCAL_IsKeyExist(unsigned int algId, const char *name) noexcept {
    if (name == nullptr || pkey::is_escaping_key_name(name)) return 0;
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    char mem[PKEY_PATH_LEN] = "";
    PKEY_FS_MakeFullFileName(algId, PKEY_KEY_HOST, DEV_GetSelf(), name, PKEY_FS_MakeMemFilePrefix,
                             mem);
    return PKEY_FS_IsFileExisted(mem);
}

int PKEY_IsKeyExist(int evpType, const char *name) noexcept {
    if (name == nullptr || pkey::is_escaping_key_name(name)) return 0;
    const unsigned int alg = PKEY_PUBKEY_GetPkeyAlgIdByEvpId(static_cast<unsigned int>(evpType));
    if (alg >= PKEY_ALG_UNSUPPORTED) return 0;
    return PKEY_LOCAL_IsKeyExist(alg, name);
}

int PKEY_LOCAL_GetLocalKeyName(char *fileName) noexcept {
    if (fileName == nullptr || std::strlen(fileName) < std::strlen(kKeyFileExt))
        return PKEY_ERR_FAILED;
    char *ext = const_cast<char *>(PKEY_FS_StrEndString(fileName, kKeyFileExt));
    if (ext == nullptr) return PKEY_ERR_FAILED;
    *ext = '\0';
    return 0;
}

int PKEY_LOCAL_CheckFullFileName(const char *fullName, unsigned int mode, unsigned int flags,
                                 unsigned int reserved) noexcept {
    if (fullName == nullptr || FS_IsValidFullFileName(fullName, mode, flags, reserved) != 0)
        return PKEY_ERR_FAILED;
    // "./" also catches "../".
    if (std::strstr(fullName, "./") != nullptr) return PKEY_ERR_FAILED;

    char work_dir[PKEY_PATH_LEN] = "";
    FS_GetDefaultWorkDirBySlot(DEV_GetSelfSlot(), sizeof work_dir, work_dir);
    FileLocation work;
    FileLocation target;
    // When either place cannot be told, the name might reach the key store.
    if (!work.analyse(work_dir) || !target.analyse(fullName)) return PKEY_ERR_FAILED;
    if (!target.same_device_as(work)) return 0;

    lowercase(target.dir);
    lowercase(target.file);
    if (std::strcmp(target.dir, "pkey") == 0 || std::strncmp(target.dir, "pkey/", 5) == 0)
        return PKEY_ERR_FAILED;
    if (target.dir[0] != '\0') return 0;
    return is_key_store_root_name(target.file) ? PKEY_ERR_FAILED : 0;
}

int PKEY_DestroyNonFIPSApprovedKeyPairs(const char *storagePath) noexcept {
    (void)_local_CheckKeyByStoragePath(storagePath, PKEY_ALG_RSA);
    (void)_local_CheckKeyByStoragePath(storagePath, PKEY_ALG_DSA);
    return _local_CheckKeyByStoragePath(storagePath, PKEY_ALG_ECDSA);
}

}  // extern "C"
