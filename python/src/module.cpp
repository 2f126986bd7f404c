// The native part of the imagelib Python package: numpy arrays in and out of
// the library's exported C functions, nothing else. Every library call runs
// with the GIL released; a Python progress callable reaches the library as a
// plain stop function through a per-thread trampoline. The conversion steps
// of `imagelib convert` (load, crop, resize, rotate, mirror, save in a mode)
// come from the CLI's own sources, so that both write the same bytes.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "format_table.h"
#include "image.h"  // tools/imagelib: the CLI's image steps, over the C ABI only
#include "imagelib/imagelib.h"

namespace py = pybind11;

namespace {

using Bytes = py::array_t<uint8_t, py::array::c_style>;

// ---- errors ------------------------------------------------------------------

// Raises imagelib.ImagelibError for a status (the Python side picks the
// class and the library's text).
[[noreturn]] void fail(int status, const std::string& path = {}) {
    py::object file = path.empty() ? py::object(py::none()) : py::object(py::str(path));
    py::module_::import("imagelib").attr("_raise")(status, file);
    throw std::logic_error("imagelib._raise returned");
}

// ---- progress ------------------------------------------------------------------

struct ProgressState {
    PyObject* fn = nullptr;  // the callable, kept alive by the caller's frame
    bool stopped = false;    // it answered true
    bool raised = false;     // it raised; the exception waits in the thread state
};
thread_local ProgressState* t_progress = nullptr;

// The stop function handed to the library: calls the current thread's
// callable with (total, done) under the GIL. Nothing may escape into the
// library, so an exception is parked and turns into a stop.
int callProgress(int total, int done) noexcept {
    ProgressState* p = t_progress;
    if (!p || !p->fn) return 0;
    if (p->raised || p->stopped) return 1;
    py::gil_scoped_acquire gil;
    PyObject* r = PyObject_CallFunction(p->fn, "ii", total, done);
    int truth = r ? PyObject_IsTrue(r) : -1;
    Py_XDECREF(r);
    if (truth < 0) {
        p->raised = true;  // PyErr stays set until the call returns
        return 1;
    }
    if (truth) p->stopped = true;
    return truth;
}

// Installs a progress callable (or none) for the library calls of one
// Python call on this thread.
class Progress {
public:
    explicit Progress(const py::object& fn) : prev_(t_progress) {
        state_.fn = fn.is_none() ? nullptr : fn.ptr();
        t_progress = &state_;
    }
    ~Progress() { t_progress = prev_; }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    StopFunction stop() const { return state_.fn ? &callProgress : nullptr; }
    bool stopped() const { return state_.stopped; }
    // With the GIL held after the library returned: re-raises the
    // callable's exception; a positive answer after a stop becomes -144, and
    // the few positive failures some readers and writers report (kept so in
    // the library) become their negative equivalents.
    int finish(int status) const {
        if (state_.raised) throw py::error_already_set();
        // A stop makes the operation fail with whatever its code keeps for
        // the failure (the CLI's steps map some to file errors): stopped.
        if (status != 0 && state_.stopped) return IMGERR_STOPPED;
        switch (status) {
            case IMGSTAT_STREAM_STOPPED: return IMGERR_OPENFAILED;  // not stopped: the file did not open
            case IMGSTAT_NO_HANDLER: return IMGERR_BADFILE;         // unreadable header
            case IMGSTAT_NO_ROW_BUFFER: return IMGERR_NOMEMORY;
            case IMGSTAT_NO_BACKGROUND: return IMGERR_WRITEFAILED;  // short write
            default: return status;
        }
    }

private:
    ProgressState state_;
    ProgressState* prev_;
};

// ---- buffers -------------------------------------------------------------------

// A buffer handed out by the library, freed unless given away.
struct LibImage {
    void* p = nullptr;
    ImageSize size{};
    int layout = 0;
    LibImage() = default;
    LibImage(const LibImage&) = delete;
    LibImage& operator=(const LibImage&) = delete;
    ~LibImage() {
        if (p) korImage_freeImage(p, &size, layout);
    }
    void* release() { return std::exchange(p, nullptr); }
};

// A caller buffer from the library's allocator (what cli::Image owns).
void* hostAlloc(size_t n) { return dlmSystem_korMalloc(n ? n : 1); }

// Size of an h x w image of c bytes a pixel; refused (-126) when a
// dimension is 0 or the buffer would pass what an int32 counts.
ImageSize checkedSize(py::ssize_t h, py::ssize_t w, py::ssize_t c) {
    const auto limit = py::ssize_t(std::numeric_limits<int32_t>::max());
    if (h <= 0 || w <= 0 || h > limit || w > limit || h * w > limit / c) fail(IMGERR_BADARG);
    return ImageSize{int32_t(w), int32_t(h)};
}

ImageSize sizeOf(const py::array& a) {
    return checkedSize(a.shape(0), a.shape(1), a.ndim() == 3 ? a.shape(2) : 1);
}

ImageSize sizeArg(const py::tuple& wh) {
    if (wh.size() != 2) fail(IMGERR_BADARG);
    const long w = wh[0].cast<long>(), h = wh[1].cast<long>();
    return checkedSize(h, w, 4);
}

Bytes newArray(const ImageSize& s, int channels) {
    if (channels == 1) return Bytes({py::ssize_t(s.y), py::ssize_t(s.x)});
    return Bytes({py::ssize_t(s.y), py::ssize_t(s.x), py::ssize_t(channels)});
}

// Hands a library buffer of interleaved bytes to numpy without a copy.
py::array adopt(LibImage& img, int channels) {
    std::vector<py::ssize_t> shape{img.size.y, img.size.x};
    if (channels > 1) shape.push_back(channels);
    py::capsule owner(img.p, [](void* p) { dlmSystem_korFree(p); });
    img.release();
    return py::array_t<uint8_t>(shape, static_cast<uint8_t*>(owner.get_pointer()), owner);
}

// The layout code of an array: 6 (interleaved RGB), 7 (RGBA), 3 (bytes).
int layoutOf(const py::array& a) {
    if (a.ndim() == 2) return IMAGEFORMAT_MAP;
    if (a.ndim() == 3 && a.shape(2) == 3) return IMAGEFORMAT_RGB2;
    if (a.ndim() == 3 && a.shape(2) == 4) return IMAGEFORMAT_RGBA;
    fail(IMGERR_BADARG);
}

int channelsOf(int layout) { return layout == IMAGEFORMAT_RGB2 ? 3 : layout == IMAGEFORMAT_RGBA ? 4 : 1; }

py::object paletteArray(const uint8_t* r, const uint8_t* g, const uint8_t* b, int count) {
    if (count <= 0) return py::none();
    Bytes pal({py::ssize_t(count), py::ssize_t(3)});
    uint8_t* d = pal.mutable_data();
    for (int i = 0; i < count; ++i) {
        d[3 * i] = r[i];
        d[3 * i + 1] = g[i];
        d[3 * i + 2] = b[i];
    }
    return pal;
}

// Loads a (n, 3) palette into the library's three arrays; returns n.
int loadPalette(const py::object& palette, uint8_t* r, uint8_t* g, uint8_t* b) {
    std::memset(r, 0, 256);
    std::memset(g, 0, 256);
    std::memset(b, 0, 256);
    if (palette.is_none()) return 0;
    Bytes pal = palette.cast<Bytes>();
    if (pal.ndim() != 2 || pal.shape(1) != 3 || pal.shape(0) < 1 || pal.shape(0) > 256) fail(IMGERR_BADARG);
    const int n = int(pal.shape(0));
    const uint8_t* d = pal.data();
    for (int i = 0; i < n; ++i) {
        r[i] = d[3 * i];
        g[i] = d[3 * i + 1];
        b[i] = d[3 * i + 2];
    }
    return n;
}

// Library image (any layout readFileToBuffer gives) to a numpy array. The
// GIL is held; the copying runs without it.
py::array toArray(LibImage& img) {
    const ImageSize s = img.size;
    switch (img.layout) {
        case IMAGEFORMAT_MAP:
        case IMAGEFORMAT_MAP2: return adopt(img, 1);
        case IMAGEFORMAT_RGBA: return adopt(img, 4);
        case IMAGEFORMAT_RGB: {
            Bytes out = newArray(s, 3);
            uint8_t* d = out.mutable_data();
            {
                py::gil_scoped_release nogil;
                korImage_RGBSeparateToRGB(d, static_cast<uint8_t*>(img.p), &s, IMAGEFORMAT_RGB, nullptr);
            }
            return out;
        }
        case IMAGEFORMAT_BITMAP:
        case IMAGEFORMAT_RLEBITMAP:
        case IMAGEFORMAT_PACKBYTE: {
            Bytes out = newArray(s, 1);
            uint8_t* d = out.mutable_data();
            int st;
            {
                py::gil_scoped_release nogil;
                if (img.layout == IMAGEFORMAT_BITMAP)
                    st = korImage_subByteMapFromBitMap(d, &s, static_cast<uint8_t*>(img.p), &s, nullptr);
                else if (img.layout == IMAGEFORMAT_RLEBITMAP)
                    st = korImage_subByteMapFromRLEBitMap(d, &s, static_cast<uint16_t* const*>(img.p), &s, nullptr);
                else
                    st = korImage_subByteMapFromPackByte(d, &s, static_cast<uint8_t* const*>(img.p), &s, nullptr);
            }
            if (st != 0) fail(st);
            return out;
        }
        default: fail(IMGERR_BADIMAGEFORMAT);
    }
}

// ---- formats, types, info --------------------------------------------------------

py::list formats() {
    std::vector<cli::FormatRow> rows;
    {
        py::gil_scoped_release nogil;  // the names come from the message catalogue
        for (int type = 0; type < IMAGELIB_FILETYPE_COUNT; ++type) rows.push_back(cli::describeFormat(type));
    }
    py::list out;
    for (int type = 0; type < IMAGELIB_FILETYPE_COUNT; ++type) {
        const cli::FormatRow& r = rows[size_t(type)];
        py::object support = py::none();
        if (r.support[0] >= 0) {
            py::dict d;
            for (int i = 0; i < 6; ++i) d[cli::kExportSupportKeys[i]] = r.support[i];
            support = d;
        }
        py::dict row;
        row["type"] = type;
        row["extension"] = r.ext;
        row["osType"] = r.osType;
        row["readable"] = r.readable;
        row["writable"] = r.writable;
        row["exportSupport"] = support;
        row["alpha"] = r.alpha;
        row["name"] = r.name;
        out.append(row);
    }
    return out;
}

int fileType(const std::string& path) {
    int type;
    {
        py::gil_scoped_release nogil;
        type = korImage_fileType(-1, path.c_str());
    }
    if (type < 0) fail(type, path);
    return type;
}

py::dict info(const std::string& path) {
    ImageFileInfo fi;
    int st;
    {
        py::gil_scoped_release nogil;
        st = korImage_readFileInfoEx(&fi, path.c_str());
        const int named = st == IMGERR_UNSUPPORTEDTYPE ? cli::fileTypeOf(path) : -1;
        if (named >= 0) {
            // A name the library does not know (.ras): the type the CLI gives it.
            std::memset(&fi, 0, sizeof fi);
            fi.type = named;
            st = korImage_readFileInfo(&fi.size, &fi.colorMode, &fi.orientation, path.c_str(), named);
        }
    }
    if (st != 0) fail(st, path);
    char ext[16];
    korImage_getExtension(ext, fi.type);
    py::dict d;
    d["type"] = fi.type;
    d["extension"] = std::string(ext);
    d["width"] = fi.size.x;
    d["height"] = fi.size.y;
    d["colorMode"] = fi.colorMode;
    d["colorModeName"] = std::string(cli::modeName(fi.colorMode));
    d["orientation"] = fi.orientation;
    return d;
}

// ---- whole images ------------------------------------------------------------------

// layout 0: as stored (korImage_readFileToBuffer), 1: RGB, 2: RGBA.
// Returns (pixels, palette or None, colour mode, file type).
py::tuple readImage(const std::string& path, int layout, const py::object& size, const py::object& progress) {
    int type;
    {
        py::gil_scoped_release nogil;
        type = cli::fileTypeOf(path);  // as the CLI: contents, then the name (.ras too)
    }
    if (type < 0) type = fileType(path);  // raises with the library's status
    ImageSize requested{};
    const bool resample = !size.is_none();
    if (resample) requested = sizeArg(size.cast<py::tuple>());
    Progress prog(progress);
    LibImage img;
    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 0, mode = 0, st;
    {
        py::gil_scoped_release nogil;
        void* buf = nullptr;
        const ImageSize* want = resample ? &requested : nullptr;
        switch (layout) {
            case 1:
                st = korImage_readFileToRGB(reinterpret_cast<uint8_t**>(&buf), &img.size, path.c_str(), type, want,
                                            prog.stop());
                img.layout = IMAGEFORMAT_RGB;
                mode = COLORMODE_RGB;
                break;
            case 2:
                st = korImage_readFileToRGBA(reinterpret_cast<uint8_t**>(&buf), &img.size, path.c_str(), type, want,
                                             0, 0, prog.stop());
                img.layout = IMAGEFORMAT_RGBA;
                mode = COLORMODE_RGBA;
                break;
            default:
                st = korImage_readFileToBuffer(&buf, &img.layout, &mode, red, green, blue, &count, &img.size,
                                               path.c_str(), type, 0, prog.stop());
                if (st == IMGERR_UNSUPPORTEDTYPE) {
                    // Bilevel files of a type without a bitmap reader: RGB.
                    count = 0;
                    st = korImage_readFileToRGB(reinterpret_cast<uint8_t**>(&buf), &img.size, path.c_str(), type,
                                                nullptr, prog.stop());
                    img.layout = IMAGEFORMAT_RGB;
                    mode = COLORMODE_RGB;
                }
        }
        if (st >= 0) img.p = buf;  // a stopped streamed read still hands its rows out
    }
    st = prog.finish(st);
    if (st != 0) fail(st, path);
    if (!img.p) fail(IMGERR_NOMEMORY, path);
    py::array pixels = toArray(img);
    return py::make_tuple(pixels, paletteArray(red, green, blue, count), mode, type);
}

// Builds the CLI's image record from an array. kind: "rgb" (h, w, 3),
// "rgba" (h, w, 4), "map" (h, w) with palette, "bilevel" (h, w) of 0/1 with
// an optional two-colour palette (background, foreground).
void fromArray(cli::Image& img, const std::string& kind, const py::array& pixels, const py::object& palette,
               int sourceMode) {
    Bytes a = pixels.cast<Bytes>();
    const int layout = layoutOf(a);
    const ImageSize s = sizeOf(a);
    const size_t n = size_t(s.x) * size_t(s.y);
    const uint8_t* src = a.data();
    img.count = loadPalette(palette, img.red, img.green, img.blue);
    img.colorMode = sourceMode;
    if (kind == "rgb" || kind == "rgba") {
        if (layout != (kind == "rgb" ? IMAGEFORMAT_RGB2 : IMAGEFORMAT_RGBA)) fail(IMGERR_BADARG);
        void* p = hostAlloc(n * channelsOf(layout));
        if (!p) fail(IMGERR_NOMEMORY);
        img.replace(p, s, kind == "rgb" ? IMAGEFORMAT_RGB : IMAGEFORMAT_RGBA);
        py::gil_scoped_release nogil;
        if (kind == "rgb")
            korImage_RGBToRGBSeparate(static_cast<uint8_t*>(p), src, &s, IMAGEFORMAT_RGB, nullptr);
        else
            std::memcpy(p, src, n * 4);
        return;
    }
    if (layout != IMAGEFORMAT_MAP || (kind != "map" && kind != "bilevel")) fail(IMGERR_BADARG);
    if (kind == "map") {
        if (img.count == 0) fail(IMGERR_BADARG);
        void* p = hostAlloc(n);
        if (!p) fail(IMGERR_NOMEMORY);
        img.replace(p, s, IMAGEFORMAT_MAP);
        py::gil_scoped_release nogil;
        std::memcpy(p, src, n);
        return;
    }
    // Bilevel: packed rows, 1 bit a pixel; white and black unless given.
    if (img.count == 0) {
        img.red[0] = img.green[0] = img.blue[0] = 255;
        img.count = 2;
    } else if (img.count != 2) {
        fail(IMGERR_BADARG);
    }
    const size_t rowBytes = (size_t(s.x) + 7) >> 3;
    auto* p = static_cast<uint8_t*>(dlmSystem_korCalloc(rowBytes * size_t(s.y), 1));
    if (!p) fail(IMGERR_NOMEMORY);
    img.replace(p, s, IMAGEFORMAT_BITMAP);
    py::gil_scoped_release nogil;
    std::vector<uint8_t> bits(size_t(s.x));
    for (int32_t y = 0; y < s.y; ++y) {
        const uint8_t* row = src + size_t(y) * size_t(s.x);
        for (int32_t x = 0; x < s.x; ++x) bits[size_t(x)] = row[x] ? 1 : 0;
        korImage_packBuffer(p + rowBytes * size_t(y), bits.data(), 1, s.x);
    }
}

// The file type and written mode as the CLI chooses them: the type from the
// name unless given (PNM names write PNM), the mode the writer takes.
struct Target {
    int type;
    bool pnm;
};

Target targetOf(const std::string& path, int type) {
    Target t{type, type < 0 && cli::isPnmName(path)};
    if (!t.pnm && t.type < 0) {
        int st = 0;
        {
            py::gil_scoped_release nogil;  // may read an Intergraph header
            t.type = cli::nameTypeOf(path);
            if (t.type < 0) st = korImage_typeFromExtension(path.c_str());
        }
        if (t.type < 0) fail(st, path);
    }
    return t;
}

void writeImage(const std::string& path, const std::string& kind, const py::array& pixels, const py::object& palette,
           int sourceMode, int type, int mode, int compression, const py::object& progress) {
    const Target t = targetOf(path, type);
    cli::Image img;
    fromArray(img, kind, pixels, palette, sourceMode);
    if (mode < 0) mode = t.pnm ? img.colorMode : cli::defaultWriteMode(t.type, img.colorMode);
    Progress prog(progress);
    int st;
    {
        py::gil_scoped_release nogil;
        st = cli::saveImage(path, t.pnm ? -1 : t.type, mode, img, compression, prog.stop());
    }
    st = prog.finish(st);
    if (st != 0) fail(st, path);
}

// The steps of `imagelib convert IN OUT [options]`, in its order.
void convert(const std::string& in, const std::string& out, int type, int mode, int compression,
             const py::object& size, const py::object& crop, int angle, int mirrorMode, const py::object& progress) {
    const Target t = targetOf(out, type);
    ImageSize to{};
    if (!size.is_none()) to = sizeArg(size.cast<py::tuple>());
    double rect[4] = {};
    if (!crop.is_none()) {
        py::tuple c = crop.cast<py::tuple>();
        if (c.size() != 4) fail(IMGERR_BADARG);
        for (int i = 0; i < 4; ++i) rect[i] = double(c[i].cast<int>());
    }
    const bool cropping = !crop.is_none(), resampling = !size.is_none();
    Progress prog(progress);
    cli::Image img;
    int st;
    std::string failed = in;
    {
        py::gil_scoped_release nogil;
        StopFunction stop = prog.stop();
        st = cli::loadImage(in, img, false, stop);
        if (st == 0 && cropping) st = cli::crop(img, rect, stop);
        if (st == 0 && resampling) st = cli::resize(img, to, stop);
        if (st == 0 && angle) st = cli::rotate(img, angle, stop);
        if (st == 0 && mirrorMode >= 0) st = cli::mirror(img, mirrorMode, stop);
        if (st == 0) {
            if (mode < 0) mode = t.pnm ? img.colorMode : cli::defaultWriteMode(t.type, img.colorMode);
            failed = out;
            st = cli::saveImage(out, t.pnm ? -1 : t.type, mode, img, compression, stop);
        }
    }
    st = prog.finish(st);
    if (st != 0) fail(st, failed);
}

// ---- pixel operations on arrays ------------------------------------------------------

// Interleaved (h, w, 3|4) to row planes in a new buffer.
std::vector<uint8_t> toPlanes(const uint8_t* src, const ImageSize& s, int layout) {
    std::vector<uint8_t> planes(size_t(s.x) * size_t(s.y) * size_t(channelsOf(layout)));
    korImage_RGBToRGBSeparate(planes.data(), src, &s, layout == IMAGEFORMAT_RGBA ? 6 : 5, nullptr);
    return planes;
}

// Median-cut palette of at most `colours`, then error diffusion (or the
// nearest palette entry) for every pixel.
py::tuple quantize(const py::array& rgb, int colours, bool dither) {
    Bytes a = rgb.cast<Bytes>();
    if (layoutOf(a) != IMAGEFORMAT_RGB2) fail(IMGERR_BADARG);
    if (colours < 1 || colours > 256) fail(IMGERR_BADARG);
    const ImageSize s = sizeOf(a);
    const uint8_t* src = a.data();
    Bytes out = newArray(s, 1);
    uint8_t* dst = out.mutable_data();
    uint8_t red[256], green[256], blue[256];
    int count = 0, st;
    {
        py::gil_scoped_release nogil;
        std::vector<uint8_t> planes = toPlanes(src, s, IMAGEFORMAT_RGB2);
        st = korImage_getOptimizedPalette(red, green, blue, &count, colours, planes.data(), &s, nullptr);
        if (st == 0 && count == 0) st = IMGERR_NOMEMORY;
        if (st == 0 && dither) {
            uint8_t* map = dst;
            st = korImage_RGBToMapWithGamma(&map, planes.data(), &s, red, green, blue, count, 1.0, nullptr);
        } else if (st == 0) {
            // Nearest entry (first of equals), remembered per colour in a
            // small direct-mapped cache.
            std::vector<uint32_t> keys(1u << 16, 0xFFFFFFFFu);
            std::vector<uint8_t> vals(1u << 16);
            const size_t n = size_t(s.x) * size_t(s.y);
            for (size_t i = 0; i < n; ++i) {
                const uint8_t* p = src + 3 * i;
                const uint32_t key = uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
                const uint32_t slot = (key * 2654435761u) >> 16;
                if (keys[slot] != key) {
                    int best = 0, bestD = std::numeric_limits<int>::max();
                    for (int c = 0; c < count; ++c) {
                        const int dr = p[0] - red[c], dg = p[1] - green[c], db = p[2] - blue[c];
                        const int d = dr * dr + dg * dg + db * db;
                        if (d < bestD) {
                            bestD = d;
                            best = c;
                        }
                    }
                    keys[slot] = key;
                    vals[slot] = uint8_t(best);
                }
                dst[i] = vals[slot];
            }
        }
    }
    if (st != 0) fail(st);
    return py::make_tuple(out, paletteArray(red, green, blue, count));
}

py::array resize(const py::array& pixels, const py::tuple& size) {
    Bytes a = pixels.cast<Bytes>();
    const int layout = layoutOf(a);
    const ImageSize s = sizeOf(a), to = sizeArg(size);
    const uint8_t* src = a.data();
    Bytes out = newArray(to, channelsOf(layout));
    uint8_t* dst = out.mutable_data();
    int st;
    {
        py::gil_scoped_release nogil;
        if (layout == IMAGEFORMAT_MAP) {
            // Indices and bilevel values: nearest neighbour.
            st = korImage_extractByteMapSubImage(dst, &to, src, &s, nullptr, nullptr);
        } else {
            std::vector<uint8_t> planes = toPlanes(src, s, layout);
            LibImage r;
            r.size = to;
            r.layout = IMAGEFORMAT_RGB;
            st = layout == IMAGEFORMAT_RGBA ? korImage_resizeRGBA(&r.p, &to, planes.data(), &s, nullptr)
                                            : korImage_resize(&r.p, &to, planes.data(), &s, nullptr);
            if (st == 0)
                st = korImage_RGBSeparateToRGB(dst, static_cast<uint8_t*>(r.p), &to,
                                               layout == IMAGEFORMAT_RGBA ? 6 : 5, nullptr);
        }
    }
    if (st != 0) fail(st);
    return out;
}

// background: the bytes of one pixel of the array's layout (zeros when
// shorter); interp: an IMAGEWARP_ code.
py::array rotate(const py::array& pixels, double degrees, const std::string& background, int interp) {
    Bytes a = pixels.cast<Bytes>();
    const int layout = layoutOf(a);
    uint8_t bg[4] = {};
    std::memcpy(bg, background.data(), background.size() < 4 ? background.size() : 4);
    LibImage r;
    r.size = sizeOf(a);
    r.layout = layout;
    int st;
    {
        py::gil_scoped_release nogil;
        // The source is only read: a result pointer of its own keeps it.
        st = korImage_rotateAngle(&r.p, &r.size, const_cast<uint8_t*>(a.data()), &r.size, layout, degrees, interp,
                                  bg, nullptr);
    }
    if (st != 0) fail(st);
    return adopt(r, channelsOf(layout));
}

py::array warp(const py::array& pixels, const py::sequence& matrix, const py::tuple& size,
               const std::string& background, int interp) {
    if (matrix.size() != 6) fail(IMGERR_BADARG);
    double m[6];
    for (size_t i = 0; i < 6; ++i) m[i] = matrix[i].cast<double>();
    Bytes a = pixels.cast<Bytes>();
    const int layout = layoutOf(a);
    const ImageSize s = sizeOf(a), to = sizeArg(size);
    uint8_t bg[4] = {};
    std::memcpy(bg, background.data(), background.size() < 4 ? background.size() : 4);
    LibImage r;
    r.size = to;
    r.layout = layout;
    int st;
    {
        py::gil_scoped_release nogil;
        st = korImage_warp(&r.p, &to, a.data(), &s, layout, m, interp, bg, nullptr);
    }
    if (st != 0) fail(st);
    return adopt(r, channelsOf(layout));
}

py::array mirror(const py::array& pixels, bool leftRight) {
    Bytes a = pixels.cast<Bytes>();
    const int layout = layoutOf(a);
    const ImageSize s = sizeOf(a);
    Bytes out = newArray(s, channelsOf(layout));
    uint8_t* dst = out.mutable_data();
    const uint8_t* src = a.data();
    int st;
    {
        py::gil_scoped_release nogil;
        std::memcpy(dst, src, size_t(s.x) * size_t(s.y) * size_t(channelsOf(layout)));
        st = korImage_mirror(dst, &s, layout, leftRight ? 1 : 0, nullptr);
    }
    if (st != 0) fail(st);
    return out;
}

// The thumbnail of a file within box (w, h), as (h, w, 3).
py::array thumbnail(const std::string& path, const py::tuple& box) {
    const ImageSize b = sizeArg(box);
    int type;
    {
        py::gil_scoped_release nogil;
        type = cli::fileTypeOf(path);
    }
    if (type < 0) type = fileType(path);
    LibImage img;
    img.layout = IMAGEFORMAT_RGB;
    int st;
    {
        py::gil_scoped_release nogil;
        uint8_t* p = nullptr;
        st = korImage_readThumbnail(&p, &img.size, path.c_str(), type, &b, nullptr);
        img.p = p;
    }
    if (st != 0) fail(st, path);
    return toArray(img);
}

// (h, w, 3) to (h, w, 4) with alpha 0 where every channel is within
// tolerance of colour, 255 elsewhere.
py::array transparent(const py::array& pixels, const py::tuple& colour, int tolerance) {
    Bytes a = pixels.cast<Bytes>();
    if (layoutOf(a) != IMAGEFORMAT_RGB2 || colour.size() != 3) fail(IMGERR_BADARG);
    const ImageSize s = sizeOf(a);
    uint8_t key[3];
    for (int i = 0; i < 3; ++i) {
        const long v = colour[size_t(i)].cast<long>();
        if (v < 0 || v > 255) fail(IMGERR_BADARG);
        key[i] = uint8_t(v);
    }
    Bytes out = newArray(s, 4);
    uint8_t* dst = out.mutable_data();
    const uint8_t* src = a.data();
    int st;
    {
        py::gil_scoped_release nogil;
        std::vector<uint8_t> mask(size_t(korImage_memorySize(&s, IMAGEFORMAT_BITMAP)));
        std::vector<uint8_t> planes = toPlanes(src, s, IMAGEFORMAT_RGB2);
        st = korImage_makeColourMask(mask.data(), src, &s, IMAGEFORMAT_RGB2, key, tolerance, nullptr);
        if (st == 0) st = korImage_applyMask(dst, planes.data(), &s, mask.data(), 0, nullptr);
    }
    if (st != 0) fail(st);
    return out;
}

// ---- streaming rows ----------------------------------------------------------------

// Shared by the row reader and writer: the open file, its row size and
// planes, and a lock so that two threads cannot use one file at once.
class RowFile {
public:
    RowFile() = default;
    RowFile(const RowFile&) = delete;
    RowFile& operator=(const RowFile&) = delete;
    ~RowFile() {
        if (ctx_) {
            py::gil_scoped_release nogil;
            korImage_closeFile(ctx_);
        }
    }

    py::tuple size() const { return py::make_tuple(size_.x, size_.y); }
    bool bottomUp() const { return (orientation_ & 3) == 2; }
    bool alpha() const { return alpha_ != 0; }
    int rows() const { return rows_; }

    // Closes the file; the status of its close operation (0 when closed before).
    int closeFile() {
        std::lock_guard<std::mutex> lock(mutex_);
        ImageFileContext* c = std::exchange(ctx_, nullptr);
        return c ? korImage_closeFile(c) : 0;
    }

protected:
    void adopt(ImageFileContext* ctx) {
        ctx_ = ctx;
        korImage_getImageSize(&size_, ctx);
        imagelib_getFileLayout(ctx, &orientation_, &alpha_);
        planes_.assign(size_t(size_.x) * 4, 0);
    }

    ImageFileContext* ctx_ = nullptr;
    ImageSize size_{};
    int orientation_ = 0, alpha_ = 0, rows_ = 0;
    std::vector<uint8_t> planes_;
    std::mutex mutex_;
    std::string path_;
};

class RowReader : public RowFile {
public:
    RowReader(const std::string& path, const py::object& size) {
        path_ = path;
        ImageSize requested{};
        if (!size.is_none()) requested = sizeArg(size.cast<py::tuple>());
        int st = 0;
        ImageFileContext* c;
        {
            py::gil_scoped_release nogil;
            c = korImage_openFile(&st, size.is_none() ? nullptr : &requested, path.c_str());
        }
        // The streaming open answers with the last handler's status, which
        // may be one of the positive failures (1: could not open, 3: not a
        // file of the handler).
        if (!c) fail(st < 0 ? st : st == IMGSTAT_NO_HANDLER ? IMGERR_BADFILE : IMGERR_OPENFAILED, path);
        adopt(c);
    }

    // The next stored row, (w, 3) or (w, 4) with alpha.
    py::array next() {
        const int channels = alpha_ ? 4 : 3;
        Bytes row({py::ssize_t(size_.x), py::ssize_t(channels)});
        uint8_t* d = row.mutable_data();
        int st;
        {
            py::gil_scoped_release nogil;
            std::lock_guard<std::mutex> lock(mutex_);
            if (!ctx_) {
                st = IMGSTAT_NO_MORE_ROWS;
            } else {
                const size_t w = size_t(size_.x);
                uint8_t* p = planes_.data();
                st = korImage_getRow(ctx_, p, p + w, p + 2 * w, alpha_ ? p + 3 * w : nullptr);
                if (st == 0) {
                    const ImageSize one{size_.x, 1};
                    korImage_RGBSeparateToRGB(d, p, &one, alpha_ ? 6 : 5, nullptr);
                    ++rows_;
                }
            }
        }
        if (st == IMGSTAT_NO_MORE_ROWS) {
            closeFile();
            throw py::stop_iteration();
        }
        if (st != 0) {
            closeFile();
            fail(st, path_);
        }
        return row;
    }
};

class RowWriter : public RowFile {
public:
    RowWriter(const std::string& path, int type, const py::tuple& size, int mode) {
        path_ = path;
        const ImageSize s = sizeArg(size);
        int st = 0;
        ImageFileContext* c;
        {
            py::gil_scoped_release nogil;
            c = korImage_createFile(&st, path.c_str(), nullptr, &s, type, mode);
        }
        // 3: the type has no row writer.
        if (!c) fail(st == IMGSTAT_NO_HANDLER ? IMGERR_UNSUPPORTEDTYPE : st ? st : IMGERR_OPENFAILED, path);
        adopt(c);
    }

    void put(const py::array& pixels) {
        Bytes a = pixels.cast<Bytes>();
        const int channels = alpha_ ? 4 : 3;
        if (a.ndim() != 2 || a.shape(0) != size_.x || a.shape(1) != channels) fail(IMGERR_BADARG);
        const uint8_t* src = a.data();
        int st;
        {
            py::gil_scoped_release nogil;
            std::lock_guard<std::mutex> lock(mutex_);
            if (!ctx_) {
                st = IMGERR_BADARG;
            } else {
                const size_t w = size_t(size_.x);
                uint8_t* p = planes_.data();
                const ImageSize one{size_.x, 1};
                korImage_RGBToRGBSeparate(p, src, &one, alpha_ ? 6 : 5, nullptr);
                st = korImage_putRow(ctx_, p, p + w, p + 2 * w, alpha_ ? p + 3 * w : nullptr);
                if (st == 0) ++rows_;
            }
        }
        if (st == IMGSTAT_NO_MORE_ROWS) fail(IMGERR_BADARG, path_);  // more rows than the height
        if (st != 0) fail(st, path_);
    }

    void close() {
        int st;
        {
            py::gil_scoped_release nogil;
            st = closeFile();
        }
        if (st != 0) fail(st, path_);
    }
};

}  // namespace

PYBIND11_MODULE(_imagelib, m) {
    m.doc() = "Native part of the imagelib package (use the imagelib package itself).";
    m.def("status_text", [](int st) { return std::string(imagelib_statusText(st)); });
    m.def("version", [] { return std::string(imagelib_version()); });
    m.def("formats", &formats);
    m.def("file_type", &fileType);
    m.def("info", &info);
    m.def("read", &readImage);
    m.def("write", &writeImage);
    m.def("convert", &convert);
    m.def("quantize", &quantize);
    m.def("resize", &resize);
    m.def("rotate", &rotate);
    m.def("warp", &warp);
    m.def("mirror", &mirror);
    m.def("thumbnail", &thumbnail);
    m.def("transparent", &transparent);

    py::class_<RowReader>(m, "RowReader")
        .def(py::init<const std::string&, const py::object&>())
        .def("next", &RowReader::next)
        .def("close", [](RowReader& r) {
            py::gil_scoped_release nogil;
            r.closeFile();
        })
        .def_property_readonly("size", &RowReader::size)
        .def_property_readonly("bottom_up", &RowReader::bottomUp)
        .def_property_readonly("alpha", &RowReader::alpha)
        .def_property_readonly("rows_done", &RowReader::rows);
    py::class_<RowWriter>(m, "RowWriter")
        .def(py::init<const std::string&, int, const py::tuple&, int>())
        .def("put", &RowWriter::put)
        .def("close", &RowWriter::close)
        .def_property_readonly("size", &RowWriter::size)
        .def_property_readonly("bottom_up", &RowWriter::bottomUp)
        .def_property_readonly("alpha", &RowWriter::alpha)
        .def_property_readonly("rows_done", &RowWriter::rows);
}
