/*
 * pkey_local.h - the device's own key pairs: generation.
 *
 * Generators hand back a new EVP_PKEY that the caller frees with
 * EVP_PKEY_free, or NULL on any failure: memory alarm raised, unknown type,
 * size out of range, a curve the current mode refuses, or an OpenSSL failure.
 *
 * DSA domain parameters are derived deterministically from the library's
 * fixed seed: every generation of one size, in any process on any machine,
 * uses the same p, q and g. The first generation of a size in a process pays
 * for the parameter search; later ones reuse its result.
 */
#ifndef PKEY_LOCAL_H
#define PKEY_LOCAL_H

#include <openssl/evp.h>

#include "pkey_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Generation ---------------------------------------------------------- */

/* RSA or DSA of 512..2048 bits; ECDSA ignores bits and uses P-256 in FIPS
 * mode, else P-192. */
PKEY_API EVP_PKEY *PKEY_GeneratePKey(int evpType, unsigned int bits);
/* RSA with public exponent 65537. */
PKEY_API EVP_PKEY *PKEY_GenerateRSAKey(unsigned int bits);
/* DSA over the fixed domain parameters of its size (512 to 3072 bits). */
PKEY_API EVP_PKEY *PKEY_GenerateDSAKey(unsigned int bits);
/* ECDSA on a curve that the current mode allows; named-curve encoding. */
PKEY_API EVP_PKEY *PKEY_GenerateECKey(int curveNid);
/* Reserved generator row: always NULL. */
PKEY_API EVP_PKEY *PKEY_LOCAL_GenerateReserve(unsigned int bits);
/* Size of the RSA server key that goes with a host key; 0 for none. */
PKEY_API unsigned int PKEY_LOCAL_GetServerKeyBitsByHostKeyBits(unsigned int hostKeyBits);

#ifdef __cplusplus
}
#endif

#endif /* PKEY_LOCAL_H */
