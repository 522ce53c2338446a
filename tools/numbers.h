// Numbers in text, both ways, the same in every locale.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

struct Size {
    int w = 0;
    int h = 0;
};

// The parsers below throw UsageError; `option` is the name that the message gives.

/// "256x144": columns, then rows, each from 1 to 65535.
Size parse_size(const std::string& option, std::string_view text);

/// Numbers separated by commas, each a decimal number or a fraction such as 1/255.
std::vector<float> parse_numbers(const std::string& option, std::string_view text);

/// A number of bytes with an optional unit: B, K, M, G, KiB, MiB, GiB (factors of 1024).
int64_t parse_bytes(const std::string& option, std::string_view text);

/// A count with an optional unit K, M, G, T (factors of 1000).
int64_t parse_count(const std::string& option, std::string_view text);

/// Three integers from 0 to 255 separated by commas. False, and nothing else, for other text.
bool parse_colour(std::string_view text, unsigned char colour[3]);

/// "1234567" as "1,234,567".
std::string grouped(int64_t number);

/// Bytes in the largest binary unit that leaves a number of 1 or more: "3.4 MiB".
std::string bytes_text(int64_t bytes);

/// A count in a decimal unit: "73.1 M".
std::string count_text(int64_t count);

/// `digits` decimals.
std::string fixed(double number, int digits);

}  // namespace tool
