"""Certificates of authorities, for systems that have none."""

import importlib.util
import os

from . import _core


def offer_certifi() -> None:
    """Has those of `certifi` used where the system has none, if that is installed. Does not import it."""
    try:
        found = importlib.util.find_spec("certifi")
    except (ImportError, ValueError):  # something else goes by that name
        return
    if found is not None and found.submodule_search_locations:
        _core.set_last_ca_file(os.path.join(found.submodule_search_locations[0], "cacert.pem"))
