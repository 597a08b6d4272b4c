/*
 * pkey_local.h - the device's own key pairs: generation, key files, lookup,
 * checks, creation and replacement.
 *
 * Generators hand back a new EVP_PKEY that the caller frees with
 * EVP_PKEY_free, or NULL on any failure: memory alarm raised, unknown type,
 * size out of range, a curve the current mode refuses, or an OpenSSL failure.
 *
 * A key file is the store record (pkey_pubkey.h) with its body enciphered by
 * the platform's key-file cipher: the 84-byte header stays plain and the file
 * is the record length + 19 bytes long. Each key has two copies with the same
 * bytes, in the node's memory directory and in its flash work directory; the
 * memory copy is written first, and a failure of either write removes both.
 * Only the memory copy is ever read. After a successful write the file image
 * goes to every standby node. The protection byte of the record says how the
 * body is kept: 0 or 1 plain, 3 enciphered with an MD5 digest, 4 enciphered
 * with a SHA-256 digest; 2 is never written. In FIPS mode only 4 is read.
 *
 * Status results are 0 for success and PKEY_ERR_FAILED for failure unless a
 * function says it passes another code on. Keys and records handed out
 * belong to the caller.
 *
 * Key names never lead out of their key directory: every function that turns
 * a key name into a file name refuses a name that contains "/" or is "." or
 * "..", with its ordinary failure result (PKEY_ERR_FAILED, NULL, 0, or a
 * record without a key), before any file is touched or any key generated.
 * The memory and device copies of a key must be two files: a write or a
 * destroy that finds one file under both names fails and touches neither.
 *
 * DSA domain parameters are derived deterministically from the library's
 * fixed seed: every generation of one size, in any process on any machine,
 * uses the same p, q and g. The first generation of a size in a process pays
 * for the parameter search; later ones reuse its result.
 */
#ifndef PKEY_LOCAL_H
#define PKEY_LOCAL_H

#include <dirent.h>

/* These structures hold struct dirent, whose layout on a 32-bit glibc system
 * depends on large-file and 64-bit time support: a program that uses them is
 * built as the library is ("pkg-config --cflags pkey" and the CMake package
 * pass both definitions). */
#if defined(__GLIBC__) && __SIZEOF_LONG__ == 4
#if !defined(_FILE_OFFSET_BITS) || _FILE_OFFSET_BITS != 64
#error "pkey: build with -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64"
#endif
#if __GLIBC_PREREQ(2, 34) && (!defined(_TIME_BITS) || _TIME_BITS != 64)
#error "pkey: build with -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64"
#endif
#endif

#include <openssl/evp.h>

#include "pkey_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Generation ---------------------------------------------------------- */

/* RSA or DSA of 512..2048 bits; ECDSA ignores bits and uses P-256 in FIPS
 * mode, else P-192. */
PKEY_API EVP_PKEY *PKEY_GeneratePKey(int evpType, unsigned int bits) PKEY_NOEXCEPT;
/* RSA with public exponent 65537. */
PKEY_API EVP_PKEY *PKEY_GenerateRSAKey(unsigned int bits) PKEY_NOEXCEPT;
/* DSA over the fixed domain parameters of its size (512 to 3072 bits). */
PKEY_API EVP_PKEY *PKEY_GenerateDSAKey(unsigned int bits) PKEY_NOEXCEPT;
/* ECDSA on a curve that the current mode allows; named-curve encoding. */
PKEY_API EVP_PKEY *PKEY_GenerateECKey(int curveNid) PKEY_NOEXCEPT;
/* Reserved generator row: always NULL. */
PKEY_API EVP_PKEY *PKEY_LOCAL_GenerateReserve(unsigned int bits) PKEY_NOEXCEPT;
/* Size of the RSA server key that goes with a host key; 0 for none. */
PKEY_API unsigned int PKEY_LOCAL_GetServerKeyBitsByHostKeyBits(unsigned int hostKeyBits)
    PKEY_NOEXCEPT;

/* ---- Records handed out ------------------------------------------------- */

/* A key read from its key file with the creation time of its record. Free
 * with PKEY_LOCAL_DestoryEvpkeyWithTime. */
typedef struct tagPKEY_KEY_WITH_TIME {
    EVP_PKEY *pstKey; /* owned by the record */
    char szTime[9];   /* "HH:MM:SS" */
    char szDate[11];  /* "YYYY/MM/DD" */
} PKEY_KEY_WITH_TIME_S;

/* Flags of a local key info record. */
#define PKEY_INFO_NEXT_SERVER 0x1U /* the next step of an enumeration is the server key */
#define PKEY_INFO_NEXT_DIR 0x2U    /* the next step reads the key directory */
#define PKEY_INFO_HAS_KEY 0x10U    /* the record describes a key that could be read */

/* Description of one local key for display. Free with
 * PKEY_LOCAL_DestroyLocalKeyInfo. */
typedef struct tagPKEY_LOCAL_KEY_INFO {
    unsigned int uiAlgId; /* pkey alg id; 4 when no key was read */
    unsigned int uiBits;
    char szName[65];            /* key name, or default name + "(default)" */
    char szTime[21];            /* "HH:MM:SS YYYY/MM/DD" */
    char *pcPubKeyText;         /* owned: DER public key as key-code text */
    struct dirent *pstPosition; /* the enumeration's entry buffer, or NULL */
    unsigned int uiFlags;       /* PKEY_INFO_* */
} PKEY_LOCAL_KEY_INFO_S;

/* ---- Key files ----------------------------------------------------------- */

/* Saves a caller's key pair as a named host key of its algorithm; the name
 * must not be empty, "." or "..", nor contain "/". The caller keeps the key. */
PKEY_API int PKEY_SaveLocalKey(const char *name, EVP_PKEY *key) PKEY_NOEXCEPT;
/* Builds the record of key, stamps kind and name (cut to 64 characters) and
 * writes the key file; 0 or the writer's code. */
PKEY_API int PKEY_LOCAL_SaveLocalKey(unsigned int algId, unsigned int keyKind, EVP_PKEY *key,
                                     const char *name) PKEY_NOEXCEPT;
/* Writes a record as key file: memory copy, device copy, then the standby
 * nodes. 0, PKEY_ERR_FAILED, or the cipher's or writer's own code.
 * PKEY_ERR_FAILED, nothing written, for a name that would leave the key
 * directory or when the two copies' names lead to one existing file. */
PKEY_API int PKEY_LOCAL_WriteKeyBufToDev(unsigned int algId, unsigned int keyKind,
                                         const unsigned char *record, unsigned int len,
                                         const char *name) PKEY_NOEXCEPT;
/* The plain record of a key, read from the memory copy and deciphered (free
 * with free()), its length in *len; NULL on any failure, a name that would
 * leave the key directory included. Every lookup below reads through it. */
PKEY_API unsigned char *PKEY_LOCAL_ReadKeyToBuf(unsigned int algId, unsigned int keyKind,
                                                const char *name, unsigned int *len) PKEY_NOEXCEPT;
/* Deciphers a key file image of inLen bytes into out (cap bytes; may be the
 * same buffer as in); 0 or PKEY_ERR_FAILED. */
PKEY_API int PKEY_LOCAL_DecryptPKey(unsigned int inLen, const unsigned char *in, unsigned int cap,
                                    unsigned char *out, unsigned int *outLen) PKEY_NOEXCEPT;
/* Integrity check of a plain record: length, protection, digest, marker.
 * 1 if sound, else 0; the protection byte goes to *protection when given. */
PKEY_API int PKEY_LOCAL_GetKeyStatusFromDataBuf(unsigned char *record, unsigned int len,
                                                unsigned char *protection) PKEY_NOEXCEPT;
/* A checked key with its creation time, or NULL. */
PKEY_API PKEY_KEY_WITH_TIME_S *PKEY_LOCAL_ReadKeyToEvpPkey(unsigned int algId, unsigned int keyKind,
                                                           const char *name) PKEY_NOEXCEPT;
PKEY_API void PKEY_LOCAL_DestoryEvpkeyWithTime(PKEY_KEY_WITH_TIME_S *keyWithTime) PKEY_NOEXCEPT;
PKEY_API void PKEY_LOCAL_DestroyLocalKeyInfo(PKEY_LOCAL_KEY_INFO_S *info) PKEY_NOEXCEPT;

/* ---- Names, lookup and checks -------------------------------------------- */

/* 1 for an ASCII letter, digit or '-', else 0. */
PKEY_API int PKEY_LOCAL_IsKeyNameCharValid(int c) PKEY_NOEXCEPT;
/* 0 for a non-empty name of valid characters, else PKEY_ERR_FAILED. */
PKEY_API int PKEY_CheckLocalKeyName(const char *name) PKEY_NOEXCEPT;
/* Replaces every invalid character of name by '-', in place. */
PKEY_API void PKEY_AdjustLocalKeyNameToValid(char *name) PKEY_NOEXCEPT;
/* A stored key of (algorithm, kind, name) that passes its integrity check,
 * or NULL. The empty name is the default key of the kind. */
PKEY_API EVP_PKEY *PKEY_LOCAL_GetLocKey(unsigned int algId, unsigned char keyKind,
                                        const char *name) PKEY_NOEXCEPT;
/* The host key (or named key pair) of an EVP key type, or NULL. */
PKEY_API EVP_PKEY *PKEY_GetHostKey(int evpType, const char *name) PKEY_NOEXCEPT;
/* The RSA server key, or NULL (also for any type but RSA). */
PKEY_API EVP_PKEY *PKEY_GetServerKey(int evpType, const char *name) PKEY_NOEXCEPT;
/* 1 if the memory copy of the host key exists as a regular file, else 0 (also
 * for a name that would leave the key directory). */
PKEY_API int PKEY_LOCAL_IsKeyExist(unsigned int algId, const char *name) PKEY_NOEXCEPT;
PKEY_API int PKEY_IsKeyExist(int evpType, const char *name) PKEY_NOEXCEPT;
/* Cuts ".key" off a key file name in place: 0, or PKEY_ERR_FAILED when the
 * name does not end in ".key" (left unchanged). */
PKEY_API int PKEY_LOCAL_GetLocalKeyName(char *fileName) PKEY_NOEXCEPT;
/* 0 if a user file operation may use this full file name, PKEY_ERR_FAILED if
 * it reaches the key store. The last three arguments go to the platform's
 * file-name check. */
PKEY_API int PKEY_LOCAL_CheckFullFileName(const char *fullName, unsigned int mode,
                                          unsigned int flags, unsigned int reserved) PKEY_NOEXCEPT;
/* Removes every stored key file under storagePath (a key store path ending
 * in "/", such as "<work>/pkey/") that can be read and that the FIPS policy
 * refuses: not SHA-256 protected, too small, or on a refused curve. Returns
 * the result of the ECDSA sweep. */
PKEY_API int PKEY_DestroyNonFIPSApprovedKeyPairs(const char *storagePath) PKEY_NOEXCEPT;

/* ---- Creating and replacing ---------------------------------------------- */

/* Generates one key pair and saves it under (algorithm, kind, name); a name
 * that would leave the key directory fails before anything is generated. */
PKEY_API int PKEY_LOCAL_GenerateOneKey(unsigned int algId, int curveNid, unsigned int keyKind,
                                       unsigned int bits, const char *name) PKEY_NOEXCEPT;
/* Generates the host key of a request and, for the default RSA host key
 * outside FIPS mode, its server key (whose failure is not reported). */
PKEY_API int PKEY_LOCAL_GenerateKey(const PKEY_KEYGEN_REQ_S *request) PKEY_NOEXCEPT;
/* Makes a new RSA server key the size of the old one (or derived from the
 * host key's size when there is none). */
PKEY_API int PKEY_UpdateServerKey(int evpType, const char *name) PKEY_NOEXCEPT;
/* Stores a caller's key pair as the default host key of its algorithm. */
PKEY_API int PKEY_SaveHostKey(EVP_PKEY *key) PKEY_NOEXCEPT;
/* Stores a caller's key pair as the server key file, whatever its algorithm. */
PKEY_API int PKEY_SaveServerKey(EVP_PKEY *key) PKEY_NOEXCEPT;

/* ---- Enumeration and public key export ------------------------------------ */

/* Export forms of a public key. RSA has all three; DSA and ECDSA SSH2 and
 * OpenSSH only. */
#define PKEY_EXPORT_SSH1 0U
#define PKEY_EXPORT_SSH2 1U
#define PKEY_EXPORT_OPENSSH 2U

/* State of one enumeration of an algorithm's local keys. */
typedef struct tagPKEY_LOCAL_NEXT_HANDLE {
    unsigned int uiAlgId;
    DIR *pstDir;             /* the memory key directory, NULL if it could not be opened */
    struct dirent *pstEntry; /* the entry buffer the records' positions point at */
} PKEY_LOCAL_NEXT_HANDLE_S;

/* Enumeration: GetNextInit, GetFirst (the default host key), then GetNext with
 * the last record until it returns NULL (for RSA the server key comes second,
 * then every file of the key directory), then GetNextFinal. Every record is
 * the caller's (PKEY_LOCAL_DestroyLocalKeyInfo); one without
 * PKEY_INFO_HAS_KEY stands for a missing or unreadable key. GetNext's NULL
 * leaves errno 0 at the end of the listing and sets it when the key directory
 * could not be read on: the listing is then incomplete, not finished. */
PKEY_API PKEY_LOCAL_NEXT_HANDLE_S *PKEY_LOCAL_GetNextInit(unsigned int algId) PKEY_NOEXCEPT;
PKEY_API PKEY_LOCAL_KEY_INFO_S *PKEY_LOCAL_GetFirst(PKEY_LOCAL_NEXT_HANDLE_S *handle) PKEY_NOEXCEPT;
PKEY_API PKEY_LOCAL_KEY_INFO_S *PKEY_LOCAL_GetNext(PKEY_LOCAL_NEXT_HANDLE_S *handle,
                                                   PKEY_LOCAL_KEY_INFO_S *previous) PKEY_NOEXCEPT;
PKEY_API void PKEY_LOCAL_GetNextFinal(PKEY_LOCAL_NEXT_HANDLE_S *handle) PKEY_NOEXCEPT;
PKEY_API void PKEY_LOCAL_DestoryNextHandle(PKEY_LOCAL_NEXT_HANDLE_S *handle) PKEY_NOEXCEPT;
/* Describes one stored key; NULL only when memory runs out. */
PKEY_API PKEY_LOCAL_KEY_INFO_S *PKEY_LOCAL_GetLocPubKeyInfo(unsigned int algId,
                                                            unsigned int keyKind,
                                                            const char *name) PKEY_NOEXCEPT;
/* The public key of a host key (or named key pair) in an export form, as
 * text ending in CR LF (free with free()); NULL for a refused pair of
 * algorithm and form or a missing key. */
PKEY_API char *PKEY_LOCAL_GetPubKeyValue(unsigned int algId, unsigned int format,
                                         const char *name) PKEY_NOEXCEPT;
/* Prints that text followed by CR LF on standard output when file is "",
 * else writes it to file. 0, PKEY_ERR_FAILED or the writer's code. */
PKEY_API int PKEY_LOCAL_ExportPubKey(unsigned int algId, const char *name, unsigned int format,
                                     const char *file) PKEY_NOEXCEPT;
/* Writers of the three forms (rows of g_apfPKEYAppendBuf): append to buf of
 * size bytes; 0, or PKEY_ERR_FAILED for an SSH1 key of size 0. */
PKEY_API unsigned int PKEY_LOCAL_AppendBufFromSSH1(unsigned int algId, EVP_PKEY *key,
                                                   const char *body, const char *date,
                                                   unsigned int size, char *buf) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_LOCAL_AppendBufFromSSH2(unsigned int algId, EVP_PKEY *key,
                                                   const char *body, const char *date,
                                                   unsigned int size, char *buf) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_LOCAL_AppendBufFromOPENSSH(unsigned int algId, EVP_PKEY *key,
                                                      const char *body, const char *date,
                                                      unsigned int size, char *buf) PKEY_NOEXCEPT;

/* ---- Destroying ---------------------------------------------------------- */

/* Removes both copies of one key file, each under its own lock (memory
 * first), and tells the standby nodes when the device copy went. A key that
 * is not there is no error. PKEY_ERR_FAILED, nothing removed, for a name that
 * would leave the key directory or when both copies' names lead to one
 * existing file. */
PKEY_API int PKEY_LOCAL_DestroyOneKey(unsigned int algId, unsigned int keyKind,
                                      const char *name) PKEY_NOEXCEPT;
/* Destroys the host key of a request; the default RSA host key takes its
 * server key with it. */
PKEY_API int PKEY_LOCAL_DestroyKey(const PKEY_KEYGEN_REQ_S *request) PKEY_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* PKEY_LOCAL_H */
