"""The part of the story that happens between the agent and the components of its machine."""
import json
import os
import socket

from cloudside import MAINT, OWN
from processes import StepFailed, wait_for

DONE_BY_AGENT = 1
DONE_BY_COMPONENT = 3
RECORDS = ["login of user demo", "disk /dev/vda is 91 % full", "payload <with=brackets>"]
ASSET_POLICY = {"open": 1, "list": [
    {"open": 1, "interval": 3600, "combo": "veltcwpp/zxsample", "task": {"scan": ["packages", "users"]}},
    {"open": 1, "interval": 7200, "combo": "veltcwpp/zxpwebassets", "task": {"ports": [80, 443]}}]}
SCRIPT = "echo maintenance on $(uname -s); exit 7\n"


class MachineStory:
    """Steps of a story; it has cloud, agent, mid, done() and limit (seconds for one step)."""

    def need(self, condition, text):
        if not condition:
            raise StepFailed(text)
        return condition

    def own_command(self, command_id, command, param, msg_types=(DONE_BY_AGENT,)):
        self.cloud.push(self.mid, command_id, OWN, command, "push", param)
        finished = self.cloud.wait_finished(command_id, self.limit, ("acked", "expired"))
        self.need(finished["state"] == "acked" and finished["msg_type"] in msg_types,
                  "%s: state %s, msg_type %d" % (command_id, finished["state"], finished["msg_type"]))
        return finished["finished_ms"] - finished["created_ms"]

    def log_has(self, channel, text):
        return wait_for(lambda: text in (self.agent.read("log/%s.log" % channel) or ""), self.limit)

    def script_sent(self):
        """Early: the agent looks for results every ten seconds."""
        self.cloud.push(self.mid, "maint-1", MAINT, "RunScriptProcess", "push", {"script": SCRIPT, "timeout_sec": 20})

    def script_result(self):
        row = self.need(self.cloud.wait_upload(self.limit, lambda row, body: row["about"] == "maint-1", "--kind", "maint"),
                        "no result of the maintenance script has arrived")
        result = json.loads(row[1])
        self.need(result["state"] == "done" and result["exit_code"] == 7 and "maintenance on Linux" in result["stdout"],
                  "the maintenance script's result is %s" % row[1])
        self.done("maintenance script", "maint-1 run by zxpmaint: %s, exit code %d, said \"%s\""
                  % (result["state"], result["exit_code"], result["stdout"].strip()))

    def policy_verdict(self, command):
        name = "data/policy/agentcache/veltcwpp_zxsample/policy/%s.json" % command
        text = self.agent.wait_file(name, lambda text: json.loads(text).get("Result_Agent_Taskmgr") is True, self.limit)
        self.need(text is not None, "%s does not hold the task manager's verdict" % name)
        self.done("policy file", "%s: Result_Agent_Taskmgr true since the component answered" % os.path.basename(name))

    def task_result(self, command_id):
        """The component's answer, as a result of its own; the task manager keeps it until it is told."""
        found = self.need(self.cloud.wait_upload(self.limit, lambda row, body: command_id in body and "used_percent" in body,
                                                 "--kind", "data"),
                          "the cloud has no task result of " + command_id)
        told = lambda: [line for line in (self.agent.read("log/zxtaskmgr.log") or "").splitlines()
                        if "upload result u64DataId" in line and "iResult[0]" in line]
        self.need(wait_for(lambda: bool(told()), self.limit), "the task manager has not been told that the result is there")
        data_id = told()[0].split("u64DataId[", 1)[1].split("]", 1)[0]
        self.done("task result", "upload %d, data id %s, %s; the task manager was told and let it go"
                  % (found[0]["seq"], data_id, " ".join(found[1].split())[:60] + "..."))

    def log_cache(self):
        with socket.socket(socket.AF_UNIX) as sender:
            sender.settimeout(self.limit)
            self.need(wait_for(lambda: sender.connect_ex(self.agent.path("data/zxlogcache/stream.sock")) == 0, self.limit),
                      "the log-cache forwarder does not listen")
            sender.sendall(("\n".join(RECORDS) + "\n").encode())
            sender.shutdown(socket.SHUT_WR)
            answer = b"".join(iter(lambda: sender.recv(256), b"")).decode()
        self.need(("ok %d\n" % len(RECORDS)) in answer, "the forwarder answered %r" % answer)
        found = self.need(self.cloud.wait_upload(self.limit, lambda row, body: row["combo"] == "zxlogcache", "--kind", "data"),
                          "the cloud has no log cache")
        self.need(json.loads(found[1])["lines"] == RECORDS, "the log cache holds %s" % found[1])
        status = self.agent.wait_file("data/zxlogcache/status.json",
                                      lambda text: json.loads(text)["forwarded_records"] >= len(RECORDS), self.limit)
        self.need(status is not None, "the forwarder has not been told that the cloud has its records")
        held = json.loads(status)["held_records"]
        self.done("log cache relayed", "%d records kept on disk, upload %d, result back: %d still held"
                  % (len(RECORDS), found[0]["seq"], held))

    def client_ready(self):
        took = self.own_command("demo-5", "ClientReady", {"ready": 1})
        text = self.agent.wait_file("data/zxsample/client_ready.json", lambda text: "demo-5" in text, self.limit)
        self.need(text is not None, "no component got the client-ready broadcast")
        self.done("client ready", "demo-5 broadcast on the bus after %d ms; zxsample got %s" % (took, " ".join(text.split())[:80]))

    def asset_policy(self):
        # Its parts are acknowledged under the same id, by whoever is first: zxsample's carried out (3), the one that no
        # component takes refused (4).
        took = self.own_command("demo-6", "assetCollection", ASSET_POLICY, (DONE_BY_AGENT, DONE_BY_COMPONENT))
        parts = {}
        for combo in ("zxsample", "zxpwebassets"):
            parts[combo] = self.need(self.agent.wait_file("data/policy/assetcollection/" + combo, lambda text: text != "", self.limit),
                                     "no command for %s was made of the asset policy" % combo)
        self.need(len(json.loads(parts["zxpwebassets"])["data"]) == 1, "the combined command is %s" % parts["zxpwebassets"])
        taken = self.agent.wait_file("data/zxsample/assets.json", lambda text: "demo-6" in text, self.limit)
        self.need(taken is not None and json.loads(taken)["interval"] == 3600, "zxsample has not got its part of the policy")
        self.done("asset policy split", "demo-6 after %d ms: %d commands; zxsample collects every %d s"
                  % (took, len(parts), json.loads(taken)["interval"]))
