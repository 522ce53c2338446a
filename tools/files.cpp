#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "errors.h"
#include "numbers.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

std::string reason() { return std::strerror(errno); }

const char* kind_of(mode_t mode) {
    if (S_ISDIR(mode)) return "a folder";
    if (S_ISFIFO(mode)) return "a pipe";
    if (S_ISSOCK(mode)) return "a socket";
    return "a device";
}

/// A descriptor that closes itself.
class OpenFile {
public:
    OpenFile(const std::string& path, int flags, mode_t mode = 0)
        : descriptor(open(path.c_str(), flags | O_CLOEXEC, mode)) {}
    ~OpenFile() {
        if (descriptor >= 0) close(descriptor);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    int descriptor;
};

/// Opens a regular file for reading. O_NONBLOCK lets a pipe without a writer be refused, too.
struct RegularFile : OpenFile {
    explicit RegularFile(const std::string& path) : OpenFile(path, O_RDONLY | O_NONBLOCK) {
        struct stat status;
        if (descriptor < 0 || fstat(descriptor, &status) != 0) {
            throw CommandError(path + ": expected a readable file, found: " + reason());
        }
        if (!S_ISREG(status.st_mode)) {
            throw CommandError(path + ": expected a regular file, found " +
                               kind_of(status.st_mode));
        }
        size = status.st_size;
    }
    int64_t size = 0;
};

std::string read_up_to(const RegularFile& file, const std::string& path, size_t most) {
    std::string bytes(most, '\0');
    size_t done = 0;
    while (done < most) {
        const ssize_t count = read(file.descriptor, &bytes[done], most - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw CommandError(path + ": expected a readable file, found: " + reason());
        if (count == 0) break;
        done += static_cast<size_t>(count);
    }
    bytes.resize(done);
    return bytes;
}

void write_new_file(const std::string& temporary, const std::string& path,
                    const std::string& contents) {
    OpenFile file(temporary, O_WRONLY | O_CREAT | O_EXCL, 0666);
    if (file.descriptor < 0) {
        throw CommandError(path + ": expected a place to write to, found: " + reason());
    }
    size_t done = 0;
    while (done < contents.size()) {
        const ssize_t count = write(file.descriptor, &contents[done], contents.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            const std::string text = path + ": expected room for " +
                                     grouped(static_cast<int64_t>(contents.size())) +
                                     " bytes, found: " + reason();
            unlink(temporary.c_str());
            throw CommandError(text);
        }
        done += static_cast<size_t>(count);
    }
}

/// A name beside `path` that no other run has.
std::string temporary_name(const fs::path& path) {
    fs::path beside = path;
    beside.replace_filename("." + path.filename().string() + ".unfinished-" +
                            std::to_string(getpid()));
    return beside.string();
}

/// Where a file really goes: a link keeps pointing to what is written.
fs::path behind_links(const std::string& path) {
    std::error_code error;
    const fs::path target = fs::canonical(path, error);
    return error ? fs::path(path) : target;
}

}  // namespace

int64_t size_of_regular_file(const std::string& path) { return RegularFile(path).size; }

std::string first_bytes(const std::string& path, size_t most) {
    return read_up_to(RegularFile(path), path, most);
}

std::string whole_file(const std::string& path, int64_t most) {
    const RegularFile file(path);
    if (file.size > most) {
        throw CommandError(path + ": expected a file of at most " + grouped(most) +
                           " bytes, found " + grouped(file.size));
    }
    return read_up_to(file, path, static_cast<size_t>(file.size));
}

std::string extension_of(const std::string& path) {
    std::string extension = fs::path(path).extension().string();
    for (char& c : extension) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return extension;
}

OutputFiles::~OutputFiles() {
    std::error_code ignored;
    for (const Staged& file : files) fs::remove(file.temporary, ignored);
    for (const Folder& folder : folders) fs::remove_all(folder.staging, ignored);
}

void OutputFiles::write(const std::string& path, const std::string& contents) {
    const fs::path target = behind_links(path);
    struct stat status;
    // A rename would replace a device by a file.
    if (stat(target.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        throw CommandError(path + ": expected a regular file or none, found " +
                           kind_of(status.st_mode));
    }
    const std::string temporary = temporary_name(target);
    write_new_file(temporary, path, contents);
    files.push_back({temporary, target.string()});
}

void OutputFiles::folder(const std::string& path) {
    fs::path target = behind_links(path);
    // "a/b/" has an empty last name.
    if (!target.has_filename()) target = target.parent_path();
    struct stat status;
    const bool exists = stat(target.c_str(), &status) == 0;
    if (exists && !S_ISDIR(status.st_mode)) {
        throw CommandError(path + ": expected a folder or nothing, found a file");
    }
    // Inside a folder that is there: it may be the root of another file system than its parent.
    const std::string staging = temporary_name(exists ? target / "layers" : target);
    if (mkdir(staging.c_str(), 0777) != 0) {
        throw CommandError(path + ": expected a place for a folder, found: " + reason());
    }
    folders.push_back({path, staging});
}

void OutputFiles::write_in_folder(const std::string& path, const std::string& name,
                                  const std::string& contents) {
    const auto folder = std::find_if(folders.begin(), folders.end(),
                                     [&](const Folder& each) { return each.path == path; });
    const std::string temporary = folder->staging + "/" + name;
    write_new_file(temporary, path + "/" + name, contents);
    files.push_back({temporary, path + "/" + name});
}

void OutputFiles::commit() {
    for (const Folder& folder : folders) {
        std::error_code error;
        fs::create_directory(folder.path, error);
        if (error) {
            throw CommandError(folder.path + ": expected a place for a folder, found: " +
                               error.message());
        }
    }
    for (const Staged& file : files) {
        if (rename(file.temporary.c_str(), file.final.c_str()) != 0) {
            throw CommandError(file.final + ": expected a place to write to, found: " + reason());
        }
    }
    files.clear();
    std::error_code ignored;
    for (const Folder& folder : folders) fs::remove_all(folder.staging, ignored);
    folders.clear();
}

}  // namespace tool
