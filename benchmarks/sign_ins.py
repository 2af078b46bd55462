"""How many sign-ins a second the local service grants, and how long they take: `python -m benchmarks.sign_ins`.

Each is one by the kit's own client, from its key to its token: a connection, a TLS handshake, a challenge, a signature
and its verification, two transactions on disk. Clients and service share the machine.
"""

import os
import secrets
import sqlite3
import statistics
import tempfile
import time
from concurrent.futures import ProcessPoolExecutor
from contextlib import closing
from pathlib import Path

import click

from corvane.auth import AuthManager
from corvane_local.demo.service import Service


def sign_in_again_and_again(key: int, url: str, seconds: float) -> list[float]:
    """The times that the sign-ins of one client take, one after the other."""
    times, end = [], time.monotonic() + seconds
    manager = AuthManager(f"0x{key:064x}", url)
    while time.monotonic() < end:
        began = time.perf_counter()
        manager.authenticate()
        times.append(time.perf_counter() - began)
    return times


@click.command()
@click.option("--seconds", default=10.0, show_default=True, help="How long to measure.")
@click.option("--clients", default=2, show_default=True, help="Processes that sign in at once.")
@click.option("--old-tokens", default=500_000, show_default=True, help="Tokens that are in the database already.")
def main(seconds: float, clients: int, old_tokens: int) -> None:
    """Measure sign-ins at a service of its own."""
    with tempfile.TemporaryDirectory(prefix="corvane-bench-") as temporary:
        service = Service(Path(temporary) / "state")
        service.start()
        try:
            os.environ["SSL_CERT_FILE"] = str(service.state / "ca.pem")
            for key in range(1, clients + 1):
                AuthManager(f"0x{key:064x}", service.url, service.invite()).authenticate()
            with closing(sqlite3.connect(service.state / "service.db")) as db:
                rows = ((secrets.token_hex(32), "0x0", time.time() + 3600) for _ in range(old_tokens))
                db.executemany("INSERT INTO tokens VALUES (?, ?, ?)", rows)
                db.commit()
            with ProcessPoolExecutor(clients) as pool:
                runs = [
                    pool.submit(sign_in_again_and_again, key, service.url, seconds) for key in range(1, clients + 1)
                ]
                times = sorted(one for run in runs for one in run.result())
        finally:
            service.stop()
    at = {name: times[int(len(times) * part)] * 1000 for name, part in (("p50", 0.5), ("p99", 0.99))}
    click.echo(f"{len(times) / seconds:.0f} sign-ins a second of {clients} clients, with {old_tokens:,} tokens before")
    click.echo(f"p50 {at['p50']:.1f} ms, p99 {at['p99']:.1f} ms, mean {statistics.mean(times) * 1000:.1f} ms")


if __name__ == "__main__":
    main()
