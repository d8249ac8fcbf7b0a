// The two buses test_desktop starts for itself before the application
// object exists: one as the session bus, one as the system bus. Empty
// addresses, with the reason in `error`, when they could not be started
// (or the run only lists the tests); the environment then names a bus
// that does not exist, never the user's own.
#ifndef ZEL5_TESTS_PRIVATEBUSES_H
#define ZEL5_TESTS_PRIVATEBUSES_H

#include <string>

struct PrivateBuses {
    std::string session;
    std::string system;
    std::string error;
};

const PrivateBuses& privateBuses();

#endif
