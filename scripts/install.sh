#!/bin/sh
# Installs the agent, the companion tools built beside it and its service
# definition. Run again to upgrade: programs are replaced atomically, the data
# directory and an existing environment file are left as they are.
set -eu

usage() {
    cat <<'EOF'
usage: scripts/install.sh [--prefix DIR] [--data DIR] [--build DIR] [--unit-dir DIR]
                          [--no-build] [--launchd] [--enable]
  --prefix DIR    programs into DIR/bin, the environment file into DIR/etc (/opt/hubTalk)
  --data DIR      the agent's data directory (/var/lib/hubTalk)
  --build DIR     build directory (build-install in the source tree); built when needed
  --no-build      install what the build directory holds, without building
  --unit-dir DIR  where the service definition goes (/etc/systemd/system;
                  /Library/LaunchDaemons for --launchd)
  --launchd       a launchd property list instead of a systemd unit (default on macOS)
  --enable        enable and (re)start the service; needs the system's unit directory
EOF
}
die() { echo "install: $*" >&2; exit 2; }
say() { echo "install: $*"; }

src="$(cd "$(dirname "$0")/.." && pwd)"
prefix=/opt/hubTalk
data=/var/lib/hubTalk
build="$src/build-install"
unit_dir=""
form=systemd
[ "$(uname -s)" = Darwin ] && form=launchd
build_now=yes
enable=no
while [ $# -gt 0 ]; do
    case "$1" in
        --prefix | --data | --build | --unit-dir)
            # A following option is no value: "--prefix --data x" is a slip.
            case "${2-}" in --*) die "$1 needs a value" ;; esac
            [ $# -ge 2 ] || die "$1 needs a value"
            case "$1" in
                --prefix) prefix="$2" ;;
                --data) data="$2" ;;
                --build) build="$2" ;;
                --unit-dir) unit_dir="$2" ;;
            esac
            shift 2
            ;;
        --no-build) build_now=no; shift ;;
        --launchd) form=launchd; shift ;;
        --enable) enable=yes; shift ;;
        -h | --help) usage; exit 0 ;;
        *) usage >&2; die "unknown argument: $1" ;;
    esac
done
if [ "$form" = launchd ]; then
    system_unit_dir=/Library/LaunchDaemons
    unit_name=hubTalk.plist
else
    system_unit_dir=/etc/systemd/system
    unit_name=hubTalk.service
fi
[ -n "$unit_dir" ] || unit_dir="$system_unit_dir"

newline="$(printf '\nx')"; newline="${newline%x}"
# Every path lands in the unit, the environment file or the property list:
# absolute, and free of what those would need escaped.
check_path() {  # option value
    case "$2" in
        "") die "$1 is empty" ;;
        *"$newline"*) die "$1 may not contain a newline" ;;
        /) die "$1 may not be /" ;;
        /*) ;;
        *) die "$1 must be an absolute path: $2" ;;
    esac
    case "$2" in
        *[\"\\\$%\`\&\<\>]*) die "$1 may not contain any of \" \\ \$ % \` & < >: $2" ;;
    esac
}
check_path --prefix "$prefix"
check_path --data "$data"
check_path --unit-dir "$unit_dir"
case "$build" in
    "") die "--build is empty" ;;
    *"$newline"*) die "--build may not contain a newline" ;;
    /*) ;;
    *) build="$(pwd)/$build" ;;
esac
strip_slashes() { printf '%s' "$1" | sed 's|//*$||'; }
prefix="$(strip_slashes "$prefix")"
data="$(strip_slashes "$data")"
unit_dir="$(strip_slashes "$unit_dir")"
[ -d "$unit_dir" ] || die "unit directory $unit_dir does not exist"
# The service manager is asked only about the system's own unit directory.
manager=""
if [ "$unit_dir" = "$system_unit_dir" ]; then
    if [ "$form" = launchd ]; then
        command -v launchctl >/dev/null && manager=launchctl
    elif command -v systemctl >/dev/null && [ -d /run/systemd/system ]; then
        manager=systemctl
    fi
fi
if [ "$enable" = yes ]; then
    [ "$unit_dir" = "$system_unit_dir" ] ||
        die "--enable needs the system's unit directory $system_unit_dir, not $unit_dir"
    [ -n "$manager" ] || die "--enable: no running service manager here"
fi

if [ "$build_now" = yes ]; then
    command -v cmake >/dev/null || die "cmake is missing (scripts/bootstrap.sh installs it)"
    if [ ! -f "$build/CMakeCache.txt" ]; then
        say "configuring $build"
        cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF >/dev/null
    fi
    # The DCMTK companions exist only when the build found DCMTK.
    targets="hubTalk download"
    known="$(cmake --build "$build" --target help 2>/dev/null || true)"
    for t in scrubmill imagemill dcmsendCompanion; do
        case "$known" in *"... $t$newline"* | *"... $t") targets="$targets $t" ;; esac
    done
    case "$targets" in
        *scrubmill*) ;;
        *) say "note: this build has no DCMTK companions (scrubmill, imagemill, dcmsend): DCMTK not found" ;;
    esac
    say "building $targets in $build"
    jobs="$(getconf _NPROCESSORS_ONLN 2>/dev/null || echo 2)"
    # shellcheck disable=SC2086
    cmake --build "$build" -j "$jobs" --target $targets >/dev/null
fi
# The agent runs its companions from its own directory, so the build puts
# them beside it: every program there goes.
programs="$build/hubTalk"
if [ ! -f "$programs/hubTalk" ] || [ ! -x "$programs/hubTalk" ]; then
    die "no agent in $programs (build it, or leave out --no-build)"
fi

tmp=""
trap 'if [ -n "$tmp" ]; then rm -f "$tmp"; fi' EXIT
trap 'exit 1' HUP INT TERM
# A file is written to a temporary beside it ("$tmp" between begin and
# finish) and renamed into place, so it is never seen half written.
begin() { tmp="$1.installing"; }
finish() {  # file mode
    chmod "$2" "$tmp"
    mv -f "$tmp" "$1"
    tmp=""
}
sed_value() { printf '%s' "$1" | sed 's/[|&\\]/\\&/g'; }
render() {  # template
    sed -e "s|@PREFIX@|$(sed_value "$prefix")|g" -e "s|@DATA@|$(sed_value "$data")|g" "$1"
}

mkdir -p "$prefix/bin"
changed=no
for program in "$programs"/*; do
    if [ ! -f "$program" ] || [ ! -x "$program" ]; then continue; fi
    name="$(basename "$program")"
    if cmp -s "$program" "$prefix/bin/$name"; then
        say "unchanged $prefix/bin/$name"
    else
        begin "$prefix/bin/$name"
        cp "$program" "$tmp"
        finish "$prefix/bin/$name" 0755
        say "installed $prefix/bin/$name"
        changed=yes
    fi
done

if [ -d "$data" ]; then
    say "kept data directory $data"
else
    mkdir -p "$data"
    chmod 0750 "$data"  # the box's identity and secrets
    say "created data directory $data"
fi

env_file="$prefix/etc/hubTalk.env"
if [ "$form" = launchd ]; then
    say "options are the ProgramArguments of $unit_dir/$unit_name"
elif [ -e "$env_file" ]; then
    say "kept $env_file"
    grep -qxF "HUBTALK_DATA=\"$data\"" "$env_file" ||
        say "note: HUBTALK_DATA in $env_file is not $data; the service uses the file's"
else
    mkdir -p "$prefix/etc"
    begin "$env_file"
    cat >"$tmp" <<EOF
# Options of the hubTalk service, kept by scripts/install.sh once written.
# A change takes effect with: systemctl restart hubTalk
# Values in double quotes; no \$, \`, \\ or " inside.

# The data directory: configuration, state, and the log files stdout.bc.txt
# and stderr.bc.txt. A directory under /usr or /etc must also be listed in
# the unit's ReadWritePaths.
HUBTALK_DATA="$data"

# -q: output into the data directory's log files rather than the journal.
HUBTALK_OPTIONS="-q"
# Options to add to HUBTALK_OPTIONS (README.md describes them; -z is not
# needed, systemd restarts the agent):
#   -V <dir>              upload what arrives in this export directory
#   -N <mode>[-<workers>] processing: 1 de-identify, 2 optimise pixels,
#                         3 optimise keeping the original (needs -V)
#   -C <host>[:<port>]    route queued studies to this DICOM node
#   -A <kind>             EMR bridge (r, c, a, e, s, m, o, meditouch, f)
#   -H <out>|<in>         HL7 output and inbound directories
#   -S <short>|<test>     code table files
#   -P / -r               router's PDF / structured-report converters
#   -p <port>             local request port
#   -n <threads>          local request listener threads (default 3)
#   -f <file>             file naming this box
#   -R <ip>               receiving server
#   -s <seconds>          main loop cycle (default 60)
#   -U                    self-update of the programs in $prefix/bin
#   -v                    verbose diagnostics
EOF
    finish "$env_file" 0644
    say "wrote $env_file"
fi

unit="$unit_dir/$unit_name"
begin "$unit"
render "$src/packaging/$unit_name" >"$tmp"
finish "$unit" 0644
say "wrote $unit"

case "$manager" in
    systemctl)
        systemctl daemon-reload
        say "reloaded systemd"
        if [ "$enable" = yes ]; then
            systemctl enable hubTalk.service
            systemctl restart hubTalk.service
            say "enabled and started hubTalk.service"
        else
            say "start it with: systemctl enable --now hubTalk.service"
            [ "$changed" = no ] || say "a running agent takes the new programs with: systemctl restart hubTalk.service"
        fi
        ;;
    launchctl)
        if [ "$enable" = yes ]; then
            launchctl unload "$unit" 2>/dev/null || true
            launchctl load -w "$unit"
            say "loaded $unit"
        else
            say "start it with: launchctl load -w $unit"
        fi
        ;;
    *) say "no daemon-reload: not the system's unit directory, or no service manager running" ;;
esac
