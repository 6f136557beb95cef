#!/usr/bin/python3
"""Writes a seeded LED display table: 7 segment attributes each flipped with
probability 0.1, 17 irrelevant random binary attributes, 10 digit classes.

usage: led24.py ROWS STEM [SEED]  ->  STEM.names, STEM.data, STEM.test (ROWS/10)
Output goes wherever STEM points (keep it out of the repository)."""
import random
import sys

SEGMENTS = ["1110111", "0010010", "1011101", "1011011", "0111010",
            "1101011", "1101111", "1010010", "1111111", "1111011"]


def rows(n, rng, out):
    for _ in range(n):
        d = rng.randrange(10)
        seg = [int(b) ^ (rng.random() < 0.1) for b in SEGMENTS[d]]
        noise = [rng.randrange(2) for _ in range(17)]
        out.write(",".join(map(str, seg + noise)) + ",%d\n" % d)


def main():
    n, stem = int(sys.argv[1]), sys.argv[2]
    rng = random.Random(int(sys.argv[3]) if len(sys.argv) > 3 else 24)
    with open(stem + ".names", "w") as f:
        for i in range(1, 25):
            f.write("a%d,integer,discrete\n" % i)
        f.write("digit,integer,class\n")
    with open(stem + ".data", "w") as f:
        rows(n, rng, f)
    with open(stem + ".test", "w") as f:
        rows(max(1, n // 10), rng, f)


if __name__ == "__main__":
    main()
