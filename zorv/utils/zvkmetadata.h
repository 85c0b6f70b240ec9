#pragma once

#include <string>

namespace zorvek {

struct JobMetadata {
  std::string instance_type;
  std::string hostname;
  std::string job_rid;
};

// The job description of the managed training platform (Kelvane): the JSON file it
// mounts, else ZV_TRAINING_ENV, else "{}".
class ZVTrainingJobConfiguration {
 public:
  ZVTrainingJobConfiguration();
  explicit ZVTrainingJobConfiguration(std::string config);

  static std::string fetch();

  // A text search, not a JSON parser: the platform's documents are flat.
  std::string read_key(const std::string& key) const;

 private:
  std::string m_job_config;
};

constexpr const char* kResourceConfigPath = "/opt/kv/input/config/resourceconfig.json";

std::string resolve_job_rid(const ZVTrainingJobConfiguration& config);
std::string resolve_hostname(const ZVTrainingJobConfiguration& config);
JobMetadata resolve_metadata();

}  // namespace zorvek
