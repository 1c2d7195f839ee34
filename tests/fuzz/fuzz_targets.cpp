// Every libFuzzer target of the service's parsers. Compiled once as it is: the
// targets. Compiled once more per fuzzer with FUZZ_TARGET=<name>: the entry
// point that hands each input to that target (see CMakeLists.txt).
#include <stddef.h>
#include <stdint.h>

#include <string_view>

#ifdef FUZZ_TARGET
namespace targets {
void FUZZ_TARGET(std::string_view t);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    targets::FUZZ_TARGET(std::string_view(reinterpret_cast<const char*>(data), size));
    return 0;
}
#else
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "network/netlink_collector.h"
#include "packages/apk_db.h"
#include "packages/dpkg_db.h"
#include "process/process_parse.h"
#include "schedule/autorun_parse.h"
#include "schedule/cron_parse.h"
#include "system/net_cards.h"
#include "system/sysfacts.h"
#include "users/user_parse.h"

using namespace amsvc;

namespace {

// The first byte chooses a variant; the rest is the input proper.
unsigned take_selector(std::string_view& t) {
    if (t.empty()) return 0;
    const unsigned s = static_cast<unsigned char>(t[0]);
    t.remove_prefix(1);
    return s;
}

// Parsers of kernel messages get an aligned copy (a receive buffer always is).
struct Aligned {
    std::vector<uint64_t> words;
    size_t size;
    explicit Aligned(std::string_view t) : words(t.size() / 8 + 1), size(t.size()) {
        if (size) memcpy(words.data(), t.data(), size);
    }
    const void* data() const { return words.data(); }
};

}  // namespace

namespace targets {

// apk's installed database.
void apk_db(std::string_view t) {
    for (const ApkPackage& p : parse_apk_installed(t, true))
        if (p.name.empty()) __builtin_trap();
    unsigned char sha1[20];
    decode_apk_checksum(t, sha1);
}

// Crontabs (system and user) and anacrontab.
void crontab(std::string_view t) {
    std::vector<cron::CronInfo> jobs;
    cron::parse_crontab(t, true, "", "/etc/crontab", jobs);
    cron::parse_crontab(t, false, "alice", "/var/spool/cron/crontabs/alice", jobs);
    cron::parse_anacrontab(t, "/etc/anacrontab", jobs);
    for (const cron::CronInfo& j : jobs)
        if (j.cmd_line.empty()) __builtin_trap();
    (void)cron::program_name(t);
    (void)cron::run_parts_name(t);
}

// A package's .list and .md5sums files under /var/lib/dpkg/info.
void dpkg_list(std::string_view t) {
    size_t files = 0;
    parse_dpkg_list(t, [&](std::string_view path) { files += !path.empty(); });
    parse_md5sums(t, [&](std::string_view path, const unsigned char* md5) {
        if (path.empty() || path[0] != '/' || !md5) __builtin_trap();
    });
}

// dpkg's status file: read in small pieces it must give what its whole text gives.
void dpkg_status(std::string_view t) {
    std::string whole, pieces;
    auto add = [](std::string& to) {
        return [&to](DpkgPackage& p) {
            to += p.name + '|' + p.version + '|' + p.status + '|' + p.summary + '|' + p.source + '|' +
                  std::to_string(p.installed_size_kib) + '|' + std::to_string(p.conffiles.size()) + '\n';
        };
    };
    for_each_dpkg_stanza(t, add(whole));
    const int fd = memfd_create("status", MFD_CLOEXEC);
    if (fd >= 0) {
        if (write(fd, t.data(), t.size()) == static_cast<ssize_t>(t.size()) && lseek(fd, 0, SEEK_SET) == 0) {
            read_dpkg_status_fd(fd, add(pieces), kDefaultMaxFile, 16 + t.size() % 61);
            if (pieces != whole) __builtin_trap();
        }
        close(fd);
    }
    for (const DpkgPackage& p : parse_dpkg_status(t)) {
        if (p.name.empty()) __builtin_trap();
        (void)dpkg_is_installed(p.status);
        std::string v, r;
        split_deb_version(p.version, v, r);
        (void)dpkg_info_name(p, true);
        unsigned char md5[16];
        for (const DpkgConffile& c : p.conffiles) hex_to_bytes(c.md5, md5, 16);
    }
}

// /etc/exports
void exports(std::string_view t) {
    for (const AM::NetShareInfo& s : parse_exports(t))
        if (s.path.empty() || s.path[0] != '/') __builtin_trap();
}

// /etc/group
void group(std::string_view t) {
    for (const users::GroupEntry& e : users::parse_group(t)) {
        if (e.name.empty()) __builtin_trap();
        (void)users::canon_id(e.gid);
    }
}

// lastlog records and wtmp.
void login_records(std::string_view t) {
    users::LoginRecord r;
    if (t.size() >= users::kLastlogRecordSize)
        users::parse_lastlog_record(t.substr(0, users::kLastlogRecordSize), r);
    (void)users::parse_wtmp(t.substr(0, t.size() - t.size() % users::kUtmpRecordSize));
}

// /proc/mounts
void mounts(std::string_view t) {
    for (const MountEntry& m : parse_mounts(t)) {
        (void)is_pseudo_fs(m.fs_type);
        (void)is_remote_fs(m.fs_type);
    }
}

// /proc/net/route, /proc/net/ipv6_route and /proc/net/if_inet6.
void net_route(std::string_view t) {
    (void)parse_route_v4(t);
    (void)parse_route_v6(t);
    (void)parse_if_inet6(t);
}

// os-release, /etc/environment, /proc/meminfo and /proc/cpuinfo.
void os_release(std::string_view t) {
    (void)parse_os_release(t);
    (void)parse_environment(t);
    (void)parse_meminfo(t);
    (void)parse_cpuinfo(t);
}

// /etc/passwd
void passwd(std::string_view t) {
    for (const users::PasswdEntry& e : users::parse_passwd(t)) {
        if (e.name.empty()) __builtin_trap();
        (void)users::canon_id(e.uid);
    }
}

// /proc/<pid>/maps
void proc_maps(std::string_view t) {
    for (procfs::Mapping& m : procfs::parse_maps(t)) {
        if (m.path.empty() || m.path[0] != '/') __builtin_trap();
        procfs::strip_deleted(m.path);
    }
}

// /proc/net/{tcp,udp,raw}[6] tables (the first byte picks the protocol and
// family), and the socket and namespace link texts.
void proc_net(std::string_view t) {
    const unsigned sel = take_selector(t);
    std::vector<netlink::Sock> socks;
    const size_t n = netlink::parse_proc_net_table(t, static_cast<netlink::Proto>(sel % 3),
                                                   (sel & 4) ? AF_INET6 : AF_INET, socks, 1000);
    if (n != socks.size() || n > 1000) __builtin_trap();
    for (const netlink::Sock& s : socks) (void)netlink::to_record(s);
    uint64_t id;
    netlink::parse_socket_link(t, id);
    netlink::parse_ns_link(t, id);
}

// /proc/<pid>/stat
void proc_stat(std::string_view t) {
    procfs::Stat st;
    if (procfs::parse_stat(t, st)) (void)procfs::format_cpu_time(st.utime + st.stime, 100);
}

// /proc/<pid>/status, /proc/stat, and the NUL-separated cmdline and environ.
void proc_status(std::string_view t) {
    uint32_t uid;
    procfs::parse_status_uid(t, uid);
    int64_t btime;
    procfs::parse_btime(t, btime);
    if (procfs::join_nul(t, ' ').size() > t.size()) __builtin_trap();
}

// Routing netlink answers: RTM_NEWLINK and RTM_NEWADDR dumps.
void rtnl(std::string_view t) {
    const Aligned buf(t);
    std::vector<RtLink> links;
    std::vector<RtAddr> addrs;
    int err = 0;
    parse_rtnl_buffer(buf.data(), buf.size, 1, links, addrs, err);
}

// /etc/shadow, with the dates and states derived from it.
void shadow(std::string_view t) {
    for (const users::ShadowEntry& e : users::parse_shadow(t)) {
        (void)users::last_change_date(e);
        (void)users::account_expire_date(e);
        (void)users::password_expire_date(e);
        (void)users::is_disabled(e, 1700000000);
    }
}

// Samba's smb.conf
void smb_conf(std::string_view t) {
    for (const AM::NetShareInfo& s : parse_smb_conf(t))
        if (s.name.empty() || s.max_conn == 0 || s.max_conn < -1) __builtin_trap();
}

// sock_diag answers: a datagram of inet_diag messages (the first byte picks
// the protocol and whether one bare message is parsed instead).
void sock_diag(std::string_view t) {
    const unsigned sel = take_selector(t);
    const netlink::Proto proto = static_cast<netlink::Proto>(sel % 3);
    const Aligned buf(t);
    std::vector<netlink::Sock> socks;
    if (sel & 0x80) {
        netlink::Sock s;
        if (netlink::parse_diag_msg(buf.data(), buf.size, proto, s)) socks.push_back(s);
    } else {
        int err = 0;
        netlink::parse_diag_buffer(buf.data(), buf.size, 1, proto, socks, err, 64);
        if (socks.size() > 64) __builtin_trap();
    }
    for (const netlink::Sock& s : socks) {
        (void)netlink::to_record(s);
        (void)netlink::state_name(s.proto, s.state);
    }
}

// sudoers: aliases, user rules, include directives (each include feeds the
// same text back once more, as a nested file would).
void sudoers(std::string_view t) {
    users::SudoersParser p;
    int depth = 0;
    std::function<void(const std::string&, bool)> include = [&](const std::string& path, bool is_dir) {
        if (is_dir) {
            (void)users::sudoers_dir_files({path, path + "~", "a.b"});
            return;
        }
        if (depth < 2) {
            ++depth;
            p.parse(t, include);
            --depth;
        }
    };
    p.parse(t, include);
}

// systemd unit files and drop-ins (a second half of the input is applied as a
// drop-in), as both the cron and the auto-start kinds read them; init-script
// LSB headers and XDG autostart entries.
void unit_file(std::string_view t) {
    const size_t cut = t.find("\n%%\n");
    UnitKeys keys;
    parse_unit(t.substr(0, cut), keys);
    if (cut != std::string_view::npos) parse_unit(t.substr(cut + 4), keys);
    (void)exec_program(unit_file_from(keys).exec_start);
    (void)cron::timer_schedule(keys);
    (void)cron::service_command(keys);
    (void)dropin_names(std::string(t.substr(0, t.find('\n'))));
    (void)parse_lsb_header(t);
    (void)parse_desktop_entry(t);
}

}  // namespace targets
#endif
