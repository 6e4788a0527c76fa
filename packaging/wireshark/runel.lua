-- SPDX-License-Identifier: Apache-2.0
-- Wireshark dissector of the protocol of runeld, which docs/protocol.md describes: frames with requests
-- and replies, and the XML clauses of agents and bridges. docs/wireshark.md says how to install it.
--
-- Replies carry no number: they are matched with requests by their order. So the first pass over a
-- capture keeps a state for each connection and decides what each packet contains: a list of items, the
-- plan of the packet. Wireshark shows packets again in any order; then the plan is only displayed.
--
-- All work is linear in the captured bytes. A frame announces its length, so Wireshark reassembles it
-- once. Wireshark itself needs quadratic time for frames of very many segments: of a longer frame than the
-- preference allows, only the first and the last bytes are kept and displayed. The length of a clause is
-- unknown, and each attempt to reassemble it costs its length: after MAX_ATTEMPTS or MAX_CLAUSE bytes, the
-- search for its end continues without its earlier segments.

-- luacheck: std lua52
-- luacheck: read globals Proto ProtoField ProtoExpert Pref Field NSTime DissectorTable DESEGMENT_ONE_MORE_SEGMENT
-- luacheck: read globals base expert frametype

local PORTS = {device = "5111", master = "5112"}
local MAX_PAYLOAD = 268435456
local MAX_DIGITS = 9
local MAX_CLAUSE = 65536      -- longest clause that is reassembled
local MAX_ATTEMPTS = 64       -- most segments of a clause that is reassembled
local MAX_STRING = 65536      -- longest part of a string that is displayed and searched
local MAX_ARGS = 1000         -- most arguments of a record that are displayed
local MAX_PARSED = 65536      -- most arguments of a record that are read
local MAX_FRAME = 16777216    -- longest frame that is reassembled: a preference
local WINDOW_OF_NUMBER = 16   -- bytes that hold a number with what surrounds it
local KEPT = 4096             -- first and last bytes of a longer frame that are kept
local MAX_INFO = 200          -- longest part of a packet's line
local MAX_SHOWN = 60          -- longest part of an argument in a packet's line
local WINDOW = 4096           -- bytes that a reader copies at once
local RECORD = "SlaveTask "

-- The arguments of each task, in their order. The task's name itself is not among them.
local TASKS = {
  access = {"path", "mode"},
  append = {"path", "data"},
  blinkleds = {"style"},
  changeleds = {"first", "second"},
  chmodx = {"path"},
  devicetype = {},
  exec = {"program", rest = "arg", least = 0},
  fileexists = {"path"},
  freeblocks = {"path"},
  hostid = {},
  kill = {},
  lstat = {"path"},
  processrunning = {"name"},
  read = {"path"},
  readdir = {"path"},
  realpath = {"path"},
  reboot = {},
  rename = {"from", "to"},
  restart = {silent = true},
  stat = {"path"},
  unlink = {"path"},
  updateumstate = {"key", "state"},
  wait = {},
  walktree = {"path"},
  write = {"path", "data"},
}

local STATUS = {[0] = "success", "failure", "running", "timeout", "error"}
local STATE = {[0] = "none", "running", "exited", "signalled", "timed out"}

-- Numbers of most architectures. Those above 34 differ on MIPS.
local ERRNO = {
  [0] = "none", "EPERM", "ENOENT", "ESRCH", "EINTR", "EIO", "ENXIO", "E2BIG", "ENOEXEC", "EBADF", "ECHILD",
  "EAGAIN", "ENOMEM", "EACCES", "EFAULT", "ENOTBLK", "EBUSY", "EEXIST", "EXDEV", "ENODEV", "ENOTDIR",
  "EISDIR", "EINVAL", "ENFILE", "EMFILE", "ENOTTY", "ETXTBSY", "EFBIG", "ENOSPC", "ESPIPE", "EROFS",
  "EMLINK", "EPIPE", "EDOM", "ERANGE", "EDEADLK", "ENAMETOOLONG", "ENOLCK", "ENOSYS", "ENOTEMPTY", "ELOOP",
  [71] = "EPROTO", [75] = "EOVERFLOW", [95] = "EOPNOTSUPP", [110] = "ETIMEDOUT", [116] = "ESTALE",
}
local SIGNAL = {
  [0] = "none", "SIGHUP", "SIGINT", "SIGQUIT", "SIGILL", "SIGTRAP", "SIGABRT", "SIGBUS", "SIGFPE", "SIGKILL",
  "SIGUSR1", "SIGSEGV", "SIGUSR2", "SIGPIPE", "SIGALRM", "SIGTERM", "SIGSTKFLT", "SIGCHLD", "SIGCONT",
  "SIGSTOP", "SIGTSTP", "SIGTTIN", "SIGTTOU", "SIGURG", "SIGXCPU", "SIGXFSZ", "SIGVTALRM", "SIGPROF",
  "SIGWINCH", "SIGIO", "SIGPWR", "SIGSYS",
}

-- First bytes of programs that speak something else on these ports.
local OTHERS = {
  {"SSH-", "SSH"}, {"HTTP/", "HTTP"}, {"GET ", "HTTP"}, {"POST ", "HTTP"}, {"HEAD ", "HTTP"},
  {"\21\3", "TLS"}, {"\22\3", "TLS"}, {"\255\251", "telnet"}, {"\255\253", "telnet"},
}

local runel = Proto("runel", "runeld tasks and clauses")

-- Fields --------------------------------------------------------------------------------------------------

local F = {}      -- by name, without "runel."
local listed = {}

local function field(kind, name, title, ...)
  F[name] = ProtoField[kind]("runel." .. name, title, ...)
  listed[#listed + 1] = F[name]
end

field("string", "connection", "Connection")
field("none", "request", "Request")
field("none", "reply", "Reply")
field("uint32", "count", "COUNT")
field("bytes", "payload", "Payload")
field("uint32", "argc", "ARGC")
field("string", "task", "Task")
field("string", "arg", "ARG")
for _, name in ipairs({"path", "mode", "style", "first", "second", "program", "arg", "name", "from", "to",
                       "key", "state", "surplus", "unnamed"}) do
  field("string", "arg." .. name, name:upper())
end
field("bytes", "arg.data", "DATA")
field("uint32", "arg.data.length", "Length of DATA")
field("int32", "execparam", "EXECPARAM")
field("string", "output", "OUTPUT")
field("uint32", "output.length", "Length of OUTPUT")
field("uint32", "status", "STATUS", base.DEC, STATUS)
field("uint32", "state", "STATE", base.DEC, STATE)
field("int32", "result", "RESULT")
field("uint32", "errno", "ERRNO", base.DEC, ERRNO)
field("uint32", "signal", "SIGNAL", base.DEC, SIGNAL)
field("string", "ignored.output", "OUTPUT (ignored)")
for _, name in ipairs({"status", "state", "errno", "signal"}) do
  field("uint32", "ignored." .. name, name:upper() .. " (ignored)")
end
field("int32", "ignored.result", "RESULT (ignored)")
field("framenum", "reply_in", "Reply in frame", base.NONE, frametype.RESPONSE)
field("framenum", "request_in", "Request in frame", base.NONE, frametype.REQUEST)
field("relative_time", "time", "Time since the request")
field("string", "clause", "Clause")
field("string", "clause.name", "Name of the clause")
field("uint32", "clause.length", "Length of the clause")
field("framenum", "clause.begins_in", "The clause begins in frame")
field("none", "ping", "Ping")
field("bytes", "blanks", "Blanks")
field("bytes", "continuation", "Continuation")
field("framenum", "continuation.of", "The message begins in frame")
field("bytes", "discarded", "Discarded bytes")
field("bytes", "unknown", "Unknown bytes")
runel.fields = listed

local E = {}
local experts = {}

local function expert_info(name, title, kind, severity)
  E[name] = ProtoExpert.new("runel." .. name, title, expert.group[kind], expert.severity[severity])
  experts[#experts + 1] = E[name]
end

expert_info("unknown_task", "Unknown task", "PROTOCOL", "NOTE")
expert_info("few_arguments", "Too few arguments", "PROTOCOL", "NOTE")
expert_info("surplus_arguments", "Surplus arguments are ignored", "PROTOCOL", "NOTE")
expert_info("malformed_record", "Malformed record", "MALFORMED", "WARN")
expert_info("not_a_record", "Not a record: no reply", "MALFORMED", "WARN")
expert_info("bad_frame", "Bad frame: the connection is closed", "MALFORMED", "ERROR")
expert_info("discarded_bytes", "Discarded after a bad frame", "MALFORMED", "NOTE")
expert_info("blocked", "Blocks the relay", "PROTOCOL", "WARN")
expert_info("sentinel", "Byte of a frame among clauses: stops the daemon", "MALFORMED", "ERROR")
expert_info("unknown_protocol", "Neither a frame nor a clause", "PROTOCOL", "NOTE")
expert_info("gap", "Bytes are missing in the capture", "SEQUENCE", "NOTE")
expert_info("cut", "The capture holds a part of this message only", "SEQUENCE", "NOTE")
expert_info("many_arguments", "More arguments than are read here", "PROTOCOL", "NOTE")
expert_info("guess", "Matched after a gap: a guess", "SEQUENCE", "NOTE")
expert_info("no_request", "No request for this reply", "SEQUENCE", "NOTE")
runel.experts = experts

runel.prefs.device_ports = Pref.range("Device ports", PORTS.device,
  "Ports on which runeld listens for task clients and the agent", 65535)
runel.prefs.master_ports = Pref.range("Master ports", PORTS.master,
  "Ports on which masters listen for runeld", 65535)

runel.prefs.longest_frame = Pref.uint("Longest frame to reassemble (MiB)", MAX_FRAME / 1048576,
  "Of longer frames, the first and the last bytes are displayed")

-- Values that other dissectors found in the packet. The first pass of "tshark -2" without a filter has
-- none: then lost segments are not detected.
local get_stream = Field.new("tcp.stream")
local get_seq = Field.new("tcp.seq_raw")
local get_relative = Field.new("tcp.seq")
local get_ack = Field.new("tcp.ack_raw")
local get_length = Field.new("tcp.len")
local get_completeness = Field.new("tcp.completeness")
local get_time = Field.new("frame.time_epoch")

-- Numbers and texts ---------------------------------------------------------------------------------------

-- The value of the innermost layer: a tunnel has several.
local function last(get)
  local all = {get()}
  local info = all[#all]
  return info and info.value
end

-- How far the sequence number @a is behind @b, negative if before it.
local function distance(a, b)
  return (a - b + 2147483648) % 4294967296 - 2147483648
end

local function advance(seq, count)
  return (seq + count) % 4294967296
end

-- The length of the UTF-8 character at @at, nil if it is not one.
local function utf8_length(text, at)
  local first, second = text:byte(at, at + 1)
  local length = first < 0xc2 and 0 or first < 0xe0 and 2 or first < 0xf0 and 3 or first < 0xf5 and 4 or 0
  if length == 0 or not second then
    return nil
  end
  if (first == 0xe0 and second < 0xa0) or (first == 0xed and second > 0x9f) or
     (first == 0xf0 and second < 0x90) or (first == 0xf4 and second > 0x8f) then
    return nil
  end
  local rest = text:sub(at + 1, at + length - 1)
  return #rest == length - 1 and not rest:find("[^\128-\191]") and length or nil
end

local function fix_run(run)
  local parts, at = {}, 1
  while at <= #run do
    local length = utf8_length(run, at)
    parts[#parts + 1] = length and run:sub(at, at + length - 1) or "\239\191\189"
    at = at + (length or 1)
  end
  return table.concat(parts)
end

-- Valid UTF-8 without zero bytes, which would end a string of Wireshark.
local function readable(raw)
  return (raw:gsub("[\128-\255]+", fix_run):gsub("\0", "\226\144\128"))
end

-- One line of printable characters, as in C, for labels and the packet list.
local function escaped(raw, most)
  local text = raw:sub(1, most)
  local cut = #raw > #text
  text = readable(text:gsub("\\", "\\\\"):gsub("[\1-\31\127]", function(byte)
    return byte == "\n" and "\\n" or byte == "\t" and "\\t" or string.format("\\x%02x", byte:byte())
  end):gsub("\0", "\\x00"))
  return text .. (cut and "..." or "")
end

local function quoted(raw, length)
  local text = escaped(raw, MAX_SHOWN)
  if length > #raw and #raw <= MAX_SHOWN then
    text = text .. "..."
  end
  if text == "" or text:find("[ \"'\\]") then
    text = '"' .. text:gsub('"', '\\"') .. '"'
  end
  return text
end

local function plural(count, what)
  return string.format("%d %s%s", count, what, count == 1 and "" or "s")
end

-- Reading -------------------------------------------------------------------------------------------------

-- Returns a function read(pos, count): the captured bytes of [pos, pos + count). It copies a window of the
-- buffer at a time, so that neither a large nor a small message is copied often.
local function reader(tvb)
  local limit = tvb:len()
  local from, window = 0, ""
  return function(pos, count)
    if pos >= limit then
      return ""
    end
    local stop = math.min(pos + count, limit)
    if pos < from or stop > from + #window then
      from = pos
      window = tvb:raw(pos, math.min(math.max(count, WINDOW), limit - pos))
    end
    return window:sub(pos - from + 1, stop - from)
  end
end

local function skip_blanks(read, pos)
  while true do
    local text = read(pos, 512)
    local found = text:find("[^ \t\r\n]")
    if found or text == "" then
      return pos + (found and found - 1 or 0)
    end
    pos = pos + #text
  end
end

-- The header of a frame at @pos, whose first byte is 0x01. Returns the length of the header and the count;
-- or nil and what is wrong; or nil alone if more bytes are needed.
local function parse_header(read, pos)
  local text = read(pos + 1, MAX_DIGITS + 1)
  local digits = text:match("^%d*")
  if #digits > 1 and digits:sub(1, 1) == "0" then
    return nil, "a count with a leading zero"
  elseif #digits > MAX_DIGITS then
    return nil, "a count of more than 9 digits"
  end
  local count = tonumber(digits) or 0
  if count > MAX_PAYLOAD then
    return nil, "a count above 268435456"
  end
  local ending = text:byte(#digits + 1)
  if not ending then
    return nil
  elseif ending ~= 2 then
    return nil, string.format("byte 0x%02x in a count", ending)
  elseif digits == "" then
    return nil, "an empty count"
  end
  return #digits + 2, count
end

-- Parses records strictly. `problem` tells what is malformed, `cut` that the capture ends within it.
local Parser = {}
Parser.__index = Parser

function Parser:fail(what)
  self.problem = self.problem or string.format("%s at byte %d", what, self.pos - self.at)
end

-- Whether the missing bytes behind @pos belong to the record but not to the capture.
function Parser:is_cut(pos)
  return pos >= self.limit and self.limit < self.stop
end

function Parser:text(count)
  return self.read(self.pos, math.min(count, self.stop - self.pos))
end

-- A number without the blank before it. Returns {at, length, value}.
function Parser:bare_number(name, signed)
  local text = self:text(12)
  local digits = text:match("^%-?%d+") or ""
  if self:is_cut(self.pos + #digits) then
    self.cut = true
    return nil
  end
  local value = tonumber(digits)
  if not value then
    return self:fail("no number for " .. name)
  elseif digits:sub(1, 1) == "-" and not signed then
    return self:fail(name .. " is negative")
  elseif digits:find("^0%d") or digits:find("^%-0") then
    return self:fail(name .. " with a leading zero")
  elseif value > 2147483647 or value < -2147483648 then
    return self:fail(name .. " with more than 32 bits")
  end
  local found = {at = self.pos, length = #digits, value = value}
  self.pos = self.pos + #digits
  return found
end

function Parser:byte(expected, what)
  if self:is_cut(self.pos) then
    self.cut = true
    return false
  elseif self:text(1) ~= expected then
    self:fail(what)
    return false
  end
  self.pos = self.pos + 1
  return true
end

function Parser:number(name, signed)
  if self.pos >= self.stop then
    return self:fail(name .. " is missing")
  end
  return self:byte(" ", "no blank before " .. name) and self:bare_number(name, signed) or nil
end

-- A string. Returns {at, length, from}: `from` is the position of its length.
function Parser:string(name)
  local length = self:number(name)
  if not length or not self:byte(":", "no colon in " .. name) then
    return nil
  elseif length.value > self.stop - self.pos then
    return self:fail(name .. " is longer than the record")
  end
  local found = {at = self.pos, length = length.value, from = length.at}
  self.pos = self.pos + length.value
  return found
end

function Parser:args()
  for index = 1, self.argc.value do
    if index > MAX_PARSED then
      self.many = true
      return false
    end
    local arg = self:string("ARG")
    if not arg then
      return false
    end
    if index <= MAX_ARGS then
      self.list[index] = arg
    end
    self.parsed = index
  end
  return true
end

function Parser:tail()
  self.execparam = self:number("EXECPARAM", true)
  self.output = self.execparam and self:string("OUTPUT")
  self.status = self.output and self:number("STATUS")
  self.state = self.status and self:number("STATE")
  self.result = self.state and self:number("RESULT", true)
  self.errno = self.result and self:number("ERRNO")
  self.signal = self.errno and self:number("SIGNAL")
  if self.signal and self.pos < self.stop then
    self:fail("bytes after the last field")
  end
  self.complete = self.signal ~= nil and not self.problem
end

-- The record in the payload of @length bytes at @at, of which the capture holds those before @limit.
local function parse_record(read, at, length, limit)
  local parser = setmetatable({read = read, at = at, pos = at, stop = at + length, limit = limit, list = {},
                               parsed = 0}, Parser)
  local begin = read(at, math.min(#RECORD, length))
  if begin ~= RECORD:sub(1, #begin) or (#begin < #RECORD and limit >= parser.stop) then
    parser.foreign = true
    return parser
  elseif #begin < #RECORD then
    parser.cut = true
    return parser
  end
  parser.pos = at + #RECORD - 1
  parser.argc = parser:number("ARGC")
  if parser.argc and parser:args() then
    parser:tail()
  end
  local name = parser.list[1]
  if name and name.length <= 256 and name.at + name.length <= limit then
    parser.task = read(name.at, name.length)
  end
  return parser
end

-- Reads a long frame, of which only the first and the last bytes are known.
local function long_reader(frame)
  return function(pos, count)
    if pos < #frame.head then
      return frame.head:sub(pos + 1, pos + count)
    elseif pos >= frame.tail_at then
      return frame.tail:sub(pos - frame.tail_at + 1, pos - frame.tail_at + count)
    end
    return ""
  end
end

-- The record of a long frame.
local function parse_long(frame)
  local complete = frame.tail_at + #frame.tail == frame.size
  local record = parse_record(long_reader(frame), frame.header, frame.count,
                              complete and frame.size or #frame.head)
  if record.problem and record.pos + WINDOW_OF_NUMBER > #frame.head and record.pos < frame.tail_at then
    record.problem, record.cut = nil, true  -- between the bytes that are kept
  end
  return record
end

-- State of the first pass ---------------------------------------------------------------------------------

local connections, plans, first_lines = {}, {}, {}

function runel.init()
  connections, plans, first_lines = {}, {}, {}
end

local function has_port(range, port)
  for low, high in range:gmatch("(%d+)%-?(%d*)") do
    if port >= tonumber(low) and port <= tonumber(high ~= "" and high or low) then
      return true
    end
  end
  return false
end

-- Which end of the connection is the device. Ports decide; on other ports, the first request does.
local function sides(pinfo)
  if has_port(PORTS.device, pinfo.dst_port) then
    return true, "device"
  elseif has_port(PORTS.device, pinfo.src_port) then
    return false, "device"
  elseif has_port(PORTS.master, pinfo.src_port) then
    return true, "master"
  elseif has_port(PORTS.master, pinfo.dst_port) then
    return false, "master"
  end
  return nil, "other"
end

-- The same key for both directions.
local function addresses(pinfo)
  local one = string.format("%s %d", tostring(pinfo.src), pinfo.src_port)
  local two = string.format("%s %d", tostring(pinfo.dst), pinfo.dst_port)
  return one < two and one .. " " .. two or two .. " " .. one
end

local function connection_of(pinfo)
  local stream = last(get_stream) or addresses(pinfo)
  local connection = connections[stream]
  if not connection then
    local to_device, port = sides(pinfo)
    local completeness = last(get_completeness) or 0
    connection = {port = port, has_syn = completeness % 4 > 0, from_start = completeness % 4 > 0, queue = {},
                  head = 1, ways = {}}
    if to_device ~= nil then
      connection.device = to_device and pinfo.dst_port or pinfo.src_port
    end
    connections[stream] = connection
  end
  return connection
end

-- The state of one direction.
local function way_of(connection, pinfo)
  local key = tostring(pinfo.src) .. " " .. pinfo.src_port
  local way = connection.ways[key]
  if not way then
    way = {synced = connection.from_start, key = key}
    connection.ways[key] = way
    connection.order = connection.order or {}
    connection.order[#connection.order + 1] = way
  end
  if connection.port ~= "other" then
    way.to_device = (sides(pinfo))
  end
  return way
end

local function other_way(connection, way)
  for _, one in ipairs(connection.order) do
    if one ~= way then
      return one
    end
  end
end

-- A task's name if this is a request, and whether it gets a reply.
local function summary(record)
  local task = record.task
  local silent = record.foreign or (record.complete and task and TASKS[task] and TASKS[task].silent)
  return task, silent
end

local function add_request(connection, message)
  if not message.silent then
    connection.queue[#connection.queue + 1] = message
  end
end

local function take(connection)
  local message = connection.queue[connection.head]
  if message then
    connection.queue[connection.head] = false
    connection.head = connection.head + 1
  end
  return message
end

-- A reply can only answer a request that the device had received when it sent the reply.
local function match(connection, reply)
  local guess = connection.guess
  local message = connection.queue[connection.head]
  while message and message.gap do
    take(connection)
    connection.guess, guess = true, true
    message = connection.queue[connection.head]
  end
  if not message or (message.stop_seq and reply.ack and distance(reply.ack, message.stop_seq) < 0) then
    return
  end
  take(connection)
  message.reply = reply
  reply.request = message
  reply.guess = guess
  reply.task = message.task
  if connection.head > #connection.queue then
    connection.guess = false
  end
end

local settle

-- Gives the message its place in the order of its direction.
local function register(connection, way, message)
  if message.registered then
    return
  end
  message.registered = true
  if way.to_device == nil then
    way.to_device = message.argc ~= nil and message.argc > 0
    local other = other_way(connection, way)
    if other then
      other.to_device = not way.to_device
    end
  end
  message.is_request = way.to_device
  if way.to_device then
    add_request(connection, message)
    return
  end
  settle(connection, way, message.ack)
  match(connection, message)
end

-- Registers a request that the device has acknowledged, although the capture does not hold all of it.
function settle(connection, way, ack)
  local other = other_way(connection, way)
  local waiting = other and other.pending
  if waiting and waiting.message and not waiting.message.registered and
     (not ack or distance(ack, waiting.stop) >= 0) then
    register(connection, other, waiting.message)
  end
end

-- After lost replies: the requests that were sent before the master had received the byte at @seq may have
-- been answered by them.
local function forget_answered(connection, seq)
  local keep = #connection.queue + 1
  for index = connection.head, #connection.queue do
    local message = connection.queue[index]
    if message and message.ack and distance(message.ack, seq) >= 0 then
      keep = index
      break
    end
  end
  while connection.head < keep do
    take(connection)
  end
  connection.guess = connection.head <= #connection.queue
end

-- Scanning: what the bytes are ----------------------------------------------------------------------------

local Scan = {}
Scan.__index = Scan

function Scan:add(kind, at, length, values)
  local item = values or {}
  item.kind, item.at, item.length = kind, at, length
  self.items[#self.items + 1] = item
  return item
end

function Scan:seq_at(pos)
  return advance(self.seq, pos)
end

-- Asks for more bytes of the message at @pos. @missing is nil if their number is unknown. Returns false if
-- TCP does not reassemble.
function Scan:wait(pos, missing)
  if self.pinfo.can_desegment <= 0 or not self.whole then
    return false
  end
  self.desegment = {at = pos, missing = missing}
  local seq = self:seq_at(pos)
  local before = self.way.pending
  local again = before and before.start == seq
  self.way.pending = {start = seq, attempts = again and before.attempts + 1 or 1,
                      stop = missing and self:seq_at(self.stop + missing),
                      frame = again and before.frame or self.frame, message = again and before.message}
  self.way.next = seq
  return true
end

function Scan:message(read, at, length, limit)
  local record = parse_record(read, at, length, limit)
  local task, silent = summary(record)
  return {frame = self.frame, time = self.time, ack = self.ack, task = task, silent = silent,
          argc = record.argc and record.argc.value, stop_seq = self:seq_at(at + length)}
end

-- A frame whose header is complete but whose payload is not.
function Scan:partial_frame(pos, header, count)
  if header + count <= MAX_FRAME and self:wait(pos, pos + header + count - self.stop) then
    local pending = self.way.pending
    pending.message = pending.message or self:message(self.read, pos + header, count, self.captured)
    return
  end
  local message = self:message(self.read, pos + header, count, self.captured)
  register(self.connection, self.way, message)
  self:add("frame", pos, self.stop - pos, {header = header, count = count, message = message, begins = true})
  self.way.long_frame = {start = self:seq_at(pos), size = header + count, header = header, count = count,
                         message = message, head = self.read(pos, KEPT), tail = "", tail_at = 0}
  self:keep_tail(0, pos, self.stop - pos)
  self.way.next = self:seq_at(self.stop)
end

-- Keeps the last bytes of a long frame, of which @length bytes from @offset on are at @pos.
function Scan:keep_tail(offset, pos, length)
  local frame = self.way.long_frame
  local stop = offset + length
  if stop <= frame.size - KEPT then
    return
  elseif offset ~= frame.tail_at + #frame.tail then
    frame.tail, frame.tail_at = "", offset  -- bytes are missing before these
  end
  local first = math.max(0, length - KEPT)
  local text = self.read(pos + first, length - first)
  if first > 0 then
    frame.tail, frame.tail_at = "", offset + first
  end
  frame.tail = frame.tail .. text
  frame.tail_at = frame.tail_at + math.max(0, #frame.tail - KEPT)
  frame.tail = frame.tail:sub(-KEPT)
end

function Scan:finish(frame)
  local message = frame.message
  message.frame, message.time = self.frame, self.time
  message.task = message.task or parse_long(frame).task
  if message.reply then
    message.reply.task = message.task
  end
end

-- The next bytes of a long frame. Returns the position behind them.
function Scan:continue_frame(begin)
  local way = self.way
  local frame = way.long_frame
  if not frame then
    return begin
  end
  local offset = distance(self:seq_at(begin), frame.start)
  local length = math.min(frame.size - offset, self.stop - begin)
  if offset + length >= frame.size then
    way.long_frame = nil
  end
  if length <= 0 then
    return begin
  end
  way.long_frame = frame
  if offset == #frame.head and offset < KEPT then
    frame.head = frame.head .. self.read(begin, math.min(length, KEPT - offset))
  end
  self:keep_tail(offset, begin, length)
  if offset + length < frame.size then
    self:add("continuation", begin, length, {message = frame.message})
    return begin + length
  end
  way.long_frame = nil
  self:finish(frame)
  self:add("ending", begin, length, {frame = frame, message = frame.message})
  return begin + length
end

function Scan:frame_at(pos)
  local header, count = parse_header(self.read, pos)
  if not header and count then
    return nil, count
  end
  self.way.synced = self.way.synced or header ~= nil
  if not header then
    if self.captured < self.stop or not self:wait(pos) then
      self.way.synced = false
      self:add("unknown", pos, self.stop - pos, {cut = true})
      self:miss(self.stop)
    end
    return self.stop
  end
  if pos + header + count > self.stop then
    self:partial_frame(pos, header, count)
    return self.stop
  end
  local pending = self.way.pending
  local message = self:message(self.read, pos + header, count, self.captured)
  if pending and pending.message and pending.start == self:seq_at(pos) and pending.message.registered then
    local known = pending.message
    known.frame, known.time = message.frame, message.time
    message = known
  end
  register(self.connection, self.way, message)
  self:add("frame", pos, header + count, {header = header, count = count, message = message})
  return pos + header + count
end

-- Searches the next frame behind bytes of unknown meaning.
function Scan:resynchronize(pos)
  local raw = self.read(pos, self.stop - pos)
  local found = raw:find("\1%d%d?%d?%d?%d?%d?%d?%d?%d?\2" .. RECORD, 2)  -- not what is here
  local stop = found and pos + found - 1 or self.stop
  if stop > pos then
    self:add("unknown", pos, stop - pos, {lost = true})
    self:miss(stop)
  end
  self.way.synced = found ~= nil
  return stop
end

function Scan:frames(pos)
  local way = self.way
  while pos < self.stop do
    if way.dead then
      self:add("discarded", pos, self.stop - pos)
      return
    end
    local start = skip_blanks(self.read, pos)
    if start > pos then
      self:add("blanks", pos, math.min(start, self.stop) - pos)
    end
    pos = start
    if pos >= self.captured then
      way.synced = way.synced and self.captured == self.stop
      return
    end
    local problem, next_pos
    local first = self.read(pos, 1)
    if first == "\1" then
      next_pos, problem = self:frame_at(pos)
    else
      problem = string.format("byte 0x%02x where a frame must begin", first:byte())
    end
    if problem and way.synced then
      way.dead = true
      self:add("bad", pos, self.stop - pos, {problem = problem})
      return
    elseif problem then
      next_pos = self:resynchronize(pos)
    end
    pos = next_pos
  end
end

local function is_blocking(tag)
  local text = tag:sub(2, -2)
  if text:find("^/") then
    return "a closing tag without its opening tag"
  elseif text:find("^[?!]") then
    return "a declaration or a comment"
  elseif text:find("[ \t\r\n]") then
    return "a tag with attributes that does not close itself"
  end
end

-- Continues a clause that is too long to be reassembled. Returns the position behind it, or nil.
function Scan:long_clause(raw, stop)
  local long = self.way.long
  local text = long.tail .. raw:sub(1, stop)
  local _, last_byte = text:find(long.closing, 1, true)
  if not last_byte then
    long.length = long.length + stop
    long.tail = text:sub(-(#long.closing - 1))
    self:add("part", 0, stop, {long = long, length_so_far = long.length})
    return nil
  end
  local used = last_byte - #long.tail
  self.way.long = nil
  self:add("clause", 0, used, {name = long.name, whole = long.length + used, begins_in = long.frame})
  return used
end

-- The clause at @pos of @raw, which begins with "<". Returns the position behind it, nil if incomplete.
function Scan:clause_at(raw, pos, stop)
  local gt = raw:find(">", pos + 1, true)
  gt = gt and gt <= stop and gt or nil
  if not gt then
    return nil
  elseif raw:sub(gt - 1, gt - 1) == "/" then
    local tag = raw:sub(pos + 1, gt)
    local ping = tag == "<ping/>" and stop == #raw and raw:sub(gt + 1) == "\r\n" and pos == 0
    self:add("clause", pos, gt - pos, {name = tag:match("^<([^ \t\r\n/>]*)"), whole = gt - pos, ping = ping})
    return gt
  end
  local tag = raw:sub(pos + 1, gt)
  local closing = "</" .. tag:sub(2)
  local _, finish = raw:find(closing, gt + 1, true)
  if finish and finish <= stop then
    self:add("clause", pos, finish - pos, {name = tag:sub(2, -2), whole = finish - pos})
    return finish
  end
  return nil, closing, tag
end

-- A clause whose end is not among the bytes.
function Scan:partial_clause(raw, pos, stop, closing, tag)
  local blocking = tag and is_blocking(tag)
  local pending = self.way.pending
  local attempts = pending and pending.start == self:seq_at(pos) and pending.attempts or 0
  if not blocking and stop - pos < MAX_CLAUSE and attempts < MAX_ATTEMPTS and self:wait(pos) then
    return
  end
  local frame = pending and attempts > 0 and pending.frame or self.frame
  if not closing or blocking then
    self.way.blocked = blocking or "a tag without an end"
    self:add("blocked", pos, stop - pos, {problem = self.way.blocked})
    return
  end
  self.way.long = {closing = closing, tail = raw:sub(pos + 1, stop):sub(-(#closing - 1)), length = stop - pos,
                   name = tag:sub(2, -2), frame = frame}
  self:add("part", pos, stop - pos, {long = self.way.long, length_so_far = stop - pos})
end

-- CR and LF behind a clause belong to its item.
function Scan:blanks(at, length)
  local before = self.items[#self.items]
  if before and before.kind == "clause" then
    before.blanks = length
  else
    self:add("blanks", at, length)
  end
end

function Scan:clauses(begin)
  local way = self.way
  local raw = self.read(0, self.captured)
  if way.stopped or way.blocked then
    self:add(way.stopped and "discarded" or "waiting", begin, self.stop - begin)
    return
  end
  local sentinel = raw:find("[\1\2]", begin + 1)
  local stop = sentinel and sentinel - 1 or #raw
  local pos = begin
  if way.long and stop > begin then
    local used = self:long_clause(raw:sub(begin + 1), stop - begin)
    self.items[#self.items].at = begin
    pos = used and begin + used or stop
  end
  while pos < stop do
    local start = raw:find("[^ \t\r\n]", pos + 1)
    start = math.min(start and start - 1 or stop, stop)
    if start > pos then
      self:blanks(pos, start - pos)
    end
    pos = start
    if pos < stop and raw:byte(pos + 1) ~= 60 then
      if way.synced then
        way.blocked = "a clause must begin with '<'"
        self:add("blocked", pos, stop - pos, {problem = way.blocked})
      else
        self:add("unknown", pos, stop - pos, {lost = true})
      end
      pos = stop
    elseif pos < stop then
      way.synced = true
      local after, closing, tag = self:clause_at(raw, pos, stop)
      if not after then
        if not sentinel then
          self:partial_clause(raw, pos, stop, closing, tag)
        else
          self:add("unknown", pos, stop - pos, {})
        end
        after = stop
      end
      pos = after
    end
  end
  if sentinel then
    way.stopped = true
    self:add("sentinel", stop, self.stop - stop)
  elseif self.captured < self.stop and not self.desegment then
    way.synced, way.long = false, nil
    self:add("unknown", self.captured, self.stop - self.captured, {cut = true})
  end
end

local function looks_like(text)
  for _, other in ipairs(OTHERS) do
    if text:sub(1, #other[1]) == other[1] then
      return other[2]
    end
  end
end

-- Decides by the first byte that is not a blank, as the daemon does for each packet of a new connection.
function Scan:classify(begin)
  local connection = self.connection
  local start = skip_blanks(self.read, begin)
  local text = self.read(start, 600)
  local first = text:byte(1)
  local frame = text:find("^\1%d+\2" .. RECORD)
  if first == 1 and (frame or connection.from_start or text:find("^\1%d*\2?")) then
    connection.kind = "frames"
  elseif first == 60 then
    connection.kind = "clauses"
  elseif first then
    self:add("unknown", begin, self.stop - begin, {foreign = connection.from_start, like = looks_like(text)})
  else
    self:add("blanks", begin, self.stop - begin)
  end
  return connection.kind
end

-- A connection whose start is not in the capture may have been classified by a byte of some content.
function Scan:reclassify(begin)
  local connection = self.connection
  local text = self.read(begin, 32)
  if connection.kind == "clauses" and not connection.from_start and text:find("^\1%d+\2" .. RECORD) then
    connection.kind = "frames"
    for _, way in ipairs(connection.order) do
      way.blocked, way.stopped, way.long, way.synced = nil, nil, nil, false
    end
  end
end

-- Where the first byte of a direction is expected: known if the capture has its SYN and Wireshark shows
-- sequence numbers relative to that.
local function expected_start(connection)
  local seq, relative = last(get_seq), last(get_relative)
  if connection.has_syn and seq and relative and relative ~= seq then
    return advance(seq, 1 - relative)
  end
end

-- Compares the position of the bytes with the expected one. Returns where new bytes begin.
function Scan:position()
  local way = self.way
  way.next = way.next or expected_start(self.connection)
  if not way.next then
    return 0
  end
  local ahead = distance(self.seq, way.next)
  if ahead == 0 then
    return 0
  elseif ahead < 0 then
    if -ahead >= self.stop then
      self:add("old", 0, self.stop)
      return self.stop
    end
    self:add("old", 0, -ahead)
    return -ahead
  end
  self:lost(ahead)
  return 0
end

-- @count bytes before this segment are missing.
function Scan:lost(count)
  local way, connection = self.way, self.connection
  local pending = way.pending
  way.pending = nil
  self:add("gap", 0, 0, {count = count})
  if pending and pending.message and pending.stop then
    pending.message.frame = pending.frame
    register(connection, way, pending.message)
    if distance(self.seq, pending.stop) == 0 then
      return  -- exactly the rest of one frame: the next one begins here
    end
  end
  local frame = way.long_frame
  if frame and distance(self.seq, frame.start) <= frame.size then
    return  -- within a known frame, or at its end
  end
  way.long_frame, way.long, way.blocked = nil, nil, nil
  way.synced = false
  connection.from_start = connection.from_start and connection.kind ~= nil
  self:miss(0)
end

-- An unknown number of requests or replies before @pos is not known.
function Scan:miss(pos)
  local way, connection = self.way, self.connection
  if connection.kind == "clauses" then
    return
  elseif way.to_device then
    connection.queue[#connection.queue + 1] = {gap = true}
  else
    settle(connection, way, self.ack)
    forget_answered(connection, self:seq_at(pos))
  end
end

function Scan:run()
  local way, connection = self.way, self.connection
  local begin = self:position()
  if begin >= self.stop then
    return
  end
  begin = self:continue_frame(begin)
  if begin < self.stop and begin < self.captured then
    self:reclassify(begin)
    local kind = connection.kind or self:classify(begin)
    if kind == "frames" then
      self:frames(begin)
    elseif kind == "clauses" then
      self:clauses(begin)
    end
  end
  if not self.desegment then
    way.pending = nil
    way.next = self:seq_at(self.stop)
  end
end

-- The position of the first byte in the stream. Reassembled bytes have a separate buffer: they continue what
-- was shown so far, and do not end where the segment ends.
local function start_of(tvb, way)
  local seq, length = last(get_seq), last(get_length)
  if tvb:offset() == 0 then
    return way.next or seq or 0
  elseif seq and length then
    return advance(seq, length - tvb:reported_len())
  end
  return way.next or 0
end

local function time_of(pinfo)
  local seconds = math.floor(pinfo.rel_ts)
  return last(get_time) or NSTime.new(seconds, math.floor((pinfo.rel_ts - seconds) * 1e9 + 0.5))
end

-- The plan of these bytes. Reassembled bytes have a separate buffer.
local function scan(tvb, pinfo)
  local connection = connection_of(pinfo)
  local way = way_of(connection, pinfo)
  local self = setmetatable({tvb = tvb, pinfo = pinfo, connection = connection, way = way, items = {},
                             read = reader(tvb), stop = tvb:reported_len(), captured = tvb:len(),
                             seq = start_of(tvb, way), whole = tvb:len() == tvb:reported_len(), frame = pinfo.number,
                             time = time_of(pinfo), ack = last(get_ack)}, Scan)
  self:run()
  return {items = self.items, desegment = self.desegment, connection = connection, way = way}
end

-- The plan of bytes that the first pass did not get like this. It must not change the state.
local function unseen(tvb, pinfo)
  return {items = {{kind = "unknown", at = 0, length = tvb:reported_len()}}, connection = connection_of(pinfo)}
end

-- Display -------------------------------------------------------------------------------------------------

local function connection_name(connection)
  if not connection.kind then
    return nil
  elseif connection.kind == "frames" then
    return connection.port == "master" and "slave connection" or
           connection.port == "device" and "task client" or "tasks"
  end
  return connection.port == "master" and "agent bridge" or connection.port == "device" and "agent" or "clauses"
end

local Show = {}
Show.__index = Show

-- The captured part of [at, at + length).
function Show:span(at, length)
  at = math.min(at, self.captured)
  return self.tvb(at, math.max(0, math.min(length, self.captured - at)))
end

function Show:tree_for(item)
  local tree = self.tree:add(runel, self:span(item.at, item.length))
  local name = connection_name(self.plan.connection)
  if name then
    tree:add(F.connection, name):set_generated()
  end
  return tree
end

function Show:tell(text)
  self.line[#self.line + 1] = text
end

function Show:raw(at, length, most)
  return self.read(at, math.min(length, most or MAX_STRING))
end

function Show:add_string(tree, name, part)
  local raw = self:raw(part.at, part.length)
  local item = tree:add(F[name], self:span(part.from or part.at, part.at + part.length - (part.from or part.at)),
                        readable(raw))
  if part.length > #raw then
    item:append_text(string.format(" (the first %d of %d bytes)", #raw, part.length))
  end
  return item
end

function Show:add_number(tree, name, part)
  return tree:add(F[name], self:span(part.at, part.length), part.value)
end

function Show:add_data(tree, part)
  local raw = self:raw(part.at, part.length)
  local item = tree:add(F["arg.data"], self:span(part.at, #raw))
  item:set_text("DATA: " .. escaped(raw, MAX_SHOWN) .. string.format(" (%s)", plural(part.length, "byte")))
  tree:add(F["arg.data.length"], self:span(part.from, part.at + part.length - part.from), part.length)
    :set_generated()
end

-- The field of the argument @index behind the task's name.
local function arg_name(task, index)
  local row = TASKS[task or ""]
  if not row then
    return "unnamed"
  end
  return row[index] or row.rest or "surplus"
end

function Show:add_args(tree, record)
  for index, part in ipairs(record.list) do
    if index == 1 then
      self:add_string(tree, "task", part)
    else
      local name = arg_name(record.task, index - 1)
      if name == "data" then
        self:add_data(tree, part)
      else
        self:add_string(tree, "arg." .. name, part)
      end
    end
  end
  if record.parsed > #record.list then
    tree:add(self:span(record.pos, 0), string.format("%s more", plural(record.parsed - #record.list, "argument")))
  end
end

function Show:add_numbers(tree, prefix, record)
  for _, name in ipairs({"status", "state", "result", "errno", "signal"}) do
    if record[name] then
      self:add_number(tree, prefix .. name, record[name])
    end
  end
end

function Show:add_problems(tree, record, is_request)
  if record.foreign then
    tree:add_proto_expert_info(E.not_a_record)
  elseif record.problem then
    tree:add_proto_expert_info(E.malformed_record, "Malformed record: " .. record.problem)
  elseif record.many then
    tree:add_proto_expert_info(E.many_arguments)
  elseif record.cut then
    tree:add_proto_expert_info(E.cut)
  elseif is_request then
    self:add_task_problems(tree, record)
  elseif record.argc.value > 0 then
    tree:add_proto_expert_info(E.malformed_record, "Malformed record: a reply with arguments")
  end
end

function Show:add_task_problems(tree, record)
  local row = TASKS[record.task or ""]
  local count = record.argc.value - 1
  if count < 0 then
    tree:add_proto_expert_info(E.few_arguments, "A request without a task")
  elseif not row then
    tree:add_proto_expert_info(E.unknown_task, "Unknown task: " .. self:name_of(record))
  elseif count < (row.least or #row) then
    tree:add_proto_expert_info(E.few_arguments, string.format("Too few arguments: %s reads %d", record.task,
                                                              row.least or #row))
  elseif count > #row and not row.rest then
    tree:add_proto_expert_info(E.surplus_arguments)
  end
end

function Show:name_of(record)
  local name = record.list[1]
  return name and quoted(self:raw(name.at, name.length, MAX_SHOWN + 1), name.length) or "?"
end

function Show:request_line(record)
  if record.foreign then
    return "Not a record"
  elseif record.problem then
    return "Malformed request"
  end
  local parts = {self:name_of(record)}
  for index = 2, math.min(#record.list, 12) do
    local part = record.list[index]
    local is_data = arg_name(record.task, index - 1) == "data"
    parts[index] = is_data and string.format("(%s)", plural(part.length, "byte")) or
                   quoted(self:raw(part.at, part.length, MAX_SHOWN + 1), part.length)
  end
  if record.task == "exec" and record.execparam and record.execparam.value ~= 0 then
    local limit = record.execparam.value
    parts[#parts + 1] = limit < 0 and "(background)" or string.format("(limit %d s)", limit)
  end
  return escaped(table.concat(parts, " "), MAX_INFO)
end

local function outcome(record)
  local status, state, result = record.status.value, record.state.value, record.result.value
  local errno, signal = record.errno.value, record.signal.value
  if status == 1 and state == 2 then
    return string.format("exit status %d", result)
  elseif status == 1 and signal ~= 0 then
    return "ended by " .. (SIGNAL[signal] or "signal " .. signal)
  elseif status == 1 then
    return "failure, " .. (ERRNO[errno] or "error " .. errno)
  end
  return STATUS[status] or "status " .. status
end

function Show:reply_line(record, message)
  local to = message.task and " to " .. quoted(message.task, #message.task) or ""
  if record.foreign then
    return "Not a record"
  elseif record.problem then
    return "Malformed reply" .. to
  elseif not record.complete then
    return "Reply" .. to
  end
  local line = string.format("Reply%s: %s", to, outcome(record))
  if record.status.value == 4 then
    line = line .. ", " .. quoted(self:raw(record.output.at, record.output.length, MAX_SHOWN + 1),
                                  record.output.length)
  elseif record.output.length > 0 then
    line = line .. ", " .. plural(record.output.length, "byte")
  end
  return line
end

function Show:add_links(tree, message)
  local request, reply = message.request, message.reply
  if request then
    tree:add(F.request_in, request.frame):set_generated()
    if request.time and message.time then
      tree:add(F.time, message.time - request.time):set_generated()
    end
    if message.guess then
      tree:add_proto_expert_info(E.guess)
    end
  elseif reply then
    tree:add(F.reply_in, reply.frame):set_generated()
  end
end

-- The fields of the message whose frame is at @at.
function Show:add_message(tree, item, at, record)
  local message = item.message
  local is_request = message.is_request
  tree:append_text(is_request and ", Request" or ", Reply")
  tree:add(is_request and F.request or F.reply, self:span(at, item.header + item.count))
  tree:add(F.count, self:span(at + 1, item.header - 2), item.count)
  if record.foreign then
    tree:add(F.payload, self:span(at + item.header, math.min(item.count, MAX_STRING)))
  end
  if record.argc then
    self:add_number(tree, "argc", record.argc)
  end
  self:add_args(tree, record)
  if not is_request and message.task then
    tree:add(F.task, readable(message.task)):set_generated()
  end
  if record.execparam then
    self:add_number(tree, "execparam", record.execparam)
  end
  if record.output then
    self:add_output(tree, is_request and "ignored.output" or "output", record.output)
  end
  self:add_numbers(tree, is_request and "ignored." or "", record)
end

function Show:add_output(tree, name, output)
  self:add_string(tree, name, output)
  if name == "output" then
    tree:add(F["output.length"], self:span(output.from, output.at + output.length - output.from), output.length)
      :set_generated()
  end
end

function Show:message_line(record, message)
  return message.is_request and self:request_line(record) or self:reply_line(record, message)
end

function Show:frame(item)
  local tree = self:tree_for(item)
  local message = item.message
  local at = item.at + item.header
  local record = parse_record(self.read, at, item.count, math.min(self.captured, at + item.count))
  self:add_message(tree, item, item.at, record)
  local line = self:message_line(record, message)
  if item.begins then
    line = string.format("%s, first %d of %s", line, item.length, plural(item.header + item.count, "byte"))
  else
    self:add_links(tree, message)
  end
  if not item.begins or record.problem then
    self:add_problems(tree, record, message.is_request)
  end
  if not message.is_request and not message.request and not record.foreign then
    tree:add_proto_expert_info(E.no_request)
  end
  tree:append_text(": " .. line)
  self:tell(line)
end

-- The last bytes of a long frame, with the fields of the whole message.
function Show:ending(item)
  local tree = self:tree_for(item)
  local frame, message = item.frame, item.message
  local whole = setmetatable({read = long_reader(frame)}, {__index = self})
  function whole.span()
    return self:span(item.at, item.length)
  end
  local record = parse_long(frame)
  whole:add_message(tree, frame, 0, record)
  tree:add(F.continuation, self:span(item.at, math.min(item.length, MAX_STRING)))
  self:add_links(tree, message)
  self:add_problems(tree, record, message.is_request)
  local line = whole:message_line(record, message)
  tree:append_text(": " .. line)
  self:tell(line)
end

function Show:clause(item)
  local tree = self:tree_for({at = item.at, length = item.length + (item.blanks or 0)})
  tree:append_text(", Clause")
  if not item.begins_in then
    self:add_string(tree, "clause", {at = item.at, length = item.length})
  else
    tree:add(F["clause.begins_in"], item.begins_in):set_generated()
    tree:add(F.continuation, self:span(item.at, item.length))
  end
  tree:add(F["clause.name"], readable(item.name:sub(1, MAX_STRING))):set_generated()
  tree:add(F["clause.length"], item.whole):set_generated()
  if item.blanks then
    tree:add(F.blanks, self:span(item.at + item.length, math.min(item.blanks, MAX_STRING)))
  end
  if item.ping then
    tree:add(F.ping, self:span(item.at, item.length))
    return self:tell("Ping")
  end
  local text = item.begins_in and string.format("<%s>, %s", escaped(item.name, MAX_SHOWN),
                                                plural(item.whole, "byte")) or
               escaped(self:raw(item.at, item.length, MAX_SHOWN + 1), MAX_SHOWN)
  self:tell("Clause " .. text)
end

function Show:part(item)
  local tree = self:tree_for(item)
  tree:append_text(", Part of a clause")
  tree:add(F.continuation, self:span(item.at, item.length))
  tree:add(F["clause.begins_in"], item.long.frame):set_generated()
  self:tell(string.format("Part of clause <%s>, %s so far", escaped(item.long.name, MAX_SHOWN),
                          plural(item.length_so_far, "byte")))
end

function Show:bytes(item, name, title, info, text)
  local tree = self:tree_for(item)
  tree:append_text(", " .. title)
  tree:add(F[name], self:span(item.at, math.min(item.length, MAX_STRING)))
  if info then
    tree:add_proto_expert_info(E[info], text)
  end
  self:tell(text or title)
end

function Show:blanks(item)
  local tree = self:tree_for(item)
  tree:append_text(", Blanks")
  tree:add(F.blanks, self:span(item.at, math.min(item.length, MAX_STRING)))
end

function Show:bad(item)
  self:bytes(item, "discarded", "Bad frame", "bad_frame", "Bad frame: " .. item.problem)
end

function Show:discarded(item)
  self:bytes(item, "discarded", "Discarded bytes", "discarded_bytes", "Discarded: the daemon reads no further")
end

function Show:blocked(item)
  self:bytes(item, "unknown", "Input that blocks", "blocked", "Blocks the relay: " .. item.problem)
end

function Show:waiting(item)
  self:bytes(item, "unknown", "Input behind what blocks the relay")
end

function Show:sentinel(item)
  self:bytes(item, "unknown", "Byte of a frame among clauses", "sentinel",
             "Byte of a frame among clauses: stops the daemon")
end

function Show:old(item)
  self:bytes(item, "unknown", "Repeated bytes")
end

function Show:continuation(item)
  local tree = self:tree_for(item)
  tree:append_text(", Continuation")
  tree:add(F.continuation, self:span(item.at, math.min(item.length, MAX_STRING)))
  if item.message then
    tree:add(F["continuation.of"], item.message.frame):set_generated()
  end
  self:tell("Continuation")
end

function Show:unknown(item)
  if item.foreign then
    local text = "Neither a frame nor a clause" .. (item.like and ", looks like " .. item.like or "")
    return self:bytes(item, "unknown", "Unknown protocol", "unknown_protocol", text)
  elseif item.cut then
    return self:bytes(item, "unknown", "Message that is cut", "cut", "The capture holds a part of this message only")
  end
  self:bytes(item, "unknown", "Bytes within a message whose beginning is not in the capture")
end

function Show:gap(item)
  local tree = self:tree_for(item)
  local text = string.format("%s before this segment are missing in the capture", plural(item.count, "byte"))
  tree:append_text(", Gap")
  tree:add_proto_expert_info(E.gap, text)
end

-- Appends to what earlier messages of the same packet have told.
local function show_line(pinfo, key, line)
  local text = table.concat(line, " | ")
  if #text > MAX_INFO * 2 then
    text = escaped(text:gsub("\\", "\\\\"), MAX_INFO * 2):gsub("\\\\", "\\")
  end
  pinfo.cols.protocol = "RUNEL"
  pinfo.cols.info:clear()
  first_lines[pinfo.number] = first_lines[pinfo.number] or key
  if first_lines[pinfo.number] ~= key then
    text = " | " .. text
  end
  pinfo.cols.info:append(text)
  pinfo.cols.info:fence()
end

local function show(tvb, pinfo, tree, key, plan)
  local self = setmetatable({tvb = tvb, tree = tree, plan = plan, captured = tvb:len(), read = reader(tvb),
                             line = {}}, Show)
  for _, item in ipairs(plan.items) do
    if item.at < tvb:reported_len() then
      self[item.kind](self, item)
    end
  end
  if #self.line > 0 then
    show_line(pinfo, key, self.line)
  elseif #plan.items > 0 and not plan.desegment then
    show_line(pinfo, key, {"Blanks"})
  end
end

-- The plan for these bytes of the packet, from the first pass. Reassembled bytes may end earlier then: where
-- the message begins that was incomplete in the first pass.
local function plan_for(tvb, pinfo, key)
  local exact = key .. ":" .. tvb:reported_len()
  local plan = plans[exact]
  if plan == nil then
    plan = plans[key]
  end
  if plan == nil and pinfo.visited then
    return unseen(tvb, pinfo)
  elseif not pinfo.visited then
    plans[key], plans[exact] = false, false  -- stays if the scan fails
    plan = scan(tvb, pinfo)
    plans[key], plans[exact] = plan, plan
  end
  assert(plan, "no plan: the first pass failed")
  return plan
end

function runel.dissector(tvb, pinfo, tree)
  local key = string.format("%d:%d", pinfo.number, tvb:offset())
  local plan = plan_for(tvb, pinfo, key)
  show(tvb, pinfo, tree, key, plan)
  local more = plan.desegment
  if more and more.at < tvb:reported_len() then
    pinfo.desegment_offset = more.at
    pinfo.desegment_len = more.missing or DESEGMENT_ONE_MORE_SEGMENT
  end
  return tvb:reported_len()
end

-- Ports ---------------------------------------------------------------------------------------------------

local tcp_ports = DissectorTable.get("tcp.port")

local function use_ports(add)
  for _, range in pairs(PORTS) do
    if range ~= "" then
      if add then
        tcp_ports:add(range, runel)
      else
        tcp_ports:remove(range, runel)
      end
    end
  end
end

function runel.prefs_changed()
  use_ports(false)
  PORTS.device, PORTS.master = runel.prefs.device_ports, runel.prefs.master_ports
  MAX_FRAME = runel.prefs.longest_frame * 1048576
  use_ports(true)
end

use_ports(true)
tcp_ports:add_for_decode_as(runel)
