#!/usr/bin/env bash
# Runs the static checks over every C++ file of src/ and tests/ and fails on
# any finding: clang-format (the checked-in .clang-format), cppcheck
# (warning, performance and portability checks) and clang-tidy (the
# checked-in .clang-tidy, on build-lint/compile_commands.json, two files at a
# time). Every check runs; the summary names the ones that failed.
# clang-format and clang-tidy are this Debian release's default LLVM: 14 on
# Debian 12, which the settings and the code are kept clean for; Debian 13's
# LLVM 19 has checks that 14 does not.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

install_missing "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" \
  "${QUALITY_PACKAGES[@]}"

mapfile -t cxx_files < <(git ls-files -- '*.cc' '*.h')
failed=()
# The LLVM tools of that release, and their version.
llvm_bin=$(dirname "$(readlink -f "$(command -v clang-tidy)")")
llvm=$("$llvm_bin/clang-tidy" --version | sed -n 's/.*LLVM version \([0-9]*\).*/\1/p')

echo "== clang-format, LLVM $llvm (${#cxx_files[@]} files)"
"$llvm_bin/clang-format" --dry-run -Werror "${cxx_files[@]}" ||
  failed+=(clang-format)

echo "== cppcheck"
# Suppressed, with reasons:
#   get{pw,gr}{nam,uid,gid}Called in run_as_user.cc: brindle is one thread,
#     so the non-reentrant account look-ups are safe, and they are the
#     interface the local-user switch is built on.
cppcheck --enable=warning,performance,portability --error-exitcode=1 \
  --inline-suppr --std=c++20 --language=c++ --quiet \
  --library=googletest --library=boost --library=posix \
  -I src -I tests \
  --suppress=getpwnamCalled:src/util/run_as_user.cc \
  --suppress=getpwuidCalled:src/util/run_as_user.cc \
  --suppress=getgrnamCalled:src/util/run_as_user.cc \
  --suppress=getgrgidCalled:src/util/run_as_user.cc \
  --template='{file}:{line}: {severity}: {message} [{id}]' \
  src tests || failed+=(cppcheck)

echo "== clang-tidy, LLVM $llvm"
# Only the compilation database is needed, not a build.
cmake -S . -B build-lint -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DBRINDLE_BUILD_MAN=OFF >/dev/null
"$llvm_bin/run-clang-tidy" -j 2 -quiet -p build-lint \
  -clang-tidy-binary "$llvm_bin/clang-tidy" "^$PWD/(src|tests)/" \
  >build-lint/clang-tidy.log 2>&1 || failed+=(clang-tidy)
# The log holds one command line per file and the compiler's counts of the
# (filtered) warnings in headers; show only the findings, without the colours
# that run-clang-tidy always asks for.
sed 's/\x1b\[[0-9;]*m//g' build-lint/clang-tidy.log |
  grep -v -e "^$llvm_bin/clang-tidy " -e '^[0-9]* warnings\? generated\.$' ||
  true

if [ ${#failed[@]} -ne 0 ]; then
  echo "lint: FAILED: ${failed[*]}" >&2
  exit 1
fi
echo "lint: clean (clang-format, cppcheck, clang-tidy)"
