// Peer key text parsing, per key: OpenSSH lines, SSH2 blocks and hex key code,
// and a file of OpenSSH lines of two key types in turn.
//
//   peer_parse_bench --write-inputs DIR   makes the keys and writes every text
//   peer_parse_bench --inputs DIR [google-benchmark flags]   times our readers
//
// The reference runs (ssh-keygen, Python's cryptography) read the very same
// files, so every figure in a row comes from the same keys and texts.
#include <benchmark/benchmark.h>
#include <openssl/pem.h>

#include <array>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "bench_util.hpp"
#include "pkey_local.h"
#include "pkey_peer.h"

namespace {

using namespace pkey;
using namespace pkey::bench;
namespace fs = std::filesystem;

constexpr unsigned int kDistinctKeys = 16;    // keys per algorithm
constexpr unsigned int kLinesPerFile = 1024;  // OpenSSH and hex lines per file (keys repeat)

struct Algorithm {
    const char *label;
    const char *type;
    unsigned int bits;
    const char *curve;
};

constexpr std::array<Algorithm, 5> kAlgorithms{{
    {"RSA-2048", "RSA", 2048, nullptr},
    {"DSA-1024", "DSA", 1024, nullptr},
    {"P-256", "EC", 0, "P-256"},
    {"P-384", "EC", 0, "P-384"},
    {"P-521", "EC", 0, "P-521"},
}};

EvpPkeyPtr new_key(const Algorithm &a) {
    // DSA keys share the library's fixed group: OpenSSL's parameter search
    // for every key would only slow the set-up.
    if (std::strcmp(a.type, "DSA") == 0) return EvpPkeyPtr(PKEY_GenerateDSAKey(a.bits));
    return make_key(a.type, a.bits, a.curve);
}

// The mixed file: RSA-2048 and P-256 lines in turn, as an authorized_keys
// file of many users might hold them.
constexpr unsigned int kMixedLines = 1000;
constexpr const char *kMixedFile = "mixed.openssh";

void write_inputs(const fs::path &dir) {
    fs::create_directories(dir / "ssh2");
    fs::create_directories(dir / "pem");
    std::map<std::string, std::vector<EvpPkeyPtr>> made;
    for (const Algorithm &a : kAlgorithms) {
        std::vector<EvpPkeyPtr> &keys = made[a.label];
        for (unsigned int i = 0; i < kDistinctKeys; ++i) keys.push_back(new_key(a));
        std::string openssh, ssh2, hex;
        for (unsigned int i = 0; i < kLinesPerFile; ++i) {
            EVP_PKEY *key = keys[i % kDistinctKeys].get();
            openssh += openssh_line(key, "user" + std::to_string(i) + "@bench") + "\n";
            hex += hex_key_code(key) + "\n";
        }
        for (unsigned int i = 0; i < kDistinctKeys; ++i) {
            const std::string block = ssh2_block(keys[i].get(), "bench key " + std::to_string(i));
            ssh2 += block;
            const std::string stem = std::string(a.label) + "-" + std::to_string(i);
            write_text(dir / "ssh2" / (stem + ".pub"), block);
            FILE *f = std::fopen((dir / "pem" / (stem + ".pem")).c_str(), "w");
            if (f == nullptr || PEM_write_PUBKEY(f, keys[i].get()) != 1)
                throw std::runtime_error("PEM_write_PUBKEY failed");
            std::fclose(f);
        }
        write_text(dir / (std::string(a.label) + ".openssh"), openssh);
        write_text(dir / (std::string(a.label) + ".ssh2"), ssh2);
        write_text(dir / (std::string(a.label) + ".hex"), hex);
    }
    std::string mixed;
    for (unsigned int i = 0; i < kMixedLines; ++i) {
        const auto &keys = made[i % 2 == 0 ? "RSA-2048" : "P-256"];
        EVP_PKEY *key = keys[(i / 2) % kDistinctKeys].get();
        mixed += openssh_line(key, "user" + std::to_string(i) + "@bench") + "\n";
    }
    write_text(dir / kMixedFile, mixed);
}

std::string read_text(const fs::path &path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot read " + path.string());
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> split_lines(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) out.push_back(line);
    return out;
}

std::vector<std::string> split_blocks(const std::string &text) {
    std::vector<std::string> out;
    const std::string end = "---- END SSH2 PUBLIC KEY ----\n";
    for (std::size_t pos = 0, next; (next = text.find(end, pos)) != std::string::npos;
         pos = next + end.size())
        out.push_back(text.substr(pos, next + end.size() - pos));
    return out;
}

// The readers take writable text and may change it: each call gets a fresh copy.
template <typename Reader>
void time_reader(benchmark::State &state, const std::vector<std::string> &texts, Reader read) {
    std::vector<char> work;
    std::size_t i = 0;
    for (auto _ : state) {
        const std::string &text = texts[i++ % texts.size()];
        work.assign(text.begin(), text.end());
        work.push_back('\0');
        EVP_PKEY *key = read(work.data());
        if (key == nullptr) {
            state.SkipWithError("the reader refused a valid key");
            break;
        }
        EVP_PKEY_free(key);
    }
}

// Hex key code is read by finishing a key-code entry: decode, check, store.
void time_key_code(benchmark::State &state, const std::vector<std::string> &hex) {
    std::vector<char> entry;
    std::size_t i = 0;
    for (auto _ : state) {
        const std::string &code = hex[i++ % hex.size()];
        entry.assign(PKEY_PEER_NAME_LEN, '\0');
        std::memcpy(entry.data(), "bench-user", 10);
        entry.insert(entry.end(), code.begin(), code.end());
        entry.push_back('\0');
        if (PKEY_PEER_EditKeyCodeFinish(entry.data()) != 0) {
            state.SkipWithError("PKEY_PEER_EditKeyCodeFinish refused a valid key code");
            break;
        }
    }
}

// A whole file of OpenSSH lines per iteration, read in place line by line as
// a caller holding the file in memory would; the figure is divided by the
// line count afterwards.
void time_file(benchmark::State &state, const std::string &file) {
    std::vector<char> work;
    for (auto _ : state) {
        work.assign(file.begin(), file.end());
        work.push_back('\0');
        for (char *line = work.data(); *line != '\0';) {
            char *end = std::strchr(line, '\n');
            if (end != nullptr) *end = '\0';
            EVP_PKEY *key = PKEY_PEER_ReadOpenSSHPubKey(line);
            if (key == nullptr) {
                state.SkipWithError("the reader refused a valid key");
                return;
            }
            EVP_PKEY_free(key);
            if (end == nullptr) break;
            line = end + 1;
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    fs::path inputs;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--write-inputs") == 0) {
            BenchStore store;  // the DSA group comes from the library
            write_inputs(argv[i + 1]);
            return 0;
        }
        if (std::strcmp(argv[i], "--inputs") == 0) inputs = argv[i + 1];
    }
    if (inputs.empty()) {
        std::fprintf(stderr, "usage: %s --write-inputs DIR | --inputs DIR [benchmark flags]\n",
                     argv[0]);
        return 2;
    }

    static BenchStore store;
    for (const Algorithm &a : kAlgorithms) {
        const std::string label = a.label;
        auto openssh = split_lines(read_text(inputs / (label + ".openssh")));
        auto ssh2 = split_blocks(read_text(inputs / (label + ".ssh2")));
        auto hex = split_lines(read_text(inputs / (label + ".hex")));
        benchmark::RegisterBenchmark(("BM_PeerParse/openssh/" + label).c_str(),
                                     [openssh](benchmark::State &s) {
                                         time_reader(s, openssh, PKEY_PEER_ReadOpenSSHPubKey);
                                     })
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(
            ("BM_PeerParse/ssh2/" + label).c_str(),
            [ssh2](benchmark::State &s) { time_reader(s, ssh2, PKEY_PEER_ReadSSH2PubKey); })
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("BM_PeerParse/hex/" + label).c_str(),
                                     [hex](benchmark::State &s) { time_key_code(s, hex); })
            ->Unit(benchmark::kMicrosecond);
    }
    const std::string mixed = read_text(inputs / kMixedFile);
    benchmark::RegisterBenchmark("BM_PeerParse/file/mixed", [mixed](benchmark::State &s) {
        time_file(s, mixed);
    })->Unit(benchmark::kMillisecond);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
