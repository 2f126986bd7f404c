/* A program that uses the installed library: proves that the headers compile
   as C99 and that the library, its catalogue and its package files work.
   usage: consumer CATALOGUE_PATH */
#include <stdio.h>
#include <string.h>

#include <imagelib/imagelib.h>

int main(int argc, char** argv) {
    ImageSize size = {9, 2};
    char name[IMAGELIB_TEXT_MAX];
    int type = 0;
    const char* catalog;
    (void)argc;
    if (korImage_memorySize(&size, IMAGEFORMAT_BITMAP) != 4) return 1;
    if (korImage_typeFromExtension("picture.TGA") != 2) return 2;
    if (strcmp(imagelib_statusText(IMGERR_NOMEMORY), "out of memory") != 0) return 3;
    if (korImage_getImportFormat(name, &type, 22) != 0 || type != -1) return 4;
    catalog = imagelib_catalogPath();
    if (!catalog || strcmp(catalog, argv[1]) != 0) {
        fprintf(stderr, "catalogue: %s, expected %s\n", catalog ? catalog : "(none)", argv[1]);
        return 5;
    }
    printf("imagelib %s: ok\n", imagelib_version());
    return 0;
}
