#include "tools/zvkfileheader.h"

#include <algorithm>
#include <cstdio>

#include "zorv/utils/clock.h"

namespace zorvek {

std::string get_cpu_model_id(const ZVKFileHeader* hdr) {
  return std::string(hdr->data, hdr->cpu_model_str_len);
}

std::string get_jobuid(const ZVKFileHeader* hdr) {
  return std::string(hdr->data + hdr->cpu_model_str_len, hdr->job_uid_size);
}

std::string get_hostname(const ZVKFileHeader* hdr) {
  return std::string(hdr->data + hdr->cpu_model_str_len + hdr->job_uid_size,
                     hdr->hostname_str_len);
}

std::string get_instance_type(const ZVKFileHeader* hdr) {
  return std::string(
      hdr->data + hdr->cpu_model_str_len + hdr->job_uid_size + hdr->hostname_str_len,
      hdr->instance_str_len);
}

namespace {

// Appends printf-formatted text to a fixed block, never past its end.
class TextBlock {
 public:
  template <typename... Args>
  void append(const char* format, Args... args) {
    if (m_used >= sizeof(m_block) - 1) return;
    int wrote = snprintf(m_block + m_used, sizeof(m_block) - m_used, format, args...);
    if (wrote > 0) m_used = std::min(sizeof(m_block) - 1, m_used + static_cast<size_t>(wrote));
  }
  void append_text(const char* text) { append("%s", text); }
  const char* c_str() const { return m_block; }

 private:
  char m_block[4096] = {};
  size_t m_used = 0;
};

}  // namespace

Status dump_zvkfile_header(const ZVKFileHeader* hdr, std::ostream& out) {
  if (hdr == nullptr) return Status(error::FAILED_PRECONDITION, "File header is nullptr!");
  TextBlock block;
  block.append_text("\tMagic= '");
  block.append("%.8s", hdr->key);
  block.append(
      "'\n\tZVKVersion= %10d,\n\tcompression= %7d,\n\tConfig= %lu,\n\tstart= %s,\n\tend= "
      "%s,\n\tclock_offset= %lu,\n\tpid= %d,\n\tmax_bucket= %d,\n\tmax_uncompressed= %d,\n\t",
      hdr->ZVKVersion, hdr->compression, static_cast<unsigned long>(hdr->ZVKConfig),
      local_time_text(hdr->start_time, "%F %H:%M:%S").c_str(),
      local_time_text(hdr->end_time, "%F %H:%M:%S").c_str(),
      static_cast<unsigned long>(hdr->clock_shift), hdr->pid, hdr->max_bucket_size,
      hdr->max_uncompressed_size);
  block.append(
      "num_buckets= %d,\n\tcomp_dict_size= %d,\n\tcpu_model= %d,\n\tcpu_model_name_size= "
      "%d,\n\tjob_uid_size= %d,\n\thostname_size= %d,\n\tinstance_size= %d,\n\treserved= %d,\n\t",
      hdr->num_buckets, hdr->compression_dict_size, hdr->cpu_model, hdr->cpu_model_str_len,
      hdr->job_uid_size, hdr->hostname_str_len, hdr->instance_str_len, hdr->reserved);
  if (hdr->cpu_model_str_len != 0) {
    block.append("CPU Model Name= '%s'", get_cpu_model_id(hdr).c_str());
    block.append_text("\n\t");
  }
  if (hdr->job_uid_size != 0) {
    block.append("Job UID= '%s'", get_jobuid(hdr).c_str());
    block.append_text("\n");
    if (hdr->hostname_str_len != 0) block.append_text("\t");
  }
  if (hdr->hostname_str_len != 0) {
    block.append("Hostname= \"%s\"", get_hostname(hdr).c_str());
    block.append_text("\n");
    if (hdr->instance_str_len != 0) block.append_text("\t");
  }
  if (hdr->instance_str_len != 0) {
    block.append("Instance Type= \"%s\"\n", get_instance_type(hdr).c_str());
  }
  out << block.c_str();
  return Status::OK();
}

}  // namespace zorvek
