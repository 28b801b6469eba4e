-- SPDX-License-Identifier: Apache-2.0
--
-- Wireshark dissector for captures of JoVu controllers on USB (usbmon on Linux, Wireshark 4.0).
-- It shows the frames, requests, responses and events of the message channel, and the requests,
-- status reports and data of the job channel. docs/protocol.md describes both channels, and how to
-- install this file and to capture.
--
-- A frame or an object may span many transfers. Wireshark first dissects all packets in their order,
-- and then those that it shows, in any order. The first pass stores in `packets` what each packet
-- contains; later ones look it up there.

local jovu = Proto("jovu", "JoVu Controller")

local HEADER_SIZE = 5
local MAX_DEPTH = 64          -- of JSON, as in libjovu
local MAX_OBJECT = 1048576    -- bytes of an unfinished object of the job channel, as in libjovu
local MAX_ITEMS = 500         -- frames, objects and faults that are shown of one packet
local MAX_NODES = 2000        -- JSON values that are shown of one message
local PUSH_SILENCE = 10       -- seconds after which a controller no longer expects job data
local REPEAT_TIME = 1         -- seconds; the host repeats a transfer 1.5 seconds after its beginning
local INFO_LENGTH = 70        -- characters of a value in the packet list

jovu.prefs.devices = Pref.string("Devices", "7a1c:0002",
    "Vendor and product ids of controllers, hexadecimal, separated by blanks")
jovu.prefs.endpoints = Pref.string("Endpoints", "81 02 83 04",
    "Message channel IN and OUT, job channel IN and OUT, hexadecimal")
jovu.prefs.addresses = Pref.string("Addresses", "",
    "Controllers of a capture without their descriptors, as BUS.DEVICE, separated by blanks")
jovu.prefs.heuristic = Pref.bool("Recognise by content", true,
    "Recognise a controller by what is on its endpoints when the capture lacks its descriptors")

local f = {
    channel = ProtoField.string("jovu.channel", "Channel"),
    part = ProtoField.bytes("jovu.part", "Part"),
    complete_in = ProtoField.framenum("jovu.complete_in", "Complete in"),
    length = ProtoField.uint16("jovu.frame.length", "Length"),
    check = ProtoField.uint16("jovu.frame.check", "Length check", base.HEX),
    payload = ProtoField.string("jovu.frame.payload", "Payload"),
    terminator = ProtoField.string("jovu.frame.terminator", "Terminator"),
    kind = ProtoField.string("jovu.kind", "Kind"),
    attrs = ProtoField.string("jovu.attrs", "Attributes"),
    id = ProtoField.uint32("jovu.id", "Id"),
    idx = ProtoField.int32("jovu.idx", "Index"),
    name = ProtoField.string("jovu.name", "Name"),
    args = ProtoField.string("jovu.args", "Arguments"),
    result = ProtoField.string("jovu.result", "Result"),
    text = ProtoField.string("jovu.text", "Text"),
    response_in = ProtoField.framenum("jovu.response_in", "Response in", base.NONE,
        frametype.RESPONSE),
    request_in = ProtoField.framenum("jovu.request_in", "Request in", base.NONE,
        frametype.REQUEST),
    time = ProtoField.relative_time("jovu.time", "Time since the request"),
    job_type = ProtoField.string("jovu.job.type", "Type"),
    job_size = ProtoField.uint64("jovu.job.size", "Size"),
    job_adler32 = ProtoField.uint32("jovu.job.adler32", "Adler-32 (seed 0)", base.HEX),
    job_id = ProtoField.string("jovu.job.id", "Job id"),
    job_state = ProtoField.string("jovu.job.state", "State"),
    job_progress = ProtoField.int32("jovu.job.progress", "Progress"),
    job_temperature = ProtoField.double("jovu.job.temperature", "Extruder temperature"),
    job_error = ProtoField.int32("jovu.job.error", "Error"),
    job_data = ProtoField.bytes("jovu.job.data", "Job data"),
    job_offset = ProtoField.uint64("jovu.job.offset", "Offset"),
    job_due = ProtoField.uint64("jovu.job.due", "Still to come"),
}
jovu.fields = f

local function malformed(name, text)
    return ProtoExpert.new("jovu." .. name, text, expert.group.MALFORMED, expert.severity.ERROR)
end
local function remark(name, text, severity)
    return ProtoExpert.new("jovu." .. name, text, expert.group.PROTOCOL, severity)
end
local e = {
    bad_header = malformed("bad_header", "The length and its check do not match"),
    bad_terminator = malformed("bad_terminator", "The frame does not end with \";\""),
    incomplete = malformed("incomplete", "Incomplete: another one begins before its end"),
    stray = malformed("stray", "Bytes outside of frames and objects"),
    not_json = malformed("not_json", "Not JSON"),
    no_envelope = malformed("no_envelope", "Not a message: receivers drop it"),
    too_long = malformed("too_long", "An object without an end"),
    not_captured = remark("not_captured", "The capture lacks a part", expert.severity.NOTE),
    before_capture = remark("before_capture", "Began before the capture", expert.severity.NOTE),
    no_result = remark("no_result", "The response has no result: the request was not carried out",
        expert.severity.WARN),
    no_request = remark("no_request", "The capture has no request with this id",
        expert.severity.NOTE),
    other_name = remark("other_name", "The response names another command than the request",
        expert.severity.WARN),
    repeated = remark("repeated", "Repeats a transfer that timed out", expert.severity.WARN),
    push_ended = remark("push_ended", "Job data is missing: the push has ended by its time limit",
        expert.severity.WARN),
    not_shown = remark("not_shown", "The rest of this packet is not shown", expert.severity.NOTE),
}
jovu.experts = e

local usb_bus = Field.new("usb.bus_id")
local usb_device = Field.new("usb.device_address")
local usb_endpoint = Field.new("usb.endpoint_address")
local usb_transfer = Field.new("usb.transfer_type")
local usb_length = Field.new("usb.urb_len")

-- JSON ------------------------------------------------------------------------------------------

-- A value is {t = TYPE, from =, to =} with the positions of its first and last byte. A string and a
-- number have `v`; an array has its elements, an object its members, as {key =, value =}.
local function parse_json(text)
    local at, depth = 1, 0
    local value

    local function fail(what)
        error({ message = what .. " at byte " .. at - 1 .. " of the payload" }, 0)
    end
    local function skip_blanks()
        at = text:match("^[ \t\r\n]*()", at)
    end
    local function take(byte)
        skip_blanks()
        if text:sub(at, at) ~= byte then return false end
        at = at + 1
        return true
    end
    local function parse_string()
        local from = at
        at = at + 1
        while true do
            local stop = text:find('["\\%c]', at)
            if stop == nil then fail("a string without its end") end
            local c = text:sub(stop, stop)
            at = stop + 1
            if c == '"' then
                return { t = "string", from = from, to = stop, v = text:sub(from + 1, stop - 1) }
            end
            if c ~= "\\" then fail("a control character") end
            at = at + 1
        end
    end
    local function parse_items(node, close, parse_item)
        depth = depth + 1
        if depth > MAX_DEPTH then fail("more than " .. MAX_DEPTH .. " levels") end
        at = at + 1
        if not take(close) then
            repeat
                skip_blanks()
                node[#node + 1] = parse_item()
            until not take(",")
            if not take(close) then fail('neither "," nor "' .. close .. '"') end
        end
        depth = depth - 1
        node.to = at - 1
        return node
    end
    local function parse_member()
        if text:sub(at, at) ~= '"' then fail("no key") end
        local key = parse_string().v
        if not take(":") then fail('no ":"') end
        skip_blanks()
        return { key = key, value = value() }
    end
    function value()
        local c = text:sub(at, at)
        if c == "{" then return parse_items({ t = "object", from = at }, "}", parse_member) end
        if c == "[" then return parse_items({ t = "array", from = at }, "]", value) end
        if c == '"' then return parse_string() end
        for _, word in ipairs({ "true", "false", "null" }) do
            if text:sub(at, at + #word - 1) == word then
                at = at + #word
                return { t = word, from = at - #word, to = at - 1 }
            end
        end
        local stop = text:match("^-?[1-9]%d*()", at) or text:match("^-?0()", at)
        if stop == nil then fail("no value") end
        stop = text:match("^%.%d+()", stop) or stop
        stop = text:match("^[eE][-+]?%d+()", stop) or stop
        local number = tonumber(text:sub(at, stop - 1))
        local node = { t = "number", from = at, to = stop - 1, v = number }
        at = stop
        return node
    end

    local good, result = pcall(function()
        skip_blanks()
        local root = value()
        skip_blanks()
        if at <= #text then fail("something") end
        return root
    end)
    if good then return result end
    return nil, type(result) == "table" and result.message or tostring(result)
end

-- The member at a path of keys, if it has that type.
local function find(node, kind, ...)
    for _, key in ipairs({ ... }) do
        if node == nil or node.t ~= "object" then return nil end
        local found
        for _, member in ipairs(node) do
            if found == nil and member.key == key then found = member.value end
        end
        node = found
    end
    if node ~= nil and (kind == nil or node.t == kind) then return node end
end

-- The whole part of a number of a message, which may be anything up to infinity.
local function whole(value, least, most)
    return math.max(least, math.min(most, math.floor(value)))
end
local EXACT = 2 ^ 53  -- no larger range of numbers is exact
local function int32(value) return whole(value, -2 ^ 31, 2 ^ 31 - 1) end
local function uint32(value) return whole(value, -EXACT, EXACT) % 2 ^ 32 end
local function uint64(value) return UInt64.new(whole(value, 0, EXACT)) end

-- What the columns and the tree can show: bytes that are not UTF-8 and control characters as \xNN.
local function printable(text)
    local good = text:gsub("[\194-\223][\128-\191]", "")
        :gsub("[\225-\236\238\239][\128-\191][\128-\191]", "")
        :gsub("\240[\144-\191][\128-\191][\128-\191]", ""):find("[\128-\255]") == nil
    return (text:gsub(good and "%c" or "[%c\128-\255]", function(c)
        return string.format("\\x%02x", c:byte())
    end))
end

local function shortened(text)
    if #text <= INFO_LENGTH then return text end
    -- Not in the middle of a character.
    return text:sub(1, INFO_LENGTH):gsub("[\192-\255][\128-\191]*$", "") .. "..."
end

-- The string that an array of bytes stands for, as the firmware sends it; nil for another array.
local function text_of(array)
    if array == nil or array.t ~= "array" or #array == 0 then return nil end
    local bytes = {}
    for i, element in ipairs(array) do
        if element.t ~= "number" or element.v % 1 ~= 0 then return nil end
        bytes[i] = string.char(element.v % 256)
    end
    if bytes[#bytes] ~= "\0" then return nil end
    bytes[#bytes] = nil
    return printable(table.concat(bytes))
end

-- State of the first pass -------------------------------------------------------------------------

local packets   -- by number: what is in a packet
local streams   -- by "BUS.DEVICE.ENDPOINT"
local requests  -- by "BUS.DEVICE ID": frames that wait for their response
local known     -- by "BUS.DEVICE": recognised by content

local function forget()
    packets, streams, requests, known = {}, {}, {}, {}
end
forget()
jovu.init = forget

local function add(items, item)
    if #items < MAX_ITEMS then
        items[#items + 1] = item
    elseif #items == MAX_ITEMS then
        items[#items + 1] = { what = "not_shown", offset = item.offset, size = 0 }
    end
    return item
end

local function is_header(bytes)
    if #bytes < HEADER_SIZE or bytes:sub(1, 1) ~= "$" then return false end
    local low, high, check_low, check_high = bytes:byte(2, HEADER_SIZE)
    return low + check_low == 255 and high + check_high == 255 and low + high > 0
end

-- The frames in the bytes of a transfer on the message channel.
-- missing: number of bytes behind them that were transferred but not captured.
local function read_frames(stream, number, data, missing)
    local items, at = {}, 1
    -- JSON never contains the bytes of a header.
    if stream.frame ~= nil and is_header(data) then
        add(items, { what = "incomplete", offset = 0, size = 0,
            text = stream.frame.have .. " bytes of it are in the capture" })
        stream.frame = nil
    end
    while at <= #data do
        local frame = stream.frame
        if frame == nil then
            local start = data:find("$", at, true) or #data + 1
            if start > at then
                add(items, { what = stream.synced and "stray" or "before_capture",
                    offset = at - 1, size = start - at })
            end
            if start <= #data then stream.frame = { chunks = {}, have = 0, size = HEADER_SIZE } end
            at = start
        else
            local size = math.min(frame.size - frame.have, #data - at + 1)
            frame.chunks[#frame.chunks + 1] = data:sub(at, at + size - 1)
            local part = { what = "part", frame = frame, offset = at - 1, size = size,
                first = frame.have == 0 }
            local last = items[#items]
            if last ~= nil and last.frame == frame then
                last.size = last.size + size
            else
                add(items, part)
            end
            frame.have = frame.have + size
            at = at + size
            if frame.have == frame.size and frame.size == HEADER_SIZE and not frame.checked then
                local header = table.concat(frame.chunks)
                if is_header(header) then
                    frame.checked = true
                    frame.size = HEADER_SIZE + header:byte(2) + 256 * header:byte(3)
                else
                    frame.fault = "bad_header"
                end
            elseif frame.have == frame.size then
                frame.raw = table.concat(frame.chunks)
                if frame.raw:sub(-1) ~= ";" and frame.missing == nil then
                    frame.fault = "bad_terminator"
                    at = at - 1  -- a receiver looks at this byte again
                    if data:sub(at, at) ~= "$" then at = at + 1 end
                end
            end
            if frame.fault ~= nil or frame.raw ~= nil then
                frame.chunks = nil
                frame.done_in = number
                stream.frame = nil
                stream.synced = stream.synced or frame.raw ~= nil
            end
        end
    end
    if missing > 0 then
        local frame = stream.frame
        add(items, { what = "not_captured", offset = 0, size = 0,
            text = missing .. " bytes of the transfer were not captured" })
        if frame ~= nil and frame.checked and missing <= frame.size - frame.have then
            frame.chunks[#frame.chunks + 1] = ("\0"):rep(missing)
            frame.have = frame.have + missing
            frame.missing = (frame.missing or 0) + missing
            if frame.have == frame.size then
                frame.raw, frame.done_in = table.concat(frame.chunks), number
                stream.frame = nil
            end
        else
            stream.frame, stream.synced = nil, false
        end
    end
    return items
end

-- The objects and the job data in the bytes of a transfer on the job channel; missing as above.
-- outward: from the host, whose objects announce job data.
local function read_objects(stream, number, data, missing, outward, now)
    local items, at = {}, 1
    local begins = data:sub(1, 11) == '{"metadata"'
    if (stream.due or 0) > 0 and now - stream.last > PUSH_SILENCE then
        add(items, { what = "push_ended", offset = 0, size = 0,
            text = stream.due .. " bytes have not been sent" })
        stream.due = 0
    end
    stream.last = now
    stream.in_data = (stream.due or 0) > 0
    if stream.object ~= nil and begins then
        add(items, { what = "incomplete", offset = 0, size = 0 })
        stream.object = nil
    end
    -- The host begins each object in a transfer of its own; all else may be job data.
    if outward and not stream.synced and stream.object == nil and not begins then
        add(items, { what = "data", offset = 0, size = #data })
        return items
    end
    while at <= #data do
        local object = stream.object
        if (stream.due or 0) > 0 then
            local size = math.min(stream.due, #data - at + 1)
            stream.due = stream.due - size
            add(items, { what = "data", offset = at - 1, size = size,
                from = stream.total - stream.due - size, due = stream.due, total = stream.total })
            at = at + size
        elseif object == nil then
            local start = data:find("{", at, true) or #data + 1
            if start > at then
                add(items, { what = stream.synced and "stray" or "before_capture",
                    offset = at - 1, size = start - at })
            end
            if start <= #data then stream.object = { chunks = {}, have = 0, depth = 0 } end
            at = start
        else
            -- Up to the brace that closes it; braces in strings do not count.
            local from, stop = at, nil
            while stop == nil and at <= #data do
                local c = data:sub(at, at)
                if object.escaped then
                    object.escaped = false
                elseif object.in_string then
                    object.escaped = c == "\\"
                    object.in_string = c ~= '"'
                elseif c == '"' then
                    object.in_string = true
                elseif c == "{" then
                    object.depth = object.depth + 1
                elseif c == "}" then
                    object.depth = object.depth - 1
                    if object.depth == 0 then stop = at end
                end
                at = at + 1
            end
            object.chunks[#object.chunks + 1] = data:sub(from, at - 1)
            object.have = object.have + at - from
            local item = add(items, { what = "object", object = object, offset = from - 1,
                size = at - from })
            if stop ~= nil then
                object.raw = table.concat(object.chunks)
                object.done_in = number
                stream.object = nil
                local root = parse_json(object.raw)
                local kind = find(root, "string", "metadata", "type")
                object.partial = kind == nil and not stream.synced
                if kind ~= nil then
                    stream.synced = true
                    local size = find(root, "number", "file_push", "size")
                    if outward and kind.v == "file_push" and size ~= nil and size.v > 0 then
                        stream.due = whole(size.v, 0, EXACT)
                        stream.total = stream.due
                    end
                end
            elseif object.have > MAX_OBJECT then
                item.what = "too_long"
                stream.object, stream.synced = nil, false
            end
        end
    end
    if missing > 0 then
        add(items, { what = "not_captured", offset = 0, size = 0,
            text = missing .. " bytes of the transfer were not captured" })
        if (stream.due or 0) > 0 then
            stream.due = math.max(0, stream.due - missing)
        else
            stream.object, stream.synced = nil, false
        end
    end
    return items
end

-- Showing -----------------------------------------------------------------------------------------

-- The members of a value. range: of the whole JSON text.
local function show_value(tree, range, label, node, budget)
    budget.nodes = budget.nodes - 1
    if budget.nodes < 0 then return end
    local where = range(node.from - 1, node.to - node.from + 1)
    if node.t ~= "object" and (node.t ~= "array" or #node == 0 or node[1].t == "number") then
        local text = text_of(node)
        tree:add(where, printable(label) .. ": " .. (text and '"' .. text .. '"' or
            shortened(printable(where:raw()))))
        return
    end
    local branch = tree:add(where, printable(label))
    for i, child in ipairs(node) do
        if node.t == "object" then
            show_value(branch, range, child.key, child.value, budget)
        else
            show_value(branch, range, "[" .. i - 1 .. "]", child, budget)
        end
    end
end

local function show_field(tree, field, range, node, value)
    return tree:add(field, range(node.from - 1, node.to - node.from + 1), value)
end

local function show_faults(tree, what, text)
    if text == nil then
        tree:add_proto_expert_info(e[what])
    else
        tree:add_proto_expert_info(e[what], text)
    end
end

local function attributes_of(array)
    local words, set = {}, {}
    for i, word in ipairs(array or {}) do
        words[i] = word.t == "string" and word.v or "?"
        set[words[i]] = true
    end
    return printable(table.concat(words, " ")), set
end

-- Matches a response with its request, once.
local function match(frame, kind, address, id, name, now)
    if frame.matched then return end
    frame.matched, frame.time, frame.name = true, now, name
    local key = address .. " " .. id
    if kind == "request" then
        requests[key] = frame
    elseif kind == "response" and requests[key] ~= nil then
        frame.request, requests[key].response = requests[key], frame
        requests[key] = nil
    end
end

local function event_text(name, argument)
    local text = text_of(argument)
    if text ~= nil then return ' "' .. text .. '"', text end
    local servo, position = find(argument, "number", "servo_name"), find(argument, "number", "pos")
    local commanded = find(argument, "number", "pos_cmd")
    if servo == nil or position == nil or commanded == nil then return "" end
    return string.format(" servo %.0f at %.0f, commanded %.0f", servo.v, position.v, commanded.v)
end

-- One complete message. range: the JSON text. Returns a line for the packet list.
local function show_message(tree, range, frame, address, now)
    local root, fault = parse_json(range:raw())
    if root == nil then
        show_faults(tree, "not_json", "Not JSON: " .. fault)
        return "[not JSON]"
    end
    local transport, data = find(root, "object", "transport"), find(root, "object", "data")
    local attrs, id = find(transport, "array", "attrs"), find(transport, "number", "id")
    if data == nil or attrs == nil or id == nil then
        local absent = transport == nil and "transport" or data == nil and "data" or
            attrs == nil and "attrs" or "id"
        show_faults(tree, "no_envelope", "Not a message: no " .. absent .. ". Receivers drop it")
        return "[not a message]"
    end
    local words, set = attributes_of(attrs)
    local body = find(data, "object", "command") or find(data, "object", "event")
    local kind = set.response and "response" or find(data, "object", "command") and "request" or
        body and "event" or "message"
    local number = uint32(id.v)
    tree:add(f.kind, kind):set_generated()
    show_field(tree, f.attrs, range, attrs, words)
    show_field(tree, f.id, range, id, number)

    local name, idx = find(body, "string", "name"), find(body, "number", "idx")
    local args, result = find(body, "object", "args"), find(body, nil, "__return__")
    local shown = name and printable(name.v) or "?"
    local line = kind .. " " .. number .. " " .. shown
    match(frame, kind, address, number, shown, now)
    local budget = { nodes = MAX_NODES }
    if idx then show_field(tree, f.idx, range, idx, int32(idx.v)) end
    if name then show_field(tree, f.name, range, name, shown) end
    if args then
        local text = printable(range:raw():sub(args.from, args.to))
        local branch = show_field(tree, f.args, range, args, text)
        for _, member in ipairs(args) do
            show_value(branch, range, member.key, member.value, budget)
        end
        if kind == "request" then line = line .. " " .. shortened(text) end
    end
    if kind == "event" then
        local argument = args and args[1] and args[1].value
        local suffix, text = event_text(shown, argument)
        if text then show_field(tree, f.text, range, argument, text) end
        line = kind .. " " .. shown .. shortened(suffix)
    elseif kind == "response" then
        if result then
            local text = printable(range:raw():sub(result.from, result.to))
            local branch = show_field(tree, f.result, range, result, text)
            if text_of(result) then
                text = '"' .. text_of(result) .. '"'
                show_field(tree, f.text, range, result, text_of(result))
            elseif result.t == "object" then
                show_value(branch, range, "Members", result, budget)
            end
            line = line .. " = " .. shortened(text)
        else
            show_faults(tree, "no_result")
            line = line .. " [no result]"
        end
        if frame.request == nil then
            show_faults(tree, "no_request")
        else
            tree:add(f.request_in, frame.request.done_in):set_generated()
            local seconds = math.max(0, frame.time - frame.request.time)
            tree:add(f.time, NSTime.new(math.floor(seconds),
                math.floor(seconds % 1 * 1e6 + 0.5) * 1000)):set_generated()
            if name and frame.request.name ~= shown then show_faults(tree, "other_name") end
        end
    elseif kind == "request" and frame.response ~= nil then
        tree:add(f.response_in, frame.response.done_in):set_generated()
    end
    if budget.nodes < 0 then show_faults(tree, "not_shown") end
    return line
end

-- One object of the job channel. Returns a line for the packet list.
local function show_object(tree, range, outward)
    local root, fault = parse_json(range:raw())
    if root == nil then
        show_faults(tree, "not_json", "Not JSON: " .. fault)
        return "[not JSON]"
    end
    local kind = find(root, "string", "metadata", "type")
    if kind == nil then
        show_faults(tree, "no_envelope", "Not a message: no type. Receivers drop it")
        return "[not a message]"
    end
    show_field(tree, f.job_type, range, kind, printable(kind.v))
    local budget = { nodes = MAX_NODES }
    local function member(field, wanted, shown, ...)
        local node = find(root, wanted, ...)
        if node == nil then return nil end
        local value = wanted == "string" and printable(node.v) or shown(node.v)
        show_field(tree, field, range, node, value)
        return value
    end
    local line = "job " .. printable(kind.v) .. (outward and " request" or "")
    if outward then
        local size = member(f.job_size, "number", uint64, "file_push", "size")
        local sum = member(f.job_adler32, "number", uint32, "file_push", "adler32")
        member(f.job_id, "string", nil, "file_push", "job_id")
        if size then line = line .. " of " .. tostring(size) .. " bytes" end
        if sum then line = line .. string.format(", Adler-32 %08x", sum) end
    else
        local state = member(f.job_state, "string", nil, "status", "state")
        member(f.job_id, "string", nil, "job", "id")
        local progress = member(f.job_progress, "number", int32, "job", "progress")
        local celsius = member(f.job_temperature, "number", tonumber, "status",
            "extruder_temperature")
        local failure = member(f.job_error, "number", int32, "error") or
            member(f.job_error, "number", int32, "errors")
        line = line .. " report"
        if state then line = line .. " " .. state end
        if celsius then line = line .. string.format(", %.1f C", celsius) end
        if progress then line = line .. ", " .. progress .. " %" end
        if failure and failure ~= 0 then line = line .. ", error " .. failure end
    end
    show_value(tree, range, "Members", root, budget)
    if budget.nodes < 0 then show_faults(tree, "not_shown") end
    return line
end

-- Returns all bytes of a frame or an object that ends in this packet; nil when it ends in another.
local function whole_of(thing, item, tvb, number, title)
    if thing.done_in ~= number or thing.raw == nil then return nil end
    if #thing.raw == item.size then return tvb(item.offset, item.size) end
    return ByteArray.new(thing.raw, true):tvb(title)()
end

local function show_frame(tree, tvb, item, number, address, now)
    local frame = item.frame
    local part = tvb(item.offset, item.size)
    if frame.done_in == number and frame.fault ~= nil then
        local branch = tree:add(f.part, part)
        show_faults(branch, frame.fault)
        return frame.fault == "bad_header" and "[bad header]" or "[bad frame end]"
    end
    local whole = whole_of(frame, item, tvb, number, "Frame")
    if whole == nil then
        local branch = tree:add(f.part, part)
        if item.first and item.size >= HEADER_SIZE then
            branch:add_le(f.length, tvb(item.offset + 1, 2))
            branch:add_le(f.check, tvb(item.offset + 3, 2))
        end
        if frame.done_in ~= nil then
            branch:add(f.complete_in, frame.done_in):set_generated()
        end
        return item.first and "frame of " .. frame.size .. " bytes" or "part of a frame"
    end
    local branch = tree:add(whole, "Frame of " .. whole:len() .. " bytes")
    branch:add_le(f.length, whole(1, 2))
    branch:add_le(f.check, whole(3, 2))
    local size = whole:len() - HEADER_SIZE - 1
    if size <= 0 then
        show_faults(branch, "not_json", "The frame is empty")
        return "[empty frame]"
    end
    local payload = whole(HEADER_SIZE, size)
    branch:add(f.payload, payload, printable(payload:raw()))
    branch:add(f.terminator, whole(whole:len() - 1, 1), printable(whole(whole:len() - 1, 1):raw()))
    if frame.missing then
        show_faults(branch, "not_captured", frame.missing .. " bytes of the frame are missing")
        return "frame [" .. frame.missing .. " bytes not captured]"
    end
    return show_message(branch, payload, frame, address, now)
end

local function show_part_of_object(tree, tvb, item, number, outward)
    local object = item.object
    local whole = whole_of(object, item, tvb, number, "Object")
    if whole == nil then
        local branch = tree:add(f.part, tvb(item.offset, item.size))
        if object.done_in ~= nil then
            branch:add(f.complete_in, object.done_in):set_generated()
        end
        return "part of an object"
    end
    local branch = tree:add(whole, "Object of " .. whole:len() .. " bytes")
    if object.partial then
        show_faults(branch, "before_capture")
        return "rest of an object"
    end
    return show_object(branch, whole, outward)
end

local function show_data(tree, tvb, item)
    local branch = tree:add(f.job_data, tvb(item.offset, item.size))
    if item.total == nil then
        show_faults(branch, "before_capture", "The announcement is not in the capture")
        return "job data"
    end
    branch:add(f.job_offset, uint64(item.from)):set_generated()
    branch:add(f.job_due, uint64(item.due)):set_generated()
    return string.format("job data, %.0f of %.0f bytes", item.total - item.due, item.total)
end

-- Called by Wireshark -----------------------------------------------------------------------------

local channels = {}   -- by endpoint: {name, outward}
local addresses = {}  -- by "BUS.DEVICE": given by the user
local products = {}   -- keys in the table of USB products

local product_table = DissectorTable.get("usb.product")

local function read_preferences()
    channels, addresses = {}, {}
    local number = 0
    for word in jovu.prefs.endpoints:gmatch("%x+") do
        number = number + 1
        channels[tonumber(word, 16) % 256] = {
            name = number <= 2 and "message" or "job", outward = number % 2 == 0 }
    end
    for word in jovu.prefs.addresses:gmatch("%d+%.%d+") do addresses[word] = true end
    for _, key in ipairs(products) do product_table:remove(key, jovu) end
    products = {}
    for vendor, product in jovu.prefs.devices:gmatch("(%x+):(%x+)") do
        local key = tonumber(vendor, 16) % 65536 * 65536 + tonumber(product, 16) % 65536
        products[#products + 1] = key
        product_table:add(key, jovu)
    end
end
jovu.prefs_changed = read_preferences

local function value_of(field)
    local info = field()
    return info and info.value
end

-- Returns "BUS.DEVICE" and the channel of a packet; nil when it cannot be a controller's.
local function origin()
    local bus, device, endpoint = value_of(usb_bus), value_of(usb_device), value_of(usb_endpoint)
    local BULK = 3
    if bus == nil or device == nil or value_of(usb_transfer) ~= BULK then return nil end
    return bus .. "." .. device, channels[endpoint], endpoint
end

local function read_packet(tvb, pinfo, address, channel, endpoint)
    local key = address .. "." .. endpoint
    local stream = streams[key] or {}
    streams[key] = stream
    local data = tvb:raw()
    local missing = math.max(0, (value_of(usb_length) or 0) - #data)
    if channel.outward then
        -- A status request may well be the same as the one before.
        local again = stream.sent == data and pinfo.rel_ts - stream.sent_at >= REPEAT_TIME and
            (channel.name == "message" or stream.in_data)
        stream.sent, stream.sent_at = data, pinfo.rel_ts
        if again then return { { what = "repeated", offset = 0, size = #data } } end
    end
    if channel.name == "message" then return read_frames(stream, pinfo.number, data, missing) end
    return read_objects(stream, pinfo.number, data, missing, channel.outward, pinfo.rel_ts)
end

local function dissect(tvb, pinfo, tree)
    local address, channel, endpoint = origin()
    if address == nil or channel == nil or tvb:captured_len() == 0 then return 0 end
    if packets[pinfo.number] == nil then
        packets[pinfo.number] = read_packet(tvb, pinfo, address, channel, endpoint)
    end
    pinfo.cols.protocol = "JOVU"
    local top = tree:add(jovu, tvb(), "JoVu Controller, " .. channel.name .. " channel")
    top:add(f.channel, channel.name):set_generated()
    local lines = {}
    for _, item in ipairs(packets[pinfo.number]) do
        local line
        if item.what == "part" then
            line = show_frame(top, tvb, item, pinfo.number, address, pinfo.rel_ts)
        elseif item.what == "object" then
            line = show_part_of_object(top, tvb, item, pinfo.number, channel.outward)
        elseif item.what == "data" then
            line = show_data(top, tvb, item)
        else
            local branch = item.size > 0 and top:add(f.part, tvb(item.offset, item.size)) or top
            show_faults(branch, item.what, item.text)
            line = "[" .. item.what:gsub("_", " ") .. "]"
        end
        if #lines < 8 then lines[#lines + 1] = line end
    end
    pinfo.cols.info = table.concat(lines, "; ")
    return tvb:captured_len()
end
jovu.dissector = dissect

-- Whether the bytes are what begins a frame or an object.
local function looks_like(channel, bytes)
    if channel.name == "message" then return is_header(bytes) end
    return bytes:sub(1, 12) == '{"metadata":'
end

-- Without descriptors Wireshark does not know the product.
local function recognise(tvb, pinfo, tree)
    local address, channel = origin()
    if address == nil or channel == nil or tvb:captured_len() == 0 then return false end
    if packets[pinfo.number] == nil and not addresses[address] and not known[address] then
        if not jovu.prefs.heuristic or not looks_like(channel, tvb:raw()) then return false end
        known[address] = true
    end
    return dissect(tvb, pinfo, tree) > 0
end

read_preferences()
jovu:register_heuristic("usb.bulk", recognise)
