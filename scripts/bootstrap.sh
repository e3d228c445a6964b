#!/bin/sh
# Installs the build and test dependencies on Debian 12; does nothing when all are present.
set -eu
PKGS="cmake g++ make libmbedtls-dev dcmtk libdcmtk-dev libgtest-dev openssl python3-hl7 python3-pydicom openssh-server openssh-client sshpass strace"
missing=""
for p in $PKGS; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
# The packaging test checks the service unit with systemd-analyze, whichever package brought it.
command -v systemd-analyze >/dev/null 2>&1 || missing="$missing systemd"
[ -z "$missing" ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
    echo "bootstrap: missing packages:$missing (run as root to install)" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# shellcheck disable=SC2086
apt-get install -y -qq --no-install-recommends $missing
