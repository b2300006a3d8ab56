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

# The hard ground: answers that fool link checkers into false dead marks
# (walls, errors, lying HEADs, loops, long chains, trickling and dropping
# servers, paths that must not be rewritten), among ones that are dead.
b="http://127.0.0.2:$port"
{
  for p in /status/401 /status/403 /status/999 /status/500 /status/429 '/retry/503?after=1' /loop/a \
           /redirect/10 /redirect/11 /head/404/200 /head/405/200 /head-drop/200 /trickle /drop \
           '/status/200?delay=25000' '/exact/a%2Fb?is=a%252Fb' '/exact/a+b?is=a%2Bb' \
           '/exact/caf%C3%A9?is=caf%25C3%25A9' '/exact/%7Euser?is=%257Euser' '/exact/x:y?is=x%3Ay'; do
    echo "$b$p"
  done
} >"$work/hard"
{
  for p in /status/404/h /status/410/h /head/405/404 '/to?url=http%3A%2F%2Fgone.invalid%2F'; do echo "$b$p"; done
  echo "http://127.0.0.3:1/refused"
  echo "http://hard.invalid/x"
} | sort >"$work/hard-expected"
cat "$work/hard-expected" >>"$work/hard"
for h in $(seq 10 20); do echo "http://127.0.0.$h:$port/status/200/pad"; done >>"$work/hard"

# run NAME LIST EXPECTED: both checkers on LIST, compared with EXPECTED.
run() {
  name=$1 list=$2 expected=$3
  {
    echo "<html><body>"
    sed 's/&/\&amp;/g; s/.*/<a href="&">x<\/a>/' "$list"
    echo "</body></html>"
  } >"$work/$name.html"
  start=$(date +%s.%N)
  ZB_LINKCHECK_LIST="$list" ZB_LINKCHECK_DEAD_OUT="$work/$name.ours" \
    "$build/bench/linkcheck" --benchmark_filter=BM_AddressList >/dev/null 2>&1
  ours=$(echo "$(date +%s.%N) - $start" | bc)
  sort -o "$work/$name.ours" "$work/$name.ours"
  start=$(date +%s.%N)
  # Bounded: a server trickling its headers holds linkchecker forever.
  timeout 300 linkchecker -f "$work/linkcheckerrc" -t 32 --check-extern --no-robots -r 1 --no-status -o csv \
    "$work/$name.html" >"$work/$name.csv" 2>/dev/null || echo "  (linkchecker stopped after 300 s or failed)"
  theirs=$(echo "$(date +%s.%N) - $start" | bc)
  # csv: urlname;parentname;base;result;warningstring;infostring;valid;url;…
  grep -v '^#' "$work/$name.csv" | python3 -c '
import csv, sys
for row in csv.DictReader(sys.stdin, delimiter=";"):
    if row.get("valid") == "False" and not row["urlname"].startswith("file:"):
        print(row["urlname"])' | sort -u >"$work/$name.theirs"
  echo "$name: $(wc -l <"$list") addresses, $(wc -l <"$expected") dead"
  for who in ours theirs; do
    file="$work/$name.$who"
    seconds=$ours
    [ $who = theirs ] && seconds=$theirs
    printf '  %-7s wall %6.1f s  dead %4d  false dead %4d  missed %4d\n' "$who" "$seconds" "$(wc -l <"$file")" \
      "$(comm -13 "$expected" "$file" | wc -l)" "$(comm -23 "$expected" "$file" | wc -l)"
    comm -13 "$expected" "$file" | sed 's/^/      false dead: /'
  done
}
printf '[checking]\nthreads=32\nmaxrequestspersecond=1000\n' >"$work/linkcheckerrc"
run mix "$work/list" "$work/expected"
run hard "$work/hard" "$work/hard-expected"
