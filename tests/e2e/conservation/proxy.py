"""A TCP proxy whose link can be cut (connections end, new ones are refused) or stalled (half-open: nothing moves)."""
import selectors
import socket
import threading

CHUNK = 65536


class Proxy:
    """Forwards 127.0.0.1:port to 127.0.0.1:target. One thread; its methods may be called from any other."""

    def __init__(self, target):
        self.target = target
        self.listener = None
        self.port = 0
        self.peers = {}     # socket: its other end
        self.waiting = {}   # socket: bytes that it has not taken yet
        self.refuse = False
        self.stalled = False
        self.lock = threading.Lock()
        self.selector = selectors.DefaultSelector()
        self.wake_out, self.wake_in = socket.socketpair()
        self.wake_out.setblocking(False)
        self.selector.register(self.wake_out, selectors.EVENT_READ)
        self.listen()
        threading.Thread(target=self.run, daemon=True).start()

    def listen(self):
        self.listener = socket.create_server(("127.0.0.1", self.port), backlog=64)
        self.listener.setblocking(False)
        self.port = self.listener.getsockname()[1]
        self.selector.register(self.listener, selectors.EVENT_READ)

    def set(self, refuse=False, stalled=False):
        with self.lock:
            self.refuse, self.stalled = refuse, stalled
        self.wake_in.send(b"x")

    def run(self):
        while True:
            for key, events in self.selector.select():
                if key.fileobj is self.wake_out:
                    self.wake_out.recv(64)
                elif key.fileobj is self.listener:
                    self.accept()
                elif key.fileobj in self.peers:
                    self.move(key.fileobj, events)
            self.apply()

    def apply(self):
        """Takes over what set() asked for."""
        with self.lock:
            refuse, stalled = self.refuse, self.stalled
        if refuse and self.listener is not None:
            self.selector.unregister(self.listener)
            self.listener.close()
            self.listener = None
            for one in list(self.peers):
                self.end(one)
        elif not refuse and self.listener is None:
            self.listen()
        for one in list(self.peers):
            self.watch(one, stalled)

    def watch(self, one, stalled):
        """Reads from one as long as its other end keeps up; writes to it what waits. Nothing while stalled."""
        if one not in self.peers:
            return
        events = 0
        if not stalled:
            events |= 0 if self.waiting[self.peers[one]] else selectors.EVENT_READ
            events |= selectors.EVENT_WRITE if self.waiting[one] else 0
        registered = one in self.selector.get_map()
        if events and registered:
            self.selector.modify(one, events)
        elif events:
            self.selector.register(one, events)
        elif registered:
            self.selector.unregister(one)

    def accept(self):
        try:
            near, _ = self.listener.accept()
        except OSError:
            return
        try:
            far = socket.create_connection(("127.0.0.1", self.target), timeout=5)
        except OSError:
            near.close()
            return
        for one in (near, far):
            one.setblocking(False)
            one.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.waiting[one] = b""
        self.peers[near], self.peers[far] = far, near

    def move(self, one, events):
        other = self.peers[one]
        try:
            if events & selectors.EVENT_WRITE and self.waiting[one]:
                self.waiting[one] = self.waiting[one][one.send(self.waiting[one]):]
            if events & selectors.EVENT_READ:
                data = one.recv(CHUNK)
                if not data:
                    self.end(one)
                    return
                self.waiting[other] += data
        except BlockingIOError:
            pass
        except OSError:
            self.end(one)

    def end(self, one):
        if one not in self.peers:
            return  # went with its other end
        for sock in (one, self.peers.get(one)):
            if sock is None:
                continue
            if sock in self.selector.get_map():
                self.selector.unregister(sock)
            self.peers.pop(sock, None)
            self.waiting.pop(sock, None)
            sock.close()
