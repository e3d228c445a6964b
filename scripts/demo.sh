#!/bin/sh
# The agent against the bundled local service, with a sample data directory:
# registration, heartbeats, a reply that sets the display name and processing
# flags, a ping and an HL7 message answered on the agent's local port, and a
# real DICOM image de-identified by the processing workers.
set -eu
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)" --target hubTalk localService scrubmill imagemill >/dev/null
echo "== built hubTalk, its companions and the local service"

demo="$(mktemp -d /tmp/hubtalk-demo.XXXXXX)"
svc="$demo/service"; data="$demo/data"; export_dir="$demo/export"
mkdir -p "$svc/boxes" "$svc/replies" "$data" "$export_dir"
pids=""
cleanup() { for p in $pids; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null || true; }
trap cleanup EXIT INT TERM
step() { printf '\n== %s\n' "$*"; }
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }

step "local service on 127.0.0.1 (config $svc)"
./build/localService/localService --config "$svc" --port 0 >"$demo/service.out" 2>&1 &
pids="$pids $!"
for _ in $(seq 1 100); do [ -s "$svc/port" ] && break; sleep 0.1; done
port="$(cat "$svc/port")"
echo "listening on port $port"
# The box and what the service tells it at registration and on each heartbeat.
printf 'Demo Clinic' >"$svc/boxes/demo-box"
printf 'display_name=Demo Clinic&optimize=OA' >"$svc/replies/heartbeat"
printf 'display_name=Demo Clinic' >"$svc/replies/init"
# Crop bands for every modality: 10 % of the height blanked at the top.
printf '10|0|0|0|0' >"$svc/replies/CROP"
: >"$svc/commands.log"
tail -n +1 -f "$svc/commands.log" | sed -u 's/^/   service received: /' &
pids="$pids $!"

step "sample data directory $data"
cp build/pki/ca.crt "$data/sundel.crt"
printf '127.0.0.1' >"$data/hosts.txt"
printf '%s' "$port" >"$data/port.txt"
printf 'demo-box' >"$demo/name.txt"
ls "$data"

api_port="$(free_port)"
hl7_in="$demo/hl7-in"
mkdir -p "$demo/hl7-out" "$hl7_in"
step "starting hubTalk: -d $data -f name.txt -V $export_dir -H hl7-out|hl7-in -p $api_port -s 6 -l -v"
./build/hubTalk/hubTalk -d "$data" -f "$demo/name.txt" -V "$export_dir" -H "$demo/hl7-out|$hl7_in" \
    -p "$api_port" -s 6 -l -v \
    >"$demo/agent.out" 2>"$demo/agent.err" &
pids="$pids $!"

for _ in $(seq 1 100); do grep -q '^heartbeat|' "$svc/commands.log" 2>/dev/null && break; sleep 0.1; done
sleep 1
step "after registration and the first heartbeat, the data directory holds:"
for f in hostName.txt displayName.txt APIport.txt hubTalkVer.txt ANON.txt strict_anon.txt optimizePixel.txt; do
    [ -e "$data/$f" ] && printf '   %-18s %s\n' "$f" "$(cat "$data/$f")"
done
echo "   (displayName.txt holds the display name in its secret encoding)"

step "ping on the local port $api_port"
python3 - "$api_port" <<'PY'
import socket, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
s.sendall(b'{"request_type": "ping"}')
answer = b""
while True:
    chunk = s.recv(4096)
    if not chunk:
        break
    answer += chunk
print("   answer:", answer.decode())
PY

step "HL7 message over MLLP to port $api_port"
printf 'MSH|^~\\&|RIS|CLINIC|HUBTALK|CLINIC|20261122120000||ORU^R01|DEMO0001|P|2.3\nPID|1||12345||DOE^JANE\nOBR|1|||US^Ultrasound\n' \
    >"$demo/message.hl7"
mllp_send --loose -f "$demo/message.hl7" -p "$api_port" 127.0.0.1 | tr '\r' '\n' | sed 's/^/   ack: /'
echo "   (AA: stored in the inbound HL7 directory before the answer went out)"
ls "$hl7_in" | sed 's/^/   stored: /'

# De-identification needs an export directory of its own: a second box.
data2="$demo/data2"; export2="$demo/export2"
mkdir -p "$data2" "$export2"
printf 'Demo Clinic 2' >"$svc/boxes/demo-box-2"
cp build/pki/ca.crt "$data2/sundel.crt"
printf '127.0.0.1' >"$data2/hosts.txt"
printf '%s' "$port" >"$data2/port.txt"
printf 'demo-box-2' >"$demo/name2.txt"
step "a second box de-identifying images: hubTalk -d $data2 -f name2.txt -V $export2 -N 1 -s 6"
./build/hubTalk/hubTalk -d "$data2" -f "$demo/name2.txt" -V "$export2" -N 1 -s 6 \
    >"$demo/agent2.out" 2>"$demo/agent2.err" &
pids="$pids $!"
image="$(/usr/bin/python3 -c 'import pydicom, os; print(os.path.dirname(pydicom.__file__))')/data/test_files/CT_small.dcm"
for _ in $(seq 1 100); do [ -d "$data2/Q" ] && break; sleep 0.1; done
echo "   a real CT image dropped into the processing queue $data2/Q"
dcmdump -M +P PatientName +P PatientID +P StudyInstanceUID "$image" | sed 's/^/   before: /'
cp "$image" "$data2/Q/ct.dcm"
touch -d '1 minute ago' "$data2/Q/ct.dcm"
for _ in $(seq 1 300); do [ -n "$(ls "$export2")" ] && break; sleep 0.1; done
for f in "$export2"/*; do
    [ -e "$f" ] || { echo "   (nothing exported yet; see $demo/agent2.err)"; break; }
    echo "   exported: $(basename "$f")"
    dcmdump -M +P PatientName +P PatientID +P StudyInstanceUID +P 0035,0010 "$f" | sed 's/^/   after:  /'
done

step "waiting for the next heartbeat"
n="$(grep -c '^heartbeat|' "$svc/commands.log")"
for _ in $(seq 1 150); do [ "$(grep -c '^heartbeat|' "$svc/commands.log")" -gt "$n" ] && break; sleep 0.1; done
grep '^heartbeat|' "$svc/commands.log" | tail -n 1 | tr '&' '\n' | grep -E 'apps2|appl' | sed 's/^/   reports: /' || true

step "done; logs in $demo"
