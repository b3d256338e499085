"""The gnuplot charts beside the reports: median wall time and peak RSS per
workload and tool, on log scales (write_chart), and for the scale suite per
entry count (write_scale_chart)."""

import subprocess

from measure import TOOLS, median, per_entry_ms

SCRIPT = """
set terminal pngcairo size 1200,900 font ",10"
set output '{png}'
set multiplot layout 2,1 title "brindle, curl and lftp against vsftpd on 127.0.0.1 (median of {runs} runs)"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set boxwidth 0.9
set grid ytics
set key top left
set logscale y
set xtics rotate by -20 nomirror
set ylabel "wall time (s, log scale)"
plot '{data}' using 2:xtic(1) title 'brindle' lc rgb '#1f77b4', \\
     '' using 3 title 'curl' lc rgb '#ff7f0e', \\
     '' using 4 title 'lftp' lc rgb '#2ca02c'
set ylabel "peak RSS (MiB, log scale)"
plot '{data}' using 5:xtic(1) title 'brindle' lc rgb '#1f77b4', \\
     '' using 6 title 'curl' lc rgb '#ff7f0e', \\
     '' using 7 title 'lftp' lc rgb '#2ca02c'
unset multiplot
"""


def write_chart(runner, work, png_path):
    """Draws png_path from the runner's results; the data file for gnuplot
    goes into the folder `work`."""
    keys = list(runner.results)
    data = work / "chart.dat"
    with open(str(data), "w") as f:
        for key in keys:
            walls = [median([s.wall for s in runner.results[key][t]])
                     for t in TOOLS]
            rss = [median([s.rss_kib for s in runner.results[key][t]])
                   / 1024.0 for t in TOOLS]
            f.write('"%s" %s %s\n' % (key, " ".join("%.4f" % w for w in walls),
                                      " ".join("%.2f" % m for m in rss)))
    script = SCRIPT.format(png=png_path, data=data, runs=runner.runs)
    subprocess.run(["gnuplot"], input=script.encode(), check=True)


SCALE_SCRIPT = """
set terminal pngcairo size 1200,900 font ",10"
set output '{png}'
set multiplot layout 2,1 title "brindle (solid) and lftp (dashed) against vsftpd on 127.0.0.1, by entry count"
set logscale xy
set grid xtics ytics
set key outside right
set xlabel "entries"
set ylabel "wall time per entry (ms, log scale)"
plot for [i=0:{last}] '{data}' index i using 1:2 with linespoints \\
     lc int(i / 2 + 1) dt int(i % 2 + 1) title columnheader(1)
set ylabel "peak RSS (MiB, log scale)"
plot for [i=0:{last}] '{data}' index i using 1:3 with linespoints \\
     lc int(i / 2 + 1) dt int(i % 2 + 1) title columnheader(1)
unset multiplot
"""


def write_scale_chart(runner, planned, work, png_path):
    """Draws png_path for the scale suite: per transfer family (download,
    upload, remove), brindle's and lftp's wall time per entry and peak RSS
    against the entry count. The data file goes into the folder `work`."""
    blocks = []
    families = []
    for w in planned:
        if w.family.startswith(("download", "upload", "remove")) and \
                w.family not in families:
            families.append(w.family)
    for family in families:
        ran = [w for w in planned
               if w.family == family and w.key in runner.results]
        if not ran:
            continue
        for tool in ("brindle", "lftp"):
            rows = ['"%s %s"' % (family, tool)]
            for w in ran:
                ss = runner.results[w.key][tool]
                rows.append("%d %.6f %.2f" % (
                    w.entries, per_entry_ms(ss, w.entries),
                    median([s.rss_kib for s in ss]) / 1024.0))
            blocks.append("\n".join(rows))
    if not blocks:
        return
    data = work / "scale-chart.dat"
    data.write_text("\n\n\n".join(blocks) + "\n")
    script = SCALE_SCRIPT.format(png=png_path, data=data,
                                 last=len(blocks) - 1)
    subprocess.run(["gnuplot"], input=script.encode(), check=True)
