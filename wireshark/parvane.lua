-- Wireshark's view of the accessory link between a phone and a watch (docs/wire-format.md), in captures of the
-- link type USER0 (docs/capture.md). What is malformed has the texts of docs/vectors/malformed.json.

local COMMANDS = { [1] = "sensor list", [2] = "measure once", [3] = "start", [4] = "stop", [5] = "option" }
local KINDS = { [1] = "list", [2] = "measure", [3] = "start", [4] = "stop" }
local SENSORS = { [1] = "activity", [2] = "pedometer", [3] = "heart rate", [4] = "worn state" }
local UNITS = { [2] = "steps, total of the day", [3] = "beats per minute" }
local WORDS = {
    [1] = { [0] = "still", [1] = "walking", [2] = "running", [3] = "wrist gesture" },
    [4] = { [0] = "not worn", [1] = "worn" },
}
local PEDOMETER, HEART_RATE, WORN_STATE = 2, 3, 4

local parvane = Proto("parvane", "Parvane accessory link")

local fields = {
    kind = ProtoField.string("parvane.kind", "Kind"),
    command = ProtoField.uint8("parvane.command", "Command", base.DEC, COMMANDS, 0x0F),
    flags = ProtoField.uint8("parvane.flags", "Flags", base.DEC, nil, 0x30),
    code = ProtoField.bool("parvane.code", "Code bit", 8, nil, 0x40),
    list = ProtoField.bool("parvane.list", "List bit", 8, nil, 0x80),
    sensor = ProtoField.uint8("parvane.sensor", "Sensor", base.DEC, SENSORS),
    format = ProtoField.uint8("parvane.format", "Format"),
    time_ms = ProtoField.uint32("parvane.time_ms", "Milliseconds since 1970-01-01 UTC modulo 2^32"),
    time = ProtoField.absolute_time("parvane.time", "Time of the reading", base.UTC),
    value = ProtoField.double("parvane.value", "Value"),
    address = ProtoField.ether("parvane.address", "Bluetooth address"),
    count = ProtoField.uint8("parvane.count", "Entries that follow"),
    position = ProtoField.uint8("parvane.position", "Position"),
    available = ProtoField.uint8("parvane.available", "Available", base.DEC, { [0] = "no", [1] = "yes" }),
    largest = ProtoField.double("parvane.largest", "Largest value"),
    resolution = ProtoField.double("parvane.resolution", "Resolution"),
    smallest = ProtoField.double("parvane.smallest", "Smallest value"),
    delay_ms = ProtoField.int32("parvane.delay_ms", "Smallest delay between two readings, ms"),
    reserved = ProtoField.int16("parvane.reserved", "Reserved"),
    request_in = ProtoField.framenum("parvane.request_in", "Request in", base.NONE, frametype.REQUEST),
    response_in = ProtoField.framenum("parvane.response_in", "Answered in", base.NONE, frametype.RESPONSE),
    response_time = ProtoField.relative_time("parvane.response_time", "Response time"),
    error = ProtoField.string("parvane.error", "Error"),
}
parvane.fields = fields

local experts = {
    malformed = ProtoExpert.new("parvane.malformed", "Malformed packet", expert.group.MALFORMED, expert.severity.WARN),
    dropped = ProtoExpert.new("parvane.dropped", "The watch drops this request", expert.group.PROTOCOL,
        expert.severity.NOTE),
    direction = ProtoExpert.new("parvane.no_direction", "The capture does not say who sent this",
        expert.group.UNDECODED, expert.severity.WARN),
}
parvane.experts = experts

-- Requests and replies: what awaits its answer, and what has been found, by the numbers of the frames.

local pending, request_of, response_of

function parvane.init()
    pending, request_of, response_of = {}, {}, {}
end

local function remember(pinfo, command, sensor, flags)
    local request = { frame = pinfo.number, time = pinfo.abs_ts, flags = flags }
    pending[command .. ":" .. sensor] = request
    if command == 3 and sensor == PEDOMETER then
        pending["2:" .. sensor] = request -- answered as if measured
    end
end

-- A push of the steps is as good as an answer, and what the worn state's flags are depends on the moment.
local function link(pinfo, command, sensor, flags, keep)
    local key = command .. ":" .. sensor
    local request = pending[key]
    if not request or (request.flags ~= flags and sensor ~= PEDOMETER and sensor ~= WORN_STATE) then
        return
    end
    request_of[pinfo.number] = request
    response_of[request.frame] = response_of[request.frame] or pinfo.number
    if not keep then
        pending[key] = nil
    end
end

local function add_links(tree, pinfo)
    local request, response = request_of[pinfo.number], response_of[pinfo.number]
    if request then
        tree:add(fields.request_in, request.frame):set_generated()
        local passed = pinfo.abs_ts - request.time
        local seconds = math.floor(passed)
        tree:add(fields.response_time, NSTime.new(seconds, math.floor((passed - seconds) * 1e6 + 0.5) * 1000))
            :set_generated()
    end
    if response then
        tree:add(fields.response_in, response):set_generated()
    end
end

-- What is wrong with a reply: the first fault, as a text, or nil.

local function hexadecimal(byte)
    return string.format("0x%02X", byte)
end

local function fault(offset, field, expected, found)
    return string.format("%s (offset %d): expected %s, found %s", field, offset, expected, found)
end

local function wrong_byte(buffer, offset, expected, field)
    local found = buffer(offset, 1):uint()
    if found ~= expected then
        return fault(offset, field, hexadecimal(expected), hexadecimal(found))
    end
end

local function wrong_bits(buffer, list)
    local header = hexadecimal(buffer(0, 1):uint())
    if buffer(0, 1):bitfield(1, 1) ~= 0 then
        return fault(0, "header byte", "bit 6 clear", header)
    end
    if buffer(0, 1):bitfield(0, 1) ~= list then
        return fault(0, "header byte", list == 1 and "bit 7 set" or "bit 7 clear", header)
    end
end

local function wrong_command(buffer, first, second, expected)
    local command = buffer(0, 1):bitfield(4, 4)
    if command ~= first and command ~= second then
        return fault(0, "command", expected, tostring(command))
    end
end

local function not_finite(buffer, offset, field)
    if buffer(offset, 4):bitfield(1, 8) == 255 then
        local fraction = buffer(offset, 4):bitfield(9, 23)
        return fault(offset, field, "a finite number", fraction ~= 0 and "not a number" or "infinity")
    end
end

local REPLIES = {
    [4] = function(buffer)
        local wrong = wrong_bits(buffer, 0) or wrong_command(buffer, 4, 5, "4 (stop) or 5 (option)")
        if not wrong and buffer(0, 1):bitfield(4, 4) == 4 then
            return wrong_byte(buffer, 1, 2, "byte 1 of a stop acknowledgement"), "stop-ack"
        end
        return wrong or wrong_byte(buffer, 1, 0, "byte 1 of an option reply")
            or wrong_byte(buffer, 2, 2, "length of an option reply"), "option"
    end,
    [13] = function(buffer)
        return wrong_bits(buffer, 1) or wrong_command(buffer, 1, 1, "1 (sensor list)")
            or wrong_byte(buffer, 1, 0x80, "byte 1 of a list header")
            or wrong_byte(buffer, 2, 10, "length of a list header")
            or wrong_byte(buffer, 3, 3, "byte 3 of a list header"), "list-header"
    end,
    [18] = function(buffer)
        return wrong_bits(buffer, 0) or wrong_command(buffer, 2, 3, "2 (measure once) or 3 (start)")
            or wrong_byte(buffer, 1, 0, "byte 1 of a reading") or wrong_byte(buffer, 2, 14, "length of a reading")
            or wrong_byte(buffer, 4, 17, "byte 4 of a reading") or not_finite(buffer, 13, "value"), "reading"
    end,
    [25] = function(buffer)
        return wrong_bits(buffer, 1) or wrong_command(buffer, 1, 1, "1 (sensor list)")
            or wrong_byte(buffer, 2, 21, "length of a sensor entry")
            or wrong_byte(buffer, 3, (buffer(4, 1):uint() + 64) % 256, "byte 3 of a sensor entry")
            or not_finite(buffer, 6, "range") or not_finite(buffer, 10, "resolution")
            or not_finite(buffer, 14, "smallest value")
            or wrong_byte(buffer, 24, 0, "last byte of a sensor entry"), "entry"
    end,
}

local function examine(buffer)
    local check = REPLIES[buffer:len()]
    if not check then
        return fault(buffer:len(), "packet size", "4, 13, 18 or 25 bytes", buffer:len() .. " bytes")
    end
    return check(buffer)
end

-- The packets.

local function name_of(sensor)
    return SENSORS[sensor] or ("sensor " .. sensor)
end

local function add_first_byte(tree, buffer)
    for _, field in ipairs({ fields.command, fields.flags, fields.code, fields.list }) do
        tree:add(field, buffer(0, 1))
    end
    return buffer(0, 1):bitfield(4, 4), buffer(0, 1):bitfield(2, 2)
end

-- A byte that a request lacks counts as 0.
local function add_byte(tree, field, buffer, offset)
    if offset < buffer:len() then
        return buffer(offset, 1):uint(), tree:add(field, buffer(offset, 1))
    end
    return 0, tree:add(field, 0):set_generated()
end

-- The time nearest to that of the capture.
local function add_time(tree, pinfo, range)
    local field = range:uint()
    local item = tree:add(fields.time_ms, range)
    if field == 0 then
        item:append_text(" (the watch knows no time)")
        return
    end
    local now = math.floor(pinfo.abs_ts * 1000)
    local difference = (field - now) % 2 ^ 32
    local time = now + (difference < 2 ^ 31 and difference or difference - 2 ^ 32)
    if time >= 0 then
        tree:add(fields.time, range, NSTime.new(math.floor(time / 1000), time % 1000 * 1000000))
    end
end

local function value_text(sensor, value)
    local words = WORDS[sensor]
    if words then
        return words[value] or string.format("%g, without a meaning", value)
    end
    if sensor == HEART_RATE and value == 0 then
        return "no usable reading"
    end
    return string.format(value % 1 == 0 and "%.0f" or "%.9g", value) .. (UNITS[sensor] and " " .. UNITS[sensor] or "")
end

local function add_reading(tree, buffer, pinfo, command, flags)
    local sensor = add_byte(tree, fields.sensor, buffer, 3)
    local value = buffer(13, 4):float()
    add_time(tree, pinfo, buffer(9, 4))
    tree:add(fields.value, buffer(13, 4), value):append_text(" (" .. value_text(sensor, value) .. ")")
    if not pinfo.visited then
        link(pinfo, command, sensor, flags)
    end
    return name_of(sensor) .. ": " .. value_text(sensor, value)
end

local function add_list_header(tree, buffer, pinfo, _, flags)
    local address = buffer(6, 6)
    local item = tree:add(fields.address, address)
    if address:bytes():tohex() == "000000000000" then
        item:append_text(" (unknown)")
    end
    tree:add(fields.count, buffer(12, 1))
    if not pinfo.visited then
        link(pinfo, 1, 0, flags, true)
    end
    return buffer(12, 1):uint() .. " sensors"
end

local function add_entry(tree, buffer, pinfo, _, flags)
    tree:add(fields.position, buffer(1, 1))
    local sensor = add_byte(tree, fields.sensor, buffer, 4)
    tree:add(fields.available, buffer(5, 1))
    for index, field in ipairs({ fields.largest, fields.resolution, fields.smallest }) do
        local range = buffer(2 + 4 * index, 4)
        tree:add(field, range, range:float()):append_text(UNITS[sensor] and " " .. UNITS[sensor] or "")
    end
    tree:add(fields.delay_ms, buffer(18, 4))
    tree:add(fields.reserved, buffer(22, 2))
    if not pinfo.visited then
        link(pinfo, 1, 0, flags, true)
    end
    return buffer(1, 1):uint() .. ": " .. name_of(sensor)
end

local function add_short_reply(tree, buffer, pinfo, command, flags)
    local sensor = add_byte(tree, fields.sensor, buffer, 3)
    if not pinfo.visited then
        link(pinfo, command, sensor, flags)
    end
    return name_of(sensor)
end

local ADD = {
    reading = add_reading,
    ["list-header"] = add_list_header,
    entry = add_entry,
    ["stop-ack"] = add_short_reply,
    option = add_short_reply,
}

local function dissect_reply(tree, buffer, pinfo)
    local wrong, kind = examine(buffer)
    if wrong then
        if buffer:len() > 0 then
            add_first_byte(tree, buffer)
        end
        tree:add(fields.error, wrong):set_generated()
        tree:add_proto_expert_info(experts.malformed, wrong)
        return "Malformed: " .. wrong
    end
    tree:add(fields.kind, kind):set_generated()
    local command, flags = add_first_byte(tree, buffer)
    return kind .. " " .. ADD[kind](tree, buffer, pinfo, command, flags)
end

local function drop(tree, reason)
    tree:add_proto_expert_info(experts.dropped, "The watch drops this request: " .. reason)
    return "Dropped: " .. reason
end

local function dissect_request(tree, buffer, pinfo)
    if buffer:len() == 0 then
        return drop(tree, "it has no byte")
    end
    local command, flags = add_first_byte(tree, buffer)
    local kind = KINDS[command]
    if not kind then
        return drop(tree, "command " .. command .. " is none of 1 to 4")
    end
    tree:add(fields.kind, kind):set_generated()
    local sensor = command == 1 and 0 or add_byte(tree, fields.sensor, buffer, 3)
    if command == 3 then
        local format, item = add_byte(tree, fields.format, buffer, 4)
        if format > 5 then
            item:append_text(" (the watch's default)")
        end
    end
    if command ~= 1 and not SENSORS[sensor] then
        return drop(tree, "there is no sensor " .. sensor)
    end
    if not pinfo.visited then
        remember(pinfo, command, sensor, flags)
    end
    return kind .. (command == 1 and "" or " " .. name_of(sensor))
end

-- Outbound is what the phone sends, wherever it was captured.
local OUTBOUND, INBOUND = 0, 1

function parvane.dissector(buffer, pinfo, root)
    pinfo.cols.protocol = "Parvane"
    local tree = root:add(parvane, buffer())
    local text
    if pinfo.p2p_dir == OUTBOUND then
        pinfo.cols.src, pinfo.cols.dst = "phone", "watch"
        text = dissect_request(tree, buffer, pinfo)
    elseif pinfo.p2p_dir == INBOUND then
        pinfo.cols.src, pinfo.cols.dst = "watch", "phone"
        text = dissect_reply(tree, buffer, pinfo)
    else
        tree:add_proto_expert_info(experts.direction)
        text = "Unknown direction"
    end
    add_links(tree, pinfo)
    tree:append_text(": " .. text)
    pinfo.cols.info = text
end

DissectorTable.get("wtap_encap"):add(wtap_encaps.USER0, parvane)
