#!/usr/bin/env bash
# Plays one short game of Vestra against itself in a real GUI, xboard, which talks to
# the engine through the polyglot adapter, on a virtual X display; saves the PGN and
# screenshots (PNG) of the board during and at the end of the game.
#   tools/gui-game.sh [ENGINE] [RESULTS_DIR]
# ENGINE defaults to build/vestra, RESULTS_DIR to tools/work/gui-<time>. TC (default
# 0:30, minutes:seconds) and INC (default 1, whole seconds) set the clock. Installs xboard,
# polyglot, xvfb, x11-apps and imagemagick with apt-get when they are missing.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
engine=$(realpath "${1:-$root/build/vestra}")
. "$root/tools/work-dir.sh"
out=${2:-$work/gui-$(date +%Y%m%d-%H%M%S)}
tc=${TC:-0:30}
inc=${INC:-1}
mkdir -p "$out"
out=$(cd "$out" && pwd)
[ -x "$engine" ] || { echo "gui-game: no engine at $engine" >&2; exit 2; }

need=
command -v xboard >/dev/null 2>&1 || [ -x /usr/games/xboard ] || need="$need xboard"
command -v polyglot >/dev/null 2>&1 || [ -x /usr/games/polyglot ] || need="$need polyglot"
command -v Xvfb >/dev/null 2>&1 || need="$need xvfb"
command -v xwd >/dev/null 2>&1 || need="$need x11-apps"
[ -x /usr/bin/convert ] || need="$need imagemagick"
if [ -n "$need" ]; then
    SUDO=
    [ "$(id -u)" = 0 ] || SUDO="sudo -n"
    export DEBIAN_FRONTEND=noninteractive
    $SUDO apt-get update -qq
    $SUDO apt-get install -y -qq --no-install-recommends $need xfonts-base >/dev/null
fi
export PATH=$PATH:/usr/games

# A display number nobody uses.
n=90
while [ -e /tmp/.X11-unix/X$n ] || [ -e /tmp/.X$n-lock ]; do n=$((n + 1)); done
Xvfb :$n -screen 0 1024x768x24 -nolisten tcp >"$out/xvfb.log" 2>&1 &
xvfb=$!
gui=
cleanup() {
    [ -n "$gui" ] && kill "$gui" 2>/dev/null
    kill "$xvfb" 2>/dev/null
    true
}
trap cleanup EXIT
for _ in $(seq 50); do [ -e /tmp/.X11-unix/X$n ] && break; sleep 0.1; done
export DISPLAY=:$n

# The screen, trimmed to the window. A shot is kept only while xboard still runs: the
# last one of a finished game would show an empty screen.
shot() {
    xwd -root -silent | /usr/bin/convert xwd:- -trim +repage "png:$1.tmp" 2>/dev/null || return 1
    if kill -0 "$gui" 2>/dev/null && [ "$(stat -c %s "$1.tmp")" -gt 10000 ]; then mv "$1.tmp" "$1"; else rm -f "$1.tmp"; fi
}

# Match mode (one game) ends xboard by itself; polyglot is xboard's adapter for UCI
# engines (-fUCI/-sUCI). Its working files (polyglot logs, settings) stay in $out.
cd "$out"
xboard -fcp "$engine" -fd "$out" -fUCI -scp "$engine" -sd "$out" -sUCI \
    -matchGames 1 -timeControl "$tc" -timeIncrement "$inc" \
    -saveGameFile "$out/game.pgn" -autoCallFlag true -popupExitMessage false \
    -settingsFile "$out/xboard.settings" -saveSettingsOnExit false \
    >"$out/xboard.log" 2>&1 &
gui=$!

start=$(date +%s)
mid=
while kill -0 "$gui" 2>/dev/null; do
    sleep 1
    shot "$out/board.png" || true
    if [ -z "$mid" ] && [ -f "$out/board.png" ] && [ $(( $(date +%s) - start )) -ge 20 ]; then
        cp "$out/board.png" "$out/board-midgame.png"
        mid=1
    fi
    if [ $(( $(date +%s) - start )) -gt 900 ]; then echo "gui-game: no end after 15 minutes" >&2; exit 1; fi
done
wait "$gui" || true
gui=
[ -s "$out/game.pgn" ] || { echo "gui-game: xboard saved no game; see $out/xboard.log" >&2; exit 1; }
echo "PGN: $out/game.pgn"
grep -E '^\[(Result|Termination|PlyCount)' "$out/game.pgn" || true
tail -n 3 "$out/game.pgn"
echo "screenshots: $out/board-midgame.png (after 20 s), $out/board.png (the last before xboard closed)"
