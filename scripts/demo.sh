#!/bin/sh
# The agent against the bundled local service, with a sample data directory:
# registration, heartbeats, a reply that turns de-identification on, a ping
# and an HL7 message answered on the agent's local port, and real DICOM
# images taken from the processing queue and the export directory,
# de-identified and uploaded to the service; studies the service queues for
# the first box delivered by its router to a real DICOM receiver, and a
# self-update of the DICOM dictionary, fetched by the download tool over TLS
# pinned to the box's authority; the second box's state at a glance.
# Ends by itself.
# HUBTALK_BUILD_DIR (default "build") names the build directory.
set -eu
cd "$(dirname "$0")/.."
build="${HUBTALK_BUILD_DIR:-build}"
./scripts/bootstrap.sh
cmake -S . -B "$build" >/dev/null
cmake --build "$build" -j "$(nproc)" --target hubTalk localService scrubmill imagemill dcmsendCompanion download >/dev/null
echo "== built hubTalk, its companions and the local service"
# DCMTK's network code reads this; the agent and its tools inherit it.
export TCP_NODELAY=1

demo="$(mktemp -d /tmp/hubtalk-demo.XXXXXX)"
svc="$demo/service"; data="$demo/data"
mkdir -p "$svc/boxes" "$svc/replies" "$data"
pids=""
cleanup() { for p in $pids; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null || true; }
trap cleanup EXIT INT TERM
step() { printf '\n== %s\n' "$*"; }
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }

step "local service on 127.0.0.1 (config $svc)"
"$build/localService/localService" --config "$svc" --port 0 --web-port 0 >"$demo/service.out" 2>&1 &
pids="$pids $!"
for _ in $(seq 1 100); do [ -s "$svc/port" ] && break; sleep 0.1; done
port="$(cat "$svc/port")"; web_port="$(cat "$svc/webPort")"
echo "listening on port $port, files over HTTPS on port $web_port"
# The boxes and what the service tells them at registration and on each heartbeat.
printf 'Demo Clinic' >"$svc/boxes/demo-box"
printf 'Demo Clinic' >"$svc/boxes/demo-box-2"
# "optimize=OA": de-identify (A) and optimise pixels (O) before upload.
printf 'display_name=Demo Clinic&optimize=OA' >"$svc/replies/heartbeat"
printf 'display_name=Demo Clinic&optimize=OA' >"$svc/replies/init"
# Crop bands for every modality: 10 % of the height blanked at the top.
printf '10|0|0|0|0' >"$svc/replies/CROP"
: >"$svc/commands.log"
# Commands are shown as they arrive until the uploads are in (the follower
# ends once the sleep it watches is gone).
sleep 600 &
follow=$!; pids="$pids $follow"
tail -n +1 -f --pid="$follow" "$svc/commands.log" | sed -u 's/^/   service received: /' &
shown=$!

step "sample data directory $data"
cp "$build/pki/ca.crt" "$data/sundel.crt"
printf '127.0.0.1' >"$data/hosts.txt"
printf '%s' "$port" >"$data/port.txt"
printf 'https://127.0.0.1:%s/' "$web_port" >"$data/downloadBase.txt"
printf 'demo-box' >"$demo/name.txt"
ls "$data"

step "a clinic's DICOM node: storescp on 127.0.0.1 (it listens on every address; only loopback is dialled)"
scp_port="$(free_port)"; pacs="$demo/pacs"
mkdir -p "$pacs"
storescp +B -od "$pacs" "$scp_port" >"$demo/storescp.out" 2>&1 &
pids="$pids $!"
echo "   port $scp_port, files into $pacs"
# Two studies the service queues for this box's router: "<id>|<called AE title>|<retrieve key>".
pydicom_files="$(/usr/bin/python3 -c 'import pydicom, os; print(os.path.dirname(pydicom.__file__))')/data/test_files"
mkdir -p "$svc/queue/qDicom1" "$svc/files"
cp "$pydicom_files/CT_small.dcm" "$svc/files/ct.dcm"
cp "$pydicom_files/MR_small.dcm" "$svc/files/mr.dcm"
printf '101|STORESCP|studies/ct.dcm' >"$svc/queue/qDicom1/1"
printf '102|STORESCP|studies/mr.dcm' >"$svc/queue/qDicom1/2"

api_port="$(free_port)"
hl7_in="$demo/hl7-in"
mkdir -p "$demo/hl7-out" "$hl7_in"
step "starting hubTalk: -d $data -f name.txt -H hl7-out|hl7-in -p $api_port -C 127.0.0.1:$scp_port -s 6 -l -v -U"
"$build/hubTalk/hubTalk" -d "$data" -f "$demo/name.txt" -H "$demo/hl7-out|$hl7_in" \
    -p "$api_port" -C "127.0.0.1:$scp_port" -s 6 -l -v -U \
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

# Processing runs on an export directory and no inbound HL7 directory: a second box.
data2="$demo/data2"; export_dir="$demo/export"
mkdir -p "$data2" "$export_dir"
cp "$build/pki/ca.crt" "$data2/sundel.crt"
printf '127.0.0.1' >"$data2/hosts.txt"
printf '%s' "$port" >"$data2/port.txt"
printf 'demo-box-2' >"$demo/name2.txt"
step "a second box uploading its export directory, two workers de-identifying: hubTalk -d $data2 -f name2.txt -V $export_dir -N 1-2 -s 6"
"$build/hubTalk/hubTalk" -d "$data2" -f "$demo/name2.txt" -V "$export_dir" -N 1-2 -s 6 \
    >"$demo/agent2.out" 2>"$demo/agent2.err" &
pids="$pids $!"

step "real DICOM images: three made with dump2dcm, one CT from pydicom"
originals="$demo/originals"
mkdir -p "$originals"
python3 -c 'import sys; sys.stdout.buffer.write(bytes((x * 4 + y * 2) & 255 for y in range(64) for x in range(64)))' \
    >"$originals/pixels.raw"
make_image() {  # file patient-name patient-id
    cat >"$originals/$1.dump" <<EOF
(0008,0016) UI [1.2.840.10008.5.1.4.1.1.2]
(0008,0020) DA [20261122]
(0008,0060) CS [CT]
(0008,0070) LO [Demo Imaging]
(0008,1090) LO [DEMO CT]
(0010,0010) PN [$2]
(0010,0020) LO [$3]
(0010,0030) DA [19700101]
(0028,0002) US 1
(0028,0004) CS [MONOCHROME2]
(0028,0010) US 64
(0028,0011) US 64
(0028,0100) US 8
(0028,0101) US 8
(0028,0102) US 7
(0028,0103) US 0
(7fe0,0010) OB =$originals/pixels.raw
EOF
    dump2dcm +te +Ug "$originals/$1.dump" "$originals/$1"  # +Ug: new study, series and instance UIDs
}
make_image doe.dcm 'DOE^JANE' PID-1001
make_image roe.dcm 'ROE^RICHARD' PID-1002
make_image smith.dcm 'SMITH^ANNA' PID-1003
cp "$(/usr/bin/python3 -c 'import pydicom, os; print(os.path.dirname(pydicom.__file__))')/data/test_files/CT_small.dcm" \
    "$originals/ct.dcm"
for _ in $(seq 1 100); do [ -d "$data2/Q" ] && break; sleep 0.1; done
# Copied aside and renamed in, a minute old: nothing waits for them to settle.
drop() {  # file directory
    mkdir -p "$demo/staging"
    cp "$originals/$1" "$demo/staging/$1"
    touch -d '1 minute ago' "$demo/staging/$1"
    mv "$demo/staging/$1" "$2/$1"
    echo "   $1 -> $2"
}
queued="doe.dcm roe.dcm ct.dcm"; direct="smith.dcm"
for f in $queued; do drop "$f" "$data2/Q"; done
for f in $direct; do drop "$f" "$export_dir"; done
echo "   (the two processing workers de-identify the queue with scrubmill and pass it to"
echo "    the export directory; the export sender de-identifies what arrives there"
echo "    directly, uploads each file and deletes it once the service confirmed it)"

step "waiting for the uploads to arrive in the service's store $svc/store"
stored() {  # the stored copy of a queued file carries the worker's "<10 digits>." prefix
    for s in "$svc/store/$1" "$svc/store"/??????????."$1"; do
        [ -f "$s" ] && { echo "$s"; return 0; }
    done
    return 1
}
all_stored() { for f in $queued $direct; do stored "$f" >/dev/null || return 1; done; }
for _ in $(seq 1 900); do all_stored && break; sleep 0.2; done
for _ in $(seq 1 50); do [ -z "$(ls -A "$export_dir")" ] && break; sleep 0.2; done
kill "$follow" 2>/dev/null || true
wait "$shown" 2>/dev/null || true
echo "   uploads received:"
grep '|Export|Export|' "$svc/commands.log" | sed 's/^/      /' || true
left="$(ls -A "$export_dir")"
echo "   export directory now: ${left:-empty (each file deleted after the service confirmed it)}"
for f in $queued $direct; do
    if s="$(stored "$f")"; then
        echo "   $f, stored as $(basename "$s")"
        dcmdump -M +P PatientName "$originals/$f" | sed 's/^/      before: /'
        dcmdump -M +P PatientName "$s" | sed 's/^/      after:  /'
        dcmdump -M +P 0035,0010 "$s" | sed 's/^/      after:  /'
    else
        echo "   $f: not stored within 3 minutes; see $demo/agent2.err"
    fi
done

step "the first box's router (first pass 20 s after start) delivering the queued studies to $pacs"
for _ in $(seq 1 300); do [ "$(grep -c '|dDicom|id|' "$svc/commands.log")" -ge 2 ] && break; sleep 0.2; done
grep -E '\|(qDicom1|DICOM|dDicom)\|' "$svc/commands.log" | sed 's/^/   service received: /'
echo "   (an empty result after the id is a delivery; a failure carries its reason)"
for f in "$pacs"/*; do
    [ -f "$f" ] || { echo "   nothing arrived; see $demo/agent.err"; break; }
    echo "   $(basename "$f"): $(dcmdump -M +P PatientName "$f")"
done
ls "$data" | grep '^CR\.' >/dev/null && echo "   pushed files left in $data!" || echo "   every pushed file removed from the data directory"

step "self-update with the download tool: the service offers a newer DICOM dictionary"
mkdir -p "$svc/web/varnesk_sundel/pieces"
cp "$(ls /usr/share/libdcmtk*/dicom.dic | head -n 1)" "$svc/web/varnesk_sundel/pieces/dicom.dic"
printf 'display_name=Demo Clinic&optimize=OA&dicomDicVer=29990101:00' >"$svc/replies/heartbeat"
# An update check comes with every nineteenth reply; a local request the
# service refuses brings a heartbeat at once, so nineteen come quickly.
printf 'error' >"$svc/replies/API.status"
echo "   installed dictionary version: $(cat "$data/dicomDicVer.txt")"
for _ in $(seq 1 40); do
    [ "$(cat "$data/dicomDicVer.txt")" = "29990101:00" ] && break
    python3 -c 'import socket, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])), timeout=30)
s.sendall(b"{\"request_type\": \"status\"}")
while s.recv(4096): pass' "$api_port"
done
echo "   now: $(cat "$data/dicomDicVer.txt"), dicom.dic of $(wc -c <"$data/dicom.dic") bytes in $data"
echo "   (fetched by $build/hubTalk/download over TLS pinned to the box's sundel.crt)"
touch "$svc/faults/foreignCert"
HUBTALK_DATA_DIR="$data" "$build/hubTalk/download" "https://127.0.0.1:$web_port/varnesk_sundel/pieces/dicom.dic" \
    "$demo/foreign.dic" 2>&1 | sed 's/^/   the same download from a server with a foreign certificate: /' || true
rm -f "$svc/faults/foreignCert"
[ -e "$demo/foreign.dic" ] || echo "   nothing written"

step "waiting for the second box's next heartbeat"
beats() { grep -c '^heartbeat|.*fqdn=demo-box-2&' "$svc/commands.log" || true; }
n="$(beats)"
for _ in $(seq 1 150); do [ "$(beats)" -gt "$n" ] && break; sleep 0.1; done
grep '^heartbeat|.*fqdn=demo-box-2&' "$svc/commands.log" | tail -n 1 | tr '&' '\n' | grep -E 'apps2|appl' |
    sed 's/^/   reports: /' || true

step "the second box at a glance: hubTalk -d $data2 --status (reads the data directory only)"
status=0
"$build/hubTalk/hubTalk" -d "$data2" --status >"$demo/status.txt" 2>&1 || status=$?
sed 's/^/   /' "$demo/status.txt"
[ "$status" = 0 ] || echo "   (exit status $status: something needs attention)"

step "done; logs in $demo"
echo "   agents:  $demo/agent.out, $demo/agent.err, $demo/agent2.out, $demo/agent2.err"
echo "   service: $svc/commands.log, $demo/service.out, uploads in $svc/store"
