// pkey-agent's answers: identities and signatures from the store.
#include "agent_service.hpp"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <memory>
#include <string_view>

#include "openssh_keys.hpp"
#include "pkey_platform.h"
#include "pkey_util.hpp"

namespace pkey::agent {
namespace {

using EcdsaSigPtr = std::unique_ptr<ECDSA_SIG, FnDeleter<ECDSA_SIG_free>>;

Reply refuse(std::string why) { return {encode_failure(), true, std::move(why)}; }

// Text of a client's bytes for one log line: printable ASCII, the rest as \xNN.
std::string printable(std::string_view text) {
    std::string out;
    for (const unsigned char c : text) {
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            out += static_cast<char>(c);
        } else {
            static const char kHex[] = "0123456789abcdef";
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

// The PKCS #1 v1.5 or ECDSA (DER) signature of data with one digest.
bool digest_sign(EVP_PKEY *key, const EVP_MD *md, ByteSpan data, Bytes &signature) {
    EvpMdCtxPtr ctx(EVP_MD_CTX_new());
    EVP_PKEY_CTX *pctx = nullptr;
    if (!ctx || EVP_DigestSignInit(ctx.get(), &pctx, md, nullptr, key) != 1) return false;
    if (EVP_PKEY_get_id(key) == EVP_PKEY_RSA &&
        EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PADDING) != 1)
        return false;
    std::size_t len = 0;
    if (EVP_DigestSign(ctx.get(), nullptr, &len, data.data(), data.size()) != 1) return false;
    signature.resize(len);
    if (EVP_DigestSign(ctx.get(), signature.data(), &len, data.data(), data.size()) != 1)
        return false;
    signature.resize(len);
    return true;
}

std::vector<unsigned char> bn_bytes(const BIGNUM *n) {
    std::vector<unsigned char> out(static_cast<std::size_t>(BN_num_bytes(n)));
    BN_bn2bin(n, out.data());
    return out;
}

// The RSA signature algorithm a request's flags ask for; SHA-2 first, as
// OpenSSH's own agent chooses.
struct RsaChoice {
    const char *name;
    const EVP_MD *md;
};
RsaChoice rsa_choice(std::uint32_t flags) {
    if ((flags & kRsaSha2_256) != 0) return {"rsa-sha2-256", EVP_sha256()};
    if ((flags & kRsaSha2_512) != 0) return {"rsa-sha2-512", EVP_sha512()};
    return {"ssh-rsa", EVP_sha1()};
}

const EVP_MD *ecdsa_digest(std::string_view type) {
    if (type == "ecdsa-sha2-nistp256") return EVP_sha256();
    if (type == "ecdsa-sha2-nistp384") return EVP_sha384();
    if (type == "ecdsa-sha2-nistp521") return EVP_sha512();
    return nullptr;
}

// The public halves of the keys the store held when last listed. A sign
// request finds its key here instead of reading every key pair of the store;
// the key pair itself is still read afresh for each signature and must still
// have the requested public key, and any miss lists the store again. So a
// replaced or destroyed key is refused at once, and a new one found at once.
std::vector<openssh::Key> &last_listing() {
    static std::vector<openssh::Key> keys;
    return keys;
}

const std::vector<openssh::Key> &list_store() {
    last_listing() = openssh::select_keys().keys;
    return last_listing();
}

const openssh::Key *find_key(const std::vector<openssh::Key> &keys, ByteSpan blob) {
    for (const openssh::Key &k : keys)
        if (k.blob.size() == blob.size() && std::equal(k.blob.begin(), k.blob.end(), blob.begin()))
            return &k;
    return nullptr;
}

Reply identities() {
    const std::vector<openssh::Key> &keys = list_store();
    std::vector<Identity> ids;
    ids.reserve(keys.size());
    for (const openssh::Key &k : keys) ids.push_back({k.blob, k.display});
    return {encode_identities(ids), false, std::to_string(ids.size()) + " identities"};
}

Reply sign(const Request &request) {
    const openssh::Key *match = find_key(last_listing(), request.key_blob);
    // The key pair lives only for this signature.
    EvpPkeyPtr pair = match != nullptr ? openssh::load_private(*match) : nullptr;
    if (!pair) {
        match = find_key(list_store(), request.key_blob);
        if (match == nullptr)
            return refuse("sign request: no key of the store has this public key (" +
                          printable(key_blob_type(request.key_blob)) + ")");
        pair = openssh::load_private(*match);
        if (!pair) return refuse("sign request: key " + match->display + " is gone");
    }

    Bytes blob;
    std::string algorithm;
    {
        Bytes signature;
        if (match->evp_type == EVP_PKEY_RSA) {
            const RsaChoice choice = rsa_choice(request.flags);
            algorithm = choice.name;
            if (choice.md == EVP_sha1() && CRYPTO_FIPSIsEnabled() == 1)
                return refuse("sign request with key " + match->display +
                              ": ssh-rsa (SHA-1) signatures are refused in FIPS mode");
            if (!digest_sign(pair.get(), choice.md, request.data, signature))
                return refuse("sign request with key " + match->display + ": signing failed");
            blob = rsa_signature_blob(algorithm, signature);
        } else {
            algorithm = match->type;
            const EVP_MD *md = ecdsa_digest(match->type);
            if (md == nullptr || !digest_sign(pair.get(), md, request.data, signature))
                return refuse("sign request with key " + match->display + ": signing failed");
            const unsigned char *p = signature.data();
            const EcdsaSigPtr sig(d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(signature.size())));
            if (!sig) return refuse("sign request with key " + match->display + ": signing failed");
            const BIGNUM *r = nullptr;
            const BIGNUM *s = nullptr;
            ECDSA_SIG_get0(sig.get(), &r, &s);
            blob = ecdsa_signature_blob(algorithm, bn_bytes(r), bn_bytes(s));
        }
        pair.reset();
    }
    return {encode_sign_response(blob), false,
            "signed " + std::to_string(request.data.size()) + " bytes with key " + match->display +
                " (" + algorithm + ")"};
}

}  // namespace

Reply answer(const Request &request) {
    switch (request.type) {
        case kRequestIdentities: return identities();
        case kSignRequest: return sign(request);
        case kAddIdentity:
        case kAddIdConstrained:
        case kRemoveIdentity:
        case kRemoveAllIdentities:
            return refuse(type_name(request.type) +
                          ": the keys are the store's; change them there");
        case kLock:
        case kUnlock: return refuse(type_name(request.type) + ": this agent does not lock");
        case kAddSmartcardKey:
        case kAddSmartcardKeyConstrained:
        case kRemoveSmartcardKey:
            return refuse(type_name(request.type) + ": smartcards are not supported");
        case kExtension:
            return refuse(
                "extension " +
                printable(std::string_view(reinterpret_cast<const char *>(request.text.data()),
                                           request.text.size())) +
                ": no extensions are supported");
        default: return refuse(type_name(request.type) + ": not supported");
    }
}

}  // namespace pkey::agent
