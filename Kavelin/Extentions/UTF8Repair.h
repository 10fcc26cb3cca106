#pragma once

#include <cstddef>
#include <string>

namespace kavelin {

// Replaces every ill-formed UTF-8 sequence in `text` by U+FFFD, one replacement
// per maximal ill-formed subpart (the Unicode recommendation, which is also what
// browsers do), and returns how many were replaced. Well-formed text is left
// byte for byte.
size_t repairUTF8(std::string& text);

}  // namespace kavelin
