"""The Python client against the real relay and the camera simulator.

Run inside private network and mount namespaces (tests/system/
python_client_test.cpp does that): the relay binds fixed ports and creates
shared memory. Arguments: the relay, the simulator, an H.264 file to stream.
Exit status 0 when every check holds; each failure is said on stderr.
"""

import os
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import tarnwick  # noqa: E402

SIMULATOR_PORT = 19004
TIMEOUT = 8.0


class Child:
    """A program whose output is collected line by line."""

    def __init__(self, arguments, stdin=False):
        self.lines = []
        self.lock = threading.Lock()
        self.process = subprocess.Popen(arguments, stdin=subprocess.PIPE if stdin else subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.collector = threading.Thread(target=self._collect, daemon=True)
        self.collector.start()

    def _collect(self):
        for line in self.process.stdout:
            with self.lock:
                self.lines.append(line.decode("utf-8", errors="replace").rstrip("\n"))

    def text(self):
        with self.lock:
            return "\n".join(self.lines)

    def wait_for(self, line, timeout=TIMEOUT):
        """True once the program has written `line` (a whole line)."""
        return self.wait_until(lambda lines: line in lines, timeout)

    def wait_until(self, condition, timeout):
        """True once condition(the lines so far) holds."""
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            with self.lock:
                if condition(self.lines):
                    return True
            time.sleep(0.02)
        return False

    def write(self, line):
        self.process.stdin.write((line + "\n").encode())
        self.process.stdin.flush()

    def stop(self):
        self.process.kill()
        self.process.wait()


failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
        print("FAILED: " + what, file=sys.stderr)
    return condition


def read_ring(reader, want_bytes, timeout):
    """At least `want_bytes` of stream from the ring, or what came in time."""
    stream = bytearray()
    end = time.monotonic() + timeout
    while len(stream) < want_bytes and time.monotonic() < end:
        for chunk in reader.poll():
            stream += chunk
        time.sleep(0.005)
    return bytes(stream)


def main():
    daemon_path, simulator_path, video_path = sys.argv[1:4]
    with open(video_path, "rb") as f:
        clip = f.read()
    os.makedirs(tarnwick.RUN_DIR, exist_ok=True)

    simulator = Child([simulator_path, "--port=%d" % SIMULATOR_PORT, "--video=" + video_path], stdin=True)
    daemon = None
    link = tarnwick.AppLink()
    notices = tarnwick.NoticeListener()
    try:
        if not check(simulator.wait_for("camera simulator on 127.0.0.1:%d" % SIMULATOR_PORT, 5), "simulator up"):
            return
        daemon = Child([daemon_path, "--host", "127.0.0.1", "--port", str(SIMULATOR_PORT)])

        # The ring, from its first part: the clip as the simulator sends it, looped.
        reader = None
        end = time.monotonic() + TIMEOUT
        while reader is None and time.monotonic() < end:
            reader = tarnwick.RingReader.open(from_start=True)
            time.sleep(0.01)
        if not check(reader is not None, "the ring exists"):
            return
        want = len(clip) + len(clip) // 2
        stream = read_ring(reader, want, 30)
        looped = clip * (len(stream) // len(clip) + 1)
        check(len(stream) >= want, "ring gave %d bytes of %d" % (len(stream), want))
        check(stream == looped[:len(stream)], "ring stream equals the clip looped")
        check(reader.lost_parts == 0, "no part lost (%d)" % reader.lost_parts)
        print("ring: %d bytes in %d parts, %d lost" % (len(stream), reader.parts, reader.lost_parts))
        reader.close()

        announced = [line for line in daemon.text().split("\n")
                     if line.startswith("Live stream video resolution changed to ")]
        size = tarnwick.read_video_size()
        check(bool(announced) and size is not None and
              announced[-1].endswith("%dx%d" % size), "resolution files %r, log %r" % (size, announced))
        print("video size: %r" % (size,))

        # Status values follow what the simulator is told to report.
        for line in ("set battery_level 12", "set iso_set 800", "set camera_mode video", "set gimbal_sweep 0",
                     "set attitude 100 -200 30", "set wb_temp 4300"):
            simulator.write(line)
        record = link.status(TIMEOUT, lambda r: r.get("battery_level") == 12 and r.get("iso_set") == "800")
        check(record is not None and record["camera_detected"] == 1 and record["wb_temp"] == 4300
              and record["camera_mode"] == "video" and record.missing == [],
              "status line shows the simulator's values: %r" % (record,))

        state = None
        end = time.monotonic() + TIMEOUT
        while time.monotonic() < end:
            message = link.receive(1)
            if isinstance(message, tarnwick.StateMessage) and message.attitude == (100, -200, 30):
                state = message
                break
        check(state is not None and state.gimbal_limits == (73, -232, 52, -102),
              "state message shows the attitude: %r" % (state,))
        attitude = tarnwick.AttitudeReader.open()
        check(attitude is not None and attitude.read() == (100, -200, 30),
              "/shared_camstate holds the attitude: %r" % (attitude and attitude.read(),))
        if attitude:
            attitude.close()

        # A command, applied by the simulated camera and reported back.
        link.command("iso", "1600")
        check(simulator.wait_for("applied: set iso_set 1600"), "the simulator applied ISO 1600")
        check(link.status(TIMEOUT, lambda r: r.get("iso_set") == "1600") is not None, "status shows iso_set 1600")

        # A JSON command without its "!" is dropped without a word.
        link.send(b'{"cmd":"iso","param":"400"}')
        time.sleep(0.5)
        check("applied: set iso_set 400" not in simulator.text(), "plain JSON is ignored")

        # The remote control's record slot: recording starts, the notice turns, and stops.
        link.send(tarnwick.movement_command("abs"))
        rc = tarnwick.RcWriter.open(create=False)
        if check(rc is not None, "/shared_rc_raw exists"):
            rc.set("record", 1.0)
            check(simulator.wait_for("applied: set recording 1"), "record slot starts recording")
            active = False
            end = time.monotonic() + TIMEOUT
            while not active and time.monotonic() < end:
                active = notices.receive(1) is True
            check(active, "notice rec_active")
            rc.set("record", 0.0)
            check(simulator.wait_for("applied: set recording 0"), "record slot released stops recording")
            rc.close()
        check(daemon.process.poll() is None, "the relay still runs")
        for child in (daemon, simulator):
            check("Sanitizer" not in child.text() and "runtime error:" not in child.text(), "no sanitizer report")
    finally:
        link.close()
        notices.close()
        if daemon:
            daemon.stop()
        simulator.stop()
    if failures:
        print("relay log:\n" + (daemon.text() if daemon else ""), file=sys.stderr)
        print("simulator log (tail):\n" + "\n".join(simulator.lines[-40:]), file=sys.stderr)


if __name__ == "__main__":
    main()
    sys.exit(1 if failures else 0)
