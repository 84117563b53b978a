"""The interface of sentence-transformers."""

import contextlib
import io
import pathlib
import pickle
import threading

import numpy as np
import pytest
from rig import Hub, tiny_model
from rig_python import LOCAL, REFERENCES, TEXTS, run
from tovana_embedding import SentenceTransformer, errors

EXPECTED = np.array([reference["embedding_normalized"] for reference in REFERENCES])


@pytest.fixture(name="model")
def _model():
    with SentenceTransformer(LOCAL["model_name"]) as model:
        yield model


@pytest.mark.parametrize("batch_size", [1, 3, 256])
def test_encodes_as_python_does(model, batch_size, capsys):
    vectors = model.encode(TEXTS, batch_size=batch_size, show_progress_bar=True)
    np.testing.assert_allclose(vectors, EXPECTED, rtol=0, atol=2e-6)
    assert capsys.readouterr().err.endswith(f"\rembedded {len(TEXTS)} of {len(TEXTS)}\n")
    again = pickle.loads(pickle.dumps(model)).encode(TEXTS[0])
    assert (again == vectors[0]).all() and again.dtype == np.float32
    assert model.encode([]).shape == (0, model.get_sentence_embedding_dimension()) == (0, EXPECTED.shape[1])


@pytest.mark.parametrize("given, error", [
    ({"normalize_embeddings": False}, ValueError), ({"prompt_name": "other"}, ValueError), ({"batch_size": 0}, ValueError),
])
def test_refuses_what_it_does_not_do(model, given, error):
    with pytest.raises(error):
        model.encode(["a"], **given)


def test_puts_prompts_before_sentences_as_python_does():
    folder = pathlib.Path(LOCAL["model_name"]).with_name("tiny_mpnet_odd_dense")  # its pooling leaves prompts out
    with SentenceTransformer(folder) as model:
        assert model.prompts == {"ask": "which one: ", "document": "", "query": ""}
        assert model.default_prompt_name == "ask"
        asked, bare = model.encode("a file"), model.encode("a file", prompt="", prompt_name="ask")
        assert not np.allclose(asked, bare, atol=1e-3)
        for vector in (model.encode("a file", prompt_name="ask"), model.encode(["a file"], prompt="which one: ")[0],
                       model.encode_query("a file", prompt_name="ask")):
            assert (vector == asked).all()
        for vector in (model.encode("a file", prompt_name="query"), model.encode_query("a file"),
                       model.encode_document("a file")):
            assert (vector == bare).all()
    with SentenceTransformer(folder, prompts={"ask": ""}) as model:
        assert (pickle.loads(pickle.dumps(model)).encode("a file") == bare).all()
    with pytest.raises(ValueError, match="no prompt 'other'; it has"):
        SentenceTransformer(folder, default_prompt_name="other")


# Vectors of the hashing embedder, which an engine would fall back to, are none of a model's.
def test_raises_what_the_load_fails_with(tmp_path):
    with pytest.raises(errors.ModelFilesError):
        SentenceTransformer(tmp_path)
    for file in pathlib.Path(errors.__file__).parent.iterdir():
        if file.name != "libtovana_sentence_transformers.so":
            (tmp_path / "tovana_embedding").mkdir(exist_ok=True)
            (tmp_path / "tovana_embedding" / file.name).symlink_to(file)
    run(f"""
import logging, sys
logging.disable()
sys.path.insert(0, {str(tmp_path)!r})
import tovana_embedding
try:
    tovana_embedding.SentenceTransformer({str(LOCAL["model_name"])!r})
except tovana_embedding.errors.ModelLibraryNotInstalled:
    sys.exit(0)
sys.exit("it has a model")
""")


# A model that is fetched for the first time may take minutes.
def test_says_how_far_a_fetch_is(tmp_path, monkeypatch):
    far = threading.Event()

    class Display(io.StringIO):
        def write(self, text):
            if "0.1 of 0.2 MB" in text:
                far.set()
            return super().write(text)

    def send_slowly(request, content):
        request.reply(200, content[:-1000], {"Content-Length": len(content)})
        for byte in content[-1000:]:
            request.wfile.write(bytes([byte]))
            far.wait(0.01)

    monkeypatch.setenv("HF_HUB_OFFLINE", "0")
    monkeypatch.setenv("HF_HUB_CACHE", str(tmp_path))
    with Hub("no/model", tiny_model()) as hub, contextlib.redirect_stderr(Display()) as shown:
        monkeypatch.setenv("HF_ENDPOINT", hub.url)
        hub.send_weights = send_slowly
        SentenceTransformer("no/model").close()
    assert far.is_set()
    lines = shown.getvalue().splitlines()
    assert (lines[0], lines[-1]) == ("Fetching the model no/model from 127.0.0.1", f"Fetched the model no/model, commit {hub.COMMIT}")
