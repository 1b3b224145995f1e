"""What the conservation test runs: broker, zxcloudd, a sender on libzxcloud, links between them, and their disks."""
import errno
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import time
import urllib.error
import urllib.request

from processes import StepFailed, wait_for
from proxy import Proxy

MID = "conservation-machine"
CERTIFICATE_DAYS = 20
RETRY_MAX_SEC = 5
CLOCK_SLACK = 86400 * 5


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def answers(port):
    with socket.socket() as probe:
        probe.settimeout(1)
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Clock:
    """The wall clock of one program, beside the machine's by a number of seconds that may change at any time."""

    def __init__(self, file, library):
        self.file = file
        self.shim = library
        self.set(0)

    def set(self, seconds):
        with open(self.file, "r+b" if os.path.exists(self.file) else "wb") as text:
            text.write(struct.pack("=q", seconds))

    def environment(self):
        if not self.shim:
            return {}
        return {"LD_PRELOAD": self.shim, "ZX_CLOCK_FILE": self.file}


class Disk:
    """A small tmpfs; fill() leaves no room on it."""

    def __init__(self, folder, megabytes):
        self.folder = folder
        os.makedirs(folder, mode=0o700, exist_ok=True)
        done = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=%dm,mode=0700" % megabytes, "tmpfs", folder],
                              capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise StepFailed("mount: " + done.stderr.strip())
        self.ballast = os.path.join(folder, "ballast")

    def fill(self):
        with open(self.ballast, "ab", buffering=0) as ballast:
            for size in (1 << 20, 1 << 12, 1):
                try:
                    while True:
                        ballast.write(b"x" * size)
                except OSError as error:
                    if error.errno != errno.ENOSPC:
                        raise

    def free(self):
        if os.path.exists(self.ballast):
            os.unlink(self.ballast)


def make_certificates(folder, library):
    """Valid for some days before and behind now, so that a clock may jump."""
    os.makedirs(folder, mode=0o700)
    clock = Clock(os.path.join(folder, "clock"), library)
    clock.set(-CLOCK_SLACK if library else 0)

    def openssl(*arguments):
        done = subprocess.run(["openssl", *arguments], capture_output=True, text=True, check=False, cwd=folder,
                              env={**os.environ, **clock.environment()})
        if done.returncode != 0:
            raise StepFailed("openssl " + arguments[0] + ": " + done.stderr.strip())
    days = str(CERTIFICATE_DAYS)
    openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", days,
            "-subj", "/CN=test CA", "-keyout", "ca.key", "-out", "ca.pem")
    with open(os.path.join(folder, "server.ext"), "w", encoding="ascii") as text:
        text.write("subjectAltName=IP:127.0.0.1\n")
    openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=127.0.0.1",
            "-keyout", "server.key", "-out", "server.csr")
    openssl("x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial", "-days",
            days, "-extfile", "server.ext", "-out", "server.pem")


class Program:
    """A program that is killed and started again on the same state."""

    def __init__(self, name, log_file):
        self.name = name
        self.log_file = log_file
        self.child = None

    def arguments(self):
        raise NotImplementedError

    def environment(self):
        return {}

    def ready(self):
        return True

    def start(self):
        # Not tied to the life of the thread that starts it; the private process namespace ends what is left.
        with open(self.log_file, "ab") as log:
            self.child = subprocess.Popen(self.arguments(), stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                          start_new_session=True, env={**os.environ, **self.environment()})

    def running(self):
        return self.child is not None and self.child.poll() is None

    def await_ready(self, seconds):
        """A program that ends at once, for instance on a disk that is full at that moment, is started again as a service manager
        would."""
        deadline = time.monotonic() + seconds
        while not wait_for(lambda: not self.running() or self.ready(), max(0, deadline - time.monotonic())) or not self.running():
            if time.monotonic() >= deadline or self.running():
                raise StepFailed(self.name + " does not start, see " + self.log_file)
            time.sleep(0.2)
            self.start()

    def kill(self):
        if self.running():
            self.child.send_signal(signal.SIGKILL)
            self.child.wait()

    def check_alive(self):
        if not self.running():
            raise StepFailed("%s ended by itself with code %s, see %s"
                             % (self.name, self.child.returncode, self.log_file))


class Mosquitto(Program):
    def __init__(self, folder, certificates):
        super().__init__("mosquitto", os.path.join(folder, "broker.log"))
        os.makedirs(os.path.join(folder, "broker"), mode=0o700)
        self.port = free_port()
        self.config = os.path.join(folder, "broker", "mosquitto.conf")
        lines = ["listener %d 127.0.0.1" % self.port, "cafile %s/ca.pem" % certificates,
                 "certfile %s/server.pem" % certificates, "keyfile %s/server.key" % certificates,
                 "allow_anonymous true", "set_tcp_nodelay true", "max_queued_messages 100000",
                 "max_inflight_messages 100", "persistence true",
                 "persistence_location %s/broker/" % folder, "autosave_on_changes true", "autosave_interval 1"]
        if os.geteuid() == 0:
            lines.append("user root")
        with open(self.config, "w", encoding="ascii") as text:
            text.write("\n".join(lines) + "\n")

    def arguments(self):
        return [shutil.which("mosquitto") or "/usr/sbin/mosquitto", "-c", self.config]

    def ready(self):
        return answers(self.port)


class Nats(Program):
    """nats-server as an MQTT broker; a publish is acknowledged when its stream has it."""

    def __init__(self, folder, certificates):
        super().__init__("nats-server", os.path.join(folder, "broker.log"))
        self.port = free_port()
        self.config = os.path.join(folder, "nats.conf")
        with open(self.config, "w", encoding="ascii") as text:
            text.write("server_name: conservation\nlisten: 127.0.0.1:%d\n"
                       "jetstream { store_dir: \"%s/nats\" }\n"
                       "mqtt { listen: \"127.0.0.1:%d\", max_ack_pending: 1000, "
                       "tls { cert_file: \"%s/server.pem\", key_file: \"%s/server.key\" } }\n"
                       % (free_port(), folder, self.port, certificates, certificates))

    def arguments(self):
        return [shutil.which("nats-server") or "/usr/sbin/nats-server", "-c", self.config]

    def ready(self):
        return answers(self.port)


class Cloud(Program):
    """zxcloudd on a small disk of its own, and what its operators are told."""

    def __init__(self, folder, program, certificates, broker_port, confirm, clock, disk):
        super().__init__("zxcloudd", os.path.join(folder, "cloud.log"))
        self.program = program
        self.clock = clock
        self.state = os.path.join(disk.folder, "state")
        self.port = free_port()
        self.operator_port = free_port()
        self.config = os.path.join(folder, "cloud.json")
        self.broker_port = broker_port
        self.certificates = certificates
        self.confirm = confirm
        self.token = ""

    def configure(self, short, long):
        tconf = {"pcid": [{"product": "veltcwpp", "combo": "zxsample", "id": 1001}], "short": short, "long": long,
                 "spread_sec": 1, "retry_max_sec": RETRY_MAX_SEC, "keepalive_sec": 10}
        if self.confirm:
            tconf["confirm"] = True
        config = {
            "state_dir": self.state,
            "agent": {"listen": "127.0.0.1:%d" % self.port, "cert_file": self.certificates + "/server.pem",
                      "key_file": self.certificates + "/server.key", "idle_sec": 2},
            "operator": {"listen": "127.0.0.1:%d" % self.operator_port},
            "broker": {"addresses": "127.0.0.1:%d" % self.broker_port, "ca_file": self.certificates + "/ca.pem",
                       "keepalive_sec": 5},
            "tconf": tconf,
            # The oracle reads bodies while they are kept; ids are known for the whole run.
            "limits": {"uploads_per_agent": 20000, "upload_bytes_per_agent": 32 << 20,
                       "upload_ids_per_agent": 10000000},
        }
        with open(self.config, "w", encoding="ascii") as text:
            json.dump(config, text, indent=1)

    def arguments(self):
        return [self.program, "--config", self.config]

    def environment(self):
        return self.clock.environment()

    def ask(self, path):
        """What the operator interface answers; None when it does not."""
        try:
            if not self.token:
                with open(os.path.join(self.state, "operator.token"), encoding="ascii") as text:
                    self.token = text.read().strip()
            request = urllib.request.Request("http://127.0.0.1:%d%s" % (self.operator_port, path),
                                             headers={"Authorization": "Bearer " + self.token})
            with urllib.request.urlopen(request, timeout=10) as answer:
                return json.loads(answer.read())
        except (OSError, ValueError, urllib.error.URLError):
            return None

    def ready(self):
        # Operators are answered a moment before it is known whether the start succeeds.
        said = b"[%d:%d] zxcloudd ready " % (self.child.pid, self.child.pid)
        with open(self.log_file, "rb") as text:
            text.seek(max(0, os.path.getsize(self.log_file) - 65536))
            return said in text.read() and self.ask("/op/v1/status") is not None


class Sender(Program):
    def __init__(self, folder, program, certificates, clock, disk, options):
        super().__init__("zxsender", os.path.join(folder, "sender.log"))
        self.program = program
        self.clock = clock
        self.accepted_file = os.path.join(folder, "accepted")
        self.options = options
        home = os.path.join(folder, "home")
        self.config = os.path.join(home, "etc/zxagent/inner/zxagent.json")
        os.makedirs(os.path.dirname(self.config), mode=0o700)
        self.certificates = certificates
        self.spool = os.path.join(disk.folder, "zxcloud.db")
        open(self.accepted_file, "ab").close()

    def configure(self, tconf):
        with open(self.config, "w", encoding="ascii") as text:
            json.dump({"tconf": {"tconf_url": tconf},
                       "zxcloudconf": {"ca_file": self.certificates + "/ca.pem", "db_path": self.spool, "retry_max_sec": RETRY_MAX_SEC}}, text)

    def arguments(self):
        return [self.program, "--config", self.config, "--mid", MID, "--log", self.accepted_file, *self.options]

    def environment(self):
        return self.clock.environment()

    def quiet(self, seconds):
        """No new work from here on; what is spooled still goes out."""
        self.child.send_signal(signal.SIGTERM)
        return wait_for(lambda: not self.running() or self._said_quiet(), seconds)

    def _said_quiet(self):
        with open(self.log_file, "rb") as text:
            text.seek(max(0, os.path.getsize(self.log_file) - 65536))
            return b" quiet\n" in text.read()


def make_links(broker, cloud):
    """Every connection goes through a link that can be cut."""
    return {"machine-broker": Proxy(broker.port), "machine-cloud": Proxy(cloud.port),
            "cloud-broker": Proxy(broker.port)}


def monotonic_ms():
    return int(time.clock_gettime(time.CLOCK_MONOTONIC) * 1000)
