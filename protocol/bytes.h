// Little-endian integers in byte buffers, and bounded copies of text.
//
// Wire fields and file fields are read and written with these, at any alignment, never by
// casting a buffer to a struct. The caller has checked that the bytes are there.
#ifndef QV_PROTOCOL_BYTES_H
#define QV_PROTOCOL_BYTES_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

inline uint16_t load_le16(const uint8_t *p)
{
    return (uint16_t)(p[0] | p[1] << 8);
}

inline uint32_t load_le32(const uint8_t *p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}

inline uint64_t load_le64(const uint8_t *p)
{
    return (uint64_t)load_le32(p) | (uint64_t)load_le32(p + 4) << 32;
}

inline void store_le16(uint8_t *p, uint16_t v)
{
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
}

inline void store_le32(uint8_t *p, uint32_t v)
{
    store_le16(p, (uint16_t)v);
    store_le16(p + 2, (uint16_t)(v >> 16));
}

inline void store_le64(uint8_t *p, uint64_t v)
{
    store_le32(p, (uint32_t)v);
    store_le32(p + 4, (uint32_t)(v >> 32));
}

// Fills dst[0..size) with at most size bytes of text and pads with NUL. Like the wire
// fields it is for, the result has no terminator when the text has size bytes or more.
inline void copy_padded(uint8_t *dst, size_t size, const char *text)
{
    size_t n = 0;
    while (n < size && text[n] != 0) {
        dst[n] = (uint8_t)text[n];
        n++;
    }
    memset(dst + n, 0, size - n);
}

// Copies text into dst[0..size), cut to size - 1 bytes and always terminated. size > 0.
inline void copy_text(char *dst, size_t size, const char *text)
{
    size_t n = 0;
    while (n + 1 < size && text[n] != 0) {
        dst[n] = text[n];
        n++;
    }
    dst[n] = 0;
}

#endif
