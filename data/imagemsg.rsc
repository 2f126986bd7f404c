# imagelib message catalogue.
#
# Format: '[list N]' starts message list N; each following line 'NUMBER TEXT'
# holds string NUMBER of that list (TEXT runs to the end of the line; the
# escapes \n, \t and \\ are understood). Lines starting with '#' are comments.
# Lists: -7502 names of the readable types, -7503 of the writable types (string
# number = type code, 99 = the end row 'All files'), -7505 TIFF messages,
# -7507 zlib messages, -7508 status-bar texts (one %d may take the argument).

[list -7502]
22 CALS Type 1 (*.cal)
14 Autodesk FLI animation (*.fli)
15 Autodesk FLC animation (*.flc)
28 Portable Network Graphics (*.png)
11 P raster (*.p)
12 A raster (*.a)
16 Intergraph 24-bit colour (*.bum)
19 Intergraph CCITT Group 4 (*.cit)
17 Intergraph continuous tone (*.cot)
1 Intergraph RGB (*.rgb)
13 Intergraph run-length (*.rle)
20 Intergraph tiled Group 4 (*.tg4)
23 Intergraph raster (*.int)
18 JPEG (*.jpg)
5 PC Paintbrush (*.pcx)
27 Display procedure image (*.pma)
24 RLC run-length (*.rlc)
10 Sun raster (*.rs)
2 Truevision Targa (*.tga)
3 TIFF (*.tif)
29 GeoTIFF (*.tif)
9 Windows bitmap (*.bmp)
99 All files (*.*)

[list -7503]
22 CALS Type 1 (*.cal)
14 Autodesk FLI animation (*.fli)
15 Autodesk FLC animation (*.flc)
11 P raster (*.p)
12 A raster (*.a)
19 Intergraph CCITT Group 4 (*.cit)
17 Intergraph continuous tone (*.cot)
1 Intergraph RGB (*.rgb)
13 Intergraph run-length (*.rle)
18 JPEG (*.jpg)
5 PC Paintbrush (*.pcx)
4 Macintosh PICT (*.pct)
28 Portable Network Graphics (*.png)
6 Encapsulated PostScript (*.eps)
10 Sun raster (*.rs)
2 Truevision Targa (*.tga)
3 TIFF (*.tif)
29 GeoTIFF (*.tif)
9 Windows bitmap (*.bmp)
26 AVI video (*.avi)
8 WordPerfect graphic (*.wpg)
39 EPX material (*.epx)
99 All files (*.*)

# TIFF library messages: number 2 is the severity label; the others are
# libtiff's own texts under the numbers the library gives them (the
# arguments are libtiff's), and the library's own messages.
[list -7505]
2 TIFF:
3 Invalid TIFF directory; tags are not sorted in ascending order
4 Nonstandard tile length %u, convert file
5 Cannot handle zero strip size
6 Cannot handle zero tile size
7 Sorry, can not handle images with %u-bit samples
8 Missing required "Colormap" tag
9 Decoding error at scanline %lu
10 TIFF directory is missing required "%s" field
11 Incorrect count for "%s"; tag ignored
12 Cannot handle different values per sample for "%s"; tag ignored
13 Invalid data type for tag %s
14 Cannot handle zero scanline size
15 Not enough data for scanline %u, expected a request for at most %ld bytes, got a request for %ld bytes
16 Photometric tag is missing, assuming data is YCbCr
17 BitsPerSample tag is missing, assuming 8 bits per sample
18 SamplesPerPixel tag is missing, assuming correct SamplesPerPixel value is 3
27 ASCII value for tag "%s" does not end in null byte. Forcing it to be null
28 Unknown field with tag %u (0x%x) encountered
30 Wrong data type %u for "%s"; tag ignored
33 TIFF directory is missing required "%s" field, calculating from imagelength
37 Bogus "%s" field, ignoring and calculating from imagelength
38 Wrong "%s" field, ignoring and calculating from imagelength
53 Sum of Photometric type-related color channels and ExtraSamples doesn't match SamplesPerPixel. Defining non-color channels as ExtraSamples.
55 Nonstandard tile width %u, convert file
62 Orientation %u is not supported: the image is read with its rows as stored, bottom row first.
63 Orientation %u is not supported: the image is read with its rows as stored, top row first.
64 Out of memory.
65 No space for a working buffer.
88 incorrect count for field "%s" (%lu, expecting %u); tag trimmed
89 incorrect count for field "%s" (%lu, expecting %u); tag ignored
132 Cannot read the image size of the file.
171 GeoTIFF key directory version %d.%d.%d is not supported.
172 The GeoTIFF key directory has no model type (GTModelTypeGeoKey).
174 The GeoTIFF pixel scale has no tie point: the georeference is left unchanged.

# Texts of the compression library (zlib), by its status code.
[list -7507]
2 need dictionary
1 stream end
-1 file error
-2 stream error
-3 data error
-4 insufficient memory
-5 buffer error
-6 incompatible version

[list -7508]
1 Reading image...
2 Writing image...
3 Reading image: %d%%
4 Writing image: %d%%
5 Converting image...
6 Reducing colours...
7 Dithering...
8 Resampling...
9 Rotating...
