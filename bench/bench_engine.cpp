// Run by hand: the container engine collector against the podman client
// asking the same engine (`podman info && podman ps -a && podman images`),
// side by side, median of 5, printed as a ratio (collector time / client time).
//
//   build/bin/bench_engine [containers]
//
// Sets up a private Podman storage under /tmp with one image imported offline
// and the given number of containers (default 8, half of them running),
// starts Podman's API service on a socket there, and removes it all after.
// Service and client run with a service manager's environment (plain PATH):
// Podman runs rpm and dpkg for its /info, and wrappers on a login PATH slow
// both sides alike.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "bench_util.h"
#include "containers/engine.h"

using namespace amsvc;

namespace {

int shell(const std::string& cmd) { return ambench::run_peer("{ " + cmd + "; } >/dev/null 2>&1").status; }

}  // namespace

int main(int argc, char** argv) {
    const int containers = argc > 1 ? atoi(argv[1]) : 8;
    if (shell("command -v podman && command -v runc") != 0) {
        printf("podman or runc not installed\n");
        return 0;
    }
    char tmpl[] = "/tmp/ambench_engine_XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    const std::string d = tmpl;
    const std::string podman =
        "env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root timeout 300 podman --root " + d +
        "/storage --runroot " + d + "/run --storage-driver vfs ";
    const std::string sock = d + "/engine.sock";
    shell("mkdir -p " + d + "/rootfs/bin && cd " + d +
          "/rootfs && for f in $(ldd /usr/bin/sleep | grep -v ':$' | "
          "grep -o '/[^ ]*' | sort -u); do cp --parents -L \"$f\" .; done && cp -L /usr/bin/sleep bin/ && "
          "tar -cf ../rootfs.tar .");
    shell(podman + "import -q " + d + "/rootfs.tar ambench-engine:1");
    const std::string run =
        "--runtime runc --network none --ulimit nofile=1024:1024 --ulimit nproc=1024:1024 ";
    for (int i = 0; i < containers; ++i)
        shell(podman + (i % 2 ? "create " : "run -d ") + run + "--name ambench_" + std::to_string(i) +
              " ambench-engine:1 /bin/sleep 900");

    const pid_t service = fork();
    if (service == 0) {
        setpgid(0, 0);
        execl("/bin/sh", "sh", "-c", ("exec " + podman + "system service --time=0 unix://" + sock).c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    IAssetManager::DockerInfo info;
    int rc = -1;
    for (int i = 0; i < 300 && rc != 0; ++i) {
        rc = engine::query_engines({sock}, info, 30000);
        if (rc != 0) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (rc == 0) {
        int last = 0;
        const double mine = ambench::median_ms([&] { last = engine::query_engines({sock}, info); });
        const std::string client =
            "env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root podman --url unix://" + sock + " ";
        const std::string peer = client + "info && " + client + "ps -a && " + client + "images";
        int status = 0;
        const double theirs =
            ambench::median_ms([&] { status = ambench::run_peer(peer + " 2>/dev/null").status; });
        // The engine's /info alone: what no client of this engine can go below.
        const double info_ms = ambench::median_ms(
            [&] { ambench::run_peer("curl -s --unix-socket " + sock + " http://localhost/info"); });
        printf("the engine's own /info alone %.1f ms (collector / that %.3g)\n", info_ms,
               info_ms > 0 ? mine / info_ms : 0.0);
        printf(
            "engine (%s images, %s containers)  collector %.1f ms (last code %d)   "
            "podman info && podman ps -a && podman images %.1f ms%s   ratio %.3g\n",
            info.image_num.c_str(), info.container_num.c_str(), mine, last, theirs,
            status == 0 ? "" : " (exit!=0)", theirs > 0 ? mine / theirs : 0.0);
    } else {
        printf("the engine did not answer: %d\n", rc);
    }
    kill(-service, SIGTERM);
    waitpid(service, nullptr, 0);
    shell(podman + "rm -af -t 0");
    shell(podman + "rmi -af");
    // conmon runs podman's cleanup of each stopped container on its own (the
    // "[/]" keeps the pattern from matching the shell that runs it):
    // wait (bounded) until nothing of this storage runs before removing it.
    shell("for i in $(seq 50); do pgrep -f '[/]" + d.substr(1) + "' >/dev/null || break; sleep 0.2; done");
    shell("rm -rf " + d);
    return rc == 0 ? 0 : 1;
}
