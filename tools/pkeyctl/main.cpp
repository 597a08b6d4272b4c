// pkeyctl - the operator's command line over libpkey and the host platform.
//
// Every action goes through the library's exported functions; the host
// platform's control API only chooses the store and switches its settings.
#include <openssl/crypto.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "cli.hpp"
#include "host_platform.h"

namespace pkeyctl {
namespace {

constexpr const char *kVersion = "0.1.0";

std::vector<const Command *> all_commands() {
    std::vector<const Command *> all;
    for (const auto *group : {&local_commands(), &peer_commands(), &system_commands()})
        for (const Command &c : *group) all.push_back(&c);
    return all;
}

std::vector<std::string> words_of(const char *text) {
    std::vector<std::string> words;
    for (const char *w = text; *w != '\0';) {
        const char *end = std::strchr(w, ' ');
        const size_t n = end != nullptr ? static_cast<size_t>(end - w) : std::strlen(w);
        words.emplace_back(w, n);
        w += n + (end != nullptr ? 1 : 0);
    }
    return words;
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

void print_commands(const std::vector<const Command *> &commands) {
    for (const Command *c : commands) {
        std::printf("  %s %s\n", c->words, c->usage);
        print_wrapped(c->help, 6);
    }
}

void print_overview() {
    std::printf(
        "usage: pkeyctl [--root DIR] COMMAND [ARGS]\n\n"
        "Manages the SSH keys of a device store on this host: the device's own key\n"
        "pairs, the public keys of remote users, the FIPS mode and standby nodes.\n\n"
        "commands:\n");
    print_commands(all_commands());
    std::printf(
        "\noptions:\n"
        "  --root DIR    the store (default: $PKEY_ROOT, else ./pkey-store)\n"
        "  --help        this text; GROUP --help and COMMAND --help describe a part\n"
        "  --version     the program's version\n"
        "Options take their value as '--opt value' or '--opt=value'; '--' ends them.\n\n"
        "exit status: 0 done, 1 refused or failed, 2 usage error\n");
}

void print_command_help(const Command &c) {
    std::printf("usage: pkeyctl [--root DIR] %s %s\n\n", c.words, c.usage);
    print_wrapped(c.help, 2);
}

// The commands whose words begin with prefix ("local", "node standby").
std::vector<const Command *> group_of(const std::vector<std::string> &prefix) {
    std::vector<const Command *> group;
    for (const Command *c : all_commands()) {
        const std::vector<std::string> words = words_of(c->words);
        if (words.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), words.begin()))
            group.push_back(c);
    }
    return group;
}

bool is_help(const std::string &w) { return w == "--help" || w == "-h"; }

// Splits a command's arguments into positional words and its known options;
// "--opt=value" is "--opt value", and "--" makes every later word positional.
int parse(const Command &c, const std::vector<std::string> &words, Args &out) {
    const std::string allowed = std::string(" ") + c.options + " ";
    bool options_done = false;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string &w = words[i];
        if (options_done || w.size() <= 2 || w.compare(0, 2, "--") != 0) {
            out.positional.push_back(w);
            continue;
        }
        if (w == "--") {
            options_done = true;
            continue;
        }
        const size_t eq = w.find('=');
        const std::string option = w.substr(0, eq);
        if (allowed.find(" " + option + " ") != std::string::npos) {
            if (eq != std::string::npos) return usage_error(option + " takes no value");
            out.options[option] = "";
        } else if (allowed.find(" " + option + "= ") != std::string::npos) {
            if (eq != std::string::npos) {
                out.options[option] = w.substr(eq + 1);
            } else {
                if (i + 1 >= words.size()) return usage_error(option + " needs a value");
                out.options[option] = words[++i];
            }
        } else {
            return usage_error("unknown option '" + option + "' for " + c.words);
        }
    }
    const auto n = static_cast<int>(out.positional.size());
    if (n < c.min_positional || n > c.max_positional)
        return usage_error(std::string("usage: pkeyctl ") + c.words + " " + c.usage);
    return kOk;
}

bool only_reads(const Command &c, const Args &a) {
    if (c.read_only == nullptr) return false;
    const std::vector<std::string> actions = words_of(c.read_only);
    if (actions.size() == 1 && actions[0] == "*") return true;
    if (a.positional.empty()) return false;
    return std::find(actions.begin(), actions.end(), a.positional[0]) != actions.end();
}

int run(const std::vector<std::string> &args) {
    std::string root;
    size_t i = 0;
    for (; i < args.size() && args[i].rfind("--", 0) == 0; ++i) {
        if (is_help(args[i])) {
            print_overview();
            return kOk;
        }
        if (args[i] == "--version") {
            std::printf("pkeyctl %s\n", kVersion);
            return kOk;
        }
        if (args[i].rfind("--root=", 0) == 0) {
            root = args[i].substr(7);
        } else if (args[i] == "--root") {
            if (i + 1 >= args.size()) return usage_error("--root needs a directory");
            root = args[++i];
        } else {
            return usage_error("unknown option '" + args[i] + "'");
        }
        if (root.empty()) return usage_error("--root needs a directory");
    }
    if (i >= args.size()) return usage_error("no command given");

    // The longest run of words that names a command picks it.
    const Command *command = nullptr;
    size_t used = 0;
    for (const Command *c : all_commands()) {
        const std::vector<std::string> words = words_of(c->words);
        if (words.size() > used && i + words.size() <= args.size() &&
            std::equal(words.begin(), words.end(), args.begin() + static_cast<long>(i))) {
            command = c;
            used = words.size();
        }
    }
    if (command == nullptr) {
        // A group: "local --help" describes it; "local frobnicate" lists it.
        std::vector<std::string> prefix;
        std::vector<const Command *> group;
        for (size_t j = i; j < args.size() && args[j].rfind('-', 0) != 0; ++j) {
            prefix.push_back(args[j]);
            std::vector<const Command *> wider = group_of(prefix);
            if (wider.empty()) {
                prefix.pop_back();
                break;
            }
            group = std::move(wider);
        }
        const size_t next = i + prefix.size();
        if (!group.empty() && next < args.size() && is_help(args[next])) {
            std::printf("usage: pkeyctl [--root DIR] COMMAND [ARGS]\n\n%s commands:\n", printable(args[i]).c_str());
            print_commands(group);
            return kOk;
        }
        std::string word = printable(args[i]);
        if (i + 1 < args.size()) word += " " + printable(args[i + 1]);
        if (!group.empty()) {
            std::string names;
            for (const Command *c : group) names += std::string(names.empty() ? "" : ", ") + c->words;
            return usage_error("unknown command '" + word + "' (there are: " + names + ")");
        }
        return usage_error("unknown command '" + word + "'");
    }
    const std::vector<std::string> rest(args.begin() + static_cast<long>(i + used), args.end());
    for (const auto &w : rest) {
        if (w == "--") break;
        if (is_help(w)) {
            print_command_help(*command);
            return kOk;
        }
    }
    Args parsed;
    if (const int r = parse(*command, rest, parsed); r != kOk) return r;

    if (command->needs_store != nullptr && !command->needs_store(parsed)) return command->run(parsed);
    // Before anything else starts OpenSSL.
    if (command->login_path)
        (void)OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT |
                                      OPENSSL_INIT_NO_ADD_ALL_CIPHERS | OPENSSL_INIT_NO_ADD_ALL_DIGESTS,
                                  nullptr);

    // Commands that only read never create a store; every command refuses a
    // store whose settings cannot be trusted.
    HOST_ClearError();
    const char *root_arg = root.empty() ? nullptr : root.c_str();
    const int opened = only_reads(*command, parsed) ? HOST_OpenExisting(root_arg) : HOST_Open(root_arg);
    if (opened != 0) {
        const std::string why = platform_error();
        return failure(command->words, why.empty() ? "the store cannot be opened" : why);
    }
    return command->run(parsed);
}

}  // namespace
}  // namespace pkeyctl

int main(int argc, char **argv) {
    using namespace pkeyctl;
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::exception &e) {
        std::fprintf(stderr, "pkeyctl: internal error: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "pkeyctl: internal error\n");
    }
    return kFailed;
}
