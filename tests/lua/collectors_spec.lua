-- The collector functions against the counting fake service.
local h = require("helper")
local am = api.assetman
local fake = h.fake

describe("collector functions", function()
  before_each(function() fake.reset() end)

  it("pass each list to the service as it is and return its code as a number", function()
    for record, kind in pairs(h.list_kinds) do
      local collect = am["collect_" .. kind .. "_asset"]
      local l = h.list_of(record)
      for _, code in ipairs({ 0, -5, 1, 2147483647, -2147483648 }) do
        fake.set(kind, code, 3)
        assert.are.equal(code, collect(l))
      end
      assert.are.equal(3, l:size())
      assert.are.same({ 5, 3 }, { fake.calls(kind), fake.size_seen(kind) })  -- arrived with what it held
    end
  end)

  it("for system and docker fill the record they are given", function()
    local holder, d = am.collect_system_asset_data(), am.DockerInfo()
    fake.set("system", -22, 1)
    assert.are.equal(-22, am.collect_system_asset(holder:get()))
    assert.are.same({ 1, 1, "host1" }, { fake.calls("system"), fake.size_seen("system"), holder:get().host })
    fake.set("system", 4, 1)
    assert.are.equal(4, am.collect_system_asset(nil))
    assert.are.same({ 2, 0 }, { fake.calls("system"), fake.size_seen("system") })  -- as a null record
    fake.set("docker", -1)
    assert.are.equal(-1, am.collect_docker_asset(d))
    assert.are.equal("3", d.image_num)
  end)

  it("leave a registry auto-start list alone without asking the service", function()
    local l = vector_assetman__RegAutoStartInfo_()
    fake.push_reg(l, 2)
    assert.are.equal(0, am.collect_windows_reg_autostart_asset(l))
    assert.are.same({ 2, "reg1" }, { l:size(), l[1].name })
  end)

  it("init returns the service's code, release returns nothing", function()
    fake.set("init", -13)
    assert.are.equal(-13, am.collect_init())
    assert.are.equal(0, select("#", am.collect_release()))
    assert.are.same({ 1, 1 }, { fake.calls("init"), fake.calls("release") })
  end)

  it("refuse bad arguments before reaching the service", function()
    local holder = am.collect_system_asset_data()
    for record, kind in pairs(h.list_kinds) do
      for _, suffix in ipairs({ "_asset", "_asset_fast" }) do
        local name = "collect_" .. kind .. suffix
        local wrong = record == "CronInfo" and vector_assetman__UserInfo_() or vector_assetman__CronInfo_()
        local msg = "error in function '" .. name .. "'."
        local err = h.raises(msg, am[name], nil)
        assert.truthy(err:find("argument #1", 1, true))
        h.refuses(msg, am[name], {}, { wrong }, { holder }, { h.list_of(record), 1 }, { am, h.list_of(record) })
      end
      assert.are.equal(0, fake.calls(kind))
    end
    for _, suffix in ipairs({ "_asset", "_asset_fast" }) do
      local reg, sys = "collect_windows_reg_autostart" .. suffix, "collect_system" .. suffix
      h.refuses("error in function '" .. reg .. "'.", am[reg], { nil, n = 1 }, { vector_assetman__CronInfo_() })
      h.refuses("error in function '" .. sys .. "'.", am[sys], { holder }, { vector_assetman__DiskInfo_() },
        { nil, 1, n = 2 })
    end
    h.refuses("error in function 'collect_init'.", am.collect_init, { 1 }, { am })
    h.raises("error in function 'collect_release'.", am.collect_release, nil, 1)
    assert.are.equal(0, fake.calls("system") + fake.calls("init") + fake.calls("release"))
  end)

  -- The caches live as long as the process, so each kind's cached twin is
  -- first called here and nowhere else.
  it("cached twins ask the service once, and answer later calls from the cache", function()
    for record, kind in pairs(h.list_kinds) do
      local fast = am["collect_" .. kind .. "_asset_fast"]
      fake.set(kind, -9, 2, 0, true)  -- a failure of the service is a Lua error
      h.raises("fake service failed in " .. kind, fast, h.list_of(record))
      fake.set(kind, -9, 2)  -- the failed call released the lock and left the cache empty
      local first, second = h.list_of(record), h.list_of(record)
      assert.are.equal(-9, fast(first))
      fake.set(kind, -1, 5)
      assert.are.equal(0, fast(second))
      assert.are.same({ 2, 2, 2 }, { first:size(), second:size(), fake.calls(kind) })
    end
    local reg = vector_assetman__RegAutoStartInfo_()
    fake.push_reg(reg, 2)
    assert.are.equal(0, am.collect_windows_reg_autostart_asset_fast(reg))
    assert.are.equal(0, reg:size())

    local h1, h2 = am.collect_system_asset_data(), am.collect_system_asset_data()
    fake.set("system", 6, 2)
    assert.are.equal(6, am.collect_system_asset_fast(h1:get()))
    fake.set("system", 7, 4)
    assert.are.equal(0, am.collect_system_asset_fast(h2:get()))
    assert.are.same({ 2, 1 }, { h2:get().disk:size(), fake.calls("system") })  -- from the cache

    local d1, d2 = am.DockerInfo(), am.DockerInfo:new()
    fake.set("docker", -2)
    assert.are.equal(-2, am.collect_docker_asset_fast(d1))
    assert.are.equal(0, am.collect_docker_asset_fast(d2))
    assert.are.same({ "overlay2", 1 }, { d2.storage_driver, fake.calls("docker") })
    d2:delete()
  end)
end)
