#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kavelin {

// The artwork, the sample thumbnails and (when they were fetched at set-up) the
// Poppins faces, built into the library so one file is all a game ships. Names
// are paths below Resources/ ("Play.svg", "Thumbnails/sample-1-01.svg") and the
// font file names ("Poppins-Medium.ttf").
std::optional<std::string_view> embeddedResource(std::string_view name);

// The bytes of a resource: from the development override directory when
// `overrideVariable` names one holding the file, else the built-in copy.
std::optional<std::string> resourceBytes(std::string_view name, const char* overrideVariable);

// Addresses of built-in pictures in catalogue records ("kavelin:Thumbnails/x.svg").
inline constexpr std::string_view resourceScheme = "kavelin:";

}  // namespace kavelin
