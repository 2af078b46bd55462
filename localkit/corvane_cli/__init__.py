"""The command `corvane`: what an agent and its operator do with a wallet, from a shell.

The kit keeps the key, signs in, syncs and searches; this package calls it. What it adds is care: what is examined
before a key is replaced, and what is said about all that can go wrong.
"""
