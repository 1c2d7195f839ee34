-- A readable inventory of this host through the assetman module.
--
--   assetman-run examples/inventory.lua [--brief] [--first=N] [--fast] [--full] [--kind=K,K...]
--
-- Per kind: a line with the result code and the number of records, then one
-- line per record (fields left empty are not shown), nested lists (a
-- process's modules, a service's web sites, the system's cards, disks and
-- shares) indented below it.
--   --brief      counts and only the first N records of each kind (N = 3)
--   --first=N    show at most N records (and N nested entries) per kind
--   --fast       use the cached collectors (collect_<kind>_asset_fast)
--   --full       do not shorten long values (command lines, environments)
--   --kind=K,... only these kinds (process, netlink, service, user, ...)

local script_dir = (arg and arg[0] or ""):match("^(.*)/") or "."
package.path = script_dir .. "/?.lua;" .. package.path
local inv = require "inventory_common"
local am = api.assetman

local opts = inv.options({ ... })
if opts.help or opts.h then
  print("usage: assetman-run inventory.lua [--brief] [--first=N] [--fast] [--full] [--kind=K,K...]")
  return
end
local limit = tonumber(opts.first) or (opts.brief and 3) or math.huge
local max_len = opts.full and math.huge or 160

local function fmt_number(v)
  if v == math.floor(v) and math.abs(v) < 2 ^ 53 then return string.format("%.0f", v) end
  return string.format("%.2f", v)
end

-- Bare when it is one plain word, else quoted with control bytes escaped.
local function fmt_text(s, name)
  if name == "env" and not opts.full then
    return "<" .. #s .. " bytes>"
  end
  local cut = ""
  if #s > max_len then
    -- Cut before a character that the limit would split.
    local head = s:sub(1, max_len):gsub("[\192-\255][\128-\191]*$", "")
    cut = "...(+" .. (#s - #head) .. " bytes)"
    s = head
  end
  if s:find('^[^%s%c"\\]+$') then return s .. cut end
  s = s:gsub('[\\"]', "\\%0"):gsub("\n", "\\n"):gsub("\t", "\\t"):gsub("%c", function(c)
    return string.format("\\x%02x", c:byte())
  end)
  return '"' .. s .. '"' .. cut
end

local function fmt_fields(values)
  local parts = {}
  for _, kv in ipairs(values) do
    local name, v = kv[1], kv[2]
    local t = type(v)
    if t == "number" then
      parts[#parts + 1] = name .. "=" .. fmt_number(v)
    elseif t == "boolean" then
      parts[#parts + 1] = name .. "=" .. (v and "yes" or "no")
    elseif t == "string" and v ~= "" then
      parts[#parts + 1] = name .. "=" .. fmt_text(v, name)
    end
  end
  return #parts > 0 and table.concat(parts, " ") or "(all fields empty)"
end

local function print_nested(rec, spec, indent)
  for _, n in ipairs(spec.nested or {}) do
    local list = rec[n.field]
    local size = list:size()
    if size > 0 then
      print(string.format("%s%s: %d", indent, n.field, size))
      for i, item in inv.each(list) do
        if i >= limit then
          print(string.format("%s  ... %d more", indent, size - i))
          break
        end
        print(indent .. "  " .. fmt_fields(inv.values(item, n.record, true)))
      end
    end
  end
end

local function report(spec)
  -- For system, obj is a view into holder: both stay referenced until we return.
  local rc, obj, holder = inv.collect(spec, opts.fast)
  local count
  if spec.single then
    count = rc == 0 and 1 or 0
  else
    count = obj:size()
  end
  print(string.format("%-22s rc=%-4d %-8s %d record%s", spec.kind, rc, inv.describe_rc(rc), count,
    count == 1 and "" or "s"))
  if spec.single then
    if rc == 0 then
      print("  " .. fmt_fields(inv.values(obj, spec.record, true)))
      print_nested(obj, spec, "    ")
    end
  else
    for i, rec in inv.each(obj) do
      if i >= limit then
        print(string.format("  ... %d more", count - i))
        break
      end
      print("  " .. fmt_fields(inv.values(rec, spec.record, true)))
      print_nested(rec, spec, "    ")
    end
  end
  return rc, holder
end

local kinds = inv.selected_kinds(opts.kind)
local init_rc = am.collect_init()
print(string.format("assetman inventory, %s UTC%s", os.date("!%Y-%m-%d %H:%M:%S"),
  opts.fast and " (cached collectors)" or ""))
if init_rc ~= 0 then
  print(string.format("collect_init: rc=%d %s", init_rc, inv.describe_rc(init_rc)))
end

local failed = 0
for _, spec in ipairs(kinds) do
  -- One kind failing must not hide the others.
  local ok, err = pcall(report, spec)
  if not ok then
    failed = failed + 1
    io.stderr:write(string.format("inventory: %s: %s\n", spec.kind, tostring(err)))
  end
  collectgarbage()
end
am.collect_release()
if failed > 0 then
  error(string.format("%d kind(s) could not be reported", failed), 0)
end
