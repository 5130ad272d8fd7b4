# soak_report.sh: the sampling and the summary of soak.sh; sourced by soak.sh
# inside the sandbox (after host_run.sh and soak_load.sh, with out, work,
# sample_s, host_pid, churn_pid and gap_pid set), not run by itself.

# One sample of the host at second $1 of the soak: a CSV row and a line.
sample_row() {
    local t=$1 rss fds cpu gap
    rss=$(rss_mib "$host_pid" 2>/dev/null) || rss=-
    fds=$(open_fds "$host_pid" 2>/dev/null) || fds=-
    cpu=$(cpu_seconds "$host_pid" 2>/dev/null) || cpu=-
    gap=$(gap_since_last)
    echo "$t,$rss,$fds,$cpu,$gap" >>"$out"
    printf 't=%5s s  RSS %6s MiB  %5s descriptors  CPU %8s s  longest gap %9s ms\n' "$t" "$rss" "$fds" "$cpu" "$gap"
}

# The seconds of the soak to sample at: 0, every sample_s, and the end.
sample_times() {
    local t
    for ((t = 0; t < $1; t += sample_s)); do echo "$t"; done
    echo "$1"
}

# Samples the host from now for $1 seconds; stops early when the host ends.
sample_until() {
    local start t pause
    echo "t_s,rss_MiB,fds,cpu_s,gap_ms" >"$out"
    start=$(date +%s)
    for t in $(sample_times "$1"); do
        pause=$((start + t - $(date +%s)))
        [ "$pause" -le 0 ] || sleep "$pause"
        if ! running "$host_pid"; then
            echo "the host has ended by second $t of the soak" >&2
            show_log_tail "$log"
            return 0
        fi
        sample_row "$t"
    done
}

# First, last and largest value of CSV column $1 (skipping "-"), and its label $2.
column_summary() {
    awk -F, -v c="$1" -v label="$2" 'NR > 1 && $c != "-" {
            if (first == "") first = $c
            last = $c
            if (max == "" || $c + 0 > max + 0) max = $c
        }
        END { printf "%s first/last/max %s/%s/%s", label, first, last, max }' "$out"
}

# CPU seconds the host used between the first and the last sample.
cpu_used() {
    awk -F, 'NR > 1 && $4 != "-" { if (first == "") first = $4; last = $4 }
        END { if (first == "") print "-"; else printf "%.2f", last - first }' "$out"
}

# The watching client's last report (its longest gap overall), then it ends.
final_gap_report() {
    gap_since_last >/dev/null
    sed -n 's/.*overall_ms=\([0-9.]*\) bytes=\([0-9]*\) reconnects=\([0-9]*\).*/longest gap overall \1 ms (watching client: \2 bytes, \3 reconnects)/p' \
        "$work/gap.txt" 2>/dev/null | grep . || echo "longest gap overall: - (no report from the watching client)"
}

# What the churning clients and the bus subscribers got.
clients_summary() {
    await_end "$churn_pid" 15 || kill "$churn_pid" 2>/dev/null || true
    echo "churning TCP clients: $(tail -n 1 "$work/churn.txt" 2>/dev/null)"
    local k lines=""
    for k in 0 1 2 3; do lines+=" $(cat "$work/soak$k.out" 2>/dev/null | wc -l)"; done
    echo "bus subscribers, lines received each:$lines; failed bus messages: $(cat "$work/bus-failures" 2>/dev/null | wc -l)"
}

# The closing summary; stops the host (with a limit) first.
summarize() {
    local gap
    gap=$(final_gap_report)
    clients_summary
    stop_host 20
    echo "summary: $(column_summary 2 "RSS MiB"), $(column_summary 3 descriptors), $gap, CPU seconds used $(cpu_used)"
    echo "figures: $out; host log: $log"
}
