// The loop and the outside world: work posted from another thread, and watched descriptors.
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "Zol/Activity.h"

namespace {

using Zol::ActivityLoop;

struct Pipe {
  Pipe() { EXPECT_EQ(pipe(fd), 0); }
  ~Pipe() {
    close(fd[0]);
    close(fd[1]);
  }
  void write1() { EXPECT_EQ(write(fd[1], "x", 1), 1); }
  void read1() {
    char c;
    EXPECT_EQ(read(fd[0], &c, 1), 1);
  }
  int fd[2];
};

// A driver thread posts its events and then signals the pipe: the loop has run every event, in
// posting order, before it sees the signal, since both reach it through the same pass.
TEST(OutsideWorld, PostedWorkRunsOnTheLoopThreadInPostingOrder) {
  ActivityLoop loop;
  constexpr int events = 20000;
  std::vector<int> seen;
  std::thread::id const loopThread = std::this_thread::get_id();
  bool offThread = false;
  Pipe signal;
  size_t seenAtSignal = 0;
  auto const watch = loop.watchFd(signal.fd[0], [&](uint32_t) {
    signal.read1();
    seenAtSignal = seen.size();
    loop.stop();
  });
  std::thread driver([&] {
    for (int i = 0; i < events; ++i) {
      loop.post([&, i] {
        offThread = offThread || std::this_thread::get_id() != loopThread;
        seen.push_back(i);
      });
    }
    signal.write1();
  });
  loop.run();
  driver.join();
  EXPECT_FALSE(offThread);
  EXPECT_EQ(seenAtSignal, size_t(events));
  ASSERT_EQ(seen.size(), size_t(events));
  for (int i = 0; i < events; ++i) ASSERT_EQ(seen[i], i);
}

// In simulated time nothing waits: posted work and ready descriptors are taken in the next pass,
// work posted by work runs in the pass after, and a destroyed watch hears nothing more.
TEST(OutsideWorld, SimulatedPassesTakeWhatIsReadyAndWatchesStopWhenDestroyed) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated);
  std::vector<std::string> log;
  loop.post([&] {
    log.push_back("first");
    loop.post([&] { log.push_back("posted by work"); });
  });
  loop.post([&] { log.push_back("second"); });
  EXPECT_TRUE(loop.runOnePass());
  EXPECT_EQ(log, (std::vector<std::string>{"first", "second"}));
  EXPECT_TRUE(loop.runOnePass());
  EXPECT_EQ(log.back(), "posted by work");
  EXPECT_FALSE(loop.runOnePass());

  Pipe a, b;
  std::unique_ptr<ActivityLoop::FdWatch> watchA, watchB;
  int callsA = 0, callsB = 0;
  watchA = loop.watchFd(a.fd[0], [&](uint32_t) {
    ++callsA;
    a.read1();
    watchB.reset();  // a handler may end another watch that is ready in the same pass
  });
  watchB = loop.watchFd(b.fd[0], [&](uint32_t) { ++callsB; });
  a.write1();
  b.write1();
  loop.runUntilIdle();
  EXPECT_EQ(callsA, 1);
  EXPECT_LE(callsB, 1);  // epoll may report b before a
  int const bBefore = callsB;
  loop.runUntilIdle();
  EXPECT_EQ(callsB, bBefore) << "b is still readable but no longer watched";
  watchA.reset();
  a.write1();
  EXPECT_FALSE(loop.runOnePass());
  EXPECT_EQ(callsA, 1);
}

}  // namespace
