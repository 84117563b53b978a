"""What an engine says of itself."""

from typing import NamedTuple, Optional

from . import _core


class EmbeddingStatus(NamedTuple):
    """What an engine was doing at one moment.

    | `state` | means |
    |---|---|
    | "idle" | no load has started yet |
    | "loading" | the loader is choosing the backend or loading its model |
    | "ready" | the backend can embed |
    | "unavailable" | the last attempt to load failed; another follows in `retry_in_s` seconds |
    | "closed" | the engine was closed before any backend was ready; nothing will be loaded |
    """

    state: str
    #: The name of the backend, exactly when that is ready.
    backend: Optional[str] = None
    #: When unavailable, what the last attempt failed with; otherwise why the backend is not the best one.
    detail: Optional[str] = None
    #: While loading: seconds since the attempt began.
    loading_s: Optional[float] = None
    #: While unavailable: seconds to the next attempt.
    retry_in_s: Optional[float] = None

    @property
    def ready(self) -> bool:
        """Whether the backend can embed."""
        return self.state == "ready"

    def describe(self) -> str:
        """The state as the end of a sentence that begins with "The embedding model"."""
        return _core.describe(*self)

    def to_dict(self) -> dict:
        """The fields that have a value, by name and in their order."""
        return {name: value for name, value in self._asdict().items() if value is not None}


class Fallback(NamedTuple):
    """Why a backend is not the one that was asked for, or not the best one."""

    #: "not_configured", "library_not_installed" or "local_backend_failed".
    cause: str
    reason: str
