/*
 * pkey_ec.h - ECDSA public keys in their SSH form.
 *
 * The ECDSA key buffer is: string key type ("ecdsa-sha2-nistp256" ...),
 * string curve identifier ("nistp256" ...), string public point (0x04, X, Y),
 * each string a 4-byte big-endian length and its bytes. Only the NIST curves
 * P-192, P-256, P-384 and P-521 are read or written, and only uncompressed
 * points. A point read is fully validated: on the curve, not at infinity,
 * coordinates in range, and of the group's order.
 *
 * Results are newly allocated and belong to the caller (EVP_PKEY_free, free).
 */
#ifndef PKEY_EC_H
#define PKEY_EC_H

#include <openssl/evp.h>

#include "pkey_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Reads the curve identifier and point of an ECDSA key buffer: buf points at
 * the curve identifier's length field, len counts the bytes from there to the
 * end of the buffer (20 to 512). A new key, or NULL. */
PKEY_API EVP_PKEY *PKEY_ReadECDSAPubKey(const unsigned char *buf, unsigned int len) PKEY_NOEXCEPT;
/* The whole ECDSA key buffer of an EC key as one line of Base64; *outLen gets
 * the character count plus one. NULL on failure (*outLen untouched). */
PKEY_API char *PKEY_EC_EcToBase64(EVP_PKEY *pkey, unsigned int *outLen) PKEY_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* PKEY_EC_H */
