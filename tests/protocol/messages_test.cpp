// Every layout, byte by byte, written out by hand from the tables in messages.h, in both
// directions: what put_* writes and what get_* reads back. Field values have four different
// bytes each, so that a wrong offset, width or byte order shows.
#include "protocol/messages.h"

#include "tests/test.h"

TEST_CASE("message types have their numbers")
{
    const struct {
        message_type type;
        uint8_t number;
    } rows[] = {
        {MSG_SERVER_HELLO, 0x01}, {MSG_COPY_RECTS, 0x02},   {MSG_TILE, 0x03},
        {MSG_TEXT_LAYER, 0x04},   {MSG_CURSOR, 0x05},       {MSG_WINDOW_LIST, 0x06},
        {MSG_FRAME_END, 0x07},    {MSG_TILE_REF, 0x08},     {MSG_CLIENT_HELLO, 0x80},
        {MSG_FRAME_ACK, 0x81},    {MSG_MOUSE, 0x82},        {MSG_KEY, 0x83},
        {MSG_CHAR, 0x84},         {MSG_CACHE_ADVERT, 0x85}, {MSG_CACHE_MISS, 0x86},
    };
    for (const auto &row : rows)
        CHECK(row.type == row.number);
}

TEST_CASE("payloads have their sizes")
{
    CHECK(SERVER_HELLO_BYTES == 44);
    CHECK(COPY_RECT_BYTES == 24);
    CHECK(TILE_HEAD_BYTES == 13);
    CHECK(TEXT_LAYER_HEAD_BYTES == 26);
    CHECK(WINDOW_LIST_HEAD_BYTES == 2);
    CHECK(WINDOW_HEAD_BYTES == 22);
    CHECK(CURSOR_BYTES == 9);
    CHECK(FRAME_END_BYTES == 8);
    CHECK(TILE_REF_BYTES == 12);
    CHECK(CLIENT_HELLO_BYTES == 34);
    CHECK(FRAME_ACK_BYTES == 8);
    CHECK(MOUSE_BYTES == 12);
    CHECK(KEY_BYTES == 4);
    CHECK(CHAR_BYTES == 2);
    CHECK(CACHE_MISS_BYTES == 12);
    CHECK(HOST_PAYLOAD_MAX == 65536);
    CHECK(CACHE_ADVERT_MAX_HASHES * 8 == 32768);
    CHECK(CAP_TEXT_LAYER == 1);
    CHECK(CAP_TILE_CACHE == 2);
}

// Room for one payload, with bytes around it that must stay as they are.
struct guarded {
    uint8_t before[4];
    uint8_t bytes[64];
};

static guarded untouched()
{
    guarded g;
    memset(&g, 0xEE, sizeof g);
    return g;
}

// The n expected bytes stand at the start, and nothing else was written.
static bool wrote(const guarded &g, const uint8_t *expected, size_t n)
{
    guarded want = untouched();
    memcpy(want.bytes, expected, n);
    return memcmp(&g, &want, sizeof g) == 0;
}

TEST_CASE("a header is a type, three zeros and a length")
{
    const uint8_t expected[] = {0x86, 0, 0, 0, 0x44, 0x33, 0x22, 0x11};
    guarded g = untouched();
    put_header(g.bytes, MSG_CACHE_MISS, 0x11223344);
    CHECK(wrote(g, expected, MESSAGE_HEADER_BYTES));
    message_header h = get_header(g.bytes);
    CHECK(h.type == MSG_CACHE_MISS);
    CHECK(h.length == 0x11223344);
}

TEST_CASE("only the low byte of a header decides the type")
{
    const uint8_t header[] = {0x07, 0xAA, 0xBB, 0xCC, 8, 0, 0, 0};
    message_header h = get_header(header);
    CHECK(h.type == MSG_FRAME_END);
    CHECK(h.length == 8);
}

TEST_CASE("a length of 4 GiB less one byte is read as that")
{
    const uint8_t header[] = {0x03, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
    CHECK(get_header(header).length == 0xFFFFFFFFu);
}

TEST_CASE("the client hello is caps and a name")
{
    const uint8_t expected[CLIENT_HELLO_BYTES + 1] = "\x03\x00"
                                                     "DESK\0\0\0\0\0\0\0\0\0\0\0\0"
                                                     "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0";
    guarded g = untouched();
    put_client_hello(g.bytes, CAP_TEXT_LAYER | CAP_TILE_CACHE, "DESK");
    CHECK(wrote(g, expected, CLIENT_HELLO_BYTES));
    client_hello h = get_client_hello(g.bytes);
    CHECK(h.caps == 3);
    CHECK(strcmp(h.name, "DESK") == 0);
}

TEST_CASE("a name of 32 characters comes without a terminator and is read with one")
{
    const char name[] = "0123456789abcdef0123456789ABCDEF";
    guarded g = untouched();
    put_client_hello(g.bytes, 0x0201, name);
    const uint8_t expected[CLIENT_HELLO_BYTES + 1] = "\x01\x02"
                                                     "0123456789abcdef0123456789ABCDEF";
    CHECK(wrote(g, expected, CLIENT_HELLO_BYTES));
    CHECK(strcmp(get_client_hello(g.bytes).name, name) == 0);

    g = untouched();
    put_server_hello(g.bytes, 1, 2, 3, "0123456789abcdef0123456789ABCDEFcut");
    CHECK(memcmp(g.bytes + 12, name, 32) == 0);
    CHECK(g.bytes[SERVER_HELLO_BYTES] == 0xEE);
    CHECK(strcmp(get_server_hello(g.bytes).name, name) == 0);
}

TEST_CASE("the server hello is a screen size, the tile size, caps and a name")
{
    const uint8_t expected[SERVER_HELLO_BYTES + 1] = "\x80\x07\x00\x00" // 1920
                                                     "\x38\x04\x00\x00" // 1080
                                                     "\x40\x00"         // 64
                                                     "\x03\x00"
                                                     "PC\0\0\0\0\0\0\0\0\0\0\0\0\0\0"
                                                     "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0";
    guarded g = untouched();
    put_server_hello(g.bytes, 1920, 1080, 3, "PC");
    CHECK(wrote(g, expected, SERVER_HELLO_BYTES));
    server_hello h = get_server_hello(g.bytes);
    CHECK(h.width == 1920);
    CHECK(h.height == 1080);
    CHECK(h.tile_size == 64);
    CHECK(h.caps == 3);
    CHECK(strcmp(h.name, "PC") == 0);
}

TEST_CASE("a hostile server hello is read as it is, negative sizes included")
{
    uint8_t bytes[SERVER_HELLO_BYTES];
    memset(bytes, 0xFF, sizeof bytes);
    server_hello h = get_server_hello(bytes);
    CHECK(h.width == -1);
    CHECK(h.height == -1);
    CHECK(h.tile_size == 0xFFFF);
    CHECK(strnlen(h.name, sizeof h.name) == NAME_BYTES);
}

TEST_CASE("a copy rectangle is six signed numbers")
{
    const uint8_t expected[] = {
        0x04, 0x03, 0x02, 0x01, // src_x 0x01020304
        0xFF, 0xFF, 0xFF, 0xFF, // src_y -1
        0x00, 0x00, 0x00, 0x80, // dst_x, the smallest number
        0xFF, 0xFF, 0xFF, 0x7F, // dst_y, the largest
        0x40, 0x00, 0x00, 0x00, // w 64
        0xFE, 0xFF, 0xFF, 0xFF, // h -2
    };
    guarded g = untouched();
    put_copy_rect(g.bytes, {0x01020304, -1, INT32_MIN, INT32_MAX, 64, -2});
    CHECK(wrote(g, expected, COPY_RECT_BYTES));
    copy_rect r = get_copy_rect(g.bytes);
    CHECK(r.src_x == 0x01020304);
    CHECK(r.src_y == -1);
    CHECK(r.dst_x == INT32_MIN);
    CHECK(r.dst_y == INT32_MAX);
    CHECK(r.w == 64);
    CHECK(r.h == -2);
}

TEST_CASE("a tile head is column, row, raw and hash")
{
    const uint8_t expected[] = {0x02, 0x01, 0x04, 0x03, 0x01, 0x88, 0x77,
                                0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
    guarded g = untouched();
    put_tile_head(g.bytes, {0x0102, 0x0304, 1, 0x1122334455667788ull});
    CHECK(wrote(g, expected, TILE_HEAD_BYTES));
    tile_head t = get_tile_head(g.bytes);
    CHECK(t.tile_x == 0x0102);
    CHECK(t.tile_y == 0x0304);
    CHECK(t.raw == 1);
    CHECK(t.hash == 0x1122334455667788ull);
}

TEST_CASE("a tile reference and a cache miss are column, row and hash")
{
    const uint8_t expected[] = {0xFF, 0xFF, 0x04, 0x03, 0x88, 0x77,
                                0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
    guarded g = untouched();
    put_tile_ref(g.bytes, {0xFFFF, 0x0304, 0x1122334455667788ull});
    CHECK(wrote(g, expected, TILE_REF_BYTES));
    CHECK(wrote(g, expected, CACHE_MISS_BYTES));
    tile_ref r = get_tile_ref(g.bytes);
    CHECK(r.tile_x == 0xFFFF);
    CHECK(r.tile_y == 0x0304);
    CHECK(r.hash == 0x1122334455667788ull);
}

TEST_CASE("a text layer head is a rectangle, a grid and two counts")
{
    const uint8_t expected[] = {
        0xF8, 0xFF, 0xFF, 0xFF, // x -8
        0x04, 0x03, 0x02, 0x01, // y 0x01020304
        0xC0, 0x03, 0x00, 0x00, // w 960
        0xE0, 0x01, 0x00, 0x00, // h 480
        0x78, 0x00,             // cols 120
        0x1E, 0x00,             // rows 30
        0x02, 0x01,             // row_count 0x0102
        0x44, 0x33, 0x22, 0x11, // raw_size
    };
    guarded g = untouched();
    put_text_layer_head(g.bytes, {-8, 0x01020304, 960, 480, 120, 30, 0x0102, 0x11223344});
    CHECK(wrote(g, expected, TEXT_LAYER_HEAD_BYTES));
    text_layer_head t = get_text_layer_head(g.bytes);
    CHECK(t.x == -8);
    CHECK(t.y == 0x01020304);
    CHECK(t.w == 960);
    CHECK(t.h == 480);
    CHECK(t.cols == 120);
    CHECK(t.rows == 30);
    CHECK(t.row_count == 0x0102);
    CHECK(t.raw_size == 0x11223344);
}

TEST_CASE("a text layer of zeros is the one that switches it off")
{
    const uint8_t zeros[TEXT_LAYER_HEAD_BYTES] = {};
    guarded g = untouched();
    put_text_layer_head(g.bytes, {});
    CHECK(wrote(g, zeros, TEXT_LAYER_HEAD_BYTES));
    CHECK(get_text_layer_head(zeros).cols == 0);
    CHECK(get_text_layer_head(zeros).rows == 0);
}

TEST_CASE("a window of the list is its handle, frame, flags and the length of its title")
{
    CHECK(WINDOW_FOREGROUND == 1);
    CHECK(WINDOW_MINIMISED == 2);
    const uint8_t expected[] = {
        0x44, 0x33, 0x22, 0x11, // handle
        0xF8, 0xFF, 0xFF, 0xFF, // x -8
        0x02, 0x01, 0x00, 0x00, // y 0x0102
        0x80, 0x02, 0x00, 0x00, // width 640
        0xE0, 0x01, 0x00, 0x00, // height 480
        0x03, 0xC7,             // flags, 199 bytes of title
    };
    guarded g = untouched();
    put_window_head(g.bytes, {0x11223344, -8, 0x0102, 640, 480, 3}, 199);
    CHECK(wrote(g, expected, WINDOW_HEAD_BYTES));
}

TEST_CASE("a cursor message is a position and a flag")
{
    const uint8_t expected[] = {0x00, 0x05, 0x00, 0x00, 0xFD, 0xFF, 0xFF, 0xFF, 0x01};
    guarded g = untouched();
    put_cursor(g.bytes, 1280, -3, 1);
    CHECK(wrote(g, expected, CURSOR_BYTES));
}

TEST_CASE("frame end and acknowledgement are a number and a time")
{
    const uint8_t expected[] = {0x04, 0x03, 0x02, 0x01, 0xF1, 0xF2, 0xF3, 0xF4};
    guarded g = untouched();
    put_frame_stamp(g.bytes, {0x01020304, 0xF4F3F2F1});
    CHECK(wrote(g, expected, FRAME_END_BYTES));
    frame_stamp f = get_frame_stamp(g.bytes);
    CHECK(f.frame_seq == 0x01020304);
    CHECK(f.sent_ms == 0xF4F3F2F1);
}

TEST_CASE("a mouse message is a position, a kind, a button and a wheel delta")
{
    const uint8_t expected[] = {0x7F, 0x07, 0, 0, 0x37, 0x04, 0, 0, 3, 0, 0x88, 0xFF};
    guarded g = untouched();
    put_mouse(g.bytes, {1919, 1079, MOUSE_WHEEL, 0, -120});
    CHECK(wrote(g, expected, MOUSE_BYTES));
    mouse_event m = get_mouse(g.bytes);
    CHECK(m.x == 1919);
    CHECK(m.y == 1079);
    CHECK(m.kind == MOUSE_WHEEL);
    CHECK(m.button == 0);
    CHECK(m.wheel == -120);

    const uint8_t middle_up[] = {0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 2, 2, 0, 0};
    m = get_mouse(middle_up);
    CHECK(m.y == -1);
    CHECK(m.kind == MOUSE_UP);
    CHECK(m.button == 2);
    CHECK(MOUSE_MOVE == 0);
    CHECK(MOUSE_DOWN == 1);
}

TEST_CASE("a key press is bit 16, and the host looks at bits 16 to 23")
{
    CHECK(KEY_PRESS == 1u << 16);
    CHECK(KEY_PRESS_MASK == 0xFFu << 16);
}
