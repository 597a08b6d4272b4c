// Attacks on the store's edges, each with the refusal it must meet: names that
// climb out of the key directories, exports aimed at the store's own files,
// one file under two names, hostile input files, damaged settings, keys no
// real key pair has, names that forge listing rows, and the operator losing
// keys without being told. Every test runs pkeyctl (and where it matters the
// C API) against a fresh store in a directory of its own, and the fixture
// checks that nothing beside the store changed: a recursive listing of the
// parent directory (names, types, sizes, modes, owners, times) is the same
// before and after.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/x509.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "host_platform.h"
#include "pkey_local.h"
#include "pkey_peer.h"
#include "pkey_pubkey.h"
#include "test_keys.hpp"
#include "test_store.hpp"
#include "test_util.hpp"

namespace {

namespace fs = std::filesystem;
using pkey::EvpPkeyPtr;
using pkey::test::get;
using pkey::test::ProgramResult;
using pkey::test::put;
using Bytes = std::vector<unsigned char>;

using pkey::test::tree_listing;
using Listing = std::map<std::string, std::string>;

size_t lines(const std::string &text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

// The OpenSSH line of a key as the library encodes it, whatever its numbers.
std::string line_of(EVP_PKEY *key) {
    unsigned int len = 0;
    pkey::MallocPtr<char> b64(PKEY_PUBKEY_EvppkeyToBase64(key, 1, &len));
    return std::string(EVP_PKEY_get_id(key) == EVP_PKEY_RSA ? "ssh-rsa " : "ssh-dss ") +
           (b64 ? b64.get() : "") + " crafted\n";
}

class SecurityTest : public ::testing::Test {
protected:
    void SetUp() override {
        parent_ = pkey::test::make_temp_dir(pkey::test::temp_base(), "pkey-security-");
        ASSERT_FALSE(parent_.empty());
        store_ = parent_ + "/store";
        work_ = parent_ + "/work";
        fs::create_directories(work_);
        // What an attacker would aim at beside the store.
        put(parent_ + "/outside/v1.key", "an operator's file, not a key\n");
        put(parent_ + "/outside/exist.key", "precious\n");
        put(parent_ + "/outside/notes.txt", "nothing to see\n");
        ::chmod((parent_ + "/outside/exist.key").c_str(), 0640);
        ASSERT_EQ(ctl({"fips", "off"}).code, 0);
        before_ = tree_listing(parent_, {"store", "work"});
    }
    void TearDown() override {
        EXPECT_EQ(tree_listing(parent_, {"store", "work"}), before_)
            << "something outside the store changed";
        std::error_code ec;
        fs::remove_all(parent_, ec);
    }

    ProgramResult ctl(std::vector<std::string> args, const std::string &stdin_path = "/dev/null") {
        args.insert(args.begin(), {PKEYCTL_PATH, "--root", store_});
        return pkey::test::run_program(args, stdin_path);
    }
    // A refusal: the exit code, and one line on stderr that says so.
    void expect_refused(const ProgramResult &r, int code, const std::string &says) {
        EXPECT_EQ(r.code, code) << r.err;
        EXPECT_EQ(lines(r.err), 1u) << r.err;
        EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
    }
    // The store for calls made from this process.
    void use_store() { ASSERT_EQ(HOST_Open(store_.c_str()), 0) << HOST_LastError(); }
    std::string mem(const std::string &leaf) const { return store_ + "/node1/run/pkey/" + leaf; }
    std::string flash(const std::string &leaf) const { return store_ + "/node1/flash/" + leaf; }
    std::string file(const std::string &leaf, const std::string &content) {
        put(work_ + "/" + leaf, content);
        return work_ + "/" + leaf;
    }

    std::string parent_, store_, work_;
    Listing before_;
};

TEST_F(SecurityTest, KeyNamesThatClimbOutOfTheStoreAreRefusedEverywhere) {
    ASSERT_EQ(ctl({"local", "create", "rsa", "--bits", "1024", "--name", "v1"}).code, 0);
    const std::string climb = "../../../../../outside/v1";
    for (const char *verb : {"destroy", "show", "create"})
        expect_refused(ctl({"local", verb, "rsa", "--name", climb}), 2, "bad key name");
    expect_refused(ctl({"local", "export", "rsa", "--format", "openssh", "--name", climb}), 2,
                   "bad key name");

    EXPECT_EQ(ctl({"local", "list", "rsa"}).code, 0) << "the store itself is intact";
}

TEST_F(SecurityTest, ExportsNeverOverwriteTheStoresOwnFiles) {
    ASSERT_EQ(ctl({"local", "create", "ecdsa"}).code, 0);
    ASSERT_EQ(ctl({"node", "standby", "add", "2"}).code, 0);
    ASSERT_EQ(ctl({"local", "create", "rsa", "--bits", "1024", "--name", "web"}).code, 0);
    ASSERT_EQ(ctl({"peer", "list"}).code, 0);
    // The database's own files change whenever it is opened; the keys' files must not.
    const Listing store_before = tree_listing(store_, {"db"});
    for (const std::string &target :
         {store_ + "/device.key", store_ + "/settings", store_ + "/db/PKEY.db", mem("ecdsakey"),
          mem("rsa/web.key"), flash("hostkey"), flash("pkey/rsa/web.key"),
          store_ + "/node2/flash/ecdsakey", store_ + "/node2/flash/pkey/rsa/web.key",
          store_ + "/node1/flash/../run/pkey/ecdsakey",
          store_ + "//node1/./flash/pkey/rsa/new.key"}) {
        expect_refused(ctl({"local", "export", "ecdsa", "--format", "openssh", "--out", target}), 1,
                       "key store");
    }
    // Through a link that leads into the store.
    fs::create_directory_symlink(store_ + "/node1/run", work_ + "/innocent");
    expect_refused(ctl({"local", "export", "ecdsa", "--format", "openssh", "--out",
                        work_ + "/innocent/pkey/ecdsakey"}),
                   1, "key store");
    EXPECT_EQ(tree_listing(store_, {"db"}), store_before);

    // A file of the operator's is written, whole, where asked; "-" is standard output.
    const ProgramResult ok =
        ctl({"local", "export", "ecdsa", "--format", "openssh", "--out", work_ + "/host.pub"});
    EXPECT_EQ(ok.code, 0) << ok.err;
    EXPECT_EQ(get(work_ + "/host.pub").rfind("ecdsa-sha2-nistp256 ", 0), 0u);
    EXPECT_EQ(ctl({"local", "export", "ecdsa", "--format", "openssh", "--out", "-"}).out,
              get(work_ + "/host.pub") + "\r\n");
}

TEST_F(SecurityTest, OneFileUnderTwoNamesFailsCleanlyInsteadOfHanging) {
    ASSERT_EQ(ctl({"local", "create", "ecdsa"}).code, 0);
    // The memory copy made a hard link of the flash copy.
    fs::remove(mem("ecdsakey"));
    fs::create_hard_link(flash("ecdsakey"), mem("ecdsakey"));
    const std::string key_file = get(flash("ecdsakey"));
    expect_refused(ctl({"local", "create", "ecdsa", "--force"}), 1, "one file");
    expect_refused(ctl({"local", "destroy", "ecdsa"}), 1, "one file");
    EXPECT_EQ(get(flash("ecdsakey")), key_file) << "the key file was changed";
    // The memory key directory a link to the flash work directory.
    fs::remove_all(store_ + "/node1/run/pkey");
    fs::create_directory_symlink("../flash", store_ + "/node1/run/pkey");
    expect_refused(ctl({"local", "create", "ecdsa", "--force"}), 1, "one file");
    fs::remove(flash("ecdsakey"));  // a new key: the one file is made by the write itself
    expect_refused(ctl({"local", "create", "ecdsa"}), 1, "one file");
    EXPECT_FALSE(fs::exists(flash("ecdsakey"))) << "a half-stored key was left";
}

TEST_F(SecurityTest, InputThatIsNotAKeyTextFileIsRefusedInOneLine) {
    expect_refused(ctl({"peer", "add", "x", parent_}), 1, "is a directory");
    expect_refused(ctl({"peer", "add", "x", "/dev/zero"}), 1, "is a device");
    expect_refused(ctl({"peer", "add", "x", "-"}, "/dev/zero"), 1, "64 KiB");
    expect_refused(ctl({"peer", "add", "x", file("big.pub", std::string(70000, 'A'))}), 1,
                   "64 KiB");
    expect_refused(ctl({"peer", "add", "x", file("nul.pub", std::string("ssh-rsa \0AAAA", 13))}), 1,
                   "NUL");
    expect_refused(ctl({"peer", "add", "x", work_ + "/missing"}), 1, "No such file");
    EXPECT_EQ(ctl({"peer", "list"}).out.find("\nx "), std::string::npos);
}

TEST_F(SecurityTest, DamagedSettingsNeverReadAsFipsOff) {
    ASSERT_EQ(ctl({"fips", "on", "--yes"}).code, 0);
    const std::string settings = store_ + "/settings";
    const std::string good = get(settings);
    ASSERT_FALSE(good.empty());
    std::string flipped = good;
    flipped[flipped.size() / 2] = static_cast<char>(flipped[flipped.size() / 2] ^ 0x40);
    for (const std::string &damaged : {flipped, good.substr(0, good.size() / 2), std::string()}) {
        put(settings, damaged);
        for (const std::vector<std::string> &command : std::vector<std::vector<std::string>>{
                 {"fips", "status"}, {"local", "list"}, {"policy"}, {"fips", "off"}}) {
            const ProgramResult r = ctl(command);
            expect_refused(r, 1, "settings");
            EXPECT_EQ(r.out.find("off"), std::string::npos) << r.out;
        }
        EXPECT_EQ(get(settings), damaged) << "a refused settings file must be left as it is";
    }
    put(settings, good);
    EXPECT_EQ(ctl({"fips", "status"}).out, "FIPS mode: on\n");
}

TEST_F(SecurityTest, AnUnreadablePeerDatabaseIsAnErrorNotAnEmptyStore) {
    ASSERT_EQ(ctl({"peer", "list"}).code, 0);
    for (const char *suffix : {"", "-wal", "-shm"}) fs::remove(store_ + "/db/PKEY.db" + suffix);
    put(store_ + "/db/PKEY.db", std::string(4096, 'x'));
    for (const std::vector<std::string> &command :
         std::vector<std::vector<std::string>>{{"peer", "list"},
                                               {"peer", "show", "alice"},
                                               {"peer", "remove", "alice"},
                                               {"fips", "on", "--dry-run"}}) {
        const ProgramResult r = ctl(command);
        expect_refused(r, 1, "cannot read the peer key database");
        EXPECT_EQ(r.out.find("nothing had to go"), std::string::npos) << r.out;
    }
    expect_refused(ctl({"peer", "remove", "alice"}), 1, "PKEY.db");
}

TEST_F(SecurityTest, PeerKeysNoRealKeyPairHasAreRefused) {
    use_store();
    using pkey::test::public_key_with;
    EVP_PKEY *rsa = pkey::test::test_key("rsa1024"), *dsa = pkey::test::test_key("dsa1024");
    const auto n = pkey::test::bn_param(rsa, OSSL_PKEY_PARAM_RSA_N);
    pkey::BignumPtr even_n(BN_dup(n.get())), above_n(BN_dup(n.get())), zero(BN_new()),
        one(BN_new()), two(BN_new());
    BN_add_word(even_n.get(), 1);
    BN_add_word(above_n.get(), 2);
    BN_zero(zero.get());
    BN_one(one.get());
    BN_set_word(two.get(), 2);
    const char *const e = OSSL_PKEY_PARAM_RSA_E;
    const EvpPkeyPtr impossible[] = {public_key_with(rsa, {{e, one.get()}}),
                                     public_key_with(rsa, {{e, two.get()}}),
                                     public_key_with(rsa, {{e, above_n.get()}}),
                                     public_key_with(rsa, {{OSSL_PKEY_PARAM_RSA_N, even_n.get()}}),
                                     public_key_with(dsa, {{OSSL_PKEY_PARAM_FFC_G, one.get()}}),
                                     public_key_with(dsa, {{OSSL_PKEY_PARAM_PUB_KEY, zero.get()}})};
    for (const EvpPkeyPtr &key : impossible) {
        ASSERT_TRUE(key);
        expect_refused(ctl({"peer", "add", "bad", file("bad.pub", line_of(key.get()))}), 1,
                       "not a possible");
    }
    // Blobs OpenSSH would not read: bytes after the last field, a negative number. The
    // 1024-bit RSA buffer: name at 0, e (4 + 3 bytes) at 11, n (4 + 0x00 + 128) at 18.
    const std::string good = line_of(rsa);
    const Bytes blob = pkey::test::unbase64(good.substr(8, good.find(' ', 8) - 8));
    ASSERT_EQ(blob.size(), 151u);
    Bytes trailing = blob, negative = blob;
    trailing.push_back(0);
    negative.erase(negative.begin() + 22);
    negative[21] = 128;
    for (const Bytes &bad : {trailing, negative})
        expect_refused(ctl({"peer", "add", "bad",
                            file("bad.pub", "ssh-rsa " + pkey::test::base64(bad) + "\n")}),
                       1, "not one OpenSSH reads");
    // A line whose type word is not its blob's.
    expect_refused(ctl({"peer", "add", "bad",
                        file("mismatch.pub", "ssh-dss " + pkey::test::base64(blob) + "\n")}),
                   1, "another type");
    EXPECT_EQ(EvpPkeyPtr(PKEY_GetUserKeyByName("bad")), nullptr) << "nothing was stored";
}

TEST_F(SecurityTest, NamesCannotForgeListingRowsOrReachTheTerminal) {
    unsigned int len = 0;
    pkey::MallocPtr<char> b64(
        PKEY_PUBKEY_EvppkeyToBase64(pkey::test::test_key("rsa2048"), 1, &len));
    const std::string pub = file("k.pub", std::string("ssh-rsa ") + b64.get() + " k\n");
    const std::string forged = "evil\nroot   rsa 2048 SHA256:FAKE";
    const std::string escape = "esc\x1b[2Jx";
    expect_refused(ctl({"peer", "add", forged, pub}), 2, "bad peer key name");
    expect_refused(ctl({"peer", "add", escape, pub}), 2, "bad peer key name");
    expect_refused(ctl({"peer", "show", forged}), 2, "bad peer key name");

    // Names stored through the C API are escaped wherever they are printed.
    use_store();
    // Weak keys, so that the FIPS plan lists them too.
    ASSERT_EQ(PKEY_SavePeerPubKey(pkey::test::test_key("rsa1024"), forged.c_str()), 0u);
    ASSERT_EQ(PKEY_SavePeerPubKey(pkey::test::test_key("rsa1024"), escape.c_str()), 0u);
    for (const std::vector<std::string> &command : std::vector<std::vector<std::string>>{
             {"peer", "list"}, {"peer", "list", "--json"}, {"fips", "on", "--dry-run"}}) {
        const ProgramResult r = ctl(command);
        EXPECT_EQ(r.code, 0) << r.err;
        EXPECT_EQ(r.out.find("\nroot"), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find('\x1b'), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("evil\\"), std::string::npos) << r.out;
    }
}

TEST_F(SecurityTest, FipsOnKeepsFipsStrengthKeysAndAsksBeforeRemovingAny) {
    ASSERT_EQ(ctl({"local", "create", "rsa", "--bits", "2048"}).code, 0);
    const auto host_fingerprint = [&] {
        const std::string out = ctl({"local", "list", "rsa"}).out;
        const size_t line = out.find("hostkey(default)");
        return line == std::string::npos ? "" : out.substr(out.find("SHA256:", line), 50);
    };
    const std::string fingerprint = host_fingerprint();
    ASSERT_FALSE(fingerprint.empty());
    ASSERT_EQ(ctl({"peer", "list"}).code, 0);
    const Listing store_before = tree_listing(store_, {"db"});

    // The 768-bit server key would go: not without the operator's word.
    expect_refused(ctl({"fips", "on"}), 1, "--yes");
    const ProgramResult dry = ctl({"fips", "on", "--dry-run"});
    EXPECT_EQ(dry.code, 0);
    EXPECT_NE(dry.out.find("keep   local rsa key hostkey(default)"), std::string::npos) << dry.out;
    EXPECT_NE(dry.out.find("remove local rsa key serverkey(default)"), std::string::npos)
        << dry.out;
    EXPECT_EQ(tree_listing(store_, {"db"}), store_before)
        << "a refused or dry switch changed the store";
    EXPECT_EQ(ctl({"fips", "status"}).out, "FIPS mode: off\n");

    const ProgramResult on = ctl({"fips", "on", "--yes"});
    EXPECT_EQ(on.code, 0) << on.err;
    EXPECT_EQ(ctl({"fips", "status"}).out, "FIPS mode: on\n");
    EXPECT_EQ(host_fingerprint(), fingerprint) << "the device's SSH identity changed";
    EXPECT_EQ(static_cast<unsigned char>(get(flash("hostkey"))[PKEY_STORE_OFF_PROTECTION]),
              PKEY_STORE_PROTECT_SHA256);
    EXPECT_FALSE(fs::exists(flash("serverkey")));
}

TEST_F(SecurityTest, CreatingOverAKeyOrAPeerNameNeedsForce) {
    ASSERT_EQ(ctl({"local", "create", "ecdsa", "--curve", "p256"}).code, 0);
    const std::string key_file = get(flash("ecdsakey"));
    expect_refused(ctl({"local", "create", "ecdsa", "--curve", "p384"}), 1, "--force");
    EXPECT_EQ(get(flash("ecdsakey")), key_file);
    const ProgramResult forced = ctl({"local", "create", "ecdsa", "--curve", "p384", "--force"});
    EXPECT_EQ(forced.code, 0);
    EXPECT_EQ(forced.out, "replaced ecdsa key ecdsakey(default)\n");

    unsigned int len = 0;
    pkey::MallocPtr<char> a(PKEY_PUBKEY_EvppkeyToBase64(pkey::test::test_key("p256"), 1, &len));
    pkey::MallocPtr<char> b(PKEY_PUBKEY_EvppkeyToBase64(pkey::test::test_key("p256#2"), 1, &len));
    ASSERT_EQ(
        ctl({"peer", "add", "alice", file("a.pub", std::string("ecdsa-sha2-nistp256 ") + a.get())})
            .code,
        0);
    const std::string shown = ctl({"peer", "show", "alice"}).out;
    expect_refused(
        ctl({"peer", "add", "alice", file("b.pub", std::string("ecdsa-sha2-nistp256 ") + b.get())}),
        1, "--force");
    EXPECT_EQ(ctl({"peer", "show", "alice"}).out, shown);
    EXPECT_EQ(ctl({"peer", "add", "alice", work_ + "/b.pub", "--force"})
                  .out.rfind("replaced peer key alice", 0),
              0u);
}

TEST_F(SecurityTest, ReadingCommandsNeverCreateAStore) {
    const std::string typo = parent_ + "/typo/x";
    for (const std::vector<std::string> &command :
         std::vector<std::vector<std::string>>{{"local", "list"},
                                               {"peer", "list"},
                                               {"fips", "status"},
                                               {"policy"},
                                               {"node", "standby", "list"}}) {
        std::vector<std::string> args = {PKEYCTL_PATH, "--root", typo};
        args.insert(args.end(), command.begin(), command.end());
        const ProgramResult r = pkey::test::run_program(args);
        expect_refused(r, 1, "no pkey store");
    }
    EXPECT_FALSE(fs::exists(parent_ + "/typo"));
}

TEST_F(SecurityTest, UnreadableKeysAreListedAsSuchWithTheirReason) {
    ASSERT_EQ(ctl({"local", "create", "rsa", "--bits", "1024", "--name", "damaged"}).code, 0);
    ASSERT_EQ(ctl({"local", "create", "ecdsa"}).code, 0);
    std::string image = get(mem("rsa/damaged.key"));
    image[200] = static_cast<char>(image[200] ^ 1);
    put(mem("rsa/damaged.key"), image);
    fs::remove(mem("ecdsakey"));

    const ProgramResult r = ctl({"local", "list"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.out.find("damaged"), std::string::npos);
    EXPECT_NE(r.out.find("UNREADABLE: it fails authentication"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("UNREADABLE: its memory copy is missing"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("2 keys are unreadable"), std::string::npos) << r.err;
    const ProgramResult json = ctl({"local", "list", "--json"});
    EXPECT_EQ(json.code, 1);
    EXPECT_NE(json.out.find("\"name\": \"damaged\", \"default\": false, \"kind\": \"host\", "
                            "\"algorithm\": \"rsa\", "
                            "\"readable\": false"),
              std::string::npos)
        << json.out;
    expect_refused(ctl({"local", "show", "ecdsa"}), 1, "memory copy is missing");
}

TEST_F(SecurityTest, EveryGroupAndCommandHasHelp) {
    for (const std::vector<std::string> &command :
         std::vector<std::vector<std::string>>{{"local", "--help"},
                                               {"peer", "--help"},
                                               {"node", "--help"},
                                               {"backup", "--help"},
                                               {"fips", "--help"},
                                               {"node", "standby", "--help"},
                                               {"local", "export", "-h"}}) {
        const ProgramResult r = ctl(command);
        EXPECT_EQ(r.code, 0) << command[0] << " " << r.err;
        EXPECT_NE(r.out.find("usage: pkeyctl"), std::string::npos) << r.out;
    }
    expect_refused(ctl({"local", "frobnicate"}), 2, "local create");
}

}  // namespace
