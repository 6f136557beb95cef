"""brix.TreeClassifier with trials (boosting) and class_weight, and sample weights that count
relatively: scikit-learn's checks, the equivalences that define them, round trips, and the
scikit-learn ensembles that collapsed when weights summed to 1."""
import os
import pickle

import numpy as np
import pandas as pd
import pytest
from sklearn.ensemble import AdaBoostClassifier, BaggingClassifier
from sklearn.utils.estimator_checks import check_estimator

import brix
from test_tree_classifier import SHARED, read_stem


def blobs(n=300, seed=3):
    rng = np.random.default_rng(seed)
    X = rng.normal(size=(n, 3))
    y = np.where(X[:, 0] + 0.5 * X[:, 1] + rng.normal(scale=0.7, size=n) > 0.3, "hi", "lo")
    return X, y


@pytest.mark.parametrize("params", [{"trials": 3}, {"class_weight": "balanced"},
                                    {"trials": 4, "class_weight": "balanced"}], ids=str)
def test_scikit_learn_estimator_checks(params):
    check_estimator(brix.TreeClassifier(**params))


def test_weights_count_relatively():
    X, y = blobs()
    w = np.random.default_rng(1).integers(1, 4, len(y)).astype(float)
    base = brix.TreeClassifier().fit(X, y, sample_weight=w).export_text()
    # Any scale gives the same tree, as AdaBoostClassifier's weights summing to 1 do.
    for scale in (1e-3, 1.0 / w.sum(), 1e4):
        assert brix.TreeClassifier().fit(X, y, sample_weight=w * scale).export_text() == base
    # Samples of weight 0 are as good as absent (though a cut may fall on one of their values).
    keep = np.arange(len(y)) % 3 != 0
    zeroed = np.where(keep, w, 0.0)
    assert (brix.TreeClassifier().fit(X, y, sample_weight=zeroed).predict_proba(X[keep]) ==
            brix.TreeClassifier().fit(X[keep], y[keep], sample_weight=w[keep])
            .predict_proba(X[keep])).all()


def test_class_weight_is_a_weight_per_class():
    X, y = blobs()
    n_hi = np.sum(y == "hi")
    balanced = np.where(y == "hi", len(y) / (2.0 * n_hi), len(y) / (2.0 * (len(y) - n_hi)))
    cases = [("balanced", balanced), ({"lo": 3.0}, np.where(y == "lo", 3.0, 1.0)),
             ({"hi": 0.5, "absent": 9.0}, np.where(y == "hi", 0.5, 1.0))]
    for class_weight, w in cases:
        by_class = brix.TreeClassifier(class_weight=class_weight).fit(X, y)
        by_sample = brix.TreeClassifier().fit(X, y, sample_weight=w)
        assert by_class.export_text() == by_sample.export_text(), class_weight
    # With sample weights too, the two multiply.
    sw = np.linspace(0.5, 2.0, len(y))
    assert (brix.TreeClassifier(class_weight={"lo": 3.0}).fit(X, y, sample_weight=sw)
            .export_text() ==
            brix.TreeClassifier().fit(X, y, sample_weight=sw * np.where(y == "lo", 3.0, 1.0))
            .export_text())
    with pytest.raises(ValueError, match="class_weight must be"):
        brix.TreeClassifier(class_weight="even").fit(X, y)


def test_trials_boost_deterministically_and_round_trip(tmp_path):
    X, y = blobs(400)
    X = pd.DataFrame(X, columns=["a", "b", "c"])
    one = brix.TreeClassifier(trials=6).fit(X, y)
    two = brix.TreeClassifier(trials=6, n_jobs=2).fit(X, y)
    assert one.to_json() == two.to_json()
    p = one.predict_proba(X)
    assert np.allclose(p.sum(axis=1), 1.0)
    assert (one.predict(X) == one.classes_[np.argmax(p, axis=1)]).all()
    assert "<Segmentation multipleModelMethod=\"weightedMajorityVote\">" in one.export_pmml()
    assert one.export_text().startswith("Boosting: 6 trials asked")
    with pytest.raises(AttributeError, match="no single tree"):
        one.get_depth()

    path = tmp_path / "boosted.model"
    one.save(path)
    back = brix.TreeClassifier.load(path)
    assert back.trials == 6 and list(back.classes_) == list(one.classes_)
    assert (back.predict_proba(X) == p).all()
    again = pickle.loads(pickle.dumps(one))
    assert (again.predict_proba(X) == p).all()


@pytest.mark.parametrize("name", ["mlb_pima", "mlb_letter"])
def test_scikit_learn_ensembles_beat_the_single_tree(name):
    stem = os.path.join(SHARED, name)
    if not os.path.exists(stem + ".test"):
        pytest.skip(f"{stem}.test not found")
    X, y, _ = read_stem(stem)
    Xt, yt, _ = read_stem(stem, stem + ".test")

    def error(est):
        return np.mean(est.fit(X, y).predict(Xt) != yt)

    tree = error(brix.TreeClassifier())
    assert error(AdaBoostClassifier(brix.TreeClassifier(), n_estimators=10,
                                    algorithm="SAMME")) <= tree
    assert error(BaggingClassifier(brix.TreeClassifier(), random_state=0)) <= tree
    assert error(brix.TreeClassifier(trials=10)) <= tree
