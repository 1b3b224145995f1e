"""A reference row for the cloud link: rsyslog over RELP with TLS, a window of 1024 and a queue, 1 KB lines."""
import os
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools", "demo"))

from cloudside import Certificates, answers, free_port   # noqa: E402
from processes import Child, StepFailed, wait_for   # noqa: E402

LINES = 100000
LINE_BYTES = 1024
MODULES = ("/usr/lib/x86_64-linux-gnu/rsyslog", "/usr/lib/aarch64-linux-gnu/rsyslog", "/usr/lib/rsyslog")


def program():
    return shutil.which("rsyslogd") or ("/usr/sbin/rsyslogd" if os.path.exists("/usr/sbin/rsyslogd") else None)


def ready():
    return program() is not None and any(os.path.exists(os.path.join(path, "omrelp.so")) for path in MODULES)


def install():
    """rsyslog is needed for this row only, so it is fetched when somebody asks for the row."""
    if os.geteuid() != 0:
        return
    environment = {**os.environ, "DEBIAN_FRONTEND": "noninteractive"}
    subprocess.run(["apt-get", "install", "-y", "--no-install-recommends", "rsyslog", "rsyslog-relp"],
                   check=False, capture_output=True, env=environment)


def write(path, text):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


def receiver_config(folder, port, certificates):
    return f"""
global(workDirectory="{folder}" maxMessageSize="64k")
module(load="imrelp" tls.tlslib="openssl")
template(name="line" type="string" string="%msg%\\n")
ruleset(name="store" queue.type="LinkedList" queue.size="200000") {{
  action(type="omfile" file="{folder}/received" template="line" ioBufferSize="256k" flushOnTXEnd="on")
}}
input(type="imrelp" port="{port}" ruleset="store" tls="on" tls.cacert="{certificates.path('ca.pem')}"
      tls.mycert="{certificates.path('server.pem')}" tls.myprivkey="{certificates.path('server.key')}"
      tls.authmode="certvalid")
"""


def sender_config(folder, port, certificates):
    return f"""
global(workDirectory="{folder}" maxMessageSize="64k")
module(load="imfile" mode="inotify")
module(load="omrelp" tls.tlslib="openssl")
template(name="line" type="string" string="<13>1 - - - - - - %msg%")
ruleset(name="forward" queue.type="LinkedList" queue.size="200000" queue.dequeueBatchSize="1024") {{
  action(type="omrelp" target="127.0.0.1" port="{port}" windowSize="1024" template="line" tls="on"
         tls.cacert="{certificates.path('ca.pem')}" tls.mycert="{certificates.path('agent.pem')}"
         tls.myprivkey="{certificates.path('agent.key')}" tls.authmode="certvalid")
}}
input(type="imfile" file="{folder}/lines" tag="bench" ruleset="forward")
"""


def start(name, folder, config):
    os.makedirs(folder)
    write(os.path.join(folder, "rsyslog.conf"), config)
    return Child(name, [program(), "-n", "-f", os.path.join(folder, "rsyslog.conf"), "-i",
                        os.path.join(folder, "pid")], os.path.join(folder, "out"))


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as text:
        fields = text.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def size(path):
    return os.path.getsize(path) if os.path.exists(path) else 0


def run():
    if not ready():
        install()
    if not ready():
        print("\nrsyslog with RELP is not here and cannot be installed; its row is left out")
        return
    folder = tempfile.mkdtemp(prefix="zxbench-relp-")
    children = []
    try:
        certificates = Certificates(os.path.join(folder, "certs"))
        port = free_port()
        receiving, sending = os.path.join(folder, "receiver"), os.path.join(folder, "sender")
        children.append(start("receiver", receiving, receiver_config(receiving, port, certificates)))
        if not wait_for(lambda: answers(port), 20):
            raise StepFailed("the RELP receiver does not start")
        lines = os.path.join(folder, "lines")
        write(lines, ("r" * LINE_BYTES + "\n") * LINES)
        children.append(start("sender", sending, sender_config(sending, port, certificates)))
        received = os.path.join(receiving, "received")
        time.sleep(2)
        cpu = cpu_seconds(children[1].process.pid)
        began = time.monotonic()
        os.rename(lines, os.path.join(sending, "lines"))
        whole = LINES * LINE_BYTES
        if not wait_for(lambda: size(received) >= whole, 120, 0.01):
            raise StepFailed(f"RELP delivered {size(received)} of {whole} bytes")
        seconds = time.monotonic() - began
        cpu = cpu_seconds(children[1].process.pid) - cpu
        print(f"\nrsyslog, RELP over TLS, window 1024, queue, {LINES} lines of 1 KB from a file into a file")
        print(f"  pipelined, not blocking             {LINES / seconds:12.0f} messages/s"
              f" {cpu / LINES * 1e6:9.1f} CPU us each (sender)")
    finally:
        for child in children:
            child.stop()
        shutil.rmtree(folder, ignore_errors=True)
