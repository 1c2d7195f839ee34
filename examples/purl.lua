-- Package URLs (purl) for the records of an inventory: installed packages
-- (deb, rpm, apk) and third-party libraries found on disk, as vulnerability
-- tools match them. Pure functions of the records; no I/O.

local M = {}

-- Percent-encodes everything but the unreserved characters, as purl wants
-- for names, versions and qualifier values ("1:2.36-9+deb12u1" ->
-- "1%3A2.36-9%2Bdeb12u1").
function M.encode(s)
  return (tostring(s):gsub("[^%w%.%-_~]", function(c) return string.format("%%%02X", c:byte()) end))
end

-- The operating system from the system record's `version` (os-release's
-- PRETTY_NAME) and `arch` (uname machine): purl namespace/distro ids.
local families = {
  { "^Debian", "debian" }, { "^Ubuntu", "ubuntu" }, { "^Red Hat", "redhat" }, { "^CentOS", "centos" },
  { "^Fedora", "fedora" }, { "^Rocky", "rocky" }, { "^AlmaLinux", "almalinux" }, { "^Oracle", "oracle" },
  { "^Amazon", "amazon" }, { "^openSUSE", "opensuse" }, { "^SUSE", "suse" }, { "^SLES", "suse" },
  { "^Alpine", "alpine" }, { "^Arch", "arch" },
}
local deb_arch = { x86_64 = "amd64", aarch64 = "arm64", i386 = "i386", i486 = "i386", i586 = "i386",
  i686 = "i386", armv7l = "armhf", armv6l = "armel", ppc64le = "ppc64el", s390x = "s390x",
  riscv64 = "riscv64", mips64 = "mips64el" }

function M.os_of(pretty, arch)
  local id = "unknown"
  for _, f in ipairs(families) do
    if pretty:match(f[1]) then
      id = f[2]
      break
    end
  end
  -- The first number in the name: "12", "22.04.3", "9.2", "v3.19" -> "3.19".
  local version = pretty:match("(%d+[%.%d]*)") or ""
  if id == "ubuntu" then version = version:match("^(%d+%.%d+)") or version end
  return { id = id, version_id = version ~= "" and version or "unknown", pretty = pretty,
    arch = arch, deb_arch = deb_arch[arch] or arch }
end

-- "1:2.36" + "9+deb12u1" -> "1:2.36-9+deb12u1": the version the package
-- manager prints, which is what advisories name.
function M.full_version(p)
  if p.release ~= nil and p.release ~= "" then return p.version .. "-" .. p.release end
  return p.version
end

local function qualifiers(list)
  local parts = {}
  for _, kv in ipairs(list) do
    if kv[2] and kv[2] ~= "" then parts[#parts + 1] = kv[1] .. "=" .. M.encode(kv[2]) end
  end
  return #parts > 0 and ("?" .. table.concat(parts, "&")) or ""
end

-- The purl of an installed package record, or nil for an unknown type.
function M.package(p, os_info)
  local distro = os_info.id .. "-" .. os_info.version_id
  if p.type == "deb" then
    return "pkg:deb/" .. os_info.id .. "/" .. M.encode(p.name) .. "@" .. M.encode(M.full_version(p)) ..
      qualifiers({ { "arch", os_info.deb_arch }, { "distro", distro } })
  elseif p.type == "rpm" then
    -- rpm keeps the epoch out of the version and in a qualifier.
    local epoch, version = p.version:match("^(%d+):(.*)$")
    version = version or p.version
    local v = p.release ~= "" and (version .. "-" .. p.release) or version
    return "pkg:rpm/" .. os_info.id .. "/" .. M.encode(p.name) .. "@" .. M.encode(v) ..
      qualifiers({ { "arch", os_info.arch }, { "epoch", epoch }, { "distro", distro } })
  elseif p.type == "apk" then
    return "pkg:apk/alpine/" .. M.encode(p.name) .. "@" .. M.encode(M.full_version(p)) ..
      qualifiers({ { "arch", os_info.arch }, { "distro", distro } })
  end
  return nil
end

local function versioned(base, version)
  if version and version ~= "" then return base .. "@" .. M.encode(version) end
  return base
end

local function encode_path(segments)
  local out = {}
  for seg in segments:gmatch("[^/]+") do out[#out + 1] = M.encode(seg) end
  return table.concat(out, "/")
end

-- The ecosystem of a third-party library record, judged from where it was
-- found and how its name is written.
function M.ecosystem(lib)
  local path, name = lib.path, lib.name
  if path:match("%.dist%-info/?$") or path:match("%.egg%-info/?$") then return "pypi" end
  if path:match("/node_modules/") then return "npm" end
  if path:match("%.gemspec$") then return "gem" end
  if path:match("/vendor/") and name:match("^[^/]+/[^/]+$") then return "composer" end
  if name:match("^[%w%.%-_]+:[%w%.%-_]+$") then return "maven" end
  if name:match("^[%w%-]+%.[%w%.%-]+/") then return "golang" end
  return "generic"
end

-- The purl of a third-party library record.
function M.library(lib)
  local eco = M.ecosystem(lib)
  local name, version = lib.name, lib.version
  if eco == "pypi" then
    -- PyPI names compare case-insensitively with runs of -_. as one "-".
    return versioned("pkg:pypi/" .. M.encode(name:lower():gsub("[%-_%.]+", "-")), version)
  elseif eco == "npm" then
    local scope, pkg = name:match("^(@[^/]+)/(.+)$")
    if scope then return versioned("pkg:npm/" .. M.encode(scope) .. "/" .. M.encode(pkg), version) end
    return versioned("pkg:npm/" .. M.encode(name), version)
  elseif eco == "gem" then
    return versioned("pkg:gem/" .. M.encode(name), version)
  elseif eco == "composer" then
    return versioned("pkg:composer/" .. encode_path(name), version)
  elseif eco == "maven" then
    local group, artifact = name:match("^([^:]+):(.+)$")
    return versioned("pkg:maven/" .. M.encode(group) .. "/" .. M.encode(artifact), version)
  elseif eco == "golang" then
    return versioned("pkg:golang/" .. encode_path(name), version)
  end
  return versioned("pkg:generic/" .. M.encode(name), version)
end

return M
