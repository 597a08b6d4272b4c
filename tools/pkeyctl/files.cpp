// The operator's own files: key texts read with a bound, exports written
// through the key store's file-name guard.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli.hpp"
#include "pkey_local.h"
#include "pkey_types.h"

namespace pkeyctl {
namespace {

constexpr mode_t kPublicFileMode = 0644;

std::string errno_text(int err) { return std::strerror(err); }

// Closes a descriptor when it goes out of scope.
class Fd {
public:
    explicit Fd(int fd) noexcept : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const noexcept { return fd_; }

private:
    int fd_;
};

// Reads at most limit + 1 bytes, so that a longer stream is seen to be longer.
bool read_bounded(int fd, std::string &text, std::size_t limit, int &err) {
    text.clear();
    char buf[8192];
    while (text.size() <= limit) {
        const ssize_t n = ::read(fd, buf, std::min(sizeof buf, limit + 1 - text.size()));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            err = errno;
            return false;
        }
        if (n == 0) break;
        text.append(buf, static_cast<std::size_t>(n));
    }
    return true;
}

const char *kind_of(mode_t mode) {
    if (S_ISDIR(mode)) return "a directory";
    if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
    if (S_ISFIFO(mode)) return "a pipe";
    if (S_ISSOCK(mode)) return "a socket";
    if (S_ISLNK(mode)) return "a symbolic link";
    return "not a regular file";
}

bool has_control_characters(const std::string &text) {
    for (const unsigned char c : text)
        if (c < 0x20 || c == 0x7F) return true;
    return false;
}

}  // namespace

bool read_key_text(const std::string &source, std::string &text, std::string &error) {
    const bool from_stdin = source == "-";
    const std::string label = from_stdin ? "standard input" : printable(source);
    const int fd = from_stdin ? STDIN_FILENO : ::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        error = "cannot read " + label + ": " + errno_text(errno);
        return false;
    }
    Fd owner(from_stdin ? -1 : fd);
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        error = "cannot read " + label + ": " + errno_text(errno);
        return false;
    }
    // A named file must be a plain file; standard input may also be a pipe
    // or a terminal, and is read with the same bound.
    if (S_ISDIR(st.st_mode) || (!from_stdin && !S_ISREG(st.st_mode))) {
        error = label + " is " + kind_of(st.st_mode) + ", not a key text file";
        return false;
    }
    if (S_ISREG(st.st_mode) && static_cast<unsigned long long>(st.st_size) > kMaxKeyText) {
        error = label + " is larger than 64 KiB; no public key text is";
        return false;
    }
    int err = 0;
    if (!read_bounded(fd, text, kMaxKeyText, err)) {
        error = "cannot read " + label + ": " + errno_text(err);
        return false;
    }
    if (text.size() > kMaxKeyText) {
        error = label + " goes on past 64 KiB; no public key text is that long";
        return false;
    }
    if (text.find('\0') != std::string::npos) {
        error = label + " holds a NUL byte: not a public key text";
        return false;
    }
    return true;
}

bool write_user_file(const std::string &path, std::string_view bytes, std::string &error) {
    const std::string label = printable(path);
    if (path.empty() || path.back() == '/') {
        error = "'" + label + "' names a directory, not a file";
        return false;
    }
    if (has_control_characters(path)) {
        error = "'" + label + "' holds control characters";
        return false;
    }
    // The guard judges a full, symlink-free name: the directory is resolved
    // here, so "./", "../" and links in it cannot hide where the file lands.
    const std::size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    if (base == "." || base == "..") {
        error = "'" + label + "' names a directory, not a file";
        return false;
    }
    pkey::MallocPtr<char> real_dir(::realpath(dir.c_str(), nullptr));
    if (!real_dir) {
        error = "cannot write " + label + ": " + printable(dir) + ": " + errno_text(errno);
        return false;
    }
    const std::string full = std::string(real_dir.get()) + (std::strcmp(real_dir.get(), "/") == 0 ? "" : "/") + base;
    if (full.size() >= PKEY_PATH_LEN) {
        error = label + " is a longer path than the store allows (511 characters)";
        return false;
    }
    if (PKEY_LOCAL_CheckFullFileName(full.c_str(), 0, 0, 0) != 0) {
        error = "refusing to write " + printable(full) + ": it is a file of the key store";
        return false;
    }
    struct stat st {};
    if (::lstat(full.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        error = "refusing to write " + printable(full) + ": it is " + kind_of(st.st_mode);
        return false;
    }

    // Written beside its place and renamed over it: the old file stays whole
    // until the new one is, and a link to the old file is not written through.
    std::string temp = std::string(real_dir.get()) + "/." + base + ".XXXXXX";
    const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0) {
        error = "cannot write in " + printable(real_dir.get()) + ": " + errno_text(errno);
        return false;
    }
    bool ok = ::fchmod(fd, kPublicFileMode) == 0;
    for (std::size_t done = 0; ok && done < bytes.size();) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        ok = n > 0;
        if (ok) done += static_cast<std::size_t>(n);
    }
    int err = ok ? 0 : errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (ok && ::rename(temp.c_str(), full.c_str()) != 0) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        ::unlink(temp.c_str());
        error = "cannot write " + printable(full) + ": " + errno_text(err);
    }
    return ok;
}

}  // namespace pkeyctl
