// The library walk over trees built here with the real tools: jar/zip,
// python3 -m venv, go build; checked against those tools' own view
// (importlib.metadata, go version -m, dpkg -S) where they have one.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "core/common.h"
#include "libraries/library_walk.h"
#include "test_util.h"

using namespace amsvc;
using amtest::run;

namespace {

typedef std::set<std::string> Lines;  // "name|version|path"

Lines collect(const HostRoot& root, const LibraryLimits& lim, LibraryStats* stats = nullptr,
              int* rc = nullptr) {
    std::vector<AM::ThirdPartDevLibInfo> out;
    const int r = collect_libraries(root, out, lim, stats);
    if (rc) *rc = r;
    Lines lines;
    for (const auto& l : out) lines.insert(l.name + "|" + l.version + "|" + l.path);
    return lines;
}

LibraryLimits no_procs() {
    LibraryLimits lim;
    lim.with_process_dirs = false;
    return lim;
}

// The lines of fixtures/<name>.expected.
Lines expected(const std::string& name) {
    const std::string text = amtest::read_text(ASSETMAN_FIXTURES "/" + name + ".expected");
    Lines out;
    for (std::string_view l : split_lines(text))
        if (!l.empty()) out.insert(std::string(l));
    return out;
}

int sh(const std::string& cmd) {
    int st = -1;
    run("set -e; " + cmd + " >/dev/null 2>&1", &st);
    return st;
}

}  // namespace

// A Spring Boot style fat jar holding a jar with a pom (stored) and a
// manifest-only jar made by the jar tool (compressed); an ear holding a war
// holding a jar, and a jar with neither pom nor manifest. Built once, by the
// first test that asks; "" when zip and jar are missing.
const std::string& java_tree() {
    static amtest::TempDir t("amlibs");
    static const std::string root = [] {
        if (!amtest::have_tools("zip jar")) return std::string();
        EXPECT_EQ(
            sh("cp -r '" + std::string(ASSETMAN_FIXTURES) + "/java' '" + t.path + "/src' && cd '" + t.path +
               "/src' && mkdir -p app/BOOT-INF/lib war/WEB-INF/lib ear/lib ../opt/app ../srv && "
               "(cd log4j && zip -qr ../app/BOOT-INF/lib/log4j-core-2.14.1.jar META-INF) && "
               "(cd guava && jar cfm ../app/BOOT-INF/lib/guava-31.1-jre.jar Manifest.txt com) && "
               "(cd app && zip -q0r ../../opt/app/app.jar META-INF BOOT-INF/lib/log4j-core-2.14.1.jar && "
               "zip -q9 ../../opt/app/app.jar BOOT-INF/lib/guava-31.1-jre.jar) && "
               "(cd jd && zip -qr ../war/WEB-INF/lib/jackson-databind-2.13.4.jar META-INF) && "
               "(cd plain && zip -q ../ear/lib/commons-lang3-3.12.0.jar a.txt) && "
               "(cd war && zip -qr ../ear/web.war WEB-INF) && cd ear && zip -qr ../../srv/shop.ear lib "
               "web.war"),
            0);
        return t.path;
    }();
    return root;
}

// The archives as java.expected lists them; the nesting depth, the cache, and
// the bounds that end the list with a marker.
TEST(JavaTree, NestedArchivesBoundsAndCache) {
    const std::string& root = java_tree();
    if (root.empty()) GTEST_SKIP() << "zip and jar needed";
    EXPECT_EQ(collect(HostRoot(root), no_procs()), expected("java"));

    clear_library_cache();
    LibraryLimits lim = no_procs();
    lim.archive.max_depth = 2;  // the ear and the war, not the war's jars
    const Lines got = collect(HostRoot(root), lim);
    EXPECT_TRUE(
        got.count("jackson-databind|2.13.4|/srv/shop.ear!/web.war!/WEB-INF/lib/jackson-databind-2.13.4.jar"));

    std::vector<AM::ThirdPartDevLibInfo> out;
    for (const std::string bound : {"entries", "depth"}) {
        LibraryLimits b = no_procs();
        b.max_entries = bound == "entries" ? 3 : b.max_entries;
        b.max_depth = bound == "depth" ? 0 : b.max_depth;
        LibraryStats st;
        out.clear();
        EXPECT_EQ(collect_libraries(HostRoot(root), out, b, &st), 0);
        ASSERT_FALSE(out.empty());
        EXPECT_EQ(st.bound + "|" + out.back().name + "|" + out.back().version,
                  bound + "||incomplete: " + bound);
    }
    EXPECT_EQ(collect_libraries(HostRoot(root + "/nonexistent"), out, no_procs()), -ENOENT);
    lim = no_procs();
    lim.roots = {"/nothing-here"};
    EXPECT_EQ(collect_libraries(HostRoot(root), out, lim), -ENOENT);

    clear_library_cache();
    LibraryStats first, second, third;
    collect(HostRoot(root), no_procs(), &first);
    collect(HostRoot(root), no_procs(), &second);
    // A file rewritten in place is read again, and only that one.
    ASSERT_EQ(sh("cd '" + root + "/src' && zip -q ../srv/shop.ear ear/lib/commons-lang3-3.12.0.jar"), 0);
    collect(HostRoot(root), no_procs(), &third);
    EXPECT_EQ(std::to_string(first.parsed) + " " + std::to_string(second.parsed) + "+" +
                  std::to_string(second.cached) + " " + std::to_string(third.parsed),
              "2 0+2 1");  // archives parsed (+ found in the cache) per walk
}

// What an attacker lays out: a FIFO named like a jar, a truncated archive, a
// zip bomb, 100k entries, a huge pom.properties, traversal names, links out
// of the root; made by an unprivileged user where the file system allows.
TEST(LibraryHostile, HostileFilesYieldWhatCanBeRead) {
    if (!amtest::have_tools("zip python3 runuser")) GTEST_SKIP() << "zip, python3, runuser needed";
    amtest::TempDir t("amlibh");
    amtest::TempDir outside("amlibo");
    outside.file("/o/secret-9.9.jar", "PK");
    chmod(t.path.c_str(), 0755);
    t.mkdir("/home/mallory");
    ASSERT_EQ(sh("chown nobody '" + t.path + "/home/mallory'"), 0);
    const std::string m = t.path + "/home/mallory";
    ASSERT_EQ(sh("runuser -u nobody -- sh -c \"cd '" + m + "' && mkfifo x.jar && ln -s '" + outside.path +
                 "/o' out && ln -s /etc/passwd passwd.jar && ln -s '" + outside.path +
                 "/o/secret-9.9.jar' s.jar\""),
              0);
    const char* py = R"PY(
import zipfile, sys, os
d = sys.argv[1]
z = zipfile.ZipFile(d + '/bomb-1.0.jar', 'w', zipfile.ZIP_DEFLATED)
z.writestr('META-INF/maven/g/bomb/pom.properties', 'groupId=g\nartifactId=bomb\nversion=1.0\n' + 'x' * (10 << 20))
inner = zipfile.ZipFile(d + '/inner.zip', 'w', zipfile.ZIP_STORED)
inner.writestr('pad', b'\0' * (64 << 20))
inner.close()
z.write(d + '/inner.zip', 'BOOT-INF/lib/zeros-1.0.jar')
z.writestr('../../../etc/evil-6.6.jar', 'PK')
z.writestr('BOOT-INF/lib/\x1b[31mred-1.jar', 'x')
z.close()
os.remove(d + '/inner.zip')
z = zipfile.ZipFile(d + '/many-2.0.jar', 'w', zipfile.ZIP_STORED)
for i in range(100000): z.writestr('META-INF/maven/g/a%d/pom.properties' % i, 'artifactId=a%d\nversion=1\n' % i)
z.close()
data = open(d + '/many-2.0.jar', 'rb').read()
open(d + '/cut-3.0.jar', 'wb').write(data[:len(data) // 2])
)PY";
    t.file("/gen.py", py);
    ASSERT_EQ(sh("runuser -u nobody -- /usr/bin/python3 '" + t.path + "/gen.py' '" + m + "'"), 0);
    // A link planted as a walk root leads nowhere outside the image.
    t.link("/srv", outside.path + "/o");

    LibraryStats st;
    int rc = -1;
    const Lines got = collect(HostRoot(t.path), no_procs(), &st, &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(st.bound, "");
    const std::string h = "/home/mallory/";
    // The bomb's pom is read from its head; its nested archive inflates past
    // the bound, so it is named by its file name; the traversal and
    // control-character names are not nested into.
    for (const std::string l : {"g:bomb|1.0|bomb-1.0.jar",
                                "zeros|1.0|bomb-1.0.jar!/BOOT-INF/lib/zeros-1.0.jar", "cut|3.0|cut-3.0.jar"})
        EXPECT_TRUE(got.count(l.substr(0, l.rfind('|') + 1) + h + l.substr(l.rfind('|') + 1))) << l;
    size_t many = 0;
    for (const std::string& l : got) {
        for (const char* bad : {"secret", "evil", "\x1b", "|/home/mallory/x.jar", "passwd"})
            EXPECT_EQ(l.find(bad), std::string::npos) << l;
        many += l.find("many-2.0.jar") != std::string::npos;
    }
    // Each of the 100k poms is a library, up to the per-archive bound.
    EXPECT_EQ(many, ArchiveLimits().max_poms);
}

// Python, Node, Ruby, Composer, Go and shared objects in one tree; the live
// host root with walk roots inside the scratch tree, so ownership is judged
// by this machine's real package database.
TEST(LibraryEcosystems, EachEcosystemAsItsToolSeesIt) {
    if (!amtest::have_tools("go") || access("/usr/bin/python3", X_OK) != 0)
        GTEST_SKIP() << "go and python3 needed";
    amtest::TempDir t("amlibe");
    ASSERT_EQ(sh("cp -r '" + std::string(ASSETMAN_FIXTURES) + "/eco/.' '" + t.path + "'"), 0);
    const std::string venv = t.path + "/opt/venv";
    ASSERT_EQ(sh("/usr/bin/python3 -m venv '" + venv + "'"), 0);
    // What the interpreter itself says is installed in the venv (with the
    // fixture's old egg-info).
    Lines want;
    const std::string dists =
        run("'" + venv +
            "/bin/python' -c 'import importlib.metadata as m, sys\n"
            "for d in m.distributions(): print(d.metadata[\"Name\"] + \"|\" + d.version + \"|\" + "
            "str(d._path))'");
    for (std::string_view l : split_lines(dists))
        want.insert(std::string(l).replace(l.rfind('|') + 1, t.path.size(), ""));
    ASSERT_TRUE(want.count("old|0.1|/opt/venv/lib/python3.11/site-packages/old-0.1.egg-info"));
    // A Go program with a dependency replaced by a local module; what
    // `go version -m` prints is what is expected.
    ASSERT_EQ(sh("cd '" + t.path +
                 "/gosrc/app' && mkdir -p ../../opt/goapp && GOFLAGS=-mod=mod GOPROXY=off "
                 "CGO_ENABLED=0 go build -o ../../opt/goapp/server ."),
              0);
    const std::string go_says = run("go version -m '" + t.path + "/opt/goapp/server'");
    for (std::string_view l : split_lines(go_says)) {
        const std::vector<std::string_view> f = split_ws(trim(l));
        if (f.size() >= 3 && (f[0] == "mod" || f[0] == "dep"))
            want.insert(std::string(f[1]) + "|" + std::string(f[2]) + "|/opt/goapp/server");
        if (f.size() == 2 && f[0].find(':') != std::string_view::npos)
            want.insert("stdlib|" + std::string(f[1]) + "|/opt/goapp/server");
    }

    // A shared object that dpkg installed is the package kind's; a copy of it
    // elsewhere is not. Links to it are no records of their own.
    const std::string real = "/usr/lib/x86_64-linux-gnu/libz.so.1.2.13";
    ASSERT_EQ(sh("cp " + real + " '" + t.path + "/opt/libz.so.1.2.13' && ln -s libz.so.1.2.13 '" + t.path +
                 "/opt/libz.so.1'"),
              0);
    // The other ecosystems' files and the copy of libz as eco.expected lists them.
    want.merge(expected("eco"));

    LibraryLimits lim = no_procs();
    // Merged /usr: dpkg names gconv under /usr/lib and the PAM modules under
    // /lib; each is walked under the other name.
    lim.roots = {t.path + "/opt", t.path + "/srv", "/lib/x86_64-linux-gnu/gconv",
                 "/usr/lib/x86_64-linux-gnu/security"};
    Lines got = collect(HostRoot("/"), lim);
    Lines got_rel;
    for (const std::string& l : got) {
        std::string r = l;
        const size_t at = r.find(t.path);
        if (at != std::string::npos) r.erase(at, t.path.size());
        got_rel.insert(r);
    }
    EXPECT_EQ(got_rel, want);
    // Those modules are all owned by a package, as dpkg -S says.
    EXPECT_EQ(
        sh("dpkg -S /usr/lib/x86_64-linux-gnu/gconv/UTF-7.so /lib/x86_64-linux-gnu/security/pam_unix.so"), 0);
    for (const std::string& l : got)
        for (const char* owned : {"gconv", "security"}) EXPECT_EQ(l.find(owned), std::string::npos) << l;
}

// A file swapped between a jar and a FIFO while collections run: no hang,
// and whatever is reported came from the jar.
TEST(LibraryHostile, JarSwappedForFifoDuringTheWalk) {
    if (!amtest::have_tools("zip")) GTEST_SKIP() << "zip needed";
    amtest::TempDir t("amlibr");
    t.file("/src/META-INF/maven/g/race/pom.properties", "groupId=g\nartifactId=race\nversion=1\n");
    ASSERT_EQ(sh("cd '" + t.path +
                 "/src' && mkdir -p ../opt && zip -qr ../opt/real.jar META-INF && mkfifo ../opt/fifo"),
              0);
    const std::string jar = t.path + "/opt/real.jar", fifo = t.path + "/opt/fifo",
                      race = t.path + "/opt/race-1.jar";
    std::atomic<bool> done{false};
    std::thread swapper([&] {
        for (int i = 0; !done; ++i) {
            // race-1.jar is the jar, then the FIFO, then the jar again.
            if (i % 2 == 0) {
                rename(jar.c_str(), race.c_str());
                rename(race.c_str(), jar.c_str());
            } else {
                rename(fifo.c_str(), race.c_str());
                rename(race.c_str(), fifo.c_str());
            }
        }
    });
    for (int i = 0; i < 200; ++i) {
        clear_library_cache();
        for (const std::string& l : collect(HostRoot(t.path), no_procs()))
            EXPECT_TRUE(l == "g:race|1|/opt/real.jar" || l == "g:race|1|/opt/race-1.jar") << l;
    }
    done = true;
    swapper.join();
}
