"""LangChain's standard tests, and what scikit-learn does with its estimators."""

import asyncio
import pickle
import threading

import numpy as np
import pytest
from langchain_tests.integration_tests import EmbeddingsIntegrationTests
from langchain_tests.unit_tests import EmbeddingsUnitTests
from rig_python import LOCAL, PATIENCE_S, TEXTS, Server
from sklearn.base import clone
from sklearn.linear_model import LogisticRegression
from sklearn.model_selection import cross_val_score
from sklearn.pipeline import make_pipeline
from sklearn.utils import get_tags
from tovana_embedding import SentenceTransformer
from tovana_embedding.langchain import TovanaEmbeddings
from tovana_embedding.sklearn import TextEmbedder

MODEL = LOCAL["model_name"]


class OfTheTinyModel:
    embeddings_class = TovanaEmbeddings
    embedding_model_params = {"model_name": MODEL}


class TestLangChainUnit(OfTheTinyModel, EmbeddingsUnitTests):
    pass


class TestLangChainIntegration(OfTheTinyModel, EmbeddingsIntegrationTests):
    pass


def test_a_cancelled_task_ends_its_call():
    asked = threading.Event()

    async def cancel_amid_call(url):
        task = asyncio.create_task(TovanaEmbeddings(backend="openai", base_url=url).aembed_query("a"))
        await asyncio.to_thread(asked.wait, PATIENCE_S)
        task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task

    with Server(lambda request: (asked.set(), request.stall())) as server:
        asyncio.run(cancel_amid_call(server.url))  # ends by waiting for the call's thread
        assert len(server.requests) == 1


def test_puts_the_prompts_that_are_named_before_texts():
    folder = MODEL.with_name("tiny_mpnet_odd_dense")
    model = SentenceTransformer(folder)
    asked, bare = (model.encode("a", prompt_name=name).tolist() for name in ("ask", "query"))
    assert TovanaEmbeddings(folder, document_prompt_name="query").embed_query("a") == asked
    embeddings = pickle.loads(pickle.dumps(TovanaEmbeddings(folder, query_prompt_name="query")))
    assert (embeddings.embed_query("a"), embeddings.embed_documents(["a"])) == (bare, [asked])
    assert asyncio.run(embeddings.aembed_query("a")) == bare
    assert asyncio.run(embeddings.aembed_documents(["a"])) == [asked]
    assert TextEmbedder(folder, prompt_name="query").transform(["a"]).tolist() == [bare]
    with pytest.raises(ValueError, match="the backend tfidf has no prompts"):
        TextEmbedder(backend="tfidf", prompt_name="query").transform(["a"])


def test_works_in_a_pipeline():
    texts, labels = 6 * TEXTS, 6 * [len(text) % 2 for text in TEXTS]
    pipeline = make_pipeline(TextEmbedder(MODEL), LogisticRegression())
    assert cross_val_score(pipeline, texts, labels, cv=2).shape == (2,)  # clones it
    fitted = pipeline.fit(texts, labels)
    assert (pickle.loads(pickle.dumps(fitted)).predict(texts) == fitted.predict(texts)).all()
    tags = get_tags(pipeline[0])
    assert (tags.input_tags.string, tags.input_tags.two_d_array, tags.requires_fit) == (True, False, False)
    assert list(pipeline[:1].get_feature_names_out()[:2]) == ["textembedder0", "textembedder1"]


def test_follows_its_parameters():
    embedder = TextEmbedder(backend="tfidf", dimension=8)
    assert embedder.transform(["a"]).shape == (1, 8)
    assert embedder.set_params(dimension=16, dtype=np.float64).transform(["a"]).shape == (1, 16)
    copied = clone(embedder)
    assert copied.get_params() == embedder.get_params() and copied.transform(["a"]).dtype == np.float64
