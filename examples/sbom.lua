-- A CycloneDX 1.5 JSON document of this host on stdout: every installed
-- package and every third-party library found on disk as a component with its
-- Package URL, the operating system as an "operating-system" component, and
-- the host itself as the document's subject.
--
--   assetman-run examples/sbom.lua [--fast]
--
-- Components are written one at a time as they are read, so memory stays
-- bounded by one record whatever the size of the host.

local script_dir = (arg and arg[0] or ""):match("^(.*)/") or "."
package.path = script_dir .. "/?.lua;" .. package.path
local inv = require "inventory_common"
local purl = require "purl"
local cjson = require "cjson"

local opts = inv.options({ ... })
local spec_of = {}
for _, spec in ipairs(inv.kinds) do spec_of[spec.kind] = spec end

local function out(s) io.write(s) end

-- cjson escapes "/" as "\/", which is valid but noisy in purls and paths.
local function encode(v) return (cjson.encode(v):gsub("\\/", "/")) end

local function uuid()
  local f = io.open("/proc/sys/kernel/random/uuid", "r")
  local u = f and f:read("*l")
  if f then f:close() end
  if u and u:match("^%x+%-%x+%-%x+%-%x+%-%x+$") then return u:lower() end
  math.randomseed(os.time())
  return (string.gsub("xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx", "[xy]", function(c)
    local v = c == "x" and math.random(0, 15) or math.random(8, 11)
    return string.format("%x", v)
  end))
end

-- Text that is not valid UTF-8 is not JSON text: bad bytes become U+FFFD.
local function text(s) return inv.valid_utf8(tostring(s or "")) end

local function nonempty(t, k, v)
  if v ~= nil and v ~= "" then t[k] = text(v) end
end

local rc_sys, sys, holder = inv.collect(spec_of.system, opts.fast)
local os_info = purl.os_of(rc_sys == 0 and sys.version or "", rc_sys == 0 and sys.arch or "")
local host = rc_sys == 0 and sys.host or ""

local os_ref = "os:" .. os_info.id .. "-" .. os_info.version_id
local host_ref = "host:" .. (host ~= "" and host or "unknown")

out('{"bomFormat":"CycloneDX","specVersion":"1.5","serialNumber":"urn:uuid:' .. uuid() .. '","version":1,')
local metadata = {
  timestamp = os.date("!%Y-%m-%dT%H:%M:%SZ"),
  tools = { components = { { type = "application", name = "assetman", version = "1.0.0" } } },
  component = { type = "device", ["bom-ref"] = text(host_ref), name = text(host ~= "" and host or "unknown") },
}
nonempty(metadata.component, "description", rc_sys == 0 and (sys.product ~= "" and sys.product or nil) or nil)
out('"metadata":' .. encode(metadata) .. ',"components":[')

local os_component = { type = "operating-system", ["bom-ref"] = os_ref, name = os_info.id,
  version = os_info.version_id }
nonempty(os_component, "description", os_info.pretty)
out(encode(os_component))

local refs_seen = { [os_ref] = true, [host_ref] = true }
local counts = { package = 0, library = 0 }

-- bom-refs must be unique in the document; the same library found in two
-- places keeps one ref per place.
local function unique_ref(ref)
  local r, n = ref, 1
  while refs_seen[r] do
    n = n + 1
    r = ref .. "#" .. n
  end
  refs_seen[r] = true
  return r
end

local function emit(component)
  out("," .. encode(component))
end

local rc_pkg, pkgs = inv.collect(spec_of.sys_install_package, opts.fast)
if rc_pkg == 0 then
  for _, p in inv.each(pkgs) do
    local url = purl.package(p, os_info)
    if url then
      local c = { type = "library", ["bom-ref"] = unique_ref(url), name = text(p.name), purl = url,
        version = text(purl.full_version(p)) }
      nonempty(c, "publisher", p.company)
      nonempty(c, "description", p.summary)
      emit(c)
      counts.package = counts.package + 1
    end
  end
end
pkgs = nil

local rc_lib, libs = inv.collect(spec_of.thirdpart_dev_lib, opts.fast)
if rc_lib == 0 then
  for _, l in inv.each(libs) do
    -- A record without a name marks where a bounded walk stopped: no component.
    if l.name ~= "" then
      local url = purl.library(l)
      emit({ type = "library", ["bom-ref"] = unique_ref(url .. "|" .. l.path), name = text(l.name),
        version = text(l.version), purl = url, evidence = { occurrences = { { location = text(l.path) } } } })
      counts.library = counts.library + 1
    end
  end
end
libs = nil

out('],"dependencies":[' .. encode({ ref = host_ref, dependsOn = { os_ref } }) .. ']}\n')
io.stderr:write(string.format("sbom: %d packages (rc %d), %d libraries (rc %d), system rc %d\n", counts.package,
  rc_pkg, counts.library, rc_lib, rc_sys))
