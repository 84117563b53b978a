"""What the adapters to other libraries share: an engine that is acquired when it is needed."""

from typing import Any, Optional

from .engine import EmbeddingEngine, acquire, holds_lock, release


class EngineHolder:
    """Holds the engine of one configuration at a time, until another is asked for or this is gone."""

    def __init__(self) -> None:
        self._config: Optional[dict] = None
        self._engine: Optional[EmbeddingEngine] = None

    def engine(self, **config: Any) -> EmbeddingEngine:
        """The engine of the configuration but for its Nones."""
        wanted = {key: value for key, value in config.items() if value is not None}
        with holds_lock():
            if self._engine is None or wanted != self._config:
                self.release()
                self._engine, self._config = acquire(wanted), wanted
            return self._engine

    def release(self) -> None:
        with holds_lock():
            engine, self._engine = self._engine, None
        if engine is not None:
            release(engine)

    def __del__(self) -> None:
        self.release()
