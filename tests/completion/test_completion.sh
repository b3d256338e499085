#!/usr/bin/env bash
# Checks brindle's bash completion the way readline drives it: for each case
# it sets COMP_WORDS, COMP_CWORD, COMP_LINE and COMP_POINT, calls the
# function registered for brindle and compares what it offers in COMPREPLY
# with the exact expected words. Needs bash-completion's main script.
# Usage: test_completion.sh COMPLETION_SCRIPT
set -euo pipefail

script=${1:?usage: test_completion.sh COMPLETION_SCRIPT}
framework=/usr/share/bash-completion/bash_completion
if [ ! -r "$framework" ]; then
  echo "test_completion.sh: $framework missing (install bash-completion)" >&2
  exit 1
fi

# bash-completion's functions are written for an interactive shell, without
# -e or -u.
set +eu
# shellcheck source=/dev/null
source "$framework"
# shellcheck source=/dev/null
source "$script"
set -eu

registered=$(complete -p brindle)
passed=0
failed=0
check() {  # NAME EXPECTED ACTUAL
  if [ "$2" == "$3" ]; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    printf 'FAIL %s\n  expected: %s\n  actual:   %s\n' "$1" "$2" "$3"
  fi
}
check "registration" "complete -F _brindle brindle" "$registered"
function_name=$(complete -p brindle | sed -n 's/.* -F \([^ ]*\) .*/\1/p')

# Completes the command line LINE (completion at its end), split into the
# words that follow LINE as bash would split them, and prints COMPREPLY one
# word a line.
offered() {  # LINE WORD...
  local line=$1
  shift
  COMP_LINE=$line
  COMP_POINT=${#line}
  COMP_WORDS=("$@")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  set +eu
  "$function_name" brindle "${COMP_WORDS[COMP_CWORD]}" \
    "${COMP_WORDS[COMP_CWORD - 1]}"
  set -eu
  [ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\n' "${COMPREPLY[@]}"
}
# The same, with the offered words sorted and joined by blanks.
offered_sorted() {
  offered "$@" | sort | paste -sd ' ' -
}
# The same, in the order offered, joined by blanks.
offered_words() {
  offered "$@" | paste -sd ' ' -
}

common="--host --port --login --password --passive-mode --retry --retry-delay --remote-path"
transfer="$common --local-user --local-path --recursive --follow-symlinks"

# Commands first; only they are offered until one is given.
check "commands" "--upload --download --remove --list --help -h" \
  "$(offered_words 'brindle ' brindle '')"
check "commands by prefix" "--download" \
  "$(offered_words 'brindle --d' brindle --d)"
check "no positional words" "" "$(offered_words 'brindle up' brindle up)"

# Each command: exactly the options it takes.
check "upload options" "$transfer" \
  "$(offered_words 'brindle --upload ' brindle --upload '')"
check "download options" "$transfer" \
  "$(offered_words 'brindle --download ' brindle --download '')"
check "remove options" "$common --recursive" \
  "$(offered_words 'brindle --remove ' brindle --remove '')"
check "list options" "$common --long-listing" \
  "$(offered_words 'brindle --list ' brindle --list '')"
check "list options by prefix" "--login --long-listing" \
  "$(offered_words 'brindle --list --l' brindle --list --l)"
check "remove takes no --follow-symlinks" "" \
  "$(offered_words 'brindle --remove --f' brindle --remove --f)"
check "list takes no --recursive" "--retry --retry-delay --remote-path" \
  "$(offered_words 'brindle --list --re' brindle --list --re)"
check "options given are not offered again" \
  "--port --login --password --passive-mode --retry --retry-delay --long-listing" \
  "$(offered_words 'brindle --list --host h --remote-path=/x ' \
    brindle --list --host h --remote-path = /x '')"
check "options follow the command wherever it stands" \
  "--port --login --password --passive-mode --retry --retry-delay --remote-path --recursive" \
  "$(offered_words 'brindle --host h --remove ' brindle --host h --remove '')"
check "two commands: nothing" "" \
  "$(offered_words 'brindle --upload --list ' brindle --upload --list '')"
check "after help: nothing" "" \
  "$(offered_words 'brindle --help ' brindle --help '')"

# Values.
check "free value: nothing" "" \
  "$(offered_words 'brindle --list --host ' brindle --list --host '')"
check "passive mode" "1 0 true false yes no on off" \
  "$(offered_words 'brindle --list --passive-mode ' \
    brindle --list --passive-mode '')"

# Local paths, as separate word and after "=".
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
mkdir "$dir/ab" "$dir/other"
touch "$dir/a.txt" "$dir/b.txt" "$dir/ab/inner"
check "local path" "$dir/a.txt $dir/ab" \
  "$(offered_sorted "brindle --upload --local-path $dir/a" \
    brindle --upload --local-path "$dir/a")"
check "local path after =" "$dir/a.txt $dir/ab" \
  "$(offered_sorted "brindle --download --local-path=$dir/a" \
    brindle --download --local-path = "$dir/a")"
check "local path: all entries" "$dir/a.txt $dir/ab $dir/b.txt $dir/other" \
  "$(offered_sorted "brindle --download --local-path $dir/" \
    brindle --download --local-path "$dir/")"

# Account names from the password database, root left out. Other tests may
# add or remove a throwaway account meanwhile: read the database before and
# after completing, and try again when it changed in between.
accounts() {
  getent passwd | awk -F: '$3 != 0 { print $1 }' | sort | paste -sd ' ' -
}
for _ in 1 2 3; do
  before=$(accounts)
  all_users=$(offered_sorted 'brindle --download --local-user ' \
    brindle --download --local-user '')
  [ "$before" != "$(accounts)" ] || break
done
check "local user" "$before" "$all_users"
check "local user by prefix" "nobody" \
  "$(offered_sorted 'brindle --upload --local-user nob' \
    brindle --upload --local-user nob)"
check "local user: never root" "" \
  "$(offered_sorted 'brindle --upload --local-user roo' \
    brindle --upload --local-user roo)"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
