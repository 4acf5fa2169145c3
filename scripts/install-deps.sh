#!/bin/sh
# Installs everything kel needs to build, test and run on Debian 12. Run as root (or with sudo).
set -eu
if [ "$(id -u)" -ne 0 ]; then
  exec sudo "$0" "$@"
fi
export DEBIAN_FRONTEND=noninteractive
packages="build-essential cmake pkg-config clang libclang-rt-14-dev flex bison
  libboost-thread-dev libboost-regex-dev libboost-filesystem-dev libboost-system-dev
  nlohmann-json3-dev libcurl4-openssl-dev uuid-dev libssl-dev libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  etcd-server etcd-client tgt libiscsi-bin libiscsi-dev attr iproute2 procps openssl"
missing=""
for p in $packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
  apt-get update -qq
  # shellcheck disable=SC2086
  apt-get install -y -qq --no-install-recommends $missing
fi
# The distribution's units would start a system-wide tgtd and etcd on the standard ports; kel starts
# its own instances, so keep the packaged ones from running at boot (ignored where there is no
# systemd).
systemctl disable --now tgt etcd >/dev/null 2>&1 || true
