// cli.hpp - pkeyctl's command table, argument parsing and the helpers every
// command group shares.
//
// Every command is a row of one table: its words ("local create"), a usage
// line, a help text, the options it takes, whether it only reads the store,
// and its handler. Parsing, --help of every group and command and the exit
// codes (0 done, 1 refused or failed, 2 usage) live here once, so the handlers
// only do their work.
#pragma once

#include <openssl/evp.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pkey_util.hpp"

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
    const char *words;    // "local create"
    const char *usage;    // "rsa|dsa|ecdsa [--bits N] ..."
    const char *help;     // what it does
    const char *options;  // space-separated "--bits= --curve= --json"; "=" takes a value
    int min_positional;
    int max_positional;
    int (*run)(const Args &);
    // Which calls only read the store, so that a store that is not there is
    // reported instead of created: nullptr never, "*" always, otherwise the
    // first positional words that only read ("status", "list").
    const char *read_only = nullptr;
    // Whether the command needs the store for these arguments; a command that
    // has nothing to look up (nullptr: always needs it) runs without one.
    bool (*needs_store)(const Args &) = nullptr;
    // Run by a server at every login: OpenSSL starts without reading its
    // configuration file and without clean-up at exit, which this command
    // does not need and every login would pay for.
    bool login_path = false;
};

// The tables of each command group.
const std::vector<Command> &local_commands();
const std::vector<Command> &peer_commands();
const std::vector<Command> &system_commands();

// A usage error: one line on stderr, exit code 2.
int usage_error(const std::string &message);
// A refusal or failure: one line on stderr naming what and why, exit code 1.
int failure(const std::string &what, const std::string &why);

// ---- names, codes and text ---------------------------------------------------------

// Local key names: 1 to 64 letters, digits and '-'. Peer key names: 1 to 64
// printable characters without blanks. kOk, or a usage error (exit 2) naming
// the rule, for a name that can never be valid.
int check_local_name(const std::string &name);
int check_peer_name(const std::string &name);
// Whether a text can be a peer key name at all (the rule above), silently.
bool is_peer_name(std::string_view name);
// Text safe for a terminal and for one line: every byte outside the printable
// ASCII range, and the backslash, as \xNN (the backslash as \\).
std::string printable(std::string_view text);
// A status code as the library and the platform document it: "0x40010001".
std::string hex_code(unsigned int code);
// The platform's first recorded failure since HOST_ClearError, "" when none.
std::string platform_error();
// "HH:MM:SS YYYY/MM/DD" as ISO 8601 ("YYYY-MM-DDTHH:MM:SS"); "" if malformed.
std::string iso_time(const std::string &time_and_date);
const char *mode_name();  // "FIPS" or "non-FIPS"

// ---- algorithms and curves ------------------------------------------------------------

struct Algorithm {
    const char *name;
    int evp_type;
    unsigned int alg_id;
};
struct Curve {
    std::string option;    // "p256"
    std::string ssh_name;  // "nistp256"
    int nid;
};
const Algorithm *find_algorithm(std::string_view name);
const Algorithm *algorithm_of(const EVP_PKEY *key);
const Curve *find_curve(std::string_view name);
const std::vector<Algorithm> &algorithms();
const std::vector<Curve> &curves();

// ---- key descriptions -----------------------------------------------------------------

// "SHA256:<unpadded base64>" / "MD5:aa:bb:..." of the key's SSH blob, as
// ssh-keygen -l prints them; "-" when the key has no SSH form.
std::string fingerprint_sha256(EVP_PKEY *key);
std::string fingerprint_md5(EVP_PKEY *key);
// The DER public key as the key-code display, between its wrapper lines.
std::string key_code_display(EVP_PKEY *key);

// ---- files of the operator -----------------------------------------------------------

// Public key texts are small; anything longer is not one.
inline constexpr std::size_t kMaxKeyText = std::size_t{64} * 1024;

// Reads a key text from a regular file, or from standard input for "-", at
// most kMaxKeyText bytes. false with one line in error otherwise (a
// directory, a device, a stream that goes on, a NUL byte).
bool read_key_text(const std::string &source, std::string &text, std::string &error);
// Writes a user file outside the key store: the path goes through the
// store's file-name guard, the file is replaced whole (written beside it and
// renamed into place) with mode 0644. false with one line in error otherwise.
bool write_user_file(const std::string &path, std::string_view bytes, std::string &error);

// ---- the stored local keys ------------------------------------------------------------

// One local key file of the store (its memory or flash copy is there) and
// what reading it gave.
struct StoredKey {
    const Algorithm *alg = nullptr;
    unsigned int kind = 0;  // PKEY_KEY_HOST or PKEY_KEY_SERVER
    std::string name;       // "" for the default key of the kind
    bool readable = false;
    std::string problem;  // why it cannot be read, when it cannot
    unsigned int bits = 0;
    std::string created;  // "HH:MM:SS YYYY/MM/DD"
    unsigned char protection = 0;
    pkey::EvpPkeyPtr key;  // the key pair, when readable

    // "hostkey(default)", "serverkey(default)" or the name, printable.
    std::string display() const;
};

// Every key file of the store, for one algorithm or all: default host key,
// the rsa server key, then named keys by name, from both copies' directories.
// Directories that cannot be read add a line to errors.
std::vector<StoredKey> stored_keys(const Algorithm *only, std::vector<std::string> &errors);
// One key; nullopt when neither of its copies is there.
std::optional<StoredKey> stored_key(const Algorithm &alg, unsigned int kind, const std::string &name);
// Why writing or removing the key files of (alg, kind, name) failed, as
// precisely as the files can tell.
std::string write_problem(const Algorithm &alg, unsigned int kind, const std::string &name);
// The display name of a key that is not read ("hostkey(default)" or name).
std::string display_name(const Algorithm &alg, const std::string &name, unsigned int kind);

// ---- JSON ---------------------------------------------------------------------------

std::string json_string(std::string_view text);

}  // namespace pkeyctl
