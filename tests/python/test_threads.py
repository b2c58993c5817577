"""The GIL is let go where the library blocks, and worker threads reach Python safely."""

import logging
import threading
import time

import numpy as np
import pytest

import zeptick


def test_python_threads_run_during_a_blocking_wait(recording, replay):
    replay.setReplaySpeed(1.0)  # 300 ms of recording in real time
    rate = zeptick.Countrate(replay, [1])
    ticks = []
    stop = threading.Event()

    def ticker():
        while not stop.is_set():
            ticks.append(time.monotonic())
            time.sleep(0.005)

    thread = threading.Thread(target=ticker)
    thread.start()
    replay.replay(str(recording))
    start = time.monotonic()
    assert replay.waitForCompletion()
    waited = time.monotonic() - start
    stop.set()
    thread.join()
    assert waited > 0.2
    # A wait that held the GIL would let no tick in; a loaded machine still lets in several.
    assert sum(start < t < start + waited for t in ticks) > 3
    rate.close()


class ChannelCount(zeptick.CustomMeasurement):
    def __init__(self, tagger, channels):
        super().__init__(tagger, channels)
        self.channels = channels
        self.counts = np.zeros(len(channels), dtype=np.int64)
        self.last_end = None
        self.in_order = True

    def process(self, tags, begin_time, end_time):
        if self.last_end is not None and begin_time != self.last_end:
            self.in_order = False
        self.last_end = end_time
        counted = tags[tags["type"] == 0]["channel"]
        self.counts += [np.count_nonzero(counted == channel) for channel in self.channels]

    def clear(self):
        self.counts[:] = 0


def test_custom_measurement_and_iterator_under_load_see_every_tag(recording, replay):
    rate = zeptick.Countrate(replay, [1, 2, 3])
    custom = ChannelCount(replay, [1, 2, 3])
    iterator = zeptick.Iterator(replay, [1, 2, 3])
    counted = []

    def consume():
        for tags, begin_time, end_time in iterator:
            counted.append(np.count_nonzero(tags["type"] == 0))

    consumer = threading.Thread(target=consume)
    consumer.start()
    busy = threading.Thread(target=lambda: [np.sort(np.random.rand(20000)) for _ in range(50)])
    busy.start()  # another Python thread competes for the GIL meanwhile
    for _ in range(3):
        replay.replay(str(recording))
    assert replay.waitForCompletion(timeout=60_000)
    busy.join()
    iterator.stop()  # ends the iteration once drained
    consumer.join(timeout=60)
    np.testing.assert_array_equal(custom.counts, rate.getCountsTotal())
    assert custom.in_order and custom.counts.sum() > 0
    assert sum(counted) == rate.getCountsTotal().sum()
    assert iterator.getDroppedTags() == 0
    custom.clear()
    assert custom.counts.sum() == 0


def test_worker_errors_reach_python_logging(recording, replay, caplog):
    class Failing(zeptick.CustomMeasurement):
        def process(self, tags, begin_time, end_time):
            raise KeyError("boom")

    failing = Failing(replay, [1])
    with caplog.at_level(logging.INFO, logger="zeptick"):
        replay.replay(str(recording))
        assert replay.waitForCompletion(timeout=60_000)
        zeptick.flushLog()
    assert not failing.isRunning()
    errors = [r for r in caplog.records if r.name == "zeptick" and "boom" in r.getMessage()]
    assert errors and errors[0].levelno == logging.ERROR
    failing.close()


def test_exceptions_map_to_python_types(replay):
    with pytest.raises(ValueError, match="binwidth must be at least 1"):
        zeptick.Correlation(replay, 1, 2, 0, 10)
    with pytest.raises(TypeError):
        zeptick.Countrate(replay, "not channels")
    with pytest.raises(TypeError):
        zeptick.TimeTagStream(replay, -5)
    with pytest.raises(RuntimeError, match="cannot be opened|No such|not"):
        zeptick.FileReader("/nonexistent/file.ztbin")
    zeptick.detachEmulatedDevices()
    with pytest.raises(RuntimeError):
        zeptick.createZeptick("NO-SUCH-SERIAL")
