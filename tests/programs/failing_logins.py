"""Logs in with a key of standard input in each directory given; shows each traceback and all that is logged."""

import logging
import sys
import traceback

import corvane.agent_onboarding as m

logging.basicConfig(level=0)
m.configure(server_url="http://127.0.0.1:9")
for directory in sys.argv[1:]:
    m.configure(data_dir=directory)
    try:
        m.login(sys.stdin.readline().strip())
    except Exception:
        traceback.print_exc()
