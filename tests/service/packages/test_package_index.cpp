// Package ownership and verification: fixture roots for dpkg and apk, asked
// one file at a time and in batches (with the line filter batches use over
// file lists), a scratch copy of a real package judged against debsums, the
// real host's libc and mapped files against dpkg-query, and an rpm database
// made by rpm itself.
#include <map>
#include <set>
#include <tuple>

#include "collectors.h"
#include "core/digest_cache.h"
#include "core/file_facts.h"
#include "packages/package_index_impl.h"
#include "test_util.h"

using namespace amsvc;
namespace fs = std::filesystem;

namespace {

const std::string kFixtures = std::string(ASSETMAN_FIXTURES) + "/packages";

using amtest::run;
using amtest::TempDir;

FileFacts facts(const HostRoot& root, const std::string& host_path) {
    return file_facts(root, FileRef{host_path, "", false});
}

std::string base(const std::string& p) { return p.substr(p.rfind('/') + 1); }

}  // namespace

// Each file's owner and verdict, asked one at a time and in two batches (the
// second asking other files of packages the first one read), each way on a
// copy of its own so neither sees what the other's lookups remembered.
TEST(Ownership, FixtureRootsOneAtATimeAndInBatches) {
    const std::string foo = "Foo Maintainers <foo@example.org>", win = "Win Dows <w@example.org>",
                      nat = "Native Person <n@example.org>", bb = "Soren Tempel <soeren+alpine@example.org>";
    struct Case {
        std::string path, company;
        bool verified;
    };
    const std::vector<std::pair<const char*, std::vector<Case>>> kRoots = {
        {"dpkg_root",
         {
             // The package names /lib/..., the process maps /usr/lib/... (lib -> usr/lib), and the other
             // way round. Changed after install: owned, not verified.
             {"/usr/lib/x86_64-linux-gnu/libfoo.so.1", foo, true},
             {"/usr/bin/nativetool", nat, false},
             // dpkg-divert: crlf diverted pending's /usr/bin/pending to /usr/bin/pending.distrib
             // (whose digest comes from a CRLF md5sums); a trailing partial record is ignored.
             {"/usr/bin/pending.distrib", "P <p@example.org>", true},
             // Listed but no digest recorded, and not owned at all.
             {"/usr/bin/crlf", win, false},
             {"/var/lib/dpkg/status", "", false},
             {"/lib/x86_64-linux-gnu/libfoo.so.1", foo, true},
             // A conffile is judged by the status file's digest, a link no package owns by the file
             // it leads to.
             {"/etc/nativetool.conf", nat, true},
             {"/lib/x86_64-linux-gnu/libfoo-alias.so.1", foo, true},
             {"/usr/bin/pending", win, true},
             {"/usr/bin/foo-link", foo, true},
             {"/usr/lib/x86_64-linux-gnu/libfoo-alias.so.1", foo, true},
             {"/usr/lib/./x86_64-linux-gnu//libfoo.so.1", foo, true},
         }},
        {"apk_root", {{"/etc/motd", bb, false}, {"/bin/busybox", bb, true}, {"/nowhere", "", false}}},
    };
    for (const auto& [name, cases] : kRoots) {
        TempDir one, many;
        for (const std::string& d : {one.path, many.path})
            fs::copy(kFixtures + "/" + name, d,
                     fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        const HostRoot root_one(one.path), root_many(many.path);
        std::vector<FileRef> refs;
        for (const Case& c : cases) refs.push_back(FileRef{c.path, "", false});
        const size_t half = refs.size() / 2;
        std::vector<FileFacts> got = file_facts_many(root_many, {refs.begin(), refs.begin() + half});
        const std::vector<FileFacts> rest = file_facts_many(root_many, {refs.begin() + half, refs.end()});
        got.insert(got.end(), rest.begin(), rest.end());
        for (size_t i = 0; i < refs.size(); ++i) {
            const FileFacts f = file_facts(root_one, refs[i]);
            EXPECT_EQ(std::tie(f.company, f.verified), std::tie(cases[i].company, cases[i].verified))
                << cases[i].path;
            EXPECT_EQ(std::tie(got[i].company, got[i].verified, got[i].sha256),
                      std::tie(f.company, f.verified, f.sha256))
                << cases[i].path;
        }
        const OwnershipStats s = ownership_stats(root_many);
        EXPECT_EQ(s.names, 0u) << name << ": batches need no table of every name";
        EXPECT_EQ(s.passes, 2u) << name;
    }
}

// What only single files show (their owners and verdicts: the test above).
TEST(Ownership, DpkgFixture) {
    const HostRoot root(kFixtures + "/dpkg_root");
    for (const char* p : {"/usr/bin/nativetool", "/var/lib/dpkg/status"})
        EXPECT_FALSE(facts(root, p).md5.empty()) << p;
    // A link no package owns is judged by the file it leads to, unless links are refused.
    const FileFacts f = file_facts(root, FileRef{"/usr/bin/foo-link", "", true});
    EXPECT_EQ(std::tie(f.company, f.md5, f.verified), std::make_tuple("", "", false));
    // Directories are not entries; bad hex in md5sums recorded nothing.
    FileOwner o;
    for (const char* p : {"/usr/lib/x86_64-linux-gnu", "/usr/lib/bad-hex", "", "relative/path"})
        EXPECT_FALSE(package_owner(root, p, o)) << p;
}

TEST(Ownership, NormalizeAndCanon) {
    for (const auto& [in, out] :
         {std::pair{"/a/./b//../c/", "/a/c"}, {"/../../x", "/x"}, {"", "/"}, {"/", "/"}, {"//", "/"}, {"a/b", "/a/b"},
          {"/usr/bin/x", "/usr/bin/x"}, {"/a/.b/..c", "/a/.b/..c"}, {"/a/b/.", "/a/b"}, {"/a/b/..", "/a"},
          {"/a//b", "/a/b"}, {"/a/", "/a"}, {"/.", "/"}, {"/..", "/"}})
        EXPECT_EQ(normalize_path(in), out) << in;
    TempDir dir;
    fs::create_directories(dir.path + "/usr/lib/x");
    fs::create_directory_symlink("usr/lib", dir.path + "/lib");
    fs::create_directory_symlink("/usr/lib/x", dir.path + "/abs");  // absolute: inside the root
    fs::create_directory_symlink("loop2", dir.path + "/loop1");
    fs::create_directory_symlink("loop1", dir.path + "/loop2");
    const HostRoot root(dir.path);
    DirCanon c(root);
    EXPECT_EQ(c.canon("/lib/x"), "/usr/lib/x");
    EXPECT_EQ(c.canon("/abs"), "/usr/lib/x");
    EXPECT_EQ(c.canon("/lib/../etc"), "/usr/etc");  // as the kernel walks it: through the link
    c.canon("/loop1/x");                            // ends, whatever it answers
}

// A real package copied into a scratch root, one of its files changed: our
// verdicts agree with debsums file by file.
TEST(Ownership, ScratchCopyOfRealPackageAgreesWithDebsums) {
    const std::string pkg = "gzip";
    if (access(("/var/lib/dpkg/info/" + pkg + ".md5sums").c_str(), R_OK) != 0)
        GTEST_SKIP() << "gzip not installed";
    TempDir dir;
    const std::string r = dir.path;
    for (const char* d : {"bin", "lib", "sbin"}) {
        fs::create_directories(r + "/usr/" + d);
        fs::create_directory_symlink(std::string("usr/") + d, r + "/" + d);
    }
    fs::create_directories(r + "/var/lib/dpkg/info");
    for (const char* ext : {".list", ".md5sums"})
        fs::copy_file("/var/lib/dpkg/info/" + pkg + ext, r + "/var/lib/dpkg/info/" + pkg + ext);
    std::ofstream(r + "/var/lib/dpkg/status") << run("dpkg-query -s " + pkg);

    const std::string md5sums = amtest::read_text("/var/lib/dpkg/info/" + pkg + ".md5sums");
    std::vector<std::string> paths;
    for (std::string_view line : split_lines(md5sums)) {
        const std::string rel(line.substr(34));
        fs::create_directories(fs::path(r + "/" + rel).parent_path());
        fs::copy_file("/" + rel, r + "/" + rel);
        paths.push_back("/" + rel);
    }
    ASSERT_GE(paths.size(), 3u);
    const std::string changed = paths[1];
    std::ofstream(r + changed, std::ios::app) << "changed";
    const std::string maintainer = run("dpkg-query -W -f '${Maintainer}' " + pkg);
    const HostRoot root(r);
    std::set<std::string> ours_failed, debsums_failed;
    for (const std::string& p : paths) {
        const FileFacts f = facts(root, p);
        EXPECT_EQ(f.company, maintainer) << p;
        EXPECT_FALSE(f.md5.empty()) << p;
        if (!f.verified) ours_failed.insert(p);
    }
    EXPECT_EQ(ours_failed, std::set<std::string>{changed});
    if (!amtest::have_tools("debsums")) GTEST_SKIP() << "debsums not installed: no second opinion";
    const std::string report = run("debsums -r '" + r + "' " + pkg + " 2>&1");
    for (std::string_view line : split_lines(report)) {
        const std::vector<std::string_view> w = split_ws(line);
        if (w.size() == 2 && w[1] == "FAILED" && starts_with(w[0], r))
            debsums_failed.insert(std::string(w[0].substr(r.size())));
    }
    EXPECT_EQ(ours_failed, debsums_failed) << report;
}

// libc as every process maps it: /usr/lib/..., while dpkg lists /lib/... on merged-/usr.
TEST(Ownership, RealHostLibc) {
    const std::string maps = run("grep -m1 -o '/[^ ]*libc\\.so\\.6' /proc/self/maps");
    const std::string libc = std::string(trim(maps));
    if (libc.empty() || access("/var/lib/dpkg/status", R_OK) != 0) GTEST_SKIP() << "no libc.so.6 or no dpkg";
    const FileFacts f = facts(HostRoot("/"), libc);
    EXPECT_FALSE(f.company.empty()) << libc;
    EXPECT_TRUE(f.verified) << libc;
    if (amtest::have_tools("debsums")) {
        const std::string report = run("debsums -s libc6 2>&1");
        EXPECT_TRUE(trim(report).empty()) << report;  // debsums agrees: nothing changed
    }

    // What the lookups keep stays small: a name table, and the records of
    // only the packages asked about.
    const OwnershipStats s = ownership_stats(HostRoot("/"));
    EXPECT_GT(s.names, 10000u);
    EXPECT_LE(s.packages_read, 3u);
    EXPECT_LT(s.memory_bytes, 5u << 20);
    printf("host table: %zu packages, %zu names, %zu read, %.1f MiB\n", s.packages, s.names, s.packages_read,
           s.memory_bytes / 1048576.0);
}

// An rpm database made by rpm itself, with a package made by rpmbuild.
TEST(Rpm, DatabaseMadeByRpm) {
    if (!amtest::have_tools("rpmbuild rpm")) GTEST_SKIP() << "rpm/rpmbuild not installed";
    TempDir dir;
    const std::string top = dir.path + "/build", root_dir = dir.path + "/root";
    const std::string q = " --define '_topdir " + top + "' --define '_build_id_links none' ";
    const std::string rpm = "rpm --root " + root_dir + " --dbpath /var/lib/rpm ";
    int st = 0;
    const std::string log =
        run("rpmbuild" + q + "-bb " + kFixtures + "/amtiny.spec 2>&1 && rpm --initdb --dbpath " + root_dir +
                "/var/lib/rpm 2>&1 && " + rpm + "-i --nodeps --noscripts --notriggers " + top +
                "/RPMS/noarch/amtiny-1.2-3.noarch.rpm 2>&1",
            &st);
    ASSERT_EQ(st, 0) << log;
    const time_t before = time(nullptr);
    const HostRoot root(root_dir);
    std::vector<AM::SysInstallPackageInfo> out;
    ASSERT_EQ(collect_packages(root, out), 0);
    ASSERT_EQ(out.size(), 1u);
    const auto& p = out[0];
    EXPECT_EQ(std::vector<std::string>(
                  {p.name, p.version, p.release, p.type, p.summary, p.company, p.installdir, p.source}),
              std::vector<std::string>({"amtiny", "2:1.2", "3", "rpm", "tiny test package",
                                        "Example Vendor Inc.", "/opt/amtiny", "amtiny-1.2-3.src.rpm"}));
    EXPECT_EQ(p.size, 20u);  // 11 + 5 bytes of files, and a link counts its target's length (4)
    EXPECT_LE(p.installtime, format_time(before + 5));
    EXPECT_GE(p.installtime, format_time(before - 600));

    std::ofstream(root_dir + "/opt/amtiny/share/data.txt") << "DATA\n";
    for (const auto& [path, verified] :
         {std::pair{"/opt/amtiny/bin/tool", true}, {"/opt/amtiny/share/data.txt", false}}) {
        const FileFacts f = facts(root, path);
        EXPECT_EQ(std::tie(f.company, f.verified), std::make_tuple("Example Vendor Inc.", verified)) << path;
    }
    EXPECT_NE(run(rpm + "-V amtiny 2>/dev/null").find("data.txt"), std::string::npos);
    EXPECT_EQ(facts(root, "/opt/other").company, "");
}

// After an upgrade the next asks see the new database, not the old index.
TEST(Ownership, IndexFollowsDatabaseChanges) {
    TempDir dir;
    fs::copy(kFixtures + "/dpkg_root", dir.path,
             fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    const HostRoot root(dir.path);
    EXPECT_FALSE(facts(root, "/usr/bin/nativetool").verified);
    const std::string md5 = run("md5sum '" + dir.path + "/usr/bin/nativetool'").substr(0, 32);
    std::ofstream(dir.path + "/var/lib/dpkg/info/nativetool.md5sums") << md5 << "  usr/bin/nativetool\n";
    std::ofstream(dir.path + "/var/lib/dpkg/status", std::ios::app) << "\n";
    sleep(3);  // the databases are looked at again at most every 2 seconds
    EXPECT_TRUE(facts(root, "/usr/bin/nativetool").verified);
}

// An image's dpkg database laid out against us: package names that climb out
// of info/, lists that are FIFOs or links out of the tree, a FIFO for
// md5sums. Nothing hangs, and only the honest list is believed.
TEST(Ownership, HostileDpkgDatabase) {
    TempDir dir;
    const std::string info = dir.path + "/var/lib/dpkg/info";
    std::string status;
    for (const char* name : {"../../outside", "fifo", "linked", "good"})
        status += std::string("Package: ") + name +
                  "\nStatus: install ok installed\nArchitecture: all\n"
                  "Maintainer: M <m@example.org>\nVersion: 1\n\n";
    dir.file("/var/lib/dpkg/status", status);
    dir.file("/var/lib/outside.list", "/usr/bin/stolen\n");
    dir.file("/elsewhere.list", "/usr/bin/linked\n");
    dir.link("/var/lib/dpkg/info/linked.list", "../../../../elsewhere.list");
    dir.file("/var/lib/dpkg/info/good.list", "/usr/bin\n/usr/bin/good\n");
    dir.file("/usr/bin/good", "good\n");
    for (const char* fifo : {"/fifo.list", "/good.md5sums"})
        ASSERT_EQ(mkfifo((info + fifo).c_str(), 0644), 0);

    const HostRoot root(dir.path);
    for (const char* path : {"/usr/bin/stolen", "/usr/bin/linked", "/usr/bin"}) {
        FileOwner o;
        EXPECT_FALSE(package_owner(root, path, o)) << path;
    }
    // Only the honest list is believed, and its FIFO md5sums gave no digest.
    FileOwner o;
    ASSERT_TRUE(package_owner(root, "/usr/bin/good", o));
    EXPECT_EQ(std::tie(o.package, o.algo), std::make_tuple("good", DigestAlgo::kNone));
}

TEST(OwnerBatch, LineFilterKeepsWhatTheListReaderGives) {
    const char* const kLists[] = {
        "/.\n/usr\n/usr/bin\n/usr/bin/ls\n/usr/bin/[\n/usr/lib\n/usr/lib/libc.so.6\n",
        "/.\r\n/etc\r\n/etc/a.conf\r\n/etc/ab\r\n",                     // CRLF, short names
        "/usr/share/doc/pkg/changelog.Debian.gz\n/usr/bin/x",           // no final newline
        "/a\n/a/b\n/a/bb\n/a/bb/c\n\n/a/0123456789abcdef0123456789\n",  // directories, an empty line
        "/x/libfoo.so.1\n/y/libfoo.so.1\n/z/libfoo.so.10\n",            // same tail, one byte apart
    };
    for (const char* text : kLists) {
        std::vector<std::string> all;
        for_each_listed_file(text, [&](std::string_view p) { all.emplace_back(p); });
        // Every other name wanted: the filter must give each wanted line
        // exactly as the plain reader does.
        for (size_t parity : {0, 1}) {
            NameFilter f;
            std::set<std::string> want;
            for (size_t i = parity; i < all.size(); i += 2) {
                f.add(base(all[i]));
                want.insert(base(all[i]));
            }
            std::vector<std::string> expect, got;
            for (const std::string& p : all)
                if (want.count(base(p))) expect.push_back(p);
            f.for_each_candidate(text, [&](std::string_view p) {
                if (f.wants(base(std::string(p)))) got.emplace_back(p);
            });
            EXPECT_EQ(got, expect) << text;
        }
    }
}

// Long lists and md5sums are read by batches a piece at a time: every line
// (directories among them, which own nothing) gets what the whole-file reader
// of single lookups gives, a directory cut off from its first entry by the
// end of the first 128 KiB piece included.
TEST(OwnerBatch, LongListsReadInPiecesAgreeWithSingleLookups) {
    std::string list = "/.\n", md5s;
    std::vector<std::string> lines;
    auto add_dir = [&](const std::string& dir) {
        list += dir + "\n";
        lines.push_back(dir);
        for (int f = 0; f < 2; ++f) {
            const std::string path = dir + "/f" + std::to_string(lines.size()) + std::string(lines.size() % 11, 'y');
            list += path + (lines.size() % 5 ? "\n" : "\r\n");
            lines.push_back(path);
            md5s += std::string(31, "0123456789abcdef"[lines.size() % 16]) + "e  " + path.substr(1) + "\n";
        }
    };
    for (int d = 0; list.size() < (600u << 10); ++d) {
        const size_t piece_end = 128u << 10, pad_at = piece_end - 5;
        if (list.size() + 15 < pad_at && list.size() + 200 > pad_at)
            add_dir("/usr/share/pad" + std::string(pad_at - list.size() - 15, 'p'));  // ends 5 bytes short
        else
            add_dir("/usr/share/d" + std::to_string(d) + std::string(d % 37, 'x'));
    }
    ASSERT_EQ(list.find("p\n/usr/share/pad") + 2, (128u << 10) - 5);
    TempDir one, many;
    for (const TempDir* t : {&one, &many}) {
        t->file("/var/lib/dpkg/status", "Package: big\nStatus: install ok installed\nMaintainer: B <b@example.org>\n");
        t->file("/var/lib/dpkg/info/big.list", list);
        t->file("/var/lib/dpkg/info/big.md5sums", md5s);
    }
    const HostRoot root_one(one.path), root_many(many.path);
    std::vector<FileOwner> got;
    std::vector<char> owned;
    package_owners(root_many, lines, got, owned);
    for (size_t i = 0; i < lines.size(); ++i) {
        FileOwner o;
        const bool single = package_owner(root_one, lines[i], o);
        ASSERT_EQ(single, lines[i].find("/f") != std::string::npos) << lines[i];
        ASSERT_EQ(owned[i] != 0, single) << lines[i];
        ASSERT_EQ(std::tie(got[i].package, got[i].algo), std::tie(o.package, o.algo)) << lines[i];
        ASSERT_EQ(std::memcmp(got[i].digest, o.digest, 16), 0) << lines[i];
    }
}

// A long apk database, read in pieces cut at its empty lines (CRLF ones
// too) by batches, gives every file what single lookups give.
TEST(OwnerBatch, LongApkDatabaseInPiecesAgreesWithSingleLookups) {
    std::string db;
    std::vector<std::string> paths;
    for (int i = 0; db.size() < (500u << 10); ++i) {
        const char* eol = i % 7 ? "\n" : "\r\n";
        db += "P:p" + std::to_string(i) + eol + "m:M" + std::to_string(i % 3) + eol + "F:usr/lib/p" +
              std::to_string(i) + eol;
        for (int f = 0; f < 1 + i % 9; ++f) {
            const std::string name = "lib" + std::to_string(i % 50) + "_" + std::to_string(f) + ".so.1";
            db += "R:" + name + eol;
            if (f % 3) db += std::string("Z:Q1") + std::string(27, "ABCDEFGH"[(i + f) % 8]) + "=" + eol;
            paths.push_back("/usr/lib/p" + std::to_string(i) + "/" + name);
        }
        db += eol;
    }
    TempDir one, many;
    for (const TempDir* t : {&one, &many}) t->file("/lib/apk/db/installed", db);
    const HostRoot root_one(one.path), root_many(many.path);
    std::vector<FileOwner> got;
    std::vector<char> owned;
    package_owners(root_many, paths, got, owned);
    for (size_t i = 0; i < paths.size(); ++i) {
        FileOwner o;
        ASSERT_TRUE(package_owner(root_one, paths[i], o)) << paths[i];
        ASSERT_TRUE(owned[i]) << paths[i];
        ASSERT_EQ(std::tie(got[i].package, got[i].company, got[i].algo), std::tie(o.package, o.company, o.algo))
            << paths[i];
        ASSERT_EQ(std::memcmp(got[i].digest, o.digest, 20), 0) << paths[i];
    }
}

TEST(OwnerBatch, RealHostAgreesWithDpkgQuery) {
    if (!amtest::have_tools("dpkg-query")) GTEST_SKIP() << "no dpkg-query";
    std::set<std::string> mapped;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        const size_t slash = line.find('/');
        if (slash != std::string::npos && line.find(" (deleted)") == std::string::npos)
            mapped.insert(line.substr(slash));
    }
    const std::vector<std::string> paths(mapped.begin(), mapped.end());
    std::vector<FileOwner> owners;
    std::vector<char> owned;
    package_owners(HostRoot("/"), paths, owners, owned);
    std::string cmd = "dpkg-query -S";
    for (const std::string& p : paths) cmd += " '" + p + "'";
    // "pkg[:arch][, pkg2...]: path" for each path it knows.
    std::map<std::string, std::string> theirs;
    std::istringstream out(run(cmd + " 2>/dev/null"));
    for (std::string line; std::getline(out, line);) {
        const size_t sep = line.find(": /");
        if (sep == std::string::npos || line.find(',') < sep) continue;  // several packages name it
        const std::string pkg = line.substr(0, sep);
        theirs[line.substr(sep + 2)] = pkg.substr(0, pkg.find(':'));
    }
    size_t compared = 0;
    for (size_t i = 0; i < paths.size(); ++i) {
        auto it = theirs.find(paths[i]);
        if (it == theirs.end()) continue;
        ++compared;
        ASSERT_TRUE(owned[i]) << paths[i];
        EXPECT_EQ(owners[i].package, it->second) << paths[i];
    }
    if (compared == 0) GTEST_SKIP() << "dpkg-query names no owner of any mapped file";
}
