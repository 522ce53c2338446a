// Model files pushed together number by number, without the writer of the project: what reader and
// writer are held against.
//
// Every field of a payload has a value of its own, so that two fields that change places are seen.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace hand_made {

class Bytes {
public:
    std::vector<unsigned char> data;

    Bytes& u16(unsigned int value) {
        data.push_back(static_cast<unsigned char>(value % 256));
        data.push_back(static_cast<unsigned char>(value / 256 % 256));
        return *this;
    }
    Bytes& u32(uint32_t value) { return u16(value % 65536).u16(value / 65536); }
    Bytes& list(const std::vector<unsigned int>& values) {
        for (const unsigned int value : values)
            u16(value);
        return *this;
    }
    /// `count` numbers from `first`, each one more than the one before.
    Bytes& run(unsigned int first, size_t count) {
        for (size_t i = 0; i < count; ++i)
            u16((first + static_cast<unsigned int>(i)) % 65536);
        return *this;
    }
    Bytes& zeros(size_t words) { return list(std::vector<unsigned int>(words, 0)); }
    /// kind, rank, and dims that count up from `first_dim`.
    Bytes& tensor(uint32_t kind, unsigned int rank, unsigned int first_dim) {
        return u32(kind).u16(rank).run(first_dim, 11);
    }
    Bytes& add(const Bytes& other) {
        data.insert(data.end(), other.data.begin(), other.data.end());
        return *this;
    }
};

inline Bytes header(uint32_t version) {
    Bytes bytes;
    bytes.u32(0x5555).u32(version).u32(7001).u32(7002).u32(301000010).u32(320).u32(240);
    for (uint32_t word = 7; word < 249; ++word)
        bytes.u32(0x80000000u + word);
    return bytes.u32(0xaaaa);
}

inline Bytes message(unsigned int type, const Bytes& payload) {
    return Bytes().u16(0x5555).u16(type).add(payload).u16(0xaaaa);
}

/// A header and messages behind it.
inline std::vector<unsigned char> file(uint32_t version, const std::vector<Bytes>& messages) {
    Bytes bytes = header(version);
    for (const Bytes& message : messages)
        bytes.add(message);
    return bytes.data;
}

/// An activation, a short message that reads one layer.
inline Bytes activation(unsigned int id, unsigned int bottom) {
    return message(8, Bytes().u16(id).u16(bottom).list({0x3c00, 0x3c00, 3}).list({2, 0, 0}));
}
inline Bytes input(unsigned int id) {
    return message(0, Bytes().u16(id).list({0x3c00, 0x3c00, 3}).u16(0));
}
/// An element-wise operator over up to ten bottoms.
inline Bytes eltwise(unsigned int id, const std::vector<unsigned int>& bottoms) {
    return message(10, Bytes()
                           .u16(id)
                           .u16(static_cast<unsigned int>(bottoms.size()))
                           .list(bottoms)
                           .zeros(10 - bottoms.size())
                           .list({0x3c00, 0x3c00, 3})
                           .list({0, 0}));
}

// The payload of each type with id 900 + type and bottom 40 + type. Arrays count up from the first
// number that stands beside them.

struct LstmForm {
    bool bias = true;
    bool bidirectional = true;
};

inline Bytes lstm_payload(uint32_t version, const LstmForm& form) {
    Bytes p;
    p.u16(922).u16(62).list({3, 2, 2, form.bias ? 5u : 0u, form.bidirectional ? 6u : 0u});
    if (version >= 10009) p.u16(77);
    p.tensor(0x00030004, 2, 200).tensor(0x00050006, 3, 300);
    for (unsigned int layer = 0; layer < 2; ++layer) {
        const unsigned int base = 1000 * (layer + 1);
        p.run(base, 4 * 2 * 3).run(base + 100, 4 * 2 * 2);
        if (form.bias) p.run(base + 200, 8).run(base + 300, 8);
        if (form.bidirectional) {
            p.run(base + 400, 4 * 2 * 3).run(base + 500, 4 * 2 * 2);
            if (form.bias) p.run(base + 600, 8).run(base + 700, 8);
        }
    }
    return p;
}

inline Bytes payload(unsigned int type, uint32_t version) {
    const bool legacy = version == 10000;
    Bytes p;
    p.u16(900 + type);
    switch (type) {
        case 0:
            return p.list({11, 12, 13}).u16(14);
        case 1:
            p.u16(41).list({11, 12, 5}).list({13, 14, 4});  // 4 channels in, 5 out
            p.list({2, 3, 15, 16, 17, 18, 19, 20, 0, 22});  // has_bias 0, with a bias all the same
            if (legacy) return p.run(100, 4 * 5 * 2 * 3).run(300, 5);
            p.u16(2).run(80, 10);  // 2 groups
            return p.run(100, (4 / 2) * 5 * 2 * 3).run(300, 5);
        case 2:
            p.u16(42).list({11, 12, 3}).list({13, 14, 4});
            p.list({2, 3, 15, 16, 17, 18, 19, 20});
            if (version < 10003) return p.run(100, 4 * 3 * 2 * 3).run(300, 3);
            return p.u16(3).run(100, 4 * 3 * 2 * 3 / 3).run(300, 3);
        case 3:
        case 16:
            p.u16(40 + type).list({11, 12, 6}).list({13, 14, 3});
            p.list({2, 2, 4, 15, 16, 17, 18, 19, 20, 21, 22});  // multiplier 2, 2 wide, 4 high
            return p.run(100, 3 * 2 * 2 * 4).run(300, 6);
        case 4:
            return p.u16(44).list({11, 12, 13}).list({14, 15, 16}).u16(0x4000);
        case 5:
            return p.u16(45).list({11, 12, 13}).list({14, 15, 16}).run(17, 7);
        case 6:
            return p.u16(46).list({11, 12, 13});
        case 7:
            return p.u16(47).list({11, 12, 3}).run(100, 3).run(200, 3).run(300, 3).run(400, 3);
        case 8:
            return p.u16(48).list({11, 12, 13}).list({14, 0x3c00, 0xc000});
        case 9:
            return p.u16(49).list({11, 12, 13}).list({14, 15, 16});
        case 10:
            return p.u16(3).run(50, 10).list({11, 12, 13}).list({14, 15});
        case 11:
            return p.u16(2).run(50, 10).run(100, 30).list({11, 12, 13}).u16(14);
        case 14:
            p.u16(54).list({11, 12, 13}).list({14, 15, 16}).list({0x4400, 17});
            return version >= 10007 ? p.u16(18) : p;
        case 15:
            return p.u16(55).list({11, 12, 4}).run(80, 10).list({3, 1, 2, 0});
        case 17:
            return p.u16(14).tensor(0x00010002, 4, 200);
        case 18:
            return p.u16(58).tensor(0x00030004, 2, 200).tensor(0x00050006, 12, 300);
        case 19:
            return p.u16(59).tensor(0x00030004, 2, 200).tensor(0x00050006, 3, 300).run(80, 10);
        case 20:
            return p.u16(60).u16(14).tensor(0x00030004, 2, 200).tensor(0x00050006, 3, 300);
        case 21:
            return p.u16(61)
                .list({3, 2, 15})
                .tensor(0x00030004, 2, 200)
                .tensor(0x00050006, 3, 300)
                .run(100, 6)
                .run(400, 2);
        case 22:
            return lstm_payload(version, LstmForm());
        case 26:
            return p.u16(66).tensor(0x00030004, 2, 200).list({14, 15, 16});
        default:
            return p;
    }
}

/// The message types that a file of a version may hold, in ascending order.
inline std::vector<unsigned int> types_of(uint32_t version) {
    std::vector<unsigned int> types = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 14, 15};
    if (version >= 10003) types.push_back(16);
    if (version >= 10008) types.insert(types.end(), {17, 18, 19, 20, 21, 22});
    if (version >= 10011) types.push_back(26);
    return types;
}

/// A file with one message of each type that its version may hold.
inline std::vector<unsigned char> file_of_all_types(uint32_t version) {
    std::vector<Bytes> messages;
    for (const unsigned int type : types_of(version)) {
        messages.push_back(message(type, payload(type, version)));
    }
    return file(version, messages);
}

/// The value of a half, by the definition of the format.
inline double half_value(unsigned int pattern) {
    const double sign = pattern >= 0x8000 ? -1.0 : 1.0;
    const int exponent = static_cast<int>(pattern / 1024 % 32);
    const int mantissa = static_cast<int>(pattern % 1024);
    if (exponent == 31) {
        return mantissa == 0 ? sign * std::numeric_limits<double>::infinity()
                             : std::numeric_limits<double>::quiet_NaN();
    }
    if (exponent == 0) return sign * std::ldexp(mantissa, -24);
    return sign * std::ldexp(1024 + mantissa, exponent - 25);
}

}  // namespace hand_made
