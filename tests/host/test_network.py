"""zel-host with the real library and URLs, against the same media from disk."""

import os
import shutil
import signal
import socket
import subprocess

from host_process import HostTest, clip
from media_server import MediaServer

FILM = 'h264_aac.mp4'  # its index stands at the end, so that opening seeks there and back


class NetworkTest(HostTest):
    library = None  # the one beside the host

    def serve(self, *options, folder=None):
        server = MediaServer(*options, folder=folder)
        # A test that has stopped it finds nothing to do here.
        self.addCleanup(lambda: server.process.stdout.closed or server.stop())
        return server

    def make_clip(self, name, source, *options):
        """In the test's own folder, with the index in front."""
        subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', '-f', 'lavfi', '-i', source, *options,
                        '-movflags', '+faststart', self.path(name)], check=True)

    def assert_same_frames(self, url, path, *arguments):
        expected = self.frame_lines(path, *arguments)
        self.assertGreater(len(expected), 10)
        self.assert_same_rows(self.frame_lines(url, *arguments), expected)

    def assert_same_contents(self, url, path, *arguments):
        """For formats whose time stamps the library counts by itself when they are streamed."""
        for kind in ('video', 'audio'):
            found, expected = (
                [(size, digest) for row, _, size, digest in self.frame_lines(medium, *arguments)
                 if row == kind] for medium in (url, path))
            self.assert_same_rows(found, expected)

    def assert_same_rows(self, found, expected):
        differing = [n for n, pair in enumerate(zip(found, expected)) if pair[0] != pair[1]]
        self.assertEqual((len(found), differing[:10]), (len(expected), []))


class Probe(NetworkTest):
    def test_medium_from_a_server_is_described_as_the_file(self):
        server = self.serve()
        for name in (FILM, 'h264_faststart.mp4', 'h264_aac.flv', 'aac.m4a', 'mp3_cbr.mp3',
                     'h264_aac.mkv', 'h264_aac.ts'):
            with self.subTest(name):
                found = self.run_json('probe', server.url(name))
                expected = self.run_json('probe', clip(name))
                self.assertEqual(found['medium'].pop('url'), server.url(name))
                del expected['medium']['url']
                # Told for some formats only, see the library's own words on it.
                del found['medium']['seekable'], expected['medium']['seekable']
                self.assertEqual(found, expected)

    def test_extension_stands_before_query_and_fragment(self):
        server = self.serve()
        found = self.run_json('probe', server.url(FILM + '?name=a.avi#b.ts'))
        self.assertEqual(found['input']['format'], 'mov')
        # The library's own client asks for the whole at first, FFmpeg's for a range.
        self.assertEqual(server.stop()[0],
                         {'method': 'GET', 'target': f'/{FILM}?name=a.avi', 'range': ''})

    def test_people_are_not_told_that_a_medium_cannot_be_sought_before_it_was_tried(self):
        server = self.serve()
        self.assertRegex(self.run_host('probe', server.url(FILM)).stdout,
                         r'seekable +unknown until a seek\n')


class Play(NetworkTest):
    def test_frames_over_http_are_those_from_disk(self):
        server = self.serve()
        for name in (FILM, 'h264_faststart.mp4', 'h264_fragmented.mp4', 'h264_aac.flv', 'aac.m4a',
                     'h264_aac.mkv', 'h264_aac.ts', 'wmv2_wma2.asf'):
            with self.subTest(name):
                self.assert_same_frames(server.url(name), clip(name))
        self.assert_same_contents(server.url('mp3_cbr.mp3'), clip('mp3_cbr.mp3'))

    def test_frames_without_ranges_are_those_from_disk(self):
        server = self.serve('--no-ranges')
        for name in ('h264_faststart.mp4', 'h264_aac.flv'):
            with self.subTest(name):
                self.assert_same_frames(server.url(name), clip(name))
        self.assert_same_contents(server.url('mp3_cbr.mp3'), clip('mp3_cbr.mp3'))

    def test_frames_over_mms_are_those_from_disk(self):
        names = ('wmv2_wma2.asf', 'wmv1_wma1.wmv', 'wma2.wma')
        server = self.serve(*(word for name in names for word in ('--mms', name)))
        for name in names:
            with self.subTest(name):
                self.assert_same_contents(server.mms_url(name), clip(name))

    def test_medium_is_opened_anew_for_another_pass(self):
        server = self.serve()
        result = self.run_json('play', server.url(FILM), '--again')
        first, second = result['passes']
        self.assertEqual(first['video'], second['video'])
        self.assertEqual(first['audio'], second['audio'])
        self.assertEqual(first['video']['frames'], 298)


class Seeks(NetworkTest):
    def test_frames_behind_seeks_are_those_from_disk(self):
        server = self.serve()
        for name in (FILM, 'h264_faststart.mp4', 'h264_aac.flv', 'h264_aac.mkv'):
            with self.subTest(name):
                self.assert_same_frames(server.url(name), clip(name), '--seek', '8s', '--seek',
                                        '2s@9s')

    def test_long_way_is_a_request_of_its_own(self):
        # 35 MB, several times what the library keeps in memory.
        self.make_clip('large.mov', 'anoisesrc=d=90:r=96000:seed=1', '-ac', '2', '-c:a',
                       'pcm_s16le')
        server = self.serve(folder=self.folder)
        arguments = ['--seek', '80s', '--seek', '5s@81s']
        self.assert_same_frames(server.url('large.mov'), self.path('large.mov'), *arguments)
        self.assertEqual([request['range'] != '' for request in server.stop()],
                         [False, True, True])

    def test_seek_over_mms_counts_on_from_its_target(self):
        server = self.serve('--mms', 'wmv2_wma2.asf')
        result = self.play_json(server.mms_url('wmv2_wma2.asf'), '--seek', '4s')
        seek, = result['seeks']
        self.assertEqual((seek['targetMs'], seek['result']), (4000, 0))
        self.assertEqual((seek['firstVideoUs'], seek['firstAudioUs']), (4000000, 4000000))

    def test_server_without_ranges_is_asked_and_says_that_it_is_not_possible(self):
        server = self.serve('--no-ranges')
        url = server.url('h264_faststart.mp4')
        done = self.run_host('play', url, '--seek', '8s', status=1)
        self.assert_one_line(done.stderr, url, 'Seek to 0:08.000 is not possible')
        self.assertRegex(done.stdout, r'video +298 ')
        self.assertRegex(done.stdout, r'seek to +0:08\.000 failed \(2\)')
        for command in ('transcode', 'segment'):
            with self.subTest(command):
                done = self.run_host(command, url, self.path('out-' + command + '.flv'), '--start',
                                     '8s', status=1)
                self.assert_one_line(done.stderr, url, 'Seek to 0:08.000 is not possible')


class Failures(NetworkTest):
    def check(self, url, *reasons):
        for command in ('probe', 'play', 'transcode', 'segment'):
            with self.subTest(url=url, command=command):
                more = [self.path('out.flv')] if command in ('transcode', 'segment') else []
                done = self.run_host(command, url, *more, '--json', status=1)
                self.assert_one_line(done.stderr, url, *reasons)
                self.assertEqual(done.stdout, '')
                self.assertFalse(os.path.isfile(self.path('out.flv')))

    def test_missing_medium_gives_one_line_with_the_status(self):
        server = self.serve()
        self.check(server.url('missing.mp4'), 'could not be reached', 'Server error 404')
        self.check(server.url('missing.asf'), 'Server error 404')
        self.check(server.url('missing.ts'), 'could not be rendered')

    def test_refused_connection_gives_one_line(self):
        with socket.socket() as bound:
            bound.bind(('127.0.0.1', 0))  # nobody listens there
            url = f'http://127.0.0.1:{bound.getsockname()[1]}/'
            self.check(url + 'a.mp4', 'could not be reached', 'No answer')
            self.check(url + 'a.asf', 'No answer')
            self.check(url + 'a.ts', 'could not be rendered')

    def test_what_is_no_medium_gives_one_line(self):
        server = self.serve()
        self.check(server.url('noise.mp4'), 'could not be rendered')
        self.check(server.url('half_h264_aac.mp4'), 'could not be rendered')


class Silence(NetworkTest):
    """A server that says no more would hold the host for ever, or for the time of an open."""

    def setUp(self):
        super().setUp()
        self.log_everything()

    def check(self, query, sign, *command):
        """Sends the signal once the server is silent and the library has logged the sign."""
        server = self.serve()
        host = self.start_host(command[0], server.url('h264_faststart.mp4' + query), *command[1:],
                               '--log', '-', stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                               text=True)
        server.wait_for_stall()
        lines = []
        while not lines or sign not in lines[-1]:
            lines.append(host.stderr.readline())
            self.assertNotEqual(lines[-1], '', lines[-5:])
        host.send_signal(signal.SIGINT)
        out, rest = host.communicate()
        self.assertEqual(host.returncode, 128 + signal.SIGINT, rest)
        self.assertNotIn('timed out', rest)
        return out, [line for line in rest.splitlines() if line.startswith('zel-host')]

    def test_signal_ends_an_open_that_gets_no_answer(self):
        for command in (['probe'], ['play'], ['transcode', self.path('a.flv')],
                        ['segment', self.path('out')]):
            with self.subTest(command[0]):
                _, (message,) = self.check('?mute', 'Request::setAdditionalHeader', *command)
                self.assertIn('Interrupted', message)

    def test_signal_ends_an_open_that_gets_a_part(self):
        for command in ('probe', 'play'):
            with self.subTest(command):
                _, (message,) = self.check('?stall=100', 'initWithTransportStream', command)
                self.assertIn('Interrupted', message)

    def test_signal_ends_a_play_in_order(self):
        out, messages = self.check('?stall=300000', 'FFMpegInput : read timestamp', 'play')
        self.assertEqual(messages, [])
        self.assertRegex(out, r'\(interrupted\)\n')

    def test_signal_ends_a_stage_in_order(self):
        for command, output in (('transcode', 'a.flv'), ('segment', 'out')):
            with self.subTest(command):
                out, messages = self.check('?stall=300000', 'checkForKeyFrame', command,
                                           self.path(output))
                self.assertEqual(messages, [])
                self.assertRegex(out, r'\(interrupted\)\n')


class Stages(NetworkTest):
    def test_transcode_writes_the_same_bytes_as_from_the_file(self):
        server = self.serve()
        for options in ([], ['--video', 'flv', '--audio', 'mp3'],
                        ['--start', '3s', '--seek', '8s@5s']):
            with self.subTest(options):
                outputs = []
                for medium in (server.url(FILM), clip(FILM)):
                    path = self.path('out.flv')
                    self.run_host('transcode', medium, path, *options)
                    with open(path, 'rb') as file:
                        outputs.append(file.read())
                self.assertGreater(len(outputs[0]), 1000)
                self.assertTrue(outputs[0] == outputs[1])

    def test_transcode_over_mms_writes_all_of_the_file(self):
        server = self.serve('--mms', 'wmv2_wma2.asf')
        summaries = [self.run_json('transcode', medium, self.path('out.flv'))
                     for medium in (server.mms_url('wmv2_wma2.asf'), clip('wmv2_wma2.asf'))]
        for kind in ('video', 'audio'):
            frames = [summary[kind]['frames'] for summary in summaries]
            self.assertEqual(frames[0], frames[1])
            self.assertGreater(frames[0], 100)

    def test_segment_writes_the_same_files_as_from_the_file(self):
        server = self.serve()
        outputs = []
        for medium in (server.url(FILM), clip(FILM)):
            self.run_host('segment', medium, self.path('out'), '--clip-duration', '4s')
            files = {}
            for name in sorted(os.listdir(self.path('out'))):
                with open(os.path.join(self.path('out'), name), 'rb') as file:
                    files[name] = file.read()
            shutil.rmtree(self.path('out'))
            outputs.append(files)
        self.assertEqual(list(outputs[0]), ['stream-00001.ts', 'stream-00002.ts', 'stream-00003.ts',
                                            'stream.m3u8'])
        self.assertTrue(outputs[0] == outputs[1])


class Tells(NetworkTest):
    def test_end_of_the_transfer_and_the_fill_level_of_the_buffer(self):
        # More than the library keeps in memory, and slower to decode than to send: when all has
        # arrived, much is still to be played.
        self.make_clip('large.mov', 'testsrc2=s=1280x720:r=25:d=3,noise=alls=60', '-c:v', 'mjpeg',
                       '-q:v', '2')
        self.assertGreater(os.path.getsize(self.path('large.mov')), 15000000)
        medium = self.serve(folder=self.folder).url('large.mov')
        result = self.play_json(medium, '--threads', '1')
        self.assertEqual(result['inputEvents'], ['endOfFileReceived'])
        self.assertFalse(result['brokenStream'])
        buffer = result['inputBuffer']
        self.assertLessEqual(0, buffer['lowestPercent'])
        self.assertLessEqual(buffer['lowestPercent'], buffer['highestPercent'])
        self.assertGreater(buffer['highestPercent'], 0)
        self.assertLessEqual(buffer['highestPercent'], 100)
        text = self.run_host('play', medium, '--threads', '1').stdout
        self.assertRegex(text, r'network +all of the stream has arrived\n')
        self.assertRegex(text, r'network buffer +\d+ to \d+ % full\n')

    def test_file_has_neither(self):
        result = self.play_json(clip(FILM))
        self.assertEqual((result['inputEvents'], result['inputBuffer']), ([], None))


class Tls(NetworkTest):
    def setUp(self):
        super().setUp()
        self.server = self.serve('--tls')

    def test_server_of_a_known_authority_is_played(self):
        shutil.copy(self.server.authority(), self.path('cacert.pem'))
        for arguments in ([], ['--seek', '8s']):
            with self.subTest(arguments):
                self.assert_same_frames(self.server.url(FILM), clip(FILM), *arguments)

    def test_server_of_an_unknown_authority_is_refused(self):
        for command in ('probe', 'play'):
            with self.subTest(command):
                done = self.run_host(command, self.server.url(FILM), status=1)
                self.assert_one_line(done.stderr, self.server.url(FILM), 'could not be reached',
                                     'certificate', 'cacert.pem')
                self.assertEqual(done.stdout, '')
