"""What ffprobe and ffmpeg say about a file that zel-host wrote."""

import collections
import json
import re
import subprocess

# What FFmpeg says of any file of this kind, whoever wrote it: our FLV header lacks an end marker on
# purpose, the lengths of some formats stand nowhere, DVD begins with a packet of its own.
USUAL = re.compile(r'AMF_END_OF_OBJECT|Estimating duration from bitrate|Guessed Channel Layout|'
                   r'estimate_timings_from_pts')

Packet = collections.namedtuple('Packet', 'kind pts dts key size')


def probe(path):
    """Codec names and shapes of the streams, by kind."""
    done = subprocess.run(['ffprobe', '-v', 'error', '-show_streams', '-of', 'json', path],
                          check=True, capture_output=True)
    return {stream['codec_type']: stream for stream in json.loads(done.stdout)['streams']}


def packets(path, kind=None):
    """All packets in the order of the file, times in seconds or None."""
    done = subprocess.run(['ffprobe', '-v', 'error', '-show_entries',
                           'packet=codec_type,pts_time,dts_time,flags,size', '-of', 'json', path],
                          check=True, capture_output=True)

    def time(text):
        return None if text is None else float(text)
    rows = [Packet(row['codec_type'], time(row.get('pts_time')), time(row.get('dts_time')),
                   'K' in row['flags'], int(row['size']))
            for row in json.loads(done.stdout)['packets']]
    return [row for row in rows if kind in (None, row.kind)]


def warnings(path, *options):
    """What ffmpeg has to say about decoding all of a file."""
    done = subprocess.run(['ffmpeg', '-nostdin', '-v', 'warning', *options, '-i', path, '-map', '0',
                           '-fps_mode', 'passthrough', '-enc_time_base', '-1', '-f', 'null', '-'],
                          capture_output=True, text=True, check=False)
    lines = [line for line in done.stderr.splitlines() if not USUAL.search(line)]
    return lines if done.returncode == 0 else lines + [f'status {done.returncode}']


def hashes(path, kind, *options, copy=False):
    """MD5 of each decoded picture or block of samples, or of each packet, in order."""
    done = subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', '-i', path, '-map', f'0:{kind}:0',
                           *(['-c', 'copy'] if copy else []), '-fps_mode', 'passthrough', *options,
                           '-f', 'framemd5', '-'], check=True, capture_output=True, text=True)
    return [line.split(',')[5].strip() for line in done.stdout.splitlines()
            if not line.startswith('#')]


def steps(times):
    """Distances of presentation times in milliseconds, in the order of presentation."""
    times = sorted(times)
    return [round((b - a) * 1000) for a, b in zip(times, times[1:])]


def seconds(path, kind):
    """From the first presentation time to the last."""
    times = [packet.pts for packet in packets(path, kind) if packet.pts is not None]
    return max(times) - min(times)
