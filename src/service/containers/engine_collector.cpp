// The container engine, asked over its API socket.
#include <curl/curl.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <set>
#include <utility>

#include "collectors.h"
#include "containers/engine.h"
#include "core/root_open.h"

namespace amsvc {
namespace engine {

namespace {

using Clock = std::chrono::steady_clock;

void init_curl_once() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// One connection to one engine, reused by every request of a collection.
class Session {
public:
    Session(const std::string& socket_path, Clock::time_point deadline) : deadline_(deadline) {
        init_curl_once();
        h_ = curl_easy_init();
        if (!h_) return;
        curl_easy_setopt(h_, CURLOPT_UNIX_SOCKET_PATH, socket_path.c_str());
        curl_easy_setopt(h_, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(h_, CURLOPT_PROXY, "");  // never a proxy from the environment
        curl_easy_setopt(h_, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
#if LIBCURL_VERSION_NUM >= 0x075500
        curl_easy_setopt(h_, CURLOPT_PROTOCOLS_STR, "http");
#else
        curl_easy_setopt(h_, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP));
#endif
        curl_easy_setopt(h_, CURLOPT_FOLLOWLOCATION, 0L);
        curl_easy_setopt(h_, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxResponse));
        curl_easy_setopt(h_, CURLOPT_WRITEFUNCTION, &Session::on_data);
        curl_easy_setopt(h_, CURLOPT_WRITEDATA, this);
    }
    ~Session() {
        if (h_) curl_easy_cleanup(h_);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // GET `path`; 0 with the body of a 200 answer, -ENOENT for a 404, else a
    // negative code as query_engines documents. At most `cap_ms` of the budget.
    int get(const std::string& path, std::string& body, long cap_ms = -1) {
        if (!h_) return -ENOMEM;
        const long left = static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now()).count());
        if (left <= 0) return -ETIMEDOUT;
        const long total = cap_ms > 0 ? std::min(left, cap_ms) : left;
        body_ = &body;
        body.clear();
        too_big_ = false;
        failed_alloc_ = false;
        const std::string url = "http://localhost" + path;
        curl_easy_setopt(h_, CURLOPT_URL, url.c_str());
        curl_easy_setopt(h_, CURLOPT_TIMEOUT_MS, total);
        curl_easy_setopt(h_, CURLOPT_CONNECTTIMEOUT_MS, std::min(total, static_cast<long>(kConnectMs)));
        const CURLcode rc = curl_easy_perform(h_);
        body_ = nullptr;
        if (failed_alloc_) return -ENOMEM;
        if (too_big_) return -EMSGSIZE;
        switch (rc) {
            case CURLE_OK:
                break;
            case CURLE_OPERATION_TIMEDOUT:
                return -ETIMEDOUT;
            case CURLE_FILESIZE_EXCEEDED:
                return -EMSGSIZE;
            case CURLE_OUT_OF_MEMORY:
                return -ENOMEM;
            case CURLE_COULDNT_CONNECT: {
                long os_errno = 0;
                curl_easy_getinfo(h_, CURLINFO_OS_ERRNO, &os_errno);
                return os_errno == EACCES || os_errno == EPERM ? -EACCES : -ECONNREFUSED;
            }
            case CURLE_GOT_NOTHING:
            case CURLE_RECV_ERROR:
            case CURLE_SEND_ERROR:
            case CURLE_PARTIAL_FILE:
            case CURLE_WEIRD_SERVER_REPLY:
            case CURLE_HTTP2:
            case CURLE_BAD_CONTENT_ENCODING:
            case CURLE_UNSUPPORTED_PROTOCOL:
                return -EPROTO;
            default:
                return -EIO;
        }
        long status = 0;
        curl_easy_getinfo(h_, CURLINFO_RESPONSE_CODE, &status);
        if (status == 404) return -ENOENT;
        return status == 200 ? 0 : -EPROTO;
    }

private:
    static size_t on_data(char* data, size_t size, size_t n, void* self_ptr) {
        Session* self = static_cast<Session*>(self_ptr);
        const size_t bytes = size * n;
        if (!self->body_) return 0;
        if (bytes > kMaxResponse - std::min(kMaxResponse, self->body_->size())) {
            self->too_big_ = true;
            return 0;  // aborts the transfer
        }
        try {
            self->body_->append(data, bytes);
        } catch (...) {
            self->failed_alloc_ = true;
            return 0;
        }
        return bytes;
    }

    CURL* h_ = nullptr;
    Clock::time_point deadline_;
    std::string* body_ = nullptr;
    bool too_big_ = false;
    bool failed_alloc_ = false;
};

// A container id goes into a request path: only what an engine's ids are made of.
bool plain_id(const std::string& id) {
    if (id.empty() || id.size() > 128) return false;
    return std::all_of(id.begin(), id.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    });
}

int get_json(Session& s, const std::string& path, Json& out, long cap_ms = -1) {
    std::string body;
    int rc = s.get(path, body, cap_ms);
    if (rc == -ENOENT) return -EPROTO;  // the engine lacks an endpoint it must have
    if (rc != 0) return rc;
    return parse_json(body, out);
}

// Whether a failure means "no engine behind this socket", so the next is tried.
bool try_next(int rc) { return rc == -ECONNREFUSED || rc == -EACCES || rc == -ETIMEDOUT; }

// One engine: 0 with `out` filled, or the first failure. `answered` tells
// whether it got as far as answering /version.
int32_t query_one(const std::string& socket_path, Clock::time_point deadline, DockerInfo& out, bool& answered) {
    answered = false;
    Session s(socket_path, deadline);
    Json j;
    int rc = get_json(s, "/version", j, kFirstAnswerMs);
    if (rc != 0) return rc;
    DockerInfo d;
    std::string api;
    if ((rc = read_version(j, d.version, api)) != 0) return rc;
    answered = true;
    // Asking for the version the engine speaks keeps the shapes it documents,
    // and an engine that drops unversioned paths still answers.
    const std::string prefix = api.empty() ? std::string() : "/v" + api;

    if ((rc = get_json(s, prefix + "/info", j)) != 0) return rc;
    if ((rc = read_info(j, d)) != 0) return rc;

    Json rows;
    if ((rc = get_json(s, prefix + "/images/json", j)) != 0) return rc;
    if ((rc = image_rows(j, rows)) != 0) return rc;
    d.images = compact(rows);

    if ((rc = get_json(s, prefix + "/containers/json?all=1", j)) != 0) return rc;
    if ((rc = container_rows(j, rows)) != 0) return rc;
    size_t asked = 0;
    for (Json& c : rows) {
        if (c["pid"].get<int64_t>() != -1) continue;
        const std::string& id = c["id"].get_ref<const std::string&>();
        if (asked >= kMaxInspect || !plain_id(id)) continue;  // stays -1: not asked
        ++asked;
        std::string body;
        rc = s.get(prefix + "/containers/" + id + "/json", body);
        if (rc == -ENOENT) continue;  // removed since the list was made
        if (rc != 0) return rc;
        if ((rc = parse_json(body, j)) != 0) return rc;
        c["pid"] = inspect_pid(j);
    }
    d.containers = compact(rows);
    out = std::move(d);
    return 0;
}

}  // namespace

int32_t query_engines(const std::vector<std::string>& sockets, DockerInfo& out, int budget_ms) {
    if (sockets.empty()) return -ENOENT;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(budget_ms);
    int32_t first = 0;
    for (const std::string& path : sockets) {
        bool answered = false;
        const int32_t rc = query_one(path, deadline, out, answered);
        if (rc == 0) return 0;
        if (first == 0) first = rc;
        if (answered || !try_next(rc) || Clock::now() >= deadline) break;
    }
    return first;
}

std::string EngineSocket::connect_path() const { return "/proc/self/fd/" + std::to_string(fd); }

std::vector<EngineSocket> find_engine_sockets(int root_fd) {
    std::vector<std::pair<std::string, long>> names = {
        {"/var/run/docker.sock", -1}, {"/run/docker.sock", -1}, {"/run/podman/podman.sock", -1}};
    {
        // /run/user/<uid>: listed through an in-root descriptor.
        std::vector<long> uids;
        const int dir = open_in_root(root_fd, "/run/user", false);
        if (dir >= 0) {
            std::vector<std::string> entries;
            list_dir("/proc/self/fd/" + std::to_string(dir), entries);
            ::close(dir);
            for (const std::string& e : entries) {
                uint64_t uid;
                if (parse_u64(e, uid) && uid < (1ull << 32)) uids.push_back(static_cast<long>(uid));
            }
        }
        std::sort(uids.begin(), uids.end());
        if (uids.size() > kMaxUserSockets) uids.resize(kMaxUserSockets);
        for (long uid : uids) names.emplace_back("/run/user/" + std::to_string(uid) + "/podman/podman.sock", uid);
    }
    std::vector<EngineSocket> found;
    std::set<std::pair<dev_t, ino_t>> seen;
    for (const auto& [path, uid] : names) {
        const size_t slash = path.rfind('/');
        const int dir = open_in_root(root_fd, path.substr(0, slash), false);
        if (dir < 0) continue;
        Fd sock(::openat(dir, path.c_str() + slash + 1, O_PATH | O_NOFOLLOW | O_CLOEXEC));
        ::close(dir);
        struct stat st;
        if (sock.get() < 0 || ::fstat(sock.get(), &st) != 0 || !S_ISSOCK(st.st_mode)) continue;
        // A user's directory is the user's: only the user's own engine (or
        // root's) is taken from it.
        if (uid >= 0 && st.st_uid != 0 && static_cast<long>(st.st_uid) != uid) continue;
        if (!seen.insert({st.st_dev, st.st_ino}).second) continue;
        EngineSocket s;
        s.host_path = path;
        s.fd = sock.release();
        found.push_back(std::move(s));
    }
    return found;
}

}  // namespace engine

int32_t collect_engine(const HostRoot& root, AM::DockerInfo& out) {
    // A mounted image has no engine running; its sockets (or links to this
    // machine's) are never connected.
    if (!root.is_live_host()) return -ENOENT;
    Fd root_fd(open_root_dir("/"));
    if (root_fd.get() < 0) return -EIO;
    const std::vector<engine::EngineSocket> found = engine::find_engine_sockets(root_fd.get());
    std::vector<std::string> paths;
    for (const auto& s : found) paths.push_back(s.connect_path());
    return engine::query_engines(paths, out);
}

}  // namespace amsvc
