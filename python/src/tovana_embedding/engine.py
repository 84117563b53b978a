"""Engines, and the factory that shares them."""

import math
import numbers
import os
import threading
import weakref
from collections.abc import Callable, Iterable, Mapping
from typing import Any, ContextManager, Optional, Union

import numpy as np

from . import _core
from .status import EmbeddingStatus, Fallback

Configuration = Mapping[str, Union[None, int, str, "os.PathLike[str]"]]

#: Seconds that waiting calls wait for the model, unless they are told otherwise.
DEFAULT_WAIT_S = 60.0


class EmbeddingEngine:
    """Turns texts into vectors with the backend that its configuration, and what is installed, leads to.

    The backend is loaded in the background, from the first call on that needs it. An attempt that failed is made
    again after 30, 60, … and at last every 600 seconds; neither time nor failures lead to another backend,
    whose vectors would not compare.

    `config` has any of these keys; without `backend` the engine chooses:

    | key | value |
    |---|---|
    | `backend` | "local", "api", "openai" or "tfidf" |
    | `model_name` | local: a model's name, or its folder as a `pathlib.Path` or beginning with "/", "./" or "../"; openai: the model that is asked for |
    | `api_url`, `base_url` | the endpoint of "api", and that of "openai", to which "/embeddings" is appended |
    | `api_key` | the endpoint's bearer key |
    | `dimension` | numbers in a vector, for "tfidf" and endpoints |

    Threads: any operation from any thread at any time. Calls let other threads run while they wait and compute,
    and Ctrl-C ends them. After `os.fork` an engine goes on in the child by itself, with the model that was loaded.

    As a context manager an engine is closed at the end, and one that was acquired is released.
    """

    def __init__(self, config: Optional[Configuration] = None, *, wait_s: float = DEFAULT_WAIT_S):
        """Loads nothing. `wait_s`: seconds that waiting calls wait for the model."""
        self._wait_s = _seconds(wait_s, "wait_s")
        self._core = _core.Engine(_plain(config))
        self._is_shared = False

    def status(self) -> EmbeddingStatus:
        """What the engine is doing right now. Never waits."""
        return self._core.status()

    def warm_up_async(self) -> None:
        """Starts to load the backend, and returns at once."""
        self._core.warm_up_async()

    def wait_ready(self, timeout: Optional[float] = None) -> None:
        """Waits for the backend for up to `timeout` seconds, by default the engine's `wait_s`.

        Raises EmbeddingNotReadyError when the time is up, and at once when the load fails or the engine is closed.
        """
        self._core.wait_ready(self._wait_s if timeout is None else _seconds(timeout, "timeout"))

    def dimension(self) -> int:
        """The numbers in a vector as the backend is configured. Waits as `wait_ready`."""
        return self._core.dimension(self._wait_s)

    def backend_name(self) -> str:
        """The backend's name, which also names the vector space. Waits as `wait_ready`."""
        return self._core.backend_name(self._wait_s)

    def fallback(self) -> Optional[Fallback]:
        """Why the backend is not the best one; None when it is, or is not chosen yet. Never waits."""
        taken = self._core.fallback()
        return None if taken is None else Fallback(*taken)

    def fallback_reason(self) -> Optional[str]:
        """The same in words."""
        taken = self.fallback()
        return None if taken is None else taken.reason

    def embed(
        self,
        texts: Iterable[str],
        *,
        wait: bool = True,
        timeout: Optional[float] = None,
        should_stop: Optional[Callable[[], bool]] = None,
        dtype: Any = np.float64,
        prompt_name: Optional[str] = None,
        prompt: Optional[str] = None,
    ) -> np.ndarray:
        """One vector a text, in order: a numpy array `[texts x dimension]`, `[0 x 0]` for no texts.

        `wait`: whether to wait for a model that is being loaded, for the engine's `wait_s` at most. `timeout`:
        seconds from now for the whole call. `should_stop`: called on this thread now and then; True ends the call.
        `dtype`: float64 or float32. `prompt_name`: which of a local model's `prompts` stands before each text, in place
        of its default; `prompt`: a text that does so in place of any of them.

        Raises EmbeddingNotReadyError when the model is not ready in time, EmbeddingStopped when the stop test said
        so, RuntimeError when the time is up or the backend fails, and what `should_stop` raises; ValueError for a
        prompt that the model does not have, and for any where the backend is no local model.
        """
        call = self._call(texts, wait, timeout, should_stop, dtype, prompt_name, prompt)
        return self._core.embed(*call, False)[0]

    def embed_and_count(
        self,
        texts: Iterable[str],
        *,
        wait: bool = True,
        timeout: Optional[float] = None,
        should_stop: Optional[Callable[[], bool]] = None,
        dtype: Any = np.float64,
        prompt_name: Optional[str] = None,
        prompt: Optional[str] = None,
    ) -> tuple[np.ndarray, list[int]]:
        """As `embed`, and how many tokens of each text a local model encoded: the prompt's and the special ones
        included, what was cut off not. Raises ValueError when the backend is another.
        """
        return self._core.embed(*self._call(texts, wait, timeout, should_stop, dtype, prompt_name, prompt), True)

    def embed_single(
        self,
        text: str,
        *,
        wait: bool = True,
        dtype: Any = np.float64,
        prompt_name: Optional[str] = None,
        prompt: Optional[str] = None,
    ) -> np.ndarray:
        """The vector of one text, as a batch of it alone has it: `[dimension]`. Raises as `embed`."""
        return self.embed([text], wait=wait, dtype=dtype, prompt_name=prompt_name, prompt=prompt)[0]

    def prompts(self) -> dict[str, str]:
        """The texts that a local model wants before others, by name; of another backend none. Waits as `wait_ready`."""
        return self._core.prompts(self._wait_s)[0]

    def default_prompt_name(self) -> Optional[str]:
        """The one of them that stands before a text unless another is asked for; None for none."""
        return self._core.prompts(self._wait_s)[1]

    def _call(
        self,
        texts: Iterable[str],
        wait: bool,
        timeout: Optional[float],
        should_stop: Optional[Callable[[], bool]],
        dtype: Any,
        prompt_name: Optional[str],
        prompt: Optional[str],
    ) -> tuple:
        """What the core is given for a call."""
        if isinstance(texts, (str, bytes)):
            raise TypeError("texts are a list of str; a single one is for embed_single")
        if isinstance(texts, Mapping) or hasattr(texts, "columns"):
            raise TypeError(f"texts are a list of str; to go over a {type(texts).__name__} gives its keys")
        limit = math.inf if timeout is None else _seconds(timeout, "timeout")
        wait_s = self._wait_s if wait else 0.0
        return tuple(texts), wait_s, limit, should_stop, _is_single_precision(dtype), prompt_name, prompt

    def check_backend_migration(self, db: Any) -> bool:
        """Whether the vectors stored in `db` were made by another backend, and have to be made anew.

        Looks at one row of the table `symbol_embeddings`. `db` has a `fetchone(sql)` that returns the row, as a
        sequence or a mapping, or None; a connection or a cursor of `sqlite3` will do. Without a row the answer is no, at
        once. Waits for the backend as `wait_ready`, and raises EmbeddingNotReadyError when it is not ready.
        """
        return self._core.check_backend_migration(lambda sql: _stored(_fetchone(db, sql)), self._wait_s)

    def close(self) -> None:
        """Stops trying to load, and wakes whoever waits for the model. One that is ready stays ready."""
        self._core.close()

    def __enter__(self) -> "EmbeddingEngine":
        return self

    def __exit__(self, *error: object) -> None:
        if self._is_shared:
            self._core.release()
        else:
            self.close()

    def __repr__(self) -> str:
        return f"<EmbeddingEngine: {self.status().describe()}>"


# One object for each engine that somebody has, by the core's address.
_shared: "weakref.WeakValueDictionary[int, EmbeddingEngine]" = weakref.WeakValueDictionary()
_lock = threading.RLock()  # Re-entrant, since a collection within may end a holder.


def holds_lock() -> ContextManager[bool]:
    """What is held while somebody's hold of a shared engine changes. Never kept: a forked child has another."""
    return _lock


def _forget_shared() -> None:
    """In a forked child: its engines have other addresses, an old one may be that of a new engine; and the lock may
    have been held by a thread that the child does not have."""
    global _shared, _lock
    _shared, _lock = weakref.WeakValueDictionary(), threading.RLock()


os.register_at_fork(after_in_child=_forget_shared)


def acquire(config: Optional[Configuration] = None) -> EmbeddingEngine:
    """The engine that all with an equal configuration share, made if there is none. Loads nothing.

    Each `acquire` is matched by one `release`, or by the end of a `with`; the last one closes the engine.
    """
    core = _core.Engine.acquire(_plain(config))
    with _lock:
        engine = _shared.get(core.identity)
        if engine is None:
            engine = EmbeddingEngine.__new__(EmbeddingEngine)
            engine._core, engine._wait_s, engine._is_shared = core, DEFAULT_WAIT_S, True
            _shared[core.identity] = engine
    return engine


def release(engine: EmbeddingEngine) -> None:
    """Lets go of one hold. Raises ValueError for an engine that was not acquired, or has no hold left.

    In a forked child, an engine that its parent acquired is closed for the child alone.
    """
    engine._core.release()


def engine_config(
    backend: str = "auto", *, base_url: Optional[str] = None, embedding_model: Optional[str] = None
) -> dict:
    """The configuration that a daemon's settings ask for.

    "auto" gives an empty one, which leaves the choice to the engine; "openai" an endpoint's, with the key from the
    environment (BRUNE_LLM_EMBEDDING_API_KEY, BRUNE_LLM_API_KEY); any other, that backend.
    """
    return _core.engine_config(backend, base_url, embedding_model)


def _plain(config: Optional[Configuration]) -> dict:
    return {key: _folder(value) if isinstance(value, os.PathLike) else value for key, value in (config or {}).items()}


def _folder(path: "os.PathLike[str]") -> str:
    """A path as the component knows a folder from a model's name."""
    text = os.fspath(path)
    return text if os.path.isabs(text) else os.path.join(".", text)


def _seconds(value: float, name: str) -> float:
    if not isinstance(value, numbers.Real):
        raise TypeError(f"{name} is a number of seconds, not {type(value).__name__}")
    if math.isnan(value):
        raise ValueError(f"{name} is not a number")
    return float(value)


def _is_single_precision(dtype: Any) -> bool:
    wanted = np.dtype(dtype)
    if wanted not in (np.float32, np.float64):
        raise ValueError(f"dtype is float64 or float32, not {wanted}")
    return wanted == np.float32


def _fetchone(db: Any, sql: str) -> Any:
    if any(kind.__module__ == "sqlite3" for kind in type(db).__mro__):
        return db.execute(sql).fetchone()
    return db.fetchone(sql)


def _stored(row: Any) -> Optional[tuple]:
    """A row's values, of one with names that of the column that is asked for."""
    if row is None:
        return None
    if not hasattr(row, "keys"):
        return tuple(row)
    if not len(row.keys()):
        return ()
    if "model_name" not in row.keys():
        raise RuntimeError("the row has no column model_name")
    return (row["model_name"],)
