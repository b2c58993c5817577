#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "zeptick/zeptick_base.h"

namespace zeptick {

/// Selectors of Zeptick::getChannelList.
inline constexpr int ZT_CHANNEL_ALL = 0;
inline constexpr int ZT_CHANNEL_RISING = 1;
inline constexpr int ZT_CHANNEL_FALLING = 2;

/// The hardware tagger: one instrument, or several synchronized ones. Setters
/// take effect with the next device read; unknown channels are logged and
/// give 0, values out of range are clamped. All operations are thread-safe.
class ZEPTICK_API Zeptick : public virtual ZeptickBase {
 public:
  /// Stops the stream, returns every setting to its default and recalibrates.
  virtual void reset() = 0;
  virtual void setTestSignalDivider(int divider) = 0;
  virtual int getTestSignalDivider() = 0;
  /// Trigger level in volts, shared by both edges of an input.
  virtual void setTriggerLevel(int channel, double voltage) = 0;
  virtual double getTriggerLevel(int channel) = 0;
  /// Picoseconds the host adds to `channel` to undo the conditional filter's hardware delay.
  virtual int64_t getHardwareDelayCompensation(int channel) = 0;
  virtual void setInputMux(int channel, int mux_mode) = 0;
  virtual int getInputMux(int channel) = 0;
  /// Filtered channels pass only the first event after a trigger channel's event.
  /// Throws std::invalid_argument for unknown channels or a device left with
  /// only one kind of channel.
  virtual void setConditionalFilter(std::vector<int> trigger, std::vector<int> filtered,
                                    bool hardwareDelayCompensation = true) = 0;
  virtual void clearConditionalFilter() = 0;
  virtual std::vector<int> getConditionalFilterTrigger() = 0;
  virtual std::vector<int> getConditionalFilterFiltered() = 0;
  /// Dithering and calibrated bin edges of the fine time.
  virtual void setNormalization(bool enabled) = 0;
  virtual bool getNormalization() = 0;
  virtual void setHardwareBufferSize(int size) = 0;
  virtual int getHardwareBufferSize() = 0;
  /// Largest block in events and in milliseconds; throws std::invalid_argument out of range.
  virtual void setStreamBlockSize(int max_events, int max_latency) = 0;
  virtual int getStreamBlockSizeEvents() = 0;
  virtual int getStreamBlockSizeLatency() = 0;
  virtual void setEventDivider(int channel, uint32_t divider) = 0;
  virtual uint32_t getEventDivider(int channel) = 0;
  /// Calibrates on the internal test signal for half a second, or longer (at most ten seconds
  /// more) until every input that counts has 500 000 test edges, so that the learned bins are
  /// as good on a busy host as on a quiet one; `array_out(n)` receives one quality figure per
  /// channel of getChannelList(ZT_CHANNEL_ALL).
  virtual void autoCalibration(std::function<double*(size_t)> array_out) = 0;
  virtual std::string getSerial() = 0;
  virtual std::string getModel() = 0;
  virtual int getChannelNumberScheme() = 0;
  /// Trigger level range {min, max} in volts.
  virtual std::vector<double> getDACRange() = 0;
  /// Fine-bin calibration counts, one row per channel of getChannelList(ZT_CHANNEL_ALL).
  virtual void getDistributionCount(std::function<int64_t*(size_t, size_t)> array_out) = 0;
  /// Fine-bin calibration edges in picoseconds, same shape.
  virtual void getDistributionPSecs(std::function<int64_t*(size_t, size_t)> array_out) = 0;
  virtual std::vector<int> getChannelList(int type = ZT_CHANNEL_ALL) = 0;
  virtual int64_t getPsPerClock() = 0;
  virtual std::string getPcbVersion() = 0;
  virtual std::string getFirmwareVersion() = 0;
  /// Human-readable health report of the sensors of every device.
  virtual std::string getSensorData() = 0;
  virtual void setLED(uint32_t bitmask) = 0;
  /// Direct wire access for service use.
  virtual uint32_t factoryAccess(uint32_t pin, uint32_t address, uint32_t data, uint32_t mask) = 0;

 protected:
  ~Zeptick() override;
};

/// The replay tagger: plays recorded files through measurements as if live.
class ZEPTICK_API ZeptickVirtual : public virtual ZeptickBase {
 public:
  /// Queues (or, without `queue`, replaces) a recording; returns its id.
  /// `begin` and `duration` in picoseconds; a negative duration plays to the end.
  virtual uint64_t replay(const std::string& file, int64_t begin = 0, int64_t duration = -1,
                          bool queue = true) = 0;
  /// Ends playback of everything queued.
  virtual void stop() = 0;
  /// Waits until replay `id` (0: the last one) ended; timeout in ms, negative waits for ever.
  virtual bool waitForCompletion(uint64_t id = 0, int32_t timeout = -1) = 0;
  /// Speed relative to real time; negative plays as fast as possible.
  virtual void setReplaySpeed(double speed) = 0;
  virtual double getReplaySpeed() = 0;

 protected:
  ~ZeptickVirtual() override;
};

}  // namespace zeptick
