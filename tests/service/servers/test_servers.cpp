// collect_servers on fixture trees (an image with servers configured but idle,
// a server in a container under a fake /proc, hostile configurations) and on
// Debian's servers started here, compared with nginx -T, apache2ctl -S, ss and dpkg.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <set>
#include <sstream>
#include <tuple>

#include "../test_util.h"
#include "collectors.h"
#include "live_servers.h"

using amsvc::AM;
using amtest::TempDir;

namespace {

// A literal with its NUL bytes.
#define BYTES(lit) std::string(lit, sizeof(lit) - 1)

// The tree fixtures/<name> copied into `t`.
void copy_fixture(const TempDir& t, const std::string& name) {
    std::filesystem::copy(ASSETMAN_FIXTURES "/" + name, t.path, std::filesystem::copy_options::recursive);
}

std::vector<AM::ServiceInfo> collect(const std::string& root, int32_t* rc = nullptr) {
    std::vector<AM::ServiceInfo> out;
    // The fixture trees keep their /proc as plain files.
    const int32_t r = amsvc::collect_servers(amsvc::HostRoot(root).set_fixture_proc(true), out);
    if (rc) *rc = r;
    return out;
}

// The records as sorted blocks: "type pid:port name arch version | conf | data
// | log | install | unit",
// then a line per site "ip:port host document log".
std::string text(const std::vector<AM::ServiceInfo>& v) {
    std::vector<std::string> blocks;
    for (const auto& s : v) {
        std::string b = std::to_string(s.type) + " " + std::to_string(s.pid) + ":" + std::to_string(s.port) +
                        " " + s.name + " " + s.arch + " " + s.version + " | " + s.configure_path + " | " +
                        s.data_path + " | " + s.log_path + " | " + s.install_path + " | " + s.srv_name + "\n";
        for (const auto& h : s.hosts)
            b += "  " + h.ip + ":" + std::to_string(h.port) + " " + h.host + " " + h.document + " " +
                 h.logpath + "\n";
        blocks.push_back(b);
    }
    std::sort(blocks.begin(), blocks.end());
    std::string out;
    for (const auto& b : blocks) out += b;
    return out;
}

// "port host" of each site of the records.
std::set<std::string> site_keys(std::initializer_list<const AM::ServiceInfo*> records) {
    std::set<std::string> k;
    for (const AM::ServiceInfo* s : records)
        for (const auto& h : s->hosts) k.insert(std::to_string(h.port) + " " + h.host);
    return k;
}

const AM::ServiceInfo* find(const std::vector<AM::ServiceInfo>& v, uint32_t pid, uint32_t port) {
    for (const auto& s : v)
        if (s.pid == pid && s.port == port) return &s;
    return nullptr;
}

// An image with servers installed and configured but not running: records with
// pid 0 and the ports of their configuration. Its nginx sites hold hostile
// files: a link to the image's root-only shadow file, a loop, a FIFO, a file
// readable by its owner only, NUL bytes, a link that leaves the image.
TEST(Servers, IdleServersOfAnImageWithHostileFiles) {
    TempDir t("amsrv");
    t.mkdir("/proc");
    for (const char* exe :
         {"/usr/sbin/mariadbd", "/usr/bin/redis-server", "/usr/lib/postgresql/15/bin/postgres"})
        t.file(exe, amtest::elf_header(62), 0755);
    copy_fixture(t, "image");  // no mongod program: not installed
    t.link("/etc/nginx/sites-enabled/shop", "../sites-available/shop");
    t.file("/etc/shadow", "server { listen 6666; server_name leaked; }\n", 0640);
    t.link("/etc/nginx/sites-enabled/shadow", "/etc/shadow");
    t.file("/etc/nginx/sites-enabled/secret", "server { listen 6667; server_name secret.test; }\n", 0600);
    ASSERT_EQ(mkfifo((t.path + "/etc/nginx/sites-enabled/fifo").c_str(), 0644), 0);
    t.file("/etc/nginx/sites-enabled/nul", BYTES("server { listen 8083; server_name nul.test; }\n\0"
                                                 "server { listen 6668; }"));
    t.link("/etc/nginx/sites-enabled/host", "../../../../../../etc/nginx/nginx.conf");

    int32_t rc = -1;
    const std::string got = text(collect(t.path, &rc));
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(got, amtest::read_text(ASSETMAN_FIXTURES "/image.expected"));
}

// One listening process per product, each with its configuration in the
// tree: Tomcat, MySQL with !includedir, PostgreSQL, MongoDB; and nginx in a
// container, its configuration and program inside its own root (its version
// from that program, not from the host's package).
TEST(Servers, ProductsAndAContainerUnderAFakeProc) {
    TempDir t("amsrv");
    copy_fixture(t, "products");
    // Its /proc holds each process's text files: here their links, each to a
    // listener of its /proc/net/tcp.
    for (const auto& [pid, exe, inode] : {std::tuple{100, "/usr/lib/jvm/java-17/bin/java", 900},
                                          {200, "/usr/sbin/mysqld", 901},
                                          {300, "/usr/lib/postgresql/15/bin/postgres", 902},
                                          {400, "/usr/bin/mongod", 903},
                                          {4242, "/usr/sbin/nginx", 777}}) {
        t.link("/proc/" + std::to_string(pid) + "/exe", exe);
        t.link("/proc/" + std::to_string(pid) + "/fd/5", "socket:[" + std::to_string(inode) + "]");
    }
    t.link("/proc/4242/root", "/containers/c1");
    t.file("/containers/c1/usr/sbin/nginx",
           amtest::elf_header(183) + std::string(100, 'x') + BYTES("nginx/1.25.3\0"));

    EXPECT_EQ(text(collect(t.path)), amtest::read_text(ASSETMAN_FIXTURES "/products.expected"));
}

// An unprivileged user's listener that calls itself nginx and names a
// configuration of its own: links to /etc/shadow, a FIFO, an include loop, a
// 200-deep chain and a 50 MB file of NUL bytes. Read inside its root with its
// rights: bounded, each site once, and the shadow file never read.
TEST(Servers, UnprivilegedListenerWithHostileConfiguration) {
    if (getuid() != 0 || !amtest::have_tools("runuser bash") || access("/usr/bin/python3", X_OK))
        GTEST_SKIP() << "needs root, runuser, bash and /usr/bin/python3";
    TempDir t("amsrv");
    chmod(t.path.c_str(), 0755);
    const int port = 45100 + getpid() % 500;
    t.file("/listen.py", "import socket, time\ns = socket.socket()\ns.bind(('127.0.0.1', " +
                             std::to_string(port) + "))\ns.listen()\ntime.sleep(60)\n");
    t.file("/conf/nginx.conf", "http { include evil/*; server { listen 127.0.0.1:" + std::to_string(port) +
                                   "; server_name attacker.test; } }\n");
    t.link("/conf/evil/shadow", "/etc/shadow");
    ASSERT_EQ(mkfifo((t.path + "/conf/evil/fifo").c_str(), 0644), 0);
    t.file("/conf/evil/loop", "include evil/*;\n");
    t.file("/conf/evil/chain", "include chain/c0;\n");
    t.file("/conf/evil/big", "server { listen 127.0.0.1:" + std::to_string(port) +
                                 "; server_name big.test; }\n" + std::string(50u << 20, '\0'));
    for (int i = 0; i < 200; ++i)
        t.file("/conf/chain/c" + std::to_string(i),
               "server { listen 127.0.0.1:" + std::to_string(port) + "; server_name c" + std::to_string(i) +
                   ".test; }\ninclude chain/c" + std::to_string(i + 1) + ";\n");
    ASSERT_EQ(system(("chown -R nobody " + t.path).c_str()), 0);
    ASSERT_EQ(system(("runuser -u nobody -- bash -c 'exec -a nginx /usr/bin/python3 " + t.path +
                      "/listen.py -c " + t.path + "/conf/nginx.conf' >/dev/null 2>&1 &")
                         .c_str()),
              0);
    ASSERT_TRUE(amlive::wait_port(port));
    const pid_t pid = amlive::listener_pid(port);
    ASSERT_GT(pid, 0);

    const auto out = collect("/");
    amlive::stop_pid(pid);
    const AM::ServiceInfo* s = find(out, static_cast<uint32_t>(pid), static_cast<uint32_t>(port));
    ASSERT_TRUE(s);
    EXPECT_EQ(std::to_string(s->type) + " " + s->exec_user + " " + s->configure_path,
              "1 nobody " + t.path + "/conf/nginx.conf");
    const std::set<std::string> keys = site_keys({s});
    for (const char* site : {" attacker.test", " c0.test", " big.test"})
        EXPECT_TRUE(keys.count(std::to_string(port) + site)) << site;
    EXPECT_FALSE(keys.count(std::to_string(port) + " c199.test"));  // cut at the include depth bound
    EXPECT_EQ(keys.size(), s->hosts.size());                        // each site once despite the loop
    EXPECT_EQ(text(out).find("root:"), std::string::npos) << "a field holds /etc/shadow's text";
}

// ------------------------------------------------------------ the real thing

// Words of a line.
std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

// (port, name) pairs of `nginx -T`: our test configuration puts one listen
// and one server_name per line, and closes a server block with a lone "}".
std::set<std::string> nginx_t_sites(const std::string& dump) {
    std::set<std::string> out;
    std::vector<std::string> ports, names;
    std::istringstream in(dump);
    std::string line;
    while (std::getline(in, line)) {
        std::vector<std::string> w = words(line);
        if (!w.empty() && w.back().size() > 1 && w.back().back() == ';') w.back().pop_back();
        if (w.size() >= 2 && w[0] == "listen") ports.push_back(w[1].substr(w[1].rfind(':') + 1));
        if (w.size() >= 2 && w[0] == "server_name") names.insert(names.end(), w.begin() + 1, w.end());
        if (line == "}" && !ports.empty()) {
            for (const auto& p : ports)
                for (const auto& n : names) out.insert(p + " " + n);
            ports.clear();
            names.clear();
        }
    }
    return out;
}

// (port, name) pairs of `apache2ctl -S`: "port N namevhost NAME (file:line)",
// the "alias NAME" lines after it, and a lone vhost's "*:N NAME (file:line)".
std::set<std::string> apache_s_sites(const std::string& dump) {
    std::set<std::string> out;
    std::istringstream in(dump);
    std::string line, port;
    while (std::getline(in, line)) {
        const std::vector<std::string> w = words(line);
        if (w.size() >= 4 && w[0] == "port" && w[2] == "namevhost") {
            port = w[1];
            out.insert(port + " " + w[3]);
        } else if (w.size() >= 2 && w[0] == "alias" && !port.empty()) {
            out.insert(port + " " + w[1]);
        } else if (w.size() >= 3 && line[0] != ' ' && w[0].find(':') != std::string::npos && w[2][0] == '(') {
            port = w[0].substr(w[0].rfind(':') + 1);
            out.insert(port + " " + w[1]);
        }
    }
    return out;
}

std::string dpkg_version(const std::string& pkg) {
    return amtest::run("dpkg-query -W -f='${Version}' " + pkg + " 2>/dev/null");
}

TEST(Servers, LiveNginxApacheRedisMemcached) {
    if (getuid() != 0) GTEST_SKIP() << "starting the servers on their own configuration needs root here";
    if (!amtest::have_tools("ss dpkg-query apache2ctl") || access("/usr/sbin/nginx", X_OK) ||
        access("/usr/sbin/apache2", X_OK) || access("/usr/bin/redis-server", X_OK) ||
        access("/usr/bin/memcached", X_OK))
        GTEST_SKIP()
            << "nginx, apache2, redis-server or memcached is not installed (scripts/setup.sh installs them)";
    amlive::LiveServers live(46100 + (getpid() % 50) * 10);
    ASSERT_TRUE(live.start_nginx(4) && live.start_apache(4) && live.start_redis() && live.start_memcached())
        << live.log;

    const auto out = collect("/");

    // Each port's owner as ss sees it (the master of nginx's and Apache's workers) has its record.
    for (int port : {live.nginx_port(), live.nginx_proxy_port(), live.apache_port(), live.apache_port2(),
                     live.redis_port(), live.memcached_port()})
        EXPECT_TRUE(find(out, amlive::main_pid(amlive::listener_pid(port)), port)) << port;
    const AM::ServiceInfo* ng = find(out, live.nginx, live.nginx_port());
    const AM::ServiceInfo* proxy = find(out, live.nginx, live.nginx_proxy_port());
    const AM::ServiceInfo* ap = find(out, live.apache, live.apache_port());
    const AM::ServiceInfo* ap2 = find(out, live.apache, live.apache_port2());
    const AM::ServiceInfo* rd = find(out, live.redis, live.redis_port());
    const AM::ServiceInfo* mc = find(out, live.memcached, live.memcached_port());
    ASSERT_TRUE(ng && proxy && ap && ap2 && rd && mc);
    // Versions as dpkg knows the packages, programs as the kernel names them.
    auto fields = [](const AM::ServiceInfo* s) {
        return std::to_string(s->type) + " " + s->name + " " + s->version + " " + s->exec_user + " " +
               s->process_path + " | " + s->configure_path + " | " + s->log_path;
    };
    auto exe = [](pid_t pid) {
        return std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe").string();
    };
    const std::string d = live.dir;
    EXPECT_EQ(fields(ng), "1 nginx " + dpkg_version("nginx") + " root " + exe(live.nginx) + " | " + d +
                              "/nginx/nginx.conf | " + d + "/nginx/error.log");
    EXPECT_EQ(fields(ap), "2 Apache httpd " + dpkg_version("apache2-bin") + " root " + exe(live.apache) +
                              " | " + d + "/apache/apache2.conf | " + d + "/apache/logs/error.log");
    // Redis rewrites its command line: its configuration file is not named there.
    EXPECT_EQ(fields(rd).substr(0, fields(rd).find(" | ")),
              "8 Redis " + dpkg_version("redis-tools") + " root " + exe(live.redis));
    EXPECT_EQ(fields(mc),
              "10 Memcached " + dpkg_version("memcached") + " nobody " + exe(live.memcached) + " |  | ");
    EXPECT_FALSE(ng->arch.empty());
    EXPECT_TRUE(rd->hosts.empty());

    // nginx: sites as nginx -T prints the loaded configuration.
    EXPECT_EQ(site_keys({ng, proxy}),
              nginx_t_sites(amtest::run("/usr/sbin/nginx -T -c " + d + "/nginx/nginx.conf -p " + d +
                                        "/nginx/ 2>/dev/null")));
    for (const auto& h : ng->hosts) {  // sites 0 and 1 include the snippet with its own log
        const std::string site = h.host.substr(h.host.find("site"), 5);
        EXPECT_EQ(h.ip + " " + h.document + " " + h.logpath,
                  "127.0.0.1 " + d + "/www/" + site + " " + d +
                      (site < "site2" ? "/nginx/snippet.log" : "/nginx/access.log"));
    }
    ASSERT_EQ(proxy->hosts.size(), 1u);
    EXPECT_EQ(proxy->hosts[0].document, "");

    // Apache: sites as apache2ctl -S prints its virtual hosts.
    EXPECT_EQ(site_keys({ap, ap2}),
              apache_s_sites(amtest::run("APACHE_CONFDIR=" + d + "/apache apache2ctl -S 2>&1")));
    for (const auto& h : ap->hosts) {
        EXPECT_EQ(h.ip, "127.0.0.1");
        if (h.host.find_first_of("01") != std::string::npos) {
            EXPECT_EQ(h.logpath, d + "/apache/logs/sites/snippet.log") << h.host;
        }
    }
    for (const auto& s : out)
        EXPECT_NE(s.port, static_cast<uint32_t>(live.apache_port() + 100))
            << "IfModule ssl_module was not loaded";

    // A site of the root-run nginx linked to /etc/shadow, which root could read.
    ASSERT_EQ(symlink("/etc/shadow", (d + "/nginx/sites/evil.conf").c_str()), 0);
    EXPECT_EQ(text(collect("/")).find("root:"), std::string::npos) << "a field holds /etc/shadow's text";
    live.stop();
}

}  // namespace
