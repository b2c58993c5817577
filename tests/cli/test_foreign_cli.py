#!/usr/bin/python3
"""Other instruments' recordings through the zeptick binary: Photon-HDF5 export read by h5py,
inspect naming channels by the mapping, import into a .ztbin that verifies with the same tags."""
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

TOOLS = sys.argv.pop(1)
REAL = pathlib.Path(__file__).resolve().parents[2] / ".." / "shared" / "realdata"
FLIM = REAL / "05_picoharp300_T3_flim_image" / "ptu_stack_FLIM_z1.ptu"


def run(*args):
    return subprocess.run([f"{TOOLS}/zeptick", *args], capture_output=True, text=True)


def channels(inspect_output):
    return {int(c): int(n) for c, n in re.findall(r"channel\s+(-?\d+):\s+(\d+)", inspect_output)}


@unittest.skipUnless(FLIM.exists(), f"the real recordings are not at {REAL}")
class ForeignCli(unittest.TestCase):
    def test_photon_hdf5_export_has_the_mandatory_fields_and_the_file_photons(self):
        import h5py
        with tempfile.TemporaryDirectory() as tmp:
            h5 = f"{tmp}/flim.h5"
            out = run("export", str(FLIM), "--to", h5, "--format", "photon-hdf5")
            self.assertEqual(out.returncode, 0, out.stderr)
            with h5py.File(h5, "r") as f:
                self.assertEqual(f.attrs["format_name"], "Photon-HDF5")
                self.assertEqual(f.attrs["format_version"], "0.5")
                for field in ["description", "identity/software", "identity/creation_time",
                              "photon_data/measurement_specs/measurement_type", "setup/num_pixels",
                              "setup/num_spots", "setup/num_spectral_ch",
                              "setup/num_polarization_ch", "setup/num_split_ch"]:
                    self.assertIn(field, f)
                self.assertEqual(f["provenance/filename"][()].decode(), FLIM.name)
                data = f["photon_data"]
                self.assertEqual(data["timestamps"].dtype, "int64")
                self.assertEqual(data["timestamps_specs/timestamps_unit"][()], 1e-12)
                self.assertEqual(data["nanotimes_specs/tcspc_unit"][()], 1e-12)
                # The laser period of 78.02 MHz, and every nanotime inside it.
                self.assertAlmostEqual(data["nanotimes_specs/tcspc_range"][()], 1 / 78.02e6,
                                       delta=1e-11)
                self.assertLess(data["nanotimes"][:].max(),
                                data["nanotimes_specs/tcspc_num_bins"][()])
                # Last sync x global resolution (the manifest's acquisition time).
                self.assertAlmostEqual(f["acquisition_duration"][()], 2.074774673160728,
                                       places=9)
                # Router channel 1 is detector 0; line start, line stop and frame markers.
                detectors = data["detectors"][:]
                counts = {int(d): int((detectors == d).sum()) for d in set(detectors.tolist())}
                self.assertEqual(counts, {0: 150363, 1000: 1280, 1001: 1280, 1002: 5})
                self.assertEqual(list(f["user/zeptick/marker_detectors"][:]), [1000, 1001, 1002])
                self.assertFalse(f["setup/modulated_excitation"][()])
                self.assertTrue(f["setup/lifetime"][()])

            bad = run("export", str(FLIM), "--to", h5, "--format", "photon-hdf5",
                      "--channels", "1")
            self.assertEqual(bad.returncode, 2)
            self.assertIn("do not apply", bad.stderr)

    def test_inspect_names_channels_and_import_keeps_them_signed(self):
        with tempfile.TemporaryDirectory() as tmp:
            out = run("inspect", str(FLIM))
            self.assertEqual(out.returncode, 0, out.stderr)
            for line in ["channel    1:    150363  (detector 0)", "(sync)",
                         "channel 1001:    1280  (marker 1)", "channel 1003:    5  (marker 3)"]:
                self.assertIn(line, out.stdout)
            self.assertEqual(run("inspect", str(FLIM), "--verify").returncode, 2)

            ztbin = f"{tmp}/flim.ztbin"
            imported = run("import", str(FLIM), "--to", ztbin)
            self.assertEqual(imported.returncode, 0, imported.stderr)
            verified = run("inspect", ztbin, "--verify")
            self.assertEqual(verified.returncode, 0, verified.stdout + verified.stderr)
            self.assertEqual(channels(verified.stdout), channels(out.stdout))

            junk = run("import", ztbin, "--to", f"{tmp}/again.ztbin")
            self.assertEqual(junk.returncode, 1)
            self.assertIn("not a PTU, SPC or Photon-HDF5 file", junk.stderr)


if __name__ == "__main__":
    unittest.main()
