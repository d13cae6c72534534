#!/usr/bin/env bash
# Runs every benchmark N times (5) and prints one table: each figure's median, minimum and
# maximum against its goal. With --load, one core is kept busy by a spinning process of its own
# for the whole run. A figure is met when its median is within the goal and no run misses the
# goal by more than 20 %. The last line is "K of M goals met"; the exit code is 0 only when all
# are. Figures marked "info" are shown without a goal. Builds what it needs first (in build/, as
# run-tests.sh does).
set -euo pipefail
cd "$(dirname "$0")/.."

runs=5
load=0
while [ $# -gt 0 ]; do
    case "$1" in
        --runs) runs=$2; shift 2 ;;
        --load) load=1; shift ;;
        -h|--help) sed -n '2,7p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "bench/run.sh: unknown option $1 (--runs N, --load)" >&2; exit 2 ;;
    esac
done
case "$runs" in ''|*[!0-9]*|0) echo "bench/run.sh: --runs takes a number from 1 up" >&2; exit 2 ;; esac

scripts/setup.sh >/dev/null
scripts/configure.sh >/dev/null
programs=(bench_device_access bench_cycle_queue bench_log_file bench_recorder bench_capture
          bench_inject bench_viewer)
cmake --build build --target "${programs[@]}" >/dev/null

results=$(mktemp)
spinner=
cleanup() {
    [ -n "$spinner" ] && kill "$spinner" 2>/dev/null || true
    rm -f "$results"
}
trap cleanup EXIT

read -r load1 load5 load15 _ < /proc/loadavg
echo "load average at the start: $load1 $load5 $load15 ($(nproc) cores)"
if [ "$load" -eq 1 ]; then
    # A process of its own, as a compiler or another program on a user's machine would be.
    bash -c 'while :; do :; done' &
    spinner=$!
    echo "background load: one spinning process (pid $spinner)"
fi

for ((run = 1; run <= runs; run++)); do
    for program in "${programs[@]}"; do
        echo "run $run/$runs: $program" >&2
        # Each program's own figures; a program that fails leaves its figures missing.
        (cd build/bench && "./$program" 2>/dev/null || true) | grep '^FIGURE ' >> "$results" || true
    done
done

met=0
total=0
printf '%-32s %-6s %10s %10s %10s %10s  %4s  %s\n' figure unit median min max goal runs result
for name in $(awk '{print $2}' "$results" | awk '!seen[$0]++'); do
    read -r op goal unit < <(awk -v n="$name" '$2 == n {print $4, $5, $6; exit}' "$results")
    # The middle value (the mean of the two middle ones for an even count), and the ends.
    read -r count median min max < <(awk -v n="$name" '$2 == n {print $3}' "$results" | sort -g |
        awk '{v[NR] = $1} END {m = (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2;
                               print NR, m, v[1], v[NR]}')
    if [ "$op" = info ]; then
        # Shown beside the goals to explain them; not one of them.
        printf '%-32s %-6s %10.4g %10.4g %10.4g %10s  %4d  %s\n' "$name" "$unit" "$median" "$min" \
            "$max" "-" "$count" "for information"
        continue
    fi
    ok=$(awk -v op="$op" -v goal="$goal" -v median="$median" -v min="$min" -v max="$max" \
             -v count="$count" -v runs="$runs" 'BEGIN {
        if (op == ">=") ok = median >= goal && min >= goal * 0.8;
        else ok = median <= goal && max <= goal * 1.2;
        print (ok && count == runs) ? 1 : 0 }')
    total=$((total + 1))
    met=$((met + ok))
    printf '%-32s %-6s %10.4g %10.4g %10.4g %10s  %4d  %s\n' "$name" "$unit" "$median" "$min" \
        "$max" "$op $goal" "$count" "$([ "$ok" -eq 1 ] && echo met || echo 'NOT MET')"
done
echo "$met of $total goals met"
[ "$met" -eq "$total" ]
