"""Arrays from the binding equal the library's own results: dtype, shape, order and values."""

import subprocess

import numpy as np
import pytest

import zeptick
from conftest import BUILD


@pytest.fixture(scope="module")
def reference(recording, tmp_path_factory):
    out = tmp_path_factory.mktemp("reference")
    subprocess.run([str(BUILD / "tests" / "zeptick-python-reference"), str(recording), str(out)],
                   check=True)
    results = {}
    for path in out.glob("*.bin"):
        with open(path, "rb") as file:
            dtype, *shape = file.readline().split()
            values = np.frombuffer(file.read(), dtype=dtype.decode())
        results[path.stem] = values.reshape([int(extent) for extent in shape])
    return results


def test_results_equal_the_library_results(recording, replay, reference):
    U = zeptick.CHANNEL_UNUSED
    # The same measurements, with the same arguments, as reference_results.cpp.
    countrate = zeptick.Countrate(replay, [1, 2, 3])
    counter = zeptick.Counter(replay, [1, 2, 3], 10_000_000_000, 7)
    correlation = zeptick.Correlation(replay, 1, 2, 10, 1000)
    differences = zeptick.TimeDifferences(replay, 2, 1, 3, U, 100, 64, 4)
    nd = zeptick.TimeDifferencesND(replay, 2, 1, [3, 3], [], [2, 3], 100, 64)
    histogram_2d = zeptick.Histogram2D(replay, 3, 1, 2, 1_000_000, 1_000_000, 5, 4)
    start_stop = zeptick.StartStop(replay, 2, 1, 1000)
    log_bins = zeptick.HistogramLogBins(replay, 2, 1, -10, -6, 20)
    replay.replay(str(recording))
    assert replay.waitForCompletion(timeout=60_000)

    results = {
        "countrate_totals": countrate.getCountsTotal(),
        "counter": counter.getData(),
        "correlation": correlation.getData(),
        "correlation_normalized": correlation.getDataNormalized(),
        "time_differences": differences.getData(),
        "histogram_2d": histogram_2d.getData(),
        "histogram_2d_index": histogram_2d.getIndex(),
        "start_stop": start_stop.getData(),
        "log_bins": log_bins.getData(),
    }
    assert set(results) | {"time_differences_nd"} == set(reference)
    for name, result in results.items():
        np.testing.assert_array_equal(result, reference[name], err_msg=name, strict=True)
    assert reference["correlation"].sum() > 1000  # the recording has correlated pairs

    # n-D, indexed [i_0, i_1, bin], while the library lays out the first dimension fastest.
    flat = reference["time_differences_nd"]
    np.testing.assert_array_equal(nd.getData(), flat.reshape(3, 2, 64).transpose(1, 0, 2),
                                  strict=True)
    assert flat.sum() > 0


def test_tags_as_structured_arrays(recording):
    tags = zeptick.FileReader(str(recording)).getDataRaw()
    assert tags.dtype == zeptick.TAG_DTYPE and tags.itemsize == 16
    assert set(tags.dtype.names) == {"type", "missed_events", "channel", "time"}
    assert len(tags) > 0 and np.all(np.diff(tags["time"]) >= 0)
    # The same tags through the column accessors of a second reader.
    columns = zeptick.FileReader(str(recording)).getData(len(tags))
    np.testing.assert_array_equal(columns.getTimestamps(), tags["time"], strict=True)  # int64
    np.testing.assert_array_equal(columns.getChannels(), tags["channel"], strict=True)  # int32
    np.testing.assert_array_equal(columns.getEventTypes(), tags["type"])
