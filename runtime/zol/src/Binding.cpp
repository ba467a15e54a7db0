#include "Zol/Binding.h"

namespace Zol {

AttrDesc const* EntityType::attr(std::string_view n) const {
  for (EntityType const* t = this; t; t = t->base) {
    for (AttrDesc const& a : t->attrs) {
      if (n == a.name) return &a;
    }
  }
  return nullptr;
}

std::vector<AttrDesc const*> EntityType::allAttrs() const {
  std::vector<AttrDesc const*> out;
  if (base) out = base->allAttrs();
  for (AttrDesc const& a : attrs) out.push_back(&a);
  return out;
}

Json entityToJson(Entity const& e, JsonAlloc& a) {
  Json obj(rapidjson::kObjectType);
  for (AttrDesc const* d : e.zolEntityType().allAttrs()) {
    Json v;
    switch (d->kind) {
      case AttrDesc::Kind::scalar:
      case AttrDesc::Kind::collection:
      case AttrDesc::Kind::reference:
        v = d->get(e, nullptr, a);
        break;
      case AttrDesc::Kind::child:
      case AttrDesc::Kind::childCollection: {
        bool const single = d->kind == AttrDesc::Kind::child;
        v.SetObject();
        d->forEachChild(e, [&](std::string const& key, Entity const& c) {
          Json child = entityToJson(c, a);
          if (single) {
            v = std::move(child);
          } else {
            v.AddMember(Json(key.c_str(), a), child, a);
          }
        });
        if (single && v.IsObject() && v.MemberCount() == 0) v.SetNull();
        break;
      }
    }
    obj.AddMember(rapidjson::StringRef(d->name), v, a);
  }
  return obj;
}

}  // namespace Zol
