"""Expressions of the backtester's language: as text, made up at random, and evaluated many at a time."""

import random
import re
from collections import deque
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from concurrent.futures import Future, ThreadPoolExecutor
from dataclasses import dataclass, field
from functools import cached_property
from itertools import batched
from types import ModuleType
from typing import ClassVar

Screened = tuple[memoryview, memoryview] | None
"""The values of an expression and their correlations; None if it is not worth a closer look."""

_NAME = r"(?<![\w.])[A-Za-z_]\w*\b"  # the e of 1e5 is none
_FUNCTION = re.compile(_NAME + r"(?=\s*\()", re.ASCII)
_INPUT = re.compile(_NAME + r"(?!\s*\()", re.ASCII)
_WINDOW = re.compile(r",\s*([0-9]+)\s*\)")  # the last argument of a function, where it is one
_BATCH = 32  # expressions; what an interrupted search waits for


@dataclass(frozen=True)
class Expression:
    """The text of an expression. What it uses is read from the text; only the backtester knows the whole grammar."""

    text: str

    def __str__(self) -> str:
        return self.text

    @cached_property
    def functions(self) -> frozenset[str]:
        """The names of the functions that are called."""
        return frozenset(_FUNCTION.findall(self.text))

    @cached_property
    def inputs(self) -> frozenset[str]:
        """The names of the series that are used."""
        return frozenset(_INPUT.findall(self.text))

    @cached_property
    def windows(self) -> frozenset[int]:
        """The windows, in trading days."""
        return frozenset(int(digits) for digits in _WINDOW.findall(self.text))


@dataclass(frozen=True)
class FunctionRegistry:
    """What expressions may be made of.

    Args:
        functions: Names of functions.
        inputs: Names of series.
        windows: Windows, in trading days.
        arities: How many series and how many windows a function takes; known once there is a backtester.
    """

    functions: tuple[str, ...]
    inputs: tuple[str, ...]
    windows: tuple[int, ...]
    arities: Mapping[str, tuple[int, int]] = field(default_factory=dict)

    def __post_init__(self) -> None:
        if missing := set(self.functions) - self.arities.keys() if self.arities else set():
            raise ValueError(f"The backtester has no function {', '.join(sorted(missing))}.")


def compute_search_plan(registry: FunctionRegistry, seed: int, depth: int = 3) -> Iterator[Expression]:
    """Random expressions without end; the same ones for the same seed.

    Args:
        registry: What they are made of.
        seed: Where the random numbers begin.
        depth: How deep functions and operations are nested at most.
    """
    chance = random.Random(seed)

    def grow(depth: int) -> str:
        kind = chance.random()
        if depth == 0 or kind < 0.1:
            return chance.choice(registry.inputs)
        if kind < 0.3 or not registry.functions:
            return f"({grow(depth - 1)} {chance.choice('+-*/')} {grow(depth - 1)})"
        name = chance.choice(registry.functions)
        series, windows = registry.arities[name]
        arguments = [grow(depth - 1) for _ in range(series)]
        arguments += [str(chance.choice(registry.windows)) for _ in range(windows)]
        return f"{name}({', '.join(arguments)})"

    while True:
        yield Expression(grow(depth))


def evaluate_expression(
    expression: Expression | str, backtester: ModuleType, inputs: Mapping[str, memoryview]
) -> memoryview:
    """One value a day, NaN where a window is not full yet.

    Raises:
        ValueError: The expression is malformed; the message says in which column.
    """
    return memoryview(backtester.evaluate(str(expression), dict(inputs)))


class BatchOrchestrator:
    """Examines expressions on several threads; what comes out is in the order of what went in.

    Args:
        n_jobs: Threads. They compute at the same time, for the backtester needs Python's lock only between batches.
    """

    examine: ClassVar[Callable[[Sequence[Expression]], Sequence[Screened]]]
    """The evaluator's, in the class that its `make_batch_orchestrator_cls` makes."""

    def __init__(self, n_jobs: int = 1) -> None:
        self._n_jobs = n_jobs

    def run(self, plan: Iterable[Expression]) -> Iterator[tuple[Expression, Screened]]:
        """Each expression of the plan with what was found out about it."""
        waiting = deque[tuple[Sequence[Expression], Future[Sequence[Screened]]]]()
        with ThreadPoolExecutor(self._n_jobs, thread_name_prefix="corvane-batch") as pool:
            for batch in batched(plan, _BATCH):
                waiting.append((batch, pool.submit(type(self).examine, batch)))
                if len(waiting) > 2 * self._n_jobs:  # so that no thread waits for whoever uses the results
                    yield from _results(*waiting.popleft())
            while waiting:
                yield from _results(*waiting.popleft())


def _results(
    batch: Sequence[Expression], examined: "Future[Sequence[Screened]]"
) -> Iterator[tuple[Expression, Screened]]:
    return zip(batch, examined.result(), strict=True)
