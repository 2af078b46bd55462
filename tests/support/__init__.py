"""The module in plain Python, the scenarios that it is called in, and the comparison of the two."""
