"""Grows the tree of a .names/.data pair, split into CSV chunks that the workers read, on a
LocalCluster of two worker processes, and prints wall, the client's peak memory, the seconds of
the setup and the bytes that moved per level. Usage: dask_fit.py STEM CHUNK_DIR [HAND_OFF_CASES]"""
import glob
import os
import resource
import sys
import time

import dask.dataframe as dd
import distributed

import brix.dask


def main(stem, chunks, hand_off=None):
    names = [line.strip().split(",") for line in open(stem + ".names") if line.strip()]
    # Categorical columns read as categories straight away, not as a text a cell.
    dtypes = {n: ("category" if k in ("discrete", "class") else "float64" if t == "float" else "int64")
              for n, t, k in (x[:3] for x in names)}
    cls = next(n[0] for n in names if n[2] == "class")
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=":0", silence_logs=40) as cluster, \
            distributed.Client(cluster) as client:
        files = sorted(glob.glob(os.path.join(chunks, "*.csv")))
        df = dd.read_csv(files, header=None, names=[n[0] for n in names], dtype=dtypes,
                         na_values=["?"], keep_default_na=False, blocksize=None)
        X, y = df.drop(columns=[cls]), df[cls]
        start = time.time()
        clf = brix.dask.TreeClassifier(client=client, hand_off_cases=hand_off).fit(X, y)
        wall = time.time() - start
        levels = clf.fit_levels_
        peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024
        limit = brix.dask.HAND_OFF_CASES if hand_off is None else hand_off
        print(f"partitions {len(files)}  hand-off at {limit} cases  wall {wall:.1f} s  "
              f"client peak RSS {peak:.0f} MB  levels {len(levels)}  "
              f"nodes {sum(v['open_nodes'] for v in levels)}")
        print("  setup: " + "  ".join(f"{k} {v:.1f} s" for k, v in clf.fit_setup_.items()))
        for i, v in enumerate(levels):
            tallied = v["open_nodes"] - v["handed_nodes"]
            per = v["tally_bytes"] / max(tallied, 1)
            print(f"  level {i:2d}: open {v['open_nodes']:5d}  tallied {tallied:5d}  tallies "
                  f"{v['tally_bytes']:10d} B ({per:9.0f} B a node)  scores "
                  f"{v['score_bytes']:6d} B  decisions {v['decision_bytes']:6d} B  handed {v['handed_nodes']:3d} nodes "
                  f"{v['handed_cases']:8d} cases  rows moved {v['handed_row_bytes']:10d} B  "
                  f"subtrees {v['subtree_bytes']:8d} B  {v['seconds']:5.2f} s")
        print(clf.export_text(), file=open(os.path.join(chunks, "tree.txt"), "w"))


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2], int(sys.argv[3]) if len(sys.argv) > 3 else None)
