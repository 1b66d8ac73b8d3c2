"""What zel-host transcode asks of a stage and does with its answers, seen from inside a fake one."""

import os
import subprocess
import unittest

from host_process import HostTest, fake

FILM = ('duration 1000', 'codecs hevc ac3', 'video 0 40000 key', 'audio 0 20000 8',
        'video 40000 40000')


def pictures(count, every=25):
    return [f'video {n * 40000} 40000' + (' key' if n % every == 0 else '') for n in range(count)]


class StageTest(HostTest):
    def written(self, *arguments, status=0):
        """The lines that the fake stage gave out."""
        self.run_host('transcode', *arguments, 'out.flv', status=status)
        with open(self.path('out.flv'), encoding='utf-8') as file:
            return file.read().splitlines()

    def stage_calls(self, *arguments, status=0):
        return self.calls('transcode', *arguments, 'out.flv', status=status)

    def assert_no_faults(self, calls):
        self.assertEqual([call for call in calls if call.startswith('fault')], [])


class Calls(StageTest):
    def test_order_from_the_first_to_the_last(self):
        calls = self.stage_calls(fake(*FILM))
        self.assertEqual(calls, [
            'InputPluginFactory', 'open', 'setInputEventCallback', 'start',
            'TranscoderPluginFactory FFMpegEncoder', 'init flv of 1000 ms',
            'video raw to flv 500000 4x2 2500/100', 'audio raw to mp3 128000 0x0', 'stage start',
            'end', 'stop', 'stage stop', 'stage close', 'stage delete', 'stop', 'close', 'stop',
            'delete'])

    def test_output_is_what_the_stage_gave_out_to_the_last_byte(self):
        self.assertEqual(self.written(fake(*FILM)),
                         ['header', 'video key 0 16', 'audio 0 8', 'video 40000 16', 'trailer'])

    def test_medium_is_opened_anew_for_copies_that_show_only_then(self):
        calls = self.stage_calls(fake('codecs h264 aac', *pictures(2)))
        self.assertEqual(calls[:10], [
            'InputPluginFactory', 'open', 'setInputEventCallback', 'stop', 'close', 'stop',
            'delete', 'InputPluginFactory', 'skipAudioDecoding', 'skipVideoDecoding'])
        self.assertIn('video h264 to h264 500000 4x2 2500/100', calls)
        self.assertIn('audio aac to aac 128000 2x48000', calls)
        self.assert_no_faults(calls)

    def test_copies_that_were_asked_for_need_one_opening(self):
        calls = self.stage_calls(fake(*FILM), '--video', 'copy', '--audio', 'copy')
        self.assertEqual(calls.count('open'), 1)
        self.assertEqual(calls[:4], ['InputPluginFactory', 'skipAudioDecoding',
                                     'skipVideoDecoding', 'open'])
        self.assertIn('video hevc to hevc 500000 4x2 2500/100', calls)

    def test_one_kind_is_copied_and_the_other_encoded(self):
        calls = self.stage_calls(fake(*FILM), '--video', 'copy', '--audio', 'aac:96k')
        self.assertIn('video hevc to hevc 500000 4x2 2500/100', calls)
        self.assertIn('audio raw to aac 96000 0x0', calls)
        self.assertNotIn('skipAudioDecoding', calls)

    def test_kind_that_is_left_out_is_none_for_the_stage(self):
        calls = self.stage_calls(fake(*FILM), '--audio', 'none')
        self.assertIn('skipAudioDecoding', calls)
        self.assertIn('audio none to none 0 0x0', calls)
        calls = self.stage_calls(fake(*FILM), '--video', 'none')
        self.assertIn('setVideoDecodingMode 2', calls)
        self.assertNotIn('skipVideoDecoding', calls)
        self.assertEqual(self.written(fake(*FILM), '--video', 'none'),
                         ['header', 'audio 0 8', 'trailer'])

    def test_what_the_user_sets_reaches_the_stage(self):
        calls = self.stage_calls(fake(*FILM), '--video', 'mpeg4:800k', '--fps', '12.5',
                                 '--channels', '1', '--sample-rate', '22050', '--option', 'crf=30',
                                 '--option', 'sessionID=7')
        self.assertIn('video raw to mpeg4 800000 4x2 1250/100', calls)
        self.assertIn('audio raw to mp3 128000 1x22050', calls)
        self.assertIn('option crf=30', calls)
        self.assertIn('option sessionID=7', calls)

    def test_set_up_of_copied_video_stands_in_its_description_and_is_not_written(self):
        film = fake('codecs h264 aac', 'video - 0', 'video 0 40000 key', 'audio 0 20000 8')
        calls = self.stage_calls(film)
        # The bytes of the fake library's first frame, of 4 by 2 pixels.
        self.assertIn('video h264 to h264 500000 4x2 2500/100 set-up '
                      '000102030405060708090a0b0c0d0e0f', calls)
        self.assertEqual(self.written(film),
                         ['header', 'video key 0 16', 'audio 0 8', 'trailer'])
        self.assert_no_faults(calls)

    def test_first_frame_that_is_no_set_up_is_not_lost(self):
        self.assertEqual(self.written(fake('codecs h264 aac', 'video 0 40000 key', 'audio 0 0 8')),
                         ['header', 'video key 0 16', 'audio 0 8', 'trailer'])

    def test_every_frame_is_given_back(self):
        for medium in (fake(*FILM, 'metadata title Song', 'none'),
                       fake('codecs h264 aac', 'video - 0', *pictures(30))):
            self.assert_no_faults(self.stage_calls(medium, '--option', 'room=2'))


class Stretch(StageTest):
    def test_start_seeks_before_the_first_frame_and_before_the_stage_stands(self):
        medium = fake('codecs h264 aac', 'duration 2000', *pictures(50))
        calls = self.stage_calls(medium, '--start', '1s')
        self.assertLess(calls.index('setTimePosition 1000'), calls.index('init flv of 2000 ms'))
        self.assertNotIn('resetPosition 1000', calls)
        lines = self.written(medium, '--start', '1s', '--duration', '80')
        self.assertEqual(lines, ['header', 'video key 1000000 16', 'video 1040000 16', 'trailer'])

    def test_seek_moves_input_and_stage_when_everything_before_was_read(self):
        medium = fake('novideo', 'duration 2000', *[f'audio {n * 20000} 20000 4' for n in range(90)])
        calls = self.stage_calls(medium, '--seek', '1600@40', '--duration', '60')
        self.assertEqual(calls[calls.index('setTimePosition 1600') + 1], 'resetPosition 1600')
        self.assertNotIn('lost a packet', calls)
        lines = self.written(medium, '--seek', '1600@40', '--duration', '60')
        self.assertEqual(lines, ['header'] +
                         [f'audio {n * 20000} 4' for n in (0, 1, 2, 80, 81, 82)] + ['trailer'])

    def test_empty_answers_during_a_seek_are_not_the_end(self):
        medium = fake('duration 2000', *pictures(50))
        lines = self.written(medium, *['--seek', '1s'] * 20)
        self.assertEqual(lines[-2:], ['video 1960000 16', 'trailer'])
        self.assertEqual(lines.count('video key 1000000 16'), 20)

    def test_seek_at_the_end(self):
        result = self.run_json('transcode', fake('duration 2000', *pictures(50)), 'out.flv',
                               '--seek', '1s@99999')
        self.assertEqual(result['video']['frames'], 75)
        self.assertEqual(result['seeks'], [{'targetMs': 1000, 'result': 0}])
        self.assertEqual(result['lengthUs'], 3000000)

    def test_failed_seek_is_an_error_after_the_summary(self):
        medium = fake('duration 2000', 'seekfails -1', *pictures(50))
        done = self.run_host('transcode', medium, 'out.flv', '--seek', '500', status=1)
        self.assert_one_line(done.stderr, 'fake://', 'Seek to 0:00.500 failed')
        self.assertIn('50 frames', done.stdout)

    def test_failed_start_is_an_error_at_once(self):
        medium = fake('duration 2000', 'seekfails 2', *pictures(50))
        done = self.run_host('transcode', medium, 'out.flv', '--start', '500', status=1)
        self.assert_one_line(done.stderr, 'fake://', 'Seek to 0:00.500 is not possible')
        self.assertFalse(os.path.exists(self.path('out.flv')))


class Refusals(StageTest):
    def test_refused_copy_is_encoded_with_a_line_about_it(self):
        arguments = (fake('codecs h264 aac', *pictures(2)), '--option', 'refusesCopies=video')
        done = self.run_host('transcode', *arguments, 'out.flv')
        self.assert_one_line(done.stderr, 'video h264 cannot be copied into flv', 'encoded as flv')
        calls = self.stage_calls(*arguments)
        self.assertEqual(calls.count('TranscoderPluginFactory FFMpegEncoder'), 2)
        self.assertEqual(calls.count('stage delete'), 2)
        self.assertIn('video raw to flv 500000 4x2 2500/100', calls)
        self.assertIn('audio aac to aac 128000 2x48000', calls)
        self.assert_no_faults(calls)

    def test_copy_at_a_broken_rate_is_tried_at_a_whole_one(self):
        medium = fake('codecs mpeg2 mp2', 'rate 29.97', *pictures(2))
        calls = self.calls('transcode', medium, 'out.ts', '--option', 'refusesCopies=video')
        self.assertIn('video mpeg2 to mpeg2 500000 4x2 2997/100', calls)
        self.assertIn('video mpeg2 to mpeg2 500000 4x2 3000/100', calls)
        self.assertIn('video raw to mpeg2 500000 4x2 2997/100', calls)
        # Decoding needs an input of its own; the two tries at copying share theirs.
        self.assertEqual(calls.count('open'), 3)

    def test_output_that_cannot_begin_is_tried_without_copies(self):
        done = self.run_host('transcode', fake('codecs h264 aac', *pictures(2)), 'out.flv',
                             '--option', 'startAnswers=0', status=1)
        self.assert_one_line(done.stderr, 'format "flv" does not take flv with mp3')

    def test_codec_that_cannot_be_encoded_is_an_error(self):
        done = self.run_host('transcode', fake(*FILM), 'out.flv', '--video', 'vp9', '--option',
                             'refuses=video', status=1)
        self.assert_one_line(done.stderr, 'fake://', 'video cannot be encoded as vp9')
        self.assertFalse(os.path.exists(self.path('out.flv')))

    def test_h264_from_pictures_is_an_error_of_its_own(self):
        done = self.run_host('transcode', fake(*FILM), 'out.flv', '--video', 'h264', '--option',
                             'refuses=video', '--option', 'initAnswers=2', status=1)
        self.assert_one_line(done.stderr, 'H.264 can only be copied', 'hevc')

    def test_format_that_is_not_there_is_an_error(self):
        done = self.run_host('transcode', fake(*FILM), 'out', '--format', 'flvx', '--video', 'flv',
                             '--audio', 'mp3', '--option', 'initAnswers=-1', '--option',
                             'refuses=both', status=1)
        self.assert_one_line(done.stderr, 'format "flvx" cannot be written')

    def test_streams_that_are_passed_on_as_they_are_leave_nothing_to_write(self):
        done = self.run_host('transcode', fake('codecs h264 aac', *pictures(2)), 'out', '--format',
                             'bdlive', '--option', 'initAnswers=2', '--option', 'refuses=both',
                             status=1)
        self.assert_one_line(done.stderr, 'nothing to write')

    def test_stage_that_stops_by_itself_is_an_error(self):
        done = self.run_host('transcode', fake(*FILM), 'out.flv', '--option', 'stopsAfter=2',
                             status=1)
        self.assert_one_line(done.stderr, 'fake://', 'stopped before the end')

    def test_wide_surround_is_refused(self):
        done = self.run_host('transcode', fake('format 48000 6 32', *FILM), 'out.flv', status=1)
        self.assert_one_line(done.stderr, 'fake://', 'audio of 6 channels at 32 bits')
        self.run_host('transcode', fake('format 48000 6 16', *FILM), 'out.flv')
        self.run_host('transcode', fake('format 48000 2 32', *FILM), 'out.flv')
        self.run_host('transcode', fake('format 48000 6 32', *FILM), 'out.flv', '--audio', 'copy')

    def test_audio_that_becomes_wide_surround_ends_the_session(self):
        done = self.run_host('transcode', fake(*FILM, 'change 48000 6 32', 'audio 20000 0 8'),
                             'out.flv', status=1)
        self.assert_one_line(done.stderr, 'fake://', 'audio of 6 channels at 32 bits')

    def test_wrong_use_is_one_line(self):
        for arguments in ([], ['a'], ['a', 'b'], ['a', '-'], ['a', 'b.flv', '--video', 'copy:1k'],
                          ['a', 'b.flv', '--audio', 'mp3:x'], ['a', 'b.flv', '--option', 'a'],
                          ['a', 'b.flv', '--option', '=a'], ['a', 'b.flv', '--fps', '0'],
                          ['a', 'b.flv', '--channels', '6']):
            done = self.run_host('transcode', *arguments, status=1)
            self.assert_one_line(done.stderr, 'zel-host: ')


class Output(StageTest):
    def test_standard_output_has_the_bytes_and_standard_error_the_summary(self):
        done = self.run_host('transcode', fake(*FILM), '-', '--format', 'flv')
        self.assertEqual(done.stdout, 'header\nvideo key 0 16\naudio 0 8\nvideo 40000 16\ntrailer\n')
        self.assertIn('hevc to flv', done.stderr)
        self.assertIn('took', done.stderr)
        done = self.run_host('transcode', fake(*FILM), '-', '--format', 'flv', '--json')
        self.assertTrue(done.stdout.startswith('header\n'))
        self.assertIn('"bytes": 55', done.stderr)

    def test_full_disk_is_one_line_and_no_hang(self):
        medium = fake(*pictures(3000))
        calls = self.calls('transcode', medium, '/dev/full', '--format', 'flv', '--option',
                           'room=1', status=1)
        self.assert_no_faults(calls)
        done = self.run_host('transcode', medium, '/dev/full', '--format', 'flv', status=1)
        self.assert_one_line(done.stderr, '/dev/full: No space left on device')

    def test_full_disk_while_the_medium_waits_ends_at_once(self):
        done = self.run_host('transcode', fake('video 0 40000 key', 'wait'), '/dev/full',
                             '--format', 'flv', status=1)
        self.assert_one_line(done.stderr, '/dev/full: No space left on device')

    def test_full_disk_during_a_seek_ends_at_once(self):
        done = self.run_host('transcode', fake(*pictures(100)), '/dev/full', '--format', 'flv',
                             *['--seek', '0'] * 50, status=1)
        self.assert_one_line(done.stderr, '/dev/full: No space left on device')

    def test_reader_that_goes_away_is_one_line(self):
        process = self.start_host('transcode', fake(*pictures(3000)), '-', '--format', 'flv',
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        process.stdout.close()
        errors = process.stderr.read()
        process.stderr.close()
        self.assertEqual(process.wait(), 1)
        self.assert_one_line(errors, 'zel-host: standard output: Broken pipe')

    def test_file_that_cannot_be_made_is_one_line(self):
        for output in ('no/such/folder.flv', 'file/below.flv', '.'):
            with open(self.path('file'), 'w', encoding='utf-8'):
                pass
            done = self.run_host('transcode', fake(*FILM), output, '--format', 'flv', status=1)
            self.assert_one_line(done.stderr, f'zel-host: {output}: ')

    def test_failure_leaves_an_older_file_alone(self):
        with open(self.path('out.flv'), 'w', encoding='utf-8') as file:
            file.write('older')
        self.run_host('transcode', fake('openfails 2 No'), 'out.flv', status=1)
        self.run_host('transcode', fake(*FILM), 'out.flv', '--option', 'refuses=both', status=1)
        with open(self.path('out.flv'), encoding='utf-8') as file:
            self.assertEqual(file.read(), 'older')


class Segments(StageTest):
    """The fake stage makes no segment files, whatever it is asked for."""

    def test_options_of_the_stage(self):
        calls = self.calls('segment', fake('codecs h264 aac', *pictures(2)), 'out',
                           '--clip-duration', '2s', status=1)
        options = [call for call in calls if call.startswith('option')]
        self.assertEqual(options, ['option MpegTSMethod=segmented', 'option clipDuration=2000',
                                   'option sessionID=1'])
        self.assertIn('video h264 to h264 500000 4x2 2500/100', calls)

    def test_options_of_a_fallback_stream(self):
        calls = self.calls('segment', fake('codecs h264 aac', *pictures(2)), 'out', '--fallback',
                           '48k', '--option', 'sessionID=9', status=1)
        self.assertIn('option fallbackStream=1', calls)
        self.assertIn('option lowVideoBitrate=48000', calls)
        self.assertIn('option sessionID=9', calls)
        self.assertIn('video raw to mpeg2 48000 4x2 2500/100', calls)
        self.assertIn('audio raw to mp2 32000 0x0', calls)

    def test_next_cut_waits_until_the_one_before_was_made(self):
        calls = self.calls('segment', fake('codecs h264 aac', *pictures(100)), 'out',
                           '--clip-duration', '1s', status=1)
        self.assertEqual([call for call in calls if call.startswith('action')],
                         ['action START_NEW_SEGMENT 1000000'])

    def test_segments_that_do_not_come_end_the_session(self):
        for steps in (('codecs h264 aac', *pictures(300), 'wait'),
                      ('novideo', *[f'audio {n * 20000} 20000 4' for n in range(500)], 'wait')):
            done = self.run_host('segment', fake(*steps), 'out', '--clip-duration', '1s', status=1)
            self.assert_one_line(done.stderr, 'zel-host: out: the encoder stage makes no more')

    def test_missing_last_segment_is_an_error(self):
        done = self.run_host('segment', fake('codecs h264 aac', *pictures(2)), 'out', status=1)
        self.assert_one_line(done.stderr, 'zel-host: out: the last segment was not written')
        self.assertEqual(os.listdir(self.path('out')), [])


class Signals(StageTest):
    def test_output_is_finished_and_the_status_tells_the_signal(self):
        status, output, lines = self.interrupt('transcode', fake(*FILM, 'wait'), 'out.flv',
                                               '--option', 'says=3', at='taken 3')
        self.assertEqual(status, 130)
        self.assertIn('(interrupted)', output)
        self.assertIn('end', lines)
        with open(self.path('out.flv'), encoding='utf-8') as file:
            self.assertEqual(file.read().splitlines(),
                             ['header', 'video key 0 16', 'audio 0 8', 'video 40000 16', 'trailer'])

    def test_signal_during_open(self):
        status, _, lines = self.interrupt('transcode', fake('openwaits'), 'out.flv')
        self.assertEqual(status, 130)
        self.assertIn('zel-host: fake://openwaits: Interrupted', lines)

    def test_signal_before_the_stage_stands(self):
        status, _, lines = self.interrupt('transcode', fake('codecs h264 aac', 'wait'), 'out.flv',
                                          '--video', 'copy', '--audio', 'copy')
        self.assertEqual(status, 130)
        self.assertFalse([line for line in lines if line.startswith('fault')])


class Terminal(StageTest):
    def test_progress_is_drawn_and_taken_away(self):
        status, output, shown = self.run_on_terminal(
            'transcode', fake('duration 2000', *pictures(50)), 'out.flv')
        self.assertEqual(status, 0)
        self.assertIn('0:02.000', shown)
        self.assertTrue(shown.endswith('\r\x1b[K'))
        self.assertIn('h264', output)


if __name__ == '__main__':
    unittest.main()
