#include "Scenario.h"

#include <rapidjson/error/en.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>

#include "Zol/Json.h"
#include "ZolGen/AgentScenarioJson.h"

namespace vemo::agent {

namespace {

char const* kindName(Step::Kind k) {
  switch (k) {
    case Step::Kind::set:
      return "set";
    case Step::Kind::del:
      return "del";
    case Step::Kind::advance:
      return "advance";
    case Step::Kind::show:
      return "show";
    case Step::Kind::expect:
      return "expect";
    case Step::Kind::fault:
      return "fault";
    case Step::Kind::packet:
      return "packet";
    case Step::Kind::comment:
      return "comment";
    case Step::Kind::expectLog:
      return "expectLog";
    case Step::Kind::restart:
      return "restart";
  }
  return "?";
}

std::string str(rapidjson::Value const& v) {
  return std::string(v.GetString(), v.GetStringLength());
}

constexpr char const* kTcpFlagNames[] = {"fin", "syn", "rst", "psh", "ack",
                                         "urg", "ece", "cwr", "ns"};
constexpr uint16_t kEtherTypeIp = 0x0800;
constexpr uint16_t kEtherTypeIp6 = 0x86dd;

std::string protocolName(uint8_t protocol) {
  switch (protocol) {
    case 0:
      return "ip";
    case 1:
      return "icmp";
    case 6:
      return "tcp";
    case 17:
      return "udp";
    case 58:
      return "icmpv6";
    default:
      return "protocol " + std::to_string(protocol);
  }
}

// {"intf": "Ethernet1", "direction": "in", "protocol": "tcp", "dstPort": 80, ...}. Fields left
// out are zero. Any IP field makes an IP packet, whose Ethernet type follows its addresses; an
// address left out is the zero address of the other one's family.
sim::Packet parsePacket(rapidjson::Value const& v, Step& step) {
  if (!v.IsObject()) {
    throw ScenarioError(step.label() + ": 'packet' must be an object, found " + Zol::jsonText(v));
  }
  auto intf = v.FindMember("intf");
  if (intf == v.MemberEnd()) {
    throw ScenarioError(step.label() + ": a packet needs 'intf', the port it goes through");
  }
  // The interface names the step in messages about the packet's other fields.
  try {
    step.path = Zol::fromJson<Nepo::IntfId>(intf->value).stringValue();
  } catch (std::exception const&) {
  }
  AgentScenario::Packet spec;
  try {
    spec = Zol::fromJson<AgentScenario::Packet>(v);
  } catch (std::exception const& e) {
    throw ScenarioError(step.label() + ": packet " + e.what());
  }
  sim::Packet p;
  p.intf = spec.intf();
  p.direction = spec.direction() == AgentScenario::Direction::in ? Acl::AclDirection::in
                                                                 : Acl::AclDirection::out;
  p.vlan = spec.vlan();
  p.srcMac = spec.srcMac();
  p.dstMac = spec.dstMac();
  p.protocol = spec.protocol();
  p.srcPort = spec.srcPort();
  p.dstPort = spec.dstPort();
  p.tcpFlags = spec.tcpFlags();
  p.ecn = spec.ecn();
  p.dscp = spec.dscp();
  p.ipLen = spec.ipLen();
  p.ttl = spec.ttl();
  p.icmpType = spec.icmpType();
  p.icmpCode = spec.icmpCode();
  p.fragment = spec.fragment();
  // What was written, not what the fields read, decides the kind of packet.
  auto given = [&](char const* name) { return v.HasMember(name); };
  bool const typeGiven = given("etherType");
  uint16_t const etherType = spec.etherType();
  bool ip = typeGiven && (etherType == kEtherTypeIp || etherType == kEtherTypeIp6);
  for (auto const& m : v.GetObject()) {
    static constexpr std::string_view kEthernetFields[] = {"intf",   "direction", "vlan",
                                                           "srcMac", "dstMac",    "etherType"};
    ip = ip || std::find(std::begin(kEthernetFields), std::end(kEthernetFields), str(m.name)) ==
                   std::end(kEthernetFields);
  }
  if (!ip) {
    p.etherType = etherType;
    return p;
  }
  std::optional<Nepo::IpAddr> const src =
      given("srcIp") ? std::optional(spec.srcIp()) : std::nullopt;
  std::optional<Nepo::IpAddr> const dst =
      given("dstIp") ? std::optional(spec.dstIp()) : std::nullopt;
  if (src && dst && src->isV6() != dst->isV6()) {
    throw ScenarioError(step.label() + ": packet 'srcIp' and 'dstIp' must be of one family");
  }
  bool const v6 = src ? src->isV6() : dst ? dst->isV6() : typeGiven && etherType == kEtherTypeIp6;
  Nepo::IpAddr const zero = v6 ? Nepo::IpAddr::fromString("::") : Nepo::IpAddr();
  p.isIp = true;
  p.srcIp = src.value_or(zero);
  p.dstIp = dst.value_or(zero);
  uint16_t const type = v6 ? kEtherTypeIp6 : kEtherTypeIp;
  if (typeGiven && etherType != type) {
    throw ScenarioError(step.label() + ": an IP packet's 'etherType' follows its addresses (" +
                        (v6 ? "0x86dd" : "0x0800") + ")");
  }
  p.etherType = type;
  return p;
}

// {"expect": PATH, "attr": NAME, "key": K} with one of "value": V, "fields": {...} or
// "present": B; with "present", "attr" may be left out to ask about the entity itself.
void parseExpect(rapidjson::Value const& s, Step& step, std::set<std::string>& allowed) {
  auto member = [&](char const* name) -> rapidjson::Value const* {
    auto it = s.FindMember(name);
    return it == s.MemberEnd() ? nullptr : &it->value;
  };
  auto nonEmpty = [&](char const* name) {
    rapidjson::Value const* v = member(name);
    if (!v || !v->IsString() || v->GetStringLength() == 0) {
      throw ScenarioError(step.label() + ": '" + name + "' must be a non-empty string");
    }
    return str(*v);
  };
  allowed.insert({"attr", "key", "value", "fields", "present"});
  step.path = nonEmpty("expect");
  step.key = member("key");
  step.value = member("value");
  step.fields = member("fields");
  if (rapidjson::Value const* p = member("present")) {
    if (!p->IsBool()) {
      throw ScenarioError(step.label() + ": 'present' must be true or false, found " +
                          Zol::jsonText(*p));
    }
    step.present = p->GetBool();
  }
  if (!step.present || member("attr")) step.attr = nonEmpty("attr");
  if (step.key && step.attr.empty()) {
    throw ScenarioError(step.label() + ": a 'key' needs the 'attr' it is a key of");
  }
  int const checks = (step.value ? 1 : 0) + (step.fields ? 1 : 0) + (step.present ? 1 : 0);
  if (checks == 0) {
    throw ScenarioError(step.label() +
                        ": 'expect' needs a 'value' (null for absent), 'fields' or 'present'");
  }
  if (checks > 1) {
    throw ScenarioError(step.label() + ": 'expect' takes one of 'value', 'fields' and 'present'");
  }
  if (step.fields && (!step.fields->IsObject() || step.fields->MemberCount() == 0)) {
    throw ScenarioError(step.label() +
                        ": 'fields' must be an object naming at least one field, "
                        "found " +
                        Zol::jsonText(*step.fields));
  }
}

// {"fault": TABLE, "answer": "busy"|"full"|"failed"|"ok", "count": N} or
// {"fault": TABLE, "capacity": N}
void parseFault(rapidjson::Value const& s, Step& step, std::set<std::string>& allowed) {
  auto requireString = [&](char const* member) {
    auto it = s.FindMember(member);
    if (it == s.MemberEnd() || !it->value.IsString() || it->value.GetStringLength() == 0) {
      throw ScenarioError(step.label() + ": '" + member + "' must be a non-empty string");
    }
    return str(it->value);
  };
  step.table = requireString("fault");
  allowed.insert({"answer", "count", "capacity"});
  auto count = [&](char const* member) -> std::optional<uint64_t> {
    auto it = s.FindMember(member);
    if (it == s.MemberEnd()) return std::nullopt;
    if (!it->value.IsUint64()) {
      throw ScenarioError(step.label() + ": '" + member + "' must be a number >= 0, found " +
                          Zol::jsonText(it->value));
    }
    return it->value.GetUint64();
  };
  step.capacity = count("capacity");
  if (s.HasMember("answer")) {
    if (step.capacity) {
      throw ScenarioError(step.label() + ": a fault sets either 'answer' or 'capacity'");
    }
    step.answer = requireString("answer");
    step.count = static_cast<uint32_t>(count("count").value_or(1));
  } else if (!step.capacity) {
    throw ScenarioError(step.label() + ": a fault needs 'answer' (with 'count') or 'capacity'");
  } else if (s.HasMember("count")) {
    throw ScenarioError(step.label() + ": 'count' goes with 'answer'");
  }
}

// {"expectLog": KEY, "count": N}: N defaults to 1.
void parseExpectLog(rapidjson::Value const& s, Step& step, std::set<std::string>& allowed) {
  rapidjson::Value const& key = s["expectLog"];
  if (!key.IsString() || key.GetStringLength() == 0) {
    throw ScenarioError(step.label() + ": 'expectLog' must be a non-empty string");
  }
  step.text = str(key);
  allowed.insert("count");
  step.count = 1;
  if (auto it = s.FindMember("count"); it != s.MemberEnd()) {
    if (!it->value.IsUint()) {
      throw ScenarioError(step.label() + ": 'count' must be a number >= 0, found " +
                          Zol::jsonText(it->value));
    }
    step.count = it->value.GetUint();
  }
}

// Reads one step object; every member must be one that the step's kind takes.
Step parseStep(rapidjson::Value const& s, size_t number) {
  std::string const where = "step " + std::to_string(number);
  if (!s.IsObject())
    throw ScenarioError(where + ": a step is an object, found " + Zol::jsonText(s));
  static constexpr std::pair<char const*, Step::Kind> kinds[] = {
      {"set", Step::Kind::set},         {"del", Step::Kind::del},
      {"advance", Step::Kind::advance}, {"show", Step::Kind::show},
      {"expect", Step::Kind::expect},   {"fault", Step::Kind::fault},
      {"packet", Step::Kind::packet},   {"expectLog", Step::Kind::expectLog},
      {"restart", Step::Kind::restart}};
  std::optional<Step::Kind> kind;
  for (auto const& [name, k] : kinds) {
    // A packet step's "expect" is the packet's fate, not a step of its own.
    if (k == Step::Kind::expect && s.HasMember("packet")) continue;
    if (s.HasMember(name)) {
      if (kind)
        throw ScenarioError(where + ": a step does one thing; found both '" + kindName(*kind) +
                            "' and '" + name + "'");
      kind = k;
    }
  }
  // A step with nothing but a comment is a note for the reader.
  if (!kind && s.HasMember("comment")) kind = Step::Kind::comment;
  if (!kind) {
    throw ScenarioError(where +
                        ": expected one of set, del, advance, show, expect, fault, packet, "
                        "expectLog, restart or a lone comment in " +
                        Zol::jsonText(s));
  }
  Step step;
  step.kind = *kind;
  step.number = number;
  std::set<std::string> allowed{kindName(*kind), "comment"};
  auto requireString = [&](char const* member) {
    auto it = s.FindMember(member);
    if (it == s.MemberEnd() || !it->value.IsString() || it->value.GetStringLength() == 0) {
      throw ScenarioError(where + " (" + kindName(*kind) + "): '" + member +
                          "' must be a non-empty string");
    }
    return str(it->value);
  };
  switch (*kind) {
    case Step::Kind::set:
    case Step::Kind::del:
      step.path = requireString(kindName(*kind));
      allowed.insert({"attr", "key", "value"});
      step.attr = requireString("attr");
      if (auto it = s.FindMember("key"); it != s.MemberEnd()) step.key = &it->value;
      if (auto it = s.FindMember("value"); it != s.MemberEnd()) step.value = &it->value;
      if (*kind == Step::Kind::del) {
        allowed.erase("value");
        if (!step.key) throw ScenarioError(step.label() + ": 'del' needs a 'key'");
      }
      break;
    case Step::Kind::expect:
      parseExpect(s, step, allowed);
      break;
    case Step::Kind::comment:
      if (!s["comment"].IsString()) {
        throw ScenarioError(where + " (comment): 'comment' must be a string");
      }
      step.text = str(s["comment"]);
      break;
    case Step::Kind::expectLog:
      parseExpectLog(s, step, allowed);
      break;
    case Step::Kind::restart:
      step.text = requireString("restart");
      if (step.text != "hitless") {
        throw ScenarioError(step.label() + ": 'restart' must be \"hitless\", found \"" + step.text +
                            "\"");
      }
      break;
    case Step::Kind::advance: {
      rapidjson::Value const& v = s["advance"];
      if (!v.IsNumber() || v.GetDouble() < 0) {
        throw ScenarioError(where + " (advance): seconds must be a number >= 0, found " +
                            Zol::jsonText(v));
      }
      step.seconds = v.GetDouble();
      break;
    }
    case Step::Kind::show:
      step.view = requireString("show");
      break;
    case Step::Kind::fault:
      parseFault(s, step, allowed);
      break;
    case Step::Kind::packet: {
      // {"packet": {...}, "expect": "permit"|"deny"|"blocked"|"errdisabled"}
      step.packet = parsePacket(s["packet"], step);
      allowed.insert("expect");
      if (auto it = s.FindMember("expect"); it != s.MemberEnd()) {
        static constexpr char const* verdicts[] = {"permit", "deny", "blocked", "errdisabled"};
        if (!it->value.IsString() ||
            std::none_of(std::begin(verdicts), std::end(verdicts),
                         [&](char const* v) { return str(it->value) == v; })) {
          throw ScenarioError(step.label() +
                              ": 'expect' must be permit, deny, blocked or errdisabled, found " +
                              Zol::jsonText(it->value));
        }
        step.verdict = str(it->value);
      }
      break;
    }
  }
  for (auto const& m : s.GetObject()) {
    if (!allowed.count(str(m.name))) {
      throw ScenarioError(step.label() + ": unexpected member '" + str(m.name) + "'");
    }
  }
  return step;
}

}  // namespace

std::string packetText(sim::Packet const& p) {
  std::string out = p.intf.stringValue() + (p.direction == Acl::AclDirection::in ? " in" : " out");
  if (p.vlan != 0) out += " vlan " + std::to_string(p.vlan);
  if (!p.isIp) {
    char type[8];
    std::snprintf(type, sizeof type, "0x%04x", p.etherType);
    return out + " " + p.srcMac.stringValue() + " > " + p.dstMac.stringValue() + " " + type;
  }
  bool const ports = p.protocol == 6 || p.protocol == 17 || p.srcPort != 0 || p.dstPort != 0;
  auto endpoint = [&](Nepo::IpAddr const& a, uint16_t port) {
    std::string const addr = a.isV6() ? "[" + a.stringValue() + "]" : a.stringValue();
    return ports ? addr + ":" + std::to_string(port) : a.stringValue();
  };
  out += " " + protocolName(p.protocol) + " " + endpoint(p.srcIp, p.srcPort) + " > " +
         endpoint(p.dstIp, p.dstPort);
  if (p.tcpFlags != 0) {
    std::string flags;
    for (unsigned bit = 0; bit < 9; ++bit) {
      if (p.tcpFlags & (1u << bit))
        flags += (flags.empty() ? "" : " ") + std::string(kTcpFlagNames[bit]);
    }
    out += " [" + flags + "]";
  }
  if (p.protocol == 1 || p.protocol == 58 || p.icmpType != 0 || p.icmpCode != 0) {
    out += " type " + std::to_string(p.icmpType) + " code " + std::to_string(p.icmpCode);
  }
  if (p.dscp != 0) out += " dscp " + std::to_string(p.dscp);
  if (p.ecn != 0) out += " ecn " + std::to_string(p.ecn);
  if (p.ipLen != 0) out += " length " + std::to_string(p.ipLen);
  if (p.ttl != 0) out += " ttl " + std::to_string(p.ttl);
  if (p.fragment) out += " fragment";
  return out;
}

std::string Step::label() const {
  std::string l = "step " + std::to_string(number) + " (" + kindName(kind);
  if (!path.empty()) l += " " + path;
  if (!table.empty()) l += " " + table;
  if (kind == Kind::expectLog || kind == Kind::restart) l += " " + text;
  if (!attr.empty()) l += " " + attr;
  if (key) l += "[" + Zol::jsonText(*key) + "]";
  return l + ")";
}

Scenario Scenario::parse(std::string_view text) {
  Scenario sc;
  sc.doc_ = std::make_shared<rapidjson::Document>();
  rapidjson::Document& doc = *sc.doc_;
  doc.Parse(text.data(), text.size());
  if (doc.HasParseError()) {
    throw ScenarioError(std::string("scenario is not valid JSON: ") +
                        rapidjson::GetParseError_En(doc.GetParseError()) + " at offset " +
                        std::to_string(doc.GetErrorOffset()));
  }
  if (!doc.IsObject()) throw ScenarioError("scenario: expected a JSON object");
  for (auto const& m : doc.GetObject()) {
    std::string const name = str(m.name);
    if (name != "description" && name != "platform" && name != "steps") {
      throw ScenarioError("scenario: unexpected member '" + name + "'");
    }
  }
  if (auto it = doc.FindMember("description"); it != doc.MemberEnd()) {
    if (!it->value.IsString()) throw ScenarioError("scenario: 'description' must be a string");
    sc.description_ = str(it->value);
  }
  if (auto it = doc.FindMember("platform"); it != doc.MemberEnd()) {
    if (!it->value.IsObject()) throw ScenarioError("scenario: 'platform' must be an object");
    sc.platform_ = &it->value;
  }
  auto steps = doc.FindMember("steps");
  if (steps == doc.MemberEnd() || !steps->value.IsArray()) {
    throw ScenarioError("scenario: 'steps' must be a list");
  }
  size_t n = 0;
  for (auto const& s : steps->value.GetArray()) sc.steps_.push_back(parseStep(s, ++n));
  return sc;
}

Scenario Scenario::load(std::string const& file) {
  std::ifstream in(file);
  if (!in) throw ScenarioError("cannot read scenario '" + file + "'");
  std::ostringstream text;
  text << in.rdbuf();
  try {
    return parse(text.str());
  } catch (ScenarioError const& e) {
    throw ScenarioError(file + ": " + e.what());
  }
}

}  // namespace vemo::agent
