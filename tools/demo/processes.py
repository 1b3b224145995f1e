"""Child processes of the demo, and waiting with a deadline."""
import ctypes
import os
import signal
import subprocess
import time

PR_SET_PDEATHSIG = 1


class StepFailed(Exception):
    """A step of the story did not happen; the text says what is missing."""


def wait_for(condition, seconds, pause=0.05):
    """True as soon as the condition holds, False when it does not within the time."""
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(pause)
    return True


def _child_setup():
    # Ends with the demo, even when the demo is killed; not with the terminal's Ctrl-C, which the demo handles.
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


class Child:
    """A program whose output goes to a log file."""

    def __init__(self, name, arguments, log_file, environment=None, account=None):
        self.name = name
        self.log_file = log_file
        who = {} if account is None else {"user": account.pw_uid, "group": account.pw_gid, "extra_groups": []}
        with open(log_file, "ab") as log:
            self.process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                            start_new_session=True, preexec_fn=_child_setup,
                                            env={**os.environ, **(environment or {})}, **who)

    def running(self):
        return self.process.poll() is None

    def stop(self, seconds=15):
        """Asks it to end, insists when it does not; True when asking was enough."""
        if not self.running():
            return True
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(seconds)
            return True
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return False
