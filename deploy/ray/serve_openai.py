#!/usr/bin/env python3
"""Local models behind OpenAI's embeddings API, on Ray Serve: replicas of each model, on one machine or many.

    serve_openai.py settings.yaml --port 8000

serves on this machine, or on the cluster that RAY_ADDRESS names, until it is interrupted. For `serve deploy` the
application is `serve_openai:build`, and its arguments are the fields of `Settings`.

Clients see what OpenAI's server would say, but for this: token arrays are refused, empty texts are not; `dimensions` is
for models whose settings list them; `usage` counts the tokens that the model encoded, special ones included; a request
that meets a full queue or a replica that dies is told 503.
"""

import argparse
import asyncio
import logging
import os
import signal
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Optional

os.environ.setdefault("RAY_USAGE_STATS_ENABLED", "0")

import numpy as np  # noqa: E402
import openai_api  # noqa: E402
import orjson  # noqa: E402
import ray  # noqa: E402
import yaml  # noqa: E402
from openai_api import ApiError  # noqa: E402
from pydantic import BaseModel, ConfigDict, ValidationError, model_validator  # noqa: E402
from ray import serve  # noqa: E402
from ray.serve.exceptions import BackPressureError, DeploymentUnavailableError  # noqa: E402
from ray.serve.handle import DeploymentHandle  # noqa: E402
from starlette.requests import ClientDisconnect, Request  # noqa: E402
from starlette.responses import Response  # noqa: E402

# Requests of up to so many texts wait for others to be embedded with; a larger one is a batch by itself.
SMALL_REQUEST = 16

# Of this application: a cluster may have others.
NAME = "openai"


class Model(BaseModel):
    """A model that is served. Where it lies has to be the same on every node."""

    model_config = ConfigDict(extra="forbid", protected_namespaces=())

    id: str  # what clients ask for
    source: str  # a folder, absolute or beginning with "./" or "../", or a name on the hub
    # Shorter vectors that the model was trained for, by cutting: those of `dimensions` that are not refused.
    dimensions: list[int] = []
    threads: int = 1  # which a replica computes on
    num_cpus: Optional[float] = None  # processors that Ray reserves for a replica; null: one for each thread
    min_replicas: int = 1
    max_replicas: int = 1
    # Requests that one replica has at a time, and that may wait beside those before clients are told 503.
    max_ongoing_requests: int = 8
    max_queued_requests: int = 16

    @model_validator(mode="after")
    def _check(self) -> "Model":
        if any(dimension <= 0 for dimension in self.dimensions):
            raise ValueError(f"the dimensions of {self.id!r} have to be above 0")
        if self.min_replicas > self.max_replicas:
            raise ValueError(f"min_replicas of {self.id!r} is above its max_replicas, which is {self.max_replicas}")
        return self


class Settings(BaseModel):
    model_config = ConfigDict(extra="forbid")

    models: list[Model]
    # A file with the key that clients have to send, on every node; null: none is asked for.
    key_file: Optional[str] = None
    most_bytes: int = openai_api.DEFAULT_MOST_BYTES
    most_texts: int = openai_api.DEFAULT_MOST_TEXTS
    api_replicas: int = 1  # of what reads requests and writes replies

    @model_validator(mode="after")
    def _check(self) -> "Settings":
        if not self.models:
            raise ValueError("models has to name one at least")
        ids = [model.id for model in self.models]
        for model in ids:
            if ids.count(model) > 1:
                raise ValueError(f"models has the id {model!r} more than once")
        return self


@serve.deployment(health_check_period_s=5, health_check_timeout_s=30)
class Embedder:
    """One replica of a model, which computes one batch after another."""

    def __init__(self, model: Model):
        os.environ["TOVANA_EMBED_THREADS"] = str(model.threads)
        import tovana_embedding

        self._engine = tovana_embedding.EmbeddingEngine({"backend": "local", "model_name": model.source})
        self._engine.wait_ready(600)
        self.check_health()
        dimension = len(self._engine.embed_single(""))
        if any(shorter > dimension for shorter in model.dimensions):
            raise ValueError(f"the vectors of {model.id!r} have {dimension} numbers, fewer than its `dimensions` say")
        self._worker = ThreadPoolExecutor(1)

    def check_health(self) -> None:
        if not self._engine.status().ready or self._engine.fallback_reason() is not None:
            raise RuntimeError(self._engine.fallback_reason() or self._engine.status().describe())

    async def embed(self, texts: list[str]) -> tuple[np.ndarray, int]:
        """The texts' vectors in float32, and their tokens."""
        if len(texts) <= SMALL_REQUEST:
            return await self._together(texts)
        vectors, counts = await self._compute(texts)
        return vectors, sum(counts)

    @serve.batch(max_batch_size=8, batch_wait_timeout_s=0.002)
    async def _together(self, requests: list[list[str]]) -> list[tuple[np.ndarray, int]]:
        vectors, counts = await self._compute([text for texts in requests for text in texts])
        replies = []
        first = 0
        for texts in requests:
            end = first + len(texts)
            replies.append((vectors[first:end], sum(counts[first:end])))
            first = end
        return replies

    async def _compute(self, texts: list[str]) -> tuple[np.ndarray, list[int]]:
        loop = asyncio.get_running_loop()
        return await loop.run_in_executor(
            self._worker, lambda: self._engine.embed_and_count(texts, dtype=np.float32)
        )


@serve.deployment(max_ongoing_requests=1000, ray_actor_options={"num_cpus": 0})
class Api:
    """Reads requests, asks the models, writes replies."""

    def __init__(self, settings: Settings, *embedders: DeploymentHandle):
        self._dimensions = {model.id: model.dimensions for model in settings.models}
        self._embedders = dict(zip(self._dimensions, embedders))
        self._limits = openai_api.Limits(settings.most_bytes, settings.most_texts)
        self._key = read_key(settings.key_file)

    async def __call__(self, request: Request) -> Response:
        try:
            return _json(await self._answer(request))
        except ApiError as error:
            return _json(error.body, error.status, error.headers)
        except ClientDisconnect:
            return Response(status_code=499)
        except Exception as error:
            # Only the kind: what an error says may hold a client's text.
            logging.getLogger("ray.serve").error("A request failed: %s", type(error).__name__)
            failed = ApiError(500, _FAILED)
            return _json(failed.body, failed.status)

    async def _answer(self, request: Request) -> dict:
        wanted, name = openai_api.route(request.method, request.url.path)
        if wanted == "health":
            return {"status": "ok"}
        openai_api.check_key(request.headers.get("authorization"), self._key)
        if wanted == "models":
            return openai_api.models_reply(self._dimensions, name)
        asked = openai_api.parse(await self._body(request), self._dimensions, self._limits)
        vectors, tokens = await self._embed(asked)
        return openai_api.embeddings_reply(asked, vectors, tokens)

    async def _body(self, request: Request) -> bytes:
        # What the client says of the length spares the transfer; what comes is what counts.
        said = request.headers.get("content-length", "")
        openai_api.check_size(int(said) if said.isdecimal() else 0, self._limits)
        body = bytearray()
        async for chunk in request.stream():
            body += chunk
            openai_api.check_size(len(body), self._limits)
        return bytes(body)

    async def _embed(self, asked: openai_api.EmbeddingsRequest) -> tuple[np.ndarray, int]:
        try:
            return await self._embedders[asked.model].embed.remote(asked.texts)
        except ray.exceptions.RayTaskError as error:
            # What a replica raised; but it may have been Ray there too, which lost what it was to read.
            if isinstance(error.cause, _TRY_AGAIN):
                raise _unavailable() from None
            raise ApiError(500, f"{_FAILED}: {type(error.cause).__name__}") from error
        except _TRY_AGAIN:
            raise _unavailable() from None


_FAILED = "The server had an error while processing your request"

# A full queue, or a replica or a machine that went away, with what it held: another one can do it.
_TRY_AGAIN = (BackPressureError, DeploymentUnavailableError, ray.exceptions.RayError)


def _unavailable() -> ApiError:
    message = "The server is overloaded or not ready yet. Try again later."
    return ApiError(503, message, headers={"Retry-After": "1"})


def _json(body: dict, status: int = 200, headers: Optional[dict[str, str]] = None) -> Response:
    return Response(orjson.dumps(body, option=orjson.OPT_SERIALIZE_NUMPY), status, headers, "application/json")


def read_key(file: Optional[str]) -> Optional[str]:
    if file is None:
        return None
    key = Path(file).read_text(encoding="utf-8").strip()
    if not key:
        raise ValueError(f"the key file {file} is empty")
    return key


def build(settings: Settings) -> serve.Application:
    """The application."""
    embedders = [_embedder(model) for model in settings.models]
    return Api.options(num_replicas=settings.api_replicas, logging_config=_LOGGING).bind(settings, *embedders)


# A line a request is the business of the proxy in front.
_LOGGING = {"enable_access_log": False}


def _embedder(model: Model) -> serve.Application:
    autoscaling = {
        "min_replicas": model.min_replicas,
        "max_replicas": model.max_replicas,
        # Two requests a replica keep it busy; more of them are work for another one.
        "target_ongoing_requests": 2,
        "upscale_delay_s": 10,
        "downscale_delay_s": 300,
    }
    return Embedder.options(
        name="model-" + "".join(letter if letter.isalnum() else "-" for letter in model.id),
        autoscaling_config=autoscaling,
        max_ongoing_requests=model.max_ongoing_requests,
        max_queued_requests=model.max_queued_requests,
        ray_actor_options={"num_cpus": model.threads if model.num_cpus is None else model.num_cpus},
        logging_config=_LOGGING,
    ).bind(model)


def _arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("settings", type=Path, help="a file of YAML with the fields of Settings")
    parser.add_argument("--host", default="127.0.0.1", help="address to listen on (default 127.0.0.1)")
    parser.add_argument("--port", type=int, default=8000, help="default 8000")
    parser.add_argument("--keep-alive", type=int, default=75, help="seconds to keep idle connections (default 75)")
    return parser.parse_args()


def _told(error: Exception) -> str:
    """What is wrong with the settings, in one line."""
    if not isinstance(error, ValidationError):
        return str(error)
    faults = []
    for wrong in error.errors():
        place = ".".join(map(str, wrong["loc"]))
        message = wrong["msg"].removeprefix("Value error, ")
        faults.append(f"{place}: {message}" if place else message)
    return "; ".join(faults)


def _interrupt_on_signals() -> None:
    for ending in (signal.SIGINT, signal.SIGTERM):
        signal.signal(ending, signal.default_int_handler)


def main() -> None:
    arguments = _arguments()
    if os.environ.get("RAY_AUTH_MODE", "").lower() == "disabled":
        sys.exit("serve_openai: RAY_AUTH_MODE=disabled lets anybody who reaches Ray's ports run code; unset it")
    try:
        settings = Settings(**yaml.safe_load(arguments.settings.read_text(encoding="utf-8")))
        read_key(settings.key_file)
    except (OSError, TypeError, ValueError, yaml.YAMLError) as error:
        sys.exit(f"serve_openai: {arguments.settings}: {_told(error)}")
    here = {"runtime_env": {"env_vars": {"PYTHONPATH": str(Path(__file__).resolve().parent)}}}
    shared = "RAY_ADDRESS" in os.environ
    # Before Ray begins, so that an end meanwhile leaves none of its processes.
    _interrupt_on_signals()
    try:
        if shared:
            ray.init(**here)
        else:
            ray.init(include_dashboard=False, **here)
        # Again: Ray has put in its own answer to SIGTERM, which ends in an abort.
        _interrupt_on_signals()
        serve.start(
            http_options={
                "host": arguments.host,
                "port": arguments.port,
                "keep_alive_timeout_s": arguments.keep_alive,
                "request_timeout_s": 300,
            }
        )
        try:
            serve.run(build(settings), name=NAME, blocking=True)
        finally:
            if shared:
                # The cluster's other applications stay.
                serve.delete(NAME)
            else:
                serve.shutdown()
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    main()
