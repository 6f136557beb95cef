"""brix.TreeClassifier on DataFrames beside brixcmd on the same rows written as a .names/.data
stem: fit on letter, on a seeded frame of 100,000 rows (25 category, 25 object and 10 numeric
columns) and on agrawal F2 1M; predict_proba on 100,000 rows; the peak memory of the F2 1M fit.
Times are medians of 3 (Python in process, brixcmd wall). Prints a results section in Markdown.
Usage: PYTHONPATH=build/python /usr/bin/python3 bench/python_frames.py ROOT BRIXCMD F2_1M_STEM
(with --peak after them: only the fit's memory, as "before peak reset" in KiB)"""
import os
import statistics
import subprocess
import sys
import time

import numpy as np
import pandas as pd

import brix

root, brixcmd, f2_1m = sys.argv[1:4]
data = os.path.join(root, "..", "shared", "data")
work = os.path.join(root, "bench", "work")
os.makedirs(work, exist_ok=True)


def frame(stem, path=None):
    """A stem's rows as a DataFrame: discrete columns as category, integers as int64, floats
    float64."""
    names = [line.strip().split(",") for line in open(stem + ".names") if line.strip()]
    if path is None:
        path = stem + ".data" if os.path.exists(stem + ".data") else stem + ".data.gz"
    dtypes = {n: (str if k in ("discrete", "class") else float) for n, _, k in
              (x[:3] for x in names)}
    df = pd.read_csv(path, header=None, names=[n[0] for n in names], dtype=dtypes,
                     na_values=["?"], keep_default_na=False)
    for name, typ, kind in (n[:3] for n in names):
        if kind == "discrete":
            df[name] = df[name].astype("category")
        elif typ == "integer" and not df[name].isna().any():
            df[name] = df[name].astype(np.int64)
    cls = next(n[0] for n in names if n[2] == "class")
    return df.drop(columns=cls), df[cls]


def median_of_3(call):
    times = []
    for _ in range(3):
        t0 = time.perf_counter()
        call()
        times.append(time.perf_counter() - t0)
    return statistics.median(times)


def run(*args):
    subprocess.run([brixcmd, *args], check=True, stdout=subprocess.DEVNULL)


def synthetic(n=100_000, seed=20261125):
    rng = np.random.default_rng(seed)
    cols = {}
    for j in range(50):
        levels = np.array([f"v{k}" for k in range(2 + j % 23)], dtype=object)
        v = levels[rng.integers(0, len(levels), n)]
        v[rng.random(n) < 0.01] = None
        cols[f"c{j}"] = pd.Series(v, dtype="category" if j < 25 else object)
    for j in range(10):
        x = rng.normal(0, 10, n).round(3)
        x[rng.random(n) < 0.01] = np.nan
        cols[f"n{j}"] = x
    X = pd.DataFrame(cols)
    score = (X["n0"].fillna(0) + 5 * (X["c3"] == "v1") - 4 * (X["c30"] == "v2")
             + rng.normal(0, 3, n))
    y = pd.Series(np.where(score > 2, "yes", np.where(score < -3, "no", "maybe")), name="class")
    return X, y


def write_stem(X, y, stem):
    with open(stem + ".names", "w") as f:
        for c in X.columns:
            f.write(f"{c},float,continuous\n" if X[c].dtype.kind == "f" else
                    f"{c},string,discrete\n")
        f.write("class,string,class\n")
    pd.concat([X, y], axis=1).to_csv(stem + ".data", header=False, index=False, na_rep="?")


def row(what, py, cmd, how, target):
    return (f"| {what} | {py:.3f} | {cmd:.3f} ({how}) | {py / cmd:.2f} | <= {target} "
            f"{'met' if py / cmd <= target else 'NOT met'} |")


def fit_row(what, X, y, stem, target):
    py = median_of_3(lambda: brix.TreeClassifier().fit(X, y))
    cmd = median_of_3(lambda: run("-f", stem))
    return row(f"`fit`, {what}", py, cmd, "`brixcmd -f`", target)


def peak_rss_kib(args):
    """The peak resident set of a child process, in KiB."""
    code = ("import resource, subprocess, sys; subprocess.run(sys.argv[1:], check=True, "
            "stdout=subprocess.DEVNULL); "
            "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)")
    return int(subprocess.run([sys.executable, "-c", code, *args], check=True,
                              capture_output=True, text=True).stdout)


def status_kib(field):
    for line in open("/proc/self/status"):
        if line.startswith(field + ":"):
            return int(line.split()[1])
    return 0


if sys.argv[4:] == ["--peak"]:
    X, y = frame(f2_1m)
    before = status_kib("VmRSS")
    try:
        with open("/proc/self/clear_refs", "w") as f:
            f.write("5")  # the peak becomes the current resident set
        reset = 1
    except OSError:
        reset = 0
    brix.TreeClassifier().fit(X, y)
    print(before, status_kib("VmHWM"), reset)
    sys.exit(0)

rows = ["| Measure | brix.TreeClassifier (s) | brixcmd (s) | ratio | target |",
        "|---|---|---|---|---|"]

letter = os.path.join(data, "mlb_letter")
X, y = frame(letter)
rows.append(fit_row("mlb_letter (16 int64 columns, 20,000 rows)", X, y, letter, 1.5))

X, y = synthetic()
stem = os.path.join(work, "frames_100k")
write_stem(X, y, stem)
same = brix.TreeClassifier().fit(X, y).export_text() == subprocess.run(
    [brixcmd, "-f", stem, "-tstd"], check=True, capture_output=True,
    text=True).stdout.split("Decision Tree\n\n", 1)[1]
rows.append(fit_row("100,000 rows: 25 category, 25 object, 10 float64 columns"
                    f" (same tree: {'yes' if same else 'NO'})", X, y, stem, 1.5))

X, y = frame(f2_1m)
rows.append(fit_row("agrawal F2 1M", X, y, f2_1m, 1.3))

# Peak memory, in a fresh interpreter: the resident set with the frame loaded, then the peak
# during fit (the peak reset first, so that reading the file does not count).
before, peak, reset = (int(x) for x in subprocess.run(
    [sys.executable, os.path.abspath(__file__), root, brixcmd, f2_1m, "--peak"], check=True,
    capture_output=True, text=True).stdout.split())
cmd_peak = peak_rss_kib([brixcmd, "-f", f2_1m])

f2 = os.path.join(data, "syn_agrawal_f2_100k")
X, y = frame(f2)
clf = brix.TreeClassifier().fit(X, y)
model = os.path.join(work, "frames_f2_100k.tree")
clf.save(model)
Xt, _ = frame(f2, f2 + ".test")
py = median_of_3(lambda: clf.predict_proba(Xt))
cmd = median_of_3(lambda: run("-bt", model, "-fs", f2 + ".test", "-s",
                              os.path.join(work, "frames_scores")))
rows.append(row(f"`predict_proba`, {len(Xt):,} rows of agrawal F2", py, cmd,
               "`brixcmd -bt ... -fs`", 2))

print("\n".join(rows))
print()
print(f"Peak memory of the F2 1M fit: {peak - before:,} KiB over the {before:,} KiB resident "
      f"before it (interpreter, imports, frame); brixcmd -f peaks at {cmd_peak:,} KiB. Target: "
      f"growth <= 1.5 x brixcmd's peak ({1.5 * cmd_peak:,.0f} KiB): "
      f"{'met' if peak - before <= 1.5 * cmd_peak else 'NOT met'}"
      f"{'' if reset else ' (peak not reset before fit: an upper bound)'}.")
