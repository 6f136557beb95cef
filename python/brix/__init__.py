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

__all__ = ["TreeClassifier", "RulesClassifier"]
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
    trials: above 1, boosting: up to that many trees, each grown on the samples reweighted after
        the last one, voting with their confidence (the same model for any n_jobs).
    class_weight: None, "balanced" (n_samples / (n_classes * count of the class)) or a dict
        {label: weight}, multiplied into sample_weight.
    subsets: categorical columns of more than two values split on groups of their values
        ("make in {a, b}") instead of one branch per value. Such a tree's file is read by brix
        and this package only.

    Sample weights count relatively: fit scales them so that the samples of positive weight
    average 1, so that min_cases keeps counting samples whatever the weights sum to.
    """

    _native = _core.Model  # the library's model type behind the estimator

    def __init__(self, confidence=0.25, min_cases=2.0, pruning="error", n_jobs=1,
                 categorical_features=None, trials=1, class_weight=None, subsets=False):
        self.confidence = confidence
        self.min_cases = min_cases
        self.pruning = pruning
        self.n_jobs = n_jobs
        self.categorical_features = categorical_features
        self.trials = trials
        self.class_weight = class_weight
        self.subsets = subsets

    # ------------------------------------------------------------------ tables

    def _columns(self, X, fitting):
        """(names, columns): one 1-D array or Series per column, checked."""
        if _is_frame(X):
            names = [str(c) for c in X.columns]
            cols = [X.iloc[:, j] for j in range(X.shape[1])]
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
            cols = [X[:, i] if i in cat or X.dtype.kind != "O" else _as_float(X[:, i], names[i])
                    for i in range(X.shape[1])]
            if fitting:
                self._array_discrete = cat
        if fitting:
            self.n_features_in_ = len(names)
        elif len(names) != self.n_features_in_:
            raise ValueError(f"X has {len(names)} features, but {type(self).__name__} is "
                             f"expecting {self.n_features_in_} features as input")
        if len(cols) == 0:
            raise ValueError(f"0 feature(s) (shape=({len(X)}, 0)) while a minimum of 1 is "
                             "required.")
        return names, cols

    def _kind_of(self, name, col, j):
        """At fit: discrete, integer, float, or date (whole days) / date-fraction."""
        import pandas as pd
        dtype = col.dtype
        if not _is_series(col) and j in getattr(self, "_array_discrete", ()):
            return "discrete"
        if pd.api.types.is_datetime64_any_dtype(dtype):
            days = _days(col)
            whole = bool(np.all(np.isnan(days) | (days == np.floor(days))))
            warnings.warn(f"column '{name}' holds dates: read as days since 1970-01-01, a "
                          f"continuous attribute ({'whole' if whole else 'fractional'} days)",
                          UserWarning)
            return "date" if whole else "date-fraction"
        # Array columns are numbers unless named in categorical_features.
        if _is_series(col) and (pd.api.types.is_bool_dtype(dtype) or
                                not pd.api.types.is_numeric_dtype(dtype)):
            return "discrete"
        if not (pd.api.types.is_integer_dtype(dtype) and not pd.api.types.is_bool_dtype(dtype)):
            return "float"
        v = _numbers(col)
        return "integer" if np.all(np.isnan(v) | (np.abs(v) <= 2**31 - 1)) else "float"

    def _table(self, X, y=None, sample_weight=None, fitting=False, keep=None):
        """The library's table; y: class codes into classes_. keep: per column name, (values,
        unknown) its value set holds besides the rows' (stored as rows after them)."""
        names, cols = self._columns(X, fitting)
        n = len(cols[0])
        if n == 0:
            raise ValueError("Found array with 0 sample(s) while a minimum of 1 is required.")
        if fitting:
            # By name: a frame's columns are matched to the tree's by name, in any order.
            self._kinds = {name: self._kind_of(name, col, j)
                           for j, (name, col) in enumerate(zip(names, cols))}
        b = _core.TableBuilder()
        for name, col in zip(names, cols):
            kind = self._kinds.get(name)
            if kind is None:
                raise ValueError(f"column '{name}' was not seen in fit")
            if kind == "discrete":
                codes, texts = _codes(col, name)
                b.codes(name, "discrete", codes, texts)
                continue
            v = _days(col) if kind.startswith("date") else _numbers(col, name)
            if v.dtype.kind == "f" and np.any(np.isinf(v)):
                raise ValueError(f"Input X contains infinity or a value too large (column "
                                 f"'{name}').")
            if kind in ("integer", "date") and not fitting:
                # Thresholds of integer attributes are integers: x <= t exactly when
                # floor(x) <= t, so fractions and large values keep their side.
                if v.dtype.kind == "f":
                    v = np.clip(np.floor(v), 1 - 2.0**31, 2.0**31 - 1)
                elif len(v) and (v.min() < 1 - 2**31 or v.max() > 2**31 - 1):
                    v = np.clip(v, 1 - 2**31, 2**31 - 1)
            b.numbers(name, "continuous", {"integer": "integer", "date": "integer",
                                           "date-fraction": _fraction_type()}.get(kind, "float"),
                      v)
        if y is not None:
            b.codes("__class__", "class", y, [self._label_text[c] for c in self.classes_])
        if sample_weight is not None:
            w = np.asarray(sample_weight, dtype=float)
            if w.shape != (n,) or not np.all(np.isfinite(w)) or np.any(w < 0):
                raise ValueError("sample_weight must be finite, non-negative and one per sample")
            if not np.any(w > 0):
                raise ValueError("sample_weight is 0 for every sample: no case would count")
            b.numbers("__weight__", "weights", "float", w)
        for name, (values, unknown) in (keep or {}).items():
            if self._kinds.get(name) == "discrete" or name == "__class__":
                b.keep_texts(name, list(values), bool(unknown))
            else:
                b.keep_values(name, np.asarray(values, dtype=float), bool(unknown))
        return b.build(y is not None)

    # ------------------------------------------------------------------ estimator

    def fit(self, X, y, sample_weight=None):
        import pandas as pd
        if self.pruning not in ("error", "full", "none"):
            raise ValueError("pruning must be 'error', 'full' or 'none'")
        if isinstance(self.trials, bool) or not isinstance(self.trials, (int, np.integer)) or \
                not 1 <= self.trials <= 1000:
            raise ValueError("trials must be a whole number in [1, 1000]")
        if y is None:
            raise ValueError(f"{type(self).__name__} requires y to be passed, but the target y "
                             "is None")
        X = _dense(X)
        y_name = str(y.name) if getattr(y, "name", None) is not None else "y"
        y = np.asarray(y)
        if y.ndim == 2 and y.shape[1] == 1:
            warnings.warn("A column-vector y was passed when a 1d array was expected. Please "
                          "change the shape of y to (n_samples, ), for example using ravel().",
                          DataConversionWarning)
            y = y.ravel()
        if y.ndim != 1:
            raise ValueError("y must be one-dimensional")
        unknown = int(np.sum(_unknown(y))) if y.dtype.kind in "fOMm" else 0
        if unknown:
            what = "Input y contains NaN" if y.dtype.kind == "f" else "Input y has unknown values"
            raise ValueError(f"{what}: column '{y_name}' holds {unknown} unknown class "
                             f"value{'s' if unknown > 1 else ''} (drop those rows)")
        if len(y) != (len(X) if _is_frame(X) else np.shape(X)[0]):
            raise ValueError("X and y have different numbers of samples")
        # Hashed, then only the distinct labels sorted: np.unique sorts every label.
        codes, uniques = pd.factorize(y)
        uniques = np.asarray(uniques, dtype=y.dtype)
        try:
            order = np.argsort(uniques, kind="stable")
        except TypeError:
            raise ValueError(f"class column '{y_name}' mixes values that do not compare "
                             f"(such as numbers and texts): "
                             f"{sorted({type(v).__name__ for v in uniques})}")
        self.classes_ = uniques[order]
        check_classification_targets(self.classes_)
        rank = np.empty(len(order), dtype=np.int64)
        rank[order] = np.arange(len(order))
        codes = rank[codes]
        self._label_text = {c: _text(c) for c in self.classes_}
        if len(set(self._label_text.values())) != len(self.classes_):
            raise ValueError(f"class column '{y_name}' holds labels that differ but read as the "
                             "same text (such as 1 and '1'); make them one type")
        sample_weight = self._weights(sample_weight, codes, len(y))
        total = (float(sample_weight.sum()) if sample_weight is not None else float(len(y)))
        _warn_past_exact(total)
        table = self._table(X, codes, sample_weight, fitting=True)
        if self.trials > 1:
            self._model = _core.Ensemble.train(table, float(self.confidence),
                                               float(self.min_cases), self.pruning,
                                               int(self.n_jobs), int(self.trials),
                                               self._native is _core.RuleModel,
                                               bool(self.subsets))
        else:
            self._model = self._native.train(table, float(self.confidence),
                                             float(self.min_cases), self.pruning, int(self.n_jobs),
                                             bool(self.subsets))
        return self

    def _weights(self, sample_weight, codes, n):
        """sample_weight times class_weight, scaled so that the positive ones average 1; None
        when both are None. The weights of a tree are counted as cases (min_cases), so that a
        sum of 1 (as AdaBoostClassifier hands over) would forbid every split."""
        if sample_weight is None and self.class_weight is None:
            return None
        w = np.ones(n) if sample_weight is None else np.asarray(sample_weight, dtype=float)
        if w.shape != (n,) or not np.all(np.isfinite(w)) or np.any(w < 0):
            raise ValueError("sample_weight must be finite, non-negative and one per sample")
        if self.class_weight is not None:
            k = len(self.classes_)
            if isinstance(self.class_weight, str) and self.class_weight == "balanced":
                per_class = n / (k * np.bincount(codes, minlength=k).astype(float))
            elif isinstance(self.class_weight, dict):
                # Labels absent from y (a fold without the class) weigh nothing here.
                per_class = np.asarray([float(self.class_weight.get(c, 1.0))
                                        for c in self.classes_.tolist()])
                if not np.all(np.isfinite(per_class)) or np.any(per_class < 0):
                    raise ValueError("class_weight values must be finite and non-negative")
            else:
                raise ValueError("class_weight must be None, 'balanced' or a dict")
            w = w * per_class[codes]
        positive = int(np.count_nonzero(w > 0))
        if positive == 0:
            raise ValueError("sample_weight is 0 for every sample: no case would count")
        total = w.sum()
        # Whole weights that already average 1 stay exactly as they are.
        return w if total == positive else w * (positive / total)

    def _tree(self):
        """The one tree; a boosted model has none."""
        check_is_fitted(self, "_model")
        if not isinstance(self._model, _core.Model):
            raise AttributeError("a boosted model (trials > 1) has no single tree")
        return self._model

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

    # ------------------------------------------------------------------ the tree's shape

    def get_depth(self):
        """Edges on the longest path from the root to a leaf: 0 for a tree of one leaf."""
        return int(self._tree().depth) - 1

    def get_n_leaves(self):
        return int(self._tree().leaves)

    @property
    def tree_size_(self):
        """Nodes in the tree, leaves included."""
        return int(self._tree().size)

    def _paths(self, X):
        return self._tree().paths(self._table(_dense(X)))

    def apply(self, X):
        """Per sample, the number of the leaf it reaches; nodes are numbered in preorder from the
        root (0), children in branch order, as decision_path's columns. A sample with an unknown
        value at a split (or a value the tree never saw there) follows every branch with a share
        of its weight, as predict_proba does: its leaf is then the one receiving the largest
        share, the lowest numbered of equal shares."""
        return self._paths(X)[2]

    def decision_path(self, X):
        """A sparse indicator matrix of shape (n_samples, tree_size_): (i, j) is 1 when sample i
        reaches node j. A sample that follows every branch of a split marks every node it
        reaches, so its row can hold several leaves."""
        from scipy.sparse import csr_matrix
        starts, nodes, _ = self._paths(X)
        return csr_matrix((np.ones(len(nodes), dtype=np.int64), nodes, starts),
                          shape=(len(starts) - 1, self.tree_size_))

    @property
    def feature_importances_(self):
        return np.asarray(self._tree().importance())

    @property
    def attribute_usage_(self):
        return np.asarray(self._tree().attribute_usage())

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
        """The binary tree file (brixcmd -bt reads it); with trials, the file of the trials, which
        brix and load read."""
        check_is_fitted(self, "_model")
        self._model.save(os.fspath(path))

    @classmethod
    def load(cls, path):
        """A classifier around a binary tree file (written by save, brixcmd -tb or brix train).
        Its features are the tree's attributes, in their order. The file keeps class labels as
        texts only: they come back as int64 when every one is the text of an integer (as str()
        writes it: "3", "-1", not "03" or "+1"), else as float64 when every one is a float's
        text ("0.5", "1e-05", not "nan" or "inf"), else as the texts. So integer and float
        labels load as they were saved; texts that read as numbers load as numbers too."""
        import json
        model = _load(os.fspath(path), cls._native)
        desc = json.loads(model.export("json"))
        clf = cls()
        clf._model = model
        if desc.get("format") == "brix-ensemble":
            clf.trials = int(desc["trials_asked"])
            first = desc["trials"][0]
            desc = dict(first["ruleset"] if "ruleset" in first else first["tree"],
                        classes=desc["classes"])
        texts = list(desc["classes"])
        labels = _labels_from_texts(texts)
        clf._label_text = dict(zip(labels, texts))
        # Numbers in their own order, as fit's np.unique gives them; texts stay in the model's.
        clf.classes_ = labels[np.argsort(labels, kind="stable")] if labels.dtype != object else \
            labels
        clf.n_features_in_ = len(desc["attributes"])
        clf.feature_names_in_ = np.asarray([a["name"] for a in desc["attributes"]], dtype=object)
        clf._kinds = {a["name"]: "discrete" if a["kind"] == "discrete" else
                      "integer" if a["type"] in ("integer", "uinteger") else "float"
                      for a in desc["attributes"]}
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
                state["_model"] = _load(p, type(self)._native)
        kinds = state.get("_kinds")
        if isinstance(kinds, list):
            # Pickled by a version that kept kinds by column position.
            names = state.get("feature_names_in_", [f"x{i}" for i in range(len(kinds))])
            state["_kinds"] = dict(zip((str(n) for n in names), kinds))
        self.__dict__.update(state)

    def _more_tags(self):
        # NaN is an unknown value, carried down every branch.
        return {"allow_nan": True}


def _warn_past_exact(total):
    """The tree's 32-bit sums stop counting every case exactly past 2**24 (deliberately the
    arithmetic of brixcmd, so that both grow the same tree)."""
    if total > 2.0**24:
        warnings.warn(f"the training weight {total:.0f} passes 2**24 (16,777,216): class "
                      "counts in the tree are 32-bit sums and stop being exact from there",
                      RuntimeWarning)


def _load(path, native):
    """A tree file or a file of boosted trials; for a ruleset classifier, a ruleset file or a
    file of boosted rulesets."""
    if not _core.Ensemble.is_file(path):
        return native.load(path)
    model = _core.Ensemble.load(path)
    if model.has_rules != (native is _core.RuleModel):
        raise ValueError(f"{path}: a file of boosted " +
                         ("rulesets, not trees" if model.has_rules else "trees, not rulesets"))
    return model


class RulesClassifier(TreeClassifier):
    """A ruleset read off the pruned C4.5-style tree that TreeClassifier grows with the same
    parameters: one rule per leaf, generalised by dropping conditions while the rule's
    pessimistic error rate does not rise, then for each class the subset of its rules that codes
    the training cases in the fewest bits, and a default class for the cases no rule covers.

    Among the rules that fire, the most confident (Laplace) decides; predict_proba gives each
    class its best firing rule's confidence, normalised, or the default's distribution when none
    fires. A value unknown to a rule's condition does not satisfy it. save writes the ruleset
    file, which load reads back; export_text, to_json and export_pmml (a RuleSetModel) describe
    the rules. The tree's own shape (depth, leaves, paths, importances, DOT) is not kept.

    trials above 1 boosts: each trial's tree, grown on the samples reweighted after the last
    trial's ruleset, is read off as a ruleset on those weights; the rulesets vote for their
    classes with their trials' confidence, as TreeClassifier's trees do.
    """

    _native = _core.RuleModel

    @property
    def n_rules_(self):
        check_is_fitted(self, "_model")
        if isinstance(self._model, _core.Ensemble):
            return int(self._model.rules)
        return int(self._model.size)


def _not_a_tree(name):
    def missing(self):
        raise AttributeError(f"'{type(self).__name__}' is a ruleset: it has no {name}")
    return property(missing)


for _name in ("get_depth", "get_n_leaves", "apply", "decision_path", "export_dot",
              "feature_importances_", "attribute_usage_", "tree_size_"):
    setattr(RulesClassifier, _name, _not_a_tree(_name))


def _dense(X):
    """A DataFrame as it is, anything else as an array; sparse matrices are refused."""
    if _is_frame(X):
        return X
    if hasattr(X, "toarray") or hasattr(X, "tocsr"):
        raise TypeError("A sparse matrix was passed, but dense data is required: sparse input is "
                        "not supported. Use X.toarray() to convert to a dense numpy array.")
    return np.asarray(X)


def _is_series(c):
    return hasattr(c, "dtype") and hasattr(c, "to_numpy") and hasattr(c, "index")


def _unknown(v):
    import pandas as pd
    return np.asarray(pd.isna(v), dtype=bool)


def _as_float(v, name):
    try:
        return np.asarray(v, dtype=float)
    except (TypeError, ValueError) as e:
        raise ValueError(f"column '{name}' is continuous, but holds a value that is not a "
                         f"number: {e}")


def _numbers(col, name=""):
    """Numbers as NumPy holds them (float64, float32, int64, int32: no copy); nullable and
    other dtypes as float64 with NaN for unknown values."""
    import pandas as pd
    dtype = col.dtype
    if isinstance(dtype, np.dtype) and dtype.kind in "iuf" and not (
            dtype.kind == "u" and dtype.itemsize >= 4):
        return col.to_numpy() if _is_series(col) else np.asarray(col)
    if _is_series(col):
        if pd.api.types.is_numeric_dtype(dtype) and not pd.api.types.is_bool_dtype(dtype):
            return col.to_numpy(dtype=float, na_value=np.nan)
        col = col.to_numpy(dtype=object)
    return _as_float(np.where(_unknown(col), np.nan, col) if col.dtype == object else col, name)


_FRACTION_TYPE = []


def _fraction_type():
    """Fractions of days need more digits than 32-bit floats hold (near 2020 they lie about 3
    minutes apart): 64-bit where the library's continuous columns take them, else 32-bit."""
    if not _FRACTION_TYPE:
        b = _core.TableBuilder()
        try:
            b.numbers("t", "continuous", "double", np.zeros(1))
            b.build(False)
            _FRACTION_TYPE.append("double")
        except ValueError:
            _FRACTION_TYPE.append("float")
    return _FRACTION_TYPE[0]


def _days(col):
    """Dates as float64 days since 1970-01-01 (NaN when unknown); time zones read as UTC."""
    import pandas as pd
    s = pd.Series(col) if not _is_series(col) else col
    if getattr(s.dtype, "tz", None) is not None:
        s = s.dt.tz_convert("UTC").dt.tz_localize(None)
    if not pd.api.types.is_datetime64_any_dtype(s.dtype):
        s = pd.to_datetime(s)
    ns = s.to_numpy(dtype="datetime64[ns]").astype(np.int64)
    days = ns / 86400e9
    days[s.isna().to_numpy()] = np.nan
    return days


def _codes(col, name):
    """(codes, texts): a categorical column's codes as they are, any other column factorised;
    unknown values (None, NaN of any width, NaT, pd.NA) have code -1."""
    import pandas as pd
    if _is_series(col) and isinstance(col.dtype, pd.CategoricalDtype):
        codes, values = col.cat.codes.to_numpy(), col.cat.categories
    else:
        codes, values = pd.factorize(col if _is_series(col) else np.asarray(col, dtype=object))
    texts = [_text(v) for v in values]
    if len(set(texts)) != len(texts):
        seen = {}
        for v, t in zip(values, texts):
            if t in seen:
                raise ValueError(f"column '{name}' holds {seen[t]!r} and {v!r}, different "
                                 f"values that read as the same text '{t}'; make them one type")
            seen[t] = v
    return codes, texts


def _labels_from_texts(texts):
    """Class texts as numbers when each is exactly the text of one (see TreeClassifier.load)."""
    try:
        ints = [int(t) for t in texts]
        if all(str(i) == t for i, t in zip(ints, texts)):
            return np.asarray(ints, dtype=np.int64)
    except ValueError:
        pass
    try:
        floats = [float(t) for t in texts]
        if all(np.isfinite(f) and repr(f) in (t, t + ".0") for f, t in zip(floats, texts)):
            return np.asarray(floats, dtype=np.float64)
    except ValueError:
        pass
    return np.asarray(texts, dtype=object)


def _text(x):
    if isinstance(x, (bool, np.bool_)):
        return "TRUE" if x else "FALSE"
    return str(x)
