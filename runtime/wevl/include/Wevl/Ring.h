// The binary trace ring: fixed-size records written without formatting, the oldest overwritten when
// the ring is full. Meant for the hot paths of the state machines, on the agent's single thread.
//
//   WEVL_PUT(ring, "LagSm", level_, 3, "member %s joined lag %u", intf, lagId);
//
// records when 3 <= level_, and otherwise evaluates none of the arguments.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Wevl/Format.h"
#include "Wevl/MsgDesc.h"

namespace Wevl {

inline constexpr size_t kRecordBytes = 64;
inline constexpr size_t kPayloadBytes = 48;
inline constexpr size_t kMaxArgs = 8;  // one 4-bit kind per argument in a 32-bit word

// One event. In the payload, integers, doubles and pointers take 8 bytes (little-endian), bools and
// chars 1 byte, and a string 1 length byte (bit 7: truncated) followed by its bytes.
class alignas(kRecordBytes) Record {
 public:
  double time() const { return time_; }
  uint32_t descId() const { return desc_; }
  // nullptr once the descriptor has been destroyed.
  MsgDesc const* desc() const { return MsgDesc::byId(desc_); }
  uint32_t kinds() const { return kinds_; }
  uint8_t const* payload() const { return payload_; }
  std::vector<Arg> args() const;

 private:
  friend class Ring;
  double time_ = 0;
  uint32_t desc_ = 0;
  uint32_t kinds_ = 0;  // argument i's Kind in bits 4i..4i+3; Kind::None ends the list
  uint8_t payload_[kPayloadBytes] = {};
};
static_assert(sizeof(Record) == kRecordBytes);

namespace detail {

// An argument reduced to what the record stores. str refers to the caller's string, which outlives
// the put() call.
struct Captured {
  Kind kind = Kind::None;
  uint64_t bits = 0;
  std::string_view str;
};

constexpr size_t fixedBytes(Kind k) {
  return k == Kind::Bool || k == Kind::Char || k == Kind::Str ? 1 : 8;
}

template <class... Args>
constexpr size_t fixedBytes() {
  return (size_t{0} + ... + fixedBytes(kindOf<Args>()));
}

template <class T>
Captured capture(T const& v) {
  constexpr Kind kind = kindOf<T>();
  static_assert(kind != Kind::None,
                "Wevl cannot record this type; give it a wevlValue(T const&) function returning a "
                "scalar, a std::string_view or a char const*");
  if constexpr (HasWevlValue<T>) {
    using R = decltype(wevlValue(v));
    static_assert(kind != Kind::Str || std::is_reference_v<R> ||
                      std::is_same_v<std::remove_cv_t<R>, std::string_view> ||
                      std::is_pointer_v<std::remove_cv_t<R>>,
                  "wevlValue must not return an owning string: the record copies it only later");
    return capture(wevlValue(v));
  } else if constexpr (kind == Kind::Bool) {
    return {kind, v ? 1u : 0u, {}};
  } else if constexpr (kind == Kind::Char) {
    return {kind, static_cast<unsigned char>(v), {}};
  } else if constexpr (std::is_enum_v<T>) {
    using U = std::underlying_type_t<T>;
    if constexpr (kind == Kind::Int) {
      return {kind, static_cast<uint64_t>(static_cast<int64_t>(static_cast<U>(v))), {}};
    } else {
      return {kind, static_cast<uint64_t>(static_cast<U>(v)), {}};
    }
  } else if constexpr (kind == Kind::Int) {
    return {kind, static_cast<uint64_t>(static_cast<int64_t>(v)), {}};
  } else if constexpr (kind == Kind::Uint) {
    return {kind, static_cast<uint64_t>(v), {}};
  } else if constexpr (kind == Kind::Double) {
    return {kind, std::bit_cast<uint64_t>(static_cast<double>(v)), {}};
  } else if constexpr (kind == Kind::Str) {
    if constexpr (std::is_array_v<T>) {
      // A char buffer need not be terminated; never read past it.
      size_t n = 0;
      while (n < std::extent_v<T> && v[n] != '\0') ++n;
      return {kind, 0, std::string_view(v, n)};
    } else if constexpr (std::is_pointer_v<T>) {
      return {kind, 0, v ? std::string_view(v) : std::string_view("(null)")};
    } else {
      return {kind, 0, std::string_view(v)};
    }
  } else {
    return {kind, reinterpret_cast<uintptr_t>(v), {}};
  }
}

// Byte order of dumps and payloads, whatever the host's.
inline void storeLE(uint8_t* p, uint64_t v, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline uint64_t loadLE(uint8_t const* p, size_t bytes) {
  uint64_t v = 0;
  for (size_t i = 0; i < bytes; ++i) v |= uint64_t{p[i]} << (8 * i);
  return v;
}

// Reads the arguments of a record; false if the kinds and payload do not make sense (a damaged
// dump).
bool decodeArgs(uint32_t kinds, uint8_t const* payload, std::vector<Arg>& out);

}  // namespace detail

class Ring {
 public:
  // The time source of put(); without one, records are stamped 0. The library reads no clock of its
  // own, so simulated time works unchanged.
  using Clock = std::function<double()>;

  // Throws std::invalid_argument for a capacity of 0.
  explicit Ring(size_t capacityRecords, Clock clock = {});
  Ring(Ring const&) = delete;
  Ring& operator=(Ring const&) = delete;
  Ring(Ring&&) = default;
  Ring& operator=(Ring&&) = default;

  void clockIs(Clock clock) { clock_ = std::move(clock); }

  // A message of msgLevel is recorded when the module's current level is at least msgLevel.
  static constexpr bool enabled(unsigned currentLevel, unsigned msgLevel) {
    return msgLevel <= currentLevel;
  }

  // Records one event. Strings that do not fit are truncated; the argument types are checked
  // against what a record can hold at compile time, but not against the format (see WEVL_PUT).
  template <class... Args>
  void put(MsgDesc const& desc, Args const&... args) {
    putAt(clock_ ? clock_() : 0.0, desc, args...);
  }

  template <class... Args>
  void putAt(double time, MsgDesc const& desc, Args const&... args) {
    static_assert(sizeof...(Args) <= kMaxArgs, "a Wevl record holds at most 8 arguments");
    static_assert(detail::fixedBytes<Args...>() <= kPayloadBytes,
                  "these arguments do not fit a Wevl record (48 bytes; numbers take 8)");
    std::array<detail::Captured, sizeof...(Args)> const captured = {detail::capture(args)...};
    write(time, desc.id(), captured.data(), captured.size());
  }

  // put() with the format checked against the argument types at compile time.
  template <class... Args>
  void putChecked(MsgDesc const& desc, FormatString<std::type_identity_t<Args>...>,
                  Args const&... args) {
    put(desc, args...);
  }

  size_t capacity() const { return records_.size(); }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Records overwritten since construction or the last clear().
  uint64_t dropped() const { return dropped_; }
  void clear();

  // Oldest first.
  Record const& operator[](size_t i) const { return records_[(first() + i) % records_.size()]; }

  class Iterator {
   public:
    using value_type = Record;
    using difference_type = std::ptrdiff_t;
    Iterator() = default;
    Record const& operator*() const { return (*ring_)[i_]; }
    Record const* operator->() const { return &(*ring_)[i_]; }
    Iterator& operator++() {
      ++i_;
      return *this;
    }
    Iterator operator++(int) {
      Iterator old = *this;
      ++i_;
      return old;
    }
    bool operator==(Iterator const& o) const { return i_ == o.i_; }

   private:
    friend class Ring;
    Iterator(Ring const* ring, size_t i) : ring_(ring), i_(i) {}
    Ring const* ring_ = nullptr;
    size_t i_ = 0;
  };
  Iterator begin() const { return Iterator(this, 0); }
  Iterator end() const { return Iterator(this, size_); }

  // The self-describing dump (see Decode.h), as bytes or written to a file. dumpTo throws
  // std::runtime_error when the file cannot be written.
  std::vector<uint8_t> dump() const;
  void dumpTo(std::filesystem::path const& path) const;

  // The records as decoded lines, without a dump; a record whose descriptor is gone shows as "?".
  std::vector<std::string> lines() const;

 private:
  size_t first() const { return (head_ + records_.size() - size_) % records_.size(); }
  void write(double time, uint32_t desc, detail::Captured const* args, size_t count);

  std::vector<Record> records_;
  size_t head_ = 0;  // the slot the next record goes to
  size_t size_ = 0;
  uint64_t dropped_ = 0;
  Clock clock_;
};

}  // namespace Wevl

// Records a message when level <= currentLevel, declaring its descriptor at the call site. When
// disabled it costs one comparison and evaluates none of the arguments. module and level must be
// constants (the descriptor is built once); the format must be a string literal, checked against
// the argument types at compile time.
#define WEVL_PUT(ring, module, currentLevel, level, fmt, ...)                               \
  do {                                                                                      \
    if (::Wevl::Ring::enabled((currentLevel), (level))) {                                   \
      static ::Wevl::MsgDesc const wevlDesc_((module), (level), (fmt), __FILE__, __LINE__); \
      (ring).putChecked(wevlDesc_, (fmt)__VA_OPT__(, ) __VA_ARGS__);                        \
    }                                                                                       \
  } while (0)
