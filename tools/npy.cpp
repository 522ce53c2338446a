#include "npy.h"

#include <charconv>
#include <cstring>
#include <string_view>

#include "errors.h"
#include "files.h"
#include "numbers.h"

namespace tool {
namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "values are copied as they stand");

constexpr std::string_view magic = "\x93NUMPY";
/// Magic, two bytes of version, two bytes of header length.
constexpr size_t prefix_size = 10;

struct Header {
    std::vector<int64_t> shape;
    std::string descr;
    int64_t element_size = 0;
    int64_t count = 0;
    int64_t data_offset = 0;
};

/// The text behind `'key':` in the header's dictionary; empty when the key is missing.
std::string_view value_of(std::string_view dictionary, std::string_view key) {
    for (const char quote : {'\'', '"'}) {
        const std::string quoted = quote + std::string(key) + quote;
        const size_t at = dictionary.find(quoted);
        if (at == std::string_view::npos) continue;
        std::string_view rest = dictionary.substr(at + quoted.size());
        const size_t start = rest.find_first_not_of(" :");
        if (start == std::string_view::npos) continue;
        return rest.substr(start);
    }
    return {};
}

/// "(3, 4)" and "(3,)". False when it is no tuple of plain numbers.
bool parse_tuple(std::string_view text, std::vector<int64_t>& numbers) {
    if (text.empty() || text[0] != '(') return false;
    const size_t end = text.find(')');
    if (end == std::string_view::npos) return false;
    text = text.substr(1, end - 1);
    while (true) {
        const size_t start = text.find_first_not_of(' ');
        if (start == std::string_view::npos) return true;
        text.remove_prefix(start);
        int64_t number = 0;
        const auto [last, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc()) return false;
        numbers.push_back(number);
        text.remove_prefix(static_cast<size_t>(last - text.data()));
        const size_t comma = text.find_first_not_of(' ');
        if (comma == std::string_view::npos) return true;
        if (text[comma] != ',') return false;
        text.remove_prefix(comma + 1);
    }
}

Header parse_header(const std::string& path, const std::string& start, int64_t file_size,
                    size_t most_dimensions) {
    const auto fail = [&](const std::string& text) { throw CommandError(path + ": " + text); };
    if (start.compare(0, magic.size(), magic) != 0) fail("expected an .npy file, found another");
    if (start.size() < prefix_size) fail("expected an .npy header, found the end of the file");
    if (start[6] != 1 || start[7] != 0) {
        fail("expected .npy version 1.0, found " +
             std::to_string(static_cast<unsigned char>(start[6])) + "." +
             std::to_string(static_cast<unsigned char>(start[7])));
    }
    const size_t length =
        static_cast<unsigned char>(start[8]) + size_t{256} * static_cast<unsigned char>(start[9]);
    if (start.size() < prefix_size + length) {
        fail("expected an .npy header of " + std::to_string(length) + " bytes, found " +
             std::to_string(start.size() - prefix_size));
    }
    const std::string_view dictionary = std::string_view(start).substr(prefix_size, length);

    Header header;
    header.data_offset = static_cast<int64_t>(prefix_size + length);
    const std::string_view descr = value_of(dictionary, "descr");
    const size_t descr_end = descr.size() < 2 ? std::string_view::npos : descr.find(descr[0], 1);
    if (descr_end != std::string_view::npos) header.descr = descr.substr(1, descr_end - 1);
    if (header.descr == "<f4") header.element_size = 4;
    if (header.descr == "<f8") header.element_size = 8;
    if (header.descr == "|u1") header.element_size = 1;
    if (header.element_size == 0) {
        fail("expected numbers of type <f4, <f8 or |u1, found \"" + header.descr + "\"");
    }
    const std::string_view order = value_of(dictionary, "fortran_order");
    if (order.compare(0, 5, "False") != 0) {
        fail("expected an array in C order, found " +
             std::string(order.compare(0, 4, "True") == 0 ? "Fortran order" : "no such field"));
    }
    if (!parse_tuple(value_of(dictionary, "shape"), header.shape)) {
        fail("expected a shape such as (3, 4), found none");
    }
    if (header.shape.empty() || header.shape.size() > most_dimensions) {
        fail("expected 1 to " + std::to_string(most_dimensions) + " dimensions, found " +
             std::to_string(header.shape.size()));
    }

    const int64_t bytes = file_size - header.data_offset;
    header.count = 1;
    for (const int64_t size : header.shape) {
        if (size < 1) fail("expected dimensions of at least 1, found " + std::to_string(size));
    }
    for (const int64_t size : header.shape) {
        // More elements than the file has bytes: no need to go on, and no overflow.
        if (size > bytes / header.count) {
            fail("expected the data of its shape, found " + grouped(bytes) + " bytes");
        }
        header.count *= size;
    }
    // No overflow: the count is at most the size of a file.
    if (header.count * header.element_size != bytes) {
        fail("expected " + grouped(header.count * header.element_size) + " bytes of data, found " +
             grouped(bytes));
    }
    return header;
}

Header header_of(const std::string& path, size_t most_dimensions) {
    const int64_t file_size = size_of_regular_file(path);
    return parse_header(path, first_bytes(path, prefix_size + 65535), file_size, most_dimensions);
}

}  // namespace

bool is_npy(const std::string& path) {
    return first_bytes(path, magic.size()) == magic;
}

std::vector<int64_t> read_npy_shape(const std::string& path, size_t most_dimensions) {
    return header_of(path, most_dimensions).shape;
}

NpyArray read_npy(const std::string& path, size_t most_dimensions) {
    const std::string bytes = whole_file(path, INT64_MAX);
    const Header header =
        parse_header(path, bytes, static_cast<int64_t>(bytes.size()), most_dimensions);
    NpyArray array;
    array.shape = header.shape;
    const size_t count = static_cast<size_t>(header.count);
    array.values.resize(count);
    const char* data = bytes.data() + header.data_offset;
    if (header.element_size == 4) std::memcpy(array.values.data(), data, count * 4);
    for (size_t i = 0; header.element_size == 8 && i < count; ++i) {
        double value = 0.0;
        std::memcpy(&value, data + i * 8, 8);
        // Beyond the range of float is infinity, as the rounding has it.
        array.values[i] = static_cast<float>(value);
    }
    for (size_t i = 0; header.element_size == 1 && i < count; ++i) {
        array.values[i] = static_cast<unsigned char>(data[i]);
    }
    return array;
}

std::string npy_bytes(const float* values, int c, int h, int w) {
    std::string dictionary = "{'descr': '<f4', 'fortran_order': False, 'shape': (" +
                             std::to_string(c) + ", " + std::to_string(h) + ", " +
                             std::to_string(w) + "), }";
    // The data starts at a multiple of 64; the header ends with a line end.
    const size_t length = (prefix_size + dictionary.size() + 1 + 63) / 64 * 64 - prefix_size;
    dictionary.resize(length - 1, ' ');
    dictionary += '\n';
    std::string bytes(magic);
    bytes += '\x01';
    bytes += '\0';
    bytes += static_cast<char>(length % 256);
    bytes += static_cast<char>(length / 256);
    bytes += dictionary;
    const size_t size =
        static_cast<size_t>(c) * static_cast<size_t>(h) * static_cast<size_t>(w) * sizeof(float);
    bytes.append(reinterpret_cast<const char*>(values), size);
    return bytes;
}

}  // namespace tool
