// Small string helpers shared by the handlers: stripping characters,
// splitting, Base64.
#pragma once

#include <string>
#include <vector>

// The RFC 4648 alphabet.
extern const std::string base64_chars;

// Removes every character of set from s, wherever it stands.
void trim_char(std::string& s, const char* set);
// Removes characters of set from both ends of s only.
void trim_front_and_end(std::string& s, const char* set);

// Cuts s at every character of delimiters; runs of delimiters give empty
// pieces, which are kept unless skip_empty.
std::vector<std::string> str_split_to_vector(std::string s, const char* delimiters,
                                             bool skip_empty);

// Both replace out and return its length. Decoding stops silently at the
// first "=" or character outside the alphabet.
int base64_encode(const std::string& in, std::string& out);
int base64_decode(const std::string& in, std::string& out);
