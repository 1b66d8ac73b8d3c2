"""Runs zel-host for the tests of this folder.

The environment names the programs: ZEL_HOST, ZEL_FAKE_LIBRARY, ZEL_TEST_MEDIA.
"""

import fcntl
import hashlib
import json
import os
import plistlib
import pty
import shutil
import signal
import struct
import subprocess
import tempfile
import termios
import unittest

HOST = os.environ['ZEL_HOST']
FAKE_LIBRARY = os.environ['ZEL_FAKE_LIBRARY']
NO_TIMESTAMP = '-'


def clip(name):
    return os.path.join(os.environ['ZEL_TEST_MEDIA'], name)


def fake(*steps):
    """A medium that the fake library plays; FakeLibrary.cpp has the words."""
    return 'fake://' + ';'.join(steps)


def fake_bytes(frame, size):
    """The bytes of the nth frame of the fake library, counted from 0."""
    return bytes((frame + i) & 0xFF for i in range(size))


def md5(data):
    return hashlib.md5(data).hexdigest()


def ffmpeg(*arguments):
    """What ffmpeg writes to standard output."""
    return subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', *arguments, '-'], check=True,
                          stdout=subprocess.PIPE).stdout


class HostTest(unittest.TestCase):
    """Each test has a folder of its own and, unless told otherwise, the fake library."""

    library = FAKE_LIBRARY
    maxDiff = None

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix='zel-host-test-')
        self.addCleanup(shutil.rmtree, self.folder)
        self.environment = dict(os.environ, LC_ALL='C.UTF-8', TERM='xterm',
                                TAMRIX_LOG_DIR=self.path('logs'),
                                TAMRIX_PREFERENCES_DIR=self.path('preferences'))
        self.environment.pop('ZEL_PLUGIN_LIBRARY', None)
        if self.library:
            self.environment['ZEL_PLUGIN_LIBRARY'] = self.library

    def path(self, name):
        return os.path.join(self.folder, name)

    def log_everything(self):
        """Sets the real library's log to its finest level."""
        os.mkdir(self.path('preferences'))
        with open(self.path('preferences/com.tamrix.zel.plist'), 'wb') as file:
            plistlib.dump({'LogLevel': 4}, file)

    def run_host(self, *arguments, status=0):
        done = subprocess.run([HOST, *arguments], env=self.environment, cwd=self.folder, text=True,
                              stdin=subprocess.DEVNULL, capture_output=True, check=False)
        self.assertEqual(done.returncode, status, done.stderr)
        return done

    def start_host(self, *arguments, **streams):
        return subprocess.Popen([HOST, *arguments], env=self.environment, cwd=self.folder,
                                stdin=subprocess.DEVNULL, **streams)

    def run_json(self, *arguments, status=0):
        done = self.run_host(*arguments, '--json', status=status)
        return json.loads(done.stdout)

    def play_json(self, *arguments, status=0):
        """The first pass of a play."""
        return self.run_json('play', *arguments, status=status)['passes'][0]

    def frame_lines(self, *arguments):
        """--framemd5 as rows of kind, time stamp, size and MD5."""
        lines = self.run_host('play', '--framemd5', *arguments).stdout.splitlines()
        rows = [line.split(', ') for line in lines]
        return [(kind, at if at == NO_TIMESTAMP else int(at), int(size), digest)
                for kind, at, size, digest in rows]

    def calls(self, *arguments, status=0):
        """The calls that the fake library saw, and the faults that it found."""
        log = self.path('calls.log')
        self.run_host(*arguments, '--log', log, status=status)
        with open(log, encoding='utf-8') as file:
            return file.read().splitlines()

    def interrupt(self, *arguments, at='waiting', number=signal.SIGINT):
        """Sends a signal when the fake library writes a line.

        Answers (status, standard output, lines of the library and of the host).
        """
        process = self.start_host(*arguments, '--log', '-', stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, text=True)
        lines = []
        for line in process.stderr:
            lines.append(line.rstrip('\n'))
            if lines[-1] == at:
                process.send_signal(number)
        output = process.stdout.read()
        process.stdout.close()
        process.stderr.close()
        return process.wait(), output, lines

    def assert_one_line(self, text, *parts):
        self.assertRegex(text, r'\A[^\n]+\n\Z')
        for part in parts:
            self.assertIn(part, text)

    def run_on_terminal(self, *arguments, all_output=False):
        """Runs with standard error, or all output, on a terminal of 100 columns.

        Answers (status, standard output, what the terminal got).
        """
        master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack('HHHH', 30, 100, 0, 0))
        with open(self.path('stdout'), 'w+b') as out:
            process = self.start_host(*arguments, stdout=slave if all_output else out,
                                      stderr=slave)
            os.close(slave)
            shown = b''
            while True:
                try:
                    block = os.read(master, 65536)
                except OSError:  # the other side is closed
                    break
                if not block:
                    break
                shown += block
            os.close(master)
            status = process.wait()
            out.seek(0)
            return status, out.read().decode(), shown.decode()
