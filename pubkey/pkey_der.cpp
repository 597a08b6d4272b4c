// Fast decoding of the library's canonical DER key forms, with OpenSSL's
// decoders behind them for everything else; the encoding of peer keys with
// their EC curve named.
#include "pubkey/pkey_der.hpp"

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

#include "pkey_der_reader.hpp"

namespace pkey::der {
namespace {

constexpr unsigned char kRsaOid[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};
constexpr unsigned char kDsaOid[] = {0x2A, 0x86, 0x48, 0xCE, 0x38, 0x04, 0x01};
constexpr unsigned char kEcOid[] = {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};

struct NamedCurve {
    Bytes oid;
    const char *name;
    std::size_t field_bytes;
    int nid;
};

constexpr unsigned char kP192[] = {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x01};
constexpr unsigned char kP224[] = {0x2B, 0x81, 0x04, 0x00, 0x21};
constexpr unsigned char kP256[] = {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
constexpr unsigned char kP384[] = {0x2B, 0x81, 0x04, 0x00, 0x22};
constexpr unsigned char kP521[] = {0x2B, 0x81, 0x04, 0x00, 0x23};

const std::array<NamedCurve, 5> kCurves{{
    {kP192, SN_X9_62_prime192v1, 24, NID_X9_62_prime192v1},
    {kP224, SN_secp224r1, 28, NID_secp224r1},
    {kP256, SN_X9_62_prime256v1, 32, NID_X9_62_prime256v1},
    {kP384, SN_secp384r1, 48, NID_secp384r1},
    {kP521, SN_secp521r1, 66, NID_secp521r1},
}};

const NamedCurve *find_curve(Bytes oid) noexcept {
    for (const NamedCurve &c : kCurves)
        if (oid.size() == c.oid.size() && std::equal(oid.begin(), oid.end(), c.oid.begin())) return &c;
    return nullptr;
}

// An uncompressed point of the curve: 0x04, X, Y.
bool uncompressed_point(Bytes point, const NamedCurve &curve) noexcept {
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
EvpPkeyPtr key_from_numbers(const char *type, int selection, const std::array<const char *, N> &names,
                            const std::array<Bytes, N> &values) noexcept {
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    std::array<BignumPtr, N> bns;
    if (!bld) return nullptr;
    for (std::size_t i = 0; i < N; ++i) {
        bns[i] = bignum(values[i], false);
        if (!bns[i] || OSSL_PARAM_BLD_push_BN(bld.get(), names[i], bns[i].get()) != 1) return nullptr;
    }
    return key_from_builder(type, selection, bld.get());
}

// Per curve, a key holding only the curve, made once. Copying it costs a
// third of building a key from the curve's name, which sets up the curve anew.
const EVP_PKEY *curve_template(std::size_t index) noexcept {
    static const std::array<EVP_PKEY *, kCurves.size()> templates = [] {
        std::array<EVP_PKEY *, kCurves.size()> made{};
        for (std::size_t i = 0; i < kCurves.size(); ++i) {
            OSSL_PARAM params[] = {
                OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME,
                                                 const_cast<char *>(kCurves[i].name), 0),
                OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_EC_ENCODING,
                                                 const_cast<char *>(OSSL_PKEY_EC_ENCODING_GROUP), 0),
                OSSL_PARAM_construct_end()};
            made[i] = key_from_params("EC", EVP_PKEY_KEY_PARAMETERS, params).release();
        }
        return made;
    }();
    return templates[index];
}

EvpPkeyPtr public_key_on(std::size_t curve_index, Bytes point) noexcept {
    const EVP_PKEY *tmpl = curve_template(curve_index);
    EvpPkeyPtr key(tmpl != nullptr ? EVP_PKEY_dup(const_cast<EVP_PKEY *>(tmpl)) : nullptr);
    // Setting the point decodes it and checks that it lies on the curve.
    if (key && EVP_PKEY_set1_encoded_public_key(key.get(), point.data(), point.size()) == 1)
        return key;
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME,
                                         const_cast<char *>(kCurves[curve_index].name), 0),
        OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY,
                                          const_cast<unsigned char *>(point.data()), point.size()),
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_EC_ENCODING,
                                         const_cast<char *>(OSSL_PKEY_EC_ENCODING_GROUP), 0),
        OSSL_PARAM_construct_end()};
    return key_from_params("EC", EVP_PKEY_PUBLIC_KEY, params);
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
        if (!numbers.read_positive_integer(n) || !numbers.read_positive_integer(e) || !numbers.empty())
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
    if (alg.read_expected(kOid, kEcOid)) {
        Bytes curve_oid;
        if (!alg.read(kOid, curve_oid) || !alg.empty()) return nullptr;
        const NamedCurve *curve = find_curve(curve_oid);
        if (curve == nullptr || !uncompressed_point(bits, *curve)) return nullptr;
        return public_key_on(static_cast<std::size_t>(curve - kCurves.data()), bits);
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
    const NamedCurve *curve = find_curve(curve_oid);
    if (curve == nullptr || !uncompressed_point(point, *curve) || priv.empty() ||
        priv.size() > curve->field_bytes)
        return nullptr;

    BignumPtr scalar = bignum(priv, true);
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    if (!scalar || BN_is_zero(scalar.get()) || !bld ||
        OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_GROUP_NAME, curve->name, 0) != 1 ||
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

EvpPkeyPtr ec_public_key(int curve_nid, Bytes point) noexcept {
    for (std::size_t i = 0; i < kCurves.size(); ++i)
        if (kCurves[i].nid == curve_nid) return public_key_on(i, point);
    return nullptr;
}

EvpPkeyPtr decode_ec_private_key(Bytes der) noexcept {
    if (EvpPkeyPtr key = fast_ec_private_key(der)) return key;
    if (der.size() > static_cast<std::size_t>(LONG_MAX)) return nullptr;
    const unsigned char *p = der.data();
    return EvpPkeyPtr(d2i_PrivateKey(EVP_PKEY_EC, nullptr, &p, static_cast<long>(der.size())));
}

namespace {

using X509PubkeyPtr = std::unique_ptr<X509_PUBKEY, FnDeleter<X509_PUBKEY_free>>;

// An EC SubjectPublicKeyInfo taken apart: the AlgorithmIdentifier's parameters
// as encoded (tag and length included), which either name the curve (an OID)
// or spell it out (a SEQUENCE), and the point as it stands in the BIT STRING.
struct EcSpki {
    Bytes params;
    bool named = false;
    Bytes point;
};

bool read_ec_spki(Bytes der, EcSpki &out) noexcept {
    DerReader outer(der);
    Bytes spki, algorithm, contents;
    if (!outer.read(kSequence, spki) || !outer.empty()) return false;
    DerReader body(spki);
    if (!body.read(kSequence, algorithm) || !body.read_octet_aligned_bits(out.point) ||
        !body.empty() || out.point.empty())
        return false;
    DerReader alg(algorithm);
    if (!alg.read_expected(kOid, kEcOid)) return false;
    const std::size_t start = alg.consumed_from(algorithm);
    out.named = alg.read(kOid, contents);
    if (!out.named && !alg.read(kSequence, contents)) return false;
    if (!alg.empty()) return false;
    out.params = algorithm.subspan(start);
    return true;
}

// The named curve that encoded EC parameters describe, by NID; NID_undef when
// they describe none. A group decoded from spelled-out parameters already
// carries the name of the curve they match; the lookup in OpenSSL's curve
// table is there for a group that comes back without it.
int named_curve_of(Bytes params) noexcept {
    if (params.size() > static_cast<std::size_t>(LONG_MAX)) return NID_undef;
    // Parameters of no known curve are an answer, not an error.
    ERR_set_mark();
    const unsigned char *p = params.data();
    const EcGroupPtr group(d2i_ECPKParameters(nullptr, &p, static_cast<long>(params.size())));
    int nid = NID_undef;
    if (group) {
        nid = EC_GROUP_get_curve_name(group.get());
        if (nid == NID_undef) nid = EC_GROUP_check_named_curve(group.get(), 0, nullptr);
    }
    ERR_pop_to_mark();
    return nid > 0 ? nid : NID_undef;
}

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
    EcSpki parts;
    // A key that names its curve, the common case, costs only this reading.
    if (!spki || !read_ec_spki(spki.span(), parts) || parts.named) return spki;
    const int nid = named_curve_of(parts.params);
    if (nid == NID_undef) return spki;
    return named_ec_spki(nid, parts.point);
}

DerBytes encode_public_key(const EVP_PKEY *key) noexcept {
    return name_ec_curve(public_key_der(key));
}

int encoded_curve_nid(const EVP_PKEY *key) noexcept {
    if (key == nullptr || EVP_PKEY_get_id(key) != EVP_PKEY_EC) return NID_undef;
    ERR_set_mark();  // a key OpenSSL cannot encode has no curve to tell
    const DerBytes der = public_key_der(key);
    ERR_pop_to_mark();
    EcSpki parts;
    if (!der || !read_ec_spki(der.span(), parts)) return NID_undef;
    return named_curve_of(parts.params);
}

}  // namespace pkey::der
