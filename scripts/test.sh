#!/bin/sh
# Installs what is missing, builds (plain and sanitized) and runs every test.
# Usage: scripts/test.sh [plain|sanitize|all]   (default: all)
set -eu
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh
mode="${1:-all}"
jobs="$(nproc)"
run() {
    dir="$1"; shift
    cmake -S . -B "$dir" "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    (cd "$dir" && ctest --output-on-failure -j "$jobs")
}
case "$mode" in
    plain) run build ;;
    sanitize) run build-asan -DHUBTALK_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug ;;
    all) run build; run build-asan -DHUBTALK_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug ;;
    *) echo "usage: $0 [plain|sanitize|all]" >&2; exit 2 ;;
esac
