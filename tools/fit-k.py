#!/usr/bin/env python3
"""Fits the K of sigmoid(score / K) to the game results of training records.

    tools/fit-k.py [--scale X] [--at K] DATA_FILE...

The trainer turns a search score into an expected result with sigmoid(score * X / K)
(`--score-scale X`, `--scale K`). When K is far from the one the games themselves show,
the result part of the target asks for evaluations of another size than the score part
does, and the two pull against each other. Prints the K (on the scores times X) that
fits the results best by squared error, the loss there and at `--at K`, and the K that
each band of 50 in score implies on its own.
"""
import argparse
import math
import struct


def read(paths):
    for path in paths:
        data = open(path, "rb").read()
        for i in range(0, len(data) - 31, 32):
            # i16 score at 24, result 0 / 1 / 2 for the side to move at 26
            yield struct.unpack_from("<h", data, i + 24)[0], data[i + 26] / 2


def loss(records, k):
    return sum((1 / (1 + math.exp(-s / k)) - r) ** 2 for s, r in records) / len(records)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--scale", type=float, default=1.0, help="score scale, as the trainer's")
    ap.add_argument("--at", type=float, default=204, help="K to compare with")
    ap.add_argument("files", nargs="+")
    a = ap.parse_args()
    records = [(s * a.scale, r) for s, r in read(a.files)]
    if not records:
        raise SystemExit("no records")
    # The loss is unimodal in K: golden-section search, one pass over the records a step.
    g = (math.sqrt(5) - 1) / 2
    lo, hi = 20.0, 1000.0
    m1, m2 = hi - g * (hi - lo), lo + g * (hi - lo)
    l1, l2 = loss(records, m1), loss(records, m2)
    while hi - lo > 0.5:
        if l1 < l2:
            hi, m2, l2 = m2, m1, l1
            m1 = hi - g * (hi - lo)
            l1 = loss(records, m1)
        else:
            lo, m1, l1 = m1, m2, l2
            m2 = lo + g * (hi - lo)
            l2 = loss(records, m2)
    best = (lo + hi) / 2
    print(f"{len(records)} records; best K {best:.0f} (loss {loss(records, best):.6f}),"
          f" at K {a.at:g} {loss(records, a.at):.6f}")
    bands = {}
    for s, r in records:
        b = bands.setdefault(round(s / 50), [0, 0.0])
        b[0] += 1
        b[1] += r
    for b in range(-7, 8):
        n, points = bands.get(b, (0, 0.0))
        if b == 0 or n < 100 or not 0 < points < n:
            continue
        p = points / n
        print(f"score {b * 50:+5d}: {n:7d} records, {p:.3f} of the points, K {b * 50 / math.log(p / (1 - p)):.0f}")


if __name__ == "__main__":
    main()
