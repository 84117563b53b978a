"""Compares our safetensors reader with the format's own library on mutated files; scripts/peers runs it.

Both have to accept the same files with the same tensors, but for what is_known says. Prints each
difference and exits with 1 if there is one.
"""

import argparse
import json
import random
import struct
import subprocess
import sys

from safetensors import SafetensorError, deserialize

# Where we refuse what the library accepts: part of our fault, and why.
KNOWN = {
    "more than any tensor has": "an extent of 2**63 and more, which only an empty tensor can have",
    "its entry is not an object": "a tensor written as a list, [dtype, shape, offsets]",
    '"dtype" is not a string': "a dtype written as an object, {dtype: null}",
    "too deep": "nested more than 64 deep in a field that nobody reads; the library allows 127",
    "Problem while parsing a number": "a whole number beyond 64 bits in a field that nobody reads",
}


def is_known(file, ours, peer, line):
    if ours is None:
        return any(part in line for part in KNOWN)
    # The other way round: -0 is a whole number to us, and 0.
    return peer is None and b"-0" in file


def file_of(header, data):
    header = header.encode() if isinstance(header, str) else header
    return struct.pack("<Q", len(header)) + header + data


def seeds():
    def entry(dtype, shape, begin, end):
        return {"dtype": dtype, "shape": shape, "data_offsets": [begin, end]}

    two = {
        "__metadata__": {"format": "pt"},
        "bias": entry("F32", [2], 12, 20),
        "weight": entry("BF16", [2, 3], 0, 12),
    }
    empties = {"a": entry("U8", [4], 0, 4), "e": entry("I64", [0, 3], 4, 4), "s": entry("F16", [], 4, 6)}
    packed = {"f": entry("F4", [3, 2], 0, 3), "g": entry("F6_E2M3", [4], 3, 6)}
    yield file_of(json.dumps(two, separators=(",", ":")), bytes(range(20)))
    yield file_of(json.dumps(empties) + "   ", bytes(range(6)))
    yield file_of(json.dumps(packed), bytes(range(6)))
    yield file_of('{"a":{"dtype":"U8","shape":[2],"data_offsets":[0,2]},'
                  '"a":{"dtype":"I8","shape":[1],"data_offsets":[0,1],"x":{"y":[null,1.5]}}}', b"z")


PIECES = [b'"', b"{", b"}", b"[", b"]", b",", b":", b"0", b"1", b"-", b"-0", b"1.0", b"1e0", b"null", b"true",
          b"18446744073709551615", b"18446744073709551616", b"9223372036854775808", b"4294967296", b"\0",
          b"\xff", b"\xef\xbb\xbf", b"\\u0000", b"\\ud800", b"\\", b" ", b"\n", b'"__metadata__":{},',
          b'"__metadata__":null,', b'"dtype":"F32",', b'"a"', b"[0,0]", b"[]", b"{}", b"[" * 50 + b"]" * 50]


def mutations(seed, rng, count):
    (length,) = struct.unpack("<Q", seed[:8])
    for cut in range(len(seed)):
        yield seed[:cut]
    for place in range(8 + length):
        for value in rng.sample(range(256), 24):
            yield seed[:place] + bytes([value]) + seed[place + 1 :]
    for _ in range(count):
        header, data = bytearray(seed[8 : 8 + length]), seed[8 + length :]
        for _ in range(rng.randint(1, 3)):
            place = rng.randrange(len(header) + 1)
            taken = rng.choice([0, 0, 1, 1, 2, 5])
            header[place : place + taken] = rng.choice(PIECES)
        if rng.random() < 0.2:
            data = data[: rng.randrange(len(data) + 1)] + bytes(rng.randrange(3))
        yield file_of(bytes(header), data)


def theirs(file):
    try:
        tensors = deserialize(file)
    except SafetensorError:
        return None
    return sorted(
        "{}:{}:{}:{}".format(name.encode().hex(), t["dtype"], "".join(f"{n}," for n in t["shape"]), bytes(t["data"]).hex())
        for name, t in tensors
    )


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("verdicts", help="the built safetensors_verdicts")
    parser.add_argument("--count", type=int, default=20_000, help="random mutations of each seed")
    parser.add_argument("--seed", type=int, default=1)
    arguments = parser.parse_args()

    rng = random.Random(arguments.seed)
    files = [file for seed in seeds() for file in [seed, *mutations(seed, rng, arguments.count)]]
    stream = b"".join(struct.pack("<Q", len(file)) + file for file in files)
    output = subprocess.run([arguments.verdicts], input=stream, capture_output=True, check=True).stdout
    lines = output.decode().split("\n")[:-1]
    assert len(lines) == len(files), (len(lines), len(files))

    accepted = known = different = 0
    for file, line in zip(files, lines):
        word, *tensors = line.split(" ")
        ours = sorted(tensors) if word == "accepted" else None
        peer = theirs(file)
        accepted += ours is not None
        if ours == peer:
            continue
        if is_known(file, ours, peer, line):
            known += 1
            continue
        different += 1
        print(f"{file!r}\n  ours:   {line}\n  theirs: {peer}")
    print(f"{len(files)} files, {accepted} accepted, {known} known differences, {different} others")
    return 1 if different else 0


if __name__ == "__main__":
    sys.exit(main())
