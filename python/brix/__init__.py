"""Brix: C4.5-style classification trees for Python.

Gain ratio, binary cuts on continuous attributes, one branch per value of a categorical one,
unknown values carried down every branch with fractional weights, and error-based pruning; the
trees are exactly those of the ``brixcmd`` command on the same values.
"""
import os
import tempfile
import warnings

import numpy as np
from sklearn.base import BaseEstimator, ClassifierMixin
from sklearn.exceptions import DataConversionWarning
from sklearn.utils.multiclass import check_classification_targets
from sklearn.utils.validation import check_is_fitted

from . import _core

__all__ = ["TreeClassifier"]
__version__ = "1.2.5"


def _is_frame(X):
    return hasattr(X, "columns") and hasattr(X, "dtypes")


class TreeClassifier(ClassifierMixin, BaseEstimator):
    """A C4.5-style decision tree classifier.

    confidence: pruning confidence level in (0, 1]; smaller prunes more.
    min_cases: least training weight on two branches of a split, above 1.
    pruning: "error" (by estimated error), "full" (also raises subtrees) or "none".
    n_jobs: threads that grow the tree (the tree is the same).
    categorical_features: for arrays, the indices of the columns that are categorical;
        DataFrame columns of category, object, string and bool dtypes always are.
    """

    def __init__(self, confidence=0.25, min_cases=2.0, pruning="error", n_jobs=1,
                 categorical_features=None):
        self.confidence = confidence
        self.min_cases = min_cases
        self.pruning = pruning
        self.n_jobs = n_jobs
        self.categorical_features = categorical_features

    # ------------------------------------------------------------------ tables

    def _columns(self, X, fitting):
        """(name, values, categorical) per column, checked."""
        if _is_frame(X):
            names = [str(c) for c in X.columns]
            cols = [X[c] for c in X.columns]
            import pandas as pd
            numeric = pd.api.types.is_numeric_dtype
            cats = [not numeric(c.dtype) or pd.api.types.is_bool_dtype(c.dtype) for c in cols]
            values = [c.to_numpy(dtype=object) if cat else c.to_numpy(dtype=float, na_value=np.nan)
                      for c, cat in zip(cols, cats)]
            if fitting:
                self.feature_names_in_ = np.asarray(names, dtype=object)
        else:
            if hasattr(X, "toarray") or hasattr(X, "tocsr"):
                raise TypeError("sparse input is not supported; pass a dense array")
            X = np.asarray(X, dtype=object if self.categorical_features else None)
            if X.ndim != 2:
                raise ValueError(f"Expected 2D array, got {X.ndim}D array instead. Reshape your "
                                 "data with array.reshape(-1, 1) or array.reshape(1, -1).")
            if X.dtype.kind == "c":
                raise ValueError("Complex data not supported")
            if X.dtype.kind in "OUS" and not self.categorical_features:
                try:
                    X = X.astype(float)
                except TypeError as e:
                    raise TypeError(f"{e} (name categorical columns in categorical_features)")
                except ValueError as e:
                    raise ValueError(f"{e} (name categorical columns in categorical_features)")
            names = [f"x{i}" for i in range(X.shape[1])]
            cat = set(self.categorical_features or [])
            cats = [i in cat for i in range(X.shape[1])]
            values = [X[:, i] if cats[i] else X[:, i].astype(float) for i in range(X.shape[1])]
        if fitting:
            self.n_features_in_ = len(names)
        elif len(names) != self.n_features_in_:
            raise ValueError(f"X has {len(names)} features, but {type(self).__name__} is "
                             f"expecting {self.n_features_in_} features as input")
        if len(values) == 0:
            raise ValueError(f"0 feature(s) (shape=({len(X)}, 0)) while a minimum of 1 is "
                             "required.")
        return names, values, cats

    def _table(self, X, y=None, sample_weight=None, fitting=False):
        names, values, cats = self._columns(X, fitting)
        n = len(values[0])
        if n == 0:
            raise ValueError("Found array with 0 sample(s) while a minimum of 1 is required.")
        if fitting:
            self._kinds = []
        b = _core.TableBuilder()
        for j, (name, v, cat) in enumerate(zip(names, values, cats)):
            if fitting:
                kind = "discrete" if cat else (
                    "integer" if np.all(np.isnan(v) | (np.abs(v) <= 2**31 - 1) & (v == np.round(v)))
                    and _integer_dtype(X, j) else "float")
                self._kinds.append(kind)
            kind = self._kinds[j]
            if kind == "discrete":
                known = [not _missing(x) for x in v]
                b.strings(name, "discrete", [_text(x) if k else "?" for x, k in zip(v, known)], known)
            else:
                v = np.asarray(v, dtype=float)
                if np.any(np.isinf(v)):
                    raise ValueError("Input X contains infinity or a value too large.")
                if kind == "integer" and not fitting:
                    # Thresholds of integer attributes are integers: x <= t exactly when
                    # floor(x) <= t, so fractions and large values keep their side.
                    v = np.clip(np.floor(v), 1 - 2.0**31, 2.0**31 - 1)
                b.numbers(name, "continuous", kind, v)
        if y is not None:
            b.strings("__class__", "class", [self._label_text[c] for c in y], [True] * n)
        if sample_weight is not None:
            w = np.asarray(sample_weight, dtype=float)
            if w.shape != (n,) or not np.all(np.isfinite(w)) or np.any(w < 0):
                raise ValueError("sample_weight must be finite, non-negative and one per sample")
            b.numbers("__weight__", "weights", "float", w)
        return b.build(y is not None)

    # ------------------------------------------------------------------ estimator

    def fit(self, X, y, sample_weight=None):
        if self.pruning not in ("error", "full", "none"):
            raise ValueError("pruning must be 'error', 'full' or 'none'")
        if y is None:
            raise ValueError(f"{type(self).__name__} requires y to be passed, but the target y "
                             "is None")
        X = _dense(X)
        y = np.asarray(y)
        if y.ndim == 2 and y.shape[1] == 1:
            warnings.warn("A column-vector y was passed when a 1d array was expected. Please "
                          "change the shape of y to (n_samples, ), for example using ravel().",
                          DataConversionWarning)
            y = y.ravel()
        if y.ndim != 1:
            raise ValueError("y must be one-dimensional")
        if y.dtype.kind == "f" and np.any(np.isnan(y)):
            raise ValueError("Input y contains NaN.")
        check_classification_targets(y)
        if len(y) != (len(X) if _is_frame(X) else np.shape(X)[0]):
            raise ValueError("X and y have different numbers of samples")
        self.classes_ = np.unique(y)
        self._label_text = {c: _text(c) for c in self.classes_}
        if len(set(self._label_text.values())) != len(self.classes_):
            raise ValueError("class labels must differ as text")
        total = (float(np.asarray(sample_weight, dtype=float).sum()) if sample_weight is not None
                 else float(len(y)))
        if total > 2.0**24:
            # The tree's 32-bit sums stop counting every case exactly past 2**24 (deliberately
            # the arithmetic of brixcmd, so that both grow the same tree).
            warnings.warn(f"the training weight {total:.0f} passes 2**24 (16,777,216): class "
                          "counts in the tree are 32-bit sums and stop being exact from there",
                          RuntimeWarning)
        table = self._table(X, y, sample_weight, fitting=True)
        self._model = _core.Model.train(table, float(self.confidence), float(self.min_cases),
                                        self.pruning, int(self.n_jobs))
        return self

    def predict_proba(self, X):
        check_is_fitted(self, "_model")
        p = self._model.predict_proba(self._table(_dense(X)))
        # The model orders its classes by their texts; classes_ by their values.
        position = {self._label_text[c]: i for i, c in enumerate(self.classes_)}
        order = [position[c] for c in self._model.classes]
        out = np.zeros((p.shape[0], len(self.classes_)))
        out[:, order] = p
        return out

    def predict(self, X):
        p = self.predict_proba(X)
        return self.classes_[np.argmax(p, axis=1)]

    @property
    def feature_importances_(self):
        check_is_fitted(self, "_model")
        return np.asarray(self._model.importance())

    @property
    def attribute_usage_(self):
        check_is_fitted(self, "_model")
        return np.asarray(self._model.attribute_usage())

    # ------------------------------------------------------------------ outputs

    def export_text(self):
        check_is_fitted(self, "_model")
        return self._model.export("text")

    def export_dot(self, max_depth=None):
        check_is_fitted(self, "_model")
        return self._model.export("dot", -1 if max_depth is None else int(max_depth))

    def export_pmml(self):
        check_is_fitted(self, "_model")
        return self._model.export("pmml")

    def to_json(self):
        check_is_fitted(self, "_model")
        return self._model.export("json")

    def save(self, path):
        """The binary tree file (brixcmd -bt reads it)."""
        check_is_fitted(self, "_model")
        self._model.save(os.fspath(path))

    @classmethod
    def load(cls, path):
        """A classifier around a binary tree file (written by save, brixcmd -tb or brix train).
        Its classes are the class texts; its features the tree's attributes, in their order."""
        import json
        model = _core.Model.load(os.fspath(path))
        desc = json.loads(model.export("json"))
        clf = cls()
        clf._model = model
        clf.classes_ = np.asarray(desc["classes"], dtype=object)
        clf._label_text = {c: c for c in clf.classes_}
        clf.n_features_in_ = len(desc["attributes"])
        clf.feature_names_in_ = np.asarray([a["name"] for a in desc["attributes"]], dtype=object)
        clf._kinds = ["discrete" if a["kind"] == "discrete" else
                      "integer" if a["type"] in ("integer", "uinteger") else "float"
                      for a in desc["attributes"]]
        return clf

    def __getstate__(self):
        state = self.__dict__.copy()
        if "_model" in state:
            with tempfile.TemporaryDirectory() as d:
                p = os.path.join(d, "model.tree")
                self._model.save(p)
                with open(p, "rb") as f:
                    state["_model"] = f.read()
        return state

    def __setstate__(self, state):
        model = state.get("_model")
        if isinstance(model, bytes):
            with tempfile.TemporaryDirectory() as d:
                p = os.path.join(d, "model.tree")
                with open(p, "wb") as f:
                    f.write(model)
                state["_model"] = _core.Model.load(p)
        self.__dict__.update(state)

    def _more_tags(self):
        # NaN is an unknown value, carried down every branch.
        return {"allow_nan": True}


def _dense(X):
    """A DataFrame as it is, anything else as an array; sparse matrices are refused."""
    if _is_frame(X):
        return X
    if hasattr(X, "toarray") or hasattr(X, "tocsr"):
        raise TypeError("A sparse matrix was passed, but dense data is required: sparse input is "
                        "not supported. Use X.toarray() to convert to a dense numpy array.")
    return np.asarray(X)


def _integer_dtype(X, j):
    if _is_frame(X):
        import pandas as pd
        return pd.api.types.is_integer_dtype(X.iloc[:, j].dtype)
    return np.issubdtype(np.asarray(X).dtype, np.integer)


def _missing(x):
    if x is None:
        return True
    try:
        import pandas as pd
        if x is pd.NA:
            return True
    except ImportError:
        pass
    return isinstance(x, float) and np.isnan(x)


def _text(x):
    if isinstance(x, (bool, np.bool_)):
        return "TRUE" if x else "FALSE"
    return str(x)
