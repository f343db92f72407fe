// What fuzz targets share: rules that must hold, and a way to draw decisions from an input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace fuzzing {

inline void Require(bool holds, const char* rule) {
    if (holds) return;
    fprintf(stderr, "broken rule: %s\n", rule);
    abort();
}

inline std::string_view TextOf(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// Whether the text holds nothing that moves a cursor.
inline bool IsOnOneLine(std::string_view text) {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
    }
    return true;
}

/// Decisions drawn from an input, front to back; zeros and empty texts when it is used up.
/// An input that is changed in one place changes one decision, which is what makes the fuzzer's own changes useful.
class Draw {
public:
    Draw(const uint8_t* data, size_t size) : m_rest(TextOf(data, size)) {}

    bool IsUsedUp() const { return m_rest.empty(); }

    uint8_t Byte() {
        if (m_rest.empty()) return 0;
        const auto byte = static_cast<uint8_t>(m_rest.front());
        m_rest.remove_prefix(1);
        return byte;
    }

    /// Returns: 0 up to `count` - 1.
    size_t Below(size_t count) { return Byte() % count; }

    /// Any number of 64 bits, small ones and bounds of types more often than others.
    int64_t Number() {
        static constexpr int64_t kSpecial[] = {INT64_MAX, INT64_MIN, INT32_MAX, INT32_MIN, -1, 0, 1, UINT32_MAX};
        const uint8_t kind = Byte();
        if (kind < 64) return kind;
        if (kind < 96) return kSpecial[kind % 8] + (kind < 80 || kSpecial[kind % 8] == INT64_MIN ? 0 : -1);
        uint64_t value = 0;
        const int bytes = kind < 160 ? 2 : kind < 208 ? 4 : 8;
        for (int i = 0; i < bytes; ++i) value = value << 8 | Byte();
        return static_cast<int64_t>(value);
    }

    /// A text up to the next zero, at most of so many bytes.
    std::string Text(size_t most) {
        const size_t end = m_rest.find('\0');
        const std::string text(m_rest.substr(0, end < most ? end : most));
        m_rest.remove_prefix(text.size());
        if (!m_rest.empty() && m_rest.front() == '\0') m_rest.remove_prefix(1);
        return text;
    }

    std::string Rest() {
        const std::string rest(m_rest);
        m_rest = {};
        return rest;
    }

private:
    std::string_view m_rest;
};

}  // namespace fuzzing
