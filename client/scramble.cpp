#include "scramble.h"

namespace {

const char digits[] = "0123456789abcdef";

unsigned char complement(unsigned char b)
{
    return static_cast<unsigned char>(~b);
}

} // namespace

std::string encrypt(std::string& plain)
{
    std::string stored;
    stored.reserve(plain.size() * 2);
    for (char ch : plain) {
        const unsigned char c = complement(static_cast<unsigned char>(ch));
        stored += digits[c >> 4];
        stored += digits[c & 15];
    }
    return stored;
}

std::string decrypt(std::string& text)
{
    if (text.size() % 2 != 0)
        return "(none)";
    std::string plain;
    plain.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size() / 2; ++i) {
        const unsigned char hi = decrypt_symbol(static_cast<unsigned char>(text[2 * i]));
        const unsigned char lo = decrypt_symbol(static_cast<unsigned char>(text[2 * i + 1]));
        // Stray characters are not refused: the 8-bit arithmetic turns them
        // into some byte, so a hand-edited entry gives a garbled password.
        const unsigned char joined = static_cast<unsigned char>(static_cast<unsigned char>(hi << 4) + lo);
        plain += static_cast<char>(complement(joined));
    }
    return plain;
}

unsigned char decrypt_symbol(unsigned char c)
{
    if (c >= '0' && c <= '9')
        return static_cast<unsigned char>(c - '0');
    return static_cast<unsigned char>(c - 87); // 'a' - 10
}
