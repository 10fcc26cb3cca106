#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kavelin {

// The address handed to the media player for a host's `text`, or nothing when the
// text cannot name media at all: empty, or carrying a control character.
//
// Any URI reference is taken. With a scheme ("https:", "file:", "edl:") it is a
// URL: bytes a URL may not carry (a space, non-ASCII, a stray "%", brackets
// outside an IPv6 host, a second "#") are percent-encoded, everything else is kept
// byte for byte. Without one it is a path, absolute or relative to the working
// directory, and is handed over exactly as written.
std::optional<std::string> playerAddress(std::string_view text);

}  // namespace kavelin
