#!/usr/bin/env bash
# The daemon's DNS stub answering cached names under load, against dnsmasq and unbound answering
# the same names from their own local data, measured by dnsperf in the same run: queries per
# second and the 99th percentile of latency for each, then the ratios of the stub's rate to
# theirs. Every server listens on 127.0.0.1 only and none has an upstream, so nothing leaves
# loopback. Not run by CI: it installs dnsperf, unbound, dnsmasq and dig itself when missing.
#
#   bench/stub_dnsperf.sh [-l SECONDS] [-n NAMES] [BUILD_DIR]     (defaults: 10, 1000, build/release)
set -euo pipefail

seconds=10
count=1000
while getopts 'l:n:h' option; do
  case $option in
    l) seconds=$OPTARG ;;
    n) count=$OPTARG ;;
    *) sed -n '2,8s/^# \{0,1\}//p' "$0"; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
build=${1:-build/release}
[[ $seconds =~ ^[1-9][0-9]*$ && $count =~ ^[1-9][0-9]*$ && $count -le 9999 ]] ||
  { echo "stub_dnsperf: -l takes seconds, -n 1 to 9999 names" >&2; exit 2; }

daemon=$build/tools/daemon/qel-httpdnsd
service=$build/tools/server/qel-httpdns-server
if [ ! -x "$daemon" ] || [ ! -x "$service" ]; then
  echo "stub_dnsperf: $daemon or $service is missing; build them with" >&2
  echo "  cmake --preset release && cmake --build build/release -j2 --target qel-httpdnsd qel-httpdns-server" >&2
  exit 2
fi

# The clients and the other servers, installed the way scripts/setup.sh installs its packages.
missing=()
for package in dnsperf unbound dnsmasq-base bind9-dnsutils python3; do
  [ "$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null)" = 'install ok installed' ] ||
    missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "stub_dnsperf: installing ${missing[*]}"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  # Debian's unbound package starts a system-wide resolver that fetches the root trust anchor and
  # recurses to the Internet: a policy-rc.d that refuses every start keeps it stopped while it is
  # installed, and it is disabled afterwards. This harness runs an unbound of its own.
  denied=""
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    printf '#!/bin/sh\nexit 101\n' | $sudo tee /usr/sbin/policy-rc.d >/dev/null
    $sudo chmod 755 /usr/sbin/policy-rc.d
    denied=yes
  fi
  status=0
  { $sudo apt-get update -qq && $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"; } || status=$?
  [ -z "$denied" ] || $sudo rm -f /usr/sbin/policy-rc.d
  [ "$status" -eq 0 ] || exit "$status"
  if [[ " ${missing[*]} " == *" unbound "* ]] && [ -d /run/systemd/system ]; then
    $sudo systemctl disable --now --quiet unbound.service unbound-resolvconf.service 2>/dev/null || true
  fi
fi

work=$(mktemp -d)
chmod 755 "$work"  # dnsmasq reads its hosts file after giving up root
children=()
stopAll() {
  for pid in "${children[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${children[@]}"; do wait "$pid" 2>/dev/null || true; done
  children=()
}
trap 'stopAll; rm -rf "$work"' EXIT
trap 'exit 130' INT TERM

# A port free in UDP and in TCP at once (the stub and dnsmasq bind both).
freePort() {
  python3 - <<'EOF'
import socket
while True:
    u = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    u.bind(("127.0.0.1", 0))
    port = u.getsockname()[1]
    t = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        t.bind(("127.0.0.1", port))
        print(port)
        break
    except OSError:
        pass
    finally:
        t.close()
        u.close()
EOF
}

# Waits until the server on $1 answers the first name with its address, or says why not.
waitForAnswer() {
  local port=$1 what=$2 log=$3
  for _ in $(seq 100); do
    [ "$(dig @127.0.0.1 -p "$port" n0001.bench.test A +short +time=1 +tries=1 2>/dev/null)" = "$first" ] && return 0
    sleep 0.1
  done
  echo "stub_dnsperf: $what does not answer on port $port; its log:" >&2
  cat "$log" >&2
  exit 1
}

# The names, each with an address from the documentation ranges, in every server's format.
first=""
for ((i = 1; i <= count; ++i)); do
  name=$(printf 'n%04d.bench.test' "$i")
  if ((i % 2)); then address=192.0.2.$((i % 254 + 1)); else address=198.51.100.$((i % 254 + 1)); fi
  [ -n "$first" ] || first=$address
  echo "$name 86400 A $address" >&3
  echo "$address $name" >&4
  echo "  local-data: \"$name. 86400 IN A $address\"" >&5
  echo "$name A" >&6
done 3>"$work/zone" 4>"$work/hosts" 5>"$work/local-data" 6>"$work/queries"

# dnsperf's load. One thread: the machine has two cores, one for the client and one for the
# server under test (two client threads gave dnsmasq fewer answers a second, not more). Eight
# sockets spread the queries over source ports as several clients would; 100 queries in flight
# keep every server saturated, so the latency is mostly that queue (about 100 / the rate). The
# line per answer that gives the percentile (-v) costs dnsperf about a tenth of its rate, the
# same for every server.
load=(-c 8 -T 1 -q 100)

# dnsperf once over the names: the warming pass, which fills the stub's cache (and, for
# fairness, the same pass for the others).
warm() {
  dnsperf -s 127.0.0.1 -p "$1" -d "$work/queries" -n 1 "${load[@]}" >"$work/$2.warm" 2>&1 ||
    { echo "stub_dnsperf: dnsperf failed against $2:" >&2; cat "$work/$2.warm" >&2; exit 1; }
}

# dnsperf for $seconds with a line per answer; keeps "SERVER QPS P99 RESPONSES LOST".
results=()
measure() {
  local port=$1 what=$2
  dnsperf -s 127.0.0.1 -p "$port" -d "$work/queries" -l "$seconds" "${load[@]}" -v >"$work/$what.run" 2>&1 ||
    { echo "stub_dnsperf: dnsperf failed against $what:" >&2; tail -20 "$work/$what.run" >&2; exit 1; }
  grep '^> ' "$work/$what.run" | awk '$2 != "T" && $2 != "I" { print $NF }' | sort -g >"$work/$what.latencies"
  # The 99th percentile over every query sent: a lost one counts as slower than any answer.
  results+=("$what $(awk -v latencies="$work/$what.latencies" '
    /Queries sent:/ { sent = $3 }
    /Queries lost:/ { lost = $3 }
    /Response codes:/ { sub(/^ *Response codes: */, ""); gsub(/ /, "_"); codes = $0 }
    /Queries per second:/ { qps = $4 }
    END {
      rank = int(sent * 0.99 + 0.999999); p99 = "lost"
      for (i = 1; i <= rank && (getline line < latencies) > 0; ++i) if (i == rank) p99 = line
      printf "%s %s %s %s\n", qps, p99, codes, lost
    }' "$work/$what.run")")
}

# The reference service with the names in its zone, and the daemon logged in to it with the
# stub on; memory only, so that no store is read or written during the run.
servicePort=$(freePort)
echo "acct-bench s3cr3t" >"$work/accounts"
echo "s3cr3t" >"$work/secret"
chmod 600 "$work/secret"
"$service" --accounts "$work/accounts" --zone "$work/zone" --listen "127.0.0.1:$servicePort" \
  --access-log "$work/access.log" 2>"$work/service.log" &
children+=($!)
for _ in $(seq 100); do grep -qs 'listening on' "$work/service.log" && break; sleep 0.1; done

stubPort=$(freePort)
cat >"$work/daemon.conf" <<EOF
service_url = http://127.0.0.1:$servicePort
auth_id = acct-bench
auth_secret_file = $work/secret
socket = $work/resolve.sock
store =
dns_listen = 127.0.0.1:$stubPort
dns_upstream = refuse
EOF
"$daemon" --config "$work/daemon.conf" 2>"$work/daemon.log" &
children+=($!)
waitForAnswer "$stubPort" qel-httpdnsd "$work/daemon.log"
warm "$stubPort" qel-httpdnsd
# The warming pass asked the service for the names; the measured run should not.
warmed=$(wc -l <"$work/access.log")
measure "$stubPort" qel-httpdnsd
served=$(wc -l <"$work/access.log")
stopAll

dnsmasqPort=$(freePort)
dnsmasq --keep-in-foreground --conf-file=/dev/null --port="$dnsmasqPort" --listen-address=127.0.0.1 \
  --bind-interfaces --no-resolv --no-hosts --addn-hosts="$work/hosts" --local-ttl=86400 --pid-file= \
  --log-facility="$work/dnsmasq.log" 2>>"$work/dnsmasq.log" &
children+=($!)
waitForAnswer "$dnsmasqPort" dnsmasq "$work/dnsmasq.log"
warm "$dnsmasqPort" dnsmasq
measure "$dnsmasqPort" dnsmasq
stopAll

# unbound with the names as local data and "." refused: it has nothing to recurse to, and its
# only outgoing address is loopback besides.
unboundPort=$(freePort)
cat >"$work/unbound.conf" <<EOF
server:
  username: ""
  chroot: ""
  directory: "$work"
  pidfile: "$work/unbound.pid"
  do-daemonize: no
  use-syslog: no
  logfile: ""
  verbosity: 0
  num-threads: 1
  interface: 127.0.0.1
  outgoing-interface: 127.0.0.1
  port: $unboundPort
  do-ip6: no
  access-control: 127.0.0.0/8 allow
  module-config: "iterator"
  local-zone: "." refuse
  local-zone: "bench.test." static
$(cat "$work/local-data")
remote-control:
  control-enable: no
EOF
unbound-checkconf "$work/unbound.conf" >/dev/null
unbound -d -c "$work/unbound.conf" 2>"$work/unbound.log" &
children+=($!)
waitForAnswer "$unboundPort" unbound "$work/unbound.log"
warm "$unboundPort" unbound
measure "$unboundPort" unbound
stopAll

echo
echo "dnsperf ${load[*]}, ${seconds} s each, $count names, after one warming pass over them:"
printf '%-14s %12s %12s  %s\n' server 'queries/s' 'p99 (ms)' 'responses'
declare -A qps
for result in "${results[@]}"; do
  read -r what rate p99 codes lost <<<"$result"
  qps[$what]=$rate
  [ "$p99" = lost ] || p99=$(awk -v s="$p99" 'BEGIN { printf "%.3f", s * 1000 }')
  printf '%-14s %12.0f %12s  %s%s\n' "$what" "$rate" "$p99" "${codes//_/ }" \
    "$([ "${lost:-0}" = 0 ] || echo ", $lost lost")"
done
echo "(requests the service had from the daemon: $warmed while warming, $((served - warmed)) during the run)"
echo
ratio() { awk -v a="$2" -v b="$3" -v what="$1" 'BEGIN { if (b > 0) printf "%-58s %8.2fx\n", what, a / b }'; }
ratio "stub qps / dnsmasq qps:" "${qps[qel-httpdnsd]}" "${qps[dnsmasq]}"
ratio "stub qps / unbound qps:" "${qps[qel-httpdnsd]}" "${qps[unbound]}"
