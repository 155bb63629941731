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
import socket
import struct
import sys
import time

A_CNXN = 0x4E584E43
A_OPEN = 0x4E45504F
A_OKAY = 0x59414B4F
A_CLSE = 0x45534C43
A_WRTE = 0x45545257

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
SHELL_STDOUT, SHELL_STDERR, SHELL_EXIT, SHELL_CLOSE_STDIN = 1, 2, 3, 4


class AdbError(Exception):
    pass


class Stream:
    def __init__(self, local_id):
        self.local_id = local_id
        self.remote_id = 0
        self.inbox = bytearray()
        self.opened = False
        self.closed = False
        self.available = 0  # delayed_ack: bytes we may still send unacknowledged


class Connection:
    def __init__(self, address, features, window, timeout):
        host, _, port = address.rpartition(":")
        self.sock = socket.create_connection((host, int(port)), timeout=timeout)
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.window = window
        self.streams = {}
        self.next_id = 1
        self.buffer = bytearray()
        # Our writes not yet acknowledged, as the byte offsets they end at, oldest first.
        self.in_flight = []
        self.sent = self.acked = self.max_in_flight_writes = 0
        self.handshake(features)

    def send(self, command, arg0, arg1, payload=b""):
        header = struct.pack("<6I", command, arg0, arg1, len(payload), 0, command ^ 0xFFFFFFFF)
        self.sock.sendall(header + payload)

    def _take(self, size):
        while len(self.buffer) < size:
            chunk = self.sock.recv(1 << 20)
            if not chunk:
                raise AdbError("connection closed by the device")
            self.buffer += chunk
        data = bytes(self.buffer[:size])
        del self.buffer[:size]
        return data

    def receive(self):
        header = self._take(24)
        command, arg0, arg1, length, _check, magic = struct.unpack("<6I", header)
        if magic != command ^ 0xFFFFFFFF:
            raise AdbError("invalid message header %r" % header)
        if length > 16 * 1024 * 1024:
            raise AdbError("message announcing %d payload bytes" % length)
        return command, arg0, arg1, self._take(length)

    def handshake(self, features):
        self.send(A_CNXN, A_VERSION, MAX_PAYLOAD, ("host::features=" + ",".join(features)).encode())
        command, _, max_payload, banner = self.receive()
        if command != A_CNXN:  # AUTH or STLS, which this host does not do
            raise AdbError("the device answered CNXN with %r" % struct.pack("<I", command))
        self.max_payload = min(MAX_PAYLOAD, max_payload) if max_payload else MAX_PAYLOAD
        self.device_features = []
        for prop in banner.rstrip(b"\0").decode("utf-8", "replace").split("::", 1)[-1].split(";"):
            if prop.startswith("features="):
                self.device_features = [f for f in prop[len("features="):].split(",") if f]
        self.shell_v2 = "shell_v2" in features and "shell_v2" in self.device_features
        # Both ends must advertise it (AOSP: the transport's SupportsDelayedAck()).
        self.delayed_ack = "delayed_ack" in features and "delayed_ack" in self.device_features

    def dispatch(self):
        command, arg0, arg1, payload = self.receive()
        if command == A_CNXN:
            raise AdbError("the device sent CNXN again: it reset the connection")
        stream = self.streams.get(arg1)
        if stream is None:
            return  # late messages for a stream already gone
        if command == A_OKAY:
            if len(payload) != (4 if self.delayed_ack else 0):
                raise AdbError("OKAY with %d payload bytes (delayed_ack: %s)"
                               % (len(payload), self.delayed_ack))
            # delayed_ack: the OKAY accepting a stream carries the window granted to us, every
            # later one the bytes taken; classic: each OKAY answers our one WRTE in flight.
            granted = struct.unpack("<i", payload)[0] if payload else 0
            if not stream.opened:
                stream.opened = True
                stream.remote_id = arg0
            elif self.delayed_ack:
                self.acked += granted
            elif self.in_flight:
                self.acked = self.in_flight[0]
            self.in_flight = [end for end in self.in_flight if end > self.acked]
            stream.available += granted
        elif command == A_WRTE:
            stream.inbox += payload
            # Consumed at once by the caller's loop: acknowledge now (AOSP protocol.txt: the
            # receiver of WRTE answers OKAY; with delayed_ack the OKAY carries the byte count).
            self.send(A_OKAY, stream.local_id, stream.remote_id,
                      struct.pack("<i", len(payload)) if self.delayed_ack else b"")
        elif command == A_CLSE:
            if stream.opened and not stream.closed:
                self.send(A_CLSE, stream.local_id, stream.remote_id)
            stream.closed = True
            del self.streams[stream.local_id]

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
        for start in range(0, len(data), self.max_payload):
            chunk = data[start:start + self.max_payload]
            while not stream.closed and (stream.available <= 0 if self.delayed_ack else self.in_flight):
                self.dispatch()
            if stream.closed:
                raise AdbError("stream closed by the device while writing")
            self.send(A_WRTE, stream.local_id, stream.remote_id, chunk)
            stream.available -= len(chunk)
            self.sent += len(chunk)
            self.in_flight.append(self.sent)
            self.max_in_flight_writes = max(self.max_in_flight_writes, len(self.in_flight))

    def read_exact(self, stream, size):
        while len(stream.inbox) < size:
            if stream.closed:
                raise AdbError("stream closed with %d of %d bytes" % (len(stream.inbox), size))
            self.dispatch()
        data = bytes(stream.inbox[:size])
        del stream.inbox[:size]
        return data

    def close(self, stream):
        if not stream.closed and stream.local_id in self.streams:
            stream.closed = True
            self.send(A_CLSE, stream.local_id, stream.remote_id)


# --- services ---------------------------------------------------------------------------------
def run_shell(conn, command):
    if not conn.shell_v2:
        stream = conn.open("shell:" + command)
        while not stream.closed:
            conn.dispatch()
        return {"shell_protocol": 1, "exit_code": None, "stdout": stream.inbox.decode("utf-8", "replace"),
                "stderr": ""}
    stream = conn.open("shell,v2,raw:" + command)
    # No input: the command sees end of file on its stdin at once.
    conn.write(stream, struct.pack("<BI", SHELL_CLOSE_STDIN, 0))
    out, err, exit_code = bytearray(), bytearray(), None
    while exit_code is None:
        packet_id, length = struct.unpack("<BI", conn.read_exact(stream, 5))
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


def sync_answer(conn, stream, expected):
    tag, length = struct.unpack("<4sI", conn.read_exact(stream, 8))
    if tag == b"FAIL":
        raise AdbError("refused: " + conn.read_exact(stream, length).decode("utf-8", "replace"))
    if tag not in expected or (tag == b"DATA" and length > SYNC_DATA_MAX):
        raise AdbError("unexpected sync answer %r (%d bytes)" % (tag, length))
    return tag, length


def run_sync(conn, push, local, remote):
    digest = hashlib.sha256()
    size = 0
    stream = conn.open("sync:")
    if push:
        # AOSP SYNC.TXT: SEND "<path>,<mode>", then DATA chunks of at most 64 KiB, then DONE <mtime>.
        sync_request(conn, stream, b"SEND", ("%s,%d" % (remote, 0o100644)).encode())
        with open(local, "rb") as source:
            for chunk in iter(lambda: source.read(SYNC_DATA_MAX), b""):
                digest.update(chunk)
                size += len(chunk)
                sync_request(conn, stream, b"DATA", chunk)
        conn.write(stream, b"DONE" + struct.pack("<I", int(time.time())))
        sync_answer(conn, stream, [b"OKAY"])
    else:
        sync_request(conn, stream, b"RECV", remote.encode())
        with open(local, "wb") as target:
            while True:
                tag, length = sync_answer(conn, stream, [b"DATA", b"DONE"])
                if tag == b"DONE":
                    break
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
    try:
        conn = Connection(args.connect, features, args.window, args.timeout)
        result["device_features"] = conn.device_features
        result["delayed_ack"] = conn.delayed_ack
        if args.command == "shell":
            result.update(run_shell(conn, args.cmd))
        else:
            result.update(run_sync(conn, args.command == "push", args.local, args.remote))
        result["max_in_flight_writes"] = conn.max_in_flight_writes
        result["ok"] = True
    except (AdbError, OSError, struct.error) as error:
        result["error"] = str(error) or type(error).__name__
    print(json.dumps(result), flush=True)
    return 0 if result["ok"] else 1


if __name__ == "__main__":
    sys.exit(main())
