-- The fifteen list classes: one pattern, checked on each of them.
local h = require("helper")

-- Each record that has a list class, and a text field of it to tell records apart.
local tag = {
  RegAutoStartInfo = "name", NetworkCardInfo = "mac", DiskInfo = "fs", NetShareInfo = "path",
  SysLoadModuleInfo = "load_addr", CronInfo = "timer", AutoRunServInfo = "level", SysInstallPackageInfo = "release",
  UserInfo = "shell", WebSiteInfo = "document", ServiceInfo = "reserve", NetLinkInfo = "state",
  ProcessModuleInfo = "md5", ProcessInfo = "env", ThirdPartDevLibInfo = "version",
}

local keep = {}

describe("list classes", function()
  for r, t in pairs(tag) do
    local class_name = "vector_assetman__" .. r .. "_"
    local function rec(text)
      local x = h.record(r, keep)
      x[t] = text
      return x
    end

    local function texts(l)
      local out = {}
      for i = 0, l:size() - 1 do out[#out + 1] = l[i][t] end
      return out
    end

    it(class_name .. " appends, reads copies out by 0-based index and writes back", function()
      local l = _G[class_name]:new_local()
      assert.are.equal(0, l:size())
      local a, b, c = rec("a"), rec("b"), rec("c")
      l:push_back(a); l:push_back(b); l:push_back(c)
      assert.are.same({ "a", "b", "c" }, texts(l))
      assert.are.same({ "b", "assetman::" .. r }, { l[1.9][t], tolua.type(l[0]) })
      -- what was pushed is a copy, and so is what is read
      a[t] = "changed"
      l[0][t] = "changed too"
      assert.are.same({ "a", "b", "c" }, texts(l))
      assert.are_not.equal(l[0], l[0])
      -- a whole record is stored back with an index write
      l[1] = rec("B")
      l[0] = l[2]
      assert.are.same({ "c", "B", "c" }, texts(l))
      -- indices outside the list are errors, never reads outside it
      for _, i in ipairs({ 3, -1, 2 ^ 40 }) do
        h.raises("index out of range in function 'operator[]'", function() return l[i] end)
      end
      h.raises("index out of range in function 'operator&[]'", function() l[3] = c end)
      l:clear()
      assert.are.same({}, texts(l))
      l:push_back(c)
      assert.are.same({ "c" }, texts(l))
    end)

    it(class_name .. " checks its arguments", function()
      local class = _G[class_name]
      local l, x = class(), rec("x")
      local other = (r == "CronInfo") and vector_assetman__UserInfo_() or vector_assetman__CronInfo_()
      local err = h.raises("error in function 'push_back'.", l.push_back, l, nil)
      assert.truthy(err:find("argument #2", 1, true))
      h.refuses("error in function 'push_back'.", l.push_back, { l, x, 1 }, { other, x }, { l, other })
      h.refuses("error in function 'size'.", l.size, { other }, { l, 1 })
      h.refuses("error in function 'clear'.", l.clear, { other }, { l, l })
      h.refuses("error in function 'delete'.", l.delete, { other }, { l, 1 })
      local foreign = r == "ProcessInfo" and vector_assetman__CronInfo_ or vector_assetman__ProcessInfo_
      h.refuses("error in function 'new'.", class.new, {}, { foreign })
      h.raises("error in function 'new'.", class.new_local, class, 1)
      local geti, seti = rawget(class, ".geti"), rawget(class, ".seti")
      l:push_back(x)
      h.refuses("error in function '.geti'.", geti, { l, true }, { l, 0, 1 }, { other, 0 })
      h.refuses("error in function '.seti'.", seti, { l, 0, nil, n = 3 }, { l, 0, x, 1 }, { l, 0, other })
      h.raises("error in function '.seti'.", function() l[0] = 5 end)
      assert.are.equal("x", l[0][t])
      -- a missing list
      local no_self = {
        size = { l.size }, clear = { l.clear }, delete = { l.delete }, push_back = { l.push_back, x },
        ["operator[]"] = { geti, 0 }, ["operator&[]"] = { seti, 0, x },
      }
      for name, c in pairs(no_self) do
        h.raises("invalid 'self' in function '" .. name .. "'", c[1], nil, unpack(c, 2))
      end
    end)
  end

  it("hand out element copies that belong to the collector", function()
    local l = h.filled("CronInfo", 3)
    local items = {}
    for i = 0, l:size() - 1 do items[#items + 1] = l[i] end
    l = nil
    collectgarbage(); collectgarbage()
    assert.are.equal("job2", items[3].cmd_line)  -- outlive their list
  end)

  it("copy nested lists when a record is appended or stored", function()
    local procs = h.filled("ProcessInfo", 1)
    local p = procs[0]
    local dst = vector_assetman__ProcessInfo_()
    dst:push_back(p)
    p.modules:clear()
    assert.are.equal(2, dst[0].modules:size())
    dst[0] = p
    assert.are.same({ 0, 2 }, { dst[0].modules:size(), procs[0].modules:size() })
  end)
end)
