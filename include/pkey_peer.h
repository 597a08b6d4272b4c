/*
 * pkey_peer.h - peer public keys: the keys of remote users that the device
 * accepts for public key authentication.
 *
 * Text readers turn what an operator pasted into a key. They work in place:
 * they write terminating zero bytes into the caller's text (the SSH2 reader
 * also deletes its line breaks), so the text must be writable and is changed
 * afterwards, also when they fail. They apply no policy; the save functions
 * below do.
 *
 * A peer key is kept by name in the configuration database as the DER of its
 * SubjectPublicKeyInfo. Keys handed out belong to the caller (EVP_PKEY_free).
 * Status results are 0 for success and PKEY_ERR_FAILED for failure, or the
 * configuration database's own code where a function says so.
 */
#ifndef PKEY_PEER_H
#define PKEY_PEER_H

#include <openssl/evp.h>

#include "pkey_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Message numbers printed by PKEY_PEER_EditKeyCodeFinish (texts from the
 * platform's RC_LoadString). */
#define PKEY_MSG_INVALID_KEY_CODE 0x060C0032U
#define PKEY_MSG_KEY_SIZE_REFUSED 0x060C003BU
#define PKEY_MSG_SAVE_FAILED 0x060C003CU

/* Longest name of a peer key, and the most hex digits a key code may have. */
#define PKEY_PEER_NAME_LEN 65U
#define PKEY_PEER_KEYCODE_MAX_DIGITS 4096U

/* A finished key code entry: the name field, then the hex text of the key's
 * DER SubjectPublicKeyInfo directly behind it, NUL-terminated. */
typedef struct tagPKEY_KEYCODE_ENTRY {
    char szName[PKEY_PEER_NAME_LEN];
    char szKeyCode[1]; /* as long as the text */
} PKEY_KEYCODE_ENTRY_S;

/* ---- Reading pasted text ------------------------------------------------- */

/* The text inside a "public-key-code begin" / "public-key-code end" wrapper
 * (the end marker is overwritten with NUL), the whole text when there is no
 * wrapper, or NULL when anything but blanks stands outside the markers. */
PKEY_API char *PKEY_PEER_PeerPubKeyPreProc(char *text) PKEY_NOEXCEPT;
/* A key from an SSH2 public key block ("---- BEGIN SSH2 PUBLIC KEY ----"). */
PKEY_API EVP_PKEY *PKEY_PEER_ReadSSH2PubKey(char *text) PKEY_NOEXCEPT;
/* A key from an OpenSSH line: key type, blanks, Base64, optional comment. */
PKEY_API EVP_PKEY *PKEY_PEER_ReadOpenSSHPubKey(char *text) PKEY_NOEXCEPT;
/* An RSA key from SSH1 text: bits, exponent and modulus in decimal. */
PKEY_API EVP_PKEY *PKEY_PEER_ReadSSH1PubKey(char *text) PKEY_NOEXCEPT;

/* ---- Key-code entry and peer key operations ------------------------------ */

/* Decodes, checks and stores a finished key code entry (see
 * PKEY_KEYCODE_ENTRY_S). Prints the platform's message on most refusals. */
PKEY_API unsigned int PKEY_PEER_EditKeyCodeFinish(const char *entry) PKEY_NOEXCEPT;
/* Checks a parsed key against the algorithm switches and the key-size
 * policy, then saves it under name. */
PKEY_API unsigned int PKEY_EditKeyCode(EVP_PKEY *key, const char *name) PKEY_NOEXCEPT;
/* Saves a key under name without any policy check. */
PKEY_API unsigned int PKEY_SavePeerPubKey(EVP_PKEY *key, const char *name) PKEY_NOEXCEPT;
/* Saves DER SubjectPublicKeyInfo bytes under name: the store's result. */
PKEY_API unsigned int PKEY_PEER_SavePeerPubKey(const unsigned char *der, unsigned int derLen,
                                               const char *name) PKEY_NOEXCEPT;
/* Removes a key by name: the store's result (PKEY_ERR_FAILED for ""). */
PKEY_API unsigned int PKEY_PEER_RemovePeerPubKeyByName(const char *name) PKEY_NOEXCEPT;
/* The stored key of a name, or NULL. In FIPS mode the store is first purged
 * of keys the mode does not allow, and a key another process saved since is
 * absent too: no listed name gives a refused key. */
PKEY_API EVP_PKEY *PKEY_GetUserKeyByName(const char *name) PKEY_NOEXCEPT;
/* 1 if the key exists and may be used now, else 0. In FIPS mode a stored key
 * that is too weak is removed by this test. */
PKEY_API unsigned int PKEY_IsPeerPubKeyExisted(const char *name) PKEY_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* PKEY_PEER_H */
