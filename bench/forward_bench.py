"""From a forwarder's process over the bus, the agent and the link to the cloud's acknowledgement and back: a whole system,
each process's CPU, and where the time goes."""
import json
import mmap
import os
import pwd
import socket
import statistics
import struct
import subprocess
import time
import unittest.mock

from system_bench import System, add_plugin   # finds the demo's modules

from componentside import COMPONENTS   # noqa: I001
from processes import Child, StepFailed, wait_for

STAMPS, STAMP = (1 << 18) + 1, struct.Struct("=6Q")   # ForwardStamps.h
FLOOR = "7D0F0C11-5B0E-4E0B-9C55-2B1F4F6A0001"
WINDOW = 256
WAYS = ("bare", "agent")
FORWARDER_SECONDS = 120


class Processes:
    """CPU seconds of processes, also of their threads that have ended."""

    def __init__(self, pids):
        self.pids = pids
        self.last = self._all()

    def _all(self):
        return {name: time.clock_gettime((~pid << 3) | 2) for name, pid in self.pids.items()}

    def since(self):
        before, self.last = self.last, self._all()
        return {name: self.last[name] - before[name] for name in before}


class Stamps:
    """The file in which every process notes its times, by message number."""

    def __init__(self, path):
        self.path = path
        with open(path, "wb") as file:
            file.truncate(STAMPS * STAMP.size)
        with open(path, "r+b") as file:
            self.map = mmap.mmap(file.fileno(), 0)

    def look_at_sockets(self):
        """From here on; it costs every message a little."""
        STAMP.pack_into(self.map, (STAMPS - 1) * STAMP.size, 1, 0, 0, 0, 0, 0)

    def rows(self, first, count):
        return [STAMP.unpack_from(self.map, number * STAMP.size) for number in range(first, first + count)]


class Forwarder:
    """The benchmark's own forwarder process."""

    def __init__(self, program, address, stamps, mid, environment):
        self.child = subprocess.Popen([program, address, stamps.path, mid], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                      text=True, env={**os.environ, **environment})
        if self.child.stdout.readline() != "ready\n":
            raise StepFailed("bench_forward does not join the bus")
        self.next = 0

    def run(self, way, count, window):
        """First message, seconds and failures of a round."""
        first, self.next = self.next, self.next + count
        self.child.stdin.write(f"{way} {first} {count} {window}\n")
        self.child.stdin.flush()
        answer = self.child.stdout.readline().split()
        if not answer:
            raise StepFailed("bench_forward ended")
        return first, float(answer[0]), int(answer[1])

    def end(self):
        self.child.stdin.close()
        self.child.wait(30)


def hops(rows):
    """Median microseconds of each part of the way, of messages one at a time."""
    parts = []
    for row in rows:
        if 0 in row:
            raise StepFailed("a message was not seen everywhere: %r" % (row,))
        parts.append([later - earlier for earlier, later in zip(row, row[1:])])
    return [statistics.median(column) / 1e3 for column in zip(*parts)]


def prepare(system, build):
    add_plugin(system.agent, build, "forward_plugin", FLOOR)
    stamps = Stamps(os.path.join(system.folder, "stamps"))
    preload = {"LD_PRELOAD": os.path.join(os.path.abspath(build), "bench", "libbench_forward_stamps.so"),
               "ZX_FORWARD_STAMPS": stamps.path}
    with unittest.mock.patch.dict(os.environ, preload):
        system.start_agent()
    return stamps, preload


def bus_daemon(system):
    program = os.path.join(system.template, "bin", "zxctl")
    found = []

    def look():
        done = subprocess.run([program, "--json", "status", "--home", system.agent.home], capture_output=True, text=True,
                              check=False)
        if done.returncode == 0 and json.loads(done.stdout)["bus"].get("daemon_pid"):
            found.append(json.loads(done.stdout)["bus"]["daemon_pid"])
        return bool(found)
    if not wait_for(look, 30):
        raise StepFailed("the host has no bus")
    return found[0]


def processes_of(system, daemon, forwarder):
    return Processes({"forwarder": forwarder, "bus daemon": daemon, "host with agent and link": system.host_pid(),
                      "broker": system.broker.child.process.pid, "zxcloudd": system.cloud.child.process.pid})


def load_rounds(forwarder, cpu, messages, rounds):
    """Seconds, CPU and failures of each round, way by way."""
    figures = {way: [] for way in WAYS}
    for _ in range(rounds):
        for way in WAYS:
            cpu.since()
            _, seconds, failed = forwarder.run(way, messages, WINDOW)
            time.sleep(0.1)   # what comes behind the last result: zxcloudd's database
            figures[way].append((seconds, cpu.since(), failed))
    return figures


def print_load(figures, messages, rounds):
    failed = sum(row[2] for rows in figures.values() for row in rows)
    print(f"1 KB log caches from a forwarder's process to the cloud's acknowledgement and back, {rounds} rounds of {messages}, "
          f"window {WINDOW}, {failed} failed")
    print(f"  {'':34}{'bare sd-bus':>12}{'agent':>10}{'ratio':>8}{'share':>8}")
    median = lambda way, value: statistics.median(value(row) for row in figures[way])
    # Rounds lie side by side, so what else the machine does cancels out in each pair.
    ratio = lambda value: statistics.median(value(agent) / value(bare) for bare, agent in zip(figures["bare"], figures["agent"]))
    rate = lambda row: messages / row[0]
    print(f"  {'messages/s':34}{median('bare', rate):12.0f}{median('agent', rate):10.0f}{ratio(rate):8.2f}"
          f"{'':8}  target 0.8{'' if ratio(rate) >= 0.8 else '  below target'}")
    whole = lambda row: sum(row[1].values()) / messages * 1e6
    for name in figures["agent"][0][1]:
        each = lambda row: row[1][name] / messages * 1e6
        share = statistics.median(each(row) / whole(row) for row in figures["agent"])
        print(f"  {'CPU us each, ' + name:34}{median('bare', each):12.1f}{median('agent', each):10.1f}{ratio(each):8.2f}{share:8.0%}")
    print(f"  {'CPU us each, all':34}{median('bare', whole):12.1f}{median('agent', whole):10.1f}{ratio(whole):8.2f}"
          f"{'':8}  target 1.5{'' if ratio(whole) <= 1.5 else '  above target'}")


def alone_rows(forwarder, stamps, count, turns=10):
    """Stamps of messages one at a time; the ways take turns, so that both see the same machine."""
    rows = {way: [] for way in WAYS}
    stamps.look_at_sockets()
    for _ in range(turns):
        for way in WAYS:
            rows[way] += stamps.rows(forwarder.run(way, count // turns, 1)[0], count // turns)
    return rows


def print_hops(rows):
    names = ("forwarder, until written to the bus", "bus, until read by the host", "agent, until handed to the link",
             "link and broker, until acknowledged", "back by agent, bus and forwarder")
    medians = {way: hops(rows[way]) for way in WAYS}
    print(f"\none at a time, median us of {len(rows['agent'])} {'':6}{'bare sd-bus':>12}{'agent':>10}{'ratio':>8}{'share':>8}")
    total = {way: sum(medians[way]) for way in WAYS}
    for name, bare, agent in zip(names, medians["bare"], medians["agent"]):
        print(f"  {name:36}{bare:12.0f}{agent:10.0f}{agent / bare:8.2f}{agent / total['agent']:8.0%}")
    print(f"  {'whole way':36}{total['bare']:12.0f}{total['agent']:10.0f}{total['agent'] / total['bare']:8.2f}")


class LogCache:
    """bin/zxlogcache as its own process."""

    def __init__(self, system, body):
        self.agent = system.agent
        source = {"name": "bench", "product": "veltcwpp", "combo": "zxlogcache", "priv": 3, "body": body,
                  "sockets": [{"type": "stream", "path": "bench.sock", "ack": True}]}
        with open(self.agent.path("etc/zxlogcache.json"), "w", encoding="ascii") as text:
            json.dump({"sources": [source], "batch": {"linger_ms": 10}, "window": WINDOW}, text)
        user = next(entry[2] for entry in COMPONENTS if entry[0] == "zxlogcache")
        self.child = Child("zxlogcache", [self.agent.path("bin/zxlogcache"), "--home", self.agent.home],
                           os.path.join(system.folder, "zxlogcache.out"), {"ZX_LOG_DIR": self.agent.path("data/zxlogcache/log")},
                           pwd.getpwnam(user) if self.agent.components.own_users else None)
        self.socket = socket.socket(socket.AF_UNIX)
        if not wait_for(lambda: self.socket.connect_ex(self.agent.path("data/zxlogcache/bench.sock")) == 0, 30):
            raise StepFailed("the forwarder does not listen")

    def forwarded(self):
        return json.loads(self.agent.read("data/zxlogcache/status.json") or "{}").get("forwarded_records", 0)

    def take(self, first, count):
        """Hands records over and waits until the cloud has them all."""
        records = b"".join(b"zxforward:%08d:" % number + b"b" * 1005 + b"\n" for number in range(first, first + count))
        before = self.forwarded()
        self.socket.sendall(records)
        if not wait_for(lambda: self.forwarded() >= before + count, FORWARDER_SECONDS, 0.01):
            raise StepFailed("the forwarder does not get rid of its records")

    def end(self):
        self.socket.close()
        self.child.stop()


def forwarder_program(system, daemon, stamps, first, count):
    """Records per second and CPU of the real forwarder: one record a log cache, and batched."""
    print(f"\nzxlogcache with its store, {count} records of 1 KB by its socket until the cloud has them")
    columns = {}
    for title, body in (("a log cache each", "record"), ("batched", "lines")):
        program = LogCache(system, body)
        program.take(first, 200)   # joined, store made
        cpu = processes_of(system, daemon, program.child.process.pid)
        begun = time.monotonic_ns()
        program.take(first + 200, count)
        used = cpu.since()
        # The program says so up to half a second later; the link knows better.
        ended = max(row[4] for row in stamps.rows(first + 200, count))
        columns[title] = (count / (ended - begun) * 1e9, used)
        first += 200 + count
        program.end()
    print(f"  {'':34}" + "".join(f"{title:>18}" for title in columns))
    print(f"  {'records/s':34}" + "".join(f"{rate:18.0f}" for rate, _ in columns.values()))
    for name in next(iter(columns.values()))[1]:
        print(f"  {'CPU us each, ' + name:34}" + "".join(f"{used[name] / count * 1e6:18.1f}" for _, used in columns.values()))
    print(f"  {'CPU us each, all':34}" + "".join(f"{sum(used.values()) / count * 1e6:18.1f}" for _, used in columns.values()))


def forward(build, messages=3000, rounds=7, alone=1000, records=4000):
    with System(build) as system:
        stamps, preload = prepare(system, build)
        daemon = bus_daemon(system)
        forwarder = Forwarder(os.path.join(build, "bench", "bench_forward"), f"unix:path={system.agent.path('run/bus')}", stamps,
                              system.mid, preload)
        cpu = processes_of(system, daemon, forwarder.child.pid)
        for way in WAYS:
            forwarder.run(way, 500, WINDOW)   # connections, threads and memory are there
        figures = load_rounds(forwarder, cpu, messages, rounds)
        rows = alone_rows(forwarder, stamps, alone)
        print_load(figures, messages, rounds)
        print_hops(rows)
        forwarder.end()
        forwarder_program(system, daemon, stamps, forwarder.next, records)
