/*
 * pkey_pubkey.h - algorithm numbers, the key-size policy and text helpers.
 *
 * The policy has two settings, chosen at every call by asking the crypto
 * service whether FIPS mode is on; nothing is cached, so a change of mode
 * takes effect at the next call. Outside FIPS mode RSA and DSA keys of 512 to
 * 2048 bits and the curves P-192, P-256, P-384 and P-521 are accepted; in FIPS
 * mode only 2048-bit RSA and DSA keys and P-256, P-384 and P-521. The 2048-bit
 * ceiling holds in both modes.
 *
 * The text helpers clean up and convert what an operator typed: blanks, line
 * breaks and hexadecimal key code. They work in place or into the caller's
 * buffer, allocate nothing and never fail with an error code.
 *
 * No function here takes ownership of its arguments.
 */
#ifndef PKEY_PUBKEY_H
#define PKEY_PUBKEY_H

#include <openssl/evp.h>

#include "pkey_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Algorithm numbers and policy ---------------------------------------- */

/* 6 gives PKEY_ALG_RSA, 116 PKEY_ALG_DSA, 408 PKEY_ALG_ECDSA, anything else 4. */
PKEY_API unsigned int PKEY_PUBKEY_GetPkeyAlgIdByEvpId(unsigned int evpType);
/* EVP key type of a pkey alg id (0 for ids 0 and 4; other ids are not accepted). */
PKEY_API int PKEY_PUBKEY_GetEvpAlgIdByPkeyId(unsigned int algId);
/* 1 if the curve is allowed in the current mode, else 0. */
PKEY_API int PKEY_IsValidECDSACurve(int curveNid);
/* The smallest allowed curve: P-256 in FIPS mode, else P-192. */
PKEY_API int PKEY_PUBKEY_GetMinECKeyNid(void);
/* Minimum key size in bits of an algorithm in the current mode; 0 for other ids. */
PKEY_API unsigned int PKEY_PUBKEY_GetMinKeyBits(unsigned int algId);
PKEY_API unsigned int PKEY_PUBKEY_GetMinKeyBitsByEvpAgl(unsigned int evpType);
/* 1 if the key's size or curve is allowed in the current mode, else 0. */
PKEY_API int PKEY_PUBKEY_IsKeyLenValid(const EVP_PKEY *key);
/* Size in bits: RSA modulus, DSA prime p, EC order; 0 for other types. */
PKEY_API unsigned int PKEY_PUBKEY_GetKeyBits(const EVP_PKEY *key);
PKEY_API unsigned int PKEY_PUBKEY_GetPubKeySize(const EVP_PKEY *key);
/* 1 if the key is strong enough for FIPS mode, whatever the current mode. */
PKEY_API int PKEY_PUBKEY_IsKeyMatchFipsMode(const EVP_PKEY *key);
/* The crypto service's switch for the key type's algorithm, unchanged. */
PKEY_API int PKEY_PUBKEY_IsEvpAglEnable(unsigned int evpType);

/* ---- Text, hex and length helpers ---------------------------------------- */

/* Copies src without its blanks (0x20), at most dstSize - 1 characters, always
 * terminated; returns the count written. A dstSize of 0 writes nothing. */
PKEY_API unsigned int PKEY_StrRemoveSpaceCopy(const char *src, unsigned int dstSize, char *dst);
/* Removes every CR and LF in place; returns the new length. */
PKEY_API unsigned int PKEY_RemoveCRLF(char *text);
/* Value 0..15 of a hexadecimal digit; 0 for any other character. */
PKEY_API unsigned char PKEY_HexAsc2Bin(char c);
/* 1 if every character is a hexadecimal digit or a blank (the empty text too). */
PKEY_API int PKEY_IsValidHexString(const char *text);
/* Converts pairs of hex digits into bytes; returns the count, 0 for an odd
 * length or fewer than two digits. out must hold strlen(hex) / 2 bytes. */
PKEY_API unsigned int PKEY_HexStringToHexData(const char *hex, unsigned char *out);
/* Length of the first token up to a separator, counted from the text's start
 * (leading separators included); 0 for an empty text or separators only. */
PKEY_API unsigned int PKEY_LenBeforeSeparator(const char *text, char separator);

#ifdef __cplusplus
}
#endif

#endif /* PKEY_PUBKEY_H */
