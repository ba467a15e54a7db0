// The VXLAN overlay's state (generated from schema/VemoVxlan.toml), and the JSON form of the
// sequence numbers its received entries carry.
#pragma once

#include "Tolm/Seqno32.h"
#include "Zol/Json.h"
#include "ZolGen/VemoVxlan.h"

// A sequence number is its raw value in JSON, as in its text form.
template <>
struct Zol::JsonTraits<Tolm::Seqno32> {
  static Json to(Tolm::Seqno32 v, JsonAlloc& a) { return toJson(v.value(), a); }
  static Tolm::Seqno32 from(Json const& j) { return Tolm::Seqno32(fromJson<uint32_t>(j)); }
};
