// One formatted line per call, handed to the platform's diagnostic log.
#include <cstdarg>

#include "rix_as_common.h"
#include "frm_diaglog.h"
#include "rix_safe.h"

namespace {

constexpr char kLogTag[] = "AUTOSYNC_ORCH";
constexpr size_t kLogLineSize = 256u;

}  // namespace

extern "C" {

ASORCH_API void RIX_AUTOSYNC_RixLog(uint32_t /* level */, const char *format, ...)
{
    if (format == nullptr) {
        return;
    }
    char line[kLogLineSize];
    va_list args;
    va_start(args, format);
    const int written = vsprintf_s(line, sizeof(line), format, args);
    va_end(args);
    // A line that does not fit is dropped whole rather than cut.
    if (written < 0) {
        return;
    }
    FRM_DiagLogWrite(kLogTag, line);
}
}
