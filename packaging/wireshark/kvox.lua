-- Takes apart what `kvosim record` writes: docs/record-and-replay.md. Each interface is a device
-- node; the data of a frame begin with a head of eight bytes, and go on with what passed. A test
-- compares tables and constants with those of the daemon and the simulator.

local EVENTS = { [0] = "data", "arrived", "left", "opened", "closed", "error", "lost", "rights" }
local DATA, FAILED, LOST, RIGHTS = 0, 5, 6, 7
local OPCODES = {
  [0xCA] = "CMD_KVOX_TAP_ENABLE_ID",
  [0xCB] = "CMD_KVOX_TAP_BIND_ID",
  [0xCC] = "CMD_KVOX_TAP_LIST_ID",
  [0xCD] = "CMD_TAP_INFO_ID",
  [0xCE] = "CMD_KVOX_TAP_SET_BLOCK_LEN_ID",
  [0xCF] = "CMD_KVOX_TAP_SET_JITTER_BUFFER_ID",
}
local SIZES = { [0xCA] = 16, [0xCB] = 18, [0xCC] = 44, [0xCD] = 28, [0xCE] = 20, [0xCF] = 20 }
local STATUSES = {
  [0] = "success", [-2] = "no such tap", [-6] = "no such core", [-19] = "no such device",
  [-22] = "invalid value", [-38] = "no such command", [-90] = "wrong size",
}
local FORMATS = { [0] = "int", "float", "sulaw" }

local HEAD_VERSION, HEAD_SIZE = 1, 8
local RECORD_SIZE, LIST_ENTRIES, NO_BUFFER = 8, 4, 0xFF
local MAGIC, PACKET_VERSION, HEADER_SIZE, MAX_PAYLOAD = "xovK", 1, 64, 65472
local EARLY, LATE = 0.75, 1.25 -- of a packet's period
local REPLY_BUDGET_MS = 500    -- then the daemon gives up
local CONTROL_LINK, RECEIVED = wtap_encaps.USER0, 1

local kvox = Proto("kvox", "Kvox co-processor")
local f, e = kvox.fields, kvox.experts

f.node = ProtoField.string("kvox.node", "Node")
f.event = ProtoField.uint8("kvox.event", "Event", base.DEC, EVENTS)
f.missing = ProtoField.uint32("kvox.missing", "Missing records")
f.errno = ProtoField.uint32("kvox.errno", "Error number")
f.mode = ProtoField.uint32("kvox.mode", "Permission bits", base.OCT)
f.rest = ProtoField.bytes("kvox.rest", "Rest")
f.rate = ProtoField.uint32("kvox.rate", "Sample rate")
f.channels = ProtoField.uint8("kvox.channels", "Channels")
f.bytes = ProtoField.uint8("kvox.bytes", "Bytes per sample")

f.seq = ProtoField.uint8("kvox.control.seq", "Sequence number")
f.size = ProtoField.uint16("kvox.control.size", "Size")
f.opcode = ProtoField.uint16("kvox.control.opcode", "Opcode", base.HEX, OPCODES)
f.status = ProtoField.int16("kvox.control.status", "Status", base.DEC, STATUSES)
f.tap = ProtoField.string("kvox.control.tap", "Tap point")
f.enable = ProtoField.bool("kvox.control.enable", "Enable")
f.tapout = ProtoField.uint8("kvox.control.tapout", "Tap-out buffer (255: none)")
f.inject = ProtoField.uint8("kvox.control.inject", "Inject buffer (255: none)")
f.core = ProtoField.uint8("kvox.control.core", "Core")
f.page = ProtoField.uint8("kvox.control.page", "Page")
f.block = ProtoField.uint32("kvox.control.block", "Block length")
f.value = ProtoField.uint32("kvox.control.value", "Value")
f.request = ProtoField.framenum("kvox.control.request", "Request", base.NONE, frametype.REQUEST)
f.reply = ProtoField.framenum("kvox.control.reply", "Reply", base.NONE, frametype.RESPONSE)
f.delay = ProtoField.relative_time("kvox.control.delay", "Delay of the reply")

f.version = ProtoField.uint32("kvox.packet.version", "Version")
f.stamp = ProtoField.uint64("kvox.packet.stamp", "Stamp")
f.number = ProtoField.uint32("kvox.packet.number", "Packet number")
f.payload = ProtoField.uint32("kvox.packet.payload", "Payload size")
f.format = ProtoField.uint8("kvox.packet.format", "Data format", base.DEC, FORMATS)
f.runs = ProtoField.uint32("kvox.packet.noninterleaved", "Non-interleaved samples")
f.audio = ProtoField.bytes("kvox.packet.audio", "Audio")
f.more = ProtoField.bytes("kvox.packet.more", "Audio of the packet before")

local function add_expert(name, text, group, severity)
  e[name] = ProtoExpert.new("kvox." .. name, text, expert.group[group], expert.severity[severity])
end
add_expert("failed", "The co-processor's side failed", "RESPONSE_CODE", "ERROR")
add_expert("refused", "The co-processor refused the command", "RESPONSE_CODE", "WARN")
add_expert("unanswered", "There is no reply", "SEQUENCE", "WARN")
add_expert("unasked", "No command waits for this reply", "SEQUENCE", "WARN")
add_expert("other_seq", "The sequence number is not the command's", "SEQUENCE", "NOTE")
add_expert("slow", "The daemon had given up waiting for this reply", "SEQUENCE", "WARN")
add_expert("lost", "Records are missing", "SEQUENCE", "ERROR")
add_expert("jump", "The packet number jumps", "SEQUENCE", "WARN")
add_expert("cut", "A packet is cut", "SEQUENCE", "WARN")
add_expert("late", "The packet is late", "SEQUENCE", "NOTE")
add_expert("early", "The packet is early", "SEQUENCE", "NOTE")
add_expert("other_version", "The version is unknown", "PROTOCOL", "WARN")
add_expert("junk", "Neither a packet nor a record", "PROTOCOL", "WARN")

-- What later frames need to know of earlier ones, filled when each is seen first. A place is a
-- frame and an offset.
local commands -- {place, frame, time, seq}: the latest by opcode, and by opcode and seq
local matches  -- {frame, delay, same_seq} of the counterpart, by place of a command or reply
local streams  -- {left, number, time} by node; `left`: bytes of the last packet that are to come
local begins   -- `left` before this frame, by frame
local findings -- {expert, text}, ... by place of a packet

function kvox.init()
  commands, matches, streams, begins, findings = {}, {}, {}, {}, {}
end

-- Adds { field, offset, size }, ...
local function add_fields(tree, range, layout)
  for _, it in ipairs(layout) do tree:add_le(f[it[1]], range(it[2], it[3])) end
end

local function buffer_text(range)
  return range:uint() == NO_BUFFER and "none" or range:uint()
end

-- In the code of a name the first character is in the most significant byte.
local function add_tap(tree, range, core)
  local code = range(0, 4):raw():reverse():gsub("[^ -~]", "?")
  local name = core:uint() .. ":" .. code .. "." .. range(4, 1):uint()
  tree:add(f.tap, range, name)
  return name
end

-- Show the bytes behind a record's header, and return a text. `done`: of a reply to a command that
-- was carried out.
local show = {}

function show.CMD_KVOX_TAP_ENABLE_ID(tree, body)
  add_fields(tree, body, { { "enable", 6, 1 } })
  return add_tap(tree, body(0, 5), body(5, 1)) .. (body(6, 1):uint() == 1 and " on" or " off")
end

function show.CMD_KVOX_TAP_BIND_ID(tree, body)
  add_fields(tree, body, { { "tapout", 8, 1 }, { "inject", 9, 1 } })
  return string.format("%s tap-out %s inject %s", add_tap(tree, body(0, 5), body(5, 1)),
    buffer_text(body(8, 1)), buffer_text(body(9, 1)))
end

function show.CMD_KVOX_TAP_LIST_ID(tree, body, done)
  add_fields(tree, body, { { "core", 0, 1 }, { "page", 1, 1 } })
  local text = string.format("core %d page %d", body(0, 1):uint(), body(1, 1):uint())
  for at = 4, done and 8 * LIST_ENTRIES or 0, 8 do
    if body(at, 4):uint() == 0 then break end
    text = text .. " " .. add_tap(tree, body(at, 5), body(0, 1))
  end
  return text
end

function show.CMD_TAP_INFO_ID(tree, body, done)
  local name = add_tap(tree, body(0, 5), body(5, 1))
  if not done then return name end
  add_fields(tree, body, { { "enable", 6, 1 }, { "rate", 8, 4 }, { "block", 12, 4 },
    { "channels", 16, 1 }, { "bytes", 17, 1 }, { "tapout", 18, 1 }, { "inject", 19, 1 } })
  return string.format("%s %d Hz, %d ch", name, body(8, 4):le_uint(), body(16, 1):uint())
end

function show.CMD_KVOX_TAP_SET_BLOCK_LEN_ID(tree, body)
  add_fields(tree, body, { { "value", 8, 4 } })
  return add_tap(tree, body(0, 5), body(5, 1)) .. " " .. body(8, 4):le_uint()
end

show.CMD_KVOX_TAP_SET_JITTER_BUFFER_ID = show.CMD_KVOX_TAP_SET_BLOCK_LEN_ID

-- Notes a command, or finds that of a reply: the one with its opcode and sequence number, else the
-- latest with the opcode, as the daemon does.
local function match(pinfo, place, reply, opcode, seq)
  local key = opcode .. ":" .. seq
  if not reply then
    local command = { place = place, frame = pinfo.number, time = pinfo.rel_ts, seq = seq }
    commands[key], commands[opcode] = command, command
    return
  end
  local command = commands[key]
  if not command or matches[command.place] then command = commands[opcode] end
  if not command or matches[command.place] then return end
  local delay, same_seq = pinfo.rel_ts - command.time, seq == command.seq
  matches[place] = { frame = command.frame, delay = delay, same_seq = same_seq }
  matches[command.place] = { frame = pinfo.number, delay = delay, same_seq = same_seq }
end

local function add_match(tree, pinfo, place, reply)
  local found = matches[place]
  if found then
    local seconds, rest = math.modf(found.delay)
    tree:add(reply and f.request or f.reply, found.frame):set_generated()
    tree:add(f.delay, NSTime.new(seconds, math.floor(rest * 1e9 + 0.5))):set_generated()
    if reply and not found.same_seq then tree:add_proto_expert_info(e.other_seq) end
    if reply and found.delay * 1000 > REPLY_BUDGET_MS then tree:add_proto_expert_info(e.slow) end
  elseif reply then
    tree:add_proto_expert_info(e.unasked)
  elseif pinfo.visited then -- all replies have been seen
    tree:add_proto_expert_info(e.unanswered)
  end
end

local function add_record(range, tree, pinfo, reply)
  local opcode, status = range(4, 2):le_uint(), range(6, 2):le_int()
  local text = OPCODES[opcode] or string.format("command 0x%x", opcode)
  local part = tree:add(kvox, range, (reply and "Reply: " or "Command: ") .. text)
  add_fields(part, range, { { "seq", 1, 1 }, { "size", 2, 2 }, { "opcode", 4, 2 } })
  if reply then
    local item = part:add_le(f.status, range(6, 2))
    if status ~= 0 then item:add_proto_expert_info(e.refused) end
  end
  if SIZES[opcode] and range:len() >= SIZES[opcode] then
    text = text .. " " .. show[text](part, range(RECORD_SIZE), reply and status == 0)
  elseif range:len() > RECORD_SIZE then
    part:add(f.rest, range(RECORD_SIZE))
  end
  local place = pinfo.number .. ":" .. range:offset()
  if not pinfo.visited then match(pinfo, place, reply, opcode, range(1, 1):uint()) end
  add_match(part, pinfo, place, reply)
  if not reply then return "> " .. text end
  return "< " .. text .. ": " .. (STATUSES[status] or "status " .. status)
end

local function dissect_control(buffer, tree, pinfo)
  local texts, at = {}, HEAD_SIZE
  while at < buffer:len() do
    local left = buffer:len() - at
    local size = left >= RECORD_SIZE and buffer(at + 2, 2):le_uint() or 0
    if size < RECORD_SIZE or size > left then
      tree:add(f.rest, buffer(at)):add_proto_expert_info(e.junk)
      texts[#texts + 1] = left .. " bytes that are no record"
      break
    end
    texts[#texts + 1] = add_record(buffer(at, size), tree, pinfo, pinfo.p2p_dir == RECEIVED)
    at = at + size
  end
  return table.concat(texts, "; ")
end

-- What is odd about a packet: {expert, text}, ...
local function judge(stream, header, time)
  local odd = {}
  local number, payload = header(16, 4):le_uint(), header(20, 4):le_uint()
  local rate, frame = header(24, 4):le_uint(), header(28, 1):uint() * header(29, 1):uint()
  if stream.number and number ~= (stream.number + 1) % 2 ^ 32 then
    odd[1] = { e.jump, string.format("The number jumps from %d to %d", stream.number, number) }
  end
  if stream.time and rate > 0 and frame > 0 and payload >= frame then
    local period = math.floor(math.floor(payload / frame) * 1000 / rate) -- as the daemon has it
    local passed = (time - stream.time) * 1000
    local name = passed > LATE * period and "late" or passed < EARLY * period and "early"
    if name then
      local text = "The packet is %s: %.2f ms, expected %d ms"
      odd[#odd + 1] = { e[name], string.format(text, name, passed, period) }
    end
  end
  stream.number, stream.time = number, time
  return odd
end

local function add_packet(range, tree, pinfo, stream)
  local number = range(16, 4):le_uint()
  local part = tree:add(kvox, range, "Packet " .. number)
  local version = part:add_le(f.version, range(4, 4))
  if range(4, 4):le_uint() ~= PACKET_VERSION then version:add_proto_expert_info(e.other_version) end
  add_fields(part, range, { { "stamp", 8, 8 }, { "number", 16, 4 }, { "payload", 20, 4 },
    { "rate", 24, 4 }, { "channels", 28, 1 }, { "bytes", 29, 1 }, { "format", 30, 1 },
    { "runs", 32, 4 } })
  if range:len() > HEADER_SIZE then part:add(f.audio, range(HEADER_SIZE)) end
  local place = pinfo.number .. ":" .. range:offset()
  if not pinfo.visited then findings[place] = judge(stream, range, pinfo.rel_ts) end
  for _, finding in ipairs(findings[place] or {}) do
    part:add_proto_expert_info(finding[1], finding[2])
  end
  return string.format("packet %d, %d Hz, %d ch, %d bytes", number, range(24, 4):le_uint(),
    range(28, 1):uint(), range(20, 4):le_uint())
end

-- The offset of the first header at or behind `from`, or nil.
local function find_header(buffer, from)
  local bytes, at = buffer:raw(), from
  repeat
    at = bytes:find(MAGIC, at + 1, true) -- counts from 1
    if not at or at - 1 + HEADER_SIZE > #bytes then return nil end
  until buffer(at - 1 + 20, 4):le_uint() <= MAX_PAYLOAD
  return at - 1
end

-- What passed, of which the audio may have been left out: then the buffer is shorter.
local function dissect_data(buffer, tree, pinfo, stream)
  if not pinfo.visited then begins[pinfo.number] = stream.left end
  local left = begins[pinfo.number] or 0
  local texts, at, stop = {}, HEAD_SIZE, buffer:reported_len()
  local function range(to)
    to = math.min(to, buffer:len())
    return at < to and buffer(at, to - at) or nil
  end
  while at < stop do
    local header = find_header(buffer, at) or stop
    local more = math.min(left, header - at)
    if more > 0 then
      if range(at + more) then tree:add(f.more, range(at + more)) end
      texts[#texts + 1] = more .. " bytes of the packet before"
      at, left = at + more, left - more
    end
    if at < header then
      local item = range(header) and tree:add(f.rest, range(header)) or tree
      item:add_proto_expert_info(e.junk)
      texts[#texts + 1] = header - at .. " bytes that are no packet"
      at = header
    end
    if at < stop then
      if left > 0 then tree:add_proto_expert_info(e.cut, "A packet lacks " .. left .. " bytes") end
      local size = HEADER_SIZE + buffer(at + 20, 4):le_uint()
      local ends = math.min(at + size, find_header(buffer, at + HEADER_SIZE) or stop)
      texts[#texts + 1] = add_packet(range(ends), tree, pinfo, stream)
      at, left = ends, size - (ends - at)
    end
  end
  if not pinfo.visited then stream.left = left end
  return table.concat(texts, "; ")
end

-- By event: the field of its number, and what to say.
local NUMBERS = { [FAILED] = { "errno", "failed" }, [LOST] = { "missing", "lost" },
  [RIGHTS] = { "mode" } }
local interface_name = Field.new("frame.interface_name")
local former = {} -- by link type: others use these, too

function kvox.dissector(buffer, pinfo, tree)
  local link, name = pinfo.match, interface_name() -- none while Wireshark first reads a file
  local is_node = not name or name.value == "kvo" or name.value:find("^xdv%-kvox_")
  if not is_node or buffer:len() < HEAD_SIZE or buffer(0, 1):uint() ~= HEAD_VERSION or
    not EVENTS[buffer(1, 1):uint()] then
    return former[link] and former[link]:call(buffer, pinfo, tree) or 0
  end
  local event, node = buffer(1, 1):uint(), name and name.value or "co-processor"
  pinfo.cols.protocol = "KVOX"
  pinfo.cols.src = pinfo.p2p_dir == RECEIVED and node or "kvoxd"
  pinfo.cols.dst = pinfo.p2p_dir == RECEIVED and "kvoxd" or node
  local root = tree:add(kvox, buffer(), "Kvox, " .. node)
  root:add(f.node, node):set_generated()
  root:add(f.event, buffer(1, 1))
  local key = name and node or link .. ":" .. buffer(2, 2):le_uint() -- the number of the node
  streams[key] = streams[key] or { left = 0 }
  if event ~= DATA then
    local field, problem = table.unpack(NUMBERS[event] or {})
    local item = field and root:add_le(f[field], buffer(4, 4))
    if problem then item:add_proto_expert_info(e[problem]) end
    pinfo.cols.info = EVENTS[event]
    if not pinfo.visited and event == LOST then streams = {} end
    if not pinfo.visited and event < FAILED then streams[key] = nil end -- a stream begins or ends
  elseif link == CONTROL_LINK then
    pinfo.cols.info = dissect_control(buffer, root, pinfo)
  else
    pinfo.cols.info = dissect_data(buffer, root, pinfo, streams[key])
  end
  return buffer:len()
end

local links = DissectorTable.get("wtap_encap")
for _, link in ipairs({ "USER0", "USER1", "USER3", "USER4" }) do
  former[wtap_encaps[link]] = links:get_dissector(wtap_encaps[link])
  links:add(wtap_encaps[link], kvox)
end
