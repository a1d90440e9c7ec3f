#include "logging.hpp"

LogLevel logLevel = LogLevel::trace;

void print_warning(const std::string& message) { std::cout << "WARNING: " << message << '\n' << std::flush; }
