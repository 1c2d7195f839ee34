-- The system-data holder and DockerInfo: creation, views, ownership.
local h = require("helper")
local am = api.assetman
local H = am.collect_system_asset_data

describe("the system-data holder", function()
  before_each(function() h.fake.reset() end)

  it("is made by new, new_local and by calling the class", function()
    for i, make in ipairs({ function() return H:new() end, function() return H:new_local() end, H }) do
      local holder = make()
      assert.are.equal("assetman::collect_system_asset_data", tolua.type(holder))
      local sys = holder:get()
      assert.are.equal("assetman::SystemInfo", tolua.type(sys))
      assert.are.equal(false, sys.b64)  -- value-initialised
      assert.are.same({}, h.fake.envs(sys))
      if i == 1 then holder:delete() end
    end
  end)

  it("hands out a live view at its own address and stays a holder", function()
    local holder = H:new()
    local a = holder:get()
    assert.are.equal(h.fake.address(holder), h.fake.address(a))
    a.host = "written through the first view"
    local b = holder:get()
    assert.are.equal("written through the first view", b.host)
    h.fake.set("system", 0, 2)
    assert.are.equal(0, am.collect_system_asset(b))
    assert.are.equal("host1", a.host)
    assert.are.equal(2, holder:get().disk:size())
    a.disk:push_back(a.disk[0])
    assert.are.equal(3, holder:get().disk:size())
    a = nil; b = nil
    collectgarbage(); collectgarbage()  -- dropping views frees and retypes nothing
    assert.are.equal("host1", holder:get().host)
    assert.are.equal("assetman::collect_system_asset_data", tolua.type(holder))
    holder:delete()
  end)

  it("does not retype the holder when its record's class shares the holder's address map", function()
    -- Builds of tolua++ that keep one registry-wide map behave like this.
    local reg = debug.getregistry()
    local smt, hmt = reg["assetman::SystemInfo"], reg["assetman::collect_system_asset_data"]
    local saved = rawget(smt, "tolua_ubox")
    rawset(smt, "tolua_ubox", rawget(hmt, "tolua_ubox"))
    local ok, e = pcall(function()
      local holder = H:new()
      local sys = holder:get()
      assert.are.equal("assetman::SystemInfo", tolua.type(sys))
      assert.are.equal("assetman::collect_system_asset_data", tolua.type(holder))
      sys.mem = "16G"
      assert.are.equal("16G", holder:get().mem)
      assert.are.equal("assetman::collect_system_asset_data", tolua.type(holder))
      holder:delete()
    end)
    rawset(smt, "tolua_ubox", saved)
    assert(ok, e)
  end)

  it("checks its arguments", function()
    local holder = H()
    h.refuses("error in function 'new'.", H.new, {}, { am.DockerInfo })
    h.raises("error in function 'new'.", H.new_local, H, 1)
    h.refuses("error in function 'get'.", holder.get, { holder, 1 }, { am.DockerInfo() })
    h.refuses("error in function 'delete'.", holder.delete, { am.DockerInfo() }, { holder, 1 })
    h.raises("invalid 'self' in function 'delete'", holder.delete, nil)
    h.raises("invalid 'self' in function 'get'", holder.get, nil)
  end)
end)

describe("DockerInfo", function()
  before_each(function() h.fake.reset() end)

  it("checks its arguments", function()
    local D = am.DockerInfo
    h.refuses("error in function 'new'.", D.new, {}, { H })
    h.raises("error in function 'delete'.", D.delete, H())
    h.raises("invalid 'self' in function 'delete'", D.delete, nil)
    local collect = "error in function 'collect_docker_asset'."
    h.refuses(collect, am.collect_docker_asset, { nil, n = 1 }, {}, { H():get() })
    h.raises("error in function 'collect_docker_asset_fast'.", am.collect_docker_asset_fast, D(), 1)
    assert.are.equal(0, h.fake.calls("docker"))
  end)
end)
