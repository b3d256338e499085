"""How brindle spreads work whose replies grow over several requests,
written out independently of its code so that the tests can tell what the
server must receive.

brindle sends the deletions of a removal as one request while their cost
fits BUDGET, and in batches beyond it: each "NOOP" and as many whole
commands as fit in the budget, a command costing its length plus MARGIN.
And it creates a long chain of missing directories in steps, each a request
of its own (directory_steps).  This holds on every libcurl.  The test
variable VARIABLE sets another budget, so that small trees split too.
"""

BUDGET = 153600
MARGIN = 64
VARIABLE = "BRINDLE_TEST_BATCH_BUDGET"


def env(budget=None):
    """The environment that gives brindle `budget` (None: its own)."""
    return {} if budget is None else {VARIABLE: str(budget)}


def cost(command, arg=None):
    """The estimated cost of a command line, or of (command, argument)."""
    line = command if arg is None else (command + " " + arg if arg
                                        else command)
    return len(line.encode("utf-8", "surrogateescape")) + MARGIN


def split(deletions, budget=BUDGET):
    """The requests that carry deletions ((command, argument) pairs after
    the leading NOOP): a list of runs, each starting with ("NOOP", "")."""
    runs = []
    run, spent = None, 0
    for command in deletions:
        if run is not None and len(run) > 1 and \
                spent + cost(*command) > budget:
            runs.append(run)
            run = None
        if run is None:
            run, spent = [("NOOP", "")], cost("NOOP")
        run.append(command)
        spent += cost(*command)
    if run is not None:
        runs.append(run)
    return runs


def directory_steps(names, login_length=0, budget=BUDGET):
    """The numbers of leading names of a chain of missing directories that
    brindle creates, each by a request of its own, before the request that
    creates the rest: a request passing through k existing directories and
    creating the next ones costs k * MARGIN, and for each new one its
    server path (login directory and chain so far) plus 3 * MARGIN."""
    creation, prefix = [], 0
    for name in names:
        prefix += 1 + len(name.encode("utf-8", "surrogateescape"))
        creation.append(login_length + prefix + 3 * MARGIN)
    steps, done = [], 0
    while done < len(creation):
        cost, end = done * MARGIN + creation[done], done + 1
        while end < len(creation) and cost + creation[end] <= budget:
            cost += creation[end]
            end += 1
        if end == len(creation):
            break
        steps.append(end)
        done = end
    return steps
