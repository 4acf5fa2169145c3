#!/bin/sh
# Reads the layer table of docs/architecture.md and fails, naming the file and line, when a source
# of one layer includes a header of a layer that its row does not allow. Usage: check-layers.sh [ROOT]
set -eu
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}
table=$root/docs/architecture.md
[ -f "$table" ] || { echo "check-layers: $table not found" >&2; exit 2; }

# "layer allowed1 allowed2 ..." for every table row whose first cell is a folder in backquotes.
rules=$(awk -F'|' '/^\| *`[a-z_]+\/`/ {
    layer = $2; gsub(/[ `\/]/, "", layer)
    allowed = ""
    cell = $(NF - 1)
    while (match(cell, /`[a-z_]+\/`/)) {
      name = substr(cell, RSTART + 1, RLENGTH - 3); allowed = allowed " " name
      cell = substr(cell, RSTART + RLENGTH)
    }
    print layer allowed
  }' "$table")
[ -n "$rules" ] || { echo "check-layers: no layer table in $table" >&2; exit 2; }
layers=$(echo "$rules" | awk '{print $1}')

echo "$rules" | while read -r layer allowed; do
  [ -d "$root/$layer" ] || continue
  find "$root/$layer" -type f \( -name '*.h' -o -name '*.cc' -o -name '*.c' -o -name '*.y' -o -name '*.l' \) |
    sort | while read -r file; do
      grep -n '^[[:space:]]*#[[:space:]]*include[[:space:]]*"[a-z_]*/' "$file" |
        sed 's/^\([0-9]*\):[^"]*"\([a-z_]*\)\/.*/\1 \2/' | while read -r line used; do
          [ "$used" = "$layer" ] && continue
          echo "$layers" | grep -qx "$used" || continue   # not a layer (tests/, generated/)
          case " $allowed " in *" $used "*) continue ;; esac
          echo "${file#"$root"/}:$line: layer $layer/ may not include $used/ (docs/architecture.md)"
        done
    done
done | { found=$(cat); [ -z "$found" ] || { echo "$found" >&2; exit 1; }; }
