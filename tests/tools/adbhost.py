#!/usr/bin/env python3
"""A scripted ADB host: speaks the ADB transport protocol to a device (or a tunnel) on a TCP
port with the features the caller chooses, runs one shell, push or pull, and prints one line of
JSON with what happened. It plays the current host tools that Debian's adb 29 cannot: with
--delayed-ack it advertises delayed_ack and, when the device advertises it too, keeps several
writes in flight per stream within the windows the OPEN/OKAY exchange grants.

  adbhost.py --connect 127.0.0.1:PORT [--features a,b] [--delayed-ack] push LOCAL REMOTE
  adbhost.py --connect 127.0.0.1:PORT pull REMOTE LOCAL
  adbhost.py --connect 127.0.0.1:PORT shell 'echo out; echo err >&2; exit 3'

Exit status 0 when the operation completed (whatever the remote command's own exit code),
1 with {"ok": false, "error": ...} otherwise. Python 3 standard library only.
"""

import argparse
import hashlib
import json
import os
import socket
import struct
import sys
import time

A_CNXN = 0x4E584E43
A_AUTH = 0x48545541
A_OPEN = 0x4E45504F
A_OKAY = 0x59414B4F
A_CLSE = 0x45534C43
A_WRTE = 0x45545257
A_STLS = 0x534C5453
NAMES = {A_CNXN: "CNXN", A_AUTH: "AUTH", A_OPEN: "OPEN", A_OKAY: "OKAY", A_CLSE: "CLSE",
         A_WRTE: "WRTE", A_STLS: "STLS"}

# The version with unchecked payloads (AOSP protocol.txt: A_VERSION 0x01000001 skips checksums).
A_VERSION = 0x01000001
MAX_PAYLOAD = 256 * 1024
SYNC_DATA_MAX = 64 * 1024

# What a current host advertises (AOSP transport feature constants), less delayed_ack, which
# --delayed-ack adds.
MODERN_HOST_FEATURES = [
    "shell_v2", "cmd", "stat_v2", "ls_v2", "fixed_push_mkdir", "apex", "abb",
    "fixed_push_symlink_timestamp", "abb_exec", "remount_shell", "track_app", "sendrecv_v2",
    "sendrecv_v2_brotli", "sendrecv_v2_lz4", "sendrecv_v2_zstd", "sendrecv_v2_dry_run_send",
    "openscreen_mdns",
]

# AOSP shell_protocol.h packet ids.
SHELL_STDIN, SHELL_STDOUT, SHELL_STDERR, SHELL_EXIT, SHELL_CLOSE_STDIN = 0, 1, 2, 3, 4


class AdbError(Exception):
    pass


class Stream:
    def __init__(self, local_id):
        self.local_id = local_id
        self.remote_id = 0
        self.inbox = bytearray()
        self.opened = False
        self.closed = False
        self.available = 0        # delayed_ack: bytes we may still send unacknowledged
        self.okay_pending = False  # classic: our last WRTE awaits its OKAY


class Connection:
    def __init__(self, address, features, window, timeout):
        host, _, port = address.rpartition(":")
        self.sock = socket.create_connection((host, int(port)), timeout=timeout)
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.features = features
        self.window = window
        self.streams = {}
        self.next_id = 1
        self.buffer = bytearray()
        self.stats = {"wrte_sent": 0, "okay_received": 0, "max_in_flight_bytes": 0,
                      "max_in_flight_writes": 0}
        self.in_flight = []  # payload sizes of our writes not yet acknowledged, oldest first

    # --- messages ---------------------------------------------------------------------------
    def send(self, command, arg0, arg1, payload=b""):
        header = struct.pack("<6I", command, arg0, arg1, len(payload), 0, command ^ 0xFFFFFFFF)
        self.sock.sendall(header + payload)

    def _fill(self, size):
        while len(self.buffer) < size:
            chunk = self.sock.recv(1 << 20)
            if not chunk:
                raise AdbError("connection closed by the device")
            self.buffer += chunk

    def receive(self):
        self._fill(24)
        command, arg0, arg1, length, _check, magic = struct.unpack_from("<6I", self.buffer)
        if magic != command ^ 0xFFFFFFFF or command not in NAMES:
            raise AdbError("invalid message header %r" % bytes(self.buffer[:24]))
        if length > 16 * 1024 * 1024:
            raise AdbError("message announcing %d payload bytes" % length)
        self._fill(24 + length)
        payload = bytes(self.buffer[24:24 + length])
        del self.buffer[:24 + length]
        return command, arg0, arg1, payload

    # --- connection ---------------------------------------------------------------------------
    def handshake(self):
        banner = ("host::features=" + ",".join(self.features)).encode()
        self.send(A_CNXN, A_VERSION, MAX_PAYLOAD, banner)
        while True:
            command, arg0, arg1, payload = self.receive()
            if command == A_CNXN:
                break
            if command in (A_AUTH, A_STLS):
                raise AdbError("the device asks for %s, which this host does not do" % NAMES[command])
        self.max_payload = min(MAX_PAYLOAD, arg1) if arg1 else MAX_PAYLOAD
        self.device_banner = payload.rstrip(b"\0").decode("utf-8", "replace")
        device_features = []
        for prop in self.device_banner.split("::", 1)[-1].split(";"):
            if prop.startswith("features="):
                device_features = [f for f in prop[len("features="):].split(",") if f]
        self.device_features = device_features
        # Both ends must advertise it (AOSP: the transport's SupportsDelayedAck()).
        self.delayed_ack = "delayed_ack" in self.features and "delayed_ack" in device_features

    def has(self, feature):
        return feature in self.features and feature in self.device_features

    def dispatch(self):
        command, arg0, arg1, payload = self.receive()
        stream = self.streams.get(arg1)
        if command == A_CNXN:
            raise AdbError("the device sent CNXN again: it reset the connection")
        if command == A_OPEN:
            # A device-opened stream (reverse:): this host serves none of them.
            self.send(A_CLSE, 0, arg0)
            return
        if stream is None:
            return  # late messages for a stream already gone
        if command == A_OKAY:
            self.stats["okay_received"] += 1
            if self.delayed_ack:
                if len(payload) != 4:
                    raise AdbError("OKAY without its 4-byte acknowledgement under delayed_ack")
                acked = struct.unpack("<i", payload)[0]
                stream.available += acked
                if stream.opened:
                    self._acknowledge(acked)
            elif payload:
                raise AdbError("OKAY with a payload without delayed_ack")
            else:
                stream.okay_pending = False
                if stream.opened and self.in_flight:
                    self.in_flight.pop(0)
            if not stream.opened:
                stream.opened = True
                stream.remote_id = arg0
        elif command == A_WRTE:
            stream.inbox += payload
            # Consumed at once by the caller's loop: acknowledge now (AOSP protocol.txt: the
            # receiver of WRTE answers OKAY; with delayed_ack the OKAY carries the byte count).
            self.send(A_OKAY, stream.local_id, stream.remote_id,
                      struct.pack("<i", len(payload)) if self.delayed_ack else b"")
        elif command == A_CLSE:
            if not stream.closed:
                stream.closed = True
                if stream.opened:
                    self.send(A_CLSE, stream.local_id, stream.remote_id)
            del self.streams[stream.local_id]

    def _acknowledge(self, acked):
        while acked > 0 and self.in_flight:
            taken = min(acked, self.in_flight[0])
            self.in_flight[0] -= taken
            acked -= taken
            if self.in_flight[0] == 0:
                self.in_flight.pop(0)

    # --- streams ------------------------------------------------------------------------------
    def open(self, service):
        stream = Stream(self.next_id)
        self.next_id += 1
        self.streams[stream.local_id] = stream
        # delayed_ack: OPEN's arg1 is the receive window we grant; the OKAY answering it
        # carries the window granted to us.
        self.send(A_OPEN, stream.local_id, self.window if self.delayed_ack else 0,
                  service.encode() + b"\0")
        while not stream.opened and not stream.closed:
            self.dispatch()
        if stream.closed:
            raise AdbError("the device refused %r" % service)
        return stream

    def write(self, stream, data):
        view = memoryview(data)
        while view:
            chunk = bytes(view[:self.max_payload])
            view = view[len(chunk):]
            while not stream.closed and (stream.available <= 0 if self.delayed_ack else stream.okay_pending):
                self.dispatch()
            if stream.closed:
                raise AdbError("stream closed by the device while writing")
            self.send(A_WRTE, stream.local_id, stream.remote_id, chunk)
            self.stats["wrte_sent"] += 1
            self.in_flight.append(len(chunk))
            self.stats["max_in_flight_bytes"] = max(self.stats["max_in_flight_bytes"], sum(self.in_flight))
            self.stats["max_in_flight_writes"] = max(self.stats["max_in_flight_writes"], len(self.in_flight))
            if self.delayed_ack:
                stream.available -= len(chunk)
            else:
                stream.okay_pending = True

    def read_exact(self, stream, size):
        while len(stream.inbox) < size:
            if stream.closed:
                raise AdbError("stream closed with %d of %d bytes" % (len(stream.inbox), size))
            self.dispatch()
        data = bytes(stream.inbox[:size])
        del stream.inbox[:size]
        return data

    def read_some(self, stream):
        while not stream.inbox and not stream.closed:
            self.dispatch()
        data = bytes(stream.inbox)
        stream.inbox.clear()
        return data

    def close(self, stream):
        if not stream.closed and stream.local_id in self.streams:
            stream.closed = True
            self.send(A_CLSE, stream.local_id, stream.remote_id)


# --- services ---------------------------------------------------------------------------------
def run_shell(conn, command):
    if not conn.has("shell_v2"):
        stream = conn.open("shell:" + command)
        out = bytearray()
        while True:
            data = conn.read_some(stream)
            if not data:
                break
            out += data
        return {"shell_protocol": 1, "exit_code": None, "stdout": out.decode("utf-8", "replace"),
                "stderr": ""}
    stream = conn.open("shell,v2,raw:" + command)
    # No input: the command sees end of file on its stdin at once.
    conn.write(stream, struct.pack("<BI", SHELL_CLOSE_STDIN, 0))
    out, err, exit_code = bytearray(), bytearray(), None
    while exit_code is None:
        header = conn.read_exact(stream, 5)
        packet_id, length = struct.unpack("<BI", header)
        data = conn.read_exact(stream, length)
        if packet_id == SHELL_STDOUT:
            out += data
        elif packet_id == SHELL_STDERR:
            err += data
        elif packet_id == SHELL_EXIT:
            exit_code = data[0] if data else None
    conn.close(stream)
    return {"shell_protocol": 2, "exit_code": exit_code, "stdout": out.decode("utf-8", "replace"),
            "stderr": err.decode("utf-8", "replace")}


def sync_request(conn, stream, tag, body):
    conn.write(stream, tag + struct.pack("<I", len(body)) + body)


def sync_fail(conn, stream, length):
    return conn.read_exact(stream, length).decode("utf-8", "replace")


def run_push(conn, local, remote):
    digest = hashlib.sha256()
    size = 0
    stream = conn.open("sync:")
    # AOSP SYNC.TXT: SEND "<path>,<mode>", then DATA chunks of at most 64 KiB, then DONE <mtime>.
    sync_request(conn, stream, b"SEND", ("%s,%d" % (remote, 0o100644)).encode())
    with open(local, "rb") as source:
        while True:
            chunk = source.read(SYNC_DATA_MAX)
            if not chunk:
                break
            digest.update(chunk)
            size += len(chunk)
            sync_request(conn, stream, b"DATA", chunk)
    conn.write(stream, b"DONE" + struct.pack("<I", int(time.time())))
    tag, length = struct.unpack("<4sI", conn.read_exact(stream, 8))
    if tag == b"FAIL":
        raise AdbError("push refused: " + sync_fail(conn, stream, length))
    if tag != b"OKAY":
        raise AdbError("unexpected answer %r to DONE" % tag)
    sync_request(conn, stream, b"QUIT", b"")
    conn.close(stream)
    return {"bytes": size, "sha256": digest.hexdigest()}


def run_pull(conn, remote, local):
    digest = hashlib.sha256()
    size = 0
    stream = conn.open("sync:")
    sync_request(conn, stream, b"RECV", remote.encode())
    with open(local, "wb") as target:
        while True:
            tag, length = struct.unpack("<4sI", conn.read_exact(stream, 8))
            if tag == b"DONE":
                break
            if tag == b"FAIL":
                raise AdbError("pull refused: " + sync_fail(conn, stream, length))
            if tag != b"DATA" or length > SYNC_DATA_MAX:
                raise AdbError("unexpected sync answer %r (%d bytes)" % (tag, length))
            chunk = conn.read_exact(stream, length)
            digest.update(chunk)
            size += len(chunk)
            target.write(chunk)
    sync_request(conn, stream, b"QUIT", b"")
    conn.close(stream)
    return {"bytes": size, "sha256": digest.hexdigest()}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--connect", required=True, metavar="HOST:PORT")
    parser.add_argument("--features", default=",".join(MODERN_HOST_FEATURES),
                        help="comma-separated host features (default: a current host's)")
    parser.add_argument("--delayed-ack", action="store_true", help="advertise delayed_ack as well")
    parser.add_argument("--window", type=int, default=4 * 1024 * 1024,
                        help="receive window granted per stream under delayed_ack (bytes)")
    parser.add_argument("--timeout", type=float, default=120, help="seconds without progress")
    commands = parser.add_subparsers(dest="command", required=True)
    push = commands.add_parser("push")
    push.add_argument("local")
    push.add_argument("remote")
    pull = commands.add_parser("pull")
    pull.add_argument("remote")
    pull.add_argument("local")
    shell = commands.add_parser("shell")
    shell.add_argument("cmd")
    args = parser.parse_args()

    features = [f for f in args.features.split(",") if f and f != "delayed_ack"]
    if args.delayed_ack:
        features.append("delayed_ack")
    result = {"ok": False, "command": args.command}
    started = time.monotonic()
    try:
        conn = Connection(args.connect, features, args.window, args.timeout)
        conn.handshake()
        result["device_features"] = conn.device_features
        result["delayed_ack"] = conn.delayed_ack
        if args.command == "shell":
            result.update(run_shell(conn, args.cmd))
        elif args.command == "push":
            result.update(run_push(conn, args.local, args.remote))
        else:
            result.update(run_pull(conn, args.remote, args.local))
        result.update(conn.stats)
        result["ok"] = True
    except (AdbError, OSError, struct.error) as error:
        result["error"] = str(error) or type(error).__name__
    result["seconds"] = round(time.monotonic() - started, 3)
    print(json.dumps(result), flush=True)
    return 0 if result["ok"] else 1


if __name__ == "__main__":
    sys.exit(main())
