"""brix.RulesClassifier: the estimator checks, the ruleset of brix train --rules on the same
rows, boosted rulesets as brix train --trials --rules makes them, files and pickles that
round-trip, and the tree-only parts refused."""
import json
import os
import pickle
import subprocess

import numpy as np
import pytest
from sklearn.utils.estimator_checks import check_estimator

import brix
from test_tree_classifier import BRIXCMD, ROOT, read_stem

BRIX = os.path.join(os.path.dirname(BRIXCMD), "brix")
EXAMPLES = os.path.join(ROOT, "examples")


@pytest.mark.parametrize("trials", [1, 3])
def test_scikit_learn_estimator_checks(trials):
    check_estimator(brix.RulesClassifier(trials=trials))


@pytest.mark.parametrize("name", ["golf", "iris", "votes"])
def test_the_ruleset_of_the_command_and_its_probabilities(name, tmp_path):
    stem = os.path.join(EXAMPLES, name)
    X, y, _ = read_stem(stem)
    clf = brix.RulesClassifier().fit(X, y)
    report = json.loads(subprocess.run(
        [BRIX, "train", stem, "--rules", "--quiet", "--report", "json", "--model",
         str(tmp_path / "m.rules")], check=True, capture_output=True, text=True).stdout)
    ours = json.loads(clf.to_json())
    assert ours["rules"] == report["ruleset"]["rules"]
    assert clf.n_rules_ < report["tree_leaves"] or report["tree_leaves"] == 1
    # The command's file in Python: the same probabilities; the class is the first largest.
    loaded = brix.RulesClassifier.load(tmp_path / "m.rules")
    p = clf.predict_proba(X)
    np.testing.assert_array_equal(p, loaded.predict_proba(X))
    np.testing.assert_allclose(p.sum(axis=1), 1.0, atol=1e-12)
    np.testing.assert_array_equal(clf.predict(X), clf.classes_[np.argmax(p, axis=1)])
    assert "<RuleSetModel" in clf.export_pmml()


def test_boosted_rulesets_of_the_command_and_their_files(tmp_path):
    stem = os.path.join(EXAMPLES, "votes")
    X, y, _ = read_stem(stem)
    clf = brix.RulesClassifier(trials=4).fit(X, y)
    again = brix.RulesClassifier(trials=4, n_jobs=2).fit(X, y)
    report = json.loads(subprocess.run(
        [BRIX, "train", stem, "--rules", "--trials", "4", "--quiet", "--report", "json",
         "--model", str(tmp_path / "m.bm")], check=True, capture_output=True, text=True).stdout)
    ours = json.loads(clf.to_json())
    assert ours == json.loads(again.to_json())

    def rulesets(model):  # the table's and class column's names aside
        return [(t["vote"], t["error"], {k: v for k, v in t["ruleset"].items()
                                         if k not in ("name", "class")}) for t in model["trials"]]
    assert rulesets(ours) == rulesets(report["model"])
    assert clf.n_rules_ == report["rules"]
    assert all("ruleset" in t for t in ours["trials"])
    loaded = brix.RulesClassifier.load(tmp_path / "m.bm")
    np.testing.assert_array_equal(clf.predict_proba(X), loaded.predict_proba(X))
    np.testing.assert_array_equal(clf.predict(X), pickle.loads(pickle.dumps(clf)).predict(X))
    assert clf.export_pmml().count("<RuleSetModel") == len(ours["trials"])
    with pytest.raises(ValueError, match="boosted rulesets, not trees"):
        brix.TreeClassifier.load(tmp_path / "m.bm")
    brix.TreeClassifier(trials=3).fit(X, y).save(tmp_path / "trees.bm")
    with pytest.raises(ValueError, match="boosted trees, not rulesets"):
        brix.RulesClassifier.load(tmp_path / "trees.bm")


def test_pickles_files_and_refusals(tmp_path):
    X, y, _ = read_stem(os.path.join(EXAMPLES, "iris"))
    clf = brix.RulesClassifier().fit(X, y)
    again = pickle.loads(pickle.dumps(clf))
    np.testing.assert_array_equal(clf.predict_proba(X), again.predict_proba(X))
    clf.save(tmp_path / "iris.rules")
    brix.TreeClassifier().fit(X, y).save(tmp_path / "iris.tree")
    with pytest.raises(ValueError, match="tree"):
        brix.TreeClassifier.load(tmp_path / "iris.rules")
    with pytest.raises(ValueError, match="not a ruleset file"):
        brix.RulesClassifier.load(tmp_path / "iris.tree")
    for missing in ("feature_importances_", "apply", "get_depth"):
        assert not hasattr(clf, missing)
