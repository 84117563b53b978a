"""The tool with endpoints, played on loopback: with one request in flight, and with several."""

import json
import signal
import socket
import struct
import subprocess
import threading

import pytest
from rig import Server, answer_openai, expect_error, finish, run, start

KEY = {"BRUNE_LLM_API_KEY": "sk-secret"}
in_flight = pytest.mark.parametrize("in_flight", [1, 8])


def openai(server, in_flight, *options):
    return ["embed", "--backend", "openai", "--base-url", server.url, f"--concurrency={in_flight}", *options]


def texts_of(request):
    return json.loads(request.body)["input"]


# Equal texts once: of arguments wherever they stand, of what is read as it is needed those of a batch.
@pytest.mark.parametrize("arguments, expected", [
    (["a", "bcd", "a", "ef", "ef", "g"], [["a", "bcd", "ef"], ["g"]]), ([], [["a", "bcd"], ["ef", "g"]])])
def test_embeds_batch_by_batch_in_order(arguments, expected):
    asked = []
    with Server(lambda request: (asked.append(texts_of(request)), answer_openai(request))) as server:
        result = run("embed", *arguments, "--backend", "openai", "--model", "m", "--batch-size", "3", "--base-url",
                     server.url + "/v1/", given="a\nbcd\na\nef\nef\ng\n", env=KEY)
    assert [(r["text"], r["vector"]) for r in result.records()] == [
        ("a", [1, 0.5]), ("bcd", [3, 0.5]), ("a", [1, 0.5]), ("ef", [2, 0.5]), ("ef", [2, 0.5]), ("g", [1, 0.5])]
    assert (asked, server.connections) == (expected, 1)
    assert server.requests[1].startswith("POST /v1/embeddings HTTP/1.1")
    assert "Bearer sk-secret" in server.requests[1]


def test_a_failure_leaves_whole_lines():
    calls = []
    with Server(lambda request: (calls.append(0), request.reply(401) if len(calls) > 2 else answer_openai(request))) as server:
        result = run("embed", "--backend", "openai", "--base-url", server.url, "--batch-size", "2", given="a\nb\nc\nd\ne\n")
    assert [json.loads(line)["text"] for line in result.out.splitlines()] == ["a", "b", "c", "d"] and result.status == 69


# A call that failed lets no other begin; those that run beside it have begun.
@in_flight
def test_says_in_one_line_why_a_call_failed(in_flight):
    with Server(lambda request: request.reply(401, b"no such key: sk-secret")) as server:
        command = ["embed", "--backend", "api", "--api-url", server.url, f"--concurrency={in_flight}"]
        expect_error(run(*command, "a", env=KEY), 69,
                     "HTTP 401, check the API key; the server says 'no such key: ***'\n")
        del server.requests[:]
        result = run(*command, "--batch-size=1", given="a\n" * 20, env=KEY)
    expect_error(result, 69, "key: ***'; the call was for line 1\n")
    assert len(server.requests) <= in_flight


# The user knows lines, whatever texts were in a call, and knows the query.
@in_flight
@pytest.mark.parametrize("vector, options, status, said", [
    ([1], "embed --batch-size=2", 69, "vectors of 2 and of 1 numbers (line 5), which do not compare"),
    ([1], "embed --format=npy", 69, "vectors of 2 and of 1 numbers (line 5), which do not compare"),
    ([], "embed", 69, "returned a vector without numbers for line 5; "),
    ("x", "embed --batch-size=2", 69, "got a string; the call was for lines 5 to 6\n"),
    ("x", "embed", 69, "got a string; the call was for lines 1 to 6\n"),
    ([], "search bad", 69, "returned a vector without numbers; "),
    ([0, 0], "search bad", 0, "returned only zeros for the query")])
def test_says_which_text_has_no_usable_vector(vector, options, status, said, in_flight):
    def answer_with_fault(request):
        vectors = [vector if text == "bad" else [1, 2] for text in texts_of(request)]
        request.reply(200, json.dumps({"data": [{"embedding": each} for each in vectors]}).encode())

    with Server(answer_with_fault) as server:
        options = options.replace("embed", f"embed --concurrency={in_flight}").split()
        result = run(*options, "--jsonl", "--backend", "openai", "--base-url", server.url,
                     given='{"text":"a"}\n{"text":"b"}\n\n\n{"text":"bad"}\n{"text":"c"}')
    expect_error(result._replace(out=b""), status, said)


# The server sees all calls at once, each on a connection that is kept. Then some are slow, refused, cut off or
# reset at first: nothing is lost, doubled or out of order.
def test_several_requests_in_flight_print_what_one_prints():
    given = "".join(f"{'x' * (i % 97)}{i}\n" for i in range(20_000))
    printed, seen = [], set()
    all_at_once, later = threading.Barrier(8), threading.Event()

    def batch_of(request):
        return int(texts_of(request)[0].lstrip("x")) // 256

    def answer_eight_at_once(request):
        if batch_of(request) < 8:
            all_at_once.wait(60)
        answer_openai(request)

    def answer_with_faults(request):
        batch = batch_of(request)
        fault = batch % 20 if batch not in seen else None
        seen.add(batch)
        if fault == 1:
            return request.reply(429, headers={"Retry-After": 1000})
        if fault == 4:
            return request.reply(500)
        if fault == 7:
            request.reply(200, b'{"data"', headers={"Content-Length": 100})
        if fault == 10:
            request.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            request.connection.close()
        if fault in (7, 10):
            request.close_connection = True
            return None
        if batch == 40:
            later.wait(60)
        answer_openai(request)
        if batch == 44:
            later.set()

    for in_flight, script in (1, answer_openai), (8, answer_eight_at_once), (8, answer_with_faults):
        with Server(script) as server:
            result = run(*openai(server, in_flight), given=given)
        assert (result.status, result.err) == (0, "")
        printed.append(result.out)
        assert server.connections <= in_flight or script == answer_with_faults
    assert printed[0] == printed[1] == printed[2]
    assert [json.loads(line)["text"] for line in printed[0].splitlines()] == given.splitlines()


# A pipe is read as its texts are wanted, and what comes before a fault is written, however late it comes. A file
# is checked before anything is sent.
@in_flight
@pytest.mark.parametrize("line, status, said", [
    ("{", 65, "input, line 3"), ('{"text":"bad"}', 69, "HTTP 400; the call was for line 3")])
def test_writes_what_comes_before_a_fault(tmp_path, in_flight, line, status, said):
    refused = threading.Event()

    def answer(request):
        if texts_of(request) == ["bad"]:
            request.reply(400)
            return refused.set()
        if in_flight > 1 and status == 69:
            refused.wait(60)
        answer_openai(request)

    given = '{"text":"%s"}\n\n%s\n{"text":"b"}' % ("a" * 1_200_000, line)  # more than is held back
    with Server(answer) as server:
        command = openai(server, in_flight, "--jsonl", f"--batch-size={2 if status == 65 else 1}")
        result = run(*command, given=given)
        assert result.out.startswith(b'{"text":"aaa')
        expect_error(result._replace(out=b""), status, said)
        del server.requests[:]
        (tmp_path / "file").write_text(given)
        result = run(*command, "--input", str(tmp_path / "file"), "--output", str(tmp_path / "out"))
    expect_error(result, status, "line 3")
    assert (server.requests == []) == (status == 65)
    assert not (tmp_path / "out").exists()


@in_flight
def test_keeps_going_past_failed_calls_and_tells_them(tmp_path, in_flight):
    def answer(request):
        texts = texts_of(request)
        vectors = [[] if text == "empty" else [len(text), 1] for text in texts]
        good = json.dumps({"data": [{"embedding": vector} for vector in vectors]}).encode()
        request.reply(400 if "bad" in texts else 200, good)

    given = ["a", "bad", "b", "c", "empty", "d"]
    records = [{"error": "old", "id": i, "text": text, "vector": []} for i, text in enumerate(given)]
    with Server(answer) as server:
        command = openai(server, in_flight, "--jsonl", "--keep-going", "--batch-size=2")
        result = run(*command, "--output", str(tmp_path / "out"), given="\n".join(map(json.dumps, records)))
        repeated = run(*openai(server, in_flight, *"a bad c a bad c".split(), "--keep-going", "--batch-size=2"))
    assert ["error" in json.loads(line) for line in repeated.out.splitlines()] == [True, True, False] * 2
    expect_error(result, 69, '3 of 6 texts have no vector but an "error", the first is line 1: ')
    written = [json.loads(line) for line in (tmp_path / "out").read_text().splitlines()]
    assert [(record["id"], record["text"], record.get("vector")) for record in written] == [
        (0, "a", None), (1, "bad", None), (2, "b", [1, 1]), (3, "c", [1, 1]), (4, "empty", None), (5, "d", [1, 1])]
    for number, said in (0, "HTTP 400"), (1, "HTTP 400"), (4, "without numbers for line 5"):
        assert said in written[number].pop("error")
    assert not any("error" in record for record in written)


# The first request is never answered, the others are. However many come back, the tool begins no more than it may
# hold; the deadline ends it, and what has not come back has not failed: there is no rest to go on with.
@in_flight
@pytest.mark.parametrize("option", ["--batch-size=1", "--keep-going"])
def test_outlives_neither_its_deadline_nor_ctrl_c(in_flight, option):
    asked = threading.Event()

    def answer_all_but_the_first(request):
        asked.set()
        request.stall() if texts_of(request)[0] == "first" else answer_openai(request)

    with Server(answer_all_but_the_first) as server:
        command = openai(server, in_flight, "--batch-size=1", option, "first", *map(str, range(60)))
        expect_error(run(*command, "--deadline", "0.5"), 69, "deadline")
        assert len(server.requests) <= 2 * in_flight
        asked.clear()
        interrupted = start(*command)
        assert asked.wait(60)
        interrupted.send_signal(signal.SIGINT)
        assert finish(interrupted) == (130, b"", "")


# The other requests are not waited for: they would be tried for longer than the rig is patient.
@pytest.mark.parametrize("status", [74, -signal.SIGPIPE])
def test_ends_at_once_where_nothing_can_be_written(status):
    all_at_once = threading.Barrier(4)

    def answer_only_the_first(request):
        all_at_once.wait(60)
        answer_openai(request) if "x" in texts_of(request)[0] else request.stall()

    with Server(answer_only_the_first) as server, open("/dev/full", "wb") as full:
        process = start(*openai(server, 8, "--batch-size=1"), stdout=full if status == 74 else subprocess.PIPE)
        if process.stdout:
            process.stdout.close()
            process.stdout = None
        result = finish(process, b"x" * 3_000_000 + b"\na\nb\nc\n")
    assert result.status == status


@pytest.mark.parametrize("options", [
    "--backend api", "--backend openai", "--backend openai --api-url http://h --base-url http://h",
    "--backend api --api-url ftp://h", "--backend api --api-url http://h:99999",
    "--backend openai --base-url https:///v1", "--backend tfidf --model m",
    "--backend api --api-url http://h --model m", "--no-wait --wait-s 1", "--base-url http://h"])
def test_asks_for_what_a_backend_needs_and_no_more(options):
    result = run("embed", "a", *options.split(), env=KEY)
    expect_error(result, 64, "--help")
    assert "sk-secret" not in result.err
