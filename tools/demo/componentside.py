"""The components of the demo as processes of their own; as root each as a user of its own."""
import json
import os
import pwd

from processes import Child, StepFailed, wait_for

# Name, GUID, user, message types that it sends. Users that every Debian has: nothing is added to the machine.
COMPONENTS = [
    ("zxsample", "5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D", "games", []),
    ("zxtaskmgr", "FAB922A8-736E-4CB5-A666-4FD849A3049A", "uucp", [20001, 20204]),
    ("zxlogcache", "9946467F-0102-46E8-ACAC-B9EFE3CD68FD", "news", [20002]),
]


def users_of_their_own():
    """Whether each component can get a user of its own: only root can give them, and they must exist."""
    try:
        return os.geteuid() == 0 and all(pwd.getpwnam(user) for _, _, user, _ in COMPONENTS)
    except KeyError:
        return False


def log_of(name):
    """The agent has a log called zxlogcache already."""
    return "zxlogforward" if name == "zxlogcache" else name


class Components:
    """Prepares a home so that its components run beside the host, and runs them."""

    def __init__(self, home):
        self.home = home
        self.own_users = users_of_their_own()
        self.children = []
        self._host_without_them()
        for name, guid, user, send in COMPONENTS:
            self._manifest(name, guid, user if self.own_users else pwd.getpwuid(os.geteuid()).pw_name, send)
            self._folders(name, user)

    def path(self, relative):
        return os.path.join(self.home, relative)

    def _host_without_them(self):
        with open(self.path("etc/zxhost.json"), encoding="utf-8") as text:
            config = json.load(text)
        guids = {guid for _, guid, _, _ in COMPONENTS}
        config["plugins"] = [plugin for plugin in config["plugins"] if plugin["guid"] not in guids]
        with open(self.path("etc/zxhost.json"), "w", encoding="utf-8") as text:
            json.dump(config, text, indent=1)

    def _manifest(self, name, guid, user, send):
        folder = self.path("etc/coms/client/" + name)
        os.makedirs(folder, exist_ok=True)
        manifest = {"plugins": [{"id": guid, "uuid": guid.lower(), "product": "veltcwpp", "combo": name, "version": "0.1.0",
                                 "name": name}], "bus": {"user": user, "send": send}}
        with open(os.path.join(folder, "config.json"), "w", encoding="ascii") as text:
            json.dump(manifest, text, indent=1)

    def _folders(self, name, user):
        """What it writes stands below one folder of its own; its log can be found where the others are."""
        folder = self.path("data/%s" % name)
        os.makedirs(os.path.join(folder, "log"))
        os.symlink("../data/%s/log/%s.log" % (name, log_of(name)), self.path("log/%s.log" % log_of(name)))
        if self.own_users:
            entry = pwd.getpwnam(user)
            for path in (folder, os.path.join(folder, "log")):
                os.chown(path, entry.pw_uid, entry.pw_gid)

    def start(self):
        for name, _, user, _ in COMPONENTS:
            account = pwd.getpwnam(user) if self.own_users else None
            self.children.append(Child(name, [self.path("bin/" + name), "--home", self.home],
                                       os.path.join(os.path.dirname(self.home), name + ".out"),
                                       {"ZX_LOG_DIR": self.path("data/%s/log" % name)}, account))

    def wait_joined(self, seconds):
        """Until each of them is on the bus."""
        for child in self.children:
            if not wait_for(lambda: self._says(child.name, "component bus is there"), seconds):
                raise StepFailed("%s is not on the bus" % child.name)

    def _says(self, name, words):
        try:
            with open(self.path("log/%s.log" % log_of(name)), encoding="utf-8", errors="replace") as text:
                return words in text.read()
        except OSError:
            return False

    def stop(self):
        children, self.children = self.children, []
        for child in children:
            if not child.running():
                raise StepFailed("%s ended by itself with %d" % (child.name, child.process.returncode))
            if not child.stop() or child.process.returncode != 0:
                raise StepFailed("%s ended with %s" % (child.name, child.process.returncode))

    def describe(self):
        if not self.own_users:
            return "all as this user"
        return ", ".join("%s as %s" % (name, user) for name, _, user, _ in COMPONENTS)
