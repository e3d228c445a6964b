#!/bin/sh
# Installs what is missing, builds (plain and sanitized) and runs every test.
# Usage: scripts/test.sh [plain|sanitize|tsan|all]   (default: all)
set -eu
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh
mode="${1:-all}"
jobs="$(nproc)"
# run <build dir> [ctest label] -- <cmake options>
run() {
    dir="$1"; label="$2"; shift 2
    cmake -S . -B "$dir" "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    (cd "$dir" && ctest --output-on-failure -j "$jobs" ${label:+-L "$label"})
}
plain() { run build ""; }
sanitize() { run build-asan "" -DHUBTALK_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug; }
# Only the tests labelled "threaded" (tests/slow.cmake) run on several threads.
tsan() { run build-tsan threaded -DHUBTALK_TSAN=ON -DCMAKE_BUILD_TYPE=Debug; }
case "$mode" in
    plain) plain ;;
    sanitize) sanitize ;;
    tsan) tsan ;;
    all) plain; sanitize; tsan ;;
    *) echo "usage: $0 [plain|sanitize|tsan|all]" >&2; exit 2 ;;
esac
