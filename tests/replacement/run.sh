#!/usr/bin/env bash
# run.sh HOST FOLDER: runs HOST with the bundled libtarncore, then with the one in FOLDER, and compares what they show.
set -euo pipefail
host=$1 folder=$2
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/lib" "$root/config" "$root/engine/cache"
printf '[cacheeng]\n' >"$root/config/tarncfg.ini"
echo content >"$root/file"
export TARN_INSTALL_DIR=$root/lib REPLACED_LOG=$root/log

expect() {
    [ "$1" = "$2" ] || { echo "expected: $2"; echo "got:      $1"; exit 1; }
}
expect "$("$host" "$root/file")" "00000000 0123456789abcdef0123456789abcdef Replaced.Test"
[ ! -e "$REPLACED_LOG" ] || { echo "the bundled service wrote the replacement's log"; exit 1; }

rm "$root/engine/cache/"*
expect "$(LD_LIBRARY_PATH=$folder${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} "$host" "$root/file")" "00000000 00000000000000000000000000000000 Replaced.Test"
grep -q '^replaced 4 dbagent:[0-9]* \[CacheLookup\]\[cache\] file:.* is in cache\.$' "$REPLACED_LOG"
