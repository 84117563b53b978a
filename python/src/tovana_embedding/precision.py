"""What local models compute in."""

from typing import Optional

from . import _core


def set_precision(precision: str) -> None:
    """Has the local models of this process compute in "float32" or "bfloat16", whatever TOVANA_EMBED_PRECISION says.

    It counts from the first model on that is loaded, for all, and in forked children: asked for another precision after
    that, raises RuntimeError. On a processor without AVX512_BF16 "bfloat16" is the same as "float32", which a record at
    the level INFO says.
    """
    _core.set_precision(precision)


def get_precision() -> Optional[str]:
    """What they compute in: "float32" or "bfloat16"; None before the first is loaded."""
    return _core.get_precision()
