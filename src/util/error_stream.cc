#include "util/error_stream.h"

#include <iostream>

namespace torvane {

UtilityErrorStreamBuf::~UtilityErrorStreamBuf() { deliver_pending(); }

int UtilityErrorStreamBuf::sync() {
  deliver_pending();
  return 0;
}

UtilityErrorStreamBuf::int_type UtilityErrorStreamBuf::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return c;
  const char ch = traits_type::to_char_type(c);
  std::cerr.put(ch);
  pending_.push_back(ch);
  return c;
}

void UtilityErrorStreamBuf::deliver_pending() {
  std::cerr.flush();
  std::cout.write(pending_.data(),
                  static_cast<std::streamsize>(pending_.size()));
  std::cout.flush();
  pending_.clear();
}

// The buffer member is constructed before the stream's body runs, so it can
// be attached here; the base is first built without a buffer.
UtilityErrorStream::UtilityErrorStream() : std::ostream(nullptr) {
  rdbuf(&buffer_);
}

UtilityErrorStream error_stream;

}  // namespace torvane
