"""The Python client against bytes written by hand from the documented layouts."""

import mmap
import os
import struct
import sys
import socket
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import tarnwick  # noqa: E402


class StatusLineTest(unittest.TestCase):
    def test_values_are_typed_and_empty_texts_stay_empty(self):
        line = (b"\x07camera_detected=1,camera_model=Unknown camera (255),camera_mode=photo,sd=,shots_left=0,"
                b"rec_time_left=,rec_time=,voltage=0,battery_level=-5,battery_charging=1,shot_mode=,"
                b"resolution=,framerate=,format=@,ae=0,aperture=2,shutter=8\",shutter_set=1/1.25,iso=0,"
                b"iso_set=auto,ev=-0.7,image_mode=manual,color_mode=black white,wb=custom,wb_temp=10000,"
                b"ratio=4:3,sensor=0,video_std=NTSC,antiflicker=auto,histogram=0,pl_state=,pl_id=65535,"
                b"pl_dur=,pl_time=,")
        record = tarnwick.parse_status_line(line)
        self.assertEqual(record.missing, [])
        self.assertEqual(list(record), [key for key, _ in tarnwick.STATUS_KEYS])
        self.assertEqual((record["camera_model"], record["battery_level"], record["shutter"], record["format"]),
                         ("Unknown camera (255)", -5, '8"', "@"))
        self.assertEqual((record["sd"], record["pl_time"], record["pl_id"], record["wb_temp"]), ("", "", 65535, 10000))
        self.assertEqual(record["color_mode"], "black white")

    def test_unknown_keys_kept_and_first_occurrence_counts(self):
        record = tarnwick.parse_status_line(b"\x07iso=100,new_key=x,iso=200,")
        self.assertEqual((record["iso"], record["new_key"]), (100, "x"))
        self.assertIn("camera_detected", record.missing)

    def test_malformed_lines_are_refused(self):
        for datagram in (b"", b"\x07", b"\x06camera_detected=1,", b"\x07camera_detected=1",
                         b"\x07camera_detected=one,", b"\x07=1,", b"\x07camera_detected,",
                         b"\x07a=" + b"x" * 1297 + b","):
            with self.assertRaises(ValueError, msg=datagram[:20]):
                tarnwick.parse_status_line(datagram)


class BinaryMessageTest(unittest.TestCase):
    def test_state_message(self):
        message = bytes([
            6, 0,                      # type, kind
            0x01,                      # lock requested | mode flag
            0x2C, 0x01, 0x38, 0xFF, 0x00, 0x80,   # attitude 300, -200, -32768
            0x80, 0x11, 0x22,          # camera flags (recording), aux 1, aux 2
            0x01, 0x85, 0x00,          # focus reported, AFS, zero
            0x34, 0x12, 0xFF, 0xFF,    # focus params 1 and 3
            0xF4, 0x01, 0xE8, 0x03,    # focus point 500, 1000
            0x07, 0x08, 0x09,          # focus params 21, 31, ae aux
            0x18, 0xFF, 0x49, 0x00,    # gimbal limit 1 (-232), limit 0 (73)
            0x9A, 0xFF, 0x34, 0x00,    # limit 3 (-102), limit 2 (52)
            0x90, 0x01, 0x20, 0x03,    # zoom 400, zoom max 800
            0x05,                      # bit1 x 4 + bit4
        ])
        state = tarnwick.parse_datagram(message)
        self.assertEqual(state.attitude, (300, -200, -32768))
        self.assertEqual((state.gimbal_flags, state.camera_flags, state.camera_aux_1, state.camera_aux_2),
                         (1, 0x80, 0x11, 0x22))
        self.assertTrue(state.recording)
        self.assertEqual((state.focus_reported, state.focus_mode_code, state.focus_param_1, state.focus_param_3),
                         (1, 0x85, 0x1234, 0xFFFF))
        self.assertEqual((state.focus_point_x, state.focus_point_y), (500, 1000))
        self.assertEqual((state.focus_param_21, state.focus_param_31, state.ae_aux), (7, 8, 9))
        self.assertEqual(state.gimbal_limits, (73, -232, 52, -102))
        self.assertEqual((state.zoom, state.zoom_max, state.gimbal_bits), (400, 800, 5))
        self.assertFalse(tarnwick.parse_datagram(message[:9] + b"\xc0" + message[10:]).recording)

    def test_tracking_and_histogram(self):
        tracking = tarnwick.parse_datagram(bytes([6, 2, 1, 0xFF, 0x7F, 0x00, 0x00, 0xFF, 0xFF, 0x33, 0x0C]))
        self.assertEqual((tracking.active, tracking.x, tracking.y, tracking.w, tracking.h),
                         (1, 32767, 0, 65535, 3123))
        histogram = tarnwick.parse_datagram(bytes([6, 1]) + bytes(range(64)))
        self.assertEqual(histogram.bins, bytes(range(64)))

    def test_wrong_lengths_and_kinds_are_refused(self):
        for datagram in (bytes([6, 0]) + bytes(36), bytes([6, 0]) + bytes(38), bytes([6, 2]) + bytes(8),
                         bytes([6, 1]) + bytes(63), bytes([6, 3]) + bytes(9), bytes([6]), b"\x09\x09", b""):
            with self.assertRaises(ValueError, msg=datagram.hex()):
                tarnwick.parse_datagram(datagram)

    def test_notice(self):
        self.assertIs(tarnwick.parse_notice(b"rec_active"), True)
        self.assertIs(tarnwick.parse_notice(b"rec_inactive"), False)
        with self.assertRaises(ValueError):
            tarnwick.parse_notice(b"rec_active\x00")


class CommandTest(unittest.TestCase):
    def test_datagrams(self):
        self.assertEqual(tarnwick.json_command("record", "start"), b'!{"cmd":"record","param":"start"}')
        self.assertEqual(tarnwick.json_command("wb", "custom", value=5600),
                         b'!{"cmd":"wb","param":"custom","value":"5600"}')
        self.assertEqual(tarnwick.json_command("tracking", "start", 0.5, 0.5, 0.1, 0.17),
                         b'!{"cmd":"tracking","param":"start","value":"0.5","value2":"0.5","value3":"0.1",'
                         b'"value4":"0.17"}')
        self.assertEqual(tarnwick.json_command("shutter", '8"'), b'!{"cmd":"shutter","param":"8\\""}')
        self.assertEqual(tarnwick.movement_command("rel"), b'!{"cmd":"set","name":"movement","value":"rel"}')
        self.assertEqual(tarnwick.zoom_rate_message(-2), bytes([5, 1, 0xFE, 0xFF]))
        self.assertEqual(tarnwick.zoom_rate_message(300), bytes([5, 1, 0x2C, 0x01]))
        for bad in (lambda: tarnwick.zoom_rate_message(40000), lambda: tarnwick.movement_command("ABS")):
            self.assertRaises(ValueError, bad)


# A ring written by hand: header fields and slots at their documented offsets.
def slot_offset(slot):
    return 24 + 300018 * slot


def write_slot(region, slot, part, index, data):
    base = slot_offset(slot)
    region[base:base + 18] = struct.pack("<IHBB", len(data), part, index, 0) + b"\x01" * 10
    region[base + 18:base + 18 + len(data)] = data


def set_header(region, clear_request=None, last_part=None, next_slot=None):
    for offset, value in ((0, clear_request), (2, last_part), (4, next_slot)):
        if value is not None:
            region[offset:offset + 2] = struct.pack("<H", value)


class RingReaderTest(unittest.TestCase):
    def setUp(self):
        self.region = mmap.mmap(-1, 60003624)

    def tearDown(self):
        self.region.close()

    def test_parts_in_order_across_the_ring_end_with_a_two_chunk_part(self):
        set_header(self.region, clear_request=0, last_part=9, next_slot=198)
        reader = tarnwick.RingReader(self.region)
        self.assertEqual(reader.slot, 198)
        write_slot(self.region, 198, 10, 0, b"A" * 5)
        write_slot(self.region, 199, 11, 0, b"B" * 300000)
        write_slot(self.region, 0, 11, 1, b"C")
        write_slot(self.region, 1, 12, 0, b"D" * 3)
        set_header(self.region, last_part=12, next_slot=2)
        self.assertEqual(b"".join(reader.poll()), b"A" * 5 + b"B" * 300000 + b"C" + b"D" * 3)
        self.assertEqual((reader.parts, reader.lost_parts, reader.slot), (3, 0, 2))
        self.assertEqual(reader.poll(), [])
        reader.close()

    def test_lost_parts_counted_and_a_part_without_its_start_skipped(self):
        set_header(self.region, clear_request=0, next_slot=0)
        reader = tarnwick.RingReader(self.region)
        write_slot(self.region, 0, 65535, 0, b"a")
        write_slot(self.region, 1, 3, 0, b"b")       # parts 0, 1, 2 lost across the wrap of part numbers
        write_slot(self.region, 2, 4, 1, b"x")       # chunk 1 of a part whose chunk 0 was not seen
        write_slot(self.region, 3, 5, 0, b"c")
        set_header(self.region, next_slot=4)
        self.assertEqual(reader.poll(), [b"a", b"b", b"c"])
        self.assertEqual((reader.parts, reader.lost_parts), (3, 4))

    def test_clear_request_and_a_cleared_ring(self):
        set_header(self.region, clear_request=0, next_slot=50)
        reader = tarnwick.RingReader(self.region)
        reader.request_clear()
        self.assertEqual(self.region[0:2], b"\x01\x00")
        write_slot(self.region, 50, 7, 0, b"old")
        set_header(self.region, next_slot=51)
        self.assertEqual(reader.poll(), [], "nothing is read while the clear is pending")
        self.region[0:60003624] = bytes(60003624)    # the writer clears, then writes slot 0
        write_slot(self.region, 0, 8, 0, b"new")
        set_header(self.region, next_slot=1)
        self.assertEqual(reader.poll(), [b"new"])
        write_slot(self.region, 1, 9, 0, b"b")
        write_slot(self.region, 2, 10, 0, b"c")
        set_header(self.region, next_slot=3)
        self.assertEqual(reader.poll(), [b"b", b"c"])
        # The writer restarted (a new relay): the ring is cleared and refilled from slot 0 while the reader
        # stands at slot 3; the unwritten slot sends it back to slot 0.
        self.region[0:60003624] = bytes(60003624)
        write_slot(self.region, 0, 0, 0, b"restart")
        write_slot(self.region, 1, 1, 0, b"next")
        set_header(self.region, next_slot=2)
        self.assertEqual(reader.poll(), [b"restart", b"next"])
        self.assertEqual(reader.lost_parts, 0)

    def test_an_object_cut_short_is_not_read(self):
        with tempfile.TemporaryFile() as backing:
            backing.truncate(60003624)
            region = mmap.mmap(backing.fileno(), 60003624)
            set_header(region, clear_request=0, next_slot=10)
            reader = tarnwick.RingReader(region)
            write_slot(region, 10, 1, 0, b"a")
            set_header(region, next_slot=11)
            backing.truncate(100)                       # another process shrinks it: slot 10 is past its end
            self.assertEqual(reader.poll(), [], "nothing read, and no SIGBUS")
            backing.truncate(60003624)                  # restored
            write_slot(region, 10, 1, 0, b"a")
            set_header(region, clear_request=0, next_slot=11)
            self.assertEqual(reader.poll(), [b"a"])
            reader.close()

    def test_slot_overwritten_while_copied_is_dropped(self):
        region = self.region
        set_header(region, clear_request=0, next_slot=4)
        reader = tarnwick.RingReader(region)
        write_slot(region, 4, 1, 0, b"first")
        write_slot(region, 5, 2, 0, b"second")
        set_header(region, next_slot=6)

        class Writer:
            # Slot 5 is rewritten (a part 200 newer) between the reader's copy and its check.
            def __getitem__(self, key):
                data = region[key]
                if isinstance(key, slice) and key.start == slot_offset(5) + 18:
                    write_slot(region, 5, 202, 0, b"later")
                    set_header(region, next_slot=6)
                return data

        reader.region = Writer()
        self.assertEqual(reader.poll(), [b"first"], "the torn copy of slot 5 is dropped")
        self.assertEqual(reader.slot, 6, "reading goes on at the writer")
        reader.region = region
        write_slot(region, 6, 203, 0, b"after")
        set_header(region, next_slot=7)
        self.assertEqual(reader.poll(), [b"after"])
        self.assertEqual(reader.lost_parts, 201)

    def test_a_region_of_another_size_is_not_mapped(self):
        with tempfile.TemporaryDirectory() as directory:
            old, tarnwick.SHM_DIR = tarnwick.SHM_DIR, directory
            try:
                with open(os.path.join(directory, tarnwick.RING_NAME), "wb") as f:
                    f.truncate(1000)
                self.assertIsNone(tarnwick.RingReader.open())
                self.assertIsNone(tarnwick.RingReader.open("no_such_ring"))
            finally:
                tarnwick.SHM_DIR = old


JOINABLE = b"\x00\x00\x00\x01\x67"       # start code and a sequence parameter set


class RingRestartTest(unittest.TestCase):
    def setUp(self):
        self.region = mmap.mmap(-1, 60003624)

    def tearDown(self):
        self.region.close()

    def clear(self):
        """The writer's clear before its first part: clear_request lowered last."""
        self.region[2:60003624] = bytes(60003622)
        set_header(self.region, clear_request=0)

    def test_a_relay_starting_again_is_one_restart_never_old_parts_and_resumes_at_a_parameter_set(self):
        region = self.region
        set_header(region, clear_request=0, next_slot=0)
        reader = tarnwick.RingReader(region, start_at_parameter_set=True)
        write_slot(region, 0, 0, 0, b"P0")              # no parameter set: skipped
        write_slot(region, 1, 1, 0, JOINABLE + b"1")
        for slot in range(2, 150):
            write_slot(region, slot, slot, 0, b"p%d" % slot)
        set_header(region, last_part=149, next_slot=150)
        self.assertEqual(len(reader.poll()), 149)
        # A new relay halfway through zeroing: clear_request up first, next_slot 0, slots from 100 on still
        # the last run's. Nothing is read until the writer has cleared; then its parts from slot 0.
        set_header(region, clear_request=1)
        region[2:slot_offset(100)] = bytes(slot_offset(100) - 2)
        self.assertEqual(reader.poll(), [])
        self.assertEqual(reader.poll(), [])
        self.clear()
        write_slot(region, 0, 0, 0, b"mid-picture")
        write_slot(region, 1, 1, 0, JOINABLE + b"new")
        set_header(region, next_slot=2)
        self.assertEqual(reader.poll(), [JOINABLE + b"new"])
        self.assertEqual((reader.restarts, reader.lost_parts), (1, 0))
        # The whole start between two looks: the unwritten slot met behind next_slot is the restart, and the
        # chunks before it are returned alone, before the restart is counted.
        for slot in range(2, 20):
            write_slot(region, slot, slot, 0, b"q%d" % slot)
        set_header(region, next_slot=10)
        self.assertEqual(len(reader.poll()), 8)
        set_header(region, next_slot=20)
        self.clear()
        write_slot(region, 0, 0, 0, JOINABLE + b"again")
        set_header(region, next_slot=1)
        self.assertEqual(reader.poll(), [JOINABLE + b"again"])
        self.assertEqual((reader.restarts, reader.lost_parts), (2, 0))
        # A clear that begins while a slot is copied: the copy is dropped.
        write_slot(region, 1, 1, 0, b"torn")
        set_header(region, next_slot=2)

        class ClearDuringCopy:
            def __getitem__(self, key):
                data = region[key]
                if isinstance(key, slice) and key.start == slot_offset(1) + 18:
                    set_header(region, clear_request=1)
                return data

        reader.region = ClearDuringCopy()
        self.assertEqual(reader.poll(), [])
        self.assertEqual(reader.restarts, 3)
        reader.region = region
        reader.close()

    def test_own_clear_is_no_restart_and_a_replaced_object_is_followed(self):
        with tempfile.TemporaryDirectory() as directory:
            old, tarnwick.SHM_DIR = tarnwick.SHM_DIR, directory
            path = os.path.join(directory, "ring")
            try:
                with open(path, "wb") as f:
                    f.truncate(60003624)
                reader = tarnwick.RingReader.open("ring")
                with open(path, "r+b") as f:
                    first = mmap.mmap(f.fileno(), 60003624)
                write_slot(first, 0, 0, 0, b"a")
                set_header(first, next_slot=1)
                self.assertEqual(reader.poll(), [b"a"])
                reader.request_clear()
                self.assertEqual(reader.poll(), [])
                set_header(first, clear_request=0, next_slot=0)
                self.assertEqual(reader.restarts, 0, "the reader's own clear")
                # Removed and made anew under the same name (another inode): mapped again, one restart.
                os.unlink(path)
                with open(path, "wb") as f:
                    f.truncate(60003624)
                with open(path, "r+b") as f:
                    second = mmap.mmap(f.fileno(), 60003624)
                set_header(second, next_slot=5)
                time.sleep(tarnwick.RingReader.IDENTITY_CHECK_SECONDS + 0.02)
                self.assertEqual(reader.poll(), [])
                self.assertEqual(reader.restarts, 1)
                write_slot(second, 5, 9, 0, b"b")
                set_header(second, next_slot=6)
                self.assertEqual(reader.poll(), [b"b"])
                reader.close()
                first.close()
                second.close()
            finally:
                tarnwick.SHM_DIR = old


class AppLinkTest(unittest.TestCase):
    def test_a_new_source_of_status_is_a_restarted_relay(self):
        with tarnwick.AppLink(port=0) as link:
            address = link.sock.getsockname()
            relays = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2)]
            try:
                line = b"\x07camera_detected=1,"
                relays[0].sendto(line, address)
                self.assertIsInstance(link.receive(1), tarnwick.StatusRecord)
                relays[0].sendto(b"\x09junk", address)          # no report: tells nothing
                relays[0].sendto(line, address)
                link.receive(1)
                link.receive(1)
                self.assertEqual(link.restarts, 0)
                relays[1].sendto(line, address)
                link.receive(1)
                self.assertEqual((link.restarts, link.relay[1]), (1, relays[1].getsockname()[1]))
                self.assertIsNone(link.receive(0.01), "a time-out")
            finally:
                for relay in relays:
                    relay.close()


class FilesAndRecordsTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.old_shm, tarnwick.SHM_DIR = tarnwick.SHM_DIR, self.directory.name

    def tearDown(self):
        tarnwick.SHM_DIR = self.old_shm
        self.directory.cleanup()

    def write(self, name, content):
        with open(os.path.join(self.directory.name, name), "wb") as f:
            f.write(content)

    def test_resolution_files_are_validated(self):
        d = self.directory.name
        self.assertIsNone(tarnwick.read_video_size(d))
        for width, height, expected in ((b"1920", b"1080", (1920, 1080)), (b"-32", b"240", None),
                                        (b"2147483647", b"1080", None), (b"19x", b"1080", None),
                                        (b"1920", b"", None), (b"8", b"8", None)):
            self.write("video_width", width)
            self.write("video_height", height)
            self.assertEqual(tarnwick.read_video_size(d), expected, (width, height))

    def test_attitude_record(self):
        self.write("shared_camstate", bytes([0x2C, 0x01, 0x38, 0xFF, 0x00, 0x80]))
        reader = tarnwick.AttitudeReader.open()
        self.assertEqual(reader.read(), (300, -200, -32768))
        reader.close()
        self.write("shared_camstate", bytes(8))
        self.assertIsNone(tarnwick.AttitudeReader.open())

    def test_remote_control_record(self):
        self.assertIsNone(tarnwick.RcWriter.open(create=False))
        rc = tarnwick.RcWriter.open()
        path = os.path.join(self.directory.name, "shared_rc_raw")
        self.assertEqual(os.path.getsize(path), 1504)
        self.assertEqual(os.stat(path).st_mode & 0o777, 0o600)
        rc.set("record", 1.0)
        rc.set(39, -0.5)
        rc.set_flag("ev-axis", 1)
        rc.set_flag(5, 0x1FFFF)
        with open(path, "rb") as f:
            raw = f.read()
        self.assertEqual(raw[1112:1120], struct.pack("<d", 1.0))
        self.assertEqual(raw[1368:1376], bytes.fromhex("000000000000e0bf"))
        self.assertEqual((raw[1490:1492], raw[1422:1424]), (b"\x01\x00", b"\xff\xff"))
        self.assertEqual(raw[:1056] + raw[1408:1412] + raw[1500:], bytes(1056 + 4 + 4))
        for bad in ("no-such-slot", 44, -1):
            self.assertRaises((KeyError, ValueError), rc.set, bad, 1.0)
        rc.clear()
        with open(path, "rb") as f:
            self.assertEqual(f.read(), bytes(1504))
        rc.close()
        self.write("shared_rc_raw", bytes(100))   # a record of the wrong size is set to 1504 bytes
        tarnwick.RcWriter.open(create=False).close()
        self.assertEqual(os.path.getsize(path), 1504)


if __name__ == "__main__":
    unittest.main()
