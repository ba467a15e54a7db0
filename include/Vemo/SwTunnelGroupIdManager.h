// Software tunnel group identifiers: one 64-bit word names a group of tunnel endpoints, so that
// the tunnel SMs key their tables by it. A group of one IPv4 endpoint is named by its address
// and needs no state; a larger group gets a sequence number that is released when its last
// reference goes.
#pragma once

#include <memory>
#include <string_view>

#include "Vemo/VemoCommon.h"
#include "ZolGen/VemoL3.h"
#include "ZolGen/VemoVxlan.h"

namespace Vemo {

// (index << 1) | type; index must leave bit 63 clear.
SwTunnelGroupId convertToSwTunnelGroupId(SwTunnelGroupType type, Zol::U64 index);

// Hands out and releases the identifiers of tunnel endpoint groups and counts the references
// to them. A multi-member identifier stays valid, and its list keeps it, until its reference
// count drops to zero; the release then runs from the refcount table's notification, so that a
// reference taken again in the same pass keeps it. Sequence numbers are never reused.
class SwTunnelGroupIdManager : public VemoBaseSm {
 public:
  static constexpr Zol::U64 minIdx = SwTunnelGroupIdData::minIdx;
  static constexpr Zol::U64 maxIdx = SwTunnelGroupIdData::maxIdx;

  explicit SwTunnelGroupIdManager(Zol::Ptr<VemoCommonSmData> const& commonData);
  ~SwTunnelGroupIdManager() override;
  std::string_view fwkType() const override { return "Vemo::SwTunnelGroupIdManager"; }
  // Start: creates the refcount table and watches it.
  void handleInitialized() override;

  Zol::Ptr<SwTunnelGroupIdData> const& data() const { return data_; }
  Zol::U64 currentIdx() const { return data_->currentIdx(); }
  // Throws Zol::RangeException above maxIdx.
  void currentIdxIs(Zol::U64 idx) { data_->currentIdxIs(idx); }
  // The multi-member identifier of a list, or the empty one.
  SwTunnelGroupId tunnelIpAddrListToTunnelId(TunnelIpAddrList const& list) const {
    return data_->tunnelIpAddrListToTunnelId(list);
  }
  // The list of a multi-member identifier, or the empty list.
  TunnelIpAddrList const& swTunnelGroupIdToAddr(SwTunnelGroupId id) const {
    return data_->swTunnelGroupIdToAddr(id);
  }
  Zol::Ptr<VXLAN::RefcountTable> const& refcountTable() const { return data_->refcountTable(); }

  // The identifier of a list: a lone IPv4 address names itself, any other list gets the
  // identifier it already has or a new one. The empty list has the empty identifier.
  SwTunnelGroupId getSwTunnelGroupIdForTunnelIpList(TunnelIpAddrList const& tunnelIpAddrList);
  // The single-member identifier of an IPv4 address.
  SwTunnelGroupId getSwTunnelGroupIdForTunnelIp(Nepo::IpAddr const& addr) const;
  Nepo::IpAddr getTunnelIpFromSwTunnelGroupId(SwTunnelGroupId swTunnelGroupId) const;
  TunnelIpAddrList getTunnelIpListFromSwTunnelGroupId(SwTunnelGroupId swTunnelGroupId) const;
  bool isSwTunnelGroupIdValid(SwTunnelGroupId swTunnelGroupId) const;

  void incSwTunnelGroupIdRefcount(SwTunnelGroupId swTunnelGroupId);
  void decSwTunnelGroupIdRefcount(SwTunnelGroupId swTunnelGroupId);
  // delta references more (fewer when negative) in one write.
  void addSwTunnelGroupIdRefcount(SwTunnelGroupId swTunnelGroupId, Zol::S64 delta);
  // Moves one reference from oldId to newId; an identifier that is both keeps its count.
  void updateSwTunnelGroupIdRefcount(SwTunnelGroupId newId, SwTunnelGroupId oldId);

  // The refcount of value changed: releases the identifier once no reference is left.
  void handleSwTunnelGroupId(Zol::U64 value);
  void releaseSwTunnelGroupId(SwTunnelGroupId swTunnelGroupId);
  // Checks that the two maps mirror each other and hold only multi-member identifiers.
  void handleVerify();

 private:
  class RefcountReactor;
  class VerifyReactor;

  Zol::U64 newIndex();
  void reportMismatch(Zol::String const& text) const;
  void traceMaps() const;

  Zol::Ptr<SwTunnelGroupIdData> data_;
  std::unique_ptr<RefcountReactor> refcountReactor_;
  std::unique_ptr<VerifyReactor> verifyReactor_;
};

Zol::Ptr<SwTunnelGroupIdManager> swTunnelGroupIdManagerFactory(
    Zol::Ptr<VemoCommonSmData> const& commonData);

}  // namespace Vemo
