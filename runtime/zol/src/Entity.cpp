#include "Zol/Entity.h"

#include <algorithm>

namespace Zol {

namespace {

class ScalarRecord final : public PendingRecord {
 public:
  ScalarRecord(Entity* e, PendingRecord** owner, uint32_t attr)
      : entity_(e), owner_(owner), attr_(attr) {}
  void deliver() override {
    Ptr<Entity const> keep(entity_);
    uint32_t const attr = attr_;
    *owner_ = nullptr;
    delete this;
    keep->zolDeliver(attr, nullptr);
  }
  void drop() override {
    *owner_ = nullptr;
    delete this;
  }

 private:
  Entity* entity_;
  PendingRecord** owner_;
  uint32_t attr_;
};

}  // namespace

NotifieeBase::~NotifieeBase() { zolAttach(nullptr); }

void NotifieeBase::zolAttach(Entity const* e) {
  if (e == notifier_) return;
  if (notifier_) const_cast<Entity*>(notifier_)->zolNotifieeDel(this);
  notifier_ = e;
  if (notifier_) const_cast<Entity*>(notifier_)->zolNotifieeAdd(this);
}

void NotifieeBase::zolNotInterested(uint32_t attr, bool immediate) {
  uint64_t& mask = immediate ? immediateMask_ : deferredMask_;
  mask &= ~(uint64_t{1} << attr);
  if (notifier_) const_cast<Entity*>(notifier_)->zolMasksUpdate();
}

Entity::~Entity() {
  // Reactors hold counted references to their notifier, so none can be left here.
  for (NotifieeBase* r : notifiees_) {
    if (r) r->notifier_ = nullptr;
  }
}

void Entity::zolNotifieeAdd(NotifieeBase* r) {
  notifiees_.push_back(r);
  ++liveNotifiees_;
  deferredMask_ |= r->deferredMask_;
  immediateMask_ |= r->immediateMask_;
}

void Entity::zolNotifieeDel(NotifieeBase* r) {
  auto it = std::find(notifiees_.begin(), notifiees_.end(), r);
  if (it == notifiees_.end()) return;
  if (iterating_) {
    *it = nullptr;  // compacted when the delivery in progress ends
  } else {
    notifiees_.erase(it);
  }
  --liveNotifiees_;
  zolMasksUpdate();
}

void Entity::zolMasksUpdate() {
  uint64_t deferred = 0, immediate = 0;
  for (NotifieeBase const* r : notifiees_) {
    if (!r) continue;
    deferred |= r->deferredMask_;
    immediate |= r->immediateMask_;
  }
  deferredMask_ = deferred;
  immediateMask_ = immediate;
}

void Entity::zolQueueScalar(PendingRecord*& pending, uint32_t attr) {
  if (pending) return;
  pending = new ScalarRecord(this, &pending, attr);
  ActivityLoop::current().enqueue(pending);
}

// A reactor runs with its owner's gate current, so that what its handler makes belongs to that
// owner. A reactor of no owner runs in whatever gate is current (none, between passes): the
// common case costs no look-up. The current gate is looked up once per delivery, when needed.
void Entity::dispatchInGate(NotifieeBase& r, uint32_t attr, void const* key, bool immediate,
                            DeliveryGate*& current, bool& currentKnown) const {
  DeliveryGate* const gate = r.gate_.ptr();
  if (gate) {
    if (!currentKnown) {
      current = DeliveryGate::current();
      currentKnown = true;
    }
    if (gate != current) {
      DeliveryGate::Scope const scope(gate);
      return zolDispatch(r, attr, key, immediate);
    }
  }
  zolDispatch(r, attr, key, immediate);
}

void Entity::zolDeliver(uint32_t attr, void const* key) const {
  uint64_t const bit = uint64_t{1} << attr;
  ++iterating_;
  // Reactors registered by a handler during this delivery wait for the next change.
  size_t const n = notifiees_.size();
  DeliveryGate* current = nullptr;
  bool currentKnown = false;
  for (size_t i = 0; i < n; ++i) {
    NotifieeBase* r = notifiees_[i];
    if (!r || !r->receiving() || !(r->deferredMask_ & bit)) continue;
    dispatchInGate(*r, attr, key, false, current, currentKnown);
  }
  if (--iterating_ == 0 && notifiees_.size() != liveNotifiees_) {
    std::erase(notifiees_, nullptr);
  }
}

void Entity::zolImmediate(uint32_t attr, void const* key) {
  uint64_t const bit = uint64_t{1} << attr;
  // Kept alive for the call, unless still under construction (no reference yet).
  Ptr<Entity const> keep(references() ? this : nullptr);
  ++iterating_;
  size_t const n = notifiees_.size();
  DeliveryGate* current = nullptr;
  bool currentKnown = false;
  for (size_t i = 0; i < n; ++i) {
    NotifieeBase* r = notifiees_[i];
    if (!r || !r->receiving() || !(r->immediateMask_ & bit)) continue;
    dispatchInGate(*r, attr, key, true, current, currentKnown);
  }
  if (--iterating_ == 0 && notifiees_.size() != liveNotifiees_) {
    std::erase(notifiees_, nullptr);
  }
}

}  // namespace Zol
