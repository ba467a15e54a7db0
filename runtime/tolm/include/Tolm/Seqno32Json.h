// The JSON form of a sequence number: its raw value, as in its text form.
#pragma once

#include "Tolm/Seqno32.h"
#include "Zol/Json.h"

template <>
struct Zol::JsonTraits<Tolm::Seqno32> {
  static Json to(Tolm::Seqno32 v, JsonAlloc& a) { return toJson(v.value(), a); }
  static Tolm::Seqno32 from(Json const& j) { return Tolm::Seqno32(fromJson<uint32_t>(j)); }
};
