// Test helpers for bounded waits: how long a wait took, judged against its
// bound, and a cancel flag set from another thread after a delay.
#ifndef ZEL5_TESTS_BOUNDS_H
#define ZEL5_TESTS_BOUNDS_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <stop_token>
#include <thread>

namespace zel5test {

using Clock = std::chrono::steady_clock;

inline long long msSince(Clock::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

// Far above any bound the tests use, far below "hangs".
constexpr long long lateLimitMs = 2000;
// How soon after its flag is set a wait must have ended: one 50 ms poll
// round plus room for a loaded machine.
constexpr long long cancelLimitMs = 200;

// A wait started at t0 with a bound of boundMs ended neither early nor late.
inline ::testing::AssertionResult endedAtBound(Clock::time_point t0, long long boundMs)
{
    const long long ms = msSince(t0);
    if (ms < boundMs)
        return ::testing::AssertionFailure() << "gave up after " << ms << " ms, before its bound of " << boundMs;
    if (ms >= lateLimitMs)
        return ::testing::AssertionFailure() << "waited " << ms << " ms for a bound of " << boundMs;
    return ::testing::AssertionSuccess() << ms << " ms";
}

// In a helper thread: true once ms have passed, false as soon as the
// thread is asked to stop.
inline bool delayPassed(std::stop_token stop, int ms)
{
    std::mutex m;
    std::unique_lock<std::mutex> lock(m);
    std::condition_variable_any cv;
    cv.wait_for(lock, stop, std::chrono::milliseconds(ms), [] { return false; });
    return !stop.stop_requested();
}

// Sets flag from its own thread afterMs from now. Destroying it first ends
// the thread without setting the flag.
class Canceller {
public:
    Canceller(std::atomic<bool>& flag, int afterMs)
        : thread([this, &flag, afterMs](std::stop_token stop) {
              if (!delayPassed(stop, afterMs))
                  return;
              setAt.store(Clock::now().time_since_epoch().count());
              flag.store(true, std::memory_order_release);
          })
    {
    }

    // The wait that the flag should have ended did so soon after it was set.
    ::testing::AssertionResult endedSoonAfterSet() const
    {
        const auto at = setAt.load();
        if (at == 0)
            return ::testing::AssertionFailure() << "ended before the flag was set";
        const long long ms = msSince(Clock::time_point(Clock::duration(at)));
        if (ms > cancelLimitMs)
            return ::testing::AssertionFailure() << "ended " << ms << " ms after the flag was set";
        return ::testing::AssertionSuccess() << ms << " ms after the flag";
    }

private:
    std::atomic<Clock::rep> setAt{0};
    std::jthread thread; // last: starts once the members above exist
};

// A test still waiting after ms fails, and rescue ends its wait (shuts a
// socket down, stops a server), so that a fault in the code under test
// cannot hang the test. Destroying the watchdog first dismisses it.
class Watchdog {
public:
    Watchdog(int ms, std::string what, std::function<void()> rescue)
        : thread([ms, what = std::move(what), rescue = std::move(rescue)](std::stop_token stop) {
              if (!delayPassed(stop, ms))
                  return;
              ADD_FAILURE() << "still waiting for " << what << " after " << ms << " ms";
              rescue();
          })
    {
    }

private:
    std::jthread thread;
};

} // namespace zel5test

#endif
