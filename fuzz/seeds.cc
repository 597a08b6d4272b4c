// fuzz_seeds STORE CORPUS - writes the seed corpus of every fuzz target.
//
// The seeds come from real keys made by the library: RSA 1024 and 2048, DSA
// 1024 and 2048, ECDSA on P-192, P-256, P-384 and P-521. Each key is saved as
// a named key pair in STORE (the store the key_file target deciphers under),
// once outside FIPS mode (MD5 digest) and, where the key is strong enough,
// once in FIPS mode (SHA-256 digest). Every text the library exports for it,
// the key file images and the plain records are then written to
// CORPUS/<target>/, with a few hand-made variants of the pasted forms that
// operators and other tools produce (wrapped lines, LF only, continued
// headers, the key-code wrapper).
#include <openssl/core_names.h>
#include <openssl/x509.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz_common.hpp"
#include "pkey_ec.h"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"

namespace {

namespace fs = std::filesystem;

struct SeedKey {
    const char *name;
    unsigned int alg;
    unsigned int bits;  // RSA and DSA
    int nid;            // ECDSA
    bool fips;          // strong enough for FIPS mode
};

constexpr SeedKey kKeys[] = {
    {"rsa1024", PKEY_ALG_RSA, 1024, 0, false},
    {"rsa2048", PKEY_ALG_RSA, 2048, 0, true},
    {"dsa1024", PKEY_ALG_DSA, 1024, 0, false},
    {"dsa2048", PKEY_ALG_DSA, 2048, 0, true},
    {"p192", PKEY_ALG_ECDSA, 0, PKEY_NID_P192, false},
    {"p256", PKEY_ALG_ECDSA, 0, PKEY_NID_P256, true},
    {"p384", PKEY_ALG_ECDSA, 0, PKEY_NID_P384, true},
    {"p521", PKEY_ALG_ECDSA, 0, PKEY_NID_P521, true},
};

fs::path g_corpus;

[[noreturn]] void die(const std::string &what) {
    std::fprintf(stderr, "fuzz_seeds: %s\n", what.c_str());
    std::exit(1);
}

void put(const char *target, const std::string &name, const void *data, std::size_t len) {
    const fs::path dir = g_corpus / target;
    fs::create_directories(dir);
    std::ofstream out(dir / ("seed-" + name), std::ios::binary | std::ios::trunc);
    out.write(static_cast<const char *>(data), static_cast<std::streamsize>(len));
    if (!out) die("cannot write a seed of " + std::string(target));
}
void put(const char *target, const std::string &name, const std::string &text) {
    put(target, name, text.data(), text.size());
}

std::string hex(const unsigned char *p, std::size_t len, bool upper) {
    static const char *const kDigits[2] = {"0123456789abcdef", "0123456789ABCDEF"};
    std::string out;
    for (std::size_t i = 0; i < len; ++i) {
        out += kDigits[upper][p[i] >> 4];
        out += kDigits[upper][p[i] & 15];
    }
    return out;
}

EVP_PKEY *generate(const SeedKey &k) {
    if (k.alg == PKEY_ALG_RSA) return PKEY_GenerateRSAKey(k.bits);
    if (k.alg == PKEY_ALG_DSA) return PKEY_GenerateDSAKey(k.bits);
    return PKEY_GenerateECKey(k.nid);
}

std::string ssh2_base64(EVP_PKEY *key) {
    unsigned int len = 0;
    const pkey::MallocPtr<char> text(PKEY_PUBKEY_EvppkeyToBase64(key, 1, &len));
    if (!text) die("a key does not encode");
    return text.get();
}

// The Base64 blob and, for ECDSA, the key buffer behind the type name.
void blob_seeds(const SeedKey &k, EVP_PKEY *key) {
    const std::string b64 = ssh2_base64(key);
    put("base64_blob", k.name, b64);
    if (k.alg != PKEY_ALG_ECDSA) return;
    const std::vector<unsigned char> blob = fuzz::base64_decode(b64.c_str());
    pkey::ByteReader in(blob.data(), blob.size());
    std::span<const unsigned char> type;
    if (!in.read_length_prefixed(type)) die("an ECDSA key buffer has no type");
    put("ecdsa_blob", k.name, in.position(), in.remaining());
}

// The SSH2 body re-flowed into lines of at most 70 characters.
std::string wrapped(const std::string &body, const char *eol) {
    std::string out;
    for (std::size_t i = 0; i < body.size(); i += 70) out += body.substr(i, 70) + eol;
    return out;
}

// Everything an operator might paste for this key.
void text_seeds(const SeedKey &k, EVP_PKEY *key, const std::string &der_hex) {
    const std::string n = k.name;
    for (unsigned int format : {PKEY_EXPORT_SSH1, PKEY_EXPORT_SSH2, PKEY_EXPORT_OPENSSH}) {
        const pkey::MallocPtr<char> text(PKEY_LOCAL_GetPubKeyValue(k.alg, format, k.name));
        if (format == PKEY_EXPORT_SSH1 && k.alg != PKEY_ALG_RSA) continue;
        if (!text) die("no export text of " + n);
        static const char *const kForm[] = {"ssh1", "ssh2", "openssh"};
        put("peer_text", n + "-" + kForm[format], text.get());
    }
    const std::string b64 = ssh2_base64(key);
    const char *type = k.alg == PKEY_ALG_RSA   ? "ssh-rsa"
                       : k.alg == PKEY_ALG_DSA ? "ssh-dss"
                                               : nullptr;
    std::string ec_type;
    if (type == nullptr) {
        ec_type = "ecdsa-sha2-" + std::string(k.nid == PKEY_NID_P192   ? "nistp192"
                                              : k.nid == PKEY_NID_P256 ? "nistp256"
                                              : k.nid == PKEY_NID_P384 ? "nistp384"
                                                                       : "nistp521");
        type = ec_type.c_str();
    }
    // As ssh-keygen -e writes it: lines of 70 and a continued quoted comment.
    put("peer_text", n + "-ssh2-wrapped",
        "---- BEGIN SSH2 PUBLIC KEY ----\nComment: \"" + n +
            " key made for \\\nthe fuzz seeds\"\n" + wrapped(b64, "\n") +
            "---- END SSH2 PUBLIC KEY ----\n");
    put("peer_text", n + "-ssh2-crlf-subject",
        "---- BEGIN SSH2 PUBLIC KEY ----\r\nSubject: fuzz\r\nComment: \"x\"\r\n" +
            wrapped(b64, "\r\n") + "---- END SSH2 PUBLIC KEY ----\r\n");
    put("peer_text", n + "-openssh-comment", std::string(type) + "  " + b64 + " fuzz@example\n");
    // The key-code wrapper around hex key code, as the configuration service
    // collects it, and around an OpenSSH line.
    std::string lines;
    for (std::size_t i = 0; i < der_hex.size(); i += 64) lines += der_hex.substr(i, 64) + "\r\n";
    put("peer_text", n + "-keycode-wrapper",
        "public-key-code begin\r\n" + lines + "public-key-code end");
    put("peer_text", n + "-wrapped-openssh",
        "  public-key-code begin\n" + std::string(type) + " " + b64 + "\npublic-key-code end  ");
    if (k.alg == PKEY_ALG_RSA) {
        unsigned int len = 0;
        const pkey::MallocPtr<char> en(PKEY_PUBKEY_EvppkeyToBase64(key, 0, &len));
        if (!en) die("no SSH1 text of " + n);
        put("peer_text", n + "-ssh1-lf", std::to_string(k.bits) + " " + en.get() + "\n");
    }
}

void keycode_seeds(const SeedKey &k, EVP_PKEY *key, std::string &der_hex) {
    unsigned char *der = nullptr;
    const int len = i2d_PUBKEY(key, &der);
    if (len <= 0) die("a key has no DER");
    der_hex = hex(der, static_cast<std::size_t>(len), true);
    put("keycode_entry", k.name, der_hex);
    put("keycode_entry", std::string(k.name) + "-lower",
        hex(der, static_cast<std::size_t>(len), false));
    OPENSSL_free(der);
    if (k.nid == PKEY_NID_P256) {
        // The same point with the curve's parameters spelt out instead of
        // named, as some tools write it.
        pkey::EvpPkeyPtr copy(EVP_PKEY_dup(key));
        unsigned char *explicit_der = nullptr;
        if (copy && EVP_PKEY_set_utf8_string_param(copy.get(), OSSL_PKEY_PARAM_EC_ENCODING,
                                                   OSSL_PKEY_EC_ENCODING_EXPLICIT) == 1) {
            const int elen = i2d_PUBKEY(copy.get(), &explicit_der);
            if (elen > 0)
                put("keycode_entry", "p256-explicit",
                    hex(explicit_der, static_cast<std::size_t>(elen), true));
            OPENSSL_free(explicit_der);
        }
    }
}

// The key file as it lies in the memory directory, and its plain record.
void file_seeds(const SeedKey &k, const std::string &name, const char *tag) {
    char path[PKEY_PATH_LEN] = "";
    PKEY_FS_MakeFullFileName(k.alg, PKEY_KEY_HOST, DEV_GetSelf(), name.c_str(),
                             PKEY_FS_MakeMemFilePrefix, path);
    unsigned int file_len = 0;
    const pkey::MallocPtr<unsigned char> image(
        static_cast<unsigned char *>(PKEY_FS_ReadDataFromVFS(path, &file_len)));
    if (!image) die(std::string("no key file at ") + path);
    put("key_file", std::string(k.name) + "-" + tag, image.get(), file_len);

    unsigned int len = 0;
    const pkey::MallocPtr<unsigned char> record(
        PKEY_LOCAL_ReadKeyToBuf(k.alg, PKEY_KEY_HOST, name.c_str(), &len));
    if (!record) die("the key file of " + name + " does not read back");
    std::string seed(1, static_cast<char>(k.alg));
    seed.append(reinterpret_cast<const char *>(record.get()), len);
    put("store_record", std::string(k.name) + "-" + tag, seed);
    if (k.alg == PKEY_ALG_RSA && k.bits == 1024 && std::string(tag) == "md5") {
        // A plain key file (protection 1): deciphering passes it through.
        std::string plain(reinterpret_cast<const char *>(record.get()), len);
        plain[PKEY_STORE_OFF_PROTECTION] = 1;
        put("key_file", "rsa1024-plain", plain);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: fuzz_seeds STORE CORPUS\n");
        return 2;
    }
    g_corpus = argv[2];
    if (HOST_Open(argv[1]) != 0) die(std::string("cannot open the store ") + argv[1]);
    HOST_SetFipsMode(0);
    HOST_SetAlgoEnabled(CRYPTO_ALG_MD5, -1);
    HOST_SetAlgoEnabled(CRYPTO_ALG_SHA256, -1);
    fuzz::silence_stdout();

    std::vector<pkey::EvpPkeyPtr> keys;
    for (const SeedKey &k : kKeys) {
        keys.emplace_back(generate(k));
        if (!keys.back()) die(std::string("cannot generate ") + k.name);
        if (PKEY_SaveLocalKey(k.name, keys.back().get()) != 0)
            die(std::string("cannot save ") + k.name);
        std::string der_hex;
        blob_seeds(k, keys.back().get());
        keycode_seeds(k, keys.back().get(), der_hex);
        text_seeds(k, keys.back().get(), der_hex);
        file_seeds(k, k.name, "md5");
    }
    // Records and key files with the SHA-256 digest are made in FIPS mode.
    HOST_SetFipsMode(1);
    for (std::size_t i = 0; i < std::size(kKeys); ++i) {
        if (!kKeys[i].fips) continue;
        const std::string name = std::string(kKeys[i].name) + "-fips";
        if (PKEY_SaveLocalKey(name.c_str(), keys[i].get()) != 0) die("cannot save " + name);
        file_seeds(kKeys[i], name, "sha256");
    }
    HOST_SetFipsMode(0);
    return 0;
}
