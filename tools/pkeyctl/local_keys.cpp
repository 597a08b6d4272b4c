// The local key files of the store as an operator needs to see them: every
// key whose memory or flash copy is there, read the way the SSH server reads
// it, and for a key that cannot be read, the reason in words.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include "cli.hpp"
#include "pkey_cfgmng.h"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"

namespace pkeyctl {
namespace {

constexpr const char *kKeyFileExt = ".key";

// The memory and flash copies' names of a key on this node.
struct KeyPaths {
    char mem[PKEY_PATH_LEN] = "";
    char dev[PKEY_PATH_LEN] = "";
    KeyPaths(unsigned int alg, unsigned int kind, const std::string &name) {
        const unsigned int node = DEV_GetSelf();
        PKEY_FS_MakeFullFileName(alg, kind, node, name.c_str(), PKEY_FS_MakeMemFilePrefix, mem);
        PKEY_FS_MakeFullFileName(alg, kind, node, name.c_str(), PKEY_FS_MakeDevFilePrefix, dev);
    }
};

bool exists(const char *path) {
    struct stat st {};
    return ::lstat(path, &st) == 0;
}

// The directory part of a path with its links resolved, and its last name;
// "" when the directory is not there.
std::string resolved(const std::string &path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return "";
    pkey::MallocPtr<char> dir(::realpath(path.substr(0, slash).c_str(), nullptr));
    return dir ? std::string(dir.get()) + path.substr(slash) : "";
}

// Both names reach one file: a hard link, or a directory linked to the
// other's, whether or not the file is there now.
bool one_file(const char *a, const char *b) {
    struct stat sa {
    }, sb{};
    if (::stat(a, &sa) == 0 && ::stat(b, &sb) == 0) return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
    const std::string ra = resolved(a);
    return !ra.empty() && ra == resolved(b);
}

std::string strerror_text(int err) { return std::strerror(err); }

// Why the memory copy did not give a plain record.
std::string read_problem(const KeyPaths &paths) {
    if (one_file(paths.mem, paths.dev))
        return "its memory and flash copies are one file (a hard link or a linked directory)";
    struct stat st {};
    if (::lstat(paths.mem, &st) != 0) {
        if (errno == ENOENT) return "its memory copy is missing (the flash copy is there)";
        return "its memory copy cannot be examined: " + strerror_text(errno);
    }
    if (!S_ISREG(st.st_mode)) return "its memory copy is not a regular file";
    if (st.st_size == 0) return "its memory copy is empty";
    if (st.st_size < static_cast<off_t>(PKEY_STORE_HEADER_LEN))
        return "its memory copy is too short for a key file (" + std::to_string(st.st_size) + " bytes)";
    unsigned int len = 0;
    void *raw = PKEY_FS_ReadDataFromVFS(paths.mem, &len);
    if (raw == nullptr) {
        if (::access(paths.mem, R_OK) != 0) return "its memory copy cannot be read: " + strerror_text(errno);
        return "its memory copy cannot be read";
    }
    const pkey::SecureBuffer image = pkey::SecureBuffer::adopt(raw, len);
    const unsigned int protection = image.data()[PKEY_STORE_OFF_PROTECTION];
    const bool fips = CRYPTO_FIPSIsEnabled() == 1;
    if (protection == 2 || protection > PKEY_STORE_PROTECT_SHA256)
        return "its protection byte is " + std::to_string(protection) + ", which no key file has";
    if (fips && protection == PKEY_STORE_PROTECT_MD5) return "it is protected with MD5, which FIPS mode does not read";
    if (fips && protection < 2) return "it is stored unenciphered, which FIPS mode does not read";
    std::string platform = platform_error();
    if (!platform.empty()) return platform;
    return "it fails authentication under this store's device key";
}

// Why a plain record failed its integrity check.
std::string record_problem(const unsigned char *record, unsigned int len) {
    const unsigned int length_field = pkey::load_be32(record + PKEY_STORE_OFF_LENGTH);
    if (length_field != len)
        return "its length field says " + std::to_string(length_field) + " bytes, its record has " +
               std::to_string(len);
    const unsigned int protection = record[PKEY_STORE_OFF_PROTECTION];
    if (protection < 2) return "it is stored unenciphered, which the integrity check does not accept";
    if (protection == PKEY_STORE_PROTECT_MD5 && CRYPTO_AlgoIsEnabled(CRYPTO_ALG_MD5) != 1)
        return "its MD5 digest cannot be checked while MD5 is disabled";
    if (protection == PKEY_STORE_PROTECT_SHA256 && CRYPTO_AlgoIsEnabled(CRYPTO_ALG_SHA256) != 1)
        return "its SHA-256 digest cannot be checked while SHA-256 is disabled";
    if (pkey::load_be32(record + PKEY_STORE_OFF_MARKER) != PKEY_STORE_MARKER) return "its record marker is wrong";
    return "its digest does not match its contents";
}

void read_into(StoredKey &k, const KeyPaths &paths) {
    unsigned int len = 0;
    unsigned char *plain = PKEY_LOCAL_ReadKeyToBuf(k.alg->alg_id, k.kind, k.name.c_str(), &len);
    if (plain == nullptr) {
        k.problem = read_problem(paths);
        return;
    }
    pkey::SecureBuffer record = pkey::SecureBuffer::adopt(plain, len);
    const unsigned char *r = record.data();
    k.protection = r[PKEY_STORE_OFF_PROTECTION];
    if (PKEY_LOCAL_GetKeyStatusFromDataBuf(record.data(), len, nullptr) != 1) {
        k.problem = record_problem(r, len);
        return;
    }
    k.key.reset(PKEY_PUBKEY_ConvertStoreBufToKey(k.alg->alg_id, r, len));
    if (!k.key) {
        k.problem = "it holds no usable key";
        return;
    }
    char created[32];
    std::snprintf(created, sizeof created, "%02u:%02u:%02u %04u/%02u/%02u",
                  unsigned{pkey::load_be16(r + PKEY_STORE_OFF_HOUR)}, unsigned{r[PKEY_STORE_OFF_MINUTE]},
                  unsigned{r[PKEY_STORE_OFF_SECOND]}, unsigned{pkey::load_be16(r + PKEY_STORE_OFF_YEAR)},
                  unsigned{r[PKEY_STORE_OFF_MONTH]}, unsigned{r[PKEY_STORE_OFF_DAY]});
    k.created = created;
    k.bits = PKEY_PUBKEY_GetKeyBits(k.key.get());
    k.readable = true;
}

// Key names of the ".key" files of a key directory. A directory that is not
// there holds none; one that cannot be read is an error, never a short list.
void key_names_in(const std::string &dir, std::set<std::string> &names, std::vector<std::string> &errors) {
    DIR *stream = ::opendir(dir.c_str());
    if (stream == nullptr) {
        if (errno != ENOENT) errors.push_back("cannot read " + printable(dir) + ": " + strerror_text(errno));
        return;
    }
    for (;;) {
        errno = 0;
        const dirent *entry = ::readdir(stream);
        if (entry == nullptr) {
            if (errno != 0) errors.push_back("cannot read " + printable(dir) + ": " + strerror_text(errno));
            break;
        }
        const std::string file = entry->d_name;
        const size_t ext = std::strlen(kKeyFileExt);
        if (file.size() > ext && file.compare(file.size() - ext, ext, kKeyFileExt) == 0)
            names.insert(file.substr(0, file.size() - ext));
    }
    ::closedir(stream);
}

}  // namespace

std::string display_name(const Algorithm &alg, const std::string &name, unsigned int kind) {
    return name.empty() ? std::string(PKEY_FS_GetPKEYDefaultKeyName(alg.alg_id, kind)) + "(default)" : printable(name);
}

std::string StoredKey::display() const { return display_name(*alg, name, kind); }

namespace {

// One key of a store whose memory mirror is already filled.
std::optional<StoredKey> read_stored_key(const Algorithm &alg, unsigned int kind, const std::string &name) {
    const KeyPaths paths(alg.alg_id, kind, name);
    if (!exists(paths.mem) && !exists(paths.dev)) return std::nullopt;
    StoredKey k;
    k.alg = &alg;
    k.kind = kind;
    k.name = name;
    read_into(k, paths);
    return k;
}

}  // namespace

std::optional<StoredKey> stored_key(const Algorithm &alg, unsigned int kind, const std::string &name) {
    // The library fills an absent memory mirror from flash on its first
    // read; what is missing after that is missing.
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    return read_stored_key(alg, kind, name);
}

std::vector<StoredKey> stored_keys(const Algorithm *only, std::vector<std::string> &errors) {
    std::vector<StoredKey> keys;
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    for (const Algorithm &alg : algorithms()) {
        if (only != nullptr && only != &alg) continue;
        if (auto k = read_stored_key(alg, PKEY_KEY_HOST, "")) keys.push_back(std::move(*k));
        if (alg.alg_id == PKEY_ALG_RSA)
            if (auto k = read_stored_key(alg, PKEY_KEY_SERVER, "")) keys.push_back(std::move(*k));
        std::set<std::string> names;
        char dir[PKEY_PATH_LEN] = "";
        PKEY_FS_GetLocKeyMemDirByAlgId(alg.alg_id, dir);
        key_names_in(dir, names, errors);
        char work[PKEY_PATH_LEN] = "";
        if (PKEY_FS_MakeDevFilePrefix(DEV_GetSelf(), work) == 0)
            key_names_in(std::string(work) + PKEY_FS_GetKeyDir(alg.alg_id), names, errors);
        for (const std::string &name : names)
            if (auto k = read_stored_key(alg, PKEY_KEY_HOST, name)) keys.push_back(std::move(*k));
    }
    return keys;
}

std::string write_problem(const Algorithm &alg, unsigned int kind, const std::string &name) {
    const KeyPaths paths(alg.alg_id, kind, name);
    if (one_file(paths.mem, paths.dev))
        return "its memory and flash copies are one file (a hard link or a linked directory); "
               "nothing was changed";
    std::string platform = platform_error();
    if (!platform.empty()) return platform;
    for (const char *file : {paths.mem, paths.dev}) {
        struct stat st {};
        if (::lstat(file, &st) == 0 && !S_ISREG(st.st_mode)) return printable(file) + " is not a regular file";
        // The deepest directory on the way that is there decides.
        std::string dir = file;
        for (;;) {
            const size_t slash = dir.rfind('/');
            if (slash == std::string::npos || slash == 0) break;
            dir.resize(slash);
            if (::stat(dir.c_str(), &st) != 0) continue;
            if (!S_ISDIR(st.st_mode)) return printable(dir) + " is not a directory";
            if (::access(dir.c_str(), W_OK) != 0)
                return "cannot write in " + printable(dir) + ": " + strerror_text(errno);
            break;
        }
    }
    return "its key files could not be written (" + printable(paths.mem) + ", " + printable(paths.dev) + ")";
}

}  // namespace pkeyctl
