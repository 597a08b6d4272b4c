// cli.hpp - pkeyctl's command table, argument parsing and output helpers.
//
// Every command is a row of one table: its words ("local create"), a usage
// line, a help text, the options it takes and its handler. Parsing, --help of
// every command and the exit codes (0 done, 1 refused or failed, 2 usage)
// live here once, so the handlers only do their work.
#pragma once

#include <openssl/evp.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pkeyctl {

enum ExitCode { kOk = 0, kFailed = 1, kUsage = 2 };

// Parsed arguments of one command: positional words and --options.
struct Args {
    std::vector<std::string> positional;
    std::map<std::string, std::string> options;  // flags map to ""

    bool has(const std::string &option) const { return options.count(option) != 0; }
    std::string get(const std::string &option, const std::string &fallback = "") const {
        const auto it = options.find(option);
        return it == options.end() ? fallback : it->second;
    }
};

struct Command {
    const char *words;     // "local create"
    const char *usage;     // "rsa|dsa|ecdsa [--bits N] ..."
    const char *help;      // what it does
    const char *options;   // space-separated "--bits= --curve= --json"; "=" takes a value
    int min_positional;
    int max_positional;
    int (*run)(const Args &);
};

// The tables of each command group.
const std::vector<Command> &local_commands();
const std::vector<Command> &peer_commands();
const std::vector<Command> &system_commands();

// A usage error: one line on stderr, exit code 2.
int usage_error(const std::string &message);
// A refusal or failure: one line on stderr naming what and why, exit code 1.
int failure(const std::string &what, const std::string &why);

// ---- algorithms and curves ----------------------------------------------------

struct Algorithm {
    const char *name;
    int evp_type;
    unsigned int alg_id;
};
struct Curve {
    const char *option;
    const char *ssh_name;
    int nid;
};
const Algorithm *find_algorithm(std::string_view name);
const Algorithm *algorithm_of(const EVP_PKEY *key);
const Curve *find_curve(std::string_view name);
const std::vector<Algorithm> &algorithms();
const std::vector<Curve> &curves();

// ---- key descriptions -----------------------------------------------------------

// "SHA256:<unpadded base64>" / "MD5:aa:bb:..." of the key's SSH blob, as
// ssh-keygen -l prints them; "-" when the key has no SSH form.
std::string fingerprint_sha256(EVP_PKEY *key);
std::string fingerprint_md5(EVP_PKEY *key);
// The DER public key as the key-code display, between its wrapper lines.
std::string key_code_display(EVP_PKEY *key);

// ---- JSON -------------------------------------------------------------------------

std::string json_string(std::string_view text);

}  // namespace pkeyctl
