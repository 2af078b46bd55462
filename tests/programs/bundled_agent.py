"""A small agent for a bundle: signs up with a local service and builds the search runtime.

Usage: bundled_agent SERVER_URL DATA_DIRECTORY INVITE_CODE
"""

import sys

from corvane.agent_onboarding import configure, register

configure(server_url=sys.argv[1], data_dir=sys.argv[2])
print(register(sys.argv[3], bootstrap_runtime=True))
