// Bounded waits: elapsed time against a bound, a cancel flag set from another
// thread, and a watchdog that ends a wait the code under test failed to end.
#ifndef ZEL5_TESTS_BOUNDS_H
#define ZEL5_TESTS_BOUNDS_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

namespace zel5test {

using Clock = std::chrono::steady_clock;

inline long long msSince(Clock::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

// A wait started at t0 ended neither before its bound nor far after it.
inline ::testing::AssertionResult endedAtBound(Clock::time_point t0, long long boundMs)
{
    const long long ms = msSince(t0);
    if (ms < boundMs || ms >= 2000)
        return ::testing::AssertionFailure() << "ended after " << ms << " ms, bound " << boundMs << " ms";
    return ::testing::AssertionSuccess();
}

// In a helper thread: true once ms have passed, false as soon as it is asked to stop.
inline bool delayPassed(std::stop_token stop, int ms)
{
    std::mutex m;
    std::unique_lock<std::mutex> lock(m);
    std::condition_variable_any cv;
    cv.wait_for(lock, stop, std::chrono::milliseconds(ms), [] { return false; });
    return !stop.stop_requested();
}

// Sets flag afterMs from now, from its own thread.
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
    // The wait ended within a poll round (and room for a loaded machine) of the flag being set.
    ::testing::AssertionResult endedSoonAfterSet() const
    {
        const auto at = setAt.load();
        const long long ms = at ? msSince(Clock::time_point(Clock::duration(at))) : -1;
        if (ms < 0 || ms > 200)
            return ::testing::AssertionFailure() << "ended " << ms << " ms after the flag was set (-1: before)";
        return ::testing::AssertionSuccess();
    }

private:
    std::atomic<Clock::rep> setAt{0};
    std::jthread thread; // last: starts once setAt exists
};

// A test still waiting after ms fails, and rescue ends its wait; destroying the watchdog dismisses it.
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
