"""Count rates and the correlation of two inputs on the emulated instrument, saved as a plot.

usage: python3 rates_and_correlation.py [OUTPUT.png]
"""

import sys
import time

import matplotlib

matplotlib.use("Agg")  # no display needed
import matplotlib.pyplot as plt

import zeptick

output = sys.argv[1] if len(sys.argv) > 1 else "rates_and_correlation.png"

# The built-in emulated instrument: photon pairs on inputs 1 and 2.
zeptick.attachDefaultEmulatedDevice()
with zeptick.createZeptick() as tagger:
    rates = zeptick.Countrate(tagger, [1, 2, 3, 4])
    correlation = zeptick.Correlation(tagger, 1, 2, binwidth=10, n_bins=1000)
    tagger.sync()  # from here on the measurements see what the instrument sends
    time.sleep(1.0)

    for channel, rate in zip([1, 2, 3, 4], rates.getData()):
        print(f"input {channel}: {rate:12.1f} counts/s")
    counts = correlation.getData()
    delays = correlation.getIndex()
    peak = delays[counts.argmax()] + 5  # bin centre, ps
    print(f"correlation peak at {peak} ps with {counts.max()} counts")

fig, ax = plt.subplots(figsize=(7, 4))
ax.plot(delays / 1000, counts, drawstyle="steps-mid")
ax.set_xlabel("time difference input 1 - input 2 (ns)")
ax.set_ylabel("counts per 10 ps bin")
ax.set_title("Correlation of inputs 1 and 2 (emulated)")
fig.tight_layout()
fig.savefig(output, dpi=100)
print(f"plot written to {output}")
zeptick.detachEmulatedDevices()
