// Names, strings, time and the framework's errors.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Zol {

using Name = std::string;
using String = std::string;
// Time in seconds on the monotonic clock (or the simulated one).
using Seconds = double;

using U8 = uint8_t;
using U16 = uint16_t;
using U32 = uint32_t;
using U64 = uint64_t;
using S8 = int8_t;
using S16 = int16_t;
using S32 = int32_t;
using S64 = int64_t;

// A value outside the limits of a value type; the text names the type, the field and the bounds.
class RangeException : public std::range_error {
 public:
  explicit RangeException(std::string const& what) : std::range_error(what) {}
};

// Text that does not parse as the value it should hold (an address, a name, a Value(...) form).
class ParseError : public std::invalid_argument {
 public:
  explicit ParseError(std::string const& what) : std::invalid_argument(what) {}
};

// A by-name binding (attribute, key, JSON value) that does not fit the entity it names.
class BindError : public std::invalid_argument {
 public:
  explicit BindError(std::string const& what) : std::invalid_argument(what) {}
};

}  // namespace Zol
