"""Taggers and measurements freed in any order never touch freed memory."""

import gc

import pytest

import zeptick


def test_freeing_a_tagger_with_live_measurements_is_refused(replay):
    rate = zeptick.Countrate(replay, [1])
    with pytest.raises(RuntimeError, match="still has 1 measurement"):
        zeptick.freeZeptick(replay)
    rate.close()
    with pytest.raises(RuntimeError, match="measurement has been closed"):
        rate.getData()
    assert zeptick.freeZeptick(replay) is True
    assert replay.closed
    for call in (replay.sync, lambda: zeptick.Countrate(replay, [1])):
        with pytest.raises(RuntimeError, match="tagger has been freed"):
            call()


def test_with_block_closes_its_measurements_and_tagger():
    with zeptick.createZeptickVirtual() as tagger:
        with zeptick.Correlation(tagger, 1, 2) as inner:
            pass
        outer = zeptick.Histogram(tagger, 1, 2)
    for measurement in (inner, outer):
        with pytest.raises(RuntimeError, match="closed"):
            measurement.getData()
    assert tagger.closed


def test_measurement_keeps_its_tagger_and_free_all_closes_every_handle(recording):
    rate = zeptick.Countrate(zeptick.createZeptickVirtual(), [1, 2])
    gc.collect()  # the tagger has no Python name left; the measurement holds it
    rate.start()
    zeptick.freeAllZeptick()
    with pytest.raises(RuntimeError, match="tagger of this measurement has been freed"):
        rate.getData()
    del rate  # destroying a measurement whose tagger is gone is safe


def test_measurements_collected_while_workers_run(recording, replay):
    replay.setReplaySpeed(0.5)
    replay.replay(str(recording))
    for _ in range(50):
        zeptick.Correlation(replay, 1, 2, 10, 100)  # dropped at once, mid-stream
        zeptick.Countrate(replay, [1, 2, 3]).getData()
    group = zeptick.SynchronizedMeasurements(replay)
    member = zeptick.Counter(group.getTagger(), [1], 1000, 10)
    group.start()
    del group  # the member's stand-in tagger keeps the group alive
    gc.collect()
    member.getData()
    replay.stop()
