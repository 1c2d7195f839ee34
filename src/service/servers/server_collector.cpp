// Server applications: processes that listen on a port, grouped by their main
// process, with what their configuration tells (read as the server reads it,
// inside the server's own root), and web servers that are configured but not
// running (a mounted image).
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>

#include "collectors.h"
#include "core/root_open.h"
#include "network/netlink_collector.h"
#include "packages/apk_db.h"
#include "packages/package_index.h"
#include "packages/rpm_db.h"
#include "process/process_parse.h"
#include "servers/server_parse.h"

namespace amsvc {

namespace {

using servers::ConfigSource;
using servers::Type;

constexpr size_t kMaxSmall = 64u << 10;
constexpr size_t kMaxArgs = 256u << 10;
constexpr size_t kMaxServers = 4096;       // records kept
constexpr size_t kMaxExeScan = 64u << 20;  // bytes of an executable searched for its version
constexpr int kMaxAncestors = 16;

int read_fd_bounded(int fd, std::string& out, size_t max) {
    out.clear();
    char buf[65536];
    while (out.size() < max) {
        const ssize_t n = ::read(fd, buf, std::min(sizeof buf, max - out.size()));
        if (n < 0) {
            if (errno == EINTR) continue;
            return -errno;
        }
        if (n == 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return 0;
}

// Configuration files of one server, inside one root (the host's, an image's,
// or a containerised process's /proc/<pid>/root). Only regular files that the
// server's own account could read are taken: a configuration that links to
// /etc/shadow of a root-run server is refused for being readable by root only.
class RootSource : public ConfigSource {
public:
    RootSource(int root_fd, uint32_t uid, uint32_t gid) : root_fd_(root_fd), uid_(uid), gid_(gid) {}

    bool read(const std::string& path, std::string& out, size_t max) override {
        Fd fd(open_in_root(root_fd_, path, false));
        if (fd.get() < 0) return false;
        struct stat st;
        if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || !allowed(st)) return false;
        if (read_fd_bounded(fd.get(), out, max) != 0) return false;
        // NUL bytes end a configuration as the servers' readers end it.
        const size_t nul = out.find('\0');
        if (nul != std::string::npos) out.resize(nul);
        return true;
    }

    bool list(const std::string& dir, std::vector<std::string>& names) override {
        names.clear();
        const int fd = open_in_root(root_fd_, dir, false);
        if (fd < 0) return false;
        DIR* d = ::fdopendir(fd);
        if (!d) {
            ::close(fd);
            return false;
        }
        while (struct dirent* e = ::readdir(d)) {
            const char* n = e->d_name;
            if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0))) continue;
            if (names.size() >= 4096) break;
            names.emplace_back(n);
        }
        ::closedir(d);
        return true;
    }

    bool exists(const std::string& path) {
        std::string tmp;
        return read(path, tmp, 1);
    }

private:
    bool allowed(const struct stat& st) const {
        if (st.st_mode & S_IROTH) return true;
        if (uid_ == 0) return false;
        return (st.st_uid == uid_ && (st.st_mode & S_IRUSR)) || (st.st_gid == gid_ && (st.st_mode & S_IRGRP));
    }

    int root_fd_;
    uint32_t uid_, gid_;
};

struct Proc {
    int32_t pid = 0;
    int64_t ppid = 0;
    std::string comm;
    std::string exe;  // as the process sees it, " (deleted)" removed
    std::vector<std::string> argv;
    std::string env;        // environ, entries joined by newlines, as read
    std::string env_shown;  // the same redacted and escaped, as reported
    std::string cwd, cgroup;
    uint32_t uid = 0, gid = 0;
    bool have = false;
};

std::string base_name(std::string_view p) {
    const size_t s = p.rfind('/');
    return std::string(s == std::string_view::npos ? p : p.substr(s + 1));
}

std::vector<std::string> split_nul(std::string_view raw) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < raw.size()) {
        size_t j = raw.find('\0', i);
        if (j == std::string_view::npos) j = raw.size();
        out.emplace_back(raw.substr(i, j - i));
        i = j + 1;
    }
    // A title rewritten into one argument ("nginx: master process /usr/sbin/nginx -c x").
    if (out.size() == 1 && out[0].find(' ') != std::string::npos) {
        std::vector<std::string> words;
        for (std::string_view w : split_ws(out[0])) words.emplace_back(w);
        return words;
    }
    return out;
}

// The systemd unit from /proc/<pid>/cgroup: the last ".service" component.
std::string unit_of(std::string_view cgroup) {
    std::string best;
    for (std::string_view line : split_lines(cgroup)) {
        const size_t colon = line.find(':', line.find(':') + 1);
        if (colon == std::string_view::npos) continue;
        std::string_view path = line.substr(colon + 1);
        size_t i = 0;
        while (i < path.size()) {
            size_t j = path.find('/', i);
            if (j == std::string_view::npos) j = path.size();
            const std::string_view c = path.substr(i, j - i);
            if (ends_with(c, ".service")) best = std::string(c);
            i = j + 1;
        }
        if (!best.empty()) return best;
    }
    return best;
}

bool parse_status_gid(std::string_view text, uint32_t& gid) {
    for (std::string_view line : split_lines(text)) {
        if (!starts_with(line, "Gid:")) continue;
        const std::vector<std::string_view> w = split_ws(line.substr(4));
        uint64_t v = 0;
        if (w.empty() || !parse_u64(w[0], v)) return false;
        gid = static_cast<uint32_t>(v);
        return true;
    }
    return false;
}

struct Product {
    Type type;
    const char* name;
    const char* desc;
};

Product product_of(const Proc& p) {
    const std::string exe = base_name(p.exe);
    const std::string arg0 = p.argv.empty() ? std::string() : base_name(p.argv[0]);
    auto is = [&](std::initializer_list<const char*> names) {
        for (const char* n : names)
            if (exe == n || arg0 == n || p.comm == n) return true;
        return false;
    };
    auto has_arg = [&](std::string_view s) {
        for (const std::string& a : p.argv)
            if (a == s || starts_with(a, s)) return true;
        return false;
    };
    if (is({"nginx"}) || starts_with(p.comm, "nginx")) return {servers::kNginx, "nginx", "nginx web server"};
    if (is({"apache2", "httpd", "httpd.worker", "httpd.event"}))
        return {servers::kApache, "Apache httpd", "Apache HTTP Server"};
    if (starts_with(exe, "java") || p.comm == "java") {
        if (has_arg("org.apache.catalina.startup.Bootstrap") || has_arg("-Dcatalina.base="))
            return {servers::kTomcat, "Tomcat", "Apache Tomcat servlet container"};
        if (has_arg("org.elasticsearch.bootstrap.Elasticsearch") || has_arg("-Des.path.home="))
            return {servers::kElastic, "Elasticsearch", "Elasticsearch search engine"};
        return {servers::kJava, "Java", "Java application server"};
    }
    if (is({"mariadbd"})) return {servers::kMariadb, "MariaDB", "MariaDB database server"};
    if (is({"mysqld"})) return {servers::kMysql, "MySQL", "MySQL database server"};
    if (is({"postgres", "postmaster"})) return {servers::kPostgres, "PostgreSQL", "PostgreSQL database server"};
    if (is({"redis-server"}) || starts_with(p.comm, "redis-server"))
        return {servers::kRedis, "Redis", "Redis key-value store"};
    if (is({"mongod"})) return {servers::kMongo, "MongoDB", "MongoDB database server"};
    if (is({"memcached"})) return {servers::kMemcached, "Memcached", "Memcached memory object cache"};
    if (starts_with(exe, "php-fpm") || starts_with(p.comm, "php-fpm"))
        return {servers::kPhpFpm, "PHP-FPM", "PHP FastCGI process manager"};
    if (is({"sshd"})) return {servers::kSshd, "OpenSSH", "OpenSSH server"};
    if (is({"haproxy"})) return {servers::kHaproxy, "HAProxy", "HAProxy load balancer"};
    if (is({"lighttpd"})) return {servers::kLighttpd, "lighttpd", "lighttpd web server"};
    if (is({"named", "unbound", "dnsmasq", "pdns_server", "coredns", "knotd"}))
        return {servers::kDns, "DNS", "DNS server"};
    return {servers::kUnknown, "", ""};
}

// The Java main class or jar, for a Java server that is neither Tomcat nor
// Elasticsearch.
std::string java_main(const std::vector<std::string>& argv) {
    for (size_t i = 1; i < argv.size(); ++i) {
        const std::string& a = argv[i];
        if (a == "-jar" && i + 1 < argv.size()) return base_name(argv[i + 1]);
        if (a == "-cp" || a == "-classpath" || a == "--class-path" || a == "-p" || a == "--module-path") {
            ++i;
            continue;
        }
        if (!a.empty() && a[0] != '-') return a;
    }
    return std::string();
}

std::string prop(const std::vector<std::string>& argv, std::string_view name) {
    const std::string key = "-D" + std::string(name) + "=";
    for (const std::string& a : argv)
        if (starts_with(a, key)) return a.substr(key.size());
    return std::string();
}

class Collector {
public:
    explicit Collector(const HostRoot& root) : root_(root) {}
    ~Collector() {
        for (auto& r : roots_)
            if (r.second >= 0) ::close(r.second);
        if (host_fd_ >= 0) ::close(host_fd_);
        if (proc_fd_ >= 0) ::close(proc_fd_);
    }

    int32_t run(std::vector<AM::ServiceInfo>& out) {
        out.clear();
        host_fd_ = open_root_dir(root_.root());
        if (host_fd_ < 0) return host_fd_ == -ENOENT || host_fd_ == -ENOTDIR ? -ENOENT : -EACCES;
        struct stat hst;
        if (::fstat(host_fd_, &hst) == 0) host_dev_ = hst.st_dev, host_ino_ = hst.st_ino;
        // Only a real procfs at the root's /proc (or a test's fixture tree)
        // tells of processes: never a link an image planted.
        proc_fd_ = open_host_proc(root_);
        struct statfs sfs;
        procfs_ = proc_fd_ >= 0 && ::fstatfs(proc_fd_, &sfs) == 0 && sfs.f_type == PROC_SUPER_MAGIC;

        std::vector<AM::NetLinkInfo> socks;
        const int32_t nrc = collect_netlinks(root_, socks);
        running(socks, out);
        configured(out);
        if (out.empty() && nrc < 0 && nrc != -ENOENT) return nrc;
        return 0;
    }

private:
    // ------------------------------------------------------------ processes

    Proc& proc(int32_t pid) {
        auto it = procs_.find(pid);
        if (it != procs_.end()) return it->second;
        Proc& p = procs_[pid];
        p.pid = pid;
        if (proc_fd_ < 0) return p;
        Fd dfd(::openat(proc_fd_, std::to_string(pid).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
        if (dfd.get() < 0) return p;
        std::string text;
        procfs::Stat st;
        if (read_at(dfd.get(), "stat", text, kMaxSmall) && procfs::parse_stat(text, st)) {
            p.comm = st.comm;
            p.ppid = st.ppid;
            p.have = true;
        }
        if (read_at(dfd.get(), "status", text, kMaxSmall)) {
            procfs::parse_status_uid(text, p.uid);
            parse_status_gid(text, p.gid);
        }
        if (read_at(dfd.get(), "cmdline", text, kMaxArgs)) p.argv = split_nul(text);
        if (read_at(dfd.get(), "environ", text, kMaxArgs)) {
            // Raw for Apache's ${VAR}; what is reported is redacted and escaped
            // as the process records' env is.
            p.env = procfs::join_nul(text, '\n');
            p.env_shown = procfs::format_environ(text);
        }
        if (read_at(dfd.get(), "cgroup", text, kMaxSmall)) p.cgroup = unit_of(text);
        p.exe = link_at(dfd.get(), "exe");
        procfs::strip_deleted(p.exe);
        p.cwd = link_at(dfd.get(), "cwd");
        if (p.comm.empty()) p.comm = base_name(p.exe);
        return p;
    }

    bool read_at(int dfd, const char* name, std::string& out, size_t max) {
        out.clear();
        Fd fd(::openat(dfd, name, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
        if (fd.get() < 0) return false;
        struct stat st;
        if (!procfs_ && (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))) return false;
        return read_fd_bounded(fd.get(), out, max) == 0;
    }

    static std::string link_at(int dfd, const char* name) {
        char buf[4096];
        const ssize_t n = ::readlinkat(dfd, name, buf, sizeof buf);
        if (n <= 0 || static_cast<size_t>(n) >= sizeof buf) return std::string();
        return std::string(buf, static_cast<size_t>(n));
    }

    // The main process of a server: up the parent chain while the parent runs
    // the same program (nginx's master above its workers, Apache's parent).
    int32_t main_of(int32_t pid) {
        int32_t cur = pid;
        for (int i = 0; i < kMaxAncestors; ++i) {
            const Proc& p = proc(cur);
            if (p.ppid <= 1 || p.ppid > INT32_MAX) break;
            const Proc& parent = proc(static_cast<int32_t>(p.ppid));
            if (!parent.have || parent.exe.empty() || parent.exe != p.exe) break;
            cur = parent.pid;
        }
        return cur;
    }

    // Root directory a process's files are read in: /proc/<pid>/root on a
    // live procfs (its own mounts and chroot), else the tree's own link.
    int root_of(int32_t pid, bool& foreign) {
        foreign = false;
        auto it = roots_.find(pid);
        if (it != roots_.end()) {
            foreign = foreign_.count(pid) > 0;
            return it->second;
        }
        int fd = -1;
        const std::string root_link = std::to_string(pid) + "/root";
        if (procfs_) {
            fd = ::openat(proc_fd_, root_link.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            if (fd < 0) fd = -errno;
        } else if (proc_fd_ >= 0) {
            char buf[4096];
            const ssize_t n = ::readlinkat(proc_fd_, root_link.c_str(), buf, sizeof buf);
            const std::string link = n > 0 && static_cast<size_t>(n) < sizeof buf ? std::string(buf, static_cast<size_t>(n)) : "";
            if (!link.empty()) {
                std::string in_tree = link;
                const std::string& r = root_.root();
                if (r != "/" && starts_with(in_tree, r + "/")) in_tree = in_tree.substr(r.size());
                if (in_tree[0] != '/') in_tree = "/proc/" + std::to_string(pid) + "/" + in_tree;
                fd = open_in_root(host_fd_, in_tree, false);
            }
        }
        if (fd >= 0) {
            struct stat st;
            if (::fstat(fd, &st) == 0 && (st.st_dev != host_dev_ || st.st_ino != host_ino_)) {
                foreign = true;
                foreign_.insert(pid);
            }
        }
        roots_[pid] = fd;
        return fd >= 0 ? fd : host_fd_;
    }

    // ------------------------------------------------------------ running

    void running(const std::vector<AM::NetLinkInfo>& socks, std::vector<AM::ServiceInfo>& out) {
        std::map<int32_t, std::set<uint32_t>> by_main;
        for (const AM::NetLinkInfo& s : socks) {
            if (s.pid <= 0 || s.local_port <= 0) continue;
            const bool tcp = starts_with(s.proto, "tcp");
            if (tcp ? s.state != "LISTEN" : (s.state != "UNCONN" || s.remote_port != 0)) continue;
            if (!tcp && proto_dns_only(s.pid)) continue;
            if (!starts_with(s.proto, "tcp") && !starts_with(s.proto, "udp")) continue;
            by_main[main_of(s.pid)].insert(static_cast<uint32_t>(s.local_port));
        }
        for (auto& m : by_main) {
            if (out.size() >= kMaxServers) break;
            describe(proc(m.first), m.second, out);
        }
    }

    // UDP counts only for DNS-like servers.
    bool proto_dns_only(int32_t pid) {
        const Proc& p = proc(main_of(pid));
        return product_of(p).type != servers::kDns;
    }

    void describe(const Proc& p, const std::set<uint32_t>& ports, std::vector<AM::ServiceInfo>& out) {
        const Product prod = product_of(p);
        AM::ServiceInfo base;
        base.pid = static_cast<uint32_t>(p.pid);
        base.port = 0;
        base.type = prod.type;
        base.name = prod.type == servers::kUnknown ? p.comm : prod.name;
        base.desc = prod.desc;
        base.process_path = p.exe;
        for (size_t i = 0; i < p.argv.size(); ++i) base.command += (i ? " " : "") + p.argv[i];
        base.exec_env = p.env_shown;
        base.exec_user = users_.of(p.uid);
        base.current_dir = p.cwd;
        base.srv_name = p.cgroup;
        base.install_path = dir_name(dir_name(p.exe));
        if (prod.type == servers::kJava) {
            const std::string main = java_main(p.argv);
            if (!main.empty()) base.name = main;
        }

        bool foreign = false;
        const int rfd = root_of(p.pid, foreign);
        RootSource src(rfd, p.uid, p.gid);
        base.arch = arch_of(p);
        base.version = version_of(p, prod.type, foreign, rfd);

        std::vector<servers::Site> sites;
        current_ports_ = &ports;
        configure(prod.type, p, src, base, sites);
        current_ports_ = nullptr;
        if (!base.configure_path.empty())
            loaded_.insert(std::to_string(foreign ? p.pid : 0) + ":" + base.configure_path);
        if (!foreign) running_types_.insert(prod.type);

        for (uint32_t port : ports) {
            if (out.size() >= kMaxServers) return;
            AM::ServiceInfo rec = base;
            rec.port = port;
            add_sites(sites, port, rec);
            out.push_back(std::move(rec));
        }
    }

    static void add_sites(const std::vector<servers::Site>& sites, uint32_t port, AM::ServiceInfo& rec) {
        std::set<std::tuple<std::string, std::string, std::string, std::string>> seen;
        for (const servers::Site& s : sites) {
            if (s.port != port) continue;
            if (!seen.insert(std::make_tuple(s.ip, s.host, s.document, s.logpath)).second) continue;
            AM::WebSiteInfo w;
            w.ip = s.ip;
            w.port = s.port;
            w.host = s.host;
            w.document = s.document;
            w.logpath = s.logpath;
            rec.hosts.push_back(std::move(w));
        }
    }

    // Configuration facts per product: configure_path, data_path, log_path,
    // install_path and the web sites.
    void configure(Type type, const Proc& p, RootSource& src, AM::ServiceInfo& rec,
                   std::vector<servers::Site>& sites) {
        const std::vector<std::string>& argv = p.argv;
        switch (type) {
            case servers::kNginx: {
                std::string prefix = servers::arg_value(argv, "-p");
                if (prefix.empty()) prefix = "/usr/share/nginx";
                while (prefix.size() > 1 && prefix.back() == '/') prefix.pop_back();
                std::string conf = servers::arg_value(argv, "-c");
                if (conf.empty()) conf = "/etc/nginx/nginx.conf";
                if (conf[0] != '/') conf = prefix + "/" + conf;
                web_nginx(src, conf, prefix, rec, sites);
                break;
            }
            case servers::kApache: {
                servers::ApacheInput in;
                const bool debian = base_name(p.exe) == "apache2";
                in.server_root = servers::arg_value(argv, "-d");
                if (in.server_root.empty()) in.server_root = debian ? "/etc/apache2" : "/etc/httpd";
                in.conf = servers::arg_value(argv, "-f");
                if (in.conf.empty()) in.conf = debian ? "apache2.conf" : "conf/httpd.conf";
                for (size_t i = 1; i < argv.size(); ++i) {
                    if (argv[i] == "-D" && i + 1 < argv.size()) in.defines.push_back(argv[++i]);
                    else if (starts_with(argv[i], "-D") && argv[i].size() > 2) in.defines.push_back(argv[i].substr(2));
                }
                for (std::string_view line : split_lines(p.env)) {
                    const size_t eq = line.find('=');
                    if (eq != std::string_view::npos && eq > 0)
                        in.env.emplace(std::string(line.substr(0, eq)), std::string(line.substr(eq + 1)));
                }
                web_apache(src, in, rec, sites);
                break;
            }
            case servers::kTomcat: {
                const std::string base = prop(argv, "catalina.base");
                const std::string home = prop(argv, "catalina.home");
                rec.install_path = home.empty() ? base : home;
                if (base.empty()) break;
                rec.configure_path = base + "/conf/server.xml";
                rec.log_path = base + "/logs";
                std::string text;
                if (!src.read(rec.configure_path, text, 4u << 20)) break;
                servers::TomcatConf t = servers::parse_server_xml(text);
                for (servers::Site& s : t.sites)
                    if (!s.document.empty() && s.document[0] != '/') s.document = base + "/" + s.document;
                for (servers::Site& s : t.sites)
                    if (!s.logpath.empty() && s.logpath[0] != '/') s.logpath = base + "/" + s.logpath;
                sites = std::move(t.sites);
                break;
            }
            case servers::kElastic: {
                const std::string home = prop(argv, "es.path.home");
                if (!home.empty()) rec.install_path = home;
                std::string conf = prop(argv, "es.path.conf");
                if (conf.empty() && !home.empty()) conf = home + "/config";
                if (conf.empty()) conf = "/etc/elasticsearch";
                rec.configure_path = conf + "/elasticsearch.yml";
                std::string text;
                if (src.read(rec.configure_path, text, 1u << 20)) {
                    rec.data_path = servers::yaml_flat_value(text, "path.data");
                    rec.log_path = servers::yaml_flat_value(text, "path.logs");
                } else {
                    rec.configure_path.clear();
                }
                break;
            }
            case servers::kMysql:
            case servers::kMariadb: {
                std::string conf = servers::arg_value(argv, "--defaults-file");
                if (conf.empty())
                    for (const char* c : {"/etc/mysql/my.cnf", "/etc/my.cnf", "/etc/mysql/mariadb.cnf"})
                        if (src.exists(c)) {
                            conf = c;
                            break;
                        }
                rec.configure_path = conf;
                servers::ServerConf c;
                if (!conf.empty()) c = servers::parse_mycnf(src, conf);
                std::string datadir = servers::arg_value(argv, "--datadir");
                rec.data_path = !datadir.empty() ? datadir : !c.data_path.empty() ? c.data_path : "/var/lib/mysql";
                std::string log = servers::arg_value(argv, "--log-error");
                rec.log_path = !log.empty() ? log : c.log_path;
                break;
            }
            case servers::kPostgres: {
                std::string data = servers::arg_value(argv, "-D");
                std::string conf;
                for (size_t i = 1; i + 1 < argv.size(); ++i)
                    if (argv[i] == "-c" && starts_with(argv[i + 1], "config_file="))
                        conf = argv[i + 1].substr(12);
                const std::string cf = servers::arg_value(argv, "--config-file");
                if (!cf.empty()) conf = cf;
                if (conf.empty() && !data.empty()) conf = data + "/postgresql.conf";
                rec.configure_path = conf;
                servers::ServerConf c;
                if (!conf.empty()) c = servers::parse_postgresql(src, conf);
                rec.data_path = !c.data_path.empty() ? c.data_path : data;
                if (!c.log_path.empty())
                    rec.log_path = c.log_path[0] == '/' || rec.data_path.empty() ? c.log_path
                                                                                  : rec.data_path + "/" + c.log_path;
                break;
            }
            case servers::kRedis: {
                // Redis rewrites its title; a config path left in it is taken,
                // else the packaged file, whose settings count only if its port
                // is the one this server listens on.
                std::string conf;
                for (size_t i = 1; i < argv.size(); ++i)
                    if (ends_with(argv[i], ".conf")) conf = argv[i];
                const bool named = !conf.empty();
                if (conf.empty())
                    for (const char* c : {"/etc/redis/redis.conf", "/etc/redis.conf"})
                        if (src.exists(c)) {
                            conf = c;
                            break;
                        }
                rec.configure_path = conf;
                servers::ServerConf c;
                if (!conf.empty()) c = servers::parse_redis(src, conf);
                const uint32_t cport = c.ports.empty() ? 6379 : c.ports[0];
                const bool ours = named || listens_on(cport);
                rec.data_path = ours && !c.data_path.empty() && c.data_path != "./" ? c.data_path : p.cwd;
                if (ours) rec.log_path = c.log_path;
                break;
            }
            case servers::kMongo: {
                std::string conf = servers::arg_value(argv, "--config");
                if (conf.empty()) conf = servers::arg_value(argv, "-f");
                if (conf.empty() && src.exists("/etc/mongod.conf")) conf = "/etc/mongod.conf";
                rec.configure_path = conf;
                servers::ServerConf c;
                std::string text;
                if (!conf.empty() && src.read(conf, text, 1u << 20)) c = servers::parse_mongod(text);
                const std::string db = servers::arg_value(argv, "--dbpath");
                const std::string log = servers::arg_value(argv, "--logpath");
                rec.data_path = !db.empty() ? db : c.data_path;
                rec.log_path = !log.empty() ? log : c.log_path;
                break;
            }
            case servers::kPhpFpm: {
                // "php-fpm: master process (/etc/php/8.2/fpm/php-fpm.conf)"
                const std::string cmd = rec.command;
                const size_t l = cmd.find('('), r = cmd.rfind(')');
                if (l != std::string::npos && r != std::string::npos && r > l + 1) rec.configure_path = cmd.substr(l + 1, r - l - 1);
                std::string y = servers::arg_value(argv, "--fpm-config");
                if (y.empty()) y = servers::arg_value(argv, "-y");
                if (!y.empty()) rec.configure_path = y;
                break;
            }
            case servers::kSshd: {
                std::string conf = servers::arg_value(argv, "-f");
                if (conf.empty() && src.exists("/etc/ssh/sshd_config")) conf = "/etc/ssh/sshd_config";
                rec.configure_path = conf;
                break;
            }
            default:
                break;
        }
    }

    void web_nginx(RootSource& src, const std::string& conf, const std::string& prefix, AM::ServiceInfo& rec,
                   std::vector<servers::Site>& sites) {
        rec.configure_path = conf;
        rec.install_path = prefix;
        servers::WebConfig cfg = servers::parse_nginx(src, conf, prefix);
        rec.log_path = cfg.error_log.empty() ? "/var/log/nginx/error.log" : cfg.error_log;
        sites = std::move(cfg.sites);
    }

    void web_apache(RootSource& src, const servers::ApacheInput& in, AM::ServiceInfo& rec,
                    std::vector<servers::Site>& sites) {
        rec.configure_path = in.conf[0] == '/' ? in.conf : in.server_root + "/" + in.conf;
        servers::WebConfig cfg = servers::parse_apache(src, in);
        rec.install_path = cfg.server_root.empty() ? in.server_root : cfg.server_root;
        rec.log_path = cfg.error_log;
        sites = std::move(cfg.sites);
    }

    bool listens_on(uint32_t port) const { return current_ports_ && current_ports_->count(port); }

    // ------------------------------------------------------------ configured

    // Web servers whose packaged configuration no running server loaded.
    void configured(std::vector<AM::ServiceInfo>& out) {
        RootSource src(host_fd_, 0, 0);
        if (!loaded_.count("0:/etc/nginx/nginx.conf") && src.exists("/etc/nginx/nginx.conf")) {
            AM::ServiceInfo rec = idle(servers::kNginx, "nginx", "nginx web server", "/usr/sbin/nginx");
            std::vector<servers::Site> sites;
            web_nginx(src, "/etc/nginx/nginx.conf", "/usr/share/nginx", rec, sites);
            emit_idle(rec, sites, out);
        }
        struct Layout {
            const char* root;
            const char* conf;
            const char* exe;
        };
        for (const Layout& l : {Layout{"/etc/apache2", "apache2.conf", "/usr/sbin/apache2"},
                                Layout{"/etc/httpd", "conf/httpd.conf", "/usr/sbin/httpd"}}) {
            const std::string conf = std::string(l.root) + "/" + l.conf;
            if (loaded_.count("0:" + conf) || !src.exists(conf)) continue;
            AM::ServiceInfo rec = idle(servers::kApache, "Apache httpd", "Apache HTTP Server", l.exe);
            servers::ApacheInput in;
            in.server_root = l.root;
            in.conf = l.conf;
            std::string text;
            if (src.read("/etc/apache2/envvars", text, 64u << 10) && std::string(l.root) == "/etc/apache2")
                in.env = servers::parse_envvars(text);
            std::vector<servers::Site> sites;
            web_apache(src, in, rec, sites);
            emit_idle(rec, sites, out);
        }
        idle_others(src, out);
    }

    // The other products installed and configured but not running here (or
    // in a mounted image): their packaged configuration gives the ports.
    void idle_others(RootSource& src, std::vector<AM::ServiceInfo>& out) {
        auto report = [&](AM::ServiceInfo rec, const std::string& conf, const servers::ServerConf& c,
                          uint32_t default_port) {
            rec.configure_path = conf;
            rec.data_path = c.data_path;
            rec.log_path = c.log_path;
            std::vector<servers::Site> none;
            std::vector<uint32_t> ports = c.ports;
            if (ports.empty()) ports.push_back(default_port);
            for (uint32_t port : ports) {
                if (out.size() >= kMaxServers) return;
                rec.port = port;
                out.push_back(rec);
            }
        };
        auto wanted = [&](Type t, const std::string& conf) {
            return !running_types_.count(t) && !loaded_.count("0:" + conf) && src.exists(conf);
        };
        struct Db {
            Type type;
            const char* name;
            const char* desc;
            const char* exe;
        };
        // MariaDB's server also answers to mysqld: the first program found names the product.
        for (const Db& d : {Db{servers::kMariadb, "MariaDB", "MariaDB database server", "/usr/sbin/mariadbd"},
                            Db{servers::kMysql, "MySQL", "MySQL database server", "/usr/sbin/mysqld"}}) {
            const char* conf = "/etc/mysql/my.cnf";
            if (!wanted(d.type, conf) || running_types_.count(servers::kMysql) ||
                running_types_.count(servers::kMariadb))
                continue;
            AM::ServiceInfo rec = idle(d.type, d.name, d.desc, d.exe);
            if (rec.process_path.empty()) continue;
            servers::ServerConf c = servers::parse_mycnf(src, conf);
            if (c.data_path.empty()) c.data_path = "/var/lib/mysql";
            report(rec, conf, c, 3306);
            break;
        }
        if (wanted(servers::kRedis, "/etc/redis/redis.conf")) {
            AM::ServiceInfo rec = idle(servers::kRedis, "Redis", "Redis key-value store", "/usr/bin/redis-server");
            if (!rec.process_path.empty())
                report(rec, "/etc/redis/redis.conf", servers::parse_redis(src, "/etc/redis/redis.conf"), 6379);
        }
        if (wanted(servers::kMongo, "/etc/mongod.conf")) {
            AM::ServiceInfo rec = idle(servers::kMongo, "MongoDB", "MongoDB database server", "/usr/bin/mongod");
            std::string text;
            if (!rec.process_path.empty() && src.read("/etc/mongod.conf", text, 1u << 20))
                report(rec, "/etc/mongod.conf", servers::parse_mongod(text), 27017);
        }
        // PostgreSQL: one cluster per /etc/postgresql/<version>/<cluster>/.
        for (const std::string& conf : servers::expand_glob(src, "/etc/postgresql/*/*/postgresql.conf", 64)) {
            if (running_types_.count(servers::kPostgres) || !wanted(servers::kPostgres, conf)) continue;
            const std::string version = conf.substr(16, conf.find('/', 16) - 16);
            AM::ServiceInfo rec = idle(servers::kPostgres, "PostgreSQL", "PostgreSQL database server",
                                       ("/usr/lib/postgresql/" + version + "/bin/postgres").c_str());
            if (rec.process_path.empty()) continue;
            report(rec, conf, servers::parse_postgresql(src, conf), 5432);
        }
    }

    AM::ServiceInfo idle(Type type, const char* name, const char* desc, const char* exe) {
        AM::ServiceInfo rec;
        rec.pid = 0;
        rec.port = 0;
        rec.type = type;
        rec.name = name;
        rec.desc = desc;
        // Found without being opened; only a regular file is then read.
        Fd handle(open_in_root_flags(host_fd_, exe, O_PATH));
        struct stat st;
        Fd fd(handle.get() >= 0 && ::fstat(handle.get(), &st) == 0 && S_ISREG(st.st_mode)
                  ? ::open(("/proc/self/fd/" + std::to_string(handle.get())).c_str(),
                           O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)
                  : -1);
        if (fd.get() >= 0) {
            rec.process_path = exe;
            std::string head;
            if (read_fd_bounded(fd.get(), head, 64) == 0) rec.arch = servers::elf_machine(head);
            rec.version = package_version(exe, type);
            if (rec.version.empty()) rec.version = scan_version(fd.get(), type);
        }
        return rec;
    }

    void emit_idle(const AM::ServiceInfo& base, const std::vector<servers::Site>& sites,
                   std::vector<AM::ServiceInfo>& out) {
        std::set<uint32_t> ports;
        for (const servers::Site& s : sites) ports.insert(s.port);
        for (uint32_t port : ports) {
            if (out.size() >= kMaxServers) return;
            AM::ServiceInfo rec = base;
            rec.port = port;
            add_sites(sites, port, rec);
            out.push_back(std::move(rec));
        }
    }

    // ------------------------------------------------------------ program facts

    std::string arch_of(const Proc& p) {
        Fd fd(open_exe(p));
        std::string head;
        if (fd.get() < 0 || read_fd_bounded(fd.get(), head, 64) != 0) return std::string();
        return servers::elf_machine(head);
    }

    // The executable the process runs: its own /proc link on procfs (the very
    // file, even when replaced since), else the path inside the tree.
    int open_exe(const Proc& p) {
        int fd;
        if (procfs_) {
            // Found without being opened; only a regular file is then read.
            Fd handle(::openat(proc_fd_, (std::to_string(p.pid) + "/exe").c_str(), O_PATH | O_CLOEXEC));
            struct stat st;
            if (handle.get() < 0 || ::fstat(handle.get(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
            fd = ::open(("/proc/self/fd/" + std::to_string(handle.get())).c_str(),
                        O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
        } else {
            bool foreign = false;
            if (p.exe.empty()) return -1;
            fd = open_in_root(root_of(p.pid, foreign), p.exe, false);
        }
        if (fd < 0) return -1;
        struct stat st;
        if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            ::close(fd);
            return -1;
        }
        return fd;
    }

    std::string version_of(const Proc& p, Type type, bool foreign, int) {
        if (!foreign && !p.exe.empty()) {
            const std::string v = package_version(p.exe, type);
            if (!v.empty()) return v;
        }
        Fd fd(open_exe(p));
        return fd.get() < 0 ? std::string() : scan_version(fd.get(), type);
    }

    // Version of the package that owns `exe` under the host root. On dpkg
    // hosts only the product's own packages' file lists are read; the full
    // ownership index (slow to build in a fresh process) serves other
    // package managers.
    std::string package_version(const std::string& exe, Type type) {
        if (type == servers::kUnknown || type == servers::kJava) return std::string();
        if (!dpkg_loaded_) {
            dpkg_loaded_ = true;
            read_host_file(root_, "/var/lib/dpkg/status", dpkg_status_, 256u << 20);
        }
        if (!dpkg_status_.empty()) {
            for (const servers::DpkgEntry& e : servers::dpkg_matching(dpkg_status_, package_globs(type))) {
                std::string list;
                const std::string info = "/var/lib/dpkg/info/";
                if (read_host_file(root_, info + e.name + ":" + e.arch + ".list", list, 16u << 20) != 0 &&
                    read_host_file(root_, info + e.name + ".list", list, 16u << 20) != 0)
                    continue;
                list.insert(0, "\n");
                for (const std::string& alias : path_aliases(exe))
                    if (list.find("\n" + alias + "\n") != std::string::npos) return e.version;
            }
            return std::string();
        }
        FileOwner owner;
        if (!package_owner(root_, exe, owner) || owner.package.empty()) return std::string();
        std::string name = owner.package;
        const size_t colon = name.find(':');
        if (colon != std::string::npos) name.resize(colon);
        if (!others_loaded_) {
            others_loaded_ = true;
            read_rpm_db(root_, false, [&](RpmPackage& pk) {
                other_versions_[pk.name] = pk.release.empty() ? pk.version : pk.version + "-" + pk.release;
            });
            std::string apk;
            if (read_host_file(root_, "/lib/apk/db/installed", apk, 256u << 20) == 0)
                for (const ApkPackage& pk : parse_apk_installed(apk, false)) other_versions_[pk.name] = pk.version;
        }
        auto it = other_versions_.find(name);
        return it == other_versions_.end() ? std::string() : it->second;
    }

    // A file under merged /usr is listed by dpkg under either name.
    static std::vector<std::string> path_aliases(const std::string& p) {
        std::vector<std::string> out{p};
        if (starts_with(p, "/usr/")) {
            const std::string rest = p.substr(4);
            if (starts_with(rest, "/bin/") || starts_with(rest, "/sbin/") || starts_with(rest, "/lib")) out.push_back(rest);
        } else if (starts_with(p, "/bin/") || starts_with(p, "/sbin/") || starts_with(p, "/lib")) {
            out.push_back("/usr" + p);
        }
        return out;
    }

    static std::vector<std::string> package_globs(Type type) {
        switch (type) {
            case servers::kNginx: return {"nginx", "nginx-*"};
            case servers::kApache: return {"apache2-bin", "apache2"};
            case servers::kTomcat: return {"tomcat*"};
            case servers::kMysql: return {"mysql-server*", "percona-server-server*"};
            case servers::kMariadb: return {"mariadb-server*"};
            case servers::kPostgres: return {"postgresql-[0-9]*"};
            case servers::kRedis: return {"redis-server", "redis-tools", "redis"};
            case servers::kMongo: return {"mongodb*"};
            case servers::kMemcached: return {"memcached"};
            case servers::kPhpFpm: return {"php*-fpm"};
            case servers::kSshd: return {"openssh-server"};
            case servers::kElastic: return {"elasticsearch*"};
            case servers::kHaproxy: return {"haproxy"};
            case servers::kLighttpd: return {"lighttpd"};
            case servers::kDns: return {"bind9", "unbound", "dnsmasq-base", "pdns-server", "knot"};
            default: return {};
        }
    }

    // The version text the program itself carries, found by reading its bytes.
    static std::string scan_version(int fd, Type type) {
        const char* marker = nullptr;
        switch (type) {
            case servers::kNginx: marker = "nginx/"; break;
            case servers::kApache: marker = "Apache/"; break;
            case servers::kMemcached: marker = "memcached "; break;
            case servers::kHaproxy: marker = "HAProxy version "; break;
            case servers::kLighttpd: marker = "lighttpd/"; break;
            case servers::kSshd: marker = "OpenSSH_"; break;
            default: return std::string();
        }
        const std::string_view m(marker);
        std::string buf;
        char chunk[1 << 16];
        size_t total = 0;
        if (::lseek(fd, 0, SEEK_SET) != 0) return std::string();
        while (total < kMaxExeScan) {
            const ssize_t n = ::read(fd, chunk, sizeof chunk);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            total += static_cast<size_t>(n);
            buf.append(chunk, static_cast<size_t>(n));
            const std::string v = servers::find_version(buf, m);
            if (!v.empty() && buf.find(v) + v.size() + 1 < buf.size()) return v;
            // keep a tail so a marker split between chunks is still found
            if (buf.size() > 128) buf.erase(0, buf.size() - 64);
        }
        return servers::find_version(buf, m);
    }


    const HostRoot& root_;
    int host_fd_ = -1;
    int proc_fd_ = -1;  // the root's /proc, or -1 when it has none
    dev_t host_dev_ = 0;
    ino_t host_ino_ = 0;
    bool procfs_ = false;
    std::unordered_map<int32_t, Proc> procs_;
    std::unordered_map<int32_t, int> roots_;
    std::set<int32_t> foreign_;
    std::set<std::string> loaded_;  // "<pid or 0>:<main config>" of running servers
    std::set<Type> running_types_;  // products running on the host itself
    const std::set<uint32_t>* current_ports_ = nullptr;
    bool dpkg_loaded_ = false, others_loaded_ = false;
    std::string dpkg_status_;
    std::map<std::string, std::string> other_versions_;
    UserNames users_{root_};
};

}  // namespace

int32_t collect_servers(const HostRoot& root, std::vector<AM::ServiceInfo>& out) {
    return guarded(out, [&] {
        Collector c(root);
        return c.run(out);
    });
}

}  // namespace amsvc
