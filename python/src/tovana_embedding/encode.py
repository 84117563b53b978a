"""Models by the interface of sentence-transformers."""

import math
import sys
from collections.abc import Sequence
from typing import Any, Optional, Union

import numpy as np

from ._logging import fetches_shown
from .engine import Configuration, acquire
from .errors import EmbeddingNotReadyError, ModelLibraryNotInstalled


class SentenceTransformer:
    """A sentence-transformers model, for code that was written for the library of that name.

    `model_name_or_path` is a model's name on the hub, or its folder as a `pathlib.Path` or beginning with "/", "./" or
    "../". Loads the model, which fetches it unless it is in the cache, and says on stderr how far that is, unless the
    loggers take it; raises what the load fails with. All with the same model share it. Any thread may use it; it can be
    pickled, as its name.
    """

    def __init__(self, model_name_or_path: Any = "all-MiniLM-L6-v2"):
        self._name = model_name_or_path
        config: Configuration = {"backend": "local", "model_name": model_name_or_path}
        self._engine: Any = acquire(config)
        try:
            with fetches_shown():
                self._engine.wait_ready(math.inf)
            if (reason := self._engine.fallback_reason()) is not None:
                raise ModelLibraryNotInstalled(reason)
        except EmbeddingNotReadyError as error:
            self.close()
            raise (error.__cause__ or error) from None
        except BaseException:
            self.close()
            raise

    def encode(
        self,
        sentences: Union[str, Sequence[str]],
        *,
        batch_size: int = 256,
        show_progress_bar: Optional[bool] = None,
        normalize_embeddings: bool = True,
        prompt_name: Optional[str] = None,
        prompt: Optional[str] = None,
    ) -> np.ndarray:
        """The sentences' vectors in float32: `[sentences x dimension]`, or `[dimension]` for one that is a str.

        Vectors always have unit length, so `normalize_embeddings=False` is refused, and so are prompts, which are
        not supported yet. `batch_size`: most sentences in one call of the model, which is given no more at a time than
        it embeds in a fifth of a second. `show_progress_bar`: a line on stderr that counts them.
        """
        if not normalize_embeddings:
            raise ValueError("normalize_embeddings=False: vectors have unit length here, whatever the model")
        if prompt_name is not None or prompt is not None:
            raise NotImplementedError("prompt_name and prompt are not supported yet; put the prompt before each sentence")
        if batch_size < 1:
            raise ValueError(f"batch_size is {batch_size}; it has to be at least 1")
        if isinstance(sentences, str):
            return self._engine.embed_single(sentences, dtype=np.float32)
        texts = list(sentences)
        if not texts:
            return np.empty((0, self.get_sentence_embedding_dimension()), np.float32)
        for first in range(0, len(texts), batch_size):
            batch = self._engine.embed(texts[first : first + batch_size], dtype=np.float32)
            if first == 0:
                vectors = np.empty((len(texts), batch.shape[1]), np.float32)
            vectors[first : first + len(batch)] = batch
            if show_progress_bar:
                _show_progress(first + len(batch), len(texts))
        return vectors

    def get_sentence_embedding_dimension(self) -> int:
        """The numbers in a vector."""
        return len(self._engine.embed_single(""))

    def close(self) -> None:
        """Lets go of the model, which is freed when nobody else has it. Nothing can be encoded any more."""
        engine, self._engine = self._engine, None
        if engine is not None:
            engine.__exit__()

    def __enter__(self) -> "SentenceTransformer":
        return self

    def __exit__(self, *error: object) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_engine", None) is not None:
            self.close()

    def __reduce__(self) -> tuple:
        return type(self), (self._name,)

    def __repr__(self) -> str:
        return f"SentenceTransformer({self._name!r})"


def _show_progress(done: int, count: int) -> None:
    end = "\n" if done == count else ""
    print(f"\rembedded {done} of {count}", end=end, file=sys.stderr, flush=True)
