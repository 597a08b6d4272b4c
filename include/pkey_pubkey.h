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
 * The store record, the library's binary form of a whole key pair, is laid
 * out in pkey_types.h; the functions here build it and turn it back into a
 * key.
 *
 * Functions that build something return it newly allocated (free with
 * free(), or EVP_PKEY_free for keys); no function here takes ownership of its
 * arguments.
 */
#ifndef PKEY_PUBKEY_H
#define PKEY_PUBKEY_H

#include <openssl/bn.h>
#include <openssl/evp.h>

#include "pkey_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Algorithm numbers and policy ---------------------------------------- */

/* The policy's key sizes in bits. RSA and DSA: at least PKEY_RSA_DSA_MIN_BITS
 * outside FIPS mode and PKEY_RSA_DSA_FIPS_MIN_BITS in it, never more than
 * PKEY_RSA_DSA_MAX_BITS; the generator makes exactly the sizes from
 * PKEY_RSA_DSA_MIN_BITS to PKEY_RSA_DSA_MAX_BITS. ECDSA: the curve order's
 * size, at least PKEY_EC_MIN_BITS (P-192) outside FIPS mode and
 * PKEY_EC_FIPS_MIN_BITS (P-256) in it. */
#define PKEY_RSA_DSA_MIN_BITS 512U
#define PKEY_RSA_DSA_FIPS_MIN_BITS 2048U
#define PKEY_RSA_DSA_MAX_BITS 2048U
#define PKEY_EC_MIN_BITS 192U
#define PKEY_EC_FIPS_MIN_BITS 256U

/* 6 gives PKEY_ALG_RSA, 116 PKEY_ALG_DSA, 408 PKEY_ALG_ECDSA, anything else 4. */
PKEY_API unsigned int PKEY_PUBKEY_GetPkeyAlgIdByEvpId(unsigned int evpType) PKEY_NOEXCEPT;
/* EVP key type of a pkey alg id (0 for ids 0 and 4; other ids are not accepted). */
PKEY_API int PKEY_PUBKEY_GetEvpAlgIdByPkeyId(unsigned int algId) PKEY_NOEXCEPT;
/* 1 if the curve is allowed in the current mode, else 0. */
PKEY_API int PKEY_IsValidECDSACurve(int curveNid) PKEY_NOEXCEPT;
/* The smallest allowed curve: P-256 in FIPS mode, else P-192. */
PKEY_API int PKEY_PUBKEY_GetMinECKeyNid(void) PKEY_NOEXCEPT;
/* Minimum key size in bits of an algorithm in the current mode; 0 for other ids. */
PKEY_API unsigned int PKEY_PUBKEY_GetMinKeyBits(unsigned int algId) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_GetMinKeyBitsByEvpAgl(unsigned int evpType) PKEY_NOEXCEPT;
/* 1 if the key's size or curve is allowed in the current mode, else 0. */
PKEY_API int PKEY_PUBKEY_IsKeyLenValid(const EVP_PKEY *key) PKEY_NOEXCEPT;
/* Size in bits: RSA modulus, DSA prime p, EC order; 0 for other types. */
PKEY_API unsigned int PKEY_PUBKEY_GetKeyBits(const EVP_PKEY *key) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_GetPubKeySize(const EVP_PKEY *key) PKEY_NOEXCEPT;
/* 1 if the key is strong enough for FIPS mode, whatever the current mode. */
PKEY_API int PKEY_PUBKEY_IsKeyMatchFipsMode(const EVP_PKEY *key) PKEY_NOEXCEPT;
/* The crypto service's switch for the key type's algorithm, unchanged. */
PKEY_API int PKEY_PUBKEY_IsEvpAglEnable(unsigned int evpType) PKEY_NOEXCEPT;
/* 1 if the public key could belong to a real key pair of its algorithm, else
 * 0: RSA needs an odd modulus n and an odd exponent e with 3 <= e < n; DSA
 * needs 1 < g < p - 1 and 1 < y < p - 1 with g^q = y^q = 1 (mod p); EC needs
 * a point of its named curve other than the point at infinity. Such a key
 * says nothing about its size: the policy above does that. */
PKEY_API int PKEY_PUBKEY_IsPublicKeyPossible(const EVP_PKEY *key) PKEY_NOEXCEPT;

/* ---- Text, hex and length helpers ---------------------------------------- */

/* Copies src without its blanks (0x20), at most dstSize - 1 characters, always
 * terminated; returns the count written. A dstSize of 0 writes nothing. */
PKEY_API unsigned int PKEY_StrRemoveSpaceCopy(const char *src, unsigned int dstSize,
                                              char *dst) PKEY_NOEXCEPT;
/* Removes every CR and LF in place; returns the new length. */
PKEY_API unsigned int PKEY_RemoveCRLF(char *text) PKEY_NOEXCEPT;
/* Value 0..15 of a hexadecimal digit; 0 for any other character. */
PKEY_API unsigned char PKEY_HexAsc2Bin(char c) PKEY_NOEXCEPT;
/* 1 if every character is a hexadecimal digit or a blank (the empty text too). */
PKEY_API int PKEY_IsValidHexString(const char *text) PKEY_NOEXCEPT;
/* Converts pairs of hex digits into bytes; returns the count, 0 for an odd
 * length or fewer than two digits. Takes no size: out must hold
 * strlen(hex) / 2 bytes, so bound the text's length first. */
PKEY_API unsigned int PKEY_HexStringToHexData(const char *hex, unsigned char *out) PKEY_NOEXCEPT;
/* Length of the first token up to a separator, counted from the text's start
 * (leading separators included); 0 for an empty text or separators only. */
PKEY_API unsigned int PKEY_LenBeforeSeparator(const char *text, char separator) PKEY_NOEXCEPT;

/* ---- Length prefixes and the store record -------------------------------- */

/* Writes len big-endian at *cursor, advances *cursor by 4 and returns it.
 * Takes no size: *cursor must have room for 4 bytes. */
PKEY_API unsigned char *PKEY_PutLenToBuf(unsigned int len, unsigned char **cursor) PKEY_NOEXCEPT;
/* Reads the big-endian 32-bit value at data into *lenOut; returns data + 4.
 * Takes no size: data must hold 4 readable bytes, and the value read is not
 * checked against anything. */
PKEY_API const unsigned char *PKEY_GetLengthFromData(const unsigned char *data,
                                                     unsigned int *lenOut) PKEY_NOEXCEPT;

/* Builds the store record of a key pair; *lenOut gets its length. NULL on
 * failure (*lenOut untouched). Free the record with free(). */
PKEY_API unsigned char *PKEY_PUBKEY_ConvertKeyToStoreBuf(EVP_PKEY *key,
                                                         unsigned int *lenOut) PKEY_NOEXCEPT;
/* Turns a record back into a key pair of the given pkey alg id; NULL on
 * failure. The record's digest is not checked here: the key file reader
 * checks it before a record reaches this function. */
PKEY_API EVP_PKEY *PKEY_PUBKEY_ConvertStoreBufToKey(unsigned int algId, const unsigned char *record,
                                                    unsigned int recordLen) PKEY_NOEXCEPT;

/* Payload bound of a key per algorithm (rows of g_apfPKEYGetAlgStoreLen). */
PKEY_API unsigned int PKEY_PUBKEY_GetStoreLenFromEvpReserve(EVP_PKEY *key) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_GetRSAStoreLenFromEvp(EVP_PKEY *key) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_GetDSAStoreLenFromEvp(EVP_PKEY *key) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_GetECDSAStoreLenFromEvp(EVP_PKEY *key) PKEY_NOEXCEPT;
/* Payload writers per algorithm (rows of g_apfPKEYConvertKeyToStoreBuf):
 * write at payload, store the count written, return 0 or PKEY_ERR_FAILED.
 * They take no size: payload must hold the row's bound for the same key. */
PKEY_API unsigned int PKEY_PUBKEY_ConvertKeyToStoreBufReserve(EVP_PKEY *key, unsigned int *written,
                                                              unsigned char *payload) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_ConvertRSAKeyToStoreBuf(EVP_PKEY *key, unsigned int *written,
                                                          unsigned char *payload) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_ConvertDSAKeyToStoreBuf(EVP_PKEY *key, unsigned int *written,
                                                          unsigned char *payload) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_ConvertECDSAKeyToStoreBuf(EVP_PKEY *key, unsigned int *written,
                                                            unsigned char *payload) PKEY_NOEXCEPT;
/* Writes one component (length, magnitude without sign byte) at *cursor,
 * advances it and adds 4 + length to *total. Takes no size: *cursor must have
 * room for 4 + BN_num_bytes(bn) bytes. */
PKEY_API void PKEY_PUBKEY_FillBN2StoreBuf(const BIGNUM *bn, unsigned char **cursor,
                                          unsigned int *total) PKEY_NOEXCEPT;
/* Reads one component at *cursor within *remaining bytes into *bnOut (NULL
 * when absent or truncated; *remaining is then 0). */
PKEY_API void PKEY_PUBKEY_GetBNFromBuf(const unsigned char **cursor, unsigned int *remaining,
                                       BIGNUM **bnOut) PKEY_NOEXCEPT;
/* DER as key-code display text: "\r\n   " before every 37 bytes of upper-case
 * hex, "\r\n" at the end. Free with free(). */
PKEY_API char *PKEY_PUBKEY_DER2BdrnBuf(const unsigned char *der, unsigned int derLen) PKEY_NOEXCEPT;

/* ---- SSH public key blob and Base64 --------------------------------------- */

/* The public key as text: with ssh2 0 the SSH1 form "e n" in decimal (RSA
 * only; *outLen = its length), otherwise the SSH2 key buffer in one line of
 * Base64 (*outLen = character count + 1). Free with free(); NULL on failure. */
PKEY_API char *PKEY_PUBKEY_EvppkeyToBase64(EVP_PKEY *key, int ssh2,
                                           unsigned int *outLen) PKEY_NOEXCEPT;
/* A public key from the Base64 of an SSH key buffer ("ssh-rsa" and its
 * x509v3/spki/pgp aliases, "ssh-dss", "ecdsa-..."); no blanks or line breaks
 * are skipped. A new key, or NULL. */
PKEY_API EVP_PKEY *PKEY_PUBKEY_Base64toEvppkey(const char *text) PKEY_NOEXCEPT;
/* 1 if both keys hold the same public key (RSA n and e; DSA p, q, g, y; EC
 * point on the second key's group), else 0. */
PKEY_API int PKEY_CmpPubKey(const EVP_PKEY *a, const EVP_PKEY *b) PKEY_NOEXCEPT;
/* 1 if the Base64 text decodes to an SSH key buffer read the way OpenSSH
 * reads one: padding only at the end of the text, a known type name
 * ("ssh-rsa", "ssh-dss", "ecdsa-sha2-nistp192", -256, -384, -521), its
 * fields complete and nothing after the last, every mpint non-negative and
 * of at most 16384 bits (leading zero bytes are accepted), an ECDSA curve name
 * that matches the type name, and, when typeName is not NULL, a type name
 * equal to it. Else 0. PKEY_PUBKEY_Base64toEvppkey itself is more lenient:
 * it ignores bytes after the last field and reads mpints without a sign. */
PKEY_API int PKEY_PUBKEY_IsBase64BlobStrict(const char *text, const char *typeName) PKEY_NOEXCEPT;

/* Key buffer size bound per algorithm (rows of g_apfPKEYGetBufLenFromKey);
 * 0 when ssh2 is 0 or the key is not of the row's algorithm. */
PKEY_API unsigned int PKEY_PUBKEY_GetBufLenFromKeyReserve(EVP_PKEY *key, int ssh2) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_GetBufLenFromRSAKey(EVP_PKEY *key, int ssh2) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_GetBufLenFromDSAKey(EVP_PKEY *key, int ssh2) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_GetBufLenFromECDSAKey(EVP_PKEY *key, int ssh2) PKEY_NOEXCEPT;
/* Key buffer writers per algorithm (rows of g_apfPKEYFillKeyToBuf): write at
 * buf, store the length, return 0 or PKEY_ERR_FAILED. They take no size: buf
 * must hold the row's bound for the same key. */
PKEY_API unsigned int PKEY_PUBKEY_FillKeyToBufReserve(EVP_PKEY *key, unsigned char *buf,
                                                      unsigned int *written) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_FillRSAKeyToBuf(EVP_PKEY *key, unsigned char *buf,
                                                  unsigned int *written) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_FillDSAKeyToBuf(EVP_PKEY *key, unsigned char *buf,
                                                  unsigned int *written) PKEY_NOEXCEPT;
PKEY_API unsigned int PKEY_PUBKEY_FillECDSAKeyToBuf(EVP_PKEY *key, unsigned char *buf,
                                                    unsigned int *written) PKEY_NOEXCEPT;
/* Writes one SSH mpint at *cursor (a 0x00 byte before a magnitude whose top
 * bit is set), advances it and adds 4 + length to *total. Takes no size:
 * *cursor must have room for 5 + BN_num_bytes(bn) bytes. */
PKEY_API void PKEY_PUBKEY_FillBNToBuf(const BIGNUM *bn, unsigned char **cursor,
                                      unsigned int *total) PKEY_NOEXCEPT;
/* Reads one SSH mpint within *remaining bytes into *bnOut; 0 or
 * PKEY_ERR_FAILED (a length beyond what remains is refused). */
PKEY_API unsigned int PKEY_PUBKEY_GetBNFromKeyBuf(const unsigned char **cursor,
                                                  unsigned int *remaining,
                                                  BIGNUM **bnOut) PKEY_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* PKEY_PUBKEY_H */
