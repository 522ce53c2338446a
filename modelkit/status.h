// Success, or one line that says what went wrong.
#pragma once

#include <string>
#include <utility>

namespace modelkit {

class [[nodiscard]] Status {
public:
    static Status success() { return Status(std::string()); }
    /// `text` is not empty.
    static Status failure(std::string text) { return Status(std::move(text)); }

    bool ok() const { return text.empty(); }
    explicit operator bool() const { return ok(); }
    /// Empty on success.
    const std::string& message() const { return text; }

private:
    explicit Status(std::string text) : text(std::move(text)) {}
    std::string text;
};

}  // namespace modelkit
