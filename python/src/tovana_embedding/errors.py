"""What the component's calls raise: each kind by its name, and each a Python error of the same nature."""

import builtins
from typing import TYPE_CHECKING, Optional

if TYPE_CHECKING:
    from .status import EmbeddingStatus

__all__ = [
    "CacheNotWritableError",
    "EmbeddingNotReadyError",
    "EmbeddingStopped",
    "EnvironmentVariableError",
    "Error",
    "ModelFetchError",
    "ModelFilesError",
    "ModelLibraryError",
    "ModelLibraryNotInstalled",
    "TryAgainLaterError",
]


class Error(Exception):
    """Every error of the component."""


class RuntimeError(Error, builtins.RuntimeError):
    """An operation failed for a reason outside the arguments it was given."""


class ValueError(Error, builtins.ValueError):
    """An argument or a configuration value has a form that the operation cannot work with."""


class TryAgainLaterError(Error, builtins.RuntimeError):
    """The request cannot be served now; the same request may succeed later."""


class EmbeddingNotReadyError(TryAgainLaterError):
    """The embedding model is loading, could not be loaded, or was shut down.

    `status` says which; `__cause__` is what the last attempt to load failed with, where that is known.
    """

    def __init__(self, message: str, status: "Optional[EmbeddingStatus]" = None):
        super().__init__(message, status)
        self.status = status

    def __str__(self) -> str:
        return str(self.args[0])


class EmbeddingStopped(RuntimeError):
    """A call was asked to stop by its stop test. Not a failure."""


class ModelLibraryNotInstalled(RuntimeError):
    """There is no model library."""


class ModelLibraryError(RuntimeError):
    """The model library is there and cannot be used."""


class ModelFilesError(ValueError):
    """A model's files are damaged, incomplete or of a kind that does not load."""


class ModelFetchError(RuntimeError):
    """A model could not be fetched from its hub."""


class CacheNotWritableError(RuntimeError):
    """The cache of models cannot be written to: no right to, or no room."""


class EnvironmentVariableError(ValueError):
    """A variable of the environment has a value that cannot be meant."""
