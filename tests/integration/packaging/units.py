"""Starts a service unit as systemd would as far as users, rights, folders and environment go, without systemd."""
import os
import pwd
import re
import subprocess


def read_unit(path, instance=""):
    """Settings of the [Service] section; a name that stands there twice has both values."""
    settings = {}
    section = ""
    with open(path, encoding="utf-8") as unit:
        for line in unit.read().replace("\\\n", " ").splitlines():
            if line.startswith("["):
                section = line
            elif section == "[Service]" and line and line[0] not in "#;":
                name, _, value = line.partition("=")
                settings.setdefault(name, []).append(value.replace("%i", instance))
    return settings


class Service:
    """One service; its folders are made on the way, for its user."""

    def __init__(self, path, log_folder, instance=""):
        self.name = instance or os.path.basename(path)
        self.settings = read_unit(path, instance)
        self.user = self.settings.get("User", ["root"])[0]
        self.environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}
        for line in self.settings.get("Environment", []):
            name, _, value = line.partition("=")
            self.environment[name] = value
        self.output = f"{log_folder}/{self.name}.out"
        self.process = None

    def folders(self):
        account = pwd.getpwnam(self.user)
        for setting, parent in (("LogsDirectory", "/var/log/"), ("RuntimeDirectory", "/run/"), ("StateDirectory", "/var/lib/")):
            for name in self.settings.get(setting, []):
                os.makedirs(parent + name, exist_ok=True)
                os.chmod(parent + name, int(self.settings.get(setting + "Mode", ["0755"])[0], 8))
                os.chown(parent + name, account.pw_uid, account.pw_gid)
                self.environment[re.sub("(?<!^)([A-Z])", r"_\1", setting).upper()] = parent + name

    def command(self):
        """The command line behind what gives up rights: capabilities, new ones by programs, users."""
        account = pwd.getpwnam(self.user)
        command = ["setpriv", "--inh-caps=-all"]
        if "CapabilityBoundingSet" in self.settings:
            kept = [name.lower().removeprefix("cap_") for name in self.settings["CapabilityBoundingSet"][0].split()]
            command.append("--bounding-set=-all" + "".join(f",+{name}" for name in kept))
        if self.settings.get("NoNewPrivileges") == ["yes"]:
            command.append("--no-new-privs")
        if self.user != "root":
            command += [f"--reuid={account.pw_uid}", f"--regid={account.pw_gid}", "--clear-groups"]
        return command + ["--"] + self.settings["ExecStart"][0].split()

    def start(self):
        self.folders()
        with open(self.output, "ab") as output:
            self.process = subprocess.Popen(self.command(), env=self.environment, stdin=subprocess.DEVNULL, stdout=output,
                                            stderr=output, cwd="/", start_new_session=True)

    def stop(self, seconds):
        """The exit code after being asked to end."""
        self.process.terminate()
        return self.process.wait(seconds)
