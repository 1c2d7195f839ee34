// The container engine, asked over its API socket.
// Calls go through a table of libcurl's functions (no argument type macros).
#define CURL_DISABLE_TYPECHECK
#include <curl/curl.h>
#include <dirent.h>
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
#include "core/lazy_lib.h"
#include "core/root_open.h"

namespace amsvc {
namespace engine {

namespace {

using Clock = std::chrono::steady_clock;

// libcurl, loaded when an engine socket is first met.
struct CurlApi {
    static constexpr const char* kSoname = ASSETMAN_CURL_SONAME;
    decltype(&::curl_global_init) curl_global_init;
    decltype(&::curl_easy_init) curl_easy_init;
    decltype(&::curl_easy_setopt) curl_easy_setopt;
    decltype(&::curl_easy_getinfo) curl_easy_getinfo;
    decltype(&::curl_easy_cleanup) curl_easy_cleanup;
    decltype(&::curl_multi_init) curl_multi_init;
    decltype(&::curl_multi_setopt) curl_multi_setopt;
    decltype(&::curl_multi_add_handle) curl_multi_add_handle;
    decltype(&::curl_multi_remove_handle) curl_multi_remove_handle;
    decltype(&::curl_multi_perform) curl_multi_perform;
    decltype(&::curl_multi_poll) curl_multi_poll;
    decltype(&::curl_multi_info_read) curl_multi_info_read;
    decltype(&::curl_multi_cleanup) curl_multi_cleanup;
    void bind(SymbolBinder& b) {
        b(curl_global_init, "curl_global_init");
        b(curl_easy_init, "curl_easy_init");
        b(curl_easy_setopt, "curl_easy_setopt");
        b(curl_easy_getinfo, "curl_easy_getinfo");
        b(curl_easy_cleanup, "curl_easy_cleanup");
        b(curl_multi_init, "curl_multi_init");
        b(curl_multi_setopt, "curl_multi_setopt");
        b(curl_multi_add_handle, "curl_multi_add_handle");
        b(curl_multi_remove_handle, "curl_multi_remove_handle");
        b(curl_multi_perform, "curl_multi_perform");
        b(curl_multi_poll, "curl_multi_poll");
        b(curl_multi_info_read, "curl_multi_info_read");
        b(curl_multi_cleanup, "curl_multi_cleanup");
    }
};

// Only reached once query_engines has seen the library loaded.
const CurlApi& curl() { return *lazy_table<CurlApi>(); }

void init_curl_once() {
    static std::once_flag once;
    std::call_once(once, [] { curl().curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// One request: its path, and what came back.
struct Request {
    explicit Request(std::string p) : path(std::move(p)) {}
    std::string path;
    std::string body;
    std::string api_version;  // the Api-Version header
    int rc = -EIO;            // 0, -ENOENT for a 404, or a failure
    // Transfer state.
    CURL* h = nullptr;
    bool too_big = false;
    bool failed_alloc = false;
};

size_t on_body(char* data, size_t size, size_t n, void* req_ptr) {
    Request* r = static_cast<Request*>(req_ptr);
    const size_t bytes = size * n;
    if (bytes > kMaxResponse - std::min(kMaxResponse, r->body.size())) {
        r->too_big = true;
        return 0;  // aborts the transfer
    }
    try {
        r->body.append(data, bytes);
    } catch (...) {
        r->failed_alloc = true;
        return 0;
    }
    return bytes;
}

size_t on_header(char* data, size_t size, size_t n, void* req_ptr) {
    Request* r = static_cast<Request*>(req_ptr);
    const size_t bytes = size * n;
    const std::string_view line(data, bytes);
    constexpr std::string_view kName = "api-version:";
    if (line.size() > kName.size() && ascii_lower(line.substr(0, kName.size())) == kName) {
        const std::string_view v = trim(line.substr(kName.size()));
        if (is_api_version(v)) r->api_version.assign(v);
    }
    return bytes;
}

int result_of(Request& r, CURLcode rc) {
    if (r.failed_alloc) return -ENOMEM;
    if (r.too_big) return -EMSGSIZE;
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
            curl().curl_easy_getinfo(r.h, CURLINFO_OS_ERRNO, &os_errno);
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
    curl().curl_easy_getinfo(r.h, CURLINFO_RESPONSE_CODE, &status);
    if (status == 404) return -ENOENT;
    return status == 200 ? 0 : -EPROTO;
}

// The connections to one engine. Requests run side by side on up to
// kParallel connections that are kept open from one batch to the next.
class Client {
public:
    Client(const std::string& socket_path, Clock::time_point deadline)
        : socket_(socket_path), deadline_(deadline) {
        init_curl_once();
        m_ = curl().curl_multi_init();
        if (m_) curl().curl_multi_setopt(m_, CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(kParallel));
    }
    ~Client() {
        for (CURL* h : handles_) curl().curl_easy_cleanup(h);
        if (m_) curl().curl_multi_cleanup(m_);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Runs `reqs` (at most kParallel) together, each within what is left of
    // the budget and at most `cap_ms`; each request's rc tells how it went.
    void perform(const std::vector<Request*>& reqs, long cap_ms = -1) {
        const long left = static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now()).count());
        for (Request* r : reqs) r->rc = left <= 0 ? -ETIMEDOUT : -ENOMEM;
        if (left <= 0 || !m_ || reqs.size() > kParallel) return;
        const long total = cap_ms > 0 ? std::min(left, cap_ms) : left;
        while (handles_.size() < reqs.size()) {
            CURL* h = curl().curl_easy_init();
            if (!h) return;
            handles_.push_back(h);
        }
        for (size_t i = 0; i < reqs.size(); ++i) {
            Request* r = reqs[i];
            CURL* h = r->h = handles_[i];
            r->body.clear();
            r->too_big = r->failed_alloc = false;
            setup(h, "http://localhost" + r->path, total);
            curl().curl_easy_setopt(h, CURLOPT_WRITEDATA, r);
            curl().curl_easy_setopt(h, CURLOPT_HEADERDATA, r);
            curl().curl_easy_setopt(h, CURLOPT_PRIVATE, r);
            r->rc = -EIO;
            curl().curl_multi_add_handle(m_, h);
        }
        int running = 1;
        // The transfers' own timeouts end this loop; the clock check is a
        // guard should a transfer not honour its own.
        const Clock::time_point hard_stop = Clock::now() + std::chrono::milliseconds(total + 1000);
        while (running > 0 && Clock::now() < hard_stop) {
            if (curl().curl_multi_perform(m_, &running) != CURLM_OK) break;
            if (running > 0 && curl().curl_multi_poll(m_, nullptr, 0, 100, nullptr) != CURLM_OK) break;
        }
        int queued;
        while (CURLMsg* msg = curl().curl_multi_info_read(m_, &queued)) {
            if (msg->msg != CURLMSG_DONE) continue;
            char* priv = nullptr;
            curl().curl_easy_getinfo(msg->easy_handle, CURLINFO_PRIVATE, &priv);
            Request* r = reinterpret_cast<Request*>(priv);
            if (r) r->rc = result_of(*r, msg->data.result);
        }
        for (Request* r : reqs) {
            if (running > 0 && r->rc == -EIO) r->rc = -ETIMEDOUT;
            curl().curl_multi_remove_handle(m_, r->h);
            r->h = nullptr;
        }
    }

private:
    void setup(CURL* h, const std::string& url, long total_ms) {
        curl().curl_easy_setopt(h, CURLOPT_UNIX_SOCKET_PATH, socket_.c_str());
        curl().curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
        curl().curl_easy_setopt(h, CURLOPT_PROXY, "");  // never a proxy from the environment
        curl().curl_easy_setopt(h, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
#if LIBCURL_VERSION_NUM >= 0x075500
        curl().curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http");
#else
        curl().curl_easy_setopt(h, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP));
#endif
        curl().curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
        curl().curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxResponse));
        curl().curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &on_body);
        curl().curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, &on_header);
        curl().curl_easy_setopt(h, CURLOPT_URL, url.c_str());
        curl().curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, total_ms);
        curl().curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, std::min(total_ms, static_cast<long>(kConnectMs)));
    }

    std::string socket_;
    Clock::time_point deadline_;
    CURLM* m_ = nullptr;
    std::vector<CURL*> handles_;
};

// A container id goes into a request path: only what an engine's ids are made of.
bool plain_id(const std::string& id) {
    if (id.empty() || id.size() > 128) return false;
    return std::all_of(id.begin(), id.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    });
}

// The JSON of a request that must succeed.
int json_of(const Request& r, Json& out) {
    if (r.rc == -ENOENT) return -EPROTO;  // the engine lacks an endpoint it must have
    if (r.rc != 0) return r.rc;
    return parse_json(r.body, out);
}

// Whether a failure means "no engine behind this socket", so the next is tried.
bool try_next(int rc) { return rc == -ECONNREFUSED || rc == -EACCES || rc == -ETIMEDOUT; }

// One engine: 0 with `out` filled, or the first failure. `answered` tells
// whether it got as far as answering /_ping.
int32_t query_one(const std::string& socket_path, Clock::time_point deadline, DockerInfo& out,
                  bool& answered) {
    answered = false;
    Client client(socket_path, deadline);
    Request ping("/_ping");
    client.perform({&ping}, kFirstAnswerMs);
    if (ping.rc == -ENOENT) return -EPROTO;
    if (ping.rc != 0) return ping.rc;
    answered = true;
    // Asking for the version the engine speaks keeps the shapes it documents,
    // and an engine that drops unversioned paths still answers.
    const std::string prefix = ping.api_version.empty() ? std::string() : "/v" + ping.api_version;

    // /info can take seconds (an engine may look up its runtime's package):
    // the lists are asked meanwhile.
    Request info(prefix + "/info"), images(prefix + "/images/json"),
        containers(prefix + "/containers/json?all=1");
    client.perform({&info, &images, &containers});
    DockerInfo d;
    Json j, image_list, container_list;
    int rc;
    if ((rc = json_of(info, j)) != 0 || (rc = read_info(j, d)) != 0) return rc;
    if ((rc = json_of(images, j)) != 0 || (rc = image_rows(j, image_list)) != 0) return rc;
    if ((rc = json_of(containers, j)) != 0 || (rc = container_rows(j, container_list)) != 0) return rc;
    d.images = compact(image_list);

    // The main process of each running container, kParallel at a time.
    std::vector<Json*> todo;
    for (Json& c : container_list) {
        if (todo.size() >= kMaxInspect) break;  // the rest stay -1: not asked
        if (c["pid"].get<int64_t>() == -1 && plain_id(c["id"].get_ref<const std::string&>()))
            todo.push_back(&c);
    }
    for (size_t i = 0; i < todo.size(); i += kParallel) {
        std::vector<Request> batch;
        for (size_t k = i; k < todo.size() && k < i + kParallel; ++k)
            batch.emplace_back(prefix + "/containers/" + (*todo[k])["id"].get<std::string>() + "/json");
        std::vector<Request*> ptrs;
        for (Request& r : batch) ptrs.push_back(&r);
        client.perform(ptrs);
        for (size_t k = 0; k < batch.size(); ++k) {
            if (batch[k].rc == -ENOENT) continue;  // removed since the list was made
            if ((rc = json_of(batch[k], j)) != 0) return rc;
            (*todo[i + k])["pid"] = inspect_pid(j);
        }
    }
    d.containers = compact(container_list);
    out = std::move(d);
    return 0;
}

}  // namespace

int32_t query_engines(const std::vector<std::string>& sockets, DockerInfo& out, int budget_ms) {
    if (sockets.empty()) return -ENOENT;
    if (!lazy_table<CurlApi>()) return -EIO;  // our libcurl is not installed
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
        if (DIR* dp = dir >= 0 ? ::fdopendir(dir) : nullptr) {
            // Bounded: a directory of a million names costs no more than this.
            for (size_t seen_names = 0; seen_names < 65536; ++seen_names) {
                const struct dirent* e = ::readdir(dp);
                if (!e) break;
                uint64_t uid;
                if (parse_u64(e->d_name, uid) && uid < (1ull << 32)) uids.push_back(static_cast<long>(uid));
            }
            ::closedir(dp);
        } else if (dir >= 0) {
            ::close(dir);
        }
        std::sort(uids.begin(), uids.end());
        if (uids.size() > kMaxUserSockets) uids.resize(kMaxUserSockets);
        for (long uid : uids)
            names.emplace_back("/run/user/" + std::to_string(uid) + "/podman/podman.sock", uid);
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
    // Without /proc the checked socket is connected by its name instead.
    const bool have_proc = ::access("/proc/self/fd", X_OK) == 0;
    std::vector<std::string> paths;
    for (const auto& s : found) paths.push_back(have_proc ? s.connect_path() : s.host_path);
    return engine::query_engines(paths, out);
}

}  // namespace amsvc
