-- l2vfib.lua: Wireshark dissector for the layer-2 forwarding table services
-- (protocol l2vfib), over the emulated device's pcap capture.
--
-- Every record of a capture (link type USER0) is a pseudo-header and one
-- datagram; the datagram is whole messages back to back (the forwarding
-- and event services) or one control-call datagram:
--
--    0     1         2       4       6      8
--   +-----+---------+-------+-------+------+----------------------------
--   | dir | service | node  | port  | 0 0  | datagram
--   +-----+---------+-------+-------+------+----------------------------
--   dir: 0 to the device, 1 from it; service: 0 forwarding, 1 event, 2 control
--
--   message:  | objType be16 | payloadLen be16 | tag be16 | opcode | byte7 |
--             [ extWord be32 ]  (12-byte header: AC flag, AC query, AC answer)
--             items: | type be16 | length be16 | value |
--
-- The tables below are those of the message decoder (decode/decode.cpp):
-- the item layouts, the catalogue and the message formats, in its words, so
-- that a message reads the same here as in l2vfib-decode and the emulated
-- device's log. A fault gets expert info naming it and its offset in the
-- datagram, as the decoder words it; the dissector never raises an error.
--
-- Install: copy to ~/.local/lib/wireshark/plugins/, or run
--   tshark -X lua_script:l2vfib.lua -r capture.pcap

local P = Proto("l2vfib", "L2VFIB forwarding table service")

-- ---------------------------------------------------------------------------
-- Item layouts: one line of tokens per item type, read in value order.
--   name:u8 u16 u32 u64   big-endian number      name:h32   host-order word
--   name:mac hexN strN    6 bytes, N bytes, N-byte string
--   name:addr / addrz     family be16, reserved be16 (zero for addrz), 16 bytes
--   -N  ffN               N zero bytes, N bytes of 0xFF
--   name:ff               all-ones words to the value's end (their number)
--   label[tokens]N / *    a record N times, or as often as the value holds
-- ---------------------------------------------------------------------------

local KEY = "id:u32 subId:u16 -2"
local U32 = "value:u32"
local U16 = "value:u16"

local ENTRY = {
    [10] = KEY, [20] = KEY, [38] = KEY, [40] = KEY,
    [12] = "sub[word0:u32 word1:u32 word2:u32 half0:u16 byte0:u8 byte1:u8 half1:u16 half2:u16 word3:u32]*",
    [13] = "attr64[:u64]2 attr32:u32 attr16[:u16]3 attr8:u8 -1 fill:ff",
    [21] = "word0:u32 half0:u16 byte0:u8 kind:u8 byte1:u8 -3 fill:ff",
    [22] = "half0:u16 -2 word0:u32 byte0:u8 -3 word1:u32 -8 attr64:u64 word2:u32 -4 half1:u16 half2:u16 -4 fill:ff",
    [23] = "word0:u32 half0:u16 half1:u16 count0:u16 half2:u16 half3:u16 count1:u16",
    [24] = "word0:u32 half0:u16 -2 sub[word0:u32 half0:u16 half1:u16 half2:u16 half3:u16 half4:u16 half5:u16]2",
    [25] = "pairs[half0:u16 half1:u16]*", [26] = "pairs[half0:u16 half1:u16]*",
    [27] = "word0:u32 word1:u32 half0:u16 byte0:u8 -1",
    [28] = "half0:u16 -2 word0:u32",
    [29] = "mac:mac",
    [33] = "word0:u32 word1:u32 word2:u32 half0:u16 byte0:u8 byte1:u8 word3:u32 name:str32 " ..
           "word4:u32 word5:u32 half1:u16 -2 words[:u32]8 -8 word6:u32 word7:u32 word8:u32 fill:ff",
    [39] = "ip:addrz mac:mac half0:u16 half1:u16 -2 fill:ff",
    [41] = "word0:u32 word1:u32 word2:u32 memberCount:u32 word4:u32 mac[:mac]3 -2 opaque:hex24",
    [42] = "members[word0:u32 data:hex8]*",
    [43] = "word0:u32 data:hex8",
    [70] = "word0:u32 word1:u32",
    [71] = "word0:u32 word1:u32 word2:u32 word3:u32 ff32",
    [72] = "ifIndex:u32",
    [83] = "-2 value:u16",
    [103] = "ip:addr word0:u32 half0:u16 -2",
    [105] = "", [106] = "", [182] = "", [183] = "", [186] = "",
    [112] = "ip:addrz peers[ip:addrz word0:u32]8",
    [141] = "word0:u32 half0:u16 half1:u16 word1:u32 -4",
    [144] = "half0:u16 half1:u16 half2:u16 half3:u16",
    [145] = "word0:u32 half0:u16 half1:u16",
    [153] = "word0:u32 word1:u32 word2:u32 word3:u32",
    [154] = "ebgId:u32",
    [156] = "member:u32",
    [180] = "word0:u32 word1:u32",
    [184] = "word0:u32 word1:u32 word2:u32 ff32",
    [187] = "ip0:addr ip1:addr ip2:addr",
    [201] = "word0:u32 word1:u32 word2:u32 byte0:u8 byte1:u8 pair:hex2 data:hex32",
    [202] = "word0:u32 word1:u32 ff4",
    [204] = "word0:u32 word1:u32 word2:u32",
    [218] = U16, [234] = U16, [235] = U16, [238] = U16,
    [231] = "ip:addr ff32",
    [236] = "word0:u32 word1:u32 half0:u16 -2",
    [239] = "word0:u32 word1:u32 data:hex32",
}
for _, t in ipairs({31, 32, 34, 44, 100, 102, 120, 121, 122, 123, 140, 142, 143, 146, 181, 185, 189, 190,
                    215, 217, 230, 237}) do
    ENTRY[t] = U32
end

-- The event service: registrations (to it) and events (from it).
local EVENT_REG = {
    [0] = "word:h32",
    [1] = "selector[:u32]3 eventMask:u16 extra16:u16",
    [4] = "eventParam:u32 eventMask:u16 extra16:u16",
}
local REPLY = { [36] = "value:u32", [37] = "result:u32", [184] = "id:u32" }

-- Event items: a record of fixed size; a shorter value reads as padded with
-- zeros, a longer one as cut to the record. Kind 93 makes four more words
-- of item 2 numbers.
local EVENT_2 = "word0:u32 word1:u32 kind:u8 raw0:hex1 half0:u16 word2:u32 word3:u32 word4:u32 half1:u16 raw1:hex2 "
local EVENT = {
    [3] = { 12, "word0:u32 word1:u32 half0:u16 raw0:hex2" },
    [6] = { 40, "word0:u32 word1:u32 raw0:hex32" },
    [2] = { 48, EVENT_2 .. "word5:hex4 word6:hex4 raw2:hex4 word7:hex4 word8:hex4" },
}
local EVENT_2_KIND93 = EVENT_2 .. "word5:u32 word6:u32 raw2:hex4 word7:u32 word8:u32"

local AC_ENTRY = "word0:u32 half0:u16 byte0:u8 byte1:u8 half1:u16 half2:u16 word1:u32"

-- ---------------------------------------------------------------------------
-- The catalogue: each code's object type, opcode and shape; a shape is its
-- first item (which tells codes of one object type and opcode apart) and
-- the item that names the object (0 for none).
-- ---------------------------------------------------------------------------

local SHAPE = {
    tlv31 = { 31, 0 }, instance = { 32, 32 }, variant = { 20, 20 }, tlv44 = { 44, 44 }, tlv83 = { 83, 0 },
    tlv100 = { 100, 100 }, tlv32 = { 32, 32 }, tlv10 = { 10, 10 }, tlv20 = { 20, 20 }, host = { 38, 38 },
    tlv102 = { 102, 0 }, addrParam = { 103, 0 }, rangeOrList = { 120, 120 }, addrSet = { 112, 0 },
    tlv140 = { 140, 0 }, tlv143 = { 143, 142 }, tlv141 = { 141, 142 }, mark182 = { 181, 181 },
    mark183 = { 181, 181 }, tlv180 = { 180, 0 }, tlv145 = { 145, 146 }, acInfo = { 20, 20 },
    macEntry = { 20, 20 }, tlv184 = { 184, 0 }, tlv185 = { 185, 0 }, mark186 = { 181, 181 },
    addrTriple = { 187, 0 }, tlv105 = { 105, 0 }, tlv189 = { 189, 0 }, tlv190 = { 190, 0 },
    tlv201 = { 201, 0 }, tlv215 = { 215, 0 }, tlv106 = { 106, 0 }, tlv217 = { 217, 0 }, tlv230 = { 230, 0 },
    tlv218 = { 218, 0 }, tlv234 = { 234, 0 }, addrFill = { 231, 0 }, tlv70 = { 70, 70 }, tlv235 = { 235, 0 },
    tlv236 = { 236, 0 }, tlv237 = { 237, 0 }, tlv238 = { 238, 0 }, tlv239 = { 239, 146 },
}

-- Indexed by code from 0; codes 0, 1, 13 and 14 build nothing.
local CATALOGUE = {
    false, false, { 0, 0, "tlv31" }, { 0, 0, "tlv31" },
    { 1, 5, "instance" }, { 1, 7, "instance" }, { 1, 6, "instance" },
    { 4, 1, "variant" }, { 4, 2, "variant" }, { 4, 6, "variant" }, { 0, 0, "tlv31" },
    { 2, 6, "instance" }, { 5, 1, "variant" }, false, false,
    { 13, 1, "tlv44" }, { 13, 2, "tlv44" }, { 15, 2, "tlv83" },
    { 1, 1, "tlv100" }, { 1, 2, "tlv100" }, { 2, 1, "tlv100" },
    { 1, 23, "tlv32" }, { 1, 23, "tlv10" }, { 6, 23, "tlv20" },
    { 1, 1, "host" }, { 1, 2, "host" },
    { 1, 1, "tlv102" }, { 1, 2, "tlv102" }, { 2, 1, "tlv102" },
    { 1, 5, "addrParam" }, { 1, 7, "addrParam" }, { 2, 5, "addrParam" },
    { 1, 5, "rangeOrList" }, { 1, 7, "rangeOrList" },
    { 1, 5, "addrSet" }, { 1, 7, "addrSet" }, { 2, 5, "addrSet" },
    { 1, 6, "tlv140" }, { 2, 6, "tlv140" }, { 1, 6, "tlv143" },
    { 2, 2, "tlv141" }, { 2, 1, "tlv141" },
    { 28, 1, "mark182" }, { 28, 2, "mark182" }, { 28, 1, "mark183" }, { 28, 2, "mark183" },
    { 28, 6, "tlv180" },
    { 1, 1, "tlv145" }, { 1, 2, "tlv145" }, { 2, 1, "tlv145" },
    { 22, 5, "acInfo" }, { 22, 7, "acInfo" }, { 21, 5, "macEntry" }, { 21, 7, "macEntry" },
    { 29, 5, "tlv184" }, { 29, 7, "tlv184" }, { 1, 6, "tlv185" }, { 2, 6, "tlv185" },
    { 28, 1, "mark186" }, { 28, 2, "mark186" }, { 30, 5, "addrTriple" },
    { 1, 1, "tlv105" }, { 1, 2, "tlv105" }, { 2, 1, "tlv105" },
    { 1, 6, "tlv189" }, { 2, 6, "tlv190" }, { 33, 5, "tlv201" }, { 33, 7, "tlv201" },
    { 36, 5, "tlv215" }, { 37, 1, "variant" }, { 37, 2, "variant" },
    { 1, 1, "tlv106" }, { 1, 2, "tlv106" }, { 2, 1, "tlv106" },
    { 1, 6, "tlv217" }, { 1, 6, "tlv230" }, { 39, 5, "tlv218" }, { 1, 6, "tlv234" },
    { 40, 5, "addrFill" }, { 40, 7, "addrFill" }, { 14, 23, "tlv70" },
    { 42, 6, "tlv235" }, { 41, 5, "tlv236" }, { 41, 7, "tlv236" }, { 41, 5, "tlv236" }, { 42, 6, "tlv235" },
    { 43, 1, "tlv237" }, { 43, 2, "tlv237" }, { 43, 1, "tlv237" },
    { 1, 6, "tlv238" }, { 2, 6, "tlv238" }, { 1, 6, "tlv239" },
}

-- Object types by the name of what they carry; every other known type is a
-- catalogue object ("cfg").
local OBJTYPE = {
    [3] = "pw", [6] = "ac", [7] = "gr-event", [9] = "mac-withdraw", [10] = "mac-reset", [12] = "minm",
    [14] = "tunnel", [16] = "ac-flag", [17] = "ac-data", [18] = "tunnel", [20] = "evt",
    [31] = "ebg-df", [32] = "ebg-member", [35] = "mpls-ebg-member",
}
for _, row in ipairs(CATALOGUE) do
    if row and not OBJTYPE[row[1]] then OBJTYPE[row[1]] = "cfg" end
end
local OPCODE = { [5] = "add", [7] = "del", [10] = "tunnel-if del", [16] = "ac-flag 0", [17] = "ac-flag 1",
                 [18] = "ac-data query", [23] = "cfg" }
local SERVICE = { [0] = "forwarding", [1] = "event", [2] = "control" }
local DIRECTION = { [0] = "to device", [1] = "from device" }
local CONTROL_OP = { [1] = "CIOCTL", [2] = "CIOCTL_Async", [3] = "DEV_GetAllNodes", [4] = "IF_IsNodeUp",
                     [5] = "LIP_GetLocalLip", [6] = "TUNNEL_GetMode" }

-- ---------------------------------------------------------------------------
-- Layout parsing, and one field per name that a layout gives.
-- ---------------------------------------------------------------------------

local SIZE = { u8 = 1, u16 = 2, u32 = 4, u64 = 8, h32 = 4, mac = 6, addr = 20, addrz = 20, ff = 0 }

local function parse_token(t, out)
    if t == "" then return end
    local n = t:match("^%-(%d+)$")
    if n then out[#out + 1] = { op = "zero", size = tonumber(n) } return end
    n = t:match("^ff(%d+)$")
    if n then out[#out + 1] = { op = "ones", size = tonumber(n) } return end
    local name, ty = t:match("^([%w]*):(%w+)$")
    local kind, bytes = ty:match("^(%a+)(%d+)$")
    if kind == "hex" or kind == "str" then
        out[#out + 1] = { op = kind, name = name, size = tonumber(bytes) }
    else
        out[#out + 1] = { op = ty, name = name, size = SIZE[ty] }
    end
end

local parsed = {}
local function parse(layout)
    if parsed[layout] then return parsed[layout] end
    local toks = {}
    for word in layout:gmatch("%S+") do
        local label, rest = word:match("^(%w+)%[(.*)$")
        if label then
            toks[#toks + 1] = { op = "begin", name = label }
            word = rest
        end
        local body, times = word:match("^(.*)%](.*)$")
        if body then
            parse_token(body, toks)
            toks[#toks + 1] = { op = "end", size = times == "*" and 0 or tonumber(times) }
        else
            parse_token(word, toks)
        end
    end
    -- The fixed part, and the unit that the rest must be a multiple of.
    local fixed, unit, group, in_group = 0, 0, 0, false
    for _, t in ipairs(toks) do
        if t.op == "begin" then in_group, group = true, 0
        elseif t.op == "end" then
            in_group = false
            if t.size == 0 then unit = group else fixed = fixed + group * t.size end
        elseif t.op == "ff" then unit = 4
        elseif in_group then group = group + t.size
        else fixed = fixed + t.size end
    end
    local p = { toks = toks, fixed = fixed, unit = unit }
    parsed[layout] = p
    return p
end

-- A field's kind: how it is added and shown.
local function kind_of(op, size)
    if op == "u64" then return "u64" end
    if op == "u8" or op == "u16" or op == "u32" or op == "h32" or op == "ff" then return "u32" end
    if op == "hex" then return "hex" end
    return op -- mac, str, ipv4, ipv6
end

local fields = {}  -- abbreviation -> ProtoField
local by_leaf = {} -- leaf .. "/" .. kind -> ProtoField
local function make_field(leaf, kind)
    local key = leaf .. "/" .. kind
    if by_leaf[key] then return by_leaf[key] end
    local abbr = "l2vfib.tlv." .. leaf
    if fields[abbr] then abbr = abbr .. "_" .. kind end
    local f
    if kind == "u64" then f = ProtoField.uint64(abbr, leaf, base.DEC)
    elseif kind == "u32" then f = ProtoField.uint32(abbr, leaf, base.DEC)
    elseif kind == "hex" then f = ProtoField.bytes(abbr, leaf)
    elseif kind == "mac" then f = ProtoField.ether(abbr, leaf)
    elseif kind == "str" then f = ProtoField.string(abbr, leaf)
    elseif kind == "ipv4" then f = ProtoField.ipv4(abbr, leaf)
    else f = ProtoField.ipv6(abbr, leaf) end
    fields[abbr] = f
    by_leaf[key] = f
    return f
end

-- The field a token gives; a record of one unnamed field takes its label.
local function token_field(t, label)
    local leaf = t.name ~= "" and t.name or label
    return make_field(leaf, kind_of(t.op))
end

local all_layouts = { "count:u32", AC_ENTRY .. " rest:hex1", "raw:hex1", EVENT_2_KIND93, "value:u32", "data:hex1" }
-- In a fixed order, so that each field keeps its abbreviation.
for _, tbl in ipairs({ ENTRY, EVENT_REG, REPLY, EVENT }) do
    local types = {}
    for t in pairs(tbl) do types[#types + 1] = t end
    table.sort(types)
    for _, t in ipairs(types) do
        local l = tbl[t]
        all_layouts[#all_layouts + 1] = type(l) == "table" and l[2] or l
    end
end
for _, l in ipairs(all_layouts) do
    local label = ""
    for _, t in ipairs(parse(l).toks) do
        if t.op == "begin" then label = t.name
        elseif t.op == "end" then label = ""
        elseif t.op == "addr" or t.op == "addrz" then
            make_field("family", "u32")
            make_field("reserved", "u32")
            make_field("addr", "ipv4")
            make_field("addr", "ipv6")
        elseif t.name then token_field(t, label) end
    end
end

local hf = {
    direction = ProtoField.uint8("l2vfib.direction", "Direction", base.DEC, DIRECTION),
    service = ProtoField.uint8("l2vfib.service", "Service", base.DEC, SERVICE),
    node = ProtoField.uint16("l2vfib.node", "Node", base.HEX),
    port = ProtoField.uint16("l2vfib.port", "Port", base.DEC),
    message = ProtoField.none("l2vfib.message", "Message"),
    name = ProtoField.string("l2vfib.name", "Name"),
    key = ProtoField.string("l2vfib.key", "Key"),
    objtype = ProtoField.uint16("l2vfib.objtype", "Object type", base.DEC, OBJTYPE),
    payloadlen = ProtoField.uint16("l2vfib.payloadlen", "Payload length", base.DEC),
    tag = ProtoField.uint16("l2vfib.tag", "Tag", base.DEC),
    opcode = ProtoField.uint8("l2vfib.opcode", "Opcode", base.DEC, OPCODE),
    byte7 = ProtoField.uint8("l2vfib.byte7", "Byte 7", base.DEC),
    extword = ProtoField.uint32("l2vfib.extword", "Extension word", base.HEX),
    inner = ProtoField.none("l2vfib.inner", "Inner header"),
    tlv = ProtoField.none("l2vfib.tlv", "Item"),
    tlv_type = ProtoField.uint16("l2vfib.tlv.type", "Type", base.DEC),
    tlv_len = ProtoField.uint16("l2vfib.tlv.len", "Length", base.DEC),
    tlv_bytes = ProtoField.bytes("l2vfib.tlv.bytes", "Value"),
    record = ProtoField.string("l2vfib.tlv.record", "Record"),
    ctl = ProtoField.none("l2vfib.control", "Control call"),
    ctl_ver = ProtoField.uint8("l2vfib.control.version", "Version", base.DEC),
    ctl_op = ProtoField.uint8("l2vfib.control.op", "Op", base.DEC, CONTROL_OP, 0x7F),
    ctl_answer = ProtoField.bool("l2vfib.control.answer", "Answer", 8, nil, 0x80),
    ctl_seq = ProtoField.uint32("l2vfib.control.sequence", "Sequence", base.DEC),
    ctl_arg0 = ProtoField.uint32("l2vfib.control.arg0", "arg0", base.DEC),
    ctl_arg1 = ProtoField.uint32("l2vfib.control.arg1", "arg1", base.HEX),
    ctl_arg2 = ProtoField.uint32("l2vfib.control.arg2", "arg2", base.DEC),
    ctl_result = ProtoField.uint32("l2vfib.control.result", "Result", base.HEX),
    ctl_len = ProtoField.uint32("l2vfib.control.length", "Length", base.DEC),
    ctl_data = ProtoField.bytes("l2vfib.control.data", "Data"),
}
local list = {}
for _, f in pairs(hf) do list[#list + 1] = f end
for _, f in pairs(fields) do list[#list + 1] = f end
P.fields = list

-- One expert per fault, named as the decoder names it.
local FAULTS = {
    ["short-header"] = expert.group.MALFORMED, ["length-past-end"] = expert.group.MALFORMED,
    ["truncated-item"] = expert.group.MALFORMED, ["bad-item-length"] = expert.group.MALFORMED,
    ["unknown-object-type"] = expert.group.PROTOCOL, ["unknown-opcode"] = expert.group.PROTOCOL,
    ["missing-item"] = expert.group.PROTOCOL, ["unexpected-item"] = expert.group.PROTOCOL,
    ["bad-value"] = expert.group.PROTOCOL, ["pseudo-header"] = expert.group.MALFORMED,
    ["control"] = expert.group.MALFORMED,
}
local ex = {}
local experts = {}
for name, group in pairs(FAULTS) do
    ex[name] = ProtoExpert.new("l2vfib." .. name, name, group, expert.severity.ERROR)
    experts[#experts + 1] = ex[name]
end
P.experts = experts

-- ---------------------------------------------------------------------------
-- Reading items by layout.
-- ---------------------------------------------------------------------------

local function hex(tvb, at, n, sep)
    if n == 0 then return "" end
    local h = tvb(at, n):bytes():tohex():lower()
    if not sep then return h end
    return (h:gsub("%x%x", "%0" .. sep):sub(1, -2))
end

-- A fault: the message (or datagram) it belongs to, its code and offset.
local function fault(state, tree, range, code, text)
    tree:add_tvb_expert_info(ex[code], range, text)
    if not state.fault then state.fault = { code = code, text = text } end
    return { code = code, text = text }
end

-- Decodes an item's value by a layout into tree, appending each field's
-- name and text to item.fields; returns the fault, if any.
local function decode_layout(state, layout, item, tree, tvb)
    local p = parse(layout)
    local len, at, value_at = item.len, item.offset, item.offset + 4
    local sized
    if p.unit == 0 then sized = len == p.fixed
    else sized = len >= p.fixed and (len - p.fixed) % p.unit == 0 end
    if not sized then
        local want = p.unit == 0 and tostring(p.fixed) or (p.fixed .. " + " .. p.unit .. "n")
        return fault(state, tree, tvb(at, 4), "bad-item-length",
            string.format("item %d length %d (expected %s) at offset %d", item.type, len, want, at))
    end
    local pos = 0
    local toks = p.toks
    local function add(t, name, sub, label)
        local r = tvb(value_at + pos, t.size)
        local f = token_field(t, label)
        local text
        if t.op == "h32" then
            sub:add_le(f, r)
            text = tostring(r:le_uint())
        elseif t.op == "u64" then
            sub:add(f, r)
            text = tostring(r:uint64())
        elseif t.op == "mac" then
            sub:add(f, r)
            text = hex(tvb, value_at + pos, 6, ":")
        elseif t.op == "hex" then
            sub:add(f, r)
            text = t.size == 0 and "-" or hex(tvb, value_at + pos, t.size)
        elseif t.op == "str" then
            local s = r:stringz()
            sub:add(f, r, s)
            text = '"' .. s .. '"'
        else
            sub:add(f, r)
            text = tostring(r:uint())
        end
        item.fields[#item.fields + 1] = { name, text }
    end
    local function run(from, to, prefix, sub, label)
        local i = from
        while i < to do
            local t = toks[i]
            local name = prefix .. (t.name or "")
            if t.op == "zero" or t.op == "ones" then
                local want = t.op == "zero" and 0 or 255
                for k = 0, t.size - 1 do
                    local b = tvb(value_at + pos + k, 1):uint()
                    if b ~= want then
                        return fault(state, sub, tvb(value_at + pos + k, 1), "bad-value",
                            string.format("byte %02x not %02x in item %d at offset %d", b, want, item.type,
                                value_at + pos + k))
                    end
                end
                pos = pos + t.size
            elseif t.op == "ff" then
                for k = pos, len - 1 do
                    local b = tvb(value_at + k, 1):uint()
                    if b ~= 255 then
                        return fault(state, sub, tvb(value_at + k, 1), "bad-value",
                            string.format("fill byte %02x not ff in item %d at offset %d", b, item.type, value_at + k))
                    end
                end
                local n = (len - pos) / 4
                sub:add(token_field(t, label), tvb(value_at + pos, len - pos), n)
                item.fields[#item.fields + 1] = { name, tostring(n) }
                pos = len
            elseif t.op == "addr" or t.op == "addrz" then
                local r = tvb(value_at + pos, 20)
                local a = sub:add(hf.record, r, name)
                local family = r(0, 2):uint()
                a:add(make_field("family", "u32"), r(0, 2))
                item.fields[#item.fields + 1] = { name .. ".family", tostring(family) }
                if t.op == "addr" then
                    a:add(make_field("reserved", "u32"), r(2, 2))
                    item.fields[#item.fields + 1] = { name .. ".reserved", tostring(r(2, 2):uint()) }
                elseif r(2, 2):uint() ~= 0 then
                    return fault(state, a, r(2, 2), "bad-value",
                        string.format("reserved bytes not 0 in item %d at offset %d", item.type, value_at + pos + 2))
                end
                -- An IPv4 address travels in the first four bytes; the rest
                -- are shown only when they are not zero.
                local tail_zero = hex(tvb, value_at + pos + 8, 12) == string.rep("0", 24)
                if family == 2 and tail_zero then
                    a:add(make_field("addr", "ipv4"), r(4, 4))
                    item.fields[#item.fields + 1] = { name .. ".addr", tostring(r(4, 4):ipv4()) }
                else
                    a:add(make_field("addr", "ipv6"), r(4, 16))
                    item.fields[#item.fields + 1] = { name .. ".addr", tostring(r(4, 16):ipv6()) }
                end
                pos = pos + 20
            elseif t.op == "begin" then
                local stop = i + 1
                while toks[stop].op ~= "end" do stop = stop + 1 end
                local times = toks[stop].size
                if times == 0 then times = p.unit == 0 and 0 or (len - pos) / p.unit end
                local single = stop == i + 2 and toks[i + 1].name == ""
                for k = 0, times - 1 do
                    local inner = prefix .. t.name .. "." .. k
                    if single then
                        local f = run(i + 1, stop, inner, sub, t.name)
                        if f then return f end
                    else
                        local start = pos
                        local rec = sub:add(hf.record, tvb(value_at + pos, 0), inner)
                        local f = run(i + 1, stop, inner .. ".", rec, "")
                        rec:set_len(pos - start)
                        if f then return f end
                    end
                end
                i = stop
            else
                add(t, name, sub, label)
                pos = pos + t.size
            end
            i = i + 1
        end
    end
    return run(1, #toks + 1, "", tree, "")
end

-- ---------------------------------------------------------------------------
-- Messages.
-- ---------------------------------------------------------------------------

local function unknown_opcode(state, m, tree, tvb)
    return fault(state, tree, tvb(m.offset + 6, 1), "unknown-opcode",
        string.format("unknown opcode %d for object type %d at offset %d", m.opcode, m.objtype, m.offset + 6))
end

local function unknown_objtype(state, m, tree, tvb)
    return fault(state, tree, tvb(m.offset, 2), "unknown-object-type",
        string.format("unknown object type %d at offset %d", m.objtype, m.offset))
end

-- A header field that the format fixes.
local HEAD_AT = { tag = 4, byte7 = 7, extWord = 8 }
local function head_value(state, m, tree, tvb, field, want)
    local got = field == "extWord" and m.extword or m[field]
    if got == want then return nil end
    local at = m.offset + HEAD_AT[field]
    return fault(state, tree, tvb(at, field == "extWord" and 4 or field == "tag" and 2 or 1), "bad-value",
        string.format("%s %d in %s, not %d, at offset %d", field, got, m.name or "", want, at))
end

-- The catalogue codes of a message, by object type, opcode and first item.
local function catalogue(state, m, tree, tvb)
    local type_known, op_known, codes = false, false, {}
    for i, row in ipairs(CATALOGUE) do
        if row and row[1] == m.objtype then
            type_known = true
            if row[2] == m.opcode then
                op_known = true
                if #m.items > 0 and SHAPE[row[3]][1] == m.items[1].type then codes[#codes + 1] = i - 1 end
            end
        end
    end
    if not type_known then return nil, unknown_objtype(state, m, tree, tvb) end
    if not op_known then return nil, unknown_opcode(state, m, tree, tvb) end
    m.name = string.format("cfg type %d op %d", m.objtype, m.opcode)
    if #codes == 0 then
        if #m.items == 0 then
            return nil, fault(state, tree, tvb(m.offset, m.size), "missing-item",
                string.format("missing item in %s at offset %d", m.name, m.offset))
        end
        return nil, fault(state, tree, tvb(m.items[1].offset, 4), "unexpected-item",
            string.format("unexpected item %d in %s at offset %d", m.items[1].type, m.name, m.items[1].offset))
    end
    m.name = "cfg " .. table.concat(codes, "/")
    m.kind = "cfg"
    local err = head_value(state, m, tree, tvb, "byte7", codes[1] == 80 and 5 or 8)
    if err then return nil, err end
    return ENTRY, nil, SHAPE[CATALOGUE[codes[1] + 1][3]][2]
end

-- A message's name and kind, the layouts of its items and its key item, by
-- direction and header; or the fault that leaves it unnamed.
local function classify(state, channel, m, tree, tvb)
    local op, ot = m.opcode, m.objtype
    -- Named, when the header fields that the format fixes hold.
    local function named(kind, name, layouts, key, fixed)
        m.kind, m.name = kind, name
        for _, f in ipairs(fixed or {}) do
            local err = head_value(state, m, tree, tvb, f[1], f[2])
            if err then return nil, err end
        end
        return layouts, nil, key
    end
    local function opname(base)
        if op == 5 then return base .. " add" elseif op == 7 then return base .. " del" end
        return base .. " op " .. op
    end
    if channel == "to-service" then
        if m.head == 12 then
            local err = head_value(state, m, tree, tvb, "byte7", 0) or head_value(state, m, tree, tvb, "extWord", 0)
            if err then return nil, err end
            if ot == 16 then
                if op ~= 16 and op ~= 17 then return nil, unknown_opcode(state, m, tree, tvb) end
                return named("ac-flag", op == 17 and "ac-flag 1" or "ac-flag 0", { [13] = "" }, 0, { { "tag", 3 } })
            end
            if op ~= 18 then return nil, unknown_opcode(state, m, tree, tvb) end
            return named("ac-data-query", "ac-data query", { [1] = "", [20] = "" }, 0, { { "tag", 32 } })
        end
        if m.tag ~= 0 then
            return nil, fault(state, tree, tvb(m.offset + 4, 2), "bad-value",
                string.format("tag %d not 0 at offset %d", m.tag, m.offset + 4))
        end
        if ot == 3 then
            if op == 5 or op == 7 then return named("pw", opname("pw"), ENTRY, 10) end
            return nil, unknown_opcode(state, m, tree, tvb)
        elseif ot == 6 and op ~= 23 then
            if op == 5 or op == 7 then return named("ac", opname("ac"), ENTRY, 20, { { "byte7", 0 } }) end
            return nil, unknown_opcode(state, m, tree, tvb)
        elseif ot == 7 then
            if op == 3 or op == 4 then return named("gr-event", "gr-event " .. op, ENTRY, 0, { { "byte7", 8 } }) end
            return nil, unknown_opcode(state, m, tree, tvb)
        elseif ot == 9 then
            if op == 0 then return named("mac-withdraw", "mac-withdraw", ENTRY, 10, { { "byte7", 8 } }) end
            return nil, unknown_opcode(state, m, tree, tvb)
        elseif ot == 10 then
            if op == 1 then return named("mac-reset", "mac-reset", ENTRY, 0, { { "byte7", 8 } }) end
            return nil, unknown_opcode(state, m, tree, tvb)
        elseif ot == 12 then
            return named("minm", opname("minm"), ENTRY, 40)
        elseif (ot == 14 and op ~= 23) or ot == 18 then
            if op == 10 then
                return named("tunnel-if", "tunnel-if del", ENTRY, 72, { { "byte7", ot == 18 and 7 or 5 } })
            end
            if op ~= 5 and op ~= 7 then return nil, unknown_opcode(state, m, tree, tvb) end
            m.kind, m.name = "tunnel", op == 5 and "tunnel add" or "tunnel del"
            -- Byte 7 chooses the object type: 7 is type 18, any other 14.
            if (m.byte7 == 7) ~= (ot == 18) then
                return nil, fault(state, tree, tvb(m.offset + 7, 1), "bad-value",
                    string.format("byte7 %d with object type %d at offset %d", m.byte7, ot, m.offset + 7))
            end
            return ENTRY, nil, 70
        elseif ot == 31 then
            return named("ebg-df", opname("ebg-df"), ENTRY, 153)
        elseif ot == 32 then
            return named("ebg-member", opname("ebg-member"), ENTRY, 154)
        elseif ot == 35 then
            return named("mpls-ebg-member", opname("mpls-ebg-member"), ENTRY, 202)
        end
        return catalogue(state, m, tree, tvb)
    elseif channel == "to-event" then
        if ot ~= 20 then return nil, unknown_objtype(state, m, tree, tvb) end
        if op ~= 5 and op ~= 7 then return nil, unknown_opcode(state, m, tree, tvb) end
        local fixed = { { "tag", 0 }, { "byte7", 0 } }
        if #m.items > 0 and m.items[1].type == 0 then
            return named("evt-channel", op == 5 and "evt-channel open" or "evt-channel close", EVENT_REG, 0, fixed)
        end
        return named("evt-reg", op == 5 and "evt-reg add" or "evt-reg del", EVENT_REG, 0, fixed)
    elseif channel == "from-service" then
        if m.head == 12 then return named("ac-data-answer", "ac-data answer", nil, 0) end
        local first = #m.items > 0 and m.items[1].type or nil
        local name = first == 36 and "notice" or first == 37 and "reply result" or first == 184 and "reply id"
            or "reply"
        if not first then
            named("reply", name, nil, 0)
            return nil, fault(state, tree, tvb(m.offset, m.size), "missing-item",
                string.format("missing item 36, 37 or 184 in reply at offset %d", m.offset))
        end
        return named(first == 36 and "notice" or "reply", name, { [first] = REPLY[first] }, 0)
    end
    m.kind, m.name = "event", "event"
    if m.payloadlen < 8 then
        return nil, fault(state, tree, tvb(m.offset + 2, 2), "bad-value",
            string.format("event payload length %d below 8 at offset %d", m.payloadlen, m.offset + 2))
    end
    return "event", nil, 0
end

-- Decodes one item in place (its tree already holds type and length).
local function decode_item(state, m, layouts, item, tvb)
    if layouts == "event" then
        local rec = EVENT[item.type]
        if not rec then return end -- passed over, as the daemon does
        local size, layout = rec[1], rec[2]
        if item.type == 2 and item.len > 8 and tvb(item.offset + 12, 1):uint() == 93 then layout = EVENT_2_KIND93 end
        -- The record as the daemon reads it: cut to its size, or padded
        -- with zeros (a record of its own then).
        local probe = { type = item.type, offset = item.offset, len = size, fields = item.fields }
        if item.len >= size then return decode_layout(state, layout, probe, item.tree, tvb) end
        local bytes = tvb(item.offset, 4 + item.len):bytes()
        bytes:set_size(4 + size)
        probe.offset = 0
        return decode_layout(state, layout, probe, item.tree, bytes:tvb("event record"))
    end
    local layout = layouts and layouts[item.type]
    if layout == nil then
        return fault(state, item.tree, tvb(item.offset, 4), "unexpected-item",
            string.format("unknown item %d at offset %d", item.type, item.offset))
    end
    return decode_layout(state, layout, item, item.tree, tvb)
end

-- The AC data answer: the count item, then count entries of equal size.
local function ac_answer(state, m, tvb)
    if #m.items == 0 then
        return fault(state, m.tree, tvb(m.offset, m.size), "missing-item",
            string.format("missing count item in %s at offset %d", m.name, m.offset))
    end
    local count = m.items[1]
    local f = decode_layout(state, "count:u32", count, count.tree, tvb)
    if f then return f end
    local n = tvb(count.offset + 4, 4):uint()
    local extra = m.items[n == 0 and 2 or 3]
    if extra then
        return fault(state, extra.tree, tvb(extra.offset, 4), "unexpected-item",
            string.format("unexpected item %d in %s at offset %d", extra.type, m.name, extra.offset))
    end
    if n == 0 then return end
    local entries = m.items[2]
    if not entries then
        return fault(state, m.tree, tvb(m.offset, m.size), "missing-item",
            string.format("missing entry item in %s at offset %d", m.name, m.offset))
    end
    if entries.len == 0 or entries.len % n ~= 0 then
        return fault(state, entries.tree, tvb(entries.offset, 4), "bad-item-length",
            string.format("entry item length %d not a multiple of count %d at offset %d", entries.len, n,
                entries.offset))
    end
    local size = entries.len / n
    local layout = size >= 16 and ("e[" .. AC_ENTRY .. (size > 16 and (" rest:hex" .. (size - 16)) or "") .. "]*")
        or ("e[raw:hex" .. size .. "]*")
    return decode_layout(state, layout, entries, entries.tree, tvb)
end

-- The message as one line: name, key, tag, byte 7, then each other item.
local SHOWS_BYTE7 = { pw = true, minm = true, tunnel = true, ["tunnel-if"] = true, ["ebg-member"] = true,
                      ["mpls-ebg-member"] = true, ["ebg-df"] = true }
local function pairs_text(list)
    local out = {}
    for _, f in ipairs(list) do out[#out + 1] = f[1] .. " " .. f[2] end
    return table.concat(out, " ")
end
local function render(m)
    local line = m.name
    local key_item = m.key_item
    if key_item and #key_item.fields > 0 then line = line .. " " .. pairs_text(key_item.fields) end
    if m.kind == "event" or m.tag ~= 0 then line = line .. " tag " .. m.tag end
    if SHOWS_BYTE7[m.kind] then line = line .. " byte7 " .. m.byte7 end
    for _, item in ipairs(m.items) do
        if item ~= key_item or #item.fields == 0 then
            if m.kind ~= "control" then line = line .. " | " .. item.type end
            if #item.fields > 0 then line = line .. " " .. pairs_text(item.fields)
            elseif item.len > 0 then line = line .. " " .. item.hex end
        end
    end
    if m.fault then line = line .. " ! " .. m.fault.text end
    return line
end

-- Splits the datagram into messages and dissects each; returns their lines.
local function dissect_messages(tvb, tree, channel)
    local state = {}
    local lines = {}
    local size = tvb:len()
    if size == 0 then
        tree:add_proto_expert_info(ex["short-header"], "empty datagram at offset 0")
        return { "error: empty datagram at offset 0" }
    end
    local pos = 0
    while pos < size do
        local left = size - pos
        local ot = left >= 2 and tvb(pos, 2):uint() or 0
        local head = ((channel == "to-service" and (ot == 16 or ot == 17)) or
                      (channel == "from-service" and ot == 17)) and 12 or 8
        if left < head then
            local text = string.format("short header: %d bytes at offset %d", left, pos)
            tree:add_tvb_expert_info(ex["short-header"], tvb(pos, left), text)
            lines[#lines + 1] = "error: " .. text
            break
        end
        local plen = tvb(pos + 2, 2):uint()
        if left - head < plen then
            local text = string.format("length %d past datagram end %d at offset %d", plen, size, pos + 2)
            tree:add(hf.objtype, tvb(pos, 2))
            tree:add(hf.payloadlen, tvb(pos + 2, 2)):add_tvb_expert_info(ex["length-past-end"], tvb(pos + 2, 2), text)
            lines[#lines + 1] = "error: " .. text
            break
        end
        local m = { offset = pos, size = head + plen, head = head, objtype = ot, payloadlen = plen,
                    tag = tvb(pos + 4, 2):uint(), opcode = tvb(pos + 6, 1):uint(), byte7 = tvb(pos + 7, 1):uint(),
                    items = {} }
        local mstate = {}
        m.tree = tree:add(hf.message, tvb(pos, m.size))
        m.tree:add(hf.objtype, tvb(pos, 2))
        m.tree:add(hf.payloadlen, tvb(pos + 2, 2))
        m.tree:add(hf.tag, tvb(pos + 4, 2))
        m.tree:add(hf.opcode, tvb(pos + 6, 1))
        m.tree:add(hf.byte7, tvb(pos + 7, 1))
        if head == 12 then
            m.extword = tvb(pos + 8, 4):uint()
            m.tree:add(hf.extword, tvb(pos + 8, 4))
        end
        local from, to = pos + head, pos + m.size
        local err
        if channel == "from-service" and head == 12 then
            -- The answer wraps an 8-byte header and its items.
            if plen < 12 then
                err = fault(mstate, m.tree, tvb(pos + 2, 2), "bad-value",
                    string.format("answer length %d below 12 at offset %d", plen, pos + 2))
            else
                local inner_len = tvb(pos + 14, 2):uint()
                local it = m.tree:add(hf.inner, tvb(pos + 12, 8))
                it:add(hf.objtype, tvb(pos + 12, 2))
                it:add(hf.payloadlen, tvb(pos + 14, 2))
                it:add(hf.tag, tvb(pos + 16, 2))
                it:add(hf.opcode, tvb(pos + 18, 1))
                it:add(hf.byte7, tvb(pos + 19, 1))
                from = pos + 20
                if inner_len > plen - 8 then
                    err = fault(mstate, it, tvb(pos + 14, 2), "length-past-end",
                        string.format("length %d past answer end %d at offset %d", inner_len, plen - 8, pos + 14))
                else
                    to = from + inner_len
                end
            end
        end
        -- The items; a truncated one ends the walk.
        local at = from
        while not err and at < to do
            if to - at < 4 then
                err = fault(mstate, m.tree, tvb(at, to - at), "truncated-item",
                    string.format("truncated item at offset %d", at))
                break
            end
            local ty, len = tvb(at, 2):uint(), tvb(at + 2, 2):uint()
            if to - at - 4 < len then
                err = fault(mstate, m.tree, tvb(at, to - at), "truncated-item",
                    string.format("truncated item at offset %d: item %d length %d past payload end %d", at, ty, len, to))
                break
            end
            local item = { type = ty, len = len, offset = at, fields = {}, hex = hex(tvb, at + 4, len) }
            item.tree = m.tree:add(hf.tlv, tvb(at, 4 + len))
            item.tree:append_text(string.format(" %d, length %d", ty, len))
            item.tree:add(hf.tlv_type, tvb(at, 2))
            item.tree:add(hf.tlv_len, tvb(at + 2, 2))
            if len > 0 then item.tree:add(hf.tlv_bytes, tvb(at + 4, len)) end
            m.items[#m.items + 1] = item
            at = at + 4 + len
        end
        if not err then
            local layouts, key
            layouts, err, key = classify(mstate, channel, m, m.tree, tvb)
            if not err and m.kind == "ac-data-answer" then
                err = ac_answer(mstate, m, tvb)
            elseif not err then
                for _, item in ipairs(m.items) do
                    err = decode_item(mstate, m, layouts, item, tvb)
                    if err then break end
                end
                if not err and m.kind == "event" then
                    local known = false
                    for _, item in ipairs(m.items) do known = known or EVENT[item.type] ~= nil end
                    if not known then
                        err = fault(mstate, m.tree, tvb(m.offset, m.size), "missing-item",
                            string.format("missing item 2, 3 or 6 in event at offset %d", m.offset))
                    end
                end
            end
            for _, item in ipairs(m.items) do
                if key and key ~= 0 and item.type == key then m.key_item = item break end
            end
        end
        m.name = m.name or string.format("type %d op %d", m.objtype, m.opcode)
        m.fault = mstate.fault
        m.tree:add(hf.name, tvb(pos, m.size), m.name):set_generated()
        if m.key_item and #m.key_item.fields > 0 then
            m.tree:add(hf.key, tvb(m.key_item.offset, 4 + m.key_item.len), pairs_text(m.key_item.fields)):set_generated()
        end
        m.tree:set_text(m.name)
        m.tree:append_text(string.format(" (object type %d, opcode %d, %d bytes)", ot, m.opcode, m.size))
        lines[#lines + 1] = render(m)
        pos = pos + m.size
    end
    return lines
end

-- A message subtree named by its name field.
local function named_message(tree, range, name)
    local mt = tree:add(hf.message, range)
    mt:add(hf.name, range, name):set_generated()
    mt:set_text(name)
    return mt
end

-- A control call's input (request ops 1 and 2), by its control code.
local function dissect_control_input(tvb, tree, code)
    local n = tvb:len()
    if code == 0x440003 then
        return dissect_messages(tvb, tree, "to-service")
    end
    local name, fields, err = nil, {}, nil
    local function length(want, at_least)
        if (at_least and n >= want) or (not at_least and n == want) then return true end
        err = { "bad-item-length", string.format("%s length %d (expected %s%d) at offset 0", name, n,
            at_least and "at least " or "", want) }
        return false
    end
    local mt
    if code == 0x440002 then
        name = "caps-query"
        mt = named_message(tree, n > 0 and tvb() or tvb(0, 0), name)
        length(0, false)
    elseif code == 0x440005 then
        name = "start"
        mt = named_message(tree, tvb(), name)
        if length(4, false) then
            mt:add(make_field("value", "u32"), tvb(0, 4))
            fields[1] = { "value", tostring(tvb(0, 4):uint()) }
        end
    elseif code == 0x440006 then
        name = "stop"
        mt = named_message(tree, tvb(), name)
        if length(4, false) and tvb(0, 4):uint() ~= 0 then err = { "bad-value", "stop input not zero at offset 0" } end
    elseif code == 0x44000c then
        name = "vlan-range"
        mt = named_message(tree, n > 0 and tvb() or tvb(0, 0), name)
        if n > 0 then mt:add(make_field("data", "hex"), tvb()) end
        fields[1] = { "data", n > 0 and hex(tvb, 0, n) or "-" }
    else
        name = string.format("control %#x", code)
        mt = named_message(tree, n > 0 and tvb() or tvb(0, 0), name)
        err = { "unknown-opcode", string.format("unknown control code %#x at offset 0", code) }
    end
    local line = name
    if #fields > 0 then line = line .. " " .. pairs_text(fields)
    elseif n > 0 and not (code == 0x440006 and not err) then line = line .. " " .. hex(tvb, 0, n) end
    if err then
        mt:add_proto_expert_info(ex[err[1]], err[2])
        line = line .. " ! " .. err[2]
    end
    return { line }
end

-- A control-call datagram: a request (24-byte head) or an answer (16-byte
-- head, bit 0x80 of the op byte).
local function dissect_control(tvb, tree)
    local n = tvb:len()
    local answer = n >= 2 and tvb(1, 1):uint() >= 0x80
    local head = answer and 16 or 24
    local ct = tree:add(hf.ctl, tvb())
    if n < head or tvb(head - 4, 4):uint() ~= n - head then
        local text = string.format("malformed control datagram of %d bytes", n)
        ct:add_proto_expert_info(ex["control"], text)
        return { "error: " .. text }
    end
    ct:add(hf.ctl_ver, tvb(0, 1))
    ct:add(hf.ctl_op, tvb(1, 1))
    ct:add(hf.ctl_answer, tvb(1, 1))
    ct:add(hf.ctl_seq, tvb(4, 4))
    local op, seq = tvb(1, 1):uint() % 128, tvb(4, 4):uint()
    if answer then
        ct:add(hf.ctl_result, tvb(8, 4))
        ct:add(hf.ctl_len, tvb(12, 4))
        local data = n > 16 and hex(tvb, 16, n - 16, " ") or ""
        if n > 16 then ct:add(hf.ctl_data, tvb(16)) end
        return { string.format("control answer op %d sequence %d result %d data %s", op, seq, tvb(8, 4):uint(), data) }
    end
    ct:add(hf.ctl_arg0, tvb(8, 4))
    ct:add(hf.ctl_arg1, tvb(12, 4))
    ct:add(hf.ctl_arg2, tvb(16, 4))
    ct:add(hf.ctl_len, tvb(20, 4))
    local lines = { string.format("control op %d sequence %d arg0 %d arg1 %#x arg2 %d", op, seq, tvb(8, 4):uint(),
        tvb(12, 4):uint(), tvb(16, 4):uint()) }
    if op == 1 or op == 2 then
        local input = n > 24 and tvb(24):tvb() or ByteArray.new(""):tvb("empty input")
        for _, l in ipairs(dissect_control_input(input, ct, tvb(12, 4):uint())) do lines[#lines + 1] = l end
    end
    return lines
end

local CHANNEL = { [0] = { "to-service", "from-service" }, [1] = { "to-event", "from-event" } }

function P.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "L2VFIB"
    local root = tree:add(P, tvb())
    local n = tvb:len()
    if n < 8 or tvb(0, 1):uint() > 1 or tvb(1, 1):uint() > 2 then
        root:add_proto_expert_info(ex["pseudo-header"], "capture record without its pseudo-header")
        pinfo.cols.info = "error: capture record without its pseudo-header"
        return n
    end
    local dir, service = tvb(0, 1):uint(), tvb(1, 1):uint()
    root:add(hf.direction, tvb(0, 1))
    root:add(hf.service, tvb(1, 1))
    root:add(hf.node, tvb(2, 2))
    root:add(hf.port, tvb(4, 2))
    root:append_text(string.format(", %s, %s", SERVICE[service], DIRECTION[dir]))
    local datagram = n > 8 and tvb(8):tvb() or ByteArray.new(""):tvb("empty datagram")
    local lines
    if service == 2 then
        lines = dissect_control(datagram, root)
    else
        lines = dissect_messages(datagram, root, CHANNEL[service][dir + 1])
    end
    local mark = dir == 1 and "< " or "> "
    pinfo.cols.info = mark .. table.concat(lines, "; ")
    return n
end

DissectorTable.get("wtap_encap"):add(wtap_encaps.USER0, P)
