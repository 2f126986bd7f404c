// GeoTIFF key directories and transforms over libtiff's public interface:
// the GeoTIFF tags are registered with libtiff through a tag extender, and
// the key directory (GeoKeyDirectory, with its GeoDoubleParams and
// GeoAsciiParams) is read, looked up and written back here.
#include "codecs/libs/geotiff.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "codecs/libs/tiff.h"
#include "imagelib/geo.h"

#include <tiffio.h>

namespace {

constexpr ttag_t kTagPixelScale = 33550;
constexpr ttag_t kTagIntergraphMatrix = 33920;
constexpr ttag_t kTagTiePoints = 33922;
constexpr ttag_t kTagTransformation = 34264;
constexpr ttag_t kTagKeyDirectory = 34735;
constexpr ttag_t kTagDoubleParams = 34736;
constexpr ttag_t kTagAsciiParams = 34737;

constexpr uint16_t kModelTypeKey = 1024;

// Counted arrays (readcount and writecount TIFF_VARIABLE, 16-bit counts
// passed with the values); the ASCII parameters are a plain string.
char kNamePixelScale[] = "GeoPixelScale";
char kNameIntergraphMatrix[] = "Intergraph TransformationMatrix";
char kNameTiePoints[] = "GeoTiePoints";
char kNameTransformation[] = "GeoTransformationMatrix";
char kNameKeyDirectory[] = "GeoKeyDirectory";
char kNameDoubleParams[] = "GeoDoubleParams";
char kNameAsciiParams[] = "GeoASCIIParams";

const TIFFFieldInfo kGeoFields[] = {
    {kTagPixelScale, -1, -1, TIFF_DOUBLE, FIELD_CUSTOM, 1, 1, kNamePixelScale},
    {kTagIntergraphMatrix, -1, -1, TIFF_DOUBLE, FIELD_CUSTOM, 1, 1, kNameIntergraphMatrix},
    {kTagTransformation, -1, -1, TIFF_DOUBLE, FIELD_CUSTOM, 1, 1, kNameTransformation},
    {kTagTiePoints, -1, -1, TIFF_DOUBLE, FIELD_CUSTOM, 1, 1, kNameTiePoints},
    {kTagKeyDirectory, -1, -1, TIFF_SHORT, FIELD_CUSTOM, 1, 1, kNameKeyDirectory},
    {kTagDoubleParams, -1, -1, TIFF_DOUBLE, FIELD_CUSTOM, 1, 1, kNameDoubleParams},
    {kTagAsciiParams, -1, -1, TIFF_ASCII, FIELD_CUSTOM, 1, 0, kNameAsciiParams},
};

TIFFExtendProc g_parentExtender = nullptr;

void geoExtender(TIFF* tif) {
    TIFFMergeFieldInfo(tif, kGeoFields, sizeof kGeoFields / sizeof kGeoFields[0]);
    if (g_parentExtender) g_parentExtender(tif);
}

// libtiff knows the GeoTIFF tags in every file it opens. The extender is
// installed while the library loads, before any thread of the program can
// open a TIFF file: libtiff keeps it in a plain global, and every open (ours,
// and the Group 4 decoder's in-memory ones) reads it without a lock.
struct GeoTagsAtLoad {
    GeoTagsAtLoad() { g_parentExtender = TIFFSetTagExtender(geoExtender); }
};
const GeoTagsAtLoad g_geoTagsAtLoad;

TIFF* geoOpen(const char* path, const char* mode) { return path ? TIFFOpen(path, mode) : nullptr; }

struct TiffCloser {
    void operator()(TIFF* t) const noexcept { TIFFClose(t); }
};
using TiffPtr = std::unique_ptr<TIFF, TiffCloser>;

// One entry of the key directory. Values kept in the directory's own array
// (location 34735) are copied out, so that the entries can move when the
// directory is written back; offsets into the double and ASCII parameters
// stay as stored, those tags being left as they are.
struct GeoKey {
    uint16_t id = 0, location = 0, count = 0, value = 0;
    std::vector<uint16_t> shorts;
};

struct KeyDirectory {
    uint16_t version = 1, revision = 1, minor = 0;
    std::vector<GeoKey> keys;

    // The last entry with this id, as lookups always found it.
    GeoKey* find(uint16_t id) {
        for (auto k = keys.rbegin(); k != keys.rend(); ++k)
            if (k->id == id) return &*k;
        return nullptr;
    }
};

enum class Keys { Absent, Usable, Version, Bad };

// The 4-short header says how many 4-short entries follow; entries
// reaching outside the directory or their parameter tag, a count other
// than 1 for a value in the entry itself, an unknown location, or more
// keys than the directory could ever hold make the directory unusable. A
// directory shorter than its header reads as an empty one.
Keys readKeys(TIFF* tif, KeyDirectory* dir) {
    uint16_t n = 0;
    uint16_t* d = nullptr;
    if (!TIFFGetField(tif, kTagKeyDirectory, &n, &d) || !d) return Keys::Absent;
    if (n < 4) return Keys::Usable;
    if (d[0] > 1) return Keys::Version;
    dir->version = d[0];
    dir->revision = d[1];
    dir->minor = d[2];
    const size_t count = d[3];
    if (count > 250 || 4 + 4 * count > n) return Keys::Bad;
    uint16_t nDoubles = 0;
    double* doubles = nullptr;
    const bool hasDoubles = TIFFGetField(tif, kTagDoubleParams, &nDoubles, &doubles) && doubles;
    char* ascii = nullptr;
    const bool hasAscii = TIFFGetField(tif, kTagAsciiParams, &ascii) && ascii;
    const size_t asciiLength = hasAscii ? std::strlen(ascii) : 0;
    for (size_t i = 0; i < count; ++i) {
        const uint16_t* e = d + 4 + 4 * i;
        GeoKey k;
        k.id = e[0];
        k.location = e[1];
        k.count = e[2];
        k.value = e[3];
        const size_t end = size_t(k.value) + k.count;
        switch (k.location) {
            case 0:
                if (k.count != 1) return Keys::Bad;
                break;
            case kTagKeyDirectory:
                if (end > n) return Keys::Bad;
                k.shorts.assign(d + k.value, d + end);
                break;
            case kTagDoubleParams:
                if (!hasDoubles || end > nDoubles) return Keys::Bad;
                break;
            case kTagAsciiParams:
                // A string may run past the end of the parameters when it
                // starts inside them (writers that drop the last '|').
                if (!hasAscii) return Keys::Bad;
                if (end > asciiLength && k.value >= asciiLength && !(end == asciiLength + 1 && k.count > 0))
                    return Keys::Bad;
                break;
            default: return Keys::Bad;
        }
        dir->keys.push_back(std::move(k));
    }
    return Keys::Usable;
}

// The first value of a key as a short, when it has one. A model type that
// a writer stored among the doubles is taken from the low 16 bits of the
// double, and one stored as text reads as 0, as such files always read.
bool shortValue(TIFF* tif, const GeoKey& k, uint16_t* value) {
    switch (k.location) {
        case 0: *value = k.value; return true;
        case kTagKeyDirectory:
            if (k.shorts.empty()) return false;
            *value = k.shorts[0];
            return true;
        case kTagDoubleParams: {
            uint16_t n = 0;
            double* d = nullptr;
            if (k.count == 0 || !TIFFGetField(tif, kTagDoubleParams, &n, &d) || !d || k.value >= n) return false;
            uint64_t bits;
            std::memcpy(&bits, &d[k.value], sizeof bits);
            *value = uint16_t(bits);
            return true;
        }
        default: *value = 0; return true;
    }
}

// Writes the directory back: header as read, entries sorted by key id,
// then the values of the keys kept in the directory, in entry order.
bool writeKeys(TIFF* tif, KeyDirectory& dir) {
    std::stable_sort(dir.keys.begin(), dir.keys.end(),
                     [](const GeoKey& a, const GeoKey& b) { return a.id < b.id; });
    std::vector<uint16_t> out{dir.version, dir.revision, dir.minor, uint16_t(dir.keys.size())};
    size_t tail = 4 + 4 * dir.keys.size();
    for (const GeoKey& k : dir.keys) {
        uint16_t at = k.value;
        if (k.location == kTagKeyDirectory) {
            at = uint16_t(tail);
            tail += k.shorts.size();
        }
        out.insert(out.end(), {k.id, k.location, k.count, at});
    }
    for (const GeoKey& k : dir.keys) out.insert(out.end(), k.shorts.begin(), k.shorts.end());
    if (out.size() > 0xFFFF) return false;
    return TIFFSetField(tif, kTagKeyDirectory, int(out.size()), out.data()) != 0;
}

// Messages off for the lifetime of the object.
struct Quiet {
    Quiet() { tiff_suppressMessages(0); }
    ~Quiet() { tiff_suppressMessages(1); }
};

// Doubles of a GeoTIFF tag, with their count (0 when absent).
int doubles(TIFF* tif, ttag_t tag, double** values) {
    uint16_t count = 0;
    *values = nullptr;
    if (!TIFFGetField(tif, tag, &count, values) || !*values) return 0;
    return count;
}

// Opens the file and its key directory and runs the version and model-type
// checks. With report set, the failures issue their messages. On success
// *model holds the model type key. A file without a directory reads as an
// empty one; a directory that cannot be used gives IMGERR_NOMEMORY, the
// status such files have always had here.
int openKeys(TiffPtr& tif, const char* path, const char* mode, bool report, int* model) {
    tif.reset(geoOpen(path, mode));
    if (!tif) return IMGERR_OPENFAILED;
    KeyDirectory dir;
    switch (readKeys(tif.get(), &dir)) {
        case Keys::Version: {
            uint16_t n = 0;
            uint16_t* d = nullptr;
            TIFFGetField(tif.get(), kTagKeyDirectory, &n, &d);
            if (report) tiff_issueMessage(kTiffMsgGeoVersion, d[0], 0, 0);
            return IMGERR_GEOKEYVERSION;
        }
        case Keys::Bad: return IMGERR_NOMEMORY;
        default: break;
    }
    const GeoKey* k = dir.find(kModelTypeKey);
    uint16_t value = 0;
    if (!k || !shortValue(tif.get(), *k, &value)) {
        if (report) tiff_issueMessage(kTiffMsgGeoModel);
        return IMGERR_BADFILE;
    }
    *model = value;
    return 0;
}

bool lowerLeftModel(int model) { return model == kGeoModelLowerLeftA || model == kGeoModelLowerLeftB; }

}  // namespace

struct tiff* tiff_geoOpen(const char* path, const char* mode) noexcept { return geoOpen(path, mode); }

int tiff_geoTiffCheck(const char* path) noexcept {
    Quiet quiet;
    TiffPtr tif;
    int model = 0;
    if (int st = openKeys(tif, path, "r", false, &model)) return st;
    double* v = nullptr;
    if (doubles(tif.get(), kTagTransformation, &v) >= 12) return 0;
    if (doubles(tif.get(), kTagPixelScale, &v) >= 3 && doubles(tif.get(), kTagTiePoints, &v) >= 6) return 0;
    return IMGERR_BADFILE;
}

bool tiff_hasGeoKeys(TIFF* tif) noexcept {
    uint16_t count = 0;
    uint16_t* keys = nullptr;
    if (!TIFFGetField(tif, kTagKeyDirectory, &count, &keys) || !keys || count < 4) return false;
    KeyDirectory dir;
    return readKeys(tif, &dir) == Keys::Usable;
}

extern "C" int korImage_readGeoTiffInfo(double* transform, const char* path) noexcept {
    tiff_installHandlers();
    if (!transform) return IMGERR_BADARG;
    TiffPtr tif(geoOpen(path, "r"));
    if (!tif) return IMGERR_OPENFAILED;
    uint32_t width = 0, height = 0;
    if (!TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &width) || !TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &height))
        return IMGERR_BADFILE;
    int model = 0;
    if (openKeys(tif, path, "r", true, &model) != 0) return 0;

    double m[12];
    double *matrix = nullptr, *scale = nullptr, *tie = nullptr;
    const int nMatrix = doubles(tif.get(), kTagTransformation, &matrix);
    const int nScale = doubles(tif.get(), kTagPixelScale, &scale);
    const int nTie = doubles(tif.get(), kTagTiePoints, &tie);
    const double rows = double(height);
    if (nMatrix >= 12) {
        std::memcpy(m, matrix, sizeof m);
        if (nScale >= 3 || lowerLeftModel(model)) {
            m[7] = m[7] + rows * m[5];
            m[5] = -m[5];
        } else if (m[5] > 0) {
            m[7] = m[7] - rows * m[5];
        }
        std::memcpy(transform, m, sizeof m);
    } else if (nScale >= 3 && nTie >= 6) {
        const double sx = scale[0], sy = scale[1], sz = scale[2];
        const double i = tie[0], j = tie[1], k = tie[2], x = tie[3], y = tie[4], z = tie[5];
        std::memset(m, 0, sizeof m);
        m[0] = sx;
        m[5] = sy;
        m[10] = sz;
        // The divisions by the scale are the rule of the files this
        // library has always read and written.
        m[3] = x - i / sx;
        m[7] = lowerLeftModel(model) ? y - j / sy : y - j / sy - rows * sy;
        m[11] = k == 0 ? 0 : z - k / sz;
        std::memcpy(transform, m, sizeof m);
    } else if (nScale >= 3) {
        tiff_issueMessage(kTiffMsgGeoTiepoint);
    }
    return 0;
}

int tiff_updateGeoReference(const double* origin, const double* extent, const char* path, int type) noexcept {
    tiff_installHandlers();
    if (!origin || !extent) return IMGERR_BADARG;
    TiffPtr tif(geoOpen(path, "r+"));
    if (!tif) return IMGERR_OPENFAILED;
    TIFF* t = tif.get();
    uint32_t width = 0, height = 0;
    if (!TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &width) || !TIFFGetField(t, TIFFTAG_IMAGELENGTH, &height) ||
        width == 0 || height == 0) {
        tiff_issueMessage(kTiffMsgSize);
        return IMGERR_BADFILE;
    }
    double m[16] = {};
    m[0] = extent[0] / width;
    m[3] = origin[0];
    m[5] = extent[1] / height;
    m[7] = origin[1] + extent[1];
    m[10] = 1.0;
    m[11] = origin[2];
    m[15] = 1.0;

    if (type == 29) {
        // The key directory stays as it is; only the transform changes.
        int model = 0;
        if (int st = openKeys(tif, path, "r+", true, &model)) return st;
        t = tif.get();
        double* v = nullptr;
        if (doubles(t, kTagTransformation, &v) >= 12) {
            TIFFSetField(t, kTagTransformation, 16, m);
        } else if (doubles(t, kTagPixelScale, &v) >= 1) {
            if (doubles(t, kTagTiePoints, &v) < 1) {
                tiff_issueMessage(kTiffMsgGeoTiepoint);
                return 0;
            }
            double scale[3] = {m[0], m[5], 0};
            double tie[6] = {0, 0, 0, origin[0], origin[1] + extent[1], origin[2]};
            TIFFSetField(t, kTagPixelScale, 3, scale);
            TIFFSetField(t, kTagTiePoints, 6, tie);
        } else {
            TIFFSetField(t, kTagTransformation, 16, m);
        }
    } else {
        KeyDirectory dir;
        const Keys keys = readKeys(t, &dir);
        if (keys == Keys::Version || keys == Keys::Bad) return IMGERR_NOMEMORY;
        GeoKey model;
        model.id = kModelTypeKey;
        model.count = 1;
        model.value = kGeoModelAdded;
        if (GeoKey* k = dir.find(kModelTypeKey))
            *k = model;
        else
            dir.keys.push_back(model);
        // The transform is set first: libtiff lays out the values in the
        // order they were set, and files have always had it before the keys.
        TIFFSetField(t, kTagTransformation, 16, m);
        if (!writeKeys(t, dir)) return IMGERR_WRITEFAILED;
    }
    // The directory is rewritten in place of the old one, so that the file
    // keeps a single image directory.
    if (!TIFFRewriteDirectory(t)) return IMGERR_WRITEFAILED;
    return 0;
}
