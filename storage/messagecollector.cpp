#include "messagecollector.h"

#include "filefinder.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <istream>
#include <ostream>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// readString() takes a string's bytes from a stream in pieces of at most this
// size, so that a damaged length prefix never makes it allocate more than the
// stream holds.
constexpr std::uint32_t readChunk = 64 * 1024;
// The file is written through a buffer of at most this size: a few large
// writes instead of one per string, and the buffer stays small beside the
// list (a small store's buffer grows only to the store's size).
constexpr std::size_t saveBlock = 1024 * 1024;

std::uint32_t littleEndian32(const unsigned char* p)
{
    // The file's length prefixes are little-endian whatever the host.
    return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[3]) << 24;
}

// The whole file's bytes: mapped, so that the strings are copied straight
// from the page cache, or read into memory where the file system cannot map.
// Every writer of the store replaces the file by a rename, never shortens it
// in place, so the mapped bytes stay there while they are read.
class FileBytes {
public:
    explicit FileBytes(int fd)
    {
        struct stat st {};
        if (::fstat(fd, &st) != 0 || st.st_size < 0) {
            error = true;
            return;
        }
        length = static_cast<std::size_t>(st.st_size);
        if (length == 0)
            return;
        void* map = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
        if (map != MAP_FAILED) {
            mapped = static_cast<const char*>(map);
            return;
        }
        copy.resize(length);
        length = readUpTo(fd, copy.data(), length);
    }
    ~FileBytes()
    {
        if (mapped)
            ::munmap(const_cast<char*>(mapped), length);
    }
    FileBytes(const FileBytes&) = delete;
    FileBytes& operator=(const FileBytes&) = delete;

    const char* data() const { return mapped ? mapped : copy.data(); }
    std::size_t size() const { return length; }
    bool failed() const { return error; }

private:
    std::size_t readUpTo(int fd, char* p, std::size_t want)
    {
        std::size_t got = 0;
        while (got < want) {
            const ssize_t n = ::read(fd, p + got, want - got);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                error = true;
            if (n <= 0)
                break;
            got += static_cast<std::size_t>(n);
        }
        return got;
    }

    const char* mapped = nullptr;
    std::string copy;
    std::size_t length = 0;
    bool error = false;
};

// Takes records from the file's bytes front to back. A length prefix is
// checked against the bytes left before anything is copied, so a damaged
// one cannot make a large allocation.
class RecordParser {
public:
    RecordParser(const char* data, std::size_t size) : p(data), left(size) {}

    bool atEnd() const { return left == 0; }

    // Fills m from the next record; false on an incomplete one.
    bool next(MessageCollector::ZELMessage& m)
    {
        for (std::string* s : {&m.subject, &m.text, &m.date}) {
            if (left < 4)
                return false;
            const std::uint32_t n = littleEndian32(reinterpret_cast<const unsigned char*>(p));
            if (left - 4 < n)
                return false;
            // Cut at the first zero byte, as the messages are shown as text.
            const char* text = p + 4;
            const void* zero = std::memchr(text, 0, n);
            s->assign(text, zero ? static_cast<std::size_t>(static_cast<const char*>(zero) - text) : n);
            p += 4 + std::size_t(n);
            left -= 4 + std::size_t(n);
        }
        return true;
    }

private:
    const char* p;
    std::size_t left;
};

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd(fd) {}
    ~FileDescriptor()
    {
        if (fd >= 0)
            ::close(fd);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd; }

private:
    int fd;
};

bool writeAll(int fd, const char* p, std::size_t left)
{
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

// Collects the records in one buffer and writes it whenever it holds
// saveBlock bytes: a few large writes, and at most that much memory beside
// the list instead of a copy of the whole file. The list is walked once: on
// a large store every message's first touch misses the cache.
class RecordWriter {
public:
    explicit RecordWriter(int fd) : fd(fd) {}

    bool add(const MessageCollector::ZELMessage& m)
    {
        for (const std::string* s : {&m.subject, &m.text, &m.date}) {
            if (s->size() > UINT32_MAX)
                return false;
            const auto n = static_cast<std::uint32_t>(s->size());
            const char prefix[4] = {char(n & 0xFF), char(n >> 8 & 0xFF), char(n >> 16 & 0xFF), char(n >> 24 & 0xFF)};
            if (!append(prefix, 4) || !append(s->data(), s->size()))
                return false;
        }
        return true;
    }

    bool flush()
    {
        const bool ok = writeAll(fd, buf.data(), buf.size());
        buf.clear();
        return ok;
    }

private:
    bool append(const char* p, std::size_t n)
    {
        if (buf.size() + n > saveBlock && !flush())
            return false;
        // A string larger than the buffer goes out as it is.
        if (n > saveBlock)
            return writeAll(fd, p, n);
        buf.append(p, n);
        return true;
    }

    int fd;
    std::string buf;
};

bool writeRecords(int fd, const std::list<MessageCollector::ZELMessage>& messages)
{
    RecordWriter out(fd);
    for (const MessageCollector::ZELMessage& m : messages) {
        if (!out.add(m))
            return false;
    }
    return out.flush();
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

// Writes the records to a new file beside path and renames it over path, so
// that a crash, a kill or a full disk during the save leaves the old file
// whole.
bool replaceFile(const std::string& path, const std::list<MessageCollector::ZELMessage>& messages)
{
    std::string temp = path + ".XXXXXX";
    const int fd = ::mkostemp(temp.data(), O_CLOEXEC); // created with mode 0600
    if (fd < 0)
        return false;
    bool ok = writeRecords(fd, messages) && ::fsync(fd) == 0;
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
    if (save)
        return replaceFile(fileName, messages);

    FileDescriptor file(::open(fileName.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0)
        return false;
    const FileBytes bytes(file.get());
    RecordParser in(bytes.data(), bytes.size());
    // The records overwrite the list's messages in place: the list is read
    // again before every save, mostly from the file it was saved to, and the
    // strings' memory is reused instead of freed and allocated anew.
    auto at = messages.begin();
    bool whole = false;
    for (;; ++at) {
        if (in.atEnd()) {
            whole = true;
            break;
        }
        if (at == messages.end())
            at = messages.emplace(at);
        // A trailing incomplete or damaged record is dropped; the next save
        // rewrites the file without it.
        if (!in.next(*at))
            break;
    }
    messages.erase(at, messages.end());
    // The old cursor may point to a message just replaced or dropped.
    current = messages.empty() ? messages.end() : std::prev(messages.end());
    return whole && !bytes.failed();
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
    std::uint32_t left = littleEndian32(prefix);
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
