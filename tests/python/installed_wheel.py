"""What an installed wheel has to do: `alone`, or as the `first` or the `last` to come to a process with Python's own https.

    installed_wheel.py alone|first|last CERTIFICATE

The certificate is that of a server, which is both a hub and an endpoint; whom to trust is for the environment to say.
"""

import json
import os
import pathlib
import subprocess
import sys
import tempfile

MODEL = "organisation/model"
TINY_MODEL = pathlib.Path(__file__).parents[1] / "data/tiny_models/tiny_bert_cls"


def serve(certificate):
    """Prints the URL, and serves until its input ends."""
    import ssl

    os.environ["TOVANA_EMBED"] = ""
    sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "apps"))
    from rig import Hub, answer_openai, tiny_model

    class HubAndEndpoint(Hub):
        def _answer(self, request):
            answer_openai(request) if request.command == "POST" else super()._answer(request)

    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate)
    server = HubAndEndpoint(MODEL, tiny_model())
    server._server.socket = context.wrap_socket(server._server.socket, server_side=True)
    server.url = server.url.replace("http:", "https:")
    with server:
        print(server.url, flush=True)
        sys.stdin.read()


def embed(url):
    import numpy as np
    import tovana_embedding

    references = [json.loads(line) for line in (TINY_MODEL / "reference.jsonl").read_text().splitlines()]
    texts = [reference["text"] for reference in references]
    expected = [reference["embedding_normalized"] for reference in references]
    with tovana_embedding.EmbeddingEngine({"backend": "tfidf"}) as engine:
        assert engine.embed(texts).shape == (len(texts), 256)
    for model in (TINY_MODEL, MODEL):
        with tovana_embedding.EmbeddingEngine({"backend": "local", "model_name": model}) as engine:
            np.testing.assert_allclose(engine.embed(texts), expected, rtol=0, atol=2e-6)
    with tovana_embedding.EmbeddingEngine({"backend": "openai", "base_url": url}) as engine:
        assert engine.embed(["ab", "c"]).tolist() == [[2, 0.5], [1, 0.5]]


def request(url):
    import hashlib

    import requests

    assert hashlib.md5(b"").hexdigest()
    assert requests.get(f"{url}/api/models/{MODEL}/revision/main", timeout=60).json()["id"] == MODEL


def main(order, certificate):
    steps = {"alone": [embed], "first": [embed, request, embed], "last": [request, embed, request]}[order]
    with subprocess.Popen([sys.executable, __file__, "serve", certificate], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as server, tempfile.TemporaryDirectory() as cache:
        url = server.stdout.readline().strip()
        os.environ.update(HF_ENDPOINT=url, HF_HUB_CACHE=cache)
        assert "ssl" not in sys.modules and "_ssl" not in sys.modules
        for step in steps:
            step(url)
        server.stdin.close()


if __name__ == "__main__":
    serve(sys.argv[2]) if sys.argv[1] == "serve" else main(*sys.argv[1:])
