#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace tool {

// Writes to a file, or to standard output for "-"; errors say which file and why.
class Output {
public:
    // Whether an existing file is emptied by overwrite(), or replaced after all has been written.
    enum class Existing : uint8_t { Overwrite, Replace };

    explicit Output(const std::string &path, Existing existing = Existing::Overwrite);
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    // Empties an existing file; to be called before the first write.
    void overwrite();
    void write(std::span<const uint8_t> bytes);
    // Throws the error of a write to a closed pipe when the reader of the output has gone.
    void throwIfUnread() const;
    // Throws for errors that the system reports only when a file is closed.
    void close();

private:
    void openTemporary();
    void finishTemporary();

    const bool isStandard_;
    const std::string name_;
    std::string target_;    // the file to replace, with links resolved; empty: none
    std::string temporary_; // beside it
    int descriptor_ = -1;
};

} // namespace tool
