# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# Shared by the scripts beside it and by emulator/run.
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# What the virtual device runs.
# shellcheck disable=SC2034
device_programs=(getprop setprop servicemanager kusd kusctl kusgate role_switch)

die() {
    echo "${0##*/}: $*" >&2
    exit 1
}

usage_error() {
    echo "${0##*/}: $* (--help shows the usage)" >&2
    exit 2
}

# step TEXT COMMAND...: runs COMMAND with its output in $log and reports how long it took. Where
# COMMAND fails the end of its output is shown, and the script ends.
step() {
    local text=$1 start=$SECONDS ticker='' status=0
    shift
    mkdir -p "$repo/build/log"
    log=$repo/build/log/${text//[^a-zA-Z0-9]/-}
    printf '%-60s' "$text" >&2
    if [[ -t 2 ]]; then
        # Ctrl-C ends this script and passes over what runs in the background.
        while sleep 1 && kill -0 $$ 2>/dev/null; do
            printf '\r%-60s%4d s' "$text" $((SECONDS - start)) >&2
        done &
        ticker=$!
    fi
    "$@" >"$log" 2>&1 </dev/null || status=$?
    [[ ! $ticker ]] || kill $ticker
    [[ ! -t 2 ]] || printf '\r%-60s' "$text" >&2
    if [[ $status -ne 0 ]]; then
        printf 'failed\n' >&2
        tail -n 30 "$log" >&2
        die "$text: failed with status $status; all of its output is in $log"
    fi
    printf '%4d s\n' $((SECONDS - start)) >&2
}

# build_native DIR SANITIZER TARGET...: for this machine.
build_native() {
    local build=$repo/build/$1
    cmake -G Ninja -S "$repo" -B "$build" -DKUS_SANITIZER="$2" && ninja -C "$build" "${@:3}"
}

# build_asan TARGET...: for this machine under the address and undefined behaviour sanitizers, and
# such that the fuzz targets (fuzzers) are made of it, too. Clang is the platform's compiler, and
# takes half the time of GCC.
build_asan() {
    CXX=clang++ build_native asan address,undefined,fuzzer-no-link "$@"
}

# build_arm64 DIR SANITIZER TARGET...: for the virtual device.
build_arm64() {
    CMAKE_TOOLCHAIN_FILE=$repo/cmake/arm64.cmake build_native "$@"
}

build_for_device() {
    build_arm64 arm64 '' "$@"
}
