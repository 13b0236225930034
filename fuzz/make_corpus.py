#!/usr/bin/env python3
"""Writes the committed seed corpus of every fuzz target into fuzz/corpus/<format>/.

Run from anywhere; the output is deterministic. The camera datagrams are captures from the camera simulator; the
commands are every command word with every value of its table (read from the tables' own source, so a new row gets
its seed); the parameter sets are the real-encoder fixtures of tests/fixtures/h264.
"""
import json
import os
import re
import shutil
import struct

here = os.path.dirname(os.path.abspath(__file__))
top = os.path.dirname(here)
corpus = os.path.join(here, "corpus")


def write(fmt, name, data):
    folder = os.path.join(corpus, fmt)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as out:
        out.write(data)


def read(path):
    with open(os.path.join(top, path), "rb") as f:
        return f.read()


# --- camera datagrams: a run of [u16 length][datagram] ---
stream = read("fuzz/captures/data_stream.bin")
video = read("fuzz/captures/video.bin")
long_video = read("fuzz/captures/video_long_header.bin")
framed = lambda *datagrams: b"".join(struct.pack("<H", len(d)) + d for d in datagrams)
write("camera_datagram", "data_stream", framed(stream))
write("camera_datagram", "video", framed(video))
write("camera_datagram", "video_long_header", framed(long_video))
write("camera_datagram", "stream_then_video", framed(stream, stream, video, long_video, video))
# A video datagram carrying a real parameter set, then one with the next size.
def video_datagram(payload, sequence):
    header = bytearray(video[:20])
    total = 20 + len(payload)
    header[0:2] = struct.pack("<H", total | 0x8000)
    header[10:12] = struct.pack("<H", sequence)
    check = 0
    for b in header[:7]:
        check ^= b
    header[7] = check
    return bytes(header) + payload
sps_a = read("tests/fixtures/h264/main_1920x1080.sps")
sps_b = read("tests/fixtures/h264/high_3840x2160.sps")
write("camera_datagram", "parameter_sets", framed(video_datagram(sps_a, 1), video_datagram(sps_b, 2)))

# --- telemetry reports: per frame [length pick][bytes from the sender on] ---
lengths = [17, 36, 53, 57, 54, 58, 77, 81, 107, 116]
frames = []
i = 20
while i + 2 < len(stream):
    if stream[i] == 0x55 and i + stream[i + 1] <= len(stream) and stream[i + 1] >= 13:
        frames.append(stream[i:i + stream[i + 1]])
        i += stream[i + 1]
    else:
        i += 1
for n, frame in enumerate(frames):
    length = len(frame)
    pick = lengths.index(length) if length in lengths else 2 * len(lengths) + (length - 13) % 243
    write("telemetry_report", "capture_%02d_length_%d" % (n, length), bytes([pick]) + frame[4:-2])
everything = b"".join(
    (bytes([lengths.index(len(f))]) if len(f) in lengths else bytes([20])) + f[4:-2] for f in frames)
write("telemetry_report", "capture_all", everything)
for index, length in enumerate(lengths):
    body = bytes((7 * k + index) & 0xFF for k in range(length - 6))
    write("telemetry_report", "kind_%d" % length, bytes([index]) + body)
# The gimbal state report: 17 bytes, command set 4, id 0x19, the state bits in its payload.
write("telemetry_report", "gimbal_state", bytes([0]) + bytes([0x04, 0x02, 0x10, 0x00, 0x00, 0x04, 0x19, 0xB2, 0x00, 0x00, 0x00]))

# --- the main application's commands ---
tables_source = open(os.path.join(top, "src/control/value_tables.h")).read()


def table_words(name):
    """The first text of every row of the table `name`."""
    match = re.search(r"\b" + re.escape(name) + r"\[\]\s*=\s*\{(.*?)\n\};", tables_source, re.S)
    if not match:
        return []
    rows = re.findall(r'ShutterRow\((".*?[^\\]")\)|\{([^{}]*)\}', match.group(1))
    words = []
    for shutter, row in rows:
        literal = shutter or (re.search(r'"((?:\\.|[^"\\])*)"', row) or [None, None])[0]
        if literal:
            words.append(json.loads(literal))
    return words


def command(**members):
    return b"!" + json.dumps(members, separators=(",", ":")).encode()


param_tables = {
    "video_mode": "kExposureModeRows", "shutter": "ShutterValueTable", "iso": "IsoCodes", "ev": "EvCodes",
    "wb": "WhiteBalanceCodes", "color": "kColorModeRows", "video_aspect": "kAspectRatioRows",
    "sensor_res": "SensorResolutionCodes", "shotmode": "kShotModeRows", "antiflicker": "kAntiFlickerRows",
    "video_std": "kVideoStandardRows", "histogram": "kHistogramRows",
}
value_tables = {("camera", "mode"): "kCameraModeRows", ("focus", "type"): "kFocusTypeRows",
                ("gimbal", "follow"): "kGimbalFollowSpeedRows", ("gimbal", "mode"): "GimbalModeCodes",
                ("exposure", "auto"): "kExposureLockRows"}
count = 0
for cmd, table in sorted(param_tables.items()):
    words = table_words(table)
    assert words, table
    for word in words + ["", "junk"]:
        write("app_datagram", "%s_%03d" % (cmd, count), command(cmd=cmd, param=word, value="5600"))
        count += 1
for (cmd, param), table in sorted(value_tables.items()):
    words = table_words(table)
    assert words, table
    for word in words + ["junk"]:
        write("app_datagram", "%s_%s_%03d" % (cmd, param, count), command(cmd=cmd, param=param, value=word))
        count += 1
for resolution in re.findall(r"\{(\d+), (\d+), (\d+)\}", re.search(
        r"VideoResolutionWords\[\] = \{(.*?)\n\};", tables_source, re.S).group(1)):
    write("app_datagram", "video_resolution_%s" % "x".join(resolution),
          command(cmd="video_resolution", param="%sx%s@%s" % resolution))
plain = [
    dict(cmd="record", param="start"), dict(cmd="record", param="stop"), dict(cmd="shot"),
    dict(cmd="position", param="normal"), dict(cmd="position", param="selfie"),
    dict(cmd="position", param="abs", value="100", value2="-200", value3="300"),
    dict(cmd="position", param="abs_norm", value="0.5", value2="-0.25", value3="1e9"),
    dict(cmd="tracking", param="start", value="0.5", value2="0.5", value3="0.1", value4="0.17"),
    dict(cmd="tracking", param="stop"), dict(cmd="orientation", param="lock"),
    dict(cmd="orientation", param="unlock"), dict(cmd="focus", param="point", value="0.3", value2="0.7"),
    dict(cmd="dzoom", param="set", value="250"), dict(cmd="exposure", param="point", value="42"),
    dict(cmd="exposure", param="center"), dict(cmd="aperture", param="2.8"), dict(cmd="horizont", param="1"),
    dict(cmd="resetcamera"), dict(cmd="format", param="sd"), dict(cmd="playback", param="play"),
    dict(cmd="playback", param="pause"), dict(cmd="playback", param="resume"),
    dict(cmd="set", name="movement", value="abs"), dict(cmd="set", name="movement", value="rel"),
    dict(cmd="gimbal", param="speed", value="1", value2="-1", value3="0"),
]
for n, members in enumerate(plain):
    write("app_datagram", "plain_%02d_%s" % (n, members["cmd"]), command(**members))
write("app_datagram", "zoom_rate", bytes([5, 1, 3, 0, 0, 0]))
write("app_datagram", "malformed", b'!{"cmd":"iso","param":')
write("app_datagram", "no_mark", b'{"cmd":"iso","param":"400"}')
write("app_datagram", "key_case", b'!{"CMD":"ISO","Param":"400"}')

# --- parameter sets: the real-encoder fixtures ---
fixtures = os.path.join(top, "tests/fixtures/h264")
for name in sorted(os.listdir(fixtures)):
    if name.endswith(".sps"):
        write("parameter_set", name[:-4], read("tests/fixtures/h264/" + name))

# --- the video ring: [flags][u16 length][bytes] per part ---
part = lambda flags, data: bytes([flags]) + struct.pack("<H", len(data)) + data
write("video_ring", "small_parts", part(1, b"\0\0\0\x01\x65abc") + part(0, b"x" * 1400) + part(1, b"y" * 9000))
write("video_ring", "parameter_set_part", part(1, sps_a) + part(1, b"\0\0\0\x01\x41" + b"z" * 3000))
write("video_ring", "long_part", part(6 | 1, bytes(range(256)) * 4) + part(1, b"after"))
write("video_ring", "many_parts", b"".join(part(k % 2, bytes([k]) * (k * 37 % 1500 + 1)) for k in range(120)))

# --- the remote control: header, then [slot][value][flag] triples, 0xff ending a cycle ---
header = bytes([1, 0, 1, 1, 0])
press = lambda slot: bytes([slot, 64, 0, 0xFF, slot, 0, 0, 0xFF])
write("remote_control", "every_button", header + b"".join(press(s) for s in range(44)))
write("remote_control", "rockers_down", header + b"".join(bytes([s, 0xC0, 0, 0xFF, s, 0, 0, 0xFF]) for s in range(21, 43)))
write("remote_control", "sticks", bytes([2, 3, 1, 2, 2]) + bytes([0, 32, 0, 1, 0xE0, 0, 2, 16, 0, 0xFF]) * 5
      + bytes([0, 0, 0, 1, 0, 0, 2, 0, 0, 0xFF]) * 4)
write("remote_control", "switches", header + bytes([5, 64, 1, 0xFF, 5, 0, 1, 0xFF, 5, 64, 0, 0xFF, 39, 32, 1, 0xFF,
                                                    39, 0x80, 1, 0xFF, 39, 0x7F, 1, 0xFF, 39, 0, 0, 0xFF]))
write("remote_control", "idle_mode", bytes([0, 0, 0, 0, 0]) + press(7) + press(20))

# --- the dictionary of the command format: keys, command words, table words ---
app_source = open(os.path.join(top, "src/control/app_commands.cpp")).read()
entries = {"!", "{", "}", ":", ",", "\""}
entries |= {'"%s"' % key for key in ("cmd", "name", "param", "value", "value2", "value3", "value4")}
entries |= {'"%s"' % word for word in re.findall(r'\{"(\w+)", (?:"\w+"|nullptr)', app_source)}
entries |= {'"%s"' % word for word in re.findall(r'\{"\w+", "(\w+)"', app_source)}
for table in list(param_tables.values()) + list(value_tables.values()):
    entries |= {json.dumps(word) for word in table_words(table)}
entries |= {'"movement"', '"abs"', '"rel"', '"speed"'}
with open(os.path.join(here, "app_datagram.dict"), "w") as out:
    out.write("# Keys and words of the main application's commands (made by fuzz/make_corpus.py).\n")
    for entry in sorted(entries):
        out.write("%s\n" % json.dumps(entry))
