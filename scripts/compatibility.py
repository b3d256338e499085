#!/usr/bin/python3
"""Runs brindle's compatibility matrix (tests/e2e/test_compat.py) and turns
its results into docs/compatibility.md.

    /usr/bin/python3 scripts/compatibility.py [--brindle build/brindle]

runs the matrix with pytest (as root, with the servers of
scripts/ftp-servers.sh unpacked), keeps pytest's junit XML report, and
writes the document from it: a table server x mode x scenario with each
outcome, the servers' versions, the date and the machine of the run, and
each server's LIST format with sample lines that the servers sent during
the run.  Its exit status is pytest's.

    /usr/bin/python3 scripts/compatibility.py --junit REPORT.xml

writes the document from an existing report of such a run instead (pytest
run with -o junit_family=xunit1 --junitxml=REPORT.xml).
"""

import argparse
import re
import os
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
E2E = os.path.join(REPO, "tests", "e2e")
TEST_FILE = os.path.join(E2E, "test_compat.py")
DEFAULT_OUTPUT = os.path.join(REPO, "docs", "compatibility.md")

# The servers, in the order of the registry in tests/e2e/servers; their
# names, format notes and versions come from the run's report.
sys.path.insert(0, E2E)
import servers  # noqa: E402

SERVERS = servers.KINDS
MODES = ["passive", "active"]

# (test function, parameter that tells the scenario apart, row title)
SCENARIOS = [
    ("test_list_contents_short", None,
     "`--list DIR/.`: a directory's contents (NLST)"),
    ("test_list_contents_long", None,
     "`--list DIR/. --long-listing`: contents (LIST)"),
    ("test_list_entry_short", None,
     "`--list PATH`: one entry (file, directory, link, `my file#1`, fifo)"),
    ("test_list_entry_long", None,
     "`--list PATH --long-listing`: one entry's LIST line"),
    ("test_download_tree", "links-skipped",
     "`--download --recursive`: a tree (links skipped)"),
    ("test_download_tree", "links-followed",
     "`--download --recursive --follow-symlinks`"),
    ("test_upload_tree", "links-skipped",
     "`--upload --recursive`: a tree (links skipped)"),
    ("test_upload_tree", "links-followed",
     "`--upload --recursive --follow-symlinks`"),
    ("test_remove_tree", None,
     "`--remove --recursive`: a tree with a link and a fifo"),
]

VARIANT_SCENARIOS = [
    ("test_variant_list_contents_long", "list contents, long"),
    ("test_variant_list_entry_long", "list one entry, long"),
    ("test_variant_download_tree", "download tree"),
    ("test_variant_remove_tree", "remove tree"),
]


# How to keep each variant's lines acceptable, by variant id prefix.
AVOID = {
    "proftpd[-R]": "leave `-R` out of ProFTPD's `ListOptions` (the default "
                   "has none)",
    "proftpd[-h]": "leave `-h` out of ProFTPD's `ListOptions`",
}


def run_matrix(brindle, report):
    argv = ["/usr/bin/python3", "-m", "pytest", "-q", "-p",
            "no:cacheprovider", "-rs", "-o", "junit_family=xunit1",
            "--junitxml=" + report, TEST_FILE, "--brindle",
            os.path.abspath(brindle)]
    print("$ " + " ".join(argv), flush=True)
    env = dict(os.environ, PYTHONDONTWRITEBYTECODE="1")
    return subprocess.call(argv, cwd=os.path.dirname(TEST_FILE), env=env)


class Case(object):
    def __init__(self, element):
        self.name = element.get("name")
        self.function = self.name.split("[")[0]
        self.properties = [(p.get("name"), p.get("value"))
                           for p in element.iter("property")]
        self.failure = None
        self.skipped = None
        for tag in ("failure", "error"):
            found = element.find(tag)
            if found is not None:
                self.failure = found.get("message") or tag
        found = element.find("skipped")
        if found is not None:
            self.skipped = found.get("message") or "skipped"

    def prop(self, name, default=None):
        for key, value in self.properties:
            if key == name:
                return value
        return default

    def props(self, name):
        return [v for k, v in self.properties if k == name]


def load(report):
    tree = ET.parse(report)
    root = tree.getroot()
    suite = root if root.tag == "testsuite" else root.find("testsuite")
    cases = [Case(e) for e in suite.iter("testcase")]
    return suite, cases


PORT = re.compile(r"(ftp://127\.0\.0\.1:)\d+")


def note_number(notes, text):
    """The number of this note below the table, the same for the same
    text."""
    if text not in notes:
        notes.append(text)
    return notes.index(text) + 1


def cell(case, notes):
    """The outcome of one test as a table cell; a failure message goes
    to the notes below the table (the servers' random ports shown as
    <port>)."""
    if case is None:
        return "not run"
    if case.failure is not None:
        text = "test failed: `%s`" % case.failure.splitlines()[0]
        return "**test failed** [%d]" % note_number(notes, text)
    if case.skipped is not None:
        text = "skipped: " + case.skipped
        return "skipped [%d]" % note_number(notes, text)
    failure = case.prop("brindle_failure")
    if failure is not None:
        text = "brindle fails as expected, exit status 1 and `%s`" % (
            PORT.sub(r"\1<port>", failure))
        if case.prop("why"):
            text += ": " + case.prop("why")
        return "exit 1 [%d]" % note_number(notes, text)
    return "pass"


def outcome_counts(cases, server, mode):
    """(passed, passed with an expected failure of brindle, other) of
    the main scenarios of one server and mode."""
    mine = [c for c in cases if is_scenario(c)
            and c.prop("server") == server and c.prop("mode") == mode]
    good = [c for c in mine if c.failure is None and c.skipped is None]
    expected = [c for c in good if c.prop("brindle_failure")]
    return len(good) - len(expected), len(expected), len(mine) - len(good)


def mode_row(cases, server, cell):
    """A table row of one server: its title, then for each mode
    cell(passed, expected failures, other) of outcome_counts()."""
    return [server_prop(cases, server, "title", server)] + [
        cell(*outcome_counts(cases, server, mode)) for mode in MODES]


def works_cell(good, expected, bad):
    """What works in a mode, for the table of what to expect."""
    if good + expected + bad == 0:
        return "not run"
    if bad:
        return "**%d test failures or skips**" % bad
    return "%d of %d work" % (good, good + expected)


def passes_cell(good, expected, bad):
    """How a mode's tests ended, for the summary."""
    text = "%d of %d pass" % (good, good + expected + bad)
    if expected:
        text += ", %d fail as expected" % expected
    if bad:
        text += ", **%d test failures or skips**" % bad
    return text


def is_scenario(case):
    """Whether a test is a cell of the matrix (not a check of the
    server's own behaviour, nor a variant)."""
    return case.function in {function for function, _, _ in SCENARIOS}


def find(cases, function, mode, server=None, variant=None, flag=None):
    for case in cases:
        if case.function != function or case.prop("mode") != mode:
            continue
        if flag is not None and flag not in case.name:
            continue
        if server is not None and case.prop("server") != server:
            continue
        if variant is not None and case.prop("server") != variant:
            continue
        return case
    return None


def server_prop(cases, server, name, default=""):
    """A property that the run recorded for a server (its title, column,
    format note, version)."""
    return next((c.prop(name) for c in cases if c.prop("server") == server
                 and c.prop(name) is not None), default)


def variant_title(cases, variant):
    """A server and the setting it was started with, for a variant id
    such as proftpd[-R]."""
    kind = variant.split("[")[0]
    options = next((c.prop("options") for c in cases
                    if c.prop("server") == variant and c.prop("options")),
                   variant)
    return "%s `%s`" % (server_prop(cases, variant, "title", kind), options)


def machine_lines(cases):
    for case in cases:
        machine = case.prop("machine")
        if machine:
            return machine.split("\n")
    return []


def summary(cases):
    main = [c for c in cases if is_scenario(c)]
    passed = sum(1 for c in main if c.failure is None and c.skipped is None)
    expected_failures = sum(1 for c in main if c.failure is None and
                            c.skipped is None and c.prop("brindle_failure"))
    return len(main), passed, expected_failures


def render(suite, cases):
    out = []
    w = out.append
    total, passed, expected_failures = summary(cases)
    failures = sum(1 for c in cases if c.failure is not None)
    skipped = sum(1 for c in cases if c.skipped is not None)
    w("# Compatibility")
    w("")
    w("<!-- Written by scripts/compatibility.py from a run of "
      "tests/e2e/test_compat.py; do not edit by hand. -->")
    w("")
    w("brindle against the FTP servers of Debian, each in passive and "
      "active mode, on 127.0.0.1: vsftpd, ProFTPD, Pure-FTPd, Twisted, "
      "aioftp, GNU inetutils ftpd, ftpd-ssl and Globus GridFTP, a "
      "pyftpdlib server, and that server in an IIS-like mode with "
      "DOS-style listings; vsftpd and ProFTPD also without chroot, where "
      "the login directory is the account's home by its machine path "
      "rather than the server's `/`.")
    w("")
    w("## Which server, what to expect")
    w("")
    w("| Server | Passive | Active | What to expect |")
    w("|---|---|---|---|")
    for server in SERVERS:
        row = mode_row(cases, server, works_cell) + [
            server_prop(cases, server, "expect", "")]
        w("| " + " | ".join(row) + " |")
    w("")
    w("Every cell of the matrix below is one test of "
      "`tests/e2e/test_compat.py` that checks brindle's exact standard "
      "output, standard error and exit status, the files on disk and on "
      "the server, and the commands the server logged; where brindle "
      "fails, the test expects that exact failure, and a note says why. "
      "The expected listings are computed from the files the server has, "
      "through a model of each server's LIST format (below).")
    w("")
    w("## The run")
    w("")
    w("- Date: %s (UTC)" % suite.get("timestamp", "?").replace("T", " ")
      .split(".")[0])
    w("- Machine: %s" % suite.get("hostname", "?"))
    for line in machine_lines(cases):
        w("- %s" % line)
    w("- Tests: %s, failed %d, skipped %d, in %.0f s" % (
        suite.get("tests", len(cases)), failures, skipped,
        float(suite.get("time", 0))))
    w("")
    w("| Server | Version |")
    w("|---|---|")
    for server in SERVERS:
        w("| %s | %s |" % (server_prop(cases, server, "title", server),
                           server_prop(cases, server, "version", "not run")))
    w("")
    w("## Summary")
    w("")
    w("| Server | Passive | Active |")
    w("|---|---|---|")
    for server in SERVERS:
        w("| " + " | ".join(mode_row(cases, server, passes_cell)) + " |")
    w("")
    w("## Matrix")
    w("")
    w("%d scenario runs, %d passed; in %d of them brindle fails, exactly "
      "as expected for that server (the numbered notes say how and why)."
      % (total, passed, expected_failures))
    w("")
    notes = []
    header = "| Scenario | " + " | ".join(
        "%s %s" % (server_prop(cases, s, "column", s), m)
        for s in SERVERS for m in MODES) + " |"
    w(header)
    w("|---" * (1 + len(SERVERS) * len(MODES)) + "|")
    for function, flag, title in SCENARIOS:
        row = [title]
        for server in SERVERS:
            for mode in MODES:
                row.append(cell(find(cases, function, mode, server=server,
                                     flag=flag), notes))
        w("| " + " | ".join(row) + " |")
    w("")
    for number, note in enumerate(notes, 1):
        w("%d. %s" % (number, note))
    if notes:
        w("")

    w("## LIST formats")
    w("")
    w("Sample lines as each server sent them in the run, in ASCII mode "
      "as libcurl asks for listings (raw bytes, line ends included; "
      "libcurl turns CRLF into LF before brindle reads them). The samples list the folder `list` of the scenarios: a file "
      "with an old and one with a recent date, an empty file, binary "
      "files, `my file#1`, a directory, a symbolic link and a fifo.")
    w("")
    for server in SERVERS:
        w("### %s" % server_prop(cases, server, "title", server))
        w("")
        w(server_prop(cases, server, "format_note", "(not run)"))
        w("")
        case = find(cases, "test_list_contents_long", "passive",
                    server=server)
        lines = case.props("list_line") if case is not None else []
        if lines:
            w("```")
            for line in lines:
                w(line)
            w("```")
        else:
            w("(no sample: the scenario did not run)")
        w("")

    w("## Settings whose LIST lines brindle rejects")
    w("")
    w("brindle reads LIST lines with one fixed pattern (Unix `ls -l` style "
      "or DOS style). Of the servers above, GNU inetutils ftpd, ftpd-ssl "
      "and GridFTP send lines the pattern rejects whatever their settings "
      "(see their notes); vsftpd, ProFTPD and Pure-FTPd in their default "
      "configuration do not. Some of their settings change that. Each row below is a server started with one setting; "
      "listing a directory's contents only passes the answer through, "
      "while the commands that must parse lines fail with status 1 and "
      "`Unable to parse FTP LIST output '<line>'`, before anything is "
      "changed.")
    w("")
    variants = []
    for case in cases:
        if case.function.startswith("test_variant"):
            name = case.prop("server")
            if name and name not in variants:
                variants.append(name)
    notes = []
    w("| Server and setting | Mode | " + " | ".join(
        t for _, t in VARIANT_SCENARIOS) + " |")
    w("|---|---|" + "---|" * len(VARIANT_SCENARIOS))
    for variant in variants:
        for mode in MODES:
            row = [variant_title(cases, variant), mode]
            for function, _ in VARIANT_SCENARIOS:
                row.append(cell(find(cases, function, mode, variant=variant),
                                notes))
            w("| " + " | ".join(row) + " |")
    w("")
    for number, note in enumerate(notes, 1):
        w("%d. %s" % (number, note))
    if notes:
        w("")
    for variant in variants:
        vcases = [c for c in cases if c.prop("server") == variant]
        effect = next((c.prop("setting") for c in vcases
                       if c.prop("setting")), "")
        rejected = next((c.prop("rejected_line") for c in vcases
                         if c.prop("rejected_line") is not None), None)
        samples = next((c.props("list_line") for c in vcases
                        if c.props("list_line")), [])
        w("### %s" % variant_title(cases, variant))
        w("")
        w("Effect: %s." % effect)
        if rejected is not None:
            w("First line brindle rejects: `'%s'`. To avoid it: %s." % (
                rejected, AVOID.get(variant, "do not use this setting")))
        else:
            w("Every line parses; brindle works with this setting.")
        w("")
        if samples:
            w("```")
            for line in samples:
                w(line)
            w("```")
            w("")
    w("Seen while exploring, outside the matrix: ProFTPD's `ListStyle "
      "Windows` sends DOS-style lines, which the pattern accepts, but "
      "shows links and fifos as plain files with a size; Pure-FTPd's `-b` "
      "shows links as plain files; ProFTPD's `ListOptions -F` appends "
      "`/` to directory names (`sub/`). vsftpd's `ls_recurse_enable` "
      "acts only on a client's "
      "`LIST -R`, which brindle never sends.")
    w("")
    return "\n".join(out)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--brindle", default=os.path.join(REPO, "build",
                                                          "brindle"))
    parser.add_argument("--junit", help="convert this report, run nothing")
    parser.add_argument("--output", default=DEFAULT_OUTPUT)
    args = parser.parse_args(argv)

    status = 0
    tmp = None
    report = args.junit
    if report is None:
        tmp = tempfile.mkdtemp(prefix="brindle-compat-")
        report = os.path.join(tmp, "compat.xml")
        status = run_matrix(args.brindle, report)
        if not os.path.exists(report):
            print("compatibility.py: pytest wrote no report", file=sys.stderr)
            return status or 1
    try:
        suite, cases = load(report)
        text = render(suite, cases)
    finally:
        if tmp is not None:
            for name in os.listdir(tmp):
                os.unlink(os.path.join(tmp, name))
            os.rmdir(tmp)
    os.makedirs(os.path.dirname(os.path.abspath(args.output)), exist_ok=True)
    with open(args.output, "w", encoding="utf-8") as f:
        f.write(text)
    print("compatibility.py: wrote %s" % args.output)
    return status


if __name__ == "__main__":
    sys.exit(main())
