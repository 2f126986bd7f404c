// Host services, the image model and start-up.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "host/host_internal.h"
#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

TEST(ImageModel, MemorySizeFollowsTheLayoutTable) {
    ImageSize s1{1, 1}, s92{9, 2}, s10{10, 10}, wide{1000, 5};
    EXPECT_EQ(korImage_memorySize(&s1, IMAGEFORMAT_BITMAP), 1);
    EXPECT_EQ(korImage_memorySize(&s92, IMAGEFORMAT_BITMAP), 4);
    EXPECT_EQ(korImage_memorySize(&s10, IMAGEFORMAT_RGBA), 400);
    EXPECT_EQ(korImage_memorySize(&s10, IMAGEFORMAT_RGB2), 300);
    EXPECT_EQ(korImage_memorySize(&s10, IMAGEFORMAT_MAP2), 100);
    // Row-pointer layouts count the pointer array only, whatever the width:
    // a caller allocating a row table by this size must have room for it.
    EXPECT_EQ(korImage_memorySize(&wide, IMAGEFORMAT_RLEBITMAP), int32_t(5 * sizeof(void*)));
    EXPECT_EQ(korImage_memorySize(&wide, IMAGEFORMAT_PACKBYTE), int32_t(5 * sizeof(void*)));
    EXPECT_EQ(korImage_memorySize(&s1, 0), IMGERR_BADARG);
    EXPECT_EQ(korImage_memorySize(&s1, 9), IMGERR_BADARG);
    EXPECT_EQ(korImage_memorySize(nullptr, 3), IMGERR_BADARG);
}

// A host allocator that records what it hands out and what comes back.
std::set<void*> g_live;
int g_frees = 0;
void* countingMalloc(size_t n) {
    void* p = std::malloc(n);
    g_live.insert(p);
    return p;
}
void countingFree(void* p) {
    ++g_frees;
    EXPECT_EQ(g_live.erase(p), 1u) << "freed a block the host did not hand out";
    std::free(p);
}

TEST(ImageModel, FreeImageReleasesNonNullRowsThenTheArray) {
    ImageHost h{};
    h.korMalloc = countingMalloc;
    h.korFree = countingFree;
    imagelib_setHost(&h);
    g_live.clear();
    g_frees = 0;
    ImageSize size{5, 4};
    auto** rows = static_cast<void**>(dlmSystem_korMalloc(4 * sizeof(void*)));
    rows[0] = dlmSystem_korMalloc(3);
    rows[1] = dlmSystem_korMalloc(3);
    rows[2] = rows[3] = nullptr;  // a read that stopped early
    EXPECT_EQ(korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE), 0);
    EXPECT_EQ(g_frees, 3);
    EXPECT_EQ(korImage_freeImage(dlmSystem_korMalloc(20), &size, IMAGEFORMAT_MAP), 0);
    EXPECT_EQ(g_frees, 4);
    EXPECT_TRUE(g_live.empty());
    imagelib_setHost(nullptr);
}

int g_calls = 0, g_lastA = -1, g_lastB = -1;
int recordingStop(int a, int b) {
    ++g_calls, g_lastA = a, g_lastB = b;
    return a == 99 ? 7 : 0;
}

TEST(Interruption, StopPollsPassTheirArgumentsAndAnswer) {
    g_calls = 0;
    EXPECT_EQ(imageUtil_stopped(nullptr), 0);
    EXPECT_EQ(imageUtil_reportProgress(nullptr, 10, 3), 0);
    EXPECT_EQ(g_calls, 0);
    EXPECT_EQ(imageUtil_stopped(recordingStop), 0);
    EXPECT_EQ(std::pair(g_lastA, g_lastB), std::pair(0, 0));
    EXPECT_EQ(imageUtil_reportProgress(recordingStop, 99, 5), 7);
    EXPECT_EQ(std::pair(g_lastB, g_calls), std::pair(5, 2));
}

TEST(Status, EveryStatusHasItsOwnText) {
    const int codes[] = {0,    1,    3,    4,    294,  32768, -103, -107, -111, -113, -114, -116,
                         -119, -120, -121, -123, -126, -128,  -138, -144, -152, -154, -156};
    std::set<std::string> texts;
    for (int c : codes) {
        std::string t = imagelib_statusText(c);
        EXPECT_NE(t, "unknown status") << c;
        texts.insert(t);
    }
    EXPECT_EQ(texts.size(), std::size(codes));
    EXPECT_STREQ(imagelib_statusText(12345), "unknown status");
}

int hostCfg(char* buffer, const char* name, int size) {
    if (std::strcmp(name, "KV_PNG_INTERLACE") != 0 || size < 2) return 1;
    std::strcpy(buffer, "0");
    return 0;
}

TEST(Config, VariablesComeFromTheEnvironmentOrTheHost) {
    char buf[32];
    ::unsetenv("KV_TEST_VARIABLE");
    EXPECT_NE(korSystem_getCfgVar(buf, "KV_TEST_VARIABLE", sizeof buf), 0);
    EXPECT_EQ(imagelib_cfgInt("KV_TEST_VARIABLE", 1), 1);  // unset: the caller's default
    ::setenv("KV_TEST_VARIABLE", "0", 1);
    EXPECT_EQ(imagelib_cfgInt("KV_TEST_VARIABLE", 1), 0);
    ::setenv("KV_TEST_VARIABLE", "12", 1);
    EXPECT_EQ(korSystem_getCfgVar(buf, "KV_TEST_VARIABLE", sizeof buf), 0);
    EXPECT_STREQ(buf, "12");
    EXPECT_EQ(imagelib_cfgInt("KV_TEST_VARIABLE", 0), 12);
    ::setenv("KV_TEST_VARIABLE", "yes", 1);  // not a number: a decimal conversion gives 0
    EXPECT_EQ(imagelib_cfgInt("KV_TEST_VARIABLE", 1), 0);
    ::setenv("KV_TEST_VARIABLE", "a value longer than the buffer", 1);
    EXPECT_NE(korSystem_getCfgVar(buf, "KV_TEST_VARIABLE", 8), 0);
    ::unsetenv("KV_TEST_VARIABLE");

    // A host's variables replace the environment's.
    ImageHost h{};
    h.getCfgVar = hostCfg;
    imagelib_setHost(&h);
    ::setenv("KV_PNG_INTERLACE", "1", 1);
    EXPECT_EQ(imagelib_cfgInt("KV_PNG_INTERLACE", 1), 0);
    imagelib_setHost(nullptr);
    EXPECT_EQ(imagelib_cfgInt("KV_PNG_INTERLACE", 5), 1);
    ::unsetenv("KV_PNG_INTERLACE");
}

TEST(FileNames, ParseAndBuildPosixPaths) {
    char dir[IMAGELIB_PATH_MAX], name[IMAGELIB_PATH_MAX], ext[IMAGELIB_PATH_MAX], out[IMAGELIB_PATH_MAX];
    auto parsed = [&](const char* path) {
        EXPECT_EQ(korFile_parseName(dir, name, ext, path), 0);
        return std::string(dir) + "|" + name + "|" + ext;
    };
    EXPECT_EQ(parsed("/data/maps/sheet.1.TIF"), "/data/maps/|sheet.1|TIF");
    EXPECT_EQ(parsed("noext"), "|noext|");
    EXPECT_EQ(parsed("dir.d/.hidden"), "dir.d/|.hidden|");
    EXPECT_EQ(parsed("trailing."), "|trailing|");
    EXPECT_EQ(korFile_parseName(nullptr, name, ext, "a/b.c"), 0);
    EXPECT_EQ(korFile_parseName(dir, name, ext, nullptr), IMGERR_BADARG);

    ASSERT_EQ(korFile_buildName(out, "/tmp", "a", "tga"), 0);
    EXPECT_STREQ(out, "/tmp/a.tga");
    ASSERT_EQ(korFile_buildName(out, "/tmp/", "a", nullptr), 0);
    EXPECT_STREQ(out, "/tmp/a");
    ASSERT_EQ(korFile_buildName(out, nullptr, "a", "b"), 0);
    EXPECT_STREQ(out, "a.b");
    std::string huge(IMAGELIB_PATH_MAX, 'x');
    EXPECT_EQ(korFile_buildName(out, huge.c_str(), "a", "b"), IMGERR_BADARG);
}

TEST(FileNames, FindWalksTheSearchPathInOrder) {
    iltest::TempDir a, b;
    ASSERT_TRUE(iltest::writeFile(b.file("x.rsc"), std::string("b")));
    ASSERT_TRUE(iltest::writeFile(a.file("y.rsc"), std::string("a")));
    char found[IMAGELIB_PATH_MAX];
    ::setenv("KV_TEST_PATH", ("/nonexistent-dir:" + a.path() + ":" + b.path() + "/").c_str(), 1);
    ASSERT_EQ(korFile_find(found, "x.rsc", "KV_TEST_PATH", nullptr), 0);
    EXPECT_EQ(std::string(found), b.file("x.rsc"));
    ASSERT_EQ(korFile_find(found, "y.rsc", "KV_TEST_PATH", nullptr), 0);
    EXPECT_EQ(std::string(found), a.file("y.rsc"));
    EXPECT_EQ(korFile_find(found, "z.rsc", "KV_TEST_PATH", nullptr), IMGERR_NOTFOUND);
    ::unsetenv("KV_TEST_PATH");
    // Unset variable: the default path is searched.
    ASSERT_EQ(korFile_find(found, "y.rsc", "KV_TEST_PATH", a.path().c_str()), 0);
    EXPECT_EQ(korFile_find(found, "y.rsc", "KV_TEST_PATH", nullptr), IMGERR_NOTFOUND);
}

TEST(Catalog, ParsesListsNumbersAndEscapes) {
    il::host::Catalog c;
    std::string why;
    ASSERT_TRUE(
        il::host::parseCatalog("# c\n\n[list -7502]\n3 TIFF (*.tif)  \n99 All\\tfiles\n[list 5]\n1\n", c, &why))
        << why;
    EXPECT_EQ(c.strings[std::pair(-7502, 3)], "TIFF (*.tif)");
    EXPECT_EQ(c.strings[std::pair(-7502, 99)], "All\tfiles");
    const std::string bad[] = {"3 text before any list\n",          "[list -1]\n3 a\n3 b\n",
                               "[list -1]\nthree a\n",                "[lst -1]\n",
                               "[list -1]\n1 bad \\q escape\n", "[list -1]\n1 " + std::string(300, 'x') + "\n"};
    for (const std::string& text : bad)
        EXPECT_FALSE(il::host::parseCatalog(text, c, &why)) << text;
}

TEST(Catalog, ShippedCatalogueNamesEveryListedType) {
    // Start-up found the catalogue along KV_KOR (set by the test runner) or
    // in the source tree.
    ASSERT_NE(imagelib_catalogPath(), nullptr);
    char text[IMAGELIB_TEXT_MAX];
    for (int list : {IMAGELIB_LIST_IMPORT_NAMES, IMAGELIB_LIST_EXPORT_NAMES})
        EXPECT_EQ(korResource_loadFromStringList(text, nullptr, list, 99), 0);
    EXPECT_EQ(korResource_loadFromStringList(text, nullptr, IMAGELIB_LIST_STATUSBAR, 1), 0);
    EXPECT_NE(korResource_loadFromStringList(text, nullptr, IMAGELIB_LIST_STATUSBAR, 12345), 0);
}

TEST(Catalog, MissingOrMalformedCatalogueLeavesTheLibraryWithoutMessages) {
    iltest::TempDir d;
    char text[IMAGELIB_TEXT_MAX];
    EXPECT_FALSE(il::host::loadCatalogFrom(d.file("absent.rsc")));
    EXPECT_EQ(imagelib_catalogPath(), nullptr);
    EXPECT_NE(korResource_loadFromStringList(text, nullptr, IMAGELIB_LIST_IMPORT_NAMES, 22), 0);
    ASSERT_TRUE(iltest::writeFile(d.file("bad.rsc"), std::string("[list -7502]\n22 CALS\nnot a line\n")));
    EXPECT_FALSE(il::host::loadCatalogFrom(d.file("bad.rsc")));
    EXPECT_NE(korResource_loadFromStringList(text, nullptr, IMAGELIB_LIST_IMPORT_NAMES, 22), 0);
    EXPECT_EQ(imageUtil_showStatus(1, 0), IMGERR_NORESOURCE);
    // A good file works again.
    ASSERT_TRUE(iltest::writeFile(d.file("ok.rsc"), std::string("[list -7502]\n22 CALS files\n")));
    EXPECT_TRUE(il::host::loadCatalogFrom(d.file("ok.rsc")));
    EXPECT_EQ(korResource_loadFromStringList(text, nullptr, IMAGELIB_LIST_IMPORT_NAMES, 22), 0);
    EXPECT_STREQ(text, "CALS files");
    EXPECT_TRUE(il::host::loadCatalogFrom(il::host::findCatalog()));
}

TEST(Catalog, StartUpSearchesKvKorFirst) {
    iltest::TempDir d;
    ASSERT_TRUE(iltest::writeFile(d.file("imagemsg.rsc"), std::string("[list -7508]\n1 mine\n")));
    const char* old = std::getenv("KV_KOR");
    const std::string saved = old ? old : "";
    ::setenv("KV_KOR", ("/nowhere:" + d.path()).c_str(), 1);
    EXPECT_EQ(il::host::findCatalog(), d.file("imagemsg.rsc"));
    ::setenv("KV_KOR", "/nowhere", 1);
    const std::string fallback = il::host::findCatalog();  // installed data or the source tree
    EXPECT_NE(fallback, d.file("imagemsg.rsc"));
    EXPECT_FALSE(fallback.empty());
    if (old) ::setenv("KV_KOR", saved.c_str(), 1);
    else ::unsetenv("KV_KOR");
}

// A host application that serves commands and records the status texts.
std::string g_shown;
int g_openAnswer = 1, g_sendAnswer = 0;
int statusHost(const char* command, const void* arg, const void*, int* result) {
    if (std::strcmp(command, "openStatusBar") != 0) return IMGERR_NOHOSTCOMMAND;
    if (arg) g_shown = static_cast<const char*>(arg);
    *result = arg ? g_sendAnswer : g_openAnswer;
    return 0;
}

TEST(HostCommands, StatusBarFormatsTheMessage) {
    // Standalone there is no host application; -121 from the host counts
    // as success once the message is loaded.
    EXPECT_EQ(imageHost_callCommand("openStatusBar", nullptr), IMGERR_NOHOSTCOMMAND);
    EXPECT_EQ(imageUtil_showStatus(1, 0), 0);

    iltest::TempDir d;
    ASSERT_TRUE(iltest::writeFile(d.file("m.rsc"),
                                  std::string("[list -7508]\n1 Reading %d%%\n2 Plain\n3 Bad %s here\n")));
    ASSERT_TRUE(il::host::loadCatalogFrom(d.file("m.rsc")));
    ImageHost h{};
    h.callCommand = statusHost;
    imagelib_setHost(&h);
    g_openAnswer = 0;  // the first call answering 0 ends it
    g_shown.clear();
    EXPECT_EQ(imageUtil_showStatus(1, 40), 0);
    EXPECT_EQ(g_shown, "");
    g_openAnswer = 1;
    g_sendAnswer = 0;
    EXPECT_EQ(imageUtil_showStatus(1, 40), 0);
    EXPECT_EQ(g_shown, "Reading 40%");
    EXPECT_EQ(imageUtil_showStatus(2, 0), 0);
    EXPECT_EQ(g_shown, "Plain");
    EXPECT_EQ(imageUtil_showStatus(3, 7), 0);  // a %s is never given an argument
    EXPECT_EQ(g_shown, "Bad %s here");
    g_sendAnswer = IMGERR_HOSTSTATUSBAR;
    EXPECT_EQ(imageUtil_showStatus(2, 0), 0);
    g_sendAnswer = -5;
    EXPECT_EQ(imageUtil_showStatus(2, 0), -5);
    EXPECT_EQ(imageUtil_showStatus(9, 0), IMGERR_NORESOURCE);
    imagelib_setHost(nullptr);
    EXPECT_TRUE(il::host::loadCatalogFrom(il::host::findCatalog()));
}

}  // namespace
