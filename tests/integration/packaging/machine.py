"""A machine for the package: a directory of its own that dpkg installs into."""
import os
import shutil
import subprocess

HOME = "opt/zxagent"
USERS = ("zxbus", "zxtaskmgr", "zxlogcache", "zxsample")


def has_tools():
    return shutil.which("dpkg-deb") is not None and shutil.which("dpkg-shlibdeps") is not None


def run(*command, **more):
    done = subprocess.run(command, capture_output=True, text=True, check=False, **more)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(command)}: {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def text_of(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def build_package(source, build, folder):
    """The package's file, made of a finished build tree."""
    return run(f"{source}/packaging/deb/build", build, folder, env=dict(os.environ, ZX_DEB_COMPRESS="none")).strip()


class Machine:
    def __init__(self, root):
        self.root = root
        for folder in ("var/lib/dpkg/info", "var/lib/dpkg/updates", "etc", "usr/bin"):
            os.makedirs(f"{root}/{folder}")
        for name in ("status", "available"):
            open(f"{root}/var/lib/dpkg/{name}", "w", encoding="utf-8").close()
        for name, line in (("passwd", "root:x:0:0:root:/root:/bin/sh\n"), ("group", "root:x:0:\n")):
            with open(f"{root}/etc/{name}", "w", encoding="utf-8") as table:
                table.write(line)

    def dpkg(self, *arguments):
        return run("dpkg", f"--root={self.root}", "--force-depends", "--force-script-chrootless", "--force-not-root",
                   *arguments, env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"))

    def path(self, relative):
        return f"{self.root}/{relative}"

    def text(self, relative):
        return text_of(self.path(relative))

    def enabled(self):
        """Names of the units that start by themselves."""
        names = []
        for folder, _, links in os.walk(self.path("etc/systemd/system")):
            names += [link for link in links if os.path.islink(os.path.join(folder, link))]
        return sorted(names)
