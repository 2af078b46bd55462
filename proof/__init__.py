"""Shows that nothing crashes, hangs, leaks, swallows an error or loses data, whatever fails around the module.

Each file of this package is one method of proof with a function `run(workshop)` that yields results; `python -m proof`
runs them and ends with one table. What fails is a finding; what cannot be run because a tool is missing is INCOMPLETE,
which is never a pass.
"""
