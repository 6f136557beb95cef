"""brix.TreeClassifier's columns as the library receives them (category codes, factorised texts,
NumPy numbers, kinds by name, unknown values, class labels) and the tree's shape: depth, leaves,
size, apply and decision_path."""
import os
import warnings

import numpy as np
import pandas as pd
import pytest

import brix
from test_tree_classifier import ROOT, brixcmd, read_stem, stems, tree_of


def as_objects(X, y):
    """The same values as plain object columns (factorised by the package) and NumPy integers."""
    X = X.copy()
    for c in X.columns:
        if isinstance(X[c].dtype, pd.CategoricalDtype):
            X[c] = X[c].astype(object)
        elif X[c].dtype == "Int64" and not X[c].isna().any():
            X[c] = X[c].astype(np.int64)
    return X, y.astype(object)


@pytest.mark.parametrize("stem", stems(), ids=os.path.basename)
def test_object_columns_grow_the_trees_of_brixcmd(stem):
    X, y, w = read_stem(stem)
    X, y = as_objects(X, y)
    clf = brix.TreeClassifier().fit(X, y, sample_weight=w)
    assert clf.export_text() == tree_of(brixcmd("-f", stem, "-tstd"))


def test_columns_are_matched_by_name_not_position():
    rng = np.random.default_rng(7)
    a, b = rng.integers(0, 50, 300), rng.uniform(0, 50, 300)
    X = pd.DataFrame({"a": a, "b": b})
    clf = brix.TreeClassifier().fit(X, (b > a).astype(int) + (b % 5 > 2.5))
    assert (clf.predict_proba(X[["b", "a"]]) == clf.predict_proba(X)).all()
    with pytest.raises(ValueError, match="column 'c'"):
        clf.predict(X.rename(columns={"b": "c"}))


def test_unknown_values_of_every_kind_are_unknown_not_categories():
    base = ["p"] * 4 + ["q"] * 4 + ["?"] * 5
    y = [0] * 4 + [1] * 4 + [0, 1, 0, 1, 1]
    holes = {8: None, 9: np.float32("nan"), 10: pd.NaT, 11: pd.NA, 12: float("nan")}
    mixed = pd.DataFrame({"c": pd.Series([holes.get(i, v) for i, v in enumerate(base)],
                                         dtype=object)})
    nones = pd.DataFrame({"c": [None if i in holes else v for i, v in enumerate(base)]})
    want = brix.TreeClassifier(min_cases=1.01).fit(nones, y)
    got = brix.TreeClassifier(min_cases=1.01).fit(mixed, y)
    assert got.export_text() == want.export_text()
    assert "c = p" in got.export_text() and "nan" not in got.export_text()
    assert (got.predict_proba(mixed) == want.predict_proba(nones)).all()


def test_bad_columns_labels_and_weights_are_refused_by_name():
    X = pd.DataFrame({"x": [1.0, 2.0, 3.0, 4.0]})
    for match, call in [
            ("column 'c' holds 1 and '1'",
             lambda: brix.TreeClassifier().fit(pd.DataFrame({"c": [1, "1", 2, 2]}), [0, 1, 0, 1])),
            ("sample_weight is 0 for every sample",
             lambda: brix.TreeClassifier().fit(X, [0, 1, 0, 1], sample_weight=np.zeros(4))),
            ("column 'kind' holds 2 unknown class values",
             lambda: brix.TreeClassifier().fit(X, pd.Series(["a", None, "b", np.nan],
                                                            name="kind"))),
            ("Input y contains NaN: column 'y' holds 1 unknown class value",
             lambda: brix.TreeClassifier().fit(X, [0.0, 1.0, np.nan, 1.0]))]:
        with pytest.raises(ValueError, match=match):
            call()


@pytest.mark.parametrize("labels", [[2, 10], list(range(5, 15))], ids=["2", "10"])
def test_classes_keep_their_order_through_prediction_and_model_files(labels, tmp_path):
    # Labels whose texts sort otherwise than their values ("10" < "2"): the model orders its
    # classes by text, classes_ by value.
    X = np.repeat(np.arange(len(labels)) * 10.0, 4).reshape(-1, 1)
    y = np.repeat(labels, 4)
    clf = brix.TreeClassifier(min_cases=1.01).fit(X, y)
    assert list(clf.classes_) == labels
    assert (clf.predict(X) == y).all()
    assert (clf.classes_[clf.predict_proba(X).argmax(axis=1)] == y).all()
    clf.save(tmp_path / "m.tree")
    loaded = brix.TreeClassifier.load(tmp_path / "m.tree")
    assert loaded.classes_.dtype == np.int64
    assert (loaded.predict(X) == y).all()


@pytest.mark.parametrize("labels,dtype", [
    ([3, -1, 20], np.int64),
    ([-1.0, 1.0, 10.0], np.float64),  # scikit-learn takes only whole floats as labels
    (["a", "b", "c"], object),
    (["01", "1", "2"], object),  # not the texts str() gives integers
    (["1", "x", "2"], object),
    (["nan", "1.0", "2.0"], object),
], ids=["int", "float", "text", "padded", "mixed", "nan"])
def test_load_gives_labels_back_as_numbers_when_every_one_reads_as_one(labels, dtype, tmp_path):
    X = np.arange(6, dtype=float).reshape(-1, 1)
    y = np.asarray(labels * 2, dtype=dtype)
    clf = brix.TreeClassifier(min_cases=1.01).fit(X, y)
    clf.save(tmp_path / "m.tree")
    loaded = brix.TreeClassifier.load(tmp_path / "m.tree")
    assert loaded.classes_.dtype == np.dtype(dtype)
    assert list(loaded.classes_) == list(clf.classes_)
    assert (loaded.predict(X) == clf.predict(X)).all()


def test_dates_are_days_since_1970_with_a_warning():
    days = pd.to_datetime(["2020-01-01", "2020-01-05", None, "2020-02-01", "2020-03-01",
                           "2020-03-02"])
    y = [0, 0, 1, 1, 1, 1]
    trees = []
    for shift, threshold in [(pd.Timedelta(0), "18266 "), (pd.Timedelta(hours=6), "18266.25")]:
        X = pd.DataFrame({"when": days + shift})
        with pytest.warns(UserWarning, match="column 'when' holds dates"):
            clf = brix.TreeClassifier(min_cases=1.01).fit(X, y)
        assert f"when <= {threshold}" in clf.export_text()
        assert list(clf.predict(X)) == y
        trees.append(clf.export_text())
    # The same days given as whole numbers grow the same tree, with no warning.
    numbers = pd.DataFrame({"when": pd.Series((days - pd.Timestamp("1970-01-01")).days,
                                              dtype="Int64")})
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        assert brix.TreeClassifier(min_cases=1.01).fit(numbers, y).export_text() == trees[0]


@pytest.mark.parametrize("counts,unknown_leaf", [((2, 4, 2), 2), ((3, 3, 2), 1)],
                         ids=["largest share", "tie to the lowest"])
def test_apply_and_decision_path_follow_every_branch_of_an_unknown(counts, unknown_leaf):
    nx, ny, nz = counts
    X = pd.DataFrame({"c": ["x"] * nx + ["y"] * ny + ["z"] * nz})
    clf = brix.TreeClassifier(min_cases=1.01).fit(X, [0] * nx + [1] * ny + [0] * nz)
    assert (clf.get_depth(), clf.get_n_leaves(), clf.tree_size_) == (1, 3, 4)
    Xt = pd.DataFrame({"c": ["x", "y", "z", None, "never seen"]})
    assert list(clf.apply(Xt)) == [1, 2, 3, unknown_leaf, unknown_leaf]
    assert clf.decision_path(Xt).toarray().tolist() == [
        [1, 1, 0, 0], [1, 0, 1, 0], [1, 0, 0, 1], [1, 1, 1, 1], [1, 1, 1, 1]]


def test_paths_agree_with_the_tree_on_a_real_table():
    X, y, _ = read_stem(os.path.join(ROOT, "examples", "votes"))
    clf = brix.TreeClassifier().fit(X, y)
    paths, leaves = clf.decision_path(X).toarray(), clf.apply(X)
    assert paths.shape == (len(X), clf.tree_size_)
    assert (paths[:, 0] == 1).all()
    assert (paths[np.arange(len(X)), leaves] == 1).all()
    # Rows without unknown values take one path: as many nodes as its leaf's depth, plus one.
    known = ~X.isna().any(axis=1).to_numpy()
    assert paths[known].sum(axis=1).max() <= clf.get_depth() + 1
    # Nodes no row passes on from are leaves; every leaf holds training rows here.
    assert len(np.unique(leaves)) <= clf.get_n_leaves() < clf.tree_size_


@pytest.mark.parametrize("X,y,Xt,leaves", [
    # Integer thresholds read fractions and values past 32 bits on their side.
    ([[1], [2], [3], [4]], [0, 0, 1, 1], [[1.5], [2], [2.5], [3], [1e12], [-1e12], [np.nan]],
     [1, 1, 1, 2, 2, 1, 1]),
    ([[0.5], [1.5], [2.5], [3.5]], [0, 0, 1, 1], [[1.5], [1.50001], [-7], [9], [np.nan]],
     [1, 2, 1, 2, 1]),
], ids=["integer", "float"])
def test_apply_reads_thresholds_in_the_values_of_the_table_given(X, y, Xt, leaves):
    clf = brix.TreeClassifier(min_cases=1.01).fit(np.asarray(X), y)
    assert clf.tree_size_ == 3
    Xt = np.asarray(Xt, dtype=float)
    assert list(clf.apply(Xt)) == leaves
    assert list(clf.predict(Xt)) == [clf.classes_[leaf - 1] for leaf in leaves]


def test_rows_of_one_leaf_share_its_prediction():
    X, y, _ = read_stem(os.path.join(ROOT, "examples", "iris"))
    clf = brix.TreeClassifier().fit(X, y)
    Xt = X + np.random.default_rng(3).normal(0, 0.3, X.shape)  # values the tree never saw
    leaves, proba = clf.apply(Xt), clf.predict_proba(Xt)
    assert len(np.unique(leaves)) > 2
    for leaf in np.unique(leaves):
        assert (proba[leaves == leaf] == proba[leaves == leaf][0]).all()
