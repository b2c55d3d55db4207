#!/usr/bin/env python3
"""Fuzzed HTTP requests against the real exporter.

Starts `CLI serve` on a free loopback port (the arguments after `--` go to serve), then sends COUNT
requests made from valid scrapes by mutation: request lines, methods, targets, versions, header
fields, line ends, empty lines, lengths far beyond the head limit, bodies, pipelined runs, pure
binary, sent whole or in pieces, ended by a reset or a half-close. Every byte that comes back must
be a sequence of well-formed HTTP/1.1 answers. Afterwards the exporter must still answer a valid
scrape; the script prints the answers it saw by status, the exporter's peak resident memory during
the run and its resident memory once the connections have been closed, and the sockets still open.
The exit status is 1 when the exporter died or hung, an answer was malformed, or the last scrape
failed. Each case is derived from SEED and its number, so a failing case can be run again.

    bench/exporter_fuzz.py build/dev/vantorix-cli [--count 10000] [--seed 1] [--workers 32] [-- --volume /]
"""
import argparse
import collections
import os
import random
import re
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
from concurrent.futures import ThreadPoolExecutor

METHODS = [b"GET", b"HEAD", b"POST", b"PUT", b"DELETE", b"OPTIONS", b"TRACE", b"CONNECT", b"get", b"G\x00T", b"",
           b"GET GET", b"\xff\xfe"]
TARGETS = [b"/metrics", b"/", b"/nothing", b"*", b"http://x/metrics", b"/metrics?a=b&c", b"/%00", b"/\x7f", b"/m etrics",
           b"", b"/\xe4\xb8\xad", b"//metrics", b"/metrics#x"]
VERSIONS = [b"HTTP/1.1", b"HTTP/1.0", b"HTTP/1.9", b"HTTP/2.0", b"HTTP/0.9", b"HTTP/1", b"HTTP/1.1.1", b"http/1.1", b"HTTP/11",
            b"", b"HTTP/1.1 x", b"HTTP/\xff.1", b"HTTP/9.9"]
FIELDS = [b"Host: x", b"Host: x", b"Host:", b"Host: a, b", b"Connection: close", b"Connection: keep-alive",
          b"Connection: Keep-Alive, Upgrade", b"Connection: close, keep-alive", b"Connection: ,,,", b"Content-Length: 0",
          b"Content-Length: 5", b"Content-Length: -1", b"Content-Length: 99999999999999999999", b"Content-Length: 0, 0",
          b"Content-Length: +0", b"Transfer-Encoding: chunked", b"Accept: application/openmetrics-text; version=1.0.0",
          b"Accept: */*", b"User-Agent: fuzz", b"no colon", b"Host : x", b" folded: x", b"X: a\x00b", b"X: a\rb", b":",
          b"X-\xff: y", b"X:" + b" " * 100]
LINE_ENDS = [b"\r\n", b"\r\n", b"\n", b"\r", b"\n\r", b"\r\r\n"]
STATUS_LINE = re.compile(rb"HTTP/1\.1 [1-5][0-9][0-9] [^\r\n]*\r\n")


def request(rng):
    """One request head, valid or broken in a few ways."""
    end = rng.choice(LINE_ENDS) if rng.random() < 0.3 else b"\r\n"
    pick = lambda choices, valid: valid if rng.random() < 0.6 else rng.choice(choices)
    method = pick(METHODS, b"GET")
    if rng.random() < 0.05:
        method = bytes(rng.choice(b"ABCDEFGHIJKLMNOPQRSTUVWXYZ") for _ in range(rng.choice([1, 64, 9000])))
    target = pick(TARGETS, b"/metrics")
    if rng.random() < 0.05:
        target = b"/" + b"a" * rng.choice([100, 8100, 20000])
    line = method + b" " + target + b" " + pick(VERSIONS, b"HTTP/1.1")
    if rng.random() < 0.05:
        line = line.replace(b" ", rng.choice([b"  ", b"\t", b""]))
    fields = [b"Host: x"] if rng.random() < 0.7 else []
    fields += [rng.choice(FIELDS) for _ in range(rng.choice([0, 1, 2, 3, 200]))]
    if rng.random() < 0.05:
        fields.append(b"X: " + b"v" * rng.choice([7000, 8180, 9000, 70000]))
    lines = [line] + fields
    ends = [rng.choice(LINE_ENDS) if rng.random() < 0.1 else end for _ in lines]
    head = b"".join(l + e for l, e in zip(lines, ends)) + end
    leading = b"".join(rng.choice([b"\r\n", b"\n"]) for _ in range(rng.choice([0, 0, 0, 1, 2, 50])))
    body = bytes(rng.getrandbits(8) for _ in range(rng.choice([0, 0, 0, 5, 100])))
    return leading + head + body


def valid(rng):
    """A request the exporter must answer, in one of the forms it accepts: the bytes, the status
    they must get, and whether the connection is closed after the answer."""
    end = rng.choice([b"\r\n", b"\n"])
    version = rng.choice([b"HTTP/1.1", b"HTTP/1.0"])
    connection = rng.choice([b"close", b"keep-alive", b""])
    target = rng.choice([b"/metrics", b"/", b"/nothing"])
    lines = [rng.choice([b"GET", b"HEAD"]) + b" " + target + b" " + version, b"Host: x", b"Connection: " + connection]
    closes = connection == b"close" or (version == b"HTTP/1.0" and connection != b"keep-alive")
    return rng.choice([b"", end]) + b"".join(l + end for l in lines) + end, 404 if target == b"/nothing" else 200, closes


def mutate(rng, data):
    data = bytearray(data)
    for _ in range(rng.choice([0, 0, 1, 2, 8])):
        if not data:
            break
        at = rng.randrange(len(data))
        kind = rng.random()
        if kind < 0.4:
            data[at] = rng.getrandbits(8)
        elif kind < 0.7:
            data.insert(at, rng.choice(b"\r\n :\x00\xff\t,"))
        else:
            del data[at:at + rng.randint(1, 16)]
    return bytes(data)


def case(seed, number):
    """What one client sends, and how it ends its connection."""
    rng = random.Random(seed * 1_000_003 + number)
    expected = None  # the statuses a valid run of requests must get
    if rng.random() < 0.05:
        payload = bytes(rng.getrandbits(8) for _ in range(rng.choice([1, 16, 3000, 20000])))
    else:
        count = rng.choice([1, 1, 1, 2, 5, 20])
        if rng.random() < 0.3:
            requests = [valid(rng) for _ in range(count)]
            payload = b"".join(r[0] for r in requests)
            # Answered in order up to the first that closes the connection.
            closing = next((i for i, r in enumerate(requests) if r[2]), len(requests) - 1)
            expected = [r[1] for r in requests[:closing + 1]]
        else:
            payload = b"".join(mutate(rng, request(rng)) for _ in range(count))
    pieces = 1 if rng.random() < 0.7 else rng.randint(2, 12)
    ending = rng.choice(["read", "read", "read", "half-close", "reset", "reset-midway"])
    return rng, payload, pieces, ending, expected if ending in ("read", "half-close") else None


def answers(data):
    """The statuses of the well-formed answers in `data`, and whether anything else is there."""
    statuses, at = [], 0
    while at < len(data):
        line = STATUS_LINE.match(data, at)
        if not line:
            # An answer cut short by the end of the connection is only a prefix of a status line.
            return statuses, not b"HTTP/1.1 ".startswith(data[at:at + 9])
        head_end = data.find(b"\r\n\r\n", at)
        if head_end < 0:
            return statuses, False
        head = data[at:head_end].decode("latin-1")
        length = re.search(r"\r\nContent-Length: (\d+)", head)
        if not length:
            return statuses, True
        statuses.append(int(head[9:12]))
        # An answer to HEAD has no body: the next answer follows its head at once.
        at = head_end + 4
        if not STATUS_LINE.match(data, at):
            at += int(length.group(1))
    return statuses, False


def run_case(port, seed, number):
    rng, payload, pieces, ending, expected = case(seed, number)
    with socket.create_connection(("127.0.0.1", port), timeout=5) as s:
        cuts = sorted(rng.sample(range(1, len(payload)), min(pieces - 1, len(payload) - 1))) if len(payload) > 1 else []
        chunks = [payload[a:b] for a, b in zip([0] + cuts, cuts + [len(payload)])]
        if ending == "reset-midway":
            chunks = chunks[:max(1, len(chunks) // 2)]
        try:
            for chunk in chunks:
                s.sendall(chunk)
                if len(chunks) > 1:
                    time.sleep(rng.random() * 0.02)
        except OSError:
            pass  # the exporter closed first, as it may after an answer
        if ending.startswith("reset"):
            s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            return [], False, False
        if ending == "half-close":
            try:
                s.shutdown(socket.SHUT_WR)
            except OSError:
                pass
        # Everything until the exporter closes the connection or falls quiet for a moment.
        received, deadline = b"", time.monotonic() + 3
        s.settimeout(0.3 if expected is None else 1.0)
        while time.monotonic() < deadline:
            try:
                more = s.recv(65536)
            except socket.timeout:
                break
            except OSError:
                break
            if not more:
                break
            received += more
    statuses, malformed = answers(received)
    return statuses, malformed, expected is not None and statuses != expected


def rss_kib(pid, field="VmRSS"):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    return 0


def sockets(pid):
    count = 0
    for fd in os.listdir(f"/proc/{pid}/fd"):
        try:
            count += os.readlink(f"/proc/{pid}/fd/{fd}").startswith("socket:")
        except OSError:
            pass
    return count


def scrape(port):
    with socket.create_connection(("127.0.0.1", port), timeout=10) as s:
        s.sendall(b"GET /metrics HTTP/1.1\r\nHost: fuzz\r\nConnection: close\r\n\r\n")
        data = b""
        while more := s.recv(65536):
            data += more
    return data.startswith(b"HTTP/1.1 200 OK\r\n") and b"\nvantorix_volumes " in data


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("cli")
    parser.add_argument("--count", type=int, default=10000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--workers", type=int, default=32)
    parser.add_argument("serve_args", nargs="*")
    options = parser.parse_args()

    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    log = tempfile.TemporaryFile()
    server = subprocess.Popen([options.cli, "serve", "--listen", f"127.0.0.1:{port}", "--precision", "100",
                               *options.serve_args], stderr=log)
    stopped = False
    try:
        deadline = time.monotonic() + 20
        while True:
            try:
                if scrape(port):
                    break
            except OSError:
                pass
            if time.monotonic() > deadline or server.poll() is not None:
                sys.exit("the exporter did not start")
            time.sleep(0.1)
        start_rss = rss_kib(server.pid)
        peak = [start_rss]
        done = threading.Event()

        def watch():
            while not done.wait(0.05):
                try:
                    peak[0] = max(peak[0], rss_kib(server.pid))
                except OSError:
                    return

        watcher = threading.Thread(target=watch)
        watcher.start()
        statuses, malformed, wrong, failures = collections.Counter(), [], [], []
        started = time.monotonic()
        with ThreadPoolExecutor(options.workers) as pool:
            futures = {pool.submit(run_case, port, options.seed, n): n for n in range(options.count)}
            for future, number in futures.items():
                try:
                    seen, bad, unexpected = future.result()
                except OSError as error:
                    failures.append((number, repr(error)))
                    continue
                statuses.update(seen)
                if bad:
                    malformed.append(number)
                if unexpected:
                    wrong.append(number)
                if not seen:
                    statuses["none"] += 1
        elapsed = time.monotonic() - started
        done.set()
        watcher.join()
        alive = server.poll() is None
        answered = alive and scrape(port)
        # Kept-alive connections end after 10 s without a request, closing ones after 2 s.
        time.sleep(12)
        settled = rss_kib(server.pid) if alive else 0
        open_sockets = sockets(server.pid) if alive else 0
        hwm = rss_kib(server.pid, "VmHWM") if alive else 0

        print(f"{options.count} fuzzed requests (seed {options.seed}, {options.workers} at a time) in {elapsed:.1f} s")
        print("answers by status: " + ", ".join(f"{k}: {v}" for k, v in sorted(statuses.items(), key=str)))
        print(f"malformed answers: {len(malformed)} {malformed[:10]}; valid requests answered otherwise: {len(wrong)} "
              f"{wrong[:10]}; client errors: {len(failures)} {failures[:5]}")
        print(f"exporter alive: {alive}; valid scrape afterwards answered: {answered}")
        print(f"RSS KiB: {start_rss} before, {peak[0]} peak sampled (VmHWM {hwm}), {settled} settled 12 s after; "
              f"sockets open then: {open_sockets}")
        # A sanitizer build reports leaks and errors on the way out.
        server.terminate()
        status = server.wait(30)
        stopped = True
        print(f"exit status after SIGTERM: {status}")
        if status != 0:
            log.seek(0)
            print(log.read().decode(errors="replace")[-3000:])
        return 0 if alive and answered and status == 0 and not malformed and not wrong and not failures else 1
    finally:
        if not stopped:
            server.kill()
            server.wait()


if __name__ == "__main__":
    sys.exit(main())
