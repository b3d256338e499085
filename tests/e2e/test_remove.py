"""End-to-end tests of "brindle --remove".

A removal first walks the remote tree with LIST requests and then sends
"NOOP" and every "DELE"/"RMD" as the pre-transfer commands of one last
request, so the server log shows the collection phase and the deletions as
two separate stretches.  Both test servers list directories sorted by name,
which fixes the order in which the children are visited.
"""


import pytest

import ftptest
from checks import assert_no_connection, assert_ok
from ftptest import DIR, named, snapshot



# ------------------------------------------------------------------ helpers



def remove(brindle, server, remote, *flags):
    return brindle.run("--remove", "--remote-path", remote, *flags,
                       *server.args())




def deletion_runs(commands):
    """Each NOOP with the DELE/RMD commands that directly follow it."""
    runs = []
    for i, (command, arg) in enumerate(commands):
        if command != "NOOP":
            continue
        run = [(command, arg)]
        for following in commands[i + 1:]:
            if following[0] not in ("DELE", "RMD"):
                break
            run.append(following)
        runs.append(run)
    return runs


def assert_deletions(server, expected):
    """The server received exactly these NOOP/DELE/RMD commands, each run
    of DELE/RMD right after its NOOP, and none of them anywhere else."""
    commands = server.commands()
    assert named(commands, "NOOP", "DELE", "RMD") == expected
    runs = []
    for command in expected:
        if command[0] == "NOOP":
            runs.append([])
        runs[-1].append(command)
    assert deletion_runs(commands) == runs


def assert_single_login(server):
    assert named(server.commands(), "USER") == [("USER", server.user)]


def url(server, path=""):
    return "ftp://127.0.0.1:%d%s" % (server.port, path)


def file_line(name, size=1):
    return "-rw-r--r-- 1 u g %d Jan 01  2020 %s" % (size, name)


def dir_line(name):
    return "drwxr-xr-x 2 u g 4096 Jan 01  2020 %s" % name


def make_sample_tree(server):
    """/t with files, a nested and an empty directory and a link that
    points out of the tree (its target must survive)."""
    server.make_file("t/a.txt", b"a")
    server.make_file("t/b/c.txt", b"c")
    server.make_dir("t/b/d")
    server.make_file("t/b/e.bin", bytes(range(256)))
    server.make_file("t/f.txt", b"f")
    server.make_file("keep/k.txt", b"kept")
    server.make_symlink("t/lnk", "../keep")
    server.make_file("other.txt", b"other")


# ------------------------------------------------------------------- files

def test_remove_one_file(brindle, any_server):
    any_server.make_file("d/f.txt", b"doomed")
    any_server.make_file("d/g.txt", b"stays")

    result = remove(brindle, any_server, "/d/f.txt")

    assert_ok(result)
    assert_deletions(any_server, [("NOOP", ""), ("DELE", "/d/f.txt")])
    assert_single_login(any_server)
    assert snapshot(any_server.root) == {"d": DIR, "d/g.txt": b"stays"}


def test_remove_file_at_the_root_with_a_path_to_normalise(brindle, scripted):
    scripted.make_file("f.txt", b"doomed")
    scripted.make_file("d/g.txt", b"stays")

    result = remove(brindle, scripted, "//d/../x/./..//f.txt")

    assert_ok(result)
    assert_deletions(scripted, [("NOOP", ""), ("DELE", "/f.txt")])
    assert snapshot(scripted.root) == {"d": DIR, "d/g.txt": b"stays"}


def test_remove_file_ignores_recursive(brindle, scripted):
    scripted.make_file("d/f.txt", b"doomed")

    result = remove(brindle, scripted, "/d/f.txt", "--recursive")

    assert_ok(result)
    assert_deletions(scripted, [("NOOP", ""), ("DELE", "/d/f.txt")])
    assert snapshot(scripted.root) == {"d": DIR}


# ------------------------------------------------------------------- trees

def test_remove_tree(brindle, any_server):
    make_sample_tree(any_server)

    result = remove(brindle, any_server, "/t", "--recursive")

    assert_ok(result)
    assert_deletions(any_server, [
        ("NOOP", ""),
        ("DELE", "/t/a.txt"),
        ("DELE", "/t/b/c.txt"),
        ("RMD", "/t/b/d"),
        ("DELE", "/t/b/e.bin"),
        ("RMD", "/t/b"),
        ("DELE", "/t/f.txt"),
        ("DELE", "/t/lnk"),
        ("RMD", "/t"),
    ])
    assert_single_login(any_server)
    # One listing for the lookup, one per directory, one for the request
    # that carries the deletions.
    assert len(named(any_server.commands(), "LIST")) == 5
    assert snapshot(any_server.root) == {"keep": DIR, "keep/k.txt": b"kept",
                                         "other.txt": b"other"}


def test_remove_directory_without_recursive(brindle, any_server):
    any_server.make_file("d/f.txt", b"f")

    result = remove(brindle, any_server, "/d")

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (b"Unable to remove remote directory '/d': "
                             b"recursive operation isn't allowed\n")
    assert_deletions(any_server, [])
    assert snapshot(any_server.root) == {"d": DIR, "d/f.txt": b"f"}


def test_remove_empty_directory(brindle, any_server):
    any_server.make_dir("e")
    any_server.make_file("f.txt", b"f")

    result = remove(brindle, any_server, "/e", "--recursive")

    assert_ok(result)
    assert_deletions(any_server, [("NOOP", ""), ("RMD", "/e")])
    assert snapshot(any_server.root) == {"f.txt": b"f"}


def test_remove_symlinks_as_themselves(brindle, any_server):
    any_server.make_file("d/target.txt", b"target")
    any_server.make_file("d/sub/inner.txt", b"inner")
    any_server.make_symlink("d/link", "target.txt")
    any_server.make_symlink("d/dirlink", "sub")

    first = remove(brindle, any_server, "/d/link")
    # A link to a directory is no directory: no --recursive needed.
    second = remove(brindle, any_server, "/d/dirlink")

    for result in (first, second):
        assert_ok(result)
    assert_deletions(any_server, [("NOOP", ""), ("DELE", "/d/link"),
                                  ("NOOP", ""), ("DELE", "/d/dirlink")])
    assert snapshot(any_server.root) == {
        "d": DIR, "d/target.txt": b"target",
        "d/sub": DIR, "d/sub/inner.txt": b"inner"}


def test_remove_paths_with_spaces(brindle, any_server):
    any_server.make_file("my dir/a file.txt", b"a")
    any_server.make_file("my dir/sub dir/x  y.txt", b"xy")
    any_server.make_file("my dir2/keep me.txt", b"k")

    result = remove(brindle, any_server, "/my dir", "--recursive")

    assert_ok(result)
    assert_deletions(any_server, [
        ("NOOP", ""),
        ("DELE", "/my dir/a file.txt"),
        ("DELE", "/my dir/sub dir/x  y.txt"),
        ("RMD", "/my dir/sub dir"),
        ("RMD", "/my dir"),
    ])
    assert snapshot(any_server.root) == {"my dir2": DIR,
                                         "my dir2/keep me.txt": b"k"}


# ---------------------------------------------------------- relative paths

def sessions_of(server, names):
    """(session, command, arg) of the logged commands named in names."""
    return [(e["session"], e["command"], e["arg"]) for e in server.log()
            if e["event"] == "command" and e["command"] in names]


def test_remove_relative_file_logs_in_afresh(brindle, scripted):
    scripted.make_file("d/f.txt", b"doomed")
    scripted.make_file("d/g.txt", b"stays")

    result = remove(brindle, scripted, "d/f.txt")

    assert_ok(result)
    assert_deletions(scripted, [("NOOP", ""), ("DELE", "d/f.txt")])
    # The lookup runs in the first session; the deletion request opens a
    # second one, so the relative path is resolved against the login
    # directory and not against the directory the lookup changed into.
    assert sessions_of(scripted, {"USER", "LIST", "NOOP", "DELE"}) == [
        (1, "USER", scripted.user), (1, "LIST", ""),
        (2, "USER", scripted.user), (2, "NOOP", ""), (2, "DELE", "d/f.txt"),
        (2, "LIST", ""),
    ]
    assert snapshot(scripted.root) == {"d": DIR, "d/g.txt": b"stays"}


def test_remove_relative_tree(brindle, scripted):
    scripted.make_file("t/a.txt", b"a")
    scripted.make_file("t/sub/b.txt", b"b")
    scripted.make_file("t/sub/deeper/c.txt", b"c")
    scripted.make_file("z.txt", b"z")

    result = remove(brindle, scripted, "./t", "--recursive")

    assert_ok(result)
    expected = [
        ("NOOP", ""),
        ("DELE", "t/a.txt"),
        ("DELE", "t/sub/b.txt"),
        ("DELE", "t/sub/deeper/c.txt"),
        ("RMD", "t/sub/deeper"),
        ("RMD", "t/sub"),
        ("RMD", "t"),
    ]
    assert_deletions(scripted, expected)
    logins = [s for s, c, a in sessions_of(scripted, {"USER"})]
    deleting = {s for s, c, a
                in sessions_of(scripted, {"NOOP", "DELE", "RMD"})}
    # The walk's session, then a fresh one for the deletions.
    assert logins == [1, 2]
    assert deleting == {2}
    assert snapshot(scripted.root) == {"z.txt": b"z"}


# ------------------------------------------------------ collection failures

def test_remove_unparseable_line_deep_in_the_tree(brindle, scripted):
    scripted.make_file("t/a.txt", b"a")
    scripted.make_file("t/b/c.txt", b"c")
    scripted.make_file("t/b/d/e.txt", b"e")
    scripted.make_file("t/z.txt", b"z")
    before = snapshot(scripted.root)
    scripted.script({"listings": {"/t/b/d": {"lines": [
        file_line("e.txt"), "this is no listing line", file_line("f.txt")]}}})

    result = remove(brindle, scripted, "/t", "--recursive")

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (b"Unable to parse FTP LIST output "
                             b"'this is no listing line'\n")
    assert_deletions(scripted, [])
    assert snapshot(scripted.root) == before


def test_remove_total_line_is_unparseable(brindle, scripted):
    scripted.make_file("t/a.txt", b"a")
    before = snapshot(scripted.root)
    scripted.script({"listings": {"/t": {"lines": [
        "total 8", file_line("a.txt")]}}})

    result = remove(brindle, scripted, "/t", "--recursive")

    assert (result.status, result.stdout, result.stderr) == (
        1, b"", b"Unable to parse FTP LIST output 'total 8'\n"), result
    assert_deletions(scripted, [])
    assert snapshot(scripted.root) == before


def test_remove_passes_over_dot_entries(brindle, scripted):
    scripted.make_file("t/a.txt", b"a")
    scripted.make_file("t/.hidden", b"h")
    scripted.make_file("t/sub/x.txt", b"x")
    scripted.make_file("keep.txt", b"k")
    scripted.script({"listings": {
        "/t": {"lines": [
            dir_line("."), dir_line(".."), file_line(".hidden"),
            file_line("a.txt"), dir_line("sub")]},
        "/t/sub": {"lines": [
            file_line("x.txt"), dir_line(".."),
            "lrwxrwxrwx 1 u g 1 Jan 01  2020 . -> /",
            file_line("..")]},
    }})

    result = remove(brindle, scripted, "/t", "--recursive")

    assert_ok(result)
    assert_deletions(scripted, [
        ("NOOP", ""),
        ("DELE", "/t/.hidden"),
        ("DELE", "/t/a.txt"),
        ("DELE", "/t/sub/x.txt"),
        ("RMD", "/t/sub"),
        ("RMD", "/t"),
    ])
    assert snapshot(scripted.root) == {"keep.txt": b"k"}


@pytest.mark.parametrize("line, shown", [
    (file_line("../evil"), b"/t/sub/../evil"),
    (file_line("a/b"), b"/t/sub/a/b"),
    (file_line("x/"), b"/t/sub/x/"),
    (dir_line("nested/dir"), b"/t/sub/nested/dir"),
    ("lrwxrwxrwx 1 u g 1 Jan 01  2020 l/k -> z", b"/t/sub/l/k"),
        # A NUL byte cannot travel in the message text; it is shown as "\0".
    (ftptest.b64(b"-rw-r--r-- 1 u g 1 Jan 01  2020 a\x00b"), b"/t/sub/a\\0b"),
], ids=["dot-dot", "slash", "trailing-slash", "directory", "link-name",
        "nul-byte"])
def test_remove_unsafe_name_deletes_nothing(brindle, scripted, line, shown):
    scripted.make_file("t/a.txt", b"a")
    scripted.make_file("t/sub/fine.txt", b"fine")
    scripted.make_file("evil", b"must survive")
    before = snapshot(scripted.root)
    scripted.script({"listings": {"/t/sub": {"lines": [
        file_line("fine.txt"), line, file_line("later.txt")]}}})

    result = remove(brindle, scripted, "/t", "--recursive")

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (b"Unable to remove remote path '" + shown +
                             b"': unsafe file name\n")
    assert_deletions(scripted, [])
    assert snapshot(scripted.root) == before


def test_remove_link_target_may_hold_slashes(brindle, scripted):
    # Only the link's own name counts, not where it points.
    scripted.make_file("t/real.txt", b"r")
    scripted.make_file("outside/x.txt", b"x")
    scripted.make_symlink("t/up", "../outside/x.txt")

    result = remove(brindle, scripted, "/t", "--recursive")

    assert_ok(result)
    assert_deletions(scripted, [("NOOP", ""), ("DELE", "/t/real.txt"),
                                ("DELE", "/t/up"), ("RMD", "/t")])
    assert snapshot(scripted.root) == {"outside": DIR,
                                       "outside/x.txt": b"x"}


@pytest.mark.parametrize("remote, shown", [
    ("/nope", "/nope"),
    ("/", "/"),
    ("/d/", "/d/"),
    ("/d/f.txt/..", "/d/"),
    ("/d/missing.txt", "/d/missing.txt"),
])
def test_remove_missing_path(brindle, scripted, remote, shown):
    scripted.make_file("d/f.txt", b"f")

    result = remove(brindle, scripted, remote, "--recursive")

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (
        "Unable to find remote path '%s'\n" % shown).encode()
    assert_deletions(scripted, [])
    assert snapshot(scripted.root) == {"d": DIR, "d/f.txt": b"f"}


def test_remove_invalid_path_connects_nowhere(brindle, scripted):
    result = remove(brindle, scripted, "a/../..")

    assert (result.status, result.stdout, result.stderr) == (
        1, b"", b"Invalid path 'a/../..'\n"), result
    assert_no_connection(scripted)


# ------------------------------------------------------ execution failures

def test_remove_refused_midway(brindle, scripted):
    scripted.make_file("d/a.txt", b"a")
    scripted.make_file("d/b.txt", b"b")
    scripted.make_file("d/c.txt", b"c")
    scripted.script({"failures": [
        {"command": "DELE", "arg": "/d/b.txt",
         "reply": "550 Scripted refusal"}]})

    result = remove(brindle, scripted, "/d", "--recursive")

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (
        "Unable to perform request for '%s': QUOT command failed with 550\n"
        % url(scripted)).encode()
    # Deletions before the refused one took effect; the rest never went out.
    assert_deletions(scripted, [("NOOP", ""), ("DELE", "/d/a.txt"),
                                ("DELE", "/d/b.txt")])
    assert snapshot(scripted.root) == {"d": DIR, "d/b.txt": b"b",
                                       "d/c.txt": b"c"}


def test_remove_refused_directory_removal(brindle, scripted):
    scripted.make_file("d/sub/a.txt", b"a")
    scripted.make_file("d/z.txt", b"z")
    scripted.script({"failures": [
        {"command": "RMD", "arg": "/d/sub",
         "reply": "550 Directory busy"}]})

    result = remove(brindle, scripted, "/d", "--recursive")

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (
        "Unable to perform request for '%s': QUOT command failed with 550\n"
        % url(scripted)).encode()
    assert_deletions(scripted, [("NOOP", ""), ("DELE", "/d/sub/a.txt"),
                                ("RMD", "/d/sub")])
    assert snapshot(scripted.root) == {"d": DIR, "d/sub": DIR,
                                       "d/z.txt": b"z"}


# ------------------------------------------------------- login directories

# How the scripted server answers PWD, and the login directory it puts the
# session in (below its root, as a server without chroot would): (script,
# files' folder below the served root, command path prefix for absolute
# remote paths, whether the deletions need a login of their own).
HOME = "/home/u"
QUOTED_HOME = '/home/my "q" dir'
LOGIN_DIRECTORIES = {
    # A chrooted server: the commands are exactly the walk's paths.
    "root": ({}, "", "/", False),
    "home": ({"login_dir": HOME}, "home/u/", HOME + "/", False),
    "home-trailing-slash": (
        {"login_dir": HOME, "failures": [
            {"command": "PWD",
             "reply": '257 "/home/u/" is the current directory.'}]},
        "home/u/", HOME + "/", False),
    # pyftpdlib doubles the quotes, libcurl undoes that.
    "quoted-name": ({"login_dir": QUOTED_HOME}, QUOTED_HOME[1:] + "/",
                    QUOTED_HOME + "/", False),
    # libcurl knows no login directory: the commands are relative.
    "pwd-refused": (
        {"login_dir": HOME, "failures": [
            {"command": "PWD", "reply": "550 PWD refused"}]},
        "home/u/", "", True),
    "not-absolute": (
        {"login_dir": HOME, "failures": [
            {"command": "PWD", "reply": '257 "QGPL" is the current library.'}]},
        "home/u/", "", True),
}


def make_site(server, folder):
    """/site/old below folder: a file and a nested one."""
    server.make_file(folder + "site/old/a.txt", b"a")
    server.make_file(folder + "site/old/img/x.png", b"x")
    server.make_file(folder + "site/keep.txt", b"k")


def make_decoy(server):
    """The same tree at the server's own absolute path /site/old, outside a
    login directory below the root; returns its snapshot."""
    server.make_file("site/old/a.txt", b"decoy a")
    server.make_file("site/old/img/x.png", b"decoy x")
    return snapshot(server.path("site"))


def below_login_directory(server, case):
    """Scripts the server's login directory as a case of
    LOGIN_DIRECTORIES says and puts the site below it, and the decoy at
    the server's own /site where that is another place; returns the
    case's files' folder, command path prefix and whether the deletions
    need a login of their own, and the decoy's snapshot (or None)."""
    script, folder, prefix, afresh = LOGIN_DIRECTORIES[case]
    server.script(script)
    make_site(server, folder)
    decoy = make_decoy(server) if folder else None
    return folder, prefix, afresh, decoy


@pytest.mark.parametrize("case", sorted(LOGIN_DIRECTORIES))
def test_remove_file_below_the_login_directory(brindle, scripted, case):
    folder, prefix, afresh, decoy = below_login_directory(scripted, case)

    result = remove(brindle, scripted, "/site/old/a.txt")

    assert_ok(result)
    delete = ("DELE", prefix + "site/old/a.txt")
    assert_deletions(scripted, [("NOOP", ""), delete])
    # The lookup, then the deletions: on the same connection, or on a login
    # of their own that starts in the login directory.
    second = 2 if afresh else 1
    assert sessions_of(scripted, {"USER", "LIST", "NOOP", "DELE"}) == [
        (1, "USER", scripted.user), (1, "LIST", ""),
    ] + ([(2, "USER", scripted.user)] if afresh else []) + [
        (second, "NOOP", ""), (second,) + delete, (second, "LIST", ""),
    ]
    assert snapshot(scripted.path(folder + "site")) == {
        "keep.txt": b"k", "old": DIR, "old/img": DIR, "old/img/x.png": b"x"}
    if decoy is not None:
        assert snapshot(scripted.path("site")) == decoy


@pytest.mark.parametrize("case", sorted(LOGIN_DIRECTORIES))
def test_remove_tree_below_the_login_directory(brindle, scripted, case):
    folder, prefix, afresh, decoy = below_login_directory(scripted, case)

    result = remove(brindle, scripted, "/site/old", "--recursive")

    assert_ok(result)
    deletions = [
        ("DELE", prefix + "site/old/a.txt"),
        ("DELE", prefix + "site/old/img/x.png"),
        ("RMD", prefix + "site/old/img"),
        ("RMD", prefix + "site/old"),
    ]
    assert_deletions(scripted, [("NOOP", "")] + deletions)
    if afresh:
        # libcurl cannot bring a kept connection back to a login directory
        # it does not know: every request logs in afresh.
        expected = [
            (1, "USER", scripted.user), (1, "LIST", ""),
            (2, "USER", scripted.user), (2, "LIST", ""),
            (3, "USER", scripted.user), (3, "LIST", ""),
            (4, "USER", scripted.user), (4, "NOOP", ""),
        ] + [(4,) + d for d in deletions] + [(4, "LIST", "")]
    else:
        expected = [
            (1, "USER", scripted.user), (1, "LIST", ""), (1, "LIST", ""),
            (1, "LIST", ""), (1, "NOOP", ""),
        ] + [(1,) + d for d in deletions] + [(1, "LIST", "")]
    assert sessions_of(scripted, {"USER", "LIST", "NOOP", "DELE",
                                  "RMD"}) == expected
    assert snapshot(scripted.path(folder + "site")) == {"keep.txt": b"k"}
    if decoy is not None:
        assert snapshot(scripted.path("site")) == decoy


def test_remove_relative_path_below_the_login_directory(brindle, scripted):
    scripted.script({"login_dir": HOME})
    make_site(scripted, "home/u/")
    decoy = make_decoy(scripted)

    result = remove(brindle, scripted, "site/old", "--recursive")

    assert_ok(result)
    assert_deletions(scripted, [
        ("NOOP", ""), ("DELE", "site/old/a.txt"),
        ("DELE", "site/old/img/x.png"), ("RMD", "site/old/img"),
        ("RMD", "site/old")])
    # Relative commands: a login of their own, in the login directory.
    logins = [s for s, c, a in sessions_of(scripted, {"USER"})]
    deleting = {s for s, c, a in sessions_of(scripted, {"NOOP", "DELE", "RMD"})}
    assert (logins, deleting) == ([1, 2], {2})
    assert snapshot(scripted.path("home/u/site")) == {"keep.txt": b"k"}
    assert snapshot(scripted.path("site")) == decoy


def test_remove_path_with_spaces_below_the_login_directory(brindle, scripted):
    scripted.script({"login_dir": QUOTED_HOME})
    base = QUOTED_HOME[1:] + "/"
    scripted.make_file(base + "my dir/a file.txt", b"a")
    scripted.make_file(base + "my dir/sub dir/x  y.txt", b"xy")
    scripted.make_file("my dir/a file.txt", b"decoy")
    decoy = snapshot(scripted.path("my dir"))

    result = remove(brindle, scripted, "/my dir", "--recursive")

    assert_ok(result)
    assert_deletions(scripted, [
        ("NOOP", ""),
        ("DELE", QUOTED_HOME + "/my dir/a file.txt"),
        ("DELE", QUOTED_HOME + "/my dir/sub dir/x  y.txt"),
        ("RMD", QUOTED_HOME + "/my dir/sub dir"),
        ("RMD", QUOTED_HOME + "/my dir"),
    ])
    assert_single_login(scripted)
    assert snapshot(scripted.path(QUOTED_HOME[1:])) == {}
    assert snapshot(scripted.path("my dir")) == decoy
