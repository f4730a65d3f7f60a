#include "host/capture_plan.h"
#include "tests/test.h"

#include <limits.h>

using namespace host;

TEST_CASE("a result code decides what follows the wait for a frame")
{
    struct {
        const char *what;
        uint32_t code;
        acquire_outcome outcome;
    } rows[] = {
        {"S_OK", 0, ACQUIRE_FRAME},
        {"S_FALSE", 1, ACQUIRE_FRAME},
        {"largest success", 0x7FFFFFFF, ACQUIRE_FRAME},
        {"DXGI_ERROR_WAIT_TIMEOUT", 0x887A0027, ACQUIRE_NOTHING},
        {"DXGI_ERROR_ACCESS_LOST", 0x887A0026, ACQUIRE_LOST},
        {"DXGI_ERROR_INVALID_CALL", 0x887A0001, ACQUIRE_LOST},
        {"DXGI_ERROR_DEVICE_REMOVED", 0x887A0005, ACQUIRE_LOST},
        {"E_ACCESSDENIED", 0x80070005, ACQUIRE_LOST},
        {"smallest failure", 0x80000000, ACQUIRE_LOST},
        {"largest failure", 0xFFFFFFFF, ACQUIRE_LOST},
    };
    for (auto &row : rows) {
        CAPTURE(row.what);
        CHECK(plan_acquire(row.code) == row.outcome);
        CHECK(capture_succeeded(row.code) == (row.outcome == ACQUIRE_FRAME));
    }
}

TEST_CASE("a frame is skipped, copied by rectangles or copied whole")
{
    struct {
        bool presented;
        uint32_t accumulated, rects_bytes;
        bool pending;
        frame_path path;
    } rows[] = {
        {false, 0, 0, false, FRAME_SKIP},  // only the pointer
        {false, 0, 0, true, FRAME_WHOLE},  // but nothing was captured yet
        {false, 1, 40, false, FRAME_SKIP}, // no image, whatever else is reported
        {false, 2, 40, true, FRAME_WHOLE},
        {true, 1, 40, false, FRAME_RECTS},
        {true, 0, 16, false, FRAME_RECTS},
        {true, 1, 40, true, FRAME_WHOLE},
        {true, 2, 40, false, FRAME_WHOLE}, // several images in one
        {true, UINT32_MAX, 40, false, FRAME_WHOLE},
        {true, 1, 0, false, FRAME_WHOLE}, // no rectangles reported
        {true, 1, UINT32_MAX, false, FRAME_RECTS},
    };
    int32_t n = 0;
    for (auto &row : rows) {
        CAPTURE(n++);
        CHECK(plan_frame({row.presented, row.accumulated, row.rects_bytes}, row.pending) ==
              row.path);
    }
}

TEST_CASE("a box is clipped to the picture")
{
    struct {
        const char *what;
        capture_box box, expected; // on 150 x 70
        bool any;
    } rows[] = {
        {"inside", {1, 2, 3, 4}, {1, 2, 3, 4}, true},
        {"all", {0, 0, 150, 70}, {0, 0, 150, 70}, true},
        {"past right and bottom", {140, 60, 151, 900}, {140, 60, 150, 70}, true},
        {"before left and top", {-5, INT_MIN, 1, 1}, {0, 0, 1, 1}, true},
        {"beyond on all sides", {INT_MIN, INT_MIN, INT_MAX, INT_MAX}, {0, 0, 150, 70}, true},
        {"empty across", {5, 5, 5, 9}, {}, false},
        {"empty down", {5, 5, 9, 5}, {}, false},
        {"inside out", {INT_MAX, INT_MAX, INT_MIN, INT_MIN}, {}, false},
        {"right of it", {150, 0, 160, 70}, {}, false},
        {"left of it", {-10, 0, 0, 70}, {}, false},
        {"below it", {0, 70, 150, 71}, {}, false},
        {"above it", {0, -1, 150, 0}, {}, false},
    };
    for (auto &row : rows) {
        CAPTURE(row.what);
        capture_box clipped = {9, 9, 9, 9};
        CHECK(box_clip(row.box, 150, 70, &clipped) == row.any);
        CHECK(clipped.left == row.expected.left);
        CHECK(clipped.top == row.expected.top);
        CHECK(clipped.right == row.expected.right);
        CHECK(clipped.bottom == row.expected.bottom);
    }
    capture_box clipped = {9, 9, 9, 9};
    CHECK_FALSE(box_clip({0, 0, 1, 1}, 0, 0, &clipped));
    CHECK(clipped.right == 0);
}

TEST_CASE("a move counts when source and destination lie on the screen")
{
    struct {
        const char *what;
        capture_move move; // on 150 x 70
        bool counts;
    } rows[] = {
        {"up", {0, 20, {0, 10, 100, 40}}, true},
        {"one pixel between corners", {149, 69, {0, 0, 1, 1}}, true},
        {"one pixel to the last", {0, 0, {149, 69, 150, 70}}, true},
        {"all onto itself", {0, 0, {0, 0, 150, 70}}, true},
        {"no width", {0, 20, {10, 10, 10, 40}}, false},
        {"no height", {0, 20, {10, 10, 40, 10}}, false},
        {"negative width", {50, 20, {40, 10, 10, 40}}, false},
        {"negative height", {0, 50, {10, 40, 40, 10}}, false},
        {"source left of the screen", {-1, 0, {0, 0, 10, 10}}, false},
        {"source above the screen", {0, -1, {0, 0, 10, 10}}, false},
        {"source past the right edge", {141, 0, {0, 0, 10, 10}}, false},
        {"source past the bottom", {0, 61, {0, 0, 10, 10}}, false},
        {"destination left of the screen", {0, 0, {-1, 0, 9, 10}}, false},
        {"destination above the screen", {0, 0, {0, -1, 10, 9}}, false},
        {"destination past the right edge", {0, 0, {141, 0, 151, 10}}, false},
        {"destination past the bottom", {0, 0, {0, 61, 10, 71}}, false},
        {"source sum beyond 32 bits", {INT_MAX, INT_MAX, {0, 0, 10, 10}}, false},
        {"width beyond 32 bits", {0, 0, {INT_MIN, 0, INT_MAX, 10}}, false},
        {"height beyond 32 bits", {0, 0, {0, INT_MIN, 10, INT_MAX}}, false},
    };
    for (auto &row : rows) {
        CAPTURE(row.what);
        CHECK(move_counts(row.move, 150, 70) == row.counts);
    }
}
