"""The gnuplot chart beside the report: median wall time and peak RSS per
workload and tool, on log scales."""

import subprocess

from measure import TOOLS, median

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
