// Text parsers behind the kernel-module and system-facts collectors. Each takes file content and returns
// records, so the tests feed them fixture text; the collectors add only the reads under the host root.
#ifndef ASSETMAN_SERVICE_SYSFACTS_H
#define ASSETMAN_SERVICE_SYSFACTS_H

#include <stdint.h>
#include <sys/statvfs.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "collectors.h"
#include "core/host_path.h"

namespace amsvc {

// ---- image ---------------------------------------------------------------

// Machine name (uname's spelling: "x86_64", "aarch64", "i686") of an ELF
// file's header; empty when it is no ELF file or an unknown machine.
std::string elf_arch(std::string_view elf_header);
// The architecture of the image under `root`: that of its own programs
// (/bin/sh, /usr/bin/env, ...), empty when none is an ELF file.
std::string image_arch(const HostRoot& root);

// ---- kernel modules ------------------------------------------------------

struct ProcModule {
    std::string name, size, used, by, load_addr;
};
// /proc/modules: "name size refcount users state address [taint]". `by` is
// the users list without its trailing comma, empty for "-".
std::vector<ProcModule> parse_proc_modules(std::string_view text);
// The trailer a signed module file ends with.
bool has_module_signature(std::string_view file_tail);

// ---- system facts --------------------------------------------------------

// PRETTY_NAME of os-release text, else NAME and VERSION; quotes and escapes removed.
std::string parse_os_release(std::string_view text);
// /etc/environment: "KEY=VALUE" per assignment, quotes stripped, comments and
// junk skipped, an "export " prefix dropped.
std::vector<std::string> parse_environment(std::string_view text);
// MemTotal of /proc/meminfo as "MemTotal 23.4 GiB (25129623552 bytes)".
std::string parse_meminfo(std::string_view text);
// "<model> x <logical cpus> (<cores> cores)" from /proc/cpuinfo.
std::string parse_cpuinfo(std::string_view text);

struct MountEntry {
    std::string device, mount_point, fs_type;
};
std::vector<MountEntry> parse_mounts(std::string_view text);
// Virtual file systems that hold no disk data (proc, cgroup, tmpfs, ...).
bool is_pseudo_fs(std::string_view fs_type);
// File systems whose statvfs may block on a remote server or a user daemon.
bool is_remote_fs(std::string_view fs_type);

// statvfs, run on a worker with a deadline when `may_hang`; false on failure
// or timeout (the worker is then left behind; past a few, none is started).
bool statvfs_guarded(const std::string& path, bool may_hang, struct statvfs& st);

// Default gateways by interface, from /proc/net/route and /proc/net/ipv6_route.
std::map<std::string, std::string> parse_route_v4(std::string_view text);
std::map<std::string, std::string> parse_route_v6(std::string_view text);
// /proc/net/if_inet6 lines as "addr/prefix" per interface.
std::map<std::string, std::vector<std::string>> parse_if_inet6(std::string_view text);

std::vector<AM::NetShareInfo> parse_exports(std::string_view text);
std::vector<AM::NetShareInfo> parse_smb_conf(std::string_view text);

}  // namespace amsvc

#endif
