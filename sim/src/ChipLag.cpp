// The chip's port-channel table.
#include "Sim/ChipLag.h"

#include <string>

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

void LagTable::lacpEnabledIs(bool enabled) {
  operated();
  wrote(lacpEnabled_ != enabled);
  lacpEnabled_ = enabled;
}

Status LagTable::refuseMember(std::string_view what, Nepo::IntfId const& member) {
  return refuse(what, Status::failed, member.stringValue() + " is not a port of this chip");
}

uint32_t LagTable::hwIdAlloc() {
  if (freeHwIds_.empty()) return nextHwId_++;
  uint32_t const id = *freeHwIds_.begin();
  freeHwIds_.erase(freeHwIds_.begin());
  return id;
}

void LagTable::hwIdFree(uint32_t id) {
  freeHwIds_.insert(id);
  // Ids freed at the top shrink the range, so the free set holds only holes below it.
  while (!freeHwIds_.empty() && *freeHwIds_.rbegin() == nextHwId_ - 1) {
    freeHwIds_.erase(std::prev(freeHwIds_.end()));
    --nextHwId_;
  }
}

Status LagTable::create(Nepo::IntfId const& lag) {
  bool const exists = entries_.contains(lag);
  if (Status s = admit(!exists, size()); s != Status::ok) {
    return refuse(named("create", lag), s);
  }
  if (!lag.isPortChannel()) {
    return refuse(named("create", lag), Status::failed, "not a port-channel");
  }
  if (wrote(!exists)) entries_[lag].hwId = hwIdAlloc();
  return Status::ok;
}

Status LagTable::destroy(Nepo::IntfId const& lag) {
  if (Status s = admit(false, size()); s != Status::ok) {
    return refuse(named("destroy", lag), s);
  }
  auto const it = entries_.find(lag);
  if (!wrote(it != entries_.end())) return Status::ok;
  hwIdFree(it->second.hwId);
  entries_.erase(it);
  return Status::ok;
}

Status LagTable::membersIs(Nepo::IntfId const& lag, Vemo::VemoLagPortList const& members) {
  if (Status s = admit(false, size()); s != Status::ok) {
    return refuse(named("members", lag), s);
  }
  auto const it = entries_.find(lag);
  if (it == entries_.end()) {
    return refuse(named("members", lag), Status::failed, "no such port-channel");
  }
  for (auto const& [member, state] : members.portAll()) {
    if (!ports_.hasPort(member)) return refuseMember(named("members", lag), member);
  }
  wrote(!(it->second.members == members));
  it->second.members = members;
  return Status::ok;
}

Status LagTable::memberIs(Nepo::IntfId const& lag, Nepo::IntfId const& member, bool add,
                          Vemo::VemoLagPort const& state) {
  std::string_view const op = add ? "member add" : "member remove";
  if (Status s = admit(false, size()); s != Status::ok) {
    return refuse(named(op, lag, member), s);
  }
  auto const it = entries_.find(lag);
  if (it == entries_.end()) {
    return refuse(named(op, lag, member), Status::failed, "no such port-channel");
  }
  Vemo::VemoLagPortList& members = it->second.members;
  if (!add) {
    wrote(members.portHas(member));
    members.portDel(member);
    return Status::ok;
  }
  if (!ports_.hasPort(member)) return refuseMember(named(op, lag, member), member);
  wrote(!members.portHas(member) || !(members.port(member) == state));
  members.portIs(member, state);
  return Status::ok;
}

Status LagTable::shareIs(Nepo::IntfId const& lag, Nepo::IntfId const& peerLink, bool share) {
  std::string_view const op = share ? "share" : "unshare";
  if (Status s = admit(false, size()); s != Status::ok) {
    return refuse(named(op, lag, peerLink), s);
  }
  if (!peerLink.isPortChannel()) {
    return refuse(named(op, lag, peerLink), Status::failed, "the peer link is not a port-channel");
  }
  auto const it = entries_.find(lag);
  if (it == entries_.end()) {
    // Nothing is shared with a port-channel that does not exist, so stopping is already done.
    if (!share) return Status::ok;
    return refuse(named(op, lag, peerLink), Status::failed, "no such port-channel");
  }
  Nepo::IntfId& shared = it->second.sharedPeerLink;
  if (share) {
    wrote(shared != peerLink);
    shared = peerLink;
  } else if (wrote(shared == peerLink)) {
    shared = Nepo::IntfId();
  }
  return Status::ok;
}

LagTable::Entry const* LagTable::entry(Nepo::IntfId const& lag) const {
  auto const it = entries_.find(lag);
  return it == entries_.end() ? nullptr : &it->second;
}

rapidjson::Value LagTable::toJson(rapidjson::Document::AllocatorType& alloc) const {
  rapidjson::Value table(rapidjson::kObjectType);
  for (auto const& [lag, entry] : entries_) {
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
