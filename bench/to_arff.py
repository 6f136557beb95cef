#!/usr/bin/env python3
"""Converts a Brix dataset (.names and comma-separated data files) to ARFF files.

Usage: to_arff.py NAMES DATA OUT.arff [TEST OUT_TEST.arff]

One @attribute per column in order: `numeric` for continuous columns, a nominal set for
discrete and class columns holding every value of the training and test data; ignore and
weights columns are left out. `?` stays a missing value. Data files may be gzip-compressed.
"""
import gzip
import re
import sys

PLAIN = re.compile(r"^[A-Za-z0-9_.+-]+$")


def quote(value):
    if PLAIN.match(value):
        return value
    return "'" + value.replace("\\", "\\\\").replace("'", "\\'") + "'"


def rows(path):
    with (gzip.open if path.endswith(".gz") else open)(path, "rt") as f:
        for line in f:
            line = line.rstrip("\r\n")
            if line.endswith(","):  # a separator ending a line opens no field
                line = line[:-1]
            if line:
                yield line.split(",")


def main(argv):
    if len(argv) not in (4, 6):
        sys.exit(__doc__.strip().splitlines()[2])
    columns = [line.rstrip("\r\n").split(",") for line in open(argv[1]) if line.strip()]
    kinds = [c[2] for c in columns]
    kept = [i for i, k in enumerate(kinds) if k in ("discrete", "continuous", "class")]
    nominal = [i for i in kept if kinds[i] != "continuous"]
    pairs = [(argv[2], argv[3])] + ([(argv[4], argv[5])] if len(argv) == 6 else [])

    values = {i: set() for i in nominal}
    for data, _ in pairs:
        for row in rows(data):
            for i in nominal:
                if row[i] != "?":
                    values[i].add(row[i])

    header = ["@relation " + quote(argv[1].rsplit("/", 1)[-1][: -len(".names")]), ""]
    for i in kept:
        kind = "numeric" if i not in values else "{" + ",".join(map(quote, sorted(values[i]))) + "}"
        header.append("@attribute %s %s" % (quote(columns[i][0]), kind))
    header += ["", "@data"]
    for data, out in pairs:
        with open(out, "w") as f:
            f.write("\n".join(header) + "\n")
            for row in rows(data):
                f.write(",".join(row[i] if row[i] == "?" or i not in values else quote(row[i])
                                 for i in kept) + "\n")


if __name__ == "__main__":
    main(sys.argv)
