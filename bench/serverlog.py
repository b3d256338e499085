"""What vsftpd's protocol log says about one run of a tool.

The log gives, per run, the logins (USER commands), the data connections
(PASV, EPSV, PORT, EPRT) and the stalls: passive-mode replies after which the
client waited STALL_SECONDS or more before its next command. vsftpd stamps
its lines with whole seconds only, so a LogClock thread stamps each line
with the time it first saw it.
"""

import bisect
import re
import threading
import time

from servers.vsftpd import VsftpdServer

# vsftpd's protocol log: "Sun Nov 22 03:20:31 2026 [pid 3919] [user] FTP
# command: Client "127.0.0.1", "EPSV"", likewise "FTP response".
LOG_EVENT = re.compile(r'^(\w{3} \w{3} +\d+ [\d:]+ \d{4}) \[pid \d+\] '
                       r'(?:\[[^]]*\] )?FTP (command|response): '
                       r'Client "[^"]*", "(.*)"$')


# A client that waits this long after a passive-mode reply before its next
# command is stalled: libcurl 7.88 waits about one second there (see
# bench/README.md); on loopback the next command otherwise follows within
# milliseconds, even on a busy machine.
STALL_SECONDS = 0.5

DATA_COMMANDS = ("PASV", "EPSV", "PORT", "EPRT")


def count_stalls(events):
    """Passive-mode (227/229) replies after which the client took
    STALL_SECONDS or more to send its next command, from (time, "command"
    or "response", text) events."""
    stalls = 0
    waiting = []    # the times of the replies not yet followed by a command
    for stamp, kind, text in events:
        if kind == "command":
            stalls += sum(1 for replied in waiting
                          if stamp - replied >= STALL_SECONDS)
            waiting = []
        elif text.startswith(("227 ", "229 ")):
            waiting.append(stamp)
    return stalls


def log_size(path):
    """The log's size in bytes now: where the next run's lines start."""
    try:
        return path.stat().st_size
    except FileNotFoundError:
        return 0


def commands_since(path, offset):
    """(COMMAND, argument) for every FTP command logged from byte offset
    on."""
    with open(str(path), "rb") as f:
        f.seek(offset)
        text = f.read().decode("utf-8", errors="replace")
    return VsftpdServer.parse_commands(text)


def logins_and_data(path, offset):
    """(USER commands, data connections) logged from byte offset on."""
    commands = commands_since(path, offset)
    users = sum(1 for c, _ in commands if c == "USER")
    data = sum(1 for c, _ in commands if c in DATA_COMMANDS)
    return users, data


class LogClock(object):
    """Stamps each line of vsftpd's log with the time it was first seen, as
    vsftpd's own stamps have whole seconds only: a thread reads what was
    appended every 2 ms. A line is stamped at most a few milliseconds late
    (more while the machine is busy), far below STALL_SECONDS."""

    def __init__(self, path):
        self.path = path
        self.lines = []        # (byte offset, monotonic time, text)
        self.offset = 0        # bytes read so far
        self.partial = b""     # an unfinished last line
        self.file = None
        self.lock = threading.Lock()
        self.done = threading.Event()
        self.thread = threading.Thread(target=self.watch, daemon=True)
        self.thread.start()

    def watch(self):
        while not self.done.wait(0.002):
            self.read()

    def read(self):
        with self.lock:
            if self.file is None:
                try:
                    self.file = open(str(self.path), "rb")
                except FileNotFoundError:
                    return
            data = self.file.read()
            if not data:
                return
            now = time.monotonic()
            start = self.offset - len(self.partial)
            self.offset += len(data)
            *complete, self.partial = (self.partial + data).split(b"\n")
            for line in complete:
                text = line.rstrip(b"\r").decode("utf-8", "replace")
                self.lines.append((start, now, text))
                start += len(line) + 1

    def events_since(self, offset):
        """(time, "command" or "response", text) for every FTP command and
        response logged from byte offset on."""
        self.read()
        with self.lock:
            first = bisect.bisect_left(self.lines, offset,
                                       key=lambda line: line[0])
            lines = [(t, text) for _, t, text in self.lines[first:]]
        events = []
        for stamp, line in lines:
            m = LOG_EVENT.match(line)
            if m:
                events.append((stamp, m.group(2), m.group(3)))
        return events

    def stop(self):
        self.done.set()
        self.thread.join()
        if self.file is not None:
            self.file.close()
