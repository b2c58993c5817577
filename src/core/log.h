#pragma once

#include "zeptick/logging.h"

// Logs with the caller's file and line, which the receiver cuts to the base name.
#define ZT_LOG(level, ...) ::zeptick::_Log((level), __FILE__, __LINE__, __VA_ARGS__)
#define ZT_LOG_INFO(...) ZT_LOG(::zeptick::LOGGER_INFO, __VA_ARGS__)
#define ZT_LOG_WARNING(...) ZT_LOG(::zeptick::LOGGER_WARNING, __VA_ARGS__)
#define ZT_LOG_ERROR(...) ZT_LOG(::zeptick::LOGGER_ERROR, __VA_ARGS__)
