// Ownership asked for many files at once: the line filter over file lists,
// batches against one-at-a-time answers, and the real host against dpkg-query.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "core/file_facts.h"
#include "packages/package_index_impl.h"
#include "test_util.h"

using namespace amsvc;
namespace fs = std::filesystem;

namespace {

const std::string kFixtures = std::string(ASSETMAN_FIXTURES) + "/packages";

std::vector<std::string> listed(std::string_view text) {
    std::vector<std::string> out;
    for_each_listed_file(text, [&](std::string_view p) { out.emplace_back(p); });
    return out;
}

std::string base(const std::string& p) { return p.substr(p.rfind('/') + 1); }

}  // namespace

TEST(OwnerBatch, LineFilterKeepsWhatTheListReaderGives) {
    const char* const kLists[] = {
        "/.\n/usr\n/usr/bin\n/usr/bin/ls\n/usr/bin/[\n/usr/lib\n/usr/lib/libc.so.6\n",
        "/.\r\n/etc\r\n/etc/a.conf\r\n/etc/ab\r\n",                     // CRLF, short names
        "/usr/share/doc/pkg/changelog.Debian.gz\n/usr/bin/x",           // no final newline
        "/a\n/a/b\n/a/bb\n/a/bb/c\n\n/a/0123456789abcdef0123456789\n",  // directories, an empty line
        "/x/libfoo.so.1\n/y/libfoo.so.1\n/z/libfoo.so.10\n",            // same tail, one byte apart
    };
    for (const char* text : kLists) {
        const std::vector<std::string> all = listed(text);
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

// Each file's owner and verdict, asked one at a time and in two batches (the
// second asking other files of packages the first one read), each way on a
// copy of its own so neither sees what the other's lookups remembered.
TEST(OwnerBatch, FixtureRootsOneAtATimeAndInBatches) {
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
        amtest::TempDir one, many;
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
    std::istringstream out(amtest::run(cmd + " 2>/dev/null"));
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
