// The container engine (Docker Engine API, or Podman's compatible API) asked
// over its unix socket: pure readers of the engine's JSON answers, the HTTP
// session that asks one engine, and the search for engine sockets on the host.
#ifndef ASSETMAN_SERVICE_ENGINE_H
#define ASSETMAN_SERVICE_ENGINE_H

#include <stddef.h>
#include <stdint.h>
#include <unistd.h>

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "asset_manager.h"
#include "core/common.h"

namespace amsvc {
namespace engine {

using Json = nlohmann::json;
typedef IAssetManager::DockerInfo DockerInfo;

// Bounds of one collection. A hostile or stuck engine costs at most these.
constexpr int kBudgetMs = 5000;            // whole collection, all engines tried
constexpr int kFirstAnswerMs = 2000;       // an engine's first answer, so a later one still gets time
constexpr size_t kParallel = 4;            // requests in flight to one engine
constexpr int kConnectMs = 1000;           // connecting one socket
constexpr size_t kMaxResponse = 8u << 20;  // body of one answer
constexpr int kMaxDepth = 64;              // JSON nesting
constexpr size_t kMaxValues = 1u << 20;    // JSON values in one answer
constexpr size_t kMaxInspect = 256;        // containers asked for their main process
constexpr size_t kMaxUserSockets = 64;     // rootless engines looked at

// Parses an answer, refusing nesting deeper than kMaxDepth and more than
// kMaxValues values before the parser sees it. 0 or -EPROTO.
int parse_json(std::string_view body, Json& out);

// Whether an engine's Api-Version ("1.43") may go into a request path.
bool is_api_version(std::string_view s);

// storage_driver, root_dir, version (`ServerVersion`), image_num, container_num
// from /info. -EPROTO
// unless an object.
int read_info(const Json& info, DockerInfo& out);

// /images/json as the service's image array; -EPROTO unless an array of objects.
int image_rows(const Json& list, Json& rows);

// /containers/json?all=1 as the service's container array, `pid` 0 for a
// container that is not running and -1 for one whose process is still to be
// asked for. -EPROTO unless an array of objects.
int container_rows(const Json& list, Json& rows);

// State.Pid of /containers/<id>/json, -1 when absent.
int64_t inspect_pid(const Json& inspect);

// Compact JSON text; invalid UTF-8 replaced rather than thrown on.
std::string compact(const Json& j);

// Asks the engines behind `sockets` (paths connect(2) takes) in order; the
// first that answers /_ping fills `out`, wholly or not at all. Returns 0;
// -ENOENT for an empty list; else the failure of the first socket:
// -ECONNREFUSED (refused, or not a listening socket), -EACCES (no permission
// to connect), -ETIMEDOUT (budget spent), -EPROTO (an HTTP error, or an
// answer that is malformed, cut short or not the expected JSON), -EMSGSIZE
// (an answer above kMaxResponse), -EIO (anything else).
int32_t query_engines(const std::vector<std::string>& sockets, DockerInfo& out, int budget_ms = kBudgetMs);

// An engine socket found on the host, held open (O_PATH) so the socket
// connected is the one that was checked.
struct EngineSocket {
    std::string host_path;             // "/var/run/docker.sock"
    int fd = -1;                       // O_PATH descriptor of the socket itself, owned
    std::string connect_path() const;  // "/proc/self/fd/<fd>"

    EngineSocket() = default;
    EngineSocket(EngineSocket&& o) noexcept : host_path(std::move(o.host_path)), fd(o.fd) { o.fd = -1; }
    EngineSocket& operator=(EngineSocket&&) = delete;
    ~EngineSocket() {
        if (fd >= 0) ::close(fd);
    }
};

// The engine sockets below the directory `root_fd`, in the order they are
// asked: /var/run/docker.sock, /run/docker.sock, /run/podman/podman.sock, then
// /run/user/<uid>/podman/podman.sock by ascending uid (at most
// kMaxUserSockets). Directories resolve inside the root; the final name must
// be a socket itself, not a link; a user's socket must belong to that user or
// root; one socket reached by two names is kept once.
std::vector<EngineSocket> find_engine_sockets(int root_fd);

}  // namespace engine
}  // namespace amsvc

#endif
