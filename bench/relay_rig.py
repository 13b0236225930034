"""The relay in the field, on one machine: what bench/back_on_air.py and
bench/chaos_soak.py build on.

    camera namespace: the simulator on 192.168.2.1:9004
        | tarnwick-impair (loss, delay, reordering, duplication, outages)
    relay namespace:  the relay on 192.168.2.10, under a supervisor that
                      restarts it as the packaged unit does; the main
                      application's side (127.0.0.1:5000, the ring) beside it

Everything runs inside private network and mount namespaces of the calling
script (enter_private_namespaces), so nothing is left on the host. Needs root.
"""

import os
import re
import signal
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(SOURCE, "clients", "python"))
sys.path.insert(0, os.path.join(SOURCE, "clients", "python", "tests"))
import tarnwick  # noqa: E402
from daemon_check import Child  # noqa: E402

RELAY_NS = "tw-relay"
CAMERA_NS = "tw-camera"
CAMERA_ADDRESS = "192.168.2.1"
UNIT = os.path.join(SOURCE, "packaging", "tarnwickrelay.service")


def enter_private_namespaces():
    """Runs the calling script again inside private network and mount
    namespaces with fresh /dev/shm and /run (returns only inside them)."""
    if os.environ.get("TARNWICK_RIG_INSIDE"):
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        return
    if os.geteuid() != 0:
        print("skipped: needs root (private namespaces, TUN devices)", file=sys.stderr)
        sys.exit(77)
    environment = dict(os.environ, TARNWICK_RIG_INSIDE="1")
    command = ("mount -t tmpfs tmpfs /dev/shm && mount -t tmpfs tmpfs /run && mkdir -p /run/tarnwickrelay && "
               'exec "$0" "$@"')
    result = subprocess.run(["unshare", "--net", "--mount", "--propagation", "private", "sh", "-c", command,
                             sys.executable, os.path.abspath(sys.argv[0])] + sys.argv[1:], env=environment)
    sys.exit(result.returncode)


def join_namespace(name):
    """Moves the calling thread into the named network namespace (sockets it
    makes from now on live there; children go where `ip netns exec` puts them)."""
    import ctypes
    clone_newnet = 0x40000000
    libc = ctypes.CDLL(None, use_errno=True)
    fd = os.open("/run/netns/" + name, os.O_RDONLY)
    try:
        if libc.setns(fd, clone_newnet) != 0:
            raise OSError(ctypes.get_errno(), "setns " + name)
    finally:
        os.close(fd)


def unit_settings():
    """The packaged unit's restart settings: RestartSec (seconds),
    StartLimitIntervalSec, StartLimitBurst."""
    with open(UNIT) as f:
        text = f.read()

    def value(key, default):
        match = re.search(r"^%s=(\S+)" % key, text, re.M)
        return match.group(1) if match else default

    def seconds(text_value):
        match = re.fullmatch(r"(\d+(?:\.\d+)?)(ms|s)?", text_value)
        number = float(match.group(1))
        return number / 1000 if match.group(2) == "ms" else number

    return (seconds(value("RestartSec", "0.1")), seconds(value("StartLimitIntervalSec", "10")),
            int(value("StartLimitBurst", "5")))


class Program(Child):
    """A program run from tests (daemon_check.Child) that keeps only its last
    `keep` lines of output, for runs of half an hour."""

    def __init__(self, arguments, stdin=False, keep=2000):
        self.keep = keep
        super().__init__(arguments, stdin)

    def _collect(self):
        for raw in self.process.stdout:
            with self.lock:
                self.lines.append(raw.decode("utf-8", errors="replace").rstrip("\n"))
                del self.lines[:-self.keep]

    def wait_for(self, text, timeout):
        """True once a line holding `text` has been written."""
        return self.wait_until(lambda lines: any(text in line for line in lines), timeout)

    def stop(self, sig=signal.SIGTERM):
        """Ends the program and waits until its last line is kept."""
        if self.process.poll() is None:
            self.process.send_signal(sig)
            try:
                self.process.wait(5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.collector.join(5)


class Supervisor:
    """Restarts the relay as the unit does (Restart=always after RestartSec)
    and keeps every start and exit with its time."""

    def __init__(self, arguments):
        self.arguments = arguments
        self.restart_sec, self.limit_interval, self.limit_burst = unit_settings()
        self.starts = []          # monotonic times
        self.exits = []           # (time, code, last line)
        self.relay = None
        self.running = True
        self.lock = threading.Lock()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        while self.running:
            relay = Program(["ip", "netns", "exec", RELAY_NS] + self.arguments, keep=200)
            with self.lock:
                self.relay = relay
                self.starts.append(time.monotonic())
            code = relay.process.wait()
            relay.collector.join(5)
            last = relay.lines[-1] if relay.lines else ""
            with self.lock:
                self.exits.append((time.monotonic(), code, last))
            if self.running:
                time.sleep(self.restart_sec)

    def pid(self):
        with self.lock:
            return self.relay.process.pid if self.relay and self.relay.process.poll() is None else None

    def kill(self):
        """SIGKILL to the running relay (the supervisor starts it again)."""
        pid = self.pid()
        if pid:
            os.kill(pid, signal.SIGKILL)

    def most_starts_in_limit_interval(self):
        with self.lock:
            starts = list(self.starts)
        most, first = 0, 0
        for last, start in enumerate(starts):
            while start - starts[first] > self.limit_interval:
                first += 1
            most = max(most, last - first + 1)
        return most

    def stop(self):
        self.running = False
        with self.lock:
            relay = self.relay
        if relay:
            relay.stop(signal.SIGKILL)
        self.thread.join(10)


class Rig:
    """Both namespaces, the impaired link, the simulator and the supervised relay."""

    def __init__(self, build, rules=(), seed=1, simulator_options=()):
        self.build = os.path.abspath(build)
        for name in (RELAY_NS, CAMERA_NS):
            subprocess.run(["ip", "netns", "add", name], check=True)
            subprocess.run(["ip", "-n", name, "link", "set", "lo", "up"], check=True)
        # This thread plays the main application: its sockets live beside the relay.
        join_namespace(RELAY_NS)
        self.impair = Program([self._tool("impair"), "--a=%s:192.168.2.10/24" % RELAY_NS,
                               "--b=%s:%s/24" % (CAMERA_NS, CAMERA_ADDRESS), "--seed=%d" % seed] + list(rules),
                              stdin=True)
        if not self.impair.wait_for("impair ready", 10):
            raise RuntimeError("tarnwick-impair: %s" % "\n".join(self.impair.lines))
        video = os.path.join(SOURCE, "tools", "camsim", "sample.h264")
        self.simulator = Program(["ip", "netns", "exec", CAMERA_NS, self._tool("camsim"), "--bind=" + CAMERA_ADDRESS,
                                  "--port=9004", "--video=" + video] + list(simulator_options), stdin=True)
        if not self.simulator.wait_for("camera simulator on", 10):
            raise RuntimeError("simulator: %s" % "\n".join(self.simulator.lines))
        self.supervisor = Supervisor([os.path.join(self.build, "tarnwickrelay"), "--host", CAMERA_ADDRESS,
                                      "--port", "9004"])

    def _tool(self, name):
        return os.path.join(self.build, "tarnwick-" + name)

    def in_relay_ns(self, arguments, **options):
        return Program(["ip", "netns", "exec", RELAY_NS] + arguments, **options)

    def close(self):
        self.supervisor.stop()
        for program in (self.simulator, self.impair):
            program.stop()
        for name in (RELAY_NS, CAMERA_NS):
            subprocess.run(["ip", "netns", "del", name], stderr=subprocess.DEVNULL)


def process_usage(pid):
    """(open descriptors, resident kB) of a process, or None when it is gone."""
    try:
        descriptors = len(os.listdir("/proc/%d/fd" % pid))
        with open("/proc/%d/status" % pid) as f:
            resident = next(int(line.split()[1]) for line in f if line.startswith("VmRSS:"))
        return descriptors, resident
    except (OSError, StopIteration):
        return None


def percentile(values, share):
    ordered = sorted(values)
    if not ordered:
        return float("nan")
    return ordered[min(len(ordered) - 1, int(round(share * (len(ordered) - 1))))]
