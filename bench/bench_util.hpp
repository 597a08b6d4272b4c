// bench_util.hpp - what every benchmark program shares: a private store that
// disappears afterwards, keys made with OpenSSL, and the key texts users paste.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host_platform.h"
#include "pkey_peer.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace pkey::bench {

// An empty store under $TMPDIR, made the process's store; removed on exit.
class BenchStore {
public:
    BenchStore() {
        const char *tmp = std::getenv("TMPDIR");
        std::string pattern = (tmp != nullptr && *tmp != '\0') ? tmp : "/tmp";
        pattern += "/pkey-bench-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        root_ = std::filesystem::canonical(pattern).string();
        use();
        HOST_SetFipsMode(0);
    }
    // A copy of another store's tree (taken while nobody writes to it).
    explicit BenchStore(const std::string &copy_of) : BenchStore() {
        std::filesystem::copy(copy_of, root_,
                              std::filesystem::copy_options::recursive |
                                  std::filesystem::copy_options::overwrite_existing);
        use();
    }
    ~BenchStore() {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    BenchStore(const BenchStore &) = delete;
    BenchStore &operator=(const BenchStore &) = delete;

    const std::string &root() const { return root_; }
    void use() const {
        if (HOST_Open(root_.c_str()) != 0) throw std::runtime_error("HOST_Open failed: " + root_);
    }

private:
    std::string root_;
};

// A fresh key pair from OpenSSL: "RSA"/"DSA" with bits, or "EC" with a curve name.
inline EvpPkeyPtr make_key(const char *type, unsigned int bits, const char *curve = nullptr) {
    EVP_PKEY *key = nullptr;
    if (std::string_view(type) == "EC") {
        key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve);
    } else if (std::string_view(type) == "RSA") {
        key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(bits));
    } else {
        EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new_from_name(nullptr, "DSA", nullptr));
        EVP_PKEY *params = nullptr;
        if (pctx && EVP_PKEY_paramgen_init(pctx.get()) == 1 &&
            EVP_PKEY_CTX_set_dsa_paramgen_bits(pctx.get(), static_cast<int>(bits)) == 1 &&
            EVP_PKEY_paramgen(pctx.get(), &params) == 1) {
            EvpPkeyPtr owned(params);
            EvpPkeyCtxPtr kctx(EVP_PKEY_CTX_new_from_pkey(nullptr, params, nullptr));
            if (kctx && EVP_PKEY_keygen_init(kctx.get()) == 1) EVP_PKEY_keygen(kctx.get(), &key);
        }
    }
    if (key == nullptr) throw std::runtime_error(std::string("key generation failed: ") + type);
    return EvpPkeyPtr(key);
}

// The SubjectPublicKeyInfo DER of a key.
inline std::vector<unsigned char> spki_der(EVP_PKEY *key) {
    unsigned char *der = nullptr;
    const int len = i2d_PUBKEY(key, &der);
    if (len <= 0) throw std::runtime_error("i2d_PUBKEY failed");
    std::vector<unsigned char> out(der, der + len);
    OPENSSL_free(der);
    return out;
}

// The SSH key type name that leads an OpenSSH line.
inline std::string ssh_type(EVP_PKEY *key) {
    switch (EVP_PKEY_get_id(key)) {
        case EVP_PKEY_RSA: return "ssh-rsa";
        case EVP_PKEY_DSA: return "ssh-dss";
        default: break;
    }
    switch (EVP_PKEY_get_bits(key)) {
        case 256: return "ecdsa-sha2-nistp256";
        case 384: return "ecdsa-sha2-nistp384";
        default: return "ecdsa-sha2-nistp521";
    }
}

// The SSH key blob in Base64, as the library writes it.
inline std::string ssh_base64(EVP_PKEY *key) {
    unsigned int len = 0;
    MallocPtr<char> text(PKEY_PUBKEY_EvppkeyToBase64(key, 1, &len));
    if (!text) throw std::runtime_error("PKEY_PUBKEY_EvppkeyToBase64 failed");
    return text.get();
}

inline std::string openssh_line(EVP_PKEY *key, const std::string &comment) {
    return ssh_type(key) + " " + ssh_base64(key) + " " + comment;
}

// An RFC 4716 block as `ssh-keygen -e` writes it: 70-character lines.
inline std::string ssh2_block(EVP_PKEY *key, const std::string &comment) {
    const std::string body = ssh_base64(key);
    std::string out = "---- BEGIN SSH2 PUBLIC KEY ----\nComment: \"" + comment + "\"\n";
    for (std::size_t i = 0; i < body.size(); i += 70) out += body.substr(i, 70) + "\n";
    return out + "---- END SSH2 PUBLIC KEY ----\n";
}

// Hex key code: the DER of the public key in upper-case hex digits.
inline std::string hex_key_code(EVP_PKEY *key) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char b : spki_der(key)) {
        out += digits[b >> 4];
        out += digits[b & 15];
    }
    return out;
}

inline void write_text(const std::filesystem::path &path, const std::string &text) {
    FILE *f = std::fopen(path.c_str(), "w");
    if (f == nullptr) throw std::runtime_error("cannot write " + path.string());
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
}

}  // namespace pkey::bench

namespace pkey::bench {

// Fills the current store with n peer keys named user-<i>, added in shuffled
// order (so table order is not name order). Even i get one of `refused`,
// odd i one of `approved`. Returns the names in the order they went in.
inline std::vector<std::string> fill_peer_store(
    unsigned int n, const std::vector<std::vector<unsigned char>> &refused,
    const std::vector<std::vector<unsigned char>> &approved) {
    std::vector<unsigned int> order(n);
    for (unsigned int i = 0; i < n; ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(n));
    std::vector<std::string> names;
    names.reserve(n);
    for (unsigned int i : order) {
        const auto &pool = i % 2 == 0 ? refused : approved;
        const auto &der = pool[i / 2 % pool.size()];
        std::string name = "user-" + std::to_string(i);
        if (PKEY_PEER_SavePeerPubKey(der.data(), static_cast<unsigned int>(der.size()),
                                     name.c_str()) != 0)
            throw std::runtime_error("filling the peer store failed");
        names.push_back(std::move(name));
    }
    return names;
}

}  // namespace pkey::bench
