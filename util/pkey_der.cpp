// Fast decoding of the library's canonical DER key forms, with OpenSSL's
// decoders behind them for everything else; the encoding of peer keys with
// their EC curve named.
#include "pkey_der.hpp"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/param_build.h>
#include <openssl/x509.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstring>

#include "pkey_curves.hpp"
#include "pkey_der_reader.hpp"

namespace pkey::der {
namespace {

constexpr unsigned char kRsaOid[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};
constexpr unsigned char kDsaOid[] = {0x2A, 0x86, 0x48, 0xCE, 0x38, 0x04, 0x01};
using curves::Curve;

// An uncompressed point of the curve: 0x04, X, Y.
bool uncompressed_point(Bytes point, const Curve &curve) noexcept {
    return point.size() == 1 + 2 * curve.field_bytes && point[0] == 0x04;
}

BignumPtr bignum(Bytes magnitude, bool secret) noexcept {
    BignumPtr bn(secret ? BN_secure_new() : BN_new());
    if (!bn || magnitude.size() > static_cast<std::size_t>(INT32_MAX) ||
        BN_bin2bn(magnitude.data(), static_cast<int>(magnitude.size()), bn.get()) == nullptr)
        return nullptr;
    return bn;
}

// A key of type from named numbers; NULL when OpenSSL refuses them.
template <std::size_t N>
EvpPkeyPtr key_from_numbers(const char *type, int selection,
                            const std::array<const char *, N> &names,
                            const std::array<Bytes, N> &values) noexcept {
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    std::array<BignumPtr, N> bns;
    if (!bld) return nullptr;
    for (std::size_t i = 0; i < N; ++i) {
        bns[i] = bignum(values[i], false);
        if (!bns[i] || OSSL_PARAM_BLD_push_BN(bld.get(), names[i], bns[i].get()) != 1)
            return nullptr;
    }
    return key_from_builder(type, selection, bld.get());
}

// The canonical SubjectPublicKeyInfo forms; NULL for anything else.
EvpPkeyPtr fast_public_key(Bytes der) noexcept {
    DerReader outer(der);
    Bytes spki, algorithm, bits;
    if (!outer.read(kSequence, spki) || !outer.empty()) return nullptr;
    DerReader body(spki);
    if (!body.read(kSequence, algorithm) || !body.read_octet_aligned_bits(bits) || !body.empty())
        return nullptr;

    DerReader alg(algorithm);
    Bytes key_bytes;
    if (alg.read_expected(kOid, kRsaOid)) {
        Bytes null_params, n, e;
        DerReader key(bits);
        if (!alg.read(kNull, null_params) || !null_params.empty() || !alg.empty() ||
            !key.read(kSequence, key_bytes) || !key.empty())
            return nullptr;
        DerReader numbers(key_bytes);
        if (!numbers.read_positive_integer(n) || !numbers.read_positive_integer(e) ||
            !numbers.empty())
            return nullptr;
        return key_from_numbers<2>("RSA", EVP_PKEY_PUBLIC_KEY,
                                   {OSSL_PKEY_PARAM_RSA_N, OSSL_PKEY_PARAM_RSA_E}, {n, e});
    }
    if (alg.read_expected(kOid, kDsaOid)) {
        Bytes params, p, q, g, y;
        if (!alg.read(kSequence, params) || !alg.empty()) return nullptr;
        DerReader domain(params);
        if (!domain.read_positive_integer(p) || !domain.read_positive_integer(q) ||
            !domain.read_positive_integer(g) || !domain.empty())
            return nullptr;
        DerReader key(bits);
        if (!key.read_positive_integer(y) || !key.empty()) return nullptr;
        return key_from_numbers<4>("DSA", EVP_PKEY_PUBLIC_KEY,
                                   {OSSL_PKEY_PARAM_FFC_P, OSSL_PKEY_PARAM_FFC_Q,
                                    OSSL_PKEY_PARAM_FFC_G, OSSL_PKEY_PARAM_PUB_KEY},
                                   {p, q, g, y});
    }
    if (alg.read_expected(kOid, curves::oid::kEcPublicKey)) {
        Bytes curve_oid;
        if (!alg.read(kOid, curve_oid) || !alg.empty()) return nullptr;
        const Curve *curve = curves::by_oid(curve_oid);
        if (curve == nullptr || !uncompressed_point(bits, *curve)) return nullptr;
        return curves::public_key(*curve, bits);
    }
    return nullptr;
}

// ECPrivateKey with version 1, a named curve and the public point; NULL otherwise.
EvpPkeyPtr fast_ec_private_key(Bytes der) noexcept {
    DerReader outer(der);
    Bytes body, priv, params, pub_wrap, curve_oid, point;
    if (!outer.read(kSequence, body) || !outer.empty()) return nullptr;
    static constexpr unsigned char kVersion1[] = {0x01};
    DerReader fields(body);
    if (!fields.read_expected(kInteger, kVersion1) || !fields.read(kOctetString, priv) ||
        !fields.read(kExplicit0, params) || !fields.read(kExplicit1, pub_wrap) || !fields.empty())
        return nullptr;
    DerReader curve_field(params), pub_field(pub_wrap);
    if (!curve_field.read(kOid, curve_oid) || !curve_field.empty() ||
        !pub_field.read_octet_aligned_bits(point) || !pub_field.empty())
        return nullptr;
    const Curve *curve = curves::by_oid(curve_oid);
    if (curve == nullptr || !uncompressed_point(point, *curve) || priv.empty() ||
        priv.size() > curve->field_bytes)
        return nullptr;

    BignumPtr scalar = bignum(priv, true);
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    if (!scalar || BN_is_zero(scalar.get()) || !bld ||
        OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_GROUP_NAME, curve->short_name,
                                        0) != 1 ||
        OSSL_PARAM_BLD_push_octet_string(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                         point.size()) != 1 ||
        OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_PRIV_KEY, scalar.get()) != 1)
        return nullptr;
    return key_from_builder("EC", EVP_PKEY_KEYPAIR, bld.get());
}

}  // namespace

SpkiResult decode_public_key(Bytes der) noexcept {
    SpkiResult result;
    result.key = fast_public_key(der);
    if (result.key) {
        result.canonical = true;
        return result;
    }
    if (der.size() > static_cast<std::size_t>(LONG_MAX)) return result;
    const unsigned char *p = der.data();
    result.key.reset(d2i_PUBKEY(nullptr, &p, static_cast<long>(der.size())));
    return result;
}

EvpPkeyPtr decode_ec_private_key(Bytes der) noexcept {
    if (EvpPkeyPtr key = fast_ec_private_key(der)) return key;
    if (der.size() > static_cast<std::size_t>(LONG_MAX)) return nullptr;
    const unsigned char *p = der.data();
    return EvpPkeyPtr(d2i_PrivateKey(EVP_PKEY_EC, nullptr, &p, static_cast<long>(der.size())));
}

namespace {

using X509PubkeyPtr = std::unique_ptr<X509_PUBKEY, FnDeleter<X509_PUBKEY_free>>;

// The SubjectPublicKeyInfo of a point on a named curve, built as i2d_PUBKEY
// builds it for an EC key marked as named curve.
DerBytes named_ec_spki(int curve_nid, Bytes point) noexcept {
    X509PubkeyPtr spki(X509_PUBKEY_new());
    ASN1_OBJECT *curve = OBJ_nid2obj(curve_nid);
    if (!spki || curve == nullptr || point.size() > static_cast<std::size_t>(INT_MAX)) return {};
    auto *encoded = static_cast<unsigned char *>(OPENSSL_memdup(point.data(), point.size()));
    if (encoded == nullptr) return {};
    if (X509_PUBKEY_set0_param(spki.get(), OBJ_nid2obj(NID_X9_62_id_ecPublicKey), V_ASN1_OBJECT,
                               curve, encoded, static_cast<int>(point.size())) != 1) {
        OPENSSL_free(encoded);
        return {};
    }
    unsigned char *out = nullptr;
    const int len = i2d_X509_PUBKEY(spki.get(), &out);
    DerBytes der;
    der.bytes.reset(out);
    der.len = len > 0 && out != nullptr ? static_cast<std::size_t>(len) : 0;
    return der;
}

}  // namespace

DerBytes public_key_der(const EVP_PKEY *key) noexcept {
    DerBytes der;
    if (key == nullptr) return der;
    unsigned char *out = nullptr;
    const int len = i2d_PUBKEY(key, &out);
    der.bytes.reset(out);
    der.len = len > 0 && out != nullptr ? static_cast<std::size_t>(len) : 0;
    return der;
}

DerBytes name_ec_curve(DerBytes spki) noexcept {
    curves::EcSpki parts;
    // A key that names its curve, the common case, costs only this reading.
    if (!spki || !curves::read_ec_spki(spki.span(), parts) || parts.named) return spki;
    const int nid = curves::named_curve_of(parts.params);
    if (nid == NID_undef) return spki;
    return named_ec_spki(nid, parts.point);
}

DerBytes encode_public_key(const EVP_PKEY *key) noexcept {
    return name_ec_curve(public_key_der(key));
}

}  // namespace pkey::der
