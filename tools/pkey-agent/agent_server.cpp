// pkey-agent's socket and its poll() loop.
#include "agent_server.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <vector>

#include "agent_protocol.hpp"
#include "agent_service.hpp"
#include "pkey_util.hpp"

namespace pkey::agent {
namespace {

using Clock = std::chrono::steady_clock;

// sshd keeps one connection per process, clients one each: far below this.
constexpr std::size_t kMaxConnections = 128;
// Answers waiting for a client that does not read; past this its requests
// wait too.
constexpr std::size_t kMaxPendingOutput = std::size_t{1} << 20;
constexpr std::size_t kReadChunk = std::size_t{64} * 1024;

int g_signal_pipe = -1;

extern "C" void on_signal(int) {
    const int saved = errno;
    const char byte = 1;
    [[maybe_unused]] const ssize_t n = ::write(g_signal_pipe, &byte, 1);
    errno = saved;
}

void log_line(const std::string &line) {
    std::fprintf(stderr, "pkey-agent: %s\n", line.c_str());
    std::fflush(stderr);
}

std::string errno_text(int err) { return std::strerror(err); }

std::string mode_text(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

// The socket's directory: this user's, not open to group or others; made
// with mode 0700 when it is not there.
bool prepare_directory(const std::string &dir, std::string &error) {
    struct stat st {};
    if (::lstat(dir.c_str(), &st) != 0) {
        if (errno != ENOENT || ::mkdir(dir.c_str(), 0700) != 0 || ::chmod(dir.c_str(), 0700) != 0 ||
            ::lstat(dir.c_str(), &st) != 0) {
            error = "cannot make the socket directory " + dir + ": " + errno_text(errno);
            return false;
        }
    }
    if (S_ISLNK(st.st_mode)) {
        error = "the socket directory " + dir + " is a symbolic link";
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        error = "the socket directory " + dir + " is not a directory";
        return false;
    }
    if (st.st_uid != ::geteuid()) {
        error = "the socket directory " + dir + " belongs to uid " + std::to_string(st.st_uid) +
                ", not to this agent's uid " + std::to_string(::geteuid());
        return false;
    }
    if ((st.st_mode & 077) != 0) {
        error = "the socket directory " + dir + " has mode " + mode_text(st.st_mode) +
                ": group and others must have no access (0700)";
        return false;
    }
    return true;
}

bool socket_address(const std::string &path, sockaddr_un &addr, std::string &error) {
    addr = sockaddr_un{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        error = "the socket path " + path + " is too long (at most " +
                std::to_string(sizeof addr.sun_path - 1) + " bytes)";
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Whatever is at the path already: nothing, or a socket of this user's that
// no agent listens on any more (removed here); anything else is refused.
bool clear_path(const std::string &path, const sockaddr_un &addr, std::string &error) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        if (errno == ENOENT) return true;
        error = "cannot examine " + path + ": " + errno_text(errno);
        return false;
    }
    if (!S_ISSOCK(st.st_mode)) {
        error = path + " exists and is not a socket; refusing to replace it";
        return false;
    }
    if (st.st_uid != ::geteuid()) {
        error =
            path + " is a socket of uid " + std::to_string(st.st_uid) + "; refusing to replace it";
        return false;
    }
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe < 0) {
        error = "cannot make a socket: " + errno_text(errno);
        return false;
    }
    const int r = ::connect(probe, reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
    const int err = errno;
    ::close(probe);
    if (r == 0) {
        error = "an agent is listening on " + path + " already";
        return false;
    }
    if (err != ECONNREFUSED) {
        error = "cannot tell whether an agent listens on " + path + ": " + errno_text(err);
        return false;
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        error = "cannot remove the dead agent's socket " + path + ": " + errno_text(errno);
        return false;
    }
    return true;
}

struct Connection {
    int fd = -1;
    long pid = 0;  // the client's, for log lines
    Bytes in;
    Bytes out;
    Clock::time_point in_since;   // when the unfinished message in `in` began
    Clock::time_point out_since;  // when `out` last made progress
    bool closing = false;
};

std::string who(const Connection &c) { return "client pid " + std::to_string(c.pid); }

void set_nonblocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

class Server {
public:
    Server(const Listener &listener, const ServerOptions &options)
        : listener_(listener), options_(options) {}
    ~Server() {
        for (Connection &c : connections_) ::close(c.fd);
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    void run(int signal_fd) {
        std::vector<pollfd> fds;
        for (;;) {
            fds.clear();
            fds.push_back({signal_fd, POLLIN, 0});
            const bool accepting = connections_.size() < kMaxConnections;
            fds.push_back({accepting ? listener_.fd : -1, POLLIN, 0});
            bool waiting = false;
            for (const Connection &c : connections_) {
                short events = 0;
                if (c.out.size() < kMaxPendingOutput) events |= POLLIN;
                if (!c.out.empty()) events |= POLLOUT;
                waiting = waiting || !c.in.empty() || !c.out.empty();
                fds.push_back({c.fd, events, 0});
            }
            // Timeouts are checked each second while any message or answer waits.
            const int r = ::poll(fds.data(), fds.size(), waiting ? 1000 : -1);
            if (r < 0 && errno != EINTR) {
                log_line("poll failed: " + errno_text(errno));
                return;
            }
            if (r > 0 && (fds[0].revents & POLLIN) != 0) return;
            std::size_t i = 2;
            for (Connection &c : connections_) {
                short ev = 0;
                if (r > 0) ev = fds[i].revents;
                ++i;
                if ((ev & (POLLIN | POLLHUP | POLLERR)) != 0) receive(c);
                if (!c.closing && (ev & POLLOUT) != 0) send_pending(c);
            }
            expire();
            connections_.remove_if([](const Connection &c) {
                if (c.closing) ::close(c.fd);
                return c.closing;
            });
            if (r > 0 && accepting && (fds[1].revents & POLLIN) != 0) accept_clients();
        }
    }

private:
    void accept_clients() {
        while (connections_.size() < kMaxConnections) {
            const int fd = ::accept4(listener_.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR &&
                    errno != ECONNABORTED)
                    log_line("accept failed: " + errno_text(errno));
                return;
            }
            // Only this user and root may use the keys, whatever the
            // socket's mode became.
            ucred cred{};
            socklen_t len = sizeof cred;
            if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 ||
                (cred.uid != ::geteuid() && cred.uid != 0)) {
                log_line("refused a connection of uid " + std::to_string(cred.uid));
                ::close(fd);
                continue;
            }
            Connection c;
            c.fd = fd;
            c.pid = cred.pid;
            connections_.push_back(std::move(c));
        }
    }

    void close_with(Connection &c, const std::string &why) {
        log_line("closed the connection of " + who(c) + ": " + why);
        c.closing = true;
    }

    void receive(Connection &c) {
        std::size_t old = c.in.size();
        c.in.resize(old + kReadChunk);
        const ssize_t n = ::recv(c.fd, c.in.data() + old, kReadChunk, 0);
        c.in.resize(old + (n > 0 ? static_cast<std::size_t>(n) : 0));
        if (n == 0) {
            if (!c.in.empty()) log_line(who(c) + " hung up in the middle of a message");
            c.closing = true;
            return;
        }
        if (n < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) c.closing = true;
            return;
        }
        if (old == 0) c.in_since = Clock::now();
        process(c);
    }

    // Answers every whole message received, in order.
    void process(Connection &c) {
        std::size_t used = 0;
        for (;;) {
            const ByteSpan rest(c.in.data() + used, c.in.size() - used);
            std::size_t len = 0;
            const Frame frame = next_frame(rest, len);
            if (frame == Frame::kIncomplete) break;
            if (frame == Frame::kTooLong) {
                close_with(c, "a message of " + std::to_string(load_be32(rest.data())) +
                                  " bytes, over the limit of " + std::to_string(kMaxMessage));
                return;
            }
            if (frame == Frame::kEmpty) {
                close_with(c, "a message of length 0");
                return;
            }
            Request request;
            std::string error;
            if (!parse_request(rest.subspan(4, len), request, error)) {
                close_with(c, "malformed " + error);
                return;
            }
            const Reply reply = answer(request);
            if (reply.refused) {
                log_line("refused " + who(c) + ": " + reply.note);
            } else if (options_.verbose) {
                log_line(who(c) + ": " + reply.note);
            }
            if (c.out.empty()) c.out_since = Clock::now();
            c.out.insert(c.out.end(), reply.message.begin(), reply.message.end());
            used += 4 + len;
        }
        if (used != 0) {
            c.in.erase(c.in.begin(), c.in.begin() + static_cast<std::ptrdiff_t>(used));
            c.in_since = Clock::now();
        }
        send_pending(c);
    }

    void send_pending(Connection &c) {
        if (c.out.empty()) return;
        const ssize_t n = ::send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) c.closing = true;
            return;
        }
        c.out.erase(c.out.begin(), c.out.begin() + n);
        c.out_since = Clock::now();
    }

    void expire() {
        const auto now = Clock::now();
        const auto limit = std::chrono::seconds(options_.timeout_seconds);
        for (Connection &c : connections_) {
            if (c.closing) continue;
            if (!c.in.empty() && now - c.in_since > limit)
                close_with(c, "half a message for over " +
                                  std::to_string(options_.timeout_seconds) + " s");
            else if (!c.out.empty() && now - c.out_since > limit)
                close_with(c, "answers unread for over " +
                                  std::to_string(options_.timeout_seconds) + " s");
        }
    }

    const Listener &listener_;
    const ServerOptions &options_;
    std::list<Connection> connections_;
};

}  // namespace

bool open_listener(const std::string &path, Listener &out, std::string &error) {
    if (path.empty() || path.back() == '/') {
        error = "the socket path '" + path + "' names no file";
        return false;
    }
    const std::size_t slash = path.rfind('/');
    const std::string dir =
        slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    if (base == "." || base == "..") {
        error = "the socket path '" + path + "' names a directory";
        return false;
    }
    if (!prepare_directory(dir, error)) return false;
    const MallocPtr<char> real_dir(::realpath(dir.c_str(), nullptr));
    if (!real_dir) {
        error = "cannot resolve " + dir + ": " + errno_text(errno);
        return false;
    }
    const std::string full =
        std::string(real_dir.get()) + (std::strcmp(real_dir.get(), "/") == 0 ? "" : "/") + base;
    sockaddr_un addr{};
    if (!socket_address(full, addr, error) || !clear_path(full, addr, error)) return false;

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = "cannot make a socket: " + errno_text(errno);
        return false;
    }
    // Made 0600 from the start: no moment in which another user could connect.
    const mode_t old_mask = ::umask(0177);
    const int bound = ::bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
    const int bind_err = errno;
    ::umask(old_mask);
    struct stat st {};
    if (bound != 0 || ::chmod(full.c_str(), 0600) != 0 || ::lstat(full.c_str(), &st) != 0 ||
        ::listen(fd, SOMAXCONN) != 0) {
        const int err = bound != 0 ? bind_err : errno;
        if (bound == 0) ::unlink(full.c_str());
        ::close(fd);
        error = "cannot listen on " + full + ": " + errno_text(err);
        return false;
    }
    set_nonblocking(fd);
    out.fd = fd;
    out.path = full;
    out.dev = st.st_dev;
    out.ino = st.st_ino;
    return true;
}

void remove_socket(const Listener &listener) {
    struct stat st {};
    if (::lstat(listener.path.c_str(), &st) == 0 && st.st_dev == listener.dev &&
        st.st_ino == listener.ino)
        ::unlink(listener.path.c_str());
}

int serve(const Listener &listener, const ServerOptions &options) {
    int pipe_fds[2];
    if (::pipe2(pipe_fds, O_NONBLOCK | O_CLOEXEC) != 0) {
        log_line("cannot make a pipe: " + errno_text(errno));
        remove_socket(listener);
        return 1;
    }
    g_signal_pipe = pipe_fds[1];
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    for (const int sig : {SIGTERM, SIGINT, SIGHUP}) ::sigaction(sig, &sa, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    {
        Server server(listener, options);
        server.run(pipe_fds[0]);
    }
    remove_socket(listener);
    ::close(listener.fd);
    return 0;
}

}  // namespace pkey::agent
