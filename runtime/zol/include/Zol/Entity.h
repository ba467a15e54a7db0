// Entities: named, reference-counted objects that own typed attributes and keyed collections and
// notify registered reactors of every change, deferred (coalesced, delivered by the activity loop)
// or immediate (inside the write).
#pragma once

#include <absl/container/btree_map.h>
#include <absl/container/flat_hash_map.h>
#include <absl/container/node_hash_map.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <type_traits>
#include <vector>

#include "Zol/Activity.h"
#include "Zol/Ptr.h"
#include "Zol/Types.h"

namespace Zol {

class Entity;
struct EntityType;

// Equality as writes see it: floating point compares bitwise, so writing NaN again is no change.
template <class T>
bool sameValue(T const& a, T const& b) {
  if constexpr (std::is_floating_point_v<T>) {
    return std::memcmp(&a, &b, sizeof(T)) == 0;
  } else {
    return a == b;
  }
}

// Base of every reactor. A reactor is interested in every attribute until a handler it did not
// override is first called: from then on that attribute costs it nothing. Notifications are
// level-triggered: they say which attribute and key changed; the handler reads the current state.
class NotifieeBase {
 public:
  NotifieeBase() = default;
  NotifieeBase(NotifieeBase const&) = delete;
  NotifieeBase& operator=(NotifieeBase const&) = delete;
  virtual ~NotifieeBase();

  bool hasNotificationActive() const { return active_; }
  // Switches delivery to this reactor off and on; nothing is queued for it meanwhile.
  virtual void hasNotificationActiveIs(bool active) { active_ = active; }

 protected:
  // Registers on e (null unregisters); pending notifications of the old notifier are not received.
  void zolAttach(Entity const* e);
  // Called by the generated default handlers: this reactor does not handle the attribute.
  void zolNotInterested(uint32_t attr, bool immediate);
  // The attributes a reactor type can receive at all (set by its generated constructor).
  void zolMaskIs(uint64_t mask) { deferredMask_ = immediateMask_ = mask; }

 private:
  friend class Entity;
  // Delivery needs this reactor switched on, and the gate of the owner it was made for open.
  bool receiving() const { return active_ && (!gate_ || gate_->open()); }

  Entity const* notifier_ = nullptr;
  Ptr<DeliveryGate> gate_{DeliveryGate::current()};
  uint64_t deferredMask_ = ~uint64_t{0};
  uint64_t immediateMask_ = ~uint64_t{0};
  bool active_ = true;
};

// A scalar attribute with its coalescing slot.
template <class T>
struct ScalarSlot {
  T value{};
  PendingRecord* pending = nullptr;
  ScalarSlot() = default;
  explicit ScalarSlot(T v) : value(std::move(v)) {}
  ~ScalarSlot() { delete pending; }
  ScalarSlot(ScalarSlot const&) = delete;
  ScalarSlot& operator=(ScalarSlot const&) = delete;
};

template <class K>
class PendingKeys;

// The pending notification of one key of a collection.
template <class K>
class KeyedRecord final : public PendingRecord {
 public:
  void deliver() override;
  void drop() override;
  PendingKeys<K>* owner = nullptr;
  K key{};
  uint32_t attr = 0;
  bool live = false;
};

// Coalesces the pending notifications of one collection, one record per key. Records come from
// chunks and are recycled; the index is not pruned as records are delivered (that would cost a
// second hash lookup per key) but checked on use and cleared once nothing is pending.
//
// While every pending record is for a key its write created, no two can share a key: a key written
// twice, or created again, was changed in between by a write that did not create it. So a burst of
// new keys keeps no index at all; the first other change indexes what is pending, and from then
// on every change is looked up until nothing is pending.
template <class K>
class PendingKeys {
 public:
  explicit PendingKeys(Entity* e) : entity_(e) {}
  PendingKeys(PendingKeys const&) = delete;
  PendingKeys& operator=(PendingKeys const&) = delete;

  Entity* entity() const { return entity_; }
  // newKey: the write created the key in the collection.
  void add(K const& k, uint32_t attr, bool newKey = false) {
    if (!indexed_) {
      if (newKey) {
        queue(k, attr);
        return;
      }
      indexPending();
    }
    if (index_.size() > 4 * live_ + 1024) {
      // A collection that always has something pending would otherwise keep an entry for every
      // key ever written. Pruning here, where the index grows, rather than as records drain,
      // keeps a plain delivery of many keys free of it; each stale entry is paid for once.
      absl::erase_if(index_, [](auto const& e) {
        return !e.second || !e.second->live || !(e.second->key == e.first);
      });
    }
    auto [it, inserted] = index_.try_emplace(k, nullptr);
    KeyedRecord<K>* r = it->second;
    if (!inserted && r && r->live && r->key == k) return;
    it->second = queue(k, attr);
  }
  void release(KeyedRecord<K>* r) {
    r->live = false;
    r->unlink();
    free_.push_back(r);
    if (--live_ == 0) {
      index_.clear();
      indexed_ = false;
      // A burst's records would otherwise stay for good; one chunk serves the usual trickle.
      if (chunks_.size() > 1) keepFirstChunk();
    }
  }

 private:
  static constexpr size_t kChunk = 256;

  KeyedRecord<K>* queue(K const& k, uint32_t attr) {
    KeyedRecord<K>* r;
    if (!free_.empty()) {
      r = free_.back();
      free_.pop_back();
    } else {
      if (chunks_.empty() || lastUsed_ == kChunk) {
        chunks_.push_back(std::make_unique<KeyedRecord<K>[]>(kChunk));
        lastUsed_ = 0;
      }
      r = &chunks_.back()[lastUsed_++];
      r->owner = this;
    }
    r->key = k;
    r->attr = attr;
    r->live = true;
    ++live_;
    ActivityLoop::current().enqueue(r);
    return r;
  }

  // Only while nothing is pending: every record is free.
  void keepFirstChunk() {
    chunks_.resize(1);
    lastUsed_ = kChunk;
    std::vector<KeyedRecord<K>*> free;
    free.reserve(kChunk);
    for (size_t i = 0; i < kChunk; ++i) {
      chunks_[0][i].owner = this;
      free.push_back(&chunks_[0][i]);
    }
    free_ = std::move(free);
  }

  void indexPending() {
    for (size_t c = 0; c < chunks_.size(); ++c) {
      size_t const used = c + 1 == chunks_.size() ? lastUsed_ : kChunk;
      for (size_t i = 0; i < used; ++i) {
        KeyedRecord<K>* const r = &chunks_[c][i];
        if (r->live) index_.insert_or_assign(r->key, r);
      }
    }
    indexed_ = true;
  }

  Entity* entity_;
  absl::flat_hash_map<K, KeyedRecord<K>*> index_;
  bool indexed_ = false;
  std::vector<std::unique_ptr<KeyedRecord<K>[]>> chunks_;
  size_t lastUsed_ = 0;  // records handed out of the last chunk
  std::vector<KeyedRecord<K>*> free_;
  size_t live_ = 0;
};

// A keyed collection with its coalescing slots. Map is absl::flat_hash_map or absl::btree_map.
template <class Map>
struct CollectionSlot {
  using key_type = typename Map::key_type;
  Map map;
  std::unique_ptr<PendingKeys<key_type>> pending;
};

template <class K, class V>
using HashCollection = CollectionSlot<absl::flat_hash_map<K, V>>;
template <class K, class V>
using OrderedCollection = CollectionSlot<absl::btree_map<K, V>>;

class Entity : public PtrInterface {
 public:
  Name const& name() const { return name_; }
  // The generated description of the entity's type (attribute names, by-name binding).
  virtual EntityType const& zolEntityType() const = 0;
  virtual char const* zolTypeName() const = 0;
  bool hasNotifiees() const { return liveNotifiees_ != 0; }

  // Writing with no interested reactor costs no more than the container write: the masks say who
  // listens to what.
  uint64_t zolDeferredMask() const { return deferredMask_; }
  uint64_t zolImmediateMask() const { return immediateMask_; }

  // Delivers a notification of attr (key null for scalars) to the reactors registered now.
  void zolDeliver(uint32_t attr, void const* key) const;

 protected:
  explicit Entity(Name name) : name_(std::move(name)) {}
  ~Entity() override;

  // Generated: calls the handler of attr on one reactor of this entity's type.
  virtual void zolDispatch(NotifieeBase& r, uint32_t attr, void const* key,
                           bool immediate) const = 0;

 private:
  void dispatchInGate(NotifieeBase& r, uint32_t attr, void const* key, bool immediate,
                      DeliveryGate*& current, bool& currentKnown) const;

 protected:
  template <class T>
  bool zolScalarWrite(ScalarSlot<T>& s, T const& v, uint32_t attr) {
    if (sameValue<T>(s.value, v)) return false;
    s.value = v;
    zolScalarChanged(s.pending, attr);
    return true;
  }
  void zolScalarChanged(PendingRecord*& pending, uint32_t attr) {
    uint64_t const bit = uint64_t{1} << attr;
    if (deferredMask_ & bit) zolQueueScalar(pending, attr);
    if (immediateMask_ & bit) zolImmediate(attr, nullptr);
  }

  template <class Slot, class K, class V>
  bool zolEntryWrite(Slot& s, K const& k, V const& v, uint32_t attr) {
    auto [it, inserted] = s.map.try_emplace(k, v);
    if (!inserted) {
      if (sameValue(it->second, v)) return false;
      it->second = v;
    }
    zolKeyChanged(s, k, attr, inserted);
    return true;
  }
  template <class Slot, class K>
  bool zolEntryDel(Slot& s, K const& k, uint32_t attr) {
    auto it = s.map.find(k);
    if (it == s.map.end()) return false;
    // The key may live in the erased slot; notify with a copy.
    typename Slot::key_type const key = it->first;
    s.map.erase(it);
    zolKeyChanged(s, key, attr);
    return true;
  }
  // One deletion (and notification) per key; ordered collections go in key order.
  template <class Slot>
  void zolEntryDelAll(Slot& s, uint32_t attr) {
    std::vector<typename Slot::key_type> keys;
    keys.reserve(s.map.size());
    for (auto const& e : s.map) keys.push_back(e.first);
    for (auto const& k : keys) zolEntryDel(s, k, attr);
  }
  // newKey: the change created the key.
  template <class Slot, class K>
  void zolKeyChanged(Slot& s, K const& k, uint32_t attr, bool newKey = false) {
    uint64_t const bit = uint64_t{1} << attr;
    if (deferredMask_ & bit) {
      using Key = typename Slot::key_type;
      if (!s.pending) s.pending = std::make_unique<PendingKeys<Key>>(this);
      s.pending->add(k, attr, newKey);
    }
    if (immediateMask_ & bit) zolImmediate(attr, &k);
  }

 private:
  friend class NotifieeBase;
  void zolQueueScalar(PendingRecord*& pending, uint32_t attr);
  void zolImmediate(uint32_t attr, void const* key);
  void zolNotifieeAdd(NotifieeBase* r);
  void zolNotifieeDel(NotifieeBase* r);
  void zolMasksUpdate();

  Name name_;
  mutable std::vector<NotifieeBase*> notifiees_;
  mutable uint32_t iterating_ = 0;
  uint32_t liveNotifiees_ = 0;
  uint64_t deferredMask_ = 0;
  uint64_t immediateMask_ = 0;
};

template <class K>
void KeyedRecord<K>::deliver() {
  Ptr<Entity const> keep(owner->entity());
  K const k = key;  // the record may be reused by the handlers
  uint32_t const a = attr;
  owner->release(this);
  keep->zolDeliver(a, &k);
}

template <class K>
void KeyedRecord<K>::drop() {
  owner->release(this);
}

// Creates an entity (or any counted object) and hands back its first reference.
// A gate owner (a feature SM) built here owns what it makes while it is constructed.
template <class T, class... Args>
Ptr<T> make(Args&&... args) {
  if constexpr (std::is_base_of_v<GateOwner, T>) {
    DeliveryGate::Scope const scope{DeliveryGate::Scope::Claimable{}};
    return Ptr<T>(new T(std::forward<Args>(args)...));
  } else {
    return Ptr<T>(new T(std::forward<Args>(args)...));
  }
}

}  // namespace Zol
