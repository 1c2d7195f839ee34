#include "core/common.h"
#include "test_util.h"

namespace {

using namespace amsvc;

using amtest::TempDir;

TEST(HostRoot, PlacesHostPathsUnderTheRoot) {
    const std::pair<const char*, const char*> rows[] = {
        {"", "/etc/passwd"}, {"/mnt/img//", "/mnt/img/etc/passwd"}, {"/mnt/img", "/mnt/img/etc/passwd"}};
    EXPECT_EQ("/etc/passwd", HostRoot().path("/etc/passwd"));
    for (const auto& r : rows) EXPECT_EQ(r.second, HostRoot(r.first).path("/etc/passwd")) << r.first;
    EXPECT_EQ("/mnt/img/etc", HostRoot("/mnt/img").path("etc"));
    EXPECT_TRUE(HostRoot("/").is_live_host());
    EXPECT_FALSE(HostRoot("/mnt/img").is_live_host());
}

TEST(ReadFile, ReadsRegularFilesBoundedListsAndLinks) {
    TempDir t;
    const std::string f = t.file("/a.txt", std::string(100000, 'x'));
    std::string out;
    EXPECT_EQ(0, read_file(f, out));
    EXPECT_EQ(100000u, out.size());
    EXPECT_EQ(0, read_file(f, out, 10));
    EXPECT_EQ(10u, out.size());

    EXPECT_EQ(-ENOENT, read_file(t.path + "/missing", out));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(-EINVAL, read_file(t.path, out));  // a directory

    // A FIFO with no writer must neither block (the test would hang) nor be read.
    const std::string fifo = t.path + "/fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    for (const std::string& p : {fifo, std::string("/dev/zero")}) EXPECT_EQ(-EINVAL, read_file(p, out)) << p;

    t.link("/link", "a.txt");  // kept verbatim by read_link
    EXPECT_EQ(0, read_file(t.path + "/link", out));
    EXPECT_EQ(-ELOOP, read_file(t.path + "/link", out, kDefaultMaxFile, kNoFollow));

    // Whole, at and around the sizes the reads are cut at.
    TempDir sizes;
    for (size_t n : {0u, 1u, 65535u, 65536u, 65537u, 200000u}) {
        std::string text(n, 'a');
        for (size_t i = 0; i < n; ++i) text[i] = static_cast<char>('a' + i % 26);
        EXPECT_EQ(0, read_file(sizes.file("/" + std::to_string(n), text), out)) << n;
        EXPECT_EQ(text, out) << n;
    }
    // /proc files report a size of 0, sysfs files 4096; both have their own content.
    EXPECT_EQ(0, read_file("/proc/self/status", out));
    EXPECT_NE(std::string::npos, out.find("Pid:"));
    const std::string sysfs = "/sys/kernel/mm/transparent_hugepage/enabled";
    if (::access(sysfs.c_str(), R_OK) == 0) {
        EXPECT_EQ(0, read_file(sysfs, out));
        EXPECT_NE(std::string::npos, out.find("never")) << out;
        EXPECT_LT(out.size(), 4096u);
    }

    // The listing and the links of the same tree.
    std::vector<std::string> names = list_dir(t.path);
    std::sort(names.begin(), names.end());
    EXPECT_EQ((std::vector<std::string>{"a.txt", "fifo", "link"}), names);
    EXPECT_TRUE(list_dir(t.path + "/missing").empty());
    EXPECT_EQ("a.txt", read_link(t.path + "/link"));
    EXPECT_EQ("", read_link(f));
}

TEST(Text, SplitsLinesAndFields) {
    EXPECT_EQ((std::vector<std::string_view>{"a", "", "b c"}), split_lines("a\r\n\nb c\r\n"));
    EXPECT_EQ((std::vector<std::string_view>{"x"}), split_lines("x"));
    EXPECT_TRUE(split_lines("").empty());
    const std::string with_nul("a\0b\nc", 5);
    EXPECT_EQ((std::vector<std::string_view>{std::string_view(with_nul.data(), 3), "c"}),
              split_lines(with_nul));
    EXPECT_EQ((std::vector<std::string_view>{"a", "b", "c"}), split_ws(" \ta  b\tc "));
    EXPECT_TRUE(split_ws(" \t ").empty());
    EXPECT_EQ("x y", trim(" \t x y \r\n"));
    EXPECT_EQ("", trim("   "));
}

TEST(Text, JoinsContinuedLines) {
    using V = std::vector<std::string>;
    const std::string text = "  # note \\\n a=1 \\  \n   b\n\n; x\nc=\\";
    // Unit files: comments and blank lines go unless they continue a line.
    EXPECT_EQ((V{"a=1  b", "c="}), join_continued_lines(text, true));
    // Everything else: each line kept with its leading blanks.
    EXPECT_EQ((V{"  # note   a=1     b", "", "; x", "c="}), join_continued_lines(text, false));
}

TEST(Text, ParsesNumbersStrictly) {
    int64_t i = 0;
    uint64_t u = 0;
    EXPECT_TRUE(parse_i64("-42", i) && i == -42);
    EXPECT_TRUE(parse_u64("18446744073709551615", u) && u == UINT64_MAX);
    for (const char* bad : {"42x", "", "9223372036854775808"}) EXPECT_FALSE(parse_i64(bad, i)) << bad;
    for (const char* bad : {"18446744073709551616", "-1", " 1"}) EXPECT_FALSE(parse_u64(bad, u)) << bad;
}

TEST(Time, FormatsUtc) {
    EXPECT_EQ("1970-01-01 00:00:00", format_time(0));
    EXPECT_EQ("2026-11-22 01:55:14", format_time(1795312514));
    EXPECT_EQ("2026-11-22", format_date(1795312514));
}

TEST(Ids, NamesComeFromTheRootsFilesAndFollowChanges) {
    TempDir t;
    t.file("/etc/passwd",
           "root:x:0:0::/root:/bin/sh\nbad line\nalice:x:1000:1000::/home/a:/bin/sh\n"
           "dup:x:1000:1000::/:/bin/sh\nhuge:x:99999999999:1::/:/bin/sh\n");
    t.file("/etc/group", "root:x:0:\nstaff:x:50:alice\n");
    const HostRoot root(t.path);
    EXPECT_EQ("root", user_name(root, 0));
    EXPECT_EQ("alice", user_name(root, 1000));  // the first entry of an id wins, as getpwuid does
    EXPECT_EQ("", user_name(root, 4242));
    EXPECT_EQ("staff", group_name(root, 50));
    sleep(1);  // a new mtime
    t.file("/etc/passwd", "bob:x:4242:4242::/:/bin/sh\n");
    EXPECT_EQ("bob", user_name(root, 4242));
    EXPECT_EQ("", user_name(root, 0));
}

}  // namespace
