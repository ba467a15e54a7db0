#include <cstdio>
#include <map>
#include <set>
#include <vector>

#include "Vemo/AclTypes.h"
#include "Views.h"
#include "Zol/Json.h"
#include "ZolGen/AclJson.h"

namespace vemo::agent {

namespace {

using Acl::AclDirection;
using Acl::AclType;

rapidjson::Value str(std::string const& s, rapidjson::Document::AllocatorType& alloc) {
  return rapidjson::Value(s.c_str(), static_cast<rapidjson::SizeType>(s.size()), alloc);
}

std::string hex(unsigned v, int digits) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%0*x", digits, v);
  return buf;
}

constexpr AclDirection kDirections[] = {AclDirection::in, AclDirection::out};

char const* dirName(AclDirection d) { return d == AclDirection::in ? "in" : "out"; }

std::string protocolText(AclType type, uint8_t protocol) {
  switch (protocol) {
    case Acl::IpFilter::protocolAny:
      return type == AclType::ipv6 ? "ipv6" : "ip";
    case Acl::IpFilter::protocolIcmp:
      return "icmp";
    case Acl::IpFilter::protocolTcp:
      return "tcp";
    case Acl::IpFilter::protocolUdp:
      return "udp";
    case Acl::IpFilter::protocolIcmp6:
      return "icmpv6";
    default:
      return std::to_string(protocol);
  }
}

std::string prefixText(Nepo::IpPrefix const& p) {
  if (p.length() == 0) return "any";
  if (p.length() == (p.isV6() ? 128u : 32u)) return "host " + p.addr().stringValue();
  return p.stringValue();
}

// " eq 80 443", " range 1000 1999"; nothing for a field the rule leaves open.
std::string portSpecText(Acl::PortSpec const& ports) {
  static constexpr std::pair<Acl::PortOper, char const*> opers[] = {
      {Acl::PortOper::portEq, "eq"},
      {Acl::PortOper::portNeq, "neq"},
      {Acl::PortOper::portLt, "lt"},
      {Acl::PortOper::portGt, "gt"},
      {Acl::PortOper::portRange, "range"}};
  if (ports.oper() == Acl::PortOper::portAny) return "";
  std::string out;
  for (auto const& [oper, word] : opers) {
    if (oper == ports.oper()) out = std::string(" ") + word;
  }
  for (uint8_t i = 0; i < ports.count(); ++i) out += " " + std::to_string(ports.value(i));
  return out;
}

// The flags a rule requires set by name, and those its mask requires clear as "!name".
std::string tcpFlagsText(uint16_t flags, uint16_t mask) {
  static constexpr char const* names[] = {"fin", "syn", "rst", "psh", "ack",
                                          "urg", "ece", "cwr", "ns"};
  std::string out;
  for (unsigned bit = 0; bit < 9; ++bit) {
    uint16_t const b = static_cast<uint16_t>(1u << bit);
    if (flags & b) {
      out += std::string(" ") + names[bit];
    } else if (mask & b) {
      out += std::string(" !") + names[bit];
    }
  }
  return out;
}

std::string ecnText(Acl::EcnMatch ecn) {
  switch (ecn) {
    case Acl::EcnMatch::ecnAny:
      return "";
    case Acl::EcnMatch::ecnEctOrCe:
      return " ecn ect-ce";
    case Acl::EcnMatch::ecnNotEct:
      return " ecn non-ect";
    case Acl::EcnMatch::ecnCe:
      return " ecn ce";
    case Acl::EcnMatch::ecnEct:
      return " ecn ect";
  }
  return "";
}

std::string macText(Nepo::EthAddrWithMask const& a) {
  if (a.mask().isZero()) return "any";
  if (a.mask().isBroadcast()) return "host " + a.addr().stringValue();
  return a.stringValue();
}

// An ACL's hardware instances as the SM publishes them, by key text.
std::map<std::string, Acl::AclInstanceStatus> instancesOf(Acl::StatusDp const& status,
                                                          Zol::Name const& name, AclType type) {
  std::map<std::string, Acl::AclInstanceStatus> out;
  for (auto const& [text, s] : status.aclStatusAll()) {
    auto const m = Vemo::matchAclKeyText(text);
    if (m && m->name == name && m->type == Zol::enumName(type)) out.emplace(text, s);
  }
  return out;
}

std::string instanceText(std::string const& key, Acl::AclInstanceStatus const& s) {
  return key + ": " + s.status() + " (acl " + std::to_string(s.aclNumber()) + ", " +
         std::to_string(s.numRules()) + " rules" + (s.installed() ? ", installed" : "") + ")";
}

// Where each ACL of the type applies, by direction: the command line's entry for an interface
// first, then the other sources by name, as the SM reads them.
std::map<Zol::Name, std::map<AclDirection, std::set<Nepo::IntfId>>> appliedOf(
    AclType type, Acl::IntfConfig const& cli, Acl::IntfConfigDir const& sources) {
  std::vector<Acl::IntfConfig const*> all{&cli};
  for (auto const& [source, c] : sources.intfConfigAll()) all.push_back(c.ptr());
  std::map<Zol::Name, std::map<AclDirection, std::set<Nepo::IntfId>>> out;
  for (AclDirection const d : kDirections) {
    std::set<Nepo::IntfId> seen;
    for (Acl::IntfConfig const* c : all) {
      auto const typeConfig = c->config(type);
      auto const intfs = typeConfig ? typeConfig->intf(d) : nullptr;
      if (!intfs) continue;
      for (auto const& [intf, name] : intfs->intfAll()) {
        if (seen.insert(intf).second && !name.empty()) out[name][d].insert(intf);
      }
    }
  }
  return out;
}

char const* typeHeading(AclType type) {
  switch (type) {
    case AclType::ip:
      return "IP Access List";
    case AclType::ipv6:
      return "IPV6 Access List";
    case AclType::mac:
      return "MAC Access List";
  }
  return "Access List";
}

}  // namespace

std::string ipRuleText(Acl::AclType type, Acl::IpRuleConfig const& rule) {
  Acl::IpFilter const& f = rule.filter();
  std::string out = std::string(Zol::enumName(rule.action())) + " " +
                    protocolText(type, f.protocol()) + " " + prefixText(f.source()) +
                    portSpecText(f.srcPort()) + " " + prefixText(f.destination()) +
                    portSpecText(f.dstPort());
  out += tcpFlagsText(f.tcpFlags().value(), f.tcpFlagsMask().value());
  if (f.established()) out += " established";
  if (f.icmpType() != 255) out += " type " + std::to_string(f.icmpType());
  if (f.icmpCode() != 255) out += " code " + std::to_string(f.icmpCode());
  if (f.ipLen().oper() != Acl::PortOper::portAny) out += " ip-length" + portSpecText(f.ipLen());
  if (f.dscpMatch()) out += " dscp " + std::to_string(f.dscp());
  out += ecnText(f.ecn());
  if (f.fragments()) out += " fragments";
  if (f.ttlMatch()) out += " ttl eq " + std::to_string(f.ttl());
  if (f.vni() != 0) out += " vni " + std::to_string(f.vni());
  if (f.tni() != 0) out += " tni " + std::to_string(f.tni());
  if (rule.log()) out += " log";
  return out;
}

std::string macRuleText(Acl::MacRuleConfig const& rule) {
  Acl::MacFilter const& f = rule.filter();
  std::string out = std::string(Zol::enumName(rule.action())) + " " + macText(f.source()) + " " +
                    macText(f.destination());
  if (f.etherType() != 0) out += " " + hex(f.etherType(), 4);
  if (f.vlanMask() != 0) out += " vlan " + std::to_string(f.vlanId()) + " " + hex(f.vlanMask(), 3);
  if (f.mplsLabelMatch()) out += " mpls-label " + std::to_string(f.mplsLabel());
  if (f.mplsInnerLabelMatch()) out += " mpls-inner-label " + std::to_string(f.mplsInnerLabel());
  if (rule.log()) out += " log";
  return out;
}

namespace {

// Where one list is applied: the interfaces of each direction.
using Applied = std::map<AclDirection, std::set<Nepo::IntfId>>;

struct ListedRule {
  uint32_t seq;
  std::string text;
  uint32_t uniqueId;
  uint64_t hits;
};

// Every rule with its text and the packets it matched, in sequence order.
std::vector<ListedRule> listedRules(AclType type, Acl::AclConfig const& acl,
                                    Acl::StatusDp const& status) {
  std::vector<ListedRule> rules;
  auto const typeHits = status.ruleHits(type);
  auto const hits = typeHits ? typeHits->acl(acl.aclName()) : nullptr;
  auto hitsOf = [&](Acl::UniqueId id) -> uint64_t { return hits ? hits->hits(id) : 0; };
  if (type == AclType::mac) {
    for (auto const& [seq, r] : acl.macRuleBySequenceAll()) {
      rules.push_back({seq, macRuleText(r), r.uniqueId().value(), hitsOf(r.uniqueId())});
    }
  } else {
    for (auto const& [seq, r] : acl.ipRuleBySequenceAll()) {
      rules.push_back({seq, ipRuleText(type, r), r.uniqueId().value(), hitsOf(r.uniqueId())});
    }
  }
  return rules;
}

rapidjson::Value accessListJson(AclType type, Zol::Name const& name, Acl::AclConfig const& acl,
                                Applied const& applied, Acl::StatusDp const& status,
                                rapidjson::Document::AllocatorType& alloc) {
  rapidjson::Value a(rapidjson::kObjectType);
  a.AddMember("standard", acl.standard(), alloc);
  a.AddMember("countersEnabled", acl.countersEnabled(), alloc);
  a.AddMember("currCfg", acl.currCfg(), alloc);
  rapidjson::Value rules(rapidjson::kArrayType);
  for (ListedRule const& r : listedRules(type, acl, status)) {
    rapidjson::Value e(rapidjson::kObjectType);
    e.AddMember("sequence", r.seq, alloc);
    e.AddMember("text", str(r.text, alloc), alloc);
    e.AddMember("uniqueId", r.uniqueId, alloc);
    e.AddMember("hits", r.hits, alloc);
    rules.PushBack(e, alloc);
  }
  a.AddMember("rules", rules, alloc);
  rapidjson::Value where(rapidjson::kObjectType);
  for (auto const& [d, intfs] : applied) {
    rapidjson::Value list(rapidjson::kArrayType);
    for (Nepo::IntfId const& intf : intfs) list.PushBack(str(intf.stringValue(), alloc), alloc);
    where.AddMember(rapidjson::StringRef(dirName(d)), list, alloc);
  }
  a.AddMember("appliedTo", where, alloc);
  rapidjson::Value instances(rapidjson::kObjectType);
  for (auto const& [key, s] : instancesOf(status, name, type)) {
    instances.AddMember(str(key, alloc), Zol::toJson(s, alloc), alloc);
  }
  a.AddMember("instances", instances, alloc);
  return a;
}

std::string accessListText(AclType type, Zol::Name const& name, Acl::AclConfig const& acl,
                           Applied const& applied, Acl::StatusDp const& status) {
  std::string out =
      std::string(acl.standard() ? "Standard " : "") + typeHeading(type) + " " + name + "\n";
  for (ListedRule const& r : listedRules(type, acl, status)) {
    out += "        " + std::to_string(r.seq) + " " + r.text;
    if (r.hits > 0) out += " [match " + std::to_string(r.hits) + " packets]";
    out += "\n";
  }
  for (auto const& [d, intfs] : applied) {
    out += std::string("        Applied ") + dirName(d) + ":";
    for (Nepo::IntfId const& intf : intfs) out += " " + intf.stringValue();
    out += "\n";
  }
  for (auto const& [key, s] : instancesOf(status, name, type)) {
    out += "        Instance " + instanceText(key, s) + "\n";
  }
  return out;
}

}  // namespace

std::string showAccessLists(Acl::AclType type, Acl::Config const& config,
                            Acl::IntfConfig const& intfConfigCli,
                            Acl::IntfConfigDir const& intfConfigDir, Acl::StatusDp const& status,
                            bool json) {
  auto const typeConfig = config.config(type);
  auto const applied = appliedOf(type, intfConfigCli, intfConfigDir);
  auto appliedTo = [&](Zol::Name const& name) {
    auto it = applied.find(name);
    return it == applied.end() ? Applied() : it->second;
  };
  if (json) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& alloc = doc.GetAllocator();
    rapidjson::Value lists(rapidjson::kObjectType);
    if (typeConfig) {
      for (auto const& [name, acl] : typeConfig->aclAll()) {
        lists.AddMember(str(name, alloc),
                        accessListJson(type, name, *acl, appliedTo(name), status, alloc), alloc);
      }
    }
    doc.AddMember("accessLists", lists, alloc);
    return prettyJson(doc);
  }
  std::string out;
  if (typeConfig) {
    for (auto const& [name, acl] : typeConfig->aclAll()) {
      if (!out.empty()) out += "\n";
      out += accessListText(type, name, *acl, appliedTo(name), status);
    }
  }
  if (out.empty()) out = "(no " + std::string(Zol::enumName(type)) + " access lists)\n";
  return out;
}

namespace {

// The chip's ACL tables (as it dumps them), the library's instances and the operations the chip
// refused, as people read them.
std::string hardwareAclText(rapidjson::Value const& hw, Acl::StatusDp const& status,
                            std::vector<std::string> const& refused) {
  auto usedText = [](rapidjson::Value const& v) {
    return std::to_string(v["used"].GetUint64()) + " of " +
           std::to_string(v["capacity"].GetUint64());
  };
  std::string out;
  for (auto const& unit : hw["units"].GetArray()) {
    out += "Unit " + std::to_string(unit["unit"].GetUint()) + ": range checkers " +
           usedText(unit["rangeCheckers"]) + "\n";
    for (AclDirection const d : kDirections) {
      rapidjson::Value const& side = unit[dirName(d)];
      char head[64];
      std::snprintf(head, sizeof head, "  %-4s TCAM %s entries\n", dirName(d),
                    usedText(side).c_str());
      out += head;
      for (auto const& inst : side["instances"].GetObject()) {
        out += "       acl " + std::string(inst.name.GetString()) + ": " +
               std::to_string(inst.value["entries"].GetUint64()) + " entries, " +
               std::to_string(inst.value["hits"].GetUint64()) + " hits\n";
      }
    }
    if (unit.HasMember("error")) {
      out += "  error: " + std::string(unit["error"].GetString()) + "\n";
    }
  }
  out += "Bindings:";
  if (hw["bindings"].ObjectEmpty()) out += " (none)";
  out += "\n";
  for (auto const& b : hw["bindings"].GetObject()) {
    for (auto const& d : b.value.GetObject()) {
      char line[128];
      std::snprintf(line, sizeof line, "  %-18s %-8s acl %u\n", b.name.GetString(),
                    d.name.GetString(), d.value.GetUint());
      out += line;
    }
  }
  out += "Blocked:";
  if (hw["blocked"].Empty()) out += " (none)";
  for (auto const& b : hw["blocked"].GetArray()) out += " " + std::string(b.GetString());
  out += "\nInstances:";
  if (status.aclStatusSize() == 0) out += " (none)";
  out += "\n";
  for (auto const& [key, s] : status.aclStatusAll()) out += "  " + instanceText(key, s) + "\n";
  if (!refused.empty()) {
    out += "Refused operations:\n";
    for (std::string const& e : refused) out += "  " + e + "\n";
  }
  return out;
}

}  // namespace

std::string showHardwareAcl(sim::Chip const& chip, Acl::StatusDp const& status, bool json) {
  rapidjson::Document doc(rapidjson::kObjectType);
  auto& alloc = doc.GetAllocator();
  // The tables as the chip dumps them, without the counters that scenarios read beside them.
  rapidjson::Value dump = chip.toJson(alloc);
  rapidjson::Value hw = std::move(dump["acl"]);
  std::vector<std::string> refused;
  for (std::string const& e : chip.errors()) {
    if (e.rfind("acl ", 0) == 0 || e.rfind("rangeChecker ", 0) == 0) refused.push_back(e);
  }
  if (json) {
    for (auto& m : hw.GetObject()) doc.AddMember(m.name, m.value, alloc);
    rapidjson::Value instances(rapidjson::kObjectType);
    for (auto const& [key, s] : status.aclStatusAll()) {
      instances.AddMember(str(key, alloc), Zol::toJson(s, alloc), alloc);
    }
    doc.AddMember("instances", instances, alloc);
    rapidjson::Value r(rapidjson::kArrayType);
    for (std::string const& e : refused) r.PushBack(str(e, alloc), alloc);
    doc.AddMember("refused", r, alloc);
    return prettyJson(doc);
  }
  return hardwareAclText(hw, status, refused);
}

std::string showErrdisable(std::vector<Errdisable::CauseStatus const*> const& causes, bool json) {
  // By interface, then cause: one interface may be down for several reasons.
  std::map<std::pair<Nepo::IntfId, std::string>, double> rows;
  for (Errdisable::CauseStatus const* c : causes) {
    for (auto const& [intf, since] : c->intfStatusAll()) rows[{intf, c->cause()}] = since;
  }
  if (json) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& alloc = doc.GetAllocator();
    rapidjson::Value list(rapidjson::kArrayType);
    for (auto const& [k, since] : rows) {
      rapidjson::Value e(rapidjson::kObjectType);
      e.AddMember("interface", str(k.first.stringValue(), alloc), alloc);
      e.AddMember("cause", str(k.second, alloc), alloc);
      e.AddMember("since", since, alloc);
      list.PushBack(e, alloc);
    }
    doc.AddMember("errdisabled", list, alloc);
    return prettyJson(doc);
  }
  std::string out = "Interface          Cause    Down since (s)\n";
  for (auto const& [k, since] : rows) {
    char line[128];
    std::snprintf(line, sizeof line, "%-18s %-8s %.3f\n", k.first.stringValue().c_str(),
                  k.second.c_str(), since);
    out += line;
  }
  if (rows.empty()) out += "(no interfaces errdisabled)\n";
  return out;
}

}  // namespace vemo::agent
