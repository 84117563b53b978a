"""An engine as LangChain's `Embeddings`. LangChain need not be installed."""

import asyncio
import threading
from typing import Any, Optional

from ._holder import EngineHolder


class TovanaEmbeddings:
    """Has the operations of `langchain_core.embeddings.Embeddings`, and can stand wherever one is expected.

    The arguments are the configuration of an engine (`tovana_embedding.EmbeddingEngine`); without a `backend` it is
    a local model. The model is loaded by the first call, which waits for it. The hashing embedder weighs the terms of
    a text by the other texts of a call, so with it queries compare to documents by shared terms alone.
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
    ):
        self._config = dict(
            backend=backend,
            model_name=model_name,
            base_url=base_url,
            api_url=api_url,
            api_key=api_key,
            dimension=dimension,
        )
        self._holder = EngineHolder()

    def embed_documents(self, texts: list[str]) -> list[list[float]]:
        """The texts' vectors, in their order."""
        return self._embed(texts, None)

    def embed_query(self, text: str) -> list[float]:
        """The vector of one text."""
        return self._embed([text], None)[0]

    async def aembed_documents(self, texts: list[str]) -> list[list[float]]:
        """As `embed_documents`, on a thread of its own; cancelling the task ends the call."""
        stop = threading.Event()
        try:
            return await asyncio.to_thread(self._embed, texts, stop.is_set)
        finally:
            stop.set()

    async def aembed_query(self, text: str) -> list[float]:
        """As `embed_query`, on a thread of its own; cancelling the task ends the call."""
        return (await self.aembed_documents([text]))[0]

    def _embed(self, texts: list[str], should_stop: Any) -> list[list[float]]:
        return self._holder.engine(**self._config).embed(texts, should_stop=should_stop).tolist()

    def __reduce__(self) -> tuple:
        return _unpickled, (type(self), self._config)


def _unpickled(kind: type, config: dict) -> TovanaEmbeddings:
    return kind(**config)
