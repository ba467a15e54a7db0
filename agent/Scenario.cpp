#include "Scenario.h"

#include <rapidjson/error/en.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>

#include "Zol/Json.h"

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
  auto bad = [&](std::string const& member, std::string const& what, rapidjson::Value const& j) {
    return ScenarioError(step.label() + ": packet '" + member + "' must be " + what + ", found " +
                         Zol::jsonText(j));
  };
  sim::Packet p;
  auto intf = v.FindMember("intf");
  if (intf == v.MemberEnd()) {
    throw ScenarioError(step.label() + ": a packet needs 'intf', the port it goes through");
  }
  try {
    if (!intf->value.IsString()) throw Zol::ParseError("not a string");
    p.intf = Nepo::IntfId::fromString(str(intf->value));
  } catch (std::exception const&) {
    throw bad("intf", "an interface name", intf->value);
  }
  step.path = p.intf.stringValue();
  bool ip = false;
  std::optional<uint16_t> etherType;
  std::optional<Nepo::IpAddr> src, dst;
  for (auto const& m : v.GetObject()) {
    std::string const name = str(m.name);
    auto number = [&](unsigned max) {
      if (!m.value.IsUint() || m.value.GetUint() > max) {
        throw bad(name, "a number from 0 to " + std::to_string(max), m.value);
      }
      return m.value.GetUint();
    };
    // Addresses in their usual text forms.
    auto parsed = [&](auto parse, char const* what) {
      try {
        if (!m.value.IsString()) throw Zol::ParseError("not a string");
        return parse(str(m.value));
      } catch (std::exception const&) {
        throw bad(name, what, m.value);
      }
    };
    bool const isIpField = name != "intf" && name != "direction" && name != "vlan" &&
                           name != "srcMac" && name != "dstMac" && name != "etherType";
    if (name == "intf") {
      continue;
    } else if (name == "direction") {
      std::string const d = m.value.IsString() ? str(m.value) : "";
      if (d != "in" && d != "out") throw bad(name, "in or out", m.value);
      p.direction = d == "in" ? Acl::AclDirection::in : Acl::AclDirection::out;
    } else if (name == "vlan") {
      p.vlan = static_cast<uint16_t>(number(4095));
    } else if (name == "srcMac" || name == "dstMac") {
      (name == "srcMac" ? p.srcMac : p.dstMac) = parsed(
          [](std::string const& t) { return Nepo::EthAddr::fromString(t); }, "a MAC address");
    } else if (name == "etherType") {
      if (m.value.IsString()) {
        // "0x0806", as Ethernet types are written.
        std::string const t = str(m.value);
        size_t end = 0;
        unsigned long value = 0;
        try {
          value = t.rfind("0x", 0) == 0 ? std::stoul(t.substr(2), &end, 16) : 0;
        } catch (std::exception const&) {
        }
        if (end == 0 || end + 2 != t.size() || value > 0xffff) {
          throw bad(name, "a number or hexadecimal text (\"0x0806\")", m.value);
        }
        etherType = static_cast<uint16_t>(value);
      } else {
        etherType = static_cast<uint16_t>(number(0xffff));
      }
    } else if (name == "srcIp" || name == "dstIp") {
      (name == "srcIp" ? src : dst) =
          parsed([](std::string const& t) { return Nepo::IpAddr::fromString(t); }, "an IP address");
    } else if (name == "protocol") {
      static constexpr std::pair<char const*, uint8_t> names[] = {
          {"icmp", 1}, {"tcp", 6}, {"udp", 17}, {"icmpv6", 58}};
      if (m.value.IsString()) {
        auto const* it = std::find_if(std::begin(names), std::end(names),
                                      [&](auto const& n) { return str(m.value) == n.first; });
        if (it == std::end(names)) throw bad(name, "a number or tcp, udp, icmp, icmpv6", m.value);
        p.protocol = it->second;
      } else {
        p.protocol = static_cast<uint8_t>(number(255));
      }
    } else if (name == "srcPort" || name == "dstPort") {
      (name == "srcPort" ? p.srcPort : p.dstPort) = static_cast<uint16_t>(number(65535));
    } else if (name == "tcpFlags") {
      if (m.value.IsArray()) {
        for (auto const& f : m.value.GetArray()) {
          auto const* it = std::find_if(std::begin(kTcpFlagNames), std::end(kTcpFlagNames),
                                        [&](char const* n) { return f.IsString() && str(f) == n; });
          if (it == std::end(kTcpFlagNames)) {
            throw bad(name, "a number or a list of fin, syn, rst, psh, ack, urg, ece, cwr, ns",
                      m.value);
          }
          p.tcpFlags |= static_cast<uint16_t>(1u << (it - std::begin(kTcpFlagNames)));
        }
      } else {
        p.tcpFlags = static_cast<uint16_t>(number(0x1ff));
      }
    } else if (name == "ecn") {
      p.ecn = static_cast<uint8_t>(number(3));
    } else if (name == "dscp") {
      p.dscp = static_cast<uint8_t>(number(63));
    } else if (name == "ipLen") {
      p.ipLen = static_cast<uint16_t>(number(65535));
    } else if (name == "ttl") {
      p.ttl = static_cast<uint8_t>(number(255));
    } else if (name == "icmpType" || name == "icmpCode") {
      (name == "icmpType" ? p.icmpType : p.icmpCode) = static_cast<uint8_t>(number(255));
    } else if (name == "fragment") {
      if (!m.value.IsBool()) throw bad(name, "true or false", m.value);
      p.fragment = m.value.GetBool();
    } else {
      throw ScenarioError(step.label() + ": a packet has no member '" + name +
                          "' (intf, direction, vlan, srcMac, dstMac, etherType, srcIp, dstIp, "
                          "protocol, srcPort, dstPort, tcpFlags, ecn, dscp, ipLen, ttl, icmpType, "
                          "icmpCode, fragment)");
    }
    ip = ip || isIpField;
  }
  if (etherType == kEtherTypeIp || etherType == kEtherTypeIp6) ip = true;
  if (ip) {
    if (src && dst && src->isV6() != dst->isV6()) {
      throw ScenarioError(step.label() + ": packet 'srcIp' and 'dstIp' must be of one family");
    }
    bool const v6 = src ? src->isV6() : dst ? dst->isV6() : etherType == kEtherTypeIp6;
    Nepo::IpAddr const zero = v6 ? Nepo::IpAddr::fromString("::") : Nepo::IpAddr();
    p.isIp = true;
    p.srcIp = src.value_or(zero);
    p.dstIp = dst.value_or(zero);
    uint16_t const type = v6 ? kEtherTypeIp6 : kEtherTypeIp;
    if (etherType && *etherType != type) {
      throw ScenarioError(step.label() + ": an IP packet's 'etherType' follows its addresses (" +
                          (v6 ? "0x86dd" : "0x0800") + ")");
    }
    p.etherType = type;
  } else {
    p.etherType = etherType.value_or(0);
  }
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
