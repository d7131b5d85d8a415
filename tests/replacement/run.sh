#!/usr/bin/env bash
# run.sh HOST FOLDER: runs HOST with the bundled libtarncore, then with the one in FOLDER, and compares what they show.
set -euo pipefail
host=$1 folder=$2
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/lib" "$root/config" "$root/engine/cache"
printf '[cacheeng]\n' >"$root/config/tarncfg.ini"
echo content >"$root/file"
export TARN_INSTALL_DIR=$root/lib

bundled=$("$host" "$root/file")
rm "$root/engine/cache/"*
replaced=$(LD_LIBRARY_PATH=$folder${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} "$host" "$root/file" 2>&1)
printf '%s\n' "bundled: $bundled" "replaced: $replaced"
[ "$bundled" = "00000000 0123456789abcdef0123456789abcdef Replaced.Test" ]
grep -q '00000000 00000000000000000000000000000000 Replaced.Test$' <<<"$replaced"
grep -q '^replaced 4 dbagent:[0-9]* \[CacheLookup\]\[cache\] file:.* is in cache\.$' <<<"$replaced"
