#!/usr/bin/env bash
# Checks the rendered manual page brindle(1): man and groff format it without
# a single warning, it has the usual sections, and it documents every option
# of `brindle --help`, every exit status, every skip line and the behaviours
# a script must know.
# Usage: check_man_page.sh PAGE BRINDLE
set -euo pipefail

page=${1:?usage: check_man_page.sh PAGE BRINDLE}
brindle=${2:?usage: check_man_page.sh PAGE BRINDLE}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export LC_ALL=C.UTF-8 MANWIDTH=80 MANPAGER=cat PAGER=cat

failed=0
fail() {
  echo "FAIL $*"
  failed=$((failed + 1))
}

# Formatting: warnings from man-db's pipeline and from groff at its
# strictest (-ww), tables included.
man --warnings -l "$page" >"$work/page.txt" 2>"$work/man.err" ||
  fail "man -l exited with $?"
[ ! -s "$work/man.err" ] || fail "man --warnings: $(cat "$work/man.err")"
groff -ww -z -t -man -Tutf8 "$page" 2>"$work/groff.err" ||
  fail "groff exited with $?"
[ ! -s "$work/groff.err" ] || fail "groff -ww: $(cat "$work/groff.err")"

# Sections, in order.
expected_sections="NAME/SYNOPSIS/DESCRIPTION/COMMANDS/OPTIONS/PATHS/LISTING FORMATS"
expected_sections+="/ENVIRONMENT/EXIT STATUS/EXAMPLES"
expected_sections+="/BEHAVIOUR TO KNOW BEFORE YOU SCRIPT IT/SECURITY/NOTES/SEE ALSO"
sections=$(grep -E '^[A-Z][A-Z ]+$' "$work/page.txt" | paste -sd / -)
[ "$sections" == "$expected_sections" ] || fail "sections: $sections"

# Lines of one section of the rendered page.
section() {
  awk -v name="$1" '/^[A-Z][A-Z ]+$/ { inside = ($0 == name); next }
                    inside' "$work/page.txt"
}

# Every option and command of the help text is an entry of COMMANDS or
# OPTIONS (an indented line that starts with it).
"$brindle" --help >"$work/help.txt"
options=$(grep -oE '^  (-h \[ )?--[a-z-]+' "$work/help.txt" |
  grep -oE -- '--[a-z-]+')
[ "$(echo "$options" | wc -l)" -eq 18 ] || fail "help lists: $options"
# Entries are indented less than their text, by as much as --upload's: 7
# columns with the groff of Debian 12 and 13, 5 with unstable's.
indent=$(awk '/^[A-Z][A-Z ]+$/ { inside = ($0 == "COMMANDS"); next }
  inside && /^ +--upload$/ { match($0, /^ +/); print RLENGTH; exit }' \
  "$work/page.txt")
[ -n "$indent" ] || { fail "COMMANDS has no --upload entry"; indent=7; }
entries=$({ section COMMANDS; section OPTIONS; } | grep -E "^ {$indent}-" ||
  true)
for option in $options; do
  grep -qE -- "^ {$indent}(-h, )?$option( |\$)" <<<"$entries" ||
    fail "option $option has no entry"
done
grep -qE "^ {$indent}-h, --help\$" <<<"$entries" || fail "-h has no entry"

# Exit statuses 0, 1 and 2, each an entry of EXIT STATUS, and no other.
statuses=$(section 'EXIT STATUS' | grep -E "^ {$indent}[0-9]+\$" | tr -d ' ' |
  paste -sd ' ' -)
[ "$statuses" == "0 1 2" ] || fail "exit statuses: $statuses"

# Every skip line, as the program prints it (indented as an example, by
# however much this groff indents).
sed 's/^ *//' "$work/page.txt" >"$work/unindented.txt"
for line in \
  "skip '\"/data/link\"': symbolic links aren't allowed" \
  "skip '\"/data/dangling\"': unable to resolve symbolic link, No such file or directory" \
  "skip '\"/pub/link\"': symbolic links aren't allowed" \
  "skip '\"/pub/dot\"': unable to resolve symbolic link" \
  "skip '\"/pub/fifo\"': unsupported file type" \
  "skip '\"/pub/a/b\"': unsafe file name"; do
  grep -qxF "$line" "$work/unindented.txt" || fail "skip line: $line"
done

# The dot entries and unsafe names of a server's listing.
security=$(section SECURITY | tr -s ' \n' '  ')
for phrase in "download and remove pass over them silently" \
  "Download never writes such a name" \
  "Remove stops during the walk, before anything is deleted"; do
  [[ $security == *"$phrase"* ]] || fail "SECURITY lacks: $phrase"
done

# The behaviours a script must know, each with its example's outcome.
behaviour=$(section 'BEHAVIOUR TO KNOW BEFORE YOU SCRIPT IT' | tr -s ' \n' '  ')
for phrase in "A download whose local write fails still exits 0." \
  "65536 /mnt/small/big.bin" \
  "A retried download appends the whole file to the bytes already written." \
  "1,row 1 21,row 1 2,row 2 3,row 3" \
  "An upload retried after its local file was read to the end sends an empty remainder." \
  "Every request of a remove begins with a NOOP." \
  "QUOT command failed with 502" \
  "A retried remove meets entries that an earlier attempt already deleted." \
  "QUOT command failed with 550" \
  "An upload overwrites the remote file in place."; do
  [[ $behaviour == *"$phrase"* ]] || fail "BEHAVIOUR section lacks: $phrase"
done

# The limits a cron job meets: libcurl's waits, and the remedy.
notes=$(section NOTES | tr -s ' \n' '  ')
for phrase in "brindle sets no time limits of its own" "timeout(1)"; do
  [[ $notes == *"$phrase"* ]] || fail "NOTES lacks: $phrase"
done

if [ "$failed" -ne 0 ]; then
  echo "man page: $failed checks failed"
  exit 1
fi
echo "man page: no warnings; sections, options, exit statuses, skip lines and"
echo "  the behaviours a script must know all there"
