"""An engine as LangChain's `Embeddings`, which it derives from where LangChain is installed."""

import asyncio
import threading
from typing import Any, Optional

from ._holder import EngineHolder

try:
    from langchain_core.embeddings import Embeddings

    _BASES: tuple = (Embeddings,)
except ImportError:
    _BASES = ()


class TovanaEmbeddings(*_BASES):  # type: ignore[misc]
    """Has the operations of `langchain_core.embeddings.Embeddings`, and can stand wherever one is expected.

    The arguments are the configuration of an engine (`tovana_embedding.EmbeddingEngine`); without a `backend` it is
    a local model. The model is loaded by the first call, which waits for it. `query_prompt_name` and
    `document_prompt_name` say which of the model's prompts stands before queries and before documents, "query" and
    "document" in many models; by default it is the model's default. The hashing embedder weighs the terms of
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
        query_prompt_name: Optional[str] = None,
        document_prompt_name: Optional[str] = None,
    ):
        self._config = dict(
            backend=backend,
            model_name=model_name,
            base_url=base_url,
            api_url=api_url,
            api_key=api_key,
            dimension=dimension,
        )
        self._query_prompt_name = query_prompt_name
        self._document_prompt_name = document_prompt_name
        self._holder = EngineHolder()

    def embed_documents(self, texts: list[str]) -> list[list[float]]:
        """The texts' vectors, in their order."""
        return self._embed(texts, self._document_prompt_name)

    def embed_query(self, text: str) -> list[float]:
        """The vector of one text."""
        return self._embed([text], self._query_prompt_name)[0]

    async def aembed_documents(self, texts: list[str]) -> list[list[float]]:
        """As `embed_documents`, on a thread of its own; cancelling the task ends the call."""
        return await self._aembed(texts, self._document_prompt_name)

    async def aembed_query(self, text: str) -> list[float]:
        """As `embed_query`, on a thread of its own; cancelling the task ends the call."""
        return (await self._aembed([text], self._query_prompt_name))[0]

    async def _aembed(self, texts: list[str], prompt_name: Optional[str]) -> list[list[float]]:
        stop = threading.Event()
        try:
            return await asyncio.to_thread(self._embed, texts, prompt_name, stop.is_set)
        finally:
            stop.set()

    def _embed(self, texts: list[str], prompt_name: Optional[str], should_stop: Any = None) -> list[list[float]]:
        engine = self._holder.engine(**self._config)
        return engine.embed(texts, should_stop=should_stop, prompt_name=prompt_name).tolist()

    def __reduce__(self) -> tuple:
        prompts = dict(query_prompt_name=self._query_prompt_name, document_prompt_name=self._document_prompt_name)
        return _unpickled, (type(self), {**self._config, **prompts})


def _unpickled(kind: type, config: dict) -> TovanaEmbeddings:
    return kind(**config)
