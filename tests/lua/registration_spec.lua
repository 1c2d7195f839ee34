-- What opening the module puts into a Lua state, and what it does not.
local h = require("helper")

local classes = {
  "NetworkCardInfo", "DiskInfo", "NetShareInfo", "SystemInfo", "collect_system_asset_data", "RegAutoStartInfo",
  "SysLoadModuleInfo", "CronInfo", "AutoRunServInfo", "SysInstallPackageInfo", "UserInfo", "WebSiteInfo",
  "ServiceInfo", "NetLinkInfo", "ProcessModuleInfo", "ProcessInfo", "ThirdPartDevLibInfo", "DockerInfo",
}
local kinds = {
  "process", "netlink", "service", "user", "sys_install_package", "auto_run_serv", "cron", "sys_module",
  "system", "thirdpart_dev_lib", "windows_reg_autostart", "docker",
}

describe("module registration", function()
  it("creates api.assetman, the fifteen list classes as globals, and no global assetman", function()
    assert.is_nil(rawget(_G, "assetman"))
    local n = 0
    for k in pairs(api) do n = n + 1; assert.are.equal("assetman", k) end
    assert.are.equal(1, n)
    -- A list class for each list record (lists_spec.lua uses their methods),
    -- none for SystemInfo, DockerInfo or text.
    local globals = {}
    for k in pairs(_G) do
      if type(k) == "string" and k:find("^vector_") then globals[k] = true end
    end
    for _, r in ipairs(classes) do
      if r ~= "SystemInfo" and r ~= "DockerInfo" and r ~= "collect_system_asset_data" then
        local name = "vector_assetman__" .. r .. "_"
        assert.are.equal("vector<assetman::" .. r .. ">", tolua.type(_G[name]()))
        globals[name] = nil
      end
    end
    assert.are.same({}, globals)
  end)

  it("puts exactly the eighteen classes and twenty-six collectors into api.assetman", function()
    local expected = {}
    for _, c in ipairs(classes) do expected[c] = "table" end
    expected.collect_init, expected.collect_release = "function", "function"
    for _, k in ipairs(kinds) do
      expected["collect_" .. k .. "_asset"] = "function"
      expected["collect_" .. k .. "_asset_fast"] = "function"
    end
    local found = {}
    for k, v in pairs(api.assetman) do found[k] = type(v) end
    assert.are.same(expected, found)
  end)

  it("gives constructors only to the holder and DockerInfo", function()
    assert.is_nil(api.assetman.SystemInfo.new)
    assert.is_nil(api.assetman.ProcessInfo.new)
    assert.is_nil(api.assetman.ProcessInfo.new_local)
    assert.is_nil(rawget(api.assetman.DockerInfo, "get"))
  end)

  it("returns the value already on the stack and pushes nothing", function()
    assert.are.same({ "assetman" }, { h.open("assetman") })
    assert.are.same({ "b" }, { h.open("a", "b") })  -- the topmost one
  end)

  it("can be opened again in the same state with every entry still bound", function()
    local before, list_class = api.assetman, vector_assetman__CronInfo_
    local l = h.filled("CronInfo", 2)
    h.open("again")
    assert.are.equal(before, api.assetman)
    assert.are.equal(list_class, vector_assetman__CronInfo_)
    local l2, holder = h.filled("CronInfo", 3), api.assetman.collect_system_asset_data()
    assert.are.same({ 2, "job1", 3, "" }, { l:size(), l[1].cmd_line, l2:size(), holder:get().host })
  end)
end)
