#include "Kavelin/Extentions/UTF8Repair.h"

#include <cstdint>
#include <cstring>

namespace kavelin {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

// Bytes of the well-formed sequence starting at `i`, or 0 with `bad` set to the
// length of the ill-formed prefix to replace (at least 1).
size_t sequenceLength(std::string_view s, size_t i, size_t& bad) {
    const auto lead = static_cast<unsigned char>(s[i]);
    if (lead < 0x80) return 1;
    size_t need = 0;
    unsigned char low = 0x80, high = 0xBF;  // range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        need = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        need = 2;
        if (lead == 0xE0) low = 0xA0;   // no overlong forms
        if (lead == 0xED) high = 0x9F;  // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        need = 3;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
    } else {
        bad = 1;
        return 0;
    }
    for (size_t k = 1; k <= need; ++k) {
        if (i + k >= s.size()) {
            bad = k;
            return 0;
        }
        const auto c = static_cast<unsigned char>(s[i + k]);
        const bool ok = k == 1 ? (c >= low && c <= high) : (c >= 0x80 && c <= 0xBF);
        if (!ok) {
            bad = k;
            return 0;
        }
    }
    return need + 1;
}

}  // namespace

size_t repairUTF8(std::string_view& text, std::string& storage) {
    size_t replaced = 0;
    std::string out;
    size_t copiedUpTo = 0;
    for (size_t i = 0; i < text.size();) {
        // Documents are mostly ASCII: eight bytes at a time until one is not.
        uint64_t word;
        while (i + sizeof word <= text.size() && (std::memcpy(&word, text.data() + i, sizeof word),
                                                  (word & 0x8080808080808080u) == 0))
            i += sizeof word;
        if (i >= text.size()) break;
        size_t bad = 0;
        if (size_t n = sequenceLength(text, i, bad)) {
            i += n;
            continue;
        }
        // Copy only once something needs replacing.
        if (replaced == 0) out.reserve(text.size() + 8);
        out.append(text, copiedUpTo, i - copiedUpTo).append(kReplacement);
        i += bad;
        copiedUpTo = i;
        ++replaced;
    }
    if (replaced == 0) return 0;
    out.append(text, copiedUpTo, std::string::npos);
    storage = std::move(out);
    text = storage;
    return replaced;
}

}  // namespace kavelin
