-- The inventory of this host as one JSON document on stdout.
--
--   assetman-run examples/inventory_json.lua [--fast] [--kind=K,K...] [--pretty]
--
-- {"collected_at": "...", "kinds": {"process": {"rc": 0, "status": "ok",
--   "count": N, "records": [{...}, ...]}, ..., "system": {..., "record": {...}}}}
-- Objects keep the fields in the order of the records; lists are always JSON
-- arrays, empty ones included. Text that is not valid UTF-8 (command lines
-- and environments may hold any bytes) has the bad bytes replaced by U+FFFD.

local script_dir = (arg and arg[0] or ""):match("^(.*)/") or "."
package.path = script_dir .. "/?.lua;" .. package.path
local inv = require "inventory_common"
local cjson = require "cjson"
local am = api.assetman

local opts = inv.options({ ... })

-- Replaces every byte that does not start a well-formed UTF-8 sequence.
local function valid_utf8(s)
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

-- cjson writes the leaves (escaping, numbers); the structure is written here
-- so that key order is stable and empty lists stay arrays.
local function number(v)
  if v ~= v or v == math.huge or v == -math.huge then return "null" end
  if v == math.floor(v) and math.abs(v) < 2 ^ 53 then return string.format("%.0f", v) end
  return cjson.encode(v)
end

local function leaf(v)
  local t = type(v)
  -- cjson writes "/" as "\/"; every "\" of the text itself is doubled, so
  -- the only "\/" pairs are those escapes.
  if t == "string" then return (cjson.encode(valid_utf8(v)):gsub("\\/", "/")) end
  if t == "number" then return number(v) end
  if t == "boolean" then return v and "true" or "false" end
  return "null"
end

-- `pairs_list` is a list of {key, encoded value} pairs.
local function object(pairs_list, indent)
  local nl = opts.pretty and ("\n" .. indent .. "  ") or ""
  local parts = {}
  for _, kv in ipairs(pairs_list) do
    parts[#parts + 1] = cjson.encode(kv[1]) .. (opts.pretty and ": " or ":") .. kv[2]
  end
  if #parts == 0 then return "{}" end
  return "{" .. nl .. table.concat(parts, "," .. nl) .. (opts.pretty and ("\n" .. indent) or "") .. "}"
end

local function array(items, indent)
  if #items == 0 then return "[]" end
  local nl = opts.pretty and ("\n" .. indent .. "  ") or ""
  return "[" .. nl .. table.concat(items, "," .. nl) .. (opts.pretty and ("\n" .. indent) or "") .. "]"
end

local function record(rec, record_type, spec, filled, indent)
  local fields = {}
  for _, kv in ipairs(inv.values(rec, record_type, filled)) do
    fields[#fields + 1] = { kv[1], leaf(kv[2]) }
  end
  for _, n in ipairs(spec and spec.nested or {}) do
    local items = {}
    for _, item in inv.each(rec[n.field]) do
      items[#items + 1] = record(item, n.record, nil, true, indent .. "    ")
    end
    fields[#fields + 1] = { n.field, array(items, indent .. "  ") }
  end
  return object(fields, indent)
end

local function kind_document(spec, indent)
  -- For system, obj is a view into holder: both stay referenced while read.
  local rc, obj, holder = inv.collect(spec, opts.fast)
  local doc = { { "rc", number(rc) }, { "status", leaf(inv.describe_rc(rc)) } }
  if spec.single then
    doc[#doc + 1] = { "count", rc == 0 and "1" or "0" }
    doc[#doc + 1] = { "record", rc == 0 and record(obj, spec.record, spec, true, indent .. "  ") or "null" }
  else
    local items = {}
    for _, rec in inv.each(obj) do
      items[#items + 1] = record(rec, spec.record, spec, true, indent .. "    ")
    end
    doc[#doc + 1] = { "count", number(#items) }
    doc[#doc + 1] = { "records", array(items, indent .. "  ") }
  end
  return object(doc, indent)
end

local kinds = inv.selected_kinds(opts.kind)
local init_rc = am.collect_init()
local kind_docs, failed = {}, 0
for _, spec in ipairs(kinds) do
  -- One kind failing must not lose the others; the document says what failed.
  local ok, text = pcall(kind_document, spec, "    ")
  if not ok then
    failed = failed + 1
    io.stderr:write(string.format("inventory_json: %s: %s\n", spec.kind, tostring(text)))
    text = object({ { "error", leaf(tostring(text)) } }, "    ")
  end
  kind_docs[#kind_docs + 1] = { spec.kind, text }
  collectgarbage()
end
am.collect_release()

local top = {
  { "collected_at", leaf(os.date("!%Y-%m-%d %H:%M:%S")) },
  { "cached", leaf(opts.fast and true or false) },
  { "init_rc", number(init_rc) },
  { "kinds", object(kind_docs, "  ") },
}
io.write(object(top, ""), "\n")
if failed > 0 then
  error(string.format("%d kind(s) could not be collected", failed), 0)
end
