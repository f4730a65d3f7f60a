// A tile's past: when it changed, and whether the viewer was told its hash.
#include "host/tile_worth.h"

#include <bit>

namespace host
{

constexpr uint32_t TURNS = 8;
constexpr int RESTLESS_TURNS = 6;

void tile_worth_changed(tile_worth *worth, uint32_t turn)
{
    uint32_t passed = turn - worth->turn;
    worth->changes = passed < TURNS ? (uint8_t)(worth->changes << passed | 1) : 1;
    worth->turn = turn;
    worth->unnamed = 0;
}

bool tile_worth_restless(const tile_worth &worth)
{
    return std::popcount(worth.changes) >= RESTLESS_TURNS;
}

void tile_worth_unnamed(tile_worth *worth, uint32_t now_ms)
{
    worth->unnamed = 1;
    worth->since_ms = now_ms;
}

bool tile_worth_settled(const tile_worth &worth, uint32_t now_ms)
{
    return worth.unnamed != 0 && now_ms - worth.since_ms >= TILE_SETTLED_MS;
}

} // namespace host
