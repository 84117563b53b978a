"""Every command that README.md shows, in its order, and what it prints where README.md tells."""

import os
import pathlib
import re
import subprocess

from rig import PATIENCE_S, TINY_MODEL, TOOL, Server, answer_openai

ROOT = pathlib.Path(__file__).parents[2]
# What installs packages or builds.
LEFT_OUT = {"scripts/run", "scripts/test", "scripts/setup --model",
            "cmake --preset release && cmake --build build/release && cmake --install build/release --prefix DIR",
            "sudo apt install ./tovana-embed_*.deb ./libtovana-sentence-transformers_*.deb",
            "sudo apt install ./libtovana-embedding-dev_*.deb"}
END_OF_COMMAND = "\n--- end of the command\n"


def shown_commands():
    """Of each command the line that is typed, and the text that README.md shows below it."""
    commands = []
    for language, block in re.findall(r"^```([^\n]*)\n(.*?)^```$", (ROOT / "README.md").read_text(), re.M | re.S):
        assert language in ("console", "cpp", "cmake"), f"may hold commands that nobody runs: {block}"
        if language == "console":
            first, *rest = re.split(r"^\$ ", block, flags=re.M)
            assert first == "", f"neither a command nor what one prints: {first}"
            commands += [part.partition("\n")[::2] for part in rest]
    return commands


def without_numbers(text):
    """What is left of what an index of the sources gives, where these are others, and the model, too."""
    return sorted(re.sub(r"\d+(\.\d+)?", "N", text).splitlines())


# The endpoint is a server on loopback, and the model of scripts/setup is a tiny one. Nothing shown may want a hub.
def test_readme_shows_what_works_and_what_it_prints(tmp_path):
    (tmp_path / "examples").symlink_to(ROOT / "examples")
    model = re.search(r'^minilm="\$root/(.+)"$', (ROOT / "scripts/common.sh").read_text(), re.M)[1]
    (tmp_path / model).parent.mkdir()
    (tmp_path / model).symlink_to(TINY_MODEL)
    (tmp_path / "scripts").mkdir()
    (tmp_path / "scripts/run").symlink_to(tmp_path / "bin/tovana-embed")
    (tmp_path / "bin").mkdir()
    (tmp_path / "bin/tovana-embed").write_text(f'#!/bin/sh\nexec "{TOOL}" "$@"\n')
    (tmp_path / "bin/ctags").write_text('#!/bin/sh\ncat "$0.jsonl"\n')
    for program in ("tovana-embed", "ctags"):
        (tmp_path / "bin" / program).chmod(0o755)
    shown = shown_commands()
    tags = [re.sub(r'"score":[\d.]+,', "", line) for _, text in shown for line in text.splitlines() if '"_type"' in line]
    (tmp_path / "bin/ctags.jsonl").write_text("\n".join(tags))
    assert LEFT_OUT <= {command for command, _ in shown}
    run = [(command, text) for command, text in shown if command not in LEFT_OUT]
    with Server(answer_openai) as endpoint:
        script = "git init --quiet .; git add scripts\n"
        script += "".join(f"{command}\nprintf '{END_OF_COMMAND}'\n" for command, _ in run)
        script = script.replace("https://api.example.com", endpoint.url)
        assert "://" not in script.replace(endpoint.url, ""), "would leave this machine"
        env = {"PATH": f"{tmp_path}/bin:{os.defpath}", "HF_HUB_OFFLINE": "1", "HF_HUB_CACHE": f"{tmp_path}/hub"}
        result = subprocess.run(["bash", "-e", "-o", "pipefail", "-c", script], cwd=tmp_path, env=env,
                                capture_output=True, text=True, timeout=PATIENCE_S)
    printed = result.stdout.split(END_OF_COMMAND)
    assert result.returncode == 0, f"{run[len(printed) - 1][0]}\n{result.stderr}"
    for (command, text), line in zip(run, printed):
        same = without_numbers(text) == without_numbers(line) if "symbols.index" in command else text in ("", line)
        assert same, f"{command} prints\n{line}"
    assert ["\nAuthorization: Bearer sk-...\n" in request for request in endpoint.requests] == [True]
