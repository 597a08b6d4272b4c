// The store's key pairs that OpenSSH can use: one selection for the agent and
// for the export of every key's public line.
#include "openssh_keys.hpp"

#include <dirent.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "pkey_cfgmng.h"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_types.h"

namespace pkey::openssh {
namespace {

// OpenSSH refuses RSA keys below this size.
constexpr unsigned int kMinRsaBits = 1024;

struct Family {
    const char *alg;
    int evp_type;
    unsigned int alg_id;
};
constexpr Family kFamilies[] = {{"rsa", EVP_PKEY_RSA, PKEY_ALG_RSA},
                                {"ecdsa", EVP_PKEY_EC, PKEY_ALG_ECDSA}};

constexpr const char *kKeyFileExt = ".key";

// Names of the ".key" files of a key directory. A directory that is not there
// holds none; one that cannot be read is a problem, never a short list.
void key_names_in(const std::string &dir, std::set<std::string> &names,
                  std::vector<std::string> &problems) {
    DIR *stream = ::opendir(dir.c_str());
    if (stream == nullptr) {
        if (errno != ENOENT) problems.push_back("cannot read " + dir + ": " + std::strerror(errno));
        return;
    }
    const std::size_t ext = std::strlen(kKeyFileExt);
    for (;;) {
        errno = 0;
        const dirent *entry = ::readdir(stream);
        if (entry == nullptr) {
            if (errno != 0) problems.push_back("cannot read " + dir + ": " + std::strerror(errno));
            break;
        }
        const std::string file = entry->d_name;
        if (file.size() > ext && file.compare(file.size() - ext, ext, kKeyFileExt) == 0)
            names.insert(file.substr(0, file.size() - ext));
    }
    ::closedir(stream);
}

std::string type_of(const std::vector<unsigned char> &blob) {
    ByteReader in(blob.data(), blob.size());
    std::span<const unsigned char> name;
    if (!in.read_length_prefixed(name)) return "";
    return {name.begin(), name.end()};
}

// OpenSSH takes RSA keys of 1024 bits and more and ECDSA keys on its three
// curves; the mode's policy must allow the key too.
bool usable(EVP_PKEY *key) {
    if (PKEY_PUBKEY_IsKeyLenValid(key) != 1) return false;
    if (EVP_PKEY_get_id(key) == EVP_PKEY_RSA) return PKEY_PUBKEY_GetKeyBits(key) >= kMinRsaBits;
    char group[64] = "";
    if (EVP_PKEY_get_group_name(key, group, sizeof group, nullptr) != 1) return false;
    const int nid = OBJ_sn2nid(group);
    return nid == PKEY_NID_P256 || nid == PKEY_NID_P384 || nid == PKEY_NID_P521;
}

}  // namespace

std::vector<unsigned char> ssh_blob(EVP_PKEY *key) {
    unsigned int len = 0;
    const MallocPtr<char> b64(PKEY_PUBKEY_EvppkeyToBase64(key, 1, &len));
    if (!b64) return {};
    const std::size_t text_len = std::strlen(b64.get());
    if (text_len == 0 || text_len % 4 != 0 || text_len > INT32_MAX) return {};
    std::vector<unsigned char> blob(text_len / 4 * 3);
    int n = EVP_DecodeBlock(blob.data(), reinterpret_cast<const unsigned char *>(b64.get()),
                            static_cast<int>(text_len));
    if (n < 0) return {};
    for (std::size_t i = text_len; i > 0 && b64.get()[i - 1] == '='; --i) --n;
    blob.resize(static_cast<std::size_t>(n));
    return blob;
}

Selection select_keys() {
    Selection out;
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    for (const Family &f : kFamilies) {
        std::vector<std::string> candidates;
        if (PKEY_IsKeyExist(f.evp_type, "") == 1) candidates.emplace_back();
        std::set<std::string> names;
        char dir[PKEY_PATH_LEN] = "";
        if (PKEY_FS_GetLocKeyMemDirByAlgId(f.alg_id, dir) == 0)
            key_names_in(dir, names, out.problems);
        char work[PKEY_PATH_LEN] = "";
        if (PKEY_FS_MakeDevFilePrefix(DEV_GetSelf(), work) == 0)
            key_names_in(std::string(work) + PKEY_FS_GetKeyDir(f.alg_id), names, out.problems);
        // A name the library refuses is no key of the store.
        for (const std::string &n : names)
            if (n.size() <= PKEY_KEY_NAME_MAX && PKEY_CheckLocalKeyName(n.c_str()) == 0)
                candidates.push_back(n);

        for (const std::string &name : candidates) {
            const std::string display =
                name.empty() ? std::string(PKEY_FS_GetPKEYDefaultKeyName(f.alg_id, PKEY_KEY_HOST)) +
                                   "(default)"
                             : name;
            const EvpPkeyPtr key(PKEY_GetHostKey(f.evp_type, name.c_str()));
            if (!key) {
                out.problems.push_back(std::string(f.alg) + " key " + display + " (unreadable)");
                continue;
            }
            if (!usable(key.get())) continue;
            Key k;
            k.alg = f.alg;
            k.evp_type = f.evp_type;
            k.alg_id = f.alg_id;
            k.name = name;
            k.display = display;
            k.file_stem = std::string(f.alg) + "-" +
                          (name.empty() ? PKEY_FS_GetPKEYDefaultKeyName(f.alg_id, PKEY_KEY_HOST)
                                        : name.c_str());
            k.blob = ssh_blob(key.get());
            k.type = type_of(k.blob);
            if (k.blob.empty() || k.type.empty()) {
                out.problems.push_back(std::string(f.alg) + " key " + display + " (no SSH form)");
                continue;
            }
            out.keys.push_back(std::move(k));
        }
    }
    return out;
}

EvpPkeyPtr load_private(const Key &key) {
    EvpPkeyPtr pair(PKEY_GetHostKey(key.evp_type, key.name.c_str()));
    if (!pair || !usable(pair.get()) || ssh_blob(pair.get()) != key.blob) return nullptr;
    return pair;
}

}  // namespace pkey::openssh
