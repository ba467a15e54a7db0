#include "Zol/Json.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace Zol {

std::string jsonText(Json const& v) {
  rapidjson::StringBuffer buf;
  rapidjson::Writer<rapidjson::StringBuffer> w(buf);
  v.Accept(w);
  return std::string(buf.GetString(), buf.GetSize());
}

std::string jsonTypeName(Json const& v) {
  if (v.IsNull()) return "null";
  if (v.IsBool()) return "a boolean";
  if (v.IsNumber()) return "a number";
  if (v.IsString()) return "a string";
  if (v.IsArray()) return "a list";
  return "an object";
}

void jsonTypeError(Json const& j, char const* expected) {
  throw BindError("expected " + std::string(expected) + ", found " + jsonText(j));
}

}  // namespace Zol
