// Test helpers: a stream on one end of a socket pair, and typed reads that
// check their result.
#ifndef ZEL5_TESTS_STREAMPAIR_H
#define ZEL5_TESTS_STREAMPAIR_H

#include "rpc2stream.h"
#include "socketpair.h"

#include <gtest/gtest.h>

namespace zel5test {

// A stream on the near end of a fresh socket pair; the stream closes that end.
struct StreamOnPair {
    SocketPair sp;
    ZEL::RPC2Stream stream{sp.release(0), nullptr};
};

// Reads one value of type T, expecting the given result.
template <typename T> T next(ZEL::RPC2Stream& s, int expected = 0)
{
    T v{};
    EXPECT_EQ(s.data_get(v), expected);
    return v;
}

} // namespace zel5test

#endif
