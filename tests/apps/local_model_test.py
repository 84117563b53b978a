"""The tool with local models: a tiny one, and what does not load."""

import json
import pathlib

import pytest
from rig import TINY_MODEL, TOOL, Hub, expect_error, run, tiny_model

LIBRARY = pathlib.Path(TOOL).with_name("libtovana_sentence_transformers.so")
pytestmark = pytest.mark.skipif(not LIBRARY.exists(), reason="the model library is not built")


def test_prints_pythons_vectors():
    references = [json.loads(line) for line in (TINY_MODEL / "reference.jsonl").read_text().splitlines()]
    given = "".join(json.dumps({"text": reference["text"]}) + "\n" for reference in references)
    result = run("embed", "--jsonl", "--backend", "local", "--model", str(TINY_MODEL), given=given)
    for record, reference in zip(result.records(), references, strict=True):
        expected = pytest.approx(reference["embedding_normalized"], rel=0, abs=2e-6)
        assert record["vector"] == expected, reference["text"]


def test_puts_the_prompt_that_is_named_before_the_texts(tmp_path):
    """A model with the prompts "ask", its default, which pooling leaves out, and two that are empty."""
    model = ("--backend", "local", "--model", str(TINY_MODEL.with_name("tiny_mpnet_odd_dense")))

    def vectors(*options):
        return [record["vector"] for record in run("embed", "a file", "read it", *options, *model).records()]

    def score(*options):
        return run("search", "a file", "--json", *options, *model, given="read it\n").records()[0]["score"]

    def cosine(query, text):
        return pytest.approx(sum(x * y for x, y in zip(query, text)))

    (query, text), (bare_query, bare_text) = vectors(), vectors("--prompt", "query")
    assert vectors("--prompt", "ask") == [query, text] and query != bare_query
    assert score() == cosine(query, text)
    assert score("--prompt", "query") == cosine(bare_query, text)
    assert score("--text-prompt", "query") == cosine(query, bare_text)

    path = str(tmp_path / "index")
    assert run("index", path, "--prompt", "query", *model, given="read it\n").status == 0
    assert score("--index", path) == cosine(query, bare_text)
    assert score("--index", path, "--prompt", "query") == cosine(bare_query, bare_text)
    assert run("index", path, "--prompt", "document", *model, given="read it\n").out.endswith(b" 0 texts embedded\n")
    expect_error(run("index", path, *model, given="read it\n"), 65, "of texts without a prompt, not with the prompt \"")
    for option in ("--prompt", "--text-prompt"):
        expect_error(run("search", "a", option, "x", *model, given="a\n"), 64,
                     'the model has no prompt "x"; it has "ask", "document", "query"')
    for option, said in ("--prompt=query", "prompts"), ("--precision=bfloat16", "--precision"):
        expect_error(run("embed", "a", option, "--backend", "tfidf"), 64, f"tfidf has no {said}")


def test_status_says_what_is_used():
    result = run("status", "--wait", "--json", "--backend", "local", "--model", str(TINY_MODEL), env={"HOME": "/nobody"})
    status, = result.records()
    assert (status["library"], status["model_folder"]) == (str(LIBRARY), str(TINY_MODEL))
    assert (status["cache"], status["settings"]) == ("/nobody/.cache/huggingface/hub", None)


@pytest.mark.parametrize("model, settings, status, said", [
    ("a/b/c", {}, 64, "neither a repository"),
    ("./nowhere", {}, 65, "'./nowhere': no such folder"),
    ("tiny", {}, 65, "model.safetensors is empty"),
    ("nobody", {}, 69, "the model sentence-transformers/nobody does not exist"),
    ("tiny", {"HF_HUB_OFFLINE": "1"}, 69, "HF_HUB_OFFLINE forbids fetching it"),
    ("tiny", {"HF_HUB_CACHE": "/dev/null"}, 74, "cannot be written to"),
    ("tiny", {"HF_ENDPOINT": "foo"}, 65, "HF_ENDPOINT is 'foo'"),
    ("busy", {}, 75, "HTTP 429"),
])
def test_says_why_a_model_does_not_load_and_whether_trying_again_helps(tmp_path, monkeypatch, model, settings, status, said):
    (tmp_path / "nobody").mkdir()
    monkeypatch.chdir(tmp_path)
    with Hub("sentence-transformers/tiny", {**tiny_model(), "model.safetensors": b""}) as hub:
        env = {"HF_ENDPOINT": hub.url, "HF_HUB_CACHE": str(tmp_path), **settings}
        result = run("embed", "a", "--backend", "local", "--model", model, env=env)
    error = result._replace(err=result.err.splitlines(keepends=True)[-1])  # what is fetched is told before
    expect_error(error, status, said)
    assert ("the folder here is --model ./nobody\n" in result.err) == (model == "nobody")
    for wrong in ("next attempt", "pull", "tiny fetches"):
        assert wrong not in error.err


# A call of the model ends by itself only: one with all the texts would outlast the deadline, and succeed.
def test_keeps_a_deadline_while_a_model_computes(tmp_path):
    command = ["embed", "--backend", "local", "--model", str(TINY_MODEL), "--batch-size", "100000", "--deadline", "0.5"]
    given = "".join(20 * "a text of some words " + f"{i}\n" for i in range(100_000))
    expect_error(run(*command, "--output", str(tmp_path / "out"), given=given), 69, "the deadline of 0.5 s")
