// The provider's messages kept on this machine: an ordered list, a cursor on
// the message the messages dialog shows, and the file that carries the list
// from one run to the next.
#ifndef ZEL5_MESSAGECOLLECTOR_H
#define ZEL5_MESSAGECOLLECTOR_H

#include <iosfwd>
#include <list>
#include <string>

class FileFinder;

class MessageCollector {
public:
    struct ZELMessage {
        std::string date;
        std::string subject;
        std::string text;
    };

    explicit MessageCollector(FileFinder* finder);
    ~MessageCollector();
    MessageCollector(const MessageCollector&) = delete;
    MessageCollector& operator=(const MessageCollector&) = delete;

    // false loads the file into the list; true writes the list to the file.
    // Returns whether the file was read or written whole.
    bool synchronize(bool save);
    void insertMessage(std::string& subject, std::string& text, std::string& date);
    // Copies the message under the cursor; false on an empty store.
    bool currentMessage(std::string& subject, std::string& text, std::string& date);
    void deleteMessage();
    void nextMessage();
    void prevMessage();
    bool empty() const;
    // Whether a message with the same date, subject and text is stored.
    bool contains(const ZELMessage& m) const;

    static bool readString(std::istream& in, std::string& s);
    static bool writeString(std::ostream& out, const std::string& s);

    // For the tests and the dialog's position display.
    std::size_t count() const { return messages.size(); }
    std::size_t currentIndex() const;
    const std::string& file() const { return fileName; }

private:
    std::list<ZELMessage> messages;
    std::list<ZELMessage>::iterator current;
    std::string fileName;
};

#endif
