// The collector against Podman's real API service, as root and rootless, on a
// private storage with an image imported offline; compared with what the
// podman client itself reports for the same storage.
#include <signal.h>

#include <chrono>
#include <set>
#include <thread>

#include "containers/engine.h"
#include "test_util.h"

namespace {

using namespace amsvc;
using engine::Json;

// This machine is shared and loaded: Podman's /info alone can take seconds
// (it asks dpkg for its runtime's package). What is compared here is the
// content, so the engine is given more time than a collection's budget.
constexpr int kPatientMs = 30000;

class PodmanEngine {
public:
    // `user` empty: root; else the engine runs as that user (rootless).
    explicit PodmanEngine(const std::string& user) : rootless_(!user.empty()), user_(user) {
        const std::string d = dir_.path;
        for (const char* sub : {"/xdg", "/data", "/rootfs/bin"}) dir_.mkdir(sub);
        chmod(d.c_str(), 0755);
        chmod((d + "/xdg").c_str(), 0700);
        // A tiny root file system: sleep and a shell with the libraries they load.
        sh("cd " + d +
           "/rootfs && for f in $(ldd /usr/bin/sleep /bin/dash | grep -v ':$' | grep -o '/[^ ]*' | sort -u); "
           "do "
           "cp --parents -L \"$f\" . || exit 1; done && cp -L /usr/bin/sleep bin/ && cp -L /bin/dash bin/sh "
           "&& tar -cf ../rootfs.tar .");
        if (rootless_) sh("chown -R " + user + " " + d);
        socket_ = d + "/xdg/engine.sock";
        // The environment a service manager gives it: this shell's PATH may
        // hold slow wrappers of the tools Podman runs for /info.
        podman_ = (rootless_ ? "runuser -u " + user + " -- " : std::string()) +
                  "env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=" + (rootless_ ? d : "/root") +
                  (rootless_ ? " XDG_RUNTIME_DIR=" + d + "/xdg" : std::string()) +
                  " timeout 120 podman --root " + d + "/storage --runroot " + d +
                  "/xdg/run --storage-driver vfs ";
    }
    ~PodmanEngine() {
        if (service_ > 0) {
            kill(-service_, SIGTERM);
            waitpid(service_, nullptr, 0);
        }
        sh(podman_ + "rm -af -t 0 >/dev/null 2>&1; " + podman_ + "rmi -af >/dev/null 2>&1");
        // conmon runs podman's cleanup of each stopped container on its own (the
        // "[/]" keeps the pattern from matching the shell that runs it):
        // the storage is removed once nothing of it runs (bounded).
        sh("for i in $(seq 50); do pgrep -f '[/]" + dir_.path.substr(1) +
           "' >/dev/null || break; sleep 0.2; done");
        // A rootless engine leaves its user namespace's pause process behind.
        if (rootless_)
            sh("for p in $(pgrep -u " + user_ + " podman); do grep -qz '^XDG_RUNTIME_DIR=" + dir_.path +
               "/xdg$' /proc/$p/environ && kill -9 $p; done");
    }

    // Image, tags and three containers: running, created, exited.
    bool populate() {
        const std::string net = rootless_ ? "--network none " : "-p 127.0.0.1::80 ";
        const std::string run = "--runtime runc --ulimit nofile=1024:1024 --ulimit nproc=1024:1024 ";
        return sh(podman_ + "import -q " + dir_.path + "/rootfs.tar amtest-engine:1 >/dev/null") &&
               sh(podman_ + "tag amtest-engine:1 amtest-engine:second") &&
               sh(podman_ + "run -d --name amtest_running " + net + run + "-v " + dir_.path +
                  "/data:/data:ro amtest-engine:1 /bin/sleep 600 >/dev/null") &&
               sh(podman_ + "create --name amtest_created amtest-engine:1 /bin/sh >/dev/null") &&
               sh(podman_ + "run --name amtest_exited " + run +
                  "--network none amtest-engine:1 /bin/sh -c 'exit 3' "
                  ">/dev/null; true");
    }

    // Starts the API service and waits (bounded) until it answers.
    bool start() {
        service_ = fork();
        if (service_ == 0) {
            setpgid(0, 0);
            execl("/bin/sh", "sh", "-c",
                  ("exec " + podman_ + "system service --time=0 unix://" + socket_ + " >/dev/null 2>&1")
                      .c_str(),
                  static_cast<char*>(nullptr));
            _exit(127);
        }
        int rc = -1;
        for (int i = 0; i < 300; ++i) {
            IAssetManager::DockerInfo d;
            if ((rc = engine::query_engines({socket_}, d, kPatientMs)) == 0) return true;
            if (rc != -ECONNREFUSED) break;  // the socket is there: no more waiting
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        ADD_FAILURE() << "engine at " << socket_ << ": " << rc;
        return false;
    }

    Json client_json(const std::string& args) {
        return Json::parse(amtest::run(podman_ + args + " 2>/dev/null"), nullptr, false);
    }

    std::string socket_, podman_;

private:
    static bool sh(const std::string& cmd) {
        int st = 0;
        amtest::run(cmd, &st);
        return WIFEXITED(st) && WEXITSTATUS(st) == 0;
    }
    amtest::TempDir dir_{"amsvc_podman"};
    bool rootless_;
    std::string user_;
    pid_t service_ = -1;
};

std::string no_prefix(std::string id) { return id.compare(0, 7, "sha256:") == 0 ? id.substr(7) : id; }

void compare_with_client(PodmanEngine& p) {
    IAssetManager::DockerInfo d;
    ASSERT_EQ(0, engine::query_engines({p.socket_}, d, kPatientMs));

    const Json info = p.client_json("info --format json");
    ASSERT_TRUE(info.is_object());
    const Json& store = info["store"];
    EXPECT_EQ(
        store["graphDriverName"].get<std::string>() + " " + store["graphRoot"].get<std::string>() + " " +
            info["version"]["Version"].get<std::string>() + " " + store["imageStore"]["number"].dump() + " " +
            store["containerStore"]["number"].dump(),
        d.storage_driver + " " + d.root_dir + " " + d.version + " " + d.image_num + " " + d.container_num);

    // podman images lists an image once per name: one image, two names.
    const Json theirs = p.client_json("images --format json"), ours = Json::parse(d.images);
    ASSERT_EQ(2u, theirs.size());
    ASSERT_EQ(1u, ours.size());
    std::set<std::string> names;
    for (const Json& im : theirs) {
        EXPECT_EQ(no_prefix(im["Id"]) + " " + im["Size"].dump() + " " + im["Digest"].dump(),
                  no_prefix(ours[0]["id"]) + " " + ours[0]["size"].dump() + " " + ours[0]["digest"].dump());
        for (const Json& n : im["Names"]) names.insert(n.get<std::string>());
    }
    EXPECT_EQ(names, ours[0]["tags"].get<std::set<std::string>>());

    // podman ps -a: the same containers, names, states, main processes and
    // images; ports published only by root's running one.
    auto row = [](const Json& c, const char* id, const char* names, const char* state, const char* pid,
                  const char* image, const char* ports) {
        return c[id].get<std::string>() + " " + c[names].dump() + " " + c[state].get<std::string>() + " " +
               c[pid].dump() + " " + no_prefix(c[image]) + " " + std::to_string(c[ports].empty());
    };
    const Json ps = p.client_json("ps -a --format json"), cs = Json::parse(d.containers);
    std::set<std::string> want, got;
    for (const Json& t : ps) want.insert(row(t, "Id", "Names", "State", "Pid", "ImageID", "Ports"));
    for (const Json& c : cs) got.insert(row(c, "id", "names", "state", "pid", "image_id", "ports"));
    EXPECT_EQ(want, got);
    ASSERT_EQ(3u, cs.size());
    std::set<std::string> states;
    for (const Json& c : cs) {
        states.insert(c["state"].get<std::string>());
        if (c["state"] != "running") continue;
        // The pid ties the container to the host's process list.
        std::ifstream cmd("/proc/" + std::to_string(c["pid"].get<int>()) + "/cmdline");
        std::string argv0;
        std::getline(cmd, argv0, '\0');
        ASSERT_EQ(1u, c["mounts"].size());
        EXPECT_EQ("/bin/sleep /data false", argv0 + " " + c["mounts"][0]["destination"].get<std::string>() +
                                                " " + c["mounts"][0]["rw"].dump());
    }
    EXPECT_EQ((std::set<std::string>{"running", "created", "exited"}), states);
}

// `user` empty: root; else rootless. nobody has no subordinate ids here:
// podman maps that one uid alone, enough for an image whose files all belong
// to root.
void engine_matches_client(const std::string& user) {
    if (!amtest::have_tools("podman runc runuser ldd tar")) GTEST_SKIP() << "podman not installed";
    PodmanEngine p(user);
    ASSERT_TRUE(p.populate());
    ASSERT_TRUE(p.start());
    compare_with_client(p);
}

TEST(Podman, RootEngineMatchesTheClient) { engine_matches_client(""); }
TEST(Podman, RootlessEngineMatchesTheClient) { engine_matches_client("nobody"); }

}  // namespace
