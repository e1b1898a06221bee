#!/usr/bin/env bash
# Checks the Windows build under wine against the Linux build (minutes; not part of
# the default test suite):
#   1. the `uci` reply is the Linux one;
#   2. `vestra.exe pgo` prints the Linux node total;
#   3. vestra-perft.exe counts the reference positions right;
#   4. Windows paths work: SyzygyPath with drive letters and `;`, a BookFile with
#      blanks; a missing book or table directory is ignored, an over-long path refused;
#      each session must answer as the Linux build does with the same files; and
#      LargePages does not keep the search from running;
#   5. a short fastchess match, Windows against Linux, in which every game ends normally.
#
#   tools/check-windows.sh [LINUX_BUILD_DIR] [WINDOWS_BUILD_DIR]
# Environment: GAMES (default 10; 0 plays no match), TC (default 2+0.05), WINEPREFIX (default a fresh one
# under /tmp), FASTCHESS (default ../shared/tools/fastchess), KEEP_WORK (keep the
# sessions, the match's PGN and log in the /tmp directory named at the end).
# Installs wine when missing.
# Missing builds are made: the Linux one with cmake, the Windows one by build-windows.sh.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
lin=$(cd "${1:-build}" 2>/dev/null && pwd || echo "$root/${1:-build}")
win=$(cd "${2:-build-windows}" 2>/dev/null && pwd || echo "$root/${2:-build-windows}")
games=${GAMES:-10}
tc=${TC:-2+0.05}
fastchess=${FASTCHESS:-$root/../shared/tools/fastchess}
export WINEPREFIX=${WINEPREFIX:-/tmp/vestra-wine-$(id -u)}
export WINEDEBUG=-all
work=$(mktemp -d /tmp/vestra-check-windows.XXXXXX)
[ -n "${KEEP_WORK:-}" ] || trap 'rm -rf "$work"' EXIT
failures=0
pass() { echo "ok   $*"; }
fail() { echo "FAIL $*"; failures=$((failures + 1)); }

if ! command -v wine >/dev/null 2>&1; then
    SUDO=
    [ "$(id -u)" = 0 ] || SUDO="sudo -n"
    export DEBIAN_FRONTEND=noninteractive
    $SUDO apt-get update -qq && $SUDO apt-get install -y -qq --no-install-recommends wine wine64 >/dev/null
fi
if [ ! -x "$lin/vestra" ] || [ ! -x "$lin/tools/vestra-perft" ] || [ ! -x "$lin/tools/vestra-book" ]; then
    cmake -B "$lin" -DCMAKE_BUILD_TYPE=Release >/dev/null &&
        cmake --build "$lin" -j"$(nproc)" --target vestra vestra-perft vestra-book >/dev/null || exit 1
fi
if [ ! -f "$win/vestra.exe" ] || [ ! -f "$win/tools/vestra-perft.exe" ]; then
    tools/build-windows.sh "$win" >/dev/null || exit 1
fi
[ -d "$WINEPREFIX" ] || wine wineboot -i >/dev/null 2>&1

# Z: is the Linux root under wine; Windows paths use backslashes.
winpath() { local p=${1//\//\\}; echo "Z:$p"; }
# Figures that differ from run to run (times, speeds) are left out of comparisons.
steady() { sed -E 's/ time [0-9]+ / /; s/ nps [0-9]+ / /'; }

# 1. uci
printf 'uci\nquit\n' | "$lin/vestra" > "$work/uci.lin"
# Byte for byte: a carriage return would end up in the last word of a line.
printf 'uci\nquit\n' | wine "$win/vestra.exe" > "$work/uci.win"
if [ -s "$work/uci.lin" ] && cmp -s "$work/uci.lin" "$work/uci.win"; then pass "uci reply equal"
else fail "uci reply differs"; diff "$work/uci.lin" "$work/uci.win" | head; fi

# 2. pgo
pgo_lin=$("$lin/vestra" pgo | tail -n 1)
pgo_win=$(wine "$win/vestra.exe" pgo | tail -n 1)
if [ -n "$pgo_lin" ] && [ "$pgo_lin" = "$pgo_win" ]; then pass "pgo: $pgo_win"
else fail "pgo: Linux '$pgo_lin', Windows '$pgo_win'"; fi

# 3. perft
for set in classic std 960; do
    flag=; [ $set = 960 ] && flag=--960
    out=$(wine "$win/tools/vestra-perft.exe" $flag --epd "$(winpath "$root/tests/data/perft_$set.epd")" \
          --max-nodes 20000000 | tr -d '\r')
    rc=$?
    summary=$(echo "$out" | grep '^positions')
    if [ $rc = 0 ] && echo "$summary" | grep -q 'failures 0'; then pass "perft $set: ${summary% seconds*}"
    else fail "perft $set: status $rc, $summary"; fi
done

# 4. paths. Each session runs on both builds, with Linux and Windows spellings.
session() {  # name, then the script with @TB@, @MISSING@, @BOOK@, @LONG@ placeholders
    local name=$1 script=$2 ok=1
    local long_dir; long_dir="$work/$(printf 'x%.0s' $(seq 300))"
    local book_dir="$work/book dir with blanks"
    for side in lin win; do
        local tb=$root/tests/data/syzygy5 missing=$work/no/such\ dir book="$book_dir/own book.bin" long=$long_dir
        local engine=("$lin/vestra")
        if [ $side = win ]; then
            tb=$(winpath "$tb"); missing=$(winpath "$missing"); book=$(winpath "$book"); long=$(winpath "$long")
            engine=(wine "$win/vestra.exe")
        fi
        local text=${script//@TB@/$tb}
        text=${text//@MISSING@/$missing}
        text=${text//@BOOK@/$book}
        text=${text//@LONG@/$long}
        printf '%s\n' "$text" > "$work/$name.$side.in"
        if ! python3 tools/uci-session.py --timeout 120 "$work/$name.$side.in" "${engine[@]}" \
                | grep -v '^option\|^id ' | steady > "$work/$name.$side"; then
            fail "$name: the $side engine failed"; ok=0
        fi
    done
    if ! cmp -s "$work/$name.lin" "$work/$name.win"; then
        fail "$name: answers differ"; diff "$work/$name.lin" "$work/$name.win" | head; ok=0
    fi
    [ $ok = 1 ]
}

if session tables "setoption name SyzygyPath value @MISSING@;@TB@
position fen 8/8/3k4/K2R2Q1/8/8/8/8 b - - 0 1
go depth 8
position fen 2B5/8/2R5/8/7k/8/4K3/8 w - - 0 1
go depth 8"; then
    found=$(grep '^info string' "$work/tables.win")
    if grep -q 'tbhits [1-9]' "$work/tables.win" && [ -n "$found" ]; then
        pass "SyzygyPath with a drive letter and ';': ${found#info string }"
    else fail "SyzygyPath: no table files found or probed"; fi
fi

# A book of our own, made from three short games, so the check needs no other package.
mkdir -p "$work/book dir with blanks"
cat > "$work/games.pgn" <<'PGN'
[Result "1-0"]

1. e4 c5 2. Nf3 d6 1-0

[Result "0-1"]

1. e4 c5 2. Nf3 Nc6 0-1

[Result "1/2-1/2"]

1. d4 d5 2. c4 e6 1/2-1/2
PGN
if "$lin/tools/vestra-book" make "$work/games.pgn" "$work/book dir with blanks/own book.bin" \
        --max-ply 4 --min-games 1 >/dev/null; then
    if session book "setoption name OwnBook value true
setoption name BookFile value @BOOK@
position startpos
go depth 6
position startpos moves e2e4
go depth 6"; then
        # A book move comes without any search report.
        if [ "$(grep -c '^bestmove' "$work/book.win")" = 2 ] && ! grep -q '^info' "$work/book.win"; then
            pass "BookFile with blanks: $(grep '^bestmove' "$work/book.win" | cut -d' ' -f2 | tr '\n' ' ')"
        else fail "BookFile with blanks: the book was not used"; fi
    fi
else
    fail "BookFile with blanks: vestra-book could not make the test book"
fi

if session missing "setoption name OwnBook value true
setoption name BookFile value @MISSING@/book.bin
setoption name SyzygyPath value @MISSING@;@LONG@
position fen 8/8/3k4/K2R2Q1/8/8/8/8 b - - 0 1
go depth 6
setoption name BookFile value @LONG@/@LONG@/book.bin
setoption name SyzygyPath value @LONG@/@LONG@;@TB@
position startpos
go depth 6"; then
    if [ "$(grep -c '^bestmove' "$work/missing.win")" = 2 ] && grep -q 'Found [1-9]' "$work/missing.win"; then
        pass "missing book and table directories ignored, over-long paths refused"
    else fail "missing or over-long paths: unexpected answers"; cat "$work/missing.win"; fi
fi

# Large pages: granted only with the right to lock memory (never under wine); either
# way the search must run.
printf 'setoption name LargePages value true\nsetoption name Hash value 64\nposition startpos\ngo depth 8\n' \
    > "$work/large.in"
if python3 tools/uci-session.py --timeout 120 "$work/large.in" wine "$win/vestra.exe" > "$work/large.win" &&
   grep -q '^bestmove [a-h]' "$work/large.win"; then
    granted=no; grep -q '^Allocated large pages' "$work/large.win" && granted=yes
    pass "LargePages: search runs (large pages granted: $granted)"
else fail "LargePages: no answer"; fi

# 5. A short match, Windows against Linux.
if [ "$games" -gt 0 ] && [ -x "$fastchess" ]; then
    (cd "$work" && "$fastchess" \
        -engine cmd=wine "args=$win/vestra.exe" name=vestra-windows \
        -engine "cmd=$lin/vestra" name=vestra-linux \
        -each tc="$tc" proto=uci option.Hash=16 \
        -rounds $(( (games + 1) / 2 )) -games 2 -repeat -recover \
        -openings file="$root/tests/data/openings.epd" format=epd order=random \
        -pgnout file="$work/match.pgn" > "$work/match.log" 2>&1)
    played=$(grep -c '^\[Result ' "$work/match.pgn" 2>/dev/null || true)
    bad=$(grep -ciE 'Termination "(time forfeit|illegal move|abandoned|stalled|unterminated)' "$work/match.pgn" 2>/dev/null || true)
    result=$(grep -E '^Results of|^Games' "$work/match.log" | tail -n 2 | tr '\n' ' ')
    if [ "${played:-0}" -ge "$games" ] && [ "${bad:-0}" = 0 ] &&
       ! grep -qiE 'loses on time|illegal|disconnect|crash' "$work/match.log"; then
        pass "match at $tc: $result"
    else
        fail "match: $played games, $bad ended abnormally: $result"
        grep -iE 'loses on time|illegal|disconnect|crash|warn' "$work/match.log" | head
    fi
elif [ "$games" -gt 0 ]; then
    echo "skip match: no fastchess at $fastchess"
fi

[ -n "${KEEP_WORK:-}" ] && echo "sessions, PGN and log kept in $work"
echo "$failures failure(s)"
[ $failures = 0 ]
