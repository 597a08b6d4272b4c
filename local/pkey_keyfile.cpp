// Local key files: a store record with its body enciphered, written to the
// memory directory and the flash work directory, read back from memory,
// deciphered and checked.
#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>

#include "pkey_backup.h"
#include "pkey_cfgmng.h"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_local_internal.hpp"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_record.hpp"
#include "pkey_util.hpp"

namespace {

using pkey::SecureBuffer;

constexpr unsigned int kHeaderLen = PKEY_STORE_HEADER_LEN;
constexpr unsigned char kProtectRefused = 2;

bool is_plain(unsigned char protection) noexcept { return protection < kProtectRefused; }

// Names of the memory and device copies of a key on this node.
struct KeyFileNames {
    char mem[PKEY_PATH_LEN] = "";
    char dev[PKEY_PATH_LEN] = "";
    KeyFileNames(unsigned int alg, unsigned int kind, const char *name) noexcept {
        const unsigned int node = DEV_GetSelf();
        PKEY_FS_MakeFullFileName(alg, kind, node, name, PKEY_FS_MakeMemFilePrefix, mem);
        PKEY_FS_MakeFullFileName(alg, kind, node, name, PKEY_FS_MakeDevFilePrefix, dev);
    }
};

int write_file_image(unsigned int alg, unsigned int kind, const unsigned char *image,
                     unsigned int image_len, const char *name) {
    const KeyFileNames files(alg, kind, name);
    // One file under both names: writing the memory copy would empty the
    // only flash copy, and the failing device open would then remove it.
    if (pkey::local::same_existing_file(files.mem, files.dev)) return PKEY_ERR_FAILED;
    int result = 0;
    int mem_fd = -1;
    int dev_fd = -1;
    mem_fd = PKEY_FS_OpenCreateLock(files.mem);
    if (mem_fd == -1) {
        result = PKEY_ERR_FAILED;
    } else if ((result = PKEY_FS_WriteDataToVFSWithFd(image, image_len, mem_fd)) != 0) {
        PKEY_FS_RemoveFileFromVFS(0, 0, files.mem);
    } else if ((dev_fd = PKEY_FS_OpenCreateLock(files.dev)) == -1) {
        // Never leave a key in memory alone.
        PKEY_FS_RemoveFileFromVFS(0, 0, files.mem);
        result = PKEY_ERR_FAILED;
    } else if ((result = PKEY_FS_WriteDataToVFSWithFd(image, image_len, dev_fd)) != 0) {
        PKEY_FS_RemoveFileFromVFS(0, 0, files.dev);
        PKEY_FS_RemoveFileFromVFS(0, 0, files.mem);
    } else {
        PKEY_BACKUP_SndRtLocalKey(alg, image_len, image, name, PKEY_FS_WriteDataToVFS, kind);
    }
    PKEY_FS_CloseUnLock(dev_fd);
    PKEY_FS_CloseUnLock(mem_fd);
    return result;
}

}  // namespace

namespace pkey::local {

SecureBuffer read_checked_record(unsigned int algId, unsigned int keyKind,
                                 const char *name) noexcept {
    unsigned int len = 0;
    unsigned char *plain = PKEY_LOCAL_ReadKeyToBuf(algId, keyKind, name, &len);
    if (plain == nullptr) return {};
    SecureBuffer record = SecureBuffer::adopt(plain, len);
    if (!pkey::record::check(record.span(), nullptr)) return {};
    return record;
}

}  // namespace pkey::local

extern "C" {

int PKEY_LOCAL_WriteKeyBufToDev(unsigned int algId, unsigned int keyKind,
                                const unsigned char *record, unsigned int len,
                                const char *name) noexcept {
    if (pkey::is_escaping_key_name(name)) return PKEY_ERR_FAILED;
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    return pkey::c_boundary<int>(PKEY_ERR_FAILED, [&]() -> int {
        pkey::record::Header header;
        if (record == nullptr || name == nullptr || len > UINT32_MAX - PKEY_CIPHER_OVERHEAD ||
            !pkey::record::parse_header({record, len}, header) || header.length != len)
            return PKEY_ERR_FAILED;
        SecureBuffer image(len + PKEY_CIPHER_OVERHEAD);
        if (!image) return PKEY_ERR_FAILED;

        std::memcpy(image.data(), record, kHeaderLen);
        const unsigned char protection = header.protection;
        unsigned int image_len = len;
        if (is_plain(protection)) {
            std::memcpy(image.data() + kHeaderLen, record + kHeaderLen, len - kHeaderLen);
        } else if (protection == kProtectRefused) {
            return PKEY_ERR_FAILED;
        } else {
            const unsigned int r =
                PKEY_Encrypt(len - kHeaderLen, record + kHeaderLen,
                             len - kHeaderLen + PKEY_CIPHER_OVERHEAD, image.data() + kHeaderLen);
            if (r != 0) return static_cast<int>(r);
            // The whole region goes to disk, whatever the cipher used of it.
            image_len = len + PKEY_CIPHER_OVERHEAD;
        }
        return write_file_image(algId, keyKind, image.data(), image_len, name);
    });
}

int PKEY_LOCAL_SaveLocalKey(unsigned int algId, unsigned int keyKind, EVP_PKEY *key,
                            const char *name) noexcept {
    if (key == nullptr || name == nullptr || pkey::is_escaping_key_name(name))
        return PKEY_ERR_FAILED;
    unsigned int len = 0;
    unsigned char *built = PKEY_PUBKEY_ConvertKeyToStoreBuf(key, &len);
    if (built == nullptr) return PKEY_ERR_FAILED;
    SecureBuffer record = SecureBuffer::adopt(built, len);
    // Kind and name lie outside the digest, so they are stamped afterwards.
    pkey::record::stamp_kind_and_name(record.span(), static_cast<std::uint8_t>(keyKind), name);
    return PKEY_LOCAL_WriteKeyBufToDev(algId, keyKind, record.data(), len, name);
}

int PKEY_SaveLocalKey(const char *name, EVP_PKEY *key) noexcept {
    if (key == nullptr || name == nullptr || name[0] == '\0' || pkey::is_escaping_key_name(name))
        return PKEY_ERR_FAILED;
    const unsigned int alg =
        PKEY_PUBKEY_GetPkeyAlgIdByEvpId(static_cast<unsigned int>(EVP_PKEY_get_id(key)));
    if (alg >= PKEY_ALG_UNSUPPORTED) return PKEY_ERR_FAILED;
    return PKEY_LOCAL_SaveLocalKey(alg, PKEY_KEY_HOST, key, name);
}

int PKEY_LOCAL_DecryptPKey(unsigned int inLen, const unsigned char *in, unsigned int cap,
                           unsigned char *out, unsigned int *outLen) noexcept {
    if (in == nullptr || out == nullptr || outLen == nullptr) return PKEY_ERR_FAILED;
    pkey::record::Header header;
    if (cap < kHeaderLen || !pkey::record::parse_header({in, inLen}, header))
        return PKEY_ERR_FAILED;
    const unsigned char protection = header.protection;
    if (CRYPTO_FIPSIsEnabled() == 1) {
        if (protection != PKEY_STORE_PROTECT_SHA256) return PKEY_ERR_FAILED;
    } else if (is_plain(protection)) {
        if (cap < inLen) return PKEY_ERR_FAILED;
        std::memmove(out, in, inLen);
        *outLen = inLen;
        return 0;
    } else if (protection != PKEY_STORE_PROTECT_MD5 && protection != PKEY_STORE_PROTECT_SHA256) {
        return PKEY_ERR_FAILED;
    }
    const unsigned int plain =
        PKEY_Decrypt(inLen - kHeaderLen, in + kHeaderLen, cap - kHeaderLen, out + kHeaderLen);
    if (plain == 0) return PKEY_ERR_FAILED;
    std::memmove(out, in, kHeaderLen);
    *outLen = plain + kHeaderLen;
    return 0;
}

unsigned char *PKEY_LOCAL_ReadKeyToBuf(unsigned int algId, unsigned int keyKind, const char *name,
                                       unsigned int *len) noexcept {
    if (name == nullptr || len == nullptr || pkey::is_escaping_key_name(name)) return nullptr;
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    return pkey::c_boundary<unsigned char *>(nullptr, [&]() -> unsigned char * {
        char mem[PKEY_PATH_LEN] = "";
        PKEY_FS_MakeFullFileName(algId, keyKind, DEV_GetSelf(), name, PKEY_FS_MakeMemFilePrefix,
                                 mem);
        unsigned int file_len = 0;
        void *data = PKEY_FS_ReadDataFromVFS(mem, &file_len);
        if (data == nullptr) return nullptr;
        SecureBuffer buf = SecureBuffer::adopt(data, file_len);
        unsigned int plain_len = 0;
        if (PKEY_LOCAL_DecryptPKey(file_len, buf.data(), file_len, buf.data(), &plain_len) != 0)
            return nullptr;
        *len = plain_len;
        return buf.release();
    });
}

int PKEY_LOCAL_GetKeyStatusFromDataBuf(unsigned char *record, unsigned int len,
                                       unsigned char *protection) noexcept {
    if (record == nullptr) return 0;
    return pkey::record::check({record, len}, protection) ? 1 : 0;
}

PKEY_KEY_WITH_TIME_S *PKEY_LOCAL_ReadKeyToEvpPkey(unsigned int algId, unsigned int keyKind,
                                                  const char *name) noexcept {
    SecureBuffer record = pkey::local::read_checked_record(algId, keyKind, name);
    pkey::record::Header header;
    if (record.size() == 0 || !pkey::record::parse_header(record.span(), header)) return nullptr;
    auto *out = static_cast<PKEY_KEY_WITH_TIME_S *>(std::calloc(1, sizeof(PKEY_KEY_WITH_TIME_S)));
    if (out == nullptr) return nullptr;
    scnprintf(out->szDate, sizeof out->szDate, "%04d/%02d/%02d", header.year, header.month,
              header.day);
    scnprintf(out->szTime, sizeof out->szTime, "%02d:%02d:%02d", header.hour, header.minute,
              header.second);
    out->pstKey = PKEY_PUBKEY_ConvertStoreBufToKey(algId, record.data(),
                                                   static_cast<unsigned int>(record.size()));
    if (out->pstKey == nullptr) {
        std::free(out);
        return nullptr;
    }
    return out;
}

void PKEY_LOCAL_DestoryEvpkeyWithTime(PKEY_KEY_WITH_TIME_S *keyWithTime) noexcept {
    if (keyWithTime == nullptr) return;
    EVP_PKEY_free(keyWithTime->pstKey);
    std::free(keyWithTime);
}

void PKEY_LOCAL_DestroyLocalKeyInfo(PKEY_LOCAL_KEY_INFO_S *info) noexcept {
    if (info == nullptr) return;
    std::free(info->pcPubKeyText);
    std::free(info);
}

}  // extern "C"
