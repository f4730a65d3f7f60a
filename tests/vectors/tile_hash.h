// Tile hashes by tests/vectors/tile_hash.py.
constexpr uint64_t TILE_HASH_ZEROS = 0xD23EB558E037DA16ull;
constexpr uint64_t TILE_HASH_ONES = 0x73BC79D77879ECCDull;
constexpr uint64_t TILE_HASH_COUNT = 0x9C807C9857D4534Aull;
constexpr uint64_t TILE_HASH_LAST_BYTE = 0x0CD41EE4C4BE2A8Bull;
// The last word of a tile of zeros whose hash would come out as 0.
constexpr uint64_t TILE_HASH_VANISHING_WORD = 0x7713DE86EEFD7574ull;
