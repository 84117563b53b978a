"""The tool with endpoints, played on loopback."""

import json
import signal
import threading

import pytest
from rig import Server, answer_openai, expect_error, finish, run, start

KEY = {"BRUNE_LLM_API_KEY": "sk-secret"}


def test_embeds_batch_by_batch_in_order():
    with Server(answer_openai) as server:
        result = run("embed", "--backend", "openai", "--model", "m", "--batch-size", "2", "--base-url",
                     server.url + "/v1/", given="a\nbcd\nef\n", env=KEY)
    assert [(r["text"], r["vector"]) for r in result.records()] == [
        ("a", [1, 0.5]), ("bcd", [3, 0.5]), ("ef", [2, 0.5])]
    assert (len(server.requests), server.connections) == (2, 1)
    assert server.requests[1].startswith("POST /v1/embeddings HTTP/1.1")
    assert "Bearer sk-secret" in server.requests[1]


def test_says_in_one_line_why_a_call_failed():
    with Server(lambda request: request.reply(401, b"no such key: sk-secret")) as server:
        result = run("embed", "a", "--backend", "api", "--api-url", server.url, env=KEY)
    expect_error(result, 69, "HTTP 401, check the API key; the server says 'no such key: ***'\n")


# The user knows lines, whatever texts were in a call, and knows the query.
@pytest.mark.parametrize("vector, options, status, said", [
    ([1], "embed --batch-size=2", 69, "vectors of 2 and of 1 numbers (line 5), which do not compare"),
    ([1], "embed --format=npy", 69, "vectors of 2 and of 1 numbers (line 5), which do not compare"),
    ([], "embed", 69, "returned a vector without numbers for line 5; "),
    ("x", "embed --batch-size=2", 69, "got a string; the call was for lines 5 to 6\n"),
    ("x", "embed", 69, "got a string; the call was for lines 1 to 6\n"),
    ([], "search bad", 69, "returned a vector without numbers; "),
    ([0, 0], "search bad", 0, "returned only zeros for the query")])
def test_says_which_text_has_no_usable_vector(vector, options, status, said):
    def answer_with_fault(request):
        vectors = [vector if text == "bad" else [1, 2] for text in json.loads(request.body)["input"]]
        request.reply(200, json.dumps({"data": [{"embedding": each} for each in vectors]}).encode())

    with Server(answer_with_fault) as server:
        result = run(*options.split(), "--jsonl", "--backend", "openai", "--base-url", server.url,
                     given='{"text":"a"}\n{"text":"b"}\n\n\n{"text":"bad"}\n{"text":"c"}')
    expect_error(result._replace(out=b""), status, said)


def test_outlives_neither_its_deadline_nor_ctrl_c():
    asked = threading.Event()
    with Server(lambda request: (asked.set(), request.stall())) as server:
        command = ["embed", "a", "--backend", "openai", "--base-url", server.url]
        expect_error(run(*command, "--deadline", "0.2"), 69, "deadline")
        asked.clear()
        interrupted = start(*command)
        assert asked.wait(60)
        interrupted.send_signal(signal.SIGINT)
        assert finish(interrupted) == (130, b"", "")


@pytest.mark.parametrize("options", [
    "--backend api", "--backend openai", "--backend openai --api-url http://h --base-url http://h",
    "--backend api --api-url ftp://h", "--backend api --api-url http://h:99999",
    "--backend openai --base-url https:///v1", "--backend tfidf --model m",
    "--backend api --api-url http://h --model m", "--no-wait --wait-s 1", "--base-url http://h"])
def test_asks_for_what_a_backend_needs_and_no_more(options):
    result = run("embed", "a", *options.split(), env=KEY)
    expect_error(result, 64, "--help")
    assert "sk-secret" not in result.err
