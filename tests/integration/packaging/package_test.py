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

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from machine import HOME, USERS, Machine, build_package, has_tools, run, text_of   # noqa: E402

SOURCE, BUILD = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.mkdtemp(prefix="zxpackage.")
        cls.deb = build_package(SOURCE, BUILD, cls.work)
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

    def test_components_are_processes(self):
        users = {line.split()[1] for line in text_of(f"{SOURCE}/packaging/systemd/zxagent.sysusers").splitlines()
                 if line.startswith("u ")}
        self.assertEqual(users, set(USERS))
        etc = f"{self.work}/processes"
        run("dpkg-deb", "-x", self.deb, etc)
        etc = f"{etc}/{HOME}/etc"
        host = json.loads(text_of(f"{etc}/zxhost.json"))
        in_process = {plugin["guid"] for plugin in host["plugins"]}
        self.assertEqual([plugin["name"] for plugin in host["plugins"]], ["zxagent"])
        names = sorted(os.listdir(f"{etc}/coms/client"))
        self.assertEqual(names, ["zxlogcache", "zxsample", "zxtaskmgr"])
        for name in names:
            manifest = json.loads(text_of(f"{etc}/coms/client/{name}/config.json"))
            bus = manifest.pop("bus")
            self.assertEqual(bus["user"], name)
            self.assertIn(bus["user"], users)
            self.assertNotIn(manifest["plugins"][0]["id"], in_process)
            self.assertIn(f"{HOME}/bin/{name}", self.files)
            # The tree has the same component in the host's process.
            self.assertEqual(json.loads(text_of(f"{SOURCE}/packaging/etc/coms/client/{name}/config.json")), manifest)

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

    def test_installs_upgrades_and_purges(self):
        if os.geteuid() != 0:
            self.skipTest("needs root: files get owners")
        machine = Machine(f"{self.work}/machine")
        machine.dpkg("-i", self.deb)
        for name in USERS:
            self.assertRegex(machine.text("etc/passwd"), rf"(?m)^{name}:.*nologin$")
        self.assertEqual(json.loads(machine.text(f"{HOME}/etc/zxagent/zxagent.json"))["tconf"]["tconf_url"],
                         "cloud.example.invalid:443")
        self.assertEqual(stat.S_IMODE(os.stat(machine.path(f"{HOME}/log")).st_mode), 0o700)
        # What the agent and the administrator have changed survives the next installation.
        with open(machine.path(f"{HOME}/etc/zxagent/zxagent.json"), "w", encoding="utf-8") as config:
            config.write('{"tconf": {"tconf_url": "cloud.example.org:443"}}')
        with open(machine.path(f"{HOME}/etc/zxhost.json"), "a", encoding="utf-8") as config:
            config.write("\n")
        machine.dpkg("-i", self.deb)
        self.assertIn("cloud.example.org", machine.text(f"{HOME}/etc/zxagent/zxagent.json"))
        self.assertTrue(machine.text(f"{HOME}/etc/zxhost.json").endswith("\n\n"))
        machine.dpkg("-r", "zxagent")
        self.assertTrue(os.path.exists(machine.path(f"{HOME}/etc/zxhost.json")))
        self.assertFalse(os.path.exists(machine.path(f"{HOME}/bin/zxhost")))
        machine.dpkg("-P", "zxagent")
        for path in (HOME, "var/lib/zxagent", "var/log/zxagent"):
            self.assertFalse(os.path.exists(machine.path(path)), path)

    def test_units_start_by_themselves_until_told_otherwise(self):
        if os.geteuid() != 0 or shutil.which("systemctl") is None:
            self.skipTest("needs root and systemctl")
        machine = Machine(f"{self.work}/enabled")
        machine.dpkg("-i", self.deb)
        all_units = ["zxagent-component@zxlogcache.service", "zxagent-component@zxsample.service",
                     "zxagent-component@zxtaskmgr.service", "zxagent.service"]
        self.assertEqual(machine.enabled(), all_units)
        run("systemctl", f"--root={machine.root}", "disable", "--quiet", "zxagent-component@zxsample.service")
        kept = [unit for unit in all_units if "zxsample" not in unit]
        self.assertEqual(machine.enabled(), kept)
        machine.dpkg("-i", self.deb)
        self.assertEqual(machine.enabled(), kept)
        machine.dpkg("-r", "zxagent")
        machine.dpkg("-i", self.deb)
        self.assertEqual(machine.enabled(), kept)
        machine.dpkg("-P", "zxagent")
        self.assertEqual(machine.enabled(), [])
        machine.dpkg("-i", self.deb)
        self.assertEqual(machine.enabled(), all_units)


if __name__ == "__main__":
    if not has_tools():
        print("dpkg-deb or dpkg-shlibdeps is not on this machine")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
