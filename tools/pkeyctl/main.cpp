// pkeyctl - the operator's command line over libpkey and the host platform.
//
// Every action goes through the library's exported functions; the host
// platform's control API only chooses the store and switches its settings.
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli.hpp"
#include "host_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace pkeyctl {
namespace {

constexpr const char *kVersion = "0.1.0";

const std::vector<Algorithm> kAlgorithms = {
    {"rsa", EVP_PKEY_RSA, PKEY_ALG_RSA},
    {"dsa", EVP_PKEY_DSA, PKEY_ALG_DSA},
    {"ecdsa", EVP_PKEY_EC, PKEY_ALG_ECDSA}};
const std::vector<Curve> kCurves = {{"p192", "nistp192", NID_X9_62_prime192v1},
                                    {"p256", "nistp256", NID_X9_62_prime256v1},
                                    {"p384", "nistp384", NID_secp384r1},
                                    {"p521", "nistp521", NID_secp521r1}};

std::vector<const Command *> all_commands() {
    std::vector<const Command *> all;
    for (const auto *group : {&local_commands(), &peer_commands(), &system_commands()})
        for (const Command &c : *group) all.push_back(&c);
    return all;
}

// Prints text in lines of at most 78 columns, each indented.
void print_wrapped(const std::string &text, size_t indent) {
    std::string line;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(' ', start);
        if (end == std::string::npos) end = text.size();
        const std::string word = text.substr(start, end - start);
        if (!line.empty() && indent + line.size() + 1 + word.size() > 78) {
            std::printf("%*s%s\n", static_cast<int>(indent), "", line.c_str());
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
        start = end + 1;
    }
    if (!line.empty()) std::printf("%*s%s\n", static_cast<int>(indent), "", line.c_str());
}

void print_overview() {
    std::printf("usage: pkeyctl [--root DIR] COMMAND [ARGS]\n\n"
                "Manages the SSH keys of a device store on this host: the device's own key\n"
                "pairs, the public keys of remote users, the FIPS mode and standby nodes.\n\n"
                "commands:\n");
    for (const Command *c : all_commands()) {
        std::printf("  %s %s\n", c->words, c->usage);
        print_wrapped(c->help, 6);
    }
    std::printf("\noptions:\n"
                "  --root DIR    the store (default: $PKEY_ROOT, else ./pkey-store)\n"
                "  --help        this text; COMMAND --help describes one command\n"
                "  --version     the program's version\n\n"
                "exit status: 0 done, 1 refused or failed, 2 usage error\n");
}

void print_command_help(const Command &c) {
    std::printf("usage: pkeyctl [--root DIR] %s %s\n\n", c.words, c.usage);
    print_wrapped(c.help, 2);
}

// Splits a command's arguments into positional words and its known options.
int parse(const Command &c, const std::vector<std::string> &words, Args &out) {
    const std::string allowed = std::string(" ") + c.options + " ";
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string &w = words[i];
        if (w.size() > 2 && w.compare(0, 2, "--") == 0) {
            if (allowed.find(" " + w + " ") != std::string::npos) {
                out.options[w] = "";
            } else if (allowed.find(" " + w + "= ") != std::string::npos) {
                if (i + 1 >= words.size()) return usage_error(w + " needs a value");
                out.options[w] = words[++i];
            } else {
                return usage_error(std::string("unknown option '") + w + "' for " + c.words);
            }
        } else {
            out.positional.push_back(w);
        }
    }
    const auto n = static_cast<int>(out.positional.size());
    if (n < c.min_positional || n > c.max_positional)
        return usage_error(std::string("usage: pkeyctl ") + c.words + " " + c.usage);
    return kOk;
}

}  // namespace

int usage_error(const std::string &message) {
    std::fprintf(stderr, "pkeyctl: %s\n(try 'pkeyctl --help')\n", message.c_str());
    return kUsage;
}

int failure(const std::string &what, const std::string &why) {
    std::fprintf(stderr, "pkeyctl: %s: %s\n", what.c_str(), why.c_str());
    return kFailed;
}

const std::vector<Algorithm> &algorithms() { return kAlgorithms; }
const std::vector<Curve> &curves() { return kCurves; }

const Algorithm *find_algorithm(std::string_view name) {
    for (const auto &a : kAlgorithms)
        if (name == a.name) return &a;
    return nullptr;
}
const Algorithm *algorithm_of(const EVP_PKEY *key) {
    for (const auto &a : kAlgorithms)
        if (key != nullptr && EVP_PKEY_get_id(key) == a.evp_type) return &a;
    return nullptr;
}
const Curve *find_curve(std::string_view name) {
    for (const auto &c : kCurves)
        if (name == c.option || name == c.ssh_name) return &c;
    return nullptr;
}

namespace {

// The SSH blob of a key, decoded from the library's Base64.
std::vector<unsigned char> ssh_blob(EVP_PKEY *key) {
    unsigned int len = 0;
    pkey::MallocPtr<char> b64(PKEY_PUBKEY_EvppkeyToBase64(key, 1, &len));
    if (!b64) return {};
    const size_t text_len = std::strlen(b64.get());
    std::vector<unsigned char> blob(text_len);
    int n = EVP_DecodeBlock(blob.data(), reinterpret_cast<const unsigned char *>(b64.get()),
                            static_cast<int>(text_len));
    if (n < 0) return {};
    for (size_t i = text_len; i > 0 && b64.get()[i - 1] == '='; --i) --n;  // padding
    blob.resize(static_cast<size_t>(n));
    return blob;
}

}  // namespace

std::string fingerprint_sha256(EVP_PKEY *key) {
    const std::vector<unsigned char> blob = ssh_blob(key);
    if (blob.empty()) return "-";
    unsigned char digest[32];
    EVP_Digest(blob.data(), blob.size(), digest, nullptr, EVP_sha256(), nullptr);
    unsigned char text[64];
    std::string out(reinterpret_cast<char *>(text), EVP_EncodeBlock(text, digest, sizeof digest));
    while (!out.empty() && out.back() == '=') out.pop_back();
    return "SHA256:" + out;
}

std::string fingerprint_md5(EVP_PKEY *key) {
    const std::vector<unsigned char> blob = ssh_blob(key);
    if (blob.empty()) return "-";
    unsigned char digest[16];
    if (EVP_Digest(blob.data(), blob.size(), digest, nullptr, EVP_md5(), nullptr) != 1) return "-";
    std::string out = "MD5";
    char byte[4];
    for (unsigned char b : digest) {
        std::snprintf(byte, sizeof byte, ":%02x", b);
        out += byte;
    }
    return out;
}

std::string key_code_display(EVP_PKEY *key) {
    unsigned char *der = nullptr;
    const int len = i2d_PUBKEY(key, &der);
    pkey::OpensslPtr<> owner(der);
    pkey::MallocPtr<char> text(len > 0 ? PKEY_PUBKEY_DER2BdrnBuf(der, static_cast<unsigned>(len))
                                       : nullptr);
    return std::string("public-key-code begin") + (text ? text.get() : "\r\n") +
           "public-key-code end\r\n";
}

std::string json_string(std::string_view text) {
    std::string out = "\"";
    for (const unsigned char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20 || c >= 0x7F) {
                    char esc[8];
                    std::snprintf(esc, sizeof esc, "\\u%04x", c);
                    out += esc;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

}  // namespace pkeyctl

int main(int argc, char **argv) {
    using namespace pkeyctl;
    const std::vector<std::string> args(argv + 1, argv + argc);
    std::string root;
    size_t i = 0;
    for (; i < args.size() && args[i].rfind("--", 0) == 0; ++i) {
        if (args[i] == "--help" || args[i] == "-h") {
            print_overview();
            return kOk;
        }
        if (args[i] == "--version") {
            std::printf("pkeyctl %s\n", kVersion);
            return kOk;
        }
        if (args[i] != "--root") return usage_error("unknown option '" + args[i] + "'");
        if (i + 1 >= args.size()) return usage_error("--root needs a directory");
        root = args[++i];
    }
    if (i >= args.size()) return usage_error("no command given");

    // The longest run of words that names a command picks it.
    const Command *command = nullptr;
    size_t used = 0;
    for (const Command *c : all_commands()) {
        std::vector<std::string> words;
        for (const char *w = c->words; *w != '\0';) {
            const char *end = std::strchr(w, ' ');
            words.emplace_back(w, end != nullptr ? static_cast<size_t>(end - w) : std::strlen(w));
            w = end != nullptr ? end + 1 : w + std::strlen(w);
        }
        if (words.size() > used && i + words.size() <= args.size() &&
            std::equal(words.begin(), words.end(), args.begin() + static_cast<long>(i))) {
            command = c;
            used = words.size();
        }
    }
    if (command == nullptr) {
        const std::string word = args[i] + (i + 1 < args.size() ? " " + args[i + 1] : "");
        return usage_error("unknown command '" + word + "'");
    }
    const std::vector<std::string> rest(args.begin() + static_cast<long>(i + used), args.end());
    for (const auto &w : rest) {
        if (w == "--help" || w == "-h") {
            print_command_help(*command);
            return kOk;
        }
    }
    Args parsed;
    if (const int r = parse(*command, rest, parsed); r != kOk) return r;
    if (!root.empty() && HOST_Open(root.c_str()) != 0)
        return failure("--root " + root, "the store cannot be opened or created");
    return command->run(parsed);
}
