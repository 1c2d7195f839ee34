// The library walk against `find ROOTS -type f` over the same roots, on a
// tree of 10,000 files with 200 jars (20 of them fat, with nested jars), and
// the peak memory with a 500 MB fat jar beside them. Run by hand:
//   build/bin/bench_libraries [scratch-dir]
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench_util.h"
#include "libraries/library_walk.h"

using namespace amsvc;

namespace {

const char* kBuild = R"PY(
import os, sys, zipfile, io
root = sys.argv[1]
def pom(g, a, v):
    return 'groupId=%s\nartifactId=%s\nversion=%s\n' % (g, a, v)
def small_jar(g, a, v):
    b = io.BytesIO()
    with zipfile.ZipFile(b, 'w', zipfile.ZIP_DEFLATED) as z:
        z.writestr('META-INF/MANIFEST.MF', 'Manifest-Version: 1.0\n')
        z.writestr('META-INF/maven/%s/%s/pom.properties' % (g, a), pom(g, a, v))
        for k in range(20): z.writestr('%s/C%d.class' % (a, k), os.urandom(200))
    return b.getvalue()
files = 0
apps = ['opt', 'srv', 'var/www', 'usr/local', 'root', 'home/u1', 'home/u2', 'var/lib']
for i in range(200):
    d = os.path.join(root, apps[i % len(apps)], 'app%d' % i, 'lib')
    os.makedirs(d, exist_ok=True)
    if i % 10 == 0:
        with zipfile.ZipFile(os.path.join(d, 'fat%d-1.0.jar' % i), 'w', zipfile.ZIP_STORED) as z:
            z.writestr('META-INF/maven/com.acme/fat%d/pom.properties' % i, pom('com.acme', 'fat%d' % i, '1.0'))
            for k in range(10):
                z.writestr('BOOT-INF/lib/dep%d-%d.2.jar' % (k, i), small_jar('org.dep%d' % k, 'dep%d' % k, '%d.2' % i))
    else:
        with open(os.path.join(d, 'lib%d-2.%d.jar' % (i, i)), 'wb') as f: f.write(small_jar('org.lib', 'lib%d' % i, '2.%d' % i))
    files += 1
# The rest: sources, configs, logs, in nested directories.
n = 0
while files < 10000:
    d = os.path.join(root, apps[n % len(apps)], 'app%d' % (n % 200), 'data', 'd%d' % (n % 37), 'e%d' % (n % 11))
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, 'f%d.%s' % (n, ['txt', 'py', 'js', 'conf', 'log', 'html'][n % 6])), 'w') as f:
        f.write('x' * (n % 300))
    files += 1
    n += 1
print(files)
)PY";

const char* kBig = R"PY(
import os, sys, zipfile, io
root = sys.argv[1]
os.makedirs(os.path.join(root, 'opt/big'), exist_ok=True)
chunk = b'\0' * (1 << 20)
with zipfile.ZipFile(os.path.join(root, 'opt/big/huge-1.0.jar'), 'w', zipfile.ZIP_STORED) as z:
    for k in range(10):
        b = io.BytesIO()
        with zipfile.ZipFile(b, 'w') as inner:
            inner.writestr('META-INF/maven/org.big/dep%d/pom.properties' % k, 'groupId=org.big\nartifactId=dep%d\nversion=1\n' % k)
        z.writestr('BOOT-INF/lib/dep%d-1.jar' % k, b.getvalue())
    with z.open('BOOT-INF/classes/blob.bin', 'w', force_zip64=True) as f:
        for _ in range(500): f.write(chunk)
)PY";

long peak_rss_kib() {
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_maxrss;
}

bool run_python(const std::string& dir, const char* script, const std::string& arg) {
    const std::string file = dir + "/.gen.py";
    FILE* f = fopen(file.c_str(), "w");
    if (!f) return false;
    fputs(script, f);
    fclose(f);
    const bool ok = system(("/usr/bin/python3 '" + file + "' '" + arg + "' >/dev/null").c_str()) == 0;
    unlink(file.c_str());
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    std::string base = argc > 1 ? argv[1] : "/tmp";
    std::string tmpl = base + "/bench_libs_XXXXXX";
    if (!mkdtemp(&tmpl[0])) {
        perror("mkdtemp");
        return 1;
    }
    const std::string tree = tmpl;
    printf("building the tree in %s ...\n", tree.c_str());
    if (!run_python(tree, kBuild, tree + "/root")) return 1;
    const HostRoot root(tree + "/root");

    std::string find_cmd = "find";
    for (const std::string& r : library_roots(root))
        if (access((tree + "/root" + r).c_str(), F_OK) == 0) find_cmd += " '" + tree + "/root" + r + "'";
    find_cmd += " -type f 2>/dev/null";

    LibraryLimits lim;
    std::vector<AM::ThirdPartDevLibInfo> out;
    LibraryStats st;
    collect_libraries(root, out, lim, &st);  // warms the page cache for both
    ambench::run_peer(find_cmd);
    const size_t records = out.size();

    const double fresh = ambench::median_ms([&] {
        clear_library_cache();
        collect_libraries(root, out, lim, &st);
    });
    const double find_ms = ambench::median_ms([&] { ambench::run_peer(find_cmd); });
    const double repeated = ambench::median_ms([&] { collect_libraries(root, out, lim, &st); });
    const double find_ms2 = ambench::median_ms([&] { ambench::run_peer(find_cmd); });
    const double peer = (find_ms + find_ms2) / 2;
    printf("tree: %zu entries, %zu records (%zu read, %zu cached on the last run)\n", st.entries, records,
           st.parsed, st.cached);
    printf("find -type f      %8.1f ms\n", peer);
    printf("fresh collection  %8.1f ms  ratio %.2f (target <= 3)\n", fresh, fresh / peer);
    printf("repeated          %8.1f ms  ratio %.2f (target <= 1)\n", repeated, repeated / peer);

    printf("adding a 500 MB fat jar ...\n");
    if (!run_python(tree, kBig, tree + "/root")) return 1;
    clear_library_cache();
    collect_libraries(root, out, lim, &st);
    size_t big = 0;
    for (const auto& r : out) big += r.path.find("huge-1.0.jar") != std::string::npos;
    printf("with the 500 MB jar: %zu records from it, peak RSS %.1f MiB (target < 64)\n", big,
           peak_rss_kib() / 1024.0);
    system(("rm -rf '" + tree + "'").c_str());
    return 0;
}
