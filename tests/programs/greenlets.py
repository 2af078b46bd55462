"""Six greenlets leave the except clauses of one function in an order of their own; each sees its own exception."""

import random
import types

from greenlet import getcurrent, greenlet

import corvane.agent_onboarding as m

main, wrong = getcurrent(), []


def fail(name):
    raise ValueError(name)


def forever(name):
    while True:
        try:
            m._propagate_auth(name, strict=True)
        except RuntimeError as exc:
            if (exc.__cause__.args, exc.__context__) != ((name,), exc.__cause__):
                wrong.append((name, exc.__cause__))
        main.switch()


m.logger = types.SimpleNamespace(warning=lambda *args: main.switch())
m.auth = types.SimpleNamespace(_set_active_auth_manager=fail)
running = [greenlet(lambda name=name: forever(name)) for name in range(6)]
random.seed(0)
for _ in range(5000):
    random.choice(running).switch()
print(wrong or "each its own")
