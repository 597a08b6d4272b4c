// host_cipher.cpp - the key-file cipher: AES-256-SIV under the store's device key.
//
// Region layout written by PKEY_Encrypt:
//   byte 0       format version (1)
//   bytes 1-2    plain length, big-endian
//   bytes 3-18   SIV tag
//   bytes 19..   ciphertext, as long as the plaintext
// The three header bytes are authenticated as associated data, so neither the
// version nor the length can be changed without the tag failing. SIV is
// deterministic: the same plaintext under the same key gives the same region,
// which is what a cipher without a stored nonce must accept.
//
// The device key is 64 random bytes in <root>/device.key (mode 0600), made by
// the first process that needs it. It is written to a temporary file and then
// link()ed to its name, so a racing process either wins or finds a complete
// key: there is never a half-written device.key.

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>

#include "host_internal.hpp"
#include "pkey_platform.h"
#include "pkey_util.hpp"

namespace pkey::host {
namespace {

using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, FnDeleter<EVP_CIPHER_CTX_free>>;

struct KeyCache {
    std::uint64_t generation = 0;
    SecureBuffer key;  // kDeviceKeyLen bytes once loaded
};

std::mutex g_key_mutex;
KeyCache g_key;  // guarded by g_key_mutex

// Fetched once and kept for the life of the process.
const EVP_CIPHER *siv_cipher() {
    static EVP_CIPHER *const cipher = EVP_CIPHER_fetch(nullptr, "AES-256-SIV", nullptr);
    return cipher;
}

enum class KeyFile { kLoaded, kMissing, kBroken };

// Reads the open key file at path into buf (kDeviceKeyLen bytes); what is
// wrong with it, or "" when buf now holds the key.
std::string read_open_key_file(int fd, const std::string &path, SecureBuffer &buf) {
    struct stat st {};
    if (!buf || ::fstat(fd, &st) != 0) return "cannot read " + path;
    if (!S_ISREG(st.st_mode)) return path + ": not a regular file";
    if (st.st_size != static_cast<off_t>(kDeviceKeyLen))
        return path + ": wrong size (" + std::to_string(st.st_size) + " bytes)";
    if (!read_all(fd, buf.data(), kDeviceKeyLen)) return "cannot read " + path;
    return {};
}

KeyFile read_key_file(const std::string &path, SecureBuffer &key, std::string &why) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        const int err = errno;
        if (err == ENOENT) return KeyFile::kMissing;
        why = "cannot open " + path + ": " + errno_text(err);
        return KeyFile::kBroken;
    }
    SecureBuffer buf(kDeviceKeyLen);
    why = read_open_key_file(fd, path, buf);
    ::close(fd);
    if (!why.empty()) return KeyFile::kBroken;
    key = std::move(buf);
    return KeyFile::kLoaded;
}

// Makes a new device key and publishes it under path unless another process
// got there first, in which case that process's key is used.
bool create_key_file(const std::string &root, const std::string &path, SecureBuffer &key,
                     std::string &why) {
    SecureBuffer fresh(kDeviceKeyLen);
    if (!fresh || RAND_priv_bytes(fresh.data(), kDeviceKeyLen) != 1) {
        why = "cannot make " + path + ": the random generator failed";
        return false;
    }

    switch (publish_new_file(root, "device.key", fresh.data(), kDeviceKeyLen, 0600, why)) {
        case Publish::kDone: key = std::move(fresh); return true;
        case Publish::kFailed: return false;
        case Publish::kExists: break;  // another process made it first: use that one
    }
    return read_key_file(path, key, why) == KeyFile::kLoaded;
}

// The device key of the current store, loaded or made on first use. Caller
// holds g_key_mutex; NULL when there is no usable key (the reason recorded).
const unsigned char *device_key_locked() {
    if (g_key.key && g_key.generation == current_generation()) return g_key.key.data();
    StoreRef store = current_store();
    g_key.key.reset();
    if (store.root.empty()) return nullptr;
    const std::string path = store.root + "/device.key";
    SecureBuffer key;
    std::string why;
    switch (read_key_file(path, key, why)) {
        case KeyFile::kLoaded: break;
        case KeyFile::kMissing:
            if (!create_key_file(store.root, path, key, why)) {
                record_error(why);
                return nullptr;
            }
            break;
        case KeyFile::kBroken:
            record_error(why);
            return nullptr;  // never replace a key that enciphered existing files
    }
    g_key.key = std::move(key);
    g_key.generation = store.generation;
    return g_key.key.data();
}

unsigned int encrypt(unsigned int inLen, const unsigned char *in, unsigned int outCap,
                     unsigned char *out) {
    if (in == nullptr || out == nullptr || inLen == 0) return kCipherErrParam;
    if (inLen > kCipherMaxPlain) return kCipherErrTooLong;
    if (outCap < inLen + PKEY_CIPHER_OVERHEAD) return kCipherErrSpace;
    const EVP_CIPHER *cipher = siv_cipher();
    if (cipher == nullptr) return kCipherErrCrypto;

    unsigned char header[kCipherHeaderLen] = {kCipherVersion, 0, 0};
    store_be16(header + 1, static_cast<std::uint16_t>(inLen));
    unsigned char tag[kCipherTagLen];
    // The caller's input may overlap its output: encipher into a buffer of our own.
    SecureBuffer sealed(inLen);
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!sealed || !ctx) return kCipherErrCrypto;
    int n = 0;
    int fin = 0;
    {
        std::lock_guard lock(g_key_mutex);
        const unsigned char *key = device_key_locked();
        if (key == nullptr) return kCipherErrKey;
        if (EVP_EncryptInit_ex2(ctx.get(), cipher, key, nullptr, nullptr) != 1)
            return kCipherErrCrypto;
    }
    if (EVP_EncryptUpdate(ctx.get(), nullptr, &n, header, kCipherHeaderLen) != 1 ||
        EVP_EncryptUpdate(ctx.get(), sealed.data(), &n, in, static_cast<int>(inLen)) != 1 ||
        EVP_EncryptFinal_ex(ctx.get(), sealed.data() + n, &fin) != 1 ||
        static_cast<unsigned int>(n + fin) != inLen ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, kCipherTagLen, tag) != 1)
        return kCipherErrCrypto;

    std::memcpy(out, header, kCipherHeaderLen);
    std::memcpy(out + kCipherHeaderLen, tag, kCipherTagLen);
    std::memmove(out + PKEY_CIPHER_OVERHEAD, sealed.data(), inLen);
    return 0;
}

unsigned int decrypt(unsigned int inLen, const unsigned char *in, unsigned int outCap,
                     unsigned char *out) {
    if (in == nullptr || out == nullptr || inLen < PKEY_CIPHER_OVERHEAD) return 0;
    if (in[0] != kCipherVersion) return 0;
    const unsigned int plainLen = load_be16(in + 1);
    if (plainLen == 0 || plainLen > inLen - PKEY_CIPHER_OVERHEAD || plainLen > outCap) return 0;
    const EVP_CIPHER *cipher = siv_cipher();
    if (cipher == nullptr) return 0;

    unsigned char header[kCipherHeaderLen];
    unsigned char tag[kCipherTagLen];
    std::memcpy(header, in, kCipherHeaderLen);
    std::memcpy(tag, in + kCipherHeaderLen, kCipherTagLen);
    // Plaintext is released only after the tag checked out; out may overlap in.
    SecureBuffer plain(plainLen);
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!plain || !ctx) return 0;
    {
        std::lock_guard lock(g_key_mutex);
        const unsigned char *key = device_key_locked();
        if (key == nullptr) return 0;
        if (EVP_DecryptInit_ex2(ctx.get(), cipher, key, nullptr, nullptr) != 1) return 0;
    }
    int n = 0;
    int fin = 0;
    if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_TAG, kCipherTagLen, tag) != 1 ||
        EVP_DecryptUpdate(ctx.get(), nullptr, &n, header, kCipherHeaderLen) != 1 ||
        EVP_DecryptUpdate(ctx.get(), plain.data(), &n, in + PKEY_CIPHER_OVERHEAD,
                          static_cast<int>(plainLen)) != 1 ||
        EVP_DecryptFinal_ex(ctx.get(), plain.data() + n, &fin) != 1 ||
        static_cast<unsigned int>(n + fin) != plainLen)
        return 0;
    std::memcpy(out, plain.data(), plainLen);
    return plainLen;
}

}  // namespace

void cipher_drop() noexcept {
    std::lock_guard lock(g_key_mutex);
    g_key.key.reset();
    g_key.generation = 0;
}

}  // namespace pkey::host

extern "C" unsigned int PKEY_Encrypt(unsigned int inLen, const void *in, unsigned int outCap,
                                     void *out) {
    return pkey::c_boundary(pkey::host::kCipherErrCrypto, [&] {
        return pkey::host::encrypt(inLen, static_cast<const unsigned char *>(in), outCap,
                                   static_cast<unsigned char *>(out));
    });
}

extern "C" unsigned int PKEY_Decrypt(unsigned int inLen, const void *in, unsigned int outCap,
                                     void *out) {
    return pkey::c_boundary(0U, [&] {
        return pkey::host::decrypt(inLen, static_cast<const unsigned char *>(in), outCap,
                                   static_cast<unsigned char *>(out));
    });
}
