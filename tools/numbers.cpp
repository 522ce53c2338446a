#include "numbers.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "errors.h"

namespace tool {
namespace {

template <typename Number>
bool whole_number(std::string_view text, Number& number) {
    const char* end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && last == end && !text.empty();
}

bool plain_decimal(std::string_view text, double& number) {
    // from_chars takes "inf" and "nan" as well.
    return whole_number(text, number) && std::isfinite(number);
}

bool decimal_or_fraction(std::string_view text, double& number) {
    const size_t slash = text.find('/');
    if (slash == std::string_view::npos) return plain_decimal(text, number);
    double divisor = 0.0;
    if (!plain_decimal(text.substr(0, slash), number)) return false;
    if (!plain_decimal(text.substr(slash + 1), divisor) || divisor == 0.0) return false;
    number /= divisor;
    return true;
}

[[noreturn]] void refuse(const std::string& option, const char* expected, std::string_view found) {
    throw UsageError(option + ": expected " + expected + ", found \"" + std::string(found) + "\"");
}

struct Unit {
    const char* text;
    double factor;
};

/// A number with one of the units. `units[0]` is the empty one.
template <size_t N>
int64_t parse_with_unit(const std::string& option, std::string_view text, const char* expected,
                        const Unit (&units)[N]) {
    size_t digits = 0;
    while (digits < text.size() &&
           ((text[digits] >= '0' && text[digits] <= '9') || text[digits] == '.')) {
        ++digits;
    }
    double number = 0.0;
    if (!plain_decimal(text.substr(0, digits), number)) refuse(option, expected, text);
    for (const Unit& unit : units) {
        if (text.substr(digits) != unit.text) continue;
        number *= unit.factor;
        if (number < 1.0 || number > 1e18) refuse(option, expected, text);
        return static_cast<int64_t>(number);
    }
    refuse(option, expected, text);
}

std::string in_unit(double number, double step, const char* const (&units)[5]) {
    size_t unit = 0;
    while (number >= step && unit + 1 < 5) {
        number /= step;
        ++unit;
    }
    return fixed(number, unit == 0 ? 0 : 1) + (*units[unit] != '\0' ? " " : "") + units[unit];
}

}  // namespace

Size parse_size(const std::string& option, std::string_view text) {
    static const char expected[] = "WIDTHxHEIGHT, such as 256x144, each from 1 to 65535";
    const size_t x = text.find('x');
    if (x == std::string_view::npos) refuse(option, expected, text);
    uint16_t w = 0;
    uint16_t h = 0;
    if (!whole_number(text.substr(0, x), w) || !whole_number(text.substr(x + 1), h) || w == 0 ||
        h == 0) {
        refuse(option, expected, text);
    }
    return {w, h};
}

std::vector<float> parse_numbers(const std::string& option, std::string_view text) {
    std::vector<float> numbers;
    for (std::string_view rest = text;;) {
        const size_t comma = rest.find(',');
        double number = 0.0;
        if (!decimal_or_fraction(rest.substr(0, comma), number) ||
            std::fabs(number) > std::numeric_limits<float>::max()) {
            refuse(option, "numbers separated by commas", text);
        }
        numbers.push_back(static_cast<float>(number));
        if (comma == std::string_view::npos) return numbers;
        rest.remove_prefix(comma + 1);
    }
}

int64_t parse_bytes(const std::string& option, std::string_view text) {
    static const Unit units[] = {{"", 1.0},           {"B", 1.0},           {"K", 1024.0},
                                 {"KiB", 1024.0},     {"M", 1048576.0},     {"MiB", 1048576.0},
                                 {"G", 1073741824.0}, {"GiB", 1073741824.0}};
    return parse_with_unit(option, text, "a number of bytes, such as 512M or 2G", units);
}

int64_t parse_count(const std::string& option, std::string_view text) {
    static const Unit units[] = {{"", 1.0}, {"K", 1e3}, {"M", 1e6}, {"G", 1e9}, {"T", 1e12}};
    return parse_with_unit(option, text, "a number, such as 500M or 100G", units);
}

bool parse_colour(std::string_view text, unsigned char colour[3]) {
    for (int i = 0; i < 3; ++i) {
        const size_t comma = text.find(',');
        if ((comma == std::string_view::npos) != (i == 2)) return false;
        if (!whole_number(text.substr(0, comma), colour[i])) return false;
        if (i < 2) text.remove_prefix(comma + 1);
    }
    return true;
}

std::string grouped(int64_t number) {
    std::string text = std::to_string(number);
    const size_t first = text[0] == '-' ? 1 : 0;
    for (size_t at = text.size(); at > first + 3;) {
        at -= 3;
        text.insert(at, 1, ',');
    }
    return text;
}

std::string bytes_text(int64_t bytes) {
    return in_unit(static_cast<double>(bytes), 1024.0, {"bytes", "KiB", "MiB", "GiB", "TiB"});
}

std::string count_text(int64_t count) {
    return in_unit(static_cast<double>(count), 1000.0, {"", "K", "M", "G", "T"});
}

std::string fixed(double number, int digits) {
    char text[400];
    const auto result =
        std::to_chars(text, text + sizeof(text), number, std::chars_format::fixed, digits);
    return std::string(text, result.ptr);
}

}  // namespace tool
