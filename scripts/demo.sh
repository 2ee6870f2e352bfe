#!/usr/bin/env bash
# The main job: builds the SDK, its reference service and qeldns, starts the service on
# loopback with a sample account and zone, and shows what the SDK does, step by step.
# Everything it starts is stopped when it ends, Ctrl-C included. Only loopback traffic.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
echo "demo: building the SDK, qel-httpdns-server, qeldns and qel-httpdnsd (a release build: about 4"
echo "      minutes on two cores the first time, seconds after that)..."
cmake --preset release -DQEL_BUILD_TESTS=OFF -DQEL_BUILD_BENCH=OFF >/dev/null
cmake --build --preset release -j2 --target qel-httpdns-server qeldns qel-httpdnsd >/dev/null
echo "demo: built."

bin=build/release/tools
work=$(mktemp -d)
pids=()
stop_all() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap stop_all EXIT
trap 'exit 130' INT TERM

login=127.0.0.1:18053 node_a=127.0.0.1:18061 node_b=127.0.0.1:18062 secure=127.0.0.1:18443
cat >"$work/accounts" <<'EOF'
# AuthId  AuthSecret
demo      demo-secret
EOF
cat >"$work/zone" <<'EOF'
$TTL 300
www.example.test.  60  A     192.0.2.10
www.example.test.  60  A     192.0.2.11
www.example.test.  60  AAAA  2001:db8::10
api.example.test.  120 A     192.0.2.20
EOF

# The login service hands out node A, then node B. The client switches nodes only when the
# node after the failed one repeats it, so A is listed three times before B.
serve() {  # name, then the server's own options
  local name=$1; shift
  "$bin/server/qel-httpdns-server" --accounts "$work/accounts" --zone "$work/zone" \
    --access-log "$work/$name.log" "$@" &
  pids+=($!)
}
serve login --listen "$login" --advertise "http://$node_a" --advertise "http://$node_a" \
  --advertise "http://$node_a" --advertise "http://$node_b"
serve node-a --listen "$node_a"
serve node-b --listen "$node_b"
listening() {  # waits until each address accepts connections
  for address in "$@"; do
    for _ in $(seq 100); do
      (exec 3<>"/dev/tcp/${address%:*}/${address#*:}") 2>/dev/null && break
      sleep 0.05
    done
  done
}
listening $login $node_a $node_b

export QELDNS_AUTH_ID=demo QELDNS_AUTH_SECRET=demo-secret
store="$work/store.sqlite3"
qeldns() {
  echo "\$ qeldns $*"
  "$bin/qeldns" --server "http://$login" --store "$store" "$@" || echo "(exit status $?)"
  echo
}
step() { printf '\n== %s\n' "$*"; }

step "1. A first lookup is answered by the service (node A)"
qeldns --json www.example.test

step "2. A new process: the first lookup comes from the persisted store, before any request,"
echo "   and the next ones from memory"
qeldns --json --repeat 3 www.example.test

step "3. Both families at once, each under its own cache key (qeldns turns on the SDK's"
echo "   resilience profile; --design-keys shows the library's own rule, below: the key takes the"
echo "   previous lookup's type, \"_v6\" for a process's first lookup, so this IPv4 lookup reads the"
echo "   IPv6 entry, and qeldns drops the addresses that are not IPv4)"
qeldns -a www.example.test
qeldns --design-keys www.example.test

step "4. A name the service does not know: 'no address', exit status 3 (as getent says 'not found')"
qeldns nothing.example.test

step "5. A degraded host is left to the system resolver, and a malformed name is refused"
qeldns --degrade www.example.test www.example.test
qeldns 192.168.1.1

step "6. Node A stops: the lookup fails over to node B"
kill "${pids[1]}"; wait "${pids[1]}" 2>/dev/null || true
qeldns --no-cache --json api.example.test
echo "node B's access log:"
sed 's/^/  /' "$work/node-b.log"

step "7. Over https: a CA and a certificate for 127.0.0.1 made here, the client given the CA"
tls="-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 -x509"
openssl req $tls -keyout "$work/ca.key" -out "$work/ca.pem" -subj /CN=demo-ca 2>/dev/null
openssl req $tls -keyout "$work/key.pem" -out "$work/cert.pem" -subj /CN=127.0.0.1 \
  -addext subjectAltName=IP:127.0.0.1 -CA "$work/ca.pem" -CAkey "$work/ca.key" 2>/dev/null
serve secure --listen "$secure" --tls-cert "$work/cert.pem" --tls-key "$work/key.pem"
listening $secure
qeldns --server "https://$secure" --cacert "$work/ca.pem" --no-cache www.example.test

step "8. The resolver daemon: one SDK for every program of the machine, asked on its socket"
echo "   (as glibc does through the name-service module) and through its DNS stub"
printf 'demo-secret\n' >"$work/secret" && chmod 600 "$work/secret"
stub=127.0.0.1:18553
cat >"$work/qel-httpdnsd.conf" <<EOF
service_url = http://$login
auth_id = demo
auth_secret_file = $work/secret
socket = $work/resolve.sock
store = $work/daemon-store.sqlite3
dns_listen = $stub
dns_upstream = refuse
EOF
"$bin/daemon/qel-httpdnsd" --config "$work/qel-httpdnsd.conf" 2>"$work/daemon.log" &
pids+=($!)
for _ in $(seq 100); do [ -S "$work/resolve.sock" ] && break; sleep 0.05; done
echo "\$ qeldns --daemon \$work/resolve.sock -a www.example.test"
"$bin/qeldns" --daemon "$work/resolve.sock" -a www.example.test || echo "(exit status $?)"
if command -v dig >/dev/null; then
  echo "\$ dig @${stub%:*} -p ${stub#*:} +short www.example.test AAAA"
  dig @"${stub%:*}" -p "${stub#*:}" +short +tries=1 www.example.test AAAA || echo "(exit status $?)"
fi
echo "the daemon's log (one line per request, with the caller's pid and uid):"
sed 's/^/  /' "$work/daemon.log"

step "Done: every process started here is stopped."
