"""brix.dask.TreeClassifier: the tree of brix.TreeClassifier grown over a Dask DataFrame whose
partitions stay on the workers of a distributed cluster.

Each worker joins the partitions dealt to it into one Brix table of its own values, with the
orders of its continuous values among all the rows' (so tallies and thresholds mean the same
everywhere; the workers merge the value sets), and each worker holds one table of all the value
sets. Then, level by level, every worker tallies the class weights of its own cases per attribute
value for each open node; the attributes are dealt out to the workers in groups, each group's
tallies are added up and searched on its worker with the engine's own split search, and the
client only chooses among the groups' best splits with the engine's choice rule. The workers
share their cases out to the children. A node of few cases is instead grown whole on one worker
by the ordinary grower (its rows move there from the other workers, in the order of one table of
all the rows), prepruned and pruned there while the levels go on, and its subtree grafted in.
Neither rows, value sets nor tallies reach the client. With whole case weights (no unknown
values) the tree is the one brixcmd grows on the same rows.
"""
import contextlib
import os
import tempfile
import time

import numpy as np

from . import TreeClassifier as _LocalTreeClassifier
from . import _core, _text, _warn_past_exact

__all__ = ["TreeClassifier", "HAND_OFF_CASES"]

# A node of at most this many cases is grown whole on one worker by the ordinary grower instead of
# level by level: below a few million cases a tallied level (every occupied value of every
# attribute, per worker, summed and searched on the workers) costs more than moving the node's
# rows to one worker and growing them there, and 4,000,000 cases stay about 250 MB in transit and
# half a GB on that worker. Measured with bench/dask.sh on agrawal F2 over 2 workers (see
# docs/distributed.md): at 20M rows 4,000,000, 6,000,000 and 8,000,000 all took about 2 x
# brixcmd's time (within the runs' spread), 1,000,000 far more.
HAND_OFF_CASES = 4000000


def _is_dask_collection(X):
    return hasattr(X, "dask") and hasattr(X, "npartitions")


class _Holder:
    """A partition's table and the cases of its open nodes, on a worker. Moved (or spilled) as
    the table's binary file and its cases."""

    def __init__(self, worker):
        self.worker = worker

    def __reduce__(self):
        with tempfile.TemporaryDirectory() as d:
            p = os.path.join(d, "part.tbl")
            self.worker.table.save(p)
            with open(p, "rb") as f:
                data = f.read()
        return (_restore_holder, (data,) + tuple(self.worker.cases()) +
                (self.worker.orders(), self.worker.keys()))


def _table_bytes(table):
    with tempfile.TemporaryDirectory() as d:
        p = os.path.join(d, "part.tbl")
        table.save(p)
        with open(p, "rb") as f:
            return f.read()


def _table_of(data):
    with tempfile.TemporaryDirectory() as d:
        p = os.path.join(d, "part.tbl")
        with open(p, "wb") as f:
            f.write(data)
        return _core.Table.load(p)


def _restore_holder(data, nodes, rows, weights, orders=(), keys=None):
    worker = _core.TallyWorker(_table_of(data), nodes, rows, weights)
    worker.set_orders([o if len(o) else None for o in orders])
    if keys is not None and len(keys[0]):
        worker.set_keys(*keys)
    return _Holder(worker)


class _Like:
    """A table with the value sets of all the rows (its rows are not read): where the split
    search turns orders into thresholds, and handed nodes are grown. One a worker."""

    def __init__(self, table):
        self.table = table

    def __reduce__(self):
        return (_restore_like, (_table_bytes(self.table),))


def _restore_like(data):
    return _Like(_table_of(data))


def _holder_size(h):
    # Rows and cases in memory: keeps the scheduler from thinking a holder is cheap to move.
    return int(h.worker.table.n_rows) * 64 + int(h.worker.held) * 8


try:
    from dask.sizeof import sizeof as _sizeof

    _sizeof.register(_Holder)(_holder_size)
except ImportError:  # pragma: no cover - dask missing: nothing to register
    pass


# ---------------------------------------------------------------- tasks run on the workers

# A partition's rows are keyed by its number times this plus their place in it: the order of all
# the rows, without knowing how long the other partitions are.
_PART_KEY = 1 << 40


def _joined(columns, name):
    """One column of several partitions: categoricals as one categorical over all their
    categories (not as texts a cell)."""
    import pandas as pd
    from pandas.api.types import union_categoricals
    if len(columns) == 1:
        return columns[0].reset_index(drop=True)
    if all(isinstance(c.dtype, pd.CategoricalDtype) for c in columns):
        return pd.Series(union_categoricals(list(columns), ignore_order=True), name=name)
    return pd.concat(columns, ignore_index=True)


def _group(est, numbers, *frames):
    """The partitions numbers (ascending) of one worker as one: X, y and weights (None), with
    the runs their rows make (first row in the group, key of that row among all the rows)."""
    import pandas as pd
    k = len(numbers)
    xs, ys, ws = frames[:k], frames[k:2 * k], frames[2 * k:]
    first_rows, first_keys, at = [], [], 0
    for i, x in zip(numbers, xs):
        if len(x):
            first_rows.append(at)
            first_keys.append(i * _PART_KEY)
            at += len(x)
    names = [str(c) for c in xs[0].columns]
    for j, name in enumerate(names):
        cols = [x.iloc[:, j] for x in xs if len(x)]
        if len({str(c.dtype) for c in cols}) > 1:
            kinds = {est._kind_of(name, c, j) for c in cols}
            if "discrete" in kinds and len(kinds) > 1:
                raise ValueError(f"column '{name}' is categorical in some partitions and "
                                 "numeric in others; give it one dtype")
    kept = [j for j, x in enumerate(xs) if len(x)] or [0]
    # Columns side by side as they are: a frame built from a dict copies them all into blocks.
    X = pd.concat([_joined([xs[j].iloc[:, i] for j in kept], c)
                   for i, c in enumerate(xs[0].columns)], axis=1, copy=False,
                  keys=list(xs[0].columns))
    y = _joined([ys[j] for j in kept], ys[0].name)
    w = None if ws[0] is None else np.concatenate([np.asarray(ws[j], dtype=float) for j in kept])
    return X, y, w, np.asarray(first_rows, dtype=np.uint64), np.asarray(first_keys, np.uint64)


def _describe_group(g, est):
    return _describe(est, g[0], g[1], g[2])


def _describe(est, X, y, w):
    """What a worker's rows add to the value sets: per column the texts of a discrete column
    (a continuous column's values come sorted from its table) and whether it has unknown ones;
    the class labels; its kinds."""
    import pandas as pd
    names = [str(c) for c in X.columns]
    cols = [X.iloc[:, j] for j in range(X.shape[1])]
    out = {"n": len(X), "columns": {}, "kinds": {}}
    from . import _codes, _days, _numbers
    for j, (name, col) in enumerate(zip(names, cols)):
        kind = est._kind_of(name, col, j) if len(col) else None
        out["kinds"][name] = kind
        if kind is None:
            continue
        if kind == "discrete":
            codes, texts = _codes(col, name)
            codes = np.asarray(codes)
            used = np.flatnonzero(np.bincount(codes[codes >= 0], minlength=len(texts)))
            out["columns"][name] = ([texts[c] for c in used], bool(np.any(codes < 0)))
        else:
            v = _days(col) if kind.startswith("date") else _numbers(col, name)
            v = np.asarray(v, dtype=float)
            unknown = np.isnan(v)
            out["columns"][name] = (np.zeros(0), bool(np.any(unknown)))
    if isinstance(getattr(y, "dtype", None), pd.CategoricalDtype):
        # From the codes: no label a row.
        codes = np.asarray(y.cat.codes)
        used = np.flatnonzero(np.bincount(codes[codes >= 0], minlength=len(y.cat.categories)))
        out["labels"] = np.asarray(y.cat.categories)[used]
        out["unknown_labels"] = int(np.sum(codes < 0))
    else:
        yv = np.asarray(y)
        out["labels"] = pd.unique(yv) if len(yv) else yv
        out["unknown_labels"] = int(np.sum(pd.isna(yv))) if yv.dtype.kind in "fOMm" else 0
    out["weight"] = float(np.asarray(w, dtype=float).sum()) if w is not None else float(len(y))
    wv = np.asarray(w, dtype=float) if w is not None else np.ones(0)
    out["whole"] = bool(np.all((wv >= 0) & (wv == np.floor(wv))))
    out["unit"] = bool(np.all(wv == 1.0))
    return out


def _summary(d):
    """What the client needs of a partition's description: all but its values."""
    out = {k: v for k, v in d.items() if k != "columns"}
    out["unknown"] = {name: u for name, (_, u) in d["columns"].items()}
    return out


def _merge(a, b):
    """Two descriptions' value sets as one (the values of both, each once, sorted)."""
    out = {}
    for name in set(a) | set(b):
        if name not in a or name not in b:
            out[name] = a.get(name, b.get(name))
            continue
        (va, ua), (vb, ub) = a[name], b[name]
        if isinstance(va, list) or isinstance(vb, list):
            merged = sorted(set(list(va)) | set(list(vb)))
        else:
            merged = _union(va, vb)
        out[name] = (merged, ua or ub)
    return out


def _union(a, b):
    """Two sorted arrays of distinct numbers as one: a stable sort of the two runs merges them
    in linear time."""
    merged = np.concatenate([a, b])
    merged.sort(kind="stable")
    if len(merged):
        merged = merged[np.concatenate([[True], merged[1:] != merged[:-1]])]
    return merged


def _union_of(*values):
    """The tables' values of an attribute (each sorted) as one."""
    out = values[0]
    for v in values[1:]:
        out = _union(out, v)
    return out


def _with_values(keep, values, names):
    """keep with each continuous column's values those of all the rows."""
    out = dict(keep)
    for a, v in values.items():
        out[names[a]] = (v, keep[names[a]][1])
    return out


def _columns_of(d):
    return d["columns"]


def _keep(merged, names, kinds, classes):
    """The value sets of every column (and the class labels' texts) that each partition's table
    keeps besides its rows', from the merged descriptions."""
    keep = {}
    for name in names:
        values, unknown = merged.get(name, ([], False))
        if kinds[name] == "discrete":
            keep[name] = (sorted(set(values)), unknown)
        else:
            keep[name] = (np.asarray(values, dtype=float), unknown)
    keep["__class__"] = (classes, False)
    return keep


def _small_keep(keep, kinds):
    """What the client's tree needs of the value sets: the discrete ones whole, of the continuous
    ones their least and greatest values (thresholds come from the workers as texts)."""
    out = {}
    for name, (values, unknown) in keep.items():
        if name == "__class__" or kinds.get(name) == "discrete":
            out[name] = (values, unknown)
        else:
            out[name] = (values[[0, -1]] if len(values) else values, unknown)
    return out


def _like_of(est, keep, kinds, names, atts, *values):
    """The table of every value set: a table of one row (each continuous value set holding its
    least value, and unknown values as the merged value set has them) whose continuous value
    sets are then those of all the rows, without a row a value."""
    # Wanted only by the first search: it leaves the worker's thread to the holders' first
    # tallies meanwhile.
    with _seceded():
        least = {a: v[:1] for a, v in zip(atts, values)}
        one = _like(est, _with_values(keep, least, names), kinds)
        return _Like(_core.TallyGrower.like_table(one.table, list(atts), list(values)))


def _small_keep_of(keep, kinds, names, atts, *values):
    """_small_keep of keep with the values of all the rows, and the sizes of those values."""
    return (_small_keep(_with_values(keep, dict(zip(atts, values)), names), kinds),
            [len(v) for v in values])


def _discrete_keep(keep, kinds):
    return {n: v for n, v in keep.items() if n == "__class__" or kinds.get(n) == "discrete"}


def _like(est, keep, kinds):
    import pandas as pd
    names = list(est.feature_names_in_)
    row = pd.DataFrame({n: pd.Series(
        [None if kinds[n].startswith("date") or not len(keep[n][0]) else keep[n][0][0]],
        dtype=object if kinds[n] == "discrete" else float) for n in names})
    return _Like(est._table(row, np.zeros(1, dtype=np.int64), keep=keep))


class _Built:
    """A worker's partitions as a Brix table of their own values, before it holds cases: the
    table, its rows and the runs of their keys among all the rows."""

    def __init__(self, table, n, first_rows, first_keys):
        self.table, self.n, self.first_rows, self.first_keys = table, n, first_rows, first_keys

    def __reduce__(self):
        return (_restore_built, (_table_bytes(self.table), self.n, self.first_rows,
                                 self.first_keys))


def _restore_built(data, n, first_rows, first_keys):
    return _Built(_table_of(data), n, first_rows, first_keys)


def _table(est, X, y, w, keep):
    """The rows as a Brix table of their own values and the value sets of keep (the discrete
    ones and the class labels of all the rows)."""
    import pandas as pd
    if isinstance(getattr(y, "dtype", None), pd.CategoricalDtype):
        at = pd.Index(est.classes_).get_indexer(np.asarray(y.cat.categories))
        codes = np.where(y.cat.codes >= 0, at[np.asarray(y.cat.codes)], -1)
    else:
        codes = pd.Index(est.classes_).get_indexer(np.asarray(y))
    return est._table(X, codes, None if w is None else np.asarray(w, dtype=float), keep=keep)


def _build_group(est, g, keep):
    return _Built(_table(est, g[0], g[1], g[2], keep), len(g[0]), g[3], g[4])


def _table_values(built, att):
    """A continuous attribute's values of a table, sorted, as it holds them."""
    return _core.TallyWorker.values(built.table, att)


def _held(table, n, values, names):
    """A holder of the first n rows of a table of its own values, with their orders among all
    the rows' (values: those of all the rows, attribute: sorted values)."""
    worker = _core.TallyWorker(table, n)
    orders = [None] * len(names)
    for a, every in values.items():
        mine = _core.TallyWorker.values(table, a)
        at = np.searchsorted(every, mine)
        if len(mine) and (at[-1] >= len(every) or np.any(every[at] != mine)):
            raise RuntimeError(f"column '{names[a]}': a partition holds a value the merged "
                               "value set lacks")
        orders[a] = np.concatenate([[0], at + 1]).astype(np.uint32)
    worker.set_orders(orders)
    return _Holder(worker)


def _hold_built(built, names, atts, *values):
    """A worker's partitions as one holder, its cases keyed by their rows among all the rows
    (values: those of all the rows of each of atts)."""
    holder = _held(built.table, built.n, dict(zip(atts, values)), names)
    if len(built.first_rows):
        holder.worker.set_keys(built.first_rows, built.first_keys)
    return holder


def _hold(est, X, y, w, keep, values):
    """The partition as a holder: a Brix table of its own values (with keep's value sets), its
    cases, and the orders of its continuous values among all the rows' (values: those of all
    the rows, attribute: sorted values as the tables hold them)."""
    return _held(_table(est, X, y, w, keep), len(X), values, list(est.feature_names_in_))


def _pairwise(client, fn, futures):
    """One future of fn folded over futures in a tree of pairs, on the workers."""
    while len(futures) > 1:
        paired = [client.submit(fn, futures[i], futures[i + 1], pure=False)
                  for i in range(0, len(futures) - 1, 2)]
        if len(futures) % 2:
            paired.append(futures[-1])
        futures = paired
    return futures[0]


def _tallies(holder, open_nodes, cols, only):
    at, rows, counts = holder.worker.tallies(open_nodes, only)
    return at, rows.reshape(-1, cols), counts


def _score(like, summed, open_nodes, atts, min_cases):
    """A group of attributes' best splits of the open nodes, searched where their summed tallies
    are, on the value sets of all the rows."""
    at, rows, counts = summed
    return _core.TallyGrower.score(like.table, min_cases, open_nodes, atts, at,
                                   rows.reshape(-1), counts)


def _sum_score(like, open_nodes, atts, min_cases, *tallies):
    """The holders' tallies of a group of attributes summed (in the holders' order) and
    searched, where they arrive."""
    summed = tallies[0]
    for t in tallies[1:]:
        summed = _add(summed, t)
    return _score(like, summed, open_nodes, atts, min_cases)


def _score_bytes(s):
    return sum(x.nbytes for x in s if hasattr(x, "nbytes")) + sum(len(t) for t in s[5])


def _add(a, b):
    """Two sparse tallies summed: rows at the same offset added (in float32, as the grower's
    own sums are), the offsets kept ascending."""
    cols = a[1].shape[1]
    at, rows = _core.tally_add(a[0], a[1].reshape(-1), b[0], b[1].reshape(-1), cols)
    return at, rows.reshape(-1, cols), a[2] + b[2]


def _applied(holder, decisions):
    return _Holder(holder.worker.applied(*decisions))


def _counts(holder):
    return holder.worker.counts()


def _rows_of(holder, ids):
    return holder.worker.rows_of(ids)


def _grow_handed(like, nodes, known, bounds, reach, confidence, min_cases, pruning, whole, unit,
                 *parts):
    """The subtrees of the handed nodes, grown on the rows the holders gave (in table order) and
    settled here (prepruned against the bound their ancestors give, and pruned), in the nodes'
    order: per node the bytes of its file, its prepruning value, and the bytes of its form
    pruned without prepruning (None when the same), wanted only if the whole tree's prepruning
    does not reach the node."""
    # A long task: it leaves the worker's thread to the levels' tallies meanwhile, instead of
    # holding them up.
    with _seceded():
        return _grow_handed_here(like, nodes, known, bounds, reach, confidence, min_cases,
                                 pruning, whole, unit, parts)


@contextlib.contextmanager
def _seceded():
    """Out of the worker's thread pool while inside, if running as a task on a worker: the
    worker runs its other tasks meanwhile."""
    try:
        from distributed import get_worker, rejoin, secede
        get_worker()
    except (ImportError, ValueError):
        yield
        return
    secede()
    try:
        yield
    finally:
        rejoin()


def _grow_handed_here(like, nodes, known, bounds, reach, confidence, min_cases, pruning, whole,
                      unit, parts):
    with tempfile.TemporaryDirectory() as d:
        paths = [os.path.join(d, f"{i}.tree") for i in range(len(known))]
        alone = [os.path.join(d, f"{i}.alone.tree") for i in range(len(known))]
        values = _core.TallyGrower.grow_handed(like.table, nodes, known, bounds, reach,
                                               list(parts), confidence, min_cases, pruning,
                                               whole, unit, paths, alone)
        out = []
        for p, q, v in zip(paths, alone, values.tolist()):
            with open(p, "rb") as f:
                settled = f.read()
            with open(q, "rb") as f:
                other = f.read()
            out.append((settled, v, None if other == settled else other))
    return out


def _settled(grown):
    return [(blob, v) for blob, v, _ in grown]


def _unreached_forms(grown):
    return [other for _, _, other in grown]


def _item(items, k):
    return items[k]


def _evaluate(holder, model_bytes):
    with tempfile.TemporaryDirectory() as d:
        p = os.path.join(d, "model.tree")
        with open(p, "wb") as f:
            f.write(model_bytes)
        model = _core.Model.load(p)
    return holder.worker.evaluate(model)


def _predict_part(est, X, proba):
    if len(X) == 0:
        return np.zeros((0, len(est.classes_))) if proba else est.classes_[:0]
    return _LocalTreeClassifier.predict_proba(est, X) if proba else \
        _LocalTreeClassifier.predict(est, X)


# ---------------------------------------------------------------- the estimator

class TreeClassifier(_LocalTreeClassifier):
    """brix.TreeClassifier whose fit takes a Dask DataFrame (y a Dask Series, sample_weight one
    too, partitioned alike) on a distributed cluster, and whose predict and predict_proba take
    Dask DataFrames partition by partition (anything else as brix.TreeClassifier does).

    client: the distributed.Client to run on; None: the current one.
    hand_off_cases: a node of at most this many cases (over all partitions) has its rows moved to
    one worker and is grown whole there; None: HAND_OFF_CASES; 0: every node level by level.
    pruning "full" (raising subtrees) needs every node's cases in one place and is refused;
    so is subsets=True on Dask collections (the distributed growing splits a categorical column
    a branch per value); other inputs are fitted as brix.TreeClassifier fits them.
    After fit, fit_setup_ gives the seconds of reading and describing the partitions, of the
    workers' tables and the merge of their value sets, and of the holders; fit_levels_ lists per
    level the open nodes, the bytes of tallies that moved between workers, of the scores that
    reached the client and of decisions, the nodes and cases handed to one worker, the bytes of
    their rows that moved between workers and of their subtrees sent to the client, and the
    seconds the level took (handed subtrees grow beyond it).
    """

    def __init__(self, confidence=0.25, min_cases=2.0, pruning="error", n_jobs=1,
                 categorical_features=None, client=None, hand_off_cases=None, subsets=False):
        super().__init__(confidence=confidence, min_cases=min_cases, pruning=pruning,
                         n_jobs=n_jobs, categorical_features=categorical_features,
                         subsets=subsets)
        self.client = client
        self.hand_off_cases = hand_off_cases

    def __getstate__(self):
        state = super().__getstate__()
        state["client"] = None  # a client does not travel
        return state

    def _client(self):
        if self.client is not None:
            return self.client
        try:
            from distributed import get_client
            return get_client()
        except ValueError:
            raise ValueError("brix.dask.TreeClassifier needs a distributed.Client: create one "
                             "(distributed.Client(...)) or pass client=")

    def fit(self, X, y, sample_weight=None):
        if not _is_dask_collection(X):
            return super().fit(X, y, sample_weight)
        if self.subsets:
            raise ValueError("subsets=True is not supported on Dask collections: the distributed "
                             "growing splits a categorical column a branch per value; fit "
                             "brix.TreeClassifier(subsets=True) on an in-memory frame instead")
        client = self._client()
        try:
            return self._fit_dask(X, y, sample_weight, client)
        except (ValueError, TypeError):
            raise
        except Exception as e:
            if getattr(client, "status", "running") != "running" or isinstance(e, OSError):
                raise RuntimeError(f"fit failed: lost the connection to the Dask cluster (the "
                                   f"client is {client.status}): {e!r}") from e
            raise
        finally:
            for k in ("_likes", "_places", "_handed_load"):  # they do not outlive the fit
                self.__dict__.pop(k, None)

    def _fit_dask(self, X, y, sample_weight, client):
        import pandas as pd
        from concurrent.futures import CancelledError as FutureCancelledError
        try:
            from distributed.scheduler import KilledWorker
        except ImportError:  # pragma: no cover
            KilledWorker = RuntimeError
        from sklearn.utils.multiclass import check_classification_targets
        if self.pruning not in ("error", "full", "none"):
            raise ValueError("pruning must be 'error', 'full' or 'none'")
        if self.pruning == "full":
            raise ValueError("pruning='full' raises subtrees, which needs every node's cases on "
                             "one machine: not available on a cluster; use 'error' or 'none'")
        if not hasattr(X, "columns"):
            raise TypeError("X must be a dask DataFrame")
        if y is None or not _is_dask_collection(y):
            raise TypeError("y must be a dask Series partitioned as X is")
        if y.npartitions != X.npartitions or (
                sample_weight is not None and (not _is_dask_collection(sample_weight) or
                                               sample_weight.npartitions != X.npartitions)):
            raise ValueError("X, y and sample_weight must have the same partitions")
        names = [str(c) for c in X.columns]
        if len(names) == 0:
            raise ValueError("0 feature(s) while a minimum of 1 is required.")
        self.feature_names_in_ = np.asarray(names, dtype=object)
        self.n_features_in_ = len(names)
        for attr in ("_kinds", "classes_", "_label_text", "_model"):
            self.__dict__.pop(attr, None)
        # Read once: the value-set pass and the tables both take the partitions (which stay on
        # the workers until the tables are built).
        source = client.persist([X, y] + ([sample_weight] if sample_weight is not None else []))
        probe = _LocalTreeClassifier(categorical_features=self.categorical_features)
        try:
            # One pass describes each worker's rows; the client sees only their kinds, labels
            # and weight.
            start = time.perf_counter()
            places, groups = self._groups(client, source, probe)
            self._places = places
            described = [client.submit(_describe_group, g, est=probe, workers=[w], pure=False)
                         for w, g in zip(places, groups)]
            summaries = self._wait(client, [client.submit(_summary, d, workers=[w], pure=False)
                                            for w, d in zip(places, described)])
            keep_parts = [d for d, m in zip(described, summaries) if m["n"] > 0]
            parts = [m for m in summaries if m["n"] > 0]
            if not parts:
                raise ValueError("Found array with 0 sample(s) while a minimum of 1 is required.")
            unknown = sum(d["unknown_labels"] for d in parts)
            if unknown:
                raise ValueError(f"Input y has unknown values: {unknown} unknown class values "
                                 "(drop those rows)")
            kinds = {}
            for name in names:
                ks = {d["kinds"][name] for d in parts if d["kinds"][name] is not None}
                kinds[name] = ("discrete" if "discrete" in ks else "float" if "float" in ks else
                               "date-fraction" if "date-fraction" in ks else
                               "date" if "date" in ks else "integer")
                if "discrete" in ks and len(ks) > 1:
                    raise ValueError(f"column '{name}' is categorical in some partitions and "
                                     "numeric in others; give it one dtype")
            described_at = time.perf_counter()
            labels = pd.unique(np.concatenate([np.asarray(d["labels"], dtype=object)
                                               for d in parts]))
            try:
                labels = np.asarray(labels.tolist())
                classes = labels[np.argsort(labels, kind="stable")]
            except TypeError:
                raise ValueError("class column mixes values that do not compare (such as "
                                 "numbers and texts)")
            check_classification_targets(classes)
            self.classes_ = classes
            self._kinds = kinds
            self._label_text = {c: _text(c) for c in classes}
            if len(set(self._label_text.values())) != len(classes):
                raise ValueError("class column holds labels that differ but read as the same "
                                 "text (such as 1 and '1'); make them one type")
            total = sum(d["weight"] for d in parts)
            _warn_past_exact(total)
            merged = _pairwise(client, _merge, client.map(_columns_of, keep_parts, pure=False))
            keep = client.submit(_keep, merged, names, kinds,
                                 [self._label_text[c] for c in classes], pure=False)
            del merged, described, keep_parts
            # A local estimator with the fitted kinds and labels: it turns each partition into a
            # table exactly as a local fit would.
            encoder = _LocalTreeClassifier(categorical_features=self.categorical_features)
            encoder.__dict__.update({k: getattr(self, k) for k in (
                "classes_", "_kinds", "_label_text", "feature_names_in_", "n_features_in_")})
            if hasattr(probe, "_array_discrete"):
                encoder._array_discrete = probe._array_discrete
            # The value sets go from worker to worker, never through the client: each worker's
            # table of its own values with their orders among all the rows', and a table of
            # every value set on each worker.
            own = client.submit(_discrete_keep, keep, kinds, pure=False)
            # On every worker, so that each worker's table is built where its rows are.
            _results(client, [own], fetch=False)
            client.replicate([own])
            # Each worker's table of its own values; their continuous values (sorted as the
            # tables hold them) merged into those of all the rows.
            self._places = [w for w, d in zip(places, summaries) if d["n"] > 0]
            built = [client.submit(_build_group, encoder, g, own, workers=[w], pure=False)
                     for w, g, d in zip(places, groups, summaries) if d["n"] > 0]
            continuous = [j for j, n in enumerate(names) if kinds[n] != "discrete"]
            workers = sorted(set(self._places))
            # Each attribute's values merged on a worker of its own; each goes to every worker
            # once, as its own future.
            merged = [client.submit(_union_of, *self._on_holders(client, _table_values, built,
                                                                  att=a),
                                    workers=[workers[k % len(workers)]], pure=False)
                      for k, a in enumerate(continuous)]
            _results(client, merged, fetch=False)
            merged_at = time.perf_counter()
            holders = [client.submit(_hold_built, b, names, continuous, *merged, workers=[w],
                                     priority=1, pure=False)
                       for b, w in zip(built, self._places)]
            likes = {w: client.submit(_like_of, encoder, keep, kinds, names, continuous,
                                      *merged, workers=[w], pure=False) for w in workers}
            small, counted = _results(client, [client.submit(
                _small_keep_of, keep, kinds, names, continuous, *merged, workers=[workers[0]],
                pure=False)])[0]
            self._likes = likes
            del keep, own, merged
            # The client's table: one row, the discrete value sets and the class labels; of the
            # continuous columns only their bounds.
            meta = pd.DataFrame({n: pd.Series(
                [None if kinds[n].startswith("date") or not len(small[n][0]) else small[n][0][0]],
                dtype=object if kinds[n] == "discrete" else float) for n in names})
            meta_table = encoder._table(meta, np.zeros(1, dtype=np.int64), keep=small)
            # The root's ranges: the discrete value sets' from the client's table, the
            # continuous ones' from their sizes (the workers' tables need not be built yet).
            root = np.asarray(_core.TallyGrower.root_ranges(meta_table))
            for a, n in zip(continuous, counted):
                root[2 * a:2 * a + 2] = (1, n + 1) if n else (0, 0)
            grower = _core.TallyGrower(meta_table, float(self.confidence),
                                       float(self.min_cases), self.pruning, root)
            # Each attribute's values: what its tallies at the top levels grow with.
            widths = [int(root[2 * a + 1] - root[2 * a]) for a in range(len(names))]
            limit = HAND_OFF_CASES if self.hand_off_cases is None else int(self.hand_off_cases)
            flags = (all(d["whole"] for d in parts), all(d["unit"] for d in parts))
            self.fit_levels_ = []
            unreached = {}  # node: (future of its task's unreached forms, place in it, worker)
            # Handed subtrees grow while the levels go on; grafted once every node is decided.
            pending = []
            self._handed_load = {}
            held = self._wait(client, self._on_holders(client, _counts, holders))
            del source, groups, built
            # Seconds of reading and describing the partitions, of the workers' tables and the
            # merge of their value sets, and of the holders.
            self.fit_setup_ = {"describe": described_at - start,
                               "value_sets": merged_at - described_at,
                               "tables": time.perf_counter() - merged_at}
            while len(grower.open_ids()):
                total = {}
                for nodes, counts in held:
                    for i, c in zip(nodes.tolist(), counts.tolist()):
                        total[i] = total.get(i, 0) + c
                level = {"open_nodes": int(len(grower.open_ids())), "tally_bytes": 0,
                         "score_bytes": 0, "decision_bytes": 0, "handed_nodes": 0,
                         "handed_cases": 0, "handed_row_bytes": 0, "subtree_bytes": 0}
                small = [i for i in grower.open_ids().tolist() if 0 < total.get(i, 0) <= limit]
                t0 = time.perf_counter()
                pending += [g + (level,) for g in
                            self._hand_off(client, grower, holders, held, small, total, flags,
                                           level)]
                decisions = None
                if len(grower.open_ids()):
                    decisions = self._decide(client, grower, holders, widths,
                                             len(classes) + 1, level)
                self.fit_levels_.append(level)
                if decisions is not None and len(grower.open_ids()):
                    holders = self._on_holders(client, _applied, holders, decisions=decisions)
                    held = self._wait(client, self._on_holders(client, _counts, holders))
                level["seconds"] = time.perf_counter() - t0
            self._graft(client, grower, pending, unreached)
            self._preprune(client, grower, unreached)
            model = grower.finish()
            self._model = model
            # Sent once, not once a partition.
            [blob] = client.scatter([self.__getstate__()["_model"]], hash=False)
            matrices = self._wait(client, self._on_holders(client, _evaluate, holders,
                                                           model_bytes=blob))
            del blob
            training = matrices[0]
            for m in matrices[1:]:
                training = training + m
            _core.TallyGrower.set_training(model, training)
        except KilledWorker as e:
            raise RuntimeError(f"fit failed: workers holding the partitions were lost too often "
                               f"to recompute them ({e})") from e
        except FutureCancelledError as e:
            raise RuntimeError(f"fit failed: the cluster cancelled its work ({e}); was the "
                               "client closed or the scheduler lost?") from e
        return self

    def _on_holders(self, client, fn, futures, **kw):
        """fn of each of futures (one a holder, in the holders' order) on the holder's worker."""
        return [client.submit(fn, f, workers=[w], pure=False, **kw)
                for f, w in zip(futures, self._places)]

    def _wait(self, client, futures):
        """_results, failing clearly once a worker holding a partitions' table has left: the
        tasks pinned to it would wait for it for ever."""
        return _results(client, futures, workers=getattr(self, "_places", ()))

    @staticmethod
    def _groups(client, source, probe):
        """Each worker's partitions of source (X, y and weights, persisted) joined into one on
        that worker, so that a level costs a few tasks a worker whatever the partitions: the
        workers and the futures of their groups."""
        from distributed import futures_of
        frames = [c.to_delayed() for c in source]
        futures = {}
        for c in source:
            futures.update((f.key, f) for f in futures_of(c))
        _results(client, list(futures.values()), fetch=False)
        who = client.who_has(list(futures.values()))
        workers = sorted(client.scheduler_info()["workers"])
        mine = {w: [] for w in workers}
        unplaced = []
        for i, d in enumerate(frames[0]):
            place = sorted(who.get(str(d.key), ()) or who.get(d.key, ()))
            (mine[place[0]] if place and place[0] in mine else unplaced).append(i)
        # As many partitions a worker as can be (one more or less): the slowest worker sets the
        # pace of every level. A partition moves once, here, from a worker with too many.
        most = -(-len(frames[0]) // len(workers))
        for w in workers:
            unplaced += mine[w][most:]
            del mine[w][most:]
        for i in sorted(unplaced):
            mine[min(workers, key=lambda w: (len(mine[w]), w))].append(i)
        for w in workers:
            mine[w].sort()
        places, groups = [], []
        for w in workers:
            if not mine[w]:
                continue
            args = [futures[f[i].key] for f in frames for i in mine[w]]
            if len(frames) == 2:
                args += [None] * len(mine[w])
            places.append(w)
            groups.append(client.submit(_group, probe, mine[w], *args, workers=[w], pure=False))
        return places, groups

    def _decide(self, client, grower, holders, widths, cols, level):
        """Decides the open nodes: the attributes in one group a worker, each group's tallies
        summed in a tree reduction and searched on that worker; the client gets the groups'
        scores and chooses. widths: each attribute's number of values, to balance the groups.
        The decisions."""
        open_nodes = grower.open()
        workers = sorted(set(self._places))
        groups = [[] for _ in range(min(len(workers), len(widths)))]
        load = [0] * len(groups)
        for a in sorted(range(len(widths)), key=lambda a: (-widths[a], a)):
            k = load.index(min(load))
            groups[k].append(a)
            load[k] += widths[a] + 1
        groups = [sorted(g) for g in groups]
        scores, sizes = [], []
        for k, atts in enumerate(groups):
            w = workers[k]
            # Each holder tallies first the groups searched elsewhere, so that their transfer
            # overlaps the tallies it keeps.
            tallies = [client.submit(_tallies, h, open_nodes=open_nodes, cols=cols, only=atts,
                                     workers=[p], priority=int(p != w), pure=False)
                       for h, p in zip(holders, self._places)]
            sizes += self._on_holders(client, _nbytes, tallies)
            # Summed and searched in one task where the group's search runs: the holders'
            # tallies cross the network once.
            scores.append(client.submit(_sum_score, self._likes[w], open_nodes, atts,
                                        float(self.min_cases), *tallies, workers=[w],
                                        pure=False))
            del tallies  # each holder's tallies freed once summed
        scored = self._wait(client, scores)
        decisions = grower.decide_scored(scored)
        level["tally_bytes"] = int(sum(self._wait(client, sizes)))
        level["score_bytes"] = int(sum(_score_bytes(s) for s in scored))
        level["decision_bytes"] = int(decisions[0].nbytes + decisions[2].nbytes +
                                      sum(len(t) for t in decisions[1]))
        return decisions

    def _hand_off(self, client, grower, holders, held, small, total, flags, level):
        """Hands the small open nodes out to the workers, largest first to the least loaded
        (counting the cases handed to each at earlier levels), one growing task a worker; each
        holder sends its cases of a worker's nodes straight there. The (node numbers, future of
        their subtrees, futures of the sizes of the rows that moved) of each task."""
        if not small:
            return []
        place = self._places
        workers = sorted(set(place))
        load = self._handed_load
        mine = {w: [] for w in workers}
        for i in sorted(small, key=lambda i: (-total[i], i)):
            w = min(workers, key=lambda w: (load.get(w, 0), w))
            load[w] = load.get(w, 0)
            load[w] += total[i]
            mine[w].append(i)
        holds = [set(nodes.tolist()) for nodes, _ in held]
        out = []
        for w in workers:
            ids = mine[w]
            if not ids:
                continue
            nodes, known, bounds, reach = grower.hand_off(ids)
            # Each case keyed by its row among all the rows: the grower puts every node's cases
            # in the order one table of all the rows holds them.
            sources = [(h, p) for h, p, has in zip(holders, place, holds)
                       if not has.isdisjoint(ids)]
            parts = [client.submit(_rows_of, h, ids, workers=[p], pure=False)
                     for h, p in sources]
            away = [(part, p) for part, (_, p) in zip(parts, sources) if p != w]
            grown = client.submit(_grow_handed, self._likes[w], nodes, known, bounds, reach,
                                  float(self.confidence), float(self.min_cases), self.pruning,
                                  flags[0], flags[1], *parts, workers=[w], pure=False)
            out.append((ids, grown, [client.submit(_nbytes, part, workers=[p], pure=False)
                                     for part, p in away], w))
            level["handed_nodes"] += len(ids)
            level["handed_cases"] += int(sum(total[i] for i in ids))
        return out

    def _graft(self, client, grower, grown, unreached):
        """Grafts the settled subtrees, counting what moved in the level that handed them out;
        their forms without prepruning stay on the workers (in unreached, by node) until the
        whole tree's prepruning tells which it needs."""
        for ids, subtrees, sizes, w, level in grown:
            settled = client.submit(_settled, subtrees, workers=[w], pure=False)
            forms = client.submit(_unreached_forms, subtrees, workers=[w], pure=False)
            unreached.update((i, (forms, k, w)) for k, i in enumerate(ids))
            blobs = self._wait(client, [settled])[0]
            del settled
            level["handed_row_bytes"] += int(sum(self._wait(client, sizes)))
            with tempfile.TemporaryDirectory() as d:
                p = os.path.join(d, "subtree.tree")
                for i, (blob, value) in zip(ids, blobs):
                    level["subtree_bytes"] += len(blob)
                    with open(p, "wb") as f:
                        f.write(blob)
                    grower.graft(i, p, value)

    def _preprune(self, client, grower, unreached):
        """The whole tree's prepruning; the settled subtrees it does not reach take their forms
        grown without it."""
        ids = grower.preprune().tolist()
        forms = self._wait(client, [client.submit(_item, f, k, workers=[w], pure=False)
                                    for f, k, w in (unreached[i] for i in ids)])
        unreached.clear()
        with tempfile.TemporaryDirectory() as d:
            p = os.path.join(d, "subtree.tree")
            for i, blob in zip(ids, forms):
                if blob is not None:
                    with open(p, "wb") as f:
                        f.write(blob)
                grower.regraft(i, p if blob is not None else "")

    def predict_proba(self, X):
        if not _is_dask_collection(X):
            return super().predict_proba(X)
        return self._per_partition(X, True)

    def predict(self, X):
        if not _is_dask_collection(X):
            return super().predict(X)
        return self._per_partition(X, False)

    def _per_partition(self, X, proba):
        import dask.array as da
        from sklearn.utils.validation import check_is_fitted
        check_is_fitted(self, "_model")
        local = _LocalTreeClassifier()
        state = self.__getstate__()
        state.pop("client", None)
        local.__setstate__(state)
        parts = X.to_delayed()
        arrays = []
        for part in parts:
            d = _delayed(_predict_part)(local, part, proba)
            shape = (np.nan, len(self.classes_)) if proba else (np.nan,)
            arrays.append(da.from_delayed(d, shape=shape,
                                          dtype=float if proba else self.classes_.dtype))
        return da.concatenate(arrays)


def _results(client, futures, fetch=True, workers=()):
    """The futures' results (or only their completion), waiting in short steps so that a client
    that closes or loses its scheduler, or a worker among workers that leaves, ends the wait
    with an error instead of a hang."""
    from distributed import wait
    from distributed.client import TimeoutError as DaskTimeout
    while True:
        if client.status != "running":
            raise RuntimeError(f"fit failed: the client is {client.status} (closed, or its "
                               "connection to the scheduler lost)")
        try:
            wait(futures, timeout=1)
            break
        except (DaskTimeout, TimeoutError):
            lost = set(workers) - set(client.scheduler_info()["workers"])
            if lost:
                raise RuntimeError(f"fit failed: worker {sorted(lost)[0]} left the cluster with "
                                   "the tables of its partitions; fit again") from None
            continue
    return client.gather(futures) if fetch else None


def _nbytes(t):
    return t[0].nbytes + t[1].nbytes + t[2].nbytes


def _delayed(f):
    from dask import delayed
    return delayed(f, pure=False)
