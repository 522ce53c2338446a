#include "modelkit/onnx/external_data.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "modelkit/onnx/descriptor.h"
#include "modelkit/onnx/graph.h"

namespace modelkit::onnx {

namespace {

bool parse_number(const std::string& text, uint64_t& number) {
    if (text.empty() || text.size() > 18) return false;
    number = 0;
    for (const char letter : text) {
        if (letter < '0' || letter > '9') return false;
        number = number * 10 + static_cast<uint64_t>(letter - '0');
    }
    return true;
}

}  // namespace

// The file that a tensor's location names, links followed.
Status ExternalData::find(const std::string& location, std::string& path) const {
    namespace fs = std::filesystem;
    const std::string name = in_quotes(location);
    if (folder.empty()) return Status::failure("external data " + name + " of a model in memory");
    const std::string outside = "external data " + name + " lies outside the model's folder";
    const fs::path relative(location);
    if (location.empty() || location.find('\0') != std::string::npos || relative.is_absolute()) {
        return Status::failure(outside);
    }
    for (const fs::path& part : relative) {
        if (part == "..") return Status::failure(outside);
    }
    std::error_code error;
    const fs::path root = fs::canonical(folder, error);
    if (error) return Status::failure("external data " + name + ": " + error.message());
    const fs::path file = fs::canonical(root / relative, error);
    if (error) return Status::failure("external data " + name + ": " + error.message());
    const auto [end, other] = std::mismatch(root.begin(), root.end(), file.begin(), file.end());
    if (end != root.end()) return Status::failure(outside);
    if (!fs::is_regular_file(file, error)) {
        return Status::failure("external data " + name + " is not a file");
    }
    path = file.string();
    return Status::success();
}

Status ExternalData::read(const ::onnx::TensorProto& tensor, uint64_t size, size_t piece,
                          const std::function<void(const char* bytes, size_t length)>& take) {
    std::string location;
    uint64_t offset = 0;
    uint64_t length = size;
    for (const auto& entry : tensor.external_data()) {
        if (entry.key() == "location") location = entry.value();
        if (entry.key() == "offset" && !parse_number(entry.value(), offset)) {
            return Status::failure("external data with offset " + in_quotes(entry.value()));
        }
        if (entry.key() == "length" && !parse_number(entry.value(), length)) {
            return Status::failure("external data with length " + in_quotes(entry.value()));
        }
    }
    std::string path;
    const Status found = find(location, path);
    if (!found) return found;
    if (length != size) {
        return Status::failure("external data of " + std::to_string(length) + " bytes, expected " +
                               std::to_string(size) + " for its shape");
    }
    const std::string name = "external data " + in_quotes(location);
    const Descriptor file(path);
    struct stat state = {};
    if (file.get() < 0 || fstat(file.get(), &state) != 0) {
        return Status::failure(name + ": " + std::strerror(errno));
    }
    // What was found may have been exchanged for something without an end.
    if (!S_ISREG(state.st_mode)) return Status::failure(name + " is not a file");
    const auto there = static_cast<uint64_t>(state.st_size);
    if (offset > there || size > there - offset) {
        return Status::failure(name + " has " + std::to_string(there) + " bytes, expected " +
                               std::to_string(size) + " from byte " + std::to_string(offset));
    }
    uint64_t& of_file = read_of[{state.st_dev, state.st_ino}];
    if (of_file + size > 2 * there) {
        return Status::failure(name + " has " + std::to_string(there) +
                               " bytes, expected at most twice as many in all tensors together, "
                               "found " +
                               std::to_string(of_file + size));
    }
    if (read_of_all + size > MOST_EXTERNAL_BYTES) {
        return Status::failure("external data of " + std::to_string(read_of_all + size) +
                               " bytes with the tensors before, expected at most " +
                               std::to_string(MOST_EXTERNAL_BYTES));
    }
    paths.insert(path);
    of_file += size;
    read_of_all += size;
    std::vector<char> bytes(static_cast<size_t>(std::min<uint64_t>(size, piece)));
    for (uint64_t done = 0; done < size;) {
        const auto wanted = static_cast<size_t>(std::min<uint64_t>(size - done, bytes.size()));
        size_t got = 0;
        while (got < wanted) {
            const ssize_t now = pread(file.get(), bytes.data() + got, wanted - got,
                                      static_cast<off_t>(offset + done + got));
            if (now < 0 && errno == EINTR) continue;
            if (now <= 0) return Status::failure(name + " cannot be read");
            got += static_cast<size_t>(now);
        }
        take(bytes.data(), wanted);
        done += wanted;
    }
    return Status::success();
}

}  // namespace modelkit::onnx
