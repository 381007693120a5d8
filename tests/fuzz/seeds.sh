#!/usr/bin/env bash
# Writes the seed corpora of the fuzz targets into $1/<Target>/ from the captured tool
# outputs, the message catalogue sources (as compiled into $2) and typical command lines.
set -euo pipefail
out=$1
msgs=$2
here=$(cd "$(dirname "$0")/../.." && pwd)
data=$here/tests/Multipath/data
mkdir -p "$out"/{DMTopologyFuzz,ZplQueryFuzz,CmdLineFuzz,MessageFuzz,TraceReopenFuzz}

cp "$here"/tests/Multipath/linux/data/*.stdout "$out/DMTopologyFuzz/"

# FuzzedDataProvider strings end at a backslash and one more character; a real
# backslash is doubled. The last bytes pick the setting (0: offline) and the count.
escaped() { sed 's/\\/\\\\/g' "$1"; }
zpl_seed() {
    { escaped "$1"; printf '\\n'; escaped "$2"; printf '\\n'; printf '%s\\n' "$3"
      printf '%s\\n' lundev0 21000000e08b12abcd 10000000c95a3b10; printf '\x02\x00'; } >"$out/ZplQueryFuzz/$4"
}
rpm=$(grep -v '^#' "$here/tests/fuzz/data/rpm-query.txt" | grep . | head -1)
zpl_seed "$data/lunctl-query-device.txt" "$data/lunctl-query-wwpn.txt" "$rpm" current
zpl_seed "$data/lunctl-query-device.older.txt" "$data/lunctl-query-wwpn.txt" "ZORzpl-1.6.1.0-1" older

args() { local name=$1; shift; printf '%s\0' "$@" >"$out/CmdLineFuzz/$name"; }
args walk -multipath "5"
args offline -debug MAX -maxlogsize 2048 -multipath "0;lundev0;10000000c95a3b10;21000000e08b12ab"
args policy -maxnumlogs 3 -maxnumruns 4 -maxnumdays 7 -multipath "'2';lundev0;lundev1"
args server -serverip 10.0.0.1 -servername host -serverport 1500 -multipath "4;lundev0"
args version -version

# gencat input lines: "<number> <text>" with octal escapes.
for catalog in "$msgs"/*.msg; do
    tail -n +2 "$catalog" | while read -r number text; do
        printf '%b' "$text" >"$out/MessageFuzz/$(basename "$catalog" .msg)-$number"
    done
done

# The last byte picks the file (odd: the log), the two before it the zero padding.
printf 'QLX Trace   1200        1          ZOR Quillon 5.2.8.0   Build date: Nov 24 2026\nBEGINNING NEW TRACE\n\n\x00\x00\x00' \
    >"$out/TraceReopenFuzz/trace"
printf 'QLX Trace   1048500     1          ZOR Quillon 5.2.8.0   Build date: Nov 24 2026\n\nContinued at beginning of file\n\n\xff\xff\x00' \
    >"$out/TraceReopenFuzz/trace-wrapped"
printf 'LOGHEADERREC 120         8192       ZOR Quillon 5.2.8.0               Nov 24 2026\n\n2026-11-24 03:00:00 AGT0429I entry\n-------- END OF DATA --------\n\x00\x00\x01' \
    >"$out/TraceReopenFuzz/log"

# Inputs that once failed stay in every run.
for input in "$here"/tests/fuzz/regressions/*; do
    [ -e "$input" ] || continue
    name=$(basename "$input")
    cp "$input" "$out/${name%%-*}/"
done
