#include "messagecollector.h"

#include "filefinder.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A record's strings are read in pieces of at most this size, so that a
// damaged length prefix never makes us allocate more than the file holds.
constexpr std::uint32_t readChunk = 64 * 1024;

bool writeAll(int fd, const std::string& data)
{
    const char* p = data.data();
    std::size_t left = data.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    return true;
}

std::string directoryOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Makes the rename itself durable. A failure here does not undo the save:
// the new file is already in place.
void syncDirectory(const std::string& dir)
{
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    ::fsync(fd);
    ::close(fd);
}

// Writes data to a new file beside path and renames it over path, so that a
// crash, a kill or a full disk during the save leaves the old file whole.
bool replaceFile(const std::string& path, const std::string& data)
{
    std::string temp = path + ".XXXXXX";
    const int fd = ::mkostemp(temp.data(), O_CLOEXEC); // created with mode 0600
    if (fd < 0)
        return false;
    bool ok = writeAll(fd, data) && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok)
        ok = ::rename(temp.c_str(), path.c_str()) == 0;
    if (!ok) {
        ::unlink(temp.c_str());
        return false;
    }
    syncDirectory(directoryOf(path));
    return true;
}

} // namespace

MessageCollector::MessageCollector(FileFinder* finder)
{
    if (finder)
        fileName = finder->findFile(FileFinder::MessagesFile);
    synchronize(false);
    current = messages.empty() ? messages.end() : std::prev(messages.end());
}

MessageCollector::~MessageCollector()
{
    synchronize(true);
}

bool MessageCollector::synchronize(bool save)
{
    if (fileName.empty())
        return false;
    if (save) {
        std::ostringstream out(std::ios::binary);
        for (const ZELMessage& m : messages) {
            if (!writeString(out, m.subject) || !writeString(out, m.text) || !writeString(out, m.date))
                return false;
        }
        return replaceFile(fileName, out.str());
    }

    std::ifstream in(fileName, std::ios::binary);
    if (!in.is_open())
        return false;
    messages.clear();
    bool whole = false;
    for (;;) {
        if (in.peek() == std::ifstream::traits_type::eof()) {
            whole = !in.bad();
            break;
        }
        // A trailing incomplete or damaged record is dropped; the next save
        // rewrites the file without it.
        ZELMessage m;
        if (!readString(in, m.subject) || !readString(in, m.text) || !readString(in, m.date))
            break;
        messages.push_back(std::move(m));
    }
    // The old cursor pointed into the list just replaced.
    current = messages.empty() ? messages.end() : std::prev(messages.end());
    return whole;
}

void MessageCollector::insertMessage(std::string& subject, std::string& text, std::string& date)
{
    messages.push_back(ZELMessage{date, subject, text});
    current = std::prev(messages.end());
}

bool MessageCollector::currentMessage(std::string& subject, std::string& text, std::string& date)
{
    if (current == messages.end())
        return false;
    subject = current->subject;
    text = current->text;
    date = current->date;
    return true;
}

void MessageCollector::deleteMessage()
{
    if (current == messages.end())
        return;
    current = messages.erase(current);
    if (current == messages.end() && !messages.empty())
        --current;
}

void MessageCollector::nextMessage()
{
    if (current == messages.end())
        return;
    ++current;
    if (current == messages.end())
        --current;
}

void MessageCollector::prevMessage()
{
    if (current != messages.begin())
        --current;
}

bool MessageCollector::contains(const ZELMessage& m) const
{
    return std::any_of(messages.begin(), messages.end(), [&m](const ZELMessage& x) {
        return x.date == m.date && x.subject == m.subject && x.text == m.text;
    });
}

bool MessageCollector::empty() const
{
    return messages.empty();
}

std::size_t MessageCollector::currentIndex() const
{
    return static_cast<std::size_t>(std::distance(messages.begin(), std::list<ZELMessage>::const_iterator(current)));
}

bool MessageCollector::readString(std::istream& in, std::string& s)
{
    unsigned char prefix[4];
    if (!in.read(reinterpret_cast<char*>(prefix), 4))
        return false;
    // The file's length prefixes are little-endian whatever the host.
    std::uint32_t left = std::uint32_t(prefix[0]) | std::uint32_t(prefix[1]) << 8
        | std::uint32_t(prefix[2]) << 16 | std::uint32_t(prefix[3]) << 24;
    std::string bytes;
    while (left > 0) {
        const std::uint32_t chunk = std::min(left, readChunk);
        const std::size_t at = bytes.size();
        bytes.resize(at + chunk);
        if (!in.read(bytes.data() + at, chunk))
            return false;
        left -= chunk;
    }
    // A string is cut at its first zero byte, as the messages are shown as text.
    s.assign(bytes.c_str());
    return true;
}

bool MessageCollector::writeString(std::ostream& out, const std::string& s)
{
    if (s.size() > UINT32_MAX)
        return false;
    const auto n = static_cast<std::uint32_t>(s.size());
    const char prefix[4] = {char(n & 0xFF), char(n >> 8 & 0xFF), char(n >> 16 & 0xFF), char(n >> 24 & 0xFF)};
    if (!out.write(prefix, 4))
        return false;
    out.write(s.data(), static_cast<std::streamsize>(s.size()));
    return !out.fail();
}
