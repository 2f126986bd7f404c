// Row encodings: packing, run-length bitmap rows, PackByte rows, bitmap
// utilities and grey-to-bitmap reduction.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "pixels/rows.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Runs = std::vector<uint16_t>;
const uint8_t* u8(const char* s) { return reinterpret_cast<const uint8_t*>(s); }

bool bitAt(const uint8_t* row, size_t x) { return (row[x >> 3] >> (7 - (x & 7))) & 1; }

// A bitmap row of width pixels with runs of random lengths (mean about
// meanRun), padding bits clear.
Bytes randomRow(std::mt19937& rng, size_t width, unsigned meanRun) {
    Bytes row((width + 7) / 8, 0);
    std::uniform_int_distribution<unsigned> len(1, 2 * meanRun);
    bool colour = rng() & 1;
    for (size_t x = 0; x < width; colour = !colour)
        for (size_t end = std::min(width, x + len(rng)); x < end; ++x)
            if (colour) row[x >> 3] |= uint8_t(0x80 >> (x & 7));
    return row;
}

// The run-length encoder as the format describes it, bit by bit, padding
// bits included (they are clear in the rows given to it).
Runs referenceRuns(const Bytes& row, size_t width) {
    Runs out;
    int colour = 0;
    size_t pending = 0, remaining = width, nbytes = (width + 7) / 8;
    for (size_t i = 0; i < nbytes; ++i) {
        for (int bit = 7; bit >= 0; --bit) {
            if (((row[i] >> bit) & 1) == colour) {
                ++pending;
                continue;
            }
            const size_t n = std::min(pending, remaining);
            out.push_back(uint16_t(n));
            remaining -= n;
            colour ^= 1;
            pending = 1;
        }
        while (remaining >= 8 && i + 1 < nbytes && row[i + 1] == (colour ? 0xFF : 0x00)) pending += 8, ++i;
    }
    if (remaining > 0) out.push_back(uint16_t(remaining));
    return out;
}

Runs encodeRuns(const Bytes& row, int width) {
    Runs runs(size_t(width) + 1, 0xBEEF);
    int len = -1;
    EXPECT_EQ(korImage_runLengthEncodeBitMapRow(runs.data(), &len, row.data(), width), len);
    runs.resize(size_t(len) / 2);
    return runs;
}

// The PackByte encoder as the format describes it: a byte-wise state
// machine with one pending byte (s < 0: a repeat of -s, s > 0: a literal
// of s bytes written and one pending).
Bytes referencePackByte(const Bytes& src) {
    Bytes out;
    int s = 0;
    uint8_t p = 0;
    size_t countAt = 0;  // where the open literal's count byte goes
    auto repeat = [&](int n) { out.insert(out.end(), {uint8_t(n), p}); };
    for (uint8_t b : src) {
        if (s == 0) {
            s = -1, p = b;
        } else if (s < 0 && b == p) {
            if (--s == -128) repeat(-128), s = 0;
        } else if (s == -1) {
            countAt = out.size();
            out.insert(out.end(), {0, p});
            s = 1, p = b;
        } else if (s <= -2) {
            repeat(s), s = -1, p = b;
        } else if (b == p) {
            out[countAt] = uint8_t(s), s = -2;
        } else {
            out.push_back(p);
            if (++s == 127) out[countAt] = 127, s = -1;
            p = b;
        }
    }
    if (s >= 1) out.push_back(p), out[countAt] = uint8_t(s + 1);
    else if (s < 0) repeat(s);
    return out;
}

Bytes packByte(const Bytes& src) {
    Bytes out(2 * src.size() + 2, 0xEE);
    int len = -1;
    EXPECT_EQ(korImage_packByteBuffer(out.data(), &len, src.data(), int(src.size())), &len);
    out.resize(size_t(len));
    return out;
}

// Data with runs of every length and stretches without neighbours alike.
Bytes randomRunData(std::mt19937& rng, size_t n) {
    Bytes d;
    std::uniform_int_distribution<int> kind(0, 3), longRun(2, 300), shortRun(1, 3);
    while (d.size() < n) {
        int k = kind(rng);
        d.insert(d.end(), size_t(k == 0 ? longRun(rng) : shortRun(rng)), uint8_t(k == 3 ? rng() % 3 : rng()));
    }
    d.resize(n);
    return d;
}

Bytes unpackRow(const uint8_t* packed, int count) {
    Bytes out(static_cast<size_t>(count));
    korImage_unpackByteBuffer(out.data(), packed, count);
    return out;
}

}  // namespace

TEST(Pack, PacksAndUnpacksAtEveryDepth) {
    Bytes out(4, 0xAA);
    EXPECT_EQ(korImage_packBuffer(out.data(), Bytes{1, 0, 1, 1, 0, 0, 0, 1, 1}.data(), 1, 9), 8);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 2), (Bytes{0xB1, 0x80}));  // unused bits zero
    EXPECT_EQ(korImage_packBuffer(out.data(), Bytes{3, 0, 2, 1, 1}.data(), 2, 5), 4);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 2), (Bytes{0xC9, 0x40}));
    EXPECT_EQ(korImage_packBuffer(out.data(), Bytes{0xA, 0x5, 0xF}.data(), 4, 3), 2);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 2), (Bytes{0xA5, 0xF0}));
    // Values are not masked: 3 at the second 1-bit field spills into the first.
    const Bytes wide = {0, 3};
    korImage_packBuffer(out.data(), wide.data(), 1, 2);
    EXPECT_EQ(out[0], 0xC0);
    EXPECT_LT(korImage_packBuffer(out.data(), wide.data(), 0, 2), 0);

    std::mt19937 rng(1);
    for (int bits : {1, 2, 4, 8}) {
        for (int count : {1, 3, 7, 8, 9, 17, 1001}) {
            Bytes src = Bytes(size_t(count));
            for (auto& v : src) v = uint8_t(rng() & ((1u << bits) - 1));
            Bytes packed(size_t(count) + 1, 0x5A), back(size_t(count) + 1, 0x5A);
            korImage_packBuffer(packed.data(), src.data(), bits, count);
            EXPECT_EQ(packed[(size_t(count) * size_t(bits) + 7) / 8], 0x5A) << "wrote past the packed bytes";
            korImage_unpackBuffer(back.data(), packed.data(), bits, count);
            EXPECT_EQ(back.back(), 0x5A);
            back.pop_back();
            EXPECT_EQ(back, src) << bits << " bits, " << count << " values";
        }
    }

    uint8_t table[256];
    for (int i = 0; i < 256; ++i) table[i] = uint8_t(255 - i);
    Bytes mapped(5, 0);
    il::unpackBufferMapped(mapped.data(), u8("\x1B\x40"), 2, 5, table);
    EXPECT_EQ(mapped, (Bytes{255, 254, 253, 252, 254}));
    il::unpackBufferMapped(mapped.data(), u8("\x1B\x40"), 2, 5, nullptr);
    EXPECT_EQ(mapped, (Bytes{0, 1, 2, 3, 1}));
    il::unpackBufferMapped(mapped.data(), u8("\x12\x34\x56"), 4, 5, table);
    EXPECT_EQ(mapped, (Bytes{254, 253, 252, 251, 250}));
}

TEST(RunLength, RowEncodingRules) {
    EXPECT_EQ(encodeRuns(Bytes{0x00, 0x00}, 13), (Runs{13}));     // all background: one run
    EXPECT_EQ(encodeRuns(Bytes{0xFF, 0xF8}, 13), (Runs{0, 13}));  // all foreground: 0, W
    // Padding bits never change the runs.
    EXPECT_EQ(encodeRuns(Bytes{0xFF, 0xF5}, 12), (Runs{0, 12}));
    EXPECT_EQ(encodeRuns(Bytes{0xA0 | 0x15}, 3), (Runs{0, 1, 1, 1}));
    // Null length pointer: only the return value.
    Runs runs(4);
    EXPECT_EQ(korImage_runLengthEncodeBitMapRow(runs.data(), nullptr, u8("\x0F"), 8), 4);
}

TEST(RunLength, MatchesTheBitwiseEncoderAndRoundTrips) {
    std::mt19937 rng(7);
    for (int iter = 0; iter < 400; ++iter) {
        size_t width = iter < 16 ? size_t(iter + 1) : 1 + rng() % 3000;
        Bytes row = randomRow(rng, width, std::vector<unsigned>{1, 2, 5, 40, 900}[iter % 5]);
        Runs runs = encodeRuns(row, int(width));
        ASSERT_EQ(runs, referenceRuns(row, width)) << "width " << width;
        ASSERT_LE(runs.size(), width + 1);
        if (width & 7) {  // set padding bits: same runs
            Bytes padded = row;
            padded.back() |= uint8_t(0xFF >> (width & 7));
            ASSERT_EQ(encodeRuns(padded, int(width)), runs);
        }
        // Decoding restores the pixels and keeps the padding bits of the
        // destination as they were.
        Bytes back(row.size() + 1, 0xFF);
        korImage_runLengthDecodeBitMapRow(back.data(), runs.data(), int(width));
        ASSERT_EQ(back.back(), 0xFF);
        for (size_t x = 0; x < 8 * row.size(); ++x)
            ASSERT_EQ(bitAt(back.data(), x), x < width ? bitAt(row.data(), x) : true) << x;
    }
}

TEST(RunLength, WideRowsSplitRunsThatDoNotFitSixteenBits) {
    const size_t width = 200000;
    Bytes row((width + 7) / 8, 0);
    for (size_t x = 150000; x < width; ++x) row[x >> 3] |= uint8_t(0x80 >> (x & 7));
    Runs runs = encodeRuns(row, int(width));
    uint64_t sum = 0;
    for (auto r : runs) sum += r;
    EXPECT_EQ(sum, width);
    EXPECT_EQ(il::rleRowRunCount(runs.data(), int(runs.size()), int(width)), int(runs.size()));
    Bytes back(row.size(), 0x55);
    korImage_runLengthDecodeBitMapRow(back.data(), runs.data(), int(width));
    EXPECT_EQ(back, row);
}

// Long rows whose stretches switch between dense and sparse, wider than the
// decoder's chunks and than 16-bit runs: the fast paths must hand over cleanly.
TEST(RunLength, MixedWideRowsMatchTheBitwiseEncoder) {
    std::mt19937 rng(11);
    for (size_t width : {2049u, 32771u, 70001u}) {
        Bytes row((width + 7) / 8, 0);
        for (size_t x = 0; x < width;) {
            size_t stretch = 1 + rng() % 5000;
            unsigned mean = rng() % 2 ? 1 : 700;
            Bytes part = randomRow(rng, stretch, mean);
            for (size_t i = 0; i < stretch && x < width; ++i, ++x)
                if (bitAt(part.data(), i)) row[x >> 3] |= uint8_t(0x80 >> (x & 7));
        }
        Runs runs(width + 2, 0xBEEF);  // one guard slot past the W + 1 runs
        int bytes = 0;
        korImage_runLengthEncodeBitMapRow(runs.data(), &bytes, row.data(), int(width));
        ASSERT_EQ(runs[width + 1], 0xBEEF);
        runs.resize(size_t(bytes) / 2);
        ASSERT_EQ(runs, referenceRuns(row, width)) << width;
        Bytes back(row.size(), 0);
        ASSERT_EQ(il::rleDecodeRowBounded(back.data(), runs.data(), int(runs.size()), int(width)),
                  int(runs.size()));
        ASSERT_EQ(back, row) << width;
    }
    // Runs that end early in a row whose width is not a multiple of 8: the
    // pixels they give are kept, the last partial byte included.
    Bytes dst(2, 0);
    Runs cut = {9, 2};
    EXPECT_EQ(il::rleDecodeRowBounded(dst.data(), cut.data(), 2, 13), IMGERR_BADFILE);
    EXPECT_EQ(dst, (Bytes{0x00, 0x60}));
}

TEST(RunLength, HostileRunsStayInsideTheRow) {
    // Runs adding up past the width: the last run is clipped, padding bits
    // of the last byte untouched, the byte after never touched.
    Bytes row(3, 0x00);
    Runs over = {3, 60000, 7};
    korImage_runLengthDecodeBitMapRow(row.data(), over.data(), 12);
    EXPECT_EQ(row, (Bytes{0x1F, 0xF0, 0x00}));

    // Bounded decoding of runs from a file.
    Bytes dst(2, 0xAA);
    Runs shortRow = {2, 3}, oddRow = {2, 3, 4}, zeros(10, 0), good = {4, 4, 100};
    EXPECT_EQ(il::rleDecodeRowBounded(dst.data(), shortRow.data(), 2, 16), IMGERR_BADFILE);
    EXPECT_EQ(dst, (Bytes{0x38, 0x00}));  // what the runs said; the rest clear
    EXPECT_EQ(il::rleDecodeRowBounded(dst.data(), oddRow.data(), 3, 16), IMGERR_BADFILE);
    EXPECT_EQ(dst, (Bytes{0x38, 0x00}));  // the rest background after a background run too
    EXPECT_EQ(il::rleDecodeRowBounded(dst.data(), zeros.data(), 10, 16), IMGERR_BADFILE);
    EXPECT_EQ(il::rleDecodeRowBounded(dst.data(), good.data(), 3, 16), 3);
    EXPECT_EQ(dst, (Bytes{0x0F, 0x00}));
    EXPECT_EQ(il::rleRowRunCount(good.data(), 3, 16), 3);
    EXPECT_EQ(il::rleRowRunCount(good.data(), 2, 16), IMGERR_BADFILE);
    EXPECT_EQ(il::rleRowRunCount(zeros.data(), 10, 1), IMGERR_BADFILE);

    // Junk runs against rows of any width: nothing is written past the row
    // (guard byte, and the sanitizer builds).
    std::mt19937 rng(9);
    for (int i = 0; i < 3000; ++i) {
        Runs junk(1 + rng() % 12);
        for (auto& r : junk) r = uint16_t(rng() % 4 ? rng() % 20 : rng());
        int width = 1 + int(rng() % 300);
        Bytes out((size_t(width) + 7) / 8 + 1, 0x5A);
        int st = il::rleDecodeRowBounded(out.data(), junk.data(), int(junk.size()), width);
        ASSERT_TRUE(st == IMGERR_BADFILE || (st > 0 && st <= int(junk.size())));
        ASSERT_EQ(out.back(), 0x5A);
        junk.push_back(uint16_t(width));  // now the runs always reach the width
        korImage_runLengthDecodeBitMapRow(out.data(), junk.data(), width);
        ASSERT_EQ(out.back(), 0x5A);
    }
}

TEST(RunLength, WholeImagesInvertAndStretch) {
    std::mt19937 rng(3);
    ImageSize size{37, 9};
    const size_t stride = 5;
    Bytes bitmap;
    for (int y = 0; y < size.y; ++y) {
        Bytes row = randomRow(rng, 37, y % 2 ? 3 : 12);
        bitmap.insert(bitmap.end(), row.begin(), row.end());
    }
    bitmap[0] |= 0x80;  // one row starting with foreground
    uint16_t** rows = nullptr;
    ASSERT_EQ(korImage_runLengthEncodeBitMap(&rows, bitmap.data(), &size), 0);
    EXPECT_EQ(rows[0][0], 0);
    auto pixelsAre = [&](const void* bits, bool inverted) {
        for (size_t y = 0; y < size_t(size.y); ++y)
            for (size_t x = 0; x < size_t(size.x); ++x)
                ASSERT_EQ(bitAt(static_cast<const uint8_t*>(bits) + stride * y, x),
                          bitAt(bitmap.data() + stride * y, x) != inverted);
    };

    // Inverting twice restores every run exactly; once, the complement.
    void *inv = nullptr, *back = nullptr, *invBits = nullptr;
    ASSERT_EQ(korImage_invertBitMap(&inv, rows, &size, 1), 0);
    ASSERT_EQ(korImage_invertBitMap(&back, inv, &size, 1), 0);
    for (int y = 0; y < size.y; ++y) {
        size_t n = size_t(il::rleRowRunCount(rows[y], 38, size.x));
        ASSERT_EQ(std::memcmp(rows[y], static_cast<uint16_t**>(back)[y], 2 * n), 0) << y;
    }
    ASSERT_EQ(korImage_stretchRLEToBitMap(&inv, &size), 0);
    pixelsAre(inv, true);
    // Bitmap inversion complements every byte, padding included.
    ASSERT_EQ(korImage_invertBitMap(&invBits, bitmap.data(), &size, 0), 0);
    for (size_t i = 0; i < bitmap.size(); ++i) ASSERT_EQ(static_cast<uint8_t*>(invBits)[i], uint8_t(~bitmap[i]));
    ASSERT_EQ(korImage_stretchRLEToBitMap(reinterpret_cast<void**>(&rows), &size), 0);
    pixelsAre(rows, false);
    korImage_freeImage(rows, &size, IMAGEFORMAT_BITMAP);
    korImage_freeImage(inv, &size, IMAGEFORMAT_BITMAP);
    korImage_freeImage(invBits, &size, IMAGEFORMAT_BITMAP);
    korImage_freeImage(back, &size, IMAGEFORMAT_RLEBITMAP);
}

TEST(RunLength, LeftJustify) {
    const Bytes src = {0xA5, 0x3C, 0xFF};
    Bytes dst(3, 0x77);
    korImage_leftJustifyBitMap(dst.data(), src.data(), 0, 20, 0);  // whole bytes copied
    EXPECT_EQ(dst, src);
    dst.assign(3, 0x77);
    korImage_leftJustifyBitMap(dst.data(), src.data(), 5, 1, 0);  // count 1: a cleared byte
    EXPECT_EQ(dst, (Bytes{0x00, 0x77, 0x77}));
    // From pixel 3, 10 pixels: only 9 are taken over, the 10th stays clear.
    // Source bits 3..12: 0 0 1 0 1 | 0 0 1 1 (1) -> 00101001 1(0)
    korImage_leftJustifyBitMap(dst.data(), src.data(), 3, 10, 0);
    EXPECT_EQ(dst, (Bytes{0x29, 0x80, 0x77}));

    // From runs, all count pixels, whatever run boundaries fall inside.
    std::mt19937 rng(5);
    Bytes row = randomRow(rng, 300, 6);
    Runs runs = encodeRuns(row, 300);
    for (int first : {0, 1, 7, 9, 150, 299}) {
        for (int count : {1, 9, 300 - first}) {
            if (first + count > 300) continue;
            Bytes out(size_t(count + 7) / 8, 0xFF);
            korImage_leftJustifyBitMap(out.data(), runs.data(), first, count, 1);
            for (int x = 0; x < 8 * int(out.size()); ++x)
                ASSERT_EQ(bitAt(out.data(), size_t(x)), x < count && bitAt(row.data(), size_t(first + x)))
                    << first << "+" << x;
        }
    }
}

TEST(RunLength, RowTablesStoreAndAppend) {
    uint16_t* rows[3] = {nullptr, nullptr, nullptr};
    auto decoded = [&](int r, int width) {
        Bytes out(size_t(width) / 8);
        korImage_runLengthDecodeBitMapRow(out.data(), rows[r], width);
        return out;
    };
    ASSERT_EQ(il::storeRLEBitMapRow(rows, 0, u8("\xF0"), 8), 0);
    EXPECT_EQ(Runs(rows[0], rows[0] + 3), (Runs{0, 4, 4}));
    // Appending 16 pixels to 8: decoded, extended at the byte boundary, re-encoded.
    ASSERT_EQ(il::appendRLEBitMapRow(rows, 0, u8("\x0F\xFF"), 8, 16), 0);
    EXPECT_EQ(decoded(0, 24), (Bytes{0xF0, 0x0F, 0xFF}));
    EXPECT_EQ(il::rleRowRunCount(rows[0], 10, 24), 4);
    // A strip of two 8-pixel rows appended to rows 0 and 2 (step 2).
    ASSERT_EQ(il::storeRLEBitMapRow(rows, 2, u8("\x00\x00\x00"), 24), 0);
    ASSERT_EQ(il::appendStripToRLERows(rows, 0, 3, 2, u8("\x81\x18"), 24, 8), 0);
    EXPECT_EQ(decoded(0, 32), (Bytes{0xF0, 0x0F, 0xFF, 0x81}));
    EXPECT_EQ(decoded(2, 32), (Bytes{0x00, 0x00, 0x00, 0x18}));
    EXPECT_EQ(rows[1], nullptr);
    // From nothing: appending to width 0 stores the row.
    ASSERT_EQ(il::appendRLEBitMapRow(rows, 1, u8("\x80"), 0, 3), 0);
    EXPECT_EQ(Runs(rows[1], rows[1] + 3), (Runs{0, 1, 2}));
    for (auto* r : rows) dlmSystem_korFree(r);
}

TEST(PackByte, EncodesTheDocumentedPackets) {
    EXPECT_EQ(packByte(Bytes{'A', 'A', 'B'}), (Bytes{0xFE, 'A', 0xFF, 'B'}));
    EXPECT_EQ(packByte(Bytes{'A', 'B', 'C'}), (Bytes{0x03, 'A', 'B', 'C'}));
    EXPECT_EQ(packByte(Bytes(128, 7)), (Bytes{0x80, 7}));
    EXPECT_EQ(packByte(Bytes(129, 7)), (Bytes{0x80, 7, 0xFF, 7}));
    Bytes distinct(128);
    for (size_t i = 0; i < distinct.size(); ++i) distinct[i] = uint8_t(i);
    Bytes lit127 = packByte(Bytes(distinct.begin(), distinct.begin() + 127));
    ASSERT_EQ(lit127.size(), 128u);
    EXPECT_EQ(lit127[0], 127);
    Bytes lit128 = packByte(distinct);
    ASSERT_EQ(lit128.size(), 130u);
    EXPECT_EQ(lit128[0], 127);
    EXPECT_EQ(lit128[128], 0xFF);
    EXPECT_EQ(lit128[129], 127);
    int len = 5;
    korImage_packByteBuffer(nullptr, &len, nullptr, 0);
    EXPECT_EQ(len, 0);
}

TEST(PackByte, MatchesTheStateMachineAndRoundTrips) {
    std::mt19937 rng(11);
    for (int iter = 0; iter < 500; ++iter) {
        size_t n = iter < 40 ? size_t(iter + 1) : 1 + rng() % 4000;
        Bytes src = randomRunData(rng, n);
        Bytes enc = packByte(src);
        ASSERT_EQ(enc, referencePackByte(src)) << "length " << n;
        ASSERT_LE(enc.size(), 2 * n);
        Bytes back(n + 1, 0xCD);
        EXPECT_EQ(korImage_unpackByteBuffer(back.data(), enc.data(), int(n)), enc.data() + enc.size());
        ASSERT_EQ(back[n], 0xCD);
        back.pop_back();
        ASSERT_EQ(back, src);
    }
}

TEST(PackByte, DecodingStopsAtTheCount) {
    // A count smaller than the packets hold; a zero count byte is skipped.
    const Bytes packets = {0x03, 'a', 'b', 'c', 0xFB, 'z'};
    Bytes out(6, '.');
    korImage_unpackByteBuffer(out.data(), packets.data(), 2);
    EXPECT_EQ(out, (Bytes{'a', 'b', '.', '.', '.', '.'}));
    korImage_unpackByteBuffer(out.data(), packets.data(), 5);
    EXPECT_EQ(out, (Bytes{'a', 'b', 'c', 'z', 'z', '.'}));
    EXPECT_EQ(unpackRow(Bytes{0x00, 0xFE, 'q', 0x00, 0x01, 'r'}.data(), 3), (Bytes{'q', 'q', 'r'}));

    // Bounded decoding of file data never reads or writes out of bounds.
    const Bytes truncated = {0x05, 'a', 'b'}, repeatNoValue = {0xFE};
    out.assign(6, '.');
    size_t used = 99;
    EXPECT_EQ(il::unpackByteBufferBounded(out.data(), 5, truncated.data(), truncated.size(), &used),
              IMGERR_READFAILED);
    EXPECT_EQ(out, (Bytes{'a', 'b', 0, 0, 0, '.'}));
    EXPECT_EQ(il::unpackByteBufferBounded(out.data(), 2, repeatNoValue.data(), 1), IMGERR_READFAILED);
    EXPECT_EQ(il::unpackByteBufferBounded(out.data(), 4, packets.data(), packets.size(), &used), 0);
    EXPECT_EQ(used, 6u);
    EXPECT_EQ(il::unpackByteBufferBounded(out.data(), 2, packets.data(), packets.size(), &used), 0);
    EXPECT_EQ(used, 4u);  // the cut literal is passed whole
    std::mt19937 rng(2);
    for (int i = 0; i < 2000; ++i) {
        Bytes junk(rng() % 40);
        for (auto& b : junk) b = uint8_t(rng());
        Bytes dst(65, 0x42);
        int count = int(rng() % 64);
        int st = il::unpackByteBufferBounded(dst.data(), count, junk.data(), junk.size());
        ASSERT_TRUE(st == 0 || st == IMGERR_READFAILED);
        ASSERT_EQ(dst[size_t(count)], 0x42);
    }
}

TEST(PackByte, SkipPixels) {
    // literal 3 (a b c), repeat 4 of z, literal 2 (x y)
    const Bytes row = {0x03, 'a', 'b', 'c', 0xFC, 'z', 0x02, 'x', 'y'};
    auto skip = [&](int n) {  // cursor offset * 1000 + residual
        const uint8_t* c = row.data();
        int res = 0;
        il::skipPackBytePixels(&c, n, &res);
        return int(c - row.data()) * 1000 + res;
    };
    EXPECT_EQ(skip(0), 3);
    EXPECT_EQ(skip(1), 1002);   // inside the literal: 'b' 'c' start one byte after the cursor
    EXPECT_EQ(skip(3), 3996);   // exactly at a boundary: cursor 4, residual -4
    EXPECT_EQ(skip(5), 3998);   // inside the repeat: the cursor stays on it, residual -2
    EXPECT_EQ(skip(8), 7001);
    const uint8_t* c = row.data();
    il::skipPackBytePixels(&c, 7, nullptr);
    EXPECT_EQ(c, row.data() + 6);
}

TEST(PackByte, RowTablesAndImages) {
    uint8_t* rows[2] = {nullptr, nullptr};
    ASSERT_EQ(il::storePackByteRow(rows, 0, u8("AAB"), 3), 0);
    EXPECT_EQ(std::memcmp(rows[0], "\xFE" "A\xFF" "B", 4), 0);
    ASSERT_EQ(il::replacePackByteRow(rows, 0, u8("ABC"), 3), 0);
    EXPECT_EQ(std::memcmp(rows[0], "\x03" "ABC", 4), 0);
    ASSERT_EQ(il::appendPackByteRow(rows, 0, u8("CCD"), 3, 3), 0);
    EXPECT_EQ(unpackRow(rows[0], 6), (Bytes{'A', 'B', 'C', 'C', 'C', 'D'}));
    ASSERT_EQ(il::appendStripToPackByteRows(rows, 0, 2, 1, u8("xyzw"), 6, 2), 0);
    EXPECT_EQ(unpackRow(rows[0], 8), (Bytes{'A', 'B', 'C', 'C', 'C', 'D', 'x', 'y'}));
    EXPECT_EQ(unpackRow(rows[1], 8), (Bytes{0, 0, 0, 0, 0, 0, 'z', 'w'}));  // an empty row: zeros, then the strip
    dlmSystem_korFree(rows[0]);
    dlmSystem_korFree(rows[1]);

    std::mt19937 rng(4);
    ImageSize size{301, 17};
    Bytes map = randomRunData(rng, 301 * 17);
    uint8_t** table = nullptr;
    uint8_t* decoded = nullptr;
    ASSERT_EQ(il::packByteEncodeImage(&table, map.data(), &size), 0);
    ASSERT_EQ(il::packByteDecodeImage(&decoded, table, &size), 0);
    EXPECT_EQ(Bytes(decoded, decoded + map.size()), map);
    korImage_freeImage(decoded, &size, IMAGEFORMAT_MAP);
    korImage_freeImage(table, &size, IMAGEFORMAT_PACKBYTE);
}

TEST(Bitmap, DoubleImage) {
    ImageSize size{2, 2}, one{1, 1};
    Bytes dst(17, 0xEE);
    EXPECT_EQ(korImage_doubleImage(dst.data(), Bytes{1, 2, 3, 4}.data(), &size, 1), dst.data() + 16);
    EXPECT_EQ(dst, (Bytes{1, 1, 2, 2, 1, 1, 2, 2, 3, 3, 4, 4, 3, 3, 4, 4, 0xEE}));
    // Two bytes a pixel: bytes, not pixels, are doubled.
    Bytes out(8);
    korImage_doubleImage(out.data(), Bytes{5, 6}.data(), &one, 2);
    EXPECT_EQ(out, (Bytes{5, 5, 6, 6, 5, 5, 6, 6}));
}

TEST(Bitmap, GreyLevelsToBitmap) {
    // Ordered dither: grey 0 always sets; grey 255 sets only where the
    // matrix holds 63 (column 7 of row 0 of each 8 x 8 cell).
    ImageSize size{16, 9};
    Bytes grey(16 * 9, 255), bits(2 * 9, 0xFF);
    ASSERT_EQ(korImage_greyScaleToBitMap(bits.data(), grey.data(), &size, 0, 255, 0), 0);
    for (int y = 0; y < 9; ++y) {
        EXPECT_EQ(bits[size_t(2 * y)], y % 8 == 0 ? 0x01 : 0x00) << y;
        EXPECT_EQ(bits[size_t(2 * y + 1)], y % 8 == 0 ? 0x01 : 0x00) << y;
    }
    std::fill(grey.begin(), grey.end(), 0);
    korImage_greyScaleToBitMap(bits.data(), grey.data(), &size, 0, 255, 0);
    EXPECT_EQ(bits, Bytes(18, 0xFF));
    // Threshold by column phase: grey 8 (>> 2 = 2) at row 0 is set where
    // M[x][0] >= 2: every column but 0.
    ImageSize row{8, 1};
    Bytes one(1);
    korImage_greyScaleToBitMap(one.data(), Bytes(8, 8).data(), &row, 0, 255, 0);
    EXPECT_EQ(one[0], 0x7F);

    // Error diffusion on 2 x 2 between 0 and 200 (threshold 100):
    // (0,0)=90 set, e=90 -> right +39, below-left none, below +28, below-right +5.
    // (1,0)=109 > 100: e = 109-200 = -91 -> below-left 50+28-17=61, below 65-28=37.
    // (0,1)=61 set, e=61 -> right 37+26=63; (1,1)=63 set.
    ImageSize sq{2, 2};
    Bytes g = {90, 70, 50, 60}, out(2, 0);
    ASSERT_EQ(korImage_greyScaleToBitMap(out.data(), g.data(), &sq, 0, 200, 1), 0);
    EXPECT_EQ(out, (Bytes{0x80, 0xC0}));
    EXPECT_EQ(g, (Bytes{90, 109, 61, 63}));
    EXPECT_EQ(korImage_greyScaleToBitMap(out.data(), g.data(), &sq, 0, 200, 2), IMGERR_BADARG);

    // Byte map through its palette: black (grey 1) always sets; white (grey
    // 254, >> 2 = 63) only where the matrix holds 63: column 7 of row 0.
    // PackByte rows and RGB agree.
    uint8_t red[256] = {0, 255}, green[256] = {0, 255}, blue[256] = {0, 255};
    const Bytes map = {0, 1, 0, 1, 0, 1, 0, 1};
    korImage_byteMapToBitMap(one.data(), map.data(), red, green, blue, 2, &row, 0);
    EXPECT_EQ(one[0], 0xAB);
    uint8_t* packed[1] = {nullptr};
    ASSERT_EQ(il::storePackByteRow(packed, 0, map.data(), 8), 0);
    Bytes viaPacked(1), viaRgb(1), rgb(24, 0);
    korImage_packByteToBitMap(viaPacked.data(), packed, red, green, blue, 2, &row, 0);
    EXPECT_EQ(viaPacked, one);
    dlmSystem_korFree(packed[0]);
    for (int x = 1; x < 8; x += 2) rgb[size_t(x)] = rgb[size_t(8 + x)] = rgb[size_t(16 + x)] = 255;
    korImage_rgbToBitMap(viaRgb.data(), rgb.data(), &row, 0);
    EXPECT_EQ(viaRgb, one);
}
