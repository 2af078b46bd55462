"""What each function promises, told from beginning to end; the table is support/scenarios.py."""

import pytest

from support.comparison import story
from support.scenarios import CALLS


@pytest.mark.parametrize("promise", CALLS)
def test_promise(promise):
    assert story(CALLS[promise]) == CALLS[promise].story
