// Host commands and the status bar.
#include <cstdio>
#include <cstring>

#include "host/host_internal.h"

namespace {

// A catalogue text used as a format may hold one integer conversion (%d,
// %i, %u, %x, %X, optionally with flags and width) and any number of "%%";
// anything else is shown as it stands, so that a catalogue can never make
// the formatting read arguments that are not there.
bool safeIntFormat(const char* f) {
    int conversions = 0;
    for (const char* p = f; *p; ++p) {
        if (*p != '%') continue;
        ++p;
        if (*p == '%') continue;
        while (*p && std::strchr("-+ 0#", *p)) ++p;
        while (*p >= '0' && *p <= '9') ++p;
        if (!*p || !std::strchr("diuxX", *p)) return false;
        ++conversions;
    }
    return conversions <= 1;
}

}  // namespace

extern "C" {

int imageHost_callCommand(const char* command, const void* arg) noexcept {
    int result = 0;
    int st = il::host::active().callCommand(command, arg, nullptr, &result);
    return st != 0 ? st : result;
}

int imageUtil_showStatus(int number, int arg) noexcept {
    int st = imageHost_callCommand("openStatusBar", nullptr);
    if (st == 0) return 0;
    char message[IMAGELIB_TEXT_MAX];
    if (korResource_loadFromStringList(message, nullptr, IMAGELIB_LIST_STATUSBAR, number) != 0)
        return IMGERR_NORESOURCE;
    char text[IMAGELIB_TEXT_MAX * 2];
    if (arg != 0 && safeIntFormat(message)) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        std::snprintf(text, sizeof text, message, arg);
#pragma GCC diagnostic pop
    } else {
        std::snprintf(text, sizeof text, "%s", message);
    }
    st = imageHost_callCommand("openStatusBar", text);
    if (st == IMGERR_NOHOSTCOMMAND || st == IMGERR_HOSTSTATUSBAR) return 0;
    return st;
}

}  // extern "C"
