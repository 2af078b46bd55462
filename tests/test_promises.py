"""What each function promises, told from beginning to end; the table is support/promises.py."""

import pytest

from support.comparison import story
from support.promises import CALLS


@pytest.mark.parametrize("promise", CALLS)
def test_promise(promise):
    assert story(CALLS[promise]) == CALLS[promise].story
