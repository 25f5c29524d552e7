/*
 * video_formats.h - video format and resolution codes used in settings files.
 *
 * A camera or video encoder names the frame size and the video format it
 * works in by a setting such as "Resolution = 1080p" or "Format = 1080i50".
 * The settings library turns such names into the codes defined here (see
 * ConvertVideoResolutionString and ConvertVideoFormatString for the names it
 * understands).
 *
 * Resolution code (a 64-bit long):
 *   bits 22-34  frame width in pixels, 13 bits (0-8191)
 *   bits  9-21  frame height in lines, 13 bits (0-8191)
 *   all other bits are zero in every code defined here. Bit 63 is never set
 *   by these macros; the settings library sets it only in a default code it
 *   builds itself, to tell that default apart from a named resolution.
 *
 * Video format code (VIDEO_FORMAT, 64-bit unsigned):
 *   bit  0      1 for an interlaced format, 0 for a progressive one
 *   bits 1-8    zero
 *   bits 9-34   the frame size, laid out as in a resolution code, so that
 *               VIDEO_FORMAT_RESOLUTION(format) is a resolution code
 *   bits 35-50  the rate as the format's name gives it, in hundredths per
 *               second: frames per second for a progressive format, fields
 *               per second for an interlaced one (1080i50: 50 fields or 25
 *               frames per second; 1080p59.94: 5994)
 *   bits 51-63  zero
 *
 * Compiles as C99 and as C++.
 */
#ifndef VIDEO_FORMATS_H
#define VIDEO_FORMATS_H

#include <stdint.h>

/* A video format code (see the encoding above). */
typedef uint64_t VIDEO_FORMAT;

/* ------------------------------------------------------- resolution codes */

#define VIDEO_DIMENSION_MASK 0x1FFF /* width and height fields are 13 bits */
#define VIDEO_WIDTH_SHIFT 22
#define VIDEO_HEIGHT_SHIFT 9
/* Bits 9-34: the width and height fields together. */
#define VIDEO_RESOLUTION_FIELDS 0x7FFFFFE00L

/* Builds the resolution code of a width w and a height h (each cut to 13 bits). */
#define VIDEO_RESOLUTION_CODE(w, h)                                                                \
    (((long)((w)&VIDEO_DIMENSION_MASK) << VIDEO_WIDTH_SHIFT) |                                     \
     ((long)((h)&VIDEO_DIMENSION_MASK) << VIDEO_HEIGHT_SHIFT))

/* Width and height of a resolution code or a video format code. */
#define VIDEO_RESOLUTION_WIDTH(code)                                                               \
    ((unsigned int)(((uint64_t)(code) >> VIDEO_WIDTH_SHIFT) & VIDEO_DIMENSION_MASK))
#define VIDEO_RESOLUTION_HEIGHT(code)                                                              \
    ((unsigned int)(((uint64_t)(code) >> VIDEO_HEIGHT_SHIFT) & VIDEO_DIMENSION_MASK))

/* Named resolutions, by the line count they are known by. */
#define VIDEO_RESOLUTION_480 VIDEO_RESOLUTION_CODE(720, 480)    /* SD, 525 lines */
#define VIDEO_RESOLUTION_576 VIDEO_RESOLUTION_CODE(720, 576)    /* SD, 625 lines */
#define VIDEO_RESOLUTION_720 VIDEO_RESOLUTION_CODE(1280, 720)   /* HD */
#define VIDEO_RESOLUTION_1080 VIDEO_RESOLUTION_CODE(1920, 1080) /* Full HD */
#define VIDEO_RESOLUTION_1440 VIDEO_RESOLUTION_CODE(2560, 1440) /* QHD */
#define VIDEO_RESOLUTION_2160 VIDEO_RESOLUTION_CODE(3840, 2160) /* UHD, "4K" */
#define VIDEO_RESOLUTION_4320 VIDEO_RESOLUTION_CODE(7680, 4320) /* UHD-2, "8K" */
#define VIDEO_RESOLUTION_VGA VIDEO_RESOLUTION_CODE(640, 480)
#define VIDEO_RESOLUTION_DCI_2K VIDEO_RESOLUTION_CODE(2048, 1080)
#define VIDEO_RESOLUTION_DCI_4K VIDEO_RESOLUTION_CODE(4096, 2160)

/* ---------------------------------------------------- video format codes */

#define VIDEO_FORMAT_RATE_SHIFT 35
#define VIDEO_FORMAT_RATE_MASK 0xFFFF
#define VIDEO_FORMAT_INTERLACED 1

/* Builds the format code of a w x h frame, interlaced (nonzero) or progressive
 * (zero), at rate_x100 hundredths of a frame (or field) per second. */
#define VIDEO_FORMAT_CODE(w, h, interlaced, rate_x100)                                             \
    ((VIDEO_FORMAT)VIDEO_RESOLUTION_CODE(w, h) |                                                   \
     ((VIDEO_FORMAT)((rate_x100)&VIDEO_FORMAT_RATE_MASK) << VIDEO_FORMAT_RATE_SHIFT) |             \
     ((interlaced) ? (VIDEO_FORMAT)VIDEO_FORMAT_INTERLACED : (VIDEO_FORMAT)0))

/* The parts of a format code; the width and height come from
 * VIDEO_RESOLUTION_WIDTH and VIDEO_RESOLUTION_HEIGHT. */
#define VIDEO_FORMAT_RESOLUTION(format) ((long)((uint64_t)(format)&VIDEO_RESOLUTION_FIELDS))
#define VIDEO_FORMAT_IS_INTERLACED(format) ((int)((uint64_t)(format)&VIDEO_FORMAT_INTERLACED))
#define VIDEO_FORMAT_RATE_X100(format)                                                             \
    ((unsigned int)(((uint64_t)(format) >> VIDEO_FORMAT_RATE_SHIFT) & VIDEO_FORMAT_RATE_MASK))

/* Named formats: lines, p(rogressive) or i(nterlaced), rate ('_' for the point). */
#define VIDEO_FORMAT_480I59_94 VIDEO_FORMAT_CODE(720, 480, 1, 5994)
#define VIDEO_FORMAT_576I50 VIDEO_FORMAT_CODE(720, 576, 1, 5000)
#define VIDEO_FORMAT_720P50 VIDEO_FORMAT_CODE(1280, 720, 0, 5000)
#define VIDEO_FORMAT_720P59_94 VIDEO_FORMAT_CODE(1280, 720, 0, 5994)
#define VIDEO_FORMAT_720P60 VIDEO_FORMAT_CODE(1280, 720, 0, 6000)
#define VIDEO_FORMAT_1080I50 VIDEO_FORMAT_CODE(1920, 1080, 1, 5000)
#define VIDEO_FORMAT_1080I59_94 VIDEO_FORMAT_CODE(1920, 1080, 1, 5994)
#define VIDEO_FORMAT_1080I60 VIDEO_FORMAT_CODE(1920, 1080, 1, 6000)
#define VIDEO_FORMAT_1080P23_98 VIDEO_FORMAT_CODE(1920, 1080, 0, 2398)
#define VIDEO_FORMAT_1080P24 VIDEO_FORMAT_CODE(1920, 1080, 0, 2400)
#define VIDEO_FORMAT_1080P25 VIDEO_FORMAT_CODE(1920, 1080, 0, 2500)
#define VIDEO_FORMAT_1080P29_97 VIDEO_FORMAT_CODE(1920, 1080, 0, 2997)
#define VIDEO_FORMAT_1080P30 VIDEO_FORMAT_CODE(1920, 1080, 0, 3000)
#define VIDEO_FORMAT_1080P50 VIDEO_FORMAT_CODE(1920, 1080, 0, 5000)
#define VIDEO_FORMAT_1080P59_94 VIDEO_FORMAT_CODE(1920, 1080, 0, 5994)
#define VIDEO_FORMAT_1080P60 VIDEO_FORMAT_CODE(1920, 1080, 0, 6000)
#define VIDEO_FORMAT_2160P24 VIDEO_FORMAT_CODE(3840, 2160, 0, 2400)
#define VIDEO_FORMAT_2160P25 VIDEO_FORMAT_CODE(3840, 2160, 0, 2500)
#define VIDEO_FORMAT_2160P30 VIDEO_FORMAT_CODE(3840, 2160, 0, 3000)
#define VIDEO_FORMAT_2160P50 VIDEO_FORMAT_CODE(3840, 2160, 0, 5000)
#define VIDEO_FORMAT_2160P59_94 VIDEO_FORMAT_CODE(3840, 2160, 0, 5994)
#define VIDEO_FORMAT_2160P60 VIDEO_FORMAT_CODE(3840, 2160, 0, 6000)
#define VIDEO_FORMAT_4320P50 VIDEO_FORMAT_CODE(7680, 4320, 0, 5000)
#define VIDEO_FORMAT_4320P60 VIDEO_FORMAT_CODE(7680, 4320, 0, 6000)

#endif /* VIDEO_FORMATS_H */
