// Where the system keeps its files.
#ifndef ZEL5_FILEFINDER_H
#define ZEL5_FILEFINDER_H

#include <string>

class FileFinder {
public:
    enum fileType {
        MessagesFile = 0,
    };
    virtual ~FileFinder() = default;
    // The file's path as a byte string; empty when the kind is unknown.
    virtual std::string findFile(fileType type) = 0;
};

#endif
