#pragma once

#include <string>

namespace zeptick::device {

/// Board model codes as the platform reports them.
inline constexpr int kModelZeptick20 = 4;
inline constexpr int kModelZeptickUltra = 36;

/// Short model tag of a board model: "ZT-20", "ZT-Ultra", or "unknown".
std::string modelTag(int board_model);

/// Name a user reads: "Zeptick 20", "Zeptick Ultra", or "unknown".
std::string modelDisplayName(int board_model);

/// Firmware file of a board model; empty for a model we cannot run.
std::string firmwareFileName(int board_model);

}  // namespace zeptick::device
