"""Shows that nothing crashes, hangs, leaks, swallows an error or loses data, whatever fails around the module."""
