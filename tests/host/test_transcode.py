"""zel-host transcode with the real library; what it wrote is read back by ffprobe and ffmpeg."""

import os
import resource
import signal
import subprocess
import unittest

from host_process import HOST, HostTest, clip
from streams import hashes, packets, probe, seconds, steps, warnings

FILM = 'h264_aac.mp4'  # 12 s at 25 pictures a second, with reordering


class TranscodeTest(HostTest):
    library = None

    def transcode(self, medium, output, *arguments, status=0):
        """The JSON summary, and the path of what was written."""
        path = self.path(output)
        return self.run_json('transcode', medium, path, *arguments, status=status), path

    def refused(self, *arguments):
        """What the host says when it ends with an error."""
        return self.run_host('transcode', *arguments, status=1).stderr

    def assert_same(self, found, expected):
        """As assertEqual, for lists that nobody wants to see whole."""
        differing = [n for n, pair in enumerate(zip(found, expected)) if pair[0] != pair[1]]
        self.assertEqual((len(found), differing[:10]), (len(expected), []))

    def make_clip(self, name, *arguments):
        path = self.path(name)
        subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', *arguments, path], check=True)
        return path


class Copies(TranscodeTest):
    def check(self, medium, output, video, audio):
        summary, path = self.transcode(clip(medium), output)
        self.assertEqual([summary[kind]['action'] for kind in ('video', 'audio')], ['copy', 'copy'])
        self.assertEqual(summary['notes'], [])
        streams = probe(path)
        self.assertEqual(streams['video']['codec_name'], video)
        self.assertEqual(streams['audio']['codec_name'], audio)
        self.assertEqual(warnings(path), [])
        self.assertEqual(summary['bytes'], os.path.getsize(path))
        return path

    def test_h264_and_aac_from_mp4_decode_to_the_same_pictures(self):
        pictures = hashes(clip(FILM), 'v')
        for output in ('a.flv', 'a.ts', 'a.mkv'):
            with self.subTest(output):
                path = self.check(FILM, output, 'h264', 'aac')
                self.assert_same(hashes(path, 'v'), pictures)
                self.assertEqual(len(packets(path, 'audio')), len(packets(clip(FILM), 'audio')))

    def test_presentation_goes_on_in_even_steps(self):
        for output in ('a.flv', 'a.ts', 'a.mkv'):
            with self.subTest(output):
                path = self.check(FILM, output, 'h264', 'aac')
                self.assertEqual(set(steps(p.pts for p in packets(path, 'video'))), {40})

    def test_decoding_times_rise(self):
        for output in ('a.flv', 'a.ts'):
            path = self.check(FILM, output, 'h264', 'aac')
            for kind in ('video', 'audio'):
                times = [packet.dts for packet in packets(path, kind)]
                self.assertEqual(times, sorted(set(times)), (output, kind))

    def test_audio_packets_are_the_same_bytes(self):
        path = self.check(FILM, 'a.mkv', 'h264', 'aac')
        self.assert_same(hashes(path, 'a', copy=True), hashes(clip(FILM), 'a', copy=True))
        path = self.check('mpeg4_mp3.avi', 'b.mkv', 'mpeg4', 'mp3')
        self.assert_same(hashes(path, 'a', copy=True),
                         hashes(clip('mpeg4_mp3.avi'), 'a', copy=True))

    def test_transport_streams_become_files_with_headers(self):
        pictures = hashes(clip('h264_aac.ts'), 'v')
        for output in ('a.flv', 'a.mkv'):
            with self.subTest(output):
                path = self.check('h264_aac.ts', output, 'h264', 'aac')
                self.assert_same(hashes(path, 'v'), pictures)

    def test_other_codecs(self):
        for medium, output, video, audio in (
                ('mpeg2_mp2.mpg', 'a.ts', 'mpeg2video', 'mp2'),
                ('mpeg2_ac3.ts', 'a.mkv', 'mpeg2video', 'ac3'),
                ('mpeg2_mp2.mpg', 'a.vob', 'mpeg2video', 'mp2'),
                ('mpeg1_mp2.mpg', 'a.mpg', 'mpeg1video', 'mp2'),
                ('mpeg4_mp3.avi', 'a.avi', 'mpeg4', 'mp3'),
                ('flv1_mp3.flv', 'b.flv', 'flv1', 'mp3')):
            with self.subTest(medium=medium, output=output):
                self.check(medium, output, video, audio)

    def test_mpeg_2_at_a_broken_rate_is_copied_still(self):
        medium = self.make_clip('a.mpg', '-f', 'lavfi', '-i', 'testsrc2=s=176x144:r=30000/1001:d=2',
                                '-c:v', 'mpeg2video', '-bf', '2')
        summary, path = self.transcode(medium, 'a.ts')
        self.assertEqual(summary['video']['action'], 'copy')
        self.assert_same(hashes(path, 'v'), hashes(medium, 'v'))
        self.assertEqual(warnings(path), [])

    def test_windows_media_is_copied_when_asked_for(self):
        summary, path = self.transcode(clip('wmv2_wma2.asf'), 'a.asf', '--video', 'copy',
                                       '--audio', 'copy')
        self.assertEqual(summary['video']['action'], 'copy')
        self.assertEqual(warnings(path), [])
        self.assert_same(hashes(path, 'v'), hashes(clip('wmv2_wma2.asf'), 'v'))

    def test_copy_that_does_not_come_out_is_an_error(self):
        self.assert_one_line(
            self.refused(clip(FILM), self.path('a.avi'), '--video', 'copy', '--audio', 'copy'),
            FILM, 'came out')


class Encodes(TranscodeTest):
    def check(self, output, video, audio, *arguments, medium=FILM, rate=25.0):
        summary, path = self.transcode(clip(medium), output, *arguments)
        self.assertEqual([summary[kind]['action'] for kind in ('video', 'audio')],
                         ['encode', 'encode'])
        streams = probe(path)
        self.assertEqual((streams['video']['codec_name'], streams['audio']['codec_name']),
                         (video, audio))
        self.assertEqual((streams['video']['width'], streams['video']['height']), (320, 240))
        self.assertEqual(warnings(path), [])
        self.assertAlmostEqual(seconds(path, 'video') + 1 / rate, 11.92, delta=0.06)
        self.assertAlmostEqual(seconds(path, 'audio'), 11.95, delta=0.15)
        return path

    def test_flv(self):
        path = self.check('a.flv', 'flv1', 'mp3', '--video', 'flv', '--audio', 'mp3')
        self.assertEqual(len(packets(path, 'video')), 298)

    def test_matroska(self):
        path = self.check('a.mkv', 'mpeg4', 'mp3', '--video', 'mpeg4:800k', '--audio', 'mp3:96k')
        self.assertEqual(set(steps(p.pts for p in packets(path, 'video'))), {40})

    def test_mpegts(self):
        self.check('a.ts', 'mpeg4', 'mp3', '--video', 'mpeg4', '--audio', 'mp3')
        self.check('b.ts', 'mpeg2video', 'mp2', '--video', 'mpeg2', '--audio', 'mp2', rate=24.0)

    def test_mpeg_and_dvd_and_avi(self):
        self.check('a.mpg', 'mpeg1video', 'mp2', rate=24.0)
        self.check('a.vob', 'mpeg2video', 'mp2', rate=24.0)
        self.check('a.avi', 'mpeg4', 'mp3')

    def test_asf(self):
        self.check('a.wmv', 'wmv2', 'wmav2')

    def test_key_frame_each_second(self):
        path = self.check('a.flv', 'flv1', 'mp3', '--video', 'flv', '--audio', 'mp3')
        keys = [round(p.pts, 2) for p in packets(path, 'video') if p.key]
        self.assertTrue({1.0, 2.0, 3.0, 11.0} <= set(keys), keys)

    def test_bit_rate_follows_the_request(self):
        sizes = [self.transcode(clip(FILM), 'a.flv', '--video', f'flv:{rate}', '--audio', 'none')
                 [0]['bytes'] for rate in ('200k', '1M')]
        self.assertLess(sizes[0] * 2, sizes[1])

    def test_frame_rate_can_be_lowered(self):
        _, path = self.transcode(clip(FILM), 'a.mkv', '--video', 'mpeg4', '--fps', '12.5',
                                 '--audio', 'none')
        self.assertEqual(set(steps(p.pts for p in packets(path, 'video'))), {80})

    def test_shape_of_audio(self):
        _, path = self.transcode(clip('wav_s16.wav'), 'a.mp3', '--channels', '1', '--sample-rate',
                                 '22050')
        audio = probe(path)['audio']
        self.assertEqual((audio['codec_name'], audio['channels'], audio['sample_rate']),
                         ('mp3', 1, '22050'))

    def test_option_of_the_stage_takes_effect(self):
        sizes = [self.transcode(clip(FILM), 'a.mkv', '--video', 'mpeg4', '--audio', 'none',
                                '--option', f'encoderQMin={least}')[0]['bytes']
                 for least in (2, 31)]
        self.assertLess(sizes[1] * 2, sizes[0])

    def test_surround_becomes_stereo(self):
        _, path = self.transcode(clip('aac_51.m4a'), 'a.mp3')
        self.assertEqual(probe(path)['audio']['channels'], 2)
        self.assertEqual(warnings(path), [])

    def test_aac(self):
        _, path = self.transcode(clip('wav_s16.wav'), 'a.aac', '--audio', 'aac:96k')
        self.assertEqual(probe(path)['audio']['codec_name'], 'aac')
        self.assertEqual(warnings(path), [])

    def test_change_of_the_audio_in_mid_stream_keeps_its_length(self):
        for medium in ('channel_change_mp2.ts', 'channel_change_ac3.ts', 'rate_change_mp2.ts'):
            with self.subTest(medium):
                _, path = self.transcode(clip(medium), 'a.flv', '--video', 'flv', '--audio', 'aac')
                self.assertEqual(warnings(path), [])
                self.assertAlmostEqual(seconds(path, 'audio'), 7.95, delta=0.1)

    def test_one_kind_copied_and_one_encoded(self):
        summary, path = self.transcode(clip(FILM), 'a.flv', '--audio', 'mp3')
        self.assertEqual((summary['video']['action'], summary['audio']['action']),
                         ('copy', 'encode'))
        self.assert_same(hashes(path, 'v'), hashes(clip(FILM), 'v'))
        self.assertEqual(warnings(path), [])
        summary, path = self.transcode(clip(FILM), 'a.mkv', '--video', 'mpeg4')
        self.assertEqual((summary['video']['action'], summary['audio']['action']),
                         ('encode', 'copy'))
        # The first packet lies before the start and only primes the decoder.
        self.assert_same(hashes(path, 'a', copy=True), hashes(clip(FILM), 'a', copy=True)[1:])

    def test_what_is_left_out_is_left_out(self):
        _, path = self.transcode(clip(FILM), 'a.mkv', '--audio', 'none')
        self.assertEqual(list(probe(path)), ['video'])
        _, path = self.transcode(clip(FILM), 'a.mkv', '--video', 'none')
        self.assertEqual(list(probe(path)), ['audio'])


class Distances(TranscodeTest):
    """Copied or encoded, audio keeps its place beside video."""

    WAYS = [('copy', 'copy'), ('copy', 'mp3'), ('mpeg4', 'copy'), ('mpeg4', 'mp3')]

    def check(self, medium, *arguments, expected=None):
        def distance(path):
            return packets(path, 'audio')[0].pts - min(p.pts for p in packets(path, 'video')[:3])
        for video, audio in self.WAYS:
            with self.subTest(medium=medium, video=video, audio=audio):
                _, path = self.transcode(clip(medium), 'a.mkv', '--video', video, '--audio', audio,
                                         *arguments)
                wanted = distance(clip(medium)) if expected is None else expected
                # A packet of audio that only primes a decoder may be left out, and a picture too.
                self.assertAlmostEqual(distance(path), wanted, delta=0.1)

    def test_plain(self):
        self.check(FILM)

    def test_stream_that_begins_late(self):
        self.check('h264_aac.ts')

    def test_one_kind_that_begins_late(self):
        self.check('late_audio.mkv')
        self.check('late_video.mkv')
        self.check('late_video.mp4')

    def test_start_in_the_middle(self):
        self.check(FILM, '--start', '5s', expected=0)


class Decisions(TranscodeTest):
    def test_codec_without_encoder_is_encoded_instead_with_a_line(self):
        done = self.run_host('transcode', clip('hevc_aac.mp4'), self.path('a.ts'), '--video', 'copy')
        self.assert_one_line(done.stderr, 'video hevc cannot be copied into mpegts',
                             'encoded as mpeg2')
        self.assertEqual(warnings(self.path('a.ts')), [])

    def test_both_kinds_without_encoders(self):
        summary, path = self.transcode(clip('vp9_opus.webm'), 'a.mkv', '--video', 'copy',
                                       '--audio', 'copy')
        self.assertEqual(len(summary['notes']), 2)
        self.assertEqual(probe(path)['video']['codec_name'], 'mpeg4')
        self.assertEqual(probe(path)['audio']['codec_name'], 'mp3')

    def test_unasked_a_codec_that_the_format_does_not_take_is_encoded(self):
        summary, _ = self.transcode(clip('vp9_opus.webm'), 'a.flv')
        self.assertEqual((summary['video']['codec'], summary['audio']['codec']), ('flv', 'mp3'))
        self.assertEqual(summary['notes'], [])

    def test_undecodable_video_leaves_audio(self):
        _, path = self.transcode(clip('undecodable_video.mp4'), 'a.mkv')
        self.assertEqual(list(probe(path)), ['audio'])

    def test_errors_are_one_line_with_the_name_of_the_medium(self):
        output = self.path('a.mkv')
        wide = self.make_clip('wide.wav', '-f', 'lavfi', '-i', 'sine=d=1', '-ac', '6', '-c:a',
                              'pcm_s32le')
        for arguments, text in (
                (('missing.mp4', output), 'No such file'),
                ((clip('text.mp4'), output), 'could not be rendered'),
                ((clip('mpeg4_mp3.avi'), output, '--video', 'h264'), 'H.264 can only be copied'),
                ((clip('mpeg4_mp3.avi'), output, '--video', 'vp9'), 'cannot be encoded as vp9'),
                ((clip('mpeg4_mp3.avi'), output, '--audio', 'nosuch'), 'cannot be encoded as nosuch'),
                ((clip('odd_175x143.avi'), output, '--video', 'wmv9'), 'cannot be encoded as wmv9'),
                ((clip('mpeg4_mp3.avi'), output, '--format', 'nosuch', '--video', 'copy', '--audio',
                  'copy'), 'format "nosuch" cannot be written'),
                ((clip('mpeg4_mp3.avi'), output, '--format', 'mp4', '--video', 'copy', '--audio',
                  'copy'), 'format "mp4" does not take mpeg4 with mp3'),
                ((wide, output), 'audio of 6 channels at 32 bits'),
                ((clip('channels_18.wav'), output, '--audio', 'mp3'), 'audio of 18 channels at 16 bits'),
                ((clip('mp3_cbr.mp3'), output, '--audio', 'none'), 'no stream is left')):
            with self.subTest(text):
                self.assert_one_line(self.refused(*arguments), 'zel-host: ' + arguments[0], text)
                self.assertFalse(os.path.exists(output))


class Stretch(TranscodeTest):
    def test_start_and_duration(self):
        for video, audio in (('copy', 'copy'), ('flv', 'mp3'), ('copy', 'mp3')):
            with self.subTest(video=video, audio=audio):
                _, path = self.transcode(clip(FILM), 'a.flv', '--start', '5s', '--duration', '3s',
                                         '--video', video, '--audio', audio)
                self.assertEqual(warnings(path), [])
                self.assertAlmostEqual(seconds(path, 'video'), 3, delta=0.15)
                self.assertLess(abs(packets(path, 'audio')[0].pts - packets(path, 'video')[0].pts),
                                0.12)

    def test_seek_goes_on_with_the_times_of_the_medium(self):
        summary, path = self.transcode(clip(FILM), 'a.flv', '--video', 'flv', '--audio', 'mp3',
                                       '--seek', '8s@2s')
        self.assertEqual(summary['seeks'], [{'targetMs': 8000, 'result': 0}])
        self.assertEqual(warnings(path), [])
        for kind in ('video', 'audio'):
            times = [packet.pts for packet in packets(path, kind)]
            self.assertEqual(times, sorted(times))
            self.assertFalse([time for time in times if 2.1 < time < 7.99])
            self.assertAlmostEqual(times[-1], 11.9, delta=0.1)
        behind = [packet for packet in packets(path, 'video') if packet.pts > 7]
        self.assertTrue(behind[0].key)
        self.assertEqual(len(behind), 98)

    def test_seek_in_copied_streams_begins_with_a_key_frame(self):
        _, path = self.transcode(clip(FILM), 'a.flv', '--seek', '8s@2s')
        video = packets(path, 'video')
        restart = next(n for n in range(1, len(video)) if video[n].dts < video[n - 1].dts)
        self.assertTrue(video[restart].key)
        self.assertEqual(len(video) - restart, 100)

    def test_many_seeks_end(self):
        summary, _ = self.transcode(clip(FILM), 'a.flv', '--video', 'flv', '--audio', 'mp3',
                                    '--duration', '500', *['--seek', '3s', '--seek', '9s'] * 10)
        self.assertEqual(len(summary['seeks']), 20)

    def test_seek_beyond_the_end_is_an_error(self):
        done = self.run_host('transcode', clip(FILM), self.path('a.flv'), '--seek', '1:00:00',
                             status=1)
        self.assert_one_line(done.stderr, FILM, 'Seek to 1:00:00.000 failed')


class Output(TranscodeTest):
    def test_standard_output(self):
        for video in ('copy', 'mpeg4'):
            output = subprocess.run([HOST, 'transcode', clip(FILM), '-', '--format', 'matroska',
                                     '--video', video], env=self.environment, cwd=self.folder,
                                    check=True, capture_output=True)
            with open(self.path('a.mkv'), 'wb') as file:
                file.write(output.stdout)
            self.assertEqual(warnings(self.path('a.mkv')), [])
            self.assertIn(b'took', output.stderr)

    def test_library_log_stays_out_of_standard_output(self):
        self.log_everything()
        process = subprocess.run([HOST, 'transcode', clip(FILM), '-', '--format', 'flv'],
                                 env=self.environment, cwd=self.folder, check=True,
                                 capture_output=True)
        with open(self.path('a.flv'), 'wb') as file:
            file.write(process.stdout)
        self.assertEqual(warnings(self.path('a.flv')), [])

    def test_medium_is_not_written_over(self):
        with open(clip(FILM), 'rb') as source, open(self.path('a.flv'), 'wb') as copy:
            copy.write(source.read())
        os.link(self.path('a.flv'), self.path('b.flv'))
        os.symlink('a.flv', self.path('c.flv'))
        for output in ('a.flv', './a.flv', 'b.flv', 'c.flv'):
            self.assert_one_line(self.refused('a.flv', output), 'the output is the medium itself')
        self.assertEqual(os.path.getsize(self.path('a.flv')), os.path.getsize(clip(FILM)))

    def test_full_disk(self):
        for arguments in ([], ['--video', 'flv', '--audio', 'mp3'], ['--seek', '5s']):
            self.assert_one_line(
                self.refused(clip(FILM), '/dev/full', '--format', 'flv', *arguments),
                '/dev/full: No space left on device')

    def test_disk_that_fills_up_on_the_way(self):
        def limit():
            resource.setrlimit(resource.RLIMIT_FSIZE, (100000, 100000))
        # Without restoring signals the host inherits that the limit sends none.
        done = subprocess.run([HOST, 'transcode', clip(FILM), 'a.flv'], env=self.environment,
                              cwd=self.folder, preexec_fn=limit, restore_signals=False,
                              capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 1)
        self.assert_one_line(done.stderr, 'a.flv: File too large')
        self.assertEqual(os.path.getsize(self.path('a.flv')), 100000)

    def test_folder_that_is_none(self):
        with open(self.path('file'), 'wb'):
            pass
        self.assert_one_line(self.refused(clip(FILM), 'file/a.flv'), 'file/a.flv: Not a directory')

    def test_reader_that_goes_away(self):
        process = self.start_host('transcode', clip('large.mp4'), '-', '--format', 'mpegts',
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        process.stdout.read(1000)
        process.stdout.close()
        errors = process.stderr.read().decode()
        process.stderr.close()
        self.assertEqual(process.wait(), 1)
        self.assert_one_line(errors, 'standard output: Broken pipe')


class Signals(TranscodeTest):
    def test_output_up_to_the_signal_is_whole(self):
        # Nobody reads the output but this test, and the stage holds the writer when a megabyte
        # waits: so the signal comes in mid-stream.
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number):
                process = self.start_host('transcode', clip('large.mp4'), '-', '--format',
                                          'mpegts', stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                start = process.stdout.read(100000)
                process.send_signal(number)
                output = start + process.stdout.read()
                errors = process.stderr.read()
                process.stdout.close()
                process.stderr.close()
                self.assertEqual(process.wait(), 128 + number)
                self.assertIn(b'(interrupted)', errors)
                with open(self.path('a.ts'), 'wb') as file:
                    file.write(output)
                self.assertEqual(warnings(self.path('a.ts')), [])
                self.assertLess(len(output), 5000000)


if __name__ == '__main__':
    unittest.main()
