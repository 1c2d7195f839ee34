// The container engine: the engine's answers read into the record, a fake
// engine on a unix socket that misbehaves in every way a stuck or hostile
// engine can, and the search for engine sockets under a root.
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <map>
#include <thread>

#include "collectors.h"
#include "containers/engine.h"
#include "core/root_open.h"
#include "test_util.h"

namespace {

using namespace amsvc;
using engine::Json;
typedef IAssetManager::DockerInfo DockerInfo;

std::string fixture(const std::string& name) { return amtest::read_text(ASSETMAN_FIXTURES "/" + name); }

// Every field of the record, one a line.
std::string record(const DockerInfo& d) {
    return d.storage_driver + "\n" + d.root_dir + "\n" + d.version + "\n" + d.image_num + "\n" +
           d.container_num + "\n" + d.images + "\n" + d.containers + "\n";
}

// A record whose fields all say "before": a failed query must leave it so.
DockerInfo sentinel() {
    DockerInfo d;
    d.storage_driver = d.root_dir = d.version = d.image_num = d.container_num = d.images = d.containers =
        "before";
    return d;
}

// The descriptors and threads of this process are as many at its end as at its start.
struct NoLeaks {
    static ptrdiff_t count(const char* dir) {
        return std::distance(std::filesystem::directory_iterator(dir), std::filesystem::directory_iterator());
    }
    const ptrdiff_t fds = count("/proc/self/fd"), tasks = count("/proc/self/task");
    ~NoLeaks() {
        EXPECT_EQ(fds, count("/proc/self/fd"));
        EXPECT_EQ(tasks, count("/proc/self/task"));
    }
};

// Answers that differ from the recorded shapes.
TEST(EngineParse, RefusedAndOddAnswers) {
    const std::string deep(100000, '[');
    std::string many = "[0";
    for (int i = 0; i < (1 << 20) + 1; ++i) many += ",0";
    struct Case {
        std::string text;
        int parse;
    } cases[] = {
        {deep, -EPROTO},
        {deep + std::string(100000, ']'), -EPROTO},
        {many + "]", -EPROTO},
        {R"({"Version":"[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[["})",
         0},
        {R"({"Version":"1", )", -EPROTO},
        {"{\"Version\":\"\xff\"}", -EPROTO},  // not UTF-8
        {"", -EPROTO},
        {"[\"" + std::string(2u << 20, 'a') + "\"]", 0},
    };
    for (const Case& c : cases) {
        Json j;
        EXPECT_EQ(c.parse, engine::parse_json(c.text, j)) << c.text.substr(0, 40);
    }
    // Wrong types are refused at the top and read as empty below it.
    const char* odd_row =
        R"([{"Id":5,"Names":{"a":1},"Created":"2024-01-02T03:04:05Z","Ports":7,"State":null}])";
    struct Shape {
        const char* text;
        int info, images, containers;
    } shapes[] = {
        {"[]", -EPROTO, 0, 0},
        {"{}", 0, -EPROTO, -EPROTO},
        {R"({"ServerVersion":7})", 0, -EPROTO, -EPROTO},
        {R"([1])", -EPROTO, -EPROTO, -EPROTO},
        {odd_row, -EPROTO, 0, 0},
    };
    Json j, rows;
    for (const Shape& s : shapes) {
        SCOPED_TRACE(s.text);
        ASSERT_EQ(0, engine::parse_json(s.text, j));
        DockerInfo d;
        EXPECT_EQ(s.info, engine::read_info(j, d));
        EXPECT_EQ(s.images, engine::image_rows(j, rows));
        EXPECT_EQ(s.containers, engine::container_rows(j, rows));
    }
    EXPECT_EQ(
        R"([{"command":"","created":"2024-01-02T03:04:05Z","id":"","image":"","image_id":"","mounts":[],)"
        R"("names":[],"pid":0,"ports":[],"state":"","status":""}])",
        engine::compact(rows));
    // The API version goes into request paths: only digits and one dot.
    for (const char* v : {"1.41/../../x", "", "1.", ".1", "1", "1.4a", "1234567.1", "1.2.3"})
        EXPECT_FALSE(engine::is_api_version(v)) << v;
    EXPECT_TRUE(engine::is_api_version("1.43"));
    // A pid as text is none (a good one: Engine.AnswersFillTheRecord).
    ASSERT_EQ(0, engine::parse_json(R"({"State":{"Pid":"4242"}})", j));
    EXPECT_EQ(-1, engine::inspect_pid(j));
}

// A unix socket bound at `path`, or -1; closed without listen, it is a stale one left behind.
int bound_socket(const std::string& path) {
    const int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    unlink(path.c_str());
    return bind(s, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0 ? s : (close(s), -1);
}

// An engine's answer with its body.
std::string reply(int status, const std::string& body) {
    return "HTTP/1.1 " + std::to_string(status) + (status == 200 ? " OK" : " Error") +
           "\r\nApi-Version: 1.41\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

// How the fake engine answers a request whose path holds its `bad` text:
// never; with its `head` then a close; with its `head` then a byte a second,
// or then 1 GB.
enum class Mode { Normal, Silent, Raw, Trickle, Flood };

// A unix-socket engine in threads of the test: every path gets its route, or
// a 404, unless it holds `bad`: then it gets `mode`.
class FakeEngine {
public:
    FakeEngine(const std::string& path, std::map<std::string, std::string> routes, Mode mode = Mode::Normal,
               std::string bad = "", std::string head = "")
        : routes_(std::move(routes)), mode_(mode), bad_(std::move(bad)), head_(std::move(head)) {
        listen_fd_ = bound_socket(path);
        if (listen_fd_ < 0 || listen(listen_fd_, 8) != 0) ADD_FAILURE() << "cannot listen on " << path;
        stop_fd_ = eventfd(0, EFD_CLOEXEC);
        thread_ = std::thread([this] {
            while (wait(listen_fd_, POLLIN)) {
                const int c = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
                if (c < 0) continue;
                ++connections;
                talks_.emplace_back([this, c] {
                    talk(c);
                    close(c);
                });
            }
        });
    }
    ~FakeEngine() {
        uint64_t one = 1;
        (void)!write(stop_fd_, &one, sizeof one);
        thread_.join();
        for (std::thread& t : talks_) t.join();
        close(listen_fd_);
        close(stop_fd_);
    }
    std::atomic<int> requests{0}, connections{0};

private:
    // Waits for `fd` or the stop signal; false when stopping.
    bool wait(int fd, short events, int ms = -1) {
        pollfd p[2] = {{fd, events, 0}, {stop_fd_, POLLIN, 0}};
        const int n = poll(p, 2, ms);
        return n == 0 || (n > 0 && !(p[1].revents & POLLIN));
    }
    bool send_all(int fd, const std::string& s) {
        for (size_t off = 0; off < s.size();) {
            const ssize_t n = wait(fd, POLLOUT) ? send(fd, s.data() + off, s.size() - off, MSG_NOSIGNAL) : 0;
            if (n <= 0) return false;
            off += static_cast<size_t>(n);
        }
        return true;
    }
    // One connection: requests until the client closes or a mode ends it.
    void talk(int c) {
        std::string in;
        char buf[4096];
        for (;;) {
            size_t end;
            while ((end = in.find("\r\n\r\n")) == std::string::npos) {
                const ssize_t n = wait(c, POLLIN) ? recv(c, buf, sizeof buf, 0) : 0;
                if (n <= 0) return;
                in.append(buf, static_cast<size_t>(n));
            }
            std::string path = in.substr(4, in.find(' ', 4) - 4);
            in.erase(0, end + 4);
            ++requests;
            if (path.compare(0, 3, "/v1") == 0) path.erase(0, path.find('/', 1));  // version prefix
            const auto it = routes_.find(path);
            switch (!bad_.empty() && path.find(bad_) != std::string::npos ? mode_ : Mode::Normal) {
                case Mode::Normal:
                    if (!send_all(c, it == routes_.end() ? reply(404, R"({"message":"no such"})")
                                                         : reply(200, it->second)))
                        return;
                    continue;
                case Mode::Silent:
                    wait(c, 0);  // until stopped
                    return;
                case Mode::Raw:
                    send_all(c, head_);
                    return;
                case Mode::Trickle:
                    if (!send_all(c, head_)) return;
                    while (wait(c, 0, 1000) && send(c, " ", 1, MSG_NOSIGNAL) == 1) {
                    }
                    return;
                case Mode::Flood: {
                    // 1 GB, streamed until the client stops reading.
                    if (!send_all(c, head_)) return;
                    const std::string chunk(1 << 16, ' ');
                    for (size_t sent = 0; sent < (1u << 30) && send_all(c, chunk); sent += chunk.size()) {
                    }
                    return;
                }
            }
        }
    }

    std::map<std::string, std::string> routes_;
    Mode mode_;
    std::string bad_, head_;
    int listen_fd_ = -1, stop_fd_ = -1;
    std::thread thread_;
    std::vector<std::thread> talks_;  // one per connection
};

const std::string kPodmanRunning = "2fc752d09a42edc2ec1dcc93ceeb5fa17081ba035b1b0821b69600255348bd36";

// The recorded answers of `engine` ("docker", "podman"); its running
// container's inspection gives pid 16247 unless it went away (`gone`).
std::map<std::string, std::string> routes(const std::string& engine, bool gone = false) {
    const std::string running = engine == "docker" ? "8dfafdbc3a40" : kPodmanRunning;
    std::map<std::string, std::string> r = {{"/_ping", "OK"},
                                            {"/info", fixture(engine + "_info.json")},
                                            {"/images/json", fixture(engine + "_images.json")},
                                            {"/containers/json?all=1", fixture(engine + "_containers.json")}};
    if (!gone) r["/containers/" + running + "/json"] = R"({"Id":"x","State":{"Pid":16247}})";
    return r;
}

// The record an engine's recorded answers make, as its _expected.json holds it.
std::string expected(const std::string& engine, int running_pid) {
    Json w = Json::parse(fixture(engine + "_expected.json"));
    w["containers"][0]["pid"] = running_pid;
    return w["storage_driver"].get<std::string>() + "\n" + w["root_dir"].get<std::string>() + "\n" +
           w["version"].get<std::string>() + "\n" + w["image_num"].get<std::string>() + "\n" +
           w["container_num"].get<std::string>() + "\n" + w["images"].dump() + "\n" + w["containers"].dump() +
           "\n";
}

class Engine : public ::testing::Test {
protected:
    amtest::TempDir dir{"amsvc_engine"};
    std::string sock(const std::string& name) const { return dir.path + "/" + name; }
};

// Each engine's recorded answers through the socket: the record its
// _expected.json holds, with the running container's pid from its
// inspection, or -1 when it went away between list and inspection.
TEST_F(Engine, AnswersFillTheRecord) {
    NoLeaks no_leaks;
    for (const std::string engine : {"docker", "podman"}) {
        for (const bool gone : {false, true}) {
            SCOPED_TRACE(engine + (gone ? " gone" : ""));
            FakeEngine e(sock("e.sock"), routes(engine, gone));
            DockerInfo d = sentinel();
            ASSERT_EQ(0, engine::query_engines({sock("e.sock")}, d));
            EXPECT_EQ(expected(engine, gone ? -1 : 16247), record(d));
            EXPECT_EQ(5, e.requests);     // one inspection
            EXPECT_GE(3, e.connections);  // connections kept for the next request
        }
    }
}

TEST_F(Engine, MisbehavingEnginesFailWithTheirCodeAndLeaveNothingBehind) {
    const std::string ok = "HTTP/1.1 200 OK\r\n",
                      half = ok + "Content-Length: 5000\r\n\r\n{\"Version\":\"1.0\",",
                      e500 = reply(500, R"({"message":"server error"})");
    struct Case {
        const char* name;
        Mode mode;
        std::string bad;   // the path that misbehaves
        std::string body;  // its head, or a route body replaced
        int32_t code;
    } cases[] = {
        {"never answers", Mode::Silent, "/_ping", "", -ETIMEDOUT},
        {"never answers the list", Mode::Silent, "/containers/json", "", -ETIMEDOUT},
        {"trickles a byte a second", Mode::Trickle, "/images/json", ok + "Content-Length: 100000\r\n\r\n[",
         -ETIMEDOUT},
        {"1 GB without length", Mode::Flood, "/info", ok + "Connection: close\r\n\r\n[", -EMSGSIZE},
        {"1 GB with its length", Mode::Flood, "/containers/json", ok + "Content-Length: 1073741824\r\n\r\n[",
         -EMSGSIZE},
        {"closes mid-answer", Mode::Raw, "/_ping", half, -EPROTO},
        {"closes mid-list", Mode::Raw, "/images/json", half, -EPROTO},
        {"HTTP 500", Mode::Raw, "/info", e500, -EPROTO},
        {"HTTP 500 on inspection", Mode::Raw, "/containers/" + kPodmanRunning, e500, -EPROTO},
        {"not HTTP", Mode::Raw, "/_ping", "SSH-2.0-OpenSSH_9.2\r\n\r\n\r\n", -EPROTO},
        // Other refused answers: EngineParse.RefusedAndOddAnswers.
        {"malformed JSON", Mode::Normal, "/images/json", R"([{"Id": "sha256:1", )", -EPROTO},
        {"not an engine", Mode::Normal, "/_ping", "", -EPROTO},
    };
    NoLeaks no_leaks;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto r = routes("podman");
        if (c.mode == Mode::Normal && c.body.empty()) r.erase(c.bad);
        if (c.mode == Mode::Normal && !c.body.empty()) r[c.bad] = c.body;
        FakeEngine e(sock("e.sock"), r, c.mode, c.bad, c.body);
        DockerInfo d = sentinel();
        EXPECT_EQ(c.code, engine::query_engines({sock("e.sock")}, d, 1500));
        EXPECT_EQ(record(sentinel()), record(d));
    }
}

TEST_F(Engine, FirstEngineThatAnswersFillsTheRecord) {
    ASSERT_EQ(0, close(bound_socket(sock("stale.sock"))));  // nobody listening: refused
    FakeEngine hung(sock("hung.sock"), routes("podman"), Mode::Silent, "/_ping");
    FakeEngine good(sock("good.sock"), routes("podman"));
    struct Case {
        std::vector<std::string> sockets;
        int32_t code;
    } cases[] = {
        {{}, -ENOENT},
        {{sock("stale.sock")}, -ECONNREFUSED},
        {{sock("missing.sock")}, -ECONNREFUSED},
        {{sock("stale.sock"), sock("good.sock")}, 0},
        {{sock("hung.sock"), sock("good.sock")}, 0},  // the first answer has its own, shorter limit
    };
    for (const Case& c : cases) {
        DockerInfo d = sentinel();
        EXPECT_EQ(c.code, engine::query_engines(c.sockets, d, 2500)) << c.sockets.size();
        EXPECT_EQ(c.code == 0 ? "4.3.1" : "before", d.version);
    }
}

// An agent that is not root meets the root-only socket of an engine.
TEST_F(Engine, UnprivilegedCallerIsRefused) {
    FakeEngine e(sock("root.sock"), routes("podman"));
    chmod(sock("root.sock").c_str(), 0700);
    chmod(dir.path.c_str(), 0755);
    EXPECT_EQ(EACCES, amtest::as_nobody([&] {
                  DockerInfo d;
                  return -engine::query_engines({sock("root.sock")}, d);
              }));
    EXPECT_EQ(0, e.requests);
}

// Path resolution: what counts as an engine socket under a root.
TEST_F(Engine, SocketsAreFoundInsideTheRootOnly) {
    auto make_socket = [&](const std::string& rel, uid_t owner) {
        dir.mkdir(rel.substr(0, rel.rfind('/')));
        ASSERT_EQ(0, close(bound_socket(dir.path + rel)));
        ASSERT_EQ(0, lchown((dir.path + rel).c_str(), owner, owner));
    };
    amtest::TempDir outside{"amsvc_engine_host"};
    FakeEngine machine(outside.path + "/docker.sock", routes("podman"));

    dir.mkdir("/run");
    dir.link("/var/run", "../run");                               // one socket, two names
    dir.link("/run/docker.sock", outside.path + "/docker.sock");  // a link to the machine's engine
    make_socket("/run/podman/podman.sock", 0);
    make_socket("/run/user/1000/podman/podman.sock", 1000);  // the user's own
    make_socket("/run/user/1001/podman/podman.sock", 1002);  // someone else's in 1001's dir
    dir.file("/run/user/1003/podman/podman.sock", "");       // not a socket
    make_socket("/run/user/999/podman/real.sock", 999);
    dir.link("/run/user/999/podman/podman.sock", "real.sock");  // the name is a link
    dir.link("/run/user/998", "/run/podman");                   // a directory link, inside the root
    dir.mkdir("/run/user/nobody");

    // Sockets are connected through the descriptor that was checked.
    FakeEngine e(dir.path + "/run/podman/podman.sock", routes("podman"));
    const int root_fd = open_root_dir(dir.path);
    ASSERT_GE(root_fd, 0);
    {
        const auto found = engine::find_engine_sockets(root_fd);
        std::vector<std::string> names;
        for (const auto& s : found) names.push_back(s.host_path);
        EXPECT_EQ((std::vector<std::string>{"/run/podman/podman.sock", "/run/user/1000/podman/podman.sock"}),
                  names);
        ASSERT_FALSE(found.empty());
        DockerInfo d;
        EXPECT_EQ(0, engine::query_engines({found[0].connect_path()}, d));
        EXPECT_EQ("vfs", d.storage_driver);
    }
    close(root_fd);

    // A mounted image has no engine: the machine's is never reached, even
    // through the image's own /var/run/docker.sock.
    unlink((dir.path + "/run/podman/podman.sock").c_str());
    DockerInfo d = sentinel();
    EXPECT_EQ(-ENOENT, collect_engine(HostRoot(dir.path), d));
    EXPECT_EQ(record(sentinel()), record(d));
    EXPECT_EQ(0, machine.requests);
}

}  // namespace
