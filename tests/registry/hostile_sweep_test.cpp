// The hostile-input sweep over every reader: each seed file under
// fuzz/corpus/<reader>/ (files our writers and other programs produce) is
// cut short at many lengths and has seeded bits flipped, and every variant
// goes through every read entry point, with the type detected and with the
// seed's own type forced. Each call must give a negative status or a valid
// image (freed again); a crash, hang, leak or stray write shows up here and
// under the sanitizers. A reader is covered as soon as its seeds are there.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

const char* const kSeedDir = IMAGELIB_SEED_DIR;

std::vector<std::string> readerNames() {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(kSeedDir, ec))
        if (e.is_directory()) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// A whole-image result: sizes must be positive (and bounded by what a test
// file can hold) whenever the status is 0.
void expectImage(int status, const ImageSize& size, const std::string& what) {
    if (status != 0) return;
    EXPECT_GT(size.x, 0) << what;
    EXPECT_GT(size.y, 0) << what;
}

// Every read entry point on the file at path, read as `type` (-1: detect).
void readEverything(const std::string& path, int type, const std::string& what) {
    ImageFileInfo info{};
    korImage_readFileInfoEx(&info, path.c_str());
    ImageSize size{}, infoSize{};
    int mode = 0, orient = 0;
    korImage_readFileInfo(&infoSize, &mode, &orient, path.c_str(), type);

    uint8_t* rgb = nullptr;
    int s = korImage_readFileToRGB(&rgb, &size, path.c_str(), type, nullptr, nullptr);
    expectImage(s, size, what + " rgb");
    if (rgb) korImage_freeImage(rgb, &size, IMAGEFORMAT_RGB);

    uint8_t* rgba = nullptr;
    size = {};
    s = korImage_readFileToRGBA(&rgba, &size, path.c_str(), type, nullptr, 0, 1, nullptr);
    expectImage(s, size, what + " rgba");
    if (rgba) korImage_freeImage(rgba, &size, IMAGEFORMAT_RGBA);

    uint8_t red[256], green[256], blue[256];
    int count = 0;
    uint8_t** rows = nullptr;
    size = {};
    s = korImage_readFileToMap(&rows, &size, red, green, blue, &count, path.c_str(), type, nullptr, nullptr);
    expectImage(s, size, what + " map");
    if (s == 0) {
        EXPECT_TRUE(count >= 0 && count <= 256) << what;
    }
    if (rows) korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);

    for (int runLength : {0, 1}) {
        void* bits = nullptr;
        size = {};
        s = korImage_readFileToBitMap(&bits, &size, path.c_str(), type, runLength, nullptr);
        expectImage(s, size, what + " bitmap");
        if (bits) korImage_freeImage(bits, &size, runLength ? IMAGEFORMAT_RLEBITMAP : IMAGEFORMAT_BITMAP);
    }

    korImage_readPalette(red, green, blue, &count, path.c_str(), type);

    void* buffer = nullptr;
    int layout = 0;
    size = {};
    s = korImage_readFileToBuffer(&buffer, &layout, &mode, red, green, blue, &count, &size, path.c_str(), type, 0,
                                  nullptr);
    expectImage(s, size, what + " buffer");
    if (buffer) korImage_freeImage(buffer, &size, layout);

    // The streaming rows, to the end or the first failure.
    int st = 0;
    if (ImageFileContext* ctx = korImage_openFile(&st, nullptr, path.c_str())) {
        ImageSize rowSize{};
        korImage_getImageSize(&rowSize, ctx);
        ASSERT_GT(rowSize.x, 0) << what;
        Bytes planes(size_t(rowSize.x) * 4);
        uint8_t* p = planes.data();
        for (int r = 0; r < rowSize.y; ++r)
            if (korImage_getRow(ctx, p, p + rowSize.x, p + 2 * rowSize.x, p + 3 * rowSize.x) != 0) break;
        korImage_closeFile(ctx);
    }
    uint8_t bg[4];
    korImage_getImageBgColor(bg, path.c_str(), type);

    // Intergraph rasters by blocks: every block, last first.
    IngrRasterInfo ingr{};
    if (IngrBlockReader* r = korImage_openIngrBlocks(&st, &ingr, path.c_str())) {
        Bytes block(size_t(ingr.blockSize.x) * ingr.blockSize.y * ingr.bands);
        const int cols = (ingr.size.x + ingr.blockSize.x - 1) / ingr.blockSize.x;
        const int rows = (ingr.size.y + ingr.blockSize.y - 1) / ingr.blockSize.y;
        for (int k = cols * rows - 1; k >= 0; --k)
            if (korImage_readIngrBlock(r, k % cols, k / cols, block.data()) != 0) break;
        korImage_closeIngrBlocks(r);
    }
    const ImageSize box{7, 5};
    uint8_t* thumb = nullptr;
    if (korImage_readThumbnail(&thumb, &size, path.c_str(), type, &box, nullptr) == 0) {
        EXPECT_TRUE(size.x <= box.x && size.y <= box.y && size.x > 0 && size.y > 0);
        korImage_freeImage(thumb, &size, IMAGEFORMAT_RGB);
    }
}

class HostileSweep : public ::testing::TestWithParam<std::string> {};

TEST_P(HostileSweep, TruncatedAndCorruptedSeedsFailCleanly) {
    iltest::TempDir dir;
    std::vector<fs::path> seeds;
    for (const auto& e : fs::directory_iterator(fs::path(kSeedDir) / GetParam()))
        if (e.is_regular_file()) seeds.push_back(e.path());
    std::sort(seeds.begin(), seeds.end());
    ASSERT_FALSE(seeds.empty());
    for (const fs::path& seed : seeds) {
        const Bytes whole = iltest::readFile(seed.string());
        const std::string ext = seed.extension().string();
        const std::string path = dir.file("v" + ext);
        // The seed itself must read, so that its variants reach the decoder.
        ASSERT_TRUE(iltest::writeFile(path, whole));
        const int type = korImage_fileType(-1, path.c_str());
        {
            void* buffer = nullptr;
            int layout = 0;
            ImageSize size{};
            uint8_t red[256], green[256], blue[256];
            int st = korImage_readFileToBuffer(&buffer, &layout, nullptr, red, green, blue, nullptr, &size,
                                               path.c_str(), type, 0, nullptr);
            if (st == IMGERR_BADFORMAT) {  // no information call (GIF): the RGB reader must read it
                uint8_t* rgb = nullptr;
                st = korImage_readFileToRGB(&rgb, &size, path.c_str(), type, nullptr, nullptr);
                buffer = rgb;
                layout = IMAGEFORMAT_RGB;
            }
            ASSERT_EQ(st, 0) << seed;
            korImage_freeImage(buffer, &size, layout);
        }
        std::vector<Bytes> variants;
        // Cuts: every length of the first 64 bytes, then 24 spread over the rest.
        for (size_t n = 0; n < whole.size(); n += n < 64 ? 1 : std::max<size_t>(1, whole.size() / 24))
            variants.emplace_back(whole.begin(), whole.begin() + long(n));
        // Seeded bit flips: single bytes in the header, bursts anywhere.
        std::mt19937 rng(uint32_t(whole.size()) * 2654435761u);
        for (int i = 0; i < 48 && !whole.empty(); ++i) {
            Bytes bad = whole;
            const size_t at = i < 24 ? rng() % std::min<size_t>(whole.size(), 64) : rng() % whole.size();
            const int burst = i % 3 == 2 ? 8 : 1;
            for (int k = 0; k < burst && at + k < bad.size(); ++k) bad[at + k] ^= uint8_t(1u << (rng() % 8));
            if (i % 4 == 3) bad[at] = 0xFF;
            variants.push_back(std::move(bad));
        }
        for (size_t v = 0; v < variants.size(); ++v) {
            ASSERT_TRUE(iltest::writeFile(path, variants[v]));
            const std::string what = seed.filename().string() + " variant " + std::to_string(v);
            korImage_typeFromFile(path.c_str());
            readEverything(path, -1, what);
            if (type >= 0) readEverything(path, type, what + " as type " + std::to_string(type));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Readers, HostileSweep, ::testing::ValuesIn(readerNames()),
                         [](const auto& info) { return info.param; });

}  // namespace
