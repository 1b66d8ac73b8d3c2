"""What zel-host play makes of the frames that it reads, which a fake library gives it."""

import os
import signal
import subprocess
import unittest
import wave

from host_process import HOST, HostTest, fake, fake_bytes, ffmpeg, md5

PICTURE = 16  # bytes of the fake library's picture of 4 by 2


def steps_of_a_second():
    """25 pictures and 50 blocks of audio."""
    steps = ['duration 1000']
    for n in range(25):
        steps.append(f'video {n * 40000} 40000' + (' key' if n % 12 == 0 else ''))
        steps += [f'audio {n * 40000 + part * 20000} 20000 3840' for part in (0, 1)]
    return steps


class Counts(HostTest):
    def test_frames_bytes_key_frames_and_first_and_last_time_stamp(self):
        result = self.play_json(fake(*steps_of_a_second()))
        self.assertEqual(result['video'], {
            'frames': 25, 'bytes': 25 * PICTURE, 'firstUs': 0, 'lastUs': 960000, 'keyFrames': 3,
            'gapCount': 0, 'gaps': [], 'stepsBack': 0})
        self.assertEqual(result['audio']['frames'], 50)
        self.assertEqual(result['audio']['bytes'], 50 * 3840)
        self.assertEqual(result['audio']['lastUs'], 980000)
        self.assertGreater(result['secondsToFirstFrame'], 0)

    def test_gap_is_told_with_place_and_length(self):
        result = self.play_json(fake('video 0 40000', 'video 40000 40000', 'video 200000 40000',
                                     'audio 0 20000 4', 'audio 20000 20000 4'))
        self.assertEqual(result['video']['gaps'], [{'atUs': 80000, 'lengthUs': 120000}])
        self.assertEqual(result['audio']['gapCount'], 0)

    def test_rounded_time_stamps_are_no_gap(self):
        result = self.play_json(fake('video 0 33000', 'video 33000 33000', 'video 67000 33000'))
        self.assertEqual(result['video']['gapCount'], 0)

    def test_frames_without_duration_are_measured_by_the_ones_before(self):
        result = self.play_json(fake('video 0 0', 'video 40000 0', 'video 80000 0',
                                     'video 400000 0'))
        self.assertEqual(result['video']['gaps'], [{'atUs': 120000, 'lengthUs': 280000}])

    def test_key_frames_alone_have_no_gaps(self):
        result = self.play_json(fake('video 0 40000 key', 'video 900000 40000 key'), '--keyframes')
        self.assertEqual(result['video']['gapCount'], 0)

    def test_steps_back_are_counted(self):
        result = self.play_json(fake('video 40000 40000', 'video 0 40000'))
        self.assertEqual(result['video']['stepsBack'], 1)

    def test_frame_without_time_stamp_counts_but_has_no_place(self):
        result = self.play_json(fake('video - 0', 'video 40000 40000'), '--copy-video')
        self.assertEqual(result['video']['frames'], 2)
        self.assertEqual(result['video']['firstUs'], 40000)

    def test_nothing_at_all_is_said_so(self):
        done = self.run_host('play', fake('novideo'))
        self.assertIn('no frames', done.stdout)

    def test_empty_answers_are_passed_over(self):
        result = self.play_json(fake('none', 'video 0 40000', 'none', 'video 40000 40000'))
        self.assertEqual(result['video']['frames'], 2)

    def test_broken_stream_is_told(self):
        self.assertTrue(self.play_json(fake('video 0 40000', 'broken'))['brokenStream'])
        self.assertFalse(self.play_json(fake('video 0 40000'))['brokenStream'])
        self.assertIn('broke off', self.run_host('play', fake('video 0 40000', 'broken')).stdout)

    def test_input_events_are_told_in_their_order(self):
        medium = fake('video 0 40000', 'ended', 'video 40000 40000', 'broken')
        self.assertEqual(self.play_json(medium)['inputEvents'],
                         ['endOfFileReceived', 'brokenStream'])
        self.assertIn('all of the stream has arrived', self.run_host('play', medium).stdout)
        self.assertEqual(self.play_json(fake('video 0 40000'))['inputEvents'], [])

    def test_fill_level_of_the_network_buffer_is_shown(self):
        medium = fake('buffer 40', 'video 0 40000', 'buffer 90', 'video 40000 40000',
                      'buffer 70', 'video 80000 40000')
        self.assertEqual(self.play_json(medium)['inputBuffer'],
                         {'lowestPercent': 40, 'highestPercent': 90})
        self.assertIn('40 to 90 % full', self.run_host('play', medium).stdout)
        self.assertIsNone(self.play_json(fake('video 0 40000'))['inputBuffer'])

    def test_metadata_is_shown(self):
        medium = fake('video 0 40000', 'metadata title Song')
        self.assertEqual(self.play_json(medium)['metadata'],
                         [{'atUs': 0, 'entries': {'title': 'Song'}}])
        self.assertIn('title "Song"', self.run_host('play', medium).stdout)

    def test_metadata_cannot_send_control_sequences_to_a_terminal(self):
        done = self.run_host('play', fake('video 0 40000', 'metadata title \x1b[2Jx\x9b2Jé'))
        self.assertNotIn('\x1b', done.stdout)
        self.assertNotIn('\x9b', done.stdout)
        self.assertIn('[2Jx  2Jé', done.stdout)

    def test_name_of_several_lines_still_gives_one(self):
        done = self.run_host('play', fake('openfails 2 No', 'say\nx'), status=1)
        self.assert_one_line(done.stderr, 'say x')

    def test_text_that_is_no_utf_8_still_gives_valid_json(self):
        medium = os.fsencode(fake('video 0 40000', 'metadata title ')) + b'\xff\xfe'
        result = self.play_json(medium)
        self.assertEqual(list(result['metadata'][0]['entries']), ['title'])

    def test_change_of_audio_is_told_with_its_place(self):
        result = self.play_json(fake('audio 0 20000 4', 'change 44100 1 16', 'audio 20000 20000 4'))
        self.assertEqual(result['audioChanges'], [
            {'audioFrames': 1, 'sampleRate': 44100, 'channels': 1, 'bitsPerSample': 16}])


class Stretch(HostTest):
    def test_duration_ends_both_kinds_at_the_same_time(self):
        result = self.play_json(fake(*steps_of_a_second()), '--duration', '400')
        self.assertEqual(result['video']['lastUs'], 360000)
        self.assertEqual(result['audio']['lastUs'], 380000)

    def test_start_seeks_before_the_first_frame(self):
        calls = self.calls('play', fake(*steps_of_a_second()), '--start', '500')
        self.assertEqual(calls[calls.index('start') + 1], 'setTimePosition 500')
        result = self.play_json(fake(*steps_of_a_second()), '--start', '0.5s', '--duration', '200')
        self.assertEqual(result['video']['firstUs'], 520000)
        self.assertEqual(result['video']['lastUs'], 680000)

    def test_frames_end_the_play(self):
        result = self.play_json(fake(*steps_of_a_second()), '--frames', '4')
        self.assertEqual(result['video']['frames'] + result['audio']['frames'], 4)

    def test_kinds_can_be_left_out(self):
        medium = fake(*steps_of_a_second())
        self.assertEqual(self.play_json(medium, '--no-audio')['audio']['frames'], 0)
        self.assertEqual(self.play_json(medium, '--no-video')['video']['frames'], 0)
        self.assertEqual(self.play_json(medium, '--no-video')['audio']['frames'], 50)

    def test_realtime_takes_as_long_as_the_medium(self):
        medium = fake('video 1000000 40000', 'video 1300000 40000')
        self.assertGreaterEqual(self.play_json(medium, '--realtime')['seconds'], 0.3)


class Seeks(HostTest):
    def test_seek_waits_for_the_time_that_stands_behind_it(self):
        result = self.play_json(fake(*steps_of_a_second()), '--seek', '800@200', '--no-audio')
        # 0 to 200 ms, then 800 to 960 ms.
        self.assertEqual(result['video']['frames'], 6 + 5)
        self.assertEqual(result['seeks'], [
            {'targetMs': 800, 'result': 0, 'firstVideoUs': 800000, 'firstAudioUs': None}])
        self.assertEqual(result['video']['gapCount'], 0)

    def test_seeks_without_time_follow_each_other_picture_by_picture(self):
        result = self.play_json(fake(*steps_of_a_second()), '--seek', '0:00.6', '--seek', '200',
                                '--seek', '900')
        self.assertEqual([s['targetMs'] for s in result['seeks']], [600, 200, 900])
        self.assertEqual([s['firstVideoUs'] for s in result['seeks']], [600000, 200000, 920000])

    def test_seek_without_pictures_goes_by_audio(self):
        steps = ['novideo'] + [f'audio {n * 20000} 20000 4' for n in range(50)]
        result = self.play_json(fake(*steps), '--seek', '900')
        self.assertEqual(result['audio']['frames'], 1 + 5)

    def test_seek_that_waits_too_long_is_made_at_the_end(self):
        result = self.play_json(fake(*steps_of_a_second()), '--seek', '800@99999', '--no-audio')
        self.assertEqual(result['video']['frames'], 25 + 5)

    def test_failed_seek_is_an_error_after_the_summary(self):
        done = self.run_host('play', fake(*steps_of_a_second(), 'seekfails -1'), '--seek', '500',
                             status=1)
        self.assert_one_line(done.stderr, 'fake://', 'Seek to 0:00.500 failed')
        self.assertIn('25', done.stdout)
        self.assertIn('failed (-1)', done.stdout)

    def test_seek_in_a_medium_that_cannot_is_told_so(self):
        done = self.run_host('play', fake(*steps_of_a_second(), 'seekfails 2'), '--start', '500',
                             status=1)
        self.assert_one_line(done.stderr, 'Seek to 0:00.500 is not possible')


class Errors(HostTest):
    def test_reason_comes_from_the_library(self):
        done = self.run_host('play', fake('openfails 7 Gone'), status=1)
        self.assertEqual(done.stderr, f'zel-host: {fake("openfails 7 Gone")}: Gone (code 7)\n')
        self.assertEqual(done.stdout, '')

    def test_failure_without_a_reason_still_names_the_medium(self):
        done = self.run_host('probe', fake('openfails'), status=1)
        self.assert_one_line(done.stderr, fake('openfails'), 'could not be opened')

    def test_wrong_use_is_one_line_too(self):
        for arguments in ([], ['play'], ['dance'], ['play', 'a', '--seek', 'soon'],
                          ['play', 'a', '--every', '2'], ['play', 'a', '--threads', '0'],
                          ['play', 'a', '--wav', '-', '--framemd5'],
                          ['play', 'a', '--framemd5', '--json'],
                          ['play', 'a', '--no-audio', '--no-video']):
            done = self.run_host(*arguments, status=1)
            self.assert_one_line(done.stderr, 'zel-host: ')

    def test_help_is_no_error(self):
        self.assertIn('--framemd5', self.run_host('play', '--help').stdout)

    def test_reader_that_goes_away_ends_the_host_with_a_line(self):
        process = self.start_host('play', fake(*['video 0 40000'] * 3000), '--framemd5',
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        process.stdout.close()
        errors = process.stderr.read()
        process.stderr.close()
        self.assertEqual(process.wait(), 1)
        self.assertIn('zel-host: standard output: Broken pipe\n', errors)


class FrameLines(HostTest):
    def test_one_line_a_frame_with_kind_time_size_and_md5(self):
        rows = self.frame_lines(fake('video 0 40000 key', 'audio 21333 20000 5', 'video - 0'))
        self.assertEqual(rows, [('video', 0, PICTURE, md5(fake_bytes(0, PICTURE))),
                                ('audio', 21333, 5, md5(fake_bytes(1, 5))),
                                ('video', '-', PICTURE, md5(fake_bytes(2, PICTURE)))])

    def test_metadata_has_a_line(self):
        rows = self.frame_lines(fake('metadata title Song'))
        self.assertEqual(rows, [('metadata', 0, 12, md5(b'title\0Song\0\0'))])

    def test_summary_is_out_of_the_way(self):
        done = self.run_host('play', fake('video 0 40000'), '--framemd5')
        self.assertIn('took', done.stderr)
        self.assertNotIn('took', done.stdout)


class Wav(HostTest):
    def read(self, name):
        with wave.open(self.path(name)) as file:
            shape = (file.getframerate(), file.getnchannels(), 8 * file.getsampwidth())
            return shape, file.readframes(file.getnframes())

    def play(self, *steps, arguments=()):
        return self.run_host('play', fake(*steps), '--wav', self.path('a.wav'), *arguments)

    def test_holds_the_samples_in_their_format(self):
        self.play('format 44100 2 16', 'audio 0 20000 8', 'video 0 40000', 'audio 20000 20000 12')
        self.assertEqual(self.read('a.wav'),
                         ((44100, 2, 16), fake_bytes(0, 8) + fake_bytes(2, 12)))

    def test_odd_number_of_bytes_is_padded(self):
        self.play('format 8000 1 8', 'audio 0 20000 7')
        self.assertEqual(self.read('a.wav'), ((8000, 1, 8), fake_bytes(0, 7)))
        self.assertEqual(os.path.getsize(self.path('a.wav')), 44 + 8)

    def test_wide_and_surround_formats_are_read_by_ffmpeg(self):
        for bits, channels, codec in ((32, 2, 's32le'), (16, 6, 's16le'), (32, 8, 's32le')):
            size = bits // 8 * channels * 10
            self.play(f'format 48000 {channels} {bits}', f'audio 0 20000 {size}')
            self.assertEqual(ffmpeg('-i', self.path('a.wav'), '-f', codec), fake_bytes(0, size))

    def test_next_file_begins_where_the_format_changes(self):
        self.play('format 48000 1 16', 'audio 0 20000 4', 'change 48000 2 16', 'audio 0 20000 8',
                  'change 48000 2 16', 'audio 0 20000 8', 'change 44100 2 16', 'audio 0 20000 4')
        self.assertEqual(self.read('a.wav'), ((48000, 1, 16), fake_bytes(0, 4)))
        self.assertEqual(self.read('a-2.wav'),
                         ((48000, 2, 16), fake_bytes(1, 8) + fake_bytes(2, 8)))
        self.assertEqual(self.read('a-3.wav'), ((44100, 2, 16), fake_bytes(3, 4)))

    def test_streams_to_standard_output(self):
        done = subprocess.run([HOST, 'play', fake('audio 0 20000 8'), '--wav',
                               '-'], env=self.environment, capture_output=True, check=True)
        self.assertEqual(done.stdout[:4], b'RIFF')
        self.assertEqual(done.stdout[44:], fake_bytes(0, 8))
        self.assertIn(b'took', done.stderr)

    def test_medium_without_audio_is_an_error(self):
        done = self.run_host('play', fake('noaudio', 'video 0 40000'), '--wav',
                             self.path('a.wav'), status=1)
        self.assert_one_line(done.stderr, 'a.wav', 'no audio')

    def test_place_that_cannot_be_written_is_an_error(self):
        done = self.run_host('play', fake('audio 0 20000 8'), '--wav', self.path('no/a.wav'),
                             status=1)
        self.assert_one_line(done.stderr, 'no/a.wav', 'No such file or directory')

    def test_full_disk_is_an_error(self):
        done = self.run_host('play', fake(*['audio 0 20000 100000'] * 10), '--wav', '/dev/full',
                             status=1)
        self.assert_one_line(done.stderr, '/dev/full', 'No space left on device')


class Pictures(HostTest):
    def test_every_nth_picture_from_the_first_on(self):
        self.run_host('play', fake('size 64 32', *[f'video {n * 40000} 40000' for n in range(7)]),
                      '--pictures', self.path('out/deep'), '--every', '3')
        self.assertEqual(sorted(os.listdir(self.path('out/deep'))),
                         ['picture-000001.png', 'picture-000004.png', 'picture-000007.png'])

    def test_odd_sizes_are_written_whole(self):
        self.run_host('play', fake('size 17 9', 'video 0 40000'), '--pictures', self.folder)
        pixels = ffmpeg('-i', self.path('picture-000001.png'), '-f', 'rawvideo', '-pix_fmt', 'rgb24')
        self.assertEqual(len(pixels), 17 * 9 * 3)

    def test_medium_without_video_is_an_error(self):
        done = self.run_host('play', fake('novideo', 'audio 0 20000 8'), '--pictures', self.folder,
                             status=1)
        self.assert_one_line(done.stderr, self.folder, 'no pictures')

    def test_place_that_cannot_be_written_is_an_error(self):
        with open(self.path('file'), 'w', encoding='utf-8'):
            pass
        done = self.run_host('play', fake('video 0 40000'), '--pictures', self.path('file/sub'),
                             status=1)
        self.assert_one_line(done.stderr, 'file/sub', 'Not a directory')


class Signals(HostTest):
    def test_ctrl_c_ends_in_order_and_leaves_files_readable(self):
        status, output, lines = self.interrupt(
            'play', fake('audio 0 20000 8', 'audio 20000 20000 8', 'wait'), '--wav',
            self.path('a.wav'))
        self.assertEqual(status, 130)
        self.assertIn('(interrupted)', output)
        behind = lines[lines.index('waiting') + 1:]
        self.assertEqual(behind[0], 'stop')
        self.assertIn('close', behind)
        self.assertEqual(behind[-1], 'delete')
        with wave.open(self.path('a.wav')) as file:
            self.assertEqual(file.readframes(file.getnframes()), fake_bytes(0, 8) + fake_bytes(1, 8))

    def test_termination_does_the_same_with_its_own_status(self):
        status, output, lines = self.interrupt('play', fake('audio 0 20000 8', 'wait'), '--json',
                                               number=signal.SIGTERM)
        self.assertEqual(status, 143)
        self.assertIn('"interrupted": true', output)
        self.assertFalse([line for line in lines if 'fault' in line])

    def test_signal_ends_an_open_that_waits(self):
        status, output, lines = self.interrupt('play', fake('openwaits'))
        self.assertEqual(status, 130)
        self.assertEqual(output, '')
        self.assertTrue(any('Interrupted' in line for line in lines))

    def test_signal_ends_the_wait_for_real_time(self):
        status, output, _ = self.interrupt(
            'play', fake('video 0 40000', 'say second', 'video 9000000 40000'), '--realtime',
            '--framemd5', at='second')
        self.assertEqual(status, 130)
        # A frame whose time never came does not count.
        self.assertEqual(len(output.splitlines()), 1)


class Terminal(HostTest):
    def test_progress_is_drawn_on_a_terminal_and_taken_away(self):
        status, output, shown = self.run_on_terminal('play', fake(*steps_of_a_second()),
                                                     '--realtime')
        self.assertEqual(status, 0)
        self.assertIn('▕', shown)
        self.assertIn('0:01.000', shown)
        self.assertRegex(shown, '\r\x1b\\[K\\Z')
        self.assertNotIn('\x1b', output)
        widest = max(len(line.split('\x1b')[0]) for line in shown.split('\r'))
        self.assertLess(widest, 100)

    def test_fill_level_of_the_network_buffer_stands_behind_the_bar(self):
        _, _, shown = self.run_on_terminal('play', fake('buffer 40', *steps_of_a_second()))
        self.assertIn('buffer 40%', shown)

    def test_without_utf_8_the_bar_is_plain(self):
        self.environment['LC_ALL'] = 'C'
        _, _, shown = self.run_on_terminal('play', fake(*steps_of_a_second()))
        self.assertIn('[', shown)
        self.assertTrue(shown.isascii())

    def test_without_duration_there_is_a_position_and_no_bar(self):
        _, _, shown = self.run_on_terminal('play', fake('video 1000000 40000'))
        self.assertIn('0:01.000', shown)
        self.assertNotIn('▕', shown)

    def test_none_on_a_terminal_that_cannot_move_its_cursor(self):
        self.environment['TERM'] = 'dumb'
        _, _, shown = self.run_on_terminal('play', fake(*steps_of_a_second()))
        self.assertEqual(shown, '')

    def test_none_between_lines_that_go_to_the_same_terminal(self):
        medium = fake(*steps_of_a_second())
        for arguments in (['--framemd5'], ['--log', '-']):
            _, _, shown = self.run_on_terminal('play', medium, *arguments, all_output=True)
            self.assertNotIn('\x1b', shown)
        _, _, shown = self.run_on_terminal('play', medium, all_output=True)
        self.assertIn('\x1b', shown)

    def test_none_in_a_pipe(self):
        done = self.run_host('play', fake(*steps_of_a_second()))
        self.assertEqual(done.stderr, '')
        self.assertNotIn('▕', done.stdout)


if __name__ == '__main__':
    unittest.main()
