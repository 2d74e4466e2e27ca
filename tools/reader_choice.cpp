// Which reader dump, samples and info open a file with: the modern one by
// default, the classic one with --classic.
#include "views.h"

#include "result_text.h"

bool WantsClassic(const Arguments &arguments) { return HasOption(arguments, "--classic"); }

int OpenWithReader(const char *command, const char *path, int32_t tableMode, bool classic,
                   MP4_local_file **file) {
    const int32_t result = classic ? MP4FileOpen(file, path, tableMode)
                                   : MP4FileOpenEx(file, path, tableMode, MP4_OPEN_MODERN);
    if (result == 1) return 0;
    return ReportFailure(command, classic ? "MP4FileOpen" : "MP4FileOpenEx", result);
}
