#include "Scenario.h"

#include <rapidjson/error/en.h>

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
  }
  return "?";
}

std::string str(rapidjson::Value const& v) {
  return std::string(v.GetString(), v.GetStringLength());
}

// Reads one step object; every member must be one that the step's kind takes.
Step parseStep(rapidjson::Value const& s, size_t number) {
  std::string const where = "step " + std::to_string(number);
  if (!s.IsObject())
    throw ScenarioError(where + ": a step is an object, found " + Zol::jsonText(s));
  static constexpr std::pair<char const*, Step::Kind> kinds[] = {
      {"set", Step::Kind::set},   {"del", Step::Kind::del},       {"advance", Step::Kind::advance},
      {"show", Step::Kind::show}, {"expect", Step::Kind::expect}, {"fault", Step::Kind::fault}};
  std::optional<Step::Kind> kind;
  for (auto const& [name, k] : kinds) {
    if (s.HasMember(name)) {
      if (kind)
        throw ScenarioError(where + ": a step does one thing; found both '" + kindName(*kind) +
                            "' and '" + name + "'");
      kind = k;
    }
  }
  if (!kind) {
    throw ScenarioError(where + ": expected one of set, del, advance, show, expect, fault in " +
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
    case Step::Kind::expect: {
      step.path = requireString(kindName(*kind));
      allowed.insert({"attr", "key", "value"});
      step.attr = requireString("attr");
      if (auto it = s.FindMember("key"); it != s.MemberEnd()) step.key = &it->value;
      if (auto it = s.FindMember("value"); it != s.MemberEnd()) step.value = &it->value;
      if (*kind == Step::Kind::del) {
        allowed.erase("value");
        if (!step.key) throw ScenarioError(step.label() + ": 'del' needs a 'key'");
      }
      if (*kind == Step::Kind::expect && !step.value) {
        throw ScenarioError(step.label() + ": 'expect' needs a 'value' (null for absent)");
      }
      break;
    }
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
    case Step::Kind::fault: {
      // {"fault": TABLE, "answer": "busy"|"full"|"failed"|"ok", "count": N} or
      // {"fault": TABLE, "capacity": N}
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

std::string Step::label() const {
  std::string l = "step " + std::to_string(number) + " (" + kindName(kind);
  if (!path.empty()) l += " " + path;
  if (!table.empty()) l += " " + table;
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
