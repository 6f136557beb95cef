"""brix.TreeClassifier: scikit-learn's estimator checks, the trees and scores of brixcmd on every
dataset, and the errors users meet."""
import os
import subprocess

import numpy as np
import pandas as pd
import pytest
from sklearn.model_selection import cross_val_score
from sklearn.utils.estimator_checks import check_estimator

import brix

BRIXCMD = os.environ.get("BRIXCMD", "build/brixcmd")
ROOT = os.path.join(os.path.dirname(__file__), "..", "..")
SHARED = os.environ.get("BRIX_SHARED_DATA", os.path.join(ROOT, "..", "shared", "data"))
PRUNING = {"error": [], "full": ["-c4.5"], "none": ["-np"]}


def read_stem(stem, data_file=None):
    """A .names/.data pair as pandas reads it: the declared kinds give the dtypes."""
    names = [line.strip().split(",") for line in open(stem + ".names") if line.strip()]
    dtypes = {}
    for name, typ, kind in (n[:3] for n in names):
        if kind in ("discrete", "class", "ignore"):
            dtypes[name] = str
        elif typ in ("integer", "uinteger"):
            dtypes[name] = "Int64"
        else:
            dtypes[name] = float
    path = data_file or (stem + ".data" if os.path.exists(stem + ".data") else stem + ".data.gz")
    df = pd.read_csv(path, header=None, names=[n[0] for n in names], dtype=dtypes,
                     na_values=["?"], keep_default_na=False)
    for name, _, kind in (n[:3] for n in names):
        if kind == "discrete":
            df[name] = df[name].astype("category")
    cls = next(n[0] for n in names if n[2] == "class")
    weights = next((n[0] for n in names if n[2] == "weights"), None)
    ignored = [n[0] for n in names if n[2] == "ignore"]
    X = df.drop(columns=[cls] + ignored + ([weights] if weights else []))
    return X, df[cls], (df[weights] if weights else None)


def brixcmd(*args):
    return subprocess.run([BRIXCMD, *args], check=True, capture_output=True, text=True).stdout


def tree_of(report):
    return report.split("Decision Tree\n\n", 1)[1]


def stems():
    """The examples, then the shared datasets when they are there."""
    found = [os.path.join(ROOT, "examples", name) for name in ("golf", "iris", "votes")]
    if os.path.isdir(SHARED):
        found += sorted(os.path.join(SHARED, f[:-6]) for f in os.listdir(SHARED)
                        if f.endswith(".names") and f != "syn_agrawal_f2_1m.names")
    return found


def test_scikit_learn_estimator_checks():
    check_estimator(brix.TreeClassifier())


CASES = [(stem, p) for stem in stems() for p in sorted(PRUNING)]


@pytest.mark.parametrize("stem,pruning", CASES,
                         ids=[f"{os.path.basename(s)}-{p}" for s, p in CASES])
def test_trees_and_scores_are_those_of_brixcmd(stem, pruning, tmp_path):
    X, y, w = read_stem(stem)
    clf = brix.TreeClassifier(pruning=pruning).fit(X, y, sample_weight=w)
    assert clf.export_text() == tree_of(brixcmd("-f", stem, "-tstd", *PRUNING[pruning]))
    if not os.path.exists(stem + ".test"):
        return
    Xt, _, _ = read_stem(stem, stem + ".test")
    proba = clf.predict_proba(Xt)
    scores = tmp_path / "scores"
    brixcmd("-f", stem, "-fs", stem + ".test", "-s", str(scores), *PRUNING[pruning])
    for p, line in zip(proba, open(scores)):
        cls, figure = line.rstrip("\n").rsplit(",", 2)[1:]
        best = int(np.argmax(p))
        assert str(clf.classes_[best]) == cls
        assert f"{np.float32(p[best]).item():.6g}" == figure
        assert abs(p.sum() - 1) < 1e-6


def test_frames_arrays_and_scikit_learn_tools():
    # Cloning, parameters and pickling are among the estimator checks above.
    X, y, _ = read_stem(os.path.join(ROOT, "examples", "iris"))
    clf = brix.TreeClassifier(n_jobs=2).fit(X, y)
    assert list(clf.feature_names_in_) == list(X.columns)
    assert clf.export_text() == brix.TreeClassifier().fit(X.to_numpy(), y).export_text().replace(
        "x3", "petalwidth").replace("x2", "petallength").replace("x1", "sepalwidth").replace(
        "x0", "sepallength")
    assert abs(clf.feature_importances_.sum() - 1) < 1e-9
    assert clf.attribute_usage_.max() == 1
    assert cross_val_score(brix.TreeClassifier(), X, y, cv=5).mean() > 0.85
    for text in (clf.export_dot(max_depth=1), clf.export_pmml(), clf.to_json()):
        assert "petalwidth" in text


def test_saved_model_reads_in_brixcmd(tmp_path):
    # The model's columns are the frame's, then the class: iris has that layout already.
    stem = os.path.join(ROOT, "examples", "iris")
    X, y, _ = read_stem(stem)
    clf = brix.TreeClassifier().fit(X, y)
    clf.save(tmp_path / "iris.tree")
    assert brixcmd("-bt", str(tmp_path / "iris.tree"), "-ft", stem + ".test", "-tstd") == \
        brixcmd("-f", stem, "-ft", stem + ".test", "-tstd")
    loaded = brix.TreeClassifier.load(tmp_path / "iris.tree")
    assert loaded.export_text() == clf.export_text()
    assert (loaded.predict_proba(X) == clf.predict_proba(X)).all()


def test_bad_input_raises_clear_errors():
    X = np.array([[1.0, 2.0], [3.0, 4.0], [5.0, 6.0]])
    clf, inf = brix.TreeClassifier().fit(X, [0, 1, 1]), np.array([[1.0], [np.inf], [2.0]])
    for match, call in [
            ("NaN", lambda: brix.TreeClassifier().fit(X, [1.0, np.nan, 2.0])),
            ("infinity", lambda: brix.TreeClassifier().fit(inf, [0, 1, 0])),
            ("features", lambda: clf.predict(np.ones((2, 3)))),
            ("0 sample", lambda: clf.predict(np.ones((0, 2)))),
            ("pruning", lambda: brix.TreeClassifier(pruning="maybe").fit(X, [0, 1, 1])),
            ("min_cases", lambda: brix.TreeClassifier(min_cases=1).fit(X, [0, 1, 1]))]:
        with pytest.raises(ValueError, match=match):
            call()


def test_large_weights_count_relatively_and_do_not_warn():
    # Weights are scaled to average 1 over the samples that weigh anything: 5e6 apiece is
    # no longer past the 2**24 that 32-bit sums count exactly.
    X, y = np.array([[1.0], [2.0], [3.0], [4.0]]), [0, 0, 1, 1]
    import warnings
    with warnings.catch_warnings():
        warnings.simplefilter("error", RuntimeWarning)
        clf = brix.TreeClassifier().fit(X, y, sample_weight=[5e6] * 4)
    assert clf.export_text() == brix.TreeClassifier().fit(X, y).export_text()
