#include "Zol/Activity.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <absl/container/flat_hash_map.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>

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

// Posted work and watched descriptors. One epoll set holds the watched descriptors and an eventfd
// that post() writes, so a loop waiting in epoll_wait wakes for either.
struct ActivityLoop::Outside {
  static constexpr uint64_t wakeId = 0;

  Outside()
      : epollFd(epoll_create1(EPOLL_CLOEXEC)), wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    ZOL_ASSERT_MSG(epollFd >= 0 && wakeFd >= 0, "cannot create the loop's epoll set");
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = wakeId;
    epoll_ctl(epollFd, EPOLL_CTL_ADD, wakeFd, &ev);
  }
  ~Outside() {
    close(wakeFd);
    close(epollFd);
  }

  int const epollFd;
  int const wakeFd;
  // Posting threads write these under the mutex; the flag lets a pass skip the lock.
  std::mutex mutex;
  std::vector<std::function<void()>> posted;
  std::atomic<bool> anyPosted{false};
  // Watches by id: ids are never reused, so an event for a watch destroyed meanwhile finds nothing.
  absl::flat_hash_map<uint64_t, FdHandler> watches;
  uint64_t nextId = wakeId + 1;
};

ActivityLoop::ActivityLoop(TimeMode mode, Seconds simulatedStart)
    : outside_(std::make_unique<Outside>()),
      mode_(mode),
      now_(mode == TimeMode::simulated ? simulatedStart : 0),
      previous_(currentLoop) {
  currentLoop = this;
}

void ActivityLoop::post(std::function<void()> work) {
  Outside& o = *outside_;
  bool wake;
  {
    std::lock_guard lock(o.mutex);
    wake = o.posted.empty();
    o.posted.push_back(std::move(work));
    o.anyPosted.store(true, std::memory_order_release);
  }
  // One wake-up per batch: later posts find the batch not yet taken.
  if (wake) {
    uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(o.wakeFd, &one, sizeof one);
  }
}

std::unique_ptr<ActivityLoop::FdWatch> ActivityLoop::watchFd(int fd, FdHandler handler,
                                                             uint32_t events) {
  Outside& o = *outside_;
  uint64_t const id = o.nextId++;
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = id;
  ZOL_ASSERT_MSG(epoll_ctl(o.epollFd, EPOLL_CTL_ADD, fd, &ev) == 0,
                 "cannot watch the file descriptor");
  o.watches.emplace(id, std::move(handler));
  return std::unique_ptr<FdWatch>(new FdWatch(*this, fd, id));
}

ActivityLoop::FdWatch::~FdWatch() {
  Outside& o = *loop_.outside_;
  epoll_ctl(o.epollFd, EPOLL_CTL_DEL, fd_, nullptr);
  o.watches.erase(id_);
}

bool ActivityLoop::runOutside(Seconds timeout) {
  Outside& o = *outside_;
  epoll_event ready[64];
  int n = 0;
  if (timeout > 0 || !o.watches.empty()) {
    int const ms = timeout <= 0 ? 0
                   : timeout == std::numeric_limits<Seconds>::infinity()
                       ? -1
                       : int(std::ceil(timeout * 1e3));
    n = std::max(0, epoll_wait(o.epollFd, ready, 64, ms));
  }
  bool ran = false;
  // Posted work first: what a thread posted before a descriptor it then signalled became ready
  // runs before that descriptor's handler.
  if (o.anyPosted.load(std::memory_order_acquire)) {
    std::vector<std::function<void()>> batch;
    {
      std::lock_guard lock(o.mutex);
      batch.swap(o.posted);
      o.anyPosted.store(false, std::memory_order_relaxed);
    }
    // What this work posts runs in the next pass.
    for (auto& work : batch) work();
    ran = !batch.empty();
  }
  for (int i = 0; i < n; ++i) {
    if (ready[i].data.u64 == Outside::wakeId) {
      // Drained whenever seen, or a wake-up whose work was already taken keeps epoll ready.
      uint64_t count;
      [[maybe_unused]] ssize_t r = read(o.wakeFd, &count, sizeof count);
      continue;
    }
    // A handler may destroy this watch or another one: look each up afresh.
    auto const it = o.watches.find(ready[i].data.u64);
    if (it == o.watches.end()) continue;
    FdHandler const handler = it->second;
    handler(ready[i].events);
    ran = true;
  }
  return ran;
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
  bool const outside = runOutside(0);
  return delivered || fired || outside;
}

void ActivityLoop::runUntilIdle() {
  while (runOnePass()) {
  }
}

void ActivityLoop::run() {
  stopped_ = false;
  while (!stopped_) {
    if (runOnePass()) continue;
    bool const watching = !outside_->watches.empty();
    if (heap_.empty() && !watching) return;
    if (mode_ == TimeMode::simulated) {
      // Simulated time never waits on the outside world: descriptors are looked at in each pass.
      if (heap_.empty()) return;
      now_ = heap_.front().deadline;
      continue;
    }
    Seconds const wait =
        heap_.empty() ? std::numeric_limits<Seconds>::infinity() : heap_.front().deadline - now();
    if (wait > 0) runOutside(wait);
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
