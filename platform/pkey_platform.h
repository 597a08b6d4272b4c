/*
 * pkey_platform.h - the device platform services that libpkey calls.
 *
 * libpkey calls nothing outside OpenSSL and the C library but these. On a
 * device they come from the device's own platform; on a Linux host they come
 * from libpkey_host.so (see host_platform.h). Texts and buffers a service hands
 * out are described at each declaration; nothing here takes ownership of the
 * caller's memory unless it says so.
 */
#ifndef PKEY_PLATFORM_H
#define PKEY_PLATFORM_H

#include <dirent.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define PLATFORM_API __attribute__((visibility("default")))
/* A service a platform may leave out: libpkey refers to it weakly, so it
 * links without it and, finding it absent, does the same work the long way. */
#define PLATFORM_API_OPTIONAL __attribute__((visibility("default")))
#else
#define PLATFORM_API
#define PLATFORM_API_OPTIONAL
#endif

/* ---------------------------------------------------------------------------
 * Configuration database. Records are kept per database by key text (bytes,
 * no terminator) with a value type and a binary value.
 * Open modes are bit sets: 1 read, 2 delete, 4 write (6 = write and delete).
 * ------------------------------------------------------------------------ */
#define DBM_MODE_READ 1
#define DBM_MODE_DELETE 2
#define DBM_MODE_WRITE 4

#define DBM_OK 0
#define DBM_ERR_PARAM 0x50010001     /* bad handle, argument or open mode */
#define DBM_ERR_NOT_FOUND 0x50010002 /* no record under that key */
#define DBM_ERR_IO 0x50010003        /* the database could not do the work */
#define DBM_ERR_DENIED 0x50010004    /* the handle's mode does not allow it */

typedef struct tagDBM_OPEN_OPTIONS {
    unsigned int uiWord0;
    unsigned int uiWord1;
    unsigned int uiWord2;
    unsigned int uiWord3;
    char szText[16];
} DBM_OPEN_OPTIONS_S;

/* One entry of a key listing. The key text belongs to the iterator. */
typedef struct tagDBM_KEY_ENTRY {
    const char *pcKey; /* not NUL-terminated */
    unsigned int uiKeyLen;
    unsigned int uiReserved1;
    unsigned int uiReserved2;
} DBM_KEY_ENTRY_S;

typedef void *DBM_ITERATOR;

PLATFORM_API int DBM_Open(const char *dbName, const char *tableName, int mode,
                          const DBM_OPEN_OPTIONS_S *options, int *handle);
PLATFORM_API int DBM_Close(int handle);
/* Value length in bytes; below 1 means no record. */
PLATFORM_API int DBM_Len(int handle, const char *key, unsigned int keyLen);
/* Bytes copied into buf (at most size, from offset); below 1 is failure. */
PLATFORM_API int DBM_GetBinary(int handle, const char *key, unsigned int keyLen,
                               unsigned int offset, unsigned int size, void *buf);
/* offset -1 (or 0) replaces the whole value; 0 on success. */
PLATFORM_API int DBM_SetBinary(int handle, const char *key, unsigned int keyLen, int offset,
                               unsigned int len, const void *value, unsigned int valueType);
PLATFORM_API int DBM_DeleteKey(int handle, const char *key, unsigned int keyLen);
PLATFORM_API unsigned int DBM_GetKeyNumByValueType(int handle, unsigned int valueType);
/* Fills at most capacity entries in table order; the texts live until DBM_FreeIterator. */
PLATFORM_API unsigned int DBM_GetKeysByValueType(int handle, unsigned int capacity,
                                                 unsigned int valueType, DBM_ITERATOR *iterator,
                                                 DBM_KEY_ENTRY_S *entries);
PLATFORM_API void DBM_FreeIterator(DBM_ITERATOR iterator);

/* Optional: change tracking, both calls or neither. Each value type of a
 * database has a change counter that goes up by exactly one whenever a record
 * of that type is written (created or replaced) or deleted, by any process,
 * and never goes down; it is kept with the records, so a database restored
 * from a copy brings the counters of that copy. A written record carries the
 * counter's new value as its stamp. Without these calls, libpkey's FIPS purge
 * examines every peer key before each lookup instead of only what changed. */
typedef unsigned long long DBM_STAMP;
/* The counter of valueType's records (0 before any change): DBM_OK, or an
 * error when this database does not track its changes. Needs read access. */
PLATFORM_API_OPTIONAL int DBM_GetChangeStamp(int handle, unsigned int valueType, DBM_STAMP *stamp);
/* Lists, in stamp order, at most capacity keys of valueType's records whose
 * stamp is above since, as DBM_GetKeysByValueType does (the caller frees the
 * iterator, filled or not); *last receives the stamp of the last key listed
 * (since when none). Returns the number listed, or -1 when the database could
 * not list them. Fewer than capacity means none are left. */
PLATFORM_API_OPTIONAL int DBM_GetKeysChangedSince(int handle, DBM_STAMP since,
                                                  unsigned int capacity, unsigned int valueType,
                                                  DBM_ITERATOR *iterator, DBM_KEY_ENTRY_S *entries,
                                                  DBM_STAMP *last);

/* ---------------------------------------------------------------------------
 * Device service: node identity, slots, standby nodes and node status.
 * ------------------------------------------------------------------------ */
#define DEV_STATUS_NORMAL 1

PLATFORM_API unsigned short DEV_GetSelf(void);
PLATFORM_API unsigned int DEV_GetSelfSlot(void);
/* malloc'd array of standby node numbers (caller frees), NULL when there is none. */
PLATFORM_API unsigned short *DEV_GetAllStandbyNodes(unsigned int *count);
/* 0 on success with *status filled (1 normal). mask is always 0xFFFF. */
PLATFORM_API int DEV_GetDeviceStatusEx(unsigned int node, unsigned int mask, int *status);

/* ---------------------------------------------------------------------------
 * File-system service. Every directory written has no trailing "/" and is
 * NUL-terminated within size; 0 is success.
 * ------------------------------------------------------------------------ */
#define FS_DEVICE_NAME_LEN 32U
#define FS_DIR_NAME_LEN 512U
#define FS_FILE_NAME_LEN 256U

PLATFORM_API int FS_GetNodeDefaultWorkDir(unsigned int node, unsigned int size, char *out);
PLATFORM_API int FS_GetLocalDefaultWorkDir(unsigned int size, char *out);
PLATFORM_API int FS_GetDefaultWorkDirBySlot(unsigned int slot, unsigned int size, char *out);
/* Resolves a node-relative path (such as the memory root "/var/run") for a node. */
PLATFORM_API int FS_GetNodePathName(const char *path, unsigned int node, unsigned int size,
                                    char *out);
/*
 * Splits a full file name into its storage device, two location numbers and
 * the directory and file parts on that device. Outputs must hold
 * FS_DEVICE_NAME_LEN, FS_DIR_NAME_LEN and FS_FILE_NAME_LEN bytes. 0 on success.
 */
PLATFORM_API int FS_AnalyseFileName(const char *fullName, unsigned short *location1,
                                    unsigned short *location2, char *device, char *dir, char *file);
/* 0 when the text is a well-formed full file name that a user file operation
 * may use; a platform may refuse names of its own files. */
PLATFORM_API int FS_IsValidFullFileName(const char *fullName, unsigned int mode, unsigned int flags,
                                        unsigned int reserved);

/* ---------------------------------------------------------------------------
 * Crypto service and the key-file cipher.
 * ------------------------------------------------------------------------ */
#define CRYPTO_ALG_MD5 59U
#define CRYPTO_ALG_SHA256 62U
#define CRYPTO_ALG_RSA 83U
#define CRYPTO_ALG_DSA 84U
#define CRYPTO_ALG_ECDSA 85U
#define CRYPTO_ALG_OTHER 93U

/* 1 when FIPS mode is on. */
PLATFORM_API int CRYPTO_FIPSIsEnabled(void);
/* 1 when the algorithm is allowed; anything else means disabled. */
PLATFORM_API int CRYPTO_AlgoIsEnabled(unsigned int algCode);

/*
 * Key-file cipher. Encrypt writes at most inLen + 19 bytes and returns 0, or
 * a non-zero error code. Decrypt takes a whole enciphered region (trailing
 * unused bytes included) and returns the plain length, 0 on any failure.
 */
#define PKEY_CIPHER_OVERHEAD 19U
PLATFORM_API unsigned int PKEY_Encrypt(unsigned int inLen, const void *in, unsigned int outCap,
                                       void *out);
PLATFORM_API unsigned int PKEY_Decrypt(unsigned int inLen, const void *in, unsigned int outCap,
                                       void *out);

/* ---------------------------------------------------------------------------
 * Memory alarm and message texts.
 * ------------------------------------------------------------------------ */
/* 0 when memory is normal. */
PLATFORM_API int Mem_Alert_GetCurrentState(void);
/* Text of a message number; never NULL (an unknown number gives ""). */
PLATFORM_API const char *RC_LoadString(unsigned int messageId);

/* ---------------------------------------------------------------------------
 * System helpers beyond POSIX. None is a name of the C library or of its
 * usual companions (libbsd); strlcpy, which those have, is never called.
 * ------------------------------------------------------------------------ */
/* Bounded formatting; returns the number of characters stored (0 when size is 0). */
PLATFORM_API int scnprintf(char *buf, size_t size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
/* Lower-cases text in place and returns it. */
PLATFORM_API char *lowercase(char *text);
/* Frees a scandir list of count entries; returns 0. */
PLATFORM_API int freedir(struct dirent **list, int count);

#ifdef __cplusplus
}
#endif

#endif /* PKEY_PLATFORM_H */
