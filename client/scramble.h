// The scrambled text form in which the configuration file keeps the
// subscriber's password: bitwise complement, then lower-case hexadecimal.
// An obscuring of the stored text, not encryption.
#ifndef ZEL5_SCRAMBLE_H
#define ZEL5_SCRAMBLE_H

#include <string>

std::string encrypt(std::string& plain);
std::string decrypt(std::string& text);
unsigned char decrypt_symbol(unsigned char c);

#endif
