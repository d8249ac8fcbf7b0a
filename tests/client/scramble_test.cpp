#include "scramble.h"

#include <gtest/gtest.h>

TEST(Scramble, RoundTripsEveryByteAndDecodesStrayDigitsWithoutComplaint)
{
    std::string all;
    for (int b = 0; b < 256; ++b)
        all += char(b);
    std::string stored = encrypt(all);
    EXPECT_EQ(stored.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(stored.substr(0, 2) + stored.substr(2 * 'A', 2) + stored.substr(510), "ffbe00");
    EXPECT_EQ(decrypt(stored), all);

    // Odd lengths are refused; upper-case digits decode to some other byte.
    const std::pair<std::string, std::string> cases[] = {
        {"", ""}, {"bebe", "AA"}, {"b", "(none)"}, {"bebeb", "(none)"}, {"BE", "\x61"}};
    for (auto [text, plain] : cases)
        EXPECT_EQ(decrypt(text), plain) << text;
}
