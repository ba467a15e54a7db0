// The chip's port-channel table.
#include <string>

#include "Sim/Chip.h"
#include "Zol/Json.h"
#include "ZolGen/VemoCommonJson.h"

namespace sim {

namespace {

std::string named(std::string_view op, Nepo::IntfId const& lag) {
  return std::string(op) + " " + lag.stringValue();
}

std::string named(std::string_view op, Nepo::IntfId const& lag, Nepo::IntfId const& other) {
  return named(op, lag) + " " + other.stringValue();
}

}  // namespace

Status Chip::refuseMember(std::string_view what, Nepo::IntfId const& member) {
  return refuse(Table::lag, what, Status::failed,
                member.stringValue() + " is not a port of this chip");
}

uint32_t Chip::lagHwIdAlloc() {
  if (lagFreeHwIds_.empty()) return lagNextHwId_++;
  uint32_t const id = *lagFreeHwIds_.begin();
  lagFreeHwIds_.erase(lagFreeHwIds_.begin());
  return id;
}

void Chip::lagHwIdFree(uint32_t id) {
  lagFreeHwIds_.insert(id);
  // Ids freed at the top shrink the range, so the free set holds only holes below it.
  while (!lagFreeHwIds_.empty() && *lagFreeHwIds_.rbegin() == lagNextHwId_ - 1) {
    lagFreeHwIds_.erase(std::prev(lagFreeHwIds_.end()));
    --lagNextHwId_;
  }
}

Status Chip::lagCreate(Nepo::IntfId const& lag) {
  bool const exists = lags_.contains(lag);
  if (Status s = admit(Table::lag, !exists); s != Status::ok) {
    return refuse(Table::lag, named("create", lag), s);
  }
  if (!lag.isPortChannel()) {
    return refuse(Table::lag, named("create", lag), Status::failed, "not a port-channel");
  }
  if (wrote(Table::lag, !exists)) lags_[lag].hwId = lagHwIdAlloc();
  return Status::ok;
}

Status Chip::lagDestroy(Nepo::IntfId const& lag) {
  if (Status s = admit(Table::lag, false); s != Status::ok) {
    return refuse(Table::lag, named("destroy", lag), s);
  }
  auto const it = lags_.find(lag);
  if (!wrote(Table::lag, it != lags_.end())) return Status::ok;
  lagHwIdFree(it->second.hwId);
  lags_.erase(it);
  return Status::ok;
}

Status Chip::lagMembersIs(Nepo::IntfId const& lag, Vemo::VemoLagPortList const& members) {
  if (Status s = admit(Table::lag, false); s != Status::ok) {
    return refuse(Table::lag, named("members", lag), s);
  }
  auto const it = lags_.find(lag);
  if (it == lags_.end()) {
    return refuse(Table::lag, named("members", lag), Status::failed, "no such port-channel");
  }
  for (auto const& [member, state] : members.portAll()) {
    if (!hasPort(member)) return refuseMember(named("members", lag), member);
  }
  wrote(Table::lag, !(it->second.members == members));
  it->second.members = members;
  return Status::ok;
}

Status Chip::lagMemberIs(Nepo::IntfId const& lag, Nepo::IntfId const& member, bool add,
                         Vemo::VemoLagPort const& state) {
  std::string_view const op = add ? "member add" : "member remove";
  if (Status s = admit(Table::lag, false); s != Status::ok) {
    return refuse(Table::lag, named(op, lag, member), s);
  }
  auto const it = lags_.find(lag);
  if (it == lags_.end()) {
    return refuse(Table::lag, named(op, lag, member), Status::failed, "no such port-channel");
  }
  Vemo::VemoLagPortList& members = it->second.members;
  if (!add) {
    wrote(Table::lag, members.portHas(member));
    members.portDel(member);
    return Status::ok;
  }
  if (!hasPort(member)) return refuseMember(named(op, lag, member), member);
  wrote(Table::lag, !members.portHas(member) || !(members.port(member) == state));
  members.portIs(member, state);
  return Status::ok;
}

Status Chip::lagShareIs(Nepo::IntfId const& lag, Nepo::IntfId const& peerLink, bool share) {
  std::string_view const op = share ? "share" : "unshare";
  if (Status s = admit(Table::lag, false); s != Status::ok) {
    return refuse(Table::lag, named(op, lag, peerLink), s);
  }
  if (!peerLink.isPortChannel()) {
    return refuse(Table::lag, named(op, lag, peerLink), Status::failed,
                  "the peer link is not a port-channel");
  }
  auto const it = lags_.find(lag);
  if (it == lags_.end()) {
    // Nothing is shared with a port-channel that does not exist, so stopping is already done.
    if (!share) return Status::ok;
    return refuse(Table::lag, named(op, lag, peerLink), Status::failed, "no such port-channel");
  }
  Nepo::IntfId& shared = it->second.sharedPeerLink;
  if (share) {
    wrote(Table::lag, shared != peerLink);
    shared = peerLink;
  } else if (wrote(Table::lag, shared == peerLink)) {
    shared = Nepo::IntfId();
  }
  return Status::ok;
}

Chip::LagEntry const* Chip::lag(Nepo::IntfId const& lag) const {
  auto const it = lags_.find(lag);
  return it == lags_.end() ? nullptr : &it->second;
}

rapidjson::Value Chip::lagJson(rapidjson::Document::AllocatorType& alloc) const {
  rapidjson::Value table(rapidjson::kObjectType);
  for (auto const& [lag, entry] : lags_) {
    rapidjson::Value e(rapidjson::kObjectType);
    e.AddMember("hwId", entry.hwId, alloc);
    e.AddMember("members", Zol::toJson(entry.members.portAll(), alloc), alloc);
    if (!entry.sharedPeerLink.isEmpty()) {
      e.AddMember("sharedPeerLink", Zol::toJson(entry.sharedPeerLink, alloc), alloc);
    }
    table.AddMember(Zol::toJson(lag.stringValue(), alloc), e, alloc);
  }
  return table;
}

}  // namespace sim
