// JSON forms of values, for scenarios and views: numbers, booleans, strings for names, addresses
// and enumerators, objects with field names for value types, objects keyed by key text for maps.
#pragma once

#include <rapidjson/document.h>

#include "Zol/Text.h"

namespace Zol {

using Json = rapidjson::Value;
using JsonAlloc = rapidjson::Document::AllocatorType;

// The JSON value as text, for messages.
std::string jsonText(Json const& v);
std::string jsonTypeName(Json const& v);

template <class T>
concept GeneratedJsonValue = requires(T const& t, JsonAlloc& a, Json const& j) {
  { t.zolToJson(a) } -> std::same_as<Json>;
  { T::zolFromJson(j) } -> std::same_as<T>;
};

template <class T>
struct JsonTraits;

template <class T>
Json toJson(T const& v, JsonAlloc& a) {
  return JsonTraits<T>::to(v, a);
}
// Throws BindError (wrong JSON type), ParseError (bad text) or RangeException (out of range).
template <class T>
T fromJson(Json const& j) {
  return JsonTraits<T>::from(j);
}

[[noreturn]] void jsonTypeError(Json const& j, char const* expected);

template <class T>
requires std::is_integral_v<T> &&(!std::is_same_v<T, bool>)struct JsonTraits<T> {
  static Json to(T v, JsonAlloc&) {
    if constexpr (std::is_signed_v<T>) {
      return Json(static_cast<int64_t>(v));
    } else {
      return Json(static_cast<uint64_t>(v));
    }
  }
  static T from(Json const& j) {
    if (j.IsUint64()) {
      uint64_t const v = j.GetUint64();
      if (v > static_cast<uint64_t>(std::numeric_limits<T>::max())) {
        throw RangeException(jsonText(j) + " is out of range (at most " +
                             std::to_string(std::numeric_limits<T>::max()) + ")");
      }
      return static_cast<T>(v);
    }
    if (j.IsInt64()) {
      int64_t const v = j.GetInt64();
      if (!std::is_signed_v<T> || v < static_cast<int64_t>(std::numeric_limits<T>::min())) {
        throw RangeException(jsonText(j) + " is out of range (at least " +
                             std::to_string(std::numeric_limits<T>::min()) + ")");
      }
      return static_cast<T>(v);
    }
    jsonTypeError(j, "an integer");
  }
};

template <>
struct JsonTraits<bool> {
  static Json to(bool v, JsonAlloc&) { return Json(v); }
  static bool from(Json const& j) {
    if (!j.IsBool()) jsonTypeError(j, "true or false");
    return j.GetBool();
  }
};

template <>
struct JsonTraits<double> {
  static Json to(double v, JsonAlloc&) { return Json(v); }
  static double from(Json const& j) {
    if (!j.IsNumber()) jsonTypeError(j, "a number");
    return j.GetDouble();
  }
};

template <>
struct JsonTraits<std::string> {
  static Json to(std::string const& v, JsonAlloc& a) {
    return Json(v.data(), static_cast<rapidjson::SizeType>(v.size()), a);
  }
  static std::string from(Json const& j) {
    if (!j.IsString()) jsonTypeError(j, "a string");
    return std::string(j.GetString(), j.GetStringLength());
  }
};

template <StringLike T>
struct JsonTraits<T> {
  static Json to(T const& v, JsonAlloc& a) {
    return JsonTraits<std::string>::to(v.stringValue(), a);
  }
  static T from(Json const& j) { return T::fromString(JsonTraits<std::string>::from(j)); }
};

template <GeneratedEnum E>
struct JsonTraits<E> {
  static Json to(E v, JsonAlloc&) {
    std::string_view const n = enumName(v);
    return Json(rapidjson::StringRef(n.data(), n.size()));
  }
  static E from(Json const& j) { return enumFromName<E>(JsonTraits<std::string>::from(j)); }
};

template <GeneratedJsonValue T>
struct JsonTraits<T> {
  static Json to(T const& v, JsonAlloc& a) { return v.zolToJson(a); }
  static T from(Json const& j) { return T::zolFromJson(j); }
};

template <class T, size_t N>
struct JsonTraits<std::array<T, N>> {
  static Json to(std::array<T, N> const& v, JsonAlloc& a) {
    Json arr(rapidjson::kArrayType);
    for (auto const& e : v) arr.PushBack(toJson(e, a), a);
    return arr;
  }
  static std::array<T, N> from(Json const& j) {
    if (!j.IsArray() || j.Size() > N) jsonTypeError(j, "a list");
    std::array<T, N> v{};
    for (rapidjson::SizeType i = 0; i < j.Size(); ++i) v[i] = fromJson<T>(j[i]);
    return v;
  }
};

template <class K, class V>
struct JsonTraits<absl::btree_map<K, V>> {
  static Json to(absl::btree_map<K, V> const& m, JsonAlloc& a) {
    Json obj(rapidjson::kObjectType);
    for (auto const& [k, v] : m) {
      obj.AddMember(JsonTraits<std::string>::to(keyText(k), a), toJson(v, a), a);
    }
    return obj;
  }
  static absl::btree_map<K, V> from(Json const& j) {
    if (!j.IsObject()) jsonTypeError(j, "an object");
    absl::btree_map<K, V> m;
    for (auto const& member : j.GetObject()) {
      m.insert_or_assign(
          keyFromText<K>(std::string_view(member.name.GetString(), member.name.GetStringLength())),
          fromJson<V>(member.value));
    }
    return m;
  }
};

template <class T>
struct JsonTraits<Ptr<T>> {
  static Json to(Ptr<T> const& v, JsonAlloc& a) {
    if (!v) return Json();
    if constexpr (requires { v->name(); }) {
      return JsonTraits<std::string>::to(v->name(), a);
    } else {
      return Json("<object>");
    }
  }
};

// Keys in JSON steps may be given as strings or as plain JSON values.
template <class K>
K keyFromJson(Json const& j) {
  if (j.IsString()) return keyFromText<K>(std::string_view(j.GetString(), j.GetStringLength()));
  return fromJson<K>(j);
}

}  // namespace Zol
