"""The component's log records, as records of Python's logging."""

import contextlib
import logging
import sys
from collections.abc import Iterator
from typing import Any, Optional

from . import errors

_loggers: dict[str, logging.Logger] = {}  # looked up without the lock of `logging`
_watchers: list[None] = []  # one for each that is within `fetches_shown`


@contextlib.contextmanager
def fetches_shown() -> Iterator[None]:
    """Prints on stderr what is logged of fetches meanwhile, by whomever, unless the loggers take it."""
    _watchers.append(None)
    try:
        yield
    finally:
        _watchers.pop()


def emit(name: str, level: str, format: str, arguments: tuple[Any, ...], error: Optional[tuple[str, str]]) -> None:
    """Hands a record to the logger `tovana_embedding.NAME`, the format apart from its arguments."""
    logger = _loggers.get(name)
    if logger is None:
        logger = _loggers[name] = logging.getLogger(f"tovana_embedding.{name}")
    number = getattr(logging, level)
    if not logger.isEnabledFor(number):
        if _watchers and name == "engines.hub" and sys.stderr is not None:
            print(format % arguments, file=sys.stderr, flush=True)
        return
    exc_info: Any = None
    if error is not None:
        kind, message = error
        made = getattr(errors, kind, RuntimeError)(message)
        exc_info = (type(made), made, None)
    logger.handle(logger.makeRecord(logger.name, number, "tovana_embedding", 0, format, arguments, exc_info))
