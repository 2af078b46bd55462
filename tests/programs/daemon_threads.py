"""The interpreter ends while threads are inside handlers and destructors."""

import sys
import threading
import time
import types

import corvane.agent_onboarding as m

m._find_heartbeat = lambda d: "/"
m.logger = types.SimpleNamespace(warning=lambda *args: time.sleep(0.2))


class Sleepy(Exception):
    def __del__(self, sleep=time.sleep):
        sleep(0.05)


class Slow:
    def __del__(self, sleep=time.sleep):
        sleep(0.4)


def forever(act):
    while True:
        act()


for work in (m.inject_heartbeat, lambda: m._exception_chain_detail(Sleepy())) * 3:
    threading.Thread(target=forever, args=(work,), daemon=True).start()
sys.modules["held"] = types.SimpleNamespace(slow=Slow())
