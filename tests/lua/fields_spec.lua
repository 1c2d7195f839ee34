-- Every field of every record, read and written according to its kind.
local h = require("helper")

-- Fields in member order; ":kind" marks the ones that are not text. A list
-- kind names the record class of its elements (or "strings").
local records = {
  NetworkCardInfo = "name ipv4 ipv6 mac gateway mask broad mtu:i32",
  DiskInfo = "name desc fs size:i64 free:i64 percent:real",
  NetShareInfo = "name path max_conn:i32 cur_conn:i32",
  SystemInfo = "host version kernel_version arch b64:bool Manufacturer product Serial mem cpu envs:strings "
    .. "network_card:NetworkCardInfo disk:DiskInfo net_share:NetShareInfo",
  RegAutoStartInfo = "name cmd_line company verified:bool md5 sha256",
  SysLoadModuleInfo = "name size load_addr path md5 sha256 used by company verified:bool",
  CronInfo = "user cmd_line timer name comment file",
  AutoRunServInfo = "name script_path level comment status md5 sha256 company verified:bool",
  SysInstallPackageInfo = "name version release installtime type size:u64 summary source installdir company",
  UserInfo = "name uid gid groupname comment homedir shell is_admin:bool is_disable:bool last_change_passwd "
    .. "account_expire passwd_expire last_login_time last_login_term last_login_ip",
  WebSiteInfo = "ip port:u32 host document logpath",
  ServiceInfo = "pid:u32 port:u32 type:u32 name arch version install_path process_path configure_path exec_env "
    .. "command exec_user data_path log_path desc current_dir hosts:WebSiteInfo srv_name reserve",
  NetLinkInfo = "proto local_addr local_port:i32 remote_addr remote_port:i32 state pid:i32 proc_name proc_path",
  ProcessModuleInfo = "path md5 sha256 company verified:bool",
  ProcessInfo = "user pid:i32 ppid:i32 stime rtime cmd_line env path name current_dir modules:ProcessModuleInfo",
  ThirdPartDevLibInfo = "name version path",
  DockerInfo = "storage_driver root_dir version image_num container_num images containers",
}

local function fields_of(record)
  local out = {}
  for spec in records[record]:gmatch("%S+") do
    local name, kind = spec:match("^([%w_]+):?(.*)$")
    out[#out + 1] = { name = name, kind = kind ~= "" and kind or "text" }
  end
  return out
end

local MIN32, MIN64 = -2 ^ 31, -2 ^ 63
local BAD_TYPE = "invalid type in variable assignment."

local checks = {}

-- rec[f] = v, as a function to hand to h.raises
local function set(rec, f, v) rec[f] = v end

-- Per scalar kind: (written value, value read back) pairs, enough to tell the
-- conversions apart (their edges are tested in C++, tests/module/test_number.cpp),
-- the values refused, and a value that stays while they are.
local refused_by_numbers = { true, nil, "five", n = 3 }
local scalars = {
  text = { type = "string", kept = "kept", refused = { true, {}, n = 2 },
    { "abc", "abc" }, { "\255\254 not utf-8", "\255\254 not utf-8" }, { "cut\0here", "cut" }, { 42, "42" },
    { nil, "" } },
  -- the library's boolean check lets nil through as false
  bool = { type = "boolean", kept = true, refused = { 1, "true", n = 2 }, { true, true }, { false, false },
    { nil, false } },
  i32 = { { 7, 7 }, { -1.9, -1 }, { 2 ^ 31, MIN32 }, { 0 / 0, MIN32 }, { "12", 12 } },
  u32 = { { 80, 80 }, { -1, 4294967295 }, { 3e9, 2147483648 } },
  i64 = { { 3e9, 3e9 }, { -5e12, -5e12 }, { 2 ^ 63, MIN64 } },
  u64 = { { 4096.7, 4096 }, { 3e9, 18446744071562067968 }, { -1, 2 ^ 64 } },
  real = { { 12.5, 12.5 }, { 1 / 0, 1 / 0 }, { 3e300, 3e300 } },
}

local function check_scalar(kind)
  local k = scalars[kind]
  local kept, refused = k.kept or 5, k.refused or refused_by_numbers
  return function(rec, f)
    assert.are.equal(k.type or "number", type(rec[f]))
    for _, c in ipairs(k) do
      rec[f] = c[1]
      assert.are.equal(c[2], rec[f], f .. " = " .. tostring(c[1]))
    end
    if kind == "real" then
      rec[f] = 0 / 0
      assert.is_true(rec[f] ~= rec[f])
    end
    rec[f] = kept
    for i = 1, refused.n do h.raises(BAD_TYPE, set, rec, f, refused[i]) end
    assert.are.equal(kept, rec[f])
  end
end
for kind in pairs(scalars) do checks[kind] = check_scalar(kind) end

local keep = {}

-- A list field is a live view; writing one copies the given list.
local function check_list(elem)
  return function(rec, f)
    local view = rec[f]
    assert.are.equal("vector<assetman::" .. elem .. ">", tolua.type(view))
    assert.are.equal(view, rec[f])
    local other = h.list_of(elem)
    other:push_back(h.record(elem, keep))
    other:push_back(h.record(elem, keep))
    rec[f] = other
    assert.are.equal(2, rec[f]:size())
    other:clear()
    assert.are.equal(2, rec[f]:size())
    rec[f]:push_back(h.record(elem, keep))
    assert.are.equal(3, view:size())
    rec[f] = rec[f]  -- assigning a list to itself keeps it (checked below)
    h.refuses(BAD_TYPE, set, { rec, f, nil, n = 3 }, { rec, f, vector_assetman__CronInfo_() }, { rec, f, rec })
    assert.are.equal(3, rec[f]:size())
    view:clear()
    assert.are.equal(0, rec[f]:size())
  end
end

-- SystemInfo.envs: a value with no methods that can only be handed on.
function checks.strings(rec, f)
  local view = rec[f]
  assert.are.same({ "vector<string>" }, { tolua.type(view), view.size, view[0] })  -- no size, no elements
  local holder = api.assetman.collect_system_asset_data()
  h.fake.set("system", 0, 3)
  api.assetman.collect_system_asset(holder:get())
  rec[f] = holder:get()[f]
  assert.are.same({ "K0=V", "K1=V", "K2=V" }, h.fake.envs(rec))
  api.assetman.collect_system_asset(holder:get())  -- refills the source only
  h.fake.set("system", 0, 1)
  api.assetman.collect_system_asset(holder:get())
  assert.are.same({ "K0=V", "K1=V", "K2=V" }, h.fake.envs(rec))
  h.refuses(BAD_TYPE, set, { rec, f, nil, n = 3 }, { rec, f, vector_assetman__CronInfo_() })
end

describe("record fields", function()
  for record in pairs(records) do
    it("of " .. record .. " read and write by kind, and refuse a missing or foreign self", function()
      local rec = h.record(record, keep)
      local class = getmetatable(rec)
      local stranger = api.assetman.collect_system_asset_data()
      for _, fld in ipairs(fields_of(record)) do
        local check = checks[fld.kind] or check_list(fld.kind)
        check(rec, fld.name)
        local msg = "invalid 'self' in accessing variable '" .. fld.name .. "'"
        h.refuses(msg, class[".get"][fld.name], { nil, n = 1 }, { stranger }, { io.stdout })
        h.raises(msg, class[".set"][fld.name], nil, rec[fld.name])
      end
      -- nothing beyond the listed fields
      local n = 0
      for _ in pairs(class[".get"]) do n = n + 1 end
      assert.are.equal(#fields_of(record), n)
    end)
  end
end)
