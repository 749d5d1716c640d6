#!/bin/bash
# Runs an already built vigild end to end on a sample set-up and shows what it does.
#
#   scripts/demo.sh [path/to/vigild]      (default: build/vigild; needs root)
#
# The daemon runs in a network namespace of its own with only a loopback
# interface, so nothing leaves the machine. Inside it, 10.9.0.1:25 plays the
# real mail server (a fake backend that prints what it receives), and an
# iptables REDIRECT rule sends connections from the sender networks
# 10.9.1.0/24 and 10.9.2.0/24 to 10.9.0.1:25 on to the proxy's port 2525, as
# the appliance's NAT would. The daemon also gets a private mount namespace in
# which a temporary directory stands in for /var (pid file, dumps, scan files).
set -u
cd "$(dirname "$0")/.."
VIGILD=$(readlink -f "${1:-build/vigild}")
PY=/usr/bin/python3
NS="vgdemo-$$"
PORT=2525
BACKEND=10.9.0.1

if [ "$(id -u)" -ne 0 ]; then
  echo "demo: needs root (network and mount namespaces)" >&2
  exit 1
fi
for tool in ip iptables unshare ss "$PY"; do
  command -v "$tool" >/dev/null || { echo "demo: $tool is missing" >&2; exit 1; }
done
[ -x "$VIGILD" ] || { echo "demo: $VIGILD is not built" >&2; exit 1; }

ROOT=$(mktemp -d /tmp/vgdemo.XXXXXX)
DAEMON_PID=""
BACKEND_PID=""
cleanup() {
  [ -n "$DAEMON_PID" ] && kill -TERM "$DAEMON_PID" 2>/dev/null && wait "$DAEMON_PID" 2>/dev/null
  [ -n "$BACKEND_PID" ] && kill -TERM "$BACKEND_PID" 2>/dev/null && wait "$BACKEND_PID" 2>/dev/null
  ip netns del "$NS" 2>/dev/null
  rm -rf "$ROOT"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

in_ns() { ip netns exec "$NS" "$@"; }

section() { printf '\n===== %s =====\n' "$*"; }

section "Setting up namespace $NS"
ip netns add "$NS" || exit 1
in_ns ip link set lo up
in_ns ip addr add "$BACKEND/32" dev lo
for net in 10.9.1.0/24 10.9.2.0/24; do
  in_ns ip route add local "$net" dev lo
  in_ns iptables -t nat -A OUTPUT -p tcp -s "$net" -d "$BACKEND" --dport 25 \
    -j REDIRECT --to-ports "$PORT"
done
in_ns iptables -t nat -S OUTPUT | sed 's/^/  /'

mkdir -p "$ROOT"/var/{run,support,lib/norvik,av/scan,spool/xmail/spool/temp,spool/xmail/spool/local}
cat >"$ROOT/common.conf" <<EOF
[scannerd]
scan_dir=/var/av/scan
EOF
cat >"$ROOT/vigild.conf" <<EOF
[vigild]
listen_port=$PORT
address_transparent=0
user=root
group=root
my_domain=mx.demo.test
greeting=ESMTP vigild demo
max_msg_size=10485760
relay_control=1
local_domain_file=$ROOT/local_domains
relay_ips_file=$ROOT/relay_ips
auth_file=$ROOT/auth
EOF
printf 'example.com\n' >"$ROOT/local_domains"
printf '10.9.1.0/24\n' >"$ROOT/relay_ips"
: >"$ROOT/auth"
section "Sample configuration"
for f in common.conf vigild.conf local_domains relay_ips; do
  echo "--- $f"; sed 's/^/  /' "$ROOT/$f"
done

section "Starting the fake backend on $BACKEND:25 and vigild on port $PORT"
# Started with ip netns exec directly (not through in_ns, which would put a
# subshell in between), so that $! is the process itself: ip, unshare and sh
# all exec in place.
ip netns exec "$NS" "$PY" tests/e2e/vigil_bed.py backend >"$ROOT/backend.log" 2>&1 &
BACKEND_PID=$!
ip netns exec "$NS" unshare -m --propagation private \
  sh -c 'mount --bind "$1" /var && shift && exec "$@"' demo "$ROOT/var" \
  "$VIGILD" -d -e -s -v 15 -v 504 -c "$ROOT/common.conf" -p "$ROOT/vigild.conf" \
  >"$ROOT/vigild.out" 2>"$ROOT/vigild.log" &
DAEMON_PID=$!
ready=""
for _ in $(seq 100); do
  if ! kill -0 "$DAEMON_PID" 2>/dev/null; then break; fi
  if in_ns ss -Hltn "sport = :$PORT" | grep -q LISTEN &&
     in_ns ss -Hltn "sport = :25" | grep -q LISTEN; then ready=1; break; fi
  sleep 0.1
done
if [ -z "$ready" ]; then
  echo "demo: vigild did not come up; its log:" >&2
  cat "$ROOT/vigild.log" >&2
  exit 1
fi
echo "vigild pid $DAEMON_PID is listening"

# One SMTP session up to RCPT TO, from a given sender address, printed in full.
talk() {
  local source=$1 from=$2 to=$3
  if command -v swaks >/dev/null; then
    in_ns swaks --server "$BACKEND:25" --local-interface "$source" --helo client.demo.test \
      --from "$from" --to "$to" --quit-after RCPT --timeout 10 2>&1
  else
    in_ns "$PY" - "$source" "$from" "$to" <<'EOF'
import smtplib, sys
source, sender, rcpt = sys.argv[1:]
s = smtplib.SMTP(timeout=10, local_hostname="client.demo.test", source_address=(source, 0))
s.set_debuglevel(1)
s.connect("10.9.0.1", 25)
s.ehlo()
s.mail(sender)
print(s.rcpt(rcpt))
s.quit()
EOF
  fi
  echo "(client exit status $?)"
}

section "Sender 10.9.1.10 (a relay network) to a foreign domain: allowed"
talk 10.9.1.10 alice@demo.test bob@elsewhere.test
section "Sender 10.9.2.10 (outside the relay networks) to a foreign domain: refused (swaks exits 24)"
talk 10.9.2.10 mallory@spam.test victim@elsewhere.test
section "Sender 10.9.2.10 to the local domain example.com: allowed"
talk 10.9.2.10 carol@other.test postmaster@example.com

section "Stopping vigild with SIGTERM"
kill -TERM "$DAEMON_PID"
wait "$DAEMON_PID"
echo "vigild exited with status $?"
DAEMON_PID=""
kill -TERM "$BACKEND_PID"
wait "$BACKEND_PID"
BACKEND_PID=""

section "vigild's log (standard error; -v 15 -v 504)"
cat "$ROOT/vigild.log"
section "What the fake backend received"
cat "$ROOT/backend.log"

section "Not built yet"
cat <<'EOF'
This build answers the sender side of SMTP (greeting, HELO/EHLO, MAIL FROM,
RCPT TO with relay control, RSET, NOOP, HELP, VRFY, QUIT, limits and the idle
time-out), which is why the sessions above stop after RCPT TO. Not built yet:
message reception (DATA), the relay of accepted mail to the backend (so the
fake backend receives nothing), AUTH LOGIN, virus and spam scanning, subject
tagging, delivery status notifications and the control socket.
EOF
