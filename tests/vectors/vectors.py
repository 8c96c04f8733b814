"""The vectors of docs/vectors (README.md there says what they mean), for the tests of this folder."""
import json
import pathlib

SOURCE = pathlib.Path(__file__).resolve().parents[2]


def read(name):
    return json.loads((SOURCE / "docs/vectors" / name).read_text())


def exchanges():
    return read("exchanges.json")["exchanges"]


def packet(event):
    return bytes.fromhex(event["bytes"])


def show(data):
    return data.hex(" ").upper() if data is not None else "nothing"
