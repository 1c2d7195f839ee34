-- The system-data holder and DockerInfo: creation, views, ownership.
local h = require("helper")
local am = api.assetman
local H = am.collect_system_asset_data

describe("the system-data holder", function()
  before_each(function() h.fake.reset() end)

  it("is made by new, new_local and by calling the class", function()
    for i, make in ipairs({ function() return H:new() end, function() return H:new_local() end, H }) do
      local holder = make()
      local sys = holder:get()
      assert.are.same({ "assetman::collect_system_asset_data", "assetman::SystemInfo", false, {} },
        { tolua.type(holder), tolua.type(sys), sys.b64, h.fake.envs(sys) })  -- value-initialised
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
    assert.are.same({ "host1", 2 }, { a.host, holder:get().disk:size() })
    a.disk:push_back(a.disk[0])
    assert.are.equal(3, holder:get().disk:size())
    a = nil; b = nil
    collectgarbage(); collectgarbage()  -- dropping views frees and retypes nothing
    assert.are.same({ "host1", "assetman::collect_system_asset_data" }, { holder:get().host, tolua.type(holder) })
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
      assert.are.same({ "assetman::SystemInfo", "assetman::collect_system_asset_data" },
        { tolua.type(sys), tolua.type(holder) })
      sys.mem = "16G"
      assert.are.same({ "16G", "assetman::collect_system_asset_data" }, { holder:get().mem, tolua.type(holder) })
      holder:delete()
    end)
    rawset(smt, "tolua_ubox", saved)
    assert(ok, e)
  end)

  it("checks its arguments, as DockerInfo does", function()
    local holder, D = H(), am.DockerInfo
    h.refuses("error in function 'new'.", H.new, {}, { D })
    h.raises("error in function 'new'.", H.new_local, H, 1)
    h.refuses("error in function 'get'.", holder.get, { holder, 1 }, { D() })
    h.refuses("error in function 'delete'.", holder.delete, { D() }, { holder, 1 })
    h.raises("invalid 'self' in function 'delete'", holder.delete, nil)
    h.raises("invalid 'self' in function 'get'", holder.get, nil)
    h.refuses("error in function 'new'.", D.new, {}, { H })
    h.raises("error in function 'delete'.", D.delete, H())
    h.raises("invalid 'self' in function 'delete'", D.delete, nil)
    h.refuses("error in function 'collect_docker_asset'.", am.collect_docker_asset, { nil, n = 1 }, {}, { H():get() })
    h.raises("error in function 'collect_docker_asset_fast'.", am.collect_docker_asset_fast, D(), 1)
    assert.are.equal(0, h.fake.calls("docker"))
  end)
end)
