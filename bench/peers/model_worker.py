#!/usr/bin/env python3
"""One peer of the local model, as a process that does a round whenever asked; bench/model_rounds.cpp is the
same for our side and says which requests there are.

    model_worker.py PEER PRECISION MODEL CONVERTED TEXTS THREADS

PRECISION is float32 or another that the peer has: bfloat16 or int8. CONVERTED is what model_convert.py made of
MODEL.
"""

import os
import sys

THREADS = int(sys.argv[6])
for variable in ("OMP_NUM_THREADS", "RAYON_NUM_THREADS", "OPENBLAS_NUM_THREADS", "EMBED_THREADS"):
    os.environ[variable] = str(THREADS)  # read when the libraries are loaded
os.environ["HF_HUB_OFFLINE"] = "1"

import threading
import time
from pathlib import Path

import numpy

BATCH = 32


class TovanaEmbedding:
    """Ours, as Python has it."""

    def __init__(self, model, _converted, _precision):
        import tovana_embedding

        self._model = tovana_embedding.SentenceTransformer(model)

    def encode(self, texts):
        return self._model.encode(texts)


class SentenceTransformers:
    def __init__(self, model, _converted, _precision):
        import sentence_transformers
        import torch

        torch.set_num_threads(THREADS)
        self._model = sentence_transformers.SentenceTransformer(str(model), device="cpu")

    def encode(self, texts):
        return self._model.encode(texts, batch_size=BATCH, normalize_embeddings=True, show_progress_bar=False)


class Runtime:
    """What a runtime of bare networks leaves to its user: tokens, batches of about one length, pooling."""

    MAX_TOKENS = 256

    def __init__(self, model):
        from tokenizers import Tokenizer

        self._tokenizer = Tokenizer.from_file(str(model / "tokenizer.json"))
        self._tokenizer.enable_truncation(self.MAX_TOKENS)
        self._tokenizer.no_padding()

    def encode(self, texts):
        tokens = [encoding.ids for encoding in self._tokenizer.encode_batch(texts)]
        order = sorted(range(len(tokens)), key=lambda index: len(tokens[index]), reverse=True)
        vectors = None
        for begin in range(0, len(order), BATCH):
            batch = order[begin : begin + BATCH]
            pooled = self._pooled([tokens[index] for index in batch])
            if vectors is None:
                vectors = numpy.empty((len(texts), pooled.shape[1]), numpy.float32)
            vectors[batch] = pooled
        return vectors

    def _pooled(self, tokens):
        mask = numpy.zeros((len(tokens), max(map(len, tokens))), numpy.int64)
        ids = numpy.zeros_like(mask)
        for row, text in enumerate(tokens):
            ids[row, : len(text)] = text
            mask[row, : len(text)] = 1
        sums = numpy.einsum("btd,bt->bd", self._hidden_states(tokens, ids, mask), mask.astype(numpy.float32))
        return sums / numpy.linalg.norm(sums, axis=1, keepdims=True)


class OnnxRuntime(Runtime):
    GRAPHS = {"float32": "fused.onnx", "int8": "fused-int8.onnx"}

    def __init__(self, model, converted, precision):
        super().__init__(model)
        import onnxruntime

        options = onnxruntime.SessionOptions()
        options.intra_op_num_threads = THREADS
        self._session = onnxruntime.InferenceSession(
            str(converted / self.GRAPHS[precision]), options, providers=["CPUExecutionProvider"]
        )

    def _hidden_states(self, _tokens, ids, mask):
        return self._session.run(None, {"input_ids": ids, "attention_mask": mask})[0]


class OpenVino(Runtime):
    HINTS = {"float32": "f32", "bfloat16": "bf16"}

    def __init__(self, model, converted, precision):
        super().__init__(model)
        import openvino

        settings = {
            "INFERENCE_PRECISION_HINT": self.HINTS[precision],
            "PERFORMANCE_HINT": "LATENCY",
            "INFERENCE_NUM_THREADS": THREADS,
        }
        self._model = openvino.Core().compile_model(str(converted / "plain.onnx"), "CPU", settings)
        self._requests = threading.local()

    def _hidden_states(self, _tokens, ids, mask):
        if not hasattr(self._requests, "own"):
            self._requests.own = self._model.create_infer_request()
        return self._requests.own.infer({"input_ids": ids, "attention_mask": mask})[0]


class CTranslate2(Runtime):
    FOLDERS = {"float32": "ctranslate2", "int8": "ctranslate2-int8"}

    def __init__(self, model, converted, precision):
        super().__init__(model)
        import ctranslate2

        self._encoder = ctranslate2.Encoder(
            str(converted / self.FOLDERS[precision]), compute_type=precision, intra_threads=THREADS
        )

    def _hidden_states(self, tokens, _ids, _mask):
        return numpy.asarray(self._encoder.forward_batch(tokens).last_hidden_state)


PEERS = {
    "tovana_embedding": TovanaEmbedding,
    "sentence-transformers": SentenceTransformers,
    "onnxruntime": OnnxRuntime,
    "openvino": OpenVino,
    "ctranslate2": CTranslate2,
}


class Rounds:
    def __init__(self, peer, texts):
        self._peer = peer
        self._texts = texts

    def encode(self, first, count, calls):
        texts = self._slice(first, count)
        taken = []
        for _ in range(int(calls)):
            begin = time.perf_counter()
            vectors = self._peer.encode(texts)
            taken.append(time.perf_counter() - begin)
            assert len(vectors) == len(texts)
        return taken

    def vectors(self, first, count, path):
        vectors = self._peer.encode(self._slice(first, count)).astype("<f4")
        Path(path).write_bytes(vectors.tobytes())
        return [vectors.shape[1]]

    def together(self, threads, calls):
        def work():
            for _ in range(int(calls)):
                self._peer.encode(self._texts[:1])

        workers = [threading.Thread(target=work) for _ in range(int(threads))]
        begin = time.perf_counter()
        for worker in workers:
            worker.start()
        for worker in workers:
            worker.join()
        return [time.perf_counter() - begin]

    def _slice(self, first, count):
        return self._texts[int(first) : int(first) + int(count)]


def main():
    if len(sys.argv) != 7:
        sys.exit("usage: model_worker.py PEER PRECISION MODEL CONVERTED TEXTS THREADS")
    peer, precision, model, converted, texts = sys.argv[1:6]
    texts = Path(texts).read_text(encoding="utf-8").rstrip("\n").split("\n")
    rounds = Rounds(PEERS[peer](Path(model), Path(converted), precision), texts)
    for line in sys.stdin:
        name, *arguments = line.split()
        print(*getattr(rounds, name)(*arguments), flush=True)


if __name__ == "__main__":
    main()
