// Locked whole-file access to key files, and the copy and removal of flat key
// directories.
//
// Every read, write, copy and removal of a key file holds an exclusive flock
// on it from just after the open to just before the close. A file that is
// being written is truncated by its open, before the writer holds the lock;
// a reader measures the file only once it holds the lock itself, so it sees
// either the whole previous write or the whole next one.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "pkey_fs.h"
#include "pkey_platform.h"
#include "pkey_util.hpp"

namespace {

constexpr uid_t kStoreOwner = 1;
constexpr gid_t kStoreGroup = 1;
constexpr mode_t kDirMode = 0770;
constexpr mode_t kFileMode = 0660;

// Blocking exclusive lock, retried when a signal interrupts the wait.
int lock_or_close(int fd) noexcept {
    while (flock(fd, LOCK_EX) == -1) {
        if (errno != EINTR) {
            close(fd);
            return -1;
        }
    }
    return fd;
}

ssize_t read_once(int fd, void *buf, size_t len) noexcept {
    ssize_t n;
    do {
        n = read(fd, buf, len);
    } while (n == -1 && errno == EINTR);
    return n;
}

ssize_t write_once(int fd, const void *buf, size_t len) noexcept {
    ssize_t n;
    do {
        n = write(fd, buf, len);
    } while (n == -1 && errno == EINTR);
    return n;
}

// Size of the locked file behind fd; -1 when it is not a regular file.
off_t regular_file_size(int fd) noexcept {
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return -1;
    return st.st_size;
}

bool is_dot_entry(const char *name) noexcept {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// Calls fn(entry name) for every entry of an open directory but "." and "..".
// Each stream keeps its own position, so walks of different directories (or
// of one directory by two callers) do not disturb each other.
template <typename Fn>
void for_each_entry(DIR *dir, Fn &&fn) {
    for (;;) {
        errno = 0;
        const dirent *entry = readdir(dir);
        if (entry == nullptr) return;  // end of the stream, or an error
        if (!is_dot_entry(entry->d_name)) fn(entry->d_name);
    }
}

}  // namespace

extern "C" {

int PKEY_FS_OpenLock(const char *path) {
    if (path == nullptr) return -1;
    const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC, 0600);
    return fd == -1 ? -1 : lock_or_close(fd);
}

int PKEY_FS_OpenCreateLock(const char *path) {
    if (path == nullptr || PKEY_FS_MakeDir(path) != 0) return -1;
    const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kFileMode);
    if (fd == -1) return -1;
    // Owner and mode are the store's whether or not the file existed; a
    // process that may not change them keeps what it has.
    (void)fchmod(fd, kFileMode);
    (void)fchown(fd, kStoreOwner, kStoreGroup);
    return lock_or_close(fd);
}

int PKEY_FS_CloseUnLock(int fd) {
    if (fd == -1) return -1;
    (void)flock(fd, LOCK_UN);
    return close(fd);
}

int PKEY_FS_MakeDir(const char *path) {
    if (path == nullptr) return static_cast<int>(PKEY_ERR_FAILED);
    char dir[PKEY_PATH_LEN];
    const char *start = path;  // first character not yet handled
    for (const char *slash = std::strchr(path, '/'); slash != nullptr;
         slash = std::strchr(slash + 1, '/')) {
        if (slash == start) {  // a leading "/" or a doubled "//"
            start = slash + 1;
            continue;
        }
        start = slash + 1;
        const auto len = static_cast<size_t>(slash - path);
        if (len >= sizeof dir) return static_cast<int>(PKEY_ERR_FAILED);
        std::memcpy(dir, path, len);
        dir[len] = '\0';
        if (mkdir(dir, kDirMode) == 0) {
            (void)chmod(dir, kDirMode);
            (void)chown(dir, kStoreOwner, kStoreGroup);
        } else if (errno != EEXIST) {
            return static_cast<int>(PKEY_ERR_FAILED);
        }
    }
    return 0;
}

int PKEY_FS_IsFileExisted(const char *path) {
    struct stat st {};
    // A link is not a key file, whatever it points to.
    return path != nullptr && lstat(path, &st) == 0 && S_ISREG(st.st_mode) ? 1 : 0;
}

int PKEY_FS_IsDirExisted(const char *path) {
    struct stat st {};
    return path != nullptr && stat(path, &st) == 0 && S_ISDIR(st.st_mode) ? 1 : 0;
}

void *PKEY_FS_ReadDataFromVFS(const char *path, unsigned int *len) {
    if (path == nullptr || len == nullptr) return nullptr;
    return pkey::c_boundary<void *>(nullptr, [&]() -> void * {
        const int fd = PKEY_FS_OpenLock(path);
        if (fd == -1) return nullptr;
        const off_t size = regular_file_size(fd);
        if (size <= 0 || size > static_cast<off_t>(UINT32_MAX - 1)) {
            PKEY_FS_CloseUnLock(fd);
            return nullptr;
        }
        auto data = pkey::SecureBuffer(static_cast<size_t>(size) + 1);
        const ssize_t got = data ? read_once(fd, data.data(), static_cast<size_t>(size)) : -1;
        PKEY_FS_CloseUnLock(fd);
        if (got != size) return nullptr;  // a short read is a failure
        *len = static_cast<unsigned int>(size);
        return data.release();
    });
}

int PKEY_FS_WriteDataToVFSWithFd(const void *buf, unsigned int len, int fd) {
    if (buf == nullptr && len != 0) return static_cast<int>(PKEY_ERR_FAILED);
    return write_once(fd, buf, len) == static_cast<ssize_t>(len) ? 0
                                                                 : static_cast<int>(PKEY_ERR_FAILED);
}

int PKEY_FS_WriteDataToVFS(const void *buf, unsigned int len, const char *path) {
    const int fd = PKEY_FS_OpenCreateLock(path);
    if (fd == -1) return static_cast<int>(PKEY_ERR_FAILED);
    const int r = PKEY_FS_WriteDataToVFSWithFd(buf, len, fd);
    // The partial file goes while it is still locked, so no reader sees it.
    if (r != 0) PKEY_FS_RemoveFileFromVFS(0, 0, path);
    PKEY_FS_CloseUnLock(fd);
    return r;
}

int PKEY_FS_RemoveFileFromVFS(int /*ignored1*/, int /*ignored2*/, const char *path) {
    if (path == nullptr) return static_cast<int>(PKEY_ERR_FAILED);
    if (remove(path) == 0 || errno == ENOENT) return 0;
    return static_cast<int>(PKEY_ERR_FAILED);
}

int PKEY_FS_CopyFileByFullName(const char *src, const char *dst) {
    const int sfd = PKEY_FS_OpenLock(src);
    if (sfd == -1) return -1;
    pkey::c_boundary_void([&] {
        const off_t size = regular_file_size(sfd);
        if (size <= 0 || size > static_cast<off_t>(UINT32_MAX)) return;
        auto data = pkey::SecureBuffer(static_cast<size_t>(size));
        if (!data || read_once(sfd, data.data(), data.size()) != size) return;
        const int dfd = PKEY_FS_OpenCreateLock(dst);
        if (dfd == -1) return;
        if (PKEY_FS_WriteDataToVFSWithFd(data.data(), static_cast<unsigned int>(size), dfd) != 0)
            PKEY_FS_RemoveFileFromVFS(0, 0, dst);
        PKEY_FS_CloseUnLock(dfd);
    });
    // The source lock is taken first and released last.
    return PKEY_FS_CloseUnLock(sfd);
}

int PKEY_FS_RemovePkeyDir(const char *subDir, const char *base) {
    if (subDir == nullptr || base == nullptr) return static_cast<int>(PKEY_ERR_FAILED);
    char dir[PKEY_PATH_LEN];
    scnprintf(dir, sizeof dir, "%s%s", base, subDir);
    if (DIR *stream = opendir(dir); stream != nullptr) {
        // Key directories are flat: nothing is descended into, and an entry
        // that cannot be removed makes the final rmdir fail.
        for_each_entry(stream, [&](const char *name) {
            char file[PKEY_PATH_LEN];
            scnprintf(file, sizeof file, "%s%s", dir, name);
            PKEY_FS_RemoveFileFromVFS(0, 0, file);
        });
        closedir(stream);
    }
    return rmdir(dir) == 0 ? 0 : static_cast<int>(PKEY_ERR_FAILED);
}

int PKEY_FS_CopyPkeyDir(const char *subDir, const char *srcBase, const char *dstBase) {
    if (subDir == nullptr || srcBase == nullptr || dstBase == nullptr) return 0;
    char src[PKEY_PATH_LEN];
    char dst[PKEY_PATH_LEN];
    scnprintf(src, sizeof src, "%s%s", srcBase, subDir);
    scnprintf(dst, sizeof dst, "%s%s", dstBase, subDir);
    DIR *stream = opendir(src);
    if (stream == nullptr) return 0;
    for_each_entry(stream, [&](const char *name) {
        char from[PKEY_PATH_LEN];
        char to[PKEY_PATH_LEN];
        scnprintf(from, sizeof from, "%s%s", src, name);
        scnprintf(to, sizeof to, "%s%s", dst, name);
        PKEY_FS_CopyFileByFullName(from, to);
    });
    return closedir(stream);
}

}  // extern "C"
