#pragma once

#include <string_view>

namespace kavelin {

// Whether `text` reads as an absolute URL: a scheme, ":", then only characters a
// URL may carry (percent escapes well formed, brackets only around an IPv6 host,
// at most one fragment). Opaque forms such as "av://lavfi:testsrc2=size=640x360"
// are accepted; nothing is resolved or fetched.
bool isValidURLString(std::string_view text);

}  // namespace kavelin
