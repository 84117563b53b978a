"""What OpenAI's embeddings API asks and answers, apart from any server: requests in, checked; replies and errors out."""

import base64
import hmac
import json
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from typing import Any, Optional

import numpy as np

DEFAULT_MOST_BYTES = 16 << 20
DEFAULT_MOST_TEXTS = 2048

_ARGUMENTS = {"input", "model", "encoding_format", "dimensions", "user"}
_ENCODING_FORMATS = ("float", "base64")
_JSON_NAMES = {
    dict: "an object",
    list: "an array",
    str: "a string",
    bool: "a boolean",
    int: "an integer",
    float: "a decimal",
    type(None): "null",
}


class ApiError(Exception):
    """What a request is refused with: a status, and the object that clients of OpenAI read."""

    def __init__(
        self,
        status: int,
        message: str,
        *,
        param: Optional[str] = None,
        code: Optional[str] = None,
        headers: Optional[Mapping[str, str]] = None,
    ):
        super().__init__(message)
        self.status = status
        self.headers = dict(headers or {})
        kind = "invalid_request_error" if status < 500 else "server_error"
        self.body = {"error": {"message": message, "type": kind, "param": param, "code": code}}


@dataclass(frozen=True)
class Limits:
    """The most that one request may ask for."""

    most_bytes: int = DEFAULT_MOST_BYTES
    most_texts: int = DEFAULT_MOST_TEXTS


@dataclass(frozen=True)
class EmbeddingsRequest:
    model: str
    texts: list[str]
    encoding_format: str = "float"
    dimensions: Optional[int] = None


def check_key(authorization: Optional[str], key: Optional[str]) -> None:
    """Raises ApiError unless the header bears the key. Without a key whoever asks may."""
    if key is None:
        return
    scheme, _, given = (authorization or "").partition(" ")
    if scheme.lower() != "bearer" or not given.strip():
        raise ApiError(
            401,
            "You didn't provide an API key. It is expected in the header Authorization, as Bearer YOUR_KEY.",
            headers={"WWW-Authenticate": "Bearer"},
        )
    # Servers hand on the bytes of a header as Latin-1.
    if not hmac.compare_digest(given.strip().encode("latin-1"), key.encode()):
        raise ApiError(
            401, "Incorrect API key provided.", code="invalid_api_key", headers={"WWW-Authenticate": "Bearer"}
        )


def route(method: str, path: str) -> tuple[str, str]:
    """What a path asks for, "embeddings", "models" or "health", and the model's id behind /v1/models/."""
    wanted, _, name = path.removeprefix("/v1/").partition("/")
    if path == "/health":
        wanted, allowed = "health", ("GET", "HEAD")
    elif path == "/v1/embeddings":
        allowed = ("POST",)
    elif wanted == "models" and path.startswith("/v1/"):
        allowed = ("GET",)
    else:
        raise ApiError(404, f"Invalid URL ({_shown(method)} {_shown(path)})")
    if method not in allowed:
        raise ApiError(
            405,
            f"Not allowed to {_shown(method)} on {_shown(path)}. (HINT: Perhaps you meant to use {allowed[0]}?)",
            code="method_not_supported",
            headers={"Allow": ", ".join(allowed)},
        )
    return wanted, name


def check_size(size: int, limits: Limits) -> None:
    if size > limits.most_bytes:
        raise ApiError(413, f"Maximum content size limit ({limits.most_bytes}) exceeded.")


def parse(body: bytes, models: Mapping[str, Sequence[int]], limits: Limits = Limits()) -> EmbeddingsRequest:
    """The request of a body, for models by their ids, each with the dimensions that may be asked of it."""
    check_size(len(body), limits)
    try:
        asked = json.loads(body)
    except (ValueError, RecursionError):
        raise ApiError(400, "We could not parse the JSON body of your request.") from None
    if not isinstance(asked, dict):
        raise ApiError(400, f"The body of a request is an object, but got {_kind(asked)} instead.")
    for name in asked:
        if name not in _ARGUMENTS:
            raise ApiError(400, f"Unrecognized request argument supplied: {_shown(name)}")
    model = _required(asked, "model", str, "a string")
    if model not in models:
        raise _no_model(model)
    texts = _texts(asked, limits)
    encoding_format = asked.get("encoding_format")
    if encoding_format is None:
        encoding_format = "float"
    if encoding_format not in _ENCODING_FORMATS:
        message = f"Invalid value: {_shown(encoding_format)}. Supported values are: 'float' and 'base64'."
        raise ApiError(400, message, param="encoding_format", code="invalid_value")
    return EmbeddingsRequest(model, texts, encoding_format, _dimensions(asked.get("dimensions"), models[model]))


def embeddings_reply(request: EmbeddingsRequest, vectors: np.ndarray, tokens: int) -> dict:
    """The reply to a request, whose `vectors` are `[texts x dimension]` in float32; floats are left as rows of numpy."""
    if request.dimensions is not None and request.dimensions < vectors.shape[1]:
        cut = vectors[:, : request.dimensions]
        # Into a new array: the vectors may be in Ray's own memory, where nobody may write.
        vectors = cut / np.maximum(np.linalg.norm(cut, axis=1, keepdims=True), np.finfo(np.float32).tiny)
    rows: Sequence[Any] = vectors
    if request.encoding_format == "base64":
        rows = [base64.b64encode(row.astype("<f4").tobytes()).decode() for row in vectors]
    data = [{"object": "embedding", "index": index, "embedding": row} for index, row in enumerate(rows)]
    usage = {"prompt_tokens": tokens, "total_tokens": tokens}
    return {"object": "list", "data": data, "model": request.model, "usage": usage}


def models_reply(models: Mapping[str, Any], name: str = "") -> dict:
    """All models, or the one of a name."""
    if name and name not in models:
        raise _no_model(name)
    listed = [{"id": model, "object": "model", "created": 0, "owned_by": "tovana"} for model in models]
    return listed[list(models).index(name)] if name else {"object": "list", "data": listed}


def _texts(asked: dict, limits: Limits) -> list[str]:
    given = _required(asked, "input", (str, list), "a string or an array of strings")
    if isinstance(given, str):
        return [given]
    if not given:
        message = "Invalid 'input': empty array. Expected an array with minimum length 1."
        raise ApiError(400, message, param="input", code="empty_array")
    # A list of token ids may be longer than any list of texts: what it is comes first.
    for index, text in enumerate(given):
        if isinstance(text, (int, list)) and not isinstance(text, bool):
            message = "Invalid 'input': token arrays are not supported here; send the texts themselves."
            raise ApiError(400, message, param="input", code="invalid_type")
        if not isinstance(text, str):
            raise _wrong_type(f"input[{index}]", "a string", text)
    if len(given) > limits.most_texts:
        message = (
            f"Invalid 'input': array too long. Expected an array with maximum length {limits.most_texts}, "
            f"but got an array with length {len(given)} instead."
        )
        raise ApiError(400, message, param="input", code="array_above_max_length")
    return given


def _dimensions(asked: Any, offered: Sequence[int]) -> Optional[int]:
    if asked is None:
        return None
    if type(asked) is not int:
        raise _wrong_type("dimensions", "an integer", asked)
    if not offered:
        raise ApiError(400, "This model does not support specifying dimensions.", param="dimensions")
    if asked not in offered:
        message = f"Invalid value: {_shown(asked)}. Supported values are: {', '.join(map(str, offered))}."
        raise ApiError(400, message, param="dimensions", code="invalid_value")
    return asked


def _required(asked: dict, name: str, kinds: Any, expected: str) -> Any:
    if asked.get(name) is None:
        message = f"Missing required parameter: '{name}'."
        raise ApiError(400, message, param=name, code="missing_required_parameter")
    if not isinstance(asked[name], kinds):
        raise _wrong_type(name, expected, asked[name])
    return asked[name]


def _wrong_type(name: str, expected: str, value: Any) -> ApiError:
    message = f"Invalid type for '{name}': expected {expected}, but got {_kind(value)} instead."
    return ApiError(400, message, param=name, code="invalid_type")


def _no_model(name: str) -> ApiError:
    message = f"The model `{_shown(name)}` does not exist or you do not have access to it."
    return ApiError(404, message, param="model", code="model_not_found")


def _kind(value: Any) -> str:
    return _JSON_NAMES[type(value)]


def _shown(value: Any) -> str:
    """A value of the client's as a message has it: not too long, and in characters that every reply can carry."""
    text = value if isinstance(value, str) else json.dumps(value)
    return (text if len(text) <= 100 else text[:100] + "…").encode(errors="replace").decode()
