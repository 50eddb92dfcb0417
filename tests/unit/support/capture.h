/* What the code under test writes to standard error or standard output, as text. */
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <string>

/* All that a file in memory holds. */
inline std::string text_of(int fd) {
    std::string result(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    result.resize(static_cast<size_t>(pread(fd, result.data(), result.size(), 0)));
    return result;
}

class Capture {
public:
    explicit Capture(int fd = STDERR_FILENO)
        : target(fd), saved(dup(fd)), file(memfd_create("capture", MFD_CLOEXEC)) {
        fflush(nullptr);
        dup2(file, target);
    }
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;
    ~Capture() {
        fflush(nullptr);
        dup2(saved, target);
        close(saved);
        close(file);
    }

    /* All that was written so far. */
    std::string text() const {
        fflush(nullptr);
        return text_of(file);
    }

    /* The same, and forgets it. */
    std::string take() {
        std::string result = text();
        if (ftruncate(file, 0) == 0) {
            lseek(file, 0, SEEK_SET);
        }
        return result;
    }

private:
    int target;
    int saved;
    int file;
};
