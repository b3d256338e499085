"""aioftp's FTP server (Debian's python3-aioftp), run by a small program of
ours on 127.0.0.1 with one account chrooted to the temporary root."""

from .base import PythonServer, module_version
from .dialect import Dialect, mode_string

# Runs after base.PROGRAM_PRELUDE, which gives it root, user, password,
# event() and listening().
PROGRAM = r'''
import asyncio
import pathlib

import aioftp


class LoggingServer(aioftp.Server):
    async def dispatcher(self, reader, writer):
        event("connect")
        try:
            return await aioftp.Server.dispatcher(self, reader, writer)
        finally:
            event("disconnect")

    async def parse_command(self, stream, *args, **kwargs):
        command, rest = await aioftp.Server.parse_command(
            self, stream, *args, **kwargs)
        event("command", command=command.upper(), arg=rest)
        return command, rest


async def main():
    users = [aioftp.User(user, password, base_path=pathlib.Path(root),
                         home_path="/",
                         permissions=[aioftp.Permission("/", readable=True,
                                                        writable=True)])]
    server = LoggingServer(users)
    await server.start(host="127.0.0.1", port=0)
    listening(server.server.sockets[0].getsockname()[1])
    await server.serve_forever()

asyncio.run(main())
'''


class AioftpDialect(Dialect):
    """aioftp's LIST: single blanks between the fields, owner and group
    "none", local time as "%b %e %H:%M" within half a year and
    "%b %e  %Y" otherwise, in directory order.  A link is shown as what
    it points to (a dangling one is left out); a fifo as a fifo."""

    follows_links = True
    sorted_list = False
    gmt = False

    def line(self, path, name=None):
        st = self.stat(path)
        name = path.name if name is None else name
        return "%s %d none none %d %s %s" % (
            mode_string(st), st.st_nlink, st.st_size, self.date(st.st_mtime),
            name)


class AioftpServer(PythonServer):
    """aioftp's server, chrooted to the temporary root."""

    kind = "aioftp"
    title = "aioftp"
    column = "aioftp"
    modules = ("aioftp",)
    PROGRAM = PROGRAM
    dialect = AioftpDialect
    refuses = frozenset(["NOOP", "NLST", "PORT"])
    expect = ("Passive mode only; `--remove` never works, nor `--list "
              "DIR/.` (use `--long-listing`).")
    format_note = (
        "Single blanks between the fields, owner and group `none`, local "
        "time with a blank-padded day (`Jan  1  2010`), entries in directory "
        "order; a symbolic link is shown as what it points to (a plain file "
        "with the target's size), a fifo as a fifo. The server does not "
        "implement `NOOP`, `NLST`, `SIZE`, `PORT` or `EPRT` (502): `--remove` "
        "always fails before it deletes anything (brindle sends `NOOP` in "
        "front of its `DELE` and `RMD` commands), `--list DIR/.` fails, and "
        "active mode fails altogether; passive listings, downloads and "
        "uploads work. Chrooted; files are stored as the server's own "
        "user.")

    def version(self):
        return "aioftp " + module_version("aioftp")
