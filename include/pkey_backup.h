/*
 * pkey_backup.h - copies of local key files on the device's standby nodes.
 *
 * Real-time backup repeats one key-file write or removal on every standby
 * node as it happens; batch backup makes one standby node's flash key store
 * an exact copy of this node's (absent keys included) and empties its memory
 * key store, which that node refills from flash. Paths of a standby node are
 * its own work directory and memory root as the platform exposes them here.
 */
#ifndef PKEY_BACKUP_H
#define PKEY_BACKUP_H

#include "pkey_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A file operation repeated on each standby node: (data, length, path) ->
 * status. PKEY_FS_WriteDataToVFS has this form; PKEY_FS_RemoveFileFromVFS,
 * whose first two arguments are ignored, is passed with data 0 and length 0. */
typedef int (*PKEY_BACKUP_FILE_OP)(const void *data, unsigned int length, const char *path);

/* 1 if the platform reports the node's status as normal, else 0. */
PKEY_API int PKEY_BACKUP_IsNodeStatusNormal(unsigned int node) PKEY_NOEXCEPT;
/* Runs fileOp on the device copy's name of the key on every standby node;
 * failures are ignored. Does nothing for a key name that contains "/" or is
 * "." or "..": such a name would lead out of the key directory. */
PKEY_API void PKEY_BACKUP_SndRtLocalKey(unsigned int algId, unsigned int length, const void *data,
                                        const char *name, PKEY_BACKUP_FILE_OP fileOp,
                                        unsigned int keyKind) PKEY_NOEXCEPT;
/* Memory clean-up, then the flash copy; returns the flash copy's result,
 * which is that of copying the ECDSA host key (-1 when this node has none). */
PKEY_API int PKEY_BACKUP_Batch(unsigned int node) PKEY_NOEXCEPT;
/* Removes the node's memory key directories; the platform's code if its
 * memory root cannot be resolved, else the result of removing "/pkey/". */
PKEY_API int PKEY_BACKUP_BatchMemProc(unsigned int node) PKEY_NOEXCEPT;
/* Replaces the node's flash key store with a copy of this node's. The
 * platform's code if a work directory cannot be resolved; PKEY_ERR_FAILED
 * (and nothing touched) if the node's work directory is this node's own. */
PKEY_API int PKEY_BACKUP_BatchDevProc(unsigned int node) PKEY_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* PKEY_BACKUP_H */
