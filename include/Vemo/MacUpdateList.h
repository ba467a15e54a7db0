// The MAC SM's pending hardware writes: one per MAC and VLAN, drained in the order pairs were
// first queued. A write queued again for a pair replaces the one waiting and keeps its place.
//
// The writes sit in arrival order in a deque; the hash index holds only each pair's place in it.
// A burst of hundreds of thousands of remote MACs thus grows an index of small slots rather than
// rehashing the writes themselves, and the drain reads the writes in order without a lookup.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstdint>
#include <deque>

#include "ZolGen/Bridging.h"
#include "ZolGen/VemoMac.h"

namespace Vemo {

class MacUpdateList {
 public:
  struct Queued {
    Bridging::MacVlanPair key;
    ModifyMacEntry update;
    Zol::Seconds since = 0;  // when the pair was first queued
    bool live = true;        // false: taken out of the list before its turn
  };

  bool empty() const { return index_.empty(); }
  size_t size() const { return index_.size(); }
  void reserve(size_t n) { index_.reserve(n); }
  void prefetch(Bridging::MacVlanPair const& key) const { index_.prefetch(key); }
  bool contains(Bridging::MacVlanPair const& key) const {
    return !index_.empty() && index_.contains(key);
  }

  Queued const* find(Bridging::MacVlanPair const& key) const {
    if (index_.empty()) return nullptr;
    auto const it = index_.find(key);
    return it == index_.end() ? nullptr : &at(it->second);
  }

  // Queues the pair's write; true when the pair had none waiting.
  bool put(Bridging::MacVlanPair const& key, ModifyMacEntry const& update, Zol::Seconds now) {
    auto const [it, inserted] = index_.try_emplace(key, base_ + order_.size());
    if (inserted) {
      order_.push_back(Queued{key, update, now, true});
    } else {
      at(it->second).update = update;
    }
    return inserted;
  }

  void erase(Bridging::MacVlanPair const& key) {
    if (index_.empty()) return;
    auto const it = index_.find(key);
    if (it == index_.end()) return;
    at(it->second).live = false;
    index_.erase(it);
    ++dead_;
    if (dead_ > kCompactAbove && dead_ > index_.size()) compact();
  }

  // The earliest pending write, or null when none is; places left by erased writes are dropped
  // on the way.
  Queued const* front() {
    while (!order_.empty() && !order_.front().live) {
      order_.pop_front();
      ++base_;
      --dead_;
    }
    return order_.empty() ? nullptr : &order_.front();
  }

  // Takes out the write front() just gave; the list must not have changed in between.
  void popFront() {
    index_.erase(order_.front().key);
    order_.pop_front();
    ++base_;
  }

  // The pair queued n places after the earliest, live or not; for prefetching its tables.
  Bridging::MacVlanPair const* ahead(size_t n) const {
    return n < order_.size() ? &order_[n].key : nullptr;
  }

  template <typename F>
  void forEach(F&& f) const {
    for (Queued const& q : order_) {
      if (q.live) f(q);
    }
  }

 private:
  // Erased places are kept until the drain reaches them; while the drain cannot go on (a busy
  // chip) a churning pair would otherwise leave one behind per change.
  static constexpr size_t kCompactAbove = 4096;

  Queued& at(uint64_t place) { return order_[place - base_]; }
  Queued const& at(uint64_t place) const { return order_[place - base_]; }

  void compact() {
    std::deque<Queued> live;
    for (Queued& q : order_) {
      if (!q.live) continue;
      index_[q.key] = base_ + live.size();
      live.push_back(std::move(q));
    }
    order_ = std::move(live);
    dead_ = 0;
  }

  std::deque<Queued> order_;
  uint64_t base_ = 0;  // the place of order_.front()
  size_t dead_ = 0;    // erased writes still in order_
  absl::flat_hash_map<Bridging::MacVlanPair, uint64_t> index_;
};

}  // namespace Vemo
