#include "Agent.h"

#include "Views.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <algorithm>
#include <sstream>

namespace vemo::agent {

namespace {

std::vector<std::string> split(std::string const& path) {
  std::vector<std::string> parts;
  std::string part;
  std::istringstream in(path);
  while (std::getline(in, part, '/')) parts.push_back(part);
  return parts;
}

bool isHardwarePath(std::string const& path) { return path == "hw" || path.rfind("hw/", 0) == 0; }

std::string scalarText(rapidjson::Value const& v) {
  // An empty text shows as "", not as nothing after the colon.
  if (v.IsString())
    return v.GetStringLength() == 0 ? "\"\"" : std::string(v.GetString(), v.GetStringLength());
  if (v.IsNull()) return "-";
  return Zol::jsonText(v);
}

// A value that fits on one line: no nested objects or lists of objects.
bool flat(rapidjson::Value const& v) {
  if (v.IsObject()) return false;
  if (v.IsArray()) {
    for (auto const& e : v.GetArray()) {
      if (e.IsObject() || e.IsArray()) return false;
    }
  }
  return true;
}

// Runs f, turning the framework's errors into a ScenarioError with the step's label.
template <class F>
auto checked(std::string const& where, F&& f) {
  try {
    return f();
  } catch (Zol::BindError const& e) {
    throw ScenarioError(where + ": " + e.what());
  } catch (Zol::ParseError const& e) {
    throw ScenarioError(where + ": " + e.what());
  } catch (Zol::RangeException const& e) {
    throw ScenarioError(where + ": " + e.what());
  }
}

}  // namespace

std::string prettyJson(rapidjson::Value const& v) {
  rapidjson::StringBuffer buf;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> w(buf);
  w.SetIndent(' ', 2);
  v.Accept(w);
  return std::string(buf.GetString(), buf.GetSize()) + "\n";
}

std::string jsonAsText(rapidjson::Value const& v, int indent) {
  std::string out;
  std::string const pad(indent, ' ');
  if (!v.IsObject()) return pad + scalarText(v) + "\n";
  for (auto const& m : v.GetObject()) {
    std::string const name(m.name.GetString(), m.name.GetStringLength());
    if (flat(m.value)) {
      out += pad + name + ": " +
             (m.value.IsArray() ? Zol::jsonText(m.value) : scalarText(m.value)) + "\n";
    } else if (m.value.IsObject() && m.value.MemberCount() == 0) {
      out += pad + name + ": (none)\n";
    } else {
      out += pad + name + ":\n" + jsonAsText(m.value, indent + 2);
    }
  }
  return out;
}

namespace {

// "Ethernet2, Ethernet5", or "none".
std::string portList(std::vector<Nepo::IntfId> const& ports) {
  std::string out;
  for (Nepo::IntfId const& port : ports) out += (out.empty() ? "" : ", ") + port.stringValue();
  return out.empty() ? "none" : out;
}

// Where a bridged packet went: "to Ethernet3", "flood Ethernet2-4, Ethernet7" (runs of ports
// that follow each other shortened), "to Cpu", "no egress".
std::string egressText(sim::ClassifyResult const& r) {
  if (!r.dropReason.empty()) return "dropped: " + r.dropReason;
  if (r.vxlan) {
    return "to " + r.vxlan->vti.stringValue() + " vtep " + r.vxlan->vtep.stringValue() + " vni " +
           std::to_string(r.vxlan->vni);
  }
  if (r.toCpu && r.egress.empty()) return "to Cpu";
  if (r.egress.empty()) return "no egress";
  std::string out;
  auto const number = [](Nepo::IntfId const& i) -> std::optional<uint32_t> {
    std::string const name = i.stringValue();
    if (!i.isEthernet() || name.find('/') != std::string::npos) return std::nullopt;
    return static_cast<uint32_t>(std::stoul(name.substr(8)));
  };
  for (size_t i = 0; i < r.egress.size();) {
    size_t j = i;
    auto const first = number(r.egress[i]);
    while (first && j + 1 < r.egress.size() && number(r.egress[j + 1]) == *first + (j + 1 - i)) {
      ++j;
    }
    out += (out.empty() ? "" : ", ") + r.egress[i].stringValue();
    if (j > i) out += "-" + std::to_string(*first + (j - i));
    i = j + 1;
  }
  return (r.flooded ? "flood " : "to ") + out + (r.toCpu ? ", Cpu" : "");
}

}  // namespace

Agent::Agent(bool json) : json_(json) {
  commonData_ = Vemo::vemoCommonSmDataFactory("vemo", loop_);
  mount("vemo/common", commonData_.ptr());
  views_["common"] = [this](bool asJson) {
    rapidjson::Document doc;
    rapidjson::Value v = Zol::entityToJson(*commonData_, doc.GetAllocator());
    return asJson ? prettyJson(v) : "Common data " + commonData_->name() + "\n" + jsonAsText(v, 2);
  };
  views_["port-channel"] = [this](bool asJson) {
    return showPortChannel(*commonData_, *platform_->lagDeviceNameDir(), asJson);
  };
  views_["hardware port-channel"] = [this](bool asJson) {
    return showHardwarePortChannel(platform_->chip(), asJson);
  };
  views_["vxlan"] = [this](bool asJson) {
    return showVxlan(*platform_->tunnelGroups(), *platform_->vxlanConfig(),
                     *platform_->remoteMacInfo(), asJson);
  };
  static constexpr std::pair<char const*, Acl::AclType> aclViews[] = {
      {"ip access-lists", Acl::AclType::ip},
      {"ipv6 access-lists", Acl::AclType::ipv6},
      {"mac access-lists", Acl::AclType::mac}};
  for (auto const& [name, type] : aclViews) {
    views_[name] = [this, type](bool asJson) {
      return showAccessLists(type, *platform_->aclConfig(), *platform_->aclIntfConfigCli(),
                             *platform_->aclIntfConfigDir(), *platform_->aclStatus(), asJson);
    };
  }
  views_["hardware acl"] = [this](bool asJson) {
    return showHardwareAcl(platform_->chip(), *platform_->aclStatus(), asJson);
  };
  views_["errdisable"] = [this](bool asJson) {
    return showErrdisable({platform_->aclCauseStatus().ptr()}, asJson);
  };
  views_["mac address-table"] = [this](bool asJson) {
    return showMacAddressTable(*platform_->bridgingStatus(),
                               *platform_->remoteMacInfo()->hostStatusTable(),
                               *platform_->tunnelGroups(), MacTableFilter(), loop_.now(), asJson);
  };
  filteredViews_["mac address-table"] = [this](std::vector<std::string> const& words) -> View {
    MacTableFilter const filter = MacTableFilter::parse(words);
    return [this, filter](bool asJson) {
      return showMacAddressTable(*platform_->bridgingStatus(),
                                 *platform_->remoteMacInfo()->hostStatusTable(),
                                 *platform_->tunnelGroups(), filter, loop_.now(), asJson);
    };
  };
  views_["hardware mac calls"] = [this](bool asJson) {
    return showHardwareMacCalls(platform_->macHelper(), asJson);
  };
  views_["vxlan address-table"] = [this](bool asJson) {
    return showVxlanAddressTable(*platform_->remoteMacInfo()->hostStatusTable(),
                                 *platform_->tunnelGroups(), asJson);
  };
  views_["mac address-table count"] = [this](bool asJson) {
    return showMacAddressTableCount(*platform_->bridgingStatus(), asJson);
  };
  views_["mlag"] = [this](bool asJson) {
    return showMlag(*platform_->mlagStatus(), *platform_->mlagHostTable(),
                    *platform_->bridgingStatus(), asJson);
  };
  views_["hardware mac"] = [this](bool asJson) {
    return showHardwareMac(platform_->chip(), platform_->macIndirectAccess(), asJson);
  };
  platformIs(PlatformConfig());
}

void Agent::platformIs(PlatformConfig const& config) {
  if (platform_) {
    for (auto const& [path, entity] : platform_->mounts()) mounts_.erase(path);
    platform_.reset();
  }
  platform_ = std::make_unique<Platform>(config, commonData_, loop_);
  for (auto const& [path, entity] : platform_->mounts()) mounts_[path] = entity;
  loop_.runUntilIdle();
}

Agent::~Agent() {
  // The SMs undo their hardware state while the loop and the common data are still there.
  platform_.reset();
}

void Agent::mount(std::string const& path, Zol::Entity* e) {
  mounts_[path] = Zol::Ptr<Zol::Entity>(e);
}

Agent::Target Agent::resolve(std::string const& path, bool live, std::string const& where,
                             bool missingOk) const {
  // The longest mount that prefixes the path, then attribute/key segments below it.
  std::string mountPath;
  for (auto const& [p, e] : mounts_) {
    if ((path == p || path.rfind(p + "/", 0) == 0) && p.size() > mountPath.size()) mountPath = p;
  }
  if (mountPath.empty()) {
    throw ScenarioError(where + ": no entity at path '" + path + "' (see vemo-agent --paths)");
  }
  Zol::Entity* entity = mounts_.at(mountPath).ptr();
  Target t{live ? entity : nullptr, &entity->zolEntityType()};
  std::vector<std::string> const rest = split(path.substr(mountPath.size()));
  for (size_t i = 1; i < rest.size(); ++i) {
    Zol::AttrDesc const* a = t.type->attr(rest[i]);
    using Kind = Zol::AttrDesc::Kind;
    if (!a || (a->kind != Kind::child && a->kind != Kind::childCollection)) {
      throw ScenarioError(where + ": '" + rest[i] + "' in path '" + path + "' is not a child of " +
                          t.type->name);
    }
    std::string key;
    if (a->kind == Kind::childCollection) {
      if (++i >= rest.size()) {
        throw ScenarioError(where + ": path '" + path + "' needs a key after '" + rest[i - 1] +
                            "'");
      }
      key = rest[i];
      rapidjson::Value k(key.c_str(), static_cast<rapidjson::SizeType>(key.size()));
      checked(where + ": key '" + key + "' in path '" + path + "'", [&] {
        a->checkKey(k);
        return 0;
      });
    }
    t.type = a->childType();
    if (live && t.entity) {
      t.entity = a->child(*t.entity, key);
      if (!t.entity && !missingOk) {
        throw ScenarioError(where + ": path '" + path + "' does not exist (yet)");
      }
    }
  }
  return t;
}

namespace {

// Packets go through ports: a port-channel's or VLAN's traffic arrives on member ports.
void validatePacket(Step const& s, sim::Chip const& chip) {
  if (!chip.hasPort(s.packet.intf)) {
    throw ScenarioError(s.label() + ": " + s.packet.intf.stringValue() +
                        " is not a port of the chip (Ethernet1 to Ethernet" +
                        std::to_string(chip.units() * chip.portsPerUnit()) + ")");
  }
}

// The ways a command of the MAC table's indirect-access interface goes wrong, by their names.
std::optional<sim::MacIndirectAccess::Fault> indirectFault(std::string_view answer) {
  using Fault = sim::MacIndirectAccess::Fault;
  if (answer == "lost") return Fault::lost;
  if (answer == "late") return Fault::late;
  if (answer == "parity") return Fault::parity;
  return std::nullopt;
}

void validateFault(Step const& s, bool macIndirect) {
  if (!sim::tableFromName(s.table)) {
    throw ScenarioError(s.label() + ": no chip table '" + s.table + "'");
  }
  if (s.capacity || sim::statusFromText(s.answer)) return;
  if (indirectFault(s.answer)) {
    if (s.table == "mac" && macIndirect) return;
    throw ScenarioError(s.label() + ": '" + s.answer +
                        "' is a fault of the MAC table's indirect access (\"macAsync\": true)");
  }
  throw ScenarioError(s.label() + ": 'answer' must be ok, busy, full or failed (or lost, late, " +
                      "parity for an indirect-access MAC table), found '" + s.answer + "'");
}

}  // namespace

void Agent::validateStep(Step const& s) const {
  switch (s.kind) {
    case Step::Kind::advance:
    case Step::Kind::comment:
    case Step::Kind::expectLog:
    case Step::Kind::restart:
      return;
    case Step::Kind::packet:
      return validatePacket(s, platform_->chip());
    case Step::Kind::fault:
      return validateFault(s, platform_->macIndirectAccess() != nullptr);
    default:
      break;
  }
  if (isHardwarePath(s.path)) return validateHardware(s);
  if (s.kind == Step::Kind::show) {
    try {
      boundView(s.view);
    } catch (ScenarioError const& e) {
      std::string known;
      for (auto const& v : viewNames()) known += (known.empty() ? "" : ", ") + v;
      throw ScenarioError(s.label() + ": " + e.what() + " (views: " + known + ")");
    }
    return;
  }
  Target const t = resolve(s.path, false, s.label());
  if (s.kind == Step::Kind::expect) return validateExpect(s, t);
  validateWrite(s, t);
}

// A set or del of an attribute: the attribute, its key and the value as its type reads them.
void Agent::validateWrite(Step const& s, Target const& t) const {
  using Kind = Zol::AttrDesc::Kind;
  std::string const where = s.label();
  Zol::AttrDesc const* a = t.type->attr(s.attr);
  if (!a) throw ScenarioError(where + ": " + t.type->name + " has no attribute '" + s.attr + "'");
  bool const keyed = a->kind == Kind::collection || a->kind == Kind::childCollection;
  if (s.key && !keyed) throw ScenarioError(where + ": '" + s.attr + "' is not a collection");
  if (s.key) {
    checked(where + ": key", [&] {
      a->checkKey(*s.key);
      return 0;
    });
  }
  if (s.kind == Step::Kind::del) {
    if (!a->del) throw ScenarioError(where + ": '" + s.attr + "' has no entries to delete");
    return;
  }
  if (a->kind == Kind::childCollection) {
    if (!s.key) throw ScenarioError(where + ": creating a child of '" + s.attr + "' needs a key");
    if (s.value) throw ScenarioError(where + ": a child is created by key alone, without value");
    return;
  }
  if (!a->set) throw ScenarioError(where + ": '" + s.attr + "' cannot be written");
  if (a->kind == Kind::collection && !s.key) {
    throw ScenarioError(where + ": writing collection '" + s.attr + "' needs a 'key'");
  }
  if (!s.value) throw ScenarioError(where + ": 'set' needs a 'value'");
  rapidjson::Document scratch;
  checked(where + ": value", [&] { return a->normalize(*s.value, scratch.GetAllocator()); });
}

void Agent::validate(Scenario const& sc) const {
  for (Step const& s : sc.steps()) validateStep(s);
}

bool Agent::applyStep(Step const& s, std::ostream& out, std::ostream& err) {
  using Kind = Zol::AttrDesc::Kind;
  std::string const where = s.label();
  switch (s.kind) {
    case Step::Kind::advance:
      loop_.advanceBy(s.seconds);
      return true;
    case Step::Kind::show:
      // As on a switch's console, so that each view says what it is.
      if (!json_) out << "\nvemo# show " << s.view << "\n";
      out << view(s.view);
      return true;
    case Step::Kind::fault:
      applyFault(s);
      return true;
    case Step::Kind::packet:
      return applyPacket(s, out, err);
    case Step::Kind::comment:
      if (!json_) out << "\n! " << s.text << "\n";
      return true;
    case Step::Kind::expectLog:
      return expectLog(s, err);
    case Step::Kind::restart:
      if (!json_) {
        out << "\n! agent restart, " << s.text
            << (s.truncateStore ? ", MAC state store truncated" : "") << "\n";
      }
      restartHitless(s.truncateStore);
      return true;
    case Step::Kind::expect:
      return isHardwarePath(s.path) ? expectHardware(s, err) : expectEntity(s, err);
    default:
      break;
  }
  Target const t = resolve(s.path, true, where);
  Zol::AttrDesc const* a = t.type->attr(s.attr);
  // The keys the step writes: its own, or with "repeat" that many consecutive MAC addresses.
  std::vector<rapidjson::Document> keys;
  if (s.repeat > 1) {
    uint64_t const first = Nepo::EthAddr::fromString((*s.key)["macAddr"].GetString()).value();
    for (uint32_t i = 0; i < s.repeat; ++i) {
      rapidjson::Document& k = keys.emplace_back();
      k.CopyFrom(*s.key, k.GetAllocator());
      std::string const mac = Nepo::EthAddr::fromValue(first + i).stringValue();
      k["macAddr"].SetString(mac.c_str(), static_cast<rapidjson::SizeType>(mac.size()),
                             k.GetAllocator());
    }
  }
  auto forEachKey = [&](auto const& write) {
    if (keys.empty()) return write(s.key);
    for (rapidjson::Document const& k : keys) write(&k);
  };
  if (s.kind == Step::Kind::set) {
    checked(where, [&] {
      forEachKey([&](rapidjson::Value const* key) {
        if (a->kind == Kind::childCollection) {
          a->childIs(*t.entity, *key);
        } else {
          a->set(*t.entity, key, *s.value);
        }
      });
      return 0;
    });
    return true;
  }
  checked(where, [&] {
    forEachKey([&](rapidjson::Value const* key) { a->del(*t.entity, *key); });
    return 0;
  });
  return true;
}

void Agent::applyFault(Step const& s) {
  sim::Table const table = *sim::tableFromName(s.table);
  if (s.capacity) {
    platform_->chip().capacityIs(table, *s.capacity);
  } else if (auto const fault = indirectFault(s.answer)) {
    platform_->macIndirectAccess()->faultIs(*fault, s.count);
  } else {
    platform_->chip().faultIs(table, *sim::statusFromText(s.answer), s.count);
  }
}

bool Agent::applyPacket(Step const& s, std::ostream& out, std::ostream& err) {
  sim::Packet const& p = s.packet;
  // An errdisabled port, or a member of an errdisabled port-channel, is down: nothing reaches
  // the chip's ACLs.
  Errdisable::CauseStatus const& errdisabled = *platform_->aclCauseStatus();
  Lag::Input::Config const& lags = *platform_->lagInputConfig();
  bool const down = errdisabled.intfStatusHas(p.intf) ||
                    (lags.phyIntfHas(p.intf) && errdisabled.intfStatusHas(lags.phyIntf(p.intf)));
  std::string verdict = "errdisabled";
  std::string reason = "errdisabled";
  sim::ClassifyResult r;
  if (!down) {
    r = platform_->chip().classify(p);
    if (r.blocked) {
      verdict = reason = "blocked";
    } else if (r.action == Acl::AclAction::permit && r.vlanDropped) {
      verdict = "deny";
      reason = "vlan " + std::to_string(r.vlan) + " not on " + p.intf.stringValue();
    } else if (r.action == Acl::AclAction::permit && !r.dropReason.empty()) {
      verdict = "deny";
      reason = r.dropReason;
    } else {
      verdict = Zol::enumName(r.action);
      reason = r.entry ? "acl " + std::to_string(r.entry->aclNumber) + " rule " +
                             std::to_string(r.entry->aclRule) + "." +
                             std::to_string(r.entry->subRuleNum)
               : r.action == Acl::AclAction::permit ? "no acl"
                                                    : "no match";
    }
  }
  std::string const action = verdict == "permit" ? "permit" : "deny";
  // Where a bridged packet went; egress packets meet the port's ACLs only.
  bool const bridged = action == "permit" && p.direction == Acl::AclDirection::in;
  std::string result = action + " (" + reason + ")";
  if (bridged)
    result += ", vlan " + std::to_string(r.vlan) + (r.learned ? ", learned" : "") +
              (r.remoteLearned ? ", learned remote" : "") + ", " + egressText(r);
  if (json_) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& alloc = doc.GetAllocator();
    doc.AddMember("packet", Zol::toJson(packetText(p), alloc), alloc);
    doc.AddMember("action", Zol::toJson(action, alloc), alloc);
    doc.AddMember("reason", Zol::toJson(reason, alloc), alloc);
    if (bridged) {
      doc.AddMember("vlan", r.vlan, alloc);
      doc.AddMember("learned", r.learned, alloc);
      doc.AddMember("flooded", r.flooded, alloc);
      doc.AddMember("toCpu", r.toCpu, alloc);
      rapidjson::Value egress(rapidjson::kArrayType);
      for (Nepo::IntfId const& port : r.egress) {
        egress.PushBack(Zol::toJson(port.stringValue(), alloc), alloc);
      }
      doc.AddMember("egress", egress, alloc);
      if (r.vxlan) {
        rapidjson::Value v(rapidjson::kObjectType);
        v.AddMember("intf", Zol::toJson(r.vxlan->vti.stringValue(), alloc), alloc);
        v.AddMember("vtep", Zol::toJson(r.vxlan->vtep.stringValue(), alloc), alloc);
        v.AddMember("vni", r.vxlan->vni, alloc);
        doc.AddMember("vxlan", v, alloc);
      }
      if (r.remoteLearned) doc.AddMember("remoteLearned", true, alloc);
      if (!r.dropReason.empty()) doc.AddMember("dropped", Zol::toJson(r.dropReason, alloc), alloc);
    }
    out << prettyJson(doc);
  } else {
    out << "packet " << packetText(p) << ": " << result << "\n";
  }
  // "deny" is any drop; "blocked" and "errdisabled" say which.
  bool held =
      s.verdict.empty() || s.verdict == verdict || (s.verdict == "deny" && action == "deny");
  if (!held) err << s.label() << ": expected " << s.verdict << ", found " << result << "\n";
  if (s.egress) {
    std::vector<Nepo::IntfId> const went = bridged ? r.egress : std::vector<Nepo::IntfId>();
    if (went != *s.egress) {
      err << s.label() << ": expected egress " << portList(*s.egress) << ", found "
          << portList(went) << "\n";
      held = false;
    }
  }
  return held;
}

void Agent::restartHitless(bool truncateStore) {
  for (auto const& [path, entity] : platform_->mounts()) mounts_.erase(path);
  // The common data is the process's: the new one starts empty, as after a real restart.
  commonData_ = Vemo::vemoCommonSmDataFactory("vemo", loop_);
  mount("vemo/common", commonData_.ptr());
  platform_->restartHitless(commonData_, truncateStore);
  for (auto const& [path, entity] : platform_->mounts()) mounts_[path] = entity;
}

void Agent::validateHardware(Step const& s) const {
  std::string const where = s.label();
  // The chip's tables are read by path at run time; only expectations reach them.
  if (s.kind != Step::Kind::expect) {
    throw ScenarioError(where + ": the chip is read-only to scenarios; use 'fault' steps");
  }
  std::vector<std::string> path = split(s.path);
  path.erase(path.begin());
  if (!s.attr.empty()) path.push_back(s.attr);
  if (s.key) path.push_back(s.key->IsString() ? s.key->GetString() : Zol::jsonText(*s.key));
  std::string problem;
  if (!platform_->chip().validPath(path, &problem)) {
    throw ScenarioError(where + ": " + problem + " (see vemo-agent --paths)");
  }
  if (s.fields) {
    for (auto const& m : s.fields->GetObject()) {
      path.push_back(m.name.GetString());
      if (!platform_->chip().validPath(path, &problem)) throw ScenarioError(where + ": " + problem);
      path.pop_back();
    }
  }
}

void Agent::validateExpect(Step const& s, Target const& t) const {
  using Kind = Zol::AttrDesc::Kind;
  std::string const where = s.label();
  // "present" alone is about the entity.
  if (s.attr.empty()) return;
  Zol::AttrDesc const* a = t.type->attr(s.attr);
  if (!a) throw ScenarioError(where + ": " + t.type->name + " has no attribute '" + s.attr + "'");
  bool const collection = a->kind == Kind::collection;
  if (s.key && !collection) throw ScenarioError(where + ": '" + s.attr + "' is not a collection");
  if (!a->get) throw ScenarioError(where + ": '" + s.attr + "' cannot be compared");
  rapidjson::Document scratch;
  if (s.key) {
    checked(where + ": key", [&] {
      a->checkKey(*s.key);
      return 0;
    });
  }
  if (s.fields) {
    if (collection && !s.key) {
      throw ScenarioError(where + ": 'fields' compares one entry; give its 'key'");
    }
    expectedFields(*a, s, scratch.GetAllocator());
    return;
  }
  if (!s.value || s.value->IsNull()) return;
  if (collection && !s.key) {
    if (!s.value->IsObject()) {
      throw ScenarioError(where + ": a whole collection is expected as an object");
    }
    for (auto const& m : s.value->GetObject()) {
      checked(where + ": key '" + std::string(m.name.GetString()) + "'", [&] {
        a->checkKey(m.name);
        return a->normalize(m.value, scratch.GetAllocator());
      });
    }
    return;
  }
  if (a->normalize) {
    checked(where + ": value", [&] { return a->normalize(*s.value, scratch.GetAllocator()); });
  }
}

rapidjson::Value Agent::expectedFields(Zol::AttrDesc const& a, Step const& s,
                                       rapidjson::Document::AllocatorType& alloc) {
  // The named fields are read as the value type reads them, the others left at their defaults;
  // only the named ones are kept.
  std::string const where = s.label() + ": fields";
  rapidjson::Value const whole = checked(where, [&] { return a.normalize(*s.fields, alloc); });
  if (!whole.IsObject()) {
    throw ScenarioError(s.label() + ": '" + s.attr + "' is not a value with fields");
  }
  rapidjson::Value picked(rapidjson::kObjectType);
  for (auto const& m : s.fields->GetObject()) {
    auto const it = whole.FindMember(m.name);
    if (it == whole.MemberEnd()) {
      throw ScenarioError(where + ": '" + s.attr + "' has no field '" + m.name.GetString() + "'");
    }
    picked.AddMember(rapidjson::Value(m.name, alloc), rapidjson::Value(it->value, alloc), alloc);
  }
  return picked;
}

namespace {

// Compares what was found with the step's value, fields or presence; says what differed.
bool judge(Step const& s, rapidjson::Value const& actual, rapidjson::Value const* expected,
           std::ostream& err) {
  if (s.present) {
    bool const there = !actual.IsNull();
    if (there == *s.present) return true;
    err << s.label() << ": expected " << (*s.present ? "present" : "absent") << ", found "
        << (there ? Zol::jsonText(actual) : "absent") << "\n";
    return false;
  }
  if (s.fields) {
    bool held = actual.IsObject();
    for (auto const& m : expected->GetObject()) {
      if (!held) break;
      auto const it = actual.FindMember(m.name);
      held = it != actual.MemberEnd() && it->value == m.value;
    }
    if (held) return true;
    err << s.label() << ": expected fields " << Zol::jsonText(*expected) << ", found "
        << Zol::jsonText(actual) << "\n";
    return false;
  }
  if (actual == *expected) return true;
  err << s.label() << ": expected " << Zol::jsonText(*expected) << ", found "
      << Zol::jsonText(actual) << "\n";
  return false;
}

}  // namespace

bool Agent::expectEntity(Step const& s, std::ostream& err) const {
  using Kind = Zol::AttrDesc::Kind;
  Target const t = resolve(s.path, true, s.label(), true);
  rapidjson::Document doc;
  auto& alloc = doc.GetAllocator();
  if (s.attr.empty()) {
    rapidjson::Value const there = t.entity ? rapidjson::Value(true) : rapidjson::Value();
    return judge(s, there, nullptr, err);
  }
  Zol::AttrDesc const* a = t.type->attr(s.attr);
  // An entity that does not exist has no values.
  rapidjson::Value const actual = t.entity ? a->get(*t.entity, s.key, alloc) : rapidjson::Value();
  rapidjson::Value expected;
  if (s.fields) {
    expected = expectedFields(*a, s, alloc);
  } else if (!s.value || s.value->IsNull()) {
    expected.SetNull();
  } else if (a->kind == Kind::collection && !s.key) {
    expected.SetObject();
    for (auto const& m : s.value->GetObject()) {
      rapidjson::Value k(m.name, alloc);
      expected.AddMember(k, a->normalize(m.value, alloc), alloc);
    }
  } else if (a->normalize) {
    expected = a->normalize(*s.value, alloc);
  } else {
    expected.CopyFrom(*s.value, alloc);
  }
  return judge(s, actual, &expected, err);
}

bool Agent::expectHardware(Step const& s, std::ostream& err) const {
  std::vector<std::string> path = split(s.path);
  path.erase(path.begin());
  if (!s.attr.empty()) path.push_back(s.attr);
  if (s.key) path.push_back(s.key->IsString() ? s.key->GetString() : Zol::jsonText(*s.key));
  rapidjson::Document doc;
  std::optional<rapidjson::Value> actual = platform_->chip().lookup(path, doc.GetAllocator());
  if (!actual) actual.emplace();
  return judge(s, *actual, s.fields ? s.fields : s.value, err);
}

std::string syslogLine(Zol::SyslogRecord const& r) {
  std::string const facility = r.key.substr(0, r.key.find('_'));
  return "%" + facility + "-" + std::to_string(r.severity) + "-" + r.key + ": " + r.text;
}

void Agent::printLog(std::ostream& out) {
  auto const& records = log_.records();
  for (; logPrinted_ < records.size(); ++logPrinted_) {
    std::string const line = syslogLine(records[logPrinted_]);
    if (json_) {
      rapidjson::Document doc(rapidjson::kObjectType);
      doc.AddMember("syslog", Zol::toJson(line, doc.GetAllocator()), doc.GetAllocator());
      out << prettyJson(doc);
    } else {
      out << line << "\n";
    }
  }
}

bool Agent::expectLog(Step const& s, std::ostream& err) {
  // Counted since the last expectLog of the key, or since the scenario started.
  auto const& records = log_.records();
  size_t& from = logCounted_[s.text];
  size_t const seen = static_cast<size_t>(
      std::count_if(records.begin() + static_cast<std::ptrdiff_t>(std::min(from, records.size())),
                    records.end(), [&](Zol::SyslogRecord const& r) { return r.key == s.text; }));
  from = records.size();
  if (seen == s.count) return true;
  err << s.label() << ": expected " << s.count << " message" << (s.count == 1 ? "" : "s")
      << ", found " << seen << "\n";
  return false;
}

int Agent::run(Scenario const& sc, std::ostream& out, std::ostream& err) {
  try {
    if (sc.platform()) platformIs(PlatformConfig::parse(*sc.platform()));
    validate(sc);
  } catch (ScenarioError const& e) {
    err << "vemo-agent: " << e.what() << "\n";
    return 2;
  }
  loop_.runUntilIdle();
  printLog(out);
  for (Step const& s : sc.steps()) {
    try {
      if (!applyStep(s, out, err)) return 1;
    } catch (ScenarioError const& e) {
      err << "vemo-agent: " << e.what() << "\n";
      return 1;
    }
    loop_.runUntilIdle();
    printLog(out);
  }
  return 0;
}

std::vector<std::string> Agent::paths() const {
  std::vector<std::string> out;
  std::function<void(std::string const&, Zol::Entity const&)> walk = [&](std::string const& path,
                                                                         Zol::Entity const& e) {
    out.push_back(path);
    for (Zol::AttrDesc const* a : e.zolEntityType().allAttrs()) {
      if (a->kind == Zol::AttrDesc::Kind::child) {
        a->forEachChild(
            e, [&](std::string const&, Zol::Entity const& c) { walk(path + "/" + a->name, c); });
      } else if (a->kind == Zol::AttrDesc::Kind::childCollection) {
        a->forEachChild(e, [&](std::string const& key, Zol::Entity const& c) {
          walk(path + "/" + a->name + "/" + key, c);
        });
      }
    }
  };
  for (auto const& [path, e] : mounts_) walk(path, *e);
  // Children come in attribute order and a mount may sit inside another's subtree.
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

std::vector<std::string> Agent::pathListing() const {
  using Kind = Zol::AttrDesc::Kind;
  std::vector<std::string> out;
  for (std::string const& path : paths()) {
    out.push_back(path);
    // The entity's type, from the mount or the parent's attribute it hangs from.
    Zol::EntityType const* type = resolve(path, false, "--paths").type;
    for (Zol::AttrDesc const* a : type->allAttrs()) {
      if (a->kind == Kind::child) continue;
      std::string line = path + " " + a->name;
      if (a->kind == Kind::collection || a->kind == Kind::childCollection) {
        line += "[" + std::string(a->keyType ? a->keyType : "") + "]";
      }
      line += a->kind == Kind::childCollection ? ": child " : ": ";
      out.push_back(line + (a->valueType ? a->valueType : ""));
    }
  }
  for (std::string const& t : sim::Chip::pathTemplates()) {
    size_t const slash = t.rfind('/');
    out.push_back(slash == std::string::npos
                      ? "hw " + t
                      : "hw/" + t.substr(0, slash) + " " + t.substr(slash + 1));
  }
  return out;
}

std::vector<std::string> Agent::viewNames() const {
  std::vector<std::string> names;
  for (auto const& [n, f] : views_) names.push_back(n);
  for (auto const& [n, f] : filteredViews_) names.push_back(n + " FILTER...");
  std::sort(names.begin(), names.end());
  return names;
}

Agent::View Agent::boundView(std::string const& name) const {
  if (auto it = views_.find(name); it != views_.end()) return it->second;
  for (auto const& [prefix, bind] : filteredViews_) {
    if (name.size() <= prefix.size() + 1 || name.compare(0, prefix.size(), prefix) != 0 ||
        name[prefix.size()] != ' ') {
      continue;
    }
    std::vector<std::string> words;
    std::istringstream in(name.substr(prefix.size() + 1));
    for (std::string w; in >> w;) words.push_back(w);
    try {
      return bind(words);
    } catch (ScenarioError const& e) {
      throw ScenarioError("view '" + name + "': " + e.what());
    }
  }
  throw ScenarioError("unknown view '" + name + "'");
}

std::string Agent::view(std::string const& name) const { return boundView(name)(json_); }

}  // namespace vemo::agent
