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
PKEY_API const char *PKEY_FS_GetKeyDir(unsigned int algId);
/* "hostkey", "dsakey", "ecdsakey" for ids 1 to 3; "" otherwise. */
PKEY_API const char *PKEY_FS_GetDefaultKeyName(unsigned int algId);
/* The default key name of a host key, or "serverkey" for every other kind. */
PKEY_API const char *PKEY_FS_GetPKEYDefaultKeyName(unsigned int algId, unsigned int keyKind);
/* 1 when the platform reports no memory alarm, else 0. */
PKEY_API int PKEY_FS_CheckMemStatus(void);
/* Pointer to the ending of str that equals suffix, or NULL. */
PKEY_API const char *PKEY_FS_StrEndString(const char *str, const char *suffix);
/* "/var/run" + the algorithm's key directory; returns the character count. */
PKEY_API int PKEY_FS_GetLocKeyMemDirByAlgId(unsigned int algId, char *out);
/* "/var/run" + "/pkey/"; returns the character count. */
PKEY_API int PKEY_FS_GetPkeyMemDir(char *out);
/* The node's memory root; the platform's result. */
PKEY_API int PKEY_FS_MakeMemFilePrefix(unsigned int node, char *out);
/* The node's flash work directory; the platform's result. */
PKEY_API int PKEY_FS_MakeDevFilePrefix(unsigned int node, char *out);
/* Full file name of a key for a node; returns the count of characters
 * appended after the prefix (0 for an algId of 4 or more, out untouched). */
PKEY_API int PKEY_FS_MakeFullFileName(unsigned int algId, unsigned int keyKind, unsigned int node,
                                      const char *name, PKEY_FS_PREFIX_FN prefixFn, char *out);

#ifdef __cplusplus
}
#endif

#endif /* PKEY_FS_H */
