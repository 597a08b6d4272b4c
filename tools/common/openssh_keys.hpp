// openssh_keys.hpp - the store's key pairs that OpenSSH can use, with their
// names: what pkey-agent serves and what `pkeyctl local export --all` writes.
//
// One selection for both, so that the host keys an sshd is told about and the
// identities the agent signs with are always the same set: the default host
// keys and named key pairs of RSA (1024 bits and more, as OpenSSH requires)
// and ECDSA on P-256, P-384 and P-521, that the store reads and the current
// mode's policy allows. DSA, P-192 and the RSA server key are never part of
// it. The store is read afresh at every call; nothing is cached.
//
// A selected key carries its public blob only. The private key is read again
// for each use (load_private) and belongs to the caller, who frees it at once.
#pragma once

#include <openssl/evp.h>

#include <string>
#include <vector>

#include "pkey_util.hpp"

namespace pkey::openssh {

struct Key {
    const char *alg = "";             // "rsa" or "ecdsa", as pkeyctl names algorithms
    int evp_type = 0;                 // EVP_PKEY_RSA or EVP_PKEY_EC
    unsigned int alg_id = 0;          // the library's algorithm number
    std::string name;                 // "" for the algorithm's default host key
    std::string display;              // "hostkey(default)" or the name, as `local list` shows it
    std::string file_stem;            // "rsa-hostkey", "ecdsa-web-1": the export file's name
    std::string type;                 // the blob's key type, "ssh-rsa", "ecdsa-sha2-nistp256"
    std::vector<unsigned char> blob;  // the SSH public key blob
};

struct Selection {
    std::vector<Key> keys;  // default key first, then named keys by name; rsa, then ecdsa
    // Keys whose files are there but that cannot be read, one line each
    // ("rsa key web-1 (unreadable)"), and key directories that cannot be listed.
    std::vector<std::string> problems;
};

// The SSH public key blob of a key, decoded from the library's Base64 of it;
// empty when the key has no SSH form.
[[nodiscard]] std::vector<unsigned char> ssh_blob(EVP_PKEY *key);

// The keys OpenSSH can use, read now from the store the process has open.
[[nodiscard]] Selection select_keys();

// The key pair of a selected key, read again from the store; NULL when it is
// gone or its public key is no longer the one selected.
[[nodiscard]] EvpPkeyPtr load_private(const Key &key);

}  // namespace pkey::openssh
