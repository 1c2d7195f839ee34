// Debian's nginx, Apache, Redis and Memcached started on loopback high ports
// from configuration trees of our own (no systemd), and stopped again. Shared
// by the server tests and the benchmark.
#pragma once

#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "../test_util.h"

namespace amlive {

// The number a shell command prints, 0 when none.
inline pid_t pid_of(const std::string& cmd) { return static_cast<pid_t>(atol(amtest::run(cmd).c_str())); }

// The pid that ss reports as owning the listener on 127.0.0.1:`port`, so a
// server whose pid file did not appear is still stopped.
inline pid_t listener_pid(int port) {
    return pid_of("ss -Htlnp 'sport = :" + std::to_string(port) +
                  "' | grep -o 'pid=[0-9]*' | head -1 | cut -c5-");
}

// Waits (bounded) until `port` on 127.0.0.1 is listened on.
inline bool wait_port(int port) {
    for (int i = 0; i < 100 && listener_pid(port) <= 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return listener_pid(port) > 0;
}

// Ends a server: SIGTERM, then SIGKILL after two seconds.
inline void stop_pid(pid_t pid) {
    if (pid <= 1) return;
    kill(pid, SIGTERM);
    for (int i = 0; i < 40 && kill(pid, 0) == 0; ++i) {
        waitpid(pid, nullptr, WNOHANG);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (kill(pid, 0) == 0) kill(pid, SIGKILL);
}

// The parent of a worker when it runs the same program (nginx, Apache).
inline pid_t main_pid(pid_t pid) {
    const std::string p = std::to_string(pid);
    const pid_t parent = pid_of("ps -o ppid= -p " + p);
    const bool same = parent > 1 && pid_of("[ \"$(readlink /proc/" + std::to_string(parent) +
                                           "/exe)\" = \"$(readlink /proc/" + p + "/exe)\" ] && echo 1") == 1;
    return same ? parent : pid;
}

struct LiveServers {
    amtest::TempDir tmp{"amlive"};  // removed after the servers stopped
    std::string dir = tmp.path;
    int base = 0;  // first port
    pid_t nginx = 0, apache = 0, redis = 0, memcached = 0;
    std::string log;  // what failed to start

    explicit LiveServers(int base_port) : base(base_port) { chmod(dir.c_str(), 0755); }
    ~LiveServers() { stop(); }

    int nginx_port() const { return base; }
    int nginx_proxy_port() const { return base + 1; }
    int apache_port() const { return base + 2; }
    int apache_port2() const { return base + 3; }
    int redis_port() const { return base + 4; }
    int memcached_port() const { return base + 5; }

    // Runs `cmd` and waits for `port`; the pid comes from `pidfile`, or else
    // from the listener (its parent when `parent`, for nginx and Apache).
    bool launch(const char* what, const std::string& cmd, int port, const std::string& pidfile, bool parent,
                pid_t& pid) {
        if (system(cmd.c_str()) != 0 || !wait_port(port)) {
            log += std::string(what) + " did not start; ";
            return false;
        }
        for (int i = 0; i < 40 && (pid = pid_of("cat " + pidfile + " 2>/dev/null")) <= 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (pid <= 0) pid = parent ? main_pid(listener_pid(port)) : listener_pid(port);
        return pid > 0;
    }

    // `sites` name-based sites on one port sharing an included snippet, and a
    // proxy-only site on a second port.
    bool start_nginx(int sites) {
        const std::string d = dir + "/nginx";
        std::ostringstream conf;
        conf << "pid " << d << "/nginx.pid;\nerror_log " << d << "/error.log;\n"
             << "events { worker_connections 64; }\nhttp {\n  access_log " << d << "/access.log;\n";
        for (const char* t : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
            conf << "  " << t << "_temp_path " << d << "/tmp;\n";
        conf << "  include sites/*.conf;\n}\n";
        amtest::write_file(d + "/nginx.conf", conf.str());
        amtest::write_file(d + "/snippet.conf", "access_log " + d + "/snippet.log;\nindex index.html;\n");
        for (int i = 0; i < sites; ++i) {
            std::ostringstream s;
            s << "server {\n  listen 127.0.0.1:" << nginx_port() << ";\n  server_name site" << i
              << ".test www.site" << i << ".test;\n  root " << dir << "/www/site" << i << ";\n"
              << (i < 2 ? "  include snippet.conf;\n" : "") << "}\n";
            amtest::write_file(d + "/sites/site" + std::to_string(i) + ".conf", s.str());
        }
        amtest::write_file(d + "/sites/zz-proxy.conf",
                           "server {\n  listen 127.0.0.1:" + std::to_string(nginx_proxy_port()) +
                               ";\n  server_name proxy.test;\n  location / { proxy_pass "
                               "http://127.0.0.1:9; }\n}\n");
        std::filesystem::create_directories(d + "/tmp");
        return launch("nginx",
                      "/usr/sbin/nginx -c " + d + "/nginx.conf -p " + d + "/ >" + d + "/start.log 2>&1",
                      nginx_port(), d + "/nginx.pid", true, nginx);
    }

    bool start_apache(int sites) {
        const std::string d = dir + "/apache";
        amtest::write_file(d + "/envvars",
                           "export APACHE_RUN_USER=www-data\nexport APACHE_RUN_GROUP=www-data\n"
                           "export APACHE_PID_FILE=" +
                               d + "/apache.pid\nexport APACHE_RUN_DIR=" + d +
                               "/run\nexport APACHE_LOCK_DIR=" + d + "/lock\nexport APACHE_LOG_DIR=" + d +
                               "/logs\nexport LANG=C\n");
        std::ostringstream conf;
        const std::string mods = "/usr/lib/apache2/modules/";
        conf << "DefaultRuntimeDir ${APACHE_RUN_DIR}\nPidFile ${APACHE_PID_FILE}\nMutex "
                "file:${APACHE_LOCK_DIR}\n"
             << "User ${APACHE_RUN_USER}\nGroup ${APACHE_RUN_GROUP}\n"
             << "LoadModule mpm_event_module " << mods << "mod_mpm_event.so\n"
             << "LoadModule authz_core_module " << mods << "mod_authz_core.so\n"
             << "Define SITE_LOGS ${APACHE_LOG_DIR}/sites\n"
             << "ErrorLog ${APACHE_LOG_DIR}/error.log\nServerName main.test\n"
             << "Listen 127.0.0.1:" << apache_port() << "\n"
             << "<IfModule ssl_module>\n  Listen 127.0.0.1:" << apache_port() + 100 << "\n</IfModule>\n"
             << "<IfDefine NEVER>\n  Listen 127.0.0.1:" << apache_port() + 101 << "\n</IfDefine>\n"
             << "<IfModule mpm_event_module>\n  Listen 127.0.0.1:" << apache_port2() << "\n</IfModule>\n"
             << "IncludeOptional sites-enabled/*.conf\nIncludeOptional does-not-exist/*.conf\n";
        amtest::write_file(d + "/apache2.conf", conf.str());
        amtest::write_file(d + "/snippet.conf", "CustomLog ${SITE_LOGS}/snippet.log \"%h %r\"\n");
        for (int i = 0; i < sites; ++i) {
            std::ostringstream s;
            s << "<VirtualHost 127.0.0.1:" << apache_port() << ">\n  ServerName vhost" << i
              << ".test\n  ServerAlias alias" << i << ".test other" << i << ".test\n  DocumentRoot " << dir
              << "/www/vhost" << i << "\n"
              << (i < 2 ? "  Include snippet.conf\n"
                        : "  CustomLog ${SITE_LOGS}/v" + std::to_string(i) + ".log \"%h\"\n")
              << "</VirtualHost>\n";
            amtest::write_file(d + "/sites-enabled/vhost" + std::to_string(i) + ".conf", s.str());
        }
        amtest::write_file(d + "/sites-enabled/zz-second.conf",
                           "<VirtualHost *:" + std::to_string(apache_port2()) +
                               ">\n  ServerName second.test\n  DocumentRoot " + dir +
                               "/www/second\n</VirtualHost>\n");
        for (const char* sub : {"/run", "/lock", "/logs/sites"}) std::filesystem::create_directories(d + sub);
        return launch("apache2",
                      "env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin sh -c '. " + d +
                          "/envvars; exec /usr/sbin/apache2 -d " + d + " -k start' >" + d + "/start.log 2>&1",
                      apache_port(), d + "/apache.pid", true, apache);
    }

    bool start_redis() {
        const std::string d = dir + "/redis";
        amtest::write_file(d + "/redis.conf", "port " + std::to_string(redis_port()) +
                                                  "\nbind 127.0.0.1\ndaemonize yes\npidfile " + d +
                                                  "/redis.pid\ndir " + d + "\nlogfile " + d +
                                                  "/redis.log\nsave \"\"\n");
        return launch("redis-server", "/usr/bin/redis-server " + d + "/redis.conf >/dev/null 2>&1",
                      redis_port(), d + "/redis.pid", false, redis);
    }

    bool start_memcached() {
        const std::string d = dir + "/memcached";
        std::filesystem::create_directories(d);
        chmod(d.c_str(), 0777);  // it writes its pid file as nobody
        return launch("memcached",
                      "/usr/bin/memcached -d -u nobody -l 127.0.0.1 -p " + std::to_string(memcached_port()) +
                          " -U 0 -P " + d + "/mc.pid >/dev/null 2>&1",
                      memcached_port(), d + "/mc.pid", false, memcached);
    }

    void stop() {
        for (pid_t* pid : {&nginx, &apache, &redis, &memcached}) {
            stop_pid(*pid);
            *pid = 0;
        }
    }
};

}  // namespace amlive
