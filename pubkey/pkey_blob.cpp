// The SSH public key blob (the wire form of RFC 4253) of RSA and DSA keys and
// its one-line Base64 text, the SSH1 text of an RSA key, the strict Base64
// reader that turns pasted text back into a key, the stricter check of a key
// buffer as OpenSSH reads one, and the comparison of two public keys. ECDSA keys are written and
// read by the ECDSA module; this file only routes them there.
//
// Everything handled here is public key material, so buffers are freed
// without wiping. Every length read from a blob is checked against the bytes
// that remain before it is used.
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <utility>

#include "pkey_base64.hpp"
#include "pkey_curves.hpp"
#include "pkey_ec.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace {

using pkey::BignumPtr;
using pkey::BnCtxPtr;
using pkey::ByteReader;
using pkey::ByteWriter;
using pkey::EcGroupPtr;
using pkey::EcPointPtr;
using pkey::EvpPkeyPtr;
using pkey::MallocPtr;
using pkey::OpensslPtr;
using pkey::ParamBldPtr;

using GetBufLenFn = unsigned int (*)(EVP_PKEY *key, int ssh2);
using FillKeyToBufFn = unsigned int (*)(EVP_PKEY *key, unsigned char *buf, unsigned int *written);

// Key buffer size bound and key buffer writer per pkey alg id; row 0 is the
// reserved stub. ECDSA keys never reach their row: they go to the ECDSA module.
const GetBufLenFn g_apfPKEYGetBufLenFromKey[4] = {
    PKEY_PUBKEY_GetBufLenFromKeyReserve, PKEY_PUBKEY_GetBufLenFromRSAKey,
    PKEY_PUBKEY_GetBufLenFromDSAKey, PKEY_PUBKEY_GetBufLenFromECDSAKey};
const FillKeyToBufFn g_apfPKEYFillKeyToBuf[4] = {
    PKEY_PUBKEY_FillKeyToBufReserve, PKEY_PUBKEY_FillRSAKeyToBuf, PKEY_PUBKEY_FillDSAKeyToBuf,
    PKEY_PUBKEY_FillECDSAKeyToBuf};

constexpr std::string_view kSshRsa = "ssh-rsa";
constexpr std::string_view kSshDss = "ssh-dss";
// Names read exactly like "ssh-rsa", as a bare e and n.
constexpr std::string_view kRsaNames[] = {kSshRsa, "x509v3-sign-rsa", "spki-sign-rsa",
                                          "pgp-sign-rsa"};
constexpr std::string_view kEcdsaPrefix = "ecdsa";

// Components in blob order.
constexpr const char *kRsaBlobOrder[] = {OSSL_PKEY_PARAM_RSA_E, OSSL_PKEY_PARAM_RSA_N};
constexpr const char *kDsaBlobOrder[] = {OSSL_PKEY_PARAM_FFC_P, OSSL_PKEY_PARAM_FFC_Q,
                                         OSSL_PKEY_PARAM_FFC_G, OSSL_PKEY_PARAM_PUB_KEY};
constexpr std::size_t kMaxComponents = std::size(kDsaBlobOrder);
using ComponentNames = std::span<const char *const>;

// Bound slack beyond the magnitudes: the name string (4 + 7), a length field
// and a possible 0x00 byte per mpint.
constexpr std::size_t kRsaSlack = 11 + 2 * 4 + 2;
constexpr std::size_t kDsaSlack = 11 + 4 * 4 + 4;
constexpr std::size_t kLengthField = 4;

// The public components of a key in blob order; all() is empty unless every
// one of them was found.
class PublicComponents {
public:
    PublicComponents(const EVP_PKEY *key, ComponentNames names) noexcept {
        if (key == nullptr) return;
        for (std::size_t i = 0; i < names.size(); ++i) {
            BIGNUM *bn = nullptr;
            if (EVP_PKEY_get_bn_param(key, names[i], &bn) != 1) return;
            bn_[i].reset(bn);
        }
        count_ = names.size();
    }
    std::span<const BignumPtr> all() const noexcept { return {bn_.data(), count_}; }
    explicit operator bool() const noexcept { return count_ != 0; }
    // Sum of the magnitudes' byte lengths.
    std::size_t magnitude_bytes() const noexcept {
        std::size_t total = 0;
        for (const BignumPtr &bn : all()) total += static_cast<std::size_t>(BN_num_bytes(bn.get()));
        return total;
    }

private:
    std::array<BignumPtr, kMaxComponents> bn_;
    std::size_t count_ = 0;
};

// An SSH mpint: a 0x00 byte before a magnitude whose top bit is set (so it
// does not read as negative), nothing at all for zero.
bool put_mpint(ByteWriter &out, const BIGNUM *bn) noexcept {
    const int bytes = BN_num_bytes(bn);
    if (bytes < 0) return false;
    const bool pad = bytes > 0 && BN_num_bits(bn) % 8 == 0;
    const std::size_t magnitude = static_cast<std::size_t>(bytes);
    if (!out.put_u32(static_cast<std::uint32_t>(magnitude + (pad ? 1 : 0))) ||
        (pad && !out.put_u8(0)))
        return false;
    unsigned char *dst = out.cursor();
    if (!out.commit(magnitude)) return false;
    BN_bn2bin(bn, dst);
    return true;
}

// One mpint as an unsigned big-endian magnitude (a leading 0x00 simply drops
// out, a set top bit is not read as a sign). Null when the length field is cut
// off or claims more bytes than remain; the reader then stays where it was.
BignumPtr read_mpint(ByteReader &in) noexcept {
    ByteReader probe = in;
    std::span<const unsigned char> magnitude;
    if (!probe.read_length_prefixed(magnitude) ||
        magnitude.size() > static_cast<std::size_t>(INT_MAX))  // BN_bin2bn's limit
        return nullptr;
    BignumPtr bn(BN_bin2bn(magnitude.data(), static_cast<int>(magnitude.size()), nullptr));
    if (bn) in = probe;
    return bn;
}

unsigned int bound_of(EVP_PKEY *key, int ssh2, ComponentNames names, std::size_t slack) noexcept {
    if (key == nullptr || ssh2 == 0) return 0;
    const PublicComponents components(key, names);
    return components ? pkey::clamp_to_uint(components.magnitude_bytes() + slack) : 0;
}

// The key buffer: the type name string, then the components as mpints. buf
// holds the bound computed from the same components.
unsigned int fill_blob(EVP_PKEY *key, std::string_view typeName, ComponentNames names,
                       std::size_t slack, unsigned char *buf, unsigned int *written) noexcept {
    if (key == nullptr || buf == nullptr || written == nullptr) return PKEY_ERR_FAILED;
    const PublicComponents components(key, names);
    if (!components) return PKEY_ERR_FAILED;
    ByteWriter out(buf, components.magnitude_bytes() + slack);
    if (!out.put_length_prefixed(typeName.data(), typeName.size())) return PKEY_ERR_FAILED;
    for (const BignumPtr &bn : components.all()) {
        if (!put_mpint(out, bn.get())) return PKEY_ERR_FAILED;
    }
    *written = static_cast<unsigned int>(out.size());
    return 0;
}

// "e n" in decimal; *outLen gets the text's length.
char *rsa_ssh1_text(const EVP_PKEY *key, unsigned int *outLen) noexcept {
    const PublicComponents components(key, kRsaBlobOrder);
    if (!components) return nullptr;
    const OpensslPtr<char> e(BN_bn2dec(components.all()[0].get()));
    const OpensslPtr<char> n(BN_bn2dec(components.all()[1].get()));
    if (!e || !n) return nullptr;
    const std::size_t size = std::strlen(e.get()) + std::strlen(n.get()) + 3;
    MallocPtr<char> text(static_cast<char *>(std::malloc(size)));
    if (!text) return nullptr;
    const int len = scnprintf(text.get(), size, "%s %s", e.get(), n.get());
    if (len <= 0) return nullptr;
    *outLen = static_cast<unsigned int>(len);
    return text.release();
}

constexpr int kPad = 64;
constexpr int kBad = -1;

int base64_value(char c) noexcept {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    if (c == '=') return kPad;
    return kBad;
}

// Strict Base64: whole groups of four characters and nothing skipped, not even
// a blank or a line break. "=" may stand only in the last place of a group or
// in the last two; a padded group may come anywhere, and decoding goes on with
// the next group.
bool base64_decode(std::string_view text, ByteWriter &out) noexcept {
    if (text.size() % 4 != 0) return false;
    for (std::size_t pos = 0; pos < text.size(); pos += 4) {
        int v[4];
        for (int i = 0; i < 4; ++i) {
            v[i] = base64_value(text[pos + static_cast<std::size_t>(i)]);
            if (v[i] == kBad) return false;
        }
        if (v[0] == kPad || v[1] == kPad || (v[2] == kPad && v[3] != kPad)) return false;
        const std::uint32_t bits =
            (static_cast<std::uint32_t>(v[0]) << 18) | (static_cast<std::uint32_t>(v[1]) << 12) |
            (static_cast<std::uint32_t>(v[2] & 63) << 6) | static_cast<std::uint32_t>(v[3] & 63);
        if (!out.put_u8(static_cast<std::uint8_t>(bits >> 16))) return false;
        if (v[2] != kPad && !out.put_u8(static_cast<std::uint8_t>(bits >> 8))) return false;
        if (v[3] != kPad && !out.put_u8(static_cast<std::uint8_t>(bits))) return false;
    }
    return true;
}

// The decoded bytes of a Base64 text; empty when the text is empty or not
// strict Base64.
struct DecodedBlob {
    MallocPtr<unsigned char> bytes;
    std::size_t size = 0;

    explicit DecodedBlob(const char *text) noexcept {
        if (text == nullptr) return;
        const std::string_view b64(text);
        if (b64.empty()) return;
        // Three bytes for every four characters: the text's length is room enough.
        MallocPtr<unsigned char> out(static_cast<unsigned char *>(std::calloc(b64.size(), 1)));
        if (!out) return;
        ByteWriter decoded(out.get(), b64.size());
        if (!base64_decode(b64, decoded)) return;
        bytes = std::move(out);
        size = decoded.size();
    }
    explicit operator bool() const noexcept { return static_cast<bool>(bytes); }
    ByteReader reader() const noexcept { return ByteReader(bytes.get(), size); }
};

// OpenSSH's largest number: 16384 bits, and one 0x00 byte before it.
constexpr std::size_t kMaxMpintBytes = 16384 / 8;

// count mpints as OpenSSH reads them, and nothing after the last: each
// complete, not negative (a set top bit in its first byte) and not longer
// than OpenSSH takes. Leading zero bytes are accepted; they do not change the
// value.
bool strict_mpints(ByteReader in, std::size_t count) noexcept {
    for (std::size_t i = 0; i < count; ++i) {
        std::span<const unsigned char> magnitude;
        if (!in.read_length_prefixed(magnitude)) return false;
        if (!magnitude.empty() && (magnitude[0] & 0x80) != 0) return false;
        if (magnitude.size() > kMaxMpintBytes + 1 ||
            (magnitude.size() == kMaxMpintBytes + 1 && magnitude[0] != 0))
            return false;
    }
    return in.empty();
}

// Padding only at the very end, as OpenSSH's decoder wants; the shared
// decoder also takes a padded group in the middle of a text.
bool padded_only_at_end(std::string_view text) noexcept {
    const std::size_t pad = text.find('=');
    return pad == std::string_view::npos ||
           text.find_first_not_of('=', pad) == std::string_view::npos;
}

// What follows the ECDSA type name of a curve, as OpenSSH reads it: the
// curve identifier the type name ends with, one uncompressed point, nothing
// after it; the point must be one the ECDSA reader accepts.
bool strict_ecdsa_tail(const pkey::curves::Curve &curve, ByteReader in) noexcept {
    const ByteReader tail = in;
    std::span<const unsigned char> id;
    std::span<const unsigned char> point;
    if (!in.read_length_prefixed(id) || !in.read_length_prefixed(point) || !in.empty())
        return false;
    if (curve.ssh_id != std::string_view(reinterpret_cast<const char *>(id.data()), id.size()))
        return false;
    if (point.empty() || point[0] != POINT_CONVERSION_UNCOMPRESSED) return false;
    if (tail.remaining() > UINT32_MAX) return false;
    const EvpPkeyPtr key(
        PKEY_ReadECDSAPubKey(tail.position(), static_cast<unsigned int>(tail.remaining())));
    return static_cast<bool>(key);
}

// A public key of the given OpenSSL type from mpints read in blob order;
// whatever follows the last one is ignored.
EvpPkeyPtr public_key_from_blob(const char *type, ComponentNames names, ByteReader &in) noexcept {
    std::array<BignumPtr, kMaxComponents> bn;
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    if (!bld) return nullptr;
    for (std::size_t i = 0; i < names.size(); ++i) {
        bn[i] = read_mpint(in);
        if (!bn[i] || OSSL_PARAM_BLD_push_BN(bld.get(), names[i], bn[i].get()) != 1) return nullptr;
    }
    return pkey::key_from_builder(type, EVP_PKEY_PUBLIC_KEY, bld.get());
}

bool is_rsa_name(std::string_view name) noexcept {
    for (const std::string_view alias : kRsaNames) {
        if (name == alias) return true;
    }
    return false;
}

bool same_components(const EVP_PKEY *a, const EVP_PKEY *b, ComponentNames names) noexcept {
    const PublicComponents ca(a, names), cb(b, names);
    if (!ca || !cb) return false;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (BN_cmp(ca.all()[i].get(), cb.all()[i].get()) != 0) return false;
    }
    return true;
}

// Both public points compared on the second key's group; the curves
// themselves are not compared, but a point off that group's curve differs.
bool points_equal(const EVP_PKEY *a, const EVP_PKEY *b) noexcept {
    const int nid = pkey::curves::nid_of_key(b);
    const EC_GROUP *group = pkey::curves::group(nid);
    EcGroupPtr other;
    if (group == nullptr && nid != NID_undef) {
        other.reset(EC_GROUP_new_by_curve_name(nid));
        group = other.get();
    }
    if (group == nullptr) return false;
    BnCtxPtr ctx(BN_CTX_new());
    if (!ctx) return false;
    const EcPointPtr pa = pkey::curves::public_point(a, group, ctx.get());
    const EcPointPtr pb = pkey::curves::public_point(b, group, ctx.get());
    return pa && pb && EC_POINT_cmp(group, pa.get(), pb.get(), ctx.get()) == 0;
}

bool same_point(const EVP_PKEY *a, const EVP_PKEY *b) noexcept {
    // A point that does not decode on the other curve is an answer, not an
    // error: keep it off the caller's error queue.
    ERR_set_mark();
    const bool same = points_equal(a, b);
    ERR_pop_to_mark();
    return same;
}

}  // namespace

extern "C" {

unsigned int PKEY_PUBKEY_GetBufLenFromKeyReserve(EVP_PKEY * /*key*/, int /*ssh2*/) noexcept {
    return 0;
}

unsigned int PKEY_PUBKEY_GetBufLenFromRSAKey(EVP_PKEY *key, int ssh2) noexcept {
    return bound_of(key, ssh2, kRsaBlobOrder, kRsaSlack);
}

unsigned int PKEY_PUBKEY_GetBufLenFromDSAKey(EVP_PKEY *key, int ssh2) noexcept {
    return bound_of(key, ssh2, kDsaBlobOrder, kDsaSlack);
}

unsigned int PKEY_PUBKEY_GetBufLenFromECDSAKey(EVP_PKEY * /*key*/, int /*ssh2*/) noexcept {
    return 0;
}

unsigned int PKEY_PUBKEY_FillKeyToBufReserve(EVP_PKEY * /*key*/, unsigned char * /*buf*/,
                                             unsigned int * /*written*/) noexcept {
    return PKEY_ERR_FAILED;
}

unsigned int PKEY_PUBKEY_FillRSAKeyToBuf(EVP_PKEY *key, unsigned char *buf,
                                         unsigned int *written) noexcept {
    return fill_blob(key, kSshRsa, kRsaBlobOrder, kRsaSlack, buf, written);
}

unsigned int PKEY_PUBKEY_FillDSAKeyToBuf(EVP_PKEY *key, unsigned char *buf,
                                         unsigned int *written) noexcept {
    return fill_blob(key, kSshDss, kDsaBlobOrder, kDsaSlack, buf, written);
}

unsigned int PKEY_PUBKEY_FillECDSAKeyToBuf(EVP_PKEY * /*key*/, unsigned char * /*buf*/,
                                           unsigned int * /*written*/) noexcept {
    return PKEY_ERR_FAILED;
}

void PKEY_PUBKEY_FillBNToBuf(const BIGNUM *bn, unsigned char **cursor,
                             unsigned int *total) noexcept {
    if (bn == nullptr || cursor == nullptr || *cursor == nullptr || total == nullptr) return;
    ByteWriter out(*cursor, kLengthField + 1 + static_cast<std::size_t>(BN_num_bytes(bn)));
    if (!put_mpint(out, bn)) return;
    *cursor += out.size();
    *total += static_cast<unsigned int>(out.size());
}

unsigned int PKEY_PUBKEY_GetBNFromKeyBuf(const unsigned char **cursor, unsigned int *remaining,
                                         BIGNUM **bnOut) noexcept {
    if (cursor == nullptr || *cursor == nullptr || remaining == nullptr || bnOut == nullptr)
        return PKEY_ERR_FAILED;
    ByteReader in(*cursor, *remaining);
    BignumPtr bn = read_mpint(in);
    if (!bn) return PKEY_ERR_FAILED;
    *cursor = in.position();
    *remaining = static_cast<unsigned int>(in.remaining());
    *bnOut = bn.release();
    return 0;
}

char *PKEY_PUBKEY_EvppkeyToBase64(EVP_PKEY *key, int ssh2, unsigned int *outLen) noexcept {
    return pkey::c_boundary<char *>(nullptr, [&]() -> char * {
        if (key == nullptr || outLen == nullptr) return nullptr;
        const unsigned int id =
            PKEY_PUBKEY_GetPkeyAlgIdByEvpId(static_cast<unsigned int>(EVP_PKEY_get_id(key)));
        if (id >= PKEY_ALG_UNSUPPORTED) return nullptr;
        // ECDSA has one form only, whatever was asked for.
        if (id == PKEY_ALG_ECDSA) return PKEY_EC_EcToBase64(key, outLen);
        if (id == PKEY_ALG_RSA && ssh2 == 0) return rsa_ssh1_text(key, outLen);

        // A zero bound also refuses the SSH1 form of a DSA key.
        const unsigned int bound = g_apfPKEYGetBufLenFromKey[id](key, ssh2);
        if (bound == 0) return nullptr;
        MallocPtr<unsigned char> blob(static_cast<unsigned char *>(std::calloc(bound, 1)));
        if (!blob) return nullptr;
        unsigned int written = 0;
        if (g_apfPKEYFillKeyToBuf[id](key, blob.get(), &written) != 0) return nullptr;
        std::size_t chars = 0;
        MallocPtr<char> text = pkey::base64_line({blob.get(), written}, &chars);
        if (!text) return nullptr;
        *outLen = static_cast<unsigned int>(chars) + 1;  // the terminator counts here
        return text.release();
    });
}

EVP_PKEY *PKEY_PUBKEY_Base64toEvppkey(const char *text) noexcept {
    return pkey::c_boundary<EVP_PKEY *>(nullptr, [&]() -> EVP_PKEY * {
        const DecodedBlob blob(text);
        if (!blob) return nullptr;

        // The type name, then at least one byte of key data.
        ByteReader in = blob.reader();
        std::uint32_t nameLen = 0;
        std::span<const unsigned char> nameBytes;
        if (!in.read_u32(nameLen) || nameLen >= in.remaining() ||
            !in.read_bytes(nameLen, nameBytes))
            return nullptr;
        const std::string_view name(reinterpret_cast<const char *>(nameBytes.data()),
                                    nameBytes.size());

        if (is_rsa_name(name)) return public_key_from_blob("RSA", kRsaBlobOrder, in).release();
        if (name == kSshDss) return public_key_from_blob("DSA", kDsaBlobOrder, in).release();
        if (name.starts_with(kEcdsaPrefix)) {
            // The ECDSA reader refuses anything longer than a key buffer holds.
            if (in.remaining() > UINT32_MAX) return nullptr;
            return PKEY_ReadECDSAPubKey(in.position(), static_cast<unsigned int>(in.remaining()));
        }
        return nullptr;
    });
}

int PKEY_PUBKEY_IsBase64BlobStrict(const char *text, const char *typeName) noexcept {
    return pkey::c_boundary<int>(0, [&]() -> int {
        if (text == nullptr || !padded_only_at_end(text)) return 0;
        const DecodedBlob blob(text);
        if (!blob) return 0;
        ByteReader in = blob.reader();
        std::span<const unsigned char> nameBytes;
        if (!in.read_length_prefixed(nameBytes)) return 0;
        const std::string_view type(reinterpret_cast<const char *>(nameBytes.data()),
                                    nameBytes.size());
        if (typeName != nullptr && type != typeName) return 0;

        // A refused point or number is an answer, not an error of the caller's.
        ERR_set_mark();
        bool strict = false;
        if (type == kSshRsa) {
            strict = strict_mpints(in, std::size(kRsaBlobOrder)) &&
                     public_key_from_blob("RSA", kRsaBlobOrder, in) != nullptr;
        } else if (type == kSshDss) {
            strict = strict_mpints(in, std::size(kDsaBlobOrder)) &&
                     public_key_from_blob("DSA", kDsaBlobOrder, in) != nullptr;
        } else if (const pkey::curves::Curve *curve = pkey::curves::by_ssh_type(type)) {
            strict = strict_ecdsa_tail(*curve, in);
        }
        ERR_pop_to_mark();
        return strict ? 1 : 0;
    });
}

int PKEY_CmpPubKey(const EVP_PKEY *a, const EVP_PKEY *b) noexcept {
    return pkey::c_boundary<int>(0, [&]() -> int {
        if (a == nullptr || b == nullptr) return 0;
        const int type = EVP_PKEY_get_id(a);
        if (type != EVP_PKEY_get_id(b)) return 0;
        switch (type) {
            case EVP_PKEY_RSA: return same_components(a, b, kRsaBlobOrder) ? 1 : 0;
            case EVP_PKEY_DSA: return same_components(a, b, kDsaBlobOrder) ? 1 : 0;
            case EVP_PKEY_EC: return same_point(a, b) ? 1 : 0;
            default: return 0;
        }
    });
}

}  // extern "C"
