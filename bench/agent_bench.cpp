// Signatures through pkey-agent next to the same keys held by OpenSSH's
// ssh-agent: one connection per agent, one SSH agent sign request per
// iteration, the whole round trip timed. pkey-agent reads the key from the
// store for every signature; ssh-agent holds it in memory.
//
// The pkey-agent program is $PKEY_AGENT, or tools/pkey-agent beside this
// build's bench/ folder.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/pem.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.hpp"
#include "pkey_local.h"

extern char **environ;

namespace {

using namespace pkey;
using namespace pkey::bench;
using Bytes = std::vector<unsigned char>;

constexpr unsigned char kSignRequest = 13;
constexpr unsigned char kSignResponse = 14;
constexpr std::uint32_t kRsaSha256 = 2;
constexpr std::uint32_t kRsaSha512 = 4;

struct SignCase {
    const char *label;  // benchmark and table row name
    const char *name;   // the key pair's name in the store
    const char *type;
    unsigned int bits;
    const char *curve;
    std::uint32_t flags;
};

constexpr std::array<SignCase, 5> kCases{{
    {"rsa-sha2-256 (RSA-2048)", "rsa2048", "RSA", 2048, nullptr, kRsaSha256},
    {"rsa-sha2-512 (RSA-2048)", "rsa2048", "RSA", 2048, nullptr, kRsaSha512},
    {"ecdsa-sha2-nistp256", "p256", "EC", 0, "P-256", 0},
    {"ecdsa-sha2-nistp384", "p384", "EC", 0, "P-384", 0},
    {"ecdsa-sha2-nistp521", "p521", "EC", 0, "P-521", 0},
}};

void put_u32(Bytes &out, std::uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<unsigned char>(v >> shift));
}
void put_string(Bytes &out, const Bytes &s) {
    put_u32(out, static_cast<std::uint32_t>(s.size()));
    out.insert(out.end(), s.begin(), s.end());
}

Bytes ssh_blob(EVP_PKEY *key) {
    const std::string b64 = ssh_base64(key);
    Bytes blob(b64.size());
    int n = EVP_DecodeBlock(blob.data(), reinterpret_cast<const unsigned char *>(b64.data()),
                            static_cast<int>(b64.size()));
    if (n < 0) throw std::runtime_error("bad Base64 from the library");
    for (std::size_t i = b64.size(); i > 0 && b64[i - 1] == '='; --i) --n;
    blob.resize(static_cast<std::size_t>(n));
    return blob;
}

// A child process, ended when this goes.
class Child {
public:
    explicit Child(const std::vector<std::string> &args) {
        std::vector<char *> argv;
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        // The agents' own output (ssh-agent prints its environment) would
        // mix with the benchmark's report on standard output.
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        const int started = posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (started != 0) throw std::runtime_error("cannot start " + args[0]);
    }
    ~Child() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

private:
    pid_t pid_ = -1;
};

// One connection to an agent's socket.
class AgentConnection {
public:
    explicit AgentConnection(const std::string &path) {
        for (int tries = 0; tries < 500; ++tries) {
            fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un addr{};
            addr.sun_family = AF_UNIX;
            std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
            if (::connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) return;
            ::close(fd_);
            fd_ = -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        throw std::runtime_error("no agent listening on " + path);
    }
    ~AgentConnection() {
        if (fd_ >= 0) ::close(fd_);
    }
    AgentConnection(const AgentConnection &) = delete;
    AgentConnection &operator=(const AgentConnection &) = delete;

    // Sends one framed message and returns the framed reply's body.
    const Bytes &round_trip(const Bytes &framed) {
        write_all(framed.data(), framed.size());
        unsigned char len[4];
        read_all(len, 4);
        reply_.resize((std::size_t{len[0]} << 24) | (std::size_t{len[1]} << 16) |
                      (std::size_t{len[2]} << 8) | len[3]);
        read_all(reply_.data(), reply_.size());
        return reply_;
    }

private:
    void write_all(const unsigned char *p, std::size_t n) {
        while (n > 0) {
            const ssize_t w = ::write(fd_, p, n);
            if (w <= 0) throw std::runtime_error("agent write failed");
            p += w;
            n -= static_cast<std::size_t>(w);
        }
    }
    void read_all(unsigned char *p, std::size_t n) {
        while (n > 0) {
            const ssize_t r = ::read(fd_, p, n);
            if (r <= 0) throw std::runtime_error("agent closed the connection");
            p += r;
            n -= static_cast<std::size_t>(r);
        }
    }
    int fd_ = -1;
    Bytes reply_;
};

std::string pkey_agent_path() {
    if (const char *env = std::getenv("PKEY_AGENT"); env != nullptr && *env != '\0') return env;
    const auto exe = std::filesystem::read_symlink("/proc/self/exe");
    return (exe.parent_path().parent_path() / "tools" / "pkey-agent").string();
}

// The store with one named key pair per case, pkey-agent serving it and
// ssh-agent holding the same keys.
struct Agents {
    BenchStore store;
    std::vector<Bytes> requests;  // framed sign request per case
    std::string pkey_socket;
    std::string ssh_socket;
    std::unique_ptr<Child> pkey_agent;
    std::unique_ptr<Child> ssh_agent;

    Agents() {
        const std::filesystem::path dir = std::filesystem::path(store.root()) / "agents";
        std::filesystem::create_directory(dir);
        std::filesystem::permissions(dir, std::filesystem::perms::owner_all);
        pkey_socket = (dir / "pkey.sock").string();
        ssh_socket = (dir / "ssh.sock").string();
        ssh_agent =
            std::make_unique<Child>(std::vector<std::string>{"ssh-agent", "-D", "-a", ssh_socket});
        pkey_agent = std::make_unique<Child>(std::vector<std::string>{
            pkey_agent_path(), "--root", store.root(), "--socket", pkey_socket, "--foreground"});

        const Bytes data(32, 0x5A);  // the size of a SHA-256 session identifier
        EvpPkeyPtr rsa = make_key("RSA", 2048);
        for (const SignCase &c : kCases) {
            EvpPkeyPtr made = c.curve != nullptr ? make_key(c.type, c.bits, c.curve) : nullptr;
            EVP_PKEY *key = made ? made.get() : rsa.get();
            const std::string name = c.name;
            if (made || c.flags == kRsaSha256) {
                if (PKEY_SaveLocalKey(name.c_str(), key) != 0)
                    throw std::runtime_error("PKEY_SaveLocalKey failed");
                add_to_ssh_agent(key, dir / (name + ".pem"));
            }
            Bytes body{kSignRequest};
            put_string(body, ssh_blob(key));
            put_string(body, data);
            put_u32(body, c.flags);
            Bytes framed;
            put_u32(framed, static_cast<std::uint32_t>(body.size()));
            framed.insert(framed.end(), body.begin(), body.end());
            requests.push_back(std::move(framed));
        }
    }

    void add_to_ssh_agent(EVP_PKEY *key, const std::filesystem::path &pem) const {
        FILE *f = std::fopen(pem.c_str(), "w");
        if (f == nullptr) throw std::runtime_error("cannot write " + pem.string());
        ::fchmod(fileno(f), 0600);
        const bool written =
            PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
        std::fclose(f);
        const std::string cmd =
            "SSH_AUTH_SOCK='" + ssh_socket + "' ssh-add -q '" + pem.string() + "' 2>/dev/null";
        for (int tries = 0; written && tries < 100; ++tries) {
            if (std::system(cmd.c_str()) == 0) {
                std::filesystem::remove(pem);
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        throw std::runtime_error("ssh-add of " + pem.string() + " failed");
    }
};

void sign(benchmark::State &state, Agents *agents, const std::string *socket, std::size_t i) {
    AgentConnection conn(*socket);
    const Bytes &request = agents->requests[i];
    for (auto _ : state) {
        const Bytes &reply = conn.round_trip(request);
        if (reply.empty() || reply[0] != kSignResponse) {
            state.SkipWithError("the agent refused the signature");
            break;
        }
        benchmark::DoNotOptimize(reply.data());
    }
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    signal(SIGPIPE, SIG_IGN);
    try {
        Agents agents;
        for (std::size_t i = 0; i < kCases.size(); ++i) {
            benchmark::RegisterBenchmark((std::string("pkey-agent/") + kCases[i].label).c_str(),
                                         sign, &agents, &agents.pkey_socket, i)
                ->Unit(benchmark::kMicrosecond);
            benchmark::RegisterBenchmark((std::string("ssh-agent/") + kCases[i].label).c_str(),
                                         sign, &agents, &agents.ssh_socket, i)
                ->Unit(benchmark::kMicrosecond);
        }
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "agent_bench: %s\n", e.what());
        return 1;
    }
    benchmark::Shutdown();
    return 0;
}
