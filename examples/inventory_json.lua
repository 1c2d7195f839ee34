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
  if t == "string" then return (cjson.encode(inv.valid_utf8(v)):gsub("\\/", "/")) end
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
