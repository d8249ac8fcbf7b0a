// The store's lock: zel5ctl writes the message store and its time stamp
// only while it holds the lock the tray takes too, and gives up with exit
// code 6 when the lock is not given within its bound.
#include "ctlrun.h"
#include "storelock.h"

#include <QFileInfo>

#include <sys/stat.h>

namespace zel5test {
namespace {

using namespace std::chrono_literals;

constexpr int fnMessages = -16424;

bool exists(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

using StoreLockTest = CtlTest;

TEST_F(StoreLockTest, LivesBesideTheStore)
{
    EXPECT_EQ(QString::fromStdString(storePath() + ".lock"), StoreLock::path());
    StoreLock first(0);
    ASSERT_TRUE(first.locked());
    EXPECT_TRUE(QFileInfo::exists(StoreLock::path()));
}

TEST_F(StoreLockTest, ZelctlWritesNothingUntilTheLockIsReleased)
{
    auto held = std::make_unique<StoreLock>(0);
    ASSERT_TRUE(held->locked());
    ChildProcess child(command({"messages"}), environment(), ChildProcess::CaptureBoth);
    ASSERT_TRUE(child.started()) << child.startError();
    ASSERT_TRUE(sim->waitFor([&] { return sim->lastArgument(fnMessages) != 0; }, 10000))
        << "waited 10 s for zel5ctl to ask the server for messages";

    // It has the messages; for a second it must neither write nor end.
    const auto until = std::chrono::steady_clock::now() + 1s;
    while (std::chrono::steady_clock::now() < until) {
        const auto ended = child.waitExit(50ms);
        ASSERT_FALSE(ended) << "zel5ctl ended while the test held the lock: " << ended->describe() << "\n"
                            << child.stderrText();
        ASSERT_FALSE(exists(storePath())) << "zel5ctl wrote the store while the test held the lock";
    }
    held.reset();
    const auto exit = child.waitExit(runBound);
    ASSERT_TRUE(exit) << "waited " << runBound.count() << " s for zel5ctl to end after the lock was released";
    EXPECT_EQ(0, exit->code()) << child.stderrText();
    EXPECT_TRUE(exists(storePath()));
    EXPECT_NE(std::string::npos, child.takeStdout().find("New tariffs"));
}

TEST_F(StoreLockTest, ALockNotGivenWithinFiveSecondsGives6)
{
    StoreLock held(0);
    ASSERT_TRUE(held.locked());
    const CtlRun r = run({"messages"});
    EXPECT_TRUE(failedWith(6, r));
    EXPECT_NE(std::string::npos, r.err.find("message store is locked")) << r.err;
    EXPECT_GE(r.took, 5s);
    EXPECT_FALSE(exists(storePath()));
    Config<QString> settings;
    ASSERT_TRUE(settings._load());
    EXPECT_EQ(0, settings.lastMessageCheck);
}

} // namespace
} // namespace zel5test
