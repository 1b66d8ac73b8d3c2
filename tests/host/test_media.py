"""zel-host with the real library and real media, against what ffmpeg makes of the same files."""

import os
import signal
import struct
import subprocess
import unittest
import wave
import zlib

from host_process import HostTest, clip, ffmpeg, md5


def png_rows(path):
    """Width, height and RGB bytes of a PNG, by the file format alone; every checksum is tested."""
    with open(path, 'rb') as file:
        data = file.read()
    assert data[:8] == b'\x89PNG\r\n\x1a\n'
    chunks, place = {}, 8
    while place < len(data):
        length, name = struct.unpack('>I4s', data[place:place + 8])
        body = data[place + 8:place + 8 + length]
        checksum, = struct.unpack('>I', data[place + 8 + length:place + 12 + length])
        assert checksum == zlib.crc32(name + body)
        chunks[name] = chunks.get(name, b'') + body
        place += 12 + length
    assert place == len(data) and b'IEND' in chunks
    width, height, depth, colour = struct.unpack('>IIBB', chunks[b'IHDR'][:10])
    assert (depth, colour) == (8, 2)
    packed, stride = zlib.decompress(chunks[b'IDAT']), 3 * width + 1
    above, rows = bytearray(stride - 1), []
    for y in range(height):
        kind, row = packed[y * stride], bytearray(packed[y * stride + 1:(y + 1) * stride])
        for x in range(stride - 1):
            left = row[x - 3] if x >= 3 else 0
            corner = above[x - 3] if x >= 3 else 0
            row[x] = (row[x] + predicted(kind, left, above[x], corner)) & 0xFF
        above = row
        rows.append(bytes(row))
    return width, height, b''.join(rows)


def predicted(kind, left, up, corner):
    if kind == 4:
        guess = left + up - corner
        return min((abs(guess - left), 0, left), (abs(guess - up), 1, up),
                   (abs(guess - corner), 2, corner))[2]
    return (0, left, up, (left + up) // 2)[kind]


class RealTest(HostTest):
    library = None  # the one beside the host


class Probe(RealTest):
    def test_json_describes_medium_and_streams(self):
        result = self.run_json('probe', clip('h264_aac.mp4'))
        medium = result['medium']
        self.assertEqual((medium['title'], medium['artist'], medium['album']),
                         ('Test Film', 'The Makers', 'First Reel'))
        self.assertEqual(medium['durationMs'], 12000)
        self.assertEqual(medium['fileSize'], os.path.getsize(clip('h264_aac.mp4')))
        self.assertEqual((medium['seekable'], medium['live']), (True, False))
        self.assertEqual(result['input']['format'], 'mov')
        self.assertEqual(result['input']['video']['codec'], 'h264')
        self.assertEqual(result['input']['audio']['codec'], 'aac')
        video, audio = result['output']['video'], result['output']['audio']
        self.assertEqual((video['codec'], video['width'], video['height'], video['frameRate']),
                         ('raw', 320, 240, 25.0))
        self.assertEqual(video['pixelFormat'], 'yuyv422')
        self.assertEqual(video['sampleSize'], 320 * 240 * 2)
        self.assertEqual((audio['sampleRate'], audio['channels'], audio['bitsPerSample']),
                         (44100, 2, 16))

    def test_table_says_the_same_to_people(self):
        text = self.run_host('probe', clip('h264_aac.mp4')).stdout
        self.assertRegex(text, r'title +Test Film\n')
        self.assertRegex(text, r'duration +0:12\.000\n')
        self.assertRegex(text, r'video +h264, 320x240, 25 fps')
        self.assertRegex(text, r'audio +aac, 44100 Hz, stereo')
        self.assertRegex(text, r'read as +raw 16 bits, 44100 Hz, stereo')

    def test_kind_that_is_not_there_is_not_shown(self):
        result = self.run_json('probe', clip('video_only.mp4'))
        self.assertNotIn('audio', result['output'])
        result = self.run_json('probe', clip('aac.m4a'))
        self.assertNotIn('video', result['output'])

    def test_medium_without_duration_is_live(self):
        result = self.run_json('probe', clip('mjpeg.mjpeg'))
        self.assertTrue(result['medium']['live'])
        self.assertIn('unknown (live)', self.run_host('probe', clip('mjpeg.mjpeg')).stdout)

    def test_name_with_a_colon_is_a_file(self):
        os.symlink(clip('wav_s16.wav'), self.path('http:a.wav'))
        self.assertEqual(self.run_json('probe', 'http:a.wav')['output']['audio']['channels'], 2)


class BadMedia(RealTest):
    REASONS = {
        'missing.mp4': 'No such file or directory',
        'folder.mp4': 'Is a directory',
        'empty.mp4': 'The file is empty',
        'text.mp4': 'File could not be rendered.',
        'noise.mp4': 'File could not be rendered.',
        'half_h264_aac.mp4': 'File could not be rendered.',
        'header_mpeg4_mp3.avi': 'File could not be rendered.',
    }

    def test_each_gives_one_line_with_its_name_and_the_reason(self):
        for name, reason in self.REASONS.items():
            for command in ('probe', 'play'):
                with self.subTest(name=name, command=command):
                    done = self.run_host(command, clip(name), '--json', status=1)
                    self.assert_one_line(done.stderr, clip(name), reason)
                    self.assertEqual(done.stdout, '')


class AgainstFFmpeg(RealTest):
    PICTURES = ('h264_cavlc.mp4', 'mjpeg.avi', 'video_only.mp4', 'odd_175x143.avi',
                'h264_yuvj420p.mp4', 'palette.gif')
    SAMPLES = {'wav_u8.wav': 'u8', 'wav_s16.wav': 's16le', 'wav_s24.wav': 's32le',
               'wav_s32.wav': 's32le', 'wav_mono_8k.wav': 's16le', 'flac_16.flac': 's16le',
               'flac_24.flac': 's32le', 'channels_18.wav': 's16le', 'mjpeg.avi': 's16le'}

    def test_pictures_are_those_of_ffmpeg_bit_for_bit(self):
        for name in self.PICTURES:
            with self.subTest(name=name):
                lines = ffmpeg('-i', clip(name), '-an', '-vf', 'scale=flags=bilinear',
                               '-pix_fmt', 'yuyv422', '-f', 'framemd5', '-vsync', 'passthrough')
                expected = [line.split()[-1] for line in lines.decode().splitlines()
                            if not line.startswith('#')]
                rows = [row for row in self.frame_lines(clip(name)) if row[0] == 'video']
                self.assertTrue(rows)
                # The decoder still holds its last pictures when the medium ends.
                self.assertEqual([row[3] for row in rows], expected[:len(rows)])
                self.assertLessEqual(len(expected) - len(rows), 2)

    def test_wav_holds_the_samples_of_ffmpeg(self):
        for name, form in self.SAMPLES.items():
            with self.subTest(name=name):
                expected = ffmpeg('-i', clip(name), '-vn', '-f', form)
                self.run_host('play', clip(name), '--wav', self.path('a.wav'))
                self.assertEqual(ffmpeg('-i', self.path('a.wav'), '-f', form), expected)

    def test_lines_of_audio_are_the_hashes_of_its_pieces(self):
        samples = ffmpeg('-i', clip('flac_16.flac'), '-f', 's16le')
        place = 0
        for _, at, size, digest in self.frame_lines(clip('flac_16.flac')):
            self.assertEqual(at // 1000, place * 1000 // (44100 * 4))
            self.assertEqual(digest, md5(samples[place:place + size]))
            place += size
        self.assertEqual(place, len(samples))

    def test_png_shows_the_picture(self):
        self.run_host('play', clip('mjpeg.avi'), '--pictures', self.path('out'), '--every', '40')
        self.assertEqual(sorted(os.listdir(self.path('out'))),
                         ['picture-000001.png', 'picture-000041.png', 'picture-000081.png'])
        width, height, pixels = png_rows(self.path('out/picture-000041.png'))
        self.assertEqual((width, height), (320, 240))
        expected = ffmpeg('-i', clip('mjpeg.avi'), '-vf',
                          'scale=flags=bilinear,format=yuyv422,scale=flags=bicubic,format=rgb24,'
                          'select=eq(n\\,40)', '-frames:v', '1', '-f', 'rawvideo')
        self.assertEqual(pixels, expected)


class Options(RealTest):
    def test_leaving_a_kind_out_changes_nothing_in_the_other(self):
        for name in ('h264_aac.mp4', 'mpeg2_ac3.ts', 'wmv2_wma2.asf'):
            rows = self.frame_lines(clip(name))
            self.assertEqual(self.frame_lines(clip(name), '--no-video'),
                             [row for row in rows if row[0] == 'audio'])
            self.assertEqual(self.frame_lines(clip(name), '--no-audio'),
                             [row for row in rows if row[0] == 'video'])

    def test_copies_are_the_packets_of_the_medium(self):
        result = self.play_json(clip('h264_aac.mp4'), '--copy-video', '--copy-audio')
        self.assertEqual(result['output']['video']['codec'], 'h264')
        self.assertEqual(result['output']['audio']['codec'], 'aac')
        # The first video packet is the codec's set-up.
        self.assertEqual(result['video']['frames'], 300 + 1)
        self.assertEqual(result['audio']['frames'], 518)

    def test_key_frames_alone(self):
        result = self.play_json(clip('h264_aac.mp4'), '--keyframes')
        self.assertEqual(result['video']['frames'], result['video']['keyFrames'])
        self.assertIn(result['video']['frames'], (10, 11, 12))

    def test_again_gives_the_same_once_more(self):
        passes = self.run_json('play', clip('mpeg2_mp2.mpg'), '--again')['passes']
        for kind in ('video', 'audio'):
            self.assertEqual(passes[0][kind], passes[1][kind])

    def test_start_and_duration_play_a_stretch(self):
        result = self.play_json(clip('h264_aac.mp4'), '--start', '5s', '--duration', '2s')
        self.assertGreaterEqual(result['video']['firstUs'], 5000000)
        self.assertLess(result['video']['lastUs'], 7000000)
        self.assertLess(result['audio']['lastUs'], 7000000)
        self.assertGreater(result['audio']['lastUs'], 6900000)

    def test_seek_lands_at_or_behind_its_target(self):
        result = self.play_json(clip('h264_aac.mkv'), '--seek', '7s', '--seek', '2.5s',
                                '--seek', '9s')
        self.assertEqual(len(result['seeks']), 3)
        for seek in result['seeks']:
            self.assertEqual(seek['result'], 0)
            self.assertGreaterEqual(seek['firstVideoUs'], seek['targetMs'] * 1000)

    def test_seek_beyond_the_end_is_an_error(self):
        done = self.run_host('play', clip('h264_aac.mp4'), '--seek', '99s', status=1)
        self.assert_one_line(done.stderr, clip('h264_aac.mp4'), 'Seek to 1:39.000 failed')

    def test_change_of_channels_begins_a_second_wav(self):
        self.run_host('play', clip('channel_change_mp2.ts'), '--wav', self.path('a.wav'))
        for name, channels in (('a.wav', 1), ('a-2.wav', 2)):
            with wave.open(self.path(name)) as file:
                self.assertEqual(file.getnchannels(), channels)
                self.assertAlmostEqual(file.getnframes() / 48000, 4, delta=0.2)

    def test_log_of_the_library_stays_out_of_the_output(self):
        self.log_everything()
        plain = self.run_host('play', clip('h264_aac.mp4'), '--framemd5').stdout
        logged = self.run_host('play', clip('h264_aac.mp4'), '--framemd5', '--log',
                               self.path('log')).stdout
        self.assertEqual(plain, logged)
        with open(self.path('log'), encoding='utf-8', errors='replace') as file:
            self.assertIn('FFMpegInput::open', file.read())

    def test_ctrl_c_leaves_a_readable_wav(self):
        self.log_everything()
        process = self.start_host('play', clip('h264_aac.mp4'), '--realtime', '--wav',
                                  self.path('a.wav'), '--log', '-', stdout=subprocess.DEVNULL,
                                  stderr=subprocess.PIPE, text=True)
        for line in process.stderr:
            if 'FFMpegInput : read timestamp' in line:
                process.send_signal(signal.SIGINT)
        process.stderr.close()
        self.assertEqual(process.wait(), 130)
        with wave.open(self.path('a.wav')) as file:
            self.assertEqual((file.getframerate(), file.getnchannels()), (44100, 2))
            self.assertLess(file.getnframes(), 12 * 44100)

    def test_progress_runs_to_the_end_on_a_terminal(self):
        status, output, shown = self.run_on_terminal('play', clip('h264_aac.mp4'))
        self.assertEqual(status, 0)
        self.assertIn('0:12.000', shown)
        self.assertIn('video', output)


if __name__ == '__main__':
    unittest.main()
