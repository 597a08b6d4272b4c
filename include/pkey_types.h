/*
 * pkey_types.h - types, values and the status code shared by every pkey module.
 *
 * Every exported function of libpkey either returns 0 for success and
 * PKEY_ERR_FAILED for failure, returns a newly allocated object that the
 * caller owns (or NULL), or is a predicate returning 1 or 0. Keys handed out
 * are OpenSSL EVP_PKEY objects freed with EVP_PKEY_free; buffers and texts
 * are allocated with malloc and freed with free, unless a header names a
 * matching destroy function.
 */
#ifndef PKEY_TYPES_H
#define PKEY_TYPES_H

#ifdef __cplusplus
extern "C" {
#endif

/* Marks a function that libpkey.so exports; everything else is hidden. */
#if defined(__GNUC__)
#define PKEY_API __attribute__((visibility("default")))
#else
#define PKEY_API
#endif

/* No exported function lets an exception out; C++ callers see that in its
 * type, and the compiler and tidy checks hold every definition to it. */
#ifdef __cplusplus
#define PKEY_NOEXCEPT noexcept
#else
#define PKEY_NOEXCEPT
#endif

/* The library's one failure status. */
#define PKEY_ERR_FAILED 0x40010001U

/* pkey alg id: the library's own algorithm number. 4 or more is unsupported. */
#define PKEY_ALG_RESERVE 0U
#define PKEY_ALG_RSA 1U
#define PKEY_ALG_DSA 2U
#define PKEY_ALG_ECDSA 3U
#define PKEY_ALG_UNSUPPORTED 4U

/* key kind: the use of a local key. Kind 0 names a file of the public key directory. */
#define PKEY_KEY_PUBLIC 0U
#define PKEY_KEY_SERVER 64U
#define PKEY_KEY_HOST 128U

/* Curves by OpenSSL NID; no other curve is accepted anywhere. */
#define PKEY_NID_P192 409
#define PKEY_NID_P256 415
#define PKEY_NID_P384 715
#define PKEY_NID_P521 716

/* Every key store path is built in a buffer of this size and cut silently. */
#define PKEY_PATH_LEN 512U

/* Longest local key name kept in a record, and the name field sizes. */
#define PKEY_KEY_NAME_MAX 64U
#define PKEY_KEYGEN_NAME_LEN 68U

/*
 * Key generation request: what PKEY_LOCAL_GenerateKey creates and
 * PKEY_LOCAL_DestroyKey destroys. The layout is fixed (84 bytes).
 */
typedef struct tagPKEY_KEYGEN_REQ {
    unsigned int uiAlgId;                 /* pkey alg id: 1 RSA, 2 DSA, 3 ECDSA */
    unsigned int uiKeyBits;               /* RSA or DSA size; ignored for ECDSA */
    unsigned int uiReserved;              /* filled by callers, never read */
    char szKeyName[PKEY_KEYGEN_NAME_LEN]; /* NUL-terminated; "" is the default key */
    unsigned int uiCurveNid;              /* ECDSA curve; ignored for RSA and DSA */
} PKEY_KEYGEN_REQ_S;

/*
 * The store record: the library's binary form of a whole key pair, the
 * plain content of every local key file.
 *
 *   offset  size  field (integers big-endian)
 *   0       4     record length, digest included
 *   4       4     marker 0xAAAAAAAA
 *   8       1     key kind (set when the key file is written)
 *   9       65    key name (set when the key file is written)
 *   74      2+1+1 creation year, month, day (local time)
 *   78      2+1+1 creation hour, minute, second
 *   82      1     protection: 4 when built in FIPS mode, else 3
 *   83      1     format version 1
 *   84      P     payload: RSA n e d p q dmp1 dmq1 iqmp, DSA p q g y x, each a
 *                 4-byte length and the magnitude; ECDSA the ECPrivateKey DER
 *   ...           zero padding, so that payload bound + digest is a multiple of 8
 *   len-D   D     MD5 (16) or SHA-256 (32) digest of everything before it,
 *                 computed with bytes 8 to 73 zero
 */
#define PKEY_STORE_HEADER_LEN 84U
#define PKEY_STORE_MARKER 0xAAAAAAAAU
#define PKEY_STORE_OFF_LENGTH 0U
#define PKEY_STORE_OFF_MARKER 4U
#define PKEY_STORE_OFF_KIND 8U
#define PKEY_STORE_OFF_NAME 9U
#define PKEY_STORE_NAME_LEN 65U
#define PKEY_STORE_OFF_YEAR 74U
#define PKEY_STORE_OFF_MONTH 76U
#define PKEY_STORE_OFF_DAY 77U
#define PKEY_STORE_OFF_HOUR 78U
#define PKEY_STORE_OFF_MINUTE 80U
#define PKEY_STORE_OFF_SECOND 81U
#define PKEY_STORE_OFF_PROTECTION 82U
#define PKEY_STORE_OFF_VERSION 83U
#define PKEY_STORE_VERSION 1U
#define PKEY_STORE_PROTECT_MD5 3U
#define PKEY_STORE_PROTECT_SHA256 4U

#ifdef __cplusplus
}
#endif

#endif /* PKEY_TYPES_H */
