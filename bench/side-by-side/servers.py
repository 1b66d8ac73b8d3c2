"""Servers on loopback for the side-by-side runs."""
import json
import socket
import subprocess
import tempfile
import time
from pathlib import Path

CONFIGURATION = """
daemon off;
worker_processes 1;
error_log stderr;
pid {home}/nginx.pid;
events {{ worker_connections 64; }}
http {{
    access_log off;
    sendfile on;
    client_body_temp_path {home}/body;
    proxy_temp_path {home}/proxy;
    fastcgi_temp_path {home}/fastcgi;
    uwsgi_temp_path {home}/uwsgi;
    scgi_temp_path {home}/scgi;
    server {{ listen 127.0.0.1:{port}; root {root}; }}
}}
"""


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def wait_for(port):
    for _ in range(100):
        try:
            socket.create_connection(("127.0.0.1", port), 1).close()
            return
        except ConnectionRefusedError:
            time.sleep(0.05)
    raise SystemExit("nginx does not answer")


class Nginx:
    """Serves the files of a folder by HTTP while the block lasts."""

    def __init__(self, root):
        self.root = Path(root).resolve()

    def __enter__(self):
        self.home = tempfile.TemporaryDirectory()
        home = Path(self.home.name)
        home.chmod(0o755)
        self.port = free_port()
        (home / "nginx.conf").write_text(
            CONFIGURATION.format(home=home, port=self.port, root=self.root))
        self.process = subprocess.Popen(["/usr/sbin/nginx", "-c", home / "nginx.conf"])
        wait_for(self.port)
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()
        self.home.cleanup()

    def url(self, name):
        return f"http://127.0.0.1:{self.port}/{name}"


class Mms:
    """Serves one ASF file of a folder by MMS over HTTP while the block lasts."""

    def __init__(self, build, path):
        self.command = [build / "bin" / "ffmpegplugins_serve_media", path.parent, "--mms",
                        path.name]
        self.name = path.name

    def __enter__(self):
        self.process = subprocess.Popen(self.command, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.port = json.loads(self.process.stdout.readline())["mms"][self.name]
        return self

    def __exit__(self, *_):
        self.process.communicate()

    def url(self, scheme):
        return f"{scheme}://127.0.0.1:{self.port}/{self.name}"
