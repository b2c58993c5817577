"""The Zeptick time tagger library from Python.

Taggers come from :func:`createZeptick` (an instrument, real or emulated) and
:func:`createZeptickVirtual` (replay of recordings). Measurements are made on a
tagger and return their results as NumPy arrays. Names are those of the C++
library. Taggers and measurements are context managers::

    import zeptick
    zeptick.attachDefaultEmulatedDevice()
    with zeptick.createZeptick() as tagger:
        rates = zeptick.Countrate(tagger, [1, 2])
        tagger.sync()
        ...
        print(rates.getData())

The library's log goes to the ``logging`` logger named ``"zeptick"``.
"""

import atexit as _atexit
import functools as _functools
import logging as _logging
import threading as _threading

from . import _zeptick
from ._zeptick import *  # noqa: F401,F403  the C++ names
from ._zeptick import (CHANNEL_UNUSED, TagType, IteratorBase,  # noqa: F401
                       TimeDifferencesND as _TimeDifferencesND)

__version__ = _zeptick.getVersion()

#: The dtype of tag arrays: fields type, missed_events, channel, time (16 bytes).
import numpy as _np

TAG_DTYPE = _np.dtype({
    "names": ["type", "missed_events", "channel", "time"],
    "formats": ["u1", "<u2", "<i4", "<i8"],
    "offsets": [0, 2, 4, 8],
    "itemsize": 16,
})

# --- Logging ------------------------------------------------------------------------------

logger = _logging.getLogger("zeptick")

_LEVELS = {10: _logging.INFO, 30: _logging.WARNING, 40: _logging.ERROR}
_log_order = _threading.Lock()


def _emit(lines):
    for level, message in lines:
        logger.log(_LEVELS.get(level, _logging.ERROR if level > 40 else _logging.INFO),
                   message)


_log_running = True


def _drain_log():
    while _log_running:
        lines = _zeptick._takeLogLines(200)
        if lines:
            with _log_order:
                _emit(lines)


def flushLog():
    """Delivers to ``logging`` every library log line written so far."""
    with _log_order:
        _emit(_zeptick._takeLogLines(0))


def _stop_log_thread():
    # A thread still waiting inside the extension when the interpreter ends would be torn
    # down mid-call, so it is ended first, and what it had not delivered is delivered here.
    global _log_running
    _log_running = False
    _zeptick._closeLogQueue()
    _log_thread.join(timeout=5)
    flushLog()


_zeptick._installLogReceiver()
_log_thread = _threading.Thread(target=_drain_log, name="zeptick-log", daemon=True)
_log_thread.start()
_atexit.register(_stop_log_thread)

# --- Results shaped as the measurement describes them -------------------------------------


class TimeDifferencesND(_TimeDifferencesND):
    __doc__ = _TimeDifferencesND.__doc__

    def __init__(self, tagger, click_channel, start_channel, next_channels, sync_channels,
                 n_histograms, binwidth, n_bins):
        super().__init__(tagger, click_channel, start_channel, next_channels, sync_channels,
                         n_histograms, binwidth, n_bins)
        self._shape = tuple(int(n) for n in n_histograms)

    def getData(self):
        """int32 counters indexed [i_0, i_1, ..., bin] by the index of each dimension."""
        flat = self._getData2D()
        n_bins = flat.shape[1]
        # Stored with the first dimension varying fastest: a transposed view, not a copy.
        nd = flat.reshape(tuple(reversed(self._shape)) + (n_bins,))
        order = tuple(reversed(range(len(self._shape)))) + (len(self._shape),)
        return nd.transpose(order)


# --- Measurements written in Python -------------------------------------------------------


class CustomMeasurement:
    """Base of a measurement written in Python.

    Subclasses call ``super().__init__(tagger, channels)`` and override
    ``process(tags, begin_time, end_time)``, which gets every block of the
    stream in order as a read-only structured array (a view, valid only during
    the call: keep ``tags.copy()``). ``clear``, ``on_start`` and ``on_stop``
    may be overridden too. All four run on a worker thread, one at a time,
    with the GIL. The measurement starts once the subclass's ``__init__`` has
    returned. An exception in them is logged and stops the measurement.
    """

    def __init_subclass__(cls, **kwargs):
        super().__init_subclass__(**kwargs)
        # The subclass's clear() is the hook; calling clear() runs it under the measurement's
        # lock, as for every other measurement.
        if "clear" in cls.__dict__:
            cls._clear_hook = cls.__dict__["clear"]
            cls.clear = CustomMeasurement.clear
        user_init = cls.__init__

        @_functools.wraps(user_init)
        def init_then_start(self, *args, **kw):
            user_init(self, *args, **kw)
            if type(self) is cls:
                self._core.finish()

        cls.__init__ = init_then_start

    def __init__(self, tagger, channels=()):
        self._core = _zeptick._CustomMeasurementCore(tagger, list(channels), self)

    def process(self, tags, begin_time, end_time):
        """Called with each block: tags in [begin_time, end_time) ps, in time order."""

    def clear(self):
        """Forgets collected data: runs the subclass's clear() with the measurement's lock held.

        Override it to reset the subclass's own state."""
        self._core.clear()

    def _clear_hook(self):
        pass

    def on_start(self):
        """The measurement is about to run."""

    def on_stop(self):
        """The measurement has just stopped."""

    def start(self):
        """Starts or resumes taking data, from the next block on."""
        self._core.start()

    def startFor(self, capture_duration, clear=True):
        """Takes data for ``capture_duration`` ps of stream time, then stops; clears first by default."""
        self._core.startFor(capture_duration, clear)

    def stop(self):
        """Stops taking data; returns once the current block has left the measurement."""
        self._core.stop()

    def isRunning(self):
        """True while the measurement takes data."""
        return self._core.isRunning()

    def getCaptureDuration(self):
        """Stream time in ps this measurement has taken data for since the last clear."""
        return self._core.getCaptureDuration()

    def close(self):
        """Stops the measurement and frees its C++ side."""
        core = self.__dict__.get("_core")
        if core is not None:
            core.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        self.close()


# --- Process exit -------------------------------------------------------------------------

# Worker threads must not outlive the interpreter: everything still open is closed while
# Python is whole (before the log thread ends, as atexit runs last-registered first).
_atexit.register(_zeptick._closeAllTaggers)
