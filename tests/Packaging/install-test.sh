#!/usr/bin/env bash
# Installs the build into a temporary prefix, moves the prefix elsewhere (the
# tree must be relocatable) and uses it as a host would, with nothing of the
# build tree on any path and none of our environment variables set:
#  - the example host, configured with find_package(Korvane) only, converts
#    a generated clip and prints state and progress from the task's bus;
#  - a program compiled with the pkg-config flags includes every installed
#    header and calls an exported function;
#  - the installed korvane-convert prints its version, converts through the
#    system's ffmpeg (found on PATH) and through the installed worker.
# ffprobe reads each output.
#   install-test.sh BUILD_DIR EXAMPLE_DIR [EXTRA_COMPILE_FLAGS]
set -euo pipefail
build=$1
example=$2
extraFlags=${3:-}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/home"

cmake --install "$build" --prefix "$work/staged" > "$work/install.log"
mv "$work/staged" "$work/prefix"
prefix=$work/prefix

# A clean environment; the settings of a sanitizer run pass through.
passed=()
for variable in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
    if [ -n "${!variable:-}" ]; then
        passed+=("$variable=${!variable}")
    fi
done
clean() {
    env -i HOME="$work/home" PATH=/usr/bin:/bin "${passed[@]}" "$@"
}
fail() {
    echo "install-test: $*" >&2
    exit 1
}
expectVideo() { # FILE WIDTH
    local described
    described=$(ffprobe -v error -select_streams v:0 -show_entries stream=codec_name,width \
        -of csv=p=0 "$1") || fail "ffprobe cannot read $1"
    [ "$described" = "h264,$2" ] || fail "$1: video stream '$described', expected 'h264,$2'"
}

clip=$work/clip.mp4
ffmpeg -v error -f lavfi -i testsrc2=size=320x240:rate=25:duration=1 \
    -f lavfi -i sine=frequency=440:duration=1 -c:v libx264 -preset ultrafast \
    -pix_fmt yuv420p -c:a aac -shortest "$clip"

# The example host through the CMake package.
clean cmake -S "$example" -B "$work/host" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="$extraFlags" > "$work/host-configure.log" ||
    { cat "$work/host-configure.log"; fail "the example does not configure"; }
clean cmake --build "$work/host" > "$work/host-build.log" ||
    { cat "$work/host-build.log"; fail "the example does not build"; }
hostOut=$(clean "$work/host/minimal-host" "$clip" "$work/host.mp4" 320 240 1 2> "$work/host.err") ||
    { status=$?; cat "$work/host.err"; fail "minimal-host exits $status"; }
grep -qx "state 1 (error 0)" <<< "$hostOut" || fail "minimal-host printed no start: $hostOut"
grep -qx "progress 1.000" <<< "$hostOut" || fail "minimal-host printed no progress: $hostOut"
[ "$(tail -n 1 <<< "$hostOut")" = "state 5 (error 0)" ] || fail "minimal-host did not finish: $hostOut"
expectVideo "$work/host.mp4" 320

# Every installed header compiles from the installed tree alone, through the
# pkg-config file.
pcDir=$(dirname "$(find "$prefix" -name korvane.pc)")
{
    (cd "$prefix/include/Korvane" && find . -name '*.h' | sort | sed 's|^\./\(.*\)|#include <\1>|')
    echo 'int main() { return Korvane::isHardwareTranscode() ? 1 : 0; }'
} > "$work/headers.cpp"
# shellcheck disable=SC2046,SC2086 # the flags are separate words
clean c++ -std=c++17 $extraFlags "$work/headers.cpp" -o "$work/headers" \
    $(PKG_CONFIG_PATH="$pcDir" pkg-config --cflags --libs korvane) -Wl,-rpath,"$pcDir/.." ||
    fail "the installed headers do not compile with the pkg-config flags"
clean "$work/headers" || fail "the pkg-config program fails"

# The installed programs: ffmpeg from PATH, the worker next to korvane-convert.
convert=$prefix/bin/korvane-convert
clean "$convert" --version | grep -qx "korvane-convert [0-9.]*" || fail "korvane-convert --version"
clean "$convert" "$clip" "$work/ffmpeg-path.mp4" --path ffmpeg 2> "$work/convert.err" ||
    { cat "$work/convert.err"; fail "the installed korvane-convert fails on the ffmpeg path"; }
grep -q 'execute cmd: "/usr/bin/ffmpeg"' "$work/convert.err" ||
    { cat "$work/convert.err"; fail "the installed korvane-convert did not run the system's ffmpeg"; }
expectVideo "$work/ffmpeg-path.mp4" 320
clean "$convert" "$clip" "$work/worker-path.mp4" --path converter --size 160x120 2> "$work/worker.err" ||
    { cat "$work/worker.err"; fail "the installed korvane-convert fails through the worker"; }
expectVideo "$work/worker-path.mp4" 160
echo "install-test: installed tree works from $prefix"
