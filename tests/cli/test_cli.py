#!/usr/bin/python3
"""Runs the built zeptick binary: per-channel counts of inspect against the
generator's own tally, and exit status plus message on bad usage."""
import collections
import json
import pathlib
import re
import shlex
import signal
import struct
import subprocess
import sys
import tempfile
import unittest

TOOLS = sys.argv.pop(1)


def run(*args):
    return subprocess.run([f"{TOOLS}/{args[0]}", *args[1:]], capture_output=True, text=True)


def channel_counts(text):
    return {int(c): int(n) for c, n in re.findall(r"channel\s+(\d+):\s+(\d+)", text)}


class Cli(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        """30 ms of generated recording in split files, channel 2 lagging 1 by 3.7 ns."""
        cls.tmp = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.tmp.cleanup)
        cls.recording = f"{cls.tmp.name}/rec.ztbin"
        gen = run("zeptick-generate-recording", cls.recording, "--duration-ms", "30",
                  "--max-file-size", "200000", "--delay-ps", "3700")
        assert gen.returncode == 0, gen.stderr
        cls.counts = {int(c): int(n) for c, n in re.findall(r"channel (\d+): (\d+) events",
                                                            gen.stdout)}

    def ok(self, *args):
        """Runs the tool, which must succeed; returns its output."""
        out = run(*args)
        self.assertEqual(out.returncode, 0, out.stdout + out.stderr)
        return out

    def test_inspect_and_export_match_the_generator(self):
        path, tmp = self.recording, self.tmp.name
        out = self.ok("zeptick", "inspect", path)
        self.assertEqual(channel_counts(out.stdout), self.counts)
        self.assertIn("overflow spans:  0", out.stdout)

        # Export all, then channels 1 and 3 from one tag of channel 3 to a later one: a brute-force
        # filter of the full export (times from its first tag), the end tag excluded.
        full, part = f"{tmp}/all.csv", f"{tmp}/part.csv"
        self.ok("zeptick", "export", path, "--to", full)
        rows = [tuple(map(int, r.split(","))) for r in pathlib.Path(full).read_text().split()[1:]]
        self.assertEqual(collections.Counter(r[1] for r in rows if r[0] == 0), self.counts)
        t0 = rows[0][2]
        begin, end = [r[2] for r in rows if r[1] == 3][100:401:300]
        self.ok("zeptick", "export", path, "--to", part, "--channels", "1,3", "--begin",
                f"{begin - t0}ps", "--duration", f"{end - begin}ps")
        want = [r for r in rows if r[1] in (1, 3) and begin <= r[2] < end]
        got = [tuple(map(int, r.split(","))) for r in pathlib.Path(part).read_text().split()[1:]]
        self.assertEqual(got, want)

        # HDF5: the same tags as the full CSV export, field by field, read back by h5py.
        h5 = f"{tmp}/all.h5"
        self.ok("zeptick", "export", path, "--to", h5)
        import h5py
        with h5py.File(h5, "r") as f:
            columns = [f[k][:].tolist() for k in ("type", "channel", "time", "missed_events")]
            self.assertEqual(list(zip(*columns)), rows)
            self.assertEqual(f.attrs["time_unit"], "ps")
            self.assertIn("generator", json.loads(f.attrs["configuration"]))

    def test_histogram_and_correlation_peak_at_the_generated_delay(self):
        out = self.ok("zeptick", "histogram", self.recording, "--binwidth", "20ps", "--bins", "500")
        bins = [tuple(map(int, r.split(","))) for r in out.stdout.split()[1:]]
        self.assertEqual(len(bins), 500)
        near = [(b, c) for b, c in bins if abs(b + 10 - 3700) < 200]
        centroid = sum((b + 10) * c for b, c in near) / sum(c for _, c in near)
        self.assertLess(abs(centroid - 3700), 10)
        self.assertGreater(sum(c for _, c in near), 0.5 * sum(c for _, c in bins))

        out = self.ok("zeptick", "replay", self.recording, "--measure", "correlation",
                      "--binwidth", "100ps", "--bins", "200")
        bins = [tuple(map(int, r.split(","))) for r in out.stdout.split()[1:]]
        peak = max(bins, key=lambda b: b[1])[0]
        # Channel 2 lags channel 1, so the peak sits at minus the delay.
        self.assertLessEqual(abs(peak + 50 + 3700), 100)
        # The same result drawn by matplotlib: a PNG beside the CSV file.
        csv, png = f"{self.tmp.name}/c.csv", f"{self.tmp.name}/c.png"
        self.ok("zeptick", "replay", self.recording, "--measure", "correlation", "--out", csv,
                "--plot", png)
        self.assertEqual(pathlib.Path(png).read_bytes()[:4], b"\x89PNG")
        self.assertEqual(len(pathlib.Path(csv).read_text().split()), 1001)

    def test_record_verify_and_replay_agree(self):
        path = f"{self.tmp.name}/live.ztbin"
        rec = self.ok("zeptick", "--emulator", "default", "record", path, "--duration", "1s",
                      "--channels", "1,2", "--test-signal", "--max-file-size", "100000")
        self.assertIn("tags/s", rec.stderr)
        out = self.ok("zeptick", "inspect", path, "--verify")
        counts = channel_counts(out.stdout)
        self.assertEqual(sorted(counts), [1, 2])
        self.assertTrue(all(n > 0 for n in counts.values()))
        verdicts = re.findall(r"(\d+) of (\d+) blocks pass", out.stdout)
        self.assertGreater(len(verdicts), 1)
        self.assertTrue(all(a == b for a, b in verdicts))
        # The replay tagger and Countrate count what the reader counts from disk.
        rows = [r.split(",") for r in self.ok("zeptick", "replay", path).stdout.split()[1:]]
        self.assertEqual({int(c): int(n) for c, n, _ in rows}, counts)

        # One flipped bit in the tag words of the first split file's last time tag block
        # (blocks: 16-byte header "MIZT", size, type, 0; then the payload padded to 16).
        split = pathlib.Path(f"{self.tmp.name}/live.1.ztbin")
        data = bytearray(split.read_bytes())
        offset, target = 0, None
        while offset + 16 <= len(data):
            size, kind = struct.unpack_from("<II", data, offset + 4)
            if kind == 4 and size > 160:
                target = offset + 16 + 144 + 8
            offset += 16 + (size + 15) // 16 * 16
        self.assertIsNotNone(target)
        data[target] ^= 0x40
        split.write_bytes(data)
        out = run("zeptick", "inspect", path, "--verify")
        self.assertEqual(out.returncode, 1)
        self.assertIn("verification failed", out.stderr)
        self.assertRegex(out.stdout, r"live\.1\.ztbin: \d+ of \d+ blocks pass; the next fails")

    def test_ctrl_c_leaves_a_complete_recording(self):
        path = f"{self.tmp.name}/cut.ztbin"
        proc = subprocess.Popen([f"{TOOLS}/zeptick", "--emulator", "default", "record", path,
                                 "--duration", "10m", "--channels", "1", "--test-signal"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        # Interrupt at the first progress line; opening may take seconds on a loaded machine.
        proc.stderr.readline()
        proc.send_signal(signal.SIGINT)
        out, err = proc.communicate(timeout=60)
        self.assertEqual(proc.returncode, 0, err)
        self.assertIn("stopped by the user", out)
        written = int(re.search(r": (\d+) tags", out).group(1))
        check = self.ok("zeptick", "inspect", path, "--verify")
        self.assertEqual(channel_counts(check.stdout), {1: written})

    def test_info_rates_and_scan_on_the_emulator(self):
        out = self.ok("zeptick", "--emulator", "default", "info")
        self.assertRegex(out.stdout, r"serial:\s+\S+")
        self.assertIn("sensors:", out.stdout)
        found = json.loads(self.ok("zeptick", "--emulator", "default", "scan", "--json").stdout)
        self.assertEqual(len(found), 1)
        self.assertTrue(found[0]["serial"] and found[0]["model"])
        out = self.ok("zeptick", "--emulator", "default", "rates", "--channels", "1,2",
                      "--test-signal", "--interval", "200ms", "--duration", "600ms")
        lines = [l.split() for l in out.stdout.splitlines() if not l.startswith("#")]
        self.assertEqual(len(lines), 3)
        self.assertTrue(all(float(v) > 0 for line in lines for v in line[2:]))
        # On a terminal the line is rewritten in place: three updates on one line.
        command = shlex.join([f"{TOOLS}/zeptick", "--emulator", "default", "rates", "--channels",
                              "1", "--test-signal", "--interval", "200ms", "--duration", "600ms"])
        text = subprocess.run(["script", "-qec", f"{command} 2>/dev/null", "/dev/null"],
                              capture_output=True, check=True).stdout
        self.assertEqual(text.count(b"\n"), 2, text)
        self.assertEqual(len(re.findall(rb"\r +\d+\.\d+ s", text)), 3, text)

    def test_bad_usage_and_failures(self):
        for args, status, message in [
            (["zeptick"], 2, "subcommand is required"),
            (["zeptick", "inspect"], 2, "FILE is required"),
            (["zeptick", "inspect", "/no/such.ztbin"], 1, "could not open"),
            (["zeptick", "export", "x.ztbin", "--to", "t.csv", "--begin", "10"], 2, "not a time"),
            (["zeptick", "export", "x.ztbin", "--to", "t.txt"], 2, ".csv"),
            (["zeptick", "histogram", "x.ztbin", "--bins", "0"], 2, "--bins"),
            (["zeptick", "--emulator", "/no/such.json", "scan"], 1, "/no/such.json"),
            (["zeptick", "rates", "--channels", "1,x"], 2, "--channels"),
            (["zeptick", "record", "x.ztbin"], 2, "--duration is required"),
            (["zeptick", "replay", "x.ztbin", "--measure", "fft"], 2, "--measure"),
            (["zeptick", "info", "--serial", "NOPE"], 1, "not found"),
            (["zeptick", "replay", "x.ztbin", "--plot", "x.pdf"], 2, ".svg or .png"),
        ]:
            out = run(*args)
            self.assertEqual(out.returncode, status, args)
            self.assertIn(message, out.stderr)
            self.assertEqual(len(out.stderr.strip().splitlines()), 1, out.stderr)


if __name__ == "__main__":
    unittest.main()
