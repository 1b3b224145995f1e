"""The machine's half of the demo: a private copy of the installed home, and zxhost on it."""
import glob
import json
import os
import shutil
import subprocess

from componentside import Components
from processes import Child, StepFailed, wait_for

# In a mount namespace of its own the host sees copies of /etc and of the older agent's folder. They live in a
# memory file system that goes away with the namespace, so that nothing of the machine is changed or left behind.
PRIVATE_MOUNTS = r"""
set -e
scratch=$1; shift
mount -t tmpfs -o mode=0755 zxdemo "$scratch"
for place in /etc /var/zxcwpp; do
  [ -d "$place" ] || continue
  mkdir -p "$scratch$place"
  cp -a "$place/." "$scratch$place/" 2>/dev/null || true
  mount --bind "$scratch$place" "$place"
done
exec "$@"
"""

CONNECTION_MODE = "etc/zxagent/inner/termconnect.json"


def isolation():
    """The command words that put a program into namespaces of its own; None when the system allows neither."""
    ways = [["unshare", "--mount", "--propagation", "private"]]
    if os.geteuid() != 0:
        ways = [["unshare", "--user", "--map-root-user", "--mount", "--propagation", "private"]]
    for way in ways:
        probe = way + ["sh", "-c", "mount -t tmpfs zxdemo /mnt"]
        if subprocess.run(probe, capture_output=True, check=False).returncode == 0:
            return way
    return None


class Agent:
    """One home with its host process."""

    def __init__(self, template, folder, certificates):
        self.home = os.path.join(folder, "home")
        self.scratch = os.path.join(folder, "private")
        self.isolation = isolation()
        self.child = None
        os.makedirs(self.scratch)
        shutil.copytree(template, self.home, symlinks=True, ignore=shutil.ignore_patterns("log", "run"))
        os.makedirs(self.path("log"), exist_ok=True)
        os.makedirs(self.path("etc/certs"), exist_ok=True)
        for source, target in (("ca.pem", "ca.pem"), ("agent.pem", "agent.pem"), ("agent.key", "agent.key")):
            shutil.copyfile(certificates.path(source), self.path("etc/certs/" + target))
        os.chmod(self.path("etc/certs/agent.key"), 0o600)
        os.chmod(folder, 0o711)  # components of other users pass through; keys and states have folders of their own
        self.components = Components(self.home)

    def path(self, relative):
        return os.path.join(self.home, relative)

    def deploy(self, cloud_address):
        """The deployment file that an installer would leave: where the cloud is and whom to trust."""
        deployment = {
            "tconf": {"tconf_url": cloud_address},
            "scanconf": {"scanconf_url": ""},
            "zxagent": {"channel": "h_home", "pin": "demo"},
            "zxcloudconf": {"ca_file": "etc/certs/ca.pem", "cert_file": "etc/certs/agent.pem",
                            "key_file": "etc/certs/agent.key"},
        }
        os.makedirs(self.path("etc/zxagent"), exist_ok=True)
        with open(self.path("etc/zxagent/zxagent.json"), "w", encoding="ascii") as text:
            json.dump(deployment, text, indent=1)

    def start(self):
        arguments = [self.path("bin/zxhost"), "--home", self.home]
        if self.isolation is not None:
            arguments = self.isolation + ["sh", "-c", PRIVATE_MOUNTS, "zxdemo", self.scratch] + arguments
        self.child = Child("zxhost", arguments, os.path.join(os.path.dirname(self.home), "zxhost.out"))

    def stop(self):
        child, self.child = self.child, None
        if child is None:
            return
        if not child.stop(70):
            raise StepFailed("zxhost does not end when asked to")
        if child.process.returncode != 0:
            raise StepFailed("zxhost ended with %d" % child.process.returncode)

    def read(self, relative):
        try:
            with open(self.path(relative), encoding="utf-8", errors="replace") as text:
                return text.read()
        except OSError:
            return None

    def wait_file(self, relative, condition, seconds):
        """The file's text once the condition holds for it; None when it does not in time."""
        found = []

        def check():
            text = self.read(relative)
            if text is not None and condition(text):
                found.append(text)
            return bool(found)
        return found[0] if wait_for(check, seconds) else None

    def logs(self):
        return sorted(glob.glob(self.path("log/*.log")))
