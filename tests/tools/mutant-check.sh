#!/usr/bin/env bash
# The test command of a mutation run (../shared/tools/mutate.py --test-cmd):
# run from the build folder of a scratch clone whose library holds one
# mutant. Exits non-zero when any test fails (the mutant is killed), zero
# when the whole suite passes (it survived).
#
# The tests of the mutated file's own area run first, so that most mutants
# are killed within seconds; only a mutant they miss pays for the rest of
# the suite. The installed-package test is left out (it checks packaging,
# not behaviour). Every test run is bounded by --timeout.
set -u
# A mutant may make the library remove or write any folder the tests can
# reach; as root that is the whole machine.
if [ "$(id -u)" = 0 ] && [ "${ZORV_MUTANTS_AS_ROOT:-}" != 1 ]; then
  echo "mutant-check.sh: not running mutants as root; use an unprivileged user," \
       "or set ZORV_MUTANTS_AS_ROOT=1 in a throw-away container" >&2
  exit 2
fi
# A mutant that removes folders above the tests' own (a broken roll-back)
# can take the temporary folder with it; every later mutant would then be
# "killed" by tests that cannot make their scratch folders. The run is void
# from there on, so it is stopped instead.
temporary=${TMPDIR:-/tmp}
if [ ! -d "$temporary" ] || [ ! -w "$temporary" ]; then
  echo "mutant-check.sh: the temporary folder $temporary is gone; stopping the run" >&2
  pkill -f mutate.py
  exit 2
fi
# A mutant may leave a forked copy of a test running after ctest gave up on
# the test (a child that loops); it would take a processor from every later
# mutant. Whatever still runs from this build's tests is ended on the way out.
reap() {
  local dir
  for dir in "$PWD" ${ZORV_MUTANT_BUILDS:-}; do pkill -KILL -f "$dir/tests/" 2>/dev/null || true; done
}
trap reap EXIT
source_dir=$(cd "$(dirname "$(readlink -f "$0")")/../.." && pwd)
changed=$(git -C "$source_dir" diff --name-only | grep -E '^(src|debug)/' | head -n 1)
area=debug
case "$changed" in
  src/*) area=$(echo "$changed" | cut -d/ -f2) ;;
esac
run() { ctest -j2 --timeout "${ZORV_MUTANT_TIMEOUT:-120}" --stop-on-failure -E install_consumer "$@" \
          >/dev/null 2>&1; }
run -L "^$area\$" || exit 1
run -LE "^$area\$" || exit 1
# A mutant that the native suite missed meets the area's tests again in the
# other builds of the scratch clone that ZORV_MUTANT_BUILDS names (folders,
# separated by spaces): an ASan+UBSan build catches reads out of bounds,
# leaks and mismatched frees, and an arm32 build runs, under its emulator,
# the ARM-only code that the native build leaves out. A build that refuses
# the mutant does not judge it.
for dir in ${ZORV_MUTANT_BUILDS:-}; do
  cmake --build "$dir" >/dev/null 2>&1 || continue
  (cd "$dir" && run -L "^$area\$") || exit 1
done
exit 0
