// The hand-written behaviour of the VXLAN overlay's tables: reference counts, what missing MACs
// read as, and the indices of remote MACs by MLAG index and by VLAN.
#include "Vemo/VxlanTypes.h"

#include <limits>

#include "Vemo/VemoCommon.h"

ZOL_TRACE_MODULE("VemoVxlanTypes")

namespace Vemo::VXLAN {

namespace {

constexpr Zol::U32 noCount = std::numeric_limits<Zol::U32>::max();

// Both indices: true when the index entity is left empty.
template <class Index>
bool delMacFromIndex(Zol::Ptr<Index> const& entity, Nepo::EthAddr const& macAddr) {
  if (!entity) return false;
  entity->macAddrListDel(macAddr);
  return entity->macAddrListSize() == 0;
}

}  // namespace

Zol::U32 RefcountTable::incRefcount(Zol::U64 index) {
  Zol::U32 const val = refcount(index).count();
  ZOL_TRACE(8, "U32 Vemo::VXLAN::RefcountTable::incRefcount(U32)"
                   << " index " << index << " val " << val);
  // A count at all ones cannot grow; it starts again at one reference.
  Zol::U32 const next = val < noCount ? val + 1 : 1;
  refcountIs(index, RefcountVal(next));
  return next;
}

void RefcountTable::decRefcount(Zol::U64 index) {
  Zol::U32 const val = refcount(index).count();
  ZOL_TRACE(8, "void Vemo::VXLAN::RefcountTable::decRefcount(U32)"
                   << " index " << index << " val " << val);
  if (val == noCount) Vemo::vemoAssert("!!refcount( index )");
  if (val <= 1) {
    refcountDel(index);
  } else {
    refcountIs(index, RefcountVal(val - 1));
  }
}

Zol::U32 RefcountTable::addRefcount(Zol::U64 index, Zol::S64 delta) {
  Zol::S64 const val = refcountHas(index) ? refcount(index).count() : 0;
  ZOL_TRACE(8, "U32 Vemo::VXLAN::RefcountTable::addRefcount(U64, S64)"
                   << " index " << index << " val " << val << " delta " << delta);
  Zol::S64 const next = val + delta;
  if (next < 0) Vemo::vemoAssert("!!refcount( index )");
  if (next == 0) {
    refcountDel(index);
    return 0;
  }
  // As one at a time would: past all ones the count starts again at one.
  Zol::U32 const count = next < Zol::S64{noCount} ? static_cast<Zol::U32>(next) : 1;
  refcountIs(index, RefcountVal(count));
  return count;
}

HostEntry HostTable::entryDefault(Bridging::MacVlanPair const& k) {
  HostEntry e;
  e.keyIs(k);
  return e;
}

StatusEntry HostStatusTable::statusEntryDefault(Bridging::MacVlanPair const& k) {
  StatusEntry e;
  e.keyIs(k);
  e.tunnelIdIs(Vemo::VemoTunnelId::noTunnel());
  return e;
}

void RemoteMacInfoDir::addMlagHostTableIndex(Zol::U32 index, Nepo::EthAddr const& macAddr) {
  ZOL_TRACE(8, "addMlagHostTableIndex " << index << " " << macAddr);
  mlagHostTableIndexIs(index)->macAddrListIs(macAddr, true);
}

void RemoteMacInfoDir::delMlagHostTableIndex(Zol::U32 index, Nepo::EthAddr const& macAddr) {
  ZOL_TRACE(8, "delMlagHostTableIndex " << index << " " << macAddr);
  if (delMacFromIndex(mlagHostTableIndex(index), macAddr)) mlagHostTableIndexDel(index);
}

void RemoteMacInfoDir::addMacToVlanBasedHostIndex(Zol::U32 vlan, Nepo::EthAddr const& macAddr) {
  ZOL_TRACE(8, "addMacToVlanBasedHostIndex " << vlan << " " << macAddr);
  vlanBasedHostTableIndexIs(vlan)->macAddrListIs(macAddr, true);
}

void RemoteMacInfoDir::delMacFromVlanBasedHostIndex(Zol::U32 vlan, Nepo::EthAddr const& macAddr) {
  ZOL_TRACE(8, "delMacFromVlanBasedHostIndex " << vlan << " " << macAddr);
  if (delMacFromIndex(vlanBasedHostTableIndex(vlan), macAddr)) vlanBasedHostTableIndexDel(vlan);
}

}  // namespace Vemo::VXLAN
