#!/bin/bash
# Regenerates the seed inputs of the fuzzers in fuzz/corpus/ (with the zip
# command and python3's zipfile for the names zip refuses to write). The
# seeds are committed; running this again is only needed to change them.
set -euo pipefail
export LC_ALL=C
here=$(cd "$(dirname "$0")" && pwd)
ini=$here/corpus/ini_parser
unz=$here/corpus/unzip
bus=$here/corpus/bus_decode
mkdir -p "$ini" "$unz" "$bus"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

printf '# Development package created by vllib 11.1.0.4\nname\t\t=\tnxadevel\nversion\t\t=\t1.0\nminFWVersion\t=\t0.0\narchitecture\t=\tnoarch\n' >"$ini/manifest"
printf '# comment\r\nname = demo\r\n\r\narchitecture = i686\r\n' >"$ini/crlf"
printf '  \t# indented comment\n\n\t \nurl = a=b=c\nname = first\nname = second\nempty =\n' >"$ini/mixed"
printf 'name = x\nno separator here\n' >"$ini/missing-equals"
printf 'name = x\n \t= value\n' >"$ini/empty-key"
printf 'key = a\0b\nlast = no line feed' >"$ini/nul-and-last-line"

mkdir -p "$work/pkg/bin" "$work/pkg/sub" "$work/pkg/emptydir"
printf 'alpha\n' >"$work/pkg/a.txt"
: >"$work/pkg/empty"
printf '#!/bin/sh\necho hi\n' >"$work/pkg/bin/exe"
chmod 755 "$work/pkg/bin/exe"
head -c 2000 /dev/zero | tr '\0' 'z' >"$work/pkg/sub/data.bin"
ln -s a.txt "$work/pkg/link"
(
    cd "$work"
    zip -qr -X "$unz/tree.zip" pkg -x pkg/link
    zip -qr -X -D "$unz/no-directory-entries.zip" pkg -x pkg/link
    zip -qr -X -0 "$unz/stored.zip" pkg -x pkg/link
    zip -qr -X --symlinks "$unz/symlink.zip" pkg/link pkg/a.txt
    zip -qr -X -P secret "$unz/encrypted.zip" pkg/a.txt
)
printf 'PK\005\006\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0' >"$unz/no-entries.zip"
python3 - "$unz" <<'PY'
import sys, zipfile
out = sys.argv[1]
def write(name, entries):
    with zipfile.ZipFile(f"{out}/{name}", "w", zipfile.ZIP_DEFLATED) as z:
        for entry, data in entries:
            info = zipfile.ZipInfo(entry, (2020, 1, 1, 0, 0, 0))
            info.create_system = 3
            info.external_attr = 0o100644 << 16
            z.writestr(info, data)
write("dotdot.zip", [("good.txt", "good\n"), ("../evil", "evil\n")])
write("dotdot-inner.zip", [("a/../../b", "evil\n")])
write("absolute.zip", [("/tmp/evil", "evil\n")])
write("backslash.zip", [("..\\evil", "evil\n")])
write("scratch-prefix.zip", [(".nxa-unzip-x/f", "x\n")])
PY

# Bus messages in bus_decode_fuzzer's framing: the number of user properties,
# each name and value as a two-byte big-endian length and its bytes, then the
# payload.
byte() { printf "\\x$(printf %02x "$1")"; }
field() {
    byte $((${#1} >> 8))
    byte $((${#1} & 255))
    printf '%s' "$1"
}
# message <file> <payload> <name> <value>...: one framed message; the payload
# may hold backslash escapes (\n, \0 and so on).
message() {
    local file=$1 payload=$2
    shift 2
    {
        byte $(($# / 2))
        for text in "$@"; do field "$text"; done
        printf '%b' "$payload"
    } >"$bus/$file"
}
message good-system 71-NXAStartOutput vlp-sender viewer vlp-type system vlp-id 128 vlp-kind 4
message good-setstate '' vlp-sender NXAModule_demo%2Fx vlp-type setstate vlp-id 129 \
    vlp-state running vlp-value 4294967295
message missing-type 72-NXAStopOutput vlp-sender viewer vlp-kind 4
message unknown-type 71-NXAStartOutput vlp-sender viewer vlp-type System vlp-kind 4
message bad-kind 71-NXAStartOutput vlp-sender viewer vlp-type system vlp-kind 256
message bad-sender-escape 71-NXAStartOutput vlp-sender 'view%zzer' vlp-type system vlp-kind 4
message text-with-nul-and-crlf 'a\tb\0c\r\n' vlp-type system vlp-kind 34
: >"$bus/empty"
