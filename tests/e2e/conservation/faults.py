"""Harm at random: kills, cuts, half-open links, full disks, clocks that jump. Two at a time may overlap."""
import collections
import re
import threading
import time

from processes import StepFailed


class Harm:
    """One kind of harm at a time to one thing; the order and length follow from the random source."""

    def __init__(self, story, source):
        self.story = story
        self.source = source
        self.busy = {}          # what is being harmed: the thread that will mend it
        self.count = collections.Counter()
        self.failure = None
        self.end = threading.Event()
        self.began = time.monotonic()
        self.kinds = [kind for kind in self._kinds() if re.search(story.options.only, kind[1])]

    def _kinds(self):
        story, options = self.story, self.story.options
        kinds = [("sender", "kill -9 sender", lambda: self._kill(story.sender)),
                 ("cloud", "kill -9 cloud", lambda: self._kill(story.cloud))]
        if not options.spare_broker:
            kinds.append(("broker", "kill -9 broker", lambda: self._kill(story.broker)))
        for name, link in story.links.items():
            kinds.append((name, "cut " + name, lambda link=link: self._link(link, refuse=True)))
            kinds.append((name, "stall " + name, lambda link=link: self._link(link, stalled=True)))
        kinds.append(("cloud-disk", "full disk of the cloud", lambda: self._fill(story.cloud_disk)))
        if options.spooled:
            kinds.append(("spool-disk", "full disk of the machine", lambda: self._fill(story.spool_disk)))
        if not options.real_clock:
            for name, clock in story.clocks.items():
                kinds.append(("clock-" + name, "clock jump " + name, lambda clock=clock: self._jump(clock)))
        return kinds

    def do(self, seconds):
        """Returns when the time is over and everything is mended, except the clocks, which stay where they are."""
        until = time.monotonic() + seconds
        while time.monotonic() < until and self.failure is None:
            self.busy = {what: thread for what, thread in self.busy.items() if thread.is_alive()}
            what, name, act = self.source.choice(self.kinds)
            if what not in self.busy and len(self.busy) < 2:
                self._begin(what, name, act)
            time.sleep(self.source.uniform(0.2, 2.5))
        for thread in self.busy.values():
            thread.join()
        if self.failure is not None:
            raise self.failure
        for program in (self.story.sender, self.story.cloud, self.story.broker):
            program.check_alive()

    def _begin(self, what, name, act):
        self.count[name] += 1
        print("  %6.1f s %s" % (time.monotonic() - self.began, name), flush=True)
        thread = threading.Thread(target=self._guard, args=(act(),))
        self.busy[what] = thread
        thread.start()

    def _guard(self, mend):
        try:
            mend()
        except (StepFailed, OSError) as failure:
            self.failure = failure if isinstance(failure, StepFailed) else StepFailed(str(failure))

    # Each draws its numbers now and returns what is to happen, so that threads do not mix up the source.

    def _kill(self, program):
        pause = self.source.uniform(0, 3)

        def mend():
            program.check_alive()
            program.kill()
            time.sleep(pause)
            program.start()
            program.await_ready(60 * self.story.options.patience)
        return mend

    def _link(self, link, refuse=False, stalled=False):
        pause = self.source.uniform(0.05, 8)

        def mend():
            link.set(refuse=refuse, stalled=stalled)
            time.sleep(pause)
            link.set()
        return mend

    def _fill(self, disk):
        pause = self.source.uniform(0.5, 6)

        def mend():
            disk.fill()
            time.sleep(pause)
            disk.free()
        return mend

    def _jump(self, clock):
        seconds = self.source.choice((-86400, -3600, -30, 30, 3600, 86400))

        def mend():
            clock.set(seconds)
        return mend

    def summary(self):
        return ", ".join("%d %s" % (count, name) for name, count in sorted(self.count.items()))
