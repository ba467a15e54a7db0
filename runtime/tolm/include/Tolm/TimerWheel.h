// A source of many cheap one-shot timers driven by a single Zol::Clock of the activity loop.
//
// Timers behave as Zol::Clock does: armed with timeMinIs(t) (absolute seconds; Clock::never
// disarms), never fired early, equal deadlines fire in arming order, re-arming replaces the earlier
// deadline, destroying a timer disarms it, and a timer armed for now from a wheel timer's handler
// waits for a later pass. Handlers may arm, disarm, create and destroy any timer of the wheel,
// their own included (a handler that destroys its own timer must not touch its captures after).
//
// Layout: a hierarchical wheel over ticks of `granularity` seconds. Nine levels of 64 slots
// cover 2^54 ticks (deadlines past 2^52 ticks share the last one, still in exact order); a timer
// sits at the level of the highest 6-bit digit in which its tick differs from the wheel's current
// tick, so every timer of a lower level is due before every timer of a higher one, and within a
// level, slot order is deadline order. Arming and disarming a future timer is O(1) (a list link and
// an occupancy bit); a timer moves down at most once per level as time reaches its slot. Timers
// whose tick has been reached live in a small binary heap ordered by (deadline, arming order),
// which gives exact deadlines and exact ordering inside a slot.
//
// The one Zol::Clock is armed for the heap's first deadline when the heap holds anything, else for
// the start of the earliest occupied slot (found through the occupancy bits, so long idle
// stretches and large simulated jumps cost nothing per empty slot). A wakeup at a slot start moves
// that slot's timers into the heap and re-arms the clock for the exact first deadline.
//
// Against other Zol::Clocks of the loop, wheel timers keep deadline order: when the wheel is late
// it stops before a deadline later than the loop's next other clock and resumes in the next pass.
// Two things differ from a plain Zol::Clock: the order between a wheel timer and a plain clock with
// the same deadline is not fixed, and a wheel timer armed from a plain clock's handler may fire
// in that same pass when the wheel was already due in it (it still cannot spin).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "Zol/Activity.h"
#include "Zol/Types.h"

namespace Tolm {

class TimerWheel {
 public:
  using Handler = std::function<void()>;
  static constexpr Zol::Seconds never = Zol::Clock::never;
  static constexpr Zol::Seconds defaultGranularity = 0.01;

  class Timer;

  // The granularity trades wakeups (one per occupied slot) against the timers sorted exactly at
  // once; keep it well above the resolution of the times in use. The wheel must be destroyed
  // outside its timers' handlers; timers may outlive it only to be destroyed.
  explicit TimerWheel(Zol::ActivityLoop& loop, Zol::Seconds granularity = defaultGranularity);
  ~TimerWheel();
  TimerWheel(TimerWheel const&) = delete;
  TimerWheel& operator=(TimerWheel const&) = delete;

  Zol::Seconds granularity() const { return granularity_; }
  Zol::ActivityLoop& loop() const { return loop_; }
  size_t armedTimers() const { return armed_; }

 private:
  // Links of a timer in a slot's circular list; a slot's head is the sentinel.
  struct Link {
    Link* next = this;
    Link* prev = this;
    bool linked() const { return next != this; }
    void unlink() {
      prev->next = next;
      next->prev = prev;
      next = prev = this;
    }
    void pushBack(Link* n) {
      n->prev = prev;
      n->next = this;
      prev->next = n;
      prev = n;
    }
  };

  static constexpr int slotBits = 6;
  static constexpr int slotsPerLevel = 1 << slotBits;
  static constexpr int levels = 9;
  static constexpr uint64_t maxTick = uint64_t{1} << 52;

  void arm(Timer* t, Zol::Seconds deadline);
  void disarm(Timer* t);
  // Puts an armed timer in the heap or its slot, or takes it out.
  void place(Timer* t);
  void unplace(Timer* t);
  void clearSlotBit(int level, int slot);
  uint64_t tickOf(Zol::Seconds deadline) const;
  Zol::Seconds slotStart(uint64_t tick) const { return origin_ + double(tick) * granularity_; }
  // Start tick of the earliest occupied slot; the wheel must not be empty.
  uint64_t earliestSlot(int& level, int& slot) const;
  void advance(Zol::Seconds now);
  void onClock();
  void clockUpdate();

  // The heap orders by deadline, then arming order.
  static bool before(Timer const* a, Timer const* b);
  void heapPush(Timer* t);
  void heapRemove(size_t i);
  void heapUp(size_t i);
  void heapDown(size_t i);
  void heapSet(size_t i, Timer* t);

  Zol::ActivityLoop& loop_;
  Zol::Seconds granularity_;
  Zol::Seconds origin_;
  uint64_t current_;  // ticks up to this one are in the heap
  uint64_t armSeq_ = 0;
  size_t armed_ = 0;
  bool firing_ = false;
  uint16_t levelMask_ = 0;
  std::array<uint64_t, levels> slotMask_{};
  std::array<std::array<Link, slotsPerLevel>, levels> slots_;
  std::vector<Timer*> heap_;
  Zol::Clock clock_;
};

// A one-shot timer of a wheel; the wheel's counterpart of Zol::Clock.
class TimerWheel::Timer : private TimerWheel::Link {
 public:
  explicit Timer(TimerWheel& wheel, Handler handler = {})
      : wheel_(&wheel), handler_(std::move(handler)) {}
  ~Timer() {
    if (armed()) wheel_->disarm(this);
  }
  Timer(Timer const&) = delete;
  Timer& operator=(Timer const&) = delete;

  void handlerIs(Handler h) { handler_ = std::move(h); }
  Zol::Seconds timeMin() const { return timeMin_; }
  // Arms the timer for t, replacing any earlier deadline; never disarms it.
  void timeMinIs(Zol::Seconds t) {
    if (t == never) {
      if (armed()) wheel_->disarm(this);
      timeMin_ = never;
    } else {
      wheel_->arm(this, t);
    }
  }
  bool armed() const { return where_ != Where::idle; }
  TimerWheel& wheel() const { return *wheel_; }

 private:
  friend class TimerWheel;
  enum class Where : uint8_t { idle, slot, heap };

  TimerWheel* wheel_;
  Handler handler_;
  Zol::Seconds timeMin_ = never;
  uint64_t seq_ = 0;
  uint64_t tick_ = 0;
  size_t heapIndex_ = 0;
  uint16_t slot_ = 0;  // level * slotsPerLevel + slot while in a slot
  Where where_ = Where::idle;
};

}  // namespace Tolm
