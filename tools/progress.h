// A progress line on standard error for the long runs of mux and extract:
//   "\rmux: 1234 frames, 45% "
// drawn only when standard error is a terminal, so that pipes, files and
// tests see none of it, and redrawn at most a few times a second.
#pragma once

#include <chrono>
#include <cstdint>

struct Progress {
    const char *label;  // "mux"
    const char *unit;   // "frames"
    uint64_t total;     // items expected (or the whole the share counts in); 0 if not known
    bool enabled;       // standard error is a terminal
    bool drawn;         // a line stands on the terminal
    std::chrono::steady_clock::time_point nextDraw;
};

Progress StartProgress(const char *label, const char *unit, uint64_t total);

// `done` items so far. Draws at once the first time, then once a redraw
// interval has passed.
void UpdateProgress(Progress *progress, uint64_t done);
// The same where the percent comes from another count than the items
// (bytes of the inputs read, of `total`).
void UpdateProgressShare(Progress *progress, uint64_t done, uint64_t share);

// Draws `note` behind the count now, for a stage of unknown length
// ("writing the file"); the percent from `share`.
void NoteProgress(Progress *progress, uint64_t done, uint64_t share, const char *note);

// Clears the line, so that what follows starts on a clean line.
void EndProgress(Progress *progress);
