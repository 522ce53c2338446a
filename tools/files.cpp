#include "files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "errors.h"
#include "host_system.h"
#include "interruption.h"
#include "numbers.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

std::string reason() {
    return std::strerror(errno);
}

const char* text_of(fs::file_type type) {
    switch (type) {
        case fs::file_type::directory:
            return "a folder";
        case fs::file_type::fifo:
            return "a pipe";
        case fs::file_type::socket:
            return "a socket";
        default:
            return "a device";
    }
}

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using OpenFile = std::unique_ptr<std::FILE, CloseFile>;

/// A file that was open for reading and found to be a regular one. A pipe is not even opened: there
/// may be nobody at its other side.
struct RegularFile {
    explicit RegularFile(const std::string& path) {
        std::error_code error;
        const fs::file_status status = fs::status(path, error);
        if (!error && fs::exists(status) && !fs::is_regular_file(status)) {
            throw CommandError(path + ": expected a regular file, found " + text_of(status.type()));
        }
        file.reset(std::fopen(path.c_str(), "rb"));
        if (!file) throw CommandError(path + ": expected a readable file, found: " + reason());
        size = static_cast<int64_t>(fs::file_size(path, error));
        if (error) {
            throw CommandError(path + ": expected a readable file, found: " + error.message());
        }
    }
    OpenFile file;
    int64_t size = 0;
};

std::string read_up_to(const RegularFile& file, const std::string& path, size_t most) {
    std::string bytes(most, '\0');
    bytes.resize(std::fread(bytes.data(), 1, most, file.file.get()));
    if (std::ferror(file.file.get()) != 0) {
        throw CommandError(path + ": expected a readable file, found: " + reason());
    }
    return bytes;
}

/// `temporary` must not be there yet.
void write_new_file(const std::string& temporary, const std::string& path,
                    std::string_view contents) {
    remove_when_interrupted(temporary);
    std::FILE* file = std::fopen(temporary.c_str(), "wbx");
    if (file == nullptr) {
        throw CommandError(path + ": expected a place to write to, found: " + reason());
    }
    const bool written = std::fwrite(contents.data(), 1, contents.size(), file) == contents.size();
    const int write_error = errno;
    // A full disk may show as late as this.
    const bool closed = std::fclose(file) == 0;
    if (written && closed) return;
    if (!written) errno = write_error;
    const std::string text = path + ": expected room for " +
                             grouped(static_cast<int64_t>(contents.size())) +
                             " bytes, found: " + reason();
    std::error_code ignored;
    fs::remove(temporary, ignored);
    throw CommandError(text);
}

/// A name beside `path` that no other run has.
std::string temporary_name(const fs::path& path) {
    fs::path beside = path;
    beside.replace_filename("." + path.filename().string() + ".unfinished-" +
                            std::to_string(process_number()));
    return beside.string();
}

/// Where a file really goes: a link keeps pointing to what is written.
fs::path behind_links(const std::string& path) {
    std::error_code error;
    const fs::path target = fs::canonical(path, error);
    return error ? fs::path(path) : target;
}

}  // namespace

int64_t size_of_regular_file(const std::string& path) {
    return RegularFile(path).size;
}

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

void OutputFiles::expect_apart(const std::string& path) const {
    for (const std::string& input : kept) {
        std::error_code is_missing;
        if (!fs::equivalent(path, input, is_missing) || is_missing) continue;
        throw CommandError(path +
                           ": expected a place for the output apart from the inputs, found " +
                           (path == input ? "one of them" : "the input " + input));
    }
}

std::string OutputFiles::write(const std::string& path, std::string_view contents) {
    expect_apart(path);
    const fs::path target = behind_links(path);
    std::error_code ignored;
    const fs::file_status status = fs::status(target, ignored);
    // A rename would replace a device by a file.
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        throw CommandError(path + ": expected a regular file or none, found " +
                           text_of(status.type()));
    }
    const std::string temporary = temporary_name(target);
    write_new_file(temporary, path, contents);
    files.push_back({temporary, target.string()});
    return temporary;
}

void OutputFiles::folder(const std::string& path) {
    fs::path target = behind_links(path);
    // "a/b/" has an empty last name.
    if (!target.has_filename()) target = target.parent_path();
    std::error_code error;
    const fs::file_status status = fs::status(target, error);
    const bool exists = fs::exists(status);
    if (exists && !fs::is_directory(status)) {
        throw CommandError(path + ": expected a folder or nothing, found a file");
    }
    // Inside a folder that is there: it may be the root of another file system than its parent.
    const std::string staging = temporary_name(exists ? target / "layers" : target);
    remove_when_interrupted(staging);
    fs::create_directory(staging, error);
    if (error) {
        throw CommandError(path + ": expected a place for a folder, found: " + error.message());
    }
    folders.push_back({path, staging});
}

void OutputFiles::write_in_folder(const std::string& path, const std::string& name,
                                  std::string_view contents) {
    const auto folder = std::find_if(folders.begin(), folders.end(),
                                     [&](const Folder& each) { return each.path == path; });
    expect_apart(path + "/" + name);
    const std::string temporary = folder->staging + "/" + name;
    write_new_file(temporary, path + "/" + name, contents);
    files.push_back({temporary, path + "/" + name});
}

void flush_standard_output() {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return;
    throw CommandError("standard output: expected room to write, found: " + reason());
}

void OutputFiles::commit() {
    flush_standard_output();
    for (const Folder& folder : folders) {
        std::error_code error;
        fs::create_directory(folder.path, error);
        if (error) {
            throw CommandError(folder.path +
                               ": expected a place for a folder, found: " + error.message());
        }
    }
    for (const Staged& file : files) {
        std::error_code error;
        fs::rename(file.temporary, file.final, error);
        if (error) {
            throw CommandError(file.final +
                               ": expected a place to write to, found: " + error.message());
        }
    }
    files.clear();
    std::error_code ignored;
    for (const Folder& folder : folders) fs::remove_all(folder.staging, ignored);
    folders.clear();
}

}  // namespace tool
