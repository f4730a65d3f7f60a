#!/usr/bin/python3
"""Writes the first inputs of a fuzz target: fuzz/seeds.py FOLDER COUNT BYTES

Where an input is a list of decisions, any bytes make one. Corpora are made small, so their
inputs are short; these are long, each a session of a hundred steps and more. The same
arguments always give the same files.
"""

import pathlib
import random
import sys

folder, count, size = pathlib.Path(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3])
folder.mkdir(parents=True, exist_ok=True)
for number in range(count):
    generator = random.Random(number)
    # Small numbers are what most decisions take; a third are any.
    (folder / f"seed{number}").write_bytes(bytes(
        generator.randrange(256) if generator.randrange(3) == 0 else generator.randrange(20)
        for _ in range(size // 4 + generator.randrange(size * 3 // 4))))
