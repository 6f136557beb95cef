"""brix.dask.TreeClassifier on a LocalCluster of two worker processes: the trees of brixcmd on
the same rows in any partitioning, and what a lost worker or client does to a fit."""
import os
import signal
import subprocess
import threading
import time

import numpy as np
import pandas as pd
import pytest

dd = pytest.importorskip("dask.dataframe")
distributed = pytest.importorskip("distributed")

import brix  # noqa: E402
import brix.dask  # noqa: E402

HERE = os.path.dirname(__file__)
ROOT = os.path.join(HERE, "..", "..")
SHARED = os.environ.get("BRIX_SHARED_DATA", os.path.join(ROOT, "..", "shared", "data"))
BRIXCMD = os.environ.get("BRIXCMD", "build/brixcmd")

import sys  # noqa: E402
sys.path.insert(0, os.path.join(HERE, "..", "python"))
from test_tree_classifier import read_stem, tree_of  # noqa: E402


@pytest.fixture(scope="module")
def client():
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=":0") as cluster:
        with distributed.Client(cluster) as c:
            yield c


def brixcmd(*args):
    return subprocess.run([BRIXCMD, *args], check=True, capture_output=True, text=True).stdout


def agrawal_like(n, seed):
    """Agrawal's function 2 with 5% of the labels flipped, as a .names/.data pair's frame."""
    rng = np.random.default_rng(seed)
    age = rng.integers(20, 81, n)
    salary = rng.integers(20000, 150001, n)
    df = pd.DataFrame({
        "salary": salary,
        "commission": np.where(salary >= 75000, 0, rng.integers(10000, 75001, n)),
        "age": age,
        "elevel": pd.Categorical(rng.integers(0, 5, n).astype(str)),
        "car": rng.integers(1, 21, n),
        "zipcode": pd.Categorical(rng.integers(0, 9, n).astype(str)),
        "hyears": rng.integers(1, 31, n),
    })
    a = (((age < 40) & (salary >= 50000) & (salary <= 100000)) |
         ((age >= 40) & (age < 60) & (salary >= 75000) & (salary <= 125000)) |
         ((age >= 60) & (salary >= 25000) & (salary <= 75000)))
    a ^= rng.random(n) < 0.05
    return df, pd.Series(np.where(a, "groupA", "groupB"), name="class")


def write_stem(tmp_path, X, y):
    stem = str(tmp_path / "t")
    with open(stem + ".names", "w") as f:
        for c in X.columns:
            kind = "discrete" if X[c].dtype.name == "category" else "continuous"
            typ = "string" if kind == "discrete" else "float" if X[c].dtype.kind == "f" else \
                "integer"
            f.write(f"{c},{typ},{kind}\n")
        f.write("class,string,class\n")
    pd.concat([X, y], axis=1).to_csv(stem + ".data", header=False, index=False)
    return stem


def fit_dask(client, X, y, parts, w=None, **kw):
    dX = dd.from_pandas(X, npartitions=parts, sort=False)
    dy = dd.from_pandas(y, npartitions=parts, sort=False)
    dw = dd.from_pandas(w, npartitions=parts, sort=False) if w is not None else None
    return brix.dask.TreeClassifier(client=client, **kw).fit(dX, dy, dw), dX


def fit_as_brixcmd(client, tmp_path, X, y, parts, hand_off):
    """The fit of X, y in parts partitions, checked to grow brixcmd's tree on the same rows;
    the estimator and the partitioned X."""
    expected = tree_of(brixcmd("-f", write_stem(tmp_path, X, y), "-tstd"))
    clf, dX = fit_dask(client, X, y, parts, hand_off_cases=hand_off)
    assert clf.export_text() == expected
    return clf, dX


def shared_stems():
    if not os.path.isdir(SHARED):
        return []
    return sorted(f[:-6] for f in os.listdir(SHARED)
                  if f.endswith(".names") and f != "syn_agrawal_f2_1m.names")


@pytest.mark.parametrize("hand_off", ["root", 0])
@pytest.mark.parametrize("stem", ["golf", "votes"] + shared_stems())
def test_shared_datasets_grow_brixcmds_tree(client, stem, hand_off):
    path = os.path.join(ROOT, "examples", stem) if stem in ("golf", "votes") else \
        os.path.join(SHARED, stem)
    X, y, w = read_stem(path)
    # The root on one worker, or no node handed out (a tenth of the rows: the test below).
    limit = len(X) if hand_off == "root" else hand_off
    clf, _ = fit_dask(client, X, y, 3, w, hand_off_cases=limit)
    assert clf.export_text() == tree_of(brixcmd("-f", path, "-tstd"))
    handed = [v["handed_nodes"] for v in clf.fit_levels_]
    if hand_off == "root":
        assert handed == [1]
    elif hand_off == 0:
        assert not any(handed)


@pytest.mark.parametrize("stem", ["golf", "votes"] + shared_stems())
def test_shared_datasets_in_any_partitioning_grow_brixcmds_tree(client, stem):
    # Workers join their partitions into one holder: any split of the rows over them, including
    # more partitions than rows on a worker, grows the same tree.
    path = os.path.join(ROOT, "examples", stem) if stem in ("golf", "votes") else \
        os.path.join(SHARED, stem)
    X, y, w = read_stem(path)
    expected = tree_of(brixcmd("-f", path, "-tstd"))
    for parts in (1, 2, 7, 16):
        clf, _ = fit_dask(client, X, y, parts, w, hand_off_cases=len(X) // 10)
        assert clf.export_text() == expected, f"{parts} partitions"


def led24_like(n, seed):
    """Seven segments of a digit each flipped with probability 0.1 and 17 random bits, all
    categorical; the digit is the class."""
    rng = np.random.default_rng(seed)
    segments = np.array([[int(b) for b in s] for s in (
        "1110111", "0010010", "1011101", "1011011", "0111010",
        "1101011", "1101111", "1010010", "1111111", "1111011")])
    digit = rng.integers(0, 10, n)
    bits = np.concatenate([segments[digit] ^ (rng.random((n, 7)) < 0.1),
                           rng.integers(0, 2, (n, 17))], axis=1)
    X = pd.DataFrame({f"a{i + 1}": pd.Categorical(bits[:, i].astype(str)) for i in range(24)})
    return X, pd.Series(digit.astype(str), name="class")


@pytest.mark.parametrize("parts", [1, 2, 7, 16])
def test_led24_like_rows_in_any_partitioning_grow_brixcmds_tree(client, parts, tmp_path):
    X, y = led24_like(20000, 24)
    clf, _ = fit_as_brixcmd(client, tmp_path, X, y, parts, 2000)
    assert any(0 < v["handed_nodes"] < v["open_nodes"] for v in clf.fit_levels_)


def test_agrawal_1m_in_any_partitioning_grows_brixcmds_tree(client):
    stem = os.path.join(SHARED, "syn_agrawal_f2_1m")
    if not os.path.exists(stem + ".names"):
        pytest.skip("no shared agrawal F2 1M")
    X, y, _ = read_stem(stem)
    expected = tree_of(brixcmd("-fm", stem + ".names", "-fd", stem + ".data.gz", "-tstd"))
    for parts, hand_off in ((1, None), (2, None), (7, 250000), (16, None)):
        clf, _ = fit_dask(client, X, y, parts, hand_off_cases=hand_off)
        assert clf.export_text() == expected, f"{parts} partitions"


@pytest.mark.parametrize("parts", [1, 2, 7, 16])
def test_agrawal_like_rows_in_any_partitioning_grow_brixcmds_tree(client, parts, tmp_path):
    X, y = agrawal_like(20000, 7)
    clf, dX = fit_as_brixcmd(client, tmp_path, X, y, parts, 1500)
    levels = clf.fit_levels_
    assert len(levels) >= 3 and levels[0]["open_nodes"] == 1
    # Some level both tallies nodes and hands others out.
    assert any(0 < v["handed_nodes"] < v["open_nodes"] for v in levels)
    if parts > 1:
        assert sum(v["handed_row_bytes"] for v in levels) > 0
    # An ordinary model: predictions per partition are the local ones.
    local = brix.TreeClassifier().fit(X, y)
    np.testing.assert_array_equal(clf.predict(dX).compute(), local.predict(X))
    np.testing.assert_allclose(clf.predict_proba(dX).compute(), local.predict_proba(X))
    assert clf.score(X, y) == local.score(X, y)


def test_handed_subtrees_settle_on_their_workers_as_brixcmd_settles_them(client, tmp_path):
    # Noisy labels grow deep subtrees that pruning cuts back: each handed node is prepruned
    # against the bound its ancestors give and pruned where it grows, only that reaches the
    # client, and the tree is brixcmd's with pruning or without.
    X, y = agrawal_like(20000, 13)
    stem = write_stem(tmp_path, X, y)
    sent = {}
    for pruning, flags in (("error", []), ("none", ["-np"])):
        clf, _ = fit_dask(client, X, y, 3, hand_off_cases=4000, pruning=pruning)
        assert clf.export_text() == tree_of(brixcmd("-f", stem, "-tstd", *flags)), pruning
        levels = clf.fit_levels_
        assert sum(v["handed_nodes"] for v in levels) >= 2
        sent[pruning] = sum(v["subtree_bytes"] for v in levels)
    assert sent["error"] < sent["none"] / 2


def test_numbers_that_the_tables_type_makes_one_grow_brixcmds_tree(client, tmp_path):
    # Distinct 64-bit numbers that are one 32-bit float, each partition holding its own: the
    # merged value sets and each partition's orders among them are those of the tables' type.
    X, y = agrawal_like(6000, 11)
    jitter = np.random.default_rng(11).random(len(X)) * 1e-4
    X["salary"] = np.floor(X["salary"] / 1000) * 1000 / 7 + jitter
    clf, _ = fit_as_brixcmd(client, tmp_path, X, y, 5, 0)
    assert "salary" in clf.export_text()
    # The client gets scores: a few dozen bytes a node and attribute, not tallies.
    tallied = [v for v in clf.fit_levels_ if v["tally_bytes"]]
    assert tallied and all(v["score_bytes"] < 200 * v["open_nodes"] * X.shape[1]
                           for v in tallied)


def test_partitions_of_their_own_categories_and_types_join_on_their_workers(client):
    # Each partition a categorical of only the categories it holds (as read_csv gives them) and
    # a class column of its own categories: a worker's partitions join into one holder, and the
    # tree is the one of all the rows. A column categorical in some partitions and numeric in
    # others is refused.
    X, y = agrawal_like(8000, 17)
    parts = 6
    dX = dd.from_pandas(X.astype({"elevel": str, "zipcode": str}), npartitions=parts,
                        sort=False).map_partitions(
        lambda f: f.astype({"elevel": "category", "zipcode": "category"}))
    dy = dd.from_pandas(y, npartitions=parts, sort=False).map_partitions(
        lambda s: s.astype("category"))
    clf = brix.dask.TreeClassifier(client=client, hand_off_cases=1000).fit(dX, dy)
    assert clf.export_text() == brix.TreeClassifier().fit(X, y).export_text()
    assert any(v["handed_nodes"] for v in clf.fit_levels_)

    def mixed(f):
        return f.astype({"car": "category"}) if f.index[0] == 0 else f
    with pytest.raises(ValueError, match="categorical in some partitions"):
        brix.dask.TreeClassifier(client=client).fit(
            dd.from_pandas(X, npartitions=3, sort=False).map_partitions(mixed),
            dd.from_pandas(y, npartitions=3, sort=False))


def _workers_steps():
    """The first steps of a fit, in this process: rows, a local estimator, the value sets of
    all the rows (the discrete ones and each continuous attribute's values), the table of every
    value set and the root's open nodes."""
    from brix import dask as bd
    X, y = agrawal_like(3000, 5)
    enc = brix.TreeClassifier().fit(X, y)
    names = list(enc.feature_names_in_)
    keep = bd._keep(bd._describe(enc, X, y, None)["columns"], names, enc._kinds,
                    [enc._label_text[c] for c in enc.classes_])
    table = bd._table(enc, X, y, None, bd._discrete_keep(keep, enc._kinds))
    values = {a: brix._core.TallyWorker.values(table, a)
              for a, n in enumerate(names) if enc._kinds[n] != "discrete"}
    like = bd._like_of(enc, keep, enc._kinds, names, list(values), *values.values())
    ranges = brix._core.TallyGrower.root_ranges(like.table)
    grower = brix._core.TallyGrower(like.table, 0.25, 2.0, "error", ranges)
    return X, y, enc, names, bd._with_values(keep, values, names), values, like, grower.open()


def test_a_partition_of_its_own_values_tallies_as_one_of_every_value_and_moves_whole():
    # No cluster: the workers' steps in this process. A partition's tallies in the orders of all
    # the rows equal those of a table that carries every value set, and survive being pickled
    # (as Dask moves a holder between workers).
    import pickle
    from brix import dask as bd
    X, y, enc, names, keep, values, like, open_nodes = _workers_steps()
    own = bd._hold(enc, X[:700], y[:700], None, bd._discrete_keep(keep, enc._kinds), values)
    every = bd._hold(enc, X[:700], y[:700], None, keep, {})
    expected = every.worker.tallies(open_nodes)
    for holder in (own, pickle.loads(pickle.dumps(own))):
        for got, want in zip(holder.worker.tallies(open_nodes), expected):
            np.testing.assert_array_equal(got, want)


def test_two_partitions_tallies_added_equal_those_of_their_rows_held_as_one():
    # The summed tallies are what the search reads; the sum takes the arrays as the transfer
    # hands them over (read-only, strided, of another type) without changing a number.
    from brix import dask as bd
    X, y, enc, names, keep, values, like, open_nodes = _workers_steps()
    cols = len(enc.classes_) + 1
    own = bd._discrete_keep(keep, enc._kinds)
    first, second, both = (bd._tallies(bd._hold(enc, X[a:b], y[a:b], None, own, values),
                                       open_nodes, cols, []) for a, b in
                           ((0, 1000), (1000, 2000), (0, 2000)))
    summed = bd._add(first, second)
    for got, want in zip(summed, both):
        np.testing.assert_array_equal(got, want)
    frozen = []
    for t in first:
        t = t.copy()
        t.flags.writeable = False
        frozen.append(t)
    odd = (np.repeat(second[0], 2)[::2].astype(np.int32), second[1].astype(np.float64),
           second[2])
    for got, want in zip(bd._add(tuple(frozen), odd), both):
        np.testing.assert_array_equal(got, want)
    scores = bd._score(like, summed, open_nodes, list(range(len(names))), 2.0)
    assert bd._score(like, both, open_nodes, list(range(len(names))), 2.0)[3].tolist() == \
        scores[3].tolist()
    with pytest.raises(ValueError):
        brix._core.tally_add(first[0], first[1].reshape(-1)[:-1], second[0],
                             second[1].reshape(-1), cols)

def fit_while(client, action, n=60000):
    """Fits on agrawal-like rows while action() runs once the first level is decided; the tree
    or the exception."""
    X, y = agrawal_like(n, 3)
    dX = dd.from_pandas(X, npartitions=4, sort=False)
    dy = dd.from_pandas(y, npartitions=4, sort=False)
    clf = brix.dask.TreeClassifier(client=client, hand_off_cases=5000)
    result = {}

    def run():
        try:
            result["tree"] = clf.fit(dX, dy).export_text()
        except Exception as e:  # noqa: BLE001 - the test inspects it
            result["error"] = e

    t = threading.Thread(target=run, daemon=True)
    t.start()
    deadline = time.time() + 60
    while not getattr(clf, "fit_levels_", None) and t.is_alive() and time.time() < deadline:
        time.sleep(0.01)
    action()
    t.join(120)
    assert not t.is_alive(), "fit hung"
    return X, y, result


def test_a_killed_worker_gives_the_same_tree_or_a_clear_error(client):
    pid = next(iter(client.run(os.getpid).values()))
    X, y, result = fit_while(client, lambda: os.kill(pid, signal.SIGKILL))
    if "error" in result:
        assert isinstance(result["error"], RuntimeError) and "fit failed" in str(result["error"])
    else:
        assert result["tree"] == brix.TreeClassifier().fit(X, y).export_text()
    client.wait_for_workers(2, timeout=60)


def test_a_closed_client_gives_a_clear_error(client):
    other = distributed.Client(client.scheduler.address, set_as_default=False)
    _, _, result = fit_while(other, other.close)
    assert isinstance(result.get("error"), RuntimeError), result
    assert "client" in str(result["error"]) or "connection" in str(result["error"])


def test_refusals(client):
    X, y = agrawal_like(100, 1)
    dX = dd.from_pandas(X, npartitions=2)
    dy = dd.from_pandas(y, npartitions=2)
    with pytest.raises(ValueError, match="full"):
        brix.dask.TreeClassifier(client=client, pruning="full").fit(dX, dy)
    with pytest.raises(ValueError, match="same partitions"):
        brix.dask.TreeClassifier(client=client).fit(dX, dd.from_pandas(y, npartitions=3))
    with pytest.raises(TypeError):
        brix.dask.TreeClassifier(client=client).fit(dX, y)
