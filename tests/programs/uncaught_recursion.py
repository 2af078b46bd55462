"""Recurses without end, and leaves the error to the interpreter."""

from corvane import agent_onboarding as m

m._find_heartbeat = m.inject_heartbeat
m.inject_heartbeat()
