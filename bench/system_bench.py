"""Whole-system benchmarks: real broker, zxcloudd and zxhost, started as the demo starts them."""
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tools", "demo"))

from agentside import Agent            # noqa: E402
from cloudside import SAMPLE, Broker, Certificates, Cloud   # noqa: E402
from processes import StepFailed, wait_for   # noqa: E402

IDLE_SECONDS = 20


class System:
    """Broker, cloud and one agent in a temporary folder."""

    def __init__(self, build):
        self.build = build
        self.folder = tempfile.mkdtemp(prefix="zxbench-")
        self.template = os.path.join(self.folder, "installed")
        subprocess.run(["cmake", "--install", build, "--prefix", self.template], check=True, capture_output=True)
        self.certificates = Certificates(os.path.join(self.folder, "certs"))
        self.broker = Broker(os.path.join(self.folder, "broker"), self.certificates)
        self.cloud = Cloud(os.path.join(self.folder, "cloud"), os.path.join(self.template, "bin"), self.certificates,
                           self.broker)
        self.agent = Agent(self.template, self.folder, self.certificates)
        self.mid = None
        self.connected_ms = 0.0

    def __enter__(self):
        self.broker.start()
        self.cloud.start()
        self.agent.deploy(self.cloud.agent_address())
        return self

    def __exit__(self, *_):
        for child in (self.agent.child, self.cloud.child, self.broker.child):
            if child is not None:
                child.stop(70)
        shutil.rmtree(self.folder, ignore_errors=True)

    def start_agent(self):
        started = time.monotonic()
        self.agent.start()
        log = "log/zxagent.log"
        if not wait_for(lambda: "ZxcloudConnectCallback recv" in (self.agent.read(log) or ""), 30, 0.001):
            raise StepFailed("the agent does not connect")
        self.connected_ms = (time.monotonic() - started) * 1000
        if not wait_for(lambda: any(agent["online"] for agent in self.cloud.agents()), 30):
            raise StepFailed("the cloud does not see the agent")
        self.mid = self.cloud.agents()[0]["mid"]

    def host_pid(self):
        """zxhost itself: the shell that makes the private mounts replaces itself by it."""
        return self.agent.child.process.pid


def read(path):
    with open(path, encoding="ascii", errors="replace") as text:
        return text.read()


def memory_kb(pid):
    values = {}
    for line in read(f"/proc/{pid}/smaps_rollup").splitlines()[1:]:
        name, value = line.split(":")
        values[name] = int(value.split()[0])
    return values["Private_Dirty"], values["Pss"]


def cpu_and_switches(pid):
    """CPU milliseconds and context switches of all threads."""
    cpu = switches = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        fields = read(f"/proc/{pid}/task/{task}/schedstat").split()
        cpu += int(fields[0])
        for line in read(f"/proc/{pid}/task/{task}/status").splitlines():
            if line.startswith(("voluntary_ctxt", "nonvoluntary_ctxt")):
                switches += int(line.split()[1])
    return cpu / 1e6, switches


def idle(build):
    with System(build) as system:
        os.sync()       # pages of files just installed count as the process's dirty ones until they are on disk
        system.start_agent()
        pid = system.host_pid()
        time.sleep(3)   # what starting leaves behind settles
        cpu0, switches0 = cpu_and_switches(pid)
        time.sleep(IDLE_SECONDS)
        cpu1, switches1 = cpu_and_switches(pid)
        dirty, pss = memory_kb(pid)
        threads = len(os.listdir(f"/proc/{pid}/task"))
        stopped = time.monotonic()
        system.agent.stop()
        stopped = time.monotonic() - stopped
    rows = [("private dirty, MB", dirty / 1024, 5.0), ("PSS, MB", pss / 1024, 14.0),
            ("context switches per second", (switches1 - switches0) / IDLE_SECONDS, 10.0),
            ("CPU per minute, ms", (cpu1 - cpu0) * 60 / IDLE_SECONDS, 10.0),
            ("start to connected, ms", system.connected_ms, 60.0), ("stop, s", stopped, 0.5)]
    print(f"host with the agent idle and connected over TLS, {threads} threads {'':2}{'':>8}{'target':>10}")
    for name, value, target in rows:
        print(f"  {name:50}{value:10.2f}{target:10.1f}{'' if value <= target else '  above target'}")


def latency(build):
    with System(build) as system:
        add_plugin(system.agent, build, "handoff", "FAB922A8-736E-4CB5-A666-4FD849A3049A")
        run = system.agent.path("run")
        os.makedirs(run, exist_ok=True)
        system_socket = os.path.join(run, "bench.sock")
        path = system.certificates.path
        bench = [os.path.join(build, "bench", "bench_latency"), "127.0.0.1", str(system.broker.port), path("ca.pem"),
                 path("zxcloudd.pem"), path("zxcloudd.key")]
        system.start_agent()
        subprocess.run(bench + [system.mid, str(SAMPLE), system_socket], check=True)


def add_plugin(agent, build, name, guid):
    """A plug-in of the benchmarks in front of the agent, in place of whatever serves that GUID."""
    library = f"lib/plugins/libbench_{name}.so"
    shutil.copy(os.path.join(build, "bench", os.path.basename(library)), agent.path(library))
    with open(agent.path("etc/zxhost.json"), encoding="utf-8") as text:
        config = json.load(text)
    others = [plugin for plugin in config["plugins"] if plugin["guid"] != guid]
    config["plugins"] = [{"name": "bench" + name, "path": library, "guid": guid}] + others
    with open(agent.path("etc/zxhost.json"), "w", encoding="utf-8") as text:
        json.dump(config, text)


def relay(build, messages=4000, rounds=7):
    with System(build) as system:
        add_plugin(system.agent, build, "relay", "9946467F-0102-46E8-ACAC-B9EFE3CD68FD")
        os.makedirs(system.agent.path("run"), exist_ok=True)
        system.start_agent()
        with open(system.agent.path("run/relay.go.tmp"), "w", encoding="ascii") as text:
            text.write(f"{system.mid} {messages} {rounds}\n")
        os.rename(system.agent.path("run/relay.go.tmp"), system.agent.path("run/relay.go"))
        if not wait_for(lambda: os.path.exists(system.agent.path("run/relay.json")), 600):
            raise StepFailed("the relay benchmark does not end")
        with open(system.agent.path("run/relay.json"), encoding="ascii") as text:
            figures = json.load(text)
    failed = sum(row[2] for way in ("relay", "direct") for row in figures[way])
    rate, cpu = {}, {}
    for way in ("relay", "direct"):
        rate[way] = statistics.median(messages / row[0] for row in figures[way])
        cpu[way] = statistics.median(row[1] / messages * 1e6 for row in figures[way])
    print(f"1 KB from the bus to the cloud's acknowledgement and back, {rounds} rounds of {messages}, {failed} failed")
    print(f"  {'':34}{'messages/s':>12}{'CPU us each':>14}")
    print(f"  {'32 threads in zxcloud_send_sync':34}{rate['direct']:12.0f}{cpu['direct']:14.1f}")
    print(f"  {'relayed by the agent':34}{rate['relay']:12.0f}{cpu['relay']:14.1f}")
    # Rounds lie side by side, so what else the machine does cancels out in each pair.
    pairs = list(zip(figures["relay"], figures["direct"]))
    rate_ratio = statistics.median(direct[0] / relayed[0] for relayed, direct in pairs)
    cpu_ratio = statistics.median(relayed[1] / direct[1] for relayed, direct in pairs)
    print(f"  {'ratio (target: 0.8 or more; 1.5 or less)':34}{rate_ratio:6.2f}{cpu_ratio:14.2f}"
          f"{'' if rate_ratio >= 0.8 and cpu_ratio <= 1.5 else '  off target'}")
