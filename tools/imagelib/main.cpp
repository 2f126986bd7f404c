// imagelib: identify, convert and inspect raster image files.
#include <cstdio>
#include <cstring>
#include <string>

#include "cli.h"
#include "imagelib/imagelib.h"

namespace cli {

namespace {

const Command kCommands[] = {
    {"formats", "formats [--json]            list every file type and what can be done with it", cmdFormats},
    {"type", "type FILE                    the type of FILE (from its contents, then its name)", cmdType},
    {"info", "info [--json] FILE           size, colour mode and orientation from the file's header", cmdInfo},
    {"convert",
     "convert IN OUT [options]     convert between file types (type from --type or OUT's name)\n"
     "      --type N                   file type number of OUT (see 'imagelib formats')\n"
     "      --mode M                   rgb, 16, 256, grey, bilevel, rgba or 1..6 (default: the source's\n"
     "                                 when the writer takes it, else the writer's default)\n"
     "      --quality Q                JPEG quality (held to 40..90)\n"
     "      --compression C            the writer's compression code (TIFF: -5 LZW, 0 none,\n"
     "                                 4 Group 4, 32773 PackBits, 32946 deflate)\n"
     "      --crop x0,y0,x1,y1         keep this rectangle (corners inclusive)\n"
     "      --size WxH                 resample to this size\n"
     "      --rotate DEG               turn counter-clockwise by DEG degrees (90, 180, 270: exact\n"
     "                                 quarter turns; other angles into the bounding box)\n"
     "      --background COLOR         #rrggbb or r,g,b where the turned or warped picture does not\n"
     "                                 reach (default black)\n"
     "      --interpolate F            nearest, bilinear or bicubic (default bilinear)\n"
     "      --affine a,b,c,d,e,f       warp: x' = a x + c y + e, y' = b x + d y + f, in the source's size\n"
     "      --mirror v|h               v: top to bottom, h: left to right\n"
     "      --transparent COLOR[,TOL]  pixels within TOL (default 0) of COLOR (#rrggbb or r,g,b) become\n"
     "                                 transparent; written with alpha (PNG, TIFF, Targa, BMP) or as\n"
     "                                 the GIF transparent index\n"
     "      --thumbnail WxH            read IN reduced to fit WxH (aspect kept, never enlarged)\n"
          "    IN or OUT may be binary PPM/PGM/PBM/PAM (.ppm .pgm .pbm .pam .pnm) for comparison with other tools\n"
     "      --stream                   row by row, in memory independent of the height (IN: Targa, TIFF,\n"
     "                                 Intergraph RGB or binary PGM/PPM/PAM; OUT: Targa, TIFF, BMP, PICT,\n"
     "                                 EPS, Intergraph RGB or PPM/PAM); takes only --type and --mode\n"
     "  convert -j N IN... --to DIR --type T [options]\n"
     "                               every IN on N threads into DIR/<IN's name>.<T's extension>; exit 1\n"
     "                               when any file failed (the others are still written)\n"
     "    OUT appears only when complete: a failed conversion leaves an existing OUT as it was",
     cmdConvert},
    {"thumbnail",
     "thumbnail IN... --size N --to DIR [--type T]\n"
     "                               one thumbnail fitting N x N a file, written as DIR/<name>.<extension\n"
     "                               of type T> (default 28, PNG)",
     cmdThumbnail},
    {"movie",
     "movie OUT [--delay TICKS] FRAME...\n"
     "                               frames (image files of one size) into a FLI, FLC or AVI movie by OUT's\n"
     "                               name; each frame is shown TICKS 1/60 s (default 4)",
     cmdMovie},
    {"demo", "demo [DIR]                   write a test image in every writable type, read each back, and\n"
             "                               print sizes, times and differences (default DIR ./imagelib-demo)",
     cmdDemo},
};

void printHelp() {
    std::printf("usage: imagelib COMMAND [ARGS]\n\ncommands:\n");
    for (const Command& c : kCommands) std::printf("  %s\n", c.synopsis);
    std::printf("\n  --help                       this text\n");
    std::printf("  --version                    the library's version\n");
    std::printf("\nExit status: 0 success, 1 the operation failed, 2 usage error.\n");
}

}  // namespace

int failure(const std::string& file, int status) {
    std::fprintf(stderr, "imagelib: %s: %s (status %d)\n", file.c_str(), imagelib_statusText(status), status);
    return kFailed;
}

int usage(const std::string& message) {
    std::fprintf(stderr, "imagelib: %s\nTry 'imagelib --help'.\n", message.c_str());
    return kUsage;
}

std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += char(c);
                }
        }
    }
    return out + "\"";
}

}  // namespace cli

int main(int argc, char** argv) {
    if (argc < 2) return cli::usage("no command given");
    std::string cmd = argv[1];
    if (cmd == "--help" || cmd == "-h" || cmd == "help") {
        cli::printHelp();
        return cli::kOk;
    }
    if (cmd == "--version") {
        std::printf("imagelib %s\n", imagelib_version());
        return cli::kOk;
    }
    for (const cli::Command& c : cli::kCommands) {
        if (cmd == c.name) return c.run(cli::Args(argv + 2, argv + argc));
    }
    return cli::usage("unknown command '" + cmd + "'");
}
