#!/bin/sh
# Builds hubTalk and starts it on a sample data directory, showing what it prepares.
set -eu
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)" --target hubTalk
demo="$(mktemp -d /tmp/hubtalk-demo.XXXXXX)"
data="$demo/data"
echo "== starting hubTalk on $data"
./build/hubTalk/hubTalk -d "$data" -R 127.0.0.1 &
pid=$!
trap 'kill $pid 2>/dev/null || true' EXIT
for _ in $(seq 1 50); do [ -s "$data/hostName.txt" ] && break; sleep 0.1; done
echo "== data directory prepared:"
ls -l "$data"
echo "== identity (hostName.txt): $(cat "$data/hostName.txt")"
echo "== pinned authority (sundel.crt):"
openssl x509 -in "$data/sundel.crt" -noout -subject -enddate
echo "== server list (hosts.txt): $(cat "$data/hosts.txt")"
kill $pid
wait $pid 2>/dev/null || true
echo "== stopped"
