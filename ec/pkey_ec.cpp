// ECDSA public keys in their SSH form: the curve identifier and point of a key
// buffer read into a key after a full validation of the point, and the whole
// key buffer of a key written as one line of Base64.
//
// Only the NIST prime curves P-192, P-256, P-384 and P-521 are read or
// written, and only uncompressed points. Each curve's group is built once per
// process and shared by every call and thread; nothing ever modifies a group
// after it is built, and per-call work stays on points and numbers of its own.
#include "pkey_ec.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/objects.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <utility>

#include "ec/pkey_ec_read.hpp"
#include "pkey_base64.hpp"
#include "pkey_curves.hpp"
#include "pkey_util.hpp"

namespace {

using pkey::BnCtxPtr;
using pkey::ByteReader;
using pkey::ByteWriter;
using pkey::EcPointPtr;
using pkey::EvpPkeyPtr;
using pkey::MallocPtr;
using pkey::curves::Curve;

// One row per ECDSA key type. A walk stops at the row whose type code is -1.
// The short name and the flag are part of the row but play no part here.
struct EcTypeRow {
    const char *pcName;       // key type name written into the key buffer
    const char *pcShortName;  // algorithm's short name
    int iType;                // 0 for an ECDSA key type; -1 ends the table
    int iNid;                 // curve
    unsigned int uiFlag;      // always 0
};

// The curve of a key type name, as the curve table gives it.
constexpr int type_nid(std::string_view name) noexcept {
    const std::size_t i = pkey::curves::ssh_type_index(name);
    return i < pkey::curves::kCurves.size() ? pkey::curves::kCurves[i].nid : NID_undef;
}

constexpr EcTypeRow g_astEcType[5] = {
    {"ecdsa-sha2-nistp192", "ECDSA", 0, type_nid("ecdsa-sha2-nistp192"), 0},
    {"ecdsa-sha2-nistp256", "ECDSA", 0, type_nid("ecdsa-sha2-nistp256"), 0},
    {"ecdsa-sha2-nistp384", "ECDSA", 0, type_nid("ecdsa-sha2-nistp384"), 0},
    {"ecdsa-sha2-nistp521", "ECDSA", 0, type_nid("ecdsa-sha2-nistp521"), 0},
    {nullptr, nullptr, -1, -1, 0},
};
static_assert(std::ranges::none_of(g_astEcType,
                                   [](const EcTypeRow &row) { return row.iNid == NID_undef; }),
              "every key type name is an SSH curve's");

// Curve identifiers of the key buffer, all of one length.
constexpr std::size_t kCurveIdLen = pkey::curves::kSshIdLen;

constexpr unsigned int kMinReadLen = 20;
constexpr unsigned int kMaxReadLen = 512;
constexpr std::uint32_t kMaxPointLen = 134;  // refused from here on; P-521's 133 is the largest
constexpr unsigned int kMinPointField = 8;   // length field and at least the form byte
constexpr std::uint8_t kUncompressed = POINT_CONVERSION_UNCOMPRESSED;
constexpr std::size_t kLengthFields = 12;  // the three length fields of the key buffer

// The key being read and the point it is read into, released together.
struct EcRes {
    EVP_PKEY *pstKey = nullptr;
    EC_POINT *pstPoint = nullptr;
    EcRes() = default;
    EcRes(const EcRes &) = delete;
    EcRes &operator=(const EcRes &) = delete;
    ~EcRes();
};

void _ec_FreeECRes(EcRes &res) noexcept {
    if (res.pstKey != nullptr) {
        EVP_PKEY_free(res.pstKey);
        res.pstKey = nullptr;
    }
    if (res.pstPoint != nullptr) {
        EC_POINT_free(res.pstPoint);
        res.pstPoint = nullptr;
    }
}

EcRes::~EcRes() { _ec_FreeECRes(*this); }

// The key buffer's 32-bit big-endian length fields.
bool _ec_PutLenToBuf(std::size_t len, ByteWriter &out) noexcept {
    return len <= UINT32_MAX && out.put_u32(static_cast<std::uint32_t>(len));
}
bool _ec_GetBufToLen(ByteReader &in, std::uint32_t &len) noexcept { return in.read_u32(len); }

// The point field's bytes as the decoder took them: q bytes, of which those
// beyond the buffer's end read as zero. Wiped once the read is over.
struct PointOctets {
    unsigned char bytes[kMaxPointLen] = {};
    std::size_t len = 0;
    PointOctets() = default;
    PointOctets(const PointOctets &) = delete;
    PointOctets &operator=(const PointOctets &) = delete;
    ~PointOctets() { OPENSSL_cleanse(bytes, sizeof bytes); }
    std::span<const unsigned char> span() const noexcept { return {bytes, len}; }
};

// Decodes the point field (length and point) at p, remain bytes from the end
// of the key buffer, into point, and keeps the bytes decoded in octets.
// 0 or PKEY_ERR_FAILED.
unsigned int _ec_buffer_get_ecpoint_ret(const unsigned char *p, unsigned int remain,
                                        const EC_GROUP *group, EC_POINT *point, BN_CTX *ctx,
                                        PointOctets &octets) noexcept {
    if (p == nullptr || group == nullptr || point == nullptr || remain < kMinPointField)
        return PKEY_ERR_FAILED;
    ByteReader in(p, remain);
    std::uint32_t q = 0;
    if (!_ec_GetBufToLen(in, q) || q >= kMaxPointLen) return PKEY_ERR_FAILED;
    // The length is measured against the count that still includes its own
    // field, so a point up to 4 bytes longer than what is left gets past this
    // test and is left to the decoder.
    if (q > remain || q == 0) return PKEY_ERR_FAILED;
    // remain >= 8, so the form byte is there; only the uncompressed form is read.
    std::uint8_t form = 0;
    if (!ByteReader(in).read_u8(form) || form != kUncompressed) return PKEY_ERR_FAILED;

    // The decoder gets all q bytes; those beyond the buffer's end read as zero
    // and are never fetched from past it.
    std::span<const unsigned char> present;
    if (!in.read_bytes(std::min<std::size_t>(q, in.remaining()), present)) return PKEY_ERR_FAILED;
    std::memcpy(octets.bytes, present.data(), present.size());
    octets.len = q;
    // The decoder checks that both coordinates lie below the field's prime and
    // that the point is on the curve.
    return EC_POINT_oct2point(group, point, octets.bytes, q, ctx) == 1 ? 0 : PKEY_ERR_FAILED;
}

// The affine coordinates of a point from its uncompressed encoding, 0x04
// then X and Y at the field's width. Once the decoder has taken the bytes
// (coordinates below the prime, point on the curve), they are the point's own
// coordinates, and reading them costs nothing next to computing them from the
// point, which takes a field inversion.
bool affine_of_encoding(const EC_GROUP *group, std::span<const unsigned char> encoding, BIGNUM *x,
                        BIGNUM *y) noexcept {
    const int degree = EC_GROUP_get_degree(group);
    if (degree <= 0) return false;
    const std::size_t width = (static_cast<std::size_t>(degree) + 7) / 8;
    if (encoding.size() != 1 + 2 * width || encoding[0] != kUncompressed) return false;
    const int w = static_cast<int>(width);
    return BN_bin2bn(encoding.data() + 1, w, x) != nullptr &&
           BN_bin2bn(encoding.data() + 1 + width, w, y) != nullptr;
}

// Key type name of a curve: the first ECDSA row of g_astEcType with its NID.
const char *key_type_name_of_nid(int nid) noexcept {
    for (const EcTypeRow *row = g_astEcType; row->iType != -1; ++row) {
        if (row->iType == 0 && row->iNid == nid) return row->pcName;
    }
    return nullptr;
}

// A public EC key of the curve holding point, encoded anew from the point (the
// full reader's way); the key names its curve when encoded.
EvpPkeyPtr public_key_of(const Curve &curve, const EC_GROUP *group,
                         const EC_POINT *point) noexcept {
    unsigned char octets[kMaxPointLen];
    const std::size_t len = EC_POINT_point2oct(group, point, POINT_CONVERSION_UNCOMPRESSED, octets,
                                               sizeof octets, nullptr);
    if (len == 0) return nullptr;
    return pkey::curves::public_key(curve, {octets, len});
}

}  // namespace

namespace pkey::ec {

bool public_point_valid(const EC_GROUP *group, const EC_POINT *point,
                        std::span<const unsigned char> encoding, PointValidation validation,
                        BN_CTX *ctx) noexcept {
    if (group == nullptr || point == nullptr || ctx == nullptr) return false;
    if (EC_GROUP_get_field_type(group) != NID_X9_62_prime_field) return false;
    if (EC_POINT_is_at_infinity(group, point) != 0) return false;

    const pkey::BnCtxFrame frame(ctx);
    BIGNUM *x = BN_CTX_get(ctx);
    BIGNUM *y = BN_CTX_get(ctx);
    BIGNUM *tmp = BN_CTX_get(ctx);  // once a get fails, every later one does
    const BIGNUM *order = EC_GROUP_get0_order(group);
    if (tmp == nullptr || order == nullptr || BN_is_zero(order)) return false;
    if (validation == PointValidation::kFull) {
        if (EC_POINT_get_affine_coordinates(group, point, x, y, ctx) != 1) return false;
    } else if (!affine_of_encoding(group, encoding, x, y)) {
        return false;
    }

    const int half = BN_num_bits(order) / 2;
    if (BN_num_bits(x) <= half || BN_num_bits(y) <= half) return false;

    // With cofactor 1 the points of the curve form a cyclic group of the
    // prime order n, so every point but infinity has order n and n x point is
    // infinity without computing it. Any other cofactor leaves points of other
    // orders on the curve, and only the multiplication tells them apart.
    const BIGNUM *cofactor = EC_GROUP_get0_cofactor(group);
    if (validation == PointValidation::kFull || cofactor == nullptr || BN_is_one(cofactor) == 0) {
        EcPointPtr nq(EC_POINT_new(group));
        if (!nq || EC_POINT_mul(group, nq.get(), nullptr, point, order, ctx) != 1 ||
            EC_POINT_is_at_infinity(group, nq.get()) != 1)
            return false;
    }

    if (BN_sub(tmp, order, BN_value_one()) != 1) return false;
    return BN_cmp(x, tmp) < 0 && BN_cmp(y, tmp) < 0;
}

EvpPkeyPtr read_public_key(const unsigned char *buf, unsigned int len,
                           PointValidation validation) noexcept {
    if (buf == nullptr || len < kMinReadLen || len > kMaxReadLen) return nullptr;

    ByteReader in(buf, len);
    std::uint32_t idLen = 0;
    std::span<const unsigned char> idBytes;
    if (!_ec_GetBufToLen(in, idLen) || idLen > kCurveIdLen || !in.read_bytes(idLen, idBytes))
        return nullptr;
    char id[kCurveIdLen + 1] = {};
    std::memcpy(id, idBytes.data(), idBytes.size());
    if (std::strstr(id, "nistp") == nullptr) return nullptr;

    // The curve comes from the identifier alone; the key type name in
    // front of it is not consulted.
    const Curve *curve = pkey::curves::by_ssh_id(id);
    const EC_GROUP *group = curve != nullptr ? pkey::curves::group(*curve) : nullptr;
    if (group == nullptr) return nullptr;
    EcRes res;
    res.pstPoint = EC_POINT_new(group);
    BnCtxPtr ctx(BN_CTX_new());
    if (res.pstPoint == nullptr || !ctx) return nullptr;
    PointOctets octets;
    if (_ec_buffer_get_ecpoint_ret(in.position(), static_cast<unsigned int>(in.remaining()), group,
                                   res.pstPoint, ctx.get(), octets) != 0)
        return nullptr;
    if (!public_point_valid(group, res.pstPoint, octets.span(), validation, ctx.get()))
        return nullptr;

    // The decoder takes the uncompressed form at exactly the field's width and
    // nothing else, so the bytes it took are the point's one encoding, which
    // the key can be given as they are.
    res.pstKey =
        (validation == PointValidation::kFull ? public_key_of(*curve, group, res.pstPoint)
                                              : pkey::curves::public_key(*curve, octets.span()))
            .release();
    if (res.pstKey == nullptr) return nullptr;
    EvpPkeyPtr result(std::exchange(res.pstKey, nullptr));
    _ec_FreeECRes(res);
    return result;
}

}  // namespace pkey::ec

extern "C" {

EVP_PKEY *PKEY_ReadECDSAPubKey(const unsigned char *buf, unsigned int len) noexcept {
    return pkey::c_boundary<EVP_PKEY *>(nullptr, [&]() -> EVP_PKEY * {
        return pkey::ec::read_public_key(buf, len, pkey::ec::PointValidation::kFast).release();
    });
}

char *PKEY_EC_EcToBase64(EVP_PKEY *pkey, unsigned int *outLen) noexcept {
    return pkey::c_boundary<char *>(nullptr, [&]() -> char * {
        if (pkey == nullptr || outLen == nullptr) return nullptr;
        const int nid = pkey::curves::nid_of_key(pkey);
        const char *typeName = key_type_name_of_nid(nid);
        const Curve *curve = pkey::curves::by_nid(nid);
        if (typeName == nullptr || curve == nullptr || !curve->in_ssh()) return nullptr;
        const EC_GROUP *group = pkey::curves::group(*curve);
        if (group == nullptr) return nullptr;

        BnCtxPtr ctx(BN_CTX_new());
        if (!ctx) return nullptr;
        const EcPointPtr point = pkey::curves::public_point(pkey, group, ctx.get());
        if (!point) return nullptr;
        const std::size_t q = EC_POINT_point2oct(group, point.get(), POINT_CONVERSION_UNCOMPRESSED,
                                                 nullptr, 0, ctx.get());
        if (q == 0 || q >= kMaxPointLen) return nullptr;

        // Key type name, curve identifier, point: each behind its length.
        const std::size_t typeLen = std::strlen(typeName);
        const std::size_t total = typeLen + kLengthFields + kCurveIdLen + q;
        MallocPtr<unsigned char> blob(static_cast<unsigned char *>(std::calloc(total, 1)));
        if (!blob) return nullptr;
        ByteWriter out(blob.get(), total);
        if (!_ec_PutLenToBuf(typeLen, out) || !out.put_bytes(typeName, typeLen) ||
            !_ec_PutLenToBuf(kCurveIdLen, out) ||
            !out.put_bytes(curve->ssh_id.data(), kCurveIdLen) || !_ec_PutLenToBuf(q, out))
            return nullptr;
        unsigned char *dst = out.cursor();
        if (!out.commit(q) || EC_POINT_point2oct(group, point.get(), POINT_CONVERSION_UNCOMPRESSED,
                                                 dst, q, ctx.get()) != q)
            return nullptr;

        std::size_t chars = 0;
        MallocPtr<char> text = pkey::base64_line({blob.get(), total}, &chars);
        if (!text || chars == 0) return nullptr;
        *outLen = static_cast<unsigned int>(chars) + 1;
        return text.release();
    });
}

}  // extern "C"
