"""Makes three of the models in tests/data/tiny_models, and their vectors, with Python's own libraries.

Whatever a model may say otherwise than most do, one of the first two says: sizes that no vector register
divides, other activations, a default prompt that pooling leaves out, every mode of pooling, every other
module, the spellings of older versions. The third is what large models are, in miniature. Needs torch, transformers and sentence-transformers, as
scripts/bench model installs them. The tokenizers are those of the other tiny models.
    python peers/models/make_tiny_models.py
"""

import json
import pathlib
import shutil
import tempfile

import numpy
import torch
from safetensors.torch import load_file, save_file
from sentence_transformers import SentenceTransformer, models
from sentence_transformers.base.modules.dense import Dense
from transformers import BertConfig, BertModel, CamembertConfig, CamembertModel, MPNetConfig, MPNetModel

DATA = pathlib.Path(__file__).resolve().parents[2] / "tests" / "data" / "tiny_models"
SIZES = ("vocab_size", "pad_token_id", "bos_token_id", "eos_token_id", "layer_norm_eps")
PROMPT = "which one: "


def config_of(source, **members):
    config = json.loads((DATA / source / "config.json").read_text())
    return {key: value for key, value in config.items() if key in SIZES} | members


def texts_of(source):
    lines = [json.loads(line)["text"] for line in (DATA / source / "reference.jsonl").open()]
    chosen = sorted(set(lines[:24]), key=lines.index)
    long_text = " ".join(lines)
    # Distances beyond every bucket's border, and more words than there are positions.
    return chosen + [long_text[:150], long_text[:260], long_text]


def randomize(module):
    """Biases and norms begin as zeros and ones, in which a mistake does not show."""
    with torch.no_grad():
        for parameter in module.parameters():
            if parameter.dim() == 1:
                parameter += 0.2 * torch.randn_like(parameter)


def rewrite(file, change):
    file.write_text(json.dumps(change(json.loads(file.read_text())), indent=2) + "\n")


def save(encoder, source, target, max_length, modules, keeps_case=False):
    """A model that keeps case has a tokenizer that does, and lower-cases what that gets."""
    with tempfile.TemporaryDirectory() as folder:
        randomize(encoder)
        encoder.save_pretrained(folder)
        for name in ("tokenizer.json", "tokenizer_config.json"):
            shutil.copy(DATA / source / name, folder)
        rewrite(pathlib.Path(folder) / "tokenizer_config.json",
                lambda content: content | {"do_lower_case": not keeps_case})
        transformer = models.Transformer(folder, max_seq_length=max_length, do_lower_case=keeps_case)
        model = SentenceTransformer(modules=[transformer, *modules], prompts={"ask": PROMPT},
                                    default_prompt_name="ask", device="cpu")
        shutil.rmtree(DATA / target, ignore_errors=True)
        model.save(str(DATA / target), create_model_card=False)
    for made_beside in (DATA / target).rglob("*.md"):
        made_beside.unlink()
    return model


def write_references(source, target):
    """Returns the vectors, in float32 whatever the weights are."""
    model = SentenceTransformer(str(DATA / target), device="cpu", model_kwargs={"dtype": torch.float32})
    vectors = []
    with (DATA / target / "reference.jsonl").open("w") as out:
        for text in texts_of(source):
            vectors.append(model.encode([text])[0])
            ids = model.tokenize([PROMPT + text])["input_ids"][0].tolist()
            normalized = model.encode([text], normalize_embeddings=True)[0].tolist()
            out.write(json.dumps({"text": text, "ids": ids, "embedding": vectors[-1].tolist(),
                                  "embedding_normalized": normalized}) + "\n")
    return numpy.stack(vectors)


def make_odd_mpnet():
    """5 heads of 7 numbers; of 129 inner ones, a quarter rounded up takes one register more than rounded
    down; more buckets than there are in use; modes of pooling in another order than the tables have."""
    source, target = "tiny_mpnet_mean", "tiny_mpnet_odd_dense"
    torch.manual_seed(5)
    config = MPNetConfig(**config_of(
        source, hidden_size=35, num_attention_heads=5, intermediate_size=129, num_hidden_layers=2,
        max_position_embeddings=130, hidden_act="gelu_new", initializer_range=0.15,
        relative_attention_num_buckets=40))
    save(MPNetModel(config, add_pooling_layer=False), source, target, 128,
         [models.Pooling(35, pooling_mode=("lasttoken", "mean"), include_prompt=False),
          models.Dense(70, 13, bias=False, activation_function=torch.nn.SiLU())])
    write_references(source, target)


def make_old_bert():
    """Said as older versions did; heads wider than a register."""
    source, target = "tiny_bert_cls", "tiny_bert_old_modules"
    folder = DATA / target
    torch.manual_seed(6)
    config = BertConfig(**config_of(
        source, hidden_size=74, num_attention_heads=2, intermediate_size=37, num_hidden_layers=1,
        max_position_embeddings=40, hidden_act="swish", initializer_range=0.15, layer_norm_eps=0.1,
        type_vocab_size=1))
    modes = ("cls", "max", "mean", "mean_sqrt_len_tokens", "weightedmean", "lasttoken")
    modules = [models.Pooling(74, pooling_mode=modes, include_prompt=False), models.Dropout(0.1),
               Dense(6 * 74, 11, activation_function=torch.nn.ReLU(), use_residual=True),
               Dense(11, 11, bias=False, activation_function=torch.nn.Identity(), use_residual=True),
               models.LayerNorm(11)]
    for module in modules:
        randomize(module)
    encoder = BertModel(config, add_pooling_layer=False)
    model = save(encoder, source, target, 24, modules, keeps_case=True)
    model.truncate_dim = 7
    expected = numpy.stack([model.encode([text])[0] for text in texts_of(source)])

    tensors = {}
    for name, tensor in load_file(folder / "model.safetensors").items():
        for now, before in (("LayerNorm.weight", "LayerNorm.gamma"), ("LayerNorm.bias", "LayerNorm.beta")):
            name = name.replace(now, before)
        tensors["bert." + name] = tensor
    # Another architecture's, which counts for nothing.
    tensors["bert.encoder.relative_attention_bias.weight"] = torch.zeros(0, 9)
    save_file(tensors, folder / "model.safetensors", metadata={"format": "pt"})
    rewrite(folder / "config_sentence_transformers.json", lambda content: content | {"truncate_dim": 7})
    rewrite(folder / "tokenizer_config.json", lambda content: content | {"model_max_length": 30})
    rewrite(folder / "modules.json", lambda modules: [
        module | {"type": "sentence_transformers.models." + module["type"].split(".")[-1]}
        for module in modules])
    rewrite(folder / "1_Pooling" / "config.json", lambda _: {
        "pooling_mode_lasttoken": True, "word_embedding_dimension": 74, "include_prompt": False,
        "pooling_mode_cls_token": True, "pooling_mode_mean_tokens": True, "pooling_mode_max_tokens": True,
        "pooling_mode_mean_sqrt_len_tokens": True, "pooling_mode_weightedmean_tokens": True})
    (folder / "sentence_bert_config.json").write_text('{"max_seq_length": 24, "do_lower_case": true}\n')
    numpy.testing.assert_allclose(write_references(source, target), expected, atol=1e-6)


def camembert_tokenizer(source):
    """The special tokens stand elsewhere in its vocabulary, and one has another score."""
    content = json.loads((DATA / source / "tokenizer.json").read_text())
    pieces = content["model"]["vocab"][4:]
    content["model"]["vocab"] = [["<s>NOTUSED", 0.0], ["<pad>", 0.0], ["</s>NOTUSED", 0.0], ["<unk>", 0.0],
                                 ["<unk>NOTUSED", -100.0], ["<s>", 0.0], ["</s>", 0.0], *pieces]
    ids = {piece: number for number, (piece, _) in enumerate(content["model"]["vocab"])}
    for token in content["added_tokens"]:
        token["id"] = ids[token["content"]]
    for name, token in content["post_processor"]["special_tokens"].items():
        token["ids"] = [ids[name]]
    return content, ids


def make_sharded_camembert():
    """Weights of half the size in several files."""
    source, target = "tiny_xlmr_mean", "tiny_camembert_shards"
    content, ids = camembert_tokenizer(source)
    torch.manual_seed(7)
    config = CamembertConfig(
        vocab_size=len(ids), hidden_size=30, num_attention_heads=3, intermediate_size=44, num_hidden_layers=2,
        max_position_embeddings=66, type_vocab_size=1, layer_norm_eps=1e-5, initializer_range=0.15,
        pad_token_id=ids["<pad>"], bos_token_id=ids["<s>"], eos_token_id=ids["</s>"])
    encoder = CamembertModel(config, add_pooling_layer=False)
    randomize(encoder)
    with tempfile.TemporaryDirectory() as folder:
        folder = pathlib.Path(folder)
        encoder.to(torch.bfloat16).save_pretrained(folder, max_shard_size="20KB")
        (folder / "tokenizer.json").write_text(json.dumps(content, ensure_ascii=False))
        shutil.copy(DATA / source / "tokenizer_config.json", folder)
        rewrite(folder / "tokenizer_config.json", lambda settings: settings | {
            "tokenizer_class": "CamembertTokenizer", "model_max_length": 64})
        model = SentenceTransformer(modules=[models.Transformer(str(folder)), models.Pooling(30)],
                                    prompts={"ask": PROMPT}, default_prompt_name="ask", device="cpu")
        shutil.rmtree(DATA / target, ignore_errors=True)
        model.save(str(DATA / target), create_model_card=False)
        (DATA / target / "model.safetensors").unlink()
        for part in folder.glob("model*"):
            shutil.copy(part, DATA / target)
    write_references(source, target)


if __name__ == "__main__":
    make_odd_mpnet()
    make_old_bert()
    make_sharded_camembert()
