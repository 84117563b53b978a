#!/usr/bin/env python3
"""Embeds a column of Parquet or JSON lines with a local model, on Ray Data: actors on one machine or many.

    embed_data.py --model /models/all-MiniLM-L6-v2 --checkpoint DIR INPUT OUTPUT

reads INPUT (a file, or a folder of them) and writes its rows, with a column of vectors in float32, as Parquet into the
folder OUTPUT; on the cluster that RAY_ADDRESS names, otherwise on this machine. All paths have to be the same on every node.
Of a folder neither sub-folders are read nor files whose names begin with "_" or "."; any other file has to be of its kind.

A job that ended early is started again with the same arguments, and goes on where it was: each id of INPUT is once in OUTPUT.
An id is a row's own: of rows that share one, any but the first to be written may be left out. A job that has ended well
and is started again writes nothing. What the vectors depend on is kept beside the folder of the checkpoint, as DIR.json: a
job that would go on with something else is refused.
"""

import argparse
import json
import os
import sys
from pathlib import Path

os.environ.setdefault("RAY_USAGE_STATS_ENABLED", "0")

import numpy as np  # noqa: E402
import pyarrow as pa  # noqa: E402
import ray  # noqa: E402
from ray.data import ActorPoolStrategy, Dataset, DataContext  # noqa: E402
from ray.data.checkpoint import CheckpointConfig  # noqa: E402

READERS = {".parquet": ray.data.read_parquet, ".jsonl": ray.data.read_json, ".json": ray.data.read_json}

# Processors, as Ray counts them, for what reads, skips and writes rows. With fewer a job waits for them for ever.
NOT_EMBEDDING = 2


class Embedder:
    """One actor's model."""

    def __init__(self, model: str, threads: int, id_column: str, text_column: str, vector_column: str):
        os.environ["TOVANA_EMBED_THREADS"] = str(threads)
        import tovana_embedding

        self._model = tovana_embedding.SentenceTransformer(model)
        self._id_column, self._text_column, self._vector_column = id_column, text_column, vector_column

    def __call__(self, rows: pa.Table) -> pa.Table:
        if rows.column(self._id_column).null_count > 0:
            raise ValueError(f"a row has no id: the column '{self._id_column}' has nulls")
        texts = [text or "" for text in rows.column(self._text_column).to_pylist()]
        vectors = self._model.encode(texts)
        values = pa.array(vectors.reshape(-1), pa.float32())
        return rows.append_column(self._vector_column, pa.FixedSizeListArray.from_arrays(values, vectors.shape[1]))


def read(source: Path) -> Dataset:
    """The rows of a file or folder."""
    files = [source]
    if source.is_dir():
        # Other programs give such names to what is not data, or not whole yet.
        files = sorted(path for path in source.iterdir() if path.is_file() and path.name[0] not in "_.")
    for path in files:
        if path.suffix not in READERS:
            raise ValueError(f"{path} is none of {', '.join(READERS)}")
    kinds = {READERS[path.suffix] for path in files}
    if len(kinds) != 1:
        raise ValueError(f"{source}: files of one kind are wanted, of {', '.join(READERS)}")
    return kinds.pop()([str(path) for path in files])


def check_columns(arguments: argparse.Namespace) -> None:
    names = read(arguments.input).schema().names
    for column in (arguments.id_column, arguments.text_column):
        if column not in names:
            raise ValueError(f"{arguments.input} has no column '{column}'")
    if arguments.vector_column in names:
        raise ValueError(f"{arguments.input} has a column '{arguments.vector_column}' already: see --vector-column")


def check_same_job(arguments: argparse.Namespace) -> None:
    """Raises ValueError when the checkpoint is that of a job with other vectors, rows or places."""
    job = {
        "model": arguments.model,
        "id_column": arguments.id_column,
        "text_column": arguments.text_column,
        "vector_column": arguments.vector_column,
        "input": str(arguments.input.absolute()),
        "output": str(arguments.output.absolute()),
    }
    # Not in the folder itself, of which Ray takes every file for ids.
    folder = arguments.checkpoint.absolute()
    kept = folder.with_name(folder.name + ".json")
    if kept.exists():
        before = json.loads(kept.read_text(encoding="utf-8"))
        for name, value in job.items():
            if before.get(name) != value:
                raise ValueError(f"{kept}: the job began with {name} {before.get(name)!r}, not {value!r}")
        return
    kept.parent.mkdir(parents=True, exist_ok=True)
    # There whole or not at all, wherever this is killed.
    unfinished = kept.with_name(kept.name + ".tmp")
    unfinished.write_text(json.dumps(job, indent=2) + "\n", encoding="utf-8")
    unfinished.replace(kept)


def embed(rows: Dataset, arguments: argparse.Namespace) -> Dataset:
    # A small file becomes one block, and a block is the work of one actor: without this most would have none.
    return rows.repartition(target_num_rows_per_block=arguments.rows_per_block).map_batches(
        Embedder,
        fn_constructor_args=(
            arguments.model,
            arguments.threads,
            arguments.id_column,
            arguments.text_column,
            arguments.vector_column,
        ),
        batch_format="pyarrow",
        batch_size=None,
        compute=ActorPoolStrategy(min_size=1, max_size=arguments.actors),
        num_cpus=arguments.threads,
    )


def _arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("input", type=Path, help="a file, or a folder, whose sub-folders are not read")
    parser.add_argument("output", type=Path)
    parser.add_argument("--model", required=True, help="a folder, or a name on the hub")
    parser.add_argument("--checkpoint", type=Path, required=True, help="folder where the ids of written rows are kept")
    parser.add_argument("--id-column", default="id", help="default id")
    parser.add_argument("--text-column", default="text", help="default text; a row without one is embedded as empty")
    parser.add_argument("--vector-column", default="vector", help="default vector")
    parser.add_argument("--actors", type=int, default=1, help="most that embed at a time (default 1)")
    parser.add_argument("--threads", type=int, default=1, help="of each actor (default 1)")
    parser.add_argument("--rows-per-block", type=int, default=2000, help="rows of one piece of work (default 2000)")
    return parser.parse_args()


def main() -> None:
    arguments = _arguments()
    if os.environ.get("RAY_AUTH_MODE", "").lower() == "disabled":
        sys.exit("embed_data: RAY_AUTH_MODE=disabled lets anybody who reaches Ray's ports run code; unset it")
    if "RAY_ADDRESS" in os.environ:
        ray.init()
        if ray.cluster_resources().get("CPU", 0) < arguments.threads + NOT_EMBEDDING:
            sys.exit(f"embed_data: the cluster has too few processors: one actor takes {arguments.threads + NOT_EMBEDDING}")
    else:
        wanted = arguments.actors * arguments.threads + NOT_EMBEDDING
        ray.init(include_dashboard=False, num_cpus=max(wanted, os.cpu_count() or 1))
    try:
        check_columns(arguments)
        check_same_job(arguments)
    except (OSError, ValueError) as error:
        sys.exit(f"embed_data: {error}")
    # For what is read from here on; what does not end in files cannot have checkpoints.
    DataContext.get_current().checkpoint_config = CheckpointConfig(
        id_column=arguments.id_column,
        checkpoint_path=str(arguments.checkpoint.absolute()),
        delete_checkpoint_on_success=False,
    )
    embed(read(arguments.input), arguments).write_parquet(str(arguments.output.absolute()), mode="append")


if __name__ == "__main__":
    main()
