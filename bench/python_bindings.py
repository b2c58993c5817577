"""Benchmarks of the Python package, each against a baseline measured in the same run.

usage: /usr/bin/python3 bench/python_bindings.py BUILD_DIR   (PYTHONPATH is set from BUILD_DIR)

1. getData of a 1 M-bin Correlation into NumPy, against numpy.copy of an array of that size.
2. Tags handed to Python: TimeTagStream.getData with its column arrays, and Iterator blocks
   taken by a Python thread during a replay, in tags per second, against numpy.copy of the
   same bytes and the replay into Countrate alone.
3. A Python custom measurement counting with NumPy against C++ Countrate on the same replay,
   and the per-block cost of calling into Python.
"""

import pathlib
import subprocess
import sys
import tempfile
import threading
import time

build = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "build").resolve()
sys.path.insert(0, str(build / "python"))

import numpy as np  # noqa: E402

import zeptick  # noqa: E402


def best_of(runs, call):
    best = float("inf")
    for _ in range(runs):
        start = time.perf_counter()
        call()
        best = min(best, time.perf_counter() - start)
    return best


def replay_seconds(recording, *measurements_of):
    with zeptick.createZeptickVirtual() as tagger:
        tagger.setReplaySpeed(-1)
        made = [make(tagger) for make in measurements_of]
        start = time.perf_counter()
        tagger.replay(str(recording))
        tagger.waitForCompletion()
        seconds = time.perf_counter() - start
        return seconds, made[0] if made else None


def main():
    workdir = pathlib.Path(tempfile.mkdtemp(prefix="zeptick-bench-"))
    recording = workdir / "bench.ztbin"
    subprocess.run([str(build / "tools" / "zeptick-generate-recording"), str(recording),
                    "--duration-ms", "1000", "--pair-rate", "4000000",
                    "--background-rate", "1000000", "--period-ps", "1000000"],
                   check=True, capture_output=True)
    total = sum(len(b) for b in iter_blocks(recording))
    print(f"recording: {total / 1e6:.1f} M tags")

    # 1. Correlation getData.
    with zeptick.createZeptickVirtual() as tagger:
        correlation = zeptick.Correlation(tagger, 1, 2, 1, 1_000_000)
        source = np.ones(1_000_000, dtype=np.int32)
        t_get = best_of(50, correlation.getData)
        t_copy = best_of(50, lambda: np.copy(source))
        print(f"Correlation.getData, 1 M bins: {t_get * 1e6:.0f} us, numpy.copy {t_copy * 1e6:.0f} us,"
              f" ratio {t_get / t_copy:.2f} (goal <= 2)")

    # 2a. TimeTagStream: everything of the replay at once, then handed over as columns.
    with zeptick.createZeptickVirtual() as tagger:
        tagger.setReplaySpeed(-1)
        stream = zeptick.TimeTagStream(tagger, total + 16)
        tagger.replay(str(recording))
        tagger.waitForCompletion()
        start = time.perf_counter()
        buffer = stream.getData()
        columns = (buffer.getTimestamps(), buffer.getChannels(), buffer.getEventTypes(),
                   buffer.getMissedEvents())
        t_stream = time.perf_counter() - start
        n = buffer.size
        stamps = columns[0]
        t_copy = best_of(5, lambda: [np.copy(stamps), np.copy(columns[1]), np.copy(columns[2]),
                                     np.copy(columns[3])])
        print(f"TimeTagStream to NumPy: {n / t_stream / 1e6:.0f} M tags/s; numpy.copy of the "
              f"same columns {n / t_copy / 1e6:.0f} M tags/s, ratio {t_copy / t_stream:.2f}")

    # 2b. Iterator blocks to a Python thread while the replay runs, against Countrate alone.
    t_countrate, _ = replay_seconds(recording, lambda t: zeptick.Countrate(t, [1, 2, 3]))
    with zeptick.createZeptickVirtual() as tagger:
        tagger.setReplaySpeed(-1)
        iterator = zeptick.Iterator(tagger, [], 1 << 26)
        taken = [0]

        def consume():
            for tags, _, _ in iterator:
                taken[0] += len(tags)

        consumer = threading.Thread(target=consume)
        consumer.start()
        start = time.perf_counter()
        tagger.replay(str(recording))
        tagger.waitForCompletion()
        iterator.stop()
        consumer.join()
        t_iter = time.perf_counter() - start
        print(f"Iterator to a Python thread: {taken[0] / t_iter / 1e6:.0f} M tags/s "
              f"(dropped {iterator.getDroppedTags()}); replay into Countrate alone "
              f"{total / t_countrate / 1e6:.0f} M tags/s, ratio {t_countrate / t_iter:.2f}")

    # 3. A custom measurement counting with NumPy, and one doing nothing.
    class NumpyCount(zeptick.CustomMeasurement):
        def __init__(self, tagger):
            super().__init__(tagger, [1, 2, 3])
            self.counts = np.zeros(3, dtype=np.int64)
            self.blocks = 0

        def process(self, tags, begin_time, end_time):
            self.blocks += 1
            self.counts += np.bincount(tags["channel"][tags["type"] == 0] & 3, minlength=4)[1:]

    class Empty(zeptick.CustomMeasurement):
        def __init__(self, tagger):
            super().__init__(tagger, [1, 2, 3])
            self.blocks = 0

        def process(self, tags, begin_time, end_time):
            self.blocks += 1

    t_numpy, counting = replay_seconds(recording, NumpyCount)
    t_empty, empty = replay_seconds(recording, Empty)
    t_none, _ = replay_seconds(recording)
    per_block = (t_empty - t_none) / max(empty.blocks, 1)
    print(f"Python measurement with NumPy: {total / t_numpy / 1e6:.0f} M tags/s; C++ Countrate "
          f"{total / t_countrate / 1e6:.0f} M tags/s, ratio {t_countrate / t_numpy:.2f}; "
          f"{counting.blocks} blocks, call overhead {per_block * 1e6:.1f} us per block")


def iter_blocks(recording):
    reader = zeptick.FileReader(str(recording))
    while reader.hasData():
        tags = reader.getDataRaw()
        if tags is not None:
            yield tags


if __name__ == "__main__":
    main()
