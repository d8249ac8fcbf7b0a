#include "rpc2proto.h"

#include <cstring>

namespace ZEL {
namespace RPC2 {

key128_t::key128_t()
{
    std::memset(key, 0, sizeof key);
}

key128_t::key128_t(const unsigned char* bytes)
{
    std::memcpy(key, bytes, sizeof key);
}

key128_t& key128_t::operator=(const unsigned char* bytes)
{
    std::memmove(key, bytes, sizeof key);
    return *this;
}

key128_t::operator unsigned char*()
{
    return key;
}

key128_t::operator const unsigned char*() const
{
    return key;
}

bool key128_t::operator==(const key128_t& other) const
{
    return std::memcmp(key, other.key, sizeof key) == 0;
}

} // namespace RPC2
} // namespace ZEL
