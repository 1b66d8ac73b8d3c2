# Shared by the scripts of this folder: source it, do not run it.

set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
jobs=$(nproc)

# A compiler cache is used where there is one.
if command -v ccache >/dev/null && [[ -z ${CMAKE_CXX_COMPILER_LAUNCHER:-} ]]; then
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

say() { printf '\n== %s\n' "$*"; }

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# configure PRESET [OPTION...]
configure() {
    local preset=$1
    shift
    cmake --preset "$preset" "$@" >"$root/build/configure-$preset.log" 2>&1 ||
        { cat "$root/build/configure-$preset.log" >&2; fail "cannot configure $preset"; }
}

# build PRESET [TARGET...]
build() {
    local preset=$1
    shift
    cmake --build --preset "$preset" --parallel "$jobs" ${1:+--target "$@"}
}

mkdir -p "$root/build"
