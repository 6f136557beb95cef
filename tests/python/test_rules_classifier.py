"""brix.RulesClassifier: the estimator checks, the ruleset of brix train --rules on the same
rows, files and pickles that round-trip, and the tree-only parts refused."""
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


def test_scikit_learn_estimator_checks():
    check_estimator(brix.RulesClassifier())


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
