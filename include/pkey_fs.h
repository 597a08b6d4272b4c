/*
 * pkey_fs.h - names of the key store.
 *
 * Every local key file lives twice: in a node's work directory on flash (the
 * device copy) and in the node's memory directory under "/var/run" (the memory
 * copy). These functions name the per-algorithm key directories, the default
 * key names and the two prefixes of a node, and join them into full file
 * names. Every path is built in a caller's buffer of PKEY_PATH_LEN (512) bytes
 * and cut silently when longer. Returned texts are constants of the library.
 *
 *   host key:          <work>/hostkey           <mem>/pkey/hostkey
 *   server key:        <work>/serverkey         <mem>/pkey/serverkey
 *   named key:         <work>/pkey/rsa/NAME.key <mem>/pkey/rsa/NAME.key
 *   key kind 0 file:   <work>/pkey/publickey/NAME
 *
 * Key files are read and written whole under an exclusive flock, taken right
 * after the open and held until the close; readers and writers alike take
 * it, so a reader never sees a half-written key. What this layer creates is
 * owned by 1:1 (when the process may change owners), directories 0770 and
 * files 0660. A key path that is a symbolic link is never opened: the store
 * does not follow a link planted in place of a key file. Only regular files
 * are opened for a lock, so a FIFO or device at a key path fails at once.
 * A thread is refused a file it already holds locked through this layer,
 * under any name, instead of waiting on its own lock for ever; other threads
 * and processes wait for the lock as usual.
 */
#ifndef PKEY_FS_H
#define PKEY_FS_H

#include "pkey_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Writes the directory prefix of a node into a 512-byte buffer; 0 on success. */
typedef int (*PKEY_FS_PREFIX_FN)(unsigned int node, char *out);

/* "/pkey/rsa/", "/pkey/dsa/", "/pkey/ecdsa/" for ids 1 to 3; "" otherwise. */
PKEY_API const char *PKEY_FS_GetKeyDir(unsigned int algId) PKEY_NOEXCEPT;
/* "hostkey", "dsakey", "ecdsakey" for ids 1 to 3; "" otherwise. */
PKEY_API const char *PKEY_FS_GetDefaultKeyName(unsigned int algId) PKEY_NOEXCEPT;
/* The default key name of a host key, or "serverkey" for every other kind. */
PKEY_API const char *PKEY_FS_GetPKEYDefaultKeyName(unsigned int algId,
                                                   unsigned int keyKind) PKEY_NOEXCEPT;
/* 1 when the platform reports no memory alarm, else 0. */
PKEY_API int PKEY_FS_CheckMemStatus(void) PKEY_NOEXCEPT;
/* Pointer to the ending of str that equals suffix, or NULL. */
PKEY_API const char *PKEY_FS_StrEndString(const char *str, const char *suffix) PKEY_NOEXCEPT;
/* "/var/run" + the algorithm's key directory; returns the character count. */
PKEY_API int PKEY_FS_GetLocKeyMemDirByAlgId(unsigned int algId, char *out) PKEY_NOEXCEPT;
/* "/var/run" + "/pkey/"; returns the character count. */
PKEY_API int PKEY_FS_GetPkeyMemDir(char *out) PKEY_NOEXCEPT;
/* The node's memory root; the platform's result. */
PKEY_API int PKEY_FS_MakeMemFilePrefix(unsigned int node, char *out) PKEY_NOEXCEPT;
/* The node's flash work directory; the platform's result. */
PKEY_API int PKEY_FS_MakeDevFilePrefix(unsigned int node, char *out) PKEY_NOEXCEPT;
/* Full file name of a key for a node; returns the count of characters
 * appended after the prefix (0 for an algId of 4 or more, out untouched). */
PKEY_API int PKEY_FS_MakeFullFileName(unsigned int algId, unsigned int keyKind, unsigned int node,
                                      const char *name, PKEY_FS_PREFIX_FN prefixFn,
                                      char *out) PKEY_NOEXCEPT;

/* ---- Locked files and key directories ------------------------------------ */

/* Opens an existing regular file read-only and locks it; the descriptor or
 * -1 (also for a file the calling thread holds). */
PKEY_API int PKEY_FS_OpenLock(const char *path) PKEY_NOEXCEPT;
/* Makes the file's directories, creates or truncates it (before the lock is
 * taken), sets 0660 and 1:1, locks it; the descriptor or -1. A file that is
 * not regular, or that the calling thread holds, is refused untouched. */
PKEY_API int PKEY_FS_OpenCreateLock(const char *path) PKEY_NOEXCEPT;
/* Unlocks and closes; -1 for fd -1, else close's result. */
PKEY_API int PKEY_FS_CloseUnLock(int fd) PKEY_NOEXCEPT;
/* Creates every directory named by path up to its last "/". 0 or PKEY_ERR_FAILED. */
PKEY_API int PKEY_FS_MakeDir(const char *path) PKEY_NOEXCEPT;
/* 1 for an existing regular file / directory, else 0. */
PKEY_API int PKEY_FS_IsFileExisted(const char *path) PKEY_NOEXCEPT;
PKEY_API int PKEY_FS_IsDirExisted(const char *path) PKEY_NOEXCEPT;
/* The whole file in a new buffer (free with free()), its length in *len;
 * NULL for a missing, empty, unreadable or short-read file. */
PKEY_API void *PKEY_FS_ReadDataFromVFS(const char *path, unsigned int *len) PKEY_NOEXCEPT;
/* Writes len bytes to fd in one write; a short write fails. 0 or PKEY_ERR_FAILED. */
PKEY_API int PKEY_FS_WriteDataToVFSWithFd(const void *buf, unsigned int len, int fd) PKEY_NOEXCEPT;
/* Creates (or truncates) the file and writes it whole under its lock; a
 * failed write leaves no file. 0 or PKEY_ERR_FAILED. */
PKEY_API int PKEY_FS_WriteDataToVFS(const void *buf, unsigned int len,
                                    const char *path) PKEY_NOEXCEPT;
/* Removes a file; a missing file is success. The first two arguments are
 * ignored. 0 or PKEY_ERR_FAILED. */
PKEY_API int PKEY_FS_RemoveFileFromVFS(int ignored1, int ignored2, const char *path) PKEY_NOEXCEPT;
/* Copies a file, the source locked for the whole copy and released last.
 * -1 if the source cannot be opened, else the result of closing it; a
 * destination that is the source itself is left as it is. */
PKEY_API int PKEY_FS_CopyFileByFullName(const char *src, const char *dst) PKEY_NOEXCEPT;
/* Removes the plain files of base + subDir and the directory itself.
 * 0 or PKEY_ERR_FAILED (also for a missing or non-empty directory). */
PKEY_API int PKEY_FS_RemovePkeyDir(const char *subDir, const char *base) PKEY_NOEXCEPT;
/* Copies every file of srcBase + subDir to dstBase + subDir. 0 when the
 * source cannot be opened, -1 when it cannot be read to its end, else the
 * result of closing it. */
PKEY_API int PKEY_FS_CopyPkeyDir(const char *subDir, const char *srcBase,
                                 const char *dstBase) PKEY_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* PKEY_FS_H */
