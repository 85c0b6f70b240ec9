#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "zorv/utils/logging.h"

namespace zorvek {
namespace error {

enum Code : int32_t {
  OK = 0,
  INVALID_ARGUMENT = 1,
  UNSUPPORTED = 2,
  FAILED_PRECONDITION = 3,
  PERMISSION_DENIED = 4,
  UNIMPLEMENTED = 5,
  INSUFFICIENT_RESOURCES = 6,
  FAILURE = 7,
  END_OF_DATA = 8,
  NUM_ERROR_CODES = 9,
};
static_assert(sizeof(Code) == 4, "error::Code is a 32-bit enum");

}  // namespace error

// Result of almost every operation: a code and a message. Success carries "OK".
// A Status prints by its message alone; there is deliberately no stream operator.
class Status {
 public:
  Status() : code_(error::OK), msg_("OK") {}
  explicit Status(error::Code code) : code_(code), msg_(code == error::OK ? "OK" : "") {}
  Status(error::Code code, std::string msg) : code_(code), msg_(std::move(msg)) {}

  Status(const Status&) = default;
  Status(Status&&) noexcept = default;
  Status& operator=(const Status&) = default;
  Status& operator=(Status&&) noexcept = default;

  static Status OK() { return Status(error::OK, "OK"); }

  bool ok() const { return code_ == error::OK; }

  bool operator==(const Status& other) const {
    return code_ == other.code_ && msg_ == other.msg_;
  }
  bool operator!=(const Status& other) const { return !(*this == other); }

  error::Code code_;
  std::string msg_;
};

}  // namespace zorvek

#define ZVK_RETURN_NOT_OK(expression)   \
  do {                                  \
    ::zorvek::Status _s = (expression); \
    if (!_s.ok()) return _s;            \
  } while (0)

#define ZVK_LOG_NOT_OK(severity, expression, text)                               \
  do {                                                                           \
    ::zorvek::Status _s = (expression);                                          \
    if (!_s.ok()) {                                                              \
      LOG(severity) << "Status check failed " << text << " status= " << _s.msg_; \
    }                                                                            \
  } while (0)
