"""Engines: vectors, waits, limits, errors, records, forks."""

import contextlib
import logging
import os
import pickle
import queue
import sqlite3
import threading

import numpy as np
import pytest
import tovana_embedding
from rig_python import LOCAL, PATIENCE_S, REFERENCES, TEXTS, TFIDF, WORK, Server, answer_openai, press_ctrl_c, run
from tovana_embedding import EmbeddingEngine, EmbeddingNotReadyError, EmbeddingStatus, EmbeddingStopped, errors


@pytest.fixture
def endpoint():
    """An endpoint that never answers a text "stall"; `asked` is set when one has come."""
    asked = threading.Event()

    def answer(request):
        if b"stall" in request.body:
            asked.set()
            request.stall()
        else:
            answer_openai(request)

    with Server(answer) as server:
        server.asked = asked
        yield server


@contextlib.contextmanager
def ctrl_c_when(event):
    """Presses it then, which is to end the body."""
    thread = threading.Thread(target=lambda: event.wait(PATIENCE_S) and press_ctrl_c())
    thread.start()
    with pytest.raises(KeyboardInterrupt):
        yield
    thread.join()


def openai(server):
    return EmbeddingEngine({"backend": "openai", "base_url": server.url})


@pytest.mark.parametrize("dtype", [np.float64, np.float32, "f4"])
def test_gives_pythons_vectors_in_order_however_they_are_parted(dtype):
    with EmbeddingEngine(LOCAL) as engine:
        vectors = engine.embed((text for text in 30 * TEXTS), dtype=dtype)
        assert (vectors.dtype, vectors.flags.owndata, vectors.flags.c_contiguous) == (np.dtype(dtype), True, True)
        expected = np.array(30 * [reference["embedding_normalized"] for reference in REFERENCES])
        np.testing.assert_allclose(vectors, expected, rtol=0, atol=2e-6)
        assert engine.embed([]).shape == (0, 0)
        again, counts = engine.embed_and_count(30 * TEXTS, dtype=dtype)
        assert (again == vectors).all() and counts == 30 * [len(reference["ids"]) for reference in REFERENCES]
    with EmbeddingEngine(TFIDF) as engine, pytest.raises(errors.ValueError, match="tfidf does not count tokens"):
        engine.embed_and_count(["a"])


def test_takes_texts_as_the_component_does():
    with EmbeddingEngine(TFIDF) as engine:
        many = engine.embed(["open", "größe \U0001f40d", "a\0b", "\ud800"])
        assert (many == engine.embed(["open", "größe \U0001f40d", "a\0b", "\ufffd"])).all()
        large = [f"word{i} other" for i in range(90_000)]  # so large that it is computed on another thread
        assert (engine.embed(large)[:, :] == engine.embed(tuple(large))).all()
        for wrong in ("a text", b"a text", ["a", b"b"], [None]):
            with pytest.raises(TypeError):
                engine.embed(wrong)
        with pytest.raises(ValueError, match="float16"):
            engine.embed(["a"], dtype=np.float16)
    with pytest.raises(TypeError, match="dimension is a str, an int or None, not bool"):
        EmbeddingEngine({"dimension": True})


def test_tells_why_a_model_does_not_load(tmp_path):
    with EmbeddingEngine({"backend": "local", "model_name": tmp_path}) as engine:
        with pytest.raises(EmbeddingNotReadyError) as raised:
            engine.embed(["a"])
        error = raised.value
        assert isinstance(error, tovana_embedding.TryAgainLaterError) and isinstance(error, RuntimeError)
        assert (type(error.__cause__), str(tmp_path) in str(error.__cause__)) == (errors.ModelFilesError, True)
        assert isinstance(error.__cause__, ValueError)
        status = engine.status()
        assert str(error) == f"The embedding model {error.status.describe()}"
        assert list(status.to_dict()) == ["state", "detail", "retry_in_s"]
        assert (status.state, status.ready, status.retry_in_s > 20) == ("unavailable", False, True)
        assert pickle.loads(pickle.dumps(error)).status == error.status
    assert engine.status().state == "closed"
    assert EmbeddingStatus("ready", "tfidf").describe() == "is ready (tfidf)"


def test_says_what_is_chosen_and_why():
    with EmbeddingEngine({"backend": "api"}) as engine:
        engine.wait_ready()
        assert (engine.backend_name(), engine.dimension()) == ("tfidf", 256)
        assert engine.fallback().cause == "not_configured"
        assert engine.fallback_reason() == engine.fallback().reason == engine.status().detail
    assert tovana_embedding.engine_config() == {}
    assert tovana_embedding.engine_config("openai", base_url="http://a")["base_url"] == "http://a"


def test_shares_one_engine_a_configuration():
    first = tovana_embedding.acquire(TFIDF)
    with tovana_embedding.acquire(dict(TFIDF)) as again:
        assert again is first
    assert first.status().state == "idle"  # a hold is left
    tovana_embedding.release(first)
    assert first.status().state == "closed"
    for engine in (first, EmbeddingEngine(TFIDF)):
        with pytest.raises(ValueError):
            tovana_embedding.release(engine)


@pytest.mark.parametrize("stored, answer", [
    (None, False), ((), False), ({}, False), (("tfidf",), False), ({"model_name": "tfidf"}, False),
    (("local:a",), True), ((None,), True), ((b"tfidf",), True), ({"model_name": 7}, True),
])
def test_tells_vectors_of_another_backend(stored, answer):
    class Database:
        def fetchone(self, sql):
            assert sql == "SELECT model_name FROM symbol_embeddings LIMIT 1"
            return stored

    with EmbeddingEngine(TFIDF) as engine:
        assert engine.check_backend_migration(Database()) is answer


@pytest.mark.parametrize("factory", [None, sqlite3.Row])
def test_asks_a_connection_of_sqlite(factory):
    connection = sqlite3.connect(":memory:")
    connection.row_factory = factory
    with EmbeddingEngine(TFIDF) as engine:
        with pytest.raises(sqlite3.OperationalError):
            engine.check_backend_migration(connection)
        connection.executescript("CREATE TABLE symbol_embeddings (model_name); INSERT INTO symbol_embeddings VALUES ('a')")
        assert engine.check_backend_migration(connection) and engine.check_backend_migration(connection.cursor())


def test_ends_an_endpoints_call(endpoint):
    with openai(endpoint) as engine:
        assert engine.embed(["ab", "c"]).tolist() == [[2, 0.5], [1, 0.5]]
        with pytest.raises(errors.RuntimeError, match="deadline"):
            engine.embed(["stall"], timeout=0.2)
        endpoint.asked.clear()
        with pytest.raises(EmbeddingStopped):
            engine.embed(["stall"], should_stop=endpoint.asked.is_set)
        endpoint.asked.clear()
        with ctrl_c_when(endpoint.asked):
            engine.embed(["stall"])
        with pytest.raises(ZeroDivisionError):
            engine.embed(["stall"], should_stop=lambda: 1 / 0)
        assert len(endpoint.requests) == 4  # the last was stopped before it began


# A call of the model ends by itself only: one with all the texts would outlast any patience.
def test_ends_a_models_call():
    with EmbeddingEngine(LOCAL) as engine:
        with pytest.raises(errors.RuntimeError, match="the call's time of 0.5 s is up"):
            engine.embed(WORK, timeout=0.5)
        asked = []
        with pytest.raises(EmbeddingStopped):
            engine.embed(WORK, should_stop=lambda: asked.append(None) or len(asked) > 5)


def test_ends_the_wait_for_a_model(monkeypatch, tmp_path):
    asked = threading.Event()
    monkeypatch.setenv("HF_HUB_OFFLINE", "0")
    monkeypatch.setenv("HF_HUB_CACHE", str(tmp_path))
    with Server(lambda request: (asked.set(), request.stall())) as hub:
        monkeypatch.setenv("HF_ENDPOINT", hub.url)
        with EmbeddingEngine({"backend": "local", "model_name": "no/model"}) as engine:
            with ctrl_c_when(asked):
                engine.wait_ready(PATIENCE_S)
        assert len(hub.requests) == 1
        with EmbeddingEngine({"backend": "local", "model_name": "no/model"}, wait_s=0.2) as engine:
            with pytest.raises(EmbeddingNotReadyError, match="loading"):
                engine.embed(["a"])
            with pytest.raises(EmbeddingNotReadyError, match="loading"):
                engine.embed(["a"], wait=False, should_stop=iter([False, True]).__next__)  # asked again by a wait


class Records(logging.Handler):
    """Collects records; `find` waits for one."""

    def __init__(self):
        super().__init__()
        self._queue = queue.Queue()
        self.emit = self._queue.put

    def find(self, words):
        while words not in (record := self._queue.get(timeout=PATIENCE_S)).getMessage():
            pass
        return record


def test_computes_in_the_precision_that_is_set_before_the_first_model():
    print_all = """import sys, tovana_embedding as t
from pathlib import Path
print(t.get_precision())
try:
    t.set_precision("half")
except ValueError as error:
    print(error)
t.set_precision("float32")
t.SentenceTransformer(Path(sys.argv[1]))
print(t.get_precision())
try:
    t.set_precision("bfloat16")
except RuntimeError as error:
    print(error)"""
    assert run(print_all, LOCAL["model_name"]).splitlines() == [
        "None", "precision is 'float32' or 'bfloat16', not 'half'", "float32",
        "the local models of this process compute in float32 already: ask for bfloat16 before the first is loaded"]


def test_logs_by_pythons_loggers(tmp_path):
    logger = logging.getLogger("tovana_embedding")
    logger.setLevel(logging.INFO)
    logger.addHandler(records := Records())
    with EmbeddingEngine(TFIDF) as engine:
        engine.wait_ready()
        ready = records.find("ready: tfidf")
    assert (ready.name, ready.levelname) == ("tovana_embedding.engines.embedding", "INFO")
    assert ("%s" in ready.msg, ready.args[0], ready.thread == threading.get_ident()) == (True, "tfidf", False)
    with EmbeddingEngine({"backend": "local", "model_name": tmp_path}) as engine:
        engine.warm_up_async()
        assert records.find("could not be loaded").levelname == "WARNING"
    logger.removeHandler(records)


def test_goes_on_in_a_forked_child():
    with tovana_embedding.acquire({"backend": "tfidf", "dimension": 64}) as past:
        past.embed(["a"])
    with tovana_embedding.acquire(LOCAL) as engine, EmbeddingEngine(TFIDF) as idle:
        expected = engine.embed(TEXTS)
        child = os.fork()
        if child == 0:
            status = 1
            try:
                assert (engine.embed(TEXTS) == expected).all()
                assert idle.embed(["a"]).shape == past.embed(["a"])[:, :8].shape == (1, 8)
                with tovana_embedding.acquire({"backend": "tfidf", "dimension": 512}) as other:
                    assert other.embed(["a"]).shape == (1, 512)  # whatever has its address
                with tovana_embedding.acquire(LOCAL) as own:
                    assert own is not engine and (own.embed(TEXTS) == expected).all()
                tovana_embedding.release(engine)
                status = 0
            finally:
                os._exit(status)
        assert os.waitpid(child, 0)[1] == 0
        assert (engine.embed(TEXTS) == expected).all()
