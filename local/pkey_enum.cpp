// Enumeration of an algorithm's local keys for display, and export of a
// stored public key as SSH1, SSH2 or OpenSSH text.
#include <dirent.h>
#include <openssl/x509.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "pkey_cfgmng.h"
#include "pkey_curves.hpp"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace {

constexpr unsigned int kNextSteps = PKEY_INFO_NEXT_SERVER | PKEY_INFO_NEXT_DIR;
constexpr unsigned int kExtraRoom = 512;  // decorations around the key's body

using AppendFn = unsigned int (*)(unsigned int, EVP_PKEY *, const char *, const char *,
                                  unsigned int, char *);
const AppendFn g_apfPKEYAppendBuf[3] = {PKEY_LOCAL_AppendBufFromSSH1, PKEY_LOCAL_AppendBufFromSSH2,
                                        PKEY_LOCAL_AppendBufFromOPENSSH};

bool format_allowed(unsigned int alg, unsigned int format) noexcept {
    if (format > PKEY_EXPORT_OPENSSH) return false;
    if (alg == PKEY_ALG_RSA) return true;
    return (alg == PKEY_ALG_DSA || alg == PKEY_ALG_ECDSA) && format != PKEY_EXPORT_SSH1;
}

// Key-type words of the SSH2 comment and the OpenSSH line; an EC key on a
// curve without an SSH key type name gets none.
struct TypeWords {
    std::string_view comment_word;  // the comment is "<word>-<date>" in quotes, else <date>"
    std::string_view openssh_type;  // the line starts "<type> ", else with the body
    const char *openssh_trailer;
};

TypeWords type_words(unsigned int alg, const EVP_PKEY *key) noexcept {
    if (alg == PKEY_ALG_RSA) return {"rsa-key", "ssh-rsa", " rsa-key"};
    if (alg == PKEY_ALG_DSA) return {"dsa-key", "ssh-dss", " dsa-key"};
    const pkey::curves::Curve *curve = pkey::curves::by_nid(pkey::curves::nid_of_key(key));
    if (curve == nullptr || !curve->in_ssh()) return {"", "", " ecdsa-key"};
    return {curve->ssh_type, curve->ssh_type, " ecdsa-key"};
}

int printf_len(std::string_view text) noexcept { return static_cast<int>(text.size()); }

// Copies one directory entry into the handle's buffer: only its used bytes,
// since the stream's own entries may be shorter than a whole struct dirent.
void copy_entry(struct dirent *to, const struct dirent *from) noexcept {
    const std::size_t name_len = strnlen(from->d_name, sizeof to->d_name - 1);
    std::memcpy(to, from, offsetof(struct dirent, d_name));
    std::memcpy(to->d_name, from->d_name, name_len);
    to->d_name[name_len] = '\0';
}

// Next entry but "." and ".." into entry; false at the end (errno 0) or when
// the directory cannot be read on (errno says why).
bool read_entry(DIR *dir, struct dirent *entry) noexcept {
    for (;;) {
        errno = 0;
        const struct dirent *e = readdir(dir);
        if (e == nullptr) return false;
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) {
            copy_entry(entry, e);
            return true;
        }
    }
}

PKEY_LOCAL_KEY_INFO_S *with_step(PKEY_LOCAL_KEY_INFO_S *info, struct dirent *position,
                                 unsigned int next) noexcept {
    if (info == nullptr) return nullptr;
    info->pstPosition = position;
    info->uiFlags = (info->uiFlags & ~kNextSteps) | next;
    return info;
}

}  // namespace

extern "C" {

PKEY_LOCAL_KEY_INFO_S *PKEY_LOCAL_GetLocPubKeyInfo(unsigned int algId, unsigned int keyKind,
                                                   const char *name) noexcept {
    if (name == nullptr) name = "";
    auto *info =
        static_cast<PKEY_LOCAL_KEY_INFO_S *>(std::calloc(1, sizeof(PKEY_LOCAL_KEY_INFO_S)));
    if (info == nullptr) return nullptr;
    info->uiAlgId = PKEY_ALG_UNSUPPORTED;
    PKEY_KEY_WITH_TIME_S *stored = PKEY_LOCAL_ReadKeyToEvpPkey(algId, keyKind, name);
    if (stored == nullptr) return info;

    unsigned char *der = nullptr;
    const int der_len = i2d_PUBKEY(stored->pstKey, &der);
    pkey::OpensslPtr<> der_owner(der);
    char *text =
        der_len > 0 ? PKEY_PUBKEY_DER2BdrnBuf(der, static_cast<unsigned int>(der_len)) : nullptr;
    if (text == nullptr) {
        PKEY_LOCAL_DestoryEvpkeyWithTime(stored);
        return info;
    }
    info->pcPubKeyText = text;
    info->uiBits = PKEY_PUBKEY_GetPubKeySize(stored->pstKey);
    scnprintf(info->szTime, sizeof info->szTime, "%s %s", stored->szTime, stored->szDate);
    PKEY_LOCAL_DestoryEvpkeyWithTime(stored);
    if (name[0] != '\0') {
        scnprintf(info->szName, sizeof info->szName, "%s%s", name, "");
    } else {
        scnprintf(info->szName, sizeof info->szName, "%s%s",
                  PKEY_FS_GetPKEYDefaultKeyName(algId, keyKind), "(default)");
    }
    info->uiAlgId = algId;
    info->uiFlags |= PKEY_INFO_HAS_KEY;
    return info;
}

PKEY_LOCAL_NEXT_HANDLE_S *PKEY_LOCAL_GetNextInit(unsigned int algId) noexcept {
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    auto *handle =
        static_cast<PKEY_LOCAL_NEXT_HANDLE_S *>(std::calloc(1, sizeof(PKEY_LOCAL_NEXT_HANDLE_S)));
    if (handle == nullptr) return nullptr;
    char dir[PKEY_PATH_LEN];
    PKEY_FS_GetLocKeyMemDirByAlgId(algId, dir);
    handle->pstDir = opendir(dir);
    handle->pstEntry = static_cast<struct dirent *>(std::calloc(1, sizeof(struct dirent)));
    if (handle->pstEntry == nullptr) {
        PKEY_LOCAL_DestoryNextHandle(handle);
        return nullptr;
    }
    handle->uiAlgId = algId;
    return handle;
}

PKEY_LOCAL_KEY_INFO_S *PKEY_LOCAL_GetFirst(PKEY_LOCAL_NEXT_HANDLE_S *handle) noexcept {
    if (handle == nullptr) return nullptr;
    const unsigned int next =
        handle->uiAlgId == PKEY_ALG_RSA ? PKEY_INFO_NEXT_SERVER : PKEY_INFO_NEXT_DIR;
    return with_step(PKEY_LOCAL_GetLocPubKeyInfo(handle->uiAlgId, PKEY_KEY_HOST, ""), nullptr,
                     next);
}

PKEY_LOCAL_KEY_INFO_S *PKEY_LOCAL_GetNext(PKEY_LOCAL_NEXT_HANDLE_S *handle,
                                          PKEY_LOCAL_KEY_INFO_S *previous) noexcept {
    if (handle == nullptr || previous == nullptr) return nullptr;
    if ((previous->uiFlags & PKEY_INFO_NEXT_SERVER) != 0) {
        return with_step(PKEY_LOCAL_GetLocPubKeyInfo(handle->uiAlgId, PKEY_KEY_SERVER, ""), nullptr,
                         PKEY_INFO_NEXT_DIR);
    }
    if ((previous->uiFlags & PKEY_INFO_NEXT_DIR) == 0) return nullptr;
    struct dirent *entry =
        previous->pstPosition != nullptr ? previous->pstPosition : handle->pstEntry;
    if (handle->pstDir == nullptr || !read_entry(handle->pstDir, entry)) return nullptr;
    // The key name is the file name without ".key", cut in the entry itself;
    // any other file gives a record without a key.
    const unsigned int alg =
        PKEY_LOCAL_GetLocalKeyName(entry->d_name) == 0 ? handle->uiAlgId : PKEY_ALG_UNSUPPORTED;
    return with_step(PKEY_LOCAL_GetLocPubKeyInfo(alg, PKEY_KEY_HOST, entry->d_name), entry,
                     PKEY_INFO_NEXT_DIR);
}

void PKEY_LOCAL_DestoryNextHandle(PKEY_LOCAL_NEXT_HANDLE_S *handle) noexcept {
    if (handle == nullptr) return;
    if (handle->pstDir != nullptr) closedir(handle->pstDir);
    std::free(handle->pstEntry);
    std::free(handle);
}

void PKEY_LOCAL_GetNextFinal(PKEY_LOCAL_NEXT_HANDLE_S *handle) noexcept {
    PKEY_LOCAL_DestoryNextHandle(handle);
}

unsigned int PKEY_LOCAL_AppendBufFromSSH1(unsigned int /*algId*/, EVP_PKEY *key, const char *body,
                                          const char *date, unsigned int size, char *buf) noexcept {
    const unsigned int bits = PKEY_PUBKEY_GetPubKeySize(key);
    if (bits == 0 || body == nullptr || date == nullptr || buf == nullptr) return PKEY_ERR_FAILED;
    scnprintf(buf, size, "%u %s%s%s%s", bits, body, " rsa-key-", date, "\r\n");
    return 0;
}

unsigned int PKEY_LOCAL_AppendBufFromSSH2(unsigned int algId, EVP_PKEY *key, const char *body,
                                          const char *date, unsigned int size, char *buf) noexcept {
    if (body == nullptr || date == nullptr || buf == nullptr) return PKEY_ERR_FAILED;
    const std::string_view word = type_words(algId, key).comment_word;
    const char *quote = word.empty() ? "" : "\"";
    const char *hyphen = word.empty() ? "" : "-";
    scnprintf(buf, size, "%s%s%s%.*s%s%s%s%s%s%s", "---- BEGIN SSH2 PUBLIC KEY ----\r\n",
              "Comment: ", quote, printf_len(word), word.data(), hyphen, date, "\"\r\n", body,
              "\r\n", "---- END SSH2 PUBLIC KEY ----\r\n");
    return 0;
}

unsigned int PKEY_LOCAL_AppendBufFromOPENSSH(unsigned int algId, EVP_PKEY *key, const char *body,
                                             const char * /*date*/, unsigned int size,
                                             char *buf) noexcept {
    if (body == nullptr || buf == nullptr) return PKEY_ERR_FAILED;
    const TypeWords words = type_words(algId, key);
    const char *blank = words.openssh_type.empty() ? "" : " ";
    scnprintf(buf, size, "%.*s%s%s%s\r\n", printf_len(words.openssh_type),
              words.openssh_type.data(), blank, body, words.openssh_trailer);
    return 0;
}

char *PKEY_LOCAL_GetPubKeyValue(unsigned int algId, unsigned int format,
                                const char *name) noexcept {
    if (!format_allowed(algId, format) || name == nullptr) return nullptr;
    PKEY_KEY_WITH_TIME_S *stored = PKEY_LOCAL_ReadKeyToEvpPkey(algId, PKEY_KEY_HOST, name);
    if (stored == nullptr) return nullptr;
    char *text = nullptr;
    unsigned int body_len = 0;
    // The form is also the encoder's flag: 0 asks for SSH1, any other for SSH2.
    pkey::MallocPtr<char> body(
        PKEY_PUBKEY_EvppkeyToBase64(stored->pstKey, static_cast<int>(format), &body_len));
    if (body && body_len <= UINT32_MAX - kExtraRoom) {
        const unsigned int size = body_len + kExtraRoom;
        text = static_cast<char *>(std::malloc(size));
        if (text != nullptr) {
            text[0] = '\0';
            if (g_apfPKEYAppendBuf[format](algId, stored->pstKey, body.get(), stored->szDate, size,
                                           text) != 0) {
                std::free(text);
                text = nullptr;
            }
        }
    }
    PKEY_LOCAL_DestoryEvpkeyWithTime(stored);
    return text;
}

int PKEY_LOCAL_ExportPubKey(unsigned int algId, const char *name, unsigned int format,
                            const char *file) noexcept {
    if (file == nullptr) return PKEY_ERR_FAILED;
    pkey::MallocPtr<char> text(PKEY_LOCAL_GetPubKeyValue(algId, format, name));
    if (!text) return PKEY_ERR_FAILED;
    if (file[0] == '\0') {
        std::printf("%s\r\n", text.get());
        return 0;
    }
    return PKEY_FS_WriteDataToVFS(text.get(), static_cast<unsigned int>(std::strlen(text.get())),
                                  file);
}

}  // extern "C"
