# scale_rows.sh: the measurements of scale.sh, one CSV row per N and rep.
# Sourced by scale.sh inside the sandbox (after host_run.sh, with build, work,
# logs, port, bytes, drain_limit, keystrokes and out set); not run by itself.

csv_header=N,rep,MBps,MBps_N1,MBps_ratio,rtt_median_us,rtt_p99_us,rtt_median_N1_us,rtt_ratio,startup_s,rss_MiB,wakeups_10s,wait_calls_10s,note

idle_name() { printf 'idle%04d\n' "$1"; }

# The module folders: flood, cat, and the idle modules N = $1 needs.
prepare_modules() {
    local i
    make_module flood "$build/bench/host/flood" "$work/modules"
    make_module cat "$(command -v cat)" "$work/modules"
    for ((i = 1; i < $1; i++)); do make_module "$(idle_name "$i")" "$build/bench/host/idle" "$work/modules"; done
}

# Module $1 followed by N - 1 idle modules, N = $2, one name a line.
module_names() {
    local i
    echo "$1"
    for ((i = 1; i < $2; i++)); do idle_name "$i"; done
}

# Packs, for N = $1, the package led by flood and the one led by cat.
pack_for() {
    local first dirs
    for first in flood cat; do
        mapfile -t dirs < <(module_names "$first" "$1" | sed "s|^|$work/modules/|")
        pack_modules "$work/$first-$1.zip" "${dirs[@]}"
    done
}

# Seconds a host of N = $1 modules may take to start, and to stop.
start_limit() { echo $((30 + $1 / 10)); }
stop_limit() { echo $((10 + $1 / 20)); }

# Starts a host on the package led by module $1 for N = $2, logging to $3,
# and waits until its last module serves. Sets started (seconds); when the
# host does not start, adds that to note (once), shows the log's tail and
# stops it.
serve() {
    local first=$1 n=$2 log=$3 names
    cp "$work/$first-$n.zip" /var/opt/velmora/nxa.zip
    mapfile -t names < <(module_names "$first" "$n")
    start_host "$port" "$log" "${names[@]}"
    started=$(await_module $((port + n - 1)) "${names[-1]}" "$(start_limit "$n")") && return 0
    local failure="N=$n failed to start: $(last_line "$log")"
    case "$note" in *"$failure"*) ;; *) note+="${note:+; }$failure" ;; esac
    echo "N=$n ($first): the host did not start" >&2
    show_log_tail "$log"
    stop_host "$(stop_limit "$n")"
    return 1
}

field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (a != "-" && b != "-" && b > 0) printf "%.2f", a / b; else print "-" }'; }

# Wait calls (poll, select, epoll) of the host over 10 s, counted by strace;
# "-" without strace.
count_waits() {
    command -v strace >/dev/null || { echo -; return; }
    local summary=$work/strace.txt
    rm -f "$summary"
    timeout -k 5 -s INT 10 strace -f -c -q -o "$summary" \
        -e trace=poll,ppoll,select,pselect6,epoll_wait,epoll_pwait,epoll_pwait2 -p "$host_pid" >/dev/null 2>&1 || true
    awk '$NF ~ /^(poll|ppoll|select|pselect6|epoll_wait|epoll_pwait|epoll_pwait2)$/ { n += $4; seen = 1 }
         END { print seen ? n : 0 }' "$summary" 2>/dev/null || echo -
}

# The serving host's start-up time and RSS, then its context switches over
# 10 s once idle, then its wait calls over another 10 s. Sets startup, rss,
# wakeups and waits.
measure_idle() {
    local before after
    startup=$started
    rss=$(rss_mib "$host_pid" 2>/dev/null) || rss=-
    sleep 1  # the client that saw the last start line has left; let the host see it
    before=$(context_switches "$host_pid" 2>/dev/null) || before=
    sleep 10
    after=$(context_switches "$host_pid" 2>/dev/null) || after=
    wakeups=-
    [ -n "$before" ] && [ -n "$after" ] && running "$host_pid" && wakeups=$((after - before))
    waits=$(count_waits)
}

# Throughput of flood among N = $1 modules (MB/s, or "-"); $2 names the
# run in the log's name. A drain still going after drain_limit seconds ends
# there: its MB/s are of what had arrived, and the note says so. Sets mbps.
throughput_run() {
    local n=$1 what=${2:-} line
    mbps=-
    serve flood "$n" "$logs/flood-n$n-rep$rep${what:+-$what}.log" || return 0
    line=$(timeout $((drain_limit + 30)) "$build/bench/host/tcp_drain" "$port" 1 "$bytes" shared "$drain_limit") || true
    mbps=$(field MBps <<<"$line")
    [ -n "$mbps" ] || mbps=-
    [ "$(field complete <<<"$line")" = 1 ] ||
        note+="${note:+; }N=$n: the flood did not complete within $drain_limit s (${line:-no result})"
    stop_host "$(stop_limit "$n")"
}

# Keystroke round trip through cat among N = $1 modules. Sets rtt_median and rtt_p99.
rtt_run() {
    local n=$1 what=${2:-} line
    rtt_median=- rtt_p99=-
    serve cat "$n" "$logs/cat-n$n-rep$rep${what:+-$what}.log" || return 0
    line=$(timeout $((60 + n / 5)) "$build/bench/host/keystroke_rtt" "$port" "$keystrokes") ||
        note+="${note:+; }N=$n: the keystroke round trip did not finish"
    rtt_median=$(field median_us <<<"$line")
    rtt_p99=$(field p99_us <<<"$line")
    [ -n "$rtt_median" ] || rtt_median=- rtt_p99=-
    stop_host "$(stop_limit "$n")"
}

# A host of N = $1 modules, all idle (flood is too until a client triggers
# it), measured for start-up, RSS, wake-ups and wait calls.
idle_run() {
    local n=$1
    serve flood "$n" "$logs/idle-n$n-rep$rep.log" || return 0
    measure_idle
    stop_host "$(stop_limit "$n")"
}

# A CSV field: quoted, with quotes doubled.
csv_text() { printf '"%s"' "${1//\"/\"\"}"; }

# Measures N = $1 in rep $2, throughput and round trip each beside the same
# for N = 1, then the idle host's figures; appends the row to the CSV. Each
# figure comes from a host of its own, so that every throughput and round
# trip run, N or N = 1, goes the same way: start, wait until it serves, measure.
measure_row() {
    local n=$1 rep=$2 note="" started startup=- rss=- wakeups=- waits=- mbps rtt_median rtt_p99
    local ref_mbps ref_rtt
    throughput_run 1 beside
    ref_mbps=$mbps
    throughput_run "$n"
    rtt_run 1 beside
    ref_rtt=$rtt_median
    rtt_run "$n"
    idle_run "$n"
    printf '%s,%s,%s,%s,%s,%s,%s,%s,%s,%s,%s,%s,%s,%s\n' "$n" "$rep" "$mbps" "$ref_mbps" "$(ratio "$mbps" "$ref_mbps")" \
        "$rtt_median" "$rtt_p99" "$ref_rtt" "$(ratio "$rtt_median" "$ref_rtt")" "$startup" "$rss" "$wakeups" "$waits" \
        "$(csv_text "$note")" >>"$out"
    echo "N=$n rep $rep: $mbps MB/s (N=1 beside: $ref_mbps), rtt $rtt_median/$rtt_p99 us (N=1: $ref_rtt)," \
        "start-up $startup s, RSS $rss MiB, wake-ups $wakeups, wait calls $waits${note:+ [$note]}"
}
