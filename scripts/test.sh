#!/bin/sh
# Installs what is missing, builds (plain and sanitized) and runs every test.
# Usage: scripts/test.sh [plain|sanitize|tsan|all]   (default: all)
set -eu
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh
mode="${1:-all}"
jobs="$(nproc)"
# run <build dir> [ctest filter] -- <cmake options>
run() {
    dir="$1"; filter="$2"; shift 2
    cmake -S . -B "$dir" "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    if [ -n "$filter" ]; then
        (cd "$dir" && ctest --output-on-failure -j "$jobs" -R "$filter")
    else
        (cd "$dir" && ctest --output-on-failure -j "$jobs")
    fi
}
# The tests whose code runs on several threads at once.
THREADED='Watchdog|Random|Memory|Listener|Mllp|WriteTxt'
plain() { run build ""; }
sanitize() { run build-asan "" -DHUBTALK_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug; }
tsan() { run build-tsan "$THREADED" -DHUBTALK_TSAN=ON -DCMAKE_BUILD_TYPE=Debug; }
case "$mode" in
    plain) plain ;;
    sanitize) sanitize ;;
    tsan) tsan ;;
    all) plain; sanitize; tsan ;;
    *) echo "usage: $0 [plain|sanitize|tsan|all]" >&2; exit 2 ;;
esac
