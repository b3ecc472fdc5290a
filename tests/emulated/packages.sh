#!/usr/bin/env bash
# usage: packages.sh BUILD_FOLDER: makes the Debian packages of a build for arm64 and checks what they are for,
# what they need, and what is in them. tests/install/run does the rest for the build machine's own.
set -euo pipefail
build=$(cd "${1:?usage: packages.sh BUILD_FOLDER}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "packages: $*" >&2
    exit 1
}
cpack --config "$build/CPackConfig.cmake" -B "$work/packages" >"$work/cpack" 2>&1 || fail "$(<"$work/cpack")"

# expect PACKAGE ARCHITECTURE NEEDED...
expect() {
    local package=$1 architecture=$2 depends needed
    local file=("$work/packages/${package}_"*"_$architecture.deb")
    [[ -e ${file[0]} ]] || fail "no package $package for $architecture: $(ls "$work/packages")"
    [[ $(dpkg-deb --field "${file[0]}" Architecture) == "$architecture" ]] || fail "$package says another architecture"
    depends=$(dpkg-deb --field "${file[0]}" Depends)
    for needed in "${@:3}"; do
        [[ ", $depends" == *", $needed"* ]] || fail "$package does not need $needed: $depends"
    done
    dpkg-deb --extract "${file[0]}" "$work/system"
}
expect libtavistro-engine5 arm64 libc6 libstdc++6
expect libtavistro-engine5-jack arm64 "libtavistro-engine5 (= " libjack
expect tavistro-driver-alsa arm64 "libtavistro-engine5 (= " libasound2 libzita-alsa-pcmi0
expect libtavistro-engine-dev arm64 "libtavistro-engine5 (= "
expect tavistro-tools arm64 "libtavistro-engine5 (= " libsndfile1 zlib1g
expect tavistro-services all "tavistro-tools (= "
expect tavistro-doc all

programs=$(find "$work/system" -type f -exec file {} + | grep ELF)
(($(wc -l <<<"$programs") >= 7)) || fail "three programs, the library and the drivers should be there: $programs"
if grep -v "ARM aarch64.* stripped" <<<"$programs"; then fail "for another processor, or with symbols"; fi
