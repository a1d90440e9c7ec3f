#pragma once

// The settings of one run, collected from the command line and from any JSON parameters file it names.
// Options take effect in command-line order, each overwriting what came before; this class only collects, the
// driver checks.

#include <getopt.h>

#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>

#include <rapidjson/document.h>

/// Every setting of one run. Absent optionals mean "not given"; exit_requested is set by help, licence,
/// version and by any option getopt_long rejects.
class Parameters {
 public:
  bool exit_requested = false;
  std::optional<std::string> input_file;
  std::optional<std::string> output_file;
  std::optional<double> d_space_px;
  std::optional<double> d_time_s;
  std::optional<double> d_time_ext;
  double duration_max_s = std::numeric_limits<double>::infinity();
  std::string algorithm = "default";

  /// The option table handed to getopt_long, closed by an all-zero record.
  static const option long_options[];

  /// Parses the whole command line. Throws on a bad number, a left-over argument and any parameters-file error.
  Parameters(int argc, char** argv);

  void print_help(const char* programName) const;
  void print_license() const;

  /// Reads the "brantel" section of a JSON parameters file over the current settings. A file that cannot be
  /// opened or parsed, or whose root is not an object, stops the program on the JSON library's assertion.
  void read_parameterSettings_file(const std::string& fileName);

  /// One member of a JSON object as T (double: any JSON number; std::string: a JSON string).
  template <typename T, typename V>
  static T json_getValue_helper(V& object, const std::string& key);
};

template <typename T, typename V>
T Parameters::json_getValue_helper(V& object, const std::string& key) {
  static_assert(std::is_same_v<T, double> || std::is_same_v<T, std::string>);
  if (!object.HasMember(key.c_str())) throw std::invalid_argument("Key \"" + key + "\" missing!");
  const auto& value = object[key.c_str()];
  if constexpr (std::is_same_v<T, double>) {
    if (!value.IsNumber()) throw std::invalid_argument("Key \"" + key + "\" expected to be a double!");
    return value.GetDouble();
  } else {
    if (!value.IsString()) throw std::invalid_argument("Key \"" + key + "\" expected to be a string!");
    return std::string(value.GetString(), value.GetStringLength());
  }
}
