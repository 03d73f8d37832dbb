// Record locks on files that processes of different users share, each with a line about its holder.
// The kernel releases such a lock when its holder ends, however it ends, so a process that was
// killed leaves only the file behind.
#pragma once

#include <string>

namespace qv {

// Owns a descriptor. Closing it releases the record locks that were taken through it.
class File {
 public:
    File() = default;
    explicit File(int fd) : fd_(fd) {}
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;
    ~File();

    int fd() const { return fd_; }
    bool open() const { return fd_ >= 0; }

 private:
    int fd_ = -1;
};

// Opens a lock's file to take the lock, mode 0660 when it is created. On failure the result is
// closed and errno says why. Links and special files are refused: others may write to the folder.
File create_lock_file(const std::string& path);
// Opens it to look at the lock only.
File open_lock_file(const std::string& path);

// Returns false, with errno set, when another descriptor has the lock.
bool try_lock(const File& file);
bool is_locked(const File& file);

// Replaces the line. Throws std::runtime_error.
void write_line(const File& file, const std::string& line);
// At most 255 characters; empty when there are none.
std::string read_line(const File& file);

}  // namespace qv
