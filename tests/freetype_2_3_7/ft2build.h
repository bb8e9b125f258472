// In the place of FreeType's own headers: the interface that the application takes from FreeType,
// as it was in 2.3.7 of 2008, the oldest that an appliance may have. The text part is compiled with
// this too, and so uses no call, no field and no type that wasn't there. Source: the FreeType 2 API
// reference.
//
// What has another type since: rows and width of FT_Bitmap are unsigned since 2.6, and its modes
// `unsigned char`.
#pragma once

#define FT_FREETYPE_H "ft2build.h"
#define FT_GLYPH_H "ft2build.h"

extern "C" {

typedef unsigned char FT_Byte;
typedef char FT_String;
typedef signed short FT_Short;
typedef unsigned short FT_UShort;
typedef signed int FT_Int;
typedef signed int FT_Int32;
typedef unsigned int FT_UInt;
typedef signed long FT_Long;
typedef unsigned long FT_ULong;
typedef signed long FT_Fixed;
typedef signed long FT_Pos;
typedef int FT_Error;
typedef unsigned char FT_Bool;

struct FT_Vector {
    FT_Pos x, y;
};
struct FT_BBox {
    FT_Pos xMin, yMin, xMax, yMax;
};
struct FT_Matrix {
    FT_Fixed xx, xy, yx, yy;
};
struct FT_Generic {
    void *data;
    void (*finalizer)(void *object);
};

enum FT_Pixel_Mode {
    FT_PIXEL_MODE_NONE,
    FT_PIXEL_MODE_MONO,
    FT_PIXEL_MODE_GRAY,
    FT_PIXEL_MODE_GRAY2,
    FT_PIXEL_MODE_GRAY4,
    FT_PIXEL_MODE_LCD,
    FT_PIXEL_MODE_LCD_V,
};

struct FT_Bitmap {
    int rows;
    int width;
    int pitch;
    unsigned char *buffer;
    short num_grays;
    char pixel_mode;
    char palette_mode;
    void *palette;
};

typedef struct FT_LibraryRec_ *FT_Library;
typedef struct FT_FaceRec_ *FT_Face;
typedef struct FT_SizeRec_ *FT_Size;
typedef struct FT_GlyphSlotRec_ *FT_GlyphSlot;
typedef struct FT_CharMapRec_ *FT_CharMap;
typedef struct FT_GlyphRec_ *FT_Glyph;
typedef struct FT_BitmapGlyphRec_ *FT_BitmapGlyph;
enum FT_Glyph_Format : int {};

struct FT_Size_Metrics {
    FT_UShort x_ppem, y_ppem;
    FT_Fixed x_scale, y_scale;
    FT_Pos ascender, descender, height, max_advance;
};
struct FT_SizeRec_ {
    FT_Face face;
    FT_Generic generic;
    FT_Size_Metrics metrics;
    void *internal;
};

struct FT_Bitmap_Size {
    FT_Short height, width;
    FT_Pos size, x_ppem, y_ppem;
};
struct FT_FaceRec_ {
    FT_Long num_faces, face_index, face_flags, style_flags, num_glyphs;
    FT_String *family_name, *style_name;
    FT_Int num_fixed_sizes;
    FT_Bitmap_Size *available_sizes;
    FT_Int num_charmaps;
    FT_CharMap *charmaps;
    FT_Generic generic;
    FT_BBox bbox;
    FT_UShort units_per_EM;
    FT_Short ascender, descender, height;
    FT_Short max_advance_width, max_advance_height;
    FT_Short underline_position, underline_thickness;
    FT_GlyphSlot glyph;
    FT_Size size;
    FT_CharMap charmap;
};

struct FT_GlyphRec_ {
    FT_Library library;
    const struct FT_Glyph_Class_ *clazz;
    FT_Glyph_Format format;
    FT_Vector advance;
};
typedef FT_GlyphRec_ FT_GlyphRec;
struct FT_BitmapGlyphRec_ {
    FT_GlyphRec root;
    FT_Int left, top;
    FT_Bitmap bitmap;
};
typedef FT_BitmapGlyphRec_ FT_BitmapGlyphRec;

enum FT_Size_Request_Type {
    FT_SIZE_REQUEST_TYPE_NOMINAL,
    FT_SIZE_REQUEST_TYPE_REAL_DIM,
    FT_SIZE_REQUEST_TYPE_BBOX,
    FT_SIZE_REQUEST_TYPE_CELL,
    FT_SIZE_REQUEST_TYPE_SCALES,
};
struct FT_Size_RequestRec {
    FT_Size_Request_Type type;
    FT_Long width, height;
    FT_UInt horiResolution, vertResolution;
};
typedef FT_Size_RequestRec *FT_Size_Request;

enum FT_Render_Mode {
    FT_RENDER_MODE_NORMAL,
    FT_RENDER_MODE_LIGHT,
    FT_RENDER_MODE_MONO,
    FT_RENDER_MODE_LCD,
    FT_RENDER_MODE_LCD_V,
};

#define FT_LOAD_DEFAULT 0x0

FT_Error FT_Init_FreeType(FT_Library *library);
FT_Error FT_Done_FreeType(FT_Library library);
FT_Error FT_New_Face(FT_Library library, const char *path, FT_Long index, FT_Face *face);
FT_Error FT_Done_Face(FT_Face face);
FT_Error FT_Request_Size(FT_Face face, FT_Size_Request request);
FT_UInt FT_Get_Char_Index(FT_Face face, FT_ULong character);
FT_Error FT_Load_Glyph(FT_Face face, FT_UInt index, FT_Int32 flags);
FT_Error FT_Get_Glyph(FT_GlyphSlot slot, FT_Glyph *glyph);
FT_Error FT_Glyph_To_Bitmap(FT_Glyph *glyph, FT_Render_Mode mode, FT_Vector *origin,
                            FT_Bool destroy);
void FT_Done_Glyph(FT_Glyph glyph);
}
