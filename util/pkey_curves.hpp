// pkey_curves.hpp - the named elliptic curves the library knows, each fact
// about them in one table, and the curve questions every module asks (hidden).
//
// A curve is known by its OpenSSL NID, its short name, the OID that names it
// in DER, its coordinate width, and, for the curves SSH keys are on, its SSH
// curve identifier ("nistp256") and key type name ("ecdsa-sha2-nistp256").
// Lookups in every direction go through the one table below. Each curve's
// group and a key holding only the curve are built once per process, on first
// use by any thread, and never modified afterwards.
#pragma once

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <string_view>

#include "pkey_util.hpp"

namespace pkey::curves {

struct Curve {
    int nid;
    const char *short_name;              // OpenSSL's name, an EC key's group name
    std::span<const unsigned char> oid;  // contents of the curve's OBJECT IDENTIFIER
    std::size_t field_bytes;             // width of one coordinate
    std::string_view ssh_id;             // SSH curve identifier; empty where SSH has none
    std::string_view ssh_type;           // SSH key type name; empty where SSH has none

    constexpr bool in_ssh() const noexcept { return !ssh_id.empty(); }
};

namespace oid {
// id-ecPublicKey, the algorithm of every EC SubjectPublicKeyInfo.
inline constexpr unsigned char kEcPublicKey[] = {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};
inline constexpr unsigned char kP192[] = {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x01};
inline constexpr unsigned char kP224[] = {0x2B, 0x81, 0x04, 0x00, 0x21};
inline constexpr unsigned char kP256[] = {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
inline constexpr unsigned char kP384[] = {0x2B, 0x81, 0x04, 0x00, 0x22};
inline constexpr unsigned char kP521[] = {0x2B, 0x81, 0x04, 0x00, 0x23};
}  // namespace oid

// P-224 is read from DER like the others but is never the curve of an SSH key.
inline constexpr std::array<Curve, 5> kCurves{{
    {NID_X9_62_prime192v1, SN_X9_62_prime192v1, oid::kP192, 24, "nistp192", "ecdsa-sha2-nistp192"},
    {NID_secp224r1, SN_secp224r1, oid::kP224, 28, "", ""},
    {NID_X9_62_prime256v1, SN_X9_62_prime256v1, oid::kP256, 32, "nistp256", "ecdsa-sha2-nistp256"},
    {NID_secp384r1, SN_secp384r1, oid::kP384, 48, "nistp384", "ecdsa-sha2-nistp384"},
    {NID_secp521r1, SN_secp521r1, oid::kP521, 66, "nistp521", "ecdsa-sha2-nistp521"},
}};

// Every SSH key type name is "ecdsa-sha2-" and the curve identifier.
inline constexpr std::string_view kSshTypePrefix = "ecdsa-sha2-";

// Every SSH curve identifier, and so every SSH key type name, has one length.
inline constexpr std::size_t kSshIdLen = 8;
inline constexpr std::size_t kSshTypeLen = kSshTypePrefix.size() + kSshIdLen;

consteval bool ssh_names_consistent() {
    for (const Curve &c : kCurves) {
        if (!c.in_ssh()) {
            if (!c.ssh_type.empty()) return false;
            continue;
        }
        if (c.ssh_id.size() != kSshIdLen || c.ssh_type.size() != kSshTypeLen ||
            !c.ssh_type.starts_with(kSshTypePrefix) || !c.ssh_type.ends_with(c.ssh_id))
            return false;
    }
    return true;
}
static_assert(ssh_names_consistent());

// The curve of a NID; NULL for a curve outside the table.
constexpr const Curve *by_nid(int nid) noexcept {
    for (const Curve &c : kCurves)
        if (c.nid == nid) return &c;
    return nullptr;
}

// The curve an OID's contents name; NULL for any other.
constexpr const Curve *by_oid(std::span<const unsigned char> oid) noexcept {
    for (const Curve &c : kCurves)
        if (std::ranges::equal(oid, c.oid)) return &c;
    return nullptr;
}

// The SSH curve of a curve identifier, by exact comparison; NULL for any other text.
constexpr const Curve *by_ssh_id(std::string_view id) noexcept {
    for (const Curve &c : kCurves)
        if (c.in_ssh() && c.ssh_id == id) return &c;
    return nullptr;
}

// The table's index of the SSH curve of a key type name, by exact
// comparison; kCurves.size() for any other text.
constexpr std::size_t ssh_type_index(std::string_view type) noexcept {
    std::size_t i = 0;
    while (i < kCurves.size() && !(kCurves[i].in_ssh() && kCurves[i].ssh_type == type)) ++i;
    return i;
}

// The SSH curve of a key type name, by exact comparison; NULL for any other text.
constexpr const Curve *by_ssh_type(std::string_view type) noexcept {
    const std::size_t i = ssh_type_index(type);
    return i < kCurves.size() ? &kCurves[i] : nullptr;
}

// The curve's group, shared by every caller and thread; NULL only when
// OpenSSL cannot build it.
const EC_GROUP *group(const Curve &curve) noexcept;

// The same by NID; NULL for a curve outside the table.
const EC_GROUP *group(int nid) noexcept;

// A public EC key on the curve holding the encoded point, which must lie on
// the curve; the key names its curve when encoded. NULL when OpenSSL refuses
// the point.
[[nodiscard]] EvpPkeyPtr public_key(const Curve &curve,
                                    std::span<const unsigned char> point) noexcept;

// An EC SubjectPublicKeyInfo taken apart: the AlgorithmIdentifier's parameters
// as encoded (tag and length included), which either name the curve (an OID)
// or spell it out (a SEQUENCE), and the point as it stands in the BIT STRING.
struct EcSpki {
    std::span<const unsigned char> params;
    bool named = false;
    std::span<const unsigned char> point;
};

// Splits a strict-DER EC SubjectPublicKeyInfo with a non-empty point; false
// for anything else.
[[nodiscard]] bool read_ec_spki(std::span<const unsigned char> der, EcSpki &out) noexcept;

// The named curve that encoded EC parameters describe, by NID, any curve
// OpenSSL knows; NID_undef when they describe none.
[[nodiscard]] int named_curve_of(std::span<const unsigned char> params) noexcept;

// The named curve of an EC key as its encoding gives it, naming the curve or
// listing its parameters; NID_undef for parameters of no named curve and for
// keys that are not EC. Costs an encoding of the key.
[[nodiscard]] int encoded_nid(const EVP_PKEY *key) noexcept;

// The named curve of an EC key, NID_undef (0) when it is on none: the name of
// its group, or for a key whose encoding spells out the parameters of a named
// curve, that curve.
[[nodiscard]] int nid_of_key(const EVP_PKEY *key) noexcept;

// The public point of an EC key as a point on group, whatever the key's point
// format; NULL when the key has no public point or it does not lie on group.
[[nodiscard]] EcPointPtr public_point(const EVP_PKEY *key, const EC_GROUP *group,
                                      BN_CTX *ctx) noexcept;

}  // namespace pkey::curves
