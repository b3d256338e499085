"""Assertions and probes that many end-to-end test files share: brindle's
exact outcome, skip lines, the commands a server received since a point,
and a server's raw LIST answers read with ftplib (not with libcurl, which
changes line ends)."""

import ftplib
import posixpath
import time


def assert_outcome(result, status, stdout=b"", stderr=b""):
    """brindle ended with exactly this status and output."""
    assert (result.status, result.stdout, result.stderr) == \
        (status, stdout, stderr), result


def assert_ok(result, stdout=b""):
    """A clean success: status 0, stdout as given (by default nothing)
    and nothing on stderr."""
    assert_outcome(result, 0, stdout)


def assert_failed(result, message, stdout=b"", status=1):
    """brindle failed with exactly this message (text, one line) on
    stderr."""
    assert_outcome(result, status, stdout,
                   message.encode("utf-8", "surrogateescape") + b"\n")


def assert_no_connection(server, wait=0.3):
    """The scripted server never saw a connection (a late one would be
    logged within the wait)."""
    time.sleep(wait)
    assert server.log() == []


def skip_line(path, reason):
    """A skip line as brindle prints it, the path (text or bytes) quoted
    the way the C++ path inserter quotes it; bytes."""
    if isinstance(path, str):
        path = path.encode("utf-8", "surrogateescape")
    quoted = path.replace(b"\\", b"\\\\").replace(b'"', b'\\"')
    return b"skip '\"" + quoted + b"\"': " + reason.encode() + b"\n"


class Commands(object):
    """The commands a server receives from here on."""

    def __init__(self, server):
        self.server = server
        server.wait_idle()
        self.start = len(server.commands())

    def since(self):
        self.server.wait_idle()
        return self.server.commands()[self.start:]


def resolved(commands, *names, login_dir="/"):
    """(command, path) for the named commands, following the client's CWDs
    from the login directory; each path is absolute and relative to the
    login directory (a path outside it stays the server's own)."""
    cwd = before = login_dir
    found = []
    last = None
    for command, arg in commands:
        if command == "MKD" and last == ("CWD", arg):
            # libcurl makes a directory after it failed to enter it.
            cwd = before
        if command == "USER":
            cwd = login_dir
        elif command == "CWD":
            before = cwd
            cwd = posixpath.normpath(posixpath.join(cwd, arg))
        last = (command, arg)
        if command in names:
            path = posixpath.normpath(posixpath.join(cwd, arg or "."))
            found.append((command, login_relative(path, login_dir)))
    return found


def login_relative(path, login_dir):
    """A server's absolute path as a path relative to login_dir."""
    base = login_dir.rstrip("/")
    if not base:
        return path
    if path == base:
        return "/"
    if path.startswith(base + "/"):
        return path[len(base):]
    return path


# ------------------------------------------------- raw answers, by ftplib

def ftp_session(server, passive=None):
    """An ftplib session logged in to server, in server's mode (or the
    mode given)."""
    ftp = ftplib.FTP()
    ftp.connect(server.host, server.port, timeout=10)
    ftp.login(server.user, server.password)
    ftp.set_pasv(server.passive if passive is None else passive)
    return ftp


def raw_list(server, command):
    """The exact bytes of a LIST/NLST answer in binary mode (ftplib does
    not touch them, unlike libcurl's ASCII line end conversion)."""
    ftp = ftp_session(server)
    try:
        chunks = []
        ftp.retrbinary(command, chunks.append)
        return b"".join(chunks)
    finally:
        ftp.quit()


def raw_answer(server, directory, command="LIST", ascii=True):
    """The exact bytes of the answer to a bare LIST (or NLST) in a
    directory (relative to the login directory, as brindle's paths are),
    passive, in ASCII mode as libcurl asks for listings (or binary)."""
    with ftplib.FTP() as ftp:
        ftp.connect(server.host, server.port, timeout=10)
        ftp.login(server.user, server.password)
        ftp.set_pasv(True)
        ftp.cwd(directory.lstrip("/") or ".")
        ftp.voidcmd("TYPE A" if ascii else "TYPE I")
        chunks = []
        with ftp.transfercmd(command) as conn:
            while True:
                data = conn.recv(65536)
                if not data:
                    break
                chunks.append(data)
        ftp.voidresp()
    return b"".join(chunks)


def raw_list_lines(server, directory):
    """The lines of a directory's LIST answer in binary mode, line ends
    included."""
    return raw_answer(server, directory, ascii=False).splitlines(
        keepends=True)


def curl_says(server, remote, *curl_args):
    """libcurl's own text for a request that fails: the curl program,
    built on the same libcurl as brindle, makes the request (the URL of a
    remote path, in the server's mode, with the given options) and prints
    the text after "curl: (CODE) ".  brindle's messages end in this text,
    which changes from one libcurl release to another."""
    done = server.curl(remote, *curl_args)
    text = done.stderr.decode("utf-8", "surrogateescape").rstrip("\n")
    assert done.status != 0 and text.startswith("curl: ("), done
    return text.split(") ", 1)[1]
