#include "logging.hpp"

LogLevel logLevel = LogLevel::trace;
