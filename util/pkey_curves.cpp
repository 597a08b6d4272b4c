// The named curves' shared groups and template keys, and the curve an EC key
// or its encoding is on.
#include "pkey_curves.hpp"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <climits>
#include <utility>

#include "pkey_der_reader.hpp"

namespace pkey::curves {
namespace {

using Bytes = std::span<const unsigned char>;

std::size_t index_of(const Curve &curve) noexcept {
    return static_cast<std::size_t>(&curve - kCurves.data());
}

// Per curve, a key holding only the curve, made once. Copying it costs a
// third of building a key from the curve's name, which sets up the curve anew.
EVP_PKEY *make_template(const Curve &curve) noexcept {
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME,
                                         const_cast<char *>(curve.short_name), 0),
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_EC_ENCODING,
                                         const_cast<char *>(OSSL_PKEY_EC_ENCODING_GROUP), 0),
        OSSL_PARAM_construct_end()};
    return key_from_params("EC", EVP_PKEY_KEY_PARAMETERS, params).release();
}

// Each curve's shared object is made on the first use of that curve
// (thread-safe static initialisation) and never modified afterwards: setting
// up a curve costs more than reading a key on it, and a process that reads
// keys on one curve need not set up the others.
template <std::size_t I>
const EVP_PKEY *template_of() noexcept {
    static EVP_PKEY *const made = make_template(kCurves[I]);
    return made;
}
template <std::size_t I>
const EC_GROUP *group_of() noexcept {
    static const EC_GROUP *const made = EC_GROUP_new_by_curve_name(kCurves[I].nid);
    return made;
}
template <typename T, T (*...Made)() noexcept>
constexpr std::array<T (*)() noexcept, sizeof...(Made)> table() noexcept {
    return {Made...};
}
template <std::size_t... I>
constexpr auto template_table(std::index_sequence<I...>) noexcept {
    return table<const EVP_PKEY *, template_of<I>...>();
}
template <std::size_t... I>
constexpr auto group_table(std::index_sequence<I...>) noexcept {
    return table<const EC_GROUP *, group_of<I>...>();
}

const EVP_PKEY *curve_template(const Curve &curve) noexcept {
    static constexpr auto kTemplates = template_table(std::make_index_sequence<kCurves.size()>());
    return kTemplates[index_of(curve)]();
}

}  // namespace

const EC_GROUP *group(const Curve &curve) noexcept {
    static constexpr auto kGroups = group_table(std::make_index_sequence<kCurves.size()>());
    return kGroups[index_of(curve)]();
}

const EC_GROUP *group(int nid) noexcept {
    const Curve *curve = by_nid(nid);
    return curve != nullptr ? group(*curve) : nullptr;
}

EvpPkeyPtr public_key(const Curve &curve, Bytes point) noexcept {
    const EVP_PKEY *tmpl = curve_template(curve);
    EvpPkeyPtr key(tmpl != nullptr ? EVP_PKEY_dup(const_cast<EVP_PKEY *>(tmpl)) : nullptr);
    // Setting the point decodes it and checks that it lies on the curve.
    if (key && EVP_PKEY_set1_encoded_public_key(key.get(), point.data(), point.size()) == 1)
        return key;
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME,
                                         const_cast<char *>(curve.short_name), 0),
        OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY,
                                          const_cast<unsigned char *>(point.data()), point.size()),
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_EC_ENCODING,
                                         const_cast<char *>(OSSL_PKEY_EC_ENCODING_GROUP), 0),
        OSSL_PARAM_construct_end()};
    return key_from_params("EC", EVP_PKEY_PUBLIC_KEY, params);
}

bool read_ec_spki(Bytes der, EcSpki &out) noexcept {
    using namespace pkey::der;
    DerReader outer(der);
    Bytes spki, algorithm, contents;
    if (!outer.read(kSequence, spki) || !outer.empty()) return false;
    DerReader body(spki);
    if (!body.read(kSequence, algorithm) || !body.read_octet_aligned_bits(out.point) ||
        !body.empty() || out.point.empty())
        return false;
    DerReader alg(algorithm);
    if (!alg.read_expected(kOid, oid::kEcPublicKey)) return false;
    const std::size_t start = alg.consumed_from(algorithm);
    out.named = alg.read(kOid, contents);
    if (!out.named && !alg.read(kSequence, contents)) return false;
    if (!alg.empty()) return false;
    out.params = algorithm.subspan(start);
    return true;
}

// A group decoded from spelled-out parameters already carries the name of the
// curve they match; the lookup in OpenSSL's curve table is there for a group
// that comes back without it.
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

int encoded_nid(const EVP_PKEY *key) noexcept {
    if (key == nullptr || EVP_PKEY_get_id(key) != EVP_PKEY_EC) return NID_undef;
    ERR_set_mark();  // a key OpenSSL cannot encode has no curve to tell
    unsigned char *out = nullptr;
    const int len = i2d_PUBKEY(key, &out);
    const OpensslPtr<> der(out);
    ERR_pop_to_mark();
    EcSpki parts;
    if (len <= 0 || !der || !read_ec_spki({der.get(), static_cast<std::size_t>(len)}, parts))
        return NID_undef;
    return named_curve_of(parts.params);
}

int nid_of_key(const EVP_PKEY *key) noexcept {
    char name[80];
    size_t len = 0;
    if (EVP_PKEY_get_group_name(key, name, sizeof name, &len) == 1 && len > 0) {
        int nid = OBJ_sn2nid(name);
        if (nid == NID_undef) nid = EC_curve_nist2nid(name);
        if (nid == NID_undef) nid = OBJ_ln2nid(name);
        if (nid != NID_undef) return nid;
    }
    // A key whose curve parameters are spelled out may carry no name for
    // them; the parameters themselves say which curve, if any, they are.
    return encoded_nid(key);
}

EcPointPtr public_point(const EVP_PKEY *key, const EC_GROUP *group, BN_CTX *ctx) noexcept {
    // Large enough for the encoded point of any curve OpenSSL knows.
    unsigned char octets[256];
    std::size_t len = 0;
    if (key == nullptr || group == nullptr ||
        EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, octets,
                                        sizeof octets, &len) != 1)
        return nullptr;
    // Decoding through the group accepts the key's point in compressed form
    // too, and checks that it lies on that group's curve.
    EcPointPtr point(EC_POINT_new(group));
    if (!point || EC_POINT_oct2point(group, point.get(), octets, len, ctx) != 1) return nullptr;
    return point;
}

}  // namespace pkey::curves
