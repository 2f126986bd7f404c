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

# TIFF library messages: filled in with the TIFF codec.
[list -7505]

# zlib messages: filled in with the TIFF codec.
[list -7507]

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
