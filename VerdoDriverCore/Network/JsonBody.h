#pragma once

#include "VerdoDriverCore/Network/HttpSession.h"
#include "VerdoDriverCore/Values/JV.h"
#include "VerdoDriverCore/Values/PyJSON.h"

#include <cstddef>
#include <vector>

namespace verdo {

/// A JSON value as the body of a request, laid out as PyJSON::text lays it out. Long strings in it
/// are escaped as they are sent: in pure ASCII they may be three times as long.
class JsonBody : public HttpBodySource {
 public:
  explicit JsonBody(JV value);
  JsonBody(const JsonBody&) = delete;
  JsonBody& operator=(const JsonBody&) = delete;

  std::size_t size() const override { return size_; }
  Read open() const override;

 private:
  const JV value_;
  const std::vector<PyJSON::Part> parts_;  ///< they point into value_
  std::size_t size_ = 0;
};

}  // namespace verdo
