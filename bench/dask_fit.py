"""Grows the tree of a .names/.data pair, split into CSV chunks that the workers read, on a
LocalCluster of two worker processes, and prints wall, the client's peak memory and the bytes
that moved per level. Usage: dask_fit.py STEM CHUNK_DIR"""
import glob
import os
import resource
import sys
import time

import dask.dataframe as dd
import distributed

import brix.dask


def main(stem, chunks):
    names = [line.strip().split(",") for line in open(stem + ".names") if line.strip()]
    dtypes = {n: (str if k in ("discrete", "class") else "float64" if t == "float" else "int64")
              for n, t, k in (x[:3] for x in names)}
    cls = next(n[0] for n in names if n[2] == "class")
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=":0", silence_logs=40) as cluster, \
            distributed.Client(cluster) as client:
        files = sorted(glob.glob(os.path.join(chunks, "*.csv")))
        df = dd.read_csv(files, header=None, names=[n[0] for n in names], dtype=dtypes,
                         na_values=["?"], keep_default_na=False, blocksize=None)
        for n in names:
            if n[2] == "discrete":
                df[n[0]] = df[n[0]].astype("category")
        X, y = df.drop(columns=[cls]), df[cls]
        start = time.time()
        clf = brix.dask.TreeClassifier(client=client).fit(X, y)
        wall = time.time() - start
        levels = clf.fit_levels_
        peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024
        print(f"partitions {len(files)}  wall {wall:.1f} s  client peak RSS {peak:.0f} MB  "
              f"levels {len(levels)}  nodes {sum(v['open_nodes'] for v in levels)}")
        for i, v in enumerate(levels):
            per = v["tally_bytes"] / max(v["open_nodes"], 1)
            print(f"  level {i:2d}: open {v['open_nodes']:5d}  tallies {v['tally_bytes']:11d} B "
                  f"({per:9.0f} B a node)  decisions {v['decision_bytes']:7d} B")
        print(clf.export_text(), file=open(os.path.join(chunks, "tree.txt"), "w"))


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
