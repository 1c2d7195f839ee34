-- What the inventory examples share: the kinds of asset, how each is collected
-- through api.assetman, and the fields worth showing, in the order shown.
--
-- Lists are 0-based: list[0] .. list[list:size() - 1]. Reading list[i] gives
-- a copy of the record that Lua frees; reading rec.modules (or rec.hosts,
-- info.disk, ...) gives a view into that record, valid while it lives.

local M = {}

local am = api and api.assetman
if not am then
  error("api.assetman is missing: run this under assetman-run (or a host that installed assetman)", 0)
end

-- Every field of every record (SystemInfo.envs excepted: a vector<string>
-- has no methods in Lua and cannot be read).
M.fields = {
  ProcessInfo = { "pid", "ppid", "user", "name", "stime", "rtime", "path", "current_dir", "cmd_line", "env" },
  ProcessModuleInfo = { "path", "md5", "sha256", "company", "verified" },
  NetLinkInfo = { "proto", "local_addr", "local_port", "remote_addr", "remote_port", "state", "pid",
    "proc_name", "proc_path" },
  ServiceInfo = { "pid", "port", "type", "name", "srv_name", "version", "arch", "install_path", "process_path",
    "configure_path", "exec_user", "command", "exec_env", "data_path", "log_path", "current_dir", "desc",
    "reserve" },
  WebSiteInfo = { "ip", "port", "host", "document", "logpath" },
  UserInfo = { "name", "uid", "gid", "groupname", "comment", "homedir", "shell", "is_admin", "is_disable",
    "last_change_passwd", "account_expire", "passwd_expire", "last_login_time", "last_login_term",
    "last_login_ip" },
  SysInstallPackageInfo = { "name", "version", "release", "type", "installtime", "size", "summary", "source",
    "installdir", "company" },
  AutoRunServInfo = { "name", "status", "level", "script_path", "comment", "md5", "sha256", "company", "verified" },
  CronInfo = { "user", "timer", "cmd_line", "name", "comment", "file" },
  SysLoadModuleInfo = { "name", "size", "load_addr", "used", "by", "path", "md5", "sha256", "company", "verified" },
  ThirdPartDevLibInfo = { "name", "version", "path" },
  RegAutoStartInfo = { "name", "cmd_line", "company", "verified", "md5", "sha256" },
  SystemInfo = { "host", "version", "kernel_version", "arch", "b64", "Manufacturer", "product", "Serial", "mem",
    "cpu" },
  NetworkCardInfo = { "name", "ipv4", "ipv6", "mac", "gateway", "mask", "broad", "mtu" },
  DiskInfo = { "name", "desc", "fs", "size", "free", "percent" },
  NetShareInfo = { "name", "path", "max_conn", "cur_conn" },
  DockerInfo = { "storage_driver", "root_dir", "version", "image_num", "container_num", "images", "containers" },
}

-- The twelve kinds in the order the module lists its collectors. `nested`
-- names the record's list fields and the record type of their elements.
M.kinds = {
  { kind = "process", record = "ProcessInfo", nested = { { field = "modules", record = "ProcessModuleInfo" } } },
  { kind = "netlink", record = "NetLinkInfo" },
  { kind = "service", record = "ServiceInfo", nested = { { field = "hosts", record = "WebSiteInfo" } } },
  { kind = "user", record = "UserInfo" },
  { kind = "sys_install_package", record = "SysInstallPackageInfo" },
  { kind = "auto_run_serv", record = "AutoRunServInfo" },
  { kind = "cron", record = "CronInfo" },
  { kind = "sys_module", record = "SysLoadModuleInfo" },
  { kind = "system", record = "SystemInfo", single = true,
    nested = { { field = "network_card", record = "NetworkCardInfo" }, { field = "disk", record = "DiskInfo" },
      { field = "net_share", record = "NetShareInfo" } } },
  { kind = "thirdpart_dev_lib", record = "ThirdPartDevLibInfo" },
  { kind = "windows_reg_autostart", record = "RegAutoStartInfo" },
  { kind = "docker", record = "DockerInfo", single = true },
}

local errno_names = {
  [1] = "EPERM", [2] = "ENOENT", [5] = "EIO", [12] = "ENOMEM", [13] = "EACCES", [16] = "EBUSY",
  [22] = "EINVAL", [38] = "ENOSYS", [95] = "EOPNOTSUPP", [110] = "ETIMEDOUT",
}

-- "ok", "ENOSYS", ...: what a result code means (negative errno or 0).
function M.describe_rc(rc)
  if rc == 0 then return "ok" end
  if rc < 0 and errno_names[-rc] then return errno_names[-rc] end
  return "error " .. tostring(rc)
end

-- Collects one kind. Returns the result code and, for a list kind, the list;
-- for system, the SystemInfo view and the holder that owns it (keep the
-- holder referenced while the view is used); for docker, the DockerInfo.
function M.collect(spec, fast)
  local fn = am["collect_" .. spec.kind .. "_asset" .. (fast and "_fast" or "")]
  if spec.kind == "system" then
    local holder = am.collect_system_asset_data:new_local()
    local info = holder:get()
    return fn(info), info, holder
  elseif spec.kind == "docker" then
    local info = am.DockerInfo:new_local()
    return fn(info), info
  end
  local list = _G["vector_assetman__" .. spec.record .. "_"]:new_local()
  return fn(list), list
end

-- for i, rec in M.each(list) do ... end, i from 0.
function M.each(list)
  local i, n = -1, list:size()
  return function()
    i = i + 1
    if i < n then return i, list[i] end
  end
end

-- The record's field values in display order, as (name, value) pairs. A
-- collector that failed may leave booleans unset, so they are skipped then.
function M.values(rec, record, filled)
  local out = {}
  for _, name in ipairs(M.fields[record]) do
    if filled or record ~= "SystemInfo" or name ~= "b64" then
      out[#out + 1] = { name, rec[name] }
    end
  end
  return out
end

-- Script options: --name or --name=value, anything else positional.
function M.options(args)
  local opts, rest = {}, {}
  for _, a in ipairs(args) do
    local k, v = a:match("^%-%-([%w_-]+)=(.*)$")
    if k then
      opts[k] = v
    elseif a:match("^%-%-[%w_-]+$") then
      opts[a:sub(3)] = true
    else
      rest[#rest + 1] = a
    end
  end
  return opts, rest
end

-- The kinds selected by --kind=a,b (all when absent); errors on unknown names.
function M.selected_kinds(opt)
  if not opt or opt == true then return M.kinds end
  local by_name, out = {}, {}
  for _, spec in ipairs(M.kinds) do by_name[spec.kind] = spec end
  for name in tostring(opt):gmatch("[^,%s]+") do
    if not by_name[name] then error("unknown kind '" .. name .. "'", 0) end
    out[#out + 1] = by_name[name]
  end
  return out
end

-- Replaces every byte that does not start a well-formed UTF-8 sequence with
-- U+FFFD: command lines and environments may hold any bytes, JSON may not.
function M.valid_utf8(s)
  if not s:find("[\128-\255]") then return s end
  local out, i, n = {}, 1, #s
  while i <= n do
    local c = s:byte(i)
    local len, lo, hi = 0, 0x80, 0xBF
    if c < 0x80 then
      len = 1
    elseif c >= 0xC2 and c <= 0xDF then
      len = 2
    elseif c >= 0xE0 and c <= 0xEF then
      len = 3
      if c == 0xE0 then lo = 0xA0 elseif c == 0xED then hi = 0x9F end
    elseif c >= 0xF0 and c <= 0xF4 then
      len = 4
      if c == 0xF0 then lo = 0x90 elseif c == 0xF4 then hi = 0x8F end
    end
    local ok = len > 0 and i + len - 1 <= n
    for k = 1, len - 1 do
      if not ok then break end
      local b = s:byte(i + k)
      if k == 1 then
        ok = b >= lo and b <= hi
      else
        ok = b >= 0x80 and b <= 0xBF
      end
    end
    if ok then
      out[#out + 1] = s:sub(i, i + len - 1)
      i = i + len
    else
      out[#out + 1] = "\239\191\189"
      i = i + 1
    end
  end
  return table.concat(out)
end

return M
