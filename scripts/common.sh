# SPDX-License-Identifier: MIT
# What ./run and ./test share: packages, builds, and what a virtual board needs. Sourced, never run.
# shellcheck shell=bash

export LC_ALL=C.UTF-8
# The folder is named on every git call, so that root may work in somebody else's clone.
export GIT_CONFIG_COUNT=1 GIT_CONFIG_KEY_0=safe.directory GIT_CONFIG_VALUE_0=$PWD

Die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

AsRoot() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo --preserve-env "$@"
    else
        Die "this needs root ($*): run it as root, or install sudo"
    fi
}

# PackagesOf SECTION...: the names below these headings of the package list
PackagesOf() {
    local section
    for section in "$@"; do
        sed -n "/^\[$section\]\$/,/^\$/p" packaging/packages.txt | grep -E '^[a-z0-9]'
    done
}

# EnsurePackages SECTION...: installs what is missing; touches no network when nothing is
EnsurePackages() {
    command -v dpkg-query >/dev/null || Die "no dpkg here: Debian 12 (bookworm) is needed"
    local wanted missing
    mapfile -t wanted < <(PackagesOf "$@")
    mapfile -t missing < <(printf '%s\n' "${wanted[@]}" | sort -u |
        comm -23 - <(dpkg-query -W -f '${db:Status-Status} ${Package}\n' | sed -n 's/^installed //p' | sort -u))
    [ ${#missing[@]} -gt 0 ] || return 0
    printf 'installing %s\n' "${missing[*]}" >&2
    AsRoot apt-get update -qq || Die "apt-get update failed; the packages above are needed"
    AsRoot env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends -o Dpkg::Use-Pty=0 "${missing[@]}" >/dev/null ||
        Die "apt-get could not install the packages above"
}

# A virtual board has its own mounts, network and processes.
NeedBoard() {
    AsRoot unshare --mount --net --pid --fork true 2>/dev/null ||
        Die "a virtual board needs Linux namespaces (mount, network, process), which this machine refuses;" \
            "use a real or virtual machine, or a privileged container"
    [ -c /dev/ptmx ] || Die "a virtual board needs pseudo-terminals: /dev/ptmx is not there"
}

# Build PRESET [TARGET...]: configures and builds, with ccache where that is installed. Off a terminal it prints errors
# only: warnings are errors, so success has nothing to say.
Build() {
    local preset=$1
    shift
    export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1
    cmake --preset "$preset" -DCMAKE_CXX_COMPILER_LAUNCHER="$(command -v ccache)" --log-level=WARNING >/dev/null || return
    if [ -t 1 ]; then
        cmake --build --preset "$preset" ${1:+--target "$@"}
    else
        cmake --build --preset "$preset" ${1:+--target "$@"} -- --quiet | { grep -v '^ninja: no work to do' || true; }
        return "${PIPESTATUS[0]}"
    fi
}
