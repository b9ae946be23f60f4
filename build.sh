#!/usr/bin/env bash
# Quorvex build entry point. Run `./build.sh help` for the commands.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
cd "$ROOT"

JOBS="${QVX_JOBS:-$(nproc 2>/dev/null || echo 2)}"
FUZZ_SECONDS="${QVX_FUZZ_SECONDS:-20}"

OUT="${QVX_BUILD_ROOT:-$ROOT}"
BUILD="$OUT/build"
BUILD_ASAN="$OUT/build-asan"
BUILD_FUZZ="$OUT/build-fuzz"
BUILD_MINGW="$OUT/build-mingw"
QUORVEX="$BUILD/src/app/quorvex"

# Per-run scratch: test counts reported by the stages (each runs in a subshell).
STATE="$(mktemp -d "${TMPDIR:-/tmp}/quorvex-build.XXXXXX")"
trap 'rm -rf "$STATE"' EXIT

usage() {
  cat <<EOF
usage: ./build.sh COMMAND

  demo      install what is missing, build Release into build/, run 'quorvex demo'
  test      install what is missing, then every stage below in order; stops at the
            first failure and prints a summary

  setup     install the Debian packages the project needs (scripts/setup.sh)
  release   Release build in build/ and its tests
  asan      ASan+UBSan build (g++, RelWithDebInfo with asserts) in build-asan/, its
            tests, and the fuzz targets replayed over the seed inputs
  fuzz      clang libFuzzer build in build-fuzz/; each fuzz_* target runs
            ${FUZZ_SECONDS}s over seeds cut from a 'quorvex demo' file
  mingw     Windows cross-build of the libraries in build-mingw/

Environment: QVX_JOBS (build and test jobs, default: cores), QVX_FUZZ_SECONDS (per
target, default 30), QVX_SKIP_SETUP=1 (do not check packages), QVX_BUILD_ROOT (where
the build*/ folders go, default: the repository).
EOF
}

# --- helpers ---------------------------------------------------------------

say() { printf '\n==> %s\n' "$*"; }
die() {
  printf '\nERROR: %s\n' "$*" >&2
  exit 1
}

# configure DIR [cmake args...]: configures DIR with Ninja (the generator is chosen
# only when DIR is new, so a re-run keeps whatever DIR was made with).
configure() {
  local dir="$1"
  shift
  local gen=()
  [[ -f "$dir/CMakeCache.txt" ]] || gen=(-G Ninja)
  cmake "${gen[@]}" -S "$ROOT" -B "$dir" "$@" || die "cmake could not configure $dir"
}

build() {
  local dir="$1"
  shift
  cmake --build "$dir" -j "$JOBS" "$@" || die "build failed in $dir"
}

# run_ctest DIR: runs the tests, keeps the log, adds the counts to the totals.
run_ctest() {
  local dir="$1" log="$1/ctest.log" rc=0
  ctest --test-dir "$dir" --output-on-failure --no-tests=error -j "$JOBS" 2>&1 | tee "$log" || rc=$?
  local line total failed
  line="$(grep -E '[0-9]+ tests? failed out of [0-9]+' "$log" | tail -1 || true)"
  if [[ -n "$line" ]]; then
    failed="$(sed -E 's/.* ([0-9]+) tests? failed out of.*/\1/' <<<"$line")"
    total="$(sed -E 's/.*failed out of ([0-9]+).*/\1/' <<<"$line")"
    echo "$((total - failed)) $failed" >"$STATE/$(basename "$dir").counts"
  fi
  ((rc == 0)) || die "tests failed in $dir (log: $log)"
}

fuzz_targets() {
  local f
  for f in "$ROOT"/fuzz/fuzz_*.cpp; do
    if [[ -e "$f" ]]; then basename "$f" .cpp; fi
  done
}

# make_seeds QUORVEX_BINARY DIR: writes demo files with QUORVEX_BINARY and cuts them
# into DIR/fuzz_evtx_chunk, DIR/fuzz_binxml and DIR/fuzz_event_xml; the qvx_fuzz_seeds
# program of the same build writes the seeds of every other target.
make_seeds() {
  local bin="$1" dir="$2"
  [[ -x "$bin" ]] || die "$bin is missing: it writes the .evtx files the seeds are cut from"
  rm -rf "$dir"
  mkdir -p "$dir/evtx"
  "$bin" demo --no-dump --output "$dir/evtx/demo.evtx" >/dev/null ||
    die "'$bin demo --no-dump --output FILE' failed: it writes the .evtx the fuzz seeds are cut from"
  # A larger log too, for chunks past the first.
  "$bin" demo --no-dump --output "$dir/evtx/demo-large.evtx" --records 2000 >/dev/null ||
    die "'$bin demo --no-dump --records 2000' failed"
  python3 "$ROOT/scripts/fuzz_seeds.py" --chunks "$dir/fuzz_evtx_chunk" \
    --binxml "$dir/fuzz_binxml" "$dir"/evtx/*.evtx || die "could not cut fuzz seeds from $dir/evtx"
  # Event XML: each event of the small demo log, and runs of a few events.
  "$bin" events --format xml -q "$dir/evtx/demo.evtx" >"$dir/events.xml" ||
    die "'$bin events --format xml' failed: it writes the event XML seeds"
  python3 - "$dir/events.xml" "$dir/fuzz_event_xml" <<'PY' || die "could not cut event XML seeds"
import os, sys
text = open(sys.argv[1], encoding="utf-8").read()
events = ["<Event xmlns" + e.split("</Event>")[0] + "</Event>" for e in text.split("<Event xmlns")[1:]]
os.makedirs(sys.argv[2], exist_ok=True)
for i in range(0, len(events), 7):
    with open(os.path.join(sys.argv[2], f"event-{i:04d}.xml"), "w", encoding="utf-8") as f:
        f.write("".join(events[i:i + 1 + i % 3]))
PY
  # Filter XML: an event log query and a filter file written by quorvex itself.
  mkdir -p "$dir/fuzz_filter_xml"
  "$bin" xpath --type error,warning,audit-failure --id '4624,4625-4630!4627' --source 'A,B' --last 1d6h \
    --log Security --file /x/y.evtx --save-filter "$dir/fuzz_filter_xml/filter.xml" \
    >"$dir/fuzz_filter_xml/query.xml" || die "'$bin xpath' failed: it writes the filter XML seeds"
  # PE images, hives, WEVT_TEMPLATE resources and message templates, from the tests' writers.
  local seeds_bin
  seeds_bin="$(dirname "$bin")/../../fuzz/qvx_fuzz_seeds"
  [[ -x "$seeds_bin" ]] || die "$seeds_bin is missing: it writes the seeds of the other targets"
  "$seeds_bin" "$dir" >/dev/null || die "'$seeds_bin $dir' failed"
  # Disk images: small NTFS volumes made with mkntfs, in sparse form.
  python3 "$ROOT/scripts/fuzz_image_seeds.py" "$dir/fuzz_image" "$dir/evtx/demo.evtx" ||
    die "could not write the disk image seeds"
}

# The sanitizer and fuzz builds keep assert() on (RelWithDebInfo without -DNDEBUG). Line
# tables are all their reports need, and build in two thirds of the time of full debug data.
CHECKED_FLAGS="-O2 -g1"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export LSAN_OPTIONS="${LSAN_OPTIONS:-suppressions=$ROOT/scripts/lsan-suppressions.txt:print_suppressions=0}"

# --- stages ----------------------------------------------------------------

stage_setup() {
  [[ "${QVX_SKIP_SETUP:-}" == 1 ]] && {
    echo "QVX_SKIP_SETUP=1: not checking packages"
    return 0
  }
  "$ROOT/scripts/setup.sh" || die "scripts/setup.sh could not install the packages"
}

stage_build() {
  configure "$BUILD" -DCMAKE_BUILD_TYPE=Release
  build "$BUILD"
}

stage_release() {
  stage_build
  run_ctest "$BUILD"
}

stage_demo() {
  [[ -x "$QUORVEX" ]] || die "$QUORVEX was not built"
  # The log goes into build/, not the work tree.
  "$QUORVEX" demo --output "$BUILD/quorvex-demo.evtx" || die "'quorvex demo' failed"
  echo
  echo "demo log: $BUILD/quorvex-demo.evtx (see also: ${QUORVEX#"$ROOT"/} info FILE)" >&2
}

stage_asan() {
  configure "$BUILD_ASAN" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQVX_SANITIZE=ON \
    -DCMAKE_CXX_COMPILER=g++ -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$CHECKED_FLAGS"
  build "$BUILD_ASAN"
  run_ctest "$BUILD_ASAN"

  # The fuzz targets with their replay main, over seeds written by this build's own
  # quorvex (so the writer runs under the sanitizers too).
  say "replaying fuzz seeds under ASan+UBSan"
  make_seeds "$BUILD_ASAN/src/app/quorvex" "$BUILD_ASAN/fuzz-seeds"
  local t
  local targets
  mapfile -t targets < <(fuzz_targets)
  for t in "${targets[@]}"; do
    "$BUILD_ASAN/fuzz/$t" "$BUILD_ASAN/fuzz-seeds/$t" || die "$t crashed replaying $BUILD_ASAN/fuzz-seeds/$t"
  done
}

stage_fuzz() {
  command -v clang++ >/dev/null || die "clang++ not found (run scripts/setup.sh)"
  local targets
  mapfile -t targets < <(fuzz_targets)
  ((${#targets[@]})) || die "no fuzz/fuzz_*.cpp targets"

  CC=clang CXX=clang++ configure "$BUILD_FUZZ" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQVX_FUZZ=ON \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$CHECKED_FLAGS"
  build "$BUILD_FUZZ" --target "${targets[@]}"

  # Seeds come from the Release build's writers.
  if [[ ! -x "$QUORVEX" ]]; then
    say "building quorvex in build/ for the seed files"
    configure "$BUILD" -DCMAKE_BUILD_TYPE=Release
  fi
  build "$BUILD" --target quorvex qvx_fuzz_seeds
  make_seeds "$QUORVEX" "$BUILD_FUZZ/seeds"

  local t rc log maxlen
  mkdir -p "$BUILD_FUZZ/artifacts" "$BUILD_FUZZ/logs"
  for t in "${targets[@]}"; do
    [[ -d "$BUILD_FUZZ/seeds/$t" ]] || die "no seeds for $t (scripts/fuzz_seeds.py makes them)"
    mkdir -p "$BUILD_FUZZ/corpus/$t" # new inputs land here, kept between runs
    log="$BUILD_FUZZ/logs/$t.log"
    say "fuzzing $t for ${FUZZ_SECONDS}s (log: $log)"
    rc=0
    maxlen=65536
    [[ "$t" == fuzz_image ]] && maxlen=1048576 # a disk's sectors in use, not one record
    # libFuzzer's own limits stop a slow input; the outer timeout also stops a run that hangs
    # where those cannot reach (a crash report that never finishes), so CI always ends.
    timeout -k 10 "$((FUZZ_SECONDS + 120))" \
      "$BUILD_FUZZ/fuzz/$t" -max_total_time="$FUZZ_SECONDS" -rss_limit_mb=1024 -timeout=10 \
      -max_len="$maxlen" -print_final_stats=1 -artifact_prefix="$BUILD_FUZZ/artifacts/$t-" \
      "$BUILD_FUZZ/corpus/$t" "$BUILD_FUZZ/seeds/$t" >"$log" 2>&1 || rc=$?
    if ((rc == 124 || rc == 137)); then
      tail -n 80 "$log" >&2
      die "$t did not finish within $((FUZZ_SECONDS + 120))s (log: $log)"
    fi
    if ((rc != 0)); then
      tail -n 80 "$log" >&2
      die "$t failed (exit $rc); the input is in $BUILD_FUZZ/artifacts/ — replay it with
       $BUILD_FUZZ/fuzz/$t FILE"
    fi
    grep -E '^(#[0-9]+ +DONE|Done [0-9]+ runs|stat::number_of_executed_units|stat::peak_rss_mb)' "$log" || true
  done
}

stage_mingw() {
  command -v x86_64-w64-mingw32-g++-posix >/dev/null ||
    die "x86_64-w64-mingw32-g++-posix not found (run scripts/setup.sh)"
  configure "$BUILD_MINGW" -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/mingw-w64.cmake" \
    -DQVX_LIBRARIES_ONLY=ON -DCMAKE_BUILD_TYPE=Release
  build "$BUILD_MINGW"
  # Each library must hold Windows (PE/COFF) objects.
  local libs lib
  mapfile -t libs < <(find "$BUILD_MINGW" -name '*.a' -not -path '*/CMakeFiles/*' | sort)
  ((${#libs[@]})) || die "the cross-build made no library"
  for lib in "${libs[@]}"; do
    x86_64-w64-mingw32-objdump -f "$lib" | grep -q 'file format pe-x86-64' ||
      die "$lib does not hold x86-64 Windows objects"
    echo "  ${lib#"$OUT"/}: pe-x86-64"
  done
}

# --- driver ----------------------------------------------------------------

STAGES=()
RESULTS=()
TIMES=()

summary() {
  local i passed=0 failed=0 counts p f
  printf '\n==> summary\n'
  for i in "${!STAGES[@]}"; do
    printf '  %-8s %-6s %4ss\n' "${STAGES[$i]}" "${RESULTS[$i]}" "${TIMES[$i]}"
  done
  for counts in "$STATE"/*.counts; do
    [[ -f "$counts" ]] || continue
    read -r p f <"$counts"
    passed=$((passed + p))
    failed=$((failed + f))
  done
  if [[ -n "${1:-}" ]]; then printf "%s\n" "$1"; fi
  # Last, the plain count line that CI reads.
  if ((passed + failed > 0)); then
    echo "tests: $passed passed, $failed failed"
  fi
}

# run STAGE: runs stage_STAGE in a subshell, records its result and time; on failure
# prints the summary and exits.
run() {
  local name="$1" start rc
  say "stage: $name"
  start=$(date +%s)
  set +e
  (
    set -euo pipefail
    "stage_$name"
  )
  rc=$?
  set -e
  STAGES+=("$name")
  TIMES+=("$(($(date +%s) - start))")
  if ((rc == 0)); then
    RESULTS+=(ok)
  else
    RESULTS+=(FAILED)
    summary "FAILED at stage \"$name\" (exit $rc); see the messages above."
    exit 1
  fi
}

main() {
  local cmd="${1:-help}"
  case "$cmd" in
    demo)
      run setup
      run build
      run demo
      ;;
    test)
      run setup
      run release
      run asan
      run fuzz
      run mingw
      ;;
    setup)
      run setup
      ;;
    release | asan | fuzz | mingw)
      run setup
      run "$cmd"
      ;;
    help | -h | --help)
      usage
      return 0
      ;;
    *)
      usage >&2
      return 2
      ;;
  esac
  summary "OK: ./build.sh $cmd"
}

main "$@"
