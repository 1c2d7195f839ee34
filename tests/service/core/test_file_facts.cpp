// Digests of host files: agreement with coreutils for every kind, files that
// must never be read (FIFO, device, refused symlink), and the identity cache.
#include <fcntl.h>

#include <thread>
#include <tuple>
#include <vector>

#include "core/digest_cache.h"
#include "core/file_facts.h"
#include "test_util.h"

using namespace amsvc;

namespace {

using amtest::TempDir;

std::string sum(const char* tool, const std::string& p) {
    const std::string out = amtest::run(std::string(tool) + " '" + p + "'");
    return out.substr(0, out.find(' '));
}

FileFacts facts_of(const std::string& path, bool no_follow = false) {
    return file_facts(HostRoot("/"), FileRef{path, path, no_follow});
}

}  // namespace

// Empty, short, and 3 MB of varied bytes (several buffer lengths and a short
// last read); the extra digest comes from the same pass.
TEST(Digests, CoreutilsAgree) {
    TempDir dir;
    std::string big(3 * 1024 * 1024 + 17, '\0');
    uint32_t x = 12345;
    for (char& c : big) c = static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
    for (const std::string& text : {std::string(), std::string("abc"), big}) {
        const std::string p = dir.file("/v" + std::to_string(text.size()), text);
        const FileFacts f = facts_of(p);
        EXPECT_EQ(std::tie(f.md5, f.sha256, f.company, f.verified),
                  std::make_tuple(sum("md5sum", p), sum("sha256sum", p), "", false));
        const std::pair<DigestAlgo, const char*> extras[] = {{DigestAlgo::kSha1, "sha1sum"},
                                                             {DigestAlgo::kSha512, "sha512sum"}};
        for (const auto& [algo, tool] : extras) {
            FileDigests d;
            ASSERT_TRUE(digest_file(p, false, algo, d));
            EXPECT_EQ(d.extra_algo, algo);
            EXPECT_EQ(to_hex(d.extra, algo == DigestAlgo::kSha1 ? 20 : 64), sum(tool, p)) << tool;
        }
    }
}

// Large files are hashed on two threads: around the size where that starts,
// chunk edges, and several at once (more than may split together), each with
// an extra kind, against coreutils.
TEST(Digests, LargeFilesOnTwoThreadsAgree) {
    TempDir dir;
    digest_cache_clear();
    const size_t mib = 1u << 20;
    const size_t sizes[] = {8 * mib - 1, 8 * mib, 8 * mib + 1, 9 * mib, 13 * mib + 12345};
    std::vector<std::string> paths;
    uint32_t x = 777;
    for (size_t n : sizes) {
        std::string text(n, '\0');
        for (char& c : text) c = static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
        paths.push_back(dir.file("/big" + std::to_string(n), text));
    }
    std::vector<FileDigests> got(paths.size());
    std::vector<char> ok(paths.size());  // not vector<bool>: its bits share words across threads
    std::vector<std::thread> threads;
    for (size_t i = 0; i < paths.size(); ++i)
        threads.emplace_back([&, i] { ok[i] = digest_file(paths[i], true, DigestAlgo::kSha512, got[i]); });
    for (auto& t : threads) t.join();
    for (size_t i = 0; i < paths.size(); ++i) {
        ASSERT_TRUE(ok[i]) << paths[i];
        EXPECT_EQ(std::make_tuple(to_hex(got[i].md5, 16), to_hex(got[i].sha256, 32), to_hex(got[i].extra, 64)),
                  std::make_tuple(sum("md5sum", paths[i]), sum("sha256sum", paths[i]), sum("sha512sum", paths[i])))
            << paths[i];
    }
}

TEST(Digests, NeverReadsWhatIsNotARegularFile) {
    TempDir dir;
    const std::string fifo = dir.path + "/fifo", link = dir.path + "/link";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    dir.link("/link", dir.file("/target", "abc"));

    // No writer on the FIFO (a blocking open would hang the test), /dev/zero
    // endless, a directory, a name that is gone.
    for (const std::string& p : {fifo, std::string("/dev/zero"), dir.path, dir.path + "/vanished"}) {
        const FileFacts f = facts_of(p);
        EXPECT_TRUE(f.md5.empty() && f.sha256.empty()) << p;
    }

    EXPECT_TRUE(facts_of(link, true).md5.empty());
    EXPECT_EQ(facts_of(link, false).md5, "900150983cd24fb0d6963f7d28e17f72");

    // Hashing through a root: host_path names it, the root places it.
    EXPECT_EQ(file_facts(HostRoot(dir.path), FileRef{"/target", "", false}).md5,
              "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Digests, CacheReadsOnceAndNoticesRewrites) {
    TempDir dir;
    const std::string p = dir.file("/f", "first content");
    const FileFacts a = facts_of(p);
    const uint64_t hashed = digest_stats().files_hashed;
    const FileFacts b = facts_of(p);
    EXPECT_EQ(a.sha256, b.sha256);
    EXPECT_EQ(digest_stats().files_hashed, hashed) << "a cache hit must not read the file";

    // Same size, new content, and the mtime put back: ctime still moves.
    struct stat st;
    ASSERT_EQ(stat(p.c_str(), &st), 0);
    dir.file("/f", "other content");
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, p.c_str(), times, 0), 0);
    const FileFacts c = facts_of(p);
    EXPECT_EQ(digest_stats().files_hashed, hashed + 1);
    EXPECT_NE(c.sha256, a.sha256);
    EXPECT_EQ(c.md5, sum("md5sum", p));

    // Asking for a digest kind the cached entry lacks reads again, once.
    FileDigests d;
    ASSERT_TRUE(digest_file(p, false, DigestAlgo::kSha1, d));
    ASSERT_TRUE(digest_file(p, false, DigestAlgo::kSha1, d));
    EXPECT_EQ(digest_stats().files_hashed, hashed + 2);
}

TEST(Digests, ManyFilesInOrderEachReadOnce) {
    TempDir dir;
    digest_cache_clear();
    std::vector<FileRef> refs;
    for (int i = 0; i < 200; ++i) {
        const std::string p =
            dir.file("/f" + std::to_string(i), std::string(1000 + i, static_cast<char>('a' + i % 26)));
        refs.push_back(FileRef{p, p, false});
        // The same file for another process, seen through its root: roots
        // interleave (each thread keeps one open), the file is read once.
        FileRef in_root{"/f" + std::to_string(i), "", false};
        in_root.root_dir = dir.path;
        in_root.foreign = true;
        refs.push_back(in_root);
    }
    refs.push_back(FileRef{"/dev/null", "/dev/null", false});
    const uint64_t hashed = digest_stats().files_hashed;
    const std::vector<FileFacts> out = file_facts_many(HostRoot("/"), refs);
    ASSERT_EQ(out.size(), refs.size());
    EXPECT_EQ(digest_stats().files_hashed, hashed + 200);
    for (size_t i = 0; i + 1 < refs.size(); ++i) {
        EXPECT_EQ(out[i].md5, facts_of(refs[i - i % 2].open_path).md5) << i;
    }
    EXPECT_TRUE(out.back().md5.empty());
}
