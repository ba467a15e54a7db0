#include "Tolm/TimerWheel.h"

#include <bit>
#include <cmath>

#include "Zol/Assert.h"

namespace Tolm {

using Zol::Seconds;

TimerWheel::TimerWheel(Zol::ActivityLoop& loop, Seconds granularity)
    : loop_(loop),
      granularity_(granularity),
      origin_(loop.now()),
      current_(0),
      clock_(loop, [this] { onClock(); }) {
  ZOL_ASSERT(granularity > 0 && std::isfinite(granularity));
}

TimerWheel::~TimerWheel() {
  // Timers that outlive the wheel are left disarmed so that destroying them does not reach it.
  for (Timer* t : heap_) {
    t->where_ = Timer::Where::idle;
    t->timeMin_ = never;
  }
  for (auto& level : slots_) {
    for (Link& head : level) {
      while (head.linked()) {
        auto* t = static_cast<Timer*>(head.next);
        t->unlink();
        t->where_ = Timer::Where::idle;
        t->timeMin_ = never;
      }
    }
  }
}

uint64_t TimerWheel::tickOf(Seconds deadline) const {
  if (!(deadline > origin_)) return 0;
  double const x = (deadline - origin_) / granularity_;
  uint64_t tick = x >= static_cast<double>(maxTick) ? maxTick : static_cast<uint64_t>(x);
  // Rounding may put the computed slot start just after the deadline; that would fire late and,
  // worse, break the rule that a slot never starts after a deadline it holds.
  while (tick > 0 && slotStart(tick) > deadline) --tick;
  return tick;
}

uint64_t TimerWheel::earliestSlot(int& level, int& slot) const {
  level = std::countr_zero(levelMask_);
  slot = std::countr_zero(slotMask_[level]);
  int const above = slotBits * (level + 1);
  return (current_ >> above << above) | (uint64_t(slot) << (slotBits * level));
}

void TimerWheel::place(Timer* t) {
  if (t->tick_ <= current_) {
    heapPush(t);
    t->where_ = Timer::Where::heap;
    return;
  }
  // The level is that of the highest digit where the tick differs from the current one; the
  // timer's digit there is greater, so no slot of a level ever holds a wrapped-around timer.
  int const level = static_cast<int>(std::bit_width(t->tick_ ^ current_) - 1) / slotBits;
  int const slot = static_cast<int>(t->tick_ >> (slotBits * level)) & (slotsPerLevel - 1);
  slots_[level][slot].pushBack(t);
  slotMask_[level] |= uint64_t{1} << slot;
  levelMask_ |= static_cast<uint16_t>(1u << level);
  t->slot_ = static_cast<uint16_t>(level * slotsPerLevel + slot);
  t->where_ = Timer::Where::slot;
}

void TimerWheel::arm(Timer* t, Seconds deadline) {
  ZOL_ASSERT(!std::isnan(deadline));
  if (t->armed()) {
    unplace(t);
  } else {
    ++armed_;
  }
  t->timeMin_ = deadline;
  t->seq_ = armSeq_++;
  t->tick_ = tickOf(deadline);
  place(t);
  clockUpdate();
}

void TimerWheel::disarm(Timer* t) {
  unplace(t);
  t->timeMin_ = never;
  --armed_;
  clockUpdate();
}

void TimerWheel::unplace(Timer* t) {
  if (t->where_ == Timer::Where::heap) {
    heapRemove(t->heapIndex_);
  } else {
    t->unlink();
    int const level = t->slot_ / slotsPerLevel;
    int const slot = t->slot_ % slotsPerLevel;
    if (!slots_[level][slot].linked()) clearSlotBit(level, slot);
  }
  t->where_ = Timer::Where::idle;
}

void TimerWheel::clearSlotBit(int level, int slot) {
  slotMask_[level] &= ~(uint64_t{1} << slot);
  if (!slotMask_[level]) levelMask_ &= static_cast<uint16_t>(~(1u << level));
}

void TimerWheel::clockUpdate() {
  // While firing, the clock is set once at the end instead of at every change.
  if (firing_) return;
  Seconds want = never;
  if (!heap_.empty()) {
    want = heap_[0]->timeMin_;
  } else if (levelMask_) {
    int level, slot;
    want = slotStart(earliestSlot(level, slot));
  }
  // Re-arming for the same time would only move the clock behind others of equal deadline.
  if (want != clock_.timeMin()) clock_.timeMinIs(want);
}

void TimerWheel::advance(Seconds now) {
  // Move down every slot that has started; a slot lower in the hierarchy that gets filled by this
  // is found by the next round.
  while (levelMask_) {
    int level, slot;
    uint64_t const start = earliestSlot(level, slot);
    if (slotStart(start) > now) break;
    current_ = start;
    Link& head = slots_[level][slot];
    Link moved;
    moved.next = head.next;
    moved.prev = head.prev;
    moved.next->prev = &moved;
    moved.prev->next = &moved;
    head.next = head.prev = &head;
    clearSlotBit(level, slot);
    while (moved.linked()) {
      auto* t = static_cast<Timer*>(moved.next);
      t->unlink();
      place(t);
    }
  }
  // Every slot left starts after now, hence after now's tick: moving the current tick up to it
  // keeps each remaining timer at its level and slot, and sends new timers due by now straight
  // into the heap.
  uint64_t const reached = tickOf(now);
  if (reached > current_) current_ = reached;
}

void TimerWheel::onClock() {
  Seconds const now = loop_.now();
  advance(now);
  // Timers armed from the handlers below wait for a later pass, as with Zol::Clock.
  uint64_t const limit = armSeq_;
  firing_ = true;
  struct Rearm {
    TimerWheel* wheel;
    ~Rearm() {
      wheel->firing_ = false;
      wheel->clockUpdate();
    }
  } const rearm{this};
  while (!heap_.empty()) {
    Timer* t = heap_[0];
    if (t->timeMin_ > now || t->seq_ >= limit) break;
    // A late wheel gives way to the loop's other clocks that are due before its next timer.
    if (t->timeMin_ > loop_.nextDeadline()) break;
    heapRemove(0);
    t->where_ = Timer::Where::idle;
    t->timeMin_ = never;
    --armed_;
    // The handler may destroy t: nothing touches it after the call.
    if (t->handler_) t->handler_();
  }
}

bool TimerWheel::before(Timer const* a, Timer const* b) {
  return a->timeMin_ < b->timeMin_ || (a->timeMin_ == b->timeMin_ && a->seq_ < b->seq_);
}

void TimerWheel::heapSet(size_t i, Timer* t) {
  heap_[i] = t;
  t->heapIndex_ = i;
}

void TimerWheel::heapPush(Timer* t) {
  heap_.push_back(t);
  t->heapIndex_ = heap_.size() - 1;
  heapUp(heap_.size() - 1);
}

void TimerWheel::heapUp(size_t i) {
  Timer* const t = heap_[i];
  while (i > 0) {
    size_t const parent = (i - 1) / 2;
    Timer* const p = heap_[parent];
    if (!before(t, p)) break;
    heapSet(i, p);
    i = parent;
  }
  heapSet(i, t);
}

void TimerWheel::heapDown(size_t i) {
  Timer* const t = heap_[i];
  size_t const n = heap_.size();
  for (;;) {
    size_t const l = 2 * i + 1;
    if (l >= n) break;
    size_t best = l;
    Timer* b = heap_[l];
    if (l + 1 < n) {
      Timer* const r = heap_[l + 1];
      if (before(r, b)) {
        best = l + 1;
        b = r;
      }
    }
    if (!before(b, t)) break;
    heapSet(i, b);
    i = best;
  }
  heapSet(i, t);
}

void TimerWheel::heapRemove(size_t i) {
  Timer* const last = heap_.back();
  heap_.pop_back();
  if (i == heap_.size()) return;
  heap_[i] = last;
  last->heapIndex_ = i;
  heapUp(i);
  heapDown(last->heapIndex_);
}

}  // namespace Tolm
