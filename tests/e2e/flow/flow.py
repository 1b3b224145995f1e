#!/usr/bin/env python3
"""One pushed command on the real parts, with the evidence of each of its steps: broker, zxcloudd, zxhost, the agent,
the task manager, the sample component, and the component's result uploaded with its outcome told.

usage: flow.py HOME
"""
import json
import os
import re
import shutil
import sys
import tempfile

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "tools", "demo"))

from agentside import Agent   # noqa: E402
from cloudside import SAMPLE, Broker, Certificates, Cloud   # noqa: E402
from processes import StepFailed, wait_for   # noqa: E402

SECONDS = 60
COMMAND_ID = "flow-1"


def need(condition, what):
    if not condition:
        raise StepFailed(what)
    print("ok  " + what, flush=True)


def line(agent, log, pattern):
    """The first line of a log that the pattern is found in, waited for."""
    found = []

    def look():
        for text in (agent.read("log/" + log) or "").splitlines():
            if re.search(pattern, text):
                found.append(text)
                return True
        return False
    wait_for(look, SECONDS)
    return found[0] if found else None


def verdict(text):
    """Id and success of a cached command; None while the copy is being written."""
    try:
        command = json.loads(text)
        return command["ID"], bool(command["Result_Agent_Taskmgr"])
    except (ValueError, KeyError):
        return None


def steps(agent, cloud, mid):
    cloud.push(mid, COMMAND_ID, SAMPLE, "disk_usage", "push", {"path": "/"})
    need(line(agent, "zxagent.log", r"ZxcloudPushmsgCallback recv iPcid\[%d\].*%s" % (SAMPLE, COMMAND_ID)),
         "1 the callback took the command")
    begin = line(agent, "zxagent.log", r"pushmsg Begin recvnew u64DataId\[[0-9a-f]+\] iPcid\[%d\]" % SAMPLE)
    need(begin, "2 the work thread numbered it")
    data_id = re.search(r"u64DataId\[([0-9a-f]+)\]", begin).group(1)
    need(line(agent, "zxagentflow.log", "^id:" + COMMAND_ID + "$"), "2 the flow log has its notification")
    need(line(agent, "zxagent.log", r"pushmsg send taskmgr Begin u64DataId\[%s\] strID\[%s\].*"
              r"strGuid\[5A3B7C1E-2D4F-4A6B-8C9D-0E1F2A3B4C5D\]" % (data_id, COMMAND_ID)),
         "3 routing found the component")
    need(line(agent, "zxagent.log", r"pushmsg send taskmgr End OK u64DataId\[%s\]" % data_id),
         "4 the task manager has it")
    need(line(agent, "zxsample.log", r"disk_usage strID\[%s\] used" % COMMAND_ID), "4 the component carried it out")
    need(agent.wait_file("data/policy/agentcache/veltcwpp_zxsample/policy/disk_usage.json",
                         lambda text: verdict(text) == (COMMAND_ID, True), SECONDS),
         "4 the policy cache keeps it with the component's success")
    need(line(agent, "zxagent.log", r"pushmsg callback OK u64DataId\[%s\]" % data_id), "5 the answer came back")
    command = cloud.wait_finished(COMMAND_ID, SECONDS)
    need(command["state"] == "acked" and command["msg_type"] == 3, "5 the cloud has the acknowledgement")
    arrived = line(agent, "zxlogcache.log", r"stepA OK DisposeTaskMgr recvnew u64DataId\[[0-9a-f]+\]")
    need(arrived, "6 the component's result arrived on the bus")
    result_id = re.search(r"u64DataId\[([0-9a-f]+)\]", arrived).group(1)
    need(line(agent, "zxlogcache.log", r"stepB ZxcloudSendMsg OK zxcloud_send_sync.*u64DataId\[%s\]" % result_id),
         "6 a worker uploaded it")
    need(line(agent, "zxlogcache.log", r"stepC OK SendTaskMgrResult send result iResult\[0\] u64DataId\[%s\]" % result_id),
         "6 its outcome went back")
    need(line(agent, "zxtaskmgr.log", r"upload result u64DataId\[%s\] iResult\[0\]" % result_id),
         "6 the task manager was told")
    need(cloud.wait_upload(SECONDS, lambda row, body: COMMAND_ID in body and "used_percent" in body, "--kind", "data"),
         "6 the cloud has the result")


def main():
    home = sys.argv[1]
    folder = tempfile.mkdtemp(prefix="zxflow-")
    certificates = Certificates(os.path.join(folder, "certs"))
    broker = Broker(os.path.join(folder, "broker"), certificates)
    cloud = Cloud(os.path.join(folder, "cloud"), os.path.join(home, "bin"), certificates, broker)
    agent = Agent(home, folder, certificates)
    try:
        broker.start()
        cloud.start()
        agent.deploy(cloud.agent_address())
        agent.start()
        agent.components.start()
        agent.components.wait_joined(SECONDS)
        if not wait_for(lambda: any(entry["online"] for entry in cloud.agents()), SECONDS):
            raise StepFailed("the agent does not connect")
        steps(agent, cloud, cloud.agents()[0]["mid"])
        agent.components.stop()
        agent.stop()
        return 0
    except StepFailed as failed:
        print("FAILED  %s" % failed)
        for log in agent.logs():
            print("--- " + log)
            with open(log, encoding="utf-8", errors="replace") as text:
                print("".join(text.readlines()[-40:]))
        return 1
    finally:
        for child in (*agent.components.children, agent.child, cloud.child, broker.child):
            if child is not None:
                child.stop()
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
