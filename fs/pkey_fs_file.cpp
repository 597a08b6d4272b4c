// Locked whole-file access to key files, and the copy and removal of flat key
// directories.
//
// Every read, write, copy and removal of a key file holds an exclusive flock
// on it from just after the open to just before the close. A file that is
// being written is emptied at its open, before the writer holds the lock;
// a reader measures the file only once it holds the lock itself, so it sees
// either the whole previous write or the whole next one.
//
// A flock belongs to one open of a file, so a thread that opened a file it
// already holds locked would wait on its own lock for ever (one file under two
// names: a hard link, a linked directory). Each thread keeps a record of the
// files it holds, and such an open is refused instead. Other threads and
// processes are not in the record and wait for the lock as usual.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "pkey_fs.h"
#include "pkey_platform.h"
#include "pkey_util.hpp"

namespace {

constexpr uid_t kStoreOwner = 1;
constexpr gid_t kStoreGroup = 1;
constexpr mode_t kDirMode = 0770;
constexpr mode_t kFileMode = 0660;

// A file this thread holds locked through this layer. The process is part of
// the record: a child made by fork shares its parent's locks rather than
// holding its own, and the parent's release ends the child's wait.
struct HeldFile {
    dev_t dev;
    ino_t ino;
    int fd;
    pid_t pid;
};
thread_local std::vector<HeldFile> t_held;

void forget_held(int fd) noexcept {
    std::erase_if(t_held, [fd](const HeldFile &h) { return h.fd == fd; });
}

// True when this thread holds the file st describes, which it has just opened
// as fd. A record of another process, or whose descriptor was closed without
// this layer (its number free again, perhaps fd itself, or reused for another
// file), is stale and dropped on the way.
bool held_by_this_thread(const struct stat &st, int fd) noexcept {
    bool held = false;
    const pid_t self = getpid();
    std::erase_if(t_held, [&](const HeldFile &h) {
        struct stat now {};
        if (h.pid != self || h.fd == fd || fstat(h.fd, &now) != 0 || now.st_dev != h.dev ||
            now.st_ino != h.ino)
            return true;
        held = held || (h.dev == st.st_dev && h.ino == st.st_ino);
        return false;
    });
    return held;
}

// Opens path for a lock: never through a final symlink, never waiting for the
// other end of a FIFO or on a device, and only a regular file that this thread
// does not already hold. The descriptor is left blocking; -1 on any refusal.
int open_regular_unheld(const char *path, int flags, mode_t mode, struct stat &st) noexcept {
    const int fd = open(path, flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, mode);
    if (fd == -1) return -1;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || held_by_this_thread(st, fd)) {
        close(fd);
        return -1;
    }
    return fd;
}

int clear_nonblock_or_close(int fd) noexcept {
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == -1) {
        close(fd);
        return -1;
    }
    return fd;
}

// Blocking exclusive lock, retried when a signal interrupts the wait; the
// file goes into this thread's record once it is held.
int lock_or_close(int fd, const struct stat &st) noexcept {
    while (flock(fd, LOCK_EX) == -1) {
        if (errno != EINTR) {
            close(fd);
            return -1;
        }
    }
    try {
        forget_held(fd);
        t_held.push_back({st.st_dev, st.st_ino, fd, getpid()});
    } catch (...) {
        // Unrecorded, a later open of this file by this thread could hang.
        (void)flock(fd, LOCK_UN);
        close(fd);
        return -1;
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
// of one directory by two callers) do not disturb each other. False when the
// directory could not be read to its end: a failing read (EOVERFLOW, EIO) is
// never taken for the end of the directory.
template <typename Fn>
bool for_each_entry(DIR *dir, Fn &&fn) {
    for (;;) {
        errno = 0;
        const dirent *entry = readdir(dir);
        if (entry == nullptr) return errno == 0;
        if (!is_dot_entry(entry->d_name)) fn(entry->d_name);
    }
}

}  // namespace

extern "C" {

int PKEY_FS_OpenLock(const char *path) noexcept {
    if (path == nullptr) return -1;
    struct stat st {};
    const int fd = open_regular_unheld(path, O_RDONLY, 0600, st);
    if (fd == -1 || clear_nonblock_or_close(fd) == -1) return -1;
    return lock_or_close(fd, st);
}

int PKEY_FS_OpenCreateLock(const char *path) noexcept {
    if (path == nullptr || PKEY_FS_MakeDir(path) != 0) return -1;
    struct stat st {};
    // No O_TRUNC: a file that is not regular, or that this thread holds (the
    // source of a copy onto itself), must be refused before it is emptied.
    const int fd = open_regular_unheld(path, O_RDWR | O_CREAT, kFileMode, st);
    if (fd == -1) return -1;
    // Emptied before the lock is taken, the moment an O_TRUNC open would
    // empty it: a reader holding the lock then gets a short read and fails
    // cleanly, and one waiting for it sees only the finished write. Keep
    // this order.
    if (ftruncate(fd, 0) != 0) {
        close(fd);
        return -1;
    }
    // Owner and mode are the store's whether or not the file existed; a
    // process that may not change them keeps what it has.
    (void)fchmod(fd, kFileMode);
    if (fchown(fd, kStoreOwner, kStoreGroup) != 0) {
        // not the store's owner: the file keeps the caller's
    }
    if (clear_nonblock_or_close(fd) == -1) return -1;
    return lock_or_close(fd, st);
}

int PKEY_FS_CloseUnLock(int fd) noexcept {
    if (fd == -1) return -1;
    forget_held(fd);
    (void)flock(fd, LOCK_UN);
    return close(fd);
}

int PKEY_FS_MakeDir(const char *path) noexcept {
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
            if (chown(dir, kStoreOwner, kStoreGroup) != 0) {
                // not the store's owner: the directory keeps the caller's
            }
        } else if (errno != EEXIST) {
            return static_cast<int>(PKEY_ERR_FAILED);
        }
    }
    return 0;
}

int PKEY_FS_IsFileExisted(const char *path) noexcept {
    struct stat st {};
    // A link is not a key file, whatever it points to.
    return path != nullptr && lstat(path, &st) == 0 && S_ISREG(st.st_mode) ? 1 : 0;
}

int PKEY_FS_IsDirExisted(const char *path) noexcept {
    struct stat st {};
    return path != nullptr && stat(path, &st) == 0 && S_ISDIR(st.st_mode) ? 1 : 0;
}

void *PKEY_FS_ReadDataFromVFS(const char *path, unsigned int *len) noexcept {
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

int PKEY_FS_WriteDataToVFSWithFd(const void *buf, unsigned int len, int fd) noexcept {
    if (buf == nullptr && len != 0) return static_cast<int>(PKEY_ERR_FAILED);
    return write_once(fd, buf, len) == static_cast<ssize_t>(len)
               ? 0
               : static_cast<int>(PKEY_ERR_FAILED);
}

int PKEY_FS_WriteDataToVFS(const void *buf, unsigned int len, const char *path) noexcept {
    const int fd = PKEY_FS_OpenCreateLock(path);
    if (fd == -1) return static_cast<int>(PKEY_ERR_FAILED);
    const int r = PKEY_FS_WriteDataToVFSWithFd(buf, len, fd);
    // The partial file goes while it is still locked, so no reader sees it.
    if (r != 0) PKEY_FS_RemoveFileFromVFS(0, 0, path);
    PKEY_FS_CloseUnLock(fd);
    return r;
}

int PKEY_FS_RemoveFileFromVFS(int /*ignored1*/, int /*ignored2*/, const char *path) noexcept {
    if (path == nullptr) return static_cast<int>(PKEY_ERR_FAILED);
    if (remove(path) == 0 || errno == ENOENT) return 0;
    return static_cast<int>(PKEY_ERR_FAILED);
}

int PKEY_FS_CopyFileByFullName(const char *src, const char *dst) noexcept {
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

int PKEY_FS_RemovePkeyDir(const char *subDir, const char *base) noexcept {
    if (subDir == nullptr || base == nullptr) return static_cast<int>(PKEY_ERR_FAILED);
    char dir[PKEY_PATH_LEN];
    scnprintf(dir, sizeof dir, "%s%s", base, subDir);
    bool listed = true;
    if (DIR *stream = opendir(dir); stream != nullptr) {
        // Key directories are flat: nothing is descended into, and an entry
        // that cannot be removed makes the final rmdir fail.
        listed = for_each_entry(stream, [&](const char *name) {
            char file[PKEY_PATH_LEN];
            scnprintf(file, sizeof file, "%s%s", dir, name);
            PKEY_FS_RemoveFileFromVFS(0, 0, file);
        });
        closedir(stream);
    }
    // A directory that could not be listed whole may still hold files, so it
    // is left in place.
    if (!listed) return static_cast<int>(PKEY_ERR_FAILED);
    return rmdir(dir) == 0 ? 0 : static_cast<int>(PKEY_ERR_FAILED);
}

int PKEY_FS_CopyPkeyDir(const char *subDir, const char *srcBase, const char *dstBase) noexcept {
    if (subDir == nullptr || srcBase == nullptr || dstBase == nullptr) return 0;
    char src[PKEY_PATH_LEN];
    char dst[PKEY_PATH_LEN];
    scnprintf(src, sizeof src, "%s%s", srcBase, subDir);
    scnprintf(dst, sizeof dst, "%s%s", dstBase, subDir);
    DIR *stream = opendir(src);
    if (stream == nullptr) return 0;
    const bool listed = for_each_entry(stream, [&](const char *name) {
        char from[PKEY_PATH_LEN];
        char to[PKEY_PATH_LEN];
        scnprintf(from, sizeof from, "%s%s", src, name);
        scnprintf(to, sizeof to, "%s%s", dst, name);
        PKEY_FS_CopyFileByFullName(from, to);
    });
    const int closed = closedir(stream);
    return listed ? closed : -1;
}

}  // extern "C"
