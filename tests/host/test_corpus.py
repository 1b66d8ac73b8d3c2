"""Every medium of the corpus through `zel-host transcode`, and the result through ffmpeg.

Streams are copied where the container takes them and encoded elsewhere. What ffmpeg complains about
in the medium itself is nobody's fault here, so such media only have to end in order.
"""
import json
import os
import subprocess
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from tempfile import TemporaryDirectory

CORPUS = os.environ.get("ZEL_CORPUS", "")
HOST = os.environ["ZEL_HOST"]

# The header's array has no end mark on purpose; a stream without an end time has no duration.
REMARKS = ("Missing AMF_END_OF_OBJECT", "Estimating duration from bitrate", "Guessed Channel Layout")

# Media of which less is left than an encoder or a reader needs to say anything.
TOO_SHORT = {
    "androidx-media__sample_with_opus_audio.mkv": "two frames of audio, which the encoder holds",
    "Zeugma440-atldotnet__aiff.aiff": "two frames of audio, which the encoder holds",
    "videojs-http-streaming__audioMaxOffset.ts": "the input delivers nothing of it",
    "androidx-media__sample_unrecognized_hevc_sei.mp4": "the input delivers no picture of it",
    "ruffle-rs-ruffle__test.mov": "one picture, too little to tell a transport stream by",
}

# Media whose pictures get times that ffmpeg rounds to the same frame, with the reason.
UNEVEN = {
    "bower-media-samples-big-buck-bunny-480p-5s__video.mp4":
        "as in ffmpeg's own copy: milliseconds do not divide into 24 frames a second",
    "androidx-media__sample_with_htc_rotation_track_name.mkv": "told to have twice its frame rate",
    "androidx-media__sample.mkv": "told to have twice its frame rate",
    "androidx-media__sample.flv": "told to have twice its frame rate",
    "androidx-media__sample_with_vorbis_audio.mkv": "told to have twice its frame rate",
    "androidx-media__sample_with_overlapping_ssa_subtitles.mkv":
        "told to have twice its frame rate",
    "androidx-media__sample-with-key-frame-index.flv":
        "the start time is taken off decoding times, so the first ones are all 0",
}

# Media that the input does not play, or whose audio only a resampler in front could prepare.
REFUSALS = ("File could not be rendered", "channels at", "nothing came out of the encoder stage",
            "no such encoder, or it does not take this size or rate")


def complaints(path):
    """What ffmpeg says about decoding a file, and its exit status."""
    result = subprocess.run(["ffmpeg", "-nostdin", "-v", "warning", "-i", path, "-map", "0:v?",
                             "-map", "0:a?", "-f", "null", "-"],
                            capture_output=True, text=True, errors="replace", check=False)
    return result.returncode, [line for line in result.stderr.splitlines()
                               if not any(remark in line for remark in REMARKS)]


@unittest.skipUnless(CORPUS, "this machine has no corpus")
class Corpus(unittest.TestCase):
    def transcode(self, entry, container, folder):
        """Answers what is wrong, or an empty text."""
        medium = str(Path(CORPUS) / entry["file"])
        name = Path(medium).name
        output = str(Path(folder) / f"{entry['number']}.{container}")
        result = subprocess.run([HOST, "transcode", medium, output, "--format", container],
                                capture_output=True, text=True, errors="replace", check=False)
        if result.returncode != 0:
            # One line says why; the lines before it, that streams could not be copied.
            lines = result.stderr.splitlines()
            if (result.returncode != 1 or not lines
                    or any("cannot be copied" not in line for line in lines[:-1])):
                return f"{name}: exit status {result.returncode}: {result.stderr}"
            if any(words in result.stderr for words in REFUSALS):
                return ""
            return f"{name}: {result.stderr}"
        status, lines = complaints(output)
        os.remove(output)
        if name in UNEVEN:
            lines = [line for line in lines if "non monotonically increasing" not in line]
        if name in TOO_SHORT or (status == 0 and not lines) or not entry["decodes_cleanly"]:
            return ""
        if complaints(medium) != (0, []):
            return ""
        return f"{name}: {status} {lines[:3]}"

    def expect_all(self, container):
        entries = json.loads((Path(CORPUS) / "manifest.json").read_text())
        for number, entry in enumerate(entries):
            entry["number"] = number
        with TemporaryDirectory() as folder, ThreadPoolExecutor(2) as pool:
            wrong = pool.map(lambda entry: self.transcode(entry, container, folder), entries)
            self.assertEqual([text for text in wrong if text], [])

    def test_every_medium_becomes_matroska(self):
        self.expect_all("matroska")

    def test_every_medium_becomes_flv(self):
        self.expect_all("flv")

    def test_every_medium_becomes_a_transport_stream(self):
        self.expect_all("mpegts")


if __name__ == "__main__":
    unittest.main()
