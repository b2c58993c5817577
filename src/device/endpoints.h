#pragma once

#include <cstdint>

// Addresses the host and the firmware share.

namespace zeptick::device {

// Wire-ins.
inline constexpr int kWireEmptyThreshold = 0x01;
inline constexpr int kWireBusData = 0x03;
inline constexpr int kWireBusControl = 0x04;
inline constexpr int kWireFence = 0x08;
inline constexpr int kWireTestPeriod = 0x09;
inline constexpr int kWireTestHalfPeriod = 0x0B;
inline constexpr int kWireLed = 0x0C;
inline constexpr int kWireStart = 0x0D;
inline constexpr int kWirePulse = 0x0E;
inline constexpr int kWireBoardOptions = 0x0F;
inline constexpr int kWireBufferSize = 0x12;
inline constexpr int kWireConfiguration = 0x13;
inline constexpr int kWireRingProbe = 0x14;
inline constexpr int kWireRevisionQuirk = 0x15;

// Wire-outs.
inline constexpr int kWireOutTimestamp = 0x20;
inline constexpr int kWireOutInputs = 0x21;
inline constexpr int kWireOutPsPerClock = 0x22;
inline constexpr int kWireOutBinCount = 0x23;
inline constexpr int kWireOutFirmware = 0x24;
inline constexpr int kWireOutClockInput = 0x25;
inline constexpr int kWireOutIdentifierLow = 0x26;
inline constexpr int kWireOutIdentifierHigh = 0x27;
inline constexpr int kWireOutRevision = 0x29;
inline constexpr int kWireOutBusStatus = 0x2A;
inline constexpr int kWireOutSyncData = 0x2B;
inline constexpr int kWireOutSyncFlags = 0x2C;

// Trigger-ins, pipes.
inline constexpr int kTriggerBus = 0x40;
inline constexpr int kTriggerConfiguration = 0x41;
inline constexpr int kPipeChannelTable = 0x80;
inline constexpr int kPipeStream = 0xA0;

// I2C master registers and commands.
inline constexpr int kI2cPrescaleLow = 0;
inline constexpr int kI2cPrescaleHigh = 1;
inline constexpr int kI2cControl = 2;
inline constexpr int kI2cData = 3;
inline constexpr int kI2cCommand = 4;
inline constexpr uint8_t kI2cStartWrite = 0x90;
inline constexpr uint8_t kI2cWrite = 0x10;
inline constexpr uint8_t kI2cWriteStop = 0x50;
inline constexpr uint8_t kI2cRead = 0x20;
inline constexpr uint8_t kI2cReadStop = 0x60;
inline constexpr uint32_t kI2cBusy = 0x02;
inline constexpr uint32_t kI2cNoAck = 0x80;

// I2C addresses on the wire.
inline constexpr uint8_t kFanControllerWrite = 0x30;
inline constexpr uint8_t kFanControllerRead = 0x31;
inline constexpr uint8_t kVoltageConverterWrite = 0x6A;
inline constexpr uint8_t kVoltageConverterRead = 0x6B;

// Serial bus chip selects.
inline constexpr uint32_t kSelectConverter1 = 1;
inline constexpr uint32_t kSelectConverter2 = 2;
inline constexpr uint32_t kSelectSynthesiser = 4;

}  // namespace zeptick::device
