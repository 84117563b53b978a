"""Requests of OpenAI's API as the server of deploy/ray reads them, without the server."""

import base64
import json

import numpy as np
import openai_api
import pytest
from openai_requests import KEY, REFUSALS, TINY

MODELS = {TINY: [], "cut": [1, 2]}
LIMITS = openai_api.Limits()


@pytest.mark.parametrize("asked, told", REFUSALS, ids=[ascii(asked)[:60] for asked, _ in REFUSALS])
def test_refuses_as_clients_expect(asked, told):
    method, path, body, key = asked
    with pytest.raises(openai_api.ApiError) as refused:
        wanted, name = openai_api.route(method, f"/v1/{path}")
        openai_api.check_key(key and f"Bearer {key}", KEY)
        if wanted == "models":
            openai_api.models_reply(MODELS, name)
        openai_api.parse(body if isinstance(body, bytes) else json.dumps(body).encode(), MODELS, LIMITS)
    error = refused.value.body["error"]
    assert (refused.value.status, error["code"], error["param"]) == told
    assert len(error["message"].encode()) < 200


@pytest.mark.parametrize("dimensions, vector", [(None, [3, 4, 12]), (2, [0.6, 0.8])])
def test_replies_in_the_format_that_was_asked_for(dimensions, vector):
    asked = {"model": "cut", "input": "x", "dimensions": dimensions, "encoding_format": "base64"}
    request = openai_api.parse(json.dumps(asked).encode(), MODELS, LIMITS)
    vectors = np.array([[3, 4, 12]], np.float32)
    vectors.flags.writeable = False  # as Ray hands them out
    reply = openai_api.embeddings_reply(request, vectors, 3)
    assert reply["usage"] == {"prompt_tokens": 3, "total_tokens": 3}
    np.testing.assert_allclose(np.frombuffer(base64.b64decode(reply["data"][0]["embedding"]), "<f4"), vector, rtol=1e-6)
    with pytest.raises(openai_api.ApiError, match="Supported values are: 1, 2"):
        openai_api.parse(json.dumps(asked | {"dimensions": 3}).encode(), MODELS, LIMITS)


def test_shows_little_of_what_clients_send():
    asked = {"model": "cut", "input": "x", "dimensions": 10**4000}
    with pytest.raises(openai_api.ApiError) as refused:
        openai_api.parse(json.dumps(asked).encode(), MODELS, LIMITS)
    assert len(str(refused.value)) < 200


def test_health_is_asked_for_with_either_method():
    assert [openai_api.route(method, "/health")[0] for method in ("GET", "HEAD")] == ["health"] * 2
    with pytest.raises(openai_api.ApiError) as refused:
        openai_api.route("POST", "/health")
    assert refused.value.headers == {"Allow": "GET, HEAD"}
