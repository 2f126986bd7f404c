// The libtiff message handler: numbering of libtiff's message texts, the
// three configuration flags, silencing of known warnings and unknown tags,
// last-message tracking and suppression, and the texts built from message
// lists -7505 (TIFF) and -7507 (compression library).
//
// libtiff hands its handlers a format string and its arguments. Every text
// that matters to the silencing rules, or that the catalogue carries, has a
// number here; the catalogue holds the same format under that number, so the
// arguments expand the same way. A catalogue text whose conversions differ
// from libtiff's is not trusted: libtiff's own format is used then.
#include <cstdio>
#include <cstring>
#include <string>

#include "codecs/libs/tiff.h"
#include "imagelib/host.h"

#include <tiffio.h>

namespace {

struct MessageState {
    int enabled = 1;
    int saved = 1;
    int ignoreKnown = 1;
    int ignoreUnknownTags = 1;
    int lastCode = 0;
    TiffMessageSink sink = nullptr;
};
thread_local MessageState g_msg;

// libtiff texts by number. Numbers 3, 27, 30, 33, 37, 53, 55 and 88 are the
// harmless warnings of files written by careless programs ("known
// warnings"); 28 is the unknown tag; 64 and 65 are libtiff's allocation
// failures (every "Out of memory..." and "No space for..." text); 140 to 142
// are the compression library's failures.
struct Known {
    int code;
    const char* format;
};
const Known kKnown[] = {
    {3, "Invalid TIFF directory; tags are not sorted in ascending order"},
    {4, "Nonstandard tile length %u, convert file"},
    {5, "Cannot handle zero strip size"},
    {6, "Cannot handle zero tile size"},
    {7, "Sorry, can not handle images with %u-bit samples"},
    {8, "Missing required \"Colormap\" tag"},
    {9, "Decoding error at scanline %lu"},
    {10, "TIFF directory is missing required \"%s\" field"},
    {11, "Incorrect count for \"%s\"; tag ignored"},
    {12, "Cannot handle different values per sample for \"%s\"; tag ignored"},
    {13, "Invalid data type for tag %s"},
    {14, "Cannot handle zero scanline size"},
    {15, "Not enough data for scanline %u, expected a request for at most %ld bytes, got a request for %ld bytes"},
    {16, "Photometric tag is missing, assuming data is YCbCr"},
    {17, "BitsPerSample tag is missing, assuming 8 bits per sample"},
    {18, "SamplesPerPixel tag is missing, assuming correct SamplesPerPixel value is 3"},
    {27, "ASCII value for tag \"%s\" does not end in null byte. Forcing it to be null"},
    {28, "Unknown field with tag %u (0x%x) encountered"},
    {30, "Wrong data type %u for \"%s\"; tag ignored"},
    {33, "TIFF directory is missing required \"%s\" field, calculating from imagelength"},
    {37, "Bogus \"%s\" field, ignoring and calculating from imagelength"},
    {38, "Wrong \"%s\" field, ignoring and calculating from imagelength"},
    {53, "Sum of Photometric type-related color channels and ExtraSamples doesn't match SamplesPerPixel. "
         "Defining non-color channels as ExtraSamples."},
    {55, "Nonstandard tile width %u, convert file"},
    {88, "incorrect count for field \"%s\" (%lu, expecting %u); tag trimmed"},
    {89, "incorrect count for field \"%s\" (%lu, expecting %u); tag ignored"},
    {140, "ZLib error: %s"},
    {141, "Decoding error at scanline %u, %s"},
    {142, "Encoding error at scanline %u, %s"},
};

// The conversion letters of a printf format in order ("%u, %s" gives "us"),
// with length modifiers, so that two formats can be compared.
std::string conversions(const char* f) {
    std::string out;
    for (; *f; ++f) {
        if (*f != '%') continue;
        ++f;
        if (*f == '%') continue;
        while (*f && std::strchr("-+ #0123456789.", *f)) ++f;
        while (*f && std::strchr("hlLqjzt", *f)) out += *f++;
        if (!*f) break;
        out += *f;
    }
    return out;
}

bool load(char* buf, int list, int number) { return korResource_loadFromStringList(buf, nullptr, list, number) == 0; }

void emit(const char* text) {
    if (!text[0]) return;
    if (g_msg.sink) {
        g_msg.sink(text);
        return;
    }
    std::fputs(text, stderr);
    size_t n = std::strlen(text);
    if (n && text[n - 1] != '\n') std::fputc('\n', stderr);
}

// Appends formatted text to buf (size bytes) at *at.
void append(char* buf, size_t size, size_t* at, const char* fmt, ...) {
    if (*at >= size) return;
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf + *at, size - *at, fmt, ap);
    va_end(ap);
    if (n > 0) *at = std::min(size - 1, *at + size_t(n));
}

void appendV(char* buf, size_t size, size_t* at, const char* fmt, va_list ap) {
    if (*at >= size) return;
    int n = std::vsnprintf(buf + *at, size - *at, fmt, ap);
    if (n > 0) *at = std::min(size - 1, *at + size_t(n));
}

// The compression library's code behind a libtiff zlib message: the text
// zlib gave, matched against zlib's own texts; data errors otherwise.
int zlibCode(int code, const char* detail) {
    static const struct {
        int code;
        const char* text;
    } kTexts[] = {{2, "need dictionary"},     {1, "stream end"},        {-1, "file error"},
                  {-2, "stream error"},       {-3, "data error"},       {-4, "insufficient memory"},
                  {-5, "buffer error"},       {-6, "incompatible version"}};
    if (detail)
        for (const auto& t : kTexts)
            if (std::strcmp(detail, t.text) == 0) return t.code;
    return code == kTiffMsgZlibInit ? -2 : -3;
}

void handle(int code, const char* module, const char* libFormat, va_list args) {
    g_msg.lastCode = code;
    if (!g_msg.enabled) return;
    if (g_msg.ignoreKnown) {
        switch (code) {
            case 3: case 27: case 30: case 33: case 37: case 53: case 55: case 88: return;
            default: break;
        }
    }
    if (code == kTiffMsgUnknownTag && g_msg.ignoreUnknownTags) return;

    char text[1024];
    size_t at = 0;
    text[0] = 0;
    char label[IMAGELIB_TEXT_MAX];
    if (!load(label, IMAGELIB_LIST_TIFF, kTiffMsgSeverity)) {
        append(text, sizeof text, &at, "Cannot find TIFF severity level text.  Error Code = %d.\n", code);
        emit(text);
        return;
    }
    if (code >= kTiffMsgZlibInit && code <= kTiffMsgZlibEncode) {
        // The libtiff text is the first argument, the zlib code the second.
        char first[512];
        va_list copy;
        va_copy(copy, args);
        std::vsnprintf(first, sizeof first, libFormat, copy);
        va_end(copy);
        const char* detail = nullptr;
        va_copy(copy, args);
        if (code != kTiffMsgZlibInit) (void)va_arg(copy, unsigned);
        detail = va_arg(copy, const char*);
        va_end(copy);
        int z = zlibCode(code, detail);
        char ztext[IMAGELIB_TEXT_MAX];
        if (!load(ztext, IMAGELIB_LIST_ZLIB, z)) {
            append(text, sizeof text, &at, "TIFFLIB: Cannot find ZLIB error text.  Error Code = %d.\n", z);
        } else {
            if (module) append(text, sizeof text, &at, "%s: ", module);
            append(text, sizeof text, &at, "%s: %s", first, label);
            append(text, sizeof text, &at, "%s", ztext);
        }
        emit(text);
        return;
    }
    char format[IMAGELIB_TEXT_MAX];
    const char* use = nullptr;
    if (code != 0) {
        if (!load(format, IMAGELIB_LIST_TIFF, code)) {
            append(text, sizeof text, &at, "Cannot find TIFF error text.  Error Code = %d.\n", code);
            emit(text);
            return;
        }
        use = format;
        if (libFormat && conversions(format) != conversions(libFormat)) use = libFormat;
    } else {
        use = libFormat ? libFormat : "";
    }
    if (module) append(text, sizeof text, &at, "%s: ", module);
    append(text, sizeof text, &at, "%s ", label);
    va_list copy;
    va_copy(copy, args);
    appendV(text, sizeof text, &at, use, copy);
    va_end(copy);
    emit(text);
}

void libtiffHandler(const char* module, const char* fmt, va_list ap) { tiff_messageHandler(module, fmt, ap); }

}  // namespace

void tiff_installHandlers() noexcept {
    g_msg.lastCode = 0;
    TIFFSetWarningHandler(libtiffHandler);
    TIFFSetErrorHandler(libtiffHandler);
    g_msg.enabled = imagelib_cfgInt("KV_TIFFMESSAGES", 1);
    g_msg.ignoreKnown = imagelib_cfgInt("KV_IGNOREKNOWNWARNINGS", 1);
    g_msg.ignoreUnknownTags = imagelib_cfgInt("KV_IGNOREUNKNOWNTAGS", 1);
}

void tiff_suppressMessages(int mode) noexcept {
    if (mode == 0) {
        g_msg.saved = g_msg.enabled;
        g_msg.enabled = 0;
    } else if (mode == 1) {
        g_msg.enabled = g_msg.saved;
    } else {
        g_msg.enabled = 1;
    }
}

int tiff_lastMessageCode() noexcept { return g_msg.lastCode; }

int tiff_messageCode(const char* format) noexcept {
    if (!format) return 0;
    for (const auto& k : kKnown)
        if (std::strcmp(format, k.format) == 0) return k.code;
    if (std::strncmp(format, "Out of memory", 13) == 0 || std::strstr(format, ": Out of memory")) return kTiffMsgNoMemory;
    if (std::strncmp(format, "No space for", 12) == 0 || std::strstr(format, ": No space for") ||
        std::strncmp(format, "Failed to allocate", 18) == 0)
        return kTiffMsgNoSpace;
    return 0;
}

void tiff_messageHandler(const char* module, const char* format, va_list args) noexcept {
    int code = tiff_messageCode(format);
    // The allocation-failure families share one catalogue text without
    // arguments; their own format is kept when the catalogue has none.
    handle(code, module, format, args);
}

void tiff_issueMessage(int code, ...) noexcept {
    va_list ap;
    va_start(ap, code);
    handle(code, nullptr, nullptr, ap);
    va_end(ap);
}

void tiff_setMessageSink(TiffMessageSink sink) noexcept { g_msg.sink = sink; }
