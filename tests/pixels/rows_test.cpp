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

bool bitAt(const uint8_t* row, size_t x) { return (row[x >> 3] >> (7 - (x & 7))) & 1; }

// A bitmap row of width pixels with runs of random lengths (mean about
// meanRun), padding bits clear.
Bytes randomRow(std::mt19937& rng, size_t width, unsigned meanRun) {
    Bytes row((width + 7) / 8, 0);
    std::uniform_int_distribution<unsigned> len(1, 2 * meanRun);
    bool colour = rng() & 1;
    for (size_t x = 0; x < width;) {
        size_t end = std::min(width, x + len(rng));
        for (; x < end; ++x)
            if (colour) row[x >> 3] |= uint8_t(0x80 >> (x & 7));
        colour = !colour;
    }
    return row;
}

// The run-length encoder as the format describes it, bit by bit, padding
// bits included (they are clear in the rows given to it).
Runs referenceRuns(const Bytes& row, size_t width) {
    Runs out;
    int colour = 0;
    size_t pending = 0, remaining = width, nbytes = (width + 7) / 8;
    auto emit = [&](size_t n) {
        n = std::min(n, remaining);
        out.push_back(uint16_t(n));
        remaining -= n;
    };
    for (size_t i = 0; i < nbytes; ++i) {
        for (int bit = 7; bit >= 0; --bit) {
            if (((row[i] >> bit) & 1) == colour) {
                ++pending;
            } else {
                emit(pending);
                colour ^= 1;
                pending = 1;
            }
        }
        while (remaining >= 8 && i + 1 < nbytes && row[i + 1] == (colour ? 0xFF : 0x00)) {
            pending += 8;
            ++i;
        }
    }
    if (remaining > 0) out.push_back(uint16_t(remaining));
    return out;
}

Runs encodeRuns(const Bytes& row, int width) {
    Runs runs(size_t(width) + 1, 0xBEEF);
    int len = -1;
    int ret = korImage_runLengthEncodeBitMapRow(runs.data(), &len, row.data(), width);
    EXPECT_EQ(ret, len);
    runs.resize(size_t(len) / 2);
    return runs;
}

// The PackByte encoder as the format describes it: a byte-wise state
// machine with one pending byte.
Bytes referencePackByte(const Bytes& src) {
    Bytes out;
    int s = 0;
    uint8_t p = 0;
    size_t countAt = 0;  // where the open literal's count byte goes
    auto repeat = [&](int n, uint8_t v) {
        out.push_back(uint8_t(n));
        out.push_back(v);
    };
    auto openLiteralIfNeeded = [&] {
        countAt = out.size();
        out.push_back(0);
    };
    for (uint8_t b : src) {
        if (s == 0) {
            s = -1;
            p = b;
        } else if (s < 0 && b == p) {
            if (--s == -128) {
                repeat(-128, p);
                s = 0;
            }
        } else if (s == -1) {
            openLiteralIfNeeded();
            out.push_back(p);
            s = 1;
            p = b;
        } else if (s <= -2) {
            repeat(s, p);
            s = -1;
            p = b;
        } else if (b == p) {
            out[countAt] = uint8_t(s);
            s = -2;
        } else {
            out.push_back(p);
            if (s + 1 == 127) {
                out[countAt] = 127;
                s = -1;
            } else {
                ++s;
            }
            p = b;
        }
    }
    if (s >= 1) {
        out.push_back(p);
        out[countAt] = uint8_t(s + 1);
    } else if (s < 0) {
        repeat(s, p);
    }
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
        size_t len = size_t(k == 0 ? longRun(rng) : shortRun(rng));
        uint8_t v = uint8_t(k == 3 ? rng() % 3 : rng());
        d.insert(d.end(), len, v);
    }
    d.resize(n);
    return d;
}

}  // namespace

TEST(Pack, PacksAndUnpacksAtEveryDepth) {
    Bytes out(4, 0xAA);
    Bytes ones = {1, 0, 1, 1, 0, 0, 0, 1, 1};
    EXPECT_EQ(korImage_packBuffer(out.data(), ones.data(), 1, 9), 8);
    EXPECT_EQ(out[0], 0xB1);
    EXPECT_EQ(out[1], 0x80);  // last byte: unused bits zero
    Bytes twos = {3, 0, 2, 1, 1};
    EXPECT_EQ(korImage_packBuffer(out.data(), twos.data(), 2, 5), 4);
    EXPECT_EQ(out[0], 0xC9);
    EXPECT_EQ(out[1], 0x40);
    Bytes fours = {0xA, 0x5, 0xF};
    EXPECT_EQ(korImage_packBuffer(out.data(), fours.data(), 4, 3), 2);
    EXPECT_EQ(out[0], 0xA5);
    EXPECT_EQ(out[1], 0xF0);
    // Values are not masked: 3 at the second 1-bit field spills into the first.
    Bytes wide = {0, 3};
    korImage_packBuffer(out.data(), wide.data(), 1, 2);
    EXPECT_EQ(out[0], 0xC0);
    EXPECT_LT(korImage_packBuffer(out.data(), wide.data(), 0, 2), 0);

    Bytes values(9, 0x77);
    korImage_unpackBuffer(values.data(), (const uint8_t*)"\xB1\x80", 1, 8);
    EXPECT_EQ(values, (Bytes{1, 0, 1, 1, 0, 0, 0, 1, 0x77}));  // exactly count values
    korImage_unpackBuffer(values.data(), (const uint8_t*)"\xC9\x40", 2, 5);
    EXPECT_EQ(Bytes(values.begin(), values.begin() + 6), (Bytes{3, 0, 2, 1, 1, 0}));

    std::mt19937 rng(1);
    for (int bits : {1, 2, 4, 8}) {
        for (int count : {1, 2, 3, 7, 8, 9, 15, 17, 100, 1001}) {
            Bytes src = Bytes(size_t(count));
            for (auto& v : src) v = uint8_t(rng() & ((1u << bits) - 1));
            Bytes packed(size_t(count) + 1, 0x5A);
            korImage_packBuffer(packed.data(), src.data(), bits, count);
            size_t used = (size_t(count) * size_t(bits) + 7) / 8;
            EXPECT_EQ(packed[used], 0x5A) << "wrote past the packed bytes";
            Bytes back(size_t(count) + 1, 0x5A);
            korImage_unpackBuffer(back.data(), packed.data(), bits, count);
            EXPECT_EQ(back[size_t(count)], 0x5A);
            back.pop_back();
            EXPECT_EQ(back, src) << bits << " bits, " << count << " values";
        }
    }
}

TEST(Pack, UnpackThroughTable) {
    uint8_t table[256];
    for (int i = 0; i < 256; ++i) table[i] = uint8_t(255 - i);
    Bytes out(5, 0);
    il::unpackBufferMapped(out.data(), (const uint8_t*)"\x1B\x40", 2, 5, table);
    EXPECT_EQ(out, (Bytes{255, 254, 253, 252, 254}));
    il::unpackBufferMapped(out.data(), (const uint8_t*)"\x1B\x40", 2, 5, nullptr);
    EXPECT_EQ(out, (Bytes{0, 1, 2, 3, 1}));
    il::unpackBufferMapped(out.data(), (const uint8_t*)"\x12\x34\x56", 4, 5, table);
    EXPECT_EQ(out, (Bytes{254, 253, 252, 251, 250}));
}

TEST(RunLength, RowEncodingRules) {
    EXPECT_EQ(encodeRuns(Bytes{0x00, 0x00}, 13), (Runs{13}));        // all background: one run
    EXPECT_EQ(encodeRuns(Bytes{0xFF, 0xF8}, 13), (Runs{0, 13}));     // all foreground: 0, W
    EXPECT_EQ(encodeRuns(Bytes{0x80}, 1), (Runs{0, 1}));
    EXPECT_EQ(encodeRuns(Bytes{0x00}, 1), (Runs{1}));
    EXPECT_EQ(encodeRuns(Bytes{0x3C, 0x01}, 16), (Runs{2, 4, 9, 1}));
    EXPECT_EQ(encodeRuns(Bytes{0xC0, 0x00, 0x01}, 24), (Runs{0, 2, 21, 1}));
    // Padding bits never change the runs.
    EXPECT_EQ(encodeRuns(Bytes{0x00, 0x05}, 12), (Runs{12}));
    EXPECT_EQ(encodeRuns(Bytes{0xFF, 0xF5}, 12), (Runs{0, 12}));
    EXPECT_EQ(encodeRuns(Bytes{0xA0 | 0x15}, 3), (Runs{0, 1, 1, 1}));
    // Null length pointer: only the return value.
    Runs runs(4);
    EXPECT_EQ(korImage_runLengthEncodeBitMapRow(runs.data(), nullptr, (const uint8_t*)"\x0F", 8), 4);
}

TEST(RunLength, MatchesTheBitwiseEncoderAndRoundTrips) {
    std::mt19937 rng(7);
    for (int iter = 0; iter < 400; ++iter) {
        size_t width = iter < 16 ? size_t(iter + 1) : 1 + rng() % 3000;
        unsigned mean = std::vector<unsigned>{1, 2, 5, 40, 900}[iter % 5];
        Bytes row = randomRow(rng, width, mean);
        Runs runs = encodeRuns(row, int(width));
        ASSERT_EQ(runs, referenceRuns(row, width)) << "width " << width;
        ASSERT_LE(runs.size(), width + 1);

        // Set padding bits: same runs.
        if (width & 7) {
            Bytes padded = row;
            padded.back() |= uint8_t(0xFF >> (width & 7));
            ASSERT_EQ(encodeRuns(padded, int(width)), runs);
        }
        // Decoding restores the pixels and keeps the padding bits of the
        // destination as they were.
        Bytes back(row.size() + 1, 0xFF);
        korImage_runLengthDecodeBitMapRow(back.data(), runs.data(), int(width));
        ASSERT_EQ(back.back(), 0xFF);
        for (size_t x = 0; x < width; ++x) ASSERT_EQ(bitAt(back.data(), x), bitAt(row.data(), x)) << x;
        for (size_t x = width; x < 8 * row.size(); ++x) ASSERT_TRUE(bitAt(back.data(), x));
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

TEST(RunLength, HostileRunsStayInsideTheRow) {
    // Runs adding up past the width: the last run is clipped.
    Bytes row(3, 0x00);
    row[2] = 0x00;
    Runs over = {3, 60000, 7};
    korImage_runLengthDecodeBitMapRow(row.data(), over.data(), 12);
    EXPECT_EQ(row[0], 0x1F);
    EXPECT_EQ(row[1], 0xF0);  // padding bits of the last byte untouched
    EXPECT_EQ(row[2], 0x00);  // never touched

    // Bounded decoding of runs from a file.
    Bytes dst(2, 0xAA);
    Runs shortRow = {2, 3};
    EXPECT_EQ(il::rleDecodeRowBounded(dst.data(), shortRow.data(), 2, 16), IMGERR_BADFILE);
    EXPECT_EQ(dst[0], 0x38);  // what the runs said; the rest clear
    EXPECT_EQ(dst[1], 0x00);
    Runs zeros(10, 0);
    EXPECT_EQ(il::rleDecodeRowBounded(dst.data(), zeros.data(), 10, 16), IMGERR_BADFILE);
    Runs good = {4, 4, 100};
    EXPECT_EQ(il::rleDecodeRowBounded(dst.data(), good.data(), 3, 16), 3);
    EXPECT_EQ(dst[0], 0x0F);
    EXPECT_EQ(dst[1], 0x00);
    EXPECT_EQ(il::rleRowRunCount(good.data(), 3, 16), 3);
    EXPECT_EQ(il::rleRowRunCount(good.data(), 2, 16), IMGERR_BADFILE);
    EXPECT_EQ(il::rleRowRunCount(zeros.data(), 10, 1), IMGERR_BADFILE);

    // Junk runs of any length against rows of any width: nothing is
    // written past the row (guard byte, and the sanitizer builds).
    std::mt19937 rng(9);
    for (int i = 0; i < 3000; ++i) {
        Runs junk(1 + rng() % 12);
        for (auto& r : junk) r = uint16_t(rng() % 4 ? rng() % 20 : rng());
        int width = 1 + int(rng() % 300);
        Bytes dst((size_t(width) + 7) / 8 + 1, 0x5A);
        int st = il::rleDecodeRowBounded(dst.data(), junk.data(), int(junk.size()), width);
        ASSERT_TRUE(st == IMGERR_BADFILE || (st > 0 && st <= int(junk.size())));
        ASSERT_EQ(dst.back(), 0x5A);
        junk.push_back(uint16_t(width));  // now the runs always reach the width
        korImage_runLengthDecodeBitMapRow(dst.data(), junk.data(), width);
        ASSERT_EQ(dst.back(), 0x5A);
    }
}

TEST(RunLength, WholeImagesInvertAndStretch) {
    std::mt19937 rng(3);
    ImageSize size{37, 9};
    size_t stride = 5;
    Bytes bitmap;
    for (int y = 0; y < size.y; ++y) {
        Bytes row = randomRow(rng, 37, y % 2 ? 3 : 12);
        bitmap.insert(bitmap.end(), row.begin(), row.end());
    }
    bitmap[0] |= 0x80;  // one row starting with foreground
    uint16_t** rows = nullptr;
    ASSERT_EQ(korImage_runLengthEncodeBitMap(&rows, bitmap.data(), &size), 0);
    EXPECT_EQ(rows[0][0], 0);

    // Inverting twice restores every run exactly.
    void* inv = nullptr;
    ASSERT_EQ(korImage_invertBitMap(&inv, rows, &size, 1), 0);
    void* back = nullptr;
    ASSERT_EQ(korImage_invertBitMap(&back, inv, &size, 1), 0);
    for (int y = 0; y < size.y; ++y) {
        size_t n = size_t(il::rleRowRunCount(rows[y], 38, size.x));
        ASSERT_EQ(std::memcmp(rows[y], static_cast<uint16_t**>(back)[y], 2 * n), 0) << y;
    }
    // The inverted runs decode to the complement.
    ASSERT_EQ(korImage_stretchRLEToBitMap(&inv, &size), 0);
    for (int y = 0; y < size.y; ++y)
        for (int x = 0; x < size.x; ++x)
            ASSERT_NE(bitAt(static_cast<uint8_t*>(inv) + stride * size_t(y), size_t(x)),
                      bitAt(bitmap.data() + stride * size_t(y), size_t(x)));
    // Bitmap inversion complements every byte, padding included.
    void* invBits = nullptr;
    ASSERT_EQ(korImage_invertBitMap(&invBits, bitmap.data(), &size, 0), 0);
    for (size_t i = 0; i < bitmap.size(); ++i) ASSERT_EQ(static_cast<uint8_t*>(invBits)[i], uint8_t(~bitmap[i]));

    ASSERT_EQ(korImage_stretchRLEToBitMap(reinterpret_cast<void**>(&rows), &size), 0);
    for (int y = 0; y < size.y; ++y)
        for (int x = 0; x < size.x; ++x)
            ASSERT_EQ(bitAt(reinterpret_cast<uint8_t*>(rows) + stride * size_t(y), size_t(x)),
                      bitAt(bitmap.data() + stride * size_t(y), size_t(x)));
    korImage_freeImage(rows, &size, IMAGEFORMAT_BITMAP);
    korImage_freeImage(inv, &size, IMAGEFORMAT_BITMAP);
    korImage_freeImage(invBits, &size, IMAGEFORMAT_BITMAP);
    korImage_freeImage(back, &size, IMAGEFORMAT_RLEBITMAP);
}

TEST(RunLength, LeftJustify) {
    Bytes src = {0xA5, 0x3C, 0xFF};
    Bytes dst(3, 0x77);
    korImage_leftJustifyBitMap(dst.data(), src.data(), 0, 20, 0);  // whole bytes copied
    EXPECT_EQ(dst, src);
    dst.assign(3, 0x77);
    korImage_leftJustifyBitMap(dst.data(), src.data(), 5, 1, 0);  // count 1: a cleared byte
    EXPECT_EQ(dst[0], 0x00);
    EXPECT_EQ(dst[1], 0x77);
    dst.assign(3, 0x77);
    // From pixel 3, 10 pixels: only 9 are taken over, the 10th stays clear.
    // Source bits 3..12: 0 0 1 0 1 | 0 0 1 1 (1) -> 00101001 1(0)
    korImage_leftJustifyBitMap(dst.data(), src.data(), 3, 10, 0);
    EXPECT_EQ(dst[0], 0x29);
    EXPECT_EQ(dst[1], 0x80);
    EXPECT_EQ(dst[2], 0x77);

    // From runs, all count pixels, whatever run boundaries fall inside.
    std::mt19937 rng(5);
    Bytes row = randomRow(rng, 300, 6);
    Runs runs = encodeRuns(row, 300);
    for (int first : {0, 1, 7, 8, 9, 150, 299}) {
        for (int count : {1, 2, 9, 300 - first}) {
            if (first + count > 300) continue;
            Bytes out(size_t(count + 7) / 8, 0xFF);
            korImage_leftJustifyBitMap(out.data(), runs.data(), first, count, 1);
            for (int x = 0; x < count; ++x)
                ASSERT_EQ(bitAt(out.data(), size_t(x)), bitAt(row.data(), size_t(first + x))) << first << "+" << x;
            for (int x = count; x < 8 * int(out.size()); ++x) ASSERT_FALSE(bitAt(out.data(), size_t(x)));
        }
    }
}

TEST(RunLength, RowTablesStoreAndAppend) {
    uint16_t* rows[3] = {nullptr, nullptr, nullptr};
    ASSERT_EQ(il::storeRLEBitMapRow(rows, 0, (const uint8_t*)"\xF0", 8), 0);
    EXPECT_EQ(rows[0][0], 0);
    EXPECT_EQ(rows[0][1], 4);
    EXPECT_EQ(rows[0][2], 4);
    // Appending 16 pixels to 8: decoded, extended at the byte boundary, re-encoded.
    ASSERT_EQ(il::appendRLEBitMapRow(rows, 0, (const uint8_t*)"\x0F\xFF", 8, 16), 0);
    Bytes out(3);
    korImage_runLengthDecodeBitMapRow(out.data(), rows[0], 24);
    EXPECT_EQ(out, (Bytes{0xF0, 0x0F, 0xFF}));
    EXPECT_EQ(il::rleRowRunCount(rows[0], 10, 24), 4);

    // A strip of two 8-pixel rows appended to rows 0 and 2 (step 2).
    ASSERT_EQ(il::storeRLEBitMapRow(rows, 2, (const uint8_t*)"\x00\x00\x00", 24), 0);
    ASSERT_EQ(il::appendStripToRLERows(rows, 0, 3, 2, (const uint8_t*)"\x81\x18", 24, 8), 0);
    Bytes r0(4), r2(4);
    korImage_runLengthDecodeBitMapRow(r0.data(), rows[0], 32);
    korImage_runLengthDecodeBitMapRow(r2.data(), rows[2], 32);
    EXPECT_EQ(r0, (Bytes{0xF0, 0x0F, 0xFF, 0x81}));
    EXPECT_EQ(r2, (Bytes{0x00, 0x00, 0x00, 0x18}));
    EXPECT_EQ(rows[1], nullptr);
    // From nothing: appending to width 0 stores the row.
    ASSERT_EQ(il::appendRLEBitMapRow(rows, 1, (const uint8_t*)"\x80", 0, 3), 0);
    EXPECT_EQ(rows[1][0], 0);
    EXPECT_EQ(rows[1][1], 1);
    EXPECT_EQ(rows[1][2], 2);
    for (auto* r : rows) dlmSystem_korFree(r);
}

TEST(PackByte, EncodesTheDocumentedPackets) {
    EXPECT_EQ(packByte(Bytes{'A', 'A', 'B'}), (Bytes{0xFE, 'A', 0xFF, 'B'}));
    EXPECT_EQ(packByte(Bytes{'A', 'B', 'C'}), (Bytes{0x03, 'A', 'B', 'C'}));
    EXPECT_EQ(packByte(Bytes{'B', 'A', 'A'}), (Bytes{0x01, 'B', 0xFE, 'A'}));
    EXPECT_EQ(packByte(Bytes{'Z'}), (Bytes{0xFF, 'Z'}));
    EXPECT_EQ(packByte(Bytes(128, 7)), (Bytes{0x80, 7}));
    EXPECT_EQ(packByte(Bytes(129, 7)), (Bytes{0x80, 7, 0xFF, 7}));
    EXPECT_EQ(packByte(Bytes(130, 7)), (Bytes{0x80, 7, 0xFE, 7}));
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
    // Two equal bytes inside literal data make a repeat.
    EXPECT_EQ(packByte(Bytes{1, 2, 3, 3, 4, 5}), (Bytes{0x02, 1, 2, 0xFE, 3, 0x02, 4, 5}));
    // 129 equal bytes followed by others: the leftover byte opens a literal.
    Bytes mixed(129, 9);
    mixed.push_back(1);
    mixed.push_back(2);
    EXPECT_EQ(packByte(mixed), (Bytes{0x80, 9, 0x03, 9, 1, 2}));
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
        const uint8_t* end = korImage_unpackByteBuffer(back.data(), enc.data(), int(n));
        EXPECT_EQ(end, enc.data() + enc.size());
        ASSERT_EQ(back[n], 0xCD);
        back.pop_back();
        ASSERT_EQ(back, src);
    }
}

TEST(PackByte, DecodingStopsAtTheCount) {
    // A count smaller than the packets hold.
    Bytes packets = {0x03, 'a', 'b', 'c', 0xFB, 'z'};
    Bytes out(6, '.');
    korImage_unpackByteBuffer(out.data(), packets.data(), 2);
    EXPECT_EQ(out, (Bytes{'a', 'b', '.', '.', '.', '.'}));
    out.assign(6, '.');
    korImage_unpackByteBuffer(out.data(), packets.data(), 5);
    EXPECT_EQ(out, (Bytes{'a', 'b', 'c', 'z', 'z', '.'}));
    // A zero count byte is skipped.
    Bytes withNop = {0x00, 0xFE, 'q', 0x00, 0x01, 'r'};
    out.assign(6, '.');
    korImage_unpackByteBuffer(out.data(), withNop.data(), 3);
    EXPECT_EQ(out, (Bytes{'q', 'q', 'r', '.', '.', '.'}));

    // Bounded decoding of file data never reads or writes out of bounds.
    Bytes truncated = {0x05, 'a', 'b'};
    out.assign(6, '.');
    size_t used = 99;
    EXPECT_EQ(il::unpackByteBufferBounded(out.data(), 5, truncated.data(), truncated.size(), &used),
              IMGERR_READFAILED);
    EXPECT_EQ(out, (Bytes{'a', 'b', 0, 0, 0, '.'}));
    Bytes repeatNoValue = {0xFE};
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
    Bytes row = {0x03, 'a', 'b', 'c', 0xFC, 'z', 0x02, 'x', 'y'};
    const uint8_t* c = row.data();
    int res = 0;
    il::skipPackBytePixels(&c, 0, &res);
    EXPECT_EQ(c, row.data());
    EXPECT_EQ(res, 3);
    il::skipPackBytePixels(&c, 1, &res);  // inside the literal
    EXPECT_EQ(c, row.data() + 1);
    EXPECT_EQ(res, 2);  // the remaining 'b' 'c' start one byte after the cursor
    c = row.data();
    il::skipPackBytePixels(&c, 3, &res);  // exactly at a boundary
    EXPECT_EQ(c, row.data() + 4);
    EXPECT_EQ(res, -4);
    c = row.data();
    il::skipPackBytePixels(&c, 5, &res);  // inside the repeat: the cursor stays on it
    EXPECT_EQ(c, row.data() + 4);
    EXPECT_EQ(res, -2);
    c = row.data();
    il::skipPackBytePixels(&c, 8, &res);
    EXPECT_EQ(c, row.data() + 7);
    EXPECT_EQ(res, 1);
    c = row.data();
    il::skipPackBytePixels(&c, 7, nullptr);
    EXPECT_EQ(c, row.data() + 6);
}

TEST(PackByte, RowTablesAndImages) {
    uint8_t* rows[2] = {nullptr, nullptr};
    ASSERT_EQ(il::storePackByteRow(rows, 0, (const uint8_t*)"AAB", 3), 0);
    EXPECT_EQ(std::memcmp(rows[0], "\xFE" "A\xFF" "B", 4), 0);
    ASSERT_EQ(il::replacePackByteRow(rows, 0, (const uint8_t*)"ABC", 3), 0);
    EXPECT_EQ(std::memcmp(rows[0], "\x03" "ABC", 4), 0);
    ASSERT_EQ(il::appendPackByteRow(rows, 0, (const uint8_t*)"CCD", 3, 3), 0);
    Bytes out(6);
    korImage_unpackByteBuffer(out.data(), rows[0], 6);
    EXPECT_EQ(std::string(out.begin(), out.end()), "ABCCCD");
    ASSERT_EQ(il::appendStripToPackByteRows(rows, 0, 2, 1, (const uint8_t*)"xyzw", 6, 2), 0);
    out.resize(8);
    korImage_unpackByteBuffer(out.data(), rows[0], 8);
    EXPECT_EQ(std::string(out.begin(), out.end()), "ABCCCDxy");
    korImage_unpackByteBuffer(out.data(), rows[1], 2);  // row 1 was empty: width 6 of zeros, then "zw"
    dlmSystem_korFree(rows[0]);
    dlmSystem_korFree(rows[1]);

    std::mt19937 rng(4);
    ImageSize size{301, 17};
    Bytes map = randomRunData(rng, 301 * 17);
    uint8_t** table = nullptr;
    ASSERT_EQ(il::packByteEncodeImage(&table, map.data(), &size), 0);
    uint8_t* decoded = nullptr;
    ASSERT_EQ(il::packByteDecodeImage(&decoded, table, &size), 0);
    EXPECT_EQ(Bytes(decoded, decoded + map.size()), map);
    korImage_freeImage(decoded, &size, IMAGEFORMAT_MAP);
    korImage_freeImage(table, &size, IMAGEFORMAT_PACKBYTE);
}

TEST(Bitmap, DoubleImage) {
    ImageSize size{2, 2};
    Bytes src = {1, 2, 3, 4};
    Bytes dst(17, 0xEE);
    uint8_t* end = korImage_doubleImage(dst.data(), src.data(), &size, 1);
    EXPECT_EQ(end, dst.data() + 16);
    EXPECT_EQ(dst, (Bytes{1, 1, 2, 2, 1, 1, 2, 2, 3, 3, 4, 4, 3, 3, 4, 4, 0xEE}));
    // Two bytes a pixel: bytes, not pixels, are doubled.
    ImageSize one{1, 1};
    Bytes two = {5, 6};
    Bytes out(8);
    korImage_doubleImage(out.data(), two.data(), &one, 2);
    EXPECT_EQ(out, (Bytes{5, 5, 6, 6, 5, 5, 6, 6}));
}

TEST(Bitmap, GreyLevelsToBitmap) {
    // Ordered dither: grey 0 always sets; grey 255 sets only where the
    // matrix holds 63 (column 7 of row 0 of each 8 x 8 cell).
    ImageSize size{16, 9};
    Bytes grey(16 * 9, 255);
    Bytes bits(2 * 9, 0xFF);
    ASSERT_EQ(korImage_greyScaleToBitMap(bits.data(), grey.data(), &size, 0, 255, 0), 0);
    for (int y = 0; y < 9; ++y) {
        EXPECT_EQ(bits[size_t(2 * y)], y % 8 == 0 ? 0x01 : 0x00) << y;
        EXPECT_EQ(bits[size_t(2 * y + 1)], y % 8 == 0 ? 0x01 : 0x00) << y;
    }
    std::fill(grey.begin(), grey.end(), 0);
    korImage_greyScaleToBitMap(bits.data(), grey.data(), &size, 0, 255, 0);
    EXPECT_EQ(bits, Bytes(18, 0xFF));
    // Threshold by column phase: grey 8 (>> 2 = 2) at row 0 is set where
    // M[x][0] >= 2: every column but 0 (0) .
    ImageSize row{8, 1};
    Bytes g8(8, 8);
    Bytes one(1);
    korImage_greyScaleToBitMap(one.data(), g8.data(), &row, 0, 255, 0);
    EXPECT_EQ(one[0], 0x7F);

    // Error diffusion on 2 x 2 between 0 and 200 (threshold 100):
    // (0,0)=90 set, e=90 -> right +39, below-left none, below +28, below-right +5.
    ImageSize sq{2, 2};
    Bytes g = {90, 70, 50, 60};
    Bytes out(2, 0);
    ASSERT_EQ(korImage_greyScaleToBitMap(out.data(), g.data(), &sq, 0, 200, 1), 0);
    // (1,0)=109 > 100: e = 109-200 = -91 -> below-left 50+28-17=61, below 65-28=37.
    // (0,1)=61 set, e=61 -> right 37+26=63; (1,1)=63 set.
    EXPECT_EQ(out[0], 0x80);
    EXPECT_EQ(out[1], 0xC0);
    EXPECT_EQ(g, (Bytes{90, 109, 61, 63}));
    EXPECT_EQ(korImage_greyScaleToBitMap(out.data(), g.data(), &sq, 0, 200, 2), IMGERR_BADARG);

    // Byte map through its palette: black and white entries, ordered dither.
    uint8_t red[256] = {0, 255}, green[256] = {0, 255}, blue[256] = {0, 255};
    Bytes map = {0, 1, 0, 1, 0, 1, 0, 1};
    korImage_byteMapToBitMap(one.data(), map.data(), red, green, blue, 2, &row, 0);
    // Black (grey 1) always sets; white (grey 254, >> 2 = 63) only where the
    // matrix holds 63: column 7 of row 0.
    EXPECT_EQ(one[0], 0xAB);
    uint8_t* packed[1] = {nullptr};
    ASSERT_EQ(il::storePackByteRow(packed, 0, map.data(), 8), 0);
    Bytes viaPacked(1);
    korImage_packByteToBitMap(viaPacked.data(), packed, red, green, blue, 2, &row, 0);
    EXPECT_EQ(viaPacked, one);
    dlmSystem_korFree(packed[0]);
    Bytes rgb(24, 0);
    for (int x = 1; x < 8; x += 2) rgb[size_t(x)] = rgb[size_t(8 + x)] = rgb[size_t(16 + x)] = 255;
    Bytes viaRgb(1);
    korImage_rgbToBitMap(viaRgb.data(), rgb.data(), &row, 0);
    EXPECT_EQ(viaRgb, one);
}
