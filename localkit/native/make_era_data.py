"""Writes the prices of one era as C++ constants, while the kit is built.

The prices come from the package bokeh_sampledata (see the kit's README); it is read as files and never imported, for
it would want libraries that nothing here needs.

Usage: make_era_data.py KEY OUTPUT; KEY is the era's platform key, 32 hexadecimal digits.
"""

import csv
import gzip
import importlib.util
import struct
import sys
from pathlib import Path

INSTRUMENTS = ("AAPL", "GOOG", "IBM", "MSFT")


def seal_of(key: bytes, data: bytes) -> bytes:
    """SipHash-2-4 with 128 bits, as its authors describe it; the backtester has the same in C++."""
    mask = (1 << 64) - 1

    def rotated(word: int, bits: int) -> int:
        return (word << bits | word >> 64 - bits) & mask

    def mix(rounds: int) -> None:
        for _ in range(rounds):
            v[0], v[2] = v[0] + v[1] & mask, v[2] + v[3] & mask
            v[1], v[3] = rotated(v[1], 13) ^ v[0], rotated(v[3], 16) ^ v[2]
            v[0], v[2] = rotated(v[0], 32) + v[3] & mask, v[2] + v[1] & mask
            v[1], v[3] = rotated(v[1], 17) ^ v[2], rotated(v[3], 21) ^ v[0]
            v[2] = rotated(v[2], 32)

    k0, k1 = struct.unpack("<2Q", key)
    v = [k0 ^ 0x736F6D6570736575, k1 ^ 0x646F72616E646F6D ^ 0xEE, k0 ^ 0x6C7967656E657261, k1 ^ 0x7465646279746573]
    padded = data + bytes(7 - len(data) % 8) + bytes([len(data) % 256])
    for (word,) in struct.iter_unpack("<Q", padded):
        v[3] ^= word
        mix(2)
        v[0] ^= word
    seal = b""
    for place, constant in ((2, 0xEE), (1, 0xDD)):
        v[place] ^= constant
        mix(4)
        seal += struct.pack("<Q", v[0] ^ v[1] ^ v[2] ^ v[3])
    return seal


def read_prices() -> dict[str, dict[str, float]]:
    """Adjusted closing prices by instrument and day."""
    package = importlib.util.find_spec("bokeh_sampledata")
    if package is None or not package.submodule_search_locations:
        sys.exit("The prices are not there: install the package bokeh_sampledata before the kit is built.")
    prices: dict[str, dict[str, float]] = {name: {} for name in INSTRUMENTS}
    path = Path(package.submodule_search_locations[0]) / "_data" / "stocks.csv.gz"
    with gzip.open(path, "rt", encoding="utf-8", newline="") as file:
        for row in csv.DictReader(file):
            if row["Ticker"] in prices:
                prices[row["Ticker"]][row["Date"].replace("-", "")] = float(row["Adj Close"])
    return prices


def main(key: str, output: str) -> None:
    prices = read_prices()
    days = sorted(set.intersection(*(set(series) for series in prices.values())))  # on which all of them were traded
    series = [[prices[name][day] for day in days] for name in INSTRUMENTS]
    seal = seal_of(bytes.fromhex(key), b"".join(struct.pack(f"<{len(days)}d", *values) for values in series))
    rows = ",\n".join("{" + ", ".join(map(repr, values)) + "}" for values in series)
    new = Path(output + ".new")
    new.write_text(
        f"constexpr const char* names[] = {{{', '.join(f'"{name}"' for name in INSTRUMENTS)}}};\n"
        f"constexpr std::int32_t dates[] = {{{', '.join(days)}}};\n"
        f"constexpr double prices[][{len(days)}] = {{\n{rows}}};\n"
        f"constexpr unsigned char seal[] = {{{', '.join(map(str, seal))}}};\n",
        encoding="ascii",
    )
    new.replace(output)


if __name__ == "__main__":
    main(*sys.argv[1:])
