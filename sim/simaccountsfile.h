// Reads accounts from a JSON file: a list of accounts with login, password,
// balance, internet status, size divisor, services with their three lists of
// traffic classes, and messages (docs/simulator.md has the format).
#ifndef ZEL5_SIM_SIMACCOUNTSFILE_H
#define ZEL5_SIM_SIMACCOUNTSFILE_H

#include "billingsim.h"

#include <string>
#include <vector>

class QByteArray;

namespace zel5sim {

class SimAccountsFile {
public:
    // Largest file read: far beyond any test or demo, small enough to read whole.
    static const long long maxFileBytes;

    // false with one line naming the file and the problem in error.
    static bool load(const std::string& path, std::vector<Account>& accounts, std::string& error);
    // The same for file contents; the error does not name a file.
    static bool parse(const QByteArray& json, std::vector<Account>& accounts, std::string& error);
};

} // namespace zel5sim

#endif
