// The key pair store record's header, digest and integrity check.
#include "pkey_record.hpp"

#include <openssl/crypto.h>
#include <sys/time.h>

#include <cstring>
#include <ctime>

#include "pkey_platform.h"
#include "pkey_types.h"

namespace pkey::record {
namespace {

constexpr unsigned int kMd5Len = 16;
constexpr unsigned int kSha256Len = 32;
constexpr std::size_t kKindAndNameLen = 1 + PKEY_STORE_NAME_LEN;

// Fetched once per process: a fetch costs a provider look-up.
const EVP_MD *md5_md() noexcept {
    static const EVP_MD *const md = EVP_MD_fetch(nullptr, "MD5", nullptr);
    return md;
}
const EVP_MD *sha256_md() noexcept {
    static const EVP_MD *const md = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return md;
}

Digest md5_if_allowed() noexcept {
    if (CRYPTO_AlgoIsEnabled(CRYPTO_ALG_MD5) != 1) return {};
    return {md5_md(), kMd5Len};
}
Digest sha256_if_allowed() noexcept {
    if (CRYPTO_AlgoIsEnabled(CRYPTO_ALG_SHA256) != 1) return {};
    return {sha256_md(), kSha256Len};
}

}  // namespace

bool parse_header(std::span<const unsigned char> bytes, Header &out) noexcept {
    ByteReader in(bytes);
    Header h;
    if (!in.read_u32(h.length) || !in.read_u32(h.marker) || !in.read_u8(h.kind) ||
        !in.skip(PKEY_STORE_NAME_LEN) || !in.read_u16(h.year) || !in.read_u8(h.month) ||
        !in.read_u8(h.day) || !in.read_u16(h.hour) || !in.read_u8(h.minute) ||
        !in.read_u8(h.second) || !in.read_u8(h.protection) || !in.read_u8(h.version))
        return false;
    out = h;
    return true;
}

bool new_header(std::uint32_t length, Header &out) noexcept {
    timeval now{};
    std::tm local{};
    if (gettimeofday(&now, nullptr) != 0 || localtime_r(&now.tv_sec, &local) == nullptr)
        return false;
    out = Header{};
    out.length = length;
    out.marker = PKEY_STORE_MARKER;
    out.year = static_cast<std::uint16_t>(local.tm_year + 1900);
    out.month = static_cast<std::uint8_t>(local.tm_mon + 1);
    out.day = static_cast<std::uint8_t>(local.tm_mday);
    out.hour = static_cast<std::uint16_t>(local.tm_hour);
    out.minute = static_cast<std::uint8_t>(local.tm_min);
    out.second = static_cast<std::uint8_t>(local.tm_sec);
    out.protection =
        CRYPTO_FIPSIsEnabled() == 1 ? PKEY_STORE_PROTECT_SHA256 : PKEY_STORE_PROTECT_MD5;
    out.version = PKEY_STORE_VERSION;
    return true;
}

bool write_header(const Header &h, ByteWriter &out) noexcept {
    return out.put_u32(h.length) && out.put_u32(h.marker) && out.commit(kKindAndNameLen) &&
           out.put_u16(h.year) && out.put_u8(h.month) && out.put_u8(h.day) && out.put_u16(h.hour) &&
           out.put_u8(h.minute) && out.put_u8(h.second) && out.put_u8(h.protection) &&
           out.put_u8(h.version);
}

void stamp_kind_and_name(std::span<unsigned char> record, std::uint8_t kind,
                         const char *name) noexcept {
    if (record.size() < PKEY_STORE_HEADER_LEN) return;
    scnprintf(reinterpret_cast<char *>(record.data() + PKEY_STORE_OFF_NAME), PKEY_STORE_NAME_LEN,
              "%s", name);
    record[PKEY_STORE_OFF_KIND] = kind;
}

Digest build_digest() noexcept {
    if (const Digest md5 = md5_if_allowed(); md5.size != 0) return md5;
    return sha256_if_allowed();
}

Digest digest_for(std::uint8_t protection) noexcept {
    if (protection == PKEY_STORE_PROTECT_MD5) return md5_if_allowed();
    if (protection == PKEY_STORE_PROTECT_SHA256) return sha256_if_allowed();
    return {};
}

bool seal(const Digest &digest, std::span<unsigned char> record) noexcept {
    if (digest.md == nullptr || record.size() < digest.size) return false;
    const std::size_t at = record.size() - digest.size;
    EvpMdCtxPtr ctx(EVP_MD_CTX_new());
    unsigned int produced = 0;
    return ctx && EVP_DigestInit_ex(ctx.get(), digest.md, nullptr) == 1 &&
           EVP_DigestUpdate(ctx.get(), record.data(), at) == 1 &&
           EVP_DigestFinal_ex(ctx.get(), record.data() + at, &produced) == 1 &&
           produced == digest.size;
}

bool check(std::span<unsigned char> record, unsigned char *protection) noexcept {
    Header h;
    if (!parse_header(record, h) || h.length != record.size()) return false;
    if (protection != nullptr) *protection = h.protection;
    const Digest digest = digest_for(h.protection);
    if (digest.md == nullptr || record.size() <= digest.size) return false;
    const std::size_t covered = record.size() - digest.size;

    // The digest was made with kind and name zero; they are put back after.
    unsigned char *kind_and_name = record.data() + PKEY_STORE_OFF_KIND;
    unsigned char saved[kKindAndNameLen];
    std::memcpy(saved, kind_and_name, sizeof saved);
    std::memset(kind_and_name, 0, sizeof saved);
    // Without a context nothing is digested and the record is compared with
    // an all-zero digest.
    unsigned char computed[EVP_MAX_MD_SIZE] = {};
    bool digested = true;
    EvpMdCtxPtr ctx(EVP_MD_CTX_new());
    if (ctx) {
        // A failed start leaves kind and name zeroed in the caller's buffer.
        if (EVP_DigestInit_ex(ctx.get(), digest.md, nullptr) != 1) return false;
        digested = EVP_DigestUpdate(ctx.get(), record.data(), covered) == 1 &&
                   EVP_DigestFinal_ex(ctx.get(), computed, nullptr) == 1;
    }
    std::memcpy(kind_and_name, saved, sizeof saved);
    if (!digested) return false;
    if (CRYPTO_memcmp(computed, record.data() + covered, digest.size) != 0) return false;
    return h.marker == PKEY_STORE_MARKER;
}

}  // namespace pkey::record
