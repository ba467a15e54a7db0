#include "SwTunnelGroupIdManagerReactors.h"

ZOL_TRACE_MODULE("SwTunnelGroupIdManager")

namespace Vemo {

SwTunnelGroupId convertToSwTunnelGroupId(SwTunnelGroupType type, Zol::U64 index) {
  if (index & (1ULL << 63)) Vemo::vemoAssert("!( index & ( 1ULL << 63 ) )");
  return SwTunnelGroupId((index << 1) | static_cast<Zol::U64>(type));
}

SwTunnelGroupIdManager::SwTunnelGroupIdManager(Zol::Ptr<VemoCommonSmData> const& commonData)
    : VemoBaseSm(commonData),
      data_(Zol::make<SwTunnelGroupIdData>("swTunnelGroupIdData")),
      refcountReactor_(std::make_unique<RefcountReactor>(this)),
      verifyReactor_(std::make_unique<VerifyReactor>(this)) {
  verifyReactor_->notifierIs(commonData->verifyData());
  // Nothing waits on other inputs: the manager serves from construction on.
  initializedIs(true);
}

SwTunnelGroupIdManager::~SwTunnelGroupIdManager() = default;

void SwTunnelGroupIdManager::handleInitialized() {
  ZOL_TRACE(9, "void Vemo::SwTunnelGroupIdManager::handleInitialized()");
  if (!initialized()) return;
  // A restart of the SM keeps the references counted so far.
  if (!data_->refcountTable()) data_->refcountTableIs("swTunnelGroupIdRefcountTable");
  refcountReactor_->notifierIs(data_->refcountTable());
}

Zol::U64 SwTunnelGroupIdManager::newIndex() {
  // The range check stops the counter before an index could reach bit 63.
  currentIdxIs(currentIdx() + 1);
  return currentIdx();
}

SwTunnelGroupId SwTunnelGroupIdManager::getSwTunnelGroupIdForTunnelIpList(
    TunnelIpAddrList const& tunnelIpAddrList) {
  ZOL_TRACE(8, "getSwTunnelGroupIdForTunnelIpList"
                   << " tunnelIpAddrList: " << tunnelIpAddrList.stringValue());
  auto const& addrs = tunnelIpAddrList.tunnelIpAddrAll();
  if (addrs.empty()) return SwTunnelGroupId();
  // An IPv6 address does not fit the index, so a lone one is numbered like a larger group.
  if (addrs.size() == 1 && addrs.begin()->first.isV4()) {
    return getSwTunnelGroupIdForTunnelIp(addrs.begin()->first);
  }
  if (data_->tunnelIpAddrListToTunnelIdHas(tunnelIpAddrList)) {
    SwTunnelGroupId const swTunnelGroupId = data_->tunnelIpAddrListToTunnelId(tunnelIpAddrList);
    if (!swTunnelGroupId.isMultiMemberGroup()) {
      vemoAssert("swTunnelGroupId.isMultiMemberGroup()");
    }
    ZOL_TRACE(8, " tunnelIpAddrList already assigned a SwTunnelGroupId");
    return swTunnelGroupId;
  }
  SwTunnelGroupId const swTunnelGroupId =
      convertToSwTunnelGroupId(SwTunnelGroupType::multiMemberGroup, newIndex());
  if (data_->swTunnelGroupIdToAddrHas(swTunnelGroupId)) {
    vemoAssert("!swTunnelGroupIdToAddr( swTunnelGroupId )");
  }
  data_->swTunnelGroupIdToAddrIs(swTunnelGroupId, tunnelIpAddrList);
  data_->tunnelIpAddrListToTunnelIdIs(tunnelIpAddrList, swTunnelGroupId);
  return swTunnelGroupId;
}

SwTunnelGroupId SwTunnelGroupIdManager::getSwTunnelGroupIdForTunnelIp(
    Nepo::IpAddr const& addr) const {
  return convertToSwTunnelGroupId(SwTunnelGroupType::singleMemberGroup, addr.v4HostOrder());
}

Nepo::IpAddr SwTunnelGroupIdManager::getTunnelIpFromSwTunnelGroupId(
    SwTunnelGroupId swTunnelGroupId) const {
  if (swTunnelGroupId.tunnelGroupType() != SwTunnelGroupType::singleMemberGroup) {
    vemoAssert("swTunnelGroupId.tunnelGroupType() == SwTunnelGroupType::singleMemberGroup_");
  }
  return Nepo::IpAddr::fromV4HostOrder(static_cast<uint32_t>(swTunnelGroupId.index()));
}

TunnelIpAddrList SwTunnelGroupIdManager::getTunnelIpListFromSwTunnelGroupId(
    SwTunnelGroupId swTunnelGroupId) const {
  if (swTunnelGroupId.isEmpty()) return TunnelIpAddrList();
  if (swTunnelGroupId.isSingleMemberGroup()) {
    return TunnelIpAddrList{getTunnelIpFromSwTunnelGroupId(swTunnelGroupId)};
  }
  return swTunnelGroupIdToAddr(swTunnelGroupId);
}

bool SwTunnelGroupIdManager::isSwTunnelGroupIdValid(SwTunnelGroupId swTunnelGroupId) const {
  if (swTunnelGroupId.isSingleMemberGroup()) return true;
  if (!swTunnelGroupId.isMultiMemberGroup()) vemoAssert("swTunnelGroupId.isMultiMemberGroup()");
  return data_->swTunnelGroupIdToAddrHas(swTunnelGroupId);
}

void SwTunnelGroupIdManager::incSwTunnelGroupIdRefcount(SwTunnelGroupId swTunnelGroupId) {
  ZOL_TRACE(8,
            "void Vemo::SwTunnelGroupIdManager::incSwTunnelGroupIdRefcount("
            "Vemo::SwTunnelGroupId) "
                << swTunnelGroupId.value());
  if (swTunnelGroupId.isEmpty()) return;
  refcountTable()->incRefcount(swTunnelGroupId.value());
}

void SwTunnelGroupIdManager::decSwTunnelGroupIdRefcount(SwTunnelGroupId swTunnelGroupId) {
  ZOL_TRACE(8,
            "void Vemo::SwTunnelGroupIdManager::decSwTunnelGroupIdRefcount("
            "Vemo::SwTunnelGroupId) "
                << swTunnelGroupId.value());
  // A released identifier's references went with it.
  if (swTunnelGroupId.isEmpty() || !isSwTunnelGroupIdValid(swTunnelGroupId)) return;
  refcountTable()->decRefcount(swTunnelGroupId.value());
}

void SwTunnelGroupIdManager::addSwTunnelGroupIdRefcount(SwTunnelGroupId swTunnelGroupId,
                                                        Zol::S64 delta) {
  ZOL_TRACE(8, "addSwTunnelGroupIdRefcount " << swTunnelGroupId.value() << " " << delta);
  if (swTunnelGroupId.isEmpty() || delta == 0) return;
  // A released identifier's references went with it.
  if (delta < 0 && !isSwTunnelGroupIdValid(swTunnelGroupId)) return;
  refcountTable()->addRefcount(swTunnelGroupId.value(), delta);
}

void SwTunnelGroupIdManager::updateSwTunnelGroupIdRefcount(SwTunnelGroupId newId,
                                                           SwTunnelGroupId oldId) {
  ZOL_TRACE(8, "updateSwTunnelGroupIdRefcount"
                   << " New Id " << newId.value() << " Old Id " << oldId.value());
  if (newId == oldId) return;
  // Taking the new reference first keeps a group shared by both above zero.
  incSwTunnelGroupIdRefcount(newId);
  decSwTunnelGroupIdRefcount(oldId);
}

void SwTunnelGroupIdManager::handleSwTunnelGroupId(Zol::U64 value) {
  ZOL_TRACE(8, "handleSwTunnelGroupId"
                   << " SwTunnelGroupId: " << value);
  if (value == 0 || refcountTable()->refcountHas(value)) return;
  releaseSwTunnelGroupId(SwTunnelGroupId(value));
}

void SwTunnelGroupIdManager::releaseSwTunnelGroupId(SwTunnelGroupId swTunnelGroupId) {
  ZOL_TRACE(8, "releaseSwTunnelGroupId"
                   << " SwTunnelGroupId: " << swTunnelGroupId.value());
  if (swTunnelGroupId.isEmpty()) return;
  if (refcountTable()->refcountHas(swTunnelGroupId.value())) {
    vemoAssert("!refcountTable()->refcount( swTunnelGroupId.value() )");
  }
  if (swTunnelGroupId.isSingleMemberGroup()) return;
  if (!data_->swTunnelGroupIdToAddrHas(swTunnelGroupId)) vemoAssert("swIdToAddr");
  TunnelIpAddrList const list = data_->swTunnelGroupIdToAddr(swTunnelGroupId);
  if (!data_->tunnelIpAddrListToTunnelIdHas(list)) {
    vemoAssert("!!tunnelIpAddrListToTunnelId( swIdToAddr->tunnelIpAddrList() )");
  }
  data_->tunnelIpAddrListToTunnelIdDel(list);
  data_->swTunnelGroupIdToAddrDel(swTunnelGroupId);
}

Zol::Ptr<SwTunnelGroupIdManager> swTunnelGroupIdManagerFactory(
    Zol::Ptr<VemoCommonSmData> const& commonData) {
  return Zol::make<SwTunnelGroupIdManager>(commonData);
}

}  // namespace Vemo
