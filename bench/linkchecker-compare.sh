#!/bin/sh
# Side-by-side run of our link checker (bench/linkcheck, BM_AddressList) and
# the linkchecker tool (Debian package "linkchecker", not a dependency of the
# project) on the same 2 000 addresses served by pinboard-sim's web side:
# live, redirected, 404, 410, refused and unresolvable, every answer after
# 20 ms, 32 connections / threads at once. Prints wall times and dead sets.
#
#   bench/linkchecker-compare.sh [build/release]
set -eu
build=${1:-build/release}
work=$(mktemp -d)
chmod 755 "$work"  # linkchecker drops root privileges to read its input
trap 'kill $sim 2>/dev/null || true; [ -n "${KEEP:-}" ] || rm -rf "$work"' EXIT

# Listen on every loopback address: 127.0.0.2…101 are a hundred hosts.
"$build/tools/pinboard-sim/pinboard-sim" --host 0.0.0.0 --port 0 --web-port 0 >"$work/sim.out" &
sim=$!
while ! grep -q '^web:' "$work/sim.out" 2>/dev/null; do sleep 0.1; done
port=$(sed -n 's/^web: http:\/\/[^:]*:\([0-9]*\)$/\1/p' "$work/sim.out")

: >"$work/list"
: >"$work/expected"
i=0
while [ $i -lt 2000 ]; do
  h=$((2 + i % 100))
  base="http://127.0.0.$h:$port"
  case $((i % 20)) in
    0|1|2)  url="$base/redirect/2?delay=20&n=$i" ;;
    3|4)    url="$base/status/404/$i?delay=20"; echo "$url" >>"$work/expected" ;;
    5)      url="$base/status/410/$i?delay=20"; echo "$url" >>"$work/expected" ;;
    6)      url="http://127.0.0.$h:1/refused/$i"; echo "$url" >>"$work/expected" ;;
    7)      url="http://name$((i % 20)).invalid/$i"; echo "$url" >>"$work/expected" ;;
    *)      url="$base/status/200/$i?delay=20" ;;
  esac
  echo "$url" >>"$work/list"
  i=$((i + 1))
done
sort -o "$work/expected" "$work/expected"
{
  echo "<html><body>"
  sed 's/&/\&amp;/g; s/.*/<a href="&">x<\/a>/' "$work/list"
  echo "</body></html>"
} >"$work/links.html"
printf '[checking]\nthreads=32\nmaxrequestspersecond=1000\n' >"$work/linkcheckerrc"

echo "work: $work"
echo "addresses: $(wc -l <"$work/list"), expected dead: $(wc -l <"$work/expected")"

start=$(date +%s.%N)
ZB_LINKCHECK_LIST="$work/list" ZB_LINKCHECK_DEAD_OUT="$work/ours" \
  "$build/bench/linkcheck" --benchmark_filter=BM_AddressList >/dev/null
ours=$(echo "$(date +%s.%N) - $start" | bc)
sort -o "$work/ours" "$work/ours"

start=$(date +%s.%N)
linkchecker -f "$work/linkcheckerrc" -t 32 --check-extern --no-robots -r 1 --no-status -o csv \
  "$work/links.html" >"$work/lc.csv" 2>/dev/null || true
theirs=$(echo "$(date +%s.%N) - $start" | bc)
# csv: urlname;parentname;baseref;result;warningstring;infostring;valid;url;…
awk -F';' 'NR > 1 && $7 == "False" { print $8 }' "$work/lc.csv" | sed 's/&amp;/\&/g' | sort -u >"$work/theirs"

report() {
  name=$1 file=$2 seconds=$3
  false_dead=$(comm -13 "$work/expected" "$file" | wc -l)
  missed=$(comm -23 "$work/expected" "$file" | wc -l)
  printf '%-12s wall %6.1f s  dead %4d  false dead %4d  missed %4d\n' "$name" "$seconds" "$(wc -l <"$file")" \
    "$false_dead" "$missed"
}
report ours "$work/ours" "$ours"
report linkchecker "$work/theirs" "$theirs"
