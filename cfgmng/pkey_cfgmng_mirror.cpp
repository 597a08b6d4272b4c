// The memory mirror: fills the node's memory key directory from flash once.
#include <cstdlib>
#include <initializer_list>

#include "pkey_cfgmng.h"
#include "pkey_fs.h"
#include "pkey_paths.hpp"
#include "pkey_platform.h"
#include "pkey_util.hpp"

namespace {

constexpr const char *kServerKeyName = "serverkey";

}  // namespace

extern "C" {

int PKEY_CFGMNG_CopyFile2File(const char *src, const char *dst) noexcept {
    unsigned int len = 0;
    void *data = PKEY_FS_ReadDataFromVFS(src, &len);
    if (data == nullptr) return static_cast<int>(PKEY_ERR_FAILED);
    auto owned = pkey::SecureBuffer::adopt(data, len);
    return PKEY_FS_WriteDataToVFS(owned.data(), len, dst);
}

void PKEY_CFGMNG_UpdateLocKeyMemFiles(void) noexcept {
    char work[PKEY_PATH_LEN];
    if (FS_GetLocalDefaultWorkDir(PKEY_PATH_LEN, work) != 0) return;
    // Without a memory root every destination below would be a wrong path.
    char mem_root[PKEY_PATH_LEN];
    if (pkey::paths::mem_root(mem_root, sizeof mem_root) == 0) return;
    char mem_dir[PKEY_PATH_LEN];
    PKEY_FS_GetPkeyMemDir(mem_dir);
    if (PKEY_FS_IsDirExisted(mem_dir) == 1) return;  // present: never refreshed here

    char src[PKEY_PATH_LEN];
    char dst[PKEY_PATH_LEN];
    scnprintf(src, sizeof src, "%s%s%s", work, "/", kServerKeyName);
    scnprintf(dst, sizeof dst, "%s%s", mem_dir, kServerKeyName);
    PKEY_CFGMNG_CopyFile2File(src, dst);

    bool complete = true;
    for (unsigned int alg : {PKEY_ALG_RSA, PKEY_ALG_DSA, PKEY_ALG_ECDSA}) {
        const char *name = PKEY_FS_GetDefaultKeyName(alg);
        scnprintf(src, sizeof src, "%s%s%s", work, "/", name);
        scnprintf(dst, sizeof dst, "%s%s", mem_dir, name);
        PKEY_CFGMNG_CopyFile2File(src, dst);
        if (PKEY_FS_CopyPkeyDir(PKEY_FS_GetKeyDir(alg), work, mem_root) == -1) complete = false;
    }
    // A key directory that could not be read whole would leave a memory copy
    // missing keys that is never refreshed: it is taken away again, so that
    // the next fill starts over.
    if (!complete) {
        for (unsigned int alg : {PKEY_ALG_RSA, PKEY_ALG_DSA, PKEY_ALG_ECDSA})
            (void)PKEY_FS_RemovePkeyDir(PKEY_FS_GetKeyDir(alg), mem_root);
        (void)PKEY_FS_RemovePkeyDir("", mem_dir);  // the default key files, then itself
    }
}

}  // extern "C"
