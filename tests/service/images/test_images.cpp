// Mounted images of every family, inventoried through the host root: the
// packages match the family's own tool on the same tree, nothing in the image
// changes (a read-only bind mount reads the same), and no link leads to a
// file of the running machine.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "collectors.h"
#include "core/common.h"
#include "image_fixtures.h"

namespace {

using namespace amsvc;
using amimg::q;
using amtest::run;

std::string sorted_lines(const std::string& prefix, const std::string& text) {
    std::vector<std::string> v;
    for (std::string_view l : split_lines(text))
        if (!l.empty()) v.push_back(prefix + std::string(l));
    std::sort(v.begin(), v.end());
    std::string out;
    for (const auto& l : v) out += l + "\n";
    return out;
}

// The packages as "type name|version[-release]" lines, sorted.
std::string packages_text(const std::string& tree, int* rc = nullptr) {
    std::vector<AM::SysInstallPackageInfo> pkgs;
    const int r = collect_packages(HostRoot(tree), pkgs);
    if (rc) *rc = r;
    std::string text;
    for (const auto& p : pkgs)
        text += p.type + " " + p.name + "|" + p.version + (p.release.empty() ? "" : "-" + p.release) + "\n";
    return sorted_lines("", text);
}

const char* const kRpmQuery =
    " --dbpath /var/lib/rpm -qa --qf 'rpm %{NAME}|%|EPOCH?{%{EPOCH}:}|%{VERSION}-%{RELEASE}\\n'";

struct Family {
    const char* name;
    // Builds the tree; returns the trusted tool's listing ("type name|version"
    // lines), or empty to skip with the reason in `why`.
    std::function<std::string(const std::string& tree, std::string& why)> build;
};

const Family kFamilies[] = {
    {"debian",
     [](const std::string& t, std::string& why) {
         if (!amimg::make_dpkg_tree(t)) return why = "dpkg cannot build the tree", std::string();
         return sorted_lines("deb ", run("dpkg-query --admindir=" + q(t + "/var/lib/dpkg") +
                                         " -W -f '${Package}|${Version}\\n'"));
     }},
    {"rhel9-sqlite",
     [](const std::string& t, std::string& why) {
         if (!amimg::make_rpm_sqlite(t)) return why = "rpm/rpmbuild missing", std::string();
         return sorted_lines("", run("rpm --root " + q(t) + kRpmQuery));
     }},
    {"centos7-bdb",
     [](const std::string& t, std::string& why) {
         const std::string scratch = t + ".src";
         if (!amimg::make_rpm_sqlite(scratch)) return why = "rpm/rpmbuild missing", std::string();
         const auto blobs = amimg::sqlite_blobs(scratch + "/var/lib/rpm/rpmdb.sqlite");
         run("rm -rf " + q(scratch) + "; mkdir -p " + q(t + "/var/lib/rpm"));
         if (!amimg::make_bdb(t + "/var/lib/rpm/Packages", blobs))
             return why = "db5.3_load missing", std::string();
         return sorted_lines(
             "", run("rpm --root " + q(t) + " --define '_db_backend bdb_ro'" + kRpmQuery + " 2>/dev/null"));
     }},
    {"opensuse-ndb",
     [](const std::string& t, std::string& why) {
         // This machine's rpm cannot read ndb: the trusted listing is rpm's on
         // the sqlite database the header blobs were taken from.
         const std::string scratch = t + ".src";
         if (!amimg::make_rpm_sqlite(scratch)) return why = "rpm/rpmbuild missing", std::string();
         const std::string want = sorted_lines("", run("rpm --root " + q(scratch) + kRpmQuery));
         amtest::write_file(t + "/usr/lib/sysimage/rpm/Packages.db",
                            amimg::ndb_file(amimg::sqlite_blobs(scratch + "/var/lib/rpm/rpmdb.sqlite")));
         run("rm -rf " + q(scratch) + "; mkdir -p " + q(t + "/var/lib") +
             " && ln -s ../../usr/lib/sysimage/rpm " + q(t + "/var/lib/rpm"));
         return want;
     }},
    // The trusted listings of these two are awk's reading of the files.
    {"alpine",
     [](const std::string& t, std::string&) {
         run("cp -r " + q(ASSETMAN_FIXTURES "/alpine/.") + " " + q(t));
         return sorted_lines(
             "apk ", run("awk -F: '/^P:/{p=$2} /^V:/{print p \"|\" $2}' " + q(t + "/lib/apk/db/installed")));
     }},
    {"distroless",
     [](const std::string& t, std::string&) {
         run("cp -r " + q(ASSETMAN_FIXTURES "/distroless/.") + " " + q(t));
         return sorted_lines("deb ", run("cd " + q(t + "/var/lib/dpkg/status.d") +
                                         " && cat base-files tzdata | awk '/^Package:/{p=$2} "
                                         "/^Version:/{print p \"|\" $2}'"));
     }},
};

TEST(Images, EveryFamilyMatchesItsToolReadOnly) {
    for (const Family& f : kFamilies) {
        SCOPED_TRACE(f.name);
        amtest::TempDir dir{"amimg_family"};
        std::string why;
        const std::string want = f.build(dir.path, why);
        if (want.empty()) {
            ADD_FAILURE() << "fixture not built: " << why;
            continue;
        }
        const std::string before = amimg::tree_sum(dir.path);
        int rc = 1;
        EXPECT_EQ(want, packages_text(dir.path, &rc));
        EXPECT_EQ(0, rc);
        EXPECT_EQ(before, amimg::tree_sum(dir.path)) << "the scan changed the image";
        const std::string ro = amimg::in_readonly_mount(dir.path, [&] { return packages_text(dir.path); });
        if (ro != "SKIP") {
            EXPECT_EQ(want, ro) << "read-only mount";
        }
    }
}

// A database that is there but unreadable: a negative code, no descriptor
// left behind, and not read again until the file changes.
TEST(Images, CorruptRpmDatabase) {
    amtest::TempDir dir{"amimg_junk"};
    const std::string db = dir.file("/var/lib/rpm/rpmdb.sqlite", std::string(8192, 'J'));
    auto fds = [] { return list_dir("/proc/self/fd").size(); };
    const int in = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(in, 0);
    ASSERT_GE(inotify_add_watch(in, db.c_str(), IN_ACCESS), 0);
    auto reads = [&] {
        int n = 0;
        char buf[4096];
        ssize_t r;
        while ((r = read(in, buf, sizeof buf)) > 0) n += static_cast<int>(r / sizeof(struct inotify_event));
        return n;
    };
    std::vector<AM::SysInstallPackageInfo> pkgs;
    EXPECT_EQ(-EIO, collect_packages(HostRoot(dir.path), pkgs));
    reads();
    const size_t open_before = fds();
    for (int i = 0; i < 20; ++i) EXPECT_EQ(-EIO, collect_packages(HostRoot(dir.path), pkgs));
    EXPECT_EQ(open_before, fds());
    EXPECT_EQ(0, reads()) << "a failed database was read again unchanged";
    amtest::write_file(db, std::string(8192, 'K'));  // changed: tried again
    EXPECT_EQ(-EIO, collect_packages(HostRoot(dir.path), pkgs));
    EXPECT_GT(reads(), 0);
    close(in);

    // The other formats, and an ndb database whose records are all junk.
    const std::pair<const char*, std::string> junk[] = {
        {"/usr/lib/sysimage/rpm/Packages.db", amimg::ndb_file({"not a header", "nor this"})},
        {"/usr/lib/sysimage/rpm/Packages.db", "RpmP"},
        {"/var/lib/rpm/Packages", std::string(4096, 'B')}};
    for (const auto& [path, text] : junk) {
        amtest::TempDir t{"amimg_junk_other"};
        t.file(path, text);
        const size_t before = fds();
        for (int i = 0; i < 5; ++i) EXPECT_EQ(-EIO, collect_packages(HostRoot(t.path), pkgs)) << path;
        EXPECT_EQ(before, fds()) << path;
    }
}

// A write-ahead log with content (rpm killed mid-transaction) is part of the
// database: read from private copies, the image left as it was.
TEST(Images, RpmSqliteWithUncheckpointedLog) {
    amtest::TempDir dir{"amimg_wal"};
    ASSERT_TRUE(amimg::make_rpm_sqlite(dir.path));
    const std::string db = dir.path + "/var/lib/rpm/rpmdb.sqlite";
    int st = 0;
    // A second copy of the first package, committed to the log only.
    run("/usr/bin/python3 -c " + q("import sqlite3,os; c=sqlite3.connect(\"" + db +
                                   "\"); c.execute(\"PRAGMA journal_mode=WAL\"); "
                                   "c.execute(\"PRAGMA wal_autocheckpoint=0\"); c.execute(\"INSERT INTO "
                                   "Packages(hnum,blob) SELECT "
                                   "100,blob FROM Packages WHERE hnum=1\"); c.commit(); os._exit(0)"),
        &st);
    struct stat wal;
    ASSERT_TRUE(st == 0 && stat((db + "-wal").c_str(), &wal) == 0 && wal.st_size > 0) << "no log left";
    const std::string before = amimg::tree_sum(dir.path);
    const std::string got = packages_text(dir.path);
    EXPECT_EQ(before, amimg::tree_sum(dir.path));
    EXPECT_EQ(sorted_lines("", run("rpm --root " + q(dir.path) + kRpmQuery)), got);
    EXPECT_EQ(3u, std::count(got.begin(), got.end(), '\n'));
}

// Layouts of SUSE, Alpine and OpenRC, the image's own architecture, and one
// path for a timer in both the cron and the auto-start kinds.
TEST(Images, FamilyLayouts) {
    amtest::TempDir dir{"amimg_layouts"};
    const std::string& t = dir.path;
    // SUSE's and Alpine's crontabs, OpenRC's scripts, a timer under /usr/lib.
    run("cp -r " + q(ASSETMAN_FIXTURES "/layouts/.") + " " + q(t) + " && chmod 600 " +
        q(t + "/var/spool/cron/tabs/alice") + " " + q(t + "/etc/crontabs/root"));
    dir.link("/var/spool/cron/crontabs", "/etc/crontabs");  // as Alpine ships it
    dir.link("/etc/runlevels/default/sshd", "/etc/init.d/sshd");
    dir.link("/etc/runlevels/boot/sshd", "/etc/init.d/sshd");
    // An aarch64 /bin/sh on this x86_64 machine.
    dir.file("/bin/busybox", amtest::elf_header(183), 0755);
    dir.link("/bin/sh", "/bin/busybox");
    // Merged /usr: /lib is a link to usr/lib.
    dir.link("/lib", "usr/lib");
    dir.link("/etc/systemd/system/timers.target.wants/apt-daily.timer",
             "/lib/systemd/system/apt-daily.timer");

    // layouts.expected: Alpine's crontab once, OpenRC's levels, the aarch64
    // architecture, the timer under both kinds.
    EXPECT_EQ(amimg::inventory(HostRoot(t)), amtest::read_text(ASSETMAN_FIXTURES "/layouts.expected"));
}

// A FIFO where a file is expected is never opened: a writer blocked on it
// stays blocked (an open for reading would release it).
TEST(Images, FifoIsNeverOpened) {
    amtest::TempDir dir{"amimg_fifo"};
    dir.mkdir("/etc/cron.d");
    dir.mkdir("/var/lib/dpkg");
    std::vector<pid_t> writers;
    for (const char* f : {"/etc/crontab", "/etc/passwd", "/var/lib/dpkg/status", "/etc/os-release"}) {
        const std::string path = dir.path + f;
        ASSERT_EQ(0, mkfifo(path.c_str(), 0644));
        const pid_t w = fork();
        if (w == 0) _exit(open(path.c_str(), O_WRONLY) >= 0 ? 0 : 1);  // blocks until a reader opens
        writers.push_back(w);
    }
    for (pid_t w : writers) {  // until each writer waits in the FIFO's open (bounded)
        for (int i = 0; i < 500; ++i) {
            std::string wchan;
            read_file("/proc/" + std::to_string(w) + "/wchan", wchan, 64);
            if (wchan.find("fifo") != std::string::npos ||
                wchan.find("wait_for_partner") != std::string::npos)
                break;
            usleep(10000);
        }
    }
    amimg::inventory(HostRoot(dir.path));  // every kind
    for (pid_t w : writers) {
        int st;
        EXPECT_EQ(0, waitpid(w, &st, WNOHANG)) << "a writer was released: the FIFO was opened";
        kill(w, SIGKILL);
        waitpid(w, &st, 0);
    }
}

// Only a real procfs at the image's /proc is a source of processes and
// sockets: not plain files, nor (see ImageEscape) a link to the machine's.
TEST(Images, ProcessesOnlyFromARealProcfs) {
    amtest::TempDir plain{"amimg_proc_dir"}, real{"amimg_proc_real"};
    plain.file("/proc/1/stat", "1 (init) S 0 1 1 0 -1 4194560 0 0 0 0 0 0 0 0 20 0 1 0 5 0 0\n");
    plain.file("/proc/net/tcp", "  sl  local_address rem_address   st\n");
    real.mkdir("/proc");
    auto collect = [](const std::string& tree) {
        std::vector<AM::ProcessInfo> procs;
        std::vector<AM::NetLinkInfo> socks;
        const int a = collect_processes(HostRoot(tree), procs);
        const int b = collect_netlinks(HostRoot(tree), socks);
        return std::to_string(a) + " " + std::to_string(b) + " " + std::to_string(!procs.empty());
    };
    EXPECT_EQ("-2 -2 0", collect(plain.path));
    const std::string out = amimg::in_readonly_mount(real.path, [&] {
        if (mount("proc", (real.path + "/proc").c_str(), "proc", 0, nullptr) != 0) return std::string("SKIP");
        return collect(real.path);
    });
    if (out != "SKIP") {
        EXPECT_EQ("0 0 1", out);
    }
}

}  // namespace
