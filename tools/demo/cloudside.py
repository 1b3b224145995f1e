"""The cloud's half of the demo: certificates, broker, zxcloudd, and what zxctl says about them."""
import json
import os
import shutil
import socket
import subprocess
import time

from processes import Child, StepFailed, wait_for

CERTIFICATE_DAYS = "2"
# Business numbers: the sample component, one that no machine has, the agent itself, and the maintenance tool.
SAMPLE, ABSENT, OWN, MAINT = 1001, 1002, 1003, 1004
PCID = [{"product": "veltcwpp", "combo": "zxsample", "id": SAMPLE},
        {"product": "veltcwpp", "combo": "zxabsent", "id": ABSENT},
        {"product": "veltExtHost", "combo": "PluginMgr", "id": OWN},
        {"product": "veltcwpp", "combo": "zxpmaint", "id": MAINT}]
PCID_TEXT = "|".join("%s,%s,%d" % (entry["product"], entry["combo"], entry["id"]) for entry in PCID)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def answers(port):
    with socket.socket() as probe:
        probe.settimeout(1)
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Certificates:
    """A CA of its own, a server certificate for 127.0.0.1, and client certificates."""

    def __init__(self, folder):
        self.folder = folder
        os.makedirs(folder, mode=0o700)
        self._openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days",
                      CERTIFICATE_DAYS, "-subj", "/CN=zxagent demo CA", "-keyout", self.path("ca.key"),
                      "-out", self.path("ca.pem"))
        self.issue("server", "127.0.0.1", "subjectAltName=IP:127.0.0.1,DNS:localhost")
        self.issue("zxcloudd", "zxcloudd", "extendedKeyUsage=clientAuth")
        self.issue("agent", "demo-agent", "extendedKeyUsage=clientAuth")

    def path(self, name):
        return os.path.join(self.folder, name)

    def issue(self, name, common_name, extension):
        with open(self.path(name + ".ext"), "w", encoding="ascii") as text:
            text.write(extension + "\n")
        self._openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
                      "/CN=" + common_name, "-keyout", self.path(name + ".key"), "-out", self.path(name + ".csr"))
        self._openssl("x509", "-req", "-in", self.path(name + ".csr"), "-CA", self.path("ca.pem"), "-CAkey",
                      self.path("ca.key"), "-CAcreateserial", "-days", CERTIFICATE_DAYS, "-extfile",
                      self.path(name + ".ext"), "-out", self.path(name + ".pem"))

    @staticmethod
    def _openssl(*arguments):
        done = subprocess.run(["openssl", *arguments], capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise StepFailed("openssl " + arguments[0] + ": " + done.stderr.strip())


class Broker:
    """mosquitto with TLS, client certificates and one rule per topic; a machine reaches only its own topics."""

    def __init__(self, folder, certificates):
        self.folder = folder
        self.certificates = certificates
        self.port = 0
        self.child = None
        os.makedirs(folder, mode=0o700)

    def start(self):
        with open(os.path.join(self.folder, "acl"), "w", encoding="ascii") as text:
            text.write("user zxcloudd\ntopic read zx/v1/+/up/+\ntopic read zx/v1/+/status\n"
                       "topic write zx/v1/+/push/+\n\n"
                       "user demo-agent\ntopic write zx/v1/+/up/+\n\n"
                       "pattern read zx/v1/%c/push/+\npattern write zx/v1/%c/status\n")
        os.chmod(os.path.join(self.folder, "acl"), 0o600)
        program = shutil.which("mosquitto") or "/usr/sbin/mosquitto"
        for _ in range(5):
            self.port = free_port()
            self._write_config()
            self.child = Child("mosquitto", [program, "-c", os.path.join(self.folder, "mosquitto.conf")],
                               os.path.join(self.folder, "mosquitto.log"))
            if wait_for(lambda: not self.child.running() or answers(self.port), 60) and self.child.running():
                return
            self.child.stop()
        raise StepFailed("the broker does not start")

    def _write_config(self):
        lines = ["listener %d 127.0.0.1" % self.port,
                 "cafile " + self.certificates.path("ca.pem"),
                 "certfile " + self.certificates.path("server.pem"),
                 "keyfile " + self.certificates.path("server.key"),
                 "require_certificate true", "use_identity_as_username true", "allow_anonymous false",
                 "acl_file " + os.path.join(self.folder, "acl"),
                 "set_tcp_nodelay true", "max_queued_messages 100000", "max_inflight_messages 100",
                 "max_packet_size 10485760",
                 "persistence true", "persistence_location " + self.folder + "/"]
        if os.geteuid() == 0:
            lines.append("user root")  # else it changes to a user that cannot read this folder
        with open(os.path.join(self.folder, "mosquitto.conf"), "w", encoding="ascii") as text:
            text.write("\n".join(lines) + "\n")


class Cloud:
    """zxcloudd and its operator interface."""

    def __init__(self, folder, programs, certificates, broker):
        self.folder = folder
        self.programs = programs
        self.certificates = certificates
        self.broker = broker
        self.state = os.path.join(folder, "state")
        self.child = None
        os.makedirs(folder, mode=0o700)

    def start(self):
        address = "127.0.0.1:%d" % self.broker.port
        path = self.certificates.path
        config = {
            "state_dir": self.state,
            "agent": {"listen": "127.0.0.1:0", "cert_file": path("server.pem"), "key_file": path("server.key"),
                      "client_ca_file": path("ca.pem"), "idle_sec": 2},
            "operator": {"listen": "127.0.0.1:0"},
            "broker": {"addresses": address, "ca_file": path("ca.pem"), "cert_file": path("zxcloudd.pem"),
                       "key_file": path("zxcloudd.key")},
            "tconf": {"pcid": PCID, "long": address, "spread_sec": 1},
            "poll": {"period_sec": 60},
        }
        config_file = os.path.join(self.folder, "zxcloudd.json")
        with open(config_file, "w", encoding="ascii") as text:
            json.dump(config, text, indent=1)
        self.child = Child("zxcloudd", [os.path.join(self.programs, "zxcloudd"), "--config", config_file],
                           os.path.join(self.folder, "zxcloudd.log"))
        run_file = os.path.join(self.state, "zxcloudd.json")
        if not wait_for(lambda: not self.child.running() or os.path.exists(run_file), 60) or not self.child.running():
            raise StepFailed("zxcloudd does not start")
        if not wait_for(lambda: self.status().get("broker_connected") is True, 60):
            raise StepFailed("zxcloudd does not reach the broker")

    def agent_address(self):
        with open(os.path.join(self.state, "zxcloudd.json"), encoding="utf-8") as text:
            return json.load(text)["agent_url"].split("//", 1)[1]

    def zxctl_command(self):
        return [os.path.join(self.programs, "zxctl"), "--run", self.state]

    def zxctl(self, *arguments):
        """Exit code and output of zxctl."""
        done = subprocess.run(self.zxctl_command() + list(arguments), capture_output=True, text=True, check=False,
                              timeout=120)
        return done.returncode, done.stdout, done.stderr

    def ask(self, *arguments):
        """What zxctl --json answers; None when it fails."""
        code, output, _ = self.zxctl("--json", *arguments)
        try:
            return json.loads(output) if code == 0 or output else None
        except ValueError:
            return None

    def status(self):
        return self.ask("cloud") or {}

    def agents(self):
        return (self.ask("agents") or {}).get("agents", [])

    def agent(self, mid):
        return next((agent for agent in self.agents() if agent["mid"] == mid), None)

    def push(self, mid, command_id, business, command, via, param=None):
        arguments = ["push", "--mid", mid, "--pcid", str(business), "--command", command, "--id", command_id,
                     "--via", via]
        if param is not None:
            arguments += ["--param", json.dumps(param)]
        code, _, error = self.zxctl(*arguments)
        if code != 0:
            raise StepFailed("zxctl push: " + error.strip())

    def wait_finished(self, command_id, seconds, states=("acked", "refused", "expired")):
        """The command as the cloud's database has it, once it is in one of the states."""
        deadline = time.monotonic() + seconds
        while True:
            trace = self.ask("trace", command_id)
            command = trace["commands"][0] if trace else None
            if command and command["state"] in states:
                return command
            if time.monotonic() > deadline:
                state = command["state"] if command else "unknown to the cloud"
                raise StepFailed("%s is not acknowledged within %d s, state %s" % (command_id, seconds, state))
            time.sleep(0.05)

    def wait_upload(self, seconds, wanted, *which):
        """The first upload for which wanted(row, body) holds; None when none comes in time. which: as for zxctl uploads."""
        found = []
        seen = set()

        def check():
            rows = (self.ask("uploads", "--max", "200", *which) or {}).get("uploads", [])
            for row in (row for row in rows if row["seq"] not in seen):
                code, body, _ = self.zxctl("upload", str(row["seq"]), "--body")
                if code != 0:
                    continue
                seen.add(row["seq"])
                if wanted(row, body):
                    found.append((row, body))
            return bool(found)
        return found[0] if wait_for(check, seconds, 0.1) else None

    def hops(self, command_id, home):
        trace = self.ask("trace", command_id, "--home", home)
        if not trace:
            raise StepFailed("zxctl trace %s fails" % command_id)
        return trace["hops"]
