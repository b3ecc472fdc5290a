-- Wireshark dissector for the Tavistro network protocol; docs/protocol.md, "Looking at the traffic".
-- Statistics at the end of tshark's output: -X lua_script:tavistro.lua -X lua_script1:stats
local arguments = { ... }
local unpack = string.unpack or Struct.unpack -- older versions of Lua lack the first
local MAGIC, VERSION, HEADER_BYTES = "TVSO", 5, 16
local CAPABILITY = UInt64(0x00050001, 0x5456534F) -- low and high 32 bits
local WRAP, HALF = 4294967296, 2147483648 -- of sequence numbers; integers in every version of Lua
local SLOTS = 8 -- for incomplete blocks in a client, by sequence number modulo 8
local LONGEST_GAP = 1024 -- a larger step is a jump
local RING = 2048 -- blocks that a stream remembers; divides WRAP

local TO_SERVER, TO_CLIENT = 1, 2
local DIRECTIONS = { "to the server", "to the client" }
local TYPES = { "Announce", "Audio", "Sync", "Discover", "DiscoverReply", "Ping", "Pong" }
local ANNOUNCE, AUDIO, SYNC, DISCOVER_REPLY, PING, PONG = 1, 2, 3, 5, 6, 7
local SENT = { TO_SERVER, nil, TO_CLIENT, TO_SERVER, TO_CLIENT, TO_SERVER, TO_CLIENT } -- by type; audio goes both ways

local tavistro = Proto("tavistro", "Tavistro audio protocol")

local f = {}
local function fields(kind, names, ...) -- "first_channel" has the title "First channel"
    for name in names:gmatch("%S+") do
        local title = name:gsub("^block%.", ""):gsub("_", " "):gsub("^%l", string.upper)
        f[name] = ProtoField[kind]("tavistro." .. name, title, ...)
    end
end
local function unit(text)
    return base.UNIT_STRING, { " " .. text }
end
fields("string", "magic")
fields("uint16", "type", base.DEC, TYPES)
fields("uint16", "version port inputs outputs frames channels first_channel channel_count first_frame frame_count")
fields("uint16", "fragment_index fragment_count block.channels block.frames")
fields("uint32", "client_id reply_version sequence missing")
fields("uint32", "length", unit("bytes"))
fields("uint32", "session_id", base.HEX)
fields("uint32", "input_latency output_latency", unit("blocks"))
fields("uint32", "sample_rate", unit("Hz"))
fields("int32", "input_channel output_channel")
fields("uint64", "nonce capability", base.HEX)
fields("uint64", "frame_position")
fields("uint64", "time t1 t2 t3", unit("ns"))
fields("bytes", "reserved samples data")
fields("float", "sample block.peak")
fields("uint8", "direction", base.DEC, DIRECTIONS)
fields("bool", "leave")
fields("uint32", "interval rtt discovery_time", unit("µs"))
fields("framenum", "ping_in discover_in", base.NONE, frametype.REQUEST)
fields("framenum", "pong_in discover_reply_in", base.NONE, frametype.RESPONSE)
fields("framenum", "duplicate_of reassembled_in fragment")
fields("none", "block")
tavistro.fields = f
local e = {}
local function experts(group, severity, titles)
    for name, title in pairs(titles) do
        e[name] = ProtoExpert.new("tavistro.expert." .. name, title, expert.group[group], expert.severity[severity])
    end
end
experts("MALFORMED", "ERROR", {
    length = "Wrong length", trailing = "Bytes after the message", version = "Other protocol version",
    type = "Unknown message type", client_id = "No client id", value = "Value that the receiver rejects",
    rectangle = "Fragment that is empty or not within its block",
})
experts("SEQUENCE", "WARN", { missing = "Missing blocks", late = "Late block", jump = "Jump of the sequence number" })
experts("SEQUENCE", "NOTE", { duplicate = "Duplicate", format = "New stream format" })
experts("REASSEMBLE", "WARN", { incomplete = "Incomplete block" })
experts("PROTOCOL", "WARN", { incompatible = "Incompatible server" })
experts("PROTOCOL", "NOTE", { reserved = "Reserved bytes that are not 0", segments = "Followed by more messages" })
tavistro.experts = e
tavistro.prefs.port = Pref.uint("UDP port", 28010, "The server's port, where malformed datagrams are shown too")
tavistro.prefs.samples = Pref.bool("Show each sample", false, "Adds every sample as tavistro.sample; slow")

--- Offset, bytes and name of a message's fields, those of the header first.
local function layout(names_and_bytes)
    local items, offset = {}, 0
    for name, bytes in ("magic 4 version 2 type 2 length 4 client_id 4 " .. names_and_bytes):gmatch("(%S+) (%d)") do
        table.insert(items, { offset, tonumber(bytes), name })
        offset = offset + tonumber(bytes)
    end
    return items
end
local HEADER, LAYOUTS = layout(""), { -- by type
    layout("inputs 2 outputs 2 session_id 4 input_latency 4 output_latency 4"),
    layout("sequence 4 sample_rate 4 frames 2 channels 2 first_channel 2 channel_count 2 "
        .. "first_frame 2 frame_count 2 fragment_index 2 fragment_count 2 reserved 8"),
    layout("sequence 4 sample_rate 4 frames 2 reserved 2 frame_position 8 time 8"),
    layout("nonce 8 reserved 8"),
    layout("nonce 8 port 2 reserved 6 reply_version 4 capability 8 reserved 4"),
    layout("nonce 8 t1 8"),
    layout("nonce 8 t1 8 t2 8 t3 8"),
}

--- Reads a message of `size` bytes: its values and what is wrong with it. The capture may have cut it: `whole` says
--- that all values at fixed offsets are there.
local function parse(tvb, size)
    local m = { size = size, captured = tvb:len(), faults = {} }
    local function check(good, name, ...)
        if not good then table.insert(m.faults, { name, string.format(...) }) end
    end
    check(m.size >= HEADER_BYTES, "length", "%d bytes are less than a header", m.size)
    m.layout = HEADER
    if m.captured < HEADER_BYTES then return m end
    m.version, m.type = tvb(4, 2):le_uint(), tvb(6, 2):le_uint()
    m.length, m.client_id = tvb(8, 4):le_uint(), tvb(12, 4):le_uint()
    check(m.version == VERSION, "version", "Version %d instead of %d", m.version, VERSION)
    check(m.version ~= VERSION or LAYOUTS[m.type], "type", "Unknown type %d", m.type)
    check(m.length == m.size, "length", "%d bytes, but the header says %d", m.size, m.length)
    check(m.client_id ~= 0, "client_id", "The client id is 0")
    if m.version ~= VERSION or not LAYOUTS[m.type] then return m end
    m.layout = LAYOUTS[m.type]
    local needed
    for _, item in ipairs(m.layout) do
        local offset, bytes, name = table.unpack(item)
        needed = offset + bytes
        if needed <= m.captured and name ~= "reserved" then
            m[name] = bytes == 8 and tvb(offset, 8):le_uint64() or tvb(offset, bytes):le_uint()
        end
    end
    m.whole, m.lists_at = m.captured >= needed, needed
    if m.whole and m.type == ANNOUNCE then
        needed = needed + 4 * (m.inputs + m.outputs)
        m.leave = m.inputs + m.outputs + m.input_latency + m.output_latency == 0
        check(m.session_id ~= 0, "value", "The session id is 0")
    elseif m.whole and m.type == AUDIO then
        local end_channel, end_frame = m.first_channel + m.channel_count, m.first_frame + m.frame_count
        needed = needed + 4 * m.channel_count * m.frame_count
        check(m.channel_count > 0 and end_channel <= m.channels and m.frame_count > 0 and end_frame <= m.frames
            and m.fragment_index < m.fragment_count, "rectangle",
            "%d channels from %d, %d frames from %d, index %d of %d in a block of %d channels, %d frames",
            m.channel_count, m.first_channel, m.frame_count, m.first_frame, m.fragment_index, m.fragment_count,
            m.channels, m.frames)
    elseif m.whole and m.type == DISCOVER_REPLY then
        check(m.port ~= 0, "value", "The port is 0")
    end
    m.rest_at = needed
    if m.length == m.size then
        check(m.size >= needed, "length", "%d bytes instead of %d", m.size, needed)
        check(not m.whole or m.size <= needed, "trailing", "%d bytes after the message", m.size - needed)
    end
    return m
end

-- What frames say about each other: filled when a frame is seen for the first time, read whenever it is shown.
local records, streams -- by frame number and offset in the datagram; by sender, receiver and client id
local roles, requests -- in which direction an endpoint sends; Discover and Ping, by what the answer repeats
local addresses, address_numbers

function tavistro.init()
    records, streams, roles, requests, addresses, address_numbers = {}, {}, {}, {}, {}, {}
end

--- A key for address and port. The text of an address is none: with name resolution it can change between two
--- frames, and two addresses can have the same name.
local function endpoint(address, port)
    local text = tostring(address)
    local number = address_numbers[text]
    if not number or addresses[number] ~= address then
        number = 1
        while addresses[number] and addresses[number] ~= address do number = number + 1 end
        addresses[number], address_numbers[text] = address, number
    end
    return string.format("%d:%d", number, port)
end

local function microseconds(seconds)
    return math.floor(math.max(seconds, 0) * 1e6 + 0.5)
end

local function is_newer(a, b) -- sequence numbers
    return a ~= b and (a - b) % WRAP < HALF
end

--- An expert item of the frame, counted by its name.
local function event(record, name, ...)
    table.insert(record.events, { name, string.format(...) })
    record[name] = 1
end

--- The sequence of notices or blocks of a stream; a new one for a new format, as in the client.
local function track_of(stream, m, record)
    local track, format = stream[m.type], string.format("%d Hz, %d frames", m.sample_rate, m.frames)
    if m.sample_rate == 0 or m.frames == 0 then format = track and track.format end
    local is_new = track and track.format and track.format ~= format
    if is_new then event(record, "format", "%s, before: %s", format, track.format) end
    -- missing, seen: rings by sequence number. slots: incomplete blocks.
    if is_new or not track then track = { missing = {}, seen = {}, slots = {} } end
    track.format, stream[m.type] = format, track
    return track
end

--- Takes a number that was not there before. False if a newer one was; otherwise counts what is missing between.
local function advance(track, sequence, record)
    if track.newest and not is_newer(sequence, track.newest) then
        local ring = sequence % RING
        if track.missing[ring] == sequence then track.missing[ring], record.missing = nil, -1 end -- corrects the count
        return false
    end
    local gap = track.newest and (sequence - track.newest) % WRAP - 1 or 0
    if gap > LONGEST_GAP then
        event(record, "jump", "The number jumps by %d", gap + 1)
    elseif gap > 0 then
        event(record, "missing", "%d missing before %d", gap, sequence)
        record.missing = gap
        for number = track.newest + 1, track.newest + gap do track.missing[number % RING] = number % WRAP end
    end
    track.newest = sequence
    return true
end

local function observe_sync(track, m, record, now)
    local before, ring = track.newest, m.sequence % RING
    if track.seen[ring] == m.sequence then return event(record, "duplicate", "Sync %d was there", m.sequence) end
    record.blocks = 1
    if not advance(track, m.sequence, record) then
        event(record, "late", "Sync %d after %d", m.sequence, track.newest)
    else
        if before and m.sequence == (before + 1) % WRAP and m.sample_rate > 0 then
            record.interval = microseconds(now - track.time)
            record.jitter = math.abs(record.interval - microseconds(m.frames / m.sample_rate))
        end
        track.time = now
    end
    if not track.seen[ring] or is_newer(m.sequence, track.seen[ring]) then track.seen[ring] = m.sequence end
end

--- Adds the levels of a fragment to the peaks of its block. NaN stays.
local function add_peaks(block, m, tvb)
    block.cut = block.cut or m.captured < m.size
    if block.cut then return end
    local bytes, position = tvb:raw(m.lists_at), 1
    for channel = m.first_channel, m.first_channel + m.channel_count - 1 do
        local peak = block.peaks[channel] or 0
        for frame = 1, m.frame_count, 64 do -- few enough to be on Lua's stack at once
            local count = math.min(64, m.frame_count - frame + 1)
            local samples = { unpack("<" .. ("f"):rep(count), bytes, position) }
            for i = 1, count do
                local level = math.abs(samples[i])
                if level > peak or level ~= level then peak = level end
            end
            position = position + 4 * count
        end
        block.peaks[channel] = peak
    end
end

--- Starts a block as the client does: it replaces an older incomplete one in its slot; a newer one keeps the slot.
local function open_block(track, m, record)
    local slot, ring = m.sequence % SLOTS, m.sequence % RING
    local block = { sequence = m.sequence, channels = m.channels, frames = m.frames, count = m.fragment_count,
                    received = 0, parts = {}, peaks = {} }
    local other = track.slots[slot]
    block.closed = other and is_newer(other.sequence, m.sequence)
    if other and not block.closed then
        event(record, "incomplete", "Block %d: %d of %d fragments", other.sequence, other.received, other.count)
        other.closed = true
    end
    if not block.closed then track.slots[slot] = block end
    if not track.seen[ring] or not is_newer(track.seen[ring].sequence, m.sequence) then track.seen[ring] = block end
    return block
end

local function observe_audio(track, m, record, number, tvb)
    local block = track.seen[m.sequence % RING]
    local known = block and block.sequence == m.sequence
    if not known then advance(track, m.sequence, record) end
    if not known or not (block.done or block.closed)
        and (block.channels ~= m.channels or block.count ~= m.fragment_count) then
        block = open_block(track, m, record)
    end
    record.block = block
    if block.closed then
        event(record, "late", "Block %d was given up", m.sequence)
        record.late, block.late = not block.late and 1 or nil, true -- counts it once
        return
    elseif block.done or block.parts[m.fragment_index] then
        record.duplicate_of = block.parts[m.fragment_index] or block.done
        return event(record, "duplicate", "Fragment %d of block %d was there", m.fragment_index, m.sequence)
    end
    block.parts[m.fragment_index], block.received = number, block.received + 1
    add_peaks(block, m, tvb)
    if block.received < block.count then return end
    block.done, record.blocks = number, 1
    track.slots[m.sequence % SLOTS] = nil
    if track.complete and not is_newer(m.sequence, track.complete) then
        event(record, "late", "Block %d is complete after %d", m.sequence, track.complete)
    else
        track.complete = m.sequence
    end
end

local function observe_request(m, record, number, now, key)
    local request, is_ping = requests[key], m.type == PING or m.type == PONG
    if SENT[m.type] == TO_SERVER then
        requests[key] = request or { frame = number, time = now, field = is_ping and "pong_in" or "discover_reply_in" }
        record.request = requests[key]
    elseif request then
        record[is_ping and "ping_in" or "discover_in"] = request.frame
        if request.answer then return end
        request.answer = number
        local total, hold = now - request.time, is_ping and m.t3 > m.t2 and (m.t3 - m.t2):tonumber() / 1e9 or 0
        record[is_ping and "rtt" or "discovery_time"] = microseconds(total > hold and total - hold or total)
    end
end

--- What is to know about a message that is seen for the first time.
local function observe(m, tvb, pinfo)
    local from, to = endpoint(pinfo.src, pinfo.src_port), endpoint(pinfo.dst, pinfo.dst_port)
    local good, direction, port = m.whole and #m.faults == 0, SENT[m.type], tavistro.prefs.port
    if good and direction then roles[from], roles[to] = direction, 3 - direction end
    direction = direction or roles[from]
        or pinfo.dst_port == port and TO_SERVER or pinfo.src_port == port and TO_CLIENT or nil
    local key = string.format("%s/%s/%s", from, to, m.client_id)
    local stream = streams[key] or { client_id = m.client_id or 0, ends = string.format("%s:%d > %s:%d",
        tostring(pinfo.src), pinfo.src_port, tostring(pinfo.dst), pinfo.dst_port) }
    stream.direction, streams[key] = stream.direction or direction, stream
    local record = { type = m.type, stream = stream, bytes = m.size, malformed = math.min(#m.faults, 1), events = {} }
    if good and m.type == SYNC then
        observe_sync(track_of(stream, m, record), m, record, pinfo.abs_ts)
    elseif good and m.type == AUDIO then
        observe_audio(track_of(stream, m, record), m, record, pinfo.number, tvb)
    elseif good and m.nonce then -- with t1, if the message has it
        key = string.format("%s/%d/", direction == TO_SERVER and from or to, m.client_id)
        observe_request(m, record, pinfo.number, pinfo.abs_ts, key .. tvb:raw(16, m.t1 and 16 or 8))
    end
    return record
end

--- Adds what is not in the datagram, if it is known: field, value, text.
local function add(tree, name, ...)
    if ... then tree:add(f[name], ...):set_generated() end
end

local function show_list(tree, tvb, name, offset, count)
    for at = offset, math.min(offset + 4 * count, tvb:len()) - 4, 4 do
        tree:add_le(f[name], tvb(at, 4))
    end
end

local function show_samples(m, tvb, tree)
    local bytes = 4 * m.frame_count
    for i = 0, bytes > 0 and m.channel_count - 1 or -1 do
        local offset = m.lists_at + i * bytes
        if offset + bytes > m.captured then return end
        local item = tree:add(f.samples, tvb(offset, bytes))
        local text = "Samples: channel %d, %d frames from %d"
        item:set_text(string.format(text, m.first_channel + i, m.frame_count, m.first_frame))
        if tavistro.prefs.samples then show_list(item, tvb, "sample", offset, m.frame_count) end
    end
end

local function show_block(block, tree)
    local text = string.format("Block %d: %d channels, %d frames", block.sequence, block.channels, block.frames)
    local item = tree:add(f.block):set_text(text):set_generated()
    add(item, "block.channels", block.channels)
    add(item, "block.frames", block.frames)
    for index = 0, block.count - 1 do add(item, "fragment", block.parts[index]) end
    for channel = 0, block.cut and -1 or block.channels - 1 do
        local peak = block.peaks[channel] -- none if no fragment has the channel
        add(item, "block.peak", peak, peak and string.format("Channel %d: peak %.6f (%.1f dBFS)", channel, peak,
            20 * math.log(peak) / math.log(10)))
    end
end

local function show_record(record, tree)
    local block = record.block
    add(tree, "direction", record.stream.direction)
    add(tree, "missing", (record.missing or 0) > 0 and record.missing)
    for _, name in ipairs({ "interval", "rtt", "discovery_time", "ping_in", "discover_in", "duplicate_of" }) do
        add(tree, name, record[name])
    end
    if record.request then add(tree, record.request.field, record.request.answer) end
    if record.blocks and block then
        show_block(block, tree)
    elseif block and not record.duplicate_of then
        add(tree, "reassembled_in", block.done)
    end
    for _, found in ipairs(record.events) do tree:add_proto_expert_info(e[found[1]], found[2]) end
end

local function info(m, record)
    local text = TYPES[m.type] or "Datagram"
    if m.whole and m.type == AUDIO then
        text = string.format("%s %d %d/%d ch %d-%d", text, m.sequence, m.fragment_index + 1, m.fragment_count,
            m.first_channel, m.first_channel + m.channel_count - 1)
    elseif m.sequence then
        text = string.format("%s %d", text, m.sequence)
    elseif record.rtt then
        text = string.format("%s after %d µs", text, record.rtt)
    elseif m.leave then
        text = text .. " leave"
    end
    for _, list in ipairs({ m.faults, record.events }) do
        for _, found in ipairs(list) do text = string.format("%s [%s]", text, found[1]) end
    end
    return text
end

local function show(m, tvb, tree)
    local root, items, shown = tree:add(tavistro, tvb()), {}, 0
    for _, item in ipairs(m.layout) do
        local offset, bytes, name = table.unpack(item)
        if offset + bytes > m.captured then break end
        items[name], shown = root:add_le(f[name], tvb(offset, bytes)), offset + bytes
        if name == "reserved" and tvb:raw(offset, bytes):find("[^\0]") then
            items.reserved:add_proto_expert_info(e.reserved)
        end
    end
    if m.whole then shown = math.min(m.rest_at, m.captured) end
    if m.whole and m.type == ANNOUNCE then
        add(root, "leave", m.leave)
        show_list(root, tvb, "input_channel", m.lists_at, m.inputs)
        show_list(root, tvb, "output_channel", m.lists_at + 4 * m.inputs, m.outputs)
    elseif m.whole and m.type == AUDIO then
        show_samples(m, tvb, root)
    elseif m.whole and m.type == DISCOVER_REPLY then
        local compatible = m.capability == CAPABILITY and m.reply_version == VERSION
        items.capability:append_text(compatible and " (compatible)" or " (incompatible)")
        if not compatible then items.capability:add_proto_expert_info(e.incompatible) end
    end
    if shown < m.captured then root:add(f.data, tvb(shown)) end
    for _, found in ipairs(m.faults) do
        (items[found[1]] or root):add_proto_expert_info(e[found[1]], found[2])
    end
    return root
end

local function has_magic(tvb, offset)
    return tvb:len() >= offset + #MAGIC and tvb:raw(offset, #MAGIC) == MAGIC
end

--- A datagram may have several messages if the capture took it before the sender's system split it.
function tavistro.dissector(tvb, pinfo, tree)
    if not has_magic(tvb, 0) then return 0 end
    local known, offset, texts = records[pinfo.number], 0, {}
    if not known and not pinfo.in_error_pkt then records[pinfo.number] = {} end
    while offset < tvb:len() do
        local size, length = tvb:reported_len() - offset, offset + 12 <= tvb:len() and tvb(offset + 8, 4):le_uint() or 0
        local more = length >= HEADER_BYTES and length < size
            and (has_magic(tvb, offset + length) or tvb:len() < math.min(offset + length + #MAGIC, tvb:reported_len()))
        if more then size = length end
        local part = tvb(offset, math.min(size, tvb:len() - offset)):tvb()
        local m = parse(part, size)
        local root = show(m, part, tree)
        if more then root:add_proto_expert_info(e.segments) end
        if not pinfo.in_error_pkt then -- an ICMP message that quotes a datagram does not send it again
            local record = known and known[offset] or observe(m, part, pinfo)
            records[pinfo.number][offset] = record
            show_record(record, root)
            table.insert(texts, info(m, record))
        end
        offset = offset + size
    end
    if pinfo.in_error_pkt then return tvb:len() end
    pinfo.cols.protocol:set("Tavistro")
    pinfo.cols.info:set(table.concat(texts, "; "))
    return tvb:len()
end

--- On any port: valid headers, and whatever has the magic once a valid message came from or went to the endpoint.
local function heuristic(tvb, pinfo, tree)
    if not has_magic(tvb, 0) then return false end
    local valid = tvb:len() >= HEADER_BYTES and tvb(4, 2):le_uint() == VERSION
        and tvb(8, 4):le_uint() >= HEADER_BYTES and tvb(8, 4):le_uint() <= tvb:reported_len()
    local known = records[pinfo.number] or not pinfo.visited and not pinfo.in_error_pkt
        and (roles[endpoint(pinfo.src, pinfo.src_port)] or roles[endpoint(pinfo.dst, pinfo.dst_port)])
    return (valid or known) and tavistro.dissector(tvb, pinfo, tree) > 0
end

local port
local function register()
    local ports = DissectorTable.get("udp.port")
    if port then ports:remove(port, tavistro) end
    port = tavistro.prefs.port
    ports:add(port, tavistro)
end
register()
tavistro.prefs_changed = register
tavistro:register_heuristic("udp", heuristic)

local TIMES = { "interval", "jitter", "rtt" }

--- Calls `output` with the statistics, a text, whenever Wireshark wants them drawn.
local function statistics(output)
    local tap, order, sums = Listener.new("frame", "tavistro"), {}, {}

    function tap.reset() order, sums = {}, {} end

    function tap.packet(pinfo)
        for _, record in pairs(records[pinfo.number] or {}) do
            local sum = sums[record.stream]
            if not sum then
                sum = { stream = record.stream, datagrams = 0, bytes = 0, malformed = 0 }
                order[#order + 1], sums[record.stream] = sum, sum
            end
            sum.datagrams, sum.bytes, sum.malformed = sum.datagrams + 1, sum.bytes + record.bytes,
                sum.malformed + record.malformed
            if record.malformed == 0 and (record.type == SYNC or record.type == AUDIO) then
                local counts = sum[record.type] or { blocks = 0, incomplete = 0, missing = 0, late = 0, duplicate = 0 }
                for name, count in pairs(counts) do counts[name] = count + (record[name] or 0) end
                sum[record.type] = counts
            end
            for _, name in ipairs(TIMES) do
                local time = record[name]
                if time then
                    local times = sum[name] or { count = 0, total = 0, min = time, max = time }
                    times.count, times.total = times.count + 1, times.total + time
                    times.min, times.max = math.min(times.min, time), math.max(times.max, time)
                    sum[name] = times
                end
            end
        end
    end

    function tap.draw()
        local text = ""
        local function write(...) text = text .. string.format(...) end
        for _, sum in ipairs(order) do
            write("Client %d %s, %s: %d datagrams, %d bytes, %d malformed\n", sum.stream.client_id,
                DIRECTIONS[sum.stream.direction] or "in unknown direction", sum.stream.ends, sum.datagrams, sum.bytes,
                sum.malformed)
            for _, type in ipairs({ SYNC, AUDIO }) do
                local counts = sum[type]
                if counts then
                    write("  %s: %d blocks, %d incomplete, %d missing, %d late, %d duplicate\n", TYPES[type],
                        counts.blocks, counts.incomplete, counts.missing, counts.late, counts.duplicate)
                end
            end
            for _, name in ipairs(TIMES) do
                local times = sum[name]
                if times then
                    write("  %s: %.3f ms min, %.3f ms mean, %.3f ms max, %d values\n", name, times.min / 1e3,
                        times.total / times.count / 1e3, times.max / 1e3, times.count)
                end
            end
        end
        output(text)
    end
    return tap
end

if gui_enabled() then
    register_menu("Tavistro statistics", function()
        local window = TextWindow.new("Tavistro statistics")
        local tap = statistics(function(text) window:set(text) end)
        window:set_atclose(function() tap:remove() end)
        retap_packets()
    end, MENU_TOOLS_UNSORTED)
elseif arguments[1] == "stats" then
    statistics(print)
end
