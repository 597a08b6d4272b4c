// The key pair store record: building it from a key pair, turning it back into
// a key, the 32-bit length prefixes, and the hexadecimal display of DER bytes.
//
// Every integer of the record is written and read big-endian explicitly, so a
// record is the same bytes whatever processor built it. Plain key material
// (the record under construction, components read back) lives only in memory
// that is wiped before it is freed.
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <array>
#include <climits>
#include <cstdint>
#include <span>

#include "pkey_der.hpp"
#include "pkey_der_reader.hpp"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_record.hpp"
#include "pkey_util.hpp"

namespace {

using pkey::BignumPtr;
using pkey::ByteReader;
using pkey::ByteWriter;
using pkey::EvpPkeyPtr;
using pkey::ParamBldPtr;
using pkey::SecureBuffer;

using GetStoreLenFn = unsigned int (*)(EVP_PKEY *key);
using WritePayloadFn = unsigned int (*)(EVP_PKEY *key, std::span<unsigned char> payload,
                                        unsigned int *written);

unsigned int write_reserve_payload(EVP_PKEY *, std::span<unsigned char>, unsigned int *) noexcept;
unsigned int write_rsa_payload(EVP_PKEY *key, std::span<unsigned char> payload,
                               unsigned int *written) noexcept;
unsigned int write_dsa_payload(EVP_PKEY *key, std::span<unsigned char> payload,
                               unsigned int *written) noexcept;
unsigned int write_ecdsa_payload(EVP_PKEY *key, std::span<unsigned char> payload,
                                 unsigned int *written) noexcept;

// Payload bound and payload writer per pkey alg id; row 0 is the reserved stub.
// The writers are bounded by the room they are given, not by the key.
const GetStoreLenFn g_apfPKEYGetAlgStoreLen[4] = {
    PKEY_PUBKEY_GetStoreLenFromEvpReserve, PKEY_PUBKEY_GetRSAStoreLenFromEvp,
    PKEY_PUBKEY_GetDSAStoreLenFromEvp, PKEY_PUBKEY_GetECDSAStoreLenFromEvp};
const WritePayloadFn g_apfPKEYConvertKeyToStoreBuf[4] = {write_reserve_payload, write_rsa_payload,
                                                         write_dsa_payload, write_ecdsa_payload};

// Components in record order.
constexpr const char *kRsaComponents[] = {
    OSSL_PKEY_PARAM_RSA_N,         OSSL_PKEY_PARAM_RSA_E,           OSSL_PKEY_PARAM_RSA_D,
    OSSL_PKEY_PARAM_RSA_FACTOR1,   OSSL_PKEY_PARAM_RSA_FACTOR2,     OSSL_PKEY_PARAM_RSA_EXPONENT1,
    OSSL_PKEY_PARAM_RSA_EXPONENT2, OSSL_PKEY_PARAM_RSA_COEFFICIENT1};
constexpr const char *kDsaComponents[] = {OSSL_PKEY_PARAM_FFC_P, OSSL_PKEY_PARAM_FFC_Q,
                                          OSSL_PKEY_PARAM_FFC_G, OSSL_PKEY_PARAM_PUB_KEY,
                                          OSSL_PKEY_PARAM_PRIV_KEY};
constexpr std::size_t kMaxComponents = std::size(kRsaComponents);
using ComponentNames = std::span<const char *const>;

constexpr std::size_t kLengthPrefix = 4;

// The components of a key that it holds, in record order; a component the key
// lacks stays null. Private values are wiped when this goes away.
class KeyComponents {
public:
    KeyComponents(const EVP_PKEY *key, ComponentNames names) noexcept : count_(names.size()) {
        // Lacking a component is normal (a public key has no d); keep the
        // failed look-ups off the caller's error queue.
        ERR_set_mark();
        for (std::size_t i = 0; i < count_; ++i) {
            BIGNUM *bn = nullptr;
            if (EVP_PKEY_get_bn_param(key, names[i], &bn) == 1) bn_[i].reset(bn);
        }
        ERR_pop_to_mark();
    }

    // Payload bound: the magnitudes of the present components plus a length
    // field for every component, present or not.
    std::size_t bound() const noexcept {
        std::size_t total = kLengthPrefix * count_;
        for (std::size_t i = 0; i < count_; ++i) {
            if (bn_[i]) total += static_cast<std::size_t>(BN_num_bytes(bn_[i].get()));
        }
        return total;
    }
    std::span<const BignumPtr> all() const noexcept { return {bn_.data(), count_}; }

private:
    std::array<BignumPtr, kMaxComponents> bn_;
    std::size_t count_;
};

// A length field and the component's magnitude: big-endian, no sign byte, no
// leading zero, nothing at all for the value zero.
bool put_component(ByteWriter &out, const BIGNUM *bn) noexcept {
    const int n = BN_num_bytes(bn);
    if (n < 0 || !out.put_u32(static_cast<std::uint32_t>(n))) return false;
    unsigned char *dst = out.cursor();
    if (!out.commit(static_cast<std::size_t>(n))) return false;
    BN_bn2bin(bn, dst);
    return true;
}

unsigned int write_components(EVP_PKEY *key, ComponentNames names, std::span<unsigned char> payload,
                              unsigned int *written) noexcept {
    if (key == nullptr || written == nullptr || payload.data() == nullptr) return PKEY_ERR_FAILED;
    const KeyComponents components(key, names);
    ByteWriter out(payload.data(), payload.size());
    for (const BignumPtr &bn : components.all()) {
        if (bn && !put_component(out, bn.get())) return PKEY_ERR_FAILED;
    }
    *written = static_cast<unsigned int>(out.size());
    return 0;
}

unsigned int write_reserve_payload(EVP_PKEY *, std::span<unsigned char>, unsigned int *) noexcept {
    return PKEY_ERR_FAILED;
}
unsigned int write_rsa_payload(EVP_PKEY *key, std::span<unsigned char> payload,
                               unsigned int *written) noexcept {
    return write_components(key, kRsaComponents, payload, written);
}
unsigned int write_dsa_payload(EVP_PKEY *key, std::span<unsigned char> payload,
                               unsigned int *written) noexcept {
    return write_components(key, kDsaComponents, payload, written);
}
unsigned int write_ecdsa_payload(EVP_PKEY *key, std::span<unsigned char> payload,
                                 unsigned int *written) noexcept {
    if (key == nullptr || written == nullptr || payload.data() == nullptr) return PKEY_ERR_FAILED;
    // Measured first: i2d writes into a caller's buffer without knowing its size.
    const int len = i2d_PrivateKey(key, nullptr);
    if (len <= 0 || static_cast<std::size_t>(len) > payload.size()) return PKEY_ERR_FAILED;
    unsigned char *out = payload.data();
    if (i2d_PrivateKey(key, &out) != len) return PKEY_ERR_FAILED;
    *written = static_cast<unsigned int>(len);
    return 0;
}

// The room of an exported payload writer's buffer: by its contract, the row's
// bound for the same key.
std::span<unsigned char> contract_room(unsigned char *payload, unsigned int bound) noexcept {
    return payload != nullptr ? std::span<unsigned char>(payload, bound)
                              : std::span<unsigned char>();
}

// One length-prefixed component, kept in wiped memory. Null when nothing is
// left, when the length field itself is cut off, or when it claims more bytes
// than remain.
BignumPtr read_component(ByteReader &in) noexcept {
    std::uint32_t len = 0;
    std::span<const unsigned char> magnitude;
    if (!in.read_u32(len) || !in.read_bytes(len, magnitude)) return nullptr;
    if (magnitude.size() > static_cast<std::size_t>(INT_MAX)) return nullptr;  // BN_bin2bn's limit
    BignumPtr bn(BN_secure_new());
    if (!bn || BN_bin2bn(magnitude.data(), static_cast<int>(magnitude.size()), bn.get()) == nullptr)
        return nullptr;
    return bn;
}

// A key pair of the given OpenSSL type from every one of its components.
// No component of an RSA or DSA key pair is zero. A zero here means a field
// read out of the zero padding: the record was written from a key without
// its private parts, and there is no key pair to hand back.
EvpPkeyPtr key_from_components(const char *type, ComponentNames names, ByteReader &in) noexcept {
    std::array<BignumPtr, kMaxComponents> bn;
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    if (!bld) return nullptr;
    for (std::size_t i = 0; i < names.size(); ++i) {
        bn[i] = read_component(in);
        if (!bn[i] || BN_is_zero(bn[i].get()) ||
            OSSL_PARAM_BLD_push_BN(bld.get(), names[i], bn[i].get()) != 1)
            return nullptr;
    }
    // The components are flagged secure, so the parameter block that copies
    // them is wiped when it is freed.
    return pkey::key_from_builder(type, EVP_PKEY_KEYPAIR, bld.get());
}

}  // namespace

extern "C" {

unsigned char *PKEY_PutLenToBuf(unsigned int len, unsigned char **cursor) noexcept {
    if (cursor == nullptr || *cursor == nullptr) return nullptr;
    pkey::store_be32(*cursor, len);
    *cursor += kLengthPrefix;
    return *cursor;
}

const unsigned char *PKEY_GetLengthFromData(const unsigned char *data,
                                            unsigned int *lenOut) noexcept {
    if (data == nullptr || lenOut == nullptr) return nullptr;
    *lenOut = pkey::load_be32(data);
    return data + kLengthPrefix;
}

unsigned int PKEY_PUBKEY_GetStoreLenFromEvpReserve(EVP_PKEY * /*key*/) noexcept { return 0; }

unsigned int PKEY_PUBKEY_GetRSAStoreLenFromEvp(EVP_PKEY *key) noexcept {
    if (key == nullptr) return 0;
    return pkey::clamp_to_uint(KeyComponents(key, kRsaComponents).bound());
}

unsigned int PKEY_PUBKEY_GetDSAStoreLenFromEvp(EVP_PKEY *key) noexcept {
    if (key == nullptr) return 0;
    return pkey::clamp_to_uint(KeyComponents(key, kDsaComponents).bound());
}

unsigned int PKEY_PUBKEY_GetECDSAStoreLenFromEvp(EVP_PKEY *key) noexcept {
    if (key == nullptr) return 0;
    const int len = i2d_PrivateKey(key, nullptr);
    return len > 0 ? static_cast<unsigned int>(len) : 0;
}

unsigned int PKEY_PUBKEY_ConvertKeyToStoreBufReserve(EVP_PKEY * /*key*/, unsigned int * /*written*/,
                                                     unsigned char * /*payload*/) noexcept {
    return PKEY_ERR_FAILED;
}

unsigned int PKEY_PUBKEY_ConvertRSAKeyToStoreBuf(EVP_PKEY *key, unsigned int *written,
                                                 unsigned char *payload) noexcept {
    return write_rsa_payload(key, contract_room(payload, PKEY_PUBKEY_GetRSAStoreLenFromEvp(key)),
                             written);
}

unsigned int PKEY_PUBKEY_ConvertDSAKeyToStoreBuf(EVP_PKEY *key, unsigned int *written,
                                                 unsigned char *payload) noexcept {
    return write_dsa_payload(key, contract_room(payload, PKEY_PUBKEY_GetDSAStoreLenFromEvp(key)),
                             written);
}

unsigned int PKEY_PUBKEY_ConvertECDSAKeyToStoreBuf(EVP_PKEY *key, unsigned int *written,
                                                   unsigned char *payload) noexcept {
    return write_ecdsa_payload(
        key, contract_room(payload, PKEY_PUBKEY_GetECDSAStoreLenFromEvp(key)), written);
}

void PKEY_PUBKEY_FillBN2StoreBuf(const BIGNUM *bn, unsigned char **cursor,
                                 unsigned int *total) noexcept {
    if (bn == nullptr || cursor == nullptr || *cursor == nullptr || total == nullptr) return;
    ByteWriter out(*cursor, kLengthPrefix + static_cast<std::size_t>(BN_num_bytes(bn)));
    if (!put_component(out, bn)) return;
    *cursor += out.size();
    *total += static_cast<unsigned int>(out.size());
}

void PKEY_PUBKEY_GetBNFromBuf(const unsigned char **cursor, unsigned int *remaining,
                              BIGNUM **bnOut) noexcept {
    if (bnOut == nullptr) return;
    *bnOut = nullptr;
    if (cursor == nullptr || *cursor == nullptr || remaining == nullptr || *remaining == 0) return;
    ByteReader in(*cursor, *remaining);
    BignumPtr bn = read_component(in);
    *cursor = in.position();
    // A cut-off or lying component ends the walk: nothing after it can be trusted.
    *remaining = bn ? static_cast<unsigned int>(in.remaining()) : 0;
    *bnOut = bn.release();
}

unsigned char *PKEY_PUBKEY_ConvertKeyToStoreBuf(EVP_PKEY *key, unsigned int *lenOut) noexcept {
    return pkey::c_boundary<unsigned char *>(nullptr, [&]() -> unsigned char * {
        if (key == nullptr || lenOut == nullptr) return nullptr;
        const unsigned int id =
            PKEY_PUBKEY_GetPkeyAlgIdByEvpId(static_cast<unsigned int>(EVP_PKEY_get_id(key)));
        if (id >= PKEY_ALG_UNSUPPORTED) return nullptr;
        const pkey::record::Digest digest = pkey::record::build_digest();
        if (digest.md == nullptr) return nullptr;

        // Payload bound and digest together are rounded up to a multiple of 8.
        const std::uint64_t bound = g_apfPKEYGetAlgStoreLen[id](key);
        const std::uint64_t tail = (bound + digest.size + 7) / 8 * 8;
        const std::uint64_t recordLen = PKEY_STORE_HEADER_LEN + tail;
        if (recordLen > UINT32_MAX) return nullptr;

        SecureBuffer record(static_cast<std::size_t>(recordLen));
        if (!record) return nullptr;
        pkey::record::Header header;
        ByteWriter headerOut(record.data(), PKEY_STORE_HEADER_LEN);
        if (!pkey::record::new_header(static_cast<std::uint32_t>(recordLen), header) ||
            !pkey::record::write_header(header, headerOut))
            return nullptr;

        // The payload's room comes from the record's size, not from the key.
        unsigned int written = 0;
        const std::span<unsigned char> payload = record.span().subspan(
            PKEY_STORE_HEADER_LEN, record.size() - PKEY_STORE_HEADER_LEN - digest.size);
        if (g_apfPKEYConvertKeyToStoreBuf[id](key, payload, &written) != 0) return nullptr;

        if (!pkey::record::seal(digest, record.span())) return nullptr;
        *lenOut = static_cast<unsigned int>(recordLen);
        return record.release();
    });
}

EVP_PKEY *PKEY_PUBKEY_ConvertStoreBufToKey(unsigned int algId, const unsigned char *record,
                                           unsigned int recordLen) noexcept {
    return pkey::c_boundary<EVP_PKEY *>(nullptr, [&]() -> EVP_PKEY * {
        if (record == nullptr) return nullptr;
        // Shortest record: a header and the digest a record built now would carry.
        const unsigned int digestLen = pkey::record::build_digest().size;
        if (digestLen == 0 || recordLen < PKEY_STORE_HEADER_LEN + digestLen) return nullptr;

        // Padding and digest count as remaining bytes; a well-formed payload
        // ends before them. The digest is checked by the key file reader.
        ByteReader in(record, recordLen);
        if (!in.skip(PKEY_STORE_HEADER_LEN)) return nullptr;
        switch (algId) {
            case PKEY_ALG_ECDSA: {
                // Only the SEQUENCE goes to the decoder, not the padding and
                // digest behind it; how its length is written is the
                // decoder's to judge.
                const pkey::der::Bytes rest(in.position(), in.remaining());
                pkey::der::DerReader der(rest, pkey::der::LengthForm::kAnyDefinite);
                pkey::der::Bytes body;
                if (!der.read(pkey::der::kSequence, body)) return nullptr;
                return pkey::der::decode_ec_private_key(rest.first(der.consumed_from(rest)))
                    .release();
            }
            case PKEY_ALG_RSA: return key_from_components("RSA", kRsaComponents, in).release();
            case PKEY_ALG_DSA: return key_from_components("DSA", kDsaComponents, in).release();
            default: return nullptr;
        }
    });
}

char *PKEY_PUBKEY_DER2BdrnBuf(const unsigned char *der, unsigned int derLen) noexcept {
    constexpr std::size_t kBytesPerLine = 37;
    if (der == nullptr && derLen != 0) return nullptr;
    // A full line is "\r\n   " and 74 digits (79 characters); the room left
    // covers the closing "\r\n" and the terminator.
    const std::size_t lines = derLen / kBytesPerLine, rest = derLen % kBytesPerLine;
    const std::size_t size = rest == 0 ? 79 * lines + 5 + 1 : 79 * lines + 2 * rest + 10 + 1;
    char *text = static_cast<char *>(std::malloc(size));
    if (text == nullptr) return nullptr;

    text[0] = '\0';
    std::size_t used = 0;
    std::size_t index = 0;
    for (const unsigned char byte : std::span<const unsigned char>(der, derLen)) {
        if (index++ % kBytesPerLine == 0)
            used += static_cast<std::size_t>(scnprintf(text + used, size - used, "\r\n   "));
        used += static_cast<std::size_t>(scnprintf(text + used, size - used, "%02X", byte));
    }
    scnprintf(text + used, size - used, "\r\n");
    return text;
}

}  // extern "C"
