// The session messages: everything that host and viewer say after the handshake.
//
// Each message is a header of 8 bytes and a payload, written into the secure channel's
// byte stream; message and record boundaries are unrelated. All integers are
// little-endian; pixel coordinates count from the top left corner of the host's screen.
//
//   header   offset size  field
//            0      u8    type (only this byte decides; both sides ignore the next three)
//            1      3     reserved, written as zero
//            4      u32   length of the payload
//
// Receivers drop a message that is shorter than its layout and skip types that they do not
// know. The host ends the session at a payload above HOST_PAYLOAD_MAX.
#ifndef QV_PROTOCOL_MESSAGES_H
#define QV_PROTOCOL_MESSAGES_H

#include "protocol/bytes.h"

#include <stdint.h>

enum message_type : uint8_t {
    // host to viewer
    MSG_SERVER_HELLO = 0x01, // once, answers MSG_CLIENT_HELLO
    MSG_COPY_RECTS = 0x02,   // moved rectangles, ahead of a frame's tiles
    MSG_TILE = 0x03,         // one changed tile, as pixels or compressed difference
    MSG_TEXT_LAYER = 0x04,   // a console's cells, or the layer's end
    MSG_CURSOR = 0x05,       // host pointer moved or changed visibility (viewer ignores it)
    MSG_WINDOW_LIST = 0x06,  // visible top-level windows (viewer ignores it)
    MSG_FRAME_END = 0x07,    // closes a frame
    MSG_TILE_REF = 0x08,     // one changed tile, by the hash of what the viewer caches

    // viewer to host
    MSG_CLIENT_HELLO = 0x80, // once, first message of a session
    MSG_FRAME_ACK = 0x81,    // answers MSG_FRAME_END
    MSG_MOUSE = 0x82,        // every mouse event
    MSG_KEY = 0x83,          // every key press and release
    MSG_CHAR = 0x84,         // a typed character; this viewer never sends it
    MSG_CACHE_ADVERT = 0x85, // hashes of tiles that the viewer already holds
    MSG_CACHE_MISS = 0x86,   // a MSG_TILE_REF named a hash that the viewer does not hold
};

constexpr uint32_t MESSAGE_HEADER_BYTES = 8;
constexpr uint32_t HOST_PAYLOAD_MAX = 65536; // largest payload that the host accepts

// Payload sizes; for messages with a variable part, of the fixed head before it.
constexpr uint32_t SERVER_HELLO_BYTES = 44;
constexpr uint32_t COPY_RECT_BYTES = 24; // each entry of MSG_COPY_RECTS
constexpr uint32_t TILE_HEAD_BYTES = 13;
constexpr uint32_t TEXT_LAYER_HEAD_BYTES = 26;
constexpr uint32_t WINDOW_LIST_HEAD_BYTES = 2;
constexpr uint32_t WINDOW_HEAD_BYTES = 22;
constexpr uint32_t CURSOR_BYTES = 9;
constexpr uint32_t FRAME_END_BYTES = 8;
constexpr uint32_t TILE_REF_BYTES = 12;
constexpr uint32_t CLIENT_HELLO_BYTES = 34;
constexpr uint32_t FRAME_ACK_BYTES = 8;
constexpr uint32_t MOUSE_BYTES = 12;
constexpr uint32_t KEY_BYTES = 4;
constexpr uint32_t CHAR_BYTES = 2;
constexpr uint32_t CACHE_MISS_BYTES = 12;
constexpr uint32_t CACHE_ADVERT_MAX_HASHES = 4096; // a message, as the viewer sends them

constexpr uint16_t CAP_TEXT_LAYER = 1 << 0;
constexpr uint16_t CAP_TILE_CACHE = 1 << 1;
constexpr uint32_t NAME_BYTES = 32; // computer names; no terminator when all are used

struct message_header {
    uint8_t type;
    uint32_t length;
};

inline void put_header(uint8_t *p, message_type type, uint32_t length)
{
    store_le32(p, type);
    store_le32(p + 4, length);
}

inline message_header get_header(const uint8_t *p)
{
    return {p[0], load_le32(p + 4)};
}

// MSG_CLIENT_HELLO   offset size  field
//                    0      u16   caps that the viewer wants (CAP_*; this viewer: both)
//                    2      32    viewer computer's name, NUL-padded
struct client_hello {
    uint16_t caps;
    char name[NAME_BYTES + 1]; // terminated here, whatever came
};

inline void put_client_hello(uint8_t *p, uint16_t caps, const char *name)
{
    store_le16(p, caps);
    copy_padded(p + 2, NAME_BYTES, name);
}

inline client_hello get_client_hello(const uint8_t *p)
{
    client_hello h = {};
    h.caps = load_le16(p);
    memcpy(h.name, p + 2, NAME_BYTES);
    return h;
}

// MSG_SERVER_HELLO   offset size  field
//                    0      i32   screen width, pixels
//                    4      i32   screen height
//                    8      u16   tile size, 64
//                    10     u16   caps that the host grants (this host: both)
//                    12     32    host's display name, NUL-padded
struct server_hello {
    int32_t width;
    int32_t height;
    uint16_t tile_size;
    uint16_t caps;
    char name[NAME_BYTES + 1];
};

inline void put_server_hello(uint8_t *p, int32_t width, int32_t height, uint16_t caps,
                             const char *name)
{
    store_le32(p, (uint32_t)width);
    store_le32(p + 4, (uint32_t)height);
    store_le16(p + 8, 64);
    store_le16(p + 10, caps);
    copy_padded(p + 12, NAME_BYTES, name);
}

inline server_hello get_server_hello(const uint8_t *p)
{
    server_hello h = {};
    h.width = (int32_t)load_le32(p);
    h.height = (int32_t)load_le32(p + 4);
    h.tile_size = load_le16(p + 8);
    h.caps = load_le16(p + 10);
    memcpy(h.name, p + 12, NAME_BYTES);
    return h;
}

// MSG_COPY_RECTS     offset size  field, for each entry of 24 bytes
//                    0      i32   src_x, src_y, dst_x, dst_y, w, h
// Moves w x h pixels of the viewer's picture from (src_x, src_y) to (dst_x, dst_y). The
// receiver takes entries as long as a whole one remains.
struct copy_rect {
    int32_t src_x, src_y, dst_x, dst_y, w, h;
};

inline void put_copy_rect(uint8_t *p, const copy_rect &r)
{
    store_le32(p, (uint32_t)r.src_x);
    store_le32(p + 4, (uint32_t)r.src_y);
    store_le32(p + 8, (uint32_t)r.dst_x);
    store_le32(p + 12, (uint32_t)r.dst_y);
    store_le32(p + 16, (uint32_t)r.w);
    store_le32(p + 20, (uint32_t)r.h);
}

inline copy_rect get_copy_rect(const uint8_t *p)
{
    return {(int32_t)load_le32(p),      (int32_t)load_le32(p + 4),  (int32_t)load_le32(p + 8),
            (int32_t)load_le32(p + 12), (int32_t)load_le32(p + 16), (int32_t)load_le32(p + 20)};
}

// MSG_TILE           offset size  field
//                    0      u16   tile column
//                    2      u16   tile row
//                    4      u8    raw: 1 the data are 16384 bytes of pixels; 0 they are one
//                                 LZ4 block of 16384 bytes, the XOR of the new pixels with
//                                 those that the viewer shows there now
//                    5      u64   hash of the new pixels; 0: not to be cached
//                    13     ...   data
struct tile_head {
    uint16_t tile_x;
    uint16_t tile_y;
    uint8_t raw;
    uint64_t hash;
};

inline void put_tile_head(uint8_t *p, const tile_head &t)
{
    store_le16(p, t.tile_x);
    store_le16(p + 2, t.tile_y);
    p[4] = t.raw;
    store_le64(p + 5, t.hash);
}

inline tile_head get_tile_head(const uint8_t *p)
{
    return {load_le16(p), load_le16(p + 2), p[4], load_le64(p + 5)};
}

// MSG_TILE_REF and MSG_CACHE_MISS (which repeats what missed)
//                    offset size  field
//                    0      u16   tile column
//                    2      u16   tile row
//                    4      u64   hash
struct tile_ref {
    uint16_t tile_x;
    uint16_t tile_y;
    uint64_t hash;
};

inline void put_tile_ref(uint8_t *p, const tile_ref &r)
{
    store_le16(p, r.tile_x);
    store_le16(p + 2, r.tile_y);
    store_le64(p + 4, r.hash);
}

inline tile_ref get_tile_ref(const uint8_t *p)
{
    return {load_le16(p), load_le16(p + 2), load_le64(p + 4)};
}

// MSG_TEXT_LAYER     offset size  field
//                    0      i32   x, y, w, h: the console's text area, host screen pixels
//                    16     u16   columns
//                    18     u16   rows
//                    20     u16   row records in the block
//                    22     i32   size of the block once decompressed
//                    26     ...   LZ4 block of row records: u16 row index, then for each
//                                 column a u16 UTF-16 code unit and a u8 attribute (low
//                                 nibble foreground, high nibble background)
// Rows that a message does not carry keep their cells. Zero columns or rows (a head of 26
// zero bytes, say) switch the layer off.
struct text_layer_head {
    int32_t x, y, w, h;
    uint16_t cols, rows, row_count;
    int32_t raw_size;
};

inline void put_text_layer_head(uint8_t *p, const text_layer_head &t)
{
    store_le32(p, (uint32_t)t.x);
    store_le32(p + 4, (uint32_t)t.y);
    store_le32(p + 8, (uint32_t)t.w);
    store_le32(p + 12, (uint32_t)t.h);
    store_le16(p + 16, t.cols);
    store_le16(p + 18, t.rows);
    store_le16(p + 20, t.row_count);
    store_le32(p + 22, (uint32_t)t.raw_size);
}

inline text_layer_head get_text_layer_head(const uint8_t *p)
{
    return {(int32_t)load_le32(p),      (int32_t)load_le32(p + 4), (int32_t)load_le32(p + 8),
            (int32_t)load_le32(p + 12), load_le16(p + 16),         load_le16(p + 18),
            load_le16(p + 20),          (int32_t)load_le32(p + 22)};
}

// MSG_CURSOR         offset size  field
//                    0      i32   x, y on the host's screen
//                    8      u8    1 when the pointer shows
inline void put_cursor(uint8_t *p, int32_t x, int32_t y, uint8_t visible)
{
    store_le32(p, (uint32_t)x);
    store_le32(p + 4, (uint32_t)y);
    p[8] = visible;
}

// MSG_WINDOW_LIST    offset size  field
//                    0      u16   count of records, topmost window first; of each:
//                    0      u32   window handle, its low 32 bits
//                    4      i32   x, y, width, height of the frame, host screen pixels
//                    20     u8    WINDOW_FOREGROUND, WINDOW_MINIMISED
//                    21     u8    bytes of the title, which follow in the host's code page
constexpr uint8_t WINDOW_FOREGROUND = 1 << 0;
constexpr uint8_t WINDOW_MINIMISED = 1 << 1;

struct window_head {
    uint32_t handle;
    int32_t x, y, width, height;
    uint8_t flags;
};

inline void put_window_head(uint8_t *p, const window_head &w, uint8_t title_bytes)
{
    store_le32(p, w.handle);
    store_le32(p + 4, (uint32_t)w.x);
    store_le32(p + 8, (uint32_t)w.y);
    store_le32(p + 12, (uint32_t)w.width);
    store_le32(p + 16, (uint32_t)w.height);
    p[20] = w.flags;
    p[21] = title_bytes;
}

// MSG_FRAME_END and MSG_FRAME_ACK (which returns the 8 bytes unchanged)
//                    offset size  field
//                    0      u32   frame_seq
//                    4      u32   sent_ms, the host's millisecond tick count
struct frame_stamp {
    uint32_t frame_seq;
    uint32_t sent_ms;
};

inline void put_frame_stamp(uint8_t *p, const frame_stamp &f)
{
    store_le32(p, f.frame_seq);
    store_le32(p + 4, f.sent_ms);
}

inline frame_stamp get_frame_stamp(const uint8_t *p)
{
    return {load_le32(p), load_le32(p + 4)};
}

// MSG_MOUSE          offset size  field
//                    0      i32   x, clamped by the viewer to the host's screen
//                    4      i32   y
//                    8      u8    kind (MOUSE_*)
//                    9      u8    button: 0 left, 1 right, 2 middle (0 for move and wheel)
//                    10     i16   wheel delta, 0 unless the kind is MOUSE_WHEEL
enum mouse_kind : uint8_t {
    MOUSE_MOVE = 0,
    MOUSE_DOWN = 1,
    MOUSE_UP = 2,
    MOUSE_WHEEL = 3,
};

struct mouse_event {
    int32_t x, y;
    uint8_t kind, button;
    int16_t wheel;
};

inline void put_mouse(uint8_t *p, const mouse_event &m)
{
    store_le32(p, (uint32_t)m.x);
    store_le32(p + 4, (uint32_t)m.y);
    p[8] = m.kind;
    p[9] = m.button;
    store_le16(p + 10, (uint16_t)m.wheel);
}

inline mouse_event get_mouse(const uint8_t *p)
{
    return {(int32_t)load_le32(p), (int32_t)load_le32(p + 4), p[8], p[9],
            (int16_t)load_le16(p + 10)};
}

// MSG_KEY            u32: low 16 bits the Windows virtual-key code; bit 16 set for a press.
// The host takes any of bits 16 to 23 as a press.
constexpr uint32_t KEY_PRESS = 0x10000;
constexpr uint32_t KEY_PRESS_MASK = 0xFF0000;

#endif
