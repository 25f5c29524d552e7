#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tools need.
# Packages already present are skipped, so this is quick on a prepared machine.
# usage: scripts/install-deps.sh [base|all]   (default: all)
set -euo pipefail

base=(cmake ninja-build g++ make pkg-config libgtest-dev libgmock-dev file binutils)
extra=(clang libclang-rt-14-dev g++-aarch64-linux-gnu qemu-user libbenchmark-dev
       libinih-dev libiniparser-dev libglib2.0-dev valgrind)
wanted=("${base[@]}")
[ "${1:-all}" = all ] && wanted+=("${extra[@]}")

missing=()
for package in "${wanted[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
        missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "missing packages: ${missing[*]} (run as root, or install them)" >&2
    exit 1
fi
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# Another install on the machine may hold the package lock: wait for it.
apt=(apt-get -o DPkg::Lock::Timeout=600)
"${apt[@]}" update -qq
"${apt[@]}" install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
