# Shared by the scripts of this folder; sourced, never run.
# shellcheck shell=bash

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export ROOT

say() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; }

die() {
    say "$*"
    exit 1
}

jobs_wanted() { echo "${VEXA_JOBS:-$(nproc)}"; }

known_preset() {
    case "$1" in
        host | asan | tsan | fuzz | coverage | static | armv7 | armv7-static) ;;
        *)
            say "unknown preset '$1'; one of: host asan tsan fuzz coverage static armv7 armv7-static"
            exit 2
            ;;
    esac
}

# A sanitizer's run-time cannot place its shadow where a kernel spreads mappings over 32 bits.
run_preset() {
    local preset=$1
    shift
    local bits
    bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 28)
    case "$preset" in
        asan | tsan)
            if [ "$bits" -gt 28 ]; then
                set -- setarch -R "$@"
            fi
            ;;
    esac
    "$@"
}

# Where ccache is installed it serves every checkout of this machine alike: paths below the
# checkout do not count, and precompiled headers do not stand in its way.
export CCACHE_BASEDIR=$ROOT CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=pch_defines,time_macros

# configure PRESET ON|OFF: with the tests or without, for a machine that has no test packages yet.
# Quick when the build folder stands; CMake itself notices changed lists.
configure() {
    local preset=$1 tests=$2 folder=$ROOT/build/$1
    if [ -f "$folder/build.ninja" ]; then
        [ "$tests" = OFF ] && return 0
        grep -q '^BUILD_TESTING:BOOL=ON' "$folder/CMakeCache.txt" && return 0
    fi
    local launcher=()
    if command -v ccache >/dev/null; then
        launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    fi
    (cd "$ROOT" && run_preset "$preset" \
        cmake --preset "$preset" "-DBUILD_TESTING=$tests" "${launcher[@]}") >&2
}

# build_without_tests TARGET: of the preset host, on a machine that may have no test packages.
build_without_tests() {
    configure host OFF && cmake --build "$ROOT/build/host" -j "$(jobs_wanted)" --target "$1"
}

# Where this machine's own packages come from, or VEXA_DEBIAN_MIRROR.
debian_mirror() {
    local found=${VEXA_DEBIAN_MIRROR:-}
    # shellcheck disable=SC2016
    [ -n "$found" ] || found=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' \
        'Codename: bookworm' | head -n 1)
    [ -n "$found" ] || die "apt knows no archive of Debian 12; name one with VEXA_DEBIAN_MIRROR=URL"
    echo "$found"
}
