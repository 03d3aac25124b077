// What the fuzz targets share beside tests/support: the input as a C string.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

// The bytes with a terminator, in a buffer of exactly that size, so that a read past its end is caught.
inline std::unique_ptr<char[]> fuzz_text(const uint8_t *data, size_t size) {
    std::unique_ptr<char[]> s(new char[size + 1]);
    memcpy(s.get(), data, size);
    s[size] = '\0';
    return s;
}

// The bytes up to the first zero byte, if any.
inline std::string fuzz_string(const uint8_t *data, size_t size) {
    std::string s(reinterpret_cast<const char *>(data), size);
    return s.substr(0, s.find('\0'));
}
