#!/usr/bin/env bash
# Builds Release, runs every benchmark and writes docs/PERFORMANCE.md:
#   bench/run.sh                 (or ./dev bench)
#   bench/run.sh --report-only   rewrites the document from the last run's results
# Environment: PROV_BENCH_BUILD (build directory, default build-bench), PROV_BENCH_QUICK=1
# (fewer runs, for trying the script; the figures are then not worth publishing),
# PROV_BENCH_OUTPUT (the document to write, default docs/PERFORMANCE.md), PROV_BENCH_NICE (a
# niceness such as -10 for the measuring processes and what they start, on a machine that
# others keep busy; the document states it).
# Needs root (tftpd-hpa chroots) and the tools that ./dev installs. Take figures on a quiet
# machine: every other build or test on it shows up in them.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
BUILD=${PROV_BENCH_BUILD:-$ROOT/build-bench}
OUTPUT=${PROV_BENCH_OUTPUT:-$ROOT/docs/PERFORMANCE.md}
RESULTS=$BUILD/bench-results
MICRO=(ExpressionBench ResponseAnalysisBench CredentialsBench ConfigValidationBench)

report() {
    python3 "$ROOT/bench/report.py" "$RESULTS" "$ROOT/bench/PERFORMANCE.md.in" "$OUTPUT"
    echo "==> wrote $OUTPUT"
}
if [ "${1:-}" = "--report-only" ]; then
    report
    exit 0
fi

if [ "${PROV_BENCH_QUICK:-0}" = 1 ]; then
    REPETITIONS=5 MIN_TIME=0.02 SUITE_ARGS=(--small-runs 5 --large-runs 5 --rounds 5)
else
    REPETITIONS=7 MIN_TIME=0.5 SUITE_ARGS=(--small-runs 31 --large-runs 7 --rounds 5)
fi

NICE=()
if [ -n "${PROV_BENCH_NICE:-}" ]; then
    NICE=(nice -n "$PROV_BENCH_NICE")
fi

echo "==> Release build in $BUILD"
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DPROV_WERROR=ON -DPROV_TESTS=ON \
    -DPROV_BENCH=ON >/dev/null
mkdir -p /tmp/provisioning
cmake --build "$BUILD" -j "$(nproc)" --target provisioning prov_platform provctl JobSuite \
    "${MICRO[@]}"

rm -rf "$RESULTS"
mkdir -p "$RESULTS/micro"
{
    echo "{"
    echo "  \"date\": \"$(date -u '+%Y-%m-%d %H:%M UTC')\","
    echo "  \"nproc\": \"$(nproc)\","
    echo "  \"cpu\": \"$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)\","
    echo "  \"kernel\": \"$(uname -sr)\","
    echo "  \"memory\": \"$(free -h | awk '/^Mem:/ {print $2}')\","
    echo "  \"compiler\": \"$(c++ --version | head -n 1)\","
    echo "  \"wget\": \"$(wget --version | head -n 1)\","
    echo "  \"busybox\": \"$(busybox 2>&1 | head -n 1 | cut -d' ' -f1-2)\","
    echo "  \"commit\": \"$(git rev-parse --short HEAD 2>/dev/null || echo unknown)$(git diff --quiet HEAD 2>/dev/null || echo ' (with uncommitted changes)')\","
    echo "  \"work_fs\": \"$(findmnt -n -o FSTYPE -T /tmp/provisioning 2>/dev/null || echo unknown)\","
    echo "  \"load_before\": \"$(cut -d' ' -f1-3 /proc/loadavg)\","
    echo "  \"nice\": \"${PROV_BENCH_NICE:-}\","
} >"$RESULTS/machine.part"

for bench in "${MICRO[@]}"; do
    echo "==> $bench"
    "${NICE[@]}" "$BUILD/bench/$bench" --benchmark_repetitions="$REPETITIONS" \
        --benchmark_min_time="$MIN_TIME" --benchmark_out="$RESULTS/micro/$bench.json" \
        --benchmark_out_format=json --benchmark_display_aggregates_only=true
done

echo "==> job suite"
"${NICE[@]}" "$BUILD/bench/JobSuite" "${SUITE_ARGS[@]}" --out "$RESULTS/suite.jsonl" \
    transfers latency concurrency firmware

echo "==> whole jobs again, with the work directory on a tmpfs"
"${NICE[@]}" "$BUILD/bench/JobSuite" "${SUITE_ARGS[@]}" --out "$RESULTS/suite.jsonl" --tmpfs \
    transfers

echo "==> library sizes"
for library in "$BUILD/libprovisioning.so" "$BUILD/platform/libprovisioning-platform.so"; do
    real=$(readlink -f "$library")
    strip -o "$RESULTS/stripped.so" "$real"
    printf '{"name": "%s", "size": %s, "stripped": %s}\n' "$(basename "$library")" \
        "$(stat -c %s "$real")" "$(stat -c %s "$RESULTS/stripped.so")" >>"$RESULTS/sizes.jsonl"
    rm -f "$RESULTS/stripped.so"
done

{
    cat "$RESULTS/machine.part"
    echo "  \"load_after\": \"$(cut -d' ' -f1-3 /proc/loadavg)\","
    echo "  \"command\": \"bench/run.sh\""
    echo "}"
} >"$RESULTS/machine.json"
rm -f "$RESULTS/machine.part"

report
