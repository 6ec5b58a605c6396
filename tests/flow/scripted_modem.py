"""A programmer that plays a written script: it waits for so many bytes, then says exactly these bytes. For what
the simulated modem does not do, and to see every byte that the updater sends."""
import os
import select
import threading
import time
import tty

LIMIT = 20  # seconds for one step


class ScriptedModem:
    """`steps` are pairs: how many bytes to wait for, and the messages to say then. A message is written when the
    one before was read, so that each of them arrives by itself."""

    def __init__(self, steps):
        self.steps = steps
        self.received = b''
        self.master, self.slave = os.openpty()
        tty.setraw(self.slave)
        self.port = os.ttyname(self.slave)
        self.leave, self.wake = os.pipe()
        self.thread = threading.Thread(target=self.play)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        os.close(self.wake)
        self.thread.join()
        for descriptor in (self.master, self.slave, self.leave):
            os.close(descriptor)

    def play(self):
        for count, messages in self.steps:
            if not self.take(len(self.received) + count):
                return
            for message in messages:
                self.say(message)
        self.take(None)  # whatever else comes, until the end of the with statement

    def take(self, total):
        end = time.monotonic() + LIMIT
        while total is None or len(self.received) < total:
            ready, _, _ = select.select([self.master, self.leave], [], [], max(0, end - time.monotonic()))
            if self.master in ready:
                room = 65536 if total is None else total - len(self.received)
                self.received += os.read(self.master, room)
            elif self.leave in ready or total is not None:
                return False
        return True

    def say(self, message):
        os.write(self.master, message)
        end = time.monotonic() + LIMIT
        while select.select([self.slave], [], [], 0)[0] and time.monotonic() < end:
            time.sleep(0.001)  # nothing tells when the other side has read it
