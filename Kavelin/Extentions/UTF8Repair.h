#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kavelin {

// Replaces every ill-formed UTF-8 sequence in `text` by U+FFFD, one replacement
// per maximal ill-formed subpart (the Unicode recommendation, which is also what
// browsers do), and returns how many were replaced. Well-formed text is left as it
// is, without a copy; repaired text is put in `storage` and `text` points there.
size_t repairUTF8(std::string_view& text, std::string& storage);

}  // namespace kavelin
