// By-name access to entities, generated from the schema: scenarios write attributes and entries
// from JSON, views and expectations read them back, and paths walk the tree of child entities.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Zol/Entity.h"
#include "Zol/Json.h"

namespace Zol {

struct EntityType;

struct AttrDesc {
  enum class Kind {
    scalar,           // x(), xIs(v)
    collection,       // x(k), xIs(k, v), xDel(k)
    child,            // an owned child entity, created by name
    childCollection,  // owned child entities created by key
    reference,        // a counted reference to an entity owned elsewhere
  };
  char const* name;
  Kind kind;
  char const* keyType;    // C++ name of the key type (collections)
  char const* valueType;  // C++ name of the value or child type
  EntityType const* (*childType)();

  // Scalars and collections. Each throws BindError, ParseError or RangeException.
  // The JSON value parsed as the attribute's type and printed back (a dry run of set).
  Json (*normalize)(Json const& value, JsonAlloc& a);
  void (*checkKey)(Json const& key);
  void (*set)(Entity& e, Json const* key, Json const& value);
  // Scalars: the value. Collections: the entry (null if absent) or, without a key, all entries.
  Json (*get)(Entity const& e, Json const* key, JsonAlloc& a);
  // Collections and child collections.
  void (*del)(Entity& e, Json const& key);

  // Child kinds: the child under keyText (ignored for a single child), or null.
  Entity* (*child)(Entity& e, std::string_view keyText);
  // Child collections: creates the child of that key if absent.
  Entity* (*childIs)(Entity& e, Json const& key);
  void (*forEachChild)(Entity const& e,
                       std::function<void(std::string const& keyText, Entity const& c)> const& f);
};

struct EntityType {
  char const* name;
  EntityType const* base;
  std::vector<AttrDesc> attrs;
  // Looks in this type, then in its bases.
  AttrDesc const* attr(std::string_view name) const;
  // Every attribute, bases first.
  std::vector<AttrDesc const*> allAttrs() const;
};

// The whole entity as a JSON object: attributes in schema order, collection entries in key order.
Json entityToJson(Entity const& e, JsonAlloc& a);

}  // namespace Zol
