// Installed packages: the dpkg and apk parsers on fixtures and hostile input,
// and the collector against dpkg-query on this host.
#include <errno.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <set>
#include <tuple>

#include "packages/apk_db.h"
#include "collectors.h"
#include "packages/dpkg_db.h"
#include "test_util.h"

using namespace amsvc;

namespace {

const std::string kFixtures = std::string(ASSETMAN_FIXTURES) + "/packages";

// One line per record, fields in member order; installtime only as there (t)
// or not (-), since it is a file's mtime.
std::string text_of(const std::vector<AM::SysInstallPackageInfo>& v) {
    std::string out;
    for (const auto& r : v)
        out += r.name + "|" + r.version + "|" + r.release + "|" + r.type + "|" + r.summary + "|" + r.source +
               "|" + r.company + "|" + r.installdir + "|" + std::to_string(r.size) +
               (r.installtime.empty() ? "|-\n" : "|t\n");
    return out;
}

}  // namespace

TEST(DpkgStatus, FixtureFieldsAndStates) {
    const HostRoot root(kFixtures + "/dpkg_root");
    std::vector<AM::SysInstallPackageInfo> out(3);  // replaced, not appended to
    ASSERT_EQ(collect_packages(root, out), 0);
    // Configured (or only awaiting triggers) packages, whatever their selection;
    // config-files, half-configured, reinstreq and nameless stanzas are not there,
    // and the truncated last stanza keeps what it had (it was installed). No Source
    // field: the package itself; epoch and revision split as dpkg does. Installed
    // when its .list (multiarch or plain name) was written; truncated has none.
    EXPECT_EQ(text_of(out),
              R"(libfoo1|1:2.0|3+b1|deb|library of foo|foo|Foo Maintainers <foo@example.org>||122880|t
nativetool|0.9||deb|a native tool|nativetool|Native Person <n@example.org>||7168|t
pending|1.2|1|deb|waits for triggers|pending|P <p@example.org>||1024|t
crlf|5.0|2|deb|crlf stanza|crlf|Win Dows <w@example.org>||2048|t
truncated|4.5|6|deb|cut off in t|truncated|||3072|-
)");
    struct stat st;
    ASSERT_EQ(stat((root.root() + "/var/lib/dpkg/info/libfoo1:amd64.list").c_str(), &st), 0);
    EXPECT_EQ(out[0].installtime, format_time(st.st_mtime));
}

TEST(DpkgStatus, HostileInput) {
    // NUL bytes, a huge line, junk lines, continuation before any field.
    std::string text;
    text.assign(" continuation first\nPackage: a", 30);
    text.push_back('\0');
    text += "b\nStatus: install ok installed\nVersion: 1-1\njunk line without colon\n:empty name\n";
    text += "Description: " + std::string(8u << 20, 'x') + "\n\n";
    text += "Package: second\nStatus: install ok installed\nInstalled-Size: 99999999999999999999999\n";
    text += "Version: -\nConffiles:\n /etc/a newconffile\n relative 0123\n /etc/b\n\n\n\n";
    const std::vector<DpkgPackage> pkgs = parse_dpkg_status(text);
    ASSERT_EQ(pkgs.size(), 2u);
    EXPECT_EQ(pkgs[0].name, std::string("a\0b", 3));
    EXPECT_EQ(pkgs[0].summary.size(), 8u << 20);
    EXPECT_EQ(pkgs[1].installed_size_kib, 0u);  // overflow: no size rather than a wrong one
    ASSERT_EQ(pkgs[1].conffiles.size(), 1u);
    EXPECT_EQ(pkgs[1].conffiles[0].path, "/etc/a");
    std::string v, r;
    split_deb_version(pkgs[1].version, v, r);
    EXPECT_EQ(std::tie(v, r), std::make_tuple("-", ""));

    for (const char* empty : {"", "\n\n\r\n"}) EXPECT_TRUE(parse_dpkg_status(empty).empty());
    for (const char* st : {"hold ok installed", "deinstall ok installed"}) EXPECT_TRUE(dpkg_is_installed(st));
    for (const char* st :
         {"install reinstreq installed", "install ok unpacked", "install ok installed extra"})
        EXPECT_FALSE(dpkg_is_installed(st)) << st;
}

// The summary is the first line of Description as dpkg keeps it, blanks included.
TEST(DpkgStatus, SummaryByteForByte) {
    for (const auto& [field, want] : {
             std::pair{"Description: GNU dbm (runtime version) \n long text\n", "GNU dbm (runtime version) "},
             {"Description:\t two  inner \t\n .\n", "two  inner \t"},
             {"Description: single line ends in blanks  \t\n", "single line ends in blanks"},
             {"Description:   \n only continuation\n", ""},
         }) {
        const auto p = parse_dpkg_status(std::string("Package: p\n") + field);
        ASSERT_EQ(p.size(), 1u);
        EXPECT_EQ(p[0].summary, want) << field;
    }
}

// The status file read a piece at a time gives what its whole text gives,
// wherever the pieces end and wherever the byte bound cuts it.
TEST(DpkgStatus, PiecesGiveWhatTheWholeTextGives) {
    auto render = [](const DpkgPackage& p) {
        std::string s = p.name + "|" + p.arch + "|" + p.version + "|" + p.status + "|" + p.maintainer + "|" +
                        p.summary + "|" + p.source + "|" + p.multi_arch + "|" + std::to_string(p.installed_size_kib);
        for (const DpkgConffile& c : p.conffiles) s += "|" + c.path + "=" + c.md5;
        return s + "\n";
    };
    const std::string nul("Package: n\0l\nStatus: install ok installed\n\0\n\nPackage: after-nul\n", 60);
    const std::vector<std::string> texts = {
        // Continuation lines, a blank-only line ending a stanza inside a Description.
        "Package: a\nStatus: install ok installed\nDescription: x\n more\n .\n \t\nPackage: b\nSource: s (1)\n",
        // CRLF throughout, conffiles.
        "Package: c\r\nMulti-Arch: same\r\nConffiles:\r\n /etc/c 0123\r\n\r\nPackage: d\r\nVersion: 1:2-3\r\n",
        // No trailing newline; blank lines of every blank; junk and continuation first.
        " lead\njunk\n:\nPackage: e\n\v\f\r\n\n\nPackage: f\nInstalled-Size: 12",
        nul,
        // A field far longer than a piece.
        "Package: h\nDescription: " + std::string(300000, 'y') + "\n more\n\nPackage: i\nmaintainer: lower\n",
    };
    for (const std::string& text : texts) {
        for (size_t max : {size_t(1) << 30, size_t(1), size_t(17), text.size() / 2}) {
            std::string want;
            for (const DpkgPackage& p : parse_dpkg_status(std::string_view(text).substr(0, max))) want += render(p);
            for (size_t piece : {1, 2, 3, 7, 64, 4096, 1 << 20}) {
                const int fd = memfd_create("status", MFD_CLOEXEC);
                ASSERT_GE(fd, 0);
                ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
                lseek(fd, 0, SEEK_SET);
                std::string got;
                EXPECT_EQ(read_dpkg_status_fd(fd, [&](DpkgPackage& p) { got += render(p); }, max, piece), 0);
                close(fd);
                EXPECT_EQ(got, want) << "piece " << piece << " max " << max << " text " << text.substr(0, 40);
            }
        }
    }
}

TEST(DpkgMd5sums, BadLinesAreSkipped) {
    const std::string good = "d41d8cd98f00b204e9800998ecf8427e  usr/share/a b.txt\r\n";
    const std::string text = good + "D41D8CD98F00B204E9800998ECF8427E */abs/path\n" +
                             "zz1d8cd98f00b204e9800998ecf8427e  usr/bad-hex\n" + "d41d8cd98f  usr/short\n" +
                             "d41d8cd98f00b204e9800998ecf8427e\n" + std::string(1, '\0') + "garbage\n" +
                             "d41d8cd98f00b204e9800998ecf8427e  \n";
    std::vector<std::string> paths;
    parse_md5sums(text, [&](std::string_view p, const unsigned char* md5) {
        paths.emplace_back(p);
        EXPECT_EQ(md5[0], 0xd4);
        EXPECT_EQ(md5[15], 0x7e);
    });
    EXPECT_EQ(paths, (std::vector<std::string>{"/usr/share/a b.txt", "/abs/path"}));
}

TEST(Apk, FixtureAndJunk) {
    const HostRoot root(kFixtures + "/apk_root");
    std::vector<AM::SysInstallPackageInfo> out;
    ASSERT_EQ(collect_packages(root, out), 0);
    // The record without P: is dropped; a size that is not a number is none.
    EXPECT_EQ(text_of(out),
              R"(busybox|1.36.1|r5|apk|Size optimized toolbox of many common UNIX utilities|busybox|)"
              R"(Soren Tempel <soeren+alpine@example.org>||946176|-
alpine-baselayout|3.4.3|r1|apk|Alpine base dir structure|alpine-baselayout|Natanael Copa <ncopa@example.org>||0|-
tzdata|2024a|r0|apk||tzdata|||3000|-
)");

    std::string text;
    ASSERT_EQ(read_file(root.path("/lib/apk/db/installed"), text), 0);
    const std::vector<ApkPackage> pkgs = parse_apk_installed(text, true);
    ASSERT_EQ(pkgs.size(), 3u);
    std::vector<std::pair<std::string, bool>> files;
    for (const ApkFile& f : pkgs[0].files) files.emplace_back(f.path, f.has_sha1);
    EXPECT_EQ(files, (std::vector<std::pair<std::string, bool>>{
                         {"/bin/busybox", true}, {"/etc/motd", true}, {"/etc/nochecksum", false}}));
    EXPECT_TRUE(pkgs[1].files.empty());  // bad checksum, R: with a slash
    unsigned char sha1[20];
    EXPECT_FALSE(decode_apk_checksum("Q2AAAAAAAAAAAAAAAAAAAAAAAAAAAA=", sha1));
    EXPECT_FALSE(decode_apk_checksum("Q1", sha1));
    EXPECT_FALSE(parse_apk_installed(std::string("P:x\0y\nV:\n\n\n", 11), true).empty());
}

TEST(Collector, NoDatabaseIsENOENT) {
    std::vector<AM::SysInstallPackageInfo> out(1);
    EXPECT_EQ(collect_packages(HostRoot(kFixtures + "/no-such-root"), out), -ENOENT);
    EXPECT_TRUE(out.empty());
}

// The same packages, versions and summaries (byte for byte: libgdbm6's ends
// in a blank) as dpkg-query reports for the states we take as installed
// (second letter of the abbreviation: i, t or W, no error flag).
TEST(Collector, MatchesDpkgQueryOnThisHost) {
    if (access("/var/lib/dpkg/status", R_OK) != 0) GTEST_SKIP() << "no dpkg database on this host";
    const std::string listing = amtest::run(
        "dpkg-query -W -f "
        "'${Package}\\t${Version}\\t${db:Status-Abbrev}\\t${Installed-Size}\\t${binary:Summary}\\n' "
        "2>/dev/null");
    ASSERT_FALSE(listing.empty());
    std::multiset<std::string> expected;
    std::map<std::string, uint64_t> sizes;
    for (std::string_view line : split_lines(listing)) {
        const size_t t1 = line.find('\t'), t2 = line.find('\t', t1 + 1), t3 = line.find('\t', t2 + 1),
                     t4 = line.find('\t', t3 + 1);
        ASSERT_NE(t4, std::string_view::npos) << line;
        const std::string_view abbrev = line.substr(t2 + 1, t3 - t2 - 1);
        if (abbrev.size() < 3 || std::string_view("itW").find(abbrev[1]) == std::string_view::npos ||
            abbrev[2] != ' ')
            continue;
        std::string v, r;
        split_deb_version(line.substr(t1 + 1, t2 - t1 - 1), v, r);
        const std::string name(line.substr(0, t1));
        expected.insert(name + " " + v + " " + r + " " + std::string(line.substr(t4 + 1)));
        uint64_t kib = 0;
        parse_u64(line.substr(t3 + 1, t4 - t3 - 1), kib);
        sizes[name] = kib * 1024;
    }
    std::vector<AM::SysInstallPackageInfo> out;
    ASSERT_EQ(collect_packages(HostRoot("/"), out), 0);
    std::multiset<std::string> got;
    for (const auto& r : out) {
        if (r.type != "deb") continue;
        got.insert(r.name + " " + r.version + " " + r.release + " " + r.summary);
        EXPECT_EQ(r.size, sizes[r.name]) << r.name;
        EXPECT_FALSE(r.installtime.empty()) << r.name;
        EXPECT_FALSE(r.source.empty()) << r.name;
    }
    EXPECT_EQ(got, expected);
    EXPECT_GT(got.size(), 100u);
}
