// The activity loop: one per agent thread. It delivers deferred notifications in passes, runs
// due timers, runs work posted from other threads and handles ready file descriptors, and owns
// the only reading of time (real monotonic or simulated).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

#include "Zol/Ptr.h"
#include "Zol/Types.h"

namespace Zol {

class Clock;

// Switches delivery off and on for everything one owner (a feature SM) reacts with. Reactors and
// timers belong to the gate that is current when they are made: a reactor of a closed gate
// receives nothing (nothing is queued for it), and a timer of a closed gate that comes due waits
// and fires in the first pass after the gate reopens. Whatever runs on behalf of a gate (delivery
// to one of its reactors, one of its timers) runs with that gate current, so that what it makes
// belongs to the same owner.
class DeliveryGate : public PtrInterface {
 public:
  DeliveryGate() = default;
  ~DeliveryGate() override;
  bool open() const { return open_; }
  void openIs(bool open);

  // The gate that reactors and timers made now belong to; null when none.
  static DeliveryGate* current();

  // Makes gate (which may be null) current for the scope's lifetime.
  class Scope {
   public:
    explicit Scope(DeliveryGate* gate);
    // Opened by make() around the construction of a GateOwner: the first gate owner constructed
    // in it makes its gate current for the rest of that construction.
    struct Claimable {};
    explicit Scope(Claimable);
    ~Scope();
    Scope(Scope const&) = delete;
    Scope& operator=(Scope const&) = delete;

   private:
    // A handler may drop the owner it runs for, and with it the last other reference.
    Ptr<DeliveryGate> keep_;
    DeliveryGate* savedGate_;
    bool savedClaimable_;
  };

 private:
  friend class Clock;
  friend class GateOwner;
  void hold(Clock* c);
  void unhold(Clock* c);

  bool open_ = true;
  std::vector<Clock*> held_;
};

// Base of objects whose reactors and timers are switched off and on together (the feature SMs).
// Built through Zol::make, it owns every reactor and timer made during the rest of its
// construction, and (through delivery) every one its handlers make.
class GateOwner {
 public:
  DeliveryGate& deliveryGate() const { return *gate_; }

 protected:
  GateOwner();
  ~GateOwner() = default;
  GateOwner(GateOwner const&) = delete;
  GateOwner& operator=(GateOwner const&) = delete;

 private:
  Ptr<DeliveryGate> gate_;
};

// Intrusive links of a queued notification; the list is circular around a sentinel, so a record
// can leave whichever list (queue or pass batch) holds it.
struct PendingLink {
  PendingLink* next = this;
  PendingLink* prev = this;
  bool linked() const { return next != this; }
  void unlink() {
    prev->next = next;
    next->prev = prev;
    next = prev = this;
  }
  void pushBack(PendingLink* n) {
    n->prev = prev;
    n->next = this;
    prev->next = n;
    prev = n;
  }
};

// One queued deferred notification of one (entity, attribute, key). It is owned by the slot that
// coalesces it; delivering it removes it from that slot first, so a handler that writes the same
// attribute again queues a new one.
class PendingRecord : public PendingLink {
 public:
  PendingRecord() = default;
  PendingRecord(PendingRecord const&) = delete;
  PendingRecord& operator=(PendingRecord const&) = delete;
  virtual ~PendingRecord() { unlink(); }
  // Releases the record and then delivers it.
  virtual void deliver() = 0;
  // Releases the record unsent; its slot queues the next change afresh.
  virtual void drop() = 0;
};

class ActivityLoop {
 public:
  enum class TimeMode { real, simulated };

  // The new loop becomes the thread's current loop until it is destroyed.
  explicit ActivityLoop(TimeMode mode = TimeMode::real, Seconds simulatedStart = 0);
  ~ActivityLoop();
  ActivityLoop(ActivityLoop const&) = delete;
  ActivityLoop& operator=(ActivityLoop const&) = delete;

  // The thread's current loop: the one its owner constructed last; asking without one asserts.
  static ActivityLoop& current();

  TimeMode timeMode() const { return mode_; }
  // The one place time is read.
  Seconds now() const;
  // Simulated time only: moves to t, firing every timer on the way in deadline order and running
  // until idle at each deadline.
  void advanceTo(Seconds t);
  void advanceBy(Seconds dt) { advanceTo(now_ + dt); }
  // Simulated time only: every read of now() first moves time forward by dt (0 turns it off), so
  // that time-sliced work sees its budget run out.
  void autoAdvanceIs(Seconds dt) { autoAdvance_ = dt; }

  // One pass: deliver the notifications queued before the pass, then run the timers due.
  // Returns whether anything ran.
  bool runOnePass();
  // Passes until no notification is queued and no timer is due.
  void runUntilIdle();
  // Real time: runs passes and waits for timers and watched file descriptors until stop() or
  // until nothing is left to wait for (no timer armed, no descriptor watched).
  void run();
  void stop() { stopped_ = true; }

  // The outside world. The library makes no thread; a chip driver's threads hand their events
  // (completions, learn events) to the loop with post(), the one call that is safe from any thread:
  // the work runs on the loop's thread, in posting order, in the loop's next pass (in simulated
  // time too, so a scenario stays deterministic).
  void post(std::function<void()> work);
  // A file descriptor the loop waits on (epoll events, EPOLLIN by default): handler(events) runs
  // on the loop's thread in a pass after it is ready. Destroying the watch stops it, also from
  // inside a handler. In simulated time ready descriptors are looked at in each pass, never
  // waited for.
  class FdWatch {
   public:
    ~FdWatch();
    FdWatch(FdWatch const&) = delete;
    FdWatch& operator=(FdWatch const&) = delete;
    int fd() const { return fd_; }

   private:
    friend class ActivityLoop;
    FdWatch(ActivityLoop& loop, int fd, uint64_t id) : loop_(loop), fd_(fd), id_(id) {}
    ActivityLoop& loop_;
    int fd_;
    uint64_t id_;
  };
  using FdHandler = std::function<void(uint32_t events)>;
  [[nodiscard]] std::unique_ptr<FdWatch> watchFd(int fd, FdHandler handler,
                                                 uint32_t events = 0x001 /* EPOLLIN */);

  bool hasPendingNotifications() const { return queue_.linked() || batch_.linked(); }
  size_t armedTimers() const { return heap_.size(); }
  Seconds nextDeadline() const {
    return heap_.empty() ? std::numeric_limits<Seconds>::infinity() : heap_.front().deadline;
  }

  // Used by entities and clocks.
  void enqueue(PendingRecord* r) { queue_.pushBack(r); }
  void clockArm(Clock* c, Seconds deadline);
  void clockDisarm(Clock* c);

 private:
  struct HeapEntry {
    Seconds deadline;
    uint64_t seq;
    Clock* clock;
    bool before(HeapEntry const& o) const {
      return deadline < o.deadline || (deadline == o.deadline && seq < o.seq);
    }
  };
  void heapSwap(size_t a, size_t b);
  void heapUp(size_t i);
  void heapDown(size_t i);
  void heapRemove(size_t i);
  bool runDueTimers();
  bool deliverPass();
  // Posted work and ready descriptors; waits up to timeout seconds for them (0: only looks).
  bool runOutside(Seconds timeout);

  struct Outside;
  std::unique_ptr<Outside> outside_;

  TimeMode mode_;
  mutable Seconds now_;
  Seconds autoAdvance_ = 0;
  bool stopped_ = false;
  PendingLink queue_;
  PendingLink batch_;  // the pass being delivered
  std::vector<HeapEntry> heap_;
  uint64_t armSeq_ = 0;
  ActivityLoop* previous_;
};

// A one-shot timer. Arming it (timeMinIs) replaces any earlier deadline; equal deadlines fire in
// arming order, and one armed for now while timers run fires in the next pass, never in a spin.
class Clock {
 public:
  static constexpr Seconds never = std::numeric_limits<Seconds>::infinity();
  using Handler = std::function<void()>;

  // The loop is named, never picked up: a clock on the wrong loop would run on the wrong time.
  explicit Clock(ActivityLoop& loop, Handler handler = {})
      : loop_(loop), handler_(std::move(handler)), gate_(DeliveryGate::current()) {}
  ~Clock() { timeMinIs(never); }
  Clock(Clock const&) = delete;
  Clock& operator=(Clock const&) = delete;

  void handlerIs(Handler h) { handler_ = std::move(h); }
  Seconds timeMin() const { return timeMin_; }
  // Arms the timer for t; never disarms it.
  void timeMinIs(Seconds t) {
    // Arming anew supersedes a firing held by a closed gate.
    if (held_) gate_->unhold(this);
    if (heapIndex_ != npos) loop_.clockDisarm(this);
    timeMin_ = t;
    if (t != never) loop_.clockArm(this, t);
  }
  bool armed() const { return heapIndex_ != npos; }
  ActivityLoop& loop() const { return loop_; }

 private:
  friend class ActivityLoop;
  friend class DeliveryGate;
  static constexpr size_t npos = static_cast<size_t>(-1);
  void fire();
  ActivityLoop& loop_;
  Handler handler_;
  Ptr<DeliveryGate> gate_;
  Seconds timeMin_ = never;
  size_t heapIndex_ = npos;
  bool held_ = false;
};

}  // namespace Zol
