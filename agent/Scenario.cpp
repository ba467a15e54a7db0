#include "Scenario.h"

#include <rapidjson/error/en.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "Zol/Json.h"
#include "ZolGen/AgentScenarioJson.h"

namespace vemo::agent {

namespace {

std::string str(rapidjson::Value const& v) {
  return std::string(v.GetString(), v.GetStringLength());
}

constexpr uint16_t kEtherTypeIp = 0x0800;
constexpr uint16_t kEtherTypeIp6 = 0x86dd;

// Protocols as scenarios name them; 0 is any IP packet.
std::string protocolName(uint8_t protocol) {
  for (auto const& [name, number] : AgentScenario::Packet::protocolNames) {
    if (number == protocol) return std::string(name);
  }
  return protocol == 0 ? "ip" : "protocol " + std::to_string(protocol);
}

// The packet's fields as written; what kind of packet it is comes from which were written.
sim::Packet packetOf(AgentScenario::Packet const& given) {
  sim::Packet p;
  p.intf = given.intf();
  p.direction = given.direction() == AgentScenario::Direction::in ? Acl::AclDirection::in
                                                                  : Acl::AclDirection::out;
  p.vlan = given.vlan();
  p.srcMac = given.srcMac();
  p.dstMac = given.dstMac();
  p.protocol = given.protocol();
  p.srcPort = given.srcPort();
  p.dstPort = given.dstPort();
  p.tcpFlags = given.tcpFlags();
  p.ecn = given.ecn();
  p.dscp = given.dscp();
  p.ipLen = given.ipLen();
  p.ttl = given.ttl();
  p.icmpType = given.icmpType();
  p.icmpCode = given.icmpCode();
  p.fragment = given.fragment();
  if (!given.fromVtep().isZero()) {
    p.decap.emplace();
    p.decap->srcVtep = given.fromVtep();
    p.decap->vni = given.vni();
  }
  return p;
}

// The packet object read by the generated binding. The interface is read first, as it names the
// step in messages about the packet's other fields.
AgentScenario::Packet packetFields(rapidjson::Value const& v, Step& step) {
  if (!v.IsObject()) {
    throw ScenarioError(step.label() + ": 'packet' must be an object, found " + Zol::jsonText(v));
  }
  auto intf = v.FindMember("intf");
  if (intf == v.MemberEnd()) {
    throw ScenarioError(step.label() + ": a packet needs 'intf', the port it goes through");
  }
  try {
    step.path = Zol::fromJson<Nepo::IntfId>(intf->value).stringValue();
  } catch (std::exception const&) {
  }
  try {
    return Zol::fromJson<AgentScenario::Packet>(v);
  } catch (std::exception const& e) {
    throw ScenarioError(step.label() + ": packet " + e.what());
  }
}

// What was written, not what the fields read, decides the kind of packet: an IP Ethernet type
// or any member beyond the Ethernet header's makes an IP packet.
bool writtenAsIp(rapidjson::Value const& v, AgentScenario::Packet const& given) {
  if (v.HasMember("etherType") &&
      (given.etherType() == kEtherTypeIp || given.etherType() == kEtherTypeIp6)) {
    return true;
  }
  static constexpr std::string_view kEthernetFields[] = {
      "intf", "direction", "vlan", "srcMac", "dstMac", "etherType", "fromVtep", "vni"};
  return std::any_of(v.MemberBegin(), v.MemberEnd(), [](auto const& m) {
    return std::find(std::begin(kEthernetFields), std::end(kEthernetFields), str(m.name)) ==
           std::end(kEthernetFields);
  });
}

// An IP packet's addresses, one left out being the zero address of the other's family, and the
// Ethernet type that family implies.
void addressIp(sim::Packet& p, rapidjson::Value const& v, AgentScenario::Packet const& given,
               Step const& step) {
  bool const typeGiven = v.HasMember("etherType");
  std::optional<Nepo::IpAddr> const src =
      v.HasMember("srcIp") ? std::optional(given.srcIp()) : std::nullopt;
  std::optional<Nepo::IpAddr> const dst =
      v.HasMember("dstIp") ? std::optional(given.dstIp()) : std::nullopt;
  if (src && dst && src->isV6() != dst->isV6()) {
    throw ScenarioError(step.label() + ": packet 'srcIp' and 'dstIp' must be of one family");
  }
  bool const v6 = src   ? src->isV6()
                  : dst ? dst->isV6()
                        : typeGiven && given.etherType() == kEtherTypeIp6;
  Nepo::IpAddr const zero = v6 ? Nepo::IpAddr::fromString("::") : Nepo::IpAddr();
  p.isIp = true;
  p.srcIp = src.value_or(zero);
  p.dstIp = dst.value_or(zero);
  uint16_t const type = v6 ? kEtherTypeIp6 : kEtherTypeIp;
  if (typeGiven && given.etherType() != type) {
    throw ScenarioError(step.label() + ": an IP packet's 'etherType' follows its addresses (" +
                        (v6 ? "0x86dd" : "0x0800") + ")");
  }
  p.etherType = type;
}

// {"intf": "Ethernet1", "direction": "in", "protocol": "tcp", "dstPort": 80, ...}. Fields left
// out are zero. Any IP field makes an IP packet, whose Ethernet type follows its addresses; an
// address left out is the zero address of the other one's family.
sim::Packet parsePacket(rapidjson::Value const& v, Step& step) {
  AgentScenario::Packet const given = packetFields(v, step);
  sim::Packet p = packetOf(given);
  if (writtenAsIp(v, given)) {
    addressIp(p, v, given, step);
  } else {
    p.etherType = given.etherType();
  }
  return p;
}

// Reads the members of one step, naming the step in what it refuses.
class StepReader {
 public:
  StepReader(rapidjson::Value const& s, Step const& step) : s_(s), step_(step) {}

  rapidjson::Value const* member(char const* name) const {
    auto it = s_.FindMember(name);
    return it == s_.MemberEnd() ? nullptr : &it->value;
  }
  std::string nonEmpty(char const* name) const {
    rapidjson::Value const* v = member(name);
    if (!v || !v->IsString() || v->GetStringLength() == 0) {
      throw error(std::string("'") + name + "' must be a non-empty string");
    }
    return str(*v);
  }
  std::optional<uint64_t> count(char const* name, uint64_t max = UINT32_MAX) const {
    rapidjson::Value const* v = member(name);
    if (!v) return std::nullopt;
    if (!v->IsUint64() || v->GetUint64() > max) {
      throw error(std::string("'") + name + "' must be a number >= 0, found " + Zol::jsonText(*v));
    }
    return v->GetUint64();
  }
  ScenarioError error(std::string const& what) const {
    return ScenarioError(step_.label() + ": " + what);
  }

 private:
  rapidjson::Value const& s_;
  Step const& step_;
};

// {"set": PATH, "attr": NAME, "key": K, "value": V}; {"del": PATH, "attr": NAME, "key": K}
void readWrite(StepReader const& r, Step& step) {
  step.path = r.nonEmpty(step.kind == Step::Kind::set ? "set" : "del");
  step.attr = r.nonEmpty("attr");
  step.key = r.member("key");
  step.value = r.member("value");
  if (step.kind == Step::Kind::del && !step.key) throw r.error("'del' needs a 'key'");
  if (r.member("repeat")) {
    step.repeat = static_cast<uint32_t>(r.count("repeat", 1000000).value_or(1));
    if (step.repeat == 0) throw r.error("'repeat' must be at least 1");
    if (!step.key || !step.key->IsObject() || !step.key->HasMember("macAddr") ||
        !(*step.key)["macAddr"].IsString()) {
      throw r.error("'repeat' needs a key with a \"macAddr\", the first of the addresses");
    }
  }
}

// {"expect": PATH, "attr": NAME, "key": K} with one of "value": V, "fields": {...} or
// "present": B; with "present", "attr" may be left out to ask about the entity itself.
void readExpect(StepReader const& r, Step& step) {
  step.path = r.nonEmpty("expect");
  step.key = r.member("key");
  step.value = r.member("value");
  step.fields = r.member("fields");
  if (rapidjson::Value const* p = r.member("present")) {
    if (!p->IsBool()) throw r.error("'present' must be true or false, found " + Zol::jsonText(*p));
    step.present = p->GetBool();
  }
  if (!step.present || r.member("attr")) step.attr = r.nonEmpty("attr");
  if (step.key && step.attr.empty()) throw r.error("a 'key' needs the 'attr' it is a key of");
  int const checks = (step.value ? 1 : 0) + (step.fields ? 1 : 0) + (step.present ? 1 : 0);
  if (checks == 0)
    throw r.error("'expect' needs a 'value' (null for absent), 'fields' or 'present'");
  if (checks > 1) throw r.error("'expect' takes one of 'value', 'fields' and 'present'");
  if (step.fields && (!step.fields->IsObject() || step.fields->MemberCount() == 0)) {
    throw r.error("'fields' must be an object naming at least one field, found " +
                  Zol::jsonText(*step.fields));
  }
}

// {"fault": TABLE, "answer": "busy"|"full"|"failed"|"ok", "count": N} or
// {"fault": TABLE, "capacity": N}
void readFault(StepReader const& r, Step& step) {
  step.table = r.nonEmpty("fault");
  step.capacity = r.count("capacity", UINT64_MAX);
  if (r.member("answer")) {
    if (step.capacity) throw r.error("a fault sets either 'answer' or 'capacity'");
    step.answer = r.nonEmpty("answer");
    step.count = static_cast<uint32_t>(r.count("count").value_or(1));
  } else if (!step.capacity) {
    throw r.error("a fault needs 'answer' (with 'count') or 'capacity'");
  } else if (r.member("count")) {
    throw r.error("'count' goes with 'answer'");
  }
}

// {"packet": {...}, "expect": "permit"|"deny"|"blocked"|"errdisabled", "egress": [PORT, ...]}
void readPacket(StepReader const& r, Step& step) {
  step.packet = parsePacket(*r.member("packet"), step);
  if (rapidjson::Value const* v = r.member("expect")) {
    static constexpr std::string_view verdicts[] = {"permit", "deny", "blocked", "errdisabled"};
    if (!v->IsString() ||
        std::find(std::begin(verdicts), std::end(verdicts), str(*v)) == std::end(verdicts)) {
      throw r.error("'expect' must be permit, deny, blocked or errdisabled, found " +
                    Zol::jsonText(*v));
    }
    step.verdict = str(*v);
  }
  if (rapidjson::Value const* v = r.member("egress")) {
    if (!v->IsArray()) throw r.error("'egress' must be a list of interfaces");
    std::vector<Nepo::IntfId> ports;
    for (auto const& e : v->GetArray()) {
      if (!e.IsString()) throw r.error("'egress' must be a list of interfaces");
      try {
        ports.push_back(Nepo::IntfId::fromString(str(e)));
      } catch (std::exception const& ex) {
        throw r.error("'egress': " + std::string(ex.what()));
      }
    }
    std::sort(ports.begin(), ports.end());
    step.egress = ports;
  }
}

// {"advance": SECONDS}
void readAdvance(StepReader const& r, Step& step) {
  rapidjson::Value const& v = *r.member("advance");
  if (!v.IsNumber() || v.GetDouble() < 0) {
    throw r.error("seconds must be a number >= 0, found " + Zol::jsonText(v));
  }
  step.seconds = v.GetDouble();
}

// {"expectLog": KEY, "count": N}: N defaults to 1.
void readExpectLog(StepReader const& r, Step& step) {
  step.text = r.nonEmpty("expectLog");
  step.count = static_cast<uint32_t>(r.count("count").value_or(1));
}

// {"restart": "hitless"}, or with "store": "truncated" for a MAC state store a crash cut short.
void readRestart(StepReader const& r, Step& step) {
  step.text = r.nonEmpty("restart");
  if (step.text != "hitless") {
    throw r.error("'restart' must be \"hitless\", found \"" + step.text + "\"");
  }
  if (r.member("store")) {
    if (r.nonEmpty("store") != "truncated") {
      throw r.error("'store' must be \"truncated\", found \"" + r.nonEmpty("store") + "\"");
    }
    step.truncateStore = true;
  }
}

// {"comment": TEXT}, alone: a note for the reader.
void readComment(StepReader const& r, Step& step) {
  rapidjson::Value const& v = *r.member("comment");
  if (!v.IsString()) throw r.error("'comment' must be a string");
  step.text = str(v);
}

void readShow(StepReader const& r, Step& step) { step.view = r.nonEmpty("show"); }

// Each kind of step: the member that names it, the others it takes (besides "comment", which
// any step may carry) and how it reads. A step is of the one kind whose member it has; a lone
// comment comes last, as a comment goes with any other kind.
struct StepForm {
  std::string_view name;
  Step::Kind kind;
  std::string_view members[5];
  void (*read)(StepReader const&, Step&);
};
constexpr StepForm kStepForms[] = {
    // "repeat": N writes N keys, the key's "macAddr" and the N-1 addresses after it.
    {"set", Step::Kind::set, {"attr", "key", "value", "repeat"}, readWrite},
    {"del", Step::Kind::del, {"attr", "key", "repeat"}, readWrite},
    {"advance", Step::Kind::advance, {}, readAdvance},
    {"show", Step::Kind::show, {}, readShow},
    {"expect", Step::Kind::expect, {"attr", "key", "value", "fields", "present"}, readExpect},
    {"fault", Step::Kind::fault, {"answer", "count", "capacity"}, readFault},
    // A packet step's "expect" is the packet's fate, not a step of its own.
    {"packet", Step::Kind::packet, {"expect", "egress"}, readPacket},
    {"expectLog", Step::Kind::expectLog, {"count"}, readExpectLog},
    {"restart", Step::Kind::restart, {"store"}, readRestart},
    {"comment", Step::Kind::comment, {}, readComment},
};

StepForm const& formOf(Step::Kind kind) {
  return *std::find_if(std::begin(kStepForms), std::end(kStepForms),
                       [&](StepForm const& f) { return f.kind == kind; });
}

// The one kind of step whose member the step has, or a lone comment.
StepForm const& whichForm(rapidjson::Value const& s, std::string const& where) {
  auto has = [&](std::string_view name) {
    return s.HasMember(rapidjson::StringRef(name.data(), name.size()));
  };
  StepForm const* form = nullptr;
  for (StepForm const& f : kStepForms) {
    if (f.kind == Step::Kind::comment || !has(f.name)) continue;
    if (f.kind == Step::Kind::expect && has("packet")) continue;
    if (form) {
      throw ScenarioError(where + ": a step does one thing; found both '" +
                          std::string(form->name) + "' and '" + std::string(f.name) + "'");
    }
    form = &f;
  }
  if (!form && has("comment")) form = &formOf(Step::Kind::comment);
  if (!form) {
    std::string kinds;
    for (StepForm const& f : kStepForms) {
      if (f.kind != Step::Kind::comment) kinds += std::string(f.name) + ", ";
    }
    throw ScenarioError(where + ": expected one of " + kinds + "or a lone comment in " +
                        Zol::jsonText(s));
  }
  return *form;
}

void checkMembers(rapidjson::Value const& s, StepForm const& form, StepReader const& reader) {
  for (auto const& m : s.GetObject()) {
    std::string const name = str(m.name);
    // The unused slots of members are empty names, which no member may have.
    bool const known = name == form.name || name == "comment" ||
                       (!name.empty() && std::find(std::begin(form.members), std::end(form.members),
                                                   name) != std::end(form.members));
    if (!known) {
      throw reader.error("unexpected member '" + name + "'");
    }
  }
}

Step parseStep(rapidjson::Value const& s, size_t number) {
  std::string const where = "step " + std::to_string(number);
  if (!s.IsObject()) {
    throw ScenarioError(where + ": a step is an object, found " + Zol::jsonText(s));
  }
  StepForm const& form = whichForm(s, where);
  Step step;
  step.kind = form.kind;
  step.number = number;
  StepReader const reader(s, step);
  form.read(reader, step);
  checkMembers(s, form, reader);
  return step;
}

}  // namespace

std::string packetText(sim::Packet const& p) {
  std::string out = p.intf.stringValue() + (p.direction == Acl::AclDirection::in ? " in" : " out");
  if (p.decap)
    out += " from vtep " + p.decap->srcVtep.stringValue() + " vni " + std::to_string(p.decap->vni);
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
    unsigned bit = 0;
    for (std::string_view const name : AgentScenario::Packet::tcpFlagsBits) {
      if (p.tcpFlags & (1u << bit++)) flags += (flags.empty() ? "" : " ") + std::string(name);
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
  std::string l = "step " + std::to_string(number) + " (" + std::string(formOf(kind).name);
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
