#!/usr/bin/env python3
"""Relay latency, datagram in to datagram out, of norvanta-cli and of a peer.

norvanta-cli listens for NMEA on a UDP port (-NAVIGUDP<port>) and diffuses
each complete fix to its clients. This script plays the receiver: one fix (a
GPRMC and a GPGGA with increasing times) every 50 ms, and it is every client
too, timing each fix from its sendto to its arrival at each client socket.
The same measurement then runs on kplex, the NMEA multiplexer, as the peer.
When kplex cannot be installed, that is said, and socat (one client only)
stands in as a plain forwarder, a floor for what any user-space relay costs.

A fix counts as arrived at a client when all of its sentences have come in,
in one datagram or in several (a relay may cut a datagram into sentences).
Marks ($PKLNT,START and STOP) are not fixes and are skipped.

Every address is on 127.0.0.1; every run is bounded in count and time.
"""

import argparse
import math
import os
import selectors
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LOOPBACK = "127.0.0.1"
DATAGRAM_CAPACITY = 65536
FIX_KEYWORDS = (b"GPRMC", b"GPGGA")
ALL_SENTENCES = (1 << len(FIX_KEYWORDS)) - 1
WARM_UP_LIMIT_S = 20.0
DRAIN_S = 1.0
STOP_WAIT_S = 5.0
FIRST_TIME_CS = 10 * 3600 * 100  # 10:00:00.00 UTC, in hundredths of a second
FIX_DATE = "150624"
SECONDS_PER_HUNDREDTH = 0.01

# The default clients (localhost 7551 and 7552) always join the active list;
# an inactive line for each holds them back, so only the measured clients
# receive anything.
BENCH_CONFIG = (
    "INACTIVE_NMEA_UDP_DIFFUSE_ADR1 localhost 7551\n"
    "INACTIVE_NMEA_UDP_DIFFUSE_ADR2 localhost 7552\n"
)


def checksum(body):
    value = 0
    for byte in body.encode("ascii"):
        value ^= byte
    return f"{value:02X}"


def sentence(body):
    return f"${body}*{checksum(body)}\r\n"


def fix_time(index, step_cs):
    total_cs = FIRST_TIME_CS + index * step_cs
    hours, rest = divmod(total_cs // 100, 3600)
    minutes, seconds = divmod(rest, 60)
    return f"{hours:02d}{minutes:02d}{seconds:02d}.{total_cs % 100:02d}"


def fix_datagram(index, step_cs):
    """A complete fix: position, time, speed and course, then altitude."""
    stamp = fix_time(index, step_cs)
    latitude = f"{4807.0380 + index * 0.0010:09.4f}"
    rmc = f"GPRMC,{stamp},A,{latitude},N,01131.0000,E,022.4,084.4,{FIX_DATE},003.1,W"
    gga = f"GPGGA,{stamp},{latitude},N,01131.0000,E,1,08,0.9,545.4,M,46.9,M,,"
    return (sentence(rmc) + sentence(gga)).encode("ascii")


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind((LOOPBACK, 0))
        return probe.getsockname()[1]


def percentile(ordered, rank_percent):
    """Nearest rank; ordered must be sorted and not empty."""
    rank = max(1, math.ceil(rank_percent / 100.0 * len(ordered)))
    return ordered[rank - 1]


class Clients:
    """The client sockets and what reached each of them."""

    def __init__(self, count):
        self.sockets = []
        self.selector = selectors.DefaultSelector()
        for client in range(count):
            sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            sock.bind((LOOPBACK, 0))
            sock.setblocking(False)
            self.sockets.append(sock)
            self.selector.register(sock, selectors.EVENT_READ, client)
        self.ports = [sock.getsockname()[1] for sock in self.sockets]
        self.index_of_time = {}
        self.parts = [dict() for _ in self.sockets]  # fix index -> sentences seen
        self.arrival_ns = [dict() for _ in self.sockets]  # fix index -> complete at
        self.marks = 0
        self.strangers = 0

    def close(self):
        self.selector.close()
        for sock in self.sockets:
            sock.close()

    def expect(self, index, step_cs):
        self.index_of_time[fix_time(index, step_cs).encode("ascii")] = index

    def note(self, client, payload, now_ns):
        for line in payload.split(b"\r\n"):
            if not line:
                continue
            fields = line[1:].split(b",")
            if fields[0] == b"PKLNT":
                self.marks += 1
                continue
            index = self.index_of_time.get(fields[1]) if len(fields) > 1 else None
            if fields[0] not in FIX_KEYWORDS or index is None:
                self.strangers += 1
                continue
            seen = self.parts[client].get(index, 0) | (1 << FIX_KEYWORDS.index(fields[0]))
            self.parts[client][index] = seen
            if seen == ALL_SENTENCES and index not in self.arrival_ns[client]:
                self.arrival_ns[client][index] = now_ns

    def receive_until(self, deadline_ns):
        while True:
            left_ns = deadline_ns - time.perf_counter_ns()
            if left_ns <= 0:
                return
            for key, _ in self.selector.select(left_ns / 1e9):
                sock = key.fileobj
                while True:
                    try:
                        payload = sock.recv(DATAGRAM_CAPACITY)
                    except BlockingIOError:
                        break
                    self.note(key.data, payload, time.perf_counter_ns())

    def all_have(self, index):
        return all(index in arrivals for arrivals in self.arrival_ns)


def stop_process(process):
    if process.poll() is not None:
        return
    process.send_signal(signal.SIGINT)
    try:
        process.wait(STOP_WAIT_S)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def tail(path, lines=5):
    try:
        with open(path, errors="replace") as text:
            return "".join(text.readlines()[-lines:]).rstrip()
    except OSError:
        return ""


def measure(name, start_relay, client_count, args, work):
    """One relay with client_count clients; prints one result block."""
    clients = Clients(client_count)
    input_port = free_udp_port()
    step_cs = max(1, args.interval_ms // 10)
    log_path = os.path.join(work, f"{name.split()[0]}-{client_count}.log")
    sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    with open(log_path, "w") as log:
        process = start_relay(input_port, clients.ports, log)
    interval_ns = args.interval_ms * 1_000_000
    index = 0
    try:
        # Warm-up: the relay may take a while to listen; fixes go out on the
        # same schedule until one has reached every client.
        warm_up_end = time.perf_counter_ns() + int(WARM_UP_LIMIT_S * 1e9)
        while True:
            clients.expect(index, step_cs)
            sender.sendto(fix_datagram(index, step_cs), (LOOPBACK, input_port))
            clients.receive_until(time.perf_counter_ns() + interval_ns)
            index += 1
            if any(clients.all_have(i) for i in range(index)):
                break
            if process.poll() is not None or time.perf_counter_ns() > warm_up_end:
                print(f"{name}, {client_count} client(s): no fix came through "
                      f"(relay {'ended' if process.poll() is not None else 'still silent'}); "
                      f"its last words:\n{tail(log_path)}")
                return
        first = index
        sent_ns = {}
        start_ns = time.perf_counter_ns()
        for k in range(args.count):
            fix = first + k
            clients.expect(fix, step_cs)
            payload = fix_datagram(fix, step_cs)
            clients.receive_until(start_ns + k * interval_ns)
            sent_ns[fix] = time.perf_counter_ns()
            sender.sendto(payload, (LOOPBACK, input_port))
        clients.receive_until(time.perf_counter_ns() + int(DRAIN_S * 1e9))
        report(name, clients, sent_ns)
    finally:
        stop_process(process)
        sender.close()
        clients.close()


def report(name, clients, sent_ns):
    latencies = []
    slowest = []
    for fix, sent in sent_ns.items():
        arrived = [arrivals[fix] for arrivals in clients.arrival_ns if fix in arrivals]
        latencies.extend(at - sent for at in arrived)
        if len(arrived) == len(clients.sockets):
            slowest.append(max(arrived) - sent)
    expected = len(sent_ns) * len(clients.sockets)
    print(f"{name}, {len(clients.sockets)} client(s): {len(sent_ns)} fixes sent, "
          f"{len(latencies)} of {expected} arrivals ({expected - len(latencies)} lost), "
          f"{clients.marks} marks, {clients.strangers} other sentences")
    if not latencies:
        return

    def line(label, values):
        ordered = sorted(values)
        print(f"    {label:<26} p50 {percentile(ordered, 50) / 1e3:8.1f} us"
              f"  p99 {percentile(ordered, 99) / 1e3:8.1f} us"
              f"  max {ordered[-1] / 1e3:8.1f} us")

    line("every client", latencies)
    if len(clients.sockets) > 1 and slowest:
        line("last client of each fix", slowest)


def norvanta_relay(cli, home, config):
    def start(input_port, client_ports, log):
        command = [cli, "--config", config, "--status=none", f"-NAVIGUDP{input_port}"]
        for port in client_ports:
            command += ["--client", f"{LOOPBACK}:{port}"]
        environment = dict(os.environ, NORVANTA_HOME=home)
        return subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL,
                                stdout=log, stderr=subprocess.STDOUT)
    return start


def kplex_relay(work):
    def start(input_port, client_ports, log):
        config = os.path.join(work, f"kplex-{len(client_ports)}.conf")
        with open(config, "w") as out:
            out.write(f"[udp]\ndirection=in\ntype=unicast\naddress={LOOPBACK}\n"
                      f"port={input_port}\n")
            for port in client_ports:
                out.write(f"\n[udp]\ndirection=out\ntype=unicast\naddress={LOOPBACK}\n"
                          f"port={port}\n")
        return subprocess.Popen(["kplex", "-f", config], stdin=subprocess.DEVNULL,
                                stdout=log, stderr=subprocess.STDOUT)
    return start


def socat_relay(input_port, client_ports, log):
    command = ["socat", "-u", f"UDP4-RECV:{input_port},bind={LOOPBACK}",
               f"UDP4-SENDTO:{LOOPBACK}:{client_ports[0]}"]
    return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log,
                            stderr=subprocess.STDOUT)


def ensure_package(package):
    """Installs a Debian package through the project's helper; True when present."""
    if shutil.which(package):
        return True
    helper = os.path.join(ROOT, "scripts", "packages.sh")
    result = subprocess.run(["bash", "-c", f'source "{helper}" && ensure_packages "$1"',
                             "ensure_packages", package],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if result.returncode != 0:
        print(f"{package}: not installable here: {result.stdout.strip().splitlines()[-1:]}")
    return shutil.which(package) is not None


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--cli", default=os.path.join(ROOT, "build-bench", "bin", "norvanta-cli"))
    parser.add_argument("--count", type=int, default=2000, help="fixes measured per run")
    parser.add_argument("--interval-ms", type=int, default=50, help="time between fixes")
    parser.add_argument("--clients", default="1,18", help="client counts, comma separated")
    parser.add_argument("--only", choices=("norvanta", "peer"), help="measure one side only")
    args = parser.parse_args()
    if args.count < 1 or args.interval_ms < 1:
        parser.error("--count and --interval-ms must be positive")
    counts = [int(count) for count in args.clients.split(",")]

    work = tempfile.mkdtemp(prefix="norvanta-relay-")
    try:
        if args.only != "peer":
            if not os.access(args.cli, os.X_OK):
                sys.exit(f"{args.cli} not found; build it first (see bench/README.md)")
            home = os.path.join(work, "home")
            os.mkdir(home)
            config = os.path.join(work, "bench.cfg")
            with open(config, "w") as out:
                out.write(BENCH_CONFIG)
            for count in counts:
                measure("norvanta-cli", norvanta_relay(args.cli, home, config), count, args, work)
        if args.only != "norvanta":
            if ensure_package("kplex"):
                for count in counts:
                    measure("kplex", kplex_relay(work), count, args, work)
            else:
                print("kplex: no peer figure (kplex is not installable from the package "
                      "registry here)")
                if ensure_package("socat"):
                    measure("socat (plain forwarder, reference)", socat_relay, 1, args, work)
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
