#!/bin/sh
# kel's quick start on the embedded single-host default (no host configuration file): builds the
# optimised tree, creates the configuration namespace with the defaults interface lo and port 3260,
# enables the service (keld and its tgtd then serve on 127.0.0.1:3260), adds the target "demo"
# with a 64 MiB LUN, lists it, and shows with libiscsi's iscsi-ls that an initiator sees the
# target and the LUN. Running it again creates nothing twice; `kelctl service disable` stops
# everything it started.
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)

# tgtd needs root. Keep the caller's KEL_HOME, if any, across sudo.
if [ "$(id -u)" -ne 0 ]; then
  if [ -n "${KEL_HOME:-}" ]; then
    exec sudo KEL_HOME="$KEL_HOME" "$0" "$@"
  fi
  exec sudo "$0" "$@"
fi
# The embedded default: no other host configuration through the environment.
unset KEL_CONFIG

build=build/release
nic=lo
address=127.0.0.1
port=3260
alias=demo
state=${KEL_HOME:-/var/lib/kel}
kelctl="$root/$build/cli/kelctl"
keld="$root/$build/keld/keld"
sudo=""
[ -n "${SUDO_USER:-}" ] && sudo="sudo "

step() { printf '\n== %s\n' "$*"; }
fail() {
  printf 'quickstart: %s\n' "$*" >&2
  exit 1
}

step "Building $build (kelctl and keld)"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKEL_BUILD_TESTS=OFF -DKEL_BUILD_BENCH=OFF \
  >/dev/null
cmake --build "$build" -j"$(nproc)" --target kelctl keld

if [ -f /etc/kel/host.json ]; then
  echo "note: /etc/kel/host.json exists, so kelctl uses that host configuration, not the default"
fi
mkdir -p "$state"

if "$kelctl" namespace show >/dev/null 2>&1; then
  step "The configuration namespace exists"
else
  step "kelctl namespace create --interface $nic --port $port"
  "$kelctl" namespace create --interface "$nic" --port "$port"
fi

if [ "$("$kelctl" service status)" = "enabled" ]; then
  # Enabled but keld is not running (the machine restarted, say): bring it back.
  if ! "$keld" status >/dev/null 2>&1; then
    step "kelctl service restore"
    "$kelctl" service restore
  else
    step "The service is enabled and keld is running"
  fi
else
  # Another iSCSI target on the port would keep tgtd from listening there.
  if ss -Hltn "( sport = :$port )" 2>/dev/null | grep -q .; then
    fail "something already listens on TCP port $port; stop it first (ss -ltnp 'sport = :$port')"
  fi
  step "kelctl service enable"
  "$kelctl" service enable
fi

if "$kelctl" target show --alias "$alias" >/dev/null 2>&1; then
  step "Target $alias exists"
else
  step "kelctl target add --alias $alias"
  "$kelctl" target add --alias "$alias"
fi
if "$kelctl" lun show --target "$alias" --id 0 >/dev/null 2>&1; then
  step "LUN 0 of $alias exists"
else
  step "kelctl lun add --target $alias --id 0 --size 64MiB"
  "$kelctl" lun add --target "$alias" --id 0 --size 64MiB
fi

step "kelctl target list"
"$kelctl" target list
step "kelctl lun list --target $alias"
"$kelctl" lun list --target "$alias"

iqn=$("$kelctl" --json target show --alias "$alias" | sed -n 's/^ *"iqn": *"\([^"]*\)".*/\1/p')
step "iscsi-ls -s iscsi://$address:$port (the initiator's view; kel LUN 0 is SCSI LUN 1)"
# iscsi-ls stops at the first target it may not log in to (CHAP, initiator names), so its exit
# code says nothing about this target: it is shown, and the LUN is checked below.
listing=$(timeout -k 5 60 iscsi-ls -s "iscsi://$address:$port" 2>&1) || true
printf '%s\n' "$listing"
# iscsi-ls derives its size column from the last block's address, so 64 MiB reads "63M" there;
# READ CAPACITY of the LUN itself gives the exact size and fails when the LUN is not served.
step "iscsi-readcapacity16 iscsi://$address:$port/$iqn/1 (the LUN's exact size)"
capacity=$(timeout -k 5 60 iscsi-readcapacity16 "iscsi://$address:$port/$iqn/1" 2>&1) ||
  fail "the initiator does not see LUN 1 of $alias: $capacity (see $state/log/kel.log)"
printf '%s\n' "$capacity" | grep 'Total size' || printf '%s\n' "$capacity"

cat <<EOF

kel serves target "$alias" on $address:$port.

What to type next:
  ${sudo}$kelctl target list
  ${sudo}$kelctl lun list --target $alias
  ${sudo}$kelctl lun add --target $alias --size 128MiB
  ${sudo}$kelctl lun update --target $alias --id 0 --size 96MiB
  ${sudo}$kelctl target add --alias second --auth-type CHAP --chap-user alice --chap-secret 'Secret!Pass12'
  ${sudo}$keld status
  iscsi-ls -s iscsi://$address:$port
  iscsi-ls -s 'iscsi://alice%Secret!Pass12@$address:$port'   # once a CHAP target exists

Logs: $state/log/kel.log (kelctl, the service and keld), $state/log/keld.out and
$state/log/tgtd.log.

Stop everything (keld and its tgtd; kel.conf and the disks stay):
  ${sudo}$kelctl service disable
EOF
