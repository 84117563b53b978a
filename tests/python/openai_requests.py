"""What clients of the API do wrong, and what they are told."""

KEY = "a key"
TINY = "tiny"
SMALLEST = {"model": TINY, "input": "x"}
DEEP = b"[" * 100_000
# What is asked, as (method, path, body, key), and what is answered, as (status, code, param).
REFUSALS = [
    (("POST", "embeddings", b"{", KEY), (400, None, None)),
    (("POST", "embeddings", b"\xff", KEY), (400, None, None)),
    (("POST", "embeddings", DEEP, KEY), (400, None, None)),
    (("POST", "embeddings", b"[]", KEY), (400, None, None)),
    (("POST", "embeddings", {"model": TINY}, KEY), (400, "missing_required_parameter", "input")),
    (("POST", "embeddings", {"input": "x"}, KEY), (400, "missing_required_parameter", "model")),
    (("POST", "embeddings", SMALLEST | {"input": None}, KEY), (400, "missing_required_parameter", "input")),
    (("POST", "embeddings", SMALLEST | {"input_type": "query"}, KEY), (400, None, None)),
    (("POST", "embeddings", SMALLEST | {"model": 1}, KEY), (400, "invalid_type", "model")),
    (("POST", "embeddings", SMALLEST | {"input": {}}, KEY), (400, "invalid_type", "input")),
    (("POST", "embeddings", SMALLEST | {"input": ["x", None]}, KEY), (400, "invalid_type", "input[1]")),
    (("POST", "embeddings", SMALLEST | {"input": [True]}, KEY), (400, "invalid_type", "input[0]")),
    (("POST", "embeddings", SMALLEST | {"input": [1, 2]}, KEY), (400, "invalid_type", "input")),
    (("POST", "embeddings", SMALLEST | {"input": []}, KEY), (400, "empty_array", "input")),
    (("POST", "embeddings", SMALLEST | {"input": ["x"] * 2049}, KEY), (400, "array_above_max_length", "input")),
    (("POST", "embeddings", SMALLEST | {"model": "nobody"}, KEY), (404, "model_not_found", "model")),
    (("POST", "embeddings", SMALLEST | {"model": "\ud800" * 1000}, KEY), (404, "model_not_found", "model")),
    (("POST", "embeddings", SMALLEST | {"dimensions": 8}, KEY), (400, None, "dimensions")),
    (("POST", "embeddings", SMALLEST | {"dimensions": True}, KEY), (400, "invalid_type", "dimensions")),
    (("POST", "embeddings", SMALLEST | {"encoding_format": "hex"}, KEY), (400, "invalid_value", "encoding_format")),
    (("POST", "embeddings", b" " * (16 << 20) + b"{}", KEY), (413, None, None)),
    (("GET", "embeddings", b"", KEY), (405, "method_not_supported", None)),
    (("POST", "models", b"", KEY), (405, "method_not_supported", None)),
    (("GET", "nothing", b"", KEY), (404, None, None)),
    (("GET", "nothing" * 1000, b"", KEY), (404, None, None)),
    (("POST", "models/" + "x" * 1000, b"", KEY), (405, "method_not_supported", None)),
    (("GET", "models/nobody", b"", KEY), (404, "model_not_found", "model")),
    (("POST", "embeddings", SMALLEST, "another"), (401, "invalid_api_key", None)),
    (("POST", "embeddings", SMALLEST, "schlüssel"), (401, "invalid_api_key", None)),
    (("POST", "embeddings", SMALLEST, None), (401, None, None)),
    (("GET", "models", b"", None), (401, None, None)),
]  # fmt: skip
