"""What the local service returns for GET /eras: a fixed, invented table."""

from collections.abc import Sequence
from typing import TypedDict


class SignalPool(TypedDict):
    """Where found signals of an era are collected."""

    id: str
    name: str
    allowed_named_universes: list[str]


class Era(TypedDict):
    """A period with its own data, rules and native modules."""

    id: str
    era_id: int
    state: str
    named_universe: str
    signal_pools: list[SignalPool]


def _era(number: int, state: str, universe: str, pools: Sequence[str]) -> Era:
    return {
        "id": f"local-{number}",
        "era_id": number,
        "state": state,
        "named_universe": universe,
        "signal_pools": [
            {"id": f"local-{number}-{pool}", "name": pool.capitalize(), "allowed_named_universes": [universe]}
            for pool in pools
        ],
    }


ERAS = [
    _era(1, "closed", "eu_mid", ["momentum"]),
    _era(2, "closed", "us_small", ["momentum", "reversal"]),
    _era(3, "active", "us_large", ["momentum", "reversal"]),
]
"""Oldest first; exactly one is active, and names one universe in all places."""

ACTIVE_ERA = ERAS[-1]
