/*
 * video_formats.h - video format and resolution codes used in settings files.
 *
 * Compiles as C99 and as C++.
 */
#ifndef VIDEO_FORMATS_H
#define VIDEO_FORMATS_H

#include <stdint.h>

/* A video format code (see the encoding below). */
typedef uint64_t VIDEO_FORMAT;

#endif /* VIDEO_FORMATS_H */
