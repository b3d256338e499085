"""A private syslog socket for daemons that log their commands only to
syslog: the daemon runs in a mount namespace of its own whose /dev/log is
a socket of the test's, and the messages are collected here."""

import os
import select
import socket
import threading

# Runs a program with its own /dev holding a "log" socket of ours, so that
# a daemon that can only log to syslog logs to the test instead (the
# machine may have no syslog daemon, and /dev/log is not ours to make).
# Further "SOURCE TARGET" pairs after "--" are bind-mounted first (a
# private copy of a file or folder of /etc, seen by the daemon alone).
PRIVATE_DEVLOG = r'''
set -eu
tmp=$1; sock=$2; shift 2
while [ "$1" != "--" ]; do
  mount --bind "$1" "$2"
  shift 2
done
shift
mkdir -p "$tmp/realdev"
mount --bind /dev "$tmp/realdev"
mount -t tmpfs -o mode=755 devlog "/dev"
for node in null zero full random urandom tty; do
  : >"/dev/$node"
  mount --bind "$tmp/realdev/$node" "/dev/$node"
done
ln -s "$sock" /dev/log
exec "$@"
'''


class PrivateSyslog(object):
    """A datagram socket in a server's temporary folder that the daemon
    finds as /dev/log (see private_devlog_argv); collects the messages."""

    def __init__(self, tmp):
        self.path = tmp / "syslog.sock"
        self.tmp = tmp
        self._messages = []
        self._lock = threading.Lock()
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(self.path))
        self._socket.setblocking(False)
        os.chmod(str(self.path), 0o666)
        # A datagram socket queues only a few messages (10 by default)
        # before the daemon's syslog() blocks: keep reading.
        self._reader = threading.Thread(target=self._read_forever,
                                        daemon=True)
        self._reader.start()

    def wrap(self, argv, binds=()):
        """argv run in a mount namespace of its own whose /dev/log is this
        socket, with (source, target) bind mounts made first."""
        pairs = [str(p) for pair in binds for p in pair]
        return (["unshare", "--mount", "sh", "-c", PRIVATE_DEVLOG, "sh",
                 str(self.tmp), str(self.path)] + pairs + ["--"] +
                [str(a) for a in argv])

    def close(self):
        sock, self._socket = self._socket, None
        if self._reader is not None:
            self._reader.join()
            self._reader = None
        if sock is not None:
            sock.close()

    def _read_forever(self):
        while self._socket is not None:
            try:
                select.select([self._socket], [], [], 0.05)
            except (OSError, ValueError, TypeError):
                return
            self._drain()

    def _drain(self):
        with self._lock:
            sock = self._socket
            while sock is not None:
                try:
                    data = sock.recv(65536)
                except (BlockingIOError, OSError):
                    return
                self._messages.append(
                    data.decode("utf-8", "surrogateescape"))

    def text(self):
        """The messages so far, one a line."""
        self._drain()
        return "".join(m.rstrip("\n") + "\n" for m in self._messages)
