#pragma once

#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace zorvek {

// Text to typed value. Never fails: an empty text gives the default, anything else
// is whatever the C conversion makes of it (no end-pointer or errno test).
template <typename T>
T get_value_as(const std::string& value, T default_value);

template <typename T>
T key_value_as(const std::map<std::string, std::string>& values, const std::string& key,
               T default_value) {
  auto it = values.find(key);
  return get_value_as<T>(it == values.end() ? std::string() : it->second, default_value);
}

template <typename T>
T get_env_value_as(const std::string& env_name, T default_value);

// Splits at `delimiter`. A one-character token followed by a delimiter is dropped,
// empty tokens are kept, and the last token is kept unless empty.
std::vector<std::string> split(const std::string& text, char delimiter);

// Lower-case hexadecimal text of a value, for readable log lines.
template <typename T>
struct ZVKHex {
  explicit ZVKHex(const T& t) : t_(t) {}
  operator std::string() const {
    std::ostringstream out;
    out << std::hex << t_ << std::dec;
    return out.str();
  }
  const T& t_;
};

}  // namespace zorvek
