#include "Zol/Activity.h"

#include <time.h>

#include <cmath>

#include "Zol/Assert.h"

namespace Zol {

namespace {

thread_local ActivityLoop* currentLoop = nullptr;
bool threadSafePtrsOn = false;

Seconds monotonicNow() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<Seconds>(ts.tv_sec) + static_cast<Seconds>(ts.tv_nsec) * 1e-9;
}

}  // namespace

void threadSafePtrsIs(bool on) { threadSafePtrsOn = on; }
bool threadSafePtrs() { return threadSafePtrsOn; }

ActivityLoop::ActivityLoop(TimeMode mode, Seconds simulatedStart)
    : mode_(mode), now_(mode == TimeMode::simulated ? simulatedStart : 0), previous_(currentLoop) {
  currentLoop = this;
}

ActivityLoop::~ActivityLoop() {
  // Whatever is still queued belongs to entities that outlive the loop; drop it unsent, and out
  // of the slots that coalesce it, or those would never queue a change again.
  while (queue_.linked()) static_cast<PendingRecord*>(queue_.next)->drop();
  while (batch_.linked()) static_cast<PendingRecord*>(batch_.next)->drop();
  for (HeapEntry& e : heap_) e.clock->heapIndex_ = Clock::npos;
  if (currentLoop == this) currentLoop = previous_;
}

ActivityLoop& ActivityLoop::current() {
  // Never made on demand: code that forgot its simulated loop would run on wall-clock time.
  ZOL_ASSERT_MSG(currentLoop, "no activity loop was set");
  return *currentLoop;
}

Seconds ActivityLoop::now() const {
  if (mode_ == TimeMode::real) return monotonicNow();
  now_ += autoAdvance_;
  return now_;
}

void ActivityLoop::advanceTo(Seconds t) {
  ZOL_ASSERT(mode_ == TimeMode::simulated);
  // What is pending now runs now: a handler that arms a timer for now() + d must not see the
  // time of the first deadline on the way.
  runUntilIdle();
  while (!heap_.empty() && heap_.front().deadline <= t) {
    if (heap_.front().deadline > now_) now_ = heap_.front().deadline;
    runUntilIdle();
  }
  if (t > now_) now_ = t;
  runUntilIdle();
}

bool ActivityLoop::deliverPass() {
  if (!queue_.linked()) return false;
  // Take the queue as it stands: what handlers write now is delivered in the next pass.
  batch_.next = queue_.next;
  batch_.prev = queue_.prev;
  batch_.next->prev = &batch_;
  batch_.prev->next = &batch_;
  queue_.next = queue_.prev = &queue_;
  while (batch_.linked()) static_cast<PendingRecord*>(batch_.next)->deliver();
  return true;
}

bool ActivityLoop::runDueTimers() {
  // Timers armed while these run wait for the next pass.
  uint64_t const seqLimit = armSeq_;
  bool ran = false;
  while (!heap_.empty()) {
    HeapEntry const top = heap_.front();
    if (top.deadline > now() || top.seq >= seqLimit) break;
    heapRemove(0);
    ran = true;
    top.clock->fire();
  }
  return ran;
}

bool ActivityLoop::runOnePass() {
  bool const delivered = deliverPass();
  bool const fired = runDueTimers();
  return delivered || fired;
}

void ActivityLoop::runUntilIdle() {
  while (runOnePass()) {
  }
}

void ActivityLoop::run() {
  stopped_ = false;
  while (!stopped_) {
    if (runOnePass()) continue;
    if (heap_.empty()) return;
    if (mode_ == TimeMode::simulated) {
      now_ = heap_.front().deadline;
      continue;
    }
    Seconds const wait = heap_.front().deadline - now();
    if (wait > 0) {
      timespec ts;
      ts.tv_sec = static_cast<time_t>(wait);
      ts.tv_nsec = static_cast<long>((wait - std::floor(wait)) * 1e9);
      nanosleep(&ts, nullptr);
    }
  }
}

void ActivityLoop::clockArm(Clock* c, Seconds deadline) {
  heap_.push_back(HeapEntry{deadline, armSeq_++, c});
  c->heapIndex_ = heap_.size() - 1;
  heapUp(heap_.size() - 1);
}

void ActivityLoop::clockDisarm(Clock* c) {
  if (c->heapIndex_ == Clock::npos) return;
  heapRemove(c->heapIndex_);
}

void ActivityLoop::heapSwap(size_t a, size_t b) {
  std::swap(heap_[a], heap_[b]);
  heap_[a].clock->heapIndex_ = a;
  heap_[b].clock->heapIndex_ = b;
}

void ActivityLoop::heapUp(size_t i) {
  while (i > 0) {
    size_t const parent = (i - 1) / 2;
    if (!heap_[i].before(heap_[parent])) break;
    heapSwap(i, parent);
    i = parent;
  }
}

void ActivityLoop::heapDown(size_t i) {
  for (;;) {
    size_t const l = 2 * i + 1, r = l + 1;
    size_t best = i;
    if (l < heap_.size() && heap_[l].before(heap_[best])) best = l;
    if (r < heap_.size() && heap_[r].before(heap_[best])) best = r;
    if (best == i) return;
    heapSwap(i, best);
    i = best;
  }
}

void ActivityLoop::heapRemove(size_t i) {
  heap_[i].clock->heapIndex_ = Clock::npos;
  size_t const last = heap_.size() - 1;
  if (i != last) {
    heap_[i] = heap_[last];
    heap_[i].clock->heapIndex_ = i;
  }
  heap_.pop_back();
  if (i < heap_.size()) {
    heapUp(i);
    heapDown(heap_[i].clock->heapIndex_);
  }
}

// ---------------------------------------------------------------------------------------------
// Delivery gates.

namespace {

struct GateContext {
  DeliveryGate* current = nullptr;
  // A construction by make() whose gate owner has not claimed it yet.
  bool claimable = false;
};
thread_local GateContext gateContext;

}  // namespace

DeliveryGate::~DeliveryGate() {
  // Held timers keep a counted reference to their gate, so none can be left here.
  ZOL_ASSERT(held_.empty());
}

DeliveryGate* DeliveryGate::current() { return gateContext.current; }

void DeliveryGate::openIs(bool open) {
  if (open == open_) return;
  open_ = open;
  if (!open) return;
  // Timers that came due meanwhile fire in the next pass, in the order they came due.
  std::vector<Clock*> const held = std::move(held_);
  held_.clear();
  for (Clock* c : held) {
    c->held_ = false;
    c->timeMinIs(c->loop().now());
  }
}

void DeliveryGate::hold(Clock* c) {
  c->held_ = true;
  held_.push_back(c);
}

void DeliveryGate::unhold(Clock* c) {
  c->held_ = false;
  std::erase(held_, c);
}

DeliveryGate::Scope::Scope(DeliveryGate* gate)
    : keep_(gate), savedGate_(gateContext.current), savedClaimable_(gateContext.claimable) {
  gateContext = GateContext{gate, false};
}

DeliveryGate::Scope::Scope(Claimable)
    : savedGate_(gateContext.current), savedClaimable_(gateContext.claimable) {
  gateContext.claimable = true;
}

DeliveryGate::Scope::~Scope() { gateContext = GateContext{savedGate_, savedClaimable_}; }

GateOwner::GateOwner() : gate_(new DeliveryGate) {
  // Built outside make(), the owner's gate governs nothing it makes: those belong to the gate
  // current around it.
  if (!gateContext.claimable) return;
  gateContext = GateContext{gate_.ptr(), false};
}

void Clock::fire() {
  timeMin_ = never;
  if (gate_ && !gate_->open()) {
    gate_->hold(this);
    return;
  }
  DeliveryGate::Scope const scope(gate_.ptr());
  if (handler_) handler_();
}

}  // namespace Zol
