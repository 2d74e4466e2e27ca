// Where the library's diagnostics go: standard output and the debug output
// on standard error, or the sink that MP4SetDiagnostics names. Every
// message the library prints passes through here.
#include <cstdarg>
#include <cstdlib>

#include "frame/frame.h"

namespace {

using DiagnosticSink = void (*)(int channel, const char *text, void *context);

// Process-wide, set while no other call runs (see MP4SetDiagnostics).
DiagnosticSink gSink = nullptr;
void *gSinkContext = nullptr;

// Hands a formatted message to the sink: on the stack when it is short, else
// in a block of its size.
void FormatToSink(int channel, const char *format, va_list arguments) {
    char text[512];
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    if (length >= 0 && size_t(length) >= sizeof text) {
        if (char *long_text = static_cast<char *>(std::malloc(size_t(length) + 1))) {
            std::vsnprintf(long_text, size_t(length) + 1, format, again);
            gSink(channel, long_text, gSinkContext);
            std::free(long_text);
            va_end(again);
            return;
        }
    }
    va_end(again);
    if (length >= 0) gSink(channel, text, gSinkContext);
}

}  // namespace

void PrintDiagnostic(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    if (gSink != nullptr)
        FormatToSink(kDiagnosticOutput, format, arguments);
    else
        std::vprintf(format, arguments);
    va_end(arguments);
}

extern "C" void OutputDebugStringA(const char *text) {
    if (text == nullptr) return;
    if (gSink != nullptr)
        gSink(kDiagnosticDebug, text, gSinkContext);
    else
        std::fputs(text, stderr);
}

void MP4SetDiagnostics(void (*sink)(int channel, const char *text, void *context), void *context) {
    gSink = sink;
    gSinkContext = sink != nullptr ? context : nullptr;
}
