#!/usr/bin/python3
"""Does what docs/components.md says, with the installed tree, on a bus of its own; what the guide shows must be what happens.

usage: check_guide.py GUIDE EXAMPLE_DIR HOME_DIR WORK_DIR
The guide's blocks: "write: NAME" is a file, equal to the one in EXAMPLE_DIR; "run" is run by sh; "prints" is what the block above printed.
"""
import os
import re
import shutil
import socket
import subprocess
import sys
import time

BLOCK = re.compile(r"<!-- (write: (?P<name>[\w.]+)|run|prints) -->\n```\w*\n(?P<text>.*?)```\n", re.DOTALL)
BUS_SEND = os.path.join(os.path.dirname(os.path.realpath(__file__)), "bus_send.py")
HELLO, TASK_MANAGER, AGENT = ("0d6f1c2a7b3e4c589e215a4b3c2d1e0f", "fab922a8736e4cb5a6664fd849a3049a",
                              "abc9a772602c45f49aac7096fd9beda4")
BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>custom</type><listen>unix:path=%s</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*"/><allow send_type="signal"/>
<allow receive_type="method_call"/><allow receive_type="method_return"/><allow receive_type="error"/><allow receive_type="signal"/>
</policy></busconfig>
"""
SECONDS = 60


class Failed(Exception):
    pass


def wait_for(condition, what):
    deadline = time.monotonic() + SECONDS
    while not condition():
        if time.monotonic() > deadline:
            raise Failed("no " + what)
        time.sleep(0.02)


class Guide:
    def __init__(self, guide, example, home, work):
        with open(guide, encoding="utf-8") as text:
            self.blocks = [match for match in BLOCK.finditer(text.read())]
        self.example, self.home, self.work = example, home, work
        self.address = "unix:path=" + os.path.join(work, "bus")
        self.children = []
        self.printed = None
        self.counts = {"write": 0, "run": 0, "prints": 0}

    def start(self, *arguments):
        self.children.append(subprocess.Popen(arguments, cwd=self.work, env=self.environment()))
        return self.children[-1]

    def environment(self):
        return {**os.environ, "HOME_DIR": self.home, "ZX_BUS_ADDRESS": self.address, "BUS_SEND": BUS_SEND, "AGENT": AGENT,
                "TASK_MANAGER": TASK_MANAGER, "ZX_LOG_DIR": os.path.join(self.work, "log")}

    def start_bus(self):
        with open(os.path.join(self.work, "bus.conf"), "w", encoding="ascii") as text:
            text.write(BUS_CONFIG % os.path.join(self.work, "bus"))
        self.start("dbus-daemon", "--config-file=" + os.path.join(self.work, "bus.conf"), "--nofork", "--nopidfile", "--nosyslog")

        def answers():
            with socket.socket(socket.AF_UNIX) as probe:
                return probe.connect_ex(os.path.join(self.work, "bus")) == 0
        wait_for(answers, "bus")
        os.makedirs(os.path.join(self.work, "home"))
        self.start(os.path.join(self.home, "bin/zxtaskmgr"), "--home", os.path.join(self.work, "home"))
        self.wait_name(TASK_MANAGER)

    def wait_name(self, guid, there=True):
        name = "com.zxagent.bus1.c.g" + guid
        ask = ["gdbus", "call", "--address", self.address, "--dest", "org.freedesktop.DBus", "--object-path", "/org/freedesktop/DBus",
               "--method", "org.freedesktop.DBus.NameHasOwner", name]
        wanted = "(true,)" if there else "(false,)"
        wait_for(lambda: subprocess.run(ask, capture_output=True, text=True, check=False).stdout.strip() == wanted, "component " + name)

    def do(self, match):
        kind = match.group(1).split(":")[0]
        self.counts[kind] += 1
        text = match.group("text")
        if kind == "write":
            with open(os.path.join(self.example, match.group("name")), encoding="utf-8") as file:
                if file.read() != text:
                    raise Failed("the guide's %s is not the example's" % match.group("name"))
            with open(os.path.join(self.work, match.group("name")), "w", encoding="utf-8") as file:
                file.write(text)
        elif kind == "run":
            done = subprocess.run(["sh", "-e", "-c", text], cwd=self.work, env=self.environment(), capture_output=True, text=True, check=False)
            if done.returncode != 0:
                raise Failed("this fails:\n%s%s%s" % (text, done.stdout, done.stderr))
            self.printed = done.stdout
        elif self.printed.replace(" ", "") != text.replace(" ", ""):
            raise Failed("printed\n%sand not\n%s" % (self.printed, text))

    def run_with(self, component):
        """The guide's commands, with the component that it has built, or the Python one."""
        child = None
        for match in self.blocks:
            if child is None and "BUS_SEND" in match.group("text"):
                child = self.start(*component)
                self.wait_name(HELLO)
            self.do(match)
        child.terminate()
        if child.wait(SECONDS) != 0:
            raise Failed("%s ended with %d" % (component[0], child.returncode))
        self.wait_name(HELLO, there=False)

    def stop(self):
        for child in reversed(self.children):
            if child.poll() is None:
                child.terminate()
                child.wait(SECONDS)


def main():
    guide, example, home, work = (os.path.abspath(argument) for argument in sys.argv[1:])
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    story = Guide(guide, example, home, work)
    try:
        story.start_bus()
        story.run_with(["build/hello", "--home", os.path.join(work, "home")])
        story.run_with([sys.executable, "hello.py"])
        if min(story.counts.values()) < 4:
            raise Failed("the guide has lost its blocks: %s" % story.counts)
    except Failed as failure:
        print("check_guide: %s" % failure, file=sys.stderr)
        return 1
    finally:
        story.stop()
    print("check_guide: ok, %s" % story.counts)
    return 0


if __name__ == "__main__":
    sys.exit(main())
