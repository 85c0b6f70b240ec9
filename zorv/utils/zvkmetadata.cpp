#include "zorv/utils/zvkmetadata.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "zorv/utils/logging.h"

namespace zorvek {

ZVTrainingJobConfiguration::ZVTrainingJobConfiguration() : m_job_config(fetch()) {}

ZVTrainingJobConfiguration::ZVTrainingJobConfiguration(std::string config)
    : m_job_config(std::move(config)) {}

std::string ZVTrainingJobConfiguration::fetch() {
  static const std::string resource_config_string = [] {
    std::ifstream file(kResourceConfigPath);
    if (!file.is_open()) return std::string();
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
  }();
  if (!resource_config_string.empty()) return resource_config_string;
  if (const char* env = std::getenv("ZV_TRAINING_ENV")) return env;
  return "{}";
}

std::string ZVTrainingJobConfiguration::read_key(const std::string& key) const {
  const std::string needle = "\"" + key + "\":";
  size_t start = m_job_config.find(needle);
  if (start == std::string::npos) return std::string();
  start += needle.size();
  if (start < m_job_config.size() && m_job_config[start] == ' ') ++start;
  size_t next_quote = m_job_config.find('"', start + 1);
  if (next_quote == std::string::npos) return std::string();
  if (m_job_config[start] == '"') ++start;
  size_t end = next_quote;
  if (m_job_config[end - 1] == '"') --end;
  // For the value "" the end lies before the start: the length wraps and the
  // result is the rest of the document, as substr clamps it.
  return m_job_config.substr(start, end - start);
}

std::string resolve_job_rid(const ZVTrainingJobConfiguration& config) {
  std::string rid = config.read_key("job_name");
  if (!rid.empty()) return rid;
  if (const char* env = std::getenv("ZV_JOB_RID")) return env;
  return std::string();
}

std::string resolve_hostname(const ZVTrainingJobConfiguration& config) {
  std::string host = config.read_key("current_host");
  if (!host.empty()) return host;
  if (const char* env = std::getenv("ZV_CURRENT_HOST")) return env;
  char name[4096] = {};
  if (gethostname(name, sizeof(name) - 1) != 0) {
    LOG(ERROR) << "Failed to get hostname!";
    return std::string();
  }
  return name;
}

JobMetadata resolve_metadata() {
  ZVTrainingJobConfiguration config;
  JobMetadata metadata;
  metadata.instance_type = config.read_key("instance_type");
  metadata.hostname = resolve_hostname(config);
  metadata.job_rid = resolve_job_rid(config);
  return metadata;
}

}  // namespace zorvek
