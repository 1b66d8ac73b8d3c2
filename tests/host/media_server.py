"""Starts the server of tests/support/ServeMedia.cpp for one test.

The environment names the program: ZEL_SERVE_MEDIA.
"""

import json
import os
import subprocess


class MediaServer:
    """Serves the clips, or another folder, until it is stopped."""

    def __init__(self, *options, folder=None):
        self.process = subprocess.Popen(
            [os.environ['ZEL_SERVE_MEDIA'], folder or os.environ['ZEL_TEST_MEDIA'], *options],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.told = json.loads(self.process.stdout.readline())

    def url(self, name):
        scheme = 'https' if 'authority' in self.told else 'http'
        return f'{scheme}://127.0.0.1:{self.told["port"]}/{name}'

    def mms_url(self, name):
        return f'http://127.0.0.1:{self.told["mms"][name]}/{name}'

    def authority(self):
        """The certificate of who has signed the server's."""
        return os.path.join(self.told['authority'], 'cacert.pem')

    def wait_for_stall(self):
        while 'stalled' not in json.loads(self.process.stdout.readline()):
            pass

    def stop(self):
        """Ends the server; answers the requests that it has told of and nobody has read."""
        lines = self.process.communicate()[0].splitlines()
        assert self.process.returncode == 0
        return [line for line in map(json.loads, lines) if 'method' in line]
