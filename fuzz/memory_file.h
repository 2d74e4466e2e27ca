// The fuzz targets that open files keep their input in an anonymous
// in-memory file that the library opens by its /proc path, so that no run
// touches the disk. The library's diagnostics go to /dev/null: they would
// drown the fuzzer's own output.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

// The path of the in-memory file, which now holds the input; null when it
// can't be written.
inline const char *InputFile(const uint8_t *data, size_t size) {
    static int fd = -1;
    static std::string path;
    if (fd < 0) {
        fd = memfd_create("fuzz_input", 0);
        if (fd < 0 || std::freopen("/dev/null", "w", stdout) == nullptr) return nullptr;
        path = "/proc/self/fd/" + std::to_string(fd);
    }
    if (ftruncate(fd, 0) != 0) return nullptr;
    for (size_t done = 0; done < size;) {
        const ssize_t n = pwrite(fd, data + done, size - done, off_t(done));
        if (n <= 0) return nullptr;
        done += size_t(n);
    }
    return path.c_str();
}
