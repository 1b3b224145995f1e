#!/usr/bin/python3
"""Installs the package of this build tree and runs the command lines of its units with the packaged files, each as its own
user and with the rights of its unit: do the components join, and is zxctl content? In namespaces of its own, so that
nothing of the machine is touched.

usage: units_test.py SOURCE_DIR BUILD_DIR        exit code 77: not possible on this machine
"""
import json
import os
import pwd
import shutil
import socket
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from machine import HOME, USERS, Machine, build_package, has_tools, run   # noqa: E402
from units import Service   # noqa: E402

COMPONENTS = ("zxtaskmgr", "zxlogcache", "zxsample")
LOGS = {"zxtaskmgr": "zxtaskmgr", "zxlogcache": "zxlogforward", "zxsample": "zxsample"}
SECONDS = 40
NAMESPACES = ["unshare", "--mount", "--propagation", "private", "--pid", "--fork", "--kill-child", "--mount-proc"]


def need(condition, what):
    if not condition:
        raise AssertionError(what)
    print("ok  " + what, flush=True)


def wait_for(condition):
    deadline = time.monotonic() + SECONDS
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.05)
    return True


def mount_machine(root):
    """The package's files where they belong, /etc as a copy with the package's users, everything else that is written empty."""
    etc = f"{root}/private-etc"
    subprocess.run(["cp", "-a", "/etc", etc], check=False, capture_output=True)
    run("mount", "--bind", etc, "/etc")
    for place in ("/opt", "/var/lib", "/var/log", "/run"):
        run("mount", "-t", "tmpfs", "-o", "mode=0755", "zxunits", place)
    os.makedirs(f"/{HOME}")
    run("mount", "--bind", f"{root}/{HOME}", f"/{HOME}")
    run("systemd-sysusers", f"{root}/usr/lib/sysusers.d/zxagent.conf")
    run("systemd-tmpfiles", "--create", f"{root}/usr/lib/tmpfiles.d/zxagent.conf")


def zxctl(*arguments):
    """Exit code and what zxctl says as a document."""
    done = subprocess.run([f"/{HOME}/bin/zxctl", "--json", *arguments], capture_output=True, text=True, check=False)
    try:
        return done.returncode, json.loads(done.stdout)
    except ValueError:
        return done.returncode, {}


def processes():
    """The components that are processes, by name."""
    listed = zxctl("components")[1].get("components", [])
    return {entry["name"]: entry for entry in listed if entry["kind"] == "process"}


def forwarder_takes_records():
    with socket.socket(socket.AF_UNIX) as sender:
        sender.settimeout(SECONDS)
        if not wait_for(lambda: sender.connect_ex("/run/zxagent/zxlogcache/stream.sock") == 0):
            return False
        sender.sendall(b"a record\n")
        sender.shutdown(socket.SHUT_WR)
        return b"".join(iter(lambda: sender.recv(64), b"")) == b"ok 1\n"


def identities(pid):
    """Users, groups and effective capabilities of a process as the kernel has them."""
    with open(f"/proc/{pid}/status", encoding="ascii") as text:
        lines = dict(line.rstrip("\n").split(":\t", 1) for line in text if ":\t" in line)
    return set(lines["Uid"].split()), lines["Groups"].strip(), int(lines["CapEff"], 16), int(lines["CapBnd"], 16)


def check(root, folder):
    units = f"{root}/usr/lib/systemd/system"
    host = Service(f"{units}/zxagent.service", folder)
    components = [Service(f"{units}/zxagent-component@.service", folder, name) for name in COMPONENTS]
    host.start()
    for component in components:
        component.start()
    joined = wait_for(lambda: sorted(name for name, entry in processes().items() if entry["joined"]) == sorted(COMPONENTS))
    need(joined, f"on the bus: {', '.join(COMPONENTS)}")
    for component in components:
        entry = processes()[component.name]
        account = pwd.getpwnam(component.name)
        need(entry["uid"] == account.pw_uid and entry["pid"] == component.process.pid and entry["accepted"],
             f"{component.name} is the process of user {component.name}")
        need(identities(component.process.pid) == ({str(account.pw_uid)}, "", 0, 0), f"{component.name} has no rights")
    status = zxctl("status")[1]
    need({plugin["name"]: plugin["state"] for plugin in status["plugins"]} == {"zxagent": "running"}, "the host runs the agent alone")
    need(identities(status["bus"]["daemon_pid"])[0] == {str(pwd.getpwnam("zxbus").pw_uid)}, "the bus daemon is the process of user zxbus")
    need(forwarder_takes_records(), "the forwarder keeps records that come in by /run/zxagent/zxlogcache/stream.sock")
    found = zxctl("doctor", "--offline")[1]["findings"]
    areas = ("files", "modes", "documents", "components")
    need([finding for finding in found if finding["kind"] != "ok" and finding["area"] in areas] == [],
         "zxctl doctor has nothing to say about " + ", ".join(areas))
    archive = f"{folder}/bundle.tar.gz"
    need(zxctl("bundle", archive)[0] == 0, "zxctl makes a bundle")
    names = run("tar", "-tzf", archive).split()
    wanted = {f"zxagent/log/{name}/{channel}.log" for name, channel in LOGS.items()} | {"zxagent/log/zxhost.log"}
    need(wanted <= set(names), "the bundle has the logs of host and components")
    for service in [*components, host]:
        need(service.stop(90) == 0, f"{service.name} ends as told")


def inside(root):
    folder = f"{root}/output"
    os.makedirs(folder)
    mount_machine(root)
    try:
        check(root, folder)
    except (AssertionError, KeyError) as failed:
        print(f"FAILED  {failed!r}")
        places = (folder, f"/{HOME}/log", *(f"/var/log/zxagent/{name}" for name in COMPONENTS))
        for place in places:
            for name in sorted(os.listdir(place)) if os.path.isdir(place) else []:
                with open(os.path.join(place, name), encoding="utf-8", errors="replace") as text:
                    print(f"--- {place}/{name}\n" + "".join(text.readlines()[-40:]))
        return 1
    return 0


def main():
    if sys.argv[1] == "--inside":
        return inside(sys.argv[2])
    possible = os.geteuid() == 0 and has_tools() and all(map(shutil.which, ("systemd-sysusers", "setpriv", "dbus-daemon")))
    if not possible or subprocess.run([*NAMESPACES, "mount", "-t", "tmpfs", "zxunits", "/mnt"], capture_output=True,
                                      check=False).returncode != 0:
        print("needs root, namespaces, dpkg and systemd's programs")
        return 77
    work = tempfile.mkdtemp(prefix="zxunits.")
    try:
        os.chmod(work, 0o755)
        machine = Machine(f"{work}/machine")
        machine.dpkg("-i", build_package(os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2]), work))
        need(all(f"\n{user}:" in machine.text("etc/passwd") for user in USERS), "users are made")
        return subprocess.run([*NAMESPACES, sys.executable, os.path.abspath(__file__), "--inside", machine.root],
                              check=False).returncode
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
