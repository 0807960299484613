#!/usr/bin/env bash
# Times kvdiff side by side with diff -rq, rsync -rcn and the floors (reading
# every byte of both trees, walking their metadata) on generated tree pairs,
# then the scan alone, a rescan after one changed file, a metadata-only pair
# of a million items, and the micro-benchmarks. Debian 12; installs what it
# lacks. See README.md, "Benchmarks".
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
build_dir=$source_dir/build-bench

work=${KORVANE_BENCH_DIR:-/var/tmp/korvane-bench}
runs=${KORVANE_BENCH_RUNS:-5}
seed=1 files=100000 dirs=10000 total=2G share=0.005 million=1000000 micro=1

usage() {
    cat <<'EOF'
usage: Bench/run-benchmarks.sh [options]
  --work-dir DIR      where the generated pairs live and are reused
                      (default $KORVANE_BENCH_DIR or /var/tmp/korvane-bench)
  --runs N            timed runs per command; the median is shown (default 5, or $KORVANE_BENCH_RUNS)
  --seed N            the pairs for this seed (default 1)
  --files N           regular files per tree (default 100000)
  --dirs N            directories per tree (default 10000)
  --total-bytes SIZE  file data per tree, K/M/G suffixes (default 2G)
  --change-share F    share of items per kind of change in the changed pair (default 0.005)
  --million N         items per tree of the metadata-only pair (default 1000000; 0 skips it)
  --small             a quick round: --files 5000 --dirs 500 --total-bytes 200M --million 100000
  --no-micro          skip the micro-benchmarks
EOF
}

while [ $# -gt 0 ]; do
    case $1 in
    --work-dir) work=$2 work_given=1; shift ;;
    --runs) runs=$2; shift ;;
    --seed) seed=$2; shift ;;
    --files) files=$2; shift ;;
    --dirs) dirs=$2; shift ;;
    --total-bytes) total=$2; shift ;;
    --change-share) share=$2; shift ;;
    --million) million=$2; shift ;;
    --small) files=5000 dirs=500 total=200M million=100000 small=1 ;;
    --no-micro) micro=0 ;;
    -h | --help) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
    esac
    shift
done
# The small pairs live beside the default ones, so that a quick round does not
# replace gigabytes that take minutes to make again.
[ "${small:-0}" -eq 1 ] && [ "${work_given:-0}" -eq 0 ] && [ -z "${KORVANE_BENCH_DIR:-}" ] && work=$work-small
[[ $runs =~ ^[1-9][0-9]*$ ]] || { echo "run-benchmarks: --runs takes a positive number" >&2; exit 2; }

packages=(build-essential cmake ninja-build pkg-config qt6-base-dev liburing-dev libplist-dev
          libbenchmark-dev util-linux rsync time)
install_packages() {
    local missing=() sudo=() p
    for p in "${packages[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    "${sudo[@]}" apt-get update
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
}

install_packages
cmake -S "$source_dir" -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKORVANE_BUILD_TESTS=OFF \
    -DKORVANE_BUILD_BENCH=ON >/dev/null
cmake --build "$build_dir" -j"$(nproc)"
kvdiff=$build_dir/Source/application/kvdiff
generator=$build_dir/Bench/kvn_bench_tree
pipeline=$build_dir/Bench/kvn_bench_pipeline
mkdir -p "$work"
log=$work/last-run.log
: >"$log"

# A pair is made again only when its options (or the generator's source) changed.
make_pair() {
    local dir=$work/$1; shift
    local stamp
    stamp="$* $(sha256sum <"$source_dir/Bench/kvn_bench_tree.cpp" | cut -c1-16)"
    if [ -f "$dir/options" ] && [ "$(cat "$dir/options")" = "$stamp" ]; then
        echo "reusing $dir:"
    else
        echo "generating $dir:"
        rm -rf "$dir"
        mkdir -p "$dir"
        "$generator" "$@" "$dir/original" "$dir/modified" >"$dir/summary"
        printf '%s\n' "$stamp" >"$dir/options"
    fi
    sed 's/^/  /' "$dir/summary"
}

# The commands, each answering success for its normal outcomes (1 from kvdiff
# and diff only says that the trees differ).
run_kvdiff() { "$kvdiff" --report=json "$1" "$2" >/dev/null || [ $? -eq 1 ]; }
run_diff() { diff -rq "$1" "$2" >/dev/null || [ $? -eq 1 ]; }
run_rsync() { rsync -rcn --delete "$1/" "$2/" >/dev/null; }
run_read_all() { find "$1" "$2" -type f -print0 | xargs -0 -P"$(nproc)" -n 256 cat >/dev/null; }
run_walk() { find "$1" "$2" -printf '%s %T@\n' >/dev/null; }

seconds_since() { awk -v a="$1" -v b="$(date +%s.%N)" 'BEGIN { printf "%.6f\n", b - a }'; }
median() { sort -g | awk '{ v[NR] = $1 } END { printf "%.3f", NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

# Median seconds of $runs runs of a command.
time_median() {
    local i start times=()
    for ((i = 0; i < runs; i++)); do
        start=$(date +%s.%N)
        if ! "$@" 2>>"$log"; then
            echo "run-benchmarks: '$*' failed; the end of $log:" >&2
            tail -n 5 "$log" >&2
            exit 1
        fi
        times+=("$(seconds_since "$start")")
    done
    printf '%s\n' "${times[@]}" | median
}

peak_kib() { awk -F': ' '/Maximum resident set size/ { print $2 }' "$work/time.txt"; }

# One more kvdiff run under /usr/bin/time, with --stats once kvdiff has it:
# peak memory per item, and the time of each stage.
memory_and_stages() {
    local original=$1 modified=$2 items=$3 stats=() status=0
    "$kvdiff" --stats --version >/dev/null 2>&1 && stats=(--stats)
    /usr/bin/time -v -o "$work/time.txt" "$kvdiff" "${stats[@]}" --report=json "$original" "$modified" \
        >/dev/null 2>"$work/stats.txt" || status=$?
    [ "$status" -le 1 ] || { cat "$work/stats.txt" >&2; exit 1; }
    # An item is one path of the comparison: its two nodes and its row.
    local rows
    rows=$(awk '$1 == "stats:" && $2 == "table" { print $4 }' "$work/stats.txt")
    awk -v peak="$(peak_kib)" -v base="$baseline_kib" -v items="$items" -v rows="${rows:-0}" 'BEGIN {
        if (rows == 0) rows = items / 2
        printf "kvdiff peak RSS: %.1f MiB for %d items (rows; %d nodes in both trees): %.0f bytes per item,",
            peak / 1024, rows, items, peak * 1024 / rows
        printf " %.0f above the %.1f MiB of comparing two empty folders\n", (peak - base) * 1024 / rows, base / 1024 }'
    if [ ${#stats[@]} -eq 0 ]; then
        echo "kvdiff --stats: not in this kvdiff yet"
        return
    fi
    awk 'BEGIN { print "kvdiff --stats, one run:" }
         $1 == "stats:" && NF == 5 { printf "  %-14s %9.3f s %12s %s\n", $2, $3, $4, $5 }
         $1 == "stats:" && NF == 3 { rest = rest sprintf("  %s %s", $2, $2 == "total" ? sprintf("%.3f s", $3) : $3) }
         END { if (rest != "") print rest }' "$work/stats.txt"
}

# Rows: label and median; the last column is kvdiff's median over the row's.
table() {
    awk -F'\t' 'NR == 1 { kv = $2 } { rows[NR] = $1; t[NR] = $2 }
        END { printf "  %-44s %10s %12s\n", "command", "median s", "kvdiff/this"
              for (i = 1; i <= NR; i++) printf "  %-44s %10.3f %12.3f\n", rows[i], t[i], (t[i] > 0 ? kv / t[i] : 0) }'
}

# A regular file of more than $3 (a find -size, default 64k) at the same
# place in both trees, for the rescan.
pick_file() {
    local relative
    while IFS= read -r -d '' relative; do
        if [ -f "$1/$relative" ]; then
            printf '%s' "$relative"
            return 0
        fi
    done < <(cd "$2" && find . -type f -size "+${3:-64k}" -print0)
    return 1
}

# The top-level directory of both trees with the most items in the first, for
# the updates after a whole subtree went or came.
pick_directory() {
    local name best='' most=0 count
    while IFS= read -r -d '' name; do
        name=${name#./}
        [ -d "$2/$name" ] && [ ! -L "$2/$name" ] || continue
        count=$(find "$1/$name" | wc -l)
        if [ "$count" -gt "$most" ]; then
            most=$count best=$name
        fi
    done < <(cd "$1" && find . -mindepth 1 -maxdepth 1 -type d -print0)
    [ -n "$best" ] && printf '%s' "$best"
}

# The time of such an update and of its reconciliation.
subtree_rescan() {
    local out status=0
    out=$("$pipeline" "$1" "$2" "$3" "$4" "$runs") || status=$?
    printf '%s\n' "$out" | grep -E '^rescan:|^ *reconcile ' | sed 's/^ */  /' || true
    [ "$status" -eq 0 ] || echo "run-benchmarks: the update after $4 $1 read other pairs than expected" >&2
}

benchmark_pair() {
    local name=$1 original=$work/$1/original modified=$work/$1/modified items relative kv df rs rd wk
    items=$(find "$original" "$modified" -mindepth 1 | wc -l)
    echo
    echo "== $name pair ($runs runs each, warm cache) =="
    run_read_all "$original" "$modified"
    run_walk "$original" "$modified"
    kv=$(time_median run_kvdiff "$original" "$modified")
    df=$(time_median run_diff "$original" "$modified")
    rs=$(time_median run_rsync "$original" "$modified")
    rd=$(time_median run_read_all "$original" "$modified")
    wk=$(time_median run_walk "$original" "$modified")
    table <<EOT
kvdiff --report=json	$kv
diff -rq	$df
rsync -rcn --delete	$rs
floor: read every byte (cat, $(nproc) jobs)	$rd
floor: metadata walk (find -printf)	$wk
EOT
    memory_and_stages "$original" "$modified" "$items"
    "$pipeline" scan "$original" "$modified" "$runs"
    if relative=$(pick_file "$original" "$modified"); then
        "$pipeline" rescan "$original" "$modified" "$relative" "$runs" ||
            echo "run-benchmarks: the rescan read more or fewer pairs than the one that changed" >&2
    fi
    if relative=$(pick_directory "$original" "$modified"); then
        echo "update after the largest top-level directory went from both trees ($relative):"
        subtree_rescan rescan-gone "$original" "$modified" "$relative"
        echo "update after it came into both trees:"
        subtree_rescan rescan-added "$original" "$modified" "$relative"
    fi
}

# The metadata-only pair: no contents to read, so kvdiff against the walk alone.
benchmark_metadata() {
    local original=$work/metadata/original modified=$work/metadata/modified kv wk
    echo
    echo "== metadata pair: $million items per tree, all files empty ($runs runs each, warm cache) =="
    run_walk "$original" "$modified"
    kv=$(time_median run_kvdiff "$original" "$modified")
    wk=$(time_median run_walk "$original" "$modified")
    table <<EOT
kvdiff --report=json	$kv
floor: metadata walk (find -printf)	$wk
EOT
    memory_and_stages "$original" "$modified" "$(find "$original" "$modified" -mindepth 1 | wc -l)"
    "$pipeline" scan "$original" "$modified" "$runs"
    local relative
    if relative=$(pick_file "$original" "$modified" 0); then
        "$pipeline" rescan "$original" "$modified" "$relative" "$runs" ||
            echo "run-benchmarks: the rescan read more or fewer pairs than the one that changed" >&2
    fi
}

echo
echo "machine: $(nproc) cores, $(awk -F': ' '/model name/ { print $2; exit }' /proc/cpuinfo)," \
    "$(awk '/MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo) RAM;" \
    "work dir $work on $(findmnt -n -o FSTYPE -T "$work"); kvdiff $("$kvdiff" --version)" \
    "($(git -C "$source_dir" rev-parse --short HEAD 2>/dev/null || echo 'no git'))"
# What kvdiff holds before it has anything to hold.
mkdir -p "$work/empty/original" "$work/empty/modified"
/usr/bin/time -v -o "$work/time.txt" "$kvdiff" --report=json "$work/empty/original" "$work/empty/modified" >/dev/null
baseline_kib=$(peak_kib)
common=(--seed="$seed" --files="$files" --dirs="$dirs" --total-bytes="$total")
make_pair identical "${common[@]}" --identical
make_pair changed "${common[@]}" --change-share="$share"
if [ "$million" -gt 0 ]; then
    make_pair metadata --seed="$seed" --files=$((million * 9 / 10)) --dirs=$((million / 10)) --empty \
        --change-share="$share"
fi

benchmark_pair identical
benchmark_pair changed

[ "$million" -eq 0 ] || benchmark_metadata

if [ "$micro" -eq 1 ]; then
    for bench in bench_crc32 bench_predicate bench_operationqueue bench_smallobjectpool bench_lookupdict bench_arraycontroller; do
        echo
        echo "== $bench =="
        "$build_dir/Bench/$bench" 2>&1
    done
fi
