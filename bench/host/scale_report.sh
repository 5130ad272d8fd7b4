#!/bin/bash
# scale_report.sh SCALE_CSV
#
# Reports what bench/host/scale.sh measured (it calls this at its end; run it
# again on a kept CSV to redo the report): prints the rows as a table and,
# when gnuplot is there, plots scale.png beside the CSV: throughput against
# N on a log axis, absolute (N and the N = 1 run beside it, every rep and
# their mean) and relative to N = 1 (mean of the reps).
set -euo pipefail

csv=${1:?usage: scale_report.sh SCALE_CSV}
png=$(dirname "$csv")/scale.png
data=$(mktemp -d)
trap 'rm -rf "$data"' EXIT

# The CSV without its header, as tab-separated fields; the quoted note last.
fields() {
    awk 'NR > 1 {
        line = $0
        for (i = 1; i <= 13; i++) { p = index(line, ","); printf "%s\t", substr(line, 1, p - 1); line = substr(line, p + 1) }
        gsub(/^"|"$/, "", line); gsub(/""/, "\"", line); print line
    }' "$csv"
}

print_table() {
    echo
    echo "host cost against idle modules (ratios: N / the N = 1 run beside it)"
    printf '%5s %3s | %8s %8s %5s | %8s %8s %8s %5s | %8s %7s %8s %7s\n' N rep MB/s "N=1" ratio \
        "rtt med" "rtt p99" "N=1 med" ratio "start s" "RSS MiB" "wake-ups" waits
    fields | while IFS=$'\t' read -r n rep mbps ref mratio med p99 refmed rratio start rss wake waits note; do
        printf '%5s %3s | %8s %8s %5s | %8s %8s %8s %5s | %8s %7s %8s %7s\n' "$n" "$rep" "$mbps" "$ref" "$mratio" \
            "$med" "$p99" "$refmed" "$rratio" "$start" "$rss" "$wake" "$waits"
        [ -z "$note" ] || echo "      note: $note"
    done
    echo "(rtt in us; wake-ups: context switches of the idle host in 10 s; waits: its poll/select/epoll calls in 10 s)"
}

# Per-rep points (N, MB/s, MB/s of N = 1) and per-N means (N, MB/s, MB/s of
# N = 1, ratio) of the rows whose throughput was measured.
write_plot_data() {
    fields | awk -F'\t' '$3 != "-" && $3 != "" { print $1, $3, ($4 == "-" ? "NaN" : $4) }' >"$data/reps"
    fields | awk -F'\t' '$3 != "-" && $3 != "" {
            n[$1]++; a[$1] += $3
            if ($4 != "-" && $4 > 0) { b[$1] += $4; m[$1]++; r[$1] += $3 / $4 }
        }
        END { for (k in n) print k, a[k] / n[k], (m[k] ? b[k] / m[k] : "NaN"), (m[k] ? r[k] / m[k] : "NaN") }' |
        sort -n >"$data/means"
}

plot() {
    command -v gnuplot >/dev/null || { echo "no gnuplot: no plot"; return 0; }
    [ -s "$data/means" ] || { echo "no throughput was measured: no plot"; return 0; }
    local terminal=png
    gnuplot -e 'set terminal' 2>&1 | grep -q pngcairo && terminal=pngcairo
    gnuplot <<EOF
set terminal $terminal size 900,900
set output "$png"
set datafile missing "NaN"
set logscale x
set grid
set key left bottom
set xlabel "modules (N: the one measured and N - 1 idle)"
set multiplot layout 2,1 title "nxahost: throughput of one module to one TCP client against N"
set ylabel "MB/s"
set yrange [0:*]
plot "$data/reps" using 1:2 with points pt 7 lc 1 title "N, each rep", \
     "$data/means" using 1:2 with linespoints lw 2 lc 1 title "N, mean", \
     "$data/means" using 1:3 with linespoints dt 2 lc 2 title "N = 1 beside it, mean"
set ylabel "relative to N = 1 beside it"
plot "$data/means" using 1:4 with linespoints lw 2 lc 3 title "mean of MB/s (N) / MB/s (N = 1)"
unset multiplot
EOF
    echo "plot: $png"
}

print_table
write_plot_data
plot
echo "figures: $csv"
