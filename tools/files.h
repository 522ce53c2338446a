// Files in and out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

/// Size of a regular file. Throws CommandError for what can't be opened, a folder, a pipe or a
/// device: a device may have no end, and a pipe nobody at its other side.
int64_t size_of_regular_file(const std::string& path);

/// The first bytes of a file, at most `most` of them.
std::string first_bytes(const std::string& path, size_t most);

/// The whole of a regular file of at most `most` bytes.
std::string whole_file(const std::string& path, int64_t most);

/// ".png" of "a/b.PNG": lower case, with the dot; empty without one.
std::string extension_of(const std::string& path);

/// Throws CommandError when something that was printed could not be written: a full disk shows when
/// the buffer goes out.
void flush_standard_output();

/// Files that are written together or not at all. Each is written beside its final place, and takes
/// that place in `commit`; whatever was not committed is taken away by the destructor, or when a
/// signal ends the process.
class OutputFiles {
public:
    OutputFiles() = default;
    ~OutputFiles();
    OutputFiles(const OutputFiles&) = delete;
    OutputFiles& operator=(const OutputFiles&) = delete;

    /// `path` is read: no output may take its place. A path that is not there does no harm.
    void keep(const std::string& path) { kept.push_back(path); }
    /// Throws CommandError when `path` is a kept file, by whatever spelling or link. What writes
    /// asks this by itself; asked before the work, it spares the work.
    void expect_apart(const std::string& path) const;

    /// Writes `contents` for `path`. An existing `path` must be a regular file. Gives the place
    /// where the file lies until `commit`.
    std::string write(const std::string& path, std::string_view contents);

    /// Folder for files that are not `write`n: made when it is not there, by `commit`.
    void folder(const std::string& path);
    /// Writes `contents` for `path` / `name`, `path` having been handed to `folder`.
    void write_in_folder(const std::string& path, const std::string& name,
                         std::string_view contents);

    /// What is printed before goes out first: without room for the report nothing is committed.
    void commit();

private:
    struct Staged {
        std::string temporary;
        std::string final;
    };
    struct Folder {
        std::string path;
        std::string staging;
    };
    std::vector<std::string> kept;
    std::vector<Staged> files;
    std::vector<Folder> folders;
};

}  // namespace tool
