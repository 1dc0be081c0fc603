// Quorvel: the layered LASzip compressor (point formats 6 to 10): one chunk decoded layer by
// layer.
#pragma once

#include "io/laz/Laz.hpp"

namespace Quorvel::Laz {

// Decodes count records from the chunk's bytes into out; throws std::runtime_error naming the
// problem.
void decodeLayeredChunk(const std::uint8_t* data, std::size_t size, const std::vector<Item>& items,
                        std::uint32_t count, std::size_t recordLength, std::uint8_t* out);

} // namespace Quorvel::Laz
