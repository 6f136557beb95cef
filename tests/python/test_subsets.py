"""TreeClassifier(subsets=True): categorical columns split on groups of values, the model file
round trip, rulesets, and the Dask estimator that refuses the option."""
import numpy as np
import pandas as pd
import pytest

import brix

# make a and b: class y; c and d: class n (17 rows).
MAKES = pd.DataFrame({"make": pd.Categorical(["a"] * 4 + ["b"] * 4 + ["c"] * 6 + ["d"] * 3)})
LABELS = np.array(["y"] * 8 + ["n"] * 9)


def test_groups_of_values_and_round_trip(tmp_path):
    plain = brix.TreeClassifier(pruning="none").fit(MAKES, LABELS)
    grouped = brix.TreeClassifier(pruning="none", subsets=True).fit(MAKES, LABELS)
    assert "make in {a, b}" in grouped.export_text()
    assert "make = c" in plain.export_text() and "make in" not in plain.export_text()
    assert 'booleanOperator="isIn"' in grouped.export_pmml()
    path = tmp_path / "grouped.tree"
    grouped.save(str(path))
    back = brix.TreeClassifier.load(str(path))
    np.testing.assert_array_equal(grouped.predict_proba(MAKES), back.predict_proba(MAKES))
    # A make never seen follows both branches by their weights.
    unseen = pd.DataFrame({"make": pd.Categorical(["zz"])})
    assert back.predict_proba(unseen)[0][1] == pytest.approx(8 / 17, abs=1e-6)


def test_rules_test_groups(tmp_path):
    rules = brix.RulesClassifier(pruning="none", subsets=True).fit(MAKES, LABELS)
    assert "make in {a, b}" in rules.export_text() or "make in {c, d}" in rules.export_text()
    np.testing.assert_array_equal(rules.predict(MAKES), LABELS)
    path = tmp_path / "grouped.rules"
    rules.save(str(path))
    back = brix.RulesClassifier.load(str(path))
    assert back.export_text() == rules.export_text()


def test_dask_collections_refuse_subsets():
    dd = pytest.importorskip("dask.dataframe")
    from brix import dask as brix_dask
    frame = dd.from_pandas(MAKES, npartitions=1)
    labels = dd.from_pandas(pd.Series(LABELS), npartitions=1)
    with pytest.raises(ValueError, match="subsets=True is not supported on Dask"):
        brix_dask.TreeClassifier(subsets=True, client=object()).fit(frame, labels)
