#include "files/foreign/ptu_header.h"

#include <sys/types.h>

#include <cmath>
#include <cstring>

namespace zeptick::foreign {

namespace {

enum TagType : uint32_t {
  kEmpty8 = 0xFFFF0008,
  kBool8 = 0x00000008,
  kInt8 = 0x10000008,
  kBitSet64 = 0x11000008,
  kColor8 = 0x12000008,
  kFloat8 = 0x20000008,
  kDateTime = 0x21000008,
  kFloat8Array = 0x2001FFFF,
  kAnsiString = 0x4001FFFF,
  kWideString = 0x4002FFFF,
  kBinaryBlob = 0xFFFFFFFF,
};

// Strings up to this length are kept as settings; longer payloads are skipped unread.
constexpr uint64_t kMaxKeptPayload = 1 << 16;

struct RawTag {
  char name[32];
  int32_t index;
  uint32_t type;
  uint8_t value[8];
};
static_assert(sizeof(RawTag) == 48);

std::string utf16ToUtf8(const std::string& bytes) {
  std::string out;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    uint32_t code = static_cast<uint8_t>(bytes[i]) | (static_cast<uint8_t>(bytes[i + 1]) << 8);
    if (code == 0) break;
    if (code >= 0xD800 && code < 0xE000) code = 0xFFFD;  // surrogates: not worth pairing here
    if (code < 0x80) {
      out += static_cast<char>(code);
    } else if (code < 0x800) {
      out += static_cast<char>(0xC0 | (code >> 6));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      out += static_cast<char>(0xE0 | (code >> 12));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }
  return out;
}

class HeaderParser {
 public:
  HeaderParser(std::FILE* file, PtuHeader& header, std::string& error)
      : file(file), header(header), error(error) {}

  bool run() {
    if (fseeko(file, 0, SEEK_END) != 0) return fail("cannot be searched");
    size = static_cast<uint64_t>(ftello(file));
    std::rewind(file);
    char start[16] = {};
    if (!read(start, sizeof(start)) || std::memcmp(start, kPtuMagic, 6) != 0 || start[6] != 0) {
      return fail("does not start with PQTTTR");
    }
    header.tag_version.assign(start + 8, strnlen(start + 8, 8));
    for (;;) {
      const uint64_t at = position;
      RawTag tag{};
      if (!read(&tag, sizeof(tag))) return fail("ends before Header_End");
      const std::string name(tag.name, strnlen(tag.name, sizeof(tag.name)));
      if (tag.type == kEmpty8 && name == "Header_End") {
        header.data_offset = position;
        return true;
      }
      if (!readTag(tag, name, at)) return false;
    }
  }

 private:
  bool fail(const std::string& what) {
    error = "PTU header " + what + " (byte " + std::to_string(position) + ")";
    return false;
  }

  bool read(void* buffer, uint64_t count) {
    if (count > size - position || std::fread(buffer, 1, count, file) != count) return false;
    position += count;
    return true;
  }

  bool readTag(const RawTag& tag, const std::string& name, uint64_t at) {
    int64_t integer;
    double real;
    std::memcpy(&integer, tag.value, 8);
    std::memcpy(&real, tag.value, 8);
    nlohmann::json value;
    switch (tag.type) {
      case kEmpty8:
        break;
      case kBool8:
        value = integer != 0;
        break;
      case kInt8:
        value = integer;
        break;
      case kBitSet64:
      case kColor8:
        value = static_cast<uint64_t>(integer);
        break;
      case kFloat8:
      case kDateTime:
        value = real;
        break;
      default:
        // Unknown types with the array bits carry a payload; others are a plain 8-byte value.
        if ((tag.type & 0xFFFF) == 0xFFFF) {
          if (!readPayload(tag.type, static_cast<uint64_t>(integer), value)) {
            return fail("tag '" + name + "' at byte " + std::to_string(at) +
                        " claims a payload beyond the end of the file");
          }
        } else {
          value = static_cast<uint64_t>(integer);
        }
    }
    if (tag.index < 0) {
      remember(name, value);
      header.tags[name] = std::move(value);
    } else {
      // Indices may jump or repeat: each element is kept under its own index.
      header.tags[name + "[" + std::to_string(tag.index) + "]"] = std::move(value);
    }
    return true;
  }

  bool readPayload(uint32_t type, uint64_t length, nlohmann::json& value) {
    if (length > size - position) return false;
    const bool text = type == kAnsiString || type == kWideString;
    if (!text || length > kMaxKeptPayload) {
      if (fseeko(file, static_cast<off_t>(length), SEEK_CUR) != 0) return false;
      position += length;
      value = std::to_string(length) + " bytes";
      return true;
    }
    std::string bytes(length, '\0');
    if (!read(bytes.data(), length)) return false;
    if (type == kWideString) {
      value = utf16ToUtf8(bytes);
    } else {
      value = bytes.substr(0, strnlen(bytes.data(), bytes.size()));
    }
    return true;
  }

  // A whole number from a tag of any numeric type; -1, which every use refuses, for a real
  // value that is not one (converting it would be undefined beyond the range).
  static int64_t wholeNumber(const nlohmann::json& value) {
    if (!value.is_number_float()) return value.get<int64_t>();
    const double v = value.get<double>();
    return v > -9e18 && v < 9e18 && v == std::trunc(v) ? static_cast<int64_t>(v) : -1;
  }

  void remember(const std::string& name, const nlohmann::json& value) {
    if (!value.is_number()) return;
    if (name == "TTResultFormat_TTTRRecType") header.record_type = wholeNumber(value);
    if (name == "TTResult_NumberOfRecords") {
      header.record_count = wholeNumber(value);
      header.has_record_count = true;
    }
    if (name == "TTResultFormat_BitsPerRecord") header.bits_per_record = wholeNumber(value);
    if (name == "MeasDesc_GlobalResolution") header.global_resolution = value.get<double>();
    if (name == "MeasDesc_Resolution") header.resolution = value.get<double>();
    if (name == "TTResult_SyncRate") header.sync_rate = value.get<double>();
  }

  std::FILE* file;
  PtuHeader& header;
  std::string& error;
  uint64_t size = 0;
  uint64_t position = 0;
};

}  // namespace

bool parsePtuHeader(std::FILE* file, PtuHeader& header, std::string& error) {
  return HeaderParser(file, header, error).run();
}

}  // namespace zeptick::foreign
