"""Relay restarts under running ring readers: the relay is killed (SIGKILL)
and started again, over and over, while the camera simulator streams a
counter-stamped video and two readers follow the ring, one through the C
interface (tests/client/ring_follow.c) and one through this module
(ring_follow.py). Each reader writes every run of the relay into a file of
its own, from the first parameter set on.

Checks, for each reader: the stamps only ever grow, across all its files (no
picture of an earlier run, nor an old one of the same run, comes after a
later one); every restart is counted as one, and no part as lost; every file
starts with a sequence parameter set and decodes in ffmpeg without an error.

Run inside private network and mount namespaces (the stress test in
tests/stress/ does that). Arguments: the relay, the simulator, an H.264 file,
the C reader, the number of restarts. Exit status 0 when every check holds.
"""

import os
import random
import re
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from daemon_check import Child, SIMULATOR_PORT, check, failures  # noqa: E402

# The simulator's stamp: an SEI NAL unit, user data unregistered, UUID text,
# then the access unit's number in 16 hexadecimal digits.
STAMP = re.compile(rb"\x00\x00\x00\x01\x06\x05\x20tarnwick-counter([0-9a-f]{16})")
PARAMETER_SET_START = re.compile(rb"\x00\x00\x00\x01[\x07\x27\x47\x67]")

def check_reader(name, prefix, summary, restarts):
    counts = dict(item.split("=") for item in summary.split())
    check(int(counts.get("restarts", -1)) == restarts,
          "%s counted %s restarts of %d" % (name, counts.get("restarts"), restarts))
    check(counts.get("lost") == "0", "%s lost no part (%s)" % (name, counts.get("lost")))
    directory, base = os.path.split(prefix)
    runs = sorted(int(f.split(".")[-2]) for f in os.listdir(directory) if f.startswith(base + "."))
    check(len(runs) >= restarts // 2, "%s wrote %d runs of %d" % (name, len(runs), restarts + 1))
    last_stamp = -1
    decoded = 0
    for run in runs:
        path = "%s.%d.h264" % (prefix, run)
        with open(path, "rb") as f:
            stream = f.read()
        stamps = [(m.start(), int(m.group(1), 16)) for m in STAMP.finditer(stream)]
        for _, stamp in stamps:
            if not check(stamp > last_stamp, "%s run %d: stamp %d after %d" % (name, run, stamp, last_stamp)):
                break
            last_stamp = stamp
        check(PARAMETER_SET_START.match(stream) is not None,
              "%s run %d starts with a parameter set: %r" % (name, run, stream[:8]))
        if not stamps:
            continue
        # The run ends where the relay was killed, perhaps inside a picture:
        # what comes before the last stamp is whole pictures.
        whole = path + ".whole"
        with open(whole, "wb") as f:
            f.write(stream[:stamps[-1][0]])
        result = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-f", "h264", "-i", whole, "-f", "null", "-"],
                                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        check(result.returncode == 0 and not result.stderr.strip(),
              "%s run %d decodes: %s" % (name, run, result.stderr.decode(errors="replace")[:300]))
        decoded += 1
    print("%s: %s, %d runs written, %d decoded, last stamp %d" % (name, summary, len(runs), decoded, last_stamp))


def main():
    daemon_path, simulator_path, video_path, c_reader_path, restarts = sys.argv[1:6]
    restarts = int(restarts)
    os.makedirs("/run/tarnwickrelay", exist_ok=True)
    work = tempfile.mkdtemp(prefix="tarnwick-restarts-")
    here = os.path.dirname(os.path.abspath(__file__))
    simulator = Child([simulator_path, "--port=%d" % SIMULATOR_PORT, "--video=" + video_path, "--stamp"],
                      stdin=True)
    daemon_arguments = [daemon_path, "--host", "127.0.0.1", "--port", str(SIMULATOR_PORT)]
    daemon = None
    readers = []
    try:
        if not check(simulator.wait_for("camera simulator on 127.0.0.1:%d" % SIMULATOR_PORT, 5), "simulator up"):
            return
        daemon = Child(daemon_arguments)
        if not check(daemon.wait_for("Clear frame shared memory", 15), "the first run queues video"):
            return
        readers = [("C reader", os.path.join(work, "c"), Child([c_reader_path, os.path.join(work, "c")])),
                   ("Python reader", os.path.join(work, "py"),
                    Child([sys.executable, os.path.join(here, "ring_follow.py"), os.path.join(work, "py")]))]
        random.seed(restarts)
        for _ in range(restarts):
            time.sleep(random.uniform(0.2, 2.0))
            daemon.process.send_signal(signal.SIGKILL)
            daemon.process.wait()
            daemon = Child(daemon_arguments)
            if not check(daemon.wait_for("Clear frame shared memory", 15), "a restarted run queues video"):
                return
        time.sleep(2.0)
        for name, prefix, reader in readers:
            reader.process.send_signal(signal.SIGTERM)
            if not check(reader.process.wait(timeout=10) == 0, "%s ends cleanly: %s" % (name, reader.text())):
                continue
            reader.collector.join(5)    # its summary, the last line, is read
            check_reader(name, prefix, reader.text().strip().split("\n")[-1], restarts)
        check("Sanitizer" not in daemon.text() and "runtime error:" not in daemon.text(), "no sanitizer report")
    finally:
        for _, _, reader in readers:
            if reader.process.poll() is None:
                reader.stop()
        if daemon:
            daemon.stop()
        simulator.stop()
        subprocess.run(["rm", "-rf", work])
    if failures and daemon:
        print("last relay log:\n" + daemon.text(), file=sys.stderr)


if __name__ == "__main__":
    main()
    sys.exit(1 if failures else 0)
