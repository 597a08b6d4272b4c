/*
 * pkey_cfgmng.h - the memory mirror of the local key files, and the peer key
 * store in the configuration database.
 *
 * The library reads local key files from a copy in the node's memory
 * directory ("/var/run" + "/pkey/"). The first local key operation that finds
 * that directory missing fills it from the flash work directory: the server
 * key, the three default host keys and the three per-algorithm key
 * directories. Once the directory exists nothing here refreshes it; the
 * writers of key files keep both copies up to date themselves.
 *
 * Peer keys live in the configuration database "PKEY": one record per key,
 * its key the name's characters (no terminator), value type 1, value the DER
 * SubjectPublicKeyInfo. Every single-key operation opens the database, does
 * its work and closes it. Only names of at most 64 characters are listed.
 * In FIPS mode every lookup first purges the keys the mode does not allow;
 * where the platform database counts its changes, a purge examines only the
 * keys written since the last one.
 */
#ifndef PKEY_CFGMNG_H
#define PKEY_CFGMNG_H

#include "pkey_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Fills an absent memory key directory from flash; does nothing when it is
 * present. Copies that fail (a key never made) are skipped silently. */
PKEY_API void PKEY_CFGMNG_UpdateLocKeyMemFiles(void) PKEY_NOEXCEPT;
/* Copies a whole file: 0, PKEY_ERR_FAILED when src cannot be read, or the
 * write's result. */
PKEY_API int PKEY_CFGMNG_CopyFile2File(const char *src, const char *dst) PKEY_NOEXCEPT;

/* ---- Peer key store ------------------------------------------------------ */

/* Open modes of the "PKEY" database used by this library. */
#define PKEY_CFGMNG_MODE_READ 1
#define PKEY_CFGMNG_MODE_DELETE 2
#define PKEY_CFGMNG_MODE_PURGE 3
#define PKEY_CFGMNG_MODE_SAVE 6

/* Size of a name slot in the flat name table (64 characters and a NUL). */
#define PKEY_CFGMNG_NAME_SLOT 65U

/* Links of the sorted name list; the head is a bare link pair. */
typedef struct tagPKEY_NAME_LINK {
    struct tagPKEY_NAME_LINK *pstPrev;
    struct tagPKEY_NAME_LINK *pstNext;
} PKEY_NAME_LINK_S;

/* One name of the sorted list; its link comes first, so a link pointer that
 * is not the head is a node pointer. */
typedef struct tagPKEY_NAME_NODE {
    PKEY_NAME_LINK_S stLink;
    char szName[PKEY_CFGMNG_NAME_SLOT];
} PKEY_NAME_NODE_S;

/* A handle of the "PKEY" database in a mode, or -1. Close with DBM_Close. */
PKEY_API int PKEY_CFGMNG_OpenDBM(int mode) PKEY_NOEXCEPT;
/* Stores (or replaces) the DER of a peer key: PKEY_ERR_FAILED when the
 * database cannot be opened, else the database's result. */
PKEY_API unsigned int PKEY_CFGMNG_Save(const char *name, unsigned int len,
                                       const unsigned char *der) PKEY_NOEXCEPT;
/* Deletes a peer key: 0 when the database cannot be opened, else the
 * database's result. */
PKEY_API unsigned int PKEY_CFGMNG_Delete(const char *name) PKEY_NOEXCEPT;
/* The stored DER of a name (free with free()), its length in *len; NULL when
 * there is none. Runs the FIPS purge first. */
PKEY_API unsigned char *PKEY_CFGMNG_GetPeerPubKeyValue(const char *name,
                                                       unsigned int *len) PKEY_NOEXCEPT;
/* In FIPS mode, deletes every stored key that decodes and is too weak for
 * the mode (those already examined by an earlier purge are known not to be,
 * unless written again since); outside FIPS mode does nothing. */
PKEY_API void PKEY_CFGMNG_DestroyNonFIPSApprovedPeerPubKey(void) PKEY_NOEXCEPT;
/* The names of an open database in table order, in slots of
 * PKEY_CFGMNG_NAME_SLOT bytes (free with free()); NULL when there is none. */
PKEY_API char *PKEY_CFGMNG_GetPeerPubKeyList(int handle, unsigned int *count) PKEY_NOEXCEPT;
/* The names in ascending byte order (equal names in table order) as a
 * circular list with a head; NULL when there is none. Free with
 * PKEY_CFGMNG_DestroySortedPeerKeyNameList. */
PKEY_API PKEY_NAME_LINK_S *PKEY_CFGMNG_GetSortedPeerKeyNameList(int handle,
                                                                unsigned int *count) PKEY_NOEXCEPT;
PKEY_API void PKEY_CFGMNG_DestroySortedPeerKeyNameList(PKEY_NAME_LINK_S *head) PKEY_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* PKEY_CFGMNG_H */
