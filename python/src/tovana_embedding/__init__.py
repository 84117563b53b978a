"""Texts to vectors, in the process: sentence-transformers models, embedding endpoints, hashed TF-IDF.

    import tovana_embedding

    with tovana_embedding.acquire({"backend": "local", "model_name": "all-MiniLM-L6-v2"}) as engine:
        vectors = engine.embed(["read a file", "open a socket"])  # a numpy array [2 x 384]

An engine chooses its backend from its configuration and loads it in the background; any thread may use it at
any time. All who `acquire` an equal configuration share one engine, and so its model.

| for | there is |
|---|---|
| vectors | `acquire`, `release`, `EmbeddingEngine`, `EmbeddingStatus` |
| the configuration of a daemon's settings | `engine_config` |
| what local models compute in | `set_precision`, `get_precision` |
| errors | `tovana_embedding.errors` |
| code written for sentence-transformers | `SentenceTransformer` |
| LangChain | `tovana_embedding.langchain.TovanaEmbeddings` |
| scikit-learn | `tovana_embedding.sklearn.TextEmbedder` |

Logs go to the loggers below `logging.getLogger("tovana_embedding")`.
"""

import atexit as _atexit
import os as _os

# Before any call of ours imports it: an interrupt would break that off.
import numpy as _numpy  # noqa: F401

from . import _certificates, _core, _logging, errors
from .encode import SentenceTransformer
from .engine import EmbeddingEngine, acquire, engine_config, release
from .errors import EmbeddingNotReadyError, EmbeddingStopped, Error, TryAgainLaterError
from .precision import get_precision, set_precision
from .status import EmbeddingStatus, Fallback

__all__ = [
    "EmbeddingEngine",
    "EmbeddingNotReadyError",
    "EmbeddingStatus",
    "EmbeddingStopped",
    "Error",
    "Fallback",
    "SentenceTransformer",
    "TryAgainLaterError",
    "acquire",
    "engine_config",
    "errors",
    "get_precision",
    "release",
    "set_precision",
]

_certificates.offer_certifi()
_core.send_records_to(_logging.emit)
_atexit.register(_core.interpreter_ends)
_os.register_at_fork(after_in_child=_core.interpreter_was_forked)
