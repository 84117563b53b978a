"""`tovana-embed embed`: what is read and written, and how it ends."""

import ast
import json
import os
import pathlib
import random
import signal
import struct

import pytest
from plain_tfidf import embed
from rig import PIPE_CAPACITY, expect_error, finish, run, start, tfidf


@pytest.fixture
def open_input():
    """An input that stays open: the end to read from, and the one to write to."""
    ends = os.pipe()
    yield ends
    for end in ends:
        os.close(end)


# Texts that a careless reader or writer changes, and more of them than a batch: a second batch would have
# other weights.
def test_prints_every_text_and_its_vector_in_order():
    texts = ["\ufeffplain", "", 'line "quoted" \\ back', "nul \0 bell \a tab\t", "", "ÄÖ 漢字 𝒳",
             "\r carriage \r return", "x" * 10_000_000]
    texts += [f"text number_{i % 50}" for i in range(600)] + ["last without line end"]
    given = "".join(text + ("\n" if i % 2 else "\r\n") for i, text in enumerate(texts))
    records = tfidf("embed", given=given.removesuffix("\r\n")).records()
    texts[0] = "plain"
    assert [list(record) for record in records] == [["text", "vector"]] * len(texts)
    assert [record["text"] for record in records] == texts
    assert [record["vector"] for record in records] == embed(texts)


WORDS = ("get User HTTP v2 x connections readiness ation Settings cafés İ ΑΣ αΣ ǅ ß 你好 😀 Ⅰⅰ приветing e\u0301 ª KING "
         "TITLE \udcff \0 1 =").split(" ")
GLUE = "\t \n \v \f \r _ - . / : :: ::: \\ ( ] ; , \xa0 \u2028 \x85 \x1f \u3000 \u200b".split(" ") + [" ", ""]


# The locale is Turkish, whose lower-case I has no dot.
def test_hashes_any_script_as_a_plain_reading_does_to_the_last_bit():
    draw = random.Random(11)
    texts = [""] + ["".join(draw.choice(WORDS) + draw.choice(GLUE) for _ in range(draw.randrange(60)))
                    for _ in range(400)]
    texts += pathlib.Path(ast.__file__).read_text().splitlines()
    texts += ["a" * 30000 + "ΑΣ", "".join(draw.choice(WORDS) + draw.choice(GLUE) for _ in range(20000)),
              "".join(f"word{draw.randrange(5000)}{draw.choice([' ', 'Next'])}" for _ in range(6000))]
    lines = b"".join(json.dumps({"text": text}, ensure_ascii=False).encode(errors="surrogateescape") + b"\n"
                     for text in texts)
    texts = [text.encode(errors="surrogateescape").decode(errors="replace") for text in texts]
    for dimension in (1, 64, 65, 256, 1000):
        result = tfidf("embed", "--jsonl", "--dimension", str(dimension), given=lines,
                       env={"LC_ALL": "tr_TR.UTF-8"})
        vectors = [json.loads(line)["vector"] for line in result.out.splitlines()]
        assert vectors == embed(texts, dimension)


# The command line's parser splits lists, drops "{}" and "++", and knows commands and options.
def test_takes_arguments_as_they_are():
    texts = ["[a,b]", "{}", "", "search", "-5", "two\nlines"]
    records = tfidf("embed", "--dimension", "2", *texts, "--", "--x", "++").records()
    assert [record["text"] for record in records] == [*texts, "--x", "++"]


def test_says_that_only_endpoints_are_asked_several_things_at_once():
    result = tfidf("embed", "--concurrency", "2", "a")
    assert result.status == 0 and "tfidf gets one batch at a time" in result.err and result.err.count("\n") == 1


# A conversion of the other members would round numbers, sort names or drop what comes twice.
def test_json_lines_keep_their_other_members():
    given = (r'{"z":1.10,"text":"a\u0000\"b\ud834\udcb3","vector":[9], "a":12345678901234567890123}'
             "\r\n  \n" r' {"te\u0078t" : "", "k":{"text":7,"q":["}]\"",{}]},"k":[],"":null} ')
    result = tfidf("embed", "--jsonl", "--dimension", "1", given=given)
    assert result.err == ""
    assert result.out.decode() == (
        r'{"z":1.10,"text":"a\u0000\"b\ud834\udcb3","a":12345678901234567890123,"vector":[1]}' "\n"
        r'{"te\u0078t" : "","k":{"text":7,"q":["}]\"",{}]},"k":[],"":null,"vector":[0]}' "\n")


@pytest.mark.parametrize("line", [
    '{"text":"a"', '{"text":"a"} x', "[1]", "7", '{"txt":"a"}', '{"text":7}', '{"text":null}',
    '{"text":{"text":"a"}}', '{"text":["a"]}', '{"a":{"text":"a"}}', '{"text":"' + "x" * 1_000_000],
    ids=range(11))
def test_broken_json_lines_are_named(line):
    result = tfidf("embed", "--jsonl", given=f'{{"text":"fine"}}\n\n{line}\n{{"text":"fine"}}')
    expect_error(result, 65, "standard input, line 3: ")
    assert len(result.err) < 500, "quotes the line at length"


def test_utf16_is_no_text():
    expect_error(tfidf("embed", given="text".encode("utf-16")), 65, "is UTF-16")


def test_ill_formed_utf8_is_repaired_with_one_warning():
    result = tfidf("embed", "--dimension", "1", given=b"a\nb \xff\xc3 c\n\xed\xa0\x80\nd")
    assert result.status == 0
    assert "2 lines (the first is line 2) are not UTF-8" in result.err and result.err.count("\n") == 1
    assert result.out.splitlines()[1].decode().startswith('{"text":"b \ufffd\ufffd c",')


@pytest.mark.parametrize("kind, options", [("d", []), ("f", ["--dtype", "float32"])])
@pytest.mark.parametrize("texts", [[], ["one text", "", "another text"]])
def test_npy_holds_the_array_in_numpys_layout(texts, kind, options):
    array = tfidf("embed", "--format", "npy", "--dimension", "5", *options, given="".join(t + "\n" for t in texts)).out
    assert array[:8] == b"\x93NUMPY\x01\0"
    start_of_rows = 10 + int.from_bytes(array[8:10], "little")
    header = array[10:start_of_rows].decode()
    assert start_of_rows % 64 == 0 and header.endswith(" \n")
    assert ast.literal_eval(header) == {"descr": f"<f{struct.calcsize(kind)}", "fortran_order": False, "shape": (len(texts), 5)}
    assert array[start_of_rows:] == b"".join(struct.pack(f"<5{kind}", *vector) for vector in embed(texts, 5))


def test_output_file_is_replaced_whole_or_not_at_all(tmp_path):
    real, link = tmp_path / "real", tmp_path / "link"
    real.write_text("before")
    link.symlink_to("real")
    command = ["embed", "--jsonl", "--dimension", "1", "--output", str(link)]
    expect_error(tfidf(*command, given='{"text":""}\n{'), 65, "line 2")
    assert real.read_text() == "before"
    assert tfidf(*command, given='{"text":""}\n').status == 0
    assert real.read_text() == '{"text":"","vector":[0]}\n'
    assert link.is_symlink()
    assert set(os.listdir(tmp_path)) == {"real", "link"}, "an unfinished file is left"
    mask = os.umask(0)
    os.umask(mask)
    assert real.stat().st_mode & 0o777 == 0o666 & ~mask


# The input stays open: a tool that reads it before it looks at the output does not end.
def test_unwritable_output_ends_the_run_before_its_input_is_read(tmp_path, open_input):
    for output in (str(tmp_path / "none/file"), str(tmp_path), ""):
        result = finish(start("embed", "--backend", "tfidf", "--output", output, stdin=open_input[0]))
        expect_error(result, 74, "cannot write " + output)


def test_full_disk_is_an_error():
    for command in (["embed", "a", "--backend", "tfidf"], ["search", "word", "--backend", "tfidf"], ["--help"]):
        with open("/dev/full", "wb") as full:
            assert run(*command, given=b"word", stdout=full).status == 74
    expect_error(tfidf("embed", "a", "--output", "/dev/full"), 74, "make room")
    assert os.path.exists("/dev/full") and not os.path.isfile("/dev/full"), "replaced by a file"


# The input is read (more than a pipe holds has gone), and its end never comes.
@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGKILL])
def test_interrupt_while_reading_leaves_nothing_behind(tmp_path, open_input, number):
    process = start("embed", "--backend", "tfidf", "--output", str(tmp_path / "out"), stdin=open_input[0])
    os.write(open_input[1], b"x" * 2 * PIPE_CAPACITY)
    process.send_signal(number)
    assert finish(process) == (-number if number == signal.SIGKILL else 130, b"", "")
    assert os.listdir(tmp_path) == []


# A writer that nobody reads from cannot look at the flag: it is ended by the second signal, or else after a
# second. Where the reader has gone, it ends by itself, quietly.
@pytest.mark.parametrize("ending", ["one signal", "two signals", "reader gone"])
def test_a_writer_that_nobody_reads_from_ends(ending):
    process = start("embed", "--backend", "tfidf")
    process.stdin.write(b"text\n" * 5000)
    process.stdin.close()
    process.stdout.read(1)
    if ending == "reader gone":
        process.stdout.close()
    else:
        process.send_signal(signal.SIGINT)
        if ending == "two signals":
            process.send_signal(signal.SIGTERM)
    assert process.wait(60) == (-signal.SIGPIPE if ending == "reader gone" else 130)
    assert process.stderr.read() == b""


def test_ignored_interrupt_stays_ignored():
    process = start("--ignore-signal=INT", os.environ["TOVANA_EMBED"], "embed", "--backend", "tfidf",
                    tool="/usr/bin/env")
    process.stdin.write(b"x" * 2 * PIPE_CAPACITY)
    process.stdin.flush()
    process.send_signal(signal.SIGINT)
    assert finish(process).status == 0


@pytest.mark.parametrize("command, status, said", [
    ("", 64, "--help"),
    ("embd x", 64, "no command is called embd"),
    ("embed a --backend local --dimension 3", 64, "its models have their own"),
    ("embed --no-such-option", 64, "--help"),
    ("embed a --input file", 64, "--help"),
    ("embed a --jsonl", 64, "--help"),
    ("embed a --dimension 0", 64, "--help"),
    ("embed a --dimension 12_", 64, "--help"),
    ("embed a --dimension 99999999999999999999", 64, "--help"),
    ("embed a --batch-size 0", 64, "--help"),
    ("embed a --concurrency 0", 64, "a whole number from 1 to 64"),
    ("embed a --concurrency 65", 64, "a whole number from 1 to 64"),
    ("embed a --format npy --keep-going", 64, "--help"),
    ("embed a --format csv", 64, "--help"),
    ("embed a --dtype float32", 64, "--dtype is for --format npy"),
    ("embed a --deadline -1", 64, "--help"),
    ("embed a --deadline nan", 64, "--help"),
    ("embed a --log-level loud", 64, "--help"),
    ("embed a --backend none", 64, "takes auto, local, api, openai or tfidf"),
    ("embed a ++ b", 64, "embed -- ++"),
    ("search a --top 0", 64, "--help"),
    ("search --backend tfidf", 64, "takes a QUERY or --queries"),
    ("search a --index b --jsonl", 64, "--help"),
    ("search a --index b --text-prompt c", 64, "--help"),
    ("embed --backend tfidf --input /no/such/file", 66, "/no/such/file"),
    ("search a --backend tfidf --input /usr", 66, "directory"),
    ("embed --backend tfidf --input a\nb", 66, "a\\nb"),
    ("embed a --backend tfidf --deadline 0", 69, "deadline of 0 s"),
    (f"embed a --backend tfidf --dimension {2**63 - 1}", 69, "elements; give shorter texts or a smaller --dim"),
])
def test_tells_in_one_line_what_is_wrong(command, status, said):
    expect_error(run(*(word.replace("_", " ") for word in command.split(" ") if word)), status, said)


def test_waits_neither_for_its_input_nor_for_a_reader_past_the_deadline(tmp_path, open_input):
    os.mkfifo(tmp_path / "out")
    for arguments in ([], ["a", "--output", str(tmp_path / "out")]):
        command = ["embed", "--backend", "tfidf", "--deadline", "0.05", *arguments]
        expect_error(finish(start(*command, stdin=open_input[0])), 69, "deadline of 0.05 s")
