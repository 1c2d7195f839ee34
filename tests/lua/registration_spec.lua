-- What opening the module puts into a Lua state, and what it does not.
local h = require("helper")

local list_records = {
  "RegAutoStartInfo", "NetworkCardInfo", "DiskInfo", "NetShareInfo", "SysLoadModuleInfo", "CronInfo",
  "AutoRunServInfo", "SysInstallPackageInfo", "UserInfo", "WebSiteInfo", "ServiceInfo", "NetLinkInfo",
  "ProcessModuleInfo", "ProcessInfo", "ThirdPartDevLibInfo",
}
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
  it("creates api.assetman and the list globals, and no global assetman", function()
    assert.is_nil(rawget(_G, "assetman"))
    assert.are.equal("table", type(api))
    assert.are.equal("table", type(api.assetman))
    assert.are.equal("function", type(api.assetman.collect_process_asset))
    assert.are.equal("table", type(api.assetman.ProcessInfo))
    assert.are.equal("table", type(vector_assetman__ProcessInfo_))
    assert.is_nil(api.assetman.vector_assetman__ProcessInfo_)
    local n = 0
    for k in pairs(api) do n = n + 1; assert.are.equal("assetman", k) end
    assert.are.equal(1, n)
  end)

  it("registers the fifteen list classes globally with their methods", function()
    local globals = {}
    for k in pairs(_G) do
      if type(k) == "string" and k:find("^vector_") then globals[k] = true end
    end
    for _, r in ipairs(list_records) do
      local name = "vector_assetman__" .. r .. "_"
      assert.is_true(globals[name], name)
      globals[name] = nil
      local class = _G[name]
      for _, m in ipairs({ "clear", "size", "push_back", "new", "new_local", "delete", ".geti", ".seti", ".call" }) do
        assert.are.equal("function", type(rawget(class, m)), name .. "." .. m)
      end
      local l = class()
      assert.are.equal("vector<assetman::" .. r .. ">", tolua.type(l))
    end
    assert.are.same({}, globals)  -- no list class for SystemInfo, DockerInfo or text
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
    assert.is_nil(rawget(api.assetman.SystemInfo, ".collector"))
    for _, c in ipairs({ "collect_system_asset_data", "DockerInfo" }) do
      for _, m in ipairs({ "new", "new_local", ".call", "delete" }) do
        assert.are.equal("function", type(rawget(api.assetman[c], m)), c .. "." .. m)
      end
    end
    assert.are.equal("function", type(rawget(api.assetman.collect_system_asset_data, "get")))
    assert.is_nil(rawget(api.assetman.DockerInfo, "get"))
    assert.are.equal("assetman::DockerInfo", tolua.type(api.assetman.DockerInfo()))
    assert.are.equal("assetman::collect_system_asset_data", tolua.type(api.assetman.collect_system_asset_data()))
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
    assert.are.equal(2, l:size())
    assert.are.equal("job1", l[1].cmd_line)
    local l2 = h.filled("CronInfo", 3)
    assert.are.equal(3, l2:size())
    local holder = api.assetman.collect_system_asset_data()
    assert.are.equal("", holder:get().host)
  end)

  it("exports only the two entry points of the binding", function()
    local p = io.popen("nm -D --defined-only '" .. h.so .. "'")
    local out = p:read("*a")
    p:close()
    assert.truthy(out:find("_Z16luaopen_assetmanP9lua_State", 1, true))
    assert.truthy(out:find("_Z19tolua_assetman_openP9lua_State", 1, true))
    assert.falsy(out:find(" luaopen_assetman\n", 1, true))
    assert.falsy(out:find("tolua_assetman_vector", 1, true))
    assert.falsy(out:find("tolua_get_", 1, true))
    assert.falsy(out:find(" tolua_pushusertype", 1, true))
  end)
end)
