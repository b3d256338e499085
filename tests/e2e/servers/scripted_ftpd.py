#!/usr/bin/python3
"""A scriptable FTP server for brindle's end-to-end tests.

It is pyftpdlib serving one directory read/write to one user, on 127.0.0.1,
with a JSON "script" that can override or break parts of the protocol:

  {
    "listings": {"/dir": ANSWER, ...},   # LIST answer for a directory
    "every_listing": ANSWER,             # LIST answer for any other directory
    "nlst":     {"/dir": ANSWER, ...},   # NLST answer for a directory
    "failures": [{"command": "LIST", "arg": "x", "reply": "450 Busy",
                  "times": 1, "close": false, "delay": 0.0,
                  "then_run": false}, ...],
    "drop":     [{"command": "RETR", "arg": "x", "after_bytes": 100,
                  "times": 1, "reset": false, "drain": false}, ...],
    "refuse_connections": 2,
    "refuse_reply": "421 Service not available, try later",
    "greeting": "220 Scripted server ready.",
    "login_dir": "/home/u"
  }

With --list-style dos the server answers LIST the way Microsoft's IIS does
by default, in the DOS style ("01-15-21  10:30AM       <DIR>          docs",
"01-15-21  10:30PM                 1234 a file.txt", 12-hour UTC times), and
shows the served folder as a Windows file system would: directories and
files only.  A symbolic link is shown as what it points to (IIS lists a
link to a file as that file and serves its content); a dangling link, a
fifo, a socket or a device is left out of LIST and NLST alike.

A listing ANSWER is one of
  {"lines": ["text", {"b64": "..."}], "eol": "\r\n"}
  {"raw_b64": "..."}
  {"generate": {"count": 100000, "format": "-rw-r--r-- 1 0 0 {i} Jan 01  2020 f{i}"},
   "eol": "\r\n"}
Text lines are encoded as UTF-8 with surrogateescape, so a test can also
pass names it decoded that way from raw bytes.

Failure rules answer the first "times" matching commands (every one when
"times" is missing) with "reply" instead of running them; "reply_b64" sends
raw bytes with no line end added instead, to imitate broken servers.
"close" closes the control connection after the reply; "delay" waits that
many seconds before replying.  "then_run" sends the reply (or the raw bytes)
at once and then runs the command as usual, so that its own reply follows:
extra lines in front of a real answer.

"every_listing" answers LIST in every directory that "listings" does not
name, whether it exists or not, and lets the client change into any
directory: a server whose tree never ends.

"login_dir" makes the server behave like one that does not chroot its
users: the served root stays the server's "/", and each session starts in
the login directory (PWD names it, quotes doubled; relative paths resolve
against it), while absolute paths still resolve from the served root.  A
failure rule for PWD replaces the PWD answer alone.

Drop rules make the server vanish: for a data transfer command (LIST, NLST,
MLSD, RETR, STOR, APPE, STOU) it moves "after_bytes" bytes over the data
connection and then closes the data and the control connection without any
further reply; for any other command it closes the control connection
instead of answering.  "reset" closes with a TCP reset instead of a FIN.
"drain" (uploads) reads the rest of the client's data after the first
"after_bytes" bytes and throws it away, and vanishes when the client has
sent it all and closed the data connection: a server that takes the upload
and never answers, with no reset that the client could meet while it sends.

The script file is re-read whenever its inode, size or mtime change (it is
checked at every connection and every command); all the "times" and
connection counters restart from zero when it is re-read.  A missing or
empty file means no scripting.

Every connection and command is logged to --log, one JSON object a line:
  {"time": 1700000000.123, "session": 1, "event": "command",
   "command": "LIST", "arg": "-la", "line": "LIST -la"}
with event one of "connect", "refused", "command", "disconnect".  Commands
are logged before they run, USER and PASS included.  Bytes that are not
UTF-8 appear as lone surrogates (\\udcXX), as in Python's surrogateescape.
"""

import argparse
import base64
import json
import logging
import os
import posixpath
import signal
import socket
import stat
import struct
import sys
import time
import warnings

# pyftpdlib 1.5 is built on asynchat, which Python 3.11 deprecates loudly.
warnings.filterwarnings("ignore", category=DeprecationWarning)

import asynchat  # noqa: E402
from pyftpdlib.authorizers import DummyAuthorizer  # noqa: E402
from pyftpdlib.filesystems import AbstractedFS  # noqa: E402
from pyftpdlib.handlers import DTPHandler, FTPHandler  # noqa: E402
from pyftpdlib.servers import FTPServer  # noqa: E402

PERMISSIONS = "elradfmwMT"
DEFAULT_REFUSE_REPLY = "421 Service not available, try later"
# Commands whose drop rule acts on the data connection rather than at once.
DATA_COMMANDS = {"LIST", "NLST", "MLSD", "RETR", "STOR", "APPE", "STOU"}


def normalise_virtual(path):
    """Canonical form of a path as the client sees it: absolute, no "."
    or ".." parts, no trailing slash, "/" for the root."""
    path = posixpath.normpath("/" + (path or "/"))
    # normpath keeps a leading "//" as POSIX allows; FTP paths do not.
    while path.startswith("//"):
        path = path[1:]
    return path


def strip_ls_options(arg):
    """Drop leading ls-style options ("-la /dir" -> "/dir"); pyftpdlib
    itself only copes with a lone "-a", "-l", "-al" or "-la"."""
    words = arg.split(" ")
    while words and words[0].startswith("-"):
        words.pop(0)
    return " ".join(words)


def encode_text(text):
    return text.encode("utf-8", "surrogateescape")


def listing_body(answer):
    """The exact bytes to send for one scripted LIST or NLST answer."""
    if "raw_b64" in answer:
        return base64.b64decode(answer["raw_b64"])
    eol = encode_text(answer.get("eol", "\r\n"))
    parts = []
    for line in answer.get("lines", []):
        if isinstance(line, dict):
            parts.append(base64.b64decode(line["b64"]))
        else:
            parts.append(encode_text(line))
        parts.append(eol)
    generate = answer.get("generate")
    if generate:
        fmt = generate["format"]
        for i in range(int(generate["count"])):
            parts.append(encode_text(fmt.format(i=i)))
            parts.append(eol)
    return b"".join(parts)


class Rule(object):
    """A failure or drop rule with its own use counter."""

    def __init__(self, fields):
        self.fields = fields
        self.command = str(fields.get("command", "")).upper()
        self.arg = fields.get("arg")
        self.times = fields.get("times")
        self.used = 0

    def matches(self, command, arg):
        if self.command != command:
            return False
        if self.arg is not None and self.arg != arg:
            return False
        return self.times is None or self.used < int(self.times)

    def take(self):
        self.used += 1
        return self.fields


class Script(object):
    """The current script, reloaded when its file changes."""

    def __init__(self, path):
        self.path = path
        self.stamp = None
        self.apply({})

    def apply(self, data):
        self.data = data
        self.listings = {normalise_virtual(k): v
                         for k, v in data.get("listings", {}).items()}
        self.nlst = {normalise_virtual(k): v
                     for k, v in data.get("nlst", {}).items()}
        self.every_listing = data.get("every_listing")
        self.failures = [Rule(r) for r in data.get("failures", [])]
        self.drops = [Rule(r) for r in data.get("drop", [])]
        self.refuse_left = int(data.get("refuse_connections", 0))

    def refresh(self):
        """Re-read the file if it changed since the last look."""
        if not self.path:
            return
        try:
            st = os.stat(self.path)
            stamp = (st.st_ino, st.st_size, st.st_mtime_ns, st.st_ctime_ns)
        except FileNotFoundError:
            stamp = None
        if stamp == self.stamp:
            return
        self.stamp = stamp
        data = {}
        if stamp is not None:
            with open(self.path, "rb") as f:
                raw = f.read()
            if raw.strip():
                data = json.loads(raw.decode("utf-8"))
        self.apply(data)

    def first_rule(self, rules, command, arg):
        for rule in rules:
            if rule.matches(command, arg):
                return rule.take()
        return None

    def virtual_dirs(self):
        """Every directory named by a scripted listing, with its parents,
        so that the client can change into them even if they do not exist
        on disk."""
        dirs = set()
        for path in list(self.listings) + list(self.nlst):
            while True:
                dirs.add(path)
                if path == "/":
                    break
                path = posixpath.dirname(path)
        return dirs


class DosFS(AbstractedFS):
    """The served folder as an IIS server in its default DOS listing
    style shows it: directories and files only, links followed."""

    def _shown(self, path):
        try:
            mode = os.stat(path).st_mode
        except OSError:
            return False
        return stat.S_ISDIR(mode) or stat.S_ISREG(mode)

    def listdir(self, path):
        return [name for name in AbstractedFS.listdir(self, path)
                if self._shown(os.path.join(path, name))]

    def format_list(self, basedir, listing, ignore_err=True):
        for name in listing:
            try:
                st = os.stat(os.path.join(basedir, name))
            except OSError:
                if ignore_err:
                    continue
                raise
            when = time.strftime("%m-%d-%y  %I:%M%p", time.gmtime(st.st_mtime))
            if stat.S_ISDIR(st.st_mode):
                line = "%s       <DIR>          %s\r\n" % (when, name)
            else:
                line = "%s %20d %s\r\n" % (when, st.st_size, name)
            yield line.encode("utf-8", "surrogateescape")


class EventLog(object):
    def __init__(self, path):
        self.file = open(path, "a", encoding="utf-8")

    def write(self, session, event, **fields):
        record = {"time": time.time(), "session": session, "event": event}
        record.update(fields)
        self.file.write(json.dumps(record) + "\n")
        self.file.flush()


class ScriptedDTPHandler(DTPHandler):
    """Data connection that can stop the whole session after N bytes."""

    def use_sendfile(self):
        # sendfile(2) would move the data behind send()'s back.
        return False

    def _drop_limit(self):
        rule = self.cmd_channel.armed_drop
        if rule is None:
            return None
        return int(rule.get("after_bytes", 0))

    def send(self, data):
        limit = self._drop_limit()
        if limit is None:
            return DTPHandler.send(self, data)
        remaining = limit - self.tot_bytes_sent
        sent = 0
        if remaining > 0:
            sent = DTPHandler.send(self, data[:remaining])
        if self.tot_bytes_sent >= limit:
            self.cmd_channel.drop_connection()
        return sent

    def _draining(self):
        rule = self.cmd_channel.armed_drop
        return rule is not None and bool(rule.get("drain"))

    def handle_read(self):
        limit = self._drop_limit()
        if limit is not None and self.tot_bytes_received >= limit:
            if self._draining():
                # Thrown away; the end of the data (handle_close) drops
                # the session.
                self.recv(65536)
                return
            self.cmd_channel.drop_connection()
            return
        if limit is not None:
            # Read no further than the limit, so that exactly that much
            # of an upload reaches the file.
            self.ac_in_buffer_size = max(1, limit - self.tot_bytes_received)
        DTPHandler.handle_read(self)
        if (limit is not None and self.tot_bytes_received >= limit
                and not self._draining()):
            self.cmd_channel.drop_connection()

    # DTPHandler binds this alias to its own handle_read.
    handle_read_event = handle_read

    def handle_close(self):
        # The data ran out before the byte limit: vanish instead of
        # answering "226 Transfer complete".
        if self.cmd_channel.armed_drop is not None and not self._closed:
            self.cmd_channel.drop_connection()
            return
        DTPHandler.handle_close(self)


class ScriptedHandler(FTPHandler):
    dtp_handler = ScriptedDTPHandler
    use_sendfile = False
    # Keep non-UTF-8 bytes in commands and file names as they are, both
    # ways, instead of replacing them with U+FFFD.
    unicode_errors = "surrogateescape"
    # Answer a wrong password at once instead of after 3 seconds.
    auth_failed_timeout = 0

    script = None      # Script, set up by main()
    events = None      # EventLog, set up by main()
    sessions = 0

    def handle(self):
        cls = ScriptedHandler
        cls.sessions += 1
        self.session_id = cls.sessions
        self.armed_drop = None
        self.dropped = False
        self.events.write(self.session_id, "connect")
        self.script.refresh()
        if self.script.refuse_left > 0:
            self.script.refuse_left -= 1
            self.events.write(self.session_id, "refused")
            reply = self.script.data.get("refuse_reply", DEFAULT_REFUSE_REPLY)
            self.push(reply + "\r\n")
            self.close_when_done()
            return
        greeting = self.script.data.get("greeting")
        if greeting is not None:
            self.on_connect()
            self.respond(greeting)
            return
        FTPHandler.handle(self)

    def on_login(self, username):
        # A server without chroot: the session starts in the login
        # directory, below the root that absolute paths resolve from.
        login_dir = self.script.data.get("login_dir")
        if login_dir is not None:
            self.fs.cwd = normalise_virtual(login_dir)

    def push(self, s):
        # The default encodes strictly, which fails on surrogate-escaped
        # names echoed back in replies.
        self.push_bytes(s.encode("utf-8", "surrogateescape"))

    def push_bytes(self, data):
        asynchat.async_chat.push(self, data)

    def close(self):
        if not self._closed and hasattr(self, "session_id"):
            self.events.write(self.session_id, "disconnect")
        FTPHandler.close(self)

    # --- scripting hooks

    def pre_process_command(self, line, cmd, arg):
        self.script.refresh()
        self.events.write(self.session_id, "command",
                          command=cmd, arg=arg, line=line)

        self.armed_drop = None
        drop = self.script.first_rule(self.script.drops, cmd, arg)
        if drop is not None:
            self.armed_drop = drop
            if cmd not in DATA_COMMANDS:
                self.drop_connection()
                return

        failure = self.script.first_rule(self.script.failures, cmd, arg)
        if failure is not None and failure.get("then_run"):
            self._answer_failure(failure)
            failure = None
        if failure is not None:
            delay = float(failure.get("delay", 0) or 0)
            if delay > 0:
                self.ioloop.call_later(delay, self._answer_failure, failure,
                                       _errback=self.handle_error)
            else:
                self._answer_failure(failure)
            return

        if cmd in ("LIST", "NLST"):
            arg = strip_ls_options(arg)
        FTPHandler.pre_process_command(self, line, cmd, arg)

    def _answer_failure(self, failure):
        if self._closed:
            return
        if "reply_b64" in failure:
            self.push_bytes(base64.b64decode(failure["reply_b64"]))
        else:
            self.respond(failure["reply"])
        if failure.get("close"):
            self.close_when_done()

    def drop_connection(self):
        """Close the data and the control connection with no reply."""
        if self.dropped:
            return
        self.dropped = True
        reset = bool(self.armed_drop and self.armed_drop.get("reset"))
        dtp = self.data_channel
        channels = [c for c in (dtp, self) if c is not None]
        for channel in channels:
            if reset and channel.socket is not None:
                try:
                    channel.socket.setsockopt(
                        socket.SOL_SOCKET, socket.SO_LINGER,
                        struct.pack("ii", 1, 0))
                except OSError:
                    pass
        if dtp is not None:
            # No "226"/"426" reply once the data connection is gone.
            dtp._resp = ()
            dtp.close()
        # Whatever is still queued for the control connection is dropped.
        self.producer_fifo.clear()
        self.close()

    def _virtual(self, fspath):
        return normalise_virtual(self.fs.fs2ftp(fspath))

    def _scripted_transfer(self, table, path, cmd, default=None):
        answer = table.get(self._virtual(path), default)
        if answer is None:
            return False
        self.push_dtp_data(listing_body(answer), cmd=cmd)
        return True

    def ftp_LIST(self, path):
        if self._scripted_transfer(self.script.listings, path, "LIST",
                                   self.script.every_listing):
            return path
        return FTPHandler.ftp_LIST(self, path)

    def ftp_NLST(self, path):
        if self._scripted_transfer(self.script.nlst, path, "NLST"):
            return path
        return FTPHandler.ftp_NLST(self, path)

    def ftp_CWD(self, path):
        # A directory that only exists in the script can be entered.
        virtual = self._virtual(path)
        if not os.path.isdir(path) and virtual in self.script.virtual_dirs():
            self.fs.cwd = virtual
            self.respond('250 "%s" is the current directory.' % virtual)
            return path
        if not os.path.isdir(path) and self.script.every_listing is not None:
            # A fixed reply, as most servers give, however deep the path.
            self.fs.cwd = virtual
            self.respond("250 Directory successfully changed.")
            return path
        return FTPHandler.ftp_CWD(self, path)


def parse_args(argv):
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--root", required=True)
    p.add_argument("--port-file", required=True)
    p.add_argument("--log", required=True)
    p.add_argument("--script")
    p.add_argument("--user", required=True)
    p.add_argument("--password", required=True)
    p.add_argument("--host", default="127.0.0.1")
    p.add_argument("--list-style", choices=["unix", "dos"], default="unix",
                   help="LIST lines as pyftpdlib writes them (unix) or as "
                   "IIS does (dos)")
    p.add_argument("--verbose", action="store_true",
                   help="log pyftpdlib's own protocol trace to stderr")
    return p.parse_args(argv)


def main(argv=None):
    args = parse_args(argv)

    logging.basicConfig(level=logging.DEBUG if args.verbose else logging.INFO,
                        format="[%(asctime)s] %(message)s", stream=sys.stderr)

    authorizer = DummyAuthorizer()
    authorizer.add_user(args.user, args.password, os.path.abspath(args.root),
                        perm=PERMISSIONS)
    ScriptedHandler.authorizer = authorizer
    ScriptedHandler.script = Script(args.script)
    ScriptedHandler.events = EventLog(args.log)
    if args.list_style == "dos":
        ScriptedHandler.abstracted_fs = DosFS

    server = FTPServer((args.host, 0), ScriptedHandler)
    port = server.socket.getsockname()[1]

    # The socket is listening now; publish the port atomically so that a
    # reader never sees a half-written file.
    tmp = args.port_file + ".tmp"
    with open(tmp, "w") as f:
        f.write("%d\n" % port)
    os.replace(tmp, args.port_file)

    def stop(signum, frame):
        raise SystemExit(0)

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    try:
        server.serve_forever(handle_exit=True)
    finally:
        server.close_all()


if __name__ == "__main__":
    main()
