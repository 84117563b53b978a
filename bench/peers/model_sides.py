"""The sides of the comparison of local models: which there are, and how to start each."""

import contextlib
import copy
import importlib.metadata
import sys
from pathlib import Path

from rounds import Side

THREADS = 2
OURS = "tovana"
OTHER = "tovana, other"
OUR_PACKAGE = "tovana, Python"
REFERENCE = "sentence-transformers"
PEERS = {
    OUR_PACKAGE: "tovana_embedding",
    REFERENCE: "sentence-transformers",
    "ONNX Runtime": "onnxruntime",
    "OpenVINO": "openvino",
    "CTranslate2": "ctranslate2",
}
FULL = "float32"
REDUCED = {OURS: "bfloat16", "ONNX Runtime": "int8", "OpenVINO": "bfloat16", "CTranslate2": "int8"}


class ModelSide(Side):
    def __init__(self, precision, library, *command):
        threads = str(THREADS)
        self.environment = {"OMP_NUM_THREADS": threads, "EMBED_THREADS": threads, "TOVANA_EMBED_PRECISION": precision}
        if library:
            self.environment["TOVANA_MODEL_LIBRARY"] = str(library.resolve())
        super().__init__(*command)


class Sides:
    """Names and processes; ours comes first, those of a reduced precision last. `texts` is the file that they read.

    precisions  of each side, by its name
    """

    def __init__(self, options, texts):
        self._options = options
        self._texts = texts
        full = [OURS, *([OTHER] if options.other else []), *(name for name in PEERS if name not in options.without)]
        self.precisions = {name: FULL for name in full}
        self.precisions |= {f"{name}, {REDUCED[name]}": REDUCED[name] for name in full if name in REDUCED}

    @property
    def names(self):
        return list(self.precisions)

    def in_full(self, name):
        """The same side in float32."""
        return name.removesuffix(f", {self.precisions[name]}")

    def leave_out(self, name):
        del self.precisions[name]

    def reading(self, texts):
        """The same sides with another file of texts."""
        others = copy.copy(self)
        others._texts = texts
        return others

    @contextlib.contextmanager
    def running(self, name):
        side = self._start(self.in_full(name), self.precisions[name])
        try:
            yield side
        finally:
            side.close()

    @contextlib.contextmanager
    def all_running(self):
        with contextlib.ExitStack() as stack:
            yield {name: stack.enter_context(self.running(name)) for name in self.names}

    def _start(self, name, precision):
        options = self._options
        if name in PEERS:
            worker = Path(__file__).with_name("model_worker.py")
            arguments = (options.model, options.converted, self._texts, THREADS)
            return ModelSide(precision, None, sys.executable, worker, PEERS[name], precision, *arguments)
        program, library = options.program, None
        if name == OTHER:
            library = options.other
            if library.is_dir():
                program = library / "bench/model_rounds"
                library /= "apps/tovana-embed/libtovana_sentence_transformers.so"
        return ModelSide(precision, library, program, options.model, self._texts)


def package_versions():
    return {name: importlib.metadata.version(package) for name, package in PEERS.items() if name != OUR_PACKAGE}
