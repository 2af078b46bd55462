"""Writes the prices of one era as C++ constants, while the kit is built.

The prices come from the package bokeh_sampledata (see the kit's README); it is read as files and never imported, for
it would need libraries that nothing else here needs.

Usage: make_era_data.py KEY OUTPUT; KEY is the era's platform key, 32 hexadecimal digits.
"""

import csv
import gzip
import hmac
import importlib.util
import sys
from array import array
from pathlib import Path

INSTRUMENTS = ("AAPL", "GOOG", "IBM", "MSFT")


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
    seal = hmac.digest(bytes.fromhex(key), b"".join(array("d", values) for values in series), "sha256")
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
