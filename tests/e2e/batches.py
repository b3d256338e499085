"""How brindle spreads the deletions of one removal over requests, written
out independently of its code so that the tests can tell what the server
must receive.

libcurl before 8.14 (7.88.1 on Debian 12) counts the replies to a request's
pre-transfer commands against its 300 KiB limit on one request's replies, so
there brindle sends them in batches: each "NOOP" and as many whole commands
as fit in BUDGET, a command costing its length plus MARGIN.  Later libcurl
releases take the whole list in one request.  The test variable VARIABLE
forces either way on any libcurl.
"""

import libcurl

BUDGET = 153600
MARGIN = 64
VARIABLE = "BRINDLE_TEST_COMMAND_REPLIES"

# Whether the libcurl in use counts the replies, and so whether brindle
# splits when the test variable is not set.
COUNTED = not libcurl.at_least(8, 14)


def cost(command, arg=None):
    """The estimated cost of a command line, or of (command, argument)."""
    line = command if arg is None else (command + " " + arg if arg
                                        else command)
    return len(line.encode("utf-8", "surrogateescape")) + MARGIN


def split(deletions, counted=COUNTED):
    """The requests that carry deletions ((command, argument) pairs after
    the leading NOOP): a list of runs, each starting with ("NOOP", "")."""
    if not counted:
        return [[("NOOP", "")] + list(deletions)]
    runs = []
    run, spent = None, 0
    for command in deletions:
        if run is not None and len(run) > 1 and \
                spent + cost(*command) > BUDGET:
            runs.append(run)
            run = None
        if run is None:
            run, spent = [("NOOP", "")], cost("NOOP")
        run.append(command)
        spent += cost(*command)
    if run is not None:
        runs.append(run)
    return runs
