// Destroying local keys: both copies of a key file, the standby nodes' copies,
// and the RSA server key with the default RSA host key.
#include <cstring>

#include "pkey_backup.h"
#include "pkey_cfgmng.h"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_local_internal.hpp"
#include "pkey_platform.h"
#include "pkey_util.hpp"

namespace {

// The removal in the form the standby backup repeats on every node.
int remove_on_node(const void * /*data*/, unsigned int /*length*/, const char *path) {
    return PKEY_FS_RemoveFileFromVFS(0, 0, path);
}

}  // namespace

extern "C" {

int PKEY_LOCAL_DestroyOneKey(unsigned int algId, unsigned int keyKind, const char *name) noexcept {
    if (name == nullptr || pkey::is_escaping_key_name(name)) return PKEY_ERR_FAILED;
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    const unsigned int node = DEV_GetSelf();
    int result = 0;

    char mem[PKEY_PATH_LEN] = "";
    char dev[PKEY_PATH_LEN] = "";
    PKEY_FS_MakeFullFileName(algId, keyKind, node, name, PKEY_FS_MakeMemFilePrefix, mem);
    PKEY_FS_MakeFullFileName(algId, keyKind, node, name, PKEY_FS_MakeDevFilePrefix, dev);
    // One file under both names is no pair of copies: the device open would
    // be refused as a file this thread already holds, and the key would stay
    // on flash while the call reported it gone.
    if (pkey::local::same_existing_file(mem, dev)) return PKEY_ERR_FAILED;

    // Each copy is removed while its own lock is held, so no reader is half
    // way through it; the memory lock is held until the device copy is gone.
    const int mem_fd = PKEY_FS_OpenLock(mem);
    if (mem_fd != -1 && PKEY_FS_RemoveFileFromVFS(0, 0, mem) != 0) result = PKEY_ERR_FAILED;

    const int dev_fd = PKEY_FS_OpenLock(dev);
    if (dev_fd != -1) {
        if (PKEY_FS_RemoveFileFromVFS(0, 0, dev) != 0) {
            result = PKEY_ERR_FAILED;
        } else {
            // Standby nodes hear of it only when the device copy went.
            PKEY_BACKUP_SndRtLocalKey(algId, 0, nullptr, name, remove_on_node, keyKind);
        }
        PKEY_FS_CloseUnLock(dev_fd);
    }
    PKEY_FS_CloseUnLock(mem_fd);
    return result;
}

int PKEY_LOCAL_DestroyKey(const PKEY_KEYGEN_REQ_S *request) noexcept {
    if (request == nullptr) return PKEY_ERR_FAILED;
    char name[PKEY_KEYGEN_NAME_LEN];
    pkey::local::request_name(*request, name);
    int r = PKEY_LOCAL_DestroyOneKey(request->uiAlgId, PKEY_KEY_HOST, name);
    // The default RSA host key takes its server key with it, in FIPS mode too.
    if (request->uiAlgId == PKEY_ALG_RSA && name[0] == '\0')
        r |= PKEY_LOCAL_DestroyOneKey(PKEY_ALG_RSA, PKEY_KEY_SERVER, "");
    return r == 0 ? 0 : PKEY_ERR_FAILED;
}

}  // extern "C"
