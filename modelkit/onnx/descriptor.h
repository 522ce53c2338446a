// A file that is open for reading.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>

namespace modelkit::onnx {

class Descriptor {
public:
    explicit Descriptor(const std::string& path)
        : number(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    ~Descriptor() {
        if (number >= 0) close(number);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    /// Negative when it could not be opened; errno says why.
    int get() const { return number; }

private:
    int number;
};

}  // namespace modelkit::onnx
