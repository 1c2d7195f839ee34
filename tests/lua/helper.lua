-- Loads assetman.so and the fake service's control functions. The module
-- exports its entry only under the C++ name, so loadlib takes that name.
local M = {}

-- Sanitizer reports end the process without flushing stdio: keep output flowing.
io.stdout:setvbuf("line")

M.so = assert(os.getenv("ASSETMAN_SO"), "ASSETMAN_SO not set")
M.fake_so = assert(os.getenv("ASSETMAN_FAKE_AM"), "ASSETMAN_FAKE_AM not set")
M.open = assert(package.loadlib(M.so, "_Z16luaopen_assetmanP9lua_State"))
M.fake = assert(package.loadlib(M.fake_so, "luaopen_fake_am"))()

M.open("assetman")

-- Asserts that f(...) raises an error whose message contains text.
function M.raises(text, f, ...)
  local ok, err = pcall(f, ...)
  assert(not ok, "expected an error containing: " .. text)
  err = tostring(err)
  assert(err:find(text, 1, true), "error '" .. err .. "' does not contain '" .. text .. "'")
  return err
end

-- Asserts that f refuses each of the argument lists (tables) with an error containing text.
function M.refuses(text, f, ...)
  for _, args in ipairs({ ... }) do M.raises(text, f, unpack(args, 1, args.n or #args)) end
end

-- One record of every list type, as the fake service delivers it.
M.list_kinds = {
  ProcessInfo = "process", NetLinkInfo = "netlink", ServiceInfo = "service", UserInfo = "user",
  SysInstallPackageInfo = "sys_install_package", AutoRunServInfo = "auto_run_serv", CronInfo = "cron",
  SysLoadModuleInfo = "sys_module", ThirdPartDevLibInfo = "thirdpart_dev_lib",
}

function M.list_of(record)
  return _G["vector_assetman__" .. record .. "_"]()
end

-- A fresh list of `record` filled by the fake service with n records.
function M.filled(record, n)
  local kind = M.list_kinds[record]
  local l = M.list_of(record)
  M.fake.set(kind, 0, n or 1)
  assert(api.assetman["collect_" .. kind .. "_asset"](l) == 0)
  return l
end

-- A record of any class, owned by Lua (or by a holder kept in `keep`).
function M.record(record, keep)
  if M.list_kinds[record] then return M.filled(record, 1)[0] end
  if record == "DockerInfo" then return api.assetman.DockerInfo() end
  local h = api.assetman.collect_system_asset_data()
  if keep then keep[#keep + 1] = h end
  local sys = h:get()
  if record == "SystemInfo" then return sys end
  M.fake.set("system", 0, 1)
  assert(api.assetman.collect_system_asset(sys) == 0)
  local field = { NetworkCardInfo = "network_card", DiskInfo = "disk", NetShareInfo = "net_share" }
  if field[record] then return sys[field[record]][0] end
  if record == "ProcessModuleInfo" then return M.filled("ProcessInfo", 1)[0].modules[0] end
  if record == "WebSiteInfo" then return M.filled("ServiceInfo", 1)[0].hosts[0] end
  if record == "RegAutoStartInfo" then
    -- No collector ever fills these; the fake appends one natively.
    local l = vector_assetman__RegAutoStartInfo_()
    M.fake.push_reg(l, 1)
    return l[0]
  end
  error("no way to make a " .. record)
end

return M
