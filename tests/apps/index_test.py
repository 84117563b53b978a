"""`tovana-embed index`, and `search` on what it has made."""

import json
import os
import signal
import sqlite3
import threading

import pytest
from rig import Server, answer_openai, expect_error, finish, run, start, tfidf


class Endpoint(Server):
    """One whose vectors tell texts apart, and which knows the texts that it was asked for. It answers only so many calls."""

    def __init__(self):
        super().__init__(self._answer)
        self.asked, self.calls, self.numbers, self.ending = [], None, 3, lambda request: request.reply(401)
        self.refused = threading.Event()

    def _answer(self, request):
        if self.calls == 0:
            self.refused.set()
            return self.ending(request)
        self.calls = self.calls and self.calls - 1
        texts = json.loads(request.body)["input"]
        self.asked += texts
        vectors = [[1, len(text), sum(map(ord, text)) % 97][:self.numbers] for text in texts]
        request.reply(200, json.dumps({"data": [{"embedding": vector} for vector in vectors]}).encode())

    def command(self, command, *arguments):
        return [command, *arguments, "--backend", "openai", "--base-url", self.url]


@pytest.fixture
def endpoint():
    with Endpoint() as server:
        yield server


def lines(records):
    return "".join(json.dumps(record) + "\n" for record in records)


def found(endpoint, path):
    """All that the index holds, as it was given."""
    result = run(*endpoint.command("search", "query", "--index", path, "--json", "--top", "1000"))
    endpoint.asked.remove("query")
    hits = result.records()
    return sorted(({key: value for key, value in hit.items() if key != "score"} for hit in hits), key=str)


A, B, C = ({"id": i, "text": text, "n": 1.5} for i, text in ((1, "open"), ("b", "read file"), ("c", "read file")))


# Each run begins with what the one before it has left.
def test_embeds_what_has_changed_and_forgets_what_is_gone(endpoint, tmp_path):
    path = str(tmp_path / "index")
    for records, options, asked, said in [
            ([A, B, C, A], [], ["open", "read file"], "3 records: 3 new, 0 changed, 0 gone; 2 texts"),
            ([C, B, A], [], [], "3 records: 0 new, 0 changed, 0 gone; 0 texts"),
            ([{**A, "text": "read file"}, {**B, "text": "open"}, {**C, "n": 2}], [], [], "3 records: 0 new, 3 changed, 0"),
            ([{**B, "text": "close"}, {"id": "d", "text": "open"}], ["--keep-gone"], ["close"], "4 records: 1 new, 1 changed, 0"),
            ([{"_type": "ptag"}, B], [], [], "1 records: 0 new, 1 changed, 3 gone; 0 texts"),
            ([B], ["--rebuild"], ["read file"], "1 records: 1 new, 0 changed, 0 gone; 1 texts"),
            ([], [], [], "0 records: 0 new, 0 changed, 1 gone; 0 texts")]:
        result = run(*endpoint.command("index", path, "--jsonl", *options), given=lines(records))
        assert (result.status, result.err) == (0, ""), result.err
        assert result.out.decode() == said + result.out.decode()[len(said):] and endpoint.asked == asked
        endpoint.asked = []
        expected = {str(record["id"]): record for record in records if "id" in record}
        if "--keep-gone" in options:
            expected |= {"1": {**A, "text": "read file"}, "c": {**C, "n": 2}}
        assert found(endpoint, path) == sorted(expected.values(), key=str) if records else True
        assert os.listdir(tmp_path) == ["index"]


# With holes among the vectors, more than one block, equal texts, and scores of 0 and below.
def test_finds_what_a_search_of_the_texts_finds(tmp_path):
    path = str(tmp_path / "index")
    records = [{"id": i, "name": f"read{i % 40}", "doc": f"the file {i} of {i % 7}" if i % 3 else None} for i in range(700)]
    members = ["--jsonl", "--text-member", "name", "--text-member", "doc"]
    queries = tmp_path / "queries"
    queries.write_text("readFile 12\nof the\n,\n6\n")
    for chosen in (records, records[:20] + records[400:]):
        result = tfidf("index", path, *members, given=lines(chosen))
        assert (result.status, result.err) == (0, "")
        for options in (["--top", "1000"], ["--top", "2000", "--min-score", "-1"], ["--top", "30", "--min-score", "0.1"]):
            search = ["search", "--queries", str(queries), *options, "--json"]
            direct = tfidf(*search, *members, "--dimension", "256", given=lines(chosen))
            indexed = tfidf(*search, "--index", path)
            assert direct.err == indexed.err and '",": the query holds no searchable word' in direct.err
            expected, hits = ([json.loads(line) for line in result.out.splitlines()] for result in (direct, indexed))
            assert [list(hit) for hit in hits] == [["query", "score", "id", "name", "doc"]] * len(expected)
            assert [hit["score"] for hit in hits] == pytest.approx([hit["score"] for hit in expected], abs=1e-6)
            if "30" not in options:  # what has the last place is one of equals
                assert {(hit["query"], hit["id"]) for hit in hits} == {(hit["query"], hit["id"]) for hit in expected}
            assert len(hits) > 30


# The place of a vector that is gone is nearest to nothing, and the next vector's; others stay where they are. The file may
# be one that its writer could not take out of WAL mode.
def test_gives_each_text_its_own_place(endpoint, tmp_path):
    path = str(tmp_path / "index")
    for texts, sought in [(["aaa", "bbb", "ccc"], "aaa"), (["bbb", "ccc"], "aaa"), (["bbb", "ccc", "ddddd", "eeeeeee"], None)]:
        assert run(*endpoint.command("index", path), given="\n".join(texts)).status == 0
        for text in [sought] if sought else texts:
            best = run(*endpoint.command("search", text, "--index", path, "--top", "1")).out.decode()
            assert best.startswith("1.0000\t" + text) if text in texts else best.count("\n") == 1
    connection = sqlite3.connect(path)
    assert connection.execute("PRAGMA journal_mode = WAL").fetchone() == ("wal",)
    connection.close()
    assert start_unprivileged(tmp_path, *endpoint.command("search", "bbb", "--index", path)).out.count(b"\n") == 4


def test_keeps_the_records_that_are_gone_of_what_is_weighed_by_batch(tmp_path):
    path = str(tmp_path / "index")
    assert tfidf("index", path, given="read file\nopen file\n").status == 0
    assert tfidf("index", path, "--keep-gone", given="close file\n").out.endswith(b"; 3 texts embedded\n")
    expected = tfidf("search", "file", "--dimension", "256", given="close file\nread file\nopen file\n")
    assert tfidf("search", "file", "--index", path).out == expected.out != b""


# Whatever ends it; and it is searched meanwhile, too, by one who may write neither it nor beside it.
@pytest.mark.parametrize("ending", ["failure", "interrupt", "kill"])
def test_a_run_that_ends_early_keeps_what_is_done(endpoint, tmp_path, ending):
    path = str(tmp_path / "index")
    texts = [f"text {i:04}" for i in range(1000)]
    index = endpoint.command("index", path, "--batch-size", "300")
    given = "".join(text + "\n" for text in texts).encode()
    endpoint.calls = 2
    if ending == "failure":
        expect_error(run(*index, given=given), 69, "HTTP 401")
    else:
        endpoint.ending = lambda request: request.stall()
        process = start(*index)
        process.stdin.write(given)
        process.stdin.close()
        assert endpoint.refused.wait(60)
    done, endpoint.asked, endpoint.calls = endpoint.asked, [], None
    assert done == texts[:600]
    reader = start_unprivileged(tmp_path, *endpoint.command("search", "text", "--index", path, "--top", "1000"))
    assert sorted(line.split("\t")[1] for line in reader.out.decode().splitlines()) == done, reader.err
    if ending != "failure":
        process.send_signal(signal.SIGINT if ending == "interrupt" else signal.SIGKILL)
        assert process.wait(60) == (130 if ending == "interrupt" else -signal.SIGKILL)
    reader = start_unprivileged(tmp_path, *endpoint.command("search", "text", "--index", path, "--top", "1000"))
    assert reader.out.count(b"\n") == 600, reader.err
    endpoint.asked = []
    assert run(*index, given=given).out == b"1000 records: 400 new, 0 changed, 0 gone; 400 texts embedded\n"
    assert endpoint.asked == texts[600:]
    reader = start_unprivileged(tmp_path, *endpoint.command("search", "text", "--index", path, "--top", "1001"))
    assert reader.out.count(b"\n") == 1000, reader.err


def test_a_run_does_not_go_on_with_what_another_has_changed(endpoint, tmp_path):
    index = endpoint.command("index", str(tmp_path / "index"), "--batch-size", "1")

    def answer_after_another_run(request):
        endpoint.calls = None
        assert run(*index, given="c\n").status == 0
        endpoint._answer(request)

    endpoint.calls, endpoint.ending = 1, answer_after_another_run
    expect_error(run(*index, given="a\nb\n"), 75, "another process has changed it meanwhile; run it again")
    assert run(*index, given="a\nb\n").out == b"2 records: 2 new, 0 changed, 1 gone; 2 texts embedded\n"


# The first call comes back when the second has begun; what came before one that fails stays, in whichever order they end.
def test_has_as_many_requests_in_flight_as_it_is_told(tmp_path):
    second_has_begun = threading.Event()

    def answer(request):
        text, = json.loads(request.body)["input"]
        if text == "second":
            second_has_begun.set()
        is_good = second_has_begun.wait(60) if text == "first" else text != "third"
        answer_openai(request) if is_good else request.reply(401)

    with Server(answer) as server:
        of_server = [str(tmp_path / "index"), "--backend", "openai", "--base-url", server.url]
        result = run("index", *of_server, "--concurrency=2", "--batch-size=1", given="first\nsecond\nthird\n")
        expect_error(result, 69, "; the call was for line 3\n")
        found = run("search", "a", "--index", *of_server)
    assert sorted(line.split(b"\t")[1] for line in found.out.splitlines()) == [b"first", b"second"]


def start_unprivileged(folder, *command):
    """The tool where it may make nothing in the folder, which root's rights do not help against."""
    folder.chmod(0o555)
    try:
        if os.geteuid() != 0:
            return run(*command)
        return run("--bounding-set=-dac_override", "--inh-caps=-all", os.environ["TOVANA_EMBED"], *command,
                   tool="/usr/bin/setpriv")
    finally:
        folder.chmod(0o755)


def make_other(path, content):
    if content == "a database":
        sqlite3.connect(path).execute("CREATE TABLE names (name)")
    elif content == "a newer index":
        tfidf("index", path, given="a file\n")
        sqlite3.connect(path).execute("PRAGMA user_version = 2")
    elif content == "an index":
        tfidf("index", path, given="a file\n")
    elif content == "a damaged index":
        tfidf("index", path, given="a file\n")
        sqlite3.connect(path, isolation_level=None).execute("UPDATE about SET dimension = -1")
    elif content is not None:
        with open(path, "w") as file:
            file.write(content * 10000)


@pytest.mark.parametrize("content, options, given, status, said", [
    ("no database", "", "", 65, "not a database; give a file that tovana-embed index has made"),
    ("a database", "--rebuild", "", 65, "the database of something else"),
    ("a newer index", "--rebuild", "", 65, "an index of format 2, where this version knows 1"),
    ("a damaged index", "--rebuild", "", 65, "it says that vectors have -1 numbers; it is damaged, remove it"),
    ("an index", "--dimension 3", "", 65, "holds vectors of 256 numbers, not of 3; --rebuild makes"),
    ("an index", "--backend openai --base-url http://127.0.0.1:9", "", 65, "of tfidf, not of openai:text-embedding-3-small; --reb"),
    ("an index", "--rebuild --keep-gone", "", 64, "--help"),
    ("an index", "--id-member x", "", 64, "--jsonl"),
    (None, "--jsonl", '{"id":1,"text":""}\n\n{"id":"1","text":""}', 65, 'line 3: has the id of line 1, "1", and is another'),
    (None, "--jsonl", '{"id":1,"text":""}\n{"text":"a"}', 65, 'line 2: the object lacks a member of its id: "id"'),
    (None, "--jsonl --id-member a --id-member b", '{"b":1,"text":""}', 65, 'a member of its id: "a", "b"'),
    (None, "--jsonl", '{"id":null,"text":""}', 65, 'the member "id" is null where a string or a number belongs'),
    (None, "--jsonl --text-member b --text-member c", '{"id":1,"b":null,"text":""}', 65, 'no member "b", "c"'),
    (None, "--jsonl --text-member b", '{"id":1,"b":2}', 65, 'the member "b" is a number where a string belongs')])
def test_refuses_in_one_line_and_writes_nothing(tmp_path, content, options, given, status, said):
    path = tmp_path / "index"
    make_other(path, content)
    before = path.read_bytes() if content else None
    expect_error(tfidf("index", str(path), *options.split(), given=given), status, said)
    assert (path.read_bytes() if path.exists() else None) == before and len(os.listdir(tmp_path)) == bool(content)


def test_search_refuses_an_index_that_it_cannot_compare_with(endpoint, tmp_path):
    path = str(tmp_path / "index")
    expect_error(tfidf("search", "a", "--index", path), 66, f"cannot read {path}: there is no such file")
    expect_error(tfidf("index", f"{path}/index", given="a file\n"), 74, f"cannot write {path}/index")
    assert run(*endpoint.command("index", path), given="a file\n").status == 0
    expect_error(tfidf("search", "file", "--index", path), 65, "holds vectors of openai:text-embedding-3-small, not of tfidf")
    endpoint.numbers = 2
    expect_error(run(*endpoint.command("search", "file", "--index", path)), 65, "of 3 numbers, and the query's has 2")
    expect_error(run(*endpoint.command("index", path), given="b\n"), 69, "of 3 numbers, and the backend returned one of 2")
