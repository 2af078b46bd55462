"""An agent's first day, step by step, against a real service on this machine.

Each step calls the kit as an agent would, shows what came back, and then checks the effect from outside: the file's
mode, the row in the service's database, the difference in the workspace file, the digest of a module. The first check
that does not hold ends the demo with exit status 1. Everything happens in one directory, temporary unless it is given.
"""
