"""Models by the interface of sentence-transformers."""

import functools
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
    pickled, as its name and prompts.

    `prompts` are added to those of the model, or take their places; `default_prompt_name` takes the place of its own.
    """

    def __init__(
        self,
        model_name_or_path: Any = "all-MiniLM-L6-v2",
        *,
        prompts: Optional[dict[str, str]] = None,
        default_prompt_name: Optional[str] = None,
    ):
        self._name = model_name_or_path
        config: Configuration = {"backend": "local", "model_name": model_name_or_path}
        self._engine: Any = acquire(config)
        try:
            with fetches_shown():
                self._engine.wait_ready(math.inf)
            if (reason := self._engine.fallback_reason()) is not None:
                raise ModelLibraryNotInstalled(reason)
            #: What stands before sentences, by name: the model's, and those that were given.
            self.prompts: dict[str, str] = {**self._engine.prompts(), **(prompts or {})}
            #: The one of them that does unless `encode` is told otherwise; None for none.
            self.default_prompt_name: Optional[str] = (
                self._engine.default_prompt_name() if default_prompt_name is None else default_prompt_name
            )
            self._prompt(None, None)
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

        `prompt_name`: which of `prompts` stands before each sentence, in place of the default; `prompt`: a text that
        does so in place of any of them. Vectors always have unit length, so `normalize_embeddings=False` is refused.
        `batch_size`: most sentences in one call of the model, which is given no more at a time than
        it embeds in a fifth of a second. `show_progress_bar`: a line on stderr that counts them.
        """
        if not normalize_embeddings:
            raise ValueError("normalize_embeddings=False: vectors have unit length here, whatever the model")
        engine = self._open_engine()
        prompt = self._prompt(prompt_name, prompt)
        if batch_size < 1:
            raise ValueError(f"batch_size is {batch_size}; it has to be at least 1")
        if isinstance(sentences, str):
            return engine.embed_single(sentences, dtype=np.float32, prompt=prompt)
        texts = list(sentences)
        if not texts:
            return np.empty((0, self.get_sentence_embedding_dimension()), np.float32)
        for first in range(0, len(texts), batch_size):
            batch = engine.embed(texts[first : first + batch_size], dtype=np.float32, prompt=prompt)
            if first == 0:
                vectors = np.empty((len(texts), batch.shape[1]), np.float32)
            vectors[first : first + len(batch)] = batch
            if show_progress_bar:
                _show_progress(first + len(batch), len(texts))
        return vectors

    def encode_query(self, sentences: Union[str, Sequence[str]], **options: Any) -> np.ndarray:
        """As `encode`, with the prompt "query" unless one is given."""
        return self.encode(sentences, **self._with_prompt(options, "query"))

    def encode_document(self, sentences: Union[str, Sequence[str]], **options: Any) -> np.ndarray:
        """As `encode`, with the first prompt of "document", "passage" and "corpus" that there is, unless one is given."""
        return self.encode(sentences, **self._with_prompt(options, "document", "passage", "corpus"))

    def _with_prompt(self, options: dict[str, Any], *names: str) -> dict[str, Any]:
        if options.get("prompt_name") is not None or options.get("prompt") is not None:
            return options
        return {**options, "prompt_name": next((name for name in names if name in self.prompts), None)}

    def _prompt(self, name: Optional[str], text: Optional[str]) -> str:
        """What stands before each sentence."""
        if text is not None:
            return text
        if name is None:
            name = self.default_prompt_name
        if name is None:
            return ""
        if name not in self.prompts:
            raise ValueError(f"the model has no prompt {name!r}; it has {', '.join(map(repr, self.prompts))}")
        return self.prompts[name]

    def get_sentence_embedding_dimension(self) -> int:
        """The numbers in a vector."""
        return len(self._open_engine().embed_single(""))

    def _open_engine(self) -> Any:
        if self._engine is None:
            raise RuntimeError("this SentenceTransformer is closed")
        return self._engine

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
        made = functools.partial(type(self), prompts=self.prompts, default_prompt_name=self.default_prompt_name)
        return made, (self._name,)

    def __repr__(self) -> str:
        return f"SentenceTransformer({self._name!r})"


def _show_progress(done: int, count: int) -> None:
    if sys.stderr is None:
        return
    end = "\n" if done == count else ""
    print(f"\rembedded {done} of {count}", end=end, file=sys.stderr, flush=True)
