"""Every program that docs/python.md shows."""

import pathlib
import re

import pytest
from rig_python import LOCAL, Server, answer_openai, run

PROGRAMS = re.findall(r"^```python\n(.*?)^```$", (pathlib.Path(__file__).parents[2] / "docs/python.md").read_text(), re.M | re.S)


@pytest.mark.parametrize("number", range(len(PROGRAMS)))
def test_shows_programs_that_work(number, tmp_path, monkeypatch):
    (tmp_path / "models").mkdir()
    (tmp_path / "models/all-MiniLM-L6-v2").symlink_to(LOCAL["model_name"])
    monkeypatch.chdir(tmp_path)
    with Server(answer_openai) as endpoint:
        program = PROGRAMS[number].replace("https://api.example.com", endpoint.url)
        printed = run(program)
    for line in re.findall(r"^print\(.*\)  # (.*)$", program, re.M):
        assert line in printed.splitlines(), printed
