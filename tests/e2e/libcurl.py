"""The libcurl that brindle runs with, asked at run time: its version, its
description of a result code, and which of the known wordings of a message
it carries.

brindle's failure messages end in libcurl's own text: the description of a
result code, or the detailed text that libcurl left in its error buffer.
libcurl words some of these differently from release to release (7.88 on
Debian 12, 8.14 on Debian 13), and reaches some failures at another step, so
the tests take these texts from the library in use instead of pinning one
release's.  brindle's own part of a message never depends on it.

The library is the one the dynamic loader finds for brindle's dependency,
libcurl.so.4.
"""

import ctypes
import os
import re
import subprocess

SONAME = "libcurl.so.4"


class _VersionInfo(ctypes.Structure):
    # The leading members of curl_version_info_data, the same in every
    # release.
    _fields_ = [("age", ctypes.c_int), ("version", ctypes.c_char_p),
                ("version_num", ctypes.c_uint)]


_lib = ctypes.CDLL(SONAME)
_lib.curl_easy_strerror.restype = ctypes.c_char_p
_lib.curl_easy_strerror.argtypes = [ctypes.c_int]
_lib.curl_version_info.restype = ctypes.POINTER(_VersionInfo)
_lib.curl_version_info.argtypes = [ctypes.c_int]

# CURLVERSION_FIRST: only the members above are asked for.
_info = _lib.curl_version_info(0).contents
VERSION_TEXT = _info.version.decode("ascii")
VERSION = (_info.version_num >> 16, (_info.version_num >> 8) & 0xff,
           _info.version_num & 0xff)

# Result codes that the tests meet.
CURLE_COULDNT_CONNECT = 7


def strerror(code):
    """libcurl's description of a result code (curl_easy_strerror)."""
    return _lib.curl_easy_strerror(code).decode("utf-8")


def connect_failure(host, port):
    """A regular expression of libcurl's text for a connection to host and
    port that was refused: exact but for the milliseconds it tried and the
    way it names the address ("HOST port PORT" up to Debian 13's 8.14,
    "HOST:PORT" in unstable's 8.23, which may add " via ADDRESS:PORT": seen
    for a passive data connection, naming the address and the port of the
    PASV reply that it connected to)."""
    return (re.escape("Failed to connect to %s" % host) + "( port |:)"
            + re.escape("%d" % port) + r"( via [0-9.]+:[0-9]+)? after "
            + "[0-9]+"
            + re.escape(" ms: " + strerror(CURLE_COULDNT_CONNECT)))


def at_least(*version):
    """Whether the libcurl in use is this version or a later one, e.g.
    at_least(8, 0)."""
    return VERSION >= tuple(version)


def path():
    """The file of the libcurl loaded here, from /proc/self/maps."""
    with open("/proc/self/maps") as maps:
        for line in maps:
            fields = line.split(None, 5)
            if len(fields) == 6 and os.path.basename(
                    fields[5].strip()).startswith(SONAME):
                return fields[5].strip()
    raise RuntimeError("%s is not loaded" % SONAME)


_image = []


def wording(*texts):
    """The one of the given texts (the wordings that releases of libcurl
    gave one message) that the libcurl in use carries as a string of its
    own.  Fails unless exactly one of them is there."""
    if not _image:
        with open(path(), "rb") as f:
            _image.append(f.read())
    found = [t for t in texts if t.encode("utf-8") + b"\0" in _image[0]]
    if len(found) != 1:
        raise AssertionError("libcurl %s (%s) carries %r of the wordings %r"
                             % (VERSION_TEXT, path(), found, texts))
    return found[0]


def package():
    """The Debian package that holds the libcurl in use, and its version,
    e.g. "libcurl4 7.88.1-10+deb12u12"; "unknown" outside dpkg."""
    try:
        owner = subprocess.run(["dpkg", "-S", os.path.realpath(path())],
                               stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL)
        name = owner.stdout.decode().split(":", 1)[0].strip()
        version = subprocess.run(["dpkg-query", "-W", "-f", "${Version}",
                                  name], stdout=subprocess.PIPE,
                                 stderr=subprocess.DEVNULL)
    except OSError:
        return "unknown"
    if owner.returncode != 0 or version.returncode != 0:
        return "unknown"
    return "%s %s" % (name, version.stdout.decode().strip())
