#include "Wevl/Ring.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace Wevl {

Ring::Ring(size_t capacityRecords, Clock clock) : clock_(std::move(clock)) {
  if (capacityRecords == 0) throw std::invalid_argument("Wevl::Ring needs room for one record");
  records_.resize(capacityRecords);
}

void Ring::clear() {
  head_ = 0;
  size_ = 0;
  dropped_ = 0;
}

void Ring::write(double time, uint32_t desc, detail::Captured const* args, size_t count) {
  Record& r = records_[head_];
  if (++head_ == records_.size()) head_ = 0;
  if (size_ == records_.size()) {
    ++dropped_;
  } else {
    ++size_;
  }
  r.time_ = time;
  r.desc_ = desc;
  r.kinds_ = 0;

  // Strings share what the other arguments leave. Short strings are kept whole; the long ones
  // split the rest evenly, so one long name cannot crowd out the others.
  size_t budget[kMaxArgs] = {};
  size_t free = kPayloadBytes;
  size_t longStrings = 0;
  for (size_t i = 0; i < count; ++i) {
    free -= detail::fixedBytes(args[i].kind);
    if (args[i].kind == Kind::Str) ++longStrings;
  }
  bool placed[kMaxArgs] = {};
  for (bool progress = true; longStrings > 0 && progress;) {
    progress = false;
    size_t const share = free / longStrings;
    for (size_t i = 0; i < count; ++i) {
      if (args[i].kind != Kind::Str || placed[i] || args[i].str.size() > share) continue;
      budget[i] = args[i].str.size();
      free -= budget[i];
      placed[i] = true;
      --longStrings;
      progress = true;
    }
  }
  if (longStrings > 0) {
    size_t const share = free / longStrings;
    size_t extra = free % longStrings;
    for (size_t i = 0; i < count; ++i) {
      if (args[i].kind != Kind::Str || placed[i]) continue;
      budget[i] = share + (extra > 0 ? 1 : 0);
      if (extra > 0) --extra;
    }
  }

  uint8_t* p = r.payload_;
  for (size_t i = 0; i < count; ++i) {
    auto const& a = args[i];
    r.kinds_ |= uint32_t{static_cast<uint8_t>(a.kind)} << (4 * i);
    switch (a.kind) {
      case Kind::Bool:
      case Kind::Char:
        *p++ = static_cast<uint8_t>(a.bits);
        break;
      case Kind::Str: {
        size_t const n = std::min(a.str.size(), budget[i]);
        *p++ = static_cast<uint8_t>(n | (n < a.str.size() ? 0x80 : 0));
        std::memcpy(p, a.str.data(), n);
        p += n;
        break;
      }
      default:
        detail::storeLE(p, a.bits, 8);
        p += 8;
        break;
    }
  }
  // Stale bytes of the overwritten record would otherwise end up in dumps.
  std::fill(p, r.payload_ + kPayloadBytes, uint8_t{0});
}

std::vector<Arg> Record::args() const {
  std::vector<Arg> out;
  if (!detail::decodeArgs(kinds_, payload_, out)) throw std::logic_error("Wevl record is damaged");
  return out;
}

namespace detail {

bool decodeArgs(uint32_t kinds, uint8_t const* payload, std::vector<Arg>& out) {
  out.clear();
  size_t pos = 0;
  size_t i = 0;
  for (; i < kMaxArgs; ++i) {
    auto const k = static_cast<uint8_t>((kinds >> (4 * i)) & 0xf);
    if (k == 0) break;
    if (k > kLastKind) return false;
    Arg a;
    a.kind = static_cast<Kind>(k);
    size_t const need = fixedBytes(a.kind);
    if (pos + need > kPayloadBytes) return false;
    if (need == 1) {
      a.bits = payload[pos++];
      if (a.kind == Kind::Str) {
        size_t const n = a.bits & 0x7f;
        a.truncated = (a.bits & 0x80) != 0;
        a.bits = 0;
        if (pos + n > kPayloadBytes) return false;
        a.str.assign(reinterpret_cast<char const*>(payload + pos), n);
        pos += n;
      }
    } else {
      a.bits = loadLE(payload + pos, 8);
      pos += 8;
    }
    out.push_back(std::move(a));
  }
  // Kinds after the end of the list mean the word is garbage.
  return i == kMaxArgs || (kinds >> (4 * i)) == 0;
}

}  // namespace detail

}  // namespace Wevl
