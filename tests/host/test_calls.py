"""What zel-host asks of the library, seen from inside a fake one."""

import subprocess
import unittest

from host_process import FAKE_LIBRARY, HOST, HostTest, fake

THREE_FRAMES = ('duration 100', 'video 0 40000 key', 'audio 0 20000 8', 'video 40000 40000')


class Calls(HostTest):
    def test_probe_opens_and_closes_and_reads_nothing(self):
        self.assertEqual(self.calls('probe', fake(*THREE_FRAMES)),
                         ['InputPluginFactory', 'open', 'setInputEventCallback', 'stop', 'close',
                          'stop', 'delete'])

    def test_play_keeps_the_order_and_gives_every_frame_back(self):
        self.assertEqual(self.calls('play', fake(*THREE_FRAMES)),
                         ['InputPluginFactory', 'open', 'setInputEventCallback', 'start', 'stop',
                          'stop', 'close', 'stop', 'delete'])

    def test_copies_are_asked_for_before_the_medium_is_opened(self):
        calls = self.calls('play', fake(*THREE_FRAMES), '--copy-audio', '--copy-video')
        self.assertEqual(calls[:4], ['InputPluginFactory', 'skipAudioDecoding',
                                     'skipVideoDecoding', 'open'])

    def test_key_frame_mode_is_set_behind_open_and_again_behind_the_second(self):
        calls = self.calls('play', fake(*THREE_FRAMES), '--keyframes', '--again')
        self.assertEqual(calls.count('setVideoDecodingMode 1'), 2)
        self.assertLess(calls.index('open'), calls.index('setVideoDecodingMode 1'))
        self.assertLess(calls.index('updateMedium'),
                        len(calls) - 1 - calls[::-1].index('setVideoDecodingMode 1'))

    def test_video_that_nobody_wants_is_decoded_up_to_the_first_picture(self):
        _, _, lines = self.interrupt(
            'play', fake('audio 0 20000 8', 'video 0 40000 key', 'wait'), '--no-video')
        self.assertIn('setVideoDecodingMode 2', lines)
        self.assertLess(lines.index('start'), lines.index('setVideoDecodingMode 2'))
        self.assertNotIn('skipVideoDecoding', lines)

    def test_threads_reach_the_library_as_a_property_of_the_medium(self):
        self.assertIn('threads 3', self.calls('play', fake(*THREE_FRAMES), '--threads', '3'))

    def test_without_a_number_of_threads_the_library_decides(self):
        self.assertFalse([call for call in self.calls('play', fake(*THREE_FRAMES))
                          if call.startswith('threads')])

    def test_again_opens_anew_and_plays_a_second_pass(self):
        calls = self.calls('play', fake(*THREE_FRAMES), '--again')
        self.assertEqual(calls.count('open'), 2)
        self.assertEqual(calls.count('updateMedium'), 1)
        self.assertEqual(calls.count('start'), 2)
        passes = self.run_json('play', fake(*THREE_FRAMES), '--again')['passes']
        self.assertEqual([p['video']['frames'] for p in passes], [2, 2])

    def test_a_failed_open_is_followed_by_close(self):
        calls = self.calls('play', fake('openfails 2 No'), status=1)
        self.assertEqual(calls, ['InputPluginFactory', 'open', 'close', 'stop', 'stop', 'close',
                                 'stop', 'delete'])


class LogLines(HostTest):
    def test_go_nowhere_unless_asked_for(self):
        done = self.run_host('play', fake(*THREE_FRAMES), '--json')
        self.assertNotIn('InputPluginFactory', done.stdout)
        self.assertEqual(done.stderr, '')

    def test_go_to_standard_error_with_a_dash(self):
        done = self.run_host('play', fake(*THREE_FRAMES), '--log', '-')
        self.assertNotIn('setInputEventCallback', done.stdout)
        self.assertIn('setInputEventCallback', done.stderr)

    def test_go_to_a_file_that_is_begun_anew(self):
        with open(self.path('calls.log'), 'w', encoding='utf-8') as file:
            file.write('older\n')
        self.assertEqual(self.calls('probe', fake(*THREE_FRAMES))[0], 'InputPluginFactory')

    def test_a_log_that_cannot_be_written_ends_the_host(self):
        done = self.run_host('probe', fake(), '--log', self.path('no/such/folder'), status=1)
        self.assert_one_line(done.stderr, self.path('no/such/folder'), 'No such file or directory')


class LibraryFile(HostTest):
    library = None

    def test_named_by_option(self):
        self.run_host('play', fake(*THREE_FRAMES), '--library', FAKE_LIBRARY)

    def test_option_goes_before_the_environment(self):
        self.environment['ZEL_PLUGIN_LIBRARY'] = self.path('none.so')
        self.run_host('play', fake(*THREE_FRAMES), '--library', FAKE_LIBRARY)
        done = self.run_host('play', fake(*THREE_FRAMES), status=1)
        self.assert_one_line(done.stderr, 'none.so')

    def test_beside_the_executable_it_is_the_real_one(self):
        done = self.run_host('play', self.path('missing.mp4'), status=1)
        self.assert_one_line(done.stderr, 'missing.mp4', 'No such file or directory')

    def test_without_factories_is_refused(self):
        needed = subprocess.run(['ldd', HOST], capture_output=True, text=True, check=True).stdout
        libc = needed.split('libc.so.6 => ')[1].split()[0]
        done = self.run_host('play', fake(*THREE_FRAMES), '--library', libc, status=1)
        self.assert_one_line(done.stderr, libc, 'a factory is missing')


if __name__ == '__main__':
    unittest.main()
