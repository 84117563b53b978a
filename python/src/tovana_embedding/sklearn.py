"""An engine as a transformer of scikit-learn, which need not be installed."""

from collections.abc import Iterable
from typing import Any, Optional

import numpy as np

from ._holder import EngineHolder

try:
    from sklearn.base import BaseEstimator, ClassNamePrefixFeaturesOutMixin, TransformerMixin

    _BASES: tuple = (ClassNamePrefixFeaturesOutMixin, TransformerMixin, BaseEstimator)
except ImportError:
    _BASES = ()


class TextEmbedder(*_BASES):  # type: ignore[misc]
    """Turns texts into their vectors: `[texts] -> [texts x dimension]`.

    The parameters are the configuration of an engine (`tovana_embedding.EmbeddingEngine`), `dtype`, float32 or
    float64, and `prompt_name`, which of a local model's prompts stands before each text. There is nothing to fit: `fit`
    checks that the model can be had. The hashing embedder ("tfidf") weighs a term by the other texts of a call, so with it
    the vectors of two calls compare by shared terms alone. Pickles, and the HTML in which scikit-learn shows a pipeline, have
    all parameters, `api_key` among them.
    """

    def __init__(
        self,
        model_name: Any = None,
        *,
        backend: str = "local",
        base_url: Optional[str] = None,
        api_url: Optional[str] = None,
        api_key: Optional[str] = None,
        dimension: Optional[int] = None,
        dtype: Any = np.float32,
        prompt_name: Optional[str] = None,
    ):
        self.model_name = model_name
        self.backend = backend
        self.base_url = base_url
        self.api_url = api_url
        self.api_key = api_key
        self.dimension = dimension
        self.dtype = dtype
        self.prompt_name = prompt_name

    def fit(self, X: Iterable[str], y: Any = None) -> "TextEmbedder":
        """Loads the model, and learns how many numbers its vectors have."""
        self._n_features_out = self.transform([""]).shape[1]
        return self

    def transform(self, X: Iterable[str]) -> np.ndarray:
        """The texts' vectors, in their order."""
        return self._engine().embed(X, dtype=self.dtype, prompt_name=self.prompt_name)

    def _engine(self) -> Any:
        holder = self.__dict__.setdefault("_holder", EngineHolder())
        return holder.engine(
            backend=self.backend,
            model_name=self.model_name,
            base_url=self.base_url,
            api_url=self.api_url,
            api_key=self.api_key,
            dimension=self.dimension,
        )

    def __repr__(self, *arguments: Any, **options: Any) -> str:
        """As scikit-learn's, but for the key, which logs and notebooks would keep."""
        if not _BASES or self.api_key is None:
            return super().__repr__(*arguments, **options)
        shown = type(self)(**{**self.get_params(deep=False), "api_key": "***"})
        return super(TextEmbedder, shown).__repr__(*arguments, **options)

    def __getstate__(self) -> dict:
        state = super().__getstate__() if _BASES else self.__dict__
        return {name: value for name, value in state.items() if name != "_holder"}

    def __sklearn_tags__(self) -> Any:
        tags = super().__sklearn_tags__()
        tags.input_tags.string = True
        tags.input_tags.two_d_array = False
        tags.requires_fit = False
        return tags
