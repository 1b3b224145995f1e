#!/usr/bin/python3
"""Sends one message on the bus at $ZX_BUS_ADDRESS: bus_send.py FROM_GUID TO_GUID TYPE TEXT (GUIDs as 32 hex digits)."""
import os
import sys

import dbus
import dbus.bus

sender, target, kind, text = sys.argv[1:]
bus = dbus.bus.BusConnection(os.environ["ZX_BUS_ADDRESS"])
bus.request_name("com.zxagent.bus1.c.g" + sender, dbus.bus.NAME_FLAG_DO_NOT_QUEUE)
status, _, answer = bus.call_blocking("com.zxagent.bus1.c.g" + target, "/com/zxagent/bus1/type/" + kind,
                                      "com.zxagent.bus1.Component", "Send", "ay", (dbus.ByteArray(text.encode()),), timeout=60)
print("status 0x%08X answer %s" % (status & 0xFFFFFFFF, bytes(answer).decode()))
