#!/usr/bin/env bash
# Runs EUnit modules against the NIF in DIR: tools/run_eunit.sh DIR "mod1,mod2"
# With ARBO_ASAN=1 the sanitizer runtime is preloaded into the VM (it must come
# before every other library) and leak checking is left to the suites' own
# counters (the VM itself does not free everything at exit).
set -euo pipefail
dir=$1
mods=$2
if [ -z "$mods" ]; then echo "no EUnit modules"; exit 0; fi
if [ "${ARBO_ASAN:-0}" = 1 ]; then
  export LD_PRELOAD="$(g++ -print-file-name=libasan.so) $(g++ -print-file-name=libubsan.so)"
  export ASAN_OPTIONS="detect_leaks=0:abort_on_error=1:halt_on_error=1"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
  # +Mea min: the VM's own allocators step aside for malloc, so the sanitizer
  # sees every node's lifetime (and child VMs started by the suites inherit it).
  export ERL_FLAGS="${ERL_FLAGS:-} +Mea min"
  label="sanitizer build"
else
  label="release build"
fi
export ARBO_NIF_DIR="$dir"
echo "== EUnit ($label): $mods"
exec erl -noshell -pa ebin -pa test/ebin -eval "
  case eunit:test([$mods], []) of
    ok -> halt(0);
    _ -> halt(1)
  end."
