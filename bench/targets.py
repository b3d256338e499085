"""The targets brindle is held to, checked against what a run measured:
targets() for the main suite, scale_targets() for the scale suite. The
reports print them as a table and bench.py as lines at the end of a run."""

from measure import (TOOLS, fmt_ratio, median, paired_ratio,
                     per_entry_ms)


def targets(runner):
    """(target, measured, met, note) for every target of the workloads that
    ran."""
    r = runner.results
    found = []

    def med(key, tool, attr):
        return median([getattr(s, attr) for s in r[key][tool]])

    for key in ("download-big", "upload-big"):
        if key not in r:
            continue
        wall = paired_ratio(r[key], "curl", "wall")
        cpu = paired_ratio(r[key], "curl", "cpu")
        rss = med(key, "brindle", "rss_kib") / 1024.0
        found.append(("%s: wall <= 1.05x curl" % key, fmt_ratio(wall),
                      wall <= 1.05, "brindle %.2f s, curl %.2f s" % (
                          med(key, "brindle", "wall"),
                          med(key, "curl", "wall"))))
        found.append(("%s: CPU <= 1.10x curl" % key, fmt_ratio(cpu),
                      cpu <= 1.10, "brindle %.2f s, curl %.2f s" % (
                          med(key, "brindle", "cpu"),
                          med(key, "curl", "cpu"))))
        found.append(("%s: peak RSS < 16 MiB" % key, "%.1f MiB" % rss,
                      rss < 16, ""))
    for key in ("download-small", "upload-small", "download-medium",
                "remove-small", "download-small-loaded",
                "upload-small-loaded"):
        if key not in r:
            continue
        # With one core busy, lftp is allowed a small lead.
        lftp_limit = 1.10 if key.endswith("-loaded") else 1.00
        lftp = paired_ratio(r[key], "lftp", "wall")
        curl = paired_ratio(r[key], "curl", "wall")
        users = runner.logins.get(key, {}).get("brindle", (None,))[0]
        stalls = "1 s stalls per run: brindle %g, curl %g, lftp %g" % tuple(
            med(key, tool, "stalls") for tool in TOOLS)
        if med(key, "brindle", "stalls"):
            stalls += ("; brindle's wall less 1 s per stall: %.2f s, lftp's "
                       "%.2f s" % (
                           median([s.wall - s.stalls
                                   for s in r[key]["brindle"]]),
                           med(key, "lftp", "wall")))
        found.append(("%s: wall <= %.2fx lftp" % (key, lftp_limit),
                      fmt_ratio(lftp), lftp <= lftp_limit, stalls))
        found.append(("%s: wall < 1.00x curl loop" % key, fmt_ratio(curl),
                      curl < 1.00, ""))
        found.append(("%s: one login per run" % key, "%s" % users,
                      users == 1, ""))
        if key.startswith(("download-small", "upload-small")):
            worst = max(s.stalls for s in r[key]["brindle"])
            found.append(("%s: no 1 s stall in any run" % key,
                          "at most %d per run" % worst, worst == 0,
                          "brindle's stalls per run: %s" % ", ".join(
                              str(s.stalls) for s in r[key]["brindle"])))
    if "list-entry" in r:
        ratio = paired_ratio(r["list-entry"], "curl", "wall")
        rss = med("list-entry", "brindle", "rss_kib") / 1024.0
        found.append(("list-entry: wall <= 1.5x curl fetching the LIST",
                      fmt_ratio(ratio), ratio <= 1.5,
                      "brindle %.3f s (CPU %.3f s), curl %.3f s" % (
                          med("list-entry", "brindle", "wall"),
                          med("list-entry", "brindle", "cpu"),
                          med("list-entry", "curl", "wall"))))
        found.append(("list-entry: peak RSS < 64 MiB", "%.1f MiB" % rss,
                      rss < 64, ""))
    return found


# The scale suite: the largest growth of brindle's cost per entry, from the
# smallest entry count to the largest, that still counts as flat (the
# machine's noise; fixed costs such as the login only make it fall).
FLAT_GROWTH = 1.25


def scale_targets(runner, planned):
    """(target, measured, met, note) for the scale suite, from the
    workloads `planned` (scale_workloads.scale_workloads(), every entry
    count): every command completes at the largest count; per family,
    brindle's cost per entry stays flat, its wall time is at most lftp's
    (download, upload, remove) and its peak RSS at most lftp's."""
    r = runner.results
    largest = max(w.size for w in planned)
    at_largest = [w for w in planned if w.size == largest]
    done = [w for w in at_largest if w.key in r]
    found = [("every command completes at %d entries" % largest,
              "%d of %d" % (len(done), len(at_largest)),
              len(done) == len(at_largest),
              ", ".join("%s not run or failed" % w.key
                        for w in at_largest if w.key not in r))]
    families = []
    for w in planned:
        if w.family not in families:
            families.append(w.family)
    for family in families:
        ran = [w for w in planned if w.family == family and w.key in r]
        if not ran:
            continue

        def ratios(attr):
            return [(w.size, paired_ratio(r[w.key], "lftp", attr))
                    for w in ran]

        def shown(pairs):
            return ", ".join("%d: %s" % (n, fmt_ratio(v)) for n, v in pairs)
        if len(ran) > 1:
            costs = [per_entry_ms(r[w.key]["brindle"], w.entries)
                     for w in ran]
            growth = costs[-1] / costs[0]
            found.append((
                "%s: brindle's cost per entry flat, %d to %d entries "
                "(growth <= %.2f)" % (family, ran[0].size, ran[-1].size,
                                      FLAT_GROWTH),
                fmt_ratio(growth), growth <= FLAT_GROWTH,
                "ms per entry: " + ", ".join(
                    "%d: %.4f" % (w.size, c) for w, c in zip(ran, costs))))
        if family.startswith(("download", "upload", "remove")):
            wall = ratios("wall")
            found.append(("%s: wall <= 1.00x lftp" % family, shown(wall),
                          all(v <= 1.00 for _, v in wall), ""))
        rss = ratios("rss_kib")
        found.append(("%s: peak RSS <= lftp's" % family, shown(rss),
                      all(v <= 1.00 for _, v in rss),
                      "brindle %s MiB, lftp %s MiB" % tuple(
                          ", ".join("%.1f" % (median(
                              [s.rss_kib for s in r[w.key][tool]]) / 1024.0)
                              for w in ran) for tool in ("brindle", "lftp"))))
    return found
