// Deterministic DSA domain parameters.
//
// The group of each size is generated from the library's fixed 20-byte seed
// with the FIPS 186-4 A.1.1.2 construction (SHA-256), so two generations of one
// size always share p, q and g. OpenSSL cannot be asked for this directly: a
// given seed whose q is not prime makes it fall back to random seeds, and its
// 2048-bit path refuses a seed shorter than q. So candidate seeds are expanded
// from the fixed seed with a counter, and the first one that yields a prime q
// and then a prime p wins:
//
//   seed_k = leftmost N bits of SHA-256(fixed seed || k as 4 big-endian bytes)
//   N = 160 for L < 2048, 256 otherwise
//
// g is the canonical unverifiable generator h^((p-1)/q) mod p with the
// smallest h >= 2 that does not give 1.
#include "pkey_dsa_params.hpp"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/param_build.h>
#include <openssl/sha.h>

#include <array>
#include <map>
#include <mutex>
#include <vector>

#include "pkey_util.hpp"

namespace {

// The library's fixed DSA parameter seed.
constexpr std::array<unsigned char, 20> g_aucPKEYEncrySeed = {
    0xd3, 0xa9, 0x1c, 0x5e, 0x07, 0xb2, 0xf4, 0x8a, 0x61, 0xc0,
    0xe9, 0xd2, 0x7b, 0x5a, 0x3f, 0x10, 0x86, 0xe4, 0xc2, 0xb9};

constexpr unsigned int kHashBits = 256;  // SHA-256 output length
constexpr unsigned int kMaxSeedTries = 4096;

using pkey::BignumPtr;
using pkey::BnCtxPtr;

struct Group {
    BignumPtr p, q, g;
};

std::vector<unsigned char> candidate_seed(unsigned int k, unsigned int seed_bytes) {
    unsigned char input[g_aucPKEYEncrySeed.size() + 4];
    std::memcpy(input, g_aucPKEYEncrySeed.data(), g_aucPKEYEncrySeed.size());
    pkey::store_be32(input + g_aucPKEYEncrySeed.size(), k);
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(input, sizeof input, digest);
    return {digest, digest + seed_bytes};
}

// v mod 2^n. BN_mask_bits refuses a number already shorter than n bits.
bool mask_bits(BIGNUM *v, unsigned int n) {
    return BN_num_bits(v) <= static_cast<int>(n) || BN_mask_bits(v, static_cast<int>(n)) == 1;
}

bool sha256_of_bn(const BIGNUM *v, unsigned int seed_bytes, BIGNUM *out) {
    std::vector<unsigned char> buf(seed_bytes);
    if (BN_bn2binpad(v, buf.data(), static_cast<int>(seed_bytes)) < 0) return false;
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(buf.data(), buf.size(), digest);
    return BN_bin2bn(digest, sizeof digest, out) != nullptr;
}

// One attempt of FIPS 186-4 A.1.1.2 with a given seed. Returns false when q is
// not prime or no p is found within 4L counters.
bool generate_pq(unsigned int L, unsigned int N, const std::vector<unsigned char> &seed_bytes,
                 BN_CTX *ctx, Group &out) {
    const unsigned int n = (L + kHashBits - 1) / kHashBits - 1;
    const unsigned int b = L - 1 - n * kHashBits;
    const auto seedlen = static_cast<unsigned int>(seed_bytes.size());

    BignumPtr seed(BN_bin2bn(seed_bytes.data(), static_cast<int>(seedlen), nullptr));
    BignumPtr u(BN_new()), q(BN_new()), tmp(BN_new()), w(BN_new()), x(BN_new()), c(BN_new()),
        p(BN_new()), two_q(BN_new()), v(BN_new()), modulus(BN_new());
    if (!seed || !u || !q || !tmp || !w || !x || !c || !p || !two_q || !v || !modulus) return false;

    // U = Hash(seed) mod 2^(N-1); q = 2^(N-1) + U + 1 - (U mod 2)
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(seed_bytes.data(), seedlen, digest);
    if (!BN_bin2bn(digest, sizeof digest, u.get()) || !mask_bits(u.get(), N - 1)) return false;
    if (!BN_set_bit(u.get(), static_cast<int>(N - 1)) || !BN_set_bit(u.get(), 0)) return false;
    if (!BN_copy(q.get(), u.get()) || BN_check_prime(q.get(), ctx, nullptr) != 1) return false;

    if (!BN_lshift1(two_q.get(), q.get())) return false;
    if (!BN_set_bit(modulus.get(), static_cast<int>(seedlen * 8))) return false;  // 2^seedlen
    unsigned int offset = 1;
    for (unsigned int counter = 0; counter < 4 * L; ++counter, offset += n + 1) {
        BN_zero(w.get());
        for (unsigned int j = 0; j <= n; ++j) {
            // V_j = Hash((seed + offset + j) mod 2^seedlen)
            if (!BN_copy(tmp.get(), seed.get()) || !BN_add_word(tmp.get(), offset + j) ||
                !BN_nnmod(tmp.get(), tmp.get(), modulus.get(), ctx) ||
                !sha256_of_bn(tmp.get(), seedlen, v.get()))
                return false;
            if (j == n && !mask_bits(v.get(), b)) return false;
            if (!BN_lshift(v.get(), v.get(), static_cast<int>(j * kHashBits)) ||
                !BN_add(w.get(), w.get(), v.get()))
                return false;
        }
        // X = W + 2^(L-1); p = X - ((X mod 2q) - 1)
        if (!BN_copy(x.get(), w.get()) || !BN_set_bit(x.get(), static_cast<int>(L - 1)) ||
            !BN_mod(c.get(), x.get(), two_q.get(), ctx) || !BN_sub_word(c.get(), 1) ||
            !BN_sub(p.get(), x.get(), c.get()))
            return false;
        if (BN_num_bits(p.get()) < static_cast<int>(L)) continue;
        if (BN_check_prime(p.get(), ctx, nullptr) == 1) {
            out.p = std::move(p);
            out.q = std::move(q);
            return true;
        }
    }
    return false;
}

bool generate_g(BN_CTX *ctx, Group &grp) {
    BignumPtr e(BN_new()), h(BN_new()), g(BN_new()), pm1(BN_new());
    if (!e || !h || !g || !pm1) return false;
    if (!BN_copy(pm1.get(), grp.p.get()) || !BN_sub_word(pm1.get(), 1) ||
        !BN_div(e.get(), nullptr, pm1.get(), grp.q.get(), ctx) || !BN_set_word(h.get(), 2))
        return false;
    for (;;) {
        if (!BN_mod_exp(g.get(), h.get(), e.get(), grp.p.get(), ctx)) return false;
        if (!BN_is_one(g.get())) break;
        if (!BN_add_word(h.get(), 1)) return false;
    }
    grp.g = std::move(g);
    return true;
}

// A DSA key pair (y, x) in the group.
EVP_PKEY *group_to_key(const Group &grp, const BIGNUM *pub, const BIGNUM *priv) {
    pkey::ParamBldPtr bld(OSSL_PARAM_BLD_new());
    if (!bld || !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_FFC_P, grp.p.get()) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_FFC_Q, grp.q.get()) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_FFC_G, grp.g.get()))
        return nullptr;
    if (!OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, pub) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_PRIV_KEY, priv))
        return nullptr;
    return pkey::key_from_builder("DSA", EVP_PKEY_KEYPAIR, bld.get()).release();
}

bool derive_group(unsigned int bits, Group &out) {
    if (bits < pkey::local::kDsaMinBits || bits > pkey::local::kDsaMaxBits) return false;
    const unsigned int N = bits < 2048 ? 160 : 256;
    BnCtxPtr ctx(BN_CTX_new());
    if (!ctx) return false;
    for (unsigned int k = 0; k < kMaxSeedTries; ++k) {
        Group grp;
        if (!generate_pq(bits, N, candidate_seed(k, N / 8), ctx.get(), grp)) continue;
        if (!generate_g(ctx.get(), grp)) return false;
        out = std::move(grp);
        return true;
    }
    return false;
}

// The 2048-bit group, the size FIPS mode starts at, as the derivation above
// makes it (seed index 105). Its search takes about a second, paid by the
// first DSA key of a process; a stored copy costs nothing. The test suite
// checks these numbers against an independent derivation.
constexpr const char kGroup2048P[] =
    "C25DBDD21663D4F8BEA66BFBB59658E8C2F52A440DE4A99585011ED11686709F"
    "5508C5CAD17C189E45A96EE5AB0353AF4FEE02541C7206189159AFCBB7993226"
    "C700A34335ABA97488C0E8C241903D3BC0A8CC1E7F559B8DED41642658788590"
    "9A5D86BD1A0C96ABBDCD1406B5CB7424660D73C1968B6D43F27E07F61DB9098B"
    "A7387012B79102EE5DA794E19BE9BA6661A3A8B09626A4EC8D176DCDDFC271A4"
    "27B9372E83E460E61C01C368353976D45267F1B0B82AD3FE9199B1560A0FA285"
    "ED42FBFC53342CCC9662BF201822551F3D08EC630D880A0F710609F4B9D3E315"
    "7C683B806D96930596F0071131E0943372651A851DF6441426E7BA3398ED9305";
constexpr const char kGroup2048Q[] =
    "FC0443E40812C3140EBB07352D29809B767369714AF4693F796688E804D3ED95";
constexpr const char kGroup2048G[] =
    "04594565183E8F4FA7FF14260AB7B6D21025584D623B4BBD66CD48AF57CCA775"
    "53C7B0FDFC1B0A4A5F41A5A9E420B2F3FD8838EB337DCA3C030E16F149E790D9"
    "65EEE8ED5E2B85E3BA4BB1C8EE24A799EDB681A9B1E26191D4601A8A0EC89677"
    "5BF0BF057D140C97683C89790F8ECCAB0B29961F9D5F8570B6DCC1A6ACF055E4"
    "3F1D795171327763DF0DE280B4383E6E89322C19F624A3DEF5D64BF393FD3922"
    "8DF69BC07C2C54A887A9B30646B5331527A540A2AE14C6C27697EE66D45AB9AB"
    "61E2183295D2DB88086F34E897FC658BF91803D6FFC370B82EEF2CB4D6E13153"
    "8068C2D1506CB5240E383D4686072EF013ACB573A4DBDCCDFC93C807222FF0E8";

bool known_group(unsigned int bits, Group &out) {
    if (bits != 2048) return false;
    BIGNUM *p = nullptr, *q = nullptr, *g = nullptr;
    const bool ok = BN_hex2bn(&p, kGroup2048P) != 0 && BN_hex2bn(&q, kGroup2048Q) != 0 &&
                    BN_hex2bn(&g, kGroup2048G) != 0;
    out.p.reset(p);
    out.q.reset(q);
    out.g.reset(g);
    return ok;
}

std::mutex g_group_mutex;
std::map<unsigned int, Group> g_groups;  // per size, derived once

const Group *cached_group(unsigned int bits) {
    std::lock_guard lock(g_group_mutex);
    if (auto it = g_groups.find(bits); it != g_groups.end()) return &it->second;
    Group grp;
    if (!known_group(bits, grp) && !derive_group(bits, grp)) return nullptr;
    return &g_groups.emplace(bits, std::move(grp)).first->second;
}

}  // namespace

namespace pkey::local {

// x is uniform in [1, q - 1] and y = g^x mod p, computed in constant time.
// OpenSSL's own DSA key generation is not used because it refuses groups
// below 1024 bits.
EVP_PKEY *generate_dsa_pair(unsigned int bits) {
    const Group *grp = cached_group(bits);
    if (grp == nullptr) return nullptr;
    BnCtxPtr ctx(BN_CTX_new());
    BignumPtr range(BN_new()), x(BN_secure_new()), y(BN_new());
    if (!ctx || !range || !x || !y || !BN_copy(range.get(), grp->q.get()) ||
        !BN_sub_word(range.get(), 1) || BN_priv_rand_range(x.get(), range.get()) != 1 ||
        !BN_add_word(x.get(), 1))
        return nullptr;
    BN_set_flags(x.get(), BN_FLG_CONSTTIME);
    if (!BN_mod_exp_mont_consttime(y.get(), grp->g.get(), x.get(), grp->p.get(), ctx.get(),
                                   nullptr))
        return nullptr;
    return group_to_key(*grp, y.get(), x.get());
}

}  // namespace pkey::local
