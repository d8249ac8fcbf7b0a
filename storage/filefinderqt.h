#ifndef ZEL5_FILEFINDERQT_H
#define ZEL5_FILEFINDERQT_H

#include "filefinder.h"

// Locates the files in the user's data directory
// ($XDG_DATA_HOME/zel5_tray/), creating directory and file on first use.
class FileFinderQT : public FileFinder {
public:
    std::string findFile(fileType type) override;
};

#endif
