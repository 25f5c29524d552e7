#!/usr/bin/env bash
# The main job: builds the library and the cfgfile tool, then works on a copy
# of the bundled example settings file: reads typed values, sets some, lists
# sections, deletes a key and prints the file.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh base
# build/ is shared with scripts/test.sh: the tests are left as configured
# there (on by default) and only the tool is built. A new directory gets Ninja;
# an existing one keeps its generator.
generator=()
[ -f build/CMakeCache.txt ] || generator=(-G Ninja)
cmake -S . -B build "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCFGFILE_BUILD_TOOLS=ON >/dev/null
cmake --build build -j "$(nproc)" --target cfgfile_tool >/dev/null
cfgfile=build/tools/cfgfile/cfgfile
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp examples/device.ini "$work/device.ini"
file=$work/device.ini

run() { printf '$ cfgfile %s\n' "${*//$file/device.ini}"; "$cfgfile" "$@"; }
run get "$file" Network RtspPort --type int
run get "$file" Video Resolution --type video-size
run get "$file" Audio Gain --type float
run get "$file" Device Enabled --type bool
run get "$file" Network NtpServer --default pool.ntp.org
run set "$file" Network RtspPort 8554 --type int
run set "$file" Video Brightness 0.75 --type float --precision 2
run set "$file" Cloud Enabled yes --type bool
run sections "$file"
run del-key "$file" Network Gateway
printf '$ cat device.ini\n'
cat "$file"
