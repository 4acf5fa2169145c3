#!/bin/bash
# Kill soak (not part of the test command): three workers edit one kel.conf through kelctl (add and
# remove targets, LUNs and initiator groups, each on names of its own) while a fourth process kills
# a random worker's running kelctl with SIGKILL at random moments. Afterwards:
#   - every acknowledged edit (kelctl exit 0) whose name saw no later attempt is in kel.conf (or,
#     for a removal, absent from it); none is doubled;
#   - kel.conf parses and verifies (kelctl conf check), no temporary file is left beside it;
#   - the datastore holds no namespace, target link or LUN disk that kel.conf does not name, and
#     no namespace half deleted.
# Usage: scripts/soak.sh --iterations N [--build DIR] [--keep]
# N is the number of kelctl edits over all three workers. Prints the figures; exits 1 on a finding.
set -u
cd "$(dirname "$0")/.."
iterations=1000
build=build/asan
keep=0
while [ $# -gt 0 ]; do
  case "$1" in
    --iterations) iterations=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    --keep) keep=1; shift ;;
    *) echo "usage: $0 --iterations N [--build DIR] [--keep]" >&2; exit 2 ;;
  esac
done
[ -x "$build/cli/kelctl" ] || { echo "soak: build kelctl first ($build/cli/kelctl)" >&2; exit 2; }
root=$(mktemp -d /tmp/kel-soak.XXXXXX)
[ "$keep" = 1 ] || trap 'rm -rf "$root"' EXIT
# A copy, so that a rebuild during the soak does not change the program under test.
cp "$build/cli/kelctl" "$root/kelctl"
kelctl="$root/kelctl"
export ASAN_OPTIONS="detect_leaks=0"   # a killed kelctl never reaches its leak check anyway

mkdir -p "$root/datastore"
printf '#!/bin/sh\nexit 0\n' > "$root/control"
chmod +x "$root/control"
cat > "$root/host.json" <<JSON
{"host": {"name": "soak"}, "stateDir": "$root/state", "datastore": {"path": "$root/datastore"},
 "directory": {"backend": "embedded"},
 "network": {"interfaces": {"nuk0": {"ipv4": "127.0.0.11", "ipv6": ""}}},
 "daemon": {"control": "$root/control"}, "firewall": {"backend": "none"},
 "options": {"ORSA-iSCSI": {"kelLunNaaEnable": 1}}, "productEnabled": true}
JSON
k() { "$kelctl" --config "$root/host.json" "$@"; }
k namespace create >/dev/null 2>"$root/setup.err" && k service enable >/dev/null 2>>"$root/setup.err" ||
  { cat "$root/setup.err" >&2; exit 2; }
conf="$root/datastore/.iSCSI-CONFIG/etc/kel.conf"

# worker ID COUNT: runs COUNT edits. Journal lines: "<name> <op> TRY", then "ACK" or "FAIL <rc>".
worker() {
  local id=$1 count=$2 journal="$root/w$1.journal" n=0 i=0
  local -a targets=() groups=() luns=()   # names believed to exist ("t" or "t/id" for LUNs)
  declare -A nextLun=()
  RANDOM=$((id * 7919 + $$))
  while [ "$i" -lt "$count" ]; do
    i=$((i + 1))
    local pick=$((RANDOM % 6)) name op args
    case $pick in
      0|1) n=$((n + 1)); name="w$id-t$n"; op=tadd; args=(target add --alias "$name") ;;
      2) [ ${#targets[@]} -gt 0 ] || { i=$((i - 1)); continue; }
         name=${targets[RANDOM % ${#targets[@]}]}
         local id2=${nextLun[$name]:-0}; nextLun[$name]=$((id2 + 1))
         name="$name/$id2"; op=ladd
         args=(lun add --target "${name%/*}" --id "$id2" --size 1MiB) ;;
      3) [ ${#luns[@]} -gt 0 ] || { i=$((i - 1)); continue; }
         name=${luns[RANDOM % ${#luns[@]}]}; op=lrm
         args=(lun remove --target "${name%/*}" --id "${name#*/}") ;;
      4) if [ ${#groups[@]} -gt 0 ] && [ $((RANDOM % 2)) = 0 ]; then
           name=${groups[RANDOM % ${#groups[@]}]}; op=grm; args=(initiator-group remove "$name")
         else
           n=$((n + 1)); name="w$id-g$n"; op=gadd; args=(initiator-group add "$name")
         fi ;;
      5) [ ${#targets[@]} -gt 0 ] || { i=$((i - 1)); continue; }
         name=${targets[RANDOM % ${#targets[@]}]}; op=trm; args=(target remove --alias "$name") ;;
    esac
    echo "$name $op TRY" >> "$journal"
    "$kelctl" --config "$root/host.json" "${args[@]}" >/dev/null 2>>"$root/w$id.err" &
    local pid=$!
    echo "$pid" > "$root/w$id.pid"
    wait "$pid"
    local rc=$?
    : > "$root/w$id.pid"
    # Whatever happened, the name is out of play unless the edit was acknowledged; an unknown
    # state is left to the final check.
    targets=("${targets[@]/#$name}"); groups=("${groups[@]/#$name}"); luns=("${luns[@]/#$name}")
    if [ "$op" = trm ]; then luns=("${luns[@]/#$name\/*}"); fi
    targets=(${targets[@]}); groups=(${groups[@]}); luns=(${luns[@]})
    if [ "$rc" = 0 ]; then
      echo "$name $op ACK" >> "$journal"
      case $op in tadd) targets+=("$name") ;; gadd) groups+=("$name") ;; ladd) luns+=("$name") ;; esac
    else
      echo "$name $op FAIL $rc" >> "$journal"
      # A target whose removal was cut off may be half removed: leave its LUNs alone too.
      if [ "$op" = trm ]; then luns=(${luns[@]/#$name\/*}); fi
    fi
  done
  echo done > "$root/w$id.done"
}

killer() {
  local kills=0
  while [ ! -f "$root/w1.done" ] || [ ! -f "$root/w2.done" ] || [ ! -f "$root/w3.done" ]; do
    local tenths=$((RANDOM % 25 + 5))
    sleep "$((tenths / 10)).$((tenths % 10))"
    local w=$((RANDOM % 3 + 1)) pid
    pid=$(cat "$root/w$w.pid" 2>/dev/null)
    [ -n "$pid" ] || continue
    # Only that worker's kelctl: its PID, checked to still be a kelctl of this soak.
    grep -q "$root/host.json" "/proc/$pid/cmdline" 2>/dev/null || continue
    kill -KILL "$pid" 2>/dev/null && kills=$((kills + 1))
  done
  echo "$kills" > "$root/kills"
}

start=$(date +%s)
per=$((iterations / 3))
# The workers' shells report each killed kelctl on stderr: kept out of the summary.
worker 1 "$per" 2>>"$root/w1.shell" & w1=$!
worker 2 "$per" 2>>"$root/w2.shell" & w2=$!
worker 3 $((iterations - 2 * per)) 2>>"$root/w3.shell" & w3=$!
killer & kp=$!
wait "$w1" "$w2" "$w3" "$kp"
took=$(( $(date +%s) - start ))

# One more edit: its writer removes what the killed ones left behind (the creation journal).
k initiator-group add soak-final >/dev/null 2>&1 && k initiator-group remove soak-final >/dev/null 2>&1

# Targets ("T alias"), LUNs ("L alias/id") and groups ("G name") as kel.conf holds them.
awk '/^target /{intarget=1} intarget && /^\talias "/{a=$0; sub(/^\talias "/,"",a); sub(/"$/,"",a); print "T " a}
     intarget && /^\tlun [0-9]+ \{/{print "L " a "/" $2}
     /^}/{intarget=0}
     /^initiator-group /{print "G " $2}' "$conf" | sort > "$root/state.txt"
acked=0; lost=0; doubled=0
for j in "$root"/w*.journal; do
  # The last line per name decides what kel.conf must show (an unknown outcome decides nothing);
  # a target's removal, tried or done, also decides for its LUNs.
  awk '{last[$1]=$0}
       $2 == "trm" {for (n in last) if (index(n, $1 "/") == 1) delete last[n]}
       END {for (n in last) print last[n]}' "$j" > "$root/last.txt"
  acked=$((acked + $(grep -c ' ACK$' "$j")))
  while read -r name op result _; do
    [ "$result" = ACK ] || continue
    case $op in tadd) want="T $name" present=1 ;; trm) want="T $name" present=0 ;;
      ladd) want="L $name" present=1 ;; lrm) want="L $name" present=0 ;;
      gadd) want="G $name" present=1 ;; grm) want="G $name" present=0 ;; esac
    if grep -qxF "$want" "$root/state.txt"; then have=1; else have=0; fi
    [ "$have" = "$present" ] || { lost=$((lost + 1)); echo "LOST: $name $op" >&2; }
  done < "$root/last.txt"
done
doubled=$(uniq -d "$root/state.txt" | wc -l)
[ "$doubled" = 0 ] || uniq -d "$root/state.txt" >&2

checked=bad
k conf check "$conf" >/dev/null 2>"$root/check.err" && checked=ok
leftovers=$(find "$(dirname "$conf")" -name '.kel.conf.tmp.*' | wc -l)

# Orphans: namespaces, target links and disks that kel.conf does not name, tombstones.
ds="$root/datastore"
grep -o 'option uuid [0-9a-f-]*' "$conf" | awk '{print $3}' | sort -u > "$root/uuids.txt"
grep -o 'path [^ ]*\.pemo' "$conf" | awk '{print $2}' | sort -u > "$root/paths.txt"
nsuuid=$(readlink "$ds/.iSCSI-CONFIG")
orphans=0
for d in "$ds"/*/; do
  u=$(basename "$d")
  [ "$u" = "$nsuuid" ] && continue
  grep -qx "$u" "$root/uuids.txt" || { orphans=$((orphans + 1)); echo "ORPHAN namespace $u" >&2; continue; }
  for f in "$d"*.pemo; do
    [ -e "$f" ] || continue
    rel="$u/$(basename "$f")"
    grep -qxF "$rel" "$root/paths.txt" || grep -qxF "$f" "$root/paths.txt" ||
      { orphans=$((orphans + 1)); echo "ORPHAN disk $rel" >&2; }
  done
done
for l in "$ds/.iSCSI-CONFIG/targets"/*; do
  [ -e "$l" ] || [ -L "$l" ] || continue
  grep -qx "$(basename "$l")" "$root/uuids.txt" || { orphans=$((orphans + 1)); echo "ORPHAN link $l" >&2; }
done
tombstones=$(find "$ds" -maxdepth 1 -name '.deleting-*' | wc -l)
orphans=$((orphans + tombstones))

swept=$(grep -c "half made or unmade" "$root/state/log/kel.log" 2>/dev/null)
echo "iterations=$iterations seconds=$took kills=$(cat "$root/kills") swept=${swept:-0} acknowledged=$acked lost=$lost doubled=$doubled conf_check=$checked temp_files=$leftovers orphans=$orphans generation=$(head -1 "$conf" | awk '{print $2}')"
[ "$keep" = 1 ] && echo "kept in $root"
[ "$lost" = 0 ] && [ "$doubled" = 0 ] && [ "$checked" = ok ] && [ "$leftovers" = 0 ] && [ "$orphans" = 0 ]
