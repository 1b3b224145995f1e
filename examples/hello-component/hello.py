#!/usr/bin/python3
"""The same component in Python: python3-dbus and python3-gi, nothing of the agent's."""
import json
import os
import re
import signal

import dbus
import dbus.bus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

NAME = "com.zxagent.bus1.c.g%s"
GUID = "0d6f1c2a7b3e4c589e215a4b3c2d1e0f"
TASK_MANAGER = NAME % "fab922a8736e4cb5a6664fd849a3049a"
ERR_SENDER, ERR_TEXT, ERR_COMMAND = 0xB0030001, 0xB0030002, 0xB0030003
HAND_OFF = re.compile(rb"<version=1><guid=(.*?)><product=(.*?)><combo=(.*?)><command=(.*?)><msg=(.*)>", re.DOTALL)


class Hello(dbus.service.Object):
    """Takes bus type 20001; another type would be another object."""

    @dbus.service.method("com.zxagent.bus1.Component", in_signature="ay", out_signature="iuay", sender_keyword="sender")
    def Send(self, data, sender=None):
        status, answer = self.run(bytes(data), sender)
        signed = status - (1 << 32) if status >= 1 << 31 else status
        return signed, dbus.UInt32(20001), dbus.ByteArray(answer)

    def run(self, data, sender):
        # The daemon knows who is called what; a sender cannot make itself another.
        if sender != self.connection.get_name_owner(TASK_MANAGER):
            return ERR_SENDER, b""
        parts = HAND_OFF.match(data)
        if parts is None:
            return ERR_TEXT, b""
        _, _, combo, command, message = parts.groups()
        if command != b"hello":
            return ERR_COMMAND, b""
        answer = {"ID": json.loads(message)["ID"], "greeting": "Hello, " + combo.decode()}
        return 0, json.dumps(answer).encode()


def main():
    loop = GLib.MainLoop()
    bus = dbus.bus.BusConnection(os.environ["ZX_BUS_ADDRESS"], mainloop=DBusGMainLoop())
    bus.set_exit_on_disconnect(True)  # the service manager starts it again
    hello = Hello(bus, "/com/zxagent/bus1/type/20001")
    name = dbus.service.BusName(NAME % GUID, bus, do_not_queue=True)
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, loop.quit)
    loop.run()
    del hello, name


if __name__ == "__main__":
    main()
