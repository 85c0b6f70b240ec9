#include "zorv/utils/config_values.h"

#include <cstdlib>

namespace zorvek {

template <>
std::string get_value_as<std::string>(const std::string& value, std::string default_value) {
  return value.empty() ? default_value : value;
}

template <>
double get_value_as<double>(const std::string& value, double default_value) {
  return value.empty() ? default_value : std::strtod(value.c_str(), nullptr);
}

template <>
uint64_t get_value_as<uint64_t>(const std::string& value, uint64_t default_value) {
  return value.empty() ? default_value : std::strtoull(value.c_str(), nullptr, 10);
}

template <>
uint32_t get_value_as<uint32_t>(const std::string& value, uint32_t default_value) {
  return value.empty() ? default_value
                       : static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
}

template <>
int32_t get_value_as<int32_t>(const std::string& value, int32_t default_value) {
  return value.empty() ? default_value
                       : static_cast<int32_t>(std::strtol(value.c_str(), nullptr, 10));
}

template <>
int64_t get_value_as<int64_t>(const std::string& value, int64_t default_value) {
  return value.empty() ? default_value : std::strtoll(value.c_str(), nullptr, 10);
}

template <>
bool get_value_as<bool>(const std::string& value, bool default_value) {
  return value.empty() ? default_value : std::strtol(value.c_str(), nullptr, 10) > 0;
}

template <typename T>
T get_env_value_as(const std::string& env_name, T default_value) {
  const char* text = std::getenv(env_name.c_str());
  if (text == nullptr) return default_value;
  return get_value_as<T>(text, default_value);
}

template uint32_t get_env_value_as<uint32_t>(const std::string&, uint32_t);
template uint64_t get_env_value_as<uint64_t>(const std::string&, uint64_t);
template int64_t get_env_value_as<int64_t>(const std::string&, int64_t);

std::vector<std::string> split(const std::string& text, char delimiter) {
  std::vector<std::string> tokens;
  const char* start = text.data();
  const char* end = text.data() + text.size();
  for (const char* current = start; current != end; ++current) {
    if (*current != delimiter) continue;
    if (current != start + 1) tokens.emplace_back(start, current);
    start = current + 1;
  }
  if (start < end) tokens.emplace_back(start, end);
  return tokens;
}

}  // namespace zorvek
