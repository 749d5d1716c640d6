#!/bin/sh
# Installs the Debian 12 packages that building, testing, packaging and the
# demo need, only when something is missing. Postfix comes in with "No
# configuration" so that no mail server starts; only its tools are used. The
# scanners (clamd, spamd, rspamd) and haproxy are started by the tests
# themselves, in loopback-only namespaces with configurations the tests write:
# while installing, a policy-rc.d keeps their packages from starting services
# (and freshclam from fetching signatures).
set -e
need=""
# clang only recommends its runtime libraries; libclang-rt-14-dev holds the
# libFuzzer and sanitizer runtimes that the fuzz build links.
for pkg in cmake g++ make libgtest-dev libcrypt-dev libbenchmark-dev iproute2 iptables \
           python3 swaks postfix clang-format gcovr clang libclang-rt-14-dev haproxy socat \
           clamav-daemon spamd rspamd mandoc dpkg-dev systemd; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "ok installed" || need="$need $pkg"
done
[ -z "$need" ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
  echo "missing packages:$need (run as root to install them)" >&2
  exit 1
fi
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' >"$policy"
  chmod 755 "$policy"
  trap 'rm -f "$policy"' EXIT
fi
echo "postfix postfix/main_mailer_type select No configuration" | debconf-set-selections
DEBIAN_FRONTEND=noninteractive apt-get update -q
DEBIAN_FRONTEND=noninteractive apt-get install -y -q $need
