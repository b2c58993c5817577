"""A real HydraHarp T3 file read, exported to Photon-HDF5 and converted to .ztbin through the
binding, each giving the file's counts; the C++ suite proves what the conversions compute."""

import numpy as np
import pytest

import zeptick
from conftest import SOURCE

T3 = SOURCE / ".." / "shared" / "realdata" / "04_hydraharp2_T3" / "v20_t3.ptu"
pytestmark = pytest.mark.skipif(not T3.exists(), reason=f"the real recordings are not at {T3}")

CHANNELS = [1, 2, 1000]  # detectors 0 and 1, and the sync


def read_counts(path):
    reader = zeptick.FileReader(str(path))
    channels = []
    while reader.hasData():
        channels.append(reader.getData(100_000).getChannels())
    channels = np.concatenate(channels)
    return [int((channels == c).sum()) for c in CHANNELS]


def test_foreign_file_reads_exports_and_converts_with_the_same_counts(tmp_path):
    counts = read_counts(T3)
    assert counts[:2] == [45012, 32871]  # the manifest's photons per detector
    assert 0 < counts[2] <= 45012 + 32871  # one sync per sync period that holds a photon

    h5 = tmp_path / "t3.h5"
    assert zeptick.exportPhotonHdf5(str(T3), str(h5)) == 45012 + 32871
    assert read_counts(h5) == counts

    assert zeptick.convertToZtbin(str(T3), str(tmp_path / "t3.ztbin")) == sum(counts)
    assert read_counts(tmp_path / "t3.ztbin") == counts
