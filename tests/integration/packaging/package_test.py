#!/usr/bin/python3
"""Builds the Debian package of this build tree, installs it below a directory of its own, upgrades and purges it.

usage: package_test.py SOURCE_DIR BUILD_DIR        exit code 77: the tools are not on this machine
"""
import json
import os
import re
import shutil
import stat
import subprocess
import sys
import tempfile
import unittest

SOURCE, BUILD = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
HOME = "opt/zxagent"


def run(*command, **more):
    done = subprocess.run(command, capture_output=True, text=True, **more)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(command)}: {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def text_of(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.mkdtemp(prefix="zxpackage.")
        environment = dict(os.environ, ZX_DEB_COMPRESS="none")
        cls.deb = run(f"{SOURCE}/packaging/deb/build", BUILD, cls.work, env=environment).strip()
        # mode, owner, path of every member
        cls.files = {}
        for line in run("dpkg-deb", "-c", cls.deb).splitlines():
            mode, owner, _, _, _, path = line.split(None, 5)
            path, _, link = path.partition(" -> ")
            cls.files[path.removeprefix("./").rstrip("/")] = (mode, owner, link)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.work)

    def member(self, name):
        return run("dpkg-deb", "-I", self.deb, name)

    def test_holds_what_an_endpoint_needs(self):
        for path in ("libzxagent.so", "lib/libzxplatform.so", "lib/libzxbus.so", "lib/libzxcloud.so", "lib/libzxmid.so",
                     "lib/modules/libconfigproxy.so", "bin/zxhost", "bin/zxctl", "bin/zxpmaint", "etc/zxhost.json",
                     "etc/version.xml", "share/defaults/zxagent.json", "run", "log"):
            self.assertIn(f"{HOME}/{path}", self.files)
        for path in ("usr/lib/systemd/system/zxagent.service", "usr/lib/systemd/system/zxagent-component@.service",
                     "usr/lib/systemd/system/zxpmaint.service", "usr/lib/sysusers.d/zxagent.conf",
                     "usr/lib/tmpfiles.d/zxagent.conf"):
            self.assertIn(path, self.files)
        self.assertEqual(self.files["usr/bin/zxctl"][2], "/opt/zxagent/bin/zxctl")
        self.assertIn(f"{HOME}/" + self.files["usr/bin/zxctl"][2].removeprefix("/opt/zxagent/"), self.files)

    def test_holds_nothing_else(self):
        for path in self.files:
            self.assertNotRegex(path, r"zxcloudd|zxfleet|/include/|\.a$|\.cmake$|fake|_test")
            self.assertRegex(path, r"^(opt|opt/zxagent(/.*)?|usr(/.*)?|)$")

    def test_belongs_to_root_and_is_writable_by_nobody_else(self):
        for path, (mode, owner, link) in self.files.items():
            self.assertEqual(owner, "root/root", path)
            if not link:
                self.assertEqual((mode[5], mode[8]), ("-", "-"), f"{path} {mode}")
                self.assertNotIn("s", mode.lower(), path)
        self.assertEqual(self.files[f"{HOME}/log"][0], "drwx------")
        self.assertEqual(self.files[f"{HOME}/run"][0], "drwxr-xr-x")
        self.assertEqual(self.files[f"{HOME}/bin/zxhost"][0], "-rwxr-xr-x")

    def test_configuration_files(self):
        conffiles = self.member("conffiles").split()
        self.assertIn("/opt/zxagent/etc/zxhost.json", conffiles)
        self.assertNotIn("/opt/zxagent/etc/zxagent/zxagent.json", conffiles)   # the agent's own to change
        self.assertNotIn("/opt/zxagent/etc/version.xml", conffiles)            # says what is installed
        for path in conffiles:
            self.assertIn(path.lstrip("/"), self.files)

    def test_control(self):
        control = self.member("control")
        version = re.search(r"^Version: (.+)$", control, re.M).group(1)
        self.assertIn(f"<CurrentVer>{version}</CurrentVer>", text_of(f"{SOURCE}/packaging/etc/version.xml"))
        depends = re.search(r"^Depends: (.+)$", control, re.M).group(1)
        for package in ("dbus-daemon", "libc6", "libsystemd0", "libmosquitto1", "libcurl4"):
            self.assertIn(package, depends)
        self.assertNotIn("@", depends)

    def test_scripts_are_shell(self):
        for script in ("postinst", "prerm", "postrm"):
            run("sh", "-n", f"{SOURCE}/packaging/deb/{script}")

    def test_every_component_user_is_made(self):
        users = {line.split()[1] for line in text_of(f"{SOURCE}/packaging/systemd/zxagent.sysusers").splitlines()
                 if line.startswith("u ")}
        self.assertIn("zxbus", users)
        clients = f"{SOURCE}/packaging/etc/coms/client"
        for name in os.listdir(clients):
            bus = json.loads(text_of(f"{clients}/{name}/config.json")).get("bus")
            if bus is not None:
                self.assertIn(bus["user"], users)

    def test_no_build_path_is_left(self):
        tree = f"{self.work}/tree"
        run("dpkg-deb", "-x", self.deb, tree)
        for folder, _, names in os.walk(f"{tree}/{HOME}"):
            for name in names:
                path = f"{folder}/{name}"
                with open(path, "rb") as data:
                    content = data.read()
                if content.startswith(b"\x7fELF"):
                    dynamic = run("readelf", "-d", path)
                    for runpath in re.findall(r"R(?:UN)?PATH.*\[(.*)\]", dynamic):
                        self.assertTrue(all(part.startswith("$ORIGIN") for part in runpath.split(":")), path)
        self.assertIn("0.", run(f"{tree}/{HOME}/bin/zxhost", "--version"))

    def test_units_are_sound_and_sandboxed(self):
        if shutil.which("systemd-analyze") is None:
            self.skipTest("no systemd-analyze")
        tree = f"{self.work}/units"
        run("dpkg-deb", "-x", self.deb, tree)
        units = f"{tree}/usr/lib/systemd/system"
        for name, program, limit in (("zxagent.service", "zxhost", 3.5), ("zxpmaint.service", "zxpmaint", None),
                                     ("zxagent-component@zxsample.service", "zxsample", 2.0)):
            source = f"{units}/{re.sub('@.*[.]', '@.', name)}"
            text = text_of(source)
            self.assertIn(f"/opt/zxagent/bin/{'%i' if '@' in name else program}", text)
            # The programs are where this test has put them, and the users on this machine.
            text = text.replace("/opt/zxagent/bin/%i", "/bin/true").replace("/opt/zxagent/bin/", f"{tree}/{HOME}/bin/")
            text = text.replace("User=%i", "User=root").replace("Group=%i", "Group=root")
            checked = f"{self.work}/{name}"
            with open(checked, "w", encoding="utf-8") as unit:
                unit.write(text)
            done = subprocess.run(["systemd-analyze", "verify", "--man=no", "--recursive-errors=no", checked],
                                  capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stderr.replace("\n", "")), (0, ""), name)
            if limit is not None:
                security = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager", checked],
                                          capture_output=True, text=True)
                exposure = float(re.search(r"exposure level for .*: ([0-9.]+)", security.stdout).group(1))
                print(f"{name}: exposure {exposure}")
                self.assertLessEqual(exposure, limit, security.stdout)

    def install(self, root, *more):
        environment = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
        return run("dpkg", f"--root={root}", "--force-depends", "--force-script-chrootless", "--force-not-root",
                   *more, env=environment)

    def test_installs_upgrades_and_purges(self):
        if os.geteuid() != 0:
            self.skipTest("needs root: files get owners")
        root = f"{self.work}/machine"
        for folder in ("var/lib/dpkg/info", "var/lib/dpkg/updates", "etc", "usr/bin"):
            os.makedirs(f"{root}/{folder}")
        for name in ("status", "available"):
            open(f"{root}/var/lib/dpkg/{name}", "w", encoding="utf-8").close()
        for name in ("passwd", "group"):
            with open(f"{root}/etc/{name}", "w", encoding="utf-8") as table:
                table.write("root:x:0:0:root:/root:/bin/sh\n" if name == "passwd" else "root:x:0:\n")
        self.install(root, "-i", self.deb)
        for name in ("zxbus", "zxtaskmgr", "zxlogcache", "zxsample"):
            self.assertRegex(text_of(f"{root}/etc/passwd"), rf"(?m)^{name}:.*nologin$")
        seeded = f"{root}/{HOME}/etc/zxagent/zxagent.json"
        self.assertEqual(json.loads(text_of(seeded))["tconf"]["tconf_url"], "cloud.example.invalid:443")
        self.assertEqual(stat.S_IMODE(os.stat(f"{root}/{HOME}/log").st_mode), 0o700)
        # What the agent and the administrator have changed survives the next installation.
        with open(seeded, "w", encoding="utf-8") as config:
            config.write('{"tconf": {"tconf_url": "cloud.example.org:443"}}')
        with open(f"{root}/{HOME}/etc/zxhost.json", "a", encoding="utf-8") as config:
            config.write("\n")
        self.install(root, "-i", self.deb)
        self.assertIn("cloud.example.org", text_of(seeded))
        self.assertTrue(text_of(f"{root}/{HOME}/etc/zxhost.json").endswith("\n\n"))
        self.install(root, "-r", "zxagent")
        self.assertTrue(os.path.exists(f"{root}/{HOME}/etc/zxhost.json"))
        self.assertFalse(os.path.exists(f"{root}/{HOME}/bin/zxhost"))
        self.install(root, "-P", "zxagent")
        self.assertFalse(os.path.exists(f"{root}/{HOME}"))


if __name__ == "__main__":
    if shutil.which("dpkg-deb") is None or shutil.which("dpkg-shlibdeps") is None:
        print("dpkg-deb or dpkg-shlibdeps is not on this machine")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
