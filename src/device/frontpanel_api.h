#pragma once

// The C interface of the FrontPanel USB/FPGA library, as far as the device
// layer uses it, and the table through which the device layer calls it. Two
// providers fill the table: the vendor's shared library opened at run time,
// and the built-in emulated board. Nothing else in the library may call the
// platform directly.

#include <cstddef>
#include <cstdint>

extern "C" {

typedef void* okFrontPanel_HANDLE;
typedef void* okPLL22150_HANDLE;
typedef void* okDeviceSensors_HANDLE;
typedef int Bool;

/// Result of most calls: 0 success, negative failure.
typedef int ok_ErrorCode;
enum {
  ok_NoError = 0,
  ok_Failed = -1,
  ok_Timeout = -2,
  ok_DoneNotHigh = -3,
  ok_TransferError = -4,
  ok_CommunicationError = -5,
  ok_InvalidBitstream = -6,
  ok_FileError = -7,
  ok_DeviceNotOpen = -8,
  ok_InvalidEndpoint = -9,
  ok_InvalidBlockSize = -10,
  ok_I2CRestrictedAddress = -11,
  ok_I2CBitError = -12,
  ok_I2CNack = -13,
  ok_I2CUnknownStatus = -14,
  ok_UnsupportedFeature = -15,
  ok_FIFOUnderflow = -16,
  ok_FIFOOverflow = -17,
  ok_DataAlignmentError = -18,
  ok_InvalidResetProfile = -19,
  ok_InvalidParameter = -20,
};

/// USB speed as reported in the device information record.
enum { OK_USBSPEED_UNKNOWN = 0, OK_USBSPEED_FULL = 1, OK_USBSPEED_HIGH = 2, OK_USBSPEED_SUPER = 3 };

/// PLL clock sources and divider sources used by the "Zeptick 20" set-up.
enum { ok_DivSrc_Ref = 0, ok_DivSrc_Div1 = 1 };
enum { ok_ClkSrc22150_Ref = 0, ok_ClkSrc22150_Div1ByN = 1, ok_ClkSrc22150_Div1By2 = 2 };

/// The device information record: exactly 280 bytes, little-endian, packed as
/// laid out here. The host reads only `usbSpeed`; the rest identifies the board.
struct okTDeviceInfo {
  char deviceID[33];                  ///<   0: user-settable device name, NUL-terminated
  char serialNumber[11];              ///<  33: serial number, NUL-terminated
  char productName[128];              ///<  44: product name, NUL-terminated
  uint8_t reserved0[4];               ///< 172: zero
  int32_t productID;                  ///< 176: board model code (4 or 36)
  int32_t deviceInterface;            ///< 180: 0 for USB
  int32_t usbSpeed;                   ///< 184: OK_USBSPEED_*; 3 is USB 3.0
  int32_t deviceMajorVersion;         ///< 188
  int32_t deviceMinorVersion;         ///< 192
  int32_t hostInterfaceMajorVersion;  ///< 196
  int32_t hostInterfaceMinorVersion;  ///< 200
  Bool isPLL22150Supported;           ///< 204
  Bool isPLL22393Supported;           ///< 208
  Bool isFrontPanelEnabled;           ///< 212
  int32_t wireWidth;                  ///< 216: 32
  int32_t triggerWidth;               ///< 220: 32
  int32_t pipeWidth;                  ///< 224: 32
  int32_t registerAddressWidth;       ///< 228: 32
  int32_t registerDataWidth;          ///< 232: 32
  int32_t flashSystemSectorCount;     ///< 236
  int32_t flashSectorSize;            ///< 240
  int32_t flashPageSize;              ///< 244
  int32_t flashUserSectorCount;       ///< 248
  int32_t flashDeviceID;              ///< 252
  int32_t fpgaVendor;                 ///< 256
  int32_t interfaceCount;             ///< 260
  int32_t interfaceIndex;             ///< 264
  int32_t configuresFromSystemFlash;  ///< 268
  int32_t hasQuadConfigFlash;         ///< 272
  int32_t reserved1;                  ///< 276
};
static_assert(sizeof(okTDeviceInfo) == 280, "the device information record is 280 bytes");
static_assert(offsetof(okTDeviceInfo, usbSpeed) == 184, "usbSpeed sits at byte 184");

/// One on-board sensor as the library lists it.
struct okTDeviceSensor {
  int32_t id;
  int32_t type;  ///< 0 boolean, 1 integer, 2 float, 3 voltage, 4 current, 5 temperature, 6 fan RPM
  char name[64];
  char description[256];
  double min;
  double max;
  double step;
  double value;
};

}  // extern "C"

namespace zeptick::device {

/// The platform functions the device layer calls, with the library's C
/// signatures. Every entry is set by a provider; a missing symbol leaves the
/// whole table unusable.
struct FrontPanelApi {
  // Device list and connection.
  okFrontPanel_HANDLE (*okFrontPanel_Construct)();
  void (*okFrontPanel_Destruct)(okFrontPanel_HANDLE);
  int (*okFrontPanel_GetDeviceCount)(okFrontPanel_HANDLE);
  /// Writes the serial of device `num` (up to 10 characters and a NUL) into `buf`.
  void (*okFrontPanel_GetDeviceListSerial)(okFrontPanel_HANDLE, int num, char* buf);
  int (*okFrontPanel_GetDeviceListModel)(okFrontPanel_HANDLE, int num);
  ok_ErrorCode (*okFrontPanel_OpenBySerial)(okFrontPanel_HANDLE, const char* serial);
  Bool (*okFrontPanel_IsOpen)(okFrontPanel_HANDLE);
  void (*okFrontPanel_Close)(okFrontPanel_HANDLE);
  void (*okFrontPanel_GetSerialNumber)(okFrontPanel_HANDLE, char* buf);
  ok_ErrorCode (*okFrontPanel_GetDeviceInfoWithSize)(okFrontPanel_HANDLE, okTDeviceInfo* info,
                                                     unsigned size);
  int (*okFrontPanel_GetBoardModel)(okFrontPanel_HANDLE);
  int (*okFrontPanel_GetDeviceMajorVersion)(okFrontPanel_HANDLE);
  int (*okFrontPanel_GetDeviceMinorVersion)(okFrontPanel_HANDLE);
  // FPGA and clock.
  ok_ErrorCode (*okFrontPanel_ConfigureFPGA)(okFrontPanel_HANDLE, const char* path);
  ok_ErrorCode (*okFrontPanel_SetPLL22150Configuration)(okFrontPanel_HANDLE, okPLL22150_HANDLE);
  // Endpoints.
  ok_ErrorCode (*okFrontPanel_SetWireInValue)(okFrontPanel_HANDLE, int ep, unsigned long val,
                                              unsigned long mask);
  ok_ErrorCode (*okFrontPanel_GetWireInValue)(okFrontPanel_HANDLE, int ep, uint32_t* val);
  ok_ErrorCode (*okFrontPanel_UpdateWireIns)(okFrontPanel_HANDLE);
  ok_ErrorCode (*okFrontPanel_UpdateWireOuts)(okFrontPanel_HANDLE);
  unsigned long (*okFrontPanel_GetWireOutValue)(okFrontPanel_HANDLE, int ep);
  ok_ErrorCode (*okFrontPanel_ActivateTriggerIn)(okFrontPanel_HANDLE, int ep, int bit);
  /// Bytes written, or a negative ok_ErrorCode.
  long (*okFrontPanel_WriteToPipeIn)(okFrontPanel_HANDLE, int ep, long length, unsigned char* data);
  /// Bytes read, or a negative ok_ErrorCode. `length` is a multiple of `blockSize`.
  long (*okFrontPanel_ReadFromBlockPipeOut)(okFrontPanel_HANDLE, int ep, int blockSize, long length,
                                            unsigned char* data);
  ok_ErrorCode (*okFrontPanel_WriteRegister)(okFrontPanel_HANDLE, uint32_t addr, uint32_t data);
  ok_ErrorCode (*okFrontPanel_ReadRegister)(okFrontPanel_HANDLE, uint32_t addr, uint32_t* data);
  // Sensors.
  ok_ErrorCode (*okFrontPanel_GetDeviceSensors)(okFrontPanel_HANDLE, okDeviceSensors_HANDLE);
  okDeviceSensors_HANDLE (*okDeviceSensors_Construct)();
  void (*okDeviceSensors_Destruct)(okDeviceSensors_HANDLE);
  int (*okDeviceSensors_GetSensorCount)(okDeviceSensors_HANDLE);
  okTDeviceSensor (*okDeviceSensors_GetSensor)(okDeviceSensors_HANDLE, int num);
  // PLL of the "Zeptick 20".
  okPLL22150_HANDLE (*okPLL22150_Construct)();
  void (*okPLL22150_Destruct)(okPLL22150_HANDLE);
  Bool (*okPLL22150_SetVCOParameters)(okPLL22150_HANDLE, int p, int q);
  void (*okPLL22150_SetDiv1)(okPLL22150_HANDLE, int divsrc, int n);
  void (*okPLL22150_SetOutputSource)(okPLL22150_HANDLE, int output, int clksrc);
  void (*okPLL22150_SetOutputEnable)(okPLL22150_HANDLE, int output, Bool enable);
};

}  // namespace zeptick::device
