// Fuzz target: the readers of pasted peer key text.
//
// Every input goes through the key-code wrapper and through each of the SSH2,
// OpenSSH and SSH1 readers, each on a fresh writable copy of exactly the
// text's size (they write into it). When the wrapper yields a text of its
// own, the three readers run on fresh copies of that too, as an operator's
// paste is handled.
//
// Property: every key a reader returns, written back out in that reader's
// form, reads back as the same public key through the same reader.
#include <openssl/err.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_common.hpp"
#include "pkey_peer.h"
#include "pkey_pubkey.h"

namespace {

constexpr const char *kTarget = "peer_text";

using Reader = EVP_PKEY *(*)(char *text);

std::string ssh2_base64(EVP_PKEY *key) {
    unsigned int len = 0;
    const pkey::MallocPtr<char> text(PKEY_PUBKEY_EvppkeyToBase64(key, 1, &len));
    if (!text) fuzz::fail(kTarget, "a key that was read does not encode");
    return text.get();
}

const char *type_name(EVP_PKEY *key) {
    switch (EVP_PKEY_get_id(key)) {
        case EVP_PKEY_RSA: return "ssh-rsa";
        case EVP_PKEY_DSA: return "ssh-dss";
        case EVP_PKEY_EC: return "ecdsa-sha2-nistp256";  // the reader skips any 19 characters
        default: fuzz::fail(kTarget, "a reader returned a key of another type");
    }
}

// The key written back in the form the reader takes.
std::string written_form(Reader reader, EVP_PKEY *key) {
    if (reader == PKEY_PEER_ReadSSH2PubKey) {
        std::string body = ssh2_base64(key);
        std::string text = "---- BEGIN SSH2 PUBLIC KEY ----\r\nComment: \"fuzz\"\r\n";
        for (std::size_t i = 0; i < body.size(); i += 70) text += body.substr(i, 70) + "\r\n";
        return text + "---- END SSH2 PUBLIC KEY ----";
    }
    if (reader == PKEY_PEER_ReadOpenSSHPubKey)
        return std::string(type_name(key)) + " " + ssh2_base64(key) + " fuzz@host";
    unsigned int len = 0;
    const pkey::MallocPtr<char> en(PKEY_PUBKEY_EvppkeyToBase64(key, 0, &len));
    if (!en) fuzz::fail(kTarget, "an SSH1 key does not encode as SSH1 text");
    return std::to_string(PKEY_PUBKEY_GetKeyBits(key)) + " " + en.get() + "\r\n";
}

void read_and_check(Reader reader, const char *text, std::size_t size) {
    const pkey::MallocPtr<char> copy = fuzz::copy_text(text, size);
    const pkey::EvpPkeyPtr key(reader(copy.get()));
    if (!key) return;
    const std::string again = written_form(reader, key.get());
    const pkey::MallocPtr<char> again_copy = fuzz::copy_text(again.data(), again.size());
    const pkey::EvpPkeyPtr reread(reader(again_copy.get()));
    if (!reread) fuzz::fail(kTarget, "a key written in its reader's form does not read back");
    if (PKEY_CmpPubKey(key.get(), reread.get()) != 1)
        fuzz::fail(kTarget, "a key written in its reader's form reads back different");
}

void all_readers(const char *text, std::size_t size) {
    for (Reader reader :
         {PKEY_PEER_ReadSSH2PubKey, PKEY_PEER_ReadOpenSSHPubKey, PKEY_PEER_ReadSSH1PubKey})
        read_and_check(reader, text, size);
}

}  // namespace

// A private store: the platform is never left to fall back on ./pkey-store
// or on the kernel's FIPS flag.
extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    fuzz::open_store(false);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const char *text = reinterpret_cast<const char *>(data);
    const std::size_t len = strnlen(text, size);

    const pkey::MallocPtr<char> wrapped = fuzz::copy_text(text, len);
    const char *inner = PKEY_PEER_PeerPubKeyPreProc(wrapped.get());
    if (inner != nullptr) {
        const std::size_t innerLen = std::strlen(inner);
        if (inner < wrapped.get() || inner + innerLen > wrapped.get() + len)
            fuzz::fail(kTarget, "the wrapper's result lies outside the text");
        if (inner != wrapped.get() || innerLen != len) all_readers(inner, innerLen);
    }
    all_readers(text, len);
    ERR_clear_error();
    return 0;
}
