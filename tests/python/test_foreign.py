"""Other instruments' recordings through the Python package: a real HydraHarp T3 file replayed
and read against the counts its manifest gives, then exported to Photon-HDF5 and converted to
.ztbin, each of which must play the same counts."""

import numpy as np
import pytest

import zeptick
from conftest import SOURCE

T3 = SOURCE / ".." / "shared" / "realdata" / "04_hydraharp2_T3" / "v20_t3.ptu"
pytestmark = pytest.mark.skipif(not T3.exists(), reason=f"the real recordings are not at {T3}")

CHANNELS = [1, 2, 1000]  # detectors 0 and 1, and the sync


def replayed_counts(path):
    with zeptick.createZeptickVirtual() as tagger:
        tagger.setReplaySpeed(-1)
        rates = zeptick.Countrate(tagger, CHANNELS)
        tagger.replay(str(path))
        assert tagger.waitForCompletion(timeout=60_000)
        counts = rates.getCountsTotal().tolist()
        del rates
    return counts


def read_counts(path):
    reader = zeptick.FileReader(str(path))
    channels = []
    while reader.hasData():
        channels.append(reader.getData(100_000).getChannels())
    channels = np.concatenate(channels)
    return [int((channels == c).sum()) for c in CHANNELS]


def test_foreign_file_plays_and_converts_with_the_same_counts(tmp_path):
    counts = replayed_counts(T3)
    # The manifest's photons per detector; one sync per sync period that holds a photon.
    assert counts[:2] == [45012, 32871]
    assert 0 < counts[2] <= 45012 + 32871
    assert read_counts(T3) == counts

    h5 = tmp_path / "t3.h5"
    assert zeptick.exportPhotonHdf5(str(T3), str(h5)) == 45012 + 32871
    assert replayed_counts(h5) == counts

    assert zeptick.convertToZtbin(str(T3), str(tmp_path / "t3.ztbin")) == sum(counts)
    assert read_counts(tmp_path / "t3.ztbin") == counts
