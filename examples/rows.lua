-- The inventory as rows for a fleet store: one JSON object per asset per
-- line (JSON Lines, ClickHouse's JSONEachRow), written as the records are
-- read. See README, "Fleet store", for the columns and the table.
--
--   assetman-run examples/rows.lua [--since STATE] [--kind=K,...] [--fast]
--                                  [--host-id=ID] [--time='YYYY-MM-DD HH:MM:SS']
--
-- Without --since every asset is one row with change "snapshot". With
-- --since=STATE only what was added, changed or removed since the run that
-- wrote STATE is written (a first run, without STATE, writes every asset as
-- "added"), and STATE is rewritten for the next run.

local script_dir = (arg and arg[0] or ""):match("^(.*)/") or "."
package.path = script_dir .. "/?.lua;" .. package.path
local inv = require "inventory_common"
local cjson = require "cjson"

local opts, rest = inv.options({ ... })
-- "--since FILE" as well as "--since=FILE".
if opts.since == true then opts.since = rest[1] end
local am = api.assetman

local function encode(v) return (cjson.encode(v):gsub("\\/", "/")) end

local function read_first_line(path)
  local f = io.open(path, "r")
  if not f then return nil end
  local l = f:read("*l")
  f:close()
  return l and l:match("^%s*(.-)%s*$") or nil
end

-- ---- what identifies each asset, and what names it -------------------------

-- Per record type: the fields that make its key (an asset keeps its key
-- while it changes), the columns name/version/path, and the fields left out
-- of change detection because they move on their own (CPU time, free space).
local shape = {
  ProcessInfo = { key = { "pid", "stime" }, name = "name", path = "path", volatile = { rtime = true } },
  ProcessModuleInfo = { key = { "path" }, name = "path", path = "path" },
  NetLinkInfo = { key = { "proto", "local_addr", "local_port", "remote_addr", "remote_port" }, name = "proc_name",
    path = "proc_path" },
  ServiceInfo = { key = { "type", "name", "port" }, name = "name", version = "version", path = "process_path",
    volatile = { pid = true } },
  WebSiteInfo = { key = { "ip", "port", "host" }, name = "host", path = "document" },
  UserInfo = { key = { "name" }, name = "name", path = "homedir",
    volatile = { last_login_time = true, last_login_term = true, last_login_ip = true } },
  SysInstallPackageInfo = { key = { "type", "name" }, name = "name", version = "version", path = "installdir" },
  AutoRunServInfo = { key = { "name", "script_path" }, name = "name", path = "script_path" },
  CronInfo = { key = { "file", "user", "timer", "cmd_line" }, name = "name", path = "file" },
  SysLoadModuleInfo = { key = { "name" }, name = "name", path = "path", volatile = { used = true, by = true } },
  SystemInfo = { key = {}, name = "host", version = "version" },
  NetworkCardInfo = { key = { "name" }, name = "name" },
  DiskInfo = { key = { "name" }, name = "name", volatile = { free = true, percent = true } },
  NetShareInfo = { key = { "name" }, name = "name", path = "path", volatile = { cur_conn = true } },
  ThirdPartDevLibInfo = { key = { "path", "name" }, name = "name", version = "version", path = "path" },
  RegAutoStartInfo = { key = { "name" }, name = "name" },
  DockerInfo = { key = {}, name = "storage_driver", version = "version",
    volatile = { containers = true } },
}
-- Child lists become assets of their own kind, keyed under their parent.
local child_kind = { modules = "process_module", hosts = "website", network_card = "network_card",
  disk = "disk", net_share = "net_share" }

-- ---- a small, stable digest of a record's fields, in pure Lua --------------

-- Two polynomial hashes modulo primes below 2^31: exact in doubles, the same
-- under Lua 5.1 and LuaJIT, and 62 bits between them.
local function digest(s)
  local a, b = 0, 0
  local n, byte = #s, string.byte
  for i = 1, n, 64 do
    local chunk = { byte(s, i, math.min(n, i + 63)) }
    for j = 1, #chunk do
      local c = chunk[j]
      a = (a * 257 + c) % 2147483647
      b = (b * 263 + c) % 2147483629
    end
  end
  return string.format("%08x%08x%x", a, b, n)
end

-- ---- the previous run's state ----------------------------------------------

local state_path = opts.since
if state_path == nil and opts.since ~= nil then error("--since takes a file", 0) end
local previous, had_state = {}, false
if state_path then
  local f = io.open(state_path, "r")
  if f then
    had_state = true
    for line in f:lines() do
      local id, d = line:match("^(.*)\t(%x+)$")
      if id then previous[id] = d end
    end
    f:close()
  end
end
local state_out
if state_path then
  state_out = assert(io.open(state_path .. ".tmp", "w"))
end

-- ---- host identity -----------------------------------------------------------

local holder = am.collect_system_asset_data:new_local()
local sys = holder:get()
local sys_rc = am.collect_system_asset(sys)
local hostname = sys_rc == 0 and sys.host or ""
local host_id = opts["host-id"] ~= true and opts["host-id"] or nil
host_id = host_id or read_first_line("/etc/machine-id") or hostname
local collected_at = opts.time ~= true and opts.time or os.date("!%Y-%m-%d %H:%M:%S")

local counts = { rows = 0, bytes = 0 }
local function write_row(kind, key, change, rec_shape, rec_fields)
  local row = {
    host_id = host_id, host = hostname, collected_at = collected_at, kind = kind, key = key, change = change,
    name = "", version = "", path = "", fields = rec_fields or "{}",
  }
  if rec_shape then
    row.name = rec_shape.name_value or ""
    row.version = rec_shape.version_value or ""
    row.path = rec_shape.path_value or ""
  end
  -- Column order is fixed, so the lines diff and compress well.
  local line = "{" .. table.concat({
    '"host_id":' .. encode(row.host_id), '"host":' .. encode(row.host),
    '"collected_at":' .. encode(row.collected_at), '"kind":' .. encode(row.kind), '"key":' .. encode(row.key),
    '"change":' .. encode(row.change), '"name":' .. encode(row.name), '"version":' .. encode(row.version),
    '"path":' .. encode(row.path), '"fields":' .. encode(row.fields),
  }, ",") .. "}\n"
  io.write(line)
  counts.rows = counts.rows + 1
  counts.bytes = counts.bytes + #line
end

-- ---- the assets --------------------------------------------------------------

local seen = {}

local function field_text(v)
  if type(v) == "string" then return inv.valid_utf8(v) end
  return v
end

-- Emits one record (and its child lists) as assets.
local function emit(kind, record_type, rec, parent_key, nested)
  local sh = shape[record_type]
  local key_parts = {}
  for _, k in ipairs(sh.key) do key_parts[#key_parts + 1] = tostring(rec[k]) end
  local key = table.concat(key_parts, "|")
  if parent_key then key = parent_key .. (key ~= "" and ("/" .. key) or "") end
  -- The same key twice (a package for two architectures): number the repeats.
  local id = kind .. "\t" .. key
  if seen[id] then
    local n = 2
    while seen[id .. "#" .. n] do n = n + 1 end
    key = key .. "#" .. n
    id = kind .. "\t" .. key
  end
  seen[id] = true

  -- Fields in record order; the stable part decides whether it changed.
  local all, stable = {}, {}
  for _, kv in ipairs(inv.values(rec, record_type, true)) do
    local name, v = kv[1], field_text(kv[2])
    local piece = encode(name) .. ":" .. (type(v) == "string" and encode(v) or tostring(v))
    all[#all + 1] = piece
    if not (sh.volatile and sh.volatile[name]) then stable[#stable + 1] = piece end
  end
  local fields = "{" .. table.concat(all, ",") .. "}"
  local d = digest(table.concat(stable, ","))
  local cols = {
    name_value = sh.name and field_text(tostring(rec[sh.name])) or "",
    version_value = sh.version and field_text(tostring(rec[sh.version])) or "",
    path_value = sh.path and field_text(tostring(rec[sh.path])) or "",
  }

  if not state_path then
    write_row(kind, key, "snapshot", cols, fields)
  else
    local before = previous[id]
    if before == nil then
      write_row(kind, key, "added", cols, fields)
    elseif before ~= d then
      write_row(kind, key, "changed", cols, fields)
    end
    previous[id] = nil
    state_out:write(id, "\t", d, "\n")
  end

  for _, n in ipairs(nested or {}) do
    for _, item in inv.each(rec[n.field]) do
      emit(child_kind[n.field] or n.field, n.record, item, kind .. ":" .. key, nil)
    end
  end
end

local failed = 0
for _, spec in ipairs(inv.selected_kinds(opts.kind)) do
  local ok, err = pcall(function()
    local rc, obj
    if spec.kind == "system" then
      rc, obj = sys_rc, sys
    else
      rc, obj = inv.collect(spec, opts.fast)
    end
    if rc ~= 0 then
      -- A kind that could not be read says nothing about its assets: the
      -- previous run's rows of that kind are not reported removed.
      local prefix = spec.kind .. "\t"
      for id in pairs(previous) do
        if id:sub(1, #prefix) == prefix or (spec.nested and id:find("^[%w_]+\t" .. spec.kind .. ":")) then
          state_out:write(id, "\t", previous[id], "\n")
          previous[id] = nil
        end
      end
      return
    end
    if spec.single then
      emit(spec.kind, spec.record, obj, nil, spec.nested)
    else
      for _, rec in inv.each(obj) do emit(spec.kind, spec.record, rec, nil, spec.nested) end
    end
  end)
  if not ok then
    failed = failed + 1
    io.stderr:write(string.format("rows: %s: %s\n", spec.kind, tostring(err)))
  end
  collectgarbage()
end

-- Whatever the last run had and this one did not see is gone; kinds not
-- selected this run are kept as they were.
if state_path then
  local selected = {}
  for _, spec in ipairs(inv.selected_kinds(opts.kind)) do selected[spec.kind] = true end
  local gone = {}
  for id, d in pairs(previous) do
    local kind, key = id:match("^(.-)\t(.*)$")
    local top = key:match("^([%w_]+):") or kind
    if selected[kind] or selected[top] then
      gone[#gone + 1] = { kind, key }
    else
      state_out:write(id, "\t", d, "\n")
    end
  end
  table.sort(gone, function(x, y) return x[1] < y[1] or (x[1] == y[1] and x[2] < y[2]) end)
  for _, g in ipairs(gone) do write_row(g[1], g[2], "removed", nil, "{}") end
  state_out:close()
  assert(os.rename(state_path .. ".tmp", state_path))
end
io.stderr:write(string.format("rows: %d rows, %d bytes%s\n", counts.rows, counts.bytes,
  state_path and (had_state and " (changes since the last run)" or " (first run: everything added)") or ""))
if failed > 0 then error(string.format("%d kind(s) could not be collected", failed), 0) end
