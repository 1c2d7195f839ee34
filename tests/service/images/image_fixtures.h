// Image trees of each distribution family, built by the tests from real tools:
// .deb files made by dpkg-deb and installed by dpkg into a private admindir,
// rpm databases written by rpm itself (sqlite), by Berkeley DB's db_load
// (the CentOS 7 layout) and by a writer of the documented ndb layout (SUSE).
#pragma once

#include <sqlite3.h>
#include <sched.h>
#include <stdint.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include <string>
#include <vector>

#include "collectors.h"
#include "test_util.h"

namespace amimg {

using amtest::run;

inline std::string q(const std::string& s) { return "'" + s + "'"; }

// The rpm packages of fixtures/rpm, built once per test program:
// amtest-one (epoch 2) and amtest-two; the directory holding them, empty
// when rpmbuild is missing.
inline const std::string& built_rpms() {
    static amtest::TempDir scratch{"amimg_rpms"};  // removed at exit
    static std::string dir = [] {
        if (!amtest::have_tools("rpmbuild rpm")) return std::string();
        int st = 0;
        run("for s in " + q(ASSETMAN_FIXTURES) + "/rpm/*.spec; do rpmbuild -bb --quiet --define " +
                q("_topdir " + scratch.path + "/top") + " \"$s\" >/dev/null 2>&1 || exit 1; done",
            &st);
        return st == 0 ? scratch.path + "/top/RPMS/noarch" : std::string();
    }();
    return dir;
}

// rpm's own sqlite database of the built packages at <tree>/var/lib/rpm, its
// lock and shared-memory files removed as a cleanly closed database has.
inline bool make_rpm_sqlite(const std::string& tree) {
    const std::string rpms = built_rpms();
    if (rpms.empty()) return false;
    const std::string r = "rpm --root " + q(tree) + " --dbpath /var/lib/rpm ";
    int st = 0;
    run(r + "--initdb >/dev/null 2>&1 && " + r + "-i --justdb --nodeps --noscripts --nosignature " + q(rpms) +
            "/*.rpm >/dev/null 2>&1",
        &st);
    run("rm -f " + q(tree) + "/var/lib/rpm/rpmdb.sqlite-shm " + q(tree) + "/var/lib/rpm/rpmdb.sqlite-wal " +
        q(tree) + "/var/lib/rpm/.rpm.lock");
    return st == 0;
}

// The header blobs of an rpm sqlite database, in package order.
inline std::vector<std::string> sqlite_blobs(const std::string& db_file) {
    std::vector<std::string> out;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(("file:" + db_file + "?immutable=1").c_str(), &db,
                        SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr) == SQLITE_OK) {
        sqlite3_stmt* st = nullptr;
        if (sqlite3_prepare_v2(db, "SELECT blob FROM Packages ORDER BY hnum", -1, &st, nullptr) == SQLITE_OK)
            while (sqlite3_step(st) == SQLITE_ROW)
                out.emplace_back(static_cast<const char*>(sqlite3_column_blob(st, 0)),
                                 static_cast<size_t>(sqlite3_column_bytes(st, 0)));
        sqlite3_finalize(st);
    }
    sqlite3_close(db);
    return out;
}

inline void put32(std::string& s, size_t at, uint32_t v) {
    if (s.size() < at + 4) s.resize(at + 4, '\0');
    for (int i = 0; i < 4; ++i) s[at + i] = static_cast<char>(v >> (8 * i));
}

// An ndb Packages.db holding `blobs`: header, one slot page, 16-byte blocks.
inline std::string ndb_file(const std::vector<std::string>& blobs) {
    std::string f(4096, '\0');
    put32(f, 0, 'R' | 'p' << 8 | 'm' << 16 | 'P' << 24);
    put32(f, 8, 1);   // generation
    put32(f, 12, 1);  // slot pages
    put32(f, 16, static_cast<uint32_t>(blobs.size() + 1));
    size_t slot = 32;
    for (size_t i = 0; i < blobs.size(); ++i, slot += 16) {
        const size_t at = f.size();
        const size_t blocks = (16 + blobs[i].size() + 12 + 15) / 16;
        put32(f, slot, 'S' | 'l' << 8 | 'o' << 16 | 't' << 24);
        put32(f, slot + 4, static_cast<uint32_t>(i + 1));
        put32(f, slot + 8, static_cast<uint32_t>(at / 16));
        put32(f, slot + 12, static_cast<uint32_t>(blocks));
        f.resize(at + blocks * 16, '\0');
        put32(f, at, 'B' | 'l' << 8 | 'b' << 16 | 'S' << 24);
        put32(f, at + 4, static_cast<uint32_t>(i + 1));
        put32(f, at + 8, 1);
        put32(f, at + 12, static_cast<uint32_t>(blobs[i].size()));
        f.replace(at + 16, blobs[i].size(), blobs[i]);
        put32(f, at + blocks * 16 - 12, 'B' | 'l' << 8 | 'b' << 16 | 'E' << 24);
        put32(f, at + blocks * 16 - 4, static_cast<uint32_t>(blobs[i].size()));
    }
    return f;
}

// A Berkeley DB hash "Packages" (CentOS 7) of `blobs`, keyed by instance
// number as rpm keeps it, written by db_load. False without the tool.
inline bool make_bdb(const std::string& file, const std::vector<std::string>& blobs) {
    if (!amtest::have_tools("db5.3_load")) return false;
    auto hex = [](const std::string& b) {
        std::string o;
        char x[4];
        for (unsigned char c : b) {
            snprintf(x, sizeof x, "\\%02x", c);
            o += x;
        }
        return o;
    };
    auto key = [](uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); };
    std::string text = hex(key(0)) + "\n" + hex(key(static_cast<uint32_t>(blobs.size() + 1))) + "\n";
    for (size_t i = 0; i < blobs.size(); ++i)
        text += hex(key(static_cast<uint32_t>(i + 1))) + "\n" + hex(blobs[i]) + "\n";
    amtest::write_file(file + ".txt", text);
    int st = 0;
    run("db5.3_load -T -t hash " + q(file) + " < " + q(file + ".txt") + " && rm -f " + q(file + ".txt"), &st);
    return st == 0;
}

// The two packages of fixtures/deb made by dpkg-deb and installed by dpkg
// into <tree>'s own admindir (no maintainer scripts).
inline bool make_dpkg_tree(const std::string& tree) {
    if (!amtest::have_tools("dpkg dpkg-deb")) return false;
    amtest::write_file(tree + "/var/lib/dpkg/status", "");
    amtest::write_file(tree + "/var/lib/dpkg/available", "");
    const std::string b = q(tree + ".debs");
    int st = 0;
    run("mkdir -p " + q(tree + "/var/lib/dpkg/info") + " " + q(tree + "/var/lib/dpkg/updates") +
            " && cp -r " + q(ASSETMAN_FIXTURES "/deb") + " " + b + " && chmod -R go-w " + b +
            " && dpkg-deb -b " + b + "/a " + b + "/a.deb >/dev/null && dpkg-deb -b " + b + "/b " + b +
            "/b.deb >/dev/null && dpkg --admindir=" + q(tree + "/var/lib/dpkg") + " --instdir=" + q(tree) +
            " --force-not-root --force-depends --force-architecture --no-triggers -i " + b + "/a.deb " + b +
            "/b.deb >/dev/null 2>&1; rm -rf " + b,
        &st);
    return st == 0;
}

// A checksum of every file, link and directory of a tree (names, types,
// modes, contents, link texts).
inline std::string tree_sum(const std::string& tree) {
    return run("cd " + q(tree) +
               " && find . -printf '%p %y %m %l\\n' | LC_ALL=C sort | sha256sum && find . -type f -print0 | "
               "LC_ALL=C "
               "sort -z | xargs -0r sha256sum | sha256sum");
}

// Runs `fn` in a child with its own mount namespace where `tree` is a
// read-only bind mount of itself; its output, or "SKIP" when that is refused.
inline std::string in_readonly_mount(const std::string& tree, const std::function<std::string()>& fn) {
    int p[2];
    if (pipe(p) != 0) return "SKIP";
    const pid_t pid = fork();
    if (pid == 0) {
        close(p[0]);
        std::string out = "SKIP";
        if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mount(tree.c_str(), tree.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
            mount(nullptr, tree.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0)
            out = fn();
        (void)!write(p[1], out.data(), out.size());
        _exit(0);
    }
    close(p[1]);
    const std::string out =
        amtest::read_text("/proc/self/fd/" + std::to_string(p[0]));  // until the child ends
    close(p[0]);
    waitpid(pid, nullptr, 0);
    return out;
}

// Fields joined by blanks.
template <class... F>
inline std::string words(const F&... f) {
    std::string out;
    ((out += std::string(f) + " "), ...);
    return out;
}

// One kind's records as text: "== kind rc", then a line per record.
template <class T, class Line>
inline std::string kind(const char* name, int (*collect)(const amsvc::HostRoot&, std::vector<T>&),
                        const amsvc::HostRoot& root, Line line) {
    std::vector<T> v;
    std::string out = std::string("== ") + name + " " + std::to_string(collect(root, v)) + "\n";
    for (const T& x : v) out += line(x) + "\n";
    return out;
}

// Every kind's records as text.
inline std::string inventory(const amsvc::HostRoot& root) {
    using std::to_string;
    amsvc::AM::SystemInfo s;
    const int sys_rc = amsvc::collect_system_facts(root, s);
    std::vector<amsvc::AM::ThirdPartDevLibInfo> libs;
    const int lib_rc = amsvc::collect_libraries(root, libs);
    return kind("processes", amsvc::collect_processes, root,
                [](const auto& p) { return words(to_string(p.pid), p.name, p.path, p.cmd_line); }) +
           kind("netlinks", amsvc::collect_netlinks, root,
                [](const auto& n) {
                    return words(n.proto, n.local_addr, to_string(n.local_port), n.proc_path);
                }) +
           kind("packages", amsvc::collect_packages, root,
                [](const auto& p) {
                    return words(p.type, p.name, p.version, "[" + p.installtime + "]", p.summary);
                }) +
           kind("users", amsvc::collect_users, root,
                [](const auto& u) { return words(u.name, u.uid, u.homedir, u.last_change_passwd); }) +
           kind("crons", amsvc::collect_crons, root,
                [](const auto& c) { return words(c.user, c.file, c.cmd_line, c.comment); }) +
           kind("modules", amsvc::collect_kernel_modules, root, [](const auto& m) { return m.name; }) +
           kind("autoruns", amsvc::collect_autoruns, root,
                [](const auto& a) { return words(a.name, a.script_path, a.status, a.level, a.comment); }) +
           kind("servers", amsvc::collect_servers, root,
                [](const auto& v) { return words(v.name, v.install_path, v.configure_path); }) +
           "== libraries " + to_string(lib_rc) + "\n" + to_string(libs.size()) + "\n== system " +
           to_string(sys_rc) + "\n" + s.host + "|" + s.version + "|" + s.kernel_version + "|" + s.arch + "|" +
           s.Manufacturer + "|" + s.product + "|" + s.Serial + "|" + to_string(s.network_card.size()) + "|" +
           to_string(s.disk.size()) + "\n";
}

}  // namespace amimg
