#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace {

// Four redraws a second at most.
constexpr std::chrono::milliseconds kRedrawInterval{250};

void Draw(Progress *progress, uint64_t done, uint64_t share, const char *note) {
    char line[160];
    int length = 0;
    if (progress->total != 0) {
        const unsigned percent = unsigned(share >= progress->total ? 100 : share * 100 / progress->total);
        length = std::snprintf(line, sizeof line, "\r%s: %llu %s, %u%%", progress->label,
                               static_cast<unsigned long long>(done), progress->unit, percent);
    } else {
        length = std::snprintf(line, sizeof line, "\r%s: %llu %s", progress->label,
                               static_cast<unsigned long long>(done), progress->unit);
    }
    if (length > 0 && size_t(length) < sizeof line && note != nullptr)
        std::snprintf(line + length, sizeof line - size_t(length), ", %s", note);
    // The trailing blanks cover what a longer line before left behind.
    std::fprintf(stderr, "%s    ", line);
    std::fflush(stderr);
    progress->drawn = true;
    progress->nextDraw = std::chrono::steady_clock::now() + kRedrawInterval;
}

}  // namespace

Progress StartProgress(const char *label, const char *unit, uint64_t total) {
    Progress progress{};
    progress.label = label;
    progress.unit = unit;
    progress.total = total;
    progress.enabled = isatty(STDERR_FILENO) == 1;
    return progress;
}

void UpdateProgress(Progress *progress, uint64_t done) { UpdateProgressShare(progress, done, done); }

void UpdateProgressShare(Progress *progress, uint64_t done, uint64_t share) {
    if (!progress->enabled) return;
    if (progress->drawn && std::chrono::steady_clock::now() < progress->nextDraw) return;
    Draw(progress, done, share, nullptr);
}

void NoteProgress(Progress *progress, uint64_t done, uint64_t share, const char *note) {
    if (progress->enabled) Draw(progress, done, share, note);
}

void EndProgress(Progress *progress) {
    if (!progress->drawn) return;
    // Back to the start of the line, blank it, and back again.
    std::fprintf(stderr, "\r%*s\r", 79, "");
    std::fflush(stderr);
    progress->drawn = false;
}
