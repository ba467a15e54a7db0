#include <algorithm>
#include <cstdio>
#include <vector>

#include "Views.h"
#include "Zol/Json.h"
#include "ZolGen/VemoCommonJson.h"

namespace vemo::agent {

namespace {

std::string membersText(Vemo::VemoLagPortList const& members) {
  std::string out;
  for (auto const& [port, state] : members.portAll()) {
    std::string flags =
        std::string(state.collecting() ? "C" : "") + (state.distributing() ? "D" : "");
    out += (out.empty() ? "" : " ") + port.stringValue() + "(" + flags + ")";
  }
  return out.empty() ? "-" : out;
}

std::string row(std::string const& a, std::string const& b, std::string const& c,
                std::string const& d = {}) {
  char line[256];
  std::snprintf(line, sizeof line, "%-18s %-8s %-18s ", a.c_str(), b.c_str(), c.c_str());
  std::string out = line + d;
  out.erase(out.find_last_not_of(' ') + 1);
  return out + "\n";
}

rapidjson::Value str(std::string const& s, rapidjson::Document::AllocatorType& alloc) {
  return rapidjson::Value(s.c_str(), static_cast<rapidjson::SizeType>(s.size()), alloc);
}

}  // namespace

std::string showPortChannel(Vemo::VemoCommonSmData const& commonData,
                            Lag::Input::IntfDeviceNameDir const& deviceNames, bool json) {
  std::vector<Nepo::IntfId> lags;
  for (auto const& [lag, members] : commonData.lagToPortAll()) lags.push_back(lag);
  std::sort(lags.begin(), lags.end());
  if (json) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& alloc = doc.GetAllocator();
    rapidjson::Value all(rapidjson::kObjectType);
    for (Nepo::IntfId const& lag : lags) {
      rapidjson::Value entry(rapidjson::kObjectType);
      entry.AddMember("deviceName", str(deviceNames.deviceName(lag), alloc), alloc);
      rapidjson::Value list = Zol::toJson(commonData.lagToPort(lag), alloc);
      entry.AddMember("members", list["port"], alloc);
      all.AddMember(str(lag.stringValue(), alloc), entry, alloc);
    }
    doc.AddMember("portChannels", all, alloc);
    return prettyJson(doc);
  }
  std::string out = "Flags: C - collecting, D - distributing\n";
  out += row("Port-Channel", "Device", "Ports");
  for (Nepo::IntfId const& lag : lags) {
    std::string const& device = deviceNames.deviceName(lag);
    out += row(lag.stringValue(), device.empty() ? "-" : device,
               membersText(commonData.lagToPort(lag)));
  }
  if (lags.empty()) out += "(no port-channels)\n";
  return out;
}

std::string showHardwarePortChannel(sim::Chip const& chip, bool json) {
  if (json) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& alloc = doc.GetAllocator();
    doc.AddMember("lacpEnabled", chip.lags().lacpEnabled(), alloc);
    doc.AddMember("entries", static_cast<uint64_t>(chip.size(sim::Table::lag)), alloc);
    doc.AddMember("capacity", static_cast<uint64_t>(chip.capacity(sim::Table::lag)), alloc);
    rapidjson::Value dump = chip.toJson(alloc);
    rapidjson::Value lags = std::move(dump["lag"]);
    doc.AddMember("lag", lags, alloc);
    rapidjson::Value errors(rapidjson::kArrayType);
    for (std::string const& e : chip.errors()) {
      if (e.rfind("lag ", 0) == 0) errors.PushBack(str(e, alloc), alloc);
    }
    doc.AddMember("refused", errors, alloc);
    return prettyJson(doc);
  }
  std::string out = "LACP: " + std::string(chip.lags().lacpEnabled() ? "enabled" : "disabled") +
                    "   Port-channel table: " + std::to_string(chip.size(sim::Table::lag)) +
                    " of " + std::to_string(chip.capacity(sim::Table::lag)) + " entries\n";
  out += row("Port-Channel", "HwId", "Shared peer link", "Members");
  for (auto const& [lag, entry] : chip.lags().entries()) {
    std::string const peer =
        entry.sharedPeerLink == Nepo::IntfId() ? "-" : entry.sharedPeerLink.stringValue();
    out += row(lag.stringValue(), std::to_string(entry.hwId), peer, membersText(entry.members));
  }
  if (chip.lags().entries().empty()) out += "(no port-channels)\n";
  bool header = false;
  for (std::string const& e : chip.errors()) {
    if (e.rfind("lag ", 0) != 0) continue;
    if (!header) out += "Refused operations:\n";
    header = true;
    out += "  " + e + "\n";
  }
  return out;
}

}  // namespace vemo::agent
