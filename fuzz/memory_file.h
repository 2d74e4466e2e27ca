// The fuzz targets that open files keep their input in an anonymous
// in-memory file that the library opens by its /proc path, so that no run
// touches the disk. This replaces the file's contents with one input.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>

inline bool WriteInput(int fd, const uint8_t *data, size_t size) {
    if (ftruncate(fd, 0) != 0) return false;
    size_t done = 0;
    while (done < size) {
        ssize_t n = pwrite(fd, data + done, size - done, off_t(done));
        if (n <= 0) return false;
        done += size_t(n);
    }
    return true;
}
