// host_fs.cpp - file-system service: work directories and memory roots of
// nodes inside the store, and the analysis of full file names.
//
// A full file name is either in device form, "[slotN#]flash:/a/b/c", or an
// absolute host path. A host path that leads into a node's flash work
// directory - directly, through symlinks, "//", "." or ".." - is reported as
// being on device "flash" of that node's slot, so that callers guarding the key
// store see through every spelling of it.
//
// FS_IsValidFullFileName refuses, besides malformed names, every name that
// lands (through any spelling, symlink or hard link) on the store's own
// machinery: the root, its device key, settings and databases, each node's
// directories, key trees and default key files.

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "host_internal.hpp"
#include "pkey_platform.h"
#include "pkey_util.hpp"

namespace pkey::host {
namespace {

constexpr std::string_view kMemRoot = "/var/run";
constexpr std::string_view kFlashDevice = "flash";
constexpr std::size_t kMaxFullNameLen = 512;
constexpr unsigned short kNoLocation = 0xFFFF;

// Copies text into out (size bytes). Always terminates when size > 0.
int put_text(std::string_view text, unsigned int size, char *out) {
    if (out == nullptr || size == 0) return kFsErrParam;
    if (text.size() >= size) {
        std::memcpy(out, text.data(), size - 1);
        out[size - 1] = '\0';
        return kFsErrSpace;
    }
    std::memcpy(out, text.data(), text.size());
    out[text.size()] = '\0';
    return 0;
}

int put_node_path(unsigned int node, std::string_view leaf, unsigned int size, char *out) {
    if (out == nullptr || size == 0) return kFsErrParam;
    StoreRef store = current_store();
    if (store.root.empty()) {
        out[0] = '\0';
        return kFsErrNoStore;
    }
    return put_text(node_path(store.root, node, leaf), size, out);
}

bool ascii_alpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool ascii_digit(char c) { return c >= '0' && c <= '9'; }

// Parses a canonical decimal node or slot number (no sign, no leading zero) up to 65535.
bool parse_number(std::string_view text, unsigned int &out) {
    if (text.empty() || text.size() > 5 || (text.size() > 1 && text[0] == '0')) return false;
    unsigned int v = 0;
    for (char c : text) {
        if (!ascii_digit(c)) return false;
        v = v * 10 + static_cast<unsigned int>(c - '0');
    }
    if (v > 0xFFFF) return false;
    out = v;
    return true;
}

struct DeviceName {
    bool has_slot = false;
    unsigned int slot = 0;
    std::string_view device;  // letters before ':'
    std::string_view rest;    // after ':'
};

// Recognises "[slotN#]letters:" followed by nothing or an absolute path.
bool parse_device_form(std::string_view name, DeviceName &out) {
    std::string_view s = name;
    if (s.size() > 4 && ::strncasecmp(s.data(), "slot", 4) == 0) {
        const std::size_t hash = s.find('#');
        if (hash != std::string_view::npos && parse_number(s.substr(4, hash - 4), out.slot)) {
            out.has_slot = true;
            s.remove_prefix(hash + 1);
        }
    }
    std::size_t i = 0;
    while (i < s.size() && ascii_alpha(s[i])) ++i;
    if (i == 0 || i >= s.size() || s[i] != ':') return false;
    out.device = s.substr(0, i);
    out.rest = s.substr(i + 1);
    return out.rest.empty() || out.rest.front() == '/';
}

// Path components, without the empty ones of "//" and without ".".
std::vector<std::string_view> split_components(std::string_view path) {
    std::vector<std::string_view> parts;
    std::size_t pos = 0;
    while (pos < path.size()) {
        std::size_t slash = path.find('/', pos);
        if (slash == std::string_view::npos) slash = path.size();
        std::string_view part = path.substr(pos, slash - pos);
        if (!part.empty() && part != ".") parts.push_back(part);
        pos = slash + 1;
    }
    return parts;
}

// Applies components to a stack of resolved ones; ".." removes one but never
// climbs above the top.
void push_lexically(std::vector<std::string> &stack, const std::vector<std::string_view> &parts,
                    std::size_t from) {
    for (std::size_t i = from; i < parts.size(); ++i) {
        if (parts[i] == "..") {
            if (!stack.empty()) stack.pop_back();
        } else {
            stack.emplace_back(parts[i]);
        }
    }
}

// True when the name denotes a directory: it ends in "/" or its last component is "." or "..".
bool names_directory(std::string_view name) {
    if (name.empty()) return true;
    if (name.back() == '/') return true;
    const std::size_t slash = name.rfind('/');
    std::string_view last = slash == std::string_view::npos ? name : name.substr(slash + 1);
    return last == "." || last == "..";
}

// Resolves an absolute host path to where a file operation on it would land.
// Each component is checked with lstat and a symlink is replaced by its
// target, dangling or not (writing through a dangling link creates the
// target). ".." drops the last resolved component, which is the physical
// parent once the symlinks before it have been expanded; below a missing
// component it simply works on the text. Returns the components of the result.
bool resolve_host_path(std::string_view path, std::vector<std::string> &out) {
    constexpr int kMaxLinks = 40;
    std::deque<std::string> todo;
    for (std::string_view c : split_components(path)) todo.emplace_back(c);
    out.clear();
    int links = 0;
    std::string current;
    while (!todo.empty()) {
        std::string comp = std::move(todo.front());
        todo.pop_front();
        if (comp == "..") {
            if (!out.empty()) out.pop_back();
            continue;
        }
        out.push_back(std::move(comp));
        current.clear();
        for (const std::string &c : out) current.append("/").append(c);
        struct stat st {};
        if (::lstat(current.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) continue;
        if (++links > kMaxLinks) return false;
        std::string target(static_cast<std::size_t>(st.st_size > 0 ? st.st_size : 255) + 1, '\0');
        const ssize_t n = ::readlink(current.c_str(), target.data(), target.size());
        if (n < 0 || static_cast<std::size_t>(n) >= target.size()) return false;
        target.resize(static_cast<std::size_t>(n));
        out.pop_back();
        if (!target.empty() && target.front() == '/') out.clear();
        const std::vector<std::string_view> spliced = split_components(target);
        for (auto it = spliced.rbegin(); it != spliced.rend(); ++it) todo.emplace_front(*it);
    }
    return true;
}

std::string join(const std::vector<std::string> &parts, std::size_t from, std::size_t to) {
    std::string s;
    for (std::size_t i = from; i < to; ++i) {
        if (!s.empty()) s.push_back('/');
        s.append(parts[i]);
    }
    return s;
}

// When the resolved path lies in "<root>/node<N>/flash" (or some node's flash
// directory resolves to a prefix of it), sets slot and the index of the first
// component below that directory. unreadable is set when the root cannot be
// listed to say so.
bool locate_in_store(const std::string &root, const std::vector<std::string> &path,
                     unsigned int &slot, std::size_t &below, bool &unreadable) {
    if (root.empty()) return false;
    std::vector<std::string> root_parts;
    for (std::string_view c : split_components(root)) root_parts.emplace_back(c);

    // Spelled out under the root: <root>/node<N>/flash/...
    const std::size_t r = root_parts.size();
    if (path.size() >= r + 2 && std::equal(root_parts.begin(), root_parts.end(), path.begin()) &&
        path[r].starts_with("node") && path[r + 1] == kFlashDevice &&
        parse_number(std::string_view(path[r]).substr(4), slot)) {
        below = r + 2;
        return true;
    }

    // A node's flash directory that is itself a symlink elsewhere. A root
    // that cannot be listed leaves the name unplaced: the analysis fails.
    std::vector<std::string> entries;
    if (!list_directory(root, entries)) {
        unreadable = true;
        return false;
    }
    for (const std::string &entry_name : entries) {
        unsigned int n = 0;
        std::string_view entry(entry_name);
        if (!entry.starts_with("node") || !parse_number(entry.substr(4), n)) continue;
        MallocPtr<char> real(::realpath(node_path(root, n, kFlashDevice).c_str(), nullptr));
        if (!real) continue;
        std::vector<std::string_view> flash = split_components(real.get());
        if (flash.size() <= path.size() && std::equal(flash.begin(), flash.end(), path.begin())) {
            slot = n;
            below = flash.size();
            return true;
        }
    }
    return false;
}

struct Analysis {
    std::string device;
    unsigned short location1 = kNoLocation;
    unsigned short location2 = kNoLocation;
    std::string dir;
    std::string file;
};

// Splits parts[from..] into directory and file parts.
void split_dir_file(const std::vector<std::string> &parts, std::size_t from, bool is_directory,
                    Analysis &a) {
    if (from >= parts.size()) return;  // the device root itself
    if (is_directory) {
        a.dir = join(parts, from, parts.size());
    } else {
        a.dir = join(parts, from, parts.size() - 1);
        a.file = parts.back();
    }
}

bool analyse(std::string_view name, const std::string &root, Analysis &a) {
    DeviceName dev;
    if (parse_device_form(name, dev)) {
        a.device.assign(dev.device);
        for (char &c : a.device) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        a.location1 = 0;
        a.location2 = static_cast<unsigned short>(dev.has_slot ? dev.slot : settings_self_node());
        std::vector<std::string> parts;
        push_lexically(parts, split_components(dev.rest), 0);
        split_dir_file(parts, 0, names_directory(dev.rest), a);
        return true;
    }
    if (name.empty() || name.front() != '/') return false;

    std::vector<std::string> parts;
    if (!resolve_host_path(name, parts)) return false;
    const bool is_directory = names_directory(name);
    unsigned int slot = 0;
    std::size_t below = 0;
    bool unreadable = false;
    const bool in_store = locate_in_store(root, parts, slot, below, unreadable);
    if (unreadable) return false;
    if (in_store) {
        a.device.assign(kFlashDevice);
        a.location1 = 0;
        a.location2 = static_cast<unsigned short>(slot);
        split_dir_file(parts, below, is_directory, a);
    } else {
        split_dir_file(parts, 0, is_directory, a);
    }
    return true;
}

// ---------------------------------------------------------------------------
// The store's own files, which no user file operation may touch.

using Parts = std::vector<std::string>;

bool iequals(std::string_view a, std::string_view b) {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool is_default_key_name(std::string_view name) {
    for (std::string_view key : {"hostkey", "serverkey", "dsakey", "ecdsakey"})
        if (iequals(name, key)) return true;
    return false;
}

bool is_node_name(std::string_view name) {
    unsigned int n = 0;
    return name.starts_with("node") && parse_number(name.substr(4), n);
}

// Files of the root itself: the device key, the settings and their temporaries.
bool is_root_file_name(std::string_view name) {
    for (std::string_view prefix : {"device.key", ".device.key", "settings", ".settings"})
        if (name.starts_with(prefix)) return true;
    return false;
}

bool has_prefix(const Parts &path, const Parts &prefix) {
    return prefix.size() <= path.size() && std::equal(prefix.begin(), prefix.end(), path.begin());
}

Parts to_parts(std::string_view path) {
    Parts out;
    for (std::string_view c : split_components(path)) out.emplace_back(c);
    return out;
}

// A directory of the store, as reached by some spelling of it.
struct Anchor {
    enum Kind { kNode, kFlash, kRun, kDb } kind;
    Parts parts;
};

// Whether the part of a path below a flash work directory or memory root is
// the store's: the directory itself, its "pkey" tree, or (flash only) a
// default key file at its top.
bool flash_tail_is_store(const Parts &path, std::size_t from) {
    if (from == path.size()) return true;
    if (iequals(path[from], "pkey")) return true;
    return from + 1 == path.size() && is_default_key_name(path[from]);
}
bool run_tail_is_store(const Parts &path, std::size_t from) {
    return from == path.size() || iequals(path[from], "pkey");
}

bool anchor_covers(const Anchor &a, const Parts &path) {
    if (!has_prefix(path, a.parts)) return false;
    const std::size_t at = a.parts.size();
    switch (a.kind) {
        case Anchor::kDb: return true;
        case Anchor::kFlash: return flash_tail_is_store(path, at);
        case Anchor::kRun: return run_tail_is_store(path, at);
        case Anchor::kNode:
            if (at == path.size()) return true;
            if (path[at] == kFlashDevice) return flash_tail_is_store(path, at + 1);
            if (path[at] == "run") return run_tail_is_store(path, at + 1);
            return false;
    }
    return false;
}

// Node directory names present in the root; false when the root cannot be
// listed, so that a guard refuses rather than overlooks a node.
bool node_entries(const std::string &root, std::vector<std::string> &names) {
    std::vector<std::string> entries;
    if (!list_directory(root, entries)) return false;
    names.clear();
    for (std::string &e : entries)
        if (is_node_name(e)) names.push_back(std::move(e));
    return true;
}

// The store's directories in their resolved spelling, for those that are
// symlinks to somewhere else (the spelled-out forms are matched by name).
// False when the root cannot be listed.
bool resolved_anchors(const std::string &root, std::vector<Anchor> &anchors) {
    std::vector<std::string> nodes;
    if (!node_entries(root, nodes)) return false;
    const auto add = [&](Anchor::Kind kind, const std::string &path) {
        MallocPtr<char> real(::realpath(path.c_str(), nullptr));
        if (real && std::string_view(real.get()) != path)
            anchors.push_back({kind, to_parts(real.get())});
    };
    add(Anchor::kDb, root + "/db");
    for (const std::string &node : nodes) {
        const std::string dir = root + "/" + node;
        add(Anchor::kNode, dir);
        add(Anchor::kFlash, dir + "/flash");
        add(Anchor::kRun, dir + "/run");
    }
    return true;
}

bool is_store_path(const std::string &root, const Parts &path) {
    const Parts r = to_parts(root);
    if (has_prefix(path, r)) {
        const std::size_t at = r.size();
        if (at == path.size()) return true;
        if (at + 1 == path.size() && is_root_file_name(path[at])) return true;
        if (path[at] == "db") return true;
        if (is_node_name(path[at])) {
            const Anchor node{Anchor::kNode,
                              Parts(path.begin(), path.begin() + static_cast<long>(at + 1))};
            if (anchor_covers(node, path)) return true;
        }
    }
    std::vector<Anchor> anchors;
    if (!resolved_anchors(root, anchors)) return true;  // unknown: treated as the store's
    for (const Anchor &a : anchors)
        if (anchor_covers(a, path)) return true;
    return false;
}

using FileId = std::pair<dev_t, ino_t>;

// Adds the regular files under dir (not following symlinks below it) to ids;
// false when some directory of the tree cannot be listed.
bool collect_files(const std::string &dir, int depth, std::vector<FileId> &ids) {
    constexpr int kMaxDepth = 16;
    if (depth > kMaxDepth) return true;
    std::vector<std::string> names;
    if (!list_directory(dir, names)) return false;
    for (const std::string &name : names) {
        const std::string path = dir + "/" + name;
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            if (!collect_files(path, depth + 1, ids)) return false;
        } else if (S_ISREG(st.st_mode)) {
            ids.emplace_back(st.st_dev, st.st_ino);
        }
    }
    return true;
}

void collect_file(const std::string &path, std::vector<FileId> &ids) {
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
        ids.emplace_back(st.st_dev, st.st_ino);
}

// The store's own files: root files, databases, key trees and default key
// files. False when part of the store cannot be listed.
bool store_files(const std::string &root, std::vector<FileId> &ids) {
    std::vector<std::string> names;
    if (!list_directory(root, names)) return false;
    for (const std::string &name : names)
        if (is_root_file_name(name)) collect_file(root + "/" + name, ids);
    if (!collect_files(root + "/db", 0, ids)) return false;
    std::vector<std::string> nodes;
    if (!node_entries(root, nodes)) return false;
    for (const std::string &node : nodes) {
        const std::string flash = root + "/" + node + "/flash";
        if (!list_directory(flash, names)) return false;
        for (const std::string &name : names) {
            if (iequals(name, "pkey")) {
                if (!collect_files(flash + "/" + name, 0, ids)) return false;
            } else if (is_default_key_name(name)) {
                collect_file(flash + "/" + name, ids);
            }
        }
        const std::string run = root + "/" + node + "/run";
        if (!list_directory(run, names)) return false;
        for (const std::string &name : names)
            if (iequals(name, "pkey") && !collect_files(run + "/" + name, 0, ids)) return false;
    }
    return true;
}

// A file that is already there under another name of one of the store's files.
bool is_store_file_link(const std::string &root, const std::string &path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink < 2) return false;
    const FileId id{st.st_dev, st.st_ino};
    std::vector<FileId> own;
    if (!store_files(root, own)) return true;  // unknown: treated as the store's
    return std::find(own.begin(), own.end(), id) != own.end();
}

// 0, or kFsErrStore when the name lands on the store's own files.
int check_store_name(std::string_view name, const std::string &root) {
    std::string host;
    DeviceName dev;
    if (parse_device_form(name, dev)) {
        if (!iequals(dev.device, kFlashDevice)) return 0;  // not a device the store lives on
        const unsigned int slot = dev.has_slot ? dev.slot : settings_self_node();
        Parts rest;
        push_lexically(rest, split_components(dev.rest), 0);
        host = node_path(root, slot, kFlashDevice);
        for (const std::string &c : rest) host.append("/").append(c);
    } else {
        host.assign(name);
    }
    Parts resolved;
    if (!resolve_host_path(host, resolved)) return kFsErrName;
    if (is_store_path(root, resolved)) return kFsErrStore;
    std::string target;
    for (const std::string &c : resolved) target.append("/").append(c);
    if (target.empty()) target = "/";
    return is_store_file_link(root, target) ? kFsErrStore : 0;
}

}  // namespace
}  // namespace pkey::host

using namespace pkey::host;

extern "C" {

int FS_GetNodeDefaultWorkDir(unsigned int node, unsigned int size, char *out) {
    return pkey::c_boundary(kFsErrParam,
                            [&] { return put_node_path(node, kFlashDevice, size, out); });
}

int FS_GetLocalDefaultWorkDir(unsigned int size, char *out) {
    return pkey::c_boundary(
        kFsErrParam, [&] { return put_node_path(settings_self_node(), kFlashDevice, size, out); });
}

int FS_GetDefaultWorkDirBySlot(unsigned int slot, unsigned int size, char *out) {
    return pkey::c_boundary(kFsErrParam,
                            [&] { return put_node_path(slot, kFlashDevice, size, out); });
}

int FS_GetNodePathName(const char *path, unsigned int node, unsigned int size, char *out) {
    return pkey::c_boundary(kFsErrParam, [&] {
        if (path == nullptr || out == nullptr || size == 0) return kFsErrParam;
        std::string_view p(path);
        if (p == kMemRoot || (p.starts_with(kMemRoot) && p[kMemRoot.size()] == '/')) {
            StoreRef store = current_store();
            if (store.root.empty()) {
                out[0] = '\0';
                return kFsErrNoStore;
            }
            std::string mapped = node_path(store.root, node, "run");
            mapped.append(p.substr(kMemRoot.size()));
            return put_text(mapped, size, out);
        }
        return put_text(p, size, out);
    });
}

int FS_AnalyseFileName(const char *fullName, unsigned short *location1, unsigned short *location2,
                       char *device, char *dir, char *file) {
    return pkey::c_boundary(kFsErrParam, [&] {
        if (fullName == nullptr || location1 == nullptr || location2 == nullptr ||
            device == nullptr || dir == nullptr || file == nullptr)
            return kFsErrParam;
        StoreRef store = current_store();
        if (store.root.empty()) return kFsErrNoStore;
        Analysis a;
        if (!analyse(fullName, store.root, a)) return kFsErrName;
        if (a.device.size() >= FS_DEVICE_NAME_LEN || a.dir.size() >= FS_DIR_NAME_LEN ||
            a.file.size() >= FS_FILE_NAME_LEN)
            return kFsErrSpace;
        *location1 = a.location1;
        *location2 = a.location2;
        put_text(a.device, FS_DEVICE_NAME_LEN, device);
        put_text(a.dir, FS_DIR_NAME_LEN, dir);
        put_text(a.file, FS_FILE_NAME_LEN, file);
        return 0;
    });
}

int FS_IsValidFullFileName(const char *fullName, unsigned int mode, unsigned int flags,
                           unsigned int reserved) {
    (void)mode;
    (void)flags;
    (void)reserved;
    return pkey::c_boundary(kFsErrName, [&] {
        if (fullName == nullptr) return kFsErrParam;
        const std::size_t len = ::strnlen(fullName, kMaxFullNameLen);
        if (len == 0 || len >= kMaxFullNameLen) return kFsErrName;
        std::string_view name(fullName, len);
        for (char c : name) {
            const auto u = static_cast<unsigned char>(c);
            if (u < 0x20 || u == 0x7F) return kFsErrName;
        }
        DeviceName dev;
        if (name.front() != '/' && !parse_device_form(name, dev)) return kFsErrName;
        // Without a store nobody can tell whether the name reaches it.
        StoreRef store = current_store();
        if (store.root.empty()) return kFsErrNoStore;
        return check_store_name(name, store.root);
    });
}

}  // extern "C"
