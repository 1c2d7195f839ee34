-- The inventory of this host as one JSON document on stdout.
--
--   assetman-run examples/inventory_json.lua [--fast] [--kind=K,K...] [--pretty]
--
-- {"collected_at": "...", "kinds": {"process": {"rc": 0, "status": "ok",
--   "count": N, "records": [{...}, ...]}, ..., "system": {..., "record": {...}}}}
-- Objects keep the fields in the order of the records; lists are always JSON
-- arrays, empty ones included. Text that is not valid UTF-8 (command lines
-- and environments may hold any bytes) has the bad bytes replaced by U+FFFD.
--
-- The document is written record by record as the lists are read, so memory
-- stays bounded by the largest record, not by the host. A kind that cannot be
-- collected is written as {"error": "..."}; one that fails part-way keeps the
-- records already written and gets an "error" member after them.

local script_dir = (arg and arg[0] or ""):match("^(.*)/") or "."
package.path = script_dir .. "/?.lua;" .. package.path
local inv = require "inventory_common"
local cjson = require "cjson"
local am = api.assetman

local opts = inv.options({ ... })

-- cjson writes the leaves (escaping, numbers); the structure is written here
-- so that key order is stable and empty lists stay arrays.
local function number(v)
  if v ~= v or v == math.huge or v == -math.huge then return "null" end
  if v == math.floor(v) and math.abs(v) < 2 ^ 53 then return string.format("%.0f", v) end
  return cjson.encode(v)
end

local find, format = string.find, string.format

-- Text that needs no escaping: printable ASCII only (no controls, DEL or
-- bytes >= 0x80, which need the UTF-8 check) and no '"' or '\'. A "/" is
-- fine as it is. One range and two plain searches: a set of several ranges
-- costs twice as much per byte, and environments are long.
local function plain(v)
  return not find(v, "[^ -~]") and not find(v, '"', 1, true) and not find(v, "\\", 1, true)
end

local function leaf(v)
  local t = type(v)
  if t == "string" then
    if plain(v) then return '"' .. v .. '"' end
    -- cjson writes "/" as "\/"; every "\" of the text itself is doubled, so
    -- the only "\/" pairs are those escapes.
    return (cjson.encode(inv.valid_utf8(v)):gsub("\\/", "/"))
  end
  if t == "number" then return number(v) end
  if t == "boolean" then return v and "true" or "false" end
  return "null"
end

local pretty = opts.pretty

-- '"name":' per field of each record type, made once.
local keys = {}
for record_type, names in pairs(inv.fields) do
  local k = {}
  for i, name in ipairs(names) do k[i] = '"' .. name .. (pretty and '": ' or '":') end
  keys[record_type] = k
end

local function key(k)
  return '"' .. k .. (pretty and '": ' or '":')
end

-- `pairs_list` is a list of {key, encoded value} pairs.
local function object(pairs_list, indent)
  if #pairs_list == 0 then return "{}" end
  local nl = pretty and ("\n" .. indent .. "  ") or ""
  local parts = {}
  for i, kv in ipairs(pairs_list) do
    parts[i] = key(kv[1]) .. kv[2]
  end
  return "{" .. nl .. table.concat(parts, "," .. nl) .. (pretty and ("\n" .. indent) or "") .. "}"
end

-- One record appended to `buf` (from `n` + 1) as pieces, not as one string:
-- the pieces are written as they are, so a plain text or a small number
-- costs no new string at all. Returns the new length.
local function record(buf, n, rec, record_type, spec, indent)
  local names, ks = inv.fields[record_type], keys[record_type]
  local nl = pretty and ("\n" .. indent .. "  ") or ""
  local sep = "{" .. nl
  for i = 1, #names do
    local v = rec[names[i]]
    local t = type(v)
    buf[n + 1], buf[n + 2] = sep, ks[i]
    n = n + 2
    if t == "string" then
      if plain(v) then
        buf[n + 1], buf[n + 2], buf[n + 3] = '"', v, '"'
        n = n + 3
      else
        n = n + 1
        buf[n] = leaf(v)
      end
    elseif t == "number" and v == v and v % 1 == 0 and v < 1e14 and v > -1e14 then
      n = n + 1
      buf[n] = v  -- written as "%.14g": exact for whole numbers this small
    else
      n = n + 1
      buf[n] = leaf(v)
    end
    sep = "," .. nl
  end
  for _, nested in ipairs(spec and spec.nested or {}) do
    buf[n + 1], buf[n + 2] = sep, key(nested.field)
    n = n + 2
    local list = rec[nested.field]
    local count = list:size()
    if count == 0 then
      n = n + 1
      buf[n] = "[]"
    else
      local inner = pretty and ("\n" .. indent .. "    ") or ""
      for j = 0, count - 1 do
        n = n + 1
        buf[n] = j == 0 and ("[" .. inner) or ("," .. inner)
        n = record(buf, n, list[j], nested.record, nil, indent .. "    ")
      end
      n = n + 1
      buf[n] = pretty and ("\n" .. indent .. "  ]") or "]"
    end
    sep = "," .. nl
  end
  n = n + 1
  buf[n] = sep == "{" .. nl and "{}" or (pretty and ("\n" .. indent .. "}") or "}")
  return n
end

-- One record as text (the system record, written whole).
local function record_text(rec, record_type, spec, indent)
  local buf = {}
  return table.concat(buf, "", 1, record(buf, 0, rec, record_type, spec, indent))
end

local out = io.stdout
local failed = 0

local function failure(spec, err)
  failed = failed + 1
  io.stderr:write(format("inventory_json: %s: %s\n", spec.kind, tostring(err)))
end

-- Writes the document of one kind at `indent`.
local function write_kind(spec, indent)
  local nl = opts.pretty and ("\n" .. indent .. "  ") or ""
  local close = opts.pretty and ("\n" .. indent .. "}") or "}"
  -- For system, obj is a view into holder: both stay referenced while read.
  local ok, rc, obj, holder = pcall(inv.collect, spec, opts.fast)
  if not ok then
    failure(spec, rc)
    out:write(object({ { "error", leaf(tostring(rc)) } }, indent))
    return
  end
  local head = "{" .. nl .. key("rc") .. number(rc) .. "," .. nl .. key("status") .. leaf(inv.describe_rc(rc))
  if spec.single then
    local text = "null"
    if rc == 0 then
      ok, text = pcall(record_text, obj, spec.record, spec, indent .. "  ")
      if not ok then
        failure(spec, text)
        out:write(object({ { "error", leaf(tostring(text)) } }, indent))
        return
      end
    end
    out:write(head, ",", nl, key("count"), rc == 0 and "1" or "0", ",", nl, key("record"), text, close)
    return
  end
  local count = obj:size()
  out:write(head, ",", nl, key("count"), number(count), ",", nl, key("records"))
  if count == 0 then
    out:write("[]", close)
    return
  end
  local inner = opts.pretty and ("\n" .. indent .. "    ") or ""
  local rec_indent = indent .. "    "
  local err
  out:write("[")
  local buf, unpack = {}, unpack or table.unpack
  local function encode(i)
    return record(buf, 0, obj[i], spec.record, spec, rec_indent)
  end
  for i = 0, count - 1 do
    local n
    ok, n = pcall(encode, i)
    if not ok then
      err = n
      break
    end
    out:write(i > 0 and "," or "", inner)
    -- Written in slices: unpack puts every piece on the C stack.
    for from = 1, n, 200 do out:write(unpack(buf, from, math.min(n, from + 199))) end
    -- Each record read is a copy Lua owns: let the collector keep pace.
    if i % 64 == 63 then collectgarbage("step", 64) end
  end
  out:write(opts.pretty and ("\n" .. indent .. "  ]") or "]")
  if err then
    failure(spec, err)
    out:write(",", nl, key("error"), leaf(tostring(err)))
  end
  out:write(close)
end

local kinds = inv.selected_kinds(opts.kind)
local nl = opts.pretty and "\n  " or ""
out:write("{", nl, key("collected_at"), leaf(os.date("!%Y-%m-%d %H:%M:%S")), ",", nl, key("cached"),
  leaf(opts.fast and true or false))
local init_rc = am.collect_init()
out:write(",", nl, key("init_rc"), number(init_rc), ",", nl, key("kinds"))
if #kinds == 0 then
  out:write("{}")
else
  local knl = opts.pretty and "\n    " or ""
  out:write("{")
  for i, spec in ipairs(kinds) do
    -- One kind failing must not lose the others; the document says what failed.
    out:write(i > 1 and "," or "", knl, key(spec.kind))
    write_kind(spec, "    ")
    collectgarbage()
  end
  out:write(opts.pretty and "\n  }" or "}")
end
am.collect_release()
out:write(opts.pretty and "\n}" or "}", "\n")
if failed > 0 then
  error(string.format("%d kind(s) could not be collected", failed), 0)
end
