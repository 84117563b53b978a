#!/usr/bin/env python3
"""Turns a sentence-transformers model of BERT's kind into what the peers of the local model read.

    model_convert.py MODEL OUT

OUT gets plain.onnx (any number of texts and tokens), fused.onnx (the same after ONNX Runtime's own
optimiser for transformers) and ctranslate2/, all in float32; and in int8 fused-int8.onnx, quantized
dynamically, and ctranslate2-int8/. What is there already stays.
"""

import json
import os
import shutil
import sys
from pathlib import Path

os.environ["HF_HUB_OFFLINE"] = "1"


def export_onnx(model, path):
    import torch
    from transformers import AutoModel

    class HiddenStates(torch.nn.Module):
        def __init__(self):
            super().__init__()
            self.bert = AutoModel.from_pretrained(model, attn_implementation="eager", dtype=torch.float32)

        def forward(self, input_ids, attention_mask):
            return self.bert(input_ids=input_ids, attention_mask=attention_mask).last_hidden_state

    ids = torch.ones(2, 8, dtype=torch.int64)
    sizes = {0: "texts", 1: "tokens"}
    torch.onnx.export(
        HiddenStates().eval(),
        (ids, torch.ones_like(ids)),
        path,
        # In the graph of the newer exporter, ONNX Runtime's optimiser does not recognise the attention.
        dynamo=False,
        opset_version=18,
        input_names=["input_ids", "attention_mask"],
        output_names=["last_hidden_state"],
        dynamic_axes={"input_ids": sizes, "attention_mask": sizes, "last_hidden_state": sizes},
    )


def fuse_onnx(model, plain, path):
    from onnxruntime.transformers import optimizer

    config = json.loads((Path(model) / "config.json").read_text())
    fused = optimizer.optimize_model(
        str(plain),
        model_type="bert",
        num_heads=config["num_attention_heads"],
        hidden_size=config["hidden_size"],
    )
    attentions = fused.get_fused_operator_statistics()["Attention"]
    if attentions != config["num_hidden_layers"]:
        sys.exit(f"model_convert.py: fused {attentions} attentions of {config['num_hidden_layers']}")
    fused.save_model_to_file(str(path))


def quantize_onnx(fused, path):
    from onnx import TensorProto
    from onnxruntime.quantization import quantize_dynamic

    # ONNX's inference of types does not know the fused operators. A scale for each channel costs no time, and
    # halves the error that the default, one scale a matrix, makes.
    types = {"DefaultTensorType": TensorProto.FLOAT}
    quantize_dynamic(str(fused), str(path), per_channel=True, extra_options=types)


def convert_to_ctranslate2(model, path, quantization):
    from ctranslate2.converters import TransformersConverter

    TransformersConverter(str(model)).convert(str(path), quantization=quantization, force=True)


def once(path, make):
    """Makes a file or folder under another name first, so that a run that was cut off counts for nothing."""
    if path.exists():
        return
    unfinished = path.with_name(f"unfinished-{path.name}")
    if unfinished.is_dir():
        shutil.rmtree(unfinished)
    make(unfinished)
    unfinished.rename(path)


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: model_convert.py MODEL OUT")
    model, out = map(Path, sys.argv[1:])
    out.mkdir(parents=True, exist_ok=True)
    once(out / "plain.onnx", lambda path: export_onnx(model, path))
    once(out / "fused.onnx", lambda path: fuse_onnx(model, out / "plain.onnx", path))
    once(out / "fused-int8.onnx", lambda path: quantize_onnx(out / "fused.onnx", path))
    once(out / "ctranslate2", lambda path: convert_to_ctranslate2(model, path, "float32"))
    once(out / "ctranslate2-int8", lambda path: convert_to_ctranslate2(model, path, "int8"))


if __name__ == "__main__":
    main()
