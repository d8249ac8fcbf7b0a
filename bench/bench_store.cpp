// The message store's save and load of a large store, each beside its floor:
// the least any store could do with the same bytes. Saving is floored by one
// write of the finished file image to a new file with the same crash-safe
// replace (fsync, rename, fsync of the folder); loading by one read of the
// file into a buffer that is already there.
#include "filefinder.h"
#include "messagecollector.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr int storedMessages = 10000;

// A folder of its own under $TMPDIR, removed with everything in it at exit.
class ScratchFolder {
public:
    ScratchFolder()
    {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/zel5-bench-store.XXXXXX";
        if (::mkdtemp(pattern.data()))
            path = pattern;
    }
    ~ScratchFolder()
    {
        if (path.empty())
            return;
        for (const char* name : {"/messages", "/floor"})
            ::unlink((path + name).c_str());
        ::rmdir(path.c_str());
    }
    std::string path;
};

ScratchFolder& scratch()
{
    static ScratchFolder folder;
    return folder;
}

class ScratchFinder : public FileFinder {
public:
    std::string findFile(fileType) override { return scratch().path + "/messages"; }
};

// About 650 bytes a message, as the provider's notices are: a subject, a
// paragraph of text and the date.
MessageCollector::ZELMessage sampleMessage(int i)
{
    static const std::string paragraph =
        "Dear subscriber, the scheduled maintenance of the access network in your district will take place "
        "tonight between 01:00 and 05:00. During this time the connection may be interrupted for up to "
        "fifteen minutes. Prepaid traffic is not charged for the interruption, and the monthly fee stays "
        "as it is. If the connection does not come back after 05:00, please restart your router; if that "
        "does not help, call the support line or write to us from the web cabinet. We apologise for the "
        "inconvenience and thank you for staying with us. Your provider.";
    MessageCollector::ZELMessage m;
    m.subject = "Maintenance notice no. " + std::to_string(100000 + i);
    m.text = paragraph + " Ref. " + std::to_string(i);
    m.date = "01.02.2024 10:" + std::to_string(10 + i % 50) + ":00";
    return m;
}

void fill(MessageCollector& store)
{
    for (int i = 0; i < storedMessages; ++i) {
        MessageCollector::ZELMessage m = sampleMessage(i);
        store.insertMessage(m.subject, m.text, m.date);
    }
}

void appendField(std::string& image, const std::string& s)
{
    const auto n = static_cast<std::uint32_t>(s.size());
    const char prefix[4] = {char(n & 0xFF), char(n >> 8 & 0xFF), char(n >> 16 & 0xFF), char(n >> 24 & 0xFF)};
    image.append(prefix, 4).append(s);
}

// The file as the store writes it, built once outside the timing.
std::string fileImage()
{
    std::string image;
    for (int i = 0; i < storedMessages; ++i) {
        const MessageCollector::ZELMessage m = sampleMessage(i);
        appendField(image, m.subject), appendField(image, m.text), appendField(image, m.date);
    }
    return image;
}

bool writeNewFile(const std::string& path, const std::string& data)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    const bool ok = ::write(fd, data.data(), data.size()) == static_cast<ssize_t>(data.size()) && ::fsync(fd) == 0;
    return ::close(fd) == 0 && ok;
}

bool syncFolder(const std::string& dir)
{
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

void BM_StoreSave(benchmark::State& state)
{
    const auto bytes = static_cast<std::int64_t>(fileImage().size());
    ScratchFinder finder;
    ::unlink(finder.findFile(FileFinder::MessagesFile).c_str()); // else the store starts with the last run's
    MessageCollector store(&finder);
    fill(store);
    for (auto _ : state) {
        if (!store.synchronize(true)) {
            state.SkipWithError("save failed");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * bytes);
}
BENCHMARK(BM_StoreSave)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_StoreSave_Floor(benchmark::State& state)
{
    const std::string image = fileImage();
    const std::string dir = scratch().path, temp = dir + "/floor", path = dir + "/messages";
    for (auto _ : state) {
        if (!writeNewFile(temp, image) || ::rename(temp.c_str(), path.c_str()) != 0 || !syncFolder(dir)) {
            state.SkipWithError("write failed");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * std::int64_t(image.size()));
}
BENCHMARK(BM_StoreSave_Floor)->Unit(benchmark::kMillisecond)->UseRealTime();

// Both loads read the same file, written once before the timing.
bool writeStoreFile(const std::string& image)
{
    return writeNewFile(scratch().path + "/messages", image);
}

void BM_StoreLoad(benchmark::State& state)
{
    const std::string image = fileImage();
    if (!writeStoreFile(image)) {
        state.SkipWithError("cannot write the store's file");
        return;
    }
    ScratchFinder finder;
    MessageCollector store(&finder); // loads once, as the tray does at start
    for (auto _ : state) {
        if (!store.synchronize(false) || store.count() != storedMessages) {
            state.SkipWithError("load failed");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * std::int64_t(image.size()));
}
BENCHMARK(BM_StoreLoad)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_StoreLoad_Floor(benchmark::State& state)
{
    const std::string image = fileImage();
    if (!writeStoreFile(image)) {
        state.SkipWithError("cannot write the store's file");
        return;
    }
    const std::string path = scratch().path + "/messages";
    std::vector<char> buffer(image.size());
    for (auto _ : state) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        const ssize_t n = fd < 0 ? -1 : ::read(fd, buffer.data(), buffer.size());
        if (fd >= 0)
            ::close(fd);
        if (n != static_cast<ssize_t>(buffer.size())) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * std::int64_t(image.size()));
}
BENCHMARK(BM_StoreLoad_Floor)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
