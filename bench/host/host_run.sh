# host_run.sh: shell functions the host benchmarks source (scale.sh, soak.sh);
# not run by itself. Packs modules, starts nxahost under a descriptor limit,
# waits (with a limit) until a module serves, reads the host's figures from
# /proc, and stops the host and every module program it leaves behind.
# The sourcing script sets $build (the build directory) and runs inside the
# test sandbox.

# The folder of module $1 under $3, holding the program $2 under the module's name.
make_module() {
    local name=$1 program=$2 dir=$3/$1
    mkdir -p "$dir"
    printf '# benchmark module\nname\t\t=\t%s\nversion\t\t=\t1.0\nminFWVersion\t=\t0.0\narchitecture\t=\tnoarch\n' \
        "$name" >"$dir/Manifest"
    cp "$program" "$dir/$name"
}

# Packs the module folders $2... into the package $1.
pack_modules() {
    local zip=$1
    shift
    "$build/tools/nxapack/nxapack" "$zip" "$@" >/dev/null
}

# Starts nxahost in the background: first port $1, log file $2, modules $3...
# Its soft descriptor limit is HOST_NOFILE (default 1024, the usual default).
# Sets host_pid and host_start_ns (when it was launched, as `date +%s%N`).
start_host() {
    local port=$1 log=$2
    shift 2
    host_start_ns=$(date +%s%N)
    (ulimit -Sn "${HOST_NOFILE:-1024}" && exec "$build/tools/nxahost/nxahost" --port "$port" \
        --max-modules "$#" "$@") >"$log" 2>&1 </dev/null &
    host_pid=$!
}

# Waits at most $3 seconds until port $1 gives a client the start line of
# module $2. Prints the seconds since the host was launched; fails when the
# limit passes or the host ends first.
await_module() {
    local at
    at=$("$build/bench/host/await_banner" "$1" "starting module \"$2\"" "$3" "$host_pid" | sed -n 's/^at_ns=//p')
    [ -n "$at" ] || return 1
    awk -v a="$at" -v b="$host_start_ns" 'BEGIN { printf "%.3f", (a - b) / 1e9 }'
}

# Whether process $1 still runs (a zombie does not).
running() {
    local state
    state=$(sed -n 's/^State:[[:space:]]*\([A-Z]\).*/\1/p' "/proc/$1/status" 2>/dev/null)
    [ -n "$state" ] && [ "$state" != Z ]
}

# Waits at most $2 seconds for process $1 to end; fails if it still runs.
await_end() {
    local tries=$(($2 * 100))
    while running "$1" && [ $tries -gt 0 ]; do
        sleep 0.01
        tries=$((tries - 1))
    done
    ! running "$1"
}

# Every process running a module program (installed under /var/opt/velmora/nxa).
module_programs() {
    local p exe
    for p in /proc/[0-9]*; do
        exe=$(readlink "$p/exe" 2>/dev/null) || continue
        case "$exe" in /var/opt/velmora/nxa/*) echo "${p#/proc/}" ;; esac
    done
}

# Kills, by id, every module program still running and waits (at most 5 s)
# until they are gone, so that their inherited sockets free the ports.
kill_module_programs() {
    local pids pid
    pids=$(module_programs)
    [ -n "$pids" ] || return 0
    for pid in $pids; do kill -KILL "$pid" 2>/dev/null || true; done
    for pid in $pids; do await_end "$pid" 5 || echo "module program $pid did not end" >&2; done
}

# Stops the host: TERM, then KILL if it has not ended within $1 seconds
# (default 10; a host stops its modules one by one); then every module
# program left behind. Safe to call when no host runs.
stop_host() {
    local limit=${1:-10}
    [ -n "${host_pid:-}" ] || return 0
    kill -TERM "$host_pid" 2>/dev/null || true
    if ! await_end "$host_pid" "$limit"; then
        echo "nxahost did not stop within $limit s of TERM; killed" >&2
        kill -KILL "$host_pid" 2>/dev/null || true
    fi
    wait "$host_pid" 2>/dev/null || true
    host_pid=
    kill_module_programs
}

# The last line of log $1 (what the host said last), or "no output".
last_line() {
    local line
    line=$(grep -v '^[[:space:]]*$' "$1" 2>/dev/null | tail -n 1)
    echo "${line:-no output}"
}

# Prints the last 20 lines of host log $1 to stderr, under a heading.
show_log_tail() {
    echo "--- last lines of $1:" >&2
    tail -n 20 "$1" >&2 2>/dev/null || true
    echo "---" >&2
}

# Resident memory of process $1 in MiB.
rss_mib() { awk '/^VmRSS:/ { printf "%.1f", $2 / 1024 }' "/proc/$1/status"; }

# Context switches of process $1 so far, voluntary and not, all its threads.
context_switches() {
    awk '/^(voluntary|nonvoluntary)_ctxt_switches:/ { n += $2 } END { print n + 0 }' /proc/"$1"/task/*/status
}

# Open descriptors of process $1.
open_fds() { ls "/proc/$1/fd" | wc -l; }

# CPU time (user and system) of process $1 in seconds.
cpu_seconds() {
    awk -v hz="$(getconf CLK_TCK)" '{ sub(/^.*\) /, ""); printf "%.2f", ($12 + $13) / hz }' "/proc/$1/stat"
}

# Installs the Debian package $2 when the command $1 is missing (outside the
# sandbox: it has no network). Goes on without it when that fails.
ensure_tool() {
    command -v "$1" >/dev/null && return 0
    echo "installing $2 (for $1)" >&2
    export DEBIAN_FRONTEND=noninteractive
    { apt-get install -y -q "$2" || { apt-get update -q && apt-get install -y -q "$2"; }; } >/dev/null 2>&1 ||
        echo "cannot install $2; going on without $1" >&2
}
