#!/bin/sh
# End to end in a real X display: `ostrand FILE` levels the file into
# "FILE leveled.wav" beside it, in a window titled "Ostrand"; a second
# `ostrand OTHER` hands OTHER to the first and exits, and it is leveled in
# the same window.
# The finished row is read through the list's Copy (Ctrl+C) and the clipboard.
# usage: end_to_end.sh OSTRAND SPEECH_WAV. Exits 77 (skipped) without Xvfb,
# xdotool or xclip.
set -eu
ostrand=$1
speech=$2

if [ -z "${OSTRAND_E2E_DISPLAY:-}" ]; then
    for tool in xvfb-run xdotool xclip; do
        if ! command -v "$tool" >/dev/null; then
            echo "skipped: $tool is not installed"
            exit 77
        fi
    done
    exec xvfb-run -a -s "-screen 0 1024x768x24" env OSTRAND_E2E_DISPLAY=1 sh "$0" "$@"
fi

work=$(mktemp -d)
pid=
cleanup() {
    if [ -n "$pid" ]; then
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

# Settings, runtime folder and bus of its own: nothing of the user's is read.
mkdir -m 700 "$work/runtime"
export HOME="$work" XDG_CONFIG_HOME="$work/config" XDG_RUNTIME_DIR="$work/runtime"
unset DBUS_SESSION_BUS_ADDRESS
export QT_QPA_PLATFORM=xcb
cp "$speech" "$work/talk.wav"
cp "$speech" "$work/other take.wav"

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

duration() {
    ffprobe -v error -show_entries format=duration -of csv=p=0 "$1" 2>/dev/null || true
}

# wait_for FILE: until it holds as much audio as the source, up to two minutes.
wait_for() {
    tries=0
    while [ ! -s "$1" ] || [ "$(duration "$1")" != "$(duration "$speech")" ]; do
        tries=$((tries + 1))
        [ $tries -le 1200 ] || fail "no $1 after two minutes"
        kill -0 "$pid" 2>/dev/null || fail "ostrand ended before writing $1"
        sleep 0.1
    done
}

"$ostrand" "$work/talk.wav" &
pid=$!
wait_for "$work/talk leveled.wav"
echo "leveled: talk leveled.wav"

windows=$(xdotool search --sync --onlyvisible --name '^Ostrand$')
[ "$(echo "$windows" | wc -l)" -eq 1 ] || fail "expected one window, found: $windows"
[ "$(xdotool getwindowname "$windows")" = "Ostrand" ] || fail "window title"
echo "window: Ostrand"

# Tab into the list, select the first row and copy it, until the row reads
# the finished report.
row=
tries=0
xdotool windowfocus --sync "$windows"
until echo "$row" | grep -q "^talk.wav: -[0-9.]* → -[0-9.]* LUFS · 17s leveled in [0-9]*s$"; do
    tries=$((tries + 1))
    [ $tries -le 50 ] || fail "the row does not read the finished report: $row"
    xdotool key Tab Home ctrl+c
    sleep 0.2
    row=$(xclip -o -selection clipboard 2>/dev/null || true)
done
echo "row: $row"
echo "$row" | grep -q "^  gain [-+][0-9.]* to [-+][0-9.]* dB · limiter [0-9.]* dB · talk leveled.wav$" ||
    fail "the row's detail line: $row"

timeout 20 "$ostrand" "$work/other take.wav" || fail "the second ostrand did not hand over and exit"
wait_for "$work/other take leveled.wav"
echo "leveled by the first instance: other take leveled.wav"
kill -0 "$pid" || fail "the first instance has gone"
windows=$(xdotool search --onlyvisible --name '^Ostrand$')
[ "$(echo "$windows" | wc -l)" -eq 1 ] || fail "expected still one window, found: $windows"
echo "PASS"
