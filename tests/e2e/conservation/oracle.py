"""Counts ids: what the sender was told is accepted, and what the cloud has stored."""
import collections
import json
import threading

from processes import StepFailed

BODY_MARK = "<PCPluginJasonData="
BODY_END = "><PCPluginVersion="


class Oracle:
    def __init__(self, accepted_file, cloud):
        self.accepted_file = accepted_file
        self.cloud = cloud
        self.accepted = {}                       # id: (blocking, begin, end)
        self.delivered = collections.Counter()   # id: how often it is stored
        self.message_ids = set()
        self.problems = []
        self.after = 0
        self.offset = 0
        self.lock = threading.Lock()

    def read(self):
        """Takes in what is new on both sides; False when the cloud does not answer."""
        with self.lock:
            self._read_accepted()
            return self._read_delivered()

    def _read_accepted(self):
        with open(self.accepted_file, "rb") as text:
            text.seek(self.offset)
            data = text.read()
        whole = data[:data.rfind(b"\n") + 1]
        self.offset += len(whole)
        for line in whole.decode("ascii").splitlines():
            one, how, begin, end = line.split()
            self.accepted[one] = (how == "b", int(begin), int(end))

    def _read_delivered(self):
        while True:
            answer = self.cloud.ask("/op/v1/uploads?max=500&body=65536&after=%d" % self.after)
            if answer is None:
                return False
            for upload in answer["uploads"]:
                self.after = upload["seq"]
                self._count(upload)
            if len(answer["uploads"]) < 500:
                return True

    def _count(self, upload):
        if not upload["kept"]:
            raise StepFailed("the oracle is too slow: the body of upload %d is gone" % upload["seq"])
        if upload["id"] in self.message_ids:
            self.problems.append("message id %s is stored twice" % upload["id"])
        self.message_ids.add(upload["id"])
        text = upload["upload"]
        try:
            body = text[text.index(BODY_MARK) + len(BODY_MARK):text.rindex(BODY_END)]
            self.delivered[json.loads(body)["oracle"]] += 1
        except (ValueError, KeyError):
            self.problems.append("upload %s is not what was sent" % upload["id"])

    def missing(self):
        with self.lock:
            return [one for one in self.accepted if one not in self.delivered]

    def repeated(self):
        with self.lock:
            return [one for one, count in self.delivered.items() if count > 1]

    def first_accepted(self, since_ms, blocking):
        """Milliseconds from since_ms to the end of the first call begun after it that was accepted."""
        with self.lock:
            ends = [end for how, begin, end in self.accepted.values() if how == blocking and begin >= since_ms]
        return min(ends) - since_ms if ends else None
