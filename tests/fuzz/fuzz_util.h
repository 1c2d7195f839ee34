// What every fuzz target shares: the input as text, and an aligned copy for
// parsers of kernel messages (a receive buffer is always aligned).
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string_view>
#include <vector>

namespace fuzz {

inline std::string_view text(const uint8_t* data, size_t size) {
    return std::string_view(reinterpret_cast<const char*>(data), size);
}

// The first byte chooses a variant; the rest is the input proper.
inline unsigned take_selector(const uint8_t*& data, size_t& size) {
    if (size == 0) return 0;
    const unsigned s = data[0];
    ++data;
    --size;
    return s;
}

struct Aligned {
    std::vector<uint64_t> words;
    size_t size;
    Aligned(const uint8_t* data, size_t n) : words(n / 8 + 1), size(n) {
        if (n) memcpy(words.data(), data, n);
    }
    const void* data() const { return words.data(); }
};

}  // namespace fuzz
