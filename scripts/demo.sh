#!/bin/bash
# Runs an already built vigild end to end on a sample set-up and shows what it does.
#
#   scripts/demo.sh [--real-scanners] [path/to/vigild]   (default: build/vigild; needs root)
#
# Everything runs in a network namespace of its own with only a loopback
# interface, so nothing leaves the machine. Inside it, 127.0.0.2:25 plays the
# real mail server (Postfix's smtp-sink, which keeps every message it gets),
# and an iptables REDIRECT rule sends connections from the sender networks
# 127.0.1.0/24 and 127.0.2.0/24 to 127.0.0.2:25 on to the proxy's port 2525,
# as the appliance's NAT would. Fake anti-spam and virus scanner services
# answer on their Unix sockets; the anti-spam one calls mail from spammer@...
# spam. The daemon gets a private mount namespace in which a temporary
# directory stands in for /var (pid file, scan files, scanner sockets).
# With --real-scanners, ClamAV's clamd (with a one-signature database made
# here) and SpamAssassin's spamd (local tests only) judge the mail instead,
# started in the same namespace and stopped at the end.
set -u
cd "$(dirname "$0")/.."
REAL=""
KIND=fake
if [ "${1:-}" = --real-scanners ]; then REAL=1 KIND=real; shift; fi
TEST_VIRUS=VIGILD-DEMO-TEST-VIRUS-0b7e
GTUBE='XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-STANDARD-ANTI-UBE-TEST-EMAIL*C.34X'
VIGILD=$(readlink -f "${1:-build/vigild}")
PY=/usr/bin/python3
NS="vgdemo-$$"
PORT=2525
BACKEND=127.0.0.2
SINK=/usr/sbin/smtp-sink

if [ "$(id -u)" -ne 0 ]; then
  echo "demo: needs root (network and mount namespaces)" >&2
  exit 1
fi
for tool in ip iptables unshare ss swaks "$PY" "$SINK" ${REAL:+clamd spamd}; do
  command -v "$tool" >/dev/null || { echo "demo: $tool is missing" >&2; exit 1; }
done
[ -x "$VIGILD" ] || { echo "demo: $VIGILD is not built" >&2; exit 1; }

ROOT=$(mktemp -d /tmp/vgdemo.XXXXXX)
chmod 755 "$ROOT"
PIDS=""
cleanup() {
  for pid in $PIDS; do kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null; done
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
for net in 127.0.1.0/24 127.0.2.0/24; do
  in_ns iptables -t nat -A OUTPUT -p tcp -s "$net" -d "$BACKEND" --dport 25 \
    -j REDIRECT --to-ports "$PORT"
done
in_ns iptables -t nat -S OUTPUT | sed 's/^/  /'

mkdir -p "$ROOT"/var/{run,support,lib/norvik,av/scan,spool/xmail/spool/temp,spool/xmail/spool/local}
mkdir -m 1777 "$ROOT/sink"
cat >"$ROOT/common.conf" <<EOF
[scannerd]
scan_dir=/var/av/scan
EOF
cat >"$ROOT/vigild.conf" <<EOF
[vigild]
listen_port=$PORT
listen_backlog=128
address_transparent=0
user=root
group=root
my_domain=mx.demo.test
greeting=ESMTP vigild demo
max_msg_size=10485760
as_connections=2
relay_control=1
local_domain_file=$ROOT/local_domains
relay_ips_file=$ROOT/relay_ips
auth_file=$ROOT/auth
EOF
if [ -n "$REAL" ]; then
  printf '%s\n' scanner_protocol=clamd clamd_socket=/var/run/clamd.sock antispam_protocol=spamd \
    antispam_addr=/var/run/spamd.sock spam_reject_score=10 >>"$ROOT/vigild.conf"
fi
printf 'example.com\n' >"$ROOT/local_domains"
printf '127.0.1.0/24\n' >"$ROOT/relay_ips"
: >"$ROOT/auth"
section "Sample configuration"
for f in common.conf vigild.conf local_domains relay_ips; do
  echo "--- $f"; sed 's/^/  /' "$ROOT/$f"
done

section "Starting smtp-sink on $BACKEND:25, the $KIND scanners, and vigild on port $PORT"
# Started with ip netns exec directly (not through in_ns, which would put a
# subshell in between), so that $! is the process itself.
ip netns exec "$NS" "$SINK" -u nobody -d "$ROOT/sink/%M." "$BACKEND:25" 128 \
  >"$ROOT/sink.log" 2>&1 &
PIDS="$PIDS $!"
if [ -n "$REAL" ]; then
  mkdir "$ROOT/clamdb"
  printf 'Vigild.Demo.Test.Virus:0:*:%s\n' "$(printf %s "$TEST_VIRUS" | od -An -tx1 | tr -d ' \n')" \
    >"$ROOT/clamdb/demo.ndb"
  printf 'LocalSocket %s\nDatabaseDirectory %s\nForeground yes\nUser root\nLogFile %s\n' \
    "$ROOT/var/run/clamd.sock" "$ROOT/clamdb" "$ROOT/scanners.log" >"$ROOT/clamd.conf"
  ip netns exec "$NS" clamd -c "$ROOT/clamd.conf" >/dev/null 2>&1 &
  PIDS="$PIDS $!"
  ip netns exec "$NS" spamd -L -x -m 1 -u nobody --socketpath="$ROOT/var/run/spamd.sock" \
    --pidfile="$ROOT/spamd.pid" --syslog="$ROOT/spamd.log" >/dev/null 2>&1 &
  PIDS="$PIDS $!"
  for _ in $(seq 300); do
    [ -S "$ROOT/var/run/clamd.sock" ] && [ -S "$ROOT/var/run/spamd.sock" ] && break
    sleep 0.1
  done
else
  "$PY" scripts/demo_scanners.py "$ROOT/var/lib/norvik/as.sock" \
    "$ROOT/var/lib/norvik/scannerd.sock" spammer@=3 >"$ROOT/scanners.log" 2>&1 &
  PIDS="$PIDS $!"
fi
ip netns exec "$NS" unshare -m --propagation private \
  sh -c 'mount --bind "$1" /var && shift && exec "$@"' demo "$ROOT/var" \
  "$VIGILD" -d -e -s -v 14 -v 504 -v 193 -c "$ROOT/common.conf" -p "$ROOT/vigild.conf" \
  >"$ROOT/vigild.out" 2>"$ROOT/vigild.log" &
DAEMON_PID=$!
PIDS="$DAEMON_PID $PIDS"
ready=""
for _ in $(seq 100); do
  if ! kill -0 "$DAEMON_PID" 2>/dev/null; then break; fi
  if in_ns ss -Hltn "sport = :$PORT" | grep -q LISTEN &&
     in_ns ss -Hltn "sport = :25" | grep -q LISTEN &&
     grep -Eq "Successfully connected to anti-spam server|clamd answers on" "$ROOT/vigild.log"; then
    ready=1; break
  fi
  sleep 0.1
done
if [ -z "$ready" ]; then
  echo "demo: vigild did not come up; its log:" >&2
  cat "$ROOT/vigild.log" >&2
  exit 1
fi
echo "vigild pid $DAEMON_PID is listening and connected to its scanners"

# One whole SMTP session from a given sender address, printed in full.
talk() {
  local source=$1 from=$2 to=$3 subject=$4 extra=${5:-}
  in_ns swaks --server "$BACKEND:25" --local-interface "$source" --helo client.demo.test \
    --from "$from" --to "$to" --header "Subject: $subject" \
    --body $'Hello from the vigild demo.\r\n.A line that starts with a dot.\r\n'"$extra" \
    --timeout 30 2>&1
  echo "(swaks exit status $?)"
}

section "127.0.1.10 (a relay network) sends a clean message to a foreign domain: relayed"
talk 127.0.1.10 alice@demo.test bob@elsewhere.test "Quarterly report"
section "The message as the backend (smtp-sink) received it"
for _ in $(seq 50); do ls "$ROOT"/sink/* >/dev/null 2>&1 && break; sleep 0.1; done
cat "$ROOT"/sink/*
if [ -n "$REAL" ]; then
  section "127.0.1.10 sends the GTUBE test string: spamd scores it 1000, refused"
  talk 127.0.1.10 spammer@demo.test bob@elsewhere.test "Cheap watches" "$GTUBE"
  section "127.0.1.10 sends the demo's test virus: clamd finds it, refused"
  talk 127.0.1.10 alice@demo.test bob@elsewhere.test "Invoice" "$TEST_VIRUS"
else
  section "127.0.1.10 sends mail the anti-spam service calls spam: refused"
  talk 127.0.1.10 spammer@demo.test bob@elsewhere.test "Cheap watches"
fi
section "127.0.2.10 (outside the relay networks) to a foreign domain: refused at RCPT"
talk 127.0.2.10 mallory@spam.test victim@elsewhere.test "Relay attempt"

section "Stopping vigild with SIGTERM"
kill -TERM "$DAEMON_PID"
wait "$DAEMON_PID"
echo "vigild exited with status $?"

section "vigild's log (standard error; -v 14 -v 504 -v 193)"
cat "$ROOT/vigild.log"
section "What the $KIND scanners logged or were asked"
cat "$ROOT/scanners.log" ${REAL:+"$ROOT/spamd.log"}
