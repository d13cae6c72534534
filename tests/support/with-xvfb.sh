#!/usr/bin/env bash
# Runs a command on an X server of its own, chosen free by Xvfb (-displayfd). -noreset: a reset
# when autovideosink's probes leave made the chosen sink fail ("Could not open display").
#   with-xvfb.sh [-a] [-s "SERVER ARGS"] COMMAND [ARG...]     (-a is taken and ignored)
set -uo pipefail
server_args="-screen 0 1280x1024x24"
while [ $# -gt 0 ]; do
    case $1 in
    -a) shift ;;
    -s) server_args=$2; shift 2 ;;
    *) break ;;
    esac
done
[ $# -gt 0 ] || { echo "usage: with-xvfb.sh [-s ARGS] COMMAND [ARG...]" >&2; exit 2; }
command -v Xvfb >/dev/null || { echo "with-xvfb.sh: Xvfb is not installed" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/with-xvfb.XXXXXX")
server=
cleanup() {
    [ -n "$server" ] && kill "$server" 2>/dev/null && wait "$server" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# No cookie: the display is this run's alone, and only local clients reach it.
unset XAUTHORITY
mkfifo "$work/display"
# shellcheck disable=SC2086 # the server's arguments are words
Xvfb -displayfd 3 -nolisten tcp -noreset $server_args 3>"$work/display" 2>"$work/server.log" &
server=$!
display=
if ! read -r -t 30 display <"$work/display" || [ -z "$display" ]; then
    echo "with-xvfb.sh: Xvfb did not start:" >&2
    cat "$work/server.log" >&2
    exit 1
fi
export DISPLAY=:$display
"$@"
