// pkey-sshd: an SSH server whose host keys and user keys come from a pkey store.
//
//   pkey-sshd --root DIR [--listen ADDR] [--port N] [--port-file FILE]
//
// The parent only accepts connections; each connection is served by a child
// process. The child reads the store's host keys with PKEY_GetHostKey (so a
// replaced host key is served from the next connection on), hands them to
// libssh in memory, and accepts user U's public key exactly when the store
// holds that key under the name U. An authenticated session gets one fixed
// line naming the user and the key's fingerprint; nothing else is served.
#include <arpa/inet.h>
#include <libssh/callbacks.h>
#include <libssh/libssh.h>
#include <libssh/server.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/pem.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "host_platform.h"
#include "pkey_local.h"
#include "pkey_peer.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace {

constexpr int kSessionSeconds = 60;  // a child never outlives this
constexpr int kPollMs = 200;
constexpr int kLingerPolls = 50;  // of 100 ms, after the line went out

volatile sig_atomic_t g_stop = 0;
void on_stop(int) { g_stop = 1; }

struct Options {
    std::string root;
    std::string listen = "127.0.0.1";
    int port = 2222;
    std::string port_file;
};

[[noreturn]] void usage(int code) {
    std::fprintf(code == 0 ? stdout : stderr,
                 "usage: pkey-sshd --root DIR [--listen ADDR] [--port N] [--port-file FILE]\n"
                 "  serves the store's host keys and accepts user U's key when the store\n"
                 "  holds it under the name U; --port 0 picks a free port, which is printed\n"
                 "  (and written to --port-file)\n");
    std::exit(code);
}

Options parse(int argc, char **argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") usage(0);
        if (i + 1 >= argc) usage(2);
        const char *value = argv[++i];
        if (arg == "--root") {
            o.root = value;
        } else if (arg == "--listen") {
            o.listen = value;
        } else if (arg == "--port") {
            char *end = nullptr;
            const long port = std::strtol(value, &end, 10);
            if (*end != '\0' || port < 0 || port > 65535) usage(2);
            o.port = static_cast<int>(port);
        } else if (arg == "--port-file") {
            o.port_file = value;
        } else {
            usage(2);
        }
    }
    if (o.root.empty()) usage(2);
    return o;
}

void log_line(const std::string &line) {
    std::fprintf(stderr, "pkey-sshd: %s\n", line.c_str());
    std::fflush(stderr);
}

// ---- Keys -------------------------------------------------------------------

struct SshKeyFree {
    void operator()(ssh_key key) const noexcept { ssh_key_free(key); }
};
using SshKeyPtr = std::unique_ptr<ssh_key_struct, SshKeyFree>;

// A stored host key as a libssh key, passed through memory only: the PEM text
// lives in a wiped buffer for the moment libssh parses it.
SshKeyPtr host_key(int evp_type) {
    pkey::EvpPkeyPtr key(PKEY_GetHostKey(evp_type, ""));
    if (!key) return nullptr;
    std::unique_ptr<BIO, pkey::FnDeleter<BIO_free>> bio(BIO_new(BIO_s_secmem()));
    if (!bio ||
        PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
        return nullptr;
    char *data = nullptr;
    const long len = BIO_get_mem_data(bio.get(), &data);
    if (len <= 0) return nullptr;
    pkey::SecureBuffer pem(static_cast<std::size_t>(len) + 1);
    std::memcpy(pem.data(), data, static_cast<std::size_t>(len));
    ssh_key imported = nullptr;
    if (ssh_pki_import_privkey_base64(reinterpret_cast<const char *>(pem.data()), nullptr, nullptr,
                                      nullptr, &imported) != SSH_OK)
        return nullptr;
    return SshKeyPtr(imported);
}

std::string fingerprint(ssh_key key) {
    unsigned char *hash = nullptr;
    size_t len = 0;
    if (ssh_get_publickey_hash(key, SSH_PUBLICKEY_HASH_SHA256, &hash, &len) != SSH_OK) return "?";
    char *text = ssh_get_fingerprint_hash(SSH_PUBLICKEY_HASH_SHA256, hash, len);
    std::string out = text != nullptr ? text : "?";
    ssh_string_free_char(text);
    ssh_clean_pubkey_hash(&hash);
    return out;
}

// Why the store does or does not take this key for this user; empty when it does.
std::string refusal(const char *user, ssh_key offered) {
    char *blob64 = nullptr;
    if (ssh_pki_export_pubkey_base64(offered, &blob64) != SSH_OK) return "unreadable key";
    pkey::EvpPkeyPtr key(PKEY_PUBKEY_Base64toEvppkey(blob64));
    ssh_string_free_char(blob64);
    if (!key) return "key type not handled by pkey";
    // The existence test runs first: in FIPS mode it also refuses (and the
    // store purges) keys the mode does not allow.
    if (PKEY_IsPeerPubKeyExisted(user) != 1) return "no usable key stored for the user";
    pkey::EvpPkeyPtr stored(PKEY_GetUserKeyByName(user));
    if (!stored || PKEY_CmpPubKey(stored.get(), key.get()) != 1) return "not the user's stored key";
    return {};
}

// ---- One connection, in its own process ---------------------------------------

struct Session {
    ssh_session ssh = nullptr;
    ssh_channel channel = nullptr;
    ssh_channel_callbacks_struct channel_cb{};
    std::string peer;
    std::string user;
    std::string key_fingerprint;
    std::string last_refusal;
    bool authenticated = false;
    bool answer = false;  // a shell or exec request is waiting for the line
    bool done = false;
    int polls_after_done = 0;
};

int on_auth_pubkey(ssh_session, const char *user, ssh_key_struct *pubkey, char state, void *data) {
    auto *s = static_cast<Session *>(data);
    if (state != SSH_PUBLICKEY_STATE_NONE && state != SSH_PUBLICKEY_STATE_VALID)
        return SSH_AUTH_DENIED;
    const std::string why = refusal(user, pubkey);
    if (!why.empty()) {
        s->last_refusal = std::string("user ") + user + " key " + fingerprint(pubkey) + ": " + why;
        return SSH_AUTH_DENIED;
    }
    // A probe (no signature yet) is answered "this key would do"; libssh
    // checked the signature before calling with VALID.
    if (state == SSH_PUBLICKEY_STATE_VALID) {
        s->authenticated = true;
        s->user = user;
        s->key_fingerprint = fingerprint(pubkey);
    }
    return SSH_AUTH_SUCCESS;
}

int on_shell(ssh_session, ssh_channel, void *data) {
    static_cast<Session *>(data)->answer = true;
    return SSH_OK;
}

int on_exec(ssh_session, ssh_channel, const char *, void *data) {
    return on_shell(nullptr, nullptr, data);
}

// Everything else a client may ask of the channel is refused.
int refuse_pty(ssh_session, ssh_channel, const char *, int, int, int, int, void *) {
    return SSH_ERROR;
}
int refuse_env(ssh_session, ssh_channel, const char *, const char *, void *) { return SSH_ERROR; }
int refuse_subsystem(ssh_session, ssh_channel, const char *, void *) { return SSH_ERROR; }

ssh_channel on_channel_open(ssh_session ssh, void *data) {
    auto *s = static_cast<Session *>(data);
    if (!s->authenticated || s->channel != nullptr) return nullptr;  // one session channel
    s->channel = ssh_channel_new(ssh);
    if (s->channel == nullptr) return nullptr;
    s->channel_cb.userdata = s;
    s->channel_cb.channel_shell_request_function = on_shell;
    s->channel_cb.channel_exec_request_function = on_exec;
    s->channel_cb.channel_pty_request_function = refuse_pty;
    s->channel_cb.channel_env_request_function = refuse_env;
    s->channel_cb.channel_subsystem_request_function = refuse_subsystem;
    ssh_callbacks_init(&s->channel_cb);
    ssh_set_channel_callbacks(s->channel, &s->channel_cb);
    return s->channel;
}

std::string serve(int fd, const std::string &peer) {
    std::unique_ptr<ssh_bind_struct, void (*)(ssh_bind)> bind(ssh_bind_new(), ssh_bind_free);
    if (!bind) return "out of memory";
    int loaded = 0;
    // libssh serves RSA and ECDSA host keys; the store's DSA key is left out
    // (OpenSSH clients no longer accept ssh-dss).
    for (int type : {EVP_PKEY_EC, EVP_PKEY_RSA}) {
        SshKeyPtr key = host_key(type);
        if (key &&
            ssh_bind_options_set(bind.get(), SSH_BIND_OPTIONS_IMPORT_KEY, key.get()) == SSH_OK) {
            (void)key.release();  // the bind owns it now
            ++loaded;
        }
    }
    if (loaded == 0) return "refused: the store holds no RSA or ECDSA host key";

    Session s;
    s.peer = peer;
    std::unique_ptr<ssh_session_struct, void (*)(ssh_session)> ssh(ssh_new(), ssh_free);
    s.ssh = ssh.get();
    if (!ssh || ssh_bind_accept_fd(bind.get(), ssh.get(), fd) != SSH_OK) return "accept failed";
    ssh_server_callbacks_struct server_cb{};
    server_cb.userdata = &s;
    server_cb.auth_pubkey_function = on_auth_pubkey;
    server_cb.channel_open_request_session_function = on_channel_open;
    ssh_callbacks_init(&server_cb);
    ssh_set_server_callbacks(ssh.get(), &server_cb);
    if (ssh_handle_key_exchange(ssh.get()) != SSH_OK)
        return std::string("handshake failed: ") + ssh_get_error(ssh.get());
    ssh_set_auth_methods(ssh.get(), SSH_AUTH_METHOD_PUBLICKEY);

    std::unique_ptr<ssh_event_struct, void (*)(ssh_event)> event(ssh_event_new(), ssh_event_free);
    if (!event || ssh_event_add_session(event.get(), ssh.get()) != SSH_OK)
        return "event loop failed";
    // Serve until the line has gone out and the client has closed its end
    // of the channel (or the connection), so nothing is cut off.
    for (;;) {
        if (ssh_event_dopoll(event.get(), s.done ? 100 : 1000) == SSH_ERROR) break;
        if ((ssh_get_status(ssh.get()) & (SSH_CLOSED | SSH_CLOSED_ERROR)) != 0) break;
        if (s.answer && !s.done && s.channel != nullptr) {
            const std::string line =
                "pkey-sshd: authenticated " + s.user + " with key " + s.key_fingerprint + "\n";
            ssh_channel_write(s.channel, line.data(), static_cast<uint32_t>(line.size()));
            ssh_channel_request_send_exit_status(s.channel, 0);
            ssh_channel_send_eof(s.channel);
            ssh_channel_close(s.channel);
            s.done = true;
        }
        // The client hangs up once it has the channel's close; give it a few seconds.
        if (s.done && ++s.polls_after_done > kLingerPolls) break;
    }
    ssh_event_remove_session(event.get(), ssh.get());
    if (s.channel != nullptr) ssh_channel_free(s.channel);
    ssh_disconnect(ssh.get());
    if (s.done) return "accepted user " + s.user + " key " + s.key_fingerprint;
    if (s.authenticated) return "authenticated user " + s.user + ", then closed without a request";
    return s.last_refusal.empty() ? "closed before authenticating" : "refused " + s.last_refusal;
}

// ---- The listener -------------------------------------------------------------

int listen_on(const Options &o, int &port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(o.port));
    if (inet_pton(AF_INET, o.listen.c_str(), &addr.sin_addr) != 1) {
        log_line("not an IPv4 address: " + o.listen);
        return -1;
    }
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    if (fd < 0 || ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        ::listen(fd, 64) != 0) {
        log_line(std::string("cannot listen on ") + o.listen + ":" + std::to_string(o.port) + ": " +
                 std::strerror(errno));
        if (fd >= 0) ::close(fd);
        return -1;
    }
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    port = ntohs(addr.sin_port);
    return fd;
}

std::string peer_name(const sockaddr_in &addr) {
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &addr.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(addr.sin_port));
}

}  // namespace

int main(int argc, char **argv) {
    const Options o = parse(argc, argv);
    if (HOST_Open(o.root.c_str()) != 0) {
        log_line("cannot open the store " + o.root);
        return 1;
    }
    int port = 0;
    const int listener = listen_on(o, port);
    if (listener < 0) return 1;

    struct sigaction stop {};
    stop.sa_handler = on_stop;
    sigaction(SIGTERM, &stop, nullptr);
    sigaction(SIGINT, &stop, nullptr);
    struct sigaction reap {};
    reap.sa_handler = SIG_IGN;
    reap.sa_flags = SA_NOCLDWAIT;  // children are reaped by the kernel
    sigaction(SIGCHLD, &reap, nullptr);
    signal(SIGPIPE, SIG_IGN);

    ssh_init();
    std::printf("pkey-sshd: listening on %s:%d\n", o.listen.c_str(), port);
    std::fflush(stdout);
    if (!o.port_file.empty()) {
        // Written whole under a temporary name, so a reader never sees half a number.
        const std::string tmp = o.port_file + ".tmp";
        if (FILE *f = std::fopen(tmp.c_str(), "w")) {
            std::fprintf(f, "%d\n", port);
            std::fclose(f);
            std::rename(tmp.c_str(), o.port_file.c_str());
        }
    }

    while (g_stop == 0) {
        pollfd p{listener, POLLIN, 0};
        if (::poll(&p, 1, kPollMs) <= 0) continue;
        sockaddr_in addr{};
        socklen_t len = sizeof addr;
        const int fd = ::accept4(listener, reinterpret_cast<sockaddr *>(&addr), &len, SOCK_CLOEXEC);
        if (fd < 0) continue;
        const std::string peer = peer_name(addr);
        const pid_t child = ::fork();
        if (child == 0) {
            ::close(listener);
            signal(SIGTERM, SIG_DFL);
            alarm(kSessionSeconds);
            log_line(peer + ": " + serve(fd, peer));
            ::close(fd);
            ssh_finalize();
            _exit(0);
        }
        if (child < 0) log_line(peer + ": refused: cannot fork: " + std::strerror(errno));
        ::close(fd);
    }
    ::close(listener);
    ssh_finalize();
    log_line("stopped");
    return 0;
}
