"""Client side of tarnwickrelay for Python scripts and tests on the board.

Standard library only. Everything here follows docs/interface.md: the status
datagrams (the status line, the state, tracking and histogram messages), the
recording notice, the JSON commands and the zoom-rate message, the video ring
in shared memory, the resolution files, the gimbal attitude record and the
remote-control record.

Parsers meet bytes from the network: they check lengths and raise
ValueError for anything that is not what the layout says.
"""

import json
import mmap
import os
import socket
import struct
import time
from dataclasses import dataclass, field

# ---------------------------------------------------------------------------
# Addresses and names.

STATUS_PORT = 5000                  # where the relay sends status by default
NOTICE_PORT = 5255                  # recording notices, always 127.0.0.1
SHM_DIR = "/dev/shm"
RING_NAME = "tarnwickrelay_framebuffer"
TRANSCODING_NAME = "tarnwickrelay_framebuffer_transcoding"
ATTITUDE_NAME = "shared_camstate"
RC_NAME = "shared_rc_raw"
RUN_DIR = "/run/tarnwickrelay"

# ---------------------------------------------------------------------------
# Status datagrams.

STATUS_LINE_TYPE = 7
BINARY_MESSAGE_TYPE = 6
STATE_KIND = 0
HISTOGRAM_KIND = 1
TRACKING_KIND = 2
STATUS_LINE_MAXIMUM = 1299          # bytes, type byte included

# The status line's keys in their order, with the type of their value.
STATUS_KEYS = (
    ("camera_detected", int), ("camera_model", str), ("camera_mode", str), ("sd", str),
    ("shots_left", int), ("rec_time_left", str), ("rec_time", str), ("voltage", int),
    ("battery_level", int), ("battery_charging", int), ("shot_mode", str), ("resolution", str),
    ("framerate", str), ("format", str), ("ae", int), ("aperture", str), ("shutter", str),
    ("shutter_set", str), ("iso", int), ("iso_set", str), ("ev", str), ("image_mode", str),
    ("color_mode", str), ("wb", str), ("wb_temp", int), ("ratio", str), ("sensor", int),
    ("video_std", str), ("antiflicker", str), ("histogram", int), ("pl_state", str),
    ("pl_id", int), ("pl_dur", str), ("pl_time", str),
)
_STATUS_TYPES = dict(STATUS_KEYS)


class StatusRecord(dict):
    """One status line: key -> value, ints for the number keys, str for the
    texts (an empty text is ""). Keys the line does not carry are absent;
    keys this module does not know are kept as text."""

    @property
    def missing(self):
        return [key for key, _ in STATUS_KEYS if key not in self]


def parse_status_line(datagram):
    """The StatusRecord of a status datagram (type byte 7)."""
    if len(datagram) < 2 or datagram[0] != STATUS_LINE_TYPE:
        raise ValueError("not a status line")
    if len(datagram) > STATUS_LINE_MAXIMUM:
        raise ValueError("status line longer than %d bytes" % STATUS_LINE_MAXIMUM)
    text = bytes(datagram[1:]).decode("utf-8", errors="replace")
    if not text.endswith(","):
        raise ValueError("status line does not end with a comma")
    record = StatusRecord()
    for item in text[:-1].split(","):
        key, equals, value = item.partition("=")
        if not equals or not key:
            raise ValueError("status item without a key: %r" % item)
        if key in record:
            continue            # the first occurrence counts
        kind = _STATUS_TYPES.get(key, str)
        if kind is int:
            try:
                record[key] = int(value, 10)
            except ValueError:
                raise ValueError("status item %s is not a number: %r" % (key, value)) from None
        else:
            record[key] = value
    return record


@dataclass
class StateMessage:
    """The 39-byte state message (6, 0)."""
    gimbal_flags: int          # gimbal_lock_requested | gimbal_mode_flag
    attitude: tuple            # 3 x i16, tenths of a degree
    camera_flags: int
    camera_aux_1: int
    camera_aux_2: int
    focus_reported: int
    focus_mode_code: int       # 0x84 MF, 0x85 AFS, 0x86 AFC
    focus_param_1: int
    focus_param_3: int
    focus_point_x: int         # x 1000
    focus_point_y: int         # x 1000
    focus_param_21: int
    focus_param_31: int
    ae_aux: int
    gimbal_limits: tuple       # elements 0, 1, 2, 3 (sent in the order 1, 0, 3, 2)
    zoom: int
    zoom_max: int
    gimbal_bits: int           # bit1 x 4 + bit5 x 2 + bit4

    @property
    def recording(self):
        return (self.camera_flags >> 6) == 2


@dataclass
class TrackingMessage:
    """The 11-byte tracking message (6, 2); box values x 65535."""
    active: int
    x: int
    y: int
    w: int
    h: int


@dataclass
class HistogramMessage:
    """The 66-byte histogram message (6, 1)."""
    bins: bytes


_STATE = struct.Struct("<BBBhhhBBBBBBHHHHBBBhhhhHHB")
_TRACKING = struct.Struct("<BBBHHHH")
assert _STATE.size == 39 and _TRACKING.size == 11


def parse_binary_message(datagram):
    """A StateMessage, TrackingMessage or HistogramMessage (type byte 6)."""
    if len(datagram) < 2 or datagram[0] != BINARY_MESSAGE_TYPE:
        raise ValueError("not a binary message")
    kind = datagram[1]
    if kind == STATE_KIND:
        if len(datagram) != _STATE.size:
            raise ValueError("state message of %d bytes" % len(datagram))
        v = _STATE.unpack(bytes(datagram))
        return StateMessage(
            gimbal_flags=v[2], attitude=(v[3], v[4], v[5]), camera_flags=v[6], camera_aux_1=v[7],
            camera_aux_2=v[8], focus_reported=v[9], focus_mode_code=v[10], focus_param_1=v[12],
            focus_param_3=v[13], focus_point_x=v[14], focus_point_y=v[15], focus_param_21=v[16],
            focus_param_31=v[17], ae_aux=v[18], gimbal_limits=(v[20], v[19], v[22], v[21]),
            zoom=v[23], zoom_max=v[24], gimbal_bits=v[25])
    if kind == TRACKING_KIND:
        if len(datagram) != _TRACKING.size:
            raise ValueError("tracking message of %d bytes" % len(datagram))
        v = _TRACKING.unpack(bytes(datagram))
        return TrackingMessage(active=v[2], x=v[3], y=v[4], w=v[5], h=v[6])
    if kind == HISTOGRAM_KIND:
        if len(datagram) != 66:
            raise ValueError("histogram message of %d bytes" % len(datagram))
        return HistogramMessage(bins=bytes(datagram[2:]))
    raise ValueError("binary message of unknown kind %d" % kind)


def parse_datagram(datagram):
    """Any datagram the relay sends to the status port."""
    if len(datagram) > 0 and datagram[0] == STATUS_LINE_TYPE:
        return parse_status_line(datagram)
    return parse_binary_message(datagram)


def parse_notice(datagram):
    """True for "rec_active", False for "rec_inactive"."""
    if datagram == b"rec_active":
        return True
    if datagram == b"rec_inactive":
        return False
    raise ValueError("not a recording notice")


# ---------------------------------------------------------------------------
# Commands to the relay.

COMMAND_MEMBERS = ("cmd", "name", "param", "value", "value2", "value3", "value4")


def json_command(cmd, param=None, value=None, value2=None, value3=None, value4=None, name=None):
    """The datagram of a JSON command: "!" and an object whose members are
    all strings (numbers are sent as their decimal text)."""
    given = {"cmd": cmd, "name": name, "param": param, "value": value, "value2": value2,
             "value3": value3, "value4": value4}
    members = {key: str(given[key]) for key in COMMAND_MEMBERS if given[key] is not None}
    return b"!" + json.dumps(members, separators=(",", ":")).encode("utf-8")


def movement_command(mode):
    """"abs" (sticks set angles) or "rel" (sticks set speeds)."""
    if mode not in ("abs", "rel"):
        raise ValueError("movement is abs or rel")
    return json_command("set", name="movement", value=mode)


def zoom_rate_message(rate):
    """The 4-byte zoom-rate datagram: 5, 1, rate as i16."""
    if not -32768 <= rate <= 32767:
        raise ValueError("zoom rate out of 16 bits")
    return struct.pack("<BBh", 5, 1, rate)


class AppLink:
    """The main application's side: receives the status datagrams and sends
    commands back to their source address (the relay's command port)."""

    def __init__(self, port=STATUS_PORT, host="127.0.0.1"):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind((host, port))
        self.relay = None          # (host, port) of the last status datagram
        # Times the relay started again: each start binds a new command port,
        # so status from a new source is a new relay. Send the movement mode
        # again when this grows.
        self.restarts = 0

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def receive(self, timeout=2.0):
        """The next datagram parsed (see parse_datagram), or None at the
        time-out; an error of the socket raises OSError. A datagram that does
        not parse is returned as bytes (and does not tell the relay's port)."""
        self.sock.settimeout(timeout)
        try:
            data, source = self.sock.recvfrom(65536)
        except socket.timeout:
            return None
        try:
            message = parse_datagram(data)
        except ValueError:
            return data
        if self.relay is not None and source != self.relay:
            self.restarts += 1
        self.relay = source
        return message

    def status(self, timeout=3.0, where=None):
        """The next StatusRecord (for which `where(record)` holds), or None."""
        end = time.monotonic() + timeout
        while True:
            left = end - time.monotonic()
            if left <= 0:
                return None
            message = self.receive(left)
            if isinstance(message, StatusRecord) and (where is None or where(message)):
                return message

    def send(self, datagram):
        """Sends a command datagram to the relay; needs one status datagram
        received first (that tells the port)."""
        if self.relay is None:
            raise RuntimeError("no status datagram received yet: the relay's port is unknown")
        self.sock.sendto(datagram, self.relay)

    def command(self, cmd, param=None, **members):
        self.send(json_command(cmd, param, **members))


class NoticeListener:
    """Receives the recording notices on 127.0.0.1:5255."""

    def __init__(self, port=NOTICE_PORT):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind(("127.0.0.1", port))

    def close(self):
        self.sock.close()

    def receive(self, timeout=2.0):
        """True (recording), False, or None at the time-out."""
        self.sock.settimeout(timeout)
        try:
            data = self.sock.recv(64)
        except socket.timeout:
            return None
        return parse_notice(data)


# ---------------------------------------------------------------------------
# The video ring.

RING_HEADER_SIZE = 24
RING_SLOT_COUNT = 200
RING_SLOT_HEADER_SIZE = 18
RING_CHUNK_CAPACITY = 300000
RING_SLOT_SIZE = RING_SLOT_HEADER_SIZE + RING_CHUNK_CAPACITY
RING_SIZE = RING_HEADER_SIZE + RING_SLOT_COUNT * RING_SLOT_SIZE
TRANSCODING_SIZE = 13003624
_CLEAR_REQUEST, _LAST_PART, _NEXT_SLOT = 0, 1, 2      # u16 indexes into the header
_SLOT_HEADER = struct.Struct("<IHBB10s")
_WRITTEN_MARKS = b"\x01" * 10


def _slot_offset(slot):
    return RING_HEADER_SIZE + slot * RING_SLOT_SIZE


def _written_header(raw):
    """(length, part, chunk index) of a slot header as stored, or None when
    the slot is not a written one."""
    length, part, index, zero, marks = _SLOT_HEADER.unpack(raw)
    if zero != 0 or marks != _WRITTEN_MARKS or not 1 <= length <= RING_CHUNK_CAPACITY:
        return None
    return length, part, index


def map_shared(name, size, writable=True):
    """Maps /dev/shm/<name> of exactly `size` bytes; None when it does not
    exist or has another size."""
    try:
        fd = os.open(os.path.join(SHM_DIR, name), os.O_RDWR if writable else os.O_RDONLY)
    except OSError:
        return None
    try:
        if os.fstat(fd).st_size != size:
            return None
        access = mmap.ACCESS_WRITE if writable else mmap.ACCESS_READ
        return mmap.mmap(fd, size, access=access)   # ACCESS_WRITE and ACCESS_READ map shared
    finally:
        os.close(fd)


def starts_with_parameter_set(data):
    """True when a part begins with a four-byte start code and a sequence
    parameter set: where a decoder can join the stream."""
    return len(data) >= 5 and data[:4] == b"\x00\x00\x00\x01" and data[4] & 0x0F == 7


class RingReader:
    """Follows the video ring and rebuilds the H.264 byte stream, by the same
    rules as the C and C++ client library (tarnwickclient/client.h).

    Python has no acquire loads. The reader reads each 16-bit header field
    with one aligned load (a memoryview of unsigned shorts), copies a slot
    only while next_slot stands past it, and after the copy reads next_slot,
    the slot header and clear_request again: when the writer stands at that
    slot or the header changed, the slot was overwritten during the copy and
    the copy is dropped (an overrun); when clear_request is set, a clear began
    and nothing more is read until it is done. A slot whose marks are not all
    1 or whose length is out of range is not a written slot. See
    docs/interface.md for what this does not cover on weakly ordered
    processors.

    Restarts (the relay started again, a clear, the object replaced or cut
    short) are counted in `restarts`, never as lost parts. With
    `start_at_parameter_set`, after opening and after every break (a
    restart, lost parts, an overrun) nothing is handed out before a part
    that starts with a sequence parameter set."""

    IDENTITY_CHECK_SECONDS = 0.1

    def __init__(self, region, from_start=False, start_at_parameter_set=False, name=None):
        self.region = region
        self.fields = memoryview(region)[:RING_HEADER_SIZE].cast("H")
        self.start_at_parameter_set = start_at_parameter_set
        self.name = name           # set by open(): the object is watched for a replacement
        self.parts = 0             # parts begun (chunk 0 delivered)
        self.bytes = 0
        self.lost_parts = 0
        self.overruns = 0          # times the reader fell a whole ring behind
        self.restarts = 0          # clears seen and objects replaced: the writer started again
        self._identity = self._named_identity() if name is not None else None
        self._identity_checked = time.monotonic()
        self._start(from_start)

    def _start(self, from_start):
        self._part = 0
        self._next_chunk = 0
        self._own_clear = False
        self._restart_noticed = False
        writer = self._writer_slot()      # next_slot before clear_request (see poll)
        self._clear_pending = self.fields[_CLEAR_REQUEST] != 0
        self.slot = 0 if from_start or self._clear_pending else writer
        self._writer_seen = not self._clear_pending and (writer != 0 or self.fields[_LAST_PART] != 0)
        self._break()

    @classmethod
    def open(cls, name=RING_NAME, from_start=False, start_at_parameter_set=False):
        """A reader of the named ring, or None while it does not exist."""
        region = map_shared(name, RING_SIZE)
        return None if region is None else cls(region, from_start, start_at_parameter_set, name)

    def close(self):
        self.fields.release()
        self.region.close()

    def _named_identity(self):
        try:
            named = os.stat(os.path.join(SHM_DIR, self.name))
        except OSError:
            return None
        return named.st_dev, named.st_ino

    def _replaced(self):
        """True when the name now stands for another object (removed and made
        anew): this mapping will never be written again. Looked at every
        IDENTITY_CHECK_SECONDS at most."""
        if self.name is None:
            return False
        now = time.monotonic()
        if now - self._identity_checked < self.IDENTITY_CHECK_SECONDS:
            return False
        self._identity_checked = now
        identity = self._named_identity()
        if identity is None:
            return False                    # not (yet) there again: keep what is mapped
        if self._identity is None:
            self._identity = identity
            return False
        return identity != self._identity

    def _remap(self):
        """Maps the object that now has the name, at its live edge. False
        while it cannot be mapped (missing, or not yet of its full size)."""
        region = map_shared(self.name, RING_SIZE)
        if region is None:
            return False
        self.fields.release()
        self.region.close()
        self.region = region
        self.fields = memoryview(region)[:RING_HEADER_SIZE].cast("H")
        self._identity = self._named_identity()
        self._start(False)
        return True

    def _writer_slot(self):
        slot = self.fields[_NEXT_SLOT]
        return slot if slot < RING_SLOT_COUNT else 0

    def _break(self):
        """What comes next does not continue what was handed out."""
        self._in_part = False
        self._have_previous = False
        self._awaiting_parameter_set = self.start_at_parameter_set

    def _writer_clears(self):
        if not self._own_clear and self._writer_seen:
            self.restarts += 1              # a ring's first start after opening it is no restart
        self._break()
        self._own_clear = False

    def _await_clear(self):
        if not self._clear_pending:
            self._clear_pending = True
            self._writer_clears()

    def request_clear(self):
        """Asks the writer to clear the ring; its next part lands in slot 0
        and is the first one read. Not counted as a restart."""
        self.fields[_CLEAR_REQUEST] = 1
        self._own_clear = True

    def _accept(self, part, index, data):
        if index != 0:
            continues = self._in_part and part == self._part and index == self._next_chunk
            if continues:
                self._next_chunk += 1
            else:
                self._in_part = False       # the rest of a part whose start was lost
            return continues
        joinable = starts_with_parameter_set(data)
        if self._have_previous:
            gap = (part - self._part - 1) & 0xFFFF
            self.lost_parts += gap
            if gap and not joinable:
                self._break()               # the picture is broken until the next parameter set
        if self._awaiting_parameter_set:
            if not joinable:
                self._in_part = False
                return False
            self._awaiting_parameter_set = False
        self._in_part = True
        self._have_previous = True
        self._part = part
        self._next_chunk = 1
        self.parts += 1
        return True

    def _object_short(self):
        """True while another process has cut the object short: reading the
        mapping past its end would end this process (SIGBUS). The relay
        restores the size within about a second."""
        size = getattr(self.region, "size", None)
        if size is None:
            return False
        try:
            return size() < RING_SIZE
        except OSError:
            return False                    # an anonymous mapping has no file to shrink

    def poll(self):
        """The chunks complete behind next_slot, in stream order, as a list
        of bytes (empty when nothing is new, or while the object is cut
        short or being replaced)."""
        if self._replaced():
            self._writer_clears()
            if not self._remap():
                self._identity = None       # mapped as soon as it can be
                return []
        if self._object_short():
            return []
        if self._restart_noticed:
            self._restart_noticed = False
            self._writer_clears()
        chunks = []
        writer = self._writer_slot()
        if self.fields[_CLEAR_REQUEST] != 0:     # loaded after next_slot: a clear raises it first
            self._await_clear()
            return chunks
        if self._clear_pending:
            self._clear_pending = False     # cleared: parts start again at slot 0
            self._writer_seen = True
            self.slot = 0
            self._break()
        restarted = False
        while self.slot != writer:
            base = _slot_offset(self.slot)
            header = _written_header(self.region[base:base + RING_SLOT_HEADER_SIZE])
            if header is None:
                if self.fields[_CLEAR_REQUEST] != 0:
                    self._await_clear()
                    return chunks
                # Cleared since next_slot was loaded and written again from
                # slot 0: the writer started again. Once per poll, so that
                # junk cannot keep the reader circling.
                if not restarted and self.slot != 0:
                    self.slot = 0
                    restarted = True
                    if chunks:
                        # One poll never returns both sides of a restart: the
                        # chunks are the old run's, the restart counts next.
                        self._restart_noticed = True
                        return chunks
                    self._writer_clears()
                else:
                    self._break()
                    self.slot = self._writer_slot()
                writer = self._writer_slot()
                continue
            self._writer_seen = True
            length, part, index = header
            data = self.region[base + RING_SLOT_HEADER_SIZE:base + RING_SLOT_HEADER_SIZE + length]
            writer_now = self._writer_slot()
            after = _written_header(self.region[base:base + RING_SLOT_HEADER_SIZE])
            if self.fields[_CLEAR_REQUEST] != 0:
                self._await_clear()         # a clear began during the copy
                return chunks
            if writer_now == self.slot or after != header:
                self.overruns += 1          # overwritten while copied: a whole ring behind
                writer = writer_now
                self.slot = writer
                self._in_part = False
                continue
            self.slot = self.slot + 1 if self.slot + 1 < RING_SLOT_COUNT else 0
            if self._accept(part, index, data):
                chunks.append(data)
                self.bytes += length
        return chunks


def read_video_size(directory=RUN_DIR):
    """(width, height) from the resolution files, or None when they are
    missing or hold no plausible size (the relay does not check the sizes it
    reads from the stream's parameter set)."""
    def number(name):
        try:
            with open(os.path.join(directory, name), "rb") as f:
                text = f.read(32)
        except OSError:
            return None
        try:
            return int(text.decode("ascii"), 10)
        except (UnicodeDecodeError, ValueError):
            return None
    for _ in range(3):
        width, height = number("video_width"), number("video_height")
        if width == number("video_width"):      # not caught between the two writes
            break
    if width is None or height is None:
        return None
    if not (16 <= width <= 16384 and 16 <= height <= 16384):
        return None
    return width, height


# ---------------------------------------------------------------------------
# The gimbal attitude record.

ATTITUDE_SIZE = 6


class AttitudeReader:
    """/dev/shm/shared_camstate: three i16 in tenths of a degree."""

    def __init__(self, region):
        self.region = region
        self.values = memoryview(region).cast("h")

    @classmethod
    def open(cls, name=ATTITUDE_NAME):
        region = map_shared(name, ATTITUDE_SIZE, writable=False)
        return None if region is None else cls(region)

    def read(self):
        """(element 0, element 1, element 2), each read whole."""
        return self.values[0], self.values[1], self.values[2]

    def close(self):
        self.values.release()
        self.region.close()


# ---------------------------------------------------------------------------
# The remote-control record.

RC_SIZE = 1504
RC_SLOT_COUNT = 44
RC_VALUE_OFFSET = 1056
RC_FLAG_OFFSET = 1412

# Slot numbers by the names tools/rcwriter uses.
RC_SLOTS = {
    "stick0": 0, "stick1": 1, "stick2": 2, "next-position": 4, "lock-switch": 5,
    "orientation-lock": 6, "record": 7, "mode": 8, "focus": 9, "zoom-in": 16, "zoom-out": 17,
    "zoom-in-2": 18, "ae-lock": 19, "tracking": 20, "exposure-mode": 21, "exposure-mode-next": 22,
    "exposure-mode-prev": 23, "iso": 24, "iso-next": 25, "iso-prev": 26, "shutter": 27,
    "shutter-next": 28, "shutter-prev": 29, "color": 33, "color-next": 34, "color-prev": 35,
    "wb": 36, "wb-next": 37, "wb-prev": 38, "ev-axis": 39, "ev": 40, "ev-next": 41, "ev-prev": 42,
}


class RcWriter:
    """Writes slots of /dev/shm/shared_rc_raw, as the remote-control reader
    process does. Each value is one aligned 8-byte store, each flag one
    aligned 2-byte store."""

    def __init__(self, region):
        self.region = region
        self.values = memoryview(region)[RC_VALUE_OFFSET:RC_VALUE_OFFSET + 8 * RC_SLOT_COUNT].cast("d")
        self.flags = memoryview(region)[RC_FLAG_OFFSET:RC_FLAG_OFFSET + 2 * RC_SLOT_COUNT].cast("H")

    @classmethod
    def open(cls, name=RC_NAME, create=True):
        """Opens the record, creating it (mode 0600, zero-filled) when it is
        missing and create is true, and sets it to 1504 bytes."""
        path = os.path.join(SHM_DIR, name)
        flags = os.O_RDWR | (os.O_CREAT if create else 0)
        try:
            fd = os.open(path, flags, 0o600)
        except OSError:
            return None
        try:
            if os.fstat(fd).st_size != RC_SIZE:
                os.ftruncate(fd, RC_SIZE)
            return cls(mmap.mmap(fd, RC_SIZE, mmap.MAP_SHARED))
        finally:
            os.close(fd)

    @staticmethod
    def _slot(slot):
        number = RC_SLOTS[slot] if isinstance(slot, str) else slot
        if not 0 <= number < RC_SLOT_COUNT:
            raise ValueError("no slot %r" % (slot,))
        return number

    def set(self, slot, value):
        """Sets a slot's value (a name of RC_SLOTS or a number)."""
        self.values[self._slot(slot)] = float(value)

    def get(self, slot):
        return self.values[self._slot(slot)]

    def set_flag(self, slot, flag):
        """The flag of a slot; only slots 5 and 39 have one that is read."""
        self.flags[self._slot(slot)] = int(flag) & 0xFFFF

    def press(self, slot, seconds=0.1, value=1.0):
        """Holds a button for `seconds`, then releases it. The relay serves
        the slots every 20 ms once a movement mode is set, every second
        before: hold longer than a cycle."""
        self.set(slot, value)
        time.sleep(seconds)
        self.set(slot, 0.0)

    def clear(self):
        """Every slot at rest, every flag 0."""
        for i in range(RC_SLOT_COUNT):
            self.values[i] = 0.0
            self.flags[i] = 0

    def close(self):
        self.values.release()
        self.flags.release()
        self.region.close()

