-- Decodes the LAN protocol of wmbusctl and its modems (docs/protocol.md) on top of CoAP.
--
--   tshark -X lua_script:tools/wmbusctl.lua -r capture.pcapng -Y wmbusctl
--
-- or, for good, in ~/.local/lib/wireshark/plugins/.
--
-- What the gateway makes of a payload shows as expert information: wmbusctl.malformed for one that
-- is refused, wmbusctl.cut for one that is read as far as it goes, wmbusctl.excess for bytes that
-- are passed over, wmbusctl.dropped for an answer whose data is not taken.

local wmbusctl = Proto("wmbusctl", "wmbusctl LAN protocol")

local CON, ACK, RST = 0, 2, 3
local GET, POST, PUT = 1, 2, 3
local METHODS = { "GET", "POST", "PUT" }
local CONTENT = 0x45
local FIRST_RESPONSE, FIRST_ERROR = 0x40, 0x80

local REST = -1 -- width of a field that takes all that is left

local STATES = { "READY", "RUNNING" }
local MODES = { [0] = "off", [16] = "N2_2400" }
local RESULTS = { "OK" }

-- Name in filters (behind "wmbusctl."), type, label, base and value texts.
local FIELDS = {
  { "resource", "string", "Resource" },
  { "request_in", "framenum", "Answers the request in" },
  -- received RF frame
  { "freq", "uint32", "Frequency" },
  { "rtc_seconds", "uint32", "RTC seconds" },
  { "rtc_milliseconds", "uint16", "RTC milliseconds" },
  { "freq_offset", "int16", "Frequency offset" },
  { "data_length", "uint16", "Data length" },
  { "rssi", "int16", "RSSI" },
  { "rf_mod", "uint8", "RF mode" },
  { "rf_receiver", "uint8", "RF receiver" },
  { "frame", "bytes", "Frame" },
  { "endpoint", "string", "Endpoint" },
  -- modem info
  { "protocol", "uint32", "Protocol version" },
  { "serial", "uint32", "Serial number", base.HEX },
  { "tmsp", "uint32", "Time stamp" },
  { "hw_ver", "string", "Hardware version" },
  { "sw_ver", "string", "Software version" },
  { "type", "uint8", "Type" },
  { "location", "uint8", "Location" },
  { "state", "uint8", "State", base.DEC, STATES },
  { "wakeup", "uint8", "Wake-up" },
  { "receivers", "uint8", "Number of receivers" },
  { "receiver", "uint8", "Identifying byte", base.HEX },
  -- firmware
  { "install_result", "uint8", "Result", base.DEC, RESULTS },
  { "fw_size", "uint32", "File size" },
  { "fw_name_length", "uint16", "Name length" },
  { "fw_name", "string", "Name" },
  { "terminator", "uint8", "Terminator" },
  -- statistics
  { "statistics_value", "uint8", "Value" },
  { "reserved", "uint8", "Not interpreted" },
  { "stats_first", "uint16", "First value" },
  { "stats_second", "uint16", "Second value" },
  { "stats_bytes", "bytes", "Three bytes" },
  { "stats_last", "uint8", "Last value" },
  -- parameters, commands, log
  { "param_id", "uint16", "Parameter", base.HEX },
  { "param_length", "uint8", "Value length" },
  { "param_value", "bytes", "Value" },
  { "command", "uint8", "Command" },
  { "log_text", "string", "Log" },
  { "error_text", "string", "Error text" },
  { "data", "bytes", "Data" },
  -- transmission and receiver modes
  { "tx_seconds", "uint32", "Time, seconds" },
  { "tx_milliseconds", "uint16", "Time, milliseconds" },
  { "frame_length", "uint16", "Frame length" },
  { "mode", "uint8", "Radio mode", base.DEC, MODES },
  { "channel", "uint8", "Channel" },
  { "tx_type", "uint8", "Type" },
  { "power", "uint8", "Power" },
  -- extended transmission
  { "ext_1", "uint32", "Argument 1" },
  { "ext_2", "uint16", "Argument 2" },
  { "ext_3", "uint32", "Argument 3" },
  { "ext_4", "uint32", "Argument 4" },
  { "ext_5", "uint8", "Argument 5" },
  { "ext_6", "uint8", "Argument 6" },
  { "ext_7", "uint32", "Argument 7" },
  { "ext_8", "uint8", "Argument 8" },
  { "ext_9", "uint8", "Argument 9" },
  { "ext_10", "uint16", "Argument 10" },
  { "ext_11", "uint8", "Argument 11" },
  { "ext_12", "uint16", "Argument 12" },
  { "ext_13", "uint8", "Argument 13" },
  { "ext_14", "uint8", "Argument 14" },
  { "length_a", "uint8", "Length of string A" },
  { "length_b", "uint16", "Length of string B" },
  { "string_a", "bytes", "String A" },
  { "string_b", "bytes", "String B" },
}

local fields, is_number = {}, {}
for _, row in ipairs(FIELDS) do
  local name, kind, label = row[1], row[2], row[3]
  fields[name] = ProtoField[kind]("wmbusctl." .. name, label, row[4], row[5])
  is_number[name] = kind:find("int") ~= nil
end
wmbusctl.fields = fields

local experts = {
  malformed = ProtoExpert.new("wmbusctl.malformed", "Malformed payload",
    expert.group.MALFORMED, expert.severity.ERROR),
  cut = ProtoExpert.new("wmbusctl.cut", "Payload ends early",
    expert.group.PROTOCOL, expert.severity.WARN),
  excess = ProtoExpert.new("wmbusctl.excess", "Bytes that nobody reads",
    expert.group.PROTOCOL, expert.severity.NOTE),
  method = ProtoExpert.new("wmbusctl.method", "Unexpected method",
    expert.group.PROTOCOL, expert.severity.WARN),
  dropped = ProtoExpert.new("wmbusctl.dropped", "Answer whose data the gateway does not take",
    expert.group.SEQUENCE, expert.severity.NOTE),
}
wmbusctl.experts = experts

local function version_text(range)
  return string.format("%d.%d", range(1, 1):uint(), range(0, 1):uint())
end

local function negated(range)
  return -range:uint()
end

-- Manufacturer / identification, version and device type, as far as the frame goes.
local function add_endpoint(tree, frame)
  local separators = { "", " ", " / ", " ", " ", " ", " ", " " }
  local text, last = "", math.min(frame:len(), 10)
  for at = 2, last - 1 do
    text = text .. separators[at - 1] .. string.format("%02x", frame(at, 1):uint())
  end
  if text ~= "" then
    tree:add(fields.endpoint, frame(2, last - 2), text)
  end
end

-- A layout is a list of fields: name and width in bytes, or the name of the number that gives the
-- width. `only` is the one value that is accepted, `most` the largest that counts, `show` makes the
-- value from the bytes, `also` adds to the tree. A row with `times` stands for a group of fields
-- that comes so often. `least` is the size below which the gateway refuses the payload. In an exact
-- layout every other size is refused than the one that its fields give; `padded` allows more bytes
-- up to that size.
local INFO = {
  least = 19,
  { "protocol", 4, only = 1 }, { "serial", 4 }, { "tmsp", 4 },
  { "hw_ver", 2, show = version_text }, { "sw_ver", 2, show = version_text },
  { "type", 1 }, { "location", 1 }, { "state", 1 }, { "wakeup", 1 },
  { "receivers", 1, most = 7 },
  { times = "receivers", { "receiver", 1 } },
}
local STATISTICS = {
  least = 54, padded = 54,
  { "reserved", 1 }, { "receivers", 1, most = 7 },
  { times = "receivers", { "stats_first", 2 } },
  { times = "receivers", { "stats_second", 2 } },
  { times = "receivers", { "stats_bytes", 3 } },
  { times = "receivers", { "stats_last", 1 } },
}
local RX_FRAME = {
  least = 18,
  { "freq", 4 }, { "rtc_seconds", 4 }, { "rtc_milliseconds", 2 }, { "freq_offset", 2 },
  { "data_length", 2 }, { "rssi", 1, show = negated }, { "rf_mod", 1 }, { "rf_receiver", 1 },
  { "frame", "data_length", also = add_endpoint },
}
local TX_FRAME = {
  exact = true,
  { "tx_seconds", 4 }, { "tx_milliseconds", 2 }, { "frame_length", 2 }, { "mode", 1 },
  { "channel", 1 }, { "tx_type", 1 }, { "power", 1 }, { "frame", "frame_length" },
}
local TX_EXT_FRAME = {
  exact = true,
  { "ext_3", 4 }, { "ext_7", 4 }, { "ext_1", 4 }, { "ext_4", 4 },
  { "ext_2", 2 }, { "ext_12", 2 }, { "length_b", 2 }, { "ext_10", 2 },
  { "ext_8", 1 }, { "ext_9", 1 }, { "ext_6", 1 }, { "ext_14", 1 },
  { "ext_5", 1 }, { "ext_11", 1 }, { "ext_13", 1 }, { "length_a", 1 },
  { "string_a", "length_a" }, { "string_b", "length_b" },
}
local PARAMETER = { { "param_id", 2 }, { "param_length", 1 }, { "param_value", "param_length" } }
local PARAMETER_SET = { exact = true, table.unpack(PARAMETER) }
local PARAMETER_VALUE = { least = 3, table.unpack(PARAMETER) }
local PARAMETER_ID = { exact = true, { "param_id", 2 } }
local RX_MODES = { exact = true, { times = 7, { "mode", 1 }, { "channel", 1 } } }
local FIRMWARE = {
  exact = true,
  { "fw_size", 4 }, { "fw_name_length", 2 }, { "fw_name", "fw_name_length" },
  { "terminator", 1, only = 0 },
}
local INSTALLED = { least = 1, { "install_result", 1 } }
local COMMAND = { exact = true, { "command", 1 } }
local STATISTICS_VALUE = { exact = true, { "statistics_value", 1 } }
local NOTHING = { exact = true }
local ANYTHING = { { "data", REST } }
local LOG_TEXT = { { "log_text", REST } }
local ERROR_TEXT = { { "error_text", REST } }

-- Of an answer with a layout, `taken` tells that the gateway wants the data.
local RESOURCES = {
  -- served by the gateway
  rx_msg_req = { method = PUT, request = RX_FRAME },
  info_ind = { method = POST, request = INFO },
  firmware_install_ind = { method = POST, request = INSTALLED },
  -- served by a modem
  command_req = { method = POST, request = COMMAND },
  tx_msg_ext_req = { method = PUT, request = TX_EXT_FRAME },
  config_set_param_req = { method = POST, request = PARAMETER_SET },
  rx_ext_config_req = { method = POST, request = ANYTHING },
  statistics_req = { method = GET, request = STATISTICS_VALUE, answer = STATISTICS, taken = true },
  info_req = { method = GET, request = NOTHING, answer = INFO, taken = true },
  rx_mode_config_req = { method = POST, request = RX_MODES },
  log_req = { method = GET, request = NOTHING, answer = LOG_TEXT },
  config_get_param_req =
    { method = GET, request = PARAMETER_ID, answer = PARAMETER_VALUE, taken = true },
  firmware_upgrade_req = { method = POST, request = FIRMWARE },
  tx_msg_req = { method = PUT, request = TX_FRAME },
}

-- A cursor walks over a payload, whose `range` is nil when it is empty. `short` is set once a field
-- is not there in whole, `refused` to the reason why nothing more can be read; `values` are the
-- numbers read so far, which give the widths of later fields.

-- The next bytes, as far as they are there (nil when none is), and whether they are all there.
local function take(cursor, width)
  local left = cursor.size - cursor.at
  if width == REST then
    width = left
  end
  local count = math.min(width, left)
  cursor.short = cursor.short or count < width
  cursor.at = cursor.at + count
  return count > 0 and cursor.range(cursor.at - count, count) or nil, count == width
end

local function note_value(tree, cursor, row, value)
  local name = row[1]
  cursor.values[name] = value
  if row.only and value ~= row.only then
    cursor.refused = string.format("%s is %u, not %u", name, value, row.only)
  elseif row.most and value > row.most then
    cursor.values[name] = row.most
    tree:add_proto_expert_info(experts.cut,
      string.format("%s is %u, taken as %u", name, value, row.most))
  end
end

local function read_field(tree, cursor, row, label)
  local name, width = row[1], row[2]
  local range, whole = take(cursor, cursor.values[width] or tonumber(width) or 0)
  local needs_whole = is_number[name] or row.show
  if not range or needs_whole and not whole then
    return
  end
  local item
  if row.show then
    item = tree:add(fields[name], range, row.show(range))
  elseif is_number[name] then
    item = tree:add_le(fields[name], range)
    note_value(tree, cursor, row, range:le_uint())
  else
    item = tree:add(fields[name], range)
  end
  item:prepend_text(label)
  if row.also then
    row.also(tree, range)
  end
end

local function read_rows(tree, cursor, rows, label)
  for _, row in ipairs(rows) do
    if cursor.refused then
      return
    elseif row.times then
      for k = 1, cursor.values[row.times] or tonumber(row.times) or 0 do
        read_rows(tree, cursor, row, string.format("Receiver %d: ", k - 1))
      end
    else
      read_field(tree, cursor, row, label)
    end
  end
end

local function judge(tree, cursor, layout)
  local size, left = cursor.size, cursor.size - cursor.at
  local wrong_size = layout.exact and (cursor.short or left > 0) or size < (layout.least or 0)
  if cursor.refused then
    tree:add_proto_expert_info(experts.malformed, cursor.refused)
  elseif wrong_size then
    tree:add_proto_expert_info(experts.malformed, string.format("%d bytes do not fit", size))
  elseif cursor.short then
    tree:add_proto_expert_info(experts.cut, string.format("%d bytes, more announced", size))
  elseif left > 0 and size > (layout.padded or 0) then
    tree:add_proto_expert_info(experts.excess, string.format("%d bytes more than announced", left))
  end
end

local function decode(tree, layout, payload, whole_capture)
  local cursor = { range = payload, at = 0, size = payload and payload:len() or 0, values = {} }
  read_rows(tree, cursor, layout, "")
  if whole_capture then
    judge(tree, cursor, layout)
  end
end

-- The requests seen, in lists by what an answer has in common with them, in the order of the
-- capture. A packet may be looked at again and again and in any order; it is kept once, and an
-- answer belongs to the last request before it.
local requests = {}

function wmbusctl.init()
  requests = {}
end

-- Number of requests in the list that came before the packet.
local function count_before(list, number)
  local low, high = 0, #list
  while low < high do
    local middle = math.ceil((low + high) / 2)
    if list[middle].frame < number then
      low = middle
    else
      high = middle - 1
    end
  end
  return low
end

local function keep(key, request)
  local list = requests[key] or {}
  requests[key] = list
  local at = count_before(list, request.frame) + 1
  if not list[at] or list[at].frame ~= request.frame then
    table.insert(list, at, request)
  end
end

local function last_before(key, number)
  local list = requests[key] or {}
  return list[count_before(list, number)]
end

local GROUP = "group" -- stands for whichever host answers a request to a multicast address

local function is_group(address)
  local first = tonumber(tostring(address):match("^(%d+)%.")) or 0
  return first >= 224 and first < 240
end

local function endpoint(address, port)
  return tostring(address) .. " " .. port
end

local function remember_request(pinfo, message)
  local answerer = is_group(pinfo.dst) and GROUP or endpoint(pinfo.dst, pinfo.dst_port)
  local exchange = endpoint(pinfo.src, pinfo.src_port) .. " " .. answerer
  local request =
    { frame = pinfo.number, name = message.path, id = message.id, token = message.token }
  keep(exchange .. " id " .. message.id, request)
  keep(exchange .. " token " .. message.token, request)
end

-- An acknowledgement or a reset has the message id of its request, a separate answer the token. One
-- that need not be acknowledged may have both.
local function find_request(pinfo, message)
  for _, answerer in ipairs({ endpoint(pinfo.src, pinfo.src_port), GROUP }) do
    local exchange = endpoint(pinfo.dst, pinfo.dst_port) .. " " .. answerer
    local same_id = last_before(exchange .. " id " .. message.id, pinfo.number)
    local same_token = last_before(exchange .. " token " .. message.token, pinfo.number)
    if message.type == ACK or message.type == RST then
      same_token = nil
    elseif message.type == CON or same_id and same_id.token ~= message.token then
      same_id = nil
    end
    if same_id or same_token then
      return same_id or same_token
    end
  end
  return nil
end

local coap_type, coap_code = Field.new("coap.type"), Field.new("coap.code")
local coap_id, coap_token = Field.new("coap.mid"), Field.new("coap.token")
local coap_path, coap_payload = Field.new("coap.opt.uri_path"), Field.new("coap.payload")
local icmp_type = Field.new("icmp.type")

-- The CoAP message of the packet; nil when there is none, or only one that an ICMP error quotes.
local function read_message()
  local kind, code, id = coap_type(), coap_code(), coap_id()
  if not (kind and code and id) or icmp_type() then
    return nil
  end
  local path = {}
  for _, segment in ipairs({ coap_path() }) do
    path[#path + 1] = segment.display
  end
  local token, payload = coap_token(), coap_payload()
  return {
    type = kind.value, code = code.value, id = id.value,
    token = token and token.display or "", path = table.concat(path, "/"),
    payload = payload and payload.len > 0 and payload.range or nil,
  }
end

local function add_tree(root, message, name, kind)
  local tree = message.payload and root:add(wmbusctl, message.payload) or root:add(wmbusctl)
  tree:append_text(", " .. kind .. " " .. name)
  tree:add(fields.resource, name):set_generated()
  return tree
end

local function dissect_request(pinfo, root, message, whole_capture)
  local resource = RESOURCES[message.path]
  if not resource then
    return
  end
  remember_request(pinfo, message)
  local tree = add_tree(root, message, message.path, METHODS[message.code] or "request of")
  if message.code ~= resource.method then
    tree:add_proto_expert_info(experts.method, "expected " .. METHODS[resource.method])
  else
    decode(tree, resource.request, message.payload, whole_capture)
  end
end

local function dissect_answer(pinfo, root, message, whole_capture)
  local request = find_request(pinfo, message)
  if not request then
    return
  end
  local name = request.name
  local resource = RESOURCES[name]
  local tree = add_tree(root, message, name, "answer to")
  tree:add(fields.request_in, request.frame):set_generated()
  pinfo.cols.info:append(", answer to " .. name)
  if message.code >= FIRST_ERROR then
    decode(tree, ERROR_TEXT, message.payload, whole_capture)
  elseif message.code == CONTENT and resource.answer then
    decode(tree, resource.answer, message.payload, whole_capture)
    if resource.taken and (message.type == CON or message.id ~= request.id) then
      tree:add_proto_expert_info(experts.dropped)
    end
  end
end

function wmbusctl.dissector(_, pinfo, root)
  local message = read_message()
  if not message then
    return
  end
  local whole_capture = pinfo.caplen == pinfo.len
  if message.code >= FIRST_RESPONSE or message.type == ACK or message.type == RST then
    dissect_answer(pinfo, root, message, whole_capture)
  else
    dissect_request(pinfo, root, message, whole_capture)
  end
end

register_postdissector(wmbusctl)
