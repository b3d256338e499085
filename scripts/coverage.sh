#!/usr/bin/env bash
# Measures how much of src/ the whole test suite runs. Builds brindle, its
# unit tests and the binary the end-to-end tests run with GCC's coverage
# instrumentation (--coverage, -O0, without dpkg-buildflags' optimisation
# and hardening) from scratch in build-coverage/, runs the whole CTest suite
# (unit and end-to-end tests) once against that build, then has gcovr report
# the line and branch coverage of src/. Writes docs/coverage.md, or the
# file that COVERAGE_OUTPUT names (docs/coverage-debian13.md for a run in a
# Debian 13 root), with the figures, a table per file, the command,
# machine, date and commit, and fails when line coverage of src/ is below
# LINE_FLOOR.
#
# Branches that only exist for exception unwinding, and those GCC marks as
# unreachable, are not counted (--exclude-throw-branches,
# --exclude-unreachable-branches): at -O0 nearly every call has one, and
# none of them is a decision in the code.
#
#   bash scripts/coverage.sh             coverage alone
#   bash scripts/coverage.sh --sanitize  the same build with AddressSanitizer
#                                        (leak checking included) and
#                                        UndefinedBehaviorSanitizer as well,
#                                        as scripts/sanitize.sh builds it:
#                                        one run of the suite gives both the
#                                        sanitizers' verdict (any report
#                                        fails the test that met it) and the
#                                        coverage with its floor. CI runs
#                                        this. (e2e.test_memcheck skips
#                                        itself there, as in sanitize.sh.)
#                                        Line coverage is the same as
#                                        without the sanitizers; branch
#                                        coverage is lower, as their checks
#                                        add branches of their own.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

sanitize=OFF
case ${1:-} in
  --sanitize) sanitize=ON ;;
  "") ;;
  *)
    echo "usage: bash scripts/coverage.sh [--sanitize]" >&2
    exit 2
    ;;
esac

# The lowest acceptable line coverage of src/, in percent: the figure last
# measured, rounded down to one decimal. Raise it when tests are added.
LINE_FLOOR=98.3

install_missing "${SUITE_PACKAGES[@]}" "${COVERAGE_PACKAGES[@]}"
bash scripts/ftp-servers.sh

rm -rf build-coverage
CXX=g++ cmake -S . -B build-coverage -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DBRINDLE_DPKG_BUILDFLAGS=OFF -DBRINDLE_SANITIZE="$sanitize" \
  -DCMAKE_CXX_FLAGS="-O0 --coverage" \
  -DCMAKE_EXE_LINKER_FLAGS="--coverage"
cmake --build build-coverage -j 2

# Each run of an instrumented program adds its counts to the .gcda file of
# every object it was linked from when it exits, as the user it is by then.
# brindle gives up root for the account of --local-user before it touches a
# local file, and the end-to-end tests run it that way as a throwaway
# account, whose exit could neither create a root-owned directory's files
# nor write the root's files (mode 0644) that earlier runs left; libgcov
# would then say so on the standard error that the tests compare, and those
# runs would go uncounted. GCOV_PREFIX cannot move the files somewhere
# writable: the tests run brindle with an environment of PATH only. So every
# .gcda file is made here, before the suite runs, empty and writable by
# everybody: libgcov fills an empty file as it would a new one, and updates
# an existing one in place without changing its owner or mode. The
# directories of build-coverage/ are opened for reading and traversal too.
find build-coverage -type d -exec chmod a+rx {} +
# (CMakeFiles/<version>/ holds CMake's probe of the compiler, built with
# the same flags: not part of brindle.)
gcno_count=0
while IFS= read -r -d '' gcno; do
  gcda=${gcno%.gcno}.gcda
  : >"$gcda"
  chmod 666 "$gcda"
  gcno_count=$((gcno_count + 1))
done < <(find build-coverage -path 'build-coverage/CMakeFiles/[0-9]*' -prune \
  -o -name '*.gcno' -print0)
if [ "$gcno_count" -eq 0 ]; then
  echo "coverage: no .gcno files in build-coverage/: was it built with --coverage?" >&2
  exit 1
fi
# An account other than root must reach them: every directory above the
# checkout must let others through.
if [ "$(id -u)" -eq 0 ] && ! runuser -u nobody -- test -w "$gcda"; then
  echo "coverage: the user nobody cannot write $gcda: the runs of brindle" \
    "as a local account would go uncounted; let others traverse the" \
    "directories above $(pwd)" >&2
  exit 1
fi

(cd build-coverage && ctest --output-on-failure --parallel 2)
# Objects that no run reached keep their empty file, which gcov would take
# for a damaged one.
find build-coverage -name '*.gcda' -empty -delete

# gcovr runs gcov on every .gcda file of the build but CMake's compiler
# probe, and keeps the sources below src/ only (not the tests' own code,
# nor system headers), without the sanitizers' default options, which only
# a --sanitize build links and only the sanitizers' run-time calls.
gcovr_args=(
  --root . --object-directory build-coverage --filter 'src/'
  --exclude 'src/cli/sanitizer_options\.cc'
  --exclude-directories 'build-coverage/CMakeFiles/[0-9]'
  --exclude-throw-branches --exclude-unreachable-branches -j 2
)
gcovr "${gcovr_args[@]}" \
  --json-summary-pretty --output build-coverage/coverage.json

# The report: two lines here, and docs/coverage.md or COVERAGE_OUTPUT.
commit=$(git rev-parse --short=12 HEAD 2>/dev/null || echo unknown)
if [ "$commit" != unknown ] && [ -n "$(git status --porcelain -- src tests 2>/dev/null)" ]; then
  commit="$commit (with uncommitted changes to src/ or tests/)"
fi
machine="$(sed -n 's/^PRETTY_NAME="\(.*\)"$/\1/p' /etc/os-release), $(uname -m),"
machine+=" $(nproc) cores, $(g++ --version | head -n 1), $(gcovr --version | head -n 1)"
# The libcurl the tests ran against decides which paths of src/ftp run.
machine+=", libcurl $(curl-config --version 2>/dev/null | sed 's/^libcurl //' || echo unknown)"
date=$(date -u '+%Y-%m-%d %H:%M UTC')
/usr/bin/python3 - build-coverage/coverage.json \
  "${COVERAGE_OUTPUT:-docs/coverage.md}" \
  "$LINE_FLOOR" "$commit" "$machine" "$date" "gcovr ${gcovr_args[*]}" \
  "bash scripts/coverage.sh${1:+ $1}" <<'EOF'
import json
import sys

(summary_path, doc_path, floor, commit, machine, date, command,
 invocation) = sys.argv[1:]
with open(summary_path) as f:
    summary = json.load(f)


def percent(covered, total):
    return "%.1f%%" % (100.0 * covered / total) if total else "-"


def figures(entry):
    return (entry["line_covered"], entry["line_total"],
            entry["branch_covered"], entry["branch_total"])


lines, line_total, branches, branch_total = figures(summary)
print("coverage of src/: lines    %s (%d of %d)"
      % (percent(lines, line_total), lines, line_total))
print("coverage of src/: branches %s (%d of %d)"
      % (percent(branches, branch_total), branches, branch_total))

rows = []
for entry in sorted(summary["files"], key=lambda e: e["filename"]):
    covered, total, taken, branch_count = figures(entry)
    rows.append("| `%s` | %s | %d / %d | %s | %d / %d |" % (
        entry["filename"], percent(covered, total), covered, total,
        percent(taken, branch_count), taken, branch_count))

doc = """# Test coverage of src/

How much of `src/` the whole test suite (the unit tests and the end-to-end
tests, which run the program against real FTP servers) runs, measured by
`bash scripts/coverage.sh`: a GCC build with `--coverage` at `-O0` in
`build-coverage/`, the whole CTest suite once, then gcovr over `src/`.
Branches that only exist for exception unwinding and those the compiler
marks as unreachable are not counted. The script fails when line coverage
falls below its `LINE_FLOOR` ({floor}%).

- Lines: **{lines_percent}** ({lines} of {line_total})
- Branches: **{branches_percent}** ({branches} of {branch_total})

| File | Lines | Covered | Branches | Taken |
|---|--:|--:|--:|--:|
{rows}

- Command: `{invocation}`, whose report is
  `{command}`
- Machine: {machine}
- Date: {date}
- Commit: {commit}
""".format(floor=floor, lines_percent=percent(lines, line_total),
           lines=lines, line_total=line_total,
           branches_percent=percent(branches, branch_total),
           branches=branches, branch_total=branch_total,
           rows="\n".join(rows), command=command, machine=machine,
           invocation=invocation,
           date=date, commit=commit)
with open(doc_path, "w") as f:
    f.write(doc)
print("coverage: wrote %s" % doc_path)

line_percent = 100.0 * lines / line_total if line_total else 0.0
if line_percent < float(floor):
    sys.stdout.flush()
    print("coverage: FAILED: line coverage of src/ is %.2f%%, below the "
          "floor of %s%% (LINE_FLOOR in scripts/coverage.sh)"
          % (line_percent, floor), file=sys.stderr)
    sys.exit(1)
print("coverage: line coverage of src/ is at or above the floor of %s%%"
      % floor)
EOF
