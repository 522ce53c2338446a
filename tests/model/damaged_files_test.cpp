// Files that are cut off, altered or made up: they load or they don't, and nothing else happens.
#include <gtest/gtest.h>
#include <modelkit/records.h>
#include <sys/mman.h>
#include <tarno/model.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "hand_made.h"
#include "support/recorders.h"
#include "support/temporary_file.h"

// How much memory is asked for while a meter is running. Only this thread allocates.
namespace {
struct MemoryMeter {
    bool running = false;
    size_t largest = 0;
    size_t total = 0;
    size_t limit = SIZE_MAX;  ///< larger blocks are refused, where the meter is in the way of them
    void count(size_t size) {
        if (!running) return;
        largest = std::max(largest, size);
        total += size;
    }
};
MemoryMeter meter;
}  // namespace

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer brings its own allocator, which calls back.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*malloc_hook)(const volatile void*,
                                                                             size_t),
                                                         void (*free_hook)(const volatile void*));
namespace {
void meter_allocation(const volatile void*, size_t size) {
    meter.count(size);
}
void meter_release(const volatile void*) {}
const int meter_installed =
    __sanitizer_install_malloc_and_free_hooks(&meter_allocation, &meter_release);
}  // namespace
#else
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* malloc(size_t size) {
    meter.count(size);
    return size > meter.limit ? nullptr : __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    meter.count(count * size);
    return count * size > meter.limit ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) {
    meter.count(size);
    return __libc_realloc(block, size);
}
}
#endif

namespace {

using hand_made::Bytes;
using hand_made::message;
using testing_support::AssertRecorder;
using testing_support::LogRecorder;
using testing_support::TemporaryFile;

using File = std::vector<unsigned char>;

// A file in memory under a path.
class MemoryFile {
public:
    MemoryFile() : descriptor(memfd_create("model", 0)) {
        name = "/proc/self/fd/" + std::to_string(descriptor);
    }
    ~MemoryFile() { close(descriptor); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    const char* path() const { return name.c_str(); }
    bool write(const File& bytes) const {
        return ftruncate(descriptor, 0) == 0 && pwrite(descriptor, bytes.data(), bytes.size(), 0) ==
                                                    static_cast<ssize_t>(bytes.size());
    }

private:
    int descriptor;
    std::string name;
};

// Keeps assertions, log lines and standard output away for the length of a scope.
class Quiet {
public:
    Quiet() : previous(Tarno::SetAssertHandler([](const char*, const char*, int) {})) {
        Tarno::SetLogLevel(Tarno::LogLevel::Silent);
        testing::internal::CaptureStdout();
    }
    ~Quiet() {
        testing::internal::GetCapturedStdout();
        Tarno::SetLogLevel(Tarno::LogLevel::Info);
        Tarno::SetAssertHandler(previous);
    }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

private:
    Tarno::AssertHandler previous;
};

// Looks at everything that a loader gives, and checks what holds for every loader. Returns a sum
// over all numbers, so that none of them goes unread.
uint64_t walk(const ZQNetLoader& loader, bool loaded, bool sorted) {
    uint64_t sum = loader.getGestureMode() + loader.decodeModelID().size();
    const auto layers = loader.getLayersInfo();
    const auto order = loader.getSequentialLayers();
    const auto counts = loader.getLayersRCnt();
    EXPECT_EQ(loaded, loader.failure().empty());
    EXPECT_EQ(std::string::npos, loader.failure().find('\n'));
    EXPECT_LE(layers.size(), order.size());
    EXPECT_EQ(loaded ? layers.size() : 0, counts.size());
    for (const auto& [id, record] : layers) {
        EXPECT_EQ(id, record->id);
        for (const modelkit::RecordField& field : modelkit::fields_of(*record)) {
            for (const unsigned int value : field.values)
                sum += value;
        }
    }
    for (const unsigned short id : order) {
        EXPECT_TRUE(sorted || layers.count(id) == 1);
    }
    return sum;
}

uint64_t load_and_walk(const MemoryFile& file, const File& bytes) {
    EXPECT_TRUE(file.write(bytes));
    uint64_t sum = 0;
    for (const bool sort : {false, true}) {
        ZQNetLoader loader;
        const bool loaded = loader.LoadFile(file.path(), sort);
        sum += walk(loader, loaded, sort);
    }
    return sum;
}

TEST(DamagedFile, EveryTruncationOfAFileOfAllTypesIsSurvived) {
    for (const unsigned int version : {10000u, 10011u}) {
        const File whole = hand_made::file_of_all_types(version);
        const size_t types = hand_made::types_of(version).size();
        // Where messages end.
        std::vector<size_t> ends = {1000};
        for (const unsigned int type : hand_made::types_of(version)) {
            const size_t payload = hand_made::payload(type, version).data.size();
            ends.push_back(ends.back() + 2 + 2 + payload + 2);
        }
        ASSERT_EQ(whole.size(), ends.back());

        const MemoryFile file;
        Quiet quiet;
        for (size_t size = 0; size <= whole.size(); ++size) {
            ASSERT_TRUE(file.write({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)}));
            ZQNetLoader loader;
            const bool loaded = loader.LoadFile(file.path(), false);
            walk(loader, loaded, false);
            // Complete messages, those that lack nothing but their end mark included.
            size_t complete = 0;
            while (complete < types && size + 2 >= ends[complete + 1])
                ++complete;
            const size_t expected = size < 1000 ? 0 : complete;
            ASSERT_EQ(expected, loader.getSequentialLayers().size()) << size;
            const bool at_an_end = std::any_of(ends.begin(), ends.end(), [size](size_t end) {
                return size == end || size == end + 1;
            });
            const bool lacks_its_end = expected != 0 && size < ends[expected];
            ASSERT_EQ(at_an_end || (version == 10000 && lacks_its_end), loaded) << size;
        }
    }
}

File mutated(const File& original, std::mt19937& generator) {
    File bytes = original;
    const auto below = [&generator](size_t limit) {
        return limit == 0 ? 0 : static_cast<size_t>(generator()) % limit;
    };
    // The reserved words of the header change nothing: places are taken from what counts.
    const auto place = [&] {
        return generator() % 16 == 0 || bytes.size() <= 1000 ? below(bytes.size())
                                                             : 1000 + below(bytes.size() - 1000);
    };
    const size_t changes = 1 + below(4);
    for (size_t i = 0; i < changes && !bytes.empty(); ++i) {
        const size_t at = place();
        const size_t length = std::min(1 + below(64), bytes.size() - at);
        const auto begin = bytes.begin() + static_cast<ptrdiff_t>(at);
        const auto end = begin + static_cast<ptrdiff_t>(length);
        switch (generator() % 8) {
            case 0:
                bytes[at] ^= static_cast<unsigned char>(1u << below(8));
                break;
            case 1:
                bytes[at] = static_cast<unsigned char>(generator());
                break;
            case 2:  // a word blown up
                bytes[at] = 0xff;
                if (at + 1 < bytes.size()) bytes[at + 1] = 0xff;
                break;
            case 3:  // a small word in an even place
                bytes[at & ~size_t{1}] = static_cast<unsigned char>(below(28));
                if ((at | 1) < bytes.size()) bytes[at | 1] = 0;
                break;
            case 4:
                bytes.erase(begin, end);
                break;
            case 5: {
                const File copy(begin, end);
                bytes.insert(end, copy.begin(), copy.end());
                break;
            }
            case 6:
                std::fill(begin, end, static_cast<unsigned char>(0));
                break;
            default:
                bytes.resize(at);
                break;
        }
    }
    return bytes;
}

TEST(DamagedFile, TwentyThousandMutationsAreSurvived) {
    const unsigned int seed = 4711;
    SCOPED_TRACE(seed);
    std::mt19937 generator(seed);
    std::vector<File> originals;
    for (const unsigned int version : {10011u, 10000u, 10011u, 10002u, 10008u}) {
        originals.push_back(hand_made::file_of_all_types(version));
    }
    const MemoryFile file;
    uint64_t sum = 0;
    {
        Quiet quiet;
        for (size_t i = 0; i < 20000; ++i) {
            sum += load_and_walk(file, mutated(originals[i % originals.size()], generator));
            ASSERT_FALSE(HasFailure()) << "mutation " << i;
        }
    }
    EXPECT_NE(0u, sum);
}

// A payload of `type` whose counts are as large as they go, and no arrays behind them.
Bytes bloated(unsigned int type) {
    const unsigned int most = 65535;
    Bytes p;
    p.u16(1);
    switch (type) {
        case 1:
            return p.u16(0)
                .list({0, 0, most, 0, 0, most, most, most, 0, 0, 1, 1, 1, 1, 1, 0, 1})
                .zeros(10);
        case 2:
            return p.u16(0).list({0, 0, most, 0, 0, most, most, most, 0, 0, 1, 1, 1, 0, 1});
        case 3:
        case 16:
            return p.u16(0).list(
                {0, 0, most, 0, 0, most, most, most, most, 0, 0, 1, 1, 1, 1, 1, 0});
        case 7:
            return p.u16(0).list({0, 0, most});
        case 15:
            return p.u16(0).list({0, 0, most}).zeros(10);
        case 21:
            return p.u16(0).list({most, most, 1}).tensor(0, 1, 1).tensor(0, 1, 1);
        case 22:
            return p.u16(0).list({most, most, most, 1, 1, 1}).tensor(0, 1, 1).tensor(0, 1, 1);
        default:
            return p;
    }
}

TEST(DamagedFile, CountsBeyondTheFileTakeNoMemory) {
    for (const unsigned int type : {1u, 2u, 3u, 7u, 15u, 16u, 21u, 22u}) {
        // Some bytes behind the counts, as if the array began.
        const File bytes =
            hand_made::file(10011, {message(type, bloated(type)), Bytes().zeros(200)});
        const TemporaryFile file(bytes);
        ZQNetLoader loader;
        meter = {true, 0, 0, SIZE_MAX};
        const bool loaded = loader.LoadFile(file.path(), false);
        meter.running = false;
        EXPECT_FALSE(loaded) << type;
        EXPECT_NE(std::string::npos, loader.failure().find("left in the file")) << loader.failure();
        EXPECT_TRUE(loader.getSequentialLayers().empty());
        EXPECT_GT(meter.total, 0u) << "the meter runs";
        EXPECT_LT(meter.largest, 16384u) << type;
        EXPECT_LT(meter.total, 65536u) << type;
    }
}

TEST(DamagedFile, MemoryStaysInProportionToTheFile) {
    // The records that take most memory for their bytes: small ones in great number, LSTM layers of
    // one unit, and LSTM layers without any.
    std::vector<std::vector<Bytes>> files(4);
    for (unsigned int id = 0; id < 5000; ++id) {
        files[0].push_back(message(6, Bytes().u16(id).u16(0).zeros(3)));
    }
    Bytes lstm;
    lstm.u16(1).u16(0).list({1, 1, 5000, 1, 1, 1}).tensor(0, 1, 1).tensor(0, 1, 1);
    files[1].push_back(message(22, lstm.zeros(5000 * 2 * 4 * 4)));
    for (unsigned int id = 0; id < 500; ++id) {
        Bytes none;
        none.u16(id).u16(0).list({65535, 0, 65535, 1, 1, 1}).tensor(0, 1, 1).tensor(0, 1, 1);
        files[2].push_back(message(22, none));
    }
    for (unsigned int id = 0; id < 5000; ++id) {
        files[3].push_back(message(6, Bytes().u16(7).u16(0).zeros(3)));  // one id for all
    }
    for (const std::vector<Bytes>& messages : files) {
        const File bytes = hand_made::file(10011, messages);
        const TemporaryFile file(bytes);
        ZQNetLoader loader;
        meter = {true, 0, 0, SIZE_MAX};
        const bool loaded = loader.LoadFile(file.path(), true);
        meter.running = false;
        EXPECT_TRUE(loaded) << loader.failure();
        // A message of 16 bytes becomes an object, three arrays, and a place in four containers.
        EXPECT_LT(meter.total, 32 * bytes.size() + 65536);
    }
}

#if !defined(__SANITIZE_ADDRESS__)
TEST(DamagedFile, MemoryThatIsShortFailsTheLoad) {
    // 100,000 weights: 200,000 bytes of halves, 400,000 of floats.
    const Bytes dense =
        Bytes().u16(1).u16(0).list({1000, 100, 0}).tensor(0, 1, 1).tensor(0, 1, 1).zeros(100000);
    // 20,000 layers with one unit: lists of 160,000 bytes.
    const Bytes lstm = Bytes()
                           .u16(1)
                           .u16(0)
                           .list({0, 1, 20000, 0, 0, 0})
                           .tensor(0, 1, 1)
                           .tensor(0, 1, 1)
                           .zeros(80000);
    const Bytes permutation = Bytes().u16(1).u16(0).list({0, 0, 60000}).zeros(10 + 60000);
    const struct {
        unsigned int type;
        const Bytes& payload;
        size_t limit;
        const char* array;
    } cases[] = {{21, dense, 150000, "weights"},
                 {21, dense, 300000, "weights"},
                 {22, lstm, 150000, "w_ih"},
                 {15, permutation, 100000, "permutation"}};
    for (const auto& c : cases) {
        const TemporaryFile file(hand_made::file(10011, {message(c.type, c.payload)}));
        ZQNetLoader loader;
        EXPECT_TRUE(loader.LoadFile(file.path(), false)) << loader.failure();
        ZQNetLoader short_of_memory;
        meter.limit = c.limit;
        const bool loaded = short_of_memory.LoadFile(file.path(), false);
        meter.limit = SIZE_MAX;
        EXPECT_FALSE(loaded);
        EXPECT_TRUE(short_of_memory.getSequentialLayers().empty());
        const std::string reason = std::string(c.array) + ": out of memory";
        EXPECT_NE(std::string::npos, short_of_memory.failure().find(reason))
            << short_of_memory.failure();
    }
}
#endif

TEST(DamagedFile, FailureNamesPlaceLayerAndTypeExpectedAndFound) {
    const TemporaryFile file(
        hand_made::file(10011, {hand_made::input(0), message(7, bloated(7)), Bytes().zeros(50)}));
    ZQNetLoader loader;
    EXPECT_FALSE(loader.LoadFile(file.path(), false));
    // 1000 bytes of header, 16 of the input, 4 of the message's frame, 10 of its first fields; the
    // end mark and 50 words are left.
    EXPECT_EQ(
        "offset 1030, record 1, layer id 1, type 7 (BatchNormalization): bn_a: 65535 numbers of 2 "
        "bytes expected, 102 bytes left in the file",
        loader.failure());
}

TEST(DamagedFile, ASuccessfulLoadClearsTheReasonOfTheOneBefore) {
    const TemporaryFile file(hand_made::file(10011, {hand_made::input(0)}));
    ZQNetLoader loader;
    EXPECT_FALSE(loader.LoadFile("/no/such/model", false));
    EXPECT_NE("", loader.failure());
    EXPECT_TRUE(loader.LoadFile(file.path(), false));
    EXPECT_EQ("", loader.failure());
}

}  // namespace
