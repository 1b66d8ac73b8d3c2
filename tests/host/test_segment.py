"""zel-host segment with the real library: each file alone, the play list as a whole."""

import os
import re
import resource
import shutil
import signal
import subprocess
import unittest

from host_process import HOST, HostTest, clip
from streams import hashes, packets, probe, warnings

FILM = 'h264_aac.mp4'  # 12 s, a key frame each second


class SegmentTest(HostTest):
    library = None

    def segment(self, medium, *arguments, status=0):
        return self.run_json('segment', medium, self.path('out'), *arguments, status=status)

    def out(self, name=''):
        return os.path.join(self.folder, 'out', name)

    def play_list(self, name='stream.m3u8'):
        with open(self.out(name), encoding='utf-8') as file:
            return file.read().splitlines()

    def check(self, summary, clip_seconds):
        """What goes for every play list and its files; answers the lengths of the segments."""
        lines = self.play_list(os.path.basename(summary['playList']))
        self.assertEqual(lines[:2], ['#EXTM3U', '#EXT-X-VERSION:3'])
        self.assertEqual(lines[-1], '#EXT-X-ENDLIST')
        files = [line for line in lines if not line.startswith('#')]
        lengths = [float(line[8:-1]) for line in lines if line.startswith('#EXTINF:')]
        self.assertEqual(files, [segment['file'] for segment in summary['segments']])
        self.assertEqual([round(length * 1000000) for length in lengths],
                         [segment['durationUs'] for segment in summary['segments']])
        target = [int(line.split(':')[1]) for line in lines if 'TARGETDURATION' in line]
        self.assertGreaterEqual(target[0], max(lengths))
        self.assertLess(target[0], max(lengths) + 1)
        for length in lengths[:-1]:
            self.assertGreaterEqual(length, clip_seconds - 0.04)
        for file in files:
            self.check_file(file)
        return lengths

    def check_file(self, file):
        """Each segment can be played alone: it begins with a key frame, and nothing is amiss."""
        self.assertEqual(warnings(self.out(file)), [], file)
        video = packets(self.out(file), 'video')
        if video:
            self.assertTrue(video[0].key, file)

    def leftovers(self):
        """What is in the folder beside the list and the segments."""
        return [name for name in os.listdir(self.out())
                if not re.fullmatch(r'stream(-low)?(\.m3u8|-\d{5}\.ts)', name)]


class Copies(SegmentTest):
    def test_segments_are_cut_at_key_frames(self):
        lengths = self.check(self.segment(clip(FILM), '--clip-duration', '3s'), 3)
        self.assertEqual([round(length, 2) for length in lengths], [3, 3, 3, 3.08])

    def test_play_list_plays_whole(self):
        self.segment(clip(FILM), '--clip-duration', '2s')
        self.assertEqual(warnings(self.out('stream.m3u8')), [])
        self.assertEqual(hashes(self.out('stream.m3u8'), 'v'), hashes(clip(FILM), 'v'))
        self.assertEqual(len(packets(self.out('stream.m3u8'), 'audio')), 518)

    def test_times_go_on_from_file_to_file(self):
        summary = self.segment(clip(FILM), '--clip-duration', '2s')
        times = [packet.dts for segment in summary['segments']
                 for packet in packets(self.out(segment['file']), 'video')]
        self.assertEqual({round((b - a) * 1000) for a, b in zip(times, times[1:])}, {40})

    def test_ten_seconds_are_the_usual_length(self):
        lengths = self.check(self.segment(clip(FILM)), 10)
        self.assertEqual(round(lengths[0]), 10)
        self.assertEqual(len(lengths), 2)

    def test_segments_last_until_the_next_key_frame(self):
        lengths = self.check(self.segment(clip(FILM), '--clip-duration', '1.5s'), 1.5)
        self.assertEqual({round(length, 2) for length in lengths[:-1]}, {2.0})

    def test_other_media(self):
        for medium in ('h264_aac.ts', 'h264_vfr.mkv', 'mpeg2_mp2.mpg', 'mpeg2_ac3.ts'):
            with self.subTest(medium):
                summary = self.segment(clip(medium), '--clip-duration', '2s')
                self.assertEqual(summary['video']['action'], 'copy')
                self.check(summary, 2)
                self.assertEqual(warnings(self.out('stream.m3u8')), [])
                shutil.rmtree(self.out())

    def test_open_groups_of_pictures_play_as_a_whole(self):
        # Not each alone: parameter sets stand in front of the first picture only.
        self.segment(clip('h264_open_gop.mp4'), '--clip-duration', '2s')
        self.assertEqual(warnings(self.out('stream.m3u8')), [])
        self.assertEqual(hashes(self.out('stream.m3u8'), 'v'),
                         hashes(clip('h264_open_gop.mp4'), 'v'))

    def test_audio_alone_is_cut_by_its_length(self):
        lengths = self.check(self.segment(clip('mp3_cbr.mp3'), '--clip-duration', '2s'), 2)
        self.assertEqual(len(lengths), 3)
        self.assertEqual(warnings(self.out('stream.m3u8')), [])
        shutil.rmtree(self.out())
        lengths = self.check(self.segment(clip(FILM), '--clip-duration', '5s', '--video', 'none'), 5)
        self.assertEqual(len(lengths), 3)

    def test_start_and_duration(self):
        summary = self.segment(clip(FILM), '--clip-duration', '2s', '--start', '5s', '--duration',
                               '4s')
        lengths = self.check(summary, 2)
        self.assertAlmostEqual(sum(lengths), 4, delta=0.15)


class Encodes(SegmentTest):
    def check_encoded(self, medium, clip_seconds, *arguments, most):
        summary = self.segment(medium, '--clip-duration', f'{clip_seconds}s', *arguments)
        self.assertEqual(summary['video']['action'], 'encode')
        lengths = self.check(summary, clip_seconds)
        self.assertLessEqual(max(lengths), most)
        self.assertEqual(warnings(self.out('stream.m3u8')), [])
        shutil.rmtree(self.out())
        return lengths

    def test_each_segment_begins_with_a_forced_key_frame(self):
        lengths = self.check_encoded(clip(FILM), 3, '--video', 'mpeg4', '--audio', 'mp3', most=3.01)
        self.assertEqual(len(lengths), 4)

    def test_also_when_the_stage_lowers_the_frame_rate(self):
        # 24 pictures a second are made of 25, 30, 50 and 60: some forced key frames are left out.
        for rate in (25, 30, 50, 60):
            with self.subTest(rate):
                film = self.path(f'{rate}.mkv')
                subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', '-f', 'lavfi', '-i',
                                f'testsrc2=s=176x144:r={rate}:d=9', '-c:v', 'mjpeg', film],
                               check=True)
                self.check_encoded(film, 2, '--video', 'mpeg2', most=4)

    def test_also_at_a_broken_rate(self):
        film = self.path('a.mkv')
        subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', '-f', 'lavfi', '-i',
                        'testsrc2=s=176x144:r=30000/1001:d=9', '-c:v', 'mjpeg', film], check=True)
        lengths = self.check_encoded(film, 2, '--video', 'mpeg4', most=2.1)
        self.assertEqual(len(lengths), 5)

    def test_also_at_a_lower_rate_of_the_user(self):
        for rate in ('10', '12.5', '15', '20', '24', '30'):
            with self.subTest(rate):
                self.check_encoded(clip(FILM), 2, '--video', 'mpeg4', '--audio', 'none', '--fps',
                                   rate, most=3.1)

    def test_copied_pictures_with_encoded_audio(self):
        summary = self.segment(clip(FILM), '--clip-duration', '3s', '--audio', 'mp3')
        self.check(summary, 3)
        self.assertEqual(hashes(self.out('stream.m3u8'), 'v'), hashes(clip(FILM), 'v'))


class Fallback(SegmentTest):
    def test_nothing_is_copied_and_the_files_have_names_of_their_own(self):
        self.segment(clip(FILM), '--clip-duration', '5s')
        summary = self.segment(clip(FILM), '--clip-duration', '5s', '--fallback', '100k')
        self.check(summary, 5)
        self.assertEqual((summary['video']['action'], summary['audio']['action']),
                         ('encode', 'encode'))
        self.assertEqual(probe(self.out('stream-low-00001.ts'))['video']['width'], 320)
        self.assertEqual(self.leftovers(), [])
        self.assertIn('stream-00001.ts', self.play_list())
        self.assertIn('stream-low-00001.ts', self.play_list('stream-low.m3u8'))

    def test_total_of_64_makes_small_pictures(self):
        self.segment(clip(FILM), '--fallback', '32k')
        video = probe(self.out('stream-low-00001.ts'))['video']
        self.assertEqual((video['width'], video['height']), (160, 120))

    def test_kept_files_have_the_total_rate_in_their_names(self):
        summary = self.segment(clip(FILM), '--fallback', '100k', '--keep')
        names = os.listdir(os.path.join(summary['kept'], 'ZelStreamCache'))
        self.assertIn('segment-1-1-low-132000.ts', names)


class Seeks(SegmentTest):
    def test_list_has_a_discontinuity_and_every_file_still_plays(self):
        for video, audio in (('copy', 'copy'), ('mpeg4', 'mp3'), ('mpeg4', 'copy'),
                             ('copy', 'mp3')):
            with self.subTest(video=video, audio=audio):
                summary = self.segment(clip(FILM), '--clip-duration', '2s', '--seek', '9s@5s',
                                       '--video', video, '--audio', audio)
                lengths = self.check(summary, 2)
                self.assertEqual([segment['afterSeek'] for segment in summary['segments']][:4],
                                 [False, False, True, False][:len(lengths)])
                self.assertEqual(self.play_list().count('#EXT-X-DISCONTINUITY'), 1)
                self.assertEqual(summary['segments'][2]['startUs'], 9000000)
                self.assertAlmostEqual(sum(lengths[2:]), 3, delta=0.1)
                behind = self.out(summary['segments'][2]['file'])
                self.assertAlmostEqual(packets(behind, 'audio')[0].pts,
                                       packets(behind, 'video')[0].pts, delta=0.15)
                shutil.rmtree(self.out())

    def test_seek_back_makes_no_file_vanish(self):
        for video, audio in (('copy', 'copy'), ('mpeg4', 'mp3')):
            with self.subTest(video):
                summary = self.segment(clip(FILM), '--clip-duration', '2s', '--seek', '2s@7s',
                                       '--video', video, '--audio', audio)
                self.check(summary, 2)
                self.assertEqual(len(summary['segments']), 3 + 5)
                shutil.rmtree(self.out())


class Folders(SegmentTest):
    def test_nothing_else_is_left(self):
        self.segment(clip(FILM), '--clip-duration', '2s')
        self.assertEqual(self.leftovers(), [])

    def test_missing_folders_are_made(self):
        self.run_host('segment', clip(FILM), self.path('a/b/c'))
        self.assertIn('stream.m3u8', os.listdir(self.path('a/b/c')))

    def test_kept_files_of_the_stage_are_the_same_files(self):
        summary = self.segment(clip(FILM), '--clip-duration', '4s', '--keep', '--option',
                               'sessionID=7')
        cache = os.path.join(summary['kept'], 'ZelStreamCache')
        self.assertEqual(self.leftovers(), [os.path.basename(summary['kept'])])
        for n, segment in enumerate(summary['segments'], 1):
            self.assertTrue(os.path.samefile(os.path.join(cache, f'segment-7-{n}.ts'),
                                             self.out(segment['file'])))

    def test_older_segments_are_written_over(self):
        self.segment(clip(FILM), '--clip-duration', '2s')
        self.check(self.segment(clip(FILM), '--clip-duration', '4s'), 4)

    def test_medium_is_not_written_over(self):
        self.segment(clip(FILM), '--clip-duration', '4s')
        before = os.path.getsize(self.out('stream-00001.ts'))
        done = self.run_host('segment', self.out('stream-00001.ts'), self.out(), status=1)
        self.assert_one_line(done.stderr, 'the output is the medium itself')
        self.assertEqual(os.path.getsize(self.out('stream-00001.ts')), before)

    def test_folder_that_cannot_be_is_one_line(self):
        with open(self.path('file'), 'wb'):
            pass
        for folder in ('file', 'file/below'):
            done = self.run_host('segment', clip(FILM), folder, status=1)
            self.assert_one_line(done.stderr, f'zel-host: {folder}', 'Not a directory')

    def test_disk_that_fills_up_is_one_line(self):
        def limit():
            resource.setrlimit(resource.RLIMIT_FSIZE, (100000, 100000))
        for arguments in ([], ['--video', 'mpeg4', '--audio', 'mp3']):
            # Without restoring signals the host inherits that the limit sends none.
            done = subprocess.run([HOST, 'segment', clip(FILM), 'out', *arguments],
                                  env=self.environment, cwd=self.folder, preexec_fn=limit,
                                  restore_signals=False, capture_output=True, text=True,
                                  check=False)
            self.assertEqual(done.returncode, 1)
            self.assert_one_line(done.stderr, 'stream-00001.ts', 'the disk may be full')
            self.assertEqual(self.leftovers(), ['stream-00001.ts'][:0])

    def test_errors_are_one_line(self):
        for arguments, text in (
                (('missing.mp4',), 'No such file'),
                ((clip('mpeg4_mp3.avi'), '--video', 'h264'), 'H.264 can only be copied'),
                ((clip(FILM), '--fallback', '64k', '--video', 'h264'), 'H.264 can only be copied')):
            done = self.run_host('segment', arguments[0], 'out', *arguments[1:], status=1)
            self.assert_one_line(done.stderr, arguments[0], text)
            self.assertEqual(os.listdir(self.out()), [])

    def test_wrong_use_is_one_line(self):
        for arguments in ([], ['a'], ['a', 'b', '--clip-duration', '0'],
                          ['a', 'b', '--clip-duration', '2:00:00'], ['a', 'b', '--fallback', 'x'],
                          ['a', 'b', '--format', 'flv']):
            done = self.run_host('segment', *arguments, status=1)
            self.assert_one_line(done.stderr, 'zel-host: ')


class Live(SegmentTest):
    """The medium is a pipe that never ends, so that the test knows where the host is."""

    WAYS = (['--video', 'copy', '--audio', 'copy'], ['--video', 'mpeg4', '--audio', 'mp3'])

    def start(self, *arguments):
        """The host, when it has written its first segment."""
        os.mkfifo(self.path('live.ts'))
        source = subprocess.Popen(
            ['ffmpeg', '-nostdin', '-v', 'quiet', '-f', 'lavfi', '-i', 'testsrc2=s=160x120:r=25',
             '-f', 'lavfi', '-i', 'sine=r=48000', '-c:v', 'mpeg2video', '-g', '25', '-c:a', 'mp2',
             '-y', self.path('live.ts')])
        self.addCleanup(source.wait)
        self.addCleanup(source.kill)
        process = self.start_host('segment', 'live.ts', 'out', '--clip-duration', '1s', *arguments,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        while not os.path.exists(self.out('stream.m3u8')):
            self.assertIsNone(process.poll())
        return process

    def end(self, process):
        output, errors = process.communicate()
        os.remove(self.path('live.ts'))
        return process.returncode, output, errors

    def files(self):
        return [line for line in self.play_list() if not line.startswith('#')]

    def test_list_can_be_followed_while_it_grows(self):
        for way in self.WAYS:
            with self.subTest(way):
                process = self.start(*way)
                lines = self.play_list()
                self.assertIn('#EXT-X-PLAYLIST-TYPE:EVENT', lines)
                self.assertNotIn('#EXT-X-ENDLIST', lines)
                for file in self.files()[:3]:
                    self.check_file(file)
                process.terminate()
                self.assertEqual(self.end(process)[0], 128 + signal.SIGTERM)
                self.assertEqual(self.play_list()[-1], '#EXT-X-ENDLIST')
                shutil.rmtree(self.out())

    def test_folder_that_vanishes_is_one_line(self):
        for way in self.WAYS:
            with self.subTest(way):
                process = self.start(*way)
                # Again and again, since the host makes files while the folder is emptied.
                while os.path.exists(self.out()):
                    shutil.rmtree(self.out(), ignore_errors=True)
                status, _, errors = self.end(process)
                self.assertEqual(status, 1)
                self.assert_one_line(errors, 'zel-host: out')

    def test_signal_finishes_segment_and_list(self):
        for way in self.WAYS:
            with self.subTest(way):
                process = self.start(*way)
                process.send_signal(signal.SIGINT)
                status, output, _ = self.end(process)
                self.assertEqual(status, 130)
                self.assertIn('(interrupted)', output)
                self.assertEqual(self.play_list()[-1], '#EXT-X-ENDLIST')
                self.assertEqual(self.leftovers(), [])
                for file in self.files()[-2:]:
                    self.check_file(file)
                shutil.rmtree(self.out())


if __name__ == '__main__':
    unittest.main()
