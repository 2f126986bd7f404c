// GDAL driver "INGR" for Intergraph rasters, over imagelib's C interface.
//
// Reading goes a block at a time through korImage_openIngrBlocks: tiles of
// tiled files, strips of lines of untiled ones, upright as imagelib reads
// them. CreateCopy writes CIT (Group 4), COT (8-bit), RLE (binary run-length)
// or Intergraph RGB through imagelib's writers, then the geotransform into
// the header matrix.
#include <cctype>
#include <cstring>
#include <new>
#include <memory>
#include <string>
#include <vector>

#include "cpl_string.h"
#include "gdal_pam.h"
#include "gdal_priv.h"
#include "imagelib/imagelib.h"

namespace {

constexpr int kIngrTypes[] = {1, 13, 16, 17, 19, 20, 23, 25};

class INGRDataset;

class INGRRasterBand final : public GDALPamRasterBand {
public:
    INGRRasterBand(INGRDataset* ds, int band);
    CPLErr IReadBlock(int column, int row, void* image) override;
    GDALColorInterp GetColorInterpretation() override;
    GDALColorTable* GetColorTable() override { return table_.get(); }

private:
    std::unique_ptr<GDALColorTable> table_;
};

class INGRDataset final : public GDALPamDataset {
    friend class INGRRasterBand;

public:
    ~INGRDataset() override {
        FlushCache(true);
        korImage_closeIngrBlocks(reader_);
    }
    static int Identify(GDALOpenInfo* info);
    static GDALDataset* Open(GDALOpenInfo* info);
    static GDALDataset* CreateCopy(const char* path, GDALDataset* src, int strict, char** options,
                                   GDALProgressFunc progress, void* progressData);
    CPLErr GetGeoTransform(double* transform) override;

private:
    CPLErr loadBlock(int column, int row);

    IngrBlockReader* reader_ = nullptr;
    IngrRasterInfo info_{};
    std::vector<uint8_t> block_;  // the last block read, every band
    int blockColumn_ = -1, blockRow_ = -1;
};

CPLErr statusError(int status, const char* what, const char* path) {
    CPLError(CE_Failure, CPLE_AppDefined, "INGR: %s %s: %s (%d)", what, path, imagelib_statusText(status), status);
    return CE_Failure;
}

// --- reading -------------------------------------------------------------------

INGRRasterBand::INGRRasterBand(INGRDataset* ds, int band) {
    poDS = ds;
    nBand = band;
    eDataType = GDT_Byte;
    nBlockXSize = ds->info_.blockSize.x;
    nBlockYSize = ds->info_.blockSize.y;
    const IngrRasterInfo& in = ds->info_;
    if (in.colorMode == COLORMODE_PALETTE256 || in.colorMode == COLORMODE_BILEVEL) {
        table_ = std::make_unique<GDALColorTable>();
        for (int i = 0; i < in.colorCount; ++i) {
            const GDALColorEntry e{in.red[i], in.green[i], in.blue[i], 255};
            table_->SetColorEntry(i, &e);
        }
    }
    if (in.colorMode == COLORMODE_BILEVEL) SetMetadataItem("NBITS", "1", "IMAGE_STRUCTURE");
}

GDALColorInterp INGRRasterBand::GetColorInterpretation() {
    const auto* ds = static_cast<INGRDataset*>(poDS);
    if (ds->info_.bands == 3) return nBand == 1 ? GCI_RedBand : nBand == 2 ? GCI_GreenBand : GCI_BlueBand;
    return table_ ? GCI_PaletteIndex : GCI_GrayIndex;
}

CPLErr INGRRasterBand::IReadBlock(int column, int row, void* image) {
    auto* ds = static_cast<INGRDataset*>(poDS);
    if (CPLErr e = ds->loadBlock(column, row)) return e;
    const size_t plane = size_t(nBlockXSize) * size_t(nBlockYSize);
    std::memcpy(image, ds->block_.data() + plane * size_t(nBand - 1), plane);
    return CE_None;
}

CPLErr INGRDataset::loadBlock(int column, int row) {
    if (column == blockColumn_ && row == blockRow_) return CE_None;
    blockColumn_ = blockRow_ = -1;
    try {
        block_.resize(size_t(info_.blockSize.x) * size_t(info_.blockSize.y) * size_t(info_.bands));
    } catch (const std::bad_alloc&) {
        CPLError(CE_Failure, CPLE_OutOfMemory, "INGR: no memory for a block");
        return CE_Failure;
    }
    if (int st = korImage_readIngrBlock(reader_, column, row, block_.data()))
        return statusError(st, "block of", GetDescription());
    blockColumn_ = column;
    blockRow_ = row;
    return CE_None;
}

CPLErr INGRDataset::GetGeoTransform(double* transform) {
    if (!info_.hasGeoTransform) return GDALPamDataset::GetGeoTransform(transform);
    std::memcpy(transform, info_.geoTransform, 6 * sizeof(double));
    return CE_None;
}

int INGRDataset::Identify(GDALOpenInfo* info) {
    // The header type code 2312 first, then the type detection of imagelib.
    if (info->nHeaderBytes < 1024 || info->pabyHeader[0] != 0x08 || info->pabyHeader[1] != 0x09) return FALSE;
    const int type = korImage_typeFromFile(info->pszFilename);
    for (int t : kIngrTypes)
        if (type == t) return TRUE;
    return FALSE;
}

GDALDataset* INGRDataset::Open(GDALOpenInfo* info) {
    if (!Identify(info)) return nullptr;
    if (info->eAccess == GA_Update) {
        CPLError(CE_Failure, CPLE_NotSupported, "INGR: files are opened read-only");
        return nullptr;
    }
    auto ds = std::make_unique<INGRDataset>();
    int st = 0;
    ds->reader_ = korImage_openIngrBlocks(&st, &ds->info_, info->pszFilename);
    if (!ds->reader_) {
        statusError(st, "cannot open", info->pszFilename);
        return nullptr;
    }
    const IngrRasterInfo& in = ds->info_;
    ds->nRasterXSize = in.size.x;
    ds->nRasterYSize = in.size.y;
    for (int b = 1; b <= in.bands; ++b) ds->SetBand(b, new INGRRasterBand(ds.get(), b));
    ds->SetMetadataItem("DATA_TYPE", CPLSPrintf("%d", in.dataType));
    if (in.dataType == 65) ds->SetMetadataItem("TILE_DATA_TYPE", CPLSPrintf("%d", in.tileDataType));
    ds->SetMetadataItem("SCANLINE_ORIENTATION", CPLSPrintf("%d", in.orientation));
    ds->SetMetadataItem("DEVICE_RESOLUTION", CPLSPrintf("%d", in.deviceResolution));
    ds->SetMetadataItem("COLOR_TABLE_TYPE", CPLSPrintf("%d", in.colorTableType));
    if (in.bands == 3) ds->SetMetadataItem("INTERLEAVE", "PIXEL", "IMAGE_STRUCTURE");
    const int coding = in.dataType == 65 ? in.tileDataType : in.dataType;
    const char* compression = coding == 24 ? "CCITT_G4" : coding == 9 || coding == 27 || coding == 29 ? "RLE" : nullptr;
    if (compression) ds->SetMetadataItem("COMPRESSION", compression, "IMAGE_STRUCTURE");
    ds->SetDescription(info->pszFilename);
    ds->TryLoadXML();
    ds->oOvManager.Initialize(ds.get(), info->pszFilename);
    return ds.release();
}

// --- writing -------------------------------------------------------------------

// The 0.3 R + 0.59 G + 0.11 B grey of a colour.
double greyOf(double r, double g, double b) { return 0.3 * r + 0.59 * g + 0.11 * b; }

GDALDataset* INGRDataset::CreateCopy(const char* path, GDALDataset* src, int, char** options,
                                     GDALProgressFunc progress, void* progressData) {
    if (!progress) progress = GDALDummyProgress;
    const int bands = src->GetRasterCount();
    const int w = src->GetRasterXSize(), h = src->GetRasterYSize();
    if (bands != 1 && bands != 3) {
        CPLError(CE_Failure, CPLE_NotSupported, "INGR: writes 1 or 3 bands, not %d", bands);
        return nullptr;
    }
    GDALColorTable* table = bands == 1 ? src->GetRasterBand(1)->GetColorTable() : nullptr;
    if (table && table->GetColorEntryCount() > 256) table = nullptr;
    // A one-bit band without a table holds 0 black and 1 white.
    const char* nbits = bands == 1 ? src->GetRasterBand(1)->GetMetadataItem("NBITS", "IMAGE_STRUCTURE") : nullptr;
    const bool oneBit = !table && nbits && std::strcmp(nbits, "1") == 0;
    std::string type = CSLFetchNameValueDef(options, "TYPE", "");
    if (type.empty())
        type = bands == 3 ? "rgb" : oneBit || (table && table->GetColorEntryCount() == 2) ? "cit" : "cot";
    for (char& c : type) c = char(std::tolower(static_cast<unsigned char>(c)));
    if (type != "cit" && type != "cot" && type != "rle" && type != "rgb") {
        CPLError(CE_Failure, CPLE_IllegalArg, "INGR: TYPE=%s is none of cit, cot, rle, rgb", type.c_str());
        return nullptr;
    }
    for (int b = 1; b <= bands; ++b)
        if (src->GetRasterBand(b)->GetRasterDataType() != GDT_Byte)
            CPLError(CE_Warning, CPLE_AppDefined, "INGR: band %d is converted to bytes", b);

    // Palette (or grey ramp) of a one-band source, for the colour and grey rules.
    uint8_t red[256], green[256], blue[256];
    int count = 256;
    for (int i = 0; i < 256; ++i) red[i] = green[i] = blue[i] = uint8_t(i);
    if (table) {
        count = table->GetColorEntryCount();
        for (int i = 0; i < count; ++i) {
            const GDALColorEntry* e = table->GetColorEntry(i);
            red[i] = uint8_t(e->c1), green[i] = uint8_t(e->c2), blue[i] = uint8_t(e->c3);
        }
    } else if (oneBit) {
        red[1] = green[1] = blue[1] = 255;
        count = 2;
    }
    const bool palette = table || oneBit;
    const ImageSize size{w, h};
    std::vector<uint8_t> rows;  // the source's rows as needed: planes a row
    auto readRows = [&](int y0, int n) -> bool {
        rows.resize(size_t(w) * size_t(n) * size_t(bands));
        return src->RasterIO(GF_Read, 0, y0, w, n, rows.data(), w, n, GDT_Byte, bands, nullptr, 1,
                             GSpacing(w) * bands, w, nullptr) == CE_None;
    };
    int st = 0;
    try {
        if (type == "rgb") {
            ImageFileContext* ctx = korImage_createFile(&st, path, &size, &size, 1, COLORMODE_RGB);
            if (!ctx) return statusError(st, "cannot create", path), nullptr;
            std::vector<uint8_t> planes(3 * size_t(w));
            for (int y = 0; y < h && st == 0; ++y) {
                if (!readRows(y, 1)) st = IMGERR_READFAILED;
                for (int x = 0; x < w && st == 0; ++x) {
                    if (bands == 3) {
                        for (int p = 0; p < 3; ++p) planes[size_t(p) * w + x] = rows[size_t(p) * w + x];
                    } else {
                        const uint8_t v = rows[x];
                        planes[x] = red[v], planes[size_t(w) + x] = green[v], planes[2 * size_t(w) + x] = blue[v];
                    }
                }
                if (st == 0) st = korImage_putRow(ctx, planes.data(), planes.data() + w, planes.data() + 2 * w, nullptr);
                if (st == 0 && !progress(double(y + 1) / h, nullptr, progressData)) st = IMGERR_STOPPED;
            }
            const int closed = korImage_closeFile(ctx);
            if (st == 0) st = closed;
        } else {
            if (!readRows(0, h)) {
                CPLError(CE_Failure, CPLE_FileIO, "INGR: cannot read the source");
                return nullptr;
            }
            if (!progress(0.5, nullptr, progressData)) st = IMGERR_STOPPED;
            const size_t n = size_t(w) * size_t(h);
            if (st == 0 && (type == "cit" || type == "rle")) {
                // Black (set) where the grey level is below 128.
                std::vector<uint8_t> map(n);
                for (int y = 0; y < h; ++y)
                    for (int x = 0; x < w; ++x) {
                        const size_t at = size_t(y) * w * bands + x;
                        double grey;
                        if (bands == 3) {
                            grey = greyOf(rows[at], rows[at + w], rows[at + 2 * size_t(w)]);
                        } else {
                            const uint8_t v = rows[at];
                            grey = palette ? greyOf(red[v], green[v], blue[v]) : v;
                        }
                        map[size_t(y) * w + x] = grey < 128 ? 1 : 0;
                    }
                const uint8_t wr[2] = {255, 0};
                st = korImage_createFileFromMap(path, type == "cit" ? 19 : 13, COLORMODE_BILEVEL, &size, map.data(),
                                                wr, wr, wr, 2, nullptr);
            } else if (st == 0 && bands == 3) {
                st = korImage_createFileFromRGB(path, 17, COLORMODE_PALETTE256, &size, rows.data(), nullptr);
            } else if (st == 0) {
                st = korImage_createFileFromMap(path, 17, palette ? COLORMODE_PALETTE256 : COLORMODE_GREY, &size,
                                                rows.data(), red, green, blue, count, nullptr);
            }
        }
    } catch (const std::bad_alloc&) {
        st = IMGERR_NOMEMORY;
    }
    if (st) {
        VSIUnlink(path);
        return statusError(st, "cannot write", path), nullptr;
    }
    double gt[6];
    if (src->GetGeoTransform(gt) == CE_None) {
        if (int e = korImage_setIngrGeoTransform(gt, path)) return statusError(e, "cannot georeference", path), nullptr;
    }
    progress(1.0, nullptr, progressData);
    GDALOpenInfo info(path, GA_ReadOnly);
    return Open(&info);
}

}  // namespace

extern "C" void GDALRegister_INGR() {
    if (!GDAL_CHECK_VERSION("INGR")) return;
    if (GDALGetDriverByName("INGR") != nullptr) return;
    auto* driver = new GDALDriver();
    driver->SetDescription("INGR");
    driver->SetMetadataItem(GDAL_DCAP_RASTER, "YES");
    driver->SetMetadataItem(GDAL_DMD_LONGNAME, "Intergraph Raster (imagelib)");
    driver->SetMetadataItem(GDAL_DMD_EXTENSIONS, "cit cot rle rgb int tg4 t29 bum");
    driver->SetMetadataItem(GDAL_DMD_CREATIONDATATYPES, "Byte");
    driver->SetMetadataItem(GDAL_DMD_CREATIONOPTIONLIST,
                            "<CreationOptionList>"
                            "  <Option name='TYPE' type='string-select' description='Coding of the file written'>"
                            "    <Value>cit</Value><Value>cot</Value><Value>rle</Value><Value>rgb</Value>"
                            "  </Option>"
                            "</CreationOptionList>");
    driver->pfnIdentify = INGRDataset::Identify;
    driver->pfnOpen = INGRDataset::Open;
    driver->pfnCreateCopy = INGRDataset::CreateCopy;
    GetGDALDriverManager()->RegisterDriver(driver);
}
