// Host key read: PKEY_GetHostKey on a stored key with its memory copy, next
// to the same work done with OpenSSL directly (the floor: read the file,
// decipher it, check its digest, build the key from its numbers) and next to
// PEM_read_bio_PrivateKey of the same key as a PEM file.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/core_names.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <map>
#include <memory>

#include "bench_util.hpp"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_platform.h"

namespace {

using namespace pkey;
using namespace pkey::bench;

struct KeyCase {
    const char *label;
    const char *type;
    unsigned int bits;
    const char *curve;
    int evp_type;
    unsigned int alg;
};

constexpr std::array<KeyCase, 4> kCases{{
    {"RSA-2048", "RSA", 2048, nullptr, EVP_PKEY_RSA, PKEY_ALG_RSA},
    {"DSA-2048", "DSA", 2048, nullptr, EVP_PKEY_DSA, PKEY_ALG_DSA},
    {"P-256", "EC", 0, "P-256", EVP_PKEY_EC, PKEY_ALG_ECDSA},
    {"P-521", "EC", 0, "P-521", EVP_PKEY_EC, PKEY_ALG_ECDSA},
}};

// One store holding all four keys, their PEM files and the device key.
struct Fixture {
    BenchStore store;
    std::map<int, std::string> mem_file;  // by case index
    std::map<int, std::string> pem_file;
    std::map<int, EvpPkeyPtr> keys;
    std::vector<unsigned char> device_key;

    Fixture() {
        for (std::size_t i = 0; i < kCases.size(); ++i) {
            const KeyCase &c = kCases[i];
            EvpPkeyPtr key = make_key(c.type, c.bits, c.curve);
            // Named key pairs: one store holds both curves side by side.
            if (PKEY_SaveLocalKey(c.label, key.get()) != 0)
                throw std::runtime_error("PKEY_SaveLocalKey failed");
            char path[PKEY_PATH_LEN] = "";
            PKEY_FS_MakeFullFileName(c.alg, PKEY_KEY_HOST, DEV_GetSelf(), c.label,
                                     PKEY_FS_MakeMemFilePrefix, path);
            mem_file[static_cast<int>(i)] = path;
            const std::string pem = store.root() + "/" + c.label + ".pem";
            FILE *f = std::fopen(pem.c_str(), "w");
            if (f == nullptr ||
                PEM_write_PrivateKey(f, key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
                throw std::runtime_error("PEM_write_PrivateKey failed");
            std::fclose(f);
            pem_file[static_cast<int>(i)] = pem;
            keys[static_cast<int>(i)] = std::move(key);
        }
        device_key = read_file(store.root() + "/device.key");
    }

    static std::vector<unsigned char> read_file(const std::string &path) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) throw std::runtime_error("cannot open " + path);
        struct stat st {};
        ::fstat(fd, &st);
        std::vector<unsigned char> data(static_cast<std::size_t>(st.st_size));
        const ssize_t n = ::read(fd, data.data(), data.size());
        ::close(fd);
        if (n != st.st_size) throw std::runtime_error("short read " + path);
        return data;
    }
};

Fixture &fixture() {
    static Fixture f;
    return f;
}

// ---- The floor: the same steps with OpenSSL calls and nothing else ---------

const EVP_CIPHER *siv() {
    static EVP_CIPHER *cipher = EVP_CIPHER_fetch(nullptr, "AES-256-SIV", nullptr);
    return cipher;
}
// The record's digest: MD5 or SHA-256 as its protection byte says.
const EVP_MD *record_md(unsigned char protection, std::size_t &len) {
    static EVP_MD *md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
    static EVP_MD *sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    len = protection == PKEY_STORE_PROTECT_MD5 ? 16 : 32;
    return protection == PKEY_STORE_PROTECT_MD5 ? md5 : sha256;
}

constexpr std::size_t kHeader = PKEY_STORE_HEADER_LEN;
constexpr std::size_t kCipherHead = 3, kTag = 16;

// Reads a DER tag and length at p; returns the content start or nullptr.
const unsigned char *der_item(const unsigned char *p, const unsigned char *end, unsigned char tag,
                              std::size_t &len) {
    if (end - p < 2 || p[0] != tag) return nullptr;
    std::size_t n = p[1];
    p += 2;
    if (n & 0x80) {
        const std::size_t octets = n & 0x7F;
        if (static_cast<std::size_t>(end - p) < octets) return nullptr;
        n = 0;
        for (std::size_t i = 0; i < octets; ++i) n = (n << 8) | *p++;
    }
    if (static_cast<std::size_t>(end - p) < n) return nullptr;
    len = n;
    return p;
}

EVP_PKEY *floor_build(const KeyCase &c, const unsigned char *rec, std::size_t len) {
    const unsigned char *p = rec + kHeader;
    const unsigned char *end = rec + len;
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    std::vector<BignumPtr> bns;
    if (c.alg == PKEY_ALG_ECDSA) {
        std::size_t n = 0;
        const unsigned char *seq = der_item(p, end, 0x30, n);
        const unsigned char *seq_end = seq + n;
        const unsigned char *ver = der_item(seq, seq_end, 0x02, n);
        const unsigned char *priv = der_item(ver + n, seq_end, 0x04, n);
        const std::size_t priv_len = n;
        const unsigned char *params = der_item(priv + n, seq_end, 0xA0, n);
        const unsigned char *pub_wrap = der_item(params + n, seq_end, 0xA1, n);
        const unsigned char *bits = der_item(pub_wrap, seq_end, 0x03, n);
        bns.emplace_back(BN_secure_new());
        BN_bin2bn(priv, static_cast<int>(priv_len), bns.back().get());
        OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_GROUP_NAME, c.curve, 0);
        OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_PRIV_KEY, bns.back().get());
        OSSL_PARAM_BLD_push_octet_string(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, bits + 1, n - 1);
    } else {
        static const char *const rsa[] = {"n",
                                          "e",
                                          "d",
                                          "rsa-factor1",
                                          "rsa-factor2",
                                          "rsa-exponent1",
                                          "rsa-exponent2",
                                          "rsa-coefficient1"};
        static const char *const dsa[] = {"p", "q", "g", "pub", "priv"};
        const std::size_t count = c.alg == PKEY_ALG_RSA ? 8 : 5;
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t n = load_be32(p);
            bns.emplace_back(BN_secure_new());
            BN_bin2bn(p + 4, static_cast<int>(n), bns.back().get());
            OSSL_PARAM_BLD_push_BN(bld.get(), c.alg == PKEY_ALG_RSA ? rsa[i] : dsa[i],
                                   bns.back().get());
            p += 4 + n;
        }
    }
    ParamsPtr params(OSSL_PARAM_BLD_to_param(bld.get()));
    EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, c.type, nullptr));
    EVP_PKEY *key = nullptr;
    if (EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_KEYPAIR, params.get()) != 1)
        return nullptr;
    return key;
}

EVP_PKEY *floor_read(const KeyCase &c, const std::string &path,
                     const std::vector<unsigned char> &dk) {
    // Read the whole file.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat st {};
    ::fstat(fd, &st);
    SecureBuffer file(static_cast<std::size_t>(st.st_size));
    const ssize_t got = ::read(fd, file.data(), file.size());
    ::close(fd);
    if (got != st.st_size || file.size() < kHeader + kCipherHead + kTag) return nullptr;

    // Decipher the body.
    const unsigned char *region = file.data() + kHeader;
    const std::size_t plain_len = load_be16(region + 1);
    SecureBuffer record(kHeader + plain_len);
    std::memcpy(record.data(), file.data(), kHeader);
    std::unique_ptr<EVP_CIPHER_CTX, FnDeleter<EVP_CIPHER_CTX_free>> ctx(EVP_CIPHER_CTX_new());
    int n = 0, fin = 0;
    if (EVP_DecryptInit_ex2(ctx.get(), siv(), dk.data(), nullptr, nullptr) != 1 ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_TAG, kTag,
                            const_cast<unsigned char *>(region + kCipherHead)) != 1 ||
        EVP_DecryptUpdate(ctx.get(), nullptr, &n, region, kCipherHead) != 1 ||
        EVP_DecryptUpdate(ctx.get(), record.data() + kHeader, &n, region + kCipherHead + kTag,
                          static_cast<int>(plain_len)) != 1 ||
        EVP_DecryptFinal_ex(ctx.get(), record.data() + kHeader + n, &fin) != 1)
        return nullptr;

    // Check the digest, made with kind and name zero.
    const std::size_t len = record.size();
    std::size_t dlen = 0;
    const EVP_MD *md_type = record_md(record.data()[PKEY_STORE_OFF_PROTECTION], dlen);
    unsigned char saved[1 + PKEY_STORE_NAME_LEN];
    std::memcpy(saved, record.data() + PKEY_STORE_OFF_KIND, sizeof saved);
    std::memset(record.data() + PKEY_STORE_OFF_KIND, 0, sizeof saved);
    unsigned char digest[EVP_MAX_MD_SIZE];
    EvpMdCtxPtr md(EVP_MD_CTX_new());
    if (EVP_DigestInit_ex(md.get(), md_type, nullptr) != 1 ||
        EVP_DigestUpdate(md.get(), record.data(), len - dlen) != 1 ||
        EVP_DigestFinal_ex(md.get(), digest, nullptr) != 1 ||
        CRYPTO_memcmp(digest, record.data() + len - dlen, dlen) != 0)
        return nullptr;
    std::memcpy(record.data() + PKEY_STORE_OFF_KIND, saved, sizeof saved);

    return floor_build(c, record.data(), len);
}

// ---- Benchmarks ------------------------------------------------------------

void BM_HostKeyRead_pkey(benchmark::State &state) {
    Fixture &f = fixture();
    f.store.use();
    const KeyCase &c = kCases[static_cast<std::size_t>(state.range(0))];
    for (auto _ : state) {
        EVP_PKEY *key = PKEY_GetHostKey(c.evp_type, c.label);
        if (key == nullptr) {
            state.SkipWithError("PKEY_GetHostKey failed");
            break;
        }
        EVP_PKEY_free(key);
    }
    state.SetLabel(c.label);
}

void BM_HostKeyRead_floor(benchmark::State &state) {
    Fixture &f = fixture();
    const int i = static_cast<int>(state.range(0));
    const KeyCase &c = kCases[static_cast<std::size_t>(i)];
    // The floor must produce the very key the library stores.
    EvpPkeyPtr check(floor_read(c, f.mem_file[i], f.device_key));
    if (!check || EVP_PKEY_eq(check.get(), f.keys[i].get()) != 1) {
        state.SkipWithError("floor read does not give the stored key");
        return;
    }
    for (auto _ : state) EVP_PKEY_free(floor_read(c, f.mem_file[i], f.device_key));
    state.SetLabel(c.label);
}

void BM_HostKeyRead_pem(benchmark::State &state) {
    Fixture &f = fixture();
    const int i = static_cast<int>(state.range(0));
    const KeyCase &c = kCases[static_cast<std::size_t>(i)];
    for (auto _ : state) {
        BIO *file = BIO_new_file(f.pem_file[i].c_str(), "r");
        EVP_PKEY *key =
            file != nullptr ? PEM_read_bio_PrivateKey(file, nullptr, nullptr, nullptr) : nullptr;
        BIO_free(file);
        if (key == nullptr) {
            state.SkipWithError("PEM_read_bio_PrivateKey failed");
            break;
        }
        EVP_PKEY_free(key);
    }
    state.SetLabel(c.label);
}

BENCHMARK(BM_HostKeyRead_pkey)->DenseRange(0, kCases.size() - 1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HostKeyRead_floor)->DenseRange(0, kCases.size() - 1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HostKeyRead_pem)->DenseRange(0, kCases.size() - 1)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
