#!/bin/sh
# Runs the cfgfile tool on a copy of the example settings file and checks what
# each command prints on stdout and the status it exits with.
# usage: cli_test.sh path/to/cfgfile path/to/device.ini [path/to/bash-completion]
set -eu
tool=$1
# A cross build runs the tool through its emulator (CFGFILE_EMULATOR).
run_tool() { ${CFGFILE_EMULATOR:-} "$tool" "$@"; }
example=$2
completion=${3:-}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
f=$dir/device.ini
err=$dir/stderr
passed=0
failed=0

fail() {
    failed=$((failed + 1))
    printf 'FAIL %s\n' "$*"
}

pass() {
    passed=$((passed + 1))
}

# check STATUS STDOUT ARGS...: runs the tool with ARGS and compares.
check() {
    want_status=$1 want_out=$2
    shift 2
    status=0
    out=$(run_tool "$@" 2>"$err") || status=$?
    if [ "$status" -eq "$want_status" ] && [ "$out" = "$want_out" ]; then
        pass
    else
        fail "cfgfile $*: status $status (want $want_status)," \
            "stdout '$out' (want '$want_out'), stderr: $(cat "$err")"
    fi
}

# check_stderr TEXT: the last command's stderr holds TEXT.
check_stderr() {
    if grep -qF -- "$1" "$err"; then pass; else fail "stderr lacks '$1': $(cat "$err")"; fi
}

check_stderr_empty() {
    if [ ! -s "$err" ]; then pass; else fail "stderr not empty: $(cat "$err")"; fi
}

# check_same A B: files A and B hold the same bytes.
check_same() {
    if cmp -s "$1" "$2"; then pass; else fail "$1 differs from $2"; fi
}

cp "$example" "$f"
cp "$example" "$dir/original.ini"
nl='
'

# ------------------------------------------------------------------- get
check 0 "Lobby camera" get "$f" Device Name
check 0 "554" get "$f" network RTSPPORT --type int
check 0 "171806745456640" get "$f" Video Format --type video-format
check 0 "8053616640" get "$f" Video Resolution --type video-resolution
check 0 "1920x1080" get "$f" Video Resolution --type video-size
check 0 "1.25" get "$f" Video Contrast --type=float
check 0 "-3.5" get "$f" Audio Gain --type float
check 0 "2147483648" get "$f" Storage MinFreeSpace --type int64
check 0 "no" get "$f" Network DHCP --type bool
check 0 "yes" get "$f" Audio Enabled --type bool

check 3 "" get "$f" Device Nothing
check_stderr "cfgfile: get: CFGFILE_KEY_NOT_FOUND (3)"
check 2 "" get "$f" Nothing Name
check 5 "" get "$dir/missing.ini" Device Name

# A default stands in for what is missing, never for what is malformed.
check 0 "fallback" get "$f" Device Nothing --default fallback
check 0 "42" get "$dir/missing.ini" Device Name --type int --default 42
check 0 "640x480" get "$f" Nothing Size --type video-size --default 640x480
check 4 "" get "$f" Device Name --type int --default 42
check 4 "" get "$f" Device Name --type bool
check_stderr "CFGFILE_BAD_VALUE (4)"
check 0 "yes" get "$f" Device Name --type bool --default on
check 4 "" get "$f" Video Codec --type video-format
check 1 "" get "$f" Device Nothing --type int --default 4x
check 1 "" get "$f" Device Nothing --type video-size --default 640

# ------------------------------------------------------------------- set
check 0 "" set "$f" Video Bitrate 4000000 --type int
check 0 "4000000" get "$f" Video Bitrate --type int
cp "$f" "$dir/before.ini"
for bad in "int abc" "int 12x" "int 2147483648" "int +" "uint -1" "int64 9223372036854775808" \
    "float 1e39" "float x1" "bool maybe"; do
    # shellcheck disable=SC2086 # split into type and value
    set -- $bad
    check 1 "" set "$f" Video Bitrate "$2" --type "$1"
done
check_stderr "is not a valid bool"
check 1 "" set "$f" Video Bitrate "" --type int
check 1 "" set "$f" Video Bitrate " 5" --type int
check_same "$f" "$dir/before.ini"
check 64 "" set "$f" Video Format 1080i50 --type video-format
check 64 "" set "$f" Video Bitrate 5 --type int --precision 2
check 0 "" set "$f" Video Brightness 0.333 --type float --precision 2
check 0 "Brightness=0.33" find-line "$f" Brightness
check 0 "" set "$f" Video Mirror ON --type bool
check 0 "Yes" get "$f" Video Mirror
check 0 "" set "$f" Video Offset -12 --type int
check 0 "-12" get "$f" Video Offset --type int
check 0 "" set "$f" Video Title -- "--live--"
check 0 "--live--" get "$f" Video Title
check 0 "" set "$f" Overlay Text "Lobby 1"
long=$(printf '%01000d' 7)
check 0 "" set "$f" Overlay Long "$long"
check 0 "$long" get "$f" Overlay Long
check 0 "" set "$dir/new.ini" Device Name "New camera"
check 0 "Device" sections "$dir/new.ini"

# -------------------------------------------------------------- sections
all="Device${nl}Network${nl}Video${nl}Audio${nl}Storage${nl}Schedule.Weekday${nl}Schedule.Weekend"
check 0 "$all${nl}Overlay" sections "$f"
check 0 "Schedule.Weekday${nl}Schedule.Weekend" sections "$f" schedule.
check 0 "" sections "$f" Nothing
check 5 "" sections "$dir/missing.ini"

# ------------------------------------------------------------ deletions
check 0 "" del-key "$f" Video Codec
check 3 "" get "$f" Video Codec
check 0 "" del-key "$f" Video Codec
check 0 "" clear-section "$f" Schedule.Weekend
check 3 "" get "$f" Schedule.Weekend Start
check 0 "Schedule.Weekend" sections "$f" Schedule.Weekend
check 0 "" del-sections "$f" "Schedule*"
check 0 "" sections "$f" Schedule
check 0 "" del-sections "$f" Overlay
check 2 "" get "$f" Overlay Text

# ------------------------------------------------------------ raw lines
check 0 "Hostname = cam-lobby-01" find-line "$f" Hostname
check 100 "" find-line "$f" Nothing
check 1 "" find-line "$f" ""
check 0 "" comment-line "$f" MTU
check 0 "#MTU = 1500" find-line "$f" "#MTU"
check 3 "" get "$f" Network MTU
check 0 "" del-line "$f" Gateway
check 100 "" find-line "$f" Gateway
check 1 "" del-line "$f" ""
check 100 "" comment-line "$dir/missing.ini" MTU

# ---------------------------------------------------------------- chgrp
gid=$(id -g)
chmod 0644 "$f"
check 0 "" chgrp "$f" "$gid"
owner=$(stat -c '%g %A' "$f")
if [ "$owner" = "$gid -rw-rw-r--" ]; then pass; else fail "chgrp: $owner"; fi
check 1 "" chgrp "$f" no-such-group-here

# -------------------------------------------------------------- recover
# A change interrupted between its two renames leaves only the backup.
cp "$f" "$dir/saved.ini"
mv "$f" "$dir/device.bak"
check 0 "" del-key "$f" Video Bitrate
check_stderr "cfgfile: warning: $f is missing but $dir/device.bak exists"
check 0 "" recover "$f"
check_stderr "restored $f from $dir/device.bak"
check_same "$f" "$dir/saved.ini"
check 0 "" recover "$f"
check_stderr_empty

# Through a symbolic link, the change worked on the link's target.
mkdir "$dir/real"
cp "$dir/saved.ini" "$dir/real/cam.conf"
ln -s real/cam.conf "$dir/link.ini"
mv "$dir/real/cam.conf" "$dir/real/cam.bak"
check 0 "" del-key "$dir/link.ini" Device Name
check_stderr "$dir/link.ini is missing but $dir/real/cam.bak exists"
check 0 "" recover "$dir/link.ini"
check_same "$dir/real/cam.conf" "$dir/saved.ini"
check 0 "Lobby camera" get "$dir/link.ini" Device Name

# The backup replaces the last suffix of the file name, unless it starts the
# name or already is "bak".
for pair in "config config.bak" ".profile .profile.bak" "a.bak a.bak.bak" "a.b.c a.b.bak"; do
    # shellcheck disable=SC2086 # split into file and backup
    set -- $pair
    echo "[x]" >"$dir/$2"
    check 0 "" recover "$dir/$1"
    if [ -f "$dir/$1" ] && [ ! -e "$dir/$2" ]; then pass; else fail "recover $1 from $2"; fi
done

# -------------------------------------------------------------- locking
# Concurrent changes of one file, each under the lock, all land.
cp "$dir/original.ini" "$f"
pids=""
for i in 1 2 3 4 5 6 7 8; do
    run_tool --lock set "$f" Lock "Key$i" "$i" --type int &
    pids="$pids $!"
done
lock_status=0
for pid in $pids; do wait "$pid" || lock_status=$?; done
if [ "$lock_status" -eq 0 ]; then pass; else fail "--lock set exited $lock_status"; fi
for i in 1 2 3 4 5 6 7 8; do check 0 "$i" get "$f" Lock "Key$i" --type int; done
if [ -f "$f.lock" ]; then pass; else fail "no lock file $f.lock"; fi

# ------------------------------------------------- apply, several sets
a=$dir/apply.ini
cp "$example" "$a"
cat >"$dir/script" <<'END'
# quoted as in sh; VALUE is one word
set Device Name 'Hall camera'   # a comment after the change
set Device Location "Gate \"B\", \$HOME \\ \q"
  set  Video  Title  a\ b=c\'d
set Overlay Empty ''
del-key Video Codec
set Hostile cmd '$(touch X)'
set Hostile tick '`touch X`'
set Hostile semi 'a; touch X'
set Hostile quote "it's \"q\" \\ \$HOME"
set Hostile 9-lives.x 9
set Hostile a.b first
set Hostile a-b second
END
check 0 "" apply "$a" -f "$dir/script"
check 0 "Hall camera" get "$a" Device Name
check 0 'Gate "B", $HOME \ \q' get "$a" Device Location
check 0 "a b=c'd" get "$a" Video Title
check 0 "" get "$a" Overlay Empty
check 3 "" get "$a" Video Codec
printf 'set Device Name "From stdin"\n' >"$dir/stdin"
check 0 "" apply "$a" <"$dir/stdin"
check 0 "From stdin" get "$a" Device Name

# A bad line anywhere leaves the file byte for byte as it was.
cp "$a" "$dir/before.ini"
printf '%s\n' 'set Device Name ok' '' 'set Device Name two words' 'frob A B' "set A B 'open" \
    'del-key "" K' >"$dir/bad"
check 1 "" apply "$a" <"$dir/bad"
check_stderr "cfgfile: apply: line 3: set takes SECTION KEY VALUE"
check_stderr "line 4: unknown verb 'frob'"
check_stderr "line 5: unterminated single quote"
check_stderr "line 6: empty section or key name"
seq 0 1024 | sed 's/.*/set Many K& &/' >"$dir/many"
check 1 "" apply "$a" -f "$dir/many"
check_stderr "line 1025: more than 1024 changes"
check 5 "" apply "$a" -f "$dir/no-script"
check 1 "" set "$a" Device Name x Video Bitrate 1.5 --type int
check 64 "" set "$a" Device Name x Video Bitrate
check_same "$a" "$dir/before.ini"

# Typed values set together are written as a typed set of each writes them.
cp "$a" "$dir/one.ini"
run_tool set "$dir/one.ini" Video Contrast 0.125 --type float --precision 2
run_tool set "$dir/one.ini" New Gain -1e3 --type float --precision 2
check 0 "" set "$a" Video Contrast 0.125 New Gain -1e3 --type float --precision 2
check_same "$a" "$dir/one.ini"

# ------------------------------------------------------------ keys, show
check 0 "Enabled${nl}Codec${nl}SampleRate${nl}Channels${nl}Gain" keys "$a" audio
check 2 "" keys "$a" Nothing
check 5 "" keys "$dir/missing.ini" Device
check 0 "Start=07:00${nl}Stop=19:00" show "$a" Schedule.Weekday
check 0 "Start='07:00'${nl}Stop='19:00'" show "$a" Schedule.Weekday --format sh
sh_out=$(run_tool show "$a" Hostile --format sh 2>"$err")
check_stderr "key 'a-b' left out: a_b is key 'a.b'"
# shellcheck disable=SC2154 # the variables come from the eval
if (cd "$dir" && eval "$sh_out" && [ "$cmd" = '$(touch X)' ] && [ "$tick" = '`touch X`' ] &&
    [ "$semi" = 'a; touch X' ] && [ "$quote" = "it's \"q\" \\ \$HOME" ] &&
    [ "$_9_lives_x" = 9 ] && [ "$a_b" = first ]) && [ ! -e "$dir/X" ]; then
    pass
else
    fail "show --format sh: $sh_out"
fi
check 64 "" show "$a" Hostile --format csv

# ------------------------------------------------------------ completion
if [ -n "$completion" ] && command -v bash >/dev/null 2>&1; then
    printf '#!/bin/sh\nexec %s "%s" "$@"\n' "${CFGFILE_EMULATOR:-}" "$tool" >"$dir/cfgfile"
    chmod +x "$dir/cfgfile"
    # completes WANT WORD...: completing the last WORD offers WANT.
    completes() {
        want=$1
        shift
        got=$(bash -c '. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _cfgfile
            echo "${COMPREPLY[*]}"' bash "$completion" "$dir/cfgfile" "$@" 2>&1)
        if [ "$got" = "$want" ]; then pass; else fail "completing '$*': '$got' (want '$want')"; fi
    }
    completes "keys" ke
    completes "set show sections" --lock s
    completes "--lock" --l
    completes "video-format video-resolution video-size" get "$a" Video Format --type v
    completes "lines sh" show "$a" Device --format = ""
    completes "Schedule.Weekday Schedule.Weekend" get "$a" Sch
    completes "Network New" set "$a" Device Name x N
    completes "" set "$a" Device N
    completes "-f --help" apply "$a" -
    completes "$a" keys "$dir/appl"
fi

# ---------------------------------------------------------- command line
check 64 "" get "$f" Device
check 64 "" get "$f" Device Name --frob
check 64 "" get "$f" Device Name --type text
check 64 "" frob "$f"
check 64 ""
check 64 "" -v loud get "$f" Device Name
# Help goes to stdout with status 0, whichever way it is asked for.
for ask in "--help" "help get" "get --help" "del-line -h" "help apply"; do
    status=0
    # shellcheck disable=SC2086 # split into words
    run_tool $ask >"$dir/help" || status=$?
    first=$(head -n 1 "$dir/help")
    case "$status $first" in
    "0 usage: cfgfile "*) pass ;;
    *) fail "$ask: status $status, '$first'" ;;
    esac
done
check 0 "EC-2200" -v 7 get "$f" Device Model
check_stderr "CFGFILELIB[7]"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
