-- Who frees what: measured on the C++ heap with records that carry large texts.
local h = require("helper")
local fake = h.fake
local MB = 1024 * 1024

-- Work done in a function of its own leaves nothing on the caller's stack
-- frame for the collector to find (LuaJIT scans whole frames).
local function run(f) f() end

local function settle()
  for _ = 1, 4 do collectgarbage("collect") end
  return fake.heap()
end

describe("ownership", function()
  before_each(function()
    fake.reset()
    fake.set("process", 0, 40, 200000)  -- 40 records, about 8 MB of text
  end)

  it("a list made by new_local or by calling the class, its copies and their lists' views are freed by the collector",
    function()
      local P = vector_assetman__ProcessInfo_
      for _, make in ipairs({ function() return P:new_local() end, function() return P() end }) do
        local base = settle()
        run(function()
          local l = make()
          api.assetman.collect_process_asset(l)
          local copies = {}
          for i = 0, l:size() - 1 do copies[#copies + 1] = l[i] end
          local views = {}  -- a view of a record's list has nothing of its own
          for i = 1, 10 do views[i] = copies[1].modules end
          assert.are.equal(2, views[10]:size())
          assert.is_true(fake.heap() - base > 14 * MB)
        end)
        assert.is_true(settle() - base < 1 * MB)
      end
    end)

  it("a list made by new outlives its Lua value and is freed by delete only, and is never freed twice", function()
    local P, H, D = vector_assetman__ProcessInfo_, api.assetman.collect_system_asset_data, api.assetman.DockerInfo
    local base = settle()
    for _, make in ipairs({ "new", "new_local", "new_local", "new_local" }) do
      local l = P[make](P)
      api.assetman.collect_process_asset(l)
      l:delete()
      assert.is_true(fake.heap() - base < 1 * MB)
      H[make](H):delete()
      D[make](D):delete()
    end
    assert.is_true(settle() - base < 1 * MB)  -- the collector frees nothing a delete freed

    local l = P:new()
    api.assetman.collect_process_asset(l)
    local address = fake.address(l)
    l = nil
    assert.is_true(settle() - base > 7 * MB)
    fake.free_process_list(address)
    assert.is_true(fake.heap() - base < 1 * MB)
  end)

  it("lists a script drops are freed by its next collections, though Lua counts only a pointer for each", function()
    local P = vector_assetman__ProcessInfo_
    local base = settle()
    -- Five lists of about 8 MB, each dropped at once: Lua's own allocations
    -- here would never start a cycle that frees them.
    run(function()
      for _ = 1, 5 do api.assetman.collect_process_asset(P:new_local()) end
    end)
    assert.is_true(fake.heap() - base < 12 * MB)  -- the last one alone
    assert.is_true(settle() - base < 1 * MB)
  end)

  it("a deleted object reads as a null self through every reference, and its address can be reused", function()
    local l = vector_assetman__CronInfo_:new()
    local alias = l
    l:delete()
    h.raises("invalid 'self' in function 'size'", function() alias:size() end)
    h.raises("invalid 'self' in function 'delete'", function() l:delete() end)
    local d = api.assetman.DockerInfo:new_local()
    d:delete()
    h.raises("invalid 'self' in accessing variable 'version'", function() return d.version end)
    h.raises("invalid 'self' in accessing variable 'version'", function() d.version = "x" end)
    local holder = api.assetman.collect_system_asset_data:new()
    holder:delete()
    h.raises("invalid 'self' in function 'get'", function() holder:get() end)
    -- New objects, some at freed addresses, get Lua values of their own.
    for _ = 1, 20 do
      assert.are.same({ 0, "" }, { vector_assetman__CronInfo_:new_local():size(), api.assetman.DockerInfo().version })
    end
    collectgarbage("collect")
  end)
end)
