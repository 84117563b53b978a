"""The man page and the completion of bash, beside what the tool itself says that it takes."""

import pathlib
import re
import subprocess

from rig import PATIENCE_S, run

ROOT = pathlib.Path(__file__).parents[2]
PAGE = (ROOT / "docs/man/tovana-embed.1").read_text()
COMPLETION = ROOT / "apps/tovana-embed/completion.bash"
COMPLETE = """compopt() { :; }
source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _tovana_embed; printf '%s\n' "${COMPREPLY[@]}" """


def help_of(*command):
    """The text, and the options in it."""
    text = run(*command, "--help").out.decode()
    return text, set(re.findall(r"^  (?:-\w,)?(--[\w-]+)", text, re.M))


def completions(*words):
    """What is offered for the last word."""
    return set(subprocess.run(["bash", "-c", COMPLETE, COMPLETION, "tovana-embed", *words], capture_output=True,
                              check=True, text=True, timeout=PATIENCE_S).stdout.split())


def test_manual_and_completion_name_what_there_is():
    text, every_option = help_of()
    commands = set(re.findall(r"^  ([\w-]+) ", text.partition("\nCommands:\n")[2].partition("\n\n")[0], re.M))
    manual = {part.partition("\n")[0]: {f"--{name}" for name in re.findall(r"^\.It (?:Fl h , )?Fl -([\w-]+)", part, re.M)}
              for part in re.split(r"^\.S[sh] ", PAGE, flags=re.M)}
    assert commands == completions("") == set(re.findall(r"^\.Nm\n\.Cm (\S+)$", PAGE, re.M))
    assert every_option == manual["DESCRIPTION"]
    assert every_option == completions("--")
    for command in commands:
        _, options = help_of(command)
        of_engine = manual["Engine options"] if "--backend" in options else set()
        assert options == {"--help"} | manual[command] | of_engine, command
        assert options == completions(command, "--"), command
        every_option |= options
    assert {f"--{name}" for name in re.findall(r"(?:Fl -| --)([\w-]+)", PAGE)} == every_option
    statuses = PAGE.partition(".Sh EXIT STATUS")[2].partition(".Sh")[0]
    assert re.findall(r"^\.It (\d+)", statuses, re.M) == re.findall(r"^  (\d+) ", text, re.M)


def test_completion_offers_the_words_that_an_option_takes():
    for option in ("--backend", "--precision", "--dtype", "--format", "--log-level"):
        words = re.search(r": takes (.*), not", run("embed", option, "x").err)[1]
        assert completions("embed", option, "=", "") == set(re.split(", | or ", words)), option
