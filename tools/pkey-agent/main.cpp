// pkey-agent - an SSH agent whose keys are a pkey store's host keys and named
// key pairs, for sshd's HostKeyAgent and for SSH clients.
//
//   pkey-agent [--root DIR] --socket PATH [--foreground] [--verbose]
//              [--timeout SECONDS] [--pid-file FILE]
//
// It lists and signs with the keys OpenSSH can use, read from the store at
// every request; it never adds, removes or locks keys. Without --foreground it
// goes to the background once its socket listens, so that the socket is
// usable when the command returns.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "agent_server.hpp"
#include "host_platform.h"
#include "pkey_util.hpp"

namespace {

constexpr int kUsage = 2;
constexpr int kFailed = 1;
constexpr int kMaxTimeout = 3600;

const char kUsageText[] =
    "usage: pkey-agent [--root DIR] --socket PATH [--foreground] [--verbose]\n"
    "                  [--timeout SECONDS] [--pid-file FILE]\n\n"
    "Serves the SSH agent protocol on the Unix socket PATH with the store's RSA and\n"
    "ECDSA (P-256, P-384, P-521) host keys and named key pairs, read afresh at every\n"
    "request; adding, removing and locking keys are refused.\n\n"
    "  --root DIR         the store (default: $PKEY_ROOT, else ./pkey-store)\n"
    "  --socket PATH      the socket, made with mode 0600 in a directory of this\n"
    "                     user's with mode 0700 (made when missing)\n"
    "  --foreground       stay attached instead of going to the background\n"
    "  --verbose          log every answered request, not only refusals\n"
    "  --timeout SECONDS  close a connection whose message stays unfinished this\n"
    "                     long (default 10)\n"
    "  --pid-file FILE    write the agent's process id to FILE\n\n"
    "SIGTERM or SIGINT removes the socket and ends the agent.\n"
    "exit status: 0 done, 1 refused or failed, 2 usage error\n";

int usage_error(const std::string &message) {
    std::fprintf(stderr, "pkey-agent: %s (try 'pkey-agent --help')\n", message.c_str());
    return kUsage;
}

int failure(const std::string &message) {
    std::fprintf(stderr, "pkey-agent: %s\n", message.c_str());
    return kFailed;
}

struct Options {
    std::string root;
    std::string socket;
    std::string pid_file;
    bool foreground = false;
    pkey::agent::ServerOptions server;
};

// --opt value or --opt=value; false with a usage error when the value is missing.
bool take_value(const std::vector<std::string> &args, std::size_t &i, const std::string &name,
                std::string &value, int &error) {
    const std::string &w = args[i];
    if (w.size() > name.size() && w.compare(0, name.size() + 1, name + "=") == 0) {
        value = w.substr(name.size() + 1);
    } else if (i + 1 < args.size()) {
        value = args[++i];
    } else {
        error = usage_error(name + " needs a value");
        return false;
    }
    if (value.empty()) {
        error = usage_error(name + " needs a value");
        return false;
    }
    return true;
}

bool is_option(const std::string &w, const std::string &name) {
    return w == name || w.rfind(name + "=", 0) == 0;
}

// -1 when the arguments were complete, else the exit code (help included).
int parse(const std::vector<std::string> &args, Options &o) {
    int error = 0;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string &w = args[i];
        if (w == "--help" || w == "-h") {
            std::fputs(kUsageText, stdout);
            return 0;
        }
        if (w == "--foreground") {
            o.foreground = true;
        } else if (w == "--verbose") {
            o.server.verbose = true;
        } else if (is_option(w, "--root")) {
            if (!take_value(args, i, "--root", o.root, error)) return error;
        } else if (is_option(w, "--socket")) {
            if (!take_value(args, i, "--socket", o.socket, error)) return error;
        } else if (is_option(w, "--pid-file")) {
            if (!take_value(args, i, "--pid-file", o.pid_file, error)) return error;
        } else if (is_option(w, "--timeout")) {
            std::string text;
            if (!take_value(args, i, "--timeout", text, error)) return error;
            char *end = nullptr;
            const long s = std::strtol(text.c_str(), &end, 10);
            if (*end != '\0' || s < 1 || s > kMaxTimeout)
                return usage_error("--timeout takes 1 to 3600 seconds, not '" + text + "'");
            o.server.timeout_seconds = static_cast<int>(s);
        } else {
            return usage_error("unknown argument '" + w + "'");
        }
    }
    if (o.socket.empty()) return usage_error("--socket PATH is required");
    return -1;
}

bool write_pid_file(const std::string &path, pid_t pid) {
    const int fd =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const std::string text = std::to_string(pid) + "\n";
    const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return ::close(fd) == 0 && ok;
}

// Detaches from the caller: the parent returns once the child exists, the
// child leaves the session and lets go of the caller's terminal and output.
// Standard error stays, for the log.
bool daemonize(const Options &o) {
    const pid_t pid = ::fork();
    if (pid < 0) return false;
    if (pid > 0) {
        if (!o.pid_file.empty() && !write_pid_file(o.pid_file, pid)) {
            std::fprintf(stderr, "pkey-agent: cannot write %s: %s\n", o.pid_file.c_str(),
                         std::strerror(errno));
        }
        std::fflush(stdout);
        _exit(0);
    }
    ::setsid();
    if (::chdir("/") != 0) return false;
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0) return false;
    ::dup2(null, STDIN_FILENO);
    ::dup2(null, STDOUT_FILENO);
    if (null > STDERR_FILENO) ::close(null);
    return true;
}

int run(const std::vector<std::string> &args) {
    Options o;
    if (const int r = parse(args, o); r >= 0) return r;

    // The store must be there: the agent only reads it.
    HOST_ClearError();
    // Resolved now: the agent leaves its working directory when it detaches.
    std::string root = o.root;
    if (root.empty()) {
        const char *env = std::getenv("PKEY_ROOT");
        root = env != nullptr && *env != '\0' ? env : "./pkey-store";
    }
    const pkey::MallocPtr<char> real(::realpath(root.c_str(), nullptr));
    if (!real) return failure("no store at " + root + ": " + std::strerror(errno));
    if (HOST_OpenExisting(real.get()) != 0) {
        const char *why = HOST_LastError();
        return failure(why != nullptr && *why != '\0' ? why : "the store cannot be opened");
    }

    pkey::agent::Listener listener;
    std::string error;
    if (!pkey::agent::open_listener(o.socket, listener, error)) return failure(error);
    if (!o.foreground) {
        if (!daemonize(o)) {
            pkey::agent::remove_socket(listener);
            return failure(std::string("cannot go to the background: ") + std::strerror(errno));
        }
    } else if (!o.pid_file.empty() && !write_pid_file(o.pid_file, ::getpid())) {
        pkey::agent::remove_socket(listener);
        return failure("cannot write " + o.pid_file + ": " + std::strerror(errno));
    }
    return pkey::agent::serve(listener, o.server);
}

}  // namespace

int main(int argc, char **argv) {
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::exception &e) {
        std::fprintf(stderr, "pkey-agent: internal error: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "pkey-agent: internal error\n");
    }
    return kFailed;
}
