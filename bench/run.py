#!/usr/bin/env python3
"""End-to-end benchmarks of kbadbtunneld against direct ADB and a plain socat relay.

Everything runs on loopback against the bundled platform simulator, with the real adb on an adb
server port of its own and a configuration home in a temporary directory. Every comparison is
measured side by side in the same run, on the same simulated link; figures are medians of
several repetitions. Results go to bench/out/ (CSV, PNG) and a table on standard output.

    bench/run.sh            # the full suite
    bench/run.sh --quick    # fewer repetitions, smaller transfers (a few minutes)
    bench/run.sh --only bulk,shell --reps 5

Paths compared:
  v2      through a kbadbtunneld tunnel at tunnel protocol version 2 (the default)
  v1      through a kbadbtunneld tunnel at tunnel protocol version 1
  direct  `adb connect` to the instance's raw device port; at a round trip above 0 ms or with a
          bandwidth cap through kbbench_linkproxy, which applies the simulator's own link model
  socat   (efficiency only) socat relaying TCP to TCP in front of the raw device port
"""

import argparse
import csv
import http.server
import json
import os
import pty
import select
import shutil
import signal
import socket
import socketserver
import statistics
import subprocess
import sys
import tempfile
import termios
import threading
import time
import urllib.error
import urllib.request

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ADB = "/usr/lib/android-sdk/platform-tools/adb"
MB = 1e6  # throughput is in MB/s of 10^6 bytes, so that 100 Mbit/s is 12.5 MB/s
MIB = 1 << 20
CLK_TCK = os.sysconf("SC_CLK_TCK")
PAGE = os.sysconf("SC_PAGE_SIZE")
REMOTE_DIR = "/data/local/tmp"
# The scripted ADB host: the one host here that negotiates delayed_ack (Debian's adb never does).
ADBHOST = os.path.join(ROOT, "tools", "adbhost", "adbhost.py")

LINKS_FULL = [(0, 0), (20, 0), (50, 0), (100, 0), (50, 100000)]


def log(*args):
    print(*args, file=sys.stderr, flush=True)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def median(values):
    return statistics.median(values) if values else float("nan")


def link_name(rtt, kbps):
    return f"{rtt} ms" + (f", {kbps // 1000} Mbit/s" if kbps else "")


# ---------------------------------------------------------------------------------------------
# /proc readings


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    # fields[0] is the state (field 3); utime and stime are fields 14 and 15
    return (int(fields[11]) + int(fields[12])) / CLK_TCK


def rss_and_threads(pid):
    rss = threads = 0
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                rss = int(line.split()[1]) * 1024
            elif line.startswith("Threads:"):
                threads = int(line.split()[1])
    return rss, threads


def peak_rss(pid):
    """The process's peak resident set (VmHWM), in bytes."""
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) * 1024
    return 0


def find_pid(env_entry, cmd_contains):
    """The process of ours whose environment holds env_entry and whose command line holds
    cmd_contains (the daemon and the adb server detach, so their pids are not our children's)."""
    me = os.getuid()
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            if os.stat(f"/proc/{entry}").st_uid != me:
                continue
            with open(f"/proc/{entry}/cmdline", "rb") as f:
                cmd = f.read()
            if cmd_contains.encode() not in cmd:
                continue
            with open(f"/proc/{entry}/environ", "rb") as f:
                if env_entry.encode() in f.read().split(b"\0"):
                    return int(entry)
        except OSError:
            continue
    return None


def wait_gone(pid, timeout):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if not os.path.exists(f"/proc/{pid}"):
            return True
        try:  # a zombie child of ours
            if os.waitpid(pid, os.WNOHANG)[0] == pid:
                return True
        except ChildProcessError:
            pass
        time.sleep(0.05)
    return not os.path.exists(f"/proc/{pid}")


def kill_pid(pid):
    if pid and os.path.exists(f"/proc/{pid}"):
        try:
            os.kill(pid, signal.SIGTERM)
        except ProcessLookupError:
            return
        if not wait_gone(pid, 5):
            os.kill(pid, signal.SIGKILL)
            wait_gone(pid, 5)


# ---------------------------------------------------------------------------------------------
# The pieces: adb, simulator, daemon, link proxy, socat, REST router


class Bench:
    def __init__(self, args):
        self.args = args
        self.build = args.build_dir
        self.work = tempfile.mkdtemp(prefix="kbbench.")
        self.adb_port = free_port()
        self.env = dict(os.environ)
        for name in ("ADB_SERVER_SOCKET", "ANDROID_SERIAL", "KB_ADBTUNNEL_VERSION", "KB_ADBTUNNEL_DEBUG",
                     "KESTRELBOX_API_TOKEN", "KB_PLATFORM_BASE_URL"):
            self.env.pop(name, None)
        self.env["HOME"] = os.path.join(self.work, "home")
        self.env["ANDROID_ADB_SERVER_PORT"] = str(self.adb_port)
        os.makedirs(self.env["HOME"])
        self.cleanups = []  # run in reverse order
        self.adb_server_pid = None

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def tool(self, rel):
        return os.path.join(self.build, rel)

    def adb(self, *args, timeout=300, check=True):
        r = subprocess.run([ADB, *args], env=self.env, capture_output=True, text=True, timeout=timeout)
        if check and r.returncode != 0:
            raise RuntimeError(f"adb {' '.join(args)}: {r.returncode} {r.stdout} {r.stderr}")
        return r

    def start_adb_server(self):
        self.adb("start-server")
        self.adb_server_pid = find_pid(f"ANDROID_ADB_SERVER_PORT={self.adb_port}", "fork-server")
        self.cleanups.append(self.stop_adb_server)

    def stop_adb_server(self):
        self.adb("kill-server", check=False, timeout=10)
        kill_pid(self.adb_server_pid)

    def cleanup(self):
        for fn in reversed(self.cleanups):
            try:
                fn()
            except Exception as e:  # keep cleaning up
                log("cleanup:", e)
        shutil.rmtree(self.work, ignore_errors=True)


class Proc:
    """A child process that prints one JSON line when ready."""

    def __init__(self, bench, argv, name, stdin=False):
        self.name = name
        self.log = open(bench.path(name + ".log"), "w")
        self.p = subprocess.Popen(argv, env=bench.env, stdout=subprocess.PIPE, stderr=self.log,
                                  stdin=subprocess.PIPE if stdin else subprocess.DEVNULL, text=True)
        line = self.p.stdout.readline()
        if not line:
            raise RuntimeError(f"{name} did not start; see its log")
        self.ready = json.loads(line)
        bench.cleanups.append(self.stop)

    @property
    def pid(self):
        return self.p.pid

    def stop(self):
        if self.p.poll() is None:
            self.p.send_signal(signal.SIGTERM)
            try:
                self.p.wait(10)
            except subprocess.TimeoutExpired:
                self.p.kill()
                self.p.wait()
        self.log.close()


class Simulator(Proc):
    def __init__(self, bench, instances, api_token, name="sim", rtt=0, kbps=0):
        sandbox = bench.path(name + "-sandbox")
        os.makedirs(sandbox)
        super().__init__(bench, [bench.tool("tools/kbplatform-sim/kbplatform-sim"), "--instances", str(instances),
                                 "--api-token", api_token, "--sandbox", sandbox, "--rtt-ms", str(rtt),
                                 "--bandwidth-kbps", str(kbps), "--session-ttl-ms", "0"], name)
        self.base_url = self.ready["base_url"]
        self.instances = self.ready["instances"]

    def set_link(self, rtt, kbps):
        req = urllib.request.Request(self.base_url + "/_sim/link", method="POST",
                                     data=json.dumps({"rtt_ms": rtt, "bandwidth_kbps": kbps}).encode(),
                                     headers={"Content-Type": "application/json"})
        urllib.request.urlopen(req, timeout=10).read()


class LinkProxy(Proc):
    def __init__(self, bench, target_port, name):
        super().__init__(bench, [bench.tool("bench/linkproxy/kbbench_linkproxy"), "--target-port", str(target_port)],
                         name, stdin=True)
        self.port = self.ready["port"]

    def set_link(self, rtt, kbps):
        self.p.stdin.write(f"{rtt} {kbps}\n")
        self.p.stdin.flush()
        self.p.stdout.readline()


class Socat:
    def __init__(self, bench, target_port):
        self.port = free_port()
        # no "fork": adb makes one connection, and one process keeps the CPU count in one place
        self.p = subprocess.Popen(["socat", f"TCP-LISTEN:{self.port},bind=127.0.0.1,reuseaddr",
                                   f"TCP:127.0.0.1:{target_port}"], stdin=subprocess.DEVNULL)
        bench.cleanups.append(self.stop)
        end = time.monotonic() + 10
        while not listening(self.port) and time.monotonic() < end:
            time.sleep(0.02)

    def stop(self):
        if self.p.poll() is None:
            self.p.terminate()
            self.p.wait(5)


def listening(port):
    """Whether something listens on port, read from /proc so that no probe connection is used up."""
    needle = f":{port:04X} "
    with open("/proc/net/tcp") as f:
        return any(needle in line and line.split()[3] == "0A" for line in f)


class Router:
    """Plain-HTTP REST front for several simulators: the daemon knows one platform base URL, and
    one simulator holds at most 64 instances. Each request goes to the simulator that owns the
    instance; the WebSocket ("adb_url") then goes straight to that simulator."""

    def __init__(self, bench, sims):
        owner = {}
        for sim in sims:
            for inst in sim.instances:
                owner[inst["uuid"]] = sim.base_url
        default = sims[0].base_url

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def log_message(self, *a):
                pass

            def forward(self):
                body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
                target = default
                parts = self.path.split("?")[0].strip("/").split("/")
                if len(parts) == 3 and parts[:2] == ["v1", "instances"] and parts[2] in owner:
                    target = owner[parts[2]]
                elif body:
                    try:
                        target = owner.get(json.loads(body).get("instance_uuid"), default)
                    except (ValueError, AttributeError):
                        pass
                headers = {k: v for k, v in self.headers.items()
                           if k.lower() in ("content-type", "x-api-token", "authorization", "user-agent")}
                req = urllib.request.Request(target + self.path, data=body if body else None,
                                             method=self.command, headers=headers)
                try:
                    resp = urllib.request.urlopen(req, timeout=30)
                    status, rbody, rheaders = resp.status, resp.read(), resp.headers
                except urllib.error.HTTPError as e:
                    status, rbody, rheaders = e.code, e.read(), e.headers
                self.send_response(status)
                for k in ("Content-Type", "WWW-Authenticate"):
                    if rheaders.get(k):
                        self.send_header(k, rheaders[k])
                self.send_header("Content-Length", str(len(rbody)))
                self.end_headers()
                self.wfile.write(rbody)

            do_GET = do_POST = do_PUT = do_DELETE = forward

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.server.daemon_threads = True
        self.base_url = f"http://127.0.0.1:{self.server.server_address[1]}"
        self.thread = threading.Thread(target=self.server.serve_forever, daemon=True)
        self.thread.start()
        bench.cleanups.append(self.stop)

    def stop(self):
        self.server.shutdown()
        self.server.server_close()


class Daemon:
    def __init__(self, bench, name, base_url, api_token, version):
        self.bench = bench
        self.home = bench.path(name)
        os.makedirs(self.home)
        with open(os.path.join(self.home, "auth.json"), "w") as f:
            json.dump({"api_token": api_token}, f)
        with open(os.path.join(self.home, "config.json"), "w") as f:
            json.dump({"android-sdk-path": "/usr/lib/android-sdk"}, f)
        self.env = dict(bench.env)
        self.env["KBSAAS_CONFIG_HOME"] = self.home
        self.env["KB_PLATFORM_BASE_URL"] = base_url
        self.env["KB_ADBTUNNEL_VERSION"] = str(version)
        self.exe = bench.tool("src/daemon/kbadbtunneld")
        self.pid = None

    def cli(self, *args, check=True):
        r = subprocess.run([self.exe, *args], env=self.env, capture_output=True, text=True, timeout=60)
        if check and r.returncode != 0:
            raise RuntimeError(f"kbadbtunneld {' '.join(args)}: {r.returncode} {r.stdout} {r.stderr}")
        return r

    def start(self):
        self.cli("start")
        self.pid = find_pid(f"KBSAAS_CONFIG_HOME={self.home}", "kbadbtunneld")
        if not self.pid:
            raise RuntimeError("daemon pid not found")
        self.bench.cleanups.append(self.stop)
        return self

    def stop(self):
        if self.pid and os.path.exists(f"/proc/{self.pid}"):
            self.cli("stop", check=False)
            if not wait_gone(self.pid, 30):
                kill_pid(self.pid)
        self.pid = None

    def instances(self):
        return {i["uuid"]: i for i in json.loads(self.cli("getinstances").stdout)["instances"]}

    def connect(self, uuid):
        self.cli("connect", uuid)

    def wait_connected(self, uuids, timeout=120, poll=0.02):
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            inst = self.instances()
            states = [inst.get(u, {}).get("state") for u in uuids]
            if all(s == "CONNECTED" for s in states):
                return [inst[u]["adb_serial"] for u in uuids]
            bad = [s for s in states if s in ("FAILED", "PORT_BUSY")]
            if bad:
                raise RuntimeError(f"tunnel failed: {bad}")
            time.sleep(poll)
        raise RuntimeError("tunnels not CONNECTED in time: " + ", ".join(
            f"{u}={inst.get(u, {}).get('state')}" for u in uuids if inst.get(u, {}).get("state") != "CONNECTED"))

    def disconnect(self, uuid, timeout=30):
        self.cli("disconnect", uuid, check=False)
        end = time.monotonic() + timeout
        while time.monotonic() < end and uuid in self.instances():
            time.sleep(0.05)


def wait_device(bench, serial, timeout=60):
    """Until `adb shell true` succeeds on serial; returns the time it took."""
    t0 = time.monotonic()
    while True:
        r = bench.adb("-s", serial, "shell", "true", check=False, timeout=30)
        if r.returncode == 0:
            return time.monotonic() - t0
        if time.monotonic() - t0 > timeout:
            raise RuntimeError(f"{serial}: {r.stdout} {r.stderr}")
        time.sleep(0.01)


def direct_connect(bench, port):
    serial = f"127.0.0.1:{port}"
    bench.adb("connect", serial)
    wait_device(bench, serial)
    return serial


def p90(values):
    return sorted(values)[len(values) * 9 // 10] if values else float("nan")


class PtyShell:
    """`adb shell` on a pseudo-terminal, as a user at a terminal runs it: the adb client puts the
    terminal in raw mode and asks the device for a pty, whose line discipline echoes each key."""

    def __init__(self, bench, serial):
        master, slave = pty.openpty()
        env = dict(bench.env, TERM="dumb")
        self.p = subprocess.Popen([ADB, "-s", serial, "shell"], env=env, stdin=slave, stdout=slave,
                                  stderr=slave, start_new_session=True)
        os.close(slave)
        self.fd = master
        # Keys typed before the shell starts are echoed and then dropped: wait for a prompt, then
        # for a command's output, so that the echo timed below comes from a settled shell (the
        # quotes keep the echoed command line from matching).
        self.read_until((b"$ ", b"# "), 30)
        os.write(self.fd, b"echo KB''READY\r")
        self.read_until((b"KBREADY",), 30)
        if termios.tcgetattr(self.fd)[3] & termios.ECHO:  # our side would echo: nothing to time
            raise RuntimeError("adb shell left the local terminal echoing")

    def read_until(self, needles, timeout):
        seen, end = b"", time.monotonic() + timeout
        while not any(n in seen for n in needles):
            left = end - time.monotonic()
            if left <= 0 or not select.select([self.fd], [], [], left)[0]:
                raise RuntimeError(f"adb shell: no {needles!r} in {seen[-200:]!r}")
            seen += os.read(self.fd, 4096)
        return seen

    def keystroke(self):
        while select.select([self.fd], [], [], 0)[0]:  # nothing left over from the last key
            os.read(self.fd, 4096)
        t0 = time.monotonic()
        os.write(self.fd, b"k")
        self.read_until((b"k",), 10)
        return time.monotonic() - t0

    def close(self):
        try:
            os.write(self.fd, b"\x15exit\r")  # ^U drops the keys typed so far
            self.p.wait(10)
        except (OSError, subprocess.TimeoutExpired):
            self.p.kill()
            self.p.wait()
        os.close(self.fd)


class EchoServer:
    """A loopback TCP echo server for `adb forward` to reach through the device."""

    def __init__(self):
        class Handler(socketserver.BaseRequestHandler):
            def handle(self):
                self.request.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                while data := self.request.recv(65536):
                    self.request.sendall(data)

        self.server = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler)
        self.server.daemon_threads = True
        self.port = self.server.server_address[1]
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def stop(self):
        self.server.shutdown()
        self.server.server_close()


def forward_roundtrip(port, payload):
    """Connects to a forwarded port, sends payload, reads its echo and closes; returns the time."""
    t0 = time.monotonic()
    with socket.create_connection(("127.0.0.1", port), timeout=10) as s:
        s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        s.sendall(payload)
        got = 0
        while got < len(payload):
            chunk = s.recv(65536)
            if not chunk:
                raise RuntimeError(f"forward to {port}: closed after {got} bytes")
            got += len(chunk)
    return time.monotonic() - t0


# ---------------------------------------------------------------------------------------------
# Measurements


class Suite:
    def __init__(self, bench, args):
        self.bench = bench
        self.args = args
        self.out = args.out
        self.rows = {}  # csv name -> list of dicts
        self.summary = []  # (measurement, figure, value, goal, verdict)

    def record(self, name, **row):
        self.rows.setdefault(name, []).append(row)

    def write_csv(self):
        for name, rows in self.rows.items():
            with open(os.path.join(self.out, name + ".csv"), "w", newline="") as f:
                w = csv.DictWriter(f, fieldnames=list(rows[0].keys()))
                w.writeheader()
                w.writerows(rows)

    # -- the shared set-up of measurements 1 to 5 ---------------------------------------------

    def setup_main(self):
        b = self.bench
        token = "kbbench-token"
        # instances: 0 v2 tunnel, 1 v1 tunnel, 2 direct, 3 connect test (v2), 4 connect test direct
        self.sim = Simulator(b, 5, token)
        inst = self.sim.instances
        self.uuid_v2, self.uuid_v1, self.uuid_conn = inst[0]["uuid"], inst[1]["uuid"], inst[3]["uuid"]
        self.direct_port = inst[2]["device_port"]
        self.conn_direct_port = inst[4]["device_port"]
        self.proxy = LinkProxy(b, self.direct_port, "linkproxy")
        self.conn_proxy = LinkProxy(b, self.conn_direct_port, "linkproxy-connect")
        b.start_adb_server()
        self.d2 = Daemon(b, "home-v2", self.sim.base_url, token, 2).start()
        self.d1 = Daemon(b, "home-v1", self.sim.base_url, token, 1).start()
        self.d2.connect(self.uuid_v2)
        self.d1.connect(self.uuid_v1)
        self.serial_v2, = self.d2.wait_connected([self.uuid_v2])
        self.serial_v1, = self.d1.wait_connected([self.uuid_v1])
        wait_device(b, self.serial_v2)
        wait_device(b, self.serial_v1)
        # At 0 ms without a cap the direct path is the raw port itself, with no relay in between.
        self.serial_raw = direct_connect(b, self.direct_port)
        self.serial_proxy = direct_connect(b, self.proxy.port)
        self.link = None
        log(f"tunnels up: v2 {self.serial_v2}, v1 {self.serial_v1}; direct {self.serial_raw}, "
            f"via link proxy {self.serial_proxy}")

    def set_link(self, rtt, kbps):
        if self.link == (rtt, kbps):
            return
        self.sim.set_link(rtt, kbps)
        self.proxy.set_link(rtt, kbps)
        self.conn_proxy.set_link(rtt, kbps)
        self.link = (rtt, kbps)

    def direct_serial(self):
        return self.serial_raw if self.link == (0, 0) else self.serial_proxy

    def paths(self):
        return [("v2", self.serial_v2), ("v1", self.serial_v1), ("direct", self.direct_serial())]

    def make_file(self, size):
        name = self.bench.path(f"payload-{size}.bin")
        if not os.path.exists(name):
            with open(name, "wb") as f:
                left = size
                while left:
                    n = min(left, 4 * MIB)
                    f.write(os.urandom(n))
                    left -= n
        return name

    def push_pull(self, serial, local, size, remote_name):
        remote = f"{REMOTE_DIR}/{remote_name}"
        back = self.bench.path("pulled.bin")
        t0 = time.monotonic()
        self.bench.adb("-s", serial, "push", local, remote)
        t1 = time.monotonic()
        self.bench.adb("-s", serial, "pull", remote, back)
        t2 = time.monotonic()
        if os.path.getsize(back) != size:
            raise RuntimeError(f"{serial}: pulled {os.path.getsize(back)} bytes instead of {size}")
        os.remove(back)
        return t1 - t0, t2 - t1

    # -- 1. bulk transfer ------------------------------------------------------------------------

    def bench_bulk(self):
        size = self.args.size_mib * MIB
        local = self.make_file(size)
        results = {}
        for rtt, kbps in self.args.links:
            self.set_link(rtt, kbps)
            for rep in range(self.args.reps):
                for path, serial in self.paths():
                    push, pull = self.push_pull(serial, local, size, f"bulk-{path}.bin")
                    for direction, secs in (("push", push), ("pull", pull)):
                        mbps = size / secs / MB
                        self.record("bulk", rtt_ms=rtt, bandwidth_kbps=kbps, path=path, direction=direction,
                                    rep=rep, bytes=size, seconds=round(secs, 4), mb_per_s=round(mbps, 3))
                        results.setdefault((rtt, kbps, path, direction), []).append(mbps)
                    log(f"bulk {link_name(rtt, kbps):>16} {path:>6} rep {rep}: push {size / push / MB:7.2f} MB/s, "
                        f"pull {size / pull / MB:7.2f} MB/s")
        for (rtt, kbps, path, direction), values in results.items():
            self.record("bulk_median", rtt_ms=rtt, bandwidth_kbps=kbps, path=path, direction=direction,
                        reps=len(values), mb_per_s=round(median(values), 3))
        self.bulk = {k: median(v) for k, v in results.items()}
        self.plot_bulk()
        m = self.bulk
        for direction in ("push", "pull"):
            if (50, 0, "v2", direction) in m:
                r1 = m[(50, 0, "v2", direction)] / m[(50, 0, "v1", direction)]
                rd = m[(50, 0, "v2", direction)] / m[(50, 0, "direct", direction)]
                self.goal(f"{direction} 50 ms: v2 / v1", f"{r1:.1f}x", ">= 10x", r1 >= 10)
                self.goal(f"{direction} 50 ms: v2 / direct", f"{rd:.1f}x", ">= 10x", rd >= 10)
            if (50, 100000, "v2", direction) in m:
                cap = 100000 * 1000 / 8 / MB
                r = m[(50, 100000, "v2", direction)] / cap
                self.goal(f"{direction} 50 ms, 100 Mbit/s: v2 / cap", f"{r * 100:.0f} %", ">= 80 %", r >= 0.8)
            if (0, 0, "v2", direction) in m:
                r = m[(0, 0, "v2", direction)] / m[(0, 0, "direct", direction)]
                self.goal(f"{direction} 0 ms: v2 / direct", f"{r * 100:.0f} %", ">= 80 %", r >= 0.8)

    def plot_bulk(self):
        links = [l for l in self.args.links if l[1] == 0]
        capped = [l for l in self.args.links if l[1] != 0]
        for direction in ("push", "pull"):
            dat = os.path.join(self.out, f"bulk_{direction}.dat")
            with open(dat, "w") as f:
                f.write("# rtt_ms v2 v1 direct (MB/s)\n")
                for rtt, kbps in links:
                    f.write(f"{rtt} " + " ".join(f"{self.bulk[(rtt, kbps, p, direction)]:.3f}"
                                                 for p in ("v2", "v1", "direct")) + "\n")
            capdat = os.path.join(self.out, f"bulk_{direction}_capped.dat")
            with open(capdat, "w") as f:
                for rtt, kbps in capped:
                    f.write(f"{rtt} " + " ".join(f"{self.bulk[(rtt, kbps, p, direction)]:.3f}"
                                                 for p in ("v2", "v1", "direct")) + "\n")
            capline = ""
            if capped:
                capline = (f", '{capdat}' using 1:2 with points pt 7 ps 1.6 lc 1 title 'v2, 100 Mbit/s cap',"
                           f" '{capdat}' using 1:3 with points pt 5 ps 1.3 lc 2 title 'v1, 100 Mbit/s cap',"
                           f" '{capdat}' using 1:4 with points pt 9 ps 1.6 lc 3 title 'direct, 100 Mbit/s cap',"
                           f" 12.5 with lines dt 2 lc rgb 'gray' title '100 Mbit/s'")
            self.gnuplot(f"bulk_{direction}.png", f"""
set title 'adb {direction} of {self.args.size_mib} MiB: throughput against round trip (median of {self.args.reps})'
set xlabel 'round trip (ms)'
set ylabel 'MB/s (log scale)'
set logscale y
set grid
set key outside right
set xrange [-5:105]
plot '{dat}' using 1:2 with linespoints lw 2 pt 7 lc 1 title 'tunnel v2', \
     '{dat}' using 1:3 with linespoints lw 2 pt 5 lc 2 title 'tunnel v1', \
     '{dat}' using 1:4 with linespoints lw 2 pt 9 lc 3 title 'direct'{capline}
""")

    def gnuplot(self, png, script):
        if not shutil.which("gnuplot"):
            log("gnuplot not found: no", png)
            return
        full = f"set terminal pngcairo size 900,540 font 'sans,10'\nset output '{os.path.join(self.out, png)}'\n" + script
        subprocess.run(["gnuplot"], input=full, text=True, check=False)

    # -- 2. small-message latency ----------------------------------------------------------------

    def shell_times(self, serial, n):
        times = []
        for _ in range(n):
            t0 = time.monotonic()
            self.bench.adb("-s", serial, "shell", "true")
            times.append(time.monotonic() - t0)
        return times

    def bench_shell(self):
        n = self.args.shell_count
        for rtt in (0, 50):
            self.set_link(rtt, 0)
            res = {}
            # interleaved in blocks of 10 so that a burst of machine noise hits every path alike
            for block in range(0, n, 10):
                for path, serial in self.paths():
                    res.setdefault(path, []).extend(self.shell_times(serial, min(10, n - block)))
            for path, times in res.items():
                for i, t in enumerate(times):
                    self.record("shell", rtt_ms=rtt, path=path, i=i, ms=round(t * 1000, 3))
                self.record("shell_median", rtt_ms=rtt, path=path, n=len(times),
                            median_ms=round(median(times) * 1000, 3),
                            p10_ms=round(sorted(times)[len(times) // 10] * 1000, 3),
                            p90_ms=round(sorted(times)[len(times) * 9 // 10] * 1000, 3))
            med = {p: median(t) * 1000 for p, t in res.items()}
            log(f"shell true at {rtt} ms: " + ", ".join(f"{p} {v:.2f} ms" for p, v in med.items()))
            extra = med["v2"] - med["direct"]
            if rtt == 0:
                self.goal("shell true 0 ms: v2 - direct", f"{extra:+.2f} ms", "<= 2 ms", extra <= 2)
            else:
                self.goal(f"shell true {rtt} ms: v2 - direct", f"{extra:+.2f} ms", "(no goal)", None)

    # -- 2b. small operations ------------------------------------------------------------------

    def bench_small(self):
        """Many small messages: a directory of small files pushed, and short shell commands. These
        pay per message what bulk transfers pay per MiB, so a stall per message shows here."""
        b = self.bench
        n_files, file_size, n_shells = self.args.small_files, 4096, self.args.small_shells
        tree = b.path("small-tree")
        if not os.path.isdir(tree):
            os.makedirs(tree)
            for i in range(n_files):
                with open(os.path.join(tree, f"f{i:03}.bin"), "wb") as f:
                    f.write(os.urandom(file_size))
        res = {}
        for rtt in (0, 50):
            self.set_link(rtt, 0)
            for rep in range(self.args.reps):
                for path, serial in self.paths():
                    remote = f"{REMOTE_DIR}/small-{path}"
                    b.adb("-s", serial, "shell", "rm", "-rf", remote)
                    t0 = time.monotonic()
                    b.adb("-s", serial, "push", tree, remote)
                    t1 = time.monotonic()
                    for _ in range(n_shells):
                        b.adb("-s", serial, "shell", "true")
                    t2 = time.monotonic()
                    for what, secs in (("push_dir", t1 - t0), ("shells", t2 - t1)):
                        self.record("small", rtt_ms=rtt, path=path, what=what, rep=rep, seconds=round(secs, 4))
                        res.setdefault((rtt, path, what), []).append(secs)
                    log(f"small {rtt:>3} ms {path:>6} rep {rep}: {n_files} x 4 KiB pushed in {t1 - t0:.3f} s, "
                        f"{n_shells} x shell true in {t2 - t1:.3f} s")
        for (rtt, path, what), values in res.items():
            self.record("small_median", rtt_ms=rtt, path=path, what=what, reps=len(values),
                        seconds=round(median(values), 4))
        for rtt, limit in ((0, 1.3), (50, 1.0)):
            for what, label in (("push_dir", f"{n_files} x 4 KiB pushed"), ("shells", f"{n_shells} x shell true")):
                v2, v1 = median(res[(rtt, "v2", what)]), median(res[(rtt, "v1", what)])
                self.goal(f"{label}, {rtt} ms: v2 / v1", f"{v2:.2f} / {v1:.2f} s: {v2 / v1:.2f}x",
                          f"<= {limit}x", v2 / v1 <= limit)

    # -- 2c. interactive latency -----------------------------------------------------------------

    def daemon_memory(self):
        """{"v2": (VmRSS, VmHWM), "v1": ...} of the tunnel daemons, in bytes."""
        return {name: (rss_and_threads(d.pid)[0], peak_rss(d.pid)) for name, d in (("v2", self.d2), ("v1", self.d1))}

    def latency_report(self, what, res):
        for path, times in res.items():
            self.record("latency", what=what, path=path, n=len(times), median_ms=round(median(times) * 1000, 3),
                        p90_ms=round(p90(times) * 1000, 3))
        mem = self.daemon_memory()
        for v in ("v2", "v1"):
            d_med = (median(res[v]) - median(res["direct"])) * 1000
            d_p90 = (p90(res[v]) - p90(res["direct"])) * 1000
            self.goal(f"{what}, 0 ms: {v} - direct", f"{d_med:+.2f} ms (p90 {d_p90:+.2f}), "
                      f"peak RSS {mem[v][1] / MIB:.1f} MiB", "<= 3 ms", d_med <= 3)
        log(f"{what}: " + ", ".join(f"{p} {median(t) * 1000:.2f} / p90 {p90(t) * 1000:.2f} ms" for p, t in res.items()))

    def bench_latency(self):
        """What an interactive user feels at 0 ms: a keystroke's echo in `adb shell` on a terminal,
        and short connections through `adb forward`."""
        self.set_link(0, 0)
        self.latency_keystrokes(self.args.latency_keys)
        self.latency_forward(self.args.latency_conns)

    def latency_keystrokes(self, n):
        shells = {path: PtyShell(self.bench, serial) for path, serial in self.paths()}
        res = {path: [] for path in shells}
        try:
            # interleaved in blocks of 10 so that a burst of machine noise hits every path alike
            for block in range(0, n, 10):
                for path, sh in shells.items():
                    res[path].extend(sh.keystroke() for _ in range(min(10, n - block)))
        finally:
            for sh in shells.values():
                sh.close()
        self.latency_report("keystroke echo", res)

    def latency_forward(self, n):
        b = self.bench
        echo = EchoServer()
        payload = os.urandom(1024)
        forwards = {}
        try:
            for path, serial in self.paths():
                port = free_port()
                b.adb("-s", serial, "forward", f"tcp:{port}", f"tcp:{echo.port}")
                forwards[path] = (serial, port)
                forward_roundtrip(port, payload)  # the first connection pays for the device side's set-up
            before = self.daemon_memory()
            res = {path: [] for path in forwards}
            for block in range(0, n, 10):
                for path, (_, port) in forwards.items():
                    res[path].extend(forward_roundtrip(port, payload) for _ in range(min(10, n - block)))
            after = self.daemon_memory()
        finally:
            for serial, port in forwards.values():
                b.adb("-s", serial, "forward", "--remove", f"tcp:{port}", check=False)
            echo.stop()
        self.latency_report("forward 1 KiB echo", res)
        for v in ("v2", "v1"):
            self.record("latency_memory", daemon=v, rss_before_mib=round(before[v][0] / MIB, 2),
                        rss_after_mib=round(after[v][0] / MIB, 2), peak_rss_mib=round(after[v][1] / MIB, 2))
            self.goal(f"forward loop, {v}: RSS before / after / peak",
                      f"{before[v][0] / MIB:.1f} / {after[v][0] / MIB:.1f} / {after[v][1] / MIB:.1f} MiB", "", None)

    # -- 3. connect time -------------------------------------------------------------------------

    def bench_connect(self):
        b = self.bench
        for rtt in (0, 50):
            self.set_link(rtt, 0)
            res = {"tunnel_connected": [], "tunnel_shell": [], "direct_connected": [], "direct_shell": []}
            for rep in range(self.args.connect_reps):
                t0 = time.monotonic()
                self.d2.connect(self.uuid_conn)
                serial, = self.d2.wait_connected([self.uuid_conn], poll=0.005)
                t1 = time.monotonic()
                wait_device(b, serial)
                t2 = time.monotonic()
                self.d2.disconnect(self.uuid_conn)
                port = self.conn_direct_port if rtt == 0 else self.conn_proxy.port
                dserial = f"127.0.0.1:{port}"
                t3 = time.monotonic()
                b.adb("connect", dserial)
                t4 = time.monotonic()
                wait_device(b, dserial)
                t5 = time.monotonic()
                b.adb("disconnect", dserial, check=False)
                for key, v in (("tunnel_connected", t1 - t0), ("tunnel_shell", t2 - t0),
                               ("direct_connected", t4 - t3), ("direct_shell", t5 - t3)):
                    res[key].append(v)
                    self.record("connect", rtt_ms=rtt, rep=rep, what=key, ms=round(v * 1000, 1))
                time.sleep(0.2)
            med = {k: median(v) * 1000 for k, v in res.items()}
            for k, v in med.items():
                self.record("connect_median", rtt_ms=rtt, what=k, median_ms=round(v, 1))
            log(f"connect at {rtt} ms: " + ", ".join(f"{k} {v:.0f} ms" for k, v in med.items()))
            self.goal(f"connect {rtt} ms: tunnel to first shell", f"{med['tunnel_shell']:.0f} ms",
                      f"direct {med['direct_shell']:.0f} ms", None)

    # -- 4. command round trip -------------------------------------------------------------------

    def bench_roundtrip(self):
        self.set_link(0, 0)
        n = self.args.shell_count
        res = {"kbadbtunneld getinstances": [], "adb devices": []}
        for _ in range(n):
            t0 = time.monotonic()
            self.d2.cli("getinstances")
            t1 = time.monotonic()
            self.bench.adb("devices")
            t2 = time.monotonic()
            res["kbadbtunneld getinstances"].append(t1 - t0)
            res["adb devices"].append(t2 - t1)
        for k, v in res.items():
            self.record("roundtrip", command=k, n=len(v), median_ms=round(median(v) * 1000, 2),
                        p90_ms=round(sorted(v)[len(v) * 9 // 10] * 1000, 2))
        g, a = median(res["kbadbtunneld getinstances"]) * 1000, median(res["adb devices"]) * 1000
        log(f"round trip: getinstances {g:.2f} ms, adb devices {a:.2f} ms")
        self.goal("getinstances / adb devices", f"{g:.1f} / {a:.1f} ms", "(no goal)", None)

    # -- 5. efficiency ---------------------------------------------------------------------------

    def bench_cpu(self):
        b = self.bench
        self.set_link(0, 0)
        size = self.args.size_mib * MIB
        local = self.make_file(size)
        socat = Socat(b, self.direct_port)
        socat_serial = direct_connect(b, socat.port)
        relays = [("v2", self.serial_v2, self.d2.pid), ("v1", self.serial_v1, self.d1.pid),
                  ("socat", socat_serial, socat.p.pid)]
        res = {}
        for rep in range(self.args.reps):
            for name, serial, pid in relays:
                c0 = cpu_seconds(pid)
                push, pull = self.push_pull(serial, local, size, f"cpu-{name}.bin")
                c1 = cpu_seconds(pid)
                gib = 2 * size / (1 << 30)
                per_gib = (c1 - c0) / gib
                res.setdefault(name, []).append(per_gib)
                self.record("cpu", relay=name, rep=rep, bytes=2 * size, cpu_s=round(c1 - c0, 3),
                            wall_s=round(push + pull, 3), cpu_s_per_gib=round(per_gib, 3))
                log(f"cpu {name}: {c1 - c0:.2f} s for {2 * size / MIB:.0f} MiB ({per_gib:.2f} s/GiB)")
        b.adb("disconnect", socat_serial, check=False)
        socat.stop()
        med = {k: median(v) for k, v in res.items()}
        for k, v in med.items():
            self.record("cpu_median", relay=k, cpu_s_per_gib=round(v, 3))
        r = med["v2"] / med["socat"] if med["socat"] > 0 else float("inf")
        self.goal("CPU per GiB: v2 / socat", f"{r:.1f}x ({med['v2']:.2f} vs {med['socat']:.2f} s/GiB)",
                  "<= 3x", r <= 3)

    # -- 5b. a host that negotiates delayed_ack ---------------------------------------------------

    def bench_hostack(self):
        """Current hosts and devices agree on delayed_ack: the host may have a whole window of
        writes in flight. A v1 tunnel passes the feature through; a v2 tunnel strips it and
        acknowledges every write itself. This compares the two with the scripted host, which
        takes the tunnel's one client place (the daemons' adb only pretends to connect)."""
        b = self.bench
        token = "kbbench-hostack-token"
        sim = Simulator(b, 3, token, name="hostack-sim")
        sdk = b.path("pretend-sdk")
        os.makedirs(os.path.join(sdk, "platform-tools"))
        fake = os.path.join(sdk, "platform-tools", "adb")
        with open(fake, "w") as f:
            f.write('#!/bin/sh\ncase "$*" in\nconnect*) echo "connected to $2" ;;\n'
                    '*get-state) echo device ;;\nesac\nexit 0\n')
        os.chmod(fake, 0o700)
        daemons, targets = {}, {}
        for version, inst in ((2, sim.instances[0]), (1, sim.instances[1])):
            d = Daemon(b, f"home-hostack-v{version}", sim.base_url, token, version)
            with open(os.path.join(d.home, "config.json"), "w") as f:
                json.dump({"android-sdk-path": sdk}, f)
            d.start()
            d.connect(inst["uuid"])
            serial, = d.wait_connected([inst["uuid"]])
            daemons[f"v{version}"] = d
            targets[f"v{version}"] = "127.0.0.1:" + serial.rsplit(":", 1)[1]
        proxy = LinkProxy(b, sim.instances[2]["device_port"], "hostack-linkproxy")
        targets["direct"] = f"127.0.0.1:{proxy.port}"

        size = self.args.size_mib * MIB
        local = self.make_file(size)
        back = b.path("hostack-pulled.bin")

        def host(target, *command):
            subprocess.run(["python3", ADBHOST, "--connect", target, "--timeout", "300", "--delayed-ack", *command],
                           env=b.env, check=True, capture_output=True, timeout=600)

        res = {}
        for rtt in (0, 50):
            sim.set_link(rtt, 0)
            proxy.set_link(rtt, 0)
            for rep in range(self.args.reps):
                for path, target in targets.items():
                    remote = f"{REMOTE_DIR}/hostack-{path}.bin"
                    t0 = time.monotonic()
                    host(target, "push", local, remote)
                    t1 = time.monotonic()
                    host(target, "pull", remote, back)
                    t2 = time.monotonic()
                    if os.path.getsize(back) != size:
                        raise RuntimeError(f"{path}: pulled {os.path.getsize(back)} bytes instead of {size}")
                    os.remove(back)
                    for direction, secs in (("push", t1 - t0), ("pull", t2 - t1)):
                        res.setdefault((rtt, path, direction), []).append(size / secs / MB)
                    log(f"hostack {rtt:>3} ms {path:>6} rep {rep}: push {size / (t1 - t0) / MB:7.2f} MB/s, "
                        f"pull {size / (t2 - t1) / MB:7.2f} MB/s")
        for (rtt, path, direction), values in res.items():
            self.record("hostack_median", rtt_ms=rtt, path=path, direction=direction, reps=len(values),
                        mb_per_s=round(median(values), 3))
        peaks = {name: peak_rss(d.pid) / MIB for name, d in daemons.items()}
        for rtt in (0, 50):
            for direction in ("push", "pull"):
                v2, v1 = median(res[(rtt, "v2", direction)]), median(res[(rtt, "v1", direction)])
                self.goal(f"delayed_ack host, {direction} {rtt} ms: v2 / v1",
                          f"{v2:.1f} / {v1:.1f} MB/s: {v2 / v1:.2f}x, peak RSS {peaks['v2']:.1f} / "
                          f"{peaks['v1']:.1f} MiB", "(no goal)", None)
        for name, d in daemons.items():
            d.stop()

    # -- 6. scale --------------------------------------------------------------------------------

    def bench_scale(self):
        b = self.bench
        counts = self.args.scale
        top = max(counts)
        token = "kbbench-scale-token"
        per_sim = [min(64, top - 64 * i) for i in range((top + 63) // 64)]
        if len(per_sim) > 1:  # split evenly, as two equal halves of the load
            per_sim = [top // len(per_sim) + (1 if i < top % len(per_sim) else 0) for i in range(len(per_sim))]
        sims = [Simulator(b, n, token, name=f"scale-sim{i}") for i, n in enumerate(per_sim)]
        router = Router(b, sims)
        # interleave the simulators so that every count spreads over them alike
        uuids = []
        for i in range(max(per_sim)):
            for sim in sims:
                if i < len(sim.instances):
                    uuids.append(sim.instances[i]["uuid"])
        total = self.args.scale_total_mib * MIB
        for n in counts:
            d = Daemon(b, f"home-scale-{n}", router.base_url, token, 2).start()
            time.sleep(1)
            rss0, threads0 = rss_and_threads(d.pid)
            chosen = uuids[:n]
            t0 = time.monotonic()
            for u in chosen:
                d.connect(u)
            serials = d.wait_connected(chosen, timeout=300, poll=0.1)
            t_all = time.monotonic() - t0
            for s in serials:
                wait_device(b, s)
            time.sleep(2)
            rss, threads = rss_and_threads(d.pid)
            gi = []
            for _ in range(20):
                t = time.monotonic()
                d.cli("getinstances")
                gi.append(time.monotonic() - t)
            each = max(MIB, total // n)
            local = self.make_file(each)
            procs = []
            t = time.monotonic()
            for s in serials:
                procs.append(subprocess.Popen([ADB, "-s", s, "push", local, f"{REMOTE_DIR}/scale.bin"], env=b.env,
                                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE))
            failed = sum(1 for p in procs if p.wait() != 0)
            wall = time.monotonic() - t
            rss_busy, threads_busy = rss_and_threads(d.pid)
            agg = each * (n - failed) / wall / MB
            row = dict(tunnels=n, all_connected_s=round(t_all, 2), rss_idle_mib=round(rss / MIB, 2),
                       rss_base_mib=round(rss0 / MIB, 2), rss_per_tunnel_mib=round((rss - rss0) / n / MIB, 3),
                       threads=threads, threads_base=threads0, threads_per_tunnel=round((threads - threads0) / n, 2),
                       getinstances_ms=round(median(gi) * 1000, 2), push_each_mib=round(each / MIB, 2),
                       push_failed=failed, aggregate_mb_per_s=round(agg, 2), rss_after_push_mib=round(rss_busy / MIB, 2))
            self.record("scale", **row)
            log("scale", row)
            # disconnect everything before the next count, through the daemon's own shutdown
            d.stop()
            for s in serials:
                b.adb("disconnect", s, check=False)
        rows = self.rows["scale"]
        per = max(r["rss_per_tunnel_mib"] for r in rows if r["tunnels"] >= 10) if any(
            r["tunnels"] >= 10 for r in rows) else rows[-1]["rss_per_tunnel_mib"]
        self.goal("memory per idle tunnel (worst of >= 10)", f"{per:.2f} MiB", "<= 2 MiB", per <= 2)
        self.plot_scale()

    def plot_scale(self):
        dat = os.path.join(self.out, "scale.dat")
        with open(dat, "w") as f:
            f.write("# tunnels rss_per_tunnel_mib aggregate_mb_per_s getinstances_ms threads_per_tunnel\n")
            for r in self.rows["scale"]:
                f.write(f"{r['tunnels']} {r['rss_per_tunnel_mib']} {r['aggregate_mb_per_s']} "
                        f"{r['getinstances_ms']} {r['threads_per_tunnel']}\n")
        self.gnuplot("scale.png", f"""
set title 'Tunnels in one daemon'
set xlabel 'tunnels'
set logscale x
set grid
set ylabel 'MiB per idle tunnel; ms'
set y2label 'aggregate push MB/s'
set y2tics
set ytics nomirror
set yrange [0:*]
set y2range [0:*]
set key outside right
plot '{dat}' using 1:2 with linespoints lw 2 pt 7 title 'resident memory per idle tunnel (MiB)', \
     '{dat}' using 1:4 with linespoints lw 2 pt 5 title 'getinstances round trip (ms)', \
     '{dat}' using 1:3 axes x1y2 with linespoints lw 2 pt 9 title 'aggregate push, all at once (MB/s)'
""")

    def goal(self, figure, value, goal, ok):
        verdict = "-" if ok is None else ("met" if ok else "MISSED")
        self.summary.append((figure, value, goal, verdict))

    def record_peak_rss(self):
        for name, daemon in (("v2", getattr(self, "d2", None)), ("v1", getattr(self, "d1", None))):
            if daemon and daemon.pid and os.path.exists(f"/proc/{daemon.pid}"):
                mib = peak_rss(daemon.pid) / MIB
                self.record("peak_rss", daemon=name, peak_rss_mib=round(mib, 1))
                self.goal(f"daemon peak RSS over the run, {name}", f"{mib:.1f} MiB", "", None)

    def print_table(self):
        w = max(len(s[0]) for s in self.summary) if self.summary else 10
        v = max([34] + [len(s[1]) for s in self.summary])
        lines = [f"{'figure':<{w}}  {'measured':<{v}} {'goal':<16} verdict", "-" * (w + v + 28)]
        for figure, value, goal, verdict in self.summary:
            lines.append(f"{figure:<{w}}  {value:<{v}} {goal:<16} {verdict}")
        text = "\n".join(lines)
        with open(os.path.join(self.out, "summary.txt"), "w") as f:
            f.write(text + "\n")
        with open(os.path.join(self.out, "summary.csv"), "w", newline="") as f:
            wr = csv.writer(f)
            wr.writerow(["figure", "measured", "goal", "verdict"])
            wr.writerows(self.summary)
        print(text)
        for name in ("bulk_median", "small_median", "latency", "latency_memory", "peak_rss", "shell_median", "connect_median", "roundtrip", "cpu_median", "hostack_median", "scale"):
            if name in self.rows:
                print(f"\n{name}:")
                rows = self.rows[name]
                keys = list(rows[0].keys())
                widths = [max(len(k), *(len(str(r[k])) for r in rows)) for k in keys]
                print("  ".join(k.ljust(wd) for k, wd in zip(keys, widths)))
                for r in rows:
                    print("  ".join(str(r[k]).ljust(wd) for k, wd in zip(keys, widths)))


def build(args):
    if args.no_build:
        return
    cfg = ["cmake", "-S", ROOT, "-B", args.build_dir, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
           "-DKB_BUILD_BENCH=ON", "-DKB_BUILD_TOOLS=ON", "-DBUILD_TESTING=OFF"]
    subprocess.run(cfg, check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", args.build_dir, "-j", str(os.cpu_count() or 2), "--target",
                    "kbadbtunneld", "kbplatform-sim", "kbbench_linkproxy"], check=True)


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--quick", action="store_true", help="1 repetition, 16 MiB transfers, 0 and 50 ms, "
                   "20 shell runs, scale 1/10/50")
    p.add_argument("--only", default="bulk,small,latency,shell,connect,roundtrip,cpu,hostack,scale",
                   help="comma-separated subset of bulk,small,latency,shell,connect,roundtrip,cpu,hostack,scale")
    p.add_argument("--reps", type=int, help="repetitions of each transfer (default 3)")
    p.add_argument("--size-mib", type=int, help="size of one push or pull (default 64)")
    p.add_argument("--shell-count", type=int, help="runs of `adb shell true` per path (default 50)")
    p.add_argument("--scale", help="tunnel counts, e.g. 1,10,50,100 (default)")
    p.add_argument("--build-dir", default=os.path.join(ROOT, "build-bench"))
    p.add_argument("--no-build", action="store_true", help="use the binaries already in --build-dir")
    p.add_argument("--out", default=os.path.join(ROOT, "bench", "out"))
    args = p.parse_args()
    q = args.quick
    args.reps = args.reps or (1 if q else 3)
    args.size_mib = args.size_mib or (16 if q else 64)
    args.shell_count = args.shell_count or (20 if q else 50)
    args.small_files = 200
    args.small_shells = 30
    args.latency_keys = 50
    args.latency_conns = 200
    args.connect_reps = 2 if q else 5
    args.scale = [int(x) for x in (args.scale or ("1,10,50" if q else "1,10,50,100")).split(",")]
    args.scale_total_mib = 64 if q else 256
    args.links = [(0, 0), (50, 0), (50, 100000)] if q else LINKS_FULL
    args.build_dir = os.path.abspath(args.build_dir)
    os.makedirs(args.out, exist_ok=True)
    only = set(args.only.split(","))

    build(args)
    load_before = os.getloadavg()[0]
    bench = Bench(args)
    suite = Suite(bench, args)
    signal.signal(signal.SIGTERM, lambda *a: sys.exit(1))
    try:
        if only & {"bulk", "small", "latency", "shell", "connect", "roundtrip", "cpu"}:
            suite.setup_main()
        for name in ("bulk", "small", "latency", "shell", "connect", "roundtrip", "cpu", "hostack", "scale"):
            if name in only:
                log(f"== {name}")
                getattr(suite, "bench_" + name)()
                suite.write_csv()
        suite.record_peak_rss()
    finally:
        bench.cleanup()
    suite.write_csv()
    load = f"load average {load_before:.1f} at the start, {os.getloadavg()[0]:.1f} at the end, {os.cpu_count()} CPUs"
    suite.goal("machine", load, "", None)
    print()
    suite.print_table()
    print(f"\nCSV files and plots in {args.out}")


if __name__ == "__main__":
    main()
