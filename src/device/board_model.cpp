#include "device/board_model.h"

namespace zeptick::device {

std::string modelTag(int board_model) {
  switch (board_model) {
    case kModelZeptick20:
      return "ZT-20";
    case kModelZeptickUltra:
      return "ZT-Ultra";
    default:
      return "unknown";
  }
}

std::string modelDisplayName(int board_model) {
  switch (board_model) {
    case kModelZeptick20:
      return "Zeptick 20";
    case kModelZeptickUltra:
      return "Zeptick Ultra";
    default:
      return "unknown";
  }
}

std::string firmwareFileName(int board_model) {
  switch (board_model) {
    case kModelZeptick20:
      return "ZeptickController.bit";
    case kModelZeptickUltra:
      return "ZeptickUltraController.bit";
    default:
      return "";
  }
}

}  // namespace zeptick::device
