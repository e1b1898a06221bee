#!/usr/bin/env python3
"""Scores one engine's games in fastchess PGN files (plain or .gz), per opponent.

    tools/match-score.py [--engine NAME] [--sprt ELO0 ELO1 [--normalized] [--decided]] FILE.pgn[.gz]...

Several files add up, so a long match can be played in pieces (one PGN each, e.g. across
sessions) and scored as one. NAME is the engine's PGN name (e.g. vestra-0); by default
the gauntlet's first engine (tools/match.sh names it ...-0). Prints wins, losses, draws, the score, the Elo
difference with its 95% interval from the per-game score variance, and the games that
did not end by the rules of chess (time forfeits, disconnects, illegal moves), which are
counted in the score as fastchess scored them. With --sprt, also the log-likelihood ratio
of a sequential test of ELO1 against ELO0 (logistic Elo, normal approximation over
single games, alpha = beta = 0.05: accept at 2.94, reject at -2.94), so that an SPRT
played in several runs, or continued past its cap, can be judged as one.

The two games of an opening (same file, round and starting position) also make a pair,
scored 0, 0.5, 1, 1.5 or 2: the pentanomial counts, the Elo interval and the LLR from the
pairs' variance, which counts what the two colours of one opening share (it matters most
with unbalanced openings, where the two games of a pair often split), and the normalized
Elo: the mean score's distance from one half in standard deviations of a game, times
800 / ln 10, which compares results across opening sets and time controls. With
--normalized the SPRT's bounds are normalized Elo. With --decided the exit status says
whether the pairs' LLR has reached a bound (0) or not (1), so that a script can stop a
piece of a match as soon as all pieces together have decided.
"""
import argparse
import collections
import gzip
import math
import re
import sys

TAG = re.compile(r'^\[(\w+) "(.*)"\]\s*$')


def games(path):
    """Yields each game's tags; a game starts at its Event tag."""
    opener = gzip.open if path.endswith(".gz") else open
    tags = {}
    with opener(path, "rt", encoding="utf-8", errors="replace") as f:
        for line in f:
            m = TAG.match(line)
            if not m:
                continue
            if m.group(1) == "Event" and tags:
                yield tags
                tags = {}
            tags[m.group(1)] = m.group(2)
    if tags:
        yield tags


def elo(score):
    if score <= 0 or score >= 1:
        return math.copysign(math.inf, score - 0.5)
    return -400.0 * math.log10(1.0 / score - 1.0)


def moments(w, l, d):
    """Games, mean score and the per-game score variance."""
    n = w + l + d
    s = (w + 0.5 * d) / n
    return n, s, (w * (1 - s) ** 2 + d * (0.5 - s) ** 2 + l * s ** 2) / n


def summary(w, l, d):
    n, s, var = moments(w, l, d)
    se = math.sqrt(var / n)
    lo, hi = elo(max(s - 1.96 * se, 0)), elo(min(s + 1.96 * se, 1))
    los = 0.5 * (1 + math.erf((w - l) / math.sqrt(2 * (w + l)))) if w + l else 0.5
    return (f"{n} games: +{w} ={d} -{l}, {100 * s:.1f}%, Elo {elo(s):+.1f} "
            f"+- {(hi - lo) / 2:.1f} (95%: {lo:+.1f} to {hi:+.1f}), LOS {100 * los:.1f}%")


def llr(w, l, d, elo0, elo1):
    """Log-likelihood ratio of Elo elo1 against elo0 given the games' scores, with the
    score treated as normal with the sample's variance. Single games, not pairs: where
    the two games of an opening are correlated it differs from fastchess's own figure."""
    n, m, var = moments(w, l, d)
    if var <= 0:
        return 0.0
    s0, s1 = (1 / (1 + 10 ** (-e / 400)) for e in (elo0, elo1))
    return n * (s1 - s0) * (2 * m - s0 - s1) / (2 * var)


def pair_summary(pairs, sprt, normalized):
    """Pentanomial counts and the pair-based figures of a list of pair scores (0..2),
    and the pairs' LLR (None without an SPRT or a spread of scores)."""
    n = len(pairs)
    penta = [sum(1 for p in pairs if p == k / 2) for k in range(5)]
    mu = sum(pairs) / (2 * n)
    var = sum((p / 2 - mu) ** 2 for p in pairs) / n  # of a pair's mean score
    se = math.sqrt(var / n)
    lo, hi = elo(max(mu - 1.96 * se, 0)), elo(min(mu + 1.96 * se, 1))
    text = f"{n} pairs, pentanomial {' '.join(map(str, penta))}: Elo {elo(mu):+.1f} +- {(hi - lo) / 2:.1f}"
    if var <= 0:
        return text, None
    unit = math.sqrt(2 * var) * math.log(10) / 800  # score per normalized Elo
    text += f", normalized Elo {(mu - 0.5) / unit:+.1f} +- {1.96 * se / unit:.1f}"
    if sprt:
        if normalized:
            s0, s1 = (0.5 + e * unit for e in sprt)
        else:
            s0, s1 = (1 / (1 + 10 ** (-e / 400)) for e in sprt)
        llr = n * (s1 - s0) * (2 * mu - s0 - s1) / (2 * var)
        kind = "normalized " if normalized else ""
        text += f"\n    LLR {llr:+.2f} over pairs for {kind}Elo {sprt[1]:g} against {sprt[0]:g} (bounds +-2.94)"
        return text, llr
    return text, None


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--engine")
    ap.add_argument("--sprt", nargs=2, type=float, metavar=("ELO0", "ELO1"))
    ap.add_argument("--normalized", action="store_true")
    ap.add_argument("--decided", action="store_true")
    ap.add_argument("files", nargs="+")
    a = ap.parse_args()
    all_games = [dict(g, File=str(i)) for i, p in enumerate(a.files) for g in games(p)]
    if not all_games:
        sys.exit("no games")
    counts = collections.Counter(n for g in all_games for n in (g.get("White"), g.get("Black")) if n)
    firsts = [n for n in counts if n.endswith("-0")]  # the gauntlet's first engine
    name = a.engine or (firsts[0] if firsts else counts.most_common(1)[0][0])
    per = collections.defaultdict(lambda: [0, 0, 0, collections.Counter()])
    openings = collections.defaultdict(list)  # (opponent, file, round, FEN) -> scores
    for g in all_games:
        if name not in (g.get("White"), g.get("Black")):
            continue
        white = g["White"] == name
        opp = g["Black"] if white else g["White"]
        r = g["Result"]
        if r == "1/2-1/2":
            per[opp][2] += 1
            score = 0.5
        elif r in ("1-0", "0-1"):
            won = (r == "1-0") == white
            per[opp][0 if won else 1] += 1
            score = 1.0 if won else 0.0
        else:
            continue  # unfinished
        openings[(opp, g["File"], g.get("Round"), g.get("FEN"))].append(score)
        term = g.get("Termination", "normal")
        if term != "normal":
            loser = g["Black"] if r == "1-0" else g["White"] if r == "0-1" else "-"
            per[opp][3][f"{term} (lost by {loser})"] += 1
    decided = False
    for opp, (w, l, d, odd) in sorted(per.items()):
        print(f"{name} vs {opp}: {summary(w, l, d)}")
        if a.sprt and w + l + d and not a.normalized:
            print(f"    LLR {llr(w, l, d, *a.sprt):+.2f} for Elo {a.sprt[1]:g} against {a.sprt[0]:g} (bounds +-2.94)")
        pairs = [sum(v) for (o, *_), v in openings.items() if o == opp and len(v) == 2]
        if pairs:
            text, pair_llr = pair_summary(pairs, a.sprt, a.normalized)
            print("    " + text)
            decided |= pair_llr is not None and abs(pair_llr) >= 2.94
        for what, k in sorted(odd.items()):
            print(f"    {k} x {what}")
    if a.decided:
        sys.exit(0 if decided else 1)


if __name__ == "__main__":
    main()
