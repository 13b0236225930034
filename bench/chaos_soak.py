#!/usr/bin/env python3
"""Everything that goes wrong in the field, at once, for a while (as root):

    bench/chaos_soak.py [--minutes=30] [--build=build] [--seed=N] [--csv=FILE] [--png=FILE]

The camera (simulator, streaming a counter-stamped video) sits behind
tarnwick-impair, whose rules change at random every 15 to 30 s (loss up to
20 %, delay up to 40 ms with jitter, reordering, duplication) and which goes
dark now and then, for less or more than the relay's 5 s time-out. The relay
runs under a supervisor with the packaged unit's settings and is killed
(SIGKILL) at random. Attached the whole time: a C++ ring reader
(tarnwick-ringreader), a reader through the C interface (ring_follow) and one
through the Python module (ring_follow.py); this script as the status and
command client (a command every 2 s, the movement mode again after every
restart); the remote-control writer moving a stick and the EV axis. Now and
then the command port and the phone port are flooded for 2 s.

It checks: the relay ends only as specified (exit 1 or 2 after a camera
loss, or our SIGKILL), nothing else ever ends; no reader faults or hands out a
picture of an earlier run after a later one (the simulator's stamps grow in
every reader's output, but for what the link itself reorders and duplicates);
the readers lose no part (a restart is counted as one, not as loss);
descriptors and memory of every process stay flat. (What the link loses
breaks pictures, so decoding is not checked here: the restart stress test
does that on a clean link.) A line every 10 s, a
summary, and with --csv/--png the figures over time.
"""

import argparse
import os
import random
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import relay_rig  # noqa: E402
from relay_rig import tarnwick  # noqa: E402

STAMP = re.compile(rb"\x00\x00\x00\x01\x06\x05\x20tarnwick-counter([0-9a-f]{16})")
SAMPLE_SECONDS = 10
# The link delays by at most 60 ms and duplicates, so a stamp may come again or a picture or two late (25 a
# second); a picture of an earlier run of the relay is older than its restart (over 1.5 s: 37 pictures).
LINK_REORDER_WINDOW = 10
EVENT_COUNTS = {"kill": "kills", "short outage": "short outages", "long outage": "long outages",
                "command flood": "command floods", "phone flood": "phone floods"}
BRIDGE_PORT = 9004

failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
        print("FAILED: " + what, file=sys.stderr, flush=True)
    return condition


def stamps_in_order(name, paths):
    """Checks that no stamp comes after a later one, across the files in their order, beyond what the link
    itself reorders and duplicates; returns how many stamps there were."""
    newest, count = -1, 0
    for path in paths:
        with open(path, "rb") as f:
            data = f.read()
        for match in STAMP.finditer(data):
            stamp = int(match.group(1), 16)
            if not check(stamp > newest - LINK_REORDER_WINDOW,
                         "%s: stamp %d after %d in %s" % (name, stamp, newest, path)):
                return count
            newest, count = max(newest, stamp), count + 1
    return count


def flood(port, seconds, payloads):
    """Sends as fast as it can to 127.0.0.1:port for `seconds`; returns the count."""
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.setblocking(False)
    sent, end, i = 0, time.monotonic() + seconds, 0
    while time.monotonic() < end:
        try:
            sock.sendto(payloads[i % len(payloads)], ("127.0.0.1", port))
            sent += 1
        except (BlockingIOError, ConnectionRefusedError):
            time.sleep(0.0005)
        i += 1
    sock.close()
    return sent


class Usage:
    """Descriptors and memory of each process, per pid, over time."""

    def __init__(self):
        self.samples = {}    # pid -> (name, [(t, fds, rss_kb)])

    def sample(self, name, pid, now):
        usage = relay_rig.process_usage(pid) if pid else None
        if usage:
            self.samples.setdefault(pid, (name, []))[1].append((now,) + usage)

    def check_flat(self):
        """A process sampled over at least a minute keeps its descriptors and does not grow in memory after
        its first minute (allowing 2 MB and 10 %)."""
        for pid, (name, points) in self.samples.items():
            if len(points) < 8 or points[-1][0] - points[0][0] < 60:
                continue
            settled = points[len(points) // 4]
            fds = max(p[1] for p in points[len(points) // 4:])
            rss = max(p[2] for p in points[len(points) // 4:])
            check(fds <= settled[1] + 2, "%s (pid %d): descriptors %d -> %d" % (name, pid, settled[1], fds))
            check(rss <= settled[2] * 1.10 + 2048,
                  "%s (pid %d): resident %d kB -> %d kB" % (name, pid, settled[2], rss))


def plot(csv, png):
    """The run over time: the relay's memory and descriptors above (a sample taken while it was being started
    again is left out), the status lines and restarts below."""
    script = ("set terminal pngcairo size 900,560; set output '%s'; set datafile separator ','; set grid; "
              "set multiplot layout 2,1; set key top left; set xlabel 'minutes'; "
              "set ylabel 'resident MB'; set y2label 'descriptors'; set y2tics; set ytics nomirror; "
              "set yrange [0:100]; set y2range [0:20]; "
              "plot '%s' every ::1 using ($1/60):($2 > 0 ? $2/1024 : 1/0) with points pt 7 ps 0.4 title 'relay "
              "resident MB (its 73 MB of shared memory included)', '' every ::1 using ($1/60):($3 > 0 ? $3 : 1/0) "
              "axes x1y2 with points pt 6 ps 0.6 title 'relay descriptors'; "
              "set ylabel 'status lines per 10 s'; set y2label 'relay restarts so far'; set yrange [0:15]; "
              "set y2range [0:*]; "
              "plot '%s' every ::1 using ($1/60):4 with impulses title 'status lines per 10 s', "
              "'' every ::1 using ($1/60):5 axes x1y2 with steps lw 2 title 'restarts so far'; unset multiplot"
              % (png, csv, csv))
    subprocess.run(["gnuplot", "-e", script], check=False)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--minutes", type=float, default=30)
    parser.add_argument("--build", default="build")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--csv")
    parser.add_argument("--png")
    options = parser.parse_args()
    relay_rig.enter_private_namespaces()
    random.seed(options.seed)
    build = os.path.abspath(options.build)
    work = tempfile.mkdtemp(prefix="tarnwick-chaos-")
    rig = relay_rig.Rig(build, seed=options.seed, simulator_options=["--stamp"])
    readers = []
    rc = None
    rows = []
    usage = Usage()
    counts = {"kills": 0, "short outages": 0, "long outages": 0, "rule changes": 0, "command floods": 0,
              "phone floods": 0, "commands": 0, "status lines": 0, "movement sent": 0}
    try:
        link = tarnwick.AppLink()
        end_wait = time.monotonic() + 20
        while time.monotonic() < end_wait and link.status(1.0) is None:
            pass
        check(link.relay is not None, "the relay's status arrives")
        python = sys.executable
        follow_py = os.path.join(relay_rig.SOURCE, "clients", "python", "tests", "ring_follow.py")
        readers = [
            ("C++ reader", rig.in_relay_ns([os.path.join(build, "tarnwick-ringreader"), "--wait",
                                            "--out=" + os.path.join(work, "cpp.h264")])),
            ("C reader", rig.in_relay_ns([os.path.join(build, "tests", "ring_follow"), os.path.join(work, "c")])),
            ("Python reader", rig.in_relay_ns([python, follow_py, os.path.join(work, "py")])),
        ]
        rc = rig.in_relay_ns([os.path.join(build, "tarnwick-rcwriter"), "-"], stdin=True)

        started = time.monotonic()
        finish = started + options.minutes * 60
        next_event = started + random.uniform(10, 20)
        next_rules = started + random.uniform(15, 30)
        next_command = started + 2
        next_rc = started + 1
        next_sample = started
        restarts_told = link.restarts
        movement_pending = True
        status_in_interval = 0
        while time.monotonic() < finish:
            message = link.receive(0.02)
            now = time.monotonic()
            if isinstance(message, tarnwick.StatusRecord):
                counts["status lines"] += 1
                status_in_interval += 1
            if link.restarts != restarts_told:
                restarts_told, movement_pending = link.restarts, True
            if movement_pending and link.relay is not None:
                link.send(tarnwick.movement_command("abs"))
                counts["movement sent"] += 1
                movement_pending = False
            if now >= next_command and link.relay is not None:
                link.command("iso", random.choice(["100", "200", "400", "800", "auto"]))
                counts["commands"] += 1
                next_command = now + 2
            if now >= next_rc:
                rc.write(random.choice(["stick %.2f 0 %.2f" % (random.uniform(-1, 1), random.uniform(-1, 1)),
                                        "stick 0 0 0", "ev %.1f" % random.uniform(-1, 1), "ev off"]))
                next_rc = now + random.uniform(0.5, 3)
            if now >= next_rules:
                loss, delay = random.choice([0, 2, 5, 10, 20]), random.choice([0, 5, 20, 40])
                for line in ("loss %d" % loss, "delay %d" % delay, "jitter %d" % (delay // 2),
                             "reorder %d" % random.choice([0, 5, 10]), "duplicate %d" % random.choice([0, 2, 5])):
                    rig.impair.write(line)
                counts["rule changes"] += 1
                next_rules = now + random.uniform(15, 30)
            if now >= next_event:
                event = random.choice(["kill", "short outage", "long outage", "command flood", "phone flood"])
                if event == "kill":
                    rig.supervisor.kill()
                elif event == "short outage":
                    rig.impair.write("outage %d" % random.randint(1000, 4000))
                elif event == "long outage":
                    rig.impair.write("outage %d" % random.randint(6000, 9000))
                elif event == "command flood" and link.relay is not None:
                    flood(link.relay[1], 2, [b"!{\"cmd\":\"iso\",\"param\":\"junk\"}", b"\x05\x01\xff\x7f",
                                             b"!{", bytes(range(1, 200)) * 5])
                elif event == "phone flood":
                    flood(BRIDGE_PORT, 2, [b"\x55" * 64, bytes(range(1, 256)) * 4])
                counts[EVENT_COUNTS[event]] += 1
                next_event = now + random.uniform(10, 30)
            if now >= next_sample:
                elapsed = now - started
                usage.sample("relay", rig.supervisor.pid(), elapsed)
                for name, program in [("simulator", rig.simulator), ("impair", rig.impair), ("rcwriter", rc)] + \
                        [(name, program) for name, program in readers]:
                    usage.sample(name, program.process.pid, elapsed)
                relay_usage = relay_rig.process_usage(rig.supervisor.pid() or 0) or (0, 0)
                rows.append((elapsed, relay_usage[1], relay_usage[0], status_in_interval,
                             len(rig.supervisor.starts) - 1))
                print("%5.0f s: relay %s fds, %s kB; %d status lines; %d restarts; %s" %
                      (elapsed, relay_usage[0], relay_usage[1], status_in_interval, len(rig.supervisor.starts) - 1,
                       ", ".join("%s %d" % item for item in counts.items() if item[1])), flush=True)
                status_in_interval = 0
                next_sample = now + SAMPLE_SECONDS
        time.sleep(1)

        for name, program in readers:
            check(program.process.poll() is None, "%s still runs (%s)" % (name, program.process.returncode))
            program.stop()
            # "parts=P lost=L ..." (ring_follow) or "P parts, B bytes, L parts lost" (tarnwick-ringreader)
            summary = [line for line in program.lines if "lost=" in line or line.endswith(" parts lost")]
            print("%s: %s" % (name, summary[-1] if summary else "\n".join(program.lines[-3:])), flush=True)
            lost = re.search(r"lost=(\d+)|(\d+) parts lost", summary[-1]) if summary else None
            check(lost is not None and (lost.group(1) or lost.group(2)) == "0",
                  "%s lost no part: %s" % (name, summary[-1:] or program.lines[-3:]))
        check(rc.process.poll() is None, "the remote-control writer still runs")
        check(rig.simulator.process.poll() is None and rig.impair.process.poll() is None,
              "the simulator and the link still run")
    finally:
        if rc:
            rc.stop()
        for _, program in readers:
            program.stop()
        rig.close()

    for _, code, last in rig.supervisor.exits[:-1]:   # the last one is the supervisor's own stop
        check(code in (1, 2, -9), "the relay ended with %s: %s" % (code, last))
    stamps = stamps_in_order("C++ reader", [os.path.join(work, "cpp.h264")])
    runs = {}
    for prefix, name in (("c", "C reader"), ("py", "Python reader")):
        paths = sorted((os.path.join(work, f) for f in os.listdir(work) if f.startswith(prefix + ".")),
                       key=lambda path: int(path.split(".")[-2]))
        stamps_in_order(name, paths)
        runs[name] = len(paths)
    usage.check_flat()
    subprocess.run(["rm", "-rf", work])
    print("\n%.1f minutes: relay started %d times, exits %s; C++ reader %d pictures in order; runs written: %s; "
          "%s" % (options.minutes, len(rig.supervisor.starts),
                  sorted(code for _, code, _ in rig.supervisor.exits), stamps, runs,
                  ", ".join("%s %d" % item for item in counts.items())))
    if options.csv or options.png:
        csv = options.csv or options.png + ".csv"
        with open(csv, "w") as f:
            f.write("seconds,relay_rss_kb,relay_fds,status_lines,restarts\n")
            for row in rows:
                f.write("%.0f,%d,%d,%d,%d\n" % row)
    if options.png:
        plot(csv, options.png)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
