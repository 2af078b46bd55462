"""The local service as a process of its own, over real HTTPS, with its real database."""

import contextlib
import json
import os
import shlex
import socketserver
import ssl
import subprocess
import sys
import threading
import time
from unittest import mock

import httpx
import pytest

from corvane import auth
from corvane_local.demo import service as demo
from corvane_local.store import Store


class Service(demo.Service):
    """A running service, its process and a client of it."""

    def invite(self):
        return Store(self.state / "service.db").make_invite()  # sooner than by the command

    def sign_in(self, number, code=None):
        manager = auth.AuthManager(f"0x{number:064x}", self.url, code)
        manager.authenticate()
        return manager

    def sign_up(self, number):
        return self.sign_in(number, self.invite())

    def get(self, path, token, **headers):
        return self.client.get(path, headers={"Authorization": f"Bearer {token}", **headers})


@contextlib.contextmanager
def serving(state, *options):
    """A service that this process trusts, by the line for the shell; killed at the end, having logged nothing."""
    command = [sys.executable, "-P", "-m", "corvane_local", "serve", "--port", "0", "--state", state, *options]
    state.mkdir(mode=0o700, exist_ok=True)
    service, log = Service(state), state / "log"
    with log.open("w") as errors, subprocess.Popen(command, stdout=-1, stderr=errors, text=True) as service.process:
        try:
            service.url, export, service.told = (service.process.stdout.readline().strip() for _ in range(3))
            _, variable = shlex.split(export)
            with (
                mock.patch.dict(os.environ, [variable.split("=")]),
                httpx.Client(base_url=service.url, verify=ssl.create_default_context()) as service.client,
            ):
                yield service
        finally:
            service.process.kill()
    assert log.read_text() == ""


@pytest.fixture(scope="module")
def service(tmp_path_factory):
    with serving(tmp_path_factory.mktemp("service")) as running:
        yield running


@pytest.fixture
def start(tmp_path):
    """Starts one more service, again in the same directory."""
    return lambda *options: serving(tmp_path / "its state", *options)


def http(body=b"", status=200, **headers):
    content = body if isinstance(body, bytes) else json.dumps(body).encode()
    lines = [f"HTTP/1.1 {status} Said", f"Content-Length: {len(content)}", "Connection: close"]
    lines += [f"{name.replace('_', '-')}: {value}" for name, value in headers.items()]
    return "\r\n".join([*lines, "", ""]).encode() + content


def wait_until(it_is_so, seconds=30):
    """Waits no longer than it takes."""
    end = time.monotonic() + seconds
    while not it_is_so():
        assert time.monotonic() < end
        time.sleep(0.02)


def slowly(answer):
    """The answer, a byte in a tenth of a second."""
    return (time.sleep(0.1) or answer[i : i + 1] for i in range(len(answer)))


@pytest.fixture
def scripted():
    """A server that answers each request with the next bytes, or pieces of bytes, of its script."""

    class Handler(socketserver.StreamRequestHandler):
        def handle(self):
            request = b"".join(iter(self.rfile.readline, b"\r\n"))
            server.requests.append(request.decode())
            server.asked_at.append(time.monotonic())
            answer = next(server.script)
            try:
                for piece in [answer] if isinstance(answer, bytes) else answer:
                    self.wfile.write(piece)
            except OSError:
                pass  # the client has had enough

    class Server(socketserver.ThreadingTCPServer):
        daemon_threads = True
        block_on_close = False

    with Server(("127.0.0.1", 0), Handler) as server:
        server.requests, server.asked_at, server.url = [], [], f"http://127.0.0.1:{server.server_address[1]}"
        threading.Thread(target=server.serve_forever, args=(0.05,), daemon=True).start()
        yield server
        server.shutdown()
