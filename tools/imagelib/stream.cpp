// imagelib convert --stream: one row at a time from the library's row
// reader to its row writer (or a PPM/PAM file), in memory that does not grow
// with the height of the image.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"
#include "image.h"
#include "output.h"

namespace cli {

namespace {

// File types the streaming layer reads row by row (Intergraph RGB, Targa,
// TIFF and GeoTIFF).
bool rowReadable(int type) { return type == 0 || type == 1 || type == 2 || type == 3 || type == 29; }

// True when the red, green and blue planes of a row follow each other, as
// row-planar RGB.
bool contiguous(uint8_t* const* planes, size_t width) {
    return planes[1] == planes[0] + width && planes[2] == planes[1] + width;
}

struct ContextCloser {
    void operator()(ImageFileContext* c) const { korImage_closeFile(c); }
};
using Context = std::unique_ptr<ImageFileContext, ContextCloser>;

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// The place rows go: the library's row writer, or a binary PPM (P6) or PAM
// (P7) written here, whose rows run top to bottom.
class RowSink {
public:
    // 0, or a status; IMGSTAT_NO_HANDLER when the type has no row writer.
    int create(const std::string& path, bool pnm, int type, ImageSize size, bool alpha) {
        size_ = size;
        if (!pnm) {
            int st = 0;
            ctx_.reset(korImage_createFile(&st, path.c_str(), nullptr, &size, type, alpha ? COLORMODE_RGBA : COLORMODE_RGB));
            if (!ctx_) return st ? st : IMGERR_WRITEFAILED;
            int a = 0;
            imagelib_getFileLayout(ctx_.get(), &orientation_, &a);
            alpha_ = a != 0;
            return 0;
        }
        file_.reset(std::fopen(path.c_str(), "wb"));
        if (!file_) return IMGERR_OPENFAILED;
        alpha_ = alpha;
        const std::string ext = path.substr(path.find_last_of('.') + 1);
        bool pam = ext.size() == 3 && std::tolower(ext[0]) == 'p' && std::tolower(ext[1]) == 'a' &&
                   std::tolower(ext[2]) == 'm';
        alpha_ = pam && alpha;
        if (pam)
            std::fprintf(file_.get(), "P7\nWIDTH %d\nHEIGHT %d\nDEPTH %d\nMAXVAL 255\nTUPLTYPE %s\nENDHDR\n", size.x,
                         size.y, alpha_ ? 4 : 3, alpha_ ? "RGB_ALPHA" : "RGB");
        else
            std::fprintf(file_.get(), "P6\n%d %d\n255\n", size.x, size.y);
        line_.resize(size_t(size.x) * 4);
        return std::ferror(file_.get()) ? IMGERR_WRITEFAILED : 0;
    }

    int orientation() const { return orientation_; }

    int put(uint8_t* const* planes) {
        if (ctx_) {
            const int st = korImage_putRow(ctx_.get(), planes[0], planes[1], planes[2], planes[3]);
            return st > 0 ? IMGERR_WRITEFAILED : st;  // short writes are positive for some types
        }
        const size_t w = size_t(size_.x), n = alpha_ ? 4 : 3;
        uint8_t* p = line_.data();
        if (n == 3 && contiguous(planes, w)) {
            const ImageSize one{size_.x, 1};
            korImage_RGBSeparateToRGB(p, planes[0], &one, IMAGEFORMAT_RGB, nullptr);
        } else {
            for (size_t x = 0; x < w; ++x)
                for (size_t c = 0; c < n; ++c) *p++ = planes[c][x];
        }
        return std::fwrite(line_.data(), 1, w * n, file_.get()) == w * n ? 0 : IMGERR_WRITEFAILED;
    }

    int close() {
        int st = 0;
        if (ctx_) {
            st = korImage_closeFile(ctx_.release());
            if (st > 0) st = IMGERR_WRITEFAILED;
        }
        if (file_ && std::fclose(file_.release()) != 0) st = IMGERR_WRITEFAILED;
        return st;
    }

private:
    Context ctx_;
    FilePtr file_;
    ImageSize size_{};
    int orientation_ = 0;  // the library writer's (PNM: top to bottom)
    bool alpha_ = false;
    std::vector<uint8_t> line_;
};

// Where rows come from: the library's row reader, or a binary PGM, PPM or
// PAM file read here (rows top to bottom, samples scaled to 0..255 as the
// whole-image PNM reader scales them).
class RowSource {
public:
    // 0, a status, or IMGSTAT_NO_HANDLER when the file has no row reader.
    int open(const std::string& path) {
        if (!isPnmFile(path)) {
            int st = 0;
            ctx_.reset(korImage_openFile(&st, nullptr, path.c_str()));
            if (!ctx_) {
                const bool readable = ::access(path.c_str(), R_OK) == 0;
                if (readable && !rowReadable(fileTypeOf(path))) return IMGSTAT_NO_HANDLER;
                return readerStatus(st ? st : IMGERR_BADFILE, path);
            }
            int a = 0;
            korImage_getImageSize(&size_, ctx_.get());
            imagelib_getFileLayout(ctx_.get(), &orientation_, &a);
            alpha_ = a != 0;
            return 0;
        }
        file_.reset(std::fopen(path.c_str(), "rb"));
        if (!file_) return IMGERR_OPENFAILED;
        return pnmHeader();
    }

    ImageSize size() const { return size_; }
    int orientation() const { return orientation_; }
    bool alpha() const { return alpha_; }

    // The next row into the planes (alpha only when the file has it).
    int get(uint8_t* const* planes) {
        if (ctx_) return korImage_getRow(ctx_.get(), planes[0], planes[1], planes[2], alpha_ ? planes[3] : nullptr);
        const size_t w = size_t(size_.x), bytes = w * depth_ * (maxval_ > 255 ? 2 : 1);
        if (std::fread(line_.data(), 1, bytes, file_.get()) != bytes) return IMGERR_READFAILED;
        const uint8_t* p = line_.data();
        if (depth_ == 3 && maxval_ == 255 && contiguous(planes, w)) {
            const ImageSize one{size_.x, 1};
            return korImage_RGBToRGBSeparate(planes[0], p, &one, IMAGEFORMAT_RGB, nullptr);
        }
        uint8_t px[4];
        for (size_t x = 0; x < w; ++x) {
            for (int c = 0; c < depth_; ++c) {
                long raw = maxval_ > 255 ? (p[0] << 8) | p[1] : p[0];
                p += maxval_ > 255 ? 2 : 1;
                if (raw > maxval_) raw = maxval_;
                px[c] = uint8_t((raw * 255 + maxval_ / 2) / maxval_);
            }
            const bool grey = depth_ <= 2;
            planes[0][x] = px[0];
            planes[1][x] = grey ? px[0] : px[1];
            planes[2][x] = grey ? px[0] : px[2];
            if (alpha_) planes[3][x] = px[depth_ - 1];
        }
        return 0;
    }

private:
    // One header token (white space and comments skipped).
    bool token(std::string& t) {
        t.clear();
        int c;
        do {
            c = std::fgetc(file_.get());
            if (c == '#')
                while (c != '\n' && c != EOF) c = std::fgetc(file_.get());
        } while (c != EOF && std::isspace(c));
        while (c != EOF && !std::isspace(c) && t.size() < 64) {
            t += char(c);
            c = std::fgetc(file_.get());
        }
        return !t.empty();
    }
    bool number(long& v) {
        std::string t;
        if (!token(t)) return false;
        char* end;
        v = std::strtol(t.c_str(), &end, 10);
        return *end == 0 && v >= 0;
    }
    int pnmHeader() {
        std::string magic, key;
        long w = 0, h = 0, depth = 0, maxval = 0;
        if (!token(magic)) return IMGERR_BADFILE;
        if (magic == "P7") {
            while (token(key) && key != "ENDHDR") {
                if (key == "TUPLTYPE") {
                    if (!token(key)) return IMGERR_BADFILE;
                    continue;
                }
                long* field = key == "WIDTH" ? &w : key == "HEIGHT" ? &h : key == "DEPTH" ? &depth
                             : key == "MAXVAL" ? &maxval : nullptr;
                if (!field || !number(*field)) return IMGERR_BADFILE;
            }
            if (key != "ENDHDR") return IMGERR_BADFILE;
            if (depth < 1 || depth > 4) return IMGERR_BADFORMAT;
        } else if (magic == "P5" || magic == "P6") {
            if (!number(w) || !number(h) || !number(maxval)) return IMGERR_BADFILE;
            depth = magic == "P6" ? 3 : 1;
        } else {
            return IMGSTAT_NO_HANDLER;  // plain and bit PNM: read whole
        }
        if (w <= 0 || h <= 0 || w > 0x7FFFFFFF / 8 || h > 0x7FFFFFFF || maxval < 1 || maxval > 65535)
            return IMGERR_BADFILE;
        // The samples of binary PNM have a fixed size: a header that claims
        // more rows than a regular file holds is refused before the row
        // buffer is made for it.
        const uint64_t rowBytes = uint64_t(w) * uint64_t(depth) * (maxval > 255 ? 2 : 1);
        struct stat st;
        const long at = std::ftell(file_.get());
        if (at >= 0 && ::fstat(::fileno(file_.get()), &st) == 0 && S_ISREG(st.st_mode) &&
            (uint64_t(st.st_size) < uint64_t(at) || (uint64_t(st.st_size) - uint64_t(at)) / rowBytes < uint64_t(h)))
            return IMGERR_BADFILE;
        size_ = {int32_t(w), int32_t(h)};
        depth_ = int(depth);
        maxval_ = maxval;
        alpha_ = depth == 2 || depth == 4;
        line_.resize(size_t(w) * size_t(depth) * 2);
        return 0;
    }

    Context ctx_;
    FilePtr file_;
    ImageSize size_{};
    int orientation_ = 0;
    bool alpha_ = false;
    int depth_ = 0;
    long maxval_ = 255;
    std::vector<uint8_t> line_;
};

// Rows kept on disk when the reader hands them out in the opposite order to
// the one the writer takes: written once in reading order beside the
// output, read back from the last. The file is unlinked at once.
class RowSpool {
public:
    int open(const std::string& besides, size_t rowBytes) {
        std::string name = besides + ".rowsXXXXXX";
        const int fd = ::mkstemp(name.data());
        if (fd < 0) return IMGERR_OPENFAILED;
        ::unlink(name.c_str());
        fd_ = fd;
        rowBytes_ = rowBytes;
        return 0;
    }
    ~RowSpool() {
        if (fd_ >= 0) ::close(fd_);
    }
    int write(const uint8_t* row) { return full(::write(fd_, row, rowBytes_)) ? 0 : IMGERR_WRITEFAILED; }
    int read(int y, uint8_t* row) const {
        return full(::pread(fd_, row, rowBytes_, off_t(rowBytes_) * y)) ? 0 : IMGERR_READFAILED;
    }

private:
    bool full(ssize_t n) const { return n >= 0 && size_t(n) == rowBytes_; }
    int fd_ = -1;
    size_t rowBytes_ = 0;
};

bool streamOption(const std::string& a) { return a == "--stream"; }
bool streamOptionWithValue(const std::string& a) { return a == "--type" || a == "--mode"; }

}  // namespace

int convertStream(const Args& args, const std::string& in, const std::string& out, int type, int mode) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (streamOptionWithValue(a)) ++i;
        else if (!streamOption(a) && !a.empty() && a[0] == '-' && a.size() > 1)
            return usage("convert: --stream takes only --type and --mode (rgb or rgba), not '" + a + "'");
    }
    if (mode >= 0 && mode != COLORMODE_RGB && mode != COLORMODE_RGBA)
        return usage("convert: --stream writes rgb or rgba rows");
    const bool pnm = type < 0;
    if (pnm && !(out.size() > 4 && (out.compare(out.size() - 4, 4, ".ppm") == 0 ||
                                     out.compare(out.size() - 4, 4, ".pnm") == 0 ||
                                     out.compare(out.size() - 4, 4, ".pam") == 0)))
        return usage("convert: --stream writes PPM or PAM, not PGM or PBM");

    int st = 0;
    RowSource reader;
    if ((st = reader.open(in)) != 0) {
        if (st != IMGSTAT_NO_HANDLER) return failure(in, st);
        const int inType = fileTypeOf(in);
        char ext[16] = "plain PNM";
        if (inType >= 0) korImage_getExtension(ext, inType);
        return usage("convert: " + in + ": " + ext + " files have no row reader; convert them without --stream");
    }
    const ImageSize size = reader.size();
    const int readOrientation = reader.orientation();
    const bool alpha = reader.alpha();
    const bool writeAlpha = alpha && (mode == COLORMODE_RGBA || (mode < 0 && (pnm || korImage_alphaExportSupported(type))));

    OutputFile file(out);
    if ((st = file.open()) != 0) return failure(out, st);
    RowSink sink;
    if ((st = sink.create(file.path(), pnm, type, size, writeAlpha)) != 0) {
        if (st == IMGSTAT_NO_HANDLER) {
            char ext[16] = "?";
            korImage_getExtension(ext, type);
            return usage("convert: " + std::string(ext) + " files (type " + std::to_string(type) +
                         ") have no row writer; convert without --stream");
        }
        return failure(out, st > 0 ? IMGERR_OPENFAILED : st);
    }

    // Rows in the opposite vertical order to the writer's go through the
    // spool. Only rows stored bottom-up from the left count as bottom-up,
    // as for the whole-image readers (a right-hand origin keeps the stored
    // order).
    const int width = size.x, height = size.y;
    const bool flip = ((readOrientation & 3) == 2) != ((sink.orientation() & 3) == 2);
    std::vector<uint8_t> row(size_t(width) * 4);
    uint8_t* const planes[4] = {row.data(), row.data() + width, row.data() + 2 * size_t(width),
                                row.data() + 3 * size_t(width)};
    const size_t rowBytes = size_t(width) * (alpha ? 4 : 3);
    RowSpool spool;
    if (flip && (st = spool.open(file.path(), rowBytes)) != 0) return failure(out, st);
    if (!alpha) std::memset(planes[3], 255, size_t(width));

    const StopFunction stop = progressFunction();
    const int total = flip ? 2 * height : height;
    int done = 0;
    std::string failed = in;
    for (int y = 0; y < height && st == 0; ++y) {
        if (stop(total, done++)) {
            st = IMGERR_STOPPED;
            break;
        }
        if ((st = reader.get(planes)) != 0) {
            st = readerStatus(st, in);
            break;
        }
        if ((st = flip ? spool.write(row.data()) : sink.put(planes)) != 0) failed = out;
    }
    if (flip) {
        if (st == 0) failed = out;
        for (int y = height - 1; y >= 0 && st == 0; --y) {
            if (stop(total, done++)) st = IMGERR_STOPPED;
            else if ((st = spool.read(y, row.data())) == 0) st = sink.put(planes);
        }
    }
    const int closed = sink.close();
    progressDone();
    if (st == IMGERR_STOPPED) failed = out;
    if (st == 0 && closed != 0) {
        st = closed;
        failed = out;
    }
    if (st == 0) st = file.commit();
    return st == 0 ? kOk : failure(failed, st);
}

}  // namespace cli
