// Copies of local key files on standby nodes: one file at a time as it is
// written or removed, or the whole key store in a batch.
#include "pkey_backup.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "pkey_fs.h"
#include "pkey_paths.hpp"
#include "pkey_platform.h"
#include "pkey_util.hpp"

namespace {

constexpr unsigned int kNodeMask = 0xFFFF;
constexpr unsigned int kAllStatus = 0xFFFF;
// The buffer sizes of the batch differ on purpose: memory roots may be long
// paths on the device, work directories are short.
constexpr unsigned int kMemRootLen = 4096;
constexpr unsigned int kWorkDirLen = 256;
constexpr const char *kKeyRoot = "/pkey/";
constexpr const char *kDefaultKeyFiles[] = {"hostkey", "serverkey", "dsakey", "ecdsakey"};

// Replaces dst's copy of a default key file with src's; removing first means
// a key this node does not have is gone from the standby too.
int _backup_CopyDefaultKeyFile(const char *srcDir, const char *dstDir, const char *name) {
    char src[PKEY_PATH_LEN];
    char dst[PKEY_PATH_LEN];
    scnprintf(src, sizeof src, "%s%s%s", srcDir, "/", name);
    scnprintf(dst, sizeof dst, "%s%s%s", dstDir, "/", name);
    PKEY_FS_RemoveFileFromVFS(0, 0, dst);
    return PKEY_FS_CopyFileByFullName(src, dst);
}

}  // namespace

extern "C" {

int PKEY_BACKUP_IsNodeStatusNormal(unsigned int node) noexcept {
    int status = 0;
    if (DEV_GetDeviceStatusEx(node & kNodeMask, kAllStatus, &status) != 0) return 0;
    return status == DEV_STATUS_NORMAL ? 1 : 0;
}

void PKEY_BACKUP_SndRtLocalKey(unsigned int algId, unsigned int length, const void *data,
                               const char *name, PKEY_BACKUP_FILE_OP fileOp,
                               unsigned int keyKind) noexcept {
    if (fileOp == nullptr || pkey::is_escaping_key_name(name)) return;
    unsigned int count = 0;
    unsigned short *nodes = DEV_GetAllStandbyNodes(&count);
    if (nodes == nullptr) return;
    for (unsigned int i = 0; i < count; ++i) {
        char path[PKEY_PATH_LEN] = "";
        PKEY_FS_MakeFullFileName(algId, keyKind, nodes[i], name, PKEY_FS_MakeDevFilePrefix, path);
        (void)fileOp(data, length, path);  // a failing node does not stop the others
    }
    std::free(nodes);
}

int PKEY_BACKUP_Batch(unsigned int node) noexcept {
    (void)PKEY_BACKUP_BatchMemProc(node);
    return PKEY_BACKUP_BatchDevProc(node);
}

int PKEY_BACKUP_BatchMemProc(unsigned int node) noexcept {
    char root[kMemRootLen];
    if (const int r = pkey::paths::node_mem_root(node & kNodeMask, root, sizeof root); r != 0)
        return r;
    for (unsigned int alg : {PKEY_ALG_RSA, PKEY_ALG_DSA, PKEY_ALG_ECDSA})
        (void)PKEY_FS_RemovePkeyDir(PKEY_FS_GetKeyDir(alg), root);
    // The key root goes last, once its sub-directories are gone.
    return PKEY_FS_RemovePkeyDir(kKeyRoot, root);
}

int PKEY_BACKUP_BatchDevProc(unsigned int node) noexcept {
    char local[kWorkDirLen] = "";
    char remote[kWorkDirLen] = "";
    if (const int r = FS_GetLocalDefaultWorkDir(sizeof local, local); r != 0) return r;
    if (const int r = FS_GetNodeDefaultWorkDir(node & kNodeMask, sizeof remote, remote); r != 0)
        return r;
    // A "copy" onto itself would first remove the very keys it copies.
    if (std::strcmp(local, remote) == 0) return static_cast<int>(PKEY_ERR_FAILED);
    bool complete = true;
    for (unsigned int alg : {PKEY_ALG_RSA, PKEY_ALG_DSA, PKEY_ALG_ECDSA}) {
        const char *dir = PKEY_FS_GetKeyDir(alg);
        (void)PKEY_FS_RemovePkeyDir(dir, remote);
        if (PKEY_FS_CopyPkeyDir(dir, local, remote) == -1) complete = false;
    }
    int r = 0;
    for (const char *name : kDefaultKeyFiles) r = _backup_CopyDefaultKeyFile(local, remote, name);
    // The ECDSA host key's copy decides, unless a key directory could not be
    // read whole: the standby then lacks keys and the caller must know.
    return complete ? r : static_cast<int>(PKEY_ERR_FAILED);
}

}  // extern "C"
