"""The FTP servers that brindle's end-to-end tests run, one module each.

Each module holds a server class (a subclass of base.FtpServer) that starts
the server in the foreground on 127.0.0.1 with its own configuration and a
temporary root, logs it in, reads back the commands it received, models
its LIST and NLST answers (its Dialect) and says what a user meets there.
A new server is one module here plus one line below; the conftest, the
compatibility matrix and docs/compatibility.md take it from this list.

The servers of the compatibility matrix, in the order of its columns, as
kind: "module:Class".
"""

import importlib

REGISTRY = {
    "scripted": "scripted:ScriptedServer",
    "vsftpd": "vsftpd:VsftpdServer",
    "proftpd": "proftpd:ProftpdServer",
    "pureftpd": "pureftpd:PureftpdServer",
    "vsftpd-nochroot": "vsftpd:VsftpdHomeServer",
    "proftpd-nochroot": "proftpd:ProftpdHomeServer",
    "twisted": "twisted_ftp:TwistedServer",
    "aioftp": "aioftp_ftp:AioftpServer",
    "inetutils": "inetutils_ftpd:InetutilsServer",
    "ftpd-ssl": "ftpd_ssl:FtpdSslServer",
    "gridftp": "gridftp:GridftpServer",
    "iis": "scripted:IisServer",
}

KINDS = list(REGISTRY)


def server_class(kind):
    """The server class of a kind of REGISTRY."""
    module, _, name = REGISTRY[kind].partition(":")
    return getattr(importlib.import_module("." + module, __name__), name)


def create(kind, account=None, options=()):
    """A new (not yet started) server of this kind; account is the local
    test account, for the servers that need one."""
    cls = server_class(kind)
    if cls.needs_account:
        return cls(account, options)
    return cls(options=options)
