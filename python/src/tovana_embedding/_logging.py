"""The component's log records, as records of Python's logging."""

import logging

from . import errors

_loggers: dict = {}  # looked up without the lock of `logging`

def emit(name, level, format, arguments, error):
    """Hands a record to the logger `tovana_embedding.NAME`, the format apart from its arguments."""
    logger = _loggers.get(name)
    if logger is None:
        logger = _loggers[name] = logging.getLogger(f"tovana_embedding.{name}")
    number = getattr(logging, level)
    if not logger.isEnabledFor(number):
        return
    exc_info = None
    if error is not None:
        kind, message = error
        made = getattr(errors, kind, RuntimeError)(message)
        exc_info = (type(made), made, None)
    logger.handle(logger.makeRecord(logger.name, number, "tovana_embedding", 0, format, arguments, exc_info))
