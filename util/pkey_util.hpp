// pkey_util.hpp - internal C++ support shared by every pkey module (never installed).
//
// - UniquePtr aliases with the right OpenSSL (or free) deleter, so an early
//   return never leaks.
// - ByteReader / ByteWriter: the only code that walks length-prefixed or
//   big-endian bytes. Every length is checked against what remains, in
//   arithmetic that cannot wrap.
// - SecureBuffer: malloc'd bytes wiped with OPENSSL_cleanse on release; plain
//   key material lives only in these.
// - c_boundary(): runs a body at the C ABI edge and turns any exception into the
//   function's failure result.
// - is_escaping_key_name(): the one rule for key names that would leave their
//   key directory.
#pragma once

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <utility>

namespace pkey {

template <auto Fn>
struct FnDeleter {
    template <typename T>
    void operator()(T *p) const noexcept {
        if (p != nullptr) Fn(p);
    }
};

using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, FnDeleter<EVP_PKEY_free>>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, FnDeleter<EVP_PKEY_CTX_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, FnDeleter<EVP_MD_CTX_free>>;
using BignumPtr = std::unique_ptr<BIGNUM, FnDeleter<BN_clear_free>>;
using BnCtxPtr = std::unique_ptr<BN_CTX, FnDeleter<BN_CTX_free>>;
using EcGroupPtr = std::unique_ptr<EC_GROUP, FnDeleter<EC_GROUP_free>>;
using EcPointPtr = std::unique_ptr<EC_POINT, FnDeleter<EC_POINT_free>>;

using ParamBldPtr = std::unique_ptr<OSSL_PARAM_BLD, FnDeleter<OSSL_PARAM_BLD_free>>;
using ParamsPtr = std::unique_ptr<OSSL_PARAM, FnDeleter<OSSL_PARAM_free>>;

// A key of an OpenSSL key type ("RSA", "DSA", "EC") made from parameters;
// selection as for EVP_PKEY_fromdata. NULL on any failure.
[[nodiscard]] inline EvpPkeyPtr key_from_params(const char *type, int selection,
                                                const OSSL_PARAM *params) noexcept {
    EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
    EVP_PKEY *key = nullptr;
    if (params == nullptr || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &key, selection, const_cast<OSSL_PARAM *>(params)) != 1)
        return nullptr;
    return EvpPkeyPtr(key);
}

// The same from the parameters pushed on a builder.
[[nodiscard]] inline EvpPkeyPtr key_from_builder(const char *type, int selection,
                                                 OSSL_PARAM_BLD *bld) noexcept {
    ParamsPtr params(bld != nullptr ? OSSL_PARAM_BLD_to_param(bld) : nullptr);
    return key_from_params(type, selection, params.get());
}

inline void free_bytes(void *p) noexcept { std::free(p); }
template <typename T = unsigned char>
using MallocPtr = std::unique_ptr<T, FnDeleter<free_bytes>>;

inline void openssl_free_bytes(void *p) noexcept { OPENSSL_free(p); }
template <typename T = unsigned char>
using OpensslPtr = std::unique_ptr<T, FnDeleter<openssl_free_bytes>>;

// Holds a BN_CTX_start/BN_CTX_end frame.
class BnCtxFrame {
public:
    explicit BnCtxFrame(BN_CTX *ctx) noexcept : ctx_(ctx) { BN_CTX_start(ctx_); }
    ~BnCtxFrame() { BN_CTX_end(ctx_); }
    BnCtxFrame(const BnCtxFrame &) = delete;
    BnCtxFrame &operator=(const BnCtxFrame &) = delete;

private:
    BN_CTX *ctx_;
};

// Heap bytes for plain key material: zero-initialised, wiped before they are freed.
class SecureBuffer {
public:
    SecureBuffer() noexcept = default;
    explicit SecureBuffer(std::size_t size) noexcept
        : data_(static_cast<unsigned char *>(std::calloc(size == 0 ? 1 : size, 1))),
          size_(data_ != nullptr ? size : 0) {}
    // Adopts a malloc'd buffer of the given size.
    [[nodiscard]] static SecureBuffer adopt(void *p, std::size_t size) noexcept {
        SecureBuffer b;
        b.data_ = static_cast<unsigned char *>(p);
        b.size_ = p != nullptr ? size : 0;
        return b;
    }
    ~SecureBuffer() { reset(); }
    SecureBuffer(SecureBuffer &&o) noexcept
        : data_(std::exchange(o.data_, nullptr)), size_(std::exchange(o.size_, 0)) {}
    SecureBuffer &operator=(SecureBuffer &&o) noexcept {
        if (this != &o) {
            reset();
            data_ = std::exchange(o.data_, nullptr);
            size_ = std::exchange(o.size_, 0);
        }
        return *this;
    }
    SecureBuffer(const SecureBuffer &) = delete;
    SecureBuffer &operator=(const SecureBuffer &) = delete;

    void reset() noexcept {
        if (data_ != nullptr) {
            OPENSSL_cleanse(data_, size_);
            std::free(data_);
        }
        data_ = nullptr;
        size_ = 0;
    }
    // Hands the malloc'd bytes to a caller who frees them with free().
    [[nodiscard]] unsigned char *release() noexcept {
        size_ = 0;
        return std::exchange(data_, nullptr);
    }
    explicit operator bool() const noexcept { return data_ != nullptr; }
    unsigned char *data() noexcept { return data_; }
    const unsigned char *data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    std::span<unsigned char> span() noexcept { return {data_, size_}; }

private:
    unsigned char *data_ = nullptr;
    std::size_t size_ = 0;
};

inline void store_be32(unsigned char *p, std::uint32_t v) noexcept {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}
inline std::uint32_t load_be32(const unsigned char *p) noexcept {
    return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
           std::uint32_t{p[3]};
}
inline void store_be16(unsigned char *p, std::uint16_t v) noexcept {
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}
inline std::uint16_t load_be16(const unsigned char *p) noexcept {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

// A size as the C ABI's unsigned int; 0, which callers read as "no size",
// when it does not fit.
[[nodiscard]] inline unsigned int clamp_to_uint(std::size_t n) noexcept {
    return n > UINT32_MAX ? 0 : static_cast<unsigned int>(n);
}

// Bounds-checked cursor over untrusted bytes. A failed read leaves the cursor
// where it was and returns false; nothing ever reads past the end.
class ByteReader {
public:
    ByteReader() noexcept = default;
    ByteReader(const unsigned char *data, std::size_t len) noexcept : p_(data), left_(len) {}
    explicit ByteReader(std::span<const unsigned char> s) noexcept
        : p_(s.data()), left_(s.size()) {}

    std::size_t remaining() const noexcept { return left_; }
    const unsigned char *position() const noexcept { return p_; }
    bool empty() const noexcept { return left_ == 0; }

    [[nodiscard]] bool read_u8(std::uint8_t &out) noexcept {
        if (left_ < 1) return false;
        out = *p_;
        advance(1);
        return true;
    }
    [[nodiscard]] bool read_u16(std::uint16_t &out) noexcept {
        if (left_ < 2) return false;
        out = load_be16(p_);
        advance(2);
        return true;
    }
    [[nodiscard]] bool read_u32(std::uint32_t &out) noexcept {
        if (left_ < 4) return false;
        out = load_be32(p_);
        advance(4);
        return true;
    }
    [[nodiscard]] bool skip(std::size_t n) noexcept {
        if (n > left_) return false;
        advance(n);
        return true;
    }
    [[nodiscard]] bool read_bytes(std::size_t n, std::span<const unsigned char> &out) noexcept {
        if (n > left_) return false;
        out = {p_, n};
        advance(n);
        return true;
    }
    // A 32-bit big-endian length followed by that many bytes.
    [[nodiscard]] bool read_length_prefixed(std::span<const unsigned char> &out) noexcept {
        if (left_ < 4) return false;
        const std::uint32_t n = load_be32(p_);
        if (n > left_ - 4) return false;
        advance(4);
        out = {p_, n};
        advance(n);
        return true;
    }

private:
    void advance(std::size_t n) noexcept {
        p_ += n;
        left_ -= n;
    }
    const unsigned char *p_ = nullptr;
    std::size_t left_ = 0;
};

// Bounds-checked writer into a caller's fixed buffer. Once a write does not
// fit, the writer is failed and writes nothing more.
class ByteWriter {
public:
    ByteWriter(unsigned char *buf, std::size_t cap) noexcept : buf_(buf), cap_(cap) {}

    bool ok() const noexcept { return ok_; }
    std::size_t size() const noexcept { return len_; }
    unsigned char *cursor() noexcept { return buf_ + len_; }
    std::size_t room() const noexcept { return cap_ - len_; }

    [[nodiscard]] bool put_u8(std::uint8_t v) noexcept {
        if (!reserve(1)) return false;
        buf_[len_++] = v;
        return true;
    }
    [[nodiscard]] bool put_u16(std::uint16_t v) noexcept {
        if (!reserve(2)) return false;
        store_be16(buf_ + len_, v);
        len_ += 2;
        return true;
    }
    [[nodiscard]] bool put_u32(std::uint32_t v) noexcept {
        if (!reserve(4)) return false;
        store_be32(buf_ + len_, v);
        len_ += 4;
        return true;
    }
    [[nodiscard]] bool put_bytes(const void *p, std::size_t n) noexcept {
        if (!reserve(n)) return false;
        if (n != 0) std::memcpy(buf_ + len_, p, n);
        len_ += n;
        return true;
    }
    [[nodiscard]] bool put_length_prefixed(const void *p, std::size_t n) noexcept {
        return n <= UINT32_MAX && put_u32(static_cast<std::uint32_t>(n)) && put_bytes(p, n);
    }
    // Claims n bytes written by someone else at cursor().
    [[nodiscard]] bool commit(std::size_t n) noexcept { return reserve(n) && (len_ += n, true); }

private:
    [[nodiscard]] bool reserve(std::size_t n) noexcept {
        if (!ok_ || n > cap_ - len_) return ok_ = false;
        return true;
    }
    unsigned char *buf_;
    std::size_t cap_;
    std::size_t len_ = 0;
    bool ok_ = true;
};

// True for a local key name that would lead its key file out of its key
// directory: one holding "/" (so "../x" and "a/b"), or "." or "..", which name
// a directory itself where no extension follows. NULL is left to the caller's
// own rule. Every entry point that turns a key name into a path refuses these.
[[nodiscard]] inline bool is_escaping_key_name(const char *name) noexcept {
    return name != nullptr && (std::strchr(name, '/') != nullptr || std::strcmp(name, ".") == 0 ||
                               std::strcmp(name, "..") == 0);
}

// Runs body() at the C ABI edge: any exception becomes the failure result.
template <typename R, typename F>
[[nodiscard]] R c_boundary(R on_failure, F &&body) noexcept {
    try {
        return body();
    } catch (...) {
        return on_failure;
    }
}
template <typename F>
void c_boundary_void(F &&body) noexcept {
    try {
        body();
    } catch (...) {
    }
}

}  // namespace pkey
