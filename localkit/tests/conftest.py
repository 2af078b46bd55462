"""The local service as a process of its own, over real HTTPS, with its real database."""

import contextlib
import http.server
import os
import sqlite3
import ssl
import subprocess
import sys
import threading
import time
from unittest import mock

import httpx
import pytest

from corvane import auth
from corvane_local.store import Store

COMMAND = [sys.executable, "-P", "-m", "corvane_local"]


class Service(contextlib.ExitStack):
    """A running service whose certificate authority this process trusts; killed at the end, having logged nothing."""

    def __init__(self, state, *options):
        super().__init__()
        self.state, self.options = state, options

    def __enter__(self):
        command = [*COMMAND, "serve", "--port", "0", "--state", self.state, *self.options]
        with open(self.state / "log", "w") as log:
            self.process = subprocess.Popen(command, stdout=-1, stderr=log, text=True)
        self.callback(self.process.communicate)
        self.callback(self.process.kill)
        self.url = self.process.stdout.readline().strip()
        self.enter_context(mock.patch.dict(os.environ, SSL_CERT_FILE=str(self.state / "ca.pem")))
        self.client = self.enter_context(httpx.Client(base_url=self.url, verify=ssl.create_default_context()))
        return self

    def __exit__(self, *details):
        super().__exit__(*details)
        assert (self.state / "log").read_text() == ""

    def command(self, name, *options):
        command = [*COMMAND, name, "--state", self.state, *options]
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout.split()

    def rows(self, query):
        with contextlib.closing(sqlite3.connect(self.state / "service.db")) as db:
            return db.execute(query).fetchall()

    def sign_in(self, number, code=None):
        manager = auth.AuthManager(f"0x{number:064x}", self.url, code)
        manager.authenticate()
        return manager

    def sign_up(self, number):
        return self.sign_in(number, Store(self.state / "service.db").make_invite())

    def get(self, path, token, **headers):
        return self.client.get(path, headers={"Authorization": f"Bearer {token}", **headers})


@pytest.fixture(scope="module")
def service(tmp_path_factory):
    with Service(tmp_path_factory.mktemp("service")) as running:
        yield running


@pytest.fixture
def start(tmp_path):
    """Starts one more service, again in the same directory."""
    return lambda *options: Service(tmp_path, *options)


@pytest.fixture
def planned():
    """A plain HTTP server that gives the answers of its plan in turn: status, headers, body."""

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            server.asked_at.append(time.monotonic())
            self.rfile.read(int(self.headers.get("Content-Length", 0)))
            status, headers, body = server.plan.pop(0)
            self.send_response(status)
            for header in headers.items():
                self.send_header(*header)
            self.end_headers()
            self.wfile.write(body)

        do_POST = do_GET

        def log_message(self, *args):
            pass

    with http.server.HTTPServer(("127.0.0.1", 0), Handler) as server:
        server.asked_at, server.url = [], f"http://127.0.0.1:{server.server_port}"
        threading.Thread(target=server.serve_forever, args=(0.05,), daemon=True).start()
        yield server
        server.shutdown()
