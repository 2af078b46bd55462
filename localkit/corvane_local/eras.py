"""What the local service answers to GET /eras: a fixed table, made up for this machine."""

from collections.abc import Sequence


def _era(number: int, state: str, universe: str, pools: Sequence[str]) -> dict[str, object]:
    return {
        "id": f"local-{number}",
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
