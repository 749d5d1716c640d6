#!/bin/sh
# Installs the Debian 12 packages that building, testing and the demo need,
# only when something is missing. Postfix comes in with "No configuration" so
# that no mail server starts; only its smtp-source/smtp-sink tools are used.
set -e
need=""
# clang only recommends its runtime libraries; libclang-rt-14-dev holds the
# libFuzzer and sanitizer runtimes that the fuzz build links.
for pkg in cmake g++ make libgtest-dev libcrypt-dev libbenchmark-dev iproute2 iptables \
           python3 swaks postfix clang-format gcovr clang libclang-rt-14-dev; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "ok installed" || need="$need $pkg"
done
[ -z "$need" ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
  echo "missing packages:$need (run as root to install them)" >&2
  exit 1
fi
echo "postfix postfix/main_mailer_type select No configuration" | debconf-set-selections
DEBIAN_FRONTEND=noninteractive apt-get update -q
DEBIAN_FRONTEND=noninteractive apt-get install -y -q $need
